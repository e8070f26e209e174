// queue_cases.h - what the queue tests share with the log attribution test: a log line names the
// exported function its message belongs to, and the module that defines that function, also
// when a shared helper emits it (field tools grep the log for the function), with the line
// number of the log call in the module's source.
#ifndef ANALYTICSDB_TEST_QUEUE_CASES_H
#define ANALYTICSDB_TEST_QUEUE_CASES_H

#include <fstream>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace adbtest {

// True when the source line `line` of `module`, or one of the few lines before it (a log call
// may span lines), is a log call.
inline bool isLogCall(const std::string &module, int line) {
  std::ifstream source(std::string(ADB_SOURCE_DIR) + "/src/" + module + ".cpp");
  std::vector<std::string> text;
  for (std::string l; std::getline(source, l);) text.push_back(l);
  for (int at = line; at > 0 && at > line - 4 && at <= static_cast<int>(text.size()); --at) {
    if (text[at - 1].find("ADB_LOG_") != std::string::npos) return true;
  }
  return false;
}

// Some captured line holds `part`, and every one that does is attributed to `where` ("module
// function") at the line of a log call.
inline void expectAttributed(const LogCapture &log, const std::string &part,
                             const std::string &where) {
  const std::string module = where.substr(0, where.find(' '));
  size_t found = 0;
  for (const LogLine &line : log.lines()) {
    if (line.text.find(part) == std::string::npos) continue;
    ++found;
    EXPECT_EQ(line.where(), where) << line.text;
    // "analyticsDB: [module function:line] "
    const size_t colon = line.text.find(':', line.text.find('['));
    EXPECT_TRUE(isLogCall(module, std::stoi(line.text.substr(colon + 1))))
        << "the line number is not that of a log call: " << line.text;
  }
  EXPECT_GT(found, 0u) << "no line holds \"" << part << "\"\n" << log.dump();
}

}  // namespace adbtest

#endif
