// An event handler that lets every file through as clean, so the module's own cost can be
// measured without a scanner's. It owns nothing but a tracer reference and counts each
// event as a scan.
#pragma once

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/common/host_metrics.h"
#include "host/common/host_options.h"
#include "interfaces/qeb/tracer.h"
#include "interfaces/vrel/event.h"
#include "interfaces/vrel/event_handler.h"

namespace oasd {

class NoneEngine : public qeb::object::Ifaces<vrel::IEventHandler085> {
 public:
  NoneEngine(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics, const HostOptions& options);

  qeb::result_t OnEvent(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnEventCancelled(vrel::IEvent085* event, uint32_t context) noexcept override;
  qeb::result_t OnNotification(vrel::IEvent085* event, uint32_t context) noexcept override;

 private:
  qeb::result_t AllowClean(vrel::IEvent085* event) noexcept;

  qeb::objptr_t<qeb::ITracer> m_tracer;
  HostMetrics& m_metrics;
};

}  // namespace oasd
