// Shared by the fuzz targets: the input goes to a scratch file, and the
// library's reports and logs are silenced (they would only slow the run).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include <luAnaf/luAnaf.h>

namespace lufuzz {

inline std::string scratchPath(const char* tag) {
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  return std::string(dir) + "/luanaf-fuzz-" + tag + "-" + std::to_string(getpid()) + ".afxs";
}

inline std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

inline bool writeFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
  return std::fclose(f) == 0 && ok;
}

inline void silence() {
  static bool done = false;
  if (done) return;
  done = true;
  luEnvSetErrorSink([](const LuErrorReport&) {});
  luEnvSetLogSink([](const LuLogRecord&) {});
}

}  // namespace lufuzz
