// The permission table's promise: each permission event it takes is answered exactly once
// and each descriptor closed exactly once, after its answer, whoever comes first (the
// module's verdict, the reader's immediate answer, the deadline, the drain). The responder
// is a recorder, so descriptors here are plain numbers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "host/interception/permission_table.h"
#include "host/interception/verdict_notifier.h"
#include "testing/host_object.h"

namespace {

using namespace std::chrono_literals;
using oasd::PermissionTable;
using Kind = PermissionTable::Kind;

// What happened to each descriptor, in order: 'A' allowed, 'D' denied, 'C' closed.
class RecordingResponder : public oasd::PermissionResponder {
 public:
  void Respond(int fd, bool allow) noexcept override { Log(fd, allow ? 'A' : 'D'); }
  void Close(int fd) noexcept override { Log(fd, 'C'); }

  std::string History(int fd) const {
    std::lock_guard lock(m_mutex);
    const auto it = m_log.find(fd);
    return it == m_log.end() ? std::string() : it->second;
  }

 private:
  void Log(int fd, char what) {
    std::lock_guard lock(m_mutex);
    m_log[fd] += what;
  }
  mutable std::mutex m_mutex;
  std::map<int, std::string> m_log;
};

struct TableTest : ::testing::Test {
  std::unique_ptr<PermissionTable> MakeTable(std::chrono::milliseconds deadline = 30s) {
    return std::make_unique<PermissionTable>(responder, metrics, deadline);
  }
  bool WaitForHistory(int fd, const std::string& expected) {
    for (int i = 0; i < 500 && responder->History(fd) != expected; ++i) std::this_thread::sleep_for(10ms);
    return responder->History(fd) == expected;
  }

  std::shared_ptr<RecordingResponder> responder = std::make_shared<RecordingResponder>();
  oasd::HostMetrics metrics;
};

TEST_F(TableTest, FirstAnswerWinsAndAStaleVerdictForAReusedDescriptorIsIgnored) {
  auto table = MakeTable();
  // The verdict arrives while OnEvent still runs: it answers; OnEvent's 0 then finds
  // nothing left to wait for, and a second answer changes nothing.
  ASSERT_TRUE(table->Add(5, 1, Kind::Permission));
  EXPECT_TRUE(table->Complete(5, 1, false));
  table->MarkPending(5, 1);
  EXPECT_FALSE(table->Complete(5, 1, true));
  EXPECT_EQ(responder->History(5), "DC");
  EXPECT_EQ(metrics.pending.load(), 0);

  // The number comes back for a new event; the old event's verdict must not touch it.
  ASSERT_TRUE(table->Add(5, 2, Kind::Permission));
  table->MarkPending(5, 2);
  EXPECT_EQ(metrics.pending.load(), 1);
  EXPECT_FALSE(table->Complete(5, 1, false));
  EXPECT_TRUE(table->Complete(5, 2, true));
  EXPECT_EQ(responder->History(5), "DCAC");
  EXPECT_EQ(metrics.pending.load(), 0);
  EXPECT_EQ(table->Size(), 0u);
}

TEST_F(TableTest, DeadlineAllowsAndKeepsTheDescriptorUntilTheLateVerdict) {
  auto table = MakeTable(20ms);
  table->Start();
  ASSERT_TRUE(table->Add(7, 1, Kind::Permission));
  table->MarkPending(7, 1);
  ASSERT_TRUE(WaitForHistory(7, "A"));
  EXPECT_EQ(metrics.deadlineAllows.load(), 1u);
  EXPECT_EQ(metrics.pending.load(), 0);
  // The module may still be reading through the descriptor: only its verdict closes it.
  EXPECT_EQ(table->Size(), 1u);
  EXPECT_FALSE(table->Complete(7, 1, false));
  EXPECT_EQ(responder->History(7), "AC");
}

// The deadline answers as configured; an announced verdict holds it off once, so the
// verdict answers even past the deadline, and the announcement says when it is too late.
TEST_F(TableTest, DeadlineAnswersAsConfiguredAndWaitsOnceForAnAnnouncedVerdict) {
  auto table = MakeTable(100ms);
  table->SetDeadlineAction(true);
  table->Start();
  ASSERT_TRUE(table->Add(7, 1, Kind::Permission));
  table->MarkPending(7, 1);
  ASSERT_TRUE(WaitForHistory(7, "D"));
  EXPECT_EQ(metrics.deadlineDenies.load(), 1u);
  EXPECT_FALSE(table->ExpectVerdict(7));
  EXPECT_FALSE(table->Complete(7, 1, false));

  ASSERT_TRUE(table->Add(8, 2, Kind::Permission));
  ASSERT_TRUE(table->Add(9, 3, Kind::Notification));
  table->MarkPending(8, 2);
  EXPECT_TRUE(table->ExpectVerdict(8));
  EXPECT_TRUE(table->ExpectVerdict(9));  // nobody waits on a notification: never late
  std::this_thread::sleep_for(300ms);   // past the deadline, within the grace
  EXPECT_TRUE(table->Complete(8, 2, true));
  EXPECT_EQ(responder->History(8), "AC");
  EXPECT_EQ(metrics.deadlineDenies.load(), 1u);

  // The grace is bounded: a verdict announced but never sent still gets the deadline.
  ASSERT_TRUE(table->Add(10, 4, Kind::Permission));
  table->MarkPending(10, 4);
  EXPECT_TRUE(table->ExpectVerdict(10));
  EXPECT_TRUE(WaitForHistory(10, "D"));
}

TEST_F(TableTest, DrainAllowsWaitingEventsRefusesNewOnesAndLeavesNotificationsToTheirVerdicts) {
  auto table = MakeTable();
  ASSERT_TRUE(table->Add(3, 1, Kind::Permission));
  table->MarkPending(3, 1);
  ASSERT_TRUE(table->Add(4, 2, Kind::Permission));
  ASSERT_TRUE(table->Add(5, 3, Kind::Notification));
  table->MarkPending(5, 3);
  EXPECT_EQ(metrics.pending.load(), 1);  // only permission events wait for anyone

  table->Drain();
  EXPECT_EQ(responder->History(3), "A");
  EXPECT_EQ(responder->History(4), "A");
  EXPECT_EQ(responder->History(5), "");
  EXPECT_EQ(metrics.pending.load(), 0);
  EXPECT_FALSE(table->Add(6, 4, Kind::Permission));

  EXPECT_TRUE(table->Complete(5, 3, false));  // a detection after a write: nobody to answer
  EXPECT_EQ(responder->History(5), "C");
  table->Complete(3, 1, false);
  EXPECT_EQ(responder->History(3), "AC");
  table.reset();  // the event whose verdict never came is closed with the table
  EXPECT_EQ(responder->History(4), "AC");
  EXPECT_EQ(responder->History(6), "");
}

TEST_F(TableTest, NotifierMapsVerdictsAndRefusesUnknownOnes) {
  auto table = std::shared_ptr<PermissionTable>(MakeTable());
  auto notifier = qeb::testing::MakeHostObject<oasd::VerdictNotifier>(table, metrics);
  vrel::EventParams params;
  params.fd = 8;
  params.cookie = 1;
  ASSERT_TRUE(table->Add(8, 1, Kind::Permission));
  EXPECT_EQ(notifier->SetVerdict(params, 3), qeb::res::InvalidArgument);
  EXPECT_EQ(responder->History(8), "");
  // The plain form names the event by its reply key alone.
  vrel::EventParams other;
  EXPECT_EQ(notifier->SetVerdict(vrel::ReplyKey::FromEvent(params), other, 4), qeb::res::Ok);
  EXPECT_EQ(responder->History(8), "DC");
  EXPECT_EQ(notifier->SetVerdict(params, 2), qeb::res::Ok);  // late: accepted quietly
  EXPECT_EQ(metrics.verdictsDeny.load(), 1u);
  EXPECT_EQ(metrics.verdictsAllow.load(), 0u);
}

// A reader adds events, some answered at once; verdict threads answer the rest after a
// random delay; a 1 ms deadline and a drain in the middle race them all.
TEST_F(TableTest, RacingVerdictsDeadlineAndDrainAnswerEachEventOnceAndCloseItOnce) {
  constexpr int kEvents = 3000;
  auto table = MakeTable(1ms);
  table->Start();
  std::mutex queueMutex;
  std::deque<int> queued;
  std::atomic<bool> readerDone{false};
  std::atomic<int> added{0};
  std::vector<bool> taken(kEvents);

  std::thread reader([&] {
    for (int fd = 0; fd < kEvents; ++fd) {
      const uint64_t cookie = static_cast<uint64_t>(fd) + 1;
      if (!table->Add(fd, cookie, Kind::Permission)) continue;
      taken[static_cast<size_t>(fd)] = true;
      ++added;
      if (fd % 5 == 0) {
        table->Complete(fd, cookie, fd % 10 == 0);  // the module answered inside OnEvent
        continue;
      }
      {
        std::lock_guard lock(queueMutex);
        queued.push_back(fd);
      }
      table->MarkPending(fd, cookie);  // the verdict may already have come
    }
    readerDone = true;
  });
  std::vector<std::thread> verdicts;
  for (int t = 0; t < 3; ++t)
    verdicts.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (;;) {
        int fd = -1;
        {
          std::lock_guard lock(queueMutex);
          if (!queued.empty()) {
            fd = queued.front();
            queued.pop_front();
          }
        }
        if (fd < 0) {
          if (readerDone) break;
          std::this_thread::yield();
          continue;
        }
        if (random() % 4 == 0) std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
        table->Complete(fd, static_cast<uint64_t>(fd) + 1, random() % 2 == 0);
      }
    });
  while (added < kEvents / 2) std::this_thread::yield();
  table->Drain();
  reader.join();
  for (auto& t : verdicts) t.join();
  table.reset();

  for (int fd = 0; fd < kEvents; ++fd) {
    const std::string history = responder->History(fd);
    if (!taken[static_cast<size_t>(fd)]) {
      EXPECT_EQ(history, "") << "descriptor " << fd;
      continue;
    }
    EXPECT_TRUE(history == "AC" || history == "DC") << "descriptor " << fd << ": " << history;
  }
  EXPECT_EQ(metrics.pending.load(), 0);
}

}  // namespace
