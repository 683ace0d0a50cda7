#include "collectorTest.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <vector>

namespace
{

using collectortest::collectorLines;

// Storage answers for every test here; each FQDD stands for one behaviour.
const std::string drives = R"({"drives": {
    "ABC": {"rawData": {"data": "a1"}},
    "": {"rawData": {"data": "e0"}},
    "xSMARTData:ABC": {"rawData": {"data": "b2"}},
    "SMARTDataX": {"rawData": {"data": "c3"}},
    "EMPTY": {"rawData": {"data": ""}},
    "ST7": {"rawData": {"status": [0, 7], "data": "ff"},
            "sataHdd": {"status": [0, 7]}, "sasHdd": {"status": [0, 7]}},
    "EXTRA": {"rawData": {"data": "01", "extra": {"signature": "st",
                                                  "values": ["x", 5]}},
              "sasHdd": {"protocol": 32, "pages": [{"code": 9, "data": "99"}],
                         "extra": {"signature": "s", "values": ["x"]}}},
    "BADSTATUS": {
        "rawData": {"reply": {"signature": "(uu)ay", "values": [[0, 0], [1]]}},
        "sasHdd": {"reply": {"signature": "(uu)yuutuss",
                             "values": [[0, 0], 0, 0, 32, 0, 0, "", ""]}}},
    "SAS": {"sasHdd": {"protocol": 32, "attributes": 0, "field6": "six",
        "pages": [{"code": 3, "data": "01"}, {"code": 4, "data": "0202"},
                  {"code": 5, "data": "03"}, {"code": 6, "data": "04"},
                  {"code": 7, "data": "05"}, {"code": 21, "data": "06"},
                  {"code": 13, "data": "0d00000c"}]}},
    "SATA": {"sataHdd": {"protocol": 16, "attributes": 2,
        "pages": [{"code": 0, "data": "0001"}, {"code": 1, "data": "11"},
                  {"code": 2, "data": "22"}, {"code": 3, "length": 0,
                  "data": "33"}, {"code": 4, "data": "44"}]}},
    "LONG": {"sataHdd": {"protocol": 16, "pages": [
        {"code": 1, "length": 300, "dataLength": 300},
        {"code": 2, "length": 20, "data": "0102030405060708"},
        {"code": 3, "length": 65535}]}}}})";

struct RawResult
{
    int status;
    std::string text;
};

RawResult fetchRaw(const std::string& fqdd)
{
    testsupport::TempDir dir;
    const std::string path = dir.file("raw.json");
    std::ofstream stream(path, std::ios::out | std::ios::app);
    collectortest::CerrCapture cerr;
    const int status = qvdbusGetSmartPDSASSATARawData(fqdd, stream);
    stream.close();
    return {status, testsupport::readFile(path)};
}

std::string row(const std::string& cells)
{
    return "\"000000\": \"" + cells + std::string(48 - cells.size(), ' ') +
           "\"";
}

TEST(RawData, PrefixIsRemovedOnlyAtTheStart)
{
    collectortest::Server server(drives);
    const std::vector<std::pair<std::string, std::string>> cases{
        {"SMARTData:ABC", "a1 "},  {"ABC", "a1 "},        {"SMARTData:", "e0 "},
        {"xSMARTData:ABC", "b2 "}, {"SMARTDataX", "c3 "},
    };
    const std::string prefix =
        "9|qvDbusCollectSmartData.#.qvdbusGetSmartPDSASSATARawData: ";
    for (const auto& [fqdd, cells] : cases)
    {
        dlog::Capture capture;
        const RawResult result = fetchRaw(fqdd);
        EXPECT_EQ(result.status, 0) << fqdd;
        EXPECT_EQ(result.text, row(cells)) << fqdd;
        EXPECT_EQ(
            collectorLines(capture),
            (std::vector<std::string>{
                prefix + "qvdbusGetSmartPDSASSATARawData call method: 0 0",
                prefix + "Raw data size: 1 for FQDD: " + fqdd + "\n",
                "5|qvDbusCollectSmartData.#: Exit hexdump"}));
    }
}

TEST(RawData, OutcomesOtherThanData)
{
    collectortest::Server server(drives);
    const std::string prefix =
        "9|qvDbusCollectSmartData.#.qvdbusGetSmartPDSASSATARawData: ";
    const std::string called =
        prefix + "qvdbusGetSmartPDSASSATARawData call method: ";
    struct Case
    {
        std::string fqdd;
        int status;
        std::string text;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases{
        {"ST7",
         -1,
         "",
         {called + "0 7", prefix + "Failed qvdbusGetSmartPDSASSATARawData: "
                                   "primaryErr=0 secondaryErr=7"}},
        {"EMPTY",
         0,
         "",
         {called + "0 0", prefix + "Raw data size: 0 for FQDD: EMPTY\n",
          prefix + "Empty raw data received for FQDD: EMPTY\n"}},
        {"EXTRA",
         0,
         row("01 "),
         {called + "0 0", prefix + "Raw data size: 1 for FQDD: EXTRA\n",
          "5|qvDbusCollectSmartData.#: Exit hexdump"}},
    };
    for (const auto& c : cases)
    {
        dlog::Capture capture;
        const RawResult result = fetchRaw(c.fqdd);
        EXPECT_EQ(result.status, c.status) << c.fqdd;
        EXPECT_EQ(result.text, c.text) << c.fqdd;
        EXPECT_EQ(collectorLines(capture), c.lines) << c.fqdd;
    }
}

// Calls that fail inside the binding: one line carrying its error text.
TEST(StorageCalls, BindingFailuresAreContained)
{
    using Call = std::function<int(DriveSmartRecord&, const std::string&)>;
    const std::vector<std::pair<const char*, Call>> calls{
        {"qvdbusGetSmartPDSASSATARawData",
         [](DriveSmartRecord&, const std::string& fqdd) {
             return fetchRaw(fqdd).status;
         }},
        {"qvdbusGetSmartPDSASHDDData",
         [](DriveSmartRecord& r, const std::string& fqdd) {
             return qvdbusGetSmartPDSASHDDData(&r, fqdd);
         }},
    };
    struct Case
    {
        std::string scenario;
        std::string fqdd;
        std::string errorStart;
    };
    const std::vector<Case> cases{
        {drives, "BADSTATUS", ""},
        {R"({"names": {"storage": false}})", "ABC",
         "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: "},
    };
    for (const auto& c : cases)
    {
        collectortest::Server server(c.scenario);
        for (const auto& [name, call] : calls)
        {
            DriveSmartRecord record{};
            record.protocol = 99;
            record.logPages[0].pageLength = 5;
            dlog::Capture capture;
            EXPECT_EQ(call(record, c.fqdd), -1) << name;
            EXPECT_EQ(collectortest::copyOf(record.protocol), 99u);
            EXPECT_EQ(collectortest::copyOf(record.logPages[0].pageLength), 5);
            const auto lines = collectorLines(capture);
            ASSERT_EQ(lines.size(), 1u) << name;
            EXPECT_TRUE(lines[0].starts_with(
                std::string("9|qvDbusCollectSmartData.#.") + name +
                ": Failed to call method: " + c.errorStart))
                << lines[0];
        }
    }
}

std::string pageBytes(const SmartLogPage& page)
{
    return std::string(page.pageData.begin(),
                       page.pageData.begin() + page.pageLength);
}

TEST(HardDrives, PagesFillTheirSlots)
{
    collectortest::Server server(drives);
    DriveSmartRecord record{};
    record.objStatus = 4;
    dlog::Capture capture;
    ASSERT_EQ(qvdbusGetSmartPDSASHDDData(&record, "SAS"), 0);
    const std::string sas = "9|qvDbusCollectSmartData.#."
                            "qvdbusGetSmartPDSASHDDData: ";
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{
                  sas + "success to qvdbusGetSmartPDSASHDDData call method: "
                        "0 0",
                  sas + "Protocol:32, Attributes:0\n"}));
    EXPECT_EQ(record.logPages[1].pageCode, 4);
    EXPECT_EQ(pageBytes(record.logPages[1]), "\x02\x02");
    EXPECT_EQ(pageBytes(record.logPages[6]), std::string("\x0d\0\0\x0c", 4));

    capture.clear();
    ASSERT_EQ(qvdbusGetSmartPDSATAHDDData(&record, "SATA"), 0);
    const std::string sata = "9|qvDbusCollectSmartData.#."
                             "qvdbusGetSmartPDSATAHDDData: ";
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{
                  sata + "success to call method:",
                  sata + "success to qvdbusGetSmartPDSATAHDDData call "
                         "method: 0 0",
                  sata + "Protocol:16, Attributes:2\n"}));
    const std::vector<std::pair<int, std::string>> slots{
        {0, std::string("\0\1", 2)},
        {1, "\x11"},
        {3, ""},
        {4, "\x44"},
        {5, "\x06"},
        {6, std::string("\x0d\0\0\x0c", 4)}};
    for (const auto& [slot, bytes] : slots)
    {
        EXPECT_EQ(pageBytes(record.logPages[slot]), bytes) << slot;
    }
    EXPECT_EQ(record.logPages[3].pageCode, 3);
    EXPECT_EQ(record.logPages[5].pageCode, 21);
    EXPECT_EQ(collectortest::copyOf(record.protocol), 16u);
    EXPECT_EQ(collectortest::copyOf(record.attributes), 2u);
    EXPECT_EQ(record.objStatus, 4);

    EXPECT_EQ(qvdbusGetSmartPDSASHDDData(&record, "EXTRA"), 0);
    EXPECT_EQ(record.logPages[0].pageCode, 9);
}

TEST(HardDrives, RejectedRequestLeavesRecord)
{
    collectortest::Server server(drives);
    DriveSmartRecord record{};
    record.logPages[0].pageLength = 3;
    const DriveSmartRecord before = record;
    dlog::Capture capture;
    EXPECT_EQ(qvdbusGetSmartPDSATAHDDData(&record, "ST7"), -1);
    EXPECT_EQ(qvdbusGetSmartPDSASHDDData(&record, "ST7"), -1);
    EXPECT_EQ(std::memcmp(&before, &record, sizeof record), 0);
    const auto lines = collectorLines(capture);
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_TRUE(lines[1].ends_with("SATAHDDData call method: 0 7"));
    EXPECT_TRUE(lines[2].ends_with(
        "qvdbusGetSmartPDSATAHDDData: Failed to qvdbusGetSmartPDSATAHDDData "
        "call method"));
    EXPECT_TRUE(lines[4].ends_with(
        "qvdbusGetSmartPDSASHDDData: Failed to qvdbusGetSmartPDSASHDDData "
        "call method"));
}

TEST(HardDrives, SlotsNeverClaimMoreThanTheyHold)
{
    collectortest::Server server(drives);
    DriveSmartRecord record{};
    std::fill(record.logPages[1].pageData.begin(),
              record.logPages[1].pageData.end(), uint8_t{0xee});
    dlog::Capture capture;
    ASSERT_EQ(qvdbusGetSmartPDSATAHDDData(&record, "LONG"), 0);
    EXPECT_EQ(collectortest::copyOf(record.logPages[0].pageLength), 256);
    EXPECT_EQ(record.logPages[0].pageData[255], 255);
    EXPECT_EQ(collectortest::copyOf(record.logPages[1].pageLength), 8);
    EXPECT_EQ(record.logPages[1].pageData[8], 0);
    EXPECT_EQ(collectortest::copyOf(record.logPages[2].pageLength), 0);
    const std::string prefix = "9|qvDbusCollectSmartData.#."
                               "qvdbusGetSmartPDSATAHDDData: Log page ";
    const auto lines = collectorLines(capture);
    const std::vector<std::string> clamped(lines.end() - 3, lines.end());
    EXPECT_EQ(clamped,
              (std::vector<std::string>{
                  prefix + "1 of FQDD LONG: length 300, 300 octets "
                           "delivered, 256 kept\n",
                  prefix + "2 of FQDD LONG: length 20, 8 octets delivered, "
                           "8 kept\n",
                  prefix + "3 of FQDD LONG: length 65535, 0 octets "
                           "delivered, 0 kept\n"}));
}

} // namespace
