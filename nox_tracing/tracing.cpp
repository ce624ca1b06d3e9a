// The line writer. A Line owns its record from the tracer's CreateRecord until the
// commit in its destructor; the text lives in the record's buffer until it outgrows
// it, then in m_grown, whose pointer is what the commit hands over.
#include "nox_tracing/tracing.h"

#include <cstdio>
#include <cstring>

#include "framework/qeb/exception.h"
#include "framework/qeb/result_text.h"
#include "framework/qeb/utf.h"
#include "nox_tracing/prefix_tracer.h"

namespace qeb::trace {

Line::Line(ITracer* tracer, uint32_t level) noexcept {
  if (!tracer) return;
  ITraceRecord* record = nullptr;
  if (QEB_FAILED(tracer->CreateRecord(level, &record)) || !record) {
    if (record) record->Release();
    return;
  }
  size_t capacity = 0;
  char* buffer = record->Buffer(&capacity);
  if (!buffer || capacity == 0) {
    // A record without a buffer of its own: write into ours from the start.
    m_grown.resize(InitialCapacity);
    buffer = m_grown.data();
    capacity = m_grown.size();
  }
  m_tracer = objptr_t<ITracer>(tracer);
  m_record = record;
  m_data = buffer;
  m_capacity = capacity;
}

Line::~Line() {
  if (!m_record) return;
  m_tracer->CommitRecord(m_record, m_data, m_size);
  m_record->Release();
}

void Line::Grow(size_t needed) noexcept {
  // Doubling, or straight to the needed size when doubling is not enough. The grown
  // buffer is kept sized to its full capacity so that text written past the old end
  // is never overwritten by a later resize.
  const size_t doubled = (m_capacity ? m_capacity : InitialCapacity) * 2;
  const size_t capacity = needed > doubled ? needed : doubled;
  if (m_data == m_grown.data()) {
    m_grown.resize(capacity);
  } else {
    std::string grown(capacity, '\0');
    std::memcpy(grown.data(), m_data, m_size);
    m_grown.swap(grown);
  }
  m_data = m_grown.data();
  m_capacity = m_grown.size();
}

Line& Line::Append(const char* data, size_t size) noexcept {
  if (!m_record || size == 0) return *this;
  if (m_size + size > m_capacity) Grow(m_size + size);
  std::memcpy(m_data + m_size, data, size);
  m_size += size;
  return *this;
}

Line& Line::operator<<(const char* s) noexcept {
  if (!s) return *this << std::string_view("(null)");
  return Append(s, std::strlen(s));
}

Line& Line::operator<<(std::u16string_view s) noexcept {
  if (!m_record) return *this;
  std::string narrow;
  AppendUtf16AsUtf8(narrow, s);
  return Append(narrow.data(), narrow.size());
}

Line& Line::operator<<(double v) noexcept { return AppendFloat(v, false); }

Line& Line::operator<<(ResultValue r) noexcept {
  if (!m_record) return *this;
  std::string text;
  AppendResultText(text, r.value);
  return Append(text.data(), text.size());
}

Line& Line::AppendUnsigned(uint64_t v) noexcept {
  if (!m_record) return *this;
  char buf[32];
  const char* prefix = "";
  const char* format = "%llu";
  if (m_base == NumberBase::Hex) {
    prefix = "0x";
    format = "%llx";
  } else if (m_base == NumberBase::Oct) {
    prefix = v ? "0" : "";
    format = "%llo";
  }
  const int n = std::snprintf(buf, sizeof buf, format, static_cast<unsigned long long>(v));
  Append(prefix, std::strlen(prefix));
  return Append(buf, static_cast<size_t>(n));
}

Line& Line::AppendSigned(int64_t v) noexcept {
  if (!m_record) return *this;
  if (m_base != NumberBase::Dec) {
    // Like a stream in hex or octal mode: the two's-complement bits, never a sign.
    return AppendUnsigned(static_cast<uint64_t>(v));
  }
  char buf[32];
  const int n = std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v));
  return Append(buf, static_cast<size_t>(n));
}

Line& Line::AppendFloat(double v, bool scientific) noexcept {
  if (!m_record) return *this;
  char buf[512];
  int n = std::snprintf(buf, sizeof buf, scientific ? "%*.*e" : "%*.*f", m_width, m_precision, v);
  if (n < 0) return *this;
  if (static_cast<size_t>(n) >= sizeof buf) {
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), scientific ? "%*.*e" : "%*.*f", m_width, m_precision, v);
    return Append(big.data(), static_cast<size_t>(n));
  }
  return Append(buf, static_cast<size_t>(n));
}

bool IsEnabled(ITracer* tracer, uint32_t level) noexcept {
  if (!tracer) return false;
  ITraceRecord* record = nullptr;
  const result_t r = tracer->CreateRecord(level, &record);
  if (record) record->Release();
  return QEB_SUCCEEDED(r) && record != nullptr;
}

Line& CheckFailedPrefix(Line& line, const char* file, unsigned lineNo, const char* expression,
                        result_t result) noexcept {
  return line << SourceName(file) << ':' << lineNo << '(' << expression << "),(" << "QEB_SUCCEEDED(_result)"
              << ") failed: " << "result = " << AsResult(result);
}

Line& ConditionFailedPrefix(Line& line, const char* file, unsigned lineNo, const char* expression,
                            const char* resultText) noexcept {
  return line << SourceName(file) << ':' << lineNo << '(' << expression << ") failed: " << "result = "
              << resultText;
}

// Log readers find a failed lookup of the host tracer by this fixed position.
constexpr unsigned kMakePrefixTracerLine = 107;

objptr_t<ITracer> MakePrefixTracer(IServiceLocator* sl, std::string_view prefix) {
  objptr_t<ITracer> host;
  result_t r = GetInterface(sl, 0, host.Ref());
  if (QEB_SUCCEEDED(r) && !host) r = res::NoInterface;
  if (QEB_FAILED(r)) throw CheckResultFailedException(__FILE__, kMakePrefixTracerLine, r);
  return PrefixTracer::Create(host.Get(), prefix);
}

}  // namespace qeb::trace
