#include <algorithm>
#include <cstdint>
#include <cstring>

#include <kvimage/keying.h>

#include "pipeline/StageNeeds.h"
#include "support/AssertionSites.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

AlphaCrop::AlphaCrop(double left, double top, double right, double bottom)
    : m_left(left), m_top(top), m_right(right), m_bottom(bottom) {}

// Render8's row shares cover the output and every byte of each row is
// written; inputs other than 8-bit BGRA abort. Alpha depends on the pixel's
// place, not only its value.
StageNeeds NeedsOf(const AlphaCrop&) { return StageNeeds{IsBGRA8, false}; }

int AlphaCrop::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                      unsigned char threadCount) {
  AssertBGRA8(source, kAssertAlphaCropFormat);
  return Render8(source, destination, threadIndex, threadCount);
}

// Alpha survives only where x > L, x < W - R, y > T and y < H - B, compared as
// unsigned 32-bit values: the left and top edges are strict, so column 0 and
// row 0 always lose their alpha while the last column and row can keep it.
int AlphaCrop::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                       unsigned char threadCount) {
  if (threadCount == 0) return 0;
  const uint32_t width = source->Width(), height = source->Height();
  const uint32_t left = static_cast<uint32_t>(TruncateToInt(width * m_left));
  const uint32_t right = static_cast<uint32_t>(TruncateToInt(width * m_right));
  const uint32_t top = static_cast<uint32_t>(TruncateToInt(height * m_top));
  const uint32_t bottom = static_cast<uint32_t>(TruncateToInt(height * m_bottom));
  // Columns begin <= x < end keep their alpha (64-bit, so L + 1 cannot wrap).
  const uint64_t keepBegin = static_cast<uint64_t>(left) + 1;
  const uint64_t keepEnd = static_cast<uint32_t>(width - right);

  const ShareRun rows = ShareOfLinesSized(height, SaturatedShareSize(height, threadCount), threadIndex);
  const size_t limitPixels = CommonByteSize(source, destination) / kBytesPerPixel;
  const unsigned char* in = PixelBytes(source);
  unsigned char* out = PixelBytes(destination);

  for (uint64_t y = rows.start; y < rows.End(); ++y) {
    const uint64_t rowStart = y * width;
    if (rowStart >= limitPixels) break;
    const uint64_t columns = std::min<uint64_t>(width, limitPixels - rowStart);
    const unsigned char* p = in + rowStart * kBytesPerPixel;
    unsigned char* q = out + rowStart * kBytesPerPixel;
    std::memmove(q, p, columns * kBytesPerPixel);  // the stage may run in place
    const bool rowKeeps = y > top && y < static_cast<uint32_t>(height - bottom);
    const uint64_t begin = rowKeeps ? std::min(keepBegin, columns) : columns;
    const uint64_t end = rowKeeps ? std::max(begin, std::min(keepEnd, columns)) : columns;
    for (uint64_t x = 0; x < begin; ++x) q[x * kBytesPerPixel + kAlphaByte] = 0;
    for (uint64_t x = end; x < columns; ++x) q[x * kBytesPerPixel + kAlphaByte] = 0;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
