/*
 * fault_sqlite_oom.cpp - every operation with SQLite's N-th allocation failing.
 *
 * SQLite's allocator can only be replaced before the first connection exists, so this is a
 * program of its own whose main() installs a counting allocator first. For each operation (a
 * write that inserts, one that updates, a read into records, a queued write and its replay) the
 * operation runs once to count its allocations, then once for every N up to that count with the
 * N-th allocation failing. Each run must end in a status code, leave the file consistent
 * (integrity_check "ok" from a fresh connection) and hold either the old or the new row, never
 * a mix; the leak checker of the sanitizer build judges that nothing leaked.
 */
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <set>
#include <string>

#include "support/fault_common.h"

namespace {

using adbtest::FaultPlan;

sqlite3_mem_methods gSystem;
adbtest::FaultCounter gAllocations;

void *faultyMalloc(int size) { return gAllocations.strikes() ? nullptr : gSystem.xMalloc(size); }
void *faultyRealloc(void *old, int size) {
  return gAllocations.strikes() ? nullptr : gSystem.xRealloc(old, size);
}

class SqliteOomTest : public adbtest::FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
    ryxLogSetLevel(RYX_LOG_NOTICE);  // thousands of runs; keep only the error lines
  }

  // Runs `operation` with every allocation failing in turn. `prepare` sets the file up before
  // each run (unarmed); `allowed` are the statuses the operation may end with; after a run the
  // name must be one of `outcomes`.
  void failEveryAllocation(const std::function<void()> &prepare,
                           const std::function<int32_t()> &operation, int32_t clean,
                           const std::set<int32_t> &allowed,
                           const std::set<std::string> &outcomes) {
    FaultPlan plan;
    plan.prepare = prepare;
    plan.operation = operation;
    plan.clean = clean;
    plan.allowed = allowed;
    plan.settle = [&](int32_t) { busy_.reset(); };
    plan.observe = storedName;
    plan.outcomes = outcomes;
    // Whatever the fault left parked is replayed, or dropped as the queue specifies.
    plan.cleanup = [] {
      for (int i = 0; i < 4 && queueCount > 0; ++i) db_processQueueEntry();
      db_freeQueue();
    };
    failEach(gAllocations, plan, "allocations" + std::to_string(++operations_));
  }

  int operations_ = 0;
  std::optional<adbtest::BusyHolder> busy_;  // held during a run, released after it
};

TEST_F(SqliteOomTest, WritesEndInAStatusAndLeaveTheOldOrTheNewRow) {
  // An insert: the row is there in full or not at all.
  failEveryAllocation([&] { resetRow(nullptr); }, [] { return writeName("Kitchen TV"); }, 0,
                      {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED},
                      {"<none>", "Kitchen TV"});
  // An update: the failed INSERT, then the UPDATE.
  failEveryAllocation([&] { resetRow("Old name"); }, [] { return writeName("New name"); }, 0,
                      {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED},
                      {"Old name", "New name"});
}

TEST_F(SqliteOomTest, ReadsIntoRecordsEndInAStatusAndHandOutNothingHalfBuilt) {
  failEveryAllocation(
      [&] { resetRow("Reader"); },
      [] {
        DeviceInfoRecord **list = nullptr;
        int32_t rows = 0;
        int32_t status = db_readDeviceInfoTable(&list, &rows);
        if (status == DB_STATUS_SUCCESS) {
          EXPECT_EQ(rows, 1);
          EXPECT_STREQ(list[0]->friendlyName, "Reader");
          db_freeDeviceInfoResult(&list, rows);
        }
        return status;
      },
      0, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_EMPTY, DB_STATUS_OPEN_FAILED}, {"Reader"});
}

TEST_F(SqliteOomTest, QueuedWritesAndTheirReplayEndInAStatus) {
  // The write meets a busy file and is parked; faults hit the write's attempt.
  failEveryAllocation(
      [&] {
        resetRow("Before");
        busy_.emplace(dbPath());
      },
      [] { return writeName("Parked"); }, DB_STATUS_BUSY,
      {DB_STATUS_BUSY, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED}, {"Before", "Parked"});
  // The replay of a parked write: the head stays for a later call or is removed with its status.
  failEveryAllocation(
      [&] {
        db_freeQueue();
        resetRow("Before");
        {
          adbtest::BusyHolder busy(dbPath());
          ASSERT_EQ(writeName("Replayed"), DB_STATUS_BUSY);
        }
      },
      [] { return db_processQueueEntry(); }, 0, {0, 2, 3}, {"Before", "Replayed"});
}

}  // namespace

int main(int argc, char **argv) {
  // Thousands of short transactions: on a memory file system their syncs cost nothing.
  if (std::getenv("TMPDIR") == nullptr && access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &gSystem);
  sqlite3_mem_methods faulty = gSystem;
  faulty.xMalloc = faultyMalloc;
  faulty.xRealloc = faultyRealloc;
  if (sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty) != SQLITE_OK) return 2;
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
