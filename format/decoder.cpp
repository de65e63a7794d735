#include "format/decoder.h"

#include "format/io_error.h"

namespace afxs {

void FailOnDamage::damage(const DamageReport&) { fail(); }

bool readPlaneFirstSubset(ByteSource& source, uint64_t field, DamageReporter& reporter,
                          uint32_t& first) {
  if (source.u32At(field, first)) return true;
  return damaged(reporter, {Damage::PlaneLinkOutsideFile, field, 0, 0, field});
}

bool readPlaneRecord(ByteSource& source, uint32_t offset, DamageReporter& reporter,
                     PlaneRecord& out) {
  // Number, first-subset link and the end mark's two words.
  uint32_t words[4];
  const uint64_t at = uint64_t{offset} + kPlaneIdOffset;
  if (!source.readExactly(at, words, sizeof words))
    return damaged(reporter, {Damage::PlaneOutsideFile, offset, 0, 0, offset});
  out.planeId = words[0];
  out.firstSubset = words[1];
  const uint64_t endMark = uint64_t{offset} + kPlaneEndMarkOffset;
  if (words[2] != kEndMark)
    return damaged(reporter, {Damage::PlaneWrongEndMark, endMark, 0, words[2], offset});
  return checkEndMark(endMark + kFieldCountOffset, words[3], LU_AFXS_REC_PLANE, reporter);
}

BlockUse blockUse(uint32_t recordKind, uint32_t id, uint32_t mask) {
  if (recordKind == LU_AFXS_REC_CAMERAS)
    return id == kFieldCameras ? BlockUse::Read : BlockUse::StepOver;
  if (id == kFieldResultsLink) return BlockUse::ResultsLink;
  // 0 for identifiers the table lacks, so they are stepped over.
  return (fieldMaskBit(id) & mask) != 0 ? BlockUse::Read : BlockUse::StepOver;
}

bool checkBlockCount(uint32_t recordKind, BlockUse use, uint32_t id, uint32_t count,
                     uint64_t countAt, uint64_t fileSize, DamageReporter& reporter) {
  const uint64_t dataAt = countAt + sizeof(uint32_t);
  const bool inFile = dataAt <= fileSize && count <= fileSize - dataAt;
  if (use == BlockUse::ResultsLink) {
    if (count != kResultsLinkDataSize)
      return damaged(reporter, {Damage::ResultsLinkCount, countAt, id, count});
    return true;
  }
  // Intended: a block with a byte count of 0 is damage, whether it is read
  // or stepped over.
  if (count == 0) return damaged(reporter, {Damage::ZeroCount, countAt, id, count});
  const bool cameras = recordKind == LU_AFXS_REC_CAMERAS;
  if (use == BlockUse::StepOver && !cameras && static_cast<int32_t>(count) < 0)
    return damaged(reporter, {Damage::NegativeCount, countAt, id, count});
  if (!inFile) return damaged(reporter, {Damage::DataOutsideFile, countAt, id, count});
  // A count that is not whole elements would not fit the array it is read into.
  const size_t element = cameras ? kPointSize : fieldElementSize(id);
  if (use == BlockUse::Read && count % element != 0)
    return damaged(reporter, {Damage::NotWholeElements, countAt, id, count});
  return true;
}

bool checkEndMark(uint64_t at, uint32_t kindWord, uint32_t recordKind, DamageReporter& reporter) {
  if (kindWord == recordKind) return true;
  return damaged(reporter, {Damage::WrongEndMark, at, 0, kindWord});
}

}  // namespace afxs
