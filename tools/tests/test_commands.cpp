// Tests of the tool's read commands and argument handling. The golden outputs come from a
// small fixed database that the tool itself builds (a deterministic simulation starting
// 2024-01-01 00:00 UTC); the error cases use databases that cost nothing to make.
#include <algorithm>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "analyticsdb.h"
#include "output.h"
#include "tool_test_support.h"

namespace adbtool::test {
namespace {

const std::string kUplink = "02:ad:b0:00:00:00";
const std::string kTv = "02:ad:b0:00:00:01";

TEST(ToolCommands, ReadCommandsMatchGolden) {
  TempDir dir;
  const std::string db = dir.file("fixture.db");
  ToolRun sim =
      runCli({"simulate", "--devices", "3", "--days", "1", "--start", "1704067200", "--db", db});
  ASSERT_EQ(sim.status, 0) << sim.out << sim.err;
  auto run = [&db](std::vector<std::string> args) {
    args.insert(args.end(), {"--db", db});
    ToolRun result = runCli(args);
    EXPECT_EQ(result.status, 0) << args[0] << ": " << result.err;
    EXPECT_EQ(result.err, "");
    return result.out;
  };

  expectGolden("devices.txt", run({"devices"}));
  expectGolden("devices.json", run({"devices", "--json"}));
  expectGolden("top.txt", run({"top"}));
  const std::string table = run({"devices"});
  EXPECT_EQ(run({"devices", "--watch", "0.5", "--count", "2"}), table + "\n" + table);
  Json top = Json::parse(run({"top", "--last", "1h", "--sort", "rssi", "--json"}));
  EXPECT_EQ(top["version"], 1);
  EXPECT_EQ(top["devices"][0]["host"], "living-room-tv"); // weaker than the phone
  EXPECT_EQ(top["devices"][2]["rssi"], nullptr);          // the wired uplink comes last
  expectGolden("series-uplink-rx-1h.csv",
               run({"series", kUplink, "--rx", "--last", "1h", "--csv"}));
  expectGolden("series-tv-tx-30m.json", run({"series", kTv, "--tx", "--last", "30m", "--json"}));
  expectGolden("series-tv-rssi-24h.txt", run({"series", kTv, "--rssi", "--width", "48"}));
  expectGolden("series-tv-rx-6h-ascii.txt",
               run({"series", kTv, "--rx", "--last", "6h", "--ascii"}));

  // The fixture holds one day: a week's span shows that day, not six days of zeros; and a MAC
  // matches whatever its letter case.
  std::string week = run({"series", "02:AD:B0:00:00:01", "--rx", "--last", "7d"});
  EXPECT_NE(week.find("288 slots of 5 min, 2024-01-01 00:00 .. 2024-01-01 23:55 UTC "
                      "(the device is younger than the span)"),
            std::string::npos)
      << week;

  // A device by host name (any letter case) is the device by MAC; absolute times select
  // whole slots; a wired device's RSSI slots are empty, not 0 dBm.
  EXPECT_EQ(run({"series", "Living-Room-TV", "--rx", "--last", "1h", "--csv"}),
            run({"series", kTv, "--rx", "--last", "1h", "--csv"}));
  std::string window =
      run({"series", kTv, "--rx", "--from", "2024-01-01T06:00", "--to", "@1704090000", "--csv"});
  EXPECT_EQ(std::count(window.begin(), window.end(), '\n'), 6) << window;
  EXPECT_NE(window.find("\n1704088800,2024-01-01T06:00:00Z,"), std::string::npos) << window;
  EXPECT_EQ(run({"series", kUplink, "--rssi", "--last", "10m", "--csv"}),
            "timestamp,time,slot,rssi_dbm\n1704153000,2024-01-01T23:50:00Z,1439,\n"
            "1704153300,2024-01-01T23:55:00Z,1440,\n");

  ASSERT_EQ(0, db_setDatabasePath(db.c_str()));
  ASSERT_EQ(0, db_writeQuery("UPDATE DEVICEINFO SET HOST_S = 'living-room-tv'"));
  db_closeDbConnection();
  ToolRun ambiguous = runCli({"series", "living-room-tv", "--db", db});
  EXPECT_EQ(ambiguous.status, 2);
  EXPECT_EQ(ambiguous.err, "analyticsdb: host name 'living-room-tv' is ambiguous: "
                           "02:ad:b0:00:00:00, 02:ad:b0:00:00:01, 02:ad:b0:00:00:02 (give the "
                           "MAC)\n");
}

TEST(ToolCommands, RuntimeErrorsAreOneLineWithStatusOne) {
  TempDir dir;
  const std::string db = dir.file("one-device.db");
  const std::string missing = dir.file("missing.db");
  const std::string notDatabase = dir.file("notes.txt");
  const std::string foreign = dir.file("foreign.db");
  writeFile(notDatabase, std::string(4096, 'x'));
  ASSERT_EQ(runCli({"init", "--db", db}).status, 0);
  // One sample of one device; and a valid SQLite file that holds none of the analytics tables.
  ASSERT_EQ(0, db_setDatabasePath(db.c_str()));
  db_initQueue();
  char *sample[] = {const_cast<char *>(kTv.c_str()), const_cast<char *>("1704067200"),
                    const_cast<char *>("1"), const_cast<char *>("-60")};
  ASSERT_EQ(0, db_updateRssi(sample));
  db_closeDbConnection();
  ASSERT_EQ(0, db_setDatabasePath(foreign.c_str()));
  ASSERT_EQ(0, db_writeQuery("CREATE TABLE unrelated (x INTEGER)"));
  db_closeDbConnection();

  struct Case {
    std::vector<std::string> args;
    int status;
    std::string message;
  };
  const std::string unwritable = dir.file("no-such-folder/x.svg");
  const Case cases[] = {
      {{"series", "02:ad:b0:00:00:99", "--db", db},
       1,
       "analyticsdb: unknown device 02:ad:b0:00:00:99: not in the inventory and no RSSI samples\n"},
      {{"series", kTv, "--tx", "--db", db},
       1,
       "analyticsdb: unknown device " + kTv +
           ": not in the inventory and no transmit bandwidth samples\n"},
      {{"plot", "02:ad:b0:00:00:99", "--out", dir.file("x.svg"), "--db", db},
       1,
       "analyticsdb: unknown device 02:ad:b0:00:00:99: not in the inventory and no samples\n"},
      {{"plot", kTv, "--out", unwritable, "--db", db},
       1,
       "analyticsdb: cannot write " + unwritable + ": No such file or directory\n"},
      {{"devices", "--db", missing},
       4,
       "analyticsdb: no database at " + missing + " (create one with 'analyticsdb init --db " +
           missing + "')\n"},
      {{"init", "--db", "/nonexistent-folder/a.db"},
       4,
       "analyticsdb: cannot create /nonexistent-folder/a.db: no folder /nonexistent-folder\n"},
      {{"devices", "--db", dir.file("")},
       1,
       "analyticsdb: " + dir.file("") + " is a directory, not a database file\n"},
      {{"devices", "--db", notDatabase},
       5,
       "analyticsdb: " + notDatabase +
           " is not a database or is damaged: file is not a database\n"},
      {{"simulate", "--db", notDatabase},
       5,
       "analyticsdb: " + notDatabase +
           " is not a database or is damaged: file is not a database\n"},
      {{"devices", "--db", foreign},
       4,
       "analyticsdb: no device table in " + foreign + " (run 'analyticsdb init' first)\n"},
      {{"series", kUplink, "--tx", "--db", foreign},
       4,
       "analyticsdb: no table PRIMITIVE_BANDWIDTHTX in the database (run 'analyticsdb init' "
       "first)\n"},
      // Writes into a file that holds something else are refused without --force.
      {{"init", "--db", foreign},
       2,
       "analyticsdb: " + foreign +
           " holds tables of another program (unrelated); refusing to add "
           "the analytics tables (--force to do it anyway)\n"},
      {{"simulate", "--db", foreign},
       2,
       "analyticsdb: " + foreign +
           " holds tables of another program (unrelated); refusing to "
           "write synthetic rows into it (--force to do it anyway)\n"},
      {{"simulate", "--db", db},
       2,
       "analyticsdb: " + db +
           " already holds 0 devices and 1 series rows; refusing to mix "
           "synthetic rows into them (use a new file, or --force)\n"},
      {{"devices", "--db", ""},
       2,
       "analyticsdb: --db is empty (give a file, or add --force to use " +
           std::string(ANALYTICSDB_DB_PATH_FOR_TESTS) + ")\n"},
  };
  for (const Case &c : cases) {
    ToolRun result = runCli(c.args);
    EXPECT_EQ(result.status, c.status) << c.args[0] << " " << c.args[1];
    EXPECT_EQ(result.err, c.message);
  }
  // A read command never creates the file it was pointed at, and a refused write leaves the
  // file as it was.
  EXPECT_NE(access(missing.c_str(), F_OK), 0);
  EXPECT_EQ(runCli({"devices", "--db", foreign}).status, 4);
  EXPECT_EQ(runCli({"init", "--force", "--db", foreign}).status, 0);
  EXPECT_EQ(runCli({"devices", "--db", foreign}).status, 0);
}

TEST(ToolCommands, ReadOnlyFileIsRefusedWithStatusSix) {
  if (geteuid() == 0)
    GTEST_SKIP() << "running as root, for whom no file is read-only";
  TempDir dir;
  const std::string db = dir.file("read-only.db");
  ASSERT_EQ(runCli({"init", "--db", db}).status, 0);
  ASSERT_EQ(chmod(db.c_str(), 0444), 0);
  for (const char *command : {"init", "simulate"}) {
    ToolRun result = runCli({command, "--db", db});
    EXPECT_EQ(result.status, 6) << command << ": " << result.err;
    EXPECT_EQ(result.err, "analyticsdb: cannot write " + db + ": Permission denied\n");
  }
  ASSERT_EQ(chmod(db.c_str(), 0), 0);
  EXPECT_EQ(runCli({"devices", "--db", db}).err,
            "analyticsdb: cannot read " + db + ": Permission denied\n");
}

TEST(ToolCommands, BusyDatabaseWaitsTheGivenTimeThenExitsThree) {
  TempDir dir;
  const std::string db = dir.file("busy.db");
  ASSERT_EQ(runCli({"init", "--db", db}).status, 0);
  sqlite3 *holder = nullptr;
  ASSERT_EQ(sqlite3_open(db.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  for (const char *command : {"devices", "init"}) {
    ToolRun result = runCli({command, "--wait", "0.1", "--db", db});
    EXPECT_EQ(result.status, 3) << command << ": " << result.err;
    EXPECT_EQ(result.err, "analyticsdb: " + db +
                              " is busy: another process held it for 0.1 s (try again, or wait "
                              "longer with --wait)\n");
  }
  sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(holder);
  EXPECT_EQ(runCli({"devices", "--wait", "0.1", "--db", db}).status, 0);
}

TEST(ToolCommands, UsageErrorsExitTwoWithoutTouchingTheDatabase) {
  TempDir dir;
  const std::string db = dir.file("never-created.db");
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"frobnicate"},
      {"series", kTv, "--last", "2w"},
      {"series", kTv, "--last", "8d"},
      {"series", kTv, "--last", "1m"},
      {"series", kTv, "--last", "99999d"},
      {"series", kTv, "--rx", "--tx"},
      {"series", kTv, "--csv", "--json"},
      {"series", kTv, "--width", "3"},
      {"series"},
      {"plot", kTv},
      {"simulate", "--devices", "0"},
      {"simulate", "--days", "x"},
  };
  for (const auto &args : cases) {
    std::vector<std::string> withDb = args;
    withDb.insert(withDb.end(), {"--db", db});
    ToolRun result = runCli(withDb);
    EXPECT_EQ(result.status, 2) << (args.empty() ? "(none)" : args[0] + " " + args.back());
    EXPECT_EQ(result.err.rfind("analyticsdb: ", 0), 0u) << result.err;
  }
  EXPECT_NE(access(db.c_str(), F_OK), 0);

  ToolRun help = runCli({"series", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("--last"), std::string::npos);
}

} // namespace
} // namespace adbtool::test
