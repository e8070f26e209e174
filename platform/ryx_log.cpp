/*
 * ryx_log.cpp - the logging sink: level threshold, handler hook and the default stderr sink.
 *
 * A line is formatted into a stack buffer and handed to the installed handler; nothing is
 * allocated. The level test comes first, so a dropped line costs no formatting. Lines longer
 * than the buffer are cut: logging must never fail or grow the heap of a long-running service.
 */
#include "ryx_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "analyticsdb.h"

namespace adb::log {

std::atomic<int> gThreshold{RYX_LOG_NOTICE};

namespace {

// Large enough for the longest statement the library logs (a day table's CREATE).
constexpr size_t kLineCapacity = 8192;


std::atomic<ryxLogHandler> gHandler{nullptr};
std::atomic<void *> gUser{nullptr};

void writeToStderr(int /*level*/, const char *line, void * /*user*/) {
  size_t length = std::strlen(line);
  std::fwrite(line, 1, length, stderr);
  if (length == 0 || line[length - 1] != '\n') std::fputc('\n', stderr);
}

void emit(int level, const char *format, va_list args) __attribute__((format(printf, 2, 0)));

void emit(int level, const char *format, va_list args) {
  if (!enabled(level)) return;
  char line[kLineCapacity];
  if (std::vsnprintf(line, sizeof line, format, args) < 0) return;
  ryxLogHandler handler = gHandler.load(std::memory_order_acquire);
  void *user = gUser.load(std::memory_order_acquire);
  (handler != nullptr ? handler : writeToStderr)(level, line, user);
}

}  // namespace
}  // namespace adb::log

extern "C" {

ADB_API void ryxLogSetHandler(ryxLogHandler handler, void *user) {
  adb::log::gUser.store(user, std::memory_order_release);
  adb::log::gHandler.store(handler, std::memory_order_release);
}

ADB_API void ryxLogSetLevel(int level) {
  adb::log::gThreshold.store(level, std::memory_order_relaxed);
}

// The function name and line are part of the formatted prefix already (the library's macros
// put them there), so the sink does not print them a second time.
#define ADB_DEFINE_LOG_FUNCTION(name, level)                                      \
  ADB_API void name(const char * /*function*/, int /*line*/, const char *format, ...) { \
    if (!adb::log::enabled(level)) return;                                        \
    va_list args;                                                                 \
    va_start(args, format);                                                       \
    adb::log::emit(level, format, args);                                          \
    va_end(args);                                                                 \
  }

ADB_DEFINE_LOG_FUNCTION(ryxLogError, RYX_LOG_ERROR)
ADB_DEFINE_LOG_FUNCTION(ryxLogNotice, RYX_LOG_NOTICE)
ADB_DEFINE_LOG_FUNCTION(ryxLogInfo, RYX_LOG_INFO)
ADB_DEFINE_LOG_FUNCTION(ryxLogDebug, RYX_LOG_DEBUG)

#undef ADB_DEFINE_LOG_FUNCTION

}  // extern "C"
