/*
 * db_api_update_read.cpp - the record APIs of the inventory and sample tables: writes through
 * the deferred write queue, their replays, and reads into typed records.
 */
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "analyticsdb.h"
#include "internal/gate.h"
#include "internal/guards.h"
#include "internal/log.h"
#include "internal/numbers.h"
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

// The writer of a function id; past the end when there is none.
consteval size_t inventoryWriterRow(int32_t functionId) {
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

// A list read: the read's status, else the conversion's (0, 1, or 2 when no row matched).
// The list is set only by the conversion, so a failed read leaves it as the caller had it.
template <typename Record>
int32_t readRecordList(const ReadStatement &read, const char *key, ReadConversion<Record> convert,
                       Record ***list, int32_t *rows) {
  if (list == nullptr || rows == nullptr) return DB_STATUS_FAILURE;
  char query[kReadQueryCapacity] = {};
  if (!readComposed(read, key, query)) return DB_STATUS_FAILURE;
  adb::TableResult result;
  int32_t status = db_readTableContent(query, &result.cells, rows, &result.columns);
  if (status == DB_STATUS_SUCCESS) status = convert(result.cells, list, *rows, result.columns);
  return status;
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
