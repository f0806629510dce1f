#include <unistd.h>

#include <atomic>

#include <kvimage/support.h>

namespace kvo {

namespace {
std::atomic<unsigned int> g_coreCountOverride(0);
}

unsigned int KVSystem::GetCPUCoreCount() {
  const unsigned int fixed = g_coreCountOverride.load(std::memory_order_relaxed);
  if (fixed != 0) return fixed;
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<unsigned int>(online) : 1u;
}

void KVSystem::SetCPUCoreCount(unsigned int count) { g_coreCountOverride.store(count, std::memory_order_relaxed); }

}  // namespace kvo
