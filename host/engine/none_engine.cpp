// Every event is answered at once on the calling worker thread: allowed, and marked
// cacheable (settled files with short paths, module_cacheable.h) so the module's own clean
// cache is exercised as with a real engine.
#include "host/engine/none_engine.h"
#include "host/engine/module_cacheable.h"

#include <utility>

namespace oasd {

NoneEngine::NoneEngine(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, const HostOptions&)
    : m_tracer(std::move(tracer)), m_metrics(metrics) {}

qeb::result_t NoneEngine::OnEvent(vrel::IEvent085* event, uint32_t) noexcept {
  return AllowClean(event);
}

qeb::result_t NoneEngine::OnEventCancelled(vrel::IEvent085*, uint32_t) noexcept {
  return qeb::res::NotImplemented;
}

qeb::result_t NoneEngine::OnNotification(vrel::IEvent085* event, uint32_t) noexcept {
  return AllowClean(event);
}

qeb::result_t NoneEngine::AllowClean(vrel::IEvent085* event) noexcept {
  if (!event) return qeb::res::InvalidArgument;
  m_metrics.scans.fetch_add(1, std::memory_order_relaxed);
  m_metrics.RecordScanLatency(0);
  AllowModuleCache(event);
  return event->Reply(vrel::BasicVerdict::Allow);
}

}  // namespace oasd
