// The fake metrics host: a factory whose counters and gauges keep their values for tests
// to read by name, and a registry that holds collectors until unregistered, runs them
// when the test asks, and logs every unregistration. Failures come through fault points.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "framework/qeb/object_wrapper.h"
#include "interfaces/nox/metrics.h"
#include "testing/locked.h"

namespace qeb::testing {

class FakeCounter : public object::Ifaces<monitoring::ICounter> {
 public:
  result_t Increment(uint64_t n) noexcept override;
  uint64_t Value() const noexcept { return m_value; }

 private:
  std::atomic<uint64_t> m_value{0};
};

class FakeGauge : public object::Ifaces<monitoring::IGauge> {
 public:
  result_t Set(int64_t value) noexcept override;
  int64_t Value() const noexcept { return m_value; }

 private:
  std::atomic<int64_t> m_value{0};
};

class FakeMetricsFactory : public object::Ifaces<monitoring::IMetricsFactory> {
 public:
  result_t CreateCounter(const char* name, const char* description,
                         monitoring::ICounter** counter) noexcept override;
  result_t CreateGauge(const char* name, const char* description,
                       monitoring::IGauge** gauge) noexcept override;

  // Values of metrics created under that name; nothing when none was.
  std::optional<uint64_t> Counter(const std::string& name) const;
  std::optional<int64_t> Gauge(const std::string& name) const;

 private:
  template <class Fake, class I>
  result_t Create(std::map<std::string, objptr_t<Fake>>& made, const char* name, I** out) noexcept;

  mutable std::mutex m_mutex;
  std::map<std::string, objptr_t<FakeCounter>> m_counters;
  std::map<std::string, objptr_t<FakeGauge>> m_gauges;
};

class FakeMetricsRegistry : public object::Ifaces<qeb::telemetry::IMetricsRegistry> {
 public:
  result_t Register(qeb::telemetry::IMetricsCollector* collector, uint64_t* handle) noexcept override;
  result_t Unregister(uint64_t handle) noexcept override;

  // Lets go of every collector still registered, as a registry that stops does.
  void DropAll();
  // Runs every registered collector, outside the registry's lock; answers how many ran.
  size_t Collect();
  size_t Registered() const;
  std::vector<uint64_t> Unregistered() const { return LockedCopy(m_mutex, m_unregistered); }
  // Called inside Unregister, before the collector is let go.
  void OnUnregister(std::function<void(uint64_t handle)> hook);

 private:
  mutable std::mutex m_mutex;
  std::map<uint64_t, objptr_t<qeb::telemetry::IMetricsCollector>> m_collectors;
  std::vector<uint64_t> m_unregistered;
  std::function<void(uint64_t)> m_hook;
  uint64_t m_nextHandle = 1;
};

}  // namespace qeb::testing
