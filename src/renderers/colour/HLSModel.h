#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_HLSMODEL_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_HLSMODEL_H

// The integer hue-lightness-saturation model, inline so that the hue stages'
// pixel loops compile it in place; ConvertRGBtoHLS, ConvertHLStoRGB and
// ConvertHueToRGB are these functions. Every division is signed and truncates
// toward zero.
#include <algorithm>
#include <cstdint>

#include <kvimage/types.h>

#include "renderers/colour/WrappingInt.h"

namespace kvo {
namespace image {
namespace hls {

const int kScale = 360;  // 1.0 on every HLS axis

// n / d for 0 <= n < 2^23 and 1 <= d <= 510 as a multiply and a shift. With
// m = floor(2^32 / d) + 1, m * d = 2^32 + e for some 0 < e <= d, so
// n * m / 2^32 = n / d + n * e / (d * 2^32), and the added term stays below
// 1 / d whenever n * e < 2^32: the quotient's integer part never changes.
struct SmallDivisors {
  uint64_t multiplier[511];
};

constexpr SmallDivisors MakeSmallDivisors() {
  SmallDivisors divisors{};
  for (int d = 1; d < 511; ++d) divisors.multiplier[d] = (uint64_t(1) << 32) / static_cast<uint64_t>(d) + 1;
  return divisors;
}

inline constexpr SmallDivisors kSmallDivisors = MakeSmallDivisors();

inline int DivideSmall(int numerator, int divisor) {
  return static_cast<int>((static_cast<uint64_t>(numerator) * kSmallDivisors.multiplier[divisor]) >> 32);
}

// ((max - x) * 60 + delta / 2) / delta: how far x lies below the maximum, in
// sixths of the hue circle.
inline int DistanceFromMax(int max, int x, int delta) { return DivideSmall((max - x) * 60 + delta / 2, delta); }

inline void RGBtoHLS(const KVPixel8_RGB& in, KVPixel8_HLS& out) {
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
    out.saturation = DivideSmall(delta * kScale + sum / 2, sum);
  } else {
    out.saturation = DivideSmall(delta * kScale + (510 - sum) / 2, 510 - sum);
  }
  int hue;
  if (red == max) {
    hue = DistanceFromMax(max, blue, delta) - DistanceFromMax(max, green, delta);
  } else if (green == max) {
    hue = 120 + DistanceFromMax(max, red, delta) - DistanceFromMax(max, blue, delta);
  } else {
    hue = 240 + DistanceFromMax(max, green, delta) - DistanceFromMax(max, red, delta);
  }
  if (hue < 0) hue += kScale;
  if (hue > kScale) hue -= kScale;
  out.hue = hue;
}

// Any int arguments are accepted (a NaN setting reaches here as INT_MIN):
// the arithmetic wraps instead of overflowing.
inline int HueToRGB(int low, int high, int hue) {
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

// (component * 255 + 180) / 360, stored without clamping: its low byte.
inline unsigned char ComponentByte(int component) {
  return static_cast<unsigned char>(WrapAdd(WrapMul(component, 255), kScale / 2) / kScale);
}

inline void HLStoRGB(const KVPixel8_HLS& in, KVPixel8_RGB& out) {
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
  out.red = ComponentByte(HueToRGB(low, high, WrapAdd(in.hue, 120)));
  out.green = ComponentByte(HueToRGB(low, high, in.hue));
  out.blue = ComponentByte(HueToRGB(low, high, WrapSub(in.hue, 120)));
}

}  // namespace hls
}  // namespace image
}  // namespace kvo

#endif
