/*
 * memory.cpp - the allocation fault hook of test builds (see internal/memory.h).
 */
#include "analyticsdb.h"
#include "internal/memory.h"

#if defined(ANALYTICSDB_FAULT_INJECTION)

#include <atomic>

namespace {
std::atomic<long> gCount{0};
std::atomic<long> gFailAt{-1};
}  // namespace

bool adb::failThisAllocation() {
  long failAt = gFailAt.load(std::memory_order_relaxed);
  if (failAt < 0) return false;
  return ++gCount == failAt;
}

extern "C" {

ADB_API void adb_faultFailAllocation(long failAt) {
  gCount = 0;
  gFailAt = failAt;
}

ADB_API long adb_faultAllocationCount(void) { return gCount.load(); }

}  // extern "C"

#endif
