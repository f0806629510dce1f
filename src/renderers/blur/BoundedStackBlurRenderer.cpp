#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurPasses.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

BoundedStackBlurRenderer::BoundedStackBlurRenderer(unsigned int radius_, bool horizontal_, bool vertical_,
                                                   KVChannelsToProcess channels_, const kvo::maths::KVRect& rect_,
                                                   double feather_)
    : radius(radius_),
      horizontal(horizontal_),
      vertical(vertical_),
      channels(static_cast<int>(channels_)),
      rect(rect_),
      feather(feather_ > 0.0 ? feather_ : 0.0) {}  // negative and NaN: a hard edge

void BoundedStackBlurRenderer::Setup(KVAbstractImage* image) {
  const uint32_t w = image->Width(), h = image->Height();
  setupWidth = setupHeight = 0;
  left = top = right = bottom = 0;
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

  // The rectangle is blurred on its own: its first and last rows and columns
  // repeat beyond it.
  const uint32_t rw = right - left, rh = bottom - top;
  const size_t rectPixels = static_cast<size_t>(rw) * rh;
  const size_t imageRowBytes = static_cast<size_t>(w) * kBytesPerPixel, rectRowBytes = rw * kBytesPerPixel;
  const unsigned char* corner = PixelBytes(image) + top * imageRowBytes + left * kBytesPerPixel;
  blurred.resize(rectPixels * kBytesPerPixel);
  // Both directions: rows into the row pass's plane, then its columns.
  if (horizontal && vertical) rowPassPlane.resize(rectPixels * kBytesPerPixel);
  unsigned char* rowResults = horizontal && vertical ? rowPassPlane.data() : blurred.data();
  const StackBlurKernels kernels = ChooseStackBlurKernels();
  if (horizontal) {
    RunStackBlurRows(kernels.rows,
                     PixelRowsIntoPlane(corner, imageRowBytes, rw, rh, radius, rowResults, kPlaneFourBytes));
  }
  if (vertical) {
    const bool fromRows = horizontal;
    RunStackBlurColumns(kernels.columns,
                        PlaneColumnsIntoPixels(fromRows ? rowResults : corner, fromRows ? rectRowBytes : imageRowBytes,
                                               rw, rh, radius, kStoreBytes, blurred.data()));
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
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
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

  const ShareRun rows = ShareOfLines(setupHeight, threadIndex, threadCount);
  const size_t rowBytes = static_cast<size_t>(setupWidth) * kBytesPerPixel;
  const size_t rectRowBytes = static_cast<size_t>(right - left) * kBytesPerPixel;
  // The bytes of a pixel word (blue lowest) that come from the blur.
  uint32_t blurredBytes = 0;
  for (unsigned c = 0; c < 4; ++c) {
    if (blurredChannel[c]) blurredBytes |= 0xFFu << (8 * c);
  }
  const size_t leftBytes = static_cast<size_t>(left) * kBytesPerPixel, rightBytes = static_cast<size_t>(right) * kBytesPerPixel;
  for (uint32_t y = static_cast<uint32_t>(rows.start); y < rows.End(); ++y) {
    const unsigned char* in = source->Buffer() + y * rowBytes;
    unsigned char* out = destination->Buffer() + y * rowBytes;
    if (y < top || y >= bottom || feather > 0.0) std::memmove(out, in, rowBytes);
    if (y < top || y >= bottom) continue;
    const unsigned char* blur = blurred.data() + (y - top) * rectRowBytes;
    if (!(feather > 0.0)) {
      // Every weight is 1: the blurred bytes as they are, the others the
      // source's.
      std::memmove(out, in, leftBytes);
      std::memmove(out + rightBytes, in + rightBytes, rowBytes - rightBytes);
      for (size_t i = 0; i < rectRowBytes; i += kBytesPerPixel) {
        uint32_t sharp, blurredPixel;
        std::memcpy(&sharp, in + leftBytes + i, sizeof sharp);
        std::memcpy(&blurredPixel, blur + i, sizeof blurredPixel);
        const uint32_t mixed = (blurredPixel & blurredBytes) | (sharp & ~blurredBytes);
        std::memcpy(out + leftBytes + i, &mixed, sizeof mixed);
      }
      continue;
    }
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
