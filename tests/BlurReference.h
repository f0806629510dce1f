#ifndef KVIMAGE_TESTS_BLURREFERENCE_H
#define KVIMAGE_TESTS_BLURREFERENCE_H

// A slow, direct form of the stack blur used as the oracle of the blur tests:
// each output is the triangle-weighted mean sum(v[clamp(i + k)] * (r + 1 - |k|))
// over k = -r .. r, divided by (r + 1)^2 and rounded down; rows first, then
// columns on the rounded row results.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace kvtest {

inline std::vector<int> TriangleMeanLine(const std::vector<int>& line, int radius) {
  const int n = static_cast<int>(line.size());
  std::vector<int> out(line.size());
  const int64_t divsum = static_cast<int64_t>(radius + 1) * (radius + 1);
  for (int i = 0; i < n; ++i) {
    int64_t sum = 0;
    for (int k = -radius; k <= radius; ++k) {
      sum += static_cast<int64_t>(line[std::min(std::max(i + k, 0), n - 1)]) * (radius + 1 - std::abs(k));
    }
    out[i] = static_cast<int>(sum / divsum);
  }
  return out;
}

// Blurs the chosen bytes of a BGRA image (rows, then columns); other bytes are
// left as they are.
// Kept out of line: inlined, GCC 12 reports a false buffer overflow.
__attribute__((noinline)) inline std::vector<unsigned char> ReferenceStackBlur(const std::vector<unsigned char>& image, int width, int height,
                                                     int radius, const bool channel[4], bool rows = true,
                                                     bool columns = true) {
  std::vector<unsigned char> out(image);
  if (width <= 0 || height <= 0 || out.size() < static_cast<size_t>(width) * height * 4) return out;
  for (int c = 0; c < 4; ++c) {
    if (!channel[c]) continue;
    std::vector<int> plane(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < plane.size(); ++i) plane[i] = image[i * 4 + c];
    if (rows) {
      for (int y = 0; y < height; ++y) {
        std::vector<int> line(plane.begin() + y * width, plane.begin() + (y + 1) * width);
        line = TriangleMeanLine(line, radius);
        std::copy(line.begin(), line.end(), plane.begin() + y * width);
      }
    }
    if (columns) {
      for (int x = 0; x < width; ++x) {
        std::vector<int> line(height);
        for (int y = 0; y < height; ++y) line[y] = plane[y * width + x];
        line = TriangleMeanLine(line, radius);
        for (int y = 0; y < height; ++y) plane[y * width + x] = line[y];
      }
    }
    for (size_t i = 0; i < plane.size(); ++i) out[i * 4 + c] = static_cast<unsigned char>(plane[i]);
  }
  return out;
}

const bool kAllChannels[4] = {true, true, true, true};
const bool kAlphaChannel[4] = {false, false, false, true};
const bool kColourChannels[4] = {true, true, true, false};

}  // namespace kvtest

#endif
