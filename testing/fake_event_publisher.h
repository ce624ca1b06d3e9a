// The fake host's event publisher: keeps every processing-error event it is given, can be
// told to refuse them, and lets tests wait until a number of events has arrived.
#pragma once

#include <condition_variable>
#include <mutex>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/event_publisher.h"
#include "testing/fault_injection.h"

namespace qeb::testing {

class FakeEventPublisher : public object::Ifaces<nox::IEventPublisher> {
 public:
  result_t Publish(nox::ProcessingErrorEvent&& event) noexcept override {
    OAS_FAULT_POINT("event publisher Publish");
    std::lock_guard lock(m_mutex);
    if (QEB_FAILED(m_failure)) return m_failure;
    m_events.push_back(std::move(event));
    m_published.notify_all();
    return res::Ok;
  }

  // Publish answers code from now on, keeping nothing (0 to accept again).
  void Fail(result_t code) {
    std::lock_guard lock(m_mutex);
    m_failure = code;
  }
  std::vector<nox::ProcessingErrorEvent> Events() const {
    std::lock_guard lock(m_mutex);
    return m_events;
  }
  void WaitFor(size_t count) const {
    std::unique_lock lock(m_mutex);
    m_published.wait(lock, [&] { return m_events.size() >= count; });
  }

 private:
  mutable std::mutex m_mutex;
  mutable std::condition_variable m_published;
  std::vector<nox::ProcessingErrorEvent> m_events;
  result_t m_failure = res::Ok;
};

}  // namespace qeb::testing
