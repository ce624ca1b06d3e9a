// Writing trace lines: a Line asks the tracer for a record once, formats into the
// record's own 512-byte buffer (growing into a private one only when a line is long)
// and commits on destruction. Everything here is noexcept: a failure to allocate
// while formatting ends the process rather than escape into the caller.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "framework/qeb/objptr.h"
#include "interfaces/qeb/tracer.h"

namespace qeb::trace {

enum class NumberBase : uint8_t { Dec, Hex, Oct };

// Manipulators understood by Line.
struct HexManip {};
struct DecManip {};
struct OctManip {};
inline constexpr HexManip hex{};
inline constexpr DecManip dec{};
inline constexpr OctManip oct{};

// A result code printed in its text form: 0x80000046 (Invalid argument).
struct ResultValue {
  result_t value;
};
inline ResultValue AsResult(result_t r) noexcept { return {r}; }

class Line {
 public:
  static constexpr size_t InitialCapacity = 512;

  Line(ITracer* tracer, uint32_t level) noexcept;
  template <class T>
  Line(const objptr_t<T>& tracer, uint32_t level) noexcept : Line(tracer.Get(), level) {}
  ~Line();
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  explicit operator bool() const noexcept { return m_record != nullptr; }

  Line& Append(const char* data, size_t size) noexcept;
  Line& operator<<(std::string_view s) noexcept { return Append(s.data(), s.size()); }
  Line& operator<<(const std::string& s) noexcept { return Append(s.data(), s.size()); }
  Line& operator<<(const char* s) noexcept;  // null prints "(null)"
  Line& operator<<(char c) noexcept { return Append(&c, 1); }
  Line& operator<<(std::u16string_view s) noexcept;  // converted to UTF-8
  Line& operator<<(const std::u16string& s) noexcept { return *this << std::u16string_view(s); }
  // Without this a wide literal would take the bool overload.
  Line& operator<<(const char16_t* s) noexcept {
    return s ? *this << std::u16string_view(s) : *this << "(null)";
  }
  Line& operator<<(bool b) noexcept { return AppendUnsigned(b ? 1 : 0); }
  Line& operator<<(double v) noexcept;
  Line& operator<<(ResultValue r) noexcept;
  Line& operator<<(std::nullptr_t) noexcept { return *this << std::string_view("null"); }
  Line& operator<<(HexManip) noexcept { m_base = NumberBase::Hex; return *this; }
  Line& operator<<(DecManip) noexcept { m_base = NumberBase::Dec; return *this; }
  Line& operator<<(OctManip) noexcept { m_base = NumberBase::Oct; return *this; }

  template <class T>
    requires(std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>)
  Line& operator<<(T v) noexcept {
    if constexpr (std::is_signed_v<T>) {
      // Hexadecimal and octal show the value's own two's-complement width.
      if (m_base != NumberBase::Dec) return AppendUnsigned(static_cast<std::make_unsigned_t<T>>(v));
      return AppendSigned(static_cast<int64_t>(v));
    } else {
      return AppendUnsigned(static_cast<uint64_t>(v));
    }
  }

  NumberBase Base() const noexcept { return m_base; }
  void SetPrecision(int precision) noexcept { m_precision = precision; }
  void SetWidth(int width) noexcept { m_width = width; }
  std::string_view Text() const noexcept { return {m_data, m_size}; }

  Line& AppendSigned(int64_t v) noexcept;
  Line& AppendUnsigned(uint64_t v) noexcept;
  // C formats "%*.*f" (fixed) or "%*.*e" (scientific) with the line's width and precision.
  Line& AppendFloat(double v, bool scientific) noexcept;

 private:
  void Grow(size_t needed) noexcept;

  objptr_t<ITracer> m_tracer;  // held while a record is open: the caller's may be a temporary
  ITraceRecord* m_record = nullptr;
  char* m_data = nullptr;
  size_t m_size = 0;
  size_t m_capacity = 0;
  std::string m_grown;  // used once the record's buffer is too small
  NumberBase m_base = NumberBase::Dec;
  int m_precision = 6;
  int m_width = 0;
};

// True when the tracer would accept a line at this level (costs one record request).
bool IsEnabled(ITracer* tracer, uint32_t level) noexcept;

}  // namespace qeb::trace

// QEB_TRACE(tracer, level) << ... ; formats nothing when the level is off.
#define QEB_TRACE(tracer, level)                                                     \
  if (::qeb::trace::Line qeb_trace_line_{(tracer), (level)}; !qeb_trace_line_) { \
  } else                                                                             \
    qeb_trace_line_

// A failed checked call written at error level: file:line(expression),(QEB_SUCCEEDED(_result))
// failed: result = <result text>, then whatever the caller appends. result_var receives expr.
#define QEB_CHECK_TRACE(tracer, result_var, expr) \
  QEB_CHECK_TRACE_AT(tracer, result_var, expr, #expr, __FILE__, __LINE__)

// The same with the expression text and source position given: for failures that log
// readers match by a position that must not move with edits of the file.
#define QEB_CHECK_TRACE_AT(tracer, result_var, expr, text, file, lineNo)               \
  if (((result_var) = (expr)), QEB_SUCCEEDED(result_var)) {                          \
  } else if (::qeb::trace::Line qeb_check_line_{(tracer), ::qeb::trace::LevelError}; \
             !qeb_check_line_) {                                                     \
  } else                                                                             \
    ::qeb::trace::CheckFailedPrefix(qeb_check_line_, (file), (lineNo), (text), (result_var))

// A failed condition written the same way, with its own result text (such as "false").
#define QEB_CONDITION_TRACE(tracer, cond, result_text)                                 \
  if (cond) {                                                                         \
  } else if (::qeb::trace::Line qeb_check_line_{(tracer), ::qeb::trace::LevelError}; \
             !qeb_check_line_) {                                                     \
  } else                                                                             \
    ::qeb::trace::ConditionFailedPrefix(qeb_check_line_, __FILE__, __LINE__, #cond, (result_text))

namespace qeb::trace {
Line& CheckFailedPrefix(Line& line, const char* file, unsigned lineNo, const char* expression,
                        result_t result) noexcept;
Line& ConditionFailedPrefix(Line& line, const char* file, unsigned lineNo,
                            const char* expression, const char* resultText) noexcept;
}  // namespace qeb::trace
