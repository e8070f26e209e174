/*
 * fuzz_select_pieces.cpp - the SELECT pieces at small buffer sizes.
 *
 * Input: a buffer size byte, then a program of piece calls whose texts come from the input.
 * Properties: nothing is ever written past the size given (guard bytes after it stay as they
 * were), the text stays NUL-terminated within the size, and each piece only appends (what was
 * there before is still the start of the buffer).
 */
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "analyticsdb.h"
#include "fuzz_common.h"

namespace {

constexpr size_t kGuard = 64;
constexpr unsigned char kGuardByte = 0x5A;

class Input {
 public:
  Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return position_ >= size_; }
  uint8_t byte() { return empty() ? 0 : data_[position_++]; }
  // A text of up to 40 bytes, or NULL for a length byte of 0xFF.
  const char *text() {
    uint8_t length = byte();
    if (length == 0xFF) return nullptr;
    length %= 41;
    std::string value;
    while (value.size() < length && !empty()) {
      char c = static_cast<char>(byte());
      if (c != '\0') value += c;
    }
    texts_.push_back(value);
    return texts_.back().c_str();
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t position_ = 0;
  std::deque<std::string> texts_{};  // texts handed out stay valid for the whole input
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Input in(data, size);
  const uint8_t sizeByte = in.byte();
  // Mostly tiny buffers, where every piece gets cut; now and then a zero or negative size.
  const int32_t bufferSize = sizeByte == 0xFF ? -1 : sizeByte % 97;
  const size_t storage = (bufferSize > 0 ? static_cast<size_t>(bufferSize) : 0) + kGuard;
  std::vector<char> buffer(storage, static_cast<char>(kGuardByte));
  char *query = buffer.data();
  if (bufferSize > 0) std::memset(query, 0, static_cast<size_t>(bufferSize));
  const size_t limit = bufferSize > 0 ? static_cast<size_t>(bufferSize) : 0;

  std::string before;
  for (int step = 0; step < 16 && !in.empty(); ++step) {
    if (limit > 0) before.assign(query, strnlen(query, limit));
    switch (in.byte() % 7) {
      case 0:
        db_selectQuery(query, bufferSize);
        break;
      case 1: {
        char *names[4];
        int32_t count = in.byte() % 5;
        for (int32_t i = 0; i < count; ++i) names[i] = const_cast<char *>(in.text());
        db_selectFieldNames(query, bufferSize, count > 0 ? names : nullptr, count, in.text());
        break;
      }
      case 2: {
        const char *table = in.text();
        const char *kind = (in.byte() & 1) ? " USING " : in.text();
        db_selectJoin(query, bufferSize, table, kind, in.text());
        break;
      }
      case 3:
        db_selectWhere(query, bufferSize);
        break;
      case 4: {
        const char *field = (in.byte() & 1) ? "MAC_S" : in.text();
        const char *op = in.text();
        db_selectCondtion(query, bufferSize, field, op, in.text());
        break;
      }
      case 5:
        db_selectCondtionConnection(query, bufferSize, in.text());
        break;
      default:
        db_selectUnion(query, bufferSize);
        break;
    }
    for (size_t i = limit; i < storage; ++i) {
      FUZZ_CHECK(static_cast<unsigned char>(query[i]) == kGuardByte, "written past the size");
    }
    if (limit > 0) {
      size_t length = strnlen(query, limit);
      FUZZ_CHECK(length < limit, "not terminated within the size");
      FUZZ_CHECK(std::string(query, length).rfind(before, 0) == 0, "a piece changed earlier text");
    }
  }
  return 0;
}
