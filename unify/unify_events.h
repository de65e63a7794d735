// What a unification does, told as it happens: the drivers and the per-plane
// stages report each plane written, each plane blended, each position left
// out and a driver that ended early to the listener in force. The front door
// (luAfxsUnifyFiles) counts them; without a listener nothing is kept.
//
// Internal to the library. Process-wide and unguarded, as the registry is:
// one unification at a time.
#pragma once

#include <cstdint>
#include <string>

struct LuAfxsPlane;

namespace luunify {

class UnifyListener {
public:
  virtual ~UnifyListener() = default;
  // A plane-subset record reached the output.
  virtual void planeWritten(const LuAfxsPlane& plane) = 0;
  // The first two planes of a position were written as one blended plane.
  virtual void planeBlended(uint32_t planeId) = 0;
  // A position of the walk gave no plane in the output.
  virtual void positionSkipped(uint64_t position, int64_t planeId, const wchar_t* reason) = 0;
  // The walk finished a position (done of all).
  virtual void positionDone(uint64_t done, uint64_t all) = 0;
  // A plane could not be written (its records are missing from the output).
  virtual void planeNotWritten(const LuAfxsPlane& plane) = 0;
  // A driver ended before its end (an exception, a data set that did not load).
  virtual void driverEnded(const std::wstring& what) = 0;
};

// The listener in force; a listener that ignores everything when none is set.
UnifyListener& listener();

// Puts a listener in force for its lifetime, then the previous one again.
class ScopedListener {
public:
  explicit ScopedListener(UnifyListener& listener);
  ~ScopedListener();
  ScopedListener(const ScopedListener&) = delete;
  ScopedListener& operator=(const ScopedListener&) = delete;

private:
  UnifyListener* m_previous;
};

}  // namespace luunify
