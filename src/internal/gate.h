/*
 * gate.h - how a write, delete or drop passes the deferred write queue.
 *
 * Every gated operation asks the gate before it touches the database (a request for the same
 * table family and key may be waiting: then this one is queued behind it and the caller gets 3),
 * runs its statement, and hands the statement's status back to the gate (3, busy, parks the
 * request for a later replay).
 */
#ifndef ANALYTICSDB_INTERNAL_GATE_H
#define ANALYTICSDB_INTERNAL_GATE_H

#include <cstdint>

#include "analyticsdb.h"
#include "internal/connection.h"

namespace adb {

// What the gate answers before a statement.
constexpr int32_t kGateWrite = 0;    // write directly
constexpr int32_t kGateQueued = 1;   // queued behind a waiting request for the same key
constexpr int32_t kGateRefused = 2;  // a request for the key waits but the queue cannot keep this one
// After a statement: the busy request could not be parked.
constexpr int32_t kGateNotParked = 1;

// True when a request for the same table family and key waits in the queue.
bool requestWaits(int32_t functionId, char **values, int32_t valueCount, const char *tableFamily);

// The gate with the number of values the caller's array really holds (`valueCount`, the values
// copied into a queue node) kept apart from the count the node records (`recordedCount`). They
// differ only for the slot default fills, whose recorded count is the number of columns written
// while their replay needs just the three values they were given.
int32_t manageQueue(int32_t status, int32_t functionId, char **values, int32_t valueCount,
                    int32_t recordedCount, const char *tableFamily);

// Runs `statement` (a callable returning a status) between the two gate calls. Inside the
// caller's transaction nothing is parked: a parked write would be replayed outside it, and its
// COMMIT would report success for part of the caller's writes. A write that cannot join the
// transaction rolls it back instead (see abandonTransaction).
template <typename Statement>
int32_t throughGate(int32_t functionId, const char *tableFamily, char **values, int32_t valueCount,
                    int32_t recordedCount, Statement &&statement) {
  const char *key = (values != nullptr && valueCount > 0) ? values[0] : nullptr;
  if (callerTransactionOpen()) {
    if (requestWaits(functionId, values, valueCount, tableFamily)) {
      return abandonTransaction(functionId, tableFamily, key);
    }
    int32_t status = statement();
    if (status == DB_STATUS_BUSY) return abandonTransaction(functionId, tableFamily, key);
    return status;
  }
  int32_t gate = manageQueue(DB_STATUS_QUEUE_CHECK, functionId, values, valueCount,
                             recordedCount, tableFamily);
  if (gate == kGateQueued) return DB_STATUS_BUSY;
  if (gate == kGateRefused) return DB_STATUS_QUEUE_FULL;
  int32_t status = statement();
  if (manageQueue(status, functionId, values, valueCount, recordedCount, tableFamily) ==
      kGateNotParked) {
    return DB_STATUS_QUEUE_FULL;
  }
  return status;
}

template <typename Statement>
int32_t throughGate(int32_t functionId, const char *tableFamily, char **values, int32_t count,
                    Statement &&statement) {
  return throughGate(functionId, tableFamily, values, count, count,
                     static_cast<Statement &&>(statement));
}

// A replay that could not even be attempted for want of memory: its request stays at the head
// for a later call. (A replay that reports nothing at all is taken as unreplayable and dropped.)
void keepForRetry();

// What every replay does with its statement's status: report it to the queue (which removes the
// head unless the status is 3) and return it.
inline int32_t finishReplay(int32_t status) {
  db_deleteQueue(status);
  return status;
}

}  // namespace adb

#endif
