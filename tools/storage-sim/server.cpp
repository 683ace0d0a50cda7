#include "server.hpp"

#include "mapperTree.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <iostream>
#include <stdexcept>

namespace storagesim
{
namespace
{

std::string nullSafe(const char* text)
{
    return text == nullptr ? std::string() : std::string(text);
}

MessagePtr newReturn(sd_bus_message* call)
{
    sd_bus_message* reply = nullptr;
    checked(sd_bus_message_new_method_return(call, &reply), "creating a reply");
    return MessagePtr(reply);
}

MessagePtr newError(sd_bus_message* call, const DbusError& error)
{
    const sd_bus_error content = {error.name.c_str(), error.message.c_str(), 0};
    sd_bus_message* reply = nullptr;
    checked(sd_bus_message_new_method_error(call, &reply, &content),
            "creating an error reply");
    return MessagePtr(reply);
}

std::vector<std::string> readStrings(sd_bus_message* call)
{
    std::vector<std::string> strings;
    checked(sd_bus_message_enter_container(call, 'a', "s"), "reading as");
    const char* item = nullptr;
    while (checked(sd_bus_message_read_basic(call, 's', &item), "reading as") >
           0)
    {
        strings.emplace_back(item);
    }
    checked(sd_bus_message_exit_container(call), "reading as");
    return strings;
}

std::string readString(sd_bus_message* call)
{
    const char* text = nullptr;
    checked(sd_bus_message_read_basic(call, 's', &text), "reading s");
    return text;
}

bool implementsAny(const InventoryObject& object,
                   const std::vector<std::string>& filter)
{
    return filter.empty() || std::any_of(filter.begin(), filter.end(),
                                         [&object](const std::string& name) {
        return object.findInterface(name) != nullptr;
           });
}

void appendStatus(sd_bus_message* reply, const StatusPair& status)
{
    appendValue(reply, "(tt)", Json::array({status.primary, status.secondary}));
}

void appendOctets(sd_bus_message* reply, const std::vector<uint8_t>& octets)
{
    checked(
        sd_bus_message_append_array(reply, 'y', octets.data(), octets.size()),
        "appending octets");
}

void writeRawData(sd_bus_message* reply, const RawDataEntry& entry)
{
    appendStatus(reply, entry.status);
    appendOctets(reply, entry.data);
}

void writeHardDrive(sd_bus_message* reply, const HardDriveEntry& entry)
{
    appendStatus(reply, entry.status);
    appendValues(
        reply, "yuutuss",
        Json::array({entry.field1, entry.field2, entry.protocol, entry.field4,
                     entry.attributes, entry.field6, entry.field7}));
    for (const auto& page : entry.pages)
    {
        appendOctets(reply, page.data);
        appendValue(reply, "y", page.code);
        appendValue(reply, "q", page.length);
    }
}

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

bool Server::driveMethod(sd_bus_message* call)
{
    std::string member = nullSafe(sd_bus_message_get_member(call));
    bool raw = member == "GetSmartPDSASSATARawData";
    bool sata = member == "GetSmartPDSATAHDDData";
    if (!raw && !sata && member != "GetSmartPDSASHDDData")
    {
        return false;
    }
    if (!hasArguments(call, "s"))
    {
        return true;
    }
    std::string fqdd = readString(call);
    logCall(call, Json::array({fqdd}));
    auto drive = scenario.drives.find(fqdd);
    if (drive != scenario.drives.end())
    {
        const DriveEntry& entry = drive->second;
        const auto& hdd = sata ? entry.sataHdd : entry.sasHdd;
        if (raw && entry.rawData)
        {
            const RawDataEntry& data = *entry.rawData;
            respond(call, data.fault, [&data](sd_bus_message* reply) {
                writeRawData(reply, data);
            });
            return true;
        }
        if (!raw && hdd)
        {
            respond(call, hdd->fault, [&hdd](sd_bus_message* reply) {
                writeHardDrive(reply, *hdd);
            });
            return true;
        }
    }
    respond(
        call, {},
        DbusError{notFoundError, member + ": no data for FQDD '" + fqdd + "'"});
    return true;
}

void Server::respond(sd_bus_message* call, const Fault& faultOfHandler,
                     const Outcome& normal)
{
    static const Fault none;
    const Fault& fault = faultOfHandler.fromCall > 1 &&
                                 ++callsMet[&faultOfHandler] <
                                     faultOfHandler.fromCall
                             ? none
                             : faultOfHandler;
    signalCaller(call, fault);
    if (fault.noReply || sd_bus_message_get_expect_reply(call) <= 0)
    {
        return;
    }
    MessagePtr reply = buildReply(call, fault, normal);
    if (fault.delay.count() > 0)
    {
        schedule(std::move(reply), fault.delay);
        return;
    }
    checked(sd_bus_send(bus.get(), reply.get(), nullptr), "sending a reply");
}

// The daemon knows every peer's process; the test's caller shares this
// process namespace. Only the first call that meets the fault is signalled:
// a caller that makes an interrupted call again is not interrupted again.
void Server::signalCaller(sd_bus_message* call, const Fault& fault)
{
    if (fault.signalCaller == 0 || !signalled.insert(&fault).second)
    {
        return;
    }
    sd_bus_creds* creds = nullptr;
    checked(sd_bus_query_sender_creds(call, SD_BUS_CREDS_PID, &creds),
            "asking for the caller's process");
    pid_t pid = 0;
    int result = sd_bus_creds_get_pid(creds, &pid);
    sd_bus_creds_unref(creds);
    checked(result, "reading the caller's process");
    if (kill(pid, fault.signalCaller) != 0)
    {
        checked(-errno, "signalling the caller");
    }
    if (fault.signalCount > 1)
    {
        startStorm(pid, fault);
    }
}

// The rest of a storm, one signal a tick whatever the caller does meanwhile;
// a caller that has gone ends it.
void Server::startStorm(pid_t pid, const Fault& fault)
{
    SignalStorm& storm = storms.emplace_back();
    storm.pid = pid;
    storm.signal = fault.signalCaller;
    storm.left = fault.signalCount - 1;
    storm.everyUs = std::chrono::microseconds(fault.signalEvery).count();
    sd_event_source* timer = nullptr;
    int result = sd_event_add_time_relative(event.get(), &timer,
                                            CLOCK_MONOTONIC, storm.everyUs, 1,
                                            onStormTimer, &storm);
    if (result < 0)
    {
        storms.pop_back();
        checked(result, "arming a signal storm");
    }
    storm.timer.reset(timer);
}

int Server::onStormTimer(sd_event_source* source, uint64_t /*usec*/,
                         void* userdata)
{
    auto* storm = static_cast<SignalStorm*>(userdata);
    if (kill(storm->pid, storm->signal) != 0 || --storm->left == 0)
    {
        return 0;
    }
    int result = sd_event_source_set_time_relative(source, storm->everyUs);
    return result < 0 ? result
                      : sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
}

MessagePtr Server::buildReply(sd_bus_message* call, const Fault& fault,
                              const Outcome& normal)
{
    if (fault.error)
    {
        return newError(call, *fault.error);
    }
    MessagePtr reply;
    if (fault.reply)
    {
        reply = newReturn(call);
        appendValues(reply.get(), fault.reply->signature, fault.reply->values);
        return reply;
    }
    if (const auto* error = std::get_if<DbusError>(&normal))
    {
        return newError(call, *error);
    }
    reply = newReturn(call);
    std::get<BodyWriter>(normal)(reply.get());
    if (fault.extra)
    {
        appendValues(reply.get(), fault.extra->signature, fault.extra->values);
    }
    return reply;
}

void Server::schedule(MessagePtr reply, std::chrono::milliseconds delay)
{
    PendingReply& entry = pending.emplace_back();
    entry.server = this;
    entry.reply = std::move(reply);
    sd_event_source* timer = nullptr;
    uint64_t usec = std::chrono::microseconds(delay).count();
    // Accuracy 1 us: the default would let sd-event hold the reply back by
    // up to a further 250 ms.
    int result = sd_event_add_time_relative(
        event.get(), &timer, CLOCK_MONOTONIC, usec, 1, onTimer, &entry);
    if (result < 0)
    {
        pending.pop_back();
        checked(result, "arming a reply timer");
    }
    entry.timer.reset(timer);
}

int Server::onTimer(sd_event_source* /*source*/, uint64_t /*usec*/,
                    void* userdata)
{
    auto* entry = static_cast<PendingReply*>(userdata);
    entry->server->sendPending(entry);
    return 0;
}

void Server::sendPending(PendingReply* entry)
{
    int result = sd_bus_send(bus.get(), entry->reply.get(), nullptr);
    if (result < 0)
    {
        std::cerr << "storage-sim: sending a delayed reply: "
                  << std::system_error(-result, std::generic_category()).what()
                  << std::endl;
    }
    pending.remove_if(
        [entry](const PendingReply& item) { return &item == entry; });
}

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
