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

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kGuardBytes = 16;

// Runs `compose` on a buffer of `size` bytes filled with `fill` and followed by guard bytes,
// checks that the guards are untouched and that the text stays terminated within `size`, and
// returns the text.
std::string composeWithin(int32_t size, const std::function<void(char *, int32_t)> &compose,
                          char fill = '\0') {
  std::vector<char> storage(static_cast<size_t>(size) + kGuardBytes, static_cast<char>(kGuard));
  std::memset(storage.data(), fill, static_cast<size_t>(size));
  compose(storage.data(), size);
  for (size_t i = static_cast<size_t>(size); i < storage.size(); ++i) {
    EXPECT_EQ(static_cast<unsigned char>(storage[i]), kGuard) << "written past the buffer at " << i;
  }
  size_t length = strnlen(storage.data(), static_cast<size_t>(size));
  EXPECT_LT(length, static_cast<size_t>(size)) << "text not terminated inside the buffer";
  return std::string(storage.data(), length);
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
  db_selectFieldNames(query, size, nullptr, 0, "RSSI1");
}

const char kFullRead[] =
    "SELECT MAC_S,SLT_IND,SLOT1 FROM  PRIMITIVE_BANDWIDTHRX"
    "  LEFT JOIN  BANDWIDTHRX1  USING (MAC_S) "
    " WHERE SOURCE_S LIKE 'it''s' AND SLT_IND>3 UNION ALL SELECT  *  FROM  RSSI1";

}  // namespace

TEST(TextBuilder, CutsAtCapacityStaysCutAndNeverSplitsAQuotePair) {
  // Values are appended as data, never as formats.
  const std::string full = "SELECT abc-42!%s%n";
  for (int32_t capacity = 1; capacity <= 20; ++capacity) {
    const std::string text = composeWithin(
        capacity,
        [&](char *buffer, int32_t size) {
          adb::TextBuilder builder(buffer, static_cast<size_t>(size));
          builder.append("SELECT ").appendf("%s-%d", "abc", 42).append("!").append("%s%n");
          EXPECT_EQ(builder.length(), std::strlen(buffer)) << capacity;
          EXPECT_EQ(builder.truncated(), full.size() >= static_cast<size_t>(size)) << capacity;
        },
        'x');
    EXPECT_EQ(text, full.substr(0, static_cast<size_t>(capacity) - 1));
  }

  // Escaped text, and text escaped already, is cut between quote pairs only.
  const std::string value = "a'b''c'''d'";
  const std::string escaped = "a''b''''c''''''d''";
  for (int32_t capacity = 1; capacity <= static_cast<int32_t>(escaped.size()) + 2; ++capacity) {
    const std::string out = composeWithin(
        capacity,
        [&](char *buffer, int32_t size) {
          adb::TextBuilder(buffer, static_cast<size_t>(size)).appendEscaped(value.c_str());
        },
        'x');
    ASSERT_EQ(escaped.compare(0, out.size(), out), 0) << capacity;  // a prefix of the whole
    const size_t lastOther = out.find_last_not_of('\'');
    const size_t trailingQuotes =
        lastOther == std::string::npos ? out.size() : out.size() - lastOther - 1;
    EXPECT_EQ(trailingQuotes % 2, 0u) << "odd quote at cut, capacity " << capacity << ": " << out;
    EXPECT_EQ(composeWithin(capacity,
                            [&](char *buffer, int32_t size) {
                              adb::TextBuilder(buffer, static_cast<size_t>(size))
                                  .appendKeepingQuotePairs(escaped.c_str());
                            }),
              out)
        << capacity;
  }
}

TEST(SelectPieces, ComposeTheStatementTextAndCutItAtTheBufferSize) {
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

  // A field array with count 0 is a star select as well; pieces append to the buffer's text;
  // only " USING " joins: any other kind appends nothing and still succeeds.
  char query[64] = "SELECT";
  Values fields{"MAC_S"};
  db_selectQuery(query, 64);
  EXPECT_EQ(db_selectFieldNames(query, 64, fields.data(), 0, "CMAINFO"), 0);
  EXPECT_EQ(db_selectJoin(query, 64, "RSSI1", " ON ", "MAC_S"), 0);
  EXPECT_STREQ(query, "SELECTSELECT  *  FROM  CMAINFO");

  // A buffer whose text fills it without a terminator is left alone; a size of 0 or less writes
  // nothing at all.
  char filled[16];  // 8 bytes of text without a terminator, and 8 behind them
  std::memset(filled, 'x', sizeof filled);
  db_selectWhere(filled, 8);
  db_selectUnion(filled, 8);
  EXPECT_EQ(std::string(filled, sizeof filled), std::string(16, 'x'));
  char none[4] = {};
  db_selectQuery(none, 0);
  db_selectFieldNames(none, -5, nullptr, 0, "MESHTOPO");
  EXPECT_EQ(std::string(none, sizeof none), std::string(4, '\0'));
}

class Statements : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    raw().exec(
        "CREATE TABLE DEV (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, HOST_S TEXT, "
        "RSSI INTEGER, TXRATE REAL);"
        "CREATE TABLE CMAINFO (TABLENAME_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, "
        "TIMESTAMP REAL);"
        "INSERT INTO CMAINFO VALUES ('DEVICEINFO', 1000.5), ('MESHTOPO', NULL);");
  }
  int32_t write(Values values) {
    Values names{"MAC_S", "HOST_S", "RSSI", "TXRATE"};
    return db_writeTable("DEV", "MAC_S", " LIKE ", names.data(), values.data(), values.size());
  }
  bool loggedStatement(const std::string &statement) {
    return logged(RYX_LOG_DEBUG, "WRITE QUERY: " + statement);
  }
  adbtest::Cell macs() {
    return raw().scalar("SELECT group_concat(MAC_S) FROM (SELECT MAC_S FROM DEV ORDER BY MAC_S)");
  }
};

TEST_F(Statements, SelectPiecesRefuseMissingArgumentsLeavingTheBufferAsItWas) {
  char query[128] = "SELECT ";
  EXPECT_EQ(db_selectQuery(nullptr, 128), 1);
  EXPECT_EQ(db_selectWhere(nullptr, 128), 1);
  EXPECT_EQ(db_selectUnion(nullptr, 128), 1);
  EXPECT_EQ(db_selectCondtionConnection(query, 128, nullptr), 1);
  // One missing argument per function: the valid calls of the other tests show that the checks
  // let present arguments through.
  EXPECT_EQ(db_selectCondtion(query, 128, "MAC_S", nullptr, "x"), 1);
  EXPECT_EQ(db_selectJoin(query, 128, "RSSI1", " USING ", nullptr), 1);
  EXPECT_STREQ(query, "SELECT ");
  EXPECT_TRUE(log().lines().empty()) << log().dump();

  EXPECT_EQ(db_selectFieldNames(query, 128, nullptr, 0, nullptr), 1);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read Table name is mandatory for  \n"));
  EXPECT_EQ(db_selectFieldNames(nullptr, 128, nullptr, 0, "MESHTOPO"), 1);

  // A null name stops the list where it stands.
  Values fields{"MAC_S", nullptr, "ACTIVE"};
  EXPECT_EQ(db_selectFieldNames(query, 128, fields.data(), fields.size(), "DEVICEINFO"), 1);
  EXPECT_STREQ(query, "SELECT MAC_S,");
  EXPECT_TRUE(logged(RYX_LOG_ERROR,
                     "Field name/value provided at location 1 is NULL "
                     "TableName : DEVICEINFO\n"));
}

TEST_F(Statements, ComposedReadsReturnTheRawResultOrTheMappedStatus) {
  char **cells = nullptr;
  int32_t rows = -1, columns = -1;
  auto read = [&](const char *sql) { return db_readTableContent(sql, &cells, &rows, &columns); };
  ASSERT_EQ(read("SELECT TABLENAME_S,TIMESTAMP FROM CMAINFO ORDER BY 1"), 0);
  ASSERT_EQ(rows, 2);
  ASSERT_EQ(columns, 2);
  std::vector<adbtest::Cell> cellValues;
  for (int i = 0; i < 6; ++i) {
    cellValues.push_back(cells[i] ? adbtest::Cell(cells[i]) : std::nullopt);
  }
  EXPECT_EQ(cellValues, (std::vector<adbtest::Cell>{"TABLENAME_S", "TIMESTAMP", "DEVICEINFO",
                                                    "1000.5", "MESHTOPO", std::nullopt}));
  db_freeResult(&cells);

  // No matching row is a success with no rows; freeing resets the variable, so a second call
  // through it does nothing.
  EXPECT_EQ(read("SELECT * FROM CMAINFO WHERE TABLENAME_S LIKE 'none'"), 0);
  EXPECT_EQ(rows, 0);
  db_freeTableOutput(&cells);
  EXPECT_EQ(cells, nullptr);
  db_freeTableOutput(&cells);
  db_freeTableOutput(nullptr);

  log().clear();
  EXPECT_EQ(read(nullptr), 1);
  EXPECT_EQ(read(""), 1);
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Read Query length is zero or NULL \n"), 2u);
  EXPECT_EQ(db_readTableContent("SELECT 1", nullptr, &rows, &columns), 1);
  EXPECT_EQ(read("SELECT * FROM MISSING"), 5);
  EXPECT_EQ(cells, nullptr);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read failed SELECT * FROM MISSING\n"));
  EXPECT_EQ(read("SELECT nonsense FROM"), 1);
  EXPECT_EQ(whileBusy([&] { return read("SELECT * FROM CMAINFO"); }), 3);
  EXPECT_EQ(cells, nullptr);

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
      "INSERT INTO  DEV (MAC_S,HOST_S,RSSI,TXRATE)  VALUES('aa:bb','tv',-40,12.75)"))
      << log().dump();
  log().clear();
  EXPECT_EQ(write({"AA:BB", nullptr, "-51", nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,RSSI)  VALUES('AA:BB',-51)"));
  EXPECT_TRUE(loggedStatement("UPDATE  DEV  SET  RSSI=-51  WHERE   MAC_S LIKE 'AA:BB'"))
      << log().dump();
  // A null value keeps its column; numbers are written bare.
  EXPECT_EQ(raw().query("SELECT MAC_S, HOST_S, RSSI, typeof(RSSI), TXRATE FROM DEV"),
            (adbtest::Rows{{"aa:bb", "tv", "-51", "integer", "12.75"}}));

  EXPECT_EQ(write({"q1", "it's", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("INSERT INTO  DEV (MAC_S,HOST_S)  VALUES('q1','it''s')"));
  EXPECT_TRUE(logged(RYX_LOG_DEBUG, "converted value with quote [it's] to [it''s] "));
  EXPECT_EQ(raw().scalar("SELECT HOST_S FROM DEV WHERE MAC_S = 'q1'"), "it's");

  // Incomplete arguments are refused, each check with its line.
  log().clear();
  Values names{"MAC_S"};
  Values values{"aa"};
  EXPECT_EQ(db_writeTable(nullptr, "MAC_S", " LIKE ", names.data(), values.data(), 1),
            DB_STATUS_FAILURE);
  EXPECT_EQ(db_writeTable("DEV", "MAC_S", " LIKE ", names.data(), values.data(), 0),
            DB_STATUS_FAILURE);
  EXPECT_EQ(logged(RYX_LOG_ERROR,
                   "Write: Check tablename/ fieldnames / fieldvalues / number "
                   "of fields\n"),
            2u);
  EXPECT_EQ(db_writeTable("DEV", "MAC_S", " LIKE ", names.data(), values.data(), -1),
            DB_STATUS_FAILURE);
  EXPECT_TRUE(
      logged(RYX_LOG_ERROR, "Insert: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));
  EXPECT_EQ(db_tryUpdate("DEV", nullptr, " LIKE ", names.data(), values.data(), 1),
            DB_STATUS_FAILURE);
  EXPECT_TRUE(
      logged(RYX_LOG_ERROR, "Update: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n"));
  // An existing row written without its key cannot be updated.
  Values keyless{"HOST_S", "MAC_S"};
  EXPECT_EQ(db_writeTable("DEV", "RSSI", " LIKE ", keyless.data(), Values{"y", "aa:bb"}.data(), 2),
            DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Condition is mandatory for update\n"));
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Write: Cant Insert/Update this record\n"), 1u);
  EXPECT_EQ(db_writeQuery(nullptr), DB_STATUS_SUCCESS);

  // Compiled or not, a write sets every column it names, also those before the key; the key
  // matches as LIKE does (letter case ignored on any key, as text on a numeric one); and a write
  // without a key field is an INSERT.
  Values order{"HOST_S", "MAC_S", "RSSI"};
  EXPECT_EQ(db_writeTable("DEV", "MAC_S", " LIKE ", order.data(),
                          Values{"radio", "aa:bb", "-60"}.data(), 3),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT HOST_S || RSSI FROM DEV WHERE MAC_S = 'aa:bb'"), "radio-60");
  raw().exec(
      "CREATE TABLE CASED (K_S TEXT PRIMARY KEY, V INTEGER); INSERT INTO CASED VALUES ('aa', 1);"
      "CREATE TABLE NUMKEY (K_S NUMERIC PRIMARY KEY COLLATE NOCASE, V INTEGER);"
      "INSERT INTO NUMKEY VALUES (10, 1);");
  Values pair{"K_S", "V"};
  EXPECT_EQ(db_tryUpdate("CASED", "K_S", " LIKE ", pair.data(), Values{"AA", "2"}.data(), 2),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(db_tryUpdate("NUMKEY", "K_S", " LIKE ", pair.data(), Values{"10.0", "2"}.data(), 2),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT (SELECT V FROM CASED) || (SELECT V FROM NUMKEY)"), "21");
  EXPECT_EQ(db_writeTable("DEV", nullptr, nullptr, names.data(), Values{"nk"}.data(), 1),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEV WHERE MAC_S = 'nk'"), "1");
}

TEST_F(Statements, DeletesByConditionOrAllRowsAndDropsTables) {
  for (const char *mac : {"aa", "bb", "cc"}) {
    ASSERT_EQ(write({mac, "h", "1", nullptr}), DB_STATUS_SUCCESS);
  }
  EXPECT_EQ(db_deleteTableContent("DEV", "MAC_S", " LIKE ", "AA", nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV  WHERE  MAC_S LIKE 'AA'")) << log().dump();
  EXPECT_EQ(macs(), "bb,cc");
  // A ready-made statement wins over the condition.
  EXPECT_EQ(
      db_deleteTableContent("DEV", "MAC_S", " LIKE ", "bb", "DELETE FROM DEV WHERE MAC_S='cc'"),
      DB_STATUS_SUCCESS);
  EXPECT_EQ(macs(), "bb");
  // A missing value empties the table.
  EXPECT_EQ(db_deleteTableContent("DEV", "MAC_S", " LIKE ", nullptr, nullptr), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DELETE FROM  DEV"));
  EXPECT_EQ(macs(), std::nullopt);

  EXPECT_EQ(db_deleteTableContent("NOPE", "MAC_S", " LIKE ", "aa", nullptr), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Delete failed ret 5\n"));
  EXPECT_EQ(db_deleteTableContent(nullptr, "MAC_S", " LIKE ", "aa", nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Delete: Check tablename\n"));

  EXPECT_EQ(db_dropTable("DEV"), DB_STATUS_SUCCESS);
  EXPECT_TRUE(loggedStatement("DROP TABLE IF EXISTS  DEV"));
  EXPECT_FALSE(raw().tableExists("DEV"));
  EXPECT_EQ(db_dropTable("DEV"), DB_STATUS_SUCCESS);  // missing: still fine
  EXPECT_EQ(db_dropTable(nullptr), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Drop: Check tablename\n"));
}

TEST_F(Statements, TransactionsBracketWritesAndForeignKeysSwitchOn) {
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // closed: a commit does not open
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_beginTransaction(), DB_STATUS_FAILURE);  // nested BEGIN
  EXPECT_EQ(write({"t1", "a", nullptr, nullptr}), DB_STATUS_SUCCESS);
  // A caller may end its transaction with a statement of its own; later writes go on.
  EXPECT_EQ(db_write("ROLLBACK"), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);  // nothing to commit
  EXPECT_EQ(write({"t2", "b", nullptr, nullptr}), DB_STATUS_SUCCESS);
  EXPECT_EQ(macs(), "t2");

  EXPECT_EQ(db_setForeignKey(), DB_STATUS_SUCCESS);
  EXPECT_TRUE(logged(RYX_LOG_DEBUG, "Set Foreign Key enable"));
}
