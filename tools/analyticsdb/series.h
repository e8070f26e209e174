// series.h - the three sample series (RSSI, receive and transmit bandwidth) as data, and the
// span read that turns "the last 24 hours of this device" into time-ordered values.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "analyticsdb.h"

namespace adbtool {

enum class SeriesKind { Rssi, Rx, Tx };

inline constexpr uint32_t kSlotSeconds = 300;

struct SeriesSpec {
  SeriesKind kind;
  const char *word;       // option and JSON name: "rssi"
  const char *title;      // "RSSI", "Receive bandwidth"
  const char *noun;       // the title inside a sentence: "RSSI", "receive bandwidth"
  const char *unit;       // "dBm"
  const char *csvColumn;  // "rssi_dbm"
  const char *indexTable; // where a device's latest slot lives
  bool zeroIsMissing;     // a slot never written reads 0, which no RSSI reading can be
  bool zeroBased;         // charts of rates start at 0
  int32_t (*latest)(const char *mac, uint32_t *timestamp, int32_t *slot);
  // Packs a slot span into a record; null where the library has no such read (RSSI).
  int32_t (*span)(const char *mac, int32_t start, int32_t end, BandWidthRecord *record);
  // One day table of the device (slots (day - 1) * 288 + 1 .. day * 288), in slot order.
  int32_t (*day)(int32_t day, const char *mac, RateRecord ***list, int32_t *rows);
};

const std::array<SeriesSpec, 3> &allSeries();
const SeriesSpec &seriesSpec(SeriesKind kind);

// A span of one device's samples, oldest first; values keep the sign the library gives them.
struct Series {
  const SeriesSpec *spec = nullptr;
  std::string mac;
  uint32_t latestTime = 0;
  int32_t latestSlot = 0;
  std::vector<int64_t> values;
  std::vector<uint32_t> times; // nominal time of each slot, ending at latestTime
  std::vector<int32_t> slots;  // slot number (1..2016) of each value

  bool present(std::size_t i) const { return !(spec->zeroIsMissing && values[i] == 0); }
};

struct SeriesStats {
  std::size_t count = 0; // values that are readings
  int64_t min = 0;
  int64_t max = 0;
  double average = 0.0;
};
SeriesStats statsOf(const Series &series);

// The device's samples of the given slots, read day table by day table; a slot of a day table
// in which the device has no row reads 0, as a slot never written does.
std::vector<int64_t> readSlots(const SeriesSpec &spec, const std::string &mac,
                               const std::vector<int32_t> &slots);

// The inventory row of a device, as far as the series commands need it.
struct DeviceSummary {
  bool known = false;
  bool wired = false; // the inventory has no RSSI for it
  std::string mac;    // as stored
  std::string host;
  uint32_t addedTs = 0;
};
DeviceSummary lookupDevice(const std::string &mac);

// Which stretch of a series to read: the last `seconds` before the latest sample, or the
// absolute times `from` .. `to` (unix time; 0 where not given) within the stored week.
struct SpanOption {
  uint32_t seconds = 24 * 3600;
  std::string text = "24h";
  uint32_t from = 0;
  uint32_t to = 0;
  std::string label() const { return from != 0 || to != 0 ? text : "last " + text; }
};

// Reads a stretch of a series, starting no earlier than `notBefore` (when the device was
// added) where that is known. Empty when the device has no row in the series' index table;
// throws ToolError on database errors and when the stretch holds no stored slot.
std::optional<Series> readSeries(const SeriesSpec &spec, const std::string &mac,
                                 const SpanOption &span, uint32_t notBefore);

// "-57 dBm", "12.5 Mbit/s": a value of the series with its unit.
std::string formatValue(const SeriesSpec &spec, double value);
// `value` in the unit that `reference` is shown in ("0.0 Mbit/s" beside "28.8 Mbit/s").
std::string formatValueLike(const SeriesSpec &spec, double value, double reference);

} // namespace adbtool
