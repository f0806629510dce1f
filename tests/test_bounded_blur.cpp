// The bounded stack blur: the stack blur inside a rectangle.
#include <gtest/gtest.h>

#include <kvimage/kvimage.h>

#include <algorithm>
#include <limits>

#include "BlurReference.h"
#include "TestSupport.h"

using namespace kvo::image;
using namespace kvtest;

namespace {

struct Blur {
  unsigned int radius;
  bool horizontal, vertical;
  int channels;
  KVRect rect;
  double feather;
};

Bytes Bounded(const Bytes& pixels, unsigned int width, unsigned int height, const Blur& blur, unsigned int threads) {
  const StageSetter set = [=](KVImageProcessor& p) {
    return p.SetBoundedStackBlur(blur.radius, blur.horizontal, blur.vertical,
                                 static_cast<KVChannelsToProcess>(blur.channels), blur.rect, blur.feather);
  };
  return RenderStageAt(set, pixels, width, height, threads, 1, 0);
}

// The expected image: the rectangle [x0, x1) x [y0, y1) blurred on its own
// (rows and/or columns, chosen bytes), everything else the source.
Bytes ReferenceBounded(const Bytes& pixels, int width, int x0, int y0, int x1, int y1, int radius,
                       const bool channel[4], bool rows, bool columns) {
  const int w = x1 - x0, h = y1 - y0;
  Bytes inner(static_cast<size_t>(w) * h * 4);
  const auto at = [&](int y) { return (static_cast<size_t>(y0 + y) * width + x0) * 4; };
  for (int y = 0; y < h; ++y) std::copy_n(pixels.begin() + at(y), w * 4, inner.begin() + y * w * 4);
  inner = ReferenceStackBlur(inner, w, h, radius, channel, rows, columns);
  Bytes out(pixels);
  for (int y = 0; y < h; ++y) std::copy_n(inner.begin() + y * w * 4, w * 4, out.begin() + at(y));
  return out;
}

TEST(BoundedStackBlur, CoveringRectangleMatchesTheStackBlur) {
  const unsigned int width = 21, height = 13;
  const Bytes pixels = PatternBytes(width * height * 4, 81);
  const Bytes stack = RenderStage([](KVImageProcessor& p) { return p.SetStackBlur(4, true, true, kChannelsAll); },
                                  pixels, width, height);
  Bytes expected(stack);
  for (size_t i = 3; i < expected.size(); i += 4) expected[i] = pixels[i];  // alpha is the source's
  // No feather reaches inside a covering rectangle, whatever its value.
  const double feathers[] = {0.0, 3.0, 1e9, -2.0, kNaN, std::numeric_limits<double>::infinity()};
  const KVRect rects[] = {KVRect(KVPoint2(0, 0), width, height), KVRect(KVPoint2(-5, -3), width + 40, height + 9)};
  unsigned int threads = 1;
  for (const KVRect& rect : rects) {
    for (double feather : feathers) {
      threads = threads % 7 + 1;
      EXPECT_EQ(expected, Bounded(pixels, width, height, {4, true, true, kChannelsColor, rect, feather}, threads))
          << feather << " " << threads;
    }
  }
  // Every other channel value blurs alpha as well.
  for (int channels : {int(kChannelsAll), 17}) {
    EXPECT_EQ(stack, Bounded(pixels, width, height, {4, true, true, channels, rects[0], 0.0}, 2)) << channels;
  }
}

TEST(BoundedStackBlur, RectangleEdgesActAsImageEdges) {
  const unsigned int width = 16, height = 11;
  const Bytes pixels = PatternBytes(width * height * 4, 82);
  const KVRect rect(KVPoint2(3, 2), 9, 6);  // columns 3..11, rows 2..7
  struct Case {
    bool horizontal, vertical;
    int channels;
    const bool* mask;
    unsigned int threads;
  } cases[] = {{true, true, kChannelsAll, kAllChannels, 1},
               {true, false, kChannelsAll, kAllChannels, 2},
               {false, true, kChannelsAll, kAllChannels, 3},
               {true, true, kChannelsAlpha, kAlphaChannel, 7},
               {true, true, kChannelsColor, kColourChannels, 16}};
  for (const Case& c : cases) {
    EXPECT_EQ(ReferenceBounded(pixels, width, 3, 2, 12, 8, 3, c.mask, c.horizontal, c.vertical),
              Bounded(pixels, width, height, {3, c.horizontal, c.vertical, c.channels, rect, 0.0}, c.threads))
        << c.horizontal << c.vertical << c.channels;
  }
  // A rectangle wider than one block of columns walked side by side.
  const Bytes wide = PatternBytes(700 * 3 * 4, 87);
  EXPECT_EQ(ReferenceBounded(wide, 700, 20, 0, 620, 3, 2, kAllChannels, true, true),
            Bounded(wide, 700, 3, {2, true, true, kChannelsAll, KVRect(KVPoint2(20, 0), 600, 5), 0.0}, 1));
  // A rectangle reaching past the image is clipped; radius larger than it.
  EXPECT_EQ(ReferenceBounded(pixels, width, 10, 0, 16, 4, 9, kAllChannels, true, true),
            Bounded(pixels, width, height, {9, true, true, kChannelsAll, KVRect(KVPoint2(10, -4), 30, 8), 0.0}, 3));
}

TEST(BoundedStackBlur, FeatherRampsInsideInnerEdges) {
  // Rectangle columns 4..11 of a 12-wide image, all rows: only its left edge
  // lies inside the image. With feather 2 the blurred value weighs
  // (d + 0.5) / 2 at distance d from that edge: 0.25 at column 4, 0.75 at 5,
  // then 1; the result is source + (blurred - source) * weight, rounded.
  const unsigned int width = 12, height = 3;
  const Bytes pixels = PatternBytes(width * height * 4, 84);
  const KVRect rect(KVPoint2(4, 0), 20, 3);
  const Bytes hard = Bounded(pixels, width, height, {2, true, true, kChannelsAll, rect, 0.0}, 2);
  EXPECT_EQ(ReferenceBounded(pixels, width, 4, 0, 12, 3, 2, kAllChannels, true, true), hard);
  const Bytes soft = Bounded(pixels, width, height, {2, true, true, kChannelsAll, rect, 2.0}, 2);
  for (size_t i = 0; i < soft.size(); ++i) {
    const size_t x = i / 4 % width;
    const double weight = x < 4 ? 0.0 : x == 4 ? 0.25 : x == 5 ? 0.75 : 1.0;
    EXPECT_EQ(static_cast<int>(pixels[i] + (hard[i] - pixels[i]) * weight + 0.5), soft[i]) << x << " " << i % 4;
  }
}

// A stage set up on one size leaves images of another size alone (a host
// may drive it directly).
TEST(BoundedStackBlur, ImagesOfAnotherSizeThanTheSetupAreLeftAlone) {
  GuardedImage setup(8, 6), source(8, 7), destination(8, 6);
  setup.fill(PatternBytes(setup.bytes(), 2));
  source.fill(PatternBytes(source.bytes(), 3));
  const Bytes before = destination.contents();
  BoundedStackBlurRenderer stage(2, true, true, kChannelsAll, KVRect(KVPoint2(0, 0), 8, 6), 0.0);
  stage.Setup(setup.image());
  EXPECT_EQ(0, stage.Render(source.image(), destination.image(), 0, 1));  // the source is taller
  EXPECT_EQ(0, stage.Render(destination.image(), source.image(), 0, 1));  // the destination is
  EXPECT_EQ(before, destination.contents());
  EXPECT_TRUE(destination.guardsIntact() && source.guardsIntact());
}

}  // namespace
