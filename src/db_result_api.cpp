/*
 * db_result_api.cpp - raw read results turned into typed records, and the records freed.
 *
 * A raw result is a header row of column names followed by the data rows, every cell a string
 * or NULL. Each record type is described once, as a table of column name -> field offset, size
 * and conversion; one walk over the cells fills any record type from its table, so the order of
 * the selected columns does not matter and unknown columns are ignored. A record list is a
 * calloc'd array of calloc'd records that the caller frees with the list's free function.
 */
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>

#include "analyticsdb.h"
#include "internal/log.h"
#include "internal/memory.h"
#include "internal/numbers.h"
#include "internal/records.h"
#include "internal/text_builder.h"

ADB_LOG_MODULE("db_result_api")

namespace {

/* ---------------------------------------------------------------- column rules ---- */

enum class Match : uint8_t {
  Exact,     // the header cell equals the column name (case-sensitive)
  Contains,  // the header cell contains it ("SLOT" of the slot columns)
};

enum class Conversion : uint8_t {
  Text,      // copy size - 1 characters into the zero-filled field
  Atoi,      // signed 32-bit
  Strtoul,   // unsigned 32-bit, into a 32- or 64-bit field
  Strtoull,  // unsigned 64-bit
  Strtof,    // float
  WeekSlot,  // column "SLOT"k to element k - 1 of the slot array
  DaySlot,   // the n-th slot column of the row to element n - 1
};

struct ColumnRule {
  const char *column;
  Match match;
  Conversion conversion;
  size_t offset;  // of the field in its record (or in one element of a caller's array)
  size_t size;    // of the field
};

constexpr const char kSlotMarker[] = "SLOT";
constexpr size_t kSlotNumberStart = sizeof kSlotMarker - 1;  // "SLOT300": the number after 4

#define ADB_COLUMN(Record, field, column, conversion)                                            \
  ColumnRule {                                                                                   \
    column, Match::Exact, Conversion::conversion, offsetof(Record, field), sizeof(Record::field) \
  }
#define ADB_SLOT_COLUMNS(Record, conversion)                                       \
  ColumnRule {                                                                     \
    kSlotMarker, Match::Contains, Conversion::conversion, offsetof(Record, slots), \
        sizeof(Record::slots)                                                      \
  }

// Every rule's field has the width its conversion writes.
consteval bool fieldsFit(std::span<const ColumnRule> rules) {
  for (const ColumnRule &rule : rules) {
    bool fits = false;
    switch (rule.conversion) {
      case Conversion::Text:
        fits = rule.size >= 2;
        break;
      case Conversion::Atoi:
        fits = rule.size == sizeof(int32_t);
        break;
      case Conversion::Strtoul:
        fits = rule.size == 4 || rule.size == 8;
        break;
      case Conversion::Strtoull:
        fits = rule.size == sizeof(uint64_t);
        break;
      case Conversion::Strtof:
        fits = rule.size == sizeof(float);
        break;
      case Conversion::WeekSlot:
      case Conversion::DaySlot:
        fits = rule.size > 0 && rule.size % sizeof(uint64_t) == 0;
        break;
    }
    if (!fits) return false;
  }
  return true;
}

constexpr ColumnRule kMeshTopoColumns[] = {
    ADB_COLUMN(MeshTopoRecord, mac, "MAC_S", Text),
    ADB_COLUMN(MeshTopoRecord, id, "ID_S", Text),
    ADB_COLUMN(MeshTopoRecord, parentId, "PARENTID_S", Text),
    ADB_COLUMN(MeshTopoRecord, ipAddr, "IPADDR_S", Text),
    ADB_COLUMN(MeshTopoRecord, role, "ROLE_S", Text),
    ADB_COLUMN(MeshTopoRecord, operMode, "OPERMODE_S", Text),
    ADB_COLUMN(MeshTopoRecord, backhaulIntfType, "BACKHAULINTFTYPE_S", Text),
    ADB_COLUMN(MeshTopoRecord, status, "STATUS_S", Text),
    ADB_COLUMN(MeshTopoRecord, healthStatus, "HEALTHSTATUS_S", Text),
};

// Several REAL columns (rates, DEVBWREQD, the time stamps) are read with integer conversions:
// the records hold whole numbers and the fraction is dropped on purpose.
constexpr ColumnRule kDeviceInfoColumns[] = {
    ADB_COLUMN(DeviceInfoRecord, mac, "MAC_S", Text),
    ADB_COLUMN(DeviceInfoRecord, serialNumber, "SERIALNUMBER_S", Text),
    ADB_COLUMN(DeviceInfoRecord, apId, "APID_S", Text),
    ADB_COLUMN(DeviceInfoRecord, ipAddr, "IPADDR_S", Text),
    ADB_COLUMN(DeviceInfoRecord, category, "CATEGORY_S", Text),
    ADB_COLUMN(DeviceInfoRecord, host, "HOST_S", Text),
    ADB_COLUMN(DeviceInfoRecord, model, "MODEL_S", Text),
    ADB_COLUMN(DeviceInfoRecord, manufacturer, "MANUFACTURER_S", Text),
    ADB_COLUMN(DeviceInfoRecord, interface, "INTERFACE_S", Text),
    ADB_COLUMN(DeviceInfoRecord, active, "ACTIVE", Atoi),
    ADB_COLUMN(DeviceInfoRecord, band, "BAND_S", Text),
    ADB_COLUMN(DeviceInfoRecord, intfName, "INTF_NAME_S", Text),
    ADB_COLUMN(DeviceInfoRecord, intfIndex, "INTF_INDEX", Atoi),
    ADB_COLUMN(DeviceInfoRecord, rssi, "RSSI", Atoi),
    ADB_COLUMN(DeviceInfoRecord, txRate, "TXRATE", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, rxRate, "RXRATE", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, txCnt, "TXCNT", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, rxCnt, "RXCNT", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, capacity, "CAPACITY", Atoi),
    ADB_COLUMN(DeviceInfoRecord, devBwReqd, "DEVBWREQD", Strtoul),
    ADB_COLUMN(DeviceInfoRecord, devStreamCapability, "DEVSTREAMCAPABILITY_S", Text),
    ADB_COLUMN(DeviceInfoRecord, name, "NAME_S", Text),
    ADB_COLUMN(DeviceInfoRecord, friendlyName, "FRIENDLYNAME_S", Text),
    ADB_COLUMN(DeviceInfoRecord, portable, "PORTABLE", Atoi),
    ADB_COLUMN(DeviceInfoRecord, devCritical, "DEVCRITICAL", Atoi),
    ADB_COLUMN(DeviceInfoRecord, addedTs, "ADDED_TS", Strtoul),
    ADB_COLUMN(DeviceInfoRecord, lastOfflineTs, "LASTOFFLINE_TS", Strtoul),
    ADB_COLUMN(DeviceInfoRecord, lastOnlineTs, "LASTONLINE_TS", Strtoul),
    ADB_COLUMN(DeviceInfoRecord, devTimestamp, "DEVTIMESTAMP", Strtoul),
    ADB_COLUMN(DeviceInfoRecord, beaconState, "BEACONSTATE", Atoi),
    ADB_COLUMN(DeviceInfoRecord, preferredBand, "PREFERRED_BAND_S", Text),
    ADB_COLUMN(DeviceInfoRecord, devFpDone, "DEV_FP_DONE", Atoi),
    ADB_COLUMN(DeviceInfoRecord, oui, "OUI_S", Text),
    ADB_COLUMN(DeviceInfoRecord, productClass, "PRODUCTCLASS_S", Text),
    ADB_COLUMN(DeviceInfoRecord, lastRebootTxCnt, "LASTREBOOTTXCNT", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, lastRebootRxCnt, "LASTREBOOTRXCNT", Strtoull),
    ADB_COLUMN(DeviceInfoRecord, bandSteeringState, "BANDSTEERING_STATE", Atoi),
    ADB_COLUMN(DeviceInfoRecord, isBridged, "IS_BRIDGED", Atoi),
};

constexpr ColumnRule kClientColumns[] = {
    ADB_COLUMN(ClientCapabilityRecord, mac, "MAC_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, assocBssid, "ASSOC_BSSID_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, assocMedium, "ASSOC_MEDIUM_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, capBssTrans, "CAP_BSS_TRANS", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, capFastBssTrans, "CAP_FAST_BSS_TRANS", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, capRadioMeasure, "CAP_RADIO_MEASURE", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap24Ghz, "CAP_24GHZ", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap5Ghz, "CAP_5GHZ", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, category, "CATEGORY_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, type, "TYPE_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, mimo, "MIMO_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, vendorMfg, "VENDOR_MFG_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, vendorModelName, "VENDOR_MNAME_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, vendorModelNumber, "VENDOR_MNUMBER_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, vendorDeviceName, "VENDOR_DNAME_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, capMode, "CAP_MODE_S", Text),
    ADB_COLUMN(ClientCapabilityRecord, cap24Csa, "CAP_24CSA", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap24Ecsa, "CAP_24ECSA", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap5Csa, "CAP_5CSA", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap5Ecsa, "CAP_5ECSA", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, capDfs, "CAP_DFS", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, isTavexFpDone, "ISTAVEXFPDONE", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap24GhzN, "CAP_24GHZN", Atoi),
    ADB_COLUMN(ClientCapabilityRecord, cap5GhzAc, "CAP_5GHZAC", Atoi),
};

constexpr ColumnRule kThresholdColumns[] = {
    ADB_COLUMN(DeviceThresholdRecord, deviceClass, "DEVICECLASS_S", Text),
    ADB_COLUMN(DeviceThresholdRecord, devFilterLevel, "DEVFILTERLEVEL", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, streamingThreshold, "STREAMINGTHRESHOLD", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, inactivityFilter, "INACTIVITYFILTER", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiGoodStart, "RSSIGOODSTART", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiGoodEnd, "RSSIGOODEND", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiAvgStart, "RSSIAVGSTART", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiAvgEnd, "RSSIAVGEND", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiBadStart, "RSSIBADSTART", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, rssiBadEnd, "RSSIBADEND", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, longPollThreshold, "LONGPOLLTHRESHOLD", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, shortPollThreshold, "SHORTPOLLTHRESHOLD", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, version, "VERSION", Strtof),
    ADB_COLUMN(DeviceThresholdRecord, wanFilterLevel, "WAN_FILTER_LEVEL", Atoi),
    ADB_COLUMN(DeviceThresholdRecord, inactivityFilterLevel, "INACTIVITY_FILTER_LEVEL", Atoi),
};

constexpr ColumnRule kSubscriberColumns[] = {
    ADB_COLUMN(SubscriberInfoRecord, serialNumber, "SERIALNUMBER_S", Text),
    ADB_COLUMN(SubscriberInfoRecord, downstreamBandwidth, "DOWNSTREAMBANDWIDTH", Atoi),
};

// devTimestamp is a 64-bit field filled through the 32-bit conversion, so it never exceeds
// the 32-bit range.
constexpr ColumnRule kDeviceTimestampColumns[] = {
    ADB_COLUMN(DeviceTimestampRecord, active, "ACTIVE", Atoi),
    ADB_COLUMN(DeviceTimestampRecord, devTimestamp, "DEVTIMESTAMP", Strtoul),
    ADB_COLUMN(DeviceTimestampRecord, mac, "MAC_S", Text),
    ADB_COLUMN(DeviceTimestampRecord, intfName, "INTF_NAME_S", Text),
};

constexpr ColumnRule kPrimitiveDayColumns[] = {
    ADB_COLUMN(PrimitiveDayTableRecord, mac, "MAC_S", Text),
    ADB_COLUMN(PrimitiveDayTableRecord, timestamp, "TIMESTAMP", Strtoul),
    ADB_COLUMN(PrimitiveDayTableRecord, slotIndex, "SLT_IND", Atoi),
    ADB_COLUMN(PrimitiveDayTableRecord, source, "SOURCE_S", Text),
};

constexpr ColumnRule kBandWidthColumns[] = {
    ADB_COLUMN(BandWidthRecord, mac, "MAC_S", Text),
    ADB_COLUMN(BandWidthRecord, timestamp, "TIMESTAMP", Strtoul),
    ADB_COLUMN(BandWidthRecord, slotIndex, "SLT_IND", Atoi),
    ADB_SLOT_COLUMNS(BandWidthRecord, WeekSlot),
};

constexpr ColumnRule kRateColumns[] = {
    ADB_COLUMN(RateRecord, mac, "MAC_S", Text),
    ADB_COLUMN(RateRecord, timestamp, "TIMESTAMP", Strtoul),
    ADB_COLUMN(RateRecord, slotIndex, "SLT_IND", Atoi),
    ADB_SLOT_COLUMNS(RateRecord, DaySlot),
};

static_assert(fieldsFit(kMeshTopoColumns) && fieldsFit(kDeviceInfoColumns) &&
              fieldsFit(kClientColumns) && fieldsFit(kThresholdColumns) &&
              fieldsFit(kSubscriberColumns) && fieldsFit(kDeviceTimestampColumns) &&
              fieldsFit(kPrimitiveDayColumns) && fieldsFit(kBandWidthColumns) &&
              fieldsFit(kRateColumns));

#undef ADB_COLUMN
#undef ADB_SLOT_COLUMNS

/* ---------------------------------------------------------------- record families ---- */

// Everything that differs between the nine record lists.
struct RecordFamily {
  size_t recordSize;
  std::span<const ColumnRule> columns;
  bool countsSlots;        // records with a slotCount: the number of "SLOT" columns of the row
  size_t slotCountOffset;  // meaningful when countsSlots
  const char *label;       // in "<label> result array NULL / ..."
  int emptyLevel;
  const char *arrayFailed;
  const char *recordFailed;
  const char *alreadyFreed;
  int freeLevel;
};

constexpr RecordFamily kMeshTopoList{
    .recordSize = sizeof(MeshTopoRecord),
    .columns = kMeshTopoColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "Meshtopo",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] Meshtopo struct malloc failed\n",
    .recordFailed = "[analyticsDB] Meshtopo array element malloc failed\n",
    .alreadyFreed = "[analyticsDB] Meshtopo struct is already NULL \n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kDeviceInfoList{
    .recordSize = sizeof(DeviceInfoRecord),
    .columns = kDeviceInfoColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "DeviceInfo",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] DeviceInfo stuct malloc failed\n",
    .recordFailed = "[analyticsDB] DeviceInfo malloc failed\n",
    .alreadyFreed = "[analyticsDB] DeviceInfo struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kClientList{
    .recordSize = sizeof(ClientCapabilityRecord),
    .columns = kClientColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "clients",
    .emptyLevel = RYX_LOG_DEBUG,
    .arrayFailed = "[analyticsDB] clients struct malloc failed\n",
    .recordFailed = "[analyticsDB] clients array element malloc failed\n",
    .alreadyFreed = "[analyticsDB] Client capability struct is already NULL \n",
    .freeLevel = RYX_LOG_DEBUG,
};

constexpr RecordFamily kThresholdList{
    .recordSize = sizeof(DeviceThresholdRecord),
    .columns = kThresholdColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "DeviceThreshold",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] DeviceThreshold stuct malloc failed\n",
    .recordFailed = "[analyticsDB] DeviceThreshold malloc failed\n",
    .alreadyFreed = "[analyticsDB] DeviceThreshold struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kSubscriberList{
    .recordSize = sizeof(SubscriberInfoRecord),
    .columns = kSubscriberColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "SubscriberInfo",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] SubscriberInfo stuct malloc failed\n",
    .recordFailed = "[analyticsDB] Subsciber Info malloc failed\n",
    .alreadyFreed = "[analyticsDB] SubscriberInfo struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kDeviceTimestampList{
    .recordSize = sizeof(DeviceTimestampRecord),
    .columns = kDeviceTimestampColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "DeviceTimestamp",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] DeviceTimestamp stuct malloc failed\n",
    .recordFailed = "[analyticsDB] DeviceTimestamp malloc failed\n",
    .alreadyFreed = "[analyticsDB] DeviceTimestamp struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kPrimitiveDayList{
    .recordSize = sizeof(PrimitiveDayTableRecord),
    .columns = kPrimitiveDayColumns,
    .countsSlots = false,
    .slotCountOffset = 0,
    .label = "primtive bandwidth",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] primtive day table  stuct malloc failed\n",
    .recordFailed = "[analyticsDB] PrimitiveDayTblData malloc failed\n",
    .alreadyFreed = "[analyticsDB] primitive bandwidth tbl struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kBandWidthList{
    .recordSize = sizeof(BandWidthRecord),
    .columns = kBandWidthColumns,
    .countsSlots = true,
    .slotCountOffset = offsetof(BandWidthRecord, slotCount),
    .label = "BandWidth",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] Bandwidth stuct malloc failed\n",
    .recordFailed = "[analyticsDB] Bandwidth malloc failed\n",
    .alreadyFreed = "[analyticsDB] BandWidth struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

constexpr RecordFamily kRateList{
    .recordSize = sizeof(RateRecord),
    .columns = kRateColumns,
    .countsSlots = true,
    .slotCountOffset = offsetof(RateRecord, slotCount),
    .label = "perday",
    .emptyLevel = RYX_LOG_ERROR,
    .arrayFailed = "[analyticsDB] perday stuct malloc failed\n",
    .recordFailed = "[analyticsDB] perday malloc failed\n",
    .alreadyFreed = "[analyticsDB] Bandwidth per day struct is already NULL\n",
    .freeLevel = RYX_LOG_ERROR,
};

/* ---------------------------------------------------------------- one cell ---- */

template <typename T>
void put(unsigned char *field, T value) {
  std::memcpy(field, &value, sizeof value);
}

// atoi as the 32-bit target computes it: there `long` has 32 bits, so out-of-range text
// saturates instead of wrapping.
int32_t atoi32(const char *text) {
  long long value = std::strtoll(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// Stores the value of slot `number` (counted from 1) into a slot array of `size` bytes; a
// number outside the array belongs to no slot of this record and is skipped.
void putSlot(unsigned char *slots, size_t size, long long number, const char *cell) {
  size_t count = size / sizeof(uint64_t);
  if (number < 1 || static_cast<unsigned long long>(number) > count) return;
  put<uint64_t>(slots + (static_cast<size_t>(number) - 1) * sizeof(uint64_t),
                std::strtoull(cell, nullptr, 10));
}

// Converts a non-null cell into `field`. `column` is the header cell; `slotOrdinal` the number
// of "SLOT" columns of the row up to and including this one.
void storeCell(const ColumnRule &rule, const char *cell, unsigned char *field, const char *column,
               uint32_t slotOrdinal) {
  switch (rule.conversion) {
    case Conversion::Text:
      std::memset(field, 0, rule.size);
      std::memcpy(field, cell, strnlen(cell, rule.size - 1));
      break;
    case Conversion::Atoi:
      put<int32_t>(field, atoi32(cell));
      break;
    case Conversion::Strtoul:
      if (rule.size == sizeof(uint64_t)) {
        put<uint64_t>(field, adb::strtoul32(cell));
      } else {
        put<uint32_t>(field, adb::strtoul32(cell));
      }
      break;
    case Conversion::Strtoull:
      put<uint64_t>(field, std::strtoull(cell, nullptr, 10));
      break;
    case Conversion::Strtof:
      put<float>(field, std::strtof(cell, nullptr));
      break;
    case Conversion::WeekSlot:
      putSlot(field, rule.size, atoi32(column + kSlotNumberStart), cell);
      break;
    case Conversion::DaySlot:
      putSlot(field, rule.size, slotOrdinal, cell);
      break;
  }
}

bool matches(const ColumnRule &rule, const char *column) {
  return rule.match == Match::Exact ? std::strcmp(column, rule.column) == 0
                                    : std::strstr(column, rule.column) != nullptr;
}

const ColumnRule *findRule(std::span<const ColumnRule> rules, const char *column) {
  for (const ColumnRule &rule : rules) {
    if (matches(rule, column)) return &rule;
  }
  return nullptr;
}

/* ---------------------------------------------------------------- the walk ---- */

bool isSlotColumn(const char *column) { return std::strstr(column, kSlotMarker) != nullptr; }

// The rule of each header column, looked up once for a whole result instead of once per cell:
// a list of many rows of a narrow table (the device inventory) otherwise spends most of its
// conversion comparing column names. Wider results (a week's slot columns, read one row at a
// time) gain nothing and keep the lookup per cell, so this stays a fixed stack array.
class HeaderRules {
 public:
  static constexpr int32_t kMaxColumns = 64;

  HeaderRules(std::span<const ColumnRule> rules, char **header, int32_t columns)
      : resolved_(columns <= kMaxColumns) {
    for (int32_t c = 0; resolved_ && c < columns; ++c) {
      const char *column = header[c];
      slot_[c] = column != nullptr && isSlotColumn(column);
      rule_[c] = column != nullptr ? findRule(rules, column) : nullptr;
    }
  }
  bool resolved() const { return resolved_; }
  bool isSlot(int32_t c) const { return slot_[c]; }
  const ColumnRule *rule(int32_t c) const { return rule_[c]; }

 private:
  bool resolved_;
  bool slot_[kMaxColumns];
  const ColumnRule *rule_[kMaxColumns];
};

// Fills `record` from one data row. Cells of columns the family does not know, and NULL cells,
// leave their fields as they are. `rules`, when given and resolved, holds the header's rules.
void fillRecord(const RecordFamily &family, bool countSlots, unsigned char *record, char **header,
                char **row, int32_t columns, const HeaderRules *rules = nullptr) {
  const bool resolved = rules != nullptr && rules->resolved();
  uint32_t slotColumns = 0;
  for (int32_t c = 0; c < columns; ++c) {
    const char *column = header[c];
    if (column == nullptr) continue;
    if (resolved ? rules->isSlot(c) : isSlotColumn(column)) {
      ++slotColumns;  // NULL cells count: slotCount is the number of slot columns selected
      if (countSlots) put<uint32_t>(record + family.slotCountOffset, slotColumns);
    }
    const char *cell = row[c];
    if (cell == nullptr) continue;
    const ColumnRule *rule = resolved ? rules->rule(c) : findRule(family.columns, column);
    if (rule != nullptr) storeCell(*rule, cell, record + rule->offset, column, slotColumns);
  }
}

char **rowCells(char **cells, int32_t row, int32_t columns) {
  return cells + (static_cast<size_t>(row) + 1) * static_cast<size_t>(columns);
}

// Logs the family's "result array NULL" line and returns false when there is nothing to convert.
bool hasRows(const char *label, int level, adb::log::Origin origin, char **cells, int32_t rowCount,
             int32_t columnCount) {
  if (cells != nullptr && rowCount > 0 && columnCount > 0) return true;
  ADB_LOG_FOR(origin, level, "[analyticsDB] %s result array NULL / rowcount %d columcount %d\n",
              label, rowCount, columnCount);
  return false;
}

unsigned char *bytesOf(void *storage) { return static_cast<unsigned char *>(storage); }

// Converts a raw result into a list of `Record`s described by `family`: 0, 1 (out of memory;
// the partial list is in *list), 2 (nothing to convert; *list untouched).
template <const RecordFamily &family, typename Record>
int32_t convertList(char **cells, Record ***list, int32_t rowCount, int32_t columnCount,
                    adb::log::Origin origin) {
  static_assert(family.recordSize == sizeof(Record), "record family of another record type");
  if (!hasRows(family.label, family.emptyLevel, origin, cells, rowCount, columnCount)) {
    return DB_STATUS_EMPTY;
  }
  if (list == nullptr) return DB_STATUS_FAILURE;
  // Zero-filled, so that after a record allocation failure the free function still applies.
  Record **records =
      static_cast<Record **>(adb::allocateZeroed(static_cast<size_t>(rowCount), sizeof(Record *)));
  *list = records;
  if (records == nullptr) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", family.arrayFailed);
    return DB_STATUS_FAILURE;
  }
  const HeaderRules rules(family.columns, cells, columnCount);
  for (int32_t r = 0; r < rowCount; ++r) {
    auto *record = static_cast<Record *>(adb::allocateZeroed(1, sizeof(Record)));
    if (record == nullptr) {
      ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", family.recordFailed);
      return DB_STATUS_FAILURE;
    }
    records[r] = record;
    fillRecord(family, family.countsSlots, bytesOf(record), cells, rowCells(cells, r, columnCount),
               columnCount, &rules);
  }
  return DB_STATUS_SUCCESS;
}

template <const RecordFamily &family, typename Record>
void freeList(Record ***list, int32_t count, adb::log::Origin origin) {
  static_assert(family.recordSize == sizeof(Record), "record family of another record type");
  if (list == nullptr || *list == nullptr) {
    ADB_LOG_FOR(origin, family.freeLevel, "%s", family.alreadyFreed);
    return;
  }
  Record **records = *list;
  for (int32_t i = 0; i < count; ++i) {
    std::free(records[i]);
    records[i] = nullptr;
  }
  std::free(records);
  *list = nullptr;
}

/* ---------------------------------------------------------------- caller storage ---- */

// The columns of the per-row arrays of db_getRateIdxTimeStamp, each relative to one element.
constexpr size_t kMacTextSize = 32;
constexpr size_t kSourceTextSize = 16;
constexpr ColumnRule kIndexRowColumns[] = {
    {"TIMESTAMP", Match::Exact, Conversion::Strtoul, 0, sizeof(uint32_t)},
    {"SLT_IND", Match::Exact, Conversion::Atoi, 0, sizeof(int32_t)},
    {kSlotMarker, Match::Contains, Conversion::Strtoull, 0, sizeof(uint64_t)},
    {"MAC_S", Match::Exact, Conversion::Text, 0, kMacTextSize},
    {"SOURCE_S", Match::Exact, Conversion::Text, 0, kSourceTextSize},
};
static_assert(fieldsFit(kIndexRowColumns));

}  // namespace

namespace adb {

void mergeWeekCells(BandWidthRecord **list, int32_t rows, char **cells, int32_t rowCount,
                    int32_t columnCount) {
  if (list == nullptr || cells == nullptr || columnCount <= 0) return;
  int32_t macColumn = -1;
  uint32_t slotColumns = 0;
  for (int32_t c = 0; c < columnCount; ++c) {
    if (cells[c] == nullptr) continue;
    if (std::strcmp(cells[c], "MAC_S") == 0 && macColumn < 0) macColumn = c;
    if (isSlotColumn(cells[c])) ++slotColumns;
  }
  if (macColumn < 0) return;
  for (int32_t r = 0; r < rowCount; ++r) {
    char **row = rowCells(cells, r, columnCount);
    const char *mac = row[macColumn];
    if (mac == nullptr) continue;
    // The record holds the MAC as the conversion stored it: cut to its field.
    char key[sizeof list[0]->mac] = {};
    adb::TextBuilder(key, sizeof key).append(mac);
    // Both reads scan the index table alike, so rows normally pair up by position.
    BandWidthRecord *record = nullptr;
    if (r < rows && std::strcmp(list[r]->mac, key) == 0) record = list[r];
    for (int32_t i = 0; record == nullptr && i < rows; ++i) {
      if (std::strcmp(list[i]->mac, key) == 0) record = list[i];
    }
    if (record == nullptr) continue;
    fillRecord(kBandWidthList, false, bytesOf(record), cells, row, columnCount);
    record->slotCount += slotColumns;
  }
}

}  // namespace adb

extern "C" {

/* ---------------------------------------------------------------- record lists ---- */

ADB_API int32_t db_structMeshTopo(char **cells, MeshTopoRecord ***list, int32_t rowCount,
                                  int32_t columnCount) {
  return convertList<kMeshTopoList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structDeviceInfo(char **cells, DeviceInfoRecord ***list, int32_t rowCount,
                                    int32_t columnCount) {
  return convertList<kDeviceInfoList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structClientsCapability(char **cells, ClientCapabilityRecord ***list,
                                           int32_t rowCount, int32_t columnCount) {
  return convertList<kClientList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structDeviceThreshold(char **cells, DeviceThresholdRecord ***list,
                                         int32_t rowCount, int32_t columnCount) {
  return convertList<kThresholdList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structSubscriberInfo(char **cells, SubscriberInfoRecord ***list,
                                        int32_t rowCount, int32_t columnCount) {
  return convertList<kSubscriberList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_readTimestampResult(char **cells, DeviceTimestampRecord ***list,
                                       int32_t rowCount, int32_t columnCount) {
  return convertList<kDeviceTimestampList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structPrimitiveDayTable(char **cells, PrimitiveDayTableRecord ***list,
                                           int32_t rowCount, int32_t columnCount) {
  return convertList<kPrimitiveDayList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_structBandWidth(char **cells, BandWidthRecord ***list, int32_t rowCount,
                                   int32_t columnCount) {
  return convertList<kBandWidthList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_readRateStruct(char **cells, RateRecord ***list, int32_t rowCount,
                                  int32_t columnCount) {
  return convertList<kRateList>(cells, list, rowCount, columnCount, ADB_LOG_ORIGIN);
}

/* ---------------------------------------------------------------- caller storage ---- */

// Every row goes into the one record, so later rows overwrite earlier ones column by column;
// the callers read one day table of one device per call and gather the week this way.
ADB_API int32_t db_setSlotRate(char **cells, int32_t rowCount, int32_t columnCount,
                               BandWidthRecord *record) {
  if (!hasRows(kBandWidthList.label, RYX_LOG_ERROR, ADB_LOG_ORIGIN, cells, rowCount, columnCount)) {
    return DB_STATUS_EMPTY;
  }
  if (record == nullptr) return DB_STATUS_FAILURE;
  for (int32_t r = 0; r < rowCount; ++r) {
    fillRecord(kBandWidthList, false, bytesOf(record), cells, rowCells(cells, r, columnCount),
               columnCount);
  }
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_getRateIdxTimeStamp(char **cells, int32_t rowCount, int32_t columnCount,
                                       uint32_t *timestamps, int32_t *slotIndexes, uint64_t *values,
                                       char (*macs)[32], char *source) {
  if (!hasRows(kBandWidthList.label, RYX_LOG_ERROR, ADB_LOG_ORIGIN, cells, rowCount, columnCount)) {
    return DB_STATUS_EMPTY;
  }
  static_assert(sizeof *macs == kMacTextSize);
  // Parallel to kIndexRowColumns: where each column's array starts and the size of one of its
  // elements. The source is one text for all rows, so the last row's value stays.
  unsigned char *const bases[] = {bytesOf(timestamps), bytesOf(slotIndexes), bytesOf(values),
                                  bytesOf(macs), bytesOf(source)};
  const size_t strides[] = {sizeof *timestamps, sizeof *slotIndexes, sizeof *values, sizeof *macs,
                            0};
  static_assert(std::size(bases) == std::size(kIndexRowColumns));
  for (int32_t r = 0; r < rowCount; ++r) {
    char **row = rowCells(cells, r, columnCount);
    for (int32_t c = 0; c < columnCount; ++c) {
      const char *column = cells[c];
      if (column == nullptr || row[c] == nullptr) continue;
      const ColumnRule *rule = findRule(kIndexRowColumns, column);
      if (rule == nullptr) continue;
      size_t target = static_cast<size_t>(rule - kIndexRowColumns);
      if (bases[target] == nullptr) continue;
      storeCell(*rule, row[c], bases[target] + static_cast<size_t>(r) * strides[target], column, 0);
    }
  }
  return DB_STATUS_SUCCESS;
}

/* ---------------------------------------------------------------- free functions ---- */

ADB_API void db_freeMeshTopoResult(MeshTopoRecord ***list, int32_t count) {
  freeList<kMeshTopoList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeClientsResult(ClientCapabilityRecord ***list, int32_t count) {
  freeList<kClientList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeDeviceInfoResult(DeviceInfoRecord ***list, int32_t count) {
  freeList<kDeviceInfoList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freePrimitiveDayTable(PrimitiveDayTableRecord ***list, int32_t count) {
  freeList<kPrimitiveDayList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeDpClientHandleResult(DeviceTimestampRecord ***list, int32_t count) {
  freeList<kDeviceTimestampList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeBandWidthResult(BandWidthRecord ***list, int32_t count) {
  freeList<kBandWidthList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeDeviceThresholdResult(DeviceThresholdRecord ***list, int32_t count) {
  freeList<kThresholdList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeRateResult(RateRecord ***list, int32_t count) {
  freeList<kRateList>(list, count, ADB_LOG_ORIGIN);
}

ADB_API void db_freeSubscriberInfoResult(SubscriberInfoRecord ***list, int32_t count) {
  freeList<kSubscriberList>(list, count, ADB_LOG_ORIGIN);
}

// Resets the variable as well, so that a second call through it is harmless.
ADB_API void db_freeTableOutput(char ***cells) {
  if (cells == nullptr || *cells == nullptr) return;
  db_freeResult(cells);
  *cells = nullptr;
}

}  // extern "C"
