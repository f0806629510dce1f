#ifndef KVIMAGE_SRC_RENDERERS_BLUR_FOCUSBLUR_H
#define KVIMAGE_SRC_RENDERERS_BLUR_FOCUSBLUR_H

// What the focus stages (defocus, diffuse, sharpen, soft focus) share: the
// nested blur that their Setup runs, the blurred copy it writes into, and the
// checks around their per-pixel passes.
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

#include <cstddef>
#include <tr1/memory>

#include "pipeline/FrontEndState.h"
#include "support/AssertionSites.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// Where a focus stage's assertions report from: an image it cannot handle,
// and its nested blur failing to queue or to render.
struct FocusAssertionSites {
  AssertionSite format;
  AssertionSite setter;
  AssertionSite render;
};

// The rectangle of a whole-image focus blur: (0, 0, width, height), four
// times larger for kDownsampleQuarter and unscaled for every other factor.
kvo::maths::KVRect WholeImageBlurRect(const KVAbstractImage* image, KVDownsampleFactor factor);

// The nested blur of a focus stage: a processor's state queueing one
// bounded stack blur of the colour bytes in both directions (alpha copied),
// its radius scaled by the downsample factor as the processor's setter
// scales it. The queue and the blur's scratch are kept between Setups and
// requeued only when the rectangle changes, and a blurred copy of the same
// size and order is reused, so a stream of same-sized frames allocates
// nothing here after the first.
class NestedColourBlur {
 public:
  NestedColourBlur(kvo::KVLookupTables& tables, KVDownsampleFactor factor, unsigned int radius, double blurParameter);

  // Blurs image into destination (which may be image itself). Aborts with
  // the site's assertions when the nested setter or render fails.
  void Run(KVAbstractImage* image, KVAbstractImage* destination, const kvo::maths::KVRect& rect,
           const FocusAssertionSites& sites);

  // A focus stage's Setup when it blurs into a copy of its own: copy becomes
  // (or stays) an image like image and receives image's blurred bytes.
  void RunIntoCopy(std::tr1::shared_ptr<KVAbstractImage>& copy, KVAbstractImage* image,
                   const kvo::maths::KVRect& rect, const FocusAssertionSites& sites);

 private:
  FrontEndState m_processor;
  unsigned int m_radius;
  double m_blurParameter;
  bool m_queued;
  kvo::maths::KVRect m_queuedRect;
};

// The bytes a pass over source, destination and a blurred copy may touch: the
// smallest of their buffers (0 before any blurred copy exists).
size_t FocusByteLimit(const KVAbstractImage* source, const KVAbstractImage* destination,
                      const KVAbstractImage* blurred);

// trunc(alpha x amount) for every alpha: the blend opacity of a blurred alpha,
// and the same truncated to bytes for the widest kernels.
void FillBlendOpacities(int (&opacityOfAlpha)[256], unsigned char (&opacityBytes)[256], double amount);

// Whether every opacity is a byte (an amount within 0 .. 1), as the widest
// kernels, which look them up as bytes, need.
bool OpacitiesAreBytes(const int (&opacityOfAlpha)[256]);

// A focus stage's Render: only 8-bit BGRA images reach its pixel pass.
template <class Stage>
int RenderFocusStage(Stage& stage, KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                     unsigned char threadCount, const FocusAssertionSites& sites) {
  AssertBGRA8(source, sites.format);
  return stage.Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex,
                           threadCount);
}

// The same whole pixels of the source, the blurred copy and the destination.
struct FocusRun {
  const unsigned char* in;
  const unsigned char* blurred;
  unsigned char* out;
  size_t pixels;

  // The pixels from `first` on.
  FocusRun From(size_t first) const {
    const size_t at = first * kBytesPerPixel;
    return FocusRun{in + at, blurred + at, out + at, pixels - first};
  }
};

// Thread threadIndex's byte share of source, the blurred copy and destination
// (cut at FocusByteLimit, so nothing before a Setup) as one run, handed to
// walk(run) unless it holds no whole pixel. Returns 0 (the pass's result).
template <class Walk>
int ForEachFocusRun(const KVImage8* source, KVAbstractImage* blurredImage, KVImage8* destination,
                    unsigned char threadIndex, unsigned char threadCount, Walk walk) {
  if (threadCount == 0) return 0;
  const ShareRun share = ByteShare(destination->Width(), destination->Height(), threadIndex, threadCount,
                                   FocusByteLimit(source, destination, blurredImage));
  // Without a blurred copy the share is empty and the copy is never read.
  if (share.count < kBytesPerPixel) return 0;
  walk(FocusRun{source->Buffer() + share.start, PixelBytes(blurredImage) + share.start,
                destination->Buffer() + share.start, share.count / kBytesPerPixel});
  return 0;
}

// ForEachFocusRun calling pixel(in, blurred, out) for every pixel of the run.
template <class PerPixel>
int ForEachFocusPixel(const KVImage8* source, KVAbstractImage* blurredImage, KVImage8* destination,
                      unsigned char threadIndex, unsigned char threadCount, PerPixel pixel) {
  return ForEachFocusRun(source, blurredImage, destination, threadIndex, threadCount, [&](const FocusRun& run) {
    for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
      pixel(run.in + i, run.blurred + i, run.out + i);
    }
  });
}

}  // namespace image
}  // namespace kvo

#endif
