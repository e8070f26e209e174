// bench_support.h - what the benchmarks and the memory probe share: scratch database files
// filled with a gateway's week, a bare SQLite connection opened as the library opens its own,
// and the capture of the statements the library composes, so a baseline can run the same text.
#ifndef ANALYTICSDB_BENCH_SUPPORT_H
#define ANALYTICSDB_BENCH_SUPPORT_H

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

namespace adbbench {

constexpr int kDevices = 256;
constexpr int kDays = 7;
constexpr int kSlotsPerDay = 288;
// The latest sample of every device: slot 1000 (day 4) at this time.
constexpr int kLatestSlot = 1000;
constexpr uint32_t kLatestTime = 1'700'000'000u;
// Device 0 is the WAN device, the only one of source "WAN".
constexpr const char *kWanSource = "WAN";

std::string macOf(int device);

// A folder under the system temp directory, removed at process exit.
const std::string &workDir();

// Builds (once per process) a database with every table the library creates, DEVICEINFO for
// kDevices devices, and a full week of all three series for each; then copies it to `path`.
void copyWeekDatabase(const std::string &path);
// The same with receive-side day tables of kNarrowRxSlotsPerDay slots. SQLite as distributions
// build it returns at most 2000 columns, and the week read of a series returns the index row's
// columns plus seven day tables' slots: 4 + 7 x 288 = 2020 fails, 4 + 7 x 284 = 1992 fits.
constexpr int kNarrowRxSlotsPerDay = 284;
void copyNarrowWeekDatabase(const std::string &path);
// Builds (once) the same schema with no rows at all, and copies it to `path`.
void copyEmptyDatabase(const std::string &path);

// Points the library's connection at `path` (closing the current one) and opens it.
void useLibraryDatabase(const std::string &path);

// A connection opened with the library's flags and pragma.
class RawConnection {
 public:
  explicit RawConnection(const std::string &path);
  ~RawConnection();
  RawConnection(const RawConnection &) = delete;
  RawConnection &operator=(const RawConnection &) = delete;
  sqlite3 *get() const { return db_; }
  // Runs `sql`, returns SQLite's result code.
  int exec(const std::string &sql) const;

 private:
  sqlite3 *db_ = nullptr;
};

// One statement the library ran, as it logged it.
struct Statement {
  bool read;
  std::string sql;
};

// Starts collecting the statements the library logs (debug level, through the log handler);
// stop() restores the default level and a silent sink and returns what was collected.
class StatementCapture {
 public:
  StatementCapture();
  std::vector<Statement> stop();
  ~StatementCapture();

 private:
  bool stopped_ = false;
};

// Runs captured statements through bare sqlite3_exec / sqlite3_get_table; returns how many
// failed (a refused INSERT of an existing key is the protocol's first step, not a failure).
int runStatements(sqlite3 *db, const std::vector<Statement> &statements);

// Library log lines are dropped (formatted, then discarded) so that stderr does not skew times.
void silenceLibraryLog();

// Values of a DEVICEINFO row for db_updateDeviceInfoTable: the key, then one value per column.
std::vector<std::string> deviceInfoRow(const std::string &mac, int seed);
std::vector<char *> pointersOf(std::vector<std::string> &values);

// A second connection that holds the database exclusively while it lives.
class BusyHolder {
 public:
  explicit BusyHolder(const std::string &path);
  ~BusyHolder();
  BusyHolder(const BusyHolder &) = delete;
  BusyHolder &operator=(const BusyHolder &) = delete;
  void hold();
  void release();

 private:
  sqlite3 *db_ = nullptr;
  bool holding_ = false;
};

// While it exists, every file SQLite opens goes through a shim that counts the bytes written and
// the syncs (a deletion whose directory is synced counts as one): what a commit costs the flash.
// Install it before the connection it should count is opened.
class IoCounter {
 public:
  IoCounter();
  ~IoCounter();
  IoCounter(const IoCounter &) = delete;
  IoCounter &operator=(const IoCounter &) = delete;
  static uint64_t bytes();
  static uint64_t syncs();
};

// Resident set size and its peak of this process, in kB (from /proc/self/status).
long residentKb(const char *field);

}  // namespace adbbench

#endif
