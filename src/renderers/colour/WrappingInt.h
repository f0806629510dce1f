#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_WRAPPINGINT_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_WRAPPINGINT_H

#include <cstdint>

namespace kvo {
namespace image {

// 32-bit signed arithmetic that wraps like the processor's instead of
// overflowing. The HLS arithmetic never leaves the int range for colours that
// come from bytes, but a NaN setting turns a hue into INT_MIN, and hosts may
// hand the public conversions any values.
inline int WrapAdd(int a, int b) { return static_cast<int>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
inline int WrapSub(int a, int b) { return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }
inline int WrapMul(int a, int b) { return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

}  // namespace image
}  // namespace kvo

#endif
