#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include "renderers/blur/FocusBlur.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kSoftFocusSites = {kAssertSoftFocusFormat, kAssertSoftFocusSetter, kAssertSoftFocusRender};
}  // namespace

SoftFocusRenderer::SoftFocusRenderer(KVBlendMode mode_, unsigned int radius_, double amount_,
                                     const kvo::maths::KVRect& rect_, double blurParameter_, KVDownsampleFactor factor_,
                                     kvo::KVLookupTables& tables_)
    : mode(mode_),
      amount(amount_),
      rect(rect_),
      tables(tables_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {
  FillBlendOpacities(opacityOfAlpha, amount);
}

// The caller's rectangle is in the image's own pixels: the factor scales only
// the radius.
void SoftFocusRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->RunIntoCopy(blurredImage, image, rect, kSoftFocusSites);
}

int SoftFocusRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kSoftFocusSites);
}

// The blended colour is laid over the destination with the source alpha as
// coverage; the destination's alpha shows through where the source is clear.
// The un-premultiplication is single precision, one rounding at a time.
int SoftFocusRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                   unsigned char threadCount) {
  return ForEachFocusPixel(
      source, blurredImage.get(), destination, threadIndex, threadCount,
      [this](const unsigned char* in, const unsigned char* blurred, unsigned char* out) {
        const unsigned char sourceAlpha = in[kAlphaByte];
        const unsigned char destinationAlpha = out[kAlphaByte];
        const unsigned char combinedAlpha = tables.AlphaChannelBlend(destinationAlpha, sourceAlpha);
        if (combinedAlpha == 0) return;
        const int opacity = opacityOfAlpha[blurred[kAlphaByte]];
        const float inverse = tables.Invert(combinedAlpha);
        const float destinationWeight = static_cast<float>(255 - sourceAlpha) * tables.DivideBy255(destinationAlpha);
        for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
          const int blended = BlendPixel(in[c], blurred[c], mode, opacity, tables);
          // Widened: a NaN amount makes the blend's result huge.
          const float covered = static_cast<float>(static_cast<int64_t>(sourceAlpha) * blended);
          const float value = (covered + static_cast<float>(out[c]) * destinationWeight) * inverse;
          out[c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value)));
        }
        out[kAlphaByte] = combinedAlpha;
      });
}

}  // namespace image
}  // namespace kvo
