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
  const Bytes before(yuv);
  for (int j = 0; j < n; ++j) {
    const int lo = std::max(0, j - radius), hi = std::min(n - 1, j + radius);
    int s0 = 0, s1 = 0;
    for (int k = lo; k <= hi; ++k) s0 += before[at[k]], s1 += before[at[k] + 1];
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
  const StageSetter set = [=](KVImageProcessor& p) { return p.SetYUVBlur(radius, KVYUVBlurType(type)); };
  return RenderStageAt(set, pixels, width, height, threads, 1, 0);
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

TEST(YUVBlur, BoxBlursFollowTheirWalksForEveryShareLayout) {
  // The 601-wide image has shares wider than the columns the vertical pass
  // walks at once; radius 40 passes every image's width and height.
  const unsigned int shapes[][2] = {{5, 1}, {5, 6}, {12, 1}, {12, 6}, {13, 1}, {13, 6}, {14, 1}, {14, 6}, {601, 7}};
  for (const auto& shape : shapes) {
    const unsigned int width = shape[0], height = shape[1];
    const Bytes pixels = PatternBytes(width * height * 4, width * 10 + height);
    for (unsigned int threads : {1u, 2u, 3u, 7u}) {
      for (int type : {0, 1, 2}) {
        for (int radius : {1, 3, 40}) {
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

// The stack type blurs U and V with the stack blur and keeps Y and alpha.
TEST(YUVBlur, StackTypeBlursChromaOnly) {
  const unsigned int width = 15, height = 9, radius = 2;
  const Bytes pixels = PatternBytes(width * height * 4, 51);
  const bool chroma[4] = {true, true, false, false};
  const Bytes expected = FromYUV(ReferenceStackBlur(ToYUV(pixels), width, height, radius, chroma));
  for (unsigned threads : {1u, 7u}) EXPECT_EQ(expected, ProcessorYUVBlur(pixels, width, height, radius, 3, threads));
}

TEST(YUVBlur, BoxWindowsOfMoreThanFourMillionPixels) {
  // A row of 8.5 million pixels and a window over all of it: every pixel gets
  // the mean of the row, whose sum passes 2^31.
  const uint32_t width = 8500000;
  YUVBoxBlurData data = {1, 0, SharedByteArray(new Bytes(width * 4ull)), 1, width, width, 0};
  Bytes& row = *data.yuvPixels;
  uint64_t sums[2] = {0, 0};
  for (uint32_t x = 0; x < width; ++x) {
    row[x * 4ull] = static_cast<unsigned char>(250 + x % 6);
    row[x * 4ull + 1] = static_cast<unsigned char>(255 - x % 3);
    row[x * 4ull + 2] = 7;
    sums[0] += row[x * 4ull];
    sums[1] += row[x * 4ull + 1];
  }
  HorizontalYUVBlurProc(&data);
  for (uint32_t x = 0; x < width; ++x) {
    ASSERT_EQ(sums[0] / width, row[x * 4ull]) << x;
    ASSERT_EQ(sums[1] / width, row[x * 4ull + 1]) << x;
    ASSERT_EQ(7, row[x * 4ull + 2]);
  }
}

}  // namespace
