// The plan lives in atomics so fault points on any thread agree on which call is the
// N-th without a lock; the operation that took the fault is a string literal, kept by
// pointer for the same reason.
#include "testing/fault_injection.h"

#include <atomic>
#include <new>
#include <stdexcept>

#include "framework/qeb/exception.h"

namespace qeb::testing {
namespace {

std::atomic<bool> g_counting{false};
std::atomic<uint64_t> g_calls{0};
std::atomic<uint64_t> g_target{0};  // 0: fail nothing
std::atomic<FaultMode> g_mode{FaultMode::Fail};
std::atomic<const char*> g_hit{nullptr};

void Arm(uint64_t target, FaultMode mode) noexcept {
  g_counting.store(false, std::memory_order_seq_cst);
  g_calls.store(0);
  g_target.store(target);
  g_mode.store(mode);
  g_hit.store(nullptr);
  g_counting.store(true, std::memory_order_seq_cst);
}

}  // namespace

void FaultPlan::CountOnly() noexcept { Arm(0, FaultMode::Fail); }

void FaultPlan::FailCall(uint64_t n, FaultMode mode) noexcept { Arm(n, mode); }

void FaultPlan::Disarm() noexcept { g_counting.store(false); }

uint64_t FaultPlan::Calls() noexcept { return g_calls.load(); }

std::string FaultPlan::Hit() {
  const char* hit = g_hit.load();
  return hit ? hit : "";
}

bool FaultPlan::Take(const char* operation, FaultMode& mode) noexcept {
  if (!g_counting.load(std::memory_order_acquire)) return false;
  const uint64_t n = g_calls.fetch_add(1) + 1;
  if (n != g_target.load()) return false;
  g_hit.store(operation);
  mode = g_mode.load();
  return true;
}

result_t FaultPoint(const char* operation) noexcept {
  FaultMode mode;
  if (!FaultPlan::Take(operation, mode)) return res::Ok;
  if (mode == FaultMode::Fail) return res::Unexpected;
  try {
    throw std::bad_alloc();
  } catch (...) {
    return CurrentExceptionToResult();
  }
}

result_t ThrowingFaultPoint(const char* operation) {
  FaultMode mode;
  if (!FaultPlan::Take(operation, mode)) return res::Ok;
  if (mode == FaultMode::Fail) return res::Unexpected;
  throw std::runtime_error(std::string("injected fault in ") + operation);
}

}  // namespace qeb::testing
