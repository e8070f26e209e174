// The sample series: slot arithmetic, slot writes, single values, spans across the week's wrap.
#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace {

using adbtest::Values;

constexpr uint32_t kSlotSeconds = 300;
constexpr int32_t kWeek = 2016;

class Series : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
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

TEST(SlotArithmetic, IndexLimitsAtTheirEdges) {
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
}

TEST(SlotArithmetic, PackingKeepsTimeOrderAndNarrowsTo32Bits) {
  auto record = std::make_unique<BandWidthRecord>();
  for (int32_t k = 1; k <= kWeek; ++k) record->slots[k - 1] = static_cast<uint64_t>(k);
  record->slots[2015] = (1ull << 32) + 5;  // slot 2016
  record->slots[0] = 1ull << 31;           // slot 1
  EXPECT_EQ(db_adjustSlotRate(record.get(), 2014, 3), 0);
  ASSERT_EQ(record->slotCount, 6u);
  // 2^32 + 5 keeps its low 32 bits, 2^31 comes back sign-extended, the rest is cleared.
  EXPECT_EQ(std::vector<uint64_t>(record->slots, record->slots + 7),
            (std::vector<uint64_t>{2014, 2015, 5, 0xFFFFFFFF80000000ull, 2, 3, 0}));
}

TEST_F(Series, SlotWritesNameTheirDayAndColumn) {
  EXPECT_EQ(db_updateRssi(Values{"aa:01", "1700000000", "289", "-61"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT289 FROM RSSI2 WHERE MAC_S='aa:01'"), "-61");
  EXPECT_EQ(raw().scalar("SELECT SLT_IND || ',' || TIMESTAMP FROM PRIMITIVE_RSSI"),
            "289,1700000000");

  EXPECT_EQ(db_updateRssiSlot(Values{"aa:01", "0", "5"}.data()), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Rssi table - slot index is empty\n"));
  EXPECT_EQ(db_updateBandWidthSlotTx(Values{"aa:01", nullptr, "5"}.data()), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] BandWithTx table - slot index is empty\n"));
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
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "[analyticsDB] Cnt find tableIdx using slot index\n"));
  EXPECT_EQ(db_readRxSlotValue("nobody", 5, &value), DB_STATUS_EMPTY);
  EXPECT_EQ(value, 99u);
}

TEST_F(Series, DefaultFillZeroesOneDayAndRefusesTwo) {
  ASSERT_EQ(db_updateRssi(Values{"aa:02", "1700000000", "5", "42"}.data()), DB_STATUS_SUCCESS);
  log().clear();
  EXPECT_EQ(db_updateRssiSlotDefaultValue(Values{"aa:02", "1", "288"}.data()), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT5 FROM RSSI1"), "0");
  EXPECT_EQ(log().countContaining("number of fields : 289"), 1u);

  // Refused, and still 0.
  EXPECT_EQ(db_updateRxSlotDefaultValue(Values{"aa:02", "288", "289"}.data()), DB_STATUS_SUCCESS);
  EXPECT_TRUE(
      log().has(RYX_LOG_ERROR, "[analyticsDB] Mismatch in table. start Idx [288] end Idx [289]\n"));
  EXPECT_EQ(db_updateTxSlotDefaultValue(Values{"aa:02", nullptr, "3"}.data()), DB_STATUS_SUCCESS);

  // A fill parked in the queue records its column count and replays from its three values.
  Values part{"aa:02", "290", "300"};
  EXPECT_EQ(whileBusy([&] { return db_updateRssiSlotDefaultValue(part.data()); }), DB_STATUS_BUSY);
  ASSERT_NE(writeRequestQueue, nullptr);
  EXPECT_EQ(writeRequestQueue->fieldCount, 12);
  EXPECT_EQ(writeRequestQueue->functionId, 12);
  raw().exec("INSERT INTO RSSI2(MAC_S, SLOT295) VALUES('aa:02', 7)");
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT295 FROM RSSI2"), "0");
}

TEST_F(Series, SpansInsideADayAcrossDaysAndAcrossTheWrap) {
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
  std::vector<uint64_t> packed(record->slots, record->slots + 6);
  EXPECT_EQ(packed, (std::vector<uint64_t>{20140, 20150, 20160, 10, 20, 30}));

  // Both ends in one day: every day table is read once and nearly the whole week comes back.
  *record = BandWidthRecord{};
  log().clear();
  EXPECT_EQ(db_readRxStartToEnd("aa:03", 102, 101, record.get()), DB_STATUS_SUCCESS);
  EXPECT_EQ(record->slotCount, 2016u);
  EXPECT_EQ(record->slots[0], 1020u);
  EXPECT_EQ(record->slots[2015], 1010u);
  EXPECT_EQ(log().countContaining("READ QUERY : SELECT  *  FROM  BANDWIDTHRX"), 7u);
}

TEST_F(Series, WeekReadsReturnEverySlotOfTheSevenDays) {
  // 2016 slot columns and the index columns: more than a stock SQLite returns in one result.
  everyDay("aa:05", "WAN");
  everyDay("aa:06", "LAN");
  bandwidth("aa:05", "WAN", 2016, 77);
  bandwidth("aa:06", "LAN", 300, 66);
  BandWidthRecord **week = nullptr;
  int32_t rows = 0;
  ASSERT_EQ(db_readMacBandWidthRx("AA:05", &week, &rows), DB_STATUS_SUCCESS) << log().dump();
  ASSERT_EQ(rows, 1);
  EXPECT_EQ(week[0]->slotCount, 2016u);
  EXPECT_EQ(week[0]->slots[2015], 77u);
  EXPECT_EQ(week[0]->slotIndex, 2016);
  db_freeBandWidthResult(&week, rows);

  ASSERT_EQ(db_readBandWidthTxTable(&week, &rows), DB_STATUS_SUCCESS);
  ASSERT_EQ(rows, 2);
  for (int32_t r = 0; r < rows; ++r) {
    bool wan = std::string(week[r]->mac) == "aa:05";
    EXPECT_EQ(week[r]->slots[2015], wan ? 77u : 0u);
    EXPECT_EQ(week[r]->slots[299], wan ? 0u : 66u);
  }
  db_freeBandWidthResult(&week, rows);

  ASSERT_EQ(db_updateRssi(Values{"aa:07", "1700000000", "1900", "-70"}.data()), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_readMacRssi("aa:07", &week, &rows), DB_STATUS_SUCCESS);
  ASSERT_EQ(rows, 1);
  EXPECT_EQ(static_cast<int64_t>(week[0]->slots[1899]), -70);
  db_freeBandWidthResult(&week, rows);
}

TEST_F(Series, AMissingDayTableIsSkippedOnlyOnTheReceiveSide) {
  everyDay("aa:04", "LAN");
  ASSERT_EQ(db_dropBandwidthRxTable(6), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_dropBandwidthTxTable(6), DB_STATUS_SUCCESS);
  auto record = std::make_unique<BandWidthRecord>();
  EXPECT_EQ(db_readRxStartToEnd("aa:04", 1500, 5, record.get()), DB_STATUS_SUCCESS);
  EXPECT_TRUE(
      log().has(RYX_LOG_ERROR, "[analyticsDB] Read BandwidthRx table for day 6 failed Ret 5\n"));
  EXPECT_EQ(db_readTxStartToEnd("aa:04", 1500, 5, record.get()), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(
      log().has(RYX_LOG_ERROR, "[analyticsDB] Read BandwidthTx table for day 6 failed Ret 5\n"));
  EXPECT_TRUE(log().has(
      RYX_LOG_ERROR, "[analyticsDB] Read BandwidthTx table failed. Check table content in DB\n"));
  // Without a wrap a missing day fails on both sides.
  EXPECT_EQ(db_readRxStartToEnd("aa:04", 1500, 1700, record.get()), DB_STATUS_NO_TABLE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] Bandwidth Rx table read failed. Check table in DB\n"));
}

TEST_F(Series, LatestSpanReadsTheOneWanDevice) {
  auto record = std::make_unique<BandWidthRecord>();
  record->slotCount = 77;
  int32_t wans = -1;
  EXPECT_EQ(db_readBandWidthLatestRx("WAN", 1700000000u, record.get(), &wans), DB_STATUS_SUCCESS);
  EXPECT_EQ(wans, 0);
  EXPECT_EQ(record->slotCount, 77u);  // no WAN: untouched

  everyDay("wan-a", "WAN");
  bandwidth("wan-a", "WAN", 10, 5);
  everyDay("wan-b", "WAN");
  EXPECT_EQ(db_readBandWidthLatestRx("WAN", 1700000000u + 8 * kSlotSeconds, record.get(), &wans),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(wans, 1);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR, "More than MAX [1] WAN found in DB"));
  EXPECT_STREQ(record->mac, "wan-a");
  EXPECT_EQ(record->startIndex, 9u);
  EXPECT_EQ(record->endIndex, 10u);
  EXPECT_EQ(record->slotCount, 2u);
  EXPECT_EQ(record->slots[1], 5u);

  // A start after the latest sample is no span.
  EXPECT_EQ(db_readBandWidthLatestTx("WAN", 1800000000u, record.get(), &wans), DB_STATUS_FAILURE);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] Error throwed on finding start and end index on tx\n"));
}

TEST_F(Series, EightDaysOfSamplesReadBackAsTheLast24HoursInTimeOrder) {
  ryxLogSetLevel(RYX_LOG_NOTICE);  // tens of thousands of statements: keep the capture small
  const uint32_t start = 1750000000u;
  const int32_t ticks = 8 * 288 - 100;  // the latest sample lands in day 1 of the second week
  const char *devices[] = {"wan:00", "lan:01", "lan:02"};
  for (int32_t tick = 0; tick < ticks; ++tick) {
    if (tick % 288 == 0) {
      ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
    }
    std::string time = std::to_string(start + static_cast<uint32_t>(tick) * kSlotSeconds);
    std::string slot = std::to_string(tick % kWeek + 1);
    for (int d = 0; d < 3; ++d) {
      std::string value = std::to_string(tick * 10 + d);
      Values sample{devices[d], d == 0 ? "WAN" : "LAN", time.c_str(), slot.c_str(), value.c_str()};
      ASSERT_EQ(db_updateBandWidthRx(sample.data()), DB_STATUS_SUCCESS) << tick;
    }
    if (tick % 288 == 287 || tick == ticks - 1) {
      ASSERT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
    }
  }
  const uint32_t latest = start + static_cast<uint32_t>(ticks - 1) * kSlotSeconds;
  auto record = std::make_unique<BandWidthRecord>();
  int32_t wans = 0;
  ASSERT_EQ(db_readBandWidthLatestRx("WAN", latest - 86400, record.get(), &wans),
            DB_STATUS_SUCCESS);
  EXPECT_EQ(wans, 1);
  EXPECT_EQ(record->endIndex, static_cast<uint32_t>((ticks - 1) % kWeek + 1));
  EXPECT_GT(record->startIndex, record->endIndex);  // the span wraps
  ASSERT_EQ(record->slotCount, 288u);
  for (int32_t i = 0; i < 288; ++i) {
    int32_t tick = ticks - 288 + i;
    ASSERT_EQ(record->slots[i], static_cast<uint64_t>(tick * 10)) << i;
  }
}

// Day tables of fewer slots than a day's 288 (the schema allows 1 to 299): every week read
// places each cell by its SLOTk name, in one join or two.
using ShortDays = adbtest::DbTest;

TEST_F(ShortDays, WeekReadsPlaceEverySlotByItsColumnName) {
  constexpr int32_t kSlots = 10;
  ASSERT_EQ(db_createPrimitiveRssiTable(kSlots), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(kSlots), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthTxTable(kSlots), DB_STATUS_SUCCESS);
  const char *words[] = {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"};
  for (uint32_t day = 1; day <= 7; ++day) {
    for (auto create : {db_createRssiTab, db_createRxBandWidth, db_createTxBandWidth}) {
      ASSERT_EQ(create(day, kSlots), DB_STATUS_SUCCESS);
    }
  }
  // Two devices, a distinct value in every slot of every day of every series; the day rows are
  // written past the library, whose slot writes assume 288-slot days.
  const char *macs[] = {"aa:10", "aa:11"};
  auto valueOf = [](int32_t series, int32_t device, int32_t k) {
    return 100000 * (series + 1) + 1000 * device + k;
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
        for (int32_t k = (day - 1) * kSlots + 1; k <= day * kSlots; ++k) {
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
      {"db_readMacRssi", 0, 1,
       [](auto list, auto rows) { return db_readMacRssi("AA:11", list, rows); }},
      {"db_readMacBandWidthRx", 1, 1,
       [](auto list, auto rows) { return db_readMacBandWidthRx("aa:11", list, rows); }},
      {"db_readMacBandWidthTx", 2, 1,
       [](auto list, auto rows) { return db_readMacBandWidthTx("aa:11", list, rows); }},
      {"db_readSourceDataRx", 1, 2,
       [](auto list, auto rows) { return db_readSourceDataRx("WAN", list, rows); }},
      {"db_readSourceDataTx", 2, 2,
       [](auto list, auto rows) { return db_readSourceDataTx("WAN", list, rows); }},
      {"db_readBandWidthRxTable", 1, 2, db_readBandWidthRxTable},
      {"db_readBandWidthTxTable", 2, 2, db_readBandWidthTxTable},
  };
  for (const Read &read : reads) {
    BandWidthRecord **week = nullptr;
    int32_t rows = 0;
    ASSERT_EQ(read.read(&week, &rows), DB_STATUS_SUCCESS) << read.name << log().dump();
    for (int32_t r = 0; r < rows; ++r) {
      const int32_t device = std::string(week[r]->mac) == "aa:10" ? 0 : 1;
      EXPECT_EQ(week[r]->slotCount, 7u * kSlots) << read.name;
      std::vector<uint64_t> expected(kWeek, 0), got(week[r]->slots, week[r]->slots + kWeek);
      for (int32_t k = 1; k <= 7 * kSlots; ++k) expected[k - 1] = valueOf(read.series, device, k);
      EXPECT_EQ(got, expected) << read.name << " " << week[r]->mac;
    }
    EXPECT_EQ(rows, read.rows) << read.name;
    db_freeBandWidthResult(&week, rows);
  }
}

// A week of ticks (every seventh slot, to stay quick) in which each new day's tables are
// dropped and made again, as the ring of day tables turns: every write succeeds, the compiled
// statements kept stay within the cache's bound (24 statements, 768 KiB), and closing the
// connection finalises them all.
TEST_F(Series, TheStatementCacheStaysBoundedThroughAWeekOfTicksAndDayDrops) {
  ryxLogSetLevel(RYX_LOG_NOTICE);
  ASSERT_EQ(db_writeQuery("PRAGMA synchronous = OFF"), DB_STATUS_SUCCESS);
  uint32_t statements = 0, bytes = 0, mostBytes = 0;
  for (int32_t slot = 1; slot <= kWeek; slot += 7) {
    if ((slot - 1) % 288 < 7 && slot > 1) {
      uint32_t day = static_cast<uint32_t>(db_findTable(slot));
      for (const char *word : {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"}) {
        ASSERT_EQ(db_dropTable((word + std::to_string(day)).c_str()), DB_STATUS_SUCCESS);
      }
      ASSERT_EQ(db_createRssiTab(day, 288), DB_STATUS_SUCCESS);
      ASSERT_EQ(db_createRxBandWidth(day, 288), DB_STATUS_SUCCESS);
      ASSERT_EQ(db_createTxBandWidth(day, 288), DB_STATUS_SUCCESS);
    }
    ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
    for (const char *mac : {"AA:01", "AA:02"}) {
      std::string slotText = std::to_string(slot);
      std::string time = std::to_string(1700000000u + slot * kSlotSeconds);
      ASSERT_EQ(db_updateRssi(Values{mac, time.c_str(), slotText.c_str(), "-50"}.data()),
                DB_STATUS_SUCCESS);
      bandwidth(mac, "LAN", slot, 1000);
    }
    ASSERT_EQ(db_commitTransaction(), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
    ASSERT_GT(statements, 0u);
    ASSERT_LE(statements, 24u);
    ASSERT_LE(bytes, 768u * 1024u);
    mostBytes = std::max(mostBytes, bytes);
  }
  RecordProperty("statement_cache_peak_bytes", static_cast<int>(mostBytes));
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_getStatementCacheFigures(&statements, &bytes), DB_STATUS_SUCCESS);
  EXPECT_EQ(statements, 0u);
  EXPECT_EQ(bytes, 0u);
}
