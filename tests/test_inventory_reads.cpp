// The inventory reads: the statement each composes, the records it returns, and its statuses.
#include <cstring>
#include <string>
#include <string_view>

#include "support/db_fixture.h"

namespace {

class InventoryReads : public adbtest::DbTest {
 protected:
  // The statement of the latest read, as the access core logs it.
  std::string lastQuery() {
    constexpr std::string_view kRead = "[analyticsDB] READ QUERY : ";
    std::string query;
    for (const adbtest::LogLine &line : log().lines()) {
      std::string_view message = line.message();
      if (message.starts_with(kRead)) query = message.substr(kRead.size());
    }
    if (!query.empty() && query.back() == '\n') query.pop_back();
    return query;
  }

  // A list read that must succeed with `expectedRows` rows after composing `query`; `check`
  // looks at the records before they are freed.
  template <typename Record, typename Read, typename Check>
  void expectRows(Read read, void (*free)(Record ***, int32_t), const std::string &query,
                  int32_t expectedRows, Check check) {
    Record **list = nullptr;
    int32_t rows = 0;
    ASSERT_EQ(read(&list, &rows), 0);
    EXPECT_EQ(lastQuery(), query);
    ASSERT_EQ(rows, expectedRows);
    check(list);
    free(&list, rows);
  }
};

// A list read into a variable that holds a sentinel: the sentinel must survive a failure.
template <typename Record, typename Read>
int32_t readKeepingList(Read read) {
  Record *sentinel[1] = {nullptr};
  Record **list = sentinel;
  int32_t rows = -1;
  int32_t status = read(&list, &rows);
  EXPECT_EQ(list, sentinel);
  return status;
}

}  // namespace

TEST_F(InventoryReads, WholeTableReadsReturnEveryRow) {
  createInventoryTables();
  raw().exec(
      "INSERT INTO MESHTOPO VALUES ('00:11:22:33:44:55', 'gw', '', '10.0.0.1', 'Master', "
      "'Router', 'Eth', 'Online', 'Good'), ('00:11:22:33:44:66', 'sat', 'gw', '10.0.0.2', "
      "'Sat', 'Bridge', 'WiFi', 'Online', 'Poor');"
      "INSERT INTO CLIENTS (MAC_S, CAP_24GHZ, MIMO_S) VALUES ('c0:ff:ee:00:00:01', 1, '2x2');"
      "INSERT INTO SUBSCRIBERINFO VALUES ('SN1', 500);"
      "INSERT INTO DEVICETHRESHOLD (DEVICECLASS_S, RSSIGOODSTART, VERSION) "
      "VALUES ('Camera', -40, 1.5);"
      "INSERT INTO DEVICEINFO (MAC_S, TXRATE, DEVTIMESTAMP, CATEGORY_S) "
      "VALUES ('aa:bb:cc:dd:ee:01', 12.75, 1700000000, 'Phone');");

  expectRows(db_readMeshTopoTable, db_freeMeshTopoResult, "SELECT  *  FROM  MESHTOPO", 2,
             [](MeshTopoRecord **mesh) { EXPECT_STREQ(mesh[1]->healthStatus, "Poor"); });
  expectRows(db_readClientsTable, db_freeClientsResult, "SELECT  *  FROM  CLIENTS", 1,
             [](ClientCapabilityRecord **clients) { EXPECT_STREQ(clients[0]->mimo, "2x2"); });
  expectRows(db_readSubscriberInfoTable, db_freeSubscriberInfoResult,
             "SELECT  *  FROM  SUBSCRIBERINFO", 1, [](SubscriberInfoRecord **subscribers) {
               EXPECT_EQ(subscribers[0]->downstreamBandwidth, 500);
             });
  expectRows(db_readDeviceThresholdTable, db_freeDeviceThresholdResult,
             "SELECT  *  FROM  DEVICETHRESHOLD", 1,
             [](DeviceThresholdRecord **thresholds) {
               EXPECT_FLOAT_EQ(thresholds[0]->version, 1.5f);
             });
  expectRows(db_readDeviceInfoTable, db_freeDeviceInfoResult, "SELECT  *  FROM  DEVICEINFO", 1,
             [](DeviceInfoRecord **devices) {
               EXPECT_EQ(devices[0]->devTimestamp, 1700000000u);  // read as "1700000000.0"
               EXPECT_STREQ(devices[0]->preferredBand, "NA");     // the column default, stored
             });

  // An existing but empty table: nothing to convert.
  raw().exec("DELETE FROM MESHTOPO");
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(db_readMeshTopoTable), 2);
  EXPECT_EQ(log().count(RYX_LOG_ERROR,
                        "[analyticsDB] Meshtopo result array NULL / rowcount 0 columcount 0\n"),
            1u)
      << log().dump();
}

TEST_F(InventoryReads, KeyedReadsMatchTheKeyWithoutRegardToCase) {
  createInventoryTables();
  raw().exec(
      "INSERT INTO CLIENTS (MAC_S, CAP_5GHZ) VALUES ('c0:ff:ee:00:00:01', 1), "
      "('c0:ff:ee:00:00:02', 0);"
      "INSERT INTO DEVICETHRESHOLD (DEVICECLASS_S, STREAMINGTHRESHOLD) VALUES ('Camera', 7), "
      "('Phone', 8), ('Kid''s tablet', 9);"
      "INSERT INTO DEVICEINFO (MAC_S, IS_BRIDGED) VALUES ('aa:bb:cc:dd:ee:01', 0), "
      "('aa:bb:cc:dd:ee:02', 1);");

  expectRows([](auto list, auto rows) { return db_readMacClients("C0:FF:EE:00:00:01", list, rows); },
             db_freeClientsResult, "SELECT  *  FROM  CLIENTS WHERE MAC_S LIKE 'C0:FF:EE:00:00:01'",
             1, [](ClientCapabilityRecord **clients) {
               EXPECT_STREQ(clients[0]->mac, "c0:ff:ee:00:00:01");
             });
  EXPECT_EQ(readKeepingList<ClientCapabilityRecord>([](auto list, auto count) {
              return db_readMacClients("c0:ff:ee:00:00:09", list, count);
            }),
            2);

  expectRows(
      [](auto list, auto rows) {
        return db_readDeviceClassDeviceThreshold("kid's TABLET", list, rows);
      },
      db_freeDeviceThresholdResult,
      "SELECT  *  FROM  DEVICETHRESHOLD WHERE DEVICECLASS_S LIKE 'kid''s TABLET'", 1,
      [](DeviceThresholdRecord **thresholds) { EXPECT_EQ(thresholds[0]->streamingThreshold, 9); });

  // Bridged filter 0 leaves bridged devices out; any other value does not.
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>([](auto list, auto count) {
              return db_readMacDeviceInfo("aa:bb:cc:dd:ee:02", list, count, 0);
            }),
            2);
  EXPECT_EQ(lastQuery(),
            "SELECT  *  FROM  DEVICEINFO WHERE MAC_S LIKE 'aa:bb:cc:dd:ee:02' AND "
            "IS_BRIDGED LIKE 0");
  expectRows(
      [](auto list, auto rows) { return db_readMacDeviceInfo("aa:bb:cc:dd:ee:02", list, rows, 1); },
      db_freeDeviceInfoResult, "SELECT  *  FROM  DEVICEINFO WHERE MAC_S LIKE 'aa:bb:cc:dd:ee:02'",
      1, [](DeviceInfoRecord **devices) { EXPECT_EQ(devices[0]->isBridged, 1); });
  expectRows(
      [](auto list, auto rows) { return db_readMacDeviceInfo("AA:BB:CC:DD:EE:01", list, rows, 0); },
      db_freeDeviceInfoResult,
      "SELECT  *  FROM  DEVICEINFO WHERE MAC_S LIKE 'AA:BB:CC:DD:EE:01' AND IS_BRIDGED LIKE 0", 1,
      [](DeviceInfoRecord **devices) { EXPECT_STREQ(devices[0]->mac, "aa:bb:cc:dd:ee:01"); });

  // A missing key is refused before anything runs.
  log().clear();
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>([](auto list, auto count) {
              return db_readMacDeviceInfo(nullptr, list, count, 0);
            }),
            1);
  EXPECT_EQ(lastQuery(), "");
}

TEST_F(InventoryReads, SubsetReadsFillOnlyTheSelectedFields) {
  createInventoryTables();
  raw().exec(
      "INSERT INTO DEVICEINFO (MAC_S, TXCNT, RXCNT, INTF_NAME_S, BEACONSTATE, CAPACITY, "
      "DEVTIMESTAMP, ACTIVE, HOST_S) VALUES "
      "('aa:00', 5000000000, NULL, 'wl0', 2, 10, 1700000000.75, 1, 'one'), "
      "('aa:01', NULL, 7, 'eth0', 0, 20, 5000000000, 0, 'two'), "
      "('aa:02', NULL, NULL, 'wl1', NULL, 30, NULL, NULL, 'three');");

  // Every other field of a subset record stays zero.
  expectRows(db_readDeviceInfoTxRxCount, db_freeDeviceInfoResult,
             "SELECT MAC_S,TXCNT,RXCNT,INTF_NAME_S,BEACONSTATE FROM  DEVICEINFO WHERE TXCNT is "
             "not null OR RXCNT is not null",
             2, [](DeviceInfoRecord **devices) {
               DeviceInfoRecord expected{};
               std::memcpy(expected.mac, "aa:00", 6);
               expected.txCnt = 5000000000ull;
               std::memcpy(expected.intfName, "wl0", 4);
               expected.beaconState = 2;
               EXPECT_EQ(std::memcmp(devices[0], &expected, sizeof expected), 0);
               EXPECT_EQ(devices[1]->rxCnt, 7u);
             });
  expectRows(db_readDeviceInfoCapacity, db_freeDeviceInfoResult,
             "SELECT MAC_S,CAPACITY FROM  DEVICEINFO", 3, [](DeviceInfoRecord **devices) {
               DeviceInfoRecord expected{};
               std::memcpy(expected.mac, "aa:02", 6);
               expected.capacity = 30;
               EXPECT_EQ(std::memcmp(devices[2], &expected, sizeof expected), 0);
             });
  expectRows(db_readDeviceInfoTimestamp, db_freeDpClientHandleResult,
             "SELECT MAC_S,DEVTIMESTAMP,ACTIVE,INTF_NAME_S FROM  DEVICEINFO", 3,
             [](DeviceTimestampRecord **stamps) {
               EXPECT_EQ(stamps[0]->devTimestamp, 1700000000u);
               EXPECT_STREQ(stamps[0]->intfName, "wl0");
               EXPECT_EQ(stamps[1]->devTimestamp, 4294967295u);
             });
  // Only devices whose beacon state is above 0; NULL is not.
  expectRows(db_readExtInfo, db_freeDeviceInfoResult,
             "SELECT  *  FROM  DEVICEINFO WHERE BEACONSTATE>0", 1,
             [](DeviceInfoRecord **devices) { EXPECT_STREQ(devices[0]->host, "one"); });
}

TEST_F(InventoryReads, SingleValueReadsCopyTheFirstRowsValue) {
  createInventoryTables();
  const std::string category40(40, 'c');
  raw().exec(
      "INSERT INTO CMAINFO VALUES ('DEVICEINFO', 1000.75), ('MESHTOPO', NULL);"
      "INSERT INTO DEVICEINFO (MAC_S, CATEGORY_S, DEVCRITICAL) VALUES ('aa:00', '" +
      category40 + "', 3), ('aa:01', 'Phone', NULL);");

  uint32_t timestamp = 77;
  ASSERT_EQ(db_readCmaInfoTimeStamp("deviceinfo", &timestamp), 0);
  EXPECT_EQ(lastQuery(), "SELECT TIMESTAMP FROM  CMAINFO WHERE TABLENAME_S LIKE 'deviceinfo'");
  EXPECT_EQ(timestamp, 1000u);
  // No row, or a NULL time stamp: the caller's value stays and the status is 0.
  timestamp = 77;
  EXPECT_EQ(db_readCmaInfoTimeStamp("CLIENTS", &timestamp), 0);
  EXPECT_EQ(db_readCmaInfoTimeStamp("MESHTOPO", &timestamp), 0);
  EXPECT_EQ(timestamp, 77u);

  char category[64];
  std::memset(category, 'x', sizeof category);
  ASSERT_EQ(db_readDeviceInfoCategory("AA:00", category), 0);
  EXPECT_EQ(lastQuery(), "SELECT CATEGORY_S FROM  DEVICEINFO WHERE MAC_S LIKE 'AA:00'");
  EXPECT_EQ(std::string(category), std::string(31, 'c'));
  EXPECT_EQ(category[32], 'x');  // 31 characters and the terminator, nothing more

  int32_t critical = -5;
  ASSERT_EQ(db_readDeviceInfoCritical("aa:00", &critical), 0);
  EXPECT_EQ(lastQuery(), "SELECT DEVCRITICAL FROM  DEVICEINFO WHERE MAC_S LIKE 'aa:00'");
  EXPECT_EQ(critical, 3);
  ASSERT_EQ(db_readDeviceInfoCritical("aa:01", &critical), 0);
  EXPECT_EQ(critical, 0);  // NULL reads as 0

  // No matching row: 2, the output untouched, and the free function's line about the list.
  log().clear();
  critical = -5;
  std::memcpy(category, "keep", 5);
  EXPECT_EQ(db_readDeviceInfoCritical("aa:09", &critical), 2);
  EXPECT_EQ(db_readDeviceInfoCategory("aa:09", category), 2);
  EXPECT_EQ(critical, -5);
  EXPECT_STREQ(category, "keep");
  EXPECT_EQ(log().count(RYX_LOG_ERROR, "[analyticsDB] DeviceInfo struct is already NULL\n"), 2u);

  // The companions on their own ignore what they cannot use.
  db_getCmaTimeStamp(nullptr, &timestamp);
  getDevCategory(nullptr, category);
  getDevCritical(nullptr, &critical);
  EXPECT_EQ(timestamp, 77u);
  EXPECT_EQ(critical, -5);
  EXPECT_EQ(db_readCmaInfoTimeStamp("DEVICEINFO", nullptr), 1);
}

TEST_F(InventoryReads, FailedReadsReturnTheirStatusAndLeaveTheListAlone) {
  // No tables at all: every read reports the missing table.
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(db_readMeshTopoTable), 5);
  EXPECT_EQ(readKeepingList<ClientCapabilityRecord>(db_readClientsTable), 5);
  EXPECT_EQ(readKeepingList<DeviceThresholdRecord>(db_readDeviceThresholdTable), 5);
  EXPECT_EQ(readKeepingList<SubscriberInfoRecord>(db_readSubscriberInfoTable), 5);
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>(
                [](auto list, auto rows) { return db_readMacDeviceInfo("aa", list, rows, 0); }),
            5);
  EXPECT_EQ(readKeepingList<DeviceTimestampRecord>(db_readDeviceInfoTimestamp), 5);
  uint32_t timestamp = 9;
  int32_t critical = 9;
  char category[32] = "keep";
  EXPECT_EQ(db_readCmaInfoTimeStamp("DEVICEINFO", &timestamp), 5);
  EXPECT_EQ(db_readDeviceInfoCritical("aa", &critical), 5);
  EXPECT_EQ(db_readDeviceInfoCategory("aa", category), 5);
  EXPECT_EQ(timestamp, 9u);
  EXPECT_EQ(critical, 9);
  EXPECT_STREQ(category, "keep");

  // A database held by another process: busy, at once, and nothing to free.
  createInventoryTables();
  raw().exec("INSERT INTO MESHTOPO (MAC_S) VALUES ('aa')");
  MeshTopoRecord **mesh = nullptr;
  int32_t rows = 0;
  ASSERT_EQ(db_readMeshTopoTable(&mesh, &rows), 0);  // the connection now knows the new tables
  db_freeMeshTopoResult(&mesh, rows);
  adbtest::BusyHolder holder(dbPath());
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(db_readMeshTopoTable), 3);

  // Output arguments that are not there.
  EXPECT_EQ(db_readMeshTopoTable(nullptr, &rows), 1);
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(
                [](auto list, auto) { return db_readMeshTopoTable(list, nullptr); }),
            1);
}
