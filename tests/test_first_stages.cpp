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

// The opacity path follows each thread's share: 48 x 3 = 144 pixels gives
// shares of 144, 72, 48, 36, 29 ... 9 pixels, so the vector path covers some
// counts (1, 3, 9) and not others; 37 x 5 = 185 gives shares of 16 on the
// twelve-thread render.
TEST(OpacityStage, EachThreadsShareChoosesItsPathAtEveryThreadCount) {
  for (const auto& size : {std::make_pair(48u, 3u), std::make_pair(37u, 5u)}) {
    const std::vector<unsigned char> in = kvtest::PatternBytes(static_cast<size_t>(size.first) * size.second * 4, 9);
    for (unsigned int threads = 1; threads <= 16; ++threads) {
      ScopedCoreCount cores(threads);
      GuardedImage source(size.first, size.second), destination(size.first, size.second, threads % 2);
      source.fill(in);
      KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
      ASSERT_EQ(0, processor.SetSilhouette(kColour));
      ASSERT_EQ(0, processor.SetOpacity(0.5));
      EXPECT_EQ(0, processor.Render());
      EXPECT_EQ(ExpectedOpacity(ExpectedSilhouette(in, kColour), threads, true, kHalfPlain, kHalfVector),
                destination.contents()) << size.first << "x" << size.second << " on " << threads;
    }
  }
}

