#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path: its alpha as opaque grey.
StageNeeds NeedsOf(const MatteViewRenderer&) { return StageNeeds{nullptr, true}; }

MatteViewRenderer::MatteViewRenderer() {}

int MatteViewRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

// Every colour byte takes the source alpha and the output alpha is opaque, in
// either channel order.
int MatteViewRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  const bool alphaFirst = source->PixelChannelOrder() == kPixelOrderARGB;
  ForEachPixelOfByteShare(source, destination, threadIndex, threadCount,
                          [alphaFirst](const unsigned char* in, unsigned char* out) {
                            if (alphaFirst) {
                              const unsigned char alpha = in[kAlphaByteARGB];
                              out[0] = 255;
                              out[1] = alpha;
                              out[2] = alpha;
                              out[3] = alpha;
                            } else {
                              const unsigned char alpha = in[kAlphaByte];
                              out[kBlueByte] = alpha;
                              out[kGreenByte] = alpha;
                              out[kRedByte] = alpha;
                              out[kAlphaByte] = 255;
                            }
                          });
  return 0;
}

}  // namespace image
}  // namespace kvo
