// Answers whether a process belongs to a named application category. It owns shared
// references to the host's tracer, application provider and application categorizer,
// fixed at construction; copies share the same host objects, so an entry of a cache can
// keep its own copy and ask the question long after the cache made it.
#pragma once

#include <string>

#include "framework/qeb/objptr.h"
#include "interfaces/nox/applications.h"
#include "interfaces/nox/process.h"
#include "interfaces/qeb/tracer.h"

namespace nox::oas {

class ProcessCategorizer {
 public:
  // Throws GetInterfaceException without a tracer and CheckResultFailedException
  // naming the missing application service.
  explicit ProcessCategorizer(qeb::IServiceLocator* sl);

  // 0 when the first category of the process's application is exactly categoryName;
  // 1 when it is another one or there is none; a host failure's code otherwise.
  qeb::result_t CheckProcessCategory(const system_interceptors::process_manager::ProcessInfo& process,
                                     const std::u16string& categoryName) const noexcept;

 private:
  // The application's first category; res::False and no category when it has none.
  qeb::result_t FirstCategory(const system_interceptors::process_manager::ProcessInfo& process,
                              qeb::objptr_t<ICategory>& category) const noexcept;
  qeb::result_t TraceResult(qeb::result_t result, const char* message) const noexcept;

  qeb::objptr_t<qeb::ITracer> m_tracer;
  qeb::objptr_t<IApplicationCategorizer> m_applicationCategorizer;
  qeb::objptr_t<IApplicationProvider> m_applicationProvider;
};

}  // namespace nox::oas
