// What a host's broken slider or expression can hand the engine: radii and
// sizes far beyond any image, images too large to allocate (NaN, infinities
// and huge radii in every parameter of every setter: tests/test_catalogue.cpp).
// Every case must come back as a documented code after a bounded amount of
// work (the suite's per-test timeout is the bound), touching nothing outside
// the images.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <functional>

#include "TestSupport.h"

namespace {

using namespace kvo::image;
using kvtest::Bytes;
using kvtest::SharedTables;

// Radii far beyond the image give a proper blur: on a pattern every byte
// within the range of its channel in the input, and on a uniform image the
// bytes of radius 1 (every window holds the same colour; the YUV blur's
// colour conversion still applies). Images one byte off alignment.
TEST(HugeArguments, BlurRadiiFarBeyondTheImage) {
  const kvo::maths::KVRect rect(kvo::maths::KVPoint2(2, 1), 12, 5);
  const std::function<int(KVImageProcessor&, unsigned int)> blurs[] = {
      [](KVImageProcessor& p, unsigned int r) { return p.SetStackBlur(r, true, true, kChannelsAll); },
      [](KVImageProcessor& p, unsigned int r) { return p.SetStackBlur(r, false, true, kChannelsAlpha); },
      [rect](KVImageProcessor& p, unsigned int r) {
        return p.SetBoundedStackBlur(r, true, true, kChannelsAll, rect, 0.5);
      },
      [](KVImageProcessor& p, unsigned int r) { return p.SetYUVBlur(r, kYUVBlurStack); }};
  const Bytes pattern = kvtest::PatternBytes(19 * 7 * 4, 5);
  Bytes uniform(pattern.size());
  for (size_t i = 0; i < uniform.size(); ++i) uniform[i] = "\x25\xB4\x5B\xDE"[i % 4];
  for (const auto& blur : blurs) {
    const auto render = [&blur](const Bytes& pixels, unsigned int radius) {
      return kvtest::RenderStageAt([&](KVImageProcessor& p) { return blur(p, radius); }, pixels, 19, 7, 2, 1, 1);
    };
    const Bytes uniformAtOne = render(uniform, 1);
    for (unsigned int radius : {100000u, 10000000u, UINT_MAX}) {
      SCOPED_TRACE(testing::Message() << "blur " << (&blur - blurs) << ", radius " << radius);
      EXPECT_EQ(uniformAtOne, render(uniform, radius));
      const Bytes output = render(pattern, radius);
      for (size_t c = 0; c < 4; ++c) {
        unsigned char low = 255, high = 0;
        for (size_t i = c; i < pattern.size(); i += 4) {
          low = std::min(low, pattern[i]);
          high = std::max(high, pattern[i]);
        }
        for (size_t i = c; i < output.size(); i += 4) ASSERT_TRUE(output[i] >= low && output[i] <= high) << i;
      }
    }
  }
}

// A window wider than twice the image covers every line whole: sizes up to
// the largest int give the bytes of such a window, at once.
TEST(HugeArguments, WhiteErodeSizesBeyondTheImageMatchAWindowOverTheWholeImage) {
  for (double direction : {kWhiteErodeAll, kWhiteErodeRightward, kWhiteErodeLeftward}) {
    const auto erode = [direction](double size) {
      kvtest::Front keyer(kFrontEndKeyer, 23, 9, 1);
      EXPECT_EQ(keyer.Queue("SetWhiteErode", {direction, size}), 0);
      return keyer.Render();
    };
    const Bytes expected = erode(47);
    for (double size : {10000000.0, double(INT_MAX)}) EXPECT_EQ(erode(size), expected) << direction << ", " << size;
  }
}

// An image of 4.3 GB cannot be held in the 32-bit sizes: the intermediate
// image between two stages cannot be allocated, and the render fails with
// code 8 before any stage reads a pixel (the pixels are reserved without
// access: any read faults).
TEST(HugeImages, AnIntermediateThatCannotBeAllocatedReturns8) {
  const unsigned int width = 65536, height = 16385;
  EXPECT_THROW(KVImage8(width, height, kPixelOrderBGRA, true), std::bad_alloc);
  EXPECT_THROW(KVImage8(UINT_MAX, UINT_MAX, kPixelOrderBGRA, false), std::bad_alloc);

  const size_t bytes = static_cast<size_t>(width) * height * 4;
  void* reserved[2];
  for (void*& address : reserved) {
    address = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(address, MAP_FAILED);
  }
  KVImage8 in(static_cast<unsigned char*>(reserved[0]), width, height, kPixelOrderBGRA);
  KVImage8 out(static_cast<unsigned char*>(reserved[1]), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&in, &out, SharedTables(), kDownsampleNone);
  ASSERT_EQ(processor.SetMirror(true, false), 0);
  ASSERT_EQ(processor.SetStackBlur(3, true, true, kChannelsAll), 0);
  EXPECT_EQ(processor.Render(), 8);
  KVImageKeyer keyer(&in, &out, SharedTables(), kDownsampleNone);
  ASSERT_EQ(keyer.SetAlphaCrop(0.1, 0.1, 0.1, 0.1), 0);
  ASSERT_EQ(keyer.SetWhiteErode(kWhiteErodeAll, 2), 0);
  EXPECT_EQ(keyer.Render(), 8);
  for (void* address : reserved) munmap(address, bytes);
}

}  // namespace
