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

class Series : public adbtest::ApiTest {
 protected:
  void SetUp() override {
    ApiTest::SetUp();
    createSeriesTables();
  }
  // One receive and one transmit sample of `mac` at `slot`.
  void bandwidth(const std::string &mac, const char *source, int32_t slot, uint64_t value) {
    std::string slotText = std::to_string(slot);
    std::string valueText = std::to_string(value);
    std::string time = std::to_string(1700000000u + slot * kSlotSeconds);
    Values sample{mac.c_str(), source, time.c_str(), slotText.c_str(), valueText.c_str()};
    ASSERT_EQ(db_updateBandWidthRx(sample.data()), DB_STATUS_SUCCESS) << log().dump();
    ASSERT_EQ(db_updateBandWidthTx(sample.data()), DB_STATUS_SUCCESS);
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
  EXPECT_EQ(db_findIndexLimits(1000, 1000, 10, &start, &end), DB_STATUS_FAILURE);
  EXPECT_EQ(db_findIndexLimits(1001, 1000, 10, &start, &end), DB_STATUS_FAILURE);
  EXPECT_EQ(start, -9);  // untouched
  EXPECT_EQ(db_findIndexLimits(1000, 1001, 10, &start, &end), DB_STATUS_SUCCESS);
  EXPECT_EQ(end, 10);
  // {start, end, end slot, start slot}: a partial slot is one slot; a span wraps past the end of
  // the week; one longer than a week is the whole week.
  const uint32_t cases[][4] = {{1000, 1001, 10, 10},      {0, 900, 10, 8},
                               {0, 901, 10, 7},           {0, 1500, 2, 2014},
                               {0, 30 * 86400, 100, 101}, {0, 30 * 86400, 2016, 1}};
  for (const auto &c : cases) {
    EXPECT_EQ(db_findIndexLimits(c[0], c[1], static_cast<int32_t>(c[2]), &start, &end), 0);
    EXPECT_EQ(start, static_cast<int32_t>(c[3])) << c[1] << " " << c[2];
  }

  // Packing keeps time order and narrows to 32 bits: 2^32 + 5 keeps its low 32 bits, 2^31
  // comes back sign-extended, the rest is cleared.
  auto record = std::make_unique<BandWidthRecord>();
  for (int32_t k = 1; k <= kWeek; ++k) record->slots[k - 1] = static_cast<uint64_t>(k);
  record->slots[2015] = (1ull << 32) + 5;  // slot 2016
  record->slots[0] = 1ull << 31;           // slot 1
  EXPECT_EQ(db_adjustSlotRate(record.get(), 2014, 3), 0);
  ASSERT_EQ(record->slotCount, 6u);
  EXPECT_EQ(std::vector<uint64_t>(record->slots, record->slots + 7),
            (std::vector<uint64_t>{2014, 2015, 5, 0xFFFFFFFF80000000ull, 2, 3, 0}));
  // A start past the week leaves the record as it is.
  EXPECT_EQ(db_adjustSlotRate(record.get(), kWeek + 1, 3), 0);
  EXPECT_EQ(record->slotCount, 6u);
}

TEST_F(Series, SlotWritesNameTheirDayAndColumnAndDefaultFillsZeroOneDay) {
  EXPECT_EQ(db_updateRssi(Values{"aa:01", "1700000000", "289", "-61"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT289 FROM RSSI2 WHERE MAC_S='aa:01'"), "-61");
  EXPECT_EQ(raw().scalar("SELECT SLT_IND || ',' || TIMESTAMP FROM PRIMITIVE_RSSI"),
            "289,1700000000");

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
  log().clear();
  EXPECT_EQ(db_updateRssiSlotDefaultValue(Values{"aa:02", "1", "288"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT5 FROM RSSI1 WHERE MAC_S='aa:02'"), "0");
  EXPECT_EQ(log().countContaining("number of fields : 289"), 1u);
  EXPECT_EQ(db_updateRxSlotDefaultValue(Values{"aa:02", "288", "289"}.data()), DB_STATUS_SUCCESS);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Mismatch in table. start Idx [288] end Idx [289]\n"));
  EXPECT_EQ(db_updateTxSlotDefaultValue(Values{"aa:02", nullptr, "3"}.data()), DB_STATUS_SUCCESS);

  // A fill parked in the queue records its column count (its replay: the test below).
  Values part{"aa:02", "290", "300"};
  EXPECT_EQ(whileBusy([&] { return db_updateRssiSlotDefaultValue(part.data()); }), DB_STATUS_BUSY);
  ASSERT_NE(writeRequestQueue, nullptr);
  EXPECT_EQ(writeRequestQueue->fieldCount, 12);
  EXPECT_EQ(writeRequestQueue->functionId, 12);
}

// Each of the nine sample writers, parked on a busy file, replays as itself: into its own
// series and table, with its own meaning of the three or four values.
TEST_F(Series, ParkedSampleWritesReplayAsTheWriterThatParkedThem) {
  bandwidth("pk", "LAN", 2, 77);
  ASSERT_EQ(db_updateRssi(Values{"pk", "1700000600", "2", "-50"}.data()), DB_STATUS_SUCCESS);
  struct Case {
    int32_t (*write)(char **);
    Values values;
    const char *query;
    const char *expected;
  };
  const Case cases[] = {
      {db_updatePrimitiveRssi, {"pk", "1700009000", "30"}, "SLT_IND FROM PRIMITIVE_RSSI", "30"},
      {db_updateRssiSlot, {"pk", "6", "-61"}, "SLOT6 FROM RSSI1", "-61"},
      {db_updateRssiSlotDefaultValue, {"pk", "2", "3"}, "SLOT2 FROM RSSI1", "0"},
      {db_updatePrimitiveBandWidthRx, {"pk", "LAN", "1700009300", "31"},
       "SLT_IND FROM PRIMITIVE_BANDWIDTHRX", "31"},
      {db_updateBandWidthSlotRx, {"pk", "6", "33"}, "SLOT6 FROM BANDWIDTHRX1", "33"},
      {db_updateRxSlotDefaultValue, {"pk", "2", "3"}, "SLOT2 FROM BANDWIDTHRX1", "0"},
      {db_updatePrimitiveBandWidthTx, {"pk", "LAN", "1700009600", "32"},
       "SLT_IND FROM PRIMITIVE_BANDWIDTHTX", "32"},
      {db_updateBandWidthSlotTx, {"pk", "6", "44"}, "SLOT6 FROM BANDWIDTHTX1", "44"},
      {db_updateTxSlotDefaultValue, {"pk", "2", "3"}, "SLOT2 FROM BANDWIDTHTX1", "0"},
  };
  for (const Case &c : cases) {
    Values values = c.values;
    ASSERT_EQ(whileBusy([&] { return c.write(values.data()); }), DB_STATUS_BUSY) << c.query;
  }
  ASSERT_EQ(queueCount, 9);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS) << log().dump();
  for (const Case &c : cases) {
    EXPECT_EQ(raw().scalar(std::string("SELECT ") + c.query + " WHERE MAC_S='pk'"), c.expected)
        << c.query;
  }
}

TEST_F(Series, SpansInsideADayAcrossDaysAcrossTheWrapAndPastAMissingDay) {
  everyDay("aa:03", "LAN");
  for (int32_t slot : {100, 101, 102, 600, 2014, 2015, 2016, 1, 2, 3}) {
    bandwidth("aa:03", "LAN", slot, static_cast<uint64_t>(slot) * 10);
  }
  auto record = std::make_unique<BandWidthRecord>();
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 100, 102, record.get()), DB_STATUS_SUCCESS);
  EXPECT_EQ(std::vector<uint64_t>(record->slots, record->slots + 4),
            (std::vector<uint64_t>{1000, 1010, 1020, 0}));
  EXPECT_EQ(record->slotCount, 3u);
  EXPECT_STREQ(record->mac, "aa:03");

  *record = BandWidthRecord{};
  EXPECT_EQ(db_readTxStartToEnd("aa:03", 101, 600, record.get()), DB_STATUS_SUCCESS);  // days 1..3
  EXPECT_EQ(record->slotCount, 500u);
  EXPECT_EQ(record->slots[499], 6000u);

  *record = BandWidthRecord{};
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 2014, 3, record.get()), DB_STATUS_SUCCESS);  // wraps
  ASSERT_EQ(record->slotCount, 6u);
  EXPECT_EQ(std::vector<uint64_t>(record->slots, record->slots + 6),
            (std::vector<uint64_t>{20140, 20150, 20160, 10, 20, 30}));

  // Both ends in one day: every day table is read once and nearly the whole week comes back.
  *record = BandWidthRecord{};
  log().clear();
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 102, 101, record.get()), DB_STATUS_SUCCESS);
  EXPECT_EQ(record->slotCount, 2016u);
  EXPECT_EQ(record->slots[0], 1020u);
  EXPECT_EQ(record->slots[2015], 1010u);
  EXPECT_EQ(log().countContaining("READ QUERY : SELECT  *  FROM  BANDWIDTHRX"), 7u);

  // A missing day table is skipped only on the receive side of a wrapping span; without a wrap
  // it fails on both sides.
  ASSERT_EQ(db_dropBandwidthRxTable(6), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_dropBandwidthTxTable(6), DB_STATUS_SUCCESS);
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
  EXPECT_EQ(wans, 0);
  EXPECT_EQ(record->slotCount, 77u);  // no WAN: untouched

  ryxLogSetLevel(RYX_LOG_NOTICE);  // tens of thousands of statements: keep the capture small
  ASSERT_EQ(db_writeQuery("PRAGMA synchronous = OFF"), DB_STATUS_SUCCESS);
  const int32_t ticks = 8 * 288 - 100;  // the latest sample lands in day 1 of the second week
  const char *devices[] = {"wan:00", "lan:01", "lan:02"};
  uint32_t statements = 0, bytes = 0, mostBytes = 0;
  for (int32_t tick = 0; tick < ticks; ++tick) {
    const std::string slot = std::to_string(tick % kWeek + 1);
    if (tick % 288 == 0) {
      const uint32_t day = static_cast<uint32_t>(db_findTable(tick % kWeek + 1));
      for (const char *word : {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"}) {
        ASSERT_EQ(db_dropTable((word + std::to_string(day)).c_str()), DB_STATUS_SUCCESS);
      }
      for (auto create : {db_createRssiTab, db_createRxBandWidth, db_createTxBandWidth}) {
        ASSERT_EQ(create(day, 288), DB_STATUS_SUCCESS);
      }
      ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
    }
    const std::string time = std::to_string(start + static_cast<uint32_t>(tick) * kSlotSeconds);
    for (int d = 0; d < 3; ++d) {
      std::string value = std::to_string(tick * 10 + d);
      Values sample{devices[d], d == 0 ? "WAN" : "LAN", time.c_str(), slot.c_str(), value.c_str()};
      ASSERT_EQ(db_updateBandWidthRx(sample.data()), DB_STATUS_SUCCESS) << tick;
    }
    Values wan{devices[0], "WAN", time.c_str(), slot.c_str(), "1000"};
    ASSERT_EQ(db_updateBandWidthTx(wan.data()), DB_STATUS_SUCCESS) << tick;
    Values rssi{devices[0], time.c_str(), slot.c_str(), "-50"};
    ASSERT_EQ(db_updateRssi(rssi.data()), DB_STATUS_SUCCESS) << tick;
    if (tick % 288 == 287 || tick == ticks - 1) {
      ASSERT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
    }
    ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
    ASSERT_GT(statements, 0u);
    ASSERT_LE(statements, 24u);
    ASSERT_LE(bytes, 768u * 1024u);
    mostBytes = std::max(mostBytes, bytes);
  }
  RecordProperty("statement_cache_peak_bytes", static_cast<int>(mostBytes));
  // A kept statement is handed out again, not compiled afresh: the shapes written every tick
  // have run many times.
  int mostRuns = 0;
  for (sqlite3_stmt *kept = sqlite3_next_stmt(database_connection, nullptr); kept != nullptr;
       kept = sqlite3_next_stmt(database_connection, kept)) {
    mostRuns = std::max(mostRuns, sqlite3_stmt_status(kept, SQLITE_STMTSTATUS_RUN, 0));
  }
  EXPECT_GE(mostRuns, 100);
  EXPECT_EQ(db_getStatementCacheFigures(nullptr, &bytes), DB_STATUS_FAILURE);
  EXPECT_EQ(db_getStatementCacheFigures(&statements, nullptr), DB_STATUS_FAILURE);
  const uint32_t latest = start + static_cast<uint32_t>(ticks - 1) * kSlotSeconds;
  const uint32_t endSlot = static_cast<uint32_t>((ticks - 1) % kWeek + 1);
  // A sample for rows that exist is written by UPDATEs alone: no INSERT is tried first.
  int inserts = 0;
  sqlite3_trace_v2(
      database_connection, SQLITE_TRACE_STMT,
      [](unsigned, void *count, void *, void *sql) {
        if (std::strncmp(static_cast<const char *>(sql), "INSERT", 6) == 0) {
          ++*static_cast<int *>(count);
        }
        return 0;
      },
      &inserts);
  const std::string lastTime = std::to_string(latest), lastSlot = std::to_string(endSlot);
  const std::string lastValue = std::to_string((ticks - 1) * 10);
  Values again{devices[0], "WAN", lastTime.c_str(), lastSlot.c_str(), lastValue.c_str()};
  ASSERT_EQ(db_updateBandWidthRx(again.data()), DB_STATUS_SUCCESS);  // the last sample once more
  sqlite3_trace_v2(database_connection, 0, nullptr, nullptr);
  EXPECT_EQ(inserts, 0);

  // A second WAN device is reported and left out: the first one's samples are read.
  everyDay("wan:01", "WAN");
  // The last hour, inside one day, and the last 24 hours, across the week's wrap.
  for (const uint32_t span : {3600u, 86400u}) {
    SCOPED_TRACE(span);
    *record = BandWidthRecord{};
    ASSERT_EQ(db_readBandWidthLatestRx("WAN", latest - span, record.get(), &wans),
              DB_STATUS_SUCCESS);
    EXPECT_EQ(wans, 1);
    EXPECT_STREQ(record->mac, "wan:00");
    EXPECT_EQ(record->endIndex, endSlot);
    EXPECT_EQ(record->startIndex > record->endIndex, span == 86400u);
    ASSERT_EQ(record->slotCount, span / kSlotSeconds);
    for (uint32_t i = 0; i < record->slotCount; ++i) {
      const int32_t tick = ticks - static_cast<int32_t>(record->slotCount - i);
      ASSERT_EQ(record->slots[i], static_cast<uint64_t>(tick * 10)) << i;
    }
  }
  EXPECT_EQ(log().countContaining("CMA Reading Rx tables failed"), 0u);
  EXPECT_EQ(log().count(RYX_LOG_ERROR, "More than MAX [1] WAN found in DB"), 2u);

  // A start after the latest sample is no span.
  EXPECT_EQ(db_readBandWidthLatestTx("WAN", 1800000000u, record.get(), &wans), DB_STATUS_FAILURE);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "Error throwed on finding start and end index on tx\n"));

  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
  EXPECT_EQ(statements, 0u);
  EXPECT_EQ(bytes, 0u);
}

// Day tables of 288 slots, and of fewer (the schema allows 1 to 299): every week read places
// each cell by its SLOTk name, in one join, or in two when the week's columns are more than a
// stock SQLite returns in one result.
class WeekReads : public adbtest::ApiTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(WeekReads, PlaceEverySlotByItsColumnName) {
  const int32_t slots = GetParam();
  ASSERT_EQ(db_createPrimitiveRssiTable(slots), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(slots), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthTxTable(slots), DB_STATUS_SUCCESS);
  const char *words[] = {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"};
  for (uint32_t day = 1; day <= 7; ++day) {
    for (auto create : {db_createRssiTab, db_createRxBandWidth, db_createTxBandWidth}) {
      ASSERT_EQ(create(day, slots), DB_STATUS_SUCCESS);
    }
  }
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
    for (auto write : {db_updatePrimitiveBandWidthRx, db_updatePrimitiveBandWidthTx}) {
      ASSERT_EQ(write(Values{macs[device], "WAN", "1700000000", "70"}.data()), 0);
    }
    for (int32_t series = 0; series < 3; ++series) {
      for (int32_t day = 1; day <= 7; ++day) {
        std::string columns = "MAC_S", values = "'" + std::string(macs[device]) + "'";
        for (int32_t k = (day - 1) * slots + 1; k <= day * slots; ++k) {
          columns += ",SLOT" + std::to_string(k);
          values += "," + std::to_string(valueOf(series, device, k));
        }
        sql += "INSERT INTO " + std::string(words[series]) + std::to_string(day) + "(" + columns +
               ") VALUES(" + values + ");";
      }
    }
  }
  raw().exec(sql + "COMMIT;");

  using WeekRead = std::function<int32_t(BandWidthRecord ***, int32_t *)>;
  struct Read {
    const char *name;
    int32_t series;
    int32_t rows;
    WeekRead read;
  };
  const Read reads[] = {
      {"db_readMacRssi", 0, 1, std::bind_front(db_readMacRssi, "AA:11")},
      {"db_readMacBandWidthRx", 1, 1, std::bind_front(db_readMacBandWidthRx, "aa:11")},
      {"db_readMacBandWidthTx", 2, 1, std::bind_front(db_readMacBandWidthTx, "aa:11")},
      {"db_readSourceDataRx", 1, 2, std::bind_front(db_readSourceDataRx, "WAN")},
      {"db_readSourceDataTx", 2, 2, std::bind_front(db_readSourceDataTx, "WAN")},
      {"db_readBandWidthRxTable", 1, 2, db_readBandWidthRxTable},
      {"db_readBandWidthTxTable", 2, 2, db_readBandWidthTxTable},
  };
  for (const Read &read : reads) {
    SCOPED_TRACE(read.name);
    BandWidthRecord **week = nullptr;
    int32_t rows = 0;
    ASSERT_EQ(read.read(&week, &rows), DB_STATUS_SUCCESS) << log().dump();
    for (int32_t r = 0; r < rows; ++r) {
      const int32_t device = std::string(week[r]->mac) == "aa:10" ? 0 : 1;
      EXPECT_EQ(week[r]->slotCount, 7u * slots);
      EXPECT_EQ(week[r]->slotIndex, 70);
      std::vector<uint64_t> expected(kWeek, 0), got(week[r]->slots, week[r]->slots + kWeek);
      for (int32_t k = 1; k <= 7 * slots; ++k) {
        expected[k - 1] = static_cast<uint64_t>(valueOf(read.series, device, k));
      }
      EXPECT_EQ(got, expected) << week[r]->mac;
    }
    EXPECT_EQ(rows, read.rows);
    db_freeBandWidthResult(&week, rows);
  }
}

INSTANTIATE_TEST_SUITE_P(DaysOf, WeekReads, ::testing::Values(288, 10));
