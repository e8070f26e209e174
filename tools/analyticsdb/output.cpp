// output.cpp - aligned tables, JSON and CSV quoting, and time stamps for people and machines.
#include "output.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <initializer_list>

namespace adbtool {

namespace {

// One code point of UTF-8; `length` bytes consumed. Malformed or overlong input, surrogates and
// values past U+10FFFF come back as -1 with one byte consumed, so decoding always advances.
int32_t decodeUtf8(std::string_view text, std::size_t at, std::size_t &length) {
  const auto byte = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  unsigned char lead = byte(at);
  length = 1;
  if (lead < 0x80)
    return lead;
  std::size_t need = lead >= 0xF0 && lead <= 0xF4 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC2 ? 1 : 0;
  if (need == 0 || at + need >= text.size())
    return -1;
  int32_t code = lead & (0x3F >> need);
  for (std::size_t i = 1; i <= need; ++i) {
    if ((byte(at + i) & 0xC0) != 0x80)
      return -1;
    code = (code << 6) | (byte(at + i) & 0x3F);
  }
  static const int32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  if (code < kSmallest[need] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
    return -1;
  length = need + 1;
  return code;
}

struct Range {
  int32_t first;
  int32_t last;
};

bool inRanges(int32_t code, std::initializer_list<Range> ranges) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [code](const Range &r) { return code >= r.first && code <= r.last; });
}

// Columns a code point takes in a terminal: combining marks and joiners none, East Asian wide
// and emoji two. A table rather than wcwidth(), which depends on the locale the gateway has.
int columnsOf(int32_t code) {
  if (inRanges(code, {{0x0300, 0x036F},
                      {0x0483, 0x0489},
                      {0x0591, 0x05BD},
                      {0x0610, 0x061A},
                      {0x064B, 0x065F},
                      {0x0E31, 0x0E31},
                      {0x0E34, 0x0E3A},
                      {0x1AB0, 0x1AFF},
                      {0x1DC0, 0x1DFF},
                      {0x200B, 0x200F},
                      {0x20D0, 0x20FF},
                      {0xFE00, 0xFE0F},
                      {0xFE20, 0xFE2F},
                      {0xE0100, 0xE01EF}}))
    return 0;
  if (inRanges(code,
               {{0x1100, 0x115F},   {0x231A, 0x231B},   {0x2329, 0x232A},   {0x23E9, 0x23EC},
                {0x25FD, 0x25FE},   {0x2614, 0x2615},   {0x2648, 0x2653},   {0x26AA, 0x26AB},
                {0x26BD, 0x26BE},   {0x26C4, 0x26C5},   {0x2705, 0x2705},   {0x270A, 0x270B},
                {0x2728, 0x2728},   {0x274C, 0x274C},   {0x2753, 0x2755},   {0x2795, 0x2797},
                {0x2B1B, 0x2B1C},   {0x2B50, 0x2B50},   {0x2E80, 0x303E},   {0x3041, 0x33FF},
                {0x3400, 0x4DBF},   {0x4E00, 0x9FFF},   {0xA000, 0xA4CF},   {0xAC00, 0xD7A3},
                {0xF900, 0xFAFF},   {0xFE30, 0xFE4F},   {0xFF00, 0xFF60},   {0xFFE0, 0xFFE6},
                {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD}}))
    return 2;
  return 1;
}

// Code points that steer a terminal or reorder what follows: C0 and C1 controls, DEL, and the
// bidirectional overrides and isolates, which can make one name look like another.
bool isControl(int32_t code) {
  return code < 0x20 || (code >= 0x7F && code <= 0x9F) ||
         inRanges(code, {{0x202A, 0x202E}, {0x2066, 0x2069}});
}

void appendCodePoint(std::string &out, int32_t code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

} // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
    int32_t code = decodeUtf8(text, at, length);
    if (code < 0)
      out += "\xEF\xBF\xBD"; // U+FFFD: a byte that is not UTF-8
    else if (code < 0x20 || code == 0x7F)
      out +=
          {'^', static_cast<char>(code ^ 0x40)}; // ESC -> ^[, newline -> ^J, as cat -v shows them
    else if (isControl(code))
      out += "\xEF\xBF\xBD";
    else
      appendCodePoint(out, code);
  }
  return out;
}

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
    int32_t code = decodeUtf8(text, at, length);
    if (code < 0)
      out += "\xEF\xBF\xBD";
    else
      out.append(text.substr(at, length));
  }
  return out;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
    int32_t code = decodeUtf8(text, at, length);
    width += code < 0 ? 1 : static_cast<std::size_t>(columnsOf(code));
  }
  return width;
}

std::string fitWidth(std::string_view text, std::size_t columns) {
  if (displayWidth(text) <= columns)
    return std::string(text);
  std::string out;
  std::size_t width = 0;
  for (std::size_t at = 0, length = 0; at < text.size(); at += length) {
    int32_t code = decodeUtf8(text, at, length);
    std::size_t w = code < 0 ? 1 : static_cast<std::size_t>(columnsOf(code));
    if (width + w + 1 > columns)
      break;
    out.append(text.substr(at, length));
    width += w;
  }
  return out + "\u2026";
}

void printTable(std::ostream &out, const std::vector<std::string> &headers,
                const std::vector<Align> &aligns,
                const std::vector<std::vector<std::string>> &rows) {
  std::vector<std::size_t> widths(headers.size(), 0);
  auto measure = [&widths](const std::vector<std::string> &cells) {
    for (std::size_t c = 0; c < cells.size() && c < widths.size(); ++c)
      widths[c] = std::max(widths[c], displayWidth(printable(cells[c])));
  };
  measure(headers);
  for (const auto &row : rows)
    measure(row);

  auto printRow = [&](const std::vector<std::string> &cells) {
    std::string line;
    for (std::size_t c = 0; c < widths.size(); ++c) {
      // Every cell may hold a name a device gave itself: never let it reach the terminal raw.
      const std::string cell = c < cells.size() ? printable(cells[c]) : std::string();
      std::string pad(widths[c] - displayWidth(cell), ' ');
      if (c > 0)
        line += "  ";
      line += aligns[c] == Align::Right ? pad + cell : cell + pad;
    }
    while (!line.empty() && line.back() == ' ')
      line.pop_back();
    out << line << '\n';
  };
  printRow(headers);
  for (const auto &row : rows)
    printRow(row);
}

void printJson(std::ostream &out, const Json &value, int indent) {
  out << value.dump(indent, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string csvField(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos)
    return std::string(text);
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"')
      quoted += '"';
    quoted += c;
  }
  return quoted + "\"";
}

// localTime() carries the strftime format attribute, so every caller's format is checked
// where it is written; here it is passed on as it came.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::string localTime(uint32_t epoch, const char *format) {
  std::time_t seconds = static_cast<std::time_t>(epoch);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[64];
  return std::string(text, std::strftime(text, sizeof text, format, &parts));
}
#pragma GCC diagnostic pop

std::string isoTime(uint32_t epoch) {
  std::time_t seconds = static_cast<std::time_t>(epoch);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts));
}

std::string humanRate(double kbits) {
  static const char *const kUnits[] = {"kbit/s", "Mbit/s", "Gbit/s"};
  std::size_t unit = 0;
  while (kbits >= 1000.0 && unit + 1 < std::size(kUnits)) {
    kbits /= 1000.0;
    ++unit;
  }
  // Three significant digits are plenty and keep the text short: "112 Mbit/s", "38.7 Mbit/s".
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 || kbits >= 99.95 ? "%.0f %s" : "%.1f %s", kbits,
                kUnits[unit]);
  return text;
}

std::string humanBytes(uint64_t bytes) {
  static const char *const kUnits[] = {"B", "kB", "MB", "GB", "TB", "PB"};
  double value = static_cast<double>(bytes);
  std::size_t unit = 0;
  while (value >= 999.95 && unit + 1 < std::size(kUnits)) {
    value /= 1000.0;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string groupDigits(uint64_t value) {
  std::string digits = std::to_string(value);
  std::string grouped;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0)
      grouped += ',';
    grouped += digits[i];
  }
  return grouped;
}

} // namespace adbtool
