// The image model: both KVImage8 constructors, sizes, scan lines, matching,
// pixel copies and the downsample factors.
#include <gtest/gtest.h>

#include <new>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::Bytes;
using kvtest::GuardedImage;
using kvtest::PatternBytes;

namespace {

typedef std::tr1::shared_ptr<KVAbstractImage> ImagePtr;

TEST(ImageModel, ConstructorsWrapOrClearPixels) {
  Bytes pixels = PatternBytes(5 * 3 * 4, 1);
  const Bytes before = pixels;
  KVImage8 image(pixels.data(), 5, 3, kPixelOrderARGB);
  EXPECT_EQ(pixels.data(), static_cast<const KVImage8&>(image).Buffer());
  EXPECT_EQ(before, pixels);  // neither copied nor cleared
  EXPECT_EQ(kPixelOrderARGB, image.PixelChannelOrder());
  EXPECT_EQ(0u, image.BitsPerChannel());  // 0 stands for 8 bits
  EXPECT_EQ(60u, image.BufferByteSize());

  KVImage8 cleared(7, 3, kPixelOrderBGRA, true);
  EXPECT_EQ(84u, cleared.BufferSize());
  EXPECT_EQ(Bytes(84, 0), Bytes(cleared.Buffer(), cleared.Buffer() + cleared.BufferByteSize()));

  // 65536 x 16384 x 4 is 2^32: the unchecked 32-bit products wrap to 0.
  KVImage8 wrapped(nullptr, 65536, 16384, kPixelOrderBGRA);
  EXPECT_EQ(0u, wrapped.BufferSize());
  EXPECT_EQ(0u, wrapped.BufferByteSize());
}

TEST(ImageModelDeathTest, ScanLineAddressesRowsAndAbortsBeyondTheLast) {
  const std::string message = kvtest::LiteralRegex(
      "KVImage8:96: failed assertion `(lineIndex >= 0 && lineIndex < Height()) && \"Invalid scan line index\"'");
  KVImage8 image(2, 3, kPixelOrderBGRA, true);
  EXPECT_EQ(image.Buffer() + 2 * 8, image.ScanLine(2));  // the last row
  EXPECT_EQ(image.Buffer() + 8, static_cast<const KVImage8&>(image).ScanLine(1));
  EXPECT_DEATH(image.ScanLine(image.Height()), message);
  EXPECT_DEATH(static_cast<const KVImage8&>(image).ScanLine(0xFFFFFFFFu), message);
}

// Size, order and depth decide a match (buffers and ownership are
// ignored); CopyPixels copies a match and refuses anything else with 1000,
// leaving the target alone (a 4x2 and a 2x4 image both hold 32 bytes).
TEST(ImageModel, MatchingImagesAndPixelCopies) {
  std::vector<unsigned char> pixels(4 * 2 * 4);
  KVImage8 wrapped(pixels.data(), 4, 2, kPixelOrderBGRA);
  kvtest::DeepImage deep(4, 2);
  EXPECT_TRUE(DoKVAbstractImagesMatch(&wrapped, ImagePtr(new KVImage8(4, 2, kPixelOrderBGRA, false)).get()));
  EXPECT_FALSE(DoKVAbstractImagesMatch(&wrapped, &deep));
  const Bytes pattern = PatternBytes(32, 3), target = PatternBytes(32, 4);
  const struct {
    unsigned int width, height;
    KVPixelChannelOrder order;
    int code;
  } cases[] = {{4, 2, kPixelOrderBGRA, 0}, {4, 3, kPixelOrderBGRA, 1000}, {2, 4, kPixelOrderBGRA, 1000},
               {4, 2, kPixelOrderARGB, 1000}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << ", order " << c.order);
    GuardedImage source(4, 2), copied(c.width, c.height, 0, c.order), again(c.width, c.height, 0, c.order);
    source.fill(pattern);
    const Bytes before = PatternBytes(copied.bytes(), 4);
    copied.fill(before);
    again.fill(before);
    ImagePtr from = CreateImage(source.pixels(), 4, 2, kPixelOrderBGRA);
    ImagePtr to = CreateImage(copied.pixels(), c.width, c.height, c.order);
    EXPECT_EQ(c.code == 0, DoKVAbstractImagesMatch(from, to));
    EXPECT_EQ(c.code == 0, DoKVAbstractImagesMatch(source.image(), again.image()));
    EXPECT_EQ(c.code, CopyPixels(from, to));
    EXPECT_EQ(c.code, kvtl::image::CopyImagePixels(source.image(), again.image()));
    EXPECT_EQ(c.code == 0 ? pattern : before, copied.contents());
    EXPECT_EQ(copied.contents(), again.contents());
    EXPECT_TRUE(copied.guardsIntact() && again.guardsIntact());
    EXPECT_EQ(pattern, source.contents());
  }
}

TEST(ImageModel, DownsampleValues) {
  const std::pair<int, double> values[] = {{kDownsampleNone, 1.0}, {kDownsampleHalf, 0.5},
                                           {kDownsampleThird, 0.33},  // the decimal, not a third
                                           {kDownsampleQuarter, 0.25}, {7, 0.25}, {-1, 0.25}};
  for (const auto& v : values) EXPECT_EQ(v.second, DownsampleValue(static_cast<KVDownsampleFactor>(v.first)));
}

}  // namespace
