#pragma once

#include "privateBus.hpp"
#include "simulator.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace simtest
{

using Json = nlohmann::ordered_json;

inline constexpr const char* mapper = "xyz.openbmc_project.ObjectMapper";
inline constexpr const char* storage = "com.kest.omrix.storage";
inline constexpr const char* driveInventory =
    "com.kest.omrix.storage.drive.inventory";

struct MessageRelease
{
    void operator()(sd_bus_message* message) const
    {
        sd_bus_message_unref(message);
    }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageRelease>;

// A reply as the tests compare it: an error, or the body decoded to JSON
// (structures and dictionary entries as arrays, variants as [signature,
// value], byte arrays as lowercase hex text).
struct Reply
{
    int result = 0;
    std::string errorName;
    std::string errorMessage;
    std::string signature;
    Json body;
};

// Every complete value left in `message`, decoded as in Reply.
Json decodeBody(sd_bus_message* message);

// A plain client connection to the private bus.
class Client
{
public:
    explicit Client(const std::string& address);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    sd_bus* get() const
    {
        return bus;
    }

    MessagePtr newCall(const std::string& destination, const std::string& path,
                       const std::string& interface,
                       const std::string& member) const;
    Reply call(sd_bus_message* request,
               std::chrono::microseconds timeout = {}) const;

    Reply getSubTree(const std::string& root, int32_t depth,
                     const std::vector<std::string>& filter,
                     const std::string& destination = mapper,
                     std::chrono::microseconds timeout = {}) const;
    Reply getAll(const std::string& path, const std::string& interface,
                 const std::string& destination = storage,
                 std::chrono::microseconds timeout = {}) const;
    Reply getProperty(const std::string& path, const std::string& interface,
                      const std::string& property) const;
    Reply drive(const std::string& member, const std::string& fqdd,
                std::chrono::microseconds timeout = {}) const;

private:
    sd_bus* bus = nullptr;
};

// A private bus with a simulator serving one scenario, and a client.
class SimTest : public ::testing::Test
{
protected:
    testsupport::PrivateBus bus;
    testsupport::TempDir dir;
    std::unique_ptr<testsupport::Simulator> sim;
    std::unique_ptr<Client> client;

    void serve(const std::string& scenario);
};

// Object paths of a GetSubTree reply, in reply order.
std::vector<std::string> subTreePaths(const Reply& reply);

} // namespace simtest
