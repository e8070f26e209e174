/*
 * log.h - one logging macro per level.
 *
 * Every line of the library reads "analyticsDB: [module function:line] message": the macros add
 * the module (the source file's base name, declared once per file with ADB_LOG_MODULE), the
 * function and the line, so a call site reads like the message it logs. The threshold is
 * tested before the arguments are evaluated.
 */
#ifndef ANALYTICSDB_INTERNAL_LOG_H
#define ANALYTICSDB_INTERNAL_LOG_H

#include <string_view>

#include "analyticsdb.h"
#include "ryx_log.h"

namespace adb::log {

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

#define ADB_LOG_AT(level, sink, format, ...)                                                  \
  do {                                                                                        \
    if (adb::log::enabled(level))                                                             \
      sink(__func__, __LINE__, "analyticsDB: [%s %s:%d] " format, kLogModule, __func__,      \
           __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                              \
  } while (0)

// For a helper that logs on behalf of the exported function `function`, so that the line does
// not depend on which helper ran.
#define ADB_LOG_AS_AT(level, sink, function, format, ...)                                    \
  do {                                                                                        \
    if (adb::log::enabled(level))                                                             \
      sink(function, __LINE__, "analyticsDB: [%s %s:%d] " format, kLogModule, function,      \
           __LINE__ __VA_OPT__(, ) __VA_ARGS__);                                              \
  } while (0)

#define ADB_LOG_ERROR(format, ...) ADB_LOG_AT(RYX_LOG_ERROR, ryxLogError, format, __VA_ARGS__)
#define ADB_LOG_NOTICE(format, ...) ADB_LOG_AT(RYX_LOG_NOTICE, ryxLogNotice, format, __VA_ARGS__)
#define ADB_LOG_INFO(format, ...) ADB_LOG_AT(RYX_LOG_INFO, ryxLogInfo, format, __VA_ARGS__)
#define ADB_LOG_DEBUG(format, ...) ADB_LOG_AT(RYX_LOG_DEBUG, ryxLogDebug, format, __VA_ARGS__)
#define ADB_LOG_ERROR_AS(function, format, ...) \
  ADB_LOG_AS_AT(RYX_LOG_ERROR, ryxLogError, function, format, __VA_ARGS__)
#define ADB_LOG_INFO_AS(function, format, ...) \
  ADB_LOG_AS_AT(RYX_LOG_INFO, ryxLogInfo, function, format, __VA_ARGS__)
#define ADB_LOG_DEBUG_AS(function, format, ...) \
  ADB_LOG_AS_AT(RYX_LOG_DEBUG, ryxLogDebug, function, format, __VA_ARGS__)

#endif
