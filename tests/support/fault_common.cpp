// fault_common.cpp - see fault_common.h.
#include "support/fault_common.h"

#include <cstdio>

namespace adbtest {

void FaultTest::SetUp() {
  DbTest::SetUp();
  ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
  ryxLogSetLevel(RYX_LOG_ERROR);
}

std::string FaultTest::checkFile(const std::function<std::string(RawDb &)> &observe) {
  EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  RawDb check(dbPath());
  EXPECT_EQ(check.scalar("PRAGMA integrity_check"), Cell("ok"));
  return observe(check);
}

long FaultTest::failEach(FaultCounter &fault, const FaultPlan &plan, const std::string &property) {
  long total = 0;
  // Run 0 only counts the passes; it must succeed.
  for (long n = 0; n <= total; ++n) {
    SCOPED_TRACE(property + ": pass " + std::to_string(n) + " of " + std::to_string(total));
    plan.prepare();
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    log().clear();
    fault.arm(n);
    const int32_t status = plan.operation();
    const long seen = fault.disarm();
    if (plan.settle) plan.settle(status);
    const std::string state = checkFile(plan.observe);
    if (n == 0) {
      total = seen;
      EXPECT_EQ(status, plan.clean) << "the operation fails without any fault";
      EXPECT_GT(total, 0) << "no fault point to try";
    } else {
      EXPECT_TRUE(plan.allowed.count(status) == 1) << "status " << status;
      if (status != plan.clean && fault.struck()) {
        EXPECT_GT(log().lines().size(), 0u) << "a failed run logs nothing";
      }
      EXPECT_TRUE(plan.outcomes.count(state) == 1) << state;
    }
    if (status == plan.clean && !plan.committed.empty()) {
      EXPECT_EQ(state, plan.committed) << "a run reports success but lost its write";
    }
    if (plan.cleanup) plan.cleanup();
    if (HasFailure()) break;
  }
  RecordProperty(property, std::to_string(total));
  std::printf("[ fault    ] %s: %ld fault points\n", property.c_str(), total);
  return total;
}

FaultPlan FaultTest::namePlan(std::function<void()> prepare, std::function<int32_t()> operation,
                              int32_t clean, std::set<int32_t> allowed,
                              std::set<std::string> outcomes) {
  FaultPlan plan;
  plan.prepare = std::move(prepare);
  plan.operation = std::move(operation);
  plan.clean = clean;
  plan.allowed = std::move(allowed);
  plan.settle = [this](int32_t) { busy_.reset(); };
  plan.observe = storedName;
  plan.outcomes = std::move(outcomes);
  plan.cleanup = [] {
    for (int i = 0; i < 4 && queueCount > 0; ++i) db_processQueueEntry();
    db_freeQueue();
  };
  return plan;
}

FaultPlan FaultTest::replayPlan() {
  return namePlan(
      [this] {
        db_freeQueue();
        resetRow("Before");
        BusyHolder busy(dbPath());
        ASSERT_EQ(writeName("Replayed"), DB_STATUS_BUSY);
      },
      [] { return db_processQueueEntry(); }, 0, {0, 2, 3}, {"Before", "Replayed"});
}

FaultPlan FaultTest::writePlan(const NameWrite &write, std::set<int32_t> allowed) {
  FaultPlan plan = namePlan([this, write] { resetRow(write.before); },
                            [write] { return writeName(write.after); }, DB_STATUS_SUCCESS,
                            std::move(allowed),
                            {write.before != nullptr ? write.before : "<none>", write.after});
  plan.committed = write.after;
  return plan;
}

std::string FaultTest::nameOf(RawDb &db, const char *mac) {
  if (!db.tableExists("DEVICEINFO")) return "<none>";
  return db.scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") + mac + "'")
      .value_or("<none>");
}

void FaultTest::resetRow(const char *name) {
  raw().exec("DELETE FROM DEVICEINFO");
  if (name != nullptr) {
    raw().exec(std::string("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES ('") + kMac +
               "', '" + name + "')");
  }
}

int32_t FaultTest::writeName(const char *name) {
  return db_updateDeviceInfoBeaconFName(Values{kMac, name}.data());
}

namespace {

sqlite3_vfs *gReal = nullptr;
sqlite3_vfs gShim;

#define ADB_TO_VFS(method) [](sqlite3_vfs *, auto... args) { return gReal->method(gReal, args...); }

}  // namespace

bool installShimVfs(const char *name, size_t headerSize, ShimOpen open, ShimDelete remove) {
  gReal = sqlite3_vfs_find(nullptr);
  if (gReal == nullptr || gReal->iVersion < 2) return false;
  gShim = sqlite3_vfs{
      .iVersion = 2,
      .szOsFile = static_cast<int>(headerSize) + gReal->szOsFile,
      .mxPathname = gReal->mxPathname,
      .pNext = nullptr,
      .zName = name,
      .pAppData = nullptr,
      .xOpen = open,
      .xDelete = remove != nullptr ? remove : ADB_TO_VFS(xDelete),
      .xAccess = ADB_TO_VFS(xAccess),
      .xFullPathname = ADB_TO_VFS(xFullPathname),
      .xDlOpen = ADB_TO_VFS(xDlOpen),
      .xDlError = ADB_TO_VFS(xDlError),
      .xDlSym = ADB_TO_VFS(xDlSym),
      .xDlClose = ADB_TO_VFS(xDlClose),
      .xRandomness = ADB_TO_VFS(xRandomness),
      .xSleep = ADB_TO_VFS(xSleep),
      .xCurrentTime = ADB_TO_VFS(xCurrentTime),
      .xGetLastError = ADB_TO_VFS(xGetLastError),
      .xCurrentTimeInt64 = ADB_TO_VFS(xCurrentTimeInt64),
      .xSetSystemCall = nullptr,
      .xGetSystemCall = nullptr,
      .xNextSystemCall = nullptr,
  };
  return sqlite3_vfs_register(&gShim, 1) == SQLITE_OK;
}

void removeShimVfs() {
  if (gReal == nullptr) return;
  sqlite3_vfs_register(gReal, 1);
  sqlite3_vfs_unregister(&gShim);
  gReal = nullptr;
}

sqlite3_vfs *realVfs() { return gReal; }

}  // namespace adbtest
