// The statement builder's writes: insert-or-update, quoting, bounds, deletes, drops, transactions.
#include <string>

#include "support/db_fixture.h"

namespace {

using adbtest::Values;

constexpr const char *kKey = "MAC_S";
constexpr const char *kLike = " LIKE ";

class Query : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    raw().exec(
        "CREATE TABLE DEV (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, HOST_S TEXT, "
        "RSSI INTEGER, TXRATE REAL);"
        "CREATE TABLE OTHER (MAC_S TEXT PRIMARY KEY);"
        "INSERT INTO OTHER VALUES('keep');");
  }
  int32_t write(Values values) {
    Values names{"MAC_S", "HOST_S", "RSSI", "TXRATE"};
    return db_writeTable("DEV", kKey, kLike, names.data(), values.data(), values.size());
  }
  adbtest::Cell host(std::string mac) {
    for (size_t at = mac.find('\''); at != std::string::npos; at = mac.find('\'', at + 2)) {
      mac.insert(at, "'");
    }
    return raw().scalar("SELECT HOST_S FROM DEV WHERE MAC_S = '" + mac + "' COLLATE NOCASE");
  }
  bool loggedStatement(const std::string &statement) {
    return log().has(RYX_LOG_DEBUG, "[analyticsDB] WRITE QUERY: " + statement);
  }
};

}  // namespace

TEST_F(Query, InsertsThenUpdatesByKeyKeepingNullColumns) {
  EXPECT_EQ(write({"aa:bb", "tv", "-40", "12.75"}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,HOST_S,RSSI,TXRATE)  VALUES('aa:bb','tv',-40,12.75)"))
      << log().dump();

  log().clear();
  EXPECT_EQ(write({"AA:BB", nullptr, "-51", nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,RSSI)  VALUES('AA:BB',-51)"));
  EXPECT_TRUE(loggedStatement("UPDATE  DEV  SET  RSSI=-51  WHERE   MAC_S LIKE 'AA:BB'")) << log().dump();

  adbtest::Rows rows = raw().query("SELECT MAC_S, HOST_S, RSSI, typeof(RSSI), TXRATE FROM DEV");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][0], "aa:bb");
  EXPECT_EQ(rows[0][1], "tv");  // null value: column kept
  EXPECT_EQ(rows[0][2], "-51");
  EXPECT_EQ(rows[0][3], "integer");  // numbers are written bare
  EXPECT_EQ(rows[0][4], "12.75");
}

TEST_F(Query, RefusesIncompleteArguments) {
  Values names{"MAC_S"};
  Values values{"aa"};
  EXPECT_EQ(db_writeTable(nullptr, kKey, kLike, names.data(), values.data(), 1), DB_STATUS_FAILURE);
  EXPECT_EQ(db_writeTable("DEV", kKey, kLike, names.data(), values.data(), 0), DB_STATUS_FAILURE);
  EXPECT_EQ(log().count(RYX_LOG_ERROR,
                        "[analyticsDB] Write: Check tablename/ fieldnames / fieldvalues / number of fields\n"),
            2u);
  EXPECT_EQ(db_writeTable("DEV", kKey, kLike, names.data(), values.data(), -1), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] Insert: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));
  EXPECT_EQ(db_tryUpdate("DEV", nullptr, kLike, names.data(), values.data(), 1), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] Update: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));

  // An existing row written without its key cannot be updated.
  ASSERT_EQ(write({"aa", "x", "1", "1"}), DB_STATUS_SUCCESS);
  Values keyless{"HOST_S", "MAC_S"};
  Values keylessValues{"y", "aa"};
  EXPECT_EQ(db_writeTable("DEV", "RSSI", kLike, keyless.data(), keylessValues.data(), 2),
            DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Condition is mandatory for update\n"));
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Write: Cant Insert/Update this record\n"));
  EXPECT_EQ(db_writeQuery(nullptr), DB_STATUS_SUCCESS);
}

// Hostile names through every writer, keys and values alike: test_hostile_input.cpp.
TEST_F(Query, QuotesAreDoubledAndValuesAreCutAtTheirBoundWithoutBreakingTheLiteral) {
  EXPECT_EQ(write({"q1", "it's", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,HOST_S)  VALUES('q1','it''s')"));
  EXPECT_TRUE(log().has(RYX_LOG_DEBUG, "[analyticsDB] converted value with quote [it's] to [it''s] "));
  EXPECT_EQ(host("q1"), "it's");

  // Quotes at every position around the 1022-character cut of an escaped value: whatever is
  // stored is the start of the value, and nothing else changes.
  for (size_t quoteAt = 1015; quoteAt <= 1026; ++quoteAt) {
    std::string value(1030, 'a');
    value[quoteAt] = '\'';
    value[quoteAt / 2] = '\'';
    std::string mac = "cut" + std::to_string(quoteAt);
    int32_t status = write({mac.c_str(), value.c_str(), nullptr, nullptr});
    ASSERT_EQ(status, DB_STATUS_SUCCESS) << quoteAt;
    std::string stored = host(mac).value_or("<none>");
    EXPECT_LE(stored.size(), 1022u);
    EXPECT_EQ(value.compare(0, stored.size(), stored), 0) << quoteAt;
  }
  // A run of quotes longer than the escaped buffer holds keeps whole pairs only.
  std::string quotes(1022, '\'');
  ASSERT_EQ(write({"allquotes", quotes.c_str(), nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(host("allquotes"), std::string(511, '\''));

  // Without quotes a value is not cut by the escaper; a statement past the 3000-byte value list
  // is cut there and SQLite refuses it.
  std::string huge(4096, 'n');
  EXPECT_EQ(write({"huge", huge.c_str(), nullptr, nullptr}), DB_STATUS_FAILURE);
  EXPECT_FALSE(host("huge").has_value());
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM OTHER"), "1");

  // The UPDATE condition is sized from the unescaped key, so a quoted key cannot update.
  ASSERT_EQ(write({"o'k", "first", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(write({"o'k", "second", nullptr, nullptr}), DB_STATUS_FAILURE);
  EXPECT_EQ(host("o'k"), "first");
}

TEST_F(Query, DeletesByConditionOrAllRowsAndDropsTables) {
  for (const char *mac : {"aa", "bb", "cc"}) ASSERT_EQ(write({mac, "h", "1", nullptr}), DB_STATUS_SUCCESS);

  EXPECT_EQ(db_deleteTableContent("DEV", kKey, kLike, "AA", nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV  WHERE  MAC_S LIKE 'AA'")) << log().dump();
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEV"), "2");

  // A ready-made statement wins over the condition.
  EXPECT_EQ(db_deleteTableContent("DEV", kKey, kLike, "bb", "DELETE FROM DEV WHERE MAC_S='cc'"),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S) FROM DEV"), "bb");

  // A missing value empties the table.
  EXPECT_EQ(db_deleteTableContent("DEV", kKey, kLike, nullptr, nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV"));
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEV"), "0");

  EXPECT_EQ(db_deleteTableContent("NOPE", kKey, kLike, "aa", nullptr), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Delete failed ret 5\n"));
  EXPECT_EQ(db_deleteTableContent(nullptr, kKey, kLike, "aa", nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Delete: Check tablename\n"));

  EXPECT_EQ(db_dropTable("DEV"), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DROP TABLE IF EXISTS  DEV"));
  EXPECT_FALSE(raw().tableExists("DEV"));
  EXPECT_EQ(db_dropTable("DEV"), DB_STATUS_SUCCESS);  // missing: still fine
  EXPECT_EQ(db_dropTable(nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Drop: Check tablename\n"));
}

TEST_F(Query, TransactionsBracketWritesAndForeignKeysSwitchOn) {
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // closed: a commit does not open
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_FAILURE);  // nested BEGIN
  EXPECT_EQ(write({"t1", "a", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(write({"t2", "b", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEV"), "2");
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // nothing to commit

  // A caller may end its transaction with a statement of its own; later writes go on.
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(write({"t3", "c", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_write("ROLLBACK"), DB_STATUS_SUCCESS);
  EXPECT_EQ(write({"t4", "d", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S) FROM (SELECT MAC_S FROM DEV ORDER BY MAC_S)"),
            "t1,t2,t4");

  EXPECT_EQ(db_setForeignKey(), DB_STATUS_SUCCESS);
  EXPECT_TRUE(log().has(RYX_LOG_DEBUG, "[analyticsDB] Set Foreign Key enable"));
}
