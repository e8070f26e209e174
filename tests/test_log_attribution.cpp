// Every log line names the exported function its message belongs to, and the module that defines
// that function, also when a shared helper emits it: field tools grep the log for the function.
// The line number is that of the log call in the module's source. (The queue's own lines: the
// QueueTest tests.)
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/queue_cases.h"

namespace {

using adbtest::Values;

// A part of the message that only the expected lines hold, and "module function".
using Attribution = std::pair<const char *, const char *>;

struct Case {
  const char *name;
  std::function<void()> provoke;
  std::vector<Attribution> lines;
};

using LogAttribution = adbtest::DbTest;

constexpr const char *kMac = "aa:bb:cc:dd:ee:01";
constexpr Attribution kGate{"Queue: Status", "db_manage_queue db_manageQueue"};

}  // namespace

TEST_F(LogAttribution, HelpersLogInTheNameOfTheFunctionTheyWorkFor) {
  createInventoryTables();
  ASSERT_EQ(db_createPrimitiveBandWidthRxTable(288), DB_STATUS_SUCCESS);
  // A WAN sample for `mac`, then the latest read of the WAN.
  auto latestAfter = [record = std::make_unique<BandWidthRecord>()](const char *mac) {
    int32_t count = 0;
    db_updatePrimitiveBandWidthRx(Values{mac, "WAN", "1000", "10"}.data());
    db_readBandWidthLatestRx("WAN", 100, record.get(), &count);
  };

  const Case cases[] = {
      // The gate's line, for the writer that passed it.
      {"inventory writer", [] { db_updateDeviceInfoCapacity(Values{kMac, "5"}.data()); }, {kGate}},
      // Table creation through the shared day-table helper.
      {"too many slots", [] { db_createRssiTab(1, 300); },
       {{"is outside 1 to", "db_api_create db_createRssiTab"}}},
      // A sample's slot is written by the series' slot writer.
      {"sample's slot", [] { db_updateBandWidthRx(Values{kMac, "WAN", "1000", "0", "1"}.data()); },
       {{"BandWithRx table - slot index is empty",
         "db_api_update_read db_updateBandWidthSlotRx"}}},
      // A latest read logs for the day read it runs, too.
      {"latest span", [&] { latestAfter(kMac); },
       {{"Read BandwidthRx table for day 1 failed", "db_api_update_read db_readRxStartToEnd"},
        {"CMA Reading Rx tables failed", "db_api_update_read db_readBandWidthLatestRx"}}},
      {"two WANs", [&] { latestAfter("aa:bb:cc:dd:ee:02"); },
       {{"WAN found in DB", "db_api_update_read db_readBandWidthLatestRx"}}},
      // A whole-series delete works through the series' exported deletes.
      {"series delete", [] { db_deleteMacBandWidthTx(nullptr); },
       {{"of PRIMITIVE_BANDWIDTHTX is NULL", "db_api_delete db_deletePrimitiveBandWidthTx"},
        {"of BANDWIDTHTX is NULL", "db_api_delete db_deleteDayBandWidthTx"}}},
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
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    log().clear();
    c.provoke();
    for (const auto &[part, where] : c.lines) adbtest::expectAttributed(log(), part, where);
  }
}
