// fault_io_vfs.cpp - writes with the N-th file write or the N-th file sync failing.
//
// The shim VFS (support/fault_common.h), made the default while a test runs, wraps the default
// one, so the library's own connection reaches the database, its journal and any temporary file
// through it. Each run must end in a failure status with an error line, the library must go on
// writing on the same connection, and the file must hold the old rows or the new ones, never a mix.
#include <string>

#include "support/fault_common.h"

namespace {

adbtest::FaultCounter gWrites, gSyncs;

constexpr const char *kOtherMac = "66:55:44:33:22:11";
// The first is the test device, whose row the fixture sets up.
constexpr const char *kTransactionMacs[] = {"11:22:33:44:55:66", "22:22:33:44:55:66",
                                            "33:22:33:44:55:66"};
// Their names in that order (the other device's row left out).
constexpr const char *kTransactionNames = "SELECT group_concat(FRIENDLYNAME_S, ',') FROM (SELECT "
    "FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S LIKE '%:22:33:44:55:66' ORDER BY MAC_S)";

class IoFaultTest : public adbtest::FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    ASSERT_TRUE(adbtest::installShimVfs({.writes = &gWrites, .syncs = &gSyncs}));
    // The library's connection reopens through the shim.
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  }

  // Fails every write, then every sync, of the operation in turn: each run fails (so failEach
  // sees that it logged an error line). The library goes on writing on the same connection,
  // each write committed at once.
  void failEveryWriteAndSync(adbtest::FaultPlan plan, const std::string &name) {
    plan.allowed = {DB_STATUS_FAILURE};
    plan.settle = [this] {
      raw().exec(std::string("DELETE FROM DEVICEINFO WHERE MAC_S = '") + kOtherMac + "'");
      EXPECT_EQ(writeName("After", kOtherMac), DB_STATUS_SUCCESS) << "it fails on after a fault";
      EXPECT_EQ(adbtest::nameOf(raw(), kOtherMac), "After") << "a later write is not committed";
    };
    failEach(gWrites, plan, name + " writes");
    failEach(gSyncs, plan, name + " syncs");
  }
};

TEST_F(IoFaultTest, ATransactionThatSqliteRolledBackRefusesWritesUntilItsCommit) {
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  gWrites.arm(1);  // the first write of the transaction (its journal) fails
  EXPECT_EQ(writeName("First", kTransactionMacs[0]), DB_STATUS_FAILURE);
  gWrites.disarm();
  // Without a transaction any more, this write would be committed on its own.
  EXPECT_EQ(writeName("Second", kTransactionMacs[1]), DB_STATUS_FAILURE);
  const char *refused = "[analyticsDB] WRITE refused: the transaction was rolled back by an "
                        "earlier error, COMMIT ends it \n Query : INSERT INTO";
  EXPECT_EQ(log().countContaining(refused), 1u) << log().dump();
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // the caller learns of the loss
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEVICEINFO"), adbtest::Cell("0"));

  // The commit ended it: single writes and whole transactions work again.
  EXPECT_EQ(writeName("Third", kTransactionMacs[2]), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(writeName("First", kTransactionMacs[0]), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar(kTransactionNames), adbtest::Cell("First,Third"));

  // Closing the connection ends a transaction too: nothing is refused after a reopen.
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  EXPECT_EQ(writeName("Second", kTransactionMacs[1]), DB_STATUS_SUCCESS);
}

TEST_F(IoFaultTest, SamplesInventoryWritesAndTransactionsFailWholeAndLeaveOldOrNewRows) {
  // Only the tables the sample touches: every check opens and checks the whole file.
  ASSERT_EQ(db_createPrimitiveRssiTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createRssiTab(1, 288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createRssiTab(2, 288), DB_STATUS_SUCCESS);
  // The device's latest sample is slot 288 (day 1); the new one opens day 2. A sample is two
  // statements, the index row and then the slot, so each of the two rows is judged on its own.
  failEveryWriteAndSync(
      {.prepare = execs("DELETE FROM RSSI1; DELETE FROM RSSI2; DELETE FROM PRIMITIVE_RSSI; "
                        "INSERT INTO PRIMITIVE_RSSI (MAC_S, TIMESTAMP, SLT_IND) VALUES "
                        "('11:22:33:44:55:66', 1000, 288); INSERT INTO RSSI1 (MAC_S, SLOT288) "
                        "VALUES ('11:22:33:44:55:66', 40)"),
       .operation = [] { return db_updateRssi(adbtest::Values{kMac, "1300", "289", "55"}.data()); },
       .outcomes = {"1000/288 40 <none>", "1300/289 40 <none>", "1000/288 40 55", "1300/289 40 55"},
       .committed = "1300/289 40 55",
       .observe = adbtest::stateOf(
           "SELECT (SELECT TIMESTAMP || '/' || SLT_IND FROM PRIMITIVE_RSSI) || ' ' || "
           "(SELECT SLOT288 FROM RSSI1) || ' ' || ifnull((SELECT SLOT289 FROM RSSI2), '<none>')")},
      "sample");
  for (const NameWrite &write : kNameWrites)
    failEveryWriteAndSync(writePlan(write, {}), write.what);
  // An update and two inserts between BEGIN and COMMIT; every step runs, as a caller that
  // checks the statuses only at the end would run them.
  auto transaction = [] {
    int32_t status = db_beginTransaction();
    const char *names[] = {"New name", "Second", "Third"};
    for (size_t i = 0; i < 3; ++i) {
      const int32_t step = writeName(names[i], kTransactionMacs[i]);
      if (status == DB_STATUS_SUCCESS) status = step;
    }
    const int32_t commit = db_commitTransaction();
    return status != DB_STATUS_SUCCESS ? status : commit;
  };
  const char *committed = "New name,Second,Third";
  failEveryWriteAndSync({.prepare = [&] { resetRow("Old name"); }, .operation = transaction,
                         .outcomes = {"Old name", committed}, .committed = committed,
                         .observe = adbtest::stateOf(kTransactionNames)}, "transaction");
}

}  // namespace
