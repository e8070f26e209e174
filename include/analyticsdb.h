/*
 * analyticsdb.h - the public interface of libanalyticsdb.
 *
 * libanalyticsdb keeps the analytics of a Wi-Fi mesh gateway in one SQLite file: the device
 * inventory, mesh topology, client capabilities, thresholds, collector time stamps, and
 * per-device RSSI and bandwidth series in 300-second slots over a seven-day ring of day tables.
 *
 * Conventions of this header (they hold for every function unless its comment says otherwise):
 *  - Results are status codes (DB_STATUS_*), never exceptions. Numbers are int32_t.
 *  - Text arguments are NUL-terminated; the library never modifies a caller's string.
 *  - Value and field arrays are `char **`; a NULL entry leaves its column out of a statement.
 *    Numbers travel as decimal text. A column whose name contains "_S" is a text column.
 *  - A raw result of a read is the triple (char ***cells, int32_t *rowCount,
 *    int32_t *columnCount): (rowCount + 1) x columnCount cells, header row of column names
 *    first, SQL NULL as a NULL pointer. The caller frees the cells with db_freeResult().
 *  - A list read hands out `T **list` of rowCount heap records; the caller frees it with the
 *    matching db_free*Result(&list, rowCount), which sets the variable back to NULL.
 *  - Writes, deletes and drops pass the deferred write queue: DB_STATUS_BUSY means the request
 *    was parked and is replayed, in order, by db_processQueueEntry(); DB_STATUS_QUEUE_FULL that
 *    it was neither written nor parked. Inside db_beginTransaction() ... db_commitTransaction()
 *    nothing is parked: a write that cannot join the transaction returns 1 and rolls it back.
 *  - Every function opens the database on first use; nothing needs an explicit open.
 *  - Log lines go through ryxLogSetHandler(); the default sink writes notice and above to stderr.
 */
#ifndef ANALYTICSDB_H
#define ANALYTICSDB_H

#include <pthread.h>
#include <stdint.h>

#if defined(ANALYTICSDB_BUILDING)
#define ADB_API __attribute__((visibility("default")))
#else
#define ADB_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

struct sqlite3;

/* ------------------------------------------------------------------------------------------ */
/* Status codes                                                                                 */
/* ------------------------------------------------------------------------------------------ */

#define DB_STATUS_SUCCESS 0      /* done */
#define DB_STATUS_FAILURE 1      /* bad arguments, out of memory, any other SQLite error */
#define DB_STATUS_EMPTY 2        /* a read or conversion found no rows */
#define DB_STATUS_BUSY 3         /* database busy or locked, or the request was queued */
#define DB_STATUS_CONSTRAINT 4   /* constraint violation (the row exists) */
#define DB_STATUS_NO_TABLE 5     /* the table does not exist */
#define DB_STATUS_OPEN_FAILED 6  /* the database file could not be opened */
#define DB_STATUS_QUEUE_CHECK -1 /* handed to the queue gate before a first attempt */
/* Not written and not parked: the database was busy (or an earlier request for the same key
 * waits) and the write queue could not keep the request. Nothing of it reached the file; the
 * caller may try again after db_processQueueEntry(). */
#define DB_STATUS_QUEUE_FULL 7

/* ------------------------------------------------------------------------------------------ */
/* Logging                                                                                      */
/* ------------------------------------------------------------------------------------------ */

#define RYX_LOG_ERROR 3
#define RYX_LOG_NOTICE 5
#define RYX_LOG_INFO 6
#define RYX_LOG_DEBUG 7

/* Receives every line that passes the level, fully formatted, prefix included; the newline is
 * kept where the message has one. `user` is the pointer given to ryxLogSetHandler(). */
typedef void (*ryxLogHandler)(int level, const char *line, void *user);

/* Installs a handler; NULL restores the default sink (stderr). */
ADB_API void ryxLogSetHandler(ryxLogHandler handler, void *user);
/* Lines of a higher (less severe) level than this are dropped before any formatting.
 * The default is RYX_LOG_NOTICE. */
ADB_API void ryxLogSetLevel(int level);
ADB_API void ryxLogError(const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
ADB_API void ryxLogNotice(const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
ADB_API void ryxLogInfo(const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
ADB_API void ryxLogDebug(const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* ------------------------------------------------------------------------------------------ */
/* Paths                                                                                        */
/* ------------------------------------------------------------------------------------------ */

/* Both return 0, or 1 for NULL, an empty path, a path longer than 255 characters, or (database
 * path only) while the connection is open. Defaults are compiled in. */
ADB_API int32_t db_setDatabasePath(const char *path);
ADB_API int32_t db_setProfileMarkerPath(const char *path);

/* The write path keeps its compiled statements on the connection (statement cache), on by
 * default. 0 turns it off and finalises what it holds (every write then compiles its text
 * afresh), any other value turns it on. The database file, statuses and log lines are the same
 * either way. Returns 0. */
ADB_API int32_t db_setStatementCache(int32_t enabled);
/* How many compiled statements the cache holds, and the bytes SQLite counts for them. Returns
 * 0, or 1 for a NULL argument. */
ADB_API int32_t db_getStatementCacheFigures(uint32_t *statements, uint32_t *bytes);

/* ------------------------------------------------------------------------------------------ */
/* Waiting for a busy database                                                                  */
/* ------------------------------------------------------------------------------------------ */

/* A statement that meets a database another process holds waits up to statementMs for it
 * (short lock bursts are waited out rather than parked), and one db_processQueueEntry() call
 * starts no replay once it has run for processingMs. 0 and 0 give the immediate behaviour:
 * every busy statement fails at once with status 3. The compiled-in defaults are
 * ANALYTICSDB_BUSY_WAIT_MS and ANALYTICSDB_PROCESS_BUDGET_MS; returns 0. Takes effect on the
 * next statement. */
ADB_API int32_t db_setBusyWait(uint32_t statementMs, uint32_t processingMs);

/* ------------------------------------------------------------------------------------------ */
/* Connection and statement execution                                                          */
/* ------------------------------------------------------------------------------------------ */

/* The one connection of the process; NULL while closed. */
ADB_API extern struct sqlite3 *database_connection;
/* 1 once "PRAGMA foreign_keys = ON" succeeded on the current connection. */
ADB_API extern uint8_t foreignKeyEanbled;

ADB_API int32_t db_open(void);
ADB_API int32_t db_open_connection(struct sqlite3 **handle);
ADB_API int32_t db_close(void);
ADB_API int32_t db_close_connection(struct sqlite3 **handle);
ADB_API int32_t db_closeConnection(void);
ADB_API int32_t db_closeDbConnection(void);
ADB_API int32_t db_execStatement(const char *sql, struct sqlite3 **handle);
/* Runs a statement on the open connection (call db_open() first); profiled. */
ADB_API int32_t db_write(const char *sql);
ADB_API int32_t db_retrieveTableData(const char *sql, char ***cells, int32_t *rowCount,
                                     int32_t *columnCount, struct sqlite3 **handle);
/* Reads into a raw result on the open connection (call db_open() first); profiled. */
ADB_API int32_t db_read(const char *sql, char ***cells, int32_t *rowCount, int32_t *columnCount);
/* Free a raw result; the caller's variable is not reset. */
ADB_API void db_freeTableResult(char ***cells);
ADB_API void db_freeResult(char ***cells);

/* CPU time of the process in clock ticks (user + system). Returns the status of closing the
 * pipe; *ticks is written only when the measuring command could be started. */
ADB_API int32_t db_getCpuTime(uint32_t *ticks);

/* ------------------------------------------------------------------------------------------ */
/* Statement builder                                                                            */
/* ------------------------------------------------------------------------------------------ */

/* Set when the stored schema version rises; from then on table creation adds missing columns. */
ADB_API extern uint8_t alterSchema;

ADB_API int32_t db_createTable(const char *tableName, char **fieldNames, char **fieldTypes,
                               char **constraints, int32_t fieldCount, char **foreignKeys,
                               int32_t foreignKeyCount);
ADB_API int32_t db_alterTable(const char *tableName, char **fieldNames, char **fieldTypes,
                              char **constraints, int32_t fieldCount);
ADB_API int32_t db_addField(const char *tableName, const char *fieldName, const char *fieldType,
                            const char *constraint);
/* 1 when fieldName is a "name" cell of a PRAGMA table_info result, else 0. */
ADB_API int32_t db_checkFieldSchemaExist(const char *fieldName, char **cells, int32_t rowCount,
                                         int32_t columnCount);

/* Insert the row, or update it by key when it exists. */
ADB_API int32_t db_writeTable(const char *tableName, const char *keyField,
                              const char *matchOperator, char **fieldNames, char **fieldValues,
                              int32_t fieldCount);
ADB_API int32_t db_tryInsert(const char *tableName, char **fieldNames, char **fieldValues,
                             int32_t fieldCount);
ADB_API int32_t db_tryUpdate(const char *tableName, const char *keyField,
                             const char *matchOperator, char **fieldNames, char **fieldValues,
                             int32_t fieldCount);
/* Appends `value` with every single quote doubled to `output`, a zeroed 1024-byte buffer. */
ADB_API void db_frameSplString(const char *value, char *output);
ADB_API int32_t db_writeQuery(const char *query);

/* A NULL field, operator or value deletes every row of the table. */
ADB_API int32_t db_deleteTableContent(const char *tableName, const char *fieldName,
                                      const char *matchOperator, const char *fieldValue,
                                      const char *query);
ADB_API int32_t db_deleteTableExec(const char *tableName, const char *fieldName,
                                   const char *matchOperator, const char *fieldValue);
ADB_API int32_t db_dropTable(const char *tableName);
ADB_API int32_t db_dropTableExec(const char *tableName);

/* Select pieces: each appends at the end of the text already in `query`, never past `size`
 * bytes (terminator included); what does not fit is cut. */
ADB_API int32_t db_selectQuery(char *query, int32_t size);
ADB_API int32_t db_selectFieldNames(char *query, int32_t size, char **fieldNames,
                                    int32_t fieldCount, const char *tableName);
ADB_API int32_t db_selectJoin(char *query, int32_t size, const char *joinTable,
                              const char *joinKind, const char *joinColumn);
ADB_API int32_t db_selectWhere(char *query, int32_t size);
ADB_API int32_t db_selectCondtion(char *query, int32_t size, const char *fieldName,
                                  const char *matchOperator, const char *value);
ADB_API int32_t db_selectCondtionConnection(char *query, int32_t size, const char *connector);
ADB_API int32_t db_selectUnion(char *query, int32_t size);
ADB_API int32_t db_readTableContent(const char *query, char ***cells, int32_t *rowCount,
                                    int32_t *columnCount);

/* BEGIN and COMMIT on the shared connection. When an error (a failed file write or sync, no
 * memory, a full disk) makes SQLite roll the transaction back by itself, every later write is
 * refused with status 1 and an error line until db_commitTransaction(), which then returns 1
 * too: the caller learns that nothing of the transaction was kept, and no write of it is
 * committed on its own. */
ADB_API int32_t db_beginTransaction(void);
ADB_API int32_t db_commitTransaction(void);
ADB_API int32_t db_beginTrans(void);
ADB_API int32_t db_commitTrans(void);
ADB_API int32_t db_setForeignKey(void);

/* ------------------------------------------------------------------------------------------ */
/* Schema catalogue                                                                             */
/* ------------------------------------------------------------------------------------------ */

/* Four parallel arrays per table: column names, SQL types, constraints (NULL: none) and foreign
 * keys. The arrays are the text of the CREATE and ALTER statements. */
ADB_API extern char *createDeviceFields[38];
ADB_API extern char *createDeviceTypes[38];
ADB_API extern char *createDeviceConstraints[38];
ADB_API extern char *createDeviceForeignKeys[1];
ADB_API extern char *createMeshFields[9];
ADB_API extern char *createMeshTypes[9];
ADB_API extern char *createMeshConstraints[9];
ADB_API extern char *createMeshForeignKeys[1];
ADB_API extern char *createClientsFields[24];
ADB_API extern char *createClientsTypes[24];
ADB_API extern char *createClientsConstraints[24];
ADB_API extern char *createClientsForeignKeys[1];
ADB_API extern char *createSubscriberFields[2];
ADB_API extern char *createSubscriberTypes[2];
ADB_API extern char *createSubscriberConstraints[2];
ADB_API extern char *createSubscriberForeignKeys[1];
ADB_API extern char *createCmaFields[2];
ADB_API extern char *createCmaTypes[2];
ADB_API extern char *createCmaConstraints[2];
ADB_API extern char *createCmaForeignKeys[1];
ADB_API extern char *createThresholdFields[15];
ADB_API extern char *createThresholdTypes[15];
ADB_API extern char *createThresholdConstraints[15];
ADB_API extern char *createThresholdForeignKeys[1];
ADB_API extern char *createPrimitiveRssiFields[3];
ADB_API extern char *createPrimitiveRssiTypes[3];
ADB_API extern char *createPrimitiveRssiConstraints[3];
ADB_API extern char *createPrimitiveRssiForeignKeys[1];
ADB_API extern char *createPrimitiveBandwidthRxFields[4];
ADB_API extern char *createPrimitiveBandwidthRxTypes[4];
ADB_API extern char *createPrimitiveBandwidthRxConstraints[4];
ADB_API extern char *createPrimitiveBandwidthRxForeignKeys[1];
ADB_API extern char *createPrimitiveBandwidthTxFields[4];
ADB_API extern char *createPrimitiveBandwidthTxTypes[4];
ADB_API extern char *createPrimitiveBandwidthTxConstraints[4];
ADB_API extern char *createPrimitiveBandwidthTxForeignKeys[1];
/* Key column of the day tables RSSI<n>, BANDWIDTHRX<n>, BANDWIDTHTX<n>, and their one foreign key. */
ADB_API extern char *createRssiFields[1];
ADB_API extern char *createRssiTypes[1];
ADB_API extern char *createRssiConstraints[1];
ADB_API extern char *createRssiForeignKeys[1];
ADB_API extern char *createBandwidthRxFields[1];
ADB_API extern char *createBandwidthRxTypes[1];
ADB_API extern char *createBandwidthRxConstraints[1];
ADB_API extern char *createBandwidthRxForeignKeys[1];
ADB_API extern char *createBandwidthTxFields[1];
ADB_API extern char *createBandwidthTxTypes[1];
ADB_API extern char *createBandwidthTxConstraints[1];
ADB_API extern char *createBandwidthTxForeignKeys[1];

/* Field-subset arrays: the columns an API family writes or reads, key first, in the order of
 * the values the API takes or returns. */
ADB_API extern char *deviceInfoFields[38];
ADB_API extern char *devInfoAddedStatusUpdate[19];
ADB_API extern char *devInfoLanUpdate[7];
ADB_API extern char *devInfoRssiFields[5];
ADB_API extern char *devInfoBeaconFields[6];
ADB_API extern char *devInfoBeaconFnameFields[2];
ADB_API extern char *devInfoOpsFields[4];
ADB_API extern char *devInfoCapacityUpdate[2];
ADB_API extern char *devInfoPreferredBandFields[2];
ADB_API extern char *devInfoBandSteeringFields[2];
ADB_API extern char *devInfoIsBridgedFields[2];
ADB_API extern char *devInfoCriticalRead[1];
ADB_API extern char *devInfoCategoryRead[1];
ADB_API extern char *devInfoTimestampRead[4];
ADB_API extern char *devInfoCapacityRead[2];
ADB_API extern char *txRxCount[5];
ADB_API extern char *meshTopoFields[9];
ADB_API extern char *clientsFields[24];
ADB_API extern char *deviceThresholdFields[15];
ADB_API extern char *subscriberInfoFields[2];
ADB_API extern char *cmaInfoFields[2];
ADB_API extern char *timeStampFields[1];
ADB_API extern char *rssiFieldNames[3];
ADB_API extern char *bandWidthFieldNames[4];
ADB_API extern char *bandWidthTimeStampSlot[4];
ADB_API extern char *bandWidthSlotUpdate[3];
ADB_API extern char *MAC_FIELD[1];

/* Fixed tables. Each returns the CREATE status, combined with the ALTER status while
 * alterSchema is set. */
ADB_API int32_t db_createMeshTopoTable(void);
ADB_API int32_t db_createDeviceInfoTable(void);
ADB_API int32_t db_createClientsTable(void);
ADB_API int32_t db_createSubscriberInfoTable(void);
ADB_API int32_t db_createDeviceThresholdTable(void);
ADB_API int32_t db_createCmaInfoTable(void);

/* ------------------------------------------------------------------------------------------ */
/* Time slots and slot tables                                                                   */
/* ------------------------------------------------------------------------------------------ */

/* 300-second slots: 288 a day, 2016 a week. Slot k (1..2016) lives in day table
 * db_findTable(k), column "SLOT"k. */
ADB_API uint32_t db_calcPerDaySlotCount(void);
ADB_API uint32_t db_calcSlotCount(void);
ADB_API int32_t db_findTable(int32_t slot);
/* Day table n of a series with slotsPerDay slot columns (callers pass 288). */
ADB_API int32_t db_createRssiTab(uint32_t day, int32_t slotsPerDay);
ADB_API int32_t db_createRxBandWidth(uint32_t day, int32_t slotsPerDay);
ADB_API int32_t db_createTxBandWidth(uint32_t day, int32_t slotsPerDay);
/* Index tables; a slot count of 0 is refused. */
ADB_API int32_t db_createPrimitiveRssiTable(int32_t slotCount);
ADB_API int32_t db_createPrimitiveBandWidthRxTable(int32_t slotCount);
ADB_API int32_t db_createPrimitiveBandWidthTxTable(int32_t slotCount);

/* ------------------------------------------------------------------------------------------ */
/* Schema version                                                                               */
/* ------------------------------------------------------------------------------------------ */

ADB_API int32_t db_readDBVersion(int32_t *version);
/* On a rise: sets alterSchema, translates old values, fills defaults. Does not store. */
ADB_API int32_t db_setDBVersion(int32_t currentVersion, int32_t newVersion);
/* Stores the version through the write queue (3 when queued). */
ADB_API int32_t db_updateDBVersion(int32_t version);
ADB_API int32_t db_updateQueueDBVersion(int32_t version);
ADB_API void db_handleTranslations(int32_t oldVersion);
ADB_API int32_t db_updatePortableDefault(void);

/* ------------------------------------------------------------------------------------------ */
/* Records                                                                                      */
/* ------------------------------------------------------------------------------------------ */

#define DB_SLOTS_PER_DAY 288
#define DB_SLOTS_PER_WEEK 2016

typedef struct MeshTopoRecord {
  char mac[18];
  char id[48];
  char parentId[48];
  char ipAddr[16];
  char role[8];
  char operMode[8];
  char backhaulIntfType[16];
  char status[8];
  char healthStatus[8];
} MeshTopoRecord;

typedef struct DeviceInfoRecord {
  char mac[18];
  char serialNumber[64];
  char apId[48];
  char ipAddr[16];
  char category[32];
  char host[32];
  char model[32];
  char manufacturer[32];
  char interface[16];
  int32_t active;
  char band[6];
  char intfName[32];
  int32_t intfIndex;
  int32_t rssi;
  uint64_t txRate;
  uint64_t rxRate;
  uint64_t txCnt;
  uint64_t rxCnt;
  int32_t capacity;
  uint32_t devBwReqd;
  char devStreamCapability[10];
  char name[258];
  char friendlyName[68];
  int32_t portable;
  int32_t devCritical;
  uint32_t addedTs;
  uint32_t lastOfflineTs;
  uint32_t lastOnlineTs;
  uint32_t devTimestamp;
  int32_t beaconState;
  char preferredBand[8];
  int32_t devFpDone;
  char oui[48];
  char productClass[65];
  uint64_t lastRebootTxCnt;
  uint64_t lastRebootRxCnt;
  int32_t bandSteeringState;
  int32_t isBridged;
} DeviceInfoRecord;

typedef struct ClientCapabilityRecord {
  char mac[32];
  char assocBssid[32];
  char assocMedium[32];
  int32_t capBssTrans;
  int32_t capFastBssTrans;
  int32_t capRadioMeasure;
  int32_t cap24Ghz;
  int32_t cap5Ghz;
  char category[32];
  char type[32];
  char mimo[128];
  char vendorMfg[128];
  char vendorModelName[128];
  char vendorModelNumber[128];
  char vendorDeviceName[128];
  char capMode[128];
  int32_t cap24Csa;
  int32_t cap24Ecsa;
  int32_t cap5Csa;
  int32_t cap5Ecsa;
  int32_t capDfs;
  int32_t isTavexFpDone;
  int32_t cap24GhzN;
  int32_t cap5GhzAc;
} ClientCapabilityRecord;

typedef struct DeviceThresholdRecord {
  char deviceClass[64];
  int32_t devFilterLevel;
  int32_t streamingThreshold;
  int32_t inactivityFilter;
  int32_t rssiGoodStart;
  int32_t rssiGoodEnd;
  int32_t rssiAvgStart;
  int32_t rssiAvgEnd;
  int32_t rssiBadStart;
  int32_t rssiBadEnd;
  int32_t longPollThreshold;
  int32_t shortPollThreshold;
  float version;
  int32_t wanFilterLevel;
  int32_t inactivityFilterLevel;
} DeviceThresholdRecord;

typedef struct SubscriberInfoRecord {
  char serialNumber[13];
  int32_t downstreamBandwidth;
} SubscriberInfoRecord;

typedef struct DeviceTimestampRecord {
  int32_t active;
  uint64_t devTimestamp;
  char mac[32];
  char intfName[16];
} DeviceTimestampRecord;

typedef struct PrimitiveDayTableRecord {
  char mac[32];
  uint32_t timestamp;
  int32_t slotIndex;
  char source[16];
} PrimitiveDayTableRecord;

/* A week of one device's samples of one series: slots[k - 1] holds slot k. The latest-span
 * reads pack a span into slots[0 .. slotCount - 1], oldest first, and set startIndex/endIndex. */
typedef struct BandWidthRecord {
  char mac[32];
  uint64_t slots[DB_SLOTS_PER_WEEK];
  uint32_t slotCount;
  uint32_t startIndex;
  uint32_t endIndex;
  uint32_t timestamp;
  int32_t slotIndex;
} BandWidthRecord;

/* One device's samples of one day table, in column order. */
typedef struct RateRecord {
  char mac[32];
  uint64_t slots[DB_SLOTS_PER_DAY];
  uint32_t slotCount;
  uint32_t timestamp;
  int32_t slotIndex;
} RateRecord;

/* Conversions of a raw result into a record list: 0, 1 (out of memory; the partial list is in
 * *list and is freed as after success), 2 (no cells, rows or columns; *list untouched). */
ADB_API int32_t db_structMeshTopo(char **cells, MeshTopoRecord ***list, int32_t rowCount,
                                  int32_t columnCount);
ADB_API int32_t db_structDeviceInfo(char **cells, DeviceInfoRecord ***list, int32_t rowCount,
                                    int32_t columnCount);
ADB_API int32_t db_structClientsCapability(char **cells, ClientCapabilityRecord ***list,
                                           int32_t rowCount, int32_t columnCount);
ADB_API int32_t db_structDeviceThreshold(char **cells, DeviceThresholdRecord ***list,
                                         int32_t rowCount, int32_t columnCount);
ADB_API int32_t db_structSubscriberInfo(char **cells, SubscriberInfoRecord ***list,
                                        int32_t rowCount, int32_t columnCount);
ADB_API int32_t db_readTimestampResult(char **cells, DeviceTimestampRecord ***list,
                                       int32_t rowCount, int32_t columnCount);
ADB_API int32_t db_structPrimitiveDayTable(char **cells, PrimitiveDayTableRecord ***list,
                                           int32_t rowCount, int32_t columnCount);
ADB_API int32_t db_structBandWidth(char **cells, BandWidthRecord ***list, int32_t rowCount,
                                   int32_t columnCount);
ADB_API int32_t db_readRateStruct(char **cells, RateRecord ***list, int32_t rowCount,
                                  int32_t columnCount);

/* Conversions into caller storage (no allocation). db_getRateIdxTimeStamp fills element r of
 * each non-NULL array for row r, so the arrays need rowCount elements. */
ADB_API int32_t db_setSlotRate(char **cells, int32_t rowCount, int32_t columnCount,
                               BandWidthRecord *record);
ADB_API int32_t db_getRateIdxTimeStamp(char **cells, int32_t rowCount, int32_t columnCount,
                                       uint32_t *timestamps, int32_t *slotIndexes,
                                       uint64_t *values, char (*macs)[32], char *source);

/* Free a record list and set *list to NULL. */
ADB_API void db_freeMeshTopoResult(MeshTopoRecord ***list, int32_t count);
ADB_API void db_freeClientsResult(ClientCapabilityRecord ***list, int32_t count);
ADB_API void db_freeDeviceInfoResult(DeviceInfoRecord ***list, int32_t count);
ADB_API void db_freePrimitiveDayTable(PrimitiveDayTableRecord ***list, int32_t count);
ADB_API void db_freeDpClientHandleResult(DeviceTimestampRecord ***list, int32_t count);
ADB_API void db_freeBandWidthResult(BandWidthRecord ***list, int32_t count);
ADB_API void db_freeDeviceThresholdResult(DeviceThresholdRecord ***list, int32_t count);
ADB_API void db_freeRateResult(RateRecord ***list, int32_t count);
ADB_API void db_freeSubscriberInfoResult(SubscriberInfoRecord ***list, int32_t count);
/* Frees a raw result when *cells is not NULL. */
ADB_API void db_freeTableOutput(char ***cells);

/* ------------------------------------------------------------------------------------------ */
/* Inventory writes (through the write queue)                                                  */
/* ------------------------------------------------------------------------------------------ */

/* Each takes the values of its field-subset array, key first, and returns 0, 3 (queued or
 * busy) or the write's status. The db_updateQueue* twins replay a queued request. */
ADB_API int32_t db_updateDeviceInfoTable(char **values);              /* deviceInfoFields */
ADB_API int32_t db_updateDeviceInfoPrimitiveFields(char **values);    /* devInfoAddedStatusUpdate */
ADB_API int32_t db_updateDeviceInfoLanFields(char **values);          /* devInfoLanUpdate */
ADB_API int32_t db_updateDeviceInfoCapacity(char **values);           /* devInfoCapacityUpdate */
ADB_API int32_t db_updateDeviceInfoRssiFields(char **values);         /* devInfoRssiFields */
ADB_API int32_t db_updateDeviceInfoBeaconFields(char **values);       /* devInfoBeaconFields */
ADB_API int32_t db_updateDeviceInfoOpsFields(char **values);          /* devInfoOpsFields */
ADB_API int32_t db_updateDeviceInfoPreferredBandFields(char **values); /* devInfoPreferredBandFields */
ADB_API int32_t db_updateMeshTopoTable(char **values);                /* meshTopoFields */
ADB_API int32_t db_updateSubscriberInfoTable(char **values);          /* subscriberInfoFields */
ADB_API int32_t db_updateDeviceThresholdTable(char **values);         /* deviceThresholdFields */
ADB_API int32_t db_updateCmaInfoTable(char **values);                 /* cmaInfoFields */
ADB_API int32_t db_updateClientsTable(char **values);                 /* clientsFields */
ADB_API int32_t db_updateDeviceInfoBeaconFName(char **values);        /* devInfoBeaconFnameFields */
ADB_API int32_t db_updateDeviceInfoBandSteeringFields(char **values); /* devInfoBandSteeringFields */
ADB_API int32_t db_updateDeviceInfoIsBridgedFields(char **values);    /* devInfoIsBridgedFields */

ADB_API int32_t db_updateQueueDeviceInfoTable(char **values);
ADB_API int32_t db_updateQueueDeviceInfoPrimitiveFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoLanFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoCapacity(char **values);
ADB_API int32_t db_updateQueueDeviceInfoRssiFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoBeaconFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoOpsFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoPreferredBandFields(char **values);
ADB_API int32_t db_updateQueueMeshTopoTable(char **values);
ADB_API int32_t db_updateQueueSubscriberInfoTable(char **values);
ADB_API int32_t db_updateQueueDeviceThresholdTable(char **values);
ADB_API int32_t db_updateQueueCmaInfoTable(char **values);
ADB_API int32_t db_updateQueueClientsTable(char **values);
ADB_API int32_t db_updateQueueDeviceInfoBeaconFName(char **values);
ADB_API int32_t db_updateQueueDeviceInfoBandSteeringFields(char **values);
ADB_API int32_t db_updateQueueDeviceInfoIsBridgedFields(char **values);

/* ------------------------------------------------------------------------------------------ */
/* Inventory reads                                                                              */
/* ------------------------------------------------------------------------------------------ */

/* 0 with *list and *rows set; 2 when nothing matched; 5 when the table is missing. */
ADB_API int32_t db_readMeshTopoTable(MeshTopoRecord ***list, int32_t *rows);
ADB_API int32_t db_readClientsTable(ClientCapabilityRecord ***list, int32_t *rows);
ADB_API int32_t db_readMacClients(const char *mac, ClientCapabilityRecord ***list, int32_t *rows);
ADB_API int32_t db_readDeviceThresholdTable(DeviceThresholdRecord ***list, int32_t *rows);
ADB_API int32_t db_readDeviceClassDeviceThreshold(const char *deviceClass,
                                                  DeviceThresholdRecord ***list, int32_t *rows);
ADB_API int32_t db_readSubscriberInfoTable(SubscriberInfoRecord ***list, int32_t *rows);
ADB_API int32_t db_readDeviceInfoTable(DeviceInfoRecord ***list, int32_t *rows);
/* bridgedFilter 0 leaves out bridged devices; any other value returns all. */
ADB_API int32_t db_readMacDeviceInfo(const char *mac, DeviceInfoRecord ***list, int32_t *rows,
                                     int32_t bridgedFilter);
ADB_API int32_t db_readDeviceInfoTxRxCount(DeviceInfoRecord ***list, int32_t *rows);
ADB_API int32_t db_readDeviceInfoCapacity(DeviceInfoRecord ***list, int32_t *rows);
ADB_API int32_t db_readDeviceInfoTimestamp(DeviceTimestampRecord ***list, int32_t *rows);
ADB_API int32_t db_readExtInfo(DeviceInfoRecord ***list, int32_t *rows);
/* With no matching row *timestamp is left as it was and the result is 0. */
ADB_API int32_t db_readCmaInfoTimeStamp(const char *tableName, uint32_t *timestamp);
/* category: a buffer of at least 32 bytes. */
ADB_API int32_t db_readDeviceInfoCategory(const char *mac, char *category);
ADB_API int32_t db_readDeviceInfoCritical(const char *mac, int32_t *critical);
ADB_API void db_getCmaTimeStamp(char **cells, uint32_t *timestamp);
ADB_API void getDevCategory(DeviceInfoRecord **list, char *category);
ADB_API void getDevCritical(DeviceInfoRecord **list, int32_t *critical);

/* ------------------------------------------------------------------------------------------ */
/* Sample series: writes (through the write queue)                                             */
/* ------------------------------------------------------------------------------------------ */

/* Index row: {MAC, timestamp, slot} for RSSI, {MAC, source, timestamp, slot} for bandwidth. */
ADB_API int32_t db_updatePrimitiveRssi(char **values);
ADB_API int32_t db_updatePrimitiveBandWidthRx(char **values);
ADB_API int32_t db_updatePrimitiveBandWidthTx(char **values);
/* One slot: {MAC, slot, value}. */
ADB_API int32_t db_updateRssiSlot(char **values);
ADB_API int32_t db_updateBandWidthSlotRx(char **values);
ADB_API int32_t db_updateBandWidthSlotTx(char **values);
/* A sample (index row, then slot): {MAC, timestamp, slot, value} for RSSI,
 * {MAC, source, timestamp, slot, value} for bandwidth. */
ADB_API int32_t db_updateRssi(char **values);
ADB_API int32_t db_updateBandWidthRx(char **values);
ADB_API int32_t db_updateBandWidthTx(char **values);
/* Slots first..last of one day set to 0: {MAC, first slot, last slot}. */
ADB_API int32_t db_updateRssiSlotDefaultValue(char **values);
ADB_API int32_t db_updateRxSlotDefaultValue(char **values);
ADB_API int32_t db_updateTxSlotDefaultValue(char **values);

ADB_API int32_t db_updateQueuePrimitiveRssi(char **values);
ADB_API int32_t db_updateQueueRssiSlot(char **values);
ADB_API int32_t db_updateQueueRssiSlotDefaultValue(char **values);
ADB_API int32_t db_updateQueuePrimitiveBandWidthRx(char **values);
ADB_API int32_t db_updateQueueBandWidthSlotRx(char **values);
ADB_API int32_t db_updateQueueRxSlotDefaultValue(char **values);
ADB_API int32_t db_updateQueuePrimitiveBandWidthTx(char **values);
ADB_API int32_t db_updateQueueBandWidthSlotTx(char **values);
ADB_API int32_t db_updateQueueTxSlotDefaultValue(char **values);

/* ------------------------------------------------------------------------------------------ */
/* Sample series: reads                                                                         */
/* ------------------------------------------------------------------------------------------ */

ADB_API int32_t db_readPrimitiveRssiTable(PrimitiveDayTableRecord ***list, int32_t *rows);
ADB_API int32_t db_readPrimitiveRxTable(PrimitiveDayTableRecord ***list, int32_t *rows);
ADB_API int32_t db_readPrimitiveTxTable(PrimitiveDayTableRecord ***list, int32_t *rows);
/* One day table of one device (or of the devices of one source). */
ADB_API int32_t db_readMacRssiSelect(int32_t day, const char *mac, RateRecord ***list,
                                     int32_t *rows);
ADB_API int32_t db_readMacBandWidthRxSelect(int32_t day, const char *mac, RateRecord ***list,
                                            int32_t *rows);
ADB_API int32_t db_readMacBandWidthTxSelect(int32_t day, const char *mac, RateRecord ***list,
                                            int32_t *rows);
ADB_API int32_t db_readSourceDataRxSelect(int32_t day, const char *source, RateRecord ***list,
                                          int32_t *rows);
ADB_API int32_t db_readSourceDataTxSelect(int32_t day, const char *source, RateRecord ***list,
                                          int32_t *rows);
/* The whole week of one device (or of the devices of one source, or of all devices). */
ADB_API int32_t db_readMacRssi(const char *mac, BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readMacBandWidthRx(const char *mac, BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readMacBandWidthTx(const char *mac, BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readSourceDataRx(const char *source, BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readSourceDataTx(const char *source, BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readBandWidthRxTable(BandWidthRecord ***list, int32_t *rows);
ADB_API int32_t db_readBandWidthTxTable(BandWidthRecord ***list, int32_t *rows);
/* MAC addresses of a series' index table, as a raw result. */
ADB_API int32_t db_readAllDevMacRssi(char ***cells, int32_t *rowCount, int32_t *columnCount);
ADB_API int32_t db_readAllDevMacRx(char ***cells, int32_t *rowCount, int32_t *columnCount);
ADB_API int32_t db_readAllDevMacTx(char ***cells, int32_t *rowCount, int32_t *columnCount);
/* A device's index row. source: 16 bytes. */
ADB_API int32_t db_readLatestRssiSlotIndexTimeStamp(const char *mac, uint32_t *timestamp,
                                                    int32_t *slotIndex);
ADB_API int32_t db_readLatestRxSlotIndexTimeStamp(const char *mac, uint32_t *timestamp,
                                                  int32_t *slotIndex, char *source);
ADB_API int32_t db_readLatestTxSlotIndexTimeStamp(const char *mac, uint32_t *timestamp,
                                                  int32_t *slotIndex, char *source);
/* Index rows of one source: fills at most DB_SOURCE_ROWS_MAX elements of each array and sets
 * *rows to the number of rows found. */
#define DB_SOURCE_ROWS_MAX 4
ADB_API int32_t db_readRxSourceSlotIndexTimeStamp(const char *source, uint32_t *timestamps,
                                                  int32_t *slotIndexes, char (*macs)[32],
                                                  int32_t *rows);
ADB_API int32_t db_readTxSourceSlotIndexTimeStamp(const char *source, uint32_t *timestamps,
                                                  int32_t *slotIndexes, char (*macs)[32],
                                                  int32_t *rows);
/* One slot's value; RSSI keeps the low 16 bits. */
ADB_API int32_t db_readRssiSlotValue(const char *mac, int32_t slot, uint16_t *value);
ADB_API int32_t db_readRxSlotValue(const char *mac, int32_t slot, uint64_t *value);
ADB_API int32_t db_readTxSlotValue(const char *mac, int32_t slot, uint64_t *value);
/* Span of slots [*start, *end] that the interval [from, to) covers, ending at slot `latest`. */
ADB_API int32_t db_findIndexLimits(uint32_t from, uint32_t to, int32_t latest, int32_t *start,
                                   int32_t *end);
/* Packs slots start..end (wrapping past 2016) into record->slots[0..], oldest first. */
ADB_API int32_t db_adjustSlotRate(BandWidthRecord *record, int32_t start, int32_t end);
ADB_API int32_t db_readRxStartToEnd(const char *mac, int32_t start, int32_t end,
                                    BandWidthRecord *record);
ADB_API int32_t db_readTxStartToEnd(const char *mac, int32_t start, int32_t end,
                                    BandWidthRecord *record);
/* The span from `from` to the latest sample of the source's (WAN) device, packed into *record.
 * *wanCount is the number of index rows of the source, at most 1. */
ADB_API int32_t db_readBandWidthLatestRx(const char *source, uint32_t from,
                                         BandWidthRecord *record, int32_t *wanCount);
ADB_API int32_t db_readBandWidthLatestTx(const char *source, uint32_t from,
                                         BandWidthRecord *record, int32_t *wanCount);

/* ------------------------------------------------------------------------------------------ */
/* Deletes and drops (through the write queue)                                                  */
/* ------------------------------------------------------------------------------------------ */

ADB_API int32_t db_deleteDeviceInfoTable(void);
ADB_API int32_t db_deleteMacDeviceInfo(const char *mac);
ADB_API int32_t db_deleteMeshTopoTable(void);
ADB_API int32_t db_deleteMacMeshTopo(const char *mac);
ADB_API int32_t db_deleteMacDeviceThreshold(const char *deviceClass);
ADB_API int32_t db_deleteDayRssi(const char *mac, int32_t day);
ADB_API int32_t db_deletePrimitiveRssi(const char *mac);
ADB_API int32_t db_deleteMacRssi(const char *mac);
ADB_API int32_t db_deleteDayBandWidthRx(const char *mac, int32_t day);
ADB_API int32_t db_deletePrimitiveBandWidthRx(const char *mac);
ADB_API int32_t db_deleteMacBandWidthRx(const char *mac);
ADB_API int32_t db_deleteNonWanBandwidthRxInfo(void);
ADB_API int32_t db_deleteDayBandWidthTx(const char *mac, int32_t day);
ADB_API int32_t db_deletePrimitiveBandWidthTx(const char *mac);
ADB_API int32_t db_deleteMacBandWidthTx(const char *mac);
ADB_API int32_t db_deleteNonWanBandwidthTxInfo(void);
ADB_API int32_t db_dropDeviceInfoTable(void);
ADB_API int32_t db_dropMeshTopoTable(void);
ADB_API int32_t db_dropPrimitiveBandwidthRxTable(void);
ADB_API int32_t db_dropBandwidthRxTable(int32_t day);
ADB_API int32_t db_dropPrimitiveBandwidthTxTable(void);
ADB_API int32_t db_dropBandwidthTxTable(int32_t day);
ADB_API int32_t db_dropPrimitiveRssiTable(void);
ADB_API int32_t db_dropRssiTable(int32_t day);

/* Replays of queued deletes and drops. db_dropQueuePrimitiveBandWidthRxTable (capital W) drops
 * MESHTOPO, like db_dropQueueMeshTopoTable; the name is kept for existing callers. */
ADB_API int32_t db_dropQueueDeviceInfoTable(void);
ADB_API int32_t db_dropQueueMeshTopoTable(void);
ADB_API int32_t db_dropQueuePrimitiveBandWidthRxTable(void);
ADB_API int32_t db_dropQueuePrimitiveBandwidthRxTable(void);
ADB_API int32_t db_dropQueueBandwidthRxTable(int32_t day);
ADB_API int32_t db_dropQueuePrimitiveBandwidthTxTable(void);
ADB_API int32_t db_dropQueueBandwidthTxTable(int32_t day);
ADB_API int32_t db_dropQueuePrimitiveRssiTable(void);
ADB_API int32_t db_dropQueueRssiTable(int32_t day);
ADB_API int32_t db_deleteQueueDeviceInfoTable(void);
ADB_API int32_t db_deleteQueueMacDeviceInfo(const char *mac);
ADB_API int32_t db_deleteQueueMeshTopoTable(void);
ADB_API int32_t db_deleteQueueMacMeshTopo(const char *mac);
ADB_API int32_t db_deleteQueueDayRssi(const char *mac, int32_t day);
ADB_API int32_t db_deleteQueuePrimitiveRssi(const char *mac);
ADB_API int32_t db_deleteQueueDayBandWidthRx(const char *mac, int32_t day);
ADB_API int32_t db_deleteQueuePrimitiveBandWidthRx(const char *mac);
ADB_API int32_t db_deleteQueueNonWanBandwidthRxInfo(void);
ADB_API int32_t db_deleteQueueDayBandWidthTx(const char *mac, int32_t day);
ADB_API int32_t db_deleteQueuePrimitiveBandWidthTx(const char *mac);
ADB_API int32_t db_deleteQueueNonWanBandwidthTxInfo(void);
ADB_API int32_t db_deleteQueueMacDeviceThreshold(const char *deviceClass);

/* ------------------------------------------------------------------------------------------ */
/* Deferred write queue                                                                         */
/* ------------------------------------------------------------------------------------------ */

#define DB_QUEUE_MAX_ENTRIES 320       /* appends are refused beyond this */
#define DB_QUEUE_MAX_PER_CALL 320      /* replay attempts per db_processQueueEntry() */
#define DB_QUEUE_MAX_ATTEMPTS 500      /* attempts on one head before processing stalls */
#define DB_QUEUE_FIELD_SLOTS 50        /* value copies a node holds */
#define DB_QUEUE_TABLE_NAME_SIZE 128

/* One parked request; the queue owns the node and its value copies. */
typedef struct WriteRequestNode {
  int32_t functionId;
  char *fieldValues[DB_QUEUE_FIELD_SLOTS];
  int32_t fieldCount;
  char tableName[DB_QUEUE_TABLE_NAME_SIZE];
  struct WriteRequestNode *next;
} WriteRequestNode;

ADB_API extern WriteRequestNode *writeRequestQueue; /* head, NULL when empty */
ADB_API extern WriteRequestNode *lastNode;          /* tail */
ADB_API extern int32_t queueCount;
ADB_API extern int32_t queueProcessCount;           /* attempts on the current head */
ADB_API extern pthread_mutex_t lock;                /* guards appends and removals */

/* Call once before any other queue operation. Reads ANALYTICSDB_STATS_DIR (see QueueStats). */
ADB_API int32_t db_initQueue(void);
ADB_API int32_t db_queueInit(void);
/* The gate of every write, delete and drop: with status -1 before the statement (non-zero: the
 * request was queued behind a waiting one), with the statement's status after it (3 queues it). */
ADB_API int32_t db_manageQueue(int32_t status, int32_t functionId, char **values, int32_t count,
                               const char *tableName);
/* Replays parked requests from the head: 0 (queue empty), 2 (requests left), 3 (stalled: the
 * head met a locked file DB_QUEUE_MAX_ATTEMPTS times; each later call tries it once more). Call
 * it from one thread; one call starts no replay after the processing budget (db_setBusyWait).
 * Then publishes the queue counters if they changed (see QueueStats). */
ADB_API int32_t db_processQueueEntry(void);
ADB_API int32_t db_processQueue(void);
/* Drops every parked request and removes this process's published counters. */
ADB_API int32_t db_freeQueue(void);
ADB_API int32_t db_freeQueueEntries(void);
/* Logs the queue at info level. */
ADB_API void db_printQueue(void);
ADB_API void queue_printContents(void);

ADB_API int32_t db_updateNonEmptyQueue(int32_t functionId, char **values, int32_t count,
                                       const char *tableName);
ADB_API void db_updateQueueEntry(int32_t functionId, char **values, int32_t count,
                                 const char *tableName);
ADB_API int32_t db_updateQueue(int32_t functionId, char **values, int32_t count,
                               const char *tableName);
ADB_API int32_t db_checkTableEntry(const char *tableName, char **values, int32_t count);
ADB_API int32_t queue_fillDetails(WriteRequestNode *node, int32_t functionId, char **values,
                                  int32_t count, const char *tableName);
ADB_API void freeNode(WriteRequestNode *node);
ADB_API void db_deleteQueueEntry(void);
/* Called by every replay with its status: the head is removed unless the status is 3 or -1. */
ADB_API void db_deleteQueue(int32_t status);
ADB_API void printQueueNode(WriteRequestNode *node);
ADB_API int32_t db_findMatch(WriteRequestNode *node, int32_t functionId, char **values,
                             int32_t count);

/* What the write queue has done since the process started (counters only grow, except length).
 * Every request a write API answered with 3 is counted once in parked, and leaves the queue
 * counted once in replayed, dropped*, or freed.
 * For collectors in other processes, db_processQueueEntry() writes them, when they changed, to
 * <dir>/queue.<pid> as "key value" lines (pid, process, then each field by its name), replaced
 * atomically. <dir> is $ANALYTICSDB_STATS_DIR, else the compiled-in folder (empty: off); it is
 * made if missing and used only on tmpfs or ramfs, never on flash (a notice line says so). */
typedef struct QueueStats {
  uint32_t parked;           /* requests taken into the queue */
  uint32_t replayed;         /* parked requests written by a replay */
  uint32_t retried;          /* replay attempts that met a busy database or a transient error */
  uint32_t droppedError;     /* replays failed with an error a retry cannot fix (logged) */
  uint32_t droppedMalformed; /* nodes removed without a replay: missing values, unknown id */
  uint32_t freed;            /* requests dropped by db_freeQueue() */
  uint32_t refused;          /* requests answered DB_STATUS_QUEUE_FULL: never parked */
  uint32_t stalls;           /* processing calls that ended on a head attempted too often */
  uint32_t length;           /* requests in the queue now */
  uint32_t peakLength;       /* the most requests the queue has held at once */
} QueueStats;

/* Fills *stats: 0, or 1 for NULL. */
ADB_API int32_t db_getQueueStats(QueueStats *stats);

#ifdef __cplusplus
}
#endif

#endif /* ANALYTICSDB_H */
