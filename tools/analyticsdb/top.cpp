// top.cpp - the whole inventory over one span, read series by series, in 80 columns.
#include "top.h"

#include <algorithm>
#include <optional>
#include <strings.h>
#include <vector>

#include "analyticsdb.h"
#include "output.h"

namespace adbtool {

namespace {

// A kbit/s reading held for one slot, in bytes.
constexpr uint64_t kBytesPerKbitSlot = kSlotSeconds * 1000 / 8;

struct DeviceRow {
  std::string mac;
  std::string host;
  std::string band;
  uint64_t rxBytes = 0;
  uint64_t txBytes = 0;
  std::optional<std::pair<uint32_t, int64_t>> peak; // time, kbit/s of RX + TX
  std::optional<int64_t> rssi;                      // latest reading in the span
  std::optional<int64_t> worst;
};

// The span ends at the newest receive sample of any device, so that every row covers the
// same stretch of time and a device that went quiet shows nothing rather than its old days.
uint32_t newestSample(const std::vector<DeviceRow> &rows) {
  uint32_t newest = 0;
  for (const DeviceRow &row : rows) {
    for (const SeriesSpec &spec : allSeries()) {
      uint32_t time = 0;
      int32_t slot = 0;
      if (retryWhileBusy([&] { return spec.latest(row.mac.c_str(), &time, &slot); }) ==
          DB_STATUS_SUCCESS)
        newest = std::max(newest, time);
    }
  }
  return newest;
}

void addSeries(DeviceRow &row, const Series &series, uint32_t from,
               std::vector<std::pair<uint32_t, int64_t>> &traffic) {
  for (std::size_t i = 0; i < series.values.size(); ++i) {
    if (series.times[i] < from || !series.present(i))
      continue;
    int64_t value = series.values[i];
    switch (series.spec->kind) {
    case SeriesKind::Rssi:
      row.rssi = value;
      row.worst = std::min(row.worst.value_or(value), value);
      break;
    case SeriesKind::Rx:
    case SeriesKind::Tx: {
      uint64_t bytes = static_cast<uint64_t>(std::max<int64_t>(value, 0)) * kBytesPerKbitSlot;
      (series.spec->kind == SeriesKind::Rx ? row.rxBytes : row.txBytes) += bytes;
      auto at = std::find_if(traffic.begin(), traffic.end(),
                             [&](const auto &slot) { return slot.first == series.times[i]; });
      if (at == traffic.end())
        traffic.emplace_back(series.times[i], value);
      else
        at->second += value;
      break;
    }
    }
  }
}

bool before(const DeviceRow &a, const DeviceRow &b, TopOrder order) {
  auto name = [](const DeviceRow &row) { return row.host.empty() ? row.mac : row.host; };
  auto byName = [&] { return strcasecmp(name(a).c_str(), name(b).c_str()) < 0; };
  switch (order) {
  case TopOrder::Rx:
    return a.rxBytes != b.rxBytes ? a.rxBytes > b.rxBytes : byName();
  case TopOrder::Tx:
    return a.txBytes != b.txBytes ? a.txBytes > b.txBytes : byName();
  case TopOrder::Rssi: // weakest first; wired devices last
    if (a.rssi.has_value() != b.rssi.has_value())
      return a.rssi.has_value();
    return a.rssi != b.rssi ? a.rssi < b.rssi : byName();
  case TopOrder::Name:
    return byName();
  case TopOrder::Total:
    break;
  }
  uint64_t ta = a.rxBytes + a.txBytes, tb = b.rxBytes + b.txBytes;
  return ta != tb ? ta > tb : byName();
}

const char *kOrderWords[] = {"total traffic", "received", "sent", "weakest signal", "name"};

void printJson(std::ostream &out, const std::vector<DeviceRow> &rows, uint32_t from, uint32_t to) {
  Json devices = Json::array();
  for (const DeviceRow &row : rows) {
    Json peak = row.peak ? Json{{"timestamp", row.peak->first}, {"kbitPerSecond", row.peak->second}}
                         : Json();
    Json rssi = row.rssi ? Json{{"latest", *row.rssi}, {"worst", *row.worst}} : Json();
    devices.push_back(Json{{"mac", row.mac},
                           {"host", row.host},
                           {"band", row.band},
                           {"rxBytes", row.rxBytes},
                           {"txBytes", row.txBytes},
                           {"peak", std::move(peak)},
                           {"rssi", std::move(rssi)},
                           {"signal", row.rssi ? Json(signalClass(*row.rssi)) : Json()}});
  }
  adbtool::printJson(out, Json{{"version", kJsonVersion},
                               {"from", from},
                               {"to", to},
                               {"slotSeconds", kSlotSeconds},
                               {"devices", std::move(devices)}});
}

} // namespace

const char *signalClass(int64_t rssi) {
  return rssi >= kGoodRssi ? "good" : rssi >= kFairRssi ? "fair" : "weak";
}

void runTop(Session &session, const TopOptions &options, std::ostream &out) {
  session.requireExistingDatabase();
  DeviceList found;
  readInventory(session, found);
  std::vector<DeviceRow> rows;
  for (int32_t i = 0; i < found.rows; ++i) {
    DeviceRow row;
    row.mac = found.list[i]->mac;
    row.host = found.list[i]->host;
    row.band = found.list[i]->band;
    rows.push_back(std::move(row));
  }

  uint32_t newest = newestSample(rows);
  SpanOption span = options.span;
  uint32_t to = span.to != 0 ? std::min(span.to, newest) : newest;
  uint32_t from = span.from != 0                     ? span.from
                  : to + kSlotSeconds > span.seconds ? to + kSlotSeconds - span.seconds
                                                     : 1;
  if (newest != 0 && from > to)
    throw ToolError("no samples after " + localTime(from, "%Y-%m-%d %H:%M %Z") +
                    " (the newest is at " + localTime(newest, "%Y-%m-%d %H:%M %Z") + ")");
  span.to = to;
  span.from = from;
  for (std::size_t i = 0; newest != 0 && from <= to && i < rows.size(); ++i) {
    std::vector<std::pair<uint32_t, int64_t>> traffic;
    for (const SeriesSpec &spec : allSeries()) {
      uint32_t latest = 0;
      int32_t slot = 0;
      // A device whose samples all lie before the span has nothing in it.
      if (retryWhileBusy([&] { return spec.latest(rows[i].mac.c_str(), &latest, &slot); }) !=
              DB_STATUS_SUCCESS ||
          latest < from)
        continue;
      std::optional<Series> series = readSeries(spec, rows[i].mac, span, 0);
      if (series)
        addSeries(rows[i], *series, from, traffic);
    }
    for (const auto &slot : traffic)
      if (!rows[i].peak || slot.second > rows[i].peak->second)
        rows[i].peak = slot;
  }
  std::stable_sort(rows.begin(), rows.end(), [&options](const DeviceRow &a, const DeviceRow &b) {
    return before(a, b, options.order);
  });

  if (options.json) {
    printJson(out, rows, from, to);
    return;
  }
  if (rows.empty()) {
    out << "no devices in " << session.path() << '\n';
    return;
  }
  if (newest == 0) {
    out << "no samples in " << session.path() << '\n';
    return;
  }
  const bool days = to - from > 24 * 3600;
  out << rows.size() << " devices, " << localTime(from) << " .. "
      << localTime(to, "%Y-%m-%d %H:%M %Z") << ", by "
      << kOrderWords[static_cast<std::size_t>(options.order)] << '\n';
  std::vector<std::vector<std::string>> table;
  for (const DeviceRow &row : rows) {
    std::string name = printable(row.host.empty() ? row.mac : row.host);
    table.push_back({fitWidth(name, 16), humanBytes(row.rxBytes), humanBytes(row.txBytes),
                     row.peak ? humanRate(static_cast<double>(row.peak->second)) : "-",
                     row.peak ? localTime(row.peak->first, days ? "%a %H:%M" : "%H:%M") : "-",
                     row.rssi ? std::to_string(*row.rssi) : "-",
                     row.worst ? std::to_string(*row.worst) : "-",
                     row.rssi ? signalClass(*row.rssi) : "wired"});
  }
  printTable(out, {"DEVICE", "RX", "TX", "PEAK", "AT", "RSSI", "WORST", "SIGNAL"},
             {Align::Left, Align::Right, Align::Right, Align::Right, Align::Left, Align::Right,
              Align::Right, Align::Left},
             table);
  out << "RSSI in dBm, latest and worst; signal good from -67, fair from -80, weak below\n";
}

} // namespace adbtool
