// The host's worker pools. A pool's queue, threads and counters live in a shared state
// that every worker holds too, so a pool released from one of its own tasks ends cleanly.
// The factory keeps weak references to the pools it made so TearDown can stop them all.
// Accepted tasks are held by one reference until they have run; stopping drains the queue.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/qeb/host_object.h"
#include "host/common/work_progress.h"
#include "framework/qeb/objptr.h"
#include "interfaces/qeb/thread_pool.h"
#include "interfaces/qeb/tracer.h"

namespace oasd {

struct PoolState;

class ThreadPool : public qeb::object::Ifaces<qeb::IThreadPool2> {
 public:
  // Past this many waiting tasks AddTask refuses, so a flood of opens cannot grow memory
  // without bound; the refused event is the caller's to answer.
  static constexpr size_t MaxQueuedTasks = 4096;
  static constexpr qeb::result_t QueueFull = qeb::res::OutOfSpace;
  static constexpr qeb::result_t Stopping = qeb::res::NotReady;

  // name: the workers' thread name (at most 15 characters are kept). An idle timeout of 0
  // keeps every started thread until the pool stops. progress (may be null, outlives the
  // pool) hears of each task's start and end.
  ThreadPool(qeb::objptr_t<qeb::ITracer> tracer, const qeb::ThreadPoolParams& params,
             std::string name, StageProgress* progress = nullptr);
  ~ThreadPool();

  // Refuses with Stopping once the pool stops and with QueueFull past MaxQueuedTasks.
  qeb::result_t AddTask(qeb::IRunnable* task, uint32_t options) noexcept override;

  // Refuses new tasks, lets the workers drain the queue and joins them (a worker calling
  // this is left to finish on its own). Idempotent.
  void Stop() noexcept;
  size_t ThreadCount() const;
  std::weak_ptr<PoolState> State() const { return m_state; }

 private:
  // Queues the task and starts a worker if none is idle; the state's mutex held.
  qeb::result_t Enqueue(qeb::IRunnable& task, bool& firstRefusal);

  const qeb::objptr_t<qeb::ITracer> m_tracer;
  std::shared_ptr<PoolState> m_state;
};

class ThreadPoolFactory : public qeb::object::Ifaces<qeb::IThreadPoolFactory> {
 public:
  explicit ThreadPoolFactory(qeb::objptr_t<qeb::ITracer> tracer,
                             StageProgress* progress = nullptr);

  qeb::result_t CreateThreadPool(const qeb::ThreadPoolParams& params,
                                 qeb::IThreadPool2** pool) noexcept override;
  // Stops every pool still alive; later CreateThreadPool calls fail. Idempotent.
  void TearDown() noexcept;

 private:
  const qeb::objptr_t<qeb::ITracer> m_tracer;
  StageProgress* const m_progress;
  std::mutex m_mutex;
  std::vector<std::weak_ptr<PoolState>> m_pools;
  uint32_t m_created = 0;
  bool m_stopped = false;
};

// Stops a pool through its shared state (what the factory keeps).
void StopPool(const std::shared_ptr<PoolState>& state) noexcept;

}  // namespace oasd
