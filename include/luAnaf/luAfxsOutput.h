// Files a front-end creates (the luafxs tool, the luanaf Python module): an
// output is checked before anything is written, written beside its final
// name and renamed into place only whole. Front-ends use it for every file
// they create; the library's own create link keeps its behaviour underneath.
#pragma once

#include <string>
#include <vector>

#include <luAnaf/luExport.h>

// Why an output path may not be written. `errnum` is the errno value that best names the
// cause (EISDIR directory, EACCES read-only, EEXIST/EINVAL same file as an input or special
// file, ENOENT missing directory, ...), so bindings can map it to their own exceptions;
// `reason` is one short English phrase ("is a directory", "is an input of this command",
// "is read-only", "is not a regular file", "its directory does not exist").
struct LuAfxsOutputProblem {
  int errnum = 0;
  std::wstring reason;
};

// Checks `output` before anything is written: refuses an existing directory, FIFO, device
// or other non-regular file, a read-only file (owner-write bit clear, whoever runs), a path
// whose directory is missing, and any path that is one of `inputs` as a file (same device
// and inode / file index, so through symlinks and hard links too). Returns true when the
// output may be written; otherwise fills `problem` and returns false.
LUANAF_API bool luAfxsCheckOutput(const std::wstring& output,
                                  const std::vector<std::wstring>& inputs,
                                  LuAfxsOutputProblem& problem);

// The path a symlink finally names (the path itself when it is no symlink or does not exist),
// so that rewriting "through" a link changes its target and keeps the link.
// (On Windows the path is returned as given.)
LUANAF_API std::wstring luAfxsResolveOutput(const std::wstring& output);

// A file that appears whole at its final path or not at all. The front-end writes to
// tempPath() (a new, unique name in the same directory, e.g. ".NAME.XXXXXX.tmp"), then
// commit() flushes it to disk (fsync), renames it over the final path, and syncs the
// directory. A LuAfxsOutputFile destroyed without a successful commit removes its temporary.
// Every live temporary is also listed process-wide so that luAfxsRemovePendingOutputs() can
// remove them from a signal handler (async-signal-safe: unlink only, on precomputed narrow
// paths), before the handler re-raises the signal.
//
// The final path is the one given, resolved with luAfxsResolveOutput (a rewrite through a
// symlink replaces its target). A file replaced at the final path keeps its permission bits
// (and, where the process may, its owner); a hard link to the old file keeps the old bytes.
class LUANAF_API LuAfxsOutputFile {
public:
  explicit LuAfxsOutputFile(const std::wstring& finalPath);
  ~LuAfxsOutputFile();
  LuAfxsOutputFile(const LuAfxsOutputFile&) = delete;
  LuAfxsOutputFile& operator=(const LuAfxsOutputFile&) = delete;
  const std::wstring& finalPath() const;
  const std::wstring& tempPath() const;
  // false with `problem` filled when syncing or renaming failed; the temporary is then removed
  // and the final path is left as it was.
  bool commit(LuAfxsOutputProblem& problem);

  // Added beside the agreed members:
  // True when the temporary was created (an empty file at tempPath()); otherwise
  // creationProblem() says why, and commit() fails with it.
  bool ok() const;
  const LuAfxsOutputProblem& creationProblem() const;
  // Another path that is removed with the temporary (by the destructor without a commit, and
  // by luAfxsRemovePendingOutputs), e.g. the "%s.tmp" a library rewrite of tempPath() makes.
  // Up to four per file.
  void addCompanion(const std::wstring& path);
  // True after a successful commit.
  bool committed() const;

private:
  struct Impl;
  Impl* m_impl;
};

// Removes every live temporary (and companion) of every LuAfxsOutputFile of the process.
// Async-signal-safe: for a SIGINT/SIGTERM/SIGHUP handler that then re-raises the signal.
LUANAF_API void luAfxsRemovePendingOutputs();
