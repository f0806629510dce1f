// What a host's broken slider or expression can hand the engine: radii and
// sizes far beyond any image, NaN and infinities, images too large to
// allocate, core counts beyond the thread limit. Every case must come back
// as a documented code after a bounded amount of work (the suite's per-test
// timeout is the bound), touching nothing outside the images.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <limits>

#include "TestSupport.h"

namespace {

using namespace kvo::image;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;
using kvtest::GuardedImage;
using kvtest::SharedTables;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

// A uniform image: any blur, whatever its radius, must leave it as it is.
void FillUniform(GuardedImage& image) {
  for (size_t i = 0; i < image.bytes(); i += 4) {
    image.pixels()[i + 0] = 37;
    image.pixels()[i + 1] = 180;
    image.pixels()[i + 2] = 91;
    image.pixels()[i + 3] = 222;
  }
}

// A blur that succeeds gives weighted means: every byte within the range of
// its channel in the input.
void ExpectWithinChannelRanges(const std::vector<unsigned char>& input, const std::vector<unsigned char>& output) {
  for (int c = 0; c < 4; ++c) {
    unsigned char low = 255, high = 0;
    for (size_t i = c; i < input.size(); i += 4) {
      low = std::min(low, input[i]);
      high = std::max(high, input[i]);
    }
    for (size_t i = c; i < output.size(); i += 4) {
      ASSERT_GE(output[i], low) << "byte " << i;
      ASSERT_LE(output[i], high) << "byte " << i;
    }
  }
}

using BlurQueue = std::function<int(KVImageProcessor&, unsigned int radius)>;

std::vector<unsigned char> Blurred(GuardedImage& source, const BlurQueue& queue, unsigned int radius) {
  const std::vector<unsigned char> input = source.contents();
  GuardedImage destination(source.image()->Width(), source.image()->Height(), 1);
  KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
  EXPECT_EQ(queue(processor, radius), 0);
  EXPECT_EQ(processor.Render(), 0);
  EXPECT_EQ(source.contents(), input);
  EXPECT_TRUE(source.guardsIntact() && destination.guardsIntact());
  return destination.contents();
}

// Every radius renders and gives a proper blur: bytes within each channel's
// range on a pattern, and on a uniform image the bytes of radius 1 (every
// window holds the same colour; the YUV blur's colour conversion still
// applies).
void ExpectProperBlurAtEveryRadius(const BlurQueue& queue) {
  GuardedImage pattern(19, 7, 1), uniform(19, 7, 1);
  pattern.fill(kvtest::PatternBytes(pattern.bytes(), 5));
  FillUniform(uniform);
  const std::vector<unsigned char> uniformAtOne = Blurred(uniform, queue, 1);
  for (unsigned int radius : {100000u, 10000000u, UINT_MAX}) {
    SCOPED_TRACE(radius);
    ExpectWithinChannelRanges(pattern.contents(), Blurred(pattern, queue, radius));
    EXPECT_EQ(uniformAtOne, Blurred(uniform, queue, radius));
  }
}

TEST(HugeArguments, StackBlurRadiiFarBeyondTheImage) {
  ExpectProperBlurAtEveryRadius(
      [](KVImageProcessor& p, unsigned int r) { return p.SetStackBlur(r, true, true, kChannelsAll); });
  ExpectProperBlurAtEveryRadius(
      [](KVImageProcessor& p, unsigned int r) { return p.SetStackBlur(r, false, true, kChannelsAlpha); });
  const KVRect rect(KVPoint2(2, 1), 12, 5);
  ExpectProperBlurAtEveryRadius([rect](KVImageProcessor& p, unsigned int r) {
    return p.SetBoundedStackBlur(r, true, true, kChannelsAll, rect, 0.5);
  });
  ExpectProperBlurAtEveryRadius([](KVImageProcessor& p, unsigned int r) { return p.SetYUVBlur(r, kYUVBlurStack); });
}

// The box blurs never average more than a whole line, so any radius beyond
// the image gives the bytes of a radius just beyond it.
TEST(HugeArguments, BoxBlurRadiiBeyondTheImageMatchTheWholeLine) {
  GuardedImage source(23, 9, 1);
  source.fill(kvtest::PatternBytes(source.bytes(), 11));
  for (KVYUVBlurType type : {kYUVBlurHorizontal, kYUVBlurVertical, kYUVBlurHorizontalVertical}) {
    std::vector<unsigned char> expected;
    for (unsigned int radius : {24u, 100000u, UINT_MAX}) {
      GuardedImage destination(23, 9, 1);
      KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
      ASSERT_EQ(processor.SetYUVBlur(radius, type), 0);
      ASSERT_EQ(processor.Render(), 0);
      EXPECT_TRUE(destination.guardsIntact());
      if (expected.empty()) {
        expected = destination.contents();
      } else {
        EXPECT_EQ(destination.contents(), expected) << "type " << type << ", radius " << radius;
      }
    }
  }
}

// A window wider than twice the image covers every line whole: sizes up to
// the largest int give the bytes of such a window, at once.
TEST(HugeArguments, WhiteErodeSizesBeyondTheImageMatchAWindowOverTheWholeImage) {
  GuardedImage source(23, 9, 1);
  source.fill(kvtest::PatternBytes(source.bytes(), 3));
  for (KVWhiteErodeDirection direction : {kWhiteErodeAll, kWhiteErodeRightward, kWhiteErodeLeftward}) {
    std::vector<unsigned char> expected;
    for (int size : {47, 10000000, INT_MAX}) {
      GuardedImage destination(23, 9, 1);
      KVImageKeyer keyer(source.image(), destination.image(), SharedTables(), kDownsampleNone);
      ASSERT_EQ(keyer.SetWhiteErode(direction, size), 0);
      ASSERT_EQ(keyer.Render(), 0);
      EXPECT_TRUE(destination.guardsIntact());
      if (expected.empty()) {
        expected = destination.contents();
      } else {
        EXPECT_EQ(destination.contents(), expected) << "direction " << direction << ", size " << size;
      }
    }
  }
}

TEST(HugeArguments, AlphaBlurDepthOfFieldAndLayerRadiiRender) {
  GuardedImage source(17, 6, 1), destination(17, 6, 1);
  source.fill(kvtest::PatternBytes(source.bytes(), 9));
  const std::vector<unsigned char> input = source.contents();
  for (unsigned int radius : {100000u, UINT_MAX}) {
    KVImageKeyer keyer(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(keyer.SetAlphaStackBlur(radius, true, true), 0);
    EXPECT_EQ(keyer.Render(), 0);

    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(processor.SetDepthOfField(kDepthOfFieldRadial, KVPoint2F(8, 3), 0.0, radius, 0.2, 0.5, 1.0, 0.5,
                                        KVRect(KVPoint2(0, 0), 17, 6)),
              0);
    EXPECT_EQ(processor.Render(), 0);
    EXPECT_EQ(source.contents(), input);
    EXPECT_TRUE(source.guardsIntact() && destination.guardsIntact());
  }

  GuardedImage background(17, 6, 1), layer(17, 6, 1);
  layer.fill(kvtest::PatternBytes(layer.bytes(), 4));
  const KVPixel8_RGB black = {0, 0, 0};
  const KVQuad corners(KVPoint2F(2, 1), KVPoint2F(15, 1), KVPoint2F(0, 5), KVPoint2F(17, 5));
  for (unsigned int radius : {100000u, 0x7FFFFFFFu, UINT_MAX}) {
    KVImageCompositor compositor(background.image(), 1.0, SharedTables(), kDownsampleNone);
    ASSERT_EQ(compositor.AddLightSpillLayer(layer.image(), static_cast<int>(std::min(radius, 0x7FFFFFFFu)), 0.5,
                                            kBlendScreen, kDownsampleNone),
              0);
    ASSERT_EQ(compositor.AddShadowCastLayer(layer.image(), KVRect(KVPoint2(0, 0), 17, 6), corners, radius, 0.7,
                                            black, kBlendNormal, true, kDownsampleNone),
              0);
    EXPECT_EQ(compositor.Render(), 0);
    EXPECT_TRUE(background.guardsIntact() && layer.guardsIntact());
  }
}

// The focus stages blur through a nested processor: every radius renders
// with bounded work.
TEST(HugeArguments, FocusStagesTakeAnyRadius) {
  GuardedImage source(9, 5, 1), destination(9, 5, 1);
  FillUniform(source);
  const KVRect whole(KVPoint2(0, 0), 9, 5);
  for (unsigned int radius : {2895u, 2896u, 100000u, UINT_MAX}) {
    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(processor.SetDefocus(radius, 0.8, 0.5), 0);
    ASSERT_EQ(processor.SetDiffuse(radius, 1.0, 0.5), 0);
    ASSERT_EQ(processor.SetSharpen(radius, 1.0, 0.0, 0.5), 0);
    ASSERT_EQ(processor.SetSoftFocus(kBlendScreen, radius, 1.0, whole, 0.5), 0);
    EXPECT_EQ(processor.Render(), 0);
    EXPECT_TRUE(destination.guardsIntact());
  }
}

// Pixels the host has reserved but that must never be touched: any access
// faults.
class UntouchableBuffer {
 public:
  explicit UntouchableBuffer(size_t bytes) : m_bytes(bytes) {
    m_address = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  }
  ~UntouchableBuffer() {
    if (m_address != MAP_FAILED) munmap(m_address, m_bytes);
  }
  unsigned char* pixels() const { return m_address == MAP_FAILED ? nullptr : static_cast<unsigned char*>(m_address); }

 private:
  size_t m_bytes;
  void* m_address;
};

// An image of 4.3 GB cannot be held in the 32-bit sizes: the intermediate
// image between two stages cannot be allocated, and the render fails with
// code 8 before any stage reads a pixel.
TEST(HugeImages, AnIntermediateThatCannotBeAllocatedReturns8) {
  const unsigned int width = 65536, height = 16385;
  EXPECT_THROW(KVImage8(width, height, kPixelOrderBGRA, true), std::bad_alloc);
  EXPECT_THROW(KVImage8(UINT_MAX, UINT_MAX, kPixelOrderBGRA, false), std::bad_alloc);

  UntouchableBuffer source(static_cast<size_t>(width) * height * 4), destination(static_cast<size_t>(width) * height * 4);
  ASSERT_NE(source.pixels(), nullptr);
  ASSERT_NE(destination.pixels(), nullptr);
  KVImage8 in(source.pixels(), width, height, kPixelOrderBGRA);
  KVImage8 out(destination.pixels(), width, height, kPixelOrderBGRA);

  KVImageProcessor processor(&in, &out, SharedTables(), kDownsampleNone);
  ASSERT_EQ(processor.SetMirror(true, false), 0);
  ASSERT_EQ(processor.SetStackBlur(3, true, true, kChannelsAll), 0);
  EXPECT_EQ(processor.Render(), 8);

  KVImageKeyer keyer(&in, &out, SharedTables(), kDownsampleNone);
  ASSERT_EQ(keyer.SetAlphaCrop(0.1, 0.1, 0.1, 0.1), 0);
  ASSERT_EQ(keyer.SetWhiteErode(kWhiteErodeAll, 2), 0);
  EXPECT_EQ(keyer.Render(), 8);
}

// Thread indices are one byte: a host asking for more cores than 255 gets
// 255 threads, and stages whose result does not depend on the count give the
// bytes of one thread.
TEST(ThreadCounts, CoreCountsBeyond255RunWith255Threads) {
  GuardedImage source(7, 300, 1);
  source.fill(kvtest::PatternBytes(source.bytes(), 2));
  std::vector<unsigned char> expected;
  for (unsigned int cores : {1u, 255u, 256u, 1000u}) {
    kvtest::ScopedCoreCount count(cores);
    GuardedImage destination(7, 300, 1);
    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(processor.SetMirror(true, true), 0);
    ASSERT_EQ(processor.SetStackBlur(2, true, true, kChannelsAll), 0);
    ASSERT_EQ(processor.Render(), 0);
    EXPECT_TRUE(destination.guardsIntact());
    if (expected.empty()) {
      expected = destination.contents();
    } else {
      EXPECT_EQ(destination.contents(), expected) << cores << " cores";
    }
  }
}

// NaN and infinities in every double of every processor setter: the setter
// refuses them (7) or queues a stage that renders to a documented code, the
// same bytes twice.
TEST(HostileArguments, NaNAndInfinitiesInEveryProcessorSetter) {
  const KVRect rect(KVPoint2(1, 1), 5, 3);
  const KVPixel8_RGB grey = {128, 128, 128};
  for (double bad : {kNaN, kInfinity, -kInfinity}) {
    const std::function<int(KVImageProcessor&)> setters[] = {
        [&](KVImageProcessor& p) { return p.SetOpacity(bad); },
        [&](KVImageProcessor& p) { return p.SetBrightness(bad, kChannelsAll); },
        [&](KVImageProcessor& p) { return p.SetContrast(bad, kChannelsColor); },
        [&](KVImageProcessor& p) { return p.SetSuperContrast(bad, bad, kChannelsAll); },
        [&](KVImageProcessor& p) { return p.SetColorBalance(bad, 1.0, bad); },
        [&](KVImageProcessor& p) { return p.SetColorTemperature(bad); },
        [&](KVImageProcessor& p) { return p.SetSaturation(bad); },
        [&](KVImageProcessor& p) { return p.SetHueShift(bad, bad); },
        [&](KVImageProcessor& p) { return p.SetHueColorize(bad, 0.5); },
        [&](KVImageProcessor& p) { return p.SetTint(static_cast<KVTintType>(99), bad); },
        [&](KVImageProcessor& p) { return p.SetThreeStripColor(bad, bad, bad); },
        [&](KVImageProcessor& p) { return p.SetBoundedStackBlur(2, true, true, kChannelsAll, rect, bad); },
        [&](KVImageProcessor& p) { return p.SetDefocus(2, bad, bad); },
        [&](KVImageProcessor& p) { return p.SetDefocus(2, 0.5, bad); },
        [&](KVImageProcessor& p) { return p.SetDiffuse(2, 0.5, bad); },
        [&](KVImageProcessor& p) { return p.SetSharpen(2, 0.5, 0.5, bad); },
        [&](KVImageProcessor& p) { return p.SetSoftFocus(kBlendOverlay, 2, 0.5, rect, bad); },
        [&](KVImageProcessor& p) { return p.SetBleachBypass(bad, bad, bad); },
        [&](KVImageProcessor& p) { return p.SetVignette(grey, bad, bad, bad, bad, bad, rect); },
        [&](KVImageProcessor& p) {
          return p.SetDepthOfField(kDepthOfFieldLinear, KVPoint2F(bad, bad), bad, 3, 0.5, 0.5, 0.5, bad, rect);
        },
    };
    for (size_t i = 0; i < sizeof(setters) / sizeof(setters[0]); ++i) {
      SCOPED_TRACE(testing::Message() << "setter " << i << ", argument " << bad);
      GuardedImage source(7, 5, 1), destination(7, 5, 1);
      source.fill(kvtest::PatternBytes(source.bytes(), 8));
      KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
      const int queued = setters[i](processor);
      ASSERT_TRUE(queued == 0 || queued == 7) << queued;
      EXPECT_EQ(processor.RenderQueueCount(), queued == 0 ? 1 : 0);
      // From the same images each time: the defocus blurs its input in
      // place and the soft focus lays its result over the destination.
      const std::vector<unsigned char> input = source.contents(), before = destination.contents();
      const int first = processor.Render();
      const std::vector<unsigned char> once = destination.contents();
      source.fill(input);
      destination.fill(before);
      const int second = processor.Render();
      EXPECT_EQ(first, 0);
      EXPECT_EQ(second, 0);
      EXPECT_EQ(destination.contents(), once);
      EXPECT_TRUE(destination.guardsIntact());
    }
  }
}

}  // namespace
