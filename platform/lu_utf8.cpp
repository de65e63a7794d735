#include <luAnaf/luUtf8.h>

#include <cstdint>

namespace {

constexpr uint32_t kEscapeBase = 0xDC00;  // U+DC80..U+DCFF escape bytes 0x80..0xFF

bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// The length of the well-formed sequence that starts at text[i] and its
// code point; 0 when the byte starts none.
size_t decodeOne(std::string_view text, size_t i, uint32_t& code) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  size_t length = 0;
  uint32_t minimum = 0;
  if (lead < 0x80) {
    code = lead;
    return 1;
  } else if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, code = lead & 0x1F, minimum = 0x80;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, code = lead & 0x0F, minimum = 0x800;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, code = lead & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (text.size() - i < length) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char b = static_cast<unsigned char>(text[i + k]);
    if (!isContinuation(b)) return 0;
    code = (code << 6) | (b & 0x3F);
  }
  if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

void appendWide(std::wstring& out, uint32_t code) {
  if (sizeof(wchar_t) == 2 && code >= 0x10000) {
    code -= 0x10000;
    out += static_cast<wchar_t>(0xD800 + (code >> 10));
    out += static_cast<wchar_t>(0xDC00 + (code & 0x3FF));
  } else {
    out += static_cast<wchar_t>(code);
  }
}

void appendUtf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

}  // namespace

std::wstring luUtf8ToWide(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    uint32_t code = 0;
    const size_t length = decodeOne(text, i, code);
    if (length == 0) {
      code = kEscapeBase + static_cast<unsigned char>(text[i]);
      ++i;
    } else {
      i += length;
    }
    appendWide(out, code);
  }
  return out;
}

std::string luWideToUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = static_cast<uint32_t>(text[i]);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
      const uint32_t lo = static_cast<uint32_t>(text[i + 1]);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        appendUtf8(out, 0x10000 + ((c - 0xD800) << 10) + (lo - 0xDC00));
        ++i;
        continue;
      }
    }
    if (c >= kEscapeBase + 0x80 && c <= kEscapeBase + 0xFF)
      out += static_cast<char>(c - kEscapeBase);
    else if ((c >= 0xD800 && c <= 0xDFFF) || c > 0x10FFFF)
      out += '?';
    else
      appendUtf8(out, c);
  }
  return out;
}
