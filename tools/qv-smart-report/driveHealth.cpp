#include "driveHealth.hpp"

#include "qvSmartReportNames.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace qvreport
{
namespace
{

using Octets = std::vector<std::uint8_t>;

constexpr std::int64_t kelvinOffset = 273;

// Counters past the signed 64-bit range show as its top value.
Figure figure(std::optional<std::uint64_t> value)
{
    if (!value)
    {
        return std::nullopt;
    }
    constexpr auto top = std::numeric_limits<std::int64_t>::max();
    return *value > std::uint64_t(top) ? top : std::int64_t(*value);
}

// A log page of a hard drive's group: its name and its dump's octets, none
// when it is no dump.
struct Page
{
    std::string name;
    Octets octets;
    bool dump = true;
};

// What the figures of one drive are read from: its group of a report
// without the rows of a raw-data dump.
struct DriveGroup
{
    std::string fqdd;
    // Every member by name in file order, but the rows of a dump: a quoted
    // text, or nothing for a group.
    std::vector<std::pair<std::string, std::optional<std::string>>> members;
    // Its groups, as pages.
    std::vector<Page> pages;
    // A quoted text among its members, raw-data rows included.
    bool holdsText = false;

    // The first member of that name.
    const std::optional<std::string>* find(std::string_view key) const
    {
        auto it = std::ranges::find(members, key, [](const auto& member) {
            return std::string_view(member.first);
        });
        return it == members.end() ? nullptr : &it->second;
    }
};

std::optional<std::uint64_t> number(const DriveGroup& record,
                                    std::string_view key)
{
    const auto* member = record.find(key);
    if (member == nullptr || !*member || (*member)->empty())
    {
        return std::nullopt;
    }
    const std::string& text = **member;
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (ec != std::errc{} || ptr != end)
    {
        return std::nullopt;
    }
    return value;
}

Figure field(const DriveGroup& record, std::string_view key)
{
    return figure(number(record, key));
}

DriveHealth solidState(const DriveGroup& record)
{
    DriveHealth health;
    namespace ssd = reportNames::ssd;
    auto protocol = number(record, reportNames::protocol).value_or(0);
    health.driveClass = (protocol & PROTOCOL_SAS) != 0 ? DriveClass::sasSsd
                                                       : DriveClass::sataSsd;
    health.temperatureC = field(record, ssd::temperature);
    health.lifeRemaining = field(record, ssd::lifeRemaining);
    health.powerOnHours = field(record, ssd::powerOnHours);
    health.mediaErrors = field(record, ssd::uncorrectable);
    health.crcErrors = field(record, ssd::crcErrors);
    health.reallocated = field(record, ssd::reallocated);
    health.pending = field(record, ssd::pending);
    health.commandTimeouts = field(record, ssd::commandTimeout);
    health.powerCycles = field(record, ssd::powerCycles);
    health.dataWritten = field(record, ssd::mediaWrites);
    return health;
}

// A 128-bit counter of the NVMe log, from its two halves.
Figure wideCounter(const DriveGroup& record, std::string_view lowerName,
                   std::string_view upperName)
{
    auto upper = number(record, upperName);
    auto lower = number(record, lowerName);
    if (upper && *upper != 0)
    {
        return std::numeric_limits<std::int64_t>::max();
    }
    return figure(lower);
}

DriveHealth nvme(const DriveGroup& record)
{
    DriveHealth health;
    health.driveClass = DriveClass::nvme;
    namespace nvme = reportNames::nvme;
    // 0 K is a drive that reports no temperature.
    if (auto kelvin = field(record, nvme::temperature); kelvin && *kelvin > 0)
    {
        health.temperatureC = *kelvin - kelvinOffset;
    }
    health.percentUsed = field(record, nvme::percentageUsed);
    health.powerOnHours = wideCounter(record, nvme::powerOnHoursLower,
                                      nvme::powerOnHoursUpper);
    health.mediaErrors = wideCounter(record, nvme::mediaErrorsLower,
                                     nvme::mediaErrorsUpper);
    health.availableSpare = field(record, nvme::availableSpare);
    health.spareThreshold = field(record, nvme::spareThreshold);
    health.criticalWarning = number(record, nvme::criticalWarning);
    health.powerCycles = wideCounter(record, nvme::powerCyclesLower,
                                     nvme::powerCyclesUpper);
    health.dataRead = wideCounter(record, nvme::dataUnitsReadLower,
                                  nvme::dataUnitsReadUpper);
    health.dataWritten = wideCounter(record, nvme::dataUnitsWrittenLower,
                                     nvme::dataUnitsWrittenUpper);
    health.unsafeShutdowns = wideCounter(record, nvme::unsafeShutdownsLower,
                                         nvme::unsafeShutdownsUpper);
    return health;
}

// A page group's name is "<page>(<code>)".
std::string_view pageName(const Page& group)
{
    return std::string_view(group.name).substr(0, group.name.find('('));
}

// Device statistics qword: value in the low six octets, valid only when the
// supported and valid flags of the top octet are both set.
std::optional<std::uint64_t> statistic(const Octets& page, size_t offset,
                                       size_t width = 6)
{
    if (offset + 8 > page.size() || (page[offset + 7] & 0xc0) != 0xc0)
    {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (size_t i = width; i-- > 0;)
    {
        value = (value << 8) | page[offset + i];
    }
    return value;
}

// Value of a log parameter of a SAS log page (big-endian), by code. The
// page ends where its own length field says: a service may hand over a
// longer buffer whose tail still holds an earlier answer's parameters.
std::optional<Octets> logParameter(const Octets& page, unsigned code)
{
    if (page.size() < 4)
    {
        return std::nullopt;
    }
    const size_t end = std::min(page.size(),
                                4 + size_t((page[2] << 8) | page[3]));
    for (size_t at = 4; at + 4 <= end;)
    {
        unsigned found = (page[at] << 8) | page[at + 1];
        size_t length = page[at + 3];
        if (at + 4 + length > end)
        {
            break;
        }
        if (found == code)
        {
            const auto body = std::span(page).subspan(at + 4, length);
            return Octets(body.begin(), body.end());
        }
        at += 4 + length;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> bigEndian(std::optional<Octets> v, size_t from,
                                       size_t width)
{
    if (!v || v->size() < from + width)
    {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (size_t i = 0; i < width; ++i)
    {
        value = (value << 8) | (*v)[from + i];
    }
    return value;
}

// A log parameter read as one big-endian number, whatever its length.
std::optional<std::uint64_t> wholeParameter(const Octets& page, unsigned code)
{
    auto param = logParameter(page, code);
    return bigEndian(param, 0, param ? param->size() : 0);
}

void addTo(Figure& total, std::optional<std::uint64_t> count)
{
    if (auto value = figure(count); value)
    {
        constexpr auto top = std::numeric_limits<std::int64_t>::max();
        std::int64_t sum = total.value_or(0);
        total = sum > top - *value ? top : sum + *value;
    }
}

void sataPage(DriveHealth& health, std::string_view name, const Octets& page)
{
    namespace names = reportNames::sataPage;
    if (name == names::general)
    {
        health.powerCycles = figure(statistic(page, 0x08, 4));
        health.powerOnHours = figure(statistic(page, 0x10, 4));
        health.dataWritten = figure(statistic(page, 0x18));
        health.dataRead = figure(statistic(page, 0x28));
    }
    else if (name == names::rotatingMedia)
    {
        health.headFlyingHours = figure(statistic(page, 0x10, 4));
        health.loadEvents = figure(statistic(page, 0x18, 4));
        health.reallocated = figure(statistic(page, 0x20, 4));
        health.pending = figure(statistic(page, 0x38, 4));
    }
    else if (name == names::generalErrors)
    {
        health.mediaErrors = figure(statistic(page, 0x08, 4));
    }
    else if (auto t = statistic(page, 0x08, 1); name == names::temperature && t)
    {
        health.temperatureC = static_cast<signed char>(*t);
    }
}

// The page code the drive put in the page's first octet, without the
// disable-save and subpage-format bits; 0xff for a page too short to say.
unsigned pageCode(const Octets& page)
{
    return page.size() < 2 || page[1] != 0 ? 0xff : page[0] & 0x3f;
}

void sasPage(DriveHealth& health, std::string_view name, const Octets& page)
{
    // A slot may carry another page than its own (a service filling in for
    // a page the drive lacks); its parameter codes mean something else.
    namespace names = reportNames::sasPage;
    constexpr std::array<std::pair<std::string_view, unsigned>, 6> codes = {{
        {names::readErrors, 0x03},
        {names::writeErrors, 0x02},
        {names::verifyErrors, 0x05},
        {names::startStopCycles, 0x0e},
        {names::backgroundScan, 0x15},
        {names::temperature, 0x0d},
    }};
    const auto* expected = std::ranges::find(
        codes, name, &std::pair<std::string_view, unsigned>::first);
    if (expected == codes.end() || pageCode(page) != expected->second)
    {
        return;
    }
    constexpr unsigned totalUncorrected = 6;
    if (name == names::readErrors || name == names::writeErrors ||
        name == names::verifyErrors)
    {
        addTo(health.mediaErrors, wholeParameter(page, totalUncorrected));
        constexpr unsigned bytesProcessed = 5;
        if (name != names::verifyErrors)
        {
            (name == names::readErrors ? health.dataRead : health.dataWritten) =
                figure(wholeParameter(page, bytesProcessed));
        }
    }
    else if (name == names::startStopCycles)
    {
        constexpr unsigned startStops = 4;
        constexpr unsigned loadUnloads = 6;
        health.powerCycles = figure(wholeParameter(page, startStops));
        health.loadEvents = figure(wholeParameter(page, loadUnloads));
    }
    else if (name == names::temperature)
    {
        // The standard parameter holds a reserved byte and the temperature.
        // One of another length is not guessed at: the figure stays unknown.
        auto parameter = logParameter(page, 0);
        auto celsius = parameter && parameter->size() == 2
                           ? bigEndian(parameter, 1, 1)
                           : std::nullopt;
        if (celsius && *celsius != 0xff)
        {
            health.temperatureC = figure(celsius);
        }
    }
    else if (name == names::backgroundScan)
    {
        auto minutes = bigEndian(logParameter(page, 0), 0, 4);
        health.powerOnHours = figure(minutes ? std::optional(*minutes / 60)
                                             : std::nullopt);
    }
}

bool contains(const auto& names, std::string_view name)
{
    return std::ranges::any_of(
        names, [name](std::string_view known) { return known == name; });
}

// Hard drive from its page groups.
DriveHealth hardDrive(const DriveGroup& record)
{
    DriveHealth health;
    health.driveClass = DriveClass::hdd;
    for (const Page& group : record.pages)
    {
        auto name = pageName(group);
        const auto& page = group.octets;
        if (contains(reportNames::sataPages, name))
        {
            health.driveClass = DriveClass::sataHdd;
            sataPage(health, name, page);
        }
        else if (contains(reportNames::sasPages, name))
        {
            health.driveClass = DriveClass::sasHdd;
            sasPage(health, name, page);
        }
    }
    return health;
}

// A group of the logs report by its members' names; of the raw-data report
// a hard drive's when all its members are page groups. A solid-state
// drive's raw data is left out: its figures come from the logs report.
std::optional<DriveHealth> classify(const DriveGroup& record)
{
    if (record.find(reportNames::nvme::criticalWarning) != nullptr)
    {
        return nvme(record);
    }
    if (record.find(reportNames::ssd::lifeRemaining) != nullptr)
    {
        return solidState(record);
    }
    if (record.holdsText || record.pages.empty())
    {
        return std::nullopt;
    }
    return hardDrive(record);
}

// The drives of a document from its events, one drive's group at a time:
// of a group only its named texts and its pages' octets are kept, never the
// rows of a raw-data dump, so a document is read in the memory of its
// largest log page.
class DriveHealthEvents final : public ReportEvents
{
  public:
    void start(int /*line*/) override
    {
        depth = 0;
        drives.clear();
    }
    void openGroup(std::string_view name, int /*line*/) override
    {
        ++depth;
        if (depth == 1)
        {
            record = DriveGroup{std::string(name), {}, {}, false};
        }
        else if (depth == 2)
        {
            record.members.emplace_back(name, std::nullopt);
            record.pages.push_back({std::string(name), {}, true});
        }
        else
        {
            notADump();
        }
    }
    void text(std::string_view name, std::string_view value,
              int /*line*/) override
    {
        if (depth == 1)
        {
            record.holdsText = true;
            if (!isHexRowName(name))
            {
                record.members.emplace_back(name, value);
            }
        }
        else if (depth == 2 && record.pages.back().dump &&
                 (!isHexRowName(name) ||
                  !appendHexRow(value, record.pages.back().octets)))
        {
            notADump();
        }
    }
    void closeGroup() override
    {
        if (depth-- != 1)
        {
            return;
        }
        if (auto health = classify(record); health)
        {
            health->fqdd = std::move(record.fqdd);
            drives.push_back(std::move(*health));
        }
        record = {};
    }

    std::vector<DriveHealth> take()
    {
        return std::exchange(drives, {});
    }

  private:
    int depth = 0;
    DriveGroup record;
    std::vector<DriveHealth> drives;

    // The page being read holds more than rows of octets.
    void notADump()
    {
        auto& page = record.pages.back();
        page.dump = false;
        page.octets = {};
    }
};

} // namespace

std::vector<std::string> criticalWarningNames(std::uint64_t bits)
{
    constexpr std::array<std::string_view, 6> names = {
        "spare-below-threshold",  "temperature",
        "reliability-degraded",   "read-only",
        "volatile-backup-failed", "pmr-read-only"};
    std::vector<std::string> set;
    for (size_t bit = 0; bit < 8; ++bit)
    {
        if ((bits >> bit & 1) != 0)
        {
            set.emplace_back(bit < names.size() ? std::string(names[bit])
                                                : "bit" + std::to_string(bit));
        }
    }
    return set;
}

std::string_view className(DriveClass driveClass)
{
    switch (driveClass)
    {
        case DriveClass::sasSsd:
            return "SAS SSD";
        case DriveClass::sataSsd:
            return "SATA SSD";
        case DriveClass::nvme:
            return "NVMe";
        case DriveClass::sataHdd:
            return "SATA HDD";
        case DriveClass::sasHdd:
            return "SAS HDD";
        case DriveClass::hdd:
            break;
    }
    return "HDD";
}

bool isHardDrive(DriveClass driveClass)
{
    return driveClass == DriveClass::hdd || driveClass == DriveClass::sataHdd ||
           driveClass == DriveClass::sasHdd;
}

size_t columnOf(std::span<const FigureColumn> columns,
                Figure DriveHealth::*figure)
{
    auto column = std::ranges::find(columns, figure, &FigureColumn::figure);
    if (column == columns.end())
    {
        throw std::logic_error("a figure missing from its list of columns");
    }
    return size_t(column - columns.begin());
}

std::string_view figureName(ReasonFigure figure)
{
    const auto* member = std::get_if<Figure DriveHealth::*>(&figure);
    return member == nullptr
               ? "critical_warning"
               : namedFigures.at(columnOf(namedFigures, *member)).name;
}

std::vector<DriveHealth> driveHealth(const Document& document)
{
    DriveHealthEvents events;
    handOver(document, events);
    return events.take();
}

bool readDriveHealth(
    const std::string& file, std::ostream& err,
    const std::function<void(const std::vector<DriveHealth>&)>& each)
{
    DriveHealthEvents events;
    return readReportFile(file, err, events, [&] { each(events.take()); });
}

} // namespace qvreport
