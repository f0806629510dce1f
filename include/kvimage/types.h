#ifndef KVIMAGE_TYPES_H
#define KVIMAGE_TYPES_H

#include <kvimage/export.h>

namespace kvo {
namespace image {

// Byte layout of a pixel. Stored, copied and compared; never converted.
enum KVPixelChannelOrder {
  kPixelOrderBGRA = 1,  // blue, green, red, alpha: what every stage processes
  kPixelOrderARGB = 2   // alpha, red, green, blue
};

// Which bytes of each pixel a renderer changes; 0 to 2 are reserved.
enum KVChannelsToProcess {
  kChannelsAlpha = 3,  // byte 3 processed, colour copied
  kChannelsColor = 4,  // bytes 0..2 processed, alpha copied
  kChannelsAll = 5     // all four bytes processed
};

// Scale applied by setters to pixel radii; see DownsampleValue.
enum KVDownsampleFactor {
  kDownsampleNone = 0,     // 1.0
  kDownsampleHalf = 1,     // 0.5
  kDownsampleThird = 2,    // 0.33
  kDownsampleQuarter = 3   // 0.25 (and every other value)
};

struct KVPixel8_RGB {
  unsigned char red;
  unsigned char green;
  unsigned char blue;
};

KVIMAGE_EXPORT double DownsampleValue(KVDownsampleFactor factor);
KVIMAGE_EXPORT unsigned int NumberOfChannels(KVPixelChannelOrder order);

// Integer hue-lightness-saturation colour. 360 stands for 1.0 on every axis;
// hue is in degrees, or -1 for a grey (no hue).
struct KVPixel8_HLS {
  int hue;
  int lightness;
  int saturation;
};

// The tone a tint stage moves pixels toward. Any other value (1 included, and
// values outside 0..10) selects the warm tone. The underlying type is fixed so
// that every int a host casts to it is a valid value.
enum KVTintType : int {
  kTintGrey = 0,
  kTintWarm = 1,
  kTintBronze = 2,
  kTintCyanotype = 3,
  kTintEmerald = 4,
  kTintGold = 5,
  kTintPalladium = 6,
  kTintPlatinum = 7,
  kTintPlatinumPalladium = 8,
  kTintSelenium = 9,
  kTintSilver = 10
};

}  // namespace image
}  // namespace kvo

#endif
