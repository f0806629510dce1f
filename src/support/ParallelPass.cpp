#include "support/ParallelPass.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "support/Conversions.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// The documented share arithmetic, in 32-bit unsigned values: every thread but
// the last gets `share`, the last what remains of `total` (wrapping when there
// are more threads than units).
void ShareOf(uint32_t total, uint32_t share, unsigned char threadIndex, unsigned char threadCount,
             unsigned long& start, unsigned long& count) {
  start = static_cast<uint32_t>(share * threadIndex);
  count = share;
  if (threadIndex == threadCount - 1 && static_cast<uint64_t>(total) < static_cast<uint64_t>(share) * (threadIndex + 1u)) {
    count = static_cast<uint32_t>(total - share * threadIndex);
  }
}

ShareRun Cut(unsigned long start, unsigned long count, size_t limit) {
  ShareRun run = {0, 0};
  if (start >= limit) return run;
  run.start = start;
  run.count = std::min<size_t>(count, limit - start);
  return run;
}

}  // namespace

void GetPixelsPerThread(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                        unsigned long& start, unsigned long& count) {
  const uint32_t total = width * height;
  ShareOf(total, SaturatedShareSize(total, threadCount), threadIndex, threadCount, start, count);
}

void GetBufferSizePerThread(unsigned int width, unsigned int height, unsigned char threadIndex,
                            unsigned char threadCount, unsigned long& start, unsigned long& count) {
  const uint32_t total = width * height;
  ShareOf(total * kBytesPerPixel, SaturatedShareSize(total, threadCount) * kBytesPerPixel, threadIndex, threadCount,
          start, count);
}

ShareRun PixelShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                    size_t limitPixels) {
  unsigned long start = 0, count = 0;
  GetPixelsPerThread(width, height, threadIndex, threadCount, start, count);
  return Cut(start, count, limitPixels);
}

ShareRun ByteShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                   size_t limitBytes) {
  unsigned long start = 0, count = 0;
  GetBufferSizePerThread(width, height, threadIndex, threadCount, start, count);
  return Cut(start, count, limitBytes);
}

uint32_t SaturatedShareSize(uint32_t total, unsigned int threadCount) {
  return SaturateToUInt32(std::ceil(static_cast<double>(total) / static_cast<double>(threadCount)));
}

uint32_t LinesPerThread(uint32_t total, uint32_t threads) {
  if (threads == 0) return 0;
  const int lines = TruncateToInt(std::ceil(static_cast<double>(total) / static_cast<double>(threads)));
  return lines > 0 ? static_cast<uint32_t>(lines) : 0;
}

ShareRun ShareOfLinesSized(uint32_t total, uint32_t perThread, unsigned int threadIndex) {
  const uint64_t first = static_cast<uint64_t>(threadIndex) * perThread;
  ShareRun share = {0, 0};
  if (first >= total) return share;
  share.start = static_cast<size_t>(first);
  share.count = static_cast<size_t>(std::min<uint64_t>(first + perThread, total) - first);
  return share;
}

ShareRun ShareOfLines(uint32_t total, unsigned int threadIndex, unsigned int threadCount) {
  return ShareOfLinesSized(total, LinesPerThread(total, threadCount), threadIndex);
}

ShareRun EvenShare(size_t total, unsigned int threadIndex, unsigned int threadCount) {
  ShareRun share = {0, 0};
  if (threadCount == 0) return share;
  const size_t perThread = total / threadCount + (total % threadCount != 0 ? 1 : 0);
  const size_t start = std::min(total, perThread * threadIndex);
  share.start = start;
  share.count = std::min(perThread, total - start);
  return share;
}

size_t CommonByteSize(const KVAbstractImage* a, const KVAbstractImage* b) {
  return std::min(a->BufferByteSize(), b->BufferByteSize());
}

}  // namespace image
}  // namespace kvo
