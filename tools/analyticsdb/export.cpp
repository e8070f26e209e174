// export.cpp - latest per-device values as OpenMetrics text or JSON, written whole or not at
// all: a collector that reads the file while it is written must never see half of it.
#include "export.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <unistd.h>
#include <vector>

#include "analyticsdb.h"
#include "output.h"
#include "series.h"

namespace adbtool {

namespace {

struct Latest {
  int64_t value;
  uint32_t timestamp;
};

struct DeviceState {
  std::string mac;
  std::string host;
  std::string band;
  bool active = false;
  uint32_t lastSeen = 0;
  std::optional<Latest> latest[3]; // by SeriesKind
};

// One metric family per row: the sample of a device comes from `value`, none where it is empty.
struct Metric {
  const char *name;
  const char *help;
  std::optional<double> (*value)(const DeviceState &device);
};

std::optional<double> latestOf(const DeviceState &device, SeriesKind kind, double scale) {
  const auto &latest = device.latest[static_cast<std::size_t>(kind)];
  if (!latest)
    return std::nullopt;
  return static_cast<double>(latest->value) * scale;
}

const Metric kMetrics[] = {
    {"analyticsdb_device_rssi_dbm", "Latest RSSI reading of a Wi-Fi device in dBm.",
     [](const DeviceState &d) { return latestOf(d, SeriesKind::Rssi, 1.0); }},
    {"analyticsdb_device_receive_bytes_per_second",
     "Receive bandwidth of the device in its latest 300-second slot, in bytes per second.",
     [](const DeviceState &d) { return latestOf(d, SeriesKind::Rx, 125.0); }},
    {"analyticsdb_device_transmit_bytes_per_second",
     "Transmit bandwidth of the device in its latest 300-second slot, in bytes per second.",
     [](const DeviceState &d) { return latestOf(d, SeriesKind::Tx, 125.0); }},
    {"analyticsdb_device_last_seen_timestamp_seconds",
     "Unix time at which the gateway last saw the device online.",
     [](const DeviceState &d) {
       return d.lastSeen != 0 ? std::optional<double>(d.lastSeen) : std::nullopt;
     }},
    {"analyticsdb_device_active", "1 while the gateway counts the device as active, else 0.",
     [](const DeviceState &d) { return std::optional<double>(d.active ? 1.0 : 0.0); }},
};

std::vector<DeviceState> readDevices(Session &session) {
  DeviceList found;
  readInventory(session, found);
  std::vector<DeviceState> devices;
  for (int32_t i = 0; i < found.rows; ++i) {
    const DeviceInfoRecord &record = *found.list[i];
    DeviceState device;
    device.mac = record.mac;
    device.host = record.host;
    device.band = record.band;
    device.active = record.active != 0;
    device.lastSeen = record.lastOnlineTs;
    SpanOption oneSlot;
    oneSlot.seconds = kSlotSeconds;
    for (const SeriesSpec &spec : allSeries()) {
      std::optional<Series> series = readSeries(spec, device.mac, oneSlot, 0);
      if (series && !series->values.empty() && series->present(series->values.size() - 1))
        device.latest[static_cast<std::size_t>(spec.kind)] =
            Latest{series->values.back(), series->times.back()};
    }
    devices.push_back(std::move(device));
  }
  std::sort(devices.begin(), devices.end(),
            [](const DeviceState &a, const DeviceState &b) { return a.mac < b.mac; });
  return devices;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.17g", value);
  return text;
}

void writeOpenMetrics(std::ostream &out, const std::vector<DeviceState> &devices) {
  for (const Metric &metric : kMetrics) {
    out << "# HELP " << metric.name << ' ' << metric.help << '\n'
        << "# TYPE " << metric.name << " gauge\n";
    for (const DeviceState &device : devices) {
      std::optional<double> value = metric.value(device);
      if (!value)
        continue;
      out << metric.name << "{mac=\"" << metricLabel(device.mac) << "\",host=\""
          << metricLabel(device.host) << "\",band=\"" << metricLabel(device.band) << "\"} "
          << number(*value) << '\n';
    }
  }
  out << "# EOF\n";
}

void writeJson(std::ostream &out, const std::vector<DeviceState> &devices) {
  Json list = Json::array();
  for (const DeviceState &device : devices) {
    Json row{{"mac", device.mac},
             {"host", device.host},
             {"band", device.band},
             {"active", device.active},
             {"lastSeen", device.lastSeen != 0 ? Json(device.lastSeen) : Json()}};
    for (const SeriesSpec &spec : allSeries()) {
      const auto &latest = device.latest[static_cast<std::size_t>(spec.kind)];
      row[spec.word] = latest ? Json{{"value", latest->value},
                                     {"unit", spec.unit},
                                     {"timestamp", latest->timestamp}}
                              : Json();
    }
    list.push_back(std::move(row));
  }
  printJson(out, Json{{"version", kJsonVersion}, {"devices", std::move(list)}});
}

} // namespace

std::string metricLabel(const std::string &text) {
  std::string escaped;
  for (char c : printable(text)) {
    if (c == '\\' || c == '"')
      escaped += '\\';
    escaped += c;
  }
  return escaped;
}

void runExport(Session &session, const ExportOptions &options, std::ostream &out) {
  session.requireExistingDatabase();
  std::vector<DeviceState> devices = readDevices(session);
  std::ostringstream text;
  if (options.format == ExportFormat::OpenMetrics)
    writeOpenMetrics(text, devices);
  else
    writeJson(text, devices);
  if (options.outPath.empty() || options.outPath == "-") {
    out << text.str();
    return;
  }
  // Written beside the target and renamed over it: collectors see the old file or the new one.
  const std::string temporary = options.outPath + ".tmp." + std::to_string(getpid());
  {
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file << text.str();
    file.close();
    if (!file) {
      int error = errno;
      std::remove(temporary.c_str());
      throw ToolError("cannot write " + options.outPath + ": " + std::strerror(error),
                      error == EACCES || error == EROFS ? Failure::Permission : Failure::General);
    }
  }
  if (std::rename(temporary.c_str(), options.outPath.c_str()) != 0) {
    int error = errno;
    std::remove(temporary.c_str());
    throw ToolError("cannot write " + options.outPath + ": " + std::strerror(error));
  }
}

} // namespace adbtool
