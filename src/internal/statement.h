/*
 * statement.h - pieces of SQL text shared by the modules that compose statements.
 *
 * The library's whole type system for values is the column name: a column whose name contains
 * "_S" is a text column, written as a quoted, quote-escaped literal; every other value is written
 * bare, as the caller's decimal text.
 */
#ifndef ANALYTICSDB_INTERNAL_STATEMENT_H
#define ANALYTICSDB_INTERNAL_STATEMENT_H

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

}  // namespace adb

#endif
