// Worker pools. Workers hold the pool's shared state, never the pool object, so the last
// release of a pool may come from one of its own tasks. Threads beyond the minimum start
// when a task waits with no idle worker to take it, and retire after the idle timeout;
// a retired thread parks its std::thread for the next AddTask or Stop to join.
#include "host/system/thread_pool.h"

#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <thread>

#include "nox_tracing/tracing.h"

namespace oasd {

struct PoolState {
  PoolState(const qeb::ThreadPoolParams& p, std::string n, StageProgress* pr)
      : minThreads(p.minThreads),
        maxThreads(std::max<uint32_t>({p.maxThreads, p.minThreads, 1})),
        idleTimeout(p.idleTimeout),
        name(std::move(n)),
        progress(pr) {}

  const uint32_t minThreads;
  const uint32_t maxThreads;
  const std::chrono::milliseconds idleTimeout;
  const std::string name;
  StageProgress* const progress;  // may be null

  std::mutex mutex;
  std::condition_variable wake;
  std::deque<qeb::objptr_t<qeb::IRunnable>> queue;
  std::map<std::thread::id, std::thread> live;
  std::vector<std::thread> retired;
  size_t idle = 0;
  bool stopping = false;
  bool refusing = false;  // the queue was full at the last AddTask; traced once per episode
};

namespace {

using qeb::trace::LevelError;
using qeb::trace::LevelNotice;

void Work(const std::shared_ptr<PoolState>& state);

void StartWorker(const std::shared_ptr<PoolState>& state) {  // state->mutex held
  std::thread thread([state] { Work(state); });
  const auto id = thread.get_id();
  state->live.emplace(id, std::move(thread));
}

// A worker above the minimum that has waited the idle timeout without work retires.
bool ShouldRetire(PoolState& s, bool timedOut) {
  return timedOut && s.queue.empty() && !s.stopping && s.live.size() > s.minThreads;
}

void Retire(PoolState& s) {  // s.mutex held
  auto self = s.live.find(std::this_thread::get_id());
  if (self == s.live.end()) return;
  s.retired.push_back(std::move(self->second));
  s.live.erase(self);
}

void RunTask(PoolState& s, std::unique_lock<std::mutex>& lock) {
  qeb::objptr_t<qeb::IRunnable> task = std::move(s.queue.front());
  s.queue.pop_front();
  lock.unlock();
  if (s.progress) s.progress->Started();
  task->Run();
  task.Reset();
  if (s.progress) s.progress->Finished();
  lock.lock();
}

void Work(const std::shared_ptr<PoolState>& state) {
  PoolState& s = *state;
  if (!s.name.empty()) ::prctl(PR_SET_NAME, s.name.substr(0, 15).c_str(), 0, 0, 0);
  std::unique_lock lock(s.mutex);
  for (;;) {
    if (!s.queue.empty()) {
      RunTask(s, lock);
      continue;
    }
    if (s.stopping) return;
    ++s.idle;
    const auto ready = [&] { return s.stopping || !s.queue.empty(); };
    const bool timedOut = s.idleTimeout.count() > 0 ? !s.wake.wait_for(lock, s.idleTimeout, ready)
                                                    : (s.wake.wait(lock, ready), false);
    --s.idle;
    if (ShouldRetire(s, timedOut)) return Retire(s);
  }
}

std::vector<std::thread> TakeRetired(PoolState& s) {  // s.mutex held
  return std::exchange(s.retired, {});
}

void JoinAll(std::vector<std::thread>& threads) {
  for (auto& t : threads) {
    if (t.get_id() == std::this_thread::get_id())
      t.detach();  // the pool is being stopped from one of its own tasks
    else
      t.join();
  }
}

}  // namespace

void StopPool(const std::shared_ptr<PoolState>& state) noexcept {
  if (!state) return;
  std::vector<std::thread> threads;
  {
    std::lock_guard lock(state->mutex);
    state->stopping = true;
    threads = TakeRetired(*state);
    for (auto& [id, thread] : state->live) threads.push_back(std::move(thread));
    state->live.clear();
  }
  state->wake.notify_all();
  JoinAll(threads);
}

ThreadPool::ThreadPool(qeb::objptr_t<qeb::ITracer> tracer, const qeb::ThreadPoolParams& params,
                       std::string name, StageProgress* progress)
    : m_tracer(std::move(tracer)),
      m_state(std::make_shared<PoolState>(params, std::move(name), progress)) {
  try {
    std::lock_guard lock(m_state->mutex);
    while (m_state->live.size() < m_state->minThreads) StartWorker(m_state);
  } catch (...) {
    StopPool(m_state);  // no destructor will run to stop the workers already started
    throw;
  }
}

ThreadPool::~ThreadPool() { Stop(); }

void ThreadPool::Stop() noexcept { StopPool(m_state); }

qeb::result_t ThreadPool::AddTask(qeb::IRunnable* task, uint32_t) noexcept {
  if (!task) return qeb::res::InvalidArgument;
  std::vector<std::thread> retired;
  bool firstRefusal = false;
  qeb::result_t result = qeb::res::Ok;
  try {
    std::lock_guard lock(m_state->mutex);
    result = Enqueue(*task, firstRefusal);
    retired = TakeRetired(*m_state);
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
  if (firstRefusal) {
    QEB_TRACE(m_tracer, LevelError) << "Thread pool " << m_state->name << ": queue full ("
                                    << MaxQueuedTasks << " tasks), refusing tasks";
  }
  if (QEB_SUCCEEDED(result)) m_state->wake.notify_one();
  JoinAll(retired);
  return result;
}

qeb::result_t ThreadPool::Enqueue(qeb::IRunnable& task, bool& firstRefusal) {
  PoolState& s = *m_state;
  if (s.stopping) return Stopping;
  if (s.queue.size() >= MaxQueuedTasks) {
    firstRefusal = !std::exchange(s.refusing, true);
    return QueueFull;
  }
  s.refusing = false;
  // The worker starts first: if it cannot, the task is refused rather than left queued.
  if (s.queue.size() + 1 > s.idle && s.live.size() < s.maxThreads) StartWorker(m_state);
  s.queue.emplace_back(&task);
  return qeb::res::Ok;
}

size_t ThreadPool::ThreadCount() const {
  std::lock_guard lock(m_state->mutex);
  return m_state->live.size();
}

ThreadPoolFactory::ThreadPoolFactory(qeb::objptr_t<qeb::ITracer> tracer, StageProgress* progress)
    : m_tracer(std::move(tracer)), m_progress(progress) {}

qeb::result_t ThreadPoolFactory::CreateThreadPool(const qeb::ThreadPoolParams& params,
                                                  qeb::IThreadPool2** pool) noexcept {
  if (!pool) return qeb::res::InvalidArgument;
  *pool = nullptr;
  try {
    std::lock_guard lock(m_mutex);
    if (m_stopped) return ThreadPool::Stopping;
    auto created = qeb::host::MakeHostObject<ThreadPool>(m_tracer, params,
                                                         "oasd-pool" + std::to_string(++m_created),
                                                         m_progress);
    std::erase_if(m_pools, [](const std::weak_ptr<PoolState>& p) { return p.expired(); });
    m_pools.push_back(created->State());
    QEB_TRACE(m_tracer, LevelNotice) << "Thread pool created: " << params.minThreads << " to "
                                     << params.maxThreads << " threads, idle timeout "
                                     << params.idleTimeout << " ms";
    *pool = created.Detach();
    return qeb::res::Ok;
  } catch (...) {
    return qeb::res::OutOfMemory;
  }
}

void ThreadPoolFactory::TearDown() noexcept {
  std::vector<std::weak_ptr<PoolState>> pools;
  {
    std::lock_guard lock(m_mutex);
    m_stopped = true;
    pools.swap(m_pools);
  }
  for (auto& pool : pools) StopPool(pool.lock());
}

}  // namespace oasd
