#include "server.hpp"

namespace storagesim
{

MessagePtr Server::scratchMessage() const
{
    sd_bus_message* message = nullptr;
    checked(sd_bus_message_new_method_call(bus.get(), &message, nullptr, "/",
                                           nullptr, "Check"),
            "creating a scratch message");
    return MessagePtr(message);
}

void Server::checkEncodes(const std::string& where,
                          const BodyWriter& writer) const
{
    MessagePtr scratch = scratchMessage();
    try
    {
        writer(scratch.get());
    }
    catch (const EncodeError& e)
    {
        throw ScenarioError(where + ": " + e.what());
    }
}

void Server::checkFault(const std::string& where, const Fault& fault) const
{
    for (const auto& [body, name] :
         {std::pair{&fault.reply, ".reply"}, std::pair{&fault.extra, ".extra"}})
    {
        if (*body)
        {
            checkEncodes(where + name, [slot = body](sd_bus_message* message) {
                appendValues(message, (*slot)->signature, (*slot)->values);
            });
        }
    }
}

void Server::checkScenario() const
{
    checkFault("scenario.mapper", scenario.mapper);
    for (std::size_t i = 0; i < scenario.objects.size(); ++i)
    {
        const auto& object = scenario.objects[i];
        std::string where = "scenario.objects[" + std::to_string(i) + "]";
        for (const auto& interface : object.interfaces)
        {
            for (const auto& property : interface.properties)
            {
                checkEncodes(where + ".interfaces." + interface.name + "." +
                                 property.name,
                             [&property](sd_bus_message* message) {
                    appendValue(message, property.signature, property.value);
                });
            }
        }
        checkFault(where + ".getAll", object.getAll);
    }
    for (const auto& [fqdd, drive] : scenario.drives)
    {
        std::string where = "scenario.drives." + fqdd;
        if (drive.rawData)
        {
            checkFault(where + ".rawData", drive.rawData->fault);
        }
        if (drive.sataHdd)
        {
            checkFault(where + ".sataHdd", drive.sataHdd->fault);
        }
        if (drive.sasHdd)
        {
            checkFault(where + ".sasHdd", drive.sasHdd->fault);
        }
    }
}

} // namespace storagesim
