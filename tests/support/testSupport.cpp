#include "testSupport.hpp"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace testsupport
{
namespace fs = std::filesystem;

namespace
{

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

std::vector<std::string> words(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string word; in >> word;)
    {
        result.push_back(word);
    }
    return result;
}

std::vector<std::string> environmentWith(const EnvChanges& changes)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
    {
        std::string item(*entry);
        if (!changes.contains(item.substr(0, item.find('='))))
        {
            result.push_back(std::move(item));
        }
    }
    for (const auto& [name, value] : changes)
    {
        if (value)
        {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

std::vector<char*> pointersTo(std::vector<std::string>& strings)
{
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (auto& item : strings)
    {
        result.push_back(item.data());
    }
    result.push_back(nullptr);
    return result;
}

std::string readAll(int fd)
{
    std::string text;
    std::array<char, 65536> buffer{};
    lseek(fd, 0, SEEK_SET);
    for (ssize_t got; (got = read(fd, buffer.data(), buffer.size())) > 0;)
    {
        text.append(buffer.data(), static_cast<size_t>(got));
    }
    return text;
}

// A classic BPF program for seccomp: flock answered with ENOLCK, every
// other call allowed. The collector may be an AArch64 program under
// qemu-user, whose calls reach this machine's kernel as x86-64 ones, or the
// test may itself be one: both architectures' numbers are matched.
std::string noLocksProgram()
{
    constexpr uint32_t flockOnX86 = 73;
    constexpr uint32_t flockOnArm64 = 32;
    constexpr uint32_t ld = BPF_LD | BPF_W | BPF_ABS;
    constexpr uint32_t jeq = BPF_JMP | BPF_JEQ | BPF_K;
    const std::array<sock_filter, 9> program{{
        {ld, 0, 0, offsetof(seccomp_data, arch)},
        {jeq, 0, 2, AUDIT_ARCH_X86_64},
        {ld, 0, 0, offsetof(seccomp_data, nr)},
        {jeq, 3, 4, flockOnX86},
        {jeq, 0, 3, AUDIT_ARCH_AARCH64},
        {ld, 0, 0, offsetof(seccomp_data, nr)},
        {jeq, 0, 1, flockOnArm64},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | ENOLCK},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    }};
    return {reinterpret_cast<const char*>(program.data()), sizeof(program)};
}

} // namespace

// Only async-signal-safe calls run between fork and exec: the argument and
// environment arrays are made before.
pid_t spawn(std::vector<std::string> argv, const EnvChanges& env, int outFd,
            int errFd)
{
    auto environment = environmentWith(env);
    auto args = pointersTo(argv);
    auto envp = pointersTo(environment);
    pid_t pid = fork();
    if (pid < 0)
    {
        fail("fork");
    }
    if (pid == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(outFd, STDOUT_FILENO);
        dup2(errFd, STDERR_FILENO);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    return pid;
}

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
        "/qvtest-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
    {
        fail("mkdtemp");
    }
    dirPath = pattern;
}

TempDir::~TempDir()
{
    std::error_code ec;
    fs::remove_all(dirPath, ec);
}

std::string TempDir::write(const std::string& name,
                           const std::string& content) const
{
    std::string file = dirPath + "/" + name;
    fs::create_directories(fs::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> targetCommand(const std::vector<std::string>& argv)
{
    auto command = words(TARGET_WRAPPER);
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

RunResult runProgram(const std::vector<std::string>& argv,
                     const EnvChanges& env, std::chrono::seconds timeout)
{
    int outFd = memfd_create("out", MFD_CLOEXEC);
    int errFd = memfd_create("err", MFD_CLOEXEC);
    pid_t pid = spawn(argv, env, outFd, errFd);
    const char* scale = std::getenv("QV_TEST_TIME_SCALE");
    auto deadline = std::chrono::steady_clock::now() +
                    timeout * (scale != nullptr ? std::stoi(scale) : 1);
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0)
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            close(outFd);
            close(errFd);
            throw std::runtime_error(argv.front() + " did not finish in time");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    RunResult result;
    if (WIFEXITED(status))
    {
        result.exitCode = WEXITSTATUS(status);
    }
    else
    {
        result.termSignal = WTERMSIG(status);
    }
    result.out = readAll(outFd);
    result.err = readAll(errFd);
    close(outFd);
    close(errFd);
    return result;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const EnvChanges& env)
{
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC) != 0)
    {
        fail("pipe2");
    }
    int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid = spawn(argv, env, fds[1], devNull);
    close(devNull);
    close(fds[1]);
    outFd = fds[0];
}

ChildProcess::~ChildProcess()
{
    if (!reaped)
    {
        kill(pid, SIGTERM);
        int status = 0;
        waitpid(pid, &status, 0);
    }
    close(outFd);
}

bool ChildProcess::awaitExit(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (!reaped && std::chrono::steady_clock::now() < deadline)
    {
        reaped = waitpid(pid, &status, WNOHANG) == pid;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return reaped;
}

std::string ChildProcess::firstLine() const
{
    std::string line;
    char c = 0;
    while (read(outFd, &c, 1) == 1 && c != '\n')
    {
        line += c;
    }
    if (line.empty())
    {
        throw std::runtime_error("a child printed no line");
    }
    return line;
}

Sandbox::Sandbox()
{
    fs::create_directories(hostPath("/mmc2/qvcollection/vok/storagelog"));
}

Sandbox::~Sandbox()
{
    for (const auto& mountPoint : mounts)
    {
        umount2(mountPoint.c_str(), MNT_DETACH);
    }
}

std::string Sandbox::hostPath(const std::string& inside) const
{
    return scratch.path() + "/root" + inside;
}

void Sandbox::readOnly(const std::string& inside)
{
    readOnlyDirs.push_back(inside);
}

void Sandbox::show(const std::string& hostDir)
{
    shownDirs.push_back(hostDir);
}

void Sandbox::refuseLocks()
{
    seccompFilter = scratch.write("no-locks.bpf", noLocksProgram());
}

void Sandbox::smallDisk(const std::string& inside, size_t bytes)
{
    static const bool privateMounts = unshare(CLONE_NEWNS) == 0 &&
                                      mount("none", "/", nullptr,
                                            MS_REC | MS_PRIVATE, nullptr) == 0;
    std::string at = hostPath(inside);
    fs::create_directories(at);
    std::string size = "size=" + std::to_string(bytes);
    if (!privateMounts ||
        mount("tmpfs", at.c_str(), "tmpfs", 0, size.c_str()) != 0)
    {
        fail("tmpfs over " + at);
    }
    mounts.push_back(at);
}

std::vector<std::string> Sandbox::confine(const std::vector<std::string>& argv,
                                          const std::string& programDir) const
{
    std::vector<std::string> command = {
        "bwrap",        "--ro-bind", "/usr",
        "/usr",         "--ro-bind", "/etc",
        "/etc",         "--dev",     "/dev",
        "--proc",       "/proc",     "--tmpfs",
        "/tmp",         "--bind",    scratch.path(),
        scratch.path(), "--bind",    hostPath("/mmc2"),
        "/mmc2"};
    for (const char* link : {"bin", "sbin", "lib", "lib64"})
    {
        std::error_code ec;
        fs::path target = fs::read_symlink(fs::path("/") / link, ec);
        if (!ec)
        {
            command.insert(command.end(), {"--symlink", target.string(),
                                           std::string("/") + link});
        }
    }
    for (const auto& dir : readOnlyDirs)
    {
        command.insert(command.end(), {"--ro-bind", hostPath(dir), dir});
    }
    for (const auto& dir : shownDirs)
    {
        command.insert(command.end(), {"--ro-bind", dir, dir});
    }
    if (!programDir.empty())
    {
        command.insert(command.end(), {"--ro-bind", programDir, programDir});
    }
    command.insert(command.end(), {"--chdir", "/"});
    command.insert(command.end(), argv.begin(), argv.end());
    if (!seccompFilter.empty())
    {
        // bubblewrap reads the filter from a descriptor.
        command.insert(command.begin() + 1, {"--seccomp", "9"});
        command.insert(command.begin(),
                       {"sh", "-c", R"(exec "$@" 9<"$0")", seccompFilter});
    }
    return command;
}

std::vector<std::string>
    Sandbox::collectorCommand(const std::vector<std::string>& args) const
{
    const char* chosen = std::getenv("QV_COLLECTOR");
    std::vector<std::string> argv{
        chosen != nullptr && *chosen != '\0' ? chosen : QV_COLLECTOR_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string programDir = fs::absolute(argv.front()).parent_path();
    const char* wrapper = std::getenv("QV_COLLECTOR_WRAPPER");
    auto command = words(
        wrapper != nullptr && *wrapper != '\0' ? wrapper : TARGET_WRAPPER);
    command.insert(command.end(), argv.begin(), argv.end());
    return confine(command, programDir);
}

EnvChanges Sandbox::collectorEnvironment(const PrivateBus& bus,
                                         const std::string& tablesFile) const
{
    EnvChanges env = bus.environment();
    env["PLATFORM_SMART_TABLES"] = tablesFile;
    env["DLOG_FILE"] = scratch.path() + "/dlog.log";
    return env;
}

RunResult Sandbox::run(const std::vector<std::string>& args,
                       const PrivateBus& bus, const std::string& tablesFile,
                       const EnvChanges& extra) const
{
    EnvChanges env = collectorEnvironment(bus, tablesFile);
    for (const auto& [name, value] : extra)
    {
        env[name] = value;
    }
    // bubblewrap reports a program killed by signal N as exit code 128 + N,
    // which the collector itself never uses.
    auto result = runProgram(collectorCommand(args), env);
    if (result.exitCode > 128)
    {
        result.termSignal = result.exitCode - 128;
        result.exitCode = -1;
    }
    return result;
}

} // namespace testsupport
