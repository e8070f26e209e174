// Every log line names the exported function its message belongs to, and the module that defines
// that function, also when a shared helper emits it: field tools grep the log for the function.
// The line number is that of the log call in the module's source. (The queue's own lines: the
// QueueTest tests.)
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "support/queue_cases.h"

namespace {

using adbtest::Values;

struct Attribution {
  const char *message;  // a part of the message that only the expected lines hold
  const char *where;    // "module function"
};

struct Case {
  const char *name;
  std::function<void()> provoke;
  std::vector<Attribution> lines;
};

class LogAttribution : public adbtest::DbTest {
 protected:
  void expectAttributed(const Case &c) {
    SCOPED_TRACE(c.name);
    log().clear();
    c.provoke();
    for (const Attribution &expected : c.lines) {
      adbtest::expectAttributed(log(), expected.message, expected.where);
    }
  }
};

constexpr const char *kMac = "aa:bb:cc:dd:ee:01";
constexpr Attribution kGate{"Queue: Status", "db_manage_queue db_manageQueue"};

}  // namespace

TEST_F(LogAttribution, HelpersLogInTheNameOfTheFunctionTheyWorkFor) {
  createInventoryTables();
  ASSERT_EQ(db_createPrimitiveRssiTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(288), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_createPrimitiveBandWidthTxTable(288), DB_STATUS_SUCCESS);
  auto record = std::make_unique<BandWidthRecord>();
  int32_t count = 0;
  uint64_t value = 0;
  uint16_t rssi = 0;

  const Case cases[] = {
      // The gate's line, whichever family's writer passes it.
      {"inventory writer", [] { db_updateDeviceInfoCapacity(Values{kMac, "5"}.data()); }, {kGate}},
      {"sample", [] { db_updateRssi(Values{kMac, "1000", "3", "-50"}.data()); }, {kGate}},
      {"default fill", [] { db_updateRssiSlotDefaultValue(Values{kMac, "1", "2"}.data()); },
       {kGate}},
      {"delete", [] { db_deleteMacMeshTopo(kMac); }, {kGate}},
      {"drop", [] { db_dropRssiTable(6); }, {kGate}},
      {"version", [] { db_updateDBVersion(3); }, {kGate}},
      // Table creation.
      {"index table", [] { db_createPrimitiveBandWidthTxTable(0); },
       {{"Table is not created .Slot count is zero",
         "db_api_create db_createPrimitiveBandWidthTxTable"}}},
      {"day 0", [] { db_createRxBandWidth(0, 288); },
       {{"BandwidthRx Input day should be", "db_api_create db_createRxBandWidth"}}},
      {"no slots", [] { db_createTxBandWidth(2, 0); },
       {{"BandwidthTx Table 2 is not created", "db_api_create db_createTxBandWidth"}}},
      {"too many slots", [] { db_createRssiTab(1, 300); },
       {{"is outside 1 to", "db_api_create db_createRssiTab"}}},
      // Slot writes and their replays; a sample's slot is written by the series' slot writer.
      {"slot", [] { db_updateRssiSlot(Values{kMac, "0", "1"}.data()); },
       {{"Rssi table - slot index is empty", "db_api_update_read db_updateRssiSlot"}}},
      {"sample's slot", [] { db_updateBandWidthRx(Values{kMac, "WAN", "1000", "0", "1"}.data()); },
       {{"BandWithRx table - slot index is empty",
         "db_api_update_read db_updateBandWidthSlotRx"}}},
      {"slot replay", [] { db_updateQueueBandWidthSlotTx(Values{kMac, "0", "1"}.data()); },
       {{"BandWithTx table - slot index is empty",
         "db_api_update_read db_updateQueueBandWidthSlotTx"}}},
      {"fill", [] { db_updateRxSlotDefaultValue(Values{kMac, "288", "289"}.data()); },
       {{"Mismatch in table", "db_api_update_read db_updateRxSlotDefaultValue"}}},
      {"fill replay", [] { db_updateQueueTxSlotDefaultValue(Values{kMac, "0", "5"}.data()); },
       {{"Mismatch in table", "db_api_update_read db_updateQueueTxSlotDefaultValue"}}},
      // Slot and span reads.
      {"slot value", [&] { db_readTxSlotValue(kMac, 0, &value); },
       {{"Cnt find tableIdx", "db_api_update_read db_readTxSlotValue"}}},
      {"rssi slot value", [&] { db_readRssiSlotValue(kMac, 0, &rssi); },
       {{"Cnt find tableIdx", "db_api_update_read db_readRssiSlotValue"}}},
      {"span", [&] { db_readTxStartToEnd(kMac, 1, 10, record.get()); },
       {{"Read BandwidthTx table for day 1 failed", "db_api_update_read db_readTxStartToEnd"},
        {"Check table content in DB", "db_api_update_read db_readTxStartToEnd"}}},
      {"latest span",
       [&] {
         db_updatePrimitiveBandWidthRx(Values{kMac, "WAN", "1000", "10"}.data());
         db_readBandWidthLatestRx("WAN", 100, record.get(), &count);
       },
       {{"Read BandwidthRx table for day 1 failed", "db_api_update_read db_readRxStartToEnd"},
        {"CMA Reading Rx tables failed", "db_api_update_read db_readBandWidthLatestRx"}}},
      {"two WANs",
       [&] {
         db_updatePrimitiveBandWidthRx(Values{"aa:bb:cc:dd:ee:02", "WAN", "1000", "10"}.data());
         db_readBandWidthLatestRx("WAN", 100, record.get(), &count);
       },
       {{"WAN found in DB", "db_api_update_read db_readBandWidthLatestRx"}}},
      {"no span",
       [&] {
         db_updatePrimitiveBandWidthTx(Values{kMac, "WAN", "1000", "10"}.data());
         db_readBandWidthLatestTx("WAN", 5000, record.get(), &count);
       },
       {{"start and end index on tx", "db_api_update_read db_readBandWidthLatestTx"}}},
      // Deletes: a whole-series delete works through the series' exported deletes.
      {"null key", [] { db_deleteMacDeviceInfo(nullptr); },
       {{"Delete: key MAC_S of DEVICEINFO is NULL", "db_api_delete db_deleteMacDeviceInfo"}}},
      {"series delete", [] { db_deleteMacBandWidthTx(nullptr); },
       {{"of PRIMITIVE_BANDWIDTHTX is NULL", "db_api_delete db_deletePrimitiveBandWidthTx"},
        {"of BANDWIDTHTX is NULL", "db_api_delete db_deleteDayBandWidthTx"}}},
      // Conversions name the converter or free function the caller called.
      {"conversion", [] { db_structDeviceInfo(nullptr, nullptr, 0, 0); },
       {{"result array NULL", "db_result_api db_structDeviceInfo"}}},
      {"free", [] { db_freeMeshTopoResult(nullptr, 0); },
       {{"Meshtopo struct is already NULL", "db_result_api db_freeMeshTopoResult"}}},
      // Foreign keys that cannot be enforced (no database to open), directly and on replay.
      {"foreign keys",
       [this] {
         ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
         ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/analytics.db").c_str()), 0);
         db_deleteNonWanBandwidthRxInfo();
         db_deleteQueueNonWanBandwidthTxInfo();
         ASSERT_EQ(db_setDatabasePath(dbPath().c_str()), 0);
       },
       {{"] SETTING FOREIGN KEY FAILED", "db_api_delete db_deleteNonWanBandwidthRxInfo"},
        {"[RETRY]SETTING FOREIGN KEY FAILED",
         "db_api_delete db_deleteQueueNonWanBandwidthTxInfo"}}},
  };
  for (const Case &c : cases) expectAttributed(c);
}
