// The wide (AVX2) forms of the vector colour loops against their SSE2 forms:
// identical bytes on every level, odd sizes, one-byte-offset buffers and
// several thread counts.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::Bytes;
using kvtest::PatternBytes;
using kvtest::RenderStage;
using kvtest::ScopedWiderExtension;
using kvtest::StageSetter;

namespace {

struct Size {
  unsigned int width, height;
};
const Size kOddSizes[] = {{1, 1}, {7, 3}, {17, 5}, {33, 9}, {97, 31}};
const unsigned int kThreadCounts[] = {1, 2, 3, 7, 16};

// A pattern whose first 256 pixels walk every level in every channel, alpha
// included, so each level meets the stretch on each lane.
Bytes EveryLevelPattern(size_t pixels, uint32_t seed) {
  Bytes bytes = PatternBytes(pixels * 4, seed);
  for (size_t p = 0; p < pixels && p < 256; ++p) {
    for (size_t c = 0; c < 4; ++c) bytes[p * 4 + c] = static_cast<unsigned char>((p + c * 64) % 256);
  }
  return bytes;
}

Bytes Render(const StageSetter& set, const Bytes& input, const Size& size, unsigned int threads, size_t offset,
             bool wide) {
  ScopedWiderExtension wider(wide ? kvtl::kWiderAVX2 : kvtl::kWiderNone);
  return RenderStage(set, input, size.width, size.height, threads, offset);
}

// Runs the stage narrow and wide on every size, offset and a rotating thread
// count; the bytes must agree. (The thread count itself moves pixels between
// the table lead-in and the vector loop, so each pair shares it.)
void ExpectWideEqualsNarrow(const StageSetter& set, const char* what) {
  const Size shapes[] = {kOddSizes[0], kOddSizes[1], kOddSizes[2], kOddSizes[3], kOddSizes[4], {64, 8}};
  for (size_t s = 0; s < sizeof shapes / sizeof shapes[0]; ++s) {
    const Size size = shapes[s];
    const Bytes input = EveryLevelPattern(static_cast<size_t>(size.width) * size.height, 7 + static_cast<uint32_t>(s));
    for (size_t offset : {0, 1}) {
      for (size_t t = 0; t < 2; ++t) {
        const unsigned int threads = kThreadCounts[(s + offset * 2 + t) % 5];
        ASSERT_EQ(Render(set, input, size, threads, offset, false), Render(set, input, size, threads, offset, true))
            << what << " " << size.width << "x" << size.height << " offset " << offset << " threads " << threads;
      }
    }
  }
}

TEST(SuperContrastPaths, SuperContrastWideEqualsSSE2OnEveryRange) {
  if (kvtl::GetWiderExtension() < kvtl::kWiderAVX2) GTEST_SKIP() << "no AVX2 on this processor";
  const double ranges[][2] = {{0.2, 0.8}, {0.0, 1.0}, {0.5, 0.5}, {0.1, 0.9961}, {0.0, 0.0}, {1.0, 1.0}};
  for (const auto& range : ranges) {
    const double low = range[0], high = range[1];
    ExpectWideEqualsNarrow([=](KVImageProcessor& p) { return p.SetSuperContrast(low, high, kChannelsColor); },
                           "super contrast");
  }
}

// The 256-pixel gradient is also checked level by level against the
// processor's own rounding: nearest in single precision inside the range.
TEST(SuperContrastPaths, SuperContrastWideRoundsEveryLevelToNearest) {
  if (kvtl::GetWiderExtension() < kvtl::kWiderAVX2) GTEST_SKIP() << "no AVX2 on this processor";
  const Size size = {256, 1};
  Bytes input(256 * 4);
  for (int i = 0; i < 256; ++i) {
    for (int c = 0; c < 4; ++c) input[i * 4 + c] = static_cast<unsigned char>(i);
  }
  const Bytes out = Render([](KVImageProcessor& p) { return p.SetSuperContrast(0.2, 0.8, kChannelsColor); }, input,
                           size, 1, 0, true);
  const int lo = 51, hi = 204;
  const float scale = 256.0f / 154.0f;
  for (int i = 0; i < 256; ++i) {
    int expected = i > hi ? 255 : i < lo ? 0 : static_cast<int>(std::nearbyint(static_cast<float>(i - lo) * scale));
    if (expected > 255) expected = 255;
    ASSERT_EQ(expected, out[i * 4]) << "level " << i;
    ASSERT_EQ(i, out[i * 4 + 3]) << "alpha of level " << i;
  }
}

}  // namespace
