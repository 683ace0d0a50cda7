#include "collectorTest.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <numeric>

namespace
{

using collectortest::collectorLines;

// A report stream on a scratch file.
struct ScratchStream
{
    testsupport::TempDir dir;
    std::ofstream stream{dir.file("report.json")};

    std::string text()
    {
        stream.flush();
        return testsupport::readFile(dir.file("report.json"));
    }
};

std::vector<uint8_t> countingBytes(size_t length)
{
    std::vector<uint8_t> bytes(length);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
}

// Names go out unescaped, empty names and tags write nothing, and a
// closed stream is reported by the JSON writers only (hexdump returns
// silently, as it does for a null buffer).
TEST(Writers, FragmentsAndClosedStreams)
{
    ScratchStream out;
    dlog::Capture capture;
    collectortest::CerrCapture cerr;
    jsonAddStartDataGroup(out.stream, "a\"b");
    jsonAddStartDataGroup(out.stream, "");
    jsonAddTagAndValueInt64(out.stream, "q\"t", UINT64_MAX);
    jsonAddTagAndValueInt64(out.stream, "", 7);
    hexdump(nullptr, 16, out.stream);
    EXPECT_EQ(out.text(),
              "\"a\"b\":\n{\n\t\"q\"t\": \"18446744073709551615\",\n");
    EXPECT_TRUE(capture.records().empty());

    std::ofstream closed;
    jsonAddStartDataGroup(closed, "ABC");
    jsonAddTagAndValueInt64(closed, "tag", 1);
    hexdump(countingBytes(4).data(), 4, closed);
    const std::string head = "9|qvDbusCollectSmartData.#.jsonAdd";
    const std::string tail = ": File pointer is NULL..returning.\n";
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{head + "StartDataGroup" + tail,
                                        head + "TagAndValueInt64" + tail}));
    EXPECT_EQ(cerr.text.str(), "");
}

// Rows, padding of the last row, and the base the stream is left in: a
// dump that wrote something leaves it hexadecimal, an empty one untouched.
TEST(Hexdump, RowsCellsAndStreamBase)
{
    const std::string row0 =
        "\"000000\": \"00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f \"";
    const std::vector<std::pair<int, std::string>> cases{
        {0, " 255"},
        {-1, " 255"},
        {16, row0 + " ff"},
        {17, row0 + ",\n\"000010\": \"10" + std::string(46, ' ') + "\" ff"}};
    const auto bytes = countingBytes(32);
    for (const auto& [length, expected] : cases)
    {
        ScratchStream out;
        dlog::Capture capture;
        collectortest::CerrCapture cerr;
        hexdump(bytes.data(), length, out.stream);
        out.stream << ' ' << 255;
        EXPECT_EQ(out.text(), expected) << length;
        EXPECT_EQ(cerr.text.str(),
                  "Buf len is [" + std::to_string(length) + "]\n");
        EXPECT_EQ(collectorLines(capture),
                  std::vector<std::string>{
                      "5|qvDbusCollectSmartData.#: Exit hexdump"});
    }
}

TEST(Hexdump, OffsetsGrowPastSixDigits)
{
    constexpr size_t length = (16u << 20) + 3;
    const auto bytes = countingBytes(length);
    ScratchStream out;
    collectortest::CerrCapture cerr;
    hexdump(bytes.data(), static_cast<int>(length), out.stream);
    const std::string text = out.text();
    EXPECT_EQ(text.size(), (length / 16) * 62 + 61);
    EXPECT_NE(text.find("\n\"fffff0\": \"f0 f1 "), std::string::npos);
    EXPECT_TRUE(text.ends_with("ff \",\n\"1000000\": \"00 01 02 " +
                               std::string(39, ' ') + "\""));
}

// The date itself, under the local time zone, is checked end to end.
TEST(CurrentDay, KindChoosesPrefix)
{
    for (const auto& [kind, prefix] : std::vector<std::pair<int, std::string>>{
             {0, "SL"}, {1, "RD"}, {2, "RD"}, {-1, "RD"}})
    {
        dlog::Capture capture;
        const std::string path = getCurrentDay(kind);
        EXPECT_TRUE(std::regex_match(
            path, std::regex("/mmc2/mas032/smartlogs/" + prefix +
                             "20[0-9]{2}[01][0-9][0-3][0-9]\\.json")))
            << path;
    }
}

TEST(Cancel, OnlySigusr1SetsTheFlag)
{
    cancelRequested = 0;
    onCancelSignal(SIGUSR2);
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
