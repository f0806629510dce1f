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

// The passes of the YUV blur over the chroma bytes. Any other value runs no
// blur: the image only goes through the conversion and back.
enum KVYUVBlurType {
  kYUVBlurHorizontal = 0,           // box blur along rows
  kYUVBlurVertical = 1,             // box blur down columns
  kYUVBlurHorizontalVertical = 2,   // box blur along rows, then down columns
  kYUVBlurStack = 3,                // stack blur, both directions
  kYUVBlurNone = 4                  // no blur (as every value above 3)
};

}  // namespace image
}  // namespace kvo

#endif
