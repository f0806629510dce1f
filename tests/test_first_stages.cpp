// The opacity, mirror, silhouette and matte-view stages: exact bytes on both
// opacity paths, aligned and unaligned buffers, in place, every thread count
// from 1 to 16, shares cut at the end of small images, and the assertions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::GuardedImage;
using kvtest::kPlainPath;
using kvtest::kVectorPath;
using kvtest::ScopedCoreCount;

namespace {

typedef std::function<int(int)> AlphaRule;

// Hand-worked alpha rules for the opacities used below. The plain path
// truncates alpha * opacity; the vector path subtracts
// trunc((1 - opacity) * 255) with saturation.
const AlphaRule kHalfPlain = [](int a) { return a / 2; };
const AlphaRule kHalfVector = [](int a) { return a > 127 ? a - 127 : 0; };
const AlphaRule kQuarterPlain = [](int a) { return a / 4; };                     // a * 0.25
const AlphaRule kQuarterVector = [](int a) { return a > 191 ? a - 191 : 0; };    // 191.25
const AlphaRule kThreeQuartersPlain = [](int a) { return 3 * a / 4; };           // a * 0.75
const AlphaRule kThreeQuartersVector = [](int a) { return a > 63 ? a - 63 : 0; };  // 63.75
const AlphaRule kKeep = [](int a) { return a; };
const AlphaRule kZero = [](int) { return 0; };

// The bytes the opacity stage writes over `threads` threads: colour copied;
// with the vector path, a thread whose pixel share (ceil(total / threads),
// the last thread the rest, cut at the end of the image) is a non-zero
// multiple of 16 uses the vector rule and every other thread the plain rule.
std::vector<unsigned char> ExpectedOpacity(std::vector<unsigned char> bytes, unsigned int threads, bool vector,
                                           const AlphaRule& plainRule, const AlphaRule& vectorRule) {
  const size_t total = bytes.size() / 4;
  const size_t share = (total + threads - 1) / threads;
  for (size_t t = 0; t < threads; ++t) {
    const size_t start = share * t;
    if (start >= total) break;
    const size_t count = std::min(share, total - start);
    const AlphaRule& rule = vector && count % 16 == 0 ? vectorRule : plainRule;
    for (size_t p = start; p < start + count; ++p) bytes[p * 4 + 3] = static_cast<unsigned char>(rule(bytes[p * 4 + 3]));
  }
  return bytes;
}

std::vector<unsigned char> ExpectedSilhouette(std::vector<unsigned char> bytes, KVPixel8_RGB colour) {
  for (size_t p = 0; p < bytes.size(); p += 4) {
    bytes[p] = colour.blue;
    bytes[p + 1] = colour.green;
    bytes[p + 2] = colour.red;
  }
  return bytes;
}

std::vector<unsigned char> ExpectedMatte(std::vector<unsigned char> bytes, bool alphaFirst) {
  for (size_t p = 0; p < bytes.size(); p += 4) {
    const unsigned char alpha = bytes[p + (alphaFirst ? 0 : 3)];
    for (int c = 0; c < 4; ++c) bytes[p + c] = alpha;
    bytes[p + (alphaFirst ? 0 : 3)] = 255;
  }
  return bytes;
}

// Calls Render for every thread index in turn, as the pipelines' threads do.
void RenderAllShares(AbstractRenderer& stage, KVAbstractImage* source, KVAbstractImage* destination,
                     unsigned int threads) {
  stage.Setup(source);
  for (unsigned int t = 0; t < threads; ++t) {
    EXPECT_EQ(0, stage.Render(source, destination, static_cast<unsigned char>(t), static_cast<unsigned char>(threads)));
  }
}

std::vector<unsigned char> AlphaBytes(size_t pixels, unsigned char alpha, uint32_t seed) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(pixels * 4, seed);
  for (size_t p = 0; p < pixels; ++p) bytes[p * 4 + 3] = alpha;
  return bytes;
}

const KVPixel8_RGB kColour = {10, 20, 30};

}  // namespace

TEST(OpacityStage, ShareOfSixteenSubtractsShareOfSeventeenMultiplies) {
  for (unsigned int width : {16u, 17u}) {
    const std::vector<unsigned char> bytes = AlphaBytes(width, 200, width);
    GuardedImage source(width, 1), destination(width, 1);
    source.fill(bytes);
    OpacityRenderer vector(0.5, kVectorPath);
    RenderAllShares(vector, source.image(), destination.image(), 1);
    std::vector<unsigned char> expected = bytes;
    for (unsigned int x = 0; x < width; ++x) expected[x * 4 + 3] = width == 16 ? 73 : 100;
    EXPECT_EQ(expected, destination.contents()) << width;

    OpacityRenderer plain(0.5, kPlainPath);
    RenderAllShares(plain, source.image(), destination.image(), 1);
    for (unsigned int x = 0; x < width; ++x) expected[x * 4 + 3] = 100;
    EXPECT_EQ(expected, destination.contents()) << width;
    EXPECT_EQ(bytes, source.contents());
    EXPECT_TRUE(destination.guardsIntact());
  }
  // 33 pixels on two threads: 17 multiplied, then 16 subtracted.
  const std::vector<unsigned char> bytes = AlphaBytes(33, 200, 33);
  GuardedImage source(33, 1), destination(33, 1);
  source.fill(bytes);
  OpacityRenderer vector(0.5, kVectorPath);
  RenderAllShares(vector, source.image(), destination.image(), 2);
  for (unsigned int x = 0; x < 33; ++x) EXPECT_EQ(x < 17 ? 100 : 73, destination.at(x, 0, 3)) << x;
}

TEST(OpacityStage, PathsAgreeOnlyAtZeroAndOne) {
  // 256 pixels carrying every alpha value: one share of 256 takes the vector
  // path whole.
  std::vector<unsigned char> bytes = kvtest::PatternBytes(256 * 4, 3);
  for (int a = 0; a < 256; ++a) bytes[a * 4 + 3] = static_cast<unsigned char>(a);
  GuardedImage source(16, 16), destination(16, 16);
  source.fill(bytes);
  for (const kvtl::CPUExtensions& path : {kPlainPath, kVectorPath}) {
    OpacityRenderer opaque(1.0, path);
    RenderAllShares(opaque, source.image(), destination.image(), 1);
    EXPECT_EQ(bytes, destination.contents());
    OpacityRenderer clear(0.0, path);
    RenderAllShares(clear, source.image(), destination.image(), 1);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, false, kZero, kZero), destination.contents());
  }
  OpacityRenderer plainHalf(0.5, kPlainPath), vectorHalf(0.5, kVectorPath);
  RenderAllShares(plainHalf, source.image(), destination.image(), 1);
  EXPECT_EQ(64, destination.at(0, 8, 3));  // alpha 128
  EXPECT_EQ(ExpectedOpacity(bytes, 1, false, kHalfPlain, kHalfPlain), destination.contents());
  RenderAllShares(vectorHalf, source.image(), destination.image(), 1);
  EXPECT_EQ(1, destination.at(0, 8, 3));
  EXPECT_EQ(ExpectedOpacity(bytes, 1, true, kHalfPlain, kHalfVector), destination.contents());
  EXPECT_TRUE(destination.guardsIntact());
}

TEST(OpacityStage, NotANumberIsDefinedOnBothPaths) {
  // The plain product converts to the integer indefinite value and clamps to
  // 0; the vector decrement's low byte is 0, so alpha is kept.
  const double nan = std::nan("");
  for (unsigned int width : {16u, 17u}) {
    const std::vector<unsigned char> bytes = AlphaBytes(width, 200, 40 + width);
    GuardedImage source(width, 1), destination(width, 1);
    source.fill(bytes);
    OpacityRenderer vector(nan, kVectorPath);
    RenderAllShares(vector, source.image(), destination.image(), 1);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, true, kZero, kKeep), destination.contents()) << width;
    OpacityRenderer plain(nan, kPlainPath);
    RenderAllShares(plain, source.image(), destination.image(), 1);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, false, kZero, kKeep), destination.contents()) << width;
  }
}

TEST(OpacityStage, OpacitiesOutsideTheUnitRange) {
  // The stage itself validates nothing (the setter does). The vector
  // decrement keeps only its low byte: opacity 2 gives trunc(-255) & 255 = 1,
  // opacity -1 gives 510 & 255 = 254, and 1e10 overflows the integer to the
  // indefinite value, whose low byte is 0. The plain product clamps, and an
  // overflowing product is the indefinite value, which clamps to 0.
  std::vector<unsigned char> bytes = kvtest::PatternBytes(16 * 4, 21);
  for (int p = 0; p < 16; ++p) bytes[p * 4 + 3] = static_cast<unsigned char>(p * 17);  // 0 .. 255
  struct Case {
    double opacity;
    AlphaRule plain;
    AlphaRule vector;
  };
  const Case cases[] = {
      {2.0, [](int a) { return std::min(255, 2 * a); }, [](int a) { return a > 1 ? a - 1 : 0; }},
      {-1.0, kZero, [](int a) { return a > 254 ? a - 254 : 0; }},
      {1e10, kZero, kKeep},
  };
  for (const Case& c : cases) {
    GuardedImage source(16, 1), destination(16, 1, 1);
    source.fill(bytes);
    OpacityRenderer vector(c.opacity, kVectorPath), plain(c.opacity, kPlainPath);
    RenderAllShares(vector, source.image(), destination.image(), 1);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, true, c.plain, c.vector), destination.contents()) << c.opacity;
    RenderAllShares(plain, source.image(), destination.image(), 1);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, false, c.plain, c.vector), destination.contents()) << c.opacity;
    EXPECT_TRUE(destination.guardsIntact());
  }
}

TEST(OpacityStage, AlignedAndUnalignedBuffers) {
  struct Rules {
    double opacity;
    AlphaRule plain;
    AlphaRule vector;
  };
  const Rules rules[] = {{0.25, kQuarterPlain, kQuarterVector}, {0.75, kThreeQuartersPlain, kThreeQuartersVector}};
  // 64 x 3 on 3 threads: shares of 64 pixels (vector); 15 x 7 on 3 threads:
  // shares of 35 (plain).
  const unsigned int sizes[][2] = {{64, 3}, {15, 7}};
  for (const Rules& rule : rules) {
    for (const auto& size : sizes) {
      const std::vector<unsigned char> bytes = kvtest::PatternBytes(size[0] * size[1] * 4, size[0]);
      for (size_t sourceOffset : {0u, 1u}) {
        for (size_t destinationOffset : {0u, 1u}) {
          for (bool vector : {false, true}) {
            GuardedImage source(size[0], size[1], sourceOffset), destination(size[0], size[1], destinationOffset);
            source.fill(bytes);
            OpacityRenderer stage(rule.opacity, vector ? kVectorPath : kPlainPath);
            RenderAllShares(stage, source.image(), destination.image(), 3);
            EXPECT_EQ(ExpectedOpacity(bytes, 3, vector, rule.plain, rule.vector), destination.contents())
                << rule.opacity << " " << size[0] << " offsets " << sourceOffset << destinationOffset;
            EXPECT_EQ(bytes, source.contents());
            EXPECT_TRUE(destination.guardsIntact());
            EXPECT_TRUE(source.guardsIntact());
          }
        }
      }
    }
  }
}

TEST(OpacityStage, InPlace) {
  for (size_t offset : {0u, 1u}) {
    for (bool vector : {false, true}) {
      const std::vector<unsigned char> bytes = kvtest::PatternBytes(32 * 2 * 4, 7);
      GuardedImage image(32, 2, offset);
      image.fill(bytes);
      OpacityRenderer stage(0.5, vector ? kVectorPath : kPlainPath);
      RenderAllShares(stage, image.image(), image.image(), 2);
      EXPECT_EQ(ExpectedOpacity(bytes, 2, vector, kHalfPlain, kHalfVector), image.contents());
      EXPECT_TRUE(image.guardsIntact());
    }
  }
}

TEST(OpacityStage, InPlaceHelpersRunAsOneThread) {
  ScopedCoreCount cores(4);  // ignored: the helpers render as thread 0 of 1
  for (unsigned int width : {16u, 17u, 32u}) {
    const std::vector<unsigned char> bytes = AlphaBytes(width, 200, 50 + width);
    GuardedImage image(width, 1, width % 2);
    image.fill(bytes);
    SetOpacity(image.image(), 0.5);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, true, kHalfPlain, kHalfVector), image.contents()) << width;
    image.fill(bytes);
    ChangeLayerOpacity(image.image(), 0.5);
    EXPECT_EQ(ExpectedOpacity(bytes, 1, true, kHalfPlain, kHalfVector), image.contents()) << width;
    EXPECT_TRUE(image.guardsIntact());
  }
  kvtest::DeepImage deep(4, 4);  // no bytes at all: only the depth check may run
  ChangeLayerOpacity(&deep, 0.5);
}

TEST(OpacityStage, ProcessorSetterUsesTheVectorPath) {
  ScopedCoreCount cores(1);
  const std::vector<unsigned char> bytes = AlphaBytes(16, 128, 60);
  GuardedImage source(16, 1), destination(16, 1);
  source.fill(bytes);
  KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetOpacity(0.5));
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(ExpectedOpacity(bytes, 1, true, kZero, kHalfVector), destination.contents());
  EXPECT_EQ(1, destination.at(0, 0, 3));

  ASSERT_EQ(0, processor.ClearRenderQueue());
  ASSERT_EQ(0, processor.SetOpacity(std::nan("")));
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(bytes, destination.contents());
}

TEST(MirrorStage, LeavesTheDestinationByteForByte) {
  const std::vector<unsigned char> bytes = kvtest::PatternBytes(5 * 4 * 4, 8);
  const std::vector<unsigned char> target = kvtest::PatternBytes(5 * 4 * 4, 9);
  for (int flags = 0; flags < 4; ++flags) {
    GuardedImage source(5, 4), destination(5, 4);
    source.fill(bytes);
    destination.fill(target);
    MirrorRenderer stage((flags & 1) != 0, (flags & 2) != 0);
    EXPECT_EQ(0u, stage.Type());
    RenderAllShares(stage, source.image(), destination.image(), 3);
    EXPECT_EQ(target, destination.contents());

    ScopedCoreCount cores(2);
    KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
    ASSERT_EQ(0, processor.SetMirror((flags & 1) != 0, (flags & 2) != 0));
    EXPECT_EQ(0, processor.Render());
    EXPECT_EQ(target, destination.contents());
    EXPECT_EQ(bytes, source.contents());
  }
}

TEST(MirrorStage, InAChainPassesOnTheZeroFilledIntermediate) {
  ScopedCoreCount cores(2);
  const std::vector<unsigned char> bytes = kvtest::PatternBytes(4 * 4 * 4, 10);
  GuardedImage source(4, 4), destination(4, 4);
  source.fill(bytes);
  KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetMirror(true, true));
  ASSERT_EQ(0, processor.SetMatteView());
  EXPECT_EQ(0, processor.Render());
  // The matte of an all-zero image is opaque black.
  EXPECT_EQ(ExpectedMatte(std::vector<unsigned char>(64, 0), false), destination.contents());
}

TEST(SilhouetteStage, ReplacesColourAndKeepsAlpha) {
  const std::vector<unsigned char> bytes = kvtest::PatternBytes(7 * 3 * 4, 11);
  GuardedImage source(7, 3, 1), destination(7, 3);
  source.fill(bytes);
  SilhouetteRenderer stage(kColour);
  EXPECT_EQ(0u, stage.Type());
  RenderAllShares(stage, source.image(), destination.image(), 4);
  const std::vector<unsigned char> expected = ExpectedSilhouette(bytes, kColour);
  EXPECT_EQ(30, expected[0]);  // blue first
  EXPECT_EQ(expected, destination.contents());
  EXPECT_EQ(bytes, source.contents());
  EXPECT_TRUE(destination.guardsIntact());

  ScopedCoreCount cores(3);
  GuardedImage out(7, 3);
  KVImageProcessor processor(source.image(), out.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetSilhouette(kColour));
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(expected, out.contents());
}

TEST(MatteViewStage, ShowsAlphaInEitherChannelOrder) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(6 * 2 * 4, 12);
  bytes[3] = 0;     // BGRA alpha of pixel 0
  bytes[7] = 255;   // BGRA alpha of pixel 1
  bytes[8] = 0;     // ARGB alpha of pixel 2
  bytes[12] = 255;  // ARGB alpha of pixel 3
  GuardedImage bgra(6, 2), argb(6, 2, 0, kPixelOrderARGB);
  GuardedImage bgraOut(6, 2), argbOut(6, 2, 1, kPixelOrderARGB);
  bgra.fill(bytes);
  argb.fill(bytes);
  MatteViewRenderer stage;
  EXPECT_EQ(0u, stage.Type());
  RenderAllShares(stage, bgra.image(), bgraOut.image(), 3);
  RenderAllShares(stage, argb.image(), argbOut.image(), 3);
  const std::vector<unsigned char> fromBgra = ExpectedMatte(bytes, false);
  const std::vector<unsigned char> fromArgb = ExpectedMatte(bytes, true);
  EXPECT_EQ(fromBgra, bgraOut.contents());
  EXPECT_EQ(fromArgb, argbOut.contents());
  const std::vector<unsigned char> black = {0, 0, 0, 255}, white = {255, 255, 255, 255};
  EXPECT_EQ(black, std::vector<unsigned char>(fromBgra.begin(), fromBgra.begin() + 4));
  EXPECT_EQ(white, std::vector<unsigned char>(fromBgra.begin() + 4, fromBgra.begin() + 8));
  const std::vector<unsigned char> blackArgb = {255, 0, 0, 0}, whiteArgb = {255, 255, 255, 255};
  EXPECT_EQ(blackArgb, std::vector<unsigned char>(fromArgb.begin() + 8, fromArgb.begin() + 12));
  EXPECT_EQ(whiteArgb, std::vector<unsigned char>(fromArgb.begin() + 12, fromArgb.begin() + 16));
  EXPECT_EQ(bytes, bgra.contents());
  EXPECT_EQ(bytes, argb.contents());

  // Any order other than 2 keeps alpha in byte 3.
  GuardedImage unusual(6, 2, 0, static_cast<KVPixelChannelOrder>(7)), unusualOut(6, 2);
  unusual.fill(bytes);
  RenderAllShares(stage, unusual.image(), unusualOut.image(), 2);
  EXPECT_EQ(fromBgra, unusualOut.contents());
  EXPECT_TRUE(bgraOut.guardsIntact());
  EXPECT_TRUE(argbOut.guardsIntact());
}

TEST(FirstStages, OtherDepthsAreSkippedByMirrorAndMatteView) {
  kvtest::DeepImage deep(4, 2);
  const std::vector<unsigned char> target = kvtest::PatternBytes(32, 13);
  GuardedImage destination(4, 2);
  destination.fill(target);
  MirrorRenderer mirror(true, false);
  MatteViewRenderer matte;
  RenderAllShares(mirror, &deep, destination.image(), 2);
  RenderAllShares(matte, &deep, destination.image(), 2);
  EXPECT_EQ(target, destination.contents());
}

TEST(FirstStagesDeathTest, OpacityAndSilhouetteAcceptOnlyOrderOne) {
  GuardedImage argb(4, 4, 0, kPixelOrderARGB), destination(4, 4);
  OpacityRenderer vector(0.5, kVectorPath), plain(0.5, kPlainPath);
  const std::string opacityMessage =
      kvtest::LiteralRegex("OpacityRenderer:211: failed assertion `false && \"Not implemented\"'");
  EXPECT_DEATH(vector.Render(argb.image(), destination.image(), 0, 1), opacityMessage);
  EXPECT_DEATH(plain.Render(argb.image(), destination.image(), 0, 1), opacityMessage);
  kvtest::DeepImage deep(4, 4);
  EXPECT_DEATH(plain.Render(&deep, destination.image(), 0, 1), opacityMessage);

  SilhouetteRenderer silhouette(kColour);
  EXPECT_DEATH(silhouette.Render(argb.image(), destination.image(), 0, 1),
               kvtest::LiteralRegex("SilhouetteRenderer:77: failed assertion `false && \"Not implemented\"'"));
}

namespace {

// One stage of every kind with the bytes it must write over `threads` threads.
struct StageCase {
  const char* name;
  std::function<AbstractRenderer*()> make;
  std::function<std::vector<unsigned char>(const std::vector<unsigned char>&, const std::vector<unsigned char>&,
                                           unsigned int)>
      expected;  // (source bytes, destination bytes before, threads)
};

std::vector<StageCase> StageCases() {
  return {
      {"opacity plain", [] { return new OpacityRenderer(0.5, kPlainPath); },
       [](const std::vector<unsigned char>& in, const std::vector<unsigned char>&, unsigned int threads) {
         return ExpectedOpacity(in, threads, false, kHalfPlain, kHalfVector);
       }},
      {"opacity vector", [] { return new OpacityRenderer(0.5, kVectorPath); },
       [](const std::vector<unsigned char>& in, const std::vector<unsigned char>&, unsigned int threads) {
         return ExpectedOpacity(in, threads, true, kHalfPlain, kHalfVector);
       }},
      {"silhouette", [] { return new SilhouetteRenderer(kColour); },
       [](const std::vector<unsigned char>& in, const std::vector<unsigned char>&, unsigned int) {
         return ExpectedSilhouette(in, kColour);
       }},
      {"matte view", [] { return new MatteViewRenderer(); },
       [](const std::vector<unsigned char>& in, const std::vector<unsigned char>&, unsigned int) {
         return ExpectedMatte(in, false);
       }},
      {"mirror", [] { return new MirrorRenderer(true, true); },
       [](const std::vector<unsigned char>&, const std::vector<unsigned char>& before, unsigned int) {
         return before;
       }},
  };
}

}  // namespace

TEST(FirstStages, MoreThreadsThanPixelsStayInsideTheImage) {
  // Shares that start at or run past the end are cut there.
  const unsigned int cases[][3] = {{5, 1, 4}, {1, 1, 16}, {3, 1, 64}, {0, 3, 4}, {3, 0, 4},
                                   {301, 1, 20}, {1, 7, 255}, {17, 1, 2}};
  for (const StageCase& stage : StageCases()) {
    for (const auto& c : cases) {
      const size_t bytes = static_cast<size_t>(c[0]) * c[1] * 4;
      const std::vector<unsigned char> in = kvtest::PatternBytes(bytes, c[0] + c[2]);
      const std::vector<unsigned char> before = kvtest::PatternBytes(bytes, 99);
      for (size_t offset : {0u, 1u}) {
        GuardedImage source(c[0], c[1], offset), destination(c[0], c[1], 1 - offset);
        source.fill(in);
        destination.fill(before);
        std::unique_ptr<AbstractRenderer> renderer(stage.make());
        RenderAllShares(*renderer, source.image(), destination.image(), c[2]);
        EXPECT_EQ(stage.expected(in, before, c[2]), destination.contents())
            << stage.name << " " << c[0] << "x" << c[1] << " on " << c[2];
        EXPECT_EQ(in, source.contents());
        EXPECT_TRUE(destination.guardsIntact()) << stage.name << " " << c[0] << "x" << c[1] << " on " << c[2];
      }
    }
  }
}

TEST(FirstStages, ThroughTheProcessorOnSmallImagesAndManyThreads) {
  const unsigned int cases[][3] = {{5, 1, 4}, {1, 1, 16}, {3, 1, 64}, {0, 3, 4}, {2, 0, 3}};
  for (const auto& c : cases) {
    ScopedCoreCount cores(c[2]);
    const size_t bytes = static_cast<size_t>(c[0]) * c[1] * 4;
    const std::vector<unsigned char> in = kvtest::PatternBytes(bytes, 77);
    GuardedImage source(c[0], c[1]), destination(c[0], c[1]);
    source.fill(in);
    KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
    ASSERT_EQ(0, processor.SetSilhouette(kColour));
    ASSERT_EQ(0, processor.SetOpacity(0.5));
    ASSERT_EQ(0, processor.SetMirror(false, false));
    ASSERT_EQ(0, processor.SetMatteView());
    EXPECT_EQ(0, processor.Render());
    // The mirror writes nothing into its fresh image, so the matte view
    // shows opaque black whatever the stages before it wrote.
    EXPECT_EQ(ExpectedMatte(std::vector<unsigned char>(bytes, 0), false), destination.contents())
        << c[0] << "x" << c[1] << " on " << c[2];
    EXPECT_EQ(in, source.contents());
    EXPECT_TRUE(destination.guardsIntact());
  }
}

TEST(FirstStages, EveryThreadCountFromOneToSixteen) {
  // 48 x 3 = 144 pixels: shares of 144, 72, 48, 36, 29 ... 9 pixels, so the
  // vector path covers some counts (1, 3, 9) and not others; 37 x 5 = 185
  // gives shares of 16 on the twelve-thread render.
  const unsigned int sizes[][2] = {{48, 3}, {37, 5}};
  for (const auto& size : sizes) {
    const size_t bytes = static_cast<size_t>(size[0]) * size[1] * 4;
    const std::vector<unsigned char> in = kvtest::PatternBytes(bytes, size[0]);
    for (unsigned int threads = 1; threads <= 16; ++threads) {
      ScopedCoreCount cores(threads);
      GuardedImage source(size[0], size[1]), destination(size[0], size[1], threads % 2);
      source.fill(in);
      KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
      ASSERT_EQ(0, processor.SetSilhouette(kColour));
      ASSERT_EQ(0, processor.SetOpacity(0.5));
      EXPECT_EQ(0, processor.Render());
      const std::vector<unsigned char> expected =
          ExpectedOpacity(ExpectedSilhouette(in, kColour), threads, true, kHalfPlain, kHalfVector);
      EXPECT_EQ(expected, destination.contents()) << size[0] << "x" << size[1] << " on " << threads;
      EXPECT_EQ(in, source.contents());
      EXPECT_TRUE(destination.guardsIntact());
    }
  }
}

TEST(FirstStages, DestinationSmallerOrLargerThanTheSource) {
  // The images are exactly the size of their pixels, so the address
  // sanitizer sees any access past either one; guarded copies check the
  // ordinary build too.
  const unsigned int sizes[][4] = {{8, 8, 4, 2}, {2, 2, 8, 8}, {8, 1, 1, 8}, {16, 4, 15, 4}};
  for (const StageCase& stage : StageCases()) {
    for (const auto& size : sizes) {
      for (unsigned int threads : {1u, 2u, 3u, 5u, 8u}) {
        KVImage8 source(size[0], size[1], kPixelOrderBGRA, true);
        KVImage8 destination(size[2], size[3], kPixelOrderBGRA, true);
        GuardedImage guarded(size[2], size[3], 1);
        std::unique_ptr<AbstractRenderer> renderer(stage.make());
        RenderAllShares(*renderer, &source, &destination, threads);
        RenderAllShares(*renderer, &source, guarded.image(), threads);
        EXPECT_TRUE(guarded.guardsIntact()) << stage.name << " " << size[0] << "x" << size[1] << " into "
                                            << size[2] << "x" << size[3] << " on " << threads;
      }
    }
  }
  // The processor does not compare the two images either.
  ScopedCoreCount cores(3);
  KVImage8 source(8, 8, kPixelOrderBGRA, true);
  GuardedImage destination(4, 2);
  KVImageProcessor processor(&source, destination.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetOpacity(0.5));
  EXPECT_EQ(0, processor.Render());
  EXPECT_TRUE(destination.guardsIntact());
}

namespace {

// Every thread index on its own thread at once, as the pipelines run them.
void RenderOnThreads(AbstractRenderer& stage, KVAbstractImage* source, KVAbstractImage* destination,
                     unsigned int threads) {
  stage.Setup(source);
  std::vector<std::thread> workers;
  for (unsigned int t = 0; t < threads; ++t) {
    workers.emplace_back([&stage, source, destination, t, threads] {
      stage.Render(source, destination, static_cast<unsigned char>(t), static_cast<unsigned char>(threads));
    });
  }
  for (std::thread& worker : workers) worker.join();
}

// [start, start + count) of `total` units, `perThread` to a thread.
std::pair<size_t, size_t> ModelShare(size_t total, size_t perThread, size_t thread) {
  const size_t start = std::min(total, perThread * thread);
  return {start, std::min(total, start + perThread)};
}

// The pixels of the destination each path writes, as one thread would work
// them out: a vector share (of the source's pixels) of a non-zero multiple of
// 16 takes the vector formula where the images overlap; every other thread
// writes its plain share (source width x destination height) except those
// pixels. Super contrast instead starts every vector share with its
// remainder through the table. `size` is the source's width and height, then
// the destination's. 'v' vector, 'p' plain, 0 untouched.
std::string ModelPaths(const unsigned int (&size)[4], unsigned int threads, bool leadIn) {
  const size_t sourcePixels = size[0] * size[1], destinationPixels = size[2] * size[3];
  const size_t common = std::min(sourcePixels, destinationPixels);
  const size_t plainTotal = size[0] * size[3];
  std::string paths(destinationPixels, '\0');
  for (size_t t = 0; t < threads; ++t) {
    const auto share = ModelShare(sourcePixels, (sourcePixels + threads - 1) / threads, t);
    const size_t count = share.second - share.first;
    if (leadIn || (count != 0 && count % 16 == 0)) {
      for (size_t p = share.first; p < std::min(common, share.second); ++p) {
        paths[p] = leadIn && p < share.first + count % 16 ? 'p' : 'v';
      }
    }
  }
  for (size_t t = 0; t < threads && !leadIn; ++t) {
    const auto share = ModelShare(sourcePixels, (sourcePixels + threads - 1) / threads, t);
    const size_t count = share.second - share.first;
    if (count == 0 || count % 16 == 0) continue;
    const auto plain = ModelShare(plainTotal, (plainTotal + threads - 1) / threads, t);
    for (size_t p = plain.first; p < std::min(common, plain.second); ++p) {
      if (paths[p] != 'v') paths[p] = 'p';
    }
  }
  return paths;
}

}  // namespace

// A destination smaller (or larger) than the source: the two kinds of share
// no longer line up, a thread on the plain path leaves the pixels of the
// vector-path threads to them, and the render is the same every time.
TEST(FirstStages, MismatchedDestinationVectorThreadsWinTheirPixels) {
  typedef std::function<int(int value, unsigned int channel)> ByteRule;
  struct MismatchCase {
    const char* name;
    std::function<AbstractRenderer*()> make;
    ByteRule plain, vector;
    bool leadIn;
  };
  const auto superContrast = [](bool vector) {
    return [vector](int v, unsigned int c) -> int {  // lo 25, hi 229
      if (c == 3) return v;
      if (v > 229 || v < 25) return v > 229 ? 255 : 0;
      return vector ? kvtest::Clamp8(static_cast<int>(std::nearbyint((v - 25) * (256.0f / 205))))
                    : kvtest::Clamp8(static_cast<int>((v - 25) * (256.0 / 205)));
    };
  };
  const MismatchCase cases[] = {
      {"opacity", [] { return new OpacityRenderer(0.5, kVectorPath); },
       [](int v, unsigned int c) { return c == 3 ? v / 2 : v; },
       [](int v, unsigned int c) { return c == 3 ? std::max(0, v - 127) : v; }, false},
      {"brightness", [] { return new BrightnessRenderer(0.2, kChannelsColor, kVectorPath); },
       [](int v, unsigned int c) { return c == 3 ? v : std::min(255, v + 51); },
       [](int v, unsigned int c) { return c == 3 ? v : std::min(255, v + 51); }, false},
      {"contrast", [] { return new ContrastRenderer(0.5, kChannelsAll, kVectorPath); },
       [](int v, unsigned int) { return 127 + (v - 127) * 128 / 256; },
       [](int v, unsigned int) { return 127 + static_cast<int>(std::floor((v - 127) * 128 / 256.0)); }, false},
      {"colour balance", [] { return new ColorBalanceRenderer(0.3, 1.0, 2.0, kVectorPath); },
       [](int v, unsigned int c) {
         const double gain = c == 0 ? 2.0 : (c == 1 ? 1.0 : 0.3);  // blue, green, red
         return c == 3 ? v : std::min(255, static_cast<int>(v * gain));
       },
       [](int v, unsigned int c) {
         const int lane = c == 0 ? 512 : (c == 1 ? 256 : (c == 2 ? 76 : 256));
         return std::min(255, v * lane >> 8);
       },
       false},
      {"super contrast", [] { return new SuperContrastRenderer(0.1, 0.9, kChannelsColor, kVectorPath); },
       superContrast(false), superContrast(true), true},
  };
  // Source and destination sizes, then threads. 1 x 31 into 1 x 20 on two
  // threads: pixels 0..15 vector, 16..19 plain (the plain share is 10..19).
  // 1 x 50 into 1 x 40 on three: 0..27 plain, 28..33 untouched, 34..39
  // vector. 1 x 33 into 1 x 40 on two: 0..16 plain, 17..32 vector.
  const unsigned int sizes[][4] = {{1, 31, 1, 20}, {8, 8, 8, 4}, {5, 7, 5, 3}, {1, 50, 1, 40}, {1, 33, 1, 40}};
  for (const MismatchCase& stage : cases) {
    for (const auto& size : sizes) {
      const std::vector<unsigned char> in = kvtest::PatternBytes(size[0] * size[1] * 4, size[1]);
      const std::vector<unsigned char> before(size[2] * size[3] * 4, 0x5A);
      for (unsigned int threads : {2u, 3u, 7u}) {
        const std::string paths = ModelPaths(size, threads, stage.leadIn);
        std::vector<unsigned char> expected = before;
        for (size_t i = 0; i < expected.size(); ++i) {
          if (paths[i / 4] == 0) continue;
          const ByteRule& rule = paths[i / 4] == 'v' ? stage.vector : stage.plain;
          expected[i] = static_cast<unsigned char>(rule(in[i], static_cast<unsigned int>(i % 4)));
        }
        for (int run = 0; run < 2; ++run) {
          GuardedImage source(size[0], size[1]), destination(size[2], size[3], 1);
          source.fill(in);
          destination.fill(before);
          std::unique_ptr<AbstractRenderer> renderer(stage.make());
          RenderOnThreads(*renderer, source.image(), destination.image(), threads);
          EXPECT_EQ(expected, destination.contents()) << stage.name << " " << size[0] << "x" << size[1] << " into "
                                                      << size[2] << "x" << size[3] << " on " << threads;
          EXPECT_TRUE(destination.guardsIntact()) << stage.name;
          EXPECT_EQ(in, source.contents()) << stage.name;
        }
      }
    }
  }
}
