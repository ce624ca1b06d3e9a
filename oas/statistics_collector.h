// The statistics collector the interceptor hands out on request. The fanotify back end
// gathers no per-interceptor statistics, so the collector is an empty module object.
#pragma once

#include "framework/qeb/object_wrapper.h"
#include "interfaces/vrel/file_interceptor.h"

namespace nox::oas {

class StatisticsCollector : public qeb::object::Ifaces<vrel::IFileInterceptorStatisticsCollector> {
 public:
  qeb::result_t Collect(void*) noexcept override { return qeb::res::Ok; }
};

}  // namespace nox::oas
