#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using kvo::KVLookupTables;
using kvtest::GuardedImage;
using kvtest::PatternBytes;
using kvtest::ScopedCoreCount;

namespace {

typedef std::vector<unsigned char> Bytes;

// The straightforward form of the layer composite, pixel by pixel, written
// from the documented formulas: the oracle for the stage's mode-specialised
// loops.
int ReferenceWeightedAlpha(unsigned char alpha, double opacity) {
  const double product = alpha * opacity;
  if (std::isnan(product) || product <= 0.0) return 0;
  return product >= 255.0 ? 255 : static_cast<int>(product);
}

int ReferenceAlphaPathColour(int mode, int top, int operand, KVLookupTables& t) {
  const unsigned char f = static_cast<unsigned char>(top), p = static_cast<unsigned char>(operand);
  switch (mode) {
    case kBlendAdd: return top + operand > 255 ? 255 : top + operand;
    case kBlendColorBurn: return t.ColorBurnBlend(f, p);
    case kBlendColorDodge: return t.ColorDodgeBlend(f, p);
    case kBlendDarken: return t.DarkenBlend(f, p);
    case kBlendDifference: return t.DifferenceBlend(f, p);
    case kBlendExclusion: return t.ExclusionBlend(f, p);
    case kBlendHardLight: return t.HardLightBlend(f, p);
    case kBlendLighten: return t.LightenBlend(f, p);
    case kBlendMultiply: return t.MultiplyBlend(f, p);
    case kBlendOverlay: return t.OverlayBlend(f, p);
    case kBlendScreen: return t.ScreenBlend(f, p);
    case kBlendSoftLight: return t.SoftLightBlend(f, p);
    default: return top;
  }
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
      const int colour = ReferenceAlphaPathColour(mode, f[c], t.AlphaBlend(b[c], b[3]), t);
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
  for (int c = 0; c < 4; ++c) bottom[c] = static_cast<unsigned char>(background[c]);
  for (int c = 0; c < 4; ++c) top[c] = static_cast<unsigned char>(layer[c]);
  KVImage8 canvas(bottom, 1, 1, kPixelOrderBGRA), over(top, 1, 1, kPixelOrderBGRA);
  KVImageCompositor compositor(&canvas, 1.0, kvtest::SharedTables(), kDownsampleNone);
  EXPECT_EQ(0, compositor.AddLayer(&over, opacity, mode, type));
  EXPECT_EQ(0, compositor.Render());
  return Pixel{bottom[0], bottom[1], bottom[2], bottom[3]};
}

std::string Escaped(const std::string& text) {
  std::string out;
  for (char ch : text) {
    if (std::string("\\^$.|?*+()[]{}").find(ch) != std::string::npos) out += '\\';
    out += ch;
  }
  return out;
}


const int kEveryMode[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 200, -1};

}  // namespace

// ---------------------------------------------------------------- lookup tables

// ---------------------------------------------------------------- BlendPixel

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
    int at0, at128, at255, at256;
  };
  const Row rows[] = {
      {kBlendAdd, 100, 177, 254, 255},       {kBlendColorBurn, 100, 78, 57, 57},
      {kBlendColorDodge, 100, 177, 254, 255}, {kBlendDarken, 100, 100, 100, 100},
      {kBlendDifference, 100, 100, 100, 100}, {kBlendExclusion, 100, 121, 142, 143},
      {kBlendHardLight, 100, 144, 187, 188},  {kBlendLighten, 100, 150, 199, 200},
      {kBlendMultiply, 100, 89, 78, 78},      {kBlendNormal, 100, 150, 199, 200},
      {kBlendOverlay, 100, 128, 156, 157},    {kBlendScreen, 100, 161, 221, 222},
      {kBlendSoftLight, 100, 117, 133, 134},  {kBlendReplace, 200, 200, 200, 200},
  };
  KVLookupTables t;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.mode);
    EXPECT_EQ(row.at0, BlendPixel(100, 200, row.mode, 0, t));
    EXPECT_EQ(row.at128, BlendPixel(100, 200, row.mode, 128, t));
    EXPECT_EQ(row.at255, BlendPixel(100, 200, row.mode, 255, t));
    EXPECT_EQ(row.at256, BlendPixel(100, 200, row.mode, 256, t));
  }
}

TEST(BlendPixel, TableModesUseTheLowBytesOfOutOfRangeValues) {
  KVLookupTables t;
  // 356 & 255 = 100 and 456 & 255 = 200: multiply gives 78, weighted against
  // the unmasked bottom.
  EXPECT_EQ(356 + (((78 - 356) * 256) >> 8), BlendPixel(356, 456, kBlendMultiply, 256, t));
}

// ---------------------------------------------------------------- AddLayer

TEST(AddLayer, MismatchIsCheckedBeforeOpacityAndQueuesNothing) {
  GuardedImage background(4, 3), wide(5, 3), tall(4, 4), argb(4, 3, 0, kPixelOrderARGB), layer(4, 3);
  const Bytes before = PatternBytes(background.bytes(), 1);
  background.fill(before);
  KVImageCompositor compositor(background.image(), 1.0, kvtest::SharedTables(), kDownsampleNone);
  EXPECT_EQ(1000, compositor.AddLayer(wide.image(), 0.5, kBlendNormal, kCompositeColorOnly));
  EXPECT_EQ(1000, compositor.AddLayer(tall.image(), 1.5, kBlendNormal, kCompositeAlpha));
  EXPECT_EQ(1000, compositor.AddLayer(argb.image(), -1.0, kBlendNormal, kCompositeAlpha));
  const double outOfRange[] = {-0.001, 1.0000001, 1.5, std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity()};
  for (double opacity : outOfRange) {
    EXPECT_EQ(7, compositor.AddLayer(layer.image(), opacity, kBlendNormal, kCompositeColorOnly)) << opacity;
  }
  std::tr1::shared_ptr<KVAbstractImage> shared = CreateImage(wide.pixels(), 5, 3, kPixelOrderBGRA);
  EXPECT_EQ(1000, compositor.AddLayer(shared, 1.5, kBlendNormal, kCompositeColorOnly));
  std::tr1::shared_ptr<KVAbstractImage> sharedLayer = CreateImage(layer.pixels(), 4, 3, kPixelOrderBGRA);
  EXPECT_EQ(7, compositor.AddLayer(sharedLayer, 2.0, kBlendNormal, kCompositeColorOnly));
  EXPECT_EQ(0, compositor.RenderQueueCount());
  EXPECT_EQ(0, compositor.Render());
  EXPECT_EQ(before, background.contents());
  EXPECT_TRUE(background.guardsIntact());
}

// ---------------------------------------------------------------- colour-only path

TEST(LayerCompositorColourOnly, ContractExample) {
  GuardedImage background(6, 3), layer(6, 3);
  background.fill(Bytes(background.bytes(), 100));
  layer.fill(Bytes(layer.bytes(), 200));
  KVImageCompositor compositor(background.image(), 1.0, kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, compositor.AddLayer(layer.image(), 1.0, kBlendNormal, kCompositeColorOnly));
  ASSERT_EQ(0, compositor.Render());
  // fa = 200: 100 + ((100 * 200) >> 8) = 178; the background alpha is kept.
  for (size_t i = 0; i < background.bytes(); i += 4) {
    ASSERT_EQ(178, background.pixels()[i]);
    ASSERT_EQ(178, background.pixels()[i + 1]);
    ASSERT_EQ(178, background.pixels()[i + 2]);
    ASSERT_EQ(100, background.pixels()[i + 3]);
  }
  EXPECT_EQ(Bytes(layer.bytes(), 200), layer.contents());
  EXPECT_TRUE(background.guardsIntact());
}

TEST(LayerCompositorColourOnly, OpaqueLayerAtFullOpacityStopsOneShort) {
  // Upwards 255 stops one short: (255 * 255) >> 8 = 254. Downwards the shift
  // rounds toward minus infinity and reaches the top: 255 + floor(-254.004).
  EXPECT_EQ(Pixel({254, 0, 10, 77}),
            CompositeOnePixel({0, 255, 10, 77}, {255, 0, 10, 255}, 1.0, kBlendNormal, kCompositeColorOnly));
}

TEST(LayerCompositorColourOnly, ClearLayerZeroOrNaNOpacityChangeNothingButReplace) {
  const Pixel bg = {10, 20, 30, 40}, clear = {200, 150, 100, 0}, opaque = {200, 150, 100, 255};
  for (int mode : kEveryMode) {
    const Pixel expected = mode == kBlendReplace ? Pixel{200, 150, 100, 40} : bg;
    EXPECT_EQ(expected, CompositeOnePixel(bg, clear, 1.0, KVBlendMode(mode), kCompositeColorOnly)) << mode;
    EXPECT_EQ(expected, CompositeOnePixel(bg, opaque, 0.0, KVBlendMode(mode), kCompositeColorOnly)) << mode;
    EXPECT_EQ(expected, CompositeOnePixel(bg, opaque, std::nan(""), KVBlendMode(mode), kCompositeColorOnly)) << mode;
  }
}

// ---------------------------------------------------------------- alpha path

// bA 128 under fA 200 at opacity 1: fa = 200, oA = 128 + 200 - round(128 *
// 200 / 255) = 228, k = (128 / 255) * 55 = 27.6078, inv = 1 / 228.
// Blue:  (100 * 200 + 50 * k) / 228 = 21380.39 / 228 = 93.77 -> 93
// Green: (255 * 200 + 0) / 228 = 223.68 -> 223
// Red:   (0 + 255 * k) / 228 = 7040 / 228 = 30.88 -> 30
TEST(LayerCompositorAlpha, NormalPixelByHand) {
  for (KVCompositeType type : {kCompositeAlphaFill, kCompositeAlpha, KVCompositeType(7)}) {
    EXPECT_EQ(Pixel({93, 223, 30, 228}),
              CompositeOnePixel({50, 0, 255, 128}, {100, 255, 0, 200}, 1.0, kBlendNormal, type));
  }
}

// At opacity 0 the colour is b * (bA / 255 * 255) * (1 / bA) in single
// precision. For bA 41 that product lands just below the integer
// (1 -> 0.99999994), so truncation moves such colours down by one; bA 128
// gives them back exactly. A NaN opacity composites as 0.
TEST(LayerCompositorAlpha, ZeroOpacityUnpremultipliesInSinglePrecision) {
  const Pixel fg = {255, 255, 255, 255};
  EXPECT_EQ(Pixel({0, 1, 3, 41}), CompositeOnePixel({1, 2, 3, 41}, fg, 0.0, kBlendNormal, kCompositeAlpha));
  EXPECT_EQ(Pixel({0, 1, 3, 41}), CompositeOnePixel({1, 2, 3, 41}, fg, std::nan(""), kBlendNormal, kCompositeAlpha));
  EXPECT_EQ(Pixel({1, 2, 3, 128}), CompositeOnePixel({1, 2, 3, 128}, fg, 0.0, kBlendNormal, kCompositeAlpha));
}

// ---------------------------------------------------------------- whole images

TEST(LayerCompositor, MatchesTheReferenceOnEveryModeTypeAndOpacity) {
  const double opacities[] = {0.0, 0.3, 0.5, 1.0, std::nan("")};
  const int types[] = {0, 1, 2, 7};
  const unsigned int width = 13, height = 7;
  Bytes bgBytes = PatternBytes(width * height * 4, 11), fgBytes = PatternBytes(width * height * 4, 12);
  // Some exact alpha values, including clear pixels on either side.
  for (size_t i = 3; i < bgBytes.size(); i += 16) bgBytes[i] = 0;
  for (size_t i = 7; i < fgBytes.size(); i += 20) fgBytes[i] = 0;
  for (size_t i = 11; i < fgBytes.size(); i += 24) fgBytes[i] = 255;
  for (size_t offset : {0u, 1u}) {
    for (int mode : kEveryMode) {
      for (int type : types) {
        for (double opacity : opacities) {
          GuardedImage background(width, height, offset), layer(width, height, offset);
          background.fill(bgBytes);
          layer.fill(fgBytes);
          KVImageCompositor compositor(background.image(), 1.0, kvtest::SharedTables(), kDownsampleNone);
          ASSERT_EQ(0, compositor.AddLayer(layer.image(), opacity, KVBlendMode(mode), KVCompositeType(type)));
          ASSERT_EQ(0, compositor.Render());
          Bytes expected = bgBytes;
          ReferenceComposite(expected, fgBytes, opacity, type, mode, kvtest::SharedTables());
          ASSERT_EQ(expected, background.contents()) << "mode " << mode << " type " << type << " opacity "
                                                     << opacity << " offset " << offset;
          ASSERT_EQ(fgBytes, layer.contents());
          ASSERT_TRUE(background.guardsIntact());
        }
      }
    }
  }
}

// ---------------------------------------------------------------- the stage itself

TEST(LayerCompositorStageDeathTest, MismatchAssertions) {
  GuardedImage background(4, 3), wide(5, 3), tall(4, 2), argb(4, 3, 0, kPixelOrderARGB);
  kvtest::DeepImage deep(4, 3, 16);
  const std::string prefix = "LayerCompositor:";
  LayerCompositor widthStage(wide.image(), 1.0, kCompositeColorOnly, kBlendNormal, kvtest::SharedTables());
  EXPECT_DEATH(widthStage.Render(background.image(), 0, 1),
               Escaped(prefix + "64: failed assertion `m_foregroundLayer->Width() == backgroundLayer->Width() && "
                                "\"Width of foreground and background layers does not match\"'"));
  LayerCompositor heightStage(tall.image(), 1.0, kCompositeAlpha, kBlendNormal, kvtest::SharedTables());
  EXPECT_DEATH(heightStage.Render(background.image(), 0, 1),
               Escaped(prefix + "66: failed assertion `m_foregroundLayer->Height() == backgroundLayer->Height() && "
                                "\"Height of foreground and background layers does not match\"'"));
  LayerCompositor depthStage(&deep, 1.0, kCompositeAlpha, kBlendNormal, kvtest::SharedTables());
  EXPECT_DEATH(depthStage.Render(background.image(), 0, 1),
               Escaped(prefix + "68: failed assertion `m_foregroundLayer->BitsPerChannel() == "
                                "backgroundLayer->BitsPerChannel() && \"BPC of foreground and background layers does "
                                "not match\"'"));
  LayerCompositor orderStage(argb.image(), 1.0, kCompositeAlpha, kBlendNormal, kvtest::SharedTables());
  EXPECT_DEATH(orderStage.Render(background.image(), 0, 1),
               Escaped(prefix + "70: failed assertion `m_foregroundLayer->PixelChannelOrder() == "
                                "backgroundLayer->PixelChannelOrder() && \"Pixel channel order of foreground and "
                                "background layers does not match\"'"));
}
