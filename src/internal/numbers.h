/*
 * numbers.h - decimal conversions that behave the same on every target.
 *
 * The gateway is a 32-bit ARM system where `unsigned long` has 32 bits, so `strtoul` saturates
 * at 4294967295. Stored values are read the way the gateway reads them, also on a 64-bit host.
 */
#ifndef ANALYTICSDB_INTERNAL_NUMBERS_H
#define ANALYTICSDB_INTERNAL_NUMBERS_H

#include <cctype>
#include <cstdint>
#include <cstdlib>

namespace adb {

// strtoul(text, NULL, 10) with a 32-bit unsigned long: leading blanks and a sign are accepted,
// a magnitude beyond 32 bits saturates, a negative value wraps modulo 2^32.
inline uint32_t strtoul32(const char *text) {
  if (text == nullptr) return 0;
  const char *p = text;
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') {
    negative = (*p == '-');
    ++p;
  }
  if (!std::isdigit(static_cast<unsigned char>(*p))) return 0;
  unsigned long long magnitude = std::strtoull(p, nullptr, 10);
  if (magnitude > UINT32_MAX) return UINT32_MAX;
  uint32_t value = static_cast<uint32_t>(magnitude);
  return negative ? 0u - value : value;
}

}  // namespace adb

#endif
