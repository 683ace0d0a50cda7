#include "collectorTest.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <numeric>
#include <vector>

namespace
{

using collectortest::collectorLines;

// A report stream on a scratch file.
struct ScratchStream
{
    testsupport::TempDir dir;
    std::string path = dir.file("report.json");
    std::ofstream stream{path, std::ios::out | std::ios::app};

    std::string text()
    {
        stream.flush();
        return testsupport::readFile(path);
    }
};

std::vector<uint8_t> countingBytes(size_t length)
{
    std::vector<uint8_t> bytes(length);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

TEST(Writers, WriteFragmentsUnescaped)
{
    using Write = std::function<void(std::ofstream&)>;
    const std::vector<std::pair<Write, std::string>> cases{
        {[](auto& s) { jsonAddStartDataGroup(s, "ABC"); }, "\"ABC\":\n{\n"},
        {[](auto& s) { jsonAddStartDataGroup(s, ""); }, ""},
        {[](auto& s) { jsonAddStartDataGroup(s, "a\"b"); }, "\"a\"b\":\n{\n"},
        {[](auto& s) { jsonAddTagAndValueInt64(s, "Power On hours", 1234); },
         "\t\"Power On hours\": \"1234\",\n"},
        {[](auto& s) {
             jsonAddTagAndValueInt64(s, "Max",
                                     std::numeric_limits<uint64_t>::max());
         },
         "\t\"Max\": \"18446744073709551615\",\n"},
        {[](auto& s) { jsonAddTagAndValueInt64(s, "", 7); }, ""},
        {[](auto& s) { jsonAddTagAndValueInt64(s, "q\"t", 0); },
         "\t\"q\"t\": \"0\",\n"},
    };
    for (const auto& [write, expected] : cases)
    {
        ScratchStream out;
        dlog::Capture capture;
        write(out.stream);
        EXPECT_EQ(out.text(), expected);
        EXPECT_TRUE(capture.records().empty());
    }
}

// A closed stream is reported by the JSON writers only; a null buffer is
// ignored silently.
TEST(Writers, ClosedStreamOrNullBufferWriteNothing)
{
    std::ofstream closed;
    ScratchStream open;
    dlog::Capture capture;
    jsonAddStartDataGroup(closed, "ABC");
    jsonAddTagAndValueInt64(closed, "tag", 1);
    collectortest::CerrCapture cerr;
    hexdump(countingBytes(4).data(), 4, closed);
    hexdump(nullptr, 16, open.stream);
    EXPECT_EQ(open.text(), "");
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{
                  "9|qvDbusCollectSmartData.#.jsonAddStartDataGroup: File "
                  "pointer is NULL..returning.\n",
                  "9|qvDbusCollectSmartData.#.jsonAddTagAndValueInt64: File "
                  "pointer is NULL..returning.\n"}));
    EXPECT_EQ(cerr.text(), "");
}

TEST(Hexdump, RowsCellsAndEndings)
{
    const std::string blanks36(36, ' ');
    const std::vector<std::pair<int, std::string>> cases{
        {0, ""},
        {-1, ""},
        {16,
         "\"000000\": \"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f \""},
        {17, "\"000000\": \"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "
             "\",\n\"000010\": \"10" +
                 std::string(46, ' ') + "\""},
        {20, "\"000000\": \"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "
             "\",\n\"000010\": \"10 11 12 13 " +
                 blanks36 + "\""},
    };
    const auto bytes = countingBytes(32);
    for (const auto& [length, expected] : cases)
    {
        ScratchStream out;
        dlog::Capture capture;
        collectortest::CerrCapture cerr;
        hexdump(bytes.data(), length, out.stream);
        EXPECT_EQ(out.text(), expected) << length;
        EXPECT_EQ(cerr.text(), "Buf len is [" + std::to_string(length) + "]\n");
        EXPECT_EQ(collectorLines(capture),
                  std::vector<std::string>{
                      "5|qvDbusCollectSmartData.#: Exit hexdump"});
    }
}

TEST(Hexdump, LeavesStreamHexadecimalAndRestartsOffsets)
{
    ScratchStream out;
    collectortest::CerrCapture cerr;
    const uint8_t bytes[] = {0xff, 0x22};
    hexdump(bytes, 1, out.stream);
    out.stream << ' ' << 255 << ' ';
    jsonAddTagAndValueInt64(out.stream, "v", 4096);
    hexdump(bytes + 1, 1, out.stream);
    EXPECT_EQ(out.text(), "\"000000\": \"ff" + std::string(46, ' ') +
                              "\" ff \t\"v\": \"1000\",\n\"000000\": \"22" +
                              std::string(46, ' ') + "\"");
}

TEST(Hexdump, OffsetsGrowPastSixDigits)
{
    constexpr size_t length = (16u << 20) + 3;
    const auto bytes = countingBytes(length);
    ScratchStream out;
    collectortest::CerrCapture cerr;
    hexdump(bytes.data(), static_cast<int>(length), out.stream);
    const std::string text = out.text();
    const std::string blanks(39, ' ');
    EXPECT_EQ(text.size(), (length / 16) * 62 + 61);
    EXPECT_NE(text.find("\n\"fffff0\": \"f0 f1 "), std::string::npos);
    EXPECT_TRUE(
        text.ends_with("ff \",\n\"1000000\": \"00 01 02 " + blanks + "\""));
}

TEST(CurrentDay, KindChoosesPrefix)
{
    const std::vector<std::pair<int, std::string>> cases{
        {0, "SL"}, {1, "RD"}, {2, "RD"}, {-1, "RD"}};
    for (const auto& [kind, prefix] : cases)
    {
        dlog::Capture capture;
        const std::string path = getCurrentDay(kind, "/d/");
        ASSERT_EQ(path.size(), std::string("/d/SL20260101.json").size());
        EXPECT_EQ(path.substr(0, 5), "/d/" + prefix);
        EXPECT_TRUE(path.ends_with(".json"));
        EXPECT_EQ(collectorLines(capture),
                  std::vector<std::string>{
                      "9|qvDbusCollectSmartData.#.getCurrentDay: file : [" +
                      path + "]\n"});
    }
    EXPECT_TRUE(getCurrentDay(0).starts_with("/mmc2/mas032/smartlogs/SL"));
}

std::string utcDateShiftedBy(std::time_t now, long seconds)
{
    const std::time_t shifted = now + seconds;
    std::tm utc{};
    gmtime_r(&shifted, &utc);
    char date[16]{};
    std::strftime(date, sizeof date, "%Y%m%d", &utc);
    return date;
}

TEST(CurrentDay, LocalDateFollowsTimeZone)
{
    // One of the two zones is on another date than UTC at any moment.
    const std::vector<std::pair<std::string, long>> zones{
        {"EAST-14", 14 * 3600}, {"WEST+12", -12 * 3600}};
    bool sawOtherDate = false;
    for (const auto& [zone, offset] : zones)
    {
        setenv("TZ", zone.c_str(), 1);
        const std::time_t before = std::time(nullptr);
        const std::string path = getCurrentDay(1, "/d/");
        const std::time_t after = std::time(nullptr);
        const std::string date = path.substr(5, 8);
        EXPECT_TRUE(date == utcDateShiftedBy(before, offset) ||
                    date == utcDateShiftedBy(after, offset))
            << zone << " " << path;
        sawOtherDate |= date != utcDateShiftedBy(before, 0);
    }
    unsetenv("TZ");
    EXPECT_TRUE(sawOtherDate);
}

TEST(Cancel, OnlySigusr1SetsTheFlag)
{
    cancelRequested = 0;
    onCancelSignal(SIGUSR2);
    onCancelSignal(SIGTERM);
    EXPECT_EQ(cancelRequested.load(), 0);

    installCancelHandler();
    struct sigaction installed
    {};
    sigaction(SIGUSR1, nullptr, &installed);
    EXPECT_EQ(installed.sa_handler, &onCancelSignal);
    EXPECT_EQ(installed.sa_flags & SA_RESTART, 0);
    raise(SIGUSR1);
    EXPECT_EQ(cancelRequested.load(), 1);
    cancelRequested = 0;
}

} // namespace
