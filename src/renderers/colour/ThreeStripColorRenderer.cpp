#include <kvimage/colour.h>

#include "support/Assert.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

namespace {

// Zero below the level l = trunc(level * 255) (as a byte), then a ramp of
// slope 256 / (256 - l) clamped to 255. The divisor is taken as a byte too, so
// a level of 0 divides by 0: the scale is infinite and the whole curve
// saturates at 255 (entry 0 included), a flat curve rather than the identity.
void BuildCurve(double level, int* curve) {
  const unsigned char start = static_cast<unsigned char>(TruncateToInt(level * 255.0));
  const unsigned char divisor = static_cast<unsigned char>(256 - start);
  if (divisor == 0) {
    for (int i = 0; i < 256; ++i) curve[i] = 255;
    return;
  }
  const double scale = 256.0 / divisor;
  for (int i = 0; i < 256; ++i) curve[i] = i < start ? 0 : ClampToByte(TruncateToInt((i - start) * scale));
}

// How far a channel stands above the mean of the other two, clamped to a
// byte and inverted.
inline int InvertedExcess(int channel, int otherA, int otherB) {
  return 255 - ClampToByte(channel - ((otherA + otherB) >> 1));
}

}  // namespace

ThreeStripColorRenderer::ThreeStripColorRenderer(double a, double b, double c) : m_levelA(a), m_levelB(b), m_levelC(c) {}

ThreeStripColorRenderer::~ThreeStripColorRenderer() {}

unsigned int ThreeStripColorRenderer::Type() const { return 0; }

void ThreeStripColorRenderer::Setup(KVAbstractImage*) {
  BuildCurve(m_levelA, m_curveA);
  BuildCurve(m_levelB, m_curveB);
  BuildCurve(m_levelC, m_curveC);
}

int ThreeStripColorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA,
            "ThreeStripColorRenderer", 151, "false && \"Not implemented\"");
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// Blue's excess indexes curve C, green's curve B, red's curve A; each colour
// byte is scaled by the sum of the other two channels' curve values shifted
// right by 9, so a byte never exceeds 254 (255 * 510 >> 9). The 9 is kept on
// purpose: it is that ceiling.
int ThreeStripColorRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const int blueCurve = m_curveC[InvertedExcess(blue, green, red)];
    const int greenCurve = m_curveB[InvertedExcess(green, blue, red)];
    const int redCurve = m_curveA[InvertedExcess(red, blue, green)];
    out[i + kBlueByte] = static_cast<unsigned char>((blue * (greenCurve + redCurve)) >> 9);
    out[i + kGreenByte] = static_cast<unsigned char>((green * (redCurve + blueCurve)) >> 9);
    out[i + kRedByte] = static_cast<unsigned char>((red * (blueCurve + greenCurve)) >> 9);
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
