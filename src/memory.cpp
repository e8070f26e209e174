/*
 * memory.cpp - the allocation fault hook of test builds (see internal/memory.h).
 */
#include "internal/memory.h"

#if defined(ANALYTICSDB_FAULT_INJECTION)

#include <atomic>

namespace {
std::atomic<bool (*)(void)> gFails{nullptr};
}  // namespace

bool adb::failThisAllocation() {
  bool (*fails)(void) = gFails.load();
  return fails != nullptr && fails();
}

extern "C" ADB_API void adb_faultSetAllocationHook(bool (*fails)(void)) { gFails = fails; }

#endif
