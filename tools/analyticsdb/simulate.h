// simulate.h - a synthetic gateway writing a home network's samples through the library.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "session.h"

namespace adbtool {

struct SimulateOptions {
  int devices = 8;
  int days = 1;
  bool contend = false;
  uint32_t start = 0; // first tick (unix time); 0: `days` before now
};

struct SimulateResult {
  uint64_t ticks = 0;
  uint64_t written = 0; // requests that reached the database, directly or replayed
  uint64_t queued = 0;  // requests parked on a busy database
  uint64_t replayed = 0;
  uint64_t lost = 0;
  uint64_t mismatches = 0; // values that did not read back as written
  uint32_t lastTick = 0;
};

// Creates the tables when missing, writes the inventory, then one RSSI, RX and TX sample per
// device and tick, each tick in one transaction, and checks that everything reads back. Prints
// the summary to `out`.
SimulateResult simulate(Session &session, const SimulateOptions &options, std::ostream &out);

// Every table of a full week: inventory, index tables and 21 day tables. Returns their number.
int createAllTables(const std::string &path);

} // namespace adbtool
