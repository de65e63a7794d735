// The plain records every part of the library passes around. Exported: their
// field order and types are part of the interface.
#pragma once

#include <cstdint>
#include <vector>

#include <luAnaf/luExport.h>
#include <luAnaf/luGeom.h>

// Record kinds as they stand in each record header (u32). Written to disk:
// never renumber.
enum luafxs_records_en : uint32_t {
  LU_AFXS_REC_CAMERAS = 0,       // at most one per file
  LU_AFXS_REC_PLANE = 1,         // one per plane number, heads its subset chain
  LU_AFXS_REC_PLANE_SUBSET = 2,  // the data of one plane in one subset
  LU_AFXS_REC_RESULTS = 3,       // result points and distances appended later
};

// Field-mask bits, one per field group.
enum : uint32_t {
  LU_AFXS_MASK_POINTS = 1,
  LU_AFXS_MASK_SEGMENTS = 2,
  LU_AFXS_MASK_NORMALS = 4,
  LU_AFXS_MASK_AUX = 8,  // auxCtrlFirst, auxCtrlOffsets, auxCtrlCounts, auxCtrlPos
  LU_AFXS_MASK_RESPOINTS = 16,
  LU_AFXS_MASK_DISTANCES = 32,
  LU_AFXS_MASK_ALL = 63,
};

// The text header of a file. A new header has version, numPlanes and
// distBwPlanes 0; point and normal start at 0 here and are meant to be set.
struct LUANAF_API LuAfxsHeader {
  int32_t version = 0;
  double point[3] = {0, 0, 0};
  double normal[3] = {0, 0, 0};
  uint64_t numPlanes = 0;  // written with a 32-bit " %d": low 32 bits, signed
  double distBwPlanes = 0;

  LuAfxsHeader() = default;
  LuAfxsHeader(const LuAfxsHeader&) = default;
  LuAfxsHeader& operator=(const LuAfxsHeader&) = default;
  LuAfxsHeader(LuAfxsHeader&&) noexcept = default;
  LuAfxsHeader& operator=(LuAfxsHeader&&) noexcept = default;
  virtual ~LuAfxsHeader();
};

// The cameras table: one 24-byte entry per camera, stored raw.
struct LUANAF_API LuAfxsCamerasTable {
  std::vector<LuVec3> cameras;

  LuAfxsCamerasTable() = default;
  LuAfxsCamerasTable(const LuAfxsCamerasTable&) = default;
  LuAfxsCamerasTable& operator=(const LuAfxsCamerasTable&) = default;
  LuAfxsCamerasTable(LuAfxsCamerasTable&&) noexcept = default;
  LuAfxsCamerasTable& operator=(LuAfxsCamerasTable&&) noexcept = default;
  virtual ~LuAfxsCamerasTable();
};

// The data of one plane (cross-section) in one subset (data set).
struct LUANAF_API LuAfxsPlane {
  uint32_t planeId = 0;
  uint32_t subsetId = 0;
  std::vector<LuVec3> points;            // field 0, mask 1
  std::vector<LuVec3> normals;           // field 1, mask 4, parallel to points
  std::vector<int32_t> segments;         // field 2, mask 2: running point counts
  std::vector<uint32_t> auxCtrlFirst;    // field 3, mask 8: first position of each group
  std::vector<uint32_t> auxCtrlOffsets;  // field 8, mask 8: exclusive prefix sum of counts
  std::vector<uint32_t> auxCtrlCounts;   // field 9, mask 8: positions per group
  std::vector<uint32_t> auxCtrlPos;      // field 7, mask 8: all positions, group after group
  std::vector<LuVec3> resPoints;         // field 5, mask 16, parallel to points
  std::vector<double> distances;         // field 6, mask 32, parallel to points

  LuAfxsPlane() = default;
  LuAfxsPlane(const LuAfxsPlane&) = default;
  LuAfxsPlane& operator=(const LuAfxsPlane&) = default;
  LuAfxsPlane(LuAfxsPlane&&) noexcept = default;
  LuAfxsPlane& operator=(LuAfxsPlane&&) noexcept = default;
  virtual ~LuAfxsPlane();
};
