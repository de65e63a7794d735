// The read-only walk of a file behind luAfxsInspect: header, record chain,
// subset chains, field blocks, counts and problems. It mirrors what the
// reader does with the same bytes, so that "breaksLoad" predicts a failed
// data-set load, and it checks more than the reader does (vector lengths,
// segment tiling, the STATE line), which it reports as plain problems.
//
// Every count read from the file is checked against the file size before it
// is used; every chain is walked with a set of visited offsets; the total
// number of bytes walked through record bodies is bounded by a small
// multiple of the file size, so hostile overlapping records cannot make the
// walk quadratic.
#include <luAnaf/luAfxsFileCheck.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <istream>
#include <map>
#include <set>
#include <streambuf>

#include "format/format.h"
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

std::string format(const char* fmt, ...) LUANAF_PRINTF_FORMAT(1, 2);
std::string format(const char* fmt, ...) {
  char buffer[512];
  va_list args;
  va_start(args, fmt);
  int n = std::vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  if (n < 0) return std::string();
  return std::string(buffer, std::min<size_t>(static_cast<size_t>(n), sizeof buffer - 1));
}

std::string hex(uint64_t value) { return format("0x%" PRIX64, value); }

// The file, opened read-only, with bounds-checked reads at absolute offsets.
class File {
public:
  explicit File(const std::wstring& path) : m_file(luio::open(path, "rb")) {
    if (m_file == nullptr) return;
    if (luio::seek(m_file, 0, SEEK_END) != 0) return;
    int64_t size = luio::tell(m_file);
    if (size < 0) return;
    m_size = static_cast<uint64_t>(size);
    m_ok = true;
  }
  ~File() {
    if (m_file != nullptr) luio::close(m_file);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  bool ok() const { return m_ok; }
  uint64_t size() const { return m_size; }
  FILE* stream() const { return m_file; }

  // Whether `bytes` bytes starting at `at` lie inside the file.
  bool has(uint64_t at, uint64_t bytes) const { return at <= m_size && bytes <= m_size - at; }

  bool read(uint64_t at, void* data, size_t bytes) {
    if (!has(at, bytes)) return false;
    if (luio::seek(m_file, static_cast<int64_t>(at), SEEK_SET) != 0) return false;
    return bytes == 0 || luio::read(data, 1, bytes, m_file) == bytes;
  }
  bool u32(uint64_t at, uint32_t& value) { return read(at, &value, sizeof value); }

private:
  FILE* m_file = nullptr;
  uint64_t m_size = 0;
  bool m_ok = false;
};

// A read-only stream buffer over the file, from its start, so that the
// header is parsed with the same word extraction the reader uses.
class HeaderBuf : public std::streambuf {
public:
  explicit HeaderBuf(File& file) : m_file(file) {
    luio::seek(m_file.stream(), 0, SEEK_SET);
    setg(m_buffer, m_buffer, m_buffer);
  }
  uint64_t position() const { return m_consumed - static_cast<uint64_t>(egptr() - gptr()); }

protected:
  int_type underflow() override {
    if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
    size_t n = luio::read(m_buffer, 1, sizeof m_buffer, m_file.stream());
    if (n == 0) return traits_type::eof();
    m_consumed += n;
    setg(m_buffer, m_buffer, m_buffer + n);
    return traits_type::to_int_type(*gptr());
  }

private:
  File& m_file;
  char m_buffer[16384];
  uint64_t m_consumed = 0;
};

constexpr size_t kMaxHeaderLines = 1024;

struct Walk {
  File& file;
  LuAfxsInspection& out;
  bool deep;
  uint64_t budget;  // bytes of record bodies still allowed to be walked
  // The record chain was walked to its end; without that, records outside
  // it and the STATE line are not judged (the damage is already named).
  bool chainComplete = false;

  void problem(uint64_t offset, bool breaksLoad, std::string message) {
    out.problems.push_back({offset, breaksLoad, std::move(message)});
  }
  std::string sizeText() const { return format("%" PRIu64 " bytes", file.size()); }

  void header();
  void chain();
  bool blocks(uint32_t at, uint32_t kind, std::vector<LuAfxsInspectField>& fields, uint32_t& mask,
              uint32_t& end, uint32_t* resultsLink, std::vector<LuAfxsInspectProblem>& found);
  void body(LuAfxsInspectRecord& record, std::vector<LuAfxsInspectProblem>& found);
  void subsetChains();
  void results(LuAfxsInspectRecord& record);
  void lengths(const LuAfxsInspectRecord& record);
  void tiling(const LuAfxsInspectRecord& record);
  void counts();
};

// ---- Header ------------------------------------------------------------------

void Walk::header() {
  HeaderBuf buf(file);
  std::istream in(&buf);
  std::string word;
  if (!(in >> word) || word != afxs::kFileIdentifier) {
    problem(0, true,
            format("bad identifier line: the file must begin with the word \"%s\"",
                   afxs::kFileIdentifier));
    return;
  }
  out.identifierOk = true;
  auto valueFailed = [&](uint64_t at, const std::string& keyword) {
    problem(at, true, "header: the value of " + keyword + " cannot be read");
  };
  for (;;) {
    in >> std::ws;
    uint64_t at = buf.position();
    if (!(in >> word)) break;
    LuAfxsInspectHeaderLine line;
    line.offset = at;
    line.keyword = word;
    if (word == "VER") {
      int value = 0;
      if (!(in >> std::dec >> value)) return valueFailed(at, word);
      out.version = value;
      out.hasVersion = true;
      line.values = format("%d", value);
    } else if (word == "FIRST_RECORD") {
      int32_t value = 0;
      if (!(in >> std::hex >> value)) return valueFailed(at, word);
      out.firstRecord = value;
      line.values = format("0x%.8X", static_cast<uint32_t>(value));
    } else if (word == "POINT" || word == "NORMAL") {
      double* v = word == "POINT" ? out.header.point : out.header.normal;
      if (!(in >> v[0] >> v[1] >> v[2])) return valueFailed(at, word);
      line.values = format("%f %f %f", v[0], v[1], v[2]);
    } else if (word == "NUM_PLANES") {
      uint64_t value = 0;
      if (!(in >> std::dec >> value)) return valueFailed(at, word);
      out.header.numPlanes = value;
      line.values = format("%" PRIu64, value);
    } else if (word == "DIST_BW_PLANES") {
      if (!(in >> out.header.distBwPlanes)) return valueFailed(at, word);
      line.values = format("%f", out.header.distBwPlanes);
    } else if (word == "STATE") {
      uint32_t value = 0;
      if (!(in >> std::hex >> value)) return valueFailed(at, word);
      out.state = value;
      line.values = format("0x%.8X", value);
    } else if (word == "HEADER_END") {
      out.headerLines.push_back(line);
      out.headerEndSeen = true;
      out.headerSize = buf.position();
      if (in.peek() == '\n') out.headerSize += 1;
      break;
    } else {
      line.known = false;
      in.ignore(0x7FFFFFFF, '\n');
    }
    // Only the first words are listed: a header of millions of words must
    // not cost memory beyond a small multiple of its own size.
    if (out.headerLines.size() < kMaxHeaderLines) out.headerLines.push_back(line);
  }
  if (!out.headerEndSeen) out.headerSize = file.size();
  out.header.version = out.version;
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
  if (out.firstRecord < 0) {
    problem(0, true,
            format("FIRST_RECORD 0x%.8X is not a valid offset",
                   static_cast<uint32_t>(out.firstRecord)));
    return;
  }
  std::set<uint32_t> visited;
  // A real record needs at least its header and end mark; a chain with more
  // records than that allows must overlap itself.
  const uint64_t maxRecords = file.size() / (afxs::kRecordHeaderSize + afxs::kEndMarkSize) + 1;
  uint32_t offset = static_cast<uint32_t>(out.firstRecord);
  uint64_t from = 0;  // where the link to `offset` was read
  while (offset != 0) {
    if (!visited.insert(offset).second) {
      problem(from, true,
              format("record chain loops back to the record at %s", hex(offset).c_str()));
      return;
    }
    if (visited.size() > maxRecords) {
      problem(from, true, "record chain holds more records than the file could hold");
      return;
    }
    LuAfxsInspectRecord record;
    record.offset = offset;
    uint32_t head[3] = {0, 0, 0};
    if (!file.read(offset, head, 8)) {
      problem(from, true,
              format("record chain leaves the file: a record at %s does not fit in the file (%s)",
                     hex(offset).c_str(), sizeText().c_str()));
      return;
    }
    record.kind = head[0];
    record.next = head[1];
    if (record.kind == LU_AFXS_REC_PLANE && !file.u32(uint64_t{offset} + 8, record.planeId)) {
      problem(offset, true,
              format("plane record at %s runs past the end of the file (%s)", hex(offset).c_str(),
                     sizeText().c_str()));
      return;
    }
    if (record.kind > LU_AFXS_REC_RESULTS)
      problem(offset, false,
              format("record at %s has the unknown kind %u; a reader steps over it",
                     hex(offset).c_str(), record.kind));
    out.records.push_back(record);
    from = uint64_t{offset} + afxs::kNextFieldOffset;
    offset = record.next;
  }
  chainComplete = true;
}

// Walks the field blocks of one record from `at` up to and including its end
// mark, as the reader's loadRecordData does. Problems go to `found`; the
// caller decides whether they break a load. False when the walk had to stop.
bool Walk::blocks(uint32_t at, uint32_t kind, std::vector<LuAfxsInspectField>& fields,
                  uint32_t& mask, uint32_t& end, uint32_t* resultsLink,
                  std::vector<LuAfxsInspectProblem>& found) {
  auto fail = [&](uint64_t offset, std::string message) {
    found.push_back({offset, true, std::move(message)});
    return false;
  };
  uint64_t pos = at;
  for (;;) {
    uint32_t id = 0;
    if (!file.u32(pos, id))
      return fail(pos, format("field list runs past the end of the file (%s) without an end mark",
                              sizeText().c_str()));
    if (id == afxs::kFieldEnd) {
      uint32_t endKind = 0;
      if (!file.u32(pos + 4, endKind))
        return fail(pos, format("end mark runs past the end of the file (%s)", sizeText().c_str()));
      if (endKind != kind)
        return fail(pos + 4,
                    format("wrong end mark: 0xFFFFFFFF is followed by %u, expected %u (the "
                           "kind of the record)",
                           endKind, kind));
      end = static_cast<uint32_t>(pos + 8);
      return true;
    }
    uint32_t count = 0;
    if (!file.u32(pos + 4, count))
      return fail(pos, format("field %u (%s): byte count runs past the end of the file (%s)", id,
                              luAfxsFieldName(id), sizeText().c_str()));
    // Counts beyond the file are named below; what lies inside it is charged
    // to the budget, which only overlapping records can exhaust.
    uint64_t charge = 8 + std::min<uint64_t>(count, file.size());
    if (budget < charge) return fail(pos, "records overlap too much to be checked");
    budget -= charge;
    LuAfxsInspectField field{id, static_cast<uint32_t>(pos), count};
    fields.push_back(field);
    const char* name = luAfxsFieldName(id);
    if (kind == LU_AFXS_REC_CAMERAS) {
      if (!file.has(pos + 8, count))
        return fail(pos + 4, format("cameras: byte count %u runs past the end of the file (%s)",
                                    count, sizeText().c_str()));
      if (id != afxs::kFieldCameras)
        found.push_back(
            {pos, false, format("cameras record holds field %u; only field 0 is read", id)});
      if (count % afxs::kPointSize != 0)
        found.push_back(
            {pos + 4, false, format("cameras: byte count %u is not a multiple of 24", count)});
      pos += 8 + uint64_t{count};
      continue;
    }
    if (id == afxs::kFieldResultsLink) {
      if (count != 4)
        return fail(pos + 4, format("results link: byte count %u, it must be 4", count));
      uint32_t link = 0;
      if (!file.u32(pos + 8, link))
        return fail(pos + 8,
                    format("results link runs past the end of the file (%s)", sizeText().c_str()));
      if (resultsLink != nullptr) {
        *resultsLink = link;
      } else if (link != 0) {
        found.push_back({pos, false, "results record holds a results link; it is not followed"});
      }
      pos += 12;
      continue;
    }
    if (count == 0)
      return fail(pos + 4, format("field %u (%s) has a zero byte count; a reader treats an empty "
                                  "field as damage",
                                  id, name));
    if (static_cast<int32_t>(count) < 0)
      return fail(pos + 4, format("field %u (%s): byte count %u is negative as a signed value", id,
                                  name, count));
    if (!file.has(pos + 8, count))
      return fail(pos + 4, format("field %u (%s): byte count %u runs past the end of the file (%s)",
                                  id, name, count, sizeText().c_str()));
    size_t element = afxs::fieldElementSize(id);
    if (element == 0) {
      found.push_back(
          {pos, false, format("unknown field identifier %u; a reader steps over it", id)});
    } else if (count % element != 0) {
      return fail(pos + 4, format("field %u (%s): byte count %u is not a multiple of its element "
                                  "size %zu",
                                  id, name, count, element));
    }
    mask |= afxs::fieldMaskBit(id);
    pos += 8 + uint64_t{count};
  }
}

void Walk::body(LuAfxsInspectRecord& record, std::vector<LuAfxsInspectProblem>& found) {
  uint64_t at = record.offset;
  switch (record.kind) {
    case LU_AFXS_REC_CAMERAS:
      blocks(static_cast<uint32_t>(at + afxs::kCamerasBodyOffset), record.kind, record.fields,
             record.mask, record.end, nullptr, found);
      record.mask = 0;
      return;
    case LU_AFXS_REC_PLANE: {
      uint32_t tail[3] = {0, 0, 0};
      if (!file.read(at + 8, tail, 12)) {
        found.push_back(
            {at, false,
             format("plane record runs past the end of the file (%s)", sizeText().c_str())});
        return;
      }
      record.firstSubset = tail[1];
      if (tail[2] != afxs::kEndMark) {
        found.push_back(
            {at + 16, false,
             format("plane record: wrong end mark 0x%.8X, expected 0xFFFFFFFF", tail[2])});
        return;
      }
      uint32_t endKind = 0;
      if (!file.u32(at + 20, endKind) || endKind != LU_AFXS_REC_PLANE) {
        found.push_back(
            {at + 20, false, "plane record: wrong end mark, the kind 1 does not follow"});
        return;
      }
      record.end = static_cast<uint32_t>(at + afxs::kPlaneRecordSize);
      return;
    }
    case LU_AFXS_REC_PLANE_SUBSET: {
      uint32_t head[2] = {0, 0};
      if (!file.read(at + 8, head, 8)) {
        found.push_back(
            {at, true,
             format("plane-subset record runs past the end of the file (%s)", sizeText().c_str())});
        return;
      }
      record.subsetId = head[0];
      record.nextSubset = head[1];
      blocks(static_cast<uint32_t>(at + afxs::kSubsetFirstFieldOffset), record.kind, record.fields,
             record.mask, record.end, &record.resultsLink, found);
      return;
    }
    case LU_AFXS_REC_RESULTS:
      blocks(static_cast<uint32_t>(at + afxs::kResultsBodyOffset), record.kind, record.fields,
             record.mask, record.end, nullptr, found);
      return;
    default:
      return;
  }
}

// ---- Subset chains and what a load reads -----------------------------------------

void Walk::subsetChains() {
  // Bodies of the chain's records, with overlap detection.
  std::map<uint32_t, size_t> byOffset;
  std::vector<std::vector<LuAfxsInspectProblem>> found(out.records.size());
  for (size_t i = 0; i < out.records.size(); ++i) {
    byOffset.emplace(out.records[i].offset, i);
    body(out.records[i], found[i]);
  }
  // Plane index: the first plane record of each number wins, as in the reader.
  std::map<uint32_t, size_t> planeIndex;
  for (size_t i = 0; i < out.records.size(); ++i) {
    const LuAfxsInspectRecord& r = out.records[i];
    if (r.kind != LU_AFXS_REC_PLANE) continue;
    auto [it, fresh] = planeIndex.emplace(r.planeId, i);
    if (!fresh)
      problem(r.offset, false,
              format("second plane record for plane %u; a reader uses the first one, at %s",
                     r.planeId, hex(out.records[it->second].offset).c_str()));
  }
  std::set<uint32_t> reached;
  uint64_t steps = 0;
  const uint64_t maxSteps = 4 * uint64_t{out.records.size()} + 16;
  for (auto [planeId, index] : planeIndex) {
    LuAfxsInspectPlane plane;
    plane.planeId = planeId;
    plane.recordOffset = out.records[index].offset;
    uint32_t firstSubset = 0;
    if (!file.u32(uint64_t{plane.recordOffset} + afxs::kPlaneFirstSubsetOffset, firstSubset)) {
      problem(plane.recordOffset, true,
              format("plane %u: its record runs past the end of the file (%s)", planeId,
                     sizeText().c_str()));
      out.planes.push_back(plane);
      continue;
    }
    uint64_t from = uint64_t{plane.recordOffset} + afxs::kPlaneFirstSubsetOffset;
    std::set<uint32_t> mine;
    for (uint32_t at = firstSubset; at != 0;) {
      if (++steps > maxSteps) {
        problem(from, true, "subset chains share records too often to be checked");
        break;
      }
      if (!mine.insert(at).second) {
        problem(from, true,
                format("subset chain of plane %u loops back to the record at %s", planeId,
                       hex(at).c_str()));
        break;
      }
      auto it = byOffset.find(at);
      size_t i = 0;
      if (it != byOffset.end()) {
        i = it->second;
      } else {
        uint32_t kind = 0;
        if (!file.u32(at, kind) || !file.has(at, afxs::kSubsetRecordHead)) {
          problem(from, true,
                  format("subset chain of plane %u leaves the file: %s is past its end (%s)",
                         planeId, hex(at).c_str(), sizeText().c_str()));
          break;
        }
        LuAfxsInspectRecord extra;
        extra.offset = at;
        extra.kind = kind;
        extra.inChain = false;
        file.u32(uint64_t{at} + 4, extra.next);
        if (kind == LU_AFXS_REC_PLANE_SUBSET && chainComplete)
          problem(at, false,
                  format("plane-subset record at %s (plane %u) is not in the record chain",
                         hex(at).c_str(), planeId));
        out.records.push_back(extra);
        found.emplace_back();
        i = out.records.size() - 1;
        byOffset.emplace(at, i);
        if (kind == LU_AFXS_REC_PLANE_SUBSET) body(out.records[i], found[i]);
      }
      LuAfxsInspectRecord& r = out.records[i];
      if (r.kind != LU_AFXS_REC_PLANE_SUBSET) {
        problem(from, true,
                format("subset chain of plane %u leads to a %s record (kind %u) at %s", planeId,
                       luAfxsRecordKindName(r.kind), r.kind, hex(at).c_str()));
        break;
      }
      if (r.plane >= 0 && r.plane != planeId) {
        // The reader refuses a record shared by two planes' chains.
        problem(at, true,
                format("plane-subset record at %s is reached from planes %u and %u",
                       hex(at).c_str(), static_cast<uint32_t>(r.plane), planeId));
        break;
      }
      if (r.plane < 0) r.plane = planeId;
      r.loaded = true;
      reached.insert(at);
      plane.subsets.push_back(i);
      from = uint64_t{at} + afxs::kSubsetNextSubsetOffset;
      at = r.nextSubset;
    }
    out.planes.push_back(plane);
  }
  // Problems of the bodies: those of records a load reads break the load.
  for (size_t i = 0; i < out.records.size(); ++i) {
    const LuAfxsInspectRecord& r = out.records[i];
    for (LuAfxsInspectProblem p : found[i]) {
      bool read = r.loaded && r.kind == LU_AFXS_REC_PLANE_SUBSET;
      p.breaksLoad = p.breaksLoad && read;
      p.message = format("%s record at %s: ", luAfxsRecordKindName(r.kind), hex(r.offset).c_str()) +
                  p.message;
      out.problems.push_back(p);
    }
    if (r.kind == LU_AFXS_REC_PLANE_SUBSET && !r.loaded && r.inChain)
      problem(r.offset, false,
              format("plane-subset record at %s is not reached from any plane, so a reader never "
                     "loads it",
                     hex(r.offset).c_str()));
  }
  for (LuAfxsInspectRecord& r : out.records)
    if (r.loaded && r.end != 0) results(r);
}

void Walk::results(LuAfxsInspectRecord& record) {
  if (record.resultsLink == 0) return;
  uint32_t link = record.resultsLink;
  std::string where = format(
      "plane-subset record at %s: results at %s: ", hex(record.offset).c_str(), hex(link).c_str());
  bool linkedRecord = false;
  if (link >= afxs::kResultsBodyOffset) {
    for (const LuAfxsInspectRecord& r : out.records)
      if (r.offset == link - afxs::kResultsBodyOffset && r.kind == LU_AFXS_REC_RESULTS)
        linkedRecord = true;
  }
  if (!linkedRecord)
    problem(link, false,
            where + "the link does not lead to the body of a results record of the chain");
  std::vector<LuAfxsInspectProblem> found;
  uint32_t end = 0;
  uint32_t ignoredLink = 0;
  blocks(link, LU_AFXS_REC_RESULTS, record.resultsFields, record.resultsMask, end, &ignoredLink,
         found);
  for (LuAfxsInspectProblem p : found) {
    p.message = where + p.message;
    out.problems.push_back(p);
  }
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
            format("plane %" PRId64 " subset %u: %s (%" PRIu64 ") and %s (%" PRIu64
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
    uint64_t left = f.count / 4;
    uint64_t at = uint64_t{f.offset} + 8;
    uint64_t index = 0;
    while (left > 0) {
      size_t take = static_cast<size_t>(std::min<uint64_t>(left, 4096));
      if (!file.read(at, chunk, take * 4)) return false;
      for (size_t k = 0; k < take; ++k)
        if (!visit(index++, chunk[k])) return true;
      left -= take;
      at += take * 4;
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
              format("plane %" PRId64 " subset %u: segment %" PRIu64 " ends at %" PRId64
                     ", which does not follow the previous end %" PRId64 " within %" PRIu64
                     " points; segments do not tile the points",
                     r.plane, r.subsetId, badIndex, badValue, previous, pointCount));
    } else if (previous != static_cast<int64_t>(pointCount)) {
      problem(segments->offset, false,
              format("plane %" PRId64 " subset %u: the segments end at %" PRId64
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
    uint64_t have = positions != nullptr ? positions->count / 4 : 0;
    if (sum != have)
      problem(counts->offset, false,
              format("plane %" PRId64 " subset %u: the aux groups hold %" PRIu64
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
            format("STATE line says 0x%.8X, but the AND of the plane-subset records' field masks "
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
    File file(path);
    if (!file.ok()) {
      out.problems.push_back({0, true, "cannot be opened for reading"});
      return out;
    }
    out.opened = true;
    out.fileSize = file.size();
    Walk walk{file, out, deep, 4 * file.size() + 1024};
    walk.header();
    if (!out.headerParsed) return out;
    if (out.fileSize > afxs::kMaxFileOffset + 1)
      walk.problem(afxs::kMaxFileOffset, false, "the file is larger than a u32 offset can reach");
    walk.chain();
    walk.subsetChains();
    walk.counts();
  } catch (...) {
    // Only allocation failures can get here; the walk itself does not throw.
    out.problems.push_back({0, true, "the file could not be inspected (out of memory)"});
  }
  return out;
}
