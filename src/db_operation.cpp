/*
 * db_operation.cpp - the database access core.
 *
 * Owns the one SQLite connection of the process, opened lazily on first use and kept until the
 * host closes it; runs write statements and table reads on it; turns every SQLite outcome into
 * the library's status codes; and profiles statements while the marker file exists. Every other
 * module reaches SQLite only through the functions of this file.
 */
#include <sqlite3.h>
#include <strings.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "analyticsdb.h"
#include "internal/connection.h"
#include "internal/guards.h"
#include "internal/log.h"
#include "internal/numbers.h"
#include "internal/statement.h"
#include "internal/statement_cache.h"
#include "internal/text_builder.h"
#include "internal/transaction.h"

ADB_LOG_MODULE("db_operation")

extern "C" {
ADB_API sqlite3 *database_connection = nullptr;
ADB_API uint8_t foreignKeyEanbled = 0;
}

namespace {

// A path is handed to SQLite from a zeroed buffer of this size (255 characters at most).
constexpr size_t kPathCapacity = 256;
constexpr size_t kMaxPathLength = kPathCapacity - 1;

char gDatabasePath[kPathCapacity] = ANALYTICSDB_DEFAULT_DB_PATH;
char gProfileMarkerPath[kPathCapacity] = ANALYTICSDB_DEFAULT_PROFILE_MARKER;

int32_t storePath(char (&target)[kPathCapacity], const char *path) {
  if (path == nullptr || path[0] == '\0' || std::strlen(path) > kMaxPathLength) {
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder(target, sizeof target).append(path);
  return DB_STATUS_SUCCESS;
}

// The check-then-open of db_open and the close are one step each: threads making their first
// calls at once must find one connection, not open one each.
std::mutex gOpenMutex;

// How long a statement waits for a file another process holds, and how long one processing call
// goes on starting replays. Short lock bursts of other processes' transactions are waited out
// instead of parked; the budget keeps a processing call's caller from blocking for long.
std::atomic<uint32_t> gStatementWaitMs{ANALYTICSDB_BUSY_WAIT_MS};
std::atomic<uint32_t> gProcessingBudgetMs{ANALYTICSDB_PROCESS_BUDGET_MS};

// SQLite's result of the last statement this thread ran: the queue asks whether a failed replay
// is worth a retry, and the status codes alone cannot tell a full disk from bad SQL.
thread_local int tLastResult = SQLITE_OK;

// The busy handler: SQLite calls it with count 0 when a statement first meets the lock, then
// again while it returns non-zero. Sleeps in growing steps until the wait is used up.
int waitForLock(void *, int count) {
  thread_local uint64_t waitStarted = 0;
  uint64_t now = adb::monotonicMillis();
  if (count == 0) waitStarted = now;
  uint64_t wait = gStatementWaitMs.load(std::memory_order_relaxed);
  uint64_t waited = now - waitStarted;
  if (waited >= wait) return 0;
  uint64_t step = count < 3 ? 1u : (count < 10 ? 2u : 5u);
  if (step > wait - waited) step = wait - waited;
  timespec pause{0, static_cast<long>(step * 1000000u)};
  nanosleep(&pause, nullptr);
  return 1;
}

// What every new connection gets before its first statement: the busy handler, and commits
// that survive a power cut. With the rollback journal, synchronous=FULL syncs the journal and
// the database but not the journal's deletion, so a cut right after COMMIT returned could bring
// the journal back and roll the transaction back: EXTRA syncs the directory too. In WAL mode the
// WAL is synced at every commit; EXTRA is kept there as well, so that a file the switch to WAL
// did not reach (another process held it) is still safe.
void prepareConnection(sqlite3 *db) {
  sqlite3_busy_handler(db, waitForLock, nullptr);
#if ANALYTICSDB_WAL
  sqlite3_exec(db, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
#endif
  sqlite3_exec(db, "PRAGMA synchronous = EXTRA", nullptr, nullptr, nullptr);
}

// Set while the caller's transaction (BEGIN ... COMMIT) is open on the shared connection, which
// every thread of the process shares.
std::atomic<bool> gTransactionOpen{false};

// The caller began a transaction that SQLite has since rolled back.
bool transactionLost() {
  return gTransactionOpen && database_connection != nullptr &&
         sqlite3_get_autocommit(database_connection) != 0;
}

const char *orNull(const char *text) { return text != nullptr ? text : "NULL"; }

// The status of a failed statement, by SQLite's result code. "no such table" in the message is
// tested by the callers first, since it wins over every code.
int32_t statusOf(int result) {
  switch (result & 0xff) {
    case SQLITE_CONSTRAINT:
      return DB_STATUS_CONSTRAINT;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return DB_STATUS_BUSY;
    default:
      return DB_STATUS_FAILURE;
  }
}

bool mentionsMissingTable(const char *message) {
  return message != nullptr && std::strstr(message, "no such table") != nullptr;
}

sqlite3 *connectionOf(sqlite3 **handle) { return handle != nullptr ? *handle : nullptr; }

// One profiling sample: wall-clock milliseconds and the process's CPU ticks.
struct ProfileSample {
  uint64_t millis = 0;
  uint32_t ticks = 0;

  static ProfileSample take() {
    ProfileSample sample;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    sample.millis = static_cast<uint64_t>(now.tv_sec) * 1000u +
                    static_cast<uint64_t>(now.tv_nsec / 1000000);
    db_getCpuTime(&sample.ticks);
    return sample;
  }
};

// Profiling costs two child processes per statement, so it only runs while the marker file
// exists (tested on every call, so creating or removing it takes effect at once) and while its
// info-level line would be logged at all.
bool profilingOn() {
  return adb::log::enabled(RYX_LOG_INFO) && access(gProfileMarkerPath, F_OK) == 0;
}


// The write path's lines are db_execStatement's and db_write's whichever way a statement ran
// (its text through sqlite3_exec, or a cached compiled statement), so the log does not change
// with the statement cache.
constexpr adb::log::Origin kExecStatementLines{kLogModule, "db_execStatement"};
constexpr adb::log::Origin kWriteLines{kLogModule, "db_write"};

// A statement text composed already.
class PlainText final : public adb::StatementText {
 public:
  explicit PlainText(const char *sql) : sql_(sql) {}
  const char *get() override { return sql_; }

 private:
  const char *sql_;
};

// Steps a compiled write once and leaves it reset and unbound; SQLite's result as sqlite3_exec
// reports it, and its message in `message` on failure. The connection's lock is held
// throughout, so that another thread's statement cannot replace the message first.
int stepCompiled(sqlite3 *db, sqlite3_stmt *statement, adb::SqliteMessage &message) {
  sqlite3_mutex *mutex = sqlite3_db_mutex(db);
  sqlite3_mutex_enter(mutex);
  int result = sqlite3_step(statement);
  if (result == SQLITE_DONE || result == SQLITE_ROW) {
    result = SQLITE_OK;
  } else {
    *message.out() = sqlite3_mprintf("%s", sqlite3_errmsg(db));
  }
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  sqlite3_mutex_leave(mutex);
  return result;
}

// The status of a write that SQLite refused with `result` and `message`, its lines logged as
// db_execStatement logs them.
int32_t reportWriteFailure(adb::StatementText &sql, int result, const char *message) {
  if (message != nullptr) {
    // A duplicate key is the expected first step of insert-or-update: not worth an error line.
    if ((result & 0xff) == SQLITE_CONSTRAINT && std::strstr(message, "UNIQUE constraint")) {
      ADB_LOG_FOR(kExecStatementLines, RYX_LOG_DEBUG,
                  "[analyticsDB] WRITE Error: %s ret : %d \n Query : %s \n", message, result,
                  orNull(sql.get()));
    } else {
      ADB_LOG_FOR(kExecStatementLines, RYX_LOG_ERROR,
                  "[analyticsDB] WRITE Error: %s ret : %d \n Query : %s \n", message, result,
                  orNull(sql.get()));
    }
    if (mentionsMissingTable(message)) {
      ADB_LOG_FOR(kExecStatementLines, RYX_LOG_ERROR, "[analyticsDB] WRITE Table doesnt exist\n");
      return DB_STATUS_NO_TABLE;
    }
  } else {
    ADB_LOG_FOR(kExecStatementLines, RYX_LOG_ERROR,
                "[analyticsDB] WRITE Error: ret : %d \n Query : %s \n", result, orNull(sql.get()));
  }
  return statusOf(result);
}

// Runs one write statement: its text through sqlite3_exec, or `compiled` (its values bound)
// through sqlite3_step. The lines are db_execStatement's whichever way it ran, so that the log
// does not show whether a cached statement ran; the text is composed only for a line that is
// logged. SQLite's result goes to `result`.
int32_t execWrite(adb::StatementText &sql, sqlite3 *db, sqlite3_stmt *compiled, int *result) {
  ADB_LOG_FOR(kExecStatementLines, RYX_LOG_DEBUG, "[analyticsDB] WRITE QUERY: %s",
              orNull(sql.get()));
  adb::SqliteMessage message;
  if (compiled != nullptr) {
    *result = stepCompiled(db, compiled, message);
  } else {
    // Compiled statements of a table that changes or goes are dropped before it does.
    if (db != nullptr && db == database_connection && adb::mayChangeSchema(sql.get())) {
      adb::clearStatementCache();
    }
    *result = sqlite3_exec(db, sql.get(), nullptr, nullptr, message.out());
  }
  tLastResult = *result;
  if (*result == SQLITE_OK) return DB_STATUS_SUCCESS;
  return reportWriteFailure(sql, *result, message.get());
}

// execWrite on the shared connection, profiled while the marker file exists; the profile line
// is db_write's either way.
int32_t writeProfiled(adb::StatementText &sql, sqlite3_stmt *compiled, int *result) {
  if (!profilingOn()) return execWrite(sql, database_connection, compiled, result);
  ProfileSample start = ProfileSample::take();
  int32_t status = execWrite(sql, database_connection, compiled, result);
  ProfileSample end = ProfileSample::take();
  ADB_LOG_FOR(kWriteLines, RYX_LOG_INFO,
              "[analyticsDB] Profile : Time [%llu] millisecs  Clock ticks [%lu] API [%s]",
              static_cast<unsigned long long>(end.millis - start.millis),
              static_cast<unsigned long>(end.ticks - start.ticks), orNull(sql.get()));
  return status;
}

// Marks of an UPDATE admitted to the cache.
constexpr int kKeyMatches = 0;
// ...and on its table an INSERT of a row whose key exists can only fail on the key: no other
// column must be NOT NULL, no CHECK may refuse the values first, no trigger may act on it.
constexpr int kInsertFailsOnKeyAlone = 1;

// The text of one row of the schema table about `table`, if any, handed to `use`.
template <typename Use>
bool schemaRow(sqlite3 *db, const char *query, const char *table, Use &&use) {
  sqlite3_stmt *statement = nullptr;
  if (sqlite3_prepare_v2(db, query, -1, &statement, nullptr) != SQLITE_OK) {
    sqlite3_finalize(statement);
    return false;
  }
  sqlite3_bind_text(statement, 1, table, -1, SQLITE_STATIC);
  int result = sqlite3_step(statement);
  if (result == SQLITE_ROW) {
    use(reinterpret_cast<const char *>(sqlite3_column_text(statement, 0)));
  }
  sqlite3_finalize(statement);
  return result == SQLITE_ROW || result == SQLITE_DONE;
}

size_t occurrences(const char *text, const char *part) {
  size_t count = 0;
  for (const char *p = text; p != nullptr && (p = strcasestr(p, part)) != nullptr; ++p) ++count;
  return count;
}

// "=" finds the rows LIKE finds (no wildcards in the value) only where the key column has text
// affinity and compares without case, as LIKE does.
int admitKeyedUpdate(sqlite3 *db, const void *context) {
  const auto *write = static_cast<const adb::BoundWrite *>(context);
  const char *type = nullptr;
  const char *collation = nullptr;
  int notNull = 0;
  if (sqlite3_table_column_metadata(db, nullptr, write->keyTable, write->keyColumn, &type,
                                    &collation, &notNull, nullptr, nullptr) != SQLITE_OK) {
    return -1;
  }
  bool textAffinity = type != nullptr && strcasestr(type, "INT") == nullptr &&
                      (strcasestr(type, "CHAR") != nullptr || strcasestr(type, "CLOB") != nullptr ||
                       strcasestr(type, "TEXT") != nullptr);
  if (!textAffinity || collation == nullptr || strcasecmp(collation, "NOCASE") != 0) return -1;
  bool plainTable = false;
  bool triggers = true;
  bool read =
      schemaRow(db, "SELECT sql FROM sqlite_master WHERE type='table' AND name=?1 COLLATE NOCASE",
                write->keyTable,
                [&](const char *sql) {
                  plainTable = sql != nullptr && strcasestr(sql, "CHECK") == nullptr &&
                               occurrences(sql, "NOT NULL") == (notNull != 0 ? 1u : 0u);
                }) &&
      schemaRow(db,
                "SELECT count(*) FROM sqlite_master WHERE type='trigger' AND tbl_name=?1 "
                "COLLATE NOCASE",
                write->keyTable, [&](const char *count) {
                  triggers = count == nullptr || std::strcmp(count, "0") != 0;
                });
  return read && plainTable && !triggers && notNull != 0 ? kInsertFailsOnKeyAlone : kKeyMatches;
}

bool bindAll(sqlite3_stmt *statement, const adb::BoundWrite &write) {
  if (sqlite3_bind_parameter_count(statement) != write.count) return false;
  for (int32_t i = 0; i < write.count; ++i) {
    const adb::BoundValue &value = write.values[i];
    int result = value.text != nullptr
                     ? sqlite3_bind_text(statement, i + 1, value.text,
                                         static_cast<int>(value.length), SQLITE_STATIC)
                     : sqlite3_bind_int64(statement, i + 1, value.number);
    if (result != SQLITE_OK) return false;
  }
  return true;
}

}  // namespace

bool adb::writeCompiled(const BoundWrite &write, StatementText &text, int32_t *status) {
  sqlite3 *db = database_connection;
  if (!statementCacheEnabled() || db == nullptr || transactionLost()) return false;
  int mark = 0;
  sqlite3_stmt *statement = checkOutStatement(
      db, write.sql, write.keyColumn != nullptr ? admitKeyedUpdate : nullptr, &write, &mark);
  if (statement == nullptr) return false;
  if (!bindAll(statement, write)) {
    sqlite3_clear_bindings(statement);
    checkInStatement(statement, true);
    return false;
  }
  int result = SQLITE_OK;
  *status = writeProfiled(text, statement, &result);
  if (*status == DB_STATUS_SUCCESS) noteTransactionState();
  // A statement that failed to recompile after a schema change is compiled afresh next time.
  int primary = result & 0xff;
  checkInStatement(statement, primary != SQLITE_ERROR && primary != SQLITE_SCHEMA);
  return true;
}

bool adb::updateExistingRow(const BoundWrite &update, StatementText &text, int32_t *status) {
  sqlite3 *db = database_connection;
  // Only where skipping the INSERT shows nowhere: its refusal is logged at debug level, and
  // profiled.
  if (!statementCacheEnabled() || db == nullptr || update.keyColumn == nullptr ||
      adb::log::enabled(RYX_LOG_DEBUG) || transactionLost() || profilingOn()) {
    return false;
  }
  int mark = 0;
  sqlite3_stmt *statement = checkOutStatement(db, update.sql, admitKeyedUpdate, &update, &mark);
  if (statement == nullptr) return false;
  if (mark != kInsertFailsOnKeyAlone || !bindAll(statement, update)) {
    sqlite3_clear_bindings(statement);
    checkInStatement(statement, true);
    return false;
  }
  adb::SqliteMessage message;
  sqlite3_mutex *mutex = sqlite3_db_mutex(db);
  sqlite3_mutex_enter(mutex);
  int result = sqlite3_step(statement);
  tLastResult = result;
  bool updated = result == SQLITE_DONE && sqlite3_changes(db) == 1;
  if (result != SQLITE_DONE) *message.out() = sqlite3_mprintf("%s", sqlite3_errmsg(db));
  sqlite3_reset(statement);
  sqlite3_clear_bindings(statement);
  sqlite3_mutex_leave(mutex);
  int primary = result & 0xff;
  checkInStatement(statement, primary != SQLITE_ERROR && primary != SQLITE_SCHEMA);
  if (updated) {
    *status = DB_STATUS_SUCCESS;
    noteTransactionState();
    return true;
  }
  // No row; or a refusal that SQLite undid whole (busy, a constraint, a schema change): the
  // INSERT and UPDATE run as usual and meet it themselves.
  if (result == SQLITE_DONE || primary == SQLITE_BUSY || primary == SQLITE_LOCKED ||
      primary == SQLITE_CONSTRAINT || primary == SQLITE_ERROR || primary == SQLITE_SCHEMA) {
    return false;
  }
  // A failed write or sync (the row was there to be written), a full disk, no memory: may have
  // cost the caller's transaction, so it is not tried again; reported as the UPDATE's failure,
  // which is what the INSERT refused on the key would have been followed by.
  *status = reportWriteFailure(text, result, message.get());
  return true;
}

uint64_t adb::monotonicMillis() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec / 1000000);
}

uint32_t adb::processingBudgetMs() { return gProcessingBudgetMs.load(std::memory_order_relaxed); }
uint32_t adb::statementWaitMs() { return gStatementWaitMs.load(std::memory_order_relaxed); }

bool adb::lastFailureTransient() {
  switch (tLastResult & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
    case SQLITE_ABORT:  // refused inside a transaction SQLite rolled back: fine after COMMIT
      return true;
    default:
      return false;
  }
}

bool adb::callerTransactionOpen() { return gTransactionOpen; }

int32_t adb::abandonTransaction(int32_t functionId, const char *tableFamily, const char *key) {
  ADB_LOG_FOR(kWriteLines, RYX_LOG_ERROR,
              "[analyticsDB] WRITE refused: func[%d] Table[%s] Key[%s] cannot join the open "
              "transaction (database busy or an earlier request for the key is queued): the "
              "transaction is rolled back, COMMIT ends it\n",
              functionId, orNull(tableFamily), orNull(key));
  // gTransactionOpen stays set: with SQLite out of the transaction, later writes and the
  // caller's COMMIT are refused, so the caller learns that nothing of it was kept.
  if (database_connection != nullptr && sqlite3_get_autocommit(database_connection) == 0) {
    sqlite3_exec(database_connection, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return DB_STATUS_FAILURE;
}

void adb::noteTransactionState() {
  gTransactionOpen =
      database_connection != nullptr && sqlite3_get_autocommit(database_connection) == 0;
}

extern "C" {

ADB_API int32_t db_setDatabasePath(const char *path) {
  if (database_connection != nullptr) return DB_STATUS_FAILURE;
  return storePath(gDatabasePath, path);
}

ADB_API int32_t db_setProfileMarkerPath(const char *path) {
  return storePath(gProfileMarkerPath, path);
}

ADB_API int32_t db_setBusyWait(uint32_t statementMs, uint32_t processingMs) {
  gStatementWaitMs.store(statementMs, std::memory_order_relaxed);
  gProcessingBudgetMs.store(processingMs, std::memory_order_relaxed);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_open_connection(sqlite3 **handle) {
  foreignKeyEanbled = 0;
  if (handle == nullptr) return DB_STATUS_OPEN_FAILED;
  char path[kPathCapacity] = {};
  adb::TextBuilder(path, sizeof path).append(gDatabasePath);
  int result = sqlite3_open_v2(path, handle,
                               SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                               nullptr);
  if (result != SQLITE_OK) {
    ADB_LOG_ERROR("[analyticsDB] Opening connection failed ret %d message: %s\n", result,
                  sqlite3_errmsg(*handle));
    // SQLite hands out a handle even when the open fails; it must be released.
    db_close_connection(handle);
    return DB_STATUS_OPEN_FAILED;
  }
  prepareConnection(*handle);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_open(void) {
  std::lock_guard<std::mutex> guard(gOpenMutex);
  if (database_connection == nullptr) {
    int32_t status = db_open_connection(&database_connection);
    if (status != DB_STATUS_SUCCESS) return status;
    // SQLite accepts only powers of two as page size, so this statement has no effect; it is
    // kept as the file format's history has it.
    db_execStatement("PRAGMA page_size = 10240", &database_connection);
  } else {
    ADB_LOG_DEBUG("[analyticsDB] Already connected to DB\n");
  }
  if (foreignKeyEanbled == 0 &&
      db_execStatement("PRAGMA foreign_keys = ON", &database_connection) == DB_STATUS_SUCCESS) {
    foreignKeyEanbled = 1;
  }
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_close_connection(sqlite3 **handle) {
  if (handle == nullptr) return DB_STATUS_SUCCESS;
  // Compiled statements would keep SQLite from closing the connection.
  if (*handle != nullptr && *handle == database_connection) adb::clearStatementCache();
  int result = sqlite3_close_v2(*handle);
  if (result != SQLITE_OK) {
    ADB_LOG_ERROR("[analyticsDB] Closing connection failed %d\n", result);
    return DB_STATUS_FAILURE;
  }
  *handle = nullptr;
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_close(void) {
  std::lock_guard<std::mutex> guard(gOpenMutex);
  if (database_connection == nullptr) return DB_STATUS_SUCCESS;
  int32_t status = db_close_connection(&database_connection);
  adb::noteTransactionState();  // closing ends (rolls back) an open transaction
  return status;
}

ADB_API int32_t db_closeConnection(void) { return db_close(); }

ADB_API int32_t db_closeDbConnection(void) { return db_closeConnection(); }

ADB_API int32_t db_execStatement(const char *sql, sqlite3 **handle) {
  PlainText text(sql);
  int result = SQLITE_OK;
  return execWrite(text, connectionOf(handle), nullptr, &result);
}

ADB_API int32_t db_retrieveTableData(const char *sql, char ***cells, int32_t *rowCount,
                                     int32_t *columnCount, sqlite3 **handle) {
  ADB_LOG_DEBUG("[analyticsDB] READ QUERY : %s\n", orNull(sql));
  adb::SqliteMessage message;
  int result = sqlite3_get_table(connectionOf(handle), sql, cells, rowCount, columnCount,
                                 message.out());
  tLastResult = result;
  if (result == SQLITE_OK) return DB_STATUS_SUCCESS;
  if (message.get() != nullptr) {
    ADB_LOG_ERROR("[analyticsDB] READ ERROR : %s ret : %d\n", message.get(), result);
    if (mentionsMissingTable(message.get())) {
      ADB_LOG_ERROR("[analyticsDB] READ Table doesnt exist\n");
      return DB_STATUS_NO_TABLE;
    }
  } else {
    ADB_LOG_ERROR("[analyticsDB] READ Error: ret : %d \n", result);
  }
  return statusOf(result);
}

ADB_API int32_t db_write(const char *sql) {
  if (transactionLost()) {
    ADB_LOG_ERROR("[analyticsDB] WRITE refused: the transaction was rolled back by an earlier "
                  "error, COMMIT ends it \n Query : %s \n", orNull(sql));
    tLastResult = SQLITE_ABORT;
    return DB_STATUS_FAILURE;
  }
  PlainText text(sql);
  int result = SQLITE_OK;
  int32_t status = writeProfiled(text, nullptr, &result);
  // A statement that succeeded cannot have lost a transaction, but it may have begun or ended
  // one (the caller's own BEGIN, COMMIT or ROLLBACK); a failed one leaves the record as it was,
  // so that a rollback SQLite made on its own stays visible.
  if (status == DB_STATUS_SUCCESS) adb::noteTransactionState();
  return status;
}

ADB_API int32_t db_setStatementCache(int32_t enabled) {
  adb::setStatementCacheEnabled(enabled != 0);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_getStatementCacheFigures(uint32_t *statements, uint32_t *bytes) {
  if (statements == nullptr || bytes == nullptr) return DB_STATUS_FAILURE;
  adb::StatementCacheFigures figures = adb::statementCacheFigures();
  *statements = figures.entries;
  *bytes = figures.bytes;
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_read(const char *sql, char ***cells, int32_t *rowCount, int32_t *columnCount) {
  if (!profilingOn()) {
    return db_retrieveTableData(sql, cells, rowCount, columnCount, &database_connection);
  }
  ProfileSample start = ProfileSample::take();
  int32_t status = db_retrieveTableData(sql, cells, rowCount, columnCount, &database_connection);
  ProfileSample end = ProfileSample::take();
  ADB_LOG_INFO("[analyticsDB] Profile : Time [%llu] millisecs Clock ticks [%lu] API [%s]",
               static_cast<unsigned long long>(end.millis - start.millis),
               static_cast<unsigned long>(end.ticks - start.ticks), orNull(sql));
  return status;
}

ADB_API void db_freeTableResult(char ***cells) {
  ADB_LOG_DEBUG("[analyticsDB] Freeing memory allocated for Table output\n");
  if (cells != nullptr) sqlite3_free_table(*cells);
}

ADB_API void db_freeResult(char ***cells) { db_freeTableResult(cells); }

ADB_API int32_t db_getCpuTime(uint32_t *ticks) {
  // awk prints the user and system time of this process (fields 14 and 15), one blank apart.
  adb::FixedText<256> command;
  command.appendf("awk '{print $%d\" \"$%d}' /proc/%d/stat", 14, 15, static_cast<int>(getpid()));
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] cant execute command [%s]\n", command.c_str());
    return DB_STATUS_FAILURE;
  }
  char line[256] = {};
  uint32_t sum = 0;
  if (std::fgets(line, sizeof line, pipe) != nullptr) {
    char *save = nullptr;
    const char *user = strtok_r(line, " \n", &save);
    const char *system = user != nullptr ? strtok_r(nullptr, " \n", &save) : nullptr;
    sum = adb::strtoul32(user) + adb::strtoul32(system);
  }
  int32_t status = pclose(pipe);
  if (ticks != nullptr) *ticks = sum;
  return status;
}

}  // extern "C"
