// One log behind both notifier faces; a failing notifier records nothing but the
// refusal, as a layer that refused the verdict has not acted on it.
#include "testing/fake_verdict_notifier.h"

#include "testing/fault_injection.h"

namespace qeb::testing {

result_t VerdictLog::Record(uint32_t verdict, const vrel::EventParams& params,
                            std::optional<vrel::ReplyKey> key) {
  const result_t fault = FaultPoint("verdict notifier SetVerdict");
  std::function<void(const vrel::EventParams&, uint32_t)> hook;
  {
    std::lock_guard lock(m_mutex);
    hook = m_hook;
  }
  if (hook) hook(params, verdict);
  std::lock_guard lock(m_mutex);
  const result_t refusal = QEB_FAILED(fault) ? fault : m_failure.load();
  if (QEB_FAILED(refusal)) {
    m_refused.push_back(params.cookie);
    return refusal;
  }
  m_verdicts.push_back({verdict, params.cookie, key});
  m_delivered.notify_all();
  return res::Ok;
}

void VerdictLog::OnDelivery(std::function<void(const vrel::EventParams&, uint32_t)> hook) {
  std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

std::map<uint64_t, size_t> VerdictLog::CountsByCookie() const {
  std::lock_guard lock(m_mutex);
  std::map<uint64_t, size_t> counts;
  for (const auto& v : m_verdicts) ++counts[v.cookie];
  return counts;
}

void VerdictLog::WaitFor(size_t count) const {
  std::unique_lock lock(m_mutex);
  m_delivered.wait(lock, [&] { return m_verdicts.size() >= count; });
}

result_t FakeVerdictNotifier::SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams& params,
                                         uint32_t verdict) noexcept {
  return Record(verdict, params, key);
}

result_t FakeVerdictNotifierEx::SetVerdict(const vrel::EventParams& params,
                                           uint32_t verdict) noexcept {
  return Record(verdict, params, std::nullopt);
}

result_t FakeVerdictNotifierEx::SetVerdict(const vrel::ReplyKey& key,
                                           const vrel::EventParams& params,
                                           uint32_t verdict) noexcept {
  return Record(verdict, params, key);
}

}  // namespace qeb::testing
