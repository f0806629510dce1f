#ifndef KVIMAGE_SRC_SUPPORT_THREADS_H
#define KVIMAGE_SRC_SUPPORT_THREADS_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kvo {
namespace image {

// The number of threads of every pass: the core count, at most 255 (thread
// indices are one byte).
unsigned char PassThreadCount();

typedef void* (*ThreadEntry)(void*);

// Runs entry once per argument on its own POSIX thread (default attributes),
// started in index order and joined in index order. Returns the last non-zero
// exit value (see ThreadExitValue), else 0. Throws std::runtime_error "Cannot
// create thread" or "Cannot join thread"; threads already running when a
// creation fails are joined before the throw, so no thread outlives its work.
int RunThreads(ThreadEntry entry, void* const* arguments, size_t count);

// An integer exit code carried in a thread's result pointer.
inline void* ThreadExitValue(int code) { return reinterpret_cast<void*>(static_cast<intptr_t>(code)); }

}  // namespace image
}  // namespace kvo

#endif
