/*
 * fault_library_oom.cpp - every operation with the library's own N-th allocation failing.
 *
 * Built only with ANALYTICSDB_FAULT_INJECTION, whose hook (internal/memory.h) fails the N-th
 * block the library itself asks for: statement texts, slot-name blocks, queue nodes and their
 * value copies, record lists. Every allocation site is reached by one of the operations here;
 * see support/fault_fixture.h for what every run must leave.
 */
#include <string>
#include <vector>

#include "internal/memory.h"
#include "support/fault_fixture.h"

namespace {

using adbtest::Cell;
using adbtest::FaultTest;
using adbtest::RawDb;
using adbtest::Values;

const adbtest::FaultSource kLibraryAllocations{"library allocation", adb_faultFailAllocation,
                                               adb_faultAllocationCount};

class LibraryOomTest : public FaultTest {
 protected:
  long points_ = 0;
  void TearDown() override {
    RecordProperty("faultPoints", std::to_string(points_));
    FaultTest::TearDown();
  }
  long fail(const std::function<void()> &prepare, const std::function<int32_t()> &operation,
            const Expect &expect) {
    long n = failEachPoint(kLibraryAllocations, prepare, operation, expect);
    points_ += n;
    return n;
  }
};

// "<columns>" of a table: all of them or none.
FaultTest::State columnsOf(const char *table) {
  return [table](RawDb &file) { return std::to_string(file.columns(table).size()); };
}

TEST_F(LibraryOomTest, TableCreationIsWholeOrAbsent) {
  const std::set<int32_t> statuses{DB_STATUS_SUCCESS, DB_STATUS_FAILURE};
  fail([&] { raw().exec("DROP TABLE IF EXISTS DEVICEINFO"); }, db_createDeviceInfoTable,
       {0, statuses, "0", "38", columnsOf("DEVICEINFO")});
  // A day table: its 288 slot names share one block.
  fail([&] { raw().exec("DROP TABLE IF EXISTS RSSI1"); }, [] { return db_createRssiTab(1, 288); },
       {0, statuses, "0", "289", columnsOf("RSSI1")});
}

TEST_F(LibraryOomTest, WritesDeletesAndDropsEndInAStatusAndLeaveTheOldOrTheNewState) {
  const std::set<int32_t> statuses{DB_STATUS_SUCCESS, DB_STATUS_FAILURE};
  fail([&] { resetDevice(nullptr); }, [] { return writeName("Kitchen TV"); },
       {0, statuses, "<none>", "Kitchen TV"});
  fail([&] { resetDevice("Old name"); }, [] { return writeName("New name"); },
       {0, statuses, "Old name", "New name"});
  fail([&] { resetDevice("Doomed"); }, [] { return db_deleteMacDeviceInfo(kMac); },
       {0, statuses, "Doomed", "<none>"});
  fail(
      [&] {
        if (!raw().tableExists("DEVICEINFO")) {
          ASSERT_EQ(db_createDeviceInfoTable(), 0);
        }
        resetDevice("Dropped");
      },
      db_dropDeviceInfoTable, {0, statuses, "Dropped", "<none>"});
}

TEST_F(LibraryOomTest, AQueuedWriteIsParkedWhole) {
  // A node that could not hold every value would replay another write than the caller's, so
  // the queue holds the complete request or nothing.
  fail(
      [&] {
        resetDevice("Before");
        busy_.emplace(dbPath());
      },
      [] {
        int32_t status = writeName("Parked");
        const WriteRequestNode *head = adbtest::queueHead();
        if (head != nullptr) {
          EXPECT_EQ(adbtest::nodeValues(*head), (std::vector<Cell>{kMac, "Parked"}));
        }
        EXPECT_EQ(queueCount, head != nullptr ? 1 : 0);
        return status;
      },
      {DB_STATUS_BUSY, {DB_STATUS_BUSY, DB_STATUS_FAILURE}, "Before", "Before"});
  points_ += failReplayOfParkedWrite(kLibraryAllocations);
}

TEST_F(LibraryOomTest, ReadsIntoRecordsAndSlotFillsEndInAStatus) {
  fail(
      [&] {
        resetDevice("Reader");
        raw().exec("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES ('a', 'A'), ('b', 'B')");
      },
      [] {
        DeviceInfoRecord **list = nullptr;
        int32_t rows = 0;
        int32_t status = db_readDeviceInfoTable(&list, &rows);
        if (status == DB_STATUS_SUCCESS) {
          EXPECT_EQ(rows, 3);
          for (int32_t r = 0; r < rows; ++r) EXPECT_NE(list[r], nullptr);
        }
        // A failed conversion hands out the records made so far; the caller frees them alike.
        if (list != nullptr) db_freeDeviceInfoResult(&list, rows);
        EXPECT_EQ(list, nullptr);
        return status;
      },
      {0, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE}, "Reader", "Reader"});
  // Slots 3..5 of day 1 set to 0 in one write whose column names are one block.
  createSeriesTables();
  const auto slots = [](RawDb &file) {
    return file.scalar("SELECT SLOT3 || SLOT4 || SLOT5 FROM RSSI1 WHERE MAC_S = 'm'").value_or("");
  };
  fail([&] { raw().exec("INSERT OR REPLACE INTO RSSI1 (MAC_S, SLOT3, SLOT4, SLOT5) "
                        "VALUES ('m', 7, 7, 7)"); },
       [] { return db_updateRssiSlotDefaultValue(Values{"m", "3", "5"}.data()); },
       {0, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE}, "777", "000", slots});
}

}  // namespace
