// Colour balance and colour temperature: gains on both paths, the black-body
// chromaticity and the tables it gives, shares, setters.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::Clamp8;
using kvtest::GuardedImage;
using kvtest::kPlainPath;
using kvtest::kVectorPath;
using kvtest::RenderStage;

namespace {

struct Gains {
  double red, green, blue;
};

std::vector<unsigned char> Balance(const Gains& g, const kvtl::CPUExtensions& ext,
                                   const std::vector<unsigned char>& source, unsigned int width,
                                   size_t sourceOffset = 0, size_t destinationOffset = 0) {
  GuardedImage src(width, 1, sourceOffset), dst(width, 1, destinationOffset);
  src.fill(source);
  ColorBalanceRenderer stage(g.red, g.green, g.blue, ext);
  RenderStage(stage, src.image(), dst.image());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(source, src.contents());
  return dst.contents();
}

int GainTable(int x, double gain) { return Clamp8(static_cast<int>(x * gain)); }
int GainVector(int x, double gain) { return Clamp8((x * static_cast<int>(256.0 * gain)) >> 8); }

double GainOf(const Gains& g, unsigned int channel) { return channel == 0 ? g.blue : (channel == 1 ? g.green : g.red); }

TEST(ColorBalance, VectorPathQuantisesTheGain) {
  // Gain 0.3 is multiplier 76: 200 * 76 >> 8 = 59, while 200 * 0.3 = 60.
  const std::vector<unsigned char> source(17 * 4, 200);
  const std::vector<unsigned char> sixteen(source.begin(), source.begin() + 64);
  EXPECT_EQ(60, Balance({0.3, 1.0, 1.0}, kPlainPath, sixteen, 16)[2]);
  EXPECT_EQ(59, Balance({0.3, 1.0, 1.0}, kVectorPath, sixteen, 16)[2]);
  EXPECT_EQ(59, Balance({0.3, 1.0, 1.0}, kVectorPath, sixteen, 16, 1, 0)[2]);
  // 17 pixels: the whole share takes the tables.
  EXPECT_EQ(60, Balance({0.3, 1.0, 1.0}, kVectorPath, source, 17)[66]);
}

TEST(ColorBalance, BothPathsOverEveryLevel) {
  std::vector<unsigned char> ramp(256 * 4);
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<unsigned char>(i / 4);
  const Gains gains[] = {{0.3, 1.7, 0.55}, {2.0, 0.01, 1.999}, {0.0, 0.5, 1.25}};
  for (const Gains& g : gains) {
    const std::vector<unsigned char> plain = Balance(g, kPlainPath, ramp, 256);
    const std::vector<unsigned char> vector = Balance(g, kVectorPath, ramp, 256);
    for (int x = 0; x < 256; ++x) {
      for (unsigned int c = 0; c < 3; ++c) {
        ASSERT_EQ(GainTable(x, GainOf(g, c)), plain[x * 4 + c]) << x << " channel " << c;
        ASSERT_EQ(GainVector(x, GainOf(g, c)), vector[x * 4 + c]) << x << " channel " << c;
      }
      ASSERT_EQ(x, vector[x * 4 + 3]);
    }
  }
}

// Renders a 1 x 3 image of (255, 255, 255, 77), (100, 100, 100, 200) and
// (180, 180, 180, 0) at a temperature.
std::vector<unsigned char> Temperature(double kelvin, KVPixelChannelOrder order = kPixelOrderBGRA) {
  const unsigned char pixels[] = {255, 255, 255, 77, 100, 100, 100, 200, 180, 180, 180, 0};
  GuardedImage src(3, 1, 0, order), dst(3, 1);
  src.fill(std::vector<unsigned char>(pixels, pixels + 12));
  ColorTemperatureRenderer stage(kelvin);
  RenderStage(stage, src.image(), dst.image());
  EXPECT_TRUE(dst.guardsIntact());
  return dst.contents();
}

TEST(ColorTemperature, TablesFollowTheBlackBodyFactors) {
  // Factors about (red, green, blue): 6500 K 0.928, 0.988, 1.391; 1500 K
  // 2.145, 0.517, 0.025; 13500 K 0.799, 0.958, 2.153.
  const std::vector<unsigned char> daylight = Temperature(6500.0);
  const unsigned char daylightExpected[] = {255, 251, 236, 77, 139, 98, 92, 200, 250, 177, 167, 0};
  EXPECT_EQ(std::vector<unsigned char>(daylightExpected, daylightExpected + 12), daylight);
  // Bytes 0 to 6 at the ends of the range; -1: not pinned.
  const struct {
    double kelvin;
    int bytes[7];
  } extremes[] = {{1500.0, {6, 131, 255, -1, 2, 51, 214}}, {13500.0, {255, 244, 203, -1, 215, -1, 79}}};
  for (const auto& e : extremes) {
    const std::vector<unsigned char> out = Temperature(e.kelvin);
    for (size_t i = 0; i < 7; ++i) {
      if (e.bytes[i] >= 0) {
        EXPECT_EQ(e.bytes[i], out[i]) << e.kelvin << " K, byte " << i;
      }
    }
  }
}

TEST(ColorTemperature, AlphaFirstOrderMapsRedGreenBlueAndKeepsAlpha) {
  // Order 2 is alpha, red, green, blue: byte 0 is copied.
  const std::vector<unsigned char> argb = Temperature(6500.0, kPixelOrderARGB);
  EXPECT_EQ(255, argb[0]);
  EXPECT_EQ(236, argb[1]);
  EXPECT_EQ(251, argb[2]);
  EXPECT_EQ(107, argb[3]);  // blue table at 77
  EXPECT_EQ(100, argb[4]);
  EXPECT_EQ(92, argb[5]);
  EXPECT_EQ(98, argb[6]);
  EXPECT_EQ(255, argb[7]);  // blue table at 200
  // Any other order is taken as blue, green, red, alpha.
  EXPECT_EQ(Temperature(6500.0), Temperature(6500.0, static_cast<KVPixelChannelOrder>(9)));
}

TEST(BlackBody, SpectrumAndChromaticity) {
  EXPECT_NEAR(1.448103995474e14, BlackBodySpectrum(6500.0, 500.0), 1e2);
  // Wien: a 5000 K body peaks near 580 nm.
  EXPECT_GT(BlackBodySpectrum(5000.0, 575.0), BlackBodySpectrum(5000.0, 560.0));
  EXPECT_GT(BlackBodySpectrum(5000.0, 575.0), BlackBodySpectrum(5000.0, 600.0));
  // Chromaticities integrated over the four-decimal observer table.
  struct Case {
    double kelvin, x, y, z;
  };
  for (const Case& k : {Case{1500.0, 0.5857368269904076, 0.39311088217207707, 0.02115229083751521},
                        Case{6500.0, 0.3135450831199946, 0.3236709131052788, 0.3627840037747266},
                        Case{13500.0, 0.267221672799598, 0.27185582848842527, 0.4609224987119767}}) {
    double x = 0, y = 0, z = 0;
    SpectrumToXYZ(k.kelvin, &x, &y, &z);
    EXPECT_NEAR(k.x, x, 1e-12);
    EXPECT_NEAR(k.y, y, 1e-12);
    EXPECT_NEAR(k.z, z, 1e-12);
    EXPECT_NEAR(1.0, x + y + z, 1e-15);
  }
}

}  // namespace
