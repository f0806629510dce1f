#include <kvimage/colour.h>

#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

MirrorRenderer::MirrorRenderer(bool first, bool second) : m_first(first), m_second(second) {}

MirrorRenderer::~MirrorRenderer() {}

unsigned int MirrorRenderer::Type() const { return 0; }

void MirrorRenderer::Setup(KVAbstractImage*) {}

int MirrorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                           unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
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
