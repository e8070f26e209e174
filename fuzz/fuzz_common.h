// fuzz_common.h - what the fuzz targets share: the reader of their input, a private database
// folder and a model of how the writer quotes a text value.
#ifndef ANALYTICSDB_FUZZ_COMMON_H
#define ANALYTICSDB_FUZZ_COMMON_H

#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>

namespace fuzz {

// Stops the run with a message: libFuzzer saves the input that got here.
[[noreturn]] inline void fail(const char *what, const std::string &detail = {}) {
  std::fprintf(stderr, "PROPERTY VIOLATED: %s\n%s\n", what, detail.c_str());
  std::abort();
}

#define FUZZ_CHECK(condition, detail) ((condition) ? void() : ::fuzz::fail(#condition, detail))

// The input, byte by byte; past its end every byte reads as 0.
class Input {
 public:
  Input(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return position_ >= size_; }
  uint8_t byte() { return empty() ? 0 : data_[position_++]; }
  // A text of the next `length` bytes, NULs skipped (shorter at the end of the input); it stays
  // valid for the whole input.
  char *text(size_t length) {
    std::string value;
    while (value.size() < length && !empty()) {
      if (const char c = static_cast<char>(byte())) value += c;
    }
    return texts_.emplace_back(value).data();
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t position_ = 0;
  std::deque<std::string> texts_{};
};

// A fresh folder under TMPDIR (or /tmp) for this process's database.
inline std::string temporaryFolder() {
  const char *base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/adbfuzz.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) fail("mkdtemp");
  return pattern;
}

// The body of the literal that the writer composes for a value with a quote: the value cut to
// 1022 characters, its quotes doubled, cut to 1023 characters without splitting a pair. A value
// without a quote is written as it stands.
inline std::string escapedBody(const std::string &value) {
  std::string out;
  for (char c : value.substr(0, 1022)) {
    std::string unit = c == '\'' ? "''" : std::string(1, c);
    if (out.size() + unit.size() > 1023) break;
    out += unit;
  }
  return out;
}

inline std::string literalBody(const std::string &value) {
  return value.find('\'') == std::string::npos ? value : escapedBody(value);
}

inline std::string unescaped(const std::string &body) {
  std::string out;
  for (size_t i = 0; i < body.size(); ++i) {
    out += body[i];
    if (body[i] == '\'') ++i;
  }
  return out;
}

}  // namespace fuzz

#endif
