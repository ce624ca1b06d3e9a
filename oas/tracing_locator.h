// The locator the module's own objects use: the host's, except that a request for the
// tracer gets the module's prefix tracer. Every object fetches its tracer from the locator
// it was given, so wrapping the host tracer once here puts the prefix on every line.
#pragma once

#include "framework/qeb/object_wrapper.h"
#include "interfaces/qeb/tracer.h"

namespace nox::oas {

// The prefix in front of each line the module writes.
inline constexpr const char* kTracePrefix = "oas: ";

class TracingLocator : public qeb::object::Ifaces<qeb::IServiceLocator> {
 public:
  TracingLocator(qeb::IServiceLocator* host, qeb::ITracer* tracer) noexcept
      : m_host(host), m_tracer(tracer) {}

  qeb::result_t GetInterface(qeb::iid_t iid, uint32_t serviceKey, void** out) noexcept override {
    if (iid == qeb::ITracer::IID && serviceKey == 0 && out) {
      *out = qeb::objptr_t<qeb::ITracer>(m_tracer).Detach();
      return qeb::res::Ok;
    }
    return m_host->GetInterface(iid, serviceKey, out);
  }

 private:
  qeb::objptr_t<qeb::IServiceLocator> m_host;
  qeb::objptr_t<qeb::ITracer> m_tracer;
};

}  // namespace nox::oas
