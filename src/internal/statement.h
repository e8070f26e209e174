/*
 * statement.h - pieces of SQL text shared by the modules that compose statements.
 *
 * The library's whole type system for values is the column name: a column whose name contains
 * "_S" is a text column, written as a quoted, quote-escaped literal; every other value is written
 * bare, as the caller's decimal text.
 */
#ifndef ANALYTICSDB_INTERNAL_STATEMENT_H
#define ANALYTICSDB_INTERNAL_STATEMENT_H

#include <cstdint>
#include <cstring>

#include "internal/text_builder.h"

namespace adb {

inline bool isTextColumn(const char *column) {
  return column != nullptr && std::strstr(column, "_S") != nullptr;
}

// Appends `value` for `column`: 'value' (escaped) for a text column, the bare value otherwise.
void appendColumnValue(TextBuilder &out, const char *column, const char *value);

// Appends "column" "operator" and the value as above: the condition of a DELETE, UPDATE or
// SELECT. The operator carries its own blanks (" LIKE ").
void appendCondition(TextBuilder &out, const char *column, const char *matchOperator,
                     const char *value);

// The text of a write statement, composed only when something needs it: a log line, or the
// text path. Null when it could not be composed (no memory).
class StatementText {
 public:
  virtual const char *get() = 0;

 protected:
  ~StatementText() = default;
};

// One value of a write by compiled statement: text (a text column's value, bound as it is,
// quotes and all) or an integer.
struct BoundValue {
  const char *text;  // null: `number`
  int64_t number;
  uint32_t length;
};

// A write by compiled statement: the parameterised statement (which is also the cache's key)
// and its values in parameter order. `keyTable` and `keyColumn` are set when the statement
// matches the key with "=" where the text matches it with LIKE: the same rows only on a key
// column compared without case, which is checked before the statement is compiled.
struct BoundWrite {
  const char *sql;
  const BoundValue *values;
  int32_t count;
  const char *keyTable;
  const char *keyColumn;
};

// Runs `write` with the access core's checks, log lines and profiling, exactly as db_write
// would run `text`. False when it did not run (statement cache off, no connection, a
// transaction SQLite rolled back, the statement could not be compiled or bound): then nothing
// was run or logged and the caller takes the text path.
bool writeCompiled(const BoundWrite &write, StatementText &text, int32_t *status);

// The insert-or-update of a row whose key exists: the INSERT could only be refused on the key
// and would change nothing, a refusal logged at debug level alone, so while debug lines and
// profiling are off only the UPDATE (`update`, keyed; `text` its text) runs. True with its
// status when it updated the row or failed in a way that may have cost the transaction (logged
// as the UPDATE's failure); false, with nothing changed, when the ordinary INSERT and UPDATE
// must run.
bool updateExistingRow(const BoundWrite &update, StatementText &text, int32_t *status);

}  // namespace adb

#endif
