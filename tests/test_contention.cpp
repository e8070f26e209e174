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
#include <barrier>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <tuple>
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
using Texts = std::vector<std::string>;

constexpr int kWriters = 3;           // processes
constexpr int kThreadsPerWriter = 2;  // writing threads of each
constexpr int kKeysPerThread = 2;
constexpr int kKeysPerWriter = kThreadsPerWriter * kKeysPerThread;
constexpr int kSteps = 30;
// A thread pauses up to this long after each step, so that the run spans many bursts. (A gateway
// writes a device's sample every five minutes; this is already far more than replays can follow
// with every burst held for up to 50 ms.)
constexpr uint32_t kMaxPauseUs = 50000;
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
static_assert(kWriters <= 10 && kKeysPerWriter <= 10, "one digit each");
std::string macOf(int writer, int key) {
  return "02:00:00:00:0" + std::to_string(writer) + ":0" + std::to_string(key);
}
uint32_t timestampOf(int step) { return 1700000000u + 300u * static_cast<uint32_t>(step); }
// Distinct per step of a key (67 x kSteps < a week of 2016 slots) and spread over every day.
int slotOf(int writer, int key, int step) {
  return 1 + ((writer * kKeysPerWriter + key) * 11 + step * 67) % 2016;
}
int dayOf(int slot) { return (slot - 1) / 288 + 1; }
// The sample of a step of a key, distinct for every step of every key; the name that step gives the
// key is the same number.
int valueOf(int writer, int key, int step) { return writer * 10000 + key * 100 + step; }

// What a writer counted, sent to the parent at its end.
struct Figures {
  uint32_t writes = 0;  // API calls that reached the file or the queue: names, index rows, slots
  uint32_t busy = 0;    // of them, calls that returned 3 (parked)
  uint32_t failed = 0;  // calls that returned anything else ("queue full" is tried again)
  uint32_t calls = 0;   // processing calls during the run
  QueueStats queue{};   // the library's own counters, after the final drain
};

// A writer's part of the run, in its own process: a host with writing threads and a processing
// thread.
class Writer {
 public:
  Writer(int writer, uint32_t seed) : writer_(writer), seed_(seed + static_cast<uint32_t>(writer)) {}

  // Writes every step of its keys, reports, drains when told, reports its figures and ends
  // without returning into the test framework.
  [[noreturn]] void run(int report, int go) {
    ryxLogSetLevel(RYX_LOG_ERROR);
    ryxLogSetHandler([](int, const char *, void *) {}, nullptr);
    // The gateway's waits, not the immediate ones of the unit tests.
    db_setBusyWait(ANALYTICSDB_BUSY_WAIT_MS, ANALYTICSDB_PROCESS_BUDGET_MS);
    if (!receiveByte(go, kStart, kHangGuardMs)) _exit(2);
    // Every thread's first step met the held file; then the holder lets go, and only then do the
    // threads go on and the processing begin.
    std::barrier firstStep(kThreadsPerWriter + 1, [&]() noexcept {
      if (!sendBytes(report, &kFirstStepDone, 1) || !receiveByte(go, kReleased, kHangGuardMs)) {
        _exit(3);
      }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreadsPerWriter; ++t) {
      threads.emplace_back([&, t] { writeAll(t, firstStep); });
    }
    firstStep.arrive_and_wait();
    uint32_t calls = 0;
    std::jthread processing([&calls](std::stop_token stop) {
      while (!stop.stop_requested()) {
        db_processQueueEntry();
        ++calls;
        std::this_thread::sleep_for(std::chrono::milliseconds(3));  // the host's cadence
      }
    });
    for (std::thread &thread : threads) thread.join();
    processing.request_stop();
    processing.join();
    if (!sendBytes(report, &kAllWritten, 1) || !receiveByte(go, kDrain, kHangGuardMs)) _exit(4);
    // With the file free, a few calls replay a whole queue; more are only a safety margin.
    for (int call = 0; call < 200 && queueCount > 0; ++call) {
      db_processQueueEntry();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Figures figures{writes_, busy_, failed_, calls};
    db_getQueueStats(&figures.queue);
    db_closeDbConnection();
    _exit(sendBytes(report, &figures, sizeof figures) ? 0 : 5);
  }

 private:
  // One thread's keys, step by step; after the first step it waits at `firstStep`.
  void writeAll(int thread, auto &firstStep) {
    std::mt19937 random(seed_ * 31u + static_cast<uint32_t>(thread));
    std::array<int, kKeysPerThread> keys{};
    std::iota(keys.begin(), keys.end(), thread * kKeysPerThread);
    for (int step = 0; step < kSteps; ++step) {
      std::shuffle(keys.begin(), keys.end(), random);
      for (int key : keys) writeStep(key, step, random);
      if (step == 0) firstStep.arrive_and_wait();
      std::this_thread::sleep_for(std::chrono::microseconds(random() % kMaxPauseUs));
    }
  }

  // One API call, tried again 2 ms later while the queue cannot keep it (nothing of it reached
  // the file), 5000 times at most.
  void countWrite(auto &&call) {
    for (int tries = 0; tries < 5000; ++tries) {
      const int32_t status = call();
      if (status == DB_STATUS_QUEUE_FULL) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        continue;
      }
      ++writes_;
      busy_ += status == DB_STATUS_BUSY ? 1 : 0;
      failed_ += status != DB_STATUS_BUSY && status != DB_STATUS_SUCCESS ? 1 : 0;
      return;
    }
    ++failed_;
  }

  // The name and the sample of one key (its index row, then its slot), in either order. The
  // sample's two writes are made one by one, so that a refused one is tried again alone.
  void writeStep(int key, int step, std::mt19937 &random) {
    const std::string mac = macOf(writer_, key), slot = std::to_string(slotOf(writer_, key, step));
    const std::string value = std::to_string(valueOf(writer_, key, step));
    Values named(Texts{mac, value}), index(Texts{mac, std::to_string(timestampOf(step)), slot});
    Values sample(Texts{mac, slot, value});
    auto name = [&] { return db_updateDeviceInfoBeaconFName(named.data()); };
    const bool nameFirst = random() % 2 == 0;
    if (nameFirst) countWrite(name);
    countWrite([&] { return db_updatePrimitiveRssi(index.data()); });
    countWrite([&] { return db_updateRssiSlot(sample.data()); });
    if (!nameFirst) countWrite(name);
  }

  const int writer_;
  const uint32_t seed_;
  // The counts of every writing thread's calls, as Figures names them.
  std::atomic<uint32_t> writes_{0}, busy_{0}, failed_{0};
};

// The holder's connection waits for the writers' short locks in steps of 0.2 ms, 5 s at most
// (SQLite's own busy timeout sleeps up to 100 ms at a time), so that each burst begins.
int waitForWriters(void *, int waits) {
  std::this_thread::sleep_for(std::chrono::microseconds(200));
  return waits < 25000 ? 1 : 0;
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
    const std::string slotOfKey = "SELECT SLT_IND FROM PRIMITIVE_RSSI WHERE MAC_S = NEW.MAC_S";
    adbtest::RawDb db(dbPath());  // closed before the fork: a connection must not cross it
    db.exec("CREATE TABLE AUDIT (ID INTEGER PRIMARY KEY, KIND TEXT, MAC TEXT, WHAT TEXT)");
    auto audit = [&db](const std::string &table, const std::string &row) {
      for (const std::string event : {"INSERT", "UPDATE"}) {
        db.exec("CREATE TRIGGER AUDIT_" + table + "_" + event + " AFTER " + event + " ON " + table +
                " BEGIN INSERT INTO AUDIT (KIND, MAC, WHAT) VALUES (" + row + "); END");
      }
    };
    audit("DEVICEINFO", "'name', NEW.MAC_S, NEW.FRIENDLYNAME_S");
    audit("PRIMITIVE_RSSI", "'index', NEW.MAC_S, NEW.TIMESTAMP || '@' || NEW.SLT_IND");
    for (const std::string day : {"1", "2", "3", "4", "5", "6", "7"}) {
      audit("RSSI" + day, "'slot', NEW.MAC_S, '" + day + ":' || (" + slotOfKey + ")");
    }
  }

  // What the audit recorded of `kind` for `mac`, in order.
  adbtest::Rows audit(const std::string &kind, const std::string &mac) {
    return raw().query("SELECT WHAT FROM AUDIT WHERE KIND = ? AND MAC = ? ORDER BY ID",
                       {kind, mac});
  }

  // Every write of every key is in the file once, in order (nothing but these writes changes
  // the rows, so the last one audited is the one that stands).
  void checkFile() {
    EXPECT_EQ(raw().scalar("SELECT count(*) FROM AUDIT"),
              Cell(std::to_string(3 * kWriters * kKeysPerWriter * kSteps)));
    for (int writer = 0; writer < kWriters; ++writer) {
      for (int key = 0; key < kKeysPerWriter; ++key) {
        const std::string mac = macOf(writer, key);
        adbtest::Rows names, index, slots;
        for (int step = 0; step < kSteps; ++step) {
          const std::string slot = std::to_string(slotOf(writer, key, step));
          const std::string day = std::to_string(dayOf(slotOf(writer, key, step)));
          const Cell value = std::to_string(valueOf(writer, key, step));
          names.push_back({value});
          index.push_back({std::to_string(timestampOf(step)) + "@" + slot});
          slots.push_back({day + ":" + slot});
          const std::string sql = "SELECT SLOT" + slot + " FROM RSSI" + day + " WHERE MAC_S = ?";
          EXPECT_EQ(raw().query(sql, {mac}), adbtest::Rows{{value}}) << mac << " step " << step;
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
  const char *given = std::getenv("ADB_CONTENTION_SEED");
  const auto now = static_cast<uint32_t>(Clock::now().time_since_epoch().count());
  const uint32_t seed = given != nullptr ? static_cast<uint32_t>(std::atoll(given)) : now;
  SCOPED_TRACE("ADB_CONTENTION_SEED=" + std::to_string(seed));
  std::mt19937 random(seed + kWriters);  // the writers draw from seed + 0 .. seed + kWriters - 1
  // The holder's bursts: held for 0.5 to 50 ms, then free for 2 to 8 ms.
  std::uniform_int_distribution<uint32_t> holdUs(500, 50000), freeMs(2, 8);
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
  std::vector<Child> &all = writers.all();

  int bursts = 0;
  {
    adbtest::RawDb holder(dbPath());
    sqlite3_busy_handler(holder.handle(), waitForWriters, nullptr);
    // Every writer's first step meets the held file, so that contention is certain.
    ASSERT_EQ(holder.tryExec("BEGIN EXCLUSIVE"), SQLITE_OK);
    for (Child &child : all) ASSERT_TRUE(sendBytes(child.goFd, &kStart, 1));
    for (Child &child : all) ASSERT_TRUE(receiveByte(child.reportFd, kFirstStepDone, kHangGuardMs));
    holder.tryExec("COMMIT");
    for (Child &child : all) ASSERT_TRUE(sendBytes(child.goFd, &kReleased, 1));
    // Then bursts of a few milliseconds held and free, until every writer has written all.
    int written = 0;
    std::vector<pollfd> reports;
    for (Child &child : all) reports.push_back({child.reportFd, POLLIN, 0});
    while (written < kWriters) {
      ASSERT_LT(Clock::now() - started, std::chrono::milliseconds(kHangGuardMs)) << "writers hang";
      // Each poll sets every revents, 0 for a pipe with nothing to read.
      poll(reports.data(), reports.size(), static_cast<int>(freeMs(random)));
      for (pollfd &report : reports) {
        if (report.fd < 0 || report.revents == 0) continue;
        ASSERT_TRUE(receiveByte(report.fd, kAllWritten, kHangGuardMs)) << "a writer died";
        report.fd = -1;  // poll skips it from now on
        ++written;
      }
      if (written == kWriters) break;
      // A burst that could not begin (the writers kept the file) is simply left out.
      if (holder.tryExec("BEGIN EXCLUSIVE") != SQLITE_OK) continue;
      std::this_thread::sleep_for(std::chrono::microseconds(holdUs(random)));
      holder.tryExec("COMMIT");
      ++bursts;
    }
  }

  // The final drains, one writer at a time on a file nobody else touches. Every request a writer
  // parked left its queue once, written; no call failed, no head stalled.
  for (Child &child : all) {
    Figures figures;
    ASSERT_TRUE(sendBytes(child.goFd, &kDrain, 1));
    ASSERT_EQ(adbtest::receiveBytes(child.reportFd, &figures, sizeof figures, kHangGuardMs),
              adbtest::Received::kAll)
        << "no figures from writer " << child.pid;
    const QueueStats &queue = figures.queue;
    std::cout << "contention: seed " << seed << " writer " << child.pid << " writes "
              << figures.writes << " parked " << figures.busy << " replayed " << queue.replayed
              << " retried " << queue.retried << " refused " << queue.refused << " peak "
              << queue.peakLength << " processing-calls " << figures.calls << " bursts " << bursts
              << " ms " << (Clock::now() - started) / std::chrono::milliseconds(1) << std::endl;
    ASSERT_EQ(adbtest::Children::reap(child), 0) << "a writer did not end cleanly";
    // At least the first step of every thread met the held file.
    EXPECT_GE(figures.busy, static_cast<uint32_t>(kThreadsPerWriter));
    // Every call counted, every parked request replayed or freed, and no failure, stall, drop or
    // request left over.
    EXPECT_EQ(std::make_tuple(figures.writes, queue.parked, figures.failed, queue.stalls),
              std::make_tuple(kKeysPerWriter * kSteps * 3u, queue.replayed + queue.freed, 0u, 0u));
    EXPECT_EQ(std::make_tuple(queue.droppedError, queue.droppedMalformed, queue.length),
              std::make_tuple(0u, 0u, 0u));
  }
  checkFile();
}
