// The analytics schema as the database file holds it: the catalogue tables, the day tables with
// their slot columns and foreign keys, the upgrade of older tables, and the refusals.
#include <sqlite3.h>

#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include "support/api_cases.h"

namespace {

using adbtest::Row;

// DEVICEINFO as the file must declare it, the catalogue table with every kind of column: "NAME
// TYPE" of the key (" key" for NOT NULL PRIMARY KEY), of REAL columns and of columns with a
// default (" =value"). Every other column is TEXT when its name ends in "_S" and INTEGER otherwise.
constexpr const char *kDeviceInfoNotable =
    "MAC_S TEXT key,TXRATE REAL,RXRATE REAL,DEVBWREQD REAL,PORTABLE INTEGER =1,DEVTIMESTAMP REAL,"
    "ADDED_TS REAL,LASTONLINE_TS REAL,LASTOFFLINE_TS REAL,BEACONSTATE INTEGER =0,"
    "PREFERRED_BAND_S TEXT ='NA',BANDSTEERING_STATE INTEGER =0,IS_BRIDGED INTEGER =0";

// What a day table must declare: the key, then SLOTfirst..SLOTlast, each INTEGER DEFAULT 0.
std::string dayTableDeclaration(int first, int last) {
  std::string text = "MAC_S TEXT key";
  for (int k = first; k <= last; ++k) text += ",SLOT" + std::to_string(k) + " INTEGER =0";
  return text;
}

class SchemaTest : public adbtest::ApiTest {
 protected:
  // "NAME TYPE[ key][ =default]" per column; with `notableOnly`, plain TEXT/INTEGER columns are
  // checked against their name and left out.
  std::string declared(const std::string &table, bool notableOnly = false) {
    std::string text;
    const char *info = "SELECT name, type, pk, \"notnull\", dflt_value FROM pragma_table_info(?)";
    for (const Row &row : raw().query(info, {table})) {
      const std::string name = row[0].value_or("?"), type = row[1].value_or("?");
      if (notableOnly && row[2] == "0" && !row[4] && type != "REAL") {
        EXPECT_EQ(type, name.ends_with("_S") ? "TEXT" : "INTEGER") << table << "." << name;
        continue;
      }
      text += (text.empty() ? "" : ",") + name + " " + type;
      if (row[2] != "0") text += row[3] == "1" ? " key" : " pk";
      if (row[4]) text += " =" + *row[4];
    }
    return text;
  }

  // "from->table(to) on_delete" per foreign key, ";"-separated; "" for none.
  std::string foreignKeys(const std::string &table) {
    return raw().query("SELECT group_concat(\"from\" || '->' || \"table\" || '(' || \"to\" || ') ' "
                       "|| on_delete, ';') FROM pragma_foreign_key_list(?)",
                       {table})[0][0].value_or("");
  }
};

// One table of each kind as declared; then every table of the week: its key ignores letter case,
// and only day tables have a foreign key, to their own series' index table.
TEST_F(SchemaTest, FullWeekCreatesEveryTableWithItsColumnsAndOnlyDayTablesHaveForeignKeys) {
  createInventoryTables();
  createSeriesTables();
  EXPECT_EQ(raw().columns("DEVICEINFO").size(), 38u);
  EXPECT_EQ(declared("DEVICEINFO", true), kDeviceInfoNotable);
  EXPECT_EQ(declared("BANDWIDTHTX3"), dayTableDeclaration(577, 864));

  const adbtest::Rows all = raw().query("SELECT name FROM sqlite_master WHERE type='table'");
  EXPECT_EQ(all.size(), 9u + 21u);
  for (const Row &row : all) {
    const std::string table = *row[0], primitive = "PRIMITIVE_" + table.substr(0, table.size() - 1);
    const bool day = std::isdigit(static_cast<unsigned char>(table.back()));
    EXPECT_EQ(foreignKeys(table), day ? "MAC_S->" + primitive + "(MAC_S) CASCADE" : "") << table;
    const std::string insert = "INSERT INTO " + table + "(" + raw().columns(table).at(0) + ")";
    EXPECT_EQ(raw().tryExec(insert + " VALUES('aa:bb')"), SQLITE_OK);
    EXPECT_EQ(raw().tryExec(insert + " VALUES('AA:BB')"), SQLITE_CONSTRAINT) << table;
  }
}

TEST_F(SchemaTest, CreateStatementTextAndRefusals) {
  auto framed = [this](const std::string &statement) {
    return logged(RYX_LOG_DEBUG, "Query framed for Table creation " + statement + "\n");
  };
  ASSERT_EQ(db_createSubscriberInfoTable(), DB_STATUS_SUCCESS);
  EXPECT_TRUE(framed("CREATE TABLE IF NOT EXISTS  SUBSCRIBERINFO(SERIALNUMBER_S TEXT NOT NULL "
                     "PRIMARY KEY COLLATE NOCASE,DOWNSTREAMBANDWIDTH INTEGER )"));

  // Slot numbers follow the day and the slot count given; the foreign key closes the list.
  ASSERT_EQ(db_createRssiTab(2, 2), DB_STATUS_SUCCESS);
  EXPECT_TRUE(framed("CREATE TABLE IF NOT EXISTS  RSSI2(MAC_S TEXT NOT NULL PRIMARY KEY COLLATE "
                     "NOCASE,SLOT3 INTEGER DEFAULT 0,SLOT4 INTEGER DEFAULT 0,FOREIGN KEY (MAC_S) "
                     "REFERENCES PRIMITIVE_RSSI(MAC_S) ON DELETE CASCADE)"));

  adbtest::Values names{"KEY_S", "VALUE"}, types{"TEXT", "INTEGER"}, blankType{"TEXT", ""},
      noName{"KEY_S", nullptr}, constraints{"NOT NULL PRIMARY KEY COLLATE NOCASE", nullptr},
      badDefault{nullptr, "DEFAULT ("}, clauses{"", "FOREIGN KEY (KEY_S) REFERENCES OTHER(KEY_S)"};
  char **name = names.data(), **type = types.data(), **kept = constraints.data();
  EXPECT_EQ(db_createTable(nullptr, name, type, kept, 2, nullptr, 0), DB_STATUS_FAILURE);
  EXPECT_EQ(db_createTable("T", name, type, kept, -1, nullptr, 0), DB_STATUS_FAILURE);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Input parameters are invalid\n"), 2u);
  EXPECT_EQ(db_createTable("T", name, blankType.data(), kept, 2, nullptr, 0), DB_STATUS_FAILURE);
  EXPECT_EQ(db_createTable("T", noName.data(), type, nullptr, 2, nullptr, 0), DB_STATUS_FAILURE);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Both fieldname and fieldtype are mandatory for creating T "
                                  "table\n"), 2u);
  EXPECT_FALSE(raw().tableExists("T"));

  // A foreign-key count of 0 leaves the clauses out; blank clauses are skipped.
  EXPECT_EQ(db_createTable("T", name, type, kept, 2, clauses.data(), 0), DB_STATUS_SUCCESS);
  EXPECT_EQ(foreignKeys("T"), "");
  EXPECT_EQ(db_createTable("U", name, type, kept, 2, clauses.data(), 2), DB_STATUS_SUCCESS);
  EXPECT_EQ(foreignKeys("U"), "KEY_S->OTHER(KEY_S) NO ACTION");
  EXPECT_EQ(db_createTable("V", name, type, badDefault.data(), 2, nullptr, 0), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Table [V] creation failed \n"));
  EXPECT_FALSE(raw().tableExists("V"));
}

TEST_F(SchemaTest, OpenFailureIsReportedWithTheAlterationTextOnBothPaths) {
  // A folder that does not exist; no connection is open yet, so the path can change.
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/analytics.db").c_str()), DB_STATUS_SUCCESS);
  const char *openFailed = "[analyticsDB] DB open failed for table alteration\n";
  EXPECT_EQ(db_createMeshTopoTable(), DB_STATUS_OPEN_FAILED);
  alterSchema = 1;
  EXPECT_EQ(db_createCmaInfoTable(), DB_STATUS_OPEN_FAILED);
  std::string where;
  for (const adbtest::LogLine &line : log().lines())
    if (line.level == RYX_LOG_ERROR && line.message() == openFailed) where += line.where() + ";";
  EXPECT_EQ(where, "db_query db_createTable;db_query db_alterTable;db_query db_createTable;");
}

TEST_F(SchemaTest, UpgradeAddsMissingColumnsInArrayOrderAndLeavesExistingOnesAlone) {
  // An older DEVICEINFO: without PORTABLE and IS_BRIDGED, APID_S stored in lower case, TXRATE
  // declared TEXT.
  std::string older = "MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE";
  for (int i = 1; i < 38; ++i) {
    const std::string name = createDeviceFields[i];
    if (name == "PORTABLE" || name == "IS_BRIDGED") continue;
    older += "," + (name == "APID_S" ? "apid_s" : name) + " " +
             (name == "TXRATE" ? "TEXT" : createDeviceTypes[i]);
  }
  raw().exec("CREATE TABLE DEVICEINFO(" + older + "); INSERT INTO DEVICEINFO(MAC_S) VALUES('a')");
  std::vector<std::string> expected = raw().columns("DEVICEINFO");
  expected.insert(expected.end(), {"PORTABLE", "IS_BRIDGED"});

  alterSchema = 1;
  EXPECT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().columns("DEVICEINFO"), expected);
  EXPECT_EQ(raw().scalar("SELECT type FROM pragma_table_info('DEVICEINFO') WHERE name='TXRATE'"),
            "TEXT");
  EXPECT_EQ(raw().scalar("SELECT PORTABLE || ',' || IS_BRIDGED FROM DEVICEINFO"), "1,0");
  EXPECT_EQ(log().countContaining("Query framed for Table alteration"), 3u);
  EXPECT_TRUE(logged(RYX_LOG_INFO, "Query framed for Table alteration ALTER TABLE DEVICEINFO ADD "
                                   "PORTABLE INTEGER DEFAULT 1\n"));
  // The column named in other case counts as missing; SQLite refuses the duplicate.
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "table alteration failed Query ALTER TABLE DEVICEINFO ADD "
                                    "APID_S TEXT  ret [1]\n"));
}

TEST_F(SchemaTest, UpgradeScopeAbsentTablesAndClientsAsymmetry) {
  // Only the first nine CLIENTS columns are added to an existing table.
  raw().exec("CREATE TABLE CLIENTS(MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE)");
  alterSchema = 1;
  EXPECT_EQ(db_createClientsTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().columns("CLIENTS"),
            std::vector<std::string>(createClientsFields, createClientsFields + 9));

  // A table that does not exist yet gets no ALTER, only its CREATE.
  log().clear();
  EXPECT_EQ(db_createMeshTopoTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_alterTable("NOSUCHTABLE", createCmaFields, createCmaTypes, nullptr, 2),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(log().countContaining("ALTER TABLE"), 0u) << log().dump();
  EXPECT_FALSE(raw().tableExists("NOSUCHTABLE"));

  // Day tables: the upgrade covers the key; slot columns stay as they were made.
  ASSERT_EQ(db_createPrimitiveRssiTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createRssiTab(1, 2), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_createRssiTab(1, 288), DB_STATUS_SUCCESS);
  EXPECT_EQ(declared("RSSI1"), dayTableDeclaration(1, 2));
}

TEST_F(SchemaTest, BusyUpgradeTriesEveryColumnAndItsPiecesRefuseBadInputAndMatchNamesExactly) {
  ASSERT_EQ(db_createCmaInfoTable(), DB_STATUS_SUCCESS);
  // With the flag clear an existing table is left as it is (its columns are counted below).
  raw().exec("CREATE TABLE SUBSCRIBERINFO(SERIALNUMBER_S TEXT NOT NULL PRIMARY KEY)");
  EXPECT_EQ(db_createSubscriberInfoTable(), DB_STATUS_SUCCESS);
  alterSchema = 1;
  EXPECT_EQ(whileBusy(db_createCmaInfoTable), DB_STATUS_BUSY);
  EXPECT_TRUE(
      logged(RYX_LOG_ERROR, "Read failed  on fetching schema PRAGMA table_info('CMAINFO')\n"));
  EXPECT_EQ(log().countContaining("table alteration failed Query ALTER TABLE CMAINFO ADD"), 2u);
  EXPECT_EQ(db_createCmaInfoTable(), DB_STATUS_SUCCESS);

  // A pending writer elsewhere blocks the ALTER but not the CREATE of an existing table: the
  // successful CREATE must not hide the busy ALTER.
  raw().exec("BEGIN IMMEDIATE");
  EXPECT_EQ(db_createSubscriberInfoTable(), DB_STATUS_BUSY);
  raw().exec("COMMIT");
  EXPECT_EQ(raw().columns("SUBSCRIBERINFO").size(), 1u);
  EXPECT_EQ(db_createSubscriberInfoTable(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().columns("SUBSCRIBERINFO").size(), 2u);

  // The pieces of the upgrade refuse bad input and match column names exactly.
  EXPECT_EQ(db_alterTable("CMAINFO", createCmaFields, createCmaTypes, nullptr, 0),
            DB_STATUS_FAILURE);
  EXPECT_EQ(db_alterTable("CMAINFO", nullptr, createCmaTypes, nullptr, 2), DB_STATUS_FAILURE);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Input parameters are invalid\n"), 2u);

  // A bad column description is skipped as if it had been added.
  EXPECT_EQ(db_addField("CMAINFO", "EXTRA", "", nullptr), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_addField("CMAINFO", nullptr, "TEXT", nullptr), DB_STATUS_SUCCESS);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Both fieldName and fieldType is mandatory for adding "
                                  "attribute\n"), 2u);
  EXPECT_EQ(db_addField("CMAINFO", "EXTRA_S", "TEXT", "DEFAULT 'x'"), DB_STATUS_SUCCESS);

  char **cells = nullptr;
  int32_t rows = 0, columns = 0;
  ASSERT_EQ(db_read("PRAGMA table_info('CMAINFO')", &cells, &rows, &columns), DB_STATUS_SUCCESS);
  // Names match exactly; values of the other columns (a type, a column number) are not names.
  for (const auto &[name, found] :
       {std::pair{"TIMESTAMP", 1}, {"EXTRA_S", 1}, {"timestamp", 0}, {"REAL", 0}, {"1", 0}})
    EXPECT_EQ(db_checkFieldSchemaExist(name, cells, rows, columns), found) << name;
  db_freeResult(&cells);
}

TEST_F(SchemaTest, DayAndIndexTablesRefuseZeroAndOutOfRangeCountsWithoutTouchingTheFile) {
  for (auto create : {db_createPrimitiveRssiTable, db_createPrimitiveBandWidthRxTable,
                      db_createPrimitiveBandWidthTxTable})
    EXPECT_EQ(create(0), DB_STATUS_FAILURE);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Table is not created .Slot count is zero\n"), 3u);
  EXPECT_EQ(db_createTxBandWidth(0, 288), DB_STATUS_FAILURE);
  EXPECT_EQ(db_createRxBandWidth(2, 0), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "BandwidthTx Input day should be greateter tha zero\n"));
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "BandwidthRx Table 2 is not created .Slot count is zero\n"));

  // The column arrays of a day table hold at most 299 slots.
  log().clear();
  EXPECT_EQ(db_createRssiTab(1, 300), DB_STATUS_FAILURE);
  EXPECT_EQ(db_createTxBandWidth(1, -1), DB_STATUS_FAILURE);
  EXPECT_EQ(log().lines().size(), 2u) << log().dump();
  EXPECT_FALSE(std::filesystem::exists(dbPath()));
  EXPECT_EQ(db_createRssiTab(1, 299), DB_STATUS_SUCCESS);
  EXPECT_EQ(declared("RSSI1"), dayTableDeclaration(1, 299));
}

}  // namespace
