// The checks and choices made before a unification runs, and the notes made
// after it.
#include "unify/unify_plan.h"

#include <algorithm>
#include <cerrno>

#include "platform/lu_io.h"

namespace luunify {

void refuse(LuAfxsUnifySummary& summary, LuAfxsUnifyStatus status, const std::wstring& path,
            const std::wstring& message, int errnum) {
  summary.status = status;
  summary.problemPath = path;
  summary.message = message;
  summary.errnum = errnum;
}

namespace {

std::wstring number(uint64_t value) { return std::to_wstring(value); }

// errno-style cause of an input that cannot be opened.
int openErrno(const std::wstring& path) {
  luio::FileStatus status;
  if (!luio::status(path, status)) return ENOENT;
  if (luio::isFolder(status)) return EISDIR;
  if (!status.regular) return EINVAL;
  return EACCES;
}

// The plane number of each plane-subset record a load reads.
std::vector<uint32_t> loadedPlaneIds(const LuAfxsInspection& in) {
  std::vector<uint32_t> ids;
  for (const LuAfxsInspectPlane& plane : in.planes)
    ids.insert(ids.end(), plane.subsets.size(), plane.planeId);
  return ids;
}

size_t slotCount(const std::vector<InputFacts>& facts) {
  size_t slots = 0;
  for (const InputFacts& f : facts)
    slots = std::max(slots, static_cast<size_t>(f.inspection.loadedSubsets));
  return slots;
}

}  // namespace

bool argumentsFit(const std::vector<std::wstring>& inputs, const std::vector<uint32_t>& ids,
                  const LuAfxsUnifyOptions& options, LuAfxsUnifySummary& summary) {
  if (inputs.empty()) {
    refuse(summary, LuAfxsUnifyStatus::BadArguments, L"", L"no inputs");
    return false;
  }
  if (!ids.empty() && ids.size() != inputs.size()) {
    refuse(summary, LuAfxsUnifyStatus::BadArguments, L"",
           L"the output ids must be one per input (" + number(ids.size()) + L" ids for " +
               number(inputs.size()) + L" inputs)");
    return false;
  }
  if ((options.loadMode & ~uint32_t{LU_AFXS_MASK_ALL}) != 0 ||
      (options.loadMode & LU_AFXS_MASK_POINTS) == 0) {
    refuse(summary, LuAfxsUnifyStatus::BadArguments, L"",
           L"load mode " + number(options.loadMode) +
               L" is not a field mask from 1 to 63 with points (1) in it");
    return false;
  }
  return true;
}

bool inputsLoadable(const std::vector<std::wstring>& inputs, bool strict,
                    std::vector<InputFacts>& facts, LuAfxsUnifySummary& summary) {
  bool ok = true;
  for (const std::wstring& path : inputs) {
    facts.push_back({path, luAfxsInspect(path, true)});
    const LuAfxsInspection& in = facts.back().inspection;
    bool refused = !in.opened;
    for (const LuAfxsInspectProblem& p : in.problems) {
      const bool refuses = !in.opened || strict || p.breaksLoad;
      summary.inputProblems.push_back({path, p, refuses, !in.opened});
      refused = refused || refuses;
    }
    if (refused && ok) {
      const std::wstring why = !in.opened ? L"cannot be opened as a file"
                               : strict   ? L"has problems and strict checking is on"
                                          : L"is damaged: a load would fail";
      refuse(summary, LuAfxsUnifyStatus::InputRefused, path, why, in.opened ? 0 : openErrno(path));
    }
    ok = ok && !refused;
  }
  return ok;
}

std::vector<uint32_t> chooseIds(const std::vector<InputFacts>& facts,
                                const std::vector<uint32_t>& ids) {
  if (!ids.empty()) return ids;
  bool single = true;
  for (const InputFacts& f : facts) single = single && f.inspection.subsetIds.size() == 1;
  std::vector<uint32_t> chosen;
  for (const InputFacts& f : facts)
    chosen.push_back(single ? f.inspection.subsetIds.front() : kLuAfxsKeepSubsetIds);
  return chosen;
}

bool planesFit(const std::vector<InputFacts>& facts, const std::vector<uint32_t>& ids, bool blend,
               LuAfxsUnifySummary& summary) {
  const size_t slots = slotCount(facts);
  std::vector<bool> covered(slots, false);
  for (size_t i = 0; i < facts.size(); ++i) {
    if (ids[i] == kLuAfxsKeepSubsetIds) {
      if (!blend) continue;
      refuse(summary, LuAfxsUnifyStatus::BadArguments, facts[i].path,
             L"blending lines planes up by plane number and needs a real output id for every "
             L"input (not 0xFFFFFFFF)");
      return false;
    }
    std::vector<uint32_t> planes = loadedPlaneIds(facts[i].inspection);
    for (uint32_t plane : planes) {
      // The driver stores such a plane at index planeId of a list of `slots`
      // entries; a larger number would end the whole call.
      if (plane >= slots) {
        refuse(summary, LuAfxsUnifyStatus::NotUnifiable, facts[i].path,
               L"plane " + number(plane) + L" lies beyond the " + number(slots) +
                   L" slots (the most plane subsets of any input); use output id 0xFFFFFFFF to "
                   L"keep subset ids");
        return false;
      }
      covered[plane] = true;
    }
    if (std::adjacent_find(planes.begin(), planes.end()) != planes.end())
      summary.warnings.push_back({LuAfxsUnifyWarningKind::SeveralSubsetsInOnePlane, facts[i].path,
                                  facts[i].path +
                                      L": a plane holds several subsets; under one output id "
                                      L"only the last of them is kept"});
  }
  if (!blend) return true;
  for (size_t p = 0; p < slots; ++p) {
    if (covered[p]) continue;
    // The blend ends the whole call at a position without any plane.
    refuse(summary, LuAfxsUnifyStatus::NotUnifiable, L"",
           L"no input has plane " + number(p) + L", which blending cannot skip");
    return false;
  }
  return true;
}

void warnBeforeBlending(const std::vector<InputFacts>& facts, uint32_t loadMode,
                        LuAfxsUnifySummary& summary) {
  if ((loadMode & LU_AFXS_MASK_RESPOINTS) == 0)
    summary.warnings.push_back({LuAfxsUnifyWarningKind::LoadModeWithoutResultPoints, L"",
                                L"load mode " + number(loadMode) +
                                    L" leaves out result points (16), which blending needs: no "
                                    L"plane will be blended"});
  for (const InputFacts& f : facts)
    if ((f.inspection.stateUnion & LU_AFXS_MASK_RESPOINTS) == 0)
      summary.warnings.push_back(
          {LuAfxsUnifyWarningKind::InputWithoutResultPoints, f.path,
           f.path + L": holds no result points, which blending needs: its planes are not blended"});
}

void warnAfterBlending(const std::vector<InputFacts>& facts,
                       const std::vector<uint32_t>& blendedPlanes, LuAfxsUnifySummary& summary) {
  std::vector<std::vector<uint32_t>> planesOf;
  for (const InputFacts& f : facts) planesOf.push_back(loadedPlaneIds(f.inspection));
  std::vector<uint64_t> leftOut(facts.size(), 0);
  for (uint32_t plane : blendedPlanes) {
    size_t present = 0;
    for (size_t k = 0; k < facts.size(); ++k) {
      const std::vector<uint32_t>& mine = planesOf[k];
      if (!std::binary_search(mine.begin(), mine.end(), plane)) continue;
      if (++present > 2) ++leftOut[k];
    }
  }
  for (size_t k = 0; k < facts.size(); ++k)
    if (leftOut[k] != 0)
      summary.warnings.push_back(
          {LuAfxsUnifyWarningKind::LeftOutOfBlendedPlanes, facts[k].path,
           facts[k].path + L": left out of " + number(leftOut[k]) + L" blended plane" +
               (leftOut[k] == 1 ? L"" : L"s") +
               L": blending merges the first two inputs of a plane and writes only the blended "
               L"plane"});
  if (blendedPlanes.empty())
    summary.warnings.push_back({LuAfxsUnifyWarningKind::NothingBlended, L"",
                                L"blending was asked for, but no plane was blended"});
}

}  // namespace luunify
