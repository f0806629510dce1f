#include <kvimage/colour.h>

#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

MirrorRenderer::MirrorRenderer(bool first, bool second) : m_first(first), m_second(second) {}

int MirrorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                           unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

// The mirror stage carries its two flags but writes nothing: the destination
// keeps what it held.
int MirrorRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  (void)share;
  return 0;
}

}  // namespace image
}  // namespace kvo
