// Events handed to the module, each until it is answered and its descriptor closed. The
// table owns every descriptor it accepted and closes each exactly once; the answer to the
// kernel goes through the PermissionResponder seam, exactly once per permission event,
// whoever comes first: the reader with the module's immediate answer, the module's verdict,
// the hard deadline (allow or deny, as configured), or the stop's drain. It owns the
// deadline thread, nothing else.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "host/common/host_metrics.h"
#include "interfaces/vrel/event_params.h"

namespace oasd {

// A file allowed as clean, as its event saw it: what a cache of the verdict is checked against.
struct CleanFile {
  vrel::Timespec ctime;  // as the record carries it (with the write generation)
  vrel::Timespec mtime;
  int64_t size = -1;
  uint64_t cookie = 0;  // orders the event against cache flushes
};

// How the table reaches the kernel: answer a permission event named by its descriptor,
// and close a descriptor. An answer always comes before the descriptor is closed, since
// once closed its number may already name another event.
class PermissionResponder {
 public:
  virtual ~PermissionResponder() = default;
  virtual void Respond(int fd, bool allow) noexcept = 0;
  // Allows the event, and the kernel may answer the file's next opens itself.
  virtual void RespondClean(int fd, const CleanFile&) noexcept { Respond(fd, true); }
  virtual void Close(int fd) noexcept = 0;
};

class PermissionTable {
 public:
  using Clock = std::chrono::steady_clock;
  // A permission event holds an opener until it is answered; a notification (closed after
  // writing, renamed) only keeps its descriptor open while the module reads through it.
  enum class Kind : uint8_t { Permission, Notification };

  PermissionTable(std::shared_ptr<PermissionResponder> responder, HostMetrics& metrics,
                  std::chrono::milliseconds deadline);
  // Drains, then closes the descriptors of events whose verdict never came.
  ~PermissionTable();
  PermissionTable(const PermissionTable&) = delete;
  PermissionTable& operator=(const PermissionTable&) = delete;

  // Starts the deadline thread.
  void Start();

  // Takes the event before the module sees it: its verdict may come back before OnEvent
  // returns. false once drained (or out of memory): the caller answers and closes it itself.
  // size: the file's as the event saw it, -1 when unread (the kernel never caches it then).
  bool Add(int fd, uint64_t cookie, Kind kind, int64_t size = -1) noexcept;
  // The module queued the event; a permission event now runs against the deadline.
  void MarkPending(int fd, uint64_t cookie) noexcept;
  // An answer for the event: the module's immediate one or its verdict. Answers and closes
  // the event and returns true when it was still waiting. An event the deadline or the drain
  // already answered only has its descriptor closed, and an unknown one is left alone.
  // clean: the module allowed the file as clean (verdict 1), with the record it was judged on.
  bool Complete(int fd, uint64_t cookie, bool allow, const vrel::EventParams* clean = nullptr) noexcept;
  // The engine is about to hand over its answer for the event behind fd: the deadline holds
  // off once, for VerdictGrace, so that the verdict and not the deadline answers it. False
  // when the deadline or the drain answered it already, so the answer comes late; true for
  // a notification or an event the table does not hold.
  bool ExpectVerdict(int fd) noexcept;
  static constexpr std::chrono::milliseconds VerdictGrace{1000};
  // What the deadline answers from now on (deadline_action).
  void SetDeadlineAction(bool deny) noexcept { m_denyAtDeadline = deny; }

  // Allows every permission event still waiting, stops the deadline thread and refuses
  // later events. Their descriptors stay open until their verdicts come, since the module
  // may still be reading them. Idempotent.
  void Drain();

  // Events held: answered or not, their descriptors still open.
  size_t Size() const;
  // Notifications held, read without the lock: nobody waits for them, so a flood of them
  // is what could fill the module's queue.
  size_t NotificationsHeld() const noexcept { return m_notifications.load(std::memory_order_relaxed); }

 private:
  struct Slot {
    uint64_t cookie = 0;  // 0: free
    Kind kind = Kind::Permission;
    bool answered = false;
    bool pending = false;
    bool verdictExpected = false;  // ExpectVerdict: the deadline waits once more
    int64_t size = -1;
  };
  struct Due {
    Clock::time_point at;
    int fd;
    uint64_t cookie;
  };

  // The slot holding this event, or null; m_mutex held.
  Slot* Find(int fd, uint64_t cookie);
  // Answers a waiting permission event; the answer is written under m_mutex so the
  // descriptor cannot be closed under it.
  void AnswerHeld(int fd, Slot& slot, bool allow);
  // Queues a deadline in time order; m_mutex held. May throw on allocation.
  bool Schedule(const Due& due);
  void RunDeadlines();
  void ExpireDue(Clock::time_point now);
  void StopDeadlineThread();

  const std::shared_ptr<PermissionResponder> m_responder;
  HostMetrics& m_metrics;
  const std::chrono::milliseconds m_deadline;
  std::atomic<bool> m_denyAtDeadline{false};

  mutable std::mutex m_mutex;  // a leaf lock: no host or module call is made under it
  std::condition_variable m_wake;
  std::vector<Slot> m_slots;  // indexed by descriptor: unique while the table holds it open
  std::deque<Due> m_due;      // pending permission events in deadline order, graces included
  size_t m_held = 0;
  std::atomic<size_t> m_notifications{0};
  bool m_drained = false;
  bool m_stopping = false;
  std::thread m_thread;
};

}  // namespace oasd
