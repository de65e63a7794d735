// Import of a 100 MB csv as dump writes it (plane, subset, index, segment,
// x y z, normals): `luafxs import` run as a program (set LUAFXS to the
// tool's path; skipped otherwise), beside its floor, a plain std::from_chars
// parse of every number of the same file read whole into memory. And the
// import of the same points as a 62 MB binary little-endian PLY (x y z nx ny
// nz as doubles, plane and subset as ints, as dump --format ply-binary writes).
//
//   LUAFXS=build/release/tools/luafxs ./build/release/bench/import_bench
#include <benchmark/benchmark.h>

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

const fs::path& csvFile() {
  static const fs::path file = [] {
    fs::path p = fs::temp_directory_path() / "luanaf_import_bench.csv";
    std::ofstream out(p, std::ios::binary);
    out << "plane,subset,index,segment,x,y,z,nx,ny,nz\n";
    char line[256];
    for (uint32_t plane = 0; plane < 100; ++plane)
      for (uint32_t i = 0; i < 11000; ++i) {
        double a = 6.283185307179586 * i / 11000;
        int n = std::snprintf(line, sizeof line, "%u,1,%u,0,%.17g,%.17g,%.17g,%.17g,%.17g,0\n",
                              plane, i, 100 * std::cos(a), 100 * std::sin(a), 2.5 * plane,
                              std::cos(a), std::sin(a));
        out.write(line, n);
      }
    return p;
  }();
  return file;
}

const fs::path& binaryPlyFile() {
  static const fs::path file = [] {
    fs::path p = fs::temp_directory_path() / "luanaf_import_bench.ply";
    std::ofstream out(p, std::ios::binary);
    out << "ply\nformat binary_little_endian 1.0\nelement vertex " << 100 * 11000
        << "\nproperty double x\nproperty double y\nproperty double z\nproperty double nx\n"
           "property double ny\nproperty double nz\nproperty int plane\nproperty int subset\n"
           "end_header\n";
    // The bench runs on little-endian machines only, as the tool is built for.
    for (int32_t plane = 0; plane < 100; ++plane)
      for (uint32_t i = 0; i < 11000; ++i) {
        double a = 6.283185307179586 * i / 11000;
        const double row[6] = {100 * std::cos(a), 100 * std::sin(a), 2.5 * plane,
                               std::cos(a),       std::sin(a),       0};
        const int32_t ids[2] = {plane, 1};
        out.write(reinterpret_cast<const char*>(row), sizeof row);
        out.write(reinterpret_cast<const char*>(ids), sizeof ids);
      }
    return p;
  }();
  return file;
}

void BM_FromCharsFloor(benchmark::State& state) {
  const fs::path& file = csvFile();
  for (auto _ : state) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    std::string text = buffer.str();
    double sum = 0;
    const char* p = text.data() + text.find('\n') + 1;
    const char* end = text.data() + text.size();
    while (p < end) {
      double v = 0;
      auto r = std::from_chars(p, end, v);
      sum += v;
      p = r.ptr + 1;  // past the comma or line feed
    }
    benchmark::DoNotOptimize(sum);
  }
  state.counters["MB"] = static_cast<double>(fs::file_size(file)) / 1e6;
}
BENCHMARK(BM_FromCharsFloor)->Unit(benchmark::kMillisecond)->Iterations(3);

void importWithTool(benchmark::State& state, const fs::path& input) {
  const char* tool = std::getenv("LUAFXS");
  if (tool == nullptr) {
    state.SkipWithError("set LUAFXS to the luafxs tool");
    return;
  }
  fs::path out = fs::temp_directory_path() / "luanaf_import_bench.afxs";
  std::string command = std::string("'") + tool + "' import '" + input.string() + "' -o '" +
                        out.string() + "' >/dev/null";
  for (auto _ : state) {
    fs::remove(out);
    if (std::system(command.c_str()) != 0) state.SkipWithError("import failed");
  }
  fs::remove(out);
  state.counters["MB"] = static_cast<double>(fs::file_size(input)) / 1e6;
}

void BM_LuafxsImport(benchmark::State& state) { importWithTool(state, csvFile()); }
BENCHMARK(BM_LuafxsImport)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

void BM_LuafxsImportBinaryPly(benchmark::State& state) { importWithTool(state, binaryPlyFile()); }
BENCHMARK(BM_LuafxsImportBinaryPly)->Unit(benchmark::kMillisecond)->Iterations(3)->UseRealTime();

}  // namespace
