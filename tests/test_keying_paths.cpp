// The fast paths of the keying stages against their straightforward forms:
// odd sizes, buffers one byte off alignment with guard bytes behind them,
// inputs left untouched, and several thread counts.
#include <gtest/gtest.h>

#include <vector>

#include "TestSupport.h"
#include "keying/WhiteErodeRing.h"

using namespace kvo::image;
using kvtest::GuardedImage;
using kvtest::ScopedCoreCount;

namespace {

const unsigned int kShapes[][2] = {{1, 1}, {7, 3}, {17, 5}, {33, 9}, {97, 31}};
const unsigned int kThreadCounts[] = {1, 2, 3, 7, 16};

// Alphas in runs and holes, so that windows see both.
std::vector<unsigned char> MatteBytes(unsigned int w, unsigned int h, uint32_t seed) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(static_cast<size_t>(w) * h * 4, seed);
  for (size_t i = 3; i < bytes.size(); i += 4) bytes[i] = bytes[i] < 96 ? bytes[i] : 255;
  return bytes;
}

// Rows, then columns for the centred direction, each line by the ring.
std::vector<unsigned char> ErodeByRing(const std::vector<unsigned char>& bytes, unsigned int w, unsigned int h,
                                       int size, KVWhiteErodeDirection direction) {
  std::vector<unsigned char> out = bytes;
  for (unsigned int y = 0; y < h; ++y) {
    const size_t row = static_cast<size_t>(y) * w * 4 + 3;
    WhiteErodeLineByRing(&bytes[row], w, 4, size, direction, &out[row], 4);
  }
  if (direction != kWhiteErodeAll) return out;
  const std::vector<unsigned char> rows = out;
  for (unsigned int x = 0; x < w; ++x) {
    WhiteErodeLineByRing(&rows[x * 4 + 3], h, static_cast<size_t>(w) * 4, size, direction, &out[x * 4 + 3],
                         static_cast<size_t>(w) * 4);
  }
  return out;
}

TEST(KeyingPaths, WhiteErodeMatchesItsRing) {
  const int sizes[] = {0, 1, 2, 3, 8, 40};
  const KVWhiteErodeDirection directions[] = {kWhiteErodeAll, kWhiteErodeRightward, kWhiteErodeLeftward,
                                              static_cast<KVWhiteErodeDirection>(5)};
  uint32_t seed = 1;
  for (const auto& shape : kShapes) {
    const unsigned int w = shape[0], h = shape[1];
    for (int size : sizes) {
      for (KVWhiteErodeDirection direction : directions) {
        const std::vector<unsigned char> bytes = MatteBytes(w, h, seed++);
        const std::vector<unsigned char> expected = ErodeByRing(bytes, w, h, size, direction);
        for (unsigned int threads : kThreadCounts) {
          ScopedCoreCount cores(threads);
          GuardedImage src(w, h, 1), dst(w, h, 1);
          src.fill(bytes);
          KVImageKeyer keyer(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
          ASSERT_EQ(0, keyer.SetWhiteErode(direction, size));
          ASSERT_EQ(0, keyer.Render());
          ASSERT_EQ(expected, dst.contents())
              << w << "x" << h << " size " << size << " direction " << direction << " threads " << threads;
          ASSERT_TRUE(dst.guardsIntact());
          ASSERT_EQ(bytes, src.contents());
        }
      }
    }
  }
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------
// Intermediates: a stage known to write its whole output gets an image that
// is not cleared first; every other one still sees zeros where nothing wrote.

TEST(KeyingPaths, IntermediatesStayZeroWhereAStageWritesNothing) {
  // A keyer's first stage refuses a deeper source and writes nothing: the
  // crop after it sees zeros, even where earlier renders left other bytes in
  // freed memory.
  for (unsigned int threads : kThreadCounts) {
    ScopedCoreCount cores(threads);
    {
      GuardedImage src(640, 480), dst(640, 480);
      src.fill(kvtest::PatternBytes(src.bytes(), 3));
      KVImageKeyer keyer(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
      ASSERT_EQ(0, keyer.SetSpillSuppression(kChannelGreen, kSpillStandard, 0.5, 0, 0, 0, 0));
      ASSERT_EQ(0, keyer.SetAlphaCrop(0, 0, 0, 0));
      ASSERT_EQ(0, keyer.Render());
    }
    kvtest::DeepImage deep(640, 480);
    GuardedImage dst(640, 480, 1);
    dst.fill(kvtest::PatternBytes(dst.bytes(), 4));
    KVImageKeyer keyer(&deep, dst.image(), kvtest::SharedTables(), kDownsampleNone);
    ASSERT_EQ(0, keyer.SetSpillSuppression(kChannelGreen, kSpillStandard, 0.5, 0, 0, 0, 0));
    ASSERT_EQ(0, keyer.SetAlphaCrop(0, 0, 0, 0));
    ASSERT_EQ(0, keyer.Render());
    EXPECT_EQ(std::vector<unsigned char>(dst.bytes(), 0), dst.contents()) << threads << " threads";
    EXPECT_TRUE(dst.guardsIntact());
  }
}

TEST(KeyingPaths, LargeIntermediatesAreClearedOnThePassThreads) {
  // A mirror without flips writes nothing; the matte view after it shows
  // opaque black over the whole (threaded) zero fill.
  for (unsigned int threads : kThreadCounts) {
    ScopedCoreCount cores(threads);
    GuardedImage src(613, 509, 1), dst(613, 509);
    src.fill(kvtest::PatternBytes(src.bytes(), 5));
    KVImageProcessor processor(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
    ASSERT_EQ(0, processor.SetMirror(false, false));
    ASSERT_EQ(0, processor.SetMatteView());
    ASSERT_EQ(0, processor.Render());
    std::vector<unsigned char> black(dst.bytes(), 0);
    for (size_t i = 3; i < black.size(); i += 4) black[i] = 255;
    EXPECT_EQ(black, dst.contents()) << threads << " threads";
    EXPECT_TRUE(dst.guardsIntact());
  }
}

}  // namespace
