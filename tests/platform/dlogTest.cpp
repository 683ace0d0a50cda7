#include "dlog.hpp"

#include "dlogCapture.hpp"
#include "tempDir.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <tuple>

namespace
{

using testsupport::readFile;
using testsupport::TempDir;

// Records are appended, the file is never truncated; while a capture is
// alive records go to it with their text exactly as formatted.
TEST(Dlog, RecordsLoseOneTrailingNewline)
{
    const TempDir dir;
    const std::string path = dir.write("app.log", "earlier line\n");
    ::setenv("DLOG_FILE", path.c_str(), 1);
    for (const char* message :
         {"Entry main", "failed\n", "two\n\n", "a\nb", "\n", "", "%d"})
    {
        dlog_printf(9, 171, "%s", message);
    }
    {
        const dlog::Capture capture;
        dlog_printf(9, 172, "%s.%d: Failed\n", "f", 3);
        ASSERT_EQ(capture.records().size(), 1U);
        const dlog::Record& record = capture.records()[0];
        EXPECT_EQ(std::tie(record.level, record.module, record.text),
                  std::make_tuple(9, 172, "f.3: Failed\n"));
    }
    const std::string longText(5000, 'x');
    dlog_printf(-5, 1, "%s.%d: rc:0x%lX", longText.c_str(), 512, 0x15UL);
    EXPECT_EQ(readFile(path), "earlier line\n9|171|Entry main\n9|171|failed\n"
                              "9|171|two\n\n9|171|a\nb\n9|171|\n9|171|\n"
                              "9|171|%d\n-5|1|" +
                                  longText + ".512: rc:0x15\n");
}

// Unset, empty and unopenable (a directory) DLOG_FILE, each in a child.
TEST(Dlog, FallsBackToStandardError)
{
    const TempDir dir;
    const std::string err = dir.file("stderr");
    for (const char* value :
         {static_cast<const char*>(nullptr), "", dir.path().c_str()})
    {
        SCOPED_TRACE(value == nullptr ? "unset" : value);
        if (::fork() == 0)
        {
            ::dup2(::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
            value == nullptr ? ::unsetenv("DLOG_FILE")
                             : ::setenv("DLOG_FILE", value, 1);
            dlog_printf(9, 1, "err\n");
            ::_exit(0);
        }
        ::wait(nullptr);
        EXPECT_EQ(readFile(err), "9|1|err\n");
    }
}

// Processes share one log file; a record split over two write() calls could
// interleave with another process's record.
TEST(Dlog, ConcurrentWritersKeepRecordsWhole)
{
    const TempDir dir;
    const std::string path = dir.file("shared.log");
    ::setenv("DLOG_FILE", path.c_str(), 1);
    constexpr int writers = 8, records = 300;
    const auto lineOf = [](int w) {
        return std::to_string(w) + "|0|" + std::string(5000, 'a' + w);
    };
    for (int w = 0; w < writers; ++w)
    {
        if (::fork() == 0)
        {
            for (int r = 0; r < records; ++r)
            {
                dlog_printf(w, 0, "%s\n", lineOf(w).substr(4).c_str());
            }
            ::_exit(0);
        }
    }
    while (::wait(nullptr) > 0)
    {}
    std::istringstream lines(readFile(path));
    int total = 0;
    for (std::string line; std::getline(lines, line); ++total)
    {
        ASSERT_EQ(line, lineOf(line[0] - '0')) << "line " << total;
    }
    EXPECT_EQ(total, writers * records);
}

} // namespace
