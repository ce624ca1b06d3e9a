// What the interceptor subscribes to the shares parser in its own place. The parser keeps
// a reference to the sink, not to the interceptor, so releasing a running interceptor
// still destroys it; the interceptor detaches the sink first, which waits for a change
// notification already in flight.
#pragma once

#include <mutex>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/shares.h"

namespace nox::oas {

class SharesEventsSink : public qeb::object::Ifaces<nox::ISharesParserEvents> {
 public:
  explicit SharesEventsSink(nox::ISharesParserEvents* target) : m_target(target) {}

  // Forwards to the interceptor while it is attached; 1 (nothing done) afterwards.
  qeb::result_t OnSharesChanged() noexcept override {
    std::lock_guard lock(m_mutex);
    return m_target ? m_target->OnSharesChanged() : qeb::res::False;
  }

  void Detach() noexcept {
    std::lock_guard lock(m_mutex);
    m_target = nullptr;
  }

 private:
  std::mutex m_mutex;
  nox::ISharesParserEvents* m_target;
};

}  // namespace nox::oas
