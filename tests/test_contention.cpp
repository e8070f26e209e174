// Several processes write one database file while another connection holds it in bursts, the
// way the gateway's services meet each other and the collector. Writes that meet the busy file
// are parked in each process's own queue and replayed; afterwards the file is checked write by
// write. Audit triggers record every insert and update, so each key must show its writes exactly
// once and in the order its process made them, even though the table keeps only the last one.
//
// The run is built so that nothing can be lost by design, whatever the timing:
//  - a writer starts a step only while its queue has room for the whole step, so no busy write
//    is refused and no request for a waiting key is written past the queue;
//  - during the run a writer makes a plain processing call only while the head has used too few
//    attempts for one more call to reach the stall (which only losing the head or the whole
//    queue would end); otherwise it processes inside a write transaction of its own, where no
//    replay can meet a busy file;
//  - the holder stops before the final drains, and the writers drain one at a time, so that a
//    drain never meets another process's lock.
// ADB_CONTENTION_SEED=<n> repeats a run's random choices (pauses, key order, bursts); the
// timing of the processes, and so the figures, differ from run to run.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.h"
#include "support/db_fixture.h"

namespace {

using adbtest::Cell;
using adbtest::Child;
using adbtest::receiveByte;
using adbtest::sendBytes;
using adbtest::Row;
using adbtest::Values;
using Clock = std::chrono::steady_clock;

constexpr int kWriters = 4;
constexpr int kKeysPerWriter = 3;
constexpr int kSteps = 50;
// A writer pauses up to this long after each step, so that the run spans many bursts.
constexpr uint32_t kMaxPauseUs = 40000;
// One step of one key parks at most three requests: its name, and its sample's index row and slot.
constexpr int kRequestsPerKeyStep = 3;
// A writer starts a step only while its queue has room for all of it: a full queue loses busy
// writes and lets a request for a waiting key be written past it, both by design.
constexpr int32_t kQueueRoomLimit = DB_QUEUE_MAX_ENTRIES - kKeysPerWriter * kRequestsPerKeyStep;
// A writer that reserves the file for its processing tries this often, this far apart.
constexpr int kReserveTries = 20;
constexpr int kReserveWaitUs = 250;
// One processing call makes at most DB_QUEUE_MAX_PER_CALL attempts, so a call started below
// this count on the head cannot reach the stall.
constexpr int32_t kProcessingSafeBelow = DB_QUEUE_MAX_ATTEMPTS - DB_QUEUE_MAX_PER_CALL;
// With the file free, one call replays a whole queue; more calls are only a safety margin.
constexpr int kDrainCalls = 4;
constexpr int kSlotsPerDay = 288;
constexpr int kSlotsPerWeek = 2016;
constexpr uint32_t kFirstTimestamp = 1700000000;
constexpr uint32_t kSlotSeconds = 300;
// The holder's bursts: held for a short while, then free for a little longer.
constexpr uint32_t kMinHoldUs = 500;
constexpr uint32_t kMaxHoldUs = 2500;
constexpr int kMinFreeMs = 2;
constexpr int kMaxFreeMs = 8;
// The holder waits for the writers' locks in short steps, for 5 s at most.
constexpr int kHolderWaitUs = 200;
constexpr int kHolderWaits = 25000;
// Only a hung process is ever this slow, even under emulation.
constexpr int kHangGuardMs = 120000;

// Bytes of the pipes between the parent and its writers.
constexpr char kStart = 'S';          // parent: the file is held, start writing
constexpr char kFirstStepDone = 'F';  // writer: my first step met the held file
constexpr char kReleased = 'R';       // parent: the first hold is over
constexpr char kAllWritten = 'W';     // writer: every step written, my queue may still hold some
constexpr char kDrain = 'D';          // parent: the file is yours alone, drain your queue

/* ---------------------------------------------------------------- what the writers write ---- */

std::string macOf(int writer, int key) {
  char mac[32];
  std::snprintf(mac, sizeof mac, "02:00:00:00:%02d:%02d", writer, key);
  return mac;  // one width for all: no key is a prefix of another in the queue's key test
}
std::string nameOf(int writer, int key, int step) {
  return "p" + std::to_string(writer) + "-k" + std::to_string(key) + "-v" + std::to_string(step);
}
uint32_t timestampOf(int step) {
  return kFirstTimestamp + kSlotSeconds * static_cast<uint32_t>(step);
}
// Distinct per step of a key (67 x kSteps < a week) and spread over every day table.
int slotOf(int writer, int key, int step) {
  return 1 + ((writer * kKeysPerWriter + key) * 11 + step * 67) % kSlotsPerWeek;
}
int dayOf(int slot) { return (slot - 1) / kSlotsPerDay + 1; }
int valueOf(int writer, int key, int step) { return writer * 10000 + key * 100 + step; }

/* ---------------------------------------------------------------- figures ---- */

struct Figures {
  int32_t writes = 0;      // API calls: names and samples
  int32_t busy = 0;        // calls that returned 3 (met the busy file or waited behind their key)
  int32_t failed = 0;      // calls that returned anything but 0 or 3, and failed commits
  int32_t queued = 0;      // requests the queue took
  int32_t removed = 0;     // requests processing took off the queue
  int32_t dropped = 0;     // of them, removed for an error rather than replayed
  int32_t attempts = 0;    // replay attempts
  int32_t lost = 0;        // requests the full queue refused
  int32_t stalls = 0;      // processing calls that found the queue stalled
  int32_t plainCalls = 0;  // plain processing calls during the run
  int32_t reservedCalls = 0;  // processing calls during the run with the file reserved
  int32_t skippedCalls = 0;   // calls left out because the file stayed busy
  int32_t leftInQueue = 0;    // after the final drain

  static constexpr size_t kCount = 13;  // the figures above, all int32_t

  int32_t replayed() const { return removed - dropped; }
  Figures &operator+=(const Figures &other) {
    int32_t mine[kCount], theirs[kCount];
    std::memcpy(mine, this, sizeof mine);
    std::memcpy(theirs, &other, sizeof theirs);
    for (size_t i = 0; i < kCount; ++i) mine[i] += theirs[i];
    std::memcpy(this, mine, sizeof mine);
    return *this;
  }
};
static_assert(sizeof(Figures) == Figures::kCount * sizeof(int32_t), "a figure that is not summed");

/* ---------------------------------------------------------------- a writer process ---- */

// A writer's part of the run, in its own process.
class Writer {
 public:
  Writer(int writer, uint32_t seed)
      : writer_(writer), random_(seed + static_cast<uint32_t>(writer)) {}

  // Writes every step of its keys, reports, drains when told, reports its figures and ends
  // without returning into the test framework.
  [[noreturn]] void run(int reportFd, int goFd) {
    ryxLogSetHandler(countLine, &figures_);
    ryxLogSetLevel(RYX_LOG_ERROR);
    if (!receiveByte(goFd, kStart, kHangGuardMs)) _exit(2);
    std::array<int, kKeysPerWriter> keys{};
    std::iota(keys.begin(), keys.end(), 0);
    for (int step = 0; step < kSteps; ++step) {
      makeRoom();
      std::shuffle(keys.begin(), keys.end(), random_);
      for (int key : keys) writeStep(key, step);
      // The holder frees the file only once every writer has met it held.
      if (step == 0 && (!sendBytes(reportFd, &kFirstStepDone, 1) ||
                        !receiveByte(goFd, kReleased, kHangGuardMs))) {
        _exit(3);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(random_() % kMaxPauseUs));
      if (queueCount > 0) processDuringRun();
    }
    if (!sendBytes(reportFd, &kAllWritten, 1) || !receiveByte(goFd, kDrain, kHangGuardMs)) _exit(4);
    // The file is this process's alone now: plain processing replays everything.
    for (int call = 0; call < kDrainCalls && queueCount > 0; ++call) {
      if (process() == DB_STATUS_BUSY) break;
    }
    figures_.leftInQueue = queueCount;
    db_closeDbConnection();
    _exit(sendBytes(reportFd, &figures_, sizeof figures_) ? 0 : 5);
  }

 private:
  // The writers log at error level only, into their figures: every replay attempt logs a line.
  static void countLine(int /*level*/, const char *line, void *user) {
    auto *figures = static_cast<Figures *>(user);
    if (std::strstr(line, "Get Node [") != nullptr) ++figures->attempts;
    if (std::strstr(line, "Queue has MAX number of entries") != nullptr) ++figures->lost;
    if (std::strstr(line, "Delete Reason") != nullptr) ++figures->dropped;
  }

  int32_t process() {
    int32_t before = queueCount;
    int32_t status = db_processQueueEntry();
    figures_.removed += before - queueCount;
    if (status == DB_STATUS_BUSY) ++figures_.stalls;  // the only way processing returns 3
    return status;
  }

  // Processing inside this process's own write transaction: with the file reserved, the other
  // processes can at most read, so every replay succeeds at its first attempt and the call
  // cannot stall, whatever its head has used. IMMEDIATE rather than EXCLUSIVE: it waits for no
  // reader, and a commit that meets readers keeps its claim on the file and is simply repeated.
  // False when the file stayed busy.
  bool processReserved() {
    if (db_open() != DB_STATUS_SUCCESS) return false;
    for (int tries = 1; db_write("BEGIN IMMEDIATE") != DB_STATUS_SUCCESS; ++tries) {
      if (tries == kReserveTries) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(kReserveWaitUs));
    }
    ++figures_.reservedCalls;
    process();
    // The replayed requests have left the queue: a commit that never succeeded would lose them.
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kHangGuardMs);
    while (db_commitTransaction() != DB_STATUS_SUCCESS) {
      if (Clock::now() > deadline) {
        ++figures_.failed;
        break;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(kReserveWaitUs));
    }
    return true;
  }

  // A plain call while its head is far enough from the stall; otherwise with the file reserved.
  void processDuringRun() {
    if (queueProcessCount < kProcessingSafeBelow) {
      ++figures_.plainCalls;
      process();
    } else if (!processReserved()) {
      ++figures_.skippedCalls;
    }
  }

  // The queue keeps room for a whole step, so that no request is refused or written past it.
  void makeRoom() {
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(kHangGuardMs);
    while (queueCount > kQueueRoomLimit) {
      if (Clock::now() > deadline) _exit(6);
      processReserved();
    }
  }

  // One API call: its status and the requests it parked go into the figures.
  template <typename Call>
  void countWrite(Call &&call) {
    int32_t before = queueCount;
    int32_t status = call();
    ++figures_.writes;
    figures_.queued += queueCount - before;
    if (status == DB_STATUS_BUSY) {
      ++figures_.busy;
    } else if (status != DB_STATUS_SUCCESS) {
      ++figures_.failed;
    }
  }

  // The name and the sample of one key, in either order.
  void writeStep(int key, int step) {
    std::string mac = macOf(writer_, key);
    std::string name = nameOf(writer_, key, step);
    std::string time = std::to_string(timestampOf(step));
    std::string slot = std::to_string(slotOf(writer_, key, step));
    std::string value = std::to_string(valueOf(writer_, key, step));
    Values named{mac.c_str(), name.c_str()};
    Values sample{mac.c_str(), time.c_str(), slot.c_str(), value.c_str()};
    bool nameFirst = random_() % 2 == 0;
    for (int part = 0; part < 2; ++part) {
      if ((part == 0) == nameFirst) {
        countWrite([&] { return db_updateDeviceInfoBeaconFName(named.data()); });
      } else {
        countWrite([&] { return db_updateRssi(sample.data()); });
      }
    }
  }

  const int writer_;
  std::mt19937 random_;
  Figures figures_;
};

/* ---------------------------------------------------------------- the parent's side ---- */

uint32_t seedOfRun() {
  if (const char *given = std::getenv("ADB_CONTENTION_SEED")) {
    return static_cast<uint32_t>(std::strtoul(given, nullptr, 10));
  }
  return static_cast<uint32_t>(Clock::now().time_since_epoch().count());
}

class Contention : public adbtest::DbTest {
 protected:
  // On a memory file system a commit costs no sync, so that a run of many steps and bursts takes
  // seconds rather than minutes; the locking between processes is the same there.
  void SetUp() override {
    DbTest::SetUp();
    std::string pattern = "/dev/shm/adbtest.XXXXXX";
    if (access("/dev/shm", W_OK) != 0 || mkdtemp(pattern.data()) == nullptr) return;
    std::error_code ignored;
    std::filesystem::remove_all(tempDir_, ignored);
    tempDir_ = pattern;
    dbPath_ = tempDir_ + "/analytics.db";
    ASSERT_EQ(db_setDatabasePath(dbPath_.c_str()), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_setProfileMarkerPath((tempDir_ + "/db_profile").c_str()), DB_STATUS_SUCCESS);
  }

  // Every insert and update of a name, an index row and a slot row leaves a row in an audit
  // table, numbered in the order in which they reached the file.
  void installAudit() {
    adbtest::RawDb db(dbPath());
    db.exec(
        "CREATE TABLE AUDIT_NAMES (ID INTEGER PRIMARY KEY, MAC TEXT, NAME TEXT);"
        "CREATE TABLE AUDIT_INDEX (ID INTEGER PRIMARY KEY, MAC TEXT, TS INTEGER, SLOT INTEGER);"
        "CREATE TABLE AUDIT_SLOTS (ID INTEGER PRIMARY KEY, MAC TEXT, DAY INTEGER, "
        "INDEXSLOT INTEGER)");
    for (const char *event : {"INSERT", "UPDATE"}) {
      std::string on = std::string(" AFTER ") + event + " ON ";
      db.exec(std::string("CREATE TRIGGER AUDIT_NAMES_") + event + on +
              "DEVICEINFO BEGIN INSERT INTO AUDIT_NAMES (MAC, NAME) "
              "VALUES (NEW.MAC_S, NEW.FRIENDLYNAME_S); END");
      db.exec(std::string("CREATE TRIGGER AUDIT_INDEX_") + event + on +
              "PRIMITIVE_RSSI BEGIN INSERT INTO AUDIT_INDEX (MAC, TS, SLOT) "
              "VALUES (NEW.MAC_S, NEW.TIMESTAMP, NEW.SLT_IND); END");
      // A slot row does not say which slot it got; the index row written just before it
      // (same process, same key, so never reordered) does.
      for (int day = 1; day <= 7; ++day) {
        std::string table = "RSSI" + std::to_string(day);
        db.exec("CREATE TRIGGER AUDIT_" + table + "_" + event + on + table +
                " BEGIN INSERT INTO AUDIT_SLOTS (MAC, DAY, INDEXSLOT) VALUES (NEW.MAC_S, " +
                std::to_string(day) +
                ", (SELECT SLT_IND FROM PRIMITIVE_RSSI WHERE MAC_S = NEW.MAC_S)); END");
      }
    }
  }

  std::vector<std::string> column(const std::string &sql) {
    std::vector<std::string> values;
    for (const Row &row : raw().query(sql)) values.push_back(row.at(0).value_or("NULL"));
    return values;
  }

  // Every write of every key is in the file once, in order; the last one stands.
  void checkFile() {
    const std::string expectedRows = std::to_string(kWriters * kKeysPerWriter * kSteps);
    for (const char *audit : {"AUDIT_NAMES", "AUDIT_INDEX", "AUDIT_SLOTS"}) {
      EXPECT_EQ(raw().scalar(std::string("SELECT count(*) FROM ") + audit), Cell(expectedRows))
          << audit;
    }
    for (int writer = 0; writer < kWriters; ++writer) {
      for (int key = 0; key < kKeysPerWriter; ++key) {
        const std::string mac = macOf(writer, key);
        const std::string where = " WHERE MAC = '" + mac + "' ORDER BY ID";
        std::vector<std::string> names, index, slots;
        for (int step = 0; step < kSteps; ++step) {
          int slot = slotOf(writer, key, step);
          names.push_back(nameOf(writer, key, step));
          index.push_back(std::to_string(timestampOf(step)) + "@" + std::to_string(slot));
          slots.push_back(std::to_string(dayOf(slot)) + ":" + std::to_string(slot));
          EXPECT_EQ(raw().scalar("SELECT SLOT" + std::to_string(slot) + " FROM RSSI" +
                                 std::to_string(dayOf(slot)) + " WHERE MAC_S = '" + mac + "'"),
                    Cell(std::to_string(valueOf(writer, key, step))))
              << mac << " step " << step;
        }
        EXPECT_EQ(column("SELECT NAME FROM AUDIT_NAMES" + where), names) << mac;
        EXPECT_EQ(column("SELECT TS || '@' || SLOT FROM AUDIT_INDEX" + where), index) << mac;
        EXPECT_EQ(column("SELECT DAY || ':' || INDEXSLOT FROM AUDIT_SLOTS" + where), slots) << mac;
        EXPECT_EQ(raw().scalar("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '" + mac + "'"),
                  Cell(names.back()));
        EXPECT_EQ(raw().scalar("SELECT TIMESTAMP || '@' || SLT_IND FROM PRIMITIVE_RSSI "
                               "WHERE MAC_S = '" +
                               mac + "'"),
                  Cell(index.back()));
      }
    }
  }
};

}  // namespace

TEST_F(Contention, WritersUnderBurstsOfABusyFileLoseNothingAndKeepEachKeysOrder) {
  const uint32_t seed = seedOfRun();
  SCOPED_TRACE("ADB_CONTENTION_SEED=" + std::to_string(seed));
  std::mt19937 random(seed + kWriters);  // the writers draw from seed + 0 .. seed + kWriters - 1
  createInventoryTables();
  createSeriesTables();
  ASSERT_FALSE(HasFatalFailure());
  installAudit();
  // A connection must not cross a fork: each writer opens its own.
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);

  const Clock::time_point started = Clock::now();
  adbtest::Children writers;
  for (int writer = 0; writer < kWriters; ++writer) {
    ASSERT_TRUE(writers.start([&](int report, int go) { Writer(writer, seed).run(report, go); }));
  }

  int bursts = 0;
  {
    // The holder's connection waits for the writers' short locks in short steps (SQLite's own
    // busy timeout sleeps up to 100 ms at a time), so that each burst begins.
    adbtest::RawDb holder(dbPath());
    sqlite3_busy_handler(
        holder.handle(),
        [](void *, int waits) {
          std::this_thread::sleep_for(std::chrono::microseconds(kHolderWaitUs));
          return waits < kHolderWaits ? 1 : 0;
        },
        nullptr);
    auto hold = [&holder] { return holder.tryExec("BEGIN EXCLUSIVE") == SQLITE_OK; };
    auto release = [&holder] { holder.tryExec("COMMIT"); };
    // Every writer's first step meets the held file, so that contention is certain.
    ASSERT_TRUE(hold());
    for (Child &child : writers.all()) ASSERT_TRUE(sendBytes(child.goFd, &kStart, 1));
    for (Child &child : writers.all()) {
      ASSERT_TRUE(receiveByte(child.reportFd, kFirstStepDone, kHangGuardMs));
    }
    release();
    for (Child &child : writers.all()) ASSERT_TRUE(sendBytes(child.goFd, &kReleased, 1));
    // Then bursts of a few milliseconds held and free, until every writer has written all.
    int written = 0;
    std::vector<pollfd> reports;
    for (Child &child : writers.all()) reports.push_back({child.reportFd, POLLIN, 0});
    while (written < kWriters) {
      ASSERT_LT(Clock::now() - started, std::chrono::milliseconds(kHangGuardMs)) << "writers hang";
      int freeMs = kMinFreeMs + static_cast<int>(random() % (kMaxFreeMs - kMinFreeMs + 1));
      if (poll(reports.data(), reports.size(), freeMs) > 0) {
        for (pollfd &report : reports) {
          if (report.fd < 0 || report.revents == 0) continue;
          ASSERT_TRUE(receiveByte(report.fd, kAllWritten, kHangGuardMs)) << "a writer died";
          report.fd = -1;  // poll skips it from now on
          ++written;
        }
      }
      if (written == kWriters) break;
      // A burst that could not begin (the writers kept the file) is simply left out.
      if (!hold()) continue;
      std::this_thread::sleep_for(
          std::chrono::microseconds(kMinHoldUs + random() % (kMaxHoldUs - kMinHoldUs + 1)));
      release();
      ++bursts;
    }
  }

  // The final drains, one writer at a time on a file nobody else touches.
  Figures total;
  for (Child &child : writers.all()) {
    Figures figures;
    ASSERT_TRUE(sendBytes(child.goFd, &kDrain, 1));
    ASSERT_EQ(adbtest::receiveBytes(child.reportFd, &figures, sizeof figures, kHangGuardMs),
              adbtest::Received::kAll)
        << "no figures from writer " << child.pid;
    const int status = adbtest::Children::reap(child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer did not end cleanly";
    total += figures;
  }
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();

  std::cout << "contention: seed " << seed << " writers " << kWriters << " writes " << total.writes
            << " busy " << total.busy << " queued " << total.queued << " replayed "
            << total.replayed() << " attempts " << total.attempts << " lost " << total.lost
            << " dropped " << total.dropped << " failed " << total.failed << " stalls "
            << total.stalls << " plain-calls " << total.plainCalls << " reserved-calls "
            << total.reservedCalls << " skipped-calls " << total.skippedCalls << " bursts "
            << bursts << " ms " << elapsed << std::endl;
  RecordProperty("seed", std::to_string(seed));
  RecordProperty("writes", total.writes);
  RecordProperty("busy", total.busy);
  RecordProperty("queued", total.queued);
  RecordProperty("replayed", total.replayed());
  RecordProperty("lost", total.lost);
  RecordProperty("stalls", total.stalls);

  EXPECT_EQ(total.writes, kWriters * kKeysPerWriter * kSteps * 2);
  // At least the first step of every writer met the held file.
  EXPECT_GE(total.busy, kWriters * kKeysPerWriter * 2);
  EXPECT_GE(total.queued, total.busy);
  EXPECT_EQ(total.failed, 0);
  EXPECT_EQ(total.lost, 0);
  EXPECT_EQ(total.dropped, 0);
  EXPECT_EQ(total.stalls, 0);
  EXPECT_EQ(total.leftInQueue, 0);
  EXPECT_EQ(total.replayed(), total.queued);
  checkFile();
}
