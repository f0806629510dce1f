#include <gtest/gtest.h>

#include <algorithm>
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

// The oracle: the stack blur of all four bytes of the layer, laid by the
// layer compositor's alpha path (keeping the background where the combined
// alpha is 0) at the clamped amount, the pixels whose weighted alpha is 0
// left as they were.
Bytes ExpectedGlow(const Bytes& background, const Bytes& layer, unsigned int width, unsigned int height,
                   unsigned int radius, double amount, KVBlendMode mode) {
  Bytes copy = layer, blurred(layer.size()), result = background;
  KVImage8 source(copy.data(), width, height, kPixelOrderBGRA), over(blurred.data(), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&source, &over, SharedTables(), kDownsampleNone);
  EXPECT_EQ(0, processor.SetStackBlur(radius, true, true, kChannelsAll));
  EXPECT_EQ(0, processor.Render());
  const double clamped = std::min(amount, 1.0);
  KVImage8 canvas(result.data(), width, height, kPixelOrderBGRA);
  KVImageCompositor compositor(&canvas, 1.0, SharedTables(), kDownsampleNone);
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
  GuardedImage canvas(width, height, offset), over(width, height, offset);
  canvas.fill(background);
  over.fill(layer);
  KVImageCompositor compositor(canvas.image(), 1.0, SharedTables(), compositorFactor);
  EXPECT_EQ(0, compositor.AddLightSpillLayer(over.image(), radius, amount, mode, callFactor));
  EXPECT_EQ(0, compositor.Render());
  return canvas.contents();
}

}  // namespace

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
