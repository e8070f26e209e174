// fault_library_oom.cpp - every operation with the library's own N-th allocation failing.
//
// Built only with ANALYTICSDB_FAULT_INJECTION, whose hook (internal/memory.h) is asked before
// every block the library itself allocates: statement texts, slot-name blocks, queue nodes and
// their value copies, record lists. Each allocation site is reached by one of the operations
// here (see support/fault_common.h for what each run must leave).
#include <string>

#include "internal/memory.h"
#include "support/fault_common.h"

namespace {

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
};

TEST_F(LibraryOomTest, RowOperationsTableCreationsAndSlotFillsEndInAStatusAndLeaveOldOrNew) {
  const adbtest::Statuses either = {DB_STATUS_SUCCESS, DB_STATUS_FAILURE};
  // A busy write the queue had no memory for is told so (7), not "parked".
  failEachRowOperation(gAllocations,
                       {kNameWrites[0], kNameWrites[1],
                        {"delete", "Doomed", "<none>", [] { return db_deleteMacDeviceInfo(kMac); }},
                        {"drop", "Dropped", "<none>", db_dropDeviceInfoTable}},
                       either, either, {DB_STATUS_BUSY, DB_STATUS_FAILURE, DB_STATUS_QUEUE_FULL});

  // Each run leaves the old or the new state, and a run that returned 0 the new one.
  createSeriesTables();
  auto wholeOrNone = [&](const char *what, const char *prepare, int32_t (*operation)(),
                         const char *state, const char *before, const char *after) {
    failEach(gAllocations,
             {.prepare = execs(prepare), .operation = operation, .allowed = either,
              .outcomes = {before, after}, .committed = after, .observe = adbtest::stateOf(state)},
             std::string(what) + " allocations");
  };
  // Slots 3..5 of day 1 set to 0 in one write whose column names share one block (first: the
  // last run below may leave the day table absent).
  wholeOrNone("slot fill",
              "INSERT OR REPLACE INTO RSSI1 (MAC_S, SLOT3, SLOT4, SLOT5) VALUES ('m', 7, 7, 7)",
              [] { return db_updateRssiSlotDefaultValue(adbtest::Values{"m", "3", "5"}.data()); },
              "SELECT SLOT3 || SLOT4 || SLOT5 FROM RSSI1", "777", "000");
  // A table's state is the number of its columns: all of them or none.
  wholeOrNone("table creation", "DROP TABLE IF EXISTS DEVICEINFO", db_createDeviceInfoTable,
              "SELECT count(*) FROM pragma_table_info('DEVICEINFO')", "0", "38");
  // A day table: its 288 slot names share one block.
  wholeOrNone("day table creation", "DROP TABLE IF EXISTS RSSI1",
              [] { return db_createRssiTab(1, 288); },
              "SELECT count(*) FROM pragma_table_info('RSSI1')", "0", "289");
}

}  // namespace
