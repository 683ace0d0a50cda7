#include "mapperTree.hpp"
#include "messageFields.hpp"
#include "server.hpp"

namespace storagesim
{
namespace
{

void writeProperties(sd_bus_message* reply, const Interface& interface)
{
    Json entries = Json::array();
    for (const auto& property : interface.properties)
    {
        entries.push_back(
            Json::array({property.name,
                         Json::array({property.signature, property.value})}));
    }
    appendValue(reply, "a{sv}", entries);
}

} // namespace

// On the unique name one path may hold the objects of several services:
// the first one with the interface answers, else the first one listed.
const InventoryObject* Server::findObject(sd_bus_message* call,
                                          const std::string& interface) const
{
    std::string path = nullSafe(sd_bus_message_get_path(call));
    const InventoryObject* found = nullptr;
    for (const auto& object : scenario.objects)
    {
        if (object.path != path || !addressedTo(call, object.service))
        {
            continue;
        }
        if (object.findInterface(interface) != nullptr)
        {
            return &object;
        }
        found = found == nullptr ? &object : found;
    }
    return found;
}

void Server::getAll(sd_bus_message* call)
{
    if (!hasArguments(call, "s"))
    {
        return;
    }
    std::string name = readString(call);
    logCall(call, Json::array({name}));
    const InventoryObject* object = findObject(call, name);
    if (object == nullptr)
    {
        respond(call, {},
                DbusError{SD_BUS_ERROR_UNKNOWN_OBJECT,
                          "Unknown object '" +
                              nullSafe(sd_bus_message_get_path(call)) + "'."});
        return;
    }
    const Interface* interface = object->findInterface(name);
    if (interface == nullptr)
    {
        respond(call, object->getAll,
                DbusError{SD_BUS_ERROR_UNKNOWN_INTERFACE,
                          "Unknown interface '" + name + "'."});
        return;
    }
    respond(call, object->getAll, [interface](sd_bus_message* reply) {
        writeProperties(reply, *interface);
    });
}

void Server::getProperty(sd_bus_message* call)
{
    if (!hasArguments(call, "ss"))
    {
        return;
    }
    std::string interfaceName = readString(call);
    std::string propertyName = readString(call);
    logCall(call, Json::array({interfaceName, propertyName}));
    const InventoryObject* object = findObject(call, interfaceName);
    const Interface* interface =
        object == nullptr ? nullptr : object->findInterface(interfaceName);
    const Property* property = nullptr;
    if (interface != nullptr)
    {
        for (const auto& candidate : interface->properties)
        {
            property = candidate.name == propertyName ? &candidate : property;
        }
    }
    if (property == nullptr)
    {
        respond(call, {},
                DbusError{SD_BUS_ERROR_UNKNOWN_PROPERTY,
                          "Unknown property '" + interfaceName + "." +
                              propertyName + "'."});
        return;
    }
    respond(call, {}, [property](sd_bus_message* reply) {
        appendValue(reply, "v",
                    Json::array({property->signature, property->value}));
    });
}

} // namespace storagesim
