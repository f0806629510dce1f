// The depth-of-field stage: the sharp region and the full-radius bounded blur
// beyond the transition (radial and linear), bounds, amount and downsampling.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <algorithm>
#include <cmath>
#include <functional>

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

// Each pixel whose centre `region` gives 0 must be the source's, 1 the
// full-radius blur's; other values leave it unchecked.
void ExpectRegions(const Focus& f, const Bytes& source, const std::function<int(double, double)>& region) {
  const Bytes out = RenderStage(DepthOfField(f), source, kW, kH);
  const Bytes full = RenderStage(Bounded(f.radius, kWhole), source, kW, kH);
  for (unsigned int p = 0; p < kW * kH; ++p) {
    const int expected = region(p % kW + 0.5, p / kW + 0.5);
    if (expected != 0 && expected != 1) continue;
    const Bytes& want = expected == 0 ? source : full;
    ASSERT_TRUE(std::equal(want.begin() + p * 4, want.begin() + p * 4 + 4, out.begin() + p * 4))
        << p % kW << "," << p / kW << " of " << f.type << " at " << f.angle;
  }
}

// Inside the focus size of the diagonal sharp, beyond focus size plus
// transition fully blurred.
int Band(double distance, const Focus& f) {
  const double diagonal = std::sqrt(double(kW * kW + kH * kH));
  return distance <= f.focusSize * diagonal ? 0 : distance >= (f.focusSize + f.transition) * diagonal + 1e-9 ? 1 : -1;
}

// Types other than linear act as radial.
TEST(DepthOfField, RadialSharpInsideTheFocusDiscFullBlurBeyondTheTransition) {
  Focus f = Radial();
  const auto region = [&](double x, double y) { return Band(std::hypot(x - 30, y - 20), f); };
  for (int type : {int(kDepthOfFieldRadial), 7, -1}) {
    f.type = static_cast<KVDepthOfFieldType>(type);
    ExpectRegions(f, PatternBytes(kW * kH * 4, 2), region);
  }
}

TEST(DepthOfField, LinearBandFollowsTheAngle) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 6);
  Focus f{kDepthOfFieldLinear, KVPoint2F(10, 20), 0.0, 4, 0.05, 0.1, 1.0, 0.0, KVRect()};
  ExpectRegions(f, pixels, [&](double, double y) { return Band(std::fabs(y - 20), f); });
  f.angle = 90.0;
  ExpectRegions(f, pixels, [&](double x, double) { return Band(std::fabs(x - 10), f); });
  DepthOfFieldRenderer stage(kDepthOfFieldLinear, KVPoint2F(10, 20), 45.0, 4, 0.0, 0.5, 1.0, 0.0, KVRect());
  GuardedImage image(kW, kH);
  stage.Setup(image.image());
  // 45 degrees counter-clockwise on screen: the band runs up and to the right.
  EXPECT_NEAR(0.0, stage.BlurRadiusAt(20, 9), 1e-6);
  EXPECT_GT(stage.BlurRadiusAt(20, 29), 0.5);
}

TEST(DepthOfField, OutsideTheBoundsTheSourceIsCopied) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 8);
  Focus f{kDepthOfFieldRadial, KVPoint2F(0, 0), 0.0, 6, 0.0, 0.0, 1.0, 0.0, KVRect(KVPoint2(25, -5), 50, 30)};
  // Blurred at the full radius everywhere inside the bounds.
  const Bytes inside = RenderStage(Bounded(f.radius, f.bounds), pixels, kW, kH);
  EXPECT_EQ(inside, RenderStage(DepthOfField(f), pixels, kW, kH));
  // A half amount lies halfway between the source and the blur.
  f.amount = 0.5;
  const Bytes half = RenderStage(DepthOfField(f), pixels, kW, kH);
  for (size_t i = 0; i < half.size(); ++i) ASSERT_EQ((pixels[i] * 128 + inside[i] * 128 + 128) >> 8, half[i]) << i;
}

TEST(DepthOfField, TheRadiusIsScaledByTheDownsampleFactor) {
  const Bytes pixels = PatternBytes(kW * kH * 4, 10);
  Focus f = Radial();
  f.radius = 8;
  const Bytes half = RenderStageAt(DepthOfField(f), pixels, kW, kH, 2, 0, 0, kPixelOrderBGRA, kDownsampleHalf);
  f.radius = 4;
  EXPECT_EQ(half, RenderStage(DepthOfField(f), pixels, kW, kH));
}

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
}

}  // namespace
