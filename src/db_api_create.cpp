/*
 * db_api_create.cpp - the analytics schema.
 *
 * The catalogue of tables as exported string arrays (column names, SQL types, constraints and
 * foreign keys per table, and the field-subset arrays through which the record APIs name the
 * columns they write or read), the time-slot model (288 slots of 300 seconds a day, seven days
 * a week), and the functions that create the fixed tables, the three index tables and the day
 * tables of the RSSI and bandwidth series. Creation runs through db_createTable, preceded by
 * db_alterTable while alterSchema is set, so that a raised schema version adds the columns an
 * older file lacks.
 */
#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <iterator>

#include "analyticsdb.h"
#include "internal/gate.h"
#include "internal/guards.h"
#include "internal/log.h"
#include "internal/text_builder.h"

ADB_LOG_MODULE("db_api_create")

namespace {

// The exported arrays are `char *` for their C callers, who never write through them; the
// library's own texts are literals. Evaluated at compile time, so every array is constant-
// initialised and nothing runs at load.
consteval char *schemaText(const char *literal) { return const_cast<char *>(literal); }

}  // namespace

/* ---------------------------------------------------------------- catalogue ---- */

// The columns of each table, one row per column: name, SQL type, constraint (nullptr: none).
// Each list fills the table's three parallel arrays and, where an API family writes the whole
// row, its field-subset array, so a column is spelled once.
#define ADB_KEY_CONSTRAINT "NOT NULL PRIMARY KEY COLLATE NOCASE"

#define ADB_DEVICEINFO_COLUMNS(COLUMN)                \
  COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)         \
  COLUMN("APID_S", "TEXT", nullptr)                   \
  COLUMN("IPADDR_S", "TEXT", nullptr)                 \
  COLUMN("CATEGORY_S", "TEXT", nullptr)               \
  COLUMN("HOST_S", "TEXT", nullptr)                   \
  COLUMN("MODEL_S", "TEXT", nullptr)                  \
  COLUMN("MANUFACTURER_S", "TEXT", nullptr)           \
  COLUMN("SERIALNUMBER_S", "TEXT", nullptr)           \
  COLUMN("INTERFACE_S", "TEXT", nullptr)              \
  COLUMN("ACTIVE", "INTEGER", nullptr)                \
  COLUMN("BAND_S", "TEXT", nullptr)                   \
  COLUMN("INTF_NAME_S", "TEXT", nullptr)              \
  COLUMN("INTF_INDEX", "INTEGER", nullptr)            \
  COLUMN("RSSI", "INTEGER", nullptr)                  \
  COLUMN("TXRATE", "REAL", nullptr)                   \
  COLUMN("RXRATE", "REAL", nullptr)                   \
  COLUMN("TXCNT", "INTEGER", nullptr)                 \
  COLUMN("RXCNT", "INTEGER", nullptr)                 \
  COLUMN("CAPACITY", "INTEGER", nullptr)              \
  COLUMN("DEVBWREQD", "REAL", nullptr)                \
  COLUMN("DEVSTREAMCAPABILITY_S", "TEXT", nullptr)    \
  COLUMN("NAME_S", "TEXT", nullptr)                   \
  COLUMN("FRIENDLYNAME_S", "TEXT", nullptr)           \
  COLUMN("PORTABLE", "INTEGER", "DEFAULT 1")          \
  COLUMN("DEVCRITICAL", "INTEGER", nullptr)           \
  COLUMN("DEVTIMESTAMP", "REAL", nullptr)             \
  COLUMN("ADDED_TS", "REAL", nullptr)                 \
  COLUMN("LASTONLINE_TS", "REAL", nullptr)            \
  COLUMN("LASTOFFLINE_TS", "REAL", nullptr)           \
  COLUMN("BEACONSTATE", "INTEGER", "DEFAULT 0")       \
  COLUMN("PREFERRED_BAND_S", "TEXT", "DEFAULT 'NA'")  \
  COLUMN("DEV_FP_DONE", "INTEGER", nullptr)           \
  COLUMN("OUI_S", "TEXT", nullptr)                    \
  COLUMN("PRODUCTCLASS_S", "TEXT", nullptr)           \
  COLUMN("LASTREBOOTTXCNT", "INTEGER", nullptr)       \
  COLUMN("LASTREBOOTRXCNT", "INTEGER", nullptr)       \
  /* An INTEGER column whose name contains "_S": its values are written quoted. */ \
  COLUMN("BANDSTEERING_STATE", "INTEGER", "DEFAULT 0") \
  COLUMN("IS_BRIDGED", "INTEGER", "DEFAULT 0")

#define ADB_MESHTOPO_COLUMNS(COLUMN)            \
  COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)   \
  COLUMN("ID_S", "TEXT", nullptr)               \
  COLUMN("PARENTID_S", "TEXT", nullptr)         \
  COLUMN("IPADDR_S", "TEXT", nullptr)           \
  COLUMN("ROLE_S", "TEXT", nullptr)             \
  COLUMN("OPERMODE_S", "TEXT", nullptr)         \
  COLUMN("BACKHAULINTFTYPE_S", "TEXT", nullptr) \
  COLUMN("STATUS_S", "TEXT", nullptr)           \
  COLUMN("HEALTHSTATUS_S", "TEXT", nullptr)

#define ADB_CLIENTS_COLUMNS(COLUMN)                \
  COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)      \
  COLUMN("ASSOC_BSSID_S", "TEXT", nullptr)         \
  COLUMN("ASSOC_MEDIUM_S", "TEXT", nullptr)        \
  COLUMN("CAP_BSS_TRANS", "INTEGER", nullptr)      \
  COLUMN("CAP_FAST_BSS_TRANS", "INTEGER", nullptr) \
  COLUMN("CAP_RADIO_MEASURE", "INTEGER", nullptr)  \
  COLUMN("CAP_24GHZ", "INTEGER", nullptr)          \
  COLUMN("CAP_5GHZ", "INTEGER", nullptr)           \
  COLUMN("CATEGORY_S", "TEXT", nullptr)            \
  COLUMN("TYPE_S", "TEXT", nullptr)                \
  COLUMN("MIMO_S", "TEXT", nullptr)                \
  COLUMN("VENDOR_MFG_S", "TEXT", nullptr)          \
  COLUMN("VENDOR_MNAME_S", "TEXT", nullptr)        \
  COLUMN("VENDOR_MNUMBER_S", "TEXT", nullptr)      \
  COLUMN("VENDOR_DNAME_S", "TEXT", nullptr)        \
  COLUMN("CAP_MODE_S", "TEXT", nullptr)            \
  COLUMN("CAP_24CSA", "INTEGER", nullptr)          \
  COLUMN("CAP_24ECSA", "INTEGER", nullptr)         \
  COLUMN("CAP_5CSA", "INTEGER", nullptr)           \
  COLUMN("CAP_5ECSA", "INTEGER", nullptr)          \
  COLUMN("CAP_DFS", "INTEGER", nullptr)            \
  COLUMN("ISTAVEXFPDONE", "INTEGER", nullptr)      \
  COLUMN("CAP_24GHZN", "INTEGER", nullptr)         \
  COLUMN("CAP_5GHZAC", "INTEGER", nullptr)

#define ADB_SUBSCRIBER_COLUMNS(COLUMN)                 \
  COLUMN("SERIALNUMBER_S", "TEXT", ADB_KEY_CONSTRAINT) \
  COLUMN("DOWNSTREAMBANDWIDTH", "INTEGER", nullptr)

#define ADB_CMA_COLUMNS(COLUMN)                     \
  COLUMN("TABLENAME_S", "TEXT", ADB_KEY_CONSTRAINT) \
  COLUMN("TIMESTAMP", "REAL", nullptr)

#define ADB_THRESHOLD_COLUMNS(COLUMN)                 \
  COLUMN("DEVICECLASS_S", "TEXT", ADB_KEY_CONSTRAINT) \
  COLUMN("DEVFILTERLEVEL", "INTEGER", nullptr)        \
  COLUMN("STREAMINGTHRESHOLD", "INTEGER", nullptr)    \
  COLUMN("INACTIVITYFILTER", "INTEGER", nullptr)      \
  COLUMN("RSSIGOODSTART", "INTEGER", nullptr)         \
  COLUMN("RSSIGOODEND", "INTEGER", nullptr)           \
  COLUMN("RSSIAVGSTART", "INTEGER", nullptr)          \
  COLUMN("RSSIAVGEND", "INTEGER", nullptr)            \
  COLUMN("RSSIBADSTART", "INTEGER", nullptr)          \
  COLUMN("RSSIBADEND", "INTEGER", nullptr)            \
  COLUMN("LONGPOLLTHRESHOLD", "INTEGER", nullptr)     \
  COLUMN("SHORTPOLLTHRESHOLD", "INTEGER", nullptr)    \
  COLUMN("VERSION", "REAL", nullptr)                  \
  COLUMN("WAN_FILTER_LEVEL", "INTEGER", nullptr)      \
  COLUMN("INACTIVITY_FILTER_LEVEL", "INTEGER", nullptr)

#define ADB_PRIMITIVE_RSSI_COLUMNS(COLUMN)     \
  COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)  \
  COLUMN("SLT_IND", "INTEGER", "DEFAULT 0")    \
  COLUMN("TIMESTAMP", "INTEGER", "DEFAULT 0")

// PRIMITIVE_BANDWIDTHRX and PRIMITIVE_BANDWIDTHTX have the same columns.
#define ADB_PRIMITIVE_BANDWIDTH_COLUMNS(COLUMN) \
  COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)   \
  COLUMN("SOURCE_S", "TEXT", nullptr)           \
  COLUMN("SLT_IND", "INTEGER", "DEFAULT 0")     \
  COLUMN("TIMESTAMP", "INTEGER", "DEFAULT 0")

// The key column of every day table; the slot columns are made when the table is created.
#define ADB_DAY_KEY_COLUMNS(COLUMN) COLUMN("MAC_S", "TEXT", ADB_KEY_CONSTRAINT)

#define ADB_COLUMN_NAME(name, type, constraint) schemaText(name),
#define ADB_COLUMN_TYPE(name, type, constraint) schemaText(type),
#define ADB_COLUMN_CONSTRAINT(name, type, constraint) schemaText(constraint),

// Defines an exported array of names with the extent the header declares, and refuses to compile
// when the list is shorter (an unfilled entry would be a silent null column).
#define ADB_NAME_ARRAY(array, ...)                                                     \
  ADB_API constinit char *array[] = {__VA_ARGS__};                                     \
  static_assert(std::initializer_list<char *>{__VA_ARGS__}.size() == std::size(array), \
                #array " does not fill its declared length")

extern "C" {

ADB_NAME_ARRAY(createDeviceFields, ADB_DEVICEINFO_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createDeviceTypes, ADB_DEVICEINFO_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createDeviceConstraints, ADB_DEVICEINFO_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createMeshFields, ADB_MESHTOPO_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createMeshTypes, ADB_MESHTOPO_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createMeshConstraints, ADB_MESHTOPO_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createClientsFields, ADB_CLIENTS_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createClientsTypes, ADB_CLIENTS_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createClientsConstraints, ADB_CLIENTS_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createSubscriberFields, ADB_SUBSCRIBER_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createSubscriberTypes, ADB_SUBSCRIBER_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createSubscriberConstraints, ADB_SUBSCRIBER_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createCmaFields, ADB_CMA_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createCmaTypes, ADB_CMA_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createCmaConstraints, ADB_CMA_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createThresholdFields, ADB_THRESHOLD_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createThresholdTypes, ADB_THRESHOLD_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createThresholdConstraints, ADB_THRESHOLD_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createPrimitiveRssiFields, ADB_PRIMITIVE_RSSI_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createPrimitiveRssiTypes, ADB_PRIMITIVE_RSSI_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createPrimitiveRssiConstraints, ADB_PRIMITIVE_RSSI_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createPrimitiveBandwidthRxFields, ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createPrimitiveBandwidthRxTypes, ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createPrimitiveBandwidthRxConstraints,
               ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createPrimitiveBandwidthTxFields, ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createPrimitiveBandwidthTxTypes, ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createPrimitiveBandwidthTxConstraints,
               ADB_PRIMITIVE_BANDWIDTH_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createRssiFields, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createRssiTypes, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createRssiConstraints, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createBandwidthRxFields, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createBandwidthRxTypes, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createBandwidthRxConstraints, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_CONSTRAINT));
ADB_NAME_ARRAY(createBandwidthTxFields, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(createBandwidthTxTypes, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_TYPE));
ADB_NAME_ARRAY(createBandwidthTxConstraints, ADB_DAY_KEY_COLUMNS(ADB_COLUMN_CONSTRAINT));

// The fixed and index tables have no foreign key: these arrays stay empty, kept for callers
// that pass them.
ADB_API constinit char *createDeviceForeignKeys[1] = {nullptr};
ADB_API constinit char *createMeshForeignKeys[1] = {nullptr};
ADB_API constinit char *createClientsForeignKeys[1] = {nullptr};
ADB_API constinit char *createSubscriberForeignKeys[1] = {nullptr};
ADB_API constinit char *createCmaForeignKeys[1] = {nullptr};
ADB_API constinit char *createThresholdForeignKeys[1] = {nullptr};
ADB_API constinit char *createPrimitiveRssiForeignKeys[1] = {nullptr};
ADB_API constinit char *createPrimitiveBandwidthRxForeignKeys[1] = {nullptr};
ADB_API constinit char *createPrimitiveBandwidthTxForeignKeys[1] = {nullptr};

// A day table's rows belong to the device's index row: deleting that row deletes its samples.
ADB_NAME_ARRAY(createRssiForeignKeys,
               schemaText("FOREIGN KEY (MAC_S) REFERENCES PRIMITIVE_RSSI(MAC_S) "
                          "ON DELETE CASCADE"));
ADB_NAME_ARRAY(createBandwidthRxForeignKeys,
               schemaText("FOREIGN KEY (MAC_S) REFERENCES PRIMITIVE_BANDWIDTHRX(MAC_S) "
                          "ON DELETE CASCADE"));
ADB_NAME_ARRAY(createBandwidthTxForeignKeys,
               schemaText("FOREIGN KEY (MAC_S) REFERENCES PRIMITIVE_BANDWIDTHTX(MAC_S) "
                          "ON DELETE CASCADE"));

/* ---------------------------------------------------------------- field subsets ---- */

// Each array fixes the order in which its API takes or hands back values, which is why some
// differ from the table order (rssiFieldNames, and bandWidthFieldNames against
// bandWidthTimeStampSlot).
ADB_NAME_ARRAY(deviceInfoFields, ADB_DEVICEINFO_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(devInfoAddedStatusUpdate,
               schemaText("MAC_S"), schemaText("IPADDR_S"), schemaText("HOST_S"),
               schemaText("MODEL_S"), schemaText("MANUFACTURER_S"), schemaText("SERIALNUMBER_S"),
               schemaText("INTERFACE_S"), schemaText("ACTIVE"), schemaText("CATEGORY_S"),
               schemaText("DEVBWREQD"), schemaText("DEVSTREAMCAPABILITY_S"), schemaText("NAME_S"),
               schemaText("FRIENDLYNAME_S"), schemaText("PORTABLE"), schemaText("DEVCRITICAL"),
               schemaText("DEVTIMESTAMP"), schemaText("ADDED_TS"), schemaText("LASTONLINE_TS"),
               schemaText("LASTOFFLINE_TS"));
ADB_NAME_ARRAY(devInfoLanUpdate,
               schemaText("MAC_S"), schemaText("APID_S"), schemaText("INTF_NAME_S"),
               schemaText("TXRATE"), schemaText("RXRATE"), schemaText("TXCNT"),
               schemaText("RXCNT"));
ADB_NAME_ARRAY(devInfoRssiFields,
               schemaText("MAC_S"), schemaText("TXCNT"), schemaText("RXCNT"), schemaText("RSSI"),
               schemaText("APID_S"));
ADB_NAME_ARRAY(devInfoBeaconFields,
               schemaText("MAC_S"), schemaText("BEACONSTATE"), schemaText("MODEL_S"),
               schemaText("SERIALNUMBER_S"), schemaText("MANUFACTURER_S"),
               schemaText("FRIENDLYNAME_S"));
ADB_NAME_ARRAY(devInfoBeaconFnameFields, schemaText("MAC_S"), schemaText("FRIENDLYNAME_S"));
ADB_NAME_ARRAY(devInfoOpsFields,
               schemaText("MAC_S"), schemaText("APID_S"), schemaText("INTF_INDEX"),
               schemaText("BAND_S"));
ADB_NAME_ARRAY(devInfoCapacityUpdate, schemaText("MAC_S"), schemaText("CAPACITY"));
ADB_NAME_ARRAY(devInfoPreferredBandFields, schemaText("MAC_S"), schemaText("PREFERRED_BAND_S"));
ADB_NAME_ARRAY(devInfoBandSteeringFields, schemaText("MAC_S"), schemaText("BANDSTEERING_STATE"));
ADB_NAME_ARRAY(devInfoIsBridgedFields, schemaText("MAC_S"), schemaText("IS_BRIDGED"));
ADB_NAME_ARRAY(devInfoCriticalRead, schemaText("DEVCRITICAL"));
ADB_NAME_ARRAY(devInfoCategoryRead, schemaText("CATEGORY_S"));
ADB_NAME_ARRAY(devInfoTimestampRead,
               schemaText("MAC_S"), schemaText("DEVTIMESTAMP"), schemaText("ACTIVE"),
               schemaText("INTF_NAME_S"));
ADB_NAME_ARRAY(devInfoCapacityRead, schemaText("MAC_S"), schemaText("CAPACITY"));
ADB_NAME_ARRAY(txRxCount,
               schemaText("MAC_S"), schemaText("TXCNT"), schemaText("RXCNT"),
               schemaText("INTF_NAME_S"), schemaText("BEACONSTATE"));
ADB_NAME_ARRAY(meshTopoFields, ADB_MESHTOPO_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(clientsFields, ADB_CLIENTS_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(deviceThresholdFields, ADB_THRESHOLD_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(subscriberInfoFields, ADB_SUBSCRIBER_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(cmaInfoFields, ADB_CMA_COLUMNS(ADB_COLUMN_NAME));
ADB_NAME_ARRAY(timeStampFields, schemaText("TIMESTAMP"));
ADB_NAME_ARRAY(rssiFieldNames, schemaText("MAC_S"), schemaText("TIMESTAMP"), schemaText("SLT_IND"));
ADB_NAME_ARRAY(bandWidthFieldNames,
               schemaText("MAC_S"), schemaText("SOURCE_S"), schemaText("TIMESTAMP"),
               schemaText("SLT_IND"));
ADB_NAME_ARRAY(bandWidthTimeStampSlot,
               schemaText("MAC_S"), schemaText("TIMESTAMP"), schemaText("SLT_IND"),
               schemaText("SOURCE_S"));
// "SLOT" is the prefix of the slot columns, not a column itself.
ADB_NAME_ARRAY(bandWidthSlotUpdate, schemaText("MAC_S"), schemaText("SLT_IND"), schemaText("SLOT"));
ADB_NAME_ARRAY(MAC_FIELD, schemaText("MAC_S"));

}  // extern "C"

#undef ADB_NAME_ARRAY
#undef ADB_KEY_CONSTRAINT
#undef ADB_COLUMN_NAME
#undef ADB_COLUMN_TYPE
#undef ADB_COLUMN_CONSTRAINT

/* ---------------------------------------------------------------- creation ---- */

namespace {

constexpr uint32_t kSlotSeconds = 300;
constexpr uint32_t kSecondsPerDay = 24 * 60 * 60;
constexpr uint32_t kSlotsPerDay = kSecondsPerDay / kSlotSeconds;
constexpr uint32_t kDaysPerWeek = 7;
static_assert(kSlotsPerDay == 288 && kSecondsPerDay % kSlotSeconds == 0);

constexpr size_t kDayTableNameCapacity = 32;  // series word and day number
constexpr size_t kSlotNameCapacity = 32;      // "SLOT"k
// The column arrays of a day table have room for the key and at most 299 slot columns; a larger
// slot count is refused rather than written past them.
constexpr int32_t kDayTableColumnCapacity = 300;
constexpr int32_t kMaxSlotsPerDayTable = kDayTableColumnCapacity - 1;

// Parallel column arrays and how many of their entries a statement uses.
struct ColumnSet {
  char **names;
  char **types;
  char **constraints;
  int32_t count;
};

// A table with fixed columns. `upgradeCount` columns (from the first) are added to an existing
// table that lacks them while alterSchema is set; `createCount` columns make a new table.
struct FixedTable {
  const char *name;
  char **names;
  char **types;
  char **constraints;
  char **foreignKeys;
  int32_t createCount;
  int32_t upgradeCount;
};

// Only the first nine CLIENTS columns are ever added to an existing CLIENTS table: the later
// ones are left out of the upgrade on purpose, and files depend on that.
constexpr FixedTable kMeshTopo{"MESHTOPO", createMeshFields, createMeshTypes,
                               createMeshConstraints, createMeshForeignKeys, 9, 9};
constexpr FixedTable kDeviceInfo{"DEVICEINFO", createDeviceFields, createDeviceTypes,
                                 createDeviceConstraints, createDeviceForeignKeys, 38, 38};
constexpr FixedTable kClients{"CLIENTS", createClientsFields, createClientsTypes,
                              createClientsConstraints, createClientsForeignKeys, 24, 9};
constexpr FixedTable kSubscriberInfo{"SUBSCRIBERINFO", createSubscriberFields,
                                     createSubscriberTypes, createSubscriberConstraints,
                                     createSubscriberForeignKeys, 2, 2};
constexpr FixedTable kDeviceThreshold{"DEVICETHRESHOLD", createThresholdFields,
                                      createThresholdTypes, createThresholdConstraints,
                                      createThresholdForeignKeys, 15, 15};
constexpr FixedTable kCmaInfo{"CMAINFO", createCmaFields, createCmaTypes, createCmaConstraints,
                              createCmaForeignKeys, 2, 2};
constexpr FixedTable kPrimitiveRssi{"PRIMITIVE_RSSI", createPrimitiveRssiFields,
                                    createPrimitiveRssiTypes, createPrimitiveRssiConstraints,
                                    createPrimitiveRssiForeignKeys, 3, 3};
constexpr FixedTable kPrimitiveBandwidthRx{
    "PRIMITIVE_BANDWIDTHRX", createPrimitiveBandwidthRxFields, createPrimitiveBandwidthRxTypes,
    createPrimitiveBandwidthRxConstraints, createPrimitiveBandwidthRxForeignKeys, 4, 4};
constexpr FixedTable kPrimitiveBandwidthTx{
    "PRIMITIVE_BANDWIDTHTX", createPrimitiveBandwidthTxFields, createPrimitiveBandwidthTxTypes,
    createPrimitiveBandwidthTxConstraints, createPrimitiveBandwidthTxForeignKeys, 4, 4};

// A sample series: its day tables are `tableWord` followed by the day number, keyed like its
// index table, which their one foreign key names. `logWord` is how its messages call it.
struct SlotSeries {
  const char *tableWord;
  const char *logWord;
  char **keyNames;
  char **keyTypes;
  char **keyConstraints;
  char **foreignKeys;
};

constexpr SlotSeries kRssiSeries{"RSSI", "RSSI", createRssiFields, createRssiTypes,
                                 createRssiConstraints, createRssiForeignKeys};
constexpr SlotSeries kBandwidthRxSeries{"BANDWIDTHRX", "BandwidthRx", createBandwidthRxFields,
                                        createBandwidthRxTypes, createBandwidthRxConstraints,
                                        createBandwidthRxForeignKeys};
constexpr SlotSeries kBandwidthTxSeries{"BANDWIDTHTX", "BandwidthTx", createBandwidthTxFields,
                                        createBandwidthTxTypes, createBandwidthTxConstraints,
                                        createBandwidthTxForeignKeys};

// While alterSchema is set, adds the `upgrade` columns an existing table lacks (status A), then
// creates the table if it does not exist (status C). A successful CREATE does not hide a failed
// ALTER, and a busy ALTER wins over a failed CREATE, so the caller retries either way.
int32_t upgradeThenCreate(const char *table, const ColumnSet &upgrade, const ColumnSet &create,
                          char **foreignKeys, int32_t foreignKeyCount) {
  int32_t alterStatus = DB_STATUS_SUCCESS;
  if (alterSchema != 0) {
    alterStatus =
        db_alterTable(table, upgrade.names, upgrade.types, upgrade.constraints, upgrade.count);
  }
  int32_t createStatus = db_createTable(table, create.names, create.types, create.constraints,
                                        create.count, foreignKeys, foreignKeyCount);
  if (createStatus == DB_STATUS_SUCCESS) return alterStatus;
  return alterStatus == DB_STATUS_BUSY ? DB_STATUS_BUSY : createStatus;
}

int32_t createFixedTable(const FixedTable &table) {
  return upgradeThenCreate(
      table.name, {table.names, table.types, table.constraints, table.upgradeCount},
      {table.names, table.types, table.constraints, table.createCount}, table.foreignKeys, 0);
}

// The slot count only guards the index table against a caller that has no slots to index.
int32_t createIndexTable(const FixedTable &table, int32_t slotCount, adb::log::Origin origin) {
  if (slotCount == 0) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] Table is not created .Slot count is zero\n");
    return DB_STATUS_FAILURE;
  }
  return createFixedTable(table);
}

// Day table `day` of a series: the key column, then SLOTk for the week-wide slot numbers
// k = (day - 1) * slotsPerDay + 1 .. day * slotsPerDay, each INTEGER DEFAULT 0. The upgrade
// covers the key column only: an existing day table keeps the slot columns it was made with.
int32_t createDayTable(const SlotSeries &series, uint32_t day, int32_t slotsPerDay,
                       adb::log::Origin origin) {
  if (day == 0) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] %s Input day should be greateter tha zero\n",
                series.logWord);
    return DB_STATUS_FAILURE;
  }
  if (slotsPerDay == 0) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR,
                "[analyticsDB] %s Table %d is not created .Slot count is zero\n", series.logWord,
                static_cast<int>(day));
    return DB_STATUS_FAILURE;
  }
  if (slotsPerDay < 0 || slotsPerDay > kMaxSlotsPerDayTable) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR,
                "[analyticsDB] %s Table %lu is not created .Slot count %d is outside 1 to %d\n",
                series.logWord, static_cast<unsigned long>(day), static_cast<int>(slotsPerDay),
                static_cast<int>(kMaxSlotsPerDayTable));
    return DB_STATUS_FAILURE;
  }

  adb::FixedText<kDayTableNameCapacity> table;
  table.appendf("%s%lu", series.tableWord, static_cast<unsigned long>(day));

  // One zeroed block holds every slot name, kSlotNameCapacity bytes each.
  adb::HeapText slotNames(static_cast<size_t>(slotsPerDay) * kSlotNameCapacity);
  if (!slotNames) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "[analyticsDB] malloc failed for %s table creation\n",
                table.c_str());
    return DB_STATUS_FAILURE;
  }

  char *names[kDayTableColumnCapacity];
  char *types[kDayTableColumnCapacity];
  char *constraints[kDayTableColumnCapacity];
  names[0] = series.keyNames[0];
  types[0] = series.keyTypes[0];
  constraints[0] = series.keyConstraints[0];
  // Unsigned like the day number, so that no day makes the arithmetic undefined.
  const uint32_t firstSlot = (day - 1) * static_cast<uint32_t>(slotsPerDay) + 1;
  for (int32_t j = 0; j < slotsPerDay; ++j) {
    char *name = slotNames.get() + static_cast<size_t>(j) * kSlotNameCapacity;
    adb::TextBuilder(name, kSlotNameCapacity)
        .appendf("%s%lu", "SLOT", static_cast<unsigned long>(firstSlot + static_cast<uint32_t>(j)));
    names[j + 1] = name;
    types[j + 1] = schemaText("INTEGER");
    constraints[j + 1] = schemaText("DEFAULT 0");
  }

  return upgradeThenCreate(table.c_str(),
                           {series.keyNames, series.keyTypes, series.keyConstraints, 1},
                           {names, types, constraints, slotsPerDay + 1}, series.foreignKeys, 1);
}

}  // namespace

extern "C" {

ADB_API int32_t db_createMeshTopoTable(void) { return createFixedTable(kMeshTopo); }
ADB_API int32_t db_createDeviceInfoTable(void) { return createFixedTable(kDeviceInfo); }
ADB_API int32_t db_createClientsTable(void) { return createFixedTable(kClients); }
ADB_API int32_t db_createSubscriberInfoTable(void) { return createFixedTable(kSubscriberInfo); }
ADB_API int32_t db_createDeviceThresholdTable(void) { return createFixedTable(kDeviceThreshold); }
ADB_API int32_t db_createCmaInfoTable(void) { return createFixedTable(kCmaInfo); }

ADB_API int32_t db_createPrimitiveRssiTable(int32_t slotCount) {
  return createIndexTable(kPrimitiveRssi, slotCount, ADB_LOG_ORIGIN);
}
ADB_API int32_t db_createPrimitiveBandWidthRxTable(int32_t slotCount) {
  return createIndexTable(kPrimitiveBandwidthRx, slotCount, ADB_LOG_ORIGIN);
}
ADB_API int32_t db_createPrimitiveBandWidthTxTable(int32_t slotCount) {
  return createIndexTable(kPrimitiveBandwidthTx, slotCount, ADB_LOG_ORIGIN);
}

ADB_API int32_t db_createRssiTab(uint32_t day, int32_t slotsPerDay) {
  return createDayTable(kRssiSeries, day, slotsPerDay, ADB_LOG_ORIGIN);
}
ADB_API int32_t db_createRxBandWidth(uint32_t day, int32_t slotsPerDay) {
  return createDayTable(kBandwidthRxSeries, day, slotsPerDay, ADB_LOG_ORIGIN);
}
ADB_API int32_t db_createTxBandWidth(uint32_t day, int32_t slotsPerDay) {
  return createDayTable(kBandwidthTxSeries, day, slotsPerDay, ADB_LOG_ORIGIN);
}

/* ---------------------------------------------------------------- time slots ---- */

ADB_API uint32_t db_calcPerDaySlotCount(void) { return kSlotsPerDay; }

ADB_API uint32_t db_calcSlotCount(void) { return db_calcPerDaySlotCount() * kDaysPerWeek; }

// The day (1-based) whose table holds slot k: k rounded up to a whole day, in days. Slot 0 gives
// 0, which callers read as "no slot"; there is no upper bound.
ADB_API int32_t db_findTable(int32_t slot) {
  const int32_t perDay = static_cast<int32_t>(db_calcPerDaySlotCount());
  // Wide enough that rounding the largest slot number up cannot overflow.
  int64_t rounded = slot;
  const int32_t remainder = slot % perDay;
  if (remainder != 0) rounded += perDay - remainder;
  return static_cast<int32_t>(rounded / perDay);
}

}  // extern "C"

/* ---------------------------------------------------------------- schema version ---- */

namespace {

constexpr size_t kVersionQueryCapacity = 256;
constexpr size_t kVersionTextCapacity = 32;
constexpr size_t kVersionStatementCapacity = 128;
constexpr size_t kPortableStatementCapacity = 128;
constexpr int32_t kVersionFunctionId = 0;
constexpr const char *kVersionFamily = "VERSION";

// Old band texts of DEVICEINFO, rewritten when a file of version 1 or 2 is upgraded.
constexpr const char *kBandTranslations[] = {
    "UPDATE DEVICEINFO SET PREFERRED_BAND_S='NA' WHERE PREFERRED_BAND_S='Auto';",
    "UPDATE DEVICEINFO SET PREFERRED_BAND_S='2.4' WHERE PREFERRED_BAND_S='2.4GHz';",
    "UPDATE DEVICEINFO SET PREFERRED_BAND_S='5' WHERE PREFERRED_BAND_S='5GHz';",
};

int32_t storeVersion(int32_t version) {
  adb::FixedText<kVersionStatementCapacity> statement;
  statement.appendf("pragma user_version=%d", version);
  return db_writeQuery(statement.c_str());
}

}  // namespace

extern "C" {

ADB_API int32_t db_readDBVersion(int32_t *version) {
  adb::FixedText<kVersionQueryCapacity> query;
  query.append("pragma user_version");
  adb::TableResult result;
  int32_t status =
      db_readTableContent(query.c_str(), &result.cells, &result.rows, &result.columns);
  if (status == DB_STATUS_SUCCESS && result.cells != nullptr && result.rows >= 1 &&
      result.columns >= 1 && result.cells[0] != nullptr &&
      strcasecmp(result.cells[0], "user_version") == 0 && result.cells[result.columns] != nullptr &&
      version != nullptr) {
    *version = std::atoi(result.cells[result.columns]);
  }
  return status;
}

ADB_API void db_handleTranslations(int32_t oldVersion) {
  // A new file (version 0) has no old values to translate.
  if (oldVersion != 1 && oldVersion != 2) {
    ADB_LOG_INFO("[analyticsDB] DB translations not needed for old version [%d]", oldVersion);
    return;
  }
  for (const char *statement : kBandTranslations) db_writeQuery(statement);
  ADB_LOG_NOTICE("[analyticsDB] DB translations for old version [%d] completed.", oldVersion);
}

ADB_API int32_t db_updatePortableDefault(void) {
  adb::FixedText<kPortableStatementCapacity> statement;
  statement.appendf("UPDATE DEVICEINFO set %s=%d where %s is null", "PORTABLE", 1, "PORTABLE");
  int32_t status = db_writeQuery(statement.c_str());
  if (status == DB_STATUS_SUCCESS) {
    ADB_LOG_NOTICE("DB :Portable Default setting on migration done\n");
  } else {
    ADB_LOG_ERROR("DB :Portable Default setting on migration failed\n");
  }
  return status;
}

ADB_API int32_t db_setDBVersion(int32_t currentVersion, int32_t newVersion) {
  if (newVersion <= currentVersion) {
    ADB_LOG_INFO("[analyticsDB] No DB version change/ lesser version change currVer [%d] newVer [%d]\n",
                 currentVersion, newVersion);
    return DB_STATUS_SUCCESS;
  }
  ADB_LOG_INFO("[analyticsDB] DB Version is updated to [%d] from version [%d]", newVersion,
               currentVersion);
  alterSchema = 1;
  db_handleTranslations(currentVersion);
  return db_updatePortableDefault();
}

ADB_API int32_t db_updateDBVersion(int32_t version) {
  char text[kVersionTextCapacity] = {};
  adb::TextBuilder(text, sizeof text).appendf("%d", version);
  char *values[] = {nullptr, text};
  return adb::throughGate(kVersionFunctionId, kVersionFamily, values, 2,
                          [&] { return storeVersion(version); });
}

ADB_API int32_t db_updateQueueDBVersion(int32_t version) {
  return adb::finishReplay(storeVersion(version));
}

}  // extern "C"
