// inventory_writers.h - the sixteen inventory writers, with what each one writes.
#ifndef ANALYTICSDB_TEST_INVENTORY_WRITERS_H
#define ANALYTICSDB_TEST_INVENTORY_WRITERS_H

#include <string>
#include <vector>

#include "support/db_fixture.h"

namespace adbtest {

struct InventoryWriter {
  const char *api;
  int32_t (*write)(char **);
  int32_t functionId;  // the id of its parked requests
  const char *table;
  std::vector<std::string> columns;  // the key first; empty: every column of the table, in order
};

// clang-format off
inline const std::vector<InventoryWriter> &inventoryWriters() {
  static const std::vector<InventoryWriter> writers = {
      {"db_updateDeviceInfoTable", db_updateDeviceInfoTable, 1, "DEVICEINFO", {}},
      {"db_updateDeviceInfoPrimitiveFields", db_updateDeviceInfoPrimitiveFields, 2, "DEVICEINFO",
       {"MAC_S", "IPADDR_S", "HOST_S", "MODEL_S", "MANUFACTURER_S", "SERIALNUMBER_S", "INTERFACE_S",
        "ACTIVE", "CATEGORY_S", "DEVBWREQD", "DEVSTREAMCAPABILITY_S", "NAME_S", "FRIENDLYNAME_S",
        "PORTABLE", "DEVCRITICAL", "DEVTIMESTAMP", "ADDED_TS", "LASTONLINE_TS", "LASTOFFLINE_TS"}},
      {"db_updateDeviceInfoLanFields", db_updateDeviceInfoLanFields, 3, "DEVICEINFO",
       {"MAC_S", "APID_S", "INTF_NAME_S", "TXRATE", "RXRATE", "TXCNT", "RXCNT"}},
      {"db_updateDeviceInfoCapacity", db_updateDeviceInfoCapacity, 4, "DEVICEINFO",
       {"MAC_S", "CAPACITY"}},
      {"db_updateDeviceInfoRssiFields", db_updateDeviceInfoRssiFields, 5, "DEVICEINFO",
       {"MAC_S", "TXCNT", "RXCNT", "RSSI", "APID_S"}},
      {"db_updateDeviceInfoBeaconFields", db_updateDeviceInfoBeaconFields, 6, "DEVICEINFO",
       {"MAC_S", "BEACONSTATE", "MODEL_S", "SERIALNUMBER_S", "MANUFACTURER_S", "FRIENDLYNAME_S"}},
      {"db_updateDeviceInfoOpsFields", db_updateDeviceInfoOpsFields, 7, "DEVICEINFO",
       {"MAC_S", "APID_S", "INTF_INDEX", "BAND_S"}},
      {"db_updateDeviceInfoPreferredBandFields", db_updateDeviceInfoPreferredBandFields, 8,
       "DEVICEINFO", {"MAC_S", "PREFERRED_BAND_S"}},
      {"db_updateMeshTopoTable", db_updateMeshTopoTable, 9, "MESHTOPO", {}},
      {"db_updateSubscriberInfoTable", db_updateSubscriberInfoTable, 19, "SUBSCRIBERINFO", {}},
      {"db_updateDeviceThresholdTable", db_updateDeviceThresholdTable, 20, "DEVICETHRESHOLD", {}},
      {"db_updateCmaInfoTable", db_updateCmaInfoTable, 21, "CMAINFO", {}},
      {"db_updateClientsTable", db_updateClientsTable, 22, "CLIENTS", {}},
      {"db_updateDeviceInfoBeaconFName", db_updateDeviceInfoBeaconFName, 23, "DEVICEINFO",
       {"MAC_S", "FRIENDLYNAME_S"}},
      {"db_updateDeviceInfoBandSteeringFields", db_updateDeviceInfoBandSteeringFields, 24,
       "DEVICEINFO", {"MAC_S", "BANDSTEERING_STATE"}},
      {"db_updateDeviceInfoIsBridgedFields", db_updateDeviceInfoIsBridgedFields, 25, "DEVICEINFO",
       {"MAC_S", "IS_BRIDGED"}},
  };
  return writers;
}
// clang-format on

// The writer with its columns spelled out.
inline InventoryWriter withColumns(InventoryWriter writer, RawDb &db) {
  if (writer.columns.empty()) writer.columns = db.columns(writer.table);
  return writer;
}

}  // namespace adbtest

#endif
