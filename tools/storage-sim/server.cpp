#include "server.hpp"

#include "mapperTree.hpp"
#include "messageFields.hpp"

#include <csignal>
#include <iostream>
#include <stdexcept>

namespace storagesim
{
namespace
{

int onSignal(sd_event_source* source, const signalfd_siginfo* /*info*/,
             void* /*userdata*/)
{
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

} // namespace

Server::Server(Scenario scenario) : scenario(std::move(scenario))
{
    sd_event* newEvent = nullptr;
    checked(sd_event_new(&newEvent), "creating the event loop");
    event.reset(newEvent);
    sd_bus* newBus = nullptr;
    checked(sd_bus_open_system(&newBus), "connecting to the system bus");
    bus.reset(newBus);
    const char* unique = nullptr;
    checked(sd_bus_get_unique_name(bus.get(), &unique),
            "asking for the unique name");
    uniqueName = unique;
}

Server::~Server() = default;

void Server::start()
{
    checked(sd_bus_attach_event(bus.get(), event.get(), 0),
            "attaching the bus to the event loop");
    // Without the daemon there is nothing left to simulate.
    checked(sd_bus_set_exit_on_disconnect(bus.get(), 1), "exit on disconnect");
    for (int signal : {SIGTERM, SIGINT})
    {
        sd_event_source* source = nullptr;
        checked(sd_event_add_signal(event.get(), &source, signal, onSignal,
                                    nullptr),
                "watching signals");
        signalSources.emplace_back(source);
    }
    if (scenario.callLog)
    {
        callLog.open(*scenario.callLog, std::ios::app);
        if (!callLog)
        {
            throw ScenarioError("callLog: cannot open " + *scenario.callLog);
        }
    }
    sd_bus_slot* slot = nullptr;
    checked(sd_bus_add_fallback(bus.get(), &slot, "/", onMessage, this),
            "installing the handler");
    handlerSlot.reset(slot);
    for (auto [own, name] : {std::pair{scenario.ownMapper, mapperName},
                             std::pair{scenario.ownStorage, storageName}})
    {
        int result = own ? sd_bus_request_name(bus.get(), name, 0) : 0;
        if (result == -EEXIST)
        {
            throw std::runtime_error(std::string(name) +
                                     " is already owned by another connection");
        }
        checked(result, std::string("owning ") + name);
    }
    readyAt = std::chrono::steady_clock::now();
}

int Server::run()
{
    return checked(sd_event_loop(event.get()), "running the event loop");
}

int Server::onMessage(sd_bus_message* call, void* userdata,
                      sd_bus_error* /*error*/)
{
    auto* self = static_cast<Server*>(userdata);
    try
    {
        return self->dispatch(call) ? 1 : 0;
    }
    catch (const std::exception& e)
    {
        std::cerr << "storage-sim: " << e.what() << std::endl;
        sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "%s", e.what());
        return 1;
    }
}

bool Server::dispatch(sd_bus_message* call)
{
    std::string path = nullSafe(sd_bus_message_get_path(call));
    if (sd_bus_message_is_method_call(call, introspectableInterface,
                                      "Introspect") > 0)
    {
        introspect(call);
        return true;
    }
    if (path == mapperPath && addressedTo(call, mapperName) &&
        sd_bus_message_is_method_call(call, mapperInterface, "GetSubTree") > 0)
    {
        getSubTree(call);
        return true;
    }
    if (sd_bus_message_is_method_call(call, propertiesInterface, "GetAll") > 0)
    {
        getAll(call);
        return true;
    }
    if (sd_bus_message_is_method_call(call, propertiesInterface, "Get") > 0)
    {
        getProperty(call);
        return true;
    }
    if (path == drivePath && addressedTo(call, storageName) &&
        sd_bus_message_is_method_call(call, driveInterface, nullptr) > 0)
    {
        return driveMethod(call);
    }
    return false;
}

// Both names sit on one connection; a call reaches only the service it was
// sent to, as it would with two processes. A call to the unique name sees
// everything.
bool Server::addressedTo(sd_bus_message* call, const std::string& service) const
{
    std::string destination = nullSafe(sd_bus_message_get_destination(call));
    return destination.empty() || destination == uniqueName ||
           destination == service;
}

bool Server::hasArguments(sd_bus_message* call, const char* signature)
{
    if (sd_bus_message_has_signature(call, signature) > 0)
    {
        return true;
    }
    respond(
        call, {},
        DbusError{SD_BUS_ERROR_INVALID_ARGS,
                  std::string("expected arguments of signature ") + signature});
    return false;
}

void Server::logCall(sd_bus_message* call, const Json& arguments)
{
    if (!callLog.is_open())
    {
        return;
    }
    callLog << nullSafe(sd_bus_message_get_member(call)) << ' '
            << nullSafe(sd_bus_message_get_path(call)) << ' '
            << arguments.dump(-1, ' ', false, Json::error_handler_t::replace)
            << std::endl;
}

} // namespace storagesim
