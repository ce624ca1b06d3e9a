// Prefix tracer records. Each record wraps the inner tracer's record for the same
// level: when the inner buffer has room, the prefix is written at its start and the
// caller writes right behind it, so the usual line is committed in place with no copy.
// Otherwise (a very long prefix) the record lends its own 512 bytes, and the commit
// joins prefix and text, in the inner buffer when they fit there.
#include "nox_tracing/prefix_tracer.h"

#include <cstring>
#include <new>

#include "framework/qeb/exception.h"

namespace qeb::trace {
namespace {

constexpr size_t kLineCapacity = 512;
// Writing behind the prefix in the inner buffer pays off only with this much room left.
constexpr size_t kMinInPlaceRoom = 128;


class PrefixRecord : public object::Ifaces<ITraceRecord> {
 public:
  PrefixRecord(objptr_t<ITraceRecord> inner, std::string_view prefix) noexcept
      : m_inner(std::move(inner)) {
    size_t capacity = 0;
    char* buffer = m_inner->Buffer(&capacity);
    if (!buffer) capacity = 0;
    m_innerBuffer = buffer;
    m_innerCapacity = capacity;
    if (buffer && capacity >= prefix.size() + kMinInPlaceRoom) {
      std::memcpy(buffer, prefix.data(), prefix.size());
      m_prefixWritten = prefix.size();
      m_inPlace = true;
    }
  }

  char* Buffer(size_t* capacity) noexcept override {
    if (m_inPlace) {
      *capacity = m_innerCapacity - m_prefixWritten;
      return m_innerBuffer + m_prefixWritten;
    }
    *capacity = sizeof m_own;
    return m_own;
  }

  result_t CommitTo(ITracer* tracer, std::string_view prefix, const char* text,
                    size_t length) noexcept {
    if (!text) length = 0;
    if (m_inPlace && text == m_innerBuffer + m_prefixWritten &&
        m_prefixWritten + length <= m_innerCapacity) {
      return tracer->CommitRecord(m_inner.Get(), m_innerBuffer, m_prefixWritten + length);
    }
    if (m_innerBuffer && prefix.size() + length <= m_innerCapacity) {
      // Text first: it may sit anywhere, even inside the inner buffer.
      if (length) std::memmove(m_innerBuffer + prefix.size(), text, length);
      std::memcpy(m_innerBuffer, prefix.data(), prefix.size());
      return tracer->CommitRecord(m_inner.Get(), m_innerBuffer, prefix.size() + length);
    }
    return CommitJoined(tracer, prefix, text, length);
  }

 private:
  result_t CommitJoined(ITracer* tracer, std::string_view prefix, const char* text,
                        size_t length) noexcept {
    try {
      std::string joined;
      joined.reserve(prefix.size() + length);
      joined.append(prefix).append(text ? text : "", length);
      return tracer->CommitRecord(m_inner.Get(), joined.data(), joined.size());
    } catch (const std::bad_alloc&) {
      return res::OutOfMemory;
    }
  }

  objptr_t<ITraceRecord> m_inner;
  char* m_innerBuffer = nullptr;
  size_t m_innerCapacity = 0;
  size_t m_prefixWritten = 0;
  bool m_inPlace = false;
  char m_own[kLineCapacity];
};

bool EndsWithScope(std::string_view prefix) noexcept {
  return prefix.size() >= 2 && prefix.substr(prefix.size() - 2) == "::";
}

// One flattening step: the tracer under t and t's prefix, when t may be looked through.
bool LookThrough(ITracer* t, objptr_t<ITracer>& inner, std::string& prefix) {
  objptr_t<IPrefixTracer> asPrefix;
  if (QEB_FAILED(QueryInterface(t, asPrefix.Ref())) || !asPrefix) return false;
  const char* text = nullptr;
  size_t length = 0;
  if (QEB_FAILED(asPrefix->GetPrefix(&text, &length)) || !text) return false;
  const std::string_view own(text, length);
  if (!EndsWithScope(own)) return false;
  if (QEB_FAILED(asPrefix->GetInnerTracer(inner.Ref())) || !inner || inner.Get() == t) return false;
  prefix.insert(0, own);
  return true;
}

}  // namespace

PrefixTracer::PrefixTracer(objptr_t<ITracer> inner, std::string prefix) noexcept
    : m_inner(std::move(inner)), m_prefix(std::move(prefix)) {}

objptr_t<ITracer> PrefixTracer::Create(ITracer* tracer, std::string_view prefix) {
  if (!tracer) return nullptr;
  objptr_t<ITracer> target(tracer);
  std::string fullPrefix(prefix);
  for (objptr_t<ITracer> inner; LookThrough(target.Get(), inner, fullPrefix);) {
    target = std::move(inner);
  }
  return CreateObject<PrefixTracer>(std::move(target), std::move(fullPrefix));
}

result_t PrefixTracer::CreateRecord(uint32_t level, ITraceRecord** record) noexcept {
  if (!record) return res::InvalidArgument;
  *record = nullptr;
  if (!m_inner) return res::False;
  objptr_t<ITraceRecord> inner;
  const result_t r = m_inner->CreateRecord(level, inner.Ref());
  if (QEB_FAILED(r) || !inner) return r;
  try {
    *record = CreateObject<PrefixRecord>(std::move(inner), m_prefix).Detach();
  } catch (const std::bad_alloc&) {
    return res::OutOfMemory;
  }
  return r;
}

result_t PrefixTracer::CommitRecord(ITraceRecord* record, const char* text,
                                    size_t length) noexcept {
  if (!record || !m_inner) return res::InvalidArgument;
  // Only records this tracer handed out come back here.
  return static_cast<PrefixRecord*>(record)->CommitTo(m_inner.Get(), m_prefix, text, length);
}

result_t PrefixTracer::GetPrefix(const char** prefix, size_t* length) noexcept {
  if (!prefix || !length) return res::InvalidArgument;
  *prefix = m_prefix.c_str();
  *length = m_prefix.size();
  return res::Ok;
}

result_t PrefixTracer::GetInnerTracer(ITracer** inner) noexcept {
  if (!inner) return res::InvalidArgument;
  *inner = objptr_t<ITracer>(m_inner).Detach();
  return res::Ok;
}

}  // namespace qeb::trace
