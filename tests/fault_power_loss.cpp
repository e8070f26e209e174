/*
 * fault_power_loss.cpp - power cuts at every sync point of a write.
 *
 * A shim VFS, the default while a test runs, keeps for every file the content it had at its
 * last sync (and forgets a deleted file only when the deletion itself was synced): what a flash
 * file system holds after the power goes. Each operation runs once; the durable image after each
 * of its sync points, and after it returned, is written into a fresh folder and opened there as
 * the next boot would. Every image must pass integrity_check and hold the old state or the new
 * one; the image after the operation returned 0 must hold the new one.
 */
#include <sqlite3.h>

#include <cstdio>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/db_fixture.h"
#include "support/fault_common.h"

namespace {

using adbtest::Cell;
using adbtest::RawDb;
using adbtest::Values;
namespace fs = std::filesystem;

// Path -> content as a power cut would leave it; no entry: the file would not exist.
using Image = std::map<std::string, std::string>;

Image gDurable;
std::vector<Image> gCuts;  // the durable image right after each sync point

std::optional<std::string> contentOf(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/* ---- the shim: forwards everything; xSync and a synced xDelete make changes durable ---- */


struct ShimFile {
  sqlite3_file base;
  sqlite3_file *real;
  const char *path;  // valid until xClose; null for temporary files
};
constexpr size_t kRealFileOffset = (sizeof(ShimFile) + 15) & ~static_cast<size_t>(15);

sqlite3_file *realOf(sqlite3_file *file) { return reinterpret_cast<ShimFile *>(file)->real; }
const sqlite3_io_methods *methodsOf(sqlite3_file *file) { return realOf(file)->pMethods; }

#define ADB_TO_FILE(method) \
  [](sqlite3_file *f, auto... args) { return methodsOf(f)->method(realOf(f), args...); }

const sqlite3_io_methods kShimMethods = {
    .iVersion = 2,
    .xClose = ADB_TO_FILE(xClose),
    .xRead = ADB_TO_FILE(xRead),
    .xWrite = ADB_TO_FILE(xWrite),
    .xTruncate = ADB_TO_FILE(xTruncate),
    .xSync = [](sqlite3_file *f, int flags) {
      int result = methodsOf(f)->xSync(realOf(f), flags);
      const char *path = reinterpret_cast<ShimFile *>(f)->path;
      if (result == SQLITE_OK && path != nullptr) {
        if (std::optional<std::string> content = contentOf(path)) gDurable[path] = *content;
        gCuts.push_back(gDurable);
      }
      return result;
    },
    .xFileSize = ADB_TO_FILE(xFileSize),
    .xLock = ADB_TO_FILE(xLock),
    .xUnlock = ADB_TO_FILE(xUnlock),
    .xCheckReservedLock = ADB_TO_FILE(xCheckReservedLock),
    .xFileControl = ADB_TO_FILE(xFileControl),
    .xSectorSize = ADB_TO_FILE(xSectorSize),
    .xDeviceCharacteristics = ADB_TO_FILE(xDeviceCharacteristics),
    .xShmMap = ADB_TO_FILE(xShmMap),
    .xShmLock = ADB_TO_FILE(xShmLock),
    .xShmBarrier = ADB_TO_FILE(xShmBarrier),
    .xShmUnmap = ADB_TO_FILE(xShmUnmap),
    .xFetch = nullptr,
    .xUnfetch = nullptr,
};

int shimOpen(sqlite3_vfs *, sqlite3_filename name, sqlite3_file *file, int flags, int *outFlags) {
  auto *shim = reinterpret_cast<ShimFile *>(file);
  shim->base.pMethods = nullptr;
  shim->real = reinterpret_cast<sqlite3_file *>(reinterpret_cast<char *>(file) + kRealFileOffset);
  shim->path = name;
  int result = adbtest::realVfs()->xOpen(adbtest::realVfs(), name, shim->real, flags, outFlags);
  if (shim->real->pMethods != nullptr) shim->base.pMethods = &kShimMethods;
  return result;
}

// A deletion survives a cut only once its directory is synced.
int shimDelete(sqlite3_vfs *, const char *path, int syncDir) {
  int result = adbtest::realVfs()->xDelete(adbtest::realVfs(), path, syncDir);
  if (result == SQLITE_OK && syncDir != 0) {
    gDurable.erase(path);
    gCuts.push_back(gDurable);
  }
  return result;
}

/* ---- the operations ---- */

constexpr const char *kMac = "11:22:33:44:55:66";

class PowerLossTest : public adbtest::DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    ryxLogSetLevel(RYX_LOG_ERROR);
    createInventoryTables();
    createSeriesTables();
    ASSERT_EQ(db_updateDBVersion(5), DB_STATUS_SUCCESS);
    ASSERT_EQ(db_updatePrimitiveRssi(Values{kMac, "1700000000", "1"}.data()), DB_STATUS_SUCCESS);
  }
  void TearDown() override {
    DbTest::TearDown();
    adbtest::removeShimVfs();
  }

  // Runs `operation` through the shim from a closed connection, then boots every image it could
  // leave: each must pass integrity_check and read as `before` or `after` (by `observe`), and the
  // image after it returned 0 must read as `after`. Returns the number of images checked.
  size_t cutEverywhere(const std::function<int32_t()> &operation,
                       const std::function<std::string(RawDb &)> &observe,
                       const std::string &before, const std::string &after) {
    EXPECT_EQ(observe(raw()), before);
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    gDurable.clear();
    gCuts.clear();
    for (const fs::directory_entry &entry : fs::directory_iterator(tempDir_)) {
      if (!entry.is_regular_file()) continue;
      if (std::optional<std::string> content = contentOf(entry.path().string())) {
        gDurable[entry.path().string()] = *content;
      }
    }
    EXPECT_TRUE(
        adbtest::installShimVfs("adbtest-power-loss", kRealFileOffset, shimOpen, shimDelete));
    const int32_t status = operation();
    EXPECT_EQ(status, DB_STATUS_SUCCESS);
    EXPECT_EQ(db_closeDbConnection(), DB_STATUS_SUCCESS);
    adbtest::removeShimVfs();
    gCuts.push_back(gDurable);  // the cut after the operation returned
    for (size_t cut = 0; cut < gCuts.size(); ++cut) {
      SCOPED_TRACE(cut + 1 == gCuts.size() ? std::string("power cut after the operation returned")
                                            : "power cut after sync point " +
                                                  std::to_string(cut + 1) + " of " +
                                                  std::to_string(gCuts.size() - 1));
      std::string state = boot(gCuts[cut], observe);
      if (cut + 1 == gCuts.size() && status == DB_STATUS_SUCCESS) {
        EXPECT_EQ(state, after) << "a write that returned 0 is lost";
      } else {
        EXPECT_TRUE(state == before || state == after) << state;
      }
    }
    return gCuts.size();
  }

  // Writes the image into a folder of its own and opens it there, hot journal and all.
  std::string boot(const Image &image, const std::function<std::string(RawDb &)> &observe) {
    const fs::path folder = fs::path(tempDir_) / "boot";
    fs::remove_all(folder);
    fs::create_directory(folder);
    for (const auto &[path, content] : image) {
      std::ofstream(folder / fs::path(path).filename(), std::ios::binary) << content;
    }
    RawDb booted((folder / fs::path(dbPath()).filename()).string());
    EXPECT_EQ(booted.scalar("PRAGMA integrity_check"), Cell("ok"));
    return observe(booted);
  }
};

TEST_F(PowerLossTest, EveryWriteThatReturnedSurvivesACutAndNoneIsHalfDone) {
  size_t cuts = cutEverywhere(
      [] { return db_updateDeviceInfoCapacity(Values{kMac, "42"}.data()); },
      [](RawDb &db) {
        return db.scalar("SELECT CAPACITY FROM DEVICEINFO WHERE MAC_S = '" + std::string(kMac) +
                         "'")
            .value_or("none");
      },
      "none", "42");

  // A tick: three samples in one transaction, all or nothing.
  cuts += cutEverywhere(
      [] {
        if (db_beginTransaction() != DB_STATUS_SUCCESS) return DB_STATUS_FAILURE;
        db_updateRssi(Values{kMac, "1700000300", "2", "-40"}.data());
        db_updateBandWidthRx(Values{kMac, "WAN", "1700000300", "2", "1000"}.data());
        db_updateBandWidthTx(Values{kMac, "WAN", "1700000300", "2", "2000"}.data());
        return db_commitTransaction();
      },
      [](RawDb &db) {
        return db.scalar("SELECT (SELECT SLOT2 FROM RSSI1) || '/' || "
                         "ifnull((SELECT SLOT2 FROM BANDWIDTHRX1), '-') || '/' || "
                         "ifnull((SELECT SLOT2 FROM BANDWIDTHTX1), '-')")
            .value_or("none");
      },
      "none", "-40/1000/2000");

  cuts += cutEverywhere([] { return db_updateDBVersion(7); },
                        [](RawDb &db) { return db.scalar("PRAGMA user_version").value_or(""); },
                        "5", "7");
  RecordProperty("power_cuts", static_cast<int>(cuts));
  std::printf("power cuts checked: %zu\n", cuts);
}

}  // namespace
