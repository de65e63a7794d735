// Test helpers of the unification suites: synthetic scan files (arcs of a
// circle per plane, with normals, segments, result points and distances),
// a probe that reaches the protected unification statics, and a fixture that
// owns links and heap-allocated data sets, resets the process-wide registry
// around each test and reads output files back with the library's reader.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

#include "support/test_support.h"

namespace lutest {

// One synthetic plane subset: `points` points on an arc of radius `radius`
// in the plane z = planeId, from startDeg to endDeg, cut into `segments`
// segments of (nearly) equal length. Normals point outwards; result points
// lie `offset` outside the points; distances hold the offset.
struct ArcShape {
  double startDeg = 0;
  double endDeg = 90;
  size_t points = 16;
  unsigned segments = 2;
  double radius = 100;
  double offset = 0.25;
  bool normals = true;
  bool results = true;   // result points and distances
  bool aux = false;      // two groups of aux control positions
  bool auxOnly = false;  // aux control positions and nothing else
};

LuAfxsPlane makeArcPlane(uint32_t planeId, uint32_t subsetId, const ArcShape& shape);

// The header every synthetic scan carries.
LuAfxsHeader scanHeader(uint64_t numPlanes);

// Writes the planes, in the order given, as one file through the writer.
bool writeScanFile(const std::wstring& path, const std::vector<LuAfxsPlane>& planes,
                   const LuAfxsHeader& header);

// What one plane-subset record of a file read back holds.
struct RecordCounts {
  uint32_t planeId = 0;
  uint32_t subsetId = 0;
  size_t points = 0;
  size_t normals = 0;
  size_t segments = 0;
  size_t auxPos = 0;
  size_t resPoints = 0;
  size_t distances = 0;
  bool operator==(const RecordCounts&) const = default;
};
std::ostream& operator<<(std::ostream& out, const RecordCounts& r);

// The counts a plane is expected to be written with (aux groups never travel
// through unification).
RecordCounts countsOf(const LuAfxsPlane& plane, uint32_t subsetId);

// Reaches the protected unification statics.
class UnifyProbe : public LuAfxsUserDataSet {
public:
  using LuAfxsUserDataSet::FillDataSetPlanesVector;
  using LuAfxsUserDataSet::FlushPlanesVectors;
  using LuAfxsUserDataSet::FlushPlaneToFileLink;
  using LuAfxsUserDataSet::PrepareVectorOfPlaneVecs;
  using LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush;
  using LuAfxsUserDataSet::XSectionsUnify;

  static std::map<uint32_t, std::vector<LuAfxsUserDataSet*>>& registry() {
    return m_MapXSId2DataSet;
  }
  static std::vector<LuAfxsUserDataSet*>& currentDataSets() { return m_VecCurrDataSets; }
  static std::vector<uint32_t>& outputIds() { return m_VecOutputsOIDVec; }
  static LuAfxsHeader& xsHeader() { return m_XSHeader; }
  static uint32_t currentXsId() { return m_CurrXsId; }
  static bool blending() { return m_bSupportXSBlending; }
};

// A data set whose destruction is recorded, so tests can tell which data
// sets a driver deleted.
class TrackedDataSet : public LuAfxsUserDataSet {
public:
  TrackedDataSet(LuAfxsUserLink& link, std::string label, std::vector<std::string>* destroyed)
      : LuAfxsUserDataSet(link), m_label(std::move(label)), m_destroyed(destroyed) {}
  ~TrackedDataSet() override {
    if (m_destroyed != nullptr) m_destroyed->push_back(m_label);
  }
  const std::string& label() const { return m_label; }

private:
  std::string m_label;
  std::vector<std::string>* m_destroyed;
};

class UnifyTest : public TempDirTest {
protected:
  void SetUp() override;
  void TearDown() override;

  // Writes a scan file of the given planes (each an arc after `shape`) in the
  // order given, all under subsetId.
  void writeScan(const std::string& name, uint32_t subsetId, const std::vector<uint32_t>& planeIds,
                 const ArcShape& shape = {});
  // A heap-allocated data set on a new link to the file (not loaded). The
  // fixture deletes it afterwards unless the registry took it over.
  LuAfxsUserDataSet* dataSet(const std::string& name);
  // A user link on a valid file, for Add and Remove.
  LuAfxsUserLink* anchorLink();

  // The drivers, writing to `output` in the temp folder (one camera in the
  // output, so a file without planes still reads back as an empty set).
  bool unify(std::vector<LuAfxsUserDataSet*> sets, std::vector<uint32_t> ids,
             const std::string& output, uint32_t mode = LU_AFXS_MASK_ALL);
  bool add(std::vector<LuAfxsUserDataSet*> sets, std::vector<uint32_t> ids,
           const std::string& output, uint32_t mode = LU_AFXS_MASK_ALL,
           LuAfxsUserLink* userLink = nullptr);
  bool removeIds(std::vector<uint32_t>& ids, uint32_t& remaining, const std::string& output,
                 uint32_t mode = LU_AFXS_MASK_ALL, LuAfxsUserLink* userLink = nullptr);

  // The records of an output file in the reader's order (planes ascending,
  // subsets in chain order); nullopt when it does not load.
  std::optional<std::vector<RecordCounts>> readOutput(const std::string& name);
  bool exists(const std::string& name) const;
  bool loggedPrefix(int level, const std::wstring& prefix) const;
  size_t countLogged(int level, const std::wstring& prefix) const;

  std::vector<std::string> m_destroyed;   // labels of destroyed tracked data sets
  LuAfxsUserDataSet* m_driver = nullptr;  // the object the drivers are called on

private:
  std::vector<std::unique_ptr<LuAfxsUserLink>> m_links;
  std::vector<LuAfxsUserDataSet*> m_owned;
  std::set<LuAfxsUserDataSet*> m_deletedByDriver;
  std::unique_ptr<LuAfxsUserLink> m_driverLink;
  std::unique_ptr<LuAfxsUserDataSet> m_driverSet;
  LuAfxsUserLink* m_anchor = nullptr;
};

}  // namespace lutest
