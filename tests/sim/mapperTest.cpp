#include "simClient.hpp"

namespace simtest
{
namespace
{

// Listed out of byte order on purpose: replies must keep this order.
const char* inventory = R"({
  "sasSata": {"status": 0, "entries": []},
  "objects": [
    {"path": "/com/kest/omrix/storage/drive/9",
     "interfaces": {"com.kest.omrix.storage.drive.inventory": {}}},
    {"path": "/com/kest/omrix/storage/drive/10",
     "interfaces": {"com.kest.omrix.storage.drive.inventory": {},
                    "org.freedesktop.DBus.Properties": {}}},
    {"path": "/com/kest/omrix/storage/drive10",
     "interfaces": {"com.kest.omrix.storage.drive.inventory": {}}},
    {"path": "/com/kest/omrix/storage/controller/0",
     "interfaces": {"com.kest.omrix.storage.controller.inventory": {}}},
    {"path": "/com/kest/omrix/storage/drive/9/slot/1",
     "interfaces": {"com.kest.omrix.storage.drive.inventory": {}}},
    {"path": "/com/kest/omrix/storage/drive",
     "interfaces": {"com.kest.omrix.storage.drive.service": {}}},
    {"path": "/com/kest/omrix/storage/drive/10", "service": "org.example.Other",
     "interfaces": {"org.example.Extra": {}}}
  ]
})";

TEST_F(SimTest, subTreeFiltersByRootDepthAndInterface)
{
    serve(inventory);
    const std::string drive = "/com/kest/omrix/storage/drive";
    struct Case
    {
        std::string root;
        int32_t depth;
        std::vector<std::string> filter;
        std::vector<std::string> paths;
    };
    const std::vector<Case> cases = {
        {"/",
         0,
         {},
         {drive + "/9", drive + "/10", "/com/kest/omrix/storage/drive10",
          "/com/kest/omrix/storage/controller/0", drive + "/9/slot/1", drive}},
        {drive,
         0,
         {driveInventory},
         {drive + "/9", drive + "/10", drive + "/9/slot/1"}},
        {drive + "/",
         0,
         {driveInventory},
         {drive + "/9", drive + "/10", drive + "/9/slot/1"}},
        {drive, 1, {driveInventory}, {drive + "/9", drive + "/10"}},
        {drive,
         -1,
         {driveInventory},
         {drive + "/9", drive + "/10", drive + "/9/slot/1"}},
        {"/com/kest/omrix/storage",
         1,
         {},
         {"/com/kest/omrix/storage/drive10", drive}},
        {drive + "/9", 0, {}, {drive + "/9", drive + "/9/slot/1"}},
        {drive + "/1", 0, {}, {}},
        {"/", 0, {"org.example.Extra"}, {drive + "/10"}},
        {"/com/kest/omrix/storage/controller",
         0,
         {"com.kest.omrix.storage.controller.inventory", "no.such.Iface"},
         {"/com/kest/omrix/storage/controller/0"}},
        {"/", 0, {"no.such.Iface"}, {}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.root + " depth " + std::to_string(c.depth));
        Reply reply = client->getSubTree(c.root, c.depth, c.filter);
        ASSERT_EQ(reply.result, 1) << reply.errorMessage;
        EXPECT_EQ(reply.signature, "a{sa{sas}}");
        EXPECT_EQ(subTreePaths(reply), c.paths);
    }
}

TEST_F(SimTest, subTreeGroupsServicesOfOnePath)
{
    serve(inventory);
    Reply reply = client->getSubTree("/com/kest/omrix/storage/drive/10", 0, {});
    Json expected = Json::parse(R"([[["/com/kest/omrix/storage/drive/10", [
        ["com.kest.omrix.storage", ["com.kest.omrix.storage.drive.inventory",
                                    "org.freedesktop.DBus.Properties"]],
        ["org.example.Other", ["org.example.Extra"]]]]]])");
    EXPECT_EQ(reply.body, expected);
}

// Each name sits on one connection, but a call only reaches the service it
// was sent to, and a name left unowned is unknown to the bus.
TEST_F(SimTest, namesDecideWhichServicesAnswer)
{
    struct Case
    {
        const char* names;
        const char* mapperError;
        const char* storageError;
    };
    const std::vector<Case> cases = {
        {R"({"mapper": false})", "org.freedesktop.DBus.Error.ServiceUnknown",
         ""},
        {R"({"storage": false})", "",
         "org.freedesktop.DBus.Error.ServiceUnknown"},
        {R"({"mapper": true, "storage": true})", "", ""},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.names);
        serve(std::string(R"({"names": )") + c.names + R"(, "objects": [
            {"path": "/a", "interfaces": {"x.Y": {"P": ["u", 1]}}}]})");
        EXPECT_EQ(client->getSubTree("/", 0, {}).errorName, c.mapperError);
        EXPECT_EQ(client->getAll("/a", "x.Y").errorName, c.storageError);
        sim.reset();
    }
}

TEST_F(SimTest, servicesOnlyAnswerTheirOwnMethods)
{
    serve(inventory);
    EXPECT_EQ(client->getSubTree("/", 0, {}, storage).errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(
        client
            ->getAll("/com/kest/omrix/storage/drive/9", driveInventory, mapper)
            .errorName,
        "org.freedesktop.DBus.Error.UnknownObject");
    EXPECT_EQ(
        client->getAll("/com/kest/omrix/storage/drive/10", "org.example.Extra")
            .errorName,
        "org.freedesktop.DBus.Error.UnknownInterface");
}

} // namespace
} // namespace simtest
