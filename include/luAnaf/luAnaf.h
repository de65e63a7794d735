// luAnaf: cross-section files of measured 3D objects. The one include a
// client needs. Only the headers of include/luAnaf/ are public.
#pragma once

#include <luAnaf/luExport.h>
#include <luAnaf/luEnv.h>
#include <luAnaf/luGeom.h>
#include <luAnaf/luAfxsRecords.h>
#include <luAnaf/luAfxsBaseLink.h>
#include <luAnaf/luAfxsCreate.h>
#include <luAnaf/luAfxsUser.h>
#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAfxsArrayCache.h>
#include <luAnaf/luAfxsOutput.h>
#include <luAnaf/luUtf8.h>
#include <luAnaf/luAfxsUnify.h>
#include <luAnaf/luAfxsSection.h>
