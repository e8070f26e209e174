// db_fixture.h - what every test of the library needs.
//
//  - DbTest: a fresh database file per test in its own temporary folder, set through
//    db_setDatabasePath, with the library's log captured at debug level.
//  - LogCapture: the lines the library logs, with their levels, through the log hook.
//  - BusyHolder: a second SQLite connection that holds BEGIN EXCLUSIVE, so that the library's
//    statements meet a busy database the way they do when another process holds the file.
//  - RawDb: reads and writes the file directly, past the library.
//  - The deferred write queue is initialised for every test and emptied after it; queueHead()
//    and queueLength() look at it.
#ifndef ANALYTICSDB_TEST_DB_FIXTURE_H
#define ANALYTICSDB_TEST_DB_FIXTURE_H

#include <gtest/gtest.h>

#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "analyticsdb.h"

struct sqlite3;

namespace adbtest {

struct LogLine {
  int level;
  std::string text;  // the whole line, prefix included

  // The message after "analyticsDB: [module function:line] ", or the whole text without it.
  std::string_view message() const;
  // "module function" of the prefix, or empty.
  std::string where() const;
};

class LogCapture {
 public:
  explicit LogCapture(int level = RYX_LOG_DEBUG);
  ~LogCapture();

  const std::vector<LogLine> &lines() const { return lines_; }
  void clear() { lines_.clear(); }
  // Number of lines at `level` whose message is exactly `message`.
  size_t count(int level, std::string_view message) const;
  bool has(int level, std::string_view message) const { return count(level, message) > 0; }
  // Number of lines at `level`.
  size_t countAt(int level) const;
  // Number of lines (any level) whose message contains `part`.
  size_t countContaining(std::string_view part) const;
  // All captured lines, one per row, for failure output.
  std::string dump() const;

 private:
  static void handle(int level, const char *line, void *user);
  // The library may log from several threads at once; the mutex also keeps a capture, which the
  // log hook points to, from being copied or moved.
  std::mutex mutex_;
  std::vector<LogLine> lines_;
};

using Cell = std::optional<std::string>;
using Row = std::vector<Cell>;
using Rows = std::vector<Row>;

// A connection of its own to the test's file.
class RawDb {
 public:
  explicit RawDb(const std::string &path);
  ~RawDb();
  RawDb(const RawDb &) = delete;
  RawDb &operator=(const RawDb &) = delete;

  // Runs statements; fails the test on an error.
  void exec(const std::string &sql);
  // Runs statements and returns SQLite's result code.
  int tryExec(const std::string &sql);
  // Rows of a query whose ?s are bound to `parameters` in turn.
  Rows query(const std::string &sql, const std::vector<std::string> &parameters = {});
  // The single value of a one-row, one-column query (nullopt for no row or NULL).
  Cell scalar(const std::string &sql);
  // Column names of a table, in order.
  std::vector<std::string> columns(const std::string &table);
  bool tableExists(const std::string &table);
  sqlite3 *handle() { return db_; }

 private:
  sqlite3 *db_ = nullptr;
};

// Holds the database file busy (BEGIN EXCLUSIVE) from a second connection until released.
class BusyHolder {
 public:
  explicit BusyHolder(const std::string &path);
  ~BusyHolder();
  void release();

 private:
  std::optional<RawDb> db_;  // holds the lock until released; not copyable, as RawDb is not
};

class DbTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  const std::string &dbPath() const { return dbPath_; }
  RawDb &raw();
  LogCapture &log() { return *log_; }
  // The six inventory tables, made by the library's own creators.
  static void createInventoryTables();
  // The three index tables and their 21 day tables of 288 slots.
  static void createSeriesTables();
  // What `call` returns while another connection holds the database busy.
  template <typename Call>
  auto whileBusy(Call call) {
    BusyHolder holder(dbPath_);
    return call();
  }

  std::string tempDir_;
  std::string dbPath_;

 private:
  std::optional<LogCapture> log_;
  std::optional<RawDb> raw_;
};

// A `char **` of private copies of values for the C interface (entries may be null).
class Values {
 public:
  Values(std::initializer_list<const char *> values);
  explicit Values(const std::vector<std::string> &values);
  explicit Values(const std::vector<Cell> &values);
  // A copy would point into the original's texts; a move keeps them where they are.
  Values(const Values &) = delete;
  Values(Values &&) = default;
  char **data() { return pointers_.data(); }
  int32_t size() const { return static_cast<int32_t>(pointers_.size()); }

 private:
  void add(const char *value);
  std::deque<std::string> storage_;  // grows without moving the texts pointers_ point into
  std::vector<char *> pointers_;
};

// The head of the deferred write queue, read the way the library's unlocked peeks read it.
WriteRequestNode *queueHead();
// Nodes in the queue, counted from the head (compare with the library's queueCount).
int32_t queueLength();
// The values a node holds, in order: its recorded field count, at most its capacity.
std::vector<Cell> nodeValues(const WriteRequestNode &node);

}  // namespace adbtest

#endif
