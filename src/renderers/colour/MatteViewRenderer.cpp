#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path: its alpha as opaque grey.
StageNeeds NeedsOf(const MatteViewRenderer&) { return StageNeeds{nullptr, true}; }

MatteViewRenderer::MatteViewRenderer() {}

MatteViewRenderer::~MatteViewRenderer() {}

unsigned int MatteViewRenderer::Type() const { return 0; }

void MatteViewRenderer::Setup(KVAbstractImage*) {}

int MatteViewRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
}

// Every colour byte takes the source alpha and the output alpha is opaque, in
// either channel order.
int MatteViewRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  const bool alphaFirst = source->PixelChannelOrder() == kPixelOrderARGB;
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    if (alphaFirst) {
      const unsigned char alpha = in[i + kAlphaByteARGB];
      out[i + 0] = 255;
      out[i + 1] = alpha;
      out[i + 2] = alpha;
      out[i + 3] = alpha;
    } else {
      const unsigned char alpha = in[i + kAlphaByte];
      out[i + kBlueByte] = alpha;
      out[i + kGreenByte] = alpha;
      out[i + kRedByte] = alpha;
      out[i + kAlphaByte] = 255;
    }
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
