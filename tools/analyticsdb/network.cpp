// network.cpp - device templates, daily activity curves and deterministic noise.
#include "network.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace adbtool {

namespace {

// Activity (0..1000) at each whole hour of the day, 24 anchors plus midnight again; values in
// between are interpolated per slot.
constexpr std::array<std::array<int, 25>, 4> kProfiles = {{
    // evening: television, console
    {{20,  20,  20,  20,  20,  20,  40,  90,   110,  90,  80,  80, 120,
      120, 100, 100, 150, 300, 600, 850, 1000, 1000, 900, 400, 20}},
    // daytime: laptop, tablet, printer
    {{30,  30,  30,  30,  30,  30,  60,  200, 600, 800, 850, 800, 500,
      750, 850, 800, 700, 500, 400, 450, 500, 450, 300, 100, 30}},
    // personal: phone, speaker
    {{50,  40,  40,  40,  40,  50,  150, 600, 700, 400, 300, 300, 450,
      300, 300, 300, 350, 500, 700, 800, 750, 650, 500, 200, 50}},
    // always on: camera, thermostat, doorbell
    {{800, 800, 800, 800, 800, 800, 800, 820, 850, 850, 850, 850, 850,
      850, 850, 850, 850, 850, 850, 850, 820, 800, 800, 800, 800}},
}};
enum Profile { kEvening, kDaytime, kPersonal, kAlways };

struct Template {
  const char *host;
  const char *category;
  const char *band;
  Profile profile;
  int64_t peakRx;
  int64_t peakTx;
  int rssiBase;
  int rssiSwing;
};

constexpr Template kTemplates[] = {
    {"living-room-tv", "TV", "5G", kEvening, 24000, 400, -52, 0},
    {"anna-phone", "Phone", "5G", kPersonal, 6000, 900, -58, 10},
    {"ben-laptop", "Laptop", "5G", kDaytime, 12000, 2500, -49, 6},
    {"kitchen-speaker", "Speaker", "2.4G", kPersonal, 320, 24, -63, 0},
    {"hall-camera", "Camera", "2.4G", kAlways, 40, 2000, -71, 0},
    {"game-console", "Console", "5G", kEvening, 15000, 1500, -45, 0},
    {"study-tablet", "Tablet", "5G", kDaytime, 5000, 300, -60, 4},
    {"thermostat", "Thermostat", "2.4G", kAlways, 2, 1, -68, 0},
    {"bedroom-tv", "TV", "5G", kEvening, 16000, 300, -66, 0},
    {"chris-phone", "Phone", "5G", kPersonal, 4500, 700, -61, 12},
    {"garden-camera", "Camera", "2.4G", kAlways, 40, 1800, -79, 0},
    {"office-printer", "Printer", "2.4G", kDaytime, 30, 5, -66, 0},
};

uint32_t mix(uint32_t value) {
  value ^= value >> 16;
  value *= 0x7feb352dU;
  value ^= value >> 15;
  value *= 0x846ca68bU;
  value ^= value >> 16;
  return value;
}

// -range..+range, the same for the same device and tick everywhere.
int noise(std::size_t device, uint32_t tick, uint32_t salt, int range) {
  uint32_t h = mix(static_cast<uint32_t>(device) * 0x9e3779b9U ^ mix(tick ^ salt));
  return static_cast<int>(h % static_cast<uint32_t>(2 * range + 1)) - range;
}

int activity(int profile, uint32_t tick) {
  uint32_t slotOfDay = (tick / kSlotSeconds) % 288;
  uint32_t hour = slotOfDay / 12;
  int step = static_cast<int>(slotOfDay % 12);
  const auto &curve = kProfiles[static_cast<std::size_t>(profile)];
  int from = curve[hour];
  int to = curve[hour + 1];
  return from + (to - from) * step / 12;
}

} // namespace

int32_t slotOfTick(uint32_t tick) {
  return static_cast<int32_t>((tick / kSlotSeconds) % DB_SLOTS_PER_WEEK) + 1;
}

HomeNetwork::HomeNetwork(int deviceCount) {
  char text[64];
  for (int i = 0; i < deviceCount; ++i) {
    SimDevice device;
    std::snprintf(text, sizeof text, "02:ad:b0:00:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
    device.mac = text;
    if (i == 0) {
      device = {device.mac, "internet-uplink", "Gateway", "wired", "203.0.113.7",
                "WAN",      kAlways,           0,         0,       0,
                0};
      devices_.push_back(device);
      continue;
    }
    const Template &base = kTemplates[static_cast<std::size_t>(i - 1) % std::size(kTemplates)];
    int round = (i - 1) / static_cast<int>(std::size(kTemplates));
    device.host = base.host;
    if (round > 0)
      device.host += "-" + std::to_string(round + 1);
    device.category = base.category;
    device.band = base.band;
    std::snprintf(text, sizeof text, "192.168.%d.%d", 1 + i / 250, 10 + i % 250);
    device.ip = text;
    device.source = "LAN";
    device.profile = base.profile;
    device.peakRx = base.peakRx;
    device.peakTx = base.peakTx;
    device.rssiBase = base.rssiBase - 3 * round;
    device.rssiSwing = base.rssiSwing;
    devices_.push_back(device);
  }
}

int64_t HomeNetwork::ownSample(std::size_t device, SeriesKind kind, uint32_t tick) const {
  const SimDevice &d = devices_[device];
  int level = activity(d.profile, tick);
  switch (kind) {
  case SeriesKind::Rssi: {
    if (d.rssiBase == 0)
      return 0;
    int drift = d.rssiSwing * (level - 500) / 500;
    return std::clamp(d.rssiBase - drift + noise(device, tick, 1, 2), -92, -30);
  }
  case SeriesKind::Rx:
    return d.peakRx * level * (100 + noise(device, tick, 2, 20)) / 100000;
  case SeriesKind::Tx:
    return d.peakTx * level * (100 + noise(device, tick, 3, 20)) / 100000;
  }
  return 0;
}

int64_t HomeNetwork::sample(std::size_t device, SeriesKind kind, uint32_t tick) const {
  if (devices_[device].source != "WAN" || kind == SeriesKind::Rssi)
    return ownSample(device, kind, tick);
  int64_t total = 0;
  for (std::size_t other = 0; other < devices_.size(); ++other)
    if (other != device)
      total += ownSample(other, kind, tick);
  return total;
}

std::vector<std::pair<std::string, std::string>>
HomeNetwork::inventoryRow(std::size_t device, uint32_t addedTs, uint32_t lastSeen) const {
  const SimDevice &d = devices_[device];
  bool wireless = d.rssiBase != 0;
  bool fast = d.band == "5G";
  return {
      {"MAC_S", d.mac},
      {"APID_S", "ap-main"},
      {"IPADDR_S", d.ip},
      {"CATEGORY_S", d.category},
      {"HOST_S", d.host},
      {"MODEL_S", d.category + " model"},
      {"MANUFACTURER_S", "Example Devices"},
      {"SERIALNUMBER_S", "SN" + d.mac.substr(9, 2) + d.mac.substr(12, 2) + d.mac.substr(15, 2)},
      {"INTERFACE_S", wireless ? "WiFi" : "Ethernet"},
      {"ACTIVE", "1"},
      {"BAND_S", d.band},
      {"INTF_NAME_S", wireless ? (fast ? "wl1" : "wl0") : "eth0"},
      {"INTF_INDEX", wireless ? (fast ? "2" : "1") : "0"},
      {"RSSI", std::to_string(sample(device, SeriesKind::Rssi, lastSeen))},
      {"TXRATE", wireless ? (fast ? "866" : "144") : "1000"},
      {"RXRATE", wireless ? (fast ? "866" : "144") : "1000"},
      {"TXCNT", "0"},
      {"RXCNT", "0"},
      {"CAPACITY", wireless ? (fast ? "400" : "60") : "1000"},
      {"DEVBWREQD", std::to_string(d.peakRx / 1000)},
      {"DEVSTREAMCAPABILITY_S", d.peakRx >= 10000 ? "HD" : "SD"},
      {"NAME_S", d.host},
      {"FRIENDLYNAME_S", d.host},
      {"PORTABLE", d.rssiSwing > 0 ? "1" : "0"},
      {"DEVCRITICAL", d.category == "Camera" ? "1" : "0"},
      {"DEVTIMESTAMP", std::to_string(lastSeen)},
      {"ADDED_TS", std::to_string(addedTs)},
      {"LASTONLINE_TS", std::to_string(lastSeen)},
      {"LASTOFFLINE_TS", "0"},
      {"BEACONSTATE", "0"},
      {"PREFERRED_BAND_S", wireless ? (fast ? "5G" : "2.4G") : "NA"},
      {"DEV_FP_DONE", "1"},
      {"OUI_S", "02:ad:b0"},
      {"PRODUCTCLASS_S", d.category},
      {"LASTREBOOTTXCNT", "0"},
      {"LASTREBOOTRXCNT", "0"},
      {"BANDSTEERING_STATE", "0"},
      {"IS_BRIDGED", "0"},
  };
}

} // namespace adbtool
