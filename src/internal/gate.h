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

namespace adb {

// The gate with the number of values the caller's array really holds (`valueCount`, the values
// copied into a queue node) kept apart from the count the node records (`recordedCount`). They
// differ only for the slot default fills, whose recorded count is the number of columns written
// while their replay needs just the three values they were given.
int32_t manageQueue(int32_t status, int32_t functionId, char **values, int32_t valueCount,
                    int32_t recordedCount, const char *tableFamily);

// Runs `statement` (a callable returning a status) between the two gate calls.
template <typename Statement>
int32_t throughGate(int32_t functionId, const char *tableFamily, char **values, int32_t valueCount,
                    int32_t recordedCount, Statement &&statement) {
  if (manageQueue(DB_STATUS_QUEUE_CHECK, functionId, values, valueCount, recordedCount,
                  tableFamily) != 0) {
    return DB_STATUS_BUSY;
  }
  int32_t status = statement();
  manageQueue(status, functionId, values, valueCount, recordedCount, tableFamily);
  return status;
}

template <typename Statement>
int32_t throughGate(int32_t functionId, const char *tableFamily, char **values, int32_t count,
                    Statement &&statement) {
  return throughGate(functionId, tableFamily, values, count, count,
                     static_cast<Statement &&>(statement));
}

// What every replay does with its statement's status: report it to the queue (which removes the
// head unless the status is 3) and return it.
inline int32_t finishReplay(int32_t status) {
  db_deleteQueue(status);
  return status;
}

}  // namespace adb

#endif
