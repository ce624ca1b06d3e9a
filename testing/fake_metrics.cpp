// Metrics are kept by name, so a test reads what the module published without holding
// the objects; a second metric under the same name replaces the first, as a real
// registry of names would.
#include "testing/fake_metrics.h"

#include <utility>

#include "testing/fault_injection.h"
#include "testing/host_object.h"

namespace qeb::testing {

result_t FakeCounter::Increment(uint64_t n) noexcept {
  OAS_FAULT_POINT("counter Increment");
  m_value += n;
  return res::Ok;
}

result_t FakeGauge::Set(int64_t value) noexcept {
  OAS_FAULT_POINT("gauge Set");
  m_value = value;
  return res::Ok;
}

template <class Fake, class I>
result_t FakeMetricsFactory::Create(std::map<std::string, objptr_t<Fake>>& made, const char* name,
                                    I** out) noexcept {
  if (!name || !out) return res::InvalidArgument;
  std::lock_guard lock(m_mutex);
  auto created = MakeHostObject<Fake>();
  made[name] = created;
  *out = created.Detach();
  return res::Ok;
}

result_t FakeMetricsFactory::CreateCounter(const char* name, const char*,
                                           monitoring::ICounter** counter) noexcept {
  OAS_FAULT_POINT("metrics factory CreateCounter");
  return Create(m_counters, name, counter);
}

result_t FakeMetricsFactory::CreateGauge(const char* name, const char*, monitoring::IGauge** gauge) noexcept {
  OAS_FAULT_POINT("metrics factory CreateGauge");
  return Create(m_gauges, name, gauge);
}

std::optional<uint64_t> FakeMetricsFactory::Counter(const std::string& name) const {
  std::lock_guard lock(m_mutex);
  const auto it = m_counters.find(name);
  if (it == m_counters.end()) return std::nullopt;
  return it->second->Value();
}

std::optional<int64_t> FakeMetricsFactory::Gauge(const std::string& name) const {
  std::lock_guard lock(m_mutex);
  const auto it = m_gauges.find(name);
  if (it == m_gauges.end()) return std::nullopt;
  return it->second->Value();
}

result_t FakeMetricsRegistry::Register(qeb::telemetry::IMetricsCollector* collector,
                                       uint64_t* handle) noexcept {
  if (!collector || !handle) return res::InvalidArgument;
  OAS_FAULT_POINT("metrics registry Register");
  std::lock_guard lock(m_mutex);
  *handle = m_nextHandle++;
  m_collectors[*handle] = objptr_t<qeb::telemetry::IMetricsCollector>(collector);
  return res::Ok;
}

result_t FakeMetricsRegistry::Unregister(uint64_t handle) noexcept {
  OAS_FAULT_POINT("metrics registry Unregister");
  std::function<void(uint64_t)> hook;
  {
    std::lock_guard lock(m_mutex);
    if (!m_collectors.count(handle)) return res::NotFound;
    m_unregistered.push_back(handle);
    hook = m_hook;
  }
  if (hook) hook(handle);
  objptr_t<qeb::telemetry::IMetricsCollector> released;
  std::lock_guard lock(m_mutex);
  const auto it = m_collectors.find(handle);
  if (it != m_collectors.end()) {
    released = std::move(it->second);
    m_collectors.erase(it);
  }
  return res::Ok;
}

void FakeMetricsRegistry::DropAll() {
  std::map<uint64_t, objptr_t<qeb::telemetry::IMetricsCollector>> dropped;
  std::lock_guard lock(m_mutex);
  dropped.swap(m_collectors);
}

size_t FakeMetricsRegistry::Collect() {
  std::vector<objptr_t<qeb::telemetry::IMetricsCollector>> collectors;
  {
    std::lock_guard lock(m_mutex);
    for (const auto& [handle, collector] : m_collectors) collectors.push_back(collector);
  }
  for (const auto& collector : collectors) collector->Collect();
  return collectors.size();
}

size_t FakeMetricsRegistry::Registered() const {
  std::lock_guard lock(m_mutex);
  return m_collectors.size();
}

void FakeMetricsRegistry::OnUnregister(std::function<void(uint64_t)> hook) {
  std::lock_guard lock(m_mutex);
  m_hook = std::move(hook);
}

}  // namespace qeb::testing
