#include "privateBus.hpp"

#include <cstdlib>
#include <stdexcept>

namespace testsupport
{
namespace
{

std::string busConfig(const std::string& socketName)
{
    return R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:abstract=)" +
           socketName + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
)";
}

} // namespace

PrivateBus::PrivateBus()
{
    std::string config = dir.write("bus.conf", busConfig(dir.file("bus")));
    // As root the daemon tries to raise its descriptor limit and says so on
    // standard error when a container forbids it: noise for every test.
    daemon = std::make_unique<ChildProcess>(
        std::vector<std::string>{"/usr/bin/dbus-daemon",
                                 "--config-file=" + config, "--nofork",
                                 "--nopidfile", "--print-address"},
        EnvChanges{}, true);
    busAddress = daemon->readLine(std::chrono::seconds(10));
    if (busAddress.empty())
    {
        throw std::runtime_error("dbus-daemon printed no address");
    }
}

PrivateBus::~PrivateBus() = default;

EnvChanges PrivateBus::environment() const
{
    return {{"DBUS_SYSTEM_BUS_ADDRESS", busAddress},
            {"DBUS_SESSION_BUS_ADDRESS", busAddress},
            {"DBUS_STARTER_ADDRESS", busAddress},
            {"DBUS_STARTER_BUS_TYPE", std::string("system")}};
}

void PrivateBus::exportToEnvironment() const
{
    for (const auto& [name, value] : environment())
    {
        setenv(name.c_str(), value->c_str(), 1);
    }
}

} // namespace testsupport
