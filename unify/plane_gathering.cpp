// Plane gathering and per-plane unification: the planes of every data set of
// one cross-section are collected into one list per data set, walked in step
// position by position, and written into the output file either as they are
// or, when blending is on and succeeds, as one blended plane.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "format/format.h"
#include "unify/unify_events.h"
#include "writer/record_bytes.h"

namespace {

// The output id that lets the planes keep their own subset ids.
constexpr uint32_t kKeepSubsetIds = 0xFFFFFFFF;

// At least the bytes that writing every plane of the lists as it is takes:
// a plane record and a plane-subset record per plane, with the groups that
// FlushPlaneToFileLink writes.
uint64_t unblendedOutputBytes(const LuAfxsUserDataSet::PlaneLists& planeLists) {
  uint64_t bytes = 0;
  for (const LuAfxsUserDataSet::PlaneList* list : planeLists) {
    for (const LuAfxsPlane* plane : *list) {
      if (plane == nullptr) continue;
      bytes += afxs::kPlaneRecordSize + afxs::kSubsetRecordHead +
               afxs::subsetBodyBytes(*plane, afxs::unifiedGroups(*plane));
    }
  }
  return bytes;
}

}  // namespace

// Loads every data set (with mask 0), then builds one plane list per data set.
// Implementer's choices, for inputs the callers never should give:
// - a null data-set pointer counts as a data set that failed to load;
// - an output-id vector shorter than the data-set vector: a level-5 line says
//   so, and the data sets without an id are gathered as with 0xFFFFFFFF (their
//   planes keep their own subset ids), so nothing is read outside the vector
//   and no plane is lost.
bool LuAfxsUserDataSet::PrepareVectorOfPlaneVecs(PlaneLists& planeLists,
                                                 std::vector<LuAfxsUserDataSet*>& dataSets,
                                                 std::vector<uint32_t>& outputIds,
                                                 uint32_t loadMode) {
  size_t slotCount = 0;
  for (LuAfxsUserDataSet* dataSet : dataSets) {
    // Always 0 here: the records themselves are loaded with the load mode below.
    if (dataSet == nullptr || !dataSet->load(0)) {
      writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(),
                L"AddDataSets2Unify: loading Failed");
      luunify::listener().driverEnded(L"a data set could not be loaded");
      return false;
    }
    slotCount = std::max(slotCount, dataSet->size());
  }
  if (outputIds.size() < dataSets.size()) {
    writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(),
              L"LuAfxsUserDataSet::PrepareVectorOfPlaneVecs()- NumberOfOutputIds = %d < "
              L"NumberOfDataSets = %d, the planes of the data sets without an id keep their "
              L"subset ids",
              static_cast<int>(outputIds.size()), static_cast<int>(dataSets.size()));
  }

  planeLists.reserve(planeLists.size() + dataSets.size());
  // Filled beside the plane lists and never read; kept because the gathering
  // records each slot's field mask there.
  std::vector<uint32_t> companionValues;
  for (size_t i = 0; i < dataSets.size(); ++i) {
    auto planes = std::make_unique<PlaneList>();
    planes->reserve(slotCount);
    const uint32_t outputId = i < outputIds.size() ? outputIds[i] : kKeepSubsetIds;
    FillDataSetPlanesVector(*dataSets[i], *planes, companionValues, loadMode,
                            static_cast<unsigned>(slotCount), static_cast<int>(outputId));
    planeLists.push_back(planes.release());
  }
  return true;
}

// With a real output id the list is indexed by plane number and every plane
// is relabelled, in the loaded data set itself; with 0xFFFFFFFF the planes
// keep their ids and follow the placeholders in record order. A plane number
// at or beyond the list's length throws std::out_of_range out of the call
// (intended: the driver's boundary turns it into a failed call).
bool LuAfxsUserDataSet::FillDataSetPlanesVector(LuAfxsUserDataSet& dataSet, PlaneList& planes,
                                                std::vector<uint32_t>& values, uint32_t loadMode,
                                                unsigned slotCount, int outputId) {
  const uint32_t id = static_cast<uint32_t>(outputId);
  planes.insert(planes.end(), slotCount, nullptr);
  values.insert(values.end(), slotCount, kKeepSubsetIds);

  for (LuAfxsUserData* data : dataSet.m_dataList) {
    data->load(loadMode);
    LuAfxsPlane& plane = data->m_plane;
    if (id != kKeepSubsetIds) plane.subsetId = id;
    if (plane.planeId > planes.size()) {
      writeLogF(0, __LINE__, afxs::kUserSource, luEnvBuildDate(),
                L"LuAfxsUserDataSet::FillDataSetPlanesVector() Current iPlane > NumberOfPlanes, "
                L"iPlane = %d, NumberOfPlanes = %d ",
                static_cast<int>(plane.planeId), static_cast<int>(planes.size()));
    }
    if (id != kKeepSubsetIds) {
      // Checked: a plane number past the list is the caller's out-of-range error.
      planes.at(plane.planeId) = &plane;
      values.at(plane.planeId) = data->state();
    } else {
      planes.push_back(&plane);
      values.push_back(data->state());
    }
  }
  return true;
}

// The flag is accepted and not used. The results of create and of the
// unification are not looked at: the file is closed whatever happened.
void LuAfxsUserDataSet::FlushPlanesVectors(PlaneLists& planeLists, LuAfxsCreateLink& createLink,
                                           bool /*flag*/) {
  createLink.create(true);
  createLink.release();
  // Without blending every plane is written as it is, so the output's size
  // is known: its room is reserved at once (a hint; given back unused at
  // the close). A blended output is smaller by how much the blend decides.
  if (!m_bSupportXSBlending) createLink.reserve(unblendedOutputBytes(planeLists));
  UnifyMultiplePlanesBySubsetAndFlush(planeLists, createLink);
  createLink.closeFile(true);
}

// Always false (intended: callers read the log and the file, not the result).
// Planes of different plane numbers at one position stop the whole walk
// without a message.
bool LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush(PlaneLists& planeLists,
                                                            LuAfxsCreateLink& createLink) {
  const size_t listCount = planeLists.size();
  std::vector<PlaneList::const_iterator> cursors;
  std::vector<PlaneList::const_iterator> ends;
  cursors.reserve(listCount);
  ends.reserve(listCount);
  size_t length = 0;
  for (const PlaneList* list : planeLists) {
    cursors.push_back(list->begin());
    ends.push_back(list->end());
    length = std::max(length, list->size());
  }

  // One group and one blended plane serve every position: their storage is
  // reused instead of being allocated and freed (and its pages faulted in
  // again) position by position.
  PlaneList group;
  group.reserve(listCount);
  LuAfxsPlane blendedPlane;
  for (size_t position = 0; position < length; ++position) {
    group.clear();
    uint32_t expectedPlaneId = 0xFFFFFFFF;
    for (size_t k = 0; k < listCount; ++k) {
      if (cursors[k] == ends[k]) continue;
      const LuAfxsPlane* plane = *cursors[k]++;
      if (plane == nullptr) continue;
      group.push_back(plane);
      if (expectedPlaneId == 0xFFFFFFFF) {
        expectedPlaneId = plane->planeId;
      } else if (plane->planeId != expectedPlaneId) {
        for (size_t rest = position; rest < length; ++rest)
          luunify::listener().positionSkipped(
              rest, rest == position ? static_cast<int64_t>(expectedPlaneId) : -1,
              L"planes of different numbers met at one position, which ends the walk");
        return false;
      }
    }
    if (!XSectionsUnifyInto(group, createLink, blendedPlane)) {
      writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(),
                L"LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush()- XSectionsUnify Failed");
      luunify::listener().positionSkipped(
          position, expectedPlaneId == 0xFFFFFFFF ? -1 : static_cast<int64_t>(expectedPlaneId),
          L"the blend failed; the position is left out");
    }
    luunify::listener().positionDone(position + 1, length);
  }
  return false;
}

// Blends the first two planes of the group when blending is on; writes the
// blended plane alone, or else every plane of the group. False only when the
// blend itself failed; the position is then lost from the output.
bool LuAfxsUserDataSet::XSectionsUnify(PlaneList& group, LuAfxsCreateLink& createLink) {
  LuAfxsPlane blendedPlane;
  return XSectionsUnifyInto(group, createLink, blendedPlane);
}

// The blend overwrites every list of `blendedPlane` before it uses it, so a
// plane left from an earlier position serves as well as an empty one.
bool LuAfxsUserDataSet::XSectionsUnifyInto(PlaneList& group, LuAfxsCreateLink& createLink,
                                           LuAfxsPlane& blendedPlane) {
  bool blended = false;
  bool result = true;
  if (m_bSupportXSBlending) {
    result = BlendXSections(group, blendedPlane, blended);
    if (!result) return false;
    if (blended) {
      // A blend needs two planes; the guard only keeps a faulty blend from
      // reading past the group.
      const uint32_t secondSubset = group.size() > 1 ? group[1]->subsetId : 0xFFFFFFFF;
      writeLogF(0, __LINE__, afxs::kUserSource, luEnvBuildDate(),
                L"LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush()- LuAfxsCreateData:: "
                L"BlendXSections Succeeded iPlane = %d, iSubset1 = %d, iSubset2 = %d",
                static_cast<int>(group.at(0)->planeId), static_cast<int>(group.at(0)->subsetId),
                static_cast<int>(secondSubset));
      luunify::listener().planeBlended(group.at(0)->planeId);
      FlushPlaneToFileLink(&blendedPlane, createLink);
      return true;
    }
  }
  for (const LuAfxsPlane* plane : group) FlushPlaneToFileLink(plane, createLink);
  return result;
}

// Writes one plane as one plane-subset record under its own plane and subset
// ids. A plane with no points, segments, normals, result points or distances
// (aux positions alone included) is not written and counts as success. A null
// plane writes nothing and gives false.
bool LuAfxsUserDataSet::FlushPlaneToFileLink(const LuAfxsPlane* plane,
                                             LuAfxsCreateLink& createLink) {
  if (plane == nullptr) return false;
  LuAfxsCreateData data(createLink, plane->planeId, plane->subsetId);
  // Unify and flush, written straight from the plane instead of from a copy.
  const bool holdsData = data.unifyMaskOf(*plane) != 0;
  if (holdsData && !data.flushFrom(*plane)) {
    writeLogF(5, __LINE__, afxs::kUserSource, luEnvBuildDate(),
              L"LuAfxsUserDataSet::FlushPlaneToFileLink()- LuAfxsCreateData:: Flush Failed "
              L"iPlane = %d, iSubset = %d",
              static_cast<int>(plane->planeId), static_cast<int>(plane->subsetId));
    luunify::listener().planeNotWritten(*plane);
    return false;
  }
  if (holdsData) luunify::listener().planeWritten(*plane);
  return true;
}
