// Hand-rolled on purpose: std::wstring_convert is deprecated, and these run on trace
// and cache paths where a locale-dependent converter would be both slow and fragile.
#include "framework/qeb/utf.h"

#include <cstdint>

namespace qeb {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point starting at in[i]; advances i past what it consumed.
char32_t DecodeUtf8(std::string_view in, size_t& i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(in[k]); };
  const unsigned char b0 = byte(i);
  if (b0 < 0x80) {
    ++i;
    return b0;
  }
  size_t len = 0;
  char32_t cp = 0;
  char32_t min = 0;
  if ((b0 & 0xE0) == 0xC0) { len = 2; cp = b0 & 0x1F; min = 0x80; }
  else if ((b0 & 0xF0) == 0xE0) { len = 3; cp = b0 & 0x0F; min = 0x800; }
  else if ((b0 & 0xF8) == 0xF0) { len = 4; cp = b0 & 0x07; min = 0x10000; }
  else { ++i; return kReplacement; }
  if (i + len > in.size()) { ++i; return kReplacement; }
  for (size_t k = 1; k < len; ++k) {
    const unsigned char b = byte(i + k);
    if ((b & 0xC0) != 0x80) { ++i; return kReplacement; }
    cp = (cp << 6) | (b & 0x3F);
  }
  i += len;
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return kReplacement;
  return cp;
}

void AppendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view in) {
  std::u16string out;
  out.reserve(in.size());
  for (size_t i = 0; i < in.size();) {
    const char32_t cp = DecodeUtf8(in, i);
    if (cp >= 0x10000) {
      const char32_t v = cp - 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 | (v >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 | (v & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(cp));
    }
  }
  return out;
}

void AppendUtf16AsUtf8(std::string& out, std::u16string_view in) {
  for (size_t i = 0; i < in.size(); ++i) {
    char32_t cp = in[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < in.size() && in[i + 1] >= 0xDC00 &&
        in[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (in[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    AppendUtf8(out, cp);
  }
}

std::string Utf16ToUtf8(std::u16string_view in) {
  std::string out;
  out.reserve(in.size());
  AppendUtf16AsUtf8(out, in);
  return out;
}

}  // namespace qeb
