/*
 * statement_cache.h - compiled write statements kept on the connection.
 *
 * Compiling an INSERT or UPDATE of a wide day table costs far more than running it, and the
 * write path runs the same few statement shapes (table, columns, INSERT or UPDATE) over and
 * over with new values. The cache keeps one compiled statement per shape, keyed by its
 * parameterised text, up to a bound on the number of statements and on the memory SQLite
 * reports for them; the least recently used one goes first. It is emptied when the connection
 * closes and whenever a statement may have changed the schema.
 */
#ifndef ANALYTICSDB_INTERNAL_STATEMENT_CACHE_H
#define ANALYTICSDB_INTERNAL_STATEMENT_CACHE_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>

namespace adb {

// At most this many statements and this many bytes of them are kept. One statement of a
// 289-column day table takes 26-67 KB, and a tick uses six of them plus six small ones.
constexpr uint32_t kStatementCacheMaxEntries = 24;
constexpr uint32_t kStatementCacheMaxBytes = 768u * 1024u;

// Asked before a statement is compiled for the cache: a negative answer keeps it out (the
// caller then takes the text path); any other is kept with the statement as its mark.
using StatementAdmission = int (*)(sqlite3 *db, const void *context);

// Takes the compiled statement of `sql` out of the cache, compiling it on a miss (after
// `admit`, when given, agreed; its answer goes to `mark`, 0 without `admit`). Null when it
// cannot be had; nothing is logged then. The caller owns the statement until it hands it back
// with checkInStatement.
sqlite3_stmt *checkOutStatement(sqlite3 *db, const char *sql, StatementAdmission admit,
                                const void *context, int *mark);

// Hands back a statement that is reset and unbound. It is kept unless `keep` is false, the
// cache was emptied while the statement was out, or it is larger than the cache's bound; then
// it is finalised.
void checkInStatement(sqlite3_stmt *statement, bool keep);

// Finalises every kept statement. Statements out at the time are finalised when handed back.
void clearStatementCache();

bool statementCacheEnabled();
void setStatementCacheEnabled(bool enabled);

// True when running `sql` may change the schema (or run more than one statement): the cache
// is emptied before it runs.
bool mayChangeSchema(const char *sql);

struct StatementCacheFigures {
  uint32_t entries;
  uint32_t bytes;
};
StatementCacheFigures statementCacheFigures();

}  // namespace adb

#endif
