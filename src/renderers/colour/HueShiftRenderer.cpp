#include <kvimage/colour.h>

#include "renderers/colour/HueStagePixels.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// hue + trunc(360 - shift), brought back into 0..359 by one subtraction or
// one addition of 360.
HueMapping ShiftOf(double hueOffset) { return HueMapping{TruncateToInt(hueOffset), true}; }

}  // namespace

HueShiftRenderer::HueShiftRenderer(double shift, double amount)
    : m_hueOffset(360.0 - shift), m_keep(1.0 - amount), m_kernel(HueStage_Plain), m_mixTables(), m_mixByTables(-1) {}

void HueShiftRenderer::Setup(KVAbstractImage*) {
  m_kernel = ChooseHueStageKernel(ShiftOf(m_hueOffset));
  if (m_mixByTables < 0) m_mixByTables = BuildHueMixTables(m_keep, m_mixTables) ? 1 : 0;
}

int HueShiftRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

int HueShiftRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderHueStageShare(source, destination, threadIndex, threadCount, m_kernel, m_keep, ShiftOf(m_hueOffset),
                             m_mixByTables > 0 ? m_mixTables : nullptr);
}

}  // namespace image
}  // namespace kvo
