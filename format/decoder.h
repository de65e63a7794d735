// The one reading of the record layout: record heads, plane records, subset
// heads, field blocks and the walks over the record chain, a subset chain
// and a record's field blocks, with one set of loop and size bounds.
//
// Damage is handed to a reporter with its offset. The reader's reporter
// throws (CommonIOHelp::io_err, turned into the reader's report at its
// boundary); the inspection's records each problem and lets the walk stop.
// A walk returns false once it reported damage.
#pragma once

#include <cstdint>

#include "format/byte_source.h"
#include "format/format.h"
#include "format/visited_offsets.h"

namespace afxs {

enum class Damage {
  ChainLoops,            // the record chain comes back to `value`
  RecordOutsideFile,     // a record head at `value` does not fit in the file
  PlaneIdOutsideFile,    // a plane record's number lies past the end of the file
  SubsetLoops,           // a subset chain comes back to `value` (this chain's or another's)
  TooManySubsets,        // subset chains lead to more records than the file could hold
  SubsetOutsideFile,     // a plane-subset record's head at `value` does not fit
  SubsetWrongKind,       // a subset chain leads to a record of kind `count` at `value`
  FieldListOutsideFile,  // no identifier word at `offset`: the list has no end mark
  EndMarkOutsideFile,    // the end mark's kind word lies past the end of the file
  WrongEndMark,          // 0xFFFFFFFF is followed by `count`, not the record's kind
  CountOutsideFile,      // block `id` has no byte count inside the file (or u32 offsets)
  Overlap,               // record bodies overlap too much to be walked
  ResultsLinkCount,      // the results link's byte count `count` is not 4
  ResultsLinkOutsideFile,
  ZeroCount,             // block `id` has a byte count of 0
  NegativeCount,         // block `id`'s byte count is negative as a signed value
  NotWholeElements,      // block `id`'s byte count is not whole elements
  DataOutsideFile,       // block `id`'s data runs past the end of the file
  PlaneLinkOutsideFile,  // a plane record's first-subset link lies past the end of the file
  PlaneOutsideFile,      // a plane record's end mark lies past the end of the file
  PlaneWrongEndMark,     // a plane record's end mark is `count` at `offset`, not 0xFFFFFFFF
};

struct DamageReport {
  Damage what;
  uint64_t offset = 0;  // the byte the damage is about
  uint32_t id = 0;      // the field identifier, for block damage
  uint32_t count = 0;   // the byte count (or kind) read
  uint64_t value = 0;   // an offset the damage leads to
};

class DamageReporter {
public:
  virtual ~DamageReporter() = default;
  // May throw; when it returns, the walk stops and returns false.
  virtual void damage(const DamageReport& report) = 0;
};

// The reader's reporter: any damage is a failed read.
class FailOnDamage final : public DamageReporter {
public:
  void damage(const DamageReport& report) override;
};

// ---- Records --------------------------------------------------------------

struct RecordHead {
  uint32_t offset = 0;
  uint32_t kind = 0;
  uint32_t next = 0;
  uint32_t planeId = 0;  // kind 1 only
};

// Visits every record of the chain from `first` in chain order. A record
// whose head lies outside the file, a plane record without its number, and
// a chain that comes back to a record already visited are damage.
template <typename OnRecord>
bool walkRecordChain(ByteSource& source, uint32_t first, DamageReporter& reporter,
                     OnRecord&& onRecord);

// A plane record: head, number, first-subset link, end mark.
struct PlaneRecord {
  uint32_t planeId = 0;
  uint32_t firstSubset = 0;
};
// Reads the plane record at `offset` up to its end mark, which must be
// 0xFFFFFFFF followed by kind 1.
bool readPlaneRecord(ByteSource& source, uint32_t offset, DamageReporter& reporter,
                     PlaneRecord& out);

struct SubsetHead {
  uint32_t offset = 0;
  uint32_t kind = 0;
  uint32_t next = 0;  // the record chain's next field
  uint32_t subsetId = 0;
  uint32_t nextSubset = 0;
};

// Reads the head of the plane-subset record at `offset` in one read: kind,
// the record chain's next field, subset id and the next subset's offset.
// False when it does not fit in the file.
inline bool readSubsetHead(ByteSource& source, uint32_t offset, SubsetHead& out) {
  uint32_t head[4];
  if (!source.readExactly(offset, head, sizeof head)) return false;
  out = SubsetHead{offset, head[0], head[1], head[2], head[3]};
  return true;
}

// Bounds shared by every subset chain of one file, walked in plane order:
// a record is visited once (a second visit is a loop, or a record shared by
// two planes), and no more records than the file could hold.
class SubsetChainBounds {
public:
  explicit SubsetChainBounds(uint64_t fileSize) : m_recordsLeft(fileSize / kMinSubsetRecord) {}
  VisitedOffsets visited;
  bool takeRecord() {
    if (m_recordsLeft == 0) return false;
    --m_recordsLeft;
    return true;
  }

private:
  uint64_t m_recordsLeft;
};

// Reads the first-subset link of a plane record from its field at `field`.
bool readPlaneFirstSubset(ByteSource& source, uint64_t field, DamageReporter& reporter,
                          uint32_t& first);

// Visits the plane-subset records of one subset chain from `first`; each
// must be of kind 2 with its head inside the file.
template <typename OnSubset>
bool walkSubsetChain(ByteSource& source, uint32_t first, SubsetChainBounds& bounds,
                     DamageReporter& reporter, OnSubset&& onSubset);

// ---- Field blocks ---------------------------------------------------------

// Bytes of record bodies one reading walks: a small multiple of the file, so
// that records overlapping each other cannot make a walk quadratic.
class BodyBudget {
public:
  explicit BodyBudget(uint64_t fileSize) : m_left(4 * fileSize + 1024), m_fileSize(fileSize) {}
  // Charges one block of `count` bytes; false once the budget is spent.
  bool charge(uint32_t count) {
    const uint64_t bytes = kFieldHeaderSize + (count < m_fileSize ? count : m_fileSize);
    if (bytes > m_left) return false;
    m_left -= bytes;
    return true;
  }

private:
  uint64_t m_left;
  uint64_t m_fileSize;
};

// What a reading does with one block.
enum class BlockUse { ResultsLink, Read, StepOver };

// A load of `mask` from a plane-subset or results record reads the fields
// whose mask bit is in mask and the results link, and steps over the rest
// (identifier 3 and identifiers the table lacks among them). The cameras
// reading reads field 0 only.
BlockUse blockUse(uint32_t recordKind, uint32_t id, uint32_t mask);

// Checks a block's byte count (the word at `countAt`) for its use; damage
// goes to the reporter. Read blocks need a count that is not 0, whole
// elements and inside the file; stepped-over ones a count above 0 as a
// signed value (the cameras reading: not 0) inside the file; the results
// link a count of 4.
bool checkBlockCount(uint32_t recordKind, BlockUse use, uint32_t id, uint32_t count,
                     uint64_t countAt, uint64_t fileSize, DamageReporter& reporter);

// Checks the word behind an end mark against the record's kind.
bool checkEndMark(uint64_t at, uint32_t kindWord, uint32_t recordKind, DamageReporter& reporter);

struct FieldBlock {
  uint32_t id = 0;
  uint64_t offset = 0;  // of the identifier word
  uint32_t count = 0;
  BlockUse use = BlockUse::StepOver;
  uint32_t link = 0;  // the results link's data
};

// Walks the field blocks of a record of `recordKind` from `at` up to and
// including its end mark, as a load of `mask` does, handing each block to
// onBlock. `end` is set behind the end mark on success.
template <typename OnBlock>
bool walkFieldBlocks(ByteSource& source, uint64_t at, uint32_t recordKind, uint32_t mask,
                     uint64_t fileSize, BodyBudget& budget, DamageReporter& reporter, uint64_t& end,
                     OnBlock&& onBlock);

// ---- Walks ------------------------------------------------------------------

inline bool damaged(DamageReporter& reporter, DamageReport report) {
  reporter.damage(report);
  return false;
}

template <typename OnRecord>
bool walkRecordChain(ByteSource& source, uint32_t first, DamageReporter& reporter,
                     OnRecord&& onRecord) {
  VisitedOffsets visited;
  uint64_t from = 0;  // where the link to `offset` was read
  for (uint32_t offset = first; offset != 0;) {
    if (!visited.firstVisit(offset))
      return damaged(reporter, {Damage::ChainLoops, from, 0, 0, offset});
    uint32_t head[2];
    if (!source.readExactly(offset, head, sizeof head))
      return damaged(reporter, {Damage::RecordOutsideFile, from, 0, 0, offset});
    RecordHead record{offset, head[0], head[1], 0};
    if (record.kind == LU_AFXS_REC_PLANE &&
        !source.u32At(uint64_t{offset} + kPlaneIdOffset, record.planeId))
      return damaged(reporter, {Damage::PlaneIdOutsideFile, offset, 0, 0, offset});
    onRecord(record);
    from = uint64_t{offset} + kNextFieldOffset;
    offset = record.next;
  }
  return true;
}

template <typename OnSubset>
bool walkSubsetChain(ByteSource& source, uint32_t first, SubsetChainBounds& bounds,
                     DamageReporter& reporter, OnSubset&& onSubset) {
  uint64_t from = 0;  // where the link to `offset` was read (0: the plane's, told by the caller)
  for (uint32_t offset = first; offset != 0;) {
    if (!bounds.visited.firstVisit(offset))
      return damaged(reporter, {Damage::SubsetLoops, from, 0, 0, offset});
    if (!bounds.takeRecord())
      return damaged(reporter, {Damage::TooManySubsets, from, 0, 0, offset});
    SubsetHead head;
    if (!readSubsetHead(source, offset, head))
      return damaged(reporter, {Damage::SubsetOutsideFile, from, 0, 0, offset});
    if (head.kind != LU_AFXS_REC_PLANE_SUBSET)
      return damaged(reporter, {Damage::SubsetWrongKind, from, 0, head.kind, offset});
    if (!onSubset(head)) return false;
    from = uint64_t{offset} + kSubsetNextSubsetOffset;
    offset = head.nextSubset;
  }
  return true;
}

template <typename OnBlock>
bool walkFieldBlocks(ByteSource& source, uint64_t at, uint32_t recordKind, uint32_t mask,
                     uint64_t fileSize, BodyBudget& budget, DamageReporter& reporter, uint64_t& end,
                     OnBlock&& onBlock) {
  for (uint64_t pos = at;;) {
    uint32_t words[2] = {0, 0};
    const size_t got = source.readAt(pos, words, sizeof words);
    if (got < sizeof(uint32_t)) return damaged(reporter, {Damage::FieldListOutsideFile, pos});
    const uint32_t id = words[0];
    if (id == kEndMark) {
      if (got < sizeof words) return damaged(reporter, {Damage::EndMarkOutsideFile, pos});
      if (!checkEndMark(pos + kFieldCountOffset, words[1], recordKind, reporter)) return false;
      end = pos + kEndMarkSize;
      return true;
    }
    const uint64_t countAt = pos + kFieldCountOffset;
    if (got < sizeof words || countAt > kMaxFileOffset)
      return damaged(reporter, {Damage::CountOutsideFile, pos, id});
    const uint32_t count = words[1];
    if (!budget.charge(count)) return damaged(reporter, {Damage::Overlap, pos, id, count});
    FieldBlock block{id, pos, count, blockUse(recordKind, id, mask), 0};
    if (!checkBlockCount(recordKind, block.use, id, count, countAt, fileSize, reporter))
      return false;
    if (block.use == BlockUse::ResultsLink && !source.u32At(pos + kFieldDataOffset, block.link))
      return damaged(reporter, {Damage::ResultsLinkOutsideFile, pos + kFieldDataOffset, id});
    onBlock(block);
    pos += kFieldDataOffset + uint64_t{count};
  }
}

}  // namespace afxs
