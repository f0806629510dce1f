// The exported conversions of the integer HLS model (see HLSModel.h).
#include <kvimage/colour.h>

#include "renderers/colour/HLSModel.h"

namespace kvo {
namespace image {

void ConvertRGBtoHLS(const KVPixel8_RGB& in, KVPixel8_HLS& out) { hls::RGBtoHLS(in, out); }

int ConvertHueToRGB(int low, int high, int hue) { return hls::HueToRGB(low, high, hue); }

void ConvertHLStoRGB(const KVPixel8_HLS& in, KVPixel8_RGB& out) { hls::HLStoRGB(in, out); }

}  // namespace image
}  // namespace kvo
