// The interceptor's construction and teardown. Control operations answer "Not
// implemented" until interception itself is wired in; they never throw.
#include "oas/file_interceptor.h"

#include "nox_tracing/tracing.h"

namespace nox::oas {

using qeb::result_t;
namespace res = qeb::res;

FileInterceptor::FileInterceptor(qeb::IServiceLocator* locator, nox::ISharesParser* sharesParser,
                                 nox::IEventsProvider* eventsProvider,
                                 nox::IMountSubscription* mountsSubscription, qeb::ITracer* tracer)
    : m_serviceLocator(locator),
      m_tracer(tracer),
      m_mountsSubscription(mountsSubscription),
      m_eventsProvider(eventsProvider),
      m_sharesParser(sharesParser) {}

FileInterceptor::~FileInterceptor() { QEB_TRACE(m_tracer, qeb::trace::LevelDetail) << "~FileInterceptor"; }

result_t FileInterceptor::SetState(uint32_t) noexcept { return res::NotImplemented; }

result_t FileInterceptor::GetState(uint32_t* state) noexcept {
  if (!state) return res::InvalidArgument;
  std::lock_guard lock(m_mutex);
  *state = m_state;
  return res::Ok;
}

result_t FileInterceptor::Init(uint32_t) noexcept { return res::NotImplemented; }
result_t FileInterceptor::SetupFilters(uint32_t, vrel::IEventHandler085*) noexcept {
  return res::NotImplemented;
}
result_t FileInterceptor::RemoveFilters() noexcept { return res::NotImplemented; }
result_t FileInterceptor::ResetCache() noexcept { return res::NotImplemented; }
result_t FileInterceptor::OnSharesChanged() noexcept { return res::NotImplemented; }
result_t FileInterceptor::SetSettings(const nox::settings::OASSettings&) noexcept {
  return res::NotImplemented;
}
result_t FileInterceptor::GetSettings(nox::settings::OASSettings&) noexcept {
  return res::NotImplemented;
}
result_t FileInterceptor::AddProcessExclusion(uint32_t) noexcept { return res::NotImplemented; }
result_t FileInterceptor::RemoveProcessExclusion(uint32_t) noexcept { return res::NotImplemented; }
result_t FileInterceptor::ClearProcessExclusions() noexcept { return res::NotImplemented; }
result_t FileInterceptor::SetSequenceTimeout(uint32_t) noexcept { return res::NotImplemented; }
result_t FileInterceptor::GetSequenceTimeout(uint32_t*) noexcept { return res::NotImplemented; }
result_t FileInterceptor::CreateStatisticsCollector(
    vrel::IFileInterceptorStatisticsCollector**) noexcept {
  return res::NotImplemented;
}
result_t FileInterceptor::AddPathExclusion(const char*) noexcept { return res::NotImplemented; }
result_t FileInterceptor::RemovePathExclusion(const char*) noexcept { return res::NotImplemented; }
result_t FileInterceptor::ClearPathExclusions() noexcept { return res::NotImplemented; }

}  // namespace nox::oas
