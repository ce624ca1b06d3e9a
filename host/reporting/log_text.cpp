// A byte-wise UTF-8 decoder that accepts only the shortest form of scalar values, so an
// overlong encoding of a newline or a surrogate is escaped byte by byte like any other
// invalid input.
#include "host/reporting/log_text.h"

#include <cstdint>
#include <cstdio>

namespace oasd {
namespace {

void AppendHex(std::string& out, const char* format, unsigned value) {
  char text[8];
  snprintf(text, sizeof text, format, value);
  out += text;
}

// The length of the valid UTF-8 sequence at text[at] and its scalar value; 0 when invalid.
size_t DecodeOne(std::string_view text, size_t at, uint32_t& scalar) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
  const uint8_t lead = byte(0);
  size_t length;
  uint32_t minimum;
  if (lead >= 0xC2 && lead <= 0xDF) length = 2, minimum = 0x80, scalar = lead & 0x1F;
  else if (lead >= 0xE0 && lead <= 0xEF) length = 3, minimum = 0x800, scalar = lead & 0x0F;
  else if (lead >= 0xF0 && lead <= 0xF4) length = 4, minimum = 0x10000, scalar = lead & 0x07;
  else return 0;
  if (at + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    scalar = (scalar << 6) | (byte(i) & 0x3F);
  }
  if (scalar < minimum || scalar > 0x10FFFF || (scalar >= 0xD800 && scalar <= 0xDFFF)) return 0;
  return length;
}

}  // namespace

std::string EscapeLogText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const auto c = static_cast<uint8_t>(text[at]);
    if (c >= 0x20 && c < 0x7F) {
      if (c == '\\') out += '\\';
      out += static_cast<char>(c);
      ++at;
    } else if (c == '\n') {
      out += "\\n", ++at;
    } else if (c == '\r') {
      out += "\\r", ++at;
    } else if (c == '\t') {
      out += "\\t", ++at;
    } else if (uint32_t scalar = 0; const size_t length = DecodeOne(text, at, scalar)) {
      if (scalar <= 0x9F || scalar == 0x2028 || scalar == 0x2029) AppendHex(out, "\\u%04X", scalar);
      else out.append(text.substr(at, length));
      at += length;
    } else {
      AppendHex(out, "\\x%02X", c);
      ++at;
    }
  }
  return out;
}

}  // namespace oasd
