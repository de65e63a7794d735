// Reader throughput: loading every field of a large file beside a raw fread
// of the same bytes, opening and indexing a file of many small records, and
// removing one field group by rewriting the large file.
//
//   build-*/bench/read_bench                      (1,000 planes x 2 subsets x 5,000 points)
//   LUANAF_READ_BENCH_PLANES=100 build-*/bench/read_bench   (a smaller file for a quick look)
//   LUANAF_BENCH_QUICK=1 build-*/bench/read_bench           (100 planes, as scripts/bench.sh quick)
//
// Every library figure has its floor beside it: the same bytes with plain
// fread (and fwrite where the library writes), so the ratio of the two is
// what the format and the library's own work cost on top of the machine.
//
// The files are written once per process with the writer into the system's
// temporary folder and deleted at exit.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

#include "bench/bench_files.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSubsets = 2;
// Points per record: 5,000, or LUANAF_READ_BENCH_POINTS (larger records
// have arrays past glibc's first mmap threshold of 128 kB).
const size_t kPoints = [] {
  const char* env = std::getenv("LUANAF_READ_BENCH_POINTS");
  return env && std::atoi(env) > 0 ? static_cast<size_t>(std::atoi(env)) : size_t{5000};
}();
// Records of the index file: 100,000, or LUANAF_READ_BENCH_INDEX_RECORDS
// (an even number) to see how the index scales. Read once: the timed loops
// ask for it on every iteration.
uint32_t indexRecords() {
  static const uint32_t records = [] {
    const char* env = std::getenv("LUANAF_READ_BENCH_INDEX_RECORDS");
    if (env && std::atoi(env) > 1) return static_cast<uint32_t>(std::atoi(env)) / 2 * 2;
    return uint32_t{100000};
  }();
  return records;
}

uint32_t planeCount() {
  static const uint32_t planes = [] {
    const char* env = std::getenv("LUANAF_READ_BENCH_PLANES");
    if (env && std::atoi(env) > 0) return static_cast<uint32_t>(std::atoi(env));
    const char* quick = std::getenv("LUANAF_BENCH_QUICK");
    if (quick && quick[0] == '1') return uint32_t{100};
    return uint32_t{1000};
  }();
  return planes;
}

const fs::path& benchDir() { return luanafbench::benchDir("read"); }

// A file of planes x subsets records of `points` points with the field
// groups of `mask` and two cameras, written once per process.
fs::path writtenOnce(const char* name, uint32_t planes, uint32_t subsets, size_t points,
                     uint32_t mask) {
  fs::path f = benchDir() / name;
  if (luanafbench::writeFile(f, planes, subsets, luanafbench::makeInput(points), mask, true) == 0)
    std::abort();
  return f;
}

const fs::path& bigFile() {
  static const fs::path file =
      writtenOnce("big.afxs", planeCount(), kSubsets, kPoints, LU_AFXS_MASK_ALL);
  return file;
}

// The same planes with points only: the file the results flush appends to.
const fs::path& pointsFile() {
  static const fs::path file =
      writtenOnce("points.afxs", planeCount(), kSubsets, kPoints, LU_AFXS_MASK_POINTS);
  return file;
}

const fs::path& indexFile() {
  static const fs::path file =
      writtenOnce("index.afxs", indexRecords() / 2, 2, 1, LU_AFXS_MASK_POINTS);
  return file;
}

// Repeated loads with the array cache turned on: from the second load on,
// the arrays of the destroyed data set serve the next one.
void loadEveryField(benchmark::State& state) {
  const fs::path& file = bigFile();
  size_t records = 0;
  for (auto _ : state) {
    LuAfxsUserLink link(file.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(63)) state.SkipWithError("load failed");
    records = set.size();
    benchmark::DoNotOptimize(records);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(fs::file_size(file)));
  state.counters["records"] = static_cast<double>(records);
  // What the library still holds once the last data set is destroyed.
  state.counters["cached_MB"] = static_cast<double>(luAfxsArrayCacheBytes()) / 1e6;
}

void BM_LoadEveryField(benchmark::State& state) {
  const bool enabled = luAfxsArrayCacheEnabled();
  luAfxsSetArrayCacheEnabled(true);
  loadEveryField(state);
  luAfxsSetArrayCacheEnabled(enabled);
}
BENCHMARK(BM_LoadEveryField)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same load with the array cache off (the library's default): every load
// in fresh memory, as the first load of a process is.
void BM_LoadEveryFieldCacheOff(benchmark::State& state) {
  const bool enabled = luAfxsArrayCacheEnabled();
  luAfxsSetArrayCacheEnabled(false);
  loadEveryField(state);
  luAfxsSetArrayCacheEnabled(enabled);
}
BENCHMARK(BM_LoadEveryFieldCacheOff)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same bytes with one fread into a fresh buffer of the file's size: what
// reading the file into memory costs at the least.
void BM_RawFreadFreshBuffer(benchmark::State& state) {
  const fs::path& file = bigFile();
  size_t size = fs::file_size(file);
  for (auto _ : state)
    if (!luanafbench::freadFresh(file, size)) state.SkipWithError("short read");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_RawFreadFreshBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same bytes through one reused 1 MiB buffer: the copy from the page
// cache alone, without touching new memory.
void BM_RawFreadReusedBuffer(benchmark::State& state) {
  const fs::path& file = bigFile();
  size_t size = fs::file_size(file);
  std::vector<char> buffer(1 << 20);
  for (auto _ : state)
    if (!luanafbench::freadReused(file, buffer)) state.SkipWithError("short read");
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_RawFreadReusedBuffer)->Unit(benchmark::kMillisecond)->UseRealTime();

// Only the points of every record (the other fields are stepped over).
void BM_LoadPointsOnly(benchmark::State& state) {
  const fs::path& file = bigFile();
  for (auto _ : state) {
    LuAfxsUserLink link(file.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(LU_AFXS_MASK_POINTS)) state.SkipWithError("load failed");
    benchmark::DoNotOptimize(set.size());
  }
  const uint64_t bytes = uint64_t{planeCount()} * kSubsets * kPoints * sizeof(LuVec3);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_LoadPointsOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floor of the points-only load: one fread per record of the points'
// bytes into a fresh buffer of their own, as the load fills one vector per
// record (the other bytes of the file are not touched).
void BM_RawFreadPointsOnly(benchmark::State& state) {
  const fs::path& file = bigFile();
  const size_t records = size_t{planeCount()} * kSubsets;
  const size_t chunk = kPoints * sizeof(LuVec3);
  const size_t stride = fs::file_size(file) / records;
  for (auto _ : state) {
    std::vector<std::unique_ptr<char[]>> buffers;
    if (!luanafbench::freadEachRecordFresh(file, records, stride, chunk, buffers))
      state.SkipWithError("short read");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * records * chunk));
}
BENCHMARK(BM_RawFreadPointsOnly)->Unit(benchmark::kMillisecond)->UseRealTime();

// Verify, scan the chain and walk every subset chain of 100,000 plane-subset
// records (load of no field: the directory of each record only), and destroy
// the data set.
void BM_OpenAndIndex(benchmark::State& state) {
  const fs::path& file = indexFile();
  for (auto _ : state) {
    LuAfxsUserLink link(file.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(0) || set.size() != indexRecords()) state.SkipWithError("index failed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * indexRecords());
}
BENCHMARK(BM_OpenAndIndex)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same index with the data set's destruction left out of the timing:
// what opening and indexing cost on their own (the data set is destroyed
// while the timer is paused).
void BM_OpenAndIndexWithoutDestruction(benchmark::State& state) {
  const fs::path& file = indexFile();
  for (auto _ : state) {
    LuAfxsUserLink link(file.wstring().c_str());
    auto set = std::make_unique<LuAfxsUserDataSet>(link);
    if (!set->load(0) || set->size() != indexRecords()) state.SkipWithError("index failed");
    state.PauseTiming();
    set.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * indexRecords());
}
BENCHMARK(BM_OpenAndIndexWithoutDestruction)->Unit(benchmark::kMillisecond)->UseRealTime();

// The floor of opening and indexing: the index file's bytes with one fread.
void BM_RawFreadIndexFile(benchmark::State& state) {
  const fs::path& file = indexFile();
  const size_t size = fs::file_size(file);
  for (auto _ : state)
    if (!luanafbench::freadFresh(file, size)) state.SkipWithError("short read");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * indexRecords());
}
BENCHMARK(BM_RawFreadIndexFile)->Unit(benchmark::kMillisecond)->UseRealTime();

// Attaching result points and distances to every record of a points-only
// file and flushing each as a results record (index, append, link patch).
// The file is restored (untimed) before each iteration.
void BM_ResultsFlush(benchmark::State& state) {
  const fs::path& file = pointsFile();
  fs::path work = benchDir() / "results.afxs";
  std::vector<LuVec3> res(kPoints, LuVec3{1, 2, 3});
  std::vector<double> dist(kPoints, 0.25);
  for (auto _ : state) {
    state.PauseTiming();
    fs::copy_file(file, work, fs::copy_options::overwrite_existing);
    state.ResumeTiming();
    LuAfxsUserLink link(work.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(0)) state.SkipWithError("load failed");
    for (LuAfxsUserData* data : set) {
      data->setResPoints(luanafbench::raw(res), kPoints);
      data->setDistances(dist.data(), kPoints);
      if (!data->flush()) state.SkipWithError("flush failed");
    }
    set.closefile();
  }
  const uint64_t bytes = uint64_t{planeCount()} * kSubsets * kPoints * (sizeof(LuVec3) + 8);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_ResultsFlush)->Unit(benchmark::kMillisecond)->UseRealTime();

// Its floor: the same result bytes appended with fwrite, one record's worth
// at a time, to a copy of the same file.
void BM_RawFwriteResults(benchmark::State& state) {
  const fs::path& file = pointsFile();
  fs::path work = benchDir() / "results-raw.bin";
  const size_t records = size_t{planeCount()} * kSubsets;
  std::vector<char> chunk(kPoints * (sizeof(LuVec3) + 8), 'r');
  for (auto _ : state) {
    state.PauseTiming();
    fs::copy_file(file, work, fs::copy_options::overwrite_existing);
    state.ResumeTiming();
    FILE* f = std::fopen(work.string().c_str(), "r+b");
    std::fseek(f, 0, SEEK_END);
    for (size_t r = 0; r < records; ++r)
      if (std::fwrite(chunk.data(), 1, chunk.size(), f) != chunk.size())
        state.SkipWithError("short write");
    std::fclose(f);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * records * chunk.size()));
}
BENCHMARK(BM_RawFwriteResults)->Unit(benchmark::kMillisecond)->UseRealTime();

// Removing the normals from the large file: every other field is loaded and
// the file rewritten. The file is restored (untimed) before each iteration.
void BM_RemoveNormals(benchmark::State& state) {
  const fs::path& file = bigFile();
  fs::path work = benchDir() / "remove.afxs";
  for (auto _ : state) {
    state.PauseTiming();
    fs::copy_file(file, work, fs::copy_options::overwrite_existing);
    state.ResumeTiming();
    LuAfxsUserLink link(work.wstring().c_str());
    LuAfxsUserDataSet set(link);
    if (!set.remove(LU_AFXS_MASK_NORMALS)) state.SkipWithError("remove failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(fs::file_size(file)));
}
BENCHMARK(BM_RemoveNormals)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

// Its floor: the large file read with fread and the bytes the removal keeps
// (the file without its normals) written with fwrite to a new file.
void BM_RawRemoveFloor(benchmark::State& state) {
  const fs::path& file = bigFile();
  const size_t size = fs::file_size(file);
  const size_t normals = size_t{planeCount()} * kSubsets * kPoints * sizeof(LuVec3);
  const size_t kept = size - normals;
  fs::path out = benchDir() / "remove-raw.bin";
  for (auto _ : state) {
    std::unique_ptr<char[]> buffer(new char[size]);
    FILE* f = std::fopen(file.string().c_str(), "rb");
    if (std::fread(buffer.get(), 1, size, f) != size) state.SkipWithError("short read");
    std::fclose(f);
    FILE* o = std::fopen(out.string().c_str(), "wb");
    if (std::fwrite(buffer.get(), 1, kept, o) != kept) state.SkipWithError("short write");
    std::fclose(o);
    fs::remove(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_RawRemoveFloor)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace
