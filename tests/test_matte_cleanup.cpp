// Matte clean-up: the alpha crop's edges, and the white erode against a
// straightforward ring-buffer form of its definition (prefill, 255 beyond the
// line, 255 at x = 0 leftward), with the hand-checked quirk rows.
#include <gtest/gtest.h>

#include <vector>

#include "TestSupport.h"
#include "keying/WhiteErodeRing.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

std::vector<unsigned char> AlphasOf(const Bytes& bytes) {
  std::vector<unsigned char> alphas;
  for (size_t i = 3; i < bytes.size(); i += 4) alphas.push_back(bytes[i]);
  return alphas;
}

// Runs one keyer setter over the bytes (destination one byte past alignment)
// and returns the destination; the colour bytes must come through unchanged.
Bytes Key(const std::function<int(KVImageKeyer&)>& set, const Bytes& bytes, unsigned int w, unsigned int h,
          unsigned int threads = 2, KVDownsampleFactor factor = kDownsampleNone) {
  ScopedCoreCount cores(threads);
  GuardedImage src(w, h), dst(w, h, 1);
  src.fill(bytes);
  KVImageKeyer keyer(src.image(), dst.image(), SharedTables(), factor);
  EXPECT_EQ(0, set(keyer));
  EXPECT_EQ(0, keyer.Render());
  const Bytes out = dst.contents();
  for (size_t i = 0; i < out.size(); ++i) {
    if (i % 4 != 3) {
      EXPECT_EQ(bytes[i], out[i]) << "colour byte " << i;
    }
  }
  return out;
}

// The crop of a patterned image whose alphas are all 200.
std::vector<unsigned char> Crop(unsigned int w, unsigned int h, double left, double top, double right, double bottom) {
  Bytes input = PatternBytes(w * h * 4, 77);
  for (size_t i = 3; i < input.size(); i += 4) input[i] = 200;
  return AlphasOf(Key([&](KVImageKeyer& k) { return k.SetAlphaCrop(left, top, right, bottom); }, input, w, h, 1));
}

// 200 where x0 <= x < x1 and y0 <= y < y1, else 0.
std::vector<unsigned char> Kept(unsigned int w, unsigned int h, unsigned int x0, unsigned int x1, unsigned int y0,
                                unsigned int y1) {
  std::vector<unsigned char> alphas(w * h, 0);
  for (unsigned int y = y0; y < y1; ++y)
    for (unsigned int x = x0; x < x1; ++x) alphas[y * w + x] = 200;
  return alphas;
}

Bytes Erode(const Bytes& bytes, unsigned int w, unsigned int h, int direction, int size, unsigned int threads = 2) {
  return Key([&](KVImageKeyer& k) { return k.SetWhiteErode(static_cast<KVWhiteErodeDirection>(direction), size); },
             bytes, w, h, threads);
}

// A line of pixels with the given alphas and colours that differ per pixel.
Bytes RowOfAlphas(const std::vector<unsigned char>& alphas) {
  Bytes bytes(alphas.size() * 4);
  for (size_t i = 0; i < alphas.size(); ++i) {
    const unsigned char pixel[4] = {static_cast<unsigned char>(i), 100, static_cast<unsigned char>(200 - i), alphas[i]};
    std::copy(pixel, pixel + 4, &bytes[i * 4]);
  }
  return bytes;
}

const unsigned char O = 255;

// Alphas mostly opaque with scattered holes and soft values, like a matte.
Bytes MatteLike(unsigned int w, unsigned int h, uint32_t seed) {
  Bytes bytes = PatternBytes(w * h * 4, seed);
  for (size_t i = 3; i < bytes.size(); i += 4) {
    if (bytes[i] < 180) bytes[i] = 255;
  }
  return bytes;
}

}  // namespace

TEST(AlphaCrop, EdgesTruncateTowardZeroAndTheLeftAndTopAreStrict) {
  // Nothing cropped still clears column 0 and row 0; the last ones survive.
  EXPECT_EQ(Kept(5, 4, 1, 5, 1, 4), Crop(5, 4, 0, 0, 0, 0));
  // Opposite halves clear everything.
  EXPECT_EQ(Kept(6, 3, 0, 0, 0, 0), Crop(6, 3, 0.5, 0, 0.5, 0));
  EXPECT_EQ(Kept(7, 3, 0, 0, 0, 0), Crop(7, 3, 1, 1, 1, 1));
  // L = trunc(10 * 0.19) = 1, R = trunc(1.9) = 1, T = trunc(6 * 0.34) = 2,
  // B = trunc(6 * 0.49) = 2: x in 2..8, y in 3..3.
  EXPECT_EQ(Kept(10, 6, 2, 9, 3, 4), Crop(10, 6, 0.19, 0.34, 0.19, 0.49));
  // L = T = R = B = 2 on 8 x 8: x and y in 3..5.
  EXPECT_EQ(Kept(8, 8, 3, 6, 3, 6), Crop(8, 8, 0.25, 0.25, 0.25, 0.25));
}

TEST(AlphaCrop, StageAloneClipsToTheSmallerImage) {
  // Driven directly with a destination shorter than the source: nothing is
  // written past the destination.
  GuardedImage src(4, 4), dst(4, 2);
  src.fill(PatternBytes(64, 3));
  AlphaCrop stage(0, 0, 0, 0);
  for (unsigned char t = 0; t < 3; ++t) EXPECT_EQ(0, stage.Render(src.image(), dst.image(), t, 3));
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(0, dst.at(0, 1, 3));
  EXPECT_EQ(src.at(1, 1, 3), dst.at(1, 1, 3));
}

TEST(WhiteErode, HandCheckedQuirks) {
  struct Row {
    std::vector<unsigned char> alphas;
    bool column;
    int direction, size;
    std::vector<unsigned char> expected;
  };
  const Row rows[] = {
      // Size 2: pixel half - 1 = 1 never enters the ring, so its 0 disappears,
      // in a row and in a column.
      {{O, 0, O, O, O, O, O, O}, false, kWhiteErodeAll, 2, std::vector<unsigned char>(8, O)},
      {{O, 0, O, O, O, O, O, O}, true, kWhiteErodeAll, 2, std::vector<unsigned char>(8, O)},
      // Puts a0, then a2, a3, ...: the window of 5 puts covers pixels 0..x+2
      // (without 1) until x = 4.
      {{O, O, 0, O, O, O, O, O}, false, kWhiteErodeAll, 2, {0, 0, 0, 0, 0, O, O, O}},
      {{0, O, O, O, O, O, O, O}, false, kWhiteErodeAll, 2, {0, 0, 0, 0, O, O, O, O}},
      // Further in, the window is centred: pixels x - 2 .. x + 2.
      {{O, O, O, O, O, O, 9, O, O, O}, false, kWhiteErodeAll, 2, {O, O, O, O, 9, 9, 9, 9, 9, O}},
      // Trailing and leading windows; leftward (and any unnamed direction),
      // pixel 0's own alpha is replaced by 255.
      {{10, 20, 30, 40, 50, 60}, false, kWhiteErodeRightward, 1, {10, 10, 10, 20, 30, 40}},
      {{10, 20, 30, 40, 50, 60}, false, kWhiteErodeLeftward, 1, {20, 20, 30, 40, 50, 60}},
      {{10, 20, 30, 40, 50, 60}, false, 7, 1, {20, 20, 30, 40, 50, 60}},
      // The one-way directions erode rows only: a 0 in row 0 of a 3 x 3
      // image does not spread down the column.
      {{0, O, O, O, O, O, O, O, O}, false, kWhiteErodeRightward, 1, {0, 0, 0, O, O, O, O, O, O}},
      {{0, O, O, O, O, O, O, O, O}, false, kWhiteErodeLeftward, 1, std::vector<unsigned char>(9, O)},
  };
  for (const Row& row : rows) {
    const unsigned int count = static_cast<unsigned int>(row.alphas.size());
    const unsigned int w = row.column ? 1 : count == 9 ? 3 : count, h = count / w;
    EXPECT_EQ(row.expected, AlphasOf(Erode(RowOfAlphas(row.alphas), w, h, row.direction, row.size)))
        << "direction " << row.direction << " size " << row.size << " " << w << "x" << h;
  }
}

TEST(WhiteErode, MatchesTheRingOnRandomImages) {
  const unsigned int shapes[][2] = {{1, 1}, {7, 5}, {33, 17}, {64, 3}, {3, 41}, {2, 9}, {70, 66}};
  uint32_t seed = 1;
  for (const auto& shape : shapes) {
    for (int size : {0, 1, 2, 3, 4, 5, 8, 13, 16, 40, 70}) {
      for (int direction : {0, 1, 2, 9}) {
        const Bytes bytes = MatteLike(shape[0], shape[1], seed++);
        EXPECT_EQ(WhiteErodeImageByRing(bytes, shape[0], shape[1], size, static_cast<KVWhiteErodeDirection>(direction)),
                  Erode(bytes, shape[0], shape[1], direction, size, seed % 5 + 1))
            << shape[0] << "x" << shape[1] << " size " << size << " direction " << direction;
      }
    }
  }
}

TEST(WhiteErode, SetterScalesTheSize) {
  const Bytes bytes = MatteLike(17, 11, 8);
  const struct {
    KVDownsampleFactor factor;
    int size, scaled;
  } cases[] = {{kDownsampleNone, 3, 3}, {kDownsampleHalf, 5, 2}, {kDownsampleThird, 10, 3}, {kDownsampleQuarter, 7, 1}};
  for (const auto& c : cases) {
    EXPECT_EQ(WhiteErodeImageByRing(bytes, 17, 11, c.scaled, kWhiteErodeAll),
              Key([&](KVImageKeyer& k) { return k.SetWhiteErode(kWhiteErodeAll, c.size); }, bytes, 17, 11, 2, c.factor))
        << "factor " << c.factor;
  }
}
