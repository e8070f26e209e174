// memory_probe.cpp - the memory figures of the library, for massif, heaptrack and /proc.
//
//   analyticsdb_memory_probe prepare FILE   writes the 256-device week database to FILE
//   analyticsdb_memory_probe tick [FILE]    one 5-minute tick for 256 devices x 3 series
//   analyticsdb_memory_probe week [FILE]    the week read of one device
//   analyticsdb_memory_probe span           counts heap allocations while a span is packed
//   analyticsdb_memory_probe rss            resident size after a 256-device week: every
//                                           device's week read, the whole table read, 12 ticks
// With FILE the probe works on that database (written by "prepare", on which the week read
// works: see bench_support.h), so a heap profile shows the operation and not the setup.
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "analyticsdb.h"
#include "bench_support.h"

// In the span probe every heap allocation of the process is counted while gCounting is set;
// glibc's own entry points do the work. The heap profilers need the allocator left alone, so
// the plain probe does not replace it.
namespace {
bool gCounting = false;
long gAllocations = 0;
}  // namespace
#ifdef ADB_COUNT_ALLOCATIONS
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
extern "C" void *malloc(size_t size) {
  if (gCounting) ++gAllocations;
  return __libc_malloc(size);
}
extern "C" void *calloc(size_t count, size_t size) {
  if (gCounting) ++gAllocations;
  return __libc_calloc(count, size);
}
extern "C" void *realloc(void *block, size_t size) {
  if (gCounting) ++gAllocations;
  return __libc_realloc(block, size);
}
#endif

namespace {

using namespace adbbench;

void tick(int slot) {
  db_beginTransaction();
  for (int device = 0; device < kDevices; ++device) {
    std::string mac = macOf(device);
    std::string time = std::to_string(kLatestTime + 300u * static_cast<uint32_t>(slot - kLatestSlot));
    std::string slotText = std::to_string(slot);
    std::string source = device == 0 ? kWanSource : "LAN";
    std::string value = std::to_string(1000 + device);
    char *rssi[] = {mac.data(), time.data(), slotText.data(), value.data()};
    char *bandwidth[] = {mac.data(), source.data(), time.data(), slotText.data(), value.data()};
    db_updateRssi(rssi);
    db_updateBandWidthRx(bandwidth);
    db_updateBandWidthTx(bandwidth);
  }
  db_commitTransaction();
}

void weekRead(int device) {
  BandWidthRecord **list = nullptr;
  int32_t rows = 0;
  std::string mac = macOf(device);
  if (db_readMacBandWidthRx(mac.c_str(), &list, &rows) != DB_STATUS_SUCCESS || rows != 1) {
    std::fprintf(stderr, "week read failed\n");
    std::exit(1);
  }
  db_freeBandWidthResult(&list, rows);
}

}  // namespace

int main(int argc, char **argv) {
  std::string mode = argc > 1 ? argv[1] : "rss";
  silenceLibraryLog();
  if (mode == "prepare" && argc > 2) {
    copyNarrowWeekDatabase(argv[2]);
    return 0;
  }
  std::string path = argc > 2 ? argv[2] : workDir() + "/probe.db";
  if (argc <= 2) copyNarrowWeekDatabase(path);
  useLibraryDatabase(path);

  if (mode == "tick") {
    tick(kLatestSlot + 1);
  } else if (mode == "week") {
    weekRead(100);
  } else if (mode == "span") {
#ifndef ADB_COUNT_ALLOCATIONS
    std::fprintf(stderr, "allocations are counted by analyticsdb_span_probe\n");
    return 2;
#endif
    auto record = std::make_unique<BandWidthRecord>();
    int32_t wan = 0;
    db_readBandWidthLatestRx(kWanSource, kLatestTime - 86'400, record.get(), &wan);
    for (int k = 0; k < DB_SLOTS_PER_WEEK; ++k) record->slots[k] = static_cast<uint64_t>(k);
    gCounting = true;
    db_adjustSlotRate(record.get(), 1800, 70);  // wraps past the end of the week
    db_adjustSlotRate(record.get(), 1, DB_SLOTS_PER_WEEK);
    gCounting = false;
    std::printf("heap allocations while packing two spans: %ld\n", gAllocations);
  } else if (mode == "rss") {
    long before = residentKb("VmRSS");
    for (int device = 0; device < kDevices; ++device) weekRead(device);
    BandWidthRecord **list = nullptr;
    int32_t rows = 0;
    db_readBandWidthRxTable(&list, &rows);
    long withTable = residentKb("VmRSS");
    db_freeBandWidthResult(&list, rows);
    for (int slot = kLatestSlot + 1; slot <= kLatestSlot + 12; ++slot) tick(slot);
    malloc_trim(0);
    std::printf("VmRSS after open: %ld kB\n", before);
    std::printf("VmRSS holding all %d week records (db_readBandWidthRxTable): %ld kB\n", rows,
                withTable);
    std::printf("VmRSS after 256 week reads, the table read (freed) and 12 ticks: %ld kB\n",
                residentKb("VmRSS"));
    std::printf("VmHWM (peak): %ld kB\n", residentKb("VmHWM"));
  } else {
    std::fprintf(stderr, "usage: %s tick|week|span|rss\n", argv[0]);
    return 2;
  }
  db_close();
  return 0;
}
