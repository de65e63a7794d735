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

}  // namespace

bool unifyFiles(const std::vector<std::string>& inputs, const std::vector<uint32_t>& ids,
                const std::string& output, bool blend, uint32_t xsId, uint32_t loadMode,
                bool progress, UnifySummary& summary) {
  // Plane numbers across the inputs, for the progress bar.
  int64_t lastPlane = -1;
  for (const std::string& in : inputs) {
    LuAfxsInspection info = luAfxsInspect(widen(in), false);
    if (!info.planes.empty()) lastPlane = std::max<int64_t>(lastPlane, info.planes.back().planeId);
  }
  Progress bar(progress, static_cast<uint64_t>(lastPlane + 1));
  LuLogSink previousLog = luEnvSetLogSink([&](const LuLogRecord& r) {
    std::string message = narrow(r.message);
    if (r.level >= 5) summary.failures.push_back(message);
    if (message.find("BlendXSections Succeeded") != std::string::npos) ++summary.planesBlended;
    if (message.find("XSectionsUnify Failed") != std::string::npos) ++summary.positionsSkipped;
    int64_t plane = planeOf(message);
    if (plane >= 0) bar.update(static_cast<uint64_t>(plane + 1));
  });
  LuErrorSink previousError = luEnvSetErrorSink([&](const LuErrorReport& r) {
    summary.failures.push_back(fmt::format("error {} ({} line {}) on {}", hex32(r.code),
                                           narrow(r.source), r.line, narrow(r.path)));
  });

  std::vector<std::unique_ptr<LuAfxsUserLink>> links;
  std::vector<LuAfxsUserDataSet*> sets;
  for (const std::string& in : inputs) {
    links.push_back(std::make_unique<LuAfxsUserLink>(widen(in).c_str()));
    sets.push_back(new LuAfxsUserDataSet(*links.back()));
  }
  std::vector<uint32_t> outputIds = ids;
  {
    LuAfxsCreateLink out(widen(output).c_str());
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
  links.clear();
  bar.finish();
  luEnvSetLogSink(std::move(previousLog));
  luEnvSetErrorSink(std::move(previousError));

  LuAfxsInspection result = luAfxsInspect(widen(output), false);
  if (!result.opened) return false;
  summary.planesWritten = result.loadedSubsets;
  return true;
}

int runUnify(const UnifyArgs& args) {
  std::vector<std::string> paths;
  std::vector<uint32_t> ids;
  for (const std::string& text : args.inputs) {
    std::string path, problem;
    uint32_t id = 0;
    if (!splitInput(text, path, id, problem)) {
      error(text, problem);
      return kExitUsage;
    }
    paths.push_back(path);
    ids.push_back(id);
  }
  std::error_code ec;
  for (const std::string& path : paths) {
    if (fs::exists(args.output, ec) && fs::equivalent(path, args.output, ec)) {
      error(args.output, "the output must not be one of the inputs");
      return kExitUsage;
    }
  }
  if (fs::exists(args.output, ec) &&
      (fs::status(args.output, ec).permissions() & fs::perms::owner_write) == fs::perms::none) {
    error(args.output, "is read-only (owner-write bit clear); it cannot be replaced");
    return kExitBad;
  }
  // Every input is checked before any driver runs: a load that fails would
  // delete its file.
  bool ok = true;
  for (const std::string& path : paths) {
    LuAfxsInspection in = luAfxsInspect(widen(path), true);
    ok = checkBeforeLoad(path, in, true) && ok;
  }
  if (!ok) return kExitBad;

  if (args.blend && std::find(ids.begin(), ids.end(), 0xFFFFFFFFu) != ids.end())
    warning(args.output,
            "with --blend, an input without :ID keeps its subset ids, its planes are gathered "
            "behind empty positions, and the blender ends the whole unification on the first "
            "empty one; give every input an :ID");
  UnifySummary summary;
  if (!unifyFiles(paths, ids, args.output, args.blend, args.xsId, args.loadMode, stderrIsTerminal(),
                  summary)) {
    error(args.output, "the unification wrote no output file");
    for (const std::string& f : summary.failures) error(args.output, f);
    return kExitBad;
  }
  fmt::print("{}: {} inputs unified{}\n", args.output, paths.size(),
             args.blend ? " with blending" : "");
  fmt::print("planes written    {}\n", summary.planesWritten);
  fmt::print("planes blended    {}\n", summary.planesBlended);
  fmt::print("positions skipped {}\n", summary.positionsSkipped);
  fmt::print("failures          {}\n", summary.failures.size());
  for (const std::string& f : summary.failures) fmt::print("  {}\n", f);
  return summary.failures.empty() ? kExitOk : kExitBad;
}

}  // namespace luafxs
