// The queue counters published for collectors in other processes: <folder>/queue.<pid>, written
// when they changed, removed by db_freeQueue, and never on a file system outside RAM.
#include <linux/magic.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/db_fixture.h"

namespace {

namespace fs = std::filesystem;

std::string contentsOf(const fs::path &path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// What the file must hold for counters `s`, in the order collectors may rely on.
std::string published(const QueueStats &s) {
  const std::string process = contentsOf("/proc/self/comm");  // ends with its newline
  std::ostringstream text;
  text << "pid " << getpid() << "\nprocess " << process << "parked " << s.parked << "\nreplayed "
       << s.replayed << "\nretried " << s.retried << "\ndroppedError " << s.droppedError
       << "\ndroppedMalformed " << s.droppedMalformed << "\nfreed " << s.freed << "\nrefused "
       << s.refused << "\nstalls " << s.stalls << "\nlength " << s.length << "\npeakLength "
       << s.peakLength << "\n";
  return text.str();
}

class QueuePublication : public adbtest::DbTest {
 protected:
  void TearDown() override {
    setenv("ANALYTICSDB_STATS_DIR", "", 1);
    DbTest::TearDown();
    std::error_code ignored;
    for (const fs::path &folder : made_) fs::remove_all(folder, ignored);
  }

  // A fresh folder under `base`, whose "stats" child the library is to make and publish in.
  fs::path statsFolderUnder(const fs::path &base) {
    std::string pattern = (base / "adbtest-stats.XXXXXX").string();
    EXPECT_NE(mkdtemp(pattern.data()), nullptr);
    made_.push_back(pattern);
    setenv("ANALYTICSDB_STATS_DIR", (pattern + "/stats").c_str(), 1);
    EXPECT_EQ(db_initQueue(), 0);  // reads the folder again
    return fs::path(pattern) / "stats";
  }

  // Parks a write against the held database, and processes once while it is still held.
  void parkAndRetry() {
    createInventoryTables();
    adbtest::BusyHolder holder(dbPath());
    ASSERT_EQ(db_updateDeviceInfoCapacity(adbtest::Values{"aa:bb:cc:dd:ee:01", "5"}.data()),
              DB_STATUS_BUSY);
    EXPECT_EQ(db_processQueueEntry(), DB_STATUS_EMPTY);
  }

  static QueueStats stats() {
    QueueStats now{};
    db_getQueueStats(&now);
    return now;
  }

 private:
  std::vector<fs::path> made_;
};

TEST_F(QueuePublication, ChangedCountersReplaceTheFileAndFreeingRemovesIt) {
  const fs::path folder = statsFolderUnder("/dev/shm");
  const fs::path file = folder / ("queue." + std::to_string(getpid()));
  parkAndRetry();
  ASSERT_TRUE(fs::is_directory(folder));
  EXPECT_EQ(stats().length, 1u);
  EXPECT_EQ(contentsOf(file), published(stats()));

  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(contentsOf(file), published(stats()));
  // Nothing changed: the file is not written again, and no temporary file is left beside it.
  auto stamp = [&file] {
    struct stat now {};
    EXPECT_EQ(stat(file.c_str(), &now), 0);
    return std::make_tuple(now.st_ino, now.st_mtim.tv_sec, now.st_mtim.tv_nsec);
  };
  const auto first = stamp();
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);
  EXPECT_EQ(stamp(), first);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);

  EXPECT_EQ(db_freeQueue(), 0);
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(log().countContaining("Queue counters"), 0u) << log().dump();
}

TEST_F(QueuePublication, AFolderOutsideRamIsRefusedWithOneNotice) {
  // The working folder (the build tree, under ctest) is normally on a disk.
  struct statfs here {};
  ASSERT_EQ(statfs(".", &here), 0);
  if (static_cast<uint32_t>(here.f_type) == TMPFS_MAGIC ||
      static_cast<uint32_t>(here.f_type) == RAMFS_MAGIC) {
    GTEST_SKIP() << "the working folder is in RAM: no folder outside it to try";
  }
  const fs::path folder = statsFolderUnder(fs::current_path());
  parkAndRetry();
  EXPECT_EQ(db_processQueueEntry(), DB_STATUS_SUCCESS);  // changed again: still no second line
  EXPECT_EQ(log().count(RYX_LOG_NOTICE, "[analyticsDB] Queue counters are not published in " +
                                            folder.string() +
                                            ": not a file system in RAM (tmpfs or ramfs), and "
                                            "writes to flash wear it\n"),
            1u)
      << log().dump();
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 0);
}

}  // namespace
