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

struct SvgSize {
  double width = 960;
  double height = 720;
};

// The whole document: panels for RSSI in dBm against good/fair/weak bands (left out when the
// device has no RSSI readings), receive and transmit bandwidth each on its own scale with its
// peak marked, over a shared time axis. Needs no fonts or files.
std::string renderSvg(const PlotInput &input, const SvgSize &size = {});

// Text made safe for XML character data and attribute values.
std::string xmlEscape(const std::string &text);

} // namespace adbtool
