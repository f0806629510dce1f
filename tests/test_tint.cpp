// The tint stage with its tone tables, and the three-strip colour stage.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

typedef kvtest::StageSetter Setter;

Setter Tint(int type, double amount) {
  return [=](KVImageProcessor& p) { return p.SetTint(static_cast<KVTintType>(type), amount); };
}
Setter ThreeStrip(double a, double b, double c) {
  return [=](KVImageProcessor& p) { return p.SetThreeStripColor(a, b, c); };
}

struct ToneRows {
  const unsigned char (*table)[3];
  KVTintType type;
  unsigned char rows[3][3];  // rows 64, 128, 192: red, green, blue
};

const ToneRows kToneRows[] = {
    {BronzeToneLT, kTintBronze, {{79, 62, 36}, {149, 124, 93}, {214, 188, 155}}},
    {CyanotypeToneLT, kTintCyanotype, {{40, 70, 98}, {92, 138, 174}, {160, 201, 231}}},
    {EmeraldToneLT, kTintEmerald, {{65, 66, 48}, {131, 130, 110}, {195, 194, 174}}},
    {GoldToneLT, kTintGold, {{72, 64, 43}, {138, 129, 98}, {206, 192, 155}}},
    {PalladiumToneLT, kTintPalladium, {{79, 60, 45}, {145, 124, 105}, {210, 188, 167}}},
    {PlatinumToneLT, kTintPlatinum, {{71, 63, 52}, {132, 129, 114}, {196, 193, 178}}},
    {PlatinumPalladiumToneLT, kTintPlatinumPalladium, {{64, 65, 59}, {127, 131, 116}, {196, 195, 165}}},
    {SeleniumToneLT, kTintSelenium, {{77, 58, 62}, {136, 124, 128}, {200, 188, 192}}},
    {SilverToneLT, kTintSilver, {{58, 67, 66}, {121, 131, 132}, {188, 194, 194}}},
};

}  // namespace

TEST(ToneTables, TellingRowsAndEnds) {
  for (const ToneRows& tone : kToneRows) {
    for (int c = 0; c < 3; ++c) {
      EXPECT_EQ(0, tone.table[0][c]);
      EXPECT_EQ(tone.rows[0][c], tone.table[64][c]);
      EXPECT_EQ(tone.rows[1][c], tone.table[128][c]);
      EXPECT_EQ(tone.rows[2][c], tone.table[192][c]);
      EXPECT_EQ(255, tone.table[255][c]);
    }
  }
}

TEST(ThreeStripColor, Examples) {
  // Level 0 gives flat curves of 255: each byte is (b * 510) >> 9.
  EXPECT_EQ(Bytes({254, 254, 254, 255}), RenderPixel(ThreeStrip(0, 0, 0), Bytes{255, 255, 255, 255}));
  EXPECT_EQ(Bytes({(10 * 510) >> 9, (100 * 510) >> 9, (200 * 510) >> 9, 7}),
            RenderPixel(ThreeStrip(0, 0, 0), Bytes{10, 100, 200, 7}));
  // Level 1 gives curves of 0.
  EXPECT_EQ(Bytes({0, 0, 0, 77}), RenderPixel(ThreeStrip(1, 1, 1), Bytes{10, 100, 200, 77}));
  // Greys look up index 255: 254 at level 0.5, so 200 becomes (200 * 508) >> 9.
  EXPECT_EQ(Bytes({198, 198, 198, 3}), RenderPixel(ThreeStrip(0.5, 0.5, 0.5), Bytes{200, 200, 200, 3}));
  // Red's excess 125 indexes curve A at 130: trunc(3 * 256 / 129) = 5.
  EXPECT_EQ(Bytes({25, 50, 198, 3}), RenderPixel(ThreeStrip(0.5, 0.5, 0.5), Bytes{50, 100, 200, 3}));
  // Blue's excess indexes C (flat 255 here), green's B (all 0), red's A.
  EXPECT_EQ(Bytes({0, 50, 99, 3}), RenderPixel(ThreeStrip(0.5, 1.0, 0.0), Bytes{50, 100, 200, 3}));
}

namespace {

// The tint of one pixel computed the straightforward way, one double rounding
// per byte: the oracle for the stage's table-driven loop.
void TintPixel(int type, double amount, const unsigned char* in, unsigned char* out) {
  const double keep = 1.0 - amount;
  const int luminance = static_cast<int>((in[0] + in[1] + in[2]) / 3.0);
  int target[3];
  const ToneRows* tone = nullptr;
  for (const ToneRows& t : kToneRows) {
    if (t.type == type) tone = &t;
  }
  if (type == kTintGrey) {
    target[0] = target[1] = target[2] = luminance;
  } else if (tone != nullptr) {
    target[0] = tone->table[luminance][2];
    target[1] = tone->table[luminance][1];
    target[2] = tone->table[luminance][0];
  } else {
    target[0] = std::max(30, luminance - 33);
    target[1] = luminance > 235 ? 255 : std::max(30, luminance + 20);
    target[2] = luminance < 203 ? luminance + 53 : 255;
  }
  for (int c = 0; c < 3; ++c) {
    const double v = (in[c] - target[c]) * keep + target[c];
    out[c] = static_cast<unsigned char>(v < 0 ? 0 : (v > 255 ? 255 : static_cast<int>(v)));
  }
  out[3] = in[3];
}

// The three-strip colour of one pixel the straightforward way.
void ThreeStripPixel(const double levels[3], const unsigned char* in, unsigned char* out) {
  int curves[3][256];
  for (int k = 0; k < 3; ++k) {
    const int start = static_cast<int>(levels[k] * 255.0);
    for (int i = 0; i < 256; ++i) {
      const double v = start == 0 ? 255.0 : (i < start ? 0.0 : (i - start) * (256.0 / (256 - start)));
      curves[k][i] = v > 255 ? 255 : static_cast<int>(v);
    }
  }
  auto inverted = [](int d) { return 255 - (d < 0 ? 0 : (d > 255 ? 255 : d)); };
  const int b0 = in[0], b1 = in[1], b2 = in[2];
  const int c0 = curves[2][inverted(b0 - ((b1 + b2) >> 1))];
  const int c1 = curves[1][inverted(b1 - ((b0 + b2) >> 1))];
  const int c2 = curves[0][inverted(b2 - ((b0 + b1) >> 1))];
  out[0] = static_cast<unsigned char>((b0 * (c1 + c2)) >> 9);
  out[1] = static_cast<unsigned char>((b1 * (c2 + c0)) >> 9);
  out[2] = static_cast<unsigned char>((b2 * (c0 + c1)) >> 9);
  out[3] = in[3];
}

}  // namespace

TEST(Tint, MatchesThePerPixelFormulaForEveryTypeAndSeveralAmounts) {
  const unsigned int width = 64, height = 16;
  const Bytes pixels = kvtest::PatternBytes(width * height * 4, 77);
  const double amounts[] = {0.0, 0.13, 0.5, 0.77, 1.0};
  for (int type = -1; type <= 11; ++type) {
    for (double amount : amounts) {
      Bytes expected(pixels.size());
      for (size_t i = 0; i < pixels.size(); i += 4) TintPixel(type, amount, &pixels[i], &expected[i]);
      EXPECT_EQ(expected, RenderStage(Tint(type, amount), pixels, width, height)) << type << " " << amount;
    }
  }
}

TEST(ThreeStripColor, MatchesThePerPixelFormula) {
  const unsigned int width = 64, height = 16;
  const Bytes pixels = kvtest::PatternBytes(width * height * 4, 78);
  const double levelSets[][3] = {{0.3, 0.5, 0.7}, {0.0, 1.0, 0.5}, {0.9, 0.1, 0.0}, {0.004, 0.996, 0.25}};
  for (const auto& levels : levelSets) {
    Bytes expected(pixels.size());
    for (size_t i = 0; i < pixels.size(); i += 4) ThreeStripPixel(levels, &pixels[i], &expected[i]);
    EXPECT_EQ(expected, RenderStage(ThreeStrip(levels[0], levels[1], levels[2]), pixels, width, height));
  }
}
