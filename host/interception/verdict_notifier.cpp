// Both forms identify the event the same way, by descriptor and cookie: the record's own
// for the extended form, the reply key's (copied from the record) for the plain one.
#include "host/interception/verdict_notifier.h"

#include <utility>

namespace oasd {

VerdictNotifier::VerdictNotifier(std::shared_ptr<PermissionTable> table, HostMetrics& metrics)
    : m_table(std::move(table)), m_metrics(metrics) {}

qeb::result_t VerdictNotifier::SetVerdict(const vrel::EventParams& params,
                                          uint32_t verdict) noexcept {
  return Deliver(params.fd, params.cookie, verdict);
}

qeb::result_t VerdictNotifier::SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams&,
                                          uint32_t verdict) noexcept {
  return Deliver(key.fd, key.cookie, verdict);
}

qeb::result_t VerdictNotifier::Deliver(int fd, uint64_t cookie, uint32_t verdict) noexcept {
  bool allow = false;
  switch (verdict) {
    case vrel::NOTIFIER_VERDICT_ALLOW_CLEAN:
    case vrel::NOTIFIER_VERDICT_ALLOW: allow = true; break;
    case vrel::NOTIFIER_VERDICT_DENY: allow = false; break;
    default: return qeb::res::InvalidArgument;
  }
  if (!m_table->Complete(fd, cookie, allow)) return qeb::res::Ok;
  (allow ? m_metrics.verdictsAllow : m_metrics.verdictsDeny).fetch_add(1, std::memory_order_relaxed);
  return qeb::res::Ok;
}

}  // namespace oasd
