// Runs the cases of the JSON case files: each one serves a scenario on a
// private bus, runs the shipped collector in a sandbox over report files
// that already hold an earlier document, and checks exit codes, log records
// and the bytes appended to every file it names. tests/README.md describes
// the case format.
#include "testSupport.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using nlohmann::json;
using testsupport::readFile;
using testsupport::RunResult;
using testsupport::Sandbox;

constexpr const char* earlierLogs = "{\n\"EARLIER-LOGS\":\n{\n}\n}";
constexpr const char* earlierRaw = "{\n\"EARLIER-RAW\":\n{\n}\n}";

json loadCases()
{
    json all = json::array();
    for (const char* file : {COLLECTOR_CASES, READER_CASES})
    {
        json doc = json::parse(readFile(file));
        for (auto& c : doc.at("cases"))
        {
            c["servers"] = doc.value("servers", json::object());
            all.push_back(c);
        }
    }
    return all;
}

// Expected text: a string, or an array of pieces joined, where "@name"
// stands for the file `name` of the expected directory, "@name:N" for its
// first N octets, and {"repeat": text, "times": n} for text n times over.
std::string textOf(const json& pieces)
{
    std::string text;
    if (pieces.is_array())
    {
        for (const auto& piece : pieces)
        {
            text += textOf(piece);
        }
    }
    else if (pieces.is_object())
    {
        for (int i = 0; i < pieces.at("times").get<int>(); ++i)
        {
            text += pieces.at("repeat").get<std::string>();
        }
    }
    else if (auto piece = pieces.get<std::string>(); piece.starts_with("@"))
    {
        auto colon = piece.find(':');
        text = readFile(std::string(EXPECTED_DIR) + "/" +
                        piece.substr(1, colon - 1));
        if (colon != std::string::npos)
        {
            text.resize(std::stoul(piece.substr(colon + 1)));
        }
    }
    else
    {
        text = piece;
    }
    return text;
}

std::string substituted(std::string text,
                        const std::map<std::string, std::string>& values)
{
    for (const auto& [name, value] : values)
    {
        for (size_t at = text.find(name); at != std::string::npos;
             at = text.find(name, at + value.size()))
        {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

// `value` put where the JSON pointer says; a '*' stands for every element.
void place(json& doc, const std::string& pointer, const json& value)
{
    auto star = pointer.find('*');
    if (star == std::string::npos)
    {
        doc[json::json_pointer(pointer)] = value;
        return;
    }
    auto& list = doc[json::json_pointer(pointer.substr(0, star - 1))];
    for (size_t i = 0; i < list.size(); ++i)
    {
        place(doc,
              pointer.substr(0, star) + std::to_string(i) +
                  pointer.substr(star + 1),
              value);
    }
}

// What the machine running the case lacks: the real drive data beside the
// checkout, or fanotify (qemu-user, which runs a cross build's case runner,
// has none). The case is skipped there, unless QV_NO_SKIP says that this
// machine must have everything.
struct Unsupported : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// A LOG SENSE response kept as "<cdb>,<sense>,<response>" in hex, one line.
// The real drive data is not part of the project: without it the case is
// skipped.
std::string realResponse(const std::string& file)
{
    if (!std::filesystem::is_directory(REALDATA_DIR))
    {
        throw Unsupported(std::string("real drive data at ") + REALDATA_DIR);
    }
    std::string line = readFile(std::string(REALDATA_DIR) + "/" + file);
    auto cut = line.rfind(',');
    if (line.empty() || cut == std::string::npos)
    {
        throw std::runtime_error(file + ": no LOG SENSE response");
    }
    line.erase(0, cut + 1);
    line.erase(line.find_last_not_of(" \r\n") + 1);
    return line;
}

// A hard drive's page given as {"real": file, "after": hex} takes the
// response of that file of the real data, followed by the octets of
// "after" (what else the buffer held).
void realPages(json& doc)
{
    if (!doc.contains("drives"))
    {
        return;
    }
    for (auto& drive : doc["drives"])
    {
        for (const char* method : {"sasHdd", "sataHdd"})
        {
            if (!drive.contains(method) || !drive[method].contains("pages"))
            {
                continue;
            }
            for (auto& page : drive[method]["pages"])
            {
                if (page.contains("real"))
                {
                    page["data"] = realResponse(page["real"]) + " " +
                                   page.value("after", "");
                    page.erase("real");
                    page.erase("after");
                }
            }
        }
    }
}

// The named server with the case's changes, then a run's; "inventory" rows
// [name, fqdd, protocol, attributes] become drive objects.
json scenarioOf(const json& c, const json& run = json::object())
{
    json doc = c.value("server", json("base"));
    if (doc.is_string())
    {
        doc = c.at("servers").at(doc.get<std::string>());
    }
    for (const auto& row : doc.value("inventory", json::array()))
    {
        doc["objects"].push_back({{"path", "/com/kest/omrix/storage/drive/" +
                                               row[0].get<std::string>()},
                                  {"interfaces",
                                   {{"com.kest.omrix.storage.drive.inventory",
                                     {{"Fqdd", {"s", row[1]}},
                                      {"Protocol", {"u", row[2]}},
                                      {"Attributes", {"u", row[3]}}}}}}});
    }
    doc.erase("inventory");
    for (const json& changes :
         {c.value("set", json::object()), run.value("set", json::object())})
    {
        for (const auto& [pointer, value] : changes.items())
        {
            place(doc, pointer, value);
        }
    }
    realPages(doc);
    return doc;
}

// A zone whose date differs from the UTC date right now, and its date.
std::string awayZone()
{
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    return utc.tm_hour >= 10 ? "UTC-14" : "UTC+12";
}

std::string localDate(const std::optional<std::string>& zone)
{
    const char* saved = std::getenv("TZ");
    std::string before = saved != nullptr ? saved : "";
    if (zone)
    {
        setenv("TZ", zone->c_str(), 1);
    }
    tzset();
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 16> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y%m%d",
                                             &local);
    if (saved != nullptr)
    {
        setenv("TZ", before.c_str(), 1);
    }
    else
    {
        unsetenv("TZ");
    }
    tzset();
    return {text.data(), length};
}

// A log record as the table writes it: "function: text" stands for the
// collector's own record of that function at level 9.
std::string recordOf(const std::string& line)
{
    return std::isdigit(static_cast<unsigned char>(line[0])) != 0
               ? line
               : "9|171|qvDbusCollectSmartData.L." + line;
}

// Opens of one file held back by fanotify until `onOpen` (given the number
// of the open, from 1) has done what it does meanwhile. Kept for the runs
// only: the checks afterwards read the files unheld.
class HeldOpens
{
  public:
    HeldOpens(const std::string& file, std::function<void(int)> onOpen) :
        onOpen(std::move(onOpen)),
        group(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY))
    {
        if (group < 0 && errno == ENOSYS)
        {
            throw Unsupported("fanotify");
        }
        if (group < 0 || fanotify_mark(group, FAN_MARK_ADD, FAN_OPEN_PERM,
                                       AT_FDCWD, file.c_str()) != 0)
        {
            throw std::runtime_error("fanotify on " + file + ": " +
                                     std::strerror(errno));
        }
        listener = std::thread([this] { answer(); });
    }
    ~HeldOpens()
    {
        stopping = true;
        listener.join();
        close(group); // any open still held back is let through
    }
    HeldOpens(const HeldOpens&) = delete;
    HeldOpens& operator=(const HeldOpens&) = delete;

  private:
    std::function<void(int)> onOpen;
    int group;
    int opens = 0;
    std::atomic<bool> stopping{false};
    std::thread listener;

    void answer()
    {
        std::array<char, 4096> buffer{};
        while (!stopping)
        {
            pollfd ready{group, POLLIN, 0};
            if (poll(&ready, 1, 20) <= 0)
            {
                continue;
            }
            const ssize_t length = read(group, buffer.data(), buffer.size());
            for (ssize_t at = 0;
                 at + static_cast<ssize_t>(sizeof(fanotify_event_metadata)) <=
                 length;)
            {
                fanotify_event_metadata event{};
                std::memcpy(&event, buffer.data() + at, sizeof(event));
                at += event.event_len;
                onOpen(++opens);
                const fanotify_response allow{event.fd, FAN_ALLOW};
                [[maybe_unused]] const ssize_t sent = write(group, &allow,
                                                            sizeof(allow));
                close(event.fd);
            }
        }
    }
};

// Someone who puts a symlink in place of a report the moment the collector
// first opens it: the file moves to <name>.checked and a symlink to
// `target` takes its name. A collector that looked the name up again after
// its checks would write wherever the link points.
std::function<void(int)> swapForSymlink(const std::string& file,
                                        const std::string& target)
{
    return [file, target](int open) {
        if (open == 1)
        {
            fs::rename(file, file + ".checked");
            fs::create_symlink(target, file);
        }
    };
}

// Someone who rewrites a file in place as it is opened the n-th time,
// through a descriptor taken before the opens are held.
std::function<void(int)> rewriteAt(const std::string& file, int nth,
                                   const std::string& text)
{
    auto fd = std::make_shared<int>(open(file.c_str(), O_RDWR | O_CLOEXEC));
    return [fd, nth, text](int open) {
        if (open == nth && ftruncate(*fd, 0) == 0)
        {
            [[maybe_unused]] const ssize_t written = pwrite(*fd, text.data(),
                                                            text.size(), 0);
        }
        if (open >= nth)
        {
            close(*fd);
            *fd = -1;
        }
    };
}

// The case as it holds on the bus the suite runs on: on dbus-broker the
// members of its "broker" object replace the case's own (an error message
// the two buses word differently).
json onThisBus(const json& c)
{
    json effective = c;
    if (testsupport::busKindFromEnvironment() == testsupport::BusKind::broker)
    {
        const json changes = c.value("broker", json::object());
        for (const auto& [member, value] : changes.items())
        {
            effective[member] = value;
        }
    }
    return effective;
}

class CaseRun
{
  public:
    explicit CaseRun(const json& c) : c(onThisBus(c))
    {
        seed(testsupport::smartLogsPath, earlierLogs);
        seed(testsupport::smartRawDataPath, earlierRaw);
        for (const auto& step : c.value("setup", json::array()))
        {
            prepare(step);
        }
    }

    void run()
    {
        std::optional<testsupport::PrivateBus> bus;
        std::optional<testsupport::Simulator> simulator;
        std::string scenario = scenarioPath();
        if (!c.contains("server") || !c["server"].is_null())
        {
            std::ofstream(scenario) << scenarioWithCallLog(scenarioOf(c));
            bus.emplace();
            simulator.emplace(scenario, *bus);
        }
        json runs = c.value("runs", json::array({c}));
        if (bus && !c.value("together", false))
        {
            for (const auto& r : runs)
            {
                if (r.contains("set"))
                {
                    simulator.reset();
                    std::ofstream(scenario)
                        << scenarioWithCallLog(scenarioOf(c, r));
                    simulator.emplace(scenario, *bus);
                }
                if (r.contains("fill"))
                {
                    fillDisk(r["fill"].get<std::string>());
                }
                auto env = environment(r);
                const auto resumer = pauseBus(r, *bus);
                check(r, sandbox.run(
                             r.value("args", std::vector<std::string>{"0"}),
                             *bus, scenario, env));
                redate(r);
            }
            heldOpens.reset();
            return;
        }
        std::vector<std::future<RunResult>> started;
        for (const auto& r : bus ? runs : json::array())
        {
            auto env = environment(r);
            auto args = r.value("args", std::vector<std::string>{"0"});
            if (r.contains("after"))
            {
                awaitCall(r["after"].get<std::string>());
            }
            started.push_back(std::async(std::launch::async, [&, env, args] {
                return sandbox.run(args, *bus, scenario, env);
            }));
        }
        for (size_t i = 0; i < started.size(); ++i)
        {
            check(runs[i], started[i].get());
        }
        heldOpens.reset();
    }

    // "pauseBusMs": the bus is stopped as the run starts and resumed that
    // much later, from the thread handed back: the collector meets a bus
    // that does not answer yet, not even its greeting.
    static std::jthread pauseBus(const json& r,
                                 const testsupport::PrivateBus& bus)
    {
        if (!r.contains("pauseBusMs"))
        {
            return {};
        }
        bus.pause();
        return std::jthread([&bus, ms = r["pauseBusMs"].get<int>()] {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            bus.resume();
        });
    }

    // "calls": {member: n}, the calls of each member the simulator got.
    void checkCalls() const
    {
        const json calls = c.value("calls", json::object());
        for (const auto& [member, times] : calls.items())
        {
            EXPECT_EQ(callsOf(member), times.get<int>())
                << member << " in\n"
                << readFile(callLogPath());
        }
    }

    // A run of a together case that starts once the simulator got a call
    // of `member`: the runs before it have got that far.
    void awaitCall(const std::string& member) const
    {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::seconds(60);
        while (callsOf(member) == 0)
        {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline)
                << "no call of " << member;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    // The calls of `member` in the simulator's call log, one line each.
    int callsOf(const std::string& member) const
    {
        int made = 0;
        std::istringstream lines(readFile(callLogPath()));
        for (std::string line; std::getline(lines, line);)
        {
            made += line.starts_with(member + " ") ? 1 : 0;
        }
        return made;
    }

    // "log": lines that must be logged; {"line": …, "times": n} exactly n
    // times.
    void checkLog() const
    {
        auto records = logRecords();
        auto count = [&](const std::string& line) {
            return std::count(records.begin(), records.end(),
                              substituted(recordOf(line), {{"{date}", date}}));
        };
        auto has = [&](const std::string& line) { return count(line) > 0; };
        for (const auto& line : c.value("log", json::array()))
        {
            if (line.is_object())
            {
                EXPECT_EQ(count(line.at("line")), line.at("times").get<int>())
                    << line << "\nin the log:\n"
                    << logText();
                continue;
            }
            EXPECT_TRUE(has(line)) << line << "\nin the log:\n" << logText();
        }
        for (const auto& line : c.value("notLogged", json::array()))
        {
            EXPECT_FALSE(has(line)) << line;
        }
    }

    void checkFiles()
    {
        expectFile(testsupport::smartLogsPath, c.value("logs", json("")));
        expectFile(testsupport::smartRawDataPath, c.value("raw", json("")));
        json daily = redated;
        const json files = c.value("files", json::object());
        for (const auto& [path, want] : files.items())
        {
            std::string inside = substituted(path, {{"{date}", date}});
            expectFile(inside, want);
            if (inside.starts_with(testsupport::dailyDir))
            {
                daily.push_back(inside);
            }
        }
        json written = json::array();
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(
                 sandbox.hostPath(testsupport::dailyDir), ec))
        {
            written.push_back(testsupport::dailyDir +
                              entry.path().filename().string());
        }
        std::sort(written.begin(), written.end());
        std::sort(daily.begin(), daily.end());
        daily.erase(std::unique(daily.begin(), daily.end()), daily.end());
        EXPECT_EQ(written, daily) << "dated files";
    }

    void checkReader() const
    {
        const json reader = c.value("reader", json());
        int run = 0;
        for (const auto& r : reader.is_array() ? reader : json::array({reader}))
        {
            if (r.is_null())
            {
                continue;
            }
            auto result = readReports(r.at("args"), r.value("toFull", false));
            keepActual(run++, result);
            EXPECT_EQ(result.exitCode, r.value("exit", 0)) << result.err;
            expectText("standard output", result.out,
                       r.value("stdout", json()));
            expectText("standard error", result.err,
                       r.value("stderr", json("")));
        }
        if (reader.is_null() && allSucceeded && !c.value("unbalanced", false))
        {
            // The reader must take every report the collector writes; the
            // drives' verdicts may set the bits above damage and usage.
            auto result = readReports({"--format", "json", "{logs}", "{raw}"});
            constexpr int damageOrUsage = 3;
            EXPECT_EQ(result.exitCode & damageOrUsage, 0) << result.err;
        }
    }

  private:
    // QV_CASES_ACTUAL=DIR keeps what each reader run wrote and its exit
    // code, as DIR/<case>-<run>.out, .err and .exit, to compare with or
    // take as expected.
    void keepActual(int run, const RunResult& result) const
    {
        const char* dir = std::getenv("QV_CASES_ACTUAL");
        if (dir == nullptr)
        {
            return;
        }
        auto stem = std::string(dir) + "/" + c.at("name").get<std::string>() +
                    "-" + std::to_string(run);
        std::ofstream(stem + ".out", std::ios::binary) << result.out;
        std::ofstream(stem + ".err", std::ios::binary) << result.err;
        std::ofstream(stem + ".exit") << result.exitCode << '\n';
    }

    const json c;
    Sandbox sandbox;
    std::map<std::string, std::string> seeded;
    std::string date;
    bool allSucceeded = true;
    json redated = json::array();
    std::optional<HeldOpens> heldOpens;

    // "fill": a file that takes every free block of its file system, as
    // a controller's flash fills up between two runs.
    void fillDisk(const std::string& inside) const
    {
        std::ofstream filler(sandbox.hostPath(inside), std::ios::binary);
        const std::string block(4096, '\0');
        while (filler.write(block.data(), std::streamsize(block.size())) &&
               filler.flush())
        {}
    }

    // A daily run stands for the run's "day": its dated files are renamed.
    void redate(const json& r)
    {
        if (!r.contains("day"))
        {
            return;
        }
        for (const char* kind : {"SL", "RD"})
        {
            std::string from = testsupport::dailyDir + (kind + date) + ".json";
            std::string to = testsupport::dailyDir +
                             (kind + r["day"].get<std::string>()) + ".json";
            fs::rename(sandbox.hostPath(from), sandbox.hostPath(to));
            redated.push_back(to);
        }
    }

    void seed(const std::string& inside, const std::string& text)
    {
        seeded[inside] = text;
        std::ofstream(sandbox.hostPath(inside), std::ios::binary) << text;
    }

    void prepare(const json& step)
    {
        auto what = step.at(0).get<std::string>();
        if (what == "noLocks")
        {
            sandbox.refuseLocks();
            return;
        }
        auto inside = step.at(1).get<std::string>();
        if (what == "swapOnOpen")
        {
            heldOpens.emplace(sandbox.hostPath(inside),
                              swapForSymlink(sandbox.hostPath(inside),
                                             step.at(2).get<std::string>()));
            return;
        }
        if (what == "rewriteOnOpen")
        {
            heldOpens.emplace(sandbox.hostPath(inside),
                              rewriteAt(sandbox.hostPath(inside),
                                        step.at(2).get<int>(),
                                        textOf(step.at(3))));
            return;
        }
        auto host = sandbox.hostPath(inside);
        fs::create_directories(fs::path(host).parent_path());
        if (what == "readOnly" || what == "smallDisk")
        {
            mount(what, inside, step);
            return;
        }
        fs::remove_all(host);
        seeded.erase(inside);
        if (what == "write")
        {
            seed(inside, textOf(step.at(2)));
        }
        else if (what == "touch")
        {
            // A file written at another time: seconds since the epoch.
            seed(inside, textOf(step.at(2)));
            const timespec when{step.at(3).get<time_t>(), 0};
            const std::array<timespec, 2> times{when, when};
            ASSERT_EQ(utimensat(AT_FDCWD, host.c_str(), times.data(), 0), 0);
        }
        else if (what == "directory")
        {
            fs::create_directory(host);
        }
        else if (what == "fifo")
        {
            ASSERT_EQ(mkfifo(host.c_str(), 0644), 0);
        }
        else if (what == "symlink")
        {
            fs::create_symlink(step.at(2).get<std::string>(), host);
        }
        else if (what != "remove")
        {
            FAIL() << "unknown setup step " << what;
        }
    }

    void mount(const std::string& what, const std::string& inside,
               const json& step)
    {
        if (what == "readOnly")
        {
            sandbox.readOnly(inside);
        }
        else if (what == "smallDisk")
        {
            sandbox.smallDisk(inside, step.at(2).get<size_t>());
            for (const auto& [path, text] : seeded)
            {
                seed(path, text);
            }
        }
    }

    testsupport::EnvChanges environment(const json& r)
    {
        testsupport::EnvChanges env;
        const json variables = r.value("env", json::object());
        for (const auto& [name, value] : variables.items())
        {
            env[name] = value == "{awayZone}"
                            ? awayZone()
                            : substituted(value, placeholders());
        }
        date = localDate(env.contains("TZ") ? env["TZ"] : std::nullopt);
        return env;
    }

    void check(const json& r, const RunResult& result)
    {
        EXPECT_EQ(result.exitCode, r.value("exit", 0)) << result.err;
        EXPECT_EQ(result.termSignal, r.value("signal", 0));
        allSucceeded = allSucceeded && result.exitCode == 0;
        if (r.contains("stderr"))
        {
            EXPECT_EQ(result.err,
                      substituted(textOf(r["stderr"]), placeholders()));
        }
    }

    std::vector<std::string> logRecords() const
    {
        static const std::regex lineNumber(
            R"(\|(qvDbusCollect[A-Za-z]+)\.[0-9]+([.:]))");
        std::vector<std::string> records;
        std::istringstream in(logText());
        for (std::string line; std::getline(in, line);)
        {
            records.push_back(std::regex_replace(line, lineNumber, "|$1.L$2"));
        }
        return records;
    }

    std::string scenarioPath() const
    {
        return sandbox.dir() + "/scenario.json";
    }

    std::string callLogPath() const
    {
        return sandbox.dir() + "/calls.log";
    }

    std::string scenarioWithCallLog(json scenario) const
    {
        scenario["callLog"] = callLogPath();
        return scenario.dump();
    }

    std::string logText() const
    {
        return readFile(sandbox.dir() + "/dlog.log");
    }

    // With `toFull`, standard output is /dev/full: every write fails.
    RunResult readReports(const json& args, bool toFull = false) const
    {
        std::vector<std::string> argv{QV_SMART_REPORT_PATH};
        for (const auto& arg : args)
        {
            argv.push_back(substituted(arg, placeholders()));
        }
        argv = testsupport::targetCommand(argv);
        // Reading times are ends of local days: one zone for every machine.
        argv.insert(argv.begin(), {"env", "TZ=UTC"});
        if (toFull)
        {
            argv.insert(argv.begin(),
                        {"sh", "-c", R"(exec "$@" >/dev/full)", "sh"});
        }
        return testsupport::runProgram(argv);
    }

    std::map<std::string, std::string> placeholders() const
    {
        return {{"{logs}", sandbox.hostPath(testsupport::smartLogsPath)},
                {"{raw}", sandbox.hostPath(testsupport::smartRawDataPath)},
                {"{root}", sandbox.hostPath("")},
                {"{scenario}", scenarioPath()},
                {"{daily}", sandbox.hostPath(testsupport::dailyDir)}};
    }

    // A file's whole text is what was seeded plus `want`; null: it does not
    // exist; an object: partial checks (see expectText), or "kind".
    void expectFile(const std::string& inside, const json& want)
    {
        auto host = sandbox.hostPath(inside);
        auto status = fs::symlink_status(host);
        if (want.is_null() || want.contains("kind"))
        {
            std::map<std::string, fs::file_type> kinds = {
                {"fifo", fs::file_type::fifo},
                {"symlink", fs::file_type::symlink},
                {"directory", fs::file_type::directory}};
            EXPECT_EQ(status.type(), want.is_null() ? fs::file_type::not_found
                                                    : kinds.at(want["kind"]))
                << inside;
            return;
        }
        EXPECT_EQ(status.type(), fs::file_type::regular) << inside;
        std::string text = readFile(host);
        const std::string& before = seeded[inside];
        ASSERT_EQ(text.substr(0, before.size()), before)
            << inside << ": earlier bytes lost";
        expectText(inside, text.substr(before.size()), want);
    }

    // Whole text, or an object of "head", "tail", "size", "lines" and
    // "contains" (pieces found anywhere).
    void expectText(const std::string& what, const std::string& text,
                    const json& want) const
    {
        if (want.is_null())
        {
            return;
        }
        if (!want.is_object())
        {
            EXPECT_EQ(text, substituted(textOf(want), placeholders())) << what;
            return;
        }
        std::string head = substituted(textOf(want.value("head", "")),
                                       placeholders());
        std::string tail = textOf(want.value("tail", ""));
        EXPECT_EQ(text.substr(0, head.size()), head) << what;
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), tail.size())),
                  tail)
            << what;
        EXPECT_EQ(text.size(), want.value("size", text.size())) << what;
        EXPECT_EQ(
            std::count(text.begin(), text.end(), '\n'),
            want.value("lines", std::count(text.begin(), text.end(), '\n')))
            << what;
        for (const auto& part : want.value("contains", json::array()))
        {
            EXPECT_NE(text.find(substituted(textOf(part), placeholders())),
                      std::string::npos)
                << what << " lacks " << part << ":\n"
                << text;
        }
    }
};

struct Params
{
    json c;
};

void PrintTo(const Params& params, std::ostream* out)
{
    *out << params.c.at("name");
}

std::vector<Params> allCases()
{
    std::vector<Params> cases;
    for (auto& c : loadCases())
    {
        cases.push_back({std::move(c)});
    }
    return cases;
}

class Case : public ::testing::TestWithParam<Params>
{};

TEST_P(Case, Runs)
{
    try
    {
        CaseRun run(GetParam().c);
        run.run();
        run.checkLog();
        run.checkCalls();
        run.checkFiles();
        run.checkReader();
    }
    catch (const Unsupported& missing)
    {
        if (std::getenv("QV_NO_SKIP") != nullptr)
        {
            FAIL() << "no " << missing.what() << " here (QV_NO_SKIP)";
        }
        GTEST_SKIP() << "no " << missing.what() << " here";
    }
}

INSTANTIATE_TEST_SUITE_P(, Case, ::testing::ValuesIn(allCases()),
                         [](const auto& info) {
    return info.param.c.at("name").template get<std::string>();
});

} // namespace
