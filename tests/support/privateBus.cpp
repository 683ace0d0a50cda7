// The private message bus of a test and the simulator on it.

#include "testSupport.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

namespace testsupport
{

namespace
{

// The limits of a controller's system bus: dbus-daemon's own system-bus
// defaults for message sizes, and pending replies raised as real system-bus
// configurations raise them (dbus-daemon's default of 128 makes a mapper's
// burst of introspection calls fail).
constexpr const char* systemBusLimits =
    "<limit name=\"max_incoming_bytes\">133169152</limit>"
    "<limit name=\"max_outgoing_bytes\">133169152</limit>"
    "<limit name=\"max_message_size\">33554432</limit>"
    "<limit name=\"max_replies_per_connection\">50000</limit>";

// dbus-broker takes its socket from the launcher and ignores <listen>; it
// warns about eavesdrop, which it does not have.
std::string busConfig(BusKind kind, const std::string& socketName)
{
    const bool daemon = kind == BusKind::daemon;
    return std::string("<busconfig><type>system</type>") +
           (daemon ? "<listen>unix:abstract=" + socketName + "</listen>"
                   : std::string()) +
           "<auth>EXTERNAL</auth><policy context=\"default\">"
           "<allow user=\"*\"/><allow own=\"*\"/>"
           "<allow send_destination=\"*\"" +
           (daemon ? " eavesdrop=\"true\"" : "") +
           "/><allow receive_sender=\"*\"/></policy>" + systemBusLimits +
           "</busconfig>\n";
}

// dbus-broker-launch wants its listening socket passed in (socket
// activation), the journal's socket to log to, and the bus's own address.
std::vector<std::string> brokerCommand(const std::string& dir,
                                       const std::string& config)
{
    const std::string script =
        "mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/journal && "
        "mount --bind \"$0/journal\" /run/systemd/journal && "
        "exec systemd-socket-activate -E DBUS_SYSTEM_BUS_ADDRESS "
        "-l \"@$0/bus\" dbus-broker-launch --scope system "
        "--config-file=\"$1\"";
    return {"unshare", "--mount", "--propagation", "private", "sh", "-c",
            script,    dir,       config};
}

// The launcher listens once systemd-socket-activate has bound the socket;
// the broker itself starts with the first connection.
void waitUntilListening(const std::string& socketName)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, socketName.data(),
                std::min(socketName.size(), sizeof(address.sun_path) - 1));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) +
                                               1 + socketName.size());
    for (int tries = 0; tries < 500; ++tries)
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const bool listening =
            connect(fd, reinterpret_cast<const sockaddr*>(&address), length) ==
            0;
        close(fd);
        if (listening)
        {
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("dbus-broker-launch did not listen");
}

std::vector<pid_t> childrenOf(pid_t parent)
{
    const std::string id = std::to_string(parent);
    std::istringstream listed(
        readFile("/proc/" + id + "/task/" + id + "/children"));
    std::vector<pid_t> children;
    for (pid_t child = 0; listed >> child;)
    {
        children.push_back(child);
    }
    return children;
}

// The daemon, or the broker's launcher and the broker it started.
void signalBusProcesses(pid_t top, int signal)
{
    kill(top, signal);
    for (const pid_t child : childrenOf(top))
    {
        kill(child, signal);
    }
}

} // namespace

BusKind busKindFromEnvironment()
{
    const char* chosen = std::getenv("QV_TEST_BUS");
    return chosen != nullptr && std::string_view(chosen) == "broker"
               ? BusKind::broker
               : BusKind::daemon;
}

JournalSink::JournalSink(const std::string& socketPath) :
    fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (fd < 0 || socketPath.size() >= sizeof(address.sun_path))
    {
        throw std::system_error(errno, std::generic_category(),
                                "journal socket");
    }
    std::memcpy(address.sun_path, socketPath.data(), socketPath.size());
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0)
    {
        throw std::system_error(errno, std::generic_category(),
                                "binding the journal socket");
    }
    // The destructor's shutdown ends the wait for the next record.
    reader = std::thread([this] {
        std::array<char, 65536> record{};
        while (!stopping)
        {
            [[maybe_unused]] const ssize_t dropped = recv(fd, record.data(),
                                                          record.size(), 0);
        }
    });
}

JournalSink::~JournalSink()
{
    stopping = true;
    shutdown(fd, SHUT_RDWR);
    reader.join();
    close(fd);
}

// As root the daemon tries to raise its descriptor limit and says so on
// standard error in a container that forbids it: ChildProcess drops it.
PrivateBus::PrivateBus(BusKind kind) : busKind(kind)
{
    const std::string socketName = dir.path() + "/bus";
    const std::string config = dir.write("bus.conf",
                                         busConfig(kind, socketName));
    if (kind == BusKind::daemon)
    {
        daemon.emplace(std::vector<std::string>{
            "dbus-daemon", "--config-file=" + config, "--nofork", "--nopidfile",
            "--print-address"});
        busAddress = daemon->firstLine();
        return;
    }
    std::filesystem::create_directories(dir.path() + "/journal");
    journal.emplace(dir.path() + "/journal/socket");
    busAddress = "unix:abstract=" + socketName;
    daemon.emplace(brokerCommand(dir.path(), config),
                   EnvChanges{{"DBUS_SYSTEM_BUS_ADDRESS", busAddress}});
    waitUntilListening(socketName);
}

// The broker goes first: the launcher then reaps it and ends, and no
// orphaned broker is left for init to collect.
PrivateBus::~PrivateBus()
{
    if (busKind != BusKind::broker || !daemon)
    {
        return;
    }
    for (const pid_t broker : childrenOf(daemon->id()))
    {
        kill(broker, SIGTERM);
    }
    daemon->awaitExit(std::chrono::seconds(5));
}

void PrivateBus::pause() const
{
    signalBusProcesses(daemon->id(), SIGSTOP);
}

void PrivateBus::resume() const
{
    signalBusProcesses(daemon->id(), SIGCONT);
}

EnvChanges PrivateBus::environment() const
{
    return {{"DBUS_SYSTEM_BUS_ADDRESS", busAddress},
            {"DBUS_SESSION_BUS_ADDRESS", busAddress},
            {"DBUS_STARTER_ADDRESS", busAddress},
            {"DBUS_STARTER_BUS_TYPE", std::string("system")}};
}

Simulator::Simulator(const std::string& scenarioFile, const PrivateBus& bus) :
    process(targetCommand({STORAGE_SIM_PATH, "--scenario", scenarioFile}),
            bus.environment())
{
    if (process.firstLine() != "ready")
    {
        throw std::runtime_error("storage-sim did not get ready");
    }
}

} // namespace testsupport
