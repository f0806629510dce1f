// The table stages' wide kernels against their plain twins: the byte-table
// walk on every mix of looked-up, shared and copied bytes, odd pixel counts around
// the 16-pixel block, buffers one byte off alignment, in place, guard bytes
// after the output, input left untouched; the host's cap choosing the plain
// walk; and the kernels that compute what a table holds against the table.
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "renderers/colour/ChannelTables.h"

namespace {

using namespace kvo::image;

TEST(ByteTables, TheWideKernelAndThePlainTailAreThePlainWalk) {
  if (kvtl::GetSupportedWiderExtension() < kvtl::kWiderAVX512VBMI) GTEST_SKIP() << "no AVX-512 VBMI here";
  std::vector<unsigned char> tables[4];
  for (unsigned int k = 0; k < 4; ++k) tables[k] = kvtest::PatternBytes(256, 40 + k);
  // Base-3 digit k of `shape`: byte k copied (0), through its own table (1)
  // or through byte 0's table (2), which the wide walk looks up once.
  for (unsigned int shape = 0; shape < 81; ++shape) {
    ByteTables chosen;
    for (unsigned int k = 0, digits = shape; k < 4; ++k, digits /= 3) {
      const unsigned int digit = digits % 3;
      chosen.byte[k] = digit == 0 ? nullptr : tables[digit == 1 ? k : 0].data();
    }
    for (unsigned int pixels : {1u, 15u, 16u, 17u, 47u, 64u, 1021u}) {
      for (size_t offset : {0, 1}) {
        for (bool inPlace : {false, true}) {
          SCOPED_TRACE(testing::Message() << "shape " << shape << ", " << pixels << " pixels, offset " << offset
                                          << (inPlace ? ", in place" : ""));
          kvtest::GuardedImage input(pixels, 1, offset), wide(pixels, 1, offset), plain(pixels, 1);
          const std::vector<unsigned char> bytes = kvtest::PatternBytes(input.bytes(), pixels + shape);
          input.fill(bytes);
          wide.fill(bytes);
          plain.fill(bytes);
          const unsigned char* in = inPlace ? wide.pixels() : input.pixels();
          RunKernel(ByteTables_AVX512VBMI, ByteTables_Plain, PixelRun{in, wide.pixels(), pixels}, chosen);
          ByteTables_Plain(PixelRun{plain.pixels(), plain.pixels(), pixels}, chosen);
          EXPECT_EQ(wide.contents(), plain.contents());
          EXPECT_EQ(input.contents(), bytes);
          EXPECT_TRUE(wide.guardsIntact() && input.guardsIntact());
        }
      }
    }
  }
}

TEST(ByteTables, TheHostsCapChoosesThePlainWalk) {
  kvtest::ScopedWiderExtension cap(kvtl::kWiderAVX2);
  EXPECT_EQ(ChooseByteTablesKernel(), &ByteTables_Plain);
}

TEST(TintVectorPath, EveryToneAndAmountGivesThePlainBytes) {
  if (kvtl::GetSupportedWiderExtension() < kvtl::kWiderAVX512VBMI) GTEST_SKIP() << "no AVX-512 VBMI here";
  const double amounts[] = {0, 0.3, 0.7, 1, kvtest::kNaN};
  for (int type = -1; type <= kTintSilver + 1; ++type) {
    for (double amount : amounts) {
      SCOPED_TRACE(testing::Message() << "type " << type << ", amount " << amount);
      std::vector<unsigned char> bytes[2];
      for (int wide = 0; wide < 2; ++wide) {
        kvtest::ScopedWiderExtension cap(wide ? kvtl::kWiderAVX512VBMI : kvtl::kWiderNone);
        kvtest::GuardedImage source(67, 61, 1), destination(67, 61, 1);
        source.fill(kvtest::PatternBytes(source.bytes(), 5));
        KVImageProcessor processor(source.image(), destination.image(), kvtest::SharedTables(), kDownsampleNone);
        ASSERT_EQ(processor.SetTint(static_cast<KVTintType>(type), amount), 0);
        ASSERT_EQ(processor.Render(), 0);
        EXPECT_TRUE(destination.guardsIntact());
        bytes[wide] = destination.contents();
      }
      EXPECT_EQ(bytes[1], bytes[0]);
    }
  }
}

// Widest kernels that compute what their plain twins read from tables or
// walk byte by byte: the bleach bypass (its overlay table) at every amount's
// weight, the diffuse stage's normal blend by the blurred alpha, the soft
// focus stage's blends and its composite over the destination, the
// three-strip weights (flat, ramped and zero curves); over a frame with most
// (byte, luminance) pairs, one byte off alignment.
TEST(WidestKernels, MatchTheirPlainTwins) {
  const std::vector<std::pair<const char*, std::vector<double> > > settings = {
      {"SetBleachBypass", {0.0, 0.6, 0.4}}, {"SetBleachBypass", {0.3, 0.6, 0.4}},
      {"SetBleachBypass", {0.8, 0.6, 0.4}}, {"SetBleachBypass", {1.0, 0.6, 0.4}},
      {"SetDiffuse", {3, 0.0, 0}},          {"SetDiffuse", {3, 0.45, 0}},
      {"SetDiffuse", {5, 1.0, 0}},
      {"SetSoftFocus", {kBlendScreen, 3, 0.6, 0, 0, 0, 0, 0}},     {"SetSoftFocus", {kBlendSoftLight, 2, 1.0, 0, 0, 0, 0, 0}},
      {"SetSoftFocus", {kBlendColorBurn, 2, 0.3, 0, 0, 0, 0, 0}},  {"SetSoftFocus", {kBlendReplace, 2, 0.5, 0, 0, 0, 0, 0}},
      {"SetSoftFocus", {kBlendAdd, 4, 0.0, 0, 0, 0, 0, 0}},        {"SetSoftFocus", {kBlendNormal, 2, 0.8, 40, 30, 100, 90, 2}},
      {"SetThreeStripColor", {0.3, 0.5, 0.7}},                     {"SetThreeStripColor", {0.0, 0.996, 0.004}}};
  for (const auto& setting : settings) {
    kvtest::Front front(kFrontEndProcessor, 253, 259, 1);
    ASSERT_EQ(0, front.Queue(setting.first, setting.second));
    const std::vector<unsigned char> widest = front.Render();
    kvtest::ScopedWiderExtension plain(kvtl::kWiderNone);
    EXPECT_EQ(widest, front.Render()) << setting.first << " " << setting.second[0] << " " << setting.second[1];
  }
}

}  // namespace
