// The fake host's thread pools: real worker threads between the minimum and maximum the
// factory was asked for. A pool holds one reference on each accepted task until it has
// run, can be told to refuse tasks, and drains its queue before its threads are joined.
// A pool must not be released from one of its own tasks.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/qeb/thread_pool.h"

namespace qeb::testing {

class FakeThreadPool : public object::Ifaces<IThreadPool2> {
 public:
  explicit FakeThreadPool(const ThreadPoolParams& params);
  ~FakeThreadPool();

  result_t AddTask(IRunnable* task, uint32_t options) noexcept override;

  // AddTask answers code from now on (0 to accept again).
  void Refuse(result_t code) { m_refusal = code; }
  // Blocks until every accepted task has run.
  void WaitIdle();
  size_t TasksRun() const { return m_tasksRun; }
  size_t ThreadCount() const;

 private:
  void Work();
  void StartThreadIfNeeded();  // m_mutex held

  const ThreadPoolParams m_params;
  mutable std::mutex m_mutex;
  std::condition_variable m_wake;
  std::condition_variable m_idle;
  std::deque<objptr_t<IRunnable>> m_queue;
  std::vector<std::thread> m_threads;
  size_t m_busy = 0;
  std::atomic<size_t> m_tasksRun{0};
  std::atomic<result_t> m_refusal{res::Ok};
  bool m_stopping = false;
};

class FakeThreadPoolFactory : public object::Ifaces<IThreadPoolFactory> {
 public:
  result_t CreateThreadPool(const ThreadPoolParams& params, IThreadPool2** pool) noexcept override;

  // CreateThreadPool answers code from now on (0 to create again).
  void Fail(result_t code) { m_failure = code; }
  // Pools made from now on refuse every task with code.
  void RefuseTasks(result_t code) { m_refusal = code; }
  // The most recently created pool, or null.
  objptr_t<FakeThreadPool> LastPool() const;

 private:
  mutable std::mutex m_mutex;
  std::atomic<result_t> m_failure{res::Ok};
  std::atomic<result_t> m_refusal{res::Ok};
  objptr_t<FakeThreadPool> m_lastPool;
};

}  // namespace qeb::testing
