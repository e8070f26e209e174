/*
 * db_queue.cpp - the deferred write queue's FIFO.
 *
 * A write that meets a busy database is parked here as a node holding private copies of its
 * values, and replayed later, oldest first, when the host calls db_processQueueEntry. This file
 * owns the nodes and the queue's globals: appending behind the tail, removing the head, the
 * processing loop with its caps, freeing, and the debug dumps. Which replay a node runs is
 * decided by the dispatch in db_manage_queue.cpp.
 *
 * Appends link only behind the tail and removals unlink only the head, each under `lock`, so
 * other threads may append while one thread processes. The processing walk itself is not
 * locked: one thread processes at a time.
 *
 * The counters of db_getQueueStats live in this process's memory; so that a collector in
 * another process (analyticsdb export) can read them, the processing call publishes them into
 * a small file of the stats folder whenever they changed.
 */
#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "analyticsdb.h"
#include "internal/connection.h"
#include "internal/gate.h"
#include "internal/log.h"
#include "internal/memory.h"
#include "internal/queue.h"
#include "internal/text_builder.h"

ADB_LOG_MODULE("db_queue")

extern "C" {
ADB_API WriteRequestNode *writeRequestQueue = nullptr;
ADB_API WriteRequestNode *lastNode = nullptr;
ADB_API int32_t queueCount = 0;
ADB_API int32_t queueProcessCount = 0;
ADB_API pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

// The append runs for the non-empty check, the busy append and db_updateQueue alike, and always
// as db_updateQueue; the busy append's own lines are db_updateQueueEntry's.
constexpr adb::log::Origin kAppend{kLogModule, "db_updateQueue"};
constexpr adb::log::Origin kBusyAppend{kLogModule, "db_updateQueueEntry"};
// A node dropped because no replay can be built from it is dropped while processing.
constexpr adb::log::Origin kProcessing{kLogModule, "db_processQueue"};

// What db_getQueueStats reports. Changed with atomic adds from whichever thread parks, replays or
// refuses; the peak only under `lock`, where the length changes.
QueueStats gStats = {};
// What the last replay reported; only the processing thread reads it.
adb::queue::Outcome gOutcome = adb::queue::Outcome::kNone;

uint32_t *counterOf(adb::queue::Counter counter) {
  using adb::queue::Counter;
  switch (counter) {
    case Counter::kParked: return &gStats.parked;
    case Counter::kReplayed: return &gStats.replayed;
    case Counter::kRetried: return &gStats.retried;
    case Counter::kDroppedError: return &gStats.droppedError;
    case Counter::kDroppedMalformed: return &gStats.droppedMalformed;
    case Counter::kFreed: return &gStats.freed;
    case Counter::kRefused: return &gStats.refused;
    case Counter::kStalls: return &gStats.stalls;
  }
  return &gStats.stalls;
}

// A request was taken in; `lock` is held.
void noteParked() {
  adb::queue::count(adb::queue::Counter::kParked);
  uint32_t length = static_cast<uint32_t>(queueCount);
  if (length > __atomic_load_n(&gStats.peakLength, __ATOMIC_RELAXED)) {
    __atomic_store_n(&gStats.peakLength, length, __ATOMIC_RELAXED);
  }
}

// The table name copy is bounded one byte short of its buffer (126 characters of text), on
// purpose: family names are far shorter, and the bound is part of the node's contract.
constexpr size_t kTableNameCopyBound = DB_QUEUE_TABLE_NAME_SIZE - 1;
// The field-values column of a queue dump.
constexpr size_t kDumpBufferSize = 2048;

// A node has a fixed number of value slots: a request with more values is refused rather than
// cut, since its replay would write a different row than the caller asked for.
bool fitsInNode(const adb::queue::Request &request, adb::log::Origin origin) {
  if (request.valueCount <= DB_QUEUE_FIELD_SLOTS) return true;
  ADB_LOG_FOR(origin, RYX_LOG_ERROR,
              "[analyticsDB] Queue: func[%d] Table[%s] has %d values, a queue entry holds %d: "
              "not queued\n",
              request.functionId, adb::queue::orNull(request.tableFamily), request.valueCount,
              DB_QUEUE_FIELD_SLOTS);
  return false;
}

// Zero-filled, so that every slot past the copied values is null and next is null.
WriteRequestNode *newNode() {
  return static_cast<WriteRequestNode *>(adb::allocateZeroed(1, sizeof(WriteRequestNode)));
}

char *copyOf(const char *value) {
  size_t size = std::strlen(value) + 1;
  char *copy = static_cast<char *>(adb::allocate(size));
  if (copy != nullptr) std::memcpy(copy, value, size);
  return copy;
}

void freeValues(WriteRequestNode &node) {
  for (int32_t i = 0; i < adb::queue::valueSlots(node); ++i) {
    std::free(node.fieldValues[i]);
    node.fieldValues[i] = nullptr;
  }
}

// False when a value could not be copied; the node then holds no copies. A node missing a value
// would replay a different write than the caller's (the column left out), so it is never queued.
bool fill(WriteRequestNode &node, const adb::queue::Request &request,
          adb::log::Origin origin) {
  node.fieldCount = request.recordedCount;
  node.functionId = request.functionId;
  adb::TextBuilder name(node.tableName, kTableNameCopyBound);
  if (request.tableFamily != nullptr) name.append(request.tableFamily);
  if (request.values == nullptr) return true;
  // Never more values than the caller's array holds, than the node keeps, or than it has.
  int32_t copies = adb::queue::valueSlots(node);
  if (copies > request.valueCount) copies = request.valueCount;
  for (int32_t i = 0; i < copies; ++i) {
    if (request.values[i] == nullptr) continue;
    node.fieldValues[i] = copyOf(request.values[i]);
    if (node.fieldValues[i] == nullptr) {
      ADB_LOG_FOR(origin, RYX_LOG_ERROR,
          "[analyticsDB] - Add Queue - Memory allocation failed for a field value of func[%d]: "
          "not queued\n",
          request.functionId);
      freeValues(node);
      return false;
    }
  }
  return true;
}

// A node made and filled for `request`, or null (logged) when memory ran out.
WriteRequestNode *filledNode(const adb::queue::Request &request, const char *nodeFailed,
                             adb::log::Origin origin) {
  WriteRequestNode *node = newNode();
  if (node == nullptr) {
    ADB_LOG_FOR(origin, RYX_LOG_ERROR, "%s", nodeFailed);
    return nullptr;
  }
  if (!fill(*node, request, origin)) {
    std::free(node);
    return nullptr;
  }
  return node;
}

// Unlinks and frees the head; `lock` must be held and the queue not empty.
void unlinkHead() {
  WriteRequestNode *node = adb::queue::head();
  adb::queue::setHead(adb::queue::nextOf(node));
  freeNode(node);
  --queueCount;
  adb::queue::setAttempts(0);
}

// The publication of the counters in <folder>/queue.<pid>, one "key value" line each. Only the
// processing thread and the queue's initialisation and freeing touch it.
constexpr adb::log::Origin kPublishing{kLogModule, "db_processQueueEntry"};
constexpr size_t kStatsFolderCapacity = 232;
// The folder and "/.queue.<pid>.tmp".
constexpr size_t kStatsPathCapacity = kStatsFolderCapacity + 24;
struct Publication {
  enum class State : uint8_t { kUndecided, kOff, kOn } state = State::kUndecided;
  bool published = false;  // this process's file holds `last`
  QueueStats last = {};
  char folder[kStatsFolderCapacity] = {};
};
Publication gPublication;

// This process's file in the stats folder, or the temporary file it is written to first.
void statsPath(char (&path)[kStatsPathCapacity], bool temporary) {
  const int pid = static_cast<int>(getpid());
  if (temporary) {
    std::snprintf(path, sizeof path, "%s/.queue.%d.tmp", gPublication.folder, pid);
  } else {
    std::snprintf(path, sizeof path, "%s/queue.%d", gPublication.folder, pid);
  }
}

// Decides, once per queue initialisation, where the counters go: ANALYTICSDB_STATS_DIR from the
// environment, else the compiled-in folder; an empty name turns publication off. The folder is
// made if missing, and used only on a file system in RAM: every byte written to the gateway's
// flash wears it. False (with one notice line saying why) when publication is off.
bool decideStatsFolder() {
  const char *env = std::getenv("ANALYTICSDB_STATS_DIR");
  const char *folder = env != nullptr ? env : ANALYTICSDB_DEFAULT_STATS_DIR;
  gPublication.state = Publication::State::kOff;
  if (folder[0] == '\0') return false;
  const char *why = nullptr;
  struct statfs filesystem {};
  int error = 0;
  if (std::strlen(folder) >= kStatsFolderCapacity) {
    error = ENAMETOOLONG;
  } else if (mkdir(folder, 0755) != 0 && errno != EEXIST) {
    error = errno;
  } else if (statfs(folder, &filesystem) != 0) {
    error = errno;
  } else if (static_cast<uint32_t>(filesystem.f_type) != TMPFS_MAGIC &&
             static_cast<uint32_t>(filesystem.f_type) != RAMFS_MAGIC) {
    why = "not a file system in RAM (tmpfs or ramfs), and writes to flash wear it";
  }
  if (error != 0) why = std::strerror(error);
  if (why != nullptr) {
    ADB_LOG_FOR(kPublishing, RYX_LOG_NOTICE,
                "[analyticsDB] Queue counters are not published in %s: %s\n", folder, why);
    return false;
  }
  adb::TextBuilder(gPublication.folder, sizeof gPublication.folder).append(folder);
  gPublication.state = Publication::State::kOn;
  return true;
}

// Publishes the counters when they changed since the last publication: written to a temporary
// file beside this process's file and renamed over it, so that a reader sees the old counters or
// the new ones, never half. Runs without `lock`; an unchanged call costs a comparison.
void publishQueueStats() {
  if (gPublication.state == Publication::State::kOff) return;
  QueueStats now = {};
  db_getQueueStats(&now);
  if (gPublication.published && std::memcmp(&now, &gPublication.last, sizeof now) == 0) return;
  if (gPublication.state == Publication::State::kUndecided && !decideStatsFolder()) return;
  char process[32] = "";
  if (FILE *comm = std::fopen("/proc/self/comm", "re"); comm != nullptr) {
    if (std::fgets(process, sizeof process, comm) == nullptr) process[0] = '\0';
    std::fclose(comm);
    process[std::strcspn(process, "\n")] = '\0';
  }
  char text[512];
  int length = std::snprintf(
      text, sizeof text,
      "pid %d\nprocess %s\nparked %u\nreplayed %u\nretried %u\ndroppedError %u\n"
      "droppedMalformed %u\nfreed %u\nrefused %u\nstalls %u\nlength %u\npeakLength %u\n",
      static_cast<int>(getpid()), process, now.parked, now.replayed, now.retried, now.droppedError,
      now.droppedMalformed, now.freed, now.refused, now.stalls, now.length, now.peakLength);
  char path[kStatsPathCapacity];
  char temporary[kStatsPathCapacity];
  statsPath(path, false);
  statsPath(temporary, true);
  int file = open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  bool written = file >= 0 && write(file, text, static_cast<size_t>(length)) == length;
  int error = errno;
  if (file >= 0 && close(file) != 0 && written) {
    written = false;
    error = errno;
  }
  if (written && std::rename(temporary, path) != 0) {
    written = false;
    error = errno;
  }
  if (!written) {
    // A full RAM disk or a folder this process may not write: stop, rather than leave counters
    // that look current but are not.
    unlink(temporary);
    unlink(path);
    gPublication.state = Publication::State::kOff;
    gPublication.published = false;
    ADB_LOG_FOR(kPublishing, RYX_LOG_NOTICE,
                "[analyticsDB] Queue counters are not published in %s: %s\n", gPublication.folder,
                std::strerror(error));
    return;
  }
  gPublication.last = now;
  gPublication.published = true;
}

// Removes this process's published counters; the next processing call publishes them again.
void withdrawQueueStats() {
  if (!gPublication.published) return;
  char path[kStatsPathCapacity];
  statsPath(path, false);
  unlink(path);
  gPublication.published = false;
}

}  // namespace

void adb::keepForRetry() {
  queue::noteOutcome(queue::Outcome::kTransient);
  queue::count(queue::Counter::kRetried);
}

namespace adb::queue {

void count(Counter counter, uint32_t amount) {
  __atomic_fetch_add(counterOf(counter), amount, __ATOMIC_RELAXED);
}

Outcome lastOutcome() { return gOutcome; }
void noteOutcome(Outcome outcome) { gOutcome = outcome; }

void dropMalformed(const WriteRequestNode &node, const char *why) {
  ADB_LOG_FOR(kProcessing, RYX_LOG_ERROR, "[analyticsDB] Queue: dropped func[%d] Table[%s] Key[%s]: %s\n",
              node.functionId, node.tableName, orNull(node.fieldValues[0]), why);
  count(Counter::kDroppedMalformed);
  noteOutcome(Outcome::kRemoved);
  db_deleteQueueEntry();
}

int32_t append(const Request &request) {
  if (!fitsInNode(request, kAppend)) return 0;
  WriteRequestNode *node = filledNode(
      request, "[analyticsDB] - AddQueue - Memory allocation failed for Queue entry\n", kAppend);
  if (node == nullptr) return 0;
  ADB_LOG_FOR(kAppend, RYX_LOG_ERROR, "[analyticsDB] - Add Queue  func[%d]  Table[%s]\n",
              request.functionId, orNull(request.tableFamily));
  ++queueCount;
  if (lastNode == nullptr) {
    for (WriteRequestNode *walk = head(); walk != nullptr; walk = nextOf(walk)) lastNode = walk;
  }
  // The node is complete before it becomes reachable.
  if (lastNode != nullptr) {
    setNext(lastNode, node);
  } else {
    setHead(node);
  }
  lastNode = node;
  noteParked();
  ADB_LOG_FOR(kAppend, RYX_LOG_INFO, "[analyticsDB] Added Queue func[%d]  Table[%s]\n",
              request.functionId, orNull(request.tableFamily));
  return 1;
}

bool appendBusy(const Request &request) {
  adb::queue::Locked held;
  if (head() != nullptr) {
    if (queueCount >= DB_QUEUE_MAX_ENTRIES) {
      ADB_LOG_QUEUE_REFUSAL(kBusyAppend, request, true);
      return false;
    }
    if (append(request) == 0) {
      ADB_LOG_QUEUE_REFUSAL(kBusyAppend, request, false);
      return false;
    }
    return true;
  }
  if (!fitsInNode(request, kBusyAppend)) {
    count(Counter::kRefused);
    return false;
  }
  WriteRequestNode *node = filledNode(
      request, "[analyticsDB] - Add Queue,1stNode - Memory allocation failed for lock\n",
      kBusyAppend);
  if (node == nullptr) {
    ADB_LOG_QUEUE_REFUSAL(kBusyAppend, request, false);
    return false;
  }
  ADB_LOG_FOR(kBusyAppend, RYX_LOG_ERROR, "[analyticsDB] - Add Queue,1stNode func[%d] Table[%s]\n",
              request.functionId, orNull(request.tableFamily));
  lastNode = node;
  queueCount = 1;
  setHead(node);
  noteParked();
  return true;
}

}  // namespace adb::queue

extern "C" {

ADB_API int32_t db_queueInit(void) {
  int32_t result = pthread_mutex_init(&lock, nullptr);
  adb::queue::setHead(nullptr);
  // The stats folder is decided again, from the environment of now.
  withdrawQueueStats();
  gPublication.state = Publication::State::kUndecided;
  return result;
}

ADB_API int32_t db_initQueue(void) { return db_queueInit(); }

ADB_API void db_updateQueueEntry(int32_t functionId, char **values, int32_t count,
                                 const char *tableName) {
  adb::queue::appendBusy({functionId, values, count, count, tableName});
}

ADB_API int32_t db_updateQueue(int32_t functionId, char **values, int32_t count,
                               const char *tableName) {
  return adb::queue::append({functionId, values, count, count, tableName});
}

ADB_API int32_t queue_fillDetails(WriteRequestNode *node, int32_t functionId, char **values,
                                  int32_t count, const char *tableName) {
  if (node == nullptr) return DB_STATUS_FAILURE;
  return fill(*node, {functionId, values, count, count, tableName}, ADB_LOG_ORIGIN)
             ? DB_STATUS_SUCCESS
             : DB_STATUS_FAILURE;
}

ADB_API void freeNode(WriteRequestNode *node) {
  if (node == nullptr) return;
  freeValues(*node);
  std::free(node);
}

ADB_API void db_deleteQueueEntry(void) {
  if (adb::queue::head() == nullptr) {
    ADB_LOG_DEBUG("[analyticsDB] DeleteQueueEntry - Queue is empty\n");
    return;
  }
  adb::queue::Locked held;
  if (WriteRequestNode *node = adb::queue::head(); node != nullptr) {
    ADB_LOG_ERROR("[analyticsDB] DeleteQueueEntry func[%d] table[%s]\n", node->functionId,
                  node->tableName);
    unlinkHead();
  }
  if (adb::queue::head() == nullptr) {
    lastNode = nullptr;
    ADB_LOG_DEBUG("[analyticsDB] DeleteQueueEntry - Queue is empty,lastnode null\n");
  }
}

ADB_API void db_deleteQueue(int32_t status) {
  using adb::queue::Counter;
  using adb::queue::Outcome;
  if (status == DB_STATUS_SUCCESS) {
    adb::queue::noteOutcome(Outcome::kRemoved);
    adb::queue::count(Counter::kReplayed);
    db_deleteQueueEntry();
    return;
  }
  if (status == DB_STATUS_BUSY || status == DB_STATUS_QUEUE_CHECK) {
    adb::queue::noteOutcome(Outcome::kBusy);
    adb::queue::count(Counter::kRetried);
    return;
  }
  // A full disk, an I/O error, no memory or a file that would not open may be gone by the next
  // call: the request stays at the head, so that nothing behind it overtakes it.
  if (status == DB_STATUS_OPEN_FAILED ||
      (status == DB_STATUS_FAILURE && adb::lastFailureTransient())) {
    adb::queue::noteOutcome(Outcome::kTransient);
    adb::queue::count(Counter::kRetried);
    return;
  }
  // A constraint, a missing table or a statement SQLite rejects would fail again: dropped.
  ADB_LOG_ERROR("[analyticsDB] Delete Reason:status[%d]\n", status);
  if (WriteRequestNode *node = adb::queue::head(); node != nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Queue: dropped func[%d] Table[%s] Key[%s]\n", node->functionId,
                  node->tableName, adb::queue::orNull(node->fieldValues[0]));
  }
  adb::queue::noteOutcome(Outcome::kRemoved);
  adb::queue::count(Counter::kDroppedError);
  db_deleteQueueEntry();
}

// Replays from the head until the queue is empty, DB_QUEUE_MAX_PER_CALL attempts are made, the
// call's time budget is spent, or a replay meets an error that only time can clear. A head
// attempted DB_QUEUE_MAX_ATTEMPTS times has met a file locked for that many statement waits: the
// call then tries it once and, while it stays busy, reports the stall (3) at once; the first
// replay that gets through opens the queue again.
ADB_API int32_t db_processQueue(void) {
  if (adb::queue::head() == nullptr) return DB_STATUS_SUCCESS;
  const uint64_t started = adb::monotonicMillis();
  const uint32_t budget = adb::processingBudgetMs();
  int32_t attempt = 0;
  for (;;) {
    WriteRequestNode *node = adb::queue::head();
    if (node == nullptr || attempt == DB_QUEUE_MAX_PER_CALL) break;
    bool stalled = adb::queue::attempts() >= DB_QUEUE_MAX_ATTEMPTS;
    if (stalled && attempt > 0) break;
    if (attempt > 0 && budget > 0 && adb::monotonicMillis() - started >= budget) break;
    ADB_LOG_ERROR("[analyticsDB] Get Node [%d] func[%d] Table[%s]\n", attempt, node->functionId,
                  node->tableName);
    if (!adb::queue::replay(*node)) {
      ADB_LOG_ERROR("[analyticsDB] Get Node, Function is not supported in Queue\n");
      adb::queue::dropMalformed(*node, "unknown function");
    }
    // Counted after the replay, so after a removal (which resets the count) the next head
    // starts one attempt ahead. Kept so: the stall limit of a head counts from there.
    adb::queue::setAttempts(adb::queue::attempts() + 1);
    ++attempt;
    adb::queue::Outcome outcome = adb::queue::lastOutcome();
    if (outcome == adb::queue::Outcome::kTransient) break;
    if (stalled && outcome != adb::queue::Outcome::kRemoved) break;
  }
  if (adb::queue::attempts() >= DB_QUEUE_MAX_ATTEMPTS) {
    // Not reset here: the queue stays stalled until its head gets through or is removed.
    ADB_LOG_ERROR("[analyticsDB] Same node is getting processed for max number of time [%d]\n",
                  adb::queue::attempts());
    adb::queue::count(adb::queue::Counter::kStalls);
    return DB_STATUS_BUSY;
  }
  if (adb::queue::head() != nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Get Node, Processed Max[%d],Queue is Not Empty\n", attempt);
    return DB_STATUS_EMPTY;
  }
  adb::queue::setAttempts(0);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_processQueueEntry(void) {
  int32_t status = db_processQueue();
  publishQueueStats();
  return status;
}

ADB_API int32_t db_freeQueueEntries(void) {
  pthread_mutex_lock(&lock);
  while (adb::queue::head() != nullptr) {
    unlinkHead();
    adb::queue::count(adb::queue::Counter::kFreed);
  }
  lastNode = nullptr;
  int32_t result = pthread_mutex_unlock(&lock);
  withdrawQueueStats();
  return result;
}

ADB_API int32_t db_freeQueue(void) { return db_freeQueueEntries(); }

ADB_API void queue_printContents(void) {
  // Cleared once for the whole dump, not per node: every line repeats the values of the nodes
  // before it. Kept as it is; the dump is a debugging aid and its readers expect this shape.
  char fieldValues[kDumpBufferSize] = {};
  adb::TextBuilder dump(fieldValues, sizeof fieldValues);
  ADB_LOG_INFO("QUEUE DUMP\n");
  ADB_LOG_INFO("Qid|Tablename|Function|FieldCount|FieldValues");
  int32_t qid = 0;
  for (WriteRequestNode *node = adb::queue::head(); node != nullptr;
       node = adb::queue::nextOf(node), ++qid) {
    for (int32_t i = 0; i < adb::queue::valueSlots(*node); ++i) {
      // Appends are bounded, so the text stops at 2047 characters and this never fires; later
      // values are cut silently.
      if (dump.length() >= kDumpBufferSize) {
        ADB_LOG_INFO("[analyticsDB] Max buffer size to display fieldValues is reached\n");
      } else {
        dump.appendf("|%s", adb::queue::orNull(node->fieldValues[i]));
      }
    }
    ADB_LOG_INFO("\n%d|%s|%d|%d%s", qid, node->tableName, node->functionId, node->fieldCount,
                 dump.empty() ? "NULL" : dump.c_str());
  }
}

ADB_API void db_printQueue(void) { queue_printContents(); }

ADB_API int32_t db_getQueueStats(QueueStats *stats) {
  if (stats == nullptr) return DB_STATUS_FAILURE;
  auto load = [](const uint32_t &counter) { return __atomic_load_n(&counter, __ATOMIC_RELAXED); };
  adb::queue::Locked held;  // the length changes under the lock
  *stats = QueueStats{
      .parked = load(gStats.parked),
      .replayed = load(gStats.replayed),
      .retried = load(gStats.retried),
      .droppedError = load(gStats.droppedError),
      .droppedMalformed = load(gStats.droppedMalformed),
      .freed = load(gStats.freed),
      .refused = load(gStats.refused),
      .stalls = load(gStats.stalls),
      .length = static_cast<uint32_t>(queueCount),
      .peakLength = load(gStats.peakLength),
  };
  return DB_STATUS_SUCCESS;
}

ADB_API void printQueueNode(WriteRequestNode *node) {
  if (node == nullptr) return;
  ADB_LOG_DEBUG("\nFunction [%d], Table [%s], FieldCount [%d], ", node->functionId, node->tableName,
                node->fieldCount);
  for (int32_t i = 0; i < adb::queue::valueSlots(*node); ++i) {
    ADB_LOG_DEBUG("Field[%d]: [%s], ", i, adb::queue::orNull(node->fieldValues[i]));
  }
}

ADB_API int32_t db_findMatch(WriteRequestNode *node, int32_t functionId, char **values,
                             int32_t count) {
  if (node == nullptr || node->functionId != functionId || node->fieldCount != count) return 0;
  for (int32_t i = 0; i < adb::queue::valueSlots(*node); ++i) {
    const char *held = node->fieldValues[i];
    const char *given = values != nullptr ? values[i] : nullptr;
    if (given == nullptr) {
      if (held != nullptr) return 0;
    } else if (held == nullptr || std::strncmp(held, given, std::strlen(given)) != 0) {
      return 0;
    }
  }
  return 1;
}

}  // extern "C"
