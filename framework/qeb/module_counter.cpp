// The module object counter: the only process-wide state of the object model. It
// decides whether the host may unload the library, so it is touched only atomically.
#include <atomic>

#include "framework/qeb/object_wrapper.h"

namespace qeb::module {
namespace {
std::atomic<uint32_t> g_objectCount{0};
}

void IncrementObjectCount() noexcept { g_objectCount.fetch_add(1, std::memory_order_acq_rel); }
void DecrementObjectCount() noexcept { g_objectCount.fetch_sub(1, std::memory_order_acq_rel); }
uint32_t ObjectCount() noexcept { return g_objectCount.load(std::memory_order_acquire); }

}  // namespace qeb::module
