#include <algorithm>

#include <kvimage/colour.h>

#include "support/AssertionSites.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

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

void TintRenderer::Setup(KVAbstractImage*) {
  for (int sum = 0; sum < 768; ++sum) m_luminance[sum] = static_cast<unsigned char>(TruncateToInt(sum / 3.0));
  for (int i = 0; i < 256; ++i) {
    m_warmBlue[i] = static_cast<unsigned char>(std::max(30, i - 33));
    m_warmGreen[i] = static_cast<unsigned char>(i > 235 ? 255 : std::max(30, i + 20));
    m_warmRed[i] = static_cast<unsigned char>(i < 203 ? i + 53 : 255);
  }

  // The render loop reads two tables per colour byte instead of converting:
  // the target of the pixel's colour sum, then the mix of that target with
  // the byte, computed here with exactly the per-pixel arithmetic.
  const unsigned char(*tone)[3] = ToneTableFor(m_type);
  for (int sum = 0; sum < 768; ++sum) {
    const unsigned char luminance = m_luminance[sum];
    int targetBlue, targetGreen, targetRed;
    if (m_type == kTintGrey) {
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
    m_blueTargetRow[sum] = static_cast<unsigned short>(targetBlue << 8);
    m_greenTargetRow[sum] = static_cast<unsigned short>(targetGreen << 8);
    m_redTargetRow[sum] = static_cast<unsigned short>(targetRed << 8);
  }
  for (int target = 0; target < 256; ++target) {
    for (int byte = 0; byte < 256; ++byte) m_mix[(target << 8) | byte] = TowardTarget(byte, target, m_keep);
  }
}

int TintRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                         unsigned char threadCount) {
  AssertBGRA8(source, kAssertTintFormat);
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// Each pixel's luminance (the mean of its colour bytes, truncated) picks a
// target colour; every colour byte moves toward its target by the amount:
// clamp(trunc((byte - target) * keep + target)), read from the tables Setup
// built.
int TintRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const unsigned short* blueTarget = m_blueTargetRow;
  const unsigned short* greenTarget = m_greenTargetRow;
  const unsigned short* redTarget = m_redTargetRow;
  const unsigned char* mix = m_mix;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const unsigned int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const unsigned int alpha = in[i + kAlphaByte];
    const unsigned int sum = blue + green + red;
    const unsigned char newBlue = mix[blueTarget[sum] | blue];
    const unsigned char newGreen = mix[greenTarget[sum] | green];
    const unsigned char newRed = mix[redTarget[sum] | red];
    out[i + kBlueByte] = newBlue;
    out[i + kGreenByte] = newGreen;
    out[i + kRedByte] = newRed;
    out[i + kAlphaByte] = static_cast<unsigned char>(alpha);
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
