// child_process.h - processes forked from a test, and the pipes the test talks to them through.
#ifndef ANALYTICSDB_TEST_CHILD_PROCESS_H
#define ANALYTICSDB_TEST_CHILD_PROCESS_H

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <vector>

namespace adbtest {

// False when the pipe closed before every byte went: a blocking write to a pipe returns only
// when all of it went.
inline bool sendBytes(int fd, const void *data, size_t size) {
  return write(fd, data, size) == static_cast<ssize_t>(size);
}

enum class Received { kAll, kEnd, kTimeout };

// Reads exactly `size` bytes unless the pipe ends (or fails) or stays silent for `timeoutMs`
// first; with 0 it takes only what is there already.
inline Received receiveBytes(int fd, void *data, size_t size, int timeoutMs) {
  for (char *bytes = static_cast<char *>(data); size > 0;) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) <= 0) return Received::kTimeout;
    ssize_t got = read(fd, bytes, size);
    if (got <= 0) return Received::kEnd;
    bytes += got;
    size -= static_cast<size_t>(got);
  }
  return Received::kAll;
}

inline bool receiveByte(int fd, char expected, int timeoutMs) {
  char byte = 0;
  return receiveBytes(fd, &byte, 1, timeoutMs) == Received::kAll && byte == expected;
}

// A child process: it reports on reportFd and is told what to do on goFd.
struct Child {
  pid_t pid = -1;
  int reportFd = -1;
  int goFd = -1;
};

// Children of a test, each with its two pipes; any still running when the test ends early are
// killed and reaped. Meanwhile a write to a dead child's pipe fails instead of raising SIGPIPE.
class Children {
 public:
  Children() : savedSigpipe_(signal(SIGPIPE, SIG_IGN)) {}
  ~Children() {
    for (Child &child : children_) {
      if (child.pid > 0) {
        kill(child.pid, SIGKILL);
        reap(child);
      }
      close(child.reportFd);
      close(child.goFd);
    }
    signal(SIGPIPE, savedSigpipe_);
  }
  Children(const Children &) = delete;
  Children &operator=(const Children &) = delete;

  // Forks a child that runs `body(reportFd, goFd)`, which ends it with _exit; false when a
  // pipe or the fork failed.
  bool start(const std::function<void(int reportFd, int goFd)> &body) {
    int report[2] = {-1, -1}, go[2];
    if (pipe(report) != 0 || pipe(go) != 0) {
      close(report[0]);  // -1 when it was the first pipe that failed
      close(report[1]);
      return false;
    }
    pid_t pid = fork();
    if (pid == 0) {
      // The parent's ends stay with the parent alone, so that a child whose parent died sees
      // the end of its pipe and stops waiting.
      for (const Child &other : children_) {
        close(other.reportFd);
        close(other.goFd);
      }
      close(report[0]);
      close(go[1]);
      body(report[1], go[0]);
      _exit(99);
    }
    close(report[1]);
    close(go[0]);
    children_.push_back({pid, report[0], go[1]});
    return pid > 0;
  }

  std::vector<Child> &all() { return children_; }

  // Waits for the child to end: its wait status, or -1.
  static int reap(Child &child) {
    int status = -1;
    if (waitpid(child.pid, &status, 0) != child.pid) status = -1;
    child.pid = -1;
    return status;
  }

 private:
  std::vector<Child> children_;
  void (*savedSigpipe_)(int);
};

}  // namespace adbtest

#endif
