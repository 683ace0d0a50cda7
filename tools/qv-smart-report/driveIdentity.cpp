#include "driveIdentity.hpp"

#include <algorithm>
#include <limits>

namespace qvreport
{
namespace
{

constexpr std::int64_t hoursPerDay = 24;
// Power-on hours may run ahead of the calendar by this much: daily records
// of real drives gained up to 85 hours in a day (Backblaze, 2013), a run
// late in one day and early in the next, a clock set between runs.
constexpr std::int64_t hoursAhead = 72;
// A drive's own count may step back by this share of itself: a real drive
// went back 1,068 of its 22,198 hours from one day to the next and counted
// on from there (Backblaze, 2013). A drop further down is another drive.
constexpr std::int64_t stepBackShare = 16;

std::string fell(std::string_view name, std::int64_t value, std::int64_t last)
{
    return std::string(name) + ' ' + std::to_string(value) + " after " +
           std::to_string(last);
}

std::string_view nameOf(Figure DriveHealth::*figure)
{
    constexpr std::array<std::pair<Figure DriveHealth::*, std::string_view>, 6>
        identityNames = {{{&DriveHealth::powerCycles, "power_cycles"},
                          {&DriveHealth::dataWritten, "data_written"},
                          {&DriveHealth::dataRead, "data_read"},
                          {&DriveHealth::headFlyingHours, "head_flying_hours"},
                          {&DriveHealth::loadEvents, "load_events"},
                          {&DriveHealth::unsafeShutdowns, "unsafe_shutdowns"}}};
    const auto* named = std::ranges::find(
        identityNames, figure,
        &std::pair<Figure DriveHealth::*, std::string_view>::first);
    return named == identityNames.end() ? figureName(figure) : named->second;
}

// Counts near the top of their range (a drive reporting all ones) must not
// wrap around into a plausible figure.
std::int64_t saturatedSum(std::int64_t a, std::int64_t b)
{
    std::int64_t sum = 0;
    if (__builtin_add_overflow(a, b, &sum))
    {
        return b > 0 ? std::numeric_limits<std::int64_t>::max()
                     : std::numeric_limits<std::int64_t>::min();
    }
    return sum;
}

void judgeHours(const DriveHealth& last, const DriveHealth& next,
                std::int64_t days, Continuity& result)
{
    if (!last.powerOnHours || !next.powerOnHours)
    {
        return;
    }
    ++result.shared;
    const std::int64_t before = *last.powerOnHours;
    const std::int64_t now = *next.powerOnHours;
    const std::int64_t expected = saturatedSum(before, hoursPerDay * days);
    result.hoursOff = now > expected ? now - expected : expected - now;
    bool tooFar = now > saturatedSum(expected, hoursAhead);
    bool tooLow = before - now > before / stepBackShare;
    if (tooFar || tooLow || now < before)
    {
        result.why = fell(nameOf(&DriveHealth::powerOnHours), now, before);
        result.possible = !tooFar && !tooLow;
        result.setbacks += now < before ? 1 : 0;
    }
}

} // namespace

Continuity continuity(const DriveHealth& last, Day lastDay,
                      const DriveHealth& next, Day nextDay)
{
    Continuity result;
    if (last.driveClass != next.driveClass)
    {
        result.possible = false;
        result.why = "class " + std::string(className(next.driveClass)) +
                     " after " + std::string(className(last.driveClass));
        return result;
    }
    judgeHours(last, next,
               std::max<std::int64_t>((nextDay - lastDay).count(), 0), result);
    auto compare = [&](Figure DriveHealth::*figure, bool rising) {
        const Figure& before = last.*figure;
        const Figure& now = next.*figure;
        if (!before || !now)
        {
            return;
        }
        ++result.shared;
        if (rising ? *now < *before : *now > *before)
        {
            ++result.setbacks;
            if (result.why.empty())
            {
                result.why = fell(nameOf(figure), *now, *before);
            }
        }
    };
    for (auto figure : risingFigures)
    {
        compare(figure, true);
    }
    for (auto figure : fallingFigures)
    {
        compare(figure, false);
    }
    return result;
}

namespace
{

// Every figure of the reading, shown or only compared.
template <typename Visit>
bool everyFigure(const DriveHealth& reading, Visit visit)
{
    return std::ranges::all_of(
               namedFigures,
               [&](const FigureColumn& column) {
        return visit(reading.*column.figure);
               }) &&
        std::ranges::all_of(
            risingFigures, [&](auto figure) { return visit(reading.*figure); });
}

} // namespace

bool allZero(const DriveHealth& reading)
{
    return reading.criticalWarning.value_or(0) == 0 &&
           everyFigure(reading,
                       [](const Figure& f) { return f.value_or(0) == 0; });
}

bool zeroedCounters(const DriveHealth& reading)
{
    return reading.powerOnHours.value_or(0) == 0 &&
           std::ranges::all_of(risingFigures, [&reading](auto figure) {
               return (reading.*figure).value_or(0) == 0;
           });
}

std::optional<std::int64_t> costOf(const Continuity& continuity, bool moved)
{
    // A drive is only taken for one from another bay on the evidence of
    // figures they share.
    if (!continuity.possible || (moved && continuity.shared == 0))
    {
        return std::nullopt;
    }
    return continuity.setbacks * matchCost::setback +
           (moved ? matchCost::moved : 0) +
           std::min(continuity.hoursOff, matchCost::hoursOffCap);
}

namespace
{

using Matrix = std::vector<std::vector<std::int64_t>>;

// Far above any sum of real costs, far below overflow.
constexpr std::int64_t barred = std::numeric_limits<std::int64_t>::max() / 4;

// Minimum-cost assignment of a square matrix's rows to its columns, by the
// Hungarian method with potentials (O(n^3)): rows are added one at a time,
// each along the cheapest path of reduced costs to a free column. Indices
// are 1-based; 0 is the free row and column each path starts from.
class Assignment
{
  public:
    explicit Assignment(const Matrix& cost) :
        cost(cost), size(cost.size()), rowPotential(size + 1, 0),
        columnPotential(size + 1, 0), rowOf(size + 1, 0), cameFrom(size + 1, 0)
    {
        for (size_t row = 1; row <= size; ++row)
        {
            addRow(row);
        }
    }

    // For each column, its row.
    std::vector<size_t> rows() const
    {
        std::vector<size_t> assigned(size);
        for (size_t j = 1; j <= size; ++j)
        {
            assigned[j - 1] = rowOf[j] - 1;
        }
        return assigned;
    }

  private:
    const Matrix& cost;
    size_t size;
    std::vector<std::int64_t> rowPotential;
    std::vector<std::int64_t> columnPotential;
    std::vector<size_t> rowOf;
    std::vector<size_t> cameFrom;
    std::vector<std::int64_t> slack;
    std::vector<bool> visited;

    void addRow(size_t row)
    {
        rowOf[0] = row;
        slack.assign(size + 1, barred * 2);
        visited.assign(size + 1, false);
        size_t column = 0;
        do
        {
            column = step(column);
        } while (rowOf[column] != 0);
        // Along the path back, each column takes the row of the one before.
        do
        {
            const size_t previous = cameFrom[column];
            rowOf[column] = rowOf[previous];
            column = previous;
        } while (column != 0);
    }

    // Visits `column`, lowers the slack of the others through its row and
    // moves the potentials by the least slack; the column reached.
    size_t step(size_t column)
    {
        visited[column] = true;
        const size_t current = rowOf[column];
        std::int64_t delta = barred * 2;
        size_t next = 0;
        for (size_t j = 1; j <= size; ++j)
        {
            if (visited[j])
            {
                continue;
            }
            std::int64_t reduced = cost[current - 1][j - 1] -
                                   rowPotential[current] - columnPotential[j];
            if (reduced < slack[j])
            {
                slack[j] = reduced;
                cameFrom[j] = column;
            }
            if (slack[j] < delta)
            {
                delta = slack[j];
                next = j;
            }
        }
        for (size_t j = 0; j <= size; ++j)
        {
            if (visited[j])
            {
                rowPotential[rowOf[j]] += delta;
                columnPotential[j] -= delta;
            }
            else
            {
                slack[j] -= delta;
            }
        }
        return next;
    }
};

} // namespace

std::vector<std::optional<size_t>> assignReadings(
    const std::vector<std::vector<std::optional<std::int64_t>>>& cost,
    const std::vector<std::int64_t>& unreadCost)
{
    // Readings, then one row per drive that gets none; drives, then one
    // column per reading taken for a new drive.
    const size_t readings = cost.size();
    const size_t drives = unreadCost.size();
    Matrix square(readings + drives,
                  std::vector<std::int64_t>(readings + drives, 0));
    for (size_t i = 0; i < readings; ++i)
    {
        for (size_t j = 0; j < drives; ++j)
        {
            square[i][j] = cost[i][j].value_or(barred);
        }
        std::fill(square[i].begin() + std::ptrdiff_t(drives), square[i].end(),
                  matchCost::newDrive);
    }
    for (size_t i = readings; i < readings + drives; ++i)
    {
        std::copy(unreadCost.begin(), unreadCost.end(), square[i].begin());
    }
    std::vector<std::optional<size_t>> driveOf(readings);
    const auto rowOfColumn = Assignment(square).rows();
    for (size_t j = 0; j < drives; ++j)
    {
        const size_t row = rowOfColumn[j];
        if (row < readings && square[row][j] < barred)
        {
            driveOf[row] = j;
        }
    }
    return driveOf;
}

} // namespace qvreport
