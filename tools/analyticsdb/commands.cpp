// commands.cpp - init, devices, series, plot, simulate and demo.
#include "commands.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "analyticsdb.h"
#include "output.h"
#include "svg.h"

namespace adbtool {

namespace {

// ---- devices: one column description serves the table and the JSON ----------------------

struct Cell {
  std::string text;
  Json json;
};

Cell textCell(const char *value) { return {value[0] != '\0' ? value : "-", value}; }
Cell rssiCell(int32_t rssi) {
  // 0 is what a wired device or a never-measured one reports.
  if (rssi == 0)
    return {"-", nullptr};
  return {std::to_string(rssi), rssi};
}
Cell activeCell(int32_t active) { return {active ? "yes" : "no", active != 0}; }
Cell timeCell(uint32_t epoch) {
  if (epoch == 0)
    return {"-", nullptr};
  return {localTime(epoch), epoch};
}

struct DeviceColumn {
  const char *header;
  const char *jsonKey;
  Align align;
  Cell (*cell)(const DeviceInfoRecord &record);
};

const DeviceColumn kDeviceColumns[] = {
    {"MAC", "mac", Align::Left, [](const DeviceInfoRecord &r) { return textCell(r.mac); }},
    {"HOST", "host", Align::Left, [](const DeviceInfoRecord &r) { return textCell(r.host); }},
    {"IP", "ip", Align::Left, [](const DeviceInfoRecord &r) { return textCell(r.ipAddr); }},
    {"CATEGORY", "category", Align::Left,
     [](const DeviceInfoRecord &r) { return textCell(r.category); }},
    {"BAND", "band", Align::Left, [](const DeviceInfoRecord &r) { return textCell(r.band); }},
    {"RSSI", "rssi", Align::Right, [](const DeviceInfoRecord &r) { return rssiCell(r.rssi); }},
    {"ACTIVE", "active", Align::Left,
     [](const DeviceInfoRecord &r) { return activeCell(r.active); }},
    {"LAST ONLINE", "lastOnline", Align::Left,
     [](const DeviceInfoRecord &r) { return timeCell(r.lastOnlineTs); }},
};

void printDevicesJson(std::ostream &out, const std::vector<const DeviceInfoRecord *> &devices) {
  Json list = Json::array();
  for (const DeviceInfoRecord *device : devices) {
    Json row = Json::object();
    for (const DeviceColumn &column : kDeviceColumns)
      row[column.jsonKey] = column.cell(*device).json;
    list.push_back(std::move(row));
  }
  printJson(out, Json{{"version", kJsonVersion}, {"devices", std::move(list)}});
}

// ---- series ------------------------------------------------------------------------------

std::string deviceTitle(const std::string &mac, const DeviceSummary &device) {
  // Host names are whatever a device called itself: never print them raw.
  return printable((device.known ? device.mac : mac) +
                   (device.host.empty() ? "" : "  " + device.host));
}

Series requireSeries(const SeriesSpec &spec, const std::string &mac, const DeviceSummary &device,
                     const SpanOption &span) {
  std::optional<Series> series = readSeries(spec, mac, span, device.addedTs);
  if (series)
    return *series;
  if (!device.known)
    throw ToolError("unknown device " + mac + ": not in the inventory and no " + spec.noun +
                    " samples");
  throw ToolError("device " + deviceTitle(mac, device) + " has no " + spec.noun + " samples");
}

std::string statsLine(const Series &series) {
  SeriesStats stats = statsOf(series);
  if (stats.count == 0)
    return "no readings";
  const SeriesSpec &spec = *series.spec;
  return "min " + formatValue(spec, static_cast<double>(stats.min)) + "   avg " +
         formatValue(spec, stats.average) + "   max " +
         formatValue(spec, static_cast<double>(stats.max));
}

// A slot without a reading (RSSI of a wired device, or never written) is empty in CSV and null
// in JSON: 0 dBm would read as a perfect signal.
void printSeriesCsv(std::ostream &out, const Series &series) {
  out << "timestamp,time,slot," << series.spec->csvColumn << '\n';
  for (std::size_t i = 0; i < series.values.size(); ++i) {
    out << series.times[i] << ',' << isoTime(series.times[i]) << ',' << series.slots[i] << ',';
    if (series.present(i))
      out << series.values[i];
    out << '\n';
  }
}

void printSeriesJson(std::ostream &out, const Series &series, const DeviceSummary &device) {
  SeriesStats stats = statsOf(series);
  Json samples = Json::array();
  for (std::size_t i = 0; i < series.values.size(); ++i)
    samples.push_back(Json{{"timestamp", series.times[i]},
                           {"time", isoTime(series.times[i])},
                           {"slot", series.slots[i]},
                           {"value", series.present(i) ? Json(series.values[i]) : Json()}});
  const bool any = stats.count > 0;
  printJson(out,
            Json{{"version", kJsonVersion},
                 {"mac", device.known ? device.mac : series.mac},
                 {"host", device.host},
                 {"series", series.spec->word},
                 {"unit", series.spec->unit},
                 {"slotSeconds", kSlotSeconds},
                 {"latest", {{"timestamp", series.latestTime}, {"slot", series.latestSlot}}},
                 {"count", series.values.size()},
                 {"min", any ? Json(stats.min) : Json()},
                 {"avg", any ? Json(std::round(stats.average * 10.0) / 10.0) : Json()},
                 {"max", any ? Json(stats.max) : Json()},
                 {"samples", std::move(samples)}},
            -1);
}

void printSeriesChart(std::ostream &out, const Series &series, const DeviceSummary &device,
                      const SeriesOptions &options) {
  out << deviceTitle(series.mac, device) << "  -  " << series.spec->title << ", "
      << options.span.label() << '\n';
  std::size_t count = series.values.size();
  out << count << " slot" << (count == 1 ? "" : "s") << " of 5 min, "
      << localTime(series.times.front()) << " .. "
      << localTime(series.times.back(), "%Y-%m-%d %H:%M %Z");
  if (options.span.from == 0 && count * kSlotSeconds < options.span.seconds)
    out << " (the device is younger than the span)";
  out << '\n';
  if (statsOf(series).count > 0)
    out << statsLine(series) << '\n';
  printChart(out, series, options.chart);
}

} // namespace

bool parseSpan(const std::string &text, SpanOption &span) {
  if (text.size() < 2 || text.size() > 6)
    return false;
  if (!std::all_of(text.begin(), text.end() - 1,
                   [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
    return false;
  uint32_t unit = 0;
  switch (text.back()) {
  case 'm':
    unit = 60;
    break;
  case 'h':
    unit = 3600;
    break;
  case 'd':
    unit = 86400;
    break;
  default:
    return false;
  }
  // Five digits of days overflow 32 bits: compare in 64.
  uint64_t seconds = std::stoull(text.substr(0, text.size() - 1)) * unit;
  if (seconds < kSlotSeconds || seconds > 7 * 86400)
    return false;
  span.seconds = static_cast<uint32_t>(seconds);
  span.text = text;
  return true;
}

bool parseTime(const std::string &text, uint32_t &epoch) {
  if (text.size() > 1 && text[0] == '@') {
    if (!std::all_of(text.begin() + 1, text.end(),
                     [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }) ||
        text.size() > 11)
      return false;
    uint64_t value = std::stoull(text.substr(1));
    if (value == 0 || value > UINT32_MAX)
      return false;
    epoch = static_cast<uint32_t>(value);
    return true;
  }
  for (const char *format :
       {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%dT%H:%M", "%Y-%m-%d"}) {
    std::tm parts{};
    const char *end = strptime(text.c_str(), format, &parts);
    if (end == nullptr || *end != '\0')
      continue;
    parts.tm_isdst = -1;
    // mktime's time_t is 32 bits on the gateway: it fails past 2038 rather than wrapping.
    std::time_t seconds = std::mktime(&parts);
    if (seconds <= 0 || static_cast<uint64_t>(seconds) > UINT32_MAX)
      return false;
    epoch = static_cast<uint32_t>(seconds);
    return true;
  }
  return false;
}

std::string resolveDevice(const std::string &macOrHost) {
  if (isMacAddress(macOrHost))
    return macOrHost;
  DeviceList found;
  int32_t status =
      retryWhileBusy([&found] { return db_readDeviceInfoTable(&found.list, &found.rows); });
  if (status != DB_STATUS_SUCCESS && status != DB_STATUS_EMPTY && status != DB_STATUS_NO_TABLE)
    throw ToolError("cannot read the inventory: " + describeStatus(status), failureOf(status));
  const int32_t rows = status == DB_STATUS_SUCCESS ? found.rows : 0;
  // An exact name wins; otherwise names that differ only in letter case.
  for (bool exact : {true, false}) {
    std::vector<std::string> macs;
    for (int32_t i = 0; i < rows; ++i) {
      const char *host = found.list[i]->host;
      if (exact ? macOrHost == host : strcasecmp(macOrHost.c_str(), host) == 0)
        macs.emplace_back(found.list[i]->mac);
    }
    std::sort(macs.begin(), macs.end());
    if (macs.size() == 1)
      return macs.front();
    if (macs.size() > 1) {
      std::string list;
      for (const std::string &mac : macs)
        list += (list.empty() ? "" : ", ") + mac;
      throw ToolError("host name '" + macOrHost + "' is ambiguous: " + list + " (give the MAC)",
                      Failure::Usage);
    }
  }
  throw ToolError("no device has the MAC address or host name '" + macOrHost + "'");
}

bool isMacAddress(const std::string &text) {
  if (text.size() != 17)
    return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    bool separator = i % 3 == 2;
    if (separator ? (text[i] != ':' && text[i] != '-')
                  : !std::isxdigit(static_cast<unsigned char>(text[i])))
      return false;
  }
  return true;
}

namespace {

// Another program's database is never extended with 30 tables by a slip of --db.
void refuseForeign(const DatabaseContents &contents, const std::string &path, const char *what) {
  if (contents.foreignTables.empty())
    return;
  std::string names;
  for (std::size_t i = 0; i < contents.foreignTables.size() && i < 3; ++i)
    names += (i == 0 ? "" : ", ") + printable(contents.foreignTables[i]);
  if (contents.foreignTables.size() > 3)
    names += ", ...";
  throw ToolError(path + " holds tables of another program (" + names + "); refusing to " + what +
                      " (--force to do it anyway)",
                  Failure::Usage);
}

} // namespace

void runInit(Session &session, bool force, std::ostream &out) {
  DatabaseContents contents = session.requireWritableDatabase();
  if (!force)
    refuseForeign(contents, session.path(), "add the analytics tables");
  int tables = createAllTables(session.path());
  out << "initialised " << session.path() << ": " << tables
      << " tables (inventory, 3 index tables, 3 series x 7 day tables of 288 five-minute slots)\n";
}

void runDevices(Session &session, bool json, int columns, std::ostream &out) {
  session.requireExistingDatabase();
  DeviceList found;
  readInventory(session, found);

  std::vector<const DeviceInfoRecord *> devices(
      found.list, found.list + found.rows);
  std::sort(devices.begin(), devices.end(),
            [](const DeviceInfoRecord *a, const DeviceInfoRecord *b) {
              return strcasecmp(a->mac, b->mac) < 0;
            });
  if (json) {
    printDevicesJson(out, devices);
    return;
  }
  if (devices.empty()) {
    out << "no devices in " << session.path() << '\n';
    return;
  }
  // On a terminal narrower than the whole table, IP and category give way (JSON has them),
  // host names are cut, and times lose their year: a wrapped table is unreadable.
  auto table = [&](bool narrow) {
    std::vector<std::string> headers;
    std::vector<Align> aligns;
    std::vector<std::vector<std::string>> rows(devices.size());
    for (const DeviceColumn &column : kDeviceColumns) {
      std::string key = column.jsonKey;
      if (narrow && (key == "ip" || key == "category"))
        continue;
      headers.emplace_back(column.header);
      aligns.push_back(column.align);
      for (std::size_t i = 0; i < devices.size(); ++i) {
        std::string text = column.cell(*devices[i]).text;
        if (narrow && key == "host")
          text = fitWidth(printable(text), 16);
        if (narrow && key == "lastOnline" && devices[i]->lastOnlineTs != 0)
          text = localTime(devices[i]->lastOnlineTs, "%m-%d %H:%M");
        rows[i].push_back(std::move(text));
      }
    }
    std::ostringstream text;
    printTable(text, headers, aligns, rows);
    return text.str();
  };
  std::string wide = table(false);
  std::size_t widest = 0;
  for (std::size_t start = 0, end; (end = wide.find('\n', start)) != std::string::npos;
       start = end + 1)
    widest = std::max(widest, displayWidth(wide.substr(start, end - start)));
  out << (columns > 0 && widest > static_cast<std::size_t>(columns) ? table(true) : wide);
}

void runSeries(Session &session, SeriesOptions options, std::ostream &out) {
  session.requireExistingDatabase();
  options.mac = resolveDevice(options.mac);
  DeviceSummary device = lookupDevice(options.mac);
  Series series = requireSeries(seriesSpec(options.kind), options.mac, device, options.span);
  switch (options.format) {
  case SeriesFormat::Csv:
    printSeriesCsv(out, series);
    break;
  case SeriesFormat::Json:
    printSeriesJson(out, series, device);
    break;
  case SeriesFormat::Chart:
    printSeriesChart(out, series, device, options);
    break;
  }
}

void runPlot(Session &session, PlotOptions options, std::ostream &out) {
  session.requireExistingDatabase();
  options.mac = resolveDevice(options.mac);
  DeviceSummary device = lookupDevice(options.mac);
  PlotInput input;
  input.mac = device.known ? device.mac : options.mac;
  input.host = device.host;
  input.spanLabel = options.span.label();
  std::optional<Series> *targets[] = {&input.rssi, &input.rx, &input.tx};
  for (const SeriesSpec &spec : allSeries())
    *targets[static_cast<std::size_t>(spec.kind)] =
        readSeries(spec, options.mac, options.span, device.addedTs);
  if (!input.rssi && !input.rx && !input.tx) {
    if (!device.known)
      throw ToolError("unknown device " + options.mac + ": not in the inventory and no samples");
    throw ToolError("device " + deviceTitle(options.mac, device) + " has no samples");
  }

  std::string svg = renderSvg(input, options.size);
  if (options.outPath == "-") {
    out << svg;
    return;
  }
  std::ofstream file(options.outPath, std::ios::binary | std::ios::trunc);
  if (!file)
    throw ToolError("cannot write " + options.outPath + ": " + std::strerror(errno),
                    errno == EACCES || errno == EROFS ? Failure::Permission : Failure::General);
  file << svg;
  file.close();
  if (!file)
    throw ToolError("cannot write " + options.outPath + ": " + std::strerror(errno));
  out << "wrote " << options.outPath << ": RSSI, receive and transmit bandwidth of "
      << deviceTitle(options.mac, device) << ", " << options.span.label() << '\n';
}

bool runSimulate(Session &session, const SimulateOptions &options, bool force, std::ostream &out) {
  DatabaseContents contents = session.requireWritableDatabase();
  if (!force) {
    refuseForeign(contents, session.path(), "write synthetic rows into it");
    if (contents.devices > 0 || contents.seriesRows > 0)
      throw ToolError(session.path() + " already holds " + std::to_string(contents.devices) +
                          " devices and " + std::to_string(contents.seriesRows) +
                          " series rows; refusing to mix synthetic rows into them (use a new file, "
                          "or --force)",
                      Failure::Usage);
  }
  SimulateResult result = simulate(session, options, out);
  return result.lost == 0 && result.mismatches == 0;
}

bool runDemo(Session &session, bool defaultPath, const ChartOptions &chart, std::ostream &out) {
  const std::string &path = session.path();
  struct stat info {};
  if (stat(path.c_str(), &info) == 0) {
    // Only the demo's own file is ever replaced; anything else may be someone's data.
    if (!defaultPath)
      throw ToolError("the demo needs a fresh database, and " + path +
                      " exists (delete it or choose another --db)");
    if (unlink(path.c_str()) != 0)
      throw ToolError("cannot replace " + path + ": " + std::strerror(errno));
    unlink((path + "-journal").c_str());
  }

  SimulateOptions simulation;
  simulation.devices = 6;
  simulation.days = 1;
  simulation.contend = true;
  out << "libanalyticsdb demo: a home network of " << simulation.devices
      << " devices over one day, written through the library into " << path
      << "\nwhile a second process keeps the database busy in bursts (writes wait them out, "
         "or are parked and replayed).\n\n"
      << "$ analyticsdb simulate --devices 6 --days 1 --contend --db " << path << '\n';
  bool clean = runSimulate(session, simulation, false, out);

  out << "\n$ analyticsdb devices --db " << path << '\n';
  runDevices(session, false, 0, out);

  SeriesOptions series;
  series.mac = "02:ad:b0:00:00:01";
  series.kind = SeriesKind::Rx;
  series.chart = chart;
  out << "\n$ analyticsdb series " << series.mac << " --rx --last 24h --db " << path << '\n';
  runSeries(session, series, out);
  out << "\nNext: 'analyticsdb plot " << series.mac << " --out tv.svg --db " << path
      << "' draws RSSI and bandwidth as an SVG picture.\n";
  return clean;
}

} // namespace adbtool
