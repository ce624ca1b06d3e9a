// The host's metrics: a factory of named counters and gauges, and a registry that calls
// each registered collector when it gathers values. The registry holds a reference to a
// collector from Register until Unregister returns; Unregister waits out a running call.
#pragma once

#include <cstdint>

#include "interfaces/qeb/object.h"

namespace qeb::telemetry {

// Called by the registry whenever it gathers values; sets the gauges it owns.
struct IMetricsCollector : IObject {
  static constexpr iid_t IID = 0x7e21c4b3;
  using BaseInterface = IObject;

  virtual result_t Collect() noexcept = 0;

 protected:
  ~IMetricsCollector() = default;
};

struct IMetricsRegistry : IObject {
  static constexpr iid_t IID = 0x1d40f599;
  using BaseInterface = IObject;

  // handle identifies the registration for Unregister.
  virtual result_t Register(IMetricsCollector* collector, uint64_t* handle) noexcept = 0;
  virtual result_t Unregister(uint64_t handle) noexcept = 0;

 protected:
  ~IMetricsRegistry() = default;
};

}  // namespace qeb::telemetry

namespace monitoring {

struct ICounter : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x5c8e21a4;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Increment(uint64_t n) noexcept = 0;

 protected:
  ~ICounter() = default;
};

struct IGauge : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x5c8e21a5;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t Set(int64_t value) noexcept = 0;

 protected:
  ~IGauge() = default;
};

struct IMetricsFactory : qeb::IObject {
  static constexpr qeb::iid_t IID = 0x34e76fa8;
  using BaseInterface = qeb::IObject;

  virtual qeb::result_t CreateCounter(const char* name, const char* description,
                                      ICounter** counter) noexcept = 0;
  virtual qeb::result_t CreateGauge(const char* name, const char* description,
                                    IGauge** gauge) noexcept = 0;

 protected:
  ~IMetricsFactory() = default;
};

}  // namespace monitoring
