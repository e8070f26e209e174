// Tests of the synthetic gateway: the week ring, contention with the write queue, and the
// span reads of devices younger than the span.
#include <gtest/gtest.h>

#include "analyticsdb.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

// The summary line of one label, without its padding.
std::string summaryValue(const std::string &summary, const std::string &label) {
  std::size_t at = summary.find("  " + label + " ");
  if (at == std::string::npos)
    return "";
  std::size_t value = summary.find_first_not_of(' ', at + 2 + label.size());
  return summary.substr(value, summary.find('\n', value) - value);
}

TEST(ToolSimulate, EightDaysWrapTheWeekAndReadBack) {
  TempDir dir;
  const std::string db = dir.file("week.db");
  const std::string summary =
      runOk({"simulate", "--devices", "2", "--days", "8", "--start", "1704067200", "--db", db});
  EXPECT_EQ(summaryValue(summary, "lost"), "0");
  EXPECT_EQ(summaryValue(summary, "read-back"),
            "all 12,098 values match (2 inventory rows, 2 devices x 3 series x 2016 slots)");
  EXPECT_EQ(summaryValue(summary, "queued"),
            "0 requests parked on a busy database (peak 0 of 320)");

  // The day 8 samples overwrote day 1's: a week's span ends at the last tick and holds a full
  // ring, oldest first, without a break where the ring wraps.
  expectGolden("week-after-eight-days.txt",
               runOk({"series", "02:ad:b0:00:00:00", "--rx", "--last", "7d", "--db", db}));
}

TEST(ToolSimulate, ContentionIsParkedAndReplayedWithoutLoss) {
  // Without waits every burst that meets a tick makes the library refuse a write and roll the
  // tick's transaction back, as a loaded machine sometimes does; then with the default waits.
  for (uint32_t waitMs : {0u, 100u}) {
    SCOPED_TRACE(waitMs);
    TempDir dir;
    const std::string db = dir.file("busy.db");
    ASSERT_EQ(db_setBusyWait(waitMs, waitMs == 0 ? 0 : 250), DB_STATUS_SUCCESS);
    const std::string summary =
        runOk({"simulate", "--devices", "4", "--days", "1", "--contend", "--db", db});
    EXPECT_EQ(summaryValue(summary, "lost"), "0") << summary;
    EXPECT_EQ(summaryValue(summary, "read-back").rfind("all ", 0), 0u) << summary;
    // Every parked request was replayed.
    std::string queued = summaryValue(summary, "queued");
    std::string replayed = summaryValue(summary, "replayed");
    EXPECT_EQ(queued.substr(0, queued.find(' ')), replayed.substr(0, replayed.find(' ')))
        << summary;
    EXPECT_EQ(queueCount, 0);
    if (waitMs == 0) {
      EXPECT_NE(summaryValue(summary, "written again").rfind("0 ", 0), 0u) << summary;
    }
  }
}

TEST(ToolSimulate, SeriesOfADeviceWithoutInventoryFallsBackToTheDayReads) {
  TempDir dir;
  const std::string db = dir.file("young.db");
  ASSERT_EQ(runCli({"init", "--db", db}).status, 0);
  // Two samples of a device that has no inventory row (so nothing limits the span) and rows in
  // only one day table: the span read of the library refuses such a span.
  const std::string mac = "02:ad:b0:00:0f:01";
  writeSample(db, db_updateBandWidthRx, {mac, "LAN", "1704672900", "2015", "700"});
  writeSample(db, db_updateBandWidthRx, {mac, "LAN", "1704673200", "2016", "900"});
  // The 15 minutes read the day of their slots; the week counts the two samples among its 2016
  // slots; and without RSSI samples or inventory the device is unknown.
  expectGolden("young-device.txt", transcript({{"series", mac, "--rx", "--last", "15m", "--csv"},
                                               {"series", mac, "--rx", "--last", "7d"},
                                               {"series", mac}},
                                              db));
}

} // namespace
} // namespace adbtool::test
