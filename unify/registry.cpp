// The unification registry: every static member of LuAfxsUserDataSet (the
// registry itself, the blending scratch state, the dump-directory override)
// and the two switches a client sets before it calls a driver.
//
// All of it is process-wide and unguarded: the library serves one thread at a
// time and one unification at a time.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

// ---- Registry. Starts empty: current id 0, blending off.
std::map<uint32_t, std::vector<LuAfxsUserDataSet*>> LuAfxsUserDataSet::m_MapXSId2DataSet;
std::vector<LuAfxsUserDataSet*> LuAfxsUserDataSet::m_VecCurrDataSets;
uint32_t LuAfxsUserDataSet::m_CurrXsId = 0;
LuAfxsHeader LuAfxsUserDataSet::m_XSHeader;
bool LuAfxsUserDataSet::m_bSupportXSBlending = false;
std::vector<uint32_t> LuAfxsUserDataSet::m_VecOutputsOIDVec;

// ---- Blending scratch state: describes the last P/Q pair blended.
std::vector<uint32_t> LuAfxsUserDataSet::m_VectResultedSegmentsStart;
std::vector<uint32_t> LuAfxsUserDataSet::m_VectResultedSegmentsEnd;
std::vector<uint32_t> LuAfxsUserDataSet::m_VectResultedSegmentsIndx;
std::map<int32_t, LuAfxsUserDataSet::Vec3PNT_INDX> LuAfxsUserDataSet::m_MapPointIndx2PrjctdPoint;
std::map<uint32_t, LuAfxsUserDataSet::UINT_UINT_CATEGOR> LuAfxsUserDataSet::m_MapPointIndx2Category;
std::vector<bool> LuAfxsUserDataSet::m_BlendedQPointsVector;
std::vector<uint32_t> LuAfxsUserDataSet::m_VectQUsedSegmentsStart;
std::vector<uint32_t> LuAfxsUserDataSet::m_VectQUsedSegmentsEnd;
std::vector<uint32_t> LuAfxsUserDataSet::m_VectQUsedSegments_P_Insert_Index;
std::vector<int32_t> LuAfxsUserDataSet::m_VectQUsedSegments_P_Insert_SegIndex;

// ---- Dump directory override: unset until SetXYZDumpDirectory is called.
std::wstring LuAfxsUserDataSet::m_XYZDumpDirOverride;
bool LuAfxsUserDataSet::m_bXYZDumpDirOverridden = false;

// Changes only the id: the data sets registered under the previous id stay in
// the map.
void LuAfxsUserDataSet::SetCurrentXSId(uint32_t id) { m_CurrXsId = id; }

void LuAfxsUserDataSet::SupportXSectionBlending(bool on) { m_bSupportXSBlending = on; }
