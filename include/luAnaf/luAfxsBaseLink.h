// The common root of both file links.
#pragma once

#include <luAnaf/luExport.h>

// Holds nothing of its own; the writer and reader links derive from it so
// that both share one exported root type.
class LUANAF_API LuAfxsBaseLink {
public:
  LuAfxsBaseLink();
  LuAfxsBaseLink(const LuAfxsBaseLink&);
  // Copies nothing.
  LuAfxsBaseLink& operator=(const LuAfxsBaseLink&);
  virtual ~LuAfxsBaseLink();
};
