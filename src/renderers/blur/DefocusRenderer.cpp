#include <kvimage/blur.h>

#include "renderers/blur/FocusBlur.h"
#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {
const FocusAssertionSites kDefocusSites = {kAssertDefocusFormat, kAssertDefocusSetter, kAssertDefocusRender};
const double kLargestAmount = 0.8;
}  // namespace

DefocusRenderer::DefocusRenderer(unsigned int radius_, double amount_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : amount(amount_),
      factor(factor_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {
  for (int i = 0; i < 256; ++i) gainCurve[i] = static_cast<unsigned char>(i);
  tablesKernel = ByteTables_Plain;
}

// The blur works in place on the stage's input, which Render then reads.
void DefocusRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->Run(image, image, WholeImageBlurRect(image, factor), kDefocusSites);

  // A NaN or an amount above the largest gives the largest.
  double a = amount <= kLargestAmount ? amount : kLargestAmount;
  if (a < 0.0) a = 0.0;
  for (int i = 0; i < 256; ++i) {
    gainCurve[i] = static_cast<unsigned char>(ClampToByte(TruncateToInt((i / 255.0) / (1.0 - a) * 255.0)));
  }
  tablesKernel = ChooseByteTablesKernel();
}

int DefocusRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kDefocusSites);
}

int DefocusRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  if (threadCount == 0) return 0;
  // The blur ran in place, so the source is the blurred copy.
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  const size_t pixels = share.count / kBytesPerPixel;
  if (pixels == 0) return 0;
  const PixelRun run = {source->Buffer() + share.start, destination->Buffer() + share.start, pixels};
  RunKernel(tablesKernel, ByteTables_Plain, run, ByteTables{{gainCurve, gainCurve, gainCurve, nullptr}});
  return 0;
}

}  // namespace image
}  // namespace kvo
