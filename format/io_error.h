// The library's one internal failure: every failed low-level file operation
// throws it, and each public operation catches it at its boundary, reports
// once and returns false. It never leaves the library.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "format/format.h"

namespace CommonIOHelp {
class io_err {};
}  // namespace CommonIOHelp

namespace afxs {

[[noreturn]] inline void fail() { throw CommonIOHelp::io_err(); }

// Reports one error through sendError with the library's build date.
void report(const ErrorSite& site, const wchar_t* source, const std::wstring& path);
// The same with the runtime's text for the current errno (0xc41b0008 only).
void reportWithSystemText(const ErrorSite& site, const wchar_t* source, const std::wstring& path,
                          int errnum);

}  // namespace afxs
