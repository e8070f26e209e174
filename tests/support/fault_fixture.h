// fault_fixture.h - runs an operation once for every point where a fault can hit it.
//
// A FaultSource counts events (allocations, writes, syncs) while armed with 0 and fails the
// N-th one when armed with N. FaultTest::failEachPoint() runs an operation once to count its
// events, then once per N with the N-th failing, each time from a freshly prepared file and a
// closed library connection (so the open is part of the operation). After every run the file
// is checked from a connection of its own: "PRAGMA integrity_check" is "ok", and the state the
// test describes (by default: the name stored for the test's device) is the old or the new
// one, never a mix. Whatever the
// fault left parked is then replayed or dropped, and the leak checker of the sanitizer build
// judges that nothing leaked.
#ifndef ANALYTICSDB_TEST_FAULT_FIXTURE_H
#define ANALYTICSDB_TEST_FAULT_FIXTURE_H

#include <functional>
#include <optional>
#include <set>
#include <string>

#include "support/db_fixture.h"

namespace adbtest {

struct FaultSource {
  const char *name;
  void (*arm)(long failAt);  // 0: count only; N > 0: the N-th event fails; < 0: off
  long (*count)();           // events since the last arming
};

class FaultTest : public DbTest {
 public:
  // Reads the state a run left in the file.
  using State = std::function<std::string(RawDb &)>;

 protected:
  static constexpr const char *kMac = "11:22:33:44:55:66";

  void SetUp() override;

  struct Expect {
    int32_t clean;              // the status without a fault
    std::set<int32_t> allowed;  // the statuses a faulted run may end with
    std::string before;         // the state a failed run may leave
    std::string after;          // the state of a run without a fault (either, after a fault)
    State state = nameOfDevice;  // how the state is read from the file
  };
  // Runs `operation` with each of its fault points failing in turn; returns the number of
  // points. `prepare` sets the file up before each run, unarmed.
  long failEachPoint(const FaultSource &source, const std::function<void()> &prepare,
                     const std::function<int32_t()> &operation, const Expect &expect);

  // The replay of a parked write with each fault point failing: the head stays for a later
  // call or is removed with its status.
  long failReplayOfParkedWrite(const FaultSource &source);

  // The stored name of kMac, "<none>" without a row or a table.
  static std::string nameOfDevice(RawDb &file);
  // DEVICEINFO holds exactly kMac, named `name` (none when null).
  void resetDevice(const char *name);
  static int32_t writeName(const char *name);

  std::optional<BusyHolder> busy_;  // held during a run, released after it

 private:
  std::string checkFile(const State &state);
};

}  // namespace adbtest

#endif
