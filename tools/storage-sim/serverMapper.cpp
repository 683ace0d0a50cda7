#include "mapperTree.hpp"
#include "messageFields.hpp"
#include "server.hpp"

#include <algorithm>

namespace storagesim
{
namespace
{

bool implementsAny(const InventoryObject& object,
                   const std::vector<std::string>& filter)
{
    return filter.empty() || std::any_of(filter.begin(), filter.end(),
                                         [&object](const std::string& name) {
        return object.findInterface(name) != nullptr;
           });
}

} // namespace

void Server::getSubTree(sd_bus_message* call)
{
    if (!hasArguments(call, "sias"))
    {
        return;
    }
    std::string root = readString(call);
    int32_t depth = 0;
    checked(sd_bus_message_read_basic(call, 'i', &depth), "reading i");
    std::vector<std::string> filter = readStrings(call);
    logCall(call, Json::array({root, depth, filter}));
    if (scenario.mapperMode == MapperMode::realLike)
    {
        respond(call, scenario.mapper, realLikeAnswer(root, depth, filter));
        return;
    }

    Json tree = Json::array();
    for (const auto& [path, objects] : subTree(root, depth, filter))
    {
        Json services = Json::array();
        for (const auto* object : objects)
        {
            Json names = Json::array();
            for (const auto& interface : object->interfaces)
            {
                names.push_back(interface.name);
            }
            services.push_back(Json::array({object->service, names}));
        }
        tree.push_back(Json::array({path, services}));
    }
    respond(call, scenario.mapper, [&tree](sd_bus_message* reply) {
        appendValue(reply, "a{sa{sas}}", tree);
    });
}

// Matching objects grouped by path, in the order the scenario lists them.
Server::SubTree Server::subTree(const std::string& root, int32_t depth,
                                const std::vector<std::string>& filter) const
{
    SubTree tree;
    for (const auto& object : scenario.objects)
    {
        if (!inSubTree(object.path, root, depth) ||
            !implementsAny(object, filter))
        {
            continue;
        }
        auto found = std::find_if(tree.begin(), tree.end(),
                                  [&object](const auto& entry) {
            return entry.first == object.path;
        });
        if (found == tree.end())
        {
            tree.emplace_back(object.path,
                              std::vector<const InventoryObject*>{});
            found = std::prev(tree.end());
        }
        found->second.push_back(&object);
    }
    return tree;
}

// The objects the real mapper would know, as it would answer at this
// moment after start-up: while it is still discovering, the root is not
// found, then found empty, then half of the objects are known.
Server::Outcome
    Server::realLikeAnswer(const std::string& root, int32_t depth,
                           const std::vector<std::string>& filter) const
{
    std::vector<const InventoryObject*> known;
    for (const auto& object : scenario.objects)
    {
        if (onBus(object.service))
        {
            known.push_back(&object);
        }
    }
    const DbusError notFound{resourceNotFoundError, resourceNotFoundMessage};
    if (scenario.discovery.count() > 0)
    {
        auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
            std::chrono::steady_clock::now() - readyAt);
        auto quarter = elapsed * 4 /
                       std::chrono::duration_cast<std::chrono::microseconds>(
                           scenario.discovery);
        if (quarter == 0)
        {
            return notFound;
        }
        if (quarter == 1)
        {
            return BodyWriter([](sd_bus_message* reply) {
                appendValue(reply, "a{sa{sas}}", Json::array());
            });
        }
        if (quarter == 2)
        {
            known.resize((known.size() + 1) / 2);
        }
    }
    auto tree = realLikeSubTree(known, root, depth, filter);
    if (!tree)
    {
        return notFound;
    }
    Json entries = Json::array();
    for (const auto& [path, services] : *tree)
    {
        Json list = Json::array();
        for (const auto& [service, interfaces] : services)
        {
            list.push_back(Json::array({service, interfaces}));
        }
        entries.push_back(Json::array({path, list}));
    }
    return BodyWriter([entries](sd_bus_message* reply) {
        appendValue(reply, "a{sa{sas}}", entries);
    });
}

// Of the names a scenario object may give, the simulator can own only its
// two; the real mapper knows nothing of a service that is not on the bus.
bool Server::onBus(const std::string& service) const
{
    return (service == storageName && scenario.ownStorage) ||
           (service == mapperName && scenario.ownMapper);
}

} // namespace storagesim
