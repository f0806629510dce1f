#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include <kvimage/blur.h>

#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {

const double kPi = 3.14159265358979323846;

// A strength in 0 .. 1: clamped, NaN as 0.
inline double UnitFraction(double value) { return value > 0.0 ? (value < 1.0 ? value : 1.0) : 0.0; }

// (a * (256 - w) + b * w) / 256, rounded to nearest.
inline int Mix256(int a, int b, int weight) { return (a * (256 - weight) + b * weight + 128) >> 8; }

}  // namespace

DepthOfFieldRenderer::DepthOfFieldRenderer(KVDepthOfFieldType type_, const kvo::maths::KVPoint2F& focus_,
                                           double angle_, unsigned int radius_, double focusSize_,
                                           double transition_, double amount_, double blurParameter_,
                                           const kvo::maths::KVRect& bounds_)
    : type(static_cast<int>(type_)),
      focus(focus_),
      angle(angle_),
      radius(radius_),
      focusSize(focusSize_),
      transition(transition_),
      amount(amount_),
      blurParameter(blurParameter_),
      bounds(bounds_) {}

void DepthOfFieldRenderer::Setup(KVAbstractImage* image) {
  setupWidth = setupHeight = 0;
  left = top = right = bottom = 0;
  levelRadius.clear();
  const uint32_t w = image->Width(), h = image->Height();
  const size_t pixelCount = static_cast<size_t>(w) * h;
  if (pixelCount == 0 || image->BitsPerChannel() != 0 || image->BufferByteSize() < pixelCount * kBytesPerPixel) {
    return;
  }
  setupWidth = w;
  setupHeight = h;
  if (bounds.Width() > 0 && bounds.Height() > 0) {
    ClipSpan(bounds.TopLeft().X(), bounds.Width(), w, left, right);
    ClipSpan(bounds.TopLeft().Y(), bounds.Height(), h, top, bottom);
  } else {
    right = w;
    bottom = h;
  }

  // The geometry, in pixels. A NaN or infinite angle is 0 (a horizontal band).
  const double diagonal = std::sqrt(static_cast<double>(w) * w + static_cast<double>(h) * h);
  focusPixels = UnitFraction(focusSize) * diagonal;
  transitionPixels = UnitFraction(transition) * diagonal;
  const double radians = std::isfinite(angle) ? std::fmod(angle, 360.0) * kPi / 180.0 : 0.0;
  bandSin = std::sin(radians);
  bandCos = std::cos(radians);
  amountWeight = TruncateToInt(UnitFraction(amount) * 256.0);
  if (radius == 0 || amountWeight == 0 || left == right || top == bottom) return;

  // The levels: radius / 4, radius / 2 and radius, without zeros or repeats.
  const uint32_t candidates[3] = {radius / 4, radius / 2, radius};
  for (uint32_t r : candidates) {
    if (r != 0 && (levelRadius.empty() || levelRadius.back() != r)) levelRadius.push_back(r);
  }
  const kvo::maths::KVRect clipped(kvo::maths::KVPoint2(static_cast<int>(left), static_cast<int>(top)),
                                   static_cast<int>(right - left), static_cast<int>(bottom - top));
  if (levelBlurs.size() != levelRadius.size() || !SameRect(clipped, levelBlurRect)) {
    levelBlurs.clear();
    for (uint32_t r : levelRadius) {
      levelBlurs.emplace_back(new BoundedStackBlurRenderer(r, true, true, kChannelsAll, clipped, blurParameter));
    }
    levelBlurRect = clipped;
  }
  const std::vector<std::tr1::shared_ptr<BoundedStackBlurRenderer> >& blurs = levelBlurs;
  std::vector<std::unique_ptr<KVImage8> > levelImages;
  levels.resize(levelRadius.size());
  for (size_t k = 0; k < levelRadius.size(); ++k) {
    blurs[k]->Setup(image);
    // Kept from the last Setup when the size holds: the bounded blur's
    // render writes every byte of it.
    levels[k].resize(pixelCount * kBytesPerPixel);
    levelImages.emplace_back(new KVImage8(levels[k].data(), w, h, image->PixelChannelOrder()));
  }
  // Every level's render in each Setup thread's share.
  RunParallel([&](unsigned char threadIndex, unsigned char threadCount) {
    for (size_t k = 0; k < blurs.size(); ++k) {
      blurs[k]->Render8(static_cast<KVImage8*>(image), levelImages[k].get(), threadIndex, threadCount);
    }
    return 0;
  });
}

// 0 within focusSize of the focus point (radial) or line (linear), rising by
// a smoothstep to the radius over the transition beyond it. A NaN distance
// (a NaN focus point) counts as in focus.
double DepthOfFieldRenderer::BlurRadiusAt(uint32_t x, uint32_t y) const {
  const double dx = x + 0.5 - focus.X(), dy = y + 0.5 - focus.Y();
  const double distance =
      type == kDepthOfFieldLinear ? std::fabs(dx * bandSin + dy * bandCos) : std::sqrt(dx * dx + dy * dy);
  const double beyond = distance - focusPixels;
  if (!(beyond > 0.0)) return 0.0;
  if (!(transitionPixels > 0.0) || beyond >= transitionPixels) return radius;
  const double u = beyond / transitionPixels;
  return radius * (u * u * (3.0 - 2.0 * u));
}

int DepthOfFieldRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

int DepthOfFieldRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  // Only the image Setup measured.
  if (setupWidth == 0 || source->Width() != setupWidth || source->Height() != setupHeight) return 0;
  const ShareRun share = PixelShare(setupWidth, setupHeight, threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  const unsigned char* in = PixelBytes(source);
  unsigned char* out = PixelBytes(destination);
  uint32_t x = static_cast<uint32_t>(share.start % setupWidth);
  uint32_t y = static_cast<uint32_t>(share.start / setupWidth);
  for (size_t p = share.start; p < share.start + share.count; ++p) {
    const size_t at = p * kBytesPerPixel;
    const bool inside = !levelRadius.empty() && x >= left && x < right && y >= top && y < bottom;
    const double blurRadius = inside ? BlurRadiusAt(x, y) : 0.0;
    if (blurRadius <= 0.0) {
      for (unsigned c = 0; c < kBytesPerPixel; ++c) out[at + c] = in[at + c];
    } else {
      // The levels around the radius: the source (radius 0) below the first.
      size_t upper = 0;
      while (upper + 1 < levelRadius.size() && levelRadius[upper] < blurRadius) ++upper;
      const double lowRadius = upper == 0 ? 0.0 : levelRadius[upper - 1];
      const double highRadius = levelRadius[upper];
      const unsigned char* below = upper == 0 ? in + at : levels[upper - 1].data() + at;
      const unsigned char* above = levels[upper].data() + at;
      const int weight = std::min(256, TruncateToInt((blurRadius - lowRadius) / (highRadius - lowRadius) * 256.0));
      for (unsigned c = 0; c < kBytesPerPixel; ++c) {
        const int blurred = Mix256(below[c], above[c], weight);
        out[at + c] = static_cast<unsigned char>(Mix256(in[at + c], blurred, amountWeight));
      }
    }
    if (++x == setupWidth) {
      x = 0;
      ++y;
    }
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
