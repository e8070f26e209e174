// tool_test_support.cpp - helpers of the tool's tests.
#include "tool_test_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "analyticsdb.h"
#include "cli.h"

namespace adbtool::test {

namespace {

// Times print in the local zone; the golden files are written in UTC. And the library in this
// process publishes no queue counters in the host's stats folder.
class ToolTestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    setenv("ANALYTICSDB_STATS_DIR", "", 1);
  }
};
[[maybe_unused]] ::testing::Environment *const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new ToolTestEnvironment);

bool startsWith(const std::string &text, std::size_t at, const char *prefix) {
  return text.compare(at, std::char_traits<char>::length(prefix), prefix) == 0;
}

// At `at` stands '&': a known entity or a character reference must follow.
bool validReference(const std::string &text, std::size_t at) {
  for (const char *entity : {"&amp;", "&lt;", "&gt;", "&quot;", "&apos;"})
    if (startsWith(text, at, entity))
      return true;
  if (!startsWith(text, at, "&#"))
    return false;
  std::size_t end = text.find(';', at);
  return end != std::string::npos && end > at + 2 && end - at < 12;
}

bool nameCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == ':' ||
         c == '.';
}

} // namespace

ToolRun runCli(const std::vector<std::string> &args) {
  std::ostringstream out;
  std::ostringstream err;
  int status = runTool(args, out, err);
  return {status, out.str(), err.str()};
}

TempDir::TempDir() {
  // Every simulated tick is a commit; on a memory file system its sync costs nothing, which
  // makes the multi-day simulations of these tests some fifty times faster.
  std::error_code error;
  std::filesystem::path base =
      std::filesystem::is_directory("/dev/shm", error) && access("/dev/shm", W_OK) == 0
          ? std::filesystem::path("/dev/shm")
          : std::filesystem::temp_directory_path();
  std::string pattern = (base / "analyticsdb-tool-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string simulated(const TempDir &dir, int devices) {
  const std::string db = dir.file("simulated-" + std::to_string(devices) + ".db");
  ToolRun run = runCli({"simulate", "--devices", std::to_string(devices), "--days", "1", "--start",
                        "1704067200", "--db", db});
  EXPECT_EQ(run.status, 0) << run.out << run.err;
  return db;
}

void runSql(const std::string &db, const std::string &statement) {
  EXPECT_EQ(db_setDatabasePath(db.c_str()), 0);
  EXPECT_EQ(db_writeQuery(statement.c_str()), 0) << statement;
  db_closeDbConnection();
}

std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

void writeFile(const std::string &path, const std::string &text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
}

void expectGolden(const std::string &name, const std::string &actual) {
  const std::string path = std::string(ANALYTICSDB_TOOL_GOLDEN_DIR) + "/" + name;
  const char *update = std::getenv("ANALYTICSDB_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    writeFile(path, actual);
    return;
  }
  EXPECT_EQ(readFile(path), actual)
      << "golden file " << path << " (ANALYTICSDB_UPDATE_GOLDEN=1 rewrites it)";
}

std::string xmlProblem(const std::string &text) {
  std::vector<std::string> open;
  bool rootSeen = false;
  std::size_t i = 0;
  if (startsWith(text, 0, "<?xml")) {
    i = text.find("?>");
    if (i == std::string::npos)
      return "unterminated XML declaration";
    i += 2;
  }
  while (i < text.size()) {
    char c = text[i];
    if (c == '&') {
      if (!validReference(text, i))
        return "bad entity reference at " + std::to_string(i);
      ++i;
    } else if (c != '<') {
      if (open.empty() && !std::isspace(static_cast<unsigned char>(c)))
        return "text outside the root element at " + std::to_string(i);
      ++i;
    } else if (startsWith(text, i, "<!--")) {
      std::size_t end = text.find("-->", i);
      if (end == std::string::npos)
        return "unterminated comment";
      i = end + 3;
    } else if (startsWith(text, i, "</")) {
      std::size_t end = text.find('>', i);
      if (end == std::string::npos)
        return "unterminated end tag";
      std::string name = text.substr(i + 2, end - i - 2);
      if (open.empty() || open.back() != name)
        return "mismatched end tag </" + name + ">";
      open.pop_back();
      i = end + 1;
    } else {
      std::size_t at = i + 1;
      while (at < text.size() && nameCharacter(text[at]))
        ++at;
      std::string name = text.substr(i + 1, at - i - 1);
      if (name.empty())
        return "bad tag at " + std::to_string(i);
      if (open.empty() && rootSeen)
        return "second root element <" + name + ">";
      rootSeen = true;
      // Attributes: name="value" with no '<' and valid references in the value.
      for (;;) {
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at])))
          ++at;
        if (at >= text.size())
          return "unterminated tag <" + name + ">";
        if (startsWith(text, at, "/>")) {
          at += 2;
          break;
        }
        if (text[at] == '>') {
          open.push_back(name);
          ++at;
          break;
        }
        std::size_t attribute = at;
        while (at < text.size() && nameCharacter(text[at]))
          ++at;
        if (at == attribute || at + 1 >= text.size() || text[at] != '=' ||
            (text[at + 1] != '"' && text[at + 1] != '\''))
          return "bad attribute in <" + name + "> at " + std::to_string(attribute);
        char quote = text[at + 1];
        std::size_t end = text.find(quote, at + 2);
        if (end == std::string::npos)
          return "unterminated attribute value in <" + name + ">";
        for (std::size_t v = at + 2; v < end; ++v) {
          if (text[v] == '<')
            return "'<' in an attribute value of <" + name + ">";
          if (text[v] == '&' && !validReference(text, v))
            return "bad entity in an attribute of <" + name + ">";
        }
        at = end + 1;
      }
      i = at;
    }
  }
  if (!open.empty())
    return "unclosed element <" + open.back() + ">";
  if (!rootSeen)
    return "no root element";
  return "";
}

} // namespace adbtool::test
