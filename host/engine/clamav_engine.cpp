// Scans run on the module's worker threads, each on the engine pointer it took at the start;
// the engine mutex guards only that pointer. A reload swaps the pointer before it empties the
// checked cache, and scans insert only under the cache generation they read before taking
// the engine, so no clean result found with old signatures survives a reload.
#include "host/engine/clamav_engine.h"
#include "host/engine/module_cacheable.h"

#include <clamav.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>

#include "framework/qeb/exception.h"
#include "framework/qeb/utf.h"
#include "nox_tracing/tracing.h"

namespace oasd {
namespace {

using qeb::trace::LevelDetail;
using qeb::trace::LevelError;
using qeb::trace::LevelNotice;
namespace res = qeb::res;

constexpr uint32_t kGroupProcess = 8;
constexpr uint32_t kTypeClose = 18;
constexpr uint32_t kTypeRename = 6;
constexpr uint32_t kUnknownUid = 0xFFFFFFFF;
// libclamav marks names from databases it did not sign itself; the set oasd ships is its own.
constexpr std::string_view kUnofficialSuffix = ".UNOFFICIAL";

// libclamav would print its own messages on stderr, around the host's log; every failure
// that matters is traced by the engine with libclamav's error text instead.
void DropLibraryMessage(enum cl_msg, const char*, const char*, void*) {}

cl_error_t InitLibrary() noexcept {
  static std::once_flag once;
  static cl_error_t result = CL_SUCCESS;
  std::call_once(once, [] {
    cl_set_clcb_msg(DropLibraryMessage);
    result = cl_init(CL_INIT_DEFAULT);
  });
  return result;
}

bool DirectoryExists(const std::string& path) noexcept {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string ThreatName(const char* virname) {
  std::string name = virname ? virname : "Unknown";
  if (name.size() > kUnofficialSuffix.size() && name.ends_with(kUnofficialSuffix))
    name.resize(name.size() - kUnofficialSuffix.size());
  return name;
}

int EventDescriptor(vrel::IEvent085* event) noexcept {
  const void* data = nullptr;
  uint32_t size = 0;
  if (QEB_FAILED(event->GetParam(vrel::_PARAM_OBJECT_CLIENTID1, data, size)) || !data ||
      size != sizeof(int32_t))
    return -1;
  return *static_cast<const int32_t*>(data);
}

std::string EventPath(vrel::IEvent085* event) {
  const void* data = nullptr;
  uint32_t size = 0;
  if (QEB_FAILED(event->GetParam(vrel::_PARAM_FILE_NAME_USER_W, data, size)) || !data || size < 2)
    return {};
  return qeb::Utf16ToUtf8(std::u16string_view(static_cast<const char16_t*>(data), size / 2 - 1));
}

std::string OperationName(const vrel::EventHeader& header) {
  if (header.functionGroup == kGroupProcess) return "execute";
  if (header.functionType == kTypeClose) return "close";
  if (header.functionType == kTypeRename) return "rename";
  return "open";
}

// The real uid of the process behind the event, from /proc; unknown once it has gone.
uint32_t ProcessUid(int32_t pid) {
  if (pid <= 0) return kUnknownUid;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (!line.starts_with("Uid:")) continue;
    std::istringstream fields(line.substr(4));
    uint32_t uid = kUnknownUid;
    fields >> uid;
    return fields ? uid : kUnknownUid;
  }
  return kUnknownUid;
}

uint64_t MicrosecondsSince(std::chrono::steady_clock::time_point start) {
  const auto elapsed = std::chrono::steady_clock::now() - start;
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count());
}

}  // namespace

std::string SignatureDirFor(const HostOptions& options) {
  if (!options.signatureDir.empty()) return options.signatureDir;
  if (DirectoryExists(OASD_BUILD_SIGNATURE_DIR)) return OASD_BUILD_SIGNATURE_DIR;
  return OASD_INSTALL_SIGNATURE_DIR;
}

ClamavEngine::ClamavEngine(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics,
                           const HostOptions& options, DetectionCallback onDetection,
                           std::shared_ptr<const WrittenFiles> writes)
    : m_tracer(std::move(tracer)),
      m_metrics(metrics),
      m_signatureDir(SignatureDirFor(options)),
      m_onDetection(std::move(onDetection)),
      m_useChecker(options.settings.ScanSettings.ScanSettingsBase.use_ichecker),
      m_delayMs(options.engineDelayMs),
      m_checked(options.checkedCacheEntries),
      m_writes(writes ? std::move(writes) : std::make_shared<const WrittenFiles>()) {}

ClamavEngine::~ClamavEngine() { TearDown(); }

// ---- signatures --------------------------------------------------------------------

qeb::result_t ClamavEngine::SetUp() {
  if (const cl_error_t r = InitLibrary(); r != CL_SUCCESS) {
    QEB_TRACE(m_tracer, LevelError) << "cannot initialise libclamav: " << cl_strerror(r);
    return res::Unspecified;
  }
  return ReloadSignatures();
}

void ClamavEngine::TearDown() noexcept {
  std::lock_guard lock(m_engineMutex);
  m_engine.reset();
}

qeb::result_t ClamavEngine::ReloadSignatures() {
  std::lock_guard reload(m_reloadMutex);
  EnginePtr fresh;
  unsigned signatures = 0;
  if (const qeb::result_t r = LoadEngine(fresh, signatures); QEB_FAILED(r)) return r;
  {
    std::lock_guard lock(m_engineMutex);
    m_engine.swap(fresh);
  }
  m_checked.Clear();
  m_signatureCount = signatures;
  QEB_TRACE(m_tracer, LevelNotice)
      << "engine: loaded " << signatures << " signatures from " << m_signatureDir;
  return res::Ok;
}

qeb::result_t ClamavEngine::LoadEngine(EnginePtr& engine, unsigned& signatures) {
  if (InitLibrary() != CL_SUCCESS) return res::NotReady;
  engine = EnginePtr(cl_engine_new(), cl_engine_free);
  if (!engine) return res::OutOfMemory;
  cl_error_t r = cl_load(m_signatureDir.c_str(), engine.get(), &signatures, CL_DB_STDOPT);
  if (r == CL_SUCCESS && signatures == 0) {
    QEB_TRACE(m_tracer, LevelError) << "engine: no signatures in " << m_signatureDir;
    return res::NotFound;
  }
  if (r == CL_SUCCESS) r = cl_engine_compile(engine.get());
  if (r != CL_SUCCESS) {
    QEB_TRACE(m_tracer, LevelError)
        << "engine: cannot load signatures from " << m_signatureDir << ": " << cl_strerror(r);
    return r == CL_EOPEN ? res::PathNotFound : res::Unspecified;
  }
  return res::Ok;
}

ClamavEngine::EnginePtr ClamavEngine::CurrentEngine() const {
  std::lock_guard lock(m_engineMutex);
  return m_engine;
}

void ClamavEngine::ApplyOptions(const HostOptions& options) noexcept {
  m_useChecker = options.settings.ScanSettings.ScanSettingsBase.use_ichecker;
  m_delayMs = options.engineDelayMs;
}

// ---- scanning ----------------------------------------------------------------------

ScanOutcome ClamavEngine::ScanDescriptor(int fd) {
  std::optional<CheckedKey> key;
  timespec keyReadAt{};
  if (m_useChecker && ::clock_gettime(CLOCK_REALTIME, &keyReadAt) == 0)
    key = CheckedKeyOfFd(fd, *m_writes);
  if (key && m_checked.Contains(*key)) {
    m_metrics.checkedCacheHits.fetch_add(1, std::memory_order_relaxed);
    return ScanOutcome{ScanOutcome::Clean, {}, true};
  }
  const uint64_t generation = m_checked.Generation();
  const EnginePtr engine = CurrentEngine();
  if (!engine) return ScanOutcome{ScanOutcome::Failed, "no signatures loaded", false};

  const auto start = std::chrono::steady_clock::now();
  Delay();
  ScanOutcome outcome = ScanWithEngine(fd, engine);
  m_metrics.RecordScanLatency(MicrosecondsSince(start));
  m_metrics.scans.fetch_add(1, std::memory_order_relaxed);
  if (key && outcome.kind == ScanOutcome::Clean && ChangeSettled(*key, keyReadAt))
    m_checked.Insert(*key, generation);
  return outcome;
}

ScanOutcome ClamavEngine::ScanWithEngine(int fd, const EnginePtr& engine) {
  // The descriptor is an open file description of its own (fanotify opens one per event),
  // so moving its offset disturbs nobody.
  ::lseek(fd, 0, SEEK_SET);
  cl_scan_options options{};
  options.parse = ~0u;
  const char* virname = nullptr;
  unsigned long scanned = 0;
  const cl_error_t r = cl_scandesc(fd, nullptr, &virname, &scanned, engine.get(), &options);
  if (r == CL_CLEAN) return ScanOutcome{ScanOutcome::Clean, {}, false};
  if (r == CL_VIRUS) return ScanOutcome{ScanOutcome::Detected, ThreatName(virname), false};
  return ScanOutcome{ScanOutcome::Failed, cl_strerror(r), false};
}

void ClamavEngine::Delay() const noexcept {
  const uint32_t ms = m_delayMs;
  if (ms != 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// ---- events ------------------------------------------------------------------------

qeb::result_t ClamavEngine::OnEvent(vrel::IEvent085* event, uint32_t) noexcept {
  return Handle(event);
}

qeb::result_t ClamavEngine::OnEventCancelled(vrel::IEvent085*, uint32_t) noexcept {
  return res::NotImplemented;
}

// A file closed after writing is scanned like an open, so a detection is reported even
// though nobody waits for the answer.
qeb::result_t ClamavEngine::OnNotification(vrel::IEvent085* event, uint32_t) noexcept {
  return Handle(event);
}

qeb::result_t ClamavEngine::Handle(vrel::IEvent085* event) noexcept {
  if (!event) return res::InvalidArgument;
  try {
    if (m_stopping) return event->Reply(vrel::BasicVerdict::Allow);
    const int fd = EventDescriptor(event);
    if (fd < 0) {
      // Nothing to read (a rename, say): let it through but never as known clean.
      QEB_TRACE(m_tracer, LevelDetail) << "engine: no descriptor, allowed unscanned";
      return event->Reply(vrel::BasicVerdict::Allow);
    }
    return Answer(event, ScanDescriptor(fd));
  } catch (...) {
    const qeb::result_t r = qeb::TraceCurrentException(m_tracer.Get());
    event->Reply(vrel::BasicVerdict::Allow);
    return r;
  }
}

qeb::result_t ClamavEngine::Answer(vrel::IEvent085* event, const ScanOutcome& outcome) {
  switch (outcome.kind) {
    case ScanOutcome::Clean:
      AllowModuleCache(event);
      return event->Reply(vrel::BasicVerdict::Allow);
    case ScanOutcome::Detected:
      ReportDetection(event, outcome.threat);
      return event->Reply(vrel::BasicVerdict::Deny);
    case ScanOutcome::Failed: break;
  }
  // A file the engine could not read is let through, and scanned again next time.
  QEB_TRACE(m_tracer, LevelError) << "engine: cannot scan " << EventPath(event) << ": "
                                  << outcome.threat;
  return event->Reply(vrel::BasicVerdict::Allow);
}

void ClamavEngine::ReportDetection(vrel::IEvent085* event, const std::string& threat) {
  vrel::EventHeader header{};
  event->GetEventHeader(header);
  DetectionRecord record{EventPath(event), threat, static_cast<uint32_t>(header.processId),
                         ProcessUid(header.processId), OperationName(header)};
  QEB_TRACE(m_tracer, LevelNotice) << "engine: detected " << threat << " in " << record.path << " ("
                                   << record.operation << " by pid " << record.pid << ")";
  if (!m_onDetection) return;
  try {
    m_onDetection(record);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

}  // namespace oasd
