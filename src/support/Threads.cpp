#include "support/Threads.h"

#include <pthread.h>

#include <algorithm>
#include <stdexcept>

#include <kvimage/support.h>

namespace kvo {
namespace image {

unsigned char PassThreadCount() {
  return static_cast<unsigned char>(std::min(kvo::KVSystem::GetCPUCoreCount(), 255u));
}

int RunThreads(ThreadEntry entry, void* const* arguments, size_t count) {
  std::vector<pthread_t> threads(count);
  for (size_t i = 0; i < count; ++i) {
    if (pthread_create(&threads[i], nullptr, entry, arguments[i]) != 0) {
      for (size_t j = 0; j < i; ++j) pthread_join(threads[j], nullptr);
      throw std::runtime_error("Cannot create thread");
    }
  }
  int result = 0;
  bool joinFailed = false;
  for (size_t i = 0; i < count; ++i) {
    void* exitValue = nullptr;
    if (pthread_join(threads[i], &exitValue) != 0) {
      joinFailed = true;
      continue;
    }
    const int code = static_cast<int>(reinterpret_cast<intptr_t>(exitValue));
    if (code != 0) result = code;
  }
  if (joinFailed) throw std::runtime_error("Cannot join thread");
  return result;
}

}  // namespace image
}  // namespace kvo
