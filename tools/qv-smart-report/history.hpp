#pragma once

#include "dailySeries.hpp"
#include "dayFiles.hpp"
#include "driveHealth.hpp"
#include "verdict.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace qvreport
{

// Where a drive went: from one bay to another on a day.
struct Move
{
    Day day;
    std::string from;
};

// An operator's word on the drive in a bay: taken out for good on the day
// (retire: the drive whose last sighting is on or before it), or its
// figures of the day accepted until a day (acknowledge: only change beyond
// them counts).
struct OperatorWord
{
    enum class Action
    {
        retire,
        acknowledge
    };
    Action action = Action::retire;
    std::string fqdd;
    Day day;
    std::optional<Day> until;
    std::string note;
};

// The figures an operator accepted for a drive, and until when.
struct Acknowledgement
{
    Day day;
    Day until;
    std::string note;
    DriveHealth accepted;
};

// One drive from its first reading to its last: its identity, the running
// figures of its readings, the reasons that hold and the verdict. Every
// output of the history is written from it.
struct DriveRecord
{
    // The bay it is in, or was in last.
    std::string fqdd;
    // The class of its last reading.
    DriveClass driveClass = DriveClass::hdd;
    Day firstDay{};
    // The day of its last reading.
    Day lastDay{};
    // Days with a reading.
    int days = 0;
    // The last day a report listed it, with or without figures.
    Day lastSeen{};
    // When its last reading was taken, in seconds since the epoch.
    std::int64_t lastReadingTime = 0;
    std::array<Trend, figureColumns.size()> trends{};
    // The last reading itself.
    DriveHealth latest;
    // The last reading's reasons, each since the first of the readings up
    // to the last on which it held.
    std::vector<Reason> holding;
    // Every reason that failed it, from the first day each did: a FAILED
    // verdict lasts until the drive is replaced or retired.
    std::vector<Reason> latched;
    Assessment assessment{{}};
    bool appeared = false;
    std::vector<Move> moves;
    // Another drive took its bay, or an operator retired it.
    bool vanished = false;
    std::optional<Day> retired;
    // Belongs to the drive, wherever it goes; its replacement starts
    // without one.
    std::optional<Acknowledgement> acknowledgement;
    // Still the server's, but without a reading since this report day: its
    // verdict is the one of its last reading.
    std::optional<Day> silentSince;
    // Only when the history keeps its days.
    DailySeries series;

    const Trend& trend(Figure DriveHealth::*figure) const;
    // The bay it was in on a day of its readings.
    const std::string& bayOn(Day day) const;
};

// The drives followed across the days read, each assessed once.
struct History
{
    // Failed first, then warned, then by FQDD and first day.
    std::vector<DriveRecord> drives;
    std::optional<Day> firstDay;
    std::optional<Day> lastDay;
    // When the newest reading of any drive was taken, in seconds since the
    // epoch; 0 without any.
    std::int64_t newestReading = 0;
    // A file read was damaged, could not be read or was set aside.
    bool damagedInput = false;
    // Readings set aside, one line each: "FQDD: reading of DAY set aside:
    // why".
    std::vector<std::string> setAside;
};

struct HistoryOptions
{
    // Keep every reading for the outputs that show each day.
    bool keepDays = false;
    std::vector<OperatorWord> operatorWords;
};

// Builds the history from reports given day by day, in order of their days.
// A drive is followed by the counters that only rise (driveIdentity.hpp):
// in its bay while they continue, into another bay when its figures turn
// up there, and a break in them is another drive. A report of the drive
// without any figure (its log pages could not be read) is a gap, not a
// recovery.
class HistoryBuilder
{
  public:
    explicit HistoryBuilder(HistoryOptions options = {});

    // Every drive of one run's report, on its day, read at `readingTime`
    // (seconds since the epoch). A day without drives still counts as a
    // day of reports: every drive went without a reading on it.
    void add(Day day, const std::vector<DriveHealth>& drives,
             std::int64_t readingTime);

    // Moves the days read into the history: the builder is empty after.
    History build();

  private:
    // A reading that broke with its bay's drive, kept until the bay's next
    // reading says whether it was another drive or a glitch.
    struct Held
    {
        Day day;
        DriveHealth reading;
        std::int64_t time;
        std::string why;
    };
    struct Arrival
    {
        std::string fqdd;
        DriveHealth reading;
    };

    HistoryOptions options;
    std::optional<Day> gathering;
    std::map<std::string, DriveHealth> gathered;
    std::int64_t gatheredTime = 0;
    std::vector<DriveRecord> records;
    // The record of the drive in each bay.
    std::map<std::string, size_t> inBay;
    std::map<std::string, Held> held;
    std::vector<Day> reportDays;
    std::vector<std::string> setAside;
    // The operator words bound to drives so far, in order of their days.
    size_t acknowledged = 0;

    void closeDay();
    void listed(Day day, const std::string& fqdd, const DriveHealth& health);
    void settleHeld(Day day, const std::vector<Arrival>& arrivals);
    void commitHeld(const std::string& fqdd, Held entry);
    void match(Day day, std::vector<Arrival>& arrivals);
    std::vector<std::optional<size_t>>
        resolve(Day day, const std::vector<Arrival>& arrivals,
                std::vector<std::optional<size_t>> fast);
    void releasePartners(Day day, const std::vector<Arrival>& arrivals,
                         std::vector<std::optional<size_t>>& fast,
                         std::vector<size_t>& readings) const;
    std::vector<std::optional<size_t>>
        assignReadings(Day day, const std::vector<Arrival>& arrivals,
                       const std::vector<size_t>& readings,
                       const std::vector<size_t>& drives) const;
    void arrive(Day day, Arrival& arrival, std::optional<size_t> drive,
                const std::vector<bool>& matched);
    size_t open(Day day, const std::string& fqdd, DriveClass driveClass);
    bool live(size_t record) const;
    void retire();
    void acknowledge(std::optional<Day> before);
};

// How a drive stands against the history's days, as the outputs name it:
// "appeared", "moved from BAY on DAY", "vanished", "retired DAY", "silent
// since DAY"; none for a drive read from the first day to the last in one
// bay.
std::vector<std::string> driveMarks(const DriveRecord& drive);

// Reads the files in order of their days into a history. A file read with
// damage is named on `err` and makes `intact` false; the rest of it is
// still taken.
History readHistory(const std::vector<DatedFile>& files, const Period& period,
                    HistoryOptions options, std::ostream& err, bool& intact);

} // namespace qvreport
