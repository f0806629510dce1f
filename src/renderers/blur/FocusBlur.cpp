#include "renderers/blur/FocusBlur.h"

#include <kvimage/image.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// A new KVImage8 of the image's size and channel order, zero-filled.
std::tr1::shared_ptr<KVAbstractImage> ZeroFilledImageLike(const KVAbstractImage* image) {
  KVImage8* copy = new KVImage8(image->Width(), image->Height(), image->PixelChannelOrder(), false);
  std::tr1::shared_ptr<KVAbstractImage> held(copy);
  if (copy->BufferByteSize() != 0) std::memset(copy->Buffer(), 0, copy->BufferByteSize());
  return held;
}

}  // namespace

kvo::maths::KVRect WholeImageBlurRect(const KVAbstractImage* image, KVDownsampleFactor factor) {
  kvo::maths::KVRect rect(kvo::maths::KVPoint2(0, 0), static_cast<int>(image->Width()),
                          static_cast<int>(image->Height()));
  // Only the quarter factor scales the rectangle; half and third leave it as
  // it is. Either way it covers the image, whose bounds clip it.
  rect.Scale(factor == kDownsampleQuarter ? 4.0 : 1.0);
  return rect;
}

void BlurColourBytes(KVAbstractImage* image, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                     KVDownsampleFactor factor, unsigned int radius, const kvo::maths::KVRect& rect,
                     double blurParameter, const FocusAssertionSites& sites) {
  KVImageProcessor nested(image, destination, tables, factor);
  const int queued = nested.SetBoundedStackBlur(radius, true, true, kChannelsColor, rect, blurParameter);
  AssertAt(queued == 0, sites.setter);
  const int rendered = nested.Render();
  // Every radius is served, so the nested render fails only when memory runs
  // out (code 8): that is the stage's own allocation failure and leaves it as
  // one, for the pipeline to report. Any other failure is a broken invariant.
  if (rendered == kResultOutOfMemory) throw std::bad_alloc();
  AssertAt(rendered == 0, sites.render);
}

void BlurIntoCopy(std::tr1::shared_ptr<KVAbstractImage>& copy, KVAbstractImage* image, kvo::KVLookupTables& tables,
                  KVDownsampleFactor factor, unsigned int radius, const kvo::maths::KVRect& rect, double blurParameter,
                  const FocusAssertionSites& sites) {
  copy = ZeroFilledImageLike(image);
  BlurColourBytes(image, copy.get(), tables, factor, radius, rect, blurParameter, sites);
}

size_t FocusByteLimit(const KVAbstractImage* source, const KVAbstractImage* destination,
                      const KVAbstractImage* blurred) {
  if (blurred == nullptr) return 0;
  return std::min(CommonByteSize(source, destination), static_cast<size_t>(blurred->BufferByteSize()));
}

void FillBlendOpacities(int (&opacityOfAlpha)[256], double amount) {
  for (int alpha = 0; alpha < 256; ++alpha) opacityOfAlpha[alpha] = TruncateToInt(alpha * amount);
}

}  // namespace image
}  // namespace kvo
