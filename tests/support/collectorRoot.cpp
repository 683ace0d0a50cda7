#include "collectorRoot.hpp"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testsupport
{
namespace fs = std::filesystem;

namespace
{

// Host directories the collector (or a wrapper such as valgrind) needs.
const std::vector<std::string> boundDirs = {"/usr", "/etc", "/dev", "/proc"};

// Top-level names that are symlinks into /usr on merged-/usr systems.
const std::vector<std::string> topLevelLinks = {"bin",   "sbin",  "lib",
                                                "lib32", "lib64", "libx32"};

} // namespace

const std::string& CollectorRoot::collectorPath()
{
    static const std::string path = [] {
        const char* chosen = std::getenv("QV_COLLECTOR");
        return std::string(
            chosen != nullptr && *chosen != '\0' ? chosen : QV_COLLECTOR_PATH);
    }();
    return path;
}

namespace
{

// The collector's command line: under QV_COLLECTOR_WRAPPER when it is set,
// else as any program of this build is started.
std::vector<std::string> collectorCommand(const std::vector<std::string>& args)
{
    std::vector<std::string> argv{CollectorRoot::collectorPath()};
    argv.insert(argv.end(), args.begin(), args.end());
    const char* wrapper = std::getenv("QV_COLLECTOR_WRAPPER");
    if (wrapper == nullptr || *wrapper == '\0')
    {
        return targetCommand(argv);
    }
    std::vector<std::string> command;
    std::istringstream in(wrapper);
    for (std::string word; in >> word;)
    {
        command.push_back(word);
    }
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

} // namespace

CollectorRoot::CollectorRoot(bool withCollectionDir)
{
    jail.root = root.path();
    for (const auto& dir : boundDirs)
    {
        addBind(dir);
    }
    for (const auto& name : topLevelLinks)
    {
        fs::path host = "/" + name;
        std::error_code ec;
        if (fs::is_symlink(host, ec))
        {
            fs::create_symlink(fs::read_symlink(host), hostPath(host), ec);
        }
        else if (fs::is_directory(host, ec))
        {
            addBind(host);
        }
    }
    addBind(fs::path(collectorPath()).parent_path());
    // A scratch /tmp of the root's own, for wrappers such as valgrind.
    fs::create_directories(hostPath("/tmp"));
    fs::permissions(hostPath("/tmp"), fs::perms::all | fs::perms::sticky_bit);
    if (withCollectionDir)
    {
        fs::create_directories(hostPath("/mmc2/qvcollection/vok/storagelog"));
    }
}

CollectorRoot::~CollectorRoot()
{
    for (auto mount = mounts.rbegin(); mount != mounts.rend(); ++mount)
    {
        umount2(mount->c_str(), MNT_DETACH);
    }
}

void CollectorRoot::readOnly(const std::string& inside)
{
    fs::create_directories(hostPath(inside));
    jail.readOnly.push_back(hostPath(inside));
}

namespace
{

void mountFailure(const std::string& what)
{
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

// Mounts made by the test process stay inside its own mount namespace.
void enterPrivateMountNamespace()
{
    static const bool entered = [] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        {
            mountFailure("private mount namespace");
        }
        return true;
    }();
    (void)entered;
}

} // namespace

void CollectorRoot::smallDisk(const std::string& inside, size_t bytes)
{
    enterPrivateMountNamespace();
    std::string target = hostPath(inside);
    fs::create_directories(target);
    std::string options = "size=" + std::to_string(bytes) + ",mode=0755";
    if (mount("tmpfs", target.c_str(), "tmpfs", 0, options.c_str()) != 0)
    {
        mountFailure("tmpfs on " + target);
    }
    mounts.push_back(target);
}

void CollectorRoot::addBind(const std::string& hostDir)
{
    fs::create_directories(hostPath(hostDir));
    jail.binds.emplace_back(hostDir, hostPath(hostDir));
}

std::string CollectorRoot::hostPath(const std::string& inside) const
{
    return root.path() + inside;
}

std::string CollectorRoot::read(const std::string& inside) const
{
    return readFile(hostPath(inside));
}

bool CollectorRoot::exists(const std::string& inside) const
{
    std::error_code ec;
    return fs::exists(hostPath(inside), ec);
}

void CollectorRoot::write(const std::string& inside,
                          const std::string& content) const
{
    fs::create_directories(fs::path(hostPath(inside)).parent_path());
    std::ofstream(hostPath(inside), std::ios::binary) << content;
}

CollectorRoot::Command
CollectorRoot::prepare(const std::vector<std::string>& args,
                       const PrivateBus& bus, const std::string& tablesFile,
                       const EnvChanges& extra) const
{
    fs::copy_file(tablesFile, hostPath("/tables.json"),
                  fs::copy_options::overwrite_existing);
    EnvChanges env = bus.environment();
    env["DLOG_FILE"] = "/dlog.log";
    env["PLATFORM_SMART_TABLES"] = "/tables.json";
    for (const auto& [name, value] : extra)
    {
        env[name] = value;
    }
    return {collectorCommand(args), std::move(env)};
}

RunResult CollectorRoot::run(const std::vector<std::string>& args,
                             const PrivateBus& bus,
                             const std::string& tablesFile,
                             const EnvChanges& extra) const
{
    auto command = prepare(args, bus, tablesFile, extra);
    return runProgram(command.argv, command.env, std::chrono::seconds(120),
                      &jail);
}

} // namespace testsupport
