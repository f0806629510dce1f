#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_REC601LUMA_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_REC601LUMA_H

#include <kvimage/image.h>

#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// Integer Rec. 601 luminance: the weights 0.299, 0.587 and 0.114 as 77, 150
// and 29 of 256, so white stays 255.
inline int Rec601Luma(int red, int green, int blue) { return (77 * red + 150 * green + 29 * blue) >> 8; }

// Where the colour and alpha bytes of a pixel sit in an image's channel order.
struct ChannelBytes {
  unsigned int blue;
  unsigned int green;
  unsigned int red;
  unsigned int alpha;
};

inline ChannelBytes ChannelBytesOf(const KVAbstractImage* image) {
  if (image->PixelChannelOrder() == kPixelOrderARGB) {
    const ChannelBytes argb = {3, 2, 1, kAlphaByteARGB};
    return argb;
  }
  const ChannelBytes bgra = {kBlueByte, kGreenByte, kRedByte, kAlphaByte};
  return bgra;
}

// A strength argument as a weight of 256: clamped to 0 .. 1 first, NaN as 0.
inline double UnitStrength(double value) { return value > 0.0 ? (value < 1.0 ? value : 1.0) : 0.0; }

}  // namespace image
}  // namespace kvo

#endif
