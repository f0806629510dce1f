#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "support/AssertionSites.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path: one colour and the pixel's own alpha.
StageNeeds NeedsOf(const SilhouetteRenderer&) { return StageNeeds{nullptr, true}; }

SilhouetteRenderer::SilhouetteRenderer(KVPixel8_RGB colour)
    : m_red(colour.red), m_green(colour.green), m_blue(colour.blue) {}

int SilhouetteRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  AssertBGRA8(source, kAssertSilhouetteFormat);
  return Render8_CPP(source, destination, threadIndex, threadCount);
}

int SilhouetteRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  ForEachPixelOfByteShare(source, destination, threadIndex, threadCount,
                          [this](const unsigned char* in, unsigned char* out) {
                            out[kBlueByte] = m_blue;
                            out[kGreenByte] = m_green;
                            out[kRedByte] = m_red;
                            out[kAlphaByte] = in[kAlphaByte];
                          });
  return 0;
}

}  // namespace image
}  // namespace kvo
