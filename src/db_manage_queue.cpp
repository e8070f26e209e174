/*
 * db_manage_queue.cpp - the deferred write queue's gate and its replay catalogue.
 *
 * Every write, delete and drop asks the gate twice: before its statement (status -1), to be
 * queued behind a waiting request for the same table family and key, and after it with the
 * statement's status, so that a busy outcome (3) is parked for a later replay. The catalogue
 * gives every function id its replay and the shape of the arguments the replay takes from a
 * queued node; the processing loop of db_queue.cpp dispatches the head node through it.
 */
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "analyticsdb.h"
#include "internal/gate.h"
#include "internal/log.h"
#include "internal/queue.h"

ADB_LOG_MODULE("db_manage_queue")

namespace {

/* ---------------------------------------------------------------- the gate ---- */

// Every writer passes the gate through adb::manageQueue, and the non-empty check runs inside it:
// their lines belong to these two functions whichever writer called.
constexpr adb::log::Origin kGate{kLogModule, "db_manageQueue"};
constexpr adb::log::Origin kNonEmptyCheck{kLogModule, "db_updateNonEmptyQueue"};

// The before-writing check: the request joins the queue only behind a waiting request for the
// same table family and key; otherwise the caller writes directly, even with the queue full,
// since nothing waits that the write could overtake. A request for a waiting key that the queue
// cannot keep is refused rather than written past it.
int32_t queueBehindRelated(const adb::queue::Request &request) {
  if (adb::queue::head() == nullptr) return adb::kGateWrite;
  adb::queue::Locked held;
  if (adb::queue::head() == nullptr) return adb::kGateWrite;
  const bool related =
      db_checkTableEntry(request.tableFamily, request.values, request.valueCount) != 0;
  if (queueCount >= DB_QUEUE_MAX_ENTRIES) {
    if (related) {
      ADB_LOG_QUEUE_REFUSAL(kNonEmptyCheck, request, true);
      return adb::kGateRefused;
    }
    // This line deliberately ends without a newline.
    ADB_LOG_FOR(kNonEmptyCheck, RYX_LOG_ERROR,
                "Queue has MAX number of entries. Queue count [%d] MAX value [%d]", queueCount,
                DB_QUEUE_MAX_ENTRIES);
    return adb::kGateWrite;
  }
  if (!related) return adb::kGateWrite;
  if (adb::queue::append(request) == 0) {
    ADB_LOG_QUEUE_REFUSAL(kNonEmptyCheck, request, false);
    return adb::kGateRefused;
  }
  return adb::kGateQueued;
}

int32_t passGate(int32_t status, const adb::queue::Request &request) {
  if (status == DB_STATUS_QUEUE_CHECK) return queueBehindRelated(request);
  // Only a busy database is worth a retry; every other outcome stands.
  if (status == DB_STATUS_BUSY && !adb::queue::appendBusy(request)) return adb::kGateNotParked;
  return 0;
}

// Letter case does not matter to the key columns (COLLATE NOCASE), so it must not matter here:
// "AA:BB" waiting must hold back a write for "aa:bb". ASCII only, whatever the host's locale.
bool keyStartsWith(const char *held, const char *wanted) {
  for (; *wanted != '\0'; ++held, ++wanted) {
    unsigned char a = static_cast<unsigned char>(*held);
    unsigned char b = static_cast<unsigned char>(*wanted);
    if (a >= 'A' && a <= 'Z') a = static_cast<unsigned char>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<unsigned char>(b - 'A' + 'a');
    if (a != b) return false;  // also ends at the held text's terminator
  }
  return true;
}

/* ---------------------------------------------------------------- replay catalogue ---- */

using ValuesReplay = int32_t (*)(char **);
using NumberReplay = int32_t (*)(int32_t);
using KeyReplay = int32_t (*)(const char *);
using KeyAndDayReplay = int32_t (*)(const char *, int32_t);
using PlainReplay = int32_t (*)(void);

// What a replay takes from its node, and what becomes of a node that lacks it.
enum class ReplayArgs : uint8_t {
  kNotSupported,  // no replay: reported and removed
  kValues,        // the node's value array
  kVersion,       // the integer of the 2nd value; without it the attempt does nothing
  kDay,           // the integer of the 2nd value; without it the head is removed
  kKey,           // the 1st value; without it the head is removed
  kKeyAndDay,     // the 1st value and the integer of the 2nd; without them the head is removed
  kNothing,       // no arguments
};

struct Replay {
  int32_t functionId;
  ReplayArgs args;
  ValuesReplay withValues = nullptr;
  NumberReplay withNumber = nullptr;
  KeyReplay withKey = nullptr;
  KeyAndDayReplay withKeyAndDay = nullptr;
  PlainReplay withNothing = nullptr;
};

constexpr Replay notSupported(int32_t id) { return {id, ReplayArgs::kNotSupported}; }
constexpr Replay replayValues(int32_t id, ValuesReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kValues, .withValues = replay};
}
constexpr Replay replayVersion(int32_t id, NumberReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kVersion, .withNumber = replay};
}
constexpr Replay replayDay(int32_t id, NumberReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kDay, .withNumber = replay};
}
constexpr Replay replayKey(int32_t id, KeyReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kKey, .withKey = replay};
}
constexpr Replay replayKeyAndDay(int32_t id, KeyAndDayReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kKeyAndDay, .withKeyAndDay = replay};
}
constexpr Replay replayNothing(int32_t id, PlainReplay replay) {
  return {.functionId = id, .args = ReplayArgs::kNothing, .withNothing = replay};
}

// Row n is function id n. A row without its replay yet names, in its comment, the shape and the
// replay that belongs there.
constexpr Replay kReplays[] = {
    replayVersion(0, db_updateQueueDBVersion),
    replayValues(1, db_updateQueueDeviceInfoTable),
    replayValues(2, db_updateQueueDeviceInfoPrimitiveFields),
    replayValues(3, db_updateQueueDeviceInfoLanFields),
    replayValues(4, db_updateQueueDeviceInfoCapacity),
    replayValues(5, db_updateQueueDeviceInfoRssiFields),
    replayValues(6, db_updateQueueDeviceInfoBeaconFields),
    replayValues(7, db_updateQueueDeviceInfoOpsFields),
    replayValues(8, db_updateQueueDeviceInfoPreferredBandFields),
    replayValues(9, db_updateQueueMeshTopoTable),
    replayValues(10, db_updateQueuePrimitiveRssi),
    replayValues(11, db_updateQueueRssiSlot),
    replayValues(12, db_updateQueueRssiSlotDefaultValue),
    replayValues(13, db_updateQueuePrimitiveBandWidthRx),
    replayValues(14, db_updateQueueBandWidthSlotRx),
    replayValues(15, db_updateQueueRxSlotDefaultValue),
    replayValues(16, db_updateQueuePrimitiveBandWidthTx),
    replayValues(17, db_updateQueueBandWidthSlotTx),
    replayValues(18, db_updateQueueTxSlotDefaultValue),
    replayValues(19, db_updateQueueSubscriberInfoTable),
    replayValues(20, db_updateQueueDeviceThresholdTable),
    replayValues(21, db_updateQueueCmaInfoTable),
    replayValues(22, db_updateQueueClientsTable),
    replayValues(23, db_updateQueueDeviceInfoBeaconFName),
    replayValues(24, db_updateQueueDeviceInfoBandSteeringFields),
    replayValues(25, db_updateQueueDeviceInfoIsBridgedFields),
    replayNothing(26, db_dropQueueDeviceInfoTable),
    replayNothing(27, db_dropQueueMeshTopoTable),
    replayNothing(28, db_dropQueuePrimitiveBandwidthRxTable),
    replayDay(29, db_dropQueueBandwidthRxTable),
    replayNothing(30, db_dropQueuePrimitiveBandwidthTxTable),
    replayDay(31, db_dropQueueBandwidthTxTable),
    replayNothing(32, db_dropQueuePrimitiveRssiTable),
    replayDay(33, db_dropQueueRssiTable),
    replayNothing(34, db_deleteQueueDeviceInfoTable),
    replayKey(35, db_deleteQueueMacDeviceInfo),
    replayNothing(36, db_deleteQueueMeshTopoTable),
    replayKey(37, db_deleteQueueMacMeshTopo),
    replayKeyAndDay(38, db_deleteQueueDayRssi),
    replayKey(39, db_deleteQueuePrimitiveRssi),
    replayKeyAndDay(40, db_deleteQueueDayBandWidthRx),
    replayKey(41, db_deleteQueuePrimitiveBandWidthRx),
    replayNothing(42, db_deleteQueueNonWanBandwidthRxInfo),
    replayKeyAndDay(43, db_deleteQueueDayBandWidthTx),
    replayKey(44, db_deleteQueuePrimitiveBandWidthTx),
    replayNothing(45, db_deleteQueueNonWanBandwidthTxInfo),
    replayKey(46, db_deleteQueueMacDeviceThreshold),
};

constexpr int32_t kFunctionIds = 47;  // ids 0 to 46
static_assert(std::size(kReplays) == kFunctionIds, "one catalogue row per function id");

consteval bool rowsInIdOrder() {
  for (int32_t id = 0; id < kFunctionIds; ++id) {
    if (kReplays[id].functionId != id) return false;
  }
  return true;
}
static_assert(rowsInIdOrder(), "catalogue row n must be function id n");

// The catalogue row of a function id; ids outside the catalogue have no replay.
const Replay &replayOf(int32_t functionId) {
  static constexpr Replay kUnknown = notSupported(-1);
  return (functionId >= 0 && functionId < kFunctionIds) ? kReplays[functionId] : kUnknown;
}

// The i-th value of a node, or null where the node has none.
const char *valueAt(const WriteRequestNode &node, int32_t i) {
  return i < adb::queue::valueSlots(node) ? node.fieldValues[i] : nullptr;
}

}  // namespace

namespace adb {

int32_t manageQueue(int32_t status, int32_t functionId, char **values, int32_t valueCount,
                    int32_t recordedCount, const char *tableFamily) {
  ADB_LOG_FOR(kGate, RYX_LOG_DEBUG, "[analyticsDB] Queue: Status %d Func %d\n", status,
              functionId);
  return passGate(status, {functionId, values, valueCount, recordedCount, tableFamily});
}

bool requestWaits(int32_t functionId, char **values, int32_t valueCount, const char *tableFamily) {
  return queue::keyWaits({functionId, values, valueCount, valueCount, tableFamily});
}

bool queue::keyWaits(const Request &request) {
  if (head() == nullptr) return false;
  Locked held;
  return db_checkTableEntry(request.tableFamily, request.values, request.valueCount) != 0;
}

bool runReplay(WriteRequestNode &head);

bool queue::replay(WriteRequestNode &head) {
  noteOutcome(Outcome::kNone);
  if (!runReplay(head)) return false;
  // A replay that reported no outcome found its node's values unusable (no version, a slot of
  // no day table, a range over two days): retrying it would stall the queue for good.
  if (lastOutcome() == Outcome::kNone && queue::head() == &head) {
    dropMalformed(head, "its values give no statement");
  }
  return true;
}

bool runReplay(WriteRequestNode &head) {
  const Replay &row = replayOf(head.functionId);
  const char *first = valueAt(head, 0);
  const char *second = valueAt(head, 1);
  switch (row.args) {
    case ReplayArgs::kValues:
      row.withValues(head.fieldValues);
      return true;
    case ReplayArgs::kVersion:
      // Without a version the node stays: the attempt only counts towards the stall.
      if (second != nullptr) row.withNumber(std::atoi(second));
      return true;
    case ReplayArgs::kDay:
      if (second != nullptr) {
        row.withNumber(std::atoi(second));
      } else {
        queue::dropMalformed(head, "no day");
      }
      return true;
    case ReplayArgs::kKey:
      if (first != nullptr) {
        row.withKey(first);
      } else {
        queue::dropMalformed(head, "no key");
      }
      return true;
    case ReplayArgs::kKeyAndDay:
      if (first != nullptr && second != nullptr) {
        row.withKeyAndDay(first, std::atoi(second));
      } else {
        queue::dropMalformed(head, "no key or day");
      }
      return true;
    case ReplayArgs::kNothing:
      row.withNothing();
      return true;
    case ReplayArgs::kNotSupported:
      break;
  }
  return false;
}

}  // namespace adb

extern "C" {

// Non-zero before a statement: do not write (queued, or refused for a full queue). After one: 0.
ADB_API int32_t db_manageQueue(int32_t status, int32_t functionId, char **values, int32_t count,
                               const char *tableName) {
  int32_t result = adb::manageQueue(status, functionId, values, count, count, tableName);
  return status == DB_STATUS_QUEUE_CHECK ? result : 0;
}

ADB_API int32_t db_updateNonEmptyQueue(int32_t functionId, char **values, int32_t count,
                                       const char *tableName) {
  // Non-zero also for a refused request: its caller must not write it past the waiting one.
  return queueBehindRelated({functionId, values, count, count, tableName}) != adb::kGateWrite;
}

ADB_API int32_t db_checkTableEntry(const char *tableName, char **values, int32_t count) {
  if (tableName == nullptr) {
    ADB_LOG_ERROR("[analyticsDB]  Table Name to be checked in queue is empty\n");
    return 0;
  }
  for (const WriteRequestNode *node = adb::queue::head(); node != nullptr;
       node = adb::queue::nextOf(node)) {
    // A queued family name is compared as a prefix of the asked one.
    if (std::strncmp(node->tableName, tableName, std::strlen(node->tableName)) != 0) continue;
    // A request without a key (a whole-table delete, a day drop) relates to every request of
    // its family, and so does a queued request without one.
    if (count < 1 || values == nullptr || node->fieldCount <= 0) return 1;
    const char *wanted = values[0];
    if (wanted == nullptr || wanted[0] == '\0') return 1;
    const char *held = node->fieldValues[0];
    if (held == nullptr || held[0] == '\0') return 1;
    if (keyStartsWith(held, wanted)) return 1;
  }
  return 0;
}

}  // extern "C"
