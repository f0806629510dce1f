// The fast paths of the keying stages against their straightforward forms:
// odd sizes, buffers one byte off alignment with guard bytes behind them,
// inputs left untouched, and several thread counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "keying/WhiteErodeKernels.h"
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

TEST(KeyingPaths, WhiteErodeMatchesItsRing) {
  const int sizes[] = {0, 1, 2, 8, 40};
  // 5 behaves as leftward.
  const KVWhiteErodeDirection directions[] = {kWhiteErodeAll, kWhiteErodeRightward,
                                              static_cast<KVWhiteErodeDirection>(5)};
  uint32_t seed = 1;
  for (const auto& shape : kShapes) {
    const unsigned int w = shape[0], h = shape[1];
    for (int size : sizes) {
      for (KVWhiteErodeDirection direction : directions) {
        const std::vector<unsigned char> bytes = MatteBytes(w, h, seed++);
        const std::vector<unsigned char> expected = WhiteErodeImageByRing(bytes, w, h, size, direction);
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

// The erode always takes its SSE2 kernels; each plain twin against its SSE2
// kernel on whole runs of odd lengths, one byte off alignment, guard bytes
// behind. Alphas go to the last bytes of a buffer; the minima run in place,
// reading ahead by each step.
TEST(KeyingPaths, ErodeKernelsMatchTheirPlainTwins) {
  const ErodeKernels rungs[2] = {{ExtractAlphas_Plain, MergeAlphas_Plain, Minima_Plain},
                                 {ExtractAlphas_SSE2, MergeAlphas_SSE2, Minima_SSE2}};
  for (unsigned int n : {1u, 7u, 16u, 17u, 33u, 97u}) {
    for (size_t step : {0u, 1u, 9u, 64u}) {
      std::pair<std::vector<unsigned char>, std::vector<unsigned char>> results[2];
      for (int rung = 0; rung < 2; ++rung) {
        GuardedImage pixels(n, 1, 1), values(n, 1, 1);
        pixels.fill(MatteBytes(n, 1, n));
        values.fill(kvtest::PatternBytes(values.bytes(), n + 1));
        unsigned char* alphas = values.pixels() + 3 * n;
        ASSERT_EQ(n, rungs[rung].extractAlphas(pixels.pixels(), n, alphas));
        const size_t reach = std::min<size_t>(step, values.bytes());
        ASSERT_EQ(values.bytes() - reach, rungs[rung].minima(values.pixels(), values.pixels() + reach,
                                                             values.bytes() - reach));
        ASSERT_EQ(n, rungs[rung].mergeAlphas(pixels.pixels(), alphas, n, pixels.pixels()));
        ASSERT_TRUE(pixels.guardsIntact() && values.guardsIntact());
        results[rung] = {pixels.contents(), values.contents()};
      }
      ASSERT_EQ(results[0], results[1]) << n << " pixels, step " << step;
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

namespace {

// ---------------------------------------------------------------------------
// Colour-difference key: the matte pass and the key-colour detection on the
// widest vector set against their plain forms.

// Pixels near the grey axis, key-dominated ones of every chroma, and ties.
std::vector<unsigned char> KeyBytes(unsigned int w, unsigned int h, uint32_t seed) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(static_cast<size_t>(w) * h * 4, seed);
  for (size_t i = 0; i < bytes.size(); i += 4) {
    switch ((bytes[i + 3] >> 2) % 4) {
      case 0:  // a greenish or bluish pixel of low chroma
        bytes[i + 2] = static_cast<unsigned char>(bytes[i] / 4 + 100);
        bytes[i + 1] = static_cast<unsigned char>(bytes[i + 2] + bytes[i + 1] % 40);
        bytes[i] = static_cast<unsigned char>(bytes[i + 2] + bytes[i + 3] % 40);
        break;
      case 1:  // a tie between the key and another byte
        bytes[i + 1] = bytes[i];
        break;
      default:
        break;
    }
  }
  return bytes;
}

struct KeyResult {
  std::vector<unsigned char> bytes;
  double low, high;
  KVKeyColor colour;
};

KeyResult Key(const std::vector<unsigned char>& bytes, unsigned int w, unsigned int h, KVKeyColor colour,
              double limit, double softness, unsigned int threads, bool wider) {
  ScopedCoreCount cores(threads);
  kvtest::ScopedWiderExtension cap(wider ? kvtl::kWiderAVX2 : kvtl::kWiderNone);
  GuardedImage src(w, h, 1), dst(w, h, 1);
  src.fill(bytes);
  ColorDifferenceKeyer stage(colour, 0.4, limit, softness, kvtest::SharedTables());
  stage.Setup(src.image());
  for (unsigned int t = 0; t < threads; ++t) {
    stage.Render(src.image(), dst.image(), static_cast<unsigned char>(t), static_cast<unsigned char>(threads));
  }
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(bytes, src.contents());
  return KeyResult{dst.contents(), stage.LowThreshold(), stage.HighThreshold(), stage.EffectiveKeyColor()};
}

TEST(KeyingPaths, MattePassMatchesThePlainRun) {
  const double limits[][2] = {{0.0, 0.5}, {0.2, 0.5}, {0.7, 0.3}, {1.0, 1.0}, {1.5, 0.5}};
  const KVKeyColor colours[] = {kKeyColorAuto, kKeyColorGreen, kKeyColorBlue, static_cast<KVKeyColor>(9)};
  uint32_t seed = 100;
  for (const auto& shape : kShapes) {
    for (const auto& limit : limits) {
      for (KVKeyColor colour : colours) {
        const std::vector<unsigned char> bytes = KeyBytes(shape[0], shape[1], seed++);
        const KeyResult plain = Key(bytes, shape[0], shape[1], colour, limit[0], limit[1], 1, false);
        for (unsigned int threads : kThreadCounts) {
          const KeyResult fast = Key(bytes, shape[0], shape[1], colour, limit[0], limit[1], threads, true);
          const std::string what = std::to_string(shape[0]) + "x" + std::to_string(shape[1]) + " limit " +
                                   std::to_string(limit[0]) + " threads " + std::to_string(threads);
          ASSERT_EQ(plain.bytes, fast.bytes) << what;
          ASSERT_EQ(plain.colour, fast.colour) << what;
          // NaN (no key pixel) compares unequal to itself.
          if (plain.high == plain.high) {
            ASSERT_EQ(plain.high, fast.high) << what;
          }
          ASSERT_EQ(plain.low, fast.low) << what;
        }
      }
    }
  }
}

TEST(KeyingPaths, DetectionCountsMatchThePlainCount) {
  for (const auto& shape : kShapes) {
    const std::vector<unsigned char> bytes = KeyBytes(shape[0], shape[1], shape[0]);
    for (unsigned int threads : kThreadCounts) {
      GuardedImage image(shape[0], shape[1], 1);
      image.fill(bytes);
      for (unsigned int t = 0; t < threads; ++t) {
        AutoDetectKeyColorData counts[2];
        for (int wider = 0; wider < 2; ++wider) {
          kvtest::ScopedWiderExtension cap(wider != 0 ? kvtl::kWiderAVX2 : kvtl::kWiderNone);
          counts[wider] = AutoDetectKeyColorData{static_cast<unsigned char>(t), static_cast<unsigned char>(threads),
                                                 image.image(), 0, 0, 0, 0};
          AutoDetectKeyColorProc(&counts[wider]);
        }
        EXPECT_EQ(counts[0].greenCount, counts[1].greenCount);
        EXPECT_EQ(counts[0].blueCount, counts[1].blueCount);
        EXPECT_EQ(counts[0].otherCount, counts[1].otherCount);
      }
    }
  }
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------
// Spill suppression on the widest vector set against the plain form.

std::vector<unsigned char> Spill(const std::vector<unsigned char>& bytes, unsigned int w, unsigned int h,
                                 KVChannel channel, KVSpillType type, double amount, unsigned int threads,
                                 bool wider, const double* factors) {
  kvtest::ScopedWiderExtension cap(wider ? kvtl::kWiderAVX2 : kvtl::kWiderNone);
  GuardedImage src(w, h, 1), dst(w, h, 1);
  src.fill(bytes);
  SpillSuppressor stage(channel, type, amount, factors[0], factors[1], factors[2], factors[3]);
  stage.Setup(src.image());
  for (unsigned int t = 0; t < threads; ++t) {
    EXPECT_EQ(0, stage.Render(src.image(), dst.image(), static_cast<unsigned char>(t),
                              static_cast<unsigned char>(threads)));
  }
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(bytes, src.contents());
  return dst.contents();
}

TEST(KeyingPaths, SpillMatchesThePlainForm) {
  const double amounts[] = {0.0, 0.31, 0.8, 1.0, 1.7, std::nan("")};
  const KVSpillType types[] = {kSpillStandard, kSpillExtended, kSpillAdvanced};
  const KVChannel channels[] = {kChannelGreen, kChannelBlue};
  uint32_t seed = 300;
  for (const auto& shape : kShapes) {
    const std::vector<unsigned char> bytes = KeyBytes(shape[0], shape[1], seed++);
    for (KVSpillType type : types) {
      for (KVChannel channel : channels) {
        for (double amount : amounts) {
          // Ordinary weights, and weights whose products leave the integers
          // (the conversions then give the most negative integer).
          const double factorSets[][4] = {{0.3, -1.0, 0.2, 0.9}, {3e9, -1e12, std::nan(""), -4e9}};
          const double* factors = factorSets[type == kSpillAdvanced && amount == 0.0 ? 1 : 0];
          const std::vector<unsigned char> plain =
              Spill(bytes, shape[0], shape[1], channel, type, amount, 1, false, factors);
          for (unsigned int threads : kThreadCounts) {
            ASSERT_EQ(plain, Spill(bytes, shape[0], shape[1], channel, type, amount, threads, true, factors))
                << shape[0] << "x" << shape[1] << " type " << type << " channel " << channel << " amount " << amount
                << " threads " << threads;
          }
        }
      }
    }
  }
}

}  // namespace

namespace {

TEST(KeyingPaths, SpareIntermediatesNeverCarryBytesIntoALaterRender) {
  ScopedCoreCount cores(3);
  // Whole-output stages on a spare: the second render of a changed source
  // equals a fresh keyer's.
  GuardedImage src(97, 31, 1), dst(97, 31), fresh(97, 31);
  KVImageKeyer keyer(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, keyer.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5));
  ASSERT_EQ(0, keyer.SetSpillSuppression(kChannelGreen, kSpillStandard, 1.0, 0, 0, 0, 0));
  ASSERT_EQ(0, keyer.SetWhiteErode(kWhiteErodeAll, 2));
  ASSERT_EQ(0, keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.1));
  src.fill(KeyBytes(97, 31, 1));
  ASSERT_EQ(0, keyer.Render());
  src.fill(KeyBytes(97, 31, 2));
  ASSERT_EQ(0, keyer.Render());
  KVImageKeyer second(src.image(), fresh.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, second.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5));
  ASSERT_EQ(0, second.SetSpillSuppression(kChannelGreen, kSpillStandard, 1.0, 0, 0, 0, 0));
  ASSERT_EQ(0, second.SetWhiteErode(kWhiteErodeAll, 2));
  ASSERT_EQ(0, second.SetAlphaCrop(0.05, 0.0, 0.05, 0.1));
  ASSERT_EQ(0, second.Render());
  EXPECT_EQ(fresh.contents(), dst.contents());

  // Any other stage gets a cleared spare: a mirror without flips writes
  // nothing, so the matte view after it shows opaque black although the
  // spare it wrote into held the first render's bytes.
  GuardedImage in(613, 509), out(613, 509);
  in.fill(kvtest::PatternBytes(in.bytes(), 8));
  KVImageProcessor processor(in.image(), out.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetOpacity(0.5));
  ASSERT_EQ(0, processor.SetMatteView());
  ASSERT_EQ(0, processor.Render());
  ASSERT_EQ(0, processor.SetMirror(false, false));
  ASSERT_EQ(0, processor.SetMatteView());
  ASSERT_EQ(0, processor.Render());
  std::vector<unsigned char> black(out.bytes(), 0);
  for (size_t i = 3; i < black.size(); i += 4) black[i] = 255;
  EXPECT_EQ(black, out.contents());
}

}  // namespace
