// The checks and choices made before a unification runs, and the notes made
// after it: what luAfxsUnifyFiles refuses, which output ids it uses, which
// blending cannot happen. Internal to the library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAfxsUnify.h>

namespace luunify {

// The index-only facts of one input the checks need.
struct InputFacts {
  std::wstring path;
  LuAfxsInspection inspection;
};

// Refuses (false, with status and message set) no inputs, an id list of
// another length, a load mode that is not a field mask with points in it.
// Marks the summary refused: its status, the path at fault, why, and the
// system's error number where one applies.
void refuse(LuAfxsUnifySummary& summary, LuAfxsUnifyStatus status, const std::wstring& path,
            const std::wstring& message, int errnum = 0);

bool argumentsFit(const std::vector<std::wstring>& inputs, const std::vector<uint32_t>& ids,
                  const LuAfxsUnifyOptions& options, LuAfxsUnifySummary& summary);

// Inspects every input (deeply) and lists its problems in the summary; false
// (InputRefused) when one cannot be opened or would not load, or, with
// strict, has any problem. Every input is inspected before the answer.
bool inputsLoadable(const std::vector<std::wstring>& inputs, bool strict,
                    std::vector<InputFacts>& facts, LuAfxsUnifySummary& summary);

// The given ids, or the default ones (see luAfxsUnifyFiles).
std::vector<uint32_t> chooseIds(const std::vector<InputFacts>& facts,
                                const std::vector<uint32_t>& ids);

// False (NotUnifiable or BadArguments) for what would end the driver
// half-way: a plane number beyond the slots under a real id; with blending,
// an input without a real id or a position no input covers. Also warns of
// a plane that holds several subsets of one input under a real id.
bool planesFit(const std::vector<InputFacts>& facts, const std::vector<uint32_t>& ids, bool blend,
               LuAfxsUnifySummary& summary);

// Warnings about blending that cannot happen, before anything runs.
void warnBeforeBlending(const std::vector<InputFacts>& facts, uint32_t loadMode,
                        LuAfxsUnifySummary& summary);

// Warnings after a run with blending: inputs beyond the first two at a
// blended plane, and no plane blended at all.
void warnAfterBlending(const std::vector<InputFacts>& facts,
                       const std::vector<uint32_t>& blendedPlanes, LuAfxsUnifySummary& summary);

}  // namespace luunify
