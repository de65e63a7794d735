#include "platform/lu_io_fault.h"

#include <cerrno>

namespace {

struct FaultState {
  uint64_t counts[10] = {};
  uint64_t bytesRead = 0;
  LuIoOp armedOp = LuIoOp::Any;
  uint64_t armedAt = 0;  // 0: disarmed
  bool sticky = false;
  bool fired = false;
};

FaultState& faults() {
  static FaultState state;
  return state;
}

}  // namespace

namespace luio {

bool injectFault(LuIoOp op) {
  FaultState& f = faults();
  uint64_t& ofKind = f.counts[static_cast<int>(op)];
  uint64_t& ofAny = f.counts[static_cast<int>(LuIoOp::Any)];
  ++ofKind;
  ++ofAny;
  if (f.armedAt == 0) return false;
  if (f.armedOp != LuIoOp::Any && f.armedOp != op) return false;
  uint64_t n = f.armedOp == LuIoOp::Any ? ofAny : ofKind;
  if (n == f.armedAt || (f.sticky && n > f.armedAt)) {
    f.fired = true;
    errno = EIO;
    return true;
  }
  return false;
}

void countBytesRead(uint64_t bytes) { faults().bytesRead += bytes; }

}  // namespace luio

namespace {

void arm(LuIoOp op, uint64_t nth, bool sticky) {
  FaultState& f = faults();
  for (auto& c : f.counts) c = 0;
  f.armedOp = op;
  f.armedAt = nth;
  f.sticky = sticky;
  f.fired = false;
}

}  // namespace

void luIoFaultArm(LuIoOp op, uint64_t nth) { arm(op, nth, false); }
void luIoFaultArmSticky(LuIoOp op, uint64_t nth) { arm(op, nth, true); }
void luIoFaultDisarm() {
  faults().armedAt = 0;
  faults().sticky = false;
}
bool luIoFaultFired() { return faults().fired; }
uint64_t luIoCallCount(LuIoOp op) { return faults().counts[static_cast<int>(op)]; }
void luIoResetCounts() {
  for (auto& c : faults().counts) c = 0;
  faults().bytesRead = 0;
}
uint64_t luIoBytesRead() { return faults().bytesRead; }
