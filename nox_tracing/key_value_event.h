// Key/value event records and their text forms in traces. A KeyValueEvent owns its
// named fields in insertion order; formatting reads it and returns or appends text,
// never keeping anything but the process-wide escape table, built on first use.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "framework/qeb/datetime.h"
#include "nox_tracing/tracing.h"

namespace qeb::trace {

// A date field, printed in local time; an empty format means the default one.
struct DateField {
  datetime::time_t time;
  std::string format;
};

// A field whose value could not be read; it prints as "<CORRUPTED>".
struct CorruptedField {};

using KeyValueFieldValue =
    std::variant<std::string, std::u16string, int64_t, uint64_t, DateField, CorruptedField>;

struct KeyValueField {
  std::string name;
  KeyValueFieldValue value;
};

inline constexpr std::string_view kEventTypeField = "EventType";

class KeyValueEvent {
 public:
  KeyValueEvent() = default;
  // Starts the record with its "EventType" field.
  explicit KeyValueEvent(std::string_view eventType);

  // Replaces a field of the same name, else appends.
  void Set(std::string_view name, KeyValueFieldValue value);
  const KeyValueField* Find(std::string_view name) const noexcept;

  auto begin() const noexcept { return m_fields.begin(); }
  auto end() const noexcept { return m_fields.end(); }
  bool Empty() const noexcept { return m_fields.empty(); }

 private:
  std::vector<KeyValueField> m_fields;
};

// 0: name=value lines; 1: {"name": "value",...} with escaped values; 2: name=value blank-separated.
enum class KeyValueStyle : uint8_t { Lines = 0, Quoted = 1, Blanks = 2 };

// Escaped values longer than this are cut in the middle in the quoted style.
inline constexpr size_t kMaxWholeEscapedValue = 2006;
inline constexpr size_t kCutHeadBytes = 1004;
inline constexpr size_t kCutTailBytes = 1003;

// The seven escapes of the quoted style; other bytes are copied as they are.
std::string EscapeValue(std::string_view value);

std::string FormatKeyValueEvent(const KeyValueEvent& event, KeyValueStyle style);

struct KeyValueText {
  const KeyValueEvent& event;
  KeyValueStyle style;
};
inline KeyValueText AsKeyValues(const KeyValueEvent& event, KeyValueStyle style) noexcept {
  return {event, style};
}

Line& operator<<(Line& line, const KeyValueText& text) noexcept;

}  // namespace qeb::trace
