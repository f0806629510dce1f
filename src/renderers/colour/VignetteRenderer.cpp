#include <immintrin.h>

#include <algorithm>
#include <cmath>

#include <kvimage/colour.h>

#include "renderers/colour/PixelRun.h"
#include "renderers/colour/Rec601Luma.h"
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
};

namespace {

typedef PixelKernel<VignetteArguments> VignetteKernel;

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

const KernelRungs<VignetteKernel> kVignetteRungs = {Vignette_Plain, nullptr, nullptr, Vignette_AVX2};

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

// The frame's half-axes: the rectangle's half-width and half-height at
// roundness 0, both the smaller of the two at roundness 1. Each column and row
// keeps its squared offset from the centre in half-axes, measured at the pixel
// centre, so mirrored pixels get exactly the same distance.
void VignetteRenderer::Setup(KVAbstractImage* source) {
  const unsigned int width = source->Width(), height = source->Height();
  double left = 0.0, top = 0.0, frameWidth = width, frameHeight = height;
  if (m_bounds.Width() > 0 && m_bounds.Height() > 0) {
    left = m_bounds.TopLeft().X();
    top = m_bounds.TopLeft().Y();
    frameWidth = m_bounds.Width();
    frameHeight = m_bounds.Height();
  }
  const double halfWidth = frameWidth / 2.0, halfHeight = frameHeight / 2.0;
  const double circle = std::min(halfWidth, halfHeight);
  const double axisX = halfWidth + (circle - halfWidth) * m_roundness;
  const double axisY = halfHeight + (circle - halfHeight) * m_roundness;
  const double centreX = left + halfWidth, centreY = top + halfHeight;
  m_columnTerm.assign(width, 0.0);
  m_rowTerm.assign(height, 0.0);
  m_kernel = ChooseKernel(kVignetteRungs);
  if (axisX <= 0.0 || axisY <= 0.0) return;  // an empty image
  for (unsigned int x = 0; x < width; ++x) {
    const double offset = (x + 0.5 - centreX) / axisX;
    m_columnTerm[x] = offset * offset;
  }
  for (unsigned int y = 0; y < height; ++y) {
    const double offset = (y + 0.5 - centreY) / axisY;
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
  const VignetteArguments arguments = {PixelBytes(destination), width, m_columnTerm.data(), m_rowTerm.data(),
                                       ShapeOf(m_amount, m_midpoint, m_feather), m_protection, m_colour,
                                       ChannelBytesOf(source)};
  RunKernel(kernel, Vignette_Plain, run, arguments);
  return 0;
}

}  // namespace image
}  // namespace kvo
