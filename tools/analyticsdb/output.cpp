// output.cpp - aligned tables, JSON and CSV quoting, and time stamps for people and machines.
#include "output.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace adbtool {

std::size_t displayWidth(std::string_view text) {
  // Continuation bytes of UTF-8 (10xxxxxx) do not start a character.
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void printTable(std::ostream &out, const std::vector<std::string> &headers,
                const std::vector<Align> &aligns,
                const std::vector<std::vector<std::string>> &rows) {
  std::vector<std::size_t> widths(headers.size(), 0);
  auto measure = [&widths](const std::vector<std::string> &cells) {
    for (std::size_t c = 0; c < cells.size() && c < widths.size(); ++c)
      widths[c] = std::max(widths[c], displayWidth(cells[c]));
  };
  measure(headers);
  for (const auto &row : rows)
    measure(row);

  auto printRow = [&](const std::vector<std::string> &cells) {
    std::string line;
    for (std::size_t c = 0; c < widths.size(); ++c) {
      const std::string &cell = c < cells.size() ? cells[c] : std::string();
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

std::string jsonString(std::string_view text) {
  std::string quoted = "\"";
  for (char c : text) {
    switch (c) {
    case '"':
      quoted += "\\\"";
      break;
    case '\\':
      quoted += "\\\\";
      break;
    case '\n':
      quoted += "\\n";
      break;
    case '\r':
      quoted += "\\r";
      break;
    case '\t':
      quoted += "\\t";
      break;
    default:
      if (static_cast<unsigned char>(c) < 0x20) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
        quoted += escaped;
      } else {
        quoted += c;
      }
    }
  }
  return quoted + "\"";
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
  char text[32];
  if (kbits >= 1000000.0)
    std::snprintf(text, sizeof text, "%.1f Gbit/s", kbits / 1000000.0);
  else if (kbits >= 1000.0)
    std::snprintf(text, sizeof text, "%.1f Mbit/s", kbits / 1000.0);
  else
    std::snprintf(text, sizeof text, "%.0f kbit/s", kbits);
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
