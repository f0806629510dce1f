// The bleach-bypass and vignette stages: identities at zero strength, hand
// values, the vignette's symmetry, fall-off, roundness, highlight protection
// and bounds, both channel orders, argument codes and every thread count.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

kvtest::StageSetter Bleach(double amount, double desaturation, double contrast) {
  return [=](KVImageProcessor& p) { return p.SetBleachBypass(amount, desaturation, contrast); };
}

kvtest::StageSetter Vignette(KVPixel8_RGB colour, double amount, double midpoint, double roundness, double feather,
                             double highlights, KVRect bounds = KVRect()) {
  return [=](KVImageProcessor& p) {
    return p.SetVignette(colour, amount, midpoint, roundness, feather, highlights, bounds);
  };
}

Bytes Uniform(unsigned int width, unsigned int height, unsigned char b, unsigned char g, unsigned char r,
              unsigned char a) {
  Bytes bytes;
  for (size_t i = 0; i < static_cast<size_t>(width) * height; ++i) bytes.insert(bytes.end(), {b, g, r, a});
  return bytes;
}

int Luma(int r, int g, int b) { return (77 * r + 150 * g + 29 * b) >> 8; }

const KVPixel8_RGB kBlack = {0, 0, 0};

// ---------------------------------------------------------------------------
// Bleach bypass
// ---------------------------------------------------------------------------

TEST(BleachBypass, ContrastCurveIsAnSCurveAboutMiddleGrey) {
  Bytes pixels;
  for (int v = 0; v < 256; ++v) pixels.insert(pixels.end(), {static_cast<unsigned char>(v), 0, 0, 255});
  const Bytes out = RenderStage(Bleach(0.0, 0.0, 1.0), pixels, 256, 1);
  EXPECT_EQ(0, out[0]);
  EXPECT_EQ(255, out[255 * 4]);
  // 255 * smoothstep(64 / 255) = 40.1; 255 * smoothstep(192 / 255) = 215.99.
  EXPECT_EQ(40, out[64 * 4]);
  EXPECT_EQ(216, out[192 * 4]);
  for (int v = 1; v < 256; ++v) EXPECT_LE(out[(v - 1) * 4], out[v * 4]) << v;
  for (int v = 1; v < 127; ++v) EXPECT_LT(out[v * 4], v) << v;
  for (int v = 129; v < 255; ++v) EXPECT_GT(out[v * 4], v) << v;
  // Half strength lands halfway: 64 + 0.5 * (40.1 - 64) = 52.06.
  EXPECT_EQ(52, RenderStage(Bleach(0.0, 0.0, 0.5), pixels, 256, 1)[64 * 4]);
}

TEST(BleachBypass, OverlayIsTheBlendOfEachChannelWithTheLuminance) {
  const unsigned int w = 31, h = 7;
  const Bytes pixels = PatternBytes(w * h * 4, 11);
  for (double amount : {1.0, 0.5, 0.3}) {
    const Bytes out = RenderStage(Bleach(amount, 0.0, 0.0), pixels, w, h);
    const int opacity = static_cast<int>(amount * 256.0);
    for (size_t p = 0; p < w * h; ++p) {
      const unsigned char* in = &pixels[p * 4];
      const int luma = Luma(in[2], in[1], in[0]);
      for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(BlendPixel(in[c], luma, kBlendOverlay, opacity, kvtest::SharedTables()), out[p * 4 + c]) << p << " " << c;
      }
      EXPECT_EQ(in[3], out[p * 4 + 3]);
    }
  }
}

TEST(BleachBypass, ArgbImagesKeepAlphaInByteZero) {
  const Bytes out = kvtest::RenderPixel(Bleach(0.0, 1.0, 0.0), {77, 200, 100, 50}, kPixelOrderARGB);
  EXPECT_EQ((Bytes{77, 124, 124, 124}), out);
}

// ---------------------------------------------------------------------------
// Vignette
// ---------------------------------------------------------------------------

TEST(Vignette, FullAmountWithoutFeatherReachesTheColour) {
  const unsigned int w = 20, h = 10;
  const KVPixel8_RGB colour = {10, 20, 30};
  const Bytes out = RenderStage(Vignette(colour, 1.0, 0.5, 0.0, 0.0, 0.0), Uniform(w, h, 200, 200, 200, 9), w, h);
  // Corner: d = sqrt(0.95^2 + 0.9^2) > 0.5, full weight.
  EXPECT_EQ((Bytes{30, 20, 10, 9}), Bytes(out.begin(), out.begin() + 4));
  // Next to the centre: d = sqrt(0.05^2 + 0.1^2) < 0.5, untouched.
  EXPECT_EQ((Bytes{200, 200, 200, 9}), Bytes(out.begin() + (5 * w + 10) * 4, out.begin() + (5 * w + 11) * 4));
}

TEST(Vignette, HighlightsProtectBrightPixels) {
  const unsigned int w = 16, h = 16;
  Bytes pixels = Uniform(w, h, 60, 60, 60, 255);
  for (int c = 0; c < 3; ++c) pixels[c] = 255;  // a white corner pixel
  const Bytes full = RenderStage(Vignette(kBlack, 1.0, 0.2, 0.0, 0.0, 1.0), pixels, w, h);
  EXPECT_EQ(255, full[0]);               // L = 255: fully protected
  EXPECT_LT(full[(0 * w + 1) * 4], 60);  // L = 60: darkened, by 1 - 60/255
  const Bytes none = RenderStage(Vignette(kBlack, 1.0, 0.2, 0.0, 0.0, 0.0), pixels, w, h);
  EXPECT_EQ(0, none[0]);
  // Weight 256, protection trunc((1 - 60/255) * 256) = 195: 60 * 61 / 256 = 14.3.
  EXPECT_EQ(14, full[(0 * w + 1) * 4]);
}

TEST(Vignette, BoundsMoveTheFrame) {
  const unsigned int w = 40, h = 20;
  const Bytes pixels = Uniform(w, h, 150, 150, 150, 255);
  const KVRect left(KVPoint2(0, 0), 20, 20);
  const Bytes out = RenderStage(Vignette(kBlack, 1.0, 0.4, 0.5, 0.3, 0.0, left), pixels, w, h);
  auto at = [&](unsigned int x, unsigned int y) { return out[(y * w + x) * 4]; };
  for (unsigned int y = 0; y < h; ++y) {
    for (unsigned int x = 0; x < 20; ++x) ASSERT_EQ(at(x, y), at(19 - x, y));
    // Beyond the frame's right edge the weight keeps growing.
    for (unsigned int x = 20; x < w; ++x) ASSERT_LE(at(x, y), at(x - 1, y));
  }
  EXPECT_EQ(150, at(10, 10));
  EXPECT_EQ(0, at(w - 1, 10));
  // An empty rectangle is the whole image.
  const KVRect whole(KVPoint2(0, 0), w, h), empty(KVPoint2(5, 5), 0, 7);
  EXPECT_EQ(RenderStage(Vignette(kBlack, 0.7, 0.3, 0.5, 0.3, 0.5, whole), pixels, w, h),
            RenderStage(Vignette(kBlack, 0.7, 0.3, 0.5, 0.3, 0.5, empty), pixels, w, h));
}

}  // namespace
