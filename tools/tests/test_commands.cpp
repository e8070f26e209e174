// Tests of the tool's read commands and argument handling. The golden outputs come from a
// small fixed database that the tool itself builds (a deterministic simulation starting
// 2024-01-01 00:00 UTC); the error cases use databases that cost nothing to make.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "analyticsdb.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

const std::string kUplink = "02:ad:b0:00:00:00";
const std::string kTv = "02:ad:b0:00:00:01";

TEST(ToolCommands, ReadCommandsMatchGolden) {
  TempDir dir;
  const std::string db = simulated(dir, 3);
  std::string text = transcript(
      {{"devices"},
       {"devices", "--json"},
       {"devices", "--watch", "0.5", "--count", "2"},  // the table twice, a blank line between
       {"top"},
       {"top", "--last", "1h", "--sort", "rssi", "--json"},  // the wired uplink comes last
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
  const std::string db = dir.file("one-device.db");
  const std::string missing = dir.file("missing.db");
  const std::string notDatabase = dir.file("notes.txt");
  const std::string foreign = dir.file("foreign.db");
  const std::string busy = dir.file("busy.db");
  writeFile(notDatabase, std::string(4096, 'x'));
  ASSERT_EQ(runCli({"init", "--db", db}).status, 0);
  ASSERT_EQ(runCli({"init", "--db", busy}).status, 0);
  // One sample of one device; a valid SQLite file that holds none of the analytics tables; and
  // a database another connection holds.
  writeSample(db, db_updateRssi, {kTv, "1704067200", "1", "-60"});
  runSql(foreign, "CREATE TABLE unrelated (x INTEGER)");
  sqlite3 *holder = nullptr;
  ASSERT_EQ(sqlite3_open(busy.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

  // Every command with its exit status and its one line on standard error, as the golden file
  // has them.
  std::string failures =
      transcript({{"series", "02:ad:b0:00:00:99", "--db", db},
                  {"series", kTv, "--tx", "--db", db},
                  {"plot", "02:ad:b0:00:00:99", "--out", dir.file("x.svg"), "--db", db},
                  {"plot", kTv, "--out", dir.file("no-such-folder/x.svg"), "--db", db},
                  {"devices", "--db", missing},
                  {"init", "--db", "/nonexistent-folder/a.db"},
                  {"devices", "--db", dir.file("")},
                  {"devices", "--db", notDatabase},
                  {"simulate", "--db", notDatabase},
                  {"devices", "--db", foreign},
                  {"series", kUplink, "--tx", "--db", foreign},
                  // Writes into a file that holds something else are refused without --force.
                  {"init", "--db", foreign},
                  {"simulate", "--db", foreign},
                  {"simulate", "--db", db},
                  {"devices", "--db", ""},
                  // A database held longer than --wait, for reading and writing.
                  {"devices", "--wait", "0.1", "--db", busy},
                  {"init", "--wait", "0.1", "--db", busy}});
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
  // Forced, the foreign file takes the tables; released, the busy file reads.
  sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  failures += transcript({{"init", "--force", "--db", foreign},
                          {"devices", "--db", foreign},
                          {"devices", "--wait", "0.1", "--db", busy}});
  expectGolden("failures.txt", failures,
               {{dir.file(""), "DIR/"}, {ANALYTICSDB_DB_PATH_FOR_TESTS, "DEFAULT_DB"}});
}

}  // namespace
}  // namespace adbtool::test
