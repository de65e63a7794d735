// Out-of-line virtual destructors of the exported records and the base link,
// so that their type information lives in the library.
#include <luAnaf/luAfxsBaseLink.h>
#include <luAnaf/luAfxsRecords.h>

LuAfxsHeader::~LuAfxsHeader() = default;
LuAfxsCamerasTable::~LuAfxsCamerasTable() = default;
LuAfxsPlane::~LuAfxsPlane() = default;

LuAfxsBaseLink::LuAfxsBaseLink() = default;
LuAfxsBaseLink::LuAfxsBaseLink(const LuAfxsBaseLink&) {}
LuAfxsBaseLink& LuAfxsBaseLink::operator=(const LuAfxsBaseLink&) { return *this; }
LuAfxsBaseLink::~LuAfxsBaseLink() = default;
