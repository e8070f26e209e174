// fault_common.cpp - see fault_common.h.
#include "support/fault_common.h"

#include <sqlite3.h>

#include <cstdio>
#include <map>

namespace adbtest {

void FaultTest::SetUp() {
  DbTest::SetUp();
  ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
  ryxLogSetLevel(RYX_LOG_ERROR);
}

void FaultTest::TearDown() {
  DbTest::TearDown();
  removeShimVfs();
}

void FaultTest::failEach(FaultCounter &fault, const FaultPlan &plan, const std::string &property) {
  long total = 0;
  // Run 0 only counts the passes; it must succeed.
  for (long n = 0; n <= total; ++n) {
    SCOPED_TRACE(property + ": pass " + std::to_string(n) + " of " + std::to_string(total));
    plan.prepare();
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    log().clear();
    fault.arm(n);
    const int32_t status = plan.operation();
    if (const long seen = fault.disarm(); n == 0) total = seen;
    busy_.reset();
    if (plan.settle) plan.settle();
    // The whole file, from a connection of its own.
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    RawDb check(dbPath());
    EXPECT_EQ(check.scalar("PRAGMA integrity_check"), Cell("ok"));
    const std::string state = plan.observe(check);
    // Run 0 must end as the operation does without a fault; every run in one of the states.
    EXPECT_TRUE(n == 0 ? status == plan.clean : plan.allowed.count(status) == 1) << status;
    EXPECT_GT(total, 0) << "no fault point to try";
    EXPECT_TRUE(status == plan.clean || !fault.struck() || !log().lines().empty())
        << "a failed run logs nothing";
    EXPECT_TRUE(plan.outcomes.count(state) == 1) << state;
    EXPECT_TRUE(status != plan.clean || plan.committed.empty() || state == plan.committed)
        << "a run reports success but lost its write: " << state;
    for (int i = 0; i < 4 && queueCount > 0; ++i) db_processQueueEntry();
    db_freeQueue();
    if (HasFailure()) break;
  }
  RecordProperty(property, std::to_string(total));
  std::printf("[ fault    ] %s: %ld fault points\n", property.c_str(), total);
}

const FaultTest::NameWrite FaultTest::kNameWrites[2] = {
    {"insert", nullptr, "Kitchen TV", [] { return writeName("Kitchen TV"); }},
    {"update", "Old name", "New name", [] { return writeName("New name"); }}};

FaultPlan FaultTest::writePlan(const NameWrite &write, Statuses allowed) {
  return {.prepare = [this, write] { resetRow(write.before); }, .operation = write.operation,
          .allowed = std::move(allowed),
          .outcomes = {write.before != nullptr ? write.before : "<none>", write.after},
          .committed = write.after};
}

void FaultTest::failEachRowOperation(FaultCounter &fault, const std::vector<NameWrite> &writes,
                                     const Statuses &written, const Statuses &read,
                                     const Statuses &parked) {
  auto readRows = [] {
    DeviceInfoRecord **list = nullptr;
    int32_t rows = 0;
    const int32_t status = db_readDeviceInfoTable(&list, &rows);
    std::string names;
    for (int32_t r = 0; status == DB_STATUS_SUCCESS && r < rows; ++r) {
      names += list[r] != nullptr ? std::string(list[r]->friendlyName) + ";" : "<no record>;";
    }
    EXPECT_EQ(names, status == DB_STATUS_SUCCESS ? "Reader;;;" : "");
    // A failed conversion hands out the records made so far; they are freed alike.
    if (list != nullptr) db_freeDeviceInfoResult(&list, rows);
    EXPECT_EQ(list, nullptr);
    return status;
  };
  // First: a drop among the writes may take the table.
  const char *threeRows = "DELETE FROM DEVICEINFO; INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) "
                          "VALUES ('11:22:33:44:55:66', 'Reader'), ('a', NULL), ('b', NULL)";
  failEach(fault, {.prepare = execs(threeRows), .operation = readRows, .allowed = read,
                   .outcomes = {"Reader"}}, "read allocations");
  for (const NameWrite &write : writes) {
    failEach(fault, writePlan(write, written), std::string(write.what) + " allocations");
  }

  auto park = [] {
    const int32_t status = writeName("Parked");
    // Parked exactly when it answers 3, and the whole request: a node that could not hold every
    // value would replay another write than the caller's.
    const WriteRequestNode *head = queueHead();
    const std::vector<Cell> none, whole = {kMac, "Parked"};
    EXPECT_EQ(std::make_pair(queueCount, head != nullptr ? nodeValues(*head) : none),
              status == DB_STATUS_BUSY ? std::make_pair(1, whole) : std::make_pair(0, none));
    return status;
  };
  auto holdBusy = [this] {
    resetRow("Before");
    busy_.emplace(dbPath());
  };
  failEach(fault, {.prepare = holdBusy, .operation = park, .clean = DB_STATUS_BUSY,
                   .allowed = parked, .outcomes = {"Before"}}, "parked write allocations");

  // failEach emptied the queue after the run before.
  auto parkOne = [this] {
    resetRow("Before");
    ASSERT_EQ(whileBusy([] { return writeName("Replayed"); }), DB_STATUS_BUSY);
  };
  failEach(fault, {.prepare = parkOne, .operation = db_processQueueEntry, .allowed = {0, 2, 3},
                   .outcomes = {"Before", "Replayed"}}, "replay allocations");
}

std::string nameOf(RawDb &db, const char *mac) {
  if (!db.tableExists("DEVICEINFO")) return "<none>";
  return db.scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") + mac + "'")
      .value_or("<none>");
}

void FaultTest::resetRow(const char *name) {
  // A drop before may have taken the table.
  if (!raw().tableExists("DEVICEINFO")) db_createDeviceInfoTable();
  raw().exec("DELETE FROM DEVICEINFO");
  if (name == nullptr) return;
  raw().exec(std::string("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES ('") + kMac +
             "', '" + name + "')");
}

namespace {

sqlite3_vfs *gReal = nullptr;
sqlite3_vfs gShim;
ShimHooks gHooks;

// What the shim keeps behind the default VFS's own file object, which it opens in place.
struct Trailer {
  const sqlite3_io_methods *real;
  const char *path;  // valid until xClose; null for temporary files
};

// Aligned for the trailer's pointers on every target.
size_t trailerOffset() { return (static_cast<size_t>(gReal->szOsFile) + 15) & ~size_t{15}; }

Trailer *trailerOf(sqlite3_file *file) {
  return reinterpret_cast<Trailer *>(reinterpret_cast<char *>(file) + trailerOffset());
}

int shimWrite(sqlite3_file *file, const void *data, int amount, sqlite3_int64 offset) {
  if (gHooks.writes != nullptr && gHooks.writes->strikes()) return SQLITE_IOERR_WRITE;
  return trailerOf(file)->real->xWrite(file, data, amount, offset);
}

int shimSync(sqlite3_file *file, int flags) {
  if (gHooks.syncs != nullptr && gHooks.syncs->strikes()) return SQLITE_IOERR_FSYNC;
  const int result = trailerOf(file)->real->xSync(file, flags);
  if (result == SQLITE_OK && gHooks.synced != nullptr) gHooks.synced(trailerOf(file)->path);
  return result;
}

// Each method table of the default VFS, with its writes and syncs going through the shim. Version
// 2: without xFetch, every read goes through xRead.
std::map<const sqlite3_io_methods *, sqlite3_io_methods> gMethods;

int shimOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *outFlags) {
  const int result = gReal->xOpen(gReal, name, file, flags, outFlags);
  if (file->pMethods != nullptr) {
    *trailerOf(file) = {file->pMethods, name};
    sqlite3_io_methods &shim = gMethods.try_emplace(file->pMethods, *file->pMethods).first->second;
    shim.iVersion = 2;
    shim.xWrite = shimWrite;
    shim.xSync = shimSync;
    file->pMethods = &shim;
  }
  return result;
}

int shimDelete(sqlite3_vfs *, const char *path, int syncDir) {
  const int result = gReal->xDelete(gReal, path, syncDir);
  if (result == SQLITE_OK && syncDir != 0 && gHooks.deleted != nullptr) gHooks.deleted(path);
  return result;
}

}  // namespace

bool installShimVfs(const ShimHooks &hooks) {
  gReal = sqlite3_vfs_find(nullptr);
  if (gReal == nullptr) return false;
  gHooks = hooks;
  // The default VFS's other methods serve the shim as they are: none of them depends on the VFS
  // object it is called through.
  gShim = *gReal;
  gShim.szOsFile = static_cast<int>(trailerOffset() + sizeof(Trailer));
  gShim.zName = "adbtest-shim";
  gShim.xOpen = shimOpen;
  gShim.xDelete = shimDelete;
  return sqlite3_vfs_register(&gShim, 1) == SQLITE_OK;
}

void removeShimVfs() {
  if (gReal == nullptr) return;
  sqlite3_vfs_register(gReal, 1);
  sqlite3_vfs_unregister(&gShim);
  gReal = nullptr;
}

}  // namespace adbtest
