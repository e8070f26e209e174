/*
 * text_builder.h - the one way the library builds text.
 *
 * A TextBuilder writes into a fixed buffer that someone else owns: a stack array, a heap block
 * sized by the caller, or a caller's query buffer. It appends, cuts silently at the capacity,
 * always keeps the text NUL-terminated, never writes past the buffer, and remembers that it cut
 * (truncated()). Once it has cut, later appends add nothing: a piece that follows a cut could
 * otherwise close a half-written SQL literal. Values are appended as data, never as a format.
 */
#ifndef ANALYTICSDB_INTERNAL_TEXT_BUILDER_H
#define ANALYTICSDB_INTERNAL_TEXT_BUILDER_H

#include <cstddef>

namespace adb {

class TextBuilder {
 public:
  // Starts an empty text in `buffer` of `capacity` bytes (terminator included).
  TextBuilder(char *buffer, size_t capacity);

  // Continues the text that `buffer` already holds; a buffer without a terminator inside its
  // capacity counts as full and is not touched.
  static TextBuilder continuing(char *buffer, size_t capacity);

  TextBuilder &append(const char *text);  // NULL appends nothing
  TextBuilder &append(const char *text, size_t length);
  TextBuilder &appendf(const char *format, ...) __attribute__((format(printf, 2, 3)));

  // Appends `text` with every single quote doubled, so that it can stand inside a SQL string
  // literal. When the capacity cuts the text, the cut never falls between the two quotes of a
  // pair: an odd quote at the end would close the literal early and let the rest of the
  // statement be read as SQL.
  TextBuilder &appendEscaped(const char *text);

  // Appends text that is escaped already (its quotes come in pairs), cutting only between
  // pairs, for the same reason.
  TextBuilder &appendKeepingQuotePairs(const char *escaped);

  const char *c_str() const { return buffer_; }
  size_t length() const { return length_; }
  size_t capacity() const { return capacity_; }
  bool empty() const { return length_ == 0; }
  bool truncated() const { return truncated_; }

 private:
  TextBuilder(char *buffer, size_t capacity, size_t length);
  void appendUnit(const char *unit, size_t length);  // all of it or nothing
  size_t room() const { return capacity_ == 0 ? 0 : capacity_ - 1 - length_; }

  char *buffer_;
  size_t capacity_;
  size_t length_;
  bool truncated_ = false;
};

// A builder together with its own stack storage: `FixedText<256> text;`.
template <size_t N>
class FixedText : public TextBuilder {
 public:
  FixedText() : TextBuilder(storage_, N) {}
  FixedText(const FixedText &) = delete;
  FixedText &operator=(const FixedText &) = delete;

 private:
  char storage_[N];
};

// True when `text` contains a single quote.
bool hasQuote(const char *text);

}  // namespace adb

#endif
