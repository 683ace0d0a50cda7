#include "driveHealth.hpp"

#include "qvSmartReportNames.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <span>
#include <string_view>
#include <utility>

namespace qvreport
{
namespace
{

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

std::optional<std::uint64_t> number(const Node& record, std::string_view key)
{
    const Node* member = record.find(key);
    if (member == nullptr || member->isObject || member->text.empty())
    {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    const char* end = member->text.data() + member->text.size();
    auto [ptr, ec] = std::from_chars(member->text.data(), end, value);
    if (ec != std::errc{} || ptr != end)
    {
        return std::nullopt;
    }
    return value;
}

Figure field(const Node& record, std::string_view key)
{
    return figure(number(record, key));
}

DriveHealth solidState(const Node& record)
{
    DriveHealth health;
    namespace ssd = reportNames::ssd;
    auto protocol = number(record, reportNames::protocol).value_or(0);
    health.driveClass = (protocol & 0x20) != 0 ? "SAS SSD" : "SATA SSD";
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
Figure wideCounter(const Node& record, std::string_view lowerName,
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

DriveHealth nvme(const Node& record)
{
    DriveHealth health;
    health.driveClass = "NVMe";
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
std::string_view pageName(const Node& group)
{
    return std::string_view(group.name).substr(0, group.name.find('('));
}

// Device statistics qword: value in the low six octets, valid only when the
// supported and valid flags of the top octet are both set.
std::optional<std::uint64_t> statistic(const std::vector<unsigned>& page,
                                       size_t offset, size_t width = 6)
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
std::optional<std::vector<unsigned>>
    logParameter(const std::vector<unsigned>& page, unsigned code)
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
            return std::vector<unsigned>(body.begin(), body.end());
        }
        at += 4 + length;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> bigEndian(std::optional<std::vector<unsigned>> v,
                                       size_t from, size_t width)
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
std::optional<std::uint64_t> wholeParameter(const std::vector<unsigned>& page,
                                            unsigned code)
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

void sataPage(DriveHealth& health, std::string_view name,
              const std::vector<unsigned>& page)
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
unsigned pageCode(const std::vector<unsigned>& page)
{
    return page.size() < 2 || page[1] != 0 ? 0xff : page[0] & 0x3f;
}

void sasPage(DriveHealth& health, std::string_view name,
             const std::vector<unsigned>& page)
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

// Hard drive from its page groups; nothing when the group is not one.
std::optional<DriveHealth> hardDrive(const Node& record)
{
    DriveHealth health;
    health.driveClass = "HDD";
    for (const Node& group : record.members)
    {
        if (!group.isObject)
        {
            return std::nullopt;
        }
        auto name = pageName(group);
        auto page = decodeHexRows(group).value_or(std::vector<unsigned>{});
        if (contains(reportNames::sataPages, name))
        {
            health.driveClass = "SATA HDD";
            sataPage(health, name, page);
        }
        else if (contains(reportNames::sasPages, name))
        {
            health.driveClass = "SAS HDD";
            sasPage(health, name, page);
        }
    }
    return health;
}

std::optional<DriveHealth> classify(const Node& record)
{
    if (record.find(reportNames::nvme::criticalWarning) != nullptr)
    {
        return nvme(record);
    }
    if (record.find(reportNames::ssd::lifeRemaining) != nullptr)
    {
        return solidState(record);
    }
    if (record.members.empty() || decodeHexRows(record))
    {
        return std::nullopt;
    }
    return hardDrive(record);
}

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

std::string_view figureName(Figure DriveHealth::*figure)
{
    const auto* column = std::ranges::find(namedFigures, figure,
                                           &FigureColumn::figure);
    return column == namedFigures.end() ? "" : column->name;
}

std::vector<DriveHealth> driveHealth(const Document& document)
{
    std::vector<DriveHealth> drives;
    for (const Node& record : document.root.members)
    {
        if (!record.isObject)
        {
            continue;
        }
        if (auto health = classify(record); health)
        {
            health->fqdd = record.name;
            drives.push_back(std::move(*health));
        }
    }
    return drives;
}

} // namespace qvreport
