#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include <kvimage/colour.h>

#include "renderers/colour/PixelRun.h"
#include "renderers/colour/Rec601Luma.h"
#include "support/ByteLookup.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// What the weight of a squared distance depends on, fixed for a render.
struct VignetteShape {
  double untouched;    // at or below: weight 0, no square root
  double fullSquared;  // at or beyond: the full weight
  double midpoint;
  double feather;
  double amount;
  int fullWeight;
};

// Columns [first, end) lie at the same squared offset from the centre as
// column sum - x, which comes before `first`: a kernel may take their weights
// from there. None: first = end.
struct ColumnMirror {
  size_t first;
  size_t end;
  size_t sum;
};

// What the kernels read. A pixel's place in the image is its distance from
// `origin`, the destination's first pixel.
struct VignetteArguments {
  const unsigned char* origin;
  unsigned int width;
  const double* columnTerm;
  const double* rowTerm;
  VignetteShape shape;
  const int* protection;
  KVPixel8_RGB colour;
  ChannelBytes at;
  ColumnMirror mirror;
};

namespace {

typedef PixelKernel<VignetteArguments> VignetteKernel;

// The frame's centre and half-axes: the rectangle's half-width and
// half-height at roundness 0, both the smaller of the two at roundness 1.
// Setup keeps each column's and row's squared offset from the centre in
// half-axes, measured at the pixel centre, so mirrored pixels get exactly the
// same distance.
struct VignetteFrame {
  double centreX;
  double centreY;
  double axisX;
  double axisY;
};

VignetteFrame FrameOf(const kvo::maths::KVRect& bounds, double roundness, unsigned int width, unsigned int height) {
  double left = 0.0, top = 0.0, frameWidth = width, frameHeight = height;
  if (bounds.Width() > 0 && bounds.Height() > 0) {
    left = bounds.TopLeft().X();
    top = bounds.TopLeft().Y();
    frameWidth = bounds.Width();
    frameHeight = bounds.Height();
  }
  const double halfWidth = frameWidth / 2.0, halfHeight = frameHeight / 2.0;
  const double circle = std::min(halfWidth, halfHeight);
  const VignetteFrame frame = {left + halfWidth, top + halfHeight, halfWidth + (circle - halfWidth) * roundness,
                               halfHeight + (circle - halfHeight) * roundness};
  return frame;
}

// When 2 * centreX is a whole number k + 1, column k - x's offset
// (k - x + 0.5 - centreX) is exactly the negation of column x's (both sums
// are exact, and rounding is symmetric), so the two columns' terms are the
// same double and so are their weights in every row.
ColumnMirror MirrorOf(double centreX, unsigned int width) {
  const ColumnMirror none = {width, width, 0};
  const double twice = 2.0 * centreX;
  if (!(twice >= 2.0 && twice < 4294967296.0) || twice != std::floor(twice)) return none;
  const size_t sum = static_cast<size_t>(twice) - 1;
  const ColumnMirror mirror = {sum / 2 + 1, std::min<size_t>(sum + 1, width), sum};
  return mirror.first < mirror.end ? mirror : none;
}

// (a * (256 - w) + b * w) / 256, rounded to nearest.
inline int Mix256(int a, int b, int weight) { return (a * (256 - weight) + b * weight + 128) >> 8; }

VignetteShape ShapeOf(double amount, double midpoint, double feather) {
  const double full = midpoint + feather;
  const VignetteShape shape = {amount > 0.0 ? midpoint * midpoint : HUGE_VAL, full * full, midpoint, feather, amount,
                               TruncateToInt(amount * 256.0)};
  return shape;
}

// 0 up to the midpoint, then amount * smoothstep((d - midpoint) / feather),
// and amount from d = midpoint + feather on (decided on s, which spares most
// pixels the square root).
int WeightOf(double s, const VignetteShape& shape) {
  if (s >= shape.fullSquared) return shape.fullWeight;
  const double d = std::sqrt(s);
  if (!(d > shape.midpoint)) return 0;
  double u = 1.0;
  if (shape.feather > 0.0) u = std::min(1.0, (d - shape.midpoint) / shape.feather);
  return TruncateToInt(shape.amount * (u * u * (3.0 - 2.0 * u)) * 256.0);
}

// Pixel by pixel; pixels at or inside the midpoint are copied without a
// square root.
size_t Vignette_Plain(const PixelRun& run, const VignetteArguments& arguments) {
  const size_t first = static_cast<size_t>(run.out - arguments.origin) / kBytesPerPixel;
  const ChannelBytes at = arguments.at;
  const KVPixel8_RGB colour = arguments.colour;
  unsigned int x = static_cast<unsigned int>(first % arguments.width);
  unsigned int y = static_cast<unsigned int>(first / arguments.width);
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const double s = arguments.columnTerm[x] + arguments.rowTerm[y];
    const int red = run.in[i + at.red], green = run.in[i + at.green], blue = run.in[i + at.blue];
    const unsigned char alpha = run.in[i + at.alpha];
    const int weight = s <= arguments.shape.untouched ? 0 : WeightOf(s, arguments.shape);
    if (weight == 0) {
      run.out[i + at.red] = static_cast<unsigned char>(red);
      run.out[i + at.green] = static_cast<unsigned char>(green);
      run.out[i + at.blue] = static_cast<unsigned char>(blue);
    } else {
      const int opacity = (weight * arguments.protection[Rec601Luma(red, green, blue)]) >> 8;
      run.out[i + at.red] = static_cast<unsigned char>(Mix256(red, colour.red, opacity));
      run.out[i + at.green] = static_cast<unsigned char>(Mix256(green, colour.green, opacity));
      run.out[i + at.blue] = static_cast<unsigned char>(Mix256(blue, colour.blue, opacity));
    }
    run.out[i + at.alpha] = alpha;
    if (++x == arguments.width) {
      x = 0;
      ++y;
    }
  }
  return run.pixels;
}

// The weights of `count` pixels of one row, four at a time, with the same
// double-precision steps as the per-pixel form: a correctly rounded square
// root and division, then the truncating conversion. The last group reads a
// copy of the row's final terms, padded with the last one.
KV_TARGET_AVX2 void RowWeights_AVX2(const double* columnTerm, double rowTerm, size_t count, const VignetteShape& shape,
                                    int* weights) {
  const __m256d row = _mm256_set1_pd(rowTerm);
  const __m256d untouched = _mm256_set1_pd(shape.untouched);
  const __m256d fullSquared = _mm256_set1_pd(shape.fullSquared);
  const __m256d midpoint = _mm256_set1_pd(shape.midpoint);
  const __m256d feather = _mm256_set1_pd(shape.feather);
  const __m256d amount = _mm256_set1_pd(shape.amount);
  const __m256d one = _mm256_set1_pd(1.0), two = _mm256_set1_pd(2.0), three = _mm256_set1_pd(3.0);
  const __m256d scale = _mm256_set1_pd(256.0);
  const __m128i fullWeight = _mm_set1_epi32(shape.fullWeight);
  const bool feathered = shape.feather > 0.0;
  alignas(16) int tail[4];
  for (size_t x = 0; x < count; x += 4) {
    __m256d column;
    if (x + 4 <= count) {
      column = _mm256_loadu_pd(columnTerm + x);
    } else {
      double padded[4];
      for (size_t k = 0; k < 4; ++k) padded[k] = columnTerm[x + k < count ? x + k : count - 1];
      column = _mm256_loadu_pd(padded);
    }
    const __m256d s = _mm256_add_pd(column, row);
    const __m256d full = _mm256_cmp_pd(s, fullSquared, _CMP_GE_OQ);
    const __m256d inside = _mm256_cmp_pd(s, untouched, _CMP_LE_OQ);
    const __m128i fullMask = _mm_cmpeq_epi32(_mm256_cvtpd_epi32(_mm256_and_pd(full, one)), _mm_set1_epi32(1));
    const __m128i insideMask = _mm_cmpeq_epi32(_mm256_cvtpd_epi32(_mm256_and_pd(inside, one)), _mm_set1_epi32(1));
    __m128i weight = _mm_setzero_si128();
    // Groups wholly inside the midpoint or beyond the feather need no root.
    if (_mm256_movemask_pd(_mm256_or_pd(full, inside)) != 0xF) {
      const __m256d d = _mm256_sqrt_pd(s);
      __m256d u = one;
      if (feathered) u = _mm256_min_pd(_mm256_div_pd(_mm256_sub_pd(d, midpoint), feather), one);
      const __m256d smooth = _mm256_mul_pd(_mm256_mul_pd(u, u), _mm256_sub_pd(three, _mm256_mul_pd(two, u)));
      weight = _mm256_cvttpd_epi32(_mm256_mul_pd(_mm256_mul_pd(amount, smooth), scale));
      const __m128i beyondMidpoint =
          _mm256_cvtpd_epi32(_mm256_and_pd(_mm256_cmp_pd(d, midpoint, _CMP_GT_OQ), one));
      weight = _mm_and_si128(weight, _mm_cmpeq_epi32(beyondMidpoint, _mm_set1_epi32(1)));
    }
    weight = _mm_blendv_epi8(weight, fullWeight, fullMask);
    weight = _mm_andnot_si128(insideMask, weight);
    if (x + 4 <= count) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(weights + x), weight);
    } else {
      _mm_store_si128(reinterpret_cast<__m128i*>(tail), weight);
      for (size_t k = 0; x + k < count; ++k) weights[x + k] = tail[k];
    }
  }
}

// Mix256 in 32-bit lanes, with keep = 256 - opacity.
KV_TARGET_AVX2 inline __m256i MixLanes(__m256i value, __m256i target, __m256i keep, __m256i opacity) {
  const __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(value, keep), _mm256_mullo_epi32(target, opacity));
  return _mm256_and_si256(_mm256_srai_epi32(_mm256_add_epi32(sum, _mm256_set1_epi32(128)), 8),
                          _mm256_set1_epi32(255));
}

// Mixes `count` pixels towards the colour by their weights, eight at a time:
// the luminance, protection and Mix256 of the per-pixel form in 32-bit lanes.
// A weight of 0 needs no test: its mix gives the byte back. Returns the pixels
// done.
KV_TARGET_AVX2 size_t MixPixels_AVX2(const unsigned char* in, unsigned char* out, const int* weights, size_t count,
                                     const int* protection, const KVPixel8_RGB& colour, const ChannelBytes& at) {
  const __m256i byteMask = _mm256_set1_epi32(255);
  const __m256i red = _mm256_set1_epi32(colour.red), green = _mm256_set1_epi32(colour.green),
                blue = _mm256_set1_epi32(colour.blue);
  const __m256i k256 = _mm256_set1_epi32(256);
  const __m256i alphaMask = _mm256_set1_epi32(static_cast<int>(255u << (8 * at.alpha)));
  size_t k = 0;
  for (; k + 8 <= count; k += 8) {
    const __m256i pixels = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + k * kBytesPerPixel));
    const __m256i r = _mm256_and_si256(_mm256_srl_epi32(pixels, _mm_cvtsi32_si128(static_cast<int>(8 * at.red))), byteMask);
    const __m256i g = _mm256_and_si256(_mm256_srl_epi32(pixels, _mm_cvtsi32_si128(static_cast<int>(8 * at.green))), byteMask);
    const __m256i b = _mm256_and_si256(_mm256_srl_epi32(pixels, _mm_cvtsi32_si128(static_cast<int>(8 * at.blue))), byteMask);
    const __m256i luma = _mm256_srli_epi32(
        _mm256_add_epi32(_mm256_add_epi32(_mm256_mullo_epi32(r, _mm256_set1_epi32(77)),
                                          _mm256_mullo_epi32(g, _mm256_set1_epi32(150))),
                         _mm256_mullo_epi32(b, _mm256_set1_epi32(29))),
        8);
    const __m256i weight = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weights + k));
    // Eight scalar reads: on processors whose gathers are microcoded they
    // beat a gather instruction.
    alignas(32) int lumaLanes[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(lumaLanes), luma);
    const __m256i protect = _mm256_setr_epi32(protection[lumaLanes[0]], protection[lumaLanes[1]],
                                              protection[lumaLanes[2]], protection[lumaLanes[3]],
                                              protection[lumaLanes[4]], protection[lumaLanes[5]],
                                              protection[lumaLanes[6]], protection[lumaLanes[7]]);
    const __m256i opacity = _mm256_srai_epi32(_mm256_mullo_epi32(weight, protect), 8);
    const __m256i keep = _mm256_sub_epi32(k256, opacity);
    __m256i result = _mm256_and_si256(pixels, alphaMask);
    result = _mm256_or_si256(result, _mm256_sll_epi32(MixLanes(r, red, keep, opacity), _mm_cvtsi32_si128(static_cast<int>(8 * at.red))));
    result =
        _mm256_or_si256(result, _mm256_sll_epi32(MixLanes(g, green, keep, opacity), _mm_cvtsi32_si128(static_cast<int>(8 * at.green))));
    result = _mm256_or_si256(result, _mm256_sll_epi32(MixLanes(b, blue, keep, opacity), _mm_cvtsi32_si128(static_cast<int>(8 * at.blue))));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + k * kBytesPerPixel), result);
  }
  return k;
}

// The plain kernel with the weights of up to a row at a time taken from
// RowWeights_AVX2 first; the colour arithmetic is the same. Pixels short of a
// group of eight go through the plain kernel.
KV_TARGET_AVX2 size_t Vignette_AVX2(const PixelRun& run, const VignetteArguments& arguments) {
  const size_t first = static_cast<size_t>(run.out - arguments.origin) / kBytesPerPixel;
  const size_t kChunk = 256;
  int weights[kChunk];
  size_t done = 0;
  while (done < run.pixels) {
    const size_t position = first + done;
    const unsigned int x = static_cast<unsigned int>(position % arguments.width);
    const unsigned int y = static_cast<unsigned int>(position / arguments.width);
    const size_t count = std::min(std::min(kChunk, static_cast<size_t>(arguments.width - x)), run.pixels - done);
    RowWeights_AVX2(&arguments.columnTerm[x], arguments.rowTerm[y], count, arguments.shape, weights);
    const PixelRun chunk = run.From(done);
    const size_t mixed =
        MixPixels_AVX2(chunk.in, chunk.out, weights, count, arguments.protection, arguments.colour, arguments.at);
    Vignette_Plain(PixelRun{chunk.in, chunk.out, count}.From(mixed), arguments);
    done += count;
  }
  return run.pixels;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The lanes of a step of up to sixteen pixels.
inline __mmask16 LanesUsed(size_t lanes) { return static_cast<__mmask16>(lanes == 16 ? 0xFFFFu : (1u << lanes) - 1); }

// The shape of the weights in registers, set once per run.
struct WeightShape_AVX512VBMI {
  __m512d untouched;
  __m512d fullSquared;
  __m512d midpoint;
  __m512d feather;
  __m512d amount;
  __m512i fullWeight;
  bool feathered;
};

// The weights of up to sixteen columns of a row (the lanes set), in two
// groups of eight doubles, with the per-pixel form's steps in its order: a
// correctly rounded square root and division, then the truncating
// conversion. Each comes as w | w << 16, one copy for each 16-bit half of a
// pixel's lane.
KV_TARGET_AVX512VBMI inline __m512i WeightsOfSixteen_AVX512VBMI(const double* columnTerm, __mmask16 lanes, __m512d row,
                                                                const WeightShape_AVX512VBMI& shape) {
  const __m512d one = _mm512_set1_pd(1.0);
  __m256i groups[2];
  __mmask16 full[2], inside[2], beyondMidpoint[2];
  for (int half = 0; half < 2; ++half) {
    const __mmask8 loaded = static_cast<__mmask8>(lanes >> (8 * half));
    groups[half] = _mm256_setzero_si256();
    full[half] = inside[half] = beyondMidpoint[half] = 0;
    if (loaded == 0) continue;
    const __m512d s = _mm512_add_pd(_mm512_maskz_loadu_pd(loaded, columnTerm + 8 * half), row);
    full[half] = _mm512_cmp_pd_mask(s, shape.fullSquared, _CMP_GE_OQ);
    inside[half] = _mm512_cmp_pd_mask(s, shape.untouched, _CMP_LE_OQ);
    // Groups wholly inside the midpoint or beyond the feather need no root.
    if (static_cast<__mmask8>(full[half] | inside[half] | ~loaded) == 0xFF) continue;
    const __m512d d = _mm512_sqrt_pd(s);
    __m512d u = one;
    if (shape.feathered) u = _mm512_min_pd(_mm512_div_pd(_mm512_sub_pd(d, shape.midpoint), shape.feather), one);
    const __m512d smooth =
        _mm512_mul_pd(_mm512_mul_pd(u, u), _mm512_sub_pd(_mm512_set1_pd(3.0), _mm512_mul_pd(_mm512_set1_pd(2.0), u)));
    groups[half] = _mm512_cvttpd_epi32(_mm512_mul_pd(_mm512_mul_pd(shape.amount, smooth), _mm512_set1_pd(256.0)));
    beyondMidpoint[half] = _mm512_cmp_pd_mask(d, shape.midpoint, _CMP_GT_OQ);
  }
  __m512i weight = _mm512_maskz_mov_epi32(_mm512_kunpackb(beyondMidpoint[1], beyondMidpoint[0]),
                                          _mm512_inserti64x4(_mm512_castsi256_si512(groups[0]), groups[1], 1));
  weight = _mm512_mask_mov_epi32(weight, _mm512_kunpackb(full[1], full[0]), shape.fullWeight);
  weight = _mm512_maskz_mov_epi32(_mm512_knot(_mm512_kunpackb(inside[1], inside[0])), weight);
  return _mm512_or_si512(weight, _mm512_slli_epi32(weight, 16));
}

// The weights of `count` columns of a row, stored.
KV_TARGET_AVX512VBMI void StoreRowWeights_AVX512VBMI(const double* columnTerm, size_t count, double row,
                                                     const WeightShape_AVX512VBMI& shape, int* weights) {
  const __m512d rowTerm = _mm512_set1_pd(row);
  for (size_t x = 0; x < count; x += 16) {
    const __mmask16 used = LanesUsed(std::min<size_t>(16, count - x));
    _mm512_mask_storeu_epi32(weights + x, used, WeightsOfSixteen_AVX512VBMI(columnTerm + x, used, rowTerm, shape));
  }
}

// What the mix of sixteen pixels needs in registers. Each pixel's 32-bit lane
// is worked on as two 16-bit halves, its even bytes (0 and 2) in one vector
// and its odd bytes (1 and 3) in another, so the byte order is only in these
// constants.
struct VignetteMix_AVX512VBMI {
  __m512i lumaEven;    // Rec601Luma's weights of bytes 0 and 2
  __m512i lumaOdd;     // and of bytes 1 and 3
  __m512i colourEven;  // the colour's bytes 0 and 2
  __m512i colourOdd;   // and 1 and 3
  __mmask64 alpha;     // the alpha byte of every pixel
  // The protection of every luminance at or above unprotectedBelow, which
  // fits a byte; below it the protection is 256.
  ByteTableRegisters protection;
  __m512i unprotectedBelow;  // times 256, in every 16-bit half
};

// Sixteen pixels mixed toward the colour by their weights (w | w << 16 per
// pixel): the luminance, protection and Mix256 of the per-pixel form. Every
// product stays within 16 bits: a byte times keep plus the colour times the
// opacity is at most 255 * 256, plus 128. Alpha is copied.
template <bool kProtect>
KV_TARGET_AVX512VBMI inline __m512i MixSixteen_AVX512VBMI(__m512i pixels, __m512i weights,
                                                          const VignetteMix_AVX512VBMI& mix) {
  const __m512i evenBytes = _mm512_and_si512(pixels, _mm512_set1_epi16(0xFF));
  const __m512i oddBytes = _mm512_srli_epi16(pixels, 8);
  __m512i opacity = weights;
  if (kProtect) {
    // 256 times the luminance in both halves: each half's weighted bytes,
    // then the two halves added to each other.
    const __m512i halves =
        _mm512_add_epi16(_mm512_mullo_epi16(evenBytes, mix.lumaEven), _mm512_mullo_epi16(oddBytes, mix.lumaOdd));
    const __m512i luma = _mm512_add_epi16(halves, _mm512_rol_epi32(halves, 16));
    // The protection p of the luminance (bytes 1 and 3) as p << 8 in both
    // halves, so the high half of weight * (p << 8) is (weight * p) >> 8;
    // where p is 256 the opacity is the weight.
    const __m512i protection =
        _mm512_and_si512(LookUpBytes_AVX512VBMI(luma, mix.protection), _mm512_set1_epi16(static_cast<short>(0xFF00)));
    opacity = _mm512_mask_mov_epi16(_mm512_mulhi_epu16(weights, protection),
                                    _mm512_cmplt_epu16_mask(luma, mix.unprotectedBelow), weights);
  }
  const __m512i keep = _mm512_sub_epi16(_mm512_set1_epi16(256), opacity);
  const __m512i half = _mm512_set1_epi16(128);
  const __m512i even = _mm512_srli_epi16(
      _mm512_add_epi16(_mm512_add_epi16(_mm512_mullo_epi16(evenBytes, keep), _mm512_mullo_epi16(mix.colourEven, opacity)),
                       half),
      8);
  const __m512i odd = _mm512_add_epi16(
      _mm512_add_epi16(_mm512_mullo_epi16(oddBytes, keep), _mm512_mullo_epi16(mix.colourOdd, opacity)), half);
  // even | (odd & 0xFF00): the odd result's byte is already in place.
  const __m512i mixed = _mm512_ternarylogic_epi32(even, odd, _mm512_set1_epi16(static_cast<short>(0xFF00)), 0xF8);
  return _mm512_mask_mov_epi8(mixed, mix.alpha, pixels);
}

// One step: `lanes` pixels mixed by their weights; sixteen whose weights are
// all 0 are copied.
template <bool kProtect>
KV_TARGET_AVX512VBMI inline void MixStep_AVX512VBMI(const unsigned char* in, unsigned char* out, __m512i weights,
                                                    size_t lanes, const VignetteMix_AVX512VBMI& mix) {
  if (lanes == 16) {
    const __m512i pixels = _mm512_loadu_si512(in);
    _mm512_storeu_si512(out, _mm512_test_epi32_mask(weights, weights) == 0
                                 ? pixels
                                 : MixSixteen_AVX512VBMI<kProtect>(pixels, weights, mix));
  } else {
    const __mmask16 used = LanesUsed(lanes);
    const __m512i pixels = _mm512_maskz_loadu_epi32(used, in);
    _mm512_mask_storeu_epi32(out, used, MixSixteen_AVX512VBMI<kProtect>(pixels, weights, mix));
  }
}

// Mixes the part's pixels, a stretch of a row, by the weights of their own
// columns, worked out step by step; `kept` (if not null) receives the
// weights.
template <bool kProtect>
KV_TARGET_AVX512VBMI void MixByColumns_AVX512VBMI(const PixelRun& part, const double* columnTerm, double row,
                                                  const WeightShape_AVX512VBMI& shape, int* kept,
                                                  const VignetteMix_AVX512VBMI& mix) {
  const __m512d rowTerm = _mm512_set1_pd(row);
  for (size_t k = 0; k < part.pixels; k += 16) {
    const size_t lanes = std::min<size_t>(16, part.pixels - k);
    const __mmask16 used = LanesUsed(lanes);
    const __m512i weights = WeightsOfSixteen_AVX512VBMI(columnTerm + k, used, rowTerm, shape);
    if (kept != nullptr) _mm512_mask_storeu_epi32(kept + k, used, weights);
    MixStep_AVX512VBMI<kProtect>(part.in + k * kBytesPerPixel, part.out + k * kBytesPerPixel, weights, lanes, mix);
  }
}

// Mixes the part's pixels, whose weights run backwards from `weights` (pixel
// k's is weights[-k]): a mirrored stretch of a row. The 15 ints before the lowest
// one read must belong to the buffer.
template <bool kProtect>
KV_TARGET_AVX512VBMI void MixByMirror_AVX512VBMI(const PixelRun& part, const int* weights,
                                                 const VignetteMix_AVX512VBMI& mix) {
  const __m512i reverse = _mm512_setr_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  for (size_t k = 0; k < part.pixels; k += 16) {
    const size_t lanes = std::min<size_t>(16, part.pixels - k);
    const __mmask16 read = static_cast<__mmask16>(LanesUsed(lanes) << (16 - lanes));
    const __m512i reversed = _mm512_permutexvar_epi32(reverse, _mm512_maskz_loadu_epi32(read, weights - k - 15));
    MixStep_AVX512VBMI<kProtect>(part.in + k * kBytesPerPixel, part.out + k * kBytesPerPixel, reversed, lanes, mix);
  }
}

// The run row by row, each row's pixels in order. Where a row is mirrored
// about the frame's centre, the weights of the columns before the mirror are
// kept and serve the mirrored columns too (read backwards), when they fit the
// buffer. A row wholly inside the midpoint is copied.
template <bool kProtect>
KV_TARGET_AVX512VBMI void VignetteRows_AVX512VBMI(const PixelRun& run, const VignetteArguments& arguments,
                                                  const WeightShape_AVX512VBMI& shape,
                                                  const VignetteMix_AVX512VBMI& mix) {
  const size_t kColumns = 4096;
  alignas(64) int buffer[16 + kColumns];
  int* const weights = buffer + 16;
  const size_t width = arguments.width;
  const double* const columnTerm = arguments.columnTerm;
  const ColumnMirror& mirror = arguments.mirror;
  const size_t first = static_cast<size_t>(run.out - arguments.origin) / kBytesPerPixel;
  size_t done = 0;
  while (done < run.pixels) {
    const size_t y = (first + done) / width, x0 = (first + done) % width;
    const size_t x1 = std::min(width, x0 + (run.pixels - done));
    const double row = arguments.rowTerm[y];
    PixelRun line = run.From(done);  // column x at line.From(x - x0)
    line.pixels = x1 - x0;
    done += x1 - x0;
    // Column terms fall toward the centre and rise after it, so the largest
    // of a stretch is at one of its ends.
    if (std::max(columnTerm[x0], columnTerm[x1 - 1]) + row <= arguments.shape.untouched) {
      if (line.in != line.out) std::memcpy(line.out, line.in, line.pixels * kBytesPerPixel);
      continue;
    }
    // Columns [x0, directEnd) and [far, x1) take their own weights, the
    // mirrored ones [mirroredStart, mirroredEnd) those of sum - x, which lie
    // in [from, to).
    const size_t directEnd = std::min(x1, mirror.first);
    const size_t mirroredStart = std::max(x0, mirror.first), mirroredEnd = std::min(x1, mirror.end);
    const size_t far = std::max(x0, mirror.end);
    const bool mirrored = mirroredStart < mirroredEnd;
    size_t from = x0, to = x0;
    if (mirrored) {
      from = mirror.sum + 1 - mirroredEnd;
      to = mirror.sum + 1 - mirroredStart;
      if (x0 < directEnd) {
        from = std::min(from, x0);
        to = std::max(to, directEnd);
      }
    }
    if (!mirrored || to - from > kColumns) {
      MixByColumns_AVX512VBMI<kProtect>(line, columnTerm + x0, row, shape, nullptr, mix);
      continue;
    }
    if (x0 < directEnd) {
      StoreRowWeights_AVX512VBMI(columnTerm + from, x0 - from, row, shape, weights);
      MixByColumns_AVX512VBMI<kProtect>(PixelRun{line.in, line.out, directEnd - x0}, columnTerm + x0, row, shape,
                                        weights + (x0 - from), mix);
    }
    const size_t stored = x0 < directEnd ? directEnd : from;
    if (stored < to) StoreRowWeights_AVX512VBMI(columnTerm + stored, to - stored, row, shape, weights + (stored - from));
    const PixelRun mirroredPart = line.From(mirroredStart - x0);
    MixByMirror_AVX512VBMI<kProtect>(PixelRun{mirroredPart.in, mirroredPart.out, mirroredEnd - mirroredStart},
                                     weights + (mirror.sum - mirroredStart - from), mix);
    if (far < x1) MixByColumns_AVX512VBMI<kProtect>(line.From(far - x0), columnTerm + far, row, shape, nullptr, mix);
  }
}

// Sixteen pixels a step, the protection looked up in registers, the weights
// of each row as WeightsOfSixteen_AVX512VBMI gives them. Takes every pixel, or
// none when the protection table or the byte order is not what it handles.
KV_TARGET_AVX512VBMI size_t Vignette_AVX512VBMI(const PixelRun& run, const VignetteArguments& arguments) {
  const ChannelBytes at = arguments.at;
  if ((1u << at.blue | 1u << at.green | 1u << at.red | 1u << at.alpha) != 0xFu) return 0;
  // Protection falls with luminance: 256 (none) for the darkest ones, then
  // values that fit a byte.
  unsigned int unprotectedBelow = 0;
  while (unprotectedBelow < 256 && arguments.protection[unprotectedBelow] == 256) ++unprotectedBelow;
  alignas(64) unsigned char protection[256];
  for (unsigned int luma = 0; luma < 256; ++luma) {
    const int value = arguments.protection[luma];
    if (luma >= unprotectedBelow && (value < 0 || value > 255)) return 0;
    protection[luma] = static_cast<unsigned char>(luma < unprotectedBelow ? 255 : value);
  }
  int lumaWeight[4] = {0, 0, 0, 0}, colour[4] = {0, 0, 0, 0};
  lumaWeight[at.red] = 77;
  lumaWeight[at.green] = 150;
  lumaWeight[at.blue] = 29;
  colour[at.red] = arguments.colour.red;
  colour[at.green] = arguments.colour.green;
  colour[at.blue] = arguments.colour.blue;
  VignetteMix_AVX512VBMI mix;
  mix.lumaEven = _mm512_set1_epi32(lumaWeight[0] | lumaWeight[2] << 16);
  mix.lumaOdd = _mm512_set1_epi32(lumaWeight[1] | lumaWeight[3] << 16);
  mix.colourEven = _mm512_set1_epi32(colour[0] | colour[2] << 16);
  mix.colourOdd = _mm512_set1_epi32(colour[1] | colour[3] << 16);
  mix.alpha = 0x1111111111111111ULL << at.alpha;
  LoadByteTable_AVX512VBMI(protection, mix.protection);
  mix.unprotectedBelow = _mm512_set1_epi16(static_cast<short>(unprotectedBelow << 8));
  const VignetteShape& plain = arguments.shape;
  const WeightShape_AVX512VBMI shape = {_mm512_set1_pd(plain.untouched), _mm512_set1_pd(plain.fullSquared),
                                        _mm512_set1_pd(plain.midpoint),  _mm512_set1_pd(plain.feather),
                                        _mm512_set1_pd(plain.amount),    _mm512_set1_epi32(plain.fullWeight),
                                        plain.feather > 0.0};
  if (unprotectedBelow == 256) {
    VignetteRows_AVX512VBMI<false>(run, arguments, shape, mix);
  } else {
    VignetteRows_AVX512VBMI<true>(run, arguments, shape, mix);
  }
  _mm256_zeroupper();
  return run.pixels;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

const KernelRungs<VignetteKernel> kVignetteRungs = {Vignette_Plain, nullptr, nullptr, Vignette_AVX2,
                                                    Vignette_AVX512VBMI};

}  // namespace

// Strengths outside 0 .. 1 (a stage built directly) are clamped, NaN as 0.
VignetteRenderer::VignetteRenderer(const KVPixel8_RGB& colour, double amount, double midpoint, double roundness,
                                   double feather, double highlights, const kvo::maths::KVRect& bounds)
    : m_colour(colour),
      m_amount(UnitStrength(amount)),
      m_midpoint(UnitStrength(midpoint)),
      m_roundness(UnitStrength(roundness)),
      m_feather(UnitStrength(feather)),
      m_highlights(UnitStrength(highlights)),
      m_bounds(bounds),
      m_kernel(Vignette_Plain) {
  for (int luma = 0; luma < 256; ++luma) {
    m_protection[luma] = TruncateToInt((1.0 - m_highlights * luma / 255.0) * 256.0);
  }
}

void VignetteRenderer::Setup(KVAbstractImage* source) {
  const unsigned int width = source->Width(), height = source->Height();
  const VignetteFrame frame = FrameOf(m_bounds, m_roundness, width, height);
  m_columnTerm.assign(width, 0.0);
  m_rowTerm.assign(height, 0.0);
  m_kernel = ChooseKernel(kVignetteRungs);
  if (frame.axisX <= 0.0 || frame.axisY <= 0.0) return;  // an empty image
  for (unsigned int x = 0; x < width; ++x) {
    const double offset = (x + 0.5 - frame.centreX) / frame.axisX;
    m_columnTerm[x] = offset * offset;
  }
  for (unsigned int y = 0; y < height; ++y) {
    const double offset = (y + 0.5 - frame.centreY) / frame.axisY;
    m_rowTerm[y] = offset * offset;
  }
}

int VignetteRenderer::WeightAt(double s) const { return WeightOf(s, ShapeOf(m_amount, m_midpoint, m_feather)); }

int VignetteRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return static_cast<int>(source->BitsPerChannel());
  return RenderWith(m_kernel, source, destination, threadIndex, threadCount);
}

int VignetteRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderWith(Vignette_Plain, source, destination, threadIndex, threadCount);
}

int VignetteRenderer::Render8_AVX2(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                   unsigned char threadCount) {
  return RenderWith(Vignette_AVX2, source, destination, threadIndex, threadCount);
}

int VignetteRenderer::RenderWith(size_t (*kernel)(const PixelRun&, const VignetteArguments&),
                                 KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  const unsigned int width = source->Width();
  // Only the image Setup measured.
  if (width != m_columnTerm.size() || source->Height() != m_rowTerm.size()) return 0;
  const ShareRun share = PixelShare(width, source->Height(), threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  const PixelRun run = {PixelBytes(source) + share.start * kBytesPerPixel,
                        PixelBytes(destination) + share.start * kBytesPerPixel, share.count};
  const VignetteArguments arguments = {
      PixelBytes(destination), width,   m_columnTerm.data(),    m_rowTerm.data(),
      ShapeOf(m_amount, m_midpoint, m_feather), m_protection, m_colour, ChannelBytesOf(source),
      MirrorOf(FrameOf(m_bounds, m_roundness, width, source->Height()).centreX, width)};
  RunKernel(kernel, Vignette_Plain, run, arguments);
  return 0;
}

}  // namespace image
}  // namespace kvo
