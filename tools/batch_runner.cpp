// Runs batch jobs as processes of this program: up to N at once with
// posix_spawn on POSIX, each job's standard output and error kept in
// temporary files; one after the other with _wspawnv on Windows.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>

#include <fmt/format.h>

#include "batch.h"
#include "luafxs.h"

#if defined(_WIN32)
#if !defined(NOMINMAX)
#define NOMINMAX
#endif
#include <process.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
extern char** environ;
#endif

namespace luafxs {

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

#if defined(_WIN32)

std::wstring selfPath() {
  wchar_t buffer[32768];
  DWORD length = GetModuleFileNameW(nullptr, buffer, 32768);
  return std::wstring(buffer, length);
}

// One job, waited for; its output goes to this program's streams.
BatchResult runOne(const BatchJob& job) {
  BatchResult result;
  const Clock::time_point start = Clock::now();
  const std::wstring self = selfPath();
  std::vector<std::wstring> wide{L"\"" + self + L"\""};
  for (const std::string& arg : job.args) wide.push_back(L"\"" + widen(arg) + L"\"");
  std::vector<const wchar_t*> argv;
  for (const std::wstring& w : wide) argv.push_back(w.c_str());
  argv.push_back(nullptr);
  std::fflush(stdout);
  std::fflush(stderr);
  intptr_t code = _wspawnv(_P_WAIT, self.c_str(), argv.data());
  if (code < 0) {
    result.err = fmt::format("the job could not be started ({})", std::strerror(errno));
  } else {
    result.exitCode = static_cast<int>(code);
  }
  result.seconds = secondsSince(start);
  return result;
}

#else

std::string selfPath() {
  char buffer[4096];
  ssize_t length = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (length <= 0) return "luafxs";
  return std::string(buffer, static_cast<size_t>(length));
}

// A temporary file, unlinked at once: the job writes through the inherited
// descriptor and the parent reads it back.
int scratchFile() {
  char name[] = "/tmp/luafxs-batch-XXXXXX";
  int fd = ::mkstemp(name);
  if (fd >= 0) ::unlink(name);
  return fd;
}

std::string readAll(int fd) {
  std::string text;
  if (::lseek(fd, 0, SEEK_SET) != 0) return text;
  char buffer[65536];
  ssize_t got;
  while ((got = ::read(fd, buffer, sizeof buffer)) > 0)
    text.append(buffer, static_cast<size_t>(got));
  return text;
}

struct Running {
  size_t index;
  int out;
  int err;
  Clock::time_point start;
};

// Starts one job; false (with the result filled) when it could not start.
bool start(const std::string& self, const BatchJob& job, size_t index, pid_t& pid, Running& running,
           BatchResult& failed) {
  running = {index, scratchFile(), scratchFile(), Clock::now()};
  std::vector<char*> argv{const_cast<char*>(self.c_str())};
  for (const std::string& arg : job.args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, running.out, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, running.err, STDERR_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  int rc = running.out < 0 || running.err < 0
               ? EMFILE
               : posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc == 0) return true;
  failed.err = fmt::format("the job could not be started ({})", std::strerror(rc));
  if (running.out >= 0) ::close(running.out);
  if (running.err >= 0) ::close(running.err);
  return false;
}

BatchResult finish(const Running& running, int status) {
  BatchResult result;
  result.seconds = secondsSince(running.start);
  result.out = readAll(running.out);
  result.err = readAll(running.err);
  ::close(running.out);
  ::close(running.err);
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = strsignal(WTERMSIG(status));
  return result;
}

#endif

}  // namespace

std::vector<BatchResult> runJobs(const std::vector<BatchJob>& jobs, unsigned workers,
                                 BatchDone done, void* context) {
  std::vector<BatchResult> results(jobs.size());
#if defined(_WIN32)
  (void)workers;
  for (size_t i = 0; i < jobs.size(); ++i) {
    results[i] = runOne(jobs[i]);
    done(i, results[i], context);
  }
#else
  const std::string self = selfPath();
  std::map<pid_t, Running> running;
  size_t next = 0;
  while (next < jobs.size() || !running.empty()) {
    while (running.size() < std::max(1u, workers) && next < jobs.size()) {
      pid_t pid = 0;
      Running job{};
      if (start(self, jobs[next], next, pid, job, results[next])) {
        running.emplace(pid, job);
      } else {
        done(next, results[next], context);
      }
      ++next;
    }
    if (running.empty()) continue;
    int status = 0;
    pid_t pid = ::waitpid(-1, &status, 0);
    if (pid < 0) {
      if (errno == EINTR) continue;
      break;
    }
    auto found = running.find(pid);
    if (found == running.end()) continue;
    const size_t index = found->second.index;
    results[index] = finish(found->second, status);
    running.erase(found);
    done(index, results[index], context);
  }
#endif
  return results;
}

}  // namespace luafxs
