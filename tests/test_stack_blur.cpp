// The stack blur stage, its setters and its single-channel passes.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <algorithm>

#include "BlurReference.h"
#include "renderers/blur/StackBlurKernels.h"
#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

// Every channel value but alpha-only blurs all four bytes.
TEST(StackBlur, MatchesTheTriangleWeightedMean) {
  struct Case {
    unsigned int width, height, radius;
    int channels;
  } cases[] = {{17, 11, 1, kChannelsAll},   {17, 11, 4, kChannelsAlpha}, {6, 5, 9, kChannelsColor},
               {3, 2, 40, 1},               {1, 9, 3, kChannelsAll},     {9, 1, 3, kChannelsAll},
               {1, 1, 7, kChannelsAll},     {64, 3, 2, kChannelsAll},
               {600, 3, 2, kChannelsAll}};  // shares wider than one block of columns walked side by side
  for (const Case& c : cases) {
    const Bytes pixels = PatternBytes(c.width * c.height * 4, c.radius + c.width);
    const Bytes expected = ReferenceStackBlur(pixels, c.width, c.height, c.radius,
                                              c.channels == kChannelsAlpha ? kAlphaChannel : kAllChannels);
    const StageSetter set = [&](KVImageProcessor& p) {
      return p.SetStackBlur(c.radius, true, true, static_cast<KVChannelsToProcess>(c.channels));
    };
    for (unsigned int threads : {1u, 2u}) {
      EXPECT_EQ(expected, RenderStageAt(set, pixels, c.width, c.height, threads, 1, 0))
          << c.width << "x" << c.height << " r" << c.radius;
    }
  }
}

TEST(StackBlur, SettersScaleTheRadiusByTheDownsampleFactor) {
  const unsigned int width = 12, height = 9;
  const Bytes pixels = PatternBytes(width * height * 4, 5);
  Bytes in(pixels), out(pixels.size());
  KVImage8 source(in.data(), width, height, kPixelOrderBGRA), target(out.data(), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&source, &target, SharedTables(), kDownsampleThird);
  ASSERT_EQ(0, processor.SetStackBlur(10, true, true, kChannelsAll));  // 3.3 gives 3
  ASSERT_EQ(0, processor.Render());
  EXPECT_EQ(ReferenceStackBlur(pixels, width, height, 3, kAllChannels), out);

  KVImageKeyer keyer(&source, &target, SharedTables(), kDownsampleHalf);
  ASSERT_EQ(0, keyer.SetAlphaStackBlur(9, true, false));  // 4.5 gives 4
  ASSERT_EQ(0, keyer.Render());
  EXPECT_EQ(ReferenceStackBlur(pixels, width, height, 4, kAlphaChannel), out);
}

TEST(StackBlur, SingleChannelPassesBlurOnePlane) {
  const uint32_t width = 11, height = 7, radius = 2;
  const Bytes bytes = PatternBytes(width * height, 21);
  std::vector<int32_t> input(bytes.begin(), bytes.end()), rows(input.size()), both(input.size());
  const std::vector<int32_t> table = StackBlurDivideTable(radius);
  std::vector<int32_t> edge(std::max(width, height));

  // Three threads of 4 rows, then of 5 columns.
  StackBlurSingleChannelData data = {0,           4,           5, width, height, radius, input.data(),
                                     rows.data(), edge.data(), table.data()};
  FillStackBlurRowEdgeIndex(edge.data(), width, radius);
  for (data.threadIndex = 0; data.threadIndex < 3; ++data.threadIndex) StackBlurVertSingleChannelProc(&data);
  FillStackBlurColumnEdgeIndex(edge.data(), width, height, radius);
  data.input = rows.data();
  data.output = both.data();
  for (data.threadIndex = 0; data.threadIndex < 3; ++data.threadIndex) StackBlurHorizSingleChannelProc(&data);

  Bytes image(width * height * 4, 0);
  for (size_t i = 0; i < bytes.size(); ++i) image[i * 4] = bytes[i];
  const bool first[4] = {true, false, false, false};
  const Bytes expectedRows = ReferenceStackBlur(image, width, height, radius, first, true, false);
  const Bytes expected = ReferenceStackBlur(image, width, height, radius, first);
  for (size_t i = 0; i < bytes.size(); ++i) {
    EXPECT_EQ(expectedRows[i * 4], rows[i]) << i;
    EXPECT_EQ(expected[i * 4], both[i]) << i;
  }
}

TEST(StackBlur, DividerOfAnyDivisorIsExact) {
  // Every sum of up to 255 per value for small counts; the quotient
  // boundaries for counts up to a wide box window and a large divisor.
  for (uint32_t divisor = 1; divisor <= 40; ++divisor) {
    const StackBlurDivider divide = StackBlurDivider::OfDivisor(divisor);
    for (uint32_t sum = 0; sum <= 255 * divisor; ++sum) ASSERT_EQ(sum / divisor, uint32_t(divide(sum))) << divisor;
  }
  for (uint32_t divisor : {41u, 255u, 257u, 1023u, 4097u, 65535u, 8392609u}) {
    const StackBlurDivider divide = StackBlurDivider::OfDivisor(divisor);
    for (uint32_t q = 0; q < 256; ++q) {
      for (uint32_t sum : {q * divisor, q * divisor + divisor - 1}) ASSERT_EQ(q, uint32_t(divide(sum))) << divisor;
    }
  }
}

// The floating estimate is corrected at both sides of every quotient, in
// 64-bit sums up to their largest radius and in 128-bit sums beyond.
template <typename Sum>
void ExpectExactQuotients(uint32_t radius) {
  const Sum side = static_cast<Sum>(radius) + 1, divisor = side * side;
  const double reciprocal = 1.0 / static_cast<double>(divisor);
  for (uint32_t q = 0; q < 256; ++q) {
    const Sum base = divisor * q;
    ASSERT_EQ(q, StackBlurQuotient<Sum>(base, divisor, reciprocal)) << radius;
    if (q > 0) {
      ASSERT_EQ(q - 1, StackBlurQuotient<Sum>(base - 1, divisor, reciprocal)) << radius;
    }
    if (q < 255 || sizeof(Sum) > 8) {  // 256 divisors pass 2^64 at the largest 64-bit radius
      ASSERT_EQ(q, StackBlurQuotient<Sum>(base + divisor - 1, divisor, reciprocal)) << radius;
    }
  }
}

TEST(StackBlur, WideQuotientIsTheExactFloor) {
  for (uint32_t radius : {2896u, 100000u, kLargestStackBlurRadius64}) ExpectExactQuotients<uint64_t>(radius);
  for (uint32_t radius : {kLargestStackBlurRadius64 + 1, 4294967295u}) ExpectExactQuotients<StackBlurWideSum>(radius);
}

}  // namespace
