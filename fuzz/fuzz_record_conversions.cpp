// fuzz_record_conversions.cpp - every raw result -> record conversion, on arbitrary cells.
//
// Input: a row count and a column count, then one cell after another: a header drawn from the
// library's real column names (or free text), data cells as text of any bytes or SQL NULL.
// Every list conversion runs on the cells and its list is freed; the conversions into caller
// storage run with arrays of exactly the size their contract asks for. AddressSanitizer and
// the leak checker judge the outcome.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "analyticsdb.h"
#include "fuzz_common.h"

namespace {

const char *const kNames[] = {
    "MAC_S", "ID_S", "PARENTID_S", "IPADDR_S", "ROLE_S", "APID_S", "CATEGORY_S", "HOST_S",
    "NAME_S", "FRIENDLYNAME_S", "ACTIVE", "RSSI", "TXRATE", "RXRATE", "TXCNT", "RXCNT",
    "CAPACITY", "DEVBWREQD", "PORTABLE", "DEVCRITICAL", "DEVTIMESTAMP", "ADDED_TS",
    "LASTONLINE_TS", "LASTOFFLINE_TS", "BEACONSTATE", "PREFERRED_BAND_S", "PRODUCTCLASS_S",
    "LASTREBOOTTXCNT", "BANDSTEERING_STATE", "IS_BRIDGED", "MIMO_S", "VENDOR_MFG_S", "CAP_5GHZ",
    "DEVICECLASS_S", "VERSION", "SERIALNUMBER_S", "DOWNSTREAMBANDWIDTH", "TABLENAME_S",
    "TIMESTAMP", "SLOTINDEX", "SOURCE_S", "INTF_NAME_S", "SLOT1", "SLOT2", "SLOT288", "SLOT289",
    "SLOT2016", "SLOT2017", "SLOT0", "SLOT-5", "SLOT99999999999", "SLOT"};

template <typename Record>
void convert(int32_t (*conversion)(char **, Record ***, int32_t, int32_t),
             void (*release)(Record ***, int32_t), char **cells, int32_t rows, int32_t columns) {
  Record **list = nullptr;
  // An empty result leaves the list alone; the free function resets the caller's variable.
  if (conversion(cells, &list, rows, columns) != DB_STATUS_EMPTY) release(&list, rows);
  FUZZ_CHECK(list == nullptr, "a list is left to the caller");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  fuzz::Input in(data, size);
  const int32_t rows = in.byte() % 6;
  const int32_t columns = in.byte() % 10;
  std::vector<char *> cells(static_cast<size_t>((rows + 1) * columns) + 1, nullptr);
  for (int32_t c = 0; c < columns; ++c) {
    // Mostly a real column name, now and then a free text of up to 12 bytes.
    uint8_t pick = in.byte();
    cells[c] = pick < 0xF0 ? const_cast<char *>(kNames[pick % std::size(kNames)])
                           : in.text(in.byte() % 13);
  }
  for (int32_t i = columns; i < (rows + 1) * columns; ++i) {
    // NULL, a text of up to 300 bytes or one of up to 24.
    uint8_t kind = in.byte();
    cells[i] = kind < 0x20 ? nullptr : in.text(in.byte() % (kind < 0x40 ? 301 : 25));
  }
  // The header row alone (no rows) and absent cells are inputs too.
  char **table = (rows + columns == 0 && in.byte() & 1) ? nullptr : cells.data();

  convert(db_structMeshTopo, db_freeMeshTopoResult, table, rows, columns);
  convert(db_structDeviceInfo, db_freeDeviceInfoResult, table, rows, columns);
  convert(db_structClientsCapability, db_freeClientsResult, table, rows, columns);
  convert(db_structDeviceThreshold, db_freeDeviceThresholdResult, table, rows, columns);
  convert(db_structSubscriberInfo, db_freeSubscriberInfoResult, table, rows, columns);
  convert(db_readTimestampResult, db_freeDpClientHandleResult, table, rows, columns);
  convert(db_structPrimitiveDayTable, db_freePrimitiveDayTable, table, rows, columns);
  convert(db_structBandWidth, db_freeBandWidthResult, table, rows, columns);
  convert(db_readRateStruct, db_freeRateResult, table, rows, columns);

  static BandWidthRecord record;
  db_setSlotRate(table, rows, columns, &record);
  std::vector<uint32_t> timestamps(static_cast<size_t>(rows) + 1);
  std::vector<int32_t> slotIndexes(static_cast<size_t>(rows) + 1);
  std::vector<uint64_t> values(static_cast<size_t>(rows) + 1);
  auto macs = std::make_unique<char[][32]>(static_cast<size_t>(rows) + 1);
  char source[16] = {};
  db_getRateIdxTimeStamp(table, rows, columns, timestamps.data(), slotIndexes.data(),
                         values.data(), macs.get(), source);
  if (table != nullptr && rows > 0 && columns > 0) {
    uint32_t timestamp = 0;
    db_getCmaTimeStamp(table, &timestamp);
  }
  return 0;
}
