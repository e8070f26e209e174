// export.cpp - latest per-device values and the write queue counters of the processes that use
// the library, as OpenMetrics text or JSON, written whole or not at all: a collector that reads
// the file while it is written must never see half of it.
#include "export.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
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

// The counters one process published in the stats folder, by their names in QueueStats.
struct QueueState {
  long pid = 0;
  std::string process;
  std::map<std::string, uint64_t> counters;
};

// A published counter, and the reason label it carries in the family of dropped requests.
struct QueueField {
  const char *key;
  const char *reason;
};

// Counters carry "_total" in HELP and TYPE as the Prometheus text format names them, the format
// node exporter's textfile collector and promtool read. (OpenMetrics 1.0 would name the family
// without it, which both take for an untyped sample without help.)
struct QueueMetric {
  const char *name;
  const char *type;
  const char *help;
  std::vector<QueueField> fields;
};

const QueueMetric kQueueMetrics[] = {
    {"analyticsdb_queue_parked_total",
     "counter",
     "Write requests a process parked in its queue because the database was busy.",
     {{"parked", nullptr}}},
    {"analyticsdb_queue_replayed_total",
     "counter",
     "Parked write requests written by a replay.",
     {{"replayed", nullptr}}},
    {"analyticsdb_queue_retried_total",
     "counter",
     "Replay attempts that met a busy database or a transient error.",
     {{"retried", nullptr}}},
    {"analyticsdb_queue_dropped_total",
     "counter",
     "Parked write requests dropped: for an error no retry can mend, or malformed.",
     {{"droppedError", "error"}, {"droppedMalformed", "malformed"}}},
    {"analyticsdb_queue_freed_total",
     "counter",
     "Parked write requests dropped by db_freeQueue.",
     {{"freed", nullptr}}},
    {"analyticsdb_queue_refused_total",
     "counter",
     "Busy write requests neither written nor parked: the queue was full or out of memory.",
     {{"refused", nullptr}}},
    {"analyticsdb_queue_stalls_total",
     "counter",
     "Processing calls that ended on a head attempted too often against a locked database.",
     {{"stalls", nullptr}}},
    {"analyticsdb_queue_length", "gauge", "Write requests in the queue.", {{"length", nullptr}}},
    {"analyticsdb_queue_peak_length",
     "gauge",
     "The most write requests the queue has held.",
     {{"peakLength", nullptr}}},
};

template <typename Number>
bool parseNumber(const std::string &text, Number &number) {
  const char *end = text.data() + text.size();
  auto [at, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && at == end && !text.empty();
}

// True while `pid` runs as `process`: a pid that ended, or now belongs to another program, no
// longer stands for the process that published the counters.
bool runs(long pid, const std::string &process) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  return std::getline(comm, name) && name == process;
}

// Every queue.<pid> file of the folder whose process still runs, by pid. The folder is only
// read: the processes remove their own files.
std::vector<QueueState> readQueues(const std::string &folder) {
  std::vector<QueueState> queues;
  if (folder.empty()) return queues;
  std::error_code error;
  std::filesystem::directory_iterator entries(folder, error);
  if (error == std::errc::no_such_file_or_directory) return queues;
  if (error)
    throw ToolError("cannot read " + folder + ": " + error.message(),
                    error == std::errc::permission_denied ? Failure::Permission : Failure::General);
  for (const auto &entry : entries) {
    const std::string name = entry.path().filename().string();
    QueueState queue;
    if (name.rfind("queue.", 0) != 0 || !parseNumber(name.substr(6), queue.pid)) continue;
    std::ifstream file(entry.path());
    for (std::string line; std::getline(file, line);) {
      const std::size_t space = line.find(' ');
      const std::string key = line.substr(0, space);
      const std::string value = space == std::string::npos ? "" : line.substr(space + 1);
      uint64_t number = 0;
      if (key == "process")
        queue.process = value;
      else if (parseNumber(value, number))
        queue.counters[key] = number;
    }
    if (runs(queue.pid, queue.process)) queues.push_back(std::move(queue));
  }
  std::sort(queues.begin(), queues.end(),
            [](const QueueState &a, const QueueState &b) { return a.pid < b.pid; });
  return queues;
}

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

void writeOpenMetrics(std::ostream &out, const std::vector<DeviceState> &devices,
                      const std::vector<QueueState> &queues) {
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
  for (const QueueMetric &metric : kQueueMetrics) {
    out << "# HELP " << metric.name << ' ' << metric.help << '\n'
        << "# TYPE " << metric.name << ' ' << metric.type << '\n';
    for (const QueueState &queue : queues) {
      for (const QueueField &field : metric.fields) {
        auto value = queue.counters.find(field.key);
        if (value == queue.counters.end()) continue;
        out << metric.name << "{pid=\"" << queue.pid << "\",process=\""
            << metricLabel(queue.process) << '"';
        if (field.reason != nullptr) out << ",reason=\"" << field.reason << '"';
        out << "} " << value->second << '\n';
      }
    }
  }
  out << "# EOF\n";
}

void writeJson(std::ostream &out, const std::vector<DeviceState> &devices,
               const std::vector<QueueState> &queues) {
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
  Json queueList = Json::array();
  for (const QueueState &queue : queues) {
    Json row{{"pid", queue.pid}, {"process", queue.process}};
    for (const QueueMetric &metric : kQueueMetrics) {
      for (const QueueField &field : metric.fields) {
        auto value = queue.counters.find(field.key);
        if (value != queue.counters.end()) row[field.key] = value->second;
      }
    }
    queueList.push_back(std::move(row));
  }
  printJson(out, Json{{"version", kJsonVersion},
                      {"devices", std::move(list)},
                      {"queues", std::move(queueList)}});
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
  std::vector<QueueState> queues = readQueues(options.statsDir);
  std::ostringstream text;
  if (options.format == ExportFormat::OpenMetrics)
    writeOpenMetrics(text, devices, queues);
  else
    writeJson(text, devices, queues);
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
