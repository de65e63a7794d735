// The peer comparison: the same planes (planes x 2 subsets x 5,000 points
// with every field group) stored by luAnaf as one cross-section file and by
// HDF5 as one dataset per field and plane subset (a group per plane subset,
// contiguous layout, no filters), each written in full and read back in full.
// Beside them the raw floor: the luAnaf file's bytes with plain fwrite and
// one fread into fresh memory.
//
//   build-*/bench/hdf5_bench                                (100 planes)
//   LUANAF_HDF5_BENCH_PLANES=1000 build-*/bench/hdf5_bench  (the large file, ~1 GB)
//
// Both sides read into fresh std::vector storage per field, as a client of
// either gets its arrays. The files live in the system's temporary folder
// and are removed at exit.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <hdf5.h>

#include <luAnaf/luAnaf.h>

#include "bench/bench_files.h"

namespace {

namespace fs = std::filesystem;
using luanafbench::PlaneInput;

constexpr uint32_t kSubsets = 2;
constexpr size_t kPoints = 5000;

uint32_t planeCount() {
  const char* env = std::getenv("LUANAF_HDF5_BENCH_PLANES");
  if (env && std::atoi(env) > 0) return static_cast<uint32_t>(std::atoi(env));
  return 100;
}

const fs::path& benchDir() { return luanafbench::benchDir("hdf5"); }

const PlaneInput& input() {
  static const PlaneInput in = luanafbench::makeInput(kPoints);
  return in;
}

// ---- luAnaf

bool writeLuanaf(const fs::path& file) {
  return luanafbench::writeFile(file, planeCount(), kSubsets, input(), LU_AFXS_MASK_ALL, false) !=
         0;
}

// ---- HDF5

template <typename T>
bool writeDataset(hid_t group, const char* name, hid_t fileType, hid_t memType,
                  const std::vector<T>& values, hsize_t columns) {
  hsize_t dims[2] = {static_cast<hsize_t>(values.size()), columns};
  hid_t space = H5Screate_simple(columns == 1 ? 1 : 2, dims, nullptr);
  hid_t set = H5Dcreate2(group, name, fileType, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
  bool ok = set >= 0 && H5Dwrite(set, memType, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data()) >= 0;
  if (set >= 0) H5Dclose(set);
  H5Sclose(space);
  return ok;
}

std::string groupName(uint32_t plane, uint32_t subset) {
  return "plane" + std::to_string(plane) + "_subset" + std::to_string(subset);
}

bool writeHdf5(const fs::path& file) {
  const PlaneInput& in = input();
  hid_t f = H5Fcreate(file.string().c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  if (f < 0) return false;
  bool ok = true;
  for (uint32_t plane = 0; plane < planeCount() && ok; ++plane) {
    for (uint32_t subset = 1; subset <= kSubsets && ok; ++subset) {
      hid_t g =
          H5Gcreate2(f, groupName(plane, subset).c_str(), H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
      ok = g >= 0 && writeDataset(g, "points", H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, in.points, 3) &&
           writeDataset(g, "normals", H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, in.normals, 3) &&
           writeDataset(g, "segments", H5T_STD_I32LE, H5T_NATIVE_INT, in.segments, 1) &&
           writeDataset(g, "auxPos", H5T_STD_U32LE, H5T_NATIVE_UINT32, in.auxPos, 1) &&
           writeDataset(g, "auxOffsets", H5T_STD_U32LE, H5T_NATIVE_UINT32, in.auxOffsets, 1) &&
           writeDataset(g, "auxCounts", H5T_STD_U32LE, H5T_NATIVE_UINT32, in.auxCounts, 1) &&
           writeDataset(g, "auxFirst", H5T_STD_U32LE, H5T_NATIVE_UINT32, in.auxFirst, 1) &&
           writeDataset(g, "distances", H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, in.distances, 1) &&
           writeDataset(g, "resPoints", H5T_IEEE_F64LE, H5T_NATIVE_DOUBLE, in.resPoints, 3);
      if (g >= 0) H5Gclose(g);
    }
  }
  return H5Fclose(f) >= 0 && ok;
}

// Reads one dataset into a fresh vector sized from its dataspace.
template <typename T>
bool readDataset(hid_t group, const char* name, hid_t memType, std::vector<T>& out,
                 size_t perElement) {
  hid_t set = H5Dopen2(group, name, H5P_DEFAULT);
  if (set < 0) return false;
  hid_t space = H5Dget_space(set);
  const hssize_t values = H5Sget_simple_extent_npoints(space);
  H5Sclose(space);
  out.resize(static_cast<size_t>(values) / perElement);
  bool ok = H5Dread(set, memType, H5S_ALL, H5S_ALL, H5P_DEFAULT, out.data()) >= 0;
  H5Dclose(set);
  return ok;
}

bool readHdf5(const fs::path& file, std::vector<LuAfxsPlane>& planes) {
  hid_t f = H5Fopen(file.string().c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  if (f < 0) return false;
  bool ok = true;
  for (uint32_t plane = 0; plane < planeCount() && ok; ++plane) {
    for (uint32_t subset = 1; subset <= kSubsets && ok; ++subset) {
      LuAfxsPlane& p = planes.emplace_back();
      p.planeId = plane;
      p.subsetId = subset;
      std::vector<uint32_t> first;
      hid_t g = H5Gopen2(f, groupName(plane, subset).c_str(), H5P_DEFAULT);
      ok = g >= 0 && readDataset(g, "points", H5T_NATIVE_DOUBLE, p.points, 3) &&
           readDataset(g, "normals", H5T_NATIVE_DOUBLE, p.normals, 3) &&
           readDataset(g, "segments", H5T_NATIVE_INT, p.segments, 1) &&
           readDataset(g, "auxPos", H5T_NATIVE_UINT32, p.auxCtrlPos, 1) &&
           readDataset(g, "auxOffsets", H5T_NATIVE_UINT32, p.auxCtrlOffsets, 1) &&
           readDataset(g, "auxCounts", H5T_NATIVE_UINT32, p.auxCtrlCounts, 1) &&
           readDataset(g, "auxFirst", H5T_NATIVE_UINT32, first, 1) &&
           readDataset(g, "distances", H5T_NATIVE_DOUBLE, p.distances, 1) &&
           readDataset(g, "resPoints", H5T_NATIVE_DOUBLE, p.resPoints, 3);
      if (g >= 0) H5Gclose(g);
    }
  }
  return H5Fclose(f) >= 0 && ok;
}

const fs::path& luanafFile() {
  static const fs::path file = [] {
    fs::path f = benchDir() / "peer.afxs";
    if (!writeLuanaf(f)) std::abort();
    return f;
  }();
  return file;
}

const fs::path& hdf5File() {
  static const fs::path file = [] {
    fs::path f = benchDir() / "peer.h5";
    if (!writeHdf5(f)) std::abort();
    return f;
  }();
  return file;
}

void counters(benchmark::State& state, const fs::path& file) {
  const uint64_t bytes = fs::file_size(file);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
  state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
  state.counters["planes"] = planeCount();
}

// Writes the file anew in every iteration (removed, untimed, before each).
template <typename Write>
void writeEachIteration(benchmark::State& state, const fs::path& file, Write write,
                        const char* failure) {
  for (auto _ : state) {
    state.PauseTiming();
    fs::remove(file);
    state.ResumeTiming();
    if (!write(file)) state.SkipWithError(failure);
  }
  counters(state, file);
}

void BM_LuanafWrite(benchmark::State& state) {
  writeEachIteration(state, benchDir() / "write.afxs", writeLuanaf, "luAnaf write failed");
}

void BM_Hdf5Write(benchmark::State& state) {
  writeEachIteration(state, benchDir() / "write.h5", writeHdf5, "HDF5 write failed");
}

// The luAnaf file's bytes with fwrite, one record's worth at a time.
void BM_RawFwrite(benchmark::State& state) {
  const uint64_t total = fs::file_size(luanafFile());
  const std::vector<char> chunk(static_cast<size_t>(total / (size_t{planeCount()} * kSubsets)),
                                'x');
  writeEachIteration(
      state, benchDir() / "raw.bin",
      [&](const fs::path& file) { return luanafbench::fwriteInChunks(file, total, chunk); },
      "fwrite failed");
}

void luanafLoad(benchmark::State& state) {
  const fs::path& file = luanafFile();
  for (auto _ : state) {
    LuAfxsUserLink link(file.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(LU_AFXS_MASK_ALL)) state.SkipWithError("luAnaf load failed");
    benchmark::DoNotOptimize(set.size());
  }
  counters(state, file);
}

// Repeated loads with the array cache turned on.
void BM_LuanafLoad(benchmark::State& state) {
  const bool enabled = luAfxsArrayCacheEnabled();
  luAfxsSetArrayCacheEnabled(true);
  luanafLoad(state);
  luAfxsSetArrayCacheEnabled(enabled);
}

// The same load with the array cache off (the default): fresh memory for every array, as
// in the first load of a process and in HDF5's read.
void BM_LuanafLoadCacheOff(benchmark::State& state) {
  const bool enabled = luAfxsArrayCacheEnabled();
  luAfxsSetArrayCacheEnabled(false);
  luanafLoad(state);
  luAfxsSetArrayCacheEnabled(enabled);
}

void BM_Hdf5Read(benchmark::State& state) {
  const fs::path& file = hdf5File();
  for (auto _ : state) {
    std::vector<LuAfxsPlane> planes;
    if (!readHdf5(file, planes)) state.SkipWithError("HDF5 read failed");
    benchmark::DoNotOptimize(planes.data());
  }
  counters(state, file);
}

// The luAnaf file's bytes with one fread into fresh memory.
void BM_RawFread(benchmark::State& state) {
  const fs::path& file = luanafFile();
  const size_t size = fs::file_size(file);
  for (auto _ : state)
    if (!luanafbench::freadFresh(file, size)) state.SkipWithError("short read");
  counters(state, file);
}

BENCHMARK(BM_RawFwrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LuanafWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Hdf5Write)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_RawFread)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LuanafLoad)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LuanafLoadCacheOff)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Hdf5Read)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
