#include <kvimage/colour.h>

#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

namespace {

// One pixel's byte pattern: value in the selected channels, 0 elsewhere (an
// unknown selection selects nothing).
uint32_t ChannelPattern(KVChannelsToProcess channels, uint32_t value) {
  switch (static_cast<unsigned int>(channels)) {
    case kChannelsColor:
      return value * 0x00010101u;
    case kChannelsAlpha:
      return value << 24;
    case kChannelsAll:
      return value * 0x01010101u;
    default:
      return 0;
  }
}

}  // namespace

BrightnessRenderer::BrightnessRenderer(double brightness, KVChannelsToProcess channels,
                                       const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions), m_brightness(brightness), m_channels(channels), m_table() {}

BrightnessRenderer::~BrightnessRenderer() {}

unsigned int BrightnessRenderer::Type() const { return 0; }

void BrightnessRenderer::Setup(KVAbstractImage*) {
  const int offset = TruncateToInt(255.0 * m_brightness);
  // A NaN brightness gives the most negative offset; i + offset cannot
  // overflow for i >= 0.
  for (int i = 0; i < 256; ++i) m_table[i] = static_cast<unsigned char>(ClampToByte(i + offset));
}

int BrightnessRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  RequireBlueGreenRedAlpha(source, "BrightnessRenderer", 305);
  return m_extensions.sse2 ? Render8_SSE2(source, destination, threadIndex, threadCount)
                           : Render8_CPP(source, destination, threadIndex, threadCount);
}

int BrightnessRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  PixelRun run;
  if (PlainPathShare(source, destination, threadIndex, threadCount, run)) ApplyChannelTable(run, m_table, m_channels);
  return 0;
}

// Saturating byte addition of |offset| (or subtraction for offset < 1): the
// table's clamp(i + offset) exactly. Shares that are not a multiple of 16
// pixels take the plain path whole.
int BrightnessRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination,
                                     unsigned char threadIndex, unsigned char threadCount) {
  PixelRun run;
  if (!VectorPathShare(source, destination, threadIndex, threadCount, run)) return 0;
  if (run.pixels % 16 != 0) return Render8_CPP(source, destination, threadIndex, threadCount);

  const int offset = TruncateToInt(255.0 * m_brightness);
  // The magnitude as the processor's negation gives it, low byte kept (a NaN
  // brightness thus adds nothing).
  const uint32_t magnitude = (offset < 0 ? 0u - static_cast<uint32_t>(offset) : static_cast<uint32_t>(offset)) & 0xFFu;
  const __m128i mask = _mm_set1_epi32(static_cast<int>(ChannelPattern(m_channels, magnitude)));
  if (offset < 1) {
    TransformBlocks(run, [mask](__m128i block) { return _mm_subs_epu8(block, mask); });
  } else {
    TransformBlocks(run, [mask](__m128i block) { return _mm_adds_epu8(block, mask); });
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
