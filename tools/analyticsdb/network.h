// network.h - a synthetic home network: devices with a daily rhythm, and the sample each
// device reports at any 300-second tick. Integer arithmetic only, so that every platform
// produces the same values from the same start time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "series.h"

namespace adbtool {

struct SimDevice {
  std::string mac;
  std::string host;
  std::string category;
  std::string band;
  std::string ip;
  std::string source; // "WAN" for the uplink, "LAN" for the rest
  int profile;        // index of the daily activity curve
  int64_t peakRx;     // kbit/s at full activity
  int64_t peakTx;
  int rssiBase;  // dBm; 0 for a wired device
  int rssiSwing; // how far a device that moves about drifts with activity
};

class HomeNetwork {
public:
  // Device 0 is the internet uplink, whose traffic is the sum of all others.
  explicit HomeNetwork(int deviceCount);

  const std::vector<SimDevice> &devices() const { return devices_; }
  // The sample of one series a device reports for the slot starting at `tick`.
  int64_t sample(std::size_t device, SeriesKind kind, uint32_t tick) const;
  // The full inventory row, by column name, as the gateway would record it.
  std::vector<std::pair<std::string, std::string>>
  inventoryRow(std::size_t device, uint32_t addedTs, uint32_t lastSeen) const;

private:
  int64_t ownSample(std::size_t device, SeriesKind kind, uint32_t tick) const;
  std::vector<SimDevice> devices_;
};

// Slot of a tick in the week-aligned ring: 1..2016.
int32_t slotOfTick(uint32_t tick);

} // namespace adbtool
