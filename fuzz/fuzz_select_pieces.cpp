// fuzz_select_pieces.cpp - the SELECT pieces at small buffer sizes.
//
// Input: a buffer size byte, then a program of piece calls whose texts come from the input.
// Properties: nothing is ever written past the size given (guard bytes after it stay as they
// were), the text stays NUL-terminated within the size, and each piece only appends (what was
// there before is still the start of the buffer).
#include <cstdint>
#include <cstring>
#include <string>

#include "analyticsdb.h"
#include "fuzz_common.h"

namespace {

constexpr size_t kGuard = 64;
constexpr char kGuardByte = 0x5A;

// A text of up to 40 bytes, or NULL for a length byte of 0xFF.
const char *text(fuzz::Input &in) {
  const uint8_t length = in.byte();
  return length == 0xFF ? nullptr : in.text(length % 41);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input in(data, size);
  const uint8_t sizeByte = in.byte();
  // Mostly tiny buffers, where every piece gets cut; now and then a zero or negative size.
  const int32_t bufferSize = sizeByte == 0xFF ? -1 : sizeByte % 97;
  const size_t limit = bufferSize > 0 ? static_cast<size_t>(bufferSize) : 0;
  std::string buffer = std::string(limit, '\0') + std::string(kGuard, kGuardByte);
  char *query = buffer.data();

  std::string before;
  for (int step = 0; step < 16 && !in.empty(); ++step) {
    if (limit > 0) before.assign(query, strnlen(query, limit));
    const uint8_t piece = in.byte() % 7;
    if (piece == 0) {
      db_selectQuery(query, bufferSize);
    } else if (piece == 1) {
      char *names[4];
      int32_t count = in.byte() % 5;
      for (int32_t i = 0; i < count; ++i) names[i] = const_cast<char *>(text(in));
      db_selectFieldNames(query, bufferSize, count > 0 ? names : nullptr, count, text(in));
    } else if (piece == 2) {
      const char *table = text(in);
      const char *kind = (in.byte() & 1) ? " USING " : text(in);
      db_selectJoin(query, bufferSize, table, kind, text(in));
    } else if (piece == 3) {
      db_selectWhere(query, bufferSize);
    } else if (piece == 4) {
      const char *field = (in.byte() & 1) ? "MAC_S" : text(in);
      const char *op = text(in);
      db_selectCondtion(query, bufferSize, field, op, text(in));
    } else if (piece == 5) {
      db_selectCondtionConnection(query, bufferSize, text(in));
    } else {
      db_selectUnion(query, bufferSize);
    }
    FUZZ_CHECK(buffer.substr(limit) == std::string(kGuard, kGuardByte), "written past the size");
    if (limit > 0) {
      size_t length = strnlen(query, limit);
      FUZZ_CHECK(length < limit, "not terminated within the size");
      FUZZ_CHECK(std::string(query, length).rfind(before, 0) == 0, "a piece changed earlier text");
    }
  }
  return 0;
}
