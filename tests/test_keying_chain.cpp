// The whole keying chain on studio-like frames: automatic key colour, spill
// suppression, white erode and a garbage-matte crop, through one keyer.
#include <gtest/gtest.h>

#include <vector>

#include "KeyingFrames.h"
#include "TestSupport.h"

using namespace kvo::image;
using kvtest::GuardedImage;
using kvtest::ScopedCoreCount;

namespace {

const unsigned int kWidth = 160, kHeight = 120;
const int kErodeSize = 2;

std::vector<unsigned char> KeyWholeChain(const kvtest::KeyingFrame& frame, unsigned int threads) {
  ScopedCoreCount cores(threads);
  GuardedImage src(frame.width, frame.height), dst(frame.width, frame.height, 1);
  src.fill(frame.pixels);
  const KVChannel spillChannel = frame.keyColor == kKeyColorBlue ? kChannelBlue : kChannelGreen;
  KVImageKeyer keyer(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
  EXPECT_EQ(0, keyer.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5));
  EXPECT_EQ(0, keyer.SetSpillSuppression(spillChannel, kSpillStandard, 1.0, 0, 0, 0, 0));
  EXPECT_EQ(0, keyer.SetWhiteErode(kWhiteErodeAll, kErodeSize));
  EXPECT_EQ(0, keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.0));
  EXPECT_EQ(0, keyer.Render());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(frame.pixels, src.contents());
  return dst.contents();
}

class KeyingChain : public ::testing::TestWithParam<KVKeyColor> {};

TEST_P(KeyingChain, ClearsTheBackingKeepsTheSubjectAndPullsTheSpill) {
  const kvtest::KeyingFrame frame = kvtest::MakeKeyingFrame(GetParam(), kWidth, kHeight, 11);
  const std::vector<unsigned char> out = KeyWholeChain(frame, 2);
  const unsigned int keyByte = GetParam() == kKeyColorBlue ? 0 : 1;
  const unsigned int referenceByte = GetParam() == kKeyColorBlue ? 1 : 2;
  const unsigned int cropLeft = static_cast<unsigned int>(kWidth * 0.05);

  size_t pulledSubjectPixels = 0;
  for (unsigned int y = 0; y < kHeight; ++y) {
    for (unsigned int x = 0; x < kWidth; ++x) {
      const size_t i = frame.Index(x, y);
      const unsigned char* pixel = &out[i * 4];
      const unsigned char* in = &frame.pixels[i * 4];
      if (frame.coverage[i] == 0 || x <= cropLeft || x >= kWidth - cropLeft) {
        EXPECT_EQ(0, pixel[3]) << x << "," << y;
      } else if (frame.outlineDistance[i] < -8.0f - kErodeSize) {
        EXPECT_EQ(255, pixel[3]) << x << "," << y;
      }
      // Standard suppression at full strength pulls a key byte above its
      // reference byte exactly down to it and leaves the others alone.
      if (in[keyByte] > in[referenceByte]) {
        EXPECT_EQ(in[referenceByte], pixel[keyByte]) << x << "," << y;
        if (frame.coverage[i] > 0 && frame.spill[i] > 0) ++pulledSubjectPixels;
      } else {
        EXPECT_EQ(in[keyByte], pixel[keyByte]) << x << "," << y;
      }
    }
  }
  // The frame's spill tips part of the subject's outline towards the key.
  EXPECT_GT(pulledSubjectPixels, 20u);
}

INSTANTIATE_TEST_SUITE_P(Backings, KeyingChain, ::testing::Values(kKeyColorGreen, kKeyColorBlue));

}  // namespace
