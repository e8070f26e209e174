// fuzz_write_composition.cpp - quote escaping and INSERT/UPDATE composition, through the
// library against a real database file.
//
// Input: two values separated by a 0x01 byte (each ends at its first NUL). The first is
// escaped on its own, then both are written to the same row (an INSERT, then an UPDATE).
// Properties: the escaper never writes past its 1024 bytes and gives the modelled text; every
// statement that runs holds exactly the intended string literals (none left open, no statement
// separator outside them); a write succeeds exactly when its value list fits, and the file then
// holds the value cut to its bound.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "analyticsdb.h"
#include "fuzz_common.h"

namespace {

std::vector<std::string> gStatements;

// Keeps the statements that the access core logs before running them. Only that line counts:
// other lines may quote a value that itself looks like one.
void captureWrites(int, const char *line, void *) {
  constexpr const char kSource[] = "analyticsDB: [db_operation db_execStatement:";
  constexpr const char kMessage[] = "] [analyticsDB] WRITE QUERY: ";
  if (std::strncmp(line, kSource, sizeof kSource - 1) != 0) return;
  const char *end = std::strchr(line + sizeof kSource - 1, ']');
  if (end == nullptr || std::strncmp(end, kMessage, sizeof kMessage - 1) != 0) return;
  gStatements.emplace_back(end + sizeof kMessage - 1);
}

// Number of string literals in `sql`; -1 when one is left open or a ';' stands outside them.
int literalCount(const std::string &sql) {
  int count = 0;
  bool inside = false;
  for (size_t i = 0; i < sql.size(); ++i) {
    if (!inside && sql[i] == ';') return -1;
    if (sql[i] != '\'') continue;
    if (inside && i + 1 < sql.size() && sql[i + 1] == '\'') {
      ++i;  // a doubled quote within the literal
    } else {
      inside = !inside;
      count += inside ? 1 : 0;
    }
  }
  return inside ? -1 : count;
}

// The first statement that starts with `verb` ran, and holds exactly its two literals.
void checkStatement(const char *verb) {
  auto sql = std::ranges::find_if(gStatements, [verb](auto &s) { return s.starts_with(verb); });
  if (sql == gStatements.end()) fuzz::fail("a statement did not run", verb);
  FUZZ_CHECK(literalCount(*sql) == 2, *sql);
}

// The stored name of the row, or "<none>".
std::string storedName() {
  char **cells = nullptr;
  int32_t rows = 0, columns = 0;
  const char *sql = "SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = 'fz'";
  FUZZ_CHECK(db_read(sql, &cells, &rows, &columns) == DB_STATUS_SUCCESS, "read back");
  std::string value = rows == 1 && cells[1] != nullptr ? cells[1] : "<none>";
  db_freeResult(&cells);
  return value;
}

// The value list of {'fz', 'value'} must fit in 2999 characters.
bool fits(const std::string &value) { return 4 + 1 + 2 + fuzz::literalBody(value).size() <= 2999; }

void checkEscaper(const std::string &value) {
  constexpr size_t kOutput = 1024, kGuard = 32;
  std::string output = std::string(kOutput, '\0') + std::string(kGuard, '\xA5');
  db_frameSplString(value.c_str(), output.data());
  FUZZ_CHECK(output.substr(kOutput) == std::string(kGuard, '\xA5'), "written past the buffer");
  FUZZ_CHECK(output.c_str() == fuzz::escapedBody(value), value);
}

void writeAndCheck(const std::string &value, bool update) {
  gStatements.clear();
  char *values[] = {const_cast<char *>("fz"), const_cast<char *>(value.c_str())};
  // An over-long value list is refused.
  const int32_t status = db_updateDeviceInfoBeaconFName(values);
  FUZZ_CHECK(status == (fits(value) ? DB_STATUS_SUCCESS : DB_STATUS_FAILURE), value);
  if (!fits(value)) return;
  checkStatement("INSERT");
  if (update) checkStatement("UPDATE");
  FUZZ_CHECK(storedName() == fuzz::unescaped(fuzz::literalBody(value)), value);
}

}  // namespace

// Called once by libFuzzer before the first input.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  static const std::string folder = fuzz::temporaryFolder();
  std::atexit([] {
    db_closeDbConnection();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  });
  db_setDatabasePath((folder + "/analytics.db").c_str());
  db_initQueue();
  db_writeQuery("PRAGMA synchronous = OFF");
  db_writeQuery("PRAGMA journal_mode = MEMORY");
  if (db_createDeviceInfoTable() != DB_STATUS_SUCCESS) fuzz::fail("create DEVICEINFO");
  ryxLogSetHandler(captureWrites, nullptr);
  ryxLogSetLevel(RYX_LOG_DEBUG);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const size_t split = input.find('\x01');
  // Values end at their first NUL, as C strings do.
  const std::string first = input.substr(0, split).c_str();
  const std::string second =
      (split == std::string::npos ? input + "'" : input.substr(split + 1)).c_str();

  checkEscaper(first);
  if (db_writeQuery("DELETE FROM DEVICEINFO") != DB_STATUS_SUCCESS) fuzz::fail("clear");
  writeAndCheck(first, false);
  if (fits(first)) writeAndCheck(second, true);
  return 0;
}
