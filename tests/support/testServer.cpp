// qv-test-server: a bus of our own with a controller's limits (dbus-daemon,
// or dbus-broker as the controller runs it), the simulator serving one
// scenario, and one command in the collector's sandbox against them. The
// demo, the memory measurement, the evaluation and the mapper walk all
// start their server this way, so all of them meet the bus the cases meet.
#include "testSupport.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

namespace fs = std::filesystem;

namespace
{

struct Options
{
    std::string scenario;
    std::string tables;
    std::string bus = "daemon";
    std::string keep;
    std::vector<std::string> command;
};

// The command's own exit code; 128 + N when a signal N ended it, as a
// shell reports it.
int runInSandbox(const testsupport::Sandbox& sandbox,
                 const std::vector<std::string>& command,
                 const testsupport::EnvChanges& env)
{
    const pid_t pid = testsupport::spawn(sandbox.confine(command, ""), env,
                                         STDOUT_FILENO, STDERR_FILENO);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
    {
        if (errno != EINTR)
        {
            throw std::system_error(errno, std::generic_category(), "waitpid");
        }
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// What the run left: the sandbox's /mmc2 and the collector's log.
void keepResults(const testsupport::Sandbox& sandbox, const std::string& keep)
{
    fs::create_directories(keep);
    fs::copy(sandbox.hostPath("/mmc2"), keep + "/mmc2",
             fs::copy_options::recursive |
                 fs::copy_options::overwrite_existing);
    const fs::path log = sandbox.dir() + "/dlog.log";
    if (fs::exists(log))
    {
        fs::copy_file(log, keep + "/dlog.log",
                      fs::copy_options::overwrite_existing);
    }
}

int serve(const Options& options)
{
    testsupport::Sandbox sandbox;
    // The tables are read inside the sandbox, which sees its own directory.
    const std::string scenario = sandbox.dir() + "/scenario.json";
    fs::copy_file(options.scenario, scenario);
    std::string tables = scenario;
    if (!options.tables.empty())
    {
        tables = sandbox.dir() + "/tables.json";
        fs::copy_file(options.tables, tables);
    }
    sandbox.show(PROJECT_SOURCE_ROOT);
    sandbox.show(PROJECT_BUILD_ROOT);
    const testsupport::PrivateBus bus(options.bus == "broker"
                                          ? testsupport::BusKind::broker
                                          : testsupport::BusKind::daemon);
    const testsupport::Simulator simulator(scenario, bus);
    auto env = sandbox.collectorEnvironment(bus, tables);
    env["QV_SANDBOX_DIR"] = sandbox.dir();
    const int rc = runInSandbox(sandbox, options.command, env);
    if (!options.keep.empty())
    {
        keepResults(sandbox, options.keep);
    }
    return rc;
}

int parseAndServe(int argc, char** argv)
{
    CLI::App app{"Starts a private bus and the storage simulator, runs COMMAND "
                 "in the collector's sandbox against them and exits with its "
                 "exit code. The sandbox's /mmc2 is a scratch directory; "
                 "QV_SANDBOX_DIR names a writable one the command sees."};
    Options options;
    app.add_option("--scenario", options.scenario, "the simulator's scenario")
        ->required()
        ->check(CLI::ExistingFile);
    app.add_option("--tables", options.tables,
                   "the SMART tables file (default: the scenario)")
        ->check(CLI::ExistingFile);
    app.add_option("--bus", options.bus, "daemon or broker")
        ->check(CLI::IsMember({"daemon", "broker"}));
    app.add_option("--keep", options.keep,
                   "directory that receives /mmc2 and dlog.log afterwards");
    app.add_option("command", options.command, "the program and its arguments")
        ->required();
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return app.exit(e);
    }
    return serve(options);
}

} // namespace

int main(int argc, char** argv)
{
    try
    {
        return parseAndServe(argc, argv);
    }
    catch (const std::exception& e)
    {
        std::cerr << "qv-test-server: " << e.what() << '\n';
        return 70;
    }
}
