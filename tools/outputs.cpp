// The files and streams luafxs writes: every output is checked before
// anything is written, written beside its final name and renamed into place
// whole; standard output is checked at the end; a signal removes whatever
// temporary is still live before the program dies of it.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

int g_stdoutErrno = 0;  // the first failed write to standard output

void onSignal(int signal) {
  luAfxsRemovePendingOutputs();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

std::string describe(const LuAfxsOutputProblem& problem) { return narrow(problem.reason); }

bool outputAllowed(const std::string& output, const std::vector<std::string>& inputs) {
  std::vector<std::wstring> wide;
  for (const std::string& input : inputs) wide.push_back(widen(input));
  LuAfxsOutputProblem problem;
  if (luAfxsCheckOutput(widen(output), wide, problem)) return true;
  error(output, describe(problem));
  return false;
}

bool isStandardOutput(const std::string& path) { return path.empty() || path == "-"; }

bool commitOutput(LuAfxsOutputFile& file, const std::string& shownPath) {
  LuAfxsOutputProblem problem;
  if (file.commit(problem)) return true;
  error(shownPath, describe(problem) + "; nothing was written");
  return false;
}

bool writeOutput(const std::string& path, const std::string& text, bool binary) {
  return writeOutputWith(path, binary, [&text](std::FILE* out) {
    return std::fwrite(text.data(), 1, text.size(), out) == text.size();
  });
}

bool writeOutputWith(const std::string& path, bool binary,
                     const std::function<bool(std::FILE*)>& writeBody) {
  // A failed write to standard output is reported once, at the end.
  if (isStandardOutput(path)) {
    if (writeBody(stdout) && std::fflush(stdout) == 0) return true;
    noteStandardOutputFailure(errno);
    return false;
  }
  LuAfxsOutputFile file(widen(path));
  if (!file.ok()) {
    error(path, describe(file.creationProblem()) + "; nothing was written");
    return false;
  }
#if defined(_WIN32)
  std::FILE* out = _wfopen(file.tempPath().c_str(), binary ? L"wb" : L"w");
#else
  std::FILE* out = std::fopen(narrow(file.tempPath()).c_str(), binary ? "wb" : "w");
#endif
  bool written = out != nullptr && writeBody(out) && std::fflush(out) == 0;
  int errnum = errno;
  if (out != nullptr && std::fclose(out) != 0 && written) {
    written = false;
    errnum = errno;
  }
  if (!written) {
    error(path, fmt::format("write failed ({}); the previous file is left as it was",
                            std::strerror(errnum)));
    return false;
  }
  return commitOutput(file, path);
}

void noteStandardOutputFailure(int errnum) {
  if (g_stdoutErrno == 0) g_stdoutErrno = errnum != 0 ? errnum : EIO;
}

bool finishStandardOutput() {
  errno = 0;
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    if (g_stdoutErrno == 0) g_stdoutErrno = errno != 0 ? errno : EIO;
  }
  if (g_stdoutErrno == 0) return true;
  error("standard output", fmt::format("write failed ({})", std::strerror(g_stdoutErrno)));
  return false;
}

void installSignalHandlers() {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
#if !defined(_WIN32)
  std::signal(SIGHUP, onSignal);
  // A closed pipe is a failed write (EPIPE), reported and exit 1.
  std::signal(SIGPIPE, SIG_IGN);
#endif
}

}  // namespace luafxs
