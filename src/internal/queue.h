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

// The value slots of a node that can hold a copy: the recorded count, but never more slots than
// the node has. Slots past the values actually copied are null (nodes are zero-filled).
inline int32_t valueSlots(const WriteRequestNode &node) {
  if (node.fieldCount <= 0) return 0;
  return node.fieldCount < DB_QUEUE_FIELD_SLOTS ? node.fieldCount : DB_QUEUE_FIELD_SLOTS;
}

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

// The busy append: makes the first node or appends behind the tail, under `lock`. A request
// refused by the limits is lost, with an error line.
void appendBusy(const Request &request);

// Runs the replay of the head node by its function id. The replay reports its outcome to
// db_deleteQueue, which may free the node: `head` must not be used afterwards. False, with
// nothing done, when the function id has no replay.
bool replay(WriteRequestNode &head);

}  // namespace adb::queue

#endif
