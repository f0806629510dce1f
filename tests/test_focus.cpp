// The focus stages: defocus, diffuse, sharpen and soft focus, each built on a
// nested bounded stack blur of the colour bytes.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <string>
#include <vector>

#include "BlurReference.h"
#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

typedef unsigned char Byte;

// Runs one focus setter through a processor over a destination holding
// `destination` (zeros when empty). Not RenderStage: the defocus stage blurs
// its input in place.
Bytes Focus(const StageSetter& set, const Bytes& pixels, unsigned int width, unsigned int height,
            unsigned int threads = 2, const Bytes& destination = Bytes()) {
  ScopedCoreCount cores(threads);
  GuardedImage source(width, height, 1), target(width, height);
  source.fill(pixels);
  if (!destination.empty()) target.fill(destination);
  KVImageProcessor processor(source.image(), target.image(), SharedTables(), kDownsampleNone);
  EXPECT_EQ(0, set(processor));
  EXPECT_EQ(0, processor.Render());
  return target.contents();
}

// A row of pixels whose three colour bytes hold `colour` and whose alpha is
// `alpha`.
Bytes GreyRow(const std::vector<int>& colour, int alpha) {
  Bytes pixels;
  for (int value : colour) pixels.insert(pixels.end(), {Byte(value), Byte(value), Byte(value), Byte(alpha)});
  return pixels;
}

// The setters at blur 0: radius r, amount a.
StageSetter Defocus(unsigned r, double a) { return [=](KVImageProcessor& p) { return p.SetDefocus(r, a, 0.0); }; }
StageSetter Diffuse(unsigned r, double a) { return [=](KVImageProcessor& p) { return p.SetDiffuse(r, a, 0.0); }; }
StageSetter Sharpen(unsigned r, double amount, double t) {
  return [=](KVImageProcessor& p) { return p.SetSharpen(r, amount, t, 0.0); };
}
StageSetter SoftFocus(KVBlendMode mode, unsigned r, double amount, const KVRect& rect) {
  return [=](KVImageProcessor& p) { return p.SetSoftFocus(mode, r, amount, rect, 0.0); };
}

// Rows [0, 90, 180] blurred at radius 1 (weights 1 2 1 over 4, edges
// repeating): (0 + 0 + 90) / 4 = 22, (0 + 180 + 180) / 4 = 90,
// (90 + 360 + 180) / 4 = 157.
const std::vector<int> kRow = {0, 90, 180};

TEST(Defocus, GainCurveEndPoints) {
  // Radius 0 blurs nothing, so each pixel meets the curve directly:
  // trunc(v / 255 / (1 - a) * 255). At 0.8 everything from 51 saturates.
  const std::vector<int> values = {0, 10, 50, 51, 120, 200, 255};
  const Bytes pixels = GreyRow(values, 77);
  EXPECT_EQ(GreyRow({0, 50, 250, 255, 255, 255, 255}, 77), Focus(Defocus(0, 0.8), pixels, 7, 1));
  EXPECT_EQ(GreyRow({0, 50, 250, 255, 255, 255, 255}, 77), Focus(Defocus(0, kNaN), pixels, 7, 1));
  EXPECT_EQ(GreyRow(values, 77), Focus(Defocus(0, 0.0), pixels, 7, 1));
  // 120 / 255 / 0.8 * 255 is 149.99999999999997 in double precision.
  EXPECT_EQ(GreyRow({0, 12, 62, 63, 149, 250, 255}, 77), Focus(Defocus(0, 0.2), pixels, 7, 1));

  // A 5x1 row at radius 1 blurs to 10 40 80 120 150, then doubles at 0.5.
  EXPECT_EQ(GreyRow({20, 80, 160, 240, 255}, 200), Focus(Defocus(1, 0.5), GreyRow({0, 40, 80, 120, 160}, 200), 5, 1));
}

TEST(Diffuse, HandComputedGlow) {
  // Blurred row 22 90 157; opacity trunc(255 x amount).
  // amount 1: 0 + (22 x 255 >> 8) = 21; 180 + (-23 x 255 >> 8) = 157.
  EXPECT_EQ(GreyRow({21, 90, 157}, 255), Focus(Diffuse(1, 1.0), GreyRow(kRow, 255), 3, 1));
  // amount 0.5 (opacity 127): 22 x 127 >> 8 = 10; -23 x 127 >> 8 = -12.
  EXPECT_EQ(GreyRow({10, 90, 168}, 255), Focus(Diffuse(1, 0.5), GreyRow(kRow, 255), 3, 1));
  // amount 0, a transparent blurred alpha and a NaN amount leave the sharp
  // pixels.
  EXPECT_EQ(GreyRow(kRow, 255), Focus(Diffuse(1, 0.0), GreyRow(kRow, 255), 3, 1));
  EXPECT_EQ(GreyRow(kRow, 0), Focus(Diffuse(1, 1.0), GreyRow(kRow, 0), 3, 1));
  EXPECT_EQ(GreyRow(kRow, 255), Focus(Diffuse(1, kNaN), GreyRow(kRow, 255), 3, 1));
}

TEST(Diffuse, MatchesTheBlendOfTheBlurredImage) {
  const unsigned int width = 9, height = 5;
  const Bytes pixels = PatternBytes(width * height * 4, 502);
  const Bytes blurred = ReferenceStackBlur(pixels, width, height, 2, kColourChannels);
  Bytes expected(pixels);
  for (size_t i = 0; i < expected.size(); i += 4) {
    const int opacity = static_cast<int>(blurred[i + 3] * 0.7);
    for (int c = 0; c < 3; ++c) {
      expected[i + c] = Byte(BlendPixel(pixels[i + c], blurred[i + c], kBlendNormal, opacity, SharedTables()));
    }
  }
  EXPECT_EQ(expected, Focus(Diffuse(2, 0.7), pixels, width, height, 3));
}

TEST(Sharpen, HandComputedUnsharpMask) {
  // Row 40 90 180 blurs to 52 100 157: differences -12, -10, 23.
  const Bytes row = GreyRow({40, 90, 180}, 99);
  EXPECT_EQ(GreyRow({28, 80, 203}, 99), Focus(Sharpen(1, 1.0, 0.0), row, 3, 1));
  EXPECT_EQ(GreyRow({34, 85, 191}, 99), Focus(Sharpen(1, 0.5, 0.0), row, 3, 1));
  // The doubled difference meets t = trunc(threshold x 255): at 0.095 (t 24)
  // -12 doubles to 24 and is sharpened, -10 is not; at 0.1 (t 25) neither.
  EXPECT_EQ(GreyRow({28, 90, 203}, 99), Focus(Sharpen(1, 1.0, 0.095), row, 3, 1));
  EXPECT_EQ(GreyRow({40, 90, 203}, 99), Focus(Sharpen(1, 1.0, 0.1), row, 3, 1));
  // amount 0 is the identity.
  EXPECT_EQ(row, Focus(Sharpen(1, 0.0, 0.0), row, 3, 1));
}

TEST(Sharpen, ThresholdOneSharpensOnlyDifferencesOf128OrMore) {
  // Spikes 8 pixels apart at radius 3 (centre weight 4 / 16): 160 blurs to 40
  // (difference 120, below 128) and 200 to 50 (difference 150).
  const std::vector<int> spikes = {0, 0, 0, 160, 0, 0, 0, 0, 0, 0, 0, 200, 0, 0, 0};
  const Bytes row = GreyRow(spikes, 255);
  std::vector<int> expected = spikes;
  expected[11] = 230;  // 200 + 150 x 0.2
  EXPECT_EQ(GreyRow(expected, 255), Focus(Sharpen(3, 0.2, 1.0), row, 15, 1));
  expected[3] = 184;  // t = 229: the doubled 120 passes
  EXPECT_EQ(GreyRow(expected, 255), Focus(Sharpen(3, 0.2, 0.9), row, 15, 1));
  expected[3] = 255;  // without a threshold: 160 + 120 clamps
  expected[11] = 255;
  EXPECT_EQ(GreyRow(expected, 255), Focus(Sharpen(3, 1.0, 0.0), row, 15, 1));
}

TEST(SoftFocus, HandComputedComposite) {
  // Source alpha 128 over a destination of colour 50, alpha 255: the
  // combined alpha is 255 and each colour is trunc((128 c + 50 x 127) / 255)
  // in single precision, c the blend of sharp and blurred (22 90 157) at
  // opacity trunc(128 x amount).
  const KVRect all(KVPoint2(0, 0), 3, 1);
  const Bytes source = GreyRow(kRow, 128), destination = GreyRow({50, 50, 50}, 255);
  // normal, amount 1: c = 11 90 168.
  EXPECT_EQ(GreyRow({30, 70, 109}, 255), Focus(SoftFocus(kBlendNormal, 1, 1.0, all), source, 3, 1, 1, destination));
  // amount 0: c is the sharp value in every mode but replace.
  EXPECT_EQ(GreyRow({24, 70, 115}, 255), Focus(SoftFocus(kBlendNormal, 1, 0.0, all), source, 3, 1, 1, destination));
  EXPECT_EQ(GreyRow({24, 70, 115}, 255), Focus(SoftFocus(kBlendScreen, 1, 0.0, all), source, 3, 1, 1, destination));
  // replace writes the blurred value whatever the opacity: c = 22 90 157.
  EXPECT_EQ(GreyRow({35, 70, 103}, 255), Focus(SoftFocus(kBlendReplace, 1, 0.0, all), source, 3, 1, 1, destination));

  // Opaque over a clear destination: the blended colour itself.
  EXPECT_EQ(GreyRow({21, 90, 157}, 255), Focus(SoftFocus(kBlendNormal, 1, 1.0, all), GreyRow(kRow, 255), 3, 1));
  // Where both alphas are 0 the destination stays as it was.
  const Bytes clear = GreyRow({77, 77, 77}, 0);
  EXPECT_EQ(GreyRow({77, 77, 77}, 0), Focus(SoftFocus(kBlendNormal, 1, 1.0, all), GreyRow(kRow, 0), 3, 1, 1, clear));
}

// The four stages, to be driven directly.
struct FocusStageSet {
  const KVRect all{KVPoint2(0, 0), 4, 4};
  DefocusRenderer defocus{1, 0.5, 0.0, kDownsampleNone, SharedTables()};
  DiffuseRenderer diffuse{1, 0.5, 0.0, kDownsampleNone, SharedTables()};
  SharpenRenderer sharpen{1, 0.5, 0.0, 0.0, kDownsampleNone, SharedTables()};
  SoftFocusRenderer softFocus{kBlendNormal, 1, 0.5, all, 0.0, kDownsampleNone, SharedTables()};
  AbstractRenderer* stages[4] = {&defocus, &diffuse, &sharpen, &softFocus};
};

TEST(FocusStages, DrivenDirectly) {
  FocusStageSet set;
  GuardedImage source(4, 4), target(4, 4), larger(5, 4);
  source.fill(PatternBytes(4 * 4 * 4, 506));
  for (AbstractRenderer* stage : set.stages) EXPECT_EQ(1u, stage->Type());
  // Before any Setup the stages that read a blurred copy write nothing.
  for (AbstractRenderer* stage : {set.stages[1], set.stages[2], set.stages[3]}) {
    EXPECT_EQ(0, stage->Render(source.image(), target.image(), 0, 1));
    EXPECT_EQ(Bytes(target.bytes(), 0), target.contents());
  }
  // After a Setup on a smaller image, a larger destination is written only
  // as far as the blurred copy reaches.
  set.diffuse.Setup(source.image());
  EXPECT_EQ(0, set.diffuse.Render(source.image(), larger.image(), 0, 1));
  EXPECT_TRUE(larger.guardsIntact());
  EXPECT_EQ(Bytes(4 * 4, 0), Bytes(larger.pixels() + 4 * 4 * 4, larger.pixels() + larger.bytes()));
}

TEST(FocusStagesDeathTest, AssertionTexts) {
  FocusStageSet set;
  GuardedImage argb(4, 4, 0, kPixelOrderARGB), target(4, 4, 0, kPixelOrderARGB);
  DeepImage deep(4, 4);
  const auto notImplemented = [](const std::string& where) {
    return LiteralRegex(where + ": failed assertion `false && \"Not implemented\"'");
  };
  const char* const where[] = {"DefocusRenderer:135", "DiffuseRenderer:141", "SharpenRenderer:140",
                               "SoftFocusRenderer:134"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_DEATH(set.stages[i]->Render(argb.image(), target.image(), 0, 1), notImplemented(where[i]));
  }
  EXPECT_DEATH(set.defocus.Render(&deep, target.image(), 0, 1), notImplemented(where[0]));
}

}  // namespace
