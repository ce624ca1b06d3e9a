// Exactly once comes from one rule: whoever takes an event out of its slot, or marks it
// answered, under the mutex, is the one who answers it. The verdict and the reader free the
// slot and answer outside the lock; the deadline and the drain answer under it but keep the
// slot, so a late verdict closes the descriptor only after their answer has been written.
// A verdict announced by ExpectVerdict moves its deadline back once, by a bounded grace: the
// engine learns exactly whether its answer will be the one the opener gets, and an opener
// still never waits for a verdict that does not come.
#include "host/interception/permission_table.h"

#include <pthread.h>

#include <algorithm>
#include <utility>

namespace oasd {

PermissionTable::PermissionTable(std::shared_ptr<PermissionResponder> responder,
                                 HostMetrics& metrics, std::chrono::milliseconds deadline)
    : m_responder(std::move(responder)), m_metrics(metrics), m_deadline(deadline) {}

PermissionTable::~PermissionTable() {
  Drain();
  for (size_t fd = 0; fd < m_slots.size(); ++fd)
    if (m_slots[fd].cookie != 0) m_responder->Close(static_cast<int>(fd));
}

void PermissionTable::Start() {
  std::lock_guard lock(m_mutex);
  if (m_thread.joinable() || m_stopping) return;
  m_thread = std::thread([this] { RunDeadlines(); });
}

bool PermissionTable::Add(int fd, uint64_t cookie, Kind kind, int64_t size) noexcept {
  if (fd < 0 || cookie == 0) return false;
  std::lock_guard lock(m_mutex);
  if (m_drained) return false;
  const size_t index = static_cast<size_t>(fd);
  try {
    if (index >= m_slots.size()) m_slots.resize(std::max({index + 1, m_slots.size() * 2, size_t{64}}));
  } catch (...) {
    return false;
  }
  Slot& slot = m_slots[index];
  // An open descriptor cannot be handed out twice, so a busy slot means a caller's mistake;
  // the caller keeps the event and answers it.
  if (slot.cookie != 0) return false;
  slot = Slot{cookie, kind, false, false, false, size};
  ++m_held;
  if (kind == Kind::Notification) m_notifications.fetch_add(1, std::memory_order_relaxed);
  return true;
}

void PermissionTable::MarkPending(int fd, uint64_t cookie) noexcept {
  bool wake = false;
  {
    std::lock_guard lock(m_mutex);
    Slot* slot = Find(fd, cookie);
    // Already answered by a verdict that beat OnEvent's return, or a notification.
    if (!slot || slot->kind != Kind::Permission || slot->answered || slot->pending) return;
    try {
      wake = Schedule(Due{Clock::now() + m_deadline, fd, cookie});
    } catch (...) {
      return;  // no deadline then: the module's verdict still comes, late at worst
    }
    slot->pending = true;
    m_metrics.pending.fetch_add(1, std::memory_order_relaxed);
  }
  if (wake) m_wake.notify_one();
}

bool PermissionTable::Complete(int fd, uint64_t cookie, bool allow,
                               const vrel::EventParams* clean) noexcept {
  bool answer = false;
  bool completed = false;
  int64_t size = -1;
  {
    std::lock_guard lock(m_mutex);
    Slot* slot = Find(fd, cookie);
    if (!slot) return false;
    answer = slot->kind == Kind::Permission && !slot->answered;
    completed = !slot->answered;
    size = slot->size;
    if (slot->pending) m_metrics.pending.fetch_sub(1, std::memory_order_relaxed);
    if (slot->kind == Kind::Notification) m_notifications.fetch_sub(1, std::memory_order_relaxed);
    *slot = Slot{};
    --m_held;
  }
  // The slot is free but the descriptor still open: its number cannot name another event
  // until the close below.
  if (answer && allow && clean && size >= 0)
    m_responder->RespondClean(fd, CleanFile{clean->ctime, clean->mtime, size, cookie});
  else if (answer)
    m_responder->Respond(fd, allow);
  m_responder->Close(fd);
  return completed;
}

void PermissionTable::Drain() {
  {
    std::lock_guard lock(m_mutex);
    if (!m_drained) {
      m_drained = true;
      for (size_t fd = 0; fd < m_slots.size(); ++fd) {
        Slot& slot = m_slots[fd];
        if (slot.cookie != 0 && slot.kind == Kind::Permission && !slot.answered)
          AnswerHeld(static_cast<int>(fd), slot, true);
      }
      m_due.clear();
    }
  }
  StopDeadlineThread();
}

size_t PermissionTable::Size() const {
  std::lock_guard lock(m_mutex);
  return m_held;
}

PermissionTable::Slot* PermissionTable::Find(int fd, uint64_t cookie) {
  if (fd < 0 || static_cast<size_t>(fd) >= m_slots.size()) return nullptr;
  Slot& slot = m_slots[static_cast<size_t>(fd)];
  return slot.cookie == cookie && cookie != 0 ? &slot : nullptr;
}

bool PermissionTable::ExpectVerdict(int fd) noexcept {
  std::lock_guard lock(m_mutex);
  if (fd < 0 || static_cast<size_t>(fd) >= m_slots.size()) return true;
  Slot& slot = m_slots[static_cast<size_t>(fd)];
  if (slot.cookie == 0 || slot.kind != Kind::Permission) return true;
  if (slot.answered) return false;
  slot.verdictExpected = true;
  return true;
}

void PermissionTable::AnswerHeld(int fd, Slot& slot, bool allow) {
  m_responder->Respond(fd, allow);
  slot.answered = true;
  if (slot.pending) {
    slot.pending = false;
    m_metrics.pending.fetch_sub(1, std::memory_order_relaxed);
  }
}

// Deadlines mostly arrive in order, so the common case appends; a grace, or a deadline
// shorter than a grace already waiting, goes to its place. True when it is now the first.
bool PermissionTable::Schedule(const Due& due) {
  if (m_due.empty() || m_due.back().at <= due.at) {
    m_due.push_back(due);
    return m_due.size() == 1;
  }
  const auto at = std::upper_bound(m_due.begin(), m_due.end(), due,
                                   [](const Due& a, const Due& b) { return a.at < b.at; });
  const auto inserted = m_due.insert(at, due);
  return inserted == m_due.begin();
}

void PermissionTable::RunDeadlines() {
  pthread_setname_np(pthread_self(), "oasdDeadline");
  std::unique_lock lock(m_mutex);
  while (!m_stopping) {
    if (m_due.empty()) {
      m_wake.wait(lock);
      continue;
    }
    const Clock::time_point at = m_due.front().at;
    if (Clock::now() < at) {
      m_wake.wait_until(lock, at);
      continue;
    }
    ExpireDue(Clock::now());
  }
}

void PermissionTable::ExpireDue(Clock::time_point now) {
  while (!m_due.empty() && m_due.front().at <= now) {
    const Due due = m_due.front();
    m_due.pop_front();
    Slot* slot = Find(due.fd, due.cookie);
    if (!slot || slot->answered) continue;
    if (std::exchange(slot->verdictExpected, false)) {
      try {
        Schedule(Due{now + VerdictGrace, due.fd, due.cookie});
        continue;
      } catch (...) {
        // no room to wait longer: the deadline answers now
      }
    }
    const bool allow = !m_denyAtDeadline;
    AnswerHeld(due.fd, *slot, allow);
    (allow ? m_metrics.deadlineAllows : m_metrics.deadlineDenies).fetch_add(1, std::memory_order_relaxed);
  }
}

// Called by the owner only (the daemon's stop, the destructor), never concurrently.
void PermissionTable::StopDeadlineThread() {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  if (m_thread.joinable()) m_thread.join();
}

}  // namespace oasd
