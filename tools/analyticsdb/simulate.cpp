// simulate.cpp - the synthetic gateway: transactions per tick, the write queue under a busy
// database, and the read-back check.
#include "simulate.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <strings.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "analyticsdb.h"
#include "contender.h"
#include "network.h"
#include "output.h"
#include "series.h"

namespace adbtool {

namespace {

using WriteFn = int32_t (*)(char **);

// A statement that takes the write lock inside the open transaction and changes nothing: once
// it succeeds no other process can lock the database until we commit, so the replays that
// follow cannot meet a busy database and burn the queue's attempt budget.
constexpr const char *kWriteLockProbe = "UPDATE PRIMITIVE_RSSI SET SLT_IND = SLT_IND WHERE 0";

constexpr auto kRetryPause = std::chrono::milliseconds(1);
// A real gateway is idle for minutes between ticks; the simulation compresses that to a pause
// in which the contending process gets its chance at the database.
constexpr auto kIdleBetweenTicks = std::chrono::milliseconds(2);
// A tick whose transaction the library gave up is written again after a pause; one that fails
// this often (some five seconds) fails for another reason than a busy file.
constexpr int kTickAttempts = 5000;

// How one series' sample reaches the database: its index row, then its slot.
struct SampleWriter {
  SeriesKind kind;
  WriteFn index;
  WriteFn slot;
  bool hasSource;
};
constexpr SampleWriter kSampleWriters[] = {
    {SeriesKind::Rssi, db_updatePrimitiveRssi, db_updateRssiSlot, false},
    {SeriesKind::Rx, db_updatePrimitiveBandWidthRx, db_updateBandWidthSlotRx, true},
    {SeriesKind::Tx, db_updatePrimitiveBandWidthTx, db_updateBandWidthSlotTx, true},
};
constexpr int kRequestsPerDevice = 2 * static_cast<int>(std::size(kSampleWriters));

struct WriterCounts {
  uint64_t direct = 0;
  uint64_t parked = 0;
  uint64_t dropped = 0; // refused by a full queue
  uint64_t replayed = 0;
  uint64_t failedReplays = 0;
  uint64_t lockWaits = 0;
  uint64_t commitRetries = 0;
  uint64_t ticksWrittenAgain = 0;
  int32_t peakQueue = 0;
};

// A write the library refused with 1 inside the tick's transaction: the file stayed busy past
// its wait (nothing is parked inside a transaction), and the transaction was rolled back.
class RefusedWrite : public ToolError {
public:
  using ToolError::ToolError;
};

// Writes through the library as a gateway service does, and keeps the books of the queue.
class GatewayWriter {
public:
  explicit GatewayWriter(const LogCounters &log) : log_(log) {}

  void begin() {
    directAtBegin_ = counts.direct;
    int32_t status;
    while ((status = db_beginTransaction()) == DB_STATUS_BUSY)
      std::this_thread::sleep_for(kRetryPause);
    if (status != DB_STATUS_SUCCESS)
      throw ToolError("cannot begin a transaction: " + describeStatus(status));
  }

  void commit() {
    int32_t status;
    while ((status = db_commitTransaction()) == DB_STATUS_BUSY) {
      ++counts.commitRetries;
      std::this_thread::sleep_for(kRetryPause);
    }
    if (status != DB_STATUS_SUCCESS)
      throw ToolError("cannot commit a tick: " + describeStatus(status));
  }

  // One request; a busy database parks it in the queue (status 3).
  void write(WriteFn function, const char *what, const std::vector<std::string> &values) {
    std::vector<char *> pointers;
    for (const std::string &value : values)
      pointers.push_back(const_cast<char *>(value.c_str()));
    int32_t before = queueCount;
    int32_t status = function(pointers.data());
    if (status == DB_STATUS_SUCCESS) {
      ++counts.direct;
    } else if (status == DB_STATUS_BUSY) {
      if (queueCount > before)
        ++counts.parked;
      else
        ++counts.dropped;
      counts.peakQueue = std::max(counts.peakQueue, queueCount);
    } else {
      std::string message = std::string("writing ") + what + " of " + values.front() +
                            " failed: " + describeStatus(status);
      if (status == DB_STATUS_FAILURE)
        throw RefusedWrite(message);
      throw ToolError(message);
    }
  }

  // The queue holds at most DB_QUEUE_MAX_ENTRIES requests and drops what comes beyond; a
  // gateway that sees it filling up replays it before it writes more.
  void makeRoom(int requests) {
    if (queueCount + requests > DB_QUEUE_MAX_ENTRIES)
      drain();
  }

  // Replays every parked request. Call inside a transaction.
  void drain() {
    while (queueCount > 0) {
      int32_t status = db_writeQuery(kWriteLockProbe);
      if (status == DB_STATUS_BUSY) {
        ++counts.lockWaits;
        std::this_thread::sleep_for(kRetryPause);
        continue;
      }
      if (status != DB_STATUS_SUCCESS)
        throw ToolError("cannot take the write lock to replay parked writes: " +
                        describeStatus(status));
      int32_t before = queueCount;
      uint64_t failedBefore = log_.failedReplays;
      int32_t result = db_processQueueEntry();
      uint64_t removed = static_cast<uint64_t>(before - queueCount);
      uint64_t failed = log_.failedReplays - failedBefore;
      counts.failedReplays += failed;
      counts.replayed += removed - std::min(removed, failed);
      if (result == DB_STATUS_BUSY)
        throw ToolError("the write queue stalled: its head stayed busy for too many attempts");
    }
  }

  // Ends a transaction the library rolled back (its COMMIT returns 1); the writes of that
  // attempt were not kept.
  void abandon() {
    db_commitTransaction();
    counts.direct = directAtBegin_;
    ++counts.ticksWrittenAgain;
  }

  WriterCounts counts;

private:
  const LogCounters &log_;
  uint64_t directAtBegin_ = 0;
};

// Runs `writes` in one transaction, and again whenever the library refused one of them and rolled
// the transaction back, as it asks its callers to.
template <typename Writes> void inOneTransaction(GatewayWriter &writer, Writes &&writes) {
  for (int attempt = 1;; ++attempt) {
    writer.begin();
    try {
      writes();
    } catch (const RefusedWrite &) {
      writer.abandon();
      if (attempt == kTickAttempts)
        throw;
      std::this_thread::sleep_for(kRetryPause);
      continue;
    }
    writer.drain();
    writer.commit();
    return;
  }
}

std::vector<std::string> inventoryValues(const HomeNetwork &network, std::size_t device,
                                         uint32_t addedTs, uint32_t lastSeen, uint64_t rxBytes,
                                         uint64_t txBytes) {
  auto row = network.inventoryRow(device, addedTs, lastSeen);
  for (auto &[column, value] : row) {
    if (column == "RXCNT")
      value = std::to_string(rxBytes);
    if (column == "TXCNT")
      value = std::to_string(txBytes);
  }
  std::vector<std::string> values;
  for (const char *column : deviceInfoFields) {
    auto found = std::find_if(row.begin(), row.end(),
                              [column](const auto &cell) { return cell.first == column; });
    values.push_back(found != row.end() ? found->second : std::string());
  }
  return values;
}

void writeInventory(GatewayWriter &writer, const HomeNetwork &network, uint32_t addedTs,
                    uint32_t lastSeen, const std::vector<uint64_t> &rxBytes,
                    const std::vector<uint64_t> &txBytes) {
  inOneTransaction(writer, [&] {
    for (std::size_t d = 0; d < network.devices().size(); ++d) {
      writer.makeRoom(1);
      writer.write(db_updateDeviceInfoTable, "the inventory row",
                   inventoryValues(network, d, addedTs, lastSeen, rxBytes[d], txBytes[d]));
    }
  });
}

void writeTick(GatewayWriter &writer, const HomeNetwork &network, uint32_t tick,
               std::vector<uint64_t> &rxBytes, std::vector<uint64_t> &txBytes) {
  const std::string time = std::to_string(tick);
  const std::string slot = std::to_string(slotOfTick(tick));
  inOneTransaction(writer, [&] {
    for (std::size_t d = 0; d < network.devices().size(); ++d) {
      const SimDevice &device = network.devices()[d];
      writer.makeRoom(kRequestsPerDevice);
      for (const SampleWriter &series : kSampleWriters) {
        const std::string value = std::to_string(network.sample(d, series.kind, tick));
        const char *title = seriesSpec(series.kind).noun;
        if (series.hasSource)
          writer.write(series.index, title, {device.mac, device.source, time, slot});
        else
          writer.write(series.index, title, {device.mac, time, slot});
        writer.write(series.slot, title, {device.mac, slot, value});
      }
    }
  });
  // Counted once the tick is in.
  auto bytes = [&](std::size_t d, SeriesKind kind) { // kbit/s over a slot
    return static_cast<uint64_t>(network.sample(d, kind, tick)) * kSlotSeconds * 125;
  };
  for (std::size_t d = 0; d < network.devices().size(); ++d) {
    rxBytes[d] += bytes(d, SeriesKind::Rx);
    txBytes[d] += bytes(d, SeriesKind::Tx);
  }
}

struct ReadBack {
  uint64_t checked = 0;
  uint64_t mismatches = 0;
  std::string first; // the first difference, for the summary
};

void mismatch(ReadBack &check, const std::string &what) {
  if (check.mismatches++ == 0)
    check.first = what;
}

void checkInventory(ReadBack &check, const HomeNetwork &network, uint32_t lastTick) {
  DeviceInfoRecord **list = nullptr;
  int32_t rows = 0;
  int32_t status = db_readDeviceInfoTable(&list, &rows);
  if (status != DB_STATUS_SUCCESS) {
    mismatch(check, "inventory read failed: " + describeStatus(status));
    return;
  }
  for (std::size_t d = 0; d < network.devices().size(); ++d) {
    const SimDevice &device = network.devices()[d];
    ++check.checked;
    auto *row = std::find_if(list, list + rows, [&device](const DeviceInfoRecord *record) {
      return strcasecmp(record->mac, device.mac.c_str()) == 0;
    });
    if (row == list + rows) {
      mismatch(check, "no inventory row for " + device.mac);
      continue;
    }
    int64_t rssi = network.sample(d, SeriesKind::Rssi, lastTick);
    if (device.host != (*row)->host || device.ip != (*row)->ipAddr ||
        (*row)->lastOnlineTs != lastTick || (*row)->rssi != rssi)
      mismatch(check, "inventory row of " + device.mac + " differs");
  }
  db_freeDeviceInfoResult(&list, rows);
}

void checkSeries(ReadBack &check, const HomeNetwork &network, uint32_t start, uint64_t ticks) {
  const uint64_t kept = std::min<uint64_t>(ticks, DB_SLOTS_PER_WEEK); // the ring keeps a week
  const uint32_t lastTick = start + static_cast<uint32_t>(ticks - 1) * kSlotSeconds;
  std::vector<uint32_t> tickOfSlot;
  std::vector<int32_t> slots;
  for (uint64_t i = ticks - kept; i < ticks; ++i) {
    tickOfSlot.push_back(start + static_cast<uint32_t>(i) * kSlotSeconds);
    slots.push_back(slotOfTick(tickOfSlot.back()));
  }
  for (std::size_t d = 0; d < network.devices().size(); ++d) {
    const std::string &mac = network.devices()[d].mac;
    for (const SeriesSpec &spec : allSeries()) {
      uint32_t timestamp = 0;
      int32_t slot = 0;
      int32_t status = spec.latest(mac.c_str(), &timestamp, &slot);
      if (status != DB_STATUS_SUCCESS || timestamp != lastTick || slot != slotOfTick(lastTick))
        mismatch(check, std::string(spec.title) + " index row of " + mac + " is not the last tick");
      std::vector<int64_t> stored;
      try {
        stored = readSlots(spec, mac, slots);
      } catch (const ToolError &error) {
        mismatch(check, error.what());
        check.checked += kept;
        continue;
      }
      for (std::size_t i = 0; i < slots.size(); ++i) {
        int64_t expected = network.sample(d, spec.kind, tickOfSlot[i]);
        ++check.checked;
        if (stored[i] != expected)
          mismatch(check, std::string(spec.title) + " of " + mac + " at " + isoTime(tickOfSlot[i]) +
                              ": wrote " + std::to_string(expected) + ", read " +
                              std::to_string(stored[i]));
      }
    }
  }
}

void printRow(std::ostream &out, const char *label, const std::string &text) {
  char padded[24];
  std::snprintf(padded, sizeof padded, "  %-16s", label);
  out << padded << text << '\n';
}

std::string plural(std::size_t count, const std::string &word) {
  return std::to_string(count) + " " + word + (count == 1 ? "" : "s");
}

std::string fixed(double value, int decimals) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

} // namespace

int createAllTables(const std::string &path) {
  struct FixedTable {
    const char *name;
    int32_t (*create)();
  };
  static const FixedTable kFixed[] = {
      {"DEVICEINFO", db_createDeviceInfoTable},
      {"MESHTOPO", db_createMeshTopoTable},
      {"CLIENTS", db_createClientsTable},
      {"SUBSCRIBERINFO", db_createSubscriberInfoTable},
      {"DEVICETHRESHOLD", db_createDeviceThresholdTable},
      {"CMAINFO", db_createCmaInfoTable},
  };
  struct SeriesTables {
    const char *word;
    int32_t (*index)(int32_t);
    int32_t (*day)(uint32_t, int32_t);
  };
  static const SeriesTables kSeriesTables[] = {
      {"RSSI", db_createPrimitiveRssiTable, db_createRssiTab},
      {"BANDWIDTHRX", db_createPrimitiveBandWidthRxTable, db_createRxBandWidth},
      {"BANDWIDTHTX", db_createPrimitiveBandWidthTxTable, db_createTxBandWidth},
  };
  auto check = [&path](int32_t status, const std::string &table) {
    if (status == DB_STATUS_OPEN_FAILED)
      throw ToolError("cannot open or create " + path);
    if (status != DB_STATUS_SUCCESS)
      throw ToolError("cannot create table " + table + " in " + path + ": " +
                      describeStatus(status));
  };

  check(db_beginTransaction(), "(begin)");
  int created = 0;
  for (const FixedTable &table : kFixed) {
    check(table.create(), table.name);
    ++created;
  }
  const int32_t slotsPerDay = static_cast<int32_t>(db_calcPerDaySlotCount());
  const uint32_t days = db_calcSlotCount() / db_calcPerDaySlotCount();
  for (const SeriesTables &series : kSeriesTables) {
    // Index rows come first: the day tables refer to them.
    check(series.index(slotsPerDay), std::string("PRIMITIVE_") + series.word);
    ++created;
    for (uint32_t day = 1; day <= days; ++day) {
      check(series.day(day, slotsPerDay), series.word + std::to_string(day));
      ++created;
    }
  }
  int32_t status;
  while ((status = db_commitTransaction()) == DB_STATUS_BUSY)
    std::this_thread::sleep_for(kRetryPause);
  check(status, "(commit)");
  return created;
}

SimulateResult simulate(Session &session, const SimulateOptions &options, std::ostream &out) {
  session.requireWritableDatabase();
  createAllTables(session.path());

  HomeNetwork network(options.devices);
  SimulateResult result;
  result.ticks = static_cast<uint64_t>(options.days) * DB_SLOTS_PER_DAY;
  uint32_t start = options.start;
  if (start == 0) {
    auto now = static_cast<uint32_t>(std::time(nullptr));
    start = now - static_cast<uint32_t>(result.ticks) * kSlotSeconds;
    start -= start % kSlotSeconds;
  }
  result.lastTick = start + static_cast<uint32_t>(result.ticks - 1) * kSlotSeconds;

  GatewayWriter writer(session.counters());
  std::vector<uint64_t> rxBytes(network.devices().size(), 0);
  std::vector<uint64_t> txBytes(network.devices().size(), 0);
  uint64_t bursts = 0;
  const bool progress = isatty(STDERR_FILENO) != 0;
  auto began = std::chrono::steady_clock::now();
  {
    std::optional<Contender> contender;
    if (options.contend)
      contender.emplace(session.path());
    writeInventory(writer, network, start, start, rxBytes, txBytes);
    for (uint64_t i = 0; i < result.ticks; ++i) {
      writeTick(writer, network, start + static_cast<uint32_t>(i) * kSlotSeconds, rxBytes, txBytes);
      if (contender)
        std::this_thread::sleep_for(kIdleBetweenTicks);
      if (progress && i % DB_SLOTS_PER_DAY == DB_SLOTS_PER_DAY - 1)
        std::cerr << "\rsimulated day " << (i + 1) / DB_SLOTS_PER_DAY << " of " << options.days
                  << std::flush;
    }
    writeInventory(writer, network, start, result.lastTick, rxBytes, txBytes);
    if (contender)
      bursts = contender->stop();
  }
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  if (progress)
    std::cerr << "\r\033[K" << std::flush;

  ReadBack check;
  checkInventory(check, network, result.lastTick);
  checkSeries(check, network, start, result.ticks);

  const WriterCounts &c = writer.counts;
  result.written = c.direct + c.replayed;
  result.queued = c.parked;
  result.replayed = c.replayed;
  result.lost = c.dropped + c.failedReplays + static_cast<uint64_t>(queueCount);
  result.mismatches = check.mismatches;
  const uint64_t inventoryWrites = 2 * network.devices().size();

  out << "simulated " << options.devices << " devices over " << options.days << " day"
      << (options.days == 1 ? "" : "s") << ": " << groupDigits(result.ticks) << " ticks of 5 min, "
      << localTime(start) << " .. " << localTime(result.lastTick, "%Y-%m-%d %H:%M %Z") << '\n';
  printRow(out, "database", session.path());
  printRow(out, "rows written",
           groupDigits(result.written) + " (" + groupDigits(inventoryWrites) + " inventory, " +
               groupDigits(result.written - std::min(result.written, inventoryWrites)) +
               " sample index rows and slots)");
  printRow(out, "speed",
           fixed(static_cast<double>(result.ticks) / std::max(seconds, 1e-6), 1) + " ticks/s (" +
               fixed(seconds, 1) + " s, one transaction per tick)");
  if (options.contend)
    printRow(out, "contention",
             groupDigits(bursts) + " exclusive bursts by a second process, " +
                 groupDigits(c.lockWaits) + " waits for the write lock, " +
                 groupDigits(c.commitRetries) + " commit retries");
  if (options.contend)
    printRow(out, "written again",
             groupDigits(c.ticksWrittenAgain) +
                 " transactions the library rolled back (the file stayed busy past its wait)");
  printRow(out, "queued",
           groupDigits(c.parked) + " requests parked on a busy database (peak " +
               std::to_string(c.peakQueue) + " of " + std::to_string(DB_QUEUE_MAX_ENTRIES) + ")");
  printRow(out, "replayed", groupDigits(c.replayed) + " by db_processQueueEntry");
  std::string lost = groupDigits(result.lost);
  if (c.dropped > 0)
    lost += " (" + groupDigits(c.dropped) + " refused: the queue's limit of " +
            std::to_string(DB_QUEUE_MAX_ENTRIES) + " entries was hit)";
  if (c.failedReplays > 0)
    lost += " (" + groupDigits(c.failedReplays) + " replays failed)";
  printRow(out, "lost", lost);
  QueueStats stats{};
  db_getQueueStats(&stats);
  printRow(out, "queue counters",
           groupDigits(stats.parked) + " parked, " + groupDigits(stats.replayed) + " replayed, " +
               groupDigits(stats.retried) + " retried, " +
               groupDigits(stats.droppedError + stats.droppedMalformed) + " dropped (" +
               groupDigits(stats.droppedError) + " errors, " +
               groupDigits(stats.droppedMalformed) + " malformed), " +
               groupDigits(stats.refused) + " refused, " + groupDigits(stats.stalls) +
               " stalls, length " + std::to_string(stats.length) + " (peak " +
               std::to_string(stats.peakLength) + ")");
  if (check.mismatches == 0)
    printRow(out, "read-back",
             "all " + groupDigits(check.checked) + " values match (" +
                 plural(network.devices().size(), "inventory row") + ", " +
                 plural(network.devices().size(), "device") + " x 3 series x " +
                 std::to_string(std::min<uint64_t>(result.ticks, DB_SLOTS_PER_WEEK)) + " slots)");
  else
    printRow(out, "read-back",
             groupDigits(check.mismatches) + " of " + groupDigits(check.checked) +
                 " values differ; first: " + check.first);
  return result;
}

} // namespace adbtool
