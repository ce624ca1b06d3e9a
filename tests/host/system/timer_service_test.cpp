// The timer service's promises to its callers: a one-shot fires once and lets go of its
// callback, a periodic one fires until cancelled, a cancel never returns while the callback
// still runs on the timer thread (yet may be made from inside it), and teardown drops every
// armed callback.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "host/system/timer_service.h"
#include "testing/host_object.h"

namespace {

using qeb::objptr_t;

class Callback : public qeb::object::Ifaces<qeb::ITimerCallback> {
 public:
  qeb::result_t OnTimer() noexcept override {
    m_inside = true;
    if (m_busyFor.count()) std::this_thread::sleep_for(m_busyFor);
    ++m_fired;
    if (m_cancelSelf) m_cancelResult = m_service->CancelTimer(this);
    m_inside = false;
    return qeb::res::Ok;
  }

  std::atomic<int> m_fired{0};
  std::atomic<bool> m_inside{false};
  std::chrono::microseconds m_busyFor{0};
  qeb::ITimerService* m_service = nullptr;
  bool m_cancelSelf = false;
  std::atomic<qeb::result_t> m_cancelResult{-1};
};

objptr_t<Callback> MakeCallback() { return qeb::testing::MakeHostObject<Callback>(); }

uint32_t Refs(const objptr_t<Callback>& cb) {
  return static_cast<qeb::host::HostObject<Callback>*>(cb.Get())->RefCount();
}

template <class Pred>
bool Eventually(Pred pred) {
  for (int i = 0; i < 2000 && !pred(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return pred();
}

class TimerServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_timers = qeb::testing::MakeHostObject<oasd::TimerService>(nullptr);
    ASSERT_EQ(m_timers->SetUp(), qeb::res::Ok);
    m_timers->Start();
  }
  void TearDown() override { m_timers->TearDown(); }

  objptr_t<oasd::TimerService> m_timers;
};

TEST_F(TimerServiceTest, OneShotFiresOnceAndLetsGo) {
  auto cb = MakeCallback();
  qeb::timer_duration_t left = 0;
  EXPECT_EQ(m_timers->GetTimeLeft(cb.Get(), left), qeb::res::NotFound);
  EXPECT_EQ(m_timers->RestartTimer(cb.Get()), qeb::res::NotFound);
  EXPECT_EQ(m_timers->CancelTimer(cb.Get()), qeb::res::False);

  ASSERT_EQ(m_timers->SetTimer(cb.Get(), 60000), qeb::res::Ok);
  EXPECT_EQ(Refs(cb), 2u);  // the service holds the armed callback
  ASSERT_EQ(m_timers->GetTimeLeft(cb.Get(), left), qeb::res::Ok);
  EXPECT_GT(left, 0u);
  EXPECT_LE(left, 60000u);
  ASSERT_EQ(m_timers->RestartTimer(cb.Get()), qeb::res::Ok);

  // Re-arming replaces the deadline rather than adding a second timer.
  ASSERT_EQ(m_timers->SetTimer(cb.Get(), 1), qeb::res::Ok);
  ASSERT_TRUE(Eventually([&] { return cb->m_fired == 1 && Refs(cb) == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(cb->m_fired, 1);
  EXPECT_EQ(m_timers->GetTimeLeft(cb.Get(), left), qeb::res::NotFound);
  EXPECT_EQ(m_timers->SetPeriodicTimer(cb.Get(), 0), qeb::res::InvalidArgument);
}

// The timer thread is woken only for a deadline before the one it sleeps towards; one that
// comes sooner must still fire on time, also once the later timer has been cancelled.
TEST_F(TimerServiceTest, ASoonerDeadlineWakesAThreadSleepingTowardsALaterOne) {
  auto later = MakeCallback();
  auto sooner = MakeCallback();
  ASSERT_EQ(m_timers->SetTimer(later.Get(), 600000), qeb::res::Ok);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(m_timers->SetTimer(sooner.Get(), 1), qeb::res::Ok);
  ASSERT_TRUE(Eventually([&] { return sooner->m_fired == 1; }));

  ASSERT_EQ(m_timers->SetTimer(sooner.Get(), 300000), qeb::res::Ok);
  ASSERT_EQ(m_timers->CancelTimer(later.Get()), qeb::res::Ok);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(m_timers->RestartTimer(sooner.Get()), qeb::res::Ok);  // later than before: no wake
  ASSERT_EQ(m_timers->CancelTimer(sooner.Get()), qeb::res::Ok);
  ASSERT_EQ(m_timers->SetTimer(sooner.Get(), 1), qeb::res::Ok);
  ASSERT_TRUE(Eventually([&] { return sooner->m_fired == 2; }));
  EXPECT_EQ(later->m_fired, 0);
}

TEST_F(TimerServiceTest, CancelWaitsOutARunningCallback) {
  auto cb = MakeCallback();
  cb->m_busyFor = std::chrono::microseconds(300);
  int caughtRunning = 0;
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(m_timers->SetTimer(cb.Get(), 0), qeb::res::Ok);
    // Cancel at varying points: before, during and after the call.
    std::this_thread::sleep_for(std::chrono::microseconds(i % 7 * 100));
    caughtRunning += cb->m_inside ? 1 : 0;
    m_timers->CancelTimer(cb.Get());
    ASSERT_FALSE(cb->m_inside) << "cancel returned while the callback ran, round " << i;
  }
  EXPECT_EQ(Refs(cb), 1u);
  (void)caughtRunning;  // how often the race was hit depends on the machine
}

TEST_F(TimerServiceTest, PeriodicFiresUntilCancelledEvenFromInside) {
  auto outside = MakeCallback();
  ASSERT_EQ(m_timers->SetPeriodicTimer(outside.Get(), 2), qeb::res::Ok);
  ASSERT_TRUE(Eventually([&] { return outside->m_fired >= 3; }));
  EXPECT_EQ(m_timers->CancelTimer(outside.Get()), qeb::res::Ok);
  const int fired = outside->m_fired;
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(outside->m_fired, fired);
  EXPECT_EQ(Refs(outside), 1u);

  // A periodic callback that cancels itself on the timer thread neither deadlocks nor fires again.
  auto self = MakeCallback();
  self->m_service = m_timers.Get();
  self->m_cancelSelf = true;
  ASSERT_EQ(m_timers->SetPeriodicTimer(self.Get(), 1), qeb::res::Ok);
  ASSERT_TRUE(Eventually([&] { return self->m_fired == 1 && !self->m_inside; }));
  EXPECT_EQ(self->m_cancelResult, qeb::res::Ok);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(self->m_fired, 1);
}

TEST_F(TimerServiceTest, TearDownDropsArmedCallbacksAndRefusesMore) {
  auto cb = MakeCallback();
  ASSERT_EQ(m_timers->SetTimer(cb.Get(), 60000), qeb::res::Ok);
  ASSERT_EQ(m_timers->SetPeriodicTimer(MakeCallback().Get(), 60000), qeb::res::Ok);
  m_timers->TearDown();
  EXPECT_EQ(Refs(cb), 1u);
  EXPECT_EQ(m_timers->SetTimer(cb.Get(), 1), qeb::res::NotReady);
}

}  // namespace
