// The host's side of "every file event is answered exactly once". The ledger records what
// a receiver answered for each delivered event: one it took (0) must get exactly one
// verdict through the notifier, one it answered itself (1, or a failure the host turns
// into a denial) must get none. It owns only that record; verdicts stay in the notifier's log.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "interfaces/qeb/result.h"
#include "testing/fake_verdict_notifier.h"

namespace qeb::testing {

class AnswerLedger {
 public:
  // Cookies are unique per delivery, so verdicts can be matched to deliveries.
  uint64_t NextCookie() noexcept { return m_nextCookie.fetch_add(1) + 1; }
  void Record(uint64_t cookie, result_t answer);

  // How many deliveries got each answer.
  std::map<result_t, size_t> AnswerCounts() const;

  // One line per event answered twice, never, or by both sides, and per verdict for an
  // unknown event; empty when all is well. An event the module owes a verdict whose
  // delivery the notifier refused counts as answered: the module tried, the host said no.
  std::vector<std::string> Breaches(const VerdictLog& log) const;

 private:
  std::atomic<uint64_t> m_nextCookie{0};
  mutable std::mutex m_mutex;
  std::map<uint64_t, result_t> m_answers;
};

}  // namespace qeb::testing
