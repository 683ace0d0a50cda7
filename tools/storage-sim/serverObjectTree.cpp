#include "mapperTree.hpp"
#include "messageFields.hpp"
#include "server.hpp"

namespace storagesim
{

void Server::introspect(sd_bus_message* call)
{
    if (!hasArguments(call, ""))
    {
        return;
    }
    logCall(call, Json::array());
    auto node = describeNode(call);
    if (!node)
    {
        respond(call, {},
                DbusError{SD_BUS_ERROR_UNKNOWN_OBJECT,
                          "Unknown object '" +
                              nullSafe(sd_bus_message_get_path(call)) + "'."});
        return;
    }
    std::string xml = introspectionXml(*node);
    respond(call, {},
            [&xml](sd_bus_message* reply) { appendValue(reply, "s", xml); });
}

// The node at the call's path as the service it was sent to shows it: a
// service has the nodes on the way to each of its objects. Nothing when
// none of its objects lies at or below the path.
std::optional<NodeDescription> Server::describeNode(sd_bus_message* call) const
{
    const std::string nodePath = nullSafe(sd_bus_message_get_path(call));
    NodeDescription node;
    bool exists = false;
    // Whether the object is at the node itself; one below names a child.
    auto visit =
        [&](const std::string& objectPath, const std::string& service) {
        if (!addressedTo(call, service) || !inSubTree(objectPath, nodePath, 0))
        {
            return false;
        }
        exists = true;
        if (objectPath == nodePath)
        {
            return true;
        }
        std::size_t start = nodePath == "/" ? 1 : nodePath.size() + 1;
        node.children.insert(
            objectPath.substr(start, objectPath.find('/', start) - start));
        return false;
    };
    node.mapper = visit(mapperPath, mapperName);
    node.drive = visit(drivePath, storageName);
    for (const auto& object : scenario.objects)
    {
        if (visit(object.path, object.service))
        {
            node.objects.push_back(&object);
        }
    }
    if (!exists)
    {
        return std::nullopt;
    }
    return node;
}

} // namespace storagesim
