// fault_sqlite_oom.cpp - every operation with SQLite's N-th allocation failing.
//
// SQLite's allocator can only be replaced before the first connection exists, so the fault
// tests are a program of their own whose main() installs a counting allocator first. A write
// that inserts, one that updates, a read into records, a queued write and its replay each run
// with every allocation failing in turn (see support/fault_common.h for what each run must
// leave).
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include "support/fault_common.h"

namespace {

sqlite3_mem_methods gSystem;
adbtest::FaultCounter gAllocations;

using SqliteOomTest = adbtest::FaultTest;

TEST_F(SqliteOomTest, WritesReadsAndQueuedWritesEndInAStatusAndLeaveTheOldOrTheNewRow) {
  // Any run may fail to open the file. The parked write meets a busy file; faults hit its attempt.
  failEachRowOperation(
      gAllocations, {std::begin(kNameWrites), std::end(kNameWrites)},
      {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED},
      {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_EMPTY, DB_STATUS_OPEN_FAILED},
      {DB_STATUS_BUSY, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED});
}

}  // namespace

int main(int argc, char **argv) {
  // Thousands of short transactions: on a memory file system their syncs cost nothing.
  if (getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &gSystem);
  sqlite3_mem_methods faulty = gSystem;
  faulty.xMalloc = [](int n) { return gAllocations.strikes() ? nullptr : gSystem.xMalloc(n); };
  faulty.xRealloc = [](void *old, int n) {
    return gAllocations.strikes() ? nullptr : gSystem.xRealloc(old, n);
  };
  if (sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty) != SQLITE_OK) return 2;
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
