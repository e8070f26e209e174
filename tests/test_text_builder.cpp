// The bounded text builder: cuts, termination, stickiness, and quote pairs at the cut.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "internal/text_builder.h"

namespace {

constexpr char kGuard = '\x5a';

// A buffer with guard bytes behind its capacity, to see writes past the end.
struct Guarded {
  explicit Guarded(size_t size) : capacity(size) { std::memset(bytes, kGuard, sizeof bytes); }
  bool guardsIntact() const {
    for (size_t i = capacity; i < sizeof bytes; ++i) {
      if (bytes[i] != kGuard) return false;
    }
    return true;
  }
  size_t capacity;
  char bytes[64];
};

}  // namespace

TEST(TextBuilder, CutsAtCapacityKeepsTerminatorAndStaysCut) {
  for (size_t capacity = 1; capacity <= 12; ++capacity) {
    Guarded buffer(capacity);
    adb::TextBuilder text(buffer.bytes, capacity);
    text.append("SELECT ").appendf("%s-%d", "abc", 42).append("!");
    std::string full = "SELECT abc-42!";
    EXPECT_EQ(std::string(text.c_str()), full.substr(0, capacity - 1)) << capacity;
    EXPECT_EQ(text.length(), std::strlen(buffer.bytes));
    EXPECT_EQ(text.truncated(), full.size() > capacity - 1);
    EXPECT_TRUE(buffer.guardsIntact()) << capacity;
  }
  // After a cut, a short piece that would fit must not be appended behind the cut text.
  char small[6];
  adb::TextBuilder text(small, sizeof small);
  text.append("abcdefgh").append("z");
  EXPECT_STREQ(small, "abcde");
}

TEST(TextBuilder, ContinuingAppendsAtTheEndAndLeavesAnUnterminatedBufferAlone) {
  Guarded buffer(10);
  std::memcpy(buffer.bytes, "SELECT", 7);
  adb::TextBuilder::continuing(buffer.bytes, 10).append(" * FROM T");
  EXPECT_STREQ(buffer.bytes, "SELECT * ");
  EXPECT_TRUE(buffer.guardsIntact());

  char full[4] = {'a', 'b', 'c', 'd'};  // no terminator inside the capacity
  adb::TextBuilder rest = adb::TextBuilder::continuing(full, sizeof full);
  rest.append("x");
  EXPECT_TRUE(rest.truncated());
  EXPECT_EQ(std::memcmp(full, "abcd", 4), 0);
}

TEST(TextBuilder, ValuesAreNeverFormats) {
  char buffer[32];
  adb::TextBuilder(buffer, sizeof buffer).append("%s%n%x");
  EXPECT_STREQ(buffer, "%s%n%x");
}

TEST(TextBuilder, EscapingNeverSplitsAQuotePair) {
  const std::string value = "a'b''c'''d'";
  const std::string escaped = "a''b''''c''''''d''";
  for (size_t capacity = 1; capacity <= escaped.size() + 2; ++capacity) {
    Guarded buffer(capacity);
    adb::TextBuilder text(buffer.bytes, capacity);
    text.appendEscaped(value.c_str());
    std::string out = text.c_str();
    ASSERT_EQ(escaped.compare(0, out.size(), out), 0) << capacity;  // a prefix of the whole
    size_t trailingQuotes = out.size() - out.find_last_not_of('\'') - 1;
    if (out.find_last_not_of('\'') == std::string::npos) trailingQuotes = out.size();
    EXPECT_EQ(trailingQuotes % 2, 0u) << "odd quote at cut, capacity " << capacity << ": " << out;
    EXPECT_TRUE(buffer.guardsIntact());

    // The same holds when already-escaped text is appended.
    Guarded again(capacity);
    adb::TextBuilder(again.bytes, capacity).appendKeepingQuotePairs(escaped.c_str());
    EXPECT_EQ(std::string(again.bytes), out) << capacity;
  }
}
