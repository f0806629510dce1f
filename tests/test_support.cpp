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
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "support/Conversions.h"

using kvo::KVLookupTables;
using kvo::KVSystem;
using kvo::image::GetBufferSizePerThread;
using kvo::image::GetPixelsPerThread;

namespace {

struct Share {
  unsigned long start;
  unsigned long count;
};

Share PixelShareOf(unsigned int width, unsigned int height, unsigned char index, unsigned char count) {
  Share share = {7, 7};
  GetPixelsPerThread(width, height, index, count, share.start, share.count);
  return share;
}

Share ByteShareOf(unsigned int width, unsigned int height, unsigned char index, unsigned char count) {
  Share share = {7, 7};
  GetBufferSizePerThread(width, height, index, count, share.start, share.count);
  return share;
}

}  // namespace

TEST(ThreadShares, AnchorsRemainderWrapAndEmptyImages) {
  const unsigned long starts[] = {0, 3, 6, 9};
  const unsigned long counts[] = {3, 3, 3, 1};
  for (unsigned char t = 0; t < 4; ++t) {
    EXPECT_EQ(starts[t], PixelShareOf(10, 1, t, 4).start);
    EXPECT_EQ(counts[t], PixelShareOf(10, 1, t, 4).count);
    EXPECT_EQ(4 * starts[t], ByteShareOf(5, 2, t, 4).start);
    EXPECT_EQ(4 * counts[t], ByteShareOf(5, 2, t, 4).count);  // 12, 12, 12, 4
  }
  EXPECT_EQ(1814400ul, PixelShareOf(1920, 1080, 7, 8).start);
  // More threads than pixels: the last count is 2 - 3 in 32-bit arithmetic.
  EXPECT_EQ(3ul, PixelShareOf(2, 1, 3, 4).start);
  EXPECT_EQ(4294967295ul, PixelShareOf(2, 1, 3, 4).count);
  EXPECT_EQ(12ul, ByteShareOf(2, 1, 3, 4).start);
  EXPECT_EQ(4294967292ul, ByteShareOf(2, 1, 3, 4).count);  // 8 - 12
  for (unsigned char t = 0; t < 5; ++t) {
    EXPECT_EQ(0ul, PixelShareOf(0, 7, t, 5).start);
    EXPECT_EQ(0ul, PixelShareOf(0, 7, t, 5).count);
    EXPECT_EQ(0ul, ByteShareOf(7, 0, t, 5).count);
  }
}

TEST(ThreadShares, SharesTileTheImageForEveryThreadCount) {
  const unsigned int totals[] = {1, 2, 5, 10, 16, 17, 33, 1000, 1920 * 1080};
  for (unsigned int total : totals) {
    for (unsigned int threads = 1; threads <= 255; threads += (threads < 20 ? 1 : 29)) {
      const unsigned long share = (total + threads - 1) / threads;
      unsigned long next = 0;
      for (unsigned int t = 0; t < threads; ++t) {
        const Share pixels = PixelShareOf(total, 1, static_cast<unsigned char>(t), static_cast<unsigned char>(threads));
        const Share bytes = ByteShareOf(total, 1, static_cast<unsigned char>(t), static_cast<unsigned char>(threads));
        const unsigned long count = t + 1 < threads ? share : static_cast<uint32_t>(total - share * t);
        EXPECT_EQ(share * t, pixels.start);
        EXPECT_EQ(count, pixels.count) << total << " pixels, thread " << t << " of " << threads;
        EXPECT_EQ(4 * share * t, bytes.start);
        EXPECT_EQ(static_cast<uint32_t>(4 * count), bytes.count);
        if (pixels.start >= total) continue;
        ASSERT_EQ(next, pixels.start) << total << " pixels, " << threads << " threads";
        next = pixels.start + std::min<unsigned long>(pixels.count, total - pixels.start);
      }
      EXPECT_EQ(total, next) << total << " pixels, " << threads << " threads";
    }
  }
}

TEST(CPUExtensions, FirstThreeAlwaysSetAndSse3FromCpuid) {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  ASSERT_TRUE(__get_cpuid(1, &eax, &ebx, &ecx, &edx));
  const bool sse3 = (ecx & bit_SSE3) != 0;

  kvtl::CPUExtensions cleared = {false, false, false, false};
  kvtl::GetCPUExtensions(cleared);
  EXPECT_TRUE(cleared.mmx);
  EXPECT_TRUE(cleared.sse);
  EXPECT_TRUE(cleared.sse2);
  EXPECT_EQ(sse3, cleared.sse3);

  kvtl::CPUExtensions preset = {false, false, false, true};
  kvtl::GetCPUExtensions(preset);
  EXPECT_TRUE(preset.mmx && preset.sse && preset.sse2);
  EXPECT_EQ(sse3, preset.sse3);
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
    EXPECT_EQ(supported < kvtl::kWiderSSSE3 ? supported : kvtl::kWiderSSSE3, kvtl::GetWiderExtension());
    kvtl::LimitWiderExtension(static_cast<kvtl::WiderExtension>(99));
    EXPECT_EQ(supported, kvtl::GetWiderExtension());
  }
  EXPECT_EQ(supported, kvtl::GetWiderExtension());
}

TEST(KVSystem, CoreCountOverrideAndReset) {
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  ASSERT_GT(online, 0);
  KVSystem::SetCPUCoreCount(0);
  EXPECT_EQ(static_cast<unsigned int>(online), KVSystem::GetCPUCoreCount());
  KVSystem::SetCPUCoreCount(64);
  EXPECT_EQ(64u, KVSystem::GetCPUCoreCount());
  KVSystem::SetCPUCoreCount(1);
  EXPECT_EQ(1u, KVSystem::GetCPUCoreCount());
  KVSystem::SetCPUCoreCount(0);
  EXPECT_EQ(static_cast<unsigned int>(online), KVSystem::GetCPUCoreCount());
  {
    kvtest::ScopedCoreCount three(3);
    EXPECT_EQ(3u, KVSystem::GetCPUCoreCount());
  }
  const unsigned int suite = kvtest::SuiteCoreCount();
  EXPECT_EQ(suite != 0 ? suite : static_cast<unsigned int>(online), KVSystem::GetCPUCoreCount());
}

class LookupTables : public ::testing::Test {
 protected:
  KVLookupTables tables;
};

TEST_F(LookupTables, AlphaBlendRoundsToNearest) {
  for (int v = 0; v < 256; ++v) {
    const unsigned char value = static_cast<unsigned char>(v);
    EXPECT_EQ(value, tables.AlphaBlend(value, 255));
    EXPECT_EQ(0, tables.AlphaBlend(value, 0));
    EXPECT_EQ(value, tables.AlphaChannelBlend(value, 0));
    EXPECT_EQ(value, tables.AlphaChannelBlend(0, value));
    EXPECT_EQ(255, tables.AlphaChannelBlend(value, 255));
  }
  EXPECT_EQ(64, tables.AlphaBlend(128, 128));  // 64.25
  EXPECT_EQ(78, tables.AlphaBlend(200, 100));  // 78.43
  EXPECT_EQ(1, tables.AlphaBlend(1, 128));     // 0.502
  EXPECT_EQ(0, tables.AlphaBlend(1, 127));     // 0.498
  EXPECT_EQ(192, tables.AlphaChannelBlend(128, 128));  // 256 - 64
  EXPECT_EQ(222, tables.AlphaChannelBlend(200, 100));  // 300 - 78
}

TEST_F(LookupTables, DivideBy255AndInvert) {
  EXPECT_EQ(0.0f, tables.DivideBy255(0));
  EXPECT_EQ(0.2f, tables.DivideBy255(51));
  EXPECT_EQ(1.0f, tables.DivideBy255(255));
  const float* table = tables.DivideBy255Table();
  ASSERT_NE(nullptr, table);
  for (int x = 0; x < 256; ++x) {
    EXPECT_EQ(static_cast<float>(x) / 255.0f, table[x]);
    EXPECT_EQ(tables.DivideBy255(static_cast<unsigned char>(x)), table[x]);
  }
  EXPECT_EQ(0.0f, tables.Invert(0));
  EXPECT_EQ(1.0f, tables.Invert(1));
  EXPECT_EQ(0.25f, tables.Invert(4));
  EXPECT_EQ(1.0f / 3.0f, tables.Invert(3));
  EXPECT_EQ(1.0f / 255.0f, tables.Invert(255));
}

TEST_F(LookupTables, SimpleBlendsOverEveryPair) {
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
    }
  }
}

TEST_F(LookupTables, HardLightAndOverlayValues) {
  EXPECT_EQ(100, tables.HardLightBlend(64, 200));   // 2 * 64 * 200 / 255 = 100.39
  EXPECT_EQ(173, tables.HardLightBlend(200, 64));   // screen with 145: 172.61
  EXPECT_EQ(178, tables.HardLightBlend(192, 100));  // screen with 129: 178.41
  EXPECT_EQ(254, tables.HardLightBlend(127, 255));  // the multiply half ends at 127
  EXPECT_EQ(1, tables.HardLightBlend(128, 0));      // the screen half starts at 128
  EXPECT_EQ(178, tables.OverlayBlend(100, 192));
  EXPECT_EQ(100, tables.OverlayBlend(200, 64));
}

TEST_F(LookupTables, ColorDodgeAndBurnEndPoints) {
  for (int v = 0; v < 256; ++v) {
    const unsigned char value = static_cast<unsigned char>(v);
    EXPECT_EQ(0, tables.ColorDodgeBlend(value, 0));  // a black backdrop stays black
    EXPECT_EQ(v == 0 ? 0 : 255, tables.ColorDodgeBlend(255, value));
    EXPECT_EQ(value, tables.ColorDodgeBlend(0, value));
    EXPECT_EQ(255, tables.ColorBurnBlend(value, 255));  // a white backdrop stays white
    EXPECT_EQ(v == 255 ? 255 : 0, tables.ColorBurnBlend(0, value));
    EXPECT_EQ(value, tables.ColorBurnBlend(255, value));
  }
  EXPECT_EQ(129, tables.ColorDodgeBlend(128, 64));  // 64 * 255 / 127 = 128.50
  EXPECT_EQ(255, tables.ColorDodgeBlend(200, 100));  // 463, clipped
  EXPECT_EQ(115, tables.ColorBurnBlend(100, 200));   // 255 - 55 * 255 / 100 = 114.75
  EXPECT_EQ(0, tables.ColorBurnBlend(50, 100));      // 255 - 790.5, clipped
}

TEST_F(LookupTables, SoftLightValues) {
  EXPECT_EQ(64, tables.SoftLightBlend(0, 128));   // d * d = 64.25
  EXPECT_EQ(96, tables.SoftLightBlend(64, 128));  // 96.25
  EXPECT_EQ(41, tables.SoftLightBlend(100, 50));  // 41.33
  EXPECT_EQ(128, tables.SoftLightBlend(255, 64));  // sqrt(64/255) * 255 = 127.75
  EXPECT_EQ(88, tables.SoftLightBlend(255, 32));   // the cubic below a quarter: 87.88
  EXPECT_EQ(130, tables.SoftLightBlend(192, 100));  // 130.19
  for (int t = 0; t < 256; ++t) {
    EXPECT_EQ(0, tables.SoftLightBlend(static_cast<unsigned char>(t), 0));
    EXPECT_EQ(255, tables.SoftLightBlend(static_cast<unsigned char>(t), 255));
  }
}

TEST(Geometry, RectScaleTruncatesTowardZero) {
  kvo::maths::KVRect rect(kvo::maths::KVPoint2(3, -5), 11, 7);
  rect.Scale(0.5);
  EXPECT_EQ(1, rect.TopLeft().X());
  EXPECT_EQ(-2, rect.TopLeft().Y());  // -2.5 toward zero
  EXPECT_EQ(5, rect.Width());
  EXPECT_EQ(3, rect.Height());
  kvo::maths::KVRect huge(kvo::maths::KVPoint2(1, 1), 1000, 1000);
  huge.Scale(std::numeric_limits<double>::quiet_NaN());  // defined, no UB
  EXPECT_EQ(INT_MIN, huge.Width());
}

TEST(Geometry, RectFixBoundsClipsToTheImage) {
  kvo::maths::KVRect overhanging(kvo::maths::KVPoint2(-5, -3), 20, 20);
  overhanging.FixBounds(10, 8);
  EXPECT_EQ(0, overhanging.TopLeft().X());
  EXPECT_EQ(0, overhanging.TopLeft().Y());
  EXPECT_EQ(10, overhanging.Width());
  EXPECT_EQ(8, overhanging.Height());

  kvo::maths::KVRect inside(kvo::maths::KVPoint2(5, 5), 10, 10);
  inside.FixBounds(8, 20);
  EXPECT_EQ(5, inside.TopLeft().X());
  EXPECT_EQ(3, inside.Width());
  EXPECT_EQ(10, inside.Height());

  kvo::maths::KVRect outside(kvo::maths::KVPoint2(20, 20), 5, 5);
  outside.FixBounds(10, 10);
  EXPECT_EQ(0, outside.Width());
  EXPECT_EQ(0, outside.Height());

  kvo::maths::KVRect extreme(kvo::maths::KVPoint2(INT_MAX - 1, 0), INT_MAX, 4);
  extreme.FixBounds(100, 100);
  EXPECT_EQ(0, extreme.Width());
  EXPECT_EQ(4, extreme.Height());
}

TEST(Conversions, TruncationTowardZeroAndIndefiniteValue) {
  using kvo::image::TruncateToInt;
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(2, TruncateToInt(2.9));
  EXPECT_EQ(-2, TruncateToInt(-2.9));
  EXPECT_EQ(0, TruncateToInt(-0.5));
  EXPECT_EQ(127, TruncateToInt(127.5));
  EXPECT_EQ(INT_MAX, TruncateToInt(2147483647.9));
  EXPECT_EQ(INT_MIN, TruncateToInt(-2147483648.9));
  EXPECT_EQ(INT_MIN, TruncateToInt(2147483648.0));  // 2^31
  EXPECT_EQ(INT_MIN, TruncateToInt(-2147483649.0));
  EXPECT_EQ(INT_MIN, TruncateToInt(std::nan("")));
  EXPECT_EQ(INT_MIN, TruncateToInt(inf));
  EXPECT_EQ(INT_MIN, TruncateToInt(-inf));

  using kvo::image::TruncateToInt64;
  EXPECT_EQ(-3, TruncateToInt64(-3.99));
  EXPECT_EQ(INT64_C(4294967296), TruncateToInt64(4294967296.5));
  EXPECT_EQ(INT64_MIN, TruncateToInt64(9223372036854775808.0));
  EXPECT_EQ(INT64_MIN, TruncateToInt64(std::nan("")));
  EXPECT_EQ(INT64_MIN, TruncateToInt64(-inf));

  using kvo::image::SaturateToUInt32;
  EXPECT_EQ(3u, SaturateToUInt32(3.7));
  EXPECT_EQ(0u, SaturateToUInt32(-1.0));
  EXPECT_EQ(0u, SaturateToUInt32(std::nan("")));
  EXPECT_EQ(4294967295u, SaturateToUInt32(1e20));
  EXPECT_EQ(4294967295u, SaturateToUInt32(inf));

  using kvo::image::ClampToByte;
  EXPECT_EQ(0, ClampToByte(-1));
  EXPECT_EQ(0, ClampToByte(INT_MIN));
  EXPECT_EQ(255, ClampToByte(256));
  EXPECT_EQ(200, ClampToByte(200));
}
