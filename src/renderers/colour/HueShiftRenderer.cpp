#include <kvimage/colour.h>

#include "renderers/colour/HueStagePixels.h"
#include "renderers/colour/WrappingInt.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

HueShiftRenderer::HueShiftRenderer(double shift, double amount) : m_hueOffset(360.0 - shift), m_keep(1.0 - amount) {}

HueShiftRenderer::~HueShiftRenderer() {}

unsigned int HueShiftRenderer::Type() const { return 0; }

void HueShiftRenderer::Setup(KVAbstractImage*) {}

int HueShiftRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
}

// hue + trunc(360 - shift), brought back into 0..359 by one subtraction or
// one addition of 360.
int HueShiftRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  const int offset = TruncateToInt(m_hueOffset);
  return RenderHueStageShare(source, destination, threadIndex, threadCount, m_keep, [offset](int hue) {
    int shifted = WrapAdd(offset, hue);
    if (shifted > 359) shifted -= 360;
    if (shifted < 0) shifted = WrapAdd(shifted, 360);
    return shifted;
  }, HueMapping{offset, true});
}

}  // namespace image
}  // namespace kvo
