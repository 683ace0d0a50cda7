#include "dlog.hpp"

#include "dlogCapture.hpp"
#include "stderrRedirect.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using testsupport::readFile;
using testsupport::TempDir;

class DlogTest : public testing::Test
{
protected:
    void TearDown() override
    {
        ::unsetenv("DLOG_FILE");
    }

    std::string useLogFile(const std::string& name)
    {
        const std::string path = dir.file(name);
        ::setenv("DLOG_FILE", path.c_str(), 1);
        return path;
    }

    TempDir dir;
};

struct FormatCase
{
    const char* name;
    int level;
    int module;
    std::string message;
    std::string expected;
};

TEST_F(DlogTest, RecordFormatStripsOneTrailingNewline)
{
    const std::vector<FormatCase> cases{
        {"plain", 5, 171, "Entry main", "5|171|Entry main\n"},
        {"newline", 9, 171, "failed\n", "9|171|failed\n"},
        {"blankThenNewline", 9, 171, "EXIT on exception x \n",
         "9|171|EXIT on exception x \n"},
        {"twoNewlines", 9, 172, "two\n\n", "9|172|two\n\n"},
        {"inner", 9, 172, "a\nb", "9|172|a\nb\n"},
        {"empty", 5, 171, "", "5|171|\n"},
        {"onlyNewline", 5, 171, "\n", "5|171|\n"},
        {"carriageReturn", 9, 171, "x\r\n", "9|171|x\r\n"},
        {"negativeNumbers", -1, -200, "m", "-1|-200|m\n"},
        {"percentInArgument", 9, 171, "100%d", "9|171|100%d\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        const std::string path = useLogFile(std::string(c.name) + ".log");
        dlog_printf(c.level, c.module, "%s", c.message.c_str());
        EXPECT_EQ(readFile(path), c.expected);
    }
}

TEST_F(DlogTest, FormatsArgumentsAndAppendsToExistingFile)
{
    const std::string path = dir.write("app.log", "earlier line\n");
    ::setenv("DLOG_FILE", path.c_str(), 1);
    dlog_printf(5, 171, "%s.%d: Exit %s: rc:0x%lX", "qvDbusCollectSmartData",
                512, "addSmartData", 0x15UL);
    dlog_printf(9, 172, "%s.%d.%s: count : %d\n", "qvDbusCollectCommon", 88,
                "getStorageObjCount", -1);
    EXPECT_EQ(readFile(path),
              "earlier line\n"
              "5|171|qvDbusCollectSmartData.512: Exit addSmartData: rc:0x15\n"
              "9|172|qvDbusCollectCommon.88.getStorageObjCount: count : -1\n");
}

TEST_F(DlogTest, LongMessagesAreNotTruncated)
{
    for (const std::size_t length : {4095UL, 4096UL, 70000UL, 1000000UL})
    {
        SCOPED_TRACE(length);
        std::string message(length, '.');
        for (std::size_t i = 0; i < length; i += 97)
        {
            message[i] = static_cast<char>('a' + i % 26);
        }
        const std::string path =
            useLogFile("long" + std::to_string(length) + ".log");
        dlog_printf(9, 171, "<%s>", message.c_str());
        EXPECT_EQ(readFile(path), "9|171|<" + message + ">\n");
    }
}

// Unset, empty and unopenable DLOG_FILE all end on standard error.
TEST_F(DlogTest, FallsBackToStandardError)
{
    const std::string notAFile = dir.file("isADirectory");
    ASSERT_EQ(::mkdir(notAFile.c_str(), 0755), 0);
    struct Case
    {
        const char* name;
        const char* value;
    };
    for (const Case c : {Case{"unset", nullptr}, Case{"empty", ""},
                         Case{"directory", notAFile.c_str()}})
    {
        SCOPED_TRACE(c.name);
        if (c.value == nullptr)
        {
            ::unsetenv("DLOG_FILE");
        }
        else
        {
            ::setenv("DLOG_FILE", c.value, 1);
        }
        const std::string captured = dir.file(std::string(c.name) + ".err");
        {
            platformtest::StderrRedirect redirect(captured);
            dlog_printf(9, 171, "to stderr %s\n", c.name);
        }
        EXPECT_EQ(readFile(captured),
                  "9|171|to stderr " + std::string(c.name) + "\n");
    }
}

TEST_F(DlogTest, FollowsChangesOfTheVariable)
{
    const std::string first = useLogFile("first.log");
    dlog_printf(5, 1, "one");
    const std::string second = useLogFile("second.log");
    dlog_printf(5, 1, "two");
    ::setenv("DLOG_FILE", first.c_str(), 1);
    dlog_printf(5, 1, "three");
    EXPECT_EQ(readFile(first), "5|1|one\n5|1|three\n");
    EXPECT_EQ(readFile(second), "5|1|two\n");
}

// Several processes share one log file; a record split over two write()
// calls would interleave with another process's record.
TEST_F(DlogTest, ConcurrentWritersKeepRecordsWhole)
{
    const std::string path = useLogFile("shared.log");
    constexpr int writers = 6;
    constexpr int recordsEach = 150;
    std::vector<pid_t> children;
    for (int w = 0; w < writers; ++w)
    {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0)
        {
            const std::string body(3000 + w * 500, static_cast<char>('A' + w));
            for (int r = 0; r < recordsEach; ++r)
            {
                dlog_printf(w, r, "%s\n", body.c_str());
            }
            ::_exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t pid : children)
    {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    std::istringstream lines(readFile(path));
    std::vector<std::set<int>> seen(writers);
    int total = 0;
    for (std::string line; std::getline(lines, line); ++total)
    {
        const auto bar = line.find('|');
        const auto bar2 = line.find('|', bar + 1);
        ASSERT_NE(bar2, std::string::npos) << "line " << total;
        const int w = std::stoi(line.substr(0, bar));
        ASSERT_TRUE(w >= 0 && w < writers) << "line " << total;
        const std::string body(3000 + w * 500, static_cast<char>('A' + w));
        ASSERT_EQ(line.substr(bar2 + 1), body) << "line " << total;
        seen[w].insert(std::stoi(line.substr(bar + 1, bar2 - bar - 1)));
    }
    EXPECT_EQ(total, writers * recordsEach);
    for (const auto& records : seen)
    {
        EXPECT_EQ(records.size(), static_cast<std::size_t>(recordsEach));
    }
}

// A reader that went away must neither kill the logging process through
// SIGPIPE nor leave the signal pending for it.
TEST_F(DlogTest, SurvivesStandardErrorWithoutReader)
{
    const pid_t pid = ::fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
    {
        ::unsetenv("DLOG_FILE");
        int ends[2];
        if (::pipe(ends) != 0)
        {
            ::_exit(3);
        }
        ::close(ends[0]);
        ::dup2(ends[1], STDERR_FILENO);
        dlog_printf(9, 171, "nobody reads this");
        sigset_t pending;
        ::sigpending(&pending);
        ::_exit(sigismember(&pending, SIGPIPE) == 1 ? 4 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "killed by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(DlogTest, CaptureKeepsExactTextAndWritesNothing)
{
    const std::string path = useLogFile("captured.log");
    {
        dlog::Capture capture;
        dlog_printf(9, 171, "%s.%d.%s:  %s Failed\n", "f", 3, "op", "op");
        dlog_printf(5, 172, "Exit %s", "main");
        ASSERT_EQ(capture.records().size(), 2U);
        EXPECT_EQ(capture.records()[0].level, 9);
        EXPECT_EQ(capture.records()[0].module, 171);
        EXPECT_EQ(capture.records()[0].text, "f.3.op:  op Failed\n");
        EXPECT_EQ(capture.records()[1].level, 5);
        EXPECT_EQ(capture.records()[1].module, 172);
        EXPECT_EQ(capture.records()[1].text, "Exit main");
        capture.clear();
        EXPECT_TRUE(capture.records().empty());
        dlog_printf(9, 171, "after clear");
        ASSERT_EQ(capture.records().size(), 1U);
        EXPECT_EQ(capture.records()[0].text, "after clear");
    }
    EXPECT_EQ(readFile(path), "");
    dlog_printf(9, 171, "released\n");
    EXPECT_EQ(readFile(path), "9|171|released\n");
}

} // namespace
