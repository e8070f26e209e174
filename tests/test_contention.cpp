// Several processes, each with several writing threads, write one database file while another
// process holds it in bursts of 0.5 to 50 ms, the way the gateway's services meet each other and
// the collector. Each process is a host as README describes it: its threads write, and one more
// thread calls db_processQueueEntry() every few milliseconds. Writes that meet the busy file wait
// for it briefly, or are parked and replayed; a write the queue cannot keep is retried by its
// thread, as a host would. Audit triggers record every insert and update, so each key must show
// its writes exactly once and in the order its thread made them.
// ADB_CONTENTION_SEED=<n> repeats a run's random choices (pauses, key order, bursts); the
// timing of the processes, and so the figures, differ from run to run.
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
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
using adbtest::Values;
using Clock = std::chrono::steady_clock;

constexpr int kWriters = 3;           // processes
constexpr int kThreadsPerWriter = 2;  // writing threads of each
constexpr int kKeysPerThread = 2;
constexpr int kKeysPerWriter = kThreadsPerWriter * kKeysPerThread;
constexpr int kSteps = 30;
// A thread pauses up to this long after each step, so that the run spans many bursts. (A gateway
// writes a device's sample every five minutes; this is already far more than replays can follow
// with every burst held for up to 50 ms.)
constexpr uint32_t kMaxPauseUs = 50000;
// The host's processing thread calls db_processQueueEntry() this often.
constexpr int kProcessEveryMs = 3;
// A write refused by a full queue is tried again this much later, at most this often.
constexpr int kRetryPauseMs = 2;
constexpr int kRetries = 5000;
// With the file free, a few calls replay a whole queue; more calls are only a safety margin.
constexpr int kDrainCalls = 200;
// The holder's bursts: held for 0.5 to 50 ms, then free for 2 to 8 ms.
constexpr uint32_t kMinHoldUs = 500;
constexpr uint32_t kMaxHoldUs = 50000;
constexpr int kMinFreeMs = 2;
constexpr int kMaxFreeMs = 8;
// Only a hung process is ever this slow, even under emulation.
constexpr int kHangGuardMs = 120000;

// Bytes of the pipes between the parent and its writers.
constexpr char kStart = 'S';          // parent: the file is held, start writing
constexpr char kFirstStepDone = 'F';  // writer: my first step met the held file
constexpr char kReleased = 'R';       // parent: the first hold is over
constexpr char kAllWritten = 'W';     // writer: every step written, my queue may still hold some
constexpr char kDrain = 'D';          // parent: the holder is gone, drain your queue

// Key k of writer w (thread k / kKeysPerThread writes it), one width for all: no key is a prefix
// of another in the queue's key test.
std::string macOf(int writer, int key) {
  char mac[32];
  std::snprintf(mac, sizeof mac, "02:00:00:00:%02d:%02d", writer, key);
  return mac;
}
std::string nameOf(int writer, int key, int step) {
  return "p" + std::to_string(writer) + "-k" + std::to_string(key) + "-v" + std::to_string(step);
}
uint32_t timestampOf(int step) { return 1700000000u + 300u * static_cast<uint32_t>(step); }
// Distinct per step of a key (67 x kSteps < a week of 2016 slots) and spread over every day.
int slotOf(int writer, int key, int step) {
  return 1 + ((writer * kKeysPerWriter + key) * 11 + step * 67) % 2016;
}
int dayOf(int slot) { return (slot - 1) / 288 + 1; }
int valueOf(int writer, int key, int step) { return writer * 10000 + key * 100 + step; }

// What a writer counted, sent to the parent at its end.
struct Figures {
  uint32_t writes = 0;   // API calls that reached the file or the queue: names, index rows, slots
  uint32_t busy = 0;     // of them, calls that returned 3 (parked)
  uint32_t refused = 0;  // calls answered "queue full", each tried again
  uint32_t failed = 0;   // calls that returned anything else
  uint32_t calls = 0;    // processing calls during the run
  uint32_t leftInQueue = 0;  // after the final drain
  QueueStats queue{};        // the library's own counters
};

// A writer's part of the run, in its own process: a host with writing threads and a processing
// thread.
class Writer {
 public:
  Writer(int writer, uint32_t seed) : writer_(writer), seed_(seed + static_cast<uint32_t>(writer)) {}

  // Writes every step of its keys, reports, drains when told, reports its figures and ends
  // without returning into the test framework.
  [[noreturn]] void run(int reportFd, int goFd) {
    ryxLogSetLevel(RYX_LOG_ERROR);
    ryxLogSetHandler([](int, const char *, void *) {}, nullptr);
    // The gateway's waits, not the immediate ones of the unit tests.
    db_setBusyWait(ANALYTICSDB_BUSY_WAIT_MS, ANALYTICSDB_PROCESS_BUDGET_MS);
    if (!receiveByte(goFd, kStart, kHangGuardMs)) _exit(2);
    std::atomic<int> firstStepsDone{0};
    std::atomic<bool> writing{true};
    std::vector<Figures> perThread(kThreadsPerWriter);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreadsPerWriter; ++t) {
      threads.emplace_back([&, t] { writeAll(t, perThread[t], firstStepsDone); });
    }
    // Every thread's first step met the held file; then the holder lets go.
    while (firstStepsDone.load() < kThreadsPerWriter) std::this_thread::yield();
    if (!sendBytes(reportFd, &kFirstStepDone, 1) || !receiveByte(goFd, kReleased, kHangGuardMs)) {
      _exit(3);
    }
    releasedFirstHold_.store(true);
    std::thread processing([&] {
      while (writing.load()) {
        db_processQueueEntry();
        ++figures_.calls;
        std::this_thread::sleep_for(std::chrono::milliseconds(kProcessEveryMs));
      }
    });
    for (std::thread &thread : threads) thread.join();
    writing.store(false);
    processing.join();
    for (const Figures &figures : perThread) {
      figures_.writes += figures.writes;
      figures_.busy += figures.busy;
      figures_.refused += figures.refused;
      figures_.failed += figures.failed;
    }
    if (!sendBytes(reportFd, &kAllWritten, 1) || !receiveByte(goFd, kDrain, kHangGuardMs)) _exit(4);
    for (int call = 0; call < kDrainCalls && queueCount > 0; ++call) {
      db_processQueueEntry();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    figures_.leftInQueue = static_cast<uint32_t>(queueCount);
    db_getQueueStats(&figures_.queue);
    db_closeDbConnection();
    _exit(sendBytes(reportFd, &figures_, sizeof figures_) ? 0 : 5);
  }

 private:
  // One thread's keys, step by step; the first step waits for the first hold to end.
  void writeAll(int thread, Figures &figures, std::atomic<int> &firstStepsDone) {
    std::mt19937 random(seed_ * 31u + static_cast<uint32_t>(thread));
    std::array<int, kKeysPerThread> keys{};
    std::iota(keys.begin(), keys.end(), thread * kKeysPerThread);
    for (int step = 0; step < kSteps; ++step) {
      std::shuffle(keys.begin(), keys.end(), random);
      for (int key : keys) writeStep(key, step, random, figures);
      if (step == 0) {
        firstStepsDone.fetch_add(1);
        while (!releasedFirstHold_.load()) std::this_thread::yield();
      }
      std::this_thread::sleep_for(std::chrono::microseconds(random() % kMaxPauseUs));
    }
  }

  // One API call, tried again while the queue cannot keep it (nothing of it reached the file).
  template <typename Call>
  static void countWrite(Figures &figures, Call &&call) {
    for (int tries = 0; tries < kRetries; ++tries) {
      int32_t status = call();
      if (status == DB_STATUS_QUEUE_FULL) {
        ++figures.refused;
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryPauseMs));
        continue;
      }
      ++figures.writes;
      figures.busy += status == DB_STATUS_BUSY ? 1 : 0;
      figures.failed += status != DB_STATUS_BUSY && status != DB_STATUS_SUCCESS ? 1 : 0;
      return;
    }
    ++figures.failed;
  }

  // The name and the sample of one key (its index row, then its slot), in either order. The
  // sample's two writes are made one by one, so that a refused one is tried again alone.
  void writeStep(int key, int step, std::mt19937 &random, Figures &figures) {
    std::string mac = macOf(writer_, key);
    std::string name = nameOf(writer_, key, step);
    std::string time = std::to_string(timestampOf(step));
    std::string slot = std::to_string(slotOf(writer_, key, step));
    std::string value = std::to_string(valueOf(writer_, key, step));
    Values named{mac.c_str(), name.c_str()};
    Values index{mac.c_str(), time.c_str(), slot.c_str()};
    Values sample{mac.c_str(), slot.c_str(), value.c_str()};
    bool nameFirst = random() % 2 == 0;
    for (int part = 0; part < 2; ++part) {
      if ((part == 0) == nameFirst) {
        countWrite(figures, [&] { return db_updateDeviceInfoBeaconFName(named.data()); });
      } else {
        countWrite(figures, [&] { return db_updatePrimitiveRssi(index.data()); });
        countWrite(figures, [&] { return db_updateRssiSlot(sample.data()); });
      }
    }
  }

  const int writer_;
  const uint32_t seed_;
  std::atomic<bool> releasedFirstHold_{false};
  Figures figures_;
};

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

  // Every insert and update of a name, an index row and a slot row leaves a row in the audit
  // table, numbered in the order in which they reached the file: the name, "time@slot" of the
  // index row, or "day:slot" of the slot row. A slot row does not say which slot it got; the
  // index row written just before it (same process, same key, so never reordered) does.
  void installAudit() {
    adbtest::RawDb db(dbPath());  // closed before the fork: a connection must not cross it
    db.exec("CREATE TABLE AUDIT (ID INTEGER PRIMARY KEY, KIND TEXT, MAC TEXT, WHAT TEXT)");
    std::vector<std::pair<std::string, std::string>> audited = {
        {"DEVICEINFO", "'name', NEW.MAC_S, NEW.FRIENDLYNAME_S"},
        {"PRIMITIVE_RSSI", "'index', NEW.MAC_S, NEW.TIMESTAMP || '@' || NEW.SLT_IND"}};
    for (int day = 1; day <= 7; ++day) {
      audited.push_back({"RSSI" + std::to_string(day),
                         "'slot', NEW.MAC_S, '" + std::to_string(day) +
                             ":' || (SELECT SLT_IND FROM PRIMITIVE_RSSI WHERE MAC_S = NEW.MAC_S)"});
    }
    for (const auto &[table, row] : audited) {
      for (const char *event : {"INSERT", "UPDATE"}) {
        db.exec("CREATE TRIGGER AUDIT_" + table + "_" + event + " AFTER " + event + " ON " + table +
                " BEGIN INSERT INTO AUDIT (KIND, MAC, WHAT) VALUES (" + row + "); END");
      }
    }
  }

  // What the audit recorded of `kind` for `mac`, in order.
  std::vector<std::string> audit(const std::string &kind, const std::string &mac) {
    std::vector<std::string> values;
    for (const adbtest::Row &row : raw().query(
             "SELECT WHAT FROM AUDIT WHERE KIND = ? AND MAC = ? ORDER BY ID", {kind, mac})) {
      values.push_back(row.at(0).value_or("NULL"));
    }
    return values;
  }

  // Every write of every key is in the file once, in order (nothing but these writes changes
  // the rows, so the last one audited is the one that stands).
  void checkFile() {
    EXPECT_EQ(raw().scalar("SELECT count(*) FROM AUDIT"),
              Cell(std::to_string(3 * kWriters * kKeysPerWriter * kSteps)));
    for (int writer = 0; writer < kWriters; ++writer) {
      for (int key = 0; key < kKeysPerWriter; ++key) {
        const std::string mac = macOf(writer, key);
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
        EXPECT_EQ(audit("name", mac), names) << mac;
        EXPECT_EQ(audit("index", mac), index) << mac;
        EXPECT_EQ(audit("slot", mac), slots) << mac;
      }
    }
  }
};

}  // namespace

TEST_F(Contention, WritersUnderBurstsOfABusyFileLoseNothingAndKeepEachKeysOrder) {
  const uint32_t seed = seedOfRun();
  SCOPED_TRACE("ADB_CONTENTION_SEED=" + std::to_string(seed));
  RecordProperty("seed", std::to_string(seed));
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
    // The holder's connection waits for the writers' short locks in steps of 0.2 ms, 5 s at
    // most (SQLite's own busy timeout sleeps up to 100 ms at a time), so that each burst begins.
    adbtest::RawDb holder(dbPath());
    sqlite3_busy_handler(
        holder.handle(),
        [](void *, int waits) {
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          return waits < 25000 ? 1 : 0;
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

  // The final drains, one writer at a time on a file nobody else touches. Every request a writer
  // parked left its queue once, written; no call failed, no head stalled.
  for (Child &child : writers.all()) {
    Figures figures;
    ASSERT_TRUE(sendBytes(child.goFd, &kDrain, 1));
    ASSERT_EQ(adbtest::receiveBytes(child.reportFd, &figures, sizeof figures, kHangGuardMs),
              adbtest::Received::kAll)
        << "no figures from writer " << child.pid;
    const QueueStats &queue = figures.queue;
    std::cout << "contention: seed " << seed << " writer " << child.pid << " writes "
              << figures.writes << " parked " << figures.busy << " replayed " << queue.replayed
              << " retried " << queue.retried << " refused " << figures.refused << " peak "
              << queue.peakLength << " processing-calls " << figures.calls << " bursts " << bursts
              << " ms " << (Clock::now() - started) / std::chrono::milliseconds(1) << std::endl;
    const int status = adbtest::Children::reap(child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "a writer did not end cleanly";
    EXPECT_EQ(figures.writes, static_cast<uint32_t>(kKeysPerWriter * kSteps * 3));
    // At least the first step of every thread met the held file.
    EXPECT_GE(figures.busy, static_cast<uint32_t>(kThreadsPerWriter));
    EXPECT_EQ(queue.parked, queue.replayed + queue.freed);
    EXPECT_EQ(figures.failed, 0u);
    EXPECT_EQ(queue.droppedError + queue.droppedMalformed, 0u);
    EXPECT_EQ(queue.stalls, 0u);
    EXPECT_EQ(figures.leftInQueue, 0u);
  }
  checkFile();
}
