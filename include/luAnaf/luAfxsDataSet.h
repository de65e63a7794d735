// Every plane-subset record of one file as a set, and the static unification
// and blending machinery that works across the sets of one cross-section.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <luAnaf/luAfxsCreate.h>
#include <luAnaf/luAfxsUser.h>

namespace afxs {
class RecordArena;
}

class LUANAF_API LuAfxsUserDataSet {
public:
  using DataList = std::list<LuAfxsUserData*>;
  using iterator = DataList::iterator;
  using const_iterator = DataList::const_iterator;
  using PlaneList = std::vector<const LuAfxsPlane*>;
  using PlaneLists = std::vector<PlaneList*>;

  // A coupled P point: its projection onto Q and the Q point it was coupled with.
  struct Vec3PNT_INDX {
    LuVec3 pnt;
    uint32_t indx;
  };
  // The categories of the two ends of a blend stretch (1 to 4).
  struct UINT_UINT_CATEGOR {
    uint32_t startCategory;
    uint32_t endCategory;
  };

  // An empty set on `link`, which must outlive the set.
  explicit LuAfxsUserDataSet(LuAfxsUserLink& link);
  // Shallow: the copy shares the data objects with its source, so only one of
  // the two may ever clear or be destroyed with a non-empty list.
  LuAfxsUserDataSet(const LuAfxsUserDataSet&) = default;
  virtual ~LuAfxsUserDataSet();

  // Loads every plane-subset record with the fields in mask. The first load
  // verifies the file and, when that fails, DELETES it (a file that does not
  // exist, has a bad header or no records). Later loads add fields to the
  // records already there.
  bool load(unsigned long mask);
  // Removes the field groups in mask by rewriting the file through
  // "<path>.tmp". Result points and distances always go too. A failure
  // before the rewrite is complete leaves the file as it was (the temporary
  // file may stay); so does a cameras record that cannot be read, which the
  // rewrite would otherwise drop.
  bool remove(unsigned long mask);
  // Appends the results (result points, distances) of every record given
  // new ones with setResPoints / setDistances, all or nothing: each record
  // goes out as LuAfxsUserData::flush writes it, and when one append fails
  // (a full disk, a write error) the appends before it are taken back, the
  // file is as it was before the call, and false is returned; the records
  // keep their results in memory (hasUnflushedResults), so a later call can
  // try again. Only when the file was changed by another process meanwhile,
  // or a write of the taking back fails too, do the appends made so far
  // stay (each complete; those records no longer report unflushed results).
  // Records without new results are left alone; true when every append
  // reached the system (or none was due). A process killed during the call
  // leaves a whole file, with results on the records appended so far.
  bool flushResults();
  // The first record of the plane and subset, or end().
  iterator find(unsigned long planeId, unsigned long subsetId);
  size_t size() const { return m_dataList.size(); }
  bool empty() const { return m_dataList.empty(); }
  iterator begin() { return m_dataList.begin(); }
  iterator end() { return m_dataList.end(); }
  const_iterator begin() const { return m_dataList.begin(); }
  const_iterator end() const { return m_dataList.end(); }
  void closefile();
  LuAfxsUserLink* link() const { return m_link; }

  // ---- Unification drivers (work on the static registry only; the object
  // they are called on is not used). All three return false on every path:
  // the log and the output file tell what happened.
  bool UnifyMultipleDataSets(std::vector<LuAfxsUserDataSet*>& dataSets,
                             std::vector<uint32_t>& outputIds, LuAfxsCreateLink& createLink,
                             uint32_t loadMode);
  bool AddDataSets2Unify(std::vector<LuAfxsUserDataSet*>& dataSets,
                         std::vector<uint32_t>& outputIds, LuAfxsUserLink* userLink,
                         LuAfxsCreateLink& createLink, uint32_t loadMode);
  bool RemoveDataSetsFromUnify(std::vector<uint32_t>& subsetIdsToRemove, LuAfxsUserLink* userLink,
                               LuAfxsCreateLink& createLink, uint32_t loadMode,
                               uint32_t& remainingCount);

  // ---- Registry switches.
  static void SetCurrentXSId(uint32_t id);
  static void SupportXSectionBlending(bool on);
  // Destroys the data sets registered for xsId and drops its entry.
  static void ClearXSBlendingInfo(unsigned int xsId);
  // Where diagnostic point dumps go; null restores the default
  // (LUANAF_XYZ_DIR, else /tmp/XYZ/ or c:\Temp\XYZ\). The directory is never created.
  static void SetXYZDumpDirectory(const wchar_t* dir);

protected:
  void clear(bool keepOpen);
  void push_back(LuAfxsUserData* const& data);
  // A data object for the record whose first field block is at `recordOffset`,
  // entered at the end of the list.
  LuAfxsUserData* newRecord(long recordOffset, uint32_t planeId, uint32_t subsetId);
  LuAfxsHeader getHeader();
  unsigned int getSubsetsIds(std::vector<unsigned int>& ids);
  unsigned int getCurrentSubsetsPlanes(std::vector<const LuAfxsPlane*>* planes,
                                       unsigned int subsetId, unsigned long mask);

  // ---- Plane gathering and per-plane unification.
  static bool PrepareVectorOfPlaneVecs(PlaneLists& planeLists,
                                       std::vector<LuAfxsUserDataSet*>& dataSets,
                                       std::vector<uint32_t>& outputIds, uint32_t loadMode);
  static bool FillDataSetPlanesVector(LuAfxsUserDataSet& dataSet, PlaneList& planes,
                                      std::vector<uint32_t>& values, uint32_t loadMode,
                                      unsigned slotCount, int outputId);
  static void FlushPlanesVectors(PlaneLists& planeLists, LuAfxsCreateLink& createLink, bool flag);
  static bool UnifyMultiplePlanesBySubsetAndFlush(PlaneLists& planeLists,
                                                  LuAfxsCreateLink& createLink);
  static bool XSectionsUnify(PlaneList& group, LuAfxsCreateLink& createLink);
  // The same with the blended plane's storage given by the caller (its
  // contents are overwritten), so that a walk reuses one plane throughout.
  static bool XSectionsUnifyInto(PlaneList& group, LuAfxsCreateLink& createLink,
                                 LuAfxsPlane& blendedPlane);
  static bool FlushPlaneToFileLink(const LuAfxsPlane* plane, LuAfxsCreateLink& createLink);

  // ---- Diagnostic point dumps.
  static void FlushPlanes2XYZ(const LuAfxsPlane* plane, unsigned id, bool org, bool resultPoints,
                              std::wstring suffix);
  static void FlushCurrPlaneQStar(std::map<int, Vec3PNT_INDX>& projected, unsigned id,
                                  unsigned plane);
  static std::wstring XYZDumpDirectory();

  // ---- Blending stages.
  static bool BlendXSections(std::vector<const LuAfxsPlane*>& planes, LuAfxsPlane& out,
                             bool& blended);
  static bool BuildProjectedPoints(const LuAfxsPlane* P, const LuAfxsPlane* Q);
  static size_t GetPlaneSegments(const LuAfxsPlane* plane, std::vector<unsigned int>& starts,
                                 std::vector<unsigned int>& ends);
  static bool FindPPointNearestQPoint(const LuAfxsPlane* P, const LuAfxsPlane* Q, LuVec3& normal,
                                      std::vector<unsigned int>& qStarts,
                                      std::vector<unsigned int>& qEnds, unsigned int qSeg,
                                      unsigned int pIndex, unsigned int& qIndex, double& dist2,
                                      bool useResPoints);
  static bool CheckIsSameDirection(const std::vector<LuVec3>& pPoints,
                                   const std::vector<LuVec3>& qPoints, unsigned int pIndex,
                                   unsigned int qIndex);
  static bool BuildMapIntersection(const LuAfxsPlane* P, const LuAfxsPlane* Q, LuVec3& normal,
                                   std::vector<unsigned int>& qStarts,
                                   std::vector<unsigned int>& qEnds, unsigned int pFirst,
                                   unsigned int pLast);
  static bool RemoveNonLegitSegments(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                     std::vector<unsigned int>& qStarts,
                                     std::vector<unsigned int>& qEnds);
  static bool MapBlendPointsToCouplePoints(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                           LuVec3& normal, std::vector<unsigned int>& qStarts,
                                           std::vector<unsigned int>& qEnds, unsigned int pFirst,
                                           unsigned int pLast, unsigned int qSeg,
                                           bool sameDirection);
  static bool IsPointIsStartSegment(const LuAfxsPlane* plane, unsigned int index,
                                    unsigned int tolerance);
  static bool IsPointIsEndSegment(const LuAfxsPlane* plane, unsigned int index,
                                  unsigned int tolerance);
  static bool CategorizBlendPoints(const LuAfxsPlane* P, const LuAfxsPlane* Q);
  static bool BlendByCategory(const LuAfxsPlane* P, const LuAfxsPlane* Q, LuAfxsPlane& out);
  static void CalculateBlendPointsAndSet(const LuAfxsPlane* P, LuAfxsPlane& out,
                                         const LuAfxsPlane* Q, unsigned int first,
                                         unsigned int last, double pWeight, double qWeight,
                                         double pStep, double qStep);
  static bool UpdateDistanceVector(LuAfxsPlane* plane, const LuAfxsPlane* second);
  static bool CreateBlendedUnifyPlane(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                      LuAfxsPlane& blended);
  static unsigned BuildNonBlendedAreaMapFromIntersectedQSegments(const LuAfxsPlane* P,
                                                                 const LuAfxsPlane* Q);
  static unsigned BuildNonBlendedAreaMapFromNonIntersectedQSegments(
      const LuAfxsPlane* blended, const LuAfxsPlane* Q, std::vector<unsigned int>& starts,
      std::vector<unsigned int>& ends, std::vector<unsigned int>& insertIndex,
      std::vector<int>& insertSegIndex);
  static void UpdatePlaneWithSegment(LuAfxsPlane& target, const LuAfxsPlane* Q,
                                     std::vector<unsigned int>& starts,
                                     std::vector<unsigned int>& ends,
                                     std::vector<unsigned int>& insertIndex,
                                     std::vector<int>& insertSegIndex);
  static void FillPlaneWithSegment(LuAfxsPlane& target, const LuAfxsPlane* Q, unsigned int at,
                                   unsigned int first, unsigned int last);

  // ---- Instance state.
  LuAfxsUserLink* m_link;
  bool m_loaded = false;
  DataList m_dataList;
  // Where the first load puts the data objects it makes (shared by shallow
  // copies, as the objects are); an object pushed from elsewhere is a heap
  // object of its own.
  std::shared_ptr<afxs::RecordArena> m_records;

  // ---- Unification registry (process-wide, unguarded: one thread at a time).
  static std::map<uint32_t, std::vector<LuAfxsUserDataSet*>> m_MapXSId2DataSet;
  static std::vector<LuAfxsUserDataSet*> m_VecCurrDataSets;
  static uint32_t m_CurrXsId;
  static LuAfxsHeader m_XSHeader;
  static bool m_bSupportXSBlending;
  static std::vector<uint32_t> m_VecOutputsOIDVec;

  // ---- Blending scratch state: describes the last P/Q pair blended.
  static std::vector<uint32_t> m_VectResultedSegmentsStart;
  static std::vector<uint32_t> m_VectResultedSegmentsEnd;
  static std::vector<uint32_t> m_VectResultedSegmentsIndx;
  static std::map<int32_t, Vec3PNT_INDX> m_MapPointIndx2PrjctdPoint;
  static std::map<uint32_t, UINT_UINT_CATEGOR> m_MapPointIndx2Category;
  static std::vector<bool> m_BlendedQPointsVector;
  static std::vector<uint32_t> m_VectQUsedSegmentsStart;
  static std::vector<uint32_t> m_VectQUsedSegmentsEnd;
  static std::vector<uint32_t> m_VectQUsedSegments_P_Insert_Index;
  static std::vector<int32_t> m_VectQUsedSegments_P_Insert_SegIndex;

  // ---- Dump directory override (SetXYZDumpDirectory).
  static std::wstring m_XYZDumpDirOverride;
  static bool m_bXYZDumpDirOverridden;
};
