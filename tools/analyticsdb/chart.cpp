// chart.cpp - terminal bar chart of a series: block characters in eighths of a row, a value
// scale on the left, time labels below.
#include "chart.h"

#include <algorithm>
#include <cmath>
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

// Time labels under the axis, spread over the columns without touching each other.
std::string timeLabels(const Series &series, std::size_t group, std::size_t columns) {
  uint32_t spanSeconds = series.times.back() - series.times.front();
  const bool withinDay = spanSeconds <= 26 * 3600;
  std::string line;
  std::size_t used = 0; // characters of `line`, which holds no multi-byte text
  for (std::size_t quarter = 0; quarter <= 4; ++quarter) {
    std::size_t column = quarter * (columns - 1) / 4;
    std::string label = localTime(series.times[column * group], withinDay ? "%H:%M" : "%a %H:%M");
    std::size_t at = quarter == 4 ? columns - std::min(columns, label.size()) : column;
    if (quarter > 0 && at < used + 2)
      continue;
    if (at + label.size() > columns && quarter != 4)
      continue;
    line.append(at - std::min(at, used), ' ');
    line += label;
    used = at + label.size();
  }
  return line;
}

} // namespace

void printChart(std::ostream &out, const Series &series, const ChartOptions &options) {
  if (series.values.empty())
    return;
  const int height = std::max(options.height, 1);
  const std::size_t width = static_cast<std::size_t>(std::max(options.width, 8));
  const std::size_t group = (series.values.size() + width - 1) / width;
  std::vector<std::optional<double>> columns = groupColumns(series, group);

  // The scale spans the columns as drawn (group means), so the highest column reaches the top.
  std::optional<double> lowest;
  std::optional<double> highest;
  for (const auto &column : columns) {
    if (!column)
      continue;
    lowest = std::min(lowest.value_or(*column), *column);
    highest = std::max(highest.value_or(*column), *column);
  }
  if (!lowest) {
    out << "(no " << series.spec->noun << " readings in this span)\n";
    return;
  }
  double low = series.spec->zeroBased ? std::min(0.0, *lowest) : *lowest;
  double high = std::max(*highest, low + 1.0);

  const std::string top = formatValue(*series.spec, high);
  const std::string bottom = formatValue(*series.spec, low);
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
  std::string axis(labelWidth + 1, ' ');
  axis += options.ascii ? "+" : "└";
  for (std::size_t i = 0; i < columns.size(); ++i)
    axis += options.ascii ? "-" : "─";
  out << axis << '\n';
  out << std::string(labelWidth + 2, ' ') << timeLabels(series, group, columns.size()) << '\n';
}

} // namespace adbtool
