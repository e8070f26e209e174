// export.h - the latest value of every device, and the write queue counters that processes using
// the library publish, for a fleet's collectors: OpenMetrics text (for a node exporter's textfile
// collector or any Prometheus-compatible scraper) or JSON.
#pragma once

#include <ostream>
#include <string>

#include "session.h"

namespace adbtool {

enum class ExportFormat { OpenMetrics, JsonDocument };

struct ExportOptions {
  ExportFormat format = ExportFormat::OpenMetrics;
  std::string outPath; // empty or "-": standard output
  std::string statsDir;  // where processes publish their queue counters; empty: none read
};

void runExport(Session &session, const ExportOptions &options, std::ostream &out);

// A label value in OpenMetrics text: valid UTF-8, no control characters, \ " and newline escaped.
std::string metricLabel(const std::string &text);

} // namespace adbtool
