// fault_common.h - what the fault tests share.
//
//  - FaultCounter: a fault site that, once armed with N, fails its N-th pass (armed with 0 it
//    only counts the passes).
//  - FaultPlan / FaultTest::failEach: run an operation once to count a site's passes, then once
//    for every N up to that count with the N-th pass failing, each time from a freshly prepared
//    file and a closed library connection (so the open is part of the operation). After each
//    run the file must pass integrity_check from a connection of its own and be in one of the
//    allowed states (the old or the new one, never a mix), and a run that failed must have
//    logged an error line. The leak checker of the sanitizer build judges that nothing leaked.
//  - The test device's row in DEVICEINFO (its friendly name) that the single-row operations
//    insert and update, and the plans over it that every fault source runs.
#ifndef ANALYTICSDB_TEST_FAULT_COMMON_H
#define ANALYTICSDB_TEST_FAULT_COMMON_H

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include <sqlite3.h>

#include "support/db_fixture.h"

namespace adbtest {

class FaultCounter {
 public:
  // Called at the site: true when this pass is the one that must fail.
  bool strikes() {
    long failAt = failAt_.load();
    if (failAt < 0) return false;
    long pass = ++passes_;
    if (pass != failAt) return false;
    struck_ = true;
    return true;
  }
  // failAt: the pass that fails; 0 only counts.
  void arm(long failAt) {
    passes_ = 0;
    struck_ = false;
    failAt_ = failAt;
  }
  // Stops failing and counting; returns the passes seen since arming.
  long disarm() {
    failAt_ = -1;
    return passes_.load();
  }
  bool struck() const { return struck_.load(); }

 private:
  std::atomic<long> passes_{0};
  std::atomic<long> failAt_{-1};  // -1: off
  std::atomic<bool> struck_{false};
};

struct FaultPlan {
  std::function<void()> prepare;       // sets the file up before each run (faults off)
  std::function<int32_t()> operation;  // runs from a closed connection: the open is part of it
  int32_t clean = DB_STATUS_SUCCESS;   // its status when nothing fails
  std::set<int32_t> allowed;           // the statuses a run with a fault may end with
  std::function<void(int32_t status)> settle;   // optional: after the operation, faults off
  std::function<std::string(RawDb &)> observe;  // the state of the file, from a fresh connection
  std::set<std::string> outcomes;               // the states a run may leave
  std::string committed;          // optional: the state a run ending in `clean` leaves
  std::function<void()> cleanup;  // optional: after the file was checked
};

class FaultTest : public DbTest {
 protected:
  static constexpr const char *kMac = "11:22:33:44:55:66";

  // Makes DEVICEINFO and keeps the log to error lines: the runs are judged by them alone.
  void SetUp() override;

  // Runs the plan with every pass of `fault` failing in turn; returns the number of passes
  // (the fault points covered), also recorded as the test property `property` and printed.
  long failEach(FaultCounter &fault, const FaultPlan &plan, const std::string &property);

  // A plan over the test device's name: `busy_` is released after the operation, and what the
  // run left parked is then replayed or dropped.
  FaultPlan namePlan(std::function<void()> prepare, std::function<int32_t()> operation,
                     int32_t clean, std::set<int32_t> allowed, std::set<std::string> outcomes);
  // The replay of a parked write: the head stays for a later call or is removed with its status.
  FaultPlan replayPlan();
  // The two writes of the test device's name every fault source runs: an insert, and an update
  // (its INSERT meets the key, then the UPDATE writes). A run leaves the old name or the new one.
  struct NameWrite {
    const char *what;
    const char *before;  // null: no row
    const char *after;
  };
  static constexpr NameWrite kNameWrites[] = {{"insert", nullptr, "Kitchen TV"},
                                              {"update", "Old name", "New name"}};
  FaultPlan writePlan(const NameWrite &write, std::set<int32_t> allowed);

  // The friendly name of `mac`, or of the test device ("<none>" without a row or the table).
  static std::string nameOf(RawDb &db, const char *mac);
  static std::string storedName(RawDb &db) { return nameOf(db, kMac); }
  // The test device's row holds `name`, or there is no row for a null name.
  void resetRow(const char *name);
  static int32_t writeName(const char *name);

  std::optional<BusyHolder> busy_;  // held during a run, released after it

 private:
  // Closes the library's connection, checks the whole file from a connection of its own and
  // returns what `observe` sees there.
  std::string checkFile(const std::function<std::string(RawDb &)> &observe);
};

// A VFS over the default one, registered as the default while a test runs. A file of it is
// `headerSize` bytes of the test's own header with the real VFS's file behind them; `open` opens
// it, `remove` deletes (null: the real VFS deletes), and every other call goes to the real VFS.
// False when there is no default VFS to wrap. realVfs() is the one beneath while installed.
using ShimOpen = int (*)(sqlite3_vfs *, sqlite3_filename, sqlite3_file *, int, int *);
using ShimDelete = int (*)(sqlite3_vfs *, const char *, int);
bool installShimVfs(const char *name, size_t headerSize, ShimOpen open,
                    ShimDelete remove = nullptr);
void removeShimVfs();
sqlite3_vfs *realVfs();

}  // namespace adbtest

#endif
