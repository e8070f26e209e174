// session.h - one use of the library by one command: database path, write queue, log routing,
// and the error type that ends a command with a one-line message.
#pragma once

#include <chrono>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "analyticsdb.h"

namespace adbtool {

// What kind of failure ended a command; the exit status tells scripts which (see kExit*).
enum class Failure { General = 1, Usage = 2, Busy = 3, Missing = 4, Damaged = 5, Permission = 6 };

// A runtime failure the user can act on: main prints "analyticsdb: <what>" and exits with the
// status of its kind.
class ToolError : public std::runtime_error {
public:
  explicit ToolError(const std::string &what, Failure failure = Failure::General)
      : std::runtime_error(what), failure_(failure) {}
  Failure failure() const { return failure_; }

private:
  Failure failure_;
};

// What a database file holds, read with SQLite directly and read-only before the library
// touches it, so that a damaged, locked or foreign file is named as such.
struct DatabaseContents {
  bool exists = false;
  std::vector<std::string> foreignTables; // tables that are not part of the analytics schema
  std::size_t analyticsTables = 0;
  int64_t devices = 0;    // inventory rows
  int64_t seriesRows = 0; // index rows of the three sample series
};

// How long a read waits for another process that holds the database (Session sets it).
std::chrono::milliseconds busyWait();

// Runs a library read again while the database is busy, until busyWait() has passed.
template <class Read> int32_t retryWhileBusy(Read read) {
  constexpr int32_t kBusy = 3; // DB_STATUS_BUSY
  const auto deadline = std::chrono::steady_clock::now() + busyWait();
  int32_t status;
  while ((status = read()) == kBusy && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return status;
}

// The device inventory as the library returns it, freed with this object.
struct DeviceList {
  DeviceInfoRecord **list = nullptr;
  int32_t rows = 0;
  DeviceList() = default;
  DeviceList(const DeviceList &) = delete;
  DeviceList &operator=(const DeviceList &) = delete;
  ~DeviceList();
};

class Session;
// Reads every inventory row, waiting out a busy database; an empty table gives no rows. A
// missing table or another failure throws a ToolError that names the session's file.
void readInventory(Session &session, DeviceList &found);

// Queue events that the library reports only through its log lines.
struct LogCounters {
  uint64_t failedReplays = 0; // parked requests whose replay failed and was dropped
};

// Sets the database path, makes sure the write queue is initialised, routes the library's log
// lines (hidden unless verbose; counted either way) and closes the connection when it ends.
class Session {
public:
  Session(const std::string &databasePath, int verbosity, std::ostream &err,
          std::chrono::milliseconds wait = std::chrono::seconds(5));
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const std::string &path() const { return path_; }
  const LogCounters &counters() const { return counters_; }

  // Read commands must not create an empty file where the user mistyped a path; a file that
  // SQLite cannot read fails here with its real cause.
  DatabaseContents requireExistingDatabase() const;
  // Commands that write need the folder (for the file and its journal) and a writable file.
  DatabaseContents requireWritableDatabase() const;

private:
  static void onLogLine(int level, const char *line, void *user);

  std::string path_;
  int verbosity_;
  std::ostream &err_;
  LogCounters counters_;
};

// What a library status means, for messages ("table missing (run 'analyticsdb init' first)").
std::string describeStatus(int32_t status);
// The failure kind of a library status.
Failure failureOf(int32_t status);

} // namespace adbtool
