// contender.cpp - the bursting second process. It talks to SQLite directly: it stands for
// another program on the gateway, not for a user of this library.
#include "contender.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "session.h"

namespace adbtool {

namespace {

// SQLite's own busy timeout backs off to 100 ms sleeps and so almost never finds the short
// gaps between a writer's transactions; a gateway service that polls often does.
constexpr int kBusyPollMicroseconds = 250;
constexpr int kBusyPolls = 20000; // five seconds

int pollWhileBusy(void *, int attempts) {
  if (attempts >= kBusyPolls)
    return 0;
  usleep(kBusyPollMicroseconds);
  return 1;
}

// Waits up to `ms`; true once the parent has asked the child to stop (or has gone away).
bool stopRequested(int reader, int ms) {
  pollfd watch{reader, POLLIN, 0};
  int ready = poll(&watch, 1, ms);
  return ready > 0;
}

[[noreturn]] void runContender(const std::string &path, int stopReader, int resultWriter) {
  uint64_t bursts = 0;
  sqlite3 *db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_busy_handler(db, pollWhileBusy, nullptr);
    uint32_t state = 0x2545f491U;
    auto next = [&state](int range) {
      state ^= state << 13;
      state ^= state >> 17;
      state ^= state << 5;
      return static_cast<int>(state % static_cast<uint32_t>(range));
    };
    while (!stopRequested(stopReader, 15 + next(40))) {
      if (sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) != SQLITE_OK)
        continue;
      ++bursts;
      stopRequested(stopReader, 4 + next(12));
      while (sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_BUSY)
        usleep(1000);
    }
  }
  sqlite3_close(db);
  ssize_t written = write(resultWriter, &bursts, sizeof bursts);
  _exit(written == sizeof bursts ? 0 : 1);
}

} // namespace

Contender::Contender(const std::string &path) {
  int stopPipe[2];
  int resultPipe[2];
  if (pipe(stopPipe) != 0)
    throw ToolError(std::string("cannot start contention: ") + std::strerror(errno));
  if (pipe(resultPipe) != 0) {
    close(stopPipe[0]);
    close(stopPipe[1]);
    throw ToolError(std::string("cannot start contention: ") + std::strerror(errno));
  }
  child_ = fork();
  if (child_ < 0) {
    int error = errno;
    for (int fd : {stopPipe[0], stopPipe[1], resultPipe[0], resultPipe[1]})
      close(fd);
    throw ToolError(std::string("cannot start contention: ") + std::strerror(error));
  }
  if (child_ == 0) {
    close(stopPipe[1]);
    close(resultPipe[0]);
    runContender(path, stopPipe[0], resultPipe[1]);
  }
  close(stopPipe[0]);
  close(resultPipe[1]);
  stopWriter_ = stopPipe[1];
  resultReader_ = resultPipe[0];
}

Contender::~Contender() { stop(); }

uint64_t Contender::stop() {
  if (child_ <= 0)
    return bursts_;
  close(stopWriter_);
  uint64_t bursts = 0;
  if (read(resultReader_, &bursts, sizeof bursts) == sizeof bursts)
    bursts_ = bursts;
  close(resultReader_);
  int status = 0;
  while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
  child_ = -1;
  return bursts_;
}

} // namespace adbtool
