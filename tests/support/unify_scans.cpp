#include "support/unify_scans.h"

#include <cmath>
#include <numbers>
#include <ostream>

namespace lutest {

LuAfxsPlane makeArcPlane(uint32_t planeId, uint32_t subsetId, const ArcShape& shape) {
  LuAfxsPlane plane;
  plane.planeId = planeId;
  plane.subsetId = subsetId;
  if (shape.auxOnly) {
    plane.auxCtrlPos = {0, 1, 2, 3, 4};
    return plane;
  }
  const double z = static_cast<double>(planeId);
  for (size_t i = 0; i < shape.points; ++i) {
    const double t =
        shape.points > 1 ? static_cast<double>(i) / static_cast<double>(shape.points - 1) : 0.0;
    const double angle =
        (shape.startDeg + t * (shape.endDeg - shape.startDeg)) * std::numbers::pi / 180.0;
    const LuVec3 normal{std::cos(angle), std::sin(angle), 0};
    const LuVec3 point{shape.radius * normal.x, shape.radius * normal.y, z};
    plane.points.push_back(point);
    if (shape.normals) plane.normals.push_back(normal);
    if (shape.results) {
      plane.resPoints.push_back(point + normal * shape.offset);
      plane.distances.push_back(shape.offset);
    }
  }
  const unsigned segments = std::max(1u, shape.segments);
  for (unsigned s = 1; s <= segments; ++s) {
    plane.segments.push_back(static_cast<int32_t>(shape.points * s / segments));
  }
  if (shape.aux) plane.auxCtrlPos = {0, 1, 2, 3, 4};
  return plane;
}

LuAfxsHeader scanHeader(uint64_t numPlanes) {
  LuAfxsHeader header;
  header.point[0] = 1.5;
  header.point[1] = -2.25;
  header.point[2] = 3.0;
  header.normal[2] = 1.0;
  header.numPlanes = numPlanes;
  header.distBwPlanes = 1.0;
  return header;
}

bool writeScanFile(const std::wstring& path, const std::vector<LuAfxsPlane>& planes,
                   const LuAfxsHeader& header) {
  LuAfxsCreateLink link(path.c_str());
  link.setHeader(header);
  if (!link.create(true)) return false;
  for (const LuAfxsPlane& plane : planes) {
    LuAfxsCreateData data(link, plane.planeId, plane.subsetId);
    const auto asTriples = [](const std::vector<LuVec3>& v) {
      return reinterpret_cast<const double(*)[3]>(v.data());
    };
    data.setPoints(asTriples(plane.points), plane.points.size());
    data.setNormals(asTriples(plane.normals), plane.normals.size());
    data.setSegments(plane.segments.data(), plane.segments.size());
    data.setResPoints(asTriples(plane.resPoints), plane.resPoints.size());
    data.setDistances(plane.distances.data(), plane.distances.size());
    if (!plane.auxCtrlPos.empty()) {
      const uint32_t counts[] = {2, 3};
      data.setAuxCtrlPos(plane.auxCtrlPos.data(), plane.auxCtrlPos.size(), counts, 2);
    }
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

std::ostream& operator<<(std::ostream& out, const RecordCounts& r) {
  return out << "{plane " << r.planeId << ", subset " << r.subsetId << ", points " << r.points
             << ", normals " << r.normals << ", segments " << r.segments << ", aux " << r.auxPos
             << ", resPoints " << r.resPoints << ", distances " << r.distances << "}";
}

RecordCounts countsOf(const LuAfxsPlane& plane, uint32_t subsetId) {
  RecordCounts counts;
  counts.planeId = plane.planeId;
  counts.subsetId = subsetId;
  counts.points = plane.points.size();
  counts.normals = plane.normals.size();
  counts.segments = plane.segments.size();
  counts.resPoints = plane.resPoints.size();
  counts.distances = plane.distances.size();
  return counts;
}

void UnifyTest::SetUp() {
  TempDirTest::SetUp();
  const std::wstring dumpDir = m_dir.wstring() + L"/";
  LuAfxsUserDataSet::SetXYZDumpDirectory(dumpDir.c_str());
  LuAfxsUserDataSet::SetCurrentXSId(0);
  LuAfxsUserDataSet::SupportXSectionBlending(false);
  UnifyProbe::currentDataSets().clear();
  UnifyProbe::outputIds().clear();
  m_driverLink = std::make_unique<LuAfxsUserLink>(wpath("driver_unused.afxs").c_str());
  m_driverSet = std::make_unique<LuAfxsUserDataSet>(*m_driverLink);
  m_driver = m_driverSet.get();
}

void UnifyTest::TearDown() {
  // The registry owns what it holds: ClearXSBlendingInfo destroys it. What it
  // never took over, or dropped when an entry was replaced, is ours.
  std::set<LuAfxsUserDataSet*> registered;
  std::vector<uint32_t> ids;
  for (auto& [id, sets] : UnifyProbe::registry()) {
    ids.push_back(id);
    registered.insert(sets.begin(), sets.end());
  }
  for (uint32_t id : ids) LuAfxsUserDataSet::ClearXSBlendingInfo(id);
  UnifyProbe::registry().clear();
  for (LuAfxsUserDataSet* set : m_owned) {
    if (registered.count(set) == 0 && m_deletedByDriver.count(set) == 0) delete set;
  }
  m_owned.clear();
  UnifyProbe::currentDataSets().clear();
  UnifyProbe::outputIds().clear();
  UnifyProbe::xsHeader() = LuAfxsHeader();
  LuAfxsUserDataSet::SetCurrentXSId(0);
  LuAfxsUserDataSet::SupportXSectionBlending(false);
  LuAfxsUserDataSet::SetXYZDumpDirectory(nullptr);
  m_driverSet.reset();
  m_driverLink.reset();
  m_links.clear();
  TempDirTest::TearDown();
}

void UnifyTest::writeScan(const std::string& name, uint32_t subsetId,
                          const std::vector<uint32_t>& planeIds, const ArcShape& shape) {
  std::vector<LuAfxsPlane> planes;
  for (uint32_t planeId : planeIds) planes.push_back(makeArcPlane(planeId, subsetId, shape));
  ASSERT_TRUE(writeScanFile(wpath(name), planes, scanHeader(planeIds.size())));
}

LuAfxsUserDataSet* UnifyTest::dataSet(const std::string& name) {
  m_links.push_back(std::make_unique<LuAfxsUserLink>(wpath(name).c_str()));
  auto* set = new TrackedDataSet(*m_links.back(), name, &m_destroyed);
  m_deletedByDriver.erase(set);  // an address freed by a driver may come back
  m_owned.push_back(set);
  return set;
}

LuAfxsUserLink* UnifyTest::anchorLink() {
  if (m_anchor == nullptr) {
    std::vector<LuAfxsPlane> planes{makeArcPlane(0, 99, ArcShape{})};
    EXPECT_TRUE(writeScanFile(wpath("anchor.afxs"), planes, scanHeader(1)));
    m_links.push_back(std::make_unique<LuAfxsUserLink>(wpath("anchor.afxs").c_str()));
    m_anchor = m_links.back().get();
  }
  return m_anchor;
}

namespace {
void prepareOutputLink(LuAfxsCreateLink& link) {
  link.setHeader(scanHeader(20));
  LuAfxsCamerasTable cameras;
  cameras.cameras.push_back(LuVec3{1, 2, 3});
  link.setCameras(cameras);
}
}  // namespace

bool UnifyTest::unify(std::vector<LuAfxsUserDataSet*> sets, std::vector<uint32_t> ids,
                      const std::string& output, uint32_t mode) {
  LuAfxsCreateLink link(wpath(output).c_str());
  prepareOutputLink(link);
  return m_driver->UnifyMultipleDataSets(sets, ids, link, mode);
}

bool UnifyTest::add(std::vector<LuAfxsUserDataSet*> sets, std::vector<uint32_t> ids,
                    const std::string& output, uint32_t mode, LuAfxsUserLink* userLink) {
  LuAfxsCreateLink link(wpath(output).c_str());
  prepareOutputLink(link);
  return m_driver->AddDataSets2Unify(sets, ids, userLink ? userLink : anchorLink(), link, mode);
}

bool UnifyTest::removeIds(std::vector<uint32_t>& ids, uint32_t& remaining,
                          const std::string& output, uint32_t mode, LuAfxsUserLink* userLink) {
  LuAfxsUserLink* link = userLink ? userLink : anchorLink();
  std::vector<LuAfxsUserDataSet*> before;
  auto entry = UnifyProbe::registry().find(UnifyProbe::currentXsId());
  if (entry != UnifyProbe::registry().end()) before = entry->second;
  LuAfxsCreateLink createLink(wpath(output).c_str());
  prepareOutputLink(createLink);
  const bool result = m_driver->RemoveDataSetsFromUnify(ids, link, createLink, mode, remaining);
  std::set<LuAfxsUserDataSet*> after;
  entry = UnifyProbe::registry().find(UnifyProbe::currentXsId());
  if (entry != UnifyProbe::registry().end())
    after.insert(entry->second.begin(), entry->second.end());
  for (LuAfxsUserDataSet* set : before) {
    if (after.count(set) == 0) m_deletedByDriver.insert(set);
  }
  return result;
}

std::optional<std::vector<RecordCounts>> UnifyTest::readOutput(const std::string& name) {
  if (!exists(name)) return std::nullopt;
  LuAfxsUserLink link(wpath(name).c_str());
  LuAfxsUserDataSet set(link);
  if (!set.load(LU_AFXS_MASK_ALL)) return std::nullopt;
  std::vector<RecordCounts> records;
  for (const LuAfxsUserData* data : set) {
    const LuAfxsPlane& plane = data->getPlaneData();
    RecordCounts counts = countsOf(plane, plane.subsetId);
    counts.auxPos = plane.auxCtrlPos.size();
    records.push_back(counts);
  }
  return records;
}

bool UnifyTest::exists(const std::string& name) const { return fs::exists(path(name)); }

size_t UnifyTest::countLogged(int level, const std::wstring& prefix) const {
  size_t count = 0;
  for (const LuLogRecord& record : logs()) {
    if (record.level == level && record.message.rfind(prefix, 0) == 0) ++count;
  }
  return count;
}

bool UnifyTest::loggedPrefix(int level, const std::wstring& prefix) const {
  return countLogged(level, prefix) > 0;
}

}  // namespace lutest
