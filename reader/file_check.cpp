// The read-only look at a file behind luAfxsInspect. The header, the record
// chain, the subset chains and the field blocks are read by the decoder the
// reader uses (format/decoder.h), with a reporter that records each damage
// as a problem at its offset: what breaks a data-set load is exactly what
// the reader refuses. What stays here is policy (which findings are worth a
// word although a reader copes with them) and consistency across records
// and fields (vector lengths, segment tiling, the STATE line).
#include <luAnaf/luAfxsFileCheck.h>

#include <luAnaf/luEnv.h>

#include <algorithm>
#include <cinttypes>
#include <filesystem>
#include <istream>
#include <iterator>
#include <map>

#include "format/byte_source.h"
#include "format/decoder.h"
#include "format/format.h"
#include "format/header_words.h"
#include "platform/lu_io.h"

bool LuAfxsInspection::loadable() const {
  if (!opened) return false;
  return std::none_of(problems.begin(), problems.end(),
                      [](const LuAfxsInspectProblem& p) { return p.breaksLoad; });
}

const char* luAfxsRecordKindName(uint32_t kind) {
  switch (kind) {
    case LU_AFXS_REC_CAMERAS:
      return "cameras";
    case LU_AFXS_REC_PLANE:
      return "plane";
    case LU_AFXS_REC_PLANE_SUBSET:
      return "plane subset";
    case LU_AFXS_REC_RESULTS:
      return "results";
    default:
      return "unknown";
  }
}

const char* luAfxsFieldName(uint32_t id) {
  switch (id) {
    case afxs::kFieldPoints:
      return "points";
    case afxs::kFieldNormals:
      return "normals";
    case afxs::kFieldSegments:
      return "segments";
    case afxs::kFieldAuxFirst:
      return "auxCtrlFirst";
    case afxs::kFieldResultsLink:
      return "results link";
    case afxs::kFieldResPoints:
      return "resPoints";
    case afxs::kFieldDistances:
      return "distances";
    case afxs::kFieldAuxPos:
      return "auxCtrlPos";
    case afxs::kFieldAuxOffsets:
      return "auxCtrlOffsets";
    case afxs::kFieldAuxCounts:
      return "auxCtrlCounts";
    case afxs::kFieldEnd:
      return "end";
    default:
      return "unknown";
  }
}

namespace {

using afxs::Damage;
using afxs::DamageReport;

std::string hex(uint64_t value) { return LuStrFrmt::format("0x%" PRIX64, value); }

constexpr size_t kMaxHeaderLines = 1024;

// The inspection's reporter: keeps what the decoder found, for the walk to
// word with what it knows of the place.
class Findings final : public afxs::DamageReporter {
public:
  void damage(const DamageReport& report) override { reports.push_back(report); }
  std::vector<DamageReport> reports;
};

struct Walk;

// Lists the header's words as the parse meets them.
class HeaderLines final : public afxs::HeaderObserver {
public:
  explicit HeaderLines(Walk& walk) : m_walk(walk) {}
  void word(uint64_t offset, int lineId, const std::string& keyword,
            const afxs::HeaderValues& values) override;
  void badValue(uint64_t offset, const std::string& keyword) override;
  void headerEnd(uint64_t end) override;

private:
  Walk& m_walk;
};

struct Walk {
  Walk(afxs::FileSource& source, LuAfxsInspection& inspection, bool deepCheck)
      : file(source), out(inspection), deep(deepCheck) {}

  afxs::FileSource& file;
  LuAfxsInspection& out;
  bool deep;
  // Bodies read by a data-set load are walked within the load's budget,
  // as the reader walks them; all other bodies within one of their own.
  afxs::BodyBudget loadBudget{file.size()};
  afxs::BodyBudget otherBudget{file.size()};
  // The record chain was walked to its end; without that, records outside
  // it and the STATE line are not judged (the damage is already named).
  bool chainComplete = false;
  std::map<uint32_t, size_t> byOffset;  // record offset -> index in out.records
  std::vector<bool> walked;             // the body of out.records[i] was walked

  void problem(uint64_t offset, bool breaksLoad, std::string message) {
    out.problems.push_back({offset, breaksLoad, std::move(message)});
  }
  std::string sizeText() const { return LuStrFrmt::format("%" PRIu64 " bytes", file.size()); }
  std::string describe(const DamageReport& r, uint32_t recordKind) const;
  std::string describeChain(const DamageReport& r, uint32_t planeId) const;

  void header();
  void chain();
  bool blocks(uint64_t at, uint32_t kind, afxs::BodyBudget& budget, bool breaksLoad,
              const std::string& where, std::vector<LuAfxsInspectField>& fields, uint32_t& mask,
              uint32_t& end, uint32_t* resultsLink);
  bool body(size_t index, afxs::BodyBudget& budget, bool breaksLoad);
  void planes();
  bool subsetChain(uint32_t planeId, LuAfxsInspectPlane& plane, afxs::SubsetChainBounds& bounds);
  size_t subsetRecord(const afxs::SubsetHead& head, uint32_t planeId);
  void otherBodies();
  bool results(LuAfxsInspectRecord& record);
  void lengths(const LuAfxsInspectRecord& record);
  void tiling(const LuAfxsInspectRecord& record);
  void counts();
};

// ---- Words for what the decoder found ------------------------------------------

std::string Walk::describe(const DamageReport& r, uint32_t recordKind) const {
  const char* name = luAfxsFieldName(r.id);
  const bool cameras = recordKind == LU_AFXS_REC_CAMERAS;
  switch (r.what) {
    case Damage::FieldListOutsideFile:
      return LuStrFrmt::format("field list runs past the end of the file (%s) without an end mark",
                               sizeText().c_str());
    case Damage::EndMarkOutsideFile:
      return LuStrFrmt::format("end mark runs past the end of the file (%s)", sizeText().c_str());
    case Damage::WrongEndMark:
      return LuStrFrmt::format(
          "wrong end mark: 0xFFFFFFFF is followed by %u, expected %u (the kind of "
          "the record)",
          r.count, recordKind);
    case Damage::CountOutsideFile:
      return LuStrFrmt::format("field %u (%s): byte count runs past the end of the file (%s)", r.id,
                               name, sizeText().c_str());
    case Damage::Overlap:
      return "records overlap too much to be checked";
    case Damage::ResultsLinkCount:
      return LuStrFrmt::format("results link: byte count %u, it must be 4", r.count);
    case Damage::ResultsLinkOutsideFile:
      return LuStrFrmt::format("results link runs past the end of the file (%s)",
                               sizeText().c_str());
    case Damage::ZeroCount:
      if (cameras) return "cameras: a zero byte count; a reader then reads no cameras";
      return LuStrFrmt::format(
          "field %u (%s) has a zero byte count; a reader treats an empty field as "
          "damage",
          r.id, name);
    case Damage::NegativeCount:
      return LuStrFrmt::format("field %u (%s): byte count %u is negative as a signed value", r.id,
                               name, r.count);
    case Damage::NotWholeElements:
      if (cameras)
        return LuStrFrmt::format("cameras: byte count %u is not a multiple of 24", r.count);
      return LuStrFrmt::format(
          "field %u (%s): byte count %u is not a multiple of its element size %zu", r.id, name,
          r.count, afxs::fieldElementSize(r.id));
    case Damage::DataOutsideFile:
      if (cameras)
        return LuStrFrmt::format("cameras: byte count %u runs past the end of the file (%s)",
                                 r.count, sizeText().c_str());
      return LuStrFrmt::format("field %u (%s): byte count %u runs past the end of the file (%s)",
                               r.id, name, r.count, sizeText().c_str());
    case Damage::PlaneOutsideFile:
      return LuStrFrmt::format("plane record runs past the end of the file (%s)",
                               sizeText().c_str());
    case Damage::PlaneWrongEndMark:
      return LuStrFrmt::format("plane record: wrong end mark 0x%.8X, expected 0xFFFFFFFF", r.count);
    default:
      return describeChain(r, 0);
  }
}

std::string Walk::describeChain(const DamageReport& r, uint32_t planeId) const {
  switch (r.what) {
    case Damage::ChainLoops:
      return LuStrFrmt::format("record chain loops back to the record at %s", hex(r.value).c_str());
    case Damage::RecordOutsideFile:
      return LuStrFrmt::format(
          "record chain leaves the file: a record at %s does not fit in the file (%s)",
          hex(r.value).c_str(), sizeText().c_str());
    case Damage::PlaneIdOutsideFile:
      return LuStrFrmt::format("plane record at %s runs past the end of the file (%s)",
                               hex(r.value).c_str(), sizeText().c_str());
    case Damage::PlaneLinkOutsideFile:
      return LuStrFrmt::format("plane %u: its record runs past the end of the file (%s)", planeId,
                               sizeText().c_str());
    case Damage::SubsetLoops: {
      auto it = byOffset.find(static_cast<uint32_t>(r.value));
      const int64_t owner = it == byOffset.end() ? -1 : out.records[it->second].plane;
      if (owner >= 0 && owner != planeId)
        return LuStrFrmt::format("plane-subset record at %s is reached from planes %u and %u",
                                 hex(r.value).c_str(), static_cast<uint32_t>(owner), planeId);
      return LuStrFrmt::format("subset chain of plane %u loops back to the record at %s", planeId,
                               hex(r.value).c_str());
    }
    case Damage::TooManySubsets:
      return LuStrFrmt::format(
          "subset chain of plane %u leads to more records than the file could hold", planeId);
    case Damage::SubsetOutsideFile:
      return LuStrFrmt::format("subset chain of plane %u leaves the file: %s is past its end (%s)",
                               planeId, hex(r.value).c_str(), sizeText().c_str());
    case Damage::SubsetWrongKind:
      return LuStrFrmt::format("subset chain of plane %u leads to a %s record (kind %u) at %s",
                               planeId, luAfxsRecordKindName(r.count), r.count,
                               hex(r.value).c_str());
    default:
      return describe(r, LU_AFXS_REC_PLANE_SUBSET);
  }
}

// ---- Header ------------------------------------------------------------------

void HeaderLines::word(uint64_t offset, int lineId, const std::string& keyword,
                       const afxs::HeaderValues& v) {
  LuAfxsInspection& out = m_walk.out;
  LuAfxsInspectHeaderLine line;
  line.offset = offset;
  line.keyword = keyword;
  line.known = lineId >= 0;
  switch (lineId) {
    case afxs::kLineVersion:
      out.version = v.version;
      out.hasVersion = true;
      line.values = LuStrFrmt::format("%d", v.version);
      break;
    case afxs::kLineFirstRecord:
      out.firstRecord = v.firstRecord;
      line.values = LuStrFrmt::format("0x%.8X", static_cast<uint32_t>(v.firstRecord));
      break;
    case afxs::kLinePoint:
    case afxs::kLineNormal: {
      const double* p = lineId == afxs::kLinePoint ? v.header.point : v.header.normal;
      line.values = LuStrFrmt::format("%f %f %f", p[0], p[1], p[2]);
      break;
    }
    case afxs::kLineNumPlanes:
      line.values = LuStrFrmt::format("%" PRIu64, static_cast<uint64_t>(v.header.numPlanes));
      break;
    case afxs::kLineDistBwPlanes:
      line.values = LuStrFrmt::format("%f", v.header.distBwPlanes);
      break;
    case afxs::kLineState:
      out.state = v.state;
      line.values = LuStrFrmt::format("0x%.8X", v.state);
      break;
    default:
      break;
  }
  // Only the first words are listed: a header of millions of words must not
  // cost memory beyond a small multiple of its own size.
  if (lineId == afxs::kLineHeaderEnd || out.headerLines.size() < kMaxHeaderLines)
    out.headerLines.push_back(line);
}

void HeaderLines::badValue(uint64_t offset, const std::string& keyword) {
  m_walk.problem(offset, true, "header: the value of " + keyword + " cannot be read");
}

void HeaderLines::headerEnd(uint64_t end) {
  m_walk.out.headerEndSeen = true;
  m_walk.out.headerSize = end;
}

void Walk::header() {
  afxs::HeaderStreamBuf buf(file);
  std::istream in(&buf);
  afxs::HeaderValues values;
  HeaderLines lines(*this);
  const afxs::HeaderOutcome outcome = afxs::parseHeader(in, values, &lines);
  if (outcome == afxs::HeaderOutcome::BadIdentifier) {
    problem(0, true,
            LuStrFrmt::format("bad identifier line: the file must begin with the word \"%s\"",
                              afxs::kFileIdentifier));
    return;
  }
  out.identifierOk = true;
  if (outcome != afxs::HeaderOutcome::Parsed) return;
  const int32_t version = out.version;
  out.header = values.header;
  out.header.version = version;
  if (!out.headerEndSeen) out.headerSize = file.size();
  out.headerParsed = true;
}

// ---- Record chain --------------------------------------------------------------

void Walk::chain() {
  if (out.firstRecord == 0) {
    problem(0, true,
            "FIRST_RECORD is 0: the file holds no records, and a reader cannot open a file "
            "without records");
    return;
  }
  afxs::WindowSource window(file);
  Findings found;
  chainComplete = afxs::walkRecordChain(
      window, static_cast<uint32_t>(out.firstRecord), found, [&](const afxs::RecordHead& head) {
        LuAfxsInspectRecord record;
        record.offset = head.offset;
        record.kind = head.kind;
        record.next = head.next;
        record.planeId = head.planeId;
        if (record.kind > LU_AFXS_REC_RESULTS)
          problem(head.offset, false,
                  LuStrFrmt::format("record at %s has the unknown kind %u; a reader steps over it",
                                    hex(head.offset).c_str(), record.kind));
        byOffset.emplace(head.offset, out.records.size());
        out.records.push_back(record);
      });
  for (const DamageReport& r : found.reports) problem(r.offset, true, describeChain(r, 0));
  walked.assign(out.records.size(), false);
}

// ---- Bodies ----------------------------------------------------------------------

// Walks the field blocks of one record from `at` up to and including its end
// mark with the decoder; damage becomes a problem (breaking a load when the
// load reads this body), and so do findings a reader copes with.
bool Walk::blocks(uint64_t at, uint32_t kind, afxs::BodyBudget& budget, bool breaksLoad,
                  const std::string& where, std::vector<LuAfxsInspectField>& fields, uint32_t& mask,
                  uint32_t& end, uint32_t* resultsLink) {
  Findings found;
  uint64_t behind = 0;
  const bool ok = afxs::walkFieldBlocks(
      file, at, kind, LU_AFXS_MASK_ALL, file.size(), budget, found, behind,
      [&](const afxs::FieldBlock& b) {
        fields.push_back({b.id, static_cast<uint32_t>(b.offset), b.count});
        mask |= kind == LU_AFXS_REC_CAMERAS ? 0 : afxs::fieldMaskBit(b.id);
        if (kind == LU_AFXS_REC_CAMERAS) {
          if (b.id != afxs::kFieldCameras)
            problem(b.offset, false,
                    where + LuStrFrmt::format("cameras record holds field %u; only field 0 is read",
                                              b.id));
        } else if (b.use == afxs::BlockUse::ResultsLink) {
          if (resultsLink != nullptr) {
            *resultsLink = b.link;
          } else if (b.link != 0) {
            problem(b.offset, false,
                    where + "results record holds a results link; it is not followed");
          }
        } else if (afxs::fieldElementSize(b.id) == 0) {
          problem(b.offset, false,
                  where + LuStrFrmt::format("unknown field identifier %u; a reader steps over it",
                                            b.id));
        }
      });
  for (const DamageReport& r : found.reports)
    problem(r.offset, breaksLoad, where + describe(r, kind));
  if (ok) end = static_cast<uint32_t>(behind);
  return ok;
}

std::string recordPlace(const LuAfxsInspectRecord& r) {
  return LuStrFrmt::format("%s record at %s: ", luAfxsRecordKindName(r.kind),
                           hex(r.offset).c_str());
}

// The body of out.records[index], once.
bool Walk::body(size_t index, afxs::BodyBudget& budget, bool breaksLoad) {
  if (walked[index]) return out.records[index].end != 0;
  walked[index] = true;
  LuAfxsInspectRecord& record = out.records[index];
  const uint64_t at = record.offset;
  const std::string where = recordPlace(record);
  switch (record.kind) {
    case LU_AFXS_REC_CAMERAS:
      return blocks(at + afxs::kCamerasBodyOffset, record.kind, budget, false, where, record.fields,
                    record.mask, record.end, nullptr);
    case LU_AFXS_REC_PLANE: {
      Findings found;
      afxs::PlaneRecord plane;
      const bool ok = afxs::readPlaneRecord(file, record.offset, found, plane);
      record.firstSubset = plane.firstSubset;
      for (const DamageReport& r : found.reports)
        problem(r.offset, false, where + describe(r, record.kind));
      if (ok) record.end = static_cast<uint32_t>(at + afxs::kPlaneRecordSize);
      return ok;
    }
    case LU_AFXS_REC_PLANE_SUBSET:
      return blocks(at + afxs::kSubsetFirstFieldOffset, record.kind, budget, breaksLoad, where,
                    record.fields, record.mask, record.end, &record.resultsLink);
    case LU_AFXS_REC_RESULTS:
      return blocks(at + afxs::kResultsBodyOffset, record.kind, budget, false, where, record.fields,
                    record.mask, record.end, nullptr);
    default:
      return true;
  }
}

// ---- Subset chains, as a data-set load walks them --------------------------------

void Walk::planes() {
  // Plane index: the first plane record of each number wins, as in the reader.
  std::map<uint32_t, size_t> planeIndex;
  for (size_t i = 0; i < out.records.size(); ++i) {
    const LuAfxsInspectRecord& r = out.records[i];
    if (r.kind != LU_AFXS_REC_PLANE) continue;
    auto [it, fresh] = planeIndex.emplace(r.planeId, i);
    if (!fresh)
      problem(
          r.offset, false,
          LuStrFrmt::format("second plane record for plane %u; a reader uses the first one, at %s",
                            r.planeId, hex(out.records[it->second].offset).c_str()));
  }
  afxs::SubsetChainBounds bounds(file.size());  // over every plane's chain, as in the reader
  for (auto [planeId, index] : planeIndex) {
    LuAfxsInspectPlane plane;
    plane.planeId = planeId;
    plane.recordOffset = out.records[index].offset;
    subsetChain(planeId, plane, bounds);
    out.planes.push_back(plane);
  }
}

// One plane's subset chain with each record's body and results, in the
// order a load reads them. False at the first damage a load would stop at.
bool Walk::subsetChain(uint32_t planeId, LuAfxsInspectPlane& plane,
                       afxs::SubsetChainBounds& bounds) {
  Findings found;
  uint32_t first = 0;
  const uint64_t link = uint64_t{plane.recordOffset} + afxs::kPlaneFirstSubsetOffset;
  bool ok = afxs::readPlaneFirstSubset(file, link, found, first);
  if (ok) {
    ok = afxs::walkSubsetChain(file, first, bounds, found, [&](const afxs::SubsetHead& head) {
      const size_t i = subsetRecord(head, planeId);
      LuAfxsInspectRecord& r = out.records[i];
      r.plane = planeId;
      r.loaded = true;
      plane.subsets.push_back(i);
      return body(i, loadBudget, true) && results(out.records[i]);
    });
  }
  for (const DamageReport& r : found.reports)
    problem(r.offset == 0 ? link : r.offset, true, describeChain(r, planeId));
  return ok;
}

// The index of the plane-subset record at head.offset, added when the
// record chain did not lead to it.
size_t Walk::subsetRecord(const afxs::SubsetHead& head, uint32_t planeId) {
  auto it = byOffset.find(head.offset);
  if (it != byOffset.end()) {
    LuAfxsInspectRecord& r = out.records[it->second];
    r.subsetId = head.subsetId;
    r.nextSubset = head.nextSubset;
    return it->second;
  }
  LuAfxsInspectRecord extra;
  extra.offset = head.offset;
  extra.kind = head.kind;
  extra.next = head.next;
  extra.subsetId = head.subsetId;
  extra.nextSubset = head.nextSubset;
  extra.inChain = false;
  if (chainComplete)
    problem(head.offset, false,
            LuStrFrmt::format("plane-subset record at %s (plane %u) is not in the record chain",
                              hex(head.offset).c_str(), planeId));
  byOffset.emplace(head.offset, out.records.size());
  out.records.push_back(extra);
  walked.push_back(false);
  return out.records.size() - 1;
}

// The bodies a load does not read: findings there never break a load.
void Walk::otherBodies() {
  for (size_t i = 0; i < out.records.size(); ++i) {
    LuAfxsInspectRecord& r = out.records[i];
    afxs::SubsetHead head;
    if (r.kind == LU_AFXS_REC_PLANE_SUBSET && !walked[i] &&
        afxs::readSubsetHead(file, r.offset, head)) {
      r.subsetId = head.subsetId;
      r.nextSubset = head.nextSubset;
    }
    body(i, otherBudget, false);
    if (r.kind == LU_AFXS_REC_PLANE_SUBSET && !r.loaded && r.inChain)
      problem(r.offset, false,
              LuStrFrmt::format(
                  "plane-subset record at %s is not reached from any plane, so a reader never "
                  "loads it",
                  hex(r.offset).c_str()));
  }
}

// The results record a loaded plane-subset record links to, as a load reads
// it. False when a load would fail there.
bool Walk::results(LuAfxsInspectRecord& record) {
  if (record.end == 0 || record.resultsLink == 0) return true;
  const uint32_t link = record.resultsLink;
  const std::string where = LuStrFrmt::format(
      "plane-subset record at %s: results at %s: ", hex(record.offset).c_str(), hex(link).c_str());
  bool linkedRecord = false;
  if (link >= afxs::kResultsBodyOffset) {
    auto it = byOffset.find(link - afxs::kResultsBodyOffset);
    linkedRecord = it != byOffset.end() && out.records[it->second].kind == LU_AFXS_REC_RESULTS &&
                   out.records[it->second].inChain;
  }
  if (!linkedRecord)
    problem(link, false,
            where + "the link does not lead to the body of a results record of the chain");
  uint32_t end = 0;
  uint32_t ignoredLink = 0;
  return blocks(link, LU_AFXS_REC_RESULTS, loadBudget, true, where, record.resultsFields,
                record.resultsMask, end, &ignoredLink);
}

// ---- Consistency of what a load reads --------------------------------------------

void Walk::lengths(const LuAfxsInspectRecord& r) {
  // Element counts of the first block of each identifier, as a load keeps them.
  std::map<uint32_t, uint64_t> n;
  for (const auto* list : {&r.fields, &r.resultsFields})
    for (const LuAfxsInspectField& f : *list) {
      size_t element = afxs::fieldElementSize(f.id);
      if (element != 0 && f.id != afxs::kFieldAuxFirst) n.emplace(f.id, f.count / element);
    }
  auto differ = [&](uint64_t at, uint32_t a, uint64_t na, uint32_t b, uint64_t nb) {
    problem(at, false,
            LuStrFrmt::format("plane %" PRId64 " subset %u: %s (%" PRIu64 ") and %s (%" PRIu64
                              ") differ in length",
                              r.plane, r.subsetId, luAfxsFieldName(a), na, luAfxsFieldName(b), nb));
  };
  auto compare = [&](uint32_t a, uint32_t b) {
    if (!n.count(a) || !n.count(b) || n[a] == n[b]) return;
    differ(r.offset, a, n[a], b, n[b]);
  };
  // Every block of b against the points, at the block's own offset: a load
  // reads the results record's result points and distances over the
  // record's own, so each of them must run parallel to the points.
  auto eachAgainstPoints = [&](uint32_t b) {
    if (!n.count(afxs::kFieldPoints)) return;
    const uint64_t points = n[afxs::kFieldPoints];
    for (const auto* list : {&r.fields, &r.resultsFields})
      for (const LuAfxsInspectField& f : *list)
        if (f.id == b && f.count / afxs::fieldElementSize(b) != points)
          differ(f.offset, afxs::kFieldPoints, points, b, f.count / afxs::fieldElementSize(b));
  };
  eachAgainstPoints(afxs::kFieldNormals);
  eachAgainstPoints(afxs::kFieldResPoints);
  eachAgainstPoints(afxs::kFieldDistances);
  if (!n.count(afxs::kFieldPoints)) compare(afxs::kFieldResPoints, afxs::kFieldDistances);
  compare(afxs::kFieldAuxCounts, afxs::kFieldAuxOffsets);
  if (deep) tiling(r);
}

// Segments must be running totals that end at the number of points; the aux
// counts must add up to the number of positions.
void Walk::tiling(const LuAfxsInspectRecord& r) {
  const LuAfxsInspectField* points = nullptr;
  const LuAfxsInspectField* segments = nullptr;
  const LuAfxsInspectField* counts = nullptr;
  const LuAfxsInspectField* positions = nullptr;
  for (const LuAfxsInspectField& f : r.fields) {
    const LuAfxsInspectField** slot = f.id == afxs::kFieldPoints      ? &points
                                      : f.id == afxs::kFieldSegments  ? &segments
                                      : f.id == afxs::kFieldAuxCounts ? &counts
                                      : f.id == afxs::kFieldAuxPos    ? &positions
                                                                      : nullptr;
    if (slot != nullptr && *slot == nullptr) *slot = &f;
  }
  auto forEach = [&](const LuAfxsInspectField& f, auto&& visit) {
    uint32_t chunk[4096];
    uint64_t left = f.count / afxs::kIndexSize;
    uint64_t at = uint64_t{f.offset} + afxs::kFieldDataOffset;
    uint64_t index = 0;
    while (left > 0) {
      size_t take = static_cast<size_t>(std::min<uint64_t>(left, std::size(chunk)));
      if (!file.readExactly(at, chunk, take * sizeof chunk[0])) return false;
      for (size_t k = 0; k < take; ++k)
        if (!visit(index++, chunk[k])) return true;
      left -= take;
      at += take * sizeof chunk[0];
    }
    return true;
  };
  if (segments != nullptr) {
    uint64_t pointCount = points != nullptr ? points->count / afxs::kPointSize : 0;
    int64_t previous = 0;
    bool bad = false;
    uint64_t badIndex = 0;
    int64_t badValue = 0;
    forEach(*segments, [&](uint64_t i, uint32_t raw) {
      int64_t value = static_cast<int32_t>(raw);
      if (value < previous || value > static_cast<int64_t>(pointCount)) {
        bad = true;
        badIndex = i;
        badValue = value;
        return false;
      }
      previous = value;
      return true;
    });
    if (bad) {
      problem(segments->offset, false,
              LuStrFrmt::format("plane %" PRId64 " subset %u: segment %" PRIu64 " ends at %" PRId64
                                ", which does not follow the previous end %" PRId64
                                " within %" PRIu64 " points; segments do not tile the points",
                                r.plane, r.subsetId, badIndex, badValue, previous, pointCount));
    } else if (previous != static_cast<int64_t>(pointCount)) {
      problem(
          segments->offset, false,
          LuStrFrmt::format("plane %" PRId64 " subset %u: the segments end at %" PRId64
                            " but there are %" PRIu64 " points; segments do not tile the points",
                            r.plane, r.subsetId, previous, pointCount));
    }
  }
  if (counts != nullptr) {
    uint64_t sum = 0;
    forEach(*counts, [&](uint64_t, uint32_t c) {
      sum += c;
      return true;
    });
    uint64_t have = positions != nullptr ? positions->count / afxs::kIndexSize : 0;
    if (sum != have)
      problem(counts->offset, false,
              LuStrFrmt::format("plane %" PRId64 " subset %u: the aux groups hold %" PRIu64
                                " positions together but auxCtrlPos has %" PRIu64,
                                r.plane, r.subsetId, sum, have));
  }
}

void Walk::counts() {
  bool firstCameras = true;
  bool anySubset = false;
  bool complete = true;  // every plane-subset record could be walked to its end mark
  uint32_t expected = 0xFFFFFFFF;
  for (const LuAfxsInspectRecord& r : out.records) {
    if (!r.inChain) continue;
    switch (r.kind) {
      case LU_AFXS_REC_CAMERAS:
        ++out.camerasRecords;
        if (firstCameras && !r.fields.empty())
          out.cameras = r.fields.front().count / afxs::kPointSize;
        firstCameras = false;
        break;
      case LU_AFXS_REC_PLANE:
        ++out.planeRecords;
        break;
      case LU_AFXS_REC_PLANE_SUBSET:
        ++out.subsetRecords;
        anySubset = true;
        if (r.end == 0) complete = false;
        expected &= r.mask;
        break;
      case LU_AFXS_REC_RESULTS:
        ++out.resultsRecords;
        break;
      default:
        break;
    }
  }
  out.expectedState = anySubset ? expected : 0;
  bool first = true;
  for (const LuAfxsInspectPlane& plane : out.planes)
    for (size_t i : plane.subsets) {
      const LuAfxsInspectRecord& r = out.records[i];
      ++out.loadedSubsets;
      uint32_t mask = r.mask | r.resultsMask;
      out.stateAnd = first ? mask : (out.stateAnd & mask);
      out.stateUnion |= mask;
      first = false;
      if (std::find(out.subsetIds.begin(), out.subsetIds.end(), r.subsetId) == out.subsetIds.end())
        out.subsetIds.push_back(r.subsetId);
      if (r.end != 0) lengths(r);
    }
  if (out.headerParsed && chainComplete && complete && out.state != out.expectedState)
    problem(0, false,
            LuStrFrmt::format(
                "STATE line says 0x%.8X, but the AND of the plane-subset records' field masks "
                "is 0x%.8X",
                out.state, out.expectedState));
}

}  // namespace

LuAfxsInspection luAfxsInspect(const std::wstring& path, bool deep) {
  LuAfxsInspection out;
  try {
    // A directory opens for reading on some systems (and reports a size of
    // 2^63 - 1), and opening a FIFO waits for a writer: neither is opened.
    std::error_code ec;
    std::filesystem::file_status status = std::filesystem::status(luio::nativePath(path), ec);
    if (!ec && std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
      out.problems.push_back({0, true,
                              std::filesystem::is_directory(status)
                                  ? "is a directory, not a file"
                                  : "is not a regular file (a FIFO, device or socket)"});
      return out;
    }
    afxs::FileSource file(path);
    if (!file.ok()) {
      out.problems.push_back({0, true, "cannot be opened for reading"});
      return out;
    }
    out.opened = true;
    out.fileSize = file.size();
    Walk walk{file, out, deep};
    walk.header();
    if (!out.headerParsed) return out;
    if (out.fileSize > afxs::kMaxFileOffset + 1)
      walk.problem(afxs::kMaxFileOffset, false, "the file is larger than a u32 offset can reach");
    walk.chain();
    walk.planes();
    walk.otherBodies();
    walk.counts();
  } catch (...) {
    // Only allocation failures can get here; the walk itself does not throw.
    out.problems.push_back({0, true, "the file could not be inspected (out of memory)"});
  }
  return out;
}
