// svg.h - a self-contained SVG picture of a device's RSSI and bandwidth over a span.
#pragma once

#include <optional>
#include <string>

#include "series.h"

namespace adbtool {

struct PlotInput {
  std::string mac;
  std::string host;      // may be empty
  std::string spanLabel; // "last 24h"
  std::optional<Series> rssi;
  std::optional<Series> rx;
  std::optional<Series> tx;
};

// The whole document: two panels (RSSI in dBm; receive and transmit in kbit/s or Mbit/s) over a
// shared time axis, with grid, tick labels, units and a legend. Needs no fonts or files.
std::string renderSvg(const PlotInput &input);

// Text made safe for XML character data and attribute values.
std::string xmlEscape(const std::string &text);

} // namespace adbtool
