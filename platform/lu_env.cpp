// Error and log sinks, the library's own wide printf, file helpers.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>

#if defined(_WIN32)
#include <windows.h>
#endif

#include <luAnaf/luEnv.h>

#include "platform/lu_io.h"

namespace {

// The default sinks print to standard error; LUANAF_LOG redirects the log.
void defaultErrorSink(const LuErrorReport& r) {
  std::string line = "luAnaf: error 0x" + [&] {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%08x", r.code);
    return std::string(buf);
  }();
  line += " (" + luio::narrowPath(r.source) + ":" + std::to_string(r.line) + ") " +
          luio::narrowPath(r.path);
  if (r.hasSystemText) line += ": " + luio::narrowPath(r.systemText);
  std::fprintf(stderr, "%s\n", line.c_str());
}

void defaultLogSink(const LuLogRecord& r) {
  const char* target = std::getenv("LUANAF_LOG");
  std::string line = "luAnaf: [" + std::to_string(r.level) + "] " + luio::narrowPath(r.message);
  if (target != nullptr && *target != '\0') {
    if (std::strcmp(target, "stderr") == 0) {
      std::fprintf(stderr, "%s\n", line.c_str());
      return;
    }
    if (FILE* f = std::fopen(target, "a")) {
      std::fprintf(f, "%s\n", line.c_str());
      std::fclose(f);
      return;
    }
  }
  if (r.level >= 5) std::fprintf(stderr, "%s\n", line.c_str());
}

LuErrorSink& errorSink() {
  static LuErrorSink sink;
  return sink;
}
LuLogSink& logSink() {
  static LuLogSink sink;
  return sink;
}

// Reads one conversion's worth of flags, width, precision and length from
// `f`, and formats the argument with the C library's narrow snprintf, so that
// numbers print the same on every platform.
std::wstring formatWide(const wchar_t* f, va_list args) {
  std::wstring out;
  while (*f != L'\0') {
    if (*f != L'%') {
      out += *f++;
      continue;
    }
    const wchar_t* start = f++;
    if (*f == L'%') {
      out += L'%';
      ++f;
      continue;
    }
    std::string conversion = "%";
    while (*f && std::wcschr(L"-+ #0", *f)) conversion += static_cast<char>(*f++);
    if (*f == L'*') {
      conversion += std::to_string(va_arg(args, int));
      ++f;
    }
    while (*f >= L'0' && *f <= L'9') conversion += static_cast<char>(*f++);
    if (*f == L'.') {
      conversion += static_cast<char>(*f++);
      if (*f == L'*') {
        conversion += std::to_string(va_arg(args, int));
        ++f;
      }
      while (*f >= L'0' && *f <= L'9') conversion += static_cast<char>(*f++);
    }
    int longs = 0;
    bool sizeT = false;
    while (*f == L'l' || *f == L'z' || *f == L'h') {
      if (*f == L'l') ++longs;
      if (*f == L'z') sizeT = true;
      ++f;
    }
    wchar_t conv = *f;
    if (conv == L'\0') {
      out.append(start);
      break;
    }
    ++f;
    char buf[512];
    buf[0] = '\0';
    switch (conv) {
      case L'd':
      case L'i': {
        long long v = sizeT ? static_cast<long long>(va_arg(args, size_t))
                    : longs >= 2 ? va_arg(args, long long)
                    : longs == 1 ? va_arg(args, long)
                                 : va_arg(args, int);
        std::snprintf(buf, sizeof buf, (conversion + "lld").c_str(), v);
        break;
      }
      case L'u':
      case L'x':
      case L'X':
      case L'o': {
        unsigned long long v = sizeT ? va_arg(args, size_t)
                             : longs >= 2 ? va_arg(args, unsigned long long)
                             : longs == 1 ? va_arg(args, unsigned long)
                                          : va_arg(args, unsigned int);
        std::snprintf(buf, sizeof buf, (conversion + "ll" + static_cast<char>(conv)).c_str(), v);
        break;
      }
      case L'f':
      case L'F':
      case L'e':
      case L'E':
      case L'g':
      case L'G': {
        double v = va_arg(args, double);
        std::snprintf(buf, sizeof buf, (conversion + static_cast<char>(conv)).c_str(), v);
        break;
      }
      case L'c':
        out += static_cast<wchar_t>(va_arg(args, int));
        continue;
      case L's': {
        const wchar_t* s = va_arg(args, const wchar_t*);
        out += s != nullptr ? s : L"(null)";
        continue;
      }
      default:
        out.append(start, f);
        continue;
    }
    out += luio::widen(buf);
  }
  return out;
}

}  // namespace

LuErrorSink luEnvSetErrorSink(LuErrorSink sink) {
  LuErrorSink previous = std::move(errorSink());
  errorSink() = std::move(sink);
  return previous;
}

LuLogSink luEnvSetLogSink(LuLogSink sink) {
  LuLogSink previous = std::move(logSink());
  logSink() = std::move(sink);
  return previous;
}

void sendError(int severity, int line, const wchar_t* source, const wchar_t* buildDate,
               uint32_t code, const wchar_t* path, const wchar_t* systemText) {
  LuErrorReport report{severity,
                       line,
                       source ? source : L"",
                       buildDate ? buildDate : L"",
                       code,
                       path ? path : L"",
                       systemText != nullptr,
                       systemText ? systemText : L""};
  if (errorSink()) {
    errorSink()(report);
  } else {
    defaultErrorSink(report);
  }
}

void writeLogF(int level, int line, const wchar_t* source, const wchar_t* buildDate,
               const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  LuLogRecord record{level, line, source ? source : L"", buildDate ? buildDate : L"",
                     format ? formatWide(format, args) : std::wstring()};
  va_end(args);
  if (logSink()) {
    logSink()(record);
  } else {
    defaultLogSink(record);
  }
}

const wchar_t* luEnvBuildDate() {
  static const std::wstring date = luio::widen(__DATE__);
  return date.c_str();
}

bool LuFileExist(const wchar_t* path) {
  luio::FileStatus st;
  return path != nullptr && luio::status(path, st);
}

bool LuDeleteFile(const wchar_t* path) {
  if (path == nullptr) return false;
  luio::FileStatus st;
  if (!luio::status(path, st)) return false;
  // A read-only file is refused, as the platform this format comes from does.
  if ((st.mode & 0x80) == 0) return false;
#if defined(_WIN32)
  return DeleteFileW(path) != 0;
#else
  return std::remove(luio::narrowPath(path).c_str()) == 0;
#endif
}

bool LuMoveFile(const wchar_t* from, const wchar_t* to, uint32_t flags) {
  if (from == nullptr || to == nullptr) return false;
#if defined(_WIN32)
  DWORD winFlags = (flags & LU_MOVEFILE_REPLACE_EXISTING) ? MOVEFILE_REPLACE_EXISTING : 0;
  return MoveFileExW(from, to, winFlags) != 0;
#else
  if (!LuFileExist(from)) return false;
  if ((flags & LU_MOVEFILE_REPLACE_EXISTING) == 0 && LuFileExist(to)) return false;
  return std::rename(luio::narrowPath(from).c_str(), luio::narrowPath(to).c_str()) == 0;
#endif
}

bool LuFileName::XSFile(const wchar_t* name, uint32_t number, uint32_t kind, wchar_t* buffer,
                        size_t capacity) {
  if (buffer == nullptr || capacity == 0) return false;
  buffer[0] = L'\0';
  if (name == nullptr || kind != 1) return false;
  std::wstring path = std::wstring(name) + L"_XS" + std::to_wstring(number) + L".afxs";
  if (path.size() + 1 > capacity) return false;
  std::wmemcpy(buffer, path.c_str(), path.size() + 1);
  return true;
}

std::string LuStrFrmt::format(const char* format, ...) {
  if (format == nullptr) return {};
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  char small[256];
  int n = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  std::string out;
  if (n < 0) {
    out.clear();
  } else if (static_cast<size_t>(n) < sizeof small) {
    out.assign(small, static_cast<size_t>(n));
  } else {
    out.resize(static_cast<size_t>(n) + 1);
    std::vsnprintf(out.data(), out.size(), format, copy);
    out.resize(static_cast<size_t>(n));
  }
  va_end(copy);
  return out;
}
