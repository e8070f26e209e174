/*
 * test_hostile_input.cpp - hostile device names through every inventory writer.
 *
 * Each name is written twice through every writer (an INSERT, then the UPDATE of the same key),
 * once as the key and once as the value of every text column. Whatever the name, the writer
 * returns a status, never touches another table, and touches other rows only where the key is a
 * LIKE pattern that matches them (keys match with LIKE by design). What lands in the file is the
 * name itself, or, when it holds a quote, the name cut to the escaper's bound; the library's reads
 * hand back the same text cut to their record fields.
 */
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace {

using adbtest::Cell;
using adbtest::Rows;
using adbtest::Values;

constexpr size_t kValueCut = 1022;        // a quoted value is cut to this many characters...
constexpr size_t kEscapedRoom = 1023;     // ...and escaped into this many (pairs kept whole)
constexpr size_t kInsertListRoom = 2999;  // characters of the INSERT value list
constexpr size_t kUpdateListRoom = 3999;  // characters of the UPDATE assignment list

bool isTextColumn(const std::string &column) { return column.find("_S") != std::string::npos; }

// The literal body the writer composes for a text value, quotes doubled.
std::string renderedBody(const std::string &value) {
  if (value.find('\'') == std::string::npos) return value;
  std::string out;
  for (char c : value.substr(0, kValueCut)) {
    std::string unit = c == '\'' ? "''" : std::string(1, c);
    if (out.size() + unit.size() > kEscapedRoom) break;
    out += unit;
  }
  return out;
}

// What the file holds after the value was written into a text column.
std::string storedText(const std::string &value) {
  std::string body = renderedBody(value), out;
  for (size_t i = 0; i < body.size(); ++i) {
    out += body[i];
    if (body[i] == '\'') ++i;
  }
  return out;
}

std::string renderedValue(const std::string &column, const std::string &value) {
  return isTextColumn(column) ? "'" + renderedBody(value) + "'" : value;
}

struct Writer {
  const char *name;
  int32_t (*write)(char **);
  const char *table;
  char **fields;
  int32_t count;
};

const Writer kWriters[] = {
    {"db_updateDeviceInfoTable", db_updateDeviceInfoTable, "DEVICEINFO", deviceInfoFields, 38},
    {"db_updateDeviceInfoPrimitiveFields", db_updateDeviceInfoPrimitiveFields, "DEVICEINFO",
     devInfoAddedStatusUpdate, 19},
    {"db_updateDeviceInfoLanFields", db_updateDeviceInfoLanFields, "DEVICEINFO", devInfoLanUpdate,
     7},
    {"db_updateDeviceInfoCapacity", db_updateDeviceInfoCapacity, "DEVICEINFO",
     devInfoCapacityUpdate, 2},
    {"db_updateDeviceInfoRssiFields", db_updateDeviceInfoRssiFields, "DEVICEINFO",
     devInfoRssiFields, 5},
    {"db_updateDeviceInfoBeaconFields", db_updateDeviceInfoBeaconFields, "DEVICEINFO",
     devInfoBeaconFields, 6},
    {"db_updateDeviceInfoOpsFields", db_updateDeviceInfoOpsFields, "DEVICEINFO", devInfoOpsFields,
     4},
    {"db_updateDeviceInfoPreferredBandFields", db_updateDeviceInfoPreferredBandFields,
     "DEVICEINFO", devInfoPreferredBandFields, 2},
    {"db_updateDeviceInfoBeaconFName", db_updateDeviceInfoBeaconFName, "DEVICEINFO",
     devInfoBeaconFnameFields, 2},
    {"db_updateDeviceInfoBandSteeringFields", db_updateDeviceInfoBandSteeringFields, "DEVICEINFO",
     devInfoBandSteeringFields, 2},
    {"db_updateDeviceInfoIsBridgedFields", db_updateDeviceInfoIsBridgedFields, "DEVICEINFO",
     devInfoIsBridgedFields, 2},
    {"db_updateMeshTopoTable", db_updateMeshTopoTable, "MESHTOPO", meshTopoFields, 9},
    {"db_updateClientsTable", db_updateClientsTable, "CLIENTS", clientsFields, 24},
    {"db_updateSubscriberInfoTable", db_updateSubscriberInfoTable, "SUBSCRIBERINFO",
     subscriberInfoFields, 2},
    {"db_updateDeviceThresholdTable", db_updateDeviceThresholdTable, "DEVICETHRESHOLD",
     deviceThresholdFields, 15},
    {"db_updateCmaInfoTable", db_updateCmaInfoTable, "CMAINFO", cmaInfoFields, 2},
};

const char *const kTables[] = {"DEVICEINFO", "MESHTOPO", "CLIENTS",
                               "SUBSCRIBERINFO", "DEVICETHRESHOLD", "CMAINFO"};
const std::map<std::string, std::string> kKeyColumn = {
    {"DEVICEINFO", "MAC_S"},        {"MESHTOPO", "MAC_S"},
    {"CLIENTS", "MAC_S"},           {"SUBSCRIBERINFO", "SERIALNUMBER_S"},
    {"DEVICETHRESHOLD", "DEVICECLASS_S"}, {"CMAINFO", "TABLENAME_S"}};
// Every table holds this row before each write; only a LIKE pattern may reach it.
constexpr const char *kBystanderKey = "aa:bb:cc:dd:ee:ff";

std::string withQuoteAt(size_t length, size_t position) {
  std::string text(length, 'a');
  text[position] = '\'';
  return text;
}

std::vector<std::string> hostileNames() {
  std::vector<std::string> names = {
      "'); DROP TABLE DEVICEINFO;--",
      "x' OR '1'='1",
      "%s%n%x%p%%%-99999d",
      "it's",
      "'",
      "''",
      "\\'; --",
      "Wohnzimmer-TV \xe2\x80\x9e" "Bravia\xe2\x80\x9c \xe2\x80\x94 \xe6\x97\xa5\xe6\x9c\xac "
      "\xf0\x9f\x99\x82 l'\xc3\xa9t\xc3\xa9",
      std::string(4096, 'x'),
      // With the key and one text column these fill the INSERT value list exactly, and by one
      // character more.
      std::string(2977, 'y'),
      std::string(2978, 'y'),
      std::string(600, '\''),
      "%",
      "_",
      "aa:bb:cc:dd:ee:f_",
      "AA:BB%",
      "%%'%%",
  };
  // Quotes at and around the 1022-character cut, in values just short of and past it.
  for (size_t position = 1016; position <= 1026; ++position) {
    names.push_back(withQuoteAt(1030, position));
  }
  names.push_back(withQuoteAt(1021, 1020));
  names.push_back(withQuoteAt(1022, 1021));
  names.push_back(withQuoteAt(1023, 1022));
  std::string quotedEvery(4096, 'q');
  for (size_t i = 0; i < quotedEvery.size(); i += 97) quotedEvery[i] = '\'';
  names.push_back(quotedEvery);
  // Multi-byte characters across the cut: the file keeps the bytes it was given.
  std::string utf8;
  while (utf8.size() < 1030) utf8 += "\xc3\xa9'";
  names.push_back(utf8);
  return names;
}

std::vector<std::string> columnsOf(const Writer &writer) {
  return std::vector<std::string>(writer.fields, writer.fields + writer.count);
}

// Values of one write: `key` first, then `text` in text columns and `number` elsewhere.
std::vector<std::string> valuesFor(const Writer &writer, const std::string &key,
                                   const std::string &text, const std::string &number) {
  std::vector<std::string> values{key};
  for (int32_t i = 1; i < writer.count; ++i) {
    values.push_back(isTextColumn(writer.fields[i]) ? text : number);
  }
  return values;
}

bool insertFits(const Writer &writer, const std::vector<std::string> &values) {
  size_t length = 0;
  for (int32_t i = 0; i < writer.count; ++i) {
    length += (i > 0 ? 1 : 0) + renderedValue(writer.fields[i], values[i]).size();
  }
  return length <= kInsertListRoom;
}

bool updateFits(const Writer &writer, const std::vector<std::string> &values) {
  // The condition is sized from the unescaped key: a key whose escaped form is longer loses
  // its closing quote.
  if (isTextColumn(writer.fields[0]) && renderedBody(values[0]).size() > values[0].size()) {
    return false;
  }
  size_t length = 0;
  for (int32_t i = 1; i < writer.count; ++i) {
    length += (i > 1 ? 1 : 0) + std::strlen(writer.fields[i]) + 1 +
              renderedValue(writer.fields[i], values[i]).size();
  }
  return length <= kUpdateListRoom;
}

class HostileInputTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ASSERT_EQ(db_createDeviceInfoTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_createMeshTopoTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_createClientsTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_createSubscriberInfoTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_createDeviceThresholdTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_createCmaInfoTable(), DB_STATUS_SUCCESS);
    ASSERT_EQ(sqlite3_open(dbPath().c_str(), &db_), SQLITE_OK);
    // Hundreds of writes: durability is not what this test is about, composition is.
    ASSERT_EQ(db_writeQuery("PRAGMA synchronous = OFF"), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_writeQuery("PRAGMA journal_mode = MEMORY"), DB_STATUS_SUCCESS);
    raw().exec("PRAGMA synchronous = OFF");
    // Statements of several KiB each would pile up in the captured debug lines.
    ryxLogSetLevel(RYX_LOG_NOTICE);
  }
  void TearDown() override {
    sqlite3_close(db_);
    DbTest::TearDown();
  }

  // Rows of a query with one bound text parameter (when given), in rowid order.
  Rows query(const std::string &sql, const std::string *parameter = nullptr) {
    sqlite3_stmt *statement = nullptr;
    Rows rows;
    EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
    if (parameter != nullptr) {
      sqlite3_bind_text(statement, 1, parameter->data(), static_cast<int>(parameter->size()),
                        SQLITE_TRANSIENT);
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
      adbtest::Row row;
      for (int c = 0; c < sqlite3_column_count(statement); ++c) {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(statement, c));
        row.push_back(text ? Cell(std::string(text, sqlite3_column_bytes(statement, c)))
                           : Cell());
      }
      rows.push_back(row);
    }
    sqlite3_finalize(statement);
    return rows;
  }

  std::map<std::string, Rows> snapshot() {
    std::map<std::string, Rows> tables;
    for (const char *table : kTables) {
      tables[table] = query(std::string("SELECT rowid, * FROM ") + table + " ORDER BY rowid");
    }
    tables["schema"] = query("SELECT type, name, sql FROM sqlite_master ORDER BY name");
    return tables;
  }

  void resetTables() {
    log().clear();
    std::string sql = "BEGIN;";
    for (const char *table : kTables) {
      sql += std::string("DELETE FROM ") + table + "; INSERT INTO " + table + " (" +
             kKeyColumn.at(table) + ") VALUES ('" + kBystanderKey + "');";
    }
    raw().exec(sql + "COMMIT;");
  }

  // The written columns of the rows of `table` whose key matches `pattern` with LIKE.
  Rows writtenColumns(const Writer &writer, const std::string &where, const std::string &key) {
    std::string list;
    for (int32_t i = 0; i < writer.count; ++i) list += (i > 0 ? "," : "") + std::string(writer.fields[i]);
    return query("SELECT " + list + " FROM " + writer.table + " WHERE " + kKeyColumn.at(writer.table) +
                     where + " ORDER BY rowid",
                 &key);
  }

  // One write followed by the UPDATE of the same key, with every check of the file.
  void writeTwice(const Writer &writer, const std::vector<std::string> &first,
                  const std::vector<std::string> &second) {
    const std::vector<std::string> columns = columnsOf(writer);
    resetTables();
    auto before = snapshot();

    const bool inserted = insertFits(writer, first);
    EXPECT_EQ(writer.write(Values(first).data()), inserted ? DB_STATUS_SUCCESS : DB_STATUS_FAILURE);
    auto afterInsert = snapshot();
    if (!inserted) {
      EXPECT_EQ(afterInsert, before) << "a refused INSERT changed the file";
      return;
    }
    for (const char *table : kTables) {
      if (table != std::string(writer.table)) {
        EXPECT_EQ(afterInsert[table], before[table]) << table;
      }
    }
    EXPECT_EQ(afterInsert["schema"], before["schema"]);
    ASSERT_EQ(afterInsert[writer.table].size(), before[writer.table].size() + 1);
    EXPECT_EQ(afterInsert[writer.table].front(), before[writer.table].front())
        << "the bystander row changed";
    const std::string storedKey = storedText(first[0]);
    Rows row = writtenColumns(writer, " = ?", storedKey);
    ASSERT_EQ(row.size(), 1u) << "the new row is not found by its key";
    for (int32_t i = 0; i < writer.count; ++i) {
      if (isTextColumn(columns[i])) {
        EXPECT_EQ(row[0][i], storedText(first[i])) << columns[i];
      }
    }

    // The UPDATE reaches every row whose key matches the stored key as a LIKE pattern.
    Rows matched = query(std::string("SELECT rowid FROM ") + writer.table + " WHERE " +
                             kKeyColumn.at(writer.table) + " LIKE ? ORDER BY rowid",
                         &storedKey);
    // The second write composes its INSERT first, so that too must fit before any UPDATE runs.
    const bool updated = insertFits(writer, second) && updateFits(writer, second);
    EXPECT_EQ(writer.write(Values(second).data()), updated ? DB_STATUS_SUCCESS : DB_STATUS_FAILURE);
    auto afterUpdate = snapshot();
    if (!updated) {
      EXPECT_EQ(afterUpdate, afterInsert) << "a refused UPDATE changed the file";
      return;
    }
    for (const char *table : kTables) {
      if (table != std::string(writer.table)) {
        EXPECT_EQ(afterUpdate[table], before[table]) << table;
      }
    }
    const Rows &was = afterInsert[writer.table];
    const Rows &is = afterUpdate[writer.table];
    ASSERT_EQ(is.size(), was.size());
    for (size_t r = 0; r < is.size(); ++r) {
      bool reached = std::find(matched.begin(), matched.end(), adbtest::Row{is[r][0]}) !=
                     matched.end();
      if (!reached) {
        EXPECT_EQ(is[r], was[r]) << "row " << r << " changed without matching the key";
      }
    }
    Rows reachedRows = query("SELECT " + [&] {
      std::string list;
      for (int32_t i = 1; i < writer.count; ++i) list += (i > 1 ? "," : "") + columns[i];
      return list;
    }() + " FROM " + writer.table + " WHERE " + kKeyColumn.at(writer.table) + " LIKE ?",
                             &storedKey);
    EXPECT_EQ(reachedRows.size(), matched.size());
    for (const auto &reachedRow : reachedRows) {
      for (int32_t i = 1; i < writer.count; ++i) {
        if (isTextColumn(columns[i])) {
          EXPECT_EQ(reachedRow[i - 1], storedText(second[i])) << columns[i];
        }
      }
    }
  }

  sqlite3 *db_ = nullptr;
};

// A `char **` of values where an empty Cell is a null entry.
class Nullable {
 public:
  explicit Nullable(const std::vector<Cell> &cells) {
    for (const Cell &cell : cells) storage_.push_back(cell.value_or(""));
    for (size_t i = 0; i < cells.size(); ++i) {
      pointers_.push_back(cells[i] ? storage_[i].data() : nullptr);
    }
  }
  char **data() { return pointers_.data(); }

 private:
  std::vector<std::string> storage_;
  std::vector<char *> pointers_;
};

std::string cut(const Cell &cell, size_t fieldSize) {
  return cell ? cell->substr(0, fieldSize - 1) : std::string();
}

TEST_F(HostileInputTest, EveryWriterStoresHostileNamesAsDataAndTouchesNothingElse) {
  const std::vector<std::string> names = hostileNames();
  for (const Writer &writer : kWriters) {
    for (const std::string &name : names) {
      SCOPED_TRACE(std::string(writer.name) + " with \"" + name.substr(0, 40) + "\" (" +
                   std::to_string(name.size()) + " bytes)");
      writeTwice(writer, valuesFor(writer, name, "first", "1"),
                 valuesFor(writer, name, "second", "2"));
      writeTwice(writer, valuesFor(writer, "11:22:33:44:55:66", name, "1"),
                 valuesFor(writer, "11:22:33:44:55:66", "x" + name, "2"));
      ASSERT_FALSE(HasFatalFailure());
    }
  }
  EXPECT_EQ(queueCount, 0) << "nothing met a busy database, so nothing may wait";
}

TEST_F(HostileInputTest, LikePatternKeysUpdateEveryRowTheyMatch) {
  // A key is matched with LIKE: "%" reaches the bystander row as well as its own.
  resetTables();
  ASSERT_EQ(db_updateMeshTopoTable(Values{"%", "id1", nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr}
                                       .data()),
            DB_STATUS_SUCCESS);
  ASSERT_EQ(db_updateMeshTopoTable(Values{"%", "id2", nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr}
                                       .data()),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().query("SELECT MAC_S, ID_S FROM MESHTOPO ORDER BY rowid"),
            (Rows{{Cell(kBystanderKey), Cell("id2")}, {Cell("%"), Cell("id2")}}));
  // "_" matches one character, so a one-character key leaves the 17-character bystander alone.
  ASSERT_EQ(db_updateDeviceInfoCapacity(Values{"_", "5"}.data()), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_updateDeviceInfoCapacity(Values{"_", "6"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().query("SELECT MAC_S, CAPACITY FROM DEVICEINFO ORDER BY rowid"),
            (Rows{{Cell(kBystanderKey), Cell()}, {Cell("_"), Cell("6")}}));
}

TEST_F(HostileInputTest, ReadsHandBackHostileTextCutToTheirRecordFields) {
  const std::vector<std::string> names = hostileNames();
  resetTables();
  int n = 0;
  for (const std::string &name : names) {
    // Short enough for the value list: one text value of up to 2 KiB per row.
    std::string value = name.substr(0, 2048);
    std::string key = "k" + std::to_string(n++);
    ASSERT_EQ(db_updateDeviceInfoBeaconFName(Values({key, value}).data()), DB_STATUS_SUCCESS);
    std::vector<Cell> mesh(9);
    mesh[0] = key;
    mesh[1] = value;  // ID_S
    ASSERT_EQ(db_updateMeshTopoTable(Nullable(mesh).data()), DB_STATUS_SUCCESS);
    std::vector<Cell> client(24);
    client[0] = key;
    client[10] = value;  // MIMO_S
    ASSERT_EQ(db_updateClientsTable(Nullable(client).data()), DB_STATUS_SUCCESS);
    // Reads by a hostile key: a status and nothing else, whatever the key does to the query.
    DeviceInfoRecord **devices = nullptr;
    int32_t rows = 0;
    int32_t status = db_readMacDeviceInfo(name.c_str(), &devices, &rows, 1);
    EXPECT_TRUE(status == DB_STATUS_SUCCESS || status == DB_STATUS_FAILURE ||
                status == DB_STATUS_EMPTY) << status;
    if (status == DB_STATUS_SUCCESS) db_freeDeviceInfoResult(&devices, rows);
    uint32_t timestamp = 7;
    status = db_readCmaInfoTimeStamp(name.c_str(), &timestamp);
    EXPECT_TRUE(status == DB_STATUS_SUCCESS || status == DB_STATUS_FAILURE) << status;
  }

  Rows expected = query("SELECT MAC_S, FRIENDLYNAME_S FROM DEVICEINFO ORDER BY rowid");
  DeviceInfoRecord **devices = nullptr;
  int32_t rows = 0;
  ASSERT_EQ(db_readDeviceInfoTable(&devices, &rows), DB_STATUS_SUCCESS);
  ASSERT_EQ(static_cast<size_t>(rows), expected.size());
  for (int32_t r = 0; r < rows; ++r) {
    EXPECT_EQ(devices[r]->mac, cut(expected[r][0], sizeof devices[r]->mac));
    EXPECT_EQ(devices[r]->friendlyName, cut(expected[r][1], sizeof devices[r]->friendlyName));
  }
  db_freeDeviceInfoResult(&devices, rows);

  expected = query("SELECT MAC_S, ID_S FROM MESHTOPO ORDER BY rowid");
  MeshTopoRecord **meshList = nullptr;
  ASSERT_EQ(db_readMeshTopoTable(&meshList, &rows), DB_STATUS_SUCCESS);
  ASSERT_EQ(static_cast<size_t>(rows), expected.size());
  for (int32_t r = 0; r < rows; ++r) EXPECT_EQ(meshList[r]->id, cut(expected[r][1], sizeof meshList[r]->id));
  db_freeMeshTopoResult(&meshList, rows);

  expected = query("SELECT MAC_S, MIMO_S FROM CLIENTS ORDER BY rowid");
  ClientCapabilityRecord **clients = nullptr;
  ASSERT_EQ(db_readClientsTable(&clients, &rows), DB_STATUS_SUCCESS);
  ASSERT_EQ(static_cast<size_t>(rows), expected.size());
  for (int32_t r = 0; r < rows; ++r) {
    EXPECT_EQ(clients[r]->mimo, cut(expected[r][1], sizeof clients[r]->mimo));
  }
  db_freeClientsResult(&clients, rows);
}

}  // namespace
