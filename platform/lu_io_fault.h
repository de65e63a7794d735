// A fault-injection seam in the library's I/O layer, for tests: a test hook,
// not part of the installed interface (the functions are exported from the
// library so that the test programs can reach them). Every file
// operation of the library goes through one small layer that counts its calls
// by kind; arming a fault makes the N-th call of a kind (counted from the
// arming, 1-based) fail as the runtime would: open returns null, read and
// write come up short, seek returns non-zero, tell returns -1, a flush, a
// close or a sync (to the device) returns failure (a failed close still
// closes the stream), a reservation is refused. Not for production use; one thread at a time.
#pragma once

#include <cstdint>

#include <luAnaf/luExport.h>

enum class LuIoOp : int {
  Open = 0,
  Read = 1,
  Write = 2,
  Seek = 3,
  Tell = 4,
  Any = 5,
  // Added later; Any counts them too.
  Flush = 6,    // handing a stream's buffered bytes to the system
  Close = 7,    // closing a stream (its last buffered bytes go out then)
  Sync = 8,     // making a file's or a folder's contents durable on the device
  Reserve = 9,  // reserving a file's room ahead (a fault is a refusal, which loses nothing)
};

// Fail the nth call of op from now on (Any: of any kind). Replaces an armed fault.
LUANAF_API void luIoFaultArm(LuIoOp op, uint64_t nth);
// Make every call of op from the nth on fail (a device that stays broken).
LUANAF_API void luIoFaultArmSticky(LuIoOp op, uint64_t nth);
LUANAF_API void luIoFaultDisarm();
// Whether the armed fault has fired since it was armed.
LUANAF_API bool luIoFaultFired();
// Calls of op (Any: of every kind) since the last reset.
LUANAF_API uint64_t luIoCallCount(LuIoOp op);
LUANAF_API void luIoResetCounts();
// Bytes that reads (stream reads and positioned reads) asked for since the
// last reset: how much of the file a walk goes through.
LUANAF_API uint64_t luIoBytesRead();

namespace luio {
// Counts one call of op and tells whether the armed fault hits it (errno is
// then EIO). Every operation of platform/lu_io.cpp asks first.
bool injectFault(LuIoOp op);
// Counts `bytes` asked for by a read (see luIoBytesRead).
void countBytesRead(uint64_t bytes);
}  // namespace luio
