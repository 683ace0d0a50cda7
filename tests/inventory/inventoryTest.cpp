#include "dlogCapture.hpp"
#include "privateBus.hpp"
#include "qvDbusCollectCommon.hpp"
#include "simulator.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <sstream>
#include <tuple>
#include <variant>

namespace
{

using testsupport::PrivateBus;
using testsupport::Simulator;
using testsupport::TempDir;

// The inventory's connection is made once per process, so every test of
// this program talks to the same private bus; each test brings its own
// simulator.
PrivateBus* sharedBus = nullptr;

class BusEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        bus = std::make_unique<PrivateBus>();
        bus->exportToEnvironment();
        sharedBus = bus.get();
    }
    void TearDown() override
    {
        sharedBus = nullptr;
        bus.reset();
    }

private:
    std::unique_ptr<PrivateBus> bus;
};

const auto* const environment =
    ::testing::AddGlobalTestEnvironment(new BusEnvironment);

// "qvDbusCollectCommon.123.fn: text" -> level|module|"qvDbusCollectCommon.L.fn:
// text"
std::vector<std::string> logLines(const dlog::Capture& capture)
{
    static const std::regex lineNumber(R"(^(qvDbusCollectCommon)\.[0-9]+\.)");
    std::vector<std::string> lines;
    for (const auto& record : capture.records())
    {
        lines.push_back(std::to_string(record.level) + "|" +
                        std::to_string(record.module) + "|" +
                        std::regex_replace(record.text, lineNumber, "$1.L."));
    }
    return lines;
}

std::string drive(const std::string& path, const std::string& properties,
                  const std::string& extra = "")
{
    return R"({"path": "/com/kest/omrix/storage/drive/)" + path +
           R"(", "interfaces": {"com.kest.omrix.storage.drive.inventory": {)" +
           properties + "}}" + extra + "}";
}

std::string sasDrive(const std::string& path, const std::string& fqdd)
{
    return drive(path,
                 R"("Fqdd": ["s", ")" + fqdd +
                     R"("], "Protocol": ["u", 32], "Attributes": ["u", 0])");
}

class InventoryTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        driveObjPaths.clear();
        driveObjPathsLoaded = false;
    }

    void serve(const std::string& scenario)
    {
        sim.reset();
        sim = std::make_unique<Simulator>(dir.write("scenario.json", scenario),
                                          *sharedBus);
    }

    void serveDrives(const std::vector<std::string>& drives,
                     const std::string& more = "")
    {
        std::string objects;
        for (const auto& item : drives)
        {
            objects += (objects.empty() ? "" : ",") + item;
        }
        serve(R"({"objects": [)" + objects + "]" + more + "}");
    }

    struct Info
    {
        int result = 0;
        std::string fqdd = "untouched";
        uint32_t protocol = 0xdead;
        uint32_t attributes = 0xbeef;
    };

    Info infoOf(int index, uint32_t kind = STORAGE_OBJ_DRIVE)
    {
        Info info;
        info.result = getStorageObjInfo(kind, &info.fqdd, &info.protocol,
                                        &info.attributes, index);
        return info;
    }

    TempDir dir;
    std::unique_ptr<Simulator> sim;
};

TEST_F(InventoryTest, SubTreeIsSortedByteWiseAndLogged)
{
    serveDrives(
        {sasDrive("2", "D2"), sasDrive("10", "D10"), sasDrive("1", "D1")});
    dlog::Capture capture;
    auto paths = GetObjectsSubTree("/com/kest/omrix/storage/drive", 0,
                                   {"com.kest.omrix.storage.drive.inventory"});

    std::list<std::string> expected = {"/com/kest/omrix/storage/drive/1",
                                       "/com/kest/omrix/storage/drive/10",
                                       "/com/kest/omrix/storage/drive/2"};
    EXPECT_EQ(paths, expected);
    std::vector<std::string> expectedLog = {
        "9|172|qvDbusCollectCommon.L.GetObjectsSubTree: GetObjectsSubTree: "
        "No. of objects found = 3\n",
        "9|172|qvDbusCollectCommon.L.GetObjectsSubTree: [GetObjectsSubTree] "
        "/com/kest/omrix/storage/drive/1\n",
        "9|172|qvDbusCollectCommon.L.GetObjectsSubTree: [GetObjectsSubTree] "
        "/com/kest/omrix/storage/drive/10\n",
        "9|172|qvDbusCollectCommon.L.GetObjectsSubTree: [GetObjectsSubTree] "
        "/com/kest/omrix/storage/drive/2\n"};
    EXPECT_EQ(logLines(capture), expectedLog);
}

// The reply is read whole before any path is taken: a reply of another
// shape gives no path at all, fields after it are ignored, and a path the
// reply lists twice counts once.
TEST_F(InventoryTest, SubTreeReplyShapes)
{
    const std::string mapperPrefix =
        "9|172|qvDbusCollectCommon.L.GetObjectsSubTree: ";
    const std::vector<std::tuple<std::string, std::string, size_t>> cases{
        {R"({"signature": "a{ss}", "values": [{"/a": "s"}]})",
         "ERROR:sd_bus_message_enter_container: ", 0},
        {R"({"signature": "a{sa{ss}}", "values": [{"/a": {"s": "i"}}]})",
         "ERROR:sd_bus_message_enter_container: ", 0},
        {R"({"signature": "", "values": []})",
         "ERROR:sd_bus_message_enter_container: ", 0},
        {R"({"signature": "a{sa{sas}}s",
             "values": [[["/b", {"s": ["i"]}], ["/a", {}], ["/b", {}]], "x"]})",
         "GetObjectsSubTree: No. of objects found = 2\n", 2},
    };
    for (const auto& [reply, firstLine, paths] : cases)
    {
        SCOPED_TRACE(reply);
        serve(R"({"mapper": {"reply": )" + reply + "}}");
        dlog::Capture capture;
        auto found = GetObjectsSubTree("/", 0, {});
        EXPECT_EQ(found.size(), paths);
        auto lines = logLines(capture);
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0].rfind(mapperPrefix + firstLine, 0), 0u) << lines[0];
    }
}

TEST_F(InventoryTest, CountPerKind)
{
    std::string controller =
        R"({"path": "/com/kest/omrix/storage/controller/0", "interfaces":
            {"com.kest.omrix.storage.controller.inventory":
             {"Fqdd": ["s", "CTRL-0"], "Protocol": ["u", 7]}}})";
    serveDrives({sasDrive("1", "D1"), sasDrive("2", "D2"), controller});

    struct Case
    {
        uint32_t kind;
        int count;
    };
    // Unknown kinds count everything below the storage root, unfiltered.
    for (auto [kind, count] : {Case{STORAGE_OBJ_DRIVE, 2},
                               Case{STORAGE_OBJ_CONTROLLER, 1}, Case{770, 3}})
    {
        dlog::Capture capture;
        EXPECT_EQ(getStorageObjCount(kind), count) << kind;
        ASSERT_FALSE(capture.records().empty());
        EXPECT_EQ(logLines(capture).back(),
                  "9|172|qvDbusCollectCommon.L.getStorageObjCount: objCount:" +
                      std::to_string(count) + "\n");
    }

    auto info = infoOf(0, STORAGE_OBJ_CONTROLLER);
    EXPECT_EQ(info.result, 0);
    EXPECT_EQ(info.fqdd, "CTRL-0");
    EXPECT_EQ(info.protocol, 7u);
    EXPECT_EQ(info.attributes, 0xbeefu);
}

TEST_F(InventoryTest, CountsQueryEveryTimeWhileDrivesAreListedOnce)
{
    std::string callLog = dir.file("calls.log");
    serve(R"({"callLog": ")" + callLog + R"(", "objects": [)" +
          sasDrive("1", "D1") + "," + sasDrive("2", "D2") + "]}");
    auto mapperQueries = [&] {
        std::istringstream calls(testsupport::readFile(callLog));
        int count = 0;
        for (std::string line; std::getline(calls, line);)
        {
            count += line.rfind("GetSubTree ", 0) == 0 ? 1 : 0;
        }
        return count;
    };
    EXPECT_EQ(getStorageObjCount(STORAGE_OBJ_DRIVE), 2);
    EXPECT_EQ(getStorageObjCount(STORAGE_OBJ_DRIVE), 2);
    EXPECT_EQ(mapperQueries(), 2);
    for (int index : {0, 1, 0, 1})
    {
        infoOf(index);
    }
    EXPECT_EQ(mapperQueries(), 3);
}

TEST_F(InventoryTest, MapperAbsentGivesOneErrorAndCachesEmptyDriveList)
{
    serve(R"({"names": {"mapper": false}, "objects": [)" + sasDrive("1", "D1") +
          "]}");
    {
        dlog::Capture capture;
        EXPECT_EQ(getStorageObjCount(STORAGE_OBJ_DRIVE), 0);
        auto lines = logLines(capture);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(
            lines[0].rfind("9|172|qvDbusCollectCommon.L.GetObjectsSubTree: "
                           "ERROR:sd_bus_call: "
                           "org.freedesktop.DBus.Error.ServiceUnknown: ",
                           0),
            0u)
            << lines[0];
        EXPECT_EQ(lines[0].back(), '\n');
    }
    {
        dlog::Capture capture;
        EXPECT_EQ(infoOf(0).result, -1);
        auto lines = logLines(capture);
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_NE(lines[0].find("ERROR:"), std::string::npos);
        EXPECT_EQ(lines[1], "9|172|qvDbusCollectCommon.L.getStorageObjInfo: "
                            "No storage objects found\n");
    }

    // Once the mapper is back the drive list stays the cached empty one:
    // no new query, just the same answer.
    serveDrives({sasDrive("1", "D1")});
    dlog::Capture capture;
    auto info = infoOf(0);
    EXPECT_EQ(info.result, -1);
    EXPECT_EQ(info.fqdd, "untouched");
    EXPECT_EQ(logLines(capture),
              std::vector<std::string>{
                  "9|172|qvDbusCollectCommon.L.getStorageObjInfo: "
                  "No storage objects found\n"});
}

TEST_F(InventoryTest, InfoByIndexFollowsByteOrderAndCachesTheList)
{
    serveDrives({drive("2", R"("Attributes": ["u", 0], "Fqdd": ["s",
                    "DRIVE-SAS-3"], "Protocol": ["u", 32], "Other": ["s", "x"])"),
                 drive("1", R"("Fqdd": ["s", "DRIVE-SSD-1"],
                    "Protocol": ["u", 16], "Attributes": ["u", 2])")});
    auto second = infoOf(1);
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.fqdd, "DRIVE-SAS-3");
    EXPECT_EQ(second.protocol, 32u);
    EXPECT_EQ(second.attributes, 0u);

    // The paths are not fetched again; only the properties are read anew.
    serveDrives({drive("1", R"("Fqdd": ["s", "NEW"])"),
                 drive("2", R"("Fqdd": ["s", "NEWER"])")});
    auto first = infoOf(0);
    EXPECT_EQ(first.fqdd, "NEW");
    EXPECT_EQ(first.protocol, 0xdeadu) << "absent property keeps value";
    EXPECT_EQ(first.attributes, 0xbeefu);
}

TEST_F(InventoryTest, IndexOutsideTheListTouchesNothing)
{
    serveDrives({sasDrive("1", "D1"), sasDrive("2", "D2")});
    for (int index : {2, 3, -1, 65536, 65537, 100000})
    {
        dlog::Capture capture;
        auto info = infoOf(index);
        EXPECT_EQ(info.result, 0) << index;
        EXPECT_EQ(info.fqdd, "untouched") << index;
        EXPECT_EQ(info.protocol, 0xdeadu) << index;
        // Only the first call queries the mapper; none reads properties.
        for (const auto& line : logLines(capture))
        {
            EXPECT_EQ(line.find("getStorageObjInfo"), std::string::npos);
        }
    }
}

TEST_F(InventoryTest, FailedGetAllHandsThePositionToTheNextObject)
{
    std::string fault = R"(, "getAll": {"error": {"name":
        "org.example.Error.Busy", "message": "try later"}})";
    serveDrives({sasDrive("0", "D0"),
                 drive("1", R"("Fqdd": ["s", "D1"])", fault),
                 sasDrive("2", "D2")});
    EXPECT_EQ(infoOf(0).fqdd, "D0");

    dlog::Capture capture;
    EXPECT_EQ(infoOf(1).fqdd, "D2");
    std::vector<std::string> expected = {
        "9|172|qvDbusCollectCommon.L.GetAll_DbusPropertyBasicVariant: "
        "[GetAll_DbusPropertyBasicVariant]:  failed to set Dbus property "
        "error =sd_bus_call: org.example.Error.Busy: try later",
        "9|172|qvDbusCollectCommon.L.getStorageObjInfo: [getStorageObjInfo]: "
        "failed to get property"};
    EXPECT_EQ(logLines(capture), expected);

    EXPECT_EQ(infoOf(2).fqdd, "D2");
    auto last = infoOf(3);
    EXPECT_EQ(last.fqdd, "untouched");
    EXPECT_EQ(last.result, 0);
}

TEST_F(InventoryTest, GetAllFailingOnTheLastObjectLeavesOutputs)
{
    serveDrives({drive("0", R"("Fqdd": ["s", "D0"])",
                       R"(, "getAll": {"error": {"name": "org.example.E",
                           "message": "m"}})")});
    auto info = infoOf(0);
    EXPECT_EQ(info.result, 0);
    EXPECT_EQ(info.fqdd, "untouched");
}

TEST_F(InventoryTest, WrongAlternativeThrowsAfterEarlierOutputs)
{
    struct Case
    {
        const char* properties;
        std::string fqddBefore;
        uint32_t attributesBefore;
    };
    // Entries are taken in name order: Attributes, Fqdd, Protocol.
    const Case cases[] = {
        {R"("Attributes": ["u", 5], "Fqdd": ["s", "X"], "Protocol": ["q", 32])",
         "X", 5},
        {R"("Attributes": ["u", 5], "Fqdd": ["u", 1], "Protocol": ["u", 32])",
         "untouched", 5},
        {R"("Attributes": ["y", 2], "Fqdd": ["s", "X"])", "untouched", 0xbeef},
        {R"("Protocol": ["i", 32])", "untouched", 0xbeef},
        {R"("Protocol": ["t", 32])", "untouched", 0xbeef},
    };
    for (const auto& c : cases)
    {
        driveObjPathsLoaded = false;
        serveDrives({drive("1", c.properties)});
        std::string fqdd = "untouched";
        uint32_t protocol = 0xdead;
        uint32_t attributes = 0xbeef;
        try
        {
            getStorageObjInfo(STORAGE_OBJ_DRIVE, &fqdd, &protocol, &attributes,
                              0);
            ADD_FAILURE() << "no exception for " << c.properties;
        }
        catch (const std::bad_variant_access& e)
        {
            EXPECT_STREQ(e.what(), "std::get: wrong index for variant");
        }
        EXPECT_EQ(fqdd, c.fqddBefore) << c.properties;
        EXPECT_EQ(attributes, c.attributesBefore) << c.properties;
        EXPECT_EQ(protocol, 0xdeadu) << c.properties;
    }
}

TEST_F(InventoryTest, UnknownTypesReadAsEmptyStrings)
{
    serveDrives({drive("1", R"j("Aaa": ["a{sv}", {"k": ["u", 1]}],
        "Fqdd": ["o", "/some/path"], "Nested": ["v", ["s", "x"]],
        "Protocol": ["u", 32], "Zzz": ["(yyyy)", [1, 2, 3, 4]])j")});
    auto info = infoOf(0);
    EXPECT_EQ(info.result, 0);
    EXPECT_EQ(info.fqdd, "");
    EXPECT_EQ(info.protocol, 32u);

    DbusPropertyMap properties;
    ASSERT_EQ(GetAll_DbusPropertyBasicVariant(
                  "com.kest.omrix.storage", "/com/kest/omrix/storage/drive/1",
                  "com.kest.omrix.storage.drive.inventory", properties),
              0);
    ASSERT_EQ(properties.size(), 5u);
    EXPECT_EQ(properties["Aaa"], DbusBasicVariant(std::string()));
    EXPECT_EQ(properties["Nested"], DbusBasicVariant(std::string()));
    EXPECT_EQ(properties["Zzz"].index(), 24u);
    EXPECT_EQ(std::get<24>(properties["Zzz"]),
              std::make_tuple(uint8_t{1}, uint8_t{2}, uint8_t{3}, uint8_t{4}));
}

} // namespace
