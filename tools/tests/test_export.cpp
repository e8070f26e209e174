// Tests of the export for fleet collectors: OpenMetrics that a Prometheus parser accepts even
// when device names hold quotes, backslashes, line breaks and bytes that are not UTF-8, with the
// queue counters of the processes that still run.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tool_test_support.h"

namespace adbtool::test {
namespace {

TEST(ToolExport, DevicesAndRunningQueuesAsOpenMetricsThatPromtoolAccepts) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  runSql(db,
         "UPDATE DEVICEINFO SET HOST_S = 'a\"b\\c' || char(10) || 'd' || CAST(X'FF' AS TEXT) "
         "WHERE MAC_S = '02:ad:b0:00:00:02'");
  // The counters of this process, which runs, and of one that does not.
  const std::string stats = dir.file("stats");
  ASSERT_EQ(mkdir(stats.c_str(), 0755), 0);
  std::string process = readFile("/proc/self/comm");
  process.pop_back();
  const pid_t ended = 4194304;           // above the highest pid Linux hands out
  for (pid_t pid : {getpid(), ended}) {  // as the library writes them, each counter different
    writeFile(stats + "/queue." + std::to_string(pid),
              "pid " + std::to_string(pid) + "\nprocess " + process +
                  "\nparked 7\nreplayed 4\nretried 9\ndroppedError 1\ndroppedMalformed 2\n"
                  "freed 5\nrefused 3\nstalls 11\nlength 1\npeakLength 6\n");
  }

  // The wired uplink has no RSSI sample; rates are bytes per second (kbit/s x 125); the host
  // name is escaped; the ended process is left out.
  const std::string file = dir.file("analyticsdb.prom");
  runOk({"export", "--out", file, "--stats-dir", stats, "--db", db});
  const std::string text = readFile(file);
  const std::string pid = std::to_string(getpid());
  const std::vector<std::pair<std::string, std::string>> varying = {
      {"pid=\"" + pid + "\"", "pid=\"PID\""},
      {"\"pid\": " + pid + ",", "\"pid\": PID,"},
      {"\"" + process + "\"", "\"PROCESS\""}};
  expectGolden("export.prom", text, varying);
  EXPECT_EQ(text, runOk({"export", "--stats-dir", stats, "--db", db}));
  expectGolden("export.json",
               runOk({"export", "--format", "json", "--stats-dir", stats, "--db", db}), varying);
  // Without a publishing process the families stay, without samples.
  expectGolden("export-no-queues.prom", runOk({"export", "--stats-dir", "", "--db", db}));
}

}  // namespace
}  // namespace adbtool::test
