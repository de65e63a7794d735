// One call that unifies cross-section files into one output file and says
// what it did: the front door that the luafxs tool and the luanaf Python
// module both use, beside the data set's static drivers (which keep their own
// behaviour and log lines).
//
// luAfxsUnifyFiles(inputs, ids, output, options):
// 1. checks the arguments, every input (with the inspection walk: a file the
//    reader could not load is refused before any data set sees it, so no input
//    is ever deleted) and the output (never an input, a directory, a special
//    or read-only file);
// 2. refuses, before anything is written, what would end the driver half-way:
//    with a real output id, a plane number at or beyond the number of slots
//    (the largest plane-subset count of any input); with blending, an input
//    without a real output id, or a plane number that no input covers;
// 3. runs LuAfxsUserDataSet::UnifyMultipleDataSets on a temporary file beside
//    the output, counting every plane written, every plane blended and every
//    position left out (with its reason) as the library does it, and every
//    error report (with its code) that arrives meanwhile;
// 4. puts the temporary in place only when the driver ran to its end, no
//    error report arrived, and the written file checks clean; otherwise the
//    output's old file (or no file) stays and no temporary is left.
//
// The output carries the first input's header as the file holds it (point,
// normal, plane count, plane distance and its version: a file without a
// version line gives version 0), and the first input's cameras.
//
// Positions that could not be blended are left out of the output, as the
// library does, and listed in `skipped`; the output is still written.
//
// Uses the process-wide registry (current id, blending switch) and clears the
// cross-section's registry entry again. One call at a time, as for every part
// of the library. Log records go to the log sink as usual; error reports are
// collected in the summary and then handed to the error sink as usual.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAfxsRecords.h>
#include <luAnaf/luExport.h>

// The output id that lets an input's planes keep their own subset ids.
constexpr uint32_t kLuAfxsKeepSubsetIds = 0xFFFFFFFF;

struct LuAfxsUnifyOptions {
  bool blend = false;                    // blend the first two planes of each position
  uint32_t xsId = 0;                     // the registry's cross-section id
  uint32_t loadMode = LU_AFXS_MASK_ALL;  // field groups read; points (1) required
  // Any problem the inspection finds refuses an input (a damaged input gives
  // a damaged output); false refuses only inputs a load would fail on.
  bool strict = true;
  // Called after each position with (positions done, positions in all).
  std::function<void(uint64_t, uint64_t)> progress;
  // Asked once before the output is put in place; false cancels the call
  // (nothing is written), e.g. for a pending interrupt.
  std::function<bool()> keepGoing;
};

enum class LuAfxsUnifyStatus {
  Written,        // the output is in place
  BadArguments,   // no inputs, ids that do not fit, a load mode without points
  InputRefused,   // an input cannot be opened or would not load (see `problemPath`)
  OutputRefused,  // the output may not be written (see `errnum`)
  NotUnifiable,   // a plane beyond the slots, a plane no input covers with blending
  Incomplete,     // the driver ended early or an error report arrived: nothing written
  OutputDamaged,  // the written file would not check clean: nothing written
  NotCommitted,   // syncing or renaming failed: nothing written
  Cancelled,      // keepGoing said no: nothing written
};

// A position of the walk that produced no plane in the output.
struct LuAfxsUnifySkip {
  uint64_t position = 0;
  int64_t planeId = -1;  // the plane number of the position, -1 when unknown
  std::wstring reason;
};

// An error report (code 0xC41B00nn, line, path) or a driver that ended early
// (code 0, `what` says why).
struct LuAfxsUnifyFailure {
  uint32_t code = 0;
  int line = 0;
  std::wstring path;
  std::wstring what;
};

// Something asked for that cannot or did not happen; never stops the call.
enum class LuAfxsUnifyWarningKind {
  LoadModeWithoutResultPoints,  // blending with a load mode that leaves result points out
  InputWithoutResultPoints,     // blending an input that holds none (`path`)
  LeftOutOfBlendedPlanes,       // an input beyond the first two at blended planes (`path`)
  NothingBlended,               // blending was asked for and no plane was blended
  SeveralSubsetsInOnePlane,     // under one output id only the last subset of a plane is kept
};

struct LuAfxsUnifyWarning {
  LuAfxsUnifyWarningKind kind = LuAfxsUnifyWarningKind::NothingBlended;
  std::wstring path;  // the input concerned, empty for none
  std::wstring text;  // one sentence, starting with the path when there is one
};

// One inspection problem of an input: `refuses` when it refused the input.
struct LuAfxsUnifyInputProblem {
  std::wstring path;
  LuAfxsInspectProblem problem;
  bool refuses = false;
  bool unopened = false;  // the file could not be opened at all
};

struct LuAfxsUnifySummary {
  LuAfxsUnifyStatus status = LuAfxsUnifyStatus::BadArguments;
  std::wstring message;      // why it was not written (empty when written)
  std::wstring problemPath;  // the file the refusal is about
  int errnum = 0;            // errno-style cause of an input/output refusal, 0 for none

  uint64_t planesWritten = 0;  // plane-subset records written to the output
  uint64_t planesBlended = 0;  // positions written as one blended plane
  std::vector<LuAfxsUnifySkip> skipped;
  std::vector<LuAfxsUnifyFailure> failures;
  std::vector<LuAfxsUnifyWarning> warnings;
  std::vector<LuAfxsUnifyInputProblem> inputProblems;
  std::vector<uint32_t> outputIds;  // the ids used, one per input

  bool written() const { return status == LuAfxsUnifyStatus::Written; }
};

// `ids`: one output id per input (kLuAfxsKeepSubsetIds keeps an input's
// subset ids), or empty for the default: when every input holds exactly one
// subset id its planes go out under that id and line up by plane number;
// otherwise every input keeps its subset ids and planes line up by record
// order. Never throws.
LUANAF_API LuAfxsUnifySummary luAfxsUnifyFiles(const std::vector<std::wstring>& inputs,
                                               const std::vector<uint32_t>& ids,
                                               const std::wstring& output,
                                               const LuAfxsUnifyOptions& options);

// "written", "bad arguments", "input refused", ... for a status.
LUANAF_API const char* luAfxsUnifyStatusName(LuAfxsUnifyStatus status);
// A failure as one line: "error 0xC41B0014 (<what> line <n>) on <path>", or
// `what` alone for a driver that ended early (code 0).
LUANAF_API std::wstring luAfxsUnifyFailureText(const LuAfxsUnifyFailure& failure);
// A left-out position as one line: "position <p> (plane <n>) left out: <reason>"
// (without the plane when it is unknown).
LUANAF_API std::wstring luAfxsUnifySkipText(const LuAfxsUnifySkip& skip);
