// Both forms identify the event the same way, by descriptor and cookie: the record's own
// for the extended form, the reply key's (copied from the record) for the plain one.
#include "host/interception/verdict_notifier.h"

#include <utility>

namespace oasd {

VerdictNotifier::VerdictNotifier(std::shared_ptr<PermissionTable> table, HostMetrics& metrics)
    : m_table(std::move(table)), m_metrics(metrics) {}

qeb::result_t VerdictNotifier::SetVerdict(const vrel::EventParams& params,
                                          uint32_t verdict) noexcept {
  return Deliver(params.fd, params.cookie, verdict, params);
}

qeb::result_t VerdictNotifier::SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams& params,
                                          uint32_t verdict) noexcept {
  return Deliver(key.fd, key.cookie, verdict, params);
}

// Only verdict 1 may be cached, by the kernel too; the engine gives it only to a file it
// scanned whole and found clean.
qeb::result_t VerdictNotifier::Deliver(int fd, uint64_t cookie, uint32_t verdict,
                                       const vrel::EventParams& params) noexcept {
  bool allow = false;
  switch (verdict) {
    case vrel::NOTIFIER_VERDICT_ALLOW_CLEAN:
    case vrel::NOTIFIER_VERDICT_ALLOW: allow = true; break;
    case vrel::NOTIFIER_VERDICT_DENY: allow = false; break;
    default: return qeb::res::InvalidArgument;
  }
  const bool clean = verdict == vrel::NOTIFIER_VERDICT_ALLOW_CLEAN;
  if (!m_table->Complete(fd, cookie, allow, clean ? &params : nullptr)) return qeb::res::Ok;
  (allow ? m_metrics.verdictsAllow : m_metrics.verdictsDeny).fetch_add(1, std::memory_order_relaxed);
  return qeb::res::Ok;
}

}  // namespace oasd
