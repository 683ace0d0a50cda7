#include "collectorTest.hpp"
#include "privateBus.hpp"
#include "simulator.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>

// Where the SMART values come from: the platform's tables and the storage
// service's methods.
namespace
{

using collectortest::collectorLines;

// Multi-byte fields of the packed record must not bind to the references
// that assertions take (they may be misaligned); compare copies.
template <typename T>
T copyOf(T value)
{
    return value;
}

const std::string line = "9|qvDbusCollectSmartData.#.";

// Points the SMART tables at `json` in `dir`; the caches start empty.
void useTables(const testsupport::TempDir& dir, const std::string& json)
{
    setenv("PLATFORM_SMART_TABLES", dir.write("t.json", json).c_str(), 1);
    sasSataMapLoaded = nvmeMapLoaded = false;
}

TEST(Tables, SasSataEntriesInKeyOrderKeepTheirWidths)
{
    testsupport::TempDir dir;
    useTables(dir, R"({"sasSata": {"entries": [
        {"key": "k3", "fqdd": "C", "protocol": 32},
        {"key": "k1", "fqdd": "A", "protocol": 4294967312, "attributes": 2,
         "powerOnHours": 18446744073709551615, "driveTemperature": 511,
         "percentDriveLifeRemaining": 98, "currentPendingSectorCount": 7},
        {"key": "k2", "fqdd": "B\u0000tail", "protocol": 16}]}})");
    DriveSmartRecord record{};
    std::string fqdd;
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "A");
    EXPECT_EQ(copyOf(record.protocol), 0x10u);
    EXPECT_EQ(copyOf(record.attributes), 2u);
    EXPECT_EQ(copyOf(record.sasSata.powerOnHours), 18446744073709551615u);
    EXPECT_EQ(record.sasSata.driveTemperature, 0xff);
    EXPECT_EQ(record.sasSata.percentDriveLifeRemaining, 98);
    EXPECT_EQ(copyOf(record.sasSata.currentPendingSectorCount), 7u);
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(1, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "B");
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(2, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "C");

    // Past the end or negative: success, nothing touched.
    const DriveSmartRecord before = record;
    for (int index : {3, -1, 1000})
    {
        fqdd = "kept";
        EXPECT_EQ(qvdbusGetSmartDataSasSataSSD(index, &record, &fqdd), 0);
        EXPECT_EQ(fqdd, "kept");
        EXPECT_EQ(std::memcmp(&before, &record, sizeof record), 0);
    }
}

// Out-of-range values are cut to their field; bits outside both fields of
// the location word keep what the record held.
TEST(Tables, NvmeBitFieldsKeepNeighbours)
{
    testsupport::TempDir dir;
    useTables(dir, R"({"nvme": {"entries": [{"key": "n", "fqdd": "N",
        "compositeTemparature": 65845, "dataUnitsReadLower": 1,
        "dataUnitsReadUpper": 2, "errorInfoLogRecordStatusFieldPhaseTag": 3,
        "errorInfoLogRecordStatusFieldStatus": 32767,
        "errorInfoLogRecordParameterErrorLocationByteInCommand": 511,
        "errorInfoLogRecordParameterErrorLocationBitInCommand": 9}]}})");
    DriveSmartRecord record{};
    record.nvme.errorInfoLogRecordParameterErrorLocation = 0xf800;
    std::string fqdd;
    ASSERT_EQ(qvdbusGetSmartDataNvme(0, &record, &fqdd), 0);
    const uint16_t status = record.nvme.errorInfoLogRecordStatusField;
    const uint16_t location =
        record.nvme.errorInfoLogRecordParameterErrorLocation;
    EXPECT_EQ(statusFieldPhaseTag(status), 1);
    EXPECT_EQ(statusFieldStatus(status), 32767);
    EXPECT_EQ(errorLocationByteInCommand(location), 0xff);
    EXPECT_EQ(errorLocationBitInCommand(location), 1);
    EXPECT_EQ(location & 0xf800, 0xf800);
    EXPECT_EQ(copyOf(record.nvme.compositeTemparature), 0x135);
    EXPECT_EQ(copyOf(record.nvme.dataUnitsReadLower), 1u);
    EXPECT_EQ(copyOf(record.nvme.dataUnitsReadUpper), 2u);
}

TEST(Tables, FailedLoadIsRetriedByTheReader)
{
    struct Case
    {
        int (*read)(int, DriveSmartRecord*, std::string*);
        std::string name, table, wording;
    };
    const std::vector<Case> cases{
        {qvdbusGetSmartDataSasSataSSD, "qvdbusGetSmartDataSasSataSSD",
         "sasSata", "sas sata"},
        {qvdbusGetSmartDataNvme, "qvdbusGetSmartDataNvme", "nvme", "nvme"}};
    for (const auto& c : cases)
    {
        testsupport::TempDir dir;
        useTables(dir, R"({")" + c.table + R"(": {"status": 9}})");
        DriveSmartRecord record{};
        record.protocol = 77;
        std::string fqdd = "kept";
        dlog::Capture capture;
        EXPECT_EQ(c.read(0, &record, &fqdd), -1);
        EXPECT_EQ(fqdd, "kept");
        EXPECT_EQ(copyOf(record.protocol), 77u);
        const std::string failure = line + c.name + ":  " + c.name +
                                    " Failed client_get_objects call for " +
                                    c.wording + "\n";
        EXPECT_EQ(collectorLines(capture), std::vector<std::string>{failure});

        EXPECT_FALSE(sasSataMapLoaded || nvmeMapLoaded);
        // The cache is left alone: the next read loads the table again.
        dir.write("t.json",
                  R"({")" + c.table +
                      R"(": {"entries": [{"key": "k", "fqdd": "F"}]}})");
        EXPECT_EQ(c.read(0, &record, &fqdd), 0);
        EXPECT_EQ(fqdd, "F");
    }
}

// Storage answers for every test here; each FQDD stands for one behaviour.
const std::string drives = R"({"drives": {
  "ABC": {"rawData": {"data": "a1"}}, "": {"rawData": {"data": "e0"}},
  "xSMARTData:ABC": {"rawData": {"data": "b2"}},
  "SMARTDataX": {"rawData": {"data": "c3"}}, "EMPTY": {"rawData": {"data": ""}},
  "ST7": {"rawData": {"status": [0, 7], "data": "ff"}},
  "EXTRA": {
    "rawData": {"data": "01", "extra": {"signature": "st", "values": ["x", 5]}},
    "sasHdd": {"protocol": 32, "pages": [{"code": 9, "data": "99"}],
               "extra": {"signature": "s", "values": ["x"]}}},
  "BADSTATUS": {
    "rawData": {"reply": {"signature": "(uu)ay", "values": [[0, 0], [1]]}},
    "sasHdd": {"reply": {"signature": "(uu)yuutuss",
                         "values": [[0, 0], 0, 0, 32, 0, 0, "", ""]}}},
  "SAS": {"sasHdd": {"protocol": 32, "attributes": 0, "field6": "six", "pages":
    [{"code": 3, "data": "01"}, {"code": 4, "data": "0202"}, {"code": 5, "data":
    "03"}, {"code": 6, "data": "04"}, {"code": 7, "data": "05"}, {"code": 21,
    "data": "06"}, {"code": 13, "data": "0d00000c"}]}},
  "SATA": {"sataHdd": {"protocol": 16, "attributes": 2, "pages": [
    {"code": 0, "data": "0001"}, {"code": 1, "data": "11"}, {"code": 2, "data":
    "22"}, {"code": 3, "length": 0, "data": "33"}, {"code": 4, "data": "44"}]}},
  "LONG": {"sataHdd": {"protocol": 16, "pages": [
    {"code": 1, "length": 300, "dataLength": 300},
    {"code": 2, "length": 20, "data": "0102030405060708"},
    {"code": 3, "length": 65535}]}}}})";

// The simulator serving one scenario. One bus per test process: the
// default connections of sd-bus stay bound to the first bus they met.
struct Storage
{
    testsupport::TempDir dir;
    testsupport::Simulator simulator;

    explicit Storage(const std::string& json) :
        simulator(testsupport::Simulator::writeScenario(dir, json), bus())
    {}

    static const testsupport::PrivateBus& bus()
    {
        static const testsupport::PrivateBus shared;
        [[maybe_unused]] static const bool exported =
            (shared.exportToEnvironment(), true);
        return shared;
    }
};

std::pair<int, std::string> fetchRaw(const std::string& fqdd)
{
    testsupport::TempDir dir;
    std::ofstream stream(dir.file("raw.json"));
    collectortest::CerrCapture cerr;
    const int status = qvdbusGetSmartPDSASSATARawData(fqdd, stream);
    stream.close();
    return {status, testsupport::readFile(dir.file("raw.json"))};
}

const std::string raw = line + "qvdbusGetSmartPDSASSATARawData: ";
const std::string sata = line + "qvdbusGetSmartPDSATAHDDData: ";
const std::string sas = line + "qvdbusGetSmartPDSASHDDData: ";

// The prefix goes only at the very start; the log keeps the name given.
TEST(RawData, AnswersAndPrefixRule)
{
    Storage storage(drives);
    const std::string call = raw + "qvdbusGetSmartPDSASSATARawData call "
                                   "method: ";
    const std::string size = raw + "Raw data size: ";
    for (const auto& [fqdd, cells] :
         std::vector<std::pair<std::string, std::string>>{
             {"SMARTData:ABC", "a1"},
             {"SMARTData:", "e0"},
             {"xSMARTData:ABC", "b2"},
             {"SMARTDataX", "c3"},
             {"EXTRA", "01"}})
    {
        dlog::Capture capture;
        EXPECT_EQ(fetchRaw(fqdd),
                  std::make_pair(0, "\"000000\": \"" + cells +
                                        std::string(46, ' ') + "\""));
        EXPECT_EQ(collectorLines(capture),
                  (std::vector<std::string>{
                      call + "0 0", size + "1 for FQDD: " + fqdd + "\n",
                      "5|qvDbusCollectSmartData.#: Exit hexdump"}));
    }
    dlog::Capture capture;
    EXPECT_EQ(fetchRaw("ST7"), std::make_pair(-1, std::string()));
    EXPECT_EQ(fetchRaw("EMPTY"), std::make_pair(0, std::string()));
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{
                  call + "0 7",
                  raw + "Failed qvdbusGetSmartPDSASSATARawData: primaryErr=0 "
                        "secondaryErr=7",
                  call + "0 0", size + "0 for FQDD: EMPTY\n",
                  raw + "Empty raw data received for FQDD: EMPTY\n"}));
}

// A call that fails inside the binding logs one line carrying its error
// text and leaves the record as it was.
TEST(StorageCalls, BindingFailuresAreContained)
{
    const std::string failed = "Failed to call method: ";
    const std::string unknown =
        failed + "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: ";
    const std::string absent = R"({"names": {"storage": false}})";
    struct Case
    {
        const std::string& scenario;
        std::string fqdd;
        bool sasCall;
        std::string lineStart;
    };
    const std::vector<Case> cases{{drives, "BADSTATUS", false, raw + failed},
                                  {drives, "BADSTATUS", true, sas + failed},
                                  {absent, "ABC", false, raw + unknown},
                                  {absent, "ABC", true, sas + unknown}};
    for (const auto& c : cases)
    {
        Storage storage(c.scenario);
        DriveSmartRecord record{};
        record.logPages[0].pageLength = 5;
        const DriveSmartRecord before = record;
        dlog::Capture capture;
        EXPECT_EQ(c.sasCall ? qvdbusGetSmartPDSASHDDData(&record, c.fqdd)
                            : fetchRaw(c.fqdd).first,
                  -1);
        EXPECT_EQ(std::memcmp(&before, &record, sizeof record), 0);
        const auto lines = collectorLines(capture);
        ASSERT_EQ(lines.size(), 1u) << c.lineStart;
        EXPECT_TRUE(lines[0].starts_with(c.lineStart)) << lines[0];
    }
}

// A SATA answer fills slots 1-5 only: 6 and 7 keep an earlier SAS drive's.
// Fields the answers do not carry (objStatus) are never touched.
TEST(HardDrives, PagesFillTheirSlots)
{
    Storage storage(drives);
    const auto pageBytes = [](const SmartLogPage& page) {
        return std::string(page.pageData.begin(),
                           page.pageData.begin() + page.pageLength);
    };
    DriveSmartRecord record{};
    record.objStatus = 4;
    dlog::Capture capture;
    ASSERT_EQ(qvdbusGetSmartPDSASHDDData(&record, "SAS"), 0);
    EXPECT_EQ(pageBytes(record.logPages[1]), "\x02\x02");
    ASSERT_EQ(qvdbusGetSmartPDSATAHDDData(&record, "SATA"), 0);
    EXPECT_EQ(collectorLines(capture),
              (std::vector<std::string>{
                  sas + "success to qvdbusGetSmartPDSASHDDData call method: "
                        "0 0",
                  sas + "Protocol:32, Attributes:0\n",
                  sata + "success to call method:",
                  sata + "success to qvdbusGetSmartPDSATAHDDData call "
                         "method: 0 0",
                  sata + "Protocol:16, Attributes:2\n"}));
    std::vector<int> codes;
    std::vector<std::string> bytes;
    for (const SmartLogPage& page : record.logPages)
    {
        codes.push_back(page.pageCode);
        bytes.push_back(pageBytes(page));
    }
    EXPECT_EQ(codes, (std::vector<int>{0, 1, 2, 3, 4, 21, 13}));
    EXPECT_EQ(bytes, (std::vector<std::string>{
                         std::string("\0\1", 2), "\x11", "\x22", "", "\x44",
                         "\x06", std::string("\x0d\0\0\x0c", 4)}));
    EXPECT_EQ(copyOf(record.protocol), 16u);
    EXPECT_EQ(copyOf(record.attributes), 2u);
    EXPECT_EQ(record.objStatus, 4);

    EXPECT_EQ(qvdbusGetSmartPDSASHDDData(&record, "EXTRA"), 0);
    EXPECT_EQ(record.logPages[0].pageCode, 9);

    // A length never claims more octets than the slot holds, and a short
    // array leaves zeros behind it.
    record.logPages[1].pageData.fill(0xee);
    ASSERT_EQ(qvdbusGetSmartPDSATAHDDData(&record, "LONG"), 0);
    EXPECT_EQ(copyOf(record.logPages[0].pageLength), 256);
    EXPECT_EQ(record.logPages[0].pageData[255], 255);
    EXPECT_EQ(copyOf(record.logPages[1].pageLength), 8);
    EXPECT_EQ(record.logPages[1].pageData[8], 0);
    EXPECT_EQ(copyOf(record.logPages[2].pageLength), 0);
}

} // namespace
