// The listener in force for unification events.
#include "unify/unify_events.h"

namespace luunify {

namespace {

class Nobody final : public UnifyListener {
public:
  void planeWritten(const LuAfxsPlane&) override {}
  void planeBlended(uint32_t) override {}
  void positionSkipped(uint64_t, int64_t, const wchar_t*) override {}
  void positionDone(uint64_t, uint64_t) override {}
  void planeNotWritten(const LuAfxsPlane&) override {}
  void driverEnded(const std::wstring&) override {}
};

Nobody g_nobody;
UnifyListener* g_listener = &g_nobody;

}  // namespace

UnifyListener& listener() { return *g_listener; }

ScopedListener::ScopedListener(UnifyListener& listener) : m_previous(g_listener) {
  g_listener = &listener;
}

ScopedListener::~ScopedListener() { g_listener = m_previous; }

}  // namespace luunify
