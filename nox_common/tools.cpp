// Each tool asks the locator for what it needs on every call and lets objptr_t release
// it on every path; a missing tracer only silences the lines.
#include "nox_common/tools.h"

#include <pwd.h>

#include <cerrno>
#include <csignal>
#include <vector>

#include "framework/qeb/exception.h"
#include "framework/qeb/objptr.h"
#include "framework/qeb/utf.h"
#include "nox_tracing/tracing.h"

namespace nox::tools {
namespace {

using system_interceptors::process_manager::IProcessInformation;
using system_interceptors::process_manager::IProcessManager;
using system_interceptors::process_manager::ProcessInfo;

constexpr size_t PasswdBufferSize = 16384;
constexpr uint32_t RootUid = 0;

qeb::objptr_t<qeb::ITracer> HostTracer(qeb::IServiceLocator* sl) noexcept {
  qeb::objptr_t<qeb::ITracer> tracer;
  if (QEB_FAILED(qeb::GetInterface(sl, tracer.Ref()))) tracer.Reset();
  return tracer;
}

// "No entry" comes back either as success with no record or as one of these codes.
bool MeansNoEntry(int error) noexcept { return error == 0 || error == ENOENT || error == ESRCH; }

qeb::result_t LookUpAccountName(uint32_t uid, std::u16string& userName) {
  if (uid == RootUid) {
    userName = u"root";
    return qeb::res::Ok;
  }
  std::vector<char> buffer(PasswdBufferSize);
  passwd entry{};
  passwd* found = nullptr;
  const int error =
      getpwuid_r(static_cast<uid_t>(uid), &entry, buffer.data(), buffer.size(), &found);
  if (error == 0 && found && found->pw_name) {
    userName = qeb::Utf8ToUtf16(found->pw_name);
    return qeb::res::Ok;
  }
  return MeansNoEntry(error) ? qeb::res::NotFound : qeb::res::Unspecified;
}

}  // namespace

qeb::result_t GetProcessInfo(qeb::IServiceLocator* sl, uint32_t pid,
                             ProcessInfo& processInfo) noexcept {
  const qeb::objptr_t<qeb::ITracer> tracer = HostTracer(sl);
  qeb::result_t r = qeb::res::Ok;
  qeb::objptr_t<IProcessManager> manager;
  QEB_CHECK_TRACE(tracer, r, qeb::GetInterface(sl, manager.Ref()))
      << "Cannot get IProcessManager interface";
  if (QEB_FAILED(r)) return r;
  qeb::objptr_t<IProcessInformation> process;
  QEB_CHECK_TRACE(tracer, r, manager->GetInformation(pid, process.Ref()))
      << "Cannot get IProcessInformation for pid: " << pid;
  if (QEB_FAILED(r)) return r;
  if (!process) return qeb::res::Unexpected;
  QEB_CHECK_TRACE(tracer, r, process->GetInformation(processInfo))
      << "Cannot get info for pid: " << pid;
  return QEB_FAILED(r) ? r : qeb::res::Ok;
}

qeb::result_t GetProcessUserName(qeb::IServiceLocator* sl, uint32_t pid,
                                 std::u16string& userName) noexcept {
  userName.clear();
  const qeb::objptr_t<qeb::ITracer> tracer = HostTracer(sl);
  ProcessInfo info;
  qeb::result_t r = qeb::res::Ok;
  QEB_CHECK_TRACE(tracer, r, GetProcessInfo(sl, pid, info));
  if (QEB_FAILED(r)) return r;
  try {
    r = LookUpAccountName(info.m_uid, userName);
  } catch (...) {
    r = qeb::TraceCurrentException(tracer.Get());
  }
  if (QEB_FAILED(r)) userName.clear();
  return r;
}

qeb::result_t WriteDumpAndDie(qeb::IServiceLocator* sl) noexcept {
  const qeb::objptr_t<qeb::ITracer> tracer = HostTracer(sl);
  QEB_TRACE(tracer, qeb::trace::LevelDetail) << "WriteDumpAndDie" << "() ";
  std::raise(SIGSEGV);
  return qeb::res::Ok;
}

}  // namespace nox::tools
