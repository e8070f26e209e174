// fault_common.h - what the fault programs share.
//
//  - FaultCounter: a fault site that, once armed with N, fails its N-th pass (armed with 0 it
//    only counts the passes).
//  - FaultPlan / FaultTest::failEach: run an operation once to count a site's passes, then once
//    for every N up to that count with the N-th pass failing; after each run the file must pass
//    integrity_check from a connection of its own and be in one of the allowed states.
//  - The test device's row in DEVICEINFO (its friendly name) that the single-row operations
//    insert and update.
#ifndef ANALYTICSDB_TEST_FAULT_COMMON_H
#define ANALYTICSDB_TEST_FAULT_COMMON_H

#include <atomic>
#include <cstdio>
#include <functional>
#include <set>
#include <string>

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

  // Closes the library's connection, checks the whole file from a connection of its own and
  // returns what `observe` sees there.
  std::string checkFile(const std::function<std::string(RawDb &)> &observe) {
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    RawDb check(dbPath());
    EXPECT_EQ(check.scalar("PRAGMA integrity_check"), Cell("ok"));
    return observe(check);
  }

  // Runs the plan with every pass of `fault` failing in turn; returns the number of passes
  // (the fault points covered), also recorded as the test property `property` and printed.
  long failEach(FaultCounter &fault, const FaultPlan &plan, const std::string &property) {
    long total = 0;
    int32_t status = runOnce(fault, plan, 0, &total);
    if (plan.cleanup) plan.cleanup();
    EXPECT_EQ(status, plan.clean) << property << ": the operation fails without any fault";
    EXPECT_GT(total, 0) << property;
    RecordProperty(property, std::to_string(total));
    std::printf("[ fault    ] %s: %ld fault points\n", property.c_str(), total);
    if (HasFailure()) return total;
    for (long n = 1; n <= total; ++n) {
      SCOPED_TRACE(property + ": pass " + std::to_string(n) + " of " + std::to_string(total));
      status = runOnce(fault, plan, n, nullptr);
      EXPECT_TRUE(plan.allowed.count(status) == 1) << "status " << status;
      std::string state = checkFile(plan.observe);
      EXPECT_TRUE(plan.outcomes.count(state) == 1) << state;
      if (status == plan.clean && !plan.committed.empty()) {
        EXPECT_EQ(state, plan.committed) << "a run reports success but lost its write";
      }
      if (plan.cleanup) plan.cleanup();
      if (HasFailure()) break;
    }
    return total;
  }

  // The test device's friendly name ("<none>" without a row).
  static std::string storedName(RawDb &db) {
    return db
        .scalar(std::string("SELECT FRIENDLYNAME_S FROM DEVICEINFO WHERE MAC_S = '") + kMac + "'")
        .value_or("<none>");
  }

  // The test device's row holds `name`, or there is no row for a null name.
  void resetRow(const char *name) {
    raw().exec("DELETE FROM DEVICEINFO");
    if (name != nullptr) {
      raw().exec(std::string("INSERT INTO DEVICEINFO (MAC_S, FRIENDLYNAME_S) VALUES ('") + kMac +
                 "', '" + name + "')");
    }
  }

  static int32_t writeName(const char *name) {
    return db_updateDeviceInfoBeaconFName(Values{kMac, name}.data());
  }

 private:
  int32_t runOnce(FaultCounter &fault, const FaultPlan &plan, long failAt, long *passes) {
    plan.prepare();
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    log().clear();
    fault.arm(failAt);
    int32_t status = plan.operation();
    long seen = fault.disarm();
    if (passes != nullptr) *passes = seen;
    if (plan.settle) plan.settle(status);
    return status;
  }
};

}  // namespace adbtest

#endif
