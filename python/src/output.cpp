// The outputs of write, remove_fields and unify: refused before anything is
// written when they would overwrite an input, a directory, a special file or
// a read-only file; written beside their final path and renamed into place
// only after the written file checked clean.
#include <cerrno>

#include "bindings.h"

namespace luanafpy {

namespace {

bool mentions(const std::wstring& text, const wchar_t* word) {
  return text.find(word) != std::wstring::npos;
}

// The first few problems of an inspection, for a message.
std::string problemList(const LuAfxsInspection& inspection) {
  std::string text;
  size_t shown = 0;
  for (const LuAfxsInspectProblem& p : inspection.problems) {
    if (shown++ == 3) {
      text += "; and " + std::to_string(inspection.problems.size() - 3) + " more";
      break;
    }
    text += "; at byte " + std::to_string(p.offset) + ": " + p.message;
  }
  return text;
}

}  // namespace

void raiseOutputProblem(const std::wstring& path, const LuAfxsOutputProblem& problem) {
  const std::string what = narrow(problem.reason) + "; nothing was written";
  if (mentions(problem.reason, L"input")) raiseError(what, path, {}, problem.errnum, "same_file");
  if (mentions(problem.reason, L"regular") && problem.errnum != EISDIR) {
    raiseError(what, path, {}, problem.errnum, "not_regular");
  }
  raiseError(what, path, {}, problem.errnum);
}

OutputTarget::OutputTarget(const std::wstring& requested, const std::vector<std::wstring>& inputs,
                           bool libraryReportsMissingFolder)
    : m_requested(requested), m_final(luAfxsResolveOutput(requested)) {
  LuAfxsOutputProblem problem;
  const bool missingFolder = !luAfxsCheckOutput(m_final, inputs, problem) &&
                             problem.errnum == ENOENT && libraryReportsMissingFolder;
  if (problem.errnum != 0 && !missingFolder) raiseOutputProblem(requested, problem);
  m_file = std::make_unique<LuAfxsOutputFile>(m_final);
  if (!m_file->ok() && !missingFolder) raiseOutputProblem(requested, m_file->creationProblem());
}

OutputTarget::~OutputTarget() = default;

const std::wstring& OutputTarget::tempPath() const { return m_file->tempPath(); }

LuAfxsInspection OutputTarget::commit(Capture& cap) {
  LuAfxsInspection written = luAfxsInspect(m_file->tempPath(), true);
  if (!written.clean()) {
    raiseError(
        "the written file would be damaged, so it was not put in place" + problemList(written),
        m_requested, {}, EINVAL, "data");
  }
  checkInterrupt(cap);
  LuAfxsOutputProblem problem;
  if (!m_file->commit(problem)) {
    raiseError("the written file could not be put in place: " + narrow(problem.reason) +
                   "; the old file is left as it was",
               m_requested, {}, problem.errnum);
  }
  return written;
}

}  // namespace luanafpy
