// Threads are started lazily: the minimum on the first task, one more whenever a task
// waits while every thread is busy, never more than the maximum.
#include "testing/fake_thread_pool.h"

#include <algorithm>

#include "testing/fault_injection.h"
#include "testing/host_object.h"
#include "testing/locked.h"

namespace qeb::testing {

FakeThreadPool::FakeThreadPool(const ThreadPoolParams& params) : m_params(params) {}

FakeThreadPool::~FakeThreadPool() {
  {
    std::lock_guard lock(m_mutex);
    m_stopping = true;
  }
  m_wake.notify_all();
  for (auto& t : m_threads) t.join();
}

result_t FakeThreadPool::AddTask(IRunnable* task, uint32_t) noexcept {
  if (!task) return res::InvalidArgument;
  OAS_FAULT_POINT("thread pool AddTask");
  {
    std::lock_guard lock(m_mutex);
    const result_t refusal = m_refusal;
    if (QEB_FAILED(refusal)) return refusal;
    if (m_stopping) return res::NotReady;
    m_queue.emplace_back(task);
    StartThreadIfNeeded();
  }
  m_wake.notify_one();
  return res::Ok;
}

void FakeThreadPool::StartThreadIfNeeded() {
  const size_t wanted = std::max<size_t>(m_params.minThreads, 1);
  const bool allBusy = m_busy + m_queue.size() > m_threads.size();
  if (m_threads.size() < wanted || (allBusy && m_threads.size() < m_params.maxThreads))
    m_threads.emplace_back([this] { Work(); });
}

void FakeThreadPool::Work() {
  std::unique_lock lock(m_mutex);
  for (;;) {
    m_wake.wait(lock, [&] { return m_stopping || !m_queue.empty(); });
    if (m_queue.empty()) return;  // stopping, and nothing left to drain
    objptr_t<IRunnable> task = std::move(m_queue.front());
    m_queue.pop_front();
    ++m_busy;
    lock.unlock();
    task->Run();
    task.Reset();
    lock.lock();
    --m_busy;
    ++m_tasksRun;
    if (m_busy == 0 && m_queue.empty()) m_idle.notify_all();
  }
}

void FakeThreadPool::WaitIdle() {
  std::unique_lock lock(m_mutex);
  m_idle.wait(lock, [&] { return m_busy == 0 && m_queue.empty(); });
}

size_t FakeThreadPool::ThreadCount() const {
  std::lock_guard lock(m_mutex);
  return m_threads.size();
}

result_t FakeThreadPoolFactory::CreateThreadPool(const ThreadPoolParams& params,
                                                 IThreadPool2** pool) noexcept {
  if (!pool) return res::InvalidArgument;
  *pool = nullptr;
  OAS_FAULT_POINT("thread pool factory CreateThreadPool");
  std::lock_guard lock(m_mutex);
  const result_t failure = m_failure;
  if (QEB_FAILED(failure)) return failure;
  auto created = MakeHostObject<FakeThreadPool>(params);
  created->Refuse(m_refusal);
  m_lastPool = created;
  *pool = created.Detach();
  return res::Ok;
}

// Out of line: inlined into a test, g++ 12 takes the null pool it cannot rule out for a
// store into nothing (-Wstringop-overflow) at the pool's next atomic knob.
objptr_t<FakeThreadPool> FakeThreadPoolFactory::LastPool() const {
  return LockedCopy(m_mutex, m_lastPool);
}

}  // namespace qeb::testing
