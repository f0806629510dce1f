#ifndef KVIMAGE_SRC_RENDERERS_BLUR_FOCUSBLUR_H
#define KVIMAGE_SRC_RENDERERS_BLUR_FOCUSBLUR_H

// What the focus stages (defocus, diffuse, sharpen, soft focus) share: the
// nested blur that their Setup runs, the blurred copy it writes into, and the
// checks around their per-pixel passes.
#include <cstddef>
#include <tr1/memory>

#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

#include "support/AssertionSites.h"

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

// A new KVImage8 of the image's size and channel order, zero-filled.
std::tr1::shared_ptr<KVAbstractImage> ZeroFilledImageLike(const KVAbstractImage* image);

// Blurs the colour bytes of image into destination (which may be image
// itself) with a nested processor running one bounded stack blur in both
// directions; alpha is copied. Aborts with the site's assertions when the
// nested setter or render fails.
void BlurColourBytes(KVAbstractImage* image, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                     KVDownsampleFactor factor, unsigned int radius, const kvo::maths::KVRect& rect,
                     double blurParameter, const FocusAssertionSites& sites);


// The bytes a pass over source, destination and a blurred copy may touch: the
// smallest of their buffers (0 before any blurred copy exists).
size_t FocusByteLimit(const KVAbstractImage* source, const KVAbstractImage* destination,
                      const KVAbstractImage* blurred);

// trunc(alpha x amount) for every alpha: the blend opacity of a blurred alpha.
void FillBlendOpacities(int (&opacityOfAlpha)[256], double amount);

}  // namespace image
}  // namespace kvo

#endif
