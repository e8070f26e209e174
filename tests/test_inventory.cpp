// The inventory: the sixteen writers through the write queue's gate, and the reads with the
// statement each composes, the records it returns, and its statuses.
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "support/api_cases.h"
#include "support/inventory_writers.h"

namespace {

using adbtest::Cell;
using adbtest::readKeepingList;
using adbtest::Rows;
using adbtest::Values;
using namespace std::placeholders;

// Values for `columns`: the key first, then a text per text column and a number per other one.
std::vector<std::string> sampleValues(const std::vector<std::string> &columns,
                                      const std::string &key, int seed) {
  std::vector<std::string> values{key};
  for (size_t i = 1; i < columns.size(); ++i)
    values.push_back((columns[i].ends_with("_S") ? "t" : "") + std::to_string(seed * 100 + i));
  return values;
}

class Inventory : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    createInventoryTables();
  }

  // Number of rows of `table` whose columns hold exactly these values (the key without case).
  std::string rowsHolding(const std::string &table, const std::vector<std::string> &columns,
                          const std::vector<std::string> &values) {
    std::string sql = "SELECT count(*) FROM " + table + " WHERE ";
    for (size_t i = 0; i < columns.size(); ++i) sql += (i > 0 ? " AND " : "") + columns[i] + " = ?";
    return raw().query(sql, values).at(0).at(0).value_or("?");
  }

  // The statement of the latest read, as the access core logs it.
  std::string lastQuery() {
    constexpr std::string_view kRead = "[analyticsDB] READ QUERY : ";
    std::string query;
    for (const adbtest::LogLine &line : log().lines())
      if (line.message().starts_with(kRead)) query = line.message().substr(kRead.size());
    if (query.ends_with('\n')) query.pop_back();
    return query;
  }

  // The records of a list read that must succeed after composing `query` and find `count` rows;
  // always `count` records, zeroed past those found, so that a caller can index them.
  template <typename Record, typename Read>
  std::vector<Record> read(size_t count, Read call, void (*free)(Record ***, int32_t),
                           const std::string &query) {
    Record **list = nullptr;
    int32_t rows = 0;
    EXPECT_EQ(call(&list, &rows), 0);
    EXPECT_EQ(lastQuery(), query);
    EXPECT_EQ(static_cast<size_t>(rows), count) << query;
    std::vector<Record> records;
    for (int32_t r = 0; r < rows; ++r) records.push_back(*list[r]);
    free(&list, rows);
    records.resize(count);
    return records;
  }
};

// What every whole-table read, and the keyed reads that take every column, start with.
const std::string kAll = "SELECT  *  FROM  ";

}  // namespace

TEST_F(Inventory, EachWriterWritesItsColumnsAndQueuesUnderItsFunctionId) {
  for (const adbtest::InventoryWriter &listed : adbtest::inventoryWriters()) {
    SCOPED_TRACE(listed.api);
    const adbtest::InventoryWriter writer = adbtest::withColumns(listed, raw());
    const std::vector<std::string> &columns = writer.columns;
    const std::string id = std::to_string(writer.functionId);

    std::vector<std::string> first = sampleValues(columns, "key-" + id, 1);
    EXPECT_EQ(writer.write(Values(first).data()), DB_STATUS_SUCCESS);
    EXPECT_EQ(rowsHolding(writer.table, columns, first), "1");

    // Busy: parked with the writer's id, count and family; the replay updates the same row,
    // found by its key in another letter case.
    std::vector<std::string> second = sampleValues(columns, "KEY-" + id, 2);
    EXPECT_EQ(whileBusy([&] { return writer.write(Values(second).data()); }), DB_STATUS_BUSY);
    WriteRequestNode *head = adbtest::queueHead();
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(std::tuple(head->functionId, head->fieldCount, std::string(head->tableName)),
              std::tuple(writer.functionId, static_cast<int32_t>(columns.size()), writer.table));
    EXPECT_EQ(adbtest::nodeValues(*head), std::vector<Cell>(second.begin(), second.end()));

    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
    EXPECT_EQ(rowsHolding(writer.table, columns, second), "1");
    EXPECT_EQ(rowsHolding(writer.table, {columns[0]}, {"key-" + id}), "1");
  }

  // Refused writes are not queued, even while a request of their family waits.
  Values row{"aa", "1"};
  EXPECT_EQ(whileBusy([&] { return db_updateDeviceInfoCapacity(row.data()); }), DB_STATUS_BUSY);
  EXPECT_EQ(db_updateDeviceInfoCapacity(nullptr), DB_STATUS_FAILURE);
  raw().exec("DROP TABLE SUBSCRIBERINFO");
  EXPECT_EQ(db_updateSubscriberInfoTable(Values{"SN1", "5"}.data()), DB_STATUS_NO_TABLE);
  EXPECT_EQ(adbtest::queueLength(), 1);
}

TEST_F(Inventory, WholeTableKeyedAndSubsetReadsReturnTheirRows) {
  raw().exec(
      "INSERT INTO MESHTOPO (MAC_S) VALUES ('00:11:22:33:44:55'), ('00:11:22:33:44:66');"
      "INSERT INTO CLIENTS (MAC_S) VALUES ('c0:ff:ee:00:00:01'), ('c0:ff:ee:00:00:02');"
      "INSERT INTO SUBSCRIBERINFO VALUES ('SN1', 500);"
      "INSERT INTO DEVICETHRESHOLD (DEVICECLASS_S) VALUES ('Camera'), ('Kid''s tv');"
      "INSERT INTO DEVICEINFO (MAC_S, TXCNT, RXCNT, INTF_NAME_S, BEACONSTATE, IS_BRIDGED) VALUES "
      "('d0', 5000000000, NULL, 'wl0', 2, 0), ('d1', NULL, 7, 'eth0', 0, 1), "
      "('d2', NULL, NULL, 'wl1', NULL, 0);");

  // Whole-table reads: the statement and every row. (What each record holds: ResultApi.)
  read(2, db_readMeshTopoTable, db_freeMeshTopoResult, kAll + "MESHTOPO");
  read(2, db_readClientsTable, db_freeClientsResult, kAll + "CLIENTS");
  read(1, db_readSubscriberInfoTable, db_freeSubscriberInfoResult, kAll + "SUBSCRIBERINFO");
  read(2, db_readDeviceThresholdTable, db_freeDeviceThresholdResult, kAll + "DEVICETHRESHOLD");
  auto devices = read(3, db_readDeviceInfoTable, db_freeDeviceInfoResult, kAll + "DEVICEINFO");
  EXPECT_STREQ(devices[0].preferredBand, "NA");  // the column default, stored
  // Keyed reads match the key without regard to case.
  read(1, std::bind_front(db_readMacClients, "C0:FF:EE:00:00:01"), db_freeClientsResult,
       kAll + "CLIENTS WHERE MAC_S LIKE 'C0:FF:EE:00:00:01'");
  read(1, std::bind_front(db_readDeviceClassDeviceThreshold, "kid's TV"),
       db_freeDeviceThresholdResult, kAll + "DEVICETHRESHOLD WHERE DEVICECLASS_S LIKE 'kid''s TV'");
  // Bridged filter 0 leaves bridged devices out; any other value does not.
  auto deviceRead = [](const char *mac, int32_t bridged) {
    return std::bind(db_readMacDeviceInfo, mac, _1, _2, bridged);
  };
  read(1, deviceRead("d1", 1), db_freeDeviceInfoResult, kAll + "DEVICEINFO WHERE MAC_S LIKE 'd1'");
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>(deviceRead("d1", 0)), 2);
  read(1, deviceRead("D0", 0), db_freeDeviceInfoResult,
       kAll + "DEVICEINFO WHERE MAC_S LIKE 'D0' AND IS_BRIDGED LIKE 0");
  EXPECT_EQ(readKeepingList<ClientCapabilityRecord>(std::bind_front(db_readMacClients, "c0")), 2);
  // A missing key is refused before anything runs.
  log().clear();
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>(deviceRead(nullptr, 0)), 1);
  EXPECT_EQ(lastQuery(), "");

  // Subset reads fill only the selected fields: every other field of a record stays zero.
  devices = read(2, db_readDeviceInfoTxRxCount, db_freeDeviceInfoResult,
                 "SELECT MAC_S,TXCNT,RXCNT,INTF_NAME_S,BEACONSTATE FROM  DEVICEINFO WHERE TXCNT "
                 "is not null OR RXCNT is not null");
  DeviceInfoRecord expected{};
  std::memcpy(expected.mac, "d0", 3);
  expected.txCnt = 5000000000ull;
  std::memcpy(expected.intfName, "wl0", 4);
  expected.beaconState = 2;
  EXPECT_EQ(std::memcmp(&devices[0], &expected, sizeof expected), 0);
  read(3, db_readDeviceInfoCapacity, db_freeDeviceInfoResult,
       "SELECT MAC_S,CAPACITY FROM  DEVICEINFO");
  auto stamps = read(3, db_readDeviceInfoTimestamp, db_freeDpClientHandleResult,
                     "SELECT MAC_S,DEVTIMESTAMP,ACTIVE,INTF_NAME_S FROM  DEVICEINFO");
  EXPECT_STREQ(stamps[0].intfName, "wl0");
  // Only devices whose beacon state is above 0; NULL is not.
  read(1, db_readExtInfo, db_freeDeviceInfoResult, kAll + "DEVICEINFO WHERE BEACONSTATE>0");

  // An existing but empty table: nothing to convert.
  raw().exec("DELETE FROM MESHTOPO");
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(db_readMeshTopoTable), 2);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Meshtopo result array NULL / rowcount 0 columcount 0\n"), 1u);
}

TEST_F(Inventory, SingleValueReadsCopyTheFirstRowsValue) {
  raw().exec(
      "INSERT INTO CMAINFO VALUES ('DEVICEINFO', 1000.75), ('MESHTOPO', NULL);"
      "INSERT INTO DEVICEINFO (MAC_S, CATEGORY_S, DEVCRITICAL) VALUES ('aa:00', '" +
      std::string(40, 'c') + "', 3), ('aa:01', 'Phone', NULL);");

  // No matching row: 2, the output untouched, and the free function's line about the list.
  int32_t critical = -5;
  char category[64] = "keep";
  EXPECT_EQ(db_readDeviceInfoCritical("aa:09", &critical), 2);
  EXPECT_EQ(db_readDeviceInfoCategory("aa:09", category), 2);
  EXPECT_EQ(std::tuple(critical, std::string(category)), std::tuple(-5, "keep"));
  EXPECT_EQ(logged(RYX_LOG_ERROR, "DeviceInfo struct is already NULL\n"), 2u);
  // No row, or a NULL time stamp: the caller's value stays and the status is 0.
  uint32_t timestamp = 77;
  EXPECT_EQ(db_readCmaInfoTimeStamp("CLIENTS", &timestamp), 0);
  EXPECT_EQ(db_readCmaInfoTimeStamp("MESHTOPO", &timestamp), 0);
  EXPECT_EQ(timestamp, 77u);

  ASSERT_EQ(db_readCmaInfoTimeStamp("deviceinfo", &timestamp), 0);
  EXPECT_EQ(lastQuery(), "SELECT TIMESTAMP FROM  CMAINFO WHERE TABLENAME_S LIKE 'deviceinfo'");
  EXPECT_EQ(timestamp, 1000u);

  std::memset(category, 'x', sizeof category);
  ASSERT_EQ(db_readDeviceInfoCategory("AA:00", category), 0);
  EXPECT_EQ(lastQuery(), "SELECT CATEGORY_S FROM  DEVICEINFO WHERE MAC_S LIKE 'AA:00'");
  // 31 characters and the terminator, nothing more.
  EXPECT_EQ(std::string(category, 33), std::string(31, 'c') + '\0' + 'x');

  ASSERT_EQ(db_readDeviceInfoCritical("aa:01", &critical), 0);
  EXPECT_EQ(critical, 0);  // NULL reads as 0
  ASSERT_EQ(db_readDeviceInfoCritical("aa:00", &critical), 0);
  EXPECT_EQ(lastQuery(), "SELECT DEVCRITICAL FROM  DEVICEINFO WHERE MAC_S LIKE 'aa:00'");
  EXPECT_EQ(critical, 3);

  // The companions on their own ignore what they cannot use.
  db_getCmaTimeStamp(nullptr, &timestamp);
  getDevCategory(nullptr, category);
  getDevCritical(nullptr, &critical);
  EXPECT_EQ(db_readCmaInfoTimeStamp("DEVICEINFO", nullptr), 1);
  EXPECT_EQ(db_readCmaInfoTimeStamp(nullptr, &timestamp), 1);
  EXPECT_EQ(std::tuple(critical, timestamp), std::tuple(3, 1000u));
}

TEST_F(Inventory, FailedReadsReturnTheirStatusAndLeaveTheListAlone) {
  // No tables at all: whole-table, keyed, subset and single-value reads report the missing table.
  raw().exec("DROP TABLE DEVICEINFO; DROP TABLE MESHTOPO; DROP TABLE CLIENTS; DROP TABLE CMAINFO;"
             "DROP TABLE SUBSCRIBERINFO; DROP TABLE DEVICETHRESHOLD");
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(db_readMeshTopoTable), 5);
  EXPECT_EQ(readKeepingList<DeviceInfoRecord>(std::bind(db_readMacDeviceInfo, "aa", _1, _2, 0)), 5);
  EXPECT_EQ(readKeepingList<DeviceTimestampRecord>(db_readDeviceInfoTimestamp), 5);
  uint32_t timestamp = 9;
  int32_t critical = 9;
  char category[32] = "keep";
  EXPECT_EQ(db_readCmaInfoTimeStamp("DEVICEINFO", &timestamp), 5);
  EXPECT_EQ(db_readDeviceInfoCritical("aa", &critical), 5);
  EXPECT_EQ(db_readDeviceInfoCategory("aa", category), 5);
  EXPECT_EQ(std::tuple(timestamp, critical, std::string(category)), std::tuple(9u, 9, "keep"));

  // A database held by another process: busy, at once, and nothing to free.
  createInventoryTables();
  EXPECT_EQ(whileBusy([] { return readKeepingList<MeshTopoRecord>(db_readMeshTopoTable); }), 3);

  // Output arguments that are not there.
  int32_t rows = 0;
  EXPECT_EQ(db_readMeshTopoTable(nullptr, &rows), 1);
  EXPECT_EQ(readKeepingList<MeshTopoRecord>(std::bind(db_readMeshTopoTable, _1, nullptr)), 1);
}
