// Deletes and drops through the write queue: keys in any case, cascades, drops, replays.
#include <string>

#include "support/api_cases.h"

namespace {

using adbtest::Values;

class Delete : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    createInventoryTables();
  }
  // The keys of `table` in order, comma-separated; "" for none.
  std::string keys(const std::string &table) {
    const std::string key = table == "DEVICETHRESHOLD" ? "DEVICECLASS_S" : "MAC_S";
    return raw().scalar("SELECT group_concat(k) FROM (SELECT " + key + " AS k FROM " + table +
                        " ORDER BY 1)").value_or("");
  }
};

}  // namespace

TEST_F(Delete, RemovesRowsByKeyInAnyCaseOrAllRows) {
  raw().exec("INSERT INTO DEVICEINFO(MAC_S) VALUES('aa:01'),('aa:02'),('aa:03');"
             "INSERT INTO MESHTOPO(MAC_S) VALUES('m1'),('m2');"
             "INSERT INTO DEVICETHRESHOLD(DEVICECLASS_S) VALUES('Phone'),('TV');");
  EXPECT_EQ(db_deleteMacDeviceInfo("AA:01"), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_deleteMacMeshTopo("M2"), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_deleteMacDeviceThreshold("phone"), DB_STATUS_SUCCESS);
  EXPECT_EQ(keys("DEVICEINFO") + "|" + keys("MESHTOPO") + "|" + keys("DEVICETHRESHOLD"),
            "aa:02,aa:03|m1|TV");

  // A missing key is refused rather than read as "every row".
  EXPECT_EQ(db_deleteMacDeviceInfo(nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Delete: key MAC_S of DEVICEINFO is NULL\n"));
  EXPECT_EQ(keys("DEVICEINFO"), "aa:02,aa:03");

  EXPECT_EQ(db_deleteDeviceInfoTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_deleteMeshTopoTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(keys("DEVICEINFO") + keys("MESHTOPO"), "");
}

TEST_F(Delete, SeriesRemovalCascadesAndKeepsTheWan) {
  createSeriesTables();
  raw().exec("INSERT INTO PRIMITIVE_RSSI(MAC_S) VALUES('dev1'),('dev2');"
             "INSERT INTO RSSI1(MAC_S, SLOT1) VALUES('dev1', 7),('dev2', 8);"
             "INSERT INTO RSSI7(MAC_S, SLOT2016) VALUES('dev1', 9);");
  EXPECT_EQ(db_deleteMacRssi("DEV1"), DB_STATUS_SUCCESS);
  EXPECT_EQ(keys("PRIMITIVE_RSSI") + "|" + keys("RSSI1") + "|" + keys("RSSI7"), "dev2|dev2|");
  // The index row and the seven day rows: eight gated statements, even for a device with none.
  log().clear();
  EXPECT_EQ(db_deleteMacRssi("nobody"), DB_STATUS_SUCCESS);
  EXPECT_EQ(log().countContaining("Delete table content of"), 8u);
  EXPECT_EQ(log().countContaining("Queue: Status -1 Func 38"), 7u);

  raw().exec("INSERT INTO PRIMITIVE_BANDWIDTHRX(MAC_S, SOURCE_S) VALUES"
             "('wan0','wan'),('lan1','LAN'),('lan2',NULL);"
             "INSERT INTO BANDWIDTHRX3(MAC_S, SLOT600) VALUES('wan0',1),('lan1',2);");
  EXPECT_EQ(db_deleteNonWanBandwidthRxInfo(), DB_STATUS_SUCCESS);
  // NULL NOT LIKE 'WAN' is not true, so a device without a source stays.
  EXPECT_EQ(keys("PRIMITIVE_BANDWIDTHRX") + "|" + keys("BANDWIDTHRX3"), "lan2,wan0|wan0");

  // Without enforcement an index row goes alone, until db_setForeignKey switches it back on.
  for (const auto &[on, left] : {std::pair{false, "dev3"}, {true, ""}}) {
    raw().exec("DELETE FROM RSSI2; INSERT INTO PRIMITIVE_RSSI(MAC_S) VALUES('dev3');"
               "INSERT INTO RSSI2(MAC_S) VALUES('dev3');");
    ASSERT_EQ(on ? db_setForeignKey() : db_write("PRAGMA foreign_keys = OFF"), DB_STATUS_SUCCESS);
    EXPECT_EQ(db_deletePrimitiveRssi("dev3"), DB_STATUS_SUCCESS);
    EXPECT_EQ(keys("RSSI2"), left);
  }

  // A day delete names its day table.
  raw().exec("INSERT INTO PRIMITIVE_BANDWIDTHTX(MAC_S) VALUES('tx1');"
             "INSERT INTO BANDWIDTHTX4(MAC_S) VALUES('tx1');");
  EXPECT_EQ(db_deleteDayBandWidthTx("TX1", 4), DB_STATUS_SUCCESS);
  EXPECT_EQ(keys("BANDWIDTHTX4") + "|" + keys("PRIMITIVE_BANDWIDTHTX"), "|tx1");

  // A whole-series delete on the receive side reports the failing day table.
  EXPECT_EQ(db_dropBandwidthRxTable(5), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_deleteMacBandWidthRx("wan0"), DB_STATUS_NO_TABLE);
  EXPECT_EQ(keys("PRIMITIVE_BANDWIDTHRX"), "lan2");
}

TEST_F(Delete, WaitsBehindAQueuedWriteOfTheSameKeyAndReplaysInOrder) {
  Values device{"aa:bb", "5"};
  EXPECT_EQ(whileBusy([&] { return db_updateDeviceInfoCapacity(device.data()); }), DB_STATUS_BUSY);
  // Same key: queued behind the write; another key goes straight to the file. (The queue
  // compares keys as given, letter case included.)
  EXPECT_EQ(db_deleteMacDeviceInfo("aa:bb"), DB_STATUS_BUSY);
  EXPECT_EQ(queueCount, 2);
  raw().exec("INSERT INTO DEVICEINFO(MAC_S) VALUES('cc:dd')");
  EXPECT_EQ(db_deleteMacDeviceInfo("cc:dd"), DB_STATUS_SUCCESS);
  EXPECT_EQ(keys("DEVICEINFO"), "");

  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(queueCount, 0);
  EXPECT_EQ(keys("DEVICEINFO"), "");  // written, then deleted: the order held
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Get Node [1] func[35] Table[DEVICEINFO]\n"), 1u) << log().dump();

  // A busy delete parks itself and is carried out by the replay.
  // Each replays under its own function id: a wrong one drops the node and keeps the rows.
  raw().exec(
      "INSERT INTO DEVICEINFO(MAC_S) VALUES('ee'),('ff'); INSERT INTO MESHTOPO(MAC_S) VALUES('m3');"
      "INSERT INTO DEVICETHRESHOLD(DEVICECLASS_S) VALUES('Hub'),('TV');");
  {
    adbtest::BusyHolder holder(dbPath());
    EXPECT_EQ(db_deleteMacDeviceInfo("ee"), DB_STATUS_BUSY);
    EXPECT_EQ(db_dropRssiTable(2), DB_STATUS_BUSY);
    EXPECT_EQ(db_deleteMacDeviceThreshold("hub"), DB_STATUS_BUSY);
    EXPECT_EQ(db_deleteDeviceInfoTable(), DB_STATUS_BUSY);
    EXPECT_EQ(db_deleteMeshTopoTable(), DB_STATUS_BUSY);
  }
  EXPECT_EQ(queueCount, 5);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(queueCount, 0);
  EXPECT_EQ(keys("DEVICEINFO") + keys("MESHTOPO") + "|" + keys("DEVICETHRESHOLD"), "|TV");
}

TEST_F(Delete, DropsAlsoOfMissingTablesAndTheirReplaysWithTheirHistoricNames) {
  createSeriesTables();
  EXPECT_EQ(db_dropRssiTable(3), DB_STATUS_SUCCESS);
  EXPECT_FALSE(raw().tableExists("RSSI3"));
  EXPECT_EQ(db_dropRssiTable(3), DB_STATUS_SUCCESS);  // already gone: still a success
  EXPECT_EQ(db_dropPrimitiveBandwidthRxTable(), DB_STATUS_SUCCESS);
  EXPECT_FALSE(raw().tableExists("PRIMITIVE_BANDWIDTHRX"));
  EXPECT_EQ(db_dropMeshTopoTable(), DB_STATUS_SUCCESS);
  EXPECT_FALSE(raw().tableExists("MESHTOPO"));

  // The capital-W replay drops MESHTOPO; the small-w one the receive index table.
  ASSERT_EQ(db_createMeshTopoTable(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(288), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_dropQueuePrimitiveBandWidthRxTable(), DB_STATUS_SUCCESS);
  EXPECT_FALSE(raw().tableExists("MESHTOPO"));
  EXPECT_TRUE(raw().tableExists("PRIMITIVE_BANDWIDTHRX"));
  EXPECT_EQ(db_dropQueuePrimitiveBandwidthRxTable(), DB_STATUS_SUCCESS);
  EXPECT_FALSE(raw().tableExists("PRIMITIVE_BANDWIDTHRX"));

  // A queued day drop without its day is removed without dropping anything.
  ASSERT_EQ(db_manageQueue(DB_STATUS_BUSY, 33, Values{nullptr, nullptr}.data(), 2, "RSSI"), 0);
  ASSERT_EQ(queueCount, 1);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(queueCount, 0);
  for (int day : {1, 2, 4, 5, 6, 7}) EXPECT_TRUE(raw().tableExists("RSSI" + std::to_string(day)));
}
