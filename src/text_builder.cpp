/*
 * text_builder.cpp - bounded, always-terminated text in a fixed buffer (see text_builder.h).
 */
#include "internal/text_builder.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace adb {

TextBuilder::TextBuilder(char *buffer, size_t capacity) : TextBuilder(buffer, capacity, 0) {
  if (capacity_ > 0) buffer_[0] = '\0';
}

TextBuilder::TextBuilder(char *buffer, size_t capacity, size_t length)
    : buffer_(buffer), capacity_(buffer == nullptr ? 0 : capacity), length_(length) {}

TextBuilder TextBuilder::continuing(char *buffer, size_t capacity) {
  if (buffer == nullptr || capacity == 0) return TextBuilder(nullptr, 0, 0);
  size_t length = strnlen(buffer, capacity);
  if (length == capacity) {  // no terminator: treat as full, leave the bytes alone
    TextBuilder full(buffer, 0, 0);
    full.truncated_ = true;
    return full;
  }
  return TextBuilder(buffer, capacity, length);
}

TextBuilder &TextBuilder::append(const char *text) {
  return text == nullptr ? *this : append(text, std::strlen(text));
}

TextBuilder &TextBuilder::append(const char *text, size_t length) {
  if (truncated_ || capacity_ == 0) {
    truncated_ = truncated_ || length > 0;
    return *this;
  }
  size_t n = length;
  if (n > room()) {
    n = room();
    truncated_ = true;
  }
  std::memcpy(buffer_ + length_, text, n);
  length_ += n;
  buffer_[length_] = '\0';
  return *this;
}

TextBuilder &TextBuilder::appendf(const char *format, ...) {
  if (truncated_ || capacity_ == 0) {
    truncated_ = true;
    return *this;
  }
  va_list args;
  va_start(args, format);
  int wanted = std::vsnprintf(buffer_ + length_, room() + 1, format, args);
  va_end(args);
  if (wanted < 0) {  // encoding error: keep the text as it was
    buffer_[length_] = '\0';
    return *this;
  }
  if (static_cast<size_t>(wanted) > room()) {
    truncated_ = true;
    length_ += room();
  } else {
    length_ += static_cast<size_t>(wanted);
  }
  return *this;
}

TextBuilder &TextBuilder::appendEscaped(const char *text) {
  if (text == nullptr || *text == '\0') return *this;
  for (const char *p = text; *p != '\0' && !truncated_; ++p) {
    if (*p == '\'') {
      appendUnit("''", 2);
    } else {
      appendUnit(p, 1);
    }
  }
  return *this;
}

TextBuilder &TextBuilder::appendKeepingQuotePairs(const char *escaped) {
  if (escaped == nullptr) return *this;
  for (const char *p = escaped; *p != '\0' && !truncated_;) {
    size_t unit = (p[0] == '\'' && p[1] == '\'') ? 2 : 1;
    appendUnit(p, unit);
    p += unit;
  }
  return *this;
}

void TextBuilder::appendUnit(const char *unit, size_t length) {
  if (truncated_ || length > room()) {
    truncated_ = true;
    return;
  }
  std::memcpy(buffer_ + length_, unit, length);
  length_ += length;
  buffer_[length_] = '\0';
}

bool hasQuote(const char *text) { return text != nullptr && std::strchr(text, '\'') != nullptr; }

}  // namespace adb
