// chart.cpp - terminal bar chart of a series: block characters in eighths of a row, a value
// scale on the left, time labels below.
#include "chart.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "output.h"

namespace adbtool {

namespace {

const char *const kEighths[9] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
const char *const kAsciiEighths[9] = {" ", ".", ".", ".", "#", "#", "#", "#", "#"};

// Mean of the readings of each group of slots; empty where a group has none.
std::vector<std::optional<double>> groupColumns(const Series &series, std::size_t group) {
  std::vector<std::optional<double>> columns;
  for (std::size_t first = 0; first < series.values.size(); first += group) {
    double sum = 0.0;
    std::size_t count = 0;
    for (std::size_t i = first; i < std::min(first + group, series.values.size()); ++i) {
      if (!series.present(i))
        continue;
      sum += static_cast<double>(series.values[i]);
      ++count;
    }
    columns.push_back(count > 0 ? std::optional<double>(sum / static_cast<double>(count))
                                : std::nullopt);
  }
  return columns;
}

// Time labels under the axis at round local times (whole hours, or midnights over several
// days, which are labelled with the date), each where its time falls; a tick on the axis marks
// it. `timeOf(c)` is the start of column c.
struct TimeLabels {
  std::string ticks;  // the axis line's tick positions: one flag per column
  std::string labels; // the line under the axis
};

TimeLabels timeLabels(const std::vector<uint32_t> &columnTimes, uint32_t columnSeconds) {
  const std::size_t columns = columnTimes.size();
  TimeLabels result{std::string(columns, ' '), std::string()};
  const uint32_t from = columnTimes.front();
  const uint32_t to = columnTimes.back() + columnSeconds;
  const bool days = to - from > 26 * 3600;
  const std::size_t labelWidth = days ? 6 : 5; // "Mon 01" or "06:00"
  static const uint32_t kSteps[] = {300,   900,   1800,  3600,   7200,  10800,
                                    21600, 43200, 86400, 172800, 604800};
  // The smallest round step whose labels stand at least two blanks apart.
  uint32_t step = kSteps[std::size(kSteps) - 1];
  for (uint32_t candidate : kSteps) {
    if (days && candidate < 86400)
      continue;
    double apart = static_cast<double>(candidate) / columnSeconds;
    if (apart >= static_cast<double>(labelWidth + 2)) {
      step = candidate;
      break;
    }
  }
  std::time_t fromSeconds = from;
  std::tm local{};
  localtime_r(&fromSeconds, &local);
  const int64_t offset = local.tm_gmtoff;
  int64_t first = ((static_cast<int64_t>(from) + offset + step - 1) / step) * step - offset;
  std::size_t used = 0;
  for (int64_t t = first; t < to; t += step) {
    // The column whose stretch holds this time.
    std::size_t column = static_cast<std::size_t>(
        std::upper_bound(columnTimes.begin(), columnTimes.end(), static_cast<uint32_t>(t)) -
        columnTimes.begin());
    column = column == 0 ? 0 : column - 1;
    std::string label = localTime(static_cast<uint32_t>(t), days ? "%a %d" : "%H:%M");
    if ((used > 0 && column < used + 2) || column + label.size() > columns)
      continue;
    result.ticks[column] = '|';
    result.labels.append(column - std::min(column, used), ' ');
    result.labels += label;
    used = column + label.size();
  }
  return result;
}

} // namespace

void printChart(std::ostream &out, const Series &series, const ChartOptions &options) {
  if (series.values.empty())
    return;
  const int height = std::max(options.height, 1);
  const std::size_t width = static_cast<std::size_t>(std::max(options.width, 8));
  const std::size_t count = series.values.size();
  // Many slots: a column is the mean of a group of them. Few slots (a short span): each slot is
  // drawn several columns wide, so even one slot shows as a bar.
  const std::size_t group = (count + width - 1) / width;
  const std::size_t repeat = count < width ? std::max<std::size_t>(1, width / count) : 1;
  std::vector<std::optional<double>> groups = groupColumns(series, group);
  std::vector<std::optional<double>> columns;
  std::vector<uint32_t> columnTimes;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    for (std::size_t r = 0; r < repeat; ++r) {
      columns.push_back(groups[g]);
      columnTimes.push_back(series.times[g * group] +
                            static_cast<uint32_t>(r * kSlotSeconds / repeat));
    }
  }

  SeriesStats stats = statsOf(series);
  if (stats.count == 0) {
    out << "(no " << series.spec->noun << " readings in this span)\n";
    return;
  }
  // The scale runs from the lowest to the highest single reading, so its top label is the max
  // the stats line states; a column of many slots shows their mean below it.
  double low = static_cast<double>(stats.min);
  if (series.spec->zeroBased)
    low = std::min(0.0, low);
  double high = static_cast<double>(stats.max);
  // A flat series still needs a scale: below the readings for RSSI, so the top stays the max.
  if (high - low < 1.0) {
    if (series.spec->zeroBased)
      high = low + 1.0;
    else
      low = high - 1.0;
  }

  // One unit along the axis: both labels in the unit of the top one.
  const std::string top = formatValue(*series.spec, high);
  const std::string bottom = formatValueLike(*series.spec, low, high);
  const std::size_t labelWidth = std::max(displayWidth(top), displayWidth(bottom));
  const char *const *cells = options.ascii ? kAsciiEighths : kEighths;

  std::vector<int> levels;
  for (const auto &column : columns) {
    if (!column) {
      levels.push_back(0);
      continue;
    }
    int level = static_cast<int>(std::lround((*column - low) / (high - low) * height * 8));
    levels.push_back(std::max(level, 1)); // a reading at the bottom of the scale still shows
  }

  for (int row = 0; row < height; ++row) {
    std::string label = row == 0 ? top : row == height - 1 ? bottom : std::string();
    std::string line(labelWidth - displayWidth(label), ' ');
    line += label;
    line += options.ascii ? (label.empty() ? " |" : " +") : (label.empty() ? " │" : " ┤");
    int floor = (height - 1 - row) * 8;
    for (int level : levels)
      line += cells[std::clamp(level - floor, 0, 8)];
    while (!line.empty() && line.back() == ' ')
      line.pop_back();
    out << line << '\n';
  }
  const uint32_t columnSeconds = static_cast<uint32_t>(group * kSlotSeconds / repeat);
  TimeLabels labels = timeLabels(columnTimes, std::max<uint32_t>(columnSeconds, 1));
  std::string axis(labelWidth + 1, ' ');
  axis += options.ascii ? "+" : "└";
  for (char tick : labels.ticks)
    axis += tick == '|' ? (options.ascii ? "+" : "┬") : (options.ascii ? "-" : "─");
  out << axis << '\n';
  out << std::string(labelWidth + 2, ' ') << labels.labels << '\n';
  if (group > 1)
    out << std::string(labelWidth + 2, ' ') << "each column: mean of " << group << " slots ("
        << group * kSlotSeconds / 60 << " min); the scale spans single slots\n";
}

} // namespace adbtool
