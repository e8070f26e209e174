// Raw results into typed records: each conversion kind and cut, the slot records, the conversions
// into caller storage, and the free functions.
#include <string>
#include <tuple>
#include <vector>

#include "support/api_cases.h"

namespace {

using adbtest::Values;
using Texts = std::vector<std::string>;
using Ints = std::vector<int64_t>;
using Counts = std::vector<uint64_t>;

class ResultApi : public adbtest::ApiTest {};

const std::string k300(300, 'n');
const std::string k70(70, 's');

// The `rows` records that `convert` makes of `cells` (a header row and `rows` data rows), copied
// out (zeroed past those made, so that a failed conversion fails a check, not the run); the list
// is freed and must come back NULL.
template <typename Record>
std::vector<Record> converted(int32_t (*convert)(char **, Record ***, int32_t, int32_t),
                              void (*free)(Record ***, int32_t), Values &cells, int32_t rows) {
  Record **list = nullptr;
  const int32_t columns = cells.size() / (rows + 1);
  EXPECT_EQ(convert(cells.data(), &list, rows, columns), 0);
  std::vector<Record> records(rows);
  for (int32_t r = 0; list != nullptr && r < rows && list[r] != nullptr; ++r) records[r] = *list[r];
  free(&list, rows);
  EXPECT_EQ(list, nullptr);
  return records;
}

}  // namespace

// Raw results are written out by hand: the header row, then the data rows, flat. Every field
// gets a value of its own, so that a column read into the wrong field shows.
TEST_F(ResultApi, RecordsFillEveryFieldByColumnNameWithItsConversion) {
  std::vector<adbtest::Cell> device{
      "MAC_S", "APID_S", "IPADDR_S", "CATEGORY_S", "HOST_S", "MODEL_S", "MANUFACTURER_S",
      "SERIALNUMBER_S", "INTERFACE_S", "ACTIVE", "BAND_S", "INTF_NAME_S", "INTF_INDEX", "RSSI",
      "TXRATE", "RXRATE", "TXCNT", "RXCNT", "EXTRA_S", "CAPACITY", "DEVBWREQD",
      "DEVSTREAMCAPABILITY_S", "NAME_S", "FRIENDLYNAME_S", "PORTABLE", "DEVCRITICAL",
      "DEVTIMESTAMP", "ADDED_TS", "LASTONLINE_TS", "LASTOFFLINE_TS", "BEACONSTATE",
      "PREFERRED_BAND_S", "DEV_FP_DONE", "OUI_S", "PRODUCTCLASS_S", "LASTREBOOTTXCNT",
      "LASTREBOOTRXCNT", "BANDSTEERING_STATE", "IS_BRIDGED", "AA:BB:CC:DD:EE:01:XY", "ap-1",
      "192.168.100.200", "Phone", "host-1", "Pixel", "Maker", k70, "WiFi", "1", "5GHz-X", "wl0",
      "3", "-61", "12.75", "866.0", "5000000000", "18446744073709551615", "ignored", "40", "2.5",
      "4K-HDR-120", k300, "Kitchen's speaker", "0", "2", "1700000000.9", "5000000000", "1700000100",
      "-1", "6", "5GHz", "7", "00:11:22", k70, "123456789012", "987654321098", "8", "9",
      // Only the key: every other field stays zero, whatever the column's default.
      "aa:bb:cc:dd:ee:02"};
  device.resize(3 * 39);
  Values deviceCells(device);
  const auto devices = converted(db_structDeviceInfo, db_freeDeviceInfoResult, deviceCells, 2);
  const DeviceInfoRecord &d = devices[0];
  EXPECT_EQ(
      (Texts{d.mac, d.apId, d.ipAddr, d.category, d.host, d.model, d.manufacturer, d.interface,
             d.band, d.intfName, d.devStreamCapability, d.friendlyName, d.preferredBand, d.oui}),
      (Texts{"AA:BB:CC:DD:EE:01", "ap-1", "192.168.100.200", "Phone", "host-1", "Pixel", "Maker",
             "WiFi", "5GHz-", "wl0", "4K-HDR-12", "Kitchen's speaker", "5GHz", "00:11:22"}));
  // Long texts keep size - 1 characters.
  EXPECT_EQ((Texts{d.serialNumber, d.name, d.productClass}),
            (Texts{std::string(63, 's'), std::string(257, 'n'), std::string(64, 's')}));
  EXPECT_EQ((Ints{d.active, d.intfIndex, d.rssi, d.capacity, d.portable, d.devCritical,
                  d.beaconState, d.devFpDone, d.bandSteeringState, d.isBridged}),
            (Ints{1, 3, -61, 40, 0, 2, 6, 7, 8, 9}));
  // REAL columns read as whole numbers; 32-bit strtoul saturates, and wraps a minus sign, on
  // every platform.
  EXPECT_EQ((Counts{d.txRate, d.rxRate, d.txCnt, d.rxCnt, d.devBwReqd, d.devTimestamp, d.addedTs,
                    d.lastOnlineTs, d.lastOfflineTs, d.lastRebootTxCnt, d.lastRebootRxCnt}),
            (Counts{12, 866, 5000000000ull, 18446744073709551615ull, 2, 1700000000, 4294967295u,
                    1700000100, 4294967295u, 123456789012ull, 987654321098ull}));
  const std::string keyOnly(reinterpret_cast<const char *>(&devices[1]), sizeof d);
  EXPECT_EQ(keyOnly, "aa:bb:cc:dd:ee:02" + std::string(sizeof d - 17, '\0'));

  const std::string id60(60, 'i');
  Values mesh{"MAC_S", "ID_S", "PARENTID_S", "IPADDR_S", "ROLE_S", "OPERMODE_S",
              "BACKHAULINTFTYPE_S", "STATUS_S", "HEALTHSTATUS_S",
              // One row; texts are cut to their fields.
              "00:11:22:33:44:55", id60.c_str(), "parent", "10.0.0.2", "Satellite", "Router",
              "Ethernet-2.5G", "Online", "Good"};
  const auto m = converted(db_structMeshTopo, db_freeMeshTopoResult, mesh, 1)[0];
  EXPECT_EQ((Texts{m.mac, m.id, m.parentId, m.ipAddr, m.role, m.operMode, m.backhaulIntfType,
                   m.status, m.healthStatus}),
            (Texts{"00:11:22:33:44:55", std::string(47, 'i'), "parent", "10.0.0.2", "Satelli",
                   "Router", "Ethernet-2.5G", "Online", "Good"}));

  Values clients{"MAC_S", "ASSOC_BSSID_S", "ASSOC_MEDIUM_S", "CAP_BSS_TRANS", "CAP_FAST_BSS_TRANS",
                 "CAP_RADIO_MEASURE", "CAP_24GHZ", "CAP_5GHZ", "CATEGORY_S", "TYPE_S", "MIMO_S",
                 "VENDOR_MFG_S", "VENDOR_MNAME_S", "VENDOR_MNUMBER_S", "VENDOR_DNAME_S",
                 "CAP_MODE_S", "CAP_24CSA", "CAP_24ECSA", "CAP_5CSA", "CAP_5ECSA", "CAP_DFS",
                 "ISTAVEXFPDONE", "CAP_24GHZN", "CAP_5GHZAC",
                 // One row, a value of its own per field.
                 "c0:ff:ee", "bssid", "5GHz", "1", "2", "3", "4", "5", "Phone", "STA", "2x2", "mfg",
                 "mname", "mnumber", "dname", "11ax", "6", "7", "8", "9", "10", "11", "12", "13"};
  const auto c = converted(db_structClientsCapability, db_freeClientsResult, clients, 1)[0];
  EXPECT_EQ((Texts{c.mac, c.assocBssid, c.assocMedium, c.category, c.type, c.mimo, c.vendorMfg,
                   c.vendorModelName, c.vendorModelNumber, c.vendorDeviceName, c.capMode}),
            (Texts{"c0:ff:ee", "bssid", "5GHz", "Phone", "STA", "2x2", "mfg", "mname", "mnumber",
                   "dname", "11ax"}));
  EXPECT_EQ((Ints{c.capBssTrans, c.capFastBssTrans, c.capRadioMeasure, c.cap24Ghz, c.cap5Ghz,
                  c.cap24Csa, c.cap24Ecsa, c.cap5Csa, c.cap5Ecsa, c.capDfs, c.isTavexFpDone,
                  c.cap24GhzN, c.cap5GhzAc}),
            (Ints{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}));

  Values limits{"DEVICECLASS_S", "DEVFILTERLEVEL", "STREAMINGTHRESHOLD", "INACTIVITYFILTER",
                "RSSIGOODSTART", "RSSIGOODEND", "RSSIAVGSTART", "RSSIAVGEND", "RSSIBADSTART",
                "RSSIBADEND", "LONGPOLLTHRESHOLD", "SHORTPOLLTHRESHOLD", "VERSION",
                "WAN_FILTER_LEVEL", "INACTIVITY_FILTER_LEVEL",
                // One row; 32-bit atoi saturates both ways.
                "Camera", "5000000000", "2", "3", "-40", "-55", "-56", "-70", "-71", "-90", "600",
                "-5000000000", "2.5", "4", "5"};
  const auto t = converted(db_structDeviceThreshold, db_freeDeviceThresholdResult, limits, 1)[0];
  EXPECT_EQ(std::tuple(std::string(t.deviceClass), t.version), std::tuple("Camera", 2.5f));
  // atoi saturates as with a 32-bit long, both ways.
  EXPECT_EQ(
      (Ints{t.devFilterLevel, t.streamingThreshold, t.inactivityFilter, t.rssiGoodStart,
            t.rssiGoodEnd, t.rssiAvgStart, t.rssiAvgEnd, t.rssiBadStart, t.rssiBadEnd,
            t.longPollThreshold, t.shortPollThreshold, t.wanFilterLevel, t.inactivityFilterLevel}),
      (Ints{2147483647, 2, 3, -40, -55, -56, -70, -71, -90, 600, -2147483648ll, 4, 5}));

  Values subscribers{"DOWNSTREAMBANDWIDTH", "SERIALNUMBER_S",
                     // Two rows; text that is no number reads as 0.
                     "1000", "SN-0123456789", "abc", nullptr};
  const auto s = converted(db_structSubscriberInfo, db_freeSubscriberInfoResult, subscribers, 2);
  EXPECT_EQ((Texts{s[0].serialNumber, s[1].serialNumber}), (Texts{"SN-012345678", ""}));
  EXPECT_EQ((Ints{s[0].downstreamBandwidth, s[1].downstreamBandwidth}), (Ints{1000, 0}));

  Values stamps{"MAC_S", "DEVTIMESTAMP", "ACTIVE", "INTF_NAME_S",
                // One row.
                "aa:bb", "5000000000.5", "1", "wl1.2-backhaul-long"};
  const auto ts = converted(db_readTimestampResult, db_freeDpClientHandleResult, stamps, 1)[0];
  EXPECT_EQ((Texts{ts.mac, ts.intfName}), (Texts{"aa:bb", "wl1.2-backhaul-"}));
  // devTimestamp: a 64-bit field, 32-bit conversion.
  EXPECT_EQ(std::tuple(ts.devTimestamp, ts.active), std::tuple(4294967295ull, 1));

  Values primitive{"MAC_S", "TIMESTAMP", "SLT_IND", "SOURCE_S",
                   // One row.
                   "aa:bb", "1700000000", "288", "WAN-source-long-text"};
  const auto p = converted(db_structPrimitiveDayTable, db_freePrimitiveDayTable, primitive, 1)[0];
  EXPECT_EQ((Texts{p.mac, p.source}), (Texts{"aa:bb", "WAN-source-long"}));
  EXPECT_EQ(std::tuple(p.timestamp, p.slotIndex), std::tuple(1700000000u, 288));
  EXPECT_TRUE(log().lines().empty()) << log().dump();
}

TEST_F(ResultApi, SlotRecordsPlaceSlotsByNumberOrByColumnOrder) {
  // Week records: column SLOTk goes to element k - 1 wherever it stands; numbers outside the
  // week are skipped but every slot column counts, NULL cells too.
  Values week{"SLOT300", "MAC_S", "SLOT1", "SLOT2016", "SLOT0", "SLOT2017", "TIMESTAMP", "SLT_IND",
              // Two rows.
              "300", "aa:bb", "1", "2016", "7", "8", "1700000000", "300", nullptr, "cc:dd",
              "18446744073709551615", nullptr, nullptr, nullptr, nullptr, nullptr};
  const auto weeks = converted(db_structBandWidth, db_freeBandWidthResult, week, 2);
  const BandWidthRecord &w = weeks[0];
  EXPECT_EQ(std::tuple(w.slots[299], w.slots[0], w.slots[2015], w.slotCount, w.timestamp,
                       w.startIndex, w.endIndex, w.slotIndex),
            std::tuple(300ull, 1ull, 2016ull, 5u, 1700000000u, 0u, 0u, 300));
  // SLOT0 lands nowhere, not in the field before the slots.
  EXPECT_EQ(std::string(w.mac, sizeof w.mac), "aa:bb" + std::string(sizeof w.mac - 5, '\0'));
  EXPECT_EQ((Counts{weeks[1].slots[0], weeks[1].slotCount}), (Counts{18446744073709551615ull, 5}));

  // Day records: the n-th slot column goes to element n - 1, whatever its number.
  Values day{"MAC_S", "SLOT289", "SLOT290", "SLOT291", "TIMESTAMP", "SLT_IND",
             // One row.
             "aa:bb", "289", nullptr, "291", "1700000000", "291"};
  const auto r = converted(db_readRateStruct, db_freeRateResult, day, 1)[0];
  EXPECT_EQ(std::tuple(r.slots[0], r.slots[1], r.slots[2], r.slotCount, r.timestamp, r.slotIndex),
            std::tuple(289ull, 0ull, 291ull, 3u, 1700000000u, 291));

  // More slot columns than a day holds: the extra ones are counted, not stored.
  std::vector<std::string> wide{"MAC_S"};
  for (int k = 1; k <= 290; ++k) wide.push_back("SLOT" + std::to_string(k));
  wide.push_back("aa:bb");
  for (int k = 1; k <= 290; ++k) wide.push_back(std::to_string(k));
  Values wideCells(wide);
  const auto full = converted(db_readRateStruct, db_freeRateResult, wideCells, 1)[0];
  EXPECT_EQ((Counts{full.slots[287], full.slotCount}), (Counts{288, 290}));
  EXPECT_TRUE(log().lines().empty()) << log().dump();
}

namespace {

// An empty result for each conversion, and a null list for its free function: the conversion
// returns 2 and leaves the caller's list variable alone; both log with `level`, the conversion
// as `label` and the free function as `freed` (by default "<label> struct is already NULL\n").
template <typename Record>
void emptyAndNull(adbtest::LogCapture &log, const std::string &label,
                  int32_t (*convert)(char **, Record ***, int32_t, int32_t),
                  void (*free)(Record ***, int32_t), std::string freed = "",
                  int level = RYX_LOG_ERROR) {
  if (freed.empty()) freed = label + " struct is already NULL\n";
  SCOPED_TRACE(label);
  Values header{"MAC_S", "aa:bb"};
  const std::tuple<char **, int32_t, int32_t> empties[] = {
      {nullptr, 3, 4}, {header.data(), 0, 1}, {header.data(), 1, 0}};
  for (const auto &[cells, rows, columns] : empties) {
    log.clear();
    auto call = [&](Record ***list, int32_t *) { return convert(cells, list, rows, columns); };
    EXPECT_EQ(adbtest::readKeepingList<Record>(call), 2);
    EXPECT_TRUE(log.has(level, "[analyticsDB] " + label + " result array NULL / rowcount " +
                                   std::to_string(rows) + " columcount " + std::to_string(columns) +
                                   "\n")) << log.dump();
  }
  log.clear();
  Record **list = nullptr;
  free(&list, 3);
  free(nullptr, 0);
  EXPECT_EQ(log.count(level, "[analyticsDB] " + freed), 2u) << log.dump();
}

}  // namespace

TEST_F(ResultApi, EmptyResultsAndNullListsAreReportedWithTheirOwnMessages) {
  emptyAndNull(log(), "Meshtopo", db_structMeshTopo, db_freeMeshTopoResult,
               "Meshtopo struct is already NULL \n");
  emptyAndNull(log(), "DeviceInfo", db_structDeviceInfo, db_freeDeviceInfoResult);
  emptyAndNull(log(), "clients", db_structClientsCapability, db_freeClientsResult,
               "Client capability struct is already NULL \n", RYX_LOG_DEBUG);
  emptyAndNull(log(), "DeviceThreshold", db_structDeviceThreshold, db_freeDeviceThresholdResult);
  emptyAndNull(log(), "SubscriberInfo", db_structSubscriberInfo, db_freeSubscriberInfoResult);
  emptyAndNull(log(), "DeviceTimestamp", db_readTimestampResult, db_freeDpClientHandleResult);
  emptyAndNull(log(), "primtive bandwidth", db_structPrimitiveDayTable,
               db_freePrimitiveDayTable, "primitive bandwidth tbl struct is already NULL\n");
  emptyAndNull(log(), "BandWidth", db_structBandWidth, db_freeBandWidthResult);
  emptyAndNull(log(), "perday", db_readRateStruct, db_freeRateResult,
               "Bandwidth per day struct is already NULL\n");
  // The lines name the exported function that was called.
  ASSERT_FALSE(log().lines().empty());
  EXPECT_EQ(log().lines().back().where(), "db_result_api db_freeRateResult");
  // A list variable the caller did not give cannot take a list.
  EXPECT_EQ(db_structMeshTopo(Values{"MAC_S", "aa:bb"}.data(), nullptr, 1, 1), 1);
}

TEST_F(ResultApi, ConversionsIntoCallerStorageFillWhatTheyAreGiven) {
  // Every row goes into the one record: later rows overwrite column by column, NULL cells
  // keep what is there, slotCount and the span indexes are not touched.
  Values days{"MAC_S", "SLOT1", "SLOT289", "TIMESTAMP", "SLT_IND",
              // Two rows, into one record.
              "aa:bb:cc:dd:ee:ff-and-a-long-suffix-here", "10", nullptr, "100", "1", "aa:bb",
              nullptr, "289", nullptr, "289"};
  BandWidthRecord bw{};
  bw.slots[5] = 6;
  bw.slotCount = 77;
  bw.startIndex = 3;
  ASSERT_EQ(db_setSlotRate(days.data(), 2, 5, &bw), 0);
  EXPECT_EQ(std::tuple(std::string(bw.mac), bw.slots[0], bw.slots[288], bw.slots[5], bw.timestamp,
                       bw.slotCount, bw.startIndex, bw.slotIndex),
            std::tuple("aa:bb", 10ull, 289ull, 6ull, 100u, 77u, 3u, 289));
  ASSERT_EQ(db_setSlotRate(days.data(), 1, 5, &bw), 0);
  EXPECT_STREQ(bw.mac, "aa:bb:cc:dd:ee:ff-and-a-long-su");  // 31 characters

  // Per row: the time stamp, slot index, the value of the slot column and the MAC; one source
  // text for all rows, the last row's.
  Values index{"MAC_S", "TIMESTAMP", "SLT_IND", "SOURCE_S", "SLOT12",
               // Two rows, into the arrays.
               "aa:bb:cc:dd:ee:ff-and-a-long-suffix-here", "1700000000.5", "12",
               "source-one-long-text", "5000000000", "11:22", "5000000000", "-3", "two", nullptr};
  uint32_t timestamps[3] = {0, 0, 99};
  int32_t slotIndexes[3] = {0, 0, 99};
  uint64_t values[3] = {0, 7, 99};
  char macs[3][32] = {{}, {}, "keep"};
  char source[16] = {};
  // Into the arrays above; the MAC texts `m` and the source `s` may be absent.
  auto rateIdx = [&](Values &in, int32_t rows, int32_t columns, char (*m)[32], char *s) {
    return db_getRateIdxTimeStamp(in.data(), rows, columns, timestamps, slotIndexes, values, m, s);
  };
  ASSERT_EQ(rateIdx(index, 2, 5, macs, source), 0);
  EXPECT_EQ((Counts{timestamps[0], timestamps[1], timestamps[2], values[0], values[1]}),
            (Counts{1700000000, 4294967295u, 99, 5000000000ull, 7}));  // NULL cell kept
  EXPECT_EQ((Ints{slotIndexes[0], slotIndexes[1]}), (Ints{12, -3}));
  EXPECT_EQ((Texts{macs[0], macs[1], macs[2], source}),
            (Texts{"aa:bb:cc:dd:ee:ff-and-a-long-su", "11:22", "keep", "two"}));
  // The MAC texts and the source may be absent.
  ASSERT_EQ(rateIdx(index, 1, 5, nullptr, nullptr), 0);
  // Only the header names columns: a data cell spelling a column name is a value.
  Values named{"MAC_S", "TIMESTAMP", "TIMESTAMP", "5", "x"};
  ASSERT_EQ(rateIdx(named, 1, 2, nullptr, nullptr), 0);
  EXPECT_EQ(timestamps[0], 5u);
  EXPECT_TRUE(log().lines().empty()) << log().dump();

  EXPECT_EQ(db_setSlotRate(nullptr, 1, 5, &bw), 2);
  EXPECT_EQ(rateIdx(index, 0, 5, macs, source), 2);
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "BandWidth result array NULL / rowcount 1 columcount 5\n"));
  EXPECT_TRUE(logged(RYX_LOG_ERROR, "BandWidth result array NULL / rowcount 0 columcount 5\n"));
}
