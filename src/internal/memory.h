/*
 * memory.h - where the library's own heap blocks come from.
 *
 * Every block the library keeps or hands to a caller (statement texts, queue nodes and their
 * value copies, record lists) is allocated here, so that a test build
 * (ANALYTICSDB_FAULT_INJECTION) can make any one allocation fail and check that each path
 * reports it, frees what it holds and leaves the file alone. In other builds the hook is a
 * constant and the functions are plain malloc and calloc.
 */
#ifndef ANALYTICSDB_INTERNAL_MEMORY_H
#define ANALYTICSDB_INTERNAL_MEMORY_H

#include <cstddef>
#include <cstdlib>

#include "analyticsdb.h"

#if defined(ANALYTICSDB_FAULT_INJECTION)
extern "C" {
// Test builds only: `fails` is asked before every allocation and makes it fail by returning
// true; null removes the hook.
ADB_API void adb_faultSetAllocationHook(bool (*fails)(void));
}
#endif

namespace adb {

#if defined(ANALYTICSDB_FAULT_INJECTION)
bool failThisAllocation();
#else
constexpr bool failThisAllocation() { return false; }
#endif

inline void *allocate(size_t size) { return failThisAllocation() ? nullptr : std::malloc(size); }

inline void *allocateZeroed(size_t count, size_t size) {
  return failThisAllocation() ? nullptr : std::calloc(count, size);
}

}  // namespace adb

#endif
