/*
 * fault_io_vfs.cpp - writes with the N-th file write or the N-th file sync failing.
 *
 * A shim VFS wraps the default one and is made the default while a test runs, so the library's
 * own connection (opened with no VFS name) reaches its files through it: the database file,
 * its rollback journal and any temporary file. For each operation (an insert, an update, a
 * sample into the series tables, a transaction of several writes) the operation runs once to
 * count its writes and syncs, then once for every N up to each count with the N-th write, or
 * the N-th sync, failing. Each run must end in a failure status with an error line; the
 * library must go on working on the same connection afterwards; and the file, checked from a
 * fresh connection, must pass integrity_check and hold the old rows or the new ones, never a
 * mix (for the transaction: all of its rows or none).
 */
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/fault_common.h"

namespace {

using adbtest::Cell;
using adbtest::FaultCounter;
using adbtest::FaultPlan;
using adbtest::RawDb;
using adbtest::Values;

FaultCounter gWrites;
FaultCounter gSyncs;

/* ---- the shim VFS: everything forwarded to the wrapped VFS, xWrite and xSync can fail ---- */

sqlite3_vfs *gReal = nullptr;  // the default VFS the shim wraps
sqlite3_vfs gShim;

// The shim's file: its own header, then the wrapped VFS's file in the same block.
struct ShimFile {
  sqlite3_file base;
  sqlite3_file *real;
};
// Keeps the wrapped file aligned for its 64-bit members on every target.
constexpr size_t kRealFileOffset = (sizeof(ShimFile) + 15) & ~static_cast<size_t>(15);

sqlite3_file *realOf(sqlite3_file *file) { return reinterpret_cast<ShimFile *>(file)->real; }
const sqlite3_io_methods *methodsOf(sqlite3_file *file) { return realOf(file)->pMethods; }

int shimClose(sqlite3_file *f) { return methodsOf(f)->xClose(realOf(f)); }
int shimRead(sqlite3_file *f, void *out, int amount, sqlite3_int64 offset) {
  return methodsOf(f)->xRead(realOf(f), out, amount, offset);
}
int shimWrite(sqlite3_file *f, const void *data, int amount, sqlite3_int64 offset) {
  if (gWrites.strikes()) return SQLITE_IOERR_WRITE;
  return methodsOf(f)->xWrite(realOf(f), data, amount, offset);
}
int shimTruncate(sqlite3_file *f, sqlite3_int64 size) {
  return methodsOf(f)->xTruncate(realOf(f), size);
}
int shimSync(sqlite3_file *f, int flags) {
  if (gSyncs.strikes()) return SQLITE_IOERR_FSYNC;
  return methodsOf(f)->xSync(realOf(f), flags);
}
int shimFileSize(sqlite3_file *f, sqlite3_int64 *size) {
  return methodsOf(f)->xFileSize(realOf(f), size);
}
int shimLock(sqlite3_file *f, int level) { return methodsOf(f)->xLock(realOf(f), level); }
int shimUnlock(sqlite3_file *f, int level) { return methodsOf(f)->xUnlock(realOf(f), level); }
int shimCheckReservedLock(sqlite3_file *f, int *out) {
  return methodsOf(f)->xCheckReservedLock(realOf(f), out);
}
int shimFileControl(sqlite3_file *f, int op, void *arg) {
  return methodsOf(f)->xFileControl(realOf(f), op, arg);
}
int shimSectorSize(sqlite3_file *f) { return methodsOf(f)->xSectorSize(realOf(f)); }
int shimDeviceCharacteristics(sqlite3_file *f) {
  return methodsOf(f)->xDeviceCharacteristics(realOf(f));
}
int shimShmMap(sqlite3_file *f, int page, int size, int extend, void volatile **out) {
  if (methodsOf(f)->iVersion < 2) return SQLITE_IOERR_SHMMAP;
  return methodsOf(f)->xShmMap(realOf(f), page, size, extend, out);
}
int shimShmLock(sqlite3_file *f, int offset, int n, int flags) {
  if (methodsOf(f)->iVersion < 2) return SQLITE_IOERR_SHMLOCK;
  return methodsOf(f)->xShmLock(realOf(f), offset, n, flags);
}
void shimShmBarrier(sqlite3_file *f) {
  if (methodsOf(f)->iVersion >= 2) methodsOf(f)->xShmBarrier(realOf(f));
}
int shimShmUnmap(sqlite3_file *f, int deleteFlag) {
  if (methodsOf(f)->iVersion < 2) return SQLITE_OK;
  return methodsOf(f)->xShmUnmap(realOf(f), deleteFlag);
}
int shimFetch(sqlite3_file *f, sqlite3_int64 offset, int amount, void **out) {
  if (methodsOf(f)->iVersion < 3) {
    *out = nullptr;
    return SQLITE_OK;
  }
  return methodsOf(f)->xFetch(realOf(f), offset, amount, out);
}
int shimUnfetch(sqlite3_file *f, sqlite3_int64 offset, void *page) {
  if (methodsOf(f)->iVersion < 3) return SQLITE_OK;
  return methodsOf(f)->xUnfetch(realOf(f), offset, page);
}

const sqlite3_io_methods kShimMethods = {
    .iVersion = 3,
    .xClose = shimClose,
    .xRead = shimRead,
    .xWrite = shimWrite,
    .xTruncate = shimTruncate,
    .xSync = shimSync,
    .xFileSize = shimFileSize,
    .xLock = shimLock,
    .xUnlock = shimUnlock,
    .xCheckReservedLock = shimCheckReservedLock,
    .xFileControl = shimFileControl,
    .xSectorSize = shimSectorSize,
    .xDeviceCharacteristics = shimDeviceCharacteristics,
    .xShmMap = shimShmMap,
    .xShmLock = shimShmLock,
    .xShmBarrier = shimShmBarrier,
    .xShmUnmap = shimShmUnmap,
    .xFetch = shimFetch,
    .xUnfetch = shimUnfetch,
};

int shimOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *outFlags) {
  auto *shim = reinterpret_cast<ShimFile *>(file);
  shim->base.pMethods = nullptr;  // SQLite closes only files whose open succeeded
  shim->real = reinterpret_cast<sqlite3_file *>(reinterpret_cast<char *>(file) + kRealFileOffset);
  int result = gReal->xOpen(gReal, name, shim->real, flags, outFlags);
  if (shim->real->pMethods != nullptr) shim->base.pMethods = &kShimMethods;
  return result;
}
int shimDelete(sqlite3_vfs *, const char *name, int syncDir) {
  return gReal->xDelete(gReal, name, syncDir);
}
int shimAccess(sqlite3_vfs *, const char *name, int flags, int *out) {
  return gReal->xAccess(gReal, name, flags, out);
}
int shimFullPathname(sqlite3_vfs *, const char *name, int size, char *out) {
  return gReal->xFullPathname(gReal, name, size, out);
}
void *shimDlOpen(sqlite3_vfs *, const char *name) { return gReal->xDlOpen(gReal, name); }
void shimDlError(sqlite3_vfs *, int size, char *out) { gReal->xDlError(gReal, size, out); }
void (*shimDlSym(sqlite3_vfs *, void *library, const char *symbol))(void) {
  return gReal->xDlSym(gReal, library, symbol);
}
void shimDlClose(sqlite3_vfs *, void *library) { gReal->xDlClose(gReal, library); }
int shimRandomness(sqlite3_vfs *, int size, char *out) {
  return gReal->xRandomness(gReal, size, out);
}
int shimSleep(sqlite3_vfs *, int micros) { return gReal->xSleep(gReal, micros); }
int shimCurrentTime(sqlite3_vfs *, double *now) { return gReal->xCurrentTime(gReal, now); }
int shimGetLastError(sqlite3_vfs *, int size, char *out) {
  return gReal->xGetLastError(gReal, size, out);
}
int shimCurrentTimeInt64(sqlite3_vfs *, sqlite3_int64 *now) {
  return gReal->xCurrentTimeInt64(gReal, now);
}

// Makes the shim the default VFS; false when there is no default to wrap.
bool installShim() {
  gReal = sqlite3_vfs_find(nullptr);
  if (gReal == nullptr || gReal->iVersion < 2) return false;
  gShim = sqlite3_vfs{};
  gShim.iVersion = 2;
  gShim.szOsFile = static_cast<int>(kRealFileOffset) + gReal->szOsFile;
  gShim.mxPathname = gReal->mxPathname;
  gShim.zName = "adbtest-faulty-io";
  gShim.xOpen = shimOpen;
  gShim.xDelete = shimDelete;
  gShim.xAccess = shimAccess;
  gShim.xFullPathname = shimFullPathname;
  gShim.xDlOpen = shimDlOpen;
  gShim.xDlError = shimDlError;
  gShim.xDlSym = shimDlSym;
  gShim.xDlClose = shimDlClose;
  gShim.xRandomness = shimRandomness;
  gShim.xSleep = shimSleep;
  gShim.xCurrentTime = shimCurrentTime;
  gShim.xGetLastError = shimGetLastError;
  gShim.xCurrentTimeInt64 = shimCurrentTimeInt64;
  return sqlite3_vfs_register(&gShim, 1) == SQLITE_OK;
}

void removeShim() {
  if (gReal == nullptr) return;
  sqlite3_vfs_register(gReal, 1);
  sqlite3_vfs_unregister(&gShim);
  gReal = nullptr;
}

/* ---- the operations ---- */

constexpr const char *kOtherMac = "66:55:44:33:22:11";
// The first is the test device, whose row the fixture sets up.
constexpr const char *kTransactionMacs[] = {"11:22:33:44:55:66", "22:22:33:44:55:66",
                                            "33:22:33:44:55:66"};

class IoFaultTest : public adbtest::FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    ASSERT_TRUE(installShim());
    // The library's connection reopens through the shim.
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  }

  void TearDown() override {
    FaultTest::TearDown();  // closes every connection that went through the shim
    removeShim();
  }

  // Fails every write, then every sync, of the operation in turn.
  void failEveryWriteAndSync(FaultPlan plan, const std::string &name) {
    failEach(gWrites, withChecks(plan, gWrites), name + " writes");
    failEach(gSyncs, withChecks(plan, gSyncs), name + " syncs");
  }

  // A run whose fault struck has logged an error line, and the library goes on writing on the
  // same connection, each write committed at once.
  FaultPlan withChecks(FaultPlan plan, FaultCounter &fault) {
    plan.settle = [this, &fault](int32_t) {
      if (fault.struck()) {
        EXPECT_GT(errorLines(), 0u) << "a failed write or sync is not logged";
      }
      raw().exec(std::string("DELETE FROM DEVICEINFO WHERE MAC_S = '") + kOtherMac + "'");
      EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kOtherMac, "After"}.data()),
                DB_STATUS_SUCCESS)
          << "the library fails on after the fault";
      EXPECT_EQ(raw().scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") +
                             kOtherMac + "'"),
                Cell("After"))
          << "a later write is not committed";
    };
    return plan;
  }

  size_t errorLines() {
    size_t n = 0;
    for (const adbtest::LogLine &line : log().lines()) n += (line.level == RYX_LOG_ERROR);
    return n;
  }
};

TEST_F(IoFaultTest, ATransactionThatSqliteRolledBackRefusesWritesUntilItsCommit) {
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  gWrites.arm(1);  // the first write of the transaction (its journal) fails
  EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[0], "First"}.data()),
            DB_STATUS_FAILURE);
  EXPECT_TRUE(gWrites.struck());
  gWrites.disarm();
  // Without a transaction any more, this write would be committed on its own.
  EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[1], "Second"}.data()),
            DB_STATUS_FAILURE);
  EXPECT_EQ(log().countContaining("[analyticsDB] WRITE refused: the transaction was rolled back "
                                  "by an earlier error, COMMIT ends it \n Query : INSERT INTO"),
            1u)
      << log().dump();
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // the caller learns of the loss
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEVICEINFO"), Cell("0"));

  // The commit ended it: single writes and whole transactions work again.
  EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[2], "Third"}.data()),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[0], "First"}.data()),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT group_concat(FRIENDLYNAME_S, ',') FROM "
                         "(SELECT FRIENDLYNAME_S FROM DEVICEINFO ORDER BY MAC_S)"),
            Cell("First,Third"));

  // Closing the connection ends a transaction too: nothing is refused after a reopen.
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[1], "Second"}.data()),
            DB_STATUS_SUCCESS);
}

TEST_F(IoFaultTest, InventoryWritesFailWholeAndLeaveTheOldOrTheNewRow) {
  FaultPlan insert;
  insert.prepare = [&] { resetRow(nullptr); };
  insert.operation = [] { return writeName("Kitchen TV"); };
  insert.allowed = {DB_STATUS_FAILURE};
  insert.observe = storedName;
  insert.outcomes = {"<none>", "Kitchen TV"};
  insert.committed = "Kitchen TV";
  failEveryWriteAndSync(insert, "insert");

  // The INSERT meets the key, then the UPDATE writes.
  FaultPlan update = insert;
  update.prepare = [&] { resetRow("Old name"); };
  update.operation = [] { return writeName("New name"); };
  update.outcomes = {"Old name", "New name"};
  update.committed = "New name";
  failEveryWriteAndSync(update, "update");
}

TEST_F(IoFaultTest, SampleWritesLeaveEachRowOldOrNew) {
  // Only the tables the sample touches: every check opens and checks the whole file.
  ASSERT_EQ(db_createPrimitiveRssiTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createRssiTab(1, 288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createRssiTab(2, 288), DB_STATUS_SUCCESS);
  // The device's latest sample is slot 288 (day 1); the new one opens day 2. A sample is two
  // statements, the index row and then the slot, so each of the two rows is judged on its own.
  FaultPlan sample;
  sample.prepare = [&] {
    raw().exec("DELETE FROM RSSI1; DELETE FROM RSSI2; DELETE FROM PRIMITIVE_RSSI");
    raw().exec(std::string("INSERT INTO PRIMITIVE_RSSI (MAC_S, TIMESTAMP, SLT_IND) VALUES ('") +
               kMac + "', 1000, 288); INSERT INTO RSSI1 (MAC_S, SLOT288) VALUES ('" + kMac +
               "', 40)");
  };
  sample.operation = [] { return db_updateRssi(Values{kMac, "1300", "289", "55"}.data()); };
  sample.allowed = {DB_STATUS_FAILURE};
  sample.observe = [](RawDb &db) {
    const std::string mac = std::string(" WHERE MAC_S = '") + kMac + "'";
    return db.scalar("SELECT TIMESTAMP || '/' || SLT_IND FROM PRIMITIVE_RSSI" + mac)
               .value_or("<none>") +
           " " + db.scalar("SELECT SLOT288 FROM RSSI1" + mac).value_or("<none>") + " " +
           db.scalar("SELECT SLOT289 FROM RSSI2" + mac).value_or("<none>");
  };
  sample.outcomes = {"1000/288 40 <none>", "1300/289 40 <none>", "1000/288 40 55",
                     "1300/289 40 55"};
  sample.committed = "1300/289 40 55";
  failEveryWriteAndSync(sample, "sample");
}

TEST_F(IoFaultTest, TransactionsCommitAllTheirWritesOrNone) {
  // An update and two inserts between BEGIN and COMMIT; every step runs, as a caller that
  // checks the statuses only at the end would run them.
  FaultPlan transaction;
  transaction.prepare = [&] { resetRow("Old name"); };
  transaction.operation = [] {
    int32_t status = db_beginTransaction();
    const char *names[] = {"New name", "Second", "Third"};
    for (size_t i = 0; i < 3; ++i) {
      int32_t step = db_updateDeviceInfoBeaconFName(Values{kTransactionMacs[i], names[i]}.data());
      if (status == DB_STATUS_SUCCESS) status = step;
    }
    int32_t commit = db_commitTransaction();
    return status != DB_STATUS_SUCCESS ? status : commit;
  };
  transaction.allowed = {DB_STATUS_FAILURE};
  transaction.observe = [](RawDb &db) {
    std::string names;
    for (const char *mac : kTransactionMacs) {
      names += (names.empty() ? "" : ",") +
               db.scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") +
                         mac + "'")
                   .value_or("<none>");
    }
    return names;
  };
  transaction.outcomes = {"Old name,<none>,<none>", "New name,Second,Third"};
  transaction.committed = "New name,Second,Third";
  failEveryWriteAndSync(transaction, "transaction");
}

}  // namespace
