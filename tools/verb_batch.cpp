// luafxs batch: a job table from a list file or a folder, run by worker
// processes, with one progress line and one summary (text or JSON).
#include <chrono>
#include <filesystem>

#include <fmt/format.h>

#include "batch.h"
#include "luafxs.h"
#include "progress_bar.h"

namespace luafxs {

namespace {

namespace fs = std::filesystem;

// "[#####.....] 12/40 jobs, 1 failed" on standard error, on a terminal only.
class BatchProgress {
public:
  BatchProgress(bool enabled, size_t total) : m_bar(enabled), m_total(total) {}
  void jobEnded(bool ok) {
    ++m_done;
    if (!ok) ++m_failed;
    m_bar.draw(m_done, m_total, fmt::format("jobs, {} failed", m_failed));
  }
  void finish() { m_bar.finish(); }

private:
  ProgressBar m_bar;
  size_t m_total;
  size_t m_done = 0;
  size_t m_failed = 0;
};

void onJobEnded(size_t /*index*/, const BatchResult& result, void* context) {
  static_cast<BatchProgress*>(context)->jobEnded(result.ok());
}

std::string commandLine(const BatchJob& job) {
  std::string line;
  for (const std::string& arg : job.args) {
    const bool quote = arg.find_first_of(" \t") != std::string::npos;
    line += (line.empty() ? "" : " ") + (quote ? "\"" + arg + "\"" : arg);
  }
  return line;
}

std::string firstLine(const std::string& text) {
  const size_t end = text.find('\n');
  return end == std::string::npos ? text : text.substr(0, end);
}

std::string howItEnded(const BatchResult& r) {
  if (!r.signal.empty()) return "killed by " + r.signal;
  if (r.exitCode < 0) return "not started";
  return fmt::format("exit {}", r.exitCode);
}

bool collectJobs(const BatchArgs& args, std::vector<BatchJob>& jobs) {
  std::string problem;
  std::error_code ec;
  bool ok = fs::is_directory(args.source, ec)
                ? folderJobs(args.source, {args.output, args.blend, args.validate}, jobs, problem)
                : readJobList(args.source, jobs, problem);
  if (!ok) error(args.source, problem);
  return ok;
}

void printText(const std::vector<BatchJob>& jobs, const std::vector<BatchResult>& results,
               unsigned workers, double seconds) {
  size_t failed = 0;
  for (size_t i = 0; i < jobs.size(); ++i) {
    if (results[i].ok()) continue;
    ++failed;
    const std::string why = firstLine(results[i].err);
    error(jobs[i].origin, fmt::format("job {} ({}) ended with {}{}", i + 1, commandLine(jobs[i]),
                                      howItEnded(results[i]), why.empty() ? "" : ": " + why));
  }
  fmt::print("batch: {} jobs, {} worker{}\n", jobs.size(), workers, workers == 1 ? "" : "s");
  fmt::print("ok                {}\n", jobs.size() - failed);
  fmt::print("failed            {}\n", failed);
  fmt::print("time              {:.2f} s\n", seconds);
}

void printJson(const std::vector<BatchJob>& jobs, const std::vector<BatchResult>& results,
               unsigned workers, double seconds) {
  nlohmann::json list = nlohmann::json::array();
  size_t failed = 0;
  for (size_t i = 0; i < jobs.size(); ++i) {
    const BatchResult& r = results[i];
    failed += r.ok() ? 0 : 1;
    list.push_back(
        {{"index", i + 1},
         {"origin", jobs[i].origin},
         {"args", jobs[i].args},
         {"ok", r.ok()},
         {"exit", r.exitCode},
         {"signal", r.signal.empty() ? nlohmann::json(nullptr) : nlohmann::json(r.signal)},
         {"seconds", r.seconds},
         {"stdout", r.out},
         {"stderr", r.err}});
  }
  nlohmann::json summary = {{"jobs", jobs.size()}, {"ok", jobs.size() - failed}, {"failed", failed},
                            {"workers", workers},  {"seconds", seconds},         {"results", list}};
  fmt::print("{}\n", summary.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace

int runBatch(const BatchArgs& args) {
  if (args.workers == 0) {
    error("", "-j: the number of worker processes must be at least 1");
    return kExitUsage;
  }
  std::vector<BatchJob> jobs;
  if (!collectJobs(args, jobs)) return kExitBad;
  const auto started = std::chrono::steady_clock::now();
  BatchProgress progress(stderrIsTerminal(), jobs.size());
  std::vector<BatchResult> results = runJobs(jobs, args.workers, onJobEnded, &progress);
  progress.finish();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  if (args.json) {
    printJson(jobs, results, args.workers, seconds);
  } else {
    printText(jobs, results, args.workers, seconds);
  }
  for (const BatchResult& r : results)
    if (!r.ok()) return kExitBad;
  return kExitOk;
}

}  // namespace luafxs
