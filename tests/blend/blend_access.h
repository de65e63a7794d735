// Test access to the protected blending statics of LuAfxsUserDataSet, and a
// fixture that resets the blending state and keeps dumps in a temp folder.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

#include "support/test_support.h"

class BlendAccess : public LuAfxsUserDataSet {
public:
  using LuAfxsUserDataSet::BlendByCategory;
  using LuAfxsUserDataSet::BlendXSections;
  using LuAfxsUserDataSet::BuildMapIntersection;
  using LuAfxsUserDataSet::BuildNonBlendedAreaMapFromIntersectedQSegments;
  using LuAfxsUserDataSet::BuildNonBlendedAreaMapFromNonIntersectedQSegments;
  using LuAfxsUserDataSet::BuildProjectedPoints;
  using LuAfxsUserDataSet::CalculateBlendPointsAndSet;
  using LuAfxsUserDataSet::CategorizBlendPoints;
  using LuAfxsUserDataSet::CheckIsSameDirection;
  using LuAfxsUserDataSet::CreateBlendedUnifyPlane;
  using LuAfxsUserDataSet::FillPlaneWithSegment;
  using LuAfxsUserDataSet::FindPPointNearestQPoint;
  using LuAfxsUserDataSet::FlushCurrPlaneQStar;
  using LuAfxsUserDataSet::FlushPlanes2XYZ;
  using LuAfxsUserDataSet::GetPlaneSegments;
  using LuAfxsUserDataSet::IsPointIsEndSegment;
  using LuAfxsUserDataSet::IsPointIsStartSegment;
  using LuAfxsUserDataSet::MapBlendPointsToCouplePoints;
  using LuAfxsUserDataSet::RemoveNonLegitSegments;
  using LuAfxsUserDataSet::UpdateDistanceVector;
  using LuAfxsUserDataSet::UpdatePlaneWithSegment;
  using LuAfxsUserDataSet::XYZDumpDirectory;

  using LuAfxsUserDataSet::m_BlendedQPointsVector;
  using LuAfxsUserDataSet::m_bSupportXSBlending;
  using LuAfxsUserDataSet::m_CurrXsId;
  using LuAfxsUserDataSet::m_MapPointIndx2Category;
  using LuAfxsUserDataSet::m_MapPointIndx2PrjctdPoint;
  using LuAfxsUserDataSet::m_MapXSId2DataSet;
  using LuAfxsUserDataSet::m_VecCurrDataSets;
  using LuAfxsUserDataSet::m_VecOutputsOIDVec;
  using LuAfxsUserDataSet::m_VectQUsedSegments_P_Insert_Index;
  using LuAfxsUserDataSet::m_VectQUsedSegments_P_Insert_SegIndex;
  using LuAfxsUserDataSet::m_VectQUsedSegmentsEnd;
  using LuAfxsUserDataSet::m_VectQUsedSegmentsStart;
  using LuAfxsUserDataSet::m_VectResultedSegmentsEnd;
  using LuAfxsUserDataSet::m_VectResultedSegmentsIndx;
  using LuAfxsUserDataSet::m_VectResultedSegmentsStart;
  using LuAfxsUserDataSet::m_XSHeader;

  // Empties every scratch member and sets the plane normal (z by default).
  static void resetScratch(LuVec3 normal = {0, 0, 1}) {
    m_VectResultedSegmentsStart.clear();
    m_VectResultedSegmentsEnd.clear();
    m_VectResultedSegmentsIndx.clear();
    m_MapPointIndx2PrjctdPoint.clear();
    m_MapPointIndx2Category.clear();
    m_BlendedQPointsVector.clear();
    m_VectQUsedSegmentsStart.clear();
    m_VectQUsedSegmentsEnd.clear();
    m_VectQUsedSegments_P_Insert_Index.clear();
    m_VectQUsedSegments_P_Insert_SegIndex.clear();
    m_XSHeader.normal[0] = normal.x;
    m_XSHeader.normal[1] = normal.y;
    m_XSHeader.normal[2] = normal.z;
  }
  static void addStretch(uint32_t start, uint32_t end, uint32_t qSeg) {
    m_VectResultedSegmentsStart.push_back(start);
    m_VectResultedSegmentsEnd.push_back(end);
    m_VectResultedSegmentsIndx.push_back(qSeg);
  }
  static void project(uint32_t p, LuVec3 pnt, uint32_t q) {
    m_MapPointIndx2PrjctdPoint[static_cast<int32_t>(p)] = {pnt, q};
  }
};

// A plane whose result points equal its points, with the given segments.
inline LuAfxsPlane planeOf(const std::vector<LuVec3>& points, const std::vector<int32_t>& segments,
                           uint32_t planeId = 3, uint32_t subsetId = 1) {
  LuAfxsPlane plane;
  plane.planeId = planeId;
  plane.subsetId = subsetId;
  plane.points = points;
  plane.resPoints = points;
  plane.segments = segments;
  return plane;
}

// Points along the x axis: x = from, from + step, ... (count points), y and z given.
inline std::vector<LuVec3> line(size_t count, double from, double step, double y = 0.0,
                                double z = 0.0) {
  std::vector<LuVec3> points;
  for (size_t i = 0; i < count; ++i) points.push_back({from + step * static_cast<double>(i), y, z});
  return points;
}

// A fixture that resets the blending statics, points the dumps at its temp
// folder, and restores the default dump directory afterwards.
class BlendTest : public lutest::TempDirTest {
protected:
  void SetUp() override {
    lutest::TempDirTest::SetUp();
    BlendAccess::resetScratch();
    LuAfxsUserDataSet::SetXYZDumpDirectory(m_dir.wstring().c_str());
  }
  void TearDown() override {
    LuAfxsUserDataSet::SetXYZDumpDirectory(nullptr);
    BlendAccess::resetScratch();
    BlendAccess::m_XSHeader = LuAfxsHeader();
    lutest::TempDirTest::TearDown();
  }
  // Log messages of one level, in order.
  std::vector<std::wstring> messages(int level) { return capture().messages(level); }
};
