// Saturation, hue shift and hue colorize, and the integer HLS conversions.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <vector>

#include "TestSupport.h"
#include "renderers/colour/HLSModel.h"
#include "renderers/colour/HueStagePixels.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

typedef kvtest::StageSetter Setter;

// BGRA bytes of a red, green, blue colour with an alpha.
Bytes Bgra(int red, int green, int blue, int alpha) {
  return Bytes{static_cast<unsigned char>(blue), static_cast<unsigned char>(green), static_cast<unsigned char>(red),
               static_cast<unsigned char>(alpha)};
}

Setter Saturation(double s) {
  return [s](KVImageProcessor& p) { return p.SetSaturation(s); };
}
Setter HueShift(double shift, double amount) {
  return [=](KVImageProcessor& p) { return p.SetHueShift(shift, amount); };
}
Setter HueColorize(double hue, double amount) {
  return [=](KVImageProcessor& p) { return p.SetHueColorize(hue, amount); };
}

struct RgbHls {
  int red, green, blue;
  int hue, lightness, saturation;
};

}  // namespace

TEST(HLSConversion, RGBtoHLSOnListedColours) {
  const RgbHls cases[] = {
      {255, 0, 0, 0, 180, 360},     {0, 255, 0, 120, 180, 360},   {0, 0, 255, 240, 180, 360},
      {255, 255, 0, 60, 180, 360},  {0, 255, 255, 180, 180, 360}, {255, 0, 255, 300, 180, 360},
      {128, 128, 128, -1, 181, 0},  {0, 0, 0, -1, 0, 0},          {255, 255, 255, -1, 360, 0},
      {200, 100, 50, 20, 176, 216}, {10, 200, 40, 129, 148, 326}, {30, 60, 90, 210, 85, 180},
  };
  for (const RgbHls& c : cases) {
    const KVPixel8_RGB rgb = {static_cast<unsigned char>(c.red), static_cast<unsigned char>(c.green),
                              static_cast<unsigned char>(c.blue)};
    KVPixel8_HLS hls = {7, 7, 7};
    ConvertRGBtoHLS(rgb, hls);
    EXPECT_EQ(c.hue, hls.hue) << c.red << "," << c.green << "," << c.blue;
    EXPECT_EQ(c.lightness, hls.lightness) << c.red << "," << c.green << "," << c.blue;
    EXPECT_EQ(c.saturation, hls.saturation) << c.red << "," << c.green << "," << c.blue;
  }
}

TEST(HLSConversion, RGBtoHLSMatchesPlainDivisionAcrossTheCube) {
  for (int red = 0; red < 256; red += 5) {
    for (int green = 0; green < 256; green += 5) {
      for (int blue = 0; blue < 256; blue += 5) {
        const int max = std::max(red, std::max(green, blue)), min = std::min(red, std::min(green, blue));
        const int sum = max + min, delta = max - min;
        int hue = -1, saturation = 0;
        const int lightness = (sum * 360 + 255) / 510;
        if (delta != 0) {
          saturation = lightness <= 180 ? (delta * 360 + sum / 2) / sum : (delta * 360 + (510 - sum) / 2) / (510 - sum);
          auto below = [&](int x) { return ((max - x) * 60 + delta / 2) / delta; };
          hue = red == max ? below(blue) - below(green)
                           : (green == max ? 120 + below(red) - below(blue) : 240 + below(green) - below(red));
          if (hue < 0) hue += 360;
          if (hue > 360) hue -= 360;
        }
        KVPixel8_HLS hls;
        ConvertRGBtoHLS(KVPixel8_RGB{static_cast<unsigned char>(red), static_cast<unsigned char>(green),
                                     static_cast<unsigned char>(blue)},
                        hls);
        ASSERT_EQ(hue, hls.hue) << red << "," << green << "," << blue;
        ASSERT_EQ(lightness, hls.lightness) << red << "," << green << "," << blue;
        ASSERT_EQ(saturation, hls.saturation) << red << "," << green << "," << blue;
      }
    }
  }
}

TEST(HLSConversion, HLStoRGBOfGreysAndTheUnwrittenCase) {
  KVPixel8_RGB out = {1, 2, 3};
  ConvertHLStoRGB(KVPixel8_HLS{-1, 180, 0}, out);
  EXPECT_EQ(127, out.red);
  EXPECT_EQ(127, out.green);
  EXPECT_EQ(127, out.blue);

  // A grey with a defined hue writes nothing.
  KVPixel8_RGB preset = {1, 2, 3};
  ConvertHLStoRGB(KVPixel8_HLS{10, 200, 0}, preset);
  EXPECT_EQ(1, preset.red);
  EXPECT_EQ(2, preset.green);
  EXPECT_EQ(3, preset.blue);
}

TEST(HLSConversion, RoundTripsOfPrimariesSecondariesAndGreysAreExact) {
  const unsigned char exact[][3] = {{255, 0, 0},     {0, 255, 0},     {0, 0, 255},   {255, 255, 0}, {0, 255, 255},
                                    {255, 0, 255},   {0, 0, 0},       {255, 255, 255}, {128, 128, 128},
                                    {200, 100, 50}};
  for (const auto& c : exact) {
    const KVPixel8_RGB rgb = {c[0], c[1], c[2]};
    KVPixel8_HLS hls;
    ConvertRGBtoHLS(rgb, hls);
    KVPixel8_RGB back = {9, 9, 9};
    ConvertHLStoRGB(hls, back);
    EXPECT_EQ(rgb.red, back.red);
    EXPECT_EQ(rgb.green, back.green);
    EXPECT_EQ(rgb.blue, back.blue);
  }
  // Not every colour survives: the integer model moves these by a level.
  KVPixel8_HLS hls;
  KVPixel8_RGB back = {0, 0, 0};
  ConvertRGBtoHLS(KVPixel8_RGB{10, 200, 40}, hls);
  ConvertHLStoRGB(hls, back);
  EXPECT_EQ(38, back.blue);
}

TEST(Saturation, ExamplesOnOnePixel) {
  // The grey is the maximum, not a luminance; alpha is kept.
  EXPECT_EQ(Bytes({200, 200, 200, 99}), RenderPixel(Saturation(0.0), Bytes{10, 200, 40, 99}));
  // Factor 1 loses a level to truncation of p, q and t.
  EXPECT_EQ(Bytes({9, 200, 39, 99}), RenderPixel(Saturation(1.0), Bytes{10, 200, 40, 99}));
  EXPECT_EQ(Bytes({0, 200, 31, 99}), RenderPixel(Saturation(2.0), Bytes{10, 200, 40, 99}));
  EXPECT_EQ(Bytes({125, 150, 200, 1}), RenderPixel(Saturation(0.5), Bytes{50, 100, 200, 1}));
  EXPECT_EQ(Bytes({200, 66, 0, 0}), RenderPixel(Saturation(1.5), Bytes{200, 100, 50, 0}));
  EXPECT_EQ(Bytes({0, 0, 0, 5}), RenderPixel(Saturation(2.0), Bytes{0, 0, 0, 5}));
}

TEST(Saturation, AnyChannelOrderIsProcessedAsBlueGreenRedAlpha) {
  EXPECT_EQ(Bytes({200, 200, 200, 99}), RenderPixel(Saturation(0.0), Bytes{10, 200, 40, 99}, kPixelOrderARGB));
}

TEST(HueShift, ExamplesOnOnePixel) {
  // Red shifted by 120 becomes blue.
  EXPECT_EQ(Bgra(0, 0, 255, 33), RenderPixel(HueShift(120, 1.0), Bgra(255, 0, 0, 33)));
  EXPECT_EQ(Bgra(100, 50, 200, 33), RenderPixel(HueShift(120, 1.0), Bgra(200, 100, 50, 33)));
  EXPECT_EQ(Bgra(150, 75, 125, 33), RenderPixel(HueShift(120, 0.5), Bgra(200, 100, 50, 33)));
  // Greys keep their colour.
  EXPECT_EQ(Bgra(128, 128, 128, 4), RenderPixel(HueShift(77, 1.0), Bgra(128, 128, 128, 4)));
  // The round trip at shift 0 moves some colours.
  EXPECT_EQ(Bgra(10, 200, 38, 4), RenderPixel(HueShift(0, 1.0), Bgra(10, 200, 40, 4)));
  EXPECT_EQ(Bgra(10, 200, 38, 4), RenderPixel(HueShift(360, 1.0), Bgra(10, 200, 40, 4)));
}

TEST(HueColorize, ExamplesOnOnePixel) {
  EXPECT_EQ(Bgra(50, 50, 200, 250), RenderPixel(HueColorize(240, 1.0), Bgra(200, 100, 50, 250)));
  EXPECT_EQ(Bgra(162, 87, 87, 250), RenderPixel(HueColorize(240, 0.25), Bgra(200, 100, 50, 250)));
  EXPECT_EQ(Bgra(128, 128, 128, 250), RenderPixel(HueColorize(240, 1.0), Bgra(128, 128, 128, 250)));
}

TEST(HueStages, ChannelOrderTwoReadsAndWritesOneByteApart) {
  // Amount 0: source bytes 0, 1, 2, 3 land in destination bytes 1, 2, 3, 0.
  const Bytes pixels = kvtest::PatternBytes(7 * 3 * 4, 9);
  Bytes moved(pixels.size());
  for (size_t i = 0; i < pixels.size(); i += 4) {
    moved[i + 1] = pixels[i + 0];
    moved[i + 2] = pixels[i + 1];
    moved[i + 3] = pixels[i + 2];
    moved[i + 0] = pixels[i + 3];
  }
  EXPECT_EQ(moved, RenderStage(HueColorize(120, 0.0), pixels, 7, 3, 3, 1, kPixelOrderARGB));
  EXPECT_EQ(moved, RenderStage(HueShift(30, 0.0), pixels, 7, 3, 3, 1, kPixelOrderARGB));

  // Amount 1: bytes 0, 1, 2 are the colour (red, green, blue), its result
  // goes to bytes 1, 2, 3 and byte 3 to byte 0.
  EXPECT_EQ(Bytes({33, 0, 0, 255}), RenderPixel(HueShift(120, 1.0), Bytes{255, 0, 0, 33}, kPixelOrderARGB));
  EXPECT_EQ(Bytes({250, 50, 50, 200}),
            RenderPixel(HueColorize(240, 1.0), Bytes{200, 100, 50, 250}, kPixelOrderARGB));
}

namespace {

// An image that reports a depth other than 8 bits.
class OneBitImage : public KVImage8 {
 public:
  OneBitImage(unsigned char* buffer, unsigned int width, unsigned int height)
      : KVImage8(buffer, width, height, kPixelOrderBGRA) {}
  unsigned int BitsPerChannel() const override { return 1; }
};

}  // namespace

// The eight-pixel path against the pixel-by-pixel one (capped with
// kWiderNone): every colour, odd sizes, misaligned buffers, thread counts.
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const unsigned int kColourStep = 97;  // instrumented builds sample the cube
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
const unsigned int kColourStep = 97;
#else
const unsigned int kColourStep = 1;
#endif
#else
const unsigned int kColourStep = 1;
#endif

// Runs a stage directly on one thread over a width x height image.
Bytes RenderDirectly(AbstractRenderer& stage, const Bytes& pixels, unsigned int width, unsigned int height,
                     KVPixelChannelOrder order) {
  Bytes in(pixels), out(pixels.size(), 0);
  KVImage8 source(in.data(), width, height, order), destination(out.data(), width, height, order);
  stage.Setup(&source);
  EXPECT_EQ(0, stage.Render(&source, &destination, 0, 1));
  return out;
}

// Part `part` of `parts` of the colour cube (every step-th colour), as BGRA
// pixels with varied alpha, in rows of 4096.
Bytes ColourCubePart(unsigned int part, unsigned int parts, unsigned int step, unsigned int& width,
                     unsigned int& height) {
  const uint32_t colours = 1u << 24, begin = colours / parts * part, end = colours / parts * (part + 1);
  width = 4096;
  height = ((end - begin) / step + width) / width;
  Bytes pixels(static_cast<size_t>(width) * height * 4);
  size_t i = 0;
  for (uint32_t c = begin; c < end; c += step, i += 4) {
    pixels[i] = static_cast<unsigned char>(c);
    pixels[i + 1] = static_cast<unsigned char>(c >> 8);
    pixels[i + 2] = static_cast<unsigned char>(c >> 16);
    pixels[i + 3] = static_cast<unsigned char>(c * 37 >> 3);
  }
  for (; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7);
  return pixels;
}

// The cube is split between the stages (one setting each), so a full sweep
// converts every colour once; sparse > 1 samples it for the side cases.
template <class Stage>
void ExpectWiderPathMatchesOnEveryColour(const std::vector<Stage>& stages, KVPixelChannelOrder order,
                                         unsigned int sparse = 1) {
  const unsigned int parts = static_cast<unsigned int>(stages.size());
  for (unsigned int part = 0; part < parts; ++part) {
    unsigned int width = 0, height = 0;
    const Bytes pixels = ColourCubePart(part, parts, kColourStep * sparse, width, height);
    Stage wide = stages[part], narrow = stages[part];
    const Bytes expected = [&] {
      kvtest::ScopedWiderExtension plain(kvtl::kWiderNone);
      return RenderDirectly(narrow, pixels, width, height, order);
    }();
    const Bytes actual = RenderDirectly(wide, pixels, width, height, order);
    ASSERT_EQ(expected.size(), actual.size());
    if (expected == actual) continue;
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_EQ(expected[i], actual[i]) << "part " << part << " byte " << i << " of pixel " << int(pixels[i & ~3u])
                                        << "," << int(pixels[(i & ~3u) + 1]) << "," << int(pixels[(i & ~3u) + 2]);
    }
  }
}

// Plain against wider through the processor: odd sizes, offset buffers with
// guards, untouched input, several thread counts.
void ExpectWiderPathMatchesOnOddShapes(const Setter& set, KVPixelChannelOrder order = kPixelOrderBGRA) {
  const unsigned int sizes[][2] = {{1, 1}, {7, 3}, {17, 5}, {33, 9}, {97, 31}};
  const unsigned int threadCounts[] = {1, 2, 3, 7, 16};
  for (const auto& size : sizes) {
    const Bytes pixels = kvtest::PatternBytes(size[0] * size[1] * 4, size[0] + size[1]);
    for (unsigned int threads : threadCounts) {
      for (size_t offset = 0; offset < 2; ++offset) {
        Bytes expected;
        {
          kvtest::ScopedWiderExtension plain(kvtl::kWiderNone);
          expected = RenderStage(set, pixels, size[0], size[1], threads, offset, order);
        }
        EXPECT_EQ(expected, RenderStage(set, pixels, size[0], size[1], threads, offset, order))
            << size[0] << "x" << size[1] << " threads " << threads << " offset " << offset;
      }
    }
  }
}

}  // namespace

TEST(HLSFastPath, ConstantDivisionsAreExactOverTheirRanges) {
  for (uint32_t n = 0; n < (1u << 19); ++n) ASSERT_EQ(n / 360, hls::DivideBy360(n)) << n;
  for (uint32_t n = 0; n < (1u << 18); ++n) ASSERT_EQ(n / 60, hls::DivideBy60(n)) << n;
  for (uint32_t level = 0; level * 51 + 36 < (1u << 16); ++level) {
    ASSERT_EQ((level * 255 + 180) / 360, hls::ComponentOfLevel(level)) << level;
  }
  for (uint32_t sum = 0; sum <= 510; ++sum) ASSERT_EQ((sum * 360 + 255) / 510, hls::LightnessOfSum(sum)) << sum;
}

TEST(HLSFastPath, HueShiftMatchesOnEveryColour) {
  const std::vector<HueShiftRenderer> stages = {HueShiftRenderer(45.0, 0.8), HueShiftRenderer(0.0, 1.0),
                                                HueShiftRenderer(360.0, 0.3), HueShiftRenderer(187.25, 0.0)};
  ExpectWiderPathMatchesOnEveryColour(stages, kPixelOrderBGRA);
}

TEST(HLSFastPath, HueColorizeMatchesOnEveryColour) {
  const std::vector<HueColorizeRenderer> stages = {HueColorizeRenderer(200.0, 0.8), HueColorizeRenderer(0.0, 1.0),
                                                   HueColorizeRenderer(360.0, 0.55), HueColorizeRenderer(359.9, 0.25)};
  ExpectWiderPathMatchesOnEveryColour(stages, kPixelOrderBGRA);
}

TEST(HLSFastPath, HueStagesMatchInChannelOrderTwo) {
  const std::vector<HueShiftRenderer> shifts = {HueShiftRenderer(300.0, 0.65), HueShiftRenderer(90.5, 1.0)};
  ExpectWiderPathMatchesOnEveryColour(shifts, kPixelOrderARGB, 13);
  ExpectWiderPathMatchesOnOddShapes(HueColorize(33.3, 0.7), kPixelOrderARGB);
}

TEST(HLSFastPath, SaturationMatchesOnEveryColour) {
  const std::vector<SaturationRenderer> stages = {SaturationRenderer(1.4, nullptr), SaturationRenderer(0.0, nullptr),
                                                  SaturationRenderer(1.0, nullptr), SaturationRenderer(2.0, nullptr),
                                                  SaturationRenderer(0.37, nullptr)};
  ExpectWiderPathMatchesOnEveryColour(stages, kPixelOrderBGRA);
}
