/*
 * guards.h - owners of the things SQLite and malloc hand out, freed on every path.
 */
#ifndef ANALYTICSDB_INTERNAL_GUARDS_H
#define ANALYTICSDB_INTERNAL_GUARDS_H

#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>

#include "analyticsdb.h"
#include "internal/memory.h"

namespace adb {

// An error message from sqlite3_exec / sqlite3_get_table.
class SqliteMessage {
 public:
  SqliteMessage() = default;
  SqliteMessage(const SqliteMessage &) = delete;
  SqliteMessage &operator=(const SqliteMessage &) = delete;
  ~SqliteMessage() { sqlite3_free(text_); }
  char **out() { return &text_; }
  const char *get() const { return text_; }

 private:
  char *text_ = nullptr;
};

// A raw read result (cells, rows, columns) that is freed when it goes out of scope.
struct TableResult {
  TableResult() = default;
  TableResult(const TableResult &) = delete;
  TableResult &operator=(const TableResult &) = delete;
  ~TableResult() {
    if (cells != nullptr) db_freeResult(&cells);
  }
  char **cells = nullptr;
  int32_t rows = 0;
  int32_t columns = 0;
};

// A zero-filled heap block of bytes; null when empty or when the allocation failed.
class HeapText {
 public:
  HeapText() = default;
  explicit HeapText(size_t size) { allocate(size); }
  HeapText(const HeapText &) = delete;
  HeapText &operator=(const HeapText &) = delete;
  ~HeapText() { std::free(text_); }

  // Replaces the block with a new zero-filled one; false when it could not be allocated.
  bool allocate(size_t size) {
    std::free(text_);
    text_ = static_cast<char *>(adb::allocateZeroed(size, 1));
    size_ = text_ != nullptr ? size : 0;
    return text_ != nullptr;
  }
  explicit operator bool() const { return text_ != nullptr; }
  char *get() const { return text_; }
  size_t size() const { return size_; }

 private:
  char *text_ = nullptr;
  size_t size_ = 0;
};

}  // namespace adb

#endif
