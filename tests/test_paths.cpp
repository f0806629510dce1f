// Vector kernels against their plain twins where a stage cannot choose
// between them through the front ends (whole stages on the wide and narrow
// paths are compared for every catalogue row in test_catalogue.cpp): every
// blend operation on every operand pair at both vector widths, the erode's
// kernels; and spare intermediates that never carry bytes from one render
// into the next.
#include <gtest/gtest.h>

#include <vector>

#include "TestSupport.h"
#include "compositing/BlendOperations.h"
#include "keying/WhiteErodeKernels.h"

using namespace kvo::image;
using kvo::KVLookupTables;
using kvtest::GuardedImage;
using kvtest::PatternBytes;
using kvtest::ScopedCoreCount;
using kvtest::ScopedWiderExtension;

namespace {

// Counts the (top, bottom) pairs where VectorBlend<Operation>, eight
// bottoms at a time, differs from Operation::Apply.
struct CountMismatches {
  KVLookupTables& tables;
  template <class Operation>
  KV_TARGET_AVX2 int Run() {
    int mismatches = 0;
    alignas(32) int result[8];
    for (int t = 0; t < 256; ++t) {
      for (int b = 0; b < 256; b += 8) {
        const __m256i bottoms = _mm256_setr_epi32(b, b + 1, b + 2, b + 3, b + 4, b + 5, b + 6, b + 7);
        _mm256_store_si256(reinterpret_cast<__m256i*>(result),
                           VectorBlend<Operation>::Apply(tables, _mm256_set1_epi32(t), bottoms));
        for (int lane = 0; lane < 8; ++lane) mismatches += result[lane] != Operation::Apply(tables, t, b + lane);
      }
    }
    return mismatches;
  }
};

// The same for VectorBlend512<Operation>, sixteen bottoms at a time. (GCC 12
// warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
struct CountMismatches512 {
  KVLookupTables& tables;
  template <class Operation>
  KV_TARGET_AVX512VBMI int Run() {
    int mismatches = 0;
    alignas(64) int result[16];
    for (int t = 0; t < 256; ++t) {
      for (int b = 0; b < 256; b += 16) {
        const __m512i bottoms = _mm512_add_epi32(_mm512_set1_epi32(b), _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9,
                                                                                         10, 11, 12, 13, 14, 15));
        _mm512_store_si512(result, VectorBlend512<Operation>::Apply(tables, _mm512_set1_epi32(t), bottoms));
        for (int lane = 0; lane < 16; ++lane) mismatches += result[lane] != Operation::Apply(tables, t, b + lane);
      }
    }
    return mismatches;
  }
};
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

TEST(CompositingVectors, EveryOperationMatchesItsTableOnEveryPair) {
  if (kvtl::GetWiderExtension() < kvtl::kWiderAVX2) GTEST_SKIP() << "no AVX2 on this processor";
  CountMismatches count = {kvtest::SharedTables()};
  CountMismatches512 count512 = {kvtest::SharedTables()};
  for (int mode = kBlendAdd; mode <= kBlendReplace; ++mode) {
    EXPECT_EQ(0, DispatchBlendMode(KVBlendMode(mode), count)) << "mode " << mode;
    if (kvtl::GetWiderExtension() < kvtl::kWiderAVX512VBMI) continue;
    EXPECT_EQ(0, DispatchBlendMode(KVBlendMode(mode), count512)) << "mode " << mode << ", sixteen lanes";
  }
}

// Each erode rung against the plain kernels on whole runs of odd lengths,
// one byte off alignment, guard bytes behind. Alphas go to the last bytes of
// a buffer; the minima run in place, reading ahead by each step; the least
// alphas take none, one or two rows. Alphas come in runs and holes, so that
// windows see both.
TEST(ErodeKernels, MatchTheirPlainTwins) {
  const ErodeKernels rungs[3] = {
      {ExtractAlphas_Plain, MergeAlphas_Plain, Minima_Plain, LeastAlphas_Plain},
      {ExtractAlphas_SSE2, MergeAlphas_SSE2, Minima_SSE2, LeastAlphas_SSE2},
      {ExtractAlphas_SSE2, MergeAlphas_SSE2, Minima_AVX512VBMI, LeastAlphas_AVX512VBMI}};
  const int rungCount = kvtl::GetWiderExtension() >= kvtl::kWiderAVX512VBMI ? 3 : 2;
  for (unsigned int n : {1u, 7u, 16u, 17u, 33u, 97u, 131u}) {
    for (size_t step : {0u, 1u, 9u, 64u, 65u}) {
      std::vector<std::vector<unsigned char>> results[3];
      for (int rung = 0; rung < rungCount; ++rung) {
        GuardedImage pixels(n, 1, 1), values(n, 1, 1), least(n, 1, 1);
        pixels.fill(PatternBytes(pixels.bytes(), n));
        for (unsigned char* alpha = pixels.pixels() + 3; alpha < pixels.pixels() + pixels.bytes(); alpha += 4) {
          *alpha = *alpha < 96 ? *alpha : 255;
        }
        values.fill(PatternBytes(values.bytes(), n + 1));
        least.fill(PatternBytes(least.bytes(), n + 2));
        const unsigned char* rows[2] = {values.pixels(), pixels.pixels()};
        ASSERT_EQ(n, rungs[rung].leastAlphas(rows, step % 3, least.pixels(), n, least.pixels()));
        unsigned char* alphas = values.pixels() + 3 * n;
        ASSERT_EQ(n, rungs[rung].extractAlphas(pixels.pixels(), n, alphas));
        const size_t reach = std::min<size_t>(step, values.bytes());
        ASSERT_EQ(values.bytes() - reach, rungs[rung].minima(values.pixels(), values.pixels() + reach,
                                                             values.bytes() - reach));
        ASSERT_EQ(n, rungs[rung].mergeAlphas(pixels.pixels(), alphas, n, pixels.pixels()));
        ASSERT_TRUE(pixels.guardsIntact() && values.guardsIntact() && least.guardsIntact());
        results[rung] = {pixels.contents(), values.contents(), least.contents()};
      }
      for (int rung = 1; rung < rungCount; ++rung) {
        ASSERT_EQ(results[0], results[rung]) << n << " pixels, step " << step << ", rung " << rung;
      }
    }
  }
}

TEST(Intermediates, SpareIntermediatesNeverCarryBytesIntoALaterRender) {
  ScopedCoreCount cores(3);
  // Whole-output stages on a spare: the second render of a changed source
  // equals a fresh keyer's.
  GuardedImage src(97, 31, 1), dst(97, 31), fresh(97, 31);
  const auto queue = [](KVImageKeyer& keyer) {
    return keyer.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5) |
           keyer.SetSpillSuppression(kChannelGreen, kSpillStandard, 1.0, 0, 0, 0, 0) |
           keyer.SetWhiteErode(kWhiteErodeAll, 2) | keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.1);
  };
  KVImageKeyer keyer(src.image(), dst.image(), kvtest::SharedTables(), kDownsampleNone);
  KVImageKeyer second(src.image(), fresh.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, queue(keyer) | queue(second));
  src.fill(PatternBytes(src.bytes(), 1));
  ASSERT_EQ(0, keyer.Render());
  src.fill(PatternBytes(src.bytes(), 2));
  ASSERT_EQ(0, keyer.Render() | second.Render());
  EXPECT_EQ(fresh.contents(), dst.contents());

  // Any other stage gets a cleared spare: a mirror without flips writes
  // nothing, so the matte view after it shows opaque black although the
  // spare it wrote into held the first render's bytes.
  GuardedImage in(613, 509), out(613, 509);
  in.fill(kvtest::PatternBytes(in.bytes(), 8));
  KVImageProcessor processor(in.image(), out.image(), kvtest::SharedTables(), kDownsampleNone);
  ASSERT_EQ(0, processor.SetOpacity(0.5));
  ASSERT_EQ(0, processor.SetMatteView());
  ASSERT_EQ(0, processor.Render());
  ASSERT_EQ(0, processor.SetMirror(false, false));
  ASSERT_EQ(0, processor.SetMatteView());
  ASSERT_EQ(0, processor.Render());
  std::vector<unsigned char> black(out.bytes(), 0);
  for (size_t i = 3; i < black.size(); i += 4) black[i] = 255;
  EXPECT_EQ(black, out.contents());
}

}  // namespace
