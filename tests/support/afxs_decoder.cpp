#include "support/afxs_decoder.h"

#include <cstdlib>
#include <cstring>
#include <set>

namespace afxstest {
namespace {

constexpr uint32_t kEnd = 0xFFFFFFFF;

struct Cursor {
  const std::vector<uint8_t>& bytes;
  uint64_t at;
  bool u32(uint32_t& out) {
    if (at + 4 > bytes.size()) return false;
    std::memcpy(&out, bytes.data() + at, 4);
    at += 4;
    return true;
  }
};

bool parseHex(const std::string& line, const std::string& keyword, uint32_t& out) {
  if (line.rfind(keyword + " 0x", 0) != 0) return false;
  std::string digits = line.substr(keyword.size() + 3);
  if (digits.size() != 8) return false;
  out = static_cast<uint32_t>(std::strtoul(digits.c_str(), nullptr, 16));
  return true;
}

// The field blocks of a record up to its end mark.
bool readFields(Cursor& c, Record& r, std::string& error) {
  for (;;) {
    uint32_t id = 0;
    if (!c.u32(id)) return error = "short field identifier", false;
    if (id == kEnd) {
      if (!c.u32(r.endKind)) return error = "short end mark", false;
      r.end = static_cast<uint32_t>(c.at);
      return true;
    }
    FieldBlock b;
    b.id = id;
    b.offset = static_cast<uint32_t>(c.at - 4);
    if (!c.u32(b.count)) return error = "short byte count", false;
    if (c.at + b.count > c.bytes.size()) return error = "field runs past the end", false;
    b.data.assign(c.bytes.begin() + static_cast<long>(c.at),
                  c.bytes.begin() + static_cast<long>(c.at + b.count));
    c.at += b.count;
    r.fields.push_back(std::move(b));
  }
}

template <typename T>
std::vector<T> asVector(const FieldBlock& block) {
  std::vector<T> out(block.data.size() / sizeof(T));
  if (!out.empty()) std::memcpy(out.data(), block.data.data(), out.size() * sizeof(T));
  return out;
}

}  // namespace

const FieldBlock* Record::field(uint32_t id) const {
  for (const auto& f : fields)
    if (f.id == id) return &f;
  return nullptr;
}

std::vector<uint32_t> Record::fieldIds() const {
  std::vector<uint32_t> ids;
  for (const auto& f : fields) ids.push_back(f.id);
  return ids;
}

const Record* DecodedFile::recordAt(uint32_t offset) const {
  for (const auto& r : records)
    if (r.offset == offset) return &r;
  return nullptr;
}

const Record* DecodedFile::planeRecord(uint32_t planeId) const {
  for (const auto& r : records)
    if (r.kind == LU_AFXS_REC_PLANE && r.planeId == planeId) return &r;
  return nullptr;
}

std::vector<const Record*> DecodedFile::subsetsOf(uint32_t planeId) const {
  std::vector<const Record*> out;
  const Record* plane = planeRecord(planeId);
  if (plane == nullptr) return out;
  std::set<uint32_t> seen;
  for (uint32_t at = plane->firstSubset; at != 0 && seen.insert(at).second;) {
    const Record* r = recordAt(at);
    if (r == nullptr || r->kind != LU_AFXS_REC_PLANE_SUBSET) break;
    out.push_back(r);
    at = r->nextSubset;
  }
  return out;
}

std::vector<uint32_t> DecodedFile::kinds() const {
  std::vector<uint32_t> out;
  for (const auto& r : records) out.push_back(r.kind);
  return out;
}

DecodedFile decodeAfxs(const std::vector<uint8_t>& bytes) {
  DecodedFile file;
  const std::string text(bytes.begin(), bytes.end());
  const std::string endLine = "HEADER_END\n";
  size_t endAt = text.find(endLine);
  if (endAt == std::string::npos) {
    file.error = "no HEADER_END line";
    return file;
  }
  file.headerText = text.substr(0, endAt + endLine.size());
  for (size_t start = 0; start < file.headerText.size();) {
    size_t lf = file.headerText.find('\n', start);
    file.headerLines.push_back(file.headerText.substr(start, lf - start));
    start = lf + 1;
  }
  bool haveFirst = false, haveState = false;
  for (const auto& line : file.headerLines) {
    haveFirst = haveFirst || parseHex(line, "FIRST_RECORD", file.firstRecord);
    haveState = haveState || parseHex(line, "STATE", file.state);
  }
  if (file.headerLines.empty() || file.headerLines[0] != "Lumoravel_XS_COP" || !haveFirst ||
      !haveState) {
    file.error = "bad header";
    return file;
  }

  std::set<uint32_t> seen;
  for (uint32_t at = file.firstRecord; at != 0;) {
    if (!seen.insert(at).second) {
      file.error = "record chain loops";
      return file;
    }
    Cursor c{bytes, at};
    Record r;
    r.offset = at;
    if (!c.u32(r.kind) || !c.u32(r.next)) {
      file.error = "short record header";
      return file;
    }
    bool good = true;
    switch (r.kind) {
      case LU_AFXS_REC_PLANE: {
        uint32_t mark = 0;
        good = c.u32(r.planeId) && c.u32(r.firstSubset) && c.u32(mark) && mark == kEnd &&
               c.u32(r.endKind);
        r.end = static_cast<uint32_t>(c.at);
        if (!good) file.error = "bad plane record";
        break;
      }
      case LU_AFXS_REC_PLANE_SUBSET:
        good = c.u32(r.subsetId) && c.u32(r.nextSubset) && readFields(c, r, file.error);
        break;
      case LU_AFXS_REC_CAMERAS:
      case LU_AFXS_REC_RESULTS:
        good = readFields(c, r, file.error);
        break;
      default:
        good = false;
        file.error = "unknown record kind";
    }
    if (!good) return file;
    if (r.endKind != r.kind) {
      file.error = "end mark kind differs from record kind";
      return file;
    }
    at = r.next;
    file.records.push_back(std::move(r));
  }
  file.ok = true;
  return file;
}

std::vector<LuVec3> asPoints(const FieldBlock& block) { return asVector<LuVec3>(block); }
std::vector<int32_t> asI32(const FieldBlock& block) { return asVector<int32_t>(block); }
std::vector<uint32_t> asU32(const FieldBlock& block) { return asVector<uint32_t>(block); }
std::vector<double> asDoubles(const FieldBlock& block) { return asVector<double>(block); }

}  // namespace afxstest
