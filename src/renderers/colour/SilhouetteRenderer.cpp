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

SilhouetteRenderer::~SilhouetteRenderer() {}

unsigned int SilhouetteRenderer::Type() const { return 0; }

void SilhouetteRenderer::Setup(KVAbstractImage*) {}

int SilhouetteRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  AssertBGRA8(source, kAssertSilhouetteFormat);
  return Render8_CPP(source, destination, threadIndex, threadCount);
}

int SilhouetteRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    out[i + kBlueByte] = m_blue;
    out[i + kGreenByte] = m_green;
    out[i + kRedByte] = m_red;
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
