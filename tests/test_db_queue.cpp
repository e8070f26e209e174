// The deferred write queue: gate, FIFO, processing caps, dumps, threads. Requests are parked the
// way a write that met a busy database parks them (the gate with status 3) and replayed through
// the capacity writer's replay (function id 4), which writes "MAC_S" and "CAPACITY" of DEVICEINFO.
// The queue's lines name the exported function they belong to, whichever helper logs them. Its
// counters are published for collectors in other processes.
#include <linux/magic.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/queue_cases.h"

namespace {

using adbtest::Cell;
using adbtest::Values;
namespace fs = std::filesystem;

constexpr int32_t kCapacityId = 4;
// Where the queue's lines come from.
constexpr const char *kBusyAppend = "db_queue db_updateQueueEntry";
constexpr const char *kAppend = "db_queue db_updateQueue";
constexpr const char *kProcessing = "db_queue db_processQueue";
constexpr const char *kNonEmptyCheck = "db_manage_queue db_updateNonEmptyQueue";

class QueueTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    // The CHECK lets a replay fail with a constraint violation on its UPDATE.
    raw().exec(
        "CREATE TABLE DEVICEINFO (MAC_S TEXT NOT NULL PRIMARY KEY COLLATE NOCASE, "
        "CAPACITY INTEGER CHECK (CAPACITY < 1000))");
    db_getQueueStats(&start_);
  }

  static QueueStats stats() {
    QueueStats now{};
    db_getQueueStats(&now);
    return now;
  }

  // The queue's counters since the test began (they count for the whole process).
  QueueStats counted() const {
    QueueStats now = stats();
    const uint32_t *from = &start_.parked;
    for (uint32_t *to = &now.parked; to != &now.length; ++to) *to -= *from++;
    return now;
  }

  // Parks a capacity write as a write that met a busy database does.
  static void park(const std::string &mac, const std::string &value, int32_t id = kCapacityId) {
    db_manageQueue(DB_STATUS_BUSY, id, Values{mac.c_str(), value.c_str()}.data(), 2, "DEVICEINFO");
  }

  static int32_t writeCapacity(const std::string &mac, const std::string &capacity) {
    return db_updateDeviceInfoCapacity(Values{mac.c_str(), capacity.c_str()}.data());
  }

  Cell capacityOf(const std::string &mac) {
    return raw().scalar("SELECT CAPACITY FROM DEVICEINFO WHERE MAC_S = '" + mac + "'");
  }

  // The library logged `message` at `level` behind its "[analyticsDB] " tag; with `where`, every
  // such line names that function, at a log call.
  size_t logged(int level, const std::string &message) {
    return log().count(level, "[analyticsDB] " + message);
  }
  void expectLogged(int level, const std::string &message, const char *where = nullptr) {
    EXPECT_GT(logged(level, message), 0u) << message << log().dump();
    if (where != nullptr) adbtest::expectAttributed(log(), message, where);
  }

 private:
  QueueStats start_{};
};

// Runs `body(0)` .. `body(count - 1)` on threads of their own and waits for them all.
void onThreads(int count, const std::function<void(int)> &body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < count; ++t) threads.emplace_back(body, t);
  for (std::thread &thread : threads) thread.join();
}

TEST_F(QueueTest, OnlyBusyWritesParkAPrivateCopyThatHoldsBackItsKey) {
  for (int32_t status : {-1, 0, 1, 2, 4, 5, 6})
    EXPECT_EQ(db_manageQueue(status, kCapacityId, Values{"a", "1"}.data(), 2, "DEVICEINFO"), 0);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  db_deleteQueueEntry();
  expectLogged(RYX_LOG_DEBUG, "DeleteQueueEntry - Queue is empty\n");

  char mac[] = "aa:bb:cc:00:00:01", capacity[] = "7";
  char *values[] = {mac, capacity};
  EXPECT_EQ(whileBusy([&] { return db_updateDeviceInfoCapacity(values); }), DB_STATUS_BUSY);
  ASSERT_NE(lastNode, nullptr);
  EXPECT_EQ(adbtest::queueHead(), lastNode);
  expectLogged(RYX_LOG_ERROR, "- Add Queue,1stNode func[4] Table[DEVICEINFO]\n", kBusyAppend);
  // The node owns its copies: the caller may reuse its buffers at once.
  capacity[0] = '8';
  EXPECT_EQ(adbtest::nodeValues(*lastNode), (std::vector<Cell>{"aa:bb:cc:00:00:01", "7"}));

  // The database is free again, but the row waits: the same key queues behind it without a
  // statement, another key is written at once.
  size_t statements = log().countContaining("Insert/Update to table");
  EXPECT_EQ(db_updateDeviceInfoCapacity(values), DB_STATUS_BUSY);
  EXPECT_EQ(log().countContaining("Insert/Update to table"), statements);
  expectLogged(RYX_LOG_ERROR, "- Add Queue  func[4]  Table[DEVICEINFO]\n", kAppend);
  expectLogged(RYX_LOG_INFO, "Added Queue func[4]  Table[DEVICEINFO]\n", kAppend);
  EXPECT_EQ(writeCapacity("aa:bb:cc:00:00:02", "5"), DB_STATUS_SUCCESS);
  EXPECT_EQ(capacityOf("aa:bb:cc:00:00:02"), Cell("5"));

  // Replayed oldest first, each node removed after its success.
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(capacityOf("aa:bb:cc:00:00:01"), Cell("8"));
  EXPECT_EQ(lastNode, nullptr);
  expectLogged(RYX_LOG_ERROR, "Get Node [0] func[4] Table[DEVICEINFO]\n");
  expectLogged(RYX_LOG_DEBUG, "DeleteQueueEntry - Queue is empty,lastnode null\n");
}

TEST_F(QueueTest, BusyReplayKeepsItsNodeUntilTheStallIsCleared) {
  park("aa", "1");
  park("bb", "2");
  {
    adbtest::BusyHolder holder(dbPath());
    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_EMPTY);
    EXPECT_EQ(log().countContaining("[analyticsDB] Get Node ["), 320u);
    expectLogged(RYX_LOG_ERROR, "Get Node, Processed Max[320],Queue is Not Empty\n");
    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_BUSY);
    EXPECT_EQ(log().countContaining("[analyticsDB] Get Node ["), 500u);
    expectLogged(RYX_LOG_ERROR, "Same node is getting processed for max number of time [500]\n");
    // Still held: a stalled head gets one try per call, and each such call counts a stall.
    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_BUSY);
    QueueStats s = counted();
    EXPECT_EQ(std::tie(s.stalls, s.retried, s.length), std::make_tuple(2u, 501u, 2u));
  }
  // Once the lock goes, the next call's single try on the stalled head gets through and the
  // queue flows again.
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(queueProcessCount, 0);
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S || CAPACITY) FROM DEVICEINFO"), "aa1,bb2");
  EXPECT_EQ(db_getQueueStats(nullptr), DB_STATUS_FAILURE);

  // Freeing the queue ends a stall too.
  park("cc", "3");
  {
    adbtest::BusyHolder holder(dbPath());
    db_processQueueEntry();
    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_BUSY);
  }
  EXPECT_EQ(db_freeQueue(), 0);
  park("dd", "4");
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);

  // A replay that cannot open the file keeps its node for a later call.
  park("ee", "5");
  ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
  ASSERT_EQ(db_setDatabasePath((tempDir_ + "/missing/analytics.db").c_str()), DB_STATUS_SUCCESS);
  db_processQueueEntry();
  ASSERT_EQ(db_setDatabasePath(dbPath().c_str()), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  // The freed request is gone; the one parked after the free is written, as is the kept one.
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S || CAPACITY) FROM DEVICEINFO"),
            "aa1,bb2,dd4,ee5");
}

// The ways a parked write used to be lost or overtaken: letter case, a full disk during its
// replay, a one-slot default fill, and a write parked out of the caller's transaction.
TEST_F(QueueTest, NothingTheCallerWasToldWasKeptIsLostOrOvertaken) {
  // "CA:..." waits; "ca:..." must queue behind it, as the key column ignores case.
  park("CA:00:00:00:00:08", "7");
  EXPECT_EQ(writeCapacity("ca:00:00:00:00:08", "8"), DB_STATUS_BUSY);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT CAPACITY FROM DEVICEINFO"), Cell("8"));

  // A full disk keeps a request at the head (the call ends there); every one is written once
  // there is room again. Eight long keys need more than the one free page left.
  auto longKey = [](int i) { return std::string(900, 'a' + static_cast<char>(i)); };
  for (int i = 0; i < 8; ++i) park(longKey(i), "9");
  ASSERT_EQ(db_write("PRAGMA max_page_count = 3"), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_EMPTY);
  EXPECT_EQ(counted().retried, 1u);
  ASSERT_EQ(db_write("PRAGMA max_page_count = 1000000"), DB_STATUS_SUCCESS);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(capacityOf(longKey(i)), Cell("9"));

  // A one-slot default fill records 2 columns but replays from its three values.
  createSeriesTables();
  ASSERT_EQ(db_updatePrimitiveRssi(Values{"dd:01", "1700000000", "5"}.data()), DB_STATUS_SUCCESS);
  Values fill{"dd:01", "5", "5"};
  EXPECT_EQ(whileBusy([&] { return db_updateRssiSlotDefaultValue(fill.data()); }), DB_STATUS_BUSY);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(raw().scalar("SELECT SLOT5 FROM RSSI1 WHERE MAC_S = 'dd:01'"), Cell("0"));

  // A write that cannot join the caller's transaction (its key waits) rolls it back: COMMIT
  // reports it, and neither that write nor the earlier one of the transaction is in the file.
  park("tx:02", "2");
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(writeCapacity("tx:01", "1"), DB_STATUS_SUCCESS);
  EXPECT_EQ(writeCapacity("tx:02", "3"), DB_STATUS_FAILURE);
  EXPECT_EQ(writeCapacity("tx:03", "3"), DB_STATUS_FAILURE);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);
  EXPECT_EQ(capacityOf("tx:01"), std::nullopt);
  EXPECT_EQ(adbtest::queueLength(), 1);  // only the request parked before the transaction
  const char *cannotJoin = "func[4] Table[DEVICEINFO] Key[tx:02] cannot join the open transaction";
  EXPECT_EQ(log().countContaining(cannotJoin), 1u);
  adbtest::expectAttributed(log(), "cannot join the open transaction", "db_operation db_write");
  // Busy inside a transaction: not parked either.
  ASSERT_EQ(db_beginTransaction(), DB_STATUS_SUCCESS);
  EXPECT_EQ(whileBusy([] { return writeCapacity("tx:04", "4"); }), DB_STATUS_FAILURE);
  EXPECT_EQ(db_commitTransaction(), DB_STATUS_FAILURE);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(capacityOf("tx:02"), Cell("2"));
  QueueStats s = counted();  // 12 parked: none of the writes tried in a transaction
  EXPECT_EQ(std::tie(s.parked, s.replayed, s.length), std::make_tuple(12u, 12u, 0u));
}

TEST_F(QueueTest, FailedAndUnknownRequestsAreRemovedAndProcessingGoesOn) {
  raw().exec("INSERT INTO DEVICEINFO VALUES ('aa', 1)");
  park("aa", "5000");  // the UPDATE breaks the CHECK
  park("bb", "3");
  Values mesh{"m1", "id", "parent", "ip", "role", "mode", "wifi", "up", "good"};
  db_manageQueue(DB_STATUS_BUSY, 9, mesh.data(), mesh.size(), "MESHTOPO");  // no such table
  park("cc", "4", 47);
  park("dd", "5", -1);
  park("ee", "6");

  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  expectLogged(RYX_LOG_ERROR, "Delete Reason:status[4]\n");
  expectLogged(RYX_LOG_ERROR, "Delete Reason:status[5]\n");
  EXPECT_EQ(logged(RYX_LOG_ERROR, "Get Node, Function is not supported in Queue\n"), 2u);
  adbtest::expectAttributed(log(), "Function is not supported in Queue", kProcessing);
  adbtest::expectAttributed(log(), "unknown function", kProcessing);
  EXPECT_EQ(raw().scalar("SELECT group_concat(MAC_S || CAPACITY) FROM DEVICEINFO"), "aa1,bb3,ee6");
}

TEST_F(QueueTest, LimitsOfEntriesAndOfAttemptsPerCall) {
  for (int i = 0; i < 320; ++i) park("k" + std::to_string(i), std::to_string(i % 1000));

  // A busy write the full queue cannot keep is told so, not "parked"; a write for a waiting key
  // is refused rather than written past it; a write for any other key goes to the file.
  EXPECT_EQ(whileBusy([] { return writeCapacity("late", "1"); }), DB_STATUS_QUEUE_FULL);
  EXPECT_EQ(writeCapacity("K0", "9"), DB_STATUS_QUEUE_FULL);
  const std::string full = "Queue has MAX number of entries. Queue count [320] MAX value [320] ";
  for (auto [key, where] : {std::pair{"late", kBusyAppend}, std::pair{"K0", kNonEmptyCheck}}) {
    const std::string request = "func[4] Table[DEVICEINFO] Key[" + std::string(key) + "]";
    EXPECT_EQ(log().count(RYX_LOG_ERROR, full + request + ": not written, not parked\n"), 1u);
    adbtest::expectAttributed(log(), request, where);
  }
  // Nothing waits for any other key, so it is written, with a line of its own.
  log().clear();
  EXPECT_EQ(writeCapacity("free", "9"), DB_STATUS_SUCCESS);
  adbtest::expectAttributed(log(), "Queue has MAX number of entries", kNonEmptyCheck);
  EXPECT_EQ(capacityOf("k0"), std::nullopt);
  QueueStats s = counted();  // the refused writes parked nothing
  EXPECT_EQ(std::tie(s.refused, s.parked, s.peakLength), std::make_tuple(2u, 320u, 320u));
  raw().exec("DELETE FROM DEVICEINFO");

  // The append itself has no limit; one call replays 320 requests and leaves the rest.
  pthread_mutex_lock(&lock);
  EXPECT_EQ(db_updateQueue(kCapacityId, Values{"extra", "1"}.data(), 2, "DEVICEINFO"), 1);
  pthread_mutex_unlock(&lock);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_EMPTY);
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEVICEINFO"), Cell("320"));
  // Counted after the removal's reset: the next head starts one attempt ahead.
  EXPECT_EQ(queueProcessCount, 1);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(capacityOf("extra"), Cell("1"));
}

// Which waiting requests a new one relates to (and queues behind), and which node a request
// matches.
TEST_F(QueueTest, RelatedEntriesShareFamilyAndKeyPrefixAndMatchesCompareIdCountAndValues) {
  park("aa:bb:cc", "1");
  // Key prefixes either way relate, as do whole-table requests (no, a NULL or an empty key).
  const std::tuple<const char *, const char *, int32_t> cases[] = {
      {"DEVICEINFO", {"aa:bb:cc"}, 1},    {"DEVICEINFO", {"aa:bb"}, 1},
      {"DEVICEINFO", {"aa:bb:cc:dd"}, 0}, {"DEVICEINFO", {"cc:dd"}, 0},
      {"DEVICEINFO", {nullptr}, 1},       {"DEVICEINFO", {""}, 1},
      {"DEVICEINFOX", {"aa:bb:cc"}, 1},   {"MESHTOPO", {"aa:bb:cc"}, 0},
      {nullptr, {"aa:bb:cc"}, 0}};
  for (auto [table, key, related] : cases)
    EXPECT_EQ(db_checkTableEntry(table, Values{key}.data(), 1), related) << table << " " << key;
  EXPECT_EQ(db_checkTableEntry("DEVICEINFO", nullptr, 0), 1);
  expectLogged(RYX_LOG_ERROR, " Table Name to be checked in queue is empty\n");

  // A match needs the id, the count, and each value a prefix of the node's (null for null).
  WriteRequestNode *capacity = adbtest::queueHead();
  EXPECT_EQ(db_findMatch(capacity, 4, Values{"aa", "1"}.data(), 2), 1);
  EXPECT_EQ(db_findMatch(capacity, 4, Values{"aa:bb:cc", "8"}.data(), 2), 0);
  EXPECT_EQ(db_findMatch(capacity, 4, Values{nullptr, "1"}.data(), 2), 0);
  EXPECT_EQ(db_findMatch(capacity, 5, Values{"aa:bb:cc", "1"}.data(), 2), 0);
  EXPECT_EQ(db_findMatch(nullptr, 4, nullptr, 0), 0);

  EXPECT_EQ(db_manageQueue(-1, kCapacityId, Values{"aa:bb:cc", "2"}.data(), 2, "DEVICEINFO"), 1);
  EXPECT_EQ(db_manageQueue(-1, kCapacityId, Values{"cc:dd", "2"}.data(), 2, "DEVICEINFO"), 0);
  EXPECT_EQ(adbtest::queueLength(), 2);

  // A queued request without a key holds back every request of its family.
  db_manageQueue(DB_STATUS_BUSY, 9, Values{"m1", nullptr}.data(), 2, "MESHTOPO");
  EXPECT_EQ(db_findMatch(capacity->next->next, 9, Values{"m1", nullptr}.data(), 2), 1);
  EXPECT_EQ(db_findMatch(capacity->next->next, 9, nullptr, 2), 0);
  db_manageQueue(DB_STATUS_BUSY, 36, nullptr, 0, "MESHTOPO");
  EXPECT_EQ(db_checkTableEntry("MESHTOPO", Values{"m2"}.data(), 1), 1);
  // So does a queued day drop, whose first value is NULL; and keys relate in any letter case.
  db_manageQueue(DB_STATUS_BUSY, 33, Values{nullptr, "2"}.data(), 2, "RSSI");
  EXPECT_EQ(db_checkTableEntry("RSSI", Values{"aa"}.data(), 1), 1);
  db_manageQueue(DB_STATUS_BUSY, 20, Values{"zone"}.data(), 1, "DEVICETHRESHOLD");
  EXPECT_EQ(db_checkTableEntry("DEVICETHRESHOLD", Values{"ZONE"}.data(), 1), 1);
}

TEST_F(QueueTest, NodeNeverHoldsMoreThanItsCapacity) {
  std::vector<std::string> many;
  for (int i = 0; i < 51; ++i) many.push_back("v" + std::to_string(i));
  Values fiftyOne(many), fifty(std::vector<std::string>(many.begin(), many.end() - 1));

  db_manageQueue(DB_STATUS_BUSY, 1, fiftyOne.data(), 51, "DEVICEINFO");
  EXPECT_EQ(log().countContaining("has 51 values, a queue entry holds 50: not queued"), 1u);
  adbtest::expectAttributed(log(), "a queue entry holds", kBusyAppend);
  db_manageQueue(DB_STATUS_BUSY, 1, fifty.data(), 50, "DEVICEINFO");
  ASSERT_NE(adbtest::queueHead(), nullptr);
  EXPECT_EQ(adbtest::nodeValues(*adbtest::queueHead()).back(), Cell("v49"));
  // Behind a waiting entry an oversized request is not queued either, nor written past it.
  EXPECT_NE(db_manageQueue(-1, 1, fiftyOne.data(), 51, "DEVICEINFO"), 0);
  EXPECT_EQ(queueCount, 1);

  // Filling by hand copies no more than the node holds, whatever count it records.
  auto *node = static_cast<WriteRequestNode *>(std::calloc(1, sizeof(WriteRequestNode)));
  EXPECT_EQ(queue_fillDetails(node, 3, fiftyOne.data(), 51, std::string(200, 'T').c_str()), 0);
  EXPECT_EQ(std::tuple(node->fieldCount, adbtest::nodeValues(*node).size(), node->tableName),
            std::tuple(51, 50u, std::string(126, 'T')));
  log().clear();
  printQueueNode(node);
  EXPECT_EQ(log().countContaining("Field["), 50u);
  EXPECT_TRUE(log().has(RYX_LOG_DEBUG, "Field[49]: [v49], "));
  freeNode(node);
}

TEST_F(QueueTest, DumpRepeatsEarlierValuesOnEveryLine) {
  park("aa", "1");
  db_manageQueue(DB_STATUS_BUSY, 9, Values{"m1", nullptr}.data(), 2, "MESHTOPO");
  db_manageQueue(DB_STATUS_BUSY, 34, nullptr, 0, "DEVICEINFO");
  log().clear();
  db_printQueue();
  std::vector<std::string> lines;
  for (const adbtest::LogLine &line : log().lines()) {
    EXPECT_EQ(line.level, RYX_LOG_INFO);
    lines.emplace_back(line.message());
  }
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "QUEUE DUMP\n", "Qid|Tablename|Function|FieldCount|FieldValues",
                       "\n0|DEVICEINFO|4|2|aa|1", "\n1|MESHTOPO|9|2|aa|1|m1|NULL",
                       "\n2|DEVICEINFO|34|0|aa|1|m1|NULL"}));

  log().clear();
  printQueueNode(adbtest::queueHead()->next);
  printQueueNode(nullptr);
  ASSERT_EQ(log().lines().size(), 3u);
  EXPECT_TRUE(log().has(RYX_LOG_DEBUG, "\nFunction [9], Table [MESHTOPO], FieldCount [2], "));
  EXPECT_TRUE(log().has(RYX_LOG_DEBUG, "Field[1]: [NULL], "));

  // An empty field-values column reads NULL; a full one stops at 2047 characters.
  db_freeQueue();
  db_manageQueue(DB_STATUS_BUSY, 34, nullptr, 0, "DEVICEINFO");
  for (int i = 0; i < 2; ++i) park("aa", std::string(1500, 'v'));
  log().clear();
  db_printQueue();
  ASSERT_EQ(log().lines().size(), 5u);
  EXPECT_EQ(log().lines()[2].message(), "\n0|DEVICEINFO|34|0NULL");
  EXPECT_EQ(log().lines()[4].message().size(), std::strlen("\n2|DEVICEINFO|4|2") + 2047);
  EXPECT_EQ(log().countContaining("Max buffer size"), 0u);
}

// Threads making their first calls at once share one connection; then several threads write
// while one processes. Run under ThreadSanitizer too.
TEST_F(QueueTest, ThreadsShareOneConnectionAndAppendWhileOneProcesses) {
  // The race of the first calls is narrow, so they are repeated from a closed connection a few
  // times. Descriptors of this process open on the database file: the fixture's own
  // connection's, and after the threads, one more.
  constexpr int kThreads = 8;
  auto openOnFile = [this] {
    std::error_code error;
    auto isDb = [&](const fs::path &fd) { return fs::read_symlink(fd, error) == dbPath(); };
    return std::count_if(fs::directory_iterator("/proc/self/fd"), {}, isDb);
  };
  const auto before = openOnFile();
  for (int round = 0; round < 10; ++round) {
    ASSERT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    std::atomic<int> ready{0};
    onThreads(kThreads, [&ready](int t) {
      ready.fetch_add(1);
      while (ready.load() < kThreads) std::this_thread::yield();
      EXPECT_EQ(writeCapacity("first:" + std::to_string(t), "1"), DB_STATUS_SUCCESS);
    });
    ASSERT_EQ(openOnFile(), before + 1) << "round " << round;
  }
  EXPECT_EQ(raw().scalar("SELECT count(*) FROM DEVICEINFO"), Cell(std::to_string(kThreads)));

  // Then four threads write (the connection is open now) while a fifth processes until they are
  // done and the queue is empty.
  constexpr int kWriters = 4, kWritesEach = 60;
  std::atomic<int> writersDone{0};
  onThreads(kWriters + 1, [&writersDone](int t) {
    if (t == kWriters) {
      while (writersDone.load() < kWriters || adbtest::queueHead() != nullptr) {
        EXPECT_NE(db_processQueueEntry(), DB_STATUS_BUSY);
        std::this_thread::yield();
      }
      return;
    }
    for (int i = 0; i < kWritesEach; ++i) {
      const std::string key = "thread:" + std::to_string(t), value = std::to_string(i);
      if (i % 3 == 0) {  // as a write that met a busy database
        park(key, value);
      } else {
        int32_t status = writeCapacity(key, value);
        EXPECT_TRUE(status == DB_STATUS_SUCCESS || status == DB_STATUS_BUSY) << status;
      }
    }
    writersDone.fetch_add(1);
  });

  // Each key ends with its last write: no write overtook an earlier one of the same row.
  EXPECT_EQ(raw().scalar("SELECT group_concat(CAPACITY) FROM DEVICEINFO WHERE MAC_S > 't'"),
            "59,59,59,59");  // kWritesEach - 1 for each of the kWriters
  EXPECT_EQ(log().countContaining("Delete Reason"), 0u);
}

// The published counters: <folder>/queue.<pid>, written when they changed, removed by
// db_freeQueue, and never on a file system outside RAM.
std::string contentsOf(const fs::path &path) {
  std::ifstream file(path);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// What the file must hold for counters `s`, in the order collectors may rely on (that of the
// struct's fields). The process name ends with its newline.
std::string published(const QueueStats &s) {
  auto text = "pid " + std::to_string(getpid()) + "\nprocess " + contentsOf("/proc/self/comm");
  const uint32_t *value = &s.parked;
  for (const char *name : {"parked", "replayed", "retried", "droppedError", "droppedMalformed",
                           "freed", "refused", "stalls", "length", "peakLength"})
    text += std::string(name) + " " + std::to_string(*value++) + "\n";
  return text;
}

class QueuePublication : public QueueTest {
 protected:
  void TearDown() override {
    setenv("ANALYTICSDB_STATS_DIR", "", 1);
    QueueTest::TearDown();
    std::error_code ignored;
    for (const fs::path &folder : made_) fs::remove_all(folder, ignored);
  }

  // A fresh folder under `base`, whose "stats" child the library is to make and publish in.
  fs::path statsFolderUnder(const fs::path &base) {
    std::string pattern = (base / "adbtest-stats.XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    made_.push_back(pattern);
    setenv("ANALYTICSDB_STATS_DIR", (pattern + "/stats").c_str(), 1);
    EXPECT_EQ(db_initQueue(), 0);  // reads the folder again
    return fs::path(pattern) / "stats";
  }

 private:
  std::vector<fs::path> made_;
};

TEST_F(QueuePublication, ChangedCountersReplaceTheFileAndFreeingRemovesIt) {
  const fs::path folder = statsFolderUnder("/dev/shm");
  const fs::path file = folder / ("queue." + std::to_string(getpid()));
  park("aa:bb:cc:dd:ee:01", "5");  // then processed once while the database is held
  EXPECT_EQ(whileBusy([] { return db_processQueueEntry(); }), DB_STATUS_EMPTY);
  EXPECT_EQ(contentsOf(file), published(stats()));

  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(contentsOf(file), published(stats()));
  // Nothing changed: the file is not written again, and no temporary file is left beside it.
  struct stat before {}, after {};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_EQ(std::tie(after.st_ino, after.st_mtim.tv_sec, after.st_mtim.tv_nsec),
            std::tie(before.st_ino, before.st_mtim.tv_sec, before.st_mtim.tv_nsec));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);

  EXPECT_EQ(db_freeQueue(), 0);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(log().countContaining("Queue counters"), 0u) << log().dump();
}

TEST_F(QueuePublication, AFolderOutsideRamIsRefusedWithOneNotice) {
  // The working folder (the build tree, under ctest) is normally on a disk.
  struct statfs here {};
  ASSERT_EQ(statfs(".", &here), 0);
  if (static_cast<uint32_t>(here.f_type) == TMPFS_MAGIC ||
      static_cast<uint32_t>(here.f_type) == RAMFS_MAGIC) {
    GTEST_SKIP() << "the working folder is in RAM: no folder outside it to try";
  }
  const fs::path folder = statsFolderUnder(fs::current_path());
  park("aa:bb:cc:dd:ee:01", "5");
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);  // changed again: still no second line
  const std::string why = "not a file system in RAM (tmpfs or ramfs), and writes to flash wear it";
  const std::string notice = "Queue counters are not published in " + folder.string() + ": " + why;
  EXPECT_EQ(logged(RYX_LOG_NOTICE, notice + "\n"), 1u) << log().dump();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 0);
}

}  // namespace
