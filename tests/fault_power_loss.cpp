// fault_power_loss.cpp - power cuts at every sync point of a write.
//
// The shim VFS (support/fault_common.h), the default while a test runs, keeps for every file
// the content it had at its last sync (and forgets a deleted file only when the deletion itself
// was synced): what a flash file system holds after the power goes. Each operation runs once;
// the durable image after each of its sync points, and after it returned, is written into a
// fresh folder and opened there as the next boot would. Every image must pass integrity_check
// and hold the old state or the new one; the image after the operation returned 0 must hold the
// new one.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "support/fault_common.h"

namespace {

using adbtest::Values;
namespace fs = std::filesystem;

// Path -> content as a power cut would leave it; no entry: the file would not exist.
using Image = std::map<std::string, std::string>;

Image gDurable;
std::vector<Image> gCuts;  // the durable image right after each sync point

// A synced file's content is durable from then on: a cut after the sync point keeps it. A
// temporary file does not outlive a cut.
void synced(const char *path) {
  if (path == nullptr) return;
  std::ifstream in(path, std::ios::binary);
  if (in) gDurable[path] = std::string(std::istreambuf_iterator<char>(in), {});
  gCuts.push_back(gDurable);
}

// Only a deletion whose folder was synced survives a cut.
void deleted(const char *path) {
  gDurable.erase(path);
  gCuts.push_back(gDurable);
}

class PowerLossTest : public adbtest::FaultTest {
 protected:
  void SetUp() override {
    FaultTest::SetUp();
    createInventoryTables();
    createSeriesTables();
    ASSERT_EQ(db_updateDBVersion(5), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_updatePrimitiveRssi(Values{kMac, "1700000000", "1"}.data()), DB_STATUS_SUCCESS);
  }

  // Runs `write` through the shim from a closed connection, then boots every image it could
  // leave: each must pass integrity_check and read as `from` or `to` (by the query `state` of
  // one value, "none" for NULL or no row), and the image after it returned 0 must read as `to`.
  // Returns the number of images checked.
  size_t cutEverywhere(int32_t (*write)(), const char *state, const char *from, const char *to) {
    SCOPED_TRACE(state);
    EXPECT_EQ(raw().scalar(state).value_or("none"), from);
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    // What is on disk before the operation is durable.
    gDurable.clear();
    for (const fs::directory_entry &entry : fs::directory_iterator(tempDir_))
      if (entry.is_regular_file()) synced(entry.path().c_str());
    gCuts.clear();
    EXPECT_TRUE(adbtest::installShimVfs({.synced = synced, .deleted = deleted}));
    EXPECT_EQ(write(), DB_STATUS_SUCCESS);
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    adbtest::removeShimVfs();
    gCuts.push_back(gDurable);  // the cut after the operation returned
    for (size_t cut = 0; cut < gCuts.size(); ++cut) {
      // The last cut is the one after the operation returned.
      SCOPED_TRACE("power cut " + std::to_string(cut + 1) + " of " + std::to_string(gCuts.size()));
      const std::string booted = boot(gCuts[cut], state);
      // A cut after a sync point leaves either state; the write that returned 0 is not lost.
      EXPECT_TRUE(booted == to || (booted == from && cut + 1 < gCuts.size())) << booted;
    }
    return gCuts.size();
  }

  // Writes the image into a folder of its own and opens it there, hot journal and all.
  std::string boot(const Image &image, const std::string &state) {
    const fs::path folder = fs::path(tempDir_) / "boot";
    fs::remove_all(folder);
    fs::create_directory(folder);
    for (const auto &[path, content] : image)
      std::ofstream(folder / fs::path(path).filename(), std::ios::binary) << content;
    adbtest::RawDb booted((folder / fs::path(dbPath()).filename()).string());
    EXPECT_EQ(booted.scalar("PRAGMA integrity_check"), adbtest::Cell("ok"));
    return booted.scalar(state).value_or("none");
  }
};

TEST_F(PowerLossTest, EveryWriteThatReturnedSurvivesACutAndNoneIsHalfDone) {
  size_t cuts = cutEverywhere(
      [] { return db_updateDeviceInfoCapacity(Values{kMac, "42"}.data()); },
      "SELECT CAPACITY FROM DEVICEINFO WHERE MAC_S = '11:22:33:44:55:66'", "none", "42");
  // A tick: three samples in one transaction, all or nothing (a failed BEGIN fails the COMMIT).
  auto tick = [] {
    db_beginTransaction();
    db_updateRssi(Values{kMac, "1700000300", "2", "-40"}.data());
    db_updateBandWidthRx(Values{kMac, "WAN", "1700000300", "2", "1000"}.data());
    db_updateBandWidthTx(Values{kMac, "WAN", "1700000300", "2", "2000"}.data());
    return db_commitTransaction();
  };
  // Each sample's slot as written, so that a tick half on disk reads as neither state.
  cuts += cutEverywhere(tick, "SELECT group_concat(SLOT2, '/') FROM (SELECT SLOT2 FROM RSSI1 UNION "
                        "ALL SELECT SLOT2 FROM BANDWIDTHRX1 UNION ALL SELECT SLOT2 FROM "
                        "BANDWIDTHTX1)", "none", "-40/1000/2000");
  cuts += cutEverywhere([] { return db_updateDBVersion(7); }, "PRAGMA user_version", "5", "7");
  RecordProperty("power_cuts", static_cast<int>(cuts));
  std::printf("power cuts checked: %zu\n", cuts);
}

}  // namespace
