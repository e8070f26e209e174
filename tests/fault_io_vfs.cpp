/*
 * fault_io_vfs.cpp - writes with the N-th file write or the N-th file sync failing.
 *
 * A shim VFS, made the default while a test runs, wraps the default one, so the library's own
 * connection reaches the database, its journal and any temporary file through it. Each run must
 * end in a failure status with an error line, the library must write on on the same connection,
 * and the file must hold the old rows or the new ones, never a mix (see support/fault_common.h).
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


// The shim's file: its own header, then the wrapped VFS's file in the same block.
struct ShimFile {
  sqlite3_file base;
  sqlite3_file *real;
};
// Keeps the wrapped file aligned for its 64-bit members on every target.
constexpr size_t kRealFileOffset = (sizeof(ShimFile) + 15) & ~static_cast<size_t>(15);

sqlite3_file *realOf(sqlite3_file *file) { return reinterpret_cast<ShimFile *>(file)->real; }
const sqlite3_io_methods *methodsOf(sqlite3_file *file) { return realOf(file)->pMethods; }

// A method that hands its call on to the wrapped file, or to the wrapped VFS.
#define ADB_TO_FILE(method) \
  [](sqlite3_file *f, auto... args) { return methodsOf(f)->method(realOf(f), args...); }

const sqlite3_io_methods kShimMethods = {
    .iVersion = 3,
    .xClose = ADB_TO_FILE(xClose),
    .xRead = ADB_TO_FILE(xRead),
    .xWrite = [](sqlite3_file *f, const void *data, int amount, sqlite3_int64 offset) {
      return gWrites.strikes() ? SQLITE_IOERR_WRITE
                               : methodsOf(f)->xWrite(realOf(f), data, amount, offset);
    },
    .xTruncate = ADB_TO_FILE(xTruncate),
    .xSync = [](sqlite3_file *f, int flags) {
      return gSyncs.strikes() ? SQLITE_IOERR_FSYNC : methodsOf(f)->xSync(realOf(f), flags);
    },
    .xFileSize = ADB_TO_FILE(xFileSize),
    .xLock = ADB_TO_FILE(xLock),
    .xUnlock = ADB_TO_FILE(xUnlock),
    .xCheckReservedLock = ADB_TO_FILE(xCheckReservedLock),
    .xFileControl = ADB_TO_FILE(xFileControl),
    .xSectorSize = ADB_TO_FILE(xSectorSize),
    .xDeviceCharacteristics = ADB_TO_FILE(xDeviceCharacteristics),
    // The wrapped file may have older methods than the shim declares.
    .xShmMap = [](sqlite3_file *f, int page, int size, int extend, void volatile **out) {
      if (methodsOf(f)->iVersion < 2) return SQLITE_IOERR_SHMMAP;
      return methodsOf(f)->xShmMap(realOf(f), page, size, extend, out);
    },
    .xShmLock = [](sqlite3_file *f, int offset, int n, int flags) {
      if (methodsOf(f)->iVersion < 2) return SQLITE_IOERR_SHMLOCK;
      return methodsOf(f)->xShmLock(realOf(f), offset, n, flags);
    },
    .xShmBarrier = [](sqlite3_file *f) {
      if (methodsOf(f)->iVersion >= 2) methodsOf(f)->xShmBarrier(realOf(f));
    },
    .xShmUnmap = [](sqlite3_file *f, int deleteFlag) {
      return methodsOf(f)->iVersion < 2 ? SQLITE_OK : methodsOf(f)->xShmUnmap(realOf(f), deleteFlag);
    },
    .xFetch = [](sqlite3_file *f, sqlite3_int64 offset, int amount, void **out) {
      if (methodsOf(f)->iVersion >= 3) return methodsOf(f)->xFetch(realOf(f), offset, amount, out);
      *out = nullptr;
      return SQLITE_OK;
    },
    .xUnfetch = [](sqlite3_file *f, sqlite3_int64 offset, void *page) {
      return methodsOf(f)->iVersion < 3 ? SQLITE_OK : methodsOf(f)->xUnfetch(realOf(f), offset, page);
    },
};

int shimOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *outFlags) {
  auto *shim = reinterpret_cast<ShimFile *>(file);
  shim->base.pMethods = nullptr;  // SQLite closes only files whose open succeeded
  shim->real = reinterpret_cast<sqlite3_file *>(reinterpret_cast<char *>(file) + kRealFileOffset);
  int result = adbtest::realVfs()->xOpen(adbtest::realVfs(), name, shim->real, flags, outFlags);
  if (shim->real->pMethods != nullptr) shim->base.pMethods = &kShimMethods;
  return result;
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
    ASSERT_TRUE(adbtest::installShimVfs("adbtest-faulty-io", kRealFileOffset, shimOpen));
    // The library's connection reopens through the shim.
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  }

  void TearDown() override {
    FaultTest::TearDown();  // closes every connection that went through the shim
    adbtest::removeShimVfs();
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
        EXPECT_GT(log().countAt(RYX_LOG_ERROR), 0u) << "a failed write or sync is not logged";
      }
      raw().exec(std::string("DELETE FROM DEVICEINFO WHERE MAC_S = '") + kOtherMac + "'");
      EXPECT_EQ(db_updateDeviceInfoBeaconFName(Values{kOtherMac, "After"}.data()),
                DB_STATUS_SUCCESS)
          << "the library fails on after the fault";
      EXPECT_EQ(nameOf(raw(), kOtherMac), "After") << "a later write is not committed";
    };
    return plan;
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
  for (const NameWrite &write : kNameWrites) {
    failEveryWriteAndSync(writePlan(write, {DB_STATUS_FAILURE}), write.what);
  }
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
    for (const char *mac : kTransactionMacs) names += (names.empty() ? "" : ",") + nameOf(db, mac);
    return names;
  };
  transaction.outcomes = {"Old name,<none>,<none>", "New name,Second,Third"};
  transaction.committed = "New name,Second,Third";
  failEveryWriteAndSync(transaction, "transaction");
}

}  // namespace
