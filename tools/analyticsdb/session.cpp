// session.cpp - database path, queue set-up, log routing and closing around one command.
#include "session.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "analyticsdb.h"

namespace adbtool {

namespace {

std::chrono::milliseconds gBusyWait = std::chrono::seconds(5);

bool isAnalyticsTable(const std::string &name) {
  static const char *const kFixed[] = {
      "DEVICEINFO",           "MESHTOPO", "CLIENTS",        "SUBSCRIBERINFO",
      "DEVICETHRESHOLD",      "CMAINFO",  "PRIMITIVE_RSSI", "PRIMITIVE_BANDWIDTHRX",
      "PRIMITIVE_BANDWIDTHTX"};
  for (const char *fixed : kFixed)
    if (strcasecmp(name.c_str(), fixed) == 0)
      return true;
  for (const char *word : {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"})
    for (char day = '1'; day <= '7'; ++day)
      if (strcasecmp(name.c_str(), (std::string(word) + day).c_str()) == 0)
        return true;
  return false;
}

struct Connection {
  sqlite3 *db = nullptr;
  ~Connection() { sqlite3_close_v2(db); }
};

// SQLite's own verdict on a file, as a failure kind and its words.
[[noreturn]] void failSqlite(const std::string &path, int code, const char *message) {
  int primary = code & 0xFF;
  std::string what = message != nullptr ? message : sqlite3_errstr(code);
  switch (primary) {
  case SQLITE_BUSY:
  case SQLITE_LOCKED: {
    char waited[32];
    std::snprintf(waited, sizeof waited, "%g", static_cast<double>(gBusyWait.count()) / 1000.0);
    throw ToolError(path + " is busy: another process held it for " + waited +
                        " s (try again, or wait longer with --wait)",
                    Failure::Busy);
  }
  case SQLITE_NOTADB:
  case SQLITE_CORRUPT:
  case SQLITE_FORMAT:
    throw ToolError(path + " is not a database or is damaged: " + what, Failure::Damaged);
  case SQLITE_PERM:
  case SQLITE_READONLY:
  case SQLITE_AUTH:
    throw ToolError("cannot use " + path + ": " + what, Failure::Permission);
  case SQLITE_CANTOPEN:
    if (access(path.c_str(), R_OK) != 0 && errno == EACCES)
      throw ToolError("cannot read " + path + ": " + std::strerror(EACCES), Failure::Permission);
    throw ToolError("cannot open " + path + ": " + what, Failure::General);
  default:
    throw ToolError("cannot read " + path + ": " + what, Failure::General);
  }
}

int64_t countRows(sqlite3 *db, const std::string &table) {
  sqlite3_stmt *raw = nullptr;
  std::string sql = "SELECT count(*) FROM \"" + table + "\"";
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK)
    return 0;
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement(raw, sqlite3_finalize);
  return sqlite3_step(raw) == SQLITE_ROW ? sqlite3_column_int64(raw, 0) : 0;
}

// Read-only: looking never creates, changes or takes a write lock on the file.
DatabaseContents inspect(const std::string &path) {
  DatabaseContents contents;
  contents.exists = true;
  Connection connection;
  int code = sqlite3_open_v2(path.c_str(), &connection.db, SQLITE_OPEN_READONLY, nullptr);
  if (code != SQLITE_OK)
    failSqlite(path, code, connection.db != nullptr ? sqlite3_errmsg(connection.db) : nullptr);
  sqlite3_extended_result_codes(connection.db, 1);
  sqlite3_busy_timeout(connection.db, static_cast<int>(gBusyWait.count()));
  sqlite3_stmt *raw = nullptr;
  code = sqlite3_prepare_v2(connection.db,
                            "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT "
                            "LIKE 'sqlite\\_%' ESCAPE '\\' ORDER BY name",
                            -1, &raw, nullptr);
  if (code != SQLITE_OK)
    failSqlite(path, code, sqlite3_errmsg(connection.db));
  std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt *)> statement(raw, sqlite3_finalize);
  while ((code = sqlite3_step(raw)) == SQLITE_ROW) {
    std::string name = reinterpret_cast<const char *>(sqlite3_column_text(raw, 0));
    if (isAnalyticsTable(name))
      ++contents.analyticsTables;
    else
      contents.foreignTables.push_back(name);
  }
  if (code != SQLITE_DONE)
    failSqlite(path, code, sqlite3_errmsg(connection.db));
  contents.devices = countRows(connection.db, "DEVICEINFO");
  for (const char *index : {"PRIMITIVE_RSSI", "PRIMITIVE_BANDWIDTHRX", "PRIMITIVE_BANDWIDTHTX"})
    contents.seriesRows += countRows(connection.db, index);
  return contents;
}

std::string folderOf(const std::string &path) {
  std::string::size_type slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

std::chrono::milliseconds busyWait() { return gBusyWait; }

Session::Session(const std::string &databasePath, int verbosity, std::ostream &err,
                 std::chrono::milliseconds wait)
    : path_(databasePath), verbosity_(verbosity), err_(err) {
  gBusyWait = wait;
  // The queue mutex is initialised once per process; later commands in the same process (the
  // tests, demo) reuse it.
  static std::once_flag queueReady;
  std::call_once(queueReady, [] { db_initQueue(); });

  if (db_setDatabasePath(path_.c_str()) != DB_STATUS_SUCCESS)
    throw ToolError("unusable database path '" + path_ +
                    "' (empty, or longer than 255 characters)");
  // Installed last: a constructor that throws leaves no handler pointing at this object.
  ryxLogSetHandler(&Session::onLogLine, this);
  ryxLogSetLevel(verbosity_ >= 2   ? RYX_LOG_DEBUG
                 : verbosity_ == 1 ? RYX_LOG_NOTICE
                                   : RYX_LOG_ERROR);
}

Session::~Session() {
  db_freeQueue();
  db_closeDbConnection();
  ryxLogSetHandler(nullptr, nullptr);
  ryxLogSetLevel(RYX_LOG_NOTICE);
}

void Session::onLogLine(int, const char *line, void *user) {
  auto *self = static_cast<Session *>(user);
  // A replay that fails for any reason but a busy database drops its request; the log line
  // is the only sign of it.
  if (std::strstr(line, "Delete Reason:status[") != nullptr)
    ++self->counters_.failedReplays;
  if (self->verbosity_ == 0)
    return;
  self->err_ << line;
  if (line[0] != '\0' && line[std::strlen(line) - 1] != '\n')
    self->err_ << '\n';
}

DatabaseContents Session::requireExistingDatabase() const {
  struct stat info {};
  if (stat(path_.c_str(), &info) != 0) {
    if (errno == ENOENT)
      throw ToolError("no database at " + path_ + " (create one with 'analyticsdb init --db " +
                          path_ + "')",
                      Failure::Missing);
    throw ToolError("cannot read " + path_ + ": " + std::strerror(errno),
                    errno == EACCES ? Failure::Permission : Failure::General);
  }
  if (S_ISDIR(info.st_mode))
    throw ToolError(path_ + " is a directory, not a database file");
  if (access(path_.c_str(), R_OK) != 0)
    throw ToolError("cannot read " + path_ + ": " + std::strerror(errno),
                    errno == EACCES ? Failure::Permission : Failure::General);
  return inspect(path_);
}

DatabaseContents Session::requireWritableDatabase() const {
  const std::string folder = folderOf(path_);
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    throw ToolError("cannot create " + path_ + ": no folder " + folder, Failure::Missing);
  DatabaseContents contents;
  if (stat(path_.c_str(), &info) == 0) {
    contents = requireExistingDatabase();
    if (access(path_.c_str(), W_OK) != 0)
      throw ToolError("cannot write " + path_ + ": " + std::strerror(errno), Failure::Permission);
  }
  // SQLite keeps its journal next to the file: without it no write can commit.
  if (access(folder.c_str(), W_OK) != 0)
    throw ToolError("cannot write in " + folder + " (where " + path_ +
                        " and its journal live): " + std::strerror(errno),
                    Failure::Permission);
  return contents;
}

std::string describeStatus(int32_t status) {
  switch (status) {
  case DB_STATUS_FAILURE:
    return "SQLite error (not an analytics database, or damaged)";
  case DB_STATUS_EMPTY:
    return "no rows";
  case DB_STATUS_BUSY:
    return "database busy (another process holds it)";
  case DB_STATUS_CONSTRAINT:
    return "constraint violation";
  case DB_STATUS_NO_TABLE:
    return "table missing (run 'analyticsdb init' first)";
  case DB_STATUS_OPEN_FAILED:
    return "cannot open the database file";
  case DB_STATUS_QUEUE_FULL:
    return "database busy and the write queue full: not written";
  default:
    return "status " + std::to_string(status);
  }
}

DeviceList::~DeviceList() {
  if (list != nullptr)
    db_freeDeviceInfoResult(&list, rows);
}

void readInventory(Session &session, DeviceList &found) {
  int32_t status =
      retryWhileBusy([&found] { return db_readDeviceInfoTable(&found.list, &found.rows); });
  if (status == DB_STATUS_NO_TABLE)
    throw ToolError("no device table in " + session.path() + " (run 'analyticsdb init' first)",
                    Failure::Missing);
  if (status != DB_STATUS_SUCCESS && status != DB_STATUS_EMPTY)
    throw ToolError("cannot read the devices of " + session.path() + ": " + describeStatus(status),
                    failureOf(status));
  if (status == DB_STATUS_EMPTY)
    found.rows = 0;
}

Failure failureOf(int32_t status) {
  switch (status) {
  case DB_STATUS_BUSY:
  case DB_STATUS_QUEUE_FULL:
    return Failure::Busy;
  case DB_STATUS_NO_TABLE:
    return Failure::Missing;
  case DB_STATUS_FAILURE:
    return Failure::Damaged;
  default:
    return Failure::General;
  }
}

} // namespace adbtool
