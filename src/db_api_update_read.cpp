/*
 * db_api_update_read.cpp - the record APIs of the inventory and sample tables: writes through
 * the deferred write queue, their replays, and reads into typed records.
 */
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "analyticsdb.h"
#include "internal/gate.h"

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
