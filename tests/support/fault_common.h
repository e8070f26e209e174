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
//  - A shim VFS over the default one, through which writes and syncs can fail or be watched.
#ifndef ANALYTICSDB_TEST_FAULT_COMMON_H
#define ANALYTICSDB_TEST_FAULT_COMMON_H

#include <atomic>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace adbtest {

struct FaultCounter {
  // Called at the site: true when this pass is the one that must fail.
  bool strikes() { return on_ && ++passes_ == failAt_; }
  // failAt: the pass that fails; 0 only counts.
  void arm(long failAt) {
    passes_ = 0;
    failAt_ = failAt;
    on_ = true;
  }
  // Stops failing and counting; returns the passes seen since arming.
  long disarm() {
    on_ = false;
    return passes_;
  }
  // Whether the failing pass was reached since arming.
  bool struck() const { return failAt_ > 0 && passes_ >= failAt_; }

  std::atomic<long> passes_{0}, failAt_{0};  // set by arm() only
  std::atomic<bool> on_{false};
};

// The test device, whose row the single-row operations write.
inline constexpr const char *kDeviceMac = "11:22:33:44:55:66";
// The friendly name of `mac` ("<none>" without a row or the table).
std::string nameOf(RawDb &db, const char *mac = kDeviceMac);

// An observer of a plan's file: the single value of `sql`, "<none>" for NULL or no row.
inline std::function<std::string(RawDb &)> stateOf(std::string sql) {
  return [sql](RawDb &db) { return db.scalar(sql).value_or("<none>"); };
}

// Statuses a run may end in.
using Statuses = std::set<int32_t>;

// Every member has an initializer, so that a plan names only the members it needs.
struct FaultPlan {
  std::function<void()> prepare = {};       // sets the file up before each run (faults off)
  std::function<int32_t()> operation = {};  // runs from a closed connection: the open is part of it
  int32_t clean = DB_STATUS_SUCCESS;        // its status when nothing fails
  Statuses allowed = {};                    // the statuses a run with a fault may end with
  std::set<std::string> outcomes = {};      // the states a run may leave
  std::string committed = {};               // optional: the state a run ending in `clean` leaves
  // The state of the file, from a fresh connection: by default the test device's name.
  std::function<std::string(RawDb &)> observe = [](RawDb &db) { return nameOf(db); };
  std::function<void()> settle = {};  // optional: after the operation, faults off
};

class FaultTest : public DbTest {
 protected:
  static constexpr const char *kMac = kDeviceMac;

  // Makes DEVICEINFO and keeps the log to error lines: the runs are judged by them alone.
  void SetUp() override;
  // Removes the shim VFS, if a test installed it, once every connection through it is closed.
  void TearDown() override;

  // Runs the plan with every pass of `fault` failing in turn. After each run `busy_` is released
  // and what the run left parked is replayed or dropped. The number of passes (the fault points
  // covered) is recorded as the test property `property` and printed.
  void failEach(FaultCounter &fault, const FaultPlan &plan, const std::string &property);

  // A write of the test device's row from `before` to `after` (null or "<none>": no row).
  struct NameWrite {
    const char *what, *before, *after;
    int32_t (*operation)();
  };
  // The two writes of the test device's name every fault source runs: an insert, and an update
  // (its INSERT meets the key, then the UPDATE writes).
  static const NameWrite kNameWrites[2];
  FaultPlan writePlan(const NameWrite &write, Statuses allowed);
  // What every allocation fault source runs, each with every pass of `fault` failing in turn and
  // each run ending in one of the statuses given for it: `writes`; a read of DEVICEINFO's three
  // rows into records, which are then freed; a write that meets the busy file, which answers 3
  // exactly when it was parked and parks the whole request; the replay of a parked write, whose
  // head stays for a later call or is removed with its status (0, 2 or 3).
  void failEachRowOperation(FaultCounter &fault, const std::vector<NameWrite> &writes,
                            const Statuses &written, const Statuses &read, const Statuses &parked);

  // Runs `sql` on the test's own connection.
  std::function<void()> execs(std::string sql) { return [this, sql] { raw().exec(sql); }; }
  // The test device's row holds `name`, or there is no row for a null name.
  void resetRow(const char *name);
  static int32_t writeName(const char *name, const char *mac = kMac) {
    return db_updateDeviceInfoBeaconFName(Values{mac, name}.data());
  }

  std::optional<BusyHolder> busy_;  // held during a run, released after it
};

// What the shim VFS adds to the default one while installed; null members add nothing.
struct ShimHooks {
  FaultCounter *writes = nullptr;  // a write on its failing pass ends in SQLITE_IOERR_WRITE
  FaultCounter *syncs = nullptr;   // a sync on its failing pass ends in SQLITE_IOERR_FSYNC
  void (*synced)(const char *path) = nullptr;   // after a sync; null path: a temporary file
  void (*deleted)(const char *path) = nullptr;  // after a deletion whose folder was synced
};
// Makes the shim the default VFS, so that every connection opened from now on reaches its
// database, journal and temporary files through it; false when there is no VFS to wrap.
bool installShimVfs(const ShimHooks &hooks);
void removeShimVfs();

}  // namespace adbtest

#endif
