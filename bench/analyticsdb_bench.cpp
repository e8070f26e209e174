// analyticsdb_bench.cpp - each library operation against bare SQLite running the same SQL text.
//
// Every pair is registered as "<operation>/library" and "<operation>/sqlite"; the library side
// calls the public API, the baseline side runs the statements the library logged for that very
// call (captured once, outside the timed loop) through sqlite3_exec / sqlite3_get_table on a
// copy of the same database file. The ratio of the two is what the library itself costs. The
// tick has more baselines: "upsert" (prepared INSERT ... ON CONFLICT DO UPDATE), "floor" (one
// compiled UPDATE per row written, compiled once: the least work that writes the same file) and
// "uncached" (the library with its statement cache off); the existing-row inventory write has
// "prepared" (one compiled UPDATE of the 38 columns). Every tick side also reports, per tick,
// the bytes written and syncs asked for (counted by a VFS shim), SQLite's heap peak, and for the
// library the statement cache's size.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "analyticsdb.h"
#include "bench_support.h"

namespace adbbench {
namespace {

// Both files of a pair, fresh copies of the same template.
struct Pair {
  std::string library;
  std::string sqlite;
};

Pair freshPair(const char *name, bool week) {
  Pair pair{workDir() + "/" + name + "-lib.db", workDir() + "/" + name + "-sqlite.db"};
  for (const std::string *path : {&pair.library, &pair.sqlite}) {
    if (week) {
      copyWeekDatabase(*path);
    } else {
      copyEmptyDatabase(*path);
    }
  }
  return pair;
}

// The statements of `work` as the library composes them, collected on a scratch copy inside one
// transaction (so collecting hundreds of writes costs one sync); BEGIN and COMMIT are left out.
std::vector<Statement> captureInTransaction(bool week, const std::function<void()> &work) {
  std::string scratch = workDir() + "/scratch.db";
  if (week) {
    copyWeekDatabase(scratch);
  } else {
    copyEmptyDatabase(scratch);
  }
  useLibraryDatabase(scratch);
  db_beginTransaction();
  StatementCapture capture;
  work();
  std::vector<Statement> statements = capture.stop();
  db_commitTransaction();
  db_close();
  return statements;
}

std::vector<Statement> capture(const std::function<void()> &work) {
  StatementCapture capture;
  work();
  return capture.stop();
}

void failIf(benchmark::State &state, bool failed, const char *what) {
  if (failed) state.SkipWithError(what);
}

// Per-iteration I/O and SQLite's heap peak of the timed loop `run`.
template <typename Run>
void measured(benchmark::State &state, Run &&run) {
  IoCounts before = ioCounts();
  sqlite3_memory_highwater(1);
  int64_t iterations = 0;
  for (auto _ : state) {
    run();
    ++iterations;
  }
  IoCounts after = ioCounts();
  double n = iterations > 0 ? static_cast<double>(iterations) : 1.0;
  state.counters["bytes_written"] = static_cast<double>(after.bytesWritten - before.bytesWritten) / n;
  state.counters["syncs"] = static_cast<double>(after.syncs - before.syncs) / n;
  state.counters["heap_peak_kib"] = static_cast<double>(sqlite3_memory_highwater(0)) / 1024.0;
  uint32_t statements = 0, bytes = 0;
  db_getStatementCacheFigures(&statements, &bytes);
  state.counters["cache_statements"] = statements;
  state.counters["cache_kib"] = bytes / 1024.0;
}

/* ---------------------------------------------------------------- inventory writes ---- */

constexpr int kNewRows = 4096;

std::vector<std::vector<std::string>> newRows() {
  std::vector<std::vector<std::string>> rows;
  for (int i = 0; i < kNewRows; ++i) {
    char mac[32];
    std::snprintf(mac, sizeof mac, "NE:WR:OW:%02X:%02X:%02X", i >> 16, (i >> 8) & 0xff, i & 0xff);
    rows.push_back(deviceInfoRow(mac, i));
  }
  return rows;
}

// A new row each time; when the rows run out the table is emptied, untimed.
void inventoryNewLibrary(benchmark::State &state) {
  Pair files = freshPair("inventory-new", false);
  useLibraryDatabase(files.library);
  RawConnection cleaner(files.library);
  auto rows = newRows();
  int next = 0;
  for (auto _ : state) {
    if (next == kNewRows) {
      state.PauseTiming();
      cleaner.exec("DELETE FROM DEVICEINFO");
      next = 0;
      state.ResumeTiming();
    }
    std::vector<char *> values = pointersOf(rows[static_cast<size_t>(next++)]);
    failIf(state, db_updateDeviceInfoTable(values.data()) != DB_STATUS_SUCCESS, "write failed");
  }
}

void inventoryNewSqlite(benchmark::State &state) {
  Pair files = freshPair("inventory-new", false);
  auto rows = newRows();
  std::vector<Statement> statements = captureInTransaction(false, [&] {
    for (auto &row : rows) db_updateDeviceInfoTable(pointersOf(row).data());
  });
  failIf(state, statements.size() != kNewRows, "one INSERT per new row expected");
  RawConnection raw(files.sqlite);
  size_t next = 0;
  for (auto _ : state) {
    if (next == statements.size()) {
      state.PauseTiming();
      raw.exec("DELETE FROM DEVICEINFO");
      next = 0;
      state.ResumeTiming();
    }
    // The row is built as the caller of the library builds it: the same vector of pointers.
    std::vector<char *> values = pointersOf(rows[next]);
    benchmark::DoNotOptimize(values.data());
    runStatements(raw.get(), {statements[next++]});
  }
}

// An existing row: the refused INSERT, then the UPDATE.
void inventoryExistingLibrary(benchmark::State &state) {
  Pair files = freshPair("inventory-existing", true);
  useLibraryDatabase(files.library);
  std::vector<std::string> row = deviceInfoRow(macOf(7), 1234);
  std::vector<char *> values = pointersOf(row);
  for (auto _ : state) {
    failIf(state, db_updateDeviceInfoTable(values.data()) != DB_STATUS_SUCCESS, "write failed");
  }
}

// The least a bare SQLite user does for an existing row: one compiled UPDATE of its 38 columns.
void inventoryExistingPrepared(benchmark::State &state) {
  Pair files = freshPair("inventory-existing", true);
  std::vector<std::string> row = deviceInfoRow(macOf(7), 1234);
  RawConnection raw(files.sqlite);
  std::string sql = "UPDATE DEVICEINFO SET ";
  for (size_t i = 1; i < row.size(); ++i) {
    sql += std::string(i > 1 ? "," : "") + deviceInfoFields[i] + "=?";
  }
  sql += " WHERE MAC_S=?";
  sqlite3_stmt *update = nullptr;
  failIf(state, sqlite3_prepare_v2(raw.get(), sql.c_str(), -1, &update, nullptr) != SQLITE_OK,
         "prepare failed");
  for (auto _ : state) {
    for (size_t i = 1; i < row.size(); ++i) {
      if (std::strstr(deviceInfoFields[i], "_S") != nullptr) {
        sqlite3_bind_text(update, static_cast<int>(i), row[i].c_str(), -1, SQLITE_STATIC);
      } else {
        sqlite3_bind_int64(update, static_cast<int>(i), std::atoll(row[i].c_str()));
      }
    }
    sqlite3_bind_text(update, static_cast<int>(row.size()), row[0].c_str(), -1, SQLITE_STATIC);
    failIf(state, sqlite3_step(update) != SQLITE_DONE, "update failed");
    sqlite3_reset(update);
  }
  sqlite3_finalize(update);
}

void inventoryExistingSqlite(benchmark::State &state) {
  Pair files = freshPair("inventory-existing", true);
  std::vector<std::string> row = deviceInfoRow(macOf(7), 1234);
  std::vector<Statement> statements =
      captureInTransaction(true, [&] { db_updateDeviceInfoTable(pointersOf(row).data()); });
  failIf(state, statements.size() != 2, "INSERT and UPDATE expected");
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

/* ---------------------------------------------------------------- samples ---- */

constexpr int kTickSlot = kLatestSlot + 1;

struct SampleValues {
  std::vector<std::string> rssi, rx, tx;
};

SampleValues sampleOf(int device, int slot, int phase = 0) {
  std::string mac = macOf(device);
  std::string time = std::to_string(kLatestTime + 300u * static_cast<uint32_t>(slot - kLatestSlot));
  std::string slotText = std::to_string(slot);
  std::string source = device == 0 ? kWanSource : "LAN";
  return {{mac, time, slotText, std::to_string(-40 - device % 50 - phase)},
          {mac, source, time, slotText, std::to_string(5'000'000 + device + phase)},
          {mac, source, time, slotText, std::to_string(900'000 + device + phase)}};
}

void sampleLibrary(benchmark::State &state) {
  Pair files = freshPair("sample", true);
  useLibraryDatabase(files.library);
  SampleValues sample = sampleOf(3, kTickSlot);
  std::vector<char *> values = pointersOf(sample.rssi);
  for (auto _ : state) {
    failIf(state, db_updateRssi(values.data()) != DB_STATUS_SUCCESS, "sample failed");
  }
}

void sampleSqlite(benchmark::State &state) {
  Pair files = freshPair("sample", true);
  SampleValues sample = sampleOf(3, kTickSlot);
  std::vector<Statement> statements =
      captureInTransaction(true, [&] { db_updateRssi(pointersOf(sample.rssi).data()); });
  failIf(state, statements.size() != 4, "two INSERT/UPDATE pairs expected");
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

// Ticks alternate between two sets of values, so that every tick changes every row it writes
// (SQLite skips writing a row that an UPDATE leaves as it was).
std::vector<SampleValues> tickSamples(int phase) {
  std::vector<SampleValues> samples;
  for (int device = 0; device < kDevices; ++device) {
    samples.push_back(sampleOf(device, kTickSlot, phase));
  }
  return samples;
}

// One 5-minute tick: a sample of each series for every device, in one transaction.
void runTick(std::vector<SampleValues> &samples) {
  db_beginTransaction();
  for (SampleValues &sample : samples) {
    db_updateRssi(pointersOf(sample.rssi).data());
    db_updateBandWidthRx(pointersOf(sample.rx).data());
    db_updateBandWidthTx(pointersOf(sample.tx).data());
  }
  db_commitTransaction();
}

// Also what a tick costs the flash: bytes written and syncs, with the journal mode the library
// was built with.
void tickLibrary(benchmark::State &state) {
  Pair files = freshPair("tick", true);
  useLibraryDatabase(files.library);
  std::vector<SampleValues> samples[2] = {tickSamples(0), tickSamples(1)};
  int phase = 0;
  measured(state, [&] { runTick(samples[phase ^= 1]); });
  state.counters["statements"] = kDevices * 3 * 4 + 2;
  db_close();
}

void tickUncached(benchmark::State &state) {
  db_setStatementCache(0);
  tickLibrary(state);
  db_setStatementCache(1);
}

// One tick through compiled statements of the baselines: per device and series, `index[s]`
// writes the index row (MAC, source for bandwidth, timestamp, slot) and `slots[s]` the slot
// (MAC, value), all in one transaction.
void runPreparedTick(benchmark::State &state, sqlite3 *db, sqlite3_stmt *const index[3],
                     sqlite3_stmt *const slots[3], const std::vector<SampleValues> &samples) {
  sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
  for (int device = 0; device < kDevices; ++device) {
    const SampleValues &sample = samples[static_cast<size_t>(device)];
    const std::vector<std::string> *series[3] = {&sample.rssi, &sample.rx, &sample.tx};
    for (int s = 0; s < 3; ++s) {
      const std::vector<std::string> &v = *series[s];
      bool rssi = s == 0;
      sqlite3_stmt *row = index[s];
      sqlite3_bind_text(row, 1, v[0].c_str(), -1, SQLITE_STATIC);
      if (!rssi) sqlite3_bind_text(row, 2, v[1].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(row, 3, std::atoll(v[rssi ? 1 : 2].c_str()));
      sqlite3_bind_int(row, 4, std::atoi(v[rssi ? 2 : 3].c_str()));
      if (sqlite3_step(row) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(db));
      sqlite3_reset(row);
      sqlite3_stmt *cell = slots[s];
      sqlite3_bind_text(cell, 1, v[0].c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(cell, 2, std::atoll(v.back().c_str()));
      if (sqlite3_step(cell) != SQLITE_DONE) state.SkipWithError(sqlite3_errmsg(db));
      sqlite3_reset(cell);
    }
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
}

// The floor for the same file: an UPDATE of the index row and one of the slot per sample, each
// compiled once, in one transaction.
void tickFloor(benchmark::State &state) {
  Pair files = freshPair("tick", true);
  RawConnection raw(files.sqlite);
  sqlite3 *db = raw.get();
  std::string slot = "SLOT" + std::to_string(kTickSlot);
  int day = db_findTable(kTickSlot);
  auto prepare = [&](const std::string &sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      state.SkipWithError(sqlite3_errmsg(db));
    }
    return statement;
  };
  sqlite3_stmt *index[3] = {
      prepare("UPDATE PRIMITIVE_RSSI SET TIMESTAMP=?3,SLT_IND=?4 WHERE MAC_S=?1"),
      prepare("UPDATE PRIMITIVE_BANDWIDTHRX SET SOURCE_S=?2,TIMESTAMP=?3,SLT_IND=?4 WHERE MAC_S=?1"),
      prepare("UPDATE PRIMITIVE_BANDWIDTHTX SET SOURCE_S=?2,TIMESTAMP=?3,SLT_IND=?4 WHERE MAC_S=?1")};
  sqlite3_stmt *slots[3];
  const char *words[3] = {"RSSI", "BANDWIDTHRX", "BANDWIDTHTX"};
  for (int s = 0; s < 3; ++s) {
    slots[s] = prepare(std::string("UPDATE ") + words[s] + std::to_string(day) + " SET " + slot +
                       "=?2 WHERE MAC_S=?1");
  }
  std::vector<SampleValues> ticks[2] = {tickSamples(0), tickSamples(1)};
  int phase = 0;
  measured(state, [&] {
    const std::vector<SampleValues> &samples = ticks[phase ^= 1];
    runPreparedTick(state, db, index, slots, samples);
  });
  for (sqlite3_stmt *statement : index) sqlite3_finalize(statement);
  for (sqlite3_stmt *statement : slots) sqlite3_finalize(statement);
}

void tickSqlite(benchmark::State &state) {
  Pair files = freshPair("tick", true);
  std::vector<SampleValues> samples[2] = {tickSamples(0), tickSamples(1)};
  db_close();
  copyWeekDatabase(workDir() + "/tick-capture.db");
  useLibraryDatabase(workDir() + "/tick-capture.db");
  std::vector<Statement> statements[2] = {capture([&] { runTick(samples[0]); }),
                                          capture([&] { runTick(samples[1]); })};
  db_close();
  for (const std::vector<Statement> &tick : statements) {
    failIf(state, tick.size() != kDevices * 3 * 4 + 2, "unexpected statement count");
  }
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements[0]) != 0, "baseline statement failed");
  int phase = 0;
  measured(state, [&] { runStatements(raw.get(), statements[phase ^= 1]); });
  state.counters["statements"] = static_cast<double>(statements[0].size());
}

// What a user of bare SQLite writes for the tick: prepared upserts, one transaction. The slot
// column changes with every tick, so the statements are prepared per tick.
void tickUpsert(benchmark::State &state) {
  Pair files = freshPair("tick", true);
  RawConnection raw(files.sqlite);
  sqlite3 *db = raw.get();
  std::string slot = "SLOT" + std::to_string(kTickSlot);
  int day = db_findTable(kTickSlot);
  auto prepare = [&](const std::string &sql) {
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      state.SkipWithError(sqlite3_errmsg(db));
    }
    return statement;
  };
  auto slotUpsert = [&](const char *word) {
    std::string table = word + std::to_string(day);
    return "INSERT INTO " + table + " (MAC_S," + slot + ") VALUES(?1,?2) ON CONFLICT(MAC_S) DO UPDATE SET " +
           slot + "=excluded." + slot;
  };
  auto indexUpsert = [](const char *table) {
    return std::string("INSERT INTO ") + table +
           " (MAC_S,SOURCE_S,TIMESTAMP,SLT_IND) VALUES(?1,?2,?3,?4) ON CONFLICT(MAC_S) DO UPDATE "
           "SET SOURCE_S=excluded.SOURCE_S,TIMESTAMP=excluded.TIMESTAMP,SLT_IND=excluded.SLT_IND";
  };
  std::string rssiIndex =
      "INSERT INTO PRIMITIVE_RSSI (MAC_S,TIMESTAMP,SLT_IND) VALUES(?1,?3,?4) ON CONFLICT(MAC_S) "
      "DO UPDATE SET TIMESTAMP=excluded.TIMESTAMP,SLT_IND=excluded.SLT_IND";
  std::vector<SampleValues> ticks[2] = {tickSamples(0), tickSamples(1)};
  int phase = 0;
  measured(state, [&] {
    const std::vector<SampleValues> &samples = ticks[phase ^= 1];
    sqlite3_stmt *index[3] = {prepare(rssiIndex), prepare(indexUpsert("PRIMITIVE_BANDWIDTHRX")),
                              prepare(indexUpsert("PRIMITIVE_BANDWIDTHTX"))};
    sqlite3_stmt *slots[3] = {prepare(slotUpsert("RSSI")), prepare(slotUpsert("BANDWIDTHRX")),
                              prepare(slotUpsert("BANDWIDTHTX"))};
    runPreparedTick(state, db, index, slots, samples);
    for (sqlite3_stmt *statement : index) sqlite3_finalize(statement);
    for (sqlite3_stmt *statement : slots) sqlite3_finalize(statement);
  });
}

/* ---------------------------------------------------------------- reads ---- */

constexpr int kReadDevice = 100;

// The week read needs more result columns than stock SQLite allows (see bench_support.h): it
// runs on receive-side day tables of 284 slots, 98.6% of the real width.
Pair narrowPair() {
  Pair pair{workDir() + "/week-read-lib.db", workDir() + "/week-read-sqlite.db"};
  copyNarrowWeekDatabase(pair.library);
  copyNarrowWeekDatabase(pair.sqlite);
  return pair;
}

void weekReadLibrary(benchmark::State &state) {
  Pair files = narrowPair();
  useLibraryDatabase(files.library);
  std::string mac = macOf(kReadDevice);
  for (auto _ : state) {
    BandWidthRecord **list = nullptr;
    int32_t rows = 0;
    failIf(state, db_readMacBandWidthRx(mac.c_str(), &list, &rows) != DB_STATUS_SUCCESS || rows != 1,
           "week read failed");
    db_freeBandWidthResult(&list, rows);
  }
}

void weekReadSqlite(benchmark::State &state) {
  Pair files = narrowPair();
  useLibraryDatabase(files.library);
  std::string mac = macOf(kReadDevice);
  std::vector<Statement> statements = capture([&] {
    BandWidthRecord **list = nullptr;
    int32_t rows = 0;
    db_readMacBandWidthRx(mac.c_str(), &list, &rows);
    db_freeBandWidthResult(&list, rows);
  });
  // One join, or two (days 1-3 and 4-7) where the connection's column limit is below a week's
  // columns, as on stock SQLite; the baseline runs the same SELECTs.
  failIf(state, statements.empty() || statements.size() > 2, "one or two SELECTs expected");
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

// The WAN device's last 24 hours: 288 slots over two day tables, packed oldest first.
constexpr uint32_t kDaySeconds = 86'400;

void latestSpanLibrary(benchmark::State &state) {
  Pair files = freshPair("latest-span", true);
  useLibraryDatabase(files.library);
  auto record = std::make_unique<BandWidthRecord>();
  for (auto _ : state) {
    int32_t wan = 0;
    failIf(state,
           db_readBandWidthLatestRx(kWanSource, kLatestTime - kDaySeconds, record.get(), &wan) !=
                   DB_STATUS_SUCCESS ||
               wan != 1 || record->slotCount != 288,
           "span read failed");
  }
}

void latestSpanSqlite(benchmark::State &state) {
  Pair files = freshPair("latest-span", true);
  useLibraryDatabase(files.library);
  auto record = std::make_unique<BandWidthRecord>();
  std::vector<Statement> statements = capture([&] {
    int32_t wan = 0;
    db_readBandWidthLatestRx(kWanSource, kLatestTime - kDaySeconds, record.get(), &wan);
  });
  failIf(state, statements.size() != 3, "index row and two day tables expected");
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

void deviceTableLibrary(benchmark::State &state) {
  Pair files = freshPair("device-table", true);
  useLibraryDatabase(files.library);
  for (auto _ : state) {
    DeviceInfoRecord **list = nullptr;
    int32_t rows = 0;
    failIf(state, db_readDeviceInfoTable(&list, &rows) != DB_STATUS_SUCCESS || rows != kDevices,
           "device table read failed");
    db_freeDeviceInfoResult(&list, rows);
  }
}

void deviceTableSqlite(benchmark::State &state) {
  Pair files = freshPair("device-table", true);
  useLibraryDatabase(files.library);
  std::vector<Statement> statements = capture([&] {
    DeviceInfoRecord **list = nullptr;
    int32_t rows = 0;
    db_readDeviceInfoTable(&list, &rows);
    db_freeDeviceInfoResult(&list, rows);
  });
  failIf(state, statements.size() != 1, "one SELECT expected");
  RawConnection raw(files.sqlite);
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

/* ---------------------------------------------------------------- write queue ---- */

// 320 inventory writes meet a database held by another connection and are parked; then the
// holder lets go and one db_processQueueEntry replays them all.
constexpr int kQueued = DB_QUEUE_MAX_ENTRIES;

std::vector<std::vector<std::string>> queuedRows() {
  std::vector<std::vector<std::string>> rows;
  for (int i = 0; i < kQueued; ++i) rows.push_back(deviceInfoRow(macOf(i), 77));
  return rows;
}

void parkAndReplay(BusyHolder &holder, std::vector<std::vector<std::string>> &rows,
                   benchmark::State *state) {
  holder.hold();
  for (auto &row : rows) {
    int32_t status = db_updateDeviceInfoTable(pointersOf(row).data());
    if (state != nullptr) failIf(*state, status != DB_STATUS_BUSY, "write not parked");
  }
  holder.release();
  int32_t status = db_processQueueEntry();
  if (state != nullptr) failIf(*state, status != DB_STATUS_SUCCESS || queueCount != 0, "replay");
}

void queueLibrary(benchmark::State &state) {
  // The park and the replay themselves, not the wait for the holder's lock before parking.
  db_setBusyWait(0, 0);
  Pair files = freshPair("queue", true);
  useLibraryDatabase(files.library);
  auto rows = queuedRows();
  BusyHolder holder(files.library);
  parkAndReplay(holder, rows, nullptr);  // the 64 rows past the inventory exist from here on
  for (auto _ : state) parkAndReplay(holder, rows, &state);
}

void queueSqlite(benchmark::State &state) {
  Pair files = freshPair("queue", true);
  std::string scratch = workDir() + "/queue-capture.db";
  copyWeekDatabase(scratch);
  useLibraryDatabase(scratch);
  auto rows = queuedRows();
  std::vector<Statement> parked;
  std::vector<Statement> replayed;
  {
    BusyHolder holder(scratch);
    parkAndReplay(holder, rows, nullptr);
    holder.hold();
    StatementCapture parking;
    for (auto &row : rows) db_updateDeviceInfoTable(pointersOf(row).data());
    parked = parking.stop();
    holder.release();
    StatementCapture replaying;
    db_processQueueEntry();
    replayed = replaying.stop();
  }
  db_close();
  failIf(state, parked.size() != kQueued || replayed.size() != 2 * kQueued,
         "unexpected statement count");
  RawConnection raw(files.sqlite);
  BusyHolder holder(files.sqlite);
  runStatements(raw.get(), replayed);
  for (auto _ : state) {
    holder.hold();
    failIf(state, runStatements(raw.get(), parked) != kQueued, "baseline not busy");
    holder.release();
    runStatements(raw.get(), replayed);
  }
}

/* ---------------------------------------------------------------- logging ---- */

// db_write of a statement that touches no file, with the log threshold at its default (notice)
// and at debug. At notice no debug line may be formatted: the handler must see no line and the
// time must match bare sqlite3_exec.
int gLinesSeen = 0;
void countLine(int, const char *, void *) { ++gLinesSeen; }

void logWriteAt(benchmark::State &state, int level) {
  Pair files = freshPair("log", false);
  useLibraryDatabase(files.library);
  gLinesSeen = 0;
  ryxLogSetHandler(countLine, nullptr);
  ryxLogSetLevel(level);
  for (auto _ : state) db_write("SELECT 1");
  state.counters["lines_per_call"] =
      benchmark::Counter(gLinesSeen, benchmark::Counter::kAvgIterations);
  silenceLibraryLog();
}

void logNoticeLibrary(benchmark::State &state) { logWriteAt(state, RYX_LOG_NOTICE); }
void logDebugLibrary(benchmark::State &state) { logWriteAt(state, RYX_LOG_DEBUG); }

void logSqlite(benchmark::State &state) {
  Pair files = freshPair("log", false);
  RawConnection raw(files.sqlite);
  std::vector<Statement> statements{{false, "SELECT 1"}};
  failIf(state, runStatements(raw.get(), statements) != 0, "baseline statement failed");
  for (auto _ : state) runStatements(raw.get(), statements);
}

void registerAll() {
  struct Entry {
    const char *name;
    void (*run)(benchmark::State &);
  };
  const Entry entries[] = {
      {"inventory_write_new/library", inventoryNewLibrary},
      {"inventory_write_new/sqlite", inventoryNewSqlite},
      {"inventory_write_existing/library", inventoryExistingLibrary},
      {"inventory_write_existing/sqlite", inventoryExistingSqlite},
      {"inventory_write_existing/prepared", inventoryExistingPrepared},
      {"sample_rssi/library", sampleLibrary},
      {"sample_rssi/sqlite", sampleSqlite},
      {"tick_256x3/library", tickLibrary},
      {"tick_256x3/sqlite", tickSqlite},
      {"tick_256x3/upsert", tickUpsert},
      {"tick_256x3/floor", tickFloor},
      {"tick_256x3/uncached", tickUncached},
      {"week_read_rx_7x284/library", weekReadLibrary},
      {"week_read_rx_7x284/sqlite", weekReadSqlite},
      {"latest_span_24h_rx/library", latestSpanLibrary},
      {"latest_span_24h_rx/sqlite", latestSpanSqlite},
      {"deviceinfo_256_read/library", deviceTableLibrary},
      {"deviceinfo_256_read/sqlite", deviceTableSqlite},
      {"queue_320_park_replay/library", queueLibrary},
      {"queue_320_park_replay/sqlite", queueSqlite},
      {"db_write_log_notice/library", logNoticeLibrary},
      {"db_write_log_notice/sqlite", logSqlite},
      {"db_write_log_debug/library", logDebugLibrary},
      {"db_write_log_debug/sqlite", logSqlite},
  };
  for (const Entry &entry : entries) {
    // Wall-clock time: a write's cost is mostly the file system's sync.
    benchmark::RegisterBenchmark(entry.name, entry.run)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond)
        ->MinTime(0.3);
  }
}

}  // namespace
}  // namespace adbbench

int main(int argc, char **argv) {
  adbbench::installCountingVfs();
  adbbench::silenceLibraryLog();
  adbbench::registerAll();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
