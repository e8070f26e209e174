// SELECT composition in a caller's buffer, and running a composed read.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace {

using adbtest::Values;

constexpr unsigned char kGuard = 0xA5;
constexpr size_t kGuardBytes = 16;

// Runs `compose` on a zeroed buffer of `size` bytes followed by guard bytes, checks that the
// guards are untouched and that the text stays terminated within `size`, and returns the text.
std::string composeWithin(int32_t size, const std::function<void(char *, int32_t)> &compose) {
  std::vector<char> storage(static_cast<size_t>(size) + kGuardBytes, static_cast<char>(kGuard));
  std::memset(storage.data(), 0, static_cast<size_t>(size));
  compose(storage.data(), size);
  for (size_t i = static_cast<size_t>(size); i < storage.size(); ++i) {
    EXPECT_EQ(static_cast<unsigned char>(storage[i]), kGuard) << "written past the buffer at " << i;
  }
  size_t length = strnlen(storage.data(), static_cast<size_t>(size));
  EXPECT_LT(length, static_cast<size_t>(size)) << "text not terminated inside the buffer";
  return std::string(storage.data(), length);
}

void startWith(char *query, const char *text) { std::memcpy(query, text, std::strlen(text) + 1); }

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

TEST(SelectPieces, ComposeTheStatementTextWithTheirExactBlanks) {
  EXPECT_EQ(composeWithin(512, composeFullRead), kFullRead);

  // A field array with count 0 is a star select as well; pieces append to the buffer's text.
  EXPECT_EQ(composeWithin(64,
                          [](char *q, int32_t size) {
                            Values fields{"MAC_S"};
                            startWith(q, "SELECT");
                            db_selectQuery(q, size);
                            EXPECT_EQ(db_selectFieldNames(q, size, fields.data(), 0, "CMAINFO"), 0);
                          }),
            "SELECTSELECT  *  FROM  CMAINFO");

  // Only " USING " joins; any other kind appends nothing and still succeeds.
  EXPECT_EQ(composeWithin(64,
                          [](char *q, int32_t size) {
                            startWith(q, "SELECT ");
                            EXPECT_EQ(db_selectJoin(q, size, "RSSI1", " ON ", "MAC_S"), 0);
                          }),
            "SELECT ");
}

class SelectArguments : public adbtest::DbTest {};

TEST_F(SelectArguments, RefuseMissingArgumentsLeavingTheBufferAsItWas) {
  char query[128] = "SELECT ";
  EXPECT_EQ(db_selectQuery(nullptr, 128), 1);
  EXPECT_EQ(db_selectWhere(nullptr, 128), 1);
  EXPECT_EQ(db_selectUnion(nullptr, 128), 1);
  EXPECT_EQ(db_selectCondtionConnection(query, 128, nullptr), 1);
  EXPECT_EQ(db_selectCondtion(query, 128, nullptr, " LIKE ", "x"), 1);
  EXPECT_EQ(db_selectCondtion(query, 128, "MAC_S", nullptr, "x"), 1);
  EXPECT_EQ(db_selectCondtion(query, 128, "MAC_S", " LIKE ", nullptr), 1);
  EXPECT_EQ(db_selectJoin(query, 128, "RSSI1", nullptr, "MAC_S"), 1);
  EXPECT_EQ(db_selectJoin(query, 128, "RSSI1", " USING ", nullptr), 1);
  EXPECT_STREQ(query, "SELECT ");
  EXPECT_TRUE(log().lines().empty()) << log().dump();

  EXPECT_EQ(db_selectFieldNames(query, 128, nullptr, 0, nullptr), 1);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Read Table name is mandatory for  \n"));
  EXPECT_EQ(db_selectFieldNames(nullptr, 128, nullptr, 0, "MESHTOPO"), 1);

  // A null name stops the list where it stands.
  Values fields{"MAC_S", nullptr, "ACTIVE"};
  EXPECT_EQ(db_selectFieldNames(query, 128, fields.data(), fields.size(), "DEVICEINFO"), 1);
  EXPECT_STREQ(query, "SELECT MAC_S,");
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] Field name/value provided at location 1 is NULL "
                        "TableName : DEVICEINFO\n"));
}

TEST(SelectPieces, CutAtTheBufferSizeAndNeverWritePastIt) {
  const std::string full = kFullRead;
  // Every size cuts the same text at its own end, without a byte past the buffer.
  for (int32_t size = 1; size <= static_cast<int32_t>(full.size()) + 1; ++size) {
    std::string text = composeWithin(size, composeFullRead);
    std::string expected = full.substr(0, static_cast<size_t>(size) - 1);
    // Inside the quoted value the cut never separates the two quotes of a pair; the byte the
    // pair could not use takes the first blank of the next piece.
    if (expected.ends_with("'it'")) expected.back() = ' ';
    ASSERT_EQ(text, expected) << "size " << size;
  }

  // A buffer whose text fills it without a terminator is left alone.
  std::string untouched = composeWithin(8, [](char *q, int32_t size) {
    std::memset(q, 'x', 8);
    db_selectWhere(q, size);
    db_selectUnion(q, size);
    q[7] = '\0';
  });
  EXPECT_EQ(untouched, "xxxxxxx");

  // A size of 0 or less writes nothing at all.
  EXPECT_EQ(composeWithin(4,
                          [](char *q, int32_t) {
                            db_selectQuery(q, 0);
                            db_selectFieldNames(q, -5, nullptr, 0, "MESHTOPO");
                          }),
            "");
}

class ReadTableContent : public adbtest::DbTest {};

TEST_F(ReadTableContent, ReturnsTheRawResultOrTheMappedStatus) {
  raw().exec(
      "CREATE TABLE CMAINFO (TABLENAME_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, TIMESTAMP REAL);"
      "INSERT INTO CMAINFO VALUES ('DEVICEINFO', 1000.5), ('MESHTOPO', NULL);");

  char **cells = nullptr;
  int32_t rows = -1;
  int32_t columns = -1;
  ASSERT_EQ(db_readTableContent("SELECT TABLENAME_S,TIMESTAMP FROM CMAINFO ORDER BY 1", &cells,
                                &rows, &columns),
            0);
  ASSERT_EQ(rows, 2);
  ASSERT_EQ(columns, 2);
  std::vector<adbtest::Cell> read;
  for (int i = 0; i < 6; ++i) read.push_back(cells[i] ? adbtest::Cell(cells[i]) : std::nullopt);
  EXPECT_EQ(read, (std::vector<adbtest::Cell>{"TABLENAME_S", "TIMESTAMP", "DEVICEINFO", "1000.5",
                                              "MESHTOPO", std::nullopt}));
  db_freeResult(&cells);

  // No matching row is a success with no rows.
  cells = nullptr;
  EXPECT_EQ(db_readTableContent("SELECT * FROM CMAINFO WHERE TABLENAME_S LIKE 'none'", &cells,
                                &rows, &columns),
            0);
  EXPECT_EQ(rows, 0);
  db_freeTableOutput(&cells);
  EXPECT_EQ(cells, nullptr);
  db_freeTableOutput(&cells);  // a second call through the reset variable does nothing
  db_freeTableOutput(nullptr);

  log().clear();
  EXPECT_EQ(db_readTableContent(nullptr, &cells, &rows, &columns), 1);
  EXPECT_EQ(db_readTableContent("", &cells, &rows, &columns), 1);
  EXPECT_EQ(log().count(RYX_LOG_ERROR, "[analyticsDB] Read Query length is zero or NULL \n"), 2u);
  EXPECT_EQ(db_readTableContent("SELECT 1", nullptr, &rows, &columns), 1);

  EXPECT_EQ(db_readTableContent("SELECT * FROM MISSING", &cells, &rows, &columns), 5);
  EXPECT_EQ(cells, nullptr);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Read failed SELECT * FROM MISSING\n"));

  EXPECT_EQ(db_readTableContent("SELECT nonsense FROM", &cells, &rows, &columns), 1);

  {
    adbtest::BusyHolder holder(dbPath());
    EXPECT_EQ(db_readTableContent("SELECT * FROM CMAINFO", &cells, &rows, &columns), 3);
    EXPECT_EQ(cells, nullptr);
  }

  // A database that cannot be opened: the open status, logged at debug level.
  ASSERT_EQ(db_closeDbConnection(), 0);
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/analytics.db").c_str()), 0);
  log().clear();
  EXPECT_EQ(db_readTableContent("SELECT * FROM CMAINFO", &cells, &rows, &columns), 6);
  EXPECT_TRUE(
      log().has(RYX_LOG_DEBUG, "[analyticsDB] DB Open failed for table SELECT * FROM CMAINFO"));
}
