// The sample series: slot arithmetic, slot writes, single values, spans across the week's wrap,
// week reads, and the statement cache through eight days of ticks.
#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/api_cases.h"

namespace {

using adbtest::Values;

constexpr uint32_t kSlotSeconds = 300;
constexpr int32_t kWeek = 2016;

// A bandwidth sample of `mac` at `slot`, stamped `time`, through `write`.
int32_t sample(int32_t (*write)(char **), const std::string &mac, const char *source,
               uint32_t time, int32_t slot, uint64_t value) {
  const std::string t = std::to_string(time), k = std::to_string(slot), v = std::to_string(value);
  return write(Values{mac.c_str(), source, t.c_str(), k.c_str(), v.c_str()}.data());
}

// The day tables of the three series, by name and by creator.
const std::pair<const char *, int32_t (*)(uint32_t, int32_t)> kDayTables[] = {
    {"RSSI", db_createRssiTab}, {"BANDWIDTHRX", db_createRxBandWidth},
    {"BANDWIDTHTX", db_createTxBandWidth}};

// The slots a record holds, by its count.
std::vector<uint64_t> slotsOf(const BandWidthRecord &record) {
  return std::vector<uint64_t>(record.slots, record.slots + record.slotCount);
}

class Series : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    createSeriesTables();
  }
  // One receive and one transmit sample of `mac` at `slot`.
  void bandwidth(const std::string &mac, const char *source, int32_t slot, uint64_t value) {
    const uint32_t time = 1700000000u + static_cast<uint32_t>(slot) * kSlotSeconds;
    for (auto write : {db_updateBandWidthRx, db_updateBandWidthTx})
      ASSERT_EQ(sample(write, mac, source, time, slot, value), DB_STATUS_SUCCESS) << log().dump();
  }
  // Samples in every day table, so that a span may read any of them.
  void everyDay(const std::string &mac, const char *source) {
    for (int32_t day = 1; day <= 7; ++day) bandwidth(mac, source, (day - 1) * 288 + 1, 0);
  }
};

}  // namespace

TEST(SlotArithmetic, DayOfASlotIndexLimitsAndPacking) {
  const int32_t days[][2] = {{0, 0},   {1, 1},    {288, 1},  {289, 2},  {576, 2},
                             {577, 3}, {1729, 7}, {2016, 7}, {2017, 8}, {INT32_MAX, 7456541}};
  for (const auto &[slot, day] : days) EXPECT_EQ(db_findTable(slot), day) << slot;

  int32_t start = -9, end = -9;
  for (auto from : {1000u, 1001u}) EXPECT_EQ(db_findIndexLimits(from, 1000, 10, &start, &end), 1);
  EXPECT_EQ(start, -9);  // untouched
  // {start, end, end slot, start slot}: a partial slot is one slot; a span wraps past the end of
  // the week; one longer than a week is the whole week. The end slot is the latest one given.
  const int32_t cases[][4] = {{1000, 1001, 10, 10}, {0, 900, 10, 8},         {0, 901, 10, 7},
                              {0, 1500, 2, 2014},   {0, 2592000, 100, 101}, {0, 2592000, 2016, 1}};
  for (const auto &[from, to, latest, first] : cases) {
    EXPECT_EQ(db_findIndexLimits(from, to, latest, &start, &end), 0);
    EXPECT_EQ(std::pair(start, end), std::pair(first, latest)) << to;
  }

  // Packing keeps time order and narrows to 32 bits: 2^32 + 5 keeps its low 32 bits, 2^31
  // comes back sign-extended, the rest is cleared.
  auto record = std::make_unique<BandWidthRecord>();
  for (int32_t k = 1; k <= kWeek; ++k) record->slots[k - 1] = static_cast<uint64_t>(k);
  record->slots[2015] = (1ull << 32) + 5;  // slot 2016
  record->slots[0] = 1ull << 31;           // slot 1
  EXPECT_EQ(db_adjustSlotRate(record.get(), 2014, 3), 0);
  // A start past the week leaves the record as it is.
  EXPECT_EQ(db_adjustSlotRate(record.get(), kWeek + 1, 3), 0);
  EXPECT_EQ(slotsOf(*record), (std::vector<uint64_t>{2014, 2015, 5, 0xFFFFFFFF80000000ull, 2, 3}));
  EXPECT_EQ(record->slots[6], 0u);
}

TEST_F(Series, SlotWritesNameTheirDayAndColumnAndDefaultFillsZeroOneDay) {
  EXPECT_EQ(db_updateRssi(Values{"aa:01", "1700000000", "289", "-61"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().query("SELECT SLOT289,SLT_IND,TIMESTAMP FROM RSSI2 NATURAL JOIN PRIMITIVE_RSSI"),
            (adbtest::Rows{{"-61", "289", "1700000000"}}));

  EXPECT_EQ(db_updateRssiSlot(Values{"aa:01", "0", "5"}.data()), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Rssi table - slot index is empty\n"));
  EXPECT_EQ(db_updateBandWidthSlotTx(Values{"aa:01", nullptr, "5"}.data()), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "BandWithTx table - slot index is empty\n"));
  EXPECT_EQ(queueCount, 0);  // refused, not queued

  // The index row succeeds, the slot of day 8 has no table: the slot's status wins.
  EXPECT_EQ(db_updateRssi(Values{"aa:01", "1700000300", "2017", "1"}.data()), DB_STATUS_NO_TABLE);
  EXPECT_EQ(raw().scalar("SELECT SLT_IND FROM PRIMITIVE_RSSI"), "2017");

  // RSSI is read back as its low 16 bits.
  ASSERT_EQ(db_updateRssiSlot(Values{"aa:01", "300", "70000"}.data()), DB_STATUS_SUCCESS);
  uint16_t rssi = 0;
  EXPECT_EQ(db_readRssiSlotValue("AA:01", 300, &rssi), DB_STATUS_SUCCESS);
  EXPECT_EQ(rssi, 4464);
  uint64_t value = 99;
  EXPECT_EQ(db_readRxSlotValue("aa:01", 0, &value), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Cnt find tableIdx using slot index\n"));
  EXPECT_EQ(db_readRxSlotValue("nobody", 5, &value), DB_STATUS_EMPTY);
  EXPECT_EQ(value, 99u);

  // A default fill zeroes one day's slots; a range over two days is refused, and still 0.
  ASSERT_EQ(db_updateRssi(Values{"aa:02", "1700000000", "5", "42"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_updateRssiSlotDefaultValue(Values{"aa:02", "1", "288"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT5 FROM RSSI1 WHERE MAC_S='aa:02'"), "0");
  EXPECT_EQ(log().countContaining("number of fields : 289"), 1u);
  EXPECT_EQ(db_updateRxSlotDefaultValue(Values{"aa:02", "288", "289"}.data()), DB_STATUS_SUCCESS);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Mismatch in table. start Idx [288] end Idx [289]\n"));
  EXPECT_EQ(db_updateTxSlotDefaultValue(Values{"aa:02", nullptr, "3"}.data()), DB_STATUS_SUCCESS);
}

// Each of the nine sample writers, parked on a busy file, replays as itself: into its own
// series and table, with its own meaning of the three or four values.
TEST_F(Series, ParkedSampleWritesReplayAsTheWriterThatParkedThem) {
  bandwidth("pk", "LAN", 2, 77);
  ASSERT_EQ(db_updateRssi(Values{"pk", "1700000600", "2", "-50"}.data()), DB_STATUS_SUCCESS);
  struct Case {
    int32_t (*write)(char **);
    Values values;
    const char *query, *expected;
  };
  Case cases[] = {
      {db_updateRssiSlotDefaultValue, {"pk", "2", "12"}, "SLOT2 FROM RSSI1", "0"},
      {db_updatePrimitiveRssi, {"pk", "1700009000", "30"}, "SLT_IND FROM PRIMITIVE_RSSI", "30"},
      {db_updateRssiSlot, {"pk", "6", "-61"}, "SLOT6 FROM RSSI1", "-61"},
      {db_updatePrimitiveBandWidthRx, {"pk", "LAN", "1700009300", "31"},
       "SLT_IND FROM PRIMITIVE_BANDWIDTHRX", "31"},
      {db_updateBandWidthSlotRx, {"pk", "6", "33"}, "SLOT6 FROM BANDWIDTHRX1", "33"},
      {db_updateRxSlotDefaultValue, {"pk", "2", "3"}, "SLOT2 FROM BANDWIDTHRX1", "0"},
      {db_updatePrimitiveBandWidthTx, {"pk", "LAN", "1700009600", "32"},
       "SLT_IND FROM PRIMITIVE_BANDWIDTHTX", "32"},
      {db_updateBandWidthSlotTx, {"pk", "6", "44"}, "SLOT6 FROM BANDWIDTHTX1", "44"},
      {db_updateTxSlotDefaultValue, {"pk", "2", "3"}, "SLOT2 FROM BANDWIDTHTX1", "0"},
  };
  for (Case &c : cases)
    ASSERT_EQ(whileBusy([&] { return c.write(c.values.data()); }), DB_STATUS_BUSY) << c.query;
  ASSERT_EQ(queueCount, 9);
  // A parked fill keeps its three values and records its column count: the key and 11 slots.
  EXPECT_EQ(writeRequestQueue->fieldCount, 12);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS) << log().dump();
  for (const Case &c : cases)
    EXPECT_EQ(raw().scalar("SELECT " + std::string(c.query)), c.expected) << c.query;  // pk's only
}

TEST_F(Series, SpansInsideADayAcrossDaysAcrossTheWrapAndPastAMissingDay) {
  everyDay("aa:03", "LAN");
  for (int32_t slot : {100, 101, 102, 600}) bandwidth("aa:03", "LAN", slot, slot * 10u);
  auto record = std::make_unique<BandWidthRecord>();
  auto read = [&](auto spanRead, int32_t from, int32_t to) {
    *record = BandWidthRecord{};
    return spanRead("aa:03", from, to, record.get());
  };
  EXPECT_EQ(read(db_readRxStartToEnd, 100, 102), DB_STATUS_SUCCESS);
  // (The MAC this read puts in the record: the latest spans of
  // Series.EightDaysOfTicksKeepTheCacheBoundedAndReadBackAsLatestSpans, which read through it.)
  EXPECT_EQ(slotsOf(*record), (std::vector<uint64_t>{1000, 1010, 1020}));
  EXPECT_EQ(read(db_readTxStartToEnd, 101, 600), DB_STATUS_SUCCESS);  // days 1..3
  EXPECT_EQ(std::pair(record->slotCount, record->slots[499]), std::pair(500u, uint64_t{6000}));
  // A span across the week's wrap: the latest spans of
  // Series.EightDaysOfTicksKeepTheCacheBoundedAndReadBackAsLatestSpans.

  // Both ends in one day: every day table is read once and nearly the whole week comes back.
  log().clear();
  EXPECT_EQ(read(db_readRxStartToEnd, 102, 101), DB_STATUS_SUCCESS);
  const auto ends = std::tuple(record->slotCount, record->slots[0], record->slots[2015]);
  EXPECT_EQ(ends, std::tuple(2016u, 1020ull, 1010ull));
  EXPECT_EQ(log().countContaining("READ QUERY : SELECT  *  FROM  BANDWIDTHRX"), 7u);

  // A missing day table is skipped only on the receive side of a wrapping span; without a wrap
  // it fails on both sides.
  for (auto drop : {db_dropBandwidthRxTable, db_dropBandwidthTxTable}) ASSERT_EQ(drop(6), 0);
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 1500, 5, record.get()), DB_STATUS_SUCCESS);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read BandwidthRx table for day 6 failed Ret 5\n"));
  EXPECT_EQ(db_readTxStartToEnd("aa:03", 1500, 5, record.get()), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read BandwidthTx table for day 6 failed Ret 5\n"));
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Read BandwidthTx table failed. Check table content in DB\n"));
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 1500, 1700, record.get()), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Bandwidth Rx table read failed. Check table in DB\n"));
}

// Eight days of ticks as the gateway writes them: each new day's tables are dropped and made
// again as the ring of day tables turns, and every slot gets a receive sample of a WAN device
// and of two LAN devices, and an RSSI and a transmit sample of the WAN device. Every write
// succeeds, the compiled statements kept stay within the cache's bound (24 statements,
// 768 KiB), the latest spans read the WAN device's samples back in time order, also across the
// week's wrap, and closing the connection finalises every kept statement.
TEST_F(Series, EightDaysOfTicksKeepTheCacheBoundedAndReadBackAsLatestSpans) {
  auto record = std::make_unique<BandWidthRecord>();
  record->slotCount = 77;
  int32_t wans = -1;
  const uint32_t start = 1750000000u;
  EXPECT_EQ(db_readBandWidthLatestRx("WAN", start, record.get(), &wans), DB_STATUS_SUCCESS);
  EXPECT_EQ(std::pair(wans, record->slotCount), std::pair(0, 77u));  // no WAN: untouched

  ryxLogSetLevel(RYX_LOG_NOTICE);  // tens of thousands of statements: keep the capture small
  ASSERT_EQ(db_writeQuery("PRAGMA synchronous = OFF"), DB_STATUS_SUCCESS);
  const int32_t ticks = 8 * 288 - 100;  // the latest sample lands in day 1 of the second week
  const char *devices[] = {"wan:00", "lan:01", "lan:02"};
  // Device d's receive or transmit sample at `tick`.
  auto tickSample = [&](auto write, int d, int32_t tick) {
    const uint32_t time = start + static_cast<uint32_t>(tick) * kSlotSeconds;
    return sample(write, devices[d], d == 0 ? "WAN" : "LAN", time, tick % kWeek + 1,
                  static_cast<uint64_t>(tick * 10 + d));
  };
  auto rx = std::bind_front(tickSample, db_updateBandWidthRx);
  uint32_t statements = 0, bytes = 0;
  for (int32_t tick = 0; tick < ticks; ++tick) {
    if (tick % 288 == 0) {
      const uint32_t day = static_cast<uint32_t>(db_findTable(tick % kWeek + 1));
      for (const auto &[word, create] : kDayTables) {
        ASSERT_EQ(db_dropTable((word + std::to_string(day)).c_str()), DB_STATUS_SUCCESS);
        ASSERT_EQ(create(day, 288), DB_STATUS_SUCCESS);
      }
      ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
    }
    for (int d = 0; d < 3; ++d) ASSERT_EQ(rx(d, tick), DB_STATUS_SUCCESS) << tick;
    ASSERT_EQ(tickSample(db_updateBandWidthTx, 0, tick), DB_STATUS_SUCCESS) << tick;
    const std::string time = std::to_string(start + static_cast<uint32_t>(tick) * kSlotSeconds);
    Values rssi{devices[0], time.c_str(), std::to_string(tick % kWeek + 1).c_str(), "-50"};
    ASSERT_EQ(db_updateRssi(rssi.data()), DB_STATUS_SUCCESS) << tick;
    if (tick % 288 == 287 || tick == ticks - 1) {
      ASSERT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
    }
    ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
    ASSERT_TRUE(statements > 0 && statements <= 24 && bytes <= 768u * 1024u) << statements;
  }
  // A kept statement is handed out again, not compiled afresh: the shapes written every tick
  // have run many times.
  int mostRuns = 0;
  for (sqlite3_stmt *kept = nullptr; (kept = sqlite3_next_stmt(database_connection, kept));)
    mostRuns = std::max(mostRuns, sqlite3_stmt_status(kept, SQLITE_STMTSTATUS_RUN, 0));
  EXPECT_GE(mostRuns, 100);
  EXPECT_EQ(db_getStatementCacheFigures(nullptr, &bytes), DB_STATUS_FAILURE);
  EXPECT_EQ(db_getStatementCacheFigures(&statements, nullptr), DB_STATUS_FAILURE);
  const uint32_t latest = start + static_cast<uint32_t>(ticks - 1) * kSlotSeconds;
  const uint32_t endSlot = static_cast<uint32_t>((ticks - 1) % kWeek + 1);
  // A sample for rows that exist is written by UPDATEs alone: no INSERT is tried first.
  int inserts = 0;
  auto countInserts = [](unsigned, void *count, void *, void *sql) {
    *static_cast<int *>(count) += std::strncmp(static_cast<const char *>(sql), "INSERT", 6) == 0;
    return 0;
  };
  sqlite3_trace_v2(database_connection, SQLITE_TRACE_STMT, countInserts, &inserts);
  ASSERT_EQ(rx(0, ticks - 1), DB_STATUS_SUCCESS);  // the last sample once more
  sqlite3_trace_v2(database_connection, 0, nullptr, nullptr);
  EXPECT_EQ(inserts, 0);

  // A second WAN device is reported and left out: the first one's samples are read.
  everyDay("wan:01", "WAN");
  // The last hour, inside one day, and the last 24 hours, across the week's wrap.
  for (const uint32_t span : {3600u, 86400u}) {
    SCOPED_TRACE(span);
    *record = BandWidthRecord{};
    ASSERT_EQ(db_readBandWidthLatestRx("WAN", latest - span, record.get(), &wans), 0);
    const bool wraps = record->startIndex > record->endIndex;
    EXPECT_EQ(std::tuple(wans, std::string(record->mac), record->endIndex, wraps),
              std::tuple(1, "wan:00", endSlot, span == 86400u));
    std::vector<uint64_t> expected;
    for (int32_t tick = ticks - static_cast<int32_t>(span / kSlotSeconds); tick < ticks; ++tick)
      expected.push_back(static_cast<uint64_t>(tick * 10));
    EXPECT_EQ(slotsOf(*record), expected);
  }
  // A successful read logs no failure.
  EXPECT_EQ(log().countContaining("CMA Reading Rx tables failed"), 0u);
  EXPECT_EQ(log().count(RYX_LOG_ERROR, "More than MAX [1] WAN found in DB"), 2u);

  // A start after the latest sample is no span.
  EXPECT_EQ(db_readBandWidthLatestTx("WAN", 1800000000u, record.get(), &wans), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Error throwed on finding start and end index on tx\n"));

  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
  EXPECT_EQ(std::pair(statements, bytes), std::pair(0u, 0u));
}

// Day tables of 288 slots, and of fewer (the schema allows 1 to 299): every week read places
// each cell by its SLOTk name, in one join, or in two when the week's columns are more than a
// stock SQLite returns in one result.
class WeekReads : public adbtest::ApiTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(WeekReads, PlaceEverySlotByItsColumnName) {
  const int32_t slots = GetParam();
  for (auto create : {db_createPrimitiveRssiTable, db_createPrimitiveBandWidthRxTable,
                      db_createPrimitiveBandWidthTxTable})
    ASSERT_EQ(create(slots), DB_STATUS_SUCCESS);
  for (uint32_t day = 1; day <= 7; ++day)
    for (const auto &table : kDayTables) ASSERT_EQ(table.second(day, slots), DB_STATUS_SUCCESS);
  // Two devices, a distinct value in every slot of every day of every series, RSSI below 0;
  // the day rows are written past the library, whose slot writes assume 288-slot days.
  const char *macs[] = {"aa:10", "aa:11"};
  auto valueOf = [](int32_t series, int32_t device, int32_t k) {
    const int64_t value = 100000 * series + 10000 * device + k;
    return series == 0 ? -value : value;
  };
  std::string sql = "BEGIN;";
  for (int32_t device = 0; device < 2; ++device) {
    ASSERT_EQ(db_updatePrimitiveRssi(Values{macs[device], "1700000000", "70"}.data()), 0);
    for (auto write : {db_updatePrimitiveBandWidthRx, db_updatePrimitiveBandWidthTx})
      ASSERT_EQ(write(Values{macs[device], "WAN", "1700000000", "70"}.data()), 0);
    for (int32_t series = 0; series < 3; ++series)
      for (int32_t day = 1; day <= 7; ++day) {
        std::string columns = "MAC_S", values = "'" + std::string(macs[device]) + "'";
        for (int32_t k = (day - 1) * slots + 1; k <= day * slots; ++k) {
          columns += ",SLOT" + std::to_string(k);
          values += "," + std::to_string(valueOf(series, device, k));
        }
        sql += "INSERT INTO " + (kDayTables[series].first + std::to_string(day)) + "(" + columns +
               ") VALUES(" + values + ");";
      }
  }
  raw().exec(sql + "COMMIT;");

  // {read, series, rows}
  using WeekRead = std::function<int32_t(BandWidthRecord ***, int32_t *)>;
  const std::tuple<const char *, int32_t, int32_t, WeekRead> reads[] = {
      {"db_readMacRssi", 0, 1, std::bind_front(db_readMacRssi, "AA:11")},
      {"db_readMacBandWidthRx", 1, 1, std::bind_front(db_readMacBandWidthRx, "aa:11")},
      {"db_readMacBandWidthTx", 2, 1, std::bind_front(db_readMacBandWidthTx, "aa:11")},
      {"db_readSourceDataRx", 1, 2, std::bind_front(db_readSourceDataRx, "WAN")},
      {"db_readSourceDataTx", 2, 2, std::bind_front(db_readSourceDataTx, "WAN")},
      {"db_readBandWidthRxTable", 1, 2, db_readBandWidthRxTable},
      {"db_readBandWidthTxTable", 2, 2, db_readBandWidthTxTable},
  };
  for (const auto &[name, series, expectedRows, read] : reads) {
    SCOPED_TRACE(name);
    BandWidthRecord **week = nullptr;
    int32_t rows = 0;
    ASSERT_EQ(read(&week, &rows), DB_STATUS_SUCCESS) << log().dump();
    for (int32_t r = 0; r < rows; ++r) {
      const int32_t device = std::string(week[r]->mac) == "aa:10" ? 0 : 1;
      std::vector<uint64_t> expected(kWeek, 0), got(week[r]->slots, week[r]->slots + kWeek);
      for (int32_t k = 1; k <= 7 * slots; ++k) expected[k - 1] = valueOf(series, device, k);
      EXPECT_EQ(std::tuple(week[r]->slotCount, week[r]->slotIndex, got),
                std::tuple(7u * slots, 70, expected)) << week[r]->mac;
    }
    EXPECT_EQ(rows, expectedRows);
    db_freeBandWidthResult(&week, rows);
  }
  // A MAC that makes the week's query one character longer than its buffer: the cut statement
  // fails, it is not run whole.
  const std::string longMac(802, 'm');
  raw().exec("INSERT INTO PRIMITIVE_BANDWIDTHRX (MAC_S) VALUES ('" + longMac + "')");
  BandWidthRecord **none = nullptr;
  int32_t rows = 0;
  EXPECT_EQ(db_readMacBandWidthRx(longMac.c_str(), &none, &rows), DB_STATUS_FAILURE);
}

INSTANTIATE_TEST_SUITE_P(DaysOf, WeekReads, ::testing::Values(288, 10));
