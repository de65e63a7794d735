// What the benchmark programs share: a folder of their own, the input planes
// they write and the writing of a whole file through the library, so that
// every program measures the same kind of file.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>

#include <benchmark/benchmark.h>
#include <luAnaf/luAnaf.h>

namespace luanafbench {

namespace fs = std::filesystem;

// The program's folder in the system's temporary folder, made on first use
// and removed with everything in it when the program ends.
inline const fs::path& benchDir(const std::string& program) {
  struct Folder {
    fs::path path;
    explicit Folder(const std::string& program) {
      auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
      path = fs::temp_directory_path() / ("luanaf-" + program + "-bench-" + std::to_string(stamp));
      fs::create_directories(path);
    }
    ~Folder() {
      std::error_code ec;
      fs::remove_all(path, ec);
    }
  };
  static const Folder folder(program);
  return folder.path;
}

inline const double (*raw(const std::vector<LuVec3>& v))[3] {
  return reinterpret_cast<const double(*)[3]>(v.data());
}

// One plane subset's arrays with every field group: n points along a line,
// normals along z, result points beside the points, one aux group per point,
// distances, and ten segments. The aux offsets and firsts are derived as the
// writer derives them (the HDF5 peer is handed them ready).
struct PlaneInput {
  std::vector<LuVec3> points, normals, resPoints;
  std::vector<int> segments;
  std::vector<uint32_t> auxPos, auxCounts, auxOffsets, auxFirst;
  std::vector<double> distances;
  size_t size() const { return points.size(); }
};

inline PlaneInput makeInput(size_t n) {
  constexpr size_t kSegments = 10;
  PlaneInput in;
  for (size_t i = 0; i < n; ++i) {
    double t = static_cast<double>(i) * 0.001;
    in.points.push_back({t, 2 * t, 3 * t});
    in.normals.push_back({0, 0, 1});
    in.resPoints.push_back({t + 0.01, 2 * t, 3 * t});
    in.auxPos.push_back(static_cast<uint32_t>(i));
    in.auxCounts.push_back(1);
    in.auxOffsets.push_back(static_cast<uint32_t>(i));
    in.auxFirst.push_back(static_cast<uint32_t>(i));
    in.distances.push_back(0.01);
  }
  for (size_t s = 1; s <= kSegments; ++s)
    in.segments.push_back(static_cast<int>(n * s / kSegments));
  return in;
}

// Sets the field groups of `mask` from the input.
inline void fill(LuAfxsCreateData& data, const PlaneInput& in, uint32_t mask) {
  const size_t n = in.size();
  if (mask & LU_AFXS_MASK_POINTS) data.setPoints(raw(in.points), n);
  if (mask & LU_AFXS_MASK_NORMALS) data.setNormals(raw(in.normals), n);
  if (mask & LU_AFXS_MASK_SEGMENTS) data.setSegments(in.segments.data(), in.segments.size());
  if (mask & LU_AFXS_MASK_AUX) data.setAuxCtrlPos(in.auxPos.data(), n, in.auxCounts.data(), n);
  if (mask & LU_AFXS_MASK_DISTANCES) data.setDistances(in.distances.data(), n);
  if (mask & LU_AFXS_MASK_RESPOINTS) data.setResPoints(raw(in.resPoints), n);
}

// Gives a new file's link the benchmarks' header for `planes` planes and,
// when asked, a table of two cameras.
inline void setUpLink(LuAfxsCreateLink& link, uint32_t planes, bool cameras) {
  LuAfxsHeader header;
  header.version = 1;
  header.normal[2] = 1;
  header.numPlanes = planes;
  header.distBwPlanes = 0.5;
  link.setHeader(header);
  if (cameras) {
    LuAfxsCamerasTable table;
    table.cameras = {{1000, 0, 250}, {-1000, 0, 250}};
    link.setCameras(table);
  }
}

// Writes planes x subsets records of the input's field groups of `mask`,
// with a table of two cameras when asked, reserving `reserved` bytes of
// room first when it is not 0; the file's size, 0 on failure.
inline uint64_t writeFile(const fs::path& file, uint32_t planes, uint32_t subsets,
                          const PlaneInput& in, uint32_t mask, bool cameras,
                          uint64_t reserved = 0) {
  {
    LuAfxsCreateLink link(file.wstring().c_str());
    setUpLink(link, planes, cameras);
    if (!link.create(true)) return 0;
    if (reserved != 0) link.reserve(reserved);
    for (uint32_t plane = 0; plane < planes; ++plane) {
      for (uint32_t subset = 1; subset <= subsets; ++subset) {
        LuAfxsCreateData data(link, plane, subset);
        fill(data, in, mask);
        if (!data.flush()) return 0;
      }
    }
    link.closeFile(true);
    link.release();
    if (!link.isOK()) return 0;
  }
  return fs::file_size(file);
}

// The raw write floor: `total` bytes with plain fwrite, one `chunk` (a
// record's worth) per call, into a new file. False on a short write.
// With `reserve`, the file's room is reserved first (fallocate, size kept),
// as LuAfxsCreateLink::reserve does.
inline bool fwriteInChunks(const fs::path& file, uint64_t total, const std::vector<char>& chunk,
                           bool reserve = false) {
  FILE* f = std::fopen(file.string().c_str(), "wb");
  if (f == nullptr) return false;
  if (reserve && ::fallocate(fileno(f), FALLOC_FL_KEEP_SIZE, 0, static_cast<off_t>(total)) != 0) {
    std::fclose(f);
    return false;
  }
  bool ok = true;
  for (uint64_t left = total; left > 0 && ok;) {
    const size_t n = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
    ok = std::fwrite(chunk.data(), 1, n, f) == n;
    left -= n;
  }
  return std::fclose(f) == 0 && ok;
}

// The raw read floor: the file's `size` bytes with one fread into fresh
// memory. False on a short read.
inline bool freadFresh(const fs::path& file, size_t size) {
  std::unique_ptr<char[]> buffer(new char[size]);
  FILE* f = std::fopen(file.string().c_str(), "rb");
  if (f == nullptr) return false;
  const bool ok = std::fread(buffer.get(), 1, size, f) == size;
  std::fclose(f);
  benchmark::DoNotOptimize(buffer.get());
  return ok;
}

// The copy floor: the whole file with fread through one reused buffer (no
// fresh memory touched). False unless every byte was read.
inline bool freadReused(const fs::path& file, std::vector<char>& buffer) {
  FILE* f = std::fopen(file.string().c_str(), "rb");
  if (f == nullptr) return false;
  size_t total = 0, got = 0;
  while ((got = std::fread(buffer.data(), 1, buffer.size(), f)) > 0) total += got;
  std::fclose(f);
  benchmark::DoNotOptimize(buffer.data());
  return total == fs::file_size(file);
}

// The points-only floor: the first `chunk` bytes of each of `records`
// records, `stride` bytes apart, with one fread each into a fresh buffer of
// their own (as a points-only load fills one vector per record); the other
// bytes of the file are not touched. False on a failed seek or short read.
inline bool freadEachRecordFresh(const fs::path& file, size_t records, size_t stride, size_t chunk,
                                 std::vector<std::unique_ptr<char[]>>& buffers) {
  buffers.resize(records);
  FILE* f = std::fopen(file.string().c_str(), "rb");
  if (f == nullptr) return false;
  bool ok = true;
  for (size_t r = 0; r < records; ++r) {
    buffers[r].reset(new char[chunk]);
    ok = ok && std::fseek(f, static_cast<long>(r * stride), SEEK_SET) == 0 &&
         std::fread(buffers[r].get(), 1, chunk, f) == chunk;
  }
  std::fclose(f);
  benchmark::DoNotOptimize(buffers.data());
  return ok;
}

}  // namespace luanafbench
