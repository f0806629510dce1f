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

}  // namespace

ThreeStripColorRenderer::ThreeStripColorRenderer(double a, double b, double c) : m_levelA(a), m_levelB(b), m_levelC(c) {}

ThreeStripColorRenderer::~ThreeStripColorRenderer() {}

unsigned int ThreeStripColorRenderer::Type() const { return 0; }

void ThreeStripColorRenderer::Setup(KVAbstractImage*) {
  BuildCurve(m_levelA, m_curveA);
  BuildCurve(m_levelB, m_curveB);
  BuildCurve(m_levelC, m_curveC);
  // Blue's excess indexes curve C, green's curve B, red's curve A; the
  // render loop looks each one up by the unclamped excess.
  for (int excess = -255; excess <= 255; ++excess) {
    const int inverted = 255 - ClampToByte(excess);
    m_blueWeight[excess + 255] = m_curveC[inverted];
    m_greenWeight[excess + 255] = m_curveB[inverted];
    m_redWeight[excess + 255] = m_curveA[inverted];
  }
}

int ThreeStripColorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA,
            "ThreeStripColorRenderer", 151, "false && \"Not implemented\"");
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// Each colour byte is scaled by the sum of the other two channels' curve
// values, looked up by how far each channel stands above the mean of its two
// neighbours, and shifted right by 9, so a byte never exceeds 254
// (255 * 510 >> 9). The 9 is kept on purpose: it is that ceiling.
int ThreeStripColorRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const int* blueWeight = m_blueWeight + 255;
  const int* greenWeight = m_greenWeight + 255;
  const int* redWeight = m_redWeight + 255;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const unsigned char alpha = in[i + kAlphaByte];
    const int blueCurve = blueWeight[blue - ((green + red) >> 1)];
    const int greenCurve = greenWeight[green - ((blue + red) >> 1)];
    const int redCurve = redWeight[red - ((blue + green) >> 1)];
    out[i + kBlueByte] = static_cast<unsigned char>((blue * (greenCurve + redCurve)) >> 9);
    out[i + kGreenByte] = static_cast<unsigned char>((green * (redCurve + blueCurve)) >> 9);
    out[i + kRedByte] = static_cast<unsigned char>((red * (blueCurve + greenCurve)) >> 9);
    out[i + kAlphaByte] = alpha;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
