// Tests of the analyticsdb tool, run in-process: the read commands and argument handling, the
// export for fleet collectors, the SVG plot and the escaping of inventory text in every output
// form, and the synthetic gateway. The golden outputs come from small fixed databases that the
// tool itself builds (a deterministic simulation starting 2024-01-01 00:00 UTC); the error cases
// use databases that cost nothing to make.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "analyticsdb.h"
#include "svg.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

const std::string kUplink = "02:ad:b0:00:00:00";
const std::string kTv = "02:ad:b0:00:00:01";

TEST(ToolCommands, ReadCommandsMatchGolden) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  std::string text = transcript(
      {{"devices"}, {"devices", "--json"},
       {"devices", "--watch", "0.5", "--count", "2"},  // the table twice, a blank line between
       {"top"}, {"top", "--last", "1h", "--sort", "rssi", "--json"},  // the wired uplink last
       {"series", kUplink, "--rx", "--last", "1h", "--csv"},
       {"series", kTv, "--tx", "--last", "30m", "--json"},
       {"series", kTv, "--rssi", "--width", "48"},
       {"series", kTv, "--rx", "--last", "6h", "--ascii"},
       // The fixture holds one day: a week's span shows that day, not six days of zeros; and a
       // MAC matches whatever its letter case.
       {"series", "02:AD:B0:00:00:01", "--rx", "--last", "7d"},
       // A device by host name (any letter case) is the device by MAC; absolute times select
       // whole slots; a wired device's RSSI slots are empty, not 0 dBm.
       {"series", "Living-Room-TV", "--rx", "--last", "1h", "--csv"},
       {"series", kTv, "--rx", "--from", "2024-01-01T06:00", "--to", "@1704090000", "--csv"},
       {"series", kUplink, "--rssi", "--last", "10m", "--csv"}},
      db);
  runSql(db, "UPDATE DEVICEINFO SET HOST_S = 'living-room-tv'");
  text += transcript({{"series", "living-room-tv"}}, db);
  expectGolden("read-commands.txt", text);
}

// Every failure is one line with the exit status of its cause; a read command
// never creates the file it was pointed at, and a refused write leaves the file as it was.
TEST(ToolCommands, FailuresAreOneLineWithTheStatusOfTheirCause) {
  TempDir dir;
  const std::string db = dir.file("one-device.db"), missing = dir.file("missing.db"),
                    notDatabase = dir.file("notes.txt"), foreign = dir.file("foreign.db"),
                    busy = dir.file("busy.db");
  writeFile(notDatabase, std::string(4096, 'x'));
  for (const std::string &file : {db, busy}) ASSERT_EQ(runCli({"init", "--db", file}).status, 0);
  // One sample of one device; a valid SQLite file that holds none of the analytics tables; and
  // a database another connection holds.
  writeSample(db, db_updateRssi, {kTv, "1704067200", "1", "-60"});
  runSql(foreign, "CREATE TABLE unrelated (x INTEGER)");
  sqlite3 *holder = nullptr;
  ASSERT_EQ(sqlite3_open(busy.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

  // Every command with its exit status and its one line on standard error, as the golden file
  // has them.
  std::string failures = transcript(
      {{"series", "02:ad:b0:00:00:99", "--db", db}, {"series", kTv, "--tx", "--db", db},
       {"plot", "02:ad:b0:00:00:99", "--out", dir.file("x.svg"), "--db", db},
       {"plot", kTv, "--out", dir.file("no-such-folder/x.svg"), "--db", db},
       {"devices", "--db", missing}, {"init", "--db", "/nonexistent-folder/a.db"},
       {"devices", "--db", dir.file("")}, {"devices", "--db", notDatabase},
       {"simulate", "--db", notDatabase}, {"devices", "--db", foreign},
       {"series", kUplink, "--tx", "--db", foreign},
       // Writes into a file that holds something else are refused without --force.
       {"init", "--db", foreign}, {"simulate", "--db", foreign}, {"simulate", "--db", db},
       {"devices", "--db", ""},
       // A database held longer than --wait, for reading and writing.
       {"devices", "--wait", "0.1", "--db", busy}, {"init", "--wait", "0.1", "--db", busy}});
  if (geteuid() != 0) {  // root reads and writes any file
    const std::string readOnly = dir.file("read-only.db");
    ASSERT_EQ(runCli({"init", "--db", readOnly}).status, 0);
    ASSERT_EQ(chmod(readOnly.c_str(), 0444), 0);
    const std::string denied = transcript({{"init"}, {"simulate"}}, readOnly);
    ASSERT_EQ(chmod(readOnly.c_str(), 0), 0);
    expectGolden("read-only.txt", denied + transcript({{"devices"}}, readOnly),
                 {{dir.file(""), "DIR/"}});
  }
  EXPECT_NE(access(missing.c_str(), F_OK), 0);
  // Forced, the foreign file takes the tables; released (closing ends the holder's transaction),
  // the busy file reads.
  sqlite3_close(holder);
  failures += transcript({{"init", "--force", "--db", foreign},
                          {"devices", "--db", foreign},
                          {"devices", "--wait", "0.1", "--db", busy}});
  expectGolden("failures.txt", failures,
               {{dir.file(""), "DIR/"}, {ANALYTICSDB_DB_PATH_FOR_TESTS, "DEFAULT_DB"}});
}

// The export: OpenMetrics that a Prometheus parser accepts even when device names hold quotes,
// backslashes, line breaks and bytes that are not UTF-8, with the queue counters of the
// processes that still run.
TEST(ToolExport, DevicesAndRunningQueuesAsOpenMetricsThatPromtoolAccepts) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  runSql(db, "UPDATE DEVICEINFO SET HOST_S = 'a\"b\\c' || char(10) || 'd' || CAST(X'FF' AS TEXT) "
             "WHERE MAC_S = '02:ad:b0:00:00:02'");
  // The counters of this process, which runs, and of one that does not.
  const std::string stats = dir.file("stats");
  ASSERT_EQ(mkdir(stats.c_str(), 0755), 0);
  std::string process = readFile("/proc/self/comm");
  process.pop_back();
  // The ended one's pid is above the highest Linux hands out; the files are as the library
  // writes them, each counter different.
  for (pid_t pid : {getpid(), pid_t{4194304}}) {
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
      {"pid=\"" + pid + "\"", "pid=\"PID\""}, {"\"pid\": " + pid + ",", "\"pid\": PID,"},
      {"\"" + process + "\"", "\"PROCESS\""}};
  expectGolden("export.prom", text, varying);
  EXPECT_EQ(text, runOk({"export", "--stats-dir", stats, "--db", db}));
  expectGolden("export.json",
               runOk({"export", "--format", "json", "--stats-dir", stats, "--db", db}), varying);
  // Without a publishing process the families stay, without samples.
  expectGolden("export-no-queues.prom", runOk({"export", "--stats-dir", "", "--db", db}));
}

TEST(ToolPlot, SvgIsWellFormedAndCarriesAxesUnitsAndLines) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  // A host name that needs escaping in XML.
  runSql(db, "UPDATE DEVICEINFO SET HOST_S = 'Ann''s \"TV\" & <den>' WHERE MAC_S = '" + kTv + "'");
  const std::string svgPath = dir.file("tv.svg");
  runOk({"plot", kTv, "--out", svgPath, "--db", db});
  // RSSI against its bands, then receive and transmit each on its own scale and unit (the TV
  // sends a few hundred kbit/s while it receives tens of Mbit/s) with the peak marked.
  expectGolden("plot-tv.svg", readFile(svgPath));

  // The wired uplink has no RSSI panel; the picture can go to standard output at another size.
  expectGolden("plot-uplink-640x480.svg", runOk({"plot", "internet-uplink", "--out", "-", "--width",
                                                 "640", "--height", "480", "--db", db}));
}

TEST(ToolPlot, HostileNamesReachTheTerminalWithoutControlBytesAndStayAligned) {
  TempDir dir;
  const std::string db = simulated(dir, 5);
  // A terminal retitle, a line break and tab, wide characters with a combining mark, bytes that
  // are not UTF-8, and a right-to-left override.
  runSql(db,
         "UPDATE DEVICEINFO SET HOST_S = CASE substr(MAC_S, -1) "
         "WHEN '0' THEN char(27) || ']0;pwned' || char(7) "
         "WHEN '1' THEN 'two' || char(10) || 'lines' || char(9) || 'here' "
         "WHEN '2' THEN char(23458, 21381) || 'e' || char(769) "
         "WHEN '3' THEN CAST(X'626164FFFE' AS TEXT) ELSE char(8238) || 'evil' END");
  // As on a terminal (80 columns when standard output is none): tables fit, and no control
  // byte gets through.
  const std::string shown = transcript(
      {{"devices"}, {"top", "--last", "7d"}, {"series", "02:ad:b0:00:00:00", "--rx"}}, db, true);
  // Every name shown with ^X for its control characters and U+FFFD for its bytes that are not
  // UTF-8, and every row's IP column at the header's terminal column. JSON keeps the names
  // (control characters escaped), with U+FFFD for the bytes that are not UTF-8, so it parses.
  expectGolden("hostile-names.txt", shown + transcript({{"devices"}, {"devices", "--json"}}, db));
}

TEST(ToolPlot, PicturesOfNoSamplesAndOfAWeekWithAGap) {
  PlotInput input;
  input.mac = "02:ad:b0:00:00:07";
  input.spanLabel = "last 1h";
  expectGolden("plot-no-samples.svg", renderSvg(input));

  // A week of RSSI with a missing stretch: more points than pixels, drawn as means with a
  // minimum-to-maximum band, and two runs either side of the gap.
  input.spanLabel = "last 7d";
  Series &rssi = input.rssi.emplace();
  rssi.spec = &seriesSpec(SeriesKind::Rssi);
  rssi.mac = input.mac;
  for (uint32_t i = 0; i < 2016; ++i) {
    rssi.times.push_back(1704067200 + i * 300);
    rssi.slots.push_back(static_cast<int32_t>(i + 1));
    rssi.values.push_back(i >= 900 && i < 1000 ? 0 : -50 - static_cast<int64_t>(i % 7));
  }
  expectGolden("plot-week-with-gap.svg", renderSvg(input));
  // Text reaches the picture escaped, without the control characters XML 1.0 forbids.
  EXPECT_EQ(xmlEscape("a<b>&'\"\x01"), "a&lt;b&gt;&amp;&apos;&quot;");
}

// The synthetic gateway: the week ring, contention with the write queue, and the span reads of
// devices younger than the span.

// The summary line of one label, without its padding; or only its first word.
std::string summaryValue(const std::string &summary, const std::string &label, bool word = false) {
  const std::size_t at = summary.find("  " + label + " ");
  if (at == std::string::npos) return "";
  const std::size_t value = summary.find_first_not_of(' ', at + 2 + label.size());
  return summary.substr(value, summary.find_first_of(word ? " \n" : "\n", value) - value);
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
    EXPECT_EQ(summaryValue(summary, "read-back", true), "all") << summary;
    // Every parked request was replayed.
    EXPECT_EQ(summaryValue(summary, "queued", true), summaryValue(summary, "replayed", true))
        << summary;
    EXPECT_EQ(queueCount, 0);
    if (waitMs == 0) {
      EXPECT_NE(summaryValue(summary, "written again", true), "0") << summary;
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
  expectGolden("young-device.txt",
               transcript({{"series", mac, "--rx", "--last", "15m", "--csv"},
                           {"series", mac, "--rx", "--last", "7d"}, {"series", mac}}, db));
}

}  // namespace
}  // namespace adbtool::test
