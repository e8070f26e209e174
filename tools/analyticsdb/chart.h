// chart.h - a series as a terminal bar chart: one column a group of slots.
#pragma once

#include <ostream>

#include "series.h"

namespace adbtool {

struct ChartOptions {
  int width = 72; // columns of bars; slots are grouped to fit
  int height = 8; // rows of bars, each in eighths
  bool ascii = false;
};

void printChart(std::ostream &out, const Series &series, const ChartOptions &options);

} // namespace adbtool
