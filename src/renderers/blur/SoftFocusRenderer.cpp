#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include "renderers/blur/FocusBlur.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kSoftFocusSites = {kAssertSoftFocusFormat, kAssertSoftFocusSetter, kAssertSoftFocusRender};
}  // namespace

SoftFocusRenderer::SoftFocusRenderer(KVBlendMode mode_, unsigned int radius_, double amount_,
                                     const kvo::maths::KVRect& rect_, double blurParameter_,
                                     KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : mode(mode_),
      radius(radius_),
      amount(amount_),
      rect(rect_),
      blurParameter(blurParameter_),
      factor(factor_),
      tables(tables_) {
  FillBlendOpacities(opacityOfAlpha, amount);
}

SoftFocusRenderer::~SoftFocusRenderer() {}

unsigned int SoftFocusRenderer::Type() const { return 1; }

// The caller's rectangle is in the image's own pixels: the factor scales only
// the radius.
void SoftFocusRenderer::Setup(KVAbstractImage* image) {
  blurredImage = ZeroFilledImageLike(image);
  BlurColourBytes(image, blurredImage.get(), tables, factor, radius, rect, blurParameter, kSoftFocusSites);
}

int SoftFocusRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  AssertBGRA8(source, kSoftFocusSites.format);
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// The blended colour is laid over the destination with the source alpha as
// coverage; the destination's alpha shows through where the source is clear.
// The un-premultiplication is single precision, one rounding at a time.
int SoftFocusRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                   unsigned char threadCount) {
  if (threadCount == 0) return 0;
  const ShareRun share = ByteShare(destination->Width(), destination->Height(), threadIndex, threadCount,
                                   FocusByteLimit(source, destination, blurredImage.get()));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  const unsigned char* blurred = PixelBytes(blurredImage.get()) + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const unsigned char sourceAlpha = in[i + kAlphaByte];
    const unsigned char destinationAlpha = out[i + kAlphaByte];
    const unsigned char combinedAlpha = tables.AlphaChannelBlend(destinationAlpha, sourceAlpha);
    if (combinedAlpha == 0) continue;
    const int opacity = opacityOfAlpha[blurred[i + kAlphaByte]];
    const float inverse = tables.Invert(combinedAlpha);
    const float destinationWeight = static_cast<float>(255 - sourceAlpha) * tables.DivideBy255(destinationAlpha);
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      const int blended = BlendPixel(in[i + c], blurred[i + c], mode, opacity, tables);
      // Widened: a NaN amount makes the blend's result huge.
      const float covered = static_cast<float>(static_cast<int64_t>(sourceAlpha) * blended);
      const float value = (covered + static_cast<float>(out[i + c]) * destinationWeight) * inverse;
      out[i + c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value)));
    }
    out[i + kAlphaByte] = combinedAlpha;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
