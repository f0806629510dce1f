#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurCore.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

namespace {

// One thread's share of a pass over the rectangle. The rectangle is blurred on
// its own: position 0 and the last position of each line repeat beyond it.
struct BoundedPassData {
  uint32_t threadIndex;
  uint32_t linesPerThread;
  uint32_t radius;
  const unsigned char* image;  // the Setup image
  size_t imageWidth;
  uint32_t left;
  uint32_t top;
  uint32_t width;   // of the rectangle
  uint32_t height;  // of the rectangle
  int32_t* planes[4];          // rectangle-sized planes between the two passes
  unsigned char* blurred;      // rectangle-sized, four bytes per pixel
  StackBlurDivider divide;
  bool columnsFromPlanes;      // column pass: read the row pass's planes, else the image
  bool rowsToPlanes;           // row pass: write the planes, else the blurred bytes
};

inline uint32_t Enter(uint32_t i, uint32_t radius, uint32_t n) {
  return static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(i) + radius + 1, n - 1));
}

void* BoundedRowPassProc(void* record) {
  const BoundedPassData& d = *static_cast<BoundedPassData*>(record);
  const LineShare rows = LineShareOf(d.threadIndex, d.linesPerThread, d.height);
  if (rows.first == rows.end) return nullptr;
  std::vector<uint32_t> stack = StackBlurWindow(d.radius, 4);
  for (uint32_t y = rows.first; y < rows.end; ++y) {
    const unsigned char* line = d.image + ((d.top + y) * d.imageWidth + d.left) * kBytesPerPixel;
    const size_t outStart = static_cast<size_t>(y) * d.width;
    StackBlurLine<4>(
        d.width, 1, d.radius, stack.data(),
        [&](size_t x, uint32_t* values) {
          for (unsigned c = 0; c < 4; ++c) values[c] = line[x * kBytesPerPixel + c];
        },
        [&](uint32_t x) { return Enter(x, d.radius, d.width); },
        [&](uint32_t x, const uint32_t* sums) {
          if (d.rowsToPlanes) {
            for (unsigned c = 0; c < 4; ++c) d.planes[c][outStart + x] = d.divide(sums[c]);
          } else {
            unsigned char* out = d.blurred + (outStart + x) * kBytesPerPixel;
            for (unsigned c = 0; c < 4; ++c) out[c] = static_cast<unsigned char>(d.divide(sums[c]));
          }
        });
  }
  return nullptr;
}

void* BoundedColumnPassProc(void* record) {
  const BoundedPassData& d = *static_cast<BoundedPassData*>(record);
  const LineShare columns = LineShareOf(d.threadIndex, d.linesPerThread, d.width);
  if (columns.first == columns.end) return nullptr;
  std::vector<uint32_t> stack =
      StackBlurWindow(d.radius, 4, std::min<uint32_t>(kStackBlurLinesPerBlock, columns.end - columns.first));
  for (uint32_t x = columns.first; x < columns.end; x += kStackBlurLinesPerBlock) {
    const unsigned lines = std::min<uint32_t>(kStackBlurLinesPerBlock, columns.end - x);
    StackBlurLines<4, kStackBlurLinesPerBlock>(
        d.height, 1, d.radius, lines, stack.data(),
        [&](size_t y, unsigned l, uint32_t* values) {
          if (d.columnsFromPlanes) {
            const size_t at = y * d.width + x + l;
            for (unsigned c = 0; c < 4; ++c) values[c] = static_cast<uint32_t>(d.planes[c][at]);
          } else {
            const unsigned char* p = d.image + ((d.top + y) * d.imageWidth + d.left + x + l) * kBytesPerPixel;
            for (unsigned c = 0; c < 4; ++c) values[c] = p[c];
          }
        },
        [&](uint32_t y) { return Enter(y, d.radius, d.height); },
        [&](uint32_t y, unsigned l, const uint32_t* sums) {
          unsigned char* out = d.blurred + (static_cast<size_t>(y) * d.width + x + l) * kBytesPerPixel;
          for (unsigned c = 0; c < 4; ++c) out[c] = static_cast<unsigned char>(d.divide(sums[c]));
        },
        [](uint32_t) {});
  }
  return nullptr;
}

// [low, high) of a rectangle side clipped to 0 .. limit.
void ClipSpan(int64_t start, int64_t size, uint32_t limit, uint32_t& low, uint32_t& high) {
  const int64_t end = start + size;
  low = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(start, 0), limit));
  high = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(end, 0), limit));
  if (high < low) high = low;
}

}  // namespace

BoundedStackBlurRenderer::BoundedStackBlurRenderer(unsigned int radius_, bool horizontal_, bool vertical_,
                                                   KVChannelsToProcess channels_, const kvo::maths::KVRect& rect_,
                                                   double feather_)
    : radius(radius_),
      horizontal(horizontal_),
      vertical(vertical_),
      channels(static_cast<int>(channels_)),
      rect(rect_),
      feather(feather_ > 0.0 ? feather_ : 0.0),  // negative and NaN: a hard edge
      setupWidth(0),
      setupHeight(0),
      left(0),
      top(0),
      right(0),
      bottom(0),
      featherLeft(false),
      featherTop(false),
      featherRight(false),
      featherBottom(false) {}

BoundedStackBlurRenderer::~BoundedStackBlurRenderer() {}

unsigned int BoundedStackBlurRenderer::Type() const { return 1; }

void BoundedStackBlurRenderer::Setup(KVAbstractImage* image) {
  const uint32_t threads = PassThreadCount();
  const uint32_t w = image->Width(), h = image->Height();
  setupWidth = setupHeight = 0;
  left = top = right = bottom = 0;
  std::vector<unsigned char>().swap(blurred);
  CheckStackBlurRadius(radius);
  const size_t pixelCount = static_cast<size_t>(w) * h;
  if (pixelCount == 0 || image->BitsPerChannel() != 0 || image->BufferByteSize() < pixelCount * kBytesPerPixel) {
    return;
  }
  setupWidth = w;
  setupHeight = h;

  const int64_t rectLeft = rect.TopLeft().X(), rectTop = rect.TopLeft().Y();
  ClipSpan(rectLeft, rect.Width(), w, left, right);
  ClipSpan(rectTop, rect.Height(), h, top, bottom);
  if (left == right || top == bottom || (!horizontal && !vertical)) {
    left = top = right = bottom = 0;  // nothing to blur: a copy
    return;
  }
  // Only edges that lie inside the image are feathered.
  featherLeft = rectLeft > 0;
  featherTop = rectTop > 0;
  featherRight = rectLeft + rect.Width() < static_cast<int64_t>(w);
  featherBottom = rectTop + rect.Height() < static_cast<int64_t>(h);

  const uint32_t rw = right - left, rh = bottom - top;
  const size_t rectPixels = static_cast<size_t>(rw) * rh;
  blurred.resize(rectPixels * kBytesPerPixel);
  const bool both = horizontal && vertical;
  std::vector<int32_t> planeStore(both ? rectPixels * 4 : 0);
  if (threads == 0) return;

  std::vector<BoundedPassData> records(threads);
  for (uint32_t t = 0; t < threads; ++t) {
    BoundedPassData& d = records[t];
    d = BoundedPassData();
    d.threadIndex = t;
    d.radius = radius;
    d.image = PixelBytes(image);
    d.imageWidth = w;
    d.left = left;
    d.top = top;
    d.width = rw;
    d.height = rh;
    for (unsigned c = 0; c < 4; ++c) d.planes[c] = both ? planeStore.data() + c * rectPixels : nullptr;
    d.blurred = blurred.data();
    d.divide = StackBlurDivider(radius);
    d.rowsToPlanes = both;
    d.columnsFromPlanes = both;
  }
  if (horizontal) {
    for (BoundedPassData& d : records) d.linesPerThread = LinesPerThread(rh, threads);
    RunThreads(BoundedRowPassProc, records);
  }
  if (vertical) {
    for (BoundedPassData& d : records) d.linesPerThread = LinesPerThread(rw, threads);
    RunThreads(BoundedColumnPassProc, records);
  }
}

double BoundedStackBlurRenderer::BlurWeight(uint32_t x, uint32_t y) const {
  if (!(feather > 0.0)) return 1.0;
  const uint32_t none = std::numeric_limits<uint32_t>::max();
  uint32_t distance = none;
  if (featherLeft) distance = std::min(distance, x - left);
  if (featherRight) distance = std::min(distance, right - 1 - x);
  if (featherTop) distance = std::min(distance, y - top);
  if (featherBottom) distance = std::min(distance, bottom - 1 - y);
  if (distance == none) return 1.0;
  return std::min(1.0, (static_cast<double>(distance) + 0.5) / feather);
}

int BoundedStackBlurRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination,
                                     unsigned char threadIndex, unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return static_cast<int>(source->BitsPerChannel());
  return Render8(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

int BoundedStackBlurRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                      unsigned char threadCount) {
  if (threadCount == 0 || setupWidth == 0) return 0;
  const size_t bytes = static_cast<size_t>(setupWidth) * setupHeight * kBytesPerPixel;
  if (destination->Width() != setupWidth || destination->Height() != setupHeight ||
      destination->BufferByteSize() < bytes || source->Width() != setupWidth || source->Height() != setupHeight ||
      source->BufferByteSize() < bytes) {
    return 0;
  }
  bool blurredChannel[4] = {true, true, true, true};
  if (channels == kChannelsAlpha) blurredChannel[0] = blurredChannel[1] = blurredChannel[2] = false;
  if (channels == kChannelsColor) blurredChannel[3] = false;

  const LineShare rows = LineShareOf(threadIndex, LinesPerThread(setupHeight, threadCount), setupHeight);
  const size_t rowBytes = static_cast<size_t>(setupWidth) * kBytesPerPixel;
  const size_t rectRowBytes = static_cast<size_t>(right - left) * kBytesPerPixel;
  for (uint32_t y = rows.first; y < rows.end; ++y) {
    const unsigned char* in = source->Buffer() + y * rowBytes;
    unsigned char* out = destination->Buffer() + y * rowBytes;
    std::memmove(out, in, rowBytes);
    if (y < top || y >= bottom) continue;
    const unsigned char* blur = blurred.data() + (y - top) * rectRowBytes;
    for (uint32_t x = left; x < right; ++x) {
      const double weight = BlurWeight(x, y);
      const unsigned char* b = blur + static_cast<size_t>(x - left) * kBytesPerPixel;
      unsigned char* p = out + static_cast<size_t>(x) * kBytesPerPixel;
      for (unsigned c = 0; c < 4; ++c) {
        if (!blurredChannel[c]) continue;
        if (weight >= 1.0) {
          p[c] = b[c];
        } else {
          const double mixed = p[c] + (b[c] - p[c]) * weight + 0.5;
          p[c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(mixed)));
        }
      }
    }
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
