// A reader waits only for the kernel and its own lane's filesystems: the kernel opens an
// event's descriptor inside read(), calling the filesystem's open, and the reader then reads
// its path and metadata; a server that stops answering holds that lane alone, and a server
// lane puts its permission events under the deadline before it reads anything about them.
// The module answers OnEvent at once; a queued event's verdict comes back on the module's
// threads through the table. oasd's own accesses are allowed before anything else is done,
// so the daemon never waits for itself.
#include "host/interception/fanotify_events_provider.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/fanotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <shared_mutex>
#include <string>
#include <utility>

#include "framework/qeb/exception.h"
#include "host/system/info_caches.h"
#include "host/common/reader_thread.h"
#include "host/system/process_manager.h"
#include "interfaces/vrel/file_interceptor.h"
#include "nox_tracing/tracing.h"

namespace oasd {

namespace res = qeb::res;
using qeb::trace::LevelDetail;
using qeb::trace::LevelError;
using qeb::trace::LevelNotice;

// Answers go out under a shared lock, Shutdown closes the groups under the exclusive one: an
// answer racing the stop is either written to a group or dropped, never written to a
// descriptor number that has since been reused. An open event descriptor waits in exactly
// one group, and the others refuse its number with ENOENT, so an answer is offered to each
// group in turn, the local lane's first.
// The kernel cache marks only the local lane's group ([0]): a server's filesystem never gets
// a mark, and an event the local group does not hold takes its mark back.
class FanotifyResponder final : public PermissionResponder {
 public:
  FanotifyResponder(std::vector<int> groups, std::unique_ptr<KernelCache> cache) noexcept
      : m_groups(std::move(groups)), m_cache(std::move(cache)) {}
  ~FanotifyResponder() override { Shutdown(); }

  void Respond(int fd, bool allow) noexcept override {
    std::shared_lock lock(m_mutex);
    RespondFrom(0, fd, allow);
  }

  void RespondClean(int fd, const CleanFile& seen) noexcept override {
    std::shared_lock lock(m_mutex);
    if (!m_cache || m_groups.empty()) return RespondFrom(0, fd, true);
    const bool marked = m_cache->Add(m_groups[0], fd, seen);
    if (Answered(m_groups[0], fd, true)) return;
    if (marked) m_cache->Remove(m_groups[0], fd);
    RespondFrom(1, fd, true);
  }

  void ForgetClean(int fd) noexcept {
    std::shared_lock lock(m_mutex);
    if (m_cache && !m_groups.empty()) m_cache->Remove(m_groups[0], fd);
  }

  void FlushClean(KernelCache::FlushReason reason, uint64_t readUpTo, bool onlyAged) noexcept {
    std::shared_lock lock(m_mutex);
    if (!m_cache || m_groups.empty()) return;
    if (!onlyAged || m_cache->Aged(KernelCache::Clock::now()))
      m_cache->Flush(m_groups[0], reason, readUpTo);
  }

  void Close(int fd) noexcept override { ::close(fd); }

  // m_mutex held (shared): offers the answer to the groups from first on.
  void RespondFrom(size_t first, int fd, bool allow) noexcept {
    for (size_t i = first; i < m_groups.size(); ++i)
      if (Answered(m_groups[i], fd, allow)) return;
  }

  void Shutdown() noexcept {
    std::unique_lock lock(m_mutex);
    for (const int group : m_groups) ::close(group);
    m_groups.clear();
  }

 private:
  // false when group does not hold the event.
  static bool Answered(int group, int fd, bool allow) noexcept {
    const fanotify_response response{fd, allow ? uint32_t{FAN_ALLOW} : uint32_t{FAN_DENY}};
    ssize_t n;
    while ((n = ::write(group, &response, sizeof response)) < 0 && errno == EINTR) {
    }
    return n >= 0 || errno != ENOENT;
  }

  std::shared_mutex m_mutex;
  std::vector<int> m_groups;
  const std::unique_ptr<KernelCache> m_cache;  // null: the kernel caches nothing
};

namespace {

qeb::result_t ErrnoResult(int error) noexcept { return res::ErrnoFacilityBase + error; }

uint64_t PermissionGroupMask(uint32_t flags) noexcept {
  uint64_t mask = 0;
  if (flags & vrel::VREL_ACTION_FILTER_OPEN) mask |= FAN_OPEN_PERM;
  if (flags & vrel::VREL_ACTION_FILTER_EXEC) mask |= FAN_OPEN_EXEC_PERM;
  if (flags & vrel::VREL_ACTION_FILTER_CLOSE_MODIFIED) mask |= FAN_CLOSE_WRITE;
  // Writes are only noted: a write that leaves ctime as it was must still void a clean verdict.
  if (mask != 0) mask |= FAN_MODIFY;
  return mask;
}

HostMetrics::EventKind KindOf(uint64_t mask) noexcept {
  if (mask & FAN_OPEN_EXEC_PERM) return HostMetrics::Exec;
  if (mask & FAN_OPEN_PERM) return HostMetrics::Open;
  if (mask & FAN_CLOSE_WRITE) return HostMetrics::CloseWrite;
  return HostMetrics::Modify;
}

uint32_t OperationOf(uint64_t mask) noexcept {
  if (mask & FAN_OPEN_EXEC_PERM) return vrel::VREL_ACTION_EXEC;
  if (mask & FAN_OPEN_PERM) return vrel::VREL_ACTION_OPEN;
  return vrel::VREL_ACTION_CLOSE_MODIFY;
}

template <class Fsid>
uint64_t FsidKey(const Fsid& fsid) noexcept {
  uint32_t words[2];
  static_assert(sizeof fsid == sizeof words);
  std::memcpy(words, &fsid, sizeof words);
  return uint64_t{words[0]} | (uint64_t{words[1]} << 32);
}

// Every permission group is a content-class group with the same flags.
int OpenPermissionGroup() noexcept {
  return ::fanotify_init(
      FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS,
      O_RDONLY | O_LARGEFILE | O_CLOEXEC);
}

bool ReadOwnMountInfo(std::string& text) {
  const UniqueFd self(::open("/proc/self", O_PATH | O_DIRECTORY | O_CLOEXEC));
  return self.Valid() && ReadFileAt(self.Get(), "mountinfo", text);
}

bool Listed(const nox::MountList& mounts, const std::string& mountPoint) {
  return std::any_of(mounts.begin(), mounts.end(),
                     [&](const nox::MountRecord& m) { return m.mountPoint == mountPoint; });
}

// Every pending event holds a descriptor, and the kernel denies an event it cannot open
// one for: the soft limit goes up to the hard one.
void RaiseDescriptorLimit() noexcept {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

template <class Handle>
void ForEachEvent(char* buffer, ssize_t length, Handle&& handle) {
  auto* event = reinterpret_cast<fanotify_event_metadata*>(buffer);
  for (; FAN_EVENT_OK(event, length); event = FAN_EVENT_NEXT(event, length)) handle(*event);
}

}  // namespace

FanotifyEventsProvider::FanotifyEventsProvider(qeb::objptr_t<qeb::ITracer> tracer,
                                               HostMetrics& metrics,
                                               qeb::objptr_t<nox::IMountProvider> mounts,
                                               qeb::objptr_t<nox::IMountSubscription> mountChanges,
                                               std::shared_ptr<WrittenFiles> writes)
    : m_tracer(std::move(tracer)),
      m_metrics(metrics),
      m_mounts(std::move(mounts)),
      m_mountChanges(std::move(mountChanges)),
      m_ownPid(::getpid()),
      m_ownNamespace(OwnMountNamespace()),
      m_writes(writes ? std::move(writes) : std::make_shared<WrittenFiles>()) {}

FanotifyEventsProvider::~FanotifyEventsProvider() { TearDown(); }

// ---- lifecycle -----------------------------------------------------------------------

// A killed oasd frees every opener whatever order the kernel closes its groups in, because
// every mark oasd places is a filesystem mark. Releasing a group waits for the openers that
// pin one of its marks, and an opener waiting for a verdict pins, on each kind of mark list
// (inode, mount, filesystem), the mark the kernel's walk stopped at. On the one kind oasd
// uses that is the mark of the group the opener waits for, so no other group of oasd's
// (the rename group, another lane) has a mark pinned. The rename group is opened last,
// numbered above the permission groups, the closing order that would hang otherwise: the
// kill drill runs in it.
qeb::result_t FanotifyEventsProvider::SetUp(size_t kernelCacheEntries) {
  RaiseDescriptorLimit();
  std::vector<int> groups;
  for (size_t lane = 0; lane <= ServerLanes; ++lane) {
    const int group = OpenPermissionGroup();
    if (group < 0) {
      const int error = errno;
      for (const int g : groups) ::close(g);
      QEB_TRACE(m_tracer, LevelError) << "fanotify: cannot create a permission group: "
                                      << std::strerror(error)
                                      << " (oasd needs root and a kernel with fanotify permission events)";
      return ErrnoResult(error);
    }
    groups.push_back(group);
  }
  m_lanes = std::vector<Lane>(groups.size());
  for (size_t lane = 0; lane < groups.size(); ++lane) {
    m_lanes[lane].group = groups[lane];
    m_lanes[lane].server = lane > 0;
  }
  std::unique_ptr<KernelCache> cache;
  if (kernelCacheEntries > 0 && KernelCache::Supported(groups[0])) {
    cache = std::make_unique<KernelCache>(m_metrics, *m_writes, kernelCacheEntries);
  } else if (kernelCacheEntries > 0) {
    QEB_TRACE(m_tracer, LevelNotice)
        << "fanotify: this kernel takes no evictable ignore marks (" << std::strerror(errno)
        << "); every open of a clean file goes through oasd";
  }
  m_responder = std::make_shared<FanotifyResponder>(std::move(groups), std::move(cache));
  OpenRenameGroup();
  m_stopFd.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_stopFd.Valid()) return ErrnoResult(errno);
  return res::Ok;
}

// Rename events come with file handles, not descriptors, and such a group cannot take
// permission events: hence a group of its own.
void FanotifyEventsProvider::OpenRenameGroup() {
  const int group = ::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK |
                                        FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS |
                                        FAN_REPORT_DFID_NAME_TARGET,
                                    O_RDONLY | O_CLOEXEC);
  if (group < 0) {
    QEB_TRACE(m_tracer, LevelNotice)
        << "fanotify: this kernel reports no renames (" << std::strerror(errno)
        << "); a file renamed into a scan area is scanned when it is next opened";
    return;
  }
  m_renameGroup.Reset(group);
}

std::shared_ptr<PermissionResponder> FanotifyEventsProvider::Responder() const { return m_responder; }

void FanotifyEventsProvider::Start(std::shared_ptr<PermissionTable> table) {
  if (m_lanes.empty() || m_lanes[0].reader.joinable()) return;
  m_table = std::move(table);
  for (auto& lane : m_lanes) lane.reader = std::thread([this, &lane] { ReadLane(lane); });
  if (m_renameGroup.Valid()) m_renameReader = std::thread([this] { ReadRenameEvents(); });
  if (m_mountChanges && QEB_SUCCEEDED(m_mountChanges->Subscribe(this))) m_followingMounts = true;
}

void FanotifyEventsProvider::TearDown() noexcept {
  if (m_followingMounts) m_mountChanges->Unsubscribe(this);
  m_followingMounts = false;
  {
    std::lock_guard lock(m_marksMutex);
    RemoveAllMarks();
    m_subscribed = false;
    m_closed = true;  // the groups' numbers may name other descriptors from now on
  }
  if (m_stopFd.Valid()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(m_stopFd.Get(), &one, sizeof one);
  }
  for (auto& lane : m_lanes)
    if (lane.reader.joinable()) lane.reader.join();
  if (m_renameReader.joinable()) m_renameReader.join();
  Detach();
  if (m_responder) m_responder->Shutdown();
  m_renameGroup.Reset();
  m_table.reset();
}

void FanotifyEventsProvider::FlushKernelCache(KernelCache::FlushReason reason) noexcept {
  if (m_responder) m_responder->FlushClean(reason, m_nextCookie.load(), false);
}

void FanotifyEventsProvider::ExpireKernelCache() noexcept {
  if (m_responder) m_responder->FlushClean(KernelCache::FlushReason::Age, 0, true);
}

// ---- subscription --------------------------------------------------------------------

qeb::result_t FanotifyEventsProvider::Subscribe(
    nox::IFileEventsReceiver* receiver, const nox::FileEventsSubscription& subscription) noexcept {
  return Attach(receiver, subscription, false);
}

qeb::result_t FanotifyEventsProvider::Resubscribe(
    nox::IFileEventsReceiver* receiver, const nox::FileEventsSubscription& subscription) noexcept {
  // The module resubscribes when it resets its caches: the kernel's go with them.
  const qeb::result_t r = Attach(receiver, subscription, true);
  FlushKernelCache(KernelCache::FlushReason::Settings);
  return r;
}

qeb::result_t FanotifyEventsProvider::Unsubscribe(nox::IFileEventsReceiver* receiver) noexcept {
  if (!receiver) return res::InvalidArgument;
  if (CurrentReceiver().receiver.Get() != receiver) return res::NotFound;
  {
    std::lock_guard lock(m_marksMutex);
    RemoveAllMarks();
    m_subscribed = false;
  }
  Detach();
  QEB_TRACE(m_tracer, LevelNotice) << "fanotify: interception stopped, marks removed";
  return res::Ok;
}

// The receiver is in place before the marks, so the first event marked reaches it.
qeb::result_t FanotifyEventsProvider::Attach(nox::IFileEventsReceiver* receiver,
                                             const nox::FileEventsSubscription& subscription,
                                             bool replace) {
  if (!receiver) return res::InvalidArgument;
  if (m_lanes.empty()) return res::NotReady;
  try {
    auto filter = std::make_shared<const PathFilter>(subscription);
    {
      std::lock_guard lock(m_subscriptionMutex);
      nox::IFileEventsReceiver* current = m_receiver.receiver.Get();
      if (replace ? current != receiver : current && current != receiver)
        return replace ? res::NotFound : res::InvalidState;
      m_receiver = Receiver{qeb::objptr_t<nox::IFileEventsReceiver>(receiver), std::move(filter)};
    }
    nox::MountList mounts;
    qeb::result_t r = m_mounts ? m_mounts->GetMountList(mounts) : res::NoInterface;
    if (QEB_SUCCEEDED(r)) {
      std::lock_guard lock(m_marksMutex);
      r = PlaceMarks(subscription, mounts);
      if (QEB_SUCCEEDED(r) || replace) {
        m_subscribed = true;
        m_subscription = subscription;
      } else {
        RemoveAllMarks();
        m_subscribed = false;
      }
    }
    // A refused subscription is forgotten: nobody would ever unsubscribe it. A refused
    // resubscription keeps whatever marks it could place.
    if (QEB_FAILED(r) && !replace) Detach();
    return r;
  } catch (...) {
    if (!replace) Detach();
    return qeb::TraceCurrentException(m_tracer.Get());
  }
}

void FanotifyEventsProvider::Detach() noexcept {
  Receiver dropped;
  std::lock_guard lock(m_subscriptionMutex);
  std::swap(dropped, m_receiver);
}

FanotifyEventsProvider::Receiver FanotifyEventsProvider::CurrentReceiver() const {
  std::lock_guard lock(m_subscriptionMutex);
  return m_receiver;
}

FanotifyEventsProvider::Context FanotifyEventsProvider::CurrentContext() const {
  Context context{CurrentReceiver(), nullptr, Clock::now()};
  std::lock_guard lock(m_scopeMutex);
  context.scope = m_scope;
  return context;
}

qeb::result_t FanotifyEventsProvider::OnMountListChanged(const nox::MountList& added,
                                                         const nox::MountList&,
                                                         const nox::MountList& current) noexcept {
  m_mountGeneration.fetch_add(1, std::memory_order_relaxed);
  // The module's cache refuses entries of a device that went and came back; the kernel's
  // follows any mount change, so it never keeps what the module dropped.
  FlushKernelCache(KernelCache::FlushReason::Mount);
  if (added.empty()) return res::Ok;
  try {
    std::lock_guard lock(m_marksMutex);
    if (m_subscribed) PlaceMarks(m_subscription, current);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
  return res::Ok;
}

// Filesystem marks cover every namespace's mounts of a marked filesystem already.
qeb::result_t FanotifyEventsProvider::OnNamespaceMountListChanged(ino_t, const nox::MountList&,
                                                                  const nox::MountList&,
                                                                  const nox::MountList&) noexcept {
  return res::Ok;
}

// ---- marks ---------------------------------------------------------------------------

// Adding a mark that is already there only widens its mask, so the whole plan is applied
// each time; a mark is removed only through a mount point still listed, since a path whose
// mount is gone resolves to the mount beneath it, which may be one that must stay marked.
qeb::result_t FanotifyEventsProvider::PlaceMarks(const nox::FileEventsSubscription& subscription,
                                                 const nox::MountList& mounts) {
  if (m_closed) return res::NotReady;
  const uint64_t mask = PermissionGroupMask(subscription.flags);
  const std::vector<Mark> filesystems =
      ChooseFilesystemMarks(ChooseMountMarks(subscription.scanAreas, mounts));
  const std::vector<size_t> lanes = ChooseLanes(filesystems, mounts, ServerLanes);
  std::vector<PlacedMark> wanted;
  std::vector<Mark> local;
  for (size_t i = 0; i < filesystems.size(); ++i) {
    wanted.push_back(PlacedMark{filesystems[i], lanes[i]});
    if (lanes[i] == 0) local.push_back(filesystems[i]);
  }
  const bool renames =
      (subscription.flags & vrel::VREL_ACTION_FILTER_RENAME) && m_renameGroup.Valid();
  // The scope first: an event of a new mark must find its filesystem there.
  UpdateScope(wanted);
  size_t placed = 0;
  PlacePermissionMarks(wanted, mask, mounts, placed);
  // A server's filesystem gets no rename mark: placing one opens and stats it.
  PlaceRenameMarks(renames ? local : std::vector<Mark>{}, mounts);
  m_metrics.markedFilesystems.store(static_cast<int64_t>(placed), std::memory_order_relaxed);
  QEB_TRACE(m_tracer, LevelNotice) << "fanotify: " << placed << " of " << wanted.size()
                                   << " filesystems marked for " << subscription.scanAreas.size()
                                   << " scan areas" << (renames ? ", renames followed" : "");
  if (wanted.empty()) {
    QEB_TRACE(m_tracer, LevelError) << "fanotify: no monitored mount holds the scan areas";
    return res::Ok;
  }
  return placed == 0 && mask != 0 ? res::NotFound : res::Ok;
}

void FanotifyEventsProvider::PlacePermissionMarks(const std::vector<PlacedMark>& marks,
                                                  uint64_t mask, const nox::MountList& mounts,
                                                  size_t& placed) {
  const auto groupOf = [&](const PlacedMark& m) { return m_lanes[m.lane].group; };
  for (const auto& old : m_permissionMarks)
    if (std::find(marks.begin(), marks.end(), old) == marks.end() && Listed(mounts, old.mark.mountPoint))
      ::fanotify_mark(groupOf(old), FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, m_permissionMask,
                      AT_FDCWD, old.mark.mountPoint.c_str());
  if (const uint64_t dropped = m_permissionMask & ~mask; dropped != 0)
    for (const auto& m : marks)
      ::fanotify_mark(groupOf(m), FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, dropped, AT_FDCWD,
                      m.mark.mountPoint.c_str());
  std::vector<PlacedMark> kept;
  for (const auto& m : marks) {
    if (mask == 0) break;
    if (::fanotify_mark(groupOf(m), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD,
                        m.mark.mountPoint.c_str()) != 0) {
      QEB_TRACE(m_tracer, LevelError) << "fanotify: cannot mark the filesystem at "
                                      << m.mark.mountPoint << ": " << std::strerror(errno);
      continue;
    }
    QEB_TRACE(m_tracer, LevelDetail) << "fanotify: marked the filesystem at " << m.mark.mountPoint
                                     << " (lane " << m.lane << ")";
    kept.push_back(m);
    ++placed;
  }
  m_permissionMarks = std::move(kept);
  m_permissionMask = mask;
}

void FanotifyEventsProvider::PlaceRenameMarks(const std::vector<Mark>& marks,
                                              const nox::MountList& mounts) {
  const int group = m_renameGroup.Get();
  for (const auto& old : m_renameMarks) {
    const bool wanted = std::any_of(marks.begin(), marks.end(),
                                    [&](const Mark& m) { return m.dev == old.dev; });
    if (!wanted && Listed(mounts, old.mountPoint))
      ::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_FILESYSTEM, FAN_RENAME, AT_FDCWD,
                      old.mountPoint.c_str());
  }
  std::vector<Mark> kept;
  Anchors anchors;
  for (const auto& mark : marks) {
    auto anchor = std::make_shared<UniqueFd>(
        ::open(mark.mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct statfs st {};
    if (!anchor->Valid() || ::fstatfs(anchor->Get(), &st) != 0 ||
        ::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, FAN_RENAME, AT_FDCWD,
                        mark.mountPoint.c_str()) != 0) {
      QEB_TRACE(m_tracer, LevelNotice) << "fanotify: renames on " << mark.mountPoint
                                       << " are not followed: " << std::strerror(errno);
      continue;
    }
    anchors.emplace(FsidKey(st.f_fsid), std::move(anchor));
    kept.push_back(mark);
  }
  m_renameMarks = std::move(kept);
  m_anchors = std::move(anchors);
}

// Built from a fresh read of oasd's own mount table, which names each mount's id and the
// directory of its filesystem it shows; only the local lane's filesystems are opened.
void FanotifyEventsProvider::UpdateScope(const std::vector<PlacedMark>& marks) {
  std::string text;
  std::vector<ScopedFilesystem> filesystems;
  for (const auto& m : marks)
    filesystems.push_back(ScopedFilesystem{m.mark.dev, m.mark.mountPoint, m.lane == 0});
  auto scope = std::make_shared<const FilesystemScope>(
      ReadOwnMountInfo(text) ? ParseOwnMounts(text) : std::vector<OwnMount>{}, filesystems);
  std::lock_guard lock(m_scopeMutex);
  m_scope = std::move(scope);
}

void FanotifyEventsProvider::RemoveAllMarks() noexcept {
  for (const auto& lane : m_lanes)
    if (!m_closed) ::fanotify_mark(lane.group, FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr);
  if (m_renameGroup.Valid())
    ::fanotify_mark(m_renameGroup.Get(), FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr);
  m_permissionMarks.clear();
  m_permissionMask = 0;
  m_renameMarks.clear();
  m_anchors.clear();
  std::lock_guard lock(m_scopeMutex);  // a leaf under m_marksMutex
  m_scope.reset();
}

// ---- reading -------------------------------------------------------------------------

bool FanotifyEventsProvider::WaitReadable(int group) const noexcept {
  pollfd fds[2] = {{group, POLLIN, 0}, {m_stopFd.Get(), POLLIN, 0}};
  for (;;) {
    if (::poll(fds, 2, -1) < 0) {
      // Giving up would leave every marked open waiting: only a stop ends a reader.
      if (errno != EINTR) ::usleep(1000);
      continue;
    }
    if (fds[1].revents != 0) return false;
    if (fds[0].revents & POLLIN) return true;
    if (fds[0].revents & POLLNVAL) return false;
    ::usleep(1000);  // an error condition without data: do not spin on it
  }
}

// The kernel has already denied an event it could not open a descriptor for: the reader
// only says so, sparingly.
void FanotifyEventsProvider::ReportReadError(int error) noexcept {
  if (error == EAGAIN || error == EINTR) return;
  const uint64_t count = m_readErrors.fetch_add(1, std::memory_order_relaxed) + 1;
  if ((count & (count - 1)) != 0) return;
  QEB_TRACE(m_tracer, LevelError) << "fanotify: reading events failed (" << count
                                  << " times so far): " << std::strerror(error);
  if (error == EMFILE || error == ENFILE) ::usleep(1000);
}

void FanotifyEventsProvider::ReadLane(Lane& lane) noexcept {
  MarkFanotifyReaderThread();
  pthread_setname_np(pthread_self(), lane.server ? "oasdFanotifySrv" : "oasdFanotify");
  EventRecordBuilder records(m_ownNamespace, *m_writes);
  alignas(fanotify_event_metadata) char buffer[BatchBytes];
  std::array<uint64_t, MaxBatchEvents> cookies{};
  uint64_t generation = m_mountGeneration.load();
  // A server lane may wait on its server for good; restarting oasd would not help that.
  StageProgress* progress = lane.server ? nullptr : &m_metrics.progress.reader;
  while (WaitReadable(lane.group)) {
    // From before the read: the kernel opens each event's file inside it.
    if (progress) progress->Started();
    const ssize_t length = ::read(lane.group, buffer, sizeof buffer);
    if (length <= 0) {
      if (length < 0) ReportReadError(errno);
      if (progress) progress->Finished();
      continue;
    }
    if (const uint64_t now = m_mountGeneration.load(std::memory_order_relaxed); now != generation) {
      generation = now;
      records.ForgetFilesystems();
    }
    const Context context = CurrentContext();
    size_t index = 0;
    if (lane.server)
      ForEachEvent(buffer, length, [&](const fanotify_event_metadata& event) {
        cookies[index++] = context.receiver.receiver ? RegisterEarly(event) : 0;
      });
    index = 0;
    ForEachEvent(buffer, length, [&](const fanotify_event_metadata& event) {
      HandlePermissionGroupEvent(event, context, records, lane.server ? cookies[index++] : 0);
    });
    if (progress) progress->Finished();
  }
}

void FanotifyEventsProvider::ReadRenameEvents() noexcept {
  pthread_setname_np(pthread_self(), "oasdRename");
  EventRecordBuilder records(m_ownNamespace, *m_writes);
  alignas(fanotify_event_metadata) char buffer[BatchBytes];
  while (WaitReadable(m_renameGroup.Get())) {
    const ssize_t length = ::read(m_renameGroup.Get(), buffer, sizeof buffer);
    if (length <= 0) {
      if (length < 0) ReportReadError(errno);
      continue;
    }
    records.ForgetFilesystems();  // renames are rare; their statfs costs nothing worth caching
    const Context context = CurrentContext();
    ForEachEvent(buffer, length, [&](const fanotify_event_metadata& event) {
      HandleRenameEvent(event, context, records);
    });
  }
}

uint64_t FanotifyEventsProvider::RegisterEarly(const fanotify_event_metadata& event) noexcept {
  if (event.fd < 0 || event.pid == m_ownPid || !m_table ||
      !(event.mask & (FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM)))
    return 0;
  const uint64_t cookie = m_nextCookie.fetch_add(1, std::memory_order_relaxed) + 1;
  if (!m_table->Add(event.fd, cookie, PermissionTable::Kind::Permission)) return 0;
  m_table->MarkPending(event.fd, cookie);
  return cookie;
}

void FanotifyEventsProvider::HandlePermissionGroupEvent(const fanotify_event_metadata& event,
                                                        const Context& context,
                                                        EventRecordBuilder& records,
                                                        uint64_t cookie) noexcept {
  m_metrics.events.fetch_add(1, std::memory_order_relaxed);
  if (event.fd < 0) {
    if ((event.mask & FAN_Q_OVERFLOW) && !m_overflowReported.exchange(true)) {
      QEB_TRACE(m_tracer, LevelError) << "fanotify: the kernel's event queue overflowed";
    }
    return;
  }
  m_metrics.eventsByKind[KindOf(event.mask)].fetch_add(1, std::memory_order_relaxed);
  const bool permission = (event.mask & (FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM)) != 0;
  if (event.pid == m_ownPid) {
    m_metrics.ownEvents.fetch_add(1, std::memory_order_relaxed);
    AnswerNow(event.fd, permission);
    return;
  }
  bool handedOver = false;
  try {
    // Noted before any later event of the file is read, so its record shows the write.
    if (event.mask & (FAN_MODIFY | FAN_CLOSE_WRITE)) {
      m_writes->NoteWriteTo(event.fd);
      // The kernel clears the mark on write() itself, but not for a shared mapping's writes:
      // their close is the first oasd hears of them.
      m_responder->ForgetClean(event.fd);
    }
    if (!(event.mask & (FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM | FAN_CLOSE_WRITE))) {
      LetThrough(event.fd, permission, cookie);
      return;
    }
    if (!context.receiver.receiver || !InScope(event.fd, context, records)) {
      LetThrough(event.fd, permission, cookie);
      return;
    }
    Deliver(event.fd, event.pid, OperationOf(event.mask), permission, context, records, cookie,
            handedOver);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    if (!handedOver) LetThrough(event.fd, permission, cookie);
  }
}

void FanotifyEventsProvider::HandleRenameEvent(const fanotify_event_metadata& event,
                                               const Context& context,
                                               EventRecordBuilder& records) noexcept {
  m_metrics.events.fetch_add(1, std::memory_order_relaxed);
  if (!(event.mask & FAN_RENAME) || !context.receiver.receiver) return;
  m_metrics.eventsByKind[HostMetrics::Rename].fetch_add(1, std::memory_order_relaxed);
  if (event.pid == m_ownPid) {
    m_metrics.ownEvents.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  int fd = -1;
  bool handedOver = false;
  try {
    fd = OpenRenamed(event);
    if (fd < 0) return;
    if (!InScope(fd, context, records)) {
      ::close(fd);
      return;
    }
    Deliver(fd, event.pid, vrel::VREL_ACTION_RENAME, false, context, records, 0, handedOver);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    if (fd >= 0 && !handedOver) ::close(fd);
  }
}

// A path that cannot be placed goes to the module as read: scanning a file outside the scan
// areas costs a scan, letting one inside them through unscanned would be a hole.
// Without a scope no mark is in place: the event was on its way when the marks went.
bool FanotifyEventsProvider::InScope(int fd, const Context& context, EventRecordBuilder& records) {
  if (!context.scope || !records.ReadPath(fd)) return false;
  records.ReadMetadata(fd);
  const FilesystemScope::Placement placement =
      context.scope->Place(fd, records.Device(), records.MountId(), records.MutablePath());
  if (placement == FilesystemScope::Placement::Unplaced) {
    const uint64_t count = m_unplaced.fetch_add(1, std::memory_order_relaxed) + 1;
    if ((count & (count - 1)) == 0) {
      QEB_TRACE(m_tracer, LevelNotice) << "fanotify: " << count << " files on marked filesystems "
                                       << "could not be placed in oasd's namespace and were "
                                       << "scanned, the latest " << records.Path();
    }
    return true;
  }
  return records.PathIsTooLong() || context.receiver.filter->Covers(records.Path());
}

void FanotifyEventsProvider::Deliver(int fd, int32_t pid, uint32_t oper, bool permission,
                                     const Context& context, EventRecordBuilder& records,
                                     uint64_t cookie, bool& handedOver) {
  if (cookie == 0) {
    if (!permission && !RoomForNotification()) {
      handedOver = true;
      AnswerNow(fd, false);
      return;
    }
    cookie = m_nextCookie.fetch_add(1, std::memory_order_relaxed) + 1;
    const auto kind = permission ? PermissionTable::Kind::Permission : PermissionTable::Kind::Notification;
    // From here on the event is answered exactly once: by the table, or here when it is
    // drained and takes nothing more.
    handedOver = true;
    if (!m_table || !m_table->Add(fd, cookie, kind, records.Size())) {
      AnswerNow(fd, permission);
      return;
    }
  }
  handedOver = true;
  const vrel::EventParams& params = records.Build(fd, pid, oper, cookie, context.now);
  const qeb::result_t result = context.receiver.receiver->OnEvent(params);
  if (result == res::Ok) {
    m_table->MarkPending(fd, cookie);
    return;
  }
  const bool allow = QEB_SUCCEEDED(result);
  if (m_table->Complete(fd, cookie, allow))
    (allow ? m_metrics.allowedAtOnce : m_metrics.verdictsDeny).fetch_add(1, std::memory_order_relaxed);
}

void FanotifyEventsProvider::LetThrough(int fd, bool permission, uint64_t cookie) noexcept {
  if (cookie != 0 && m_table) m_table->Complete(fd, cookie, true);
  else AnswerNow(fd, permission);
}

bool FanotifyEventsProvider::RoomForNotification() noexcept {
  if (m_table && m_table->NotificationsHeld() < MaxNotificationsInFlight) return true;
  const uint64_t count = m_notificationsSkipped.fetch_add(1, std::memory_order_relaxed) + 1;
  if ((count & (count - 1)) == 0) {
    QEB_TRACE(m_tracer, LevelNotice)
        << "fanotify: " << count << " files written or renamed were left to be scanned on their "
        << "next open: " << MaxNotificationsInFlight << " were already waiting";
  }
  return false;
}

void FanotifyEventsProvider::AnswerNow(int fd, bool permission) noexcept {
  if (permission) m_responder->Respond(fd, true);
  m_responder->Close(fd);
}

// The target's own handle leads to the file whatever it is called by now. It is opened
// without access first, so that only a regular file is ever opened for reading (opening a
// device or a fifo could have effects of its own).
int FanotifyEventsProvider::OpenRenamed(const fanotify_event_metadata& event) const {
  const char* info = reinterpret_cast<const char*>(&event) + event.metadata_len;
  const char* end = reinterpret_cast<const char*>(&event) + event.event_len;
  while (info + sizeof(fanotify_event_info_header) <= end) {
    const auto* header = reinterpret_cast<const fanotify_event_info_header*>(info);
    if (header->len < sizeof *header || info + header->len > end) return -1;
    if (header->info_type != FAN_EVENT_INFO_TYPE_FID) {
      info += header->len;
      continue;
    }
    const auto* fid = reinterpret_cast<const fanotify_event_info_fid*>(info);
    std::shared_ptr<UniqueFd> anchor;
    {
      std::lock_guard lock(m_marksMutex);
      const auto it = m_anchors.find(FsidKey(fid->fsid));
      if (it == m_anchors.end()) return -1;
      anchor = it->second;
    }
    auto* handle = reinterpret_cast<file_handle*>(const_cast<unsigned char*>(fid->handle));
    const UniqueFd located(::open_by_handle_at(anchor->Get(), handle, O_PATH | O_CLOEXEC));
    struct stat st {};
    if (!located.Valid() || ::fstat(located.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    return ::open_by_handle_at(anchor->Get(), handle, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }
  return -1;
}

}  // namespace oasd
