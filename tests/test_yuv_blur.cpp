// The YUV blur stage: conversions, box blurs, chroma stack blur, setters.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <cmath>

#include "BlurReference.h"
#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {


// Luma/chroma form: byte 0 V, 1 U, 2 Y, 3 alpha.
Bytes ToYUV(const Bytes& bgra) {
  Bytes out(bgra.size());
  for (size_t i = 0; i < bgra.size(); i += 4) {
    const int b = bgra[i], g = bgra[i + 1], r = bgra[i + 2];
    const int y = static_cast<int>(r * 0.299) + static_cast<int>(g * 0.587) + static_cast<int>(b * 0.114);
    out[i] = static_cast<unsigned char>(static_cast<int>((r - y) * 0.713) + 128);
    out[i + 1] = static_cast<unsigned char>(static_cast<int>((b - y) * 0.565) + 128);
    out[i + 2] = static_cast<unsigned char>(y);
    out[i + 3] = bgra[i + 3];
  }
  return out;
}

unsigned char Clamp(int v) { return static_cast<unsigned char>(v < 0 ? 0 : v > 255 ? 255 : v); }

Bytes FromYUV(const Bytes& yuv) {
  Bytes out(yuv.size());
  for (size_t i = 0; i < yuv.size(); i += 4) {
    const int v = yuv[i] - 128, u = yuv[i + 1] - 128, y = yuv[i + 2];
    out[i] = Clamp(y + static_cast<int>(u * 1.77));
    out[i + 1] = Clamp(y - static_cast<int>(u * 0.344) - static_cast<int>(v * 0.714));
    out[i + 2] = Clamp(y + static_cast<int>(v * 1.403));
    out[i + 3] = yuv[i + 3];
  }
  return out;
}

// Replaces bytes 0 and 1 at the given byte offsets with the mean of the
// values within radius positions, the window clipped to the list.
void ClippedMeanWalk(Bytes& yuv, const std::vector<size_t>& at, int radius) {
  const int n = static_cast<int>(at.size());
  Bytes before0(n), before1(n);
  for (int j = 0; j < n; ++j) before0[j] = yuv[at[j]], before1[j] = yuv[at[j] + 1];
  for (int j = 0; j < n; ++j) {
    const int lo = std::max(0, j - radius), hi = std::min(n - 1, j + radius);
    int s0 = 0, s1 = 0;
    for (int k = lo; k <= hi; ++k) s0 += before0[k], s1 += before1[k];
    yuv[at[j]] = static_cast<unsigned char>(s0 / (hi - lo + 1));
    yuv[at[j] + 1] = static_cast<unsigned char>(s1 / (hi - lo + 1));
  }
}

void ReferenceHorizontalBox(Bytes& yuv, int width, int height, int radius) {
  for (int y = 0; y < height; ++y) {
    std::vector<size_t> at;
    for (int x = 0; x < width; ++x) at.push_back((static_cast<size_t>(y) * width + x) * 4);
    ClippedMeanWalk(yuv, at, radius);
  }
}

// Every share walks its columns, then the column past its end (the next
// share's first column, or columns 0, 1, ... from row 1 down past the right
// edge), each column walk stopping at width*4*height - 4*share + 4*k.
void ReferenceVerticalBox(Bytes& yuv, int width, int height, int radius, int threads) {
  const int share = static_cast<int>(std::ceil(static_cast<double>(width) / threads));
  const long long bytes = 4LL * width * height;
  auto walk = [&](int first, int k) {
    std::vector<size_t> at;
    const long long bound = bytes - 4LL * share + 4LL * k;
    for (long long p = 4LL * (first + k); p < bound; p += 4LL * width) at.push_back(static_cast<size_t>(p));
    ClippedMeanWalk(yuv, at, radius);
  };
  for (int t = 0; t < threads; ++t) {
    const int first = t * share;
    for (int k = 0; first < width && k < std::min(share, width - first); ++k) walk(first, k);
  }
  for (int t = 0; t < threads; ++t) {
    const int first = t * share;
    for (int k = std::min(share, width - first); first < width && k <= share; ++k) walk(first, k);
  }
}

Bytes ProcessorYUVBlur(const Bytes& pixels, unsigned int width, unsigned int height, unsigned int radius, int type,
                       unsigned int threads) {
  return RenderStageAt([=](KVImageProcessor& p) { return p.SetYUVBlur(radius, static_cast<KVYUVBlurType>(type)); },
                       pixels, width, height, threads, 1, 0);
}

TEST(YUVBlur, ConversionRoundTripByHand) {
  // Grey 100: Y = 29 + 58 + 11 = 98, V = U = 128 + 1; back: blue 98 + 1,
  // green 98, red 98 + 1. Pure red: Y 76, V 255, U 86; back (2, 0, 254).
  Bytes pixels = {100, 100, 100, 7, 0, 0, 255, 200};
  const Bytes expected = {99, 98, 99, 7, 2, 0, 254, 200};
  for (int type : {0, 1, 2, 3, 4, 99, -1}) EXPECT_EQ(expected, ProcessorYUVBlur(pixels, 2, 1, 0, type, 2)) << type;
}

TEST(YUVBlur, BlurredChromaIsClampedOnTheWayBack) {
  // White (V = U = 128, Y 254) and blue (V 108, U 255, Y 29) averaged: V 118,
  // U 191. White's blue 254 + 111 = 365 clamps to 255.
  const Bytes pixels = {255, 255, 255, 255, 255, 0, 0, 255};
  const Bytes expected = {255, 240, 240, 255, 140, 15, 15, 255};
  EXPECT_EQ(expected, ProcessorYUVBlur(pixels, 2, 1, 1, 0, 1));
}

// The walk record of one thread over the given luma/chroma bytes, phase 0.
YUVBoxBlurData OneThreadBox(const Bytes& yuv, uint32_t width, uint32_t height, uint32_t radius) {
  YUVBoxBlurData data;
  data.threadCount = 1;
  data.threadIndex = 0;
  data.yuvPixels.reset(new Bytes(yuv));
  data.width = width;
  data.height = height;
  data.radius = radius;
  data.phase = 0;
  return data;
}

TEST(YUVBlur, HorizontalBoxWindowsAreClippedAtTheRowEnds) {
  Bytes yuv(5 * 4);
  const unsigned char values[5] = {10, 20, 40, 80, 160};
  for (int x = 0; x < 5; ++x) yuv[x * 4] = values[x], yuv[x * 4 + 1] = values[4 - x], yuv[x * 4 + 2] = 1, yuv[x * 4 + 3] = 2;
  const unsigned char radius1[5] = {15, 23, 46, 93, 120};   // (10+20)/2, 70/3, 140/3, 280/3, 240/2
  const unsigned char radius2[5] = {23, 37, 62, 75, 93};    // 70/3, 150/4, 310/5, 300/4, 280/3
  for (unsigned int radius : {1u, 2u}) {
    YUVBoxBlurData data = OneThreadBox(yuv, 5, 1, radius);
    EXPECT_EQ(nullptr, HorizontalYUVBlurProc(&data));
    const unsigned char* expected = radius == 1 ? radius1 : radius2;
    for (int x = 0; x < 5; ++x) {
      EXPECT_EQ(expected[x], (*data.yuvPixels)[x * 4]) << radius << " " << x;
      EXPECT_EQ(expected[4 - x], (*data.yuvPixels)[x * 4 + 1]) << radius << " " << x;
      EXPECT_EQ(1, (*data.yuvPixels)[x * 4 + 2]);
      EXPECT_EQ(2, (*data.yuvPixels)[x * 4 + 3]);
    }
  }
}

TEST(YUVBlur, VerticalBoxWalksTheNextColumnAfterItsOwner) {
  // 2x3, one thread, radius 1: columns 0 and 1 are walked over rows 0..1
  // (the bottom row lies beyond the bound), then the column past the right
  // edge walks column 0 from row 1 down on the values just written.
  // Column 0: [10, 30, 100] -> [20, 20, 100] -> [20, 60, 60].
  // Column 1: [50, 70, 90] -> [60, 60, 90].
  Bytes yuv(2 * 3 * 4, 0);
  const unsigned char column0[3] = {10, 30, 100}, column1[3] = {50, 70, 90};
  for (int y = 0; y < 3; ++y) yuv[y * 8] = column0[y], yuv[y * 8 + 4] = column1[y];
  YUVBoxBlurData data = OneThreadBox(yuv, 2, 3, 1);
  for (data.phase = 0; data.phase < 2; ++data.phase) VerticalYUVBlurProc(&data);
  const unsigned char expected0[3] = {20, 60, 60}, expected1[3] = {60, 60, 90};
  for (int y = 0; y < 3; ++y) {
    EXPECT_EQ(expected0[y], (*data.yuvPixels)[y * 8]) << y;
    EXPECT_EQ(expected1[y], (*data.yuvPixels)[y * 8 + 4]) << y;
  }
}

TEST(YUVBlur, BoxBlursFollowTheirWalksForEveryShareLayout) {
  for (unsigned int width : {5u, 12u, 13u, 14u}) {
    for (unsigned int height : {1u, 6u}) {
      const Bytes pixels = PatternBytes(width * height * 4, width * 10 + height);
      for (unsigned int threads : {1u, 2u, 3u, 7u}) {
        for (int type : {0, 1, 2}) {
          for (int radius : {1, 3}) {
            Bytes yuv = ToYUV(pixels);
            if (type != 1) ReferenceHorizontalBox(yuv, width, height, radius);
            if (type != 0) ReferenceVerticalBox(yuv, width, height, radius, threads);
            EXPECT_EQ(FromYUV(yuv), ProcessorYUVBlur(pixels, width, height, radius, type, threads))
                << width << "x" << height << " threads " << threads << " type " << type << " r" << radius;
          }
        }
      }
    }
  }
  // Shares wider than the columns the vertical pass walks at once, and radii
  // at and past the image's height.
  const unsigned int width = 601, height = 7;
  const Bytes pixels = PatternBytes(width * height * 4, 77);
  for (unsigned int threads : {1u, 2u, 3u}) {
    for (int radius : {0, 2, 6, 7, 40}) {
      Bytes yuv = ToYUV(pixels);
      ReferenceHorizontalBox(yuv, width, height, radius);
      ReferenceVerticalBox(yuv, width, height, radius, threads);
      EXPECT_EQ(FromYUV(yuv), ProcessorYUVBlur(pixels, width, height, radius, 2, threads))
          << "threads " << threads << " r" << radius;
    }
  }
}

// The stack type blurs U and V with the stack blur and keeps Y and alpha.
TEST(YUVBlur, StackTypeBlursChromaOnly) {
  const unsigned int width = 15, height = 9, radius = 2;
  const Bytes pixels = PatternBytes(width * height * 4, 51);
  const bool chroma[4] = {true, true, false, false};
  const Bytes expected = FromYUV(kvtest::ReferenceStackBlur(ToYUV(pixels), width, height, radius, chroma));
  for (unsigned int threads = 1; threads <= 16; ++threads) {
    EXPECT_EQ(expected, ProcessorYUVBlur(pixels, width, height, radius, 3, threads)) << threads;
  }
  const Bytes out = ProcessorYUVBlur(pixels, width, height, radius, 3, 2);
  for (size_t i = 3; i < out.size(); i += 4) ASSERT_EQ(pixels[i], out[i]);
}

TEST(YUVBlur, BoxWindowsOfMoreThanFourMillionPixels) {
  // A row of 8.5 million pixels and a window over all of it: every pixel gets
  // the mean of the row, whose sum passes 2^31.
  const uint32_t width = 8500000;
  YUVBoxBlurData data = OneThreadBox(Bytes(static_cast<size_t>(width) * 4), width, 1, width);
  uint64_t sums[2] = {0, 0};
  for (uint32_t x = 0; x < width; ++x) {
    unsigned char* p = data.yuvPixels->data() + static_cast<size_t>(x) * 4;
    p[0] = static_cast<unsigned char>(250 + x % 6);
    p[1] = static_cast<unsigned char>(255 - x % 3);
    p[2] = 7;
    sums[0] += p[0];
    sums[1] += p[1];
  }
  HorizontalYUVBlurProc(&data);
  for (uint32_t x = 0; x < width; ++x) {
    const unsigned char* p = data.yuvPixels->data() + static_cast<size_t>(x) * 4;
    ASSERT_EQ(sums[0] / width, p[0]) << x;
    ASSERT_EQ(sums[1] / width, p[1]) << x;
    ASSERT_EQ(7, p[2]);
  }
}

}  // namespace
