// session.cpp - database path, queue set-up, log routing and closing around one command.
#include "session.h"

#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "analyticsdb.h"

namespace adbtool {

Session::Session(const std::string &databasePath, int verbosity, std::ostream &err)
    : path_(databasePath), verbosity_(verbosity), err_(err) {
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

void Session::requireExistingDatabase() const {
  struct stat info {};
  if (stat(path_.c_str(), &info) != 0) {
    if (errno == ENOENT)
      throw ToolError("no database at " + path_ + " (create one with 'analyticsdb init --db " +
                      path_ + "')");
    throw ToolError("cannot read " + path_ + ": " + std::strerror(errno));
  }
  if (S_ISDIR(info.st_mode))
    throw ToolError(path_ + " is a directory, not a database file");
  if (access(path_.c_str(), R_OK) != 0)
    throw ToolError("cannot read " + path_ + ": " + std::strerror(errno));
}

void Session::requireCreatableDatabase() const {
  std::string::size_type slash = path_.rfind('/');
  std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path_.substr(0, slash);
  struct stat info {};
  if (stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
    throw ToolError("cannot create " + path_ + ": no folder " + folder);
  if (stat(path_.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
    throw ToolError(path_ + " is a directory, not a database file");
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
  default:
    return "status " + std::to_string(status);
  }
}

} // namespace adbtool
