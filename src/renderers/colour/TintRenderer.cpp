#include <algorithm>

#include <kvimage/colour.h>

#include "support/Assert.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

namespace {

// The tone table of a type, or null for grey and for the warm tone (every
// value not listed here).
const unsigned char (*ToneTableFor(KVTintType type))[3] {
  switch (static_cast<int>(type)) {
    case kTintBronze: return BronzeToneLT;
    case kTintCyanotype: return CyanotypeToneLT;
    case kTintEmerald: return EmeraldToneLT;
    case kTintGold: return GoldToneLT;
    case kTintPalladium: return PalladiumToneLT;
    case kTintPlatinum: return PlatinumToneLT;
    case kTintPlatinumPalladium: return PlatinumPalladiumToneLT;
    case kTintSelenium: return SeleniumToneLT;
    case kTintSilver: return SilverToneLT;
    default: return nullptr;
  }
}

// Rows of a tone table are red, green, blue.
enum : unsigned int { kToneRed = 0, kToneGreen = 1, kToneBlue = 2 };

// clamp(trunc((source - target) * keep + target))
inline unsigned char TowardTarget(int source, int target, double keep) {
  return static_cast<unsigned char>(ClampToByte(TruncateToInt((source - target) * keep + target)));
}

}  // namespace

TintRenderer::TintRenderer(KVTintType type, double amount) : m_type(type), m_keep(1.0 - amount) {}

TintRenderer::~TintRenderer() {}

unsigned int TintRenderer::Type() const { return 0; }

void TintRenderer::Setup(KVAbstractImage*) {
  for (int sum = 0; sum < 768; ++sum) m_luminance[sum] = static_cast<unsigned char>(TruncateToInt(sum / 3.0));
  for (int i = 0; i < 256; ++i) {
    m_warmBlue[i] = static_cast<unsigned char>(std::max(30, i - 33));
    m_warmGreen[i] = static_cast<unsigned char>(i > 235 ? 255 : std::max(30, i + 20));
    m_warmRed[i] = static_cast<unsigned char>(i < 203 ? i + 53 : 255);
  }
}

int TintRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                         unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA, "TintRenderer", 175,
            "false && \"Not implemented\"");
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// Each pixel's luminance (the mean of its colour bytes, truncated) picks a
// target colour; every colour byte moves toward its target by the amount.
int TintRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const unsigned char(*tone)[3] = ToneTableFor(m_type);
  const bool grey = m_type == kTintGrey;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const unsigned char luminance = m_luminance[blue + green + red];
    int targetBlue, targetGreen, targetRed;
    if (grey) {
      targetBlue = targetGreen = targetRed = luminance;
    } else if (tone != nullptr) {
      targetBlue = tone[luminance][kToneBlue];
      targetGreen = tone[luminance][kToneGreen];
      targetRed = tone[luminance][kToneRed];
    } else {
      targetBlue = m_warmBlue[luminance];
      targetGreen = m_warmGreen[luminance];
      targetRed = m_warmRed[luminance];
    }
    out[i + kBlueByte] = TowardTarget(blue, targetBlue, m_keep);
    out[i + kGreenByte] = TowardTarget(green, targetGreen, m_keep);
    out[i + kRedByte] = TowardTarget(red, targetRed, m_keep);
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
