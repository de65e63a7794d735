// luafxs batch: many unify, validate, slice and compare jobs run by worker
// processes. The job table says which verbs a job may run; adding a verb to
// batch is one row there. Each job is one run of this program with the
// job's arguments, so jobs share nothing (the library serves one thread at
// a time).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace luafxs {

// One row of the job table: a verb a batch job may run.
struct BatchVerb {
  const char* name;
  size_t minArguments;  // after the verb
  const char* usage;
};
const std::vector<BatchVerb>& batchVerbs();

// One job: the arguments after "luafxs" (verb first) and where it came from.
struct BatchJob {
  std::vector<std::string> args;
  std::string origin;  // "list.txt:12" or the folder it was made for
};

// Reads a list file: one job per line, "VERB ARGS..." as on the command line
// (words split at blanks, "double quotes" keep blanks, '#' starts a comment).
// False, with `problem` set, for an unreadable file or an unknown verb.
bool readJobList(const std::string& path, std::vector<BatchJob>& jobs, std::string& problem);

// One unify job per subfolder of `folder` that holds .afxs files (inputs in
// name order), writing `outputFolder`/SUBFOLDER.afxs; with blend every input
// gets its position (1, 2, ...) as its id. With validate, a validate job of
// every .afxs file found instead.
struct FolderJobOptions {
  std::string outputFolder;
  bool blend = false;
  bool validate = false;
};
bool folderJobs(const std::string& folder, const FolderJobOptions& options,
                std::vector<BatchJob>& jobs, std::string& problem);

// How one job ended.
struct BatchResult {
  int exitCode = -1;   // the job's exit code; -1 when it could not start or was killed
  std::string signal;  // the signal that ended it, if any
  std::string out;     // its standard output
  std::string err;     // its standard error
  double seconds = 0;
  bool ok() const { return exitCode == 0; }
};

// Runs the jobs with up to `workers` processes at once (this program run
// again); `done(index, result)` is called as each job ends, in the order
// they end. On Windows the jobs run one after the other.
using BatchDone = void (*)(size_t index, const BatchResult& result, void* context);
std::vector<BatchResult> runJobs(const std::vector<BatchJob>& jobs, unsigned workers,
                                 BatchDone done, void* context);

}  // namespace luafxs
