#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

const KVPixel8_RGB kShadowColour = {200, 40, 90};

// The corners of a rectangle moved by (dx, dy).
KVQuad Translated(const KVRect& rect, double dx, double dy) {
  const double left = rect.TopLeft().X() + dx, top = rect.TopLeft().Y() + dy;
  const double right = left + rect.Width(), bottom = top + rect.Height();
  return KVQuad(KVPoint2F(left, top), KVPoint2F(right, top), KVPoint2F(left, bottom), KVPoint2F(right, bottom));
}

struct Shadow {
  KVRect bounds;
  KVQuad corners;
  unsigned int radius;
  double amount;
  KVBlendMode mode;
  bool fade;
};

// A background of width x height and a patterned layer (the background's
// size unless given) casting shadows onto it.
struct Scene {
  unsigned int width, height, layerWidth, layerHeight;
  Bytes layer;
  Scene(unsigned int w, unsigned int h, uint32_t seed, unsigned int lw = 0, unsigned int lh = 0)
      : width(w), height(h), layerWidth(lw ? lw : w), layerHeight(lh ? lh : h),
        layer(LayerBytes(layerWidth, layerHeight, seed)) {}

  // Casts the shadow through the compositor and returns the background.
  Bytes Cast(const Bytes& background, const Shadow& shadow, size_t offset = 0,
             KVDownsampleFactor factor = kDownsampleNone) const {
    GuardedImage canvas(width, height, offset), over(layerWidth, layerHeight, offset);
    canvas.fill(background);
    over.fill(layer);
    KVImageCompositor compositor(canvas.image(), 1.0, SharedTables(), factor);
    EXPECT_EQ(0, compositor.AddShadowCastLayer(over.image(), shadow.bounds, shadow.corners, shadow.radius,
                                               shadow.amount, kShadowColour, shadow.mode, shadow.fade, kDownsampleNone));
    EXPECT_EQ(0, compositor.Render());
    return canvas.contents();
  }

  // The shadow alpha itself: normal mode at amount 1 over a clear
  // background, whose alpha becomes AlphaChannelBlend(0, opacity) = opacity.
  Bytes Alpha(Shadow shadow, KVDownsampleFactor factor = kDownsampleNone) const {
    shadow.amount = 1.0;
    shadow.mode = kBlendNormal;
    const Bytes cast = Cast(Bytes(static_cast<size_t>(width) * height * 4, 0), shadow, 0, factor);
    Bytes alpha(static_cast<size_t>(width) * height);
    for (size_t p = 0; p < alpha.size(); ++p) alpha[p] = cast[p * 4 + 3];
    return alpha;
  }
};

}  // namespace

// A rectangle cast onto a copy of itself moved by whole pixels lays exactly
// the moved alpha of the layer's part within the rectangle, for layers of the
// background's size, smaller and larger, and moves off the image.
TEST(ShadowCast, TranslatedRectangleLiesUnderTheTranslatedAlpha) {
  const unsigned int width = 32, height = 24;
  const KVRect bounds(KVPoint2(3, 2), 20, 15);
  const struct { unsigned int width, height; } layers[] = {{32, 24}, {16, 12}, {40, 30}};
  const int moves[][2] = {{0, 0}, {5, 4}, {-2, 3}, {9, -1}, {-20, -10}, {30, 2}};
  for (const auto& size : layers) {
    const Scene scene(width, height, 1, size.width, size.height);
    for (const auto& move : moves) {
      const Bytes alpha = scene.Alpha({bounds, Translated(bounds, move[0], move[1]), 0, 1.0, kBlendNormal, false});
      for (unsigned int y = 0; y < height; ++y) {
        for (unsigned int x = 0; x < width; ++x) {
          const int sx = static_cast<int>(x) - move[0], sy = static_cast<int>(y) - move[1];
          const bool inside = sx >= 3 && sx < 23 && sy >= 2 && sy < 17 && sx < static_cast<int>(size.width) &&
                              sy < static_cast<int>(size.height);
          const int expected = inside ? scene.layer[(sy * size.width + sx) * 4 + 3] : 0;
          ASSERT_EQ(expected, alpha[y * width + x])
              << "layer " << size.width << " move " << move[0] << "," << move[1] << " at " << x << "," << y;
        }
      }
    }
  }
}

// Off the pixel grid, the bounds' edge samples blend with nothing beyond the
// bounds, though the layer goes on opaque there: every edge of the shadow of
// an opaque layer is partly clear.
TEST(ShadowCast, SamplesBeyondTheBoundsCountAsClearOffTheGrid) {
  const unsigned int width = 32, height = 24;
  Scene scene(width, height, 0);
  scene.layer.assign(width * height * 4, 255);
  const KVRect bounds(KVPoint2(3, 2), 20, 15);
  for (double move : {0.5, -0.5, 0.25}) {
    const Bytes alpha = scene.Alpha({bounds, Translated(bounds, move, move), 0, 1.0, kBlendNormal, false});
    // The first and last covered pixels of row 10 and of column 12.
    for (const auto& line : {std::make_pair(10u * width, 1u), std::make_pair(12u, width)}) {
      std::vector<unsigned char> covered;
      for (size_t at = line.first; at < alpha.size() && covered.size() < 32; at += line.second) {
        if (alpha[at] != 0) covered.push_back(alpha[at]);
        if (line.second == 1 && at % width == width - 1) break;
      }
      ASSERT_GE(covered.size(), 2u) << move;
      EXPECT_LT(covered.front(), 255) << move;
      EXPECT_LT(covered.back(), 255) << move;
    }
  }
}

// A floor shadow of a standing rectangle: the top edge thrown back and
// widened. The shadow stays within the quadrilateral's bounding box, and with
// the fade it is strongest at the contact edge.
TEST(ShadowCast, PerspectiveShadowStaysWithinTheQuadrilateral) {
  const unsigned int width = 60, height = 40;
  Scene scene(width, height, 0);
  scene.layer.assign(width * height * 4, 255);
  const KVQuad floor(KVPoint2F(30, 28), KVPoint2F(58, 28), KVPoint2F(20, 35), KVPoint2F(40, 35));
  const Bytes alpha = scene.Alpha({KVRect(KVPoint2(20, 5), 20, 30), floor, 0, 1.0, kBlendNormal, true});
  int contact = 0, far = 0;
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      const int a = alpha[y * width + x];
      if (a == 0) continue;
      EXPECT_TRUE(x >= 19 && x <= 58 && y >= 27 && y <= 35) << x << "," << y;
      if (y == 34) contact = std::max(contact, a);
      if (y == 28) far = std::max(far, a);
    }
  }
  EXPECT_GT(contact, 200);
  EXPECT_GT(far, 0);
  EXPECT_LT(far, contact / 4);
}

TEST(ShadowCast, DegenerateQuadrilateralsAndEmptyBoundsCastNothing) {
  const Scene scene(12, 10, 4);
  const Bytes background = PatternBytes(12 * 10 * 4, 3);
  const KVRect bounds(KVPoint2(1, 1), 10, 8);
  const KVPoint2F a(2, 2), b(10, 2), c(2, 9), d(10, 9);
  const KVQuad degenerate[] = {
      KVQuad(a, a, a, a),                              // a point
      KVQuad(a, b, KVPoint2F(4, 2), KVPoint2F(7, 2)),  // a line
      KVQuad(a, b, c, KVPoint2F(6, 5.5)),              // three corners in line
      KVQuad(a, b, d, c),                              // crossed: a bow tie
      KVQuad(a, b, c, KVPoint2F(4, 4)),                // not convex
      KVQuad(KVPoint2F(kNaN, 2), b, c, d),             // not a number
      KVQuad(a, KVPoint2F(HUGE_VAL, 2), c, d),        // infinite
      KVQuad(a, b, c, KVPoint2F(10, -HUGE_VAL)),
  };
  auto cast = [&](const KVRect& rect, const KVQuad& quad, unsigned int radius) {
    return scene.Cast(background, {rect, quad, radius, 1.0, kBlendNormal, true});
  };
  for (const KVQuad& quad : degenerate) {
    EXPECT_EQ(background, cast(bounds, quad, 0));
    EXPECT_EQ(background, cast(bounds, quad, 2));
  }
  const KVQuad good(a, b, c, d);
  for (const KVRect& rect : {KVRect(KVPoint2(1, 1), 0, 8), KVRect(KVPoint2(1, 1), 10, -3),
                             KVRect(KVPoint2(20, 20), 5, 5), KVRect(KVPoint2(-30, 1), 10, 8)}) {
    EXPECT_EQ(background, cast(rect, good, 0));
  }
  EXPECT_NE(background, cast(bounds, good, 0));
}

// Every mode over a patterned background against BlendPixel and
// AlphaChannelBlend at opacity trunc(shadow alpha * amount), on the aligned
// and the unaligned buffer; pixels of opacity 0 keep their bytes. The bounds
// lie inside the layer: only their alpha is sampled, whatever the shares.
TEST(ShadowCast, LaysTheColourWithBlendPixel) {
  KVLookupTables& tables = SharedTables();
  const Scene scene(21, 13, 8);
  const Bytes background = PatternBytes(21 * 13 * 4, 7);
  const KVRect bounds(KVPoint2(2, 1), 15, 11);
  const KVQuad trapezoid(KVPoint2F(6, 3), KVPoint2F(17, 4), KVPoint2F(1, 12), KVPoint2F(20, 12.5));
  const Bytes alpha = scene.Alpha({bounds, trapezoid, 2, 1.0, kBlendNormal, true});
  for (double amount : {0.6, 1.0, 3.0}) {
    for (int mode = 0; mode <= 15; ++mode) {
      Bytes expected = background;
      const double clamped = std::min(amount, 1.0);
      for (size_t p = 0; p < alpha.size(); ++p) {
        const int opacity = static_cast<int>(alpha[p] * clamped);
        if (opacity == 0) continue;
        unsigned char* px = &expected[p * 4];
        const int colour[3] = {kShadowColour.blue, kShadowColour.green, kShadowColour.red};
        for (int c = 0; c < 3; ++c) px[c] = static_cast<unsigned char>(BlendPixel(px[c], colour[c], KVBlendMode(mode), opacity, tables));
        px[3] = tables.AlphaChannelBlend(px[3], static_cast<unsigned char>(opacity));
      }
      for (unsigned int threads : {1u, 2u, 7u, 16u}) {
        ScopedCoreCount cores(threads);
        ASSERT_EQ(expected, scene.Cast(background, {bounds, trapezoid, 2, amount, KVBlendMode(mode), true}, threads % 2))
            << "mode " << mode << " amount " << amount << " threads " << threads;
      }
    }
  }
}

// The blur is the single-channel stack blur of the sharp shadow: the same
// values as the stack blur's alpha-only mode over an image holding them. The
// radius is scaled by the compositor's factor.
// The shadow near the edges and well inside the image (where only the pixels
// it can reach are blurred).
TEST(ShadowCast, RadiusBlursTheShadowAlphaWithTheStackBlur) {
  const unsigned int width = 31, height = 19;
  const Scene scene(width, height, 11);
  const KVRect bounds(KVPoint2(4, 2), 20, 14);
  const KVQuad quads[] = {KVQuad(KVPoint2F(10, 6), KVPoint2F(26, 5), KVPoint2F(3, 17), KVPoint2F(29, 18)),
                          KVQuad(KVPoint2F(14, 8), KVPoint2F(18, 8.5), KVPoint2F(12, 11), KVPoint2F(19, 10))};
  for (const KVQuad& quad : quads) {
    const Bytes sharp = scene.Alpha({bounds, quad, 0, 1.0, kBlendNormal, true});
    for (unsigned int radius : {1u, 3u, 4u, 40u, 100000u}) {
      Bytes plane(width * height * 4, 0), blurred(width * height * 4, 0);
      for (size_t p = 0; p < sharp.size(); ++p) plane[p * 4 + 3] = sharp[p];
      KVImage8 source(plane.data(), width, height, kPixelOrderBGRA), target(blurred.data(), width, height, kPixelOrderBGRA);
      KVImageProcessor processor(&source, &target, SharedTables(), kDownsampleNone);
      ASSERT_EQ(0, processor.SetStackBlur(radius, true, true, kChannelsAlpha));
      ASSERT_EQ(0, processor.Render());
      const Bytes cast = scene.Alpha({bounds, quad, radius, 1.0, kBlendNormal, true});
      for (size_t p = 0; p < cast.size(); ++p) ASSERT_EQ(blurred[p * 4 + 3], cast[p]) << radius << " at " << p;
      EXPECT_EQ(cast, scene.Alpha({bounds, quad, radius * 2, 1.0, kBlendNormal, true}, kDownsampleHalf));
    }
  }
}

// A stage set up on one background leaves a background of another size alone
// (a host may drive it directly).
TEST(ShadowCastStage, ABackgroundOfAnotherSizeThanTheSetupIsLeftAlone) {
  GuardedImage setup(4, 3), background(5, 3), layer(4, 3);
  layer.fill(Bytes(layer.bytes(), 255));
  const Bytes before = PatternBytes(background.bytes(), 6);
  background.fill(before);
  const KVRect bounds(KVPoint2(0, 0), 4, 3);
  ShadowCastCompositor stage(layer.image(), bounds, Translated(bounds, 0, 0), 0, 1.0, kShadowColour, kBlendNormal,
                             false, kDownsampleNone, SharedTables(), kvtest::kPlainPath);
  stage.Setup(setup.image());
  EXPECT_EQ(0, stage.Render(background.image(), 0, 1));
  EXPECT_EQ(before, background.contents());
}
