// Matte clean-up: the alpha crop's edges, and the white erode against a
// straightforward ring-buffer form of its definition (prefill, 255 beyond the
// line, 255 at x = 0 leftward), with the hand-checked quirk rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <vector>

#include "TestSupport.h"
#include "keying/WhiteErodeRing.h"

using kvtest::SharedTables;

using namespace kvo::image;
using kvtest::GuardedImage;

namespace {

std::vector<unsigned char> AlphasOf(const std::vector<unsigned char>& bytes) {
  std::vector<unsigned char> alphas;
  for (size_t i = 3; i < bytes.size(); i += 4) alphas.push_back(bytes[i]);
  return alphas;
}

// ---------------------------------------------------------------------------
// Alpha crop

std::vector<unsigned char> Crop(unsigned int w, unsigned int h, double left, double top, double right, double bottom,
                                unsigned int threads = 1) {
  kvo::KVLookupTables& tables = SharedTables();
  kvtest::ScopedCoreCount cores(threads);
  GuardedImage src(w, h), dst(w, h, 1);
  const std::vector<unsigned char> input = kvtest::PatternBytes(w * h * 4, 77);
  src.fill(input);
  for (size_t i = 3; i < input.size(); i += 4) src.pixels()[i] = 200;
  KVImageKeyer keyer(src.image(), dst.image(), tables, kDownsampleNone);
  EXPECT_EQ(0, keyer.SetAlphaCrop(left, top, right, bottom));
  EXPECT_EQ(0, keyer.Render());
  EXPECT_TRUE(dst.guardsIntact());
  const std::vector<unsigned char> out = dst.contents();
  for (size_t i = 0; i < out.size(); ++i) {
    if (i % 4 != 3) {
      EXPECT_EQ(src.pixels()[i], out[i]) << "colour byte " << i;
    }
  }
  return AlphasOf(dst.contents());
}

// 200 where (x, y) lies inside begin..end on both axes, else 0.
std::vector<unsigned char> Kept(unsigned int w, unsigned int h, unsigned int x0, unsigned int x1, unsigned int y0,
                                unsigned int y1) {
  std::vector<unsigned char> alphas(w * h, 0);
  for (unsigned int y = y0; y < y1; ++y)
    for (unsigned int x = x0; x < x1; ++x) alphas[y * w + x] = 200;
  return alphas;
}

TEST(AlphaCrop, StrictLeftAndTopEdges) {
  // Nothing cropped still clears column 0 and row 0; the last ones survive.
  EXPECT_EQ(Kept(5, 4, 1, 5, 1, 4), Crop(5, 4, 0, 0, 0, 0));
}

TEST(AlphaCrop, OppositeHalvesClearEverything) {
  EXPECT_EQ(std::vector<unsigned char>(6 * 3, 0), Crop(6, 3, 0.5, 0, 0.5, 0));
  EXPECT_EQ(std::vector<unsigned char>(7 * 3, 0), Crop(7, 3, 1, 1, 1, 1));
}

TEST(AlphaCrop, EdgesTruncateTowardZero) {
  // L = trunc(10 * 0.19) = 1, R = trunc(1.9) = 1, T = trunc(6 * 0.34) = 2,
  // B = trunc(6 * 0.49) = 2: x in 2..8, y in 3..3.
  EXPECT_EQ(Kept(10, 6, 2, 9, 3, 4), Crop(10, 6, 0.19, 0.34, 0.19, 0.49));
  // L = 2, T = 2, R = 2, B = 2 on 8 x 8: x and y in 3..5.
  EXPECT_EQ(Kept(8, 8, 3, 6, 3, 6), Crop(8, 8, 0.25, 0.25, 0.25, 0.25));
}

TEST(AlphaCrop, StageAloneClipsToTheSmallerImage) {
  // Driven directly with a destination shorter than the source: nothing is
  // written past the destination.
  GuardedImage src(4, 4), dst(4, 2);
  src.fill(kvtest::PatternBytes(64, 3));
  AlphaCrop stage(0, 0, 0, 0);
  for (unsigned char t = 0; t < 3; ++t) EXPECT_EQ(0, stage.Render(src.image(), dst.image(), t, 3));
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(0, dst.at(0, 1, 3));
  EXPECT_EQ(src.at(1, 1, 3), dst.at(1, 1, 3));
}

// ---------------------------------------------------------------------------
// White erode

std::vector<unsigned char> RingErodeImage(const std::vector<unsigned char>& bytes, unsigned int w, unsigned int h,
                                          int size, int direction) {
  return WhiteErodeImageByRing(bytes, w, h, size, static_cast<KVWhiteErodeDirection>(direction));
}

// Runs the stage through a keyer and returns the destination bytes.
std::vector<unsigned char> Erode(const std::vector<unsigned char>& bytes, unsigned int w, unsigned int h,
                                 KVWhiteErodeDirection direction, int size, unsigned int threads = 2) {
  kvo::KVLookupTables& tables = SharedTables();
  kvtest::ScopedCoreCount cores(threads);
  GuardedImage src(w, h), dst(w, h, 1);
  src.fill(bytes);
  KVImageKeyer keyer(src.image(), dst.image(), tables, kDownsampleNone);
  EXPECT_EQ(0, keyer.SetWhiteErode(direction, size));
  EXPECT_EQ(0, keyer.Render());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(bytes, src.contents());
  return dst.contents();
}

std::vector<unsigned char> RowOfAlphas(const std::vector<unsigned char>& alphas) {
  std::vector<unsigned char> bytes(alphas.size() * 4);
  for (size_t i = 0; i < alphas.size(); ++i) {
    bytes[i * 4] = static_cast<unsigned char>(i);
    bytes[i * 4 + 1] = 100;
    bytes[i * 4 + 2] = static_cast<unsigned char>(200 - i);
    bytes[i * 4 + 3] = alphas[i];
  }
  return bytes;
}

const unsigned char O = 255;

TEST(WhiteErode, PixelHalfMinusOneNeverEntersTheRing) {
  // Size 2: pixel 1 is skipped, so its 0 disappears from the row.
  const std::vector<unsigned char> row = RowOfAlphas({O, 0, O, O, O, O, O, O});
  const std::vector<unsigned char> out = Erode(row, 8, 1, kWhiteErodeAll, 2);
  EXPECT_EQ(std::vector<unsigned char>(8, O), AlphasOf(out));
  // Colour is copied.
  for (size_t i = 0; i < out.size(); ++i) {
    if (i % 4 != 3) {
      EXPECT_EQ(row[i], out[i]);
    }
  }
  // The same in a column.
  const std::vector<unsigned char> column = RowOfAlphas({O, 0, O, O, O, O, O, O});
  EXPECT_EQ(std::vector<unsigned char>(8, O), AlphasOf(Erode(column, 1, 8, kWhiteErodeAll, 2)));
}

TEST(WhiteErode, CentredWindowReachesOneFurtherLeftNearTheStart) {
  // Puts: a0, then a2, a3, ...; the window of 5 puts covers pixels 0..x+2
  // (without 1) until x = 4.
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 0, 0, O, O, O}),
            AlphasOf(Erode(RowOfAlphas({O, O, 0, O, O, O, O, O}), 8, 1, kWhiteErodeAll, 2)));
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, 0, O, O, O, O}),
            AlphasOf(Erode(RowOfAlphas({0, O, O, O, O, O, O, O}), 8, 1, kWhiteErodeAll, 2)));
  // Further in, the window is centred: pixels x - 2 .. x + 2.
  EXPECT_EQ((std::vector<unsigned char>{O, O, O, O, 9, 9, 9, 9, 9, O}),
            AlphasOf(Erode(RowOfAlphas({O, O, O, O, O, O, 9, O, O, O}), 10, 1, kWhiteErodeAll, 2)));
}

TEST(WhiteErode, TrailingAndLeadingWindows) {
  const std::vector<unsigned char> row = RowOfAlphas({10, 20, 30, 40, 50, 60});
  EXPECT_EQ((std::vector<unsigned char>{10, 10, 10, 20, 30, 40}), AlphasOf(Erode(row, 6, 1, kWhiteErodeRightward, 1)));
  // Leftward, pixel 0's own alpha is replaced by 255.
  EXPECT_EQ((std::vector<unsigned char>{20, 20, 30, 40, 50, 60}), AlphasOf(Erode(row, 6, 1, kWhiteErodeLeftward, 1)));
  EXPECT_EQ(AlphasOf(Erode(row, 6, 1, kWhiteErodeLeftward, 1)),
            AlphasOf(Erode(row, 6, 1, static_cast<KVWhiteErodeDirection>(7), 1)));
}

TEST(WhiteErode, OtherDirectionsErodeRowsOnly) {
  // A 0 in row 0 does not spread down the column.
  std::vector<unsigned char> bytes(3 * 3 * 4, O);
  bytes[3] = 0;
  const std::vector<unsigned char> out = Erode(bytes, 3, 3, kWhiteErodeRightward, 1);
  EXPECT_EQ((std::vector<unsigned char>{0, 0, 0, O, O, O, O, O, O}), AlphasOf(out));
  EXPECT_EQ((std::vector<unsigned char>{O, O, O, O, O, O, O, O, O}),
            AlphasOf(Erode(bytes, 3, 3, kWhiteErodeLeftward, 1)));
}

// Alphas mostly opaque with scattered holes and soft values, like a matte.
std::vector<unsigned char> MatteLike(unsigned int w, unsigned int h, uint32_t seed) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(w * h * 4, seed);
  for (size_t i = 3; i < bytes.size(); i += 4) {
    if (bytes[i] < 180) bytes[i] = 255;
  }
  return bytes;
}

TEST(WhiteErode, MatchesTheRingOnRandomImages) {
  const unsigned int shapes[][2] = {{1, 1}, {7, 5}, {33, 17}, {64, 3}, {3, 41}, {2, 9}, {70, 66}};
  const int sizes[] = {0, 1, 2, 3, 4, 5, 8, 13, 16, 40, 70};
  const int directions[] = {0, 1, 2, 9};
  uint32_t seed = 1;
  for (const auto& shape : shapes) {
    for (int size : sizes) {
      for (int direction : directions) {
        const std::vector<unsigned char> bytes = MatteLike(shape[0], shape[1], seed++);
        EXPECT_EQ(RingErodeImage(bytes, shape[0], shape[1], size, direction),
                  Erode(bytes, shape[0], shape[1], static_cast<KVWhiteErodeDirection>(direction), size, seed % 5 + 1))
            << shape[0] << "x" << shape[1] << " size " << size << " direction " << direction;
      }
    }
  }
}

TEST(WhiteErode, SetterScalesTheSize) {
  kvo::KVLookupTables& tables = SharedTables();
  const std::vector<unsigned char> bytes = MatteLike(17, 11, 8);
  struct Case {
    KVDownsampleFactor factor;
    int size;
    int scaled;
  } cases[] = {{kDownsampleNone, 3, 3}, {kDownsampleHalf, 5, 2}, {kDownsampleThird, 10, 3}, {kDownsampleQuarter, 7, 1}};
  for (const Case& c : cases) {
    GuardedImage src(17, 11), dst(17, 11);
    src.fill(bytes);
    KVImageKeyer keyer(src.image(), dst.image(), tables, c.factor);
    EXPECT_EQ(0, keyer.SetWhiteErode(kWhiteErodeAll, c.size));
    EXPECT_EQ(0, keyer.Render());
    EXPECT_EQ(RingErodeImage(bytes, 17, 11, c.scaled, 0), dst.contents()) << "factor " << c.factor;
  }
}

// ---------------------------------------------------------------------------

}  // namespace
