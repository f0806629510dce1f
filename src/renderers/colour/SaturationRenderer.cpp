#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/PixelRun.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

struct SaturationArguments {
  double factor;
  const double* reciprocalOfDifference;  // [k + 255] = 1 / k
  const double* reciprocalOfValue;       // [v] = 1 / v
};

namespace {

typedef PixelKernel<SaturationArguments> SaturationKernel;

// Hue-saturation-value in double precision, one rounding at a time. Bytes 0,
// 1, 2 play blue, green, red in any channel order; byte 3 is copied. A colour
// that loses all saturation becomes its maximum, not its luminance.
size_t Saturation_Plain(const PixelRun& run, const SaturationArguments& arguments) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const int c0 = in[i + kBlueByte], c1 = in[i + kGreenByte], c2 = in[i + kRedByte];
    const int value = std::max(c0, std::max(c1, c2));
    const int min = std::min(c0, std::min(c1, c2));
    const double saturation = value == 0 ? 0.0 : (value - min) * arguments.reciprocalOfValue[value];
    double hue = 0.0;
    if (saturation != 0.0) {
      const double reciprocal = arguments.reciprocalOfDifference[value - min + 255];
      if (value == c2) {
        hue = (c1 - c0) * reciprocal;
      } else if (value == c1) {
        hue = (c0 - c2) * reciprocal + 2.0;
      } else {
        hue = (c2 - c1) * reciprocal + 4.0;
      }
      hue = hue * 60.0;
      if (hue < 0.0) hue += 360.0;
    }
    double scaled = saturation * arguments.factor;
    if (scaled > 1.0) scaled = 1.0;

    unsigned char r0 = in[i + kBlueByte], r1 = in[i + kGreenByte], r2 = in[i + kRedByte];
    if (scaled == 0.0) {
      r0 = r1 = r2 = static_cast<unsigned char>(value);
    } else {
      if (hue == 360.0) hue = 0.0;
      const double sector = hue / 60.0;
      const int index = TruncateToInt(sector);
      const double fraction = sector - index;
      const unsigned char p = static_cast<unsigned char>(TruncateToInt((1.0 - scaled) * value));
      const unsigned char q = static_cast<unsigned char>(TruncateToInt((1.0 - scaled * fraction) * value));
      const unsigned char t = static_cast<unsigned char>(TruncateToInt((1.0 - scaled * (1.0 - fraction)) * value));
      const unsigned char v = static_cast<unsigned char>(value);
      switch (index) {
        case 0: r2 = v; r1 = t; r0 = p; break;
        case 1: r2 = q; r1 = v; r0 = p; break;
        case 2: r2 = p; r1 = v; r0 = t; break;
        case 3: r2 = p; r1 = q; r0 = v; break;
        case 4: r2 = t; r1 = p; r0 = v; break;
        case 5: r2 = v; r1 = p; r0 = q; break;
        default: break;  // the colour stays as read
      }
    }
    out[i + kBlueByte] = r0;
    out[i + kGreenByte] = r1;
    out[i + kRedByte] = r2;
    out[i + kAlphaByte] = in[i + kAlphaByte];
  }
  return run.pixels;
}

KV_TARGET_AVX2 inline __m256d WidenMask(__m128i mask) { return _mm256_castsi256_pd(_mm256_cvtepi32_epi64(mask)); }

KV_TARGET_AVX2 inline __m128i Select(__m128i mask, __m128i whenSet, __m128i otherwise) {
  return _mm_blendv_epi8(otherwise, whenSet, mask);
}

// Four table entries by four loads: a gather instruction is slower here.
KV_TARGET_AVX2 inline __m256d Lookup(const double* table, __m128i index) {
  const __m128d low = _mm_loadh_pd(_mm_load_sd(table + _mm_cvtsi128_si32(index)), table + _mm_extract_epi32(index, 1));
  const __m128d high =
      _mm_loadh_pd(_mm_load_sd(table + _mm_extract_epi32(index, 2)), table + _mm_extract_epi32(index, 3));
  return _mm256_insertf128_pd(_mm256_castpd128_pd256(low), high, 1);
}

constexpr int Pattern(uint32_t bytes) { return static_cast<int>(bytes); }
const int kGreyPattern = Pattern(0x80030303);

// The low halves of four 64-bit lane masks.
KV_TARGET_AVX2 inline __m128i NarrowMask(__m256d mask) {
  const __m256i lows = _mm256_permutevar8x32_epi32(_mm256_castpd_si256(mask), _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7));
  return _mm256_castsi256_si128(lows);
}

// Four pixels at a time in the same double operations, in the same order, as
// the plain kernel: the reciprocals come from the same tables, the quotient
// h / 60 is a correctly rounded division like the scalar one, and the
// truncating conversions give the same integers (the most negative one for
// NaN, whose low byte 0 is what the scalar cast stores). Returns the pixels
// done, whole blocks of four.
KV_TARGET_AVX2 size_t Saturation_AVX2(const PixelRun& run, const SaturationArguments& arguments) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const double* reciprocalOfDifference = arguments.reciprocalOfDifference;
  const double* reciprocalOfValue = arguments.reciprocalOfValue;
  const __m128i byteMask = _mm_set1_epi32(0xFF);
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0), sixty = _mm256_set1_pd(60.0);
  const __m256d full = _mm256_set1_pd(360.0), factor = _mm256_set1_pd(arguments.factor);
  // Shuffle patterns: bytes 0, 1, 2 of the result as places in (p, q, t, V),
  // byte 3 cleared; one per sextant, then the grey one.
  const __m256i kSextantPatterns = _mm256_setr_epi32(Pattern(0x80030200), Pattern(0x80010300), Pattern(0x80000302),
                                                     Pattern(0x80000103), Pattern(0x80020003), Pattern(0x80030001),
                                                     kGreyPattern, kGreyPattern);
  const __m128i laneBytes = _mm_setr_epi32(0, 0x04040404, 0x08080808, 0x0C0C0C0C);
  const size_t blockBytes = 4 * kBytesPerPixel;
  const size_t end = run.pixels * kBytesPerPixel / blockBytes * blockBytes;
  for (size_t i = 0; i < end; i += blockBytes) {
    const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
    const __m128i c0 = _mm_and_si128(pixels, byteMask);
    const __m128i c1 = _mm_and_si128(_mm_srli_epi32(pixels, 8), byteMask);
    const __m128i c2 = _mm_and_si128(_mm_srli_epi32(pixels, 16), byteMask);
    const __m128i value = _mm_max_epi32(c0, _mm_max_epi32(c1, c2));
    const __m128i difference = _mm_sub_epi32(value, _mm_min_epi32(c0, _mm_min_epi32(c1, c2)));
    const __m256d valueD = _mm256_cvtepi32_pd(value), differenceD = _mm256_cvtepi32_pd(difference);

    // Saturation, 0 for black.
    const __m256d ofValue = Lookup(reciprocalOfValue, value);
    const __m256d black = WidenMask(_mm_cmpeq_epi32(value, _mm_setzero_si128()));
    const __m256d saturation = _mm256_andnot_pd(black, _mm256_mul_pd(differenceD, ofValue));
    const __m256d coloured = _mm256_cmp_pd(saturation, zero, _CMP_NEQ_OQ);

    // Hue in degrees, 0 where the saturation is 0.
    const __m256d ofDifference = Lookup(reciprocalOfDifference + 255, difference);
    const __m128i redIsMax = _mm_cmpeq_epi32(value, c2), greenIsMax = _mm_cmpeq_epi32(value, c1);
    const __m128i numerator =
        Select(redIsMax, _mm_sub_epi32(c1, c0), Select(greenIsMax, _mm_sub_epi32(c0, c2), _mm_sub_epi32(c2, c1)));
    const __m256d sector = _mm256_mul_pd(_mm256_cvtepi32_pd(numerator), ofDifference);
    const __m256d sectorStart = _mm256_blendv_pd(_mm256_set1_pd(4.0), _mm256_set1_pd(2.0), WidenMask(greenIsMax));
    __m256d hue = _mm256_blendv_pd(_mm256_add_pd(sector, sectorStart), sector, WidenMask(redIsMax));
    hue = _mm256_mul_pd(hue, sixty);
    hue = _mm256_blendv_pd(hue, _mm256_add_pd(hue, full), _mm256_cmp_pd(hue, zero, _CMP_LT_OQ));
    hue = _mm256_and_pd(hue, coloured);

    __m256d scaled = _mm256_mul_pd(saturation, factor);
    scaled = _mm256_blendv_pd(scaled, one, _mm256_cmp_pd(scaled, one, _CMP_GT_OQ));
    const __m128i grey = NarrowMask(_mm256_cmp_pd(scaled, zero, _CMP_EQ_OQ));

    hue = _mm256_andnot_pd(_mm256_cmp_pd(hue, full, _CMP_EQ_OQ), hue);
    const __m256d place = _mm256_div_pd(hue, sixty);
    const __m128i index = _mm256_cvttpd_epi32(place);
    const __m256d fraction = _mm256_sub_pd(place, _mm256_cvtepi32_pd(index));
    const __m128i p = _mm_and_si128(_mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_sub_pd(one, scaled), valueD)), byteMask);
    const __m128i q = _mm_and_si128(
        _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_sub_pd(one, _mm256_mul_pd(scaled, fraction)), valueD)), byteMask);
    const __m128i t = _mm_and_si128(
        _mm256_cvttpd_epi32(
            _mm256_mul_pd(_mm256_sub_pd(one, _mm256_mul_pd(scaled, _mm256_sub_pd(one, fraction))), valueD)),
        byteMask);

    // The sextant picks bytes 0, 1, 2 from (p, q, t, V) by a byte shuffle; a
    // colour without saturation takes V three times, and an index outside
    // 0..5 keeps the pixel as read.
    const __m128i palette = _mm_or_si128(_mm_or_si128(p, _mm_slli_epi32(q, 8)),
                                         _mm_or_si128(_mm_slli_epi32(t, 16), _mm_slli_epi32(value, 24)));
    const __m128i sextantPattern =
        _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(kSextantPatterns, _mm256_zextsi128_si256(index)));
    const __m128i pattern = Select(grey, _mm_set1_epi32(kGreyPattern), sextantPattern);
    const __m128i shuffled = _mm_shuffle_epi8(palette, _mm_add_epi32(pattern, laneBytes));
    const __m128i inSextants = _mm_and_si128(_mm_cmpgt_epi32(index, _mm_set1_epi32(-1)),
                                             _mm_cmpgt_epi32(_mm_set1_epi32(6), index));
    const __m128i asRead = _mm_andnot_si128(_mm_or_si128(grey, inSextants), _mm_set1_epi32(-1));
    const __m128i alpha = _mm_andnot_si128(_mm_set1_epi32(0x00FFFFFF), pixels);
    const __m128i result = Select(asRead, pixels, _mm_or_si128(shuffled, alpha));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), result);
  }
  return end / kBytesPerPixel;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// What the double-precision half of the sixteen-pixel kernel gives each of
// eight pixels: the sextant index and p, q, t (their low bytes), and whether
// the scaled saturation is 0.
struct SaturationLanes {
  __m256i index, p, q, t;
  __mmask8 grey;
};

// The AVX2 kernel's double operations on eight pixels, in the same order.
// The reciprocals are divisions instead of table reads: the tables hold 1 / k
// rounded once, which is what a division gives, and a table read per lane
// would cost more than the division here.
KV_TARGET_AVX512VBMI inline SaturationLanes SaturationOfEight(__m256i value, __m256i difference, __m256i numerator,
                                                             __mmask8 lit, __mmask8 redIsMax, __mmask8 greenIsMax,
                                                             __m512d factor) {
  const __m512d zero = _mm512_setzero_pd(), one = _mm512_set1_pd(1.0), sixty = _mm512_set1_pd(60.0);
  const __m512d full = _mm512_set1_pd(360.0);
  const __m512d valueD = _mm512_cvtepi32_pd(value), differenceD = _mm512_cvtepi32_pd(difference);

  // Saturation, 0 for black (not lit).
  const __m512d saturation = _mm512_maskz_mul_pd(lit, differenceD, _mm512_div_pd(one, valueD));
  const __mmask8 coloured = _mm512_cmp_pd_mask(saturation, zero, _CMP_NEQ_OQ);

  // Hue in degrees, 0 where the saturation is 0.
  const __m512d sector = _mm512_mul_pd(_mm512_cvtepi32_pd(numerator), _mm512_div_pd(one, differenceD));
  const __m512d sectorStart = _mm512_mask_blend_pd(greenIsMax, _mm512_set1_pd(4.0), _mm512_set1_pd(2.0));
  __m512d hue = _mm512_mask_add_pd(sector, static_cast<__mmask8>(~redIsMax), sector, sectorStart);
  hue = _mm512_mul_pd(hue, sixty);
  hue = _mm512_mask_add_pd(hue, _mm512_cmp_pd_mask(hue, zero, _CMP_LT_OQ), hue, full);
  hue = _mm512_maskz_mov_pd(coloured, hue);

  __m512d scaled = _mm512_mul_pd(saturation, factor);
  scaled = _mm512_mask_mov_pd(scaled, _mm512_cmp_pd_mask(scaled, one, _CMP_GT_OQ), one);

  hue = _mm512_maskz_mov_pd(_mm512_cmp_pd_mask(hue, full, _CMP_NEQ_UQ), hue);
  const __m512d place = _mm512_div_pd(hue, sixty);
  SaturationLanes lanes;
  lanes.grey = _mm512_cmp_pd_mask(scaled, zero, _CMP_EQ_OQ);
  lanes.index = _mm512_cvttpd_epi32(place);
  const __m512d fraction = _mm512_sub_pd(place, _mm512_cvtepi32_pd(lanes.index));
  lanes.p = _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_sub_pd(one, scaled), valueD));
  lanes.q = _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_sub_pd(one, _mm512_mul_pd(scaled, fraction)), valueD));
  lanes.t = _mm512_cvttpd_epi32(
      _mm512_mul_pd(_mm512_sub_pd(one, _mm512_mul_pd(scaled, _mm512_sub_pd(one, fraction))), valueD));
  return lanes;
}

KV_TARGET_AVX512VBMI inline __m512i Join(__m256i low, __m256i high) {
  return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}

// Sixteen pixels at a time: the integer steps in sixteen lanes, the double
// ones in two halves of eight, then the AVX2 kernel's byte shuffle. Returns
// the pixels done, whole blocks of sixteen.
KV_TARGET_AVX512VBMI size_t Saturation_AVX512VBMI(const PixelRun& run, const SaturationArguments& arguments) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const __m512i byteMask = _mm512_set1_epi32(0xFF);
  const __m512d factor = _mm512_set1_pd(arguments.factor);
  const __m512i kSextantPatterns = _mm512_setr_epi32(
      Pattern(0x80030200), Pattern(0x80010300), Pattern(0x80000302), Pattern(0x80000103), Pattern(0x80020003),
      Pattern(0x80030001), kGreyPattern, kGreyPattern, kGreyPattern, kGreyPattern, kGreyPattern, kGreyPattern,
      kGreyPattern, kGreyPattern, kGreyPattern, kGreyPattern);
  const __m512i laneBytes = _mm512_set4_epi32(0x0C0C0C0C, 0x08080808, 0x04040404, 0);
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i pixels = _mm512_loadu_si512(in + 64 * b);
    const __m512i c0 = _mm512_and_si512(pixels, byteMask);
    const __m512i c1 = _mm512_and_si512(_mm512_srli_epi32(pixels, 8), byteMask);
    const __m512i c2 = _mm512_and_si512(_mm512_srli_epi32(pixels, 16), byteMask);
    const __m512i value = _mm512_max_epi32(c0, _mm512_max_epi32(c1, c2));
    const __m512i difference = _mm512_sub_epi32(value, _mm512_min_epi32(c0, _mm512_min_epi32(c1, c2)));
    const __mmask16 lit = _mm512_cmpneq_epi32_mask(value, _mm512_setzero_si512());
    const __mmask16 redIsMax = _mm512_cmpeq_epi32_mask(value, c2), greenIsMax = _mm512_cmpeq_epi32_mask(value, c1);
    __m512i numerator = _mm512_sub_epi32(c2, c1);
    numerator = _mm512_mask_sub_epi32(numerator, greenIsMax, c0, c2);
    numerator = _mm512_mask_sub_epi32(numerator, redIsMax, c1, c0);

    const SaturationLanes low = SaturationOfEight(
        _mm512_castsi512_si256(value), _mm512_castsi512_si256(difference), _mm512_castsi512_si256(numerator),
        static_cast<__mmask8>(lit), static_cast<__mmask8>(redIsMax), static_cast<__mmask8>(greenIsMax), factor);
    const SaturationLanes high = SaturationOfEight(
        _mm512_extracti64x4_epi64(value, 1), _mm512_extracti64x4_epi64(difference, 1),
        _mm512_extracti64x4_epi64(numerator, 1), static_cast<__mmask8>(lit >> 8), static_cast<__mmask8>(redIsMax >> 8),
        static_cast<__mmask8>(greenIsMax >> 8), factor);
    const __m512i index = Join(low.index, high.index);
    const __mmask16 grey = static_cast<__mmask16>(low.grey | (high.grey << 8));

    // The sextant picks bytes 0, 1, 2 from (p, q, t, V) by a byte shuffle; a
    // colour without saturation takes V three times, and an index outside
    // 0..5 keeps the pixel as read.
    const __m512i p = _mm512_and_si512(Join(low.p, high.p), byteMask);
    const __m512i q = _mm512_and_si512(Join(low.q, high.q), byteMask);
    const __m512i t = _mm512_and_si512(Join(low.t, high.t), byteMask);
    const __m512i palette = _mm512_or_si512(_mm512_or_si512(p, _mm512_slli_epi32(q, 8)),
                                            _mm512_or_si512(_mm512_slli_epi32(t, 16), _mm512_slli_epi32(value, 24)));
    const __mmask16 inSextants = _mm512_cmplt_epu32_mask(index, _mm512_set1_epi32(6));
    const __m512i pattern =
        _mm512_mask_mov_epi32(_mm512_permutexvar_epi32(index, kSextantPatterns), grey, _mm512_set1_epi32(kGreyPattern));
    const __m512i shuffled = _mm512_shuffle_epi8(palette, _mm512_add_epi32(pattern, laneBytes));
    const __m512i alpha = _mm512_andnot_si512(_mm512_set1_epi32(0x00FFFFFF), pixels);
    const __m512i result =
        _mm512_mask_mov_epi32(pixels, static_cast<__mmask16>(grey | inSextants), _mm512_or_si512(shuffled, alpha));
    _mm512_storeu_si512(out + 64 * b, result);
  }
  _mm256_zeroupper();
  return blocks * 16;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

const KernelRungs<SaturationKernel> kSaturationRungs = {Saturation_Plain, nullptr, nullptr, Saturation_AVX2,
                                                      Saturation_AVX512VBMI};

}  // namespace

// Each pixel alone, every kernel giving the plain one's bytes.
StageNeeds NeedsOf(const SaturationRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const SaturationRenderer& self = static_cast<SaturationRenderer&>(base);
                      RunKernel(self.m_kernel, Saturation_Plain, RunOf(block),
                                SaturationArguments{self.m_saturation, self.m_reciprocalOfDifference,
                                                    self.m_reciprocalOfValue});
                    }};
}

SaturationRenderer::SaturationRenderer(double saturation, float* table)
    : m_saturation(saturation), m_table(table), m_kernel(Saturation_Plain) {}

// The entries for 0 are infinite and never read.
void SaturationRenderer::Setup(KVAbstractImage*) {
  const double infinity = std::numeric_limits<double>::infinity();
  for (int k = -255; k <= 255; ++k) m_reciprocalOfDifference[k + 255] = k == 0 ? infinity : 1.0 / k;
  for (int v = 0; v <= 255; ++v) m_reciprocalOfValue[v] = v == 0 ? infinity : 1.0 / v;
  m_kernel = ChooseKernel(kSaturationRungs);
}

int SaturationRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

int SaturationRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  PixelRun run;
  if (!PlainPathShare(source, destination, threadIndex, threadCount, run)) return 0;
  RunKernel(m_kernel, Saturation_Plain, run,
            SaturationArguments{m_saturation, m_reciprocalOfDifference, m_reciprocalOfValue});
  return 0;
}

}  // namespace image
}  // namespace kvo
