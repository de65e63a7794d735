// Unification of one cross-section: 8 scan files of N planes x 2,000 points
// (points, normals, segments, result points, distances) into one output
// file, with blending off and on, beside the raw floor of the same run: every
// input byte read and an output of the same size written with plain
// fread/fwrite, to a new file each time (as the unifications write theirs).
//
//   unify_bench            short run (20 planes per scan)
//   unify_bench --full     the full size (500 planes per scan)
//   unify_bench --planes=N N planes per scan (the scaling table of scripts/bench.sh)
//
// Inputs are generated once, in a temporary folder removed at exit. The XYZ
// dumps of the blend go to a folder that does not exist, so they are skipped.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include <unistd.h>

#include <luAnaf/luAnaf.h>

namespace {

namespace fs = std::filesystem;

constexpr int kScans = 8;
constexpr size_t kPoints = 2000;
uint32_t g_planes = 20;
fs::path g_dir;
std::vector<fs::path> g_inputs;
uint64_t g_inputBytes = 0;
uint64_t g_outputBytes = 0;
uint64_t g_blendedOutputBytes = 0;

bool writeScan(const fs::path& file, uint32_t subsetId, double startDeg) {
  LuAfxsCreateLink link(file.wstring().c_str());
  LuAfxsHeader header;
  header.normal[2] = 1;
  header.numPlanes = g_planes;
  header.distBwPlanes = 1;
  link.setHeader(header);
  if (!link.create(true)) return false;
  std::vector<double> points(kPoints * 3), normals(kPoints * 3), results(kPoints * 3);
  std::vector<double> distances(kPoints, 0.25);
  const int segments[] = {static_cast<int>(kPoints / 2), static_cast<int>(kPoints)};
  for (uint32_t plane = 0; plane < g_planes; ++plane) {
    for (size_t i = 0; i < kPoints; ++i) {
      const double angle =
          (startDeg + 60.0 * static_cast<double>(i) / (kPoints - 1)) * std::numbers::pi / 180.0;
      const double nx = std::cos(angle), ny = std::sin(angle);
      points[3 * i] = 100 * nx, points[3 * i + 1] = 100 * ny, points[3 * i + 2] = plane;
      normals[3 * i] = nx, normals[3 * i + 1] = ny, normals[3 * i + 2] = 0;
      results[3 * i] = 100.25 * nx, results[3 * i + 1] = 100.25 * ny, results[3 * i + 2] = plane;
    }
    LuAfxsCreateData data(link, plane, subsetId);
    data.setPoints(reinterpret_cast<const double(*)[3]>(points.data()), kPoints);
    data.setNormals(reinterpret_cast<const double(*)[3]>(normals.data()), kPoints);
    data.setSegments(segments, 2);
    data.setResPoints(reinterpret_cast<const double(*)[3]>(results.data()), kPoints);
    data.setDistances(distances.data(), kPoints);
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

// One unification with fresh links and data sets, as a client runs it.
void unifyOnce(bool blending, const fs::path& output) {
  LuAfxsUserDataSet::SetCurrentXSId(1);
  LuAfxsUserDataSet::SupportXSectionBlending(blending);
  std::vector<std::unique_ptr<LuAfxsUserLink>> links;
  std::vector<LuAfxsUserDataSet*> sets;
  std::vector<uint32_t> ids;
  for (int s = 0; s < kScans; ++s) {
    links.push_back(std::make_unique<LuAfxsUserLink>(g_inputs[s].wstring().c_str()));
    sets.push_back(new LuAfxsUserDataSet(*links.back()));
    ids.push_back(static_cast<uint32_t>(s + 1));
  }
  // The header (and its plane normal) is taken before the drivers load.
  sets.front()->load(0);
  LuAfxsCreateLink out(output.wstring().c_str());
  LuAfxsHeader header;
  header.normal[2] = 1;
  out.setHeader(header);
  sets.front()->UnifyMultipleDataSets(sets, ids, out, LU_AFXS_MASK_ALL);
  // Destroys the data sets before their links go.
  LuAfxsUserDataSet::ClearXSBlendingInfo(1);
}

// Each run writes a new file where the last one was removed, untimed: so
// neither the floor nor the unification pays for replacing an old output
// (the system drops its pages; and ext4 starts writing a file truncated by
// "wb" to the device as it is closed, so the next truncation waited on the
// disk).
void removeUntimed(benchmark::State& state, const fs::path& file) {
  state.PauseTiming();
  std::error_code ec;
  fs::remove(file, ec);
  state.ResumeTiming();
}

// Every input byte read and `outputBytes` written to a new file, with plain
// fread and fwrite through one 1 MiB buffer.
void rawFloor(benchmark::State& state, uint64_t outputBytes, const fs::path& output) {
  std::vector<char> buffer(1 << 20);
  for (auto _ : state) {
    removeUntimed(state, output);
    for (const fs::path& input : g_inputs) {
      FILE* in = std::fopen(input.c_str(), "rb");
      while (std::fread(buffer.data(), 1, buffer.size(), in) == buffer.size()) {
      }
      std::fclose(in);
    }
    FILE* out = std::fopen(output.c_str(), "wb");
    for (uint64_t left = outputBytes; left > 0;) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(left, buffer.size()));
      std::fwrite(buffer.data(), 1, n, out);
      left -= n;
    }
    std::fclose(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * (g_inputBytes + outputBytes)));
}

// The floors of the two unifications: the inputs read, and an output of the
// size that each writes (blending keeps one contour where scans overlap, so
// its output is smaller).
void BM_RawFloor(benchmark::State& state) { rawFloor(state, g_outputBytes, g_dir / "floor.bin"); }
void BM_RawFloorBlendingOn(benchmark::State& state) {
  rawFloor(state, g_blendedOutputBytes, g_dir / "floor_on.bin");
}

// What a unification that holds every input at once costs at the least (the
// drivers load every record before they write the first): every input read
// whole into memory of its own, then the output's bytes written from that
// memory, to a new file. Against RawFloor, the reads land in and the writes
// come from memory outside the caches instead of one buffer that stays in
// them.
// `chunk` 0 writes each input's bytes with one call; else the output goes out
// in calls of `chunk` bytes.
void heldFloor(benchmark::State& state, uint64_t outputBytes, const fs::path& output,
               size_t chunk = 0) {
  for (auto _ : state) {
    removeUntimed(state, output);
    std::vector<std::unique_ptr<char[]>> held;
    std::vector<size_t> sizes;
    for (const fs::path& input : g_inputs) {
      const size_t size = static_cast<size_t>(fs::file_size(input));
      FILE* in = std::fopen(input.c_str(), "rb");
      held.emplace_back(new char[size]);
      sizes.push_back(std::fread(held.back().get(), 1, size, in));
      std::fclose(in);
    }
    FILE* out = std::fopen(output.c_str(), "wb");
    // Unbuffered: each fwrite is one write call of exactly its bytes.
    std::setvbuf(out, nullptr, _IONBF, 0);
    uint64_t left = outputBytes;
    for (size_t i = 0; i < held.size() && left > 0; ++i) {
      const size_t n = static_cast<size_t>(std::min<uint64_t>(left, sizes[i]));
      const size_t step = chunk == 0 ? n : chunk;
      for (size_t at = 0; at < n; at += step)
        std::fwrite(held[i].get() + at, 1, std::min(step, n - at), out);
      left -= n;
    }
    std::fclose(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * (g_inputBytes + outputBytes)));
}

void BM_HeldFloor(benchmark::State& state) { heldFloor(state, g_outputBytes, g_dir / "held.bin"); }
// The same with one write call per record of the output (its size divided by
// its records), as a writer that hands each record to the system before it
// reports the record written must: the writes then end off the page cache's
// large-folio boundaries, which costs the kernel more per byte.
void BM_HeldFloorRecordWrites(benchmark::State& state) {
  const size_t record = static_cast<size_t>(g_outputBytes / (uint64_t{kScans} * g_planes));
  heldFloor(state, g_outputBytes, g_dir / "held_records.bin", record);
  state.counters["record_kB"] = static_cast<double>(record) / 1e3;
}

void BM_HeldFloorBlendingOn(benchmark::State& state) {
  heldFloor(state, g_blendedOutputBytes, g_dir / "held_on.bin");
}

// The in-memory floor: every input byte copied once with memcpy into fresh
// memory (what gathering the planes of all scans costs at the least).
void BM_MemcpyFloor(benchmark::State& state) {
  std::vector<char> source(static_cast<size_t>(g_inputBytes), 'm');
  for (auto _ : state) {
    std::unique_ptr<char[]> copy(new char[source.size()]);
    std::memcpy(copy.get(), source.data(), source.size());
    benchmark::DoNotOptimize(copy.get());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_inputBytes));
}

void BM_UnifyBlendingOff(benchmark::State& state) {
  for (auto _ : state) {
    removeUntimed(state, g_dir / "out_off.afxs");
    unifyOnce(false, g_dir / "out_off.afxs");
  }
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * (g_inputBytes + g_outputBytes)));
  state.counters["out_MB"] = static_cast<double>(fs::file_size(g_dir / "out_off.afxs")) / 1e6;
  state.counters["planes"] = g_planes;
}

void BM_UnifyBlendingOn(benchmark::State& state) {
  for (auto _ : state) {
    removeUntimed(state, g_dir / "out_on.afxs");
    unifyOnce(true, g_dir / "out_on.afxs");
  }
  state.SetBytesProcessed(
      static_cast<int64_t>(state.iterations() * (g_inputBytes + g_blendedOutputBytes)));
  state.counters["out_MB"] = static_cast<double>(fs::file_size(g_dir / "out_on.afxs")) / 1e6;
  state.counters["planes"] = g_planes;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> args;
  for (int i = 0; i < argc; ++i) {
    if (std::strcmp(argv[i], "--full") == 0) {
      g_planes = 500;
    } else if (std::strncmp(argv[i], "--planes=", 9) == 0 && std::atoi(argv[i] + 9) > 0) {
      g_planes = static_cast<uint32_t>(std::atoi(argv[i] + 9));
    } else {
      args.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(args.size());
  benchmark::Initialize(&count, args.data());

  g_dir = fs::temp_directory_path() / ("luanaf-unify-bench-" + std::to_string(::getpid()));
  fs::create_directories(g_dir);
  LuAfxsUserDataSet::SetXYZDumpDirectory((g_dir / "no-dumps/").wstring().c_str());
  for (int s = 0; s < kScans; ++s) {
    g_inputs.push_back(g_dir / ("scan" + std::to_string(s + 1) + ".afxs"));
    // Neighbouring scans overlap by 20 of their 60 degrees.
    if (!writeScan(g_inputs.back(), static_cast<uint32_t>(s + 1), 40.0 * s)) {
      std::fprintf(stderr, "unify_bench: cannot write %s\n", g_inputs.back().c_str());
      return 1;
    }
    g_inputBytes += fs::file_size(g_inputs.back());
  }
  unifyOnce(false, g_dir / "out_off.afxs");
  g_outputBytes = fs::file_size(g_dir / "out_off.afxs");
  unifyOnce(true, g_dir / "out_on.afxs");
  g_blendedOutputBytes = fs::file_size(g_dir / "out_on.afxs");
  std::fprintf(stderr,
               "unify_bench: %d scans x %u planes x %zu points, inputs %.1f MB, output %.1f MB\n",
               kScans, g_planes, kPoints, g_inputBytes / 1e6, g_outputBytes / 1e6);

  benchmark::RegisterBenchmark("RawFloor", BM_RawFloor)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("RawFloorBlendingOn", BM_RawFloorBlendingOn)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("HeldFloor", BM_HeldFloor)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("HeldFloorRecordWrites", BM_HeldFloorRecordWrites)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("HeldFloorBlendingOn", BM_HeldFloorBlendingOn)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("MemcpyFloor", BM_MemcpyFloor)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("UnifyBlendingOff", BM_UnifyBlendingOff)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("UnifyBlendingOn", BM_UnifyBlendingOn)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ec;
  fs::remove_all(g_dir, ec);
  return 0;
}
