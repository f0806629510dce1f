#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include "renderers/blur/FocusBlur.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kDiffuseSites = {kAssertDiffuseFormat, kAssertDiffuseSetter, kAssertDiffuseRender};
}  // namespace

DiffuseRenderer::DiffuseRenderer(unsigned int radius_, double amount_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : amount(amount_),
      factor(factor_),
      tables(tables_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {
  FillBlendOpacities(opacityOfAlpha, amount);
}

void DiffuseRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->RunIntoCopy(blurredImage, image, WholeImageBlurRect(image, factor), kDiffuseSites);
}

int DiffuseRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kDiffuseSites);
}

// The blurred copy lies over the sharp image with normal blending, weighted by
// its own alpha times the amount: a glow.
int DiffuseRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return ForEachFocusPixel(
      source, blurredImage.get(), destination, threadIndex, threadCount,
      [this](const unsigned char* in, const unsigned char* blurred, unsigned char* out) {
        const int opacity = opacityOfAlpha[blurred[kAlphaByte]];
        for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
          out[c] = static_cast<unsigned char>(BlendPixel(in[c], blurred[c], kBlendNormal, opacity, tables));
        }
        out[kAlphaByte] = in[kAlphaByte];
      });
}

}  // namespace image
}  // namespace kvo
