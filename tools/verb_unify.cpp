// luafxs unify: the library's luAfxsUnifyFiles with the tool's messages, a
// progress bar fed by the library's progress callback, and a summary.
#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include <fmt/format.h>

#include "luafxs.h"
#include "progress_bar.h"

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

constexpr size_t kFailuresShown = 5;

std::string warningText(const LuAfxsUnifyWarning& w, uint32_t loadMode) {
  if (w.kind == LuAfxsUnifyWarningKind::LoadModeWithoutResultPoints)
    return fmt::format(
        "--load-mode {} leaves out result points (16), which blending needs: no plane will be "
        "blended",
        loadMode);
  return narrow(w.text);
}

// The library's summary in the tool's terms: skipped positions are failures.
void takeSummary(const LuAfxsUnifySummary& from, uint32_t loadMode, UnifySummary& to) {
  to.planesWritten = from.planesWritten;
  to.planesBlended = from.planesBlended;
  to.positionsSkipped = from.skipped.size();
  for (const LuAfxsUnifyFailure& f : from.failures)
    to.failures.push_back(narrow(luAfxsUnifyFailureText(f)));
  for (const LuAfxsUnifySkip& s : from.skipped)
    to.failures.push_back(narrow(luAfxsUnifySkipText(s)));
  for (const LuAfxsUnifyWarning& w : from.warnings) to.warnings.push_back(warningText(w, loadMode));
}

void sayNothingWasDone(const std::string& path) {
  error(path, "damaged file; nothing was done (run: luafxs validate " + path + ")");
}

// The inputs' problems, one line each: errors for those that refuse the
// input, warnings for the others.
void printInputProblems(const LuAfxsUnifySummary& summary) {
  std::string refusedPath;
  for (const LuAfxsUnifyInputProblem& p : summary.inputProblems) {
    const std::string path = narrow(p.path);
    if (!refusedPath.empty() && refusedPath != path) {
      sayNothingWasDone(refusedPath);
      refusedPath.clear();
    }
    if (p.unopened) {
      error(path, p.problem.message);
      continue;
    }
    const std::string text = fmt::format("at {}: {}", hex32(p.problem.offset), p.problem.message);
    if (p.refuses) {
      error(path, text);
      refusedPath = path;
    } else {
      warning(path, text);
    }
  }
  if (!refusedPath.empty()) sayNothingWasDone(refusedPath);
}

// Keeps the library's log and error reports off standard error while it
// runs: what they say is in the summary.
class QuietLibrary {
public:
  QuietLibrary()
      : m_log(luEnvSetLogSink([](const LuLogRecord&) {})),
        m_error(luEnvSetErrorSink([](const LuErrorReport&) {})) {}
  ~QuietLibrary() {
    luEnvSetLogSink(std::move(m_log));
    luEnvSetErrorSink(std::move(m_error));
  }
  QuietLibrary(const QuietLibrary&) = delete;
  QuietLibrary& operator=(const QuietLibrary&) = delete;

private:
  LuLogSink m_log;
  LuErrorSink m_error;
};

// Prints why the library refused or failed the call (an input's refusal is
// printed with its problems).
void printRefusal(const std::string& output, const LuAfxsUnifySummary& summary) {
  if (summary.status == LuAfxsUnifyStatus::InputRefused) return;
  const std::string about = summary.problemPath.empty() ? output : narrow(summary.problemPath);
  error(about, narrow(summary.message));
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
                const std::string& output, const UnifyOptions& how, UnifySummary& summary) {
  std::vector<std::wstring> wide;
  for (const std::string& in : inputs) wide.push_back(widen(in));
  LuAfxsUnifyOptions options;
  options.blend = how.blend;
  options.xsId = how.xsId;
  options.loadMode = how.loadMode;
  options.strict = how.strict;
  ProgressBar bar(how.progress);
  options.progress = [&bar](uint64_t done, uint64_t all) { bar.draw(done, all, "positions"); };
  LuAfxsUnifySummary result;
  {
    QuietLibrary quiet;
    result = luAfxsUnifyFiles(wide, ids, widen(output), options);
  }
  bar.finish();
  printInputProblems(result);
  takeSummary(result, how.loadMode, summary);
  if (!result.written()) printRefusal(output, result);
  return result.written();
}

int runUnify(const UnifyArgs& args) {
  if ((args.loadMode & ~uint32_t{LU_AFXS_MASK_ALL}) != 0 ||
      (args.loadMode & LU_AFXS_MASK_POINTS) == 0) {
    error("", fmt::format("--load-mode: {} is not a field mask from 1 to 63 with points (1) in it",
                          args.loadMode));
    return kExitUsage;
  }
  std::vector<std::string> paths;
  std::vector<uint32_t> ids;
  bool anyId = false;
  for (const std::string& text : args.inputs) {
    std::string path, problem;
    uint32_t id = 0;
    if (!splitInput(text, path, id, problem)) {
      error(text, problem);
      return kExitUsage;
    }
    if (args.blend && id == kLuAfxsKeepSubsetIds) {
      error(text,
            "with --blend every input needs :ID, the subset id its planes are written "
            "under (e.g. left.afxs:1 right.afxs:2)");
      return kExitUsage;
    }
    anyId = anyId || id != kLuAfxsKeepSubsetIds;
    paths.push_back(path);
    ids.push_back(id);
  }
  // Without any :ID the library's default ids apply, as in the Python module.
  if (!anyId) ids.clear();

  UnifySummary summary;
  UnifyOptions how{args.blend, args.xsId, args.loadMode, true, stderrIsTerminal()};
  bool written = unifyFiles(paths, ids, args.output, how, summary);
  for (const std::string& w : summary.warnings) warning(args.output, w);
  printFailures(args.output, summary.failures);
  if (!written) return kExitBad;
  printSummary(args.output, paths.size(), args.blend, summary);
  if (!summary.failures.empty()) return kExitBad;
  return args.strict && !summary.warnings.empty() ? kExitBad : kExitOk;
}

}  // namespace luafxs
