#include <kvimage/colour.h>

#include "renderers/colour/HueStagePixels.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// Every hue becomes trunc(hue), brought into range like a shifted hue. Greys
// keep their colour: their saturation stays 0 and the conversion back writes
// nothing.
HueMapping ColorizeTo(double hue) { return HueMapping{TruncateToInt(hue), false}; }

}  // namespace

HueColorizeRenderer::HueColorizeRenderer(double hue, double amount)
    : m_hue(hue), m_keep(1.0 - amount), m_kernel(HueStage_Plain), m_mixTables(), m_mixByTables(-1) {}

void HueColorizeRenderer::Setup(KVAbstractImage*) {
  m_kernel = ChooseHueStageKernel(ColorizeTo(m_hue));
  if (m_mixByTables < 0) m_mixByTables = BuildHueMixTables(m_keep, m_mixTables) ? 1 : 0;
}

int HueColorizeRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

int HueColorizeRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderHueStageShare(source, destination, threadIndex, threadCount, m_kernel, m_keep, ColorizeTo(m_hue),
                             m_mixByTables > 0 ? m_mixTables : nullptr);
}

}  // namespace image
}  // namespace kvo
