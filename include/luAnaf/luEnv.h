// Environment companion module: error reports, log records, file helpers and
// string formatting. The library prints nothing except through these sinks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include <luAnaf/luExport.h>

// One failure report. Built by sendError and handed to the current error sink.
struct LuErrorReport {
  int severity;             // always 5
  int line;                 // the fixed line number of the report
  std::wstring source;      // L"LuAfxsCreateIface" or L"LuAfxsUserIface"
  std::wstring buildDate;   // like L"Feb  4 2016"
  uint32_t code;            // 0xC41B00nn
  std::wstring path;        // the file concerned
  bool hasSystemText;       // true only for 0xc41b0008
  std::wstring systemText;  // the runtime's text for errno, when present
};

// One log line. Built by writeLogF and handed to the current log sink.
struct LuLogRecord {
  int level;  // 0 progress, 5 failure
  int line;
  std::wstring source;
  std::wstring buildDate;
  std::wstring message;  // the format already applied to its arguments
};

using LuErrorSink = std::function<void(const LuErrorReport&)>;
using LuLogSink = std::function<void(const LuLogRecord&)>;

// Install a sink and get the previous one back. An empty function restores
// the default: error reports and level-5 log records as one line on standard
// error, level 0 dropped. With the environment variable LUANAF_LOG set to
// "stderr" or to a file path, the default log sink writes every level there.
LUANAF_API LuErrorSink luEnvSetErrorSink(LuErrorSink sink);
LUANAF_API LuLogSink luEnvSetLogSink(LuLogSink sink);

// Builds one error report and hands it to the current sink. systemText is
// given only with 0xc41b0008 (null elsewhere).
LUANAF_API void sendError(int severity, int line, const wchar_t* source, const wchar_t* buildDate,
                          uint32_t code, const wchar_t* path, const wchar_t* systemText = nullptr);

// Builds one log record from a wide printf-style format and hands it to the
// current sink. The format is applied by the library itself, so the text is
// the same on every platform: %d %i %u %x %X %c %f %e %g with the usual
// flags, width, precision and the l, ll, z length modifiers; %s and %ls take
// a wide string; %% a percent sign.
LUANAF_API void writeLogF(int level, int line, const wchar_t* source, const wchar_t* buildDate,
                          const wchar_t* format, ...);

// The build date of the library, the compiler's __DATE__ widened ("Feb  4 2016").
LUANAF_API const wchar_t* luEnvBuildDate();

// File helpers on wide paths (UTF-8 on POSIX file systems).
LUANAF_API bool LuFileExist(const wchar_t* path);
// Refuses, and leaves the file, when the owner-write bit is clear.
LUANAF_API bool LuDeleteFile(const wchar_t* path);
// With flags 0, fails and moves nothing when `to` exists. Flag 1
// (LU_MOVEFILE_REPLACE_EXISTING) replaces an existing target.
LUANAF_API bool LuMoveFile(const wchar_t* from, const wchar_t* to, uint32_t flags);
constexpr uint32_t LU_MOVEFILE_REPLACE_EXISTING = 1;

class LUANAF_API LuFileName {
public:
  // Forms the path of cross-section file `number` of the series `name` into
  // `buffer` (capacity wide characters, NUL included):
  //   kind 1:  "<name>_XS<number>.afxs"   e.g. L"scan_XS7.afxs"
  // The number is printed in decimal without padding. Any other kind, a null
  // name or buffer, or a result that does not fit (the buffer then holds an
  // empty string) gives false.
  static bool XSFile(const wchar_t* name, uint32_t number, uint32_t kind, wchar_t* buffer,
                     size_t capacity);
};

class LUANAF_API LuStrFrmt {
public:
  // printf-style formatting into a narrow string (the C library's rules).
  static std::string format(const char* format, ...) LUANAF_PRINTF_FORMAT(1, 2);
};
