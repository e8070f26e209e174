/*
 * log.h - one logging mechanism for the whole library.
 *
 * Every line reads "analyticsDB: [module function:line] message". The function is the exported
 * function the message belongs to, and the module the source file that defines it: log readers
 * in the field grep for that function. A call site inside an exported function logs in its own
 * name (ADB_LOG_ERROR and its siblings). A helper that works for several exported functions takes
 * their Origin as an argument and logs in that name (ADB_LOG_FOR), so one helper never makes its
 * callers' lines all read alike. The line is always the line of the log call. The threshold is
 * tested before the arguments are evaluated.
 */
#ifndef ANALYTICSDB_INTERNAL_LOG_H
#define ANALYTICSDB_INTERNAL_LOG_H

#include <string_view>

#include "analyticsdb.h"
#include "ryx_log.h"

namespace adb::log {

// The exported function a line is logged for, and the module (source file base name) that
// defines it.
struct Origin {
  const char *module;
  const char *function;
};

// True when `module` is the base name of `fileName` (the file name without its extension).
consteval bool isBaseNameOf(std::string_view module, std::string_view fileName) {
  return fileName.size() > module.size() && fileName.substr(0, module.size()) == module &&
         fileName[module.size()] == '.';
}

}  // namespace adb::log

// Declares the module name that this file's log lines carry; it must be the file's base name.
#define ADB_LOG_MODULE(name)                                                          \
  static_assert(adb::log::isBaseNameOf(name, __FILE_NAME__),                         \
                "log module must be the source file's base name");                  \
  namespace {                                                                         \
  constexpr const char kLogModule[] = name;                                           \
  }

// The calling function of this file, as the origin of the lines a helper logs for it.
#define ADB_LOG_ORIGIN (adb::log::Origin{kLogModule, __func__})

// Logs at `level` (constant or not) in the name of `origin`. Every sink call is format-checked;
// with a constant level the compiler keeps only the one that can run.
#define ADB_LOG_FOR(origin, level, format, ...)                                         \
  do {                                                                                  \
    const int adbLogLevel_ = (level);                                                   \
    if (adb::log::enabled(adbLogLevel_)) {                                              \
      const adb::log::Origin adbLogOrigin_ = (origin);                                  \
      switch (adbLogLevel_) {                                                           \
        case RYX_LOG_ERROR:                                                             \
          ADB_LOG_SINK_CALL_(ryxLogError, format __VA_OPT__(, ) __VA_ARGS__);           \
          break;                                                                        \
        case RYX_LOG_NOTICE:                                                            \
          ADB_LOG_SINK_CALL_(ryxLogNotice, format __VA_OPT__(, ) __VA_ARGS__);          \
          break;                                                                        \
        case RYX_LOG_INFO:                                                              \
          ADB_LOG_SINK_CALL_(ryxLogInfo, format __VA_OPT__(, ) __VA_ARGS__);            \
          break;                                                                        \
        default:                                                                        \
          ADB_LOG_SINK_CALL_(ryxLogDebug, format __VA_OPT__(, ) __VA_ARGS__);           \
          break;                                                                        \
      }                                                                                 \
    }                                                                                   \
  } while (0)

#define ADB_LOG_SINK_CALL_(sink, format, ...)                                            \
  sink(adbLogOrigin_.function, __LINE__, "analyticsDB: [%s %s:%d] " format,             \
       adbLogOrigin_.module, adbLogOrigin_.function, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

#define ADB_LOG_ERROR(format, ...) \
  ADB_LOG_FOR(ADB_LOG_ORIGIN, RYX_LOG_ERROR, format __VA_OPT__(, ) __VA_ARGS__)
#define ADB_LOG_NOTICE(format, ...) \
  ADB_LOG_FOR(ADB_LOG_ORIGIN, RYX_LOG_NOTICE, format __VA_OPT__(, ) __VA_ARGS__)
#define ADB_LOG_INFO(format, ...) \
  ADB_LOG_FOR(ADB_LOG_ORIGIN, RYX_LOG_INFO, format __VA_OPT__(, ) __VA_ARGS__)
#define ADB_LOG_DEBUG(format, ...) \
  ADB_LOG_FOR(ADB_LOG_ORIGIN, RYX_LOG_DEBUG, format __VA_OPT__(, ) __VA_ARGS__)

#endif
