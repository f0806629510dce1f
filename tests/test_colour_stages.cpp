// The colour stages as rows of formulas: per stage and arguments, an
// independent per-byte or per-pixel model (or hand-computed bytes) checked
// over a ramp or pattern image, plus each stage's own quirks: share-shaped
// vector paths, a vector path one lower, unknown channel selections, orders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "TestSupport.h"
#include "renderers/colour/HLSModel.h"
#include "renderers/colour/HueStagePixels.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

typedef std::function<AbstractRenderer*(const kvtl::CPUExtensions&)> Make;

// One stage built for `path`, rendered directly as `threads` threads into a
// destination prefilled with `prefill`.
Bytes Direct(const Make& make, const kvtl::CPUExtensions& path, const Bytes& pixels, unsigned int width,
             unsigned int height, unsigned int threads = 1, KVPixelChannelOrder order = kPixelOrderBGRA,
             unsigned char prefill = 0) {
  std::unique_ptr<AbstractRenderer> stage(make(path));
  Bytes in(pixels), out(pixels.size(), prefill);
  KVImage8 source(in.data(), width, height, order), destination(out.data(), width, height, order);
  stage->Setup(&source);
  for (unsigned int t = 0; t < threads; ++t) {
    EXPECT_EQ(0, stage->Render(&source, &destination, static_cast<unsigned char>(t), static_cast<unsigned char>(threads)));
  }
  return out;
}

template <class Stage, class... Arguments>
Make Build(Arguments... arguments) {
  return [=](const kvtl::CPUExtensions&) -> AbstractRenderer* { return new Stage(arguments...); };
}
template <class Stage, class... Arguments>
Make BuildFor(Arguments... arguments) {
  return [=](const kvtl::CPUExtensions& path) -> AbstractRenderer* { return new Stage(arguments..., path); };
}

// ---------------------------------------------------------------------------
// The integer HLS model
// ---------------------------------------------------------------------------

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

TEST(HLSConversion, RoundTripsGreysAndTheUnwrittenCase) {
  // Primaries, secondaries and greys come back exactly; not every colour does.
  const unsigned char trips[][6] = {{255, 0, 0, 255, 0, 0},       {0, 255, 0, 0, 255, 0},
                                    {0, 0, 255, 0, 0, 255},       {255, 255, 0, 255, 255, 0},
                                    {255, 255, 255, 255, 255, 255}, {0, 255, 255, 0, 255, 255},
                                    {255, 0, 255, 255, 0, 255},   {0, 0, 0, 0, 0, 0},
                                    {128, 128, 128, 128, 128, 128}, {200, 100, 50, 200, 100, 50},
                                    {10, 200, 40, 10, 200, 38}};
  for (const auto& t : trips) {
    KVPixel8_HLS hls;
    ConvertRGBtoHLS(KVPixel8_RGB{t[0], t[1], t[2]}, hls);
    KVPixel8_RGB back = {9, 9, 9};
    ConvertHLStoRGB(hls, back);
    EXPECT_EQ(Bytes(t + 3, t + 6), Bytes({back.red, back.green, back.blue})) << int(t[0]) << "," << int(t[1]);
  }
  KVPixel8_RGB out = {1, 2, 3};
  ConvertHLStoRGB(KVPixel8_HLS{-1, 180, 0}, out);
  EXPECT_EQ(Bytes({127, 127, 127}), Bytes({out.red, out.green, out.blue}));
  // A grey with a defined hue writes nothing.
  ConvertHLStoRGB(KVPixel8_HLS{10, 200, 0}, out = {1, 2, 3});
  EXPECT_EQ(Bytes({1, 2, 3}), Bytes({out.red, out.green, out.blue}));
}

TEST(HLSFastPath, ConstantDivisionsAreExactOverTheirRanges) {
  for (uint32_t n = 0; n < (1u << 19); ++n) ASSERT_EQ(n / 360, hls::DivideBy360(n)) << n;
  for (uint32_t n = 0; n < (1u << 18); ++n) ASSERT_EQ(n / 60, hls::DivideBy60(n)) << n;
  for (uint32_t level = 0; level * 51 + 36 < (1u << 16); ++level) {
    ASSERT_EQ((level * 255 + 180) / 360, hls::ComponentOfLevel(level)) << level;
  }
  for (uint32_t sum = 0; sum <= 510; ++sum) ASSERT_EQ((sum * 360 + 255) / 510, hls::LightnessOfSum(sum)) << sum;
  for (uint32_t l = 0; l <= 360; ++l) ASSERT_EQ(l * 255 / 360, hls::GreyOfLightness(l)) << l;
}

// The eight-pixel HLS paths against the pixel-by-pixel ones (capped with
// kWiderNone) on every colour: the cube is split between the settings, so a
// sweep converts each colour once; instrumented builds sample it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || KVTEST_HAS_FEATURE(address_sanitizer) || \
    KVTEST_HAS_FEATURE(thread_sanitizer)
const unsigned int kColourStep = 97;
#else
const unsigned int kColourStep = 1;
#endif

void ExpectWiderPathMatchesOnEveryColour(const std::vector<Make>& settings, KVPixelChannelOrder order,
                                         unsigned int sparse = 1) {
  const uint32_t parts = static_cast<uint32_t>(settings.size()), step = kColourStep * sparse, width = 4096;
  for (uint32_t part = 0; part < parts; ++part) {
    const uint32_t begin = (1u << 24) / parts * part, end = (1u << 24) / parts * (part + 1);
    const uint32_t height = ((end - begin) / step + width) / width;
    Bytes pixels(static_cast<size_t>(width) * height * 4);
    size_t i = 0;
    for (uint32_t c = begin; c < end; c += step, i += 4) {
      pixels[i] = static_cast<unsigned char>(c);
      pixels[i + 1] = static_cast<unsigned char>(c >> 8);
      pixels[i + 2] = static_cast<unsigned char>(c >> 16);
      pixels[i + 3] = static_cast<unsigned char>(c * 37 >> 3);
    }
    for (; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7);
    Bytes narrow;
    {
      ScopedWiderExtension cap(kvtl::kWiderNone);
      narrow = Direct(settings[part], kPlainPath, pixels, width, height, 1, order);
    }
    const Bytes wide = Direct(settings[part], kPlainPath, pixels, width, height, 1, order);
    const size_t at = static_cast<size_t>(std::mismatch(narrow.begin(), narrow.end(), wide.begin()).first - narrow.begin());
    ASSERT_EQ(narrow.size(), at) << "part " << part << " byte " << at % 4 << " of " << int(pixels[at & ~size_t(3)])
                                 << "," << int(pixels[(at & ~size_t(3)) + 1]) << "," << int(pixels[(at & ~size_t(3)) + 2]);
  }
}

TEST(HLSFastPath, HueStagesAndSaturationMatchOnEveryColour) {
  ExpectWiderPathMatchesOnEveryColour({Build<HueShiftRenderer>(45.0, 0.8), Build<HueShiftRenderer>(0.0, 1.0),
                                       Build<HueShiftRenderer>(360.0, 0.3), Build<HueShiftRenderer>(187.25, 0.0),
                                       Build<HueShiftRenderer>(720.0, 0.6)},
                                      kPixelOrderBGRA);
  ExpectWiderPathMatchesOnEveryColour({Build<HueColorizeRenderer>(200.0, 0.8), Build<HueColorizeRenderer>(0.0, 1.0),
                                       Build<HueColorizeRenderer>(360.0, 0.55), Build<HueColorizeRenderer>(359.9, 0.25),
                                       Build<HueColorizeRenderer>(-361.0, 1.5)},
                                      kPixelOrderBGRA);
  float* const noTable = nullptr;
  ExpectWiderPathMatchesOnEveryColour(
      {Build<SaturationRenderer>(1.4, noTable), Build<SaturationRenderer>(0.0, noTable),
       Build<SaturationRenderer>(1.0, noTable), Build<SaturationRenderer>(2.0, noTable),
       Build<SaturationRenderer>(0.37, noTable)},
      kPixelOrderBGRA);
  // Channel order two reads and writes one byte apart.
  ExpectWiderPathMatchesOnEveryColour({Build<HueShiftRenderer>(300.0, 0.65), Build<HueShiftRenderer>(90.5, 1.0),
                                       Build<HueColorizeRenderer>(33.3, 0.7)},
                                      kPixelOrderARGB, 13);
}

// ---------------------------------------------------------------------------
// Hand-computed pixels through the processor
// ---------------------------------------------------------------------------

struct PixelRow {
  StageSetter set;
  KVPixelChannelOrder order;
  Bytes in, out;
};

StageSetter Saturation(double s) {
  return [=](KVImageProcessor& p) { return p.SetSaturation(s); };
}
StageSetter HueShift(double shift, double amount) {
  return [=](KVImageProcessor& p) { return p.SetHueShift(shift, amount); };
}
StageSetter HueColorize(double hue, double amount) {
  return [=](KVImageProcessor& p) { return p.SetHueColorize(hue, amount); };
}
StageSetter ThreeStrip(double a, double b, double c) {
  return [=](KVImageProcessor& p) { return p.SetThreeStripColor(a, b, c); };
}
StageSetter Temperature(double kelvin) {
  return [=](KVImageProcessor& p) { return p.SetColorTemperature(kelvin); };
}
StageSetter Bleach(double amount, double desaturation, double contrast) {
  return [=](KVImageProcessor& p) { return p.SetBleachBypass(amount, desaturation, contrast); };
}

const KVPixelChannelOrder kBGRA = kPixelOrderBGRA, kARGB = kPixelOrderARGB;

TEST(ColourStages, HandComputedPixels) {
  const PixelRow rows[] = {
      // Saturation: the grey is the maximum, not a luminance; factor 1 loses
      // a level to truncation of p, q and t; any order is taken as BGRA.
      {Saturation(0.0), kBGRA, {10, 200, 40, 99}, {200, 200, 200, 99}},
      {Saturation(1.0), kBGRA, {10, 200, 40, 99}, {9, 200, 39, 99}},
      {Saturation(2.0), kBGRA, {10, 200, 40, 99}, {0, 200, 31, 99}},
      {Saturation(0.5), kBGRA, {50, 100, 200, 1}, {125, 150, 200, 1}},
      {Saturation(1.5), kBGRA, {200, 100, 50, 0}, {200, 66, 0, 0}},
      {Saturation(2.0), kBGRA, {0, 0, 0, 5}, {0, 0, 0, 5}},
      {Saturation(0.0), kARGB, {10, 200, 40, 99}, {200, 200, 200, 99}},
      // Hue shift: red by 120 is blue; greys keep their colour; the round
      // trip at 0 or 360 moves some colours.
      {HueShift(120, 1.0), kBGRA, {0, 0, 255, 33}, {255, 0, 0, 33}},
      {HueShift(120, 1.0), kBGRA, {50, 100, 200, 33}, {200, 50, 100, 33}},
      {HueShift(120, 0.5), kBGRA, {50, 100, 200, 33}, {125, 75, 150, 33}},
      {HueShift(77, 1.0), kBGRA, {128, 128, 128, 4}, {128, 128, 128, 4}},
      {HueShift(0, 1.0), kBGRA, {40, 200, 10, 4}, {38, 200, 10, 4}},
      {HueShift(360, 1.0), kBGRA, {40, 200, 10, 4}, {38, 200, 10, 4}},
      {HueColorize(240, 1.0), kBGRA, {50, 100, 200, 250}, {200, 50, 50, 250}},
      {HueColorize(240, 0.25), kBGRA, {50, 100, 200, 250}, {87, 87, 162, 250}},
      {HueColorize(240, 1.0), kBGRA, {128, 128, 128, 250}, {128, 128, 128, 250}},
      // Order two: bytes 0, 1, 2 are red, green, blue, written to 1, 2, 3;
      // byte 3 goes to byte 0.
      {HueShift(120, 1.0), kARGB, {255, 0, 0, 33}, {33, 0, 0, 255}},
      {HueColorize(240, 1.0), kARGB, {200, 100, 50, 250}, {250, 50, 50, 200}},
      // Three strip: level 0 gives flat curves of 255 (each byte (b * 510) >> 9);
      // greys look up index 255 (254 at level 0.5); red's excess 125 indexes
      // curve A at 130: trunc(3 * 256 / 129) = 5.
      {ThreeStrip(0, 0, 0), kBGRA, {10, 100, 200, 7}, {9, 99, 199, 7}},
      {ThreeStrip(1, 1, 1), kBGRA, {10, 100, 200, 77}, {0, 0, 0, 77}},
      {ThreeStrip(0.5, 0.5, 0.5), kBGRA, {200, 200, 200, 3}, {198, 198, 198, 3}},
      {ThreeStrip(0.5, 0.5, 0.5), kBGRA, {50, 100, 200, 3}, {25, 50, 198, 3}},
      {ThreeStrip(0.5, 1.0, 0.0), kBGRA, {50, 100, 200, 3}, {0, 50, 99, 3}},
      // Temperature, black-body factors (red, green, blue) about 0.928, 0.988,
      // 1.391 at 6500 K; 2.145, 0.517, 0.025 at 1500 K; 0.799, 0.958, 2.153 at
      // 13500 K. Order two maps bytes 1, 2, 3 and keeps byte 0; any other
      // order is BGRA.
      {Temperature(6500), kBGRA, {255, 255, 255, 77}, {255, 251, 236, 77}},
      {Temperature(6500), kBGRA, {100, 100, 100, 200}, {139, 98, 92, 200}},
      {Temperature(6500), kBGRA, {180, 180, 180, 0}, {250, 177, 167, 0}},
      {Temperature(1500), kBGRA, {255, 255, 255, 77}, {6, 131, 255, 77}},
      {Temperature(1500), kBGRA, {100, 100, 100, 200}, {2, 51, 214, 200}},
      {Temperature(13500), kBGRA, {255, 255, 255, 77}, {255, 244, 203, 77}},
      {Temperature(13500), kBGRA, {100, 100, 100, 200}, {215, 95, 79, 200}},
      {Temperature(6500), kARGB, {255, 255, 255, 77}, {255, 236, 251, 107}},
      {Temperature(6500), kARGB, {100, 100, 100, 200}, {100, 92, 98, 255}},
      {Temperature(6500), static_cast<KVPixelChannelOrder>(9), {100, 100, 100, 200}, {139, 98, 92, 200}},
      // Bleach bypass keeps alpha in byte 0 of order two.
      {Bleach(0.0, 1.0, 0.0), kARGB, {77, 200, 100, 50}, {77, 124, 124, 124}},
  };
  for (const PixelRow& row : rows) EXPECT_EQ(row.out, RenderPixel(row.set, row.in, row.order)) << &row - rows;
}

// ---------------------------------------------------------------------------
// Per-pixel models over a pattern
// ---------------------------------------------------------------------------

typedef std::function<void(const unsigned char* in, unsigned char* out)> PixelModel;

struct PatternRow {
  Make make;
  KVPixelChannelOrder order;
  PixelModel model;
};

PixelModel Rotated() {  // hue stages at amount 0 in order two
  return [](const unsigned char* in, unsigned char* out) {
    out[1] = in[0], out[2] = in[1], out[3] = in[2], out[0] = in[3];
  };
}
PixelModel MatteOf(unsigned int alphaByte) {
  return [=](const unsigned char* in, unsigned char* out) {
    std::fill(out, out + 4, in[alphaByte]);
    out[alphaByte] = 255;
  };
}

struct ToneRows {
  const unsigned char (*table)[3];
  KVTintType type;
  unsigned char rows[3][3];  // rows 64, 128, 192: red, green, blue
};

const ToneRows kToneRows[] = {
    {BronzeToneLT, kTintBronze, {{79, 62, 36}, {149, 124, 93}, {214, 188, 155}}},
    {CyanotypeToneLT, kTintCyanotype, {{40, 70, 98}, {92, 138, 174}, {160, 201, 231}}},
    {EmeraldToneLT, kTintEmerald, {{65, 66, 48}, {131, 130, 110}, {195, 194, 174}}},
    {GoldToneLT, kTintGold, {{72, 64, 43}, {138, 129, 98}, {206, 192, 155}}},
    {PalladiumToneLT, kTintPalladium, {{79, 60, 45}, {145, 124, 105}, {210, 188, 167}}},
    {PlatinumToneLT, kTintPlatinum, {{71, 63, 52}, {132, 129, 114}, {196, 193, 178}}},
    {PlatinumPalladiumToneLT, kTintPlatinumPalladium, {{64, 65, 59}, {127, 131, 116}, {196, 195, 165}}},
    {SeleniumToneLT, kTintSelenium, {{77, 58, 62}, {136, 124, 128}, {200, 188, 192}}},
    {SilverToneLT, kTintSilver, {{58, 67, 66}, {121, 131, 132}, {188, 194, 194}}},
};

TEST(ToneTables, TellingRowsAndEnds) {
  for (const ToneRows& tone : kToneRows) {
    for (int c = 0; c < 3; ++c) {
      EXPECT_EQ(0, tone.table[0][c]);
      EXPECT_EQ(tone.rows[0][c], tone.table[64][c]);
      EXPECT_EQ(tone.rows[1][c], tone.table[128][c]);
      EXPECT_EQ(tone.rows[2][c], tone.table[192][c]);
      EXPECT_EQ(255, tone.table[255][c]);
    }
  }
}

// Tint the straightforward way: a target per byte from the luminance (grey,
// a tone table, or the fallback ramps of an unknown type), one double blend.
PixelModel TintModel(int type, double amount) {
  return [=](const unsigned char* in, unsigned char* out) {
    const int luminance = static_cast<int>((in[0] + in[1] + in[2]) / 3.0);
    int target[3] = {std::max(30, luminance - 33), luminance > 235 ? 255 : std::max(30, luminance + 20),
                     luminance < 203 ? luminance + 53 : 255};
    if (type == kTintGrey) target[0] = target[1] = target[2] = luminance;
    for (const ToneRows& t : kToneRows) {
      if (t.type == type) {
        for (int c = 0; c < 3; ++c) target[c] = t.table[luminance][2 - c];
      }
    }
    for (int c = 0; c < 3; ++c) out[c] = static_cast<unsigned char>(Clamp8(static_cast<int>((in[c] - target[c]) * (1.0 - amount) + target[c])));
    out[3] = in[3];
  };
}

PixelModel ThreeStripModel(double a, double b, double c) {
  return [=](const unsigned char* in, unsigned char* out) {
    const double levels[3] = {a, b, c};
    int curves[3][256];
    for (int k = 0; k < 3; ++k) {
      const int start = static_cast<int>(levels[k] * 255.0);
      for (int i = 0; i < 256; ++i) {
        const double v = start == 0 ? 255.0 : (i < start ? 0.0 : (i - start) * (256.0 / (256 - start)));
        curves[k][i] = v > 255 ? 255 : static_cast<int>(v);
      }
    }
    const int b0 = in[0], b1 = in[1], b2 = in[2];
    const int c0 = curves[2][255 - Clamp8(b0 - ((b1 + b2) >> 1))];
    const int c1 = curves[1][255 - Clamp8(b1 - ((b0 + b2) >> 1))];
    const int c2 = curves[0][255 - Clamp8(b2 - ((b0 + b1) >> 1))];
    out[0] = static_cast<unsigned char>((b0 * (c1 + c2)) >> 9);
    out[1] = static_cast<unsigned char>((b1 * (c2 + c0)) >> 9);
    out[2] = static_cast<unsigned char>((b2 * (c0 + c1)) >> 9);
    out[3] = in[3];
  };
}

// Bleach overlay: each channel blended with the Rec. 601 luminance.
PixelModel OverlayModel(double amount) {
  return [=](const unsigned char* in, unsigned char* out) {
    const int luma = (77 * in[2] + 150 * in[1] + 29 * in[0]) >> 8;
    for (int c = 0; c < 3; ++c) {
      out[c] = static_cast<unsigned char>(
          BlendPixel(in[c], luma, kBlendOverlay, static_cast<int>(amount * 256.0), SharedTables()));
    }
    out[3] = in[3];
  };
}

TEST(ColourStages, PerPixelModelsOverAPattern) {
  const KVPixel8_RGB colour = {10, 20, 30};
  std::vector<PatternRow> rows = {
      {Build<SilhouetteRenderer>(colour), kBGRA,
       [](const unsigned char* in, unsigned char* out) { out[0] = 30, out[1] = 20, out[2] = 10, out[3] = in[3]; }},
      {Build<MatteViewRenderer>(), kBGRA, MatteOf(3)},
      {Build<MatteViewRenderer>(), kARGB, MatteOf(0)},
      {Build<MatteViewRenderer>(), static_cast<KVPixelChannelOrder>(7), MatteOf(3)},  // any order but 2
      {Build<HueColorizeRenderer>(120.0, 0.0), kARGB, Rotated()},
      {Build<HueShiftRenderer>(30.0, 0.0), kARGB, Rotated()},
  };
  for (int type = -1; type <= 11; ++type) {
    for (double amount : {0.0, 0.13, 0.5, 0.77, 1.0}) {
      rows.push_back({Build<TintRenderer>(static_cast<KVTintType>(type), amount), kBGRA, TintModel(type, amount)});
    }
  }
  for (const auto& l : {std::vector<double>{0.3, 0.5, 0.7}, {0.0, 1.0, 0.5}, {0.9, 0.1, 0.0}, {0.004, 0.996, 0.25}}) {
    rows.push_back({Build<ThreeStripColorRenderer>(l[0], l[1], l[2]), kBGRA, ThreeStripModel(l[0], l[1], l[2])});
  }
  for (double amount : {1.0, 0.5, 0.3}) {
    rows.push_back({[=](const kvtl::CPUExtensions&) -> AbstractRenderer* {
                      return new BleachBypassRenderer(amount, 0.0, 0.0, SharedTables());
                    },
                    kBGRA, OverlayModel(amount)});
  }
  const unsigned int width = 31, height = 7;
  Bytes pixels = PatternBytes(width * height * 4, 77);
  pixels[3] = pixels[4] = 0, pixels[7] = pixels[8] = 255;  // clear and opaque in either order
  for (const PatternRow& row : rows) {
    Bytes expected(pixels.size());
    for (size_t i = 0; i < pixels.size(); i += 4) row.model(&pixels[i], &expected[i]);
    EXPECT_EQ(expected, Direct(row.make, kPlainPath, pixels, width, height, 3, row.order)) << &row - rows.data();
  }
}

// ---------------------------------------------------------------------------
// Byte tables and their vector paths over every level
// ---------------------------------------------------------------------------

// Per row: the byte a level becomes in a channel on the plain or the vector
// path; -1 where the stage leaves the destination unwritten.
typedef std::function<int(int level, unsigned int channel, bool vector)> LevelModel;

struct LevelRow {
  Make make;
  Remainder remainder;  // how the vector path treats a share that is not a multiple of 16
  LevelModel model;
};

const KVChannelsToProcess kUnknownSelections[] = {static_cast<KVChannelsToProcess>(6),
                                                  static_cast<KVChannelsToProcess>(-1)};

bool Processes(KVChannelsToProcess channels, unsigned int byte) {
  return channels == kChannelsAll || (channels == kChannelsColor && byte < 3) || (channels == kChannelsAlpha && byte == 3);
}

int ContrastTable(int x, int c) { return Clamp8((x - 127) * c / 256 + 127); }
// The vector path floors: one below the table where a negative product is not a multiple of 256.
int ContrastVector(int x, int c) { return Clamp8(static_cast<int>(std::floor((x - 127) * c / 256.0)) + 127); }
int StretchTable(int x, int lo, int hi) {
  return x > hi ? 255 : (x < lo ? 0 : Clamp8(static_cast<int>((x - lo) * (256.0 / (hi - lo + 1)))));
}
int StretchVector(int x, int lo, int hi) {
  return x > hi ? 255
                : (x < lo ? 0 : Clamp8(static_cast<int>(std::nearbyint(static_cast<float>(x - lo) * (256.0f / (hi - lo + 1))))));
}

std::vector<LevelRow> LevelRows() {
  std::vector<LevelRow> rows;
  const Remainder whole = Remainder::kWholeSharePlain;
  for (double b : {0.2, -0.5, 0.0, 0.999, -1.0}) {  // 255 * 0.2 is an offset of 51, 255 * -0.5 one of -127
    for (KVChannelsToProcess ch : {kChannelsAlpha, kChannelsColor, kChannelsAll}) {
      rows.push_back({BuildFor<BrightnessRenderer>(b, ch), whole, [=](int x, unsigned int c, bool) {
                        return Processes(ch, c) ? Clamp8(x + static_cast<int>(255.0 * b)) : x;
                      }});
    }
  }
  for (double contrast : {0.3, 0.5, 0.6, 0.77, 1.5, 1.9, 2.0}) {
    const int m = static_cast<int>(256.0 * contrast);
    for (KVChannelsToProcess ch : {kChannelsAlpha, kChannelsColor, kChannelsAll}) {
      rows.push_back({BuildFor<ContrastRenderer>(contrast, ch), whole, [=](int x, unsigned int c, bool vector) {
                        return !Processes(ch, c) ? x : vector ? ContrastVector(x, m) : ContrastTable(x, m);
                      }});
    }
  }
  // Super contrast: lo = trunc(low * 255), hi = trunc(255 * high); equal, one
  // apart the wrong way, or crossed, every level is above hi or below lo.
  struct Range {
    double low, high;
  };
  for (const Range& r : {Range{0.1, 0.9}, Range{0.0, 1.0}, Range{0.3, 0.31}, Range{0.2, 0.6}, Range{0.5, 0.5},
                         Range{0.5, 126.5 / 255.0}, Range{0.6, 0.4}}) {
    const int lo = static_cast<int>(r.low * 255.0), hi = static_cast<int>(255.0 * r.high);
    rows.push_back({BuildFor<SuperContrastRenderer>(r.low, r.high, kChannelsColor), Remainder::kLeadInPlain,
                    [=](int x, unsigned int c, bool vector) {
                      return c == 3 ? x : vector ? StretchVector(x, lo, hi) : StretchTable(x, lo, hi);
                    }});
  }
  // The vector path serves colour only: other selections take the table.
  for (KVChannelsToProcess ch : {kChannelsAlpha, kChannelsAll}) {
    rows.push_back({BuildFor<SuperContrastRenderer>(0.1, 0.9, ch), Remainder::kLeadInPlain,
                    [=](int x, unsigned int c, bool) { return Processes(ch, c) ? StretchTable(x, 25, 229) : x; }});
  }
  // An unknown selection: brightness and contrast copy it on the vector path;
  // their plain paths and super contrast write nothing.
  for (KVChannelsToProcess ch : kUnknownSelections) {
    const LevelModel copiedByVector = [](int x, unsigned int, bool vector) { return vector ? x : -1; };
    rows.push_back({BuildFor<BrightnessRenderer>(0.5, ch), whole, copiedByVector});
    rows.push_back({BuildFor<ContrastRenderer>(0.4, ch), whole, copiedByVector});
    rows.push_back({BuildFor<SuperContrastRenderer>(0.1, 0.9, ch), Remainder::kLeadInPlain,
                    [](int, unsigned int, bool) { return -1; }});
  }
  // Colour balance: the vector path quantises each gain to a multiple of
  // 1/256 (0.3 is 76: 200 * 76 >> 8 = 59, while 200 * 0.3 = 60).
  for (const auto& g : {std::vector<double>{0.3, 1.7, 0.55}, {2.0, 0.01, 1.999}, {0.0, 0.5, 1.25}}) {
    rows.push_back({BuildFor<ColorBalanceRenderer>(g[0], g[1], g[2]), whole, [=](int x, unsigned int c, bool vector) {
                      const double gain = g[2 - std::min(c, 2u)];
                      return c == 3 ? x
                                    : vector ? Clamp8((x * static_cast<int>(256.0 * gain)) >> 8)
                                             : Clamp8(static_cast<int>(x * gain));
                    }});
  }
  // Opacity: the plain path truncates alpha * opacity, the vector path
  // subtracts trunc((1 - opacity) * 255) with saturation; they agree at 0 and 1.
  for (double opacity : {0.5, 0.0, 1.0, 0.3}) {
    rows.push_back({BuildFor<OpacityRenderer>(opacity), whole, [=](int x, unsigned int c, bool vector) {
                      return c < 3 ? x : vector ? std::max(0, x - static_cast<int>((1.0 - opacity) * 255.0))
                                                : static_cast<int>(x * opacity);
                    }});
  }
  return rows;
}

// 543 pixels of ramp (every level in every channel): one thread's share of
// 543 is not a multiple of 16 (plain whole, or 15 pixels through the table
// before the vector), two threads' shares are 272 (vector) and 271.
TEST(ColourStages, LevelModelsOnThePlainAndVectorPathsOfEveryShareShape) {
  const unsigned int width = 543;
  const unsigned char prefill = 0x5A;
  Bytes ramp(width * 4);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<unsigned char>(i / 4);
  const std::vector<LevelRow> rows = LevelRows();
  for (size_t r = 0; r < rows.size(); ++r) {
    for (int path = 0; path < 3; ++path) {  // plain, vector, vector without the wider sets
      ScopedWiderExtension cap(path == 2 ? kvtl::kWiderNone : kvtl::kWiderAVX512VBMI);
      for (unsigned int threads : {1u, 2u}) {
        const std::vector<bool> vector = path == 0 ? std::vector<bool>(width, false)
                                                   : VectorPixels(width, 1, threads, rows[r].remainder);
        Bytes expected(ramp.size());
        for (size_t i = 0; i < ramp.size(); ++i) {
          const int level = rows[r].model(ramp[i], static_cast<unsigned int>(i % 4), vector[i / 4]);
          expected[i] = static_cast<unsigned char>(level < 0 ? prefill : level);
        }
        ASSERT_EQ(expected, Direct(rows[r].make, path == 0 ? kPlainPath : kVectorPath, ramp, width, 1, threads,
                                   kPixelOrderBGRA, prefill))
            << "row " << r << " path " << path << " threads " << threads;
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Stage quirks
// ---------------------------------------------------------------------------

// The in-place helpers render as thread 0 of 1 whatever the core count: the
// vector rule where the pixel count is a multiple of 16.
TEST(OpacityStage, InPlaceHelpersRunAsOneThread) {
  ScopedCoreCount cores(4);
  for (unsigned int width : {16u, 17u, 32u}) {
    Bytes bytes = PatternBytes(width * 4, 50 + width), expected = bytes;
    for (unsigned int x = 0; x < width; ++x) {
      bytes[x * 4 + 3] = 200;
      expected[x * 4 + 3] = width % 16 == 0 ? 73 : 100;
    }
    for (int helper = 0; helper < 2; ++helper) {
      GuardedImage image(width, 1, width % 2);
      image.fill(bytes);
      if (helper == 0) SetOpacity(image.image(), 0.5);
      else ChangeLayerOpacity(image.image(), 0.5);
      EXPECT_EQ(expected, image.contents()) << width;
    }
  }
  DeepImage deep(4, 4);  // no bytes at all: only the depth check may run
  ChangeLayerOpacity(&deep, 0.5);
}

TEST(MirrorStage, LeavesTheDestinationByteForByte) {
  EXPECT_EQ(0u, MirrorRenderer(true, false).Type() + SilhouetteRenderer({1, 2, 3}).Type() + MatteViewRenderer().Type());
  const Bytes bytes = PatternBytes(5 * 4 * 4, 8), target = PatternBytes(5 * 4 * 4, 9);
  for (int flags = 0; flags < 4; ++flags) {
    GuardedImage source(5, 4), destination(5, 4);
    source.fill(bytes);
    destination.fill(target);
    ScopedCoreCount cores(3);
    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(0, processor.SetMirror((flags & 1) != 0, (flags & 2) != 0));
    EXPECT_EQ(0, processor.Render());
    EXPECT_EQ(target, destination.contents());
  }
}

TEST(BlackBody, SpectrumAndChromaticity) {
  EXPECT_NEAR(1.448103995474e14, BlackBodySpectrum(6500.0, 500.0), 1e2);
  // Wien: a 5000 K body peaks near 580 nm.
  EXPECT_GT(BlackBodySpectrum(5000.0, 575.0), BlackBodySpectrum(5000.0, 560.0));
  EXPECT_GT(BlackBodySpectrum(5000.0, 575.0), BlackBodySpectrum(5000.0, 600.0));
  // Chromaticities integrated over the four-decimal observer table.
  const double cases[][4] = {{1500.0, 0.5857368269904076, 0.39311088217207707, 0.02115229083751521},
                             {6500.0, 0.3135450831199946, 0.3236709131052788, 0.3627840037747266},
                             {13500.0, 0.267221672799598, 0.27185582848842527, 0.4609224987119767}};
  for (const auto& k : cases) {
    double x = 0, y = 0, z = 0;
    SpectrumToXYZ(k[0], &x, &y, &z);
    EXPECT_NEAR(k[1], x, 1e-12);
    EXPECT_NEAR(k[2], y, 1e-12);
    EXPECT_NEAR(k[3], z, 1e-12);
    EXPECT_NEAR(1.0, x + y + z, 1e-15);
  }
}

TEST(BleachBypass, ContrastCurveIsAnSCurveAboutMiddleGrey) {
  Bytes pixels;
  for (int v = 0; v < 256; ++v) pixels.insert(pixels.end(), {static_cast<unsigned char>(v), 0, 0, 255});
  const Bytes out = RenderStage(Bleach(0.0, 0.0, 1.0), pixels, 256, 1);
  // 255 * smoothstep(64 / 255) = 40.1; 255 * smoothstep(192 / 255) = 215.99.
  EXPECT_EQ(Bytes({0, 40, 216, 255}), Bytes({out[0], out[64 * 4], out[192 * 4], out[255 * 4]}));
  for (int v = 1; v < 256; ++v) {
    EXPECT_LE(out[(v - 1) * 4], out[v * 4]) << v;
    if (v < 127) {
      EXPECT_LT(out[v * 4], v) << v;
    } else if (v > 128 && v < 255) {
      EXPECT_GT(out[v * 4], v) << v;
    }
  }
  // Half strength lands halfway: 64 + 0.5 * (40.1 - 64) = 52.06.
  EXPECT_EQ(52, RenderStage(Bleach(0.0, 0.0, 0.5), pixels, 256, 1)[64 * 4]);
}

StageSetter Vignette(KVPixel8_RGB colour, double amount, double midpoint, double roundness, double feather,
                     double highlights, KVRect bounds = KVRect()) {
  return [=](KVImageProcessor& p) {
    return p.SetVignette(colour, amount, midpoint, roundness, feather, highlights, bounds);
  };
}

Bytes Uniform(unsigned int pixels, Bytes bgra) {
  Bytes bytes;
  for (unsigned int i = 0; i < pixels; ++i) bytes.insert(bytes.end(), bgra.begin(), bgra.end());
  return bytes;
}

const KVPixel8_RGB kBlack = {0, 0, 0};

TEST(Vignette, FullAmountReachesTheColourAndHighlightsProtect) {
  // Corner: d = sqrt(0.95^2 + 0.9^2) > 0.5, full weight; next to the centre
  // d = sqrt(0.05^2 + 0.1^2) < 0.5, untouched.
  const Bytes out = RenderStage(Vignette({10, 20, 30}, 1.0, 0.5, 0.0, 0.0, 0.0), Uniform(200, {200, 200, 200, 9}), 20, 10);
  EXPECT_EQ((Bytes{30, 20, 10, 9}), Bytes(out.begin(), out.begin() + 4));
  EXPECT_EQ((Bytes{200, 200, 200, 9}), Bytes(out.begin() + 110 * 4, out.begin() + 111 * 4));

  Bytes pixels = Uniform(256, {60, 60, 60, 255});
  for (int c = 0; c < 3; ++c) pixels[c] = 255;  // a white corner pixel
  const Bytes full = RenderStage(Vignette(kBlack, 1.0, 0.2, 0.0, 0.0, 1.0), pixels, 16, 16);
  // L = 255 fully protected; L = 60: weight 256, protection
  // trunc((1 - 60/255) * 256) = 195, so 60 * 61 / 256 = 14.3.
  EXPECT_EQ(255, full[0]);
  EXPECT_EQ(14, full[4]);
  EXPECT_EQ(0, RenderStage(Vignette(kBlack, 1.0, 0.2, 0.0, 0.0, 0.0), pixels, 16, 16)[0]);
}

TEST(Vignette, BoundsMoveTheFrame) {
  const unsigned int w = 40, h = 20;
  const Bytes pixels = Uniform(w * h, {150, 150, 150, 255});
  const Bytes out = RenderStage(Vignette(kBlack, 1.0, 0.4, 0.5, 0.3, 0.0, KVRect(KVPoint2(0, 0), 20, 20)), pixels, w, h);
  auto at = [&](unsigned int x, unsigned int y) { return out[(y * w + x) * 4]; };
  for (unsigned int y = 0; y < h; ++y) {
    for (unsigned int x = 0; x < 20; ++x) ASSERT_EQ(at(x, y), at(19 - x, y));
    // Beyond the frame's right edge the weight keeps growing.
    for (unsigned int x = 20; x < w; ++x) ASSERT_LE(at(x, y), at(x - 1, y));
  }
  EXPECT_EQ(150, at(10, 10));
  EXPECT_EQ(0, at(w - 1, 10));
  // An empty rectangle is the whole image.
  EXPECT_EQ(RenderStage(Vignette(kBlack, 0.7, 0.3, 0.5, 0.3, 0.5, KVRect(KVPoint2(0, 0), w, h)), pixels, w, h),
            RenderStage(Vignette(kBlack, 0.7, 0.3, 0.5, 0.3, 0.5, KVRect(KVPoint2(5, 5), 0, 7)), pixels, w, h));
}

// The vector path keeps a row's weights for its mirrored half only while they
// fit its buffer (8192 columns do, 8203 do not); off-centre frames leave
// unmirrored columns on either side, and three threads start shares mid-row.
TEST(Vignette, WidePathGivesThePlainBytesOnLongRowsAndOffCentreFrames) {
  struct Case {
    unsigned int width, height;
    KVRect bounds;
    double highlights;
  };
  const Case cases[] = {{8192, 2, KVRect(), 0.5},
                        {8203, 2, KVRect(), 0.0},
                        {1031, 3, KVRect(KVPoint2(700, 1), 500, 2), 0.7},
                        {1031, 3, KVRect(KVPoint2(-900, 0), 1201, 3), 1.0}};
  for (const Case& c : cases) {
    const Bytes pixels = PatternBytes(static_cast<size_t>(c.width) * c.height * 4, c.width);
    const Make make = Build<VignetteRenderer>(KVPixel8_RGB{40, 90, 200}, 0.8, 0.3, 0.5, 0.6, c.highlights, c.bounds);
    for (unsigned int threads : {1u, 3u}) {
      Bytes plain;
      {
        ScopedWiderExtension cap(kvtl::kWiderNone);
        plain = Direct(make, kPlainPath, pixels, c.width, c.height, threads);
      }
      EXPECT_EQ(plain, Direct(make, kPlainPath, pixels, c.width, c.height, threads)) << c.width << " " << threads;
    }
  }
}

}  // namespace
