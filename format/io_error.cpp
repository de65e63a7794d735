#include "format/io_error.h"

#include <luAnaf/luEnv.h>

#include "platform/lu_io.h"

namespace afxs {

void report(const ErrorSite& site, const wchar_t* source, const std::wstring& path) {
  sendError(5, site.line, source, luEnvBuildDate(), site.code, path.c_str());
}

void reportWithSystemText(const ErrorSite& site, const wchar_t* source, const std::wstring& path,
                          int errnum) {
  std::wstring text = luio::systemErrorText(errnum);
  sendError(5, site.line, source, luEnvBuildDate(), site.code, path.c_str(), text.c_str());
}

}  // namespace afxs
