#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include "renderers/blur/FocusBlur.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kDiffuseSites = {kAssertDiffuseFormat, kAssertDiffuseSetter, kAssertDiffuseRender};
}  // namespace

DiffuseRenderer::DiffuseRenderer(unsigned int radius_, double amount_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : radius(radius_), amount(amount_), blurParameter(blurParameter_), factor(factor_), tables(tables_) {
  FillBlendOpacities(opacityOfAlpha, amount);
}

DiffuseRenderer::~DiffuseRenderer() {}

unsigned int DiffuseRenderer::Type() const { return 1; }

void DiffuseRenderer::Setup(KVAbstractImage* image) {
  blurredImage = ZeroFilledImageLike(image);
  BlurColourBytes(image, blurredImage.get(), tables, factor, radius, WholeImageBlurRect(image, factor),
                  blurParameter, kDiffuseSites);
}

int DiffuseRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  AssertBGRA8(source, kDiffuseSites.format);
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// The blurred copy lies over the sharp image with normal blending, weighted by
// its own alpha times the amount: a glow.
int DiffuseRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  if (threadCount == 0) return 0;
  const ShareRun share = ByteShare(destination->Width(), destination->Height(), threadIndex, threadCount,
                                   FocusByteLimit(source, destination, blurredImage.get()));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  const unsigned char* blurred = PixelBytes(blurredImage.get()) + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int opacity = opacityOfAlpha[blurred[i + kAlphaByte]];
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      out[i + c] = static_cast<unsigned char>(BlendPixel(in[i + c], blurred[i + c], kBlendNormal, opacity, tables));
    }
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
