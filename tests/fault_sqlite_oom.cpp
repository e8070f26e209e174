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

#include <atomic>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>

#include "support/db_fixture.h"

namespace {

using adbtest::Cell;
using adbtest::Values;

sqlite3_mem_methods gSystem;
std::atomic<long> gCount{0};      // allocations seen since arming
std::atomic<long> gFailAt{-1};    // the allocation that fails; -1: none, 0: only count
std::atomic<bool> gFailed{false};

bool failThisOne() {
  long failAt = gFailAt.load();
  if (failAt < 0) return false;
  long n = ++gCount;
  if (n != failAt) return false;
  gFailed = true;
  return true;
}

void *faultyMalloc(int size) { return failThisOne() ? nullptr : gSystem.xMalloc(size); }
void *faultyRealloc(void *old, int size) {
  return failThisOne() ? nullptr : gSystem.xRealloc(old, size);
}

void arm(long failAt) {
  gCount = 0;
  gFailed = false;
  gFailAt = failAt;
}
long disarm() {
  gFailAt = -1;
  return gCount.load();
}

class SqliteOomTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
    ryxLogSetLevel(RYX_LOG_NOTICE);  // thousands of runs; keep only the error lines
  }

  // The stored name of the test's device ("<none>" without a row), from a connection of its own
  // after checking the whole file.
  std::string checkFile() {
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    adbtest::RawDb check(dbPath());
    EXPECT_EQ(check.scalar("PRAGMA integrity_check"), Cell("ok"));
    return check.scalar("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '11:22:33:44:55:66'")
        .value_or("<none>");
  }

  // Runs `operation` with every allocation failing in turn. `prepare` sets the file up before
  // each run (unarmed); `allowed` are the statuses the operation may end with; after a run the
  // name must be one of `outcomes`.
  void failEveryAllocation(const std::function<void()> &prepare,
                           const std::function<int32_t()> &operation, int32_t clean,
                           const std::set<int32_t> &allowed,
                           const std::set<std::string> &outcomes) {
    prepare();
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);  // the open is part of the operation
    arm(0);
    int32_t status = operation();
    const long total = disarm();
    busy_.reset();
    ASSERT_EQ(status, clean) << "the operation fails without any fault";
    ASSERT_GT(total, 0);
    RecordProperty("allocations" + std::to_string(++operations_), std::to_string(total));
    for (long n = 1; n <= total; ++n) {
      SCOPED_TRACE("allocation " + std::to_string(n) + " of " + std::to_string(total));
      prepare();
      ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
      arm(n);
      status = operation();
      disarm();
      busy_.reset();
      EXPECT_TRUE(allowed.count(status) == 1) << "status " << status;
      EXPECT_TRUE(outcomes.count(checkFile()) == 1) << checkFile();
      // Whatever the fault left parked is replayed, or dropped as the queue specifies.
      for (int i = 0; i < 4 && queueCount > 0; ++i) db_processQueueEntry();
      db_freeQueue();
      if (HasFailure()) return;
    }
  }

  void resetRow(const char *name) {
    raw().exec("DELETE FROM DEVICEINFO");
    if (name != nullptr) {
      raw().exec(std::string("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES "
                             "('11:22:33:44:55:66', '") + name + "')");
    }
  }

  int operations_ = 0;
  std::optional<adbtest::BusyHolder> busy_;  // held during a run, released after it

  static int32_t writeName(const char *name) {
    return db_updateDeviceInfoBeaconFName(Values{"11:22:33:44:55:66", name}.data());
  }
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
