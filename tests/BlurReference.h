#ifndef KVIMAGE_TESTS_BLURREFERENCE_H
#define KVIMAGE_TESTS_BLURREFERENCE_H

// A slow, direct form of the stack blur used as the oracle of the blur tests:
// each output is the triangle-weighted mean sum(v[clamp(i + k)] * (r + 1 - |k|))
// over k = -r .. r, divided by (r + 1)^2 and rounded down; rows first, then
// columns on the rounded row results. It shares no code with the engine's
// running sums: the sum is formed position by position.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace kvtest {

__extension__ typedef __int128 ReferenceSum;

// Output i sums the line's own positions within the radius directly; the
// positions beyond each end repeat the end value with weights r - d .. 1
// (d the distance to that end), whose total is t (t + 1) / 2 for t = r - d.
// 128-bit sums: every radius up to 2^32 - 1 on short lines.
inline std::vector<int> TriangleMeanLine(const std::vector<int>& line, uint32_t radius) {
  const int64_t n = static_cast<int64_t>(line.size());
  std::vector<int> out(line.size());
  const ReferenceSum r = radius;
  const ReferenceSum divsum = (r + 1) * (r + 1);
  const auto triangle = [](ReferenceSum t) { return t > 0 ? t * (t + 1) / 2 : ReferenceSum(0); };
  for (int64_t i = 0; i < n; ++i) {
    ReferenceSum sum = 0;
    for (int64_t j = 0; j < n; ++j) {
      const int64_t distance = j > i ? j - i : i - j;
      if (distance <= static_cast<int64_t>(radius)) sum += static_cast<ReferenceSum>(line[j]) * (r + 1 - distance);
    }
    sum += static_cast<ReferenceSum>(line[0]) * triangle(r - i);
    sum += static_cast<ReferenceSum>(line[n - 1]) * triangle(r - (n - 1 - i));
    out[i] = static_cast<int>(sum / divsum);
  }
  return out;
}

// Blurs the chosen bytes of a BGRA image (rows, then columns); other bytes are
// left as they are.
// Kept out of line: inlined, GCC 12 reports a false buffer overflow.
__attribute__((noinline)) inline std::vector<unsigned char> ReferenceStackBlur(const std::vector<unsigned char>& image,
                                                                               int width, int height, uint32_t radius,
                                                                               const bool channel[4], bool rows = true,
                                                                               bool columns = true) {
  std::vector<unsigned char> out(image);
  if (width <= 0 || height <= 0 || out.size() < static_cast<size_t>(width) * height * 4) return out;
  for (int c = 0; c < 4; ++c) {
    if (!channel[c]) continue;
    std::vector<int> plane(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < plane.size(); ++i) plane[i] = image[i * 4 + c];
    // Blurs `lines` lines of `length` values, value i of line l at plane[at(l, i)].
    const auto blurLines = [&](int lines, int length, auto at) {
      for (int l = 0; l < lines; ++l) {
        std::vector<int> line(length);
        for (int i = 0; i < length; ++i) line[i] = plane[at(l, i)];
        line = TriangleMeanLine(line, radius);
        for (int i = 0; i < length; ++i) plane[at(l, i)] = line[i];
      }
    };
    if (rows) blurLines(height, width, [&](int y, int x) { return y * width + x; });
    if (columns) blurLines(width, height, [&](int x, int y) { return y * width + x; });
    for (size_t i = 0; i < plane.size(); ++i) out[i * 4 + c] = static_cast<unsigned char>(plane[i]);
  }
  return out;
}

const bool kAllChannels[4] = {true, true, true, true};
const bool kAlphaChannel[4] = {false, false, false, true};
const bool kColourChannels[4] = {true, true, true, false};

}  // namespace kvtest

#endif
