// Process-wide fault injection for the fake host. Every fake service operation starts at
// a fault point that counts it while a plan is armed; the plan makes exactly one call, the
// N-th since it was armed, fail or throw. This file owns only the counter and the plan;
// what an operation does when it is not the chosen one stays with its fake.
#pragma once

#include <cstdint>
#include <string>

#include "interfaces/qeb/result.h"

namespace qeb::testing {

enum class FaultMode {
  // The operation answers res::Unexpected without doing anything.
  Fail,
  // The operation raises. Interface operations are noexcept, so a host operation that
  // raises answers the exception's code at its own boundary (std::bad_alloc, OutOfMemory);
  // only operations declared to throw let it reach the module.
  Throw,
};

class FaultPlan {
 public:
  // Counts calls from now on and fails none: the dry run that measures a scenario.
  static void CountOnly() noexcept;
  // Counts from now on; the n-th call (1-based) fails in the given way.
  static void FailCall(uint64_t n, FaultMode mode) noexcept;
  // Stops counting; fault points then cost one atomic load.
  static void Disarm() noexcept;

  static uint64_t Calls() noexcept;
  // The operation that took the fault; empty while none has.
  static std::string Hit();
  // What a fault point asks: true when this call is the chosen one (mode set then).
  static bool Take(const char* operation, FaultMode& mode) noexcept;
};

// Disarms whatever plan is armed when the scope ends, so a failing test cannot leave
// faults behind for the next one.
class ScopedFaultPlan {
 public:
  ScopedFaultPlan() = default;
  ScopedFaultPlan(const ScopedFaultPlan&) = delete;
  ScopedFaultPlan& operator=(const ScopedFaultPlan&) = delete;
  ~ScopedFaultPlan() { FaultPlan::Disarm(); }
};

// For a noexcept operation: the failure code when this call is the chosen one, else Ok.
result_t FaultPoint(const char* operation) noexcept;
// For an operation allowed to throw: throws in Throw mode, answers the code in Fail mode.
result_t ThrowingFaultPoint(const char* operation);

}  // namespace qeb::testing

// The first line of a fake operation: leaves it with the injected code when it is chosen.
#define OAS_FAULT_POINT(operation)                                                              \
  do {                                                                                        \
    if (const ::qeb::result_t oasFault = ::qeb::testing::FaultPoint(operation); oasFault < 0) \
      return oasFault;                                                                        \
  } while (false)
#define OAS_THROWING_FAULT_POINT(operation)                                                           \
  do {                                                                                                \
    if (const ::qeb::result_t oasFault = ::qeb::testing::ThrowingFaultPoint(operation); oasFault < 0) \
      return oasFault;                                                                                \
  } while (false)
