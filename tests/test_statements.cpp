// Statement composition: the bounded text builder, SELECT pieces in a caller's buffer, composed
// reads, and the writer's insert-or-update, quoting, deletes, drops and transactions.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "internal/text_builder.h"
#include "support/api_cases.h"

namespace {

using adbtest::Values;

constexpr char kGuard = static_cast<char>(0xA5);
constexpr size_t kGuardBytes = 16;

// Runs `compose` on a buffer of `size` bytes filled with `fill` and followed by guard bytes,
// checks that the guards are untouched and that the text stays terminated within `size`, and
// returns the text.
std::string composeWithin(int32_t size, const std::function<void(char *, int32_t)> &compose,
                          char fill = '\0') {
  std::vector<char> storage(static_cast<size_t>(size) + kGuardBytes, kGuard);
  std::memset(storage.data(), fill, static_cast<size_t>(size));
  compose(storage.data(), size);
  const std::string behind(storage.begin() + size, storage.end());
  EXPECT_EQ(behind, std::string(kGuardBytes, kGuard)) << "written past the buffer";
  size_t length = strnlen(storage.data(), static_cast<size_t>(size));
  EXPECT_LT(length, static_cast<size_t>(size)) << "text not terminated inside the buffer";
  return std::string(storage.data(), length);
}

// composeWithin for a text builder made over the buffer.
std::string buildWithin(int32_t size, const std::function<void(adb::TextBuilder &)> &build,
                        char fill = 'x') {
  return composeWithin(size, [&](char *buffer, int32_t n) {
    adb::TextBuilder builder(buffer, static_cast<size_t>(n));
    build(builder);
  }, fill);
}

// A read of the shape the record APIs compose, with every kind of piece.
void composeFullRead(char *query, int32_t size) {
  Values fields{"MAC_S", "SLT_IND", "SLOT1"};
  db_selectQuery(query, size);
  db_selectFieldNames(query, size, fields.data(), fields.size(), "PRIMITIVE_BANDWIDTHRX");
  db_selectJoin(query, size, "BANDWIDTHRX1", " USING ", "MAC_S");
  db_selectWhere(query, size);
  db_selectCondtion(query, size, "SOURCE_S", " LIKE ", "it's");
  db_selectCondtionConnection(query, size, " AND ");
  db_selectCondtion(query, size, "SLT_IND", ">", "3");
  db_selectUnion(query, size);
  db_selectQuery(query, size);
  db_selectFieldNames(query, size, fields.data(), 0, "RSSI1");  // count 0: a star select too
}

const char kFullRead[] =
    "SELECT MAC_S,SLT_IND,SLOT1 FROM  PRIMITIVE_BANDWIDTHRX"
    "  LEFT JOIN  BANDWIDTHRX1  USING (MAC_S) "
    " WHERE SOURCE_S LIKE 'it''s' AND SLT_IND>3 UNION ALL SELECT  *  FROM  RSSI1";

}  // namespace

class Statements : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    raw().exec(
        "CREATE TABLE DEV (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, HOST_S TEXT, "
        "RSSI INTEGER, TXRATE REAL); CREATE TABLE CMAINFO (TABLENAME_S TEXT, TIMESTAMP REAL);"
        "INSERT INTO CMAINFO VALUES ('DEVICEINFO', 1000.5), ('MESHTOPO', NULL);"
        // A key that is case-sensitive text, and a numeric one that ignores case.
        "CREATE TABLE CASED (K_S TEXT PRIMARY KEY, V INTEGER); INSERT INTO CASED VALUES ('aa', 1);"
        "CREATE TABLE NUMKEY (K_S NUMERIC PRIMARY KEY COLLATE NOCASE, V INTEGER);"
        "INSERT INTO NUMKEY VALUES (10, 1);");
  }
  // A write of `values` into DEV's `names`, matched on `key` (none: no match operator either).
  int32_t write(Values values, Values names = {"MAC_S", "HOST_S", "RSSI", "TXRATE"},
                const char *key = "MAC_S") {
    const char *match = key != nullptr ? " LIKE " : nullptr;
    return db_writeTable("DEV", key, match, names.data(), values.data(), values.size());
  }
  size_t error(const std::string &line) { return logged(RYX_LOG_ERROR, line); }
  bool loggedStatement(const std::string &statement) {
    return logged(RYX_LOG_DEBUG, "WRITE QUERY: " + statement);
  }
};

TEST_F(Statements, TextAndSelectPiecesCutAtCapacityAndRefuseMissingArguments) {
  // Values are appended as data, never as formats.
  const std::string asData = "SELECT abc-42!%s%n";
  for (int32_t capacity = 1; capacity <= 20; ++capacity) {
    const std::string text = buildWithin(capacity, [&](adb::TextBuilder &builder) {
      builder.append("SELECT ").appendf("%s-%d", "abc", 42).append("!").append("%s%n");
      EXPECT_EQ(builder.length(), std::strlen(builder.c_str())) << capacity;
      EXPECT_EQ(builder.truncated(), asData.size() >= static_cast<size_t>(capacity)) << capacity;
    });
    EXPECT_EQ(text, asData.substr(0, static_cast<size_t>(capacity) - 1));
  }

  // Escaped text, and text escaped already, is cut between quote pairs only.
  const std::string value = "a'b''c'''d'", escaped = "a''b''''c''''''d''";
  for (int32_t capacity = 1; capacity <= static_cast<int32_t>(escaped.size()) + 2; ++capacity) {
    const std::string out = buildWithin(capacity, [&](auto &b) { b.appendEscaped(value.c_str()); });
    ASSERT_EQ(escaped.compare(0, out.size(), out), 0) << capacity;  // a prefix of the whole
    // No other character at all: npos is all ones, and the difference wraps to the whole size.
    const size_t trailingQuotes = out.size() - out.find_last_not_of('\'') - 1;
    EXPECT_EQ(trailingQuotes % 2, 0u) << "odd quote at cut, capacity " << capacity << ": " << out;
    auto keepPairs = [&](auto &b) { b.appendKeepingQuotePairs(escaped.c_str()); };
    EXPECT_EQ(buildWithin(capacity, keepPairs, '\0'), out) << capacity;
  }

  // The select pieces.
  const std::string full = kFullRead;
  // Every size cuts the same text at its own end, without a byte past the buffer; the last
  // size holds all of it.
  for (int32_t size = 1; size <= static_cast<int32_t>(full.size()) + 1; ++size) {
    std::string expected = full.substr(0, static_cast<size_t>(size) - 1);
    // Inside the quoted value the cut never separates the two quotes of a pair; the byte the
    // pair could not use takes the first blank of the next piece.
    if (expected.ends_with("'it'")) expected.back() = ' ';
    ASSERT_EQ(composeWithin(size, composeFullRead), expected) << "size " << size;
  }

  // A buffer whose text fills it without a terminator is left alone; a size of 0 or less writes
  // nothing at all.
  std::string filled(16, 'x');  // 8 bytes of text without a terminator, and 8 behind them
  db_selectWhere(filled.data(), 8);
  db_selectUnion(filled.data(), 8);
  db_selectQuery(filled.data(), 0);
  db_selectFieldNames(filled.data(), -5, nullptr, 0, "MESHTOPO");
  EXPECT_EQ(filled, std::string(16, 'x'));

  // Missing arguments are refused, leaving the buffer as it was. One missing argument per
  // function: the valid calls of the other tests show that the checks let present arguments
  // through. Only " USING " joins: any other kind appends nothing and still succeeds.
  char query[128] = "SELECT ";
  log().clear();
  const std::vector<int32_t> statuses = {
      db_selectQuery(nullptr, 128), db_selectWhere(nullptr, 128), db_selectUnion(nullptr, 128),
      db_selectCondtionConnection(query, 128, nullptr),
      db_selectCondtion(query, 128, "MAC_S", nullptr, "x"),
      db_selectJoin(query, 128, "RSSI1", " USING ", nullptr),
      db_selectJoin(query, 128, "RSSI1", " ON ", "MAC_S")};
  EXPECT_EQ(statuses, (std::vector<int32_t>{1, 1, 1, 1, 1, 1, 0}));
  EXPECT_STREQ(query, "SELECT ");
  EXPECT_TRUE(log().lines().empty()) << log().dump();

  EXPECT_EQ(db_selectFieldNames(query, 128, nullptr, 0, nullptr), 1);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read Table name is mandatory for  \n"));
  EXPECT_EQ(db_selectFieldNames(nullptr, 128, nullptr, 0, "MESHTOPO"), 1);

  // A null name stops the list where it stands.
  Values fields{"MAC_S", nullptr, "ACTIVE"};
  EXPECT_EQ(db_selectFieldNames(query, 128, fields.data(), fields.size(), "DEVICEINFO"), 1);
  EXPECT_STREQ(query, "SELECT MAC_S,");
  EXPECT_TRUE(error("Field name/value provided at location 1 is NULL TableName : DEVICEINFO\n"));
}

TEST_F(Statements, ComposedReadsReturnTheRawResultOrTheMappedStatus) {
  char **cells = nullptr;
  int32_t rows = -1, columns = -1;
  auto read = [&](const char *sql) { return db_readTableContent(sql, &cells, &rows, &columns); };
  ASSERT_EQ(read("SELECT TABLENAME_S,TIMESTAMP FROM CMAINFO ORDER BY 1"), 0);
  ASSERT_EQ(std::pair(rows, columns), std::pair(2, 2));
  adbtest::Row got;
  for (int i = 0; i < 6; ++i) got.push_back(cells[i] ? adbtest::Cell(cells[i]) : std::nullopt);
  EXPECT_EQ(got, (adbtest::Row{"TABLENAME_S", "TIMESTAMP", "DEVICEINFO", "1000.5", "MESHTOPO",
                               std::nullopt}));

  // Freeing resets the variable, so a second call through it does nothing. (No matching row,
  // and the statuses of a read that fails, which hands out no result:
  // Operation.StatusOfEveryOutcomeAndABusyDatabaseAtOnce.)
  db_freeTableOutput(&cells);
  EXPECT_EQ(cells, nullptr);
  db_freeTableOutput(&cells);
  db_freeTableOutput(nullptr);

  log().clear();
  for (const char *blank : {static_cast<const char *>(nullptr), ""}) EXPECT_EQ(read(blank), 1);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Read Query length is zero or NULL \n"), 2u);
  EXPECT_EQ(db_readTableContent("SELECT 1", nullptr, &rows, &columns), 1);
  EXPECT_EQ(read("SELECT * FROM MISSING"), 5);
  EXPECT_TRUE(error("Read failed SELECT * FROM MISSING\n"));

  // A database that cannot be opened: the open status, logged at debug level.
  ASSERT_EQ(db_closeDbConnection(), 0);
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/analytics.db").c_str()), 0);
  EXPECT_EQ(read("SELECT * FROM CMAINFO"), 6);
  EXPECT_TRUE(logged(RYX_LOG_DEBUG, "DB Open failed for table SELECT * FROM CMAINFO"));
}

// Hostile names and values through every writer, with the escaper's cuts: test_hostile_input.cpp.
TEST_F(Statements, WritesInsertThenUpdateByKeyKeepingNullColumnsAndDoublingQuotes) {
  EXPECT_EQ(write({"aa:bb", "tv", "-40", "12.75"}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement(
      "INSERT INTO  DEV (MAC_S,HOST_S,RSSI,TXRATE)  VALUES('aa:bb','tv',-40,12.75)"));
  log().clear();
  EXPECT_EQ(write({"AA:BB", nullptr, "-51", nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,RSSI)  VALUES('AA:BB',-51)"));
  EXPECT_TRUE(loggedStatement("UPDATE  DEV  SET  RSSI=-51  WHERE   MAC_S LIKE 'AA:BB'"));
  // A null value keeps its column; numbers are written bare.
  EXPECT_EQ(raw().query("SELECT MAC_S, HOST_S, RSSI, typeof(RSSI), TXRATE FROM DEV"),
            (adbtest::Rows{{"aa:bb", "tv", "-51", "integer", "12.75"}}));

  EXPECT_EQ(write({"q1", "it's", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,HOST_S)  VALUES('q1','it''s')"));
  EXPECT_TRUE(logged(RYX_LOG_DEBUG, "converted value with quote [it's] to [it''s] "));
  // (Stored as given: HostileInputTest.EveryWriterStoresHostileNamesAsDataAndTouchesNothingElse.)

  // Incomplete arguments are refused, each check with its line.
  log().clear();
  Values names{"MAC_S"}, values{"aa"};
  char **n = names.data(), **v = values.data();
  EXPECT_EQ(db_writeTable(nullptr, "MAC_S", " LIKE ", n, v, 1), DB_STATUS_FAILURE);
  EXPECT_EQ(db_writeTable("DEV", "MAC_S", " LIKE ", n, v, 0), DB_STATUS_FAILURE);
  EXPECT_EQ(error("Write: Check tablename/ fieldnames / fieldvalues / number of fields\n"), 2u);
  EXPECT_EQ(db_writeTable("DEV", "MAC_S", " LIKE ", n, v, -1), DB_STATUS_FAILURE);
  EXPECT_TRUE(error("Insert: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));
  EXPECT_EQ(db_tryUpdate("DEV", nullptr, " LIKE ", n, v, 1), DB_STATUS_FAILURE);
  EXPECT_TRUE(error("Update: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));
  // An existing row written without its key cannot be updated.
  EXPECT_EQ(write({"y", "aa:bb"}, {"HOST_S", "MAC_S"}, "RSSI"), DB_STATUS_FAILURE);
  EXPECT_TRUE(error("Condition is mandatory for update\n"));
  EXPECT_EQ(error("Write: Cant Insert/Update this record\n"), 1u);
  EXPECT_EQ(db_writeQuery(nullptr), DB_STATUS_SUCCESS);

  // Compiled or not, a write sets every column it names, also those before the key; the key
  // matches as LIKE does (letter case ignored on any key, as text on a numeric one); and a write
  // without a key field is an INSERT.
  EXPECT_EQ(write({"radio", "aa:bb", "-60"}, {"HOST_S", "MAC_S", "RSSI"}), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT HOST_S || RSSI FROM DEV WHERE MAC_S = 'aa:bb'"), "radio-60");
  Values pair{"K_S", "V"};
  EXPECT_EQ(db_tryUpdate("CASED", "K_S", " LIKE ", pair.data(), Values{"AA", "2"}.data(), 2), 0);
  EXPECT_EQ(db_tryUpdate("NUMKEY", "K_S", " LIKE ", pair.data(), Values{"10.0", "2"}.data(), 2), 0);
  EXPECT_EQ(raw().scalar("SELECT (SELECT V FROM CASED) || (SELECT V FROM NUMKEY)"), "21");
  EXPECT_EQ(write({"nk"}, {"MAC_S"}, nullptr), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEV WHERE MAC_S = 'nk'"), "1");
  // A table name that is not a plain name is never compiled: its text runs as it stands, here an
  // INSERT of no value into the key, which stops the statements after it.
  EXPECT_EQ(db_tryInsert("DEV (MAC_S) VALUES(?);DELETE FROM DEV;--", Values{"MAC_S"}.data(),
                         Values{"zz"}.data(), 1),
            DB_STATUS_CONSTRAINT);
}

TEST_F(Statements, DeletesDropsTransactionsAndForeignKeys) {
  raw().exec("INSERT INTO DEV (MAC_S) VALUES ('aa'), ('bb'), ('cc')");
  EXPECT_EQ(db_deleteTableContent("DEV", "MAC_S", " LIKE ", "AA", nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV  WHERE  MAC_S LIKE 'AA'")) << log().dump();
  // A ready-made statement wins over the condition: aa went above, cc goes now, bb stays.
  const char *ready = "DELETE FROM DEV WHERE MAC_S='cc'";
  EXPECT_EQ(db_deleteTableContent("DEV", "MAC_S", " LIKE ", "bb", ready), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S) FROM DEV"), "bb");
  // A missing value empties the table: no WHERE clause (a table emptied so:
  // Delete.RemovesRowsByKeyInAnyCaseOrAllRows).
  EXPECT_EQ(db_deleteTableContent("DEV", "MAC_S", " LIKE ", nullptr, nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV"));

  EXPECT_EQ(db_deleteTableContent("NOPE", "MAC_S", " LIKE ", "aa", nullptr), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(error("Delete failed ret 5\n"));
  EXPECT_EQ(db_deleteTableContent(nullptr, "MAC_S", " LIKE ", "aa", nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(error("Delete: Check tablename\n"));

  // Transactions: with none open a commit fails and opens none; a nested BEGIN fails; a caller
  // may end its transaction with a statement of its own, after which there is nothing to commit
  // and later writes go on.
  const std::vector<int32_t> statuses = {
      db_commitTransaction(), db_beginTransaction(), db_beginTransaction(),
      write({"t1", "a", nullptr, nullptr}), db_write("ROLLBACK"), db_commitTransaction(),
      write({"t2", "b", nullptr, nullptr})};
  EXPECT_EQ(statuses, (std::vector<int32_t>{1, 0, 1, 0, 0, 1, 0}));
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S) FROM DEV"), "t2");

  EXPECT_EQ(db_setForeignKey(), DB_STATUS_SUCCESS);
  EXPECT_TRUE(logged(RYX_LOG_DEBUG, "Set Foreign Key enable"));

  // (The table gone, and a missing one dropped as well:
  // Delete.DropsAlsoOfMissingTablesAndTheirReplaysWithTheirHistoricNames.)
  EXPECT_EQ(db_dropTable("DEV"), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DROP TABLE IF EXISTS  DEV"));
  EXPECT_EQ(db_dropTable(nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(error("Drop: Check tablename\n"));
}
