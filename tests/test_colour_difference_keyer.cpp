#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

// The matte bytes and the statistics (count, sum, minimum, maximum).
typedef std::pair<Bytes, std::vector<int>> MatteResult;

// Runs the matte pass directly on one thread.

MatteResult RunMatte(GuardedImage& image, KVKeyColor keyColor, double saturationLimit, double saturationSoftness) {
  const size_t pixels = image.bytes() / 4;
  AutoColorDifferenceData record;
  record.threadIndex = 0;
  record.threadCount = 1;
  record.image = image.image();
  record.matte.reset(new unsigned char[pixels + 1](), std::default_delete<unsigned char[]>());
  record.matteInfo.reset(new MatteInfo[1]{MatteInfo{0, 0, 255, 0}}, std::default_delete<MatteInfo[]>());
  record.keyColor = keyColor;
  record.saturationLimit = saturationLimit;
  record.saturationSoftness = saturationSoftness;
  EXPECT_EQ(nullptr, AutoColorDifferenceMatteProc(&record));
  const MatteInfo& info = *record.matteInfo;
  return {Bytes(record.matte.get(), record.matte.get() + pixels), {info.count, info.sum, info.minimum, info.maximum}};
}

// Green key differences 10, 18, 42, 74 and a grey: minimum 10, maximum 74,
// mean 36, middle 42.
const Bytes kRamp = {5, 15, 3, 100, 20, 38, 10, 200, 0, 42, 0, 255, 1, 80, 6, 255, 90, 90, 90, 77};

KVKeyColor Detect(GuardedImage& image, int threads) {
  KVKeyColor result = kKeyColorAuto;
  AutoDetectKeyColor(image.image(), threads, &result);
  return result;
}

}  // namespace

TEST(AutoDetectKeyColor, CountsGreenTiesAndStrictBlueAndEqualTotalsGiveGreen) {
  // (50, 50, 10): green equals blue, counted green. (60, 10, 10) and
  // (60, 59, 59): blue strictly largest. (10, 10, 90): red, neither.
  GuardedImage image(4, 1);
  image.fill({50, 50, 10, 0, 60, 10, 10, 0, 10, 10, 90, 0, 60, 59, 59, 0});
  EXPECT_EQ(kKeyColorBlue, Detect(image, 1));
  AutoDetectKeyColorData record = {0, 1, image.image(), 0, 0, 0, 0};
  EXPECT_EQ(nullptr, AutoDetectKeyColorProc(&record));
  EXPECT_EQ((std::vector<unsigned int>{1, 2, 1}),
            (std::vector<unsigned int>{record.greenCount, record.blueCount, record.otherCount}));
  EXPECT_EQ(nullptr, AutoDetectKeyColorProc(nullptr));
  // Greys count green; three green-dominated, three blue-dominated; then one
  // more blue. The counts of every thread's share add up.
  GuardedImage tie(3, 2), moreBlue(3, 2);
  tie.fill({10, 10, 10, 0, 200, 0, 0, 0, 0, 90, 90, 0, 91, 90, 90, 0, 5, 6, 6, 0, 7, 6, 6, 0});
  moreBlue.fill({11, 10, 10, 0, 200, 0, 0, 0, 0, 90, 90, 0, 91, 90, 90, 0, 5, 6, 6, 0, 7, 6, 6, 0});
  for (int threads = 1; threads <= 16; ++threads) {
    EXPECT_EQ(kKeyColorGreen, Detect(tie, threads)) << threads;
    EXPECT_EQ(kKeyColorBlue, Detect(moreBlue, threads)) << threads;
  }
}

// Chroma softening with T = trunc(255 * 0.5) = 127. The statistics always
// take the raw differences.
TEST(ColorDifferenceMatte, ChromaSofteningRampAndCut) {
  GuardedImage image(7, 1);
  // (C, d): (100, 80), (50, 40), (200, 150), (63, 53), (64, 54), (126, 116),
  // (127, 117).
  image.fill({20, 120, 40, 0, 30, 80, 40, 0, 0, 200, 50, 0, 10, 73, 20, 0, 10, 74, 20, 0, 0, 126, 10, 0, 0, 127, 10, 0});
  // Softness 0.5: S = 63.5; for S <= C < T, d - |(C - S) / 63.5 - 1| * d.
  // C 100: 80 - 27/63.5 * 80 = 45.98; C 64: 54 - 63/63.5 * 54 = 0.43;
  // C 126: 116 - 1/63.5 * 116 = 114.17.
  // Softness 0.25: S = 31.75, ramp width 95.25. C 100: 80 - 0.2835 * 80 =
  // 57.32; C 50: 40 - 0.8084 * 40 = 7.66; C 64: 54 - 0.6614 * 54 = 18.28.
  // Saturation limit 0: T = 0, nothing is softened. Softness 1: S = T, every
  // chroma below T is cut and the ramp never runs. A NaN softness never
  // compares, so nothing is softened.
  const struct {
    double limit, softness;
    std::vector<unsigned char> matte;
  } rows[] = {{0.5, 0.5, {45, 0, 150, 0, 0, 114, 117}},    {0.5, 0.25, {57, 7, 150, 17, 18, 114, 117}},
              {0.0, 0.7, {80, 40, 150, 53, 54, 116, 117}}, {0.5, 1.0, {0, 0, 150, 0, 0, 0, 117}},
              {0.5, std::nan(""), {80, 40, 150, 53, 54, 116, 117}}};
  for (const auto& row : rows) {
    EXPECT_EQ(MatteResult(row.matte, {7, 610, 40, 150}), RunMatte(image, kKeyColorGreen, row.limit, row.softness))
        << row.limit << " " << row.softness;
  }
}

// The matte pass written out step by step, one pixel at a time: the oracle
// for the thread procedure.
MatteResult ReferenceMatte(const Bytes& bytes, KVKeyColor keyColor, double limitFraction, double softness) {
  Bytes matte;
  int count = 0, sum = 0, minimum = 255, maximum = 0;
  const int limit = static_cast<int>(255.0 * limitFraction);
  const double soft = limit * softness;
  for (size_t o = 0; o < bytes.size(); o += 4) {
    const int b0 = bytes[o], b1 = bytes[o + 1], b2 = bytes[o + 2];
    const int chroma = std::max(b0, std::max(b1, b2)) - std::min(b0, std::min(b1, b2));
    int d = 0;
    bool key = false;
    if (keyColor == kKeyColorGreen) d = b1 - std::max(b0, b2), key = b1 > std::max(b0, b2);
    if (keyColor == kKeyColorBlue) d = b0 - std::max(b1, b2), key = b0 > std::max(b1, b2);
    if (key) ++count, sum += d, minimum = std::min(minimum, d), maximum = std::max(maximum, d);
    if (limit > chroma && soft > chroma) d = 0;
    if (limit > chroma && soft <= chroma) {
      d = static_cast<int>(d - std::fabs((chroma - soft) / ((1.0 - softness) * limit) - 1.0) * d);
    }
    matte.push_back(static_cast<unsigned char>(std::min(255, std::max(0, d))));
  }
  return {matte, {count, sum, minimum, maximum}};
}

TEST(ColorDifferenceMatte, MatchesTheStepByStepFormOnPatterns) {
  GuardedImage image(37, 29);
  for (uint32_t seed = 1; seed <= 3; ++seed) {
    // Random bytes with one channel lifted, so every branch is taken often.
    Bytes bytes = PatternBytes(image.bytes(), seed);
    for (size_t o = 0; o < bytes.size(); o += 4) bytes[o + (seed == 2 ? 0 : 1)] |= 0x40;
    image.fill(bytes);
    for (KVKeyColor key : {kKeyColorGreen, kKeyColorBlue}) {
      for (double limit : {0.0, 0.2, 0.5, 1.0}) {
        for (double softness : {0.0, 0.3, 0.75, 1.0}) {
          SCOPED_TRACE(testing::Message() << seed << " " << key << " " << limit << " " << softness);
          EXPECT_EQ(ReferenceMatte(bytes, key, limit, softness), RunMatte(image, key, limit, softness));
        }
      }
    }
  }
}

// The ramp detects green; low 10, high from the middle 42 (balance 0) to
// the mean 36 (balance 1). m 18 is 8/(high - 10) of the way: f = trunc(8/32 *
// 255) = 63 at balance 0, trunc(8/26 * 255) = 78 at balance 1, trunc(8/29 *
// 255) = 70 at 0.5; alpha = round(200 * (255 - f) / 255). m 10 keeps its
// alpha, m 42 and 74 are cleared, the grey keeps 77.
TEST(ColorDifferenceKeyer, ThresholdsFollowBalanceAndGiveExactAlphas) {
  const struct {
    double balance, high;
    unsigned char alphas[5];
  } rows[] = {{0.0, 42.0, {100, 151, 0, 0, 77}}, {1.0, 36.0, {100, 139, 0, 0, 77}}, {0.5, 39.0, {100, 145, 0, 0, 77}}};
  ScopedCoreCount cores(3);
  for (const auto& row : rows) {
    GuardedImage src(5, 1), dst(5, 1);
    src.fill(kRamp);
    ColorDifferenceKeyer stage(kKeyColorAuto, row.balance, 0.0, 0.0, SharedTables());
    EXPECT_EQ(1u, stage.Type());
    stage.Setup(src.image());
    EXPECT_EQ(kKeyColorGreen, stage.EffectiveKeyColor());
    EXPECT_EQ(10.0, stage.LowThreshold());
    EXPECT_EQ(row.high, stage.HighThreshold());
    KVImageKeyer keyer(src.image(), dst.image(), SharedTables(), kDownsampleNone);
    EXPECT_EQ(0, keyer.SetAutoColorDifferenceKey(kKeyColorGreen, row.balance, 0.0, 0.0));
    EXPECT_EQ(0, keyer.Render());
    Bytes expected = kRamp;
    for (size_t i = 0; i < 5; ++i) expected[i * 4 + 3] = row.alphas[i];
    EXPECT_EQ(expected, dst.contents()) << "balance " << row.balance;
  }
}

// The key sum of a UHD frame of pure green exceeds 2^31; the mean must still
// come out as 255.
TEST(ColorDifferenceKeyer, MeanSurvivesSumsBeyondThirtyTwoBits) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "arithmetic only; too slow under the thread sanitizer";
  const unsigned int width = 4096, height = 2100;
  Bytes pixels(static_cast<size_t>(width) * height * 4, 0);
  for (size_t i = 1; i < pixels.size(); i += 4) pixels[i] = 255;
  KVImage8 image(pixels.data(), width, height, kPixelOrderBGRA);
  ColorDifferenceKeyer keyer(kKeyColorGreen, 1.0, 0.0, 0.0, SharedTables());
  keyer.Setup(&image);
  EXPECT_EQ(255.0, keyer.LowThreshold());
  EXPECT_EQ(255.0, keyer.HighThreshold());
}

