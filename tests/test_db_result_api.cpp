// Raw results into typed records: every column of every record type, the slot records, the
// conversions into caller storage, and the free functions.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace {

using adbtest::Values;

class ResultApi : public adbtest::DbTest {};

// A raw result written out by hand: the header row, then the data rows, flat.
struct RawResult {
  RawResult(int32_t columnCount, Values cellValues)
      : cells(std::move(cellValues)),
        columns(columnCount),
        rows(cells.size() / columnCount - 1) {}
  Values cells;
  int32_t columns;
  int32_t rows;
};

const std::string k300(300, 'n');
const std::string k70(70, 's');

}  // namespace

TEST_F(ResultApi, DeviceInfoFillsEveryFieldByColumnNameWithItsConversion) {
  RawResult result(39, {
      "MAC_S", "APID_S", "IPADDR_S", "CATEGORY_S", "HOST_S", "MODEL_S", "MANUFACTURER_S",
      "SERIALNUMBER_S", "INTERFACE_S", "ACTIVE", "BAND_S", "INTF_NAME_S", "INTF_INDEX", "RSSI",
      "TXRATE", "RXRATE", "TXCNT", "RXCNT", "EXTRA_S", "CAPACITY", "DEVBWREQD",
      "DEVSTREAMCAPABILITY_S", "NAME_S", "FRIENDLYNAME_S", "PORTABLE", "DEVCRITICAL",
      "DEVTIMESTAMP", "ADDED_TS", "LASTONLINE_TS", "LASTOFFLINE_TS", "BEACONSTATE",
      "PREFERRED_BAND_S", "DEV_FP_DONE", "OUI_S", "PRODUCTCLASS_S", "LASTREBOOTTXCNT",
      "LASTREBOOTRXCNT", "BANDSTEERING_STATE", "IS_BRIDGED",
      // A fully populated row; texts longer than their fields are cut.
      "AA:BB:CC:DD:EE:01:XY", "ap-1", "192.168.100.200", "Phone", "host-1", "Pixel", "Maker",
      k70.c_str(), "WiFi", "1", "5GHz-X", "wl0", "3", "-61", "12.75", "866.0", "5000000000",
      "18446744073709551615", "ignored", "40", "2.5", "4K-HDR-120", k300.c_str(),
      "Kitchen's speaker", "0", "2", "1700000000.9", "5000000000", "1700000100", "1700000050",
      "1", "5GHz", "1", "00:11:22", k70.c_str(), "123456789012", "987654321098", "2", "1",
      // Only the key: every other field stays zero, whatever the column's default.
      "aa:bb:cc:dd:ee:02", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
      nullptr});
  ASSERT_EQ(result.rows, 2);

  DeviceInfoRecord **list = nullptr;
  ASSERT_EQ(db_structDeviceInfo(result.cells.data(), &list, result.rows, result.columns), 0);
  const DeviceInfoRecord &d = *list[0];
  EXPECT_STREQ(d.mac, "AA:BB:CC:DD:EE:01");
  EXPECT_EQ(std::string(d.serialNumber), std::string(63, 's'));
  EXPECT_STREQ(d.apId, "ap-1");
  EXPECT_STREQ(d.ipAddr, "192.168.100.200");
  EXPECT_STREQ(d.category, "Phone");
  EXPECT_STREQ(d.host, "host-1");
  EXPECT_STREQ(d.model, "Pixel");
  EXPECT_STREQ(d.manufacturer, "Maker");
  EXPECT_STREQ(d.interface, "WiFi");
  EXPECT_EQ(d.active, 1);
  EXPECT_STREQ(d.band, "5GHz-");
  EXPECT_STREQ(d.intfName, "wl0");
  EXPECT_EQ(d.intfIndex, 3);
  EXPECT_EQ(d.rssi, -61);
  EXPECT_EQ(d.txRate, 12u);  // REAL columns read as whole numbers
  EXPECT_EQ(d.rxRate, 866u);
  EXPECT_EQ(d.txCnt, 5000000000ull);
  EXPECT_EQ(d.rxCnt, 18446744073709551615ull);
  EXPECT_EQ(d.capacity, 40);
  EXPECT_EQ(d.devBwReqd, 2u);
  EXPECT_STREQ(d.devStreamCapability, "4K-HDR-12");
  EXPECT_EQ(std::string(d.name), std::string(257, 'n'));
  EXPECT_STREQ(d.friendlyName, "Kitchen's speaker");
  EXPECT_EQ(d.portable, 0);
  EXPECT_EQ(d.devCritical, 2);
  EXPECT_EQ(d.devTimestamp, 1700000000u);
  EXPECT_EQ(d.addedTs, 4294967295u);  // 32-bit strtoul saturates on every platform
  EXPECT_EQ(d.lastOnlineTs, 1700000100u);
  EXPECT_EQ(d.lastOfflineTs, 1700000050u);
  EXPECT_EQ(d.beaconState, 1);
  EXPECT_STREQ(d.preferredBand, "5GHz");
  EXPECT_EQ(d.devFpDone, 1);
  EXPECT_STREQ(d.oui, "00:11:22");
  EXPECT_EQ(std::string(d.productClass), std::string(64, 's'));
  EXPECT_EQ(d.lastRebootTxCnt, 123456789012ull);
  EXPECT_EQ(d.lastRebootRxCnt, 987654321098ull);
  EXPECT_EQ(d.bandSteeringState, 2);
  EXPECT_EQ(d.isBridged, 1);

  DeviceInfoRecord keyOnly{};
  std::memcpy(keyOnly.mac, "aa:bb:cc:dd:ee:02", 18);
  EXPECT_EQ(std::memcmp(list[1], &keyOnly, sizeof keyOnly), 0);

  db_freeDeviceInfoResult(&list, result.rows);
  EXPECT_EQ(list, nullptr);

  // Columns are found by name in any order; a subset leaves the rest zero.
  RawResult subset(3, {"CAPACITY", "UNKNOWN", "MAC_S", "7", "x", "aa:01"});
  ASSERT_EQ(db_structDeviceInfo(subset.cells.data(), &list, 1, 3), 0);
  DeviceInfoRecord expected{};
  std::memcpy(expected.mac, "aa:01", 6);
  expected.capacity = 7;
  EXPECT_EQ(std::memcmp(list[0], &expected, sizeof expected), 0);
  db_freeDeviceInfoResult(&list, 1);
  EXPECT_TRUE(log().lines().empty()) << log().dump();
}

TEST_F(ResultApi, InventoryRecordsFillEveryField) {
  const std::string id60(60, 'i');
  RawResult mesh(9, {"MAC_S", "ID_S", "PARENTID_S", "IPADDR_S", "ROLE_S", "OPERMODE_S",
                     "BACKHAULINTFTYPE_S", "STATUS_S", "HEALTHSTATUS_S",
                     "00:11:22:33:44:55", id60.c_str(), "parent", "10.0.0.2", "Satellite",
                     "Router", "Ethernet-2.5G", "Online", "Good"});
  MeshTopoRecord **meshList = nullptr;
  ASSERT_EQ(db_structMeshTopo(mesh.cells.data(), &meshList, mesh.rows, mesh.columns), 0);
  EXPECT_STREQ(meshList[0]->mac, "00:11:22:33:44:55");
  EXPECT_EQ(std::string(meshList[0]->id), std::string(47, 'i'));
  EXPECT_STREQ(meshList[0]->parentId, "parent");
  EXPECT_STREQ(meshList[0]->ipAddr, "10.0.0.2");
  EXPECT_STREQ(meshList[0]->role, "Satelli");
  EXPECT_STREQ(meshList[0]->operMode, "Router");
  EXPECT_STREQ(meshList[0]->backhaulIntfType, "Ethernet-2.5G");
  EXPECT_STREQ(meshList[0]->status, "Online");
  EXPECT_STREQ(meshList[0]->healthStatus, "Good");
  db_freeMeshTopoResult(&meshList, mesh.rows);

  RawResult clients(24, {"MAC_S", "ASSOC_BSSID_S", "ASSOC_MEDIUM_S", "CAP_BSS_TRANS",
                         "CAP_FAST_BSS_TRANS", "CAP_RADIO_MEASURE", "CAP_24GHZ", "CAP_5GHZ",
                         "CATEGORY_S", "TYPE_S", "MIMO_S", "VENDOR_MFG_S", "VENDOR_MNAME_S",
                         "VENDOR_MNUMBER_S", "VENDOR_DNAME_S", "CAP_MODE_S", "CAP_24CSA",
                         "CAP_24ECSA", "CAP_5CSA", "CAP_5ECSA", "CAP_DFS", "ISTAVEXFPDONE",
                         "CAP_24GHZN", "CAP_5GHZAC",
                         "c0:ff:ee", "bssid", "5GHz", "1", "2", "3", "4", "5", "Phone", "STA",
                         "2x2", "mfg", "mname", "mnumber", "dname", "11ax", "6", "7", "8", "9",
                         "10", "11", "12", "13"});
  ClientCapabilityRecord **clientList = nullptr;
  ASSERT_EQ(db_structClientsCapability(clients.cells.data(), &clientList, 1, 24), 0);
  const ClientCapabilityRecord &c = *clientList[0];
  EXPECT_STREQ(c.mac, "c0:ff:ee");
  EXPECT_STREQ(c.assocBssid, "bssid");
  EXPECT_STREQ(c.assocMedium, "5GHz");
  EXPECT_EQ(c.capBssTrans, 1);
  EXPECT_EQ(c.capFastBssTrans, 2);
  EXPECT_EQ(c.capRadioMeasure, 3);
  EXPECT_EQ(c.cap24Ghz, 4);
  EXPECT_EQ(c.cap5Ghz, 5);
  EXPECT_STREQ(c.category, "Phone");
  EXPECT_STREQ(c.type, "STA");
  EXPECT_STREQ(c.mimo, "2x2");
  EXPECT_STREQ(c.vendorMfg, "mfg");
  EXPECT_STREQ(c.vendorModelName, "mname");
  EXPECT_STREQ(c.vendorModelNumber, "mnumber");
  EXPECT_STREQ(c.vendorDeviceName, "dname");
  EXPECT_STREQ(c.capMode, "11ax");
  EXPECT_EQ(c.cap24Csa, 6);
  EXPECT_EQ(c.cap24Ecsa, 7);
  EXPECT_EQ(c.cap5Csa, 8);
  EXPECT_EQ(c.cap5Ecsa, 9);
  EXPECT_EQ(c.capDfs, 10);
  EXPECT_EQ(c.isTavexFpDone, 11);
  EXPECT_EQ(c.cap24GhzN, 12);
  EXPECT_EQ(c.cap5GhzAc, 13);
  db_freeClientsResult(&clientList, 1);

  RawResult thresholds(15, {"DEVICECLASS_S", "DEVFILTERLEVEL", "STREAMINGTHRESHOLD",
                            "INACTIVITYFILTER", "RSSIGOODSTART", "RSSIGOODEND", "RSSIAVGSTART",
                            "RSSIAVGEND", "RSSIBADSTART", "RSSIBADEND", "LONGPOLLTHRESHOLD",
                            "SHORTPOLLTHRESHOLD", "VERSION", "WAN_FILTER_LEVEL",
                            "INACTIVITY_FILTER_LEVEL",
                            "Camera", "5000000000", "2", "3", "-40", "-55", "-56", "-70", "-71",
                            "-90", "600", "-5000000000", "2.5", "4", "5"});
  DeviceThresholdRecord **thresholdList = nullptr;
  ASSERT_EQ(db_structDeviceThreshold(thresholds.cells.data(), &thresholdList, 1, 15), 0);
  const DeviceThresholdRecord &t = *thresholdList[0];
  EXPECT_STREQ(t.deviceClass, "Camera");
  EXPECT_EQ(t.devFilterLevel, 2147483647);  // atoi saturates as with a 32-bit long
  EXPECT_EQ(t.streamingThreshold, 2);
  EXPECT_EQ(t.inactivityFilter, 3);
  EXPECT_EQ(t.rssiGoodStart, -40);
  EXPECT_EQ(t.rssiGoodEnd, -55);
  EXPECT_EQ(t.rssiAvgStart, -56);
  EXPECT_EQ(t.rssiAvgEnd, -70);
  EXPECT_EQ(t.rssiBadStart, -71);
  EXPECT_EQ(t.rssiBadEnd, -90);
  EXPECT_EQ(t.longPollThreshold, 600);
  EXPECT_EQ(t.shortPollThreshold, -2147483647 - 1);
  EXPECT_FLOAT_EQ(t.version, 2.5f);
  EXPECT_EQ(t.wanFilterLevel, 4);
  EXPECT_EQ(t.inactivityFilterLevel, 5);
  db_freeDeviceThresholdResult(&thresholdList, 1);

  RawResult subscribers(2, {"DOWNSTREAMBANDWIDTH", "SERIALNUMBER_S", "1000", "SN-0123456789",
                            "abc", nullptr});
  SubscriberInfoRecord **subscriberList = nullptr;
  ASSERT_EQ(db_structSubscriberInfo(subscribers.cells.data(), &subscriberList, 2, 2), 0);
  EXPECT_STREQ(subscriberList[0]->serialNumber, "SN-012345678");
  EXPECT_EQ(subscriberList[0]->downstreamBandwidth, 1000);
  EXPECT_STREQ(subscriberList[1]->serialNumber, "");
  EXPECT_EQ(subscriberList[1]->downstreamBandwidth, 0);  // non-numeric text reads as 0
  db_freeSubscriberInfoResult(&subscriberList, 2);

  RawResult stamps(4, {"MAC_S", "DEVTIMESTAMP", "ACTIVE", "INTF_NAME_S",
                       "aa:bb", "5000000000.5", "1", "wl1.2-backhaul-long"});
  DeviceTimestampRecord **stampList = nullptr;
  ASSERT_EQ(db_readTimestampResult(stamps.cells.data(), &stampList, 1, 4), 0);
  EXPECT_STREQ(stampList[0]->mac, "aa:bb");
  EXPECT_EQ(stampList[0]->devTimestamp, 4294967295ull);  // a 64-bit field, 32-bit conversion
  EXPECT_EQ(stampList[0]->active, 1);
  EXPECT_STREQ(stampList[0]->intfName, "wl1.2-backhaul-");
  db_freeDpClientHandleResult(&stampList, 1);

  RawResult primitive(4, {"MAC_S", "TIMESTAMP", "SLT_IND", "SOURCE_S",
                          "aa:bb", "1700000000", "288", "WAN-source-long-text",
                          "cc:dd", "17", "-1", nullptr});
  PrimitiveDayTableRecord **primitiveList = nullptr;
  ASSERT_EQ(db_structPrimitiveDayTable(primitive.cells.data(), &primitiveList, 2, 4), 0);
  EXPECT_STREQ(primitiveList[0]->mac, "aa:bb");
  EXPECT_EQ(primitiveList[0]->timestamp, 1700000000u);
  EXPECT_EQ(primitiveList[0]->slotIndex, 288);
  EXPECT_STREQ(primitiveList[0]->source, "WAN-source-long");
  EXPECT_EQ(primitiveList[1]->slotIndex, -1);
  EXPECT_STREQ(primitiveList[1]->source, "");
  db_freePrimitiveDayTable(&primitiveList, 2);
  EXPECT_EQ(primitiveList, nullptr);
  EXPECT_TRUE(log().lines().empty()) << log().dump();
}

TEST_F(ResultApi, SlotRecordsPlaceSlotsByNumberOrByColumnOrder) {
  // Week records: column SLOTk goes to element k - 1 wherever it stands; numbers outside the
  // week are skipped but every slot column counts, NULL cells too.
  RawResult week(8, {"SLOT300", "MAC_S", "SLOT1", "SLOT2016", "SLOT0", "SLOT2017", "TIMESTAMP",
                     "SLT_IND",
                     "300", "aa:bb", "1", "2016", "7", "8", "1700000000", "300",
                     nullptr, "cc:dd", "18446744073709551615", nullptr, nullptr, nullptr,
                     nullptr, nullptr});
  BandWidthRecord **weekList = nullptr;
  ASSERT_EQ(db_structBandWidth(week.cells.data(), &weekList, 2, 8), 0);
  const BandWidthRecord &w = *weekList[0];
  EXPECT_STREQ(w.mac, "aa:bb");
  EXPECT_EQ(w.slots[299], 300u);
  EXPECT_EQ(w.slots[0], 1u);
  EXPECT_EQ(w.slots[2015], 2016u);
  EXPECT_EQ(w.slotCount, 5u);
  EXPECT_EQ(w.timestamp, 1700000000u);
  EXPECT_EQ(w.slotIndex, 300);
  EXPECT_EQ(w.startIndex, 0u);
  EXPECT_EQ(w.endIndex, 0u);
  uint64_t sum = 0;
  for (uint64_t slot : w.slots) sum += slot;
  EXPECT_EQ(sum, 300u + 1u + 2016u);
  EXPECT_EQ(weekList[1]->slots[0], 18446744073709551615ull);
  EXPECT_EQ(weekList[1]->slotCount, 5u);
  db_freeBandWidthResult(&weekList, 2);

  // Day records: the n-th slot column goes to element n - 1, whatever its number.
  RawResult day(6, {"MAC_S", "SLOT289", "SLOT290", "SLOT291", "TIMESTAMP", "SLT_IND",
                    "aa:bb", "289", nullptr, "291", "1700000000", "291"});
  RateRecord **dayList = nullptr;
  ASSERT_EQ(db_readRateStruct(day.cells.data(), &dayList, 1, 6), 0);
  EXPECT_STREQ(dayList[0]->mac, "aa:bb");
  EXPECT_EQ(dayList[0]->slots[0], 289u);
  EXPECT_EQ(dayList[0]->slots[1], 0u);
  EXPECT_EQ(dayList[0]->slots[2], 291u);
  EXPECT_EQ(dayList[0]->slotCount, 3u);
  EXPECT_EQ(dayList[0]->timestamp, 1700000000u);
  EXPECT_EQ(dayList[0]->slotIndex, 291);
  db_freeRateResult(&dayList, 1);

  // More slot columns than a day holds: the extra ones are counted, not stored.
  std::vector<std::string> wide{"MAC_S"};
  for (int k = 1; k <= 290; ++k) wide.push_back("SLOT" + std::to_string(k));
  wide.push_back("aa:bb");
  for (int k = 1; k <= 290; ++k) wide.push_back(std::to_string(k));
  Values wideCells(wide);
  ASSERT_EQ(db_readRateStruct(wideCells.data(), &dayList, 1, 291), 0);
  EXPECT_EQ(dayList[0]->slots[287], 288u);
  EXPECT_EQ(dayList[0]->slotCount, 290u);
  db_freeRateResult(&dayList, 1);
  EXPECT_TRUE(log().lines().empty()) << log().dump();
}

namespace {

// Converts into a list variable that holds a sentinel, checks the sentinel survived.
template <typename Record>
int32_t convertKeepingList(int32_t (*convert)(char **, Record ***, int32_t, int32_t),
                           char **cells, int32_t rows, int32_t columns) {
  Record *sentinel[1] = {nullptr};
  Record **list = sentinel;
  int32_t status = convert(cells, &list, rows, columns);
  EXPECT_EQ(list, sentinel);
  return status;
}

struct ListCase {
  const char *label;  // as it stands in the conversion's messages
  int level;
  std::function<int32_t(char **, int32_t, int32_t)> convert;
  const char *alreadyFreed;
  std::function<void()> freeNullList;
};

#define ADB_LIST_CASE(label, level, convert, Record, freeFunction, freeLevel, freed) \
  ListCase {                                                                       \
    label, level,                                                                  \
        [](char **cells, int32_t rows, int32_t columns) {                          \
          return convertKeepingList(convert, cells, rows, columns);                \
        },                                                                         \
        freed, [] {                                                                \
          Record **list = nullptr;                                                 \
          freeFunction(&list, 3);                                                  \
          freeFunction(nullptr, 0);                                                \
        }                                                                          \
  }

}  // namespace

TEST_F(ResultApi, EmptyResultsAndNullListsAreReportedWithTheirOwnMessages) {
  const ListCase cases[] = {
      ADB_LIST_CASE("Meshtopo", RYX_LOG_ERROR, db_structMeshTopo, MeshTopoRecord,
                    db_freeMeshTopoResult, RYX_LOG_ERROR,
                    "[analyticsDB] Meshtopo struct is already NULL \n"),
      ADB_LIST_CASE("DeviceInfo", RYX_LOG_ERROR, db_structDeviceInfo, DeviceInfoRecord,
                    db_freeDeviceInfoResult, RYX_LOG_ERROR,
                    "[analyticsDB] DeviceInfo struct is already NULL\n"),
      ADB_LIST_CASE("clients", RYX_LOG_DEBUG, db_structClientsCapability,
                    ClientCapabilityRecord, db_freeClientsResult, RYX_LOG_DEBUG,
                    "[analyticsDB] Client capability struct is already NULL \n"),
      ADB_LIST_CASE("DeviceThreshold", RYX_LOG_ERROR, db_structDeviceThreshold,
                    DeviceThresholdRecord, db_freeDeviceThresholdResult, RYX_LOG_ERROR,
                    "[analyticsDB] DeviceThreshold struct is already NULL\n"),
      ADB_LIST_CASE("SubscriberInfo", RYX_LOG_ERROR, db_structSubscriberInfo,
                    SubscriberInfoRecord, db_freeSubscriberInfoResult, RYX_LOG_ERROR,
                    "[analyticsDB] SubscriberInfo struct is already NULL\n"),
      ADB_LIST_CASE("DeviceTimestamp", RYX_LOG_ERROR, db_readTimestampResult,
                    DeviceTimestampRecord, db_freeDpClientHandleResult, RYX_LOG_ERROR,
                    "[analyticsDB] DeviceTimestamp struct is already NULL\n"),
      ADB_LIST_CASE("primtive bandwidth", RYX_LOG_ERROR, db_structPrimitiveDayTable,
                    PrimitiveDayTableRecord, db_freePrimitiveDayTable, RYX_LOG_ERROR,
                    "[analyticsDB] primitive bandwidth tbl struct is already NULL\n"),
      ADB_LIST_CASE("BandWidth", RYX_LOG_ERROR, db_structBandWidth, BandWidthRecord,
                    db_freeBandWidthResult, RYX_LOG_ERROR,
                    "[analyticsDB] BandWidth struct is already NULL\n"),
      ADB_LIST_CASE("perday", RYX_LOG_ERROR, db_readRateStruct, RateRecord, db_freeRateResult,
                    RYX_LOG_ERROR, "[analyticsDB] Bandwidth per day struct is already NULL\n"),
  };
  Values header{"MAC_S", "aa:bb"};
  for (const ListCase &c : cases) {
    SCOPED_TRACE(c.label);
    log().clear();
    EXPECT_EQ(c.convert(nullptr, 3, 4), 2);
    EXPECT_EQ(c.convert(header.data(), 0, 1), 2);  // a header row without data rows
    EXPECT_EQ(c.convert(header.data(), 1, 0), 2);
    const std::string prefix = std::string("[analyticsDB] ") + c.label + " result array NULL";
    EXPECT_TRUE(log().has(c.level, prefix + " / rowcount 3 columcount 4\n")) << log().dump();
    EXPECT_TRUE(log().has(c.level, prefix + " / rowcount 0 columcount 1\n"));
    EXPECT_TRUE(log().has(c.level, prefix + " / rowcount 1 columcount 0\n"));

    log().clear();
    c.freeNullList();
    EXPECT_EQ(log().count(c.level == RYX_LOG_DEBUG ? RYX_LOG_DEBUG : RYX_LOG_ERROR,
                          c.alreadyFreed),
              2u)
        << log().dump();
  }
  // The lines name the exported function that was called.
  ASSERT_FALSE(log().lines().empty());
  EXPECT_EQ(log().lines().back().where(), "db_result_api db_freeRateResult");

  // A list variable the caller did not give cannot take a list.
  EXPECT_EQ(db_structMeshTopo(header.data(), nullptr, 1, 1), 1);
}

TEST_F(ResultApi, ConversionsIntoCallerStorageFillWhatTheyAreGiven) {
  // Every row goes into the one record: later rows overwrite column by column, NULL cells
  // keep what is there, slotCount and the span indexes are not touched.
  RawResult days(5, {"MAC_S", "SLOT1", "SLOT289", "TIMESTAMP", "SLT_IND",
                     "aa:bb:cc:dd:ee:ff-and-a-long-suffix-here", "10", nullptr, "100", "1",
                     "aa:bb", nullptr, "289", nullptr, "289"});
  BandWidthRecord record{};
  record.slots[5] = 6;
  record.slotCount = 77;
  record.startIndex = 3;
  ASSERT_EQ(db_setSlotRate(days.cells.data(), 2, 5, &record), 0);
  EXPECT_STREQ(record.mac, "aa:bb");
  EXPECT_EQ(record.slots[0], 10u);
  EXPECT_EQ(record.slots[288], 289u);
  EXPECT_EQ(record.slots[5], 6u);
  EXPECT_EQ(record.timestamp, 100u);
  EXPECT_EQ(record.slotIndex, 289);
  EXPECT_EQ(record.slotCount, 77u);
  EXPECT_EQ(record.startIndex, 3u);
  ASSERT_EQ(db_setSlotRate(days.cells.data(), 1, 5, &record), 0);
  EXPECT_STREQ(record.mac, "aa:bb:cc:dd:ee:ff-and-a-long-su");  // 31 characters

  // Per row: the time stamp, slot index, the value of the slot column and the MAC; one source
  // text for all rows, the last row's.
  RawResult index(5, {"MAC_S", "TIMESTAMP", "SLT_IND", "SOURCE_S", "SLOT12",
                      "aa:bb:cc:dd:ee:ff-and-a-long-suffix-here", "1700000000.5", "12",
                      "source-one-long-text", "5000000000",
                      "11:22", "5000000000", "-3", "two", nullptr});
  uint32_t timestamps[3] = {0, 0, 99};
  int32_t slotIndexes[3] = {0, 0, 99};
  uint64_t values[3] = {0, 7, 99};
  char macs[3][32] = {{}, {}, "keep"};
  char source[16] = {};
  ASSERT_EQ(db_getRateIdxTimeStamp(index.cells.data(), 2, 5, timestamps, slotIndexes, values,
                                   macs, source),
            0);
  EXPECT_EQ(timestamps[0], 1700000000u);
  EXPECT_EQ(timestamps[1], 4294967295u);
  EXPECT_EQ(timestamps[2], 99u);
  EXPECT_EQ(slotIndexes[0], 12);
  EXPECT_EQ(slotIndexes[1], -3);
  EXPECT_EQ(values[0], 5000000000ull);
  EXPECT_EQ(values[1], 7u);  // NULL cell
  EXPECT_STREQ(macs[0], "aa:bb:cc:dd:ee:ff-and-a-long-su");
  EXPECT_STREQ(macs[1], "11:22");
  EXPECT_STREQ(macs[2], "keep");
  EXPECT_STREQ(source, "two");
  // The MAC texts and the source may be absent.
  ASSERT_EQ(db_getRateIdxTimeStamp(index.cells.data(), 1, 5, timestamps, slotIndexes, values,
                                   nullptr, nullptr),
            0);
  EXPECT_EQ(values[0], 5000000000ull);
  EXPECT_TRUE(log().lines().empty()) << log().dump();

  EXPECT_EQ(db_setSlotRate(nullptr, 1, 5, &record), 2);
  EXPECT_EQ(db_getRateIdxTimeStamp(index.cells.data(), 0, 5, timestamps, slotIndexes, values,
                                   macs, source),
            2);
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] BandWidth result array NULL / rowcount 1 columcount 5\n"));
  EXPECT_TRUE(log().has(RYX_LOG_ERROR,
                        "[analyticsDB] BandWidth result array NULL / rowcount 0 columcount 5\n"));
}
