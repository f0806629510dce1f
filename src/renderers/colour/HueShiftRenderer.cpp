#include <kvimage/colour.h>

#include "renderers/colour/HueStagePixels.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

namespace {

// hue + trunc(360 - shift), brought back into 0..359 by one subtraction or
// one addition of 360.
HueMapping ShiftOf(double hueOffset) { return HueMapping{TruncateToInt(hueOffset), true}; }

}  // namespace

HueShiftRenderer::HueShiftRenderer(double shift, double amount)
    : m_hueOffset(360.0 - shift), m_keep(1.0 - amount), m_kernel(HueStage_Plain) {}

HueShiftRenderer::~HueShiftRenderer() {}

unsigned int HueShiftRenderer::Type() const { return 0; }

void HueShiftRenderer::Setup(KVAbstractImage*) { m_kernel = ChooseHueStageKernel(ShiftOf(m_hueOffset)); }

int HueShiftRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
}

int HueShiftRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderHueStageShare(source, destination, threadIndex, threadCount, m_kernel, m_keep, ShiftOf(m_hueOffset));
}

}  // namespace image
}  // namespace kvo
