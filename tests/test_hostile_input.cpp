// test_hostile_input.cpp - hostile device names through every inventory writer.
//
// Each name is written twice through every writer (an INSERT, then the UPDATE of the same key),
// once as the key and once as the value of every text column. Whatever the name, the writer
// returns a status, never touches another table, and touches other rows only where the key is a
// LIKE pattern that matches them (keys match with LIKE by design). What lands in the file is the
// name itself, or, when it holds a quote, the name cut to the escaper's bound. The same writes,
// and the series writes, leave the same file, statuses and log with and without the statement
// cache.
// (Reads of such text into record fields: ResultApi and InventoryReads.)
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "../fuzz/fuzz_common.h"
#include "support/inventory_writers.h"

namespace {

using adbtest::InventoryWriter;
using adbtest::Row;
using adbtest::Rows;
using adbtest::Values;

constexpr size_t kInsertListRoom = 2999;  // characters of the INSERT value list
constexpr size_t kUpdateListRoom = 3999;  // characters of the UPDATE assignment list

bool isTextColumn(const std::string &column) { return column.find("_S") != std::string::npos; }

// What the file holds after the value was written into a text column: the value, or, when it
// holds a quote, the value cut to the escaper's bounds (the fuzz targets share the model).
std::string storedText(const std::string &value) {
  return fuzz::unescaped(fuzz::literalBody(value));
}

// Characters the value takes in the statement: a text literal has its quotes doubled and is
// quoted itself.
size_t renderedSize(const std::string &column, const std::string &value) {
  return isTextColumn(column) ? fuzz::literalBody(value).size() + 2 : value.size();
}

// Each table with its key column. Every table holds a bystander row before each write; only a
// LIKE pattern may reach it.
const std::map<std::string, std::string> kKeyColumn = {
    {"DEVICEINFO", "MAC_S"}, {"MESHTOPO", "MAC_S"}, {"CLIENTS", "MAC_S"},
    {"SUBSCRIBERINFO", "SERIALNUMBER_S"}, {"DEVICETHRESHOLD", "DEVICECLASS_S"},
    {"CMAINFO", "TABLENAME_S"}};
constexpr const char *kBystanderKey = "aa:bb:cc:dd:ee:ff";
// The key of the writes that carry the name as a value.
constexpr const char *kPlainKey = "11:22:33:44:55:66";

std::string withQuoteAt(size_t length, size_t position) {
  std::string text(length, 'a');
  text[position] = '\'';
  return text;
}

std::vector<std::string> hostileNames() {
  std::vector<std::string> names = {
      // Statements, format directives and quoting smuggled in, and text beyond ASCII.
      "'); DROP TABLE DEVICEINFO;--", "x' OR '1'='1", "%s%n%x%p%%%-99999d", "it's", "'", "''",
      "\\'; --", "Wohnzimmer-TV \xe2\x80\x9e"
      "Bravia\xe2\x80\x9c \xe2\x80\x94 \xe6\x97\xa5\xe6\x9c\xac "
      "\xf0\x9f\x99\x82 l'\xc3\xa9t\xc3\xa9",
      // Longer than any list; with the key and one text column these fill the INSERT value list
      // exactly, and by one character more; quotes only.
      std::string(4096, 'x'), std::string(2977, 'y'), std::string(2978, 'y'),
      std::string(600, '\''),
      // Keys that are LIKE patterns.
      "%", "_", "aa:bb:cc:dd:ee:f_", "AA:BB%", "%%'%%"};
  // Quotes at and around the 1022-character cut, in values just short of and past it.
  for (size_t at = 1016; at <= 1026; ++at) names.push_back(withQuoteAt(1030, at));
  for (size_t length : {1021u, 1022u, 1023u}) names.push_back(withQuoteAt(length, length - 1));
  names.push_back(std::string(1020, 'a') + "''");  // escaped, one character past the cut
  std::string quotedEvery(4096, 'q');
  for (size_t i = 0; i < quotedEvery.size(); i += 97) quotedEvery[i] = '\'';
  names.push_back(quotedEvery);
  // Multi-byte characters across the cut: the file keeps the bytes it was given.
  std::string utf8;
  while (utf8.size() < 1030) utf8 += "\xc3\xa9'";
  names.push_back(utf8);
  return names;
}

// Values of one write: `key` first, then `text` in text columns and `number` elsewhere.
std::vector<std::string> valuesFor(const InventoryWriter &writer, const std::string &key,
                                   const std::string &text, const std::string &number) {
  std::vector<std::string> values{key};
  for (size_t i = 1; i < writer.columns.size(); ++i) {
    values.push_back(isTextColumn(writer.columns[i]) ? text : number);
  }
  return values;
}

// Whether the write's INSERT value list fits and, for an `update`, its UPDATE assignment list.
// Each write composes its INSERT first, so that too must fit before any UPDATE runs.
bool fits(const InventoryWriter &writer, const std::vector<std::string> &values, bool update) {
  size_t insert = writer.columns.size() - 1, assign = writer.columns.size() - 2;  // the commas
  for (size_t i = 0; i < writer.columns.size(); ++i) {
    insert += renderedSize(writer.columns[i], values[i]);
    if (i > 0) assign += writer.columns[i].size() + 1 + renderedSize(writer.columns[i], values[i]);
  }
  // The condition is sized from the unescaped key: a key whose escaped form is longer loses
  // its closing quote.
  const bool keyFits = renderedSize(writer.columns[0], values[0]) <= values[0].size() + 2;
  return insert <= kInsertListRoom && (!update || (keyFits && assign <= kUpdateListRoom));
}

using Snapshot = std::map<std::string, Rows>;

class HostileInputTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    createInventoryTables();
    // Hundreds of writes: durability is not what this test is about, composition is.
    ASSERT_EQ(db_writeQuery("PRAGMA synchronous = OFF"), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_writeQuery("PRAGMA journal_mode = MEMORY"), DB_STATUS_SUCCESS);
    raw().exec("PRAGMA synchronous = OFF");
    // Statements of several KiB each would pile up in the captured debug lines.
    ryxLogSetLevel(RYX_LOG_NOTICE);
  }

  // The schema and every table's rows.
  Snapshot snapshot() {
    Snapshot tables{
        {"schema", raw().query("SELECT type, name, sql FROM sqlite_master ORDER BY name")}};
    for (const auto &[table, key] : kKeyColumn) {
      tables[table] = raw().query("SELECT rowid, * FROM " + table + " ORDER BY rowid");
    }
    return tables;
  }

  void resetTables() {
    log().clear();
    std::string sql = "BEGIN;";
    for (const auto &[table, key] : kKeyColumn) {
      sql += "DELETE FROM " + table + "; INSERT INTO " + table + " (" + key + ") VALUES ('" +
             kBystanderKey + "');";
    }
    raw().exec(sql + "COMMIT;");
  }

  // The rowid and the text columns from `from` of the writer's rows whose key compares with
  // `key` through `match`.
  Rows textsByKey(const InventoryWriter &writer, size_t from, const char *match,
                  const std::string &key) {
    std::string list = "rowid";
    for (size_t i = from; i < writer.columns.size(); ++i) {
      if (isTextColumn(writer.columns[i])) list += "," + writer.columns[i];
    }
    return raw().query("SELECT " + list + " FROM " + writer.table + " WHERE " +
                       kKeyColumn.at(writer.table) + match + " ORDER BY rowid", {key});
  }

  // What textsByKey finds in the row `rowid` after a write of `values`.
  static Row storedTexts(const InventoryWriter &writer, const adbtest::Cell &rowid,
                         const std::vector<std::string> &values, size_t from) {
    Row row{rowid};
    for (size_t i = from; i < writer.columns.size(); ++i) {
      if (isTextColumn(writer.columns[i])) row.push_back(storedText(values[i]));
    }
    return row;
  }

  // A write of `key` with `text` in every text column, followed by the UPDATE of the same key
  // with `newText`, with every check of the file.
  void writeTwice(const InventoryWriter &writer, const std::string &key, const std::string &text,
                  const std::string &newText) {
    const std::vector<std::string> first = valuesFor(writer, key, text, "1");
    const std::vector<std::string> second = valuesFor(writer, key, newText, "2");
    resetTables();
    const Snapshot before = snapshot();
    Snapshot last = before;
    // The schema and every table but the writer's.
    auto others = [&writer](Snapshot tables) {
      tables.erase(writer.table);
      return tables;
    };
    // Writes `values`, to be refused unless they fit: a refused write leaves the file as it was,
    // one that succeeds changes no table but the writer's.
    auto write = [&](const std::vector<std::string> &values, bool fit) {
      EXPECT_EQ(writer.write(Values(values).data()), fit ? DB_STATUS_SUCCESS : DB_STATUS_FAILURE);
      Snapshot now = snapshot();
      EXPECT_EQ(fit ? others(now) : now, fit ? others(last) : last) << "refused: " << !fit;
      last = std::move(now);
      return fit;
    };

    if (!write(first, fits(writer, first, false))) return;
    const Rows was = last[writer.table];
    ASSERT_EQ(was.size(), 2u);
    EXPECT_EQ(was.front(), before.at(writer.table).front()) << "the bystander row changed";
    const std::string stored = storedText(key);
    EXPECT_EQ(textsByKey(writer, 0, " = ?", stored), Rows{storedTexts(writer, was[1][0], first, 0)})
        << "the new row, found by its key";

    // The UPDATE reaches every row whose key matches the stored key as a LIKE pattern.
    Rows reachable;
    for (const Row &row : textsByKey(writer, 1, " LIKE ?", stored)) {
      reachable.push_back(storedTexts(writer, row[0], second, 1));
    }
    if (!write(second, fits(writer, second, true))) return;
    const Rows &is = last[writer.table];
    ASSERT_EQ(is.size(), was.size());
    for (size_t r = 0; r < is.size(); ++r) {
      if (std::ranges::none_of(reachable, [&](const Row &row) { return row[0] == is[r][0]; })) {
        EXPECT_EQ(is[r], was[r]) << "row " << r << " changed without matching the key";
      }
    }
    EXPECT_EQ(textsByKey(writer, 1, " LIKE ?", stored), reachable);
  }
};

// Keys that are LIKE patterns ("%", "_", ...) update every row they match, the bystander row
// included, and only those.
TEST_F(HostileInputTest, EveryWriterStoresHostileNamesAsDataAndTouchesNothingElse) {
  for (const InventoryWriter &listed : adbtest::inventoryWriters()) {
    const InventoryWriter writer = adbtest::withColumns(listed, raw());
    for (const std::string &name : hostileNames()) {
      SCOPED_TRACE(std::string(writer.api) + " with \"" + name.substr(0, 40) + "\" (" +
                   std::to_string(name.size()) + " bytes)");
      writeTwice(writer, name, "first", "second");
      writeTwice(writer, kPlainKey, name, "x" + name);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
  EXPECT_EQ(queueCount, 0) << "nothing met a busy database, so nothing may wait";
}

// Every write family, hostile values included, once with the statement cache and once without:
// the two runs must leave the same bytes in the file, return the same statuses and log the same
// lines, at debug level (every text composed) and at notice level (texts composed only for
// error lines).
TEST_F(HostileInputTest, StatementCacheOnAndOffWriteTheSameFileStatusesAndLog) {
  std::vector<InventoryWriter> writers;
  std::ranges::transform(adbtest::inventoryWriters(), std::back_inserter(writers),
                         [this](InventoryWriter w) { return adbtest::withColumns(w, raw()); });
  const char *const numbers[] = {"1.5", "-7", "007", "-0", "1e3", "+5", " 5", "0x10", "-", "",
                                 "abc", "123456789012345678", "1234567890123456789",
                                 "99999999999999999999", "2-1", "1 OR 1"};
  using Write = int32_t (*)(char **);
  uint32_t kept = 0;  // compiled statements the cache held at the end
  auto workload = [&](std::vector<int32_t> &statuses) {
    auto sample = [&statuses](Write write, bool rssi, const std::string &mac, int slot,
                              const char *value) {
      std::vector<std::string> values{mac, "LAN", std::to_string(1700000000 + slot),
                                      std::to_string(slot), value};
      if (rssi) values.erase(values.begin() + 1);  // RSSI samples name no source
      statuses.push_back(write(Values(values).data()));
    };
    statuses.push_back(db_writeQuery("PRAGMA synchronous = OFF"));
    createInventoryTables();
    createSeriesTables();
    statuses.push_back(db_beginTransaction());
    for (const InventoryWriter &writer : writers) {
      for (int round = 0; round < 2; ++round) {  // INSERT, then the UPDATE of the same key
        const char *number = round == 0 ? "1" : "-2";
        for (const std::string &name : hostileNames()) {
          statuses.push_back(writer.write(Values(valuesFor(writer, name, "k", number)).data()));
          statuses.push_back(
              writer.write(Values(valuesFor(writer, kPlainKey, name, number)).data()));
        }
        for (const char *value : numbers) {
          statuses.push_back(writer.write(Values(valuesFor(writer, "Num:Key", "t", value)).data()));
        }
      }
    }
    const std::tuple<Write, Write, bool> series[] = {
        {db_updateRssi, db_updateRssiSlotDefaultValue, true},
        {db_updateBandWidthRx, db_updateRxSlotDefaultValue, false},
        {db_updateBandWidthTx, db_updateTxSlotDefaultValue, false}};
    for (auto [write, fill, rssi] : series) {
      for (const char *mac : {"AA:00", "aa:00", "BB:%", "CC:''"}) {
        for (int slot : {0, 287, 288, 1000, 2015, 2016, -1}) {
          for (const char *v : {"-40", "7", "1.5", "x'y", ""}) sample(write, rssi, mac, slot, v);
        }
        for (auto range : {std::pair{"10", "20"}, {"0", "287"}, {"280", "290"}, {"x", "5"}}) {
          statuses.push_back(fill(Values({mac, range.first, range.second}).data()));
        }
      }
    }
    statuses.push_back(db_commitTransaction());
    // A day table dropped and made again at run time, then written through the same shapes.
    statuses.push_back(db_dropTable("RSSI4"));
    sample(db_updateRssi, true, "AA:00", 1000, "-41");
    statuses.push_back(db_createRssiTab(4, 288));
    sample(db_updateRssi, true, "AA:00", 1000, "-42");
    // Parked behind a busy database, then replayed in order.
    {
      adbtest::BusyHolder busy(dbPath());
      sample(db_updateBandWidthRx, false, "DD:01", 1001, "5000");
      statuses.push_back(db_updateDeviceInfoCapacity(Values({"DD:01", "77"}).data()));
      statuses.push_back(db_updateRssiSlotDefaultValue(Values({"DD:01", "1002", "1010"}).data()));
    }
    EXPECT_GT(queueCount, 0);
    for (int i = 0; i < 8 && queueCount > 0; ++i) statuses.push_back(db_processQueueEntry());
    EXPECT_EQ(queueCount, 0);
    // Schema changes below empty the cache, so its figures are read first.
    uint32_t bytes = 0;
    db_getStatementCacheFigures(&kept, &bytes);
    // Lists just past the text path's cuts, which only it may write: 288 slot assignments, and
    // a 3000-character INSERT column list, for a new row and for an existing one.
    std::vector<std::string> slots{"MAC_S"}, sixes{"AA:00"};
    for (int slot = 1; slot <= 288; ++slot) {
      slots.push_back("SLOT" + std::to_string(slot));
      sixes.push_back("123456");
    }
    statuses.push_back(
        db_tryUpdate("RSSI1", "MAC_S", " LIKE ", Values(slots).data(), Values(sixes).data(), 289));
    const std::string wide(1496, 'w'), wider(1497, 'v');
    const std::string table = "CREATE TABLE W (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, " +
                              wide + ", " + wider + "); INSERT INTO W (MAC_S) VALUES ('old')";
    statuses.push_back(db_writeQuery(table.c_str()));
    for (const char *key : {"new", "old"}) {
      statuses.push_back(db_writeTable("W", "MAC_S", " LIKE ",
                                       Values({"MAC_S", wide.c_str(), wider.c_str()}).data(),
                                       Values({key, "1", "2"}).data(), 3));
    }
    // A kept UPDATE whose table another connection drops.
    const InventoryWriter &last = writers.back();
    for (int round = 0; round < 3; ++round) {
      if (round == 2) adbtest::RawDb(dbPath()).exec("DROP TABLE " + std::string(last.table));
      statuses.push_back(last.write(Values(valuesFor(last, "Dropped:Key", "t", "1")).data()));
    }
    statuses.push_back(db_closeDbConnection());
  };

  for (int level : {RYX_LOG_DEBUG, RYX_LOG_NOTICE}) {
    SCOPED_TRACE("log level " + std::to_string(level));
    std::vector<int32_t> statuses[2];
    std::vector<std::string> logs[2];
    std::string files[2];
    for (int cached = 0; cached < 2; ++cached) {
      ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
      std::filesystem::remove(dbPath());
      db_setStatementCache(cached);
      ryxLogSetLevel(level);
      log().clear();
      workload(statuses[cached]);
      ASSERT_FALSE(HasFatalFailure());
      for (const adbtest::LogLine &line : log().lines()) logs[cached].push_back(line.text);
      std::ifstream file(dbPath(), std::ios::binary);
      files[cached].assign(std::istreambuf_iterator<char>(file), {});
      EXPECT_EQ(kept > 0, cached == 1);
    }
    db_setStatementCache(1);
    ryxLogSetLevel(RYX_LOG_DEBUG);
    EXPECT_EQ(statuses[0], statuses[1]);
    EXPECT_TRUE(files[0] == files[1]) << "the files differ";
    EXPECT_EQ(logs[0], logs[1]);
  }
}

}  // namespace
