#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

// The straightforward form of the layer composite, pixel by pixel, written
// from the documented formulas: the oracle for the stage's mode-specialised
// loops.
int ReferenceWeightedAlpha(unsigned char alpha, double opacity) {
  const double product = alpha * opacity;
  if (std::isnan(product) || product <= 0.0) return 0;
  return product >= 255.0 ? 255 : static_cast<int>(product);
}

void ReferenceComposite(Bytes& background, const Bytes& layer, double opacity, int type, int mode,
                        KVLookupTables& t) {
  for (size_t i = 0; i + 4 <= background.size(); i += 4) {
    unsigned char* b = &background[i];
    const unsigned char* f = &layer[i];
    const int fa = ReferenceWeightedAlpha(f[3], opacity);
    if (type == kCompositeColorOnly) {
      for (int c = 0; c < 3; ++c) b[c] = static_cast<unsigned char>(BlendPixel(b[c], f[c], KVBlendMode(mode), fa, t));
      continue;
    }
    const unsigned char oA = t.AlphaChannelBlend(b[3], static_cast<unsigned char>(fa));
    if (oA == 0) {
      if (type == kCompositeAlphaFill) std::copy(f, f + 4, b);
      continue;
    }
    const float inv = t.Invert(oA);
    const float k = t.DivideBy255(b[3]) * (255 - fa);
    for (int c = 0; c < 3; ++c) {
      // The mode at full strength (pinned by the BlendPixel table below)
      // against the premultiplied background.
      const int colour = BlendPixel(t.AlphaBlend(b[c], b[3]), f[c], KVBlendMode(mode), 256, t);
      const float value = ((float)(colour * fa) + (float)b[c] * k) * inv;
      b[c] = static_cast<unsigned char>(value >= 255.0f ? 255 : static_cast<int>(value));
    }
    b[3] = oA;
  }
}

// A 1 x 1 composite through the compositor, one thread, as (b, g, r, a).
typedef std::array<int, 4> Pixel;
Pixel CompositeOnePixel(const Pixel& background, const Pixel& layer, double opacity, KVBlendMode mode,
                        KVCompositeType type) {
  ScopedCoreCount cores(1);
  unsigned char bottom[4], top[4];
  for (int c = 0; c < 4; ++c) bottom[c] = static_cast<unsigned char>(background[c]), top[c] = static_cast<unsigned char>(layer[c]);
  KVImage8 canvas(bottom, 1, 1, kPixelOrderBGRA), over(top, 1, 1, kPixelOrderBGRA);
  KVImageCompositor compositor(&canvas, 1.0, SharedTables(), kDownsampleNone);
  EXPECT_EQ(0, compositor.AddLayer(&over, opacity, mode, type));
  EXPECT_EQ(0, compositor.Render());
  return Pixel{bottom[0], bottom[1], bottom[2], bottom[3]};
}

const int kEveryMode[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 200, -1};

}  // namespace

// Top 200 over bottom 100. r is the mode's result before opacity, worked out
// from the table curves: burn 255 - round((155 * 255) / 200) = 57; dodge
// 100 * 255 / 55 > 255; exclusion round((300 * 255 - 40000) / 255) = 143;
// hard light screens with 2 * 200 - 255 = 145: round((245 * 255 - 14500) /
// 255) = 188; multiply round(20000 / 255) = 78; overlay is hard light with the
// operands swapped: round(2 * 100 * 200 / 255) = 157; screen round((300 * 255
// - 20000) / 255) = 222; soft light 0.392 + 0.569 * (sqrt(0.392) - 0.392) =
// 0.525 -> 134. The weighted step is 100 + (((r - 100) * opacity) >> 8),
// rounding a negative step down (burn at 128: -43 * 128 >> 8 = -22).
TEST(BlendPixel, EveryModeAtOpacity0_128_255_256) {
  struct Row {
    KVBlendMode mode;
    int at[4];
  };
  const Row rows[] = {
      {kBlendAdd, {100, 177, 254, 255}},       {kBlendColorBurn, {100, 78, 57, 57}},
      {kBlendColorDodge, {100, 177, 254, 255}}, {kBlendDarken, {100, 100, 100, 100}},
      {kBlendDifference, {100, 100, 100, 100}}, {kBlendExclusion, {100, 121, 142, 143}},
      {kBlendHardLight, {100, 144, 187, 188}},  {kBlendLighten, {100, 150, 199, 200}},
      {kBlendMultiply, {100, 89, 78, 78}},      {kBlendNormal, {100, 150, 199, 200}},
      {kBlendOverlay, {100, 128, 156, 157}},    {kBlendScreen, {100, 161, 221, 222}},
      {kBlendSoftLight, {100, 117, 133, 134}},  {kBlendReplace, {200, 200, 200, 200}},
  };
  const int opacities[] = {0, 128, 255, 256};
  KVLookupTables t;
  for (const Row& row : rows) {
    for (int i = 0; i < 4; ++i) EXPECT_EQ(row.at[i], BlendPixel(100, 200, row.mode, opacities[i], t)) << row.mode;
  }
  // Table modes read the low bytes of out-of-range values (356 -> 100, 456 ->
  // 200: multiply gives 78), weighted against the unmasked bottom.
  EXPECT_EQ(356 + (((78 - 356) * 256) >> 8), BlendPixel(356, 456, kBlendMultiply, 256, t));
}

// A size, order or depth mismatch is checked before the opacity range; a
// refused layer queues nothing.
TEST(AddLayer, MismatchIsCheckedBeforeOpacityAndQueuesNothing) {
  GuardedImage background(4, 3), wide(5, 3), tall(4, 4), argb(4, 3, 0, kPixelOrderARGB), layer(4, 3);
  KVImageCompositor compositor(background.image(), 1.0, SharedTables(), kDownsampleNone);
  EXPECT_EQ(1000, compositor.AddLayer(wide.image(), 0.5, kBlendNormal, kCompositeColorOnly));
  EXPECT_EQ(1000, compositor.AddLayer(tall.image(), 1.5, kBlendNormal, kCompositeAlpha));
  EXPECT_EQ(1000, compositor.AddLayer(argb.image(), -1.0, kBlendNormal, kCompositeAlpha));
  for (double opacity : {-0.001, 1.0000001, std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(7, compositor.AddLayer(layer.image(), opacity, kBlendNormal, kCompositeColorOnly)) << opacity;
  }
  EXPECT_EQ(1000, compositor.AddLayer(CreateImage(wide.pixels(), 5, 3, kPixelOrderBGRA), 1.5, kBlendNormal,
                                      kCompositeColorOnly));
  EXPECT_EQ(7, compositor.AddLayer(CreateImage(layer.pixels(), 4, 3, kPixelOrderBGRA), 2.0, kBlendNormal,
                                   kCompositeColorOnly));
  EXPECT_EQ(0, compositor.RenderQueueCount());
}

// Single pixels worked by hand, one row per documented behaviour.
TEST(LayerCompositor, PixelsByHand) {
  struct Row {
    Pixel background, layer;
    double opacity;
    KVCompositeType type;
    Pixel expected;
  };
  const double nan = std::nan("");
  const Row rows[] = {
      // Colour only, fa = 200: 100 + ((100 * 200) >> 8) = 178; the background
      // alpha is kept.
      {{100, 100, 100, 100}, {200, 200, 200, 200}, 1.0, kCompositeColorOnly, {178, 178, 178, 100}},
      // Upwards 255 stops one short: (255 * 255) >> 8 = 254. Downwards the
      // shift rounds toward minus infinity and reaches the top.
      {{0, 255, 10, 77}, {255, 0, 10, 255}, 1.0, kCompositeColorOnly, {254, 0, 10, 77}},
      // bA 128 under fA 200: oA = 128 + 200 - round(128 * 200 / 255) = 228,
      // k = (128 / 255) * 55 = 27.6078; blue (100 * 200 + 50 * k) / 228 =
      // 93.77, green 255 * 200 / 228 = 223.68, red 255 * k / 228 = 30.88.
      {{50, 0, 255, 128}, {100, 255, 0, 200}, 1.0, kCompositeAlphaFill, {93, 223, 30, 228}},
      {{50, 0, 255, 128}, {100, 255, 0, 200}, 1.0, kCompositeAlpha, {93, 223, 30, 228}},
      {{50, 0, 255, 128}, {100, 255, 0, 200}, 1.0, KVCompositeType(7), {93, 223, 30, 228}},
      // At opacity 0 (or NaN) the colour is b * (bA / 255 * 255) * (1 / bA) in
      // single precision: for bA 41 that lands just below the integer and
      // truncates down by one; bA 128 gives it back exactly.
      {{1, 2, 3, 41}, {255, 255, 255, 255}, 0.0, kCompositeAlpha, {0, 1, 3, 41}},
      {{1, 2, 3, 41}, {255, 255, 255, 255}, nan, kCompositeAlpha, {0, 1, 3, 41}},
      {{1, 2, 3, 128}, {255, 255, 255, 255}, 0.0, kCompositeAlpha, {1, 2, 3, 128}},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(row.expected, CompositeOnePixel(row.background, row.layer, row.opacity, kBlendNormal, row.type));
  }
}

TEST(LayerCompositor, MatchesTheReferenceOnEveryModeTypeAndOpacity) {
  const unsigned int width = 13, height = 14;
  // Some exact alpha values, including clear pixels on either side; the
  // lower half in runs the wide kernels take in whole blocks: clear on both
  // sides, an opaque layer, opaque on both sides.
  Bytes bgBytes = PatternBytes(width * height * 4, 11);
  Bytes fgBytes = LayerBytes(width, height, 12);
  for (size_t i = 3; i < bgBytes.size(); i += 16) bgBytes[i] = 0;
  for (size_t p = width * height / 2, run = 0; p < width * height; ++p, ++run) {
    fgBytes[p * 4 + 3] = run < 24 ? 0 : 255;
    if (run < 24 || run >= 56) bgBytes[p * 4 + 3] = fgBytes[p * 4 + 3];
  }
  for (size_t offset : {0u, 1u}) {
    for (int mode : kEveryMode) {
      for (int type : {0, 1, 2, 7}) {
        for (double opacity : {0.0, 0.3, 0.5, 1.0, std::nan("")}) {
          GuardedImage background(width, height, offset), layer(width, height, offset);
          background.fill(bgBytes);
          layer.fill(fgBytes);
          KVImageCompositor compositor(background.image(), 1.0, SharedTables(), kDownsampleNone);
          ASSERT_EQ(0, compositor.AddLayer(layer.image(), opacity, KVBlendMode(mode), KVCompositeType(type)));
          ASSERT_EQ(0, compositor.Render());
          Bytes expected = bgBytes;
          ReferenceComposite(expected, fgBytes, opacity, type, mode, SharedTables());
          ASSERT_EQ(expected, background.contents()) << "mode " << mode << " type " << type << " opacity "
                                                     << opacity << " offset " << offset;
        }
      }
    }
  }
}

// Both layer stages assert that the layer matches the background they are
// driven with (a host may drive them directly).
TEST(LayerStagesDeathTest, MismatchAssertions) {
  GuardedImage background(4, 3), wide(5, 3), tall(4, 2), argb(4, 3, 0, kPixelOrderARGB);
  DeepImage deep(4, 3, 16);
  KVAbstractImage* layers[] = {wide.image(), tall.image(), &deep, argb.image()};
  const char* accessors[] = {"Width", "Height", "BitsPerChannel", "PixelChannelOrder"};
  const char* names[] = {"Width", "Height", "BPC", "Pixel channel order"};
  for (int i = 0; i < 8; ++i) {
    const bool light = i >= 4;
    std::unique_ptr<AbstractCompositor> stage(
        light ? static_cast<AbstractCompositor*>(new LightSpillLayerCompositor(
                    layers[i % 4], 1, 1.0, kBlendScreen, kDownsampleNone, SharedTables(), kPlainPath))
              : new LayerCompositor(layers[i % 4], 1.0, kCompositeAlpha, kBlendNormal, SharedTables()));
    const std::string accessor = accessors[i % 4];
    EXPECT_DEATH(stage->Render(background.image(), 0, 1),
                 LiteralRegex((light ? "LightSpillLayerCompositor:" : "LayerCompositor:") +
                              std::to_string((light ? 88 : 64) + 2 * (i % 4)) + ": failed assertion `m_foregroundLayer->" +
                              accessor + "() == backgroundLayer->" + accessor + "() && \"" + names[i % 4] +
                              " of foreground and background layers does not match\"'"));
  }
}
