// The readers never wait for anything but the kernel: the module answers OnEvent at once,
// an immediate answer is written on the reader thread, and a queued event's verdict comes
// back on the module's threads through the table. oasd's own accesses (the engine reading
// an event's descriptor, the rename reader reopening a file) are allowed before anything
// else is done, so the daemon never waits for itself.
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
#include <cerrno>
#include <cstring>
#include <shared_mutex>
#include <string>
#include <utility>

#include "framework/qeb/exception.h"
#include "host/system/info_caches.h"
#include "host/common/reader_thread.h"
#include "interfaces/vrel/file_interceptor.h"
#include "nox_tracing/tracing.h"

namespace oasd {

namespace res = qeb::res;
using qeb::trace::LevelDetail;
using qeb::trace::LevelError;
using qeb::trace::LevelNotice;

// Answers go out under a shared lock, Shutdown closes the group under the exclusive one: an
// answer racing the stop is either written to the group or dropped, never written to a
// descriptor number that has since been reused.
class FanotifyResponder final : public PermissionResponder {
 public:
  explicit FanotifyResponder(int group) noexcept : m_group(group) {}
  ~FanotifyResponder() override { Shutdown(); }

  void Respond(int fd, bool allow) noexcept override {
    const fanotify_response response{fd, allow ? uint32_t{FAN_ALLOW} : uint32_t{FAN_DENY}};
    std::shared_lock lock(m_mutex);
    if (m_group < 0) return;
    while (::write(m_group, &response, sizeof response) < 0 && errno == EINTR) {
    }
  }

  void Close(int fd) noexcept override { ::close(fd); }

  void Shutdown() noexcept {
    std::unique_lock lock(m_mutex);
    if (m_group >= 0) ::close(m_group);
    m_group = -1;
  }

 private:
  std::shared_mutex m_mutex;
  int m_group;
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

qeb::result_t FanotifyEventsProvider::SetUp() {
  RaiseDescriptorLimit();
  OpenRenameGroup();
  const int group = OpenPermissionGroup();
  if (group < 0) {
    const int error = errno;
    QEB_TRACE(m_tracer, LevelError) << "fanotify: cannot create the permission group: "
                                    << std::strerror(error)
                                    << " (oasd needs root and a kernel with fanotify permission events)";
    return ErrnoResult(error);
  }
  m_permissionGroup = group;
  m_responder = std::make_shared<FanotifyResponder>(group);
  m_stopFd.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!m_stopFd.Valid()) return ErrnoResult(errno);
  return res::Ok;
}

// An open waiting for its verdict pins the rename group's filesystem mark too, and releasing
// a group waits until no open pins it. When oasd dies without a stop, the kernel releases
// its descriptors highest number first: the permission group must go first (its release
// answers every waiting open), or the rename group's release would wait for opens that
// only the permission group's release can let go, and every opener would hang with it.
int FanotifyEventsProvider::OpenPermissionGroup() const {
  const int group = ::fanotify_init(
      FAN_CLASS_CONTENT | FAN_CLOEXEC | FAN_NONBLOCK | FAN_UNLIMITED_QUEUE | FAN_UNLIMITED_MARKS,
      O_RDONLY | O_LARGEFILE | O_CLOEXEC);
  if (group < 0 || !m_renameGroup.Valid() || group > m_renameGroup.Get()) return group;
  const int above = ::fcntl(group, F_DUPFD_CLOEXEC, m_renameGroup.Get() + 1);
  const int error = errno;
  ::close(group);
  errno = error;
  return above;
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
  if (m_permissionGroup < 0 || m_permissionReader.joinable()) return;
  m_table = std::move(table);
  m_permissionReader = std::thread([this] { ReadPermissionEvents(); });
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
  }
  if (m_stopFd.Valid()) {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(m_stopFd.Get(), &one, sizeof one);
  }
  if (m_permissionReader.joinable()) m_permissionReader.join();
  if (m_renameReader.joinable()) m_renameReader.join();
  Detach();
  if (m_responder) m_responder->Shutdown();
  m_permissionGroup = -1;
  m_renameGroup.Reset();
  m_table.reset();
}

// ---- subscription --------------------------------------------------------------------

qeb::result_t FanotifyEventsProvider::Subscribe(
    nox::IFileEventsReceiver* receiver, const nox::FileEventsSubscription& subscription) noexcept {
  return Attach(receiver, subscription, false);
}

qeb::result_t FanotifyEventsProvider::Resubscribe(
    nox::IFileEventsReceiver* receiver, const nox::FileEventsSubscription& subscription) noexcept {
  return Attach(receiver, subscription, true);
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
  if (m_permissionGroup < 0) return res::NotReady;
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

qeb::result_t FanotifyEventsProvider::OnMountListChanged(const nox::MountList& added,
                                                         const nox::MountList&,
                                                         const nox::MountList& current) noexcept {
  m_mountGeneration.fetch_add(1, std::memory_order_relaxed);
  if (added.empty()) return res::Ok;
  try {
    std::lock_guard lock(m_marksMutex);
    if (m_subscribed) PlaceMarks(m_subscription, current);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
  }
  return res::Ok;
}

// Marks are placed by path in oasd's own namespace; other namespaces' mounts are not ours.
qeb::result_t FanotifyEventsProvider::OnNamespaceMountListChanged(ino_t, const nox::MountList&,
                                                                  const nox::MountList&,
                                                                  const nox::MountList&) noexcept {
  return res::Ok;
}

// ---- marks ---------------------------------------------------------------------------

// Adding a mark that is already there only widens its mask, so the whole plan is applied
// each time; a mark is removed only from a mount still listed, since a path whose mount is
// gone resolves to the mount beneath it, which may be one that must stay marked.
qeb::result_t FanotifyEventsProvider::PlaceMarks(const nox::FileEventsSubscription& subscription,
                                                 const nox::MountList& mounts) {
  const uint64_t mask = PermissionGroupMask(subscription.flags);
  const std::vector<Mark> mountMarks = ChooseMountMarks(subscription.scanAreas, mounts);
  const bool renames =
      (subscription.flags & vrel::VREL_ACTION_FILTER_RENAME) && m_renameGroup.Valid();
  size_t placed = 0;
  PlaceMountMarks(mountMarks, mask, mounts, placed);
  PlaceFilesystemMarks(renames ? ChooseFilesystemMarks(mountMarks) : std::vector<Mark>{}, mounts);
  QEB_TRACE(m_tracer, LevelNotice) << "fanotify: " << placed << " of " << mountMarks.size()
                                   << " mounts marked for " << subscription.scanAreas.size()
                                   << " scan areas" << (renames ? ", renames followed" : "");
  if (mountMarks.empty()) {
    QEB_TRACE(m_tracer, LevelError) << "fanotify: no monitored mount holds the scan areas";
    return res::Ok;
  }
  return placed == 0 && mask != 0 ? res::NotFound : res::Ok;
}

void FanotifyEventsProvider::PlaceMountMarks(const std::vector<Mark>& marks, uint64_t mask,
                                             const nox::MountList& mounts, size_t& placed) {
  const int group = m_permissionGroup;
  for (const auto& old : m_mountMarks)
    if (std::find(marks.begin(), marks.end(), old) == marks.end() && Listed(mounts, old.mountPoint))
      ::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_MOUNT, m_mountMask, AT_FDCWD,
                      old.mountPoint.c_str());
  if (const uint64_t dropped = m_mountMask & ~mask; dropped != 0)
    for (const auto& mark : marks)
      ::fanotify_mark(group, FAN_MARK_REMOVE | FAN_MARK_MOUNT, dropped, AT_FDCWD,
                      mark.mountPoint.c_str());
  std::vector<Mark> kept;
  for (const auto& mark : marks) {
    if (mask == 0) break;
    if (::fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_MOUNT, mask, AT_FDCWD,
                        mark.mountPoint.c_str()) != 0) {
      QEB_TRACE(m_tracer, LevelError) << "fanotify: cannot mark the mount " << mark.mountPoint
                                      << ": " << std::strerror(errno);
      continue;
    }
    QEB_TRACE(m_tracer, LevelDetail) << "fanotify: marked the mount " << mark.mountPoint;
    kept.push_back(mark);
    ++placed;
  }
  m_mountMarks = std::move(kept);
  m_mountMask = mask;
}

void FanotifyEventsProvider::PlaceFilesystemMarks(const std::vector<Mark>& marks,
                                                  const nox::MountList& mounts) {
  const int group = m_renameGroup.Get();
  for (const auto& old : m_filesystemMarks) {
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
  m_filesystemMarks = std::move(kept);
  m_anchors = std::move(anchors);
}

void FanotifyEventsProvider::RemoveAllMarks() noexcept {
  if (m_permissionGroup >= 0)
    ::fanotify_mark(m_permissionGroup, FAN_MARK_FLUSH | FAN_MARK_MOUNT, 0, AT_FDCWD, nullptr);
  if (m_renameGroup.Valid())
    ::fanotify_mark(m_renameGroup.Get(), FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr);
  m_mountMarks.clear();
  m_mountMask = 0;
  m_filesystemMarks.clear();
  m_anchors.clear();
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

void FanotifyEventsProvider::ReadPermissionEvents() noexcept {
  MarkFanotifyReaderThread();
  pthread_setname_np(pthread_self(), "oasdFanotify");
  EventRecordBuilder records(m_ownNamespace, *m_writes);
  alignas(fanotify_event_metadata) char buffer[BatchBytes];
  uint64_t generation = m_mountGeneration.load();
  while (WaitReadable(m_permissionGroup)) {
    const ssize_t length = ::read(m_permissionGroup, buffer, sizeof buffer);
    if (length <= 0) {
      if (length < 0) ReportReadError(errno);
      continue;
    }
    if (const uint64_t now = m_mountGeneration.load(std::memory_order_relaxed); now != generation) {
      generation = now;
      records.ForgetFilesystems();
    }
    const Receiver receiver = CurrentReceiver();
    const Clock::time_point now = Clock::now();
    ForEachEvent(buffer, length, [&](const fanotify_event_metadata& event) {
      HandlePermissionGroupEvent(event, receiver, records, now);
    });
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
    const Receiver receiver = CurrentReceiver();
    const Clock::time_point now = Clock::now();
    ForEachEvent(buffer, length, [&](const fanotify_event_metadata& event) {
      HandleRenameEvent(event, receiver, records, now);
    });
  }
}

void FanotifyEventsProvider::HandlePermissionGroupEvent(const fanotify_event_metadata& event,
                                                        const Receiver& receiver,
                                                        EventRecordBuilder& records,
                                                        Clock::time_point now) noexcept {
  m_metrics.events.fetch_add(1, std::memory_order_relaxed);
  if (event.fd < 0) {
    if ((event.mask & FAN_Q_OVERFLOW) && !m_overflowReported.exchange(true)) {
      QEB_TRACE(m_tracer, LevelError) << "fanotify: the kernel's event queue overflowed";
    }
    return;
  }
  const bool permission = (event.mask & (FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM)) != 0;
  if (event.pid == m_ownPid) {
    m_metrics.ownEvents.fetch_add(1, std::memory_order_relaxed);
    AnswerNow(event.fd, permission);
    return;
  }
  bool handedOver = false;
  try {
    // Noted before any later event of the file is read, so its record shows the write.
    if (event.mask & (FAN_MODIFY | FAN_CLOSE_WRITE)) m_writes->NoteWriteTo(event.fd);
    if (!(event.mask & (FAN_OPEN_PERM | FAN_OPEN_EXEC_PERM | FAN_CLOSE_WRITE))) {
      AnswerNow(event.fd, false);
      return;
    }
    if (!receiver.receiver || !records.ReadPath(event.fd) ||
        (!records.PathIsTooLong() && !receiver.filter->Covers(records.Path()))) {
      AnswerNow(event.fd, permission);
      return;
    }
    Deliver(event.fd, event.pid, OperationOf(event.mask), permission, receiver, records, now,
            handedOver);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    if (!handedOver) AnswerNow(event.fd, permission);
  }
}

void FanotifyEventsProvider::HandleRenameEvent(const fanotify_event_metadata& event,
                                               const Receiver& receiver,
                                               EventRecordBuilder& records,
                                               Clock::time_point now) noexcept {
  m_metrics.events.fetch_add(1, std::memory_order_relaxed);
  if (!(event.mask & FAN_RENAME) || !receiver.receiver) return;
  if (event.pid == m_ownPid) {
    m_metrics.ownEvents.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  int fd = -1;
  bool handedOver = false;
  try {
    fd = OpenRenamed(event);
    if (fd < 0) return;
    if (!records.ReadPath(fd) ||
        (!records.PathIsTooLong() && !receiver.filter->Covers(records.Path()))) {
      ::close(fd);
      return;
    }
    Deliver(fd, event.pid, vrel::VREL_ACTION_RENAME, false, receiver, records, now, handedOver);
  } catch (...) {
    qeb::TraceCurrentException(m_tracer.Get());
    if (fd >= 0 && !handedOver) ::close(fd);
  }
}

void FanotifyEventsProvider::Deliver(int fd, int32_t pid, uint32_t oper, bool permission,
                                     const Receiver& receiver, EventRecordBuilder& records,
                                     Clock::time_point now, bool& handedOver) {
  if (!permission && !RoomForNotification()) {
    handedOver = true;
    AnswerNow(fd, false);
    return;
  }
  const uint64_t cookie = m_nextCookie.fetch_add(1, std::memory_order_relaxed) + 1;
  const vrel::EventParams& params = records.Build(fd, pid, oper, cookie, now);
  const auto kind = permission ? PermissionTable::Kind::Permission : PermissionTable::Kind::Notification;
  // From here on the event is answered exactly once: by the table, or here when it is
  // drained and takes nothing more.
  handedOver = true;
  if (!m_table || !m_table->Add(fd, cookie, kind)) {
    AnswerNow(fd, permission);
    return;
  }
  const qeb::result_t result = receiver.receiver->OnEvent(params);
  if (result == res::Ok) {
    m_table->MarkPending(fd, cookie);
    return;
  }
  const bool allow = QEB_SUCCEEDED(result);
  if (m_table->Complete(fd, cookie, allow))
    (allow ? m_metrics.allowedAtOnce : m_metrics.verdictsDeny).fetch_add(1, std::memory_order_relaxed);
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
