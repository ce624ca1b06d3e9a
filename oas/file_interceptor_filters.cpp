// Exclusion, sequence-timeout and statistics operations. On the fanotify back end the
// interception layer offers none of these; exclusions reach it through the settings
// instead. The mixed results (some succeed, some report "Not implemented" or "Not
// supported") are what hosts of this interface rely on and must stay as they are.
#include "framework/qeb/exception.h"
#include "nox_tracing/tracing.h"
#include "oas/file_interceptor.h"
#include "oas/statistics_collector.h"

namespace nox::oas {

using qeb::result_t;
namespace res = qeb::res;
namespace trace = qeb::trace;

result_t FileInterceptor::AddProcessExclusion(uint32_t pid) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "AddProcessExclusion" << "() " << "pid=" << pid;
  return res::NotImplemented;
}

result_t FileInterceptor::RemoveProcessExclusion(uint32_t pid) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "RemoveProcessExclusion" << "() " << "pid=" << pid;
  return res::NotImplemented;
}

result_t FileInterceptor::ClearProcessExclusions() noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail)
      << "ClearProcessExclusions" << ": " << "Not Implemented for fanotify.";
  return res::Ok;
}

result_t FileInterceptor::AddPathExclusion(const char*) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "AddPathExclusion";
  return res::NotSupported;
}

result_t FileInterceptor::RemovePathExclusion(const char*) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "RemovePathExclusion";
  return res::NotSupported;
}

result_t FileInterceptor::ClearPathExclusions() noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "ClearPathExclusions";
  return res::NotSupported;
}

result_t FileInterceptor::SetSequenceTimeout(uint32_t timeout) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail)
      << "SetSequenceTimeout" << ": " << "Not Implemented for fanotify: timeout =" << timeout;
  return res::Ok;
}

result_t FileInterceptor::GetSequenceTimeout(uint32_t*) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "GetSequenceTimeout";
  return res::NotSupported;
}

result_t FileInterceptor::CreateStatisticsCollector(
    vrel::IFileInterceptorStatisticsCollector** collector) noexcept {
  QEB_TRACE(m_tracer, trace::LevelDetail) << "CreateStatisticsCollector";
  if (!collector) return res::InvalidArgument;
  try {
    *collector = qeb::CreateObject<StatisticsCollector>().Detach();
    return res::Ok;
  } catch (...) {
    return qeb::TraceCurrentException(m_tracer);
  }
}

}  // namespace nox::oas
