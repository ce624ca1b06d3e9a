// Key/value event formatting through Boost.Format. Field values become text first
// (dates through DateToText, whose errors print in place of the date); in the quoted
// style they are escaped and, when long, cut to their head and tail. The cut-out
// count is the escaped length minus kMaxWholeEscapedValue, one more than the bytes
// actually dropped: readers of these lines depend on that figure as it is.
#include "nox_tracing/key_value_event.h"

#include <array>
#include <boost/format.hpp>
#include <type_traits>

#include "framework/qeb/exception.h"
#include "framework/qeb/utf.h"
#include "nox_tracing/date_text.h"

namespace qeb::trace {
namespace {

constexpr std::string_view kCorrupted = "<CORRUPTED>";

using EscapeTable = std::array<std::string_view, 256>;

const EscapeTable& Escapes() {
  static const EscapeTable table = [] {
    EscapeTable t{};
    t[static_cast<unsigned char>('\b')] = "\\b";
    t[static_cast<unsigned char>('\f')] = "\\f";
    t[static_cast<unsigned char>('\n')] = "\\n";
    t[static_cast<unsigned char>('\r')] = "\\r";
    t[static_cast<unsigned char>('\t')] = "\\t";
    t[static_cast<unsigned char>('"')] = "\\\"";
    t[static_cast<unsigned char>('\\')] = "\\\\";
    return t;
  }();
  return table;
}

std::string DateFieldText(const DateField& date) {
  try {
    return DateToText(date.time, date.format.empty() ? nullptr : date.format.c_str());
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const exception& e) {
    const char* text = e.Text();
    return text ? text : "(null)";
  } catch (const std::exception& e) {
    return e.what();
  }
}

std::string ValueText(const KeyValueFieldValue& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using V = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<V, std::string>) return v;
        else if constexpr (std::is_same_v<V, std::u16string>) return Utf16ToUtf8(v);
        else if constexpr (std::is_same_v<V, DateField>) return DateFieldText(v);
        else if constexpr (std::is_same_v<V, CorruptedField>) return std::string(kCorrupted);
        else return std::to_string(v);
      },
      value);
}

std::string QuotedField(const std::string& name, const std::string& value) {
  const std::string escaped = EscapeValue(value);
  if (escaped.size() <= kMaxWholeEscapedValue) {
    return (boost::format("\"%1%\": \"%2%\"") % name % escaped).str();
  }
  return (boost::format("\"%1%\": \"%2%...<Cut out %3% bytes>...%4%\"") % name %
          escaped.substr(0, kCutHeadBytes) % (escaped.size() - kMaxWholeEscapedValue) %
          escaped.substr(escaped.size() - kCutTailBytes))
      .str();
}

std::string FieldText(const KeyValueField& field, KeyValueStyle style) {
  const std::string value = ValueText(field.value);
  if (style == KeyValueStyle::Quoted) return QuotedField(field.name, value);
  return (boost::format("%1%=%2%") % field.name % value).str();
}

std::string_view Separator(KeyValueStyle style) noexcept {
  switch (style) {
    case KeyValueStyle::Lines: return "\n";
    case KeyValueStyle::Quoted: return ",";
    case KeyValueStyle::Blanks: return " ";
  }
  return " ";
}

}  // namespace

KeyValueEvent::KeyValueEvent(std::string_view eventType) {
  Set(kEventTypeField, std::string(eventType));
}

void KeyValueEvent::Set(std::string_view name, KeyValueFieldValue value) {
  for (KeyValueField& f : m_fields) {
    if (f.name == name) {
      f.value = std::move(value);
      return;
    }
  }
  m_fields.push_back({std::string(name), std::move(value)});
}

const KeyValueField* KeyValueEvent::Find(std::string_view name) const noexcept {
  for (const KeyValueField& f : m_fields)
    if (f.name == name) return &f;
  return nullptr;
}

std::string EscapeValue(std::string_view value) {
  const EscapeTable& table = Escapes();
  std::string out;
  out.reserve(value.size());
  for (const char c : value) {
    const std::string_view escape = table[static_cast<unsigned char>(c)];
    if (escape.empty()) out.push_back(c);
    else out.append(escape);
  }
  return out;
}

std::string FormatKeyValueEvent(const KeyValueEvent& event, KeyValueStyle style) {
  std::string out;
  if (style == KeyValueStyle::Quoted) out.push_back('{');
  bool first = true;
  for (const KeyValueField& field : event) {
    if (!first) out.append(Separator(style));
    first = false;
    out.append(FieldText(field, style));
  }
  if (style == KeyValueStyle::Quoted) out.push_back('}');
  return out;
}

Line& operator<<(Line& line, const KeyValueText& text) noexcept {
  if (!line) return line;
  return line << FormatKeyValueEvent(text.event, text.style);
}

}  // namespace qeb::trace
