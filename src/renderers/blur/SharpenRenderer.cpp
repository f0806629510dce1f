#include <kvimage/blur.h>

#include <cstdlib>

#include "renderers/blur/FocusBlur.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kSharpenSites = {kAssertSharpenFormat, kAssertSharpenSetter, kAssertSharpenRender};
}  // namespace

SharpenRenderer::SharpenRenderer(unsigned int radius_, double amount_, double threshold_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : amount(amount_),
      threshold(threshold_),
      factor(factor_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {}

void SharpenRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->RunIntoCopy(blurredImage, image, WholeImageBlurRect(image, factor), kSharpenSites);

  // The table depends on the settings only: built at the first Setup.
  if (!sharpenTable.empty()) return;
  const int t = TruncateToInt(threshold * 255.0) & 255;
  sharpenTable.resize(256 * 256);
  for (int sharp = 0; sharp < 256; ++sharp) {
    for (int blurred = 0; blurred < 256; ++blurred) {
      int difference = sharp - blurred;
      // The difference is doubled before it meets the threshold.
      if (std::abs(2 * (sharp - blurred)) < t) difference = 0;
      const int value = TruncateToInt(difference * amount + sharp);
      sharpenTable[sharp * 256 + blurred] = static_cast<unsigned char>(ClampToByte(value));
    }
  }
}

int SharpenRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kSharpenSites);
}

int SharpenRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  if (sharpenTable.size() != 256 * 256) return 0;
  const unsigned char* table = sharpenTable.data();
  return ForEachFocusPixel(source, blurredImage.get(), destination, threadIndex, threadCount,
                           [table](const unsigned char* in, const unsigned char* blurred, unsigned char* out) {
                             for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
                               out[c] = table[in[c] * 256 + blurred[c]];
                             }
                             out[kAlphaByte] = in[kAlphaByte];
                           });
}

}  // namespace image
}  // namespace kvo
