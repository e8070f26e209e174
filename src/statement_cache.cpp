/*
 * statement_cache.cpp - compiled write statements kept on the connection (see
 * internal/statement_cache.h).
 *
 * A fixed table of slots, so the cache itself never allocates; the statements are SQLite's.
 * A statement is taken out of its slot while a caller runs it, so two threads never step the
 * same statement and no lock is held while SQLite works or while anything is logged.
 */
#include "internal/statement_cache.h"

#include <strings.h>

#include <atomic>
#include <cctype>
#include <cstring>
#include <mutex>

namespace {

struct Slot {
  sqlite3_stmt *statement = nullptr;
  sqlite3 *db = nullptr;
  uint32_t hash = 0;
  uint32_t bytes = 0;
  uint64_t lastUse = 0;
  int mark = 0;
};

struct Cache {
  std::mutex lock;
  Slot slots[adb::kStatementCacheMaxEntries];
  uint64_t clock = 0;
  // Raised by every clear: a statement checked out before it is not taken back.
  uint64_t generation = 0;
  uint32_t bytes = 0;
};

Cache gCache;
std::atomic<bool> gEnabled{true};

// The generation each checked-out statement left under, by statement; few are out at once.
constexpr int kMaxOut = 8;
struct Out {
  sqlite3_stmt *statement;
  uint64_t generation;
  uint32_t hash;
  int mark;
};
Out gOut[kMaxOut];

uint32_t hashOf(const char *text) {
  uint32_t hash = 2166136261u;  // FNV-1a
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != 0; ++p) {
    hash = (hash ^ *p) * 16777619u;
  }
  return hash;
}

void release(Cache &cache, Slot &slot) {
  sqlite3_finalize(slot.statement);
  cache.bytes -= slot.bytes;
  slot = Slot{};
}

bool noteOut(sqlite3_stmt *statement, uint64_t generation, uint32_t hash, int mark) {
  for (Out &out : gOut) {
    if (out.statement == nullptr) {
      out = {statement, generation, hash, mark};
      return true;
    }
  }
  return false;
}

// How `statement` was checked out, and forgets it; false when unknown.
bool takeOut(sqlite3_stmt *statement, Out *taken) {
  for (Out &out : gOut) {
    if (out.statement == statement) {
      *taken = out;
      out = {nullptr, 0, 0, 0};
      return true;
    }
  }
  return false;
}

bool startsWithWord(const char *text, const char *word) {
  size_t length = std::strlen(word);
  return strncasecmp(text, word, length) == 0 &&
         !std::isalnum(static_cast<unsigned char>(text[length]));
}

}  // namespace

namespace adb {

sqlite3_stmt *checkOutStatement(sqlite3 *db, const char *sql, StatementAdmission admit,
                                const void *context, int *mark) {
  *mark = 0;
  if (db == nullptr || sql == nullptr) return nullptr;
  uint32_t hash = hashOf(sql);
  uint64_t generation = 0;
  {
    std::lock_guard<std::mutex> guard(gCache.lock);
    generation = gCache.generation;
    for (Slot &slot : gCache.slots) {
      if (slot.statement != nullptr && slot.hash == hash && slot.db == db &&
          std::strcmp(sqlite3_sql(slot.statement), sql) == 0) {
        sqlite3_stmt *statement = slot.statement;
        if (!noteOut(statement, generation, hash, slot.mark)) return nullptr;
        *mark = slot.mark;
        gCache.bytes -= slot.bytes;
        slot = Slot{};
        return statement;
      }
    }
  }
  int admitted = admit != nullptr ? admit(db, context) : 0;
  if (admitted < 0) return nullptr;
  sqlite3_stmt *statement = nullptr;
  if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
          SQLITE_OK ||
      statement == nullptr) {
    sqlite3_finalize(statement);
    return nullptr;
  }
  std::lock_guard<std::mutex> guard(gCache.lock);
  if (!noteOut(statement, generation, hash, admitted)) {
    sqlite3_finalize(statement);
    return nullptr;
  }
  *mark = admitted;
  return statement;
}

void checkInStatement(sqlite3_stmt *statement, bool keep) {
  if (statement == nullptr) return;
  std::lock_guard<std::mutex> guard(gCache.lock);
  Out taken{};
  bool known = takeOut(statement, &taken);
  uint32_t bytes =
      static_cast<uint32_t>(sqlite3_stmt_status(statement, SQLITE_STMTSTATUS_MEMUSED, 0));
  if (!known || !keep || taken.generation != gCache.generation || !gEnabled ||
      bytes > kStatementCacheMaxBytes) {
    sqlite3_finalize(statement);
    return;
  }
  const char *sql = sqlite3_sql(statement);
  uint32_t hash = taken.hash;
  sqlite3 *db = sqlite3_db_handle(statement);
  Slot *free = nullptr;
  for (Slot &slot : gCache.slots) {
    if (slot.statement == nullptr) {
      if (free == nullptr) free = &slot;
    } else if (slot.hash == hash && slot.db == db && std::strcmp(sqlite3_sql(slot.statement), sql) == 0) {
      // Another thread compiled the same shape meanwhile: one is enough.
      sqlite3_finalize(statement);
      return;
    }
  }
  // Make room: least recently used first, until both bounds hold with the newcomer.
  while (free == nullptr || gCache.bytes + bytes > kStatementCacheMaxBytes) {
    Slot *oldest = nullptr;
    for (Slot &slot : gCache.slots) {
      if (slot.statement != nullptr && (oldest == nullptr || slot.lastUse < oldest->lastUse)) {
        oldest = &slot;
      }
    }
    if (oldest == nullptr) break;
    release(gCache, *oldest);
    if (free == nullptr) free = oldest;
  }
  *free = Slot{statement, db, hash, bytes, ++gCache.clock, taken.mark};
  gCache.bytes += bytes;
}

void clearStatementCache() {
  std::lock_guard<std::mutex> guard(gCache.lock);
  ++gCache.generation;
  for (Slot &slot : gCache.slots) {
    if (slot.statement != nullptr) release(gCache, slot);
  }
}

bool statementCacheEnabled() { return gEnabled; }

void setStatementCacheEnabled(bool enabled) {
  gEnabled = enabled;
  if (!enabled) clearStatementCache();
}

bool mayChangeSchema(const char *sql) {
  if (sql == nullptr) return false;
  while (std::isspace(static_cast<unsigned char>(*sql))) ++sql;
  // Several statements in one text: any of them may be DDL.
  if (std::strchr(sql, ';') != nullptr) return true;
  static constexpr const char *kPlain[] = {"INSERT", "UPDATE", "DELETE", "SELECT", "REPLACE",
                                           "BEGIN",  "COMMIT", "END",    "ROLLBACK"};
  for (const char *word : kPlain) {
    if (startsWithWord(sql, word)) return false;
  }
  return true;
}

StatementCacheFigures statementCacheFigures() {
  std::lock_guard<std::mutex> guard(gCache.lock);
  StatementCacheFigures figures{0, gCache.bytes};
  for (const Slot &slot : gCache.slots) {
    if (slot.statement != nullptr) ++figures.entries;
  }
  return figures;
}

}  // namespace adb
