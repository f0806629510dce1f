#ifndef KVIMAGE_SRC_SUPPORT_PARALLELPASS_H
#define KVIMAGE_SRC_SUPPORT_PARALLELPASS_H

// The one parallel pass: how an image is split into thread shares (every
// share formula of the engine is here) and how one callable runs per share.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <vector>

#include <kvimage/image.h>

#include "support/PixelLayout.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

// A thread's contiguous run of pixels, bytes, rows or columns, cut so that it
// never reaches past the end of what it is used on.
struct ShareRun {
  size_t start;
  size_t count;
  size_t End() const { return start + count; }
};

// The documented shares of GetPixelsPerThread / GetBufferSizePerThread, cut
// at limit (in pixels or bytes respectively). A share that starts at or past
// the limit is empty.
ShareRun PixelShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                    size_t limitPixels);
ShareRun ByteShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                   size_t limitBytes);

// ceil(total / threadCount) in double precision, saturated to 32 bits: the
// share size of GetPixelsPerThread, and the rows or columns per thread of the
// matte clean-up stages.
uint32_t SaturatedShareSize(uint32_t total, unsigned int threadCount);

// Lines (rows or columns) per thread: ceil(total / threads) in double
// precision, truncated; 0 threads give 0.
uint32_t LinesPerThread(uint32_t total, uint32_t threads);
// Thread threadIndex's run of `total` lines, LinesPerThread(total, threadCount)
// to a thread, cut at total.
ShareRun ShareOfLines(uint32_t total, unsigned int threadIndex, unsigned int threadCount);
// The same with the lines per thread given (a pass whose share size is set
// elsewhere, such as an exported pass record).
ShareRun ShareOfLinesSized(uint32_t total, uint32_t perThread, unsigned int threadIndex);

// An even split of `total` bytes, ceil(total / threadCount) to a thread, for
// work whose shares are not documented (clearing a buffer).
ShareRun EvenShare(size_t total, unsigned int threadIndex, unsigned int threadCount);

// The number of bytes held by both images: the bound for a stage that walks
// the same positions in a source and a destination.
size_t CommonByteSize(const KVAbstractImage* a, const KVAbstractImage* b);

// Calls pixel(in, out) with the first byte of every whole pixel of thread
// threadIndex's byte share of source's width by destination's height, cut at
// the smaller buffer: a pass where each output pixel needs only its own input.
template <class PerPixel>
void ForEachPixelOfByteShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount, PerPixel pixel) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return;
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) pixel(in + i, out + i);
}

namespace detail {

template <class Body>
struct ParallelShare {
  Body* body;
  unsigned char threadIndex;
  unsigned char threadCount;
  std::exception_ptr failure;
};

template <class Body>
void* RunParallelShare(void* argument) {
  ParallelShare<Body>& share = *static_cast<ParallelShare<Body>*>(argument);
  try {
    return ThreadExitValue((*share.body)(share.threadIndex, share.threadCount));
  } catch (...) {
    share.failure = std::current_exception();
    return ThreadExitValue(0);
  }
}

}  // namespace detail

// Runs body(threadIndex, threadCount) once for every index below threadCount,
// each on its own thread through RunThreads, and joins them all. body returns
// an int: the result is the last non-zero one in thread order, else 0. An
// exception a body throws is rethrown here once every thread has joined (the
// lowest thread's first). Throws "Cannot create thread" / "Cannot join
// thread" as RunThreads does.
template <class Body>
int RunParallel(unsigned char threadCount, Body body) {
  std::vector<detail::ParallelShare<Body> > shares(threadCount);
  std::vector<void*> arguments(threadCount);
  for (unsigned int t = 0; t < threadCount; ++t) {
    shares[t].body = &body;
    shares[t].threadIndex = static_cast<unsigned char>(t);
    shares[t].threadCount = threadCount;
    arguments[t] = &shares[t];
  }
  const int result = RunThreads(detail::RunParallelShare<Body>, arguments.data(), arguments.size());
  for (const detail::ParallelShare<Body>& share : shares) {
    if (share.failure) std::rethrow_exception(share.failure);
  }
  return result;
}

// The same on the pass's thread count, min(core count, 255).
template <class Body>
int RunParallel(Body body) {
  return RunParallel(PassThreadCount(), body);
}

}  // namespace image
}  // namespace kvo

#endif
