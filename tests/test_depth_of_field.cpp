// The depth-of-field stage: identities, the sharp region, the blur growing
// with the distance to the full-radius bounded blur (radial and linear),
// bounds, argument codes and every thread count.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <cmath>
#include <cstdlib>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

struct Focus {
  KVDepthOfFieldType type;
  KVPoint2F point;
  double angle;
  unsigned int radius;
  double focusSize;
  double transition;
  double amount;
  double feather;
  KVRect bounds;
};

kvtest::StageSetter DepthOfField(const Focus& f) {
  return [=](KVImageProcessor& p) {
    return p.SetDepthOfField(f.type, f.point, f.angle, f.radius, f.focusSize, f.transition, f.amount, f.feather,
                             f.bounds);
  };
}

kvtest::StageSetter Bounded(unsigned int radius, KVRect rect) {
  return [=](KVImageProcessor& p) { return p.SetBoundedStackBlur(radius, true, true, kChannelsAll, rect, 0.0); };
}

// 60 x 40: diagonal 72.11.
const unsigned int kW = 60, kH = 40;
const KVRect kWhole(KVPoint2(0, 0), kW, kH);

Focus Radial() { return Focus{kDepthOfFieldRadial, KVPoint2F(30, 20), 0.0, 6, 0.1, 0.2, 1.0, 0.0, KVRect()}; }

bool SamePixel(const Bytes& a, const Bytes& b, size_t p) {
  for (int c = 0; c < 4; ++c) {
    if (a[p * 4 + c] != b[p * 4 + c]) return false;
  }
  return true;
}

TEST(DepthOfField, RadialSharpInsideTheFocusDiscFullBlurBeyondTheTransition) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 2);
  const Focus f = Radial();
  const Bytes out = RenderStage(DepthOfField(f), pixels, kW, kH);
  const Bytes full = RenderStage(Bounded(f.radius, kWhole), pixels, kW, kH);
  const double diagonal = std::sqrt(60.0 * 60.0 + 40.0 * 40.0);
  int sharp = 0, blurred = 0;
  for (unsigned int y = 0; y < kH; ++y) {
    for (unsigned int x = 0; x < kW; ++x) {
      const double d = std::hypot(x + 0.5 - 30.0, y + 0.5 - 20.0);
      const size_t p = y * kW + x;
      if (d <= 0.1 * diagonal) {
        ASSERT_TRUE(SamePixel(out, pixels, p)) << x << "," << y;
        ++sharp;
      } else if (d >= 0.3 * diagonal + 1e-9) {
        ASSERT_TRUE(SamePixel(out, full, p)) << x << "," << y;
        ++blurred;
      }
    }
  }
  EXPECT_GT(sharp, 50);
  EXPECT_GT(blurred, 100);
}

TEST(DepthOfField, LinearBandFollowsTheAngle) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 6);
  Focus f{kDepthOfFieldLinear, KVPoint2F(10, 20), 0.0, 4, 0.05, 0.1, 1.0, 0.0, KVRect()};
  const Bytes full = RenderStage(Bounded(f.radius, kWhole), pixels, kW, kH);
  const double diagonal = std::sqrt(60.0 * 60.0 + 40.0 * 40.0);
  // Angle 0: a horizontal band, the same along every row.
  Bytes out = RenderStage(DepthOfField(f), pixels, kW, kH);
  for (unsigned int y = 0; y < kH; ++y) {
    const double d = std::fabs(y + 0.5 - 20.0);
    for (unsigned int x = 0; x < kW; ++x) {
      if (d <= 0.05 * diagonal) {
        ASSERT_TRUE(SamePixel(out, pixels, y * kW + x)) << x << "," << y;
      }
      if (d >= 0.15 * diagonal + 1e-9) {
        ASSERT_TRUE(SamePixel(out, full, y * kW + x)) << x << "," << y;
      }
    }
  }
  // Angle 90: a vertical band through x = 10.
  f.angle = 90.0;
  out = RenderStage(DepthOfField(f), pixels, kW, kH);
  for (unsigned int y = 0; y < kH; ++y) {
    for (unsigned int x = 0; x < 3; ++x) ASSERT_TRUE(SamePixel(out, pixels, y * kW + 10 + x - 1)) << x << "," << y;
    for (unsigned int x = 22; x < kW; ++x) ASSERT_TRUE(SamePixel(out, full, y * kW + x)) << x << "," << y;
  }
  DepthOfFieldRenderer stage(kDepthOfFieldLinear, KVPoint2F(10, 20), 45.0, 4, 0.0, 0.5, 1.0, 0.0, KVRect());
  GuardedImage image(kW, kH);
  stage.Setup(image.image());
  // 45 degrees counter-clockwise on screen: the band runs up and to the right.
  EXPECT_NEAR(0.0, stage.BlurRadiusAt(20, 9), 1e-6);
  EXPECT_GT(stage.BlurRadiusAt(20, 29), 0.5);
}

TEST(DepthOfField, OtherTypesActAsRadial) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 7);
  Focus f = Radial();
  const Bytes radial = RenderStage(DepthOfField(f), pixels, kW, kH);
  f.type = static_cast<KVDepthOfFieldType>(7);
  EXPECT_EQ(radial, RenderStage(DepthOfField(f), pixels, kW, kH));
  f.type = static_cast<KVDepthOfFieldType>(-1);
  EXPECT_EQ(radial, RenderStage(DepthOfField(f), pixels, kW, kH));
}

TEST(DepthOfField, OutsideTheBoundsTheSourceIsCopied) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 8);
  const KVRect rect(KVPoint2(25, -5), 50, 30);  // clipped to x 25..59, y 0..24
  Focus f = Radial();
  f.point = KVPoint2F(0, 0);
  f.focusSize = 0.0;
  f.transition = 0.0;  // blurred at the full radius everywhere
  f.bounds = rect;
  const Bytes out = RenderStage(DepthOfField(f), pixels, kW, kH);
  const Bytes inside = RenderStage(Bounded(f.radius, rect), pixels, kW, kH);
  EXPECT_EQ(inside, out);
  for (unsigned int y = 0; y < kH; ++y) {
    for (unsigned int x = 0; x < kW; ++x) {
      if (x < 25 || y >= 25) {
        ASSERT_TRUE(SamePixel(out, pixels, y * kW + x));
      }
    }
  }
  // A half amount lies halfway between the source and the blur.
  f.amount = 0.5;
  const Bytes half = RenderStage(DepthOfField(f), pixels, kW, kH);
  for (size_t i = 0; i < half.size(); ++i) ASSERT_EQ((pixels[i] * 128 + inside[i] * 128 + 128) >> 8, half[i]) << i;
}

TEST(DepthOfField, TheRadiusIsScaledByTheDownsampleFactor) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 10);
  Focus f = Radial();
  f.radius = 8;
  kvtest::ScopedCoreCount cores(2);
  GuardedImage src(kW, kH), half(kW, kH), plain(kW, kH);
  src.fill(pixels);
  KVImageProcessor a(src.image(), half.image(), kvtest::SharedTables(), kDownsampleHalf);
  ASSERT_EQ(0, DepthOfField(f)(a));
  ASSERT_EQ(0, a.Render());
  f.radius = 4;
  EXPECT_EQ(half.contents(), RenderStage(DepthOfField(f), pixels, kW, kH));
}

}  // namespace

namespace {

TEST(DepthOfField, ASetupWithNothingToBlurDropsTheLastLevels) {
  // The bounds lie inside a 20x20 image but outside an 8x8 one: after a
  // Setup on the small image the stage copies it, whatever the large one left.
  DepthOfFieldRenderer stage(kDepthOfFieldRadial, KVPoint2F(0, 0), 0.0, 6, 0.0, 0.1, 1.0, 0.0,
                             KVRect(KVPoint2(10, 10), 5, 5));
  GuardedImage large(20, 20), largeOut(20, 20), small(8, 8, 1), smallOut(8, 8);
  large.fill(PatternBytes(20 * 20 * 4, 91));
  small.fill(PatternBytes(8 * 8 * 4, 92));
  stage.Setup(large.image());
  EXPECT_EQ(0, stage.Render(large.image(), largeOut.image(), 0, 1));
  EXPECT_NE(large.contents(), largeOut.contents());
  stage.Setup(small.image());
  for (unsigned char t = 0; t < 3; ++t) EXPECT_EQ(0, stage.Render(small.image(), smallOut.image(), t, 3));
  EXPECT_EQ(small.contents(), smallOut.contents());
  EXPECT_TRUE(smallOut.guardsIntact());
}

}  // namespace
