// Shared by the fuzz targets: the input goes to a scratch file, and the
// library's reports and logs are silenced (they would only slow the run).
#pragma once

#include <unistd.h>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace lufuzz {

// The scratch file of one target process (and the ".tmp" beside it that a
// rewrite makes), removed when the process ends normally; a crash leaves it
// for a look.
inline std::string scratchPath(const char* tag) {
  struct Removal {
    std::vector<std::string> paths;
    ~Removal() {
      for (const std::string& path : paths) {
        std::remove(path.c_str());
        std::remove((path + ".tmp").c_str());
      }
    }
  };
  static Removal removal;
  const char* dir = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string path =
      std::string(dir) + "/luanaf-fuzz-" + tag + "-" + std::to_string(getpid()) + ".afxs";
  removal.paths.push_back(path);
  return path;
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
