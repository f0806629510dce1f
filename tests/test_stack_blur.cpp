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

// Runs one SetStackBlur through a processor, the source one byte off
// alignment, and returns the destination.
Bytes ProcessorStackBlur(const Bytes& pixels, unsigned int width, unsigned int height, unsigned int radius,
                         KVChannelsToProcess channels, unsigned int threads) {
  return RenderStageAt([=](KVImageProcessor& p) { return p.SetStackBlur(radius, true, true, channels); }, pixels,
                       width, height, threads, 1, 0);
}

TEST(StackBlur, MatchesTheTriangleWeightedMean) {
  struct Case {
    unsigned int width, height, radius;
  } cases[] = {{17, 11, 1}, {17, 11, 4}, {6, 5, 9}, {3, 2, 40}, {1, 9, 3}, {9, 1, 3}, {1, 1, 7}, {64, 3, 2},
               {600, 3, 2}};  // shares wider than one block of columns walked side by side
  for (const Case& c : cases) {
    const std::vector<unsigned char> pixels = PatternBytes(c.width * c.height * 4, c.radius + c.width);
    const std::vector<unsigned char> expected =
        kvtest::ReferenceStackBlur(pixels, c.width, c.height, c.radius, kvtest::kAllChannels);
    for (unsigned int threads : {1u, 2u}) {
      EXPECT_EQ(expected, ProcessorStackBlur(pixels, c.width, c.height, c.radius, kChannelsAll, threads))
          << c.width << "x" << c.height << " r" << c.radius;
    }
  }
}

TEST(StackBlur, AlphaOnlyKeepsTheColourBytes) {
  const unsigned int width = 19, height = 8, radius = 5;
  const std::vector<unsigned char> pixels = PatternBytes(width * height * 4, 3);
  const std::vector<unsigned char> expected =
      kvtest::ReferenceStackBlur(pixels, width, height, radius, kvtest::kAlphaChannel);
  EXPECT_EQ(expected, ProcessorStackBlur(pixels, width, height, radius, kChannelsAlpha, 3));

  ScopedCoreCount cores(2);
  GuardedImage source(width, height), target(width, height, 1);
  source.fill(pixels);
  kvo::KVLookupTables& tables = kvtest::SharedTables();
  KVImageKeyer keyer(source.image(), target.image(), tables, kDownsampleNone);
  EXPECT_EQ(0, keyer.SetAlphaStackBlur(radius, false, true));
  EXPECT_EQ(0, keyer.Render());
  EXPECT_EQ(expected, target.contents());
  EXPECT_TRUE(target.guardsIntact());
}

TEST(StackBlur, ColourOnlyAndOtherValuesBlurAllFourBytes) {
  const std::vector<unsigned char> pixels = PatternBytes(10 * 6 * 4, 4);
  const std::vector<unsigned char> expected = kvtest::ReferenceStackBlur(pixels, 10, 6, 2, kvtest::kAllChannels);
  EXPECT_EQ(expected, ProcessorStackBlur(pixels, 10, 6, 2, kChannelsColor, 2));
  EXPECT_EQ(expected, ProcessorStackBlur(pixels, 10, 6, 2, static_cast<KVChannelsToProcess>(1), 2));
}

TEST(StackBlur, SetterScalesTheRadiusByTheDownsampleFactor) {
  // 10 * 0.33 = 3.3 gives radius 3.
  const unsigned int width = 12, height = 9;
  const std::vector<unsigned char> pixels = PatternBytes(width * height * 4, 5);
  std::vector<unsigned char> in(pixels), out(pixels.size());
  KVImage8 source(in.data(), width, height, kPixelOrderBGRA), target(out.data(), width, height, kPixelOrderBGRA);
  kvo::KVLookupTables& tables = kvtest::SharedTables();
  KVImageProcessor processor(&source, &target, tables, kDownsampleThird);
  ASSERT_EQ(0, processor.SetStackBlur(10, true, true, kChannelsAll));
  ASSERT_EQ(0, processor.Render());
  EXPECT_EQ(kvtest::ReferenceStackBlur(pixels, width, height, 3, kvtest::kAllChannels), out);

  KVImageKeyer keyer(&source, &target, tables, kDownsampleHalf);
  ASSERT_EQ(0, keyer.SetAlphaStackBlur(9, true, false));  // 4.5 gives 4
  ASSERT_EQ(0, keyer.Render());
  EXPECT_EQ(kvtest::ReferenceStackBlur(pixels, width, height, 4, kvtest::kAlphaChannel), out);
}

TEST(StackBlur, SingleChannelPassesBlurOnePlane) {
  const uint32_t width = 11, height = 7, radius = 2;
  const std::vector<unsigned char> bytes = PatternBytes(width * height, 21);
  std::vector<int32_t> input(bytes.begin(), bytes.end()), rows(input.size()), both(input.size());
  const std::vector<int32_t> table = StackBlurDivideTable(radius);
  std::vector<int32_t> edge(std::max(width, height));

  StackBlurSingleChannelData data = {};
  data.width = width;
  data.height = height;
  data.radius = radius;
  data.divideTable = table.data();
  data.edgeIndex = edge.data();
  FillStackBlurRowEdgeIndex(edge.data(), width, radius);
  data.rowsPerThread = 4;
  data.input = input.data();
  data.output = rows.data();
  for (data.threadIndex = 0; data.threadIndex < 3; ++data.threadIndex) StackBlurVertSingleChannelProc(&data);
  FillStackBlurColumnEdgeIndex(edge.data(), width, height, radius);
  data.columnsPerThread = 5;
  data.input = rows.data();
  data.output = both.data();
  for (data.threadIndex = 0; data.threadIndex < 3; ++data.threadIndex) StackBlurHorizSingleChannelProc(&data);

  std::vector<unsigned char> image(width * height * 4, 0);
  for (size_t i = 0; i < bytes.size(); ++i) image[i * 4] = bytes[i];
  const bool first[4] = {true, false, false, false};
  const std::vector<unsigned char> expectedRows =
      kvtest::ReferenceStackBlur(image, width, height, radius, first, true, false);
  const std::vector<unsigned char> expected = kvtest::ReferenceStackBlur(image, width, height, radius, first);
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

TEST(StackBlur, WideQuotientIsTheExactFloor) {
  // The floating estimate is corrected at both sides of every quotient, in
  // 64-bit sums up to their largest radius and in 128-bit sums beyond.
  for (uint32_t radius : {2896u, 100000u, kLargestStackBlurRadius64}) {
    const uint64_t side = static_cast<uint64_t>(radius) + 1, divisor = side * side;
    const double reciprocal = 1.0 / static_cast<double>(divisor);
    for (uint64_t q = 0; q < 256; ++q) {
      const uint64_t base = divisor * q;
      ASSERT_EQ(q, StackBlurQuotient<uint64_t>(base, divisor, reciprocal)) << radius;
      if (q > 0) {
        ASSERT_EQ(q - 1, StackBlurQuotient<uint64_t>(base - 1, divisor, reciprocal)) << radius;
      }
      if (q < 255) {
        ASSERT_EQ(q, StackBlurQuotient<uint64_t>(base + divisor - 1, divisor, reciprocal)) << radius;
      }
    }
  }
  for (uint32_t radius : {kLargestStackBlurRadius64 + 1, 4294967295u}) {
    const StackBlurWideSum side = static_cast<StackBlurWideSum>(radius) + 1, divisor = side * side;
    const double reciprocal = 1.0 / static_cast<double>(divisor);
    for (uint32_t q = 0; q < 256; ++q) {
      const StackBlurWideSum base = divisor * q;
      ASSERT_EQ(q, StackBlurQuotient(base, divisor, reciprocal)) << radius;
      if (q > 0) {
        ASSERT_EQ(q - 1, StackBlurQuotient(base - 1, divisor, reciprocal)) << radius;
      }
      ASSERT_EQ(q, StackBlurQuotient(base + divisor - 1, divisor, reciprocal)) << radius;
    }
  }
}

// `count` bytes `offset` past a 16-byte boundary, filled with a pattern
// (or, as 32-bit values, with values 0 .. 255), guard bytes behind them.
class OffsetBytes {
 public:
  OffsetBytes(size_t count, size_t offset, uint32_t seed, bool values = false)
      : m_count(count), m_storage(count + offset + 16 + kGuards, kGuard) {
    m_data = m_storage.data() + (16 - reinterpret_cast<uintptr_t>(m_storage.data()) % 16) % 16 + offset;
    const std::vector<unsigned char> pattern = PatternBytes(count, seed);
    for (size_t i = 0; i < count; ++i) m_data[i] = values && i % 4 != 0 ? 0 : pattern[i];
  }
  unsigned char* bytes() { return m_data; }
  int32_t* values() { return reinterpret_cast<int32_t*>(m_data); }
  std::vector<unsigned char> contents() const { return std::vector<unsigned char>(m_data, m_data + m_count); }
  bool guardsIntact() const {
    return std::all_of(m_data + m_count, m_data + m_count + kGuards, [](unsigned char b) { return b == kGuard; });
  }

 private:
  static constexpr size_t kGuards = 64;
  static constexpr unsigned char kGuard = 0xA5;
  size_t m_count;
  std::vector<unsigned char> m_storage;
  unsigned char* m_data;
};

}  // namespace
