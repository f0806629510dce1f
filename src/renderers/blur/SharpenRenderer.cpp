#include <cstdlib>

#include <kvimage/blur.h>

#include "renderers/blur/FocusBlur.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kSharpenSites = {kAssertSharpenFormat, kAssertSharpenSetter, kAssertSharpenRender};
}  // namespace

SharpenRenderer::SharpenRenderer(unsigned int radius_, double amount_, double threshold_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : radius(radius_),
      amount(amount_),
      threshold(threshold_),
      blurParameter(blurParameter_),
      factor(factor_),
      tables(tables_) {}

SharpenRenderer::~SharpenRenderer() {}

unsigned int SharpenRenderer::Type() const { return 1; }

void SharpenRenderer::Setup(KVAbstractImage* image) {
  blurredImage = ZeroFilledImageLike(image);
  BlurColourBytes(image, blurredImage.get(), tables, factor, radius, WholeImageBlurRect(image, factor),
                  blurParameter, kSharpenSites);

  const int t = TruncateToInt(threshold * 255.0) & 255;
  sharpenTable.resize(256 * 256);
  for (int sharp = 0; sharp < 256; ++sharp) {
    for (int blurred = 0; blurred < 256; ++blurred) {
      int difference = sharp - blurred;
      // The difference is doubled before it meets the threshold.
      if (std::abs(2 * (sharp - blurred)) < t) difference = 0;
      const int value = TruncateToInt(difference * amount + sharp);
      sharpenTable[sharp * 256 + blurred] = static_cast<uint32_t>(ClampToByte(value));
    }
  }
}

int SharpenRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  AssertBGRA8(source, kSharpenSites.format);
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

int SharpenRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  if (threadCount == 0 || sharpenTable.size() != 256 * 256) return 0;
  const ShareRun share = ByteShare(destination->Width(), destination->Height(), threadIndex, threadCount,
                                   FocusByteLimit(source, destination, blurredImage.get()));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  const unsigned char* blurred = PixelBytes(blurredImage.get()) + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const uint32_t* table = sharpenTable.data();
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    out[i + kBlueByte] = static_cast<unsigned char>(table[in[i + kBlueByte] * 256 + blurred[i + kBlueByte]]);
    out[i + kGreenByte] = static_cast<unsigned char>(table[in[i + kGreenByte] * 256 + blurred[i + kGreenByte]]);
    out[i + kRedByte] = static_cast<unsigned char>(table[in[i + kRedByte] * 256 + blurred[i + kRedByte]]);
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
