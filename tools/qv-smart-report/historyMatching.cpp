#include "driveIdentity.hpp"
#include "history.hpp"

#include <optional>
#include <vector>

namespace qvreport
{

// Each reading to the drive it continues: its bay's drive when seamless,
// else the cheapest assignment of the day's odd readings.
void HistoryBuilder::match(Day day, std::vector<Arrival>& arrivals)
{
    std::vector<std::optional<size_t>> driveOf(arrivals.size());
    bool allSeamless = true;
    for (size_t i = 0; i < arrivals.size(); ++i)
    {
        auto bay = inBay.find(arrivals[i].fqdd);
        if (bay == inBay.end() || !live(bay->second))
        {
            allSeamless = false;
            continue;
        }
        const auto& record = records[bay->second];
        if (record.days == 0 ||
            continuity(record.latest, record.lastDay, arrivals[i].reading, day)
                .seamless())
        {
            driveOf[i] = bay->second;
        }
        else
        {
            allSeamless = false;
        }
    }
    if (!allSeamless)
    {
        driveOf = resolve(day, arrivals, std::move(driveOf));
    }
    std::vector<bool> matched(records.size(), false);
    for (const auto& drive : driveOf)
    {
        if (drive)
        {
            matched[*drive] = true;
        }
    }
    // Drives that moved leave their bays before new ones take bays.
    for (bool firstPass : {true, false})
    {
        for (size_t i = 0; i < arrivals.size(); ++i)
        {
            if (driveOf[i].has_value() == firstPass)
            {
                arrive(day, arrivals[i], driveOf[i], matched);
            }
        }
    }
}

std::vector<std::optional<size_t>>
    HistoryBuilder::resolve(Day day, const std::vector<Arrival>& arrivals,
                            std::vector<std::optional<size_t>> fast)
{
    std::vector<size_t> readings;
    for (size_t i = 0; i < arrivals.size(); ++i)
    {
        if (!fast[i])
        {
            readings.push_back(i);
        }
    }
    releasePartners(day, arrivals, fast, readings);
    std::vector<bool> taken(records.size(), false);
    for (const auto& drive : fast)
    {
        if (drive)
        {
            taken[*drive] = true;
        }
    }
    std::vector<size_t> drives;
    for (size_t record = 0; record < records.size(); ++record)
    {
        if (!taken[record] && live(record) && records[record].days > 0)
        {
            drives.push_back(record);
        }
    }
    auto assigned = assignReadings(day, arrivals, readings, drives);
    for (size_t i = 0; i < readings.size(); ++i)
    {
        if (assigned[i])
        {
            fast[readings[i]] = drives[*assigned[i]];
        }
    }
    return fast;
}

// A seamless drive of another bay may be one of two swapped: it and its own
// bay's reading join the odd ones.
void HistoryBuilder::releasePartners(Day day,
                                     const std::vector<Arrival>& arrivals,
                                     std::vector<std::optional<size_t>>& fast,
                                     std::vector<size_t>& readings) const
{
    for (size_t k = 0; k < readings.size(); ++k)
    {
        for (size_t i = 0; i < arrivals.size(); ++i)
        {
            if (!fast[i] || records[*fast[i]].days == 0)
            {
                continue;
            }
            const auto& record = records[*fast[i]];
            auto other = continuity(record.latest, record.lastDay,
                                    arrivals[readings[k]].reading, day);
            if (other.seamless() && other.shared > 0)
            {
                fast[i].reset();
                readings.push_back(i);
            }
        }
    }
}

// The cheapest drive for each of the readings among the drives.
std::vector<std::optional<size_t>>
    HistoryBuilder::assignReadings(Day day,
                                   const std::vector<Arrival>& arrivals,
                                   const std::vector<size_t>& readings,
                                   const std::vector<size_t>& drives) const
{
    std::vector<std::vector<std::optional<std::int64_t>>> cost(
        readings.size(),
        std::vector<std::optional<std::int64_t>>(drives.size()));
    std::vector<std::int64_t> unread(drives.size(), 0);
    for (size_t j = 0; j < drives.size(); ++j)
    {
        const auto& record = records[drives[j]];
        for (size_t i = 0; i < readings.size(); ++i)
        {
            const auto& arrival = arrivals[readings[i]];
            auto fit = continuity(record.latest, record.lastDay,
                                  arrival.reading, day);
            cost[i][j] = costOf(fit, arrival.fqdd != record.fqdd);
            if (arrival.fqdd == record.fqdd && fit.possible)
            {
                unread[j] = matchCost::unread;
            }
        }
    }
    return qvreport::assignReadings(cost, unread);
}

} // namespace qvreport
