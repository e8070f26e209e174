/*
 * connection.h - what the queue and the gate need to know about the shared connection: whether
 * the last failure on this thread is worth a retry, how long a processing call may still wait,
 * and the caller's transaction.
 */
#ifndef ANALYTICSDB_INTERNAL_CONNECTION_H
#define ANALYTICSDB_INTERNAL_CONNECTION_H

#include <cstdint>

namespace adb {

// True when the last statement this thread ran failed for a reason that a later retry can
// clear: a busy or locked file, a full disk, an I/O error, no memory, a file that could not be
// opened. Constraints, missing tables and bad SQL are not.
bool lastFailureTransient();

// Milliseconds on a monotonic clock, for the processing budget.
uint64_t monotonicMillis();
// How long one processing call may go on starting replays (0: no budget, one pass).
uint32_t processingBudgetMs();
// How long one statement waits for a busy file (0: it fails at once).
uint32_t statementWaitMs();

// True while the caller's BEGIN ... COMMIT is open on the shared connection.
bool callerTransactionOpen();
// A gated write that cannot join the caller's open transaction (the file stays busy, or an
// earlier request for its key waits in the queue): the transaction is rolled back now, so that
// its other writes are not committed without this one, and later writes and the caller's
// COMMIT are refused with status 1. Logs one error line; returns 1.
int32_t abandonTransaction(int32_t functionId, const char *tableFamily, const char *key);

}  // namespace adb

#endif
