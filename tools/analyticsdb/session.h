// session.h - one use of the library by one command: database path, write queue, log routing,
// and the error type that ends a command with a one-line message.
#pragma once

#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>

namespace adbtool {

// A runtime failure the user can act on: main prints "analyticsdb: <what>" and exits 1.
class ToolError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Queue events that the library reports only through its log lines.
struct LogCounters {
  uint64_t failedReplays = 0; // parked requests whose replay failed and was dropped
};

// Sets the database path, makes sure the write queue is initialised, routes the library's log
// lines (hidden unless verbose; counted either way) and closes the connection when it ends.
class Session {
public:
  Session(const std::string &databasePath, int verbosity, std::ostream &err);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  const std::string &path() const { return path_; }
  const LogCounters &counters() const { return counters_; }

  // Read commands must not create an empty file where the user mistyped a path.
  void requireExistingDatabase() const;
  // Commands that create the file need its folder.
  void requireCreatableDatabase() const;

private:
  static void onLogLine(int level, const char *line, void *user);

  std::string path_;
  int verbosity_;
  std::ostream &err_;
  LogCounters counters_;
};

// What a library status means, for messages ("table missing (run 'analyticsdb init' first)").
std::string describeStatus(int32_t status);

} // namespace adbtool
