#ifndef KVIMAGE_SRC_SUPPORT_CONVERSIONS_H
#define KVIMAGE_SRC_SUPPORT_CONVERSIONS_H

#include <algorithm>
#include <climits>
#include <cstdint>

#include <kvimage/support.h>

namespace kvo {
namespace image {

// Every floating-point to integer conversion in the engine goes through these.
// They truncate toward zero like the processor's truncating conversion and,
// like it, give the "integer indefinite" value (the most negative integer) for
// NaN and for values outside the result's range, without undefined behaviour.
inline int TruncateToInt(double value) {
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int>(value);
  return INT_MIN;
}

inline int64_t TruncateToInt64(double value) {
  if (value >= -9223372036854775808.0 && value < 9223372036854775808.0) return static_cast<int64_t>(value);
  return INT64_MIN;
}

// Converts to unsigned 32 bits with saturation: NaN and negatives give 0,
// values beyond the range give 4294967295.
inline unsigned int SaturateToUInt32(double value) {
  if (!(value > 0.0)) return 0;
  if (value >= 4294967295.0) return 4294967295u;
  return static_cast<unsigned int>(value);
}

inline int ClampToByte(int value) { return value < 0 ? 0 : (value > 255 ? 255 : value); }

// The same corner and size.
inline bool SameRect(const kvo::maths::KVRect& a, const kvo::maths::KVRect& b) {
  return a.TopLeft().X() == b.TopLeft().X() && a.TopLeft().Y() == b.TopLeft().Y() && a.Width() == b.Width() &&
         a.Height() == b.Height();
}

// [low, high) of a rectangle side clipped to 0 .. limit.
inline void ClipSpan(int64_t start, int64_t size, uint32_t limit, uint32_t& low, uint32_t& high) {
  const int64_t end = start + size;
  low = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(start, 0), limit));
  high = static_cast<uint32_t>(std::min<int64_t>(std::max<int64_t>(end, 0), limit));
  if (high < low) high = low;
}

}  // namespace image
}  // namespace kvo

#endif
