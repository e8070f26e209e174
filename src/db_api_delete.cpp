/*
 * db_api_delete.cpp - deletes and drops of the analytics tables, through the write queue.
 *
 * Every delete and drop is one row of a table: its function id, the table family it waits
 * behind in the queue, the table (or the series word of a day table), and the key column of a
 * delete by key. One function runs any row through the queue gate; its replay twin runs the
 * same statement for a parked request. The three whole-series removals are made of the gated
 * index-row and day deletes.
 */
#include <cstdint>

#include "analyticsdb.h"
#include "internal/gate.h"
#include "internal/log.h"
#include "internal/text_builder.h"

ADB_LOG_MODULE("db_api_delete")

namespace {

constexpr const char *kLike = " LIKE ";
constexpr int32_t kDaysPerWeek = 7;
// The day text of a day delete holds three digits; that of a day drop 31 characters.
constexpr size_t kDeleteDayTextCapacity = 4;
constexpr size_t kDropDayTextCapacity = 32;
constexpr size_t kDeleteTableNameCapacity = 16;
constexpr size_t kDropTableNameCapacity = 32;

enum class Statement { kDeleteRows, kDropTable };

struct Removal {
  int32_t functionId;
  const char *family;     // the queue's table family
  const char *table;      // the table, or the series word of a day table
  bool dayTable;          // table is "<word><day>"
  const char *keyColumn;  // delete by key; null: every row
  Statement statement;
};

// clang-format off
constexpr Removal kDropDeviceInfo       {26, "DEVICEINFO",      "DEVICEINFO",            false, nullptr,         Statement::kDropTable};
constexpr Removal kDropMeshTopo         {27, "MESHTOPO",        "MESHTOPO",              false, nullptr,         Statement::kDropTable};
constexpr Removal kDropPrimitiveRx      {28, "BANDWIDTHRX",     "PRIMITIVE_BANDWIDTHRX", false, nullptr,         Statement::kDropTable};
constexpr Removal kDropDayRx            {29, "BANDWIDTHRX",     "BANDWIDTHRX",           true,  nullptr,         Statement::kDropTable};
constexpr Removal kDropPrimitiveTx      {30, "BANDWIDTHTX",     "PRIMITIVE_BANDWIDTHTX", false, nullptr,         Statement::kDropTable};
constexpr Removal kDropDayTx            {31, "BANDWIDTHTX",     "BANDWIDTHTX",           true,  nullptr,         Statement::kDropTable};
constexpr Removal kDropPrimitiveRssi    {32, "RSSI",            "PRIMITIVE_RSSI",        false, nullptr,         Statement::kDropTable};
constexpr Removal kDropDayRssi          {33, "RSSI",            "RSSI",                  true,  nullptr,         Statement::kDropTable};
constexpr Removal kDeleteDeviceInfo     {34, "DEVICEINFO",      "DEVICEINFO",            false, nullptr,         Statement::kDeleteRows};
constexpr Removal kDeleteMacDeviceInfo  {35, "DEVICEINFO",      "DEVICEINFO",            false, "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeleteMeshTopo       {36, "MESHTOPO",        "MESHTOPO",              false, nullptr,         Statement::kDeleteRows};
constexpr Removal kDeleteMacMeshTopo    {37, "MESHTOPO",        "MESHTOPO",              false, "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeleteDayRssi        {38, "RSSI",            "RSSI",                  true,  "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeletePrimitiveRssi  {39, "RSSI",            "PRIMITIVE_RSSI",        false, "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeleteDayRx          {40, "BANDWIDTHRX",     "BANDWIDTHRX",           true,  "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeletePrimitiveRx    {41, "BANDWIDTHRX",     "PRIMITIVE_BANDWIDTHRX", false, "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeleteDayTx          {43, "BANDWIDTHTX",     "BANDWIDTHTX",           true,  "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeletePrimitiveTx    {44, "BANDWIDTHTX",     "PRIMITIVE_BANDWIDTHTX", false, "MAC_S",         Statement::kDeleteRows};
constexpr Removal kDeleteMacThreshold   {46, "DEVICETHRESHOLD", "DEVICETHRESHOLD",       false, "DEVICECLASS_S", Statement::kDeleteRows};
// clang-format on

// Removal of every device whose bandwidth source is not the WAN, with its day rows.
struct NonWanRemoval {
  int32_t functionId;
  const char *family;
  const char *primitiveTable;
};
constexpr NonWanRemoval kNonWanRx{42, "BANDWIDTHRX", "PRIMITIVE_BANDWIDTHRX"};
constexpr NonWanRemoval kNonWanTx{45, "BANDWIDTHTX", "PRIMITIVE_BANDWIDTHTX"};

// The statement of one removal, without the gate: what the API runs and what its replay runs.
int32_t runRemoval(const Removal &removal, const char *key, int32_t day) {
  char dayTable[kDropTableNameCapacity] = {};
  const char *table = removal.table;
  if (removal.dayTable) {
    size_t capacity = removal.statement == Statement::kDropTable ? kDropTableNameCapacity
                                                                 : kDeleteTableNameCapacity;
    adb::TextBuilder(dayTable, capacity).appendf("%s%d", removal.table, day);
    table = dayTable;
  }
  if (removal.statement == Statement::kDropTable) return db_dropTable(table);
  // Without a key column the builder deletes every row; a key column needs its value.
  return db_deleteTableContent(table, removal.keyColumn,
                               removal.keyColumn != nullptr ? kLike : nullptr, key, nullptr);
}

// A delete by key must not become a delete of every row because its key is missing.
bool refuseMissingKey(const Removal &removal, const char *key, adb::log::Origin origin) {
  if (removal.keyColumn == nullptr || key != nullptr) return false;
  ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Delete: key %s of %s is NULL\n",
              removal.keyColumn, removal.table);
  return true;
}

// Runs a removal through the queue gate. The gate values are the key (deletes by key), the key
// and the day text (day deletes), a null key and the day text (day drops: they match any waiting
// request of their series), or none.
int32_t removeThroughGate(const Removal &removal, const char *key, int32_t day,
                          adb::log::Origin origin) {
  if (refuseMissingKey(removal, key, origin)) return DB_STATUS_FAILURE;
  char *values[2] = {const_cast<char *>(key), nullptr};
  int32_t count = removal.keyColumn != nullptr ? 1 : 0;
  char dayText[kDropDayTextCapacity] = {};
  if (removal.dayTable) {
    // A day delete keeps three digits of the day; a drop keeps 31 characters.
    size_t capacity = removal.statement == Statement::kDropTable ? kDropDayTextCapacity
                                                                 : kDeleteDayTextCapacity;
    adb::TextBuilder(dayText, capacity).appendf("%d", day);
    values[1] = dayText;
    count = 2;
  }
  return adb::throughGate(removal.functionId, removal.family, count > 0 ? values : nullptr, count,
                          [&] { return runRemoval(removal, key, day); });
}

int32_t replayRemoval(const Removal &removal, const char *key, int32_t day) {
  return adb::finishReplay(runRemoval(removal, key, day));
}

// The removal of one device from a whole series: its index row, then its row of every day
// table, each through its own exported delete. The result is the last failing day's status,
// else the index row's.
int32_t removeDeviceFromSeries(int32_t (*deletePrimitive)(const char *),
                               int32_t (*deleteDay)(const char *, int32_t), const char *mac) {
  int32_t status = deletePrimitive(mac);
  for (int32_t d = 1; d <= kDaysPerWeek; ++d) {
    int32_t dayStatus = deleteDay(mac, d);
    if (dayStatus != DB_STATUS_SUCCESS) status = dayStatus;
  }
  return status;
}

// Foreign keys must be enforced for the day rows to go with their index rows.
int32_t deleteNonWan(const NonWanRemoval &removal, adb::log::Origin origin) {
  int32_t status = db_setForeignKey();
  if (status != DB_STATUS_SUCCESS) {
    // Both series name the receive table here; the text is matched by existing log readers.
    ADB_LOG_FOR(origin, RYX_LOG_ERROR,
                "[analyticsDB] SETTING FOREIGN KEY FAILED for BANDWIDTHRXTABLE ret [%d]", status);
    return status;
  }
  return db_deleteTableContent(removal.primitiveTable, "SOURCE_S", " NOT LIKE ", "WAN", nullptr);
}

int32_t replayNonWan(const NonWanRemoval &removal, adb::log::Origin origin) {
  int32_t status = db_setForeignKey();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR,
                "[analyticsDB][RETRY]SETTING FOREIGN KEY FAILED for BANDWIDTHRXTABLE ret [%d]",
                status);
    return adb::finishReplay(status);
  }
  return adb::finishReplay(
      db_deleteTableContent(removal.primitiveTable, "SOURCE_S", " NOT LIKE ", "WAN", nullptr));
}

int32_t removeNonWanThroughGate(const NonWanRemoval &removal, adb::log::Origin origin) {
  return adb::throughGate(removal.functionId, removal.family, nullptr, 0,
                          [&] { return deleteNonWan(removal, origin); });
}

}  // namespace

extern "C" {

// clang-format off
ADB_API int32_t db_deleteDeviceInfoTable(void)                   { return removeThroughGate(kDeleteDeviceInfo, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacDeviceInfo(const char *mac)          { return removeThroughGate(kDeleteMacDeviceInfo, mac, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMeshTopoTable(void)                     { return removeThroughGate(kDeleteMeshTopo, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacMeshTopo(const char *mac)            { return removeThroughGate(kDeleteMacMeshTopo, mac, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacDeviceThreshold(const char *cls)     { return removeThroughGate(kDeleteMacThreshold, cls, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteDayRssi(const char *mac, int32_t day)   { return removeThroughGate(kDeleteDayRssi, mac, day, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deletePrimitiveRssi(const char *mac)          { return removeThroughGate(kDeletePrimitiveRssi, mac, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacRssi(const char *mac)                { return removeDeviceFromSeries(db_deletePrimitiveRssi, db_deleteDayRssi, mac); }
ADB_API int32_t db_deleteDayBandWidthRx(const char *mac, int32_t day) { return removeThroughGate(kDeleteDayRx, mac, day, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deletePrimitiveBandWidthRx(const char *mac)   { return removeThroughGate(kDeletePrimitiveRx, mac, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacBandWidthRx(const char *mac)         { return removeDeviceFromSeries(db_deletePrimitiveBandWidthRx, db_deleteDayBandWidthRx, mac); }
ADB_API int32_t db_deleteNonWanBandwidthRxInfo(void)             { return removeNonWanThroughGate(kNonWanRx, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteDayBandWidthTx(const char *mac, int32_t day) { return removeThroughGate(kDeleteDayTx, mac, day, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deletePrimitiveBandWidthTx(const char *mac)   { return removeThroughGate(kDeletePrimitiveTx, mac, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteMacBandWidthTx(const char *mac)         { return removeDeviceFromSeries(db_deletePrimitiveBandWidthTx, db_deleteDayBandWidthTx, mac); }
ADB_API int32_t db_deleteNonWanBandwidthTxInfo(void)             { return removeNonWanThroughGate(kNonWanTx, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropDeviceInfoTable(void)                     { return removeThroughGate(kDropDeviceInfo, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropMeshTopoTable(void)                       { return removeThroughGate(kDropMeshTopo, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropPrimitiveBandwidthRxTable(void)           { return removeThroughGate(kDropPrimitiveRx, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropBandwidthRxTable(int32_t day)             { return removeThroughGate(kDropDayRx, nullptr, day, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropPrimitiveBandwidthTxTable(void)           { return removeThroughGate(kDropPrimitiveTx, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropBandwidthTxTable(int32_t day)             { return removeThroughGate(kDropDayTx, nullptr, day, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropPrimitiveRssiTable(void)                  { return removeThroughGate(kDropPrimitiveRssi, nullptr, 0, ADB_LOG_ORIGIN); }
ADB_API int32_t db_dropRssiTable(int32_t day)                    { return removeThroughGate(kDropDayRssi, nullptr, day, ADB_LOG_ORIGIN); }

ADB_API int32_t db_dropQueueDeviceInfoTable(void)                { return replayRemoval(kDropDeviceInfo, nullptr, 0); }
ADB_API int32_t db_dropQueueMeshTopoTable(void)                  { return replayRemoval(kDropMeshTopo, nullptr, 0); }
// The capital-W name has always dropped MESHTOPO; callers rely on it, so it stays so.
ADB_API int32_t db_dropQueuePrimitiveBandWidthRxTable(void)      { return replayRemoval(kDropMeshTopo, nullptr, 0); }
ADB_API int32_t db_dropQueuePrimitiveBandwidthRxTable(void)      { return replayRemoval(kDropPrimitiveRx, nullptr, 0); }
ADB_API int32_t db_dropQueueBandwidthRxTable(int32_t day)        { return replayRemoval(kDropDayRx, nullptr, day); }
ADB_API int32_t db_dropQueuePrimitiveBandwidthTxTable(void)      { return replayRemoval(kDropPrimitiveTx, nullptr, 0); }
ADB_API int32_t db_dropQueueBandwidthTxTable(int32_t day)        { return replayRemoval(kDropDayTx, nullptr, day); }
ADB_API int32_t db_dropQueuePrimitiveRssiTable(void)             { return replayRemoval(kDropPrimitiveRssi, nullptr, 0); }
ADB_API int32_t db_dropQueueRssiTable(int32_t day)               { return replayRemoval(kDropDayRssi, nullptr, day); }
ADB_API int32_t db_deleteQueueDeviceInfoTable(void)              { return replayRemoval(kDeleteDeviceInfo, nullptr, 0); }
ADB_API int32_t db_deleteQueueMacDeviceInfo(const char *mac)     { return replayRemoval(kDeleteMacDeviceInfo, mac, 0); }
ADB_API int32_t db_deleteQueueMeshTopoTable(void)                { return replayRemoval(kDeleteMeshTopo, nullptr, 0); }
ADB_API int32_t db_deleteQueueMacMeshTopo(const char *mac)       { return replayRemoval(kDeleteMacMeshTopo, mac, 0); }
ADB_API int32_t db_deleteQueueDayRssi(const char *mac, int32_t day) { return replayRemoval(kDeleteDayRssi, mac, day); }
ADB_API int32_t db_deleteQueuePrimitiveRssi(const char *mac)     { return replayRemoval(kDeletePrimitiveRssi, mac, 0); }
ADB_API int32_t db_deleteQueueDayBandWidthRx(const char *mac, int32_t day) { return replayRemoval(kDeleteDayRx, mac, day); }
ADB_API int32_t db_deleteQueuePrimitiveBandWidthRx(const char *mac) { return replayRemoval(kDeletePrimitiveRx, mac, 0); }
ADB_API int32_t db_deleteQueueNonWanBandwidthRxInfo(void)        { return replayNonWan(kNonWanRx, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteQueueDayBandWidthTx(const char *mac, int32_t day) { return replayRemoval(kDeleteDayTx, mac, day); }
ADB_API int32_t db_deleteQueuePrimitiveBandWidthTx(const char *mac) { return replayRemoval(kDeletePrimitiveTx, mac, 0); }
ADB_API int32_t db_deleteQueueNonWanBandwidthTxInfo(void)        { return replayNonWan(kNonWanTx, ADB_LOG_ORIGIN); }
ADB_API int32_t db_deleteQueueMacDeviceThreshold(const char *cls) { return replayRemoval(kDeleteMacThreshold, cls, 0); }
// clang-format on

}  // extern "C"
