// tool_test_support.h - running the tool in-process, temporary folders, simulated databases,
// and golden files for the tool's tests.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace adbtool::test {

struct ToolRun {
  int status;
  std::string out;
  std::string err;
};

// Runs the tool's command line in this process (so it works under an emulator too), with its
// output going to a terminal when `terminal` says so.
ToolRun runCli(const std::vector<std::string> &args, bool terminal = false);
// Runs a command line that must succeed without a word on standard error; its output.
std::string runOk(const std::vector<std::string> &args);
// Runs each command line, with `--db db` added when `db` is given, and writes down for a golden
// file the command as given, its exit status, then its standard error and output.
std::string transcript(const std::vector<std::vector<std::string>> &commands,
                       const std::string &db = "", bool terminal = false);

// A fresh folder, removed with everything in it at the end of the scope.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

// A database of `devices` simulated devices over one day from 2024-01-01 00:00 UTC, made by the
// tool itself in `dir`: the same file for the same count, every time.
std::string simulated(const TempDir &dir, int devices);

// Runs `statement` on `db` through the library.
void runSql(const std::string &db, const std::string &statement);
// Writes one sample into `db` through a library update call (db_updateRssi, ...), as a gateway
// does.
void writeSample(const std::string &db, int32_t (*update)(char **),
                 std::vector<std::string> values);

std::string readFile(const std::string &path);
void writeFile(const std::string &path, const std::string &text);

// Compares with tools/tests/golden/<name>; ANALYTICSDB_UPDATE_GOLDEN=1 rewrites the file. The
// golden file says `placeholder` where `actual` says `varying` (a pid, a process name).
void expectGolden(const std::string &name, std::string actual,
                  const std::vector<std::pair<std::string, std::string>> &varying = {});

} // namespace adbtool::test
