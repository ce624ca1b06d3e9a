// UTF-8 and UTF-16 conversions for the wide texts the host interfaces carry.
// Invalid input never fails: a malformed sequence becomes U+FFFD.
#pragma once

#include <string>
#include <string_view>

namespace qeb {

std::u16string Utf8ToUtf16(std::string_view in);
std::string Utf16ToUtf8(std::u16string_view in);
void AppendUtf16AsUtf8(std::string& out, std::u16string_view in);

}  // namespace qeb
