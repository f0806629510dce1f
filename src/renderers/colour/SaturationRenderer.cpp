#include <algorithm>
#include <limits>

#include <kvimage/colour.h>

#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

SaturationRenderer::SaturationRenderer(double saturation, float* table) : m_saturation(saturation), m_table(table) {}

SaturationRenderer::~SaturationRenderer() {}

unsigned int SaturationRenderer::Type() const { return 0; }

// The entries for 0 are infinite and never read.
void SaturationRenderer::Setup(KVAbstractImage*) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (int k = -255; k <= 255; ++k) m_reciprocalOfDifference[k + 255] = k == 0 ? infinity : 1.0 / k;
  for (int v = 0; v <= 255; ++v) m_reciprocalOfValue[v] = v == 0 ? infinity : 1.0 / v;
}

int SaturationRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return 0;
  return Render8(source, destination, threadIndex, threadCount);
}

// Hue-saturation-value in double precision, one rounding at a time. Bytes 0,
// 1, 2 play blue, green, red in any channel order; byte 3 is copied. A colour
// that loses all saturation becomes its maximum, not its luminance.
int SaturationRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int c0 = in[i + kBlueByte], c1 = in[i + kGreenByte], c2 = in[i + kRedByte];
    const int value = std::max(c0, std::max(c1, c2));
    const int min = std::min(c0, std::min(c1, c2));
    const double saturation = value == 0 ? 0.0 : (value - min) * m_reciprocalOfValue[value];
    double hue = 0.0;
    if (saturation != 0.0) {
      const double reciprocal = m_reciprocalOfDifference[value - min + 255];
      if (value == c2) {
        hue = (c1 - c0) * reciprocal;
      } else if (value == c1) {
        hue = (c0 - c2) * reciprocal + 2.0;
      } else {
        hue = (c2 - c1) * reciprocal + 4.0;
      }
      hue = hue * 60.0;
      if (hue < 0.0) hue += 360.0;
    }
    double scaled = saturation * m_saturation;
    if (scaled > 1.0) scaled = 1.0;

    unsigned char r0 = in[i + kBlueByte], r1 = in[i + kGreenByte], r2 = in[i + kRedByte];
    if (scaled == 0.0) {
      r0 = r1 = r2 = static_cast<unsigned char>(value);
    } else {
      if (hue == 360.0) hue = 0.0;
      const double sector = hue / 60.0;
      const int index = TruncateToInt(sector);
      const double fraction = sector - index;
      const unsigned char p = static_cast<unsigned char>(TruncateToInt((1.0 - scaled) * value));
      const unsigned char q = static_cast<unsigned char>(TruncateToInt((1.0 - scaled * fraction) * value));
      const unsigned char t = static_cast<unsigned char>(TruncateToInt((1.0 - scaled * (1.0 - fraction)) * value));
      const unsigned char v = static_cast<unsigned char>(value);
      switch (index) {
        case 0: r2 = v; r1 = t; r0 = p; break;
        case 1: r2 = q; r1 = v; r0 = p; break;
        case 2: r2 = p; r1 = v; r0 = t; break;
        case 3: r2 = p; r1 = q; r0 = v; break;
        case 4: r2 = t; r1 = p; r0 = v; break;
        case 5: r2 = v; r1 = p; r0 = q; break;
        default: break;  // the colour stays as read
      }
    }
    out[i + kBlueByte] = r0;
    out[i + kGreenByte] = r1;
    out[i + kRedByte] = r2;
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
