// luAfxsUnifyFiles: check, unify on a temporary beside the output, count
// what the library did, put the output in place only whole and clean.
#include <luAnaf/luAfxsUnify.h>

#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luAfxsOutput.h>
#include <luAnaf/luAfxsUser.h>
#include <luAnaf/luEnv.h>

#include "platform/lu_io.h"
#include "unify/unify_events.h"
#include "unify/unify_plan.h"

namespace {

using luunify::InputFacts;
using luunify::refuse;

// Counts the events of one run into the summary.
class Counter final : public luunify::UnifyListener {
public:
  Counter(LuAfxsUnifySummary& summary, const LuAfxsUnifyOptions& options)
      : m_summary(summary), m_options(options) {}
  void planeWritten(const LuAfxsPlane&) override { ++m_summary.planesWritten; }
  void planeBlended(uint32_t planeId) override {
    ++m_summary.planesBlended;
    blendedPlanes.push_back(planeId);
  }
  void positionSkipped(uint64_t position, int64_t planeId, const wchar_t* reason) override {
    m_summary.skipped.push_back({position, planeId, reason});
  }
  void positionDone(uint64_t done, uint64_t all) override {
    if (m_options.progress) m_options.progress(done, all);
  }
  void planeNotWritten(const LuAfxsPlane& plane) override {
    m_summary.failures.push_back({0, 0, L"",
                                  L"plane " + std::to_wstring(plane.planeId) + L" subset " +
                                      std::to_wstring(plane.subsetId) + L" could not be written"});
    driverFailed = true;
  }
  void driverEnded(const std::wstring& what) override {
    m_summary.failures.push_back({0, 0, L"", L"the unification ended early: " + what});
    driverFailed = true;
  }

  std::vector<uint32_t> blendedPlanes;
  bool driverFailed = false;

private:
  LuAfxsUnifySummary& m_summary;
  const LuAfxsUnifyOptions& m_options;
};

// Error reports of the run go into the summary, then on to the sink in force.
class ReportCollector {
public:
  explicit ReportCollector(LuAfxsUnifySummary& summary) {
    m_previous = luEnvSetErrorSink([this, &summary](const LuErrorReport& r) {
      summary.failures.push_back({r.code, r.line, r.path, r.source});
      ++count;
      if (m_previous) m_previous(r);
    });
  }
  ~ReportCollector() { luEnvSetErrorSink(std::move(m_previous)); }
  ReportCollector(const ReportCollector&) = delete;
  ReportCollector& operator=(const ReportCollector&) = delete;
  size_t count = 0;

private:
  LuErrorSink m_previous;
};

// The data sets of one run, destroyed through the registry once it holds them.
struct DataSets {
  std::vector<std::unique_ptr<LuAfxsUserLink>> links;
  std::vector<LuAfxsUserDataSet*> sets;
  uint32_t xsId = 0;
  bool registered = false;

  ~DataSets() {
    if (registered) {
      LuAfxsUserDataSet::ClearXSBlendingInfo(xsId);
    } else {
      for (LuAfxsUserDataSet* s : sets) delete s;
    }
    sets.clear();
    links.clear();  // after the sets: each set closes its file through its link
  }
};

// The output carries the first input's header, its version (0 without a
// version line) and its cameras, read through the link it was loaded with.
void writeFirstInputsHeader(const InputFacts& first, LuAfxsUserLink& firstLink,
                            LuAfxsCreateLink& out) {
  LuAfxsHeader header = first.inspection.header;
  header.version = first.inspection.hasVersion ? first.inspection.version : 0;
  out.setHeader(header);
  out.setCameras(firstLink.getCameras());
}

// Runs the driver on `temp`; false when it did not run to its end.
bool runDriver(const std::vector<InputFacts>& facts, std::vector<uint32_t> ids,
               const std::wstring& temp, const LuAfxsUnifyOptions& options, Counter& counter,
               LuAfxsUnifySummary& summary) {
  DataSets data;
  data.xsId = options.xsId;
  ReportCollector reports(summary);
  for (const InputFacts& f : facts) {
    data.links.push_back(std::make_unique<LuAfxsUserLink>(f.path.c_str()));
    data.sets.push_back(new LuAfxsUserDataSet(*data.links.back()));
    // Loaded (index only) before the driver takes the first one's header,
    // whose normal steers the blend. The inspection found every input
    // loadable, so no load here deletes its file.
    if (!data.sets.back()->load(0)) counter.driverEnded(L"an input could not be loaded");
  }
  if (counter.driverFailed) return false;
  luunify::ScopedListener listening(counter);
  {
    LuAfxsCreateLink out(temp.c_str());
    writeFirstInputsHeader(facts.front(), *data.links.front(), out);
    LuAfxsUserDataSet::SupportXSectionBlending(options.blend);
    LuAfxsUserDataSet::SetCurrentXSId(options.xsId);
    data.registered = true;
    // The driver uses no member of the object it is called on.
    data.sets.front()->UnifyMultipleDataSets(data.sets, ids, out, options.loadMode);
    if (!out.isOK()) counter.driverFailed = true;
  }
  return !counter.driverFailed && reports.count == 0 && LuFileExist(temp.c_str());
}

bool outputAllowed(const std::vector<std::wstring>& inputs, const std::wstring& output,
                   LuAfxsUnifySummary& summary) {
  LuAfxsOutputProblem problem;
  if (luAfxsCheckOutput(luAfxsResolveOutput(output), inputs, problem)) return true;
  refuse(summary, LuAfxsUnifyStatus::OutputRefused, output, problem.reason, problem.errnum);
  return false;
}

// Unifies into `file`'s temporary and puts it in place when all went well.
void unifyInto(LuAfxsOutputFile& file, const std::vector<InputFacts>& facts,
               const std::wstring& output, const LuAfxsUnifyOptions& options,
               LuAfxsUnifySummary& summary) {
  Counter counter(summary, options);
  if (!runDriver(facts, summary.outputIds, file.tempPath(), options, counter, summary)) {
    refuse(summary, LuAfxsUnifyStatus::Incomplete, output,
           L"the unification failed; nothing was written");
    return;
  }
  if (options.blend) luunify::warnAfterBlending(facts, counter.blendedPlanes, summary);
  const LuAfxsInspection written = luAfxsInspect(file.tempPath(), true);
  if (!written.opened || !written.clean()) {
    refuse(summary, LuAfxsUnifyStatus::OutputDamaged, output,
           L"the unified file would be damaged" +
               (written.problems.empty()
                    ? std::wstring()
                    : L" (" + luio::widen(written.problems.front().message) + L")") +
               L"; nothing was written");
    return;
  }
  if (options.keepGoing && !options.keepGoing()) {
    refuse(summary, LuAfxsUnifyStatus::Cancelled, output, L"cancelled; nothing was written");
    return;
  }
  LuAfxsOutputProblem problem;
  if (!file.commit(problem)) {
    refuse(summary, LuAfxsUnifyStatus::NotCommitted, output,
           problem.reason + L"; nothing was written", problem.errnum);
    return;
  }
  summary.status = LuAfxsUnifyStatus::Written;
  summary.message.clear();
  summary.problemPath.clear();
}

LuAfxsUnifySummary unifyFiles(const std::vector<std::wstring>& inputs,
                              const std::vector<uint32_t>& ids, const std::wstring& output,
                              const LuAfxsUnifyOptions& options) {
  LuAfxsUnifySummary summary;
  if (!luunify::argumentsFit(inputs, ids, options, summary)) return summary;
  if (!outputAllowed(inputs, output, summary)) return summary;
  std::vector<InputFacts> facts;
  if (!luunify::inputsLoadable(inputs, options.strict, facts, summary)) return summary;
  summary.outputIds = luunify::chooseIds(facts, ids);
  if (!luunify::planesFit(facts, summary.outputIds, options.blend, summary)) return summary;
  if (options.blend) luunify::warnBeforeBlending(facts, options.loadMode, summary);

  LuAfxsOutputFile file(output);
  if (!file.ok()) {
    refuse(summary, LuAfxsUnifyStatus::OutputRefused, output,
           file.creationProblem().reason + L"; nothing was written", file.creationProblem().errnum);
    return summary;
  }
  // A rewrite of the temporary by the library goes through "%s.tmp".
  file.addCompanion(file.tempPath() + L".tmp");
  unifyInto(file, facts, output, options, summary);
  return summary;
}

}  // namespace

LuAfxsUnifySummary luAfxsUnifyFiles(const std::vector<std::wstring>& inputs,
                                    const std::vector<uint32_t>& ids, const std::wstring& output,
                                    const LuAfxsUnifyOptions& options) {
  try {
    return unifyFiles(inputs, ids, output, options);
  } catch (const std::exception& e) {
    LuAfxsUnifySummary summary;
    refuse(summary, LuAfxsUnifyStatus::Incomplete, output,
           L"the unification failed (" + luio::widen(e.what()) + L"); nothing was written");
    return summary;
  }
}

std::wstring luAfxsUnifyFailureText(const LuAfxsUnifyFailure& failure) {
  if (failure.code == 0) return failure.what;
  std::wstring code = L"0x";
  for (int shift = 28; shift >= 0; shift -= 4)
    code += L"0123456789ABCDEF"[(failure.code >> shift) & 0xF];
  return L"error " + code + L" (" + failure.what + L" line " + std::to_wstring(failure.line) +
         L") on " + failure.path;
}

std::wstring luAfxsUnifySkipText(const LuAfxsUnifySkip& skip) {
  std::wstring text = L"position " + std::to_wstring(skip.position);
  if (skip.planeId >= 0) text += L" (plane " + std::to_wstring(skip.planeId) + L")";
  return text + L" left out: " + skip.reason;
}

const char* luAfxsUnifyStatusName(LuAfxsUnifyStatus status) {
  switch (status) {
    case LuAfxsUnifyStatus::Written:
      return "written";
    case LuAfxsUnifyStatus::BadArguments:
      return "bad arguments";
    case LuAfxsUnifyStatus::InputRefused:
      return "input refused";
    case LuAfxsUnifyStatus::OutputRefused:
      return "output refused";
    case LuAfxsUnifyStatus::NotUnifiable:
      return "not unifiable";
    case LuAfxsUnifyStatus::Incomplete:
      return "unification failed";
    case LuAfxsUnifyStatus::OutputDamaged:
      return "output would be damaged";
    case LuAfxsUnifyStatus::NotCommitted:
      return "commit failed";
    case LuAfxsUnifyStatus::Cancelled:
      return "cancelled";
  }
  return "unknown";
}
