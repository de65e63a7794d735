// The one conversion between UTF-8 and wide strings of the project: the
// library uses it for every path it hands to a POSIX file system, and the
// tool and the bindings use it for the names they take from a command line.
//
// Every byte string survives the way in and out: a byte that does not start
// a well-formed UTF-8 sequence (a stray continuation byte, a sequence cut
// short, an overlong form, an encoded surrogate, a code point above
// U+10FFFF) becomes the lone surrogate U+DC80 + byte, and that surrogate
// becomes the same byte again on the way out. So a file name that is not
// valid UTF-8 can still be opened, and a truncated sequence never swallows
// the bytes after it.
#pragma once

#include <string>
#include <string_view>

#include <luAnaf/luExport.h>

// Decodes UTF-8 (surrogate pairs where wchar_t has 16 bits).
LUANAF_API std::wstring luUtf8ToWide(std::string_view text);
// Encodes as UTF-8; U+DC80..U+DCFF standing alone become the byte they
// escape, any other lone surrogate or value above U+10FFFF becomes '?'.
LUANAF_API std::string luWideToUtf8(std::wstring_view text);
