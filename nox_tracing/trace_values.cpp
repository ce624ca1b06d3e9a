// Value forms for trace lines. The property bag form is built as one text first and
// appended in a single step; values of a type the form does not know print their tag.
#include "nox_tracing/trace_values.h"

#include <cstdio>
#include <type_traits>
#include <variant>

#include "framework/qeb/utf.h"

namespace qeb::trace {
namespace {

void AppendHex32(std::string& out, uint32_t v) {
  char buf[16];
  const int n = std::snprintf(buf, sizeof buf, "0x%08x", static_cast<unsigned>(v));
  out.append(buf, static_cast<size_t>(n));
}

void AppendTypeTag(std::string& out, uint32_t tag) {
  out.append("<typeid=").append(std::to_string(tag)).append(">");
}

void AppendPropertyValue(std::string& out, const Property& p) {
  std::visit(
      [&](const auto& v) {
        using V = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<V, std::string>) {
          out.append(v);
        } else if constexpr (std::is_same_v<V, std::u16string>) {
          AppendUtf16AsUtf8(out, v);
        } else if constexpr (std::is_same_v<V, int32_t> || std::is_same_v<V, uint32_t>) {
          AppendHex32(out, static_cast<uint32_t>(v));
        } else {
          AppendTypeTag(out, p.TypeTag());
        }
      },
      p.value);
}

}  // namespace

std::string PropertyBagText(const PropertyBag& bag) {
  std::string out = "{";
  bool first = true;
  for (const Property& p : bag) {
    out.append(first ? "\"" : ", \"");
    first = false;
    out.append(std::string_view(p.name).substr(0, Property::MaxNameLength)).append("\":");
    AppendPropertyValue(out, p);
  }
  out.append("}");
  return out;
}

Line& operator<<(Line& line, const PropertyBag& bag) noexcept {
  if (!line) return line;
  return line << PropertyBagText(bag);
}

Line& operator<<(Line& line, Scientific v) noexcept { return line.AppendFloat(v.value, true); }

Line& operator<<(Line& line, Width w) noexcept {
  line.SetWidth(w.value);
  return line;
}

Line& operator<<(Line& line, Precision p) noexcept {
  line.SetPrecision(p.value);
  return line;
}

Line& operator<<(Line& line, UntypedValueHolder) noexcept {
  return line << std::string_view("anydescrptr_holder_t<void>");
}

}  // namespace qeb::trace
