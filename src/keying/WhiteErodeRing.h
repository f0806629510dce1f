#ifndef KVIMAGE_SRC_KEYING_WHITEERODERING_H
#define KVIMAGE_SRC_KEYING_WHITEERODERING_H

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include <kvimage/types.h>

#include "support/Conversions.h"

namespace kvo {
namespace image {

// The white erode of one line of `count` alpha values (value i at
// alphas[i * stride]) computed by its defining ring: 2 * size + 1 entries
// that start at 255, a write position that wraps, one put per step and the
// minimum of the whole ring after it. Direction 0 prefills half - 1 values
// and puts value x + half at step x; 1 puts value x; any other value runs
// from the end and puts 255 in place of value 0. This is the straightforward
// form the stage's passes are checked against; its cost grows with the size.
inline void WhiteErodeLineByRing(const unsigned char* alphas, size_t count, size_t stride, int size,
                                 KVWhiteErodeDirection direction, unsigned char* out, size_t outStride) {
  const size_t window = 2 * static_cast<size_t>(std::max(size, 0)) + 1;
  std::vector<unsigned char> ring(window, 255);
  size_t position = 0;
  auto put = [&](unsigned char value) {
    ring[position] = value;
    position = position == window - 1 ? 0 : position + 1;
  };
  auto lowest = [&] { return *std::min_element(ring.begin(), ring.end()); };
  auto at = [&](size_t i) { return i < count ? alphas[i * stride] : static_cast<unsigned char>(255); };
  if (direction == kWhiteErodeAll) {
    const size_t half = static_cast<size_t>(TruncateToInt(std::floor(static_cast<double>(window) * 0.5)));
    for (size_t i = 0; i + 2 <= half; ++i) put(at(i));
    for (size_t x = 0; x < count; ++x) {
      put(at(x + half));
      out[x * outStride] = lowest();
    }
  } else if (direction == kWhiteErodeRightward) {
    for (size_t x = 0; x < count; ++x) {
      put(at(x));
      out[x * outStride] = lowest();
    }
  } else {
    for (size_t x = count; x-- > 0;) {
      put(x == 0 ? static_cast<unsigned char>(255) : at(x));
      out[x * outStride] = lowest();
    }
  }
}

// The whole stage by the ring on BGRA bytes of w x h pixels: the rows, then
// for the centred direction the columns of the result.
inline std::vector<unsigned char> WhiteErodeImageByRing(const std::vector<unsigned char>& bytes, unsigned int w,
                                                        unsigned int h, int size, KVWhiteErodeDirection direction) {
  std::vector<unsigned char> out = bytes;
  const size_t rowBytes = static_cast<size_t>(w) * 4;
  for (unsigned int y = 0; y < h; ++y) {
    WhiteErodeLineByRing(&bytes[y * rowBytes + 3], w, 4, size, direction, &out[y * rowBytes + 3], 4);
  }
  if (direction != kWhiteErodeAll) return out;
  const std::vector<unsigned char> rows = out;
  for (unsigned int x = 0; x < w; ++x) {
    WhiteErodeLineByRing(&rows[x * 4 + 3], h, rowBytes, size, direction, &out[x * 4 + 3], rowBytes);
  }
  return out;
}

}  // namespace image
}  // namespace kvo

#endif
