/*
 * ryx_log.h - the library's side of the platform logging interface.
 *
 * The exported ryxLog* functions and the handler hook are declared in analyticsdb.h. This
 * header adds what the library's own code needs: a cheap test of the current threshold, so
 * that a call site can skip building the arguments of a line that would be dropped anyway.
 */
#ifndef ANALYTICSDB_PLATFORM_RYX_LOG_H
#define ANALYTICSDB_PLATFORM_RYX_LOG_H

#include <atomic>

namespace adb::log {

// Level threshold; lines of a numerically higher level are dropped. Hidden, shared by the
// library's translation units.
extern std::atomic<int> gThreshold;

inline bool enabled(int level) { return level <= gThreshold.load(std::memory_order_relaxed); }

}  // namespace adb::log

#endif
