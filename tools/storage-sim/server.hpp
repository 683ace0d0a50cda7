#pragma once

#include "nodeDescription.hpp"
#include "scenario.hpp"
#include "sdBusHandles.hpp"

#include <chrono>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace storagesim
{

// Serves one scenario on the system bus: the object mapper, the inventory
// objects' properties and the storage service's SMART methods.
class Server
{
  public:
    // Connects to the system bus; names are taken only by start().
    explicit Server(Scenario scenario);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Encodes every configured value once, so that a value which does not
    // fit its signature fails here rather than in the middle of a test.
    void checkScenario() const;

    // Installs the handlers and takes the scenario's bus names.
    void start();

    // Serves until SIGTERM or SIGINT (which must be blocked already);
    // returns the exit code.
    int run();

  private:
    using BodyWriter = std::function<void(sd_bus_message*)>;
    using Outcome = std::variant<DbusError, BodyWriter>;
    using SubTree = std::vector<
        std::pair<std::string, std::vector<const InventoryObject*>>>;

    struct PendingReply
    {
        Server* server = nullptr;
        MessagePtr reply;
        EventSourcePtr timer;
    };

    // The signals of one storm still to send, on a repeating timer.
    struct SignalStorm
    {
        pid_t pid = 0;
        int signal = 0;
        uint32_t left = 0;
        uint64_t everyUs = 0;
        EventSourcePtr timer;
    };

    Scenario scenario;
    EventPtr event;
    BusPtr bus;
    std::string uniqueName;
    // When the names were taken: the mapper's discovery counts from here.
    std::chrono::steady_clock::time_point readyAt;
    SlotPtr handlerSlot;
    std::vector<EventSourcePtr> signalSources;
    std::list<PendingReply> pending;
    std::list<SignalStorm> storms;
    // Faults whose signal has been sent: each signals one call only.
    std::set<const Fault*> signalled;
    // Calls each fault's handler has had, for faults that start later.
    std::map<const Fault*, uint32_t> callsMet;
    std::ofstream callLog;

    static int onMessage(sd_bus_message* call, void* userdata,
                         sd_bus_error* error);
    static int onTimer(sd_event_source* source, uint64_t usec, void* userdata);
    static int onStormTimer(sd_event_source* source, uint64_t usec,
                            void* userdata);

    bool dispatch(sd_bus_message* call);
    bool addressedTo(sd_bus_message* call, const std::string& service) const;
    bool hasArguments(sd_bus_message* call, const char* signature);
    void logCall(sd_bus_message* call, const Json& arguments);

    void getSubTree(sd_bus_message* call);
    SubTree subTree(const std::string& root, int32_t depth,
                    const std::vector<std::string>& filter) const;
    Outcome realLikeAnswer(const std::string& root, int32_t depth,
                           const std::vector<std::string>& filter) const;
    bool onBus(const std::string& service) const;
    void introspect(sd_bus_message* call);
    std::optional<NodeDescription> describeNode(sd_bus_message* call) const;
    void getAll(sd_bus_message* call);
    void getProperty(sd_bus_message* call);
    const InventoryObject* findObject(sd_bus_message* call,
                                      const std::string& interface) const;
    bool driveMethod(sd_bus_message* call);

    void respond(sd_bus_message* call, const Fault& fault,
                 const Outcome& normal);
    void signalCaller(sd_bus_message* call, const Fault& fault);
    void startStorm(pid_t pid, const Fault& fault);
    static MessagePtr buildReply(sd_bus_message* call, const Fault& fault,
                                 const Outcome& normal);
    void schedule(MessagePtr reply, std::chrono::milliseconds delay);
    void sendPending(PendingReply* entry);

    MessagePtr scratchMessage() const;
    void checkEncodes(const std::string& where, const BodyWriter& writer) const;
    void checkFault(const std::string& where, const Fault& fault) const;
};

} // namespace storagesim
