// Diagnostic point dumps: points of a plane as plain text, one point a line,
// for inspection in a point viewer. Nothing here reports anything: a dump that
// cannot be written is skipped, and the dumps never affect the unification.
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <fstream>
#include <map>
#include <string>

#if defined(_WIN32)
#include <filesystem>
#endif

#include <luAnaf/luAfxsDataSet.h>

#include "platform/lu_io.h"

namespace {

#if defined(_WIN32)
constexpr const wchar_t* kDefaultXYZDir = L"c:\\Temp\\XYZ\\";
constexpr wchar_t kSeparator = L'\\';
#else
constexpr const wchar_t* kDefaultXYZDir = L"/tmp/XYZ/";
constexpr wchar_t kSeparator = L'/';
#endif

// The capacity, in wide characters with the terminating NUL, of a dump's file
// name. A name that does not fit is not written.
constexpr size_t kNameCapacity = 256;

std::wstring withTrailingSeparator(std::wstring dir) {
  if (!dir.empty() && dir.back() != L'/' && dir.back() != L'\\') dir.push_back(kSeparator);
  return dir;
}

// Opens a dump file for writing, truncating it. The directory is never
// created: when it is missing the stream does not open. Text mode, so a line
// ends in the platform's line end (one line feed on POSIX).
bool openDump(std::ofstream& out, const std::wstring& path) {
#if defined(_WIN32)
  out.open(luio::nativePath(path), std::ios::out | std::ios::trunc);
#else
  out.open(luio::narrowPath(path), std::ios::out | std::ios::trunc);
#endif
  return out.is_open();
}

// One line: x, y and z in fixed notation with 3 decimals, tab separated.
void writePointLine(std::ofstream& out, const LuVec3& p) {
  char line[3 * 340];
  const int length = std::snprintf(line, sizeof line, "%.3f\t%.3f\t%.3f\n", p.x, p.y, p.z);
  if (length > 0) out.write(line, static_cast<std::streamsize>(length));
}

}  // namespace

std::wstring LuAfxsUserDataSet::XYZDumpDirectory() {
  if (m_bXYZDumpDirOverridden) return withTrailingSeparator(m_XYZDumpDirOverride);
  // Read at each dump, so a change of the environment takes effect at once.
  const char* fromEnv = std::getenv("LUANAF_XYZ_DIR");
  if (fromEnv != nullptr && fromEnv[0] != '\0') {
    return withTrailingSeparator(luio::widen(fromEnv));
  }
  return kDefaultXYZDir;
}

void LuAfxsUserDataSet::SetXYZDumpDirectory(const wchar_t* dir) {
  m_bXYZDumpDirOverridden = dir != nullptr;
  m_XYZDumpDirOverride = dir != nullptr ? dir : L"";
}

// Writes one line per entry of the plane's points: the point itself, or with
// resultPoints the result point of the same index. When result points are
// asked for and the plane has fewer of them than points, the lines without a
// result point carry the contour point instead, so the file still has one
// line per point and nothing is read past the result points.
void LuAfxsUserDataSet::FlushPlanes2XYZ(const LuAfxsPlane* plane, unsigned id, bool org,
                                        bool resultPoints, std::wstring suffix) {
  if (plane == nullptr) return;
  wchar_t name[kNameCapacity];
  const int length = std::swprintf(
      name, kNameCapacity, L"P%d_S%d_Id%d_%ls_%ls%ls.xyz", static_cast<int>(plane->planeId),
      static_cast<int>(plane->subsetId), static_cast<int>(id), org ? L"ORG" : L"BLND",
      resultPoints ? L"RES" : L"COP", suffix.c_str());
  if (length < 0) return;

  std::ofstream out;
  if (!openDump(out, XYZDumpDirectory() + name)) return;
  for (size_t i = 0; i < plane->points.size(); ++i) {
    const bool useResult = resultPoints && i < plane->resPoints.size();
    writePointLine(out, useResult ? plane->resPoints[i] : plane->points[i]);
  }
  out.close();
}

// Writes the projections of the map in ascending key order. Called by nothing
// in the library; kept for inspection from a debugger or a test.
void LuAfxsUserDataSet::FlushCurrPlaneQStar(std::map<int, Vec3PNT_INDX>& projected, unsigned id,
                                            unsigned plane) {
  wchar_t name[kNameCapacity];
  const int length = std::swprintf(name, kNameCapacity, L"QStar_P%d_Id%d.xyz",
                                   static_cast<int>(plane), static_cast<int>(id));
  if (length < 0) return;

  std::ofstream out;
  if (!openDump(out, XYZDumpDirectory() + name)) return;
  for (const auto& entry : projected) writePointLine(out, entry.second.pnt);
  out.close();
}
