// output.h - the text forms the tool prints: aligned tables, JSON, CSV and time stamps.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace adbtool {

enum class Align { Left, Right };

// One aligned plain-text table: a header row, then the rows, columns padded to their widest
// cell (in terminal columns) and separated by two blanks. Cells pass through printable().
void printTable(std::ostream &out, const std::vector<std::string> &headers,
                const std::vector<Align> &aligns,
                const std::vector<std::vector<std::string>> &rows);

// Terminal columns of UTF-8 text: wide characters count two, combining marks none.
std::size_t displayWidth(std::string_view text);
// `text` cut to at most `columns` terminal columns, an ellipsis marking the cut.
std::string fitWidth(std::string_view text, std::size_t columns);

// Text from the database made safe for a terminal: control characters shown as ^X, C1
// controls, bidirectional overrides and bytes that are not UTF-8 as U+FFFD.
std::string printable(std::string_view text);
// Text with every byte that is not UTF-8 replaced by U+FFFD, for formats that require UTF-8.
std::string validUtf8(std::string_view text);

// JSON with keys in the order they were added, so the documented layout is what is printed.
using Json = nlohmann::ordered_json;
// Bumped only when a field changes meaning or disappears; new fields may appear at any time.
inline constexpr int kJsonVersion = 1;
// Indented JSON and a newline; text that is not UTF-8 (a device's name can be anything) is
// written with U+FFFD in its place, so the output always parses.
// `indent` -1 gives one line (long sample lists).
void printJson(std::ostream &out, const Json &value, int indent = 2);
// A CSV field, quoted only when it needs to be.
std::string csvField(std::string_view text);

// Local time for people ("2024-05-01 21:35"), and its zone's abbreviation.
std::string localTime(uint32_t epoch, const char *format = "%Y-%m-%d %H:%M")
    __attribute__((format(strftime, 2, 0)));
// UTC in ISO 8601 for machines ("2024-05-01T19:35:00Z").
std::string isoTime(uint32_t epoch);

// "1.5 Mbit/s"-style text of a kbit/s figure, and digits grouped by thousands.
std::string humanRate(double kbits);
std::string groupDigits(uint64_t value);
// "1.2 GB": bytes in decimal units, at most 7 characters.
std::string humanBytes(uint64_t bytes);

} // namespace adbtool
