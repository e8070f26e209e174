// Tests of the export for fleet collectors: OpenMetrics that a Prometheus parser accepts even
// when device names hold quotes, backslashes, line breaks and bytes that are not UTF-8.
#include <gtest/gtest.h>

#include <cstdlib>

#include "analyticsdb.h"
#include "output.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

TEST(ToolExport, OpenMetricsEscapesLabelsAndPassesPromtool) {
  TempDir dir;
  const std::string db = dir.file("fleet.db");
  ASSERT_EQ(
      runCli({"simulate", "--devices", "3", "--days", "1", "--start", "1704067200", "--db", db})
          .status,
      0);
  ASSERT_EQ(0, db_setDatabasePath(db.c_str()));
  ASSERT_EQ(0, db_writeQuery("UPDATE DEVICEINFO SET HOST_S = 'a\"b\\c' || char(10) || 'd' "
                             "|| CAST(X'FF' AS TEXT) WHERE MAC_S = '02:ad:b0:00:00:02'"));
  db_closeDbConnection();

  const std::string file = dir.file("analyticsdb.prom");
  ToolRun run = runCli({"export", "--out", file, "--db", db});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string text = readFile(file);
  // The wired uplink has no RSSI sample; rates are bytes per second (kbit/s x 125).
  for (const char *expected :
       {"# TYPE analyticsdb_device_rssi_dbm gauge\n"
        "analyticsdb_device_rssi_dbm{mac=\"02:ad:b0:00:00:01\",host=\"living-room-tv\","
        "band=\"5G\"} -52\n",
        "analyticsdb_device_transmit_bytes_per_second{mac=\"02:ad:b0:00:00:01\","
        "host=\"living-room-tv\",band=\"5G\"} 2125\n",
        "host=\"a\\\"b\\\\c^Jd\xef\xbf\xbd\"", "\n# EOF\n"})
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  EXPECT_EQ(text, runCli({"export", "--db", db}).out);

  Json json = Json::parse(runCli({"export", "--format", "json", "--db", db}).out);
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["devices"][0]["rssi"], nullptr);
  EXPECT_EQ(json["devices"][1]["tx"]["value"], 17);

#if defined(ANALYTICSDB_TOOL_PROMTOOL)
  const std::string command =
      std::string(ANALYTICSDB_TOOL_PROMTOOL) + " check metrics < '" + file + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
#else
  GTEST_SKIP() << "promtool (Debian package prometheus) is not installed: the OpenMetrics text "
                  "was not checked by a Prometheus parser";
#endif
}

} // namespace
} // namespace adbtool::test
