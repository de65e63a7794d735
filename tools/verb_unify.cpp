// luafxs unify: the unification driver on heap-allocated data sets, with a
// progress bar fed by the library's log records and a summary.
#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

namespace fs = std::filesystem;

// "scan.afxs:2" -> ("scan.afxs", 2). A suffix that is not a number, or a
// path that exists as written, is taken as a plain path.
bool splitInput(const std::string& text, std::string& path, uint32_t& id, std::string& problem) {
  path = text;
  id = 0xFFFFFFFF;
  size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return true;
  std::string suffix = text.substr(colon + 1);
  std::error_code ec;
  if (fs::exists(text, ec)) return true;
  if (suffix.empty() || suffix.find_first_not_of("0123456789xXabcdefABCDEF") != std::string::npos)
    return true;
  char* end = nullptr;
  unsigned long long value = std::strtoull(suffix.c_str(), &end, 0);
  if (end == nullptr || *end != '\0' || value > 0xFFFFFFFFull) {
    problem = "the id after ':' must be a number up to 4294967295";
    return false;
  }
  path = text.substr(0, colon);
  id = static_cast<uint32_t>(value);
  return true;
}

// Draws "[#####.....] 12/40 planes" on standard error, on a terminal only.
class Progress {
public:
  Progress(bool enabled, uint64_t total) : m_enabled(enabled), m_total(total) {}
  void update(uint64_t done) {
    if (!m_enabled || m_total == 0) return;
    done = std::min(done, m_total);
    const int width = 30;
    int filled = static_cast<int>(done * width / m_total);
    fmt::print(stderr, "\r[{}{}] {}/{} planes", std::string(static_cast<size_t>(filled), '#'),
               std::string(static_cast<size_t>(width - filled), '.'), done, m_total);
    std::fflush(stderr);
    m_drawn = true;
  }
  void finish() {
    if (m_drawn) {
      update(m_total);
      fmt::print(stderr, "\n");
    }
  }

private:
  bool m_enabled;
  uint64_t m_total;
  bool m_drawn = false;
};

// The plane number a unification log line names ("iPlane = 12"), or -1.
int64_t planeOf(const std::string& message) {
  size_t at = message.find("iPlane = ");
  if (at == std::string::npos) return -1;
  return std::strtoll(message.c_str() + at + 9, nullptr, 10);
}

constexpr size_t kFailuresShown = 5;

// Runs the driver with the output link on `temp`.
void runDriver(const std::vector<std::string>& inputs, const std::vector<uint32_t>& ids,
               const std::wstring& temp, bool blend, uint32_t xsId, uint32_t loadMode) {
  std::vector<std::unique_ptr<LuAfxsUserLink>> links;
  std::vector<LuAfxsUserDataSet*> sets;
  for (const std::string& in : inputs) {
    links.push_back(std::make_unique<LuAfxsUserLink>(widen(in).c_str()));
    sets.push_back(new LuAfxsUserDataSet(*links.back()));
  }
  std::vector<uint32_t> outputIds = ids;
  {
    LuAfxsCreateLink out(temp.c_str());
    // The output carries the first input's header and cameras.
    LuAfxsInspection first = luAfxsInspect(widen(inputs.front()), false);
    LuAfxsHeader header = first.header;
    header.version = first.hasVersion ? first.version : 0;
    out.setHeader(header);
    LuAfxsUserLink camerasLink(widen(inputs.front()).c_str());
    if (camerasLink.verify(false)) out.setCameras(camerasLink.getCameras());

    LuAfxsUserDataSet::SupportXSectionBlending(blend);
    LuAfxsUserDataSet::SetCurrentXSId(xsId);
    // The driver uses no member of the object it is called on.
    sets.front()->UnifyMultipleDataSets(sets, outputIds, out, loadMode);
  }
  // The registry holds the data sets; this destroys them and drops the entry.
  LuAfxsUserDataSet::ClearXSBlendingInfo(xsId);
}

// Inputs beyond the first two at a plane that was blended: blending merges
// the first two planes of a position and writes only the blended one.
void noteLeftOut(const std::vector<std::string>& inputs,
                 const std::vector<std::vector<uint32_t>>& planesOf,
                 const std::vector<int64_t>& blendedPlanes, UnifySummary& summary) {
  std::vector<uint64_t> leftOut(inputs.size(), 0);
  for (int64_t plane : blendedPlanes) {
    size_t present = 0;
    for (size_t k = 0; k < inputs.size(); ++k) {
      const auto& mine = planesOf[k];
      if (!std::binary_search(mine.begin(), mine.end(), static_cast<uint32_t>(plane))) continue;
      if (++present > 2) ++leftOut[k];
    }
  }
  for (size_t k = 0; k < inputs.size(); ++k)
    if (leftOut[k] != 0)
      summary.warnings.push_back(fmt::format(
          "{}: left out of {} blended plane{}: blending merges the first two inputs of a plane "
          "and writes only the blended plane",
          inputs[k], leftOut[k], leftOut[k] == 1 ? "" : "s"));
}

}  // namespace

void printFailures(const std::string& output, const std::vector<std::string>& failures) {
  if (failures.empty()) return;
  error(output, fmt::format("{} failure{} reported by the library{}:", failures.size(),
                            failures.size() == 1 ? "" : "s",
                            failures.size() > kFailuresShown
                                ? fmt::format(" (the first {})", kFailuresShown)
                                : std::string()));
  for (size_t i = 0; i < failures.size() && i < kFailuresShown; ++i)
    fmt::print(stderr, "  {}\n", failures[i]);
}

bool unifyFiles(const std::vector<std::string>& inputs, const std::vector<uint32_t>& ids,
                const std::string& output, bool blend, uint32_t xsId, uint32_t loadMode,
                bool progress, UnifySummary& summary) {
  // Plane numbers of each input, for the progress bar and the blending notes.
  int64_t lastPlane = -1;
  std::vector<std::vector<uint32_t>> planesOf;
  for (const std::string& in : inputs) {
    LuAfxsInspection info = luAfxsInspect(widen(in), false);
    planesOf.emplace_back();
    for (const LuAfxsInspectPlane& p : info.planes) planesOf.back().push_back(p.planeId);
    if (!info.planes.empty()) lastPlane = std::max<int64_t>(lastPlane, info.planes.back().planeId);
  }
  std::vector<int64_t> blendedPlanes;
  Progress bar(progress, static_cast<uint64_t>(lastPlane + 1));
  LuLogSink previousLog = luEnvSetLogSink([&](const LuLogRecord& r) {
    std::string message = narrow(r.message);
    if (r.level >= 5) summary.failures.push_back(message);
    if (message.find("BlendXSections Succeeded") != std::string::npos) {
      ++summary.planesBlended;
      blendedPlanes.push_back(planeOf(message));
    }
    if (message.find("XSectionsUnify Failed") != std::string::npos) ++summary.positionsSkipped;
    int64_t plane = planeOf(message);
    if (plane >= 0) bar.update(static_cast<uint64_t>(plane + 1));
  });
  LuErrorSink previousError = luEnvSetErrorSink([&](const LuErrorReport& r) {
    summary.failures.push_back(fmt::format("error {} ({} line {}) on {}", hex32(r.code),
                                           narrow(r.source), r.line, narrow(r.path)));
  });
  LuAfxsOutputFile file(widen(output));
  if (file.ok()) runDriver(inputs, ids, file.tempPath(), blend, xsId, loadMode);
  bar.finish();
  luEnvSetLogSink(std::move(previousLog));
  luEnvSetErrorSink(std::move(previousError));
  if (!file.ok()) {
    error(output, describe(file.creationProblem()) + "; nothing was written");
    return false;
  }
  if (blend) noteLeftOut(inputs, planesOf, blendedPlanes, summary);

  // Only a whole, clean file takes the output's name.
  LuAfxsInspection result = luAfxsInspect(file.tempPath(), true);
  if (!result.opened) {
    error(output, "the unification wrote no output file");
    return false;
  }
  if (!result.clean()) {
    error(output,
          fmt::format("the unified file would be damaged ({}: {}); nothing was written",
                      hex32(result.problems.front().offset), result.problems.front().message));
    return false;
  }
  if (!commitOutput(file, output)) return false;
  summary.planesWritten = result.loadedSubsets;
  return true;
}

namespace {

// Warnings about blending that cannot happen, before anything runs.
void blendingWarnings(const std::vector<std::string>& paths, uint32_t loadMode,
                      UnifySummary& summary) {
  if ((loadMode & LU_AFXS_MASK_RESPOINTS) == 0)
    summary.warnings.push_back(
        fmt::format("--load-mode {} leaves out result points (16), which blending needs: no "
                    "plane will be blended",
                    loadMode));
  for (const std::string& path : paths) {
    LuAfxsInspection in = luAfxsInspect(widen(path), false);
    if ((in.stateUnion & LU_AFXS_MASK_RESPOINTS) == 0)
      summary.warnings.push_back(
          path + ": holds no result points, which blending needs: its planes are not blended");
  }
}

void printSummary(const std::string& output, size_t inputs, bool blend,
                  const UnifySummary& summary) {
  fmt::print("{}: {} inputs unified{}\n", output, inputs, blend ? " with blending" : "");
  fmt::print("planes written    {}\n", summary.planesWritten);
  fmt::print("planes blended    {}\n", summary.planesBlended);
  fmt::print("positions skipped {}\n", summary.positionsSkipped);
  fmt::print("failures          {}\n", summary.failures.size());
  fmt::print("warnings          {}\n", summary.warnings.size());
}

}  // namespace

int runUnify(const UnifyArgs& args) {
  if ((args.loadMode & ~uint32_t{LU_AFXS_MASK_ALL}) != 0 ||
      (args.loadMode & LU_AFXS_MASK_POINTS) == 0) {
    error("", fmt::format("--load-mode: {} is not a field mask from 1 to 63 with points (1) in it",
                          args.loadMode));
    return kExitUsage;
  }
  std::vector<std::string> paths;
  std::vector<uint32_t> ids;
  for (const std::string& text : args.inputs) {
    std::string path, problem;
    uint32_t id = 0;
    if (!splitInput(text, path, id, problem)) {
      error(text, problem);
      return kExitUsage;
    }
    if (args.blend && id == 0xFFFFFFFFu) {
      error(text,
            "with --blend every input needs :ID, the subset id its planes are written "
            "under (e.g. left.afxs:1 right.afxs:2)");
      return kExitUsage;
    }
    paths.push_back(path);
    ids.push_back(id);
  }
  if (!outputAllowed(args.output, paths)) return kExitBad;
  // Every input is checked before any driver runs: a load that fails would
  // delete its file.
  bool ok = true;
  for (const std::string& path : paths) {
    LuAfxsInspection in = luAfxsInspect(widen(path), true);
    ok = checkBeforeLoad(path, in, true) && ok;
  }
  if (!ok) return kExitBad;

  UnifySummary summary;
  if (args.blend) blendingWarnings(paths, args.loadMode, summary);
  bool written = unifyFiles(paths, ids, args.output, args.blend, args.xsId, args.loadMode,
                            stderrIsTerminal(), summary);
  if (args.blend && written && summary.planesBlended == 0)
    summary.warnings.push_back("blending was asked for, but no plane was blended");
  for (const std::string& w : summary.warnings) warning(args.output, w);
  printFailures(args.output, summary.failures);
  if (!written) return kExitBad;
  printSummary(args.output, paths.size(), args.blend, summary);
  if (!summary.failures.empty()) return kExitBad;
  return args.strict && !summary.warnings.empty() ? kExitBad : kExitOk;
}

}  // namespace luafxs
