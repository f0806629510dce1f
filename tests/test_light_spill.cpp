#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

// Translucent background alphas that the un-premultiplication does not give
// back exactly.
Bytes BackgroundBytes(unsigned int width, unsigned int height, uint32_t seed) {
  Bytes bytes = PatternBytes(static_cast<size_t>(width) * height * 4, seed);
  for (size_t i = 3; i < bytes.size(); i += 16) bytes[i] = 41;
  for (size_t i = 11; i < bytes.size(); i += 16) bytes[i] = 0;
  return bytes;
}

// The blurred copy the glow is made of: the stack blur of all four bytes.
Bytes StackBlurred(const Bytes& layer, unsigned int width, unsigned int height, unsigned int radius) {
  KVLookupTables& tables = SharedTables();
  Bytes in = layer, out(layer.size());
  KVImage8 source(in.data(), width, height, kPixelOrderBGRA), destination(out.data(), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&source, &destination, tables, kDownsampleNone);
  EXPECT_EQ(0, processor.SetStackBlur(radius, true, true, kChannelsAll));
  EXPECT_EQ(0, processor.Render());
  return out;
}

// The oracle: the layer compositor's alpha path (keeping the background where
// the combined alpha is 0) laying the blurred copy at the clamped amount, with
// the pixels whose weighted alpha is 0 left as they were.
Bytes ExpectedGlow(const Bytes& background, const Bytes& layer, unsigned int width, unsigned int height,
                   unsigned int radius, double amount, KVBlendMode mode) {
  KVLookupTables& tables = SharedTables();
  Bytes blurred = StackBlurred(layer, width, height, radius), result = background;
  const double clamped = amount > 0.0 ? std::min(amount, 1.0) : 0.0;
  KVImage8 canvas(result.data(), width, height, kPixelOrderBGRA), over(blurred.data(), width, height, kPixelOrderBGRA);
  KVImageCompositor compositor(&canvas, 1.0, tables, kDownsampleNone);
  EXPECT_EQ(0, compositor.AddLayer(&over, clamped, mode, kCompositeAlpha));
  EXPECT_EQ(0, compositor.Render());
  for (size_t i = 0; i < result.size(); i += 4) {
    if (static_cast<int>(blurred[i + 3] * clamped) == 0) std::copy(&background[i], &background[i] + 4, &result[i]);
  }
  return result;
}

// Lays a glow through the compositor and returns the background.
Bytes Glow(const Bytes& background, const Bytes& layer, unsigned int width, unsigned int height, int radius,
           double amount, KVBlendMode mode, size_t offset = 0, KVDownsampleFactor compositorFactor = kDownsampleNone,
           KVDownsampleFactor callFactor = kDownsampleNone) {
  KVLookupTables& tables = SharedTables();
  GuardedImage canvas(width, height, offset), over(width, height, offset);
  canvas.fill(background);
  over.fill(layer);
  KVImageCompositor compositor(canvas.image(), 1.0, tables, compositorFactor);
  EXPECT_EQ(0, compositor.AddLightSpillLayer(over.image(), radius, amount, mode, callFactor));
  EXPECT_EQ(0, compositor.Render());
  EXPECT_EQ(layer, over.contents());
  EXPECT_TRUE(canvas.guardsIntact());
  EXPECT_TRUE(over.guardsIntact());
  return canvas.contents();
}

}  // namespace

TEST(LightSpill, ZeroAmountChangesNothingInAnyMode) {
  const unsigned int width = 11, height = 7;
  const Bytes background = BackgroundBytes(width, height, 1), layer = LayerBytes(width, height, 2);
  const double amounts[] = {0.0, -0.5, kNaN, -std::numeric_limits<double>::infinity()};
  for (int mode : {0, 1, 4, 8, 9, 11, 13, 14, 200}) {
    for (double amount : amounts) {
      for (int radius : {0, 3}) {
        ASSERT_EQ(background, Glow(background, layer, width, height, radius, amount, KVBlendMode(mode)))
            << "mode " << mode << " amount " << amount << " radius " << radius;
      }
    }
  }
}

// The blurred copy laid with the layer compositor's alpha path, byte for byte,
// for several radii, modes and amounts (above 1 clamped), on the aligned and
// the unaligned buffer.
TEST(LightSpill, IsTheBlurredLayerThroughTheAlphaPath) {
  const unsigned int width = 23, height = 17;
  const Bytes background = BackgroundBytes(width, height, 3), layer = LayerBytes(width, height, 4);
  for (int mode : {int(kBlendNormal), int(kBlendScreen), int(kBlendAdd), int(kBlendMultiply), int(kBlendReplace), 14}) {
    for (unsigned int radius : {0u, 1u, 5u}) {
      for (double amount : {0.3, 1.0, 2.5}) {
        const Bytes expected = ExpectedGlow(background, layer, width, height, radius, amount, KVBlendMode(mode));
        for (size_t offset : {0u, 1u}) {
          ASSERT_EQ(expected,
                    Glow(background, layer, width, height, static_cast<int>(radius), amount, KVBlendMode(mode), offset))
              << "mode " << mode << " radius " << radius << " amount " << amount << " offset " << offset;
        }
      }
    }
  }
}

// A white square glowing over a dark opaque background: the glow reaches
// further with every radius, never beyond the radius, and radius 0 changes
// the square alone.
TEST(LightSpill, GlowReachGrowsWithTheRadius) {
  const unsigned int size = 41, centre = 20, half = 2;
  Bytes background(size * size * 4), layer(size * size * 4, 0);
  for (size_t i = 0; i < background.size(); i += 4) {
    background[i] = background[i + 1] = background[i + 2] = 30;
    background[i + 3] = 255;
  }
  for (unsigned int y = centre - half; y <= centre + half; ++y) {
    for (unsigned int x = centre - half; x <= centre + half; ++x) std::fill_n(&layer[(y * size + x) * 4], 4, 255);
  }
  int previousReach = -1;
  for (int radius : {0, 2, 4, 8}) {
    const Bytes glow = Glow(background, layer, size, size, radius, 1.0, kBlendScreen);
    int reach = -1;
    for (unsigned int y = 0; y < size; ++y) {
      for (unsigned int x = 0; x < size; ++x) {
        if (std::equal(&glow[(y * size + x) * 4], &glow[(y * size + x) * 4] + 4, &background[(y * size + x) * 4])) {
          continue;
        }
        const int dx = std::max(0, std::abs(static_cast<int>(x) - static_cast<int>(centre)) - static_cast<int>(half));
        const int dy = std::max(0, std::abs(static_cast<int>(y) - static_cast<int>(centre)) - static_cast<int>(half));
        reach = std::max(reach, std::max(dx, dy));
      }
    }
    EXPECT_LE(reach, radius);
    EXPECT_GT(reach, previousReach) << radius;
    previousReach = reach;
  }
  // At radius 0 the square itself is screened with full white (fa 255).
  const Bytes sharp = Glow(background, layer, size, size, 0, 1.0, kBlendScreen);
  EXPECT_EQ(255, sharp[(centre * size + centre) * 4]);
}

TEST(LightSpill, ArgumentCodesAndNothingQueued) {
  KVLookupTables& tables = SharedTables();
  GuardedImage background(6, 4), layer(6, 4), wide(7, 4), tall(6, 5), argb(6, 4, 0, kPixelOrderARGB);
  const Bytes before = BackgroundBytes(6, 4, 5);
  background.fill(before);
  KVImageCompositor compositor(background.image(), 1.0, tables, kDownsampleNone);
  // The match is checked before the radius.
  EXPECT_EQ(1000, compositor.AddLightSpillLayer(wide.image(), 3, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(1000, compositor.AddLightSpillLayer(tall.image(), -1, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(1000, compositor.AddLightSpillLayer(argb.image(), 3, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(1000, compositor.AddLightSpillLayer(static_cast<KVAbstractImage*>(nullptr), 3, 0.5, kBlendScreen,
                                                kDownsampleNone));
  EXPECT_EQ(7, compositor.AddLightSpillLayer(layer.image(), -1, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(7, compositor.AddLightSpillLayer(layer.image(), std::numeric_limits<int>::min(), 0.5, kBlendScreen,
                                             kDownsampleNone));
  std::tr1::shared_ptr<KVAbstractImage> sharedWide = CreateImage(wide.pixels(), 7, 4, kPixelOrderBGRA);
  std::tr1::shared_ptr<KVAbstractImage> sharedLayer = CreateImage(layer.pixels(), 6, 4, kPixelOrderBGRA);
  EXPECT_EQ(1000, compositor.AddLightSpillLayer(sharedWide, -1, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(7, compositor.AddLightSpillLayer(sharedLayer, -1, 0.5, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(0, compositor.RenderQueueCount());
  EXPECT_EQ(0, compositor.Render());
  EXPECT_EQ(before, background.contents());

  // Any amount, mode and factor passes.
  EXPECT_EQ(0, compositor.AddLightSpillLayer(layer.image(), 0, kNaN, KVBlendMode(99), KVDownsampleFactor(17)));
  EXPECT_EQ(0, compositor.AddLightSpillLayer(layer.image(), 2, -4.0, kBlendReplace, kDownsampleQuarter));
  EXPECT_EQ(0, compositor.AddLightSpillLayer(sharedLayer, 1, 7.0, kBlendAdd, kDownsampleNone));
  EXPECT_EQ(1, sharedLayer.use_count());  // the compositor keeps no reference
  EXPECT_EQ(3, compositor.RenderQueueCount());
}

// Radius 9 under the compositor's factor 1 (0.5) is the stage's radius 4; the
// factor passed to the call does not scale it.
TEST(LightSpill, RadiusIsScaledByTheCompositorsFactor) {
  const unsigned int width = 25, height = 19;
  const Bytes background = BackgroundBytes(width, height, 6), layer = LayerBytes(width, height, 7);
  const Bytes radius4 = Glow(background, layer, width, height, 4, 1.0, kBlendScreen);
  EXPECT_NE(radius4, Glow(background, layer, width, height, 9, 1.0, kBlendScreen));
  EXPECT_EQ(radius4, Glow(background, layer, width, height, 9, 1.0, kBlendScreen, 0, kDownsampleHalf));
  EXPECT_EQ(radius4,
            Glow(background, layer, width, height, 4, 1.0, kBlendScreen, 0, kDownsampleNone, kDownsampleQuarter));
  EXPECT_EQ(radius4,
            Glow(background, layer, width, height, 16, 1.0, kBlendScreen, 0, kDownsampleQuarter, kDownsampleHalf));
}

TEST(LightSpill, EveryThreadCountGivesTheSameBytes) {
  for (unsigned int width : {13u, 1u, 3u}) {
    const unsigned int height = width == 13 ? 9 : 2;
    const Bytes background = BackgroundBytes(width, height, 8), layer = LayerBytes(width, height, 9);
    const Bytes expected = ExpectedGlow(background, layer, width, height, 3, 0.8, kBlendOverlay);
    for (unsigned int threads = 1; threads <= 16; ++threads) {
      ScopedCoreCount cores(threads);
      ASSERT_EQ(expected, Glow(background, layer, width, height, 3, 0.8, kBlendOverlay)) << threads << " threads";
    }
  }
}

// Every radius renders, with bounded work: a window far wider than the layer
// gives the same bytes on any thread count. An empty image renders nothing.
TEST(LightSpill, HugeRadiiRenderAndEmptyImagesRenderNothing) {
  KVLookupTables& tables = SharedTables();
  GuardedImage layer(5, 4);
  layer.fill(LayerBytes(5, 4, 11));
  for (unsigned int radius : {2896u, 100000u, static_cast<unsigned int>(std::numeric_limits<int>::max())}) {
    Bytes first;
    for (unsigned int threads : {1u, 3u}) {
      kvtest::ScopedCoreCount cores(threads);
      GuardedImage background(5, 4);
      background.fill(BackgroundBytes(5, 4, 10));
      KVImageCompositor compositor(background.image(), 1.0, tables, kDownsampleNone);
      EXPECT_EQ(0, compositor.AddLightSpillLayer(layer.image(), radius, 1.0, kBlendScreen, kDownsampleNone));
      EXPECT_EQ(0, compositor.Render());
      EXPECT_TRUE(background.guardsIntact());
      if (first.empty()) {
        first = background.contents();
        EXPECT_NE(BackgroundBytes(5, 4, 10), first) << radius;
      } else {
        EXPECT_EQ(first, background.contents()) << radius;
      }
    }
  }

  GuardedImage emptyBackground(0, 0), emptyLayer(0, 0);
  KVImageCompositor empty(emptyBackground.image(), 1.0, tables, kDownsampleNone);
  EXPECT_EQ(0, empty.AddLightSpillLayer(emptyLayer.image(), 3, 1.0, kBlendScreen, kDownsampleNone));
  EXPECT_EQ(0, empty.Render());
  EXPECT_TRUE(emptyBackground.guardsIntact());
}

TEST(LightSpillStage, DrivenDirectly) {
  KVLookupTables& tables = SharedTables();
  const kvtl::CPUExtensions extensions = kvtest::kPlainPath;
  // Another depth: nothing is read, the depth code comes back.
  DeepImage deepBackground(3, 2), deepLayer(3, 2);
  LightSpillLayerCompositor deep(&deepLayer, 2, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_EQ(1u, deep.Type());
  deep.Setup(&deepBackground);
  EXPECT_EQ(16, deep.Render(&deepBackground, 0, 1));
  // Render without a Setup has no blurred copy yet: nothing changes.
  GuardedImage background(4, 3), layer(4, 3);
  const Bytes before = BackgroundBytes(4, 3, 12);
  background.fill(before);
  layer.fill(LayerBytes(4, 3, 13));
  LightSpillLayerCompositor stage(layer.image(), 2, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_EQ(0, stage.Render(background.image(), 0, 1));
  EXPECT_EQ(before, background.contents());
  // Shares past the end of the image are empty.
  stage.Setup(background.image());
  for (unsigned char t = 0; t < 20; ++t) EXPECT_EQ(0, stage.Render(background.image(), t, 20));
  EXPECT_EQ(ExpectedGlow(before, layer.contents(), 4, 3, 2, 1.0, kBlendScreen), background.contents());
  EXPECT_TRUE(background.guardsIntact());
}

TEST(LightSpillStageDeathTest, MismatchAssertions) {
  KVLookupTables& tables = SharedTables();
  const kvtl::CPUExtensions extensions = kvtest::kPlainPath;
  GuardedImage background(4, 3), wide(5, 3), tall(4, 2), argb(4, 3, 0, kPixelOrderARGB);
  DeepImage deep(4, 3, 16);
  const std::string prefix = "LightSpillLayerCompositor:";
  LightSpillLayerCompositor widthStage(wide.image(), 1, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_DEATH(widthStage.Render(background.image(), 0, 1),
               LiteralRegex(prefix + "88: failed assertion `m_foregroundLayer->Width() == backgroundLayer->Width() && "
                                     "\"Width of foreground and background layers does not match\"'"));
  LightSpillLayerCompositor heightStage(tall.image(), 1, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_DEATH(heightStage.Render(background.image(), 0, 1),
               LiteralRegex(prefix + "90: failed assertion `m_foregroundLayer->Height() == backgroundLayer->Height() "
                                     "&& \"Height of foreground and background layers does not match\"'"));
  LightSpillLayerCompositor depthStage(&deep, 1, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_DEATH(depthStage.Render(background.image(), 0, 1),
               LiteralRegex(prefix + "92: failed assertion `m_foregroundLayer->BitsPerChannel() == "
                                     "backgroundLayer->BitsPerChannel() && \"BPC of foreground and background layers "
                                     "does not match\"'"));
  LightSpillLayerCompositor orderStage(argb.image(), 1, 1.0, kBlendScreen, kDownsampleNone, tables, extensions);
  EXPECT_DEATH(orderStage.Render(background.image(), 0, 1),
               LiteralRegex(prefix + "94: failed assertion `m_foregroundLayer->PixelChannelOrder() == "
                                     "backgroundLayer->PixelChannelOrder() && \"Pixel channel order of foreground and "
                                     "background layers does not match\"'"));
}
