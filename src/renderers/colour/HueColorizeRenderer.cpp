#include <kvimage/colour.h>

#include "renderers/colour/HueStagePixels.h"
#include "renderers/colour/WrappingInt.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

HueColorizeRenderer::HueColorizeRenderer(double hue, double amount) : m_hue(hue), m_keep(1.0 - amount) {}

HueColorizeRenderer::~HueColorizeRenderer() {}

unsigned int HueColorizeRenderer::Type() const { return 0; }

void HueColorizeRenderer::Setup(KVAbstractImage*) {}

int HueColorizeRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
}

// Every hue becomes trunc(hue), brought into range like a shifted hue. Greys
// keep their colour: their saturation stays 0 and the conversion back writes
// nothing.
int HueColorizeRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  const int hue = TruncateToInt(m_hue);
  return RenderHueStageShare(source, destination, threadIndex, threadCount, m_keep, [hue](int) {
    int colorized = hue;
    if (colorized > 359) colorized -= 360;
    if (colorized < 0) colorized = WrapAdd(colorized, 360);
    return colorized;
  }, HueMapping{hue, false});
}

}  // namespace image
}  // namespace kvo
