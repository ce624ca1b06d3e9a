// The host's verdict notifier, in its plain and extended forms: the module's verdicts
// come here and go to the permission table, which answers the kernel and closes the
// event's descriptor. It holds the table (shared with the daemon and the reader) and the
// counters, nothing else; it never keeps a record beyond the call.
#pragma once

#include <memory>

#include "framework/qeb/host_object.h"
#include "host/common/host_metrics.h"
#include "host/interception/permission_table.h"
#include "interfaces/vrel/verdict_notifier.h"

namespace oasd {

class VerdictNotifier
    : public qeb::object::Ifaces<nox::vrelpp::IFileVerdictNotifierEx, vrel::IFileVerdictNotifier> {
 public:
  VerdictNotifier(std::shared_ptr<PermissionTable> table, HostMetrics& metrics);

  // Verdicts 1 and 2 allow, 4 denies; any other is refused and changes nothing. A verdict
  // for an event already answered (after the deadline, say) is accepted quietly.
  qeb::result_t SetVerdict(const vrel::EventParams& params, uint32_t verdict) noexcept override;
  qeb::result_t SetVerdict(const vrel::ReplyKey& key, const vrel::EventParams& params,
                           uint32_t verdict) noexcept override;

 private:
  qeb::result_t Deliver(int fd, uint64_t cookie, uint32_t verdict,
                        const vrel::EventParams& params) noexcept;

  const std::shared_ptr<PermissionTable> m_table;
  HostMetrics& m_metrics;
};

}  // namespace oasd
