// series.cpp - span reads of the three sample series through the library's public reads.
#include "series.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "output.h"
#include "session.h"

namespace adbtool {

namespace {

int32_t latestRx(const char *mac, uint32_t *timestamp, int32_t *slot) {
  char source[16] = {};
  return db_readLatestRxSlotIndexTimeStamp(mac, timestamp, slot, source);
}

int32_t latestTx(const char *mac, uint32_t *timestamp, int32_t *slot) {
  char source[16] = {};
  return db_readLatestTxSlotIndexTimeStamp(mac, timestamp, slot, source);
}

const std::array<SeriesSpec, 3> kSeries = {{
    {SeriesKind::Rssi, "rssi", "RSSI", "RSSI", "dBm", "rssi_dbm", "PRIMITIVE_RSSI", true, false,
     db_readLatestRssiSlotIndexTimeStamp, nullptr, db_readMacRssiSelect},
    {SeriesKind::Rx, "rx", "Receive bandwidth", "receive bandwidth", "kbit/s", "rx_kbit_s",
     "PRIMITIVE_BANDWIDTHRX", false, true, latestRx, db_readRxStartToEnd,
     db_readMacBandWidthRxSelect},
    {SeriesKind::Tx, "tx", "Transmit bandwidth", "transmit bandwidth", "kbit/s", "tx_kbit_s",
     "PRIMITIVE_BANDWIDTHTX", false, true, latestTx, db_readTxStartToEnd,
     db_readMacBandWidthTxSelect},
}};

struct DayListGuard {
  RateRecord **list = nullptr;
  int32_t rows = 0;
  ~DayListGuard() {
    if (list != nullptr)
      db_freeRateResult(&list, rows);
  }
};

[[noreturn]] void failRead(const SeriesSpec &spec, const std::string &mac, int32_t status) {
  throw ToolError(std::string("cannot read the ") + spec.noun + " samples of " + mac + ": " +
                      describeStatus(status),
                  failureOf(status));
}

} // namespace

const std::array<SeriesSpec, 3> &allSeries() { return kSeries; }

// Only the day tables that hold the wanted slots are read, each joined with the index row, so
// a device without a row in one of them still gets the rows it has.
std::vector<int64_t> readSlots(const SeriesSpec &spec, const std::string &mac,
                               const std::vector<int32_t> &slots) {
  const int32_t perDay = static_cast<int32_t>(db_calcPerDaySlotCount());
  std::vector<int64_t> values(slots.size(), 0);
  std::vector<int32_t> days;
  for (int32_t slot : slots)
    if (std::find(days.begin(), days.end(), db_findTable(slot)) == days.end())
      days.push_back(db_findTable(slot));
  for (int32_t day : days) {
    DayListGuard found;
    int32_t status =
        retryWhileBusy([&] { return spec.day(day, mac.c_str(), &found.list, &found.rows); });
    if (status == DB_STATUS_EMPTY)
      continue;
    if (status != DB_STATUS_SUCCESS)
      failRead(spec, mac, status);
    const RateRecord &record = *found.list[0];
    for (std::size_t i = 0; i < slots.size(); ++i) {
      int32_t column = slots[i] - (day - 1) * perDay - 1;
      if (db_findTable(slots[i]) == day && column < static_cast<int32_t>(record.slotCount))
        values[i] = static_cast<int64_t>(record.slots[column]);
    }
  }
  return values;
}

const SeriesSpec &seriesSpec(SeriesKind kind) { return kSeries[static_cast<std::size_t>(kind)]; }

SeriesStats statsOf(const Series &series) {
  SeriesStats stats;
  double sum = 0.0;
  for (std::size_t i = 0; i < series.values.size(); ++i) {
    if (!series.present(i))
      continue;
    int64_t value = series.values[i];
    stats.min = stats.count == 0 ? value : std::min(stats.min, value);
    stats.max = stats.count == 0 ? value : std::max(stats.max, value);
    sum += static_cast<double>(value);
    ++stats.count;
  }
  if (stats.count > 0)
    stats.average = sum / static_cast<double>(stats.count);
  return stats;
}

DeviceSummary lookupDevice(const std::string &mac) {
  DeviceList found;
  DeviceSummary summary;
  int32_t status = retryWhileBusy(
      [&] { return db_readMacDeviceInfo(mac.c_str(), &found.list, &found.rows, 1); });
  // A database without an inventory can still hold samples: only real failures stop here.
  if (status == DB_STATUS_EMPTY || status == DB_STATUS_NO_TABLE)
    return summary;
  if (status != DB_STATUS_SUCCESS)
    throw ToolError("cannot read the inventory row of " + mac + ": " + describeStatus(status),
                    failureOf(status));
  summary.known = true;
  summary.mac = found.list[0]->mac;
  summary.host = found.list[0]->host;
  summary.addedTs = found.list[0]->addedTs;
  summary.wired = found.list[0]->rssi == 0;
  return summary;
}

std::optional<Series> readSeries(const SeriesSpec &spec, const std::string &mac,
                                 const SpanOption &span, uint32_t notBefore) {
  Series series;
  series.spec = &spec;
  series.mac = mac;
  uint32_t latestTime = 0;
  int32_t latestSlot = 0;
  int32_t status =
      retryWhileBusy([&] { return spec.latest(mac.c_str(), &latestTime, &latestSlot); });
  if (status == DB_STATUS_EMPTY)
    return std::nullopt;
  if (status == DB_STATUS_NO_TABLE)
    throw ToolError(std::string("no table ") + spec.indexTable +
                        " in the database (run 'analyticsdb init' first)",
                    Failure::Missing);
  if (status != DB_STATUS_SUCCESS)
    failRead(spec, mac, status);
  const int32_t week = static_cast<int32_t>(db_calcSlotCount());
  if (latestSlot < 1 || latestSlot > week)
    throw ToolError(std::string("the ") + spec.noun + " index row of " + mac +
                    " holds no valid slot (" + std::to_string(latestSlot) + ")");

  // The stretch ends at the last stored slot at or before --to; the ring holds one week back
  // from the latest slot, and older slots have been overwritten.
  const uint32_t stored = static_cast<uint32_t>(week) * kSlotSeconds;
  uint32_t back = 0;
  if (span.to != 0 && span.to < latestTime)
    back = (latestTime - span.to + kSlotSeconds - 1) / kSlotSeconds;
  if (back >= static_cast<uint32_t>(week))
    throw ToolError(std::string("no ") + spec.noun + " samples of " + mac + " stored before " +
                    localTime(span.to, "%Y-%m-%d %H:%M %Z") +
                    " (the database keeps the week up to " +
                    localTime(latestTime, "%Y-%m-%d %H:%M %Z") + ")");
  series.latestTime = latestTime - back * kSlotSeconds;
  series.latestSlot = ((latestSlot - 1 - static_cast<int32_t>(back)) % week + week) % week + 1;

  uint32_t spanSeconds = std::max<uint32_t>(span.seconds, kSlotSeconds);
  if (span.from != 0) {
    if (span.from > series.latestTime)
      throw ToolError(std::string("no ") + spec.noun + " samples of " + mac + " after " +
                      localTime(span.from, "%Y-%m-%d %H:%M %Z") + " (the latest is at " +
                      localTime(latestTime, "%Y-%m-%d %H:%M %Z") + ")");
    spanSeconds = series.latestTime - span.from + kSlotSeconds;
  }
  spanSeconds = std::min(spanSeconds, stored - back * kSlotSeconds);
  // Slots before the device was added hold nothing of it: leave them out.
  uint32_t spanLeft = spanSeconds;
  if (notBefore > 0 && notBefore <= series.latestTime)
    spanLeft = std::min(spanLeft, series.latestTime - notBefore + kSlotSeconds);
  uint32_t from = series.latestTime > spanLeft ? series.latestTime - spanLeft : 0;
  int32_t start = 0;
  int32_t end = 0;
  if (db_findIndexLimits(from, series.latestTime, series.latestSlot, &start, &end) !=
      DB_STATUS_SUCCESS) {
    start = end = series.latestSlot; // a sample at time 0: one slot is all there is
  }
  std::size_t count = static_cast<std::size_t>((end - start + week) % week + 1);
  for (std::size_t i = 0; i < count; ++i) {
    series.slots.push_back((start - 1 + static_cast<int32_t>(i)) % week + 1);
    series.times.push_back(series.latestTime - static_cast<uint32_t>(count - 1 - i) * kSlotSeconds);
  }

  if (spec.span != nullptr) {
    auto record = std::make_unique<BandWidthRecord>();
    status = retryWhileBusy([&] { return spec.span(mac.c_str(), start, end, record.get()); });
    if (status == DB_STATUS_SUCCESS && record->slotCount == count) {
      for (std::size_t i = 0; i < count; ++i)
        series.values.push_back(static_cast<int64_t>(record->slots[i]));
      return series;
    }
    // A device younger than the span has no row in some day table it covers, which fails the
    // span read; the day reads join the index row and so still find the rows it has.
    if (status != DB_STATUS_SUCCESS && status != DB_STATUS_EMPTY)
      failRead(spec, mac, status);
  }
  series.values = readSlots(spec, mac, series.slots);
  return series;
}

std::string formatValueLike(const SeriesSpec &spec, double value, double reference) {
  if (spec.kind == SeriesKind::Rssi)
    return formatValue(spec, value);
  char text[32];
  if (std::fabs(reference) >= 1000000.0)
    std::snprintf(text, sizeof text, "%.1f Gbit/s", value / 1000000.0);
  else if (std::fabs(reference) >= 1000.0)
    std::snprintf(text, sizeof text, "%.1f Mbit/s", value / 1000.0);
  else
    return formatValue(spec, value);
  return text;
}

std::string formatValue(const SeriesSpec &spec, double value) {
  if (spec.kind != SeriesKind::Rssi)
    return humanRate(value);
  char text[32];
  std::snprintf(text, sizeof text, "%.0f dBm", value);
  return text;
}

} // namespace adbtool
