// The sixteen inventory writers, through the write queue's gate.
#include <string>
#include <vector>

#include "support/inventory_writers.h"

namespace {

using adbtest::Cell;
using adbtest::Rows;
using adbtest::Values;

const char *const kTables[] = {"DEVICEINFO",     "MESHTOPO", "CLIENTS",
                               "SUBSCRIBERINFO", "CMAINFO",  "DEVICETHRESHOLD"};

bool isTextColumn(const std::string &column) {
  return column.size() > 2 && column.compare(column.size() - 2, 2, "_S") == 0;
}

std::string literal(const std::string &column, const std::string &value) {
  if (!isTextColumn(column)) return value;
  std::string quoted = "'";
  for (char c : value) quoted += (c == '\'') ? "''" : std::string(1, c);
  return quoted + "'";
}

// Values for `columns`: the key first, then a text per text column and a number per other one.
std::vector<std::string> sampleValues(const std::vector<std::string> &columns,
                                      const std::string &key, int seed) {
  std::vector<std::string> values{key};
  for (size_t i = 1; i < columns.size(); ++i) {
    values.push_back(isTextColumn(columns[i]) ? "t" + std::to_string(seed) + "_" + std::to_string(i)
                                              : std::to_string(seed * 100 + static_cast<int>(i)));
  }
  return values;
}

class InventoryWriteTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    createInventoryTables();
  }

  // Number of rows of `table` whose columns hold exactly these values (the key without case).
  std::string rowsHolding(const std::string &table, const std::vector<std::string> &columns,
                          const std::vector<std::string> &values) {
    std::string sql = "SELECT count(*) FROM " + table + " WHERE ";
    for (size_t i = 0; i < columns.size(); ++i) {
      sql += (i > 0 ? " AND " : "") + columns[i] + " = " + literal(columns[i], values[i]);
    }
    return raw().scalar(sql).value_or("?");
  }

  Rows everyRow() {
    Rows rows;
    for (const char *table : kTables) {
      for (adbtest::Row &row : raw().query(std::string("SELECT '") + table + "', rowid, * FROM " +
                                           table + " ORDER BY rowid")) {
        rows.push_back(row);
      }
    }
    return rows;
  }
};

TEST_F(InventoryWriteTest, EachWriterWritesItsColumnsAndQueuesUnderItsFunctionId) {
  for (const adbtest::InventoryWriter &listed : adbtest::inventoryWriters()) {
    SCOPED_TRACE(listed.api);
    const adbtest::InventoryWriter writer = adbtest::withColumns(listed, raw());
    const std::vector<std::string> &columns = writer.columns;
    std::string key = "key-" + std::to_string(writer.functionId);

    std::vector<std::string> first = sampleValues(columns, key, 1);
    EXPECT_EQ(writer.write(Values(first).data()), DB_STATUS_SUCCESS);
    EXPECT_EQ(rowsHolding(writer.table, columns, first), "1");

    // Busy: parked with the writer's id, count and family; the replay updates the same row,
    // found by its key in another letter case.
    std::vector<std::string> second =
        sampleValues(columns, "KEY-" + std::to_string(writer.functionId), 2);
    EXPECT_EQ(whileBusy([&] { return writer.write(Values(second).data()); }), DB_STATUS_BUSY);
    WriteRequestNode *head = adbtest::queueHead();
    ASSERT_NE(head, nullptr);
    EXPECT_EQ(head->functionId, writer.functionId);
    EXPECT_EQ(head->fieldCount, static_cast<int32_t>(columns.size()));
    EXPECT_STREQ(head->tableName, writer.table);
    std::vector<Cell> expected(second.begin(), second.end());
    EXPECT_EQ(adbtest::nodeValues(*head), expected);

    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
    EXPECT_EQ(rowsHolding(writer.table, columns, second), "1");
    EXPECT_EQ(raw().scalar(std::string("SELECT count(*) FROM ") + writer.table + " WHERE " +
                           columns[0] + " = '" + key + "'"),
              Cell("1"));
  }
  EXPECT_EQ(log().countContaining("Delete Reason"), 0u);
}

TEST_F(InventoryWriteTest, PartialWriteKeepsTheOtherColumns) {
  std::vector<std::string> columns = raw().columns("DEVICEINFO");
  std::vector<std::string> row = sampleValues(columns, "AA:BB:CC:00:00:01", 1);
  ASSERT_EQ(db_updateDeviceInfoTable(Values(row).data()), DB_STATUS_SUCCESS);

  // Lower-case key, a quote in a text value, no value for TXRATE.
  Values lan{"aa:bb:cc:00:00:01", "ap'1", "eth0", nullptr, "2.5", "10", "20"};
  EXPECT_EQ(db_updateDeviceInfoLanFields(lan.data()), DB_STATUS_SUCCESS);
  auto set = [&](const std::string &column, const std::string &value) {
    for (size_t i = 0; i < columns.size(); ++i) {
      if (columns[i] == column) row[i] = value;
    }
  };
  set("APID_S", "ap'1");
  set("INTF_NAME_S", "eth0");
  set("RXRATE", "2.5");
  set("TXCNT", "10");
  set("RXCNT", "20");
  EXPECT_EQ(rowsHolding("DEVICEINFO", columns, row), "1");
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEVICEINFO"), Cell("1"));
  EXPECT_EQ(raw().scalar("SELECT MAC_S FROM DEVICEINFO"), Cell("AA:BB:CC:00:00:01"));

  // A null value leaves its column to the table's default on insert.
  Values capacity{"aa:bb:cc:00:00:02", nullptr};
  EXPECT_EQ(db_updateDeviceInfoCapacity(capacity.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().query("SELECT CAPACITY, PORTABLE FROM DEVICEINFO WHERE MAC_S = "
                        "'aa:bb:cc:00:00:02'"),
            (Rows{{std::nullopt, Cell("1")}}));
}

TEST_F(InventoryWriteTest, BurstAgainstBusyDatabaseEndsAsOnAFreeOne) {
  std::vector<std::string> deviceColumns = raw().columns("DEVICEINFO");
  std::vector<std::string> clientColumns = raw().columns("CLIENTS");
  std::vector<std::vector<std::string>> devices = {sampleValues(deviceColumns, "aa:00", 1),
                                                   sampleValues(deviceColumns, "bb:00", 2)};
  std::vector<std::string> client = sampleValues(clientColumns, "aa:00", 3);
  auto burst = [&] {
    std::vector<int32_t> statuses;
    statuses.push_back(db_updateDeviceInfoCapacity(Values{"cc:00", "1"}.data()));
    statuses.push_back(db_updateDeviceInfoTable(Values(devices[0]).data()));
    statuses.push_back(db_updateDeviceInfoCapacity(Values{"aa:00", "2"}.data()));
    statuses.push_back(
        db_updateMeshTopoTable(Values{"aa:00", "id", "p", "ip", "r", "m", "w", "s", "h"}.data()));
    statuses.push_back(db_updateDeviceInfoTable(Values(devices[1]).data()));
    statuses.push_back(db_updateDeviceInfoCapacity(Values{"AA:00", "3"}.data()));
    statuses.push_back(db_updateClientsTable(Values(client).data()));
    statuses.push_back(db_updateCmaInfoTable(Values{"DEVICEINFO", "100.5"}.data()));
    statuses.push_back(db_updateSubscriberInfoTable(Values{"SN1", "500"}.data()));
    statuses.push_back(db_updateDeviceInfoIsBridgedFields(Values{"cc:00", "1"}.data()));
    statuses.push_back(db_updateCmaInfoTable(Values{"DEVICEINFO", "200.5"}.data()));
    statuses.push_back(db_updateDeviceInfoBeaconFName(Values{"bb:00", "o'brien"}.data()));
    statuses.push_back(db_updateDeviceThresholdTable(
        Values{"phone", "1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "1.5", "13", "14"}
            .data()));
    return statuses;
  };

  EXPECT_EQ(burst(), std::vector<int32_t>(13, DB_STATUS_SUCCESS));
  Rows onFreeDatabase = everyRow();
  for (const char *table : kTables) raw().exec(std::string("DELETE FROM ") + table);

  EXPECT_EQ(whileBusy(burst), std::vector<int32_t>(13, DB_STATUS_BUSY));
  EXPECT_EQ(adbtest::queueLength(), 13);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(everyRow(), onFreeDatabase);
}

TEST_F(InventoryWriteTest, RefusedWritesAreNotQueued) {
  EXPECT_EQ(whileBusy([] { return db_updateDeviceInfoCapacity(Values{"aa", "1"}.data()); }),
            DB_STATUS_BUSY);
  // No values: refused with the writer's message, even while a request of the family waits.
  EXPECT_EQ(db_updateDeviceInfoCapacity(nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(
      RYX_LOG_ERROR,
      "[analyticsDB] Write: Check tablename/ fieldnames / fieldvalues / number of fields\n"));
  raw().exec("DROP TABLE SUBSCRIBERINFO");
  EXPECT_EQ(db_updateSubscriberInfoTable(Values{"SN1", "5"}.data()), DB_STATUS_NO_TABLE);
  EXPECT_EQ(adbtest::queueLength(), 1);
}

}  // namespace
