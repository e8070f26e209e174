/*
 * db_query.cpp - the SQL statement builder.
 *
 * Composes CREATE TABLE and ALTER TABLE from parallel schema arrays, INSERT and UPDATE from
 * parallel arrays of column names and value strings, DELETE and DROP from a table and one
 * condition, and SELECT piece by piece in a caller's fixed buffer; brackets writes in BEGIN and
 * COMMIT. All text goes through the bounded TextBuilder; statements run through db_write and
 * db_read of the access core.
 */
#include <cstdlib>
#include <cstring>

#include "analyticsdb.h"
#include "internal/guards.h"
#include "internal/log.h"
#include "internal/statement.h"
#include "internal/statement_cache.h"
#include "internal/text_builder.h"
#include "internal/transaction.h"

ADB_LOG_MODULE("db_query")

extern "C" {
ADB_API uint8_t alterSchema = 0;
}

namespace {

// Buffer sizes of the statement composition.
constexpr size_t kEscapedValueCapacity = 1024;  // one value after quote doubling
constexpr size_t kMaxValueBeforeEscaping = 1022;
constexpr size_t kInsertListCapacity = 3000;  // column list, and value list, of an INSERT
constexpr size_t kUpdateListCapacity = 4000;  // assignment list of an UPDATE
constexpr size_t kInsertExtra = 126;          // statement allocation beyond its three parts
constexpr size_t kUpdateExtra = 125;
constexpr size_t kInsertTextExtra = 26;  // text limit beyond the parts
constexpr size_t kUpdateTextExtra = 25;
constexpr size_t kColumnPieceCapacity = 256;  // one measured column of a CREATE
constexpr size_t kForeignKeysCapacity = 256;  // all foreign-key clauses of a CREATE
constexpr size_t kColumnListExtra = 100;
constexpr size_t kCreateExtra = 31;
constexpr size_t kAlterCapacity = 1024;
constexpr size_t kTableInfoCapacity = 256;
constexpr size_t kDeleteTextExtra = 22;
constexpr size_t kDeleteExtra = 100;
constexpr size_t kDropExtra = 23;
constexpr size_t kJoinKindCompared = 7;  // " USING "
constexpr size_t kSchemaNamePrefix = 4;  // header cell "name" of a table_info result

bool isBlank(const char *text) { return text == nullptr || text[0] == '\0'; }

// The body of a text literal: the value itself, or, when it holds a quote, the value escaped
// through db_frameSplString (which also cuts it to its bound).
void appendLiteralBody(adb::TextBuilder &out, const char *value) {
  if (!adb::hasQuote(value)) {
    out.append(value);
    return;
  }
  char escaped[kEscapedValueCapacity] = {};
  db_frameSplString(value, escaped);
  out.appendKeepingQuotePairs(escaped);
}

// One column of a CREATE statement: name, blank, type, blank and the constraint if any.
void appendColumnDefinition(adb::TextBuilder &out, const char *name, const char *type,
                            const char *constraint) {
  out.appendf("%s %s ", name, type);
  if (!isBlank(constraint)) out.append(constraint);
}

const char *constraintAt(char **constraints, int32_t index) {
  return constraints != nullptr ? constraints[index] : nullptr;
}

// Adds the listed columns that the table lacks; `existing` is the table_info result, or null
// when it could not be read (then every column is tried). Returns 3 when an addition met a busy
// database; a missing table (5) stops the additions.
int32_t addMissingColumns(const char *tableName, char **fieldNames, char **fieldTypes,
                          char **constraints, int32_t fieldCount, const adb::TableResult *existing) {
  bool busy = false;
  for (int32_t i = 0; i < fieldCount; ++i) {
    if (existing != nullptr && db_checkFieldSchemaExist(fieldNames[i], existing->cells,
                                                        existing->rows, existing->columns)) {
      continue;
    }
    int32_t status =
        db_addField(tableName, fieldNames[i], fieldTypes[i], constraintAt(constraints, i));
    if (status == DB_STATUS_BUSY) busy = true;
    if (status == DB_STATUS_NO_TABLE) break;
  }
  return busy ? DB_STATUS_BUSY : DB_STATUS_SUCCESS;
}


/* ---- the text of INSERT and UPDATE, and their compiled shapes ---- */

// The INSERT text of a row: "INSERT INTO  <table> (<columns>)  VALUES(<values>)", NULL names and
// values skipped. Composed on first use.
class InsertText final : public adb::StatementText {
 public:
  InsertText(const char *table, char **names, char **values, int32_t count)
      : table_(table), names_(names), values_(values), count_(count) {}

  // False when the statement's buffer cannot be had.
  bool compose() {
    if (statement_) return true;
    adb::FixedText<kInsertListCapacity> columns;
    adb::FixedText<kInsertListCapacity> values;
    for (int32_t i = 0; i < count_; ++i) {
      if (names_[i] == nullptr || values_[i] == nullptr) continue;
      if (!columns.empty()) columns.append(",");
      if (!values.empty()) values.append(",");
      columns.append(names_[i]);
      adb::appendColumnValue(values, names_[i], values_[i]);
    }
    size_t parts = std::strlen(table_) + columns.length() + values.length();
    if (!statement_.allocate(parts + kInsertExtra)) return false;
    adb::TextBuilder(statement_.get(), parts + kInsertTextExtra + 1)
        .appendf("%s %s (%s) %s%s)", "INSERT INTO ", table_, columns.c_str(), " VALUES(",
                 values.c_str());
    return true;
  }
  const char *get() override { return compose() ? statement_.get() : nullptr; }

 private:
  const char *table_;
  char **names_;
  char **values_;
  int32_t count_;
  adb::HeapText statement_;
};

// The UPDATE text of a row: every named column but the first occurrence of the key is
// assigned, the key's value is the condition. Composed on first use.
class UpdateText final : public adb::StatementText {
 public:
  enum class Outcome { kComposed, kNoConditionMemory, kNoCondition, kNoMemory };

  UpdateText(const char *table, const char *key, const char *matchOperator, char **names,
             char **values, int32_t count)
      : table_(table), key_(key), operator_(matchOperator), names_(names), values_(values),
        count_(count) {}

  Outcome compose() {
    if (statement_) return Outcome::kComposed;
    adb::FixedText<kUpdateListCapacity> assignments;
    adb::HeapText condition;
    size_t conditionLength = 0;
    for (int32_t i = 0; i < count_; ++i) {
      const char *name = names_[i];
      const char *value = values_[i];
      if (name == nullptr || value == nullptr) continue;
      if (!condition && std::strcmp(name, key_) == 0) {
        // Sized from the unescaped key: a key holding quotes loses its end and SQLite rejects it.
        size_t size = std::strlen(name) + std::strlen(value) + 4 + std::strlen(operator_);
        if (!condition.allocate(size)) {
          failedField_ = i;
          return Outcome::kNoConditionMemory;
        }
        adb::TextBuilder text(condition.get(), size);
        text.append(" ");
        adb::appendCondition(text, name, operator_, value);
        conditionLength = text.length();
        continue;
      }
      if (!assignments.empty()) assignments.append(",");
      assignments.append(name).append("=");
      adb::appendColumnValue(assignments, name, value);
    }
    if (!condition) return Outcome::kNoCondition;
    size_t parts = std::strlen(table_) + assignments.length() + conditionLength;
    if (!statement_.allocate(parts + kUpdateExtra)) return Outcome::kNoMemory;
    adb::TextBuilder(statement_.get(), parts + kUpdateTextExtra + 1)
        .appendf("%s %s %s %s %s %s", "UPDATE ", table_, " SET ", assignments.c_str(), " WHERE ",
                 condition.get());
    return Outcome::kComposed;
  }
  const char *get() override {
    return compose() == Outcome::kComposed ? statement_.get() : nullptr;
  }
  int32_t failedField() const { return failedField_; }

 private:
  const char *table_;
  const char *key_;
  const char *operator_;
  char **names_;
  char **values_;
  int32_t count_;
  int32_t failedField_ = 0;
  adb::HeapText statement_;
};

constexpr size_t kShapeCapacity = 4608;    // a parameterised write of a day of slots
constexpr int32_t kMaxBoundValues = 300;   // the widest write: the key and a day of slots
constexpr size_t kMaxPlainDigits = 18;     // any such decimal fits a 64-bit integer
constexpr const char kLikeOperator[] = " LIKE ";

// Names go into the compiled statement as they stand, as into the text; only plain ones, so
// that both texts are sure to name the same thing and hold one statement.
bool isPlainName(const char *name) {
  if (name == nullptr || *name == '\0') return false;
  for (const char *p = name; *p != '\0'; ++p) {
    bool plain = (*p >= 'A' && *p <= 'Z') || (*p >= 'a' && *p <= 'z') ||
                 (*p >= '0' && *p <= '9') || *p == '_';
    if (!plain) return false;
  }
  return true;
}

// Whether `value` of `column` can be bound with the very meaning of its text literal: a text
// column's value that the text path writes whole (it cuts long values that hold quotes), or a
// plain decimal integer, which SQLite reads as the same integer. Sets the bound value and the
// length of the literal the text path would write.
bool bindValue(const char *column, const char *value, adb::BoundValue &out, size_t &literal) {
  size_t length = std::strlen(value);
  if (length == 0) return false;
  if (adb::isTextColumn(column)) {
    size_t quotes = 0;
    for (const char *p = value; *p != '\0'; ++p) quotes += *p == '\'' ? 1 : 0;
    if (quotes > 0 &&
        (length > kMaxValueBeforeEscaping || length + quotes >= kEscapedValueCapacity)) {
      return false;
    }
    out = {value, 0, static_cast<uint32_t>(length)};
    literal = length + quotes + 2;
    return true;
  }
  const char *digits = value[0] == '-' ? value + 1 : value;
  size_t count = std::strlen(digits);
  if (count == 0 || count > kMaxPlainDigits) return false;
  int64_t number = 0;
  for (const char *p = digits; *p != '\0'; ++p) {
    if (*p < '0' || *p > '9') return false;
    number = number * 10 + (*p - '0');
  }
  out = {nullptr, digits != value ? -number : number, 0};
  literal = length;
  return true;
}

// A write as a parameterised statement and its values, when the text path's statement would
// mean exactly the same; otherwise (and while the statement cache is off) the text path runs.
class ShapedWrite {
 public:
  // "INSERT INTO <table> (<columns>) VALUES(?,...)".
  bool ofInsert(const char *table, char **names, char **values, int32_t count) {
    if (!adb::statementCacheEnabled() || !isPlainName(table)) return false;
    sql_.append("INSERT INTO ").append(table).append(" (");
    size_t columnsLength = 0;
    size_t valuesLength = 0;
    for (int32_t i = 0; i < count; ++i) {
      if (names[i] == nullptr || values[i] == nullptr) continue;
      size_t literal = 0;
      if (count_ == kMaxBoundValues || !isPlainName(names[i]) ||
          !bindValue(names[i], values[i], values_[count_], literal)) {
        return false;
      }
      if (count_ > 0) sql_.append(",");
      sql_.append(names[i]);
      columnsLength += std::strlen(names[i]) + (count_ > 0 ? 1 : 0);
      valuesLength += literal + (count_ > 0 ? 1 : 0);
      ++count_;
    }
    // Lists the text path cuts make a statement of their own.
    if (count_ == 0 || columnsLength >= kInsertListCapacity ||
        valuesLength >= kInsertListCapacity) {
      return false;
    }
    sql_.append(") VALUES(");
    for (int32_t i = 0; i < count_; ++i) sql_.append(i == 0 ? "?" : ",?");
    sql_.append(")");
    return finish(nullptr, nullptr);
  }

  // "UPDATE <table> SET <column>=?,... WHERE <key>=?". The text matches the key with LIKE;
  // "=" matches the same rows for a key without wildcards on a key column compared without
  // case (checked when the statement is compiled).
  bool ofUpdate(const char *table, const char *key, const char *matchOperator, char **names,
                char **values, int32_t count) {
    if (!adb::statementCacheEnabled() || !isPlainName(table) || !isPlainName(key) ||
        !adb::isTextColumn(key) || std::strcmp(matchOperator, kLikeOperator) != 0) {
      return false;
    }
    sql_.append("UPDATE ").append(table).append(" SET ");
    const char *keyValue = nullptr;
    size_t assignmentsLength = 0;
    int32_t assigned = 0;
    // The lists of the INSERT of the same row (the key included), as its text would have them.
    size_t insertColumns = 0;
    size_t insertValues = 0;
    for (int32_t i = 0; i < count; ++i) {
      const char *name = names[i];
      const char *value = values[i];
      if (name == nullptr || value == nullptr) continue;
      size_t separator = insertColumns > 0 ? 1 : 0;
      if (std::strcmp(name, key) == 0) {
        // A second value of the key is assigned by the text; too rare to compile.
        if (keyValue != nullptr) return false;
        keyValue = value;
        insertColumns += separator + std::strlen(name);
        insertValues += separator + std::strlen(value) + 2;
        continue;
      }
      size_t literal = 0;
      if (count_ == kMaxBoundValues - 1 || !isPlainName(name) ||
          !bindValue(name, value, values_[count_], literal)) {
        return false;
      }
      if (assigned > 0) sql_.append(",");
      sql_.append(name).append("=?");
      assignmentsLength += std::strlen(name) + 1 + literal + (assigned > 0 ? 1 : 0);
      insertColumns += separator + std::strlen(name);
      insertValues += separator + literal;
      ++assigned;
      ++count_;
    }
    if (keyValue == nullptr || assigned == 0 || assignmentsLength >= kUpdateListCapacity ||
        *keyValue == '\0' || std::strpbrk(keyValue, "%_\\'") != nullptr) {
      return false;
    }
    insertBinds_ = insertColumns < kInsertListCapacity && insertValues < kInsertListCapacity;
    values_[count_++] = {keyValue, 0, static_cast<uint32_t>(std::strlen(keyValue))};
    sql_.append(" WHERE ").append(key).append("=?");
    return finish(table, key);
  }

  const adb::BoundWrite &write() const { return write_; }
  // After ofUpdate: whether the INSERT of the same row binds as well (ofInsert would agree).
  bool insertBinds() const { return insertBinds_; }

 private:
  bool finish(const char *keyTable, const char *keyColumn) {
    if (sql_.truncated()) return false;
    write_ = {sql_.c_str(), values_, count_, keyTable, keyColumn};
    return true;
  }

  adb::FixedText<kShapeCapacity> sql_;
  adb::BoundValue values_[kMaxBoundValues];
  int32_t count_ = 0;
  bool insertBinds_ = false;
  adb::BoundWrite write_{};
};

}  // namespace

namespace adb {

void appendColumnValue(TextBuilder &out, const char *column, const char *value) {
  if (!isTextColumn(column)) {
    out.append(value);
    return;
  }
  out.append("'");
  appendLiteralBody(out, value);
  out.append("'");
}

void appendCondition(TextBuilder &out, const char *column, const char *matchOperator,
                     const char *value) {
  out.append(column).append(matchOperator);
  appendColumnValue(out, column, value);
}

}  // namespace adb

extern "C" {

/* ---------------------------------------------------------------- CREATE and ALTER ---- */

ADB_API int32_t db_createTable(const char *tableName, char **fieldNames, char **fieldTypes,
                               char **constraints, int32_t fieldCount, char **foreignKeys,
                               int32_t foreignKeyCount) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    // The creation path shares the alteration's text.
    ADB_LOG_ERROR("[analyticsDB] DB open failed for table alteration\n");
    return status;
  }
  if (tableName == nullptr || fieldNames == nullptr || fieldTypes == nullptr || fieldCount < 0) {
    ADB_LOG_ERROR("[analyticsDB] Input parameters are invalid\n");
    return DB_STATUS_FAILURE;
  }

  size_t measured = 0;
  for (int32_t i = 0; i < fieldCount; ++i) {
    if (isBlank(fieldNames[i]) || isBlank(fieldTypes[i])) {
      ADB_LOG_ERROR("[analyticsDB] Both fieldname and fieldtype are mandatory for creating %s table\n",
                    tableName);
      return DB_STATUS_FAILURE;
    }
    adb::FixedText<kColumnPieceCapacity> piece;
    piece.append(",");
    appendColumnDefinition(piece, fieldNames[i], fieldTypes[i], constraintAt(constraints, i));
    measured += piece.length();
  }

  adb::FixedText<kForeignKeysCapacity> foreignKeyText;
  for (int32_t i = 0; foreignKeys != nullptr && i < foreignKeyCount; ++i) {
    if (!isBlank(foreignKeys[i])) foreignKeyText.appendf(",%s", foreignKeys[i]);
  }

  adb::HeapText columnList(measured + kColumnListExtra);
  if (!columnList) {
    ADB_LOG_ERROR("[analyticsDB] malloc failed for table creation query\n");
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder columns(columnList.get(), columnList.size());
  for (int32_t i = 0; i < fieldCount; ++i) {
    if (i > 0) columns.append(",");
    appendColumnDefinition(columns, fieldNames[i], fieldTypes[i], constraintAt(constraints, i));
  }

  adb::HeapText statement(std::strlen(tableName) + columns.length() + foreignKeyText.length() +
                          kCreateExtra);
  if (!statement) {
    ADB_LOG_ERROR("[analyticsDB] malloc failed for table creation query\n");
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder(statement.get(), statement.size())
      .appendf("%s %s(%s%s)", "CREATE TABLE IF NOT EXISTS ", tableName, columns.c_str(),
               foreignKeyText.c_str());

  status = db_write(statement.get());
  ADB_LOG_DEBUG("[analyticsDB] Query framed for Table creation %s\n", statement.get());
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Table [%s] creation failed \n", tableName);
  }
  return status;
}

ADB_API int32_t db_alterTable(const char *tableName, char **fieldNames, char **fieldTypes,
                              char **constraints, int32_t fieldCount) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] DB open failed for table alteration\n");
    return status;
  }
  if (tableName == nullptr || fieldNames == nullptr || fieldTypes == nullptr || fieldCount <= 0) {
    ADB_LOG_ERROR("[analyticsDB] Input parameters are invalid\n");
    return DB_STATUS_FAILURE;
  }

  adb::FixedText<kTableInfoCapacity> pragma;
  pragma.appendf("PRAGMA table_info('%s')", tableName);
  adb::TableResult existing;
  status = db_read(pragma.c_str(), &existing.cells, &existing.rows, &existing.columns);
  if (status == DB_STATUS_SUCCESS) {
    // No rows: the table does not exist yet, and the CREATE that follows makes it whole.
    if (existing.cells == nullptr || existing.rows < 1) return DB_STATUS_SUCCESS;
    return addMissingColumns(tableName, fieldNames, fieldTypes, constraints, fieldCount, &existing);
  }
  ADB_LOG_ERROR("[analyticsDB] Read failed  on fetching schema %s\n", pragma.c_str());
  return addMissingColumns(tableName, fieldNames, fieldTypes, constraints, fieldCount, nullptr);
}

ADB_API int32_t db_checkFieldSchemaExist(const char *fieldName, char **cells, int32_t rowCount,
                                         int32_t columnCount) {
  if (fieldName == nullptr || cells == nullptr || rowCount <= 0 || columnCount <= 0) return 0;
  const int32_t end = columnCount + rowCount * columnCount;
  for (int32_t i = columnCount; i < end; ++i) {
    const char *header = cells[i % columnCount];
    if (cells[i] != nullptr && header != nullptr &&
        std::strncmp(header, "name", kSchemaNamePrefix) == 0 &&
        std::strcmp(cells[i], fieldName) == 0) {
      return 1;
    }
  }
  return 0;
}

ADB_API int32_t db_addField(const char *tableName, const char *fieldName, const char *fieldType,
                            const char *constraint) {
  if (tableName == nullptr || isBlank(fieldName) || isBlank(fieldType)) {
    // Skipped as if added: one bad column description must not stop an upgrade.
    ADB_LOG_ERROR("[analyticsDB] Both fieldName and fieldType is mandatory for adding attribute\n");
    return DB_STATUS_SUCCESS;
  }
  adb::FixedText<kAlterCapacity> statement;
  statement.appendf("%s %s %s %s %s ", "ALTER TABLE", tableName, "ADD", fieldName, fieldType);
  if (!isBlank(constraint)) statement.append(constraint);
  int32_t status = db_write(statement.c_str());
  ADB_LOG_INFO("[analyticsDB] Query framed for Table alteration %s\n", statement.c_str());
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] table alteration failed Query %s ret [%d]\n", statement.c_str(),
                  status);
  }
  return status;
}

/* ---------------------------------------------------------------- INSERT and UPDATE ---- */

ADB_API void db_frameSplString(const char *value, char *output) {
  if (isBlank(value) || output == nullptr) return;
  char work[kEscapedValueCapacity] = {};
  adb::TextBuilder(work, sizeof work).append(value, strnlen(value, kMaxValueBeforeEscaping));
  adb::TextBuilder::continuing(output, kEscapedValueCapacity).appendEscaped(work);
  ADB_LOG_DEBUG("[analyticsDB] converted value with quote [%s] to [%s] ", value, output);
}

ADB_API int32_t db_tryInsert(const char *tableName, char **fieldNames, char **fieldValues,
                             int32_t fieldCount) {
  if (tableName == nullptr || fieldCount <= 0 || fieldNames == nullptr || fieldValues == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Insert: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n");
    return DB_STATUS_FAILURE;
  }
  InsertText text(tableName, fieldNames, fieldValues, fieldCount);
  ShapedWrite shaped;
  bool bound = shaped.ofInsert(tableName, fieldNames, fieldValues, fieldCount);
  // The text is composed up front only for the debug line; otherwise a cached statement runs
  // without it.
  bool debug = adb::log::enabled(RYX_LOG_DEBUG);
  int32_t status = DB_STATUS_SUCCESS;
  if (bound && !debug && adb::writeCompiled(shaped.write(), text, &status)) return status;
  if (!text.compose()) {
    ADB_LOG_ERROR("[analyticsDB][db_tryInsert] malloc failed %s\n", tableName);
    return DB_STATUS_FAILURE;
  }
  ADB_LOG_DEBUG("[analyticsDB] Insert: tableName : %s\nQuery framed %s\n", tableName,
                text.get());
  if (bound && debug && adb::writeCompiled(shaped.write(), text, &status)) return status;
  return db_write(text.get());
}

ADB_API int32_t db_tryUpdate(const char *tableName, const char *keyField,
                             const char *matchOperator, char **fieldNames, char **fieldValues,
                             int32_t fieldCount) {
  if (fieldNames == nullptr || fieldValues == nullptr || tableName == nullptr ||
      keyField == nullptr || matchOperator == nullptr || fieldCount <= 0) {
    ADB_LOG_ERROR("[analyticsDB] Update: Check Tablename/ Fieldcount /Fieldnames / FieldValues\n");
    return DB_STATUS_FAILURE;
  }
  UpdateText text(tableName, keyField, matchOperator, fieldNames, fieldValues, fieldCount);
  ShapedWrite shaped;
  bool bound =
      shaped.ofUpdate(tableName, keyField, matchOperator, fieldNames, fieldValues, fieldCount);
  int32_t status = DB_STATUS_SUCCESS;
  if (bound && adb::writeCompiled(shaped.write(), text, &status)) return status;
  switch (text.compose()) {
    case UpdateText::Outcome::kComposed:
      return db_write(text.get());
    case UpdateText::Outcome::kNoConditionMemory: {
      int32_t i = text.failedField();
      ADB_LOG_ERROR("[analyticsDB] Update malloc failed : %d FieldName : %s FieldValue %s\n", i,
                    fieldNames[i], fieldValues[i]);
      return DB_STATUS_FAILURE;
    }
    case UpdateText::Outcome::kNoCondition:
      ADB_LOG_ERROR("[analyticsDB] Condition is mandatory for update\n");
      return DB_STATUS_FAILURE;
    case UpdateText::Outcome::kNoMemory:
      break;
  }
  ADB_LOG_ERROR("[analyticsDB] malloc failed\n");
  return DB_STATUS_FAILURE;
}

ADB_API int32_t db_writeTable(const char *tableName, const char *keyField,
                              const char *matchOperator, char **fieldNames, char **fieldValues,
                              int32_t fieldCount) {
  if (fieldNames == nullptr || tableName == nullptr || fieldValues == nullptr || fieldCount == 0) {
    ADB_LOG_ERROR("[analyticsDB] Write: Check tablename/ fieldnames / fieldvalues / number of fields\n");
    return DB_STATUS_FAILURE;
  }
  ADB_LOG_DEBUG("[analyticsDB] Insert/Update to table %s & number of fields : %d\n", tableName,
                fieldCount);
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Write: DB open failed");
    return status;
  }
  bool updated = false;
  if (keyField != nullptr && matchOperator != nullptr) {
    ShapedWrite update;
    UpdateText text(tableName, keyField, matchOperator, fieldNames, fieldValues, fieldCount);
    updated =
        update.ofUpdate(tableName, keyField, matchOperator, fieldNames, fieldValues, fieldCount) &&
        update.insertBinds() && adb::updateExistingRow(update.write(), text, &status);
  }
  if (!updated) {
    // INSERT first: a new row costs one statement, an existing one a refused INSERT and an
    // UPDATE.
    status = db_tryInsert(tableName, fieldNames, fieldValues, fieldCount);
    if (status != DB_STATUS_CONSTRAINT) return status;
    status = db_tryUpdate(tableName, keyField, matchOperator, fieldNames, fieldValues, fieldCount);
  }
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Write: Cant Insert/Update this record\n");
  }
  return status;
}

ADB_API int32_t db_writeQuery(const char *query) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Write: DB open failed");
    return status;
  }
  if (query == nullptr) return DB_STATUS_SUCCESS;
  status = db_write(query);
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] write failed query [%s] ret [%d]", query, status);
  }
  return status;
}

/* ---------------------------------------------------------------- DELETE and DROP ---- */

ADB_API int32_t db_deleteTableContent(const char *tableName, const char *fieldName,
                                      const char *matchOperator, const char *fieldValue,
                                      const char *query) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Delete: Check tablename\n");
    return DB_STATUS_FAILURE;
  }
  ADB_LOG_DEBUG("[analyticsDB] Delete table content of %s\n", tableName);
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Delete Req. DB Open failed %d\n", status);
    return status;
  }
  status = query != nullptr ? db_write(query)
                            : db_deleteTableExec(tableName, fieldName, matchOperator, fieldValue);
  if (status != DB_STATUS_SUCCESS) ADB_LOG_ERROR("[analyticsDB] Delete failed ret %d\n", status);
  return status;
}

ADB_API int32_t db_deleteTableExec(const char *tableName, const char *fieldName,
                                   const char *matchOperator, const char *fieldValue) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Delete: Check tablename\n");
    return DB_STATUS_FAILURE;
  }
  // Without a complete condition the DELETE has no WHERE clause and empties the table: that is
  // how whole tables are cleared.
  adb::HeapText condition;
  size_t conditionLength = 0;
  if (fieldName != nullptr && matchOperator != nullptr && fieldValue != nullptr) {
    size_t size = std::strlen(fieldName) + std::strlen(matchOperator) + std::strlen(fieldValue) + 3;
    if (!condition.allocate(size)) {
      ADB_LOG_ERROR("[analyticsDB] Delete malloc failed %s\n", tableName);
      return DB_STATUS_FAILURE;
    }
    adb::TextBuilder text(condition.get(), size);
    adb::appendCondition(text, fieldName, matchOperator, fieldValue);
    conditionLength = text.length();
  }

  size_t parts = std::strlen(tableName) + conditionLength + kDeleteTextExtra;
  adb::HeapText statement(parts + kDeleteExtra);
  if (!statement) {
    ADB_LOG_ERROR("[analyticsDB] Delete malloc failed %s\n", tableName);
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder text(statement.get(), parts + 1);
  if (condition) {
    text.appendf("%s %s %s %s", "DELETE FROM ", tableName, " WHERE ", condition.get());
  } else {
    text.appendf("%s %s", "DELETE FROM ", tableName);
  }
  return db_write(statement.get());
}

ADB_API int32_t db_dropTable(const char *tableName) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Drop: Check tablename\n");
    return DB_STATUS_FAILURE;
  }
  ADB_LOG_DEBUG("[analyticsDB] Drop table %s\n", tableName);
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) return status;
  status = db_dropTableExec(tableName);
  if (status != DB_STATUS_SUCCESS) ADB_LOG_ERROR("[analyticsDB] Drop failed\n");
  return status;
}

ADB_API int32_t db_dropTableExec(const char *tableName) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Drop: Check tablename\n");
    return DB_STATUS_FAILURE;
  }
  adb::HeapText statement(std::strlen(tableName) + kDropExtra);
  if (!statement) {
    ADB_LOG_ERROR("[analyticsDB] Drop: malloc failed for %s\n", tableName);
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder(statement.get(), statement.size())
      .appendf("%s %s", "DROP TABLE IF EXISTS ", tableName);
  return db_write(statement.get());
}

/* ---------------------------------------------------------------- SELECT pieces ---- */

}  // extern "C"

namespace {

// Outside the C block: a helper returning a C++ type must not carry C language linkage.
adb::TextBuilder queryEnd(char *query, int32_t size) {
  return adb::TextBuilder::continuing(query, size > 0 ? static_cast<size_t>(size) : 0);
}

}  // namespace

extern "C" {

ADB_API int32_t db_selectQuery(char *query, int32_t size) {
  if (query == nullptr) return DB_STATUS_FAILURE;
  queryEnd(query, size).append("SELECT ");
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectFieldNames(char *query, int32_t size, char **fieldNames,
                                    int32_t fieldCount, const char *tableName) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB] Read Table name is mandatory for  \n");
    return DB_STATUS_FAILURE;
  }
  if (query == nullptr) return DB_STATUS_FAILURE;
  adb::TextBuilder text = queryEnd(query, size);
  if (fieldNames != nullptr && fieldCount != 0) {
    for (int32_t i = 0; i < fieldCount; ++i) {
      if (fieldNames[i] == nullptr) {
        ADB_LOG_ERROR("[analyticsDB] Field name/value provided at location %d is NULL TableName : %s\n",
                      i, tableName);
        return DB_STATUS_FAILURE;
      }
      text.append(fieldNames[i]);
      if (i < fieldCount - 1) text.append(",");
    }
  } else {
    text.append(" * ");
  }
  text.appendf("%s %s", " FROM ", tableName);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectJoin(char *query, int32_t size, const char *joinTable,
                              const char *joinKind, const char *joinColumn) {
  if (query == nullptr || joinTable == nullptr || joinKind == nullptr || joinColumn == nullptr) {
    return DB_STATUS_FAILURE;
  }
  if (std::strncmp(joinKind, " USING ", kJoinKindCompared) != 0) return DB_STATUS_SUCCESS;
  queryEnd(query, size).appendf(" %s %s %s(%s) ", " LEFT JOIN ", joinTable, joinKind, joinColumn);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectWhere(char *query, int32_t size) {
  if (query == nullptr) return DB_STATUS_FAILURE;
  queryEnd(query, size).append(" WHERE ");
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectCondtion(char *query, int32_t size, const char *fieldName,
                                  const char *matchOperator, const char *value) {
  if (query == nullptr || fieldName == nullptr || matchOperator == nullptr || value == nullptr) {
    return DB_STATUS_FAILURE;
  }
  adb::TextBuilder text = queryEnd(query, size);
  adb::appendCondition(text, fieldName, matchOperator, value);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectCondtionConnection(char *query, int32_t size, const char *connector) {
  if (query == nullptr || connector == nullptr) return DB_STATUS_FAILURE;
  queryEnd(query, size).append(connector);
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_selectUnion(char *query, int32_t size) {
  if (query == nullptr) return DB_STATUS_FAILURE;
  queryEnd(query, size).append(" UNION ALL ");
  return DB_STATUS_SUCCESS;
}

ADB_API int32_t db_readTableContent(const char *query, char ***cells, int32_t *rowCount,
                                    int32_t *columnCount) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_DEBUG("[analyticsDB] DB Open failed for table %s", query != nullptr ? query : "NULL");
    return status;
  }
  if (isBlank(query)) {
    ADB_LOG_ERROR("[analyticsDB] Read Query length is zero or NULL \n");
    return DB_STATUS_FAILURE;
  }
  if (cells == nullptr) return DB_STATUS_FAILURE;  // nowhere to hand the result
  status = db_read(query, cells, rowCount, columnCount);
  if (status != DB_STATUS_SUCCESS) ADB_LOG_ERROR("[analyticsDB] Read failed %s\n", query);
  return status;
}

/* ---------------------------------------------------------------- transactions ---- */

ADB_API int32_t db_beginTrans(void) {
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] db open failed on BEGIN transaction\n");
    return status;
  }
  return db_write("BEGIN");
}

// No open here: a commit belongs to the connection that began the transaction. A busy commit
// leaves the transaction open for another try; a commit refused because SQLite had already
// rolled the transaction back ends the caller's record of it.
ADB_API int32_t db_commitTrans(void) {
  int32_t status = db_write("COMMIT");
  adb::noteTransactionState();
  return status;
}

ADB_API int32_t db_beginTransaction(void) { return db_beginTrans(); }

ADB_API int32_t db_commitTransaction(void) { return db_commitTrans(); }

ADB_API int32_t db_setForeignKey(void) {
  ADB_LOG_DEBUG("[analyticsDB] Set Foreign Key enable");
  int32_t status = db_open();
  if (status != DB_STATUS_SUCCESS) {
    ADB_LOG_ERROR("[analyticsDB] Foreign key enable Req. DB Open failed %d\n", status);
    return status;
  }
  status = db_write("PRAGMA foreign_keys = ON");
  if (status == DB_STATUS_SUCCESS) return DB_STATUS_SUCCESS;
  // Enforcement that is on already for this connection counts as success.
  if (foreignKeyEanbled == 1) return DB_STATUS_SUCCESS;
  ADB_LOG_ERROR("[analyticsDB] Foreign Key enabling failed ret [%d]\n", status);
  return status;
}

}  // extern "C"
