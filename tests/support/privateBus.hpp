#pragma once

#include "childProcess.hpp"
#include "tempDir.hpp"

#include <memory>
#include <string>

namespace testsupport
{

// A dbus-daemon of our own, configured like a system bus on which anyone
// may own any name and call anything. It listens on an abstract socket, so
// nothing of it appears in the file system and a chroot'ed client reaches
// it as well.
class PrivateBus
{
public:
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const
    {
        return busAddress;
    }

    // Environment that makes libsystemd's default and system buses this
    // one, for child processes.
    EnvChanges environment() const;

    // The same, applied to this process.
    void exportToEnvironment() const;

private:
    TempDir dir;
    std::unique_ptr<ChildProcess> daemon;
    std::string busAddress;
};

} // namespace testsupport
