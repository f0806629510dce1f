// Support services: thread shares, processor features, the core count, the
// lookup tables, the geometry types and the safe numeric conversions.
#include <gtest/gtest.h>

#include <cpuid.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "TestSupport.h"
#include "support/Conversions.h"

using kvo::KVLookupTables;
using kvo::KVSystem;

namespace {

struct Share {
  unsigned long start, count;
};

// The pixel share and the byte share of one thread.
std::pair<Share, Share> SharesOf(unsigned int width, unsigned int height, unsigned int index, unsigned int count) {
  Share pixels = {7, 7}, bytes = {7, 7};
  kvo::image::GetPixelsPerThread(width, height, static_cast<unsigned char>(index), static_cast<unsigned char>(count),
                                 pixels.start, pixels.count);
  kvo::image::GetBufferSizePerThread(width, height, static_cast<unsigned char>(index),
                                     static_cast<unsigned char>(count), bytes.start, bytes.count);
  return {pixels, bytes};
}

}  // namespace

// Every share but the last is ceil(total / threads); the last takes the
// rest in 32-bit arithmetic, so with more threads than pixels it wraps
// (2 pixels, thread 3 of 4: 2 - 3 pixels, 8 - 12 bytes). That the shares
// tile the image at any count shows in every stage's bytes at 1 to 64
// threads (test_catalogue.cpp).
TEST(ThreadShares, CeilingSharesTheWrappingLastShareAndEmptyImages) {
  const struct {
    unsigned int width, height, index, count;
    unsigned long start, pixels;
  } anchors[] = {{10, 1, 0, 4, 0, 3},       {5, 2, 1, 4, 3, 3},          {10, 1, 3, 4, 9, 1},
                 {1920, 1080, 7, 8, 1814400, 259200}, {2, 1, 3, 4, 3, 4294967295ul}, {0, 7, 4, 5, 0, 0},
                 {7, 0, 2, 5, 0, 0}};
  for (const auto& a : anchors) {
    const std::pair<Share, Share> shares = SharesOf(a.width, a.height, a.index, a.count);
    EXPECT_EQ(a.start, shares.first.start) << a.width << "x" << a.height << ", thread " << a.index;
    EXPECT_EQ(a.pixels, shares.first.count) << a.width << "x" << a.height << ", thread " << a.index;
    EXPECT_EQ(4 * a.start, shares.second.start);
    EXPECT_EQ(static_cast<uint32_t>(4 * a.pixels), shares.second.count);
  }
}

TEST(CPUExtensions, FirstThreeAlwaysSetAndSse3FromCpuid) {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  ASSERT_TRUE(__get_cpuid(1, &eax, &ebx, &ecx, &edx));
  for (bool preset : {false, true}) {
    kvtl::CPUExtensions found = {false, false, false, preset};
    kvtl::GetCPUExtensions(found);
    EXPECT_TRUE(found.mmx && found.sse && found.sse2);
    EXPECT_EQ((ecx & bit_SSE3) != 0, found.sse3);
  }
}

TEST(CPUExtensions, WiderExtensionLimitLowersTheSupportedSet) {
  const kvtl::WiderExtension supported = kvtl::GetSupportedWiderExtension();
  EXPECT_EQ(supported, kvtl::GetWiderExtension());
  {
    kvtest::ScopedWiderExtension none(kvtl::kWiderNone);
    EXPECT_EQ(kvtl::kWiderNone, kvtl::GetWiderExtension());
    kvtl::LimitWiderExtension(static_cast<kvtl::WiderExtension>(-5));
    EXPECT_EQ(kvtl::kWiderNone, kvtl::GetWiderExtension());
    kvtl::LimitWiderExtension(kvtl::kWiderSSSE3);
    EXPECT_EQ(std::min(supported, kvtl::kWiderSSSE3), kvtl::GetWiderExtension());
    kvtl::LimitWiderExtension(static_cast<kvtl::WiderExtension>(99));
    EXPECT_EQ(supported, kvtl::GetWiderExtension());
  }
  EXPECT_EQ(supported, kvtl::GetWiderExtension());
}

TEST(KVSystem, CoreCountOverrideAndReset) {
  const unsigned int online = static_cast<unsigned int>(sysconf(_SC_NPROCESSORS_ONLN));
  for (unsigned int count : {0u, 64u, 1u, 0u}) {
    kvtest::ScopedCoreCount scoped(count);
    EXPECT_EQ(count != 0 ? count : online, KVSystem::GetCPUCoreCount());
  }
  const unsigned int suite = kvtest::SuiteCoreCount();
  EXPECT_EQ(suite != 0 ? suite : online, KVSystem::GetCPUCoreCount());
}

class LookupTables : public ::testing::Test {
 protected:
  KVLookupTables tables;
};

TEST_F(LookupTables, AlphaBlendRoundingDivisionsAndInverses) {
  // Rounded to nearest: 64.25, 78.43, 0.502, 0.498; 256 - 64, 300 - 78.
  EXPECT_EQ(64, tables.AlphaBlend(128, 128));
  EXPECT_EQ(78, tables.AlphaBlend(200, 100));
  EXPECT_EQ(1, tables.AlphaBlend(1, 128));
  EXPECT_EQ(0, tables.AlphaBlend(1, 127));
  EXPECT_EQ(192, tables.AlphaChannelBlend(128, 128));
  EXPECT_EQ(222, tables.AlphaChannelBlend(200, 100));
  for (int v = 0; v < 256; ++v) {
    EXPECT_EQ(static_cast<float>(v) / 255.0f, tables.DivideBy255Table()[v]);
    EXPECT_EQ(tables.DivideBy255(static_cast<unsigned char>(v)), tables.DivideBy255Table()[v]);
  }
  const std::pair<int, float> inverses[] = {{0, 0.0f}, {1, 1.0f}, {4, 0.25f}, {3, 1.0f / 3.0f}, {255, 1.0f / 255.0f}};
  for (const auto& inverse : inverses) EXPECT_EQ(inverse.second, tables.Invert(inverse.first)) << inverse.first;
}

// Over every (top, bottom) pair: the simple blends, the symmetries, and the
// end points (a black backdrop stays black under dodge, a white one white
// under burn; alphas 0 and 255 are exact).
TEST_F(LookupTables, EveryPairSimpleBlendsSymmetriesAndEndPoints) {
  for (int t = 0; t < 256; ++t) {
    for (int b = 0; b < 256; ++b) {
      const unsigned char top = static_cast<unsigned char>(t), bottom = static_cast<unsigned char>(b);
      ASSERT_EQ(std::min(t, b), tables.DarkenBlend(top, bottom));
      ASSERT_EQ(std::max(t, b), tables.LightenBlend(top, bottom));
      ASSERT_EQ(std::abs(t - b), tables.DifferenceBlend(top, bottom));
      // Overlay is hard light with the layers' roles swapped.
      ASSERT_EQ(tables.HardLightBlend(bottom, top), tables.OverlayBlend(top, bottom));
      ASSERT_EQ(tables.MultiplyBlend(bottom, top), tables.MultiplyBlend(top, bottom));
      ASSERT_EQ(tables.ScreenBlend(bottom, top), tables.ScreenBlend(top, bottom));
      ASSERT_EQ(tables.ExclusionBlend(bottom, top), tables.ExclusionBlend(top, bottom));
      if (b == 0 || b == 255) {
        ASSERT_EQ(b, tables.SoftLightBlend(top, bottom));
        ASSERT_EQ(b == 0 ? 0 : t, tables.AlphaBlend(top, bottom));
        ASSERT_EQ(b == 0 ? t : 255, tables.AlphaChannelBlend(top, bottom));
        ASSERT_EQ(b, b == 0 ? tables.ColorDodgeBlend(top, bottom) : tables.ColorBurnBlend(top, bottom));
      }
      if (t == 0 || t == 255) {
        ASSERT_EQ(t == 0 ? b : (b == 0 ? 0 : 255), tables.ColorDodgeBlend(top, bottom));
        ASSERT_EQ(t == 255 ? b : (b == 255 ? 255 : 0), tables.ColorBurnBlend(top, bottom));
        ASSERT_EQ(t == 0 ? b : 255, tables.AlphaChannelBlend(top, bottom));
      }
    }
  }
}

// Hand-computed bytes of the curved blends, rounded to nearest.
TEST_F(LookupTables, CurvedBlendValues) {
  typedef unsigned char (KVLookupTables::*Blend)(unsigned char, unsigned char);
  const struct {
    Blend blend;
    int top, bottom, expected;
  } cases[] = {
      {&KVLookupTables::HardLightBlend, 64, 200, 100},   // 2 * 64 * 200 / 255 = 100.39
      {&KVLookupTables::HardLightBlend, 200, 64, 173},   // screen with 145: 172.61
      {&KVLookupTables::HardLightBlend, 192, 100, 178},  // screen with 129: 178.41
      {&KVLookupTables::HardLightBlend, 127, 255, 254},  // the multiply half ends at 127
      {&KVLookupTables::HardLightBlend, 128, 0, 1},      // the screen half starts at 128
      {&KVLookupTables::OverlayBlend, 100, 192, 178},
      {&KVLookupTables::OverlayBlend, 200, 64, 100},
      {&KVLookupTables::ColorDodgeBlend, 128, 64, 129},  // 64 * 255 / 127 = 128.50
      {&KVLookupTables::ColorDodgeBlend, 200, 100, 255},  // 463, clipped
      {&KVLookupTables::ColorBurnBlend, 100, 200, 115},  // 255 - 55 * 255 / 100 = 114.75
      {&KVLookupTables::ColorBurnBlend, 50, 100, 0},     // 255 - 790.5, clipped
      {&KVLookupTables::SoftLightBlend, 0, 128, 64},     // d * d = 64.25
      {&KVLookupTables::SoftLightBlend, 64, 128, 96},    // 96.25
      {&KVLookupTables::SoftLightBlend, 100, 50, 41},    // 41.33
      {&KVLookupTables::SoftLightBlend, 255, 64, 128},   // sqrt(64/255) * 255 = 127.75
      {&KVLookupTables::SoftLightBlend, 255, 32, 88},    // the cubic below a quarter: 87.88
      {&KVLookupTables::SoftLightBlend, 192, 100, 130},  // 130.19
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, (tables.*c.blend)(static_cast<unsigned char>(c.top), static_cast<unsigned char>(c.bottom)))
        << "row " << (&c - cases);
  }
}

// Scale truncates toward zero (-2.5 becomes -2; NaN is defined, no UB);
// FixBounds clips to the image.
TEST(Geometry, RectScaleAndFixBounds) {
  using kvo::maths::KVRect;
  using kvo::maths::KVPoint2;
  const struct {
    KVRect rect;
    double scale;
    int boundsWidth, boundsHeight;
    int x, y, width, height;
  } cases[] = {{KVRect(KVPoint2(3, -5), 11, 7), 0.5, 0, 0, 1, -2, 5, 3},
               {KVRect(KVPoint2(1, 1), 1000, 1000), std::nan(""), 0, 0, 1, 1, INT_MIN, INT_MIN},
               {KVRect(KVPoint2(-5, -3), 20, 20), 1, 10, 8, 0, 0, 10, 8},
               {KVRect(KVPoint2(5, 5), 10, 10), 1, 8, 20, 5, 5, 3, 10},
               {KVRect(KVPoint2(20, 20), 5, 5), 1, 10, 10, 20, 20, 0, 0},
               {KVRect(KVPoint2(INT_MAX - 1, 0), INT_MAX, 4), 1, 100, 100, INT_MAX - 1, 0, 0, 4}};
  for (const auto& c : cases) {
    KVRect rect = c.rect;
    if (c.scale != 1) rect.Scale(c.scale);
    if (c.boundsWidth != 0) rect.FixBounds(c.boundsWidth, c.boundsHeight);
    const bool empty = c.width == 0 || c.width == INT_MIN;  // an empty rectangle's corner is not pinned
    EXPECT_EQ((std::vector<int>{c.x, c.y, c.width, c.height}),
              (std::vector<int>{empty ? c.x : rect.TopLeft().X(), empty ? c.y : rect.TopLeft().Y(), rect.Width(),
                                rect.Height()}))
        << "row " << (&c - cases);
  }
}

TEST(Conversions, TruncationTowardZeroAndIndefiniteValue) {
  using namespace kvo::image;
  const double inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
  const std::pair<double, int> ints[] = {{2.9, 2},  {-2.9, -2}, {-0.5, 0}, {127.5, 127}, {2147483647.9, INT_MAX},
                                         {-2147483648.9, INT_MIN}, {2147483648.0, INT_MIN}, {-2147483649.0, INT_MIN},
                                         {nan, INT_MIN}, {inf, INT_MIN}, {-inf, INT_MIN}};
  for (const auto& c : ints) EXPECT_EQ(c.second, TruncateToInt(c.first)) << c.first;
  const std::pair<double, int64_t> longs[] = {{-3.99, -3}, {4294967296.5, INT64_C(4294967296)},
                                              {9223372036854775808.0, INT64_MIN}, {nan, INT64_MIN}, {-inf, INT64_MIN}};
  for (const auto& c : longs) EXPECT_EQ(c.second, TruncateToInt64(c.first)) << c.first;
  const std::pair<double, uint32_t> unsigneds[] = {{3.7, 3}, {-1.0, 0}, {nan, 0}, {1e20, 4294967295u}, {inf, 4294967295u}};
  for (const auto& c : unsigneds) EXPECT_EQ(c.second, SaturateToUInt32(c.first)) << c.first;
  const std::pair<int, int> bytes[] = {{-1, 0}, {INT_MIN, 0}, {256, 255}, {200, 200}};
  for (const auto& c : bytes) EXPECT_EQ(c.second, ClampToByte(c.first)) << c.first;
}
