// Tests of the export for fleet collectors: OpenMetrics that a Prometheus parser accepts even
// when device names hold quotes, backslashes, line breaks and bytes that are not UTF-8, with the
// queue counters of the processes that still run.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "output.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

// A stats file as the library writes it, with a different value for every counter.
std::string queueFile(pid_t pid, const std::string &process) {
  return "pid " + std::to_string(pid) + "\nprocess " + process +
         "\nparked 7\nreplayed 4\nretried 9\ndroppedError 1\ndroppedMalformed 2\nfreed 5\n"
         "refused 3\nstalls 11\nlength 1\npeakLength 6\n";
}

void expectPromtoolAccepts(const std::string &file) {
#if defined(ANALYTICSDB_TOOL_PROMTOOL)
  const std::string command =
      std::string(ANALYTICSDB_TOOL_PROMTOOL) + " check metrics < '" + file + "'";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
#else
  GTEST_SKIP() << "promtool (Debian package prometheus) is not installed: the OpenMetrics text "
                  "of "
               << file << " was not checked by a Prometheus parser";
#endif
}

TEST(ToolExport, DevicesAndRunningQueuesAsOpenMetricsThatPromtoolAccepts) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  runSql(db,
         "UPDATE DEVICEINFO SET HOST_S = 'a\"b\\c' || char(10) || 'd' || CAST(X'FF' AS TEXT) "
         "WHERE MAC_S = '02:ad:b0:00:00:02'");
  // The counters of this process, which runs, and of one that has ended.
  const std::string stats = dir.file("stats");
  ASSERT_EQ(mkdir(stats.c_str(), 0755), 0);
  std::string process = readFile("/proc/self/comm");
  process.pop_back();
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  ASSERT_EQ(waitpid(ended, nullptr, 0), ended);
  writeFile(stats + "/queue." + std::to_string(getpid()), queueFile(getpid(), process));
  writeFile(stats + "/queue." + std::to_string(ended), queueFile(ended, process));

  const std::string file = dir.file("analyticsdb.prom");
  ToolRun run = runCli({"export", "--out", file, "--stats-dir", stats, "--db", db});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string text = readFile(file);
  const std::string labels = "{pid=\"" + std::to_string(getpid()) + "\",process=\"" + process;
  // The wired uplink has no RSSI sample; rates are bytes per second (kbit/s x 125).
  for (const std::string &expected : std::vector<std::string>{
           "# TYPE analyticsdb_device_rssi_dbm gauge\n"
           "analyticsdb_device_rssi_dbm{mac=\"02:ad:b0:00:00:01\",host=\"living-room-tv\","
           "band=\"5G\"} -52\n",
           "analyticsdb_device_transmit_bytes_per_second{mac=\"02:ad:b0:00:00:01\","
           "host=\"living-room-tv\",band=\"5G\"} 2125\n",
           "host=\"a\\\"b\\\\c^Jd\xef\xbf\xbd\"",
           "# TYPE analyticsdb_queue_parked_total counter\nanalyticsdb_queue_parked_total" +
               labels + "\"} 7\n",
           "analyticsdb_queue_replayed_total" + labels + "\"} 4\n",
           "analyticsdb_queue_retried_total" + labels + "\"} 9\n",
           "analyticsdb_queue_dropped_total" + labels + "\",reason=\"error\"} 1\n" +
               "analyticsdb_queue_dropped_total" + labels + "\",reason=\"malformed\"} 2\n",
           "analyticsdb_queue_freed_total" + labels + "\"} 5\n",
           "analyticsdb_queue_refused_total" + labels + "\"} 3\n",
           "analyticsdb_queue_stalls_total" + labels + "\"} 11\n",
           "# TYPE analyticsdb_queue_length gauge\nanalyticsdb_queue_length" + labels + "\"} 1\n",
           "analyticsdb_queue_peak_length" + labels + "\"} 6\n# EOF\n"}) {
    EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
  }
  EXPECT_EQ(text.find("pid=\"" + std::to_string(ended) + "\""), std::string::npos) << text;
  EXPECT_EQ(text, runCli({"export", "--stats-dir", stats, "--db", db}).out);

  Json json =
      Json::parse(runCli({"export", "--format", "json", "--stats-dir", stats, "--db", db}).out);
  EXPECT_EQ(json["version"], 1);
  EXPECT_EQ(json["devices"][0]["rssi"], nullptr);
  EXPECT_EQ(json["devices"][1]["tx"]["value"], 17);
  ASSERT_EQ(json["queues"].size(), 1u);
  EXPECT_EQ(json["queues"][0]["pid"], getpid());
  EXPECT_EQ(json["queues"][0]["process"], process);
  EXPECT_EQ(json["queues"][0]["droppedMalformed"], 2);
  EXPECT_EQ(json["queues"][0]["peakLength"], 6);

  // Without a publishing process the families stay, without samples.
  std::string none = runCli({"export", "--stats-dir", "", "--db", db}).out;
  EXPECT_NE(
      none.find("# TYPE analyticsdb_queue_stalls_total counter\n# HELP analyticsdb_queue_length"),
      std::string::npos)
      << none;
  expectPromtoolAccepts(file);
}

}  // namespace
}  // namespace adbtool::test
