/*
 * fault_sqlite_oom.cpp - every operation with SQLite's N-th allocation failing.
 *
 * SQLite's allocator can only be replaced before the first connection exists, so these tests
 * are a program of their own whose main() installs a counting allocator first. For a write
 * that inserts, one that updates, a read into records, a queued write and its replay, each
 * allocation fails in turn (see support/fault_fixture.h for what every run must leave).
 */
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "support/fault_fixture.h"

namespace {

using adbtest::FaultTest;

sqlite3_mem_methods gSystem;
std::atomic<long> gCount{0};
std::atomic<long> gFailAt{-1};

bool failThisOne() {
  long failAt = gFailAt.load();
  return failAt >= 0 && ++gCount == failAt;
}

void *faultyMalloc(int size) { return failThisOne() ? nullptr : gSystem.xMalloc(size); }
void *faultyRealloc(void *old, int size) {
  return failThisOne() ? nullptr : gSystem.xRealloc(old, size);
}

const adbtest::FaultSource kSqliteAllocations{
    "SQLite allocation",
    [](long failAt) {
      gCount = 0;
      gFailAt = failAt;
    },
    [] { return gCount.load(); }};

class SqliteOomTest : public FaultTest {};

TEST_F(SqliteOomTest, WritesEndInAStatusAndLeaveTheOldOrTheNewRow) {
  const std::set<int32_t> statuses{DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED};
  long points = failEachPoint(
      kSqliteAllocations, [&] { resetDevice(nullptr); }, [] { return writeName("Kitchen TV"); },
      {0, statuses, "<none>", "Kitchen TV"});
  // An update: the failed INSERT, then the UPDATE.
  points += failEachPoint(
      kSqliteAllocations, [&] { resetDevice("Old name"); }, [] { return writeName("New name"); },
      {0, statuses, "Old name", "New name"});
  RecordProperty("faultPoints", std::to_string(points));
}

TEST_F(SqliteOomTest, ReadsIntoRecordsEndInAStatusAndHandOutNothingHalfBuilt) {
  long points = failEachPoint(
      kSqliteAllocations, [&] { resetDevice("Reader"); },
      [] {
        DeviceInfoRecord **list = nullptr;
        int32_t rows = 0;
        int32_t status = db_readDeviceInfoTable(&list, &rows);
        if (status == DB_STATUS_SUCCESS) {
          EXPECT_EQ(rows, 1);
          EXPECT_STREQ(list[0]->friendlyName, "Reader");
        }
        if (list != nullptr) db_freeDeviceInfoResult(&list, rows);
        return status;
      },
      {0, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE, DB_STATUS_EMPTY, DB_STATUS_OPEN_FAILED},
       "Reader", "Reader"});
  RecordProperty("faultPoints", std::to_string(points));
}

TEST_F(SqliteOomTest, QueuedWritesAndTheirReplayEndInAStatus) {
  // The write meets a busy file and is parked; faults hit the write's attempt.
  long points = failEachPoint(
      kSqliteAllocations,
      [&] {
        resetDevice("Before");
        busy_.emplace(dbPath());
      },
      [] { return writeName("Parked"); },
      {DB_STATUS_BUSY, {DB_STATUS_BUSY, DB_STATUS_FAILURE, DB_STATUS_OPEN_FAILED},
       "Before", "Before"});
  points += failReplayOfParkedWrite(kSqliteAllocations);
  RecordProperty("faultPoints", std::to_string(points));
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
