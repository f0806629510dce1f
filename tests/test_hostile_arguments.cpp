// What a host's broken slider or expression can hand the engine: radii and
// sizes far beyond any image, images too large to allocate, core counts
// beyond the thread limit (NaN, infinities and huge radii in every parameter
// of every setter: tests/test_catalogue.cpp). Every case must come back as a
// documented code after a bounded amount of work (the suite's per-test
// timeout is the bound), touching nothing outside the images.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <initializer_list>

#include "TestSupport.h"

namespace {

using namespace kvo::image;
using kvo::maths::KVPoint2;
using kvo::maths::KVRect;
using kvtest::GuardedImage;
using kvtest::SharedTables;

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

// Renders `source` once per argument through a fresh engine: every render
// succeeds, keeps the guard bytes and gives the bytes of the first.
template <typename Engine, typename Argument, typename Queue>
void ExpectTheBytesOfTheFirst(GuardedImage& source, std::initializer_list<Argument> arguments, const Queue& queue) {
  std::vector<unsigned char> expected;
  for (Argument argument : arguments) {
    GuardedImage destination(source.image()->Width(), source.image()->Height(), 1);
    Engine engine(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    ASSERT_EQ(queue(engine, argument), 0);
    ASSERT_EQ(engine.Render(), 0);
    EXPECT_TRUE(destination.guardsIntact());
    if (expected.empty()) {
      expected = destination.contents();
    } else {
      EXPECT_EQ(destination.contents(), expected) << "argument " << argument;
    }
  }
}

// A window wider than twice the image covers every line whole: sizes up to
// the largest int give the bytes of such a window, at once.
TEST(HugeArguments, WhiteErodeSizesBeyondTheImageMatchAWindowOverTheWholeImage) {
  GuardedImage source(23, 9, 1);
  source.fill(kvtest::PatternBytes(source.bytes(), 3));
  for (KVWhiteErodeDirection direction : {kWhiteErodeAll, kWhiteErodeRightward, kWhiteErodeLeftward}) {
    SCOPED_TRACE(direction);
    ExpectTheBytesOfTheFirst<KVImageKeyer>(source, {47, 10000000, INT_MAX}, [direction](KVImageKeyer& k, int size) {
      return k.SetWhiteErode(direction, size);
    });
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

}  // namespace
