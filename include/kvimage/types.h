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

// Spill suppression and white erode. These enumerations have a fixed 32-bit
// type, so a host may cast any integer to them; the stages map values they do
// not name as each comment says.

// The key channel of the spill suppressor; every value other than 1 is green.
enum KVChannel : int {
  kChannelGreen = 0,  // byte 1
  kChannelBlue = 1    // byte 0
};

// The spill suppressor's method; every other value is standard.
enum KVSpillType : int {
  kSpillStandard = 0,
  kSpillExtended = 1,
  kSpillAdvanced = 2
};

// The shape of the white erode's window; every value other than 0 and 1 is
// leftward.
enum KVWhiteErodeDirection : int {
  kWhiteErodeAll = 0,        // centred, horizontally then vertically
  kWhiteErodeRightward = 1,  // the pixel and those to its left, rows only
  kWhiteErodeLeftward = 2    // the pixel and those to its right, rows only
};

}  // namespace image
}  // namespace kvo

#endif
