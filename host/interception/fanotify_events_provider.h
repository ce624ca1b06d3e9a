// The events provider on fanotify. It owns the permission groups (open and exec permission
// events, close-after-write notifications; one group and reader per lane), the rename group
// where the kernel has one with its reader, the marks, the filesystem scope and the one
// subscription (receiver and path filter). Every event descriptor read is answered and
// closed here, or handed to the permission table, which owns it from then on. The groups are
// answered through the responder, shared with the table, and closed by TearDown. Writes are
// noted in the written-files table it shares. The kernel cache's bookkeeping is the
// responder's, reached only through it. Locks: marks and subscription are never held
// together, nor across a call into the module.
#pragma once

#include <sys/fanotify.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/qeb/host_object.h"
#include "framework/qeb/objptr.h"
#include "host/interception/event_record.h"
#include "host/interception/event_scope.h"
#include "host/interception/fanotify_marks.h"
#include "host/interception/kernel_cache.h"
#include "host/common/host_metrics.h"
#include "host/interception/permission_table.h"
#include "host/system/written_files.h"
#include "host/common/unique_fd.h"
#include "interfaces/nox/file_events.h"
#include "interfaces/nox/mounts.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

class FanotifyResponder;

class FanotifyEventsProvider
    : public qeb::object::Ifaces<nox::IEventsProvider, nox::IMountEvents> {
 public:
  // Bytes read at once: a few hundred events in one system call under load.
  static constexpr size_t BatchBytes = 16384;
  // Files closed after writing or renamed that may wait for a scan at once. A writer does
  // not wait for them, so a big unpack could queue thousands and fill the module's queue,
  // which then refuses, and so denies, opens; past this many a notification goes unscanned
  // and the file is scanned when it is next opened.
  static constexpr size_t MaxNotificationsInFlight = 1024;
  // Lanes for filesystems whose open or metadata may wait on a server (FUSE, network): each
  // has its own group and reader, so a server that stops answering holds only its lane.
  // Past this many such filesystems the last lane is shared. Lane 0 serves every other
  // filesystem.
  static constexpr size_t ServerLanes = 3;

  FanotifyEventsProvider(qeb::objptr_t<qeb::ITracer> tracer, HostMetrics& metrics,
                         qeb::objptr_t<nox::IMountProvider> mounts,
                         qeb::objptr_t<nox::IMountSubscription> mountChanges,
                         std::shared_ptr<WrittenFiles> writes = nullptr);
  ~FanotifyEventsProvider();

  // Creates the groups; fails when the kernel refuses permission events (not root, or no
  // fanotify). A kernel without rename events is noted once and interception goes on, and
  // so does one without evictable ignore marks, without the kernel cache. kernelCacheEntries:
  // how many clean files the kernel may answer for at once, 0 for none.
  qeb::result_t SetUp(size_t kernelCacheEntries = 0);
  // Answers permission events of every lane; the permission table's responder.
  std::shared_ptr<PermissionResponder> Responder() const;
  // Starts the readers, which hand the events the module queues to table, and follows the
  // mount list so new mounts under a scan area are marked too.
  void Start(std::shared_ptr<PermissionTable> table);
  // Removes the marks, stops the readers and closes the groups: the kernel allows whatever
  // it still held. Call after the table's Drain. Idempotent.
  void TearDown() noexcept;

  // Drops every clean file the kernel answers for; an event already read can no longer
  // become one. Call after the change is in force (the engine reloaded, say).
  void FlushKernelCache(KernelCache::FlushReason reason) noexcept;
  // The flush that keeps the kernel's entries younger than the module's; call at least
  // every 30 s.
  void ExpireKernelCache() noexcept;

  // One receiver at a time: a second one is refused until the first unsubscribes.
  qeb::result_t Subscribe(nox::IFileEventsReceiver* receiver,
                          const nox::FileEventsSubscription& subscription) noexcept override;
  qeb::result_t Resubscribe(nox::IFileEventsReceiver* receiver,
                            const nox::FileEventsSubscription& subscription) noexcept override;
  qeb::result_t Unsubscribe(nox::IFileEventsReceiver* receiver) noexcept override;

  qeb::result_t OnMountListChanged(const nox::MountList& added, const nox::MountList& removed,
                                   const nox::MountList& current) noexcept override;
  qeb::result_t OnNamespaceMountListChanged(ino_t mountNamespace, const nox::MountList& added,
                                            const nox::MountList& removed,
                                            const nox::MountList& current) noexcept override;

 private:
  using Clock = EventRecordBuilder::Clock;
  struct Receiver {
    qeb::objptr_t<nox::IFileEventsReceiver> receiver;
    std::shared_ptr<const PathFilter> filter;
  };
  // The directory a filesystem mark was placed through: open_by_handle_at needs one.
  using Anchors = std::map<uint64_t, std::shared_ptr<UniqueFd>>;
  struct Lane {
    int group = -1;  // owned by the responder
    bool server = false;
    std::thread reader;
  };
  struct PlacedMark {
    Mark mark;
    size_t lane = 0;
    bool operator==(const PlacedMark&) const = default;
  };
  // What a reader reads its events against, taken once per batch.
  struct Context {
    Receiver receiver;
    std::shared_ptr<const FilesystemScope> scope;
    Clock::time_point now;
  };
  static constexpr size_t MaxBatchEvents = BatchBytes / sizeof(fanotify_event_metadata);

  void OpenRenameGroup();
  qeb::result_t Attach(nox::IFileEventsReceiver* receiver,
                       const nox::FileEventsSubscription& subscription, bool replace);
  void Detach() noexcept;
  Receiver CurrentReceiver() const;
  Context CurrentContext() const;

  // m_marksMutex held for all five.
  qeb::result_t PlaceMarks(const nox::FileEventsSubscription& subscription,
                           const nox::MountList& mounts);
  void PlacePermissionMarks(const std::vector<PlacedMark>& marks, uint64_t mask,
                            const nox::MountList& mounts, size_t& placed);
  void PlaceRenameMarks(const std::vector<Mark>& marks, const nox::MountList& mounts);
  void UpdateScope(const std::vector<PlacedMark>& marks);
  void RemoveAllMarks() noexcept;

  void ReadLane(Lane& lane) noexcept;
  void ReadRenameEvents() noexcept;
  // Waits for events on group; false once the readers are told to stop.
  bool WaitReadable(int group) const noexcept;
  void ReportReadError(int error) noexcept;
  // Puts a permission event in the table under the deadline before anything is read about
  // its file: its cookie, or 0 when it stays with the reader.
  uint64_t RegisterEarly(const fanotify_event_metadata& event) noexcept;
  // cookie: the event's from RegisterEarly, or 0.
  void HandlePermissionGroupEvent(const fanotify_event_metadata& event, const Context& context,
                                  EventRecordBuilder& records, uint64_t cookie) noexcept;
  void HandleRenameEvent(const fanotify_event_metadata& event, const Context& context,
                         EventRecordBuilder& records) noexcept;
  // Reads the file's path and metadata and places the path in oasd's namespace: true when
  // the event is for the module (a file that cannot be placed is).
  bool InScope(int fd, const Context& context, EventRecordBuilder& records);
  // Hands the event to the module through the table; handedOver turns true once the table
  // owns the descriptor. cookie: the event's when the table already holds it, or 0.
  void Deliver(int fd, int32_t pid, uint32_t oper, bool permission, const Context& context,
               EventRecordBuilder& records, uint64_t cookie, bool& handedOver);
  // Lets an event go unscanned: through the table when it holds it (cookie not 0).
  void LetThrough(int fd, bool permission, uint64_t cookie) noexcept;
  // false (and noted, sparingly) when MaxNotificationsInFlight wait already.
  bool RoomForNotification() noexcept;
  // Allows a permission event (a notification needs no answer) and closes its descriptor.
  void AnswerNow(int fd, bool permission) noexcept;
  // A readable descriptor of the renamed file, or -1.
  int OpenRenamed(const fanotify_event_metadata& event) const;

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  HostMetrics& m_metrics;
  const qeb::objptr_t<nox::IMountProvider> m_mounts;
  const qeb::objptr_t<nox::IMountSubscription> m_mountChanges;
  const int32_t m_ownPid;
  const uint64_t m_ownNamespace;
  const std::shared_ptr<WrittenFiles> m_writes;  // a private one when none is given

  std::shared_ptr<FanotifyResponder> m_responder;  // owns the permission groups
  std::vector<Lane> m_lanes;  // fixed after SetUp; [0] serves local filesystems
  UniqueFd m_renameGroup;
  UniqueFd m_stopFd;
  std::shared_ptr<PermissionTable> m_table;
  std::thread m_renameReader;
  bool m_followingMounts = false;
  std::atomic<uint64_t> m_nextCookie{0};
  std::atomic<uint64_t> m_mountGeneration{0};
  std::atomic<uint64_t> m_readErrors{0};
  std::atomic<bool> m_overflowReported{false};
  std::atomic<uint64_t> m_notificationsSkipped{0};
  std::atomic<uint64_t> m_unplaced{0};

  mutable std::mutex m_scopeMutex;  // guards m_scope only
  std::shared_ptr<const FilesystemScope> m_scope;

  mutable std::mutex m_subscriptionMutex;  // guards m_receiver
  Receiver m_receiver;

  mutable std::mutex m_marksMutex;  // guards everything below
  bool m_subscribed = false;
  bool m_closed = false;  // set by TearDown: no group may be marked again
  nox::FileEventsSubscription m_subscription;
  std::vector<PlacedMark> m_permissionMarks;
  uint64_t m_permissionMask = 0;
  std::vector<Mark> m_renameMarks;
  Anchors m_anchors;
};

}  // namespace oasd
