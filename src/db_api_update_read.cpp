/*
 * db_api_update_read.cpp - the record APIs of the inventory and sample tables: writes through
 * the deferred write queue, their replays, and reads into typed records.
 */
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <sqlite3.h>

#include "analyticsdb.h"
#include "internal/gate.h"
#include "internal/guards.h"
#include "internal/log.h"
#include "internal/memory.h"
#include "internal/numbers.h"
#include "internal/records.h"
#include "internal/text_builder.h"

ADB_LOG_MODULE("db_api_update_read")

/* ================================================================ Inventory writes ==== */

// Sixteen writers, one per inventory table or per subset of DEVICEINFO columns. Each writes one
// row by its key (insert, or update when the key exists) between the two calls of the queue's
// gate, so that it never overtakes a waiting write of the same row; its replay twin performs the
// same write for a queued request and reports the outcome to the queue.

namespace {

struct InventoryWriter {
  int32_t functionId;
  const char *table;
  const char *keyColumn;
  char **fields;  // the columns of the caller's values, key first
  int32_t count;
  const char *family;  // the name the queue knows the request by
};

constexpr const char kInventoryKeyMatch[] = " LIKE ";

// Reached only when a row's count is not the length of its field array; being no constexpr
// function, it stops the compilation there (the gate copies `count` values from the caller).
void inventoryCountDiffersFromFieldArray() {}

template <size_t N>
consteval InventoryWriter inventoryRow(int32_t functionId, const char *table, const char *keyColumn,
                                       char *(&fields)[N], int32_t count, const char *family) {
  if (count != static_cast<int32_t>(N)) inventoryCountDiffersFromFieldArray();
  return {functionId, table, keyColumn, fields, count, family};
}

constexpr InventoryWriter kInventoryWriters[] = {
    inventoryRow(1, "DEVICEINFO", "MAC_S", deviceInfoFields, 38, "DEVICEINFO"),
    inventoryRow(2, "DEVICEINFO", "MAC_S", devInfoAddedStatusUpdate, 19, "DEVICEINFO"),
    inventoryRow(3, "DEVICEINFO", "MAC_S", devInfoLanUpdate, 7, "DEVICEINFO"),
    inventoryRow(4, "DEVICEINFO", "MAC_S", devInfoCapacityUpdate, 2, "DEVICEINFO"),
    inventoryRow(5, "DEVICEINFO", "MAC_S", devInfoRssiFields, 5, "DEVICEINFO"),
    inventoryRow(6, "DEVICEINFO", "MAC_S", devInfoBeaconFields, 6, "DEVICEINFO"),
    inventoryRow(7, "DEVICEINFO", "MAC_S", devInfoOpsFields, 4, "DEVICEINFO"),
    inventoryRow(8, "DEVICEINFO", "MAC_S", devInfoPreferredBandFields, 2, "DEVICEINFO"),
    inventoryRow(9, "MESHTOPO", "MAC_S", meshTopoFields, 9, "MESHTOPO"),
    inventoryRow(19, "SUBSCRIBERINFO", "SERIALNUMBER_S", subscriberInfoFields, 2, "SUBSCRIBERINFO"),
    inventoryRow(20, "DEVICETHRESHOLD", "DEVICECLASS_S", deviceThresholdFields, 15,
                 "DEVICETHRESHOLD"),
    inventoryRow(21, "CMAINFO", "TABLENAME_S", cmaInfoFields, 2, "CMAINFO"),
    inventoryRow(22, "CLIENTS", "MAC_S", clientsFields, 24, "CLIENTS"),
    inventoryRow(23, "DEVICEINFO", "MAC_S", devInfoBeaconFnameFields, 2, "DEVICEINFO"),
    inventoryRow(24, "DEVICEINFO", "MAC_S", devInfoBandSteeringFields, 2, "DEVICEINFO"),
    inventoryRow(25, "DEVICEINFO", "MAC_S", devInfoIsBridgedFields, 2, "DEVICEINFO"),
};

// The writer of a function id; past the end when there is none. constexpr rather than consteval:
// clang 14 refuses a consteval call on a template argument here; the constexpr variable that
// receives the row still makes it a compile-time lookup.
constexpr size_t inventoryWriterRow(int32_t functionId) {
  size_t row = 0;
  while (row < std::size(kInventoryWriters) && kInventoryWriters[row].functionId != functionId) {
    ++row;
  }
  return row;
}

template <int32_t FunctionId>
const InventoryWriter &inventoryWriter() {
  constexpr size_t row = inventoryWriterRow(FunctionId);
  static_assert(row < std::size(kInventoryWriters), "no inventory writer has this function id");
  return kInventoryWriters[row];
}

int32_t writeInventoryRow(const InventoryWriter &writer, char **values) {
  return db_writeTable(writer.table, writer.keyColumn, kInventoryKeyMatch, writer.fields, values,
                       writer.count);
}

template <int32_t FunctionId>
int32_t gatedInventoryWrite(char **values) {
  const InventoryWriter &writer = inventoryWriter<FunctionId>();
  // Without values there is nothing to park: the write refuses them with its own message rather
  // than queue an empty request behind a waiting one.
  if (values == nullptr) return writeInventoryRow(writer, values);
  return adb::throughGate(writer.functionId, writer.family, values, writer.count,
                          [&] { return writeInventoryRow(writer, values); });
}

template <int32_t FunctionId>
int32_t replayInventoryWrite(char **values) {
  return adb::finishReplay(writeInventoryRow(inventoryWriter<FunctionId>(), values));
}

}  // namespace

extern "C" {

ADB_API int32_t db_updateDeviceInfoTable(char **values) { return gatedInventoryWrite<1>(values); }
ADB_API int32_t db_updateDeviceInfoPrimitiveFields(char **values) {
  return gatedInventoryWrite<2>(values);
}
ADB_API int32_t db_updateDeviceInfoLanFields(char **values) {
  return gatedInventoryWrite<3>(values);
}
ADB_API int32_t db_updateDeviceInfoCapacity(char **values) {
  return gatedInventoryWrite<4>(values);
}
ADB_API int32_t db_updateDeviceInfoRssiFields(char **values) {
  return gatedInventoryWrite<5>(values);
}
ADB_API int32_t db_updateDeviceInfoBeaconFields(char **values) {
  return gatedInventoryWrite<6>(values);
}
ADB_API int32_t db_updateDeviceInfoOpsFields(char **values) {
  return gatedInventoryWrite<7>(values);
}
ADB_API int32_t db_updateDeviceInfoPreferredBandFields(char **values) {
  return gatedInventoryWrite<8>(values);
}
ADB_API int32_t db_updateMeshTopoTable(char **values) { return gatedInventoryWrite<9>(values); }
ADB_API int32_t db_updateSubscriberInfoTable(char **values) {
  return gatedInventoryWrite<19>(values);
}
ADB_API int32_t db_updateDeviceThresholdTable(char **values) {
  return gatedInventoryWrite<20>(values);
}
ADB_API int32_t db_updateCmaInfoTable(char **values) { return gatedInventoryWrite<21>(values); }
ADB_API int32_t db_updateClientsTable(char **values) { return gatedInventoryWrite<22>(values); }
ADB_API int32_t db_updateDeviceInfoBeaconFName(char **values) {
  return gatedInventoryWrite<23>(values);
}
ADB_API int32_t db_updateDeviceInfoBandSteeringFields(char **values) {
  return gatedInventoryWrite<24>(values);
}
ADB_API int32_t db_updateDeviceInfoIsBridgedFields(char **values) {
  return gatedInventoryWrite<25>(values);
}

ADB_API int32_t db_updateQueueDeviceInfoTable(char **values) {
  return replayInventoryWrite<1>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoPrimitiveFields(char **values) {
  return replayInventoryWrite<2>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoLanFields(char **values) {
  return replayInventoryWrite<3>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoCapacity(char **values) {
  return replayInventoryWrite<4>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoRssiFields(char **values) {
  return replayInventoryWrite<5>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoBeaconFields(char **values) {
  return replayInventoryWrite<6>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoOpsFields(char **values) {
  return replayInventoryWrite<7>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoPreferredBandFields(char **values) {
  return replayInventoryWrite<8>(values);
}
ADB_API int32_t db_updateQueueMeshTopoTable(char **values) {
  return replayInventoryWrite<9>(values);
}
ADB_API int32_t db_updateQueueSubscriberInfoTable(char **values) {
  return replayInventoryWrite<19>(values);
}
ADB_API int32_t db_updateQueueDeviceThresholdTable(char **values) {
  return replayInventoryWrite<20>(values);
}
ADB_API int32_t db_updateQueueCmaInfoTable(char **values) {
  return replayInventoryWrite<21>(values);
}
ADB_API int32_t db_updateQueueClientsTable(char **values) {
  return replayInventoryWrite<22>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoBeaconFName(char **values) {
  return replayInventoryWrite<23>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoBandSteeringFields(char **values) {
  return replayInventoryWrite<24>(values);
}
ADB_API int32_t db_updateQueueDeviceInfoIsBridgedFields(char **values) {
  return replayInventoryWrite<25>(values);
}

}  // extern "C"

/* ========================================================= end of Inventory writes ==== */

/* ============================================================================================ */
/* Inventory reads                                                                              */
/* ============================================================================================ */

namespace {

// Statement buffers: each read composes in one of these two fixed sizes; what does not fit is
// cut by the select pieces.
constexpr size_t kReadSmallQuerySize = 256;
constexpr size_t kReadLargeQuerySize = 512;
constexpr size_t kReadQueryCapacity = kReadLargeQuerySize;

// The caller's category buffer holds at least this much.
constexpr size_t kReadCategoryTextSize = 32;

// One condition of a read: column, operator with its blanks, and value. A null value stands for
// the key that the caller passes (a MAC address, device class or table name).
struct ReadCondition {
  const char *column = nullptr;
  const char *matchOperator = nullptr;
  const char *value = nullptr;
};

// One inventory read: the columns (no array: all), the table, and up to two conditions.
struct ReadStatement {
  size_t querySize = kReadSmallQuerySize;
  char **fields = nullptr;
  int32_t fieldCount = 0;
  const char *table = nullptr;
  ReadCondition condition{};  // no column: no WHERE clause
  const char *connector = nullptr;
  ReadCondition second{};  // used when there is a connector
};

constexpr ReadCondition kReadByMac{"MAC_S", " LIKE ", nullptr};

constexpr ReadStatement kReadMeshTopo{.table = "MESHTOPO"};
constexpr ReadStatement kReadClients{.table = "CLIENTS"};
constexpr ReadStatement kReadMacClients{
    .querySize = kReadLargeQuerySize, .table = "CLIENTS", .condition = kReadByMac};
constexpr ReadStatement kReadThresholds{.table = "DEVICETHRESHOLD"};
constexpr ReadStatement kReadClassThresholds{.querySize = kReadLargeQuerySize,
                                             .table = "DEVICETHRESHOLD",
                                             .condition = {"DEVICECLASS_S", " LIKE ", nullptr}};
constexpr ReadStatement kReadSubscribers{.table = "SUBSCRIBERINFO"};
constexpr ReadStatement kReadDevices{.table = "DEVICEINFO"};
constexpr ReadStatement kReadMacDevices{
    .querySize = kReadLargeQuerySize, .table = "DEVICEINFO", .condition = kReadByMac};
// IS_BRIDGED has no "_S", so the builder writes the 0 bare.
constexpr ReadStatement kReadMacUnbridgedDevices{.querySize = kReadLargeQuerySize,
                                                 .table = "DEVICEINFO",
                                                 .condition = kReadByMac,
                                                 .connector = " AND ",
                                                 .second = {"IS_BRIDGED", " LIKE ", "0"}};
constexpr ReadStatement kReadTxRxCounts{.querySize = kReadLargeQuerySize,
                                        .fields = txRxCount,
                                        .fieldCount = std::size(txRxCount),
                                        .table = "DEVICEINFO",
                                        .condition = {"TXCNT", " is not ", "null"},
                                        .connector = " OR ",
                                        .second = {"RXCNT", " is not ", "null"}};
constexpr ReadStatement kReadCapacities{.fields = devInfoCapacityRead,
                                        .fieldCount = std::size(devInfoCapacityRead),
                                        .table = "DEVICEINFO"};
constexpr ReadStatement kReadDeviceTimestamps{.fields = devInfoTimestampRead,
                                              .fieldCount = std::size(devInfoTimestampRead),
                                              .table = "DEVICEINFO"};
constexpr ReadStatement kReadBeaconDevices{.querySize = kReadLargeQuerySize,
                                           .table = "DEVICEINFO",
                                           .condition = {"BEACONSTATE", ">", "0"}};
constexpr ReadStatement kReadCmaTimeStamp{.fields = timeStampFields,
                                          .fieldCount = std::size(timeStampFields),
                                          .table = "CMAINFO",
                                          .condition = {"TABLENAME_S", " LIKE ", nullptr}};
constexpr ReadStatement kReadDeviceCategory{.querySize = kReadLargeQuerySize,
                                            .fields = devInfoCategoryRead,
                                            .fieldCount = std::size(devInfoCategoryRead),
                                            .table = "DEVICEINFO",
                                            .condition = kReadByMac};
constexpr ReadStatement kReadDeviceCritical{.querySize = kReadLargeQuerySize,
                                            .fields = devInfoCriticalRead,
                                            .fieldCount = std::size(devInfoCriticalRead),
                                            .table = "DEVICEINFO",
                                            .condition = kReadByMac};

bool readConditionAppended(char *query, int32_t size, const ReadCondition &condition,
                           const char *key) {
  const char *value = condition.value != nullptr ? condition.value : key;
  return db_selectCondtion(query, size, condition.column, condition.matchOperator, value) ==
         DB_STATUS_SUCCESS;
}

// Composes the read into `query` (zeroed, kReadQueryCapacity bytes). False when a piece was
// refused, which for these reads means a missing key: such a statement is not worth running.
bool readComposed(const ReadStatement &read, const char *key, char *query) {
  const auto size = static_cast<int32_t>(std::min(read.querySize, kReadQueryCapacity));
  bool ok = db_selectQuery(query, size) == DB_STATUS_SUCCESS &&
            db_selectFieldNames(query, size, read.fields, read.fieldCount, read.table) ==
                DB_STATUS_SUCCESS;
  if (!ok || read.condition.column == nullptr) return ok;
  ok = db_selectWhere(query, size) == DB_STATUS_SUCCESS &&
       readConditionAppended(query, size, read.condition, key);
  if (!ok || read.connector == nullptr) return ok;
  return db_selectCondtionConnection(query, size, read.connector) == DB_STATUS_SUCCESS &&
         readConditionAppended(query, size, read.second, key);
}

template <typename Record>
using ReadConversion = int32_t (*)(char **cells, Record ***list, int32_t rowCount,
                                   int32_t columnCount);

// Runs a composed SELECT into a record list: the read's status, else the conversion's (0, 1,
// or 2 when no row matched). The list is set only by the conversion, so a failed read leaves
// it as the caller had it.
template <typename Record>
int32_t readConvertedList(const char *query, ReadConversion<Record> convert, Record ***list,
                          int32_t *rows) {
  if (list == nullptr || rows == nullptr) return DB_STATUS_FAILURE;
  adb::TableResult result;
  int32_t status = db_readTableContent(query, &result.cells, rows, &result.columns);
  if (status == DB_STATUS_SUCCESS) status = convert(result.cells, list, *rows, result.columns);
  return status;
}

template <typename Record>
int32_t readRecordList(const ReadStatement &read, const char *key, ReadConversion<Record> convert,
                       Record ***list, int32_t *rows) {
  if (list == nullptr || rows == nullptr) return DB_STATUS_FAILURE;
  char query[kReadQueryCapacity] = {};
  if (!readComposed(read, key, query)) return DB_STATUS_FAILURE;
  return readConvertedList(query, convert, list, rows);
}

// A single value of one device: the first matching row's field, picked by `pick`.
template <typename Value>
int32_t readDeviceValue(const ReadStatement &read, const char *mac,
                        void (*pick)(DeviceInfoRecord **list, Value *out), Value *out) {
  if (out == nullptr) return DB_STATUS_FAILURE;
  char query[kReadQueryCapacity] = {};
  if (!readComposed(read, mac, query)) return DB_STATUS_FAILURE;
  DeviceInfoRecord **records = nullptr;
  int32_t rows = 0;
  int32_t status;
  {
    adb::TableResult result;
    status = db_readTableContent(query, &result.cells, &result.rows, &result.columns);
    rows = result.rows;
    if (status == DB_STATUS_SUCCESS) {
      status = db_structDeviceInfo(result.cells, &records, result.rows, result.columns);
      if (status == DB_STATUS_SUCCESS) pick(records, out);
    }
  }
  // Freed even when no row matched: the free function's "already NULL" line is then expected
  // of this read.
  db_freeDeviceInfoResult(&records, rows);
  return status;
}

}  // namespace

extern "C" {

ADB_API int32_t db_readMeshTopoTable(MeshTopoRecord ***list, int32_t *rows) {
  return readRecordList(kReadMeshTopo, nullptr, db_structMeshTopo, list, rows);
}

ADB_API int32_t db_readClientsTable(ClientCapabilityRecord ***list, int32_t *rows) {
  return readRecordList(kReadClients, nullptr, db_structClientsCapability, list, rows);
}

ADB_API int32_t db_readMacClients(const char *mac, ClientCapabilityRecord ***list, int32_t *rows) {
  return readRecordList(kReadMacClients, mac, db_structClientsCapability, list, rows);
}

ADB_API int32_t db_readDeviceThresholdTable(DeviceThresholdRecord ***list, int32_t *rows) {
  return readRecordList(kReadThresholds, nullptr, db_structDeviceThreshold, list, rows);
}

ADB_API int32_t db_readDeviceClassDeviceThreshold(const char *deviceClass,
                                                  DeviceThresholdRecord ***list, int32_t *rows) {
  return readRecordList(kReadClassThresholds, deviceClass, db_structDeviceThreshold, list, rows);
}

ADB_API int32_t db_readSubscriberInfoTable(SubscriberInfoRecord ***list, int32_t *rows) {
  return readRecordList(kReadSubscribers, nullptr, db_structSubscriberInfo, list, rows);
}

ADB_API int32_t db_readDeviceInfoTable(DeviceInfoRecord ***list, int32_t *rows) {
  return readRecordList(kReadDevices, nullptr, db_structDeviceInfo, list, rows);
}

// Only a filter of 0 leaves bridged devices out; any other value returns them all.
ADB_API int32_t db_readMacDeviceInfo(const char *mac, DeviceInfoRecord ***list, int32_t *rows,
                                     int32_t bridgedFilter) {
  const ReadStatement &read = bridgedFilter == 0 ? kReadMacUnbridgedDevices : kReadMacDevices;
  return readRecordList(read, mac, db_structDeviceInfo, list, rows);
}

ADB_API int32_t db_readDeviceInfoTxRxCount(DeviceInfoRecord ***list, int32_t *rows) {
  return readRecordList(kReadTxRxCounts, nullptr, db_structDeviceInfo, list, rows);
}

ADB_API int32_t db_readDeviceInfoCapacity(DeviceInfoRecord ***list, int32_t *rows) {
  return readRecordList(kReadCapacities, nullptr, db_structDeviceInfo, list, rows);
}

ADB_API int32_t db_readDeviceInfoTimestamp(DeviceTimestampRecord ***list, int32_t *rows) {
  return readRecordList(kReadDeviceTimestamps, nullptr, db_readTimestampResult, list, rows);
}

ADB_API int32_t db_readExtInfo(DeviceInfoRecord ***list, int32_t *rows) {
  return readRecordList(kReadBeaconDevices, nullptr, db_structDeviceInfo, list, rows);
}

// Uses no record conversion, so it never returns 2: with no matching row the caller's value
// stays as it was and the result is 0.
ADB_API int32_t db_readCmaInfoTimeStamp(const char *tableName, uint32_t *timestamp) {
  if (timestamp == nullptr) return DB_STATUS_FAILURE;
  char query[kReadQueryCapacity] = {};
  if (!readComposed(kReadCmaTimeStamp, tableName, query)) return DB_STATUS_FAILURE;
  adb::TableResult result;
  int32_t status = db_readTableContent(query, &result.cells, &result.rows, &result.columns);
  // Without a row there is no cell after the header to read.
  if (status == DB_STATUS_SUCCESS && result.rows > 0 && result.columns > 0) {
    db_getCmaTimeStamp(result.cells, timestamp);
  }
  return status;
}

ADB_API int32_t db_readDeviceInfoCategory(const char *mac, char *category) {
  return readDeviceValue(kReadDeviceCategory, mac, getDevCategory, category);
}

ADB_API int32_t db_readDeviceInfoCritical(const char *mac, int32_t *critical) {
  return readDeviceValue(kReadDeviceCritical, mac, getDevCritical, critical);
}

// The column is REAL; the fraction is dropped on purpose.
ADB_API void db_getCmaTimeStamp(char **cells, uint32_t *timestamp) {
  if (cells == nullptr || cells[1] == nullptr || timestamp == nullptr) return;
  *timestamp = adb::strtoul32(cells[1]);
}

ADB_API void getDevCategory(DeviceInfoRecord **list, char *category) {
  if (list == nullptr || list[0] == nullptr || category == nullptr) return;
  adb::TextBuilder(category, kReadCategoryTextSize).append(list[0]->category);
}

ADB_API void getDevCritical(DeviceInfoRecord **list, int32_t *critical) {
  if (list == nullptr || list[0] == nullptr || critical == nullptr) return;
  *critical = list[0]->devCritical;
}

}  // extern "C"

/* ============================================================================ end of reads == */

/* ================================================================ Sample series ==== */
/*
 * RSSI, receive and transmit bandwidth: one index row per device in PRIMITIVE_<series>
 * (latest slot, its time, for bandwidth the source) and one value per device and 300-second
 * slot in the day tables <series>1..7. The three series differ only in the names, ids and
 * message texts of their row of kSeries; every function below works on a row.
 */
namespace {

constexpr const char *kSeriesKey = "MAC_S";
constexpr const char *kSeriesLike = " LIKE ";
constexpr int32_t kSeriesDays = 7;
constexpr size_t kSlotColumnCapacity = 16;
constexpr size_t kSlotTableCapacity = 16;
constexpr size_t kFillTableCapacity = 32;
constexpr size_t kFillColumnCapacity = 32;
constexpr size_t kIndexReadCapacity = 256;
constexpr size_t kRowReadCapacity = 512;
constexpr size_t kJoinReadCapacity = 1024;
constexpr size_t kSpanDayReadCapacity = 2048;
constexpr size_t kSpanMacCapacity = 32;
constexpr uint32_t kSlotSeconds = 300;
// The latest-span reads look at this many index rows of one source; one is the WAN (MAX).
constexpr int32_t kMaxWanRows = 1;

struct Series {
  const char *word;            // day tables "<word><day>", and the queue's table family
  const char *primitiveTable;  // the index table
  char **primitiveFields;      // values of an index-row write, in the caller's order
  int32_t primitiveCount;
  char **latestFields;         // columns of the latest-row read
  int32_t latestCount;
  int32_t primitiveId;         // queue function ids
  int32_t slotId;
  int32_t defaultFillId;
  const char *slotIndexEmpty;  // message of a slot write without a day
  // Span reads (bandwidth only).
  const char *spanName;        // in "Read <name> table for day %d failed Ret %d"
  const char *spanFailed;      // last line of a failed span read
  bool spanSkipsMissingDay;    // the receive side skips a missing day table when wrapping
  const char *limitsFailed;    // a latest-span read without a span
  // The exported members that the composite functions call, so that their lines name them.
  int32_t (*slotWriter)(char **);                                          // a sample's slot
  int32_t (*spanReader)(const char *, int32_t, int32_t, BandWidthRecord *);  // a latest span
};

const Series kRssi{"RSSI", "PRIMITIVE_RSSI", rssiFieldNames, 3, rssiFieldNames, 3, 10, 11, 12,
                   "[analyticsDB] Rssi table - slot index is empty\n", nullptr, nullptr, false,
                   nullptr, db_updateRssiSlot, nullptr};
const Series kRx{"BANDWIDTHRX", "PRIMITIVE_BANDWIDTHRX", bandWidthFieldNames, 4,
                 bandWidthTimeStampSlot, 4, 13, 14, 15,
                 "[analyticsDB] BandWithRx table - slot index is empty\n", "BandwidthRx",
                 "[analyticsDB] Bandwidth Rx table read failed. Check table in DB\n", true,
                 "[analyticsDB] Error throwed on finding start and end index on Rx\n",
                 db_updateBandWidthSlotRx, db_readRxStartToEnd};
const Series kTx{"BANDWIDTHTX", "PRIMITIVE_BANDWIDTHTX", bandWidthFieldNames, 4,
                 bandWidthTimeStampSlot, 4, 16, 17, 18,
                 "[analyticsDB] BandWithTx table - slot index is empty\n", "BandwidthTx",
                 "[analyticsDB] Read BandwidthTx table failed. Check table content in DB\n", false,
                 "[analyticsDB] Error throwed on finding start and end index on tx\n",
                 db_updateBandWidthSlotTx, db_readTxStartToEnd};

char *text(const char *literal) { return const_cast<char *>(literal); }

void dayTableName(adb::TextBuilder &&out, const Series &series, int32_t day) {
  out.appendf("%s%d", series.word, day);
}

/* ---- writes ---- */

int32_t writeIndexRow(const Series &series, char **values) {
  return db_writeTable(series.primitiveTable, kSeriesKey, kSeriesLike, series.primitiveFields,
                       values, series.primitiveCount);
}

// One slot of one device: {MAC, slot number text, value} to column "SLOT<slot>" of the day
// table that holds the slot. The column is named from the caller's text and the day from its
// number, so callers pass plain decimal numbers.
class SlotWrite {
 public:
  // False (and the series' message logged) when the slot number is missing or has no day.
  bool prepare(const Series &series, char **values, adb::log::Origin origin) {
    const char *slot = values != nullptr ? values[1] : nullptr;
    int32_t day = 0;
    if (slot != nullptr) {
      adb::TextBuilder(column_, sizeof column_).appendf("%s%s", "SLOT", slot);
      day = db_findTable(std::atoi(slot));
    }
    if (slot == nullptr || day == 0) {
      ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", series.slotIndexEmpty);
      return false;
    }
    dayTableName(adb::TextBuilder(table_, sizeof table_), series, day);
    names_[0] = bandWidthSlotUpdate[0];
    names_[1] = column_;
    values_[0] = values[0];
    values_[1] = values[2];
    return true;
  }
  int32_t run() { return db_writeTable(table_, kSeriesKey, kSeriesLike, names_, values_, 2); }

 private:
  char column_[kSlotColumnCapacity] = {};
  char table_[kSlotTableCapacity] = {};
  char *names_[2] = {};
  char *values_[2] = {};
};

int32_t writeSlot(const Series &series, char **values, adb::log::Origin origin) {
  SlotWrite write;
  // A slot without a day is refused before the gate: nothing is queued for it.
  if (!write.prepare(series, values, origin)) return DB_STATUS_FAILURE;
  return adb::throughGate(series.slotId, series.word, values, 3, [&] { return write.run(); });
}

// A sample: the index row, then the slot; the slot runs even when the index row failed or
// was queued. The slot's status wins when it is not 0.
int32_t writeSample(const Series &series, char **values) {
  if (values == nullptr) return DB_STATUS_FAILURE;
  int32_t indexStatus = adb::throughGate(series.primitiveId, series.word, values,
                                         series.primitiveCount,
                                         [&] { return writeIndexRow(series, values); });
  int32_t slotAt = series.primitiveCount - 1;  // the slot number closes the index values
  char *slotValues[3] = {values[0], values[slotAt], values[slotAt + 1]};
  int32_t slotStatus = series.slotWriter(slotValues);
  return slotStatus != DB_STATUS_SUCCESS ? slotStatus : indexStatus;
}

// Slots first..last of one day table set to 0 for one device: {MAC, first, last}.
class DefaultFill {
 public:
  enum class Outcome { kReady, kMissingValue, kMismatch, kNoMemory };

  DefaultFill() = default;
  DefaultFill(const DefaultFill &) = delete;
  DefaultFill &operator=(const DefaultFill &) = delete;
  ~DefaultFill() { std::free(columnNames_); }

  Outcome prepare(const Series &series, char **values, adb::log::Origin origin) {
    if (values == nullptr || values[0] == nullptr || values[1] == nullptr || values[2] == nullptr) {
      return Outcome::kMissingValue;
    }
    int32_t first = std::atoi(values[1]);
    int32_t last = std::atoi(values[2]);
    int32_t day = db_findTable(first);
    if (day != db_findTable(last) || day == 0) {
      ADB_LOG_FOR(origin, RYX_LOG_ERROR,
                  "[analyticsDB] Mismatch in table. start Idx [%d] end Idx [%d]\n", first, last);
      return Outcome::kMismatch;
    }
    adb::TextBuilder(table_, sizeof table_).appendf("%s%d", series.word, day);
    names_[0] = text(kSeriesKey);
    values_[0] = values[0];
    count_ = 1;
    if (first <= last) {  // both in one day: at most a day of slots
      int32_t slots = last - first + 1;
      columnNames_ = static_cast<char(*)[kFillColumnCapacity]>(
          adb::allocateZeroed(static_cast<size_t>(slots), kFillColumnCapacity));
      if (columnNames_ == nullptr) {
        ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] malloc failed\n");
        return Outcome::kNoMemory;
      }
      for (int32_t k = first; k <= last; ++k, ++count_) {
        adb::TextBuilder(columnNames_[k - first], kFillColumnCapacity).appendf("%s%d", "SLOT", k);
        names_[count_] = columnNames_[k - first];
        values_[count_] = text(kZero);
      }
    }
    return Outcome::kReady;
  }
  int32_t count() const { return count_; }
  int32_t run() { return db_writeTable(table_, kSeriesKey, kSeriesLike, names_, values_, count_); }

 private:
  static constexpr const char *kZero = "0";
  static constexpr int32_t kMaxColumns = 1 + DB_SLOTS_PER_DAY;
  char table_[kFillTableCapacity] = {};
  char (*columnNames_)[kFillColumnCapacity] = nullptr;
  char *names_[kMaxColumns] = {};
  char *values_[kMaxColumns] = {};
  int32_t count_ = 0;
};

// A refused fill returns 0, like a successful one: callers cannot tell the two apart.
int32_t fillDefaults(const Series &series, char **values, adb::log::Origin origin) {
  DefaultFill fill;
  DefaultFill::Outcome outcome = fill.prepare(series, values, origin);
  if (outcome == DefaultFill::Outcome::kNoMemory) return DB_STATUS_FAILURE;
  if (outcome != DefaultFill::Outcome::kReady) return DB_STATUS_SUCCESS;
  // The queue keeps the caller's three values; the node records the number of columns.
  return adb::throughGate(series.defaultFillId, series.word, values, 3, fill.count(),
                          [&] { return fill.run(); });
}

/* ---- replays ---- */

int32_t replayIndexRow(const Series &series, char **values) {
  return adb::finishReplay(writeIndexRow(series, values));
}

// A parked slot write whose slot has no day reports nothing: the queue drops it.
int32_t replaySlot(const Series &series, char **values, adb::log::Origin origin) {
  SlotWrite write;
  if (!write.prepare(series, values, origin)) return DB_STATUS_FAILURE;
  return adb::finishReplay(write.run());
}

// A parked fill that cannot be carried out reports nothing, and the queue drops it; one that
// only lacked memory is kept for a later try.
int32_t replayDefaults(const Series &series, char **values, adb::log::Origin origin) {
  DefaultFill fill;
  DefaultFill::Outcome outcome = fill.prepare(series, values, origin);
  if (outcome == DefaultFill::Outcome::kNoMemory) {
    adb::keepForRetry();
    return DB_STATUS_FAILURE;
  }
  if (outcome != DefaultFill::Outcome::kReady) return DB_STATUS_SUCCESS;
  return adb::finishReplay(fill.run());
}

/* ---- reads ---- */

// SELECT all columns of the series' index table, LEFT JOIN day tables first..last on MAC_S,
// and an optional condition "column LIKE value".
void composeSeriesSelect(char *buffer, int32_t size, const Series &series, int32_t firstDay,
                         int32_t lastDay, const char *column, const char *value) {
  db_selectQuery(buffer, size);
  db_selectFieldNames(buffer, size, nullptr, 0, series.primitiveTable);
  for (int32_t day = firstDay; day <= lastDay; ++day) {
    char table[kSlotTableCapacity] = {};
    dayTableName(adb::TextBuilder(table, sizeof table), series, day);
    db_selectJoin(buffer, size, table, " USING ", kSeriesKey);
  }
  if (column != nullptr) {
    db_selectWhere(buffer, size);
    db_selectCondtion(buffer, size, column, kSeriesLike, value);
  }
}

template <typename Record>
int32_t readJoined(const Series &series, int32_t firstDay, int32_t lastDay, const char *column,
                   const char *value, Record ***list, int32_t *rows,
                   ReadConversion<Record> convert) {
  char buffer[kJoinReadCapacity] = {};
  composeSeriesSelect(buffer, sizeof buffer, series, firstDay, lastDay, column, value);
  return readConvertedList(buffer, convert, list, rows);
}

// The week of a series in one join has the index table's columns and all 2016 slot columns,
// more than SQLite's stock limit of 2000 result columns. Where the connection's limit is lower
// than that, the week is read in two joins (days 1..3 and 4..7) whose rows are merged.
constexpr int32_t kFirstDaysOfSplitWeek = 3;

bool weekFitsOneJoin(const Series &series) {
  int32_t columns = series.primitiveCount + static_cast<int32_t>(db_calcSlotCount());
  return sqlite3_limit(database_connection, SQLITE_LIMIT_COLUMN, -1) >= columns;
}

int32_t readWeek(const Series &series, const char *column, const char *value,
                 BandWidthRecord ***list, int32_t *rows) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) return status;
  if (weekFitsOneJoin(series)) {
    return readJoined(series, 1, kSeriesDays, column, value, list, rows, db_structBandWidth);
  }
  status = readJoined(series, 1, kFirstDaysOfSplitWeek, column, value, list, rows,
                      db_structBandWidth);
  if (status != DB_STATUS_SUCCESS) return status;
  // The later days' cells go straight into the same records, each slot by its column name.
  char buffer[kJoinReadCapacity] = {};
  composeSeriesSelect(buffer, sizeof buffer, series, kFirstDaysOfSplitWeek + 1, kSeriesDays, column,
                      value);
  adb::TableResult later;
  status = db_readTableContent(buffer, &later.cells, &later.rows, &later.columns);
  if (status == DB_STATUS_SUCCESS) {
    adb::mergeWeekCells(*list, *rows, later.cells, later.rows, later.columns);
  } else {
    db_freeBandWidthResult(list, *rows);  // half a week is no week
  }
  return status;
}

int32_t readIndexTable(const Series &series, PrimitiveDayTableRecord ***list, int32_t *rows) {
  char buffer[kIndexReadCapacity] = {};
  db_selectQuery(buffer, sizeof buffer);
  db_selectFieldNames(buffer, sizeof buffer, nullptr, 0, series.primitiveTable);
  return readConvertedList(buffer, db_structPrimitiveDayTable, list, rows);
}

int32_t readMacList(const Series &series, char ***cells, int32_t *rowCount, int32_t *columnCount) {
  char buffer[kIndexReadCapacity] = {};
  db_selectQuery(buffer, sizeof buffer);
  db_selectFieldNames(buffer, sizeof buffer, MAC_FIELD, 1, series.primitiveTable);
  return db_readTableContent(buffer, cells, rowCount, columnCount);
}

// Reads `fields` of the rows where `column` LIKE `value` into caller storage, at most
// `capacity` rows of it. Returns the read's status and the number of rows found.
struct RowsRead {
  int32_t status;
  int32_t rows;
};

RowsRead readIntoStorage(const char *table, char **fields, int32_t fieldCount, const char *column,
                         const char *value, int32_t capacity, uint32_t *timestamps,
                         int32_t *slotIndexes, uint64_t *values, char (*macs)[32], char *source,
                         bool convertOnlyRows) {
  char buffer[kRowReadCapacity] = {};
  db_selectQuery(buffer, sizeof buffer);
  db_selectFieldNames(buffer, sizeof buffer, fields, fieldCount, table);
  db_selectWhere(buffer, sizeof buffer);
  db_selectCondtion(buffer, sizeof buffer, column, kSeriesLike, value);
  adb::TableResult result;
  int32_t status = db_readTableContent(buffer, &result.cells, &result.rows, &result.columns);
  if (status != DB_STATUS_SUCCESS) return {status, result.rows};
  if (convertOnlyRows && result.rows == 0) return {status, 0};
  // Never more rows than the caller has room for.
  int32_t converted = result.rows < capacity ? result.rows : capacity;
  status = db_getRateIdxTimeStamp(result.cells, converted, result.columns, timestamps, slotIndexes,
                                  values, macs, source);
  if (convertOnlyRows) status = DB_STATUS_SUCCESS;
  return {status, result.rows};
}

int32_t readLatestRow(const Series &series, const char *mac, uint32_t *timestamp,
                      int32_t *slotIndex, char *source) {
  return readIntoStorage(series.primitiveTable, series.latestFields, series.latestCount, kSeriesKey,
                         mac, 1, timestamp, slotIndex, nullptr, nullptr, source, false)
      .status;
}

int32_t readSourceRows(const Series &series, const char *source, uint32_t *timestamps,
                       int32_t *slotIndexes, char (*macs)[32], int32_t *rows) {
  RowsRead read = readIntoStorage(series.primitiveTable, series.latestFields, series.latestCount,
                                  "SOURCE_S", source, DB_SOURCE_ROWS_MAX, timestamps, slotIndexes,
                                  nullptr, macs, nullptr, true);
  if (rows != nullptr) *rows = read.rows;
  return read.status;
}

int32_t readSlotValue(const Series &series, const char *mac, int32_t slot, uint64_t *value,
                      adb::log::Origin origin) {
  int32_t day = db_findTable(slot);
  if (day == 0) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Cnt find tableIdx using slot index\n");
    return DB_STATUS_FAILURE;
  }
  char table[kSlotTableCapacity] = {};
  dayTableName(adb::TextBuilder(table, sizeof table), series, day);
  char column[kSlotColumnCapacity] = {};
  adb::TextBuilder(column, sizeof column).appendf("%s%d", "SLOT", slot);
  char *fields[2] = {text(kSeriesKey), column};
  return readIntoStorage(table, fields, 2, kSeriesKey, mac, 1, nullptr, nullptr, value, nullptr,
                         nullptr, false)
      .status;
}

/* ---- spans ---- */

// One day table of a span into `record` (the slot columns present are written in place).
int32_t readSpanDay(const Series &series, const char *mac, int32_t day, BandWidthRecord *record) {
  char table[kSlotTableCapacity] = {};
  dayTableName(adb::TextBuilder(table, sizeof table), series, day);
  char buffer[kSpanDayReadCapacity] = {};
  db_selectQuery(buffer, sizeof buffer);
  db_selectFieldNames(buffer, sizeof buffer, nullptr, 0, table);
  db_selectWhere(buffer, sizeof buffer);
  db_selectCondtion(buffer, sizeof buffer, kSeriesKey, kSeriesLike, mac);
  adb::TableResult result;
  int32_t status = db_readTableContent(buffer, &result.cells, &result.rows, &result.columns);
  if (status == DB_STATUS_SUCCESS)
    status = db_setSlotRate(result.cells, result.rows, result.columns, record);
  return status;
}

int32_t readSpan(const Series &series, const char *mac, int32_t first, int32_t last,
                 BandWidthRecord *record, adb::log::Origin origin) {
  char macText[kSpanMacCapacity] = {};
  adb::TextBuilder(macText, sizeof macText).append(mac);
  int32_t firstDay = db_findTable(first);
  int32_t lastDay = db_findTable(last);

  if (first <= last) {
    for (int32_t day = firstDay; day <= lastDay; ++day) {
      int32_t status = readSpanDay(series, macText, day, record);
      if (status != DB_STATUS_SUCCESS) {
        ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Read %s table for day %d failed Ret %d\n",
                    series.spanName, day, status);
        ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", series.spanFailed);
        return status;
      }
    }
  } else {
    // The span wraps past the end of the week: days 1..lastDay, then firstDay..7. When both ends
    // lie in one day, that day is read once, by the second pass. A failure of the first pass is
    // logged and left to the second pass to decide.
    for (int32_t day = 1; day <= lastDay && !(firstDay == lastDay && day == lastDay); ++day) {
      int32_t status = readSpanDay(series, macText, day, record);
      if (status != DB_STATUS_SUCCESS) {
        ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Read %s table for day %d failed Ret %d\n",
                    series.spanName, day, status);
        break;
      }
    }
    for (int32_t day = firstDay; day <= kSeriesDays; ++day) {
      int32_t status = readSpanDay(series, macText, day, record);
      if (status == DB_STATUS_SUCCESS) continue;
      ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Read %s table for day %d failed Ret %d\n",
                  series.spanName, day, status);
      if (series.spanSkipsMissingDay && status == DB_STATUS_NO_TABLE) continue;
      ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", series.spanFailed);
      return status;
    }
  }
  db_adjustSlotRate(record, first, last);
  return DB_STATUS_SUCCESS;
}

int32_t readLatestSpan(const Series &series, const char *source, uint32_t from,
                       BandWidthRecord *record, int32_t *wanCount, adb::log::Origin origin) {
  uint32_t timestamps[DB_SOURCE_ROWS_MAX] = {};
  int32_t slotIndexes[DB_SOURCE_ROWS_MAX] = {};
  char macs[DB_SOURCE_ROWS_MAX][32] = {};
  int32_t first = 0;
  int32_t last = 0;
  int32_t localCount = 0;
  int32_t *count = wanCount != nullptr ? wanCount : &localCount;

  int32_t status = readSourceRows(series, source, timestamps, slotIndexes, macs, count);
  if (*count > kMaxWanRows) {
    *count = kMaxWanRows;
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "More than MAX [%d] WAN found in DB", kMaxWanRows);
  }
  if (status != DB_STATUS_SUCCESS) return status;
  if (*count < 1) return DB_STATUS_SUCCESS;  // no such source: the record is left alone

  status = db_findIndexLimits(from, timestamps[0], slotIndexes[0], &first, &last);
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", series.limitsFailed);
    return status;
  }
  if (record == nullptr) return DB_STATUS_FAILURE;
  record->startIndex = static_cast<uint32_t>(first);
  record->endIndex = static_cast<uint32_t>(last);
  record->timestamp = timestamps[0];
  record->slotIndex = slotIndexes[0];
  status = series.spanReader(macs[0], first, last, record);
  if (status != DB_STATUS_SUCCESS) {
    // Both series report with the receive side's text.
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] CMA Reading Rx tables failed\n");
    return status;
  }
  return DB_STATUS_SUCCESS;
}

}  // namespace

extern "C" {

// clang-format off
ADB_API int32_t db_updatePrimitiveRssi(char **values)        { return adb::throughGate(kRssi.primitiveId, kRssi.word, values, kRssi.primitiveCount, [&] { return writeIndexRow(kRssi, values); }); }
ADB_API int32_t db_updatePrimitiveBandWidthRx(char **values) { return adb::throughGate(kRx.primitiveId, kRx.word, values, kRx.primitiveCount, [&] { return writeIndexRow(kRx, values); }); }
ADB_API int32_t db_updatePrimitiveBandWidthTx(char **values) { return adb::throughGate(kTx.primitiveId, kTx.word, values, kTx.primitiveCount, [&] { return writeIndexRow(kTx, values); }); }
ADB_API int32_t db_updateRssiSlot(char **values)             { return writeSlot(kRssi, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateBandWidthSlotRx(char **values)      { return writeSlot(kRx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateBandWidthSlotTx(char **values)      { return writeSlot(kTx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateRssi(char **values)                 { return writeSample(kRssi, values); }
ADB_API int32_t db_updateBandWidthRx(char **values)          { return writeSample(kRx, values); }
ADB_API int32_t db_updateBandWidthTx(char **values)          { return writeSample(kTx, values); }
ADB_API int32_t db_updateRssiSlotDefaultValue(char **values) { return fillDefaults(kRssi, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateRxSlotDefaultValue(char **values)   { return fillDefaults(kRx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateTxSlotDefaultValue(char **values)   { return fillDefaults(kTx, values, ADB_LOG_ORIGIN); }

ADB_API int32_t db_updateQueuePrimitiveRssi(char **values)        { return replayIndexRow(kRssi, values); }
ADB_API int32_t db_updateQueuePrimitiveBandWidthRx(char **values) { return replayIndexRow(kRx, values); }
ADB_API int32_t db_updateQueuePrimitiveBandWidthTx(char **values) { return replayIndexRow(kTx, values); }
ADB_API int32_t db_updateQueueRssiSlot(char **values)             { return replaySlot(kRssi, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateQueueBandWidthSlotRx(char **values)      { return replaySlot(kRx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateQueueBandWidthSlotTx(char **values)      { return replaySlot(kTx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateQueueRssiSlotDefaultValue(char **values) { return replayDefaults(kRssi, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateQueueRxSlotDefaultValue(char **values)   { return replayDefaults(kRx, values, ADB_LOG_ORIGIN); }
ADB_API int32_t db_updateQueueTxSlotDefaultValue(char **values)   { return replayDefaults(kTx, values, ADB_LOG_ORIGIN); }

ADB_API int32_t db_readPrimitiveRssiTable(PrimitiveDayTableRecord ***list, int32_t *rows) { return readIndexTable(kRssi, list, rows); }
ADB_API int32_t db_readPrimitiveRxTable(PrimitiveDayTableRecord ***list, int32_t *rows)   { return readIndexTable(kRx, list, rows); }
ADB_API int32_t db_readPrimitiveTxTable(PrimitiveDayTableRecord ***list, int32_t *rows)   { return readIndexTable(kTx, list, rows); }

ADB_API int32_t db_readMacRssiSelect(int32_t day, const char *mac, RateRecord ***list, int32_t *rows)        { return readJoined(kRssi, day, day, kSeriesKey, mac, list, rows, db_readRateStruct); }
ADB_API int32_t db_readMacBandWidthRxSelect(int32_t day, const char *mac, RateRecord ***list, int32_t *rows) { return readJoined(kRx, day, day, kSeriesKey, mac, list, rows, db_readRateStruct); }
ADB_API int32_t db_readMacBandWidthTxSelect(int32_t day, const char *mac, RateRecord ***list, int32_t *rows) { return readJoined(kTx, day, day, kSeriesKey, mac, list, rows, db_readRateStruct); }
ADB_API int32_t db_readSourceDataRxSelect(int32_t day, const char *source, RateRecord ***list, int32_t *rows) { return readJoined(kRx, day, day, "SOURCE_S", source, list, rows, db_readRateStruct); }
ADB_API int32_t db_readSourceDataTxSelect(int32_t day, const char *source, RateRecord ***list, int32_t *rows) { return readJoined(kTx, day, day, "SOURCE_S", source, list, rows, db_readRateStruct); }

ADB_API int32_t db_readMacRssi(const char *mac, BandWidthRecord ***list, int32_t *rows)        { return readWeek(kRssi, kSeriesKey, mac, list, rows); }
ADB_API int32_t db_readMacBandWidthRx(const char *mac, BandWidthRecord ***list, int32_t *rows) { return readWeek(kRx, kSeriesKey, mac, list, rows); }
ADB_API int32_t db_readMacBandWidthTx(const char *mac, BandWidthRecord ***list, int32_t *rows) { return readWeek(kTx, kSeriesKey, mac, list, rows); }
ADB_API int32_t db_readSourceDataRx(const char *source, BandWidthRecord ***list, int32_t *rows) { return readWeek(kRx, "SOURCE_S", source, list, rows); }
ADB_API int32_t db_readSourceDataTx(const char *source, BandWidthRecord ***list, int32_t *rows) { return readWeek(kTx, "SOURCE_S", source, list, rows); }
ADB_API int32_t db_readBandWidthRxTable(BandWidthRecord ***list, int32_t *rows) { return readWeek(kRx, nullptr, nullptr, list, rows); }
ADB_API int32_t db_readBandWidthTxTable(BandWidthRecord ***list, int32_t *rows) { return readWeek(kTx, nullptr, nullptr, list, rows); }

ADB_API int32_t db_readAllDevMacRssi(char ***cells, int32_t *rowCount, int32_t *columnCount) { return readMacList(kRssi, cells, rowCount, columnCount); }
ADB_API int32_t db_readAllDevMacRx(char ***cells, int32_t *rowCount, int32_t *columnCount)   { return readMacList(kRx, cells, rowCount, columnCount); }
ADB_API int32_t db_readAllDevMacTx(char ***cells, int32_t *rowCount, int32_t *columnCount)   { return readMacList(kTx, cells, rowCount, columnCount); }

ADB_API int32_t db_readLatestRssiSlotIndexTimeStamp(const char *mac, uint32_t *timestamp, int32_t *slotIndex) { return readLatestRow(kRssi, mac, timestamp, slotIndex, nullptr); }
ADB_API int32_t db_readLatestRxSlotIndexTimeStamp(const char *mac, uint32_t *timestamp, int32_t *slotIndex, char *source) { return readLatestRow(kRx, mac, timestamp, slotIndex, source); }
ADB_API int32_t db_readLatestTxSlotIndexTimeStamp(const char *mac, uint32_t *timestamp, int32_t *slotIndex, char *source) { return readLatestRow(kTx, mac, timestamp, slotIndex, source); }
ADB_API int32_t db_readRxSourceSlotIndexTimeStamp(const char *source, uint32_t *timestamps, int32_t *slotIndexes, char (*macs)[32], int32_t *rows) { return readSourceRows(kRx, source, timestamps, slotIndexes, macs, rows); }
ADB_API int32_t db_readTxSourceSlotIndexTimeStamp(const char *source, uint32_t *timestamps, int32_t *slotIndexes, char (*macs)[32], int32_t *rows) { return readSourceRows(kTx, source, timestamps, slotIndexes, macs, rows); }
ADB_API int32_t db_readRxSlotValue(const char *mac, int32_t slot, uint64_t *value) { return readSlotValue(kRx, mac, slot, value, ADB_LOG_ORIGIN); }
ADB_API int32_t db_readTxSlotValue(const char *mac, int32_t slot, uint64_t *value) { return readSlotValue(kTx, mac, slot, value, ADB_LOG_ORIGIN); }
ADB_API int32_t db_readRxStartToEnd(const char *mac, int32_t start, int32_t end, BandWidthRecord *record) { return readSpan(kRx, mac, start, end, record, ADB_LOG_ORIGIN); }
ADB_API int32_t db_readTxStartToEnd(const char *mac, int32_t start, int32_t end, BandWidthRecord *record) { return readSpan(kTx, mac, start, end, record, ADB_LOG_ORIGIN); }
ADB_API int32_t db_readBandWidthLatestRx(const char *source, uint32_t from, BandWidthRecord *record, int32_t *wanCount) { return readLatestSpan(kRx, source, from, record, wanCount, ADB_LOG_ORIGIN); }
ADB_API int32_t db_readBandWidthLatestTx(const char *source, uint32_t from, BandWidthRecord *record, int32_t *wanCount) { return readLatestSpan(kTx, source, from, record, wanCount, ADB_LOG_ORIGIN); }
// clang-format on

ADB_API int32_t db_readRssiSlotValue(const char *mac, int32_t slot, uint16_t *value) {
  uint64_t wide = 0;
  int32_t status = readSlotValue(kRssi, mac, slot, &wide, ADB_LOG_ORIGIN);
  // RSSI values are 16-bit: the low half of the stored value is kept.
  if (status == DB_STATUS_SUCCESS && value != nullptr) *value = static_cast<uint16_t>(wide);
  return status;
}

ADB_API int32_t db_findIndexLimits(uint32_t from, uint32_t to, int32_t latest, int32_t *start,
                                   int32_t *end) {
  if (from >= to) return DB_STATUS_FAILURE;
  // Signed 32-bit arithmetic, as the slot numbers are; a partial slot counts as a whole one.
  int32_t seconds = static_cast<int32_t>(to - from);
  int32_t rest = seconds % static_cast<int32_t>(kSlotSeconds);
  if (rest != 0) seconds = static_cast<int32_t>(static_cast<int64_t>(seconds) + kSlotSeconds - rest);
  int32_t slots = seconds / static_cast<int32_t>(kSlotSeconds);
  int32_t ring = static_cast<int32_t>(db_calcSlotCount());
  int32_t first = slots <= ring ? latest - slots + 1 : latest - ring + 1;
  if (first <= 0) first += ring;
  if (start != nullptr) *start = first;
  if (end != nullptr) *end = latest;
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_adjustSlotRate(BandWidthRecord *record, int32_t start, int32_t end) {
  const int32_t ring = static_cast<int32_t>(db_calcSlotCount());
  // Slot numbers outside the week have no element: nothing to pack.
  if (record == nullptr || start < 1 || start > ring || end < 1 || end > ring) return 0;
  // The values pass through signed 32 bits and come back sign-extended; samples are expected
  // below 2^31, and the narrowing is part of what readers of packed spans get.
  int32_t packed[DB_SLOTS_PER_WEEK] = {};
  int32_t last = start > end ? end + ring : end;
  uint32_t count = 0;
  for (int32_t i = start - 1; i < last; ++i) {
    packed[count++] = static_cast<int32_t>(static_cast<uint32_t>(record->slots[i % ring]));
  }
  record->slotCount = count;
  std::memset(record->slots, 0, sizeof record->slots);
  for (uint32_t i = 0; i < count; ++i) {
    record->slots[i] = static_cast<uint64_t>(static_cast<int64_t>(packed[i]));
  }
  return 0;
}

}  // extern "C"
