// A writer process killed at a random point: every tick it reported as committed is in the
// file in full, no tick is there in part, the file passes integrity_check, and the library
// writes on in it afterwards.
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/db_fixture.h"

namespace {

using Clock = std::chrono::steady_clock;
using adbtest::RawDb;
using adbtest::Received;
using std::to_string;

constexpr int kDevices = 4;
constexpr int kSlotsPerDay = 288;
// The ticks a writer makes: one pass through the week's slots at most, so no tick overwrites an
// earlier tick's cell.
constexpr int kWeek = kSlotsPerDay * 7;
constexpr int kRounds = 6;
constexpr int kMaxTicksBeforeKill = 6;  // ticks the parent waits for before its random delay
constexpr double kMaxTickShare = 1.5;   // the delay, in ticks of the writer's measured pace
constexpr std::chrono::microseconds kFallbackTick{3000};  // where the pace is not known yet
constexpr int kReportTimeoutMs = 30000;  // a writer that stays silent this long is stuck

std::string macOf(int device) { return "AA:BB:CC:DD:EE:0" + to_string(device); }
// Ticks walk the week with a stride prime to it: every day table is written, no slot twice.
int slotOf(int tick) { return ((tick - 1) * 37) % kWeek + 1; }
int dayOf(int tick) { return (slotOf(tick) - 1) / kSlotsPerDay + 1; }
uint32_t timestampOf(int tick) { return 1700000000u + static_cast<uint32_t>(tick) * 300u; }
// Never 0, which an unwritten slot reads.
std::string valueOf(int tick, int device) { return to_string(tick * 10 + device); }

// The RSSI sample of a device at a tick, for db_updateRssi.
adbtest::Values sampleOf(int tick, int device) {
  return adbtest::Values(std::vector<std::string>{macOf(device), to_string(timestampOf(tick)),
                                                  to_string(slotOf(tick)), valueOf(tick, device)});
}

// The cell of a device at a tick as the file holds it: "0" where nothing was written (a day
// table's missing row included), "<null>" for a NULL.
std::string cellOf(RawDb &db, int tick, int device) {
  const std::string cell = "coalesce(SLOT" + to_string(slotOf(tick)) + ", '<null>')";
  const std::string table = "RSSI" + to_string(dayOf(tick)), where = "MAC_S = '" + macOf(device);
  return db.scalar("SELECT " + cell + " FROM " + table + " WHERE " + where + "'").value_or("0");
}

// The child: one transaction per tick with one RSSI sample per device; a tick is reported
// through `report` once its commit returned 0. Only library calls, then _exit.
[[noreturn]] void writeTicks(int report) {
  ryxLogSetLevel(RYX_LOG_ERROR);
  for (int32_t tick = 1; tick <= kWeek; ++tick) {
    if (db_beginTransaction() != DB_STATUS_SUCCESS) _exit(10);
    for (int device = 0; device < kDevices; ++device)
      if (db_updateRssi(sampleOf(tick, device).data()) != DB_STATUS_SUCCESS) _exit(11);
    if (db_commitTransaction() != DB_STATUS_SUCCESS) _exit(12);
    if (write(report, &tick, sizeof tick) != sizeof tick) _exit(13);
  }
  _exit(0);
}

class CrashSafety : public adbtest::DbTest {
 protected:
  // Runs a writer on `path`, waits for `ticksBeforeKill` reports, then for `tickShare` of the
  // time a tick takes, and kills it. `reported`: the last tick it reported (ticks are reported
  // in order).
  void writeAndKill(const std::string &path, int ticksBeforeKill, double tickShare, int &reported) {
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);  // a connection must not cross fork
    EXPECT_EQ(db_setDatabasePath(path.c_str()), DB_STATUS_SUCCESS);
    adbtest::Children children;
    ASSERT_TRUE(children.start([](int report, int) { writeTicks(report); })) << "fork";
    adbtest::Child &writer = children.all().front();
    auto nextReport = [&](int timeoutMillis) {
      int32_t tick = 0;
      Received got = adbtest::receiveBytes(writer.reportFd, &tick, sizeof tick, timeoutMillis);
      if (got == Received::kAll) {
        EXPECT_EQ(tick, ++reported);
      }
      return got;
    };
    Clock::time_point firstReport{};
    Received got = Received::kAll;
    while (reported < ticksBeforeKill && (got = nextReport(kReportTimeoutMs)) == Received::kAll) {
      if (reported == 1) firstReport = Clock::now();
    }
    EXPECT_NE(got, Received::kTimeout) << "no report for " << kReportTimeoutMs << " ms";
    // The delay is a share of one tick's time where the writer's pace could be measured, so
    // that the kill lands anywhere in a tick on a fast host and under emulation alike.
    const Clock::duration tickTime =
        reported >= 2 ? (Clock::now() - firstReport) / (reported - 1) : kFallbackTick;
    std::this_thread::sleep_for(tickTime * tickShare);
    kill(writer.pid, SIGKILL);
    const int status = adbtest::Children::reap(writer);
    while (nextReport(0) == Received::kAll) {  // the reports it made before it died
    }
    const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
    EXPECT_TRUE(killed || (WIFEXITED(status) && WEXITSTATUS(status) == 0))
        << "the writer failed (wait status " << status << ") at tick " << reported + 1;
  }

  // Checks the file after the writer's death; returns the number of complete ticks in it.
  int checkTicks(const std::string &path, int reported) {
    RawDb db(path);
    EXPECT_EQ(db.scalar("PRAGMA integrity_check"), "ok");
    // Ticks 1..complete are in the file in full, no other is there even in part, and complete is
    // the last tick reported as committed or the one after it (committed, not yet reported).
    int complete = reported;
    if (reported < kWeek && cellOf(db, reported + 1, 0) == valueOf(reported + 1, 0)) ++complete;
    for (int tick = 1; tick <= kWeek; ++tick) {
      for (int device = 0; device < kDevices; ++device) {
        EXPECT_EQ(cellOf(db, tick, device), tick <= complete ? valueOf(tick, device) : "0")
            << "tick " << tick << " device " << device << ", " << reported << " reported";
      }
    }
    // The index rows name the latest complete tick.
    adbtest::Rows index;
    for (int d = 0; complete > 0 && d < kDevices; ++d)
      index.push_back({macOf(d), to_string(timestampOf(complete)), to_string(slotOf(complete))});
    EXPECT_EQ(db.query("SELECT MAC_S, TIMESTAMP, SLT_IND FROM PRIMITIVE_RSSI ORDER BY 1"), index);
    return complete;
  }
};

TEST_F(CrashSafety, AKilledWriterLosesNoCommittedTickAndLeavesNoHalfTick) {
  createSeriesTables();
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);

  const char *fixedSeed = std::getenv("ADB_CRASH_SEED");
  const unsigned seed = fixedSeed != nullptr ? std::stoul(fixedSeed) : std::random_device{}();
  SCOPED_TRACE("rerun with ADB_CRASH_SEED=" + to_string(seed));
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> ticksBeforeKill(0, kMaxTicksBeforeKill);
  std::uniform_real_distribution<double> tickShare(0.0, kMaxTickShare);

  for (int round = 1; round <= kRounds; ++round) {
    const int ticks = ticksBeforeKill(random);
    const double share = tickShare(random);
    SCOPED_TRACE("round " + to_string(round) + ": killed after " + to_string(ticks) +
                 " reported ticks and " + to_string(share) + " of a tick");
    const std::string path = tempDir_ + "/round" + to_string(round) + ".db";
    std::filesystem::copy_file(dbPath(), path);

    int reported = 0;
    writeAndKill(path, ticks, share, reported);
    const int next = checkTicks(path, reported) + 1;

    // A fresh run of the library on the file writes on: the next tick of a device.
    EXPECT_EQ(db_updateRssi(sampleOf(next, 0).data()), DB_STATUS_SUCCESS) << log().dump();
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    RawDb after(path);
    EXPECT_EQ(cellOf(after, next, 0), valueOf(next, 0));
    if (HasFailure()) break;
  }
  ASSERT_EQ(db_setDatabasePath(dbPath().c_str()), DB_STATUS_SUCCESS);
}

}  // namespace
