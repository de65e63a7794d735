// One load (or one floor) per process: what a load costs in a process that
// has touched no memory yet, and what a second load costs in the same
// process. bench/first_load.py runs this program once per repetition and
// variant, alternating the variants, and takes medians.
//
//   first_load write FILE PLANES     writes PLANES x 2 subsets x 5,000 points, every field
//   first_load run VARIANT FILE      runs one variant, prints one JSON line
//
// Variants (the timed part only; the file is expected in the page cache):
//   load, load_nocache            open, verify and load every field of every
//                                 record, array cache on / off
//   repeat, repeat_nocache        the same load, timed the second time in the
//                                 process (the first data set destroyed)
//   points, points_repeat         the points only, first / second load
//   fread_1mib                    fread of the file in 1 MiB chunks into one
//                                 reused buffer (the pages of 1 MiB only)
//   fread_fresh                   fread of the file into fresh memory, one new
//                                 buffer per record (as a load fills arrays)
//   fread_fresh_zeroed            the same into zero-filled std::vector<char>s
//   fread_warm                    fread into per-record buffers already
//                                 written once (no fresh pages): the floor of
//                                 a repeated load
//   fread_points                  fread of each record's points into a fresh
//                                 buffer of their own (the points-only floor)
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

#include "bench/bench_files.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kSubsets = 2;
constexpr size_t kPoints = 5000;
constexpr size_t kMiB = size_t{1} << 20;

struct Usage {
  double realMs = 0;
  double userMs = 0;
  double sysMs = 0;
  long minorFaults = 0;
};

double toMs(const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; }

// Wall clock, CPU time and page faults of `work`.
Usage measure(const std::function<bool()>& work, bool& ok) {
  rusage before{}, after{};
  getrusage(RUSAGE_SELF, &before);
  const auto start = std::chrono::steady_clock::now();
  ok = work();
  const auto end = std::chrono::steady_clock::now();
  getrusage(RUSAGE_SELF, &after);
  Usage u;
  u.realMs = std::chrono::duration<double, std::milli>(end - start).count();
  u.userMs = toMs(after.ru_utime) - toMs(before.ru_utime);
  u.sysMs = toMs(after.ru_stime) - toMs(before.ru_stime);
  u.minorFaults = after.ru_minflt - before.ru_minflt;
  return u;
}

// Open, verify and load of `mask`; the data set is handed out so that its
// destruction stays out of the timing.
struct Loaded {
  std::unique_ptr<LuAfxsUserLink> link;
  std::unique_ptr<LuAfxsUserDataSet> set;
};

bool loadInto(const fs::path& file, unsigned long mask, Loaded& out) {
  out.link = std::make_unique<LuAfxsUserLink>(file.wstring().c_str());
  out.set = std::make_unique<LuAfxsUserDataSet>(*out.link);
  return out.set->load(mask) && out.set->size() != 0;
}

void drop(Loaded& loaded) {
  loaded.set.reset();
  loaded.link.reset();
}

size_t recordsOf(const fs::path& file) {
  Loaded index;
  return loadInto(file, 0, index) ? index.set->size() : 0;
}

// The file in `pieces.size()` record-sized pieces, each into its own buffer.
template <typename Buffers>
bool freadPieces(const fs::path& file, Buffers& pieces, size_t piece) {
  FILE* f = std::fopen(file.string().c_str(), "rb");
  if (f == nullptr) return false;
  size_t total = 0;
  for (auto& p : pieces) total += std::fread(&p[0], 1, piece, f);
  std::fclose(f);
  benchmark::DoNotOptimize(&pieces[0]);
  return total == piece * pieces.size();
}

int runVariant(const std::string& variant, const fs::path& file) {
  const size_t size = fs::file_size(file);
  // Counting the records reads only the heads: no array is allocated.
  const size_t records = variant.rfind("fread", 0) == 0 ? recordsOf(file) : 1;
  if (records == 0) return 1;
  const size_t piece = size / records;
  Loaded first, second;
  std::vector<char> buffer;
  std::vector<std::unique_ptr<char[]>> fresh;
  std::vector<std::vector<char>> zeroed;
  std::map<std::string, std::function<bool()>> work = {
      {"load", [&] { return loadInto(file, LU_AFXS_MASK_ALL, first); }},
      {"load_nocache", [&] { return loadInto(file, LU_AFXS_MASK_ALL, first); }},
      {"repeat", [&] { return loadInto(file, LU_AFXS_MASK_ALL, second); }},
      {"repeat_nocache", [&] { return loadInto(file, LU_AFXS_MASK_ALL, second); }},
      {"points", [&] { return loadInto(file, LU_AFXS_MASK_POINTS, first); }},
      {"points_repeat", [&] { return loadInto(file, LU_AFXS_MASK_POINTS, second); }},
      {"fread_1mib",
       [&] {
         buffer.resize(kMiB);
         return luanafbench::freadReused(file, buffer);
       }},
      {"fread_fresh",
       [&] {
         fresh.resize(records);
         for (auto& p : fresh) p.reset(new char[piece]);
         return freadPieces(file, fresh, piece);
       }},
      {"fread_fresh_zeroed",
       [&] {
         zeroed.resize(records);
         for (auto& p : zeroed) p.resize(piece);
         return freadPieces(file, zeroed, piece);
       }},
      {"fread_warm", [&] { return freadPieces(file, zeroed, piece); }},
      {"fread_points",
       [&] {
         return luanafbench::freadEachRecordFresh(file, records, piece, kPoints * sizeof(LuVec3),
                                                  fresh);
       }},
  };
  auto it = work.find(variant);
  if (it == work.end()) {
    std::fprintf(stderr, "unknown variant %s\n", variant.c_str());
    return 2;
  }
  luAfxsSetArrayCacheEnabled(variant.find("nocache") == std::string::npos);
  // What a repeated variant does once before its timed run.
  if (variant == "repeat" || variant == "repeat_nocache") {
    if (!loadInto(file, LU_AFXS_MASK_ALL, first)) return 1;
    drop(first);
  } else if (variant == "points_repeat") {
    if (!loadInto(file, LU_AFXS_MASK_POINTS, first)) return 1;
    drop(first);
  } else if (variant == "fread_warm") {
    zeroed.resize(records);
    for (auto& p : zeroed) p.resize(piece);
    if (!freadPieces(file, zeroed, piece)) return 1;
  }
  bool ok = false;
  const Usage u = measure(it->second, ok);
  if (!ok) {
    std::fprintf(stderr, "%s failed\n", variant.c_str());
    return 1;
  }
  std::printf(
      "{\"variant\": \"%s\", \"bytes\": %zu, \"real_ms\": %.3f, \"user_ms\": %.3f, "
      "\"sys_ms\": %.3f, \"minor_faults\": %ld}\n",
      variant.c_str(), size, u.realMs, u.userMs, u.sysMs, u.minorFaults);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "write" && argc == 4) {
    const uint32_t planes = static_cast<uint32_t>(std::atoi(argv[3]));
    const uint64_t bytes = luanafbench::writeFile(
        argv[2], planes, kSubsets, luanafbench::makeInput(kPoints), LU_AFXS_MASK_ALL, true);
    return bytes == 0 ? 1 : 0;
  }
  if (verb == "run" && argc == 4) return runVariant(argv[2], argv[3]);
  std::fprintf(stderr, "usage: %s write FILE PLANES | run VARIANT FILE\n", argv[0]);
  return 2;
}
