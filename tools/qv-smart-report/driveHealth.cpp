#include "driveHealth.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <span>
#include <string_view>

namespace qvreport
{
namespace
{

constexpr long long ssdHotC = 70;
constexpr long long hddHotC = 60;
constexpr long long lifeLowPercent = 10;
constexpr long long usedHighPercent = 90;
constexpr long long kelvinOffset = 273;

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

Reading reading(std::optional<std::uint64_t> value)
{
    Reading result;
    if (value)
    {
        result.value = static_cast<long long>(*value);
    }
    return result;
}

Reading countAlert(std::optional<std::uint64_t> value)
{
    Reading result = reading(value);
    result.alert = value && *value > 0;
    return result;
}

Reading temperature(std::optional<long long> celsius, long long hot)
{
    return {celsius, celsius && *celsius >= hot};
}

DriveHealth solidState(const Node& record)
{
    DriveHealth health;
    auto protocol = number(record, "Protocol").value_or(0);
    health.driveClass = (protocol & 0x20) != 0 ? "SAS SSD" : "SATA SSD";
    auto temp = number(record, "Drive Temp");
    health.temperatureC = temperature(
        temp ? std::optional<long long>(*temp) : std::nullopt, ssdHotC);
    health.lifeRemaining = reading(number(record, "percentDriveLifeRemaining"));
    health.lifeRemaining.alert = health.lifeRemaining.value &&
                                 *health.lifeRemaining.value <= lifeLowPercent;
    health.powerOnHours = reading(number(record, "Power On hours"));
    health.mediaErrors = countAlert(number(record, "uncorrectableErrorCount"));
    health.crcErrors = countAlert(number(record, "CRCErrorCount"));
    health.reallocated = countAlert(number(record, "Reallocated block count"));
    health.pending = countAlert(number(record, "currentPendingSectorCount"));
    return health;
}

DriveHealth nvme(const Node& record)
{
    DriveHealth health;
    health.driveClass = "NVMe";
    if (auto kelvin = number(record, "Composite Temperature"); kelvin)
    {
        health.temperatureC = temperature(
            static_cast<long long>(*kelvin) - kelvinOffset, ssdHotC);
    }
    health.percentUsed = reading(number(record, "Percentage used"));
    health.percentUsed.alert = health.percentUsed.value &&
                               *health.percentUsed.value >= usedHighPercent;
    health.powerOnHours = reading(number(record, "PowerOnHours Lower"));
    health.mediaErrors =
        countAlert(number(record, "MediaAndDataIntegrityErrs Lower"));
    health.mediaErrors.alert =
        health.mediaErrors.alert ||
        number(record, "MediaAndDataIntegrityErrs Upper").value_or(0) != 0;
    health.availableSpare = reading(number(record, "Available Spare"));
    auto threshold = number(record, "Available Spare Threshold");
    health.availableSpare.alert =
        health.availableSpare.value && threshold &&
        *health.availableSpare.value < static_cast<long long>(*threshold);
    if (auto bits = number(record, "Critical Warning"); bits)
    {
        health.criticalWarnings = criticalWarningNames(*bits);
    }
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

// Value of a log parameter of a SAS log page (big-endian), by code.
std::optional<std::vector<unsigned>>
logParameter(const std::vector<unsigned>& page, unsigned code)
{
    for (size_t at = 4; at + 4 <= page.size();)
    {
        unsigned found = (page[at] << 8) | page[at + 1];
        size_t length = page[at + 3];
        if (at + 4 + length > page.size())
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

void addTo(Reading& total, std::optional<std::uint64_t> count)
{
    if (count)
    {
        total.value = total.value.value_or(0) + static_cast<long long>(*count);
        total.alert = *total.value > 0;
    }
}

void sataPage(DriveHealth& health, std::string_view name,
              const std::vector<unsigned>& page)
{
    if (name == "genStatistics")
    {
        health.powerOnHours = reading(statistic(page, 0x10, 4));
    }
    else if (name == "rotaStatistics")
    {
        health.reallocated = countAlert(statistic(page, 0x20, 4));
        health.pending = countAlert(statistic(page, 0x38, 4));
    }
    else if (name == "genErrStatistics")
    {
        health.mediaErrors = countAlert(statistic(page, 0x08, 4));
    }
    else if (auto t = statistic(page, 0x08, 1); name == "tempStatistics" && t)
    {
        health.temperatureC =
            temperature(static_cast<signed char>(*t), hddHotC);
    }
}

void sasPage(DriveHealth& health, std::string_view name,
             const std::vector<unsigned>& page)
{
    constexpr unsigned totalUncorrected = 6;
    if (name == "readErrCounter" || name == "writeErrCounter" ||
        name == "verifyErrCounter")
    {
        auto param = logParameter(page, totalUncorrected);
        addTo(health.mediaErrors,
              bigEndian(param, 0, param ? param->size() : 0));
    }
    else if (name == "temperature")
    {
        // The standard parameter holds a reserved byte and the temperature.
        // One of another length is not guessed at: the figure stays unknown.
        auto parameter = logParameter(page, 0);
        auto celsius = parameter && parameter->size() == 2
                           ? bigEndian(parameter, 1, 1)
                           : std::nullopt;
        if (celsius && *celsius != 0xff)
        {
            health.temperatureC =
                temperature(static_cast<long long>(*celsius), hddHotC);
        }
    }
    else if (name == "backGrndScanResult")
    {
        auto minutes = bigEndian(logParameter(page, 0), 0, 4);
        health.powerOnHours =
            reading(minutes ? std::optional(*minutes / 60) : std::nullopt);
    }
}

constexpr std::array<std::string_view, 5> sataPages = {
    "suppLogPages", "genStatistics", "rotaStatistics", "genErrStatistics",
    "tempStatistics"};
constexpr std::array<std::string_view, 7> sasPages = {
    "readErrCounter",      "writeErrCounter",       "verifyErrCounter",
    "nonMediumErrCounter", "startStopCycleCounter", "backGrndScanResult",
    "temperature"};

bool contains(const auto& names, std::string_view name)
{
    return std::ranges::find(names, name) != names.end();
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
        if (contains(sataPages, name))
        {
            health.driveClass = "SATA HDD";
            sataPage(health, name, page);
        }
        else if (contains(sasPages, name))
        {
            health.driveClass = "SAS HDD";
            sasPage(health, name, page);
        }
    }
    return health;
}

std::optional<DriveHealth> classify(const Node& record)
{
    if (record.find("Critical Warning") != nullptr)
    {
        return nvme(record);
    }
    if (record.find("percentDriveLifeRemaining") != nullptr)
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
