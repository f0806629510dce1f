// The spill suppressor: each method's arithmetic and rounding on hand-computed
// pixels and against the formulas, the fallbacks for unnamed enumeration
// values, thread shares and the keyer setter.
#include <gtest/gtest.h>

#include <array>
#include <algorithm>
#include <cmath>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

typedef std::array<int, 4> Pixel;  // b, g, r, a

// Runs one stage on a single pixel, one thread, and returns the result.
Pixel Suppress(const Pixel& in, KVChannel channel, KVSpillType type, double amount, double redFactor = 0,
               double greenFactor = 0, double blueFactor = 0, double referenceFactor = 0) {
  GuardedImage src(1, 1), dst(1, 1);
  for (int c = 0; c < 4; ++c) src.pixels()[c] = static_cast<unsigned char>(in[c]);
  SpillSuppressor stage(channel, type, amount, redFactor, greenFactor, blueFactor, referenceFactor);
  stage.Setup(src.image());
  EXPECT_EQ(0, stage.Render(src.image(), dst.image(), 0, 1));
  return Pixel{dst.pixels()[0], dst.pixels()[1], dst.pixels()[2], dst.pixels()[3]};
}

TEST(SpillAdvanced, WeightsTheClampedSpill) {
  // spill = 200 - 50 = 150: green loses it, blue gains a quarter (47.5 -> 47),
  // red doubles it and clamps.
  EXPECT_EQ((Pixel{47, 50, 255, 66}),
            Suppress({10, 200, 50, 66}, kChannelGreen, kSpillAdvanced, 0.0, 2.0, -1.0, 0.25, 1.0));
  // The reference scales before the difference: trunc(101 * 0.5) = 50.
  EXPECT_EQ((Pixel{0, 75, 101, 1}), Suppress({0, 100, 101, 1}, kChannelGreen, kSpillAdvanced, 0.0, 0.0, -0.5, 0.0, 0.5));
  // Blue key: spill = 200 - 50; a negative result clamps to 0.
  EXPECT_EQ((Pixel{50, 50, 0, 1}), Suppress({200, 50, 30, 1}, kChannelBlue, kSpillAdvanced, 0.0, -1.0, 0.0, -1.0, 1.0));
  // A negative spill copies the pixel.
  EXPECT_EQ((Pixel{10, 50, 100, 2}), Suppress({10, 50, 100, 2}, kChannelGreen, kSpillAdvanced, 0.0, 5.0, 5.0, 5.0, 1.0));
}

TEST(Spill, UnnamedValuesFallBack) {
  const Pixel in{0, 200, 100, 4};
  // Type 7 renders as standard, channel 2 and -3 as green.
  EXPECT_EQ(Suppress(in, kChannelGreen, kSpillStandard, 1.0), Suppress(in, kChannelGreen, KVSpillType(7), 1.0));
  EXPECT_EQ(Suppress(in, kChannelGreen, kSpillExtended, 0.7), Suppress(in, KVChannel(2), kSpillExtended, 0.7));
  EXPECT_EQ(Suppress(in, kChannelGreen, kSpillAdvanced, 0, 0, -1, 0, 1),
            Suppress(in, KVChannel(-3), kSpillAdvanced, 0, 0, -1, 0, 1));
}

// The documented formulas, pixel by pixel, as a reference for whole images.
Bytes ReferenceSpill(const Bytes& in, KVChannel channel, KVSpillType type, double amount, double rf, double gf,
                     double bf, double ref) {
  Bytes out = in;
  const int s = static_cast<int>(255.0 * amount);
  auto move = [s](int v, int t) {
    return static_cast<unsigned char>(v + static_cast<int>(std::floor((t - v) * s / 256.0)));
  };
  const bool blue = channel == kChannelBlue;
  for (size_t i = 0; i + 4 <= in.size(); i += 4) {
    const int b0 = in[i], b1 = in[i + 1], b2 = in[i + 2];
    if (type == kSpillAdvanced) {
      const int spill =
          std::min(255, std::max(0, blue ? b0 - static_cast<int>(b1 * ref) : b1 - static_cast<int>(b2 * ref)));
      auto fix = [spill](double f, int v) {
        return static_cast<unsigned char>(std::min(255.0, std::max(0.0, std::trunc(spill * f + v))));
      };
      out[i] = fix(bf, b0);
      out[i + 1] = fix(gf, b1);
      out[i + 2] = fix(rf, b2);
    } else if (type == kSpillExtended) {
      const int key = blue ? b0 : b1, side = blue ? b1 : b0, mean = (side + b2) >> 1;
      if (key > mean) {
        out[i + (blue ? 0 : 1)] = move(key, mean);
        if (side > b2) out[i + 2] = move(b2, mean);
      }
    } else {
      const int key = blue ? b0 : b1, reference = blue ? b1 : b2;
      if (key > reference) out[i + (blue ? 0 : 1)] = move(key, reference);
    }
  }
  return out;
}

struct SpillCase {
  KVChannel channel;
  KVSpillType type;
  double amount, rf, gf, bf, ref;
};

const SpillCase kCases[] = {
    {kChannelGreen, kSpillStandard, 1.0, 0, 0, 0, 0},           {kChannelBlue, kSpillStandard, 0.37, 0, 0, 0, 0},
    {kChannelGreen, kSpillExtended, 0.81, 0, 0, 0, 0},          {kChannelBlue, kSpillExtended, 1.0, 0, 0, 0, 0},
    {kChannelGreen, kSpillAdvanced, 0, 0.3, -0.9, 0.125, 0.75}, {kChannelBlue, kSpillAdvanced, 0, -0.5, 0.25, -1, 1.5},
};

TEST(Spill, WholeImagesMatchTheFormulasAtEveryThreadCountAndComputedAdvanced) {
  // 7 x 5 = 35 pixels: up to 16 threads, so the last shares are cut.
  const unsigned int w = 7, h = 5;
  const Bytes input = PatternBytes(w * h * 4, 31);
  for (const SpillCase& c : kCases) {
    const Bytes expected = ReferenceSpill(input, c.channel, c.type, c.amount, c.rf, c.gf, c.bf, c.ref);
    if (c.type == kSpillAdvanced) {
      // The advanced stage works from tables made at construction; called on
      // a stage built as standard it computes each pixel, to the same bytes.
      GuardedImage src(w, h), computed(w, h);
      src.fill(input);
      SpillSuppressor(c.channel, kSpillStandard, c.amount, c.rf, c.gf, c.bf, c.ref)
          .RenderSpillAdvanced(src.image(), computed.image(), 0, 1);
      EXPECT_EQ(expected, computed.contents());
    }
    for (unsigned int threads = 1; threads <= 16; ++threads) {
      ScopedCoreCount cores(threads);
      GuardedImage src(w, h, threads % 2), dst(w, h);
      src.fill(input);
      KVImageKeyer keyer(src.image(), dst.image(), SharedTables(), kDownsampleNone);
      ASSERT_EQ(0, keyer.SetSpillSuppression(c.channel, c.type, c.amount, c.rf, c.gf, c.bf, c.ref));
      ASSERT_EQ(0, keyer.Render());
      EXPECT_EQ(expected, dst.contents()) << "type " << c.type << " channel " << c.channel << " threads " << threads;
    }
  }
}

}  // namespace
