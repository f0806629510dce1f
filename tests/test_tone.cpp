// Brightness, contrast and super contrast: tables, vector paths and their
// documented differences, channel selections, shares, setters.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

#include "TestSupport.h"

using namespace kvo::image;
using kvtest::Clamp8;
using kvtest::GuardedImage;
using kvtest::kPlainPath;
using kvtest::kVectorPath;
using kvtest::Remainder;
using kvtest::RenderStage;

namespace {

const KVChannelsToProcess kUnknownSelections[] = {static_cast<KVChannelsToProcess>(6),
                                                  static_cast<KVChannelsToProcess>(-1)};

bool Processes(KVChannelsToProcess channels, unsigned int byte) {
  if (channels == kChannelsAll) return true;
  if (channels == kChannelsColor) return byte < 3;
  if (channels == kChannelsAlpha) return byte == 3;
  return false;
}

// 256 pixels, pixel p = (p, p, p, p): every level in every channel.
std::vector<unsigned char> GreyRamp() {
  std::vector<unsigned char> bytes(256 * 4);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i / 4);
  return bytes;
}

// Renders `source` (width x height) through a stage built for extensions,
// as one thread, into a destination prefilled with `prefill`.
typedef std::function<std::unique_ptr<AbstractRenderer>(const kvtl::CPUExtensions&)> StageFactory;

std::vector<unsigned char> RenderOnce(const StageFactory& make, const kvtl::CPUExtensions& extensions,
                                      const std::vector<unsigned char>& source, unsigned int width,
                                      unsigned int height, size_t sourceOffset = 0, size_t destinationOffset = 0,
                                      unsigned char prefill = 0) {
  GuardedImage src(width, height, sourceOffset), dst(width, height, destinationOffset);
  src.fill(source);
  dst.fill(std::vector<unsigned char>(dst.bytes(), prefill));
  std::unique_ptr<AbstractRenderer> stage = make(extensions);
  RenderStage(*stage, src.image(), dst.image());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_EQ(source, src.contents());
  return dst.contents();
}

StageFactory Brightness(double brightness, KVChannelsToProcess channels) {
  return [=](const kvtl::CPUExtensions& ext) {
    return std::unique_ptr<AbstractRenderer>(new BrightnessRenderer(brightness, channels, ext));
  };
}
StageFactory Contrast(double contrast, KVChannelsToProcess channels) {
  return [=](const kvtl::CPUExtensions& ext) {
    return std::unique_ptr<AbstractRenderer>(new ContrastRenderer(contrast, channels, ext));
  };
}
StageFactory SuperContrast(double low, double high, KVChannelsToProcess channels) {
  return [=](const kvtl::CPUExtensions& ext) {
    return std::unique_ptr<AbstractRenderer>(new SuperContrastRenderer(low, high, channels, ext));
  };
}

// Reference arithmetic, one formula per path.
int BrightnessLevel(int x, double brightness) { return Clamp8(x + static_cast<int>(255.0 * brightness)); }
int ContrastTable(int x, int c) { return Clamp8((x - 127) * c / 256 + 127); }
int ContrastVector(int x, int c) {
  return Clamp8(static_cast<int>(std::floor((x - 127) * c / 256.0)) + 127);
}
int SuperContrastTable(int x, int lo, int hi) {
  if (x > hi) return 255;
  if (x < lo) return 0;
  return Clamp8(static_cast<int>((x - lo) * (256.0 / (hi - lo + 1))));
}
int SuperContrastVector(int x, int lo, int hi) {
  if (x > hi) return 255;
  if (x < lo) return 0;
  return Clamp8(static_cast<int>(std::nearbyint(static_cast<float>(x - lo) * (256.0f / (hi - lo + 1)))));
}

// The byte of pixel p, channel c of an image.
unsigned char At(const std::vector<unsigned char>& bytes, size_t pixel, unsigned int channel) {
  return bytes[pixel * 4 + channel];
}

TEST(Brightness, VectorPathGivesTheTableOnEverySelection) {
  const std::vector<unsigned char> ramp = GreyRamp();
  for (double brightness : {0.2, -0.5, 0.0, 0.999, -1.0}) {
    for (KVChannelsToProcess channels : {kChannelsAlpha, kChannelsColor, kChannelsAll}) {
      const std::vector<unsigned char> plain = RenderOnce(Brightness(brightness, channels), kPlainPath, ramp, 16, 16);
      const std::vector<unsigned char> vector = RenderOnce(Brightness(brightness, channels), kVectorPath, ramp, 16, 16);
      EXPECT_EQ(plain, vector) << brightness << " " << channels;
      for (size_t i = 0; i < ramp.size(); ++i) {
        const int expected = Processes(channels, i % 4) ? BrightnessLevel(ramp[i], brightness) : ramp[i];
        ASSERT_EQ(expected, plain[i]) << brightness << " " << channels << " byte " << i;
      }
    }
  }
  // 255 * 0.2 gives an offset of 51; 255 * -0.5 one of -127.
  const std::vector<unsigned char> lighter = RenderOnce(Brightness(0.2, kChannelsColor), kVectorPath, ramp, 16, 16);
  EXPECT_EQ(61, At(lighter, 10, 0));
  EXPECT_EQ(255, At(lighter, 204, 2));
  EXPECT_EQ(204, At(lighter, 204, 3));
  const std::vector<unsigned char> darker = RenderOnce(Brightness(-0.5, kChannelsAll), kVectorPath, ramp, 16, 16);
  EXPECT_EQ(0, At(darker, 127, 1));
  EXPECT_EQ(1, At(darker, 128, 3));
}

TEST(Brightness, UnknownSelectionIsCopiedByTheVectorPathAndUnwrittenByThePlainPath) {
  const std::vector<unsigned char> source = kvtest::PatternBytes(17 * 4, 2);
  const std::vector<unsigned char> sixteen(source.begin(), source.begin() + 64);
  for (KVChannelsToProcess channels : kUnknownSelections) {
    EXPECT_EQ(sixteen, RenderOnce(Brightness(0.5, channels), kVectorPath, sixteen, 16, 1, 0, 0, 0x33));
    EXPECT_EQ(std::vector<unsigned char>(64, 0x33), RenderOnce(Brightness(0.5, channels), kPlainPath, sixteen, 16, 1,
                                                              0, 0, 0x33));
    // A share of 17 pixels takes the plain path whole.
    EXPECT_EQ(std::vector<unsigned char>(68, 0x33), RenderOnce(Brightness(0.5, channels), kVectorPath, source, 17, 1,
                                                              0, 0, 0x33));
  }
}

TEST(Contrast, VectorPathIsOneBelowTheTableExactlyWhereFlooringDiffers) {
  const std::vector<unsigned char> ramp = GreyRamp();
  for (double contrast : {0.3, 0.5, 0.77, 1.5, 1.9, 2.0}) {
    const int c = static_cast<int>(256.0 * contrast);
    const std::vector<unsigned char> table = RenderOnce(Contrast(contrast, kChannelsAll), kPlainPath, ramp, 16, 16);
    const std::vector<unsigned char> vector = RenderOnce(Contrast(contrast, kChannelsAll), kVectorPath, ramp, 16, 16);
    for (int x = 0; x < 256; ++x) {
      const int expectedTable = ContrastTable(x, c);
      const bool lower = x < 127 && ((x - 127) * c) % 256 != 0 && expectedTable > 0;
      ASSERT_EQ(expectedTable, At(table, x, 0)) << contrast << " at " << x;
      ASSERT_EQ(expectedTable - (lower ? 1 : 0), At(vector, x, 0)) << contrast << " at " << x;
    }
  }
}

TEST(Contrast, UnknownSelectionIsCopiedByTheVectorPathAndUnwrittenByThePlainPath) {
  const std::vector<unsigned char> source = kvtest::PatternBytes(32 * 4, 3);
  for (KVChannelsToProcess channels : kUnknownSelections) {
    EXPECT_EQ(source, RenderOnce(Contrast(0.4, channels), kVectorPath, source, 32, 1, 0, 0, 0x5A));
    EXPECT_EQ(std::vector<unsigned char>(source.size(), 0x5A),
              RenderOnce(Contrast(0.4, channels), kPlainPath, source, 32, 1, 0, 0, 0x5A));
  }
}

TEST(SuperContrast, BothPathsOverTheWholeRamp) {
  const std::vector<unsigned char> ramp = GreyRamp();
  struct Range {
    double low, high;
  };
  for (const Range& r : {Range{0.1, 0.9}, Range{0.0, 1.0}, Range{0.3, 0.31}, Range{0.2, 0.6}}) {
    const int lo = static_cast<int>(r.low * 255.0), hi = static_cast<int>(255.0 * r.high);
    const std::vector<unsigned char> plain = RenderOnce(SuperContrast(r.low, r.high, kChannelsColor), kPlainPath, ramp, 16, 16);
    const std::vector<unsigned char> vector =
        RenderOnce(SuperContrast(r.low, r.high, kChannelsColor), kVectorPath, ramp, 16, 16);
    for (int x = 0; x < 256; ++x) {
      ASSERT_EQ(SuperContrastTable(x, lo, hi), At(plain, x, 2)) << r.low << " " << r.high << " at " << x;
      ASSERT_EQ(SuperContrastVector(x, lo, hi), At(vector, x, 2)) << r.low << " " << r.high << " at " << x;
      ASSERT_EQ(x, At(vector, x, 3));
    }
  }
  EXPECT_EQ(ramp, RenderOnce(SuperContrast(0.0, 1.0, kChannelsAll), kPlainPath, ramp, 16, 16));
  EXPECT_EQ(ramp, RenderOnce(SuperContrast(0.0, 1.0, kChannelsColor), kVectorPath, ramp, 16, 16));
}

TEST(SuperContrast, DegenerateRanges) {
  const std::vector<unsigned char> ramp = GreyRamp();
  // low = high = 0.5: lo = hi = 127, scale 256; 127 itself gives 0.
  // high just below low (hi = lo - 1): the width is 0 and the scale unused.
  // low above high: above hi is 255 first, everything else 0.
  struct Case {
    double low, high;
    int firstWhite;
  };
  for (const Case& k : {Case{0.5, 0.5, 128}, Case{0.5, 126.5 / 255.0, 127}, Case{0.6, 0.4, 103}}) {
    for (const kvtl::CPUExtensions& ext : {kPlainPath, kVectorPath}) {
      const std::vector<unsigned char> out = RenderOnce(SuperContrast(k.low, k.high, kChannelsColor), ext, ramp, 16, 16);
      for (int x = 0; x < 256; ++x) ASSERT_EQ(x < k.firstWhite ? 0 : 255, At(out, x, 0)) << k.low << " at " << x;
    }
  }
}

TEST(SuperContrast, VectorPathServesColourOnly) {
  const std::vector<unsigned char> ramp = GreyRamp();
  for (KVChannelsToProcess channels : {kChannelsAlpha, kChannelsAll, kUnknownSelections[0]}) {
    EXPECT_EQ(RenderOnce(SuperContrast(0.1, 0.9, channels), kPlainPath, ramp, 16, 16, 0, 0, 9),
              RenderOnce(SuperContrast(0.1, 0.9, channels), kVectorPath, ramp, 16, 16, 0, 0, 9));
  }
  // Alpha through the table: 28 gives 3.
  EXPECT_EQ(3, At(RenderOnce(SuperContrast(0.1, 0.9, kChannelsAlpha), kVectorPath, ramp, 16, 16), 28, 3));
}

// 384 pixels: shares of 384, 192, 128, 96, 64, 48 and 32 pixels take the
// vector paths; 5, 7, 9 to 11 and 13 to 16 threads give shares that do not.
const unsigned int kWide = 64, kHigh = 6;

TEST(ToneStages, EveryThreadCountThroughTheProcessor) {
  const std::vector<unsigned char> source = kvtest::PatternBytes(kWide * kHigh * 4, 5);
  const auto colour = [](unsigned int channel) { return channel < 3; };
  const auto all = [](unsigned int) { return true; };

  kvtest::ExpectEveryThreadCount(
      [](KVImageProcessor& p) { return p.SetBrightness(0.4, kChannelsColor); },
      [&](unsigned int) {
        return kvtest::ExpectedBytes(source, std::vector<bool>(source.size() / 4), colour,
                                     [](int x, unsigned int, bool) { return BrightnessLevel(x, 0.4); });
      },
      kWide, kHigh, source);

  kvtest::ExpectEveryThreadCount(
      [](KVImageProcessor& p) { return p.SetContrast(0.6, kChannelsAll); },
      [&](unsigned int threads) {
        return kvtest::ExpectedBytes(source, kvtest::VectorPixels(kWide, kHigh, threads, Remainder::kWholeSharePlain),
                                     all, [](int x, unsigned int, bool vector) {
                                       const int c = static_cast<int>(256.0 * 0.6);
                                       return vector ? ContrastVector(x, c) : ContrastTable(x, c);
                                     });
      },
      kWide, kHigh, source);

  kvtest::ExpectEveryThreadCount(
      [](KVImageProcessor& p) { return p.SetSuperContrast(0.1, 0.9, kChannelsColor); },
      [&](unsigned int threads) {
        return kvtest::ExpectedBytes(source, kvtest::VectorPixels(kWide, kHigh, threads, Remainder::kLeadInPlain),
                                     colour, [](int x, unsigned int, bool vector) {
                                       return vector ? SuperContrastVector(x, 25, 229) : SuperContrastTable(x, 25, 229);
                                     });
      },
      kWide, kHigh, source);
}

}  // namespace
