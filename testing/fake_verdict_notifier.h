// The fake host's verdict notifiers: a plain one that only knows the reply key, and an
// extended one that also reads the record itself. Both record every verdict they are
// given (with the key, when one came), can be told to fail, and let tests wait for a count.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/vrel/verdict_notifier.h"
#include "testing/locked.h"

namespace qeb::testing {

struct DeliveredVerdict {
  uint32_t verdict;
  uint64_t cookie;  // from the record
  std::optional<vrel::ReplyKey> key;  // only through the plain interface
};

class VerdictLog {
 public:
  // SetVerdict answers code from now on, recording nothing (0 to accept again).
  void Fail(result_t code) { m_failure = code; }
  std::vector<DeliveredVerdict> Verdicts() const { return LockedCopy(m_mutex, m_verdicts); }
  // Record cookies of the verdicts refused, in order.
  std::vector<uint64_t> Refused() const { return LockedCopy(m_mutex, m_refused); }
  // Verdicts delivered per record cookie.
  std::map<uint64_t, size_t> CountsByCookie() const;
  // Blocks until at least count verdicts were delivered.
  void WaitFor(size_t count) const;
  // Runs on the delivering thread before each verdict is taken, as a slow interception
  // layer would keep the caller there; tests hold deliveries or look around with it.
  void OnDelivery(std::function<void(const vrel::EventParams&, uint32_t)> hook);

 protected:
  result_t Record(uint32_t verdict, const vrel::EventParams& params,
                  std::optional<vrel::ReplyKey> key);

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_delivered;
  std::vector<DeliveredVerdict> m_verdicts;
  std::vector<uint64_t> m_refused;
  std::atomic<result_t> m_failure{res::Ok};
  std::function<void(const vrel::EventParams&, uint32_t)> m_hook;
};

class FakeVerdictNotifier : public object::Ifaces<vrel::IFileVerdictNotifier>, public VerdictLog {
 public:
  result_t SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams& params,
                      uint32_t verdict) noexcept override;
};

class FakeVerdictNotifierEx
    : public object::Ifaces<nox::vrelpp::IFileVerdictNotifierEx, vrel::IFileVerdictNotifier>,
      public VerdictLog {
 public:
  result_t SetVerdict(const vrel::EventParams& params, uint32_t verdict) noexcept override;
  result_t SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams& params,
                      uint32_t verdict) noexcept override;
};

}  // namespace qeb::testing
