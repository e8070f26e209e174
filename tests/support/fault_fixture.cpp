// fault_fixture.cpp - see fault_fixture.h.
#include "support/fault_fixture.h"

namespace adbtest {

void FaultTest::SetUp() {
  DbTest::SetUp();
  ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
}

std::string FaultTest::nameOfDevice(RawDb &file) {
  if (!file.tableExists("DEVICEINFO")) return "<none>";
  return file.scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") + kMac +
                     "'")
      .value_or("<none>");
}

void FaultTest::resetDevice(const char *name) {
  raw().exec("DELETE FROM DEVICEINFO");
  if (name != nullptr) {
    raw().exec(std::string("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES ('") + kMac +
               "', '" + name + "')");
  }
}

int32_t FaultTest::writeName(const char *name) {
  return db_updateDeviceInfoBeaconFName(Values{kMac, name}.data());
}

std::string FaultTest::checkFile(const State &state) {
  EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  RawDb check(dbPath());
  EXPECT_EQ(check.scalar("PRAGMA integrity_check"), Cell("ok"));
  return state(check);
}

long FaultTest::failEachPoint(const FaultSource &source, const std::function<void()> &prepare,
                              const std::function<int32_t()> &operation, const Expect &expect) {
  // Thousands of runs: keep only the error lines, which every faulted run must produce.
  ryxLogSetLevel(RYX_LOG_ERROR);
  long total = 0;
  // Run 0 only counts the fault points and must succeed.
  for (long n = 0; n <= total && !HasFailure(); ++n) {
    SCOPED_TRACE(std::string(source.name) + " " + std::to_string(n) + " of " +
                 std::to_string(total));
    prepare();
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    log().clear();
    source.arm(n);
    const int32_t status = operation();
    const long seen = source.count();
    source.arm(-1);
    busy_.reset();
    const std::string state = checkFile(expect.state);
    if (n == 0) {
      total = seen;
      EXPECT_GT(total, 0) << "no fault point to try";
      EXPECT_EQ(status, expect.clean) << "the operation fails without any fault";
      EXPECT_EQ(state, expect.after);
    } else {
      EXPECT_TRUE(expect.allowed.count(status) == 1) << "status " << status;
      if (status != expect.clean && seen >= n) {
        EXPECT_GT(log().lines().size(), 0u) << "a failed run logs nothing";
      }
      EXPECT_TRUE(state == expect.before || state == expect.after) << state;
    }
    // Whatever the run left parked is replayed, or dropped as the queue specifies.
    for (int i = 0; i < 4 && queueCount > 0; ++i) db_processQueueEntry();
    db_freeQueue();
  }
  return total;
}

long FaultTest::failReplayOfParkedWrite(const FaultSource &source) {
  return failEachPoint(
      source,
      [&] {
        db_freeQueue();
        resetDevice("Before");
        BusyHolder busy(dbPath());
        ASSERT_EQ(writeName("Replayed"), DB_STATUS_BUSY);
      },
      [] { return db_processQueueEntry(); }, {0, {0, 2, 3}, "Before", "Replayed"});
}

}  // namespace adbtest
