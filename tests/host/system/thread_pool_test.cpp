// Worker pools under load: they grow to their maximum and no further, shrink back after
// the idle timeout, lose no accepted task, refuse once stopping or once the queue is full,
// and survive being released from one of their own tasks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "host/system/thread_pool.h"
#include "testing/host_object.h"

namespace {

using qeb::objptr_t;
using oasd::ThreadPool;

class Task : public qeb::object::Ifaces<qeb::IRunnable> {
 public:
  explicit Task(std::function<void()> body) : m_body(std::move(body)) {}
  qeb::result_t Run() noexcept override {
    m_body();
    return qeb::res::Ok;
  }

 private:
  std::function<void()> m_body;
};

objptr_t<qeb::IRunnable> MakeTask(std::function<void()> body) {
  return objptr_t<qeb::IRunnable>(qeb::testing::MakeHostObject<Task>(std::move(body)).Get());
}

// A latch the tasks wait on until the test opens it.
class Gate {
 public:
  void Wait() {
    std::unique_lock lock(m_mutex);
    ++m_waiting;
    m_changed.notify_all();
    m_changed.wait(lock, [&] { return m_open; });
  }
  void Open() {
    std::lock_guard lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
  }
  void AwaitWaiting(int n) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_waiting >= n; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_waiting = 0;
  bool m_open = false;
};

objptr_t<ThreadPool> MakePool(uint32_t minThreads, uint32_t maxThreads, uint32_t idleMs) {
  return qeb::testing::MakeHostObject<ThreadPool>(nullptr, qeb::ThreadPoolParams{minThreads, maxThreads, idleMs, 0},
                                                  "test-pool");
}

template <class Pred>
bool Eventually(Pred pred) {
  for (int i = 0; i < 2000 && !pred(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return pred();
}

TEST(HostThreadPool, GrowsToMaximumAndShrinksToMinimum) {
  auto pool = MakePool(1, 3, 20);
  Gate gate;
  std::atomic<int> done{0};
  for (int i = 0; i < 6; ++i)
    ASSERT_EQ(pool->AddTask(MakeTask([&] { gate.Wait(); ++done; }), 0), qeb::res::Ok);
  gate.AwaitWaiting(3);
  EXPECT_EQ(pool->ThreadCount(), 3u);  // three blocked, three queued: never a fourth thread
  gate.Open();
  EXPECT_TRUE(Eventually([&] { return done == 6; }));
  EXPECT_TRUE(Eventually([&] { return pool->ThreadCount() == 1; }));
  // A shrunk pool still serves.
  ASSERT_EQ(pool->AddTask(MakeTask([&] { ++done; }), 0), qeb::res::Ok);
  EXPECT_TRUE(Eventually([&] { return done == 7; }));
}

TEST(HostThreadPool, NoTaskLostAndRefusedOnceStopping) {
  auto pool = MakePool(2, 4, 5);
  std::atomic<int> ran{0};
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p)
    producers.emplace_back([&] {
      for (int i = 0; i < 500; ++i)
        while (pool->AddTask(MakeTask([&] { ++ran; }), 0) == ThreadPool::QueueFull) std::this_thread::yield();
    });
  for (auto& t : producers) t.join();
  pool->Stop();  // drains what was accepted
  EXPECT_EQ(ran, 2000);
  EXPECT_EQ(pool->AddTask(MakeTask([] {}), 0), ThreadPool::Stopping);
  EXPECT_EQ(pool->AddTask(nullptr, 0), qeb::res::InvalidArgument);
}

TEST(HostThreadPool, RefusesPastQueueLimitAndKeepsAccepted) {
  auto pool = MakePool(0, 1, 1000);
  Gate gate;
  std::atomic<size_t> ran{0};
  ASSERT_EQ(pool->AddTask(MakeTask([&] { gate.Wait(); ++ran; }), 0), qeb::res::Ok);
  gate.AwaitWaiting(1);
  for (size_t i = 0; i < ThreadPool::MaxQueuedTasks; ++i)
    ASSERT_EQ(pool->AddTask(MakeTask([&] { ++ran; }), 0), qeb::res::Ok) << i;
  auto refused = MakeTask([&] { ++ran; });
  EXPECT_EQ(pool->AddTask(refused.Get(), 0), ThreadPool::QueueFull);
  gate.Open();
  pool->Stop();
  EXPECT_EQ(ran, ThreadPool::MaxQueuedTasks + 1);
}

TEST(HostThreadPool, ReleasedFromItsOwnTaskAndStoppedByFactory) {
  auto factory = qeb::testing::MakeHostObject<oasd::ThreadPoolFactory>(nullptr);
  objptr_t<qeb::IThreadPool2> pool;
  ASSERT_EQ(factory->CreateThreadPool({1, 2, 100, 0}, pool.Ref()), qeb::res::Ok);
  std::atomic<bool> released{false};
  Gate gate;
  // The task holds the only reference left once the test drops its own.
  auto holder = std::make_shared<objptr_t<qeb::IThreadPool2>>(pool);
  ASSERT_EQ(pool->AddTask(MakeTask([holder, &released, &gate] {
                            gate.Wait();
                            holder->Reset();
                            released = true;
                          }).Get(),
                          0),
            qeb::res::Ok);
  pool.Reset();
  holder.reset();
  gate.Open();
  EXPECT_TRUE(Eventually([&] { return released.load(); }));

  objptr_t<qeb::IThreadPool2> second;
  ASSERT_EQ(factory->CreateThreadPool({1, 1, 0, 0}, second.Ref()), qeb::res::Ok);
  factory->TearDown();
  EXPECT_EQ(second->AddTask(MakeTask([] {}).Get(), 0), ThreadPool::Stopping);
  objptr_t<qeb::IThreadPool2> third;
  EXPECT_LT(factory->CreateThreadPool({1, 1, 0, 0}, third.Ref()), 0);
}

}  // namespace
