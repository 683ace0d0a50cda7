#include "server.hpp"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <iostream>

namespace storagesim
{
namespace
{

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

} // namespace

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

} // namespace storagesim
