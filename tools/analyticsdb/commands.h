// commands.h - the tool's commands, each over an open Session. Arguments arrive parsed and
// checked (cli.cpp); failures the user can act on are thrown as ToolError.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "chart.h"
#include "series.h"
#include "session.h"
#include "simulate.h"
#include "svg.h"

namespace adbtool {

enum class SeriesFormat { Chart, Csv, Json };

struct SeriesOptions {
  std::string mac;
  SeriesKind kind = SeriesKind::Rssi;
  SpanOption span;
  SeriesFormat format = SeriesFormat::Chart;
  ChartOptions chart;
};

struct PlotOptions {
  std::string mac;
  SpanOption span;
  std::string outPath; // "-": standard output
  SvgSize size;
};

void runInit(Session &session, bool force, std::ostream &out);
// `columns`: the terminal's width, 0 when the output is not a terminal.
void runDevices(Session &session, bool json, int columns, std::ostream &out);
void runSeries(Session &session, SeriesOptions options, std::ostream &out);
void runPlot(Session &session, PlotOptions options, std::ostream &out);
// Returns false when the simulation lost requests or read back something else than it wrote.
bool runSimulate(Session &session, const SimulateOptions &options, bool force, std::ostream &out);
bool runDemo(Session &session, bool defaultPath, const ChartOptions &chart, std::ostream &out);

// "1h" -> 3600 seconds; false when the text is not a span of 5m to 7d.
bool parseSpan(const std::string &text, SpanOption &span);
// "2024-01-01 06:00", "2024-01-01T06:00:00", "2024-01-01" (local time) or "@1704067200";
// false when the text is none of these.
bool parseTime(const std::string &text, uint32_t &epoch);
// The MAC of a device given by MAC or by host name; throws ToolError when no device or more
// than one has that name.
std::string resolveDevice(const std::string &macOrHost);
bool isMacAddress(const std::string &text);

} // namespace adbtool
