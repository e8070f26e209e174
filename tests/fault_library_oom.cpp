/*
 * fault_library_oom.cpp - every operation with the library's own N-th allocation failing.
 *
 * Built only with ANALYTICSDB_FAULT_INJECTION, whose hook (internal/memory.h) is asked before
 * every block the library itself allocates: statement texts, slot-name blocks, queue nodes and
 * their value copies, record lists. Each allocation site is reached by one of the operations
 * here (see support/fault_common.h for what each run must leave).
 */
#include <string>
#include <vector>

#include "internal/memory.h"
#include "support/fault_common.h"

namespace {

using adbtest::Cell;
using adbtest::FaultPlan;
using adbtest::RawDb;
using adbtest::Values;

adbtest::FaultCounter gAllocations;

class LibraryOomTest : public adbtest::FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    // A write by cached statement allocates nothing of the library's own; the text path it
    // falls back to does, and is what this program tries.
    db_setStatementCache(0);
    adb_faultSetAllocationHook([] { return gAllocations.strikes(); });
  }
  void TearDown() override {
    adb_faultSetAllocationHook(nullptr);
    db_setStatementCache(1);
    FaultTest::TearDown();
  }

  // A plan whose state is `observe`, not the test device's name.
  FaultPlan statePlan(std::function<void()> prepare, std::function<int32_t()> operation,
                      std::function<std::string(RawDb &)> observe, std::string before,
                      std::string after) {
    FaultPlan plan = namePlan(std::move(prepare), std::move(operation), DB_STATUS_SUCCESS,
                              {DB_STATUS_SUCCESS, DB_STATUS_FAILURE}, {before, after});
    plan.observe = std::move(observe);
    plan.committed = std::move(after);
    return plan;
  }
};

// The number of columns of a table: all of them or none.
std::function<std::string(RawDb &)> columnsOf(const char *table) {
  return [table](RawDb &file) { return std::to_string(file.columns(table).size()); };
}

TEST_F(LibraryOomTest, TableCreationIsWholeOrAbsent) {
  failEach(gAllocations,
           statePlan([&] { raw().exec("DROP TABLE IF EXISTS DEVICEINFO"); },
                     db_createDeviceInfoTable, columnsOf("DEVICEINFO"), "0", "38"),
           "table creation allocations");
  // A day table: its 288 slot names share one block.
  failEach(gAllocations,
           statePlan([&] { raw().exec("DROP TABLE IF EXISTS RSSI1"); },
                     [] { return db_createRssiTab(1, 288); }, columnsOf("RSSI1"), "0", "289"),
           "day table creation allocations");
}

TEST_F(LibraryOomTest, WritesDeletesAndDropsEndInAStatusAndLeaveTheOldOrTheNewState) {
  const struct {
    const char *what;
    const char *before;  // the row's name before the operation; null: no row
    int32_t (*operation)();
    const char *after;
  } cases[] = {
      {"insert", nullptr, [] { return writeName("Kitchen TV"); }, "Kitchen TV"},
      {"update", "Old name", [] { return writeName("New name"); }, "New name"},
      {"delete", "Doomed", [] { return db_deleteMacDeviceInfo(kMac); }, "<none>"},
      {"drop", "Dropped", db_dropDeviceInfoTable, "<none>"},
  };
  for (const auto &c : cases) {
    FaultPlan plan = namePlan(
        [&] {
          if (!raw().tableExists("DEVICEINFO")) {
            ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
          }
          resetRow(c.before);
        },
        c.operation, DB_STATUS_SUCCESS, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE},
        {c.before != nullptr ? c.before : "<none>", c.after});
    plan.committed = c.after;
    failEach(gAllocations, plan, std::string(c.what) + " allocations");
  }
}

TEST_F(LibraryOomTest, AQueuedWriteIsParkedWhole) {
  // A node that could not hold every value would replay another write than the caller's, so
  // the queue holds the complete request or nothing.
  FaultPlan parked = namePlan(
      [&] {
        resetRow("Before");
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
      // A busy write the queue had no memory for is told so (7), not "parked".
      DB_STATUS_BUSY, {DB_STATUS_BUSY, DB_STATUS_FAILURE, DB_STATUS_QUEUE_FULL}, {"Before"});
  failEach(gAllocations, parked, "parked write allocations");
  failEach(gAllocations, replayPlan(), "replay allocations");
}

TEST_F(LibraryOomTest, ReadsIntoRecordsAndSlotFillsEndInAStatus) {
  failEach(gAllocations,
           namePlan(
               [&] {
                 resetRow("Reader");
                 raw().exec("INSERT INTO DEVICEINFO (MAC_S) VALUES ('a'), ('b')");
               },
               [] {
                 DeviceInfoRecord **list = nullptr;
                 int32_t rows = 0;
                 int32_t status = db_readDeviceInfoTable(&list, &rows);
                 if (status == DB_STATUS_SUCCESS) {
                   EXPECT_EQ(rows, 3);
                   for (int32_t r = 0; r < rows; ++r) EXPECT_NE(list[r], nullptr);
                 }
                 // A failed conversion hands out the records made so far; they are freed alike.
                 if (list != nullptr) db_freeDeviceInfoResult(&list, rows);
                 EXPECT_EQ(list, nullptr);
                 return status;
               },
               DB_STATUS_SUCCESS, {DB_STATUS_SUCCESS, DB_STATUS_FAILURE}, {"Reader"}),
           "read allocations");
  // Slots 3..5 of day 1 set to 0 in one write whose column names share one block.
  createSeriesTables();
  failEach(gAllocations,
           statePlan(
               [&] {
                 raw().exec("INSERT OR REPLACE INTO RSSI1 (MAC_S, SLOT3, SLOT4, SLOT5) "
                            "VALUES ('m', 7, 7, 7)");
               },
               [] { return db_updateRssiSlotDefaultValue(Values{"m", "3", "5"}.data()); },
               [](RawDb &file) {
                 return file.scalar("SELECT SLOT3 || SLOT4 || SLOT5 FROM RSSI1").value_or("");
               },
               "777", "000"),
           "slot fill allocations");
}

}  // namespace
