// The prefix tracer: a module object that owns one reference to the tracer it writes
// to and its prefix text, both fixed at construction. Records it hands out own the
// inner tracer's record until they are released; nothing else is shared, so any
// thread may write through it. Callers receive it as an owning objptr_t.
#pragma once

#include <string>
#include <string_view>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/qeb/tracer.h"

namespace qeb::trace {

class PrefixTracer : public object::Ifaces<ITracer, IPrefixTracer> {
 public:
  // Use Create: it flattens chains of prefix tracers before wrapping.
  PrefixTracer(objptr_t<ITracer> inner, std::string prefix) noexcept;

  // Wraps tracer with prefix. A prefix tracer whose prefix ends in "::" is looked
  // through: its prefix goes in front and its inner tracer is wrapped instead, so one
  // wrapper carries the whole chain. A null tracer gives a null result.
  static objptr_t<ITracer> Create(ITracer* tracer, std::string_view prefix);

  result_t CreateRecord(uint32_t level, ITraceRecord** record) noexcept override;
  result_t CommitRecord(ITraceRecord* record, const char* text, size_t length) noexcept override;

  result_t GetPrefix(const char** prefix, size_t* length) noexcept override;
  result_t GetInnerTracer(ITracer** inner) noexcept override;

 private:
  objptr_t<ITracer> m_inner;
  std::string m_prefix;
};

// Obtains the host tracer (service key 0) and wraps it with prefix. Throws
// CheckResultFailedException carrying the lookup's result when there is none.
objptr_t<ITracer> MakePrefixTracer(IServiceLocator* sl, std::string_view prefix);

}  // namespace qeb::trace
