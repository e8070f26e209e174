#include "bench_support.h"

#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

#include "analyticsdb.h"

namespace adbbench {
namespace {

std::vector<Statement> *gCaptured = nullptr;

void discardLine(int, const char *, void *) {}

void collectStatement(int, const char *line, void *) {
  static constexpr const char *kWrite = "WRITE QUERY: ";
  static constexpr const char *kRead = "READ QUERY : ";
  if (gCaptured == nullptr) return;
  bool read = false;
  const char *at = std::strstr(line, kWrite);
  if (at != nullptr) {
    at += std::strlen(kWrite);
  } else if ((at = std::strstr(line, kRead)) != nullptr) {
    at += std::strlen(kRead);
    read = true;
  } else {
    return;
  }
  std::string sql(at);
  // The read line ends with a newline the statement itself does not have.
  if (read && !sql.empty() && sql.back() == '\n') sql.pop_back();
  gCaptured->push_back({read, sql});
}

void check(bool ok, const char *what) {
  if (!ok) {
    std::fprintf(stderr, "bench setup failed: %s\n", what);
    std::exit(1);
  }
}

void createAllTables(int rxSlotsPerDay) {
  check(db_createDeviceInfoTable() == DB_STATUS_SUCCESS, "DEVICEINFO");
  check(db_createPrimitiveRssiTable(kSlotsPerDay) == DB_STATUS_SUCCESS, "PRIMITIVE_RSSI");
  check(db_createPrimitiveBandWidthRxTable(kSlotsPerDay) == DB_STATUS_SUCCESS, "PRIMITIVE_RX");
  check(db_createPrimitiveBandWidthTxTable(kSlotsPerDay) == DB_STATUS_SUCCESS, "PRIMITIVE_TX");
  for (uint32_t day = 1; day <= kDays; ++day) {
    check(db_createRssiTab(day, kSlotsPerDay) == DB_STATUS_SUCCESS, "RSSI day");
    check(db_createRxBandWidth(day, rxSlotsPerDay) == DB_STATUS_SUCCESS, "RX day");
    check(db_createTxBandWidth(day, kSlotsPerDay) == DB_STATUS_SUCCESS, "TX day");
  }
}

int columnCount(const RawConnection &raw, const std::string &table) {
  sqlite3_stmt *statement = nullptr;
  std::string sql = "SELECT count(*) FROM pragma_table_info('" + table + "')";
  check(sqlite3_prepare_v2(raw.get(), sql.c_str(), -1, &statement, nullptr) == SQLITE_OK,
        "table_info");
  check(sqlite3_step(statement) == SQLITE_ROW, "table_info row");
  int count = sqlite3_column_int(statement, 0);
  sqlite3_finalize(statement);
  return count;
}

void fillWeek(const std::string &path) {
  RawConnection raw(path);
  check(raw.exec("BEGIN") == SQLITE_OK, "BEGIN");
  for (int device = 0; device < kDevices; ++device) {
    std::vector<std::string> row = deviceInfoRow(macOf(device), device);
    std::string sql = "INSERT INTO DEVICEINFO VALUES(";
    for (size_t i = 0; i < row.size(); ++i) {
      if (i != 0) sql += ",";
      sql += "'" + row[i] + "'";
    }
    check(raw.exec(sql + ")") == SQLITE_OK, "DEVICEINFO row");
  }
  const char *series[] = {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"};
  for (const char *word : series) {
    bool rssi = std::strcmp(word, "RSSI") == 0;
    std::string index = rssi ? "INSERT INTO PRIMITIVE_RSSI (MAC_S,SLT_IND,TIMESTAMP) VALUES(?1,?3,?4)"
                             : std::string("INSERT INTO PRIMITIVE_") + word +
                                   " (MAC_S,SOURCE_S,SLT_IND,TIMESTAMP) VALUES(?1,?2,?3,?4)";
    sqlite3_stmt *indexRow = nullptr;
    check(sqlite3_prepare_v2(raw.get(), index.c_str(), -1, &indexRow, nullptr) == SQLITE_OK,
          "prepare index row");
    std::vector<sqlite3_stmt *> dayRows;
    int slotsPerDay = 0;
    for (int day = 1; day <= kDays; ++day) {
      std::string table = word + std::to_string(day);
      slotsPerDay = columnCount(raw, table) - 1;
      std::string sql = "INSERT INTO " + table + " VALUES(?";
      for (int k = 0; k < slotsPerDay; ++k) sql += ",?";
      sqlite3_stmt *statement = nullptr;
      check(sqlite3_prepare_v2(raw.get(), (sql + ")").c_str(), -1, &statement, nullptr) ==
                SQLITE_OK,
            "prepare day row");
      dayRows.push_back(statement);
    }
    for (int device = 0; device < kDevices; ++device) {
      std::string mac = macOf(device);
      sqlite3_bind_text(indexRow, 1, mac.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_text(indexRow, 2, device == 0 ? kWanSource : "LAN", -1, SQLITE_STATIC);
      sqlite3_bind_int(indexRow, 3, kLatestSlot);
      sqlite3_bind_int64(indexRow, 4, kLatestTime);
      check(sqlite3_step(indexRow) == SQLITE_DONE, "index row");
      sqlite3_reset(indexRow);
      for (int day = 1; day <= kDays; ++day) {
        sqlite3_stmt *statement = dayRows[static_cast<size_t>(day - 1)];
        sqlite3_bind_text(statement, 1, mac.c_str(), -1, SQLITE_TRANSIENT);
        for (int k = 1; k <= slotsPerDay; ++k) {
          // Bandwidth-like magnitudes, so the text of each value is as long as real ones.
          sqlite3_bind_int64(statement, k + 1, 1'000'000 + device * 7919 + day * 331 + k);
        }
        check(sqlite3_step(statement) == SQLITE_DONE, "day row");
        sqlite3_reset(statement);
      }
    }
    sqlite3_finalize(indexRow);
    for (sqlite3_stmt *statement : dayRows) sqlite3_finalize(statement);
  }
  check(raw.exec("COMMIT") == SQLITE_OK, "COMMIT");
}

std::string buildTemplate(const char *name, bool withWeek, int rxSlotsPerDay) {
  std::string path = workDir() + "/" + name;
  useLibraryDatabase(path);
  createAllTables(rxSlotsPerDay);
  db_close();
  if (withWeek) fillWeek(path);
  return path;
}

}  // namespace

std::string macOf(int device) {
  char text[32];
  std::snprintf(text, sizeof text, "AA:BB:CC:00:%02X:%02X", (device >> 8) & 0xff, device & 0xff);
  return text;
}

const std::string &workDir() {
  static const std::string dir = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "adbbench.XXXXXX").string();
    check(mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    std::atexit([] {
      db_close();
      std::error_code ignored;
      std::filesystem::remove_all(workDir(), ignored);
    });
    return pattern;
  }();
  return dir;
}

void copyWeekDatabase(const std::string &path) {
  static const std::string source = buildTemplate("template-week.db", true, kSlotsPerDay);
  std::filesystem::copy_file(source, path, std::filesystem::copy_options::overwrite_existing);
}

void copyEmptyDatabase(const std::string &path) {
  static const std::string source = buildTemplate("template-empty.db", false, kSlotsPerDay);
  std::filesystem::copy_file(source, path, std::filesystem::copy_options::overwrite_existing);
}

void copyNarrowWeekDatabase(const std::string &path) {
  static const std::string source =
      buildTemplate("template-narrow-week.db", true, kNarrowRxSlotsPerDay);
  std::filesystem::copy_file(source, path, std::filesystem::copy_options::overwrite_existing);
}

void useLibraryDatabase(const std::string &path) {
  check(db_close() == DB_STATUS_SUCCESS, "db_close");
  check(db_setDatabasePath(path.c_str()) == DB_STATUS_SUCCESS, "db_setDatabasePath");
  // No marker file: statement profiling stays off, as on a gateway in service.
  check(db_setProfileMarkerPath((workDir() + "/no-profile-marker").c_str()) == DB_STATUS_SUCCESS,
        "db_setProfileMarkerPath");
  check(db_open() == DB_STATUS_SUCCESS, "db_open");
  static std::once_flag queue;
  std::call_once(queue, [] { db_initQueue(); });
}

namespace {

std::atomic<uint64_t> gBytesWritten{0};
std::atomic<uint64_t> gSyncs{0};
sqlite3_vfs *gRealVfs = nullptr;
sqlite3_vfs gCountingVfs;

// Our file header, followed in the same block by the real VFS's file.
struct CountingFile {
  sqlite3_file base;
  sqlite3_file *real() { return reinterpret_cast<sqlite3_file *>(this + 1); }
};

sqlite3_file *realOf(sqlite3_file *file) { return reinterpret_cast<CountingFile *>(file)->real(); }

int countingClose(sqlite3_file *f) { return realOf(f)->pMethods->xClose(realOf(f)); }
int countingRead(sqlite3_file *f, void *buffer, int amount, sqlite3_int64 offset) {
  return realOf(f)->pMethods->xRead(realOf(f), buffer, amount, offset);
}
int countingWrite(sqlite3_file *f, const void *buffer, int amount, sqlite3_int64 offset) {
  gBytesWritten += static_cast<uint64_t>(amount);
  return realOf(f)->pMethods->xWrite(realOf(f), buffer, amount, offset);
}
int countingTruncate(sqlite3_file *f, sqlite3_int64 size) {
  return realOf(f)->pMethods->xTruncate(realOf(f), size);
}
int countingSync(sqlite3_file *f, int flags) {
  ++gSyncs;
  return realOf(f)->pMethods->xSync(realOf(f), flags);
}
int countingFileSize(sqlite3_file *f, sqlite3_int64 *size) {
  return realOf(f)->pMethods->xFileSize(realOf(f), size);
}
int countingLock(sqlite3_file *f, int level) { return realOf(f)->pMethods->xLock(realOf(f), level); }
int countingUnlock(sqlite3_file *f, int level) {
  return realOf(f)->pMethods->xUnlock(realOf(f), level);
}
int countingCheckReservedLock(sqlite3_file *f, int *out) {
  return realOf(f)->pMethods->xCheckReservedLock(realOf(f), out);
}
int countingFileControl(sqlite3_file *f, int op, void *arg) {
  return realOf(f)->pMethods->xFileControl(realOf(f), op, arg);
}
int countingSectorSize(sqlite3_file *f) { return realOf(f)->pMethods->xSectorSize(realOf(f)); }
int countingDeviceCharacteristics(sqlite3_file *f) {
  return realOf(f)->pMethods->xDeviceCharacteristics(realOf(f));
}
int countingShmMap(sqlite3_file *f, int page, int size, int extend, void volatile **out) {
  return realOf(f)->pMethods->xShmMap(realOf(f), page, size, extend, out);
}
int countingShmLock(sqlite3_file *f, int offset, int n, int flags) {
  return realOf(f)->pMethods->xShmLock(realOf(f), offset, n, flags);
}
void countingShmBarrier(sqlite3_file *f) { realOf(f)->pMethods->xShmBarrier(realOf(f)); }
int countingShmUnmap(sqlite3_file *f, int deleteFlag) {
  return realOf(f)->pMethods->xShmUnmap(realOf(f), deleteFlag);
}
int countingFetch(sqlite3_file *f, sqlite3_int64 offset, int amount, void **out) {
  return realOf(f)->pMethods->xFetch(realOf(f), offset, amount, out);
}
int countingUnfetch(sqlite3_file *f, sqlite3_int64 offset, void *page) {
  return realOf(f)->pMethods->xUnfetch(realOf(f), offset, page);
}

const sqlite3_io_methods kCountingMethods = {
    3,
    countingClose,
    countingRead,
    countingWrite,
    countingTruncate,
    countingSync,
    countingFileSize,
    countingLock,
    countingUnlock,
    countingCheckReservedLock,
    countingFileControl,
    countingSectorSize,
    countingDeviceCharacteristics,
    countingShmMap,
    countingShmLock,
    countingShmBarrier,
    countingShmUnmap,
    countingFetch,
    countingUnfetch,
};

// A deletion whose directory is synced (the rollback journal's, under synchronous=EXTRA) costs
// the flash a sync too.
int countingDelete(sqlite3_vfs *, const char *path, int syncDir) {
  if (syncDir != 0) ++gSyncs;
  return gRealVfs->xDelete(gRealVfs, path, syncDir);
}

int countingOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *out) {
  auto *counting = reinterpret_cast<CountingFile *>(file);
  counting->base.pMethods = nullptr;
  int result = gRealVfs->xOpen(gRealVfs, name, counting->real(), flags, out);
  // The real file's methods are version 3 on every Unix build; ours forward to them.
  if (counting->real()->pMethods != nullptr) counting->base.pMethods = &kCountingMethods;
  return result;
}

}  // namespace

void installCountingVfs() {
  if (gRealVfs != nullptr) return;
  gRealVfs = sqlite3_vfs_find(nullptr);
  gCountingVfs = *gRealVfs;
  gCountingVfs.zName = "adb-counting";
  gCountingVfs.szOsFile = static_cast<int>(sizeof(CountingFile)) + gRealVfs->szOsFile;
  gCountingVfs.xOpen = countingOpen;
  gCountingVfs.xDelete = countingDelete;
  gCountingVfs.pAppData = nullptr;
  gCountingVfs.pNext = nullptr;
  check(sqlite3_vfs_register(&gCountingVfs, 1) == SQLITE_OK, "register the counting VFS");
}

IoCounts ioCounts() { return {gBytesWritten.load(), gSyncs.load()}; }

RawConnection::RawConnection(const std::string &path) {
  check(sqlite3_open_v2(path.c_str(), &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX,
                        nullptr) == SQLITE_OK,
        "raw open");
  check(exec("PRAGMA foreign_keys = ON") == SQLITE_OK, "raw pragma");
}

RawConnection::~RawConnection() { sqlite3_close_v2(db_); }

int RawConnection::exec(const std::string &sql) const {
  char *message = nullptr;
  int result = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message);
  sqlite3_free(message);
  return result;
}

StatementCapture::StatementCapture() {
  gCaptured = new std::vector<Statement>;
  ryxLogSetHandler(collectStatement, nullptr);
  ryxLogSetLevel(RYX_LOG_DEBUG);
}

std::vector<Statement> StatementCapture::stop() {
  silenceLibraryLog();
  std::vector<Statement> result;
  if (!stopped_) {
    result = std::move(*gCaptured);
    delete gCaptured;
    gCaptured = nullptr;
    stopped_ = true;
  }
  return result;
}

StatementCapture::~StatementCapture() { stop(); }

int runStatements(sqlite3 *db, const std::vector<Statement> &statements) {
  int failed = 0;
  for (const Statement &statement : statements) {
    char *message = nullptr;
    int result;
    if (statement.read) {
      char **cells = nullptr;
      int rows = 0;
      int columns = 0;
      result = sqlite3_get_table(db, statement.sql.c_str(), &cells, &rows, &columns, &message);
      sqlite3_free_table(cells);
    } else {
      result = sqlite3_exec(db, statement.sql.c_str(), nullptr, nullptr, &message);
    }
    sqlite3_free(message);
    if (result != SQLITE_OK && (result & 0xff) != SQLITE_CONSTRAINT) ++failed;
  }
  return failed;
}

void silenceLibraryLog() {
  ryxLogSetLevel(RYX_LOG_NOTICE);
  ryxLogSetHandler(discardLine, nullptr);
}

std::vector<std::string> deviceInfoRow(const std::string &mac, int seed) {
  std::vector<std::string> values{mac};
  for (size_t i = 1; i < std::size(deviceInfoFields); ++i) {
    bool text = std::strstr(deviceInfoFields[i], "_S") != nullptr;
    char value[32];
    if (text) {
      std::snprintf(value, sizeof value, "v%d_%zu", seed, i);
    } else {
      std::snprintf(value, sizeof value, "%d", seed * 100 + static_cast<int>(i));
    }
    values.emplace_back(value);
  }
  return values;
}

std::vector<char *> pointersOf(std::vector<std::string> &values) {
  std::vector<char *> pointers;
  for (std::string &value : values) pointers.push_back(value.data());
  return pointers;
}

BusyHolder::BusyHolder(const std::string &path) {
  check(sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK,
        "busy holder open");
}

BusyHolder::~BusyHolder() {
  release();
  sqlite3_close_v2(db_);
}

void BusyHolder::hold() {
  check(sqlite3_exec(db_, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK,
        "BEGIN EXCLUSIVE");
  holding_ = true;
}

void BusyHolder::release() {
  if (!holding_) return;
  sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
  holding_ = false;
}

long residentKb(const char *field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  size_t length = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, length, field) == 0 && line.size() > length && line[length] == ':') {
      return std::strtol(line.c_str() + length + 1, nullptr, 10);
    }
  }
  return -1;
}

}  // namespace adbbench
