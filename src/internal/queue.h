/*
 * queue.h - what the two halves of the deferred write queue share: the FIFO (db_queue.cpp) and
 * the gate with the dispatch of function ids to replays (db_manage_queue.cpp).
 *
 * The queue's state is the plain C globals of the public header. Appends and removals change
 * them under `lock`; the processing loop, the gate's first test and the dumps peek at them
 * without it. Every access that can meet another thread without the lock goes through the
 * helpers below as an atomic load or store, so that a node is published complete before
 * another thread can reach it.
 */
#ifndef ANALYTICSDB_INTERNAL_QUEUE_H
#define ANALYTICSDB_INTERNAL_QUEUE_H

#include <pthread.h>

#include <cstdint>

#include "analyticsdb.h"
#include "internal/log.h"

namespace adb::queue {

// A request on its way into the queue.
struct Request {
  int32_t functionId;
  char **values;          // may be null
  int32_t valueCount;     // values the caller's array holds: the ones a node copies
  int32_t recordedCount;  // the field count the node records
  const char *tableFamily;
};

inline WriteRequestNode *head() { return __atomic_load_n(&writeRequestQueue, __ATOMIC_ACQUIRE); }
inline void setHead(WriteRequestNode *node) {
  __atomic_store_n(&writeRequestQueue, node, __ATOMIC_RELEASE);
}
inline WriteRequestNode *nextOf(const WriteRequestNode *node) {
  return __atomic_load_n(&node->next, __ATOMIC_ACQUIRE);
}
inline void setNext(WriteRequestNode *node, WriteRequestNode *next) {
  __atomic_store_n(&node->next, next, __ATOMIC_RELEASE);
}
inline int32_t attempts() { return __atomic_load_n(&queueProcessCount, __ATOMIC_RELAXED); }
inline void setAttempts(int32_t count) {
  __atomic_store_n(&queueProcessCount, count, __ATOMIC_RELAXED);
}

// The slot default fills record the number of columns they write, which for a single slot is 2,
// yet their replay needs all three values they were given (MAC, first and last slot).
constexpr int32_t kDefaultFillValues = 3;
inline bool isDefaultFill(int32_t functionId) {
  return functionId == 12 || functionId == 15 || functionId == 18;
}

// The value slots of a node that can hold a copy: the recorded count (three at least for a
// default fill), but never more slots than the node has. Slots past the values actually copied
// are null (nodes are zero-filled).
inline int32_t valueSlots(const WriteRequestNode &node) {
  int32_t slots = node.fieldCount;
  if (isDefaultFill(node.functionId) && slots < kDefaultFillValues) slots = kDefaultFillValues;
  if (slots <= 0) return 0;
  return slots < DB_QUEUE_FIELD_SLOTS ? slots : DB_QUEUE_FIELD_SLOTS;
}

// The key of a request or node for log lines: its first value, or "NULL".
inline const char *keyOf(char **values, int32_t count) {
  return (values != nullptr && count > 0 && values[0] != nullptr) ? values[0] : "NULL";
}

// The counters of db_getQueueStats, each changed with one atomic add.
enum class Counter : uint8_t {
  kParked, kReplayed, kRetried, kDroppedError, kDroppedMalformed, kFreed, kRefused, kStalls
};
void count(Counter counter, uint32_t amount = 1);

// What the last replay told db_deleteQueue, for the processing loop.
enum class Outcome : uint8_t {
  kNone,       // nothing reported: the replay could not be built from the node
  kRemoved,    // written, or dropped for an error a retry cannot fix
  kBusy,       // the file stayed busy: kept
  kTransient,  // full disk, I/O error, no memory: kept, retried by a later call
};
Outcome lastOutcome();
void noteOutcome(Outcome outcome);

// Holds `lock` for a scope: appends and removals.
class Locked {
 public:
  Locked() { pthread_mutex_lock(&lock); }
  ~Locked() { pthread_mutex_unlock(&lock); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;
};

inline const char *orNull(const char *text) { return text != nullptr ? text : "NULL"; }

// Appends the request behind the tail; `lock` must be held. 1 when a node was added, else 0.
int32_t append(const Request &request);

// The busy append: makes the first node or appends behind the tail, under `lock`. False (and
// one error line naming the request) when the queue could not keep it.
bool appendBusy(const Request &request);

// Logs, in one line with its key and in the name of `origin`, that a request was neither
// written nor parked (the queue is full, or no memory for a node), and counts it. A macro so
// that the line's module and number are those of the function that refused it. The full-queue
// line begins with the queue's MAX message, so readers that look for it still find it.
#define ADB_LOG_QUEUE_REFUSAL(origin, request, queueFull)                                       \
  do {                                                                                         \
    adb::queue::count(adb::queue::Counter::kRefused);                                          \
    if (queueFull) {                                                                           \
      ADB_LOG_FOR(origin, RYX_LOG_ERROR,                                                       \
                  "Queue has MAX number of entries. Queue count [%d] MAX value [%d] func[%d] " \
                  "Table[%s] Key[%s]: not written, not parked\n",                              \
                  queueCount, DB_QUEUE_MAX_ENTRIES, (request).functionId,                      \
                  adb::queue::orNull((request).tableFamily),                                   \
                  adb::queue::keyOf((request).values, (request).valueCount));                  \
    } else {                                                                                   \
      ADB_LOG_FOR(origin, RYX_LOG_ERROR,                                                       \
                  "[analyticsDB] Queue: func[%d] Table[%s] Key[%s]: no memory for a queue "    \
                  "entry, not written, not parked\n",                                          \
                  (request).functionId, adb::queue::orNull((request).tableFamily),             \
                  adb::queue::keyOf((request).values, (request).valueCount));                  \
    }                                                                                          \
  } while (0)

// Drops the head `node`, whose replay cannot be built from its values, with a line naming its
// key and `why`, as the processing function's: no retry can mend it.
void dropMalformed(const WriteRequestNode &node, const char *why);

// True when a request for the same table family and key waits in the queue (takes `lock`).
bool keyWaits(const Request &request);

// Runs the replay of the head node by its function id. The replay reports its outcome to
// db_deleteQueue, which may free the node: `head` must not be used afterwards. False, with
// nothing done, when the function id has no replay.
bool replay(WriteRequestNode &head);

}  // namespace adb::queue

#endif
