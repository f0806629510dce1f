// The integer hue-lightness-saturation model shared by the hue stages. Every
// division is signed and truncates toward zero.
#include <algorithm>

#include <kvimage/colour.h>

#include "renderers/colour/WrappingInt.h"

namespace kvo {
namespace image {

namespace {

const int kScale = 360;  // 1.0 on every HLS axis

// ((max - x) * 60 + delta / 2) / delta: how far x lies below the maximum, in
// sixths of the hue circle.
int DistanceFromMax(int max, int x, int delta) { return ((max - x) * 60 + delta / 2) / delta; }

}  // namespace

void ConvertRGBtoHLS(const KVPixel8_RGB& in, KVPixel8_HLS& out) {
  const int red = in.red, green = in.green, blue = in.blue;
  const int max = std::max(red, std::max(green, blue));
  const int min = std::min(red, std::min(green, blue));
  const int sum = max + min;
  const int delta = max - min;
  out.lightness = (sum * kScale + 255) / 510;
  if (max == min) {
    out.saturation = 0;
    out.hue = -1;
    return;
  }
  if (out.lightness <= kScale / 2) {
    out.saturation = (delta * kScale + sum / 2) / sum;
  } else {
    out.saturation = (delta * kScale + (510 - sum) / 2) / (510 - sum);
  }
  const int redDistance = DistanceFromMax(max, red, delta);
  const int greenDistance = DistanceFromMax(max, green, delta);
  const int blueDistance = DistanceFromMax(max, blue, delta);
  int hue;
  if (red == max) {
    hue = blueDistance - greenDistance;
  } else if (green == max) {
    hue = 120 + redDistance - blueDistance;
  } else {
    hue = 240 + greenDistance - redDistance;
  }
  if (hue < 0) hue += kScale;
  if (hue > kScale) hue -= kScale;
  out.hue = hue;
}

int ConvertHueToRGB(int low, int high, int hue) {
  if (hue < 0) {
    hue = WrapAdd(hue, kScale);
  } else if (hue > kScale) {
    hue = WrapSub(hue, kScale);
  }
  const int span = WrapSub(high, low);
  if (hue < 60) return WrapAdd(low, WrapAdd(WrapMul(span, hue), 30) / 60);
  if (hue < 180) return high;
  if (hue < 240) return WrapAdd(low, WrapAdd(WrapMul(span, WrapSub(240, hue)), 30) / 60);
  return low;
}

void ConvertHLStoRGB(const KVPixel8_HLS& in, KVPixel8_RGB& out) {
  const int lightness = in.lightness, saturation = in.saturation;
  if (saturation == 0) {
    // A grey with a defined hue is left as the caller preset it.
    if (in.hue == -1) {
      const unsigned char grey = static_cast<unsigned char>(WrapMul(lightness, 255) / kScale);
      out.red = out.green = out.blue = grey;
    }
    return;
  }
  int high;
  if (lightness <= kScale / 2) {
    high = WrapAdd(WrapMul(lightness, WrapAdd(kScale, saturation)), kScale / 2) / kScale;
  } else {
    high = WrapSub(WrapAdd(lightness, saturation), WrapAdd(WrapMul(lightness, saturation), kScale / 2) / kScale);
  }
  const int low = WrapSub(WrapMul(2, lightness), high);
  // Stored without clamping: the low byte of each result.
  out.red = static_cast<unsigned char>(
      WrapAdd(WrapMul(ConvertHueToRGB(low, high, WrapAdd(in.hue, 120)), 255), kScale / 2) / kScale);
  out.green = static_cast<unsigned char>(WrapAdd(WrapMul(ConvertHueToRGB(low, high, in.hue), 255), kScale / 2) / kScale);
  out.blue = static_cast<unsigned char>(
      WrapAdd(WrapMul(ConvertHueToRGB(low, high, WrapSub(in.hue, 120)), 255), kScale / 2) / kScale);
}

}  // namespace image
}  // namespace kvo
