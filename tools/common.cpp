// Helpers shared by the verbs.
#include <unistd.h>

#include <cstdio>
#include <sstream>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

void error(const std::string& file, const std::string& what) {
  if (file.empty())
    fmt::print(stderr, "luafxs: {}\n", printable(what));
  else
    fmt::print(stderr, "luafxs: {}: {}\n", printable(file), printable(what));
}

namespace {

bool continuation(unsigned char c) { return (c & 0xC0) == 0x80; }

// The length of the UTF-8 sequence at text[at] (2 to 4), or 0 when the bytes
// there are no well-formed sequence (RFC 3629: no overlong forms, no
// surrogates, nothing past U+10FFFF) or encode a C1 control (U+0080-U+009F).
size_t utf8Sequence(std::string_view text, size_t at) {
  const auto byte = [&](size_t k) {
    return at + k < text.size() ? static_cast<unsigned char>(text[at + k]) : 0;
  };
  const unsigned char lead = byte(0);
  unsigned char low = 0x80, high = 0xBF;  // the second byte's range
  size_t length = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    if (lead == 0xC2) low = 0xA0;  // U+0080-U+009F are C1 controls
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t k = 2; k < length; ++k)
    if (!continuation(byte(k))) return 0;
  return length;
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  size_t at = 0;
  while (at < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[at]);
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
      ++at;
    } else if (const size_t length = c >= 0x80 ? utf8Sequence(text, at) : 0; length != 0) {
      out.append(text.substr(at, length));
      at += length;
    } else {
      out += fmt::format("\\x{:02x}", c);
      ++at;
    }
  }
  return out;
}

std::string quotedCell(std::string_view cell, size_t longest) {
  if (cell.size() <= longest) return std::string(cell);
  size_t cut = longest;
  while (cut > 0 && continuation(static_cast<unsigned char>(cell[cut]))) --cut;
  return std::string(cell.substr(0, cut)) + "...";
}

void warning(const std::string& file, const std::string& what) { error(file, "warning: " + what); }

std::wstring widen(const std::string& path) { return luUtf8ToWide(path); }

std::string narrow(const std::wstring& text) { return luWideToUtf8(text); }

std::string hex32(uint64_t value) { return fmt::format("0x{:08X}", value); }

namespace {
struct FieldName {
  const char* name;
  uint32_t bit;
};
constexpr FieldName kFieldNames[] = {
    {"points", LU_AFXS_MASK_POINTS},     {"segments", LU_AFXS_MASK_SEGMENTS},
    {"normals", LU_AFXS_MASK_NORMALS},   {"aux", LU_AFXS_MASK_AUX},
    {"results", LU_AFXS_MASK_RESPOINTS}, {"distances", LU_AFXS_MASK_DISTANCES},
};
}  // namespace

std::string maskNames(uint32_t mask) {
  std::string out;
  for (const FieldName& f : kFieldNames)
    if (mask & f.bit) out += std::string(out.empty() ? "" : " ") + f.name;
  return out.empty() ? "none" : out;
}

nlohmann::json maskNameList(uint32_t mask) {
  nlohmann::json out = nlohmann::json::array();
  for (const FieldName& f : kFieldNames)
    if (mask & f.bit) out.push_back(f.name);
  return out;
}

bool parseFields(const std::string& list, uint32_t& mask, std::string& bad) {
  mask = 0;
  std::stringstream in(list);
  std::string name;
  while (std::getline(in, name, ',')) {
    if (name.empty()) continue;
    if (name == "all") {
      mask |= LU_AFXS_MASK_ALL;
      continue;
    }
    bool found = false;
    for (const FieldName& f : kFieldNames)
      if (name == f.name || (name == "resPoints" && f.bit == LU_AFXS_MASK_RESPOINTS)) {
        mask |= f.bit;
        found = true;
      }
    if (!found) {
      bad = name;
      return false;
    }
  }
  return true;
}

bool stdoutIsTerminal() { return isatty(fileno(stdout)) != 0; }
bool stderrIsTerminal() { return isatty(fileno(stderr)) != 0; }

std::string openProblem(const LuAfxsInspection& in) {
  return in.problems.empty() ? std::string("cannot be opened for reading")
                             : in.problems.front().message;
}

nlohmann::json inspectionJson(const std::string& file, const LuAfxsInspection& in) {
  nlohmann::json problems = nlohmann::json::array();
  for (const LuAfxsInspectProblem& p : in.problems)
    problems.push_back(
        {{"offset", p.offset}, {"breaksLoad", p.breaksLoad}, {"message", p.message}});
  return {{"file", file},
          {"opened", in.opened},
          {"error", in.opened ? nlohmann::json(nullptr) : nlohmann::json(openProblem(in))},
          {"size", in.fileSize},
          {"clean", in.opened && in.clean()},
          {"loadable", in.loadable()},
          {"records",
           {{"total", in.records.size()},
            {"cameras", in.camerasRecords},
            {"plane", in.planeRecords},
            {"planeSubset", in.subsetRecords},
            {"results", in.resultsRecords}}},
          {"planeSubsets", in.loadedSubsets},
          {"problems", problems}};
}

bool checkBeforeLoad(const std::string& path, const LuAfxsInspection& in, bool strict) {
  if (!in.opened) {
    error(path, openProblem(in));
    return false;
  }
  bool ok = true;
  for (const LuAfxsInspectProblem& p : in.problems) {
    bool refuses = strict || p.breaksLoad;
    std::string text = fmt::format("at {}: {}", hex32(p.offset), p.message);
    if (refuses) {
      error(path, text);
      ok = false;
    } else {
      warning(path, text);
    }
  }
  if (!ok) error(path, "damaged file; nothing was done (run: luafxs validate " + path + ")");
  return ok;
}

LoadedFile::~LoadedFile() {
  // The set closes the file and frees its records before the link goes.
  set.reset();
  link.reset();
}

std::unique_ptr<LoadedFile> loadChecked(const std::string& path, uint32_t mask, bool strict) {
  auto file = std::make_unique<LoadedFile>();
  file->path = path;
  file->inspection = luAfxsInspect(widen(path), true);
  if (!checkBeforeLoad(path, file->inspection, strict)) return nullptr;
  file->link = std::make_unique<LuAfxsUserLink>(widen(path).c_str());
  file->set = std::make_unique<LuAfxsUserDataSet>(*file->link);
  if (!file->set->load(mask)) {
    error(path, "the reader could not load the file");
    return nullptr;
  }
  file->set->closefile();
  for (LuAfxsUserData* data : *file->set) file->planes.push_back(&data->getPlaneData());
  return file;
}

}  // namespace luafxs
