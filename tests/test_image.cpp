// The image model: both KVImage8 constructors, sizes, scan lines, matching,
// pixel copies and the small enumeration helpers.
#include <gtest/gtest.h>

#include <new>
#include <vector>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::DeepImage;
using kvtest::GuardedImage;

namespace {

typedef std::tr1::shared_ptr<KVAbstractImage> ImagePtr;

std::vector<unsigned char> BytesOf(const KVImage8& image) {
  return std::vector<unsigned char>(image.Buffer(), image.Buffer() + image.BufferByteSize());
}

}  // namespace

TEST(ImageModel, WrappingConstructorKeepsTheCallersPixels) {
  std::vector<unsigned char> pixels = kvtest::PatternBytes(5 * 3 * 4, 1);
  const std::vector<unsigned char> before = pixels;
  KVImage8 image(pixels.data(), 5, 3, kPixelOrderARGB);
  EXPECT_EQ(pixels.data(), image.Buffer());
  EXPECT_EQ(before, pixels);  // neither copied nor cleared
  EXPECT_EQ(kPixelOrderARGB, image.PixelChannelOrder());
  EXPECT_EQ(0u, image.BitsPerChannel());
  EXPECT_EQ(5u, image.Width());
  EXPECT_EQ(3u, image.Height());
  EXPECT_EQ(60u, image.BufferSize());
  EXPECT_EQ(60u, image.BufferByteSize());
  const KVImage8& constImage = image;
  EXPECT_EQ(pixels.data(), constImage.Buffer());
}

TEST(ImageModel, AllocatingConstructorClearsOnRequest) {
  KVImage8 cleared(7, 3, kPixelOrderBGRA, true);
  ASSERT_NE(nullptr, cleared.Buffer());
  EXPECT_EQ(84u, cleared.BufferSize());
  EXPECT_EQ(84u, cleared.BufferByteSize());
  EXPECT_EQ(std::vector<unsigned char>(84, 0), BytesOf(cleared));

  // Uninitialised pixels are still the image's own to write.
  KVImage8 raw(2, 2, kPixelOrderARGB, false);
  std::memset(raw.Buffer(), 0x5A, raw.BufferByteSize());
  EXPECT_EQ(std::vector<unsigned char>(16, 0x5A), BytesOf(raw));
  EXPECT_EQ(kPixelOrderARGB, raw.PixelChannelOrder());
}

TEST(ImageModel, SizesWrapIn32BitsOnAWrappedBuffer) {
  // 65536 x 16384 x 4 is 2^32: the unchecked 32-bit products wrap to 0.
  KVImage8 wrapped(nullptr, 65536, 16384, kPixelOrderBGRA);
  EXPECT_EQ(0u, wrapped.BufferSize());
  EXPECT_EQ(0u, wrapped.BufferByteSize());
}

TEST(ImageModel, ScanLineAddressesRows) {
  GuardedImage image(3, 4);
  KVImage8& pixels = *image.image();
  EXPECT_EQ(image.pixels(), pixels.ScanLine(0));
  EXPECT_EQ(image.pixels() + 3 * 12, pixels.ScanLine(3));  // the last row
  const KVImage8& constPixels = pixels;
  EXPECT_EQ(image.pixels() + 12, constPixels.ScanLine(1));
}

TEST(ImageModelDeathTest, ScanLineBeyondTheLastRowAborts) {
  const std::string message = kvtest::LiteralRegex(
      "KVImage8:96: failed assertion `(lineIndex >= 0 && lineIndex < Height()) && \"Invalid scan line index\"'");
  KVImage8 image(2, 3, kPixelOrderBGRA, true);
  EXPECT_DEATH(image.ScanLine(image.Height()), message);
  const KVImage8& constImage = image;
  EXPECT_DEATH(constImage.ScanLine(0xFFFFFFFFu), message);
}

TEST(ImageModel, ImagesMatchOnSizeOrderAndDepthOnly) {
  std::vector<unsigned char> pixels(4 * 2 * 4);
  KVImage8 wrapped(pixels.data(), 4, 2, kPixelOrderBGRA);
  KVImage8 allocated(4, 2, kPixelOrderBGRA, false);
  KVImage8 tall(4, 3, kPixelOrderBGRA, false);
  KVImage8 transposed(2, 4, kPixelOrderBGRA, false);
  KVImage8 otherOrder(4, 2, kPixelOrderARGB, false);
  DeepImage deep(4, 2);
  EXPECT_TRUE(DoKVAbstractImagesMatch(&wrapped, &allocated));  // buffers and ownership ignored
  EXPECT_FALSE(DoKVAbstractImagesMatch(&wrapped, &tall));
  EXPECT_FALSE(DoKVAbstractImagesMatch(&wrapped, &transposed));
  EXPECT_FALSE(DoKVAbstractImagesMatch(&wrapped, &otherOrder));
  EXPECT_FALSE(DoKVAbstractImagesMatch(&wrapped, &deep));

  ImagePtr a = CreateImage(pixels.data(), 4, 2, kPixelOrderBGRA);
  ImagePtr b(new KVImage8(4, 2, kPixelOrderBGRA, true));
  ImagePtr c(new KVImage8(4, 2, kPixelOrderARGB, true));
  EXPECT_TRUE(DoKVAbstractImagesMatch(a, b));
  EXPECT_FALSE(DoKVAbstractImagesMatch(a, c));
}

TEST(ImageModel, CopyPixelsCopiesMatchingImages) {
  const std::vector<unsigned char> pattern = kvtest::PatternBytes(5 * 3 * 4, 2);
  GuardedImage source(5, 3), destination(5, 3);
  source.fill(pattern);
  ImagePtr src = CreateImage(source.pixels(), 5, 3, kPixelOrderBGRA);
  ImagePtr dst = CreateImage(destination.pixels(), 5, 3, kPixelOrderBGRA);
  EXPECT_EQ(0, CopyPixels(src, dst));
  EXPECT_EQ(pattern, destination.contents());
  EXPECT_TRUE(destination.guardsIntact());

  GuardedImage again(5, 3);
  EXPECT_EQ(0, kvtl::image::CopyImagePixels(source.image(), again.image()));
  EXPECT_EQ(pattern, again.contents());
  EXPECT_TRUE(again.guardsIntact());
  EXPECT_EQ(pattern, source.contents());
}

TEST(ImageModel, CopyPixelsRefusesImagesThatDoNotMatch) {
  const std::vector<unsigned char> pattern = kvtest::PatternBytes(32, 3);
  const std::vector<unsigned char> target = kvtest::PatternBytes(32, 4);
  GuardedImage wide(4, 2), tall(2, 4), otherOrder(4, 2, 0, kPixelOrderARGB);
  wide.fill(pattern);
  tall.fill(target);
  otherOrder.fill(target);
  ImagePtr wideImage = CreateImage(wide.pixels(), 4, 2, kPixelOrderBGRA);
  ImagePtr tallImage = CreateImage(tall.pixels(), 2, 4, kPixelOrderBGRA);
  ImagePtr otherImage = CreateImage(otherOrder.pixels(), 4, 2, kPixelOrderARGB);

  // Both hold 32 bytes; the width is compared first.
  EXPECT_EQ(1000, CopyPixels(wideImage, tallImage));
  EXPECT_EQ(1000, kvtl::image::CopyImagePixels(wide.image(), tall.image()));
  EXPECT_EQ(1000, CopyPixels(wideImage, otherImage));
  EXPECT_EQ(1000, kvtl::image::CopyImagePixels(wide.image(), otherOrder.image()));
  EXPECT_EQ(target, tall.contents());
  EXPECT_EQ(target, otherOrder.contents());
}

TEST(ImageModel, DownsampleValues) {
  EXPECT_EQ(1.0, DownsampleValue(kDownsampleNone));
  EXPECT_EQ(0.5, DownsampleValue(kDownsampleHalf));
  EXPECT_EQ(0.33, DownsampleValue(kDownsampleThird));  // the decimal, not a third
  EXPECT_NE(1.0 / 3.0, DownsampleValue(kDownsampleThird));
  EXPECT_EQ(0.25, DownsampleValue(kDownsampleQuarter));
  EXPECT_EQ(0.25, DownsampleValue(static_cast<KVDownsampleFactor>(7)));
  EXPECT_EQ(0.25, DownsampleValue(static_cast<KVDownsampleFactor>(-1)));
}
