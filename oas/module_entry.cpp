// The library's two exported functions. Creation turns every failure, exceptions
// included, into a result code here; the out pointer is written only on success. The
// host tracer is wrapped in the module's prefix tracer once, here, for every object.
// Whether the library may be unloaded is read from the module object counter.
#include <exception>

#include "framework/qeb/exception.h"
#include "framework/qeb/service.h"
#include "interfaces/qeb/module.h"
#include "nox_tracing/prefix_tracer.h"
#include "oas/file_interceptor.h"
#include "oas/tracing_locator.h"

namespace {

using qeb::objptr_t;
using qeb::result_t;

objptr_t<nox::oas::FileInterceptor> CreateFileInterceptor(qeb::IServiceLocator* sl) {
  auto sharesParser = qeb::RequireInterface<nox::ISharesParser>(sl);
  auto eventsProvider = qeb::RequireInterface<nox::IEventsProvider>(sl);
  auto mountsSubscription = qeb::RequireInterface<nox::IMountSubscription>(sl);
  auto tracer = qeb::trace::MakePrefixTracer(sl, nox::oas::kTracePrefix);
  auto locator = qeb::CreateObject<nox::oas::TracingLocator>(sl, tracer.Get());
  objptr_t<qeb::IAllocator> allocator;  // optional: malloc when the host gives none
  qeb::GetInterface(sl, allocator.Ref());
  return qeb::CreateObjectWith<nox::oas::FileInterceptor>(allocator.Get(), locator.Get(),
                                                          sharesParser.Get(),
                                                          eventsProvider.Get(),
                                                          mountsSubscription.Get(), tracer.Get());
}

// The host's tracer hears about a failed creation; a missing tracer only silences it.
result_t ReportCreationFailure(qeb::IServiceLocator* sl) noexcept {
  objptr_t<qeb::ITracer> tracer;
  qeb::GetInterface(sl, tracer.Ref());
  try {
    tracer = qeb::trace::PrefixTracer::Create(tracer.Get(), nox::oas::kTracePrefix);
  } catch (...) {
    // Without the wrapper the line still goes out, unprefixed.
  }
  return qeb::TraceCurrentException(tracer.Get());
}

}  // namespace

extern "C" __attribute__((visibility("default"))) result_t qebCreateObject(
    uint32_t classId, qeb::IServiceLocator* sl, qeb::IObject** object) noexcept {
  if (classId == qeb::CLSID_DeliberateCrash) std::terminate();
  if (classId != qeb::CLSID_FileInterceptor) return qeb::res::ClassNotFound;
  if (!object || !sl) return qeb::res::InvalidArgument;
  try {
    auto interceptor = CreateFileInterceptor(sl);
    return interceptor->QueryInterface(qeb::IObject::IID, reinterpret_cast<void**>(object));
  } catch (...) {
    return ReportCreationFailure(sl);
  }
}

extern "C" __attribute__((visibility("default"))) uint32_t qebCanUnloadModule() noexcept {
  return qeb::module::ObjectCount() == 0 ? 0 : 1;
}
