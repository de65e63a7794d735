// The unification drivers: start a cross-section, add data sets to it, take
// data sets out of it. Each call updates the static registry and rewrites the
// whole output file from every data set registered for the current id.
//
// All three return false on every path, success included (intended: callers
// learn the outcome from the log and the output file, and rely on that).
// Each has one try/catch at its boundary: a standard-library exception raised
// while the planes are gathered or blended (an out-of-range plane number, an
// empty group handed to the blend) ends the call there; it is logged once at
// level 5 with the driver's name, the output file is closed, the plane lists
// are freed, and no exception reaches the client.
#include <algorithm>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "format/format.h"
#include "platform/lu_io.h"
#include "unify/unify_events.h"

namespace {

void freePlaneLists(LuAfxsUserDataSet::PlaneLists& planeLists) {
  for (LuAfxsUserDataSet::PlaneList* list : planeLists) delete list;
  planeLists.clear();
}

std::wstring widen(const char* text) { return luio::widen(text != nullptr ? text : ""); }

// Add and Remove work only on a user link that verifies; one that does not has
// its file deleted (intended). A null link counts as invalid, with no file.
bool userLinkVerifies(LuAfxsUserLink* userLink) {
  if (userLink == nullptr) return false;
  if (userLink->verify(true)) return true;
  userLink->remove();
  return false;
}

// The one level-5 line of a driver that an exception ended, then the cleanup
// the driver would have done: the output file closed, the plane lists freed.
void endDriverOnException(const wchar_t* driver, const std::wstring& what,
                          LuAfxsCreateLink& createLink, LuAfxsUserDataSet::PlaneLists& planeLists) {
  writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(), L"%ls- Exception: %ls", driver,
            what.c_str());
  luunify::listener().driverEnded(what);
  try {
    createLink.closeFile(true);
  } catch (...) {
    // closeFile reports its own failures; nothing may leave the driver.
  }
  freePlaneLists(planeLists);
}

}  // namespace

// m_XSHeader is taken from the first data set before the drivers load
// anything (intended order): a data set whose link has not read its file yet
// gives an empty header, so a client that blends loads the first data set
// first (the header's normal steers the blend).
//
// Implementer's choices:
// - An empty data-set list: the registry entry for the current id is still
//   replaced (by an empty one), m_XSHeader keeps its value, a level-5 line says
//   that there is no data set, and the output file is written with its header
//   and no planes, as for an empty cross-section.
// - An output-id vector shorter than the data-set vector: see
//   PrepareVectorOfPlaneVecs (logged; the data sets without an id keep their
//   subset ids).
bool LuAfxsUserDataSet::UnifyMultipleDataSets(std::vector<LuAfxsUserDataSet*>& dataSets,
                                              std::vector<uint32_t>& outputIds,
                                              LuAfxsCreateLink& createLink, uint32_t loadMode) {
  static constexpr const wchar_t* kDriver = L"LuAfxsUserDataSet::UnifyMultipleDataSets()";
  writeLogF(0, __LINE__, afxs::kUserSource, luEnvBuildDate(),
            L"LuAfxsUserDataSet::UnifyMultipleDataSets()- NumberOfDataSets = %d,",
            static_cast<int>(dataSets.size()));
  PlaneLists planeLists;
  try {
    m_VecCurrDataSets = dataSets;
    m_VecOutputsOIDVec = outputIds;
    // Replaced as a whole: the map never shares storage with m_VecCurrDataSets.
    m_MapXSId2DataSet.erase(m_CurrXsId);
    m_MapXSId2DataSet.insert({m_CurrXsId, m_VecCurrDataSets});

    if (!dataSets.empty() && dataSets.front() != nullptr) {
      m_XSHeader = dataSets.front()->getHeader();
    } else if (dataSets.empty()) {
      writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(),
                L"LuAfxsUserDataSet::UnifyMultipleDataSets()- No DataSets, the output holds no "
                L"planes");
    }
    PrepareVectorOfPlaneVecs(planeLists, dataSets, outputIds, loadMode);
    FlushPlanesVectors(planeLists, createLink, true);
  } catch (const std::exception& e) {
    endDriverOnException(kDriver, widen(e.what()), createLink, planeLists);
  } catch (...) {
    endDriverOnException(kDriver, L"unknown", createLink, planeLists);
  }
  freePlaneLists(planeLists);
  return false;
}

// A null user link counts as an invalid one that has no file to delete.
bool LuAfxsUserDataSet::AddDataSets2Unify(std::vector<LuAfxsUserDataSet*>& dataSets,
                                          std::vector<uint32_t>& outputIds,
                                          LuAfxsUserLink* userLink, LuAfxsCreateLink& createLink,
                                          uint32_t loadMode) {
  static constexpr const wchar_t* kDriver = L"LuAfxsUserDataSet::AddDataSets2Unify()";
  writeLogF(0, __LINE__, afxs::kUserSource, luEnvBuildDate(),
            L"LuAfxsUserDataSet::AddDataSets2Unify()- NumberOfDataSets = %d,",
            static_cast<int>(dataSets.size()));
  PlaneLists planeLists;
  try {
    if (!userLinkVerifies(userLink)) return false;
    auto entry = m_MapXSId2DataSet.find(m_CurrXsId);
    // Add never creates an entry: UnifyMultipleDataSets starts a cross-section.
    if (entry == m_MapXSId2DataSet.end()) return false;

    m_VecCurrDataSets = entry->second;
    m_VecCurrDataSets.insert(m_VecCurrDataSets.end(), dataSets.begin(), dataSets.end());
    // Still holds the ids of the earlier calls for this cross-section.
    m_VecOutputsOIDVec.insert(m_VecOutputsOIDVec.end(), outputIds.begin(), outputIds.end());
    m_MapXSId2DataSet.erase(m_CurrXsId);
    m_MapXSId2DataSet.insert({m_CurrXsId, m_VecCurrDataSets});

    PrepareVectorOfPlaneVecs(planeLists, m_VecCurrDataSets, m_VecOutputsOIDVec, loadMode);
    FlushPlanesVectors(planeLists, createLink, false);
  } catch (const std::exception& e) {
    endDriverOnException(kDriver, widen(e.what()), createLink, planeLists);
  } catch (...) {
    endDriverOnException(kDriver, L"unknown", createLink, planeLists);
  }
  freePlaneLists(planeLists);
  return false;
}

// Deletes (through the virtual destructor) every registered data set that
// holds one of the ids to remove. The output ids are then sorted and lose the
// removed ids by value, not by position (intended: the pairing of data sets
// and ids survives only ids given in ascending order). The caller's list is
// sorted in place. A null user link counts as an invalid one; a null data-set
// pointer in the registry is passed over.
bool LuAfxsUserDataSet::RemoveDataSetsFromUnify(std::vector<uint32_t>& subsetIdsToRemove,
                                                LuAfxsUserLink* userLink,
                                                LuAfxsCreateLink& createLink, uint32_t loadMode,
                                                uint32_t& remainingCount) {
  static constexpr const wchar_t* kDriver = L"LuAfxsUserDataSet::RemoveDataSetsFromUnify()";
  writeLogF(0, __LINE__, afxs::kUserSource, luEnvBuildDate(),
            L"LuAfxsUserDataSet::RemoveDataSetsFromUnify()- NumberOfDataSets to Remove  = %d,",
            static_cast<int>(subsetIdsToRemove.size()));
  PlaneLists planeLists;
  try {
    if (!userLinkVerifies(userLink)) return false;
    auto entry = m_MapXSId2DataSet.find(m_CurrXsId);
    if (entry == m_MapXSId2DataSet.end()) return false;
    m_VecCurrDataSets = entry->second;

    size_t position = 0;
    while (position < m_VecCurrDataSets.size()) {
      LuAfxsUserDataSet* dataSet = m_VecCurrDataSets[position];
      if (dataSet == nullptr) {
        ++position;
        continue;
      }
      dataSet->load(loadMode);
      std::vector<unsigned int> ids;
      if (dataSet->getSubsetsIds(ids) == 0 || ids.empty()) {
        ++position;
        continue;
      }
      const bool matches = std::any_of(ids.begin(), ids.end(), [&](unsigned int id) {
        return std::find(subsetIdsToRemove.begin(), subsetIdsToRemove.end(), id) !=
               subsetIdsToRemove.end();
      });
      if (!matches) {
        ++position;
        continue;
      }
      delete dataSet;
      m_VecCurrDataSets.erase(m_VecCurrDataSets.begin() + static_cast<std::ptrdiff_t>(position));
      m_MapXSId2DataSet.erase(m_CurrXsId);
      m_MapXSId2DataSet.insert({m_CurrXsId, m_VecCurrDataSets});
      // The same position now holds the next data set: examine it again.
    }
    remainingCount = static_cast<uint32_t>(m_VecCurrDataSets.size());

    std::sort(m_VecOutputsOIDVec.begin(), m_VecOutputsOIDVec.end());
    std::sort(subsetIdsToRemove.begin(), subsetIdsToRemove.end());
    std::vector<uint32_t> kept;
    kept.reserve(m_VecOutputsOIDVec.size());
    std::set_difference(m_VecOutputsOIDVec.begin(), m_VecOutputsOIDVec.end(),
                        subsetIdsToRemove.begin(), subsetIdsToRemove.end(),
                        std::back_inserter(kept));
    m_VecOutputsOIDVec = std::move(kept);

    PrepareVectorOfPlaneVecs(planeLists, m_VecCurrDataSets, m_VecOutputsOIDVec, loadMode);
    FlushPlanesVectors(planeLists, createLink, false);
  } catch (const std::exception& e) {
    endDriverOnException(kDriver, widen(e.what()), createLink, planeLists);
  } catch (...) {
    endDriverOnException(kDriver, L"unknown", createLink, planeLists);
  }
  freePlaneLists(planeLists);
  return false;
}
