// Scans run on the module's worker threads, each on the engine pointer it took at the start;
// the engine mutex guards only that pointer. A reload swaps the pointer before it empties the
// checked cache, and scans insert only under the cache generation they read before taking
// the engine, so no clean result found with old signatures survives a reload. Only a clean
// answer for the whole file is ever cacheable: a limit or an error makes it unscanned.
#include "host/engine/clamav_engine.h"
#include "host/engine/engine_scratch_dir.h"
#include "host/engine/module_cacheable.h"

#include <clamav.h>
#include <pwd.h>
#include <sys/stat.h>
#include <stdint.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
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

// freshclam's own account, which owns the databases it keeps current.
bool DatabaseOwner(uid_t uid) {
  if (uid == 0) return true;
  passwd entry {}, *found = nullptr;
  char buffer[1024];
  return ::getpwnam_r("clamav", &entry, buffer, sizeof buffer, &found) == 0 && found &&
         found->pw_uid == uid;
}

// A database directory only root or freshclam can change, holding at least one database;
// one a user could write would let that user decide what oasd blocks.
bool UsableDatabaseDir(const std::string& dir) {
  struct stat st {};
  if (dir.empty() || ::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) ||
      !DatabaseOwner(st.st_uid) || (st.st_mode & 022) != 0)
    return false;
  static constexpr std::string_view kDatabases[] = {".cvd", ".cld", ".cud", ".ndb", ".hdb", ".hsb",
                                                    ".ldb", ".mdb", ".msb", ".yar", ".yara"};
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    const std::string name = entry.path().filename().string();
    for (const auto extension : kDatabases)
      if (name.ends_with(extension)) return true;
  }
  return false;
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
std::optional<uint32_t> ProcessUid(int32_t pid) {
  if (pid <= 0) return std::nullopt;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (!line.starts_with("Uid:")) continue;
    std::istringstream fields(line.substr(4));
    uint32_t uid = 0;
    fields >> uid;
    return fields ? std::optional(uid) : std::nullopt;
  }
  return std::nullopt;
}

// The names one scan reported, through the engine's virus-found callback: libclamav 1.x
// leaves virname unset for some heuristic alerts, and reports a hit limit and a threat
// found after it in the same scan.
struct ScanNames {
  std::string threat;  // the first that is not a limit
  std::string limit;
  std::string type;    // libclamav's type of the file itself
  unsigned embedded = 0;  // objects taken out of it
};

cl_error_t InspectFile(int, const char* type, const char**, size_t, const char*, size_t, const char*,
                       uint32_t recursionLevel, uint32_t, void* context) {
  if (!context) return CL_CLEAN;
  auto& names = *static_cast<ScanNames*>(context);
  if (recursionLevel > 0) ++names.embedded;
  else if (type && names.type.empty()) names.type = type;
  return CL_CLEAN;
}

void CollectName(int, const char* name, void* context) {
  if (!context || !name) return;
  auto& names = *static_cast<ScanNames*>(context);
  std::string& slot = LimitNamed(name) ? names.limit : names.threat;
  if (slot.empty()) slot = name;
}

off_t ReadAt(void* handle, void* buffer, size_t count, off_t offset) {
  return ::pread(static_cast<int>(reinterpret_cast<intptr_t>(handle)), buffer, count, offset);
}

ScanOutcome Outcome(ScanOutcome::Kind kind, std::string text = {}) {
  ScanOutcome outcome;
  outcome.kind = kind;
  outcome.threat = std::move(text);
  return outcome;
}

ScanOutcome Unscanned(UnscannedReason reason, std::string detail) {
  ScanOutcome outcome = Outcome(ScanOutcome::Unscanned, std::move(detail));
  outcome.reason = reason;
  return outcome;
}

ScanOutcome Interpret(cl_error_t r, const char* virname, const ScanNames& names) {
  if (!names.threat.empty()) return Outcome(ScanOutcome::Detected, ThreatName(names.threat.c_str()));
  if (!names.limit.empty()) return Unscanned(*LimitNamed(names.limit), names.limit);
  if (r == CL_CLEAN) {
    ScanOutcome clean = Outcome(ScanOutcome::Clean);
    clean.type = names.type;
    clean.embedded = names.embedded;
    return clean;
  }
  if (r == CL_VIRUS) {
    if (virname)
      if (const auto limit = LimitNamed(virname)) return Unscanned(*limit, virname);
    return Outcome(ScanOutcome::Detected, ThreatName(virname));
  }
  return Unscanned(ReasonOfError(r), cl_strerror(r));
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
                           UnprocessedCallback onUnprocessed,
                           std::shared_ptr<const WrittenFiles> writes)
    : m_tracer(std::move(tracer)),
      m_metrics(metrics),
      m_signatureDir(SignatureDirFor(options)),
      m_databaseDir(options.clamavDatabaseDir),
      m_onDetection(std::move(onDetection)),
      m_onUnprocessed(std::move(onUnprocessed)),
      m_useChecker(options.settings.ScanSettings.ScanSettingsBase.use_ichecker),
      m_denyUnscanned(options.denyUnscanned),
      m_delayMs(options.engineDelayMs),
      m_policy(std::make_shared<const ScanPolicy>(PolicyFor(options))),
      m_nextLimits(LimitsFor(options)),
      m_checked(options.checkedCacheEntries),
      m_writes(writes ? std::move(writes) : std::make_shared<const WrittenFiles>()) {}

ClamavEngine::~ClamavEngine() { TearDown(); }

// ---- signatures --------------------------------------------------------------------

qeb::result_t ClamavEngine::SetUp() {
  if (const cl_error_t r = InitLibrary(); r != CL_SUCCESS) {
    QEB_TRACE(m_tracer, LevelError) << "cannot initialise libclamav: " << cl_strerror(r);
    return res::Unspecified;
  }
  QEB_TRACE(m_tracer, LevelNotice) << "engine: " << ScratchDirForEngine().note;
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
  bool withDatabase = UsableDatabaseDir(m_databaseDir);
  qeb::result_t r = LoadEngine(fresh, signatures, withDatabase);
  if (QEB_FAILED(r) && withDatabase) {
    QEB_TRACE(m_tracer, LevelError) << "engine: loading without the databases in " << m_databaseDir;
    withDatabase = false;
    r = LoadEngine(fresh, signatures, false);
  }
  if (QEB_FAILED(r)) return r;
  {
    std::lock_guard lock(m_engineMutex);
    m_engine.swap(fresh);
  }
  m_checked.Clear();
  m_signatureCount = signatures;
  m_metrics.signatures.store(signatures, std::memory_order_relaxed);
  m_metrics.signaturesLoadedAt.store(::time(nullptr), std::memory_order_relaxed);
  m_fileSizeLimit = m_nextLimits.fileSize;
  QEB_TRACE(m_tracer, LevelNotice) << "engine: loaded " << signatures << " signatures from "
                                   << m_signatureDir << (withDatabase ? " and " + m_databaseDir : "");
  return res::Ok;
}

qeb::result_t ClamavEngine::LoadEngine(EnginePtr& engine, unsigned& signatures, bool withDatabase) {
  signatures = 0;
  if (InitLibrary() != CL_SUCCESS) return res::NotReady;
  engine = EnginePtr(cl_engine_new(), cl_engine_free);
  if (!engine) return res::OutOfMemory;
  cl_engine_set_clcb_virus_found(engine.get(), CollectName);
  cl_engine_set_clcb_file_inspection(engine.get(), InspectFile);
  cl_error_t r = ApplyLimits(engine.get(), m_nextLimits);
  if (const std::string& tmp = ScratchDirForEngine().path; r == CL_SUCCESS && !tmp.empty())
    r = cl_engine_set_str(engine.get(), CL_ENGINE_TMPDIR, tmp.c_str());
  // libclamav's own clean cache keys on content alone, so an answer found with archives off
  // would outlive the setting; the checked cache is oasd's one cache, cleared with the policy.
  if (r == CL_SUCCESS) r = cl_engine_set_num(engine.get(), CL_ENGINE_DISABLE_CACHE, 1);
  if (r == CL_SUCCESS) r = cl_load(m_signatureDir.c_str(), engine.get(), &signatures, CL_DB_STDOPT);
  if (r == CL_SUCCESS && withDatabase)
    r = cl_load(m_databaseDir.c_str(), engine.get(), &signatures, CL_DB_STDOPT);
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

std::shared_ptr<const ScanPolicy> ClamavEngine::CurrentPolicy() const {
  std::lock_guard lock(m_engineMutex);
  return m_policy;
}

void ClamavEngine::ApplyOptions(const HostOptions& options) noexcept {
  m_useChecker = options.settings.ScanSettings.ScanSettingsBase.use_ichecker;
  {
    std::lock_guard lock(m_delayMutex);
    m_delayMs = options.engineDelayMs;
  }
  m_delayChanged.notify_all();
  m_denyUnscanned = options.denyUnscanned;
  {
    // A clean answer holds only for the options it was found under.
    auto policy = std::make_shared<const ScanPolicy>(PolicyFor(options));
    std::lock_guard lock(m_engineMutex);
    m_policy.swap(policy);
  }
  m_checked.Clear();
  std::lock_guard reload(m_reloadMutex);
  m_nextLimits = LimitsFor(options);
}

// ---- scanning ----------------------------------------------------------------------

ScanOutcome ClamavEngine::ScanDescriptor(int fd) {
  std::optional<CheckedKey> key;
  timespec keyReadAt{};
  if (::clock_gettime(CLOCK_REALTIME, &keyReadAt) == 0) key = CheckedKeyOfFd(fd, *m_writes);
  if (key && m_useChecker && m_checked.Contains(*key)) {
    m_metrics.checkedCacheHits.fetch_add(1, std::memory_order_relaxed);
    ScanOutcome cached = Outcome(ScanOutcome::Clean);
    cached.fromCache = true;
    return cached;
  }
  if (key && m_useChecker) m_metrics.checkedCacheMisses.fetch_add(1, std::memory_order_relaxed);
  // A key that changed within the clock's tick could stand for two contents: such a file
  // is scanned on its own.
  if (!key || !ChangeSettled(*key, keyReadAt)) return ScanAndRemember(fd, key, keyReadAt);
  bool shared = false;
  ScanOutcome outcome = m_inFlight.Run(
      *key, [&] { return ScanAndRemember(fd, key, keyReadAt); },
      [this, fd] { return CheckedKeyOfFd(fd, *m_writes); }, shared);
  if (shared) m_metrics.coalescedScans.fetch_add(1, std::memory_order_relaxed);
  return outcome;
}

ScanOutcome ClamavEngine::ScanAndRemember(int fd, const std::optional<CheckedKey>& key,
                                          const timespec& keyReadAt) {
  const uint64_t generation = m_checked.Generation();
  const EnginePtr engine = CurrentEngine();
  if (!engine) return Unscanned(UnscannedReason::ScanError, "no signatures loaded");

  const auto start = std::chrono::steady_clock::now();
  Delay();
  ScanOutcome outcome = ScanWithEngine(fd, engine);
  m_metrics.RecordScanLatency(MicrosecondsSince(start));
  m_metrics.scans.fetch_add(1, std::memory_order_relaxed);
  if (m_useChecker && key && outcome.kind == ScanOutcome::Clean && ChangeSettled(*key, keyReadAt))
    m_checked.Insert(*key, generation);
  return outcome;
}

ScanOutcome ClamavEngine::ScanWithEngine(int fd, const EnginePtr& engine) {
  struct stat st {};
  const uint64_t limit = m_fileSizeLimit;
  if (::fstat(fd, &st) == 0 && static_cast<uint64_t>(st.st_size) > limit)
    return ScanHead(fd, engine, static_cast<uint64_t>(st.st_size), limit);
  // The descriptor is an open file description of its own (fanotify opens one per event),
  // so moving its offset disturbs nobody.
  ::lseek(fd, 0, SEEK_SET);
  cl_scan_options options = ScanOptionsFor(*CurrentPolicy(), fd);
  const char* virname = nullptr;
  unsigned long scanned = 0;
  ScanNames names;
  const cl_error_t r =
      cl_scandesc_callback(fd, nullptr, &virname, &scanned, engine.get(), &options, &names);
  return Interpret(r, virname, names);
}

// A file past the size limit is scanned up to the limit, so a threat in its head is found as
// in a small file; the rest stays unscanned, which the answer says.
ScanOutcome ClamavEngine::ScanHead(int fd, const EnginePtr& engine, uint64_t size, uint64_t limit) {
  const uint64_t length = HeadScanLength(fd, size, limit);
  const std::string detail = std::to_string(size) + " bytes, over the size limit of " +
                             std::to_string(limit) + "; the first " + std::to_string(length) +
                             " scanned";
  if (length == 0) return Unscanned(UnscannedReason::SizeLimit, detail);
  const std::unique_ptr<cl_fmap_t, decltype(&cl_fmap_close)> map(
      cl_fmap_open_handle(reinterpret_cast<void*>(static_cast<intptr_t>(fd)), 0, length, ReadAt, 1),
      cl_fmap_close);
  if (!map) return Unscanned(UnscannedReason::ScanError, "cannot map the file's head");
  cl_scan_options options = ScanOptionsFor(*CurrentPolicy(), fd);
  const char* virname = nullptr;
  unsigned long scanned = 0;
  ScanNames names;
  const cl_error_t r =
      cl_scanmap_callback(map.get(), nullptr, &virname, &scanned, engine.get(), &options, &names);
  ScanOutcome outcome = Interpret(r, virname, names);
  if (outcome.kind == ScanOutcome::Clean) return Unscanned(UnscannedReason::SizeLimit, detail);
  return outcome;
}

// Re-read on every wake, so a SIGHUP that shortens the delay releases the scans held in it.
void ClamavEngine::Delay() const noexcept {
  if (m_delayMs == 0) return;
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock lock(m_delayMutex);
  for (;;) {
    const auto until = start + std::chrono::milliseconds(m_delayMs.load());
    if (std::chrono::steady_clock::now() >= until) return;
    m_delayChanged.wait_until(lock, until);
  }
}

// ---- events ------------------------------------------------------------------------

qeb::result_t ClamavEngine::OnEvent(vrel::IEvent085* event, uint32_t) noexcept {
  return Handle(event, true);
}

qeb::result_t ClamavEngine::OnEventCancelled(vrel::IEvent085*, uint32_t) noexcept {
  return res::NotImplemented;
}

// A file closed after writing is scanned like an open, so a detection is reported even
// though nobody waits for the answer. Trusted programs do not apply: the writer may have
// exited and its pid be another's by now.
qeb::result_t ClamavEngine::OnNotification(vrel::IEvent085* event, uint32_t) noexcept {
  return Handle(event, false);
}

qeb::result_t ClamavEngine::Handle(vrel::IEvent085* event, bool waiting) noexcept {
  if (!event) return res::InvalidArgument;
  try {
    if (m_stopping) return event->Reply(vrel::BasicVerdict::Allow);
    const int fd = EventDescriptor(event);
    if (fd < 0) {
      // Nothing to read (a rename, say): let it through but never as known clean.
      QEB_TRACE(m_tracer, LevelDetail) << "engine: no descriptor, allowed unscanned";
      return event->Reply(vrel::BasicVerdict::Allow);
    }
    const auto policy = CurrentPolicy();
    if (const std::string why = PassUnscanned(event, *policy, fd, waiting); !why.empty()) {
      // Never cacheable: the settings may change, and the file must be scanned then.
      QEB_TRACE(m_tracer, LevelDetail) << "engine: " << why << ", allowed unscanned: " << EventPath(event);
      return event->Reply(vrel::BasicVerdict::Allow);
    }
    return Answer(event, ScanDescriptor(fd), *policy);
  } catch (...) {
    const qeb::result_t r = qeb::TraceCurrentException(m_tracer.Get());
    event->Reply(vrel::BasicVerdict::Allow);
    return r;
  }
}

// Executions are scanned whatever the filter: running a file is what the filter guards.
std::string ClamavEngine::PassUnscanned(vrel::IEvent085* event, const ScanPolicy& policy, int fd,
                                        bool waiting) {
  const std::string path = EventPath(event);
  if (PathExcluded(policy, path)) return "path excluded by ExcludeMasks";
  vrel::EventHeader header{};
  event->GetEventHeader(header);
  if (waiting && m_trusted && m_trusted(header.processId, path)) return "opened by a trusted program";
  if (header.functionGroup != kGroupProcess && !FilterSelects(policy, fd, path))
    return "not selected by scan_filter";
  return {};
}

qeb::result_t ClamavEngine::Answer(vrel::IEvent085* event, const ScanOutcome& outcome,
                                   const ScanPolicy& policy) {
  switch (outcome.kind) {
    case ScanOutcome::Clean:
      ReportObject(event, outcome, policy);
      AllowModuleCache(event);
      return event->Reply(vrel::BasicVerdict::Allow);
    case ScanOutcome::Detected:
      if (ThreatExcluded(policy, outcome.threat)) {
        // Neither acted upon nor a detection, and never cacheable: the log says why it passed.
        QEB_TRACE(m_tracer, LevelNotice) << "engine: " << outcome.threat
                                         << " is excluded by ExcludeThreats, allowed: " << EventPath(event);
        return event->Reply(vrel::BasicVerdict::Allow);
      }
      ReportDetection(event, outcome.threat, policy);
      return event->Reply(vrel::BasicVerdict::Deny);
    case ScanOutcome::Unscanned: break;
  }
  // Never cacheable: the next open scans the file again.
  const bool deny = m_denyUnscanned;
  ReportUnprocessed(event, outcome, deny, policy.reportUnprocessed);
  return event->Reply(deny ? vrel::BasicVerdict::Deny : vrel::BasicVerdict::Allow);
}

void ClamavEngine::ReportObject(vrel::IEvent085* event, const ScanOutcome& outcome,
                                const ScanPolicy& policy) {
  const bool packed = policy.reportPacked && outcome.embedded > 0;
  if (!m_onObject || outcome.fromCache || (!packed && !policy.reportClean)) return;
  vrel::EventHeader header{};
  event->GetEventHeader(header);
  ObjectRecord record{packed ? "packed" : "clean", EventPath(event),
                      packed ? outcome.type + ", " + std::to_string(outcome.embedded) + " objects inside"
                             : outcome.type,
                      std::nullopt, OperationName(header)};
  if (header.processId > 0) record.pid = static_cast<uint32_t>(header.processId);
  try {
    m_onObject(record);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

void ClamavEngine::ReportDetection(vrel::IEvent085* event, const std::string& threat,
                                   const ScanPolicy& policy) {
  vrel::EventHeader header{};
  event->GetEventHeader(header);
  DetectionRecord record{EventPath(event), threat, std::nullopt, ProcessUid(header.processId),
                         OperationName(header)};
  if (header.processId > 0) record.pid = static_cast<uint32_t>(header.processId);
  record.action = policy.action == InfectedAction::Notify ? "reported" : "blocked";
  if (policy.disinfectAsked) record.note = "disinfection is not available; blocked instead";
  // Moved before the verdict, while the opener still waits: it never gets the file.
  if (policy.action == InfectedAction::Remove && m_remove) {
    std::string error;
    record.quarantineId = m_remove(EventDescriptor(event), record.path, threat, error);
    if (!record.quarantineId.empty()) record.action = "removed";
    else record.note = "not removed: " + error;
  }
  // The verdict follows at once and the deadline now waits for it, so "late" says exactly
  // whether the opener was still waiting for this answer.
  record.late = m_expectVerdict && !m_expectVerdict(EventDescriptor(event));
  QEB_TRACE(m_tracer, LevelNotice) << "engine: detected " << threat << " in " << record.path << " ("
                                   << record.operation << " by pid " << header.processId << ")"
                                   << (record.late ? ", after the open was answered" : "")
                                   << (record.note.empty() ? "" : "; " + record.note);
  if (!m_onDetection) return;
  try {
    m_onDetection(record);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

void ClamavEngine::ReportUnprocessed(vrel::IEvent085* event, const ScanOutcome& outcome, bool denied,
                                     bool write) {
  m_metrics.unprocessed[static_cast<size_t>(outcome.reason)].fetch_add(1, std::memory_order_relaxed);
  vrel::EventHeader header{};
  event->GetEventHeader(header);
  UnprocessedRecord record{EventPath(event),
                           ReasonName(outcome.reason),
                           outcome.threat,
                           std::nullopt,
                           ProcessUid(header.processId),
                           OperationName(header),
                           denied};
  if (header.processId > 0) record.pid = static_cast<uint32_t>(header.processId);
  const auto level = outcome.reason == UnscannedReason::ScanError ? LevelError : LevelNotice;
  QEB_TRACE(m_tracer, level) << "engine: not scanned whole (" << record.reason << ": "
                             << record.detail << "), " << (denied ? "denied" : "allowed") << ": "
                             << record.path;
  if (!m_onUnprocessed || !write) return;
  try {
    m_onUnprocessed(record);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
}

}  // namespace oasd
