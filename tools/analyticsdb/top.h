// top.h - every device over one span: traffic totals, peak, and how good its signal is.
#pragma once

#include <ostream>
#include <string>

#include "series.h"
#include "session.h"

namespace adbtool {

enum class TopOrder { Total, Rx, Tx, Rssi, Name };

struct TopOptions {
  SpanOption span;
  TopOrder order = TopOrder::Total;
  bool json = false;
};

void runTop(Session &session, const TopOptions &options, std::ostream &out);

// Signal classes: good from -67 dBm up, fair from -80 dBm, weak below; "" without a reading.
const char *signalClass(int64_t rssi);
inline constexpr int64_t kGoodRssi = -67;
inline constexpr int64_t kFairRssi = -80;

} // namespace adbtool
