/*
 * transaction.h - the caller's transaction on the shared connection, as the access core keeps it.
 *
 * SQLite rolls a transaction back on its own after some errors (a failed write or sync, a full
 * disk, no memory). The caller's later writes would then each be committed at once and its
 * COMMIT would find nothing to commit: half a transaction in the file. The access core remembers
 * that the caller began one, and refuses writes once SQLite has dropped it, until the caller's
 * COMMIT (also refused, so the caller learns of the loss) ends it. A transaction the caller ends
 * with a statement of its own (ROLLBACK, END) is simply over.
 */
#ifndef ANALYTICSDB_INTERNAL_TRANSACTION_H
#define ANALYTICSDB_INTERNAL_TRANSACTION_H

namespace adb {

// Called after every statement that succeeded, after the caller's COMMIT and after a close: the
// caller's transaction is open exactly while the shared connection has one.
void noteTransactionState();

}  // namespace adb

#endif
