#include <kvimage/colour.h>
#include <kvimage/compositing.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/Rec601Luma.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path, from tables built from the arguments only.
StageNeeds NeedsOf(const BleachBypassRenderer&) { return StageNeeds{nullptr, true}; }

namespace {

// The weight of 256 (0 .. 256) of a strength in 0 .. 1: trunc(strength * 256),
// NaN and anything below 0 as 0.
int WeightOf256(double strength) { return TruncateToInt(UnitStrength(strength) * 256.0); }

// (a * (256 - w) + b * w) / 256, rounded to nearest.
inline int Mix256(int a, int b, int weight) { return (a * (256 - weight) + b * weight + 128) >> 8; }

}  // namespace

BleachBypassRenderer::BleachBypassRenderer(double amount, double desaturation, double contrast,
                                           kvo::KVLookupTables& tables)
    : m_amount(amount), m_desaturation(desaturation), m_contrast(contrast), m_tables(tables),
      m_desaturationWeight(0) {
  // The overlay depends only on (luminance, byte) and the opacity: tabulated
  // once, through BlendPixel itself.
  const int opacity = WeightOf256(m_amount);
  for (int luma = 0; luma < 256; ++luma) {
    for (int value = 0; value < 256; ++value) {
      m_overlay[luma * 256 + value] =
          static_cast<unsigned char>(ClampToByte(BlendPixel(value, luma, kBlendOverlay, opacity, m_tables)));
    }
  }
  m_desaturationWeight = WeightOf256(m_desaturation);
  // S-curve about the middle grey: v + contrast * (255 * smoothstep(v / 255) - v).
  const double strength = UnitStrength(m_contrast);
  for (int value = 0; value < 256; ++value) {
    const double x = value / 255.0;
    const double s = 255.0 * (x * x * (3.0 - 2.0 * x));
    m_curve[value] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value + strength * (s - value) + 0.5)));
  }
}

int BleachBypassRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

int BleachBypassRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share = PixelShare(source->Width(), source->Height(), threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  const ChannelBytes at = ChannelBytesOf(source);
  const unsigned char* in = PixelBytes(source) + share.start * kBytesPerPixel;
  unsigned char* out = PixelBytes(destination) + share.start * kBytesPerPixel;
  const int desaturation = m_desaturationWeight;
  for (size_t i = 0; i < share.count * kBytesPerPixel; i += kBytesPerPixel) {
    const int luma = Rec601Luma(in[i + at.red], in[i + at.green], in[i + at.blue]);
    const unsigned char* overlay = m_overlay + luma * 256;
    const int red = overlay[in[i + at.red]], green = overlay[in[i + at.green]], blue = overlay[in[i + at.blue]];
    const int washed = Rec601Luma(red, green, blue);
    const unsigned char alpha = in[i + at.alpha];
    out[i + at.red] = m_curve[Mix256(red, washed, desaturation)];
    out[i + at.green] = m_curve[Mix256(green, washed, desaturation)];
    out[i + at.blue] = m_curve[Mix256(blue, washed, desaturation)];
    out[i + at.alpha] = alpha;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
