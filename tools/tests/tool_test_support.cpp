// tool_test_support.cpp - helpers of the tool's tests.
#include "tool_test_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "analyticsdb.h"
#include "cli.h"

namespace adbtool::test {

// Times print in the local zone; the golden files are written in UTC. And the library in this
// process publishes no queue counters in the host's stats folder.
static bool setEnvironment() {
  setenv("TZ", "UTC", 1);
  tzset();
  return setenv("ANALYTICSDB_STATS_DIR", "", 1) == 0;
}
[[maybe_unused]] static const bool kEnvironment = setEnvironment();

ToolRun runCli(const std::vector<std::string> &args, bool terminal) {
  std::ostringstream out, err;
  // A braced list is evaluated in order: the streams are read after the run.
  return {runTool(args, out, err, terminal), out.str(), err.str()};
}

std::string runOk(const std::vector<std::string> &args) {
  ToolRun run = runCli(args);
  EXPECT_EQ(run.status, 0) << args[0] << ": " << run.err;
  EXPECT_EQ(run.err, "") << args[0];
  return run.out;
}

std::string transcript(const std::vector<std::vector<std::string>> &commands, const std::string &db,
                       bool terminal) {
  std::string text;
  for (std::vector<std::string> args : commands) {
    text += "$";
    for (const std::string &arg : args) text += " " + arg;
    if (!db.empty()) args.insert(args.end(), {"--db", db});
    ToolRun run = runCli(args, terminal);
    text += " => " + std::to_string(run.status) + "\n" + run.err + run.out;
  }
  return text;
}

TempDir::TempDir() {
  // Every simulated tick is a commit; on a memory file system its sync costs nothing, which
  // makes the multi-day simulations of these tests some fifty times faster.
  std::string pattern =
      std::filesystem::temp_directory_path().string() + "/analyticsdb-tool-XXXXXX";
  if (access("/dev/shm", W_OK) == 0) pattern = "/dev/shm/analyticsdb-tool-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string simulated(const TempDir &dir, int devices) {
  const std::string db = dir.file("simulated-" + std::to_string(devices) + ".db");
  runOk({"simulate", "--devices", std::to_string(devices), "--days", "1", "--start", "1704067200",
         "--db", db});
  return db;
}

void runSql(const std::string &db, const std::string &statement) {
  db_closeDbConnection();  // the path changes only while no connection is open
  EXPECT_EQ(db_setDatabasePath(db.c_str()), 0);
  EXPECT_EQ(db_writeQuery(statement.c_str()), 0) << statement;
  db_closeDbConnection();
}

void writeSample(const std::string &db, int32_t (*update)(char **),
                 std::vector<std::string> values) {
  db_closeDbConnection();
  EXPECT_EQ(db_setDatabasePath(db.c_str()), 0);
  db_initQueue();
  std::vector<char *> fields;
  for (std::string &value : values) fields.push_back(value.data());
  EXPECT_EQ(update(fields.data()), 0) << values[0] << " " << values[1];
  db_closeDbConnection();
}

std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

void expectGolden(const std::string &name, std::string actual,
                  const std::vector<std::pair<std::string, std::string>> &varying) {
  for (const auto &[value, placeholder] : varying) {
    for (std::size_t at = 0; (at = actual.find(value, at)) != std::string::npos;
         at += placeholder.size()) {
      actual.replace(at, value.size(), placeholder);
    }
  }
  const std::string path = std::string(ANALYTICSDB_TOOL_GOLDEN_DIR) + "/" + name;
  const char *update = std::getenv("ANALYTICSDB_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    writeFile(path, actual);
    return;
  }
  EXPECT_EQ(readFile(path), actual)
      << "golden file " << path << " (ANALYTICSDB_UPDATE_GOLDEN=1 rewrites it)";
}

}  // namespace adbtool::test
