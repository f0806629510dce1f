#ifndef KVIMAGE_TYPES_H
#define KVIMAGE_TYPES_H

#include <kvimage/export.h>

namespace kvo {
namespace image {

// The enumerations have a fixed underlying type: a host may pass any int cast
// to one, and reading such a value must stay defined.

// Byte layout of a pixel. Stored, copied and compared; never converted.
// The result codes every public call returns.
enum KVResultCode : int {
  kResultSuccess = 0,
  kResultRuntimeError = 2,         // a std::runtime_error (also any other exception of a public call)
  kResultLogicError = 3,           // a std::logic_error
  kResultInvalidCombination = 4,   // arguments that do not go together (std::invalid_argument)
  kResultOutOfRange = 7,           // an argument outside its range (std::out_of_range)
  kResultOutOfMemory = 8,          // memory could not be had (std::bad_alloc)
  kResultUnsupportedFormat = 10,   // an image format or channel selection a call does not take
  kResultImagesDoNotMatch = 1000,  // images differ in size, order or depth
  kResultWorkerFailure = 1001      // a stage failed inside a worker thread
};

enum KVPixelChannelOrder : int {
  kPixelOrderBGRA = 1,  // blue, green, red, alpha: what every stage processes
  kPixelOrderARGB = 2   // alpha, red, green, blue
};

// Which bytes of each pixel a renderer changes; 0 to 2 are reserved.
enum KVChannelsToProcess : int {
  kChannelsAlpha = 3,  // byte 3 processed, colour copied
  kChannelsColor = 4,  // bytes 0..2 processed, alpha copied
  kChannelsAll = 5     // all four bytes processed
};

// Scale applied by setters to pixel radii; see DownsampleValue.
enum KVDownsampleFactor : int {
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

// How a top (layer) value is combined with a bottom (background) value. The
// underlying type is fixed so that a host may pass any 32-bit value: every
// value above kBlendReplace behaves as kBlendNormal.
enum KVBlendMode : int {
  kBlendAdd = 0,          // min(top + bottom, 255)
  kBlendColorBurn = 1,
  kBlendColorDodge = 2,
  kBlendDarken = 3,
  kBlendDifference = 4,
  kBlendExclusion = 5,
  kBlendHardLight = 6,
  kBlendLighten = 7,
  kBlendMultiply = 8,
  kBlendNormal = 9,       // top
  kBlendOverlay = 10,
  kBlendScreen = 11,
  kBlendSoftLight = 12,
  kBlendReplace = 13      // top, whatever the opacity
};

// How the background's alpha takes part in a layer composite. Every value
// other than 0 and 1 behaves as kCompositeAlpha.
enum KVCompositeType : int {
  kCompositeColorOnly = 0,  // colour blended by layer alpha x opacity; background alpha kept
  kCompositeAlphaFill = 1,  // over-composite; where the combined alpha is 0 the layer pixel is copied
  kCompositeAlpha = 2       // over-composite; where the combined alpha is 0 the background is kept
};

// The backing colour a colour-difference key pulls. Any other value is
// accepted and keys nothing (the fixed 32-bit type makes every int a valid
// value).
enum KVKeyColor : int {
  kKeyColorAuto = 0,   // detect green or blue from the image at every Setup
  kKeyColorGreen = 1,  // byte 1 of each pixel
  kKeyColorBlue = 2    // byte 0 of each pixel
};

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

// The passes of the YUV blur over the chroma bytes. Any other value runs no
// blur: the image only goes through the conversion and back.
enum KVYUVBlurType : int {
  kYUVBlurHorizontal = 0,           // box blur along rows
  kYUVBlurVertical = 1,             // box blur down columns
  kYUVBlurHorizontalVertical = 2,   // box blur along rows, then down columns
  kYUVBlurStack = 3,                // stack blur, both directions
  kYUVBlurNone = 4                  // no blur (as every value above 3)
};

// The shape of the depth-of-field stage's sharp region. Any other value acts
// as radial.
enum KVDepthOfFieldType : int {
  kDepthOfFieldRadial = 0,  // a disc around the focus point
  kDepthOfFieldLinear = 1   // a band through the focus point at an angle (tilt-shift)
};

}  // namespace image
}  // namespace kvo

#endif
