#ifndef KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H
#define KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H

#include <cstdint>
#include <cstring>

#include <kvimage/image.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

#include "compositing/BlendVectors.h"
#include "support/AssertionSites.h"
#include "support/ByteLookup.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// The result r(top, bottom) of each blend mode before opacity, one type per
// mode so that a loop over many pixels can be compiled for one mode.

// A plain integer sum, limited to 255. Summed unsigned so that host values
// outside 0..255 wrap instead of overflowing.
struct BlendAddOperation {
  static int Apply(kvo::KVLookupTables&, int top, int bottom) {
    const int sum = static_cast<int>(static_cast<uint32_t>(top) + static_cast<uint32_t>(bottom));
    return sum >= 256 ? 255 : sum;
  }
};

// Normal, and every mode without a curve of its own.
struct BlendTopOperation {
  static int Apply(kvo::KVLookupTables&, int top, int) { return top; }
};

typedef unsigned char (kvo::KVLookupTables::*BlendCurve)(unsigned char top, unsigned char bottom);

// A table curve on the low bytes of both operands.
template <BlendCurve Curve>
struct BlendCurveOperation {
  static int Apply(kvo::KVLookupTables& tables, int top, int bottom) {
    return (tables.*Curve)(static_cast<unsigned char>(top & 255), static_cast<unsigned char>(bottom & 255));
  }
};

// Calls action.Run<Operation>() with the operation of mode: add, the eleven
// curves, and the top value for normal, replace and every unknown mode, and
// returns what it returns. Callers that treat replace differently test for it
// first.
template <class Action>
auto DispatchBlendMode(KVBlendMode mode, Action& action) -> decltype(action.template Run<BlendTopOperation>()) {
  typedef kvo::KVLookupTables T;
  switch (static_cast<uint32_t>(mode)) {
    case kBlendAdd: return action.template Run<BlendAddOperation>();
    case kBlendColorBurn: return action.template Run<BlendCurveOperation<&T::ColorBurnBlend> >();
    case kBlendColorDodge: return action.template Run<BlendCurveOperation<&T::ColorDodgeBlend> >();
    case kBlendDarken: return action.template Run<BlendCurveOperation<&T::DarkenBlend> >();
    case kBlendDifference: return action.template Run<BlendCurveOperation<&T::DifferenceBlend> >();
    case kBlendExclusion: return action.template Run<BlendCurveOperation<&T::ExclusionBlend> >();
    case kBlendHardLight: return action.template Run<BlendCurveOperation<&T::HardLightBlend> >();
    case kBlendLighten: return action.template Run<BlendCurveOperation<&T::LightenBlend> >();
    case kBlendMultiply: return action.template Run<BlendCurveOperation<&T::MultiplyBlend> >();
    case kBlendOverlay: return action.template Run<BlendCurveOperation<&T::OverlayBlend> >();
    case kBlendScreen: return action.template Run<BlendCurveOperation<&T::ScreenBlend> >();
    case kBlendSoftLight: return action.template Run<BlendCurveOperation<&T::SoftLightBlend> >();
    default: return action.template Run<BlendTopOperation>();
  }
}

// VectorBlend<Operation>::Apply is Operation::Apply on the eight 32-bit lanes
// of an AVX2 register (values 0 .. 255). The primary template reads the table
// lane by lane, for the soft light curve, which has no integer form.
template <class Operation>
struct VectorBlend {
  static KV_TARGET_AVX2 __m256i Apply(kvo::KVLookupTables& tables, __m256i t, __m256i b) {
    return blendvec::ScalarLanes<Operation>(tables, t, b);
  }
};

template <>
struct VectorBlend<BlendAddOperation> {
  static KV_TARGET_AVX2 __m256i Apply(kvo::KVLookupTables&, __m256i t, __m256i b) {
    return _mm256_min_epi32(_mm256_add_epi32(t, b), _mm256_set1_epi32(255));
  }
};

template <>
struct VectorBlend<BlendTopOperation> {
  static KV_TARGET_AVX2 __m256i Apply(kvo::KVLookupTables&, __m256i t, __m256i) { return t; }
};

#define KV_VECTOR_CURVE(curve, expression)                                                \
  template <>                                                                             \
  struct VectorBlend<BlendCurveOperation<&kvo::KVLookupTables::curve> > {                 \
    static KV_TARGET_AVX2 __m256i Apply(kvo::KVLookupTables&, __m256i t, __m256i b) {    \
      return expression;                                                                  \
    }                                                                                     \
  };

KV_VECTOR_CURVE(DarkenBlend, _mm256_min_epi32(t, b))
KV_VECTOR_CURVE(LightenBlend, _mm256_max_epi32(t, b))
KV_VECTOR_CURVE(DifferenceBlend, _mm256_sub_epi32(_mm256_max_epi32(t, b), _mm256_min_epi32(t, b)))
KV_VECTOR_CURVE(MultiplyBlend, blendvec::Multiply(t, b))
KV_VECTOR_CURVE(ScreenBlend, blendvec::Screen(t, b))
KV_VECTOR_CURVE(ExclusionBlend,
                blendvec::RoundedQuotient255(_mm256_sub_epi32(_mm256_mullo_epi32(_mm256_add_epi32(t, b), _mm256_set1_epi32(255)),
                                                           _mm256_slli_epi32(_mm256_mullo_epi32(t, b), 1))))
KV_VECTOR_CURVE(HardLightBlend, blendvec::HardLight(t, b))
KV_VECTOR_CURVE(OverlayBlend, blendvec::HardLight(b, t))
KV_VECTOR_CURVE(ColorDodgeBlend, blendvec::ColorDodge(t, b))
KV_VECTOR_CURVE(ColorBurnBlend, blendvec::ColorBurn(t, b))

#undef KV_VECTOR_CURVE

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// VectorBlend<Operation> on the sixteen lanes of an AVX-512 register. The
// primary template runs the eight-lane form on each half; the modes the
// compositor's alpha path meets most have a sixteen-lane form of the same
// arithmetic.
template <class Operation>
struct VectorBlend512 {
  static KV_TARGET_AVX512VBMI __m512i Apply(kvo::KVLookupTables& tables, __m512i t, __m512i b) {
    const __m256i low =
        VectorBlend<Operation>::Apply(tables, _mm512_castsi512_si256(t), _mm512_castsi512_si256(b));
    const __m256i high =
        VectorBlend<Operation>::Apply(tables, _mm512_extracti64x4_epi64(t, 1), _mm512_extracti64x4_epi64(b, 1));
    return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
  }
};

template <>
struct VectorBlend512<BlendTopOperation> {
  static KV_TARGET_AVX512VBMI __m512i Apply(kvo::KVLookupTables&, __m512i t, __m512i) { return t; }
};

#define KV_VECTOR_CURVE_512(curve, expression)                                             \
  template <>                                                                             \
  struct VectorBlend512<BlendCurveOperation<&kvo::KVLookupTables::curve> > {              \
    static KV_TARGET_AVX512VBMI __m512i Apply(kvo::KVLookupTables&, __m512i t, __m512i b) { \
      return expression;                                                                  \
    }                                                                                     \
  };

KV_VECTOR_CURVE_512(MultiplyBlend, blendvec::Multiply(t, b))
KV_VECTOR_CURVE_512(ScreenBlend, blendvec::Screen(t, b))
KV_VECTOR_CURVE_512(HardLightBlend, blendvec::HardLight(t, b))
KV_VECTOR_CURVE_512(OverlayBlend, blendvec::HardLight(b, t))

#undef KV_VECTOR_CURVE_512

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// bottom + (((result - bottom) * opacity) >> 8): a signed 32-bit product with
// an arithmetic shift, so a negative step rounds toward minus infinity and an
// opacity of 255 stops one short of result. Computed in wrapping 32-bit
// arithmetic so that out-of-range host values cannot overflow.
inline int BlendTowards(int bottom, int result, int opacity) {
  const uint32_t step = static_cast<uint32_t>(result) - static_cast<uint32_t>(bottom);
  const int32_t product = static_cast<int32_t>(step * static_cast<uint32_t>(opacity));
  return static_cast<int32_t>(static_cast<uint32_t>(bottom) + static_cast<uint32_t>(product >> 8));
}

// An opacity or amount limited to 0 .. 1; NaN counts as 0.
inline double ClampedUnit(double value) { return value > 0.0 ? (value < 1.0 ? value : 1.0) : 0.0; }

// fa for each layer alpha: clamp(trunc(alpha * opacity), 0, 255). A NaN or
// out-of-range product comes out of the conversion clamped, so it composites
// as 0 (or full) instead of reaching the arithmetic.
inline void FillWeightedAlpha(double opacity, unsigned char (&weightedAlpha)[256]) {
  for (int alpha = 0; alpha < 256; ++alpha) {
    weightedAlpha[alpha] = static_cast<unsigned char>(ClampToByte(TruncateToInt(alpha * opacity)));
  }
}

// A layer that differs from the background in width, height, depth or channel
// order is a fatal programming error; `first` is the stage's width site, its
// height, depth and order sites follow it.
inline void AssertLayerMatchesBackground(const KVAbstractImage* layer, const KVAbstractImage* background,
                                         AssertionSite first) {
  AssertAt(layer->Width() == background->Width(), first);
  AssertAt(layer->Height() == background->Height(), static_cast<AssertionSite>(first + 1));
  AssertAt(layer->BitsPerChannel() == background->BitsPerChannel(), static_cast<AssertionSite>(first + 2));
  AssertAt(layer->PixelChannelOrder() == background->PixelChannelOrder(), static_cast<AssertionSite>(first + 3));
}

// A layer over the background: `pixels` pixels of each from the same place,
// the layer's weighted alphas and the tables.
struct LayerRun {
  const unsigned char* top;
  unsigned char* bottom;
  size_t pixels;
  const unsigned char* weightedAlpha;
  kvo::KVLookupTables& tables;

  LayerRun From(size_t first) const {
    return LayerRun{top + first * kBytesPerPixel, bottom + first * kBytesPerPixel, pixels - first, weightedAlpha,
                    tables};
  }
};

// The one signature of the compositing kernels: each returns the pixels it
// did, and the plain kernel finishes the rest.
typedef size_t (*LayerKernel)(const LayerRun& run);

inline void RunLayerKernel(LayerKernel kernel, LayerKernel plain, const LayerRun& run) {
  const size_t done = kernel(run);
  if (done < run.pixels) plain(run.From(done));
}

// Thread threadIndex's byte share of layer over background, cut at the
// smaller of the two buffers, through kernel and finished by plain.
inline void RunLayerKernelOnShare(LayerKernel kernel, LayerKernel plain, KVAbstractImage* layer,
                                  KVImage8* background, const unsigned char* weightedAlpha,
                                  kvo::KVLookupTables& tables, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share = ByteShare(background->Width(), background->Height(), threadIndex, threadCount,
                                   CommonByteSize(layer, background));
  if (share.count == 0) return;
  const LayerRun run = {PixelBytes(layer) + share.start, background->Buffer() + share.start,
                        share.count / kBytesPerPixel, weightedAlpha, tables};
  RunLayerKernel(kernel, plain, run);
}

// Colour-only: each colour byte moves towards r(layer, background) by fa/256;
// the background alpha is kept. fa = 0 leaves a pixel as it is in every mode
// this runs for (replace has its own kernels).
template <class Operation>
size_t ColourOnly_Plain(const LayerRun& run) {
  const unsigned char* layer = run.top;
  unsigned char* canvas = run.bottom;
  for (size_t p = 0; p < run.pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
    const int fa = run.weightedAlpha[layer[kAlphaByte]];
    if (fa == 0) continue;
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      const int blended = Operation::Apply(run.tables, layer[c], canvas[c]);
      canvas[c] = static_cast<unsigned char>(BlendTowards(canvas[c], blended, fa));
    }
  }
  return run.pixels;
}

// Eight pixels of the background and the layer from pixel p, and the
// layer's weighted alphas (fa).
struct EightPixels {
  unsigned char* canvas;
  __m256i under;
  __m256i over;
  __m256i weightedAlpha;
};

KV_TARGET_AVX2 inline EightPixels LoadEight(const LayerRun& run, size_t p) {
  const unsigned char* layer = run.top + p * kBytesPerPixel;
  const unsigned char* weightedAlpha = run.weightedAlpha;
  EightPixels eight;
  eight.canvas = run.bottom + p * kBytesPerPixel;
  eight.under = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(eight.canvas));
  eight.over = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(layer));
  eight.weightedAlpha =
      _mm256_setr_epi32(weightedAlpha[layer[3]], weightedAlpha[layer[7]], weightedAlpha[layer[11]],
                        weightedAlpha[layer[15]], weightedAlpha[layer[19]], weightedAlpha[layer[23]],
                        weightedAlpha[layer[27]], weightedAlpha[layer[31]]);
  return eight;
}

// Stores blend.Blend(eight) over each whole group of eight background pixels
// of the run. Returns the pixels done.
template <class EightBlend>
KV_TARGET_AVX2 inline size_t ForEachEight(const LayerRun& run, const EightBlend& blend) {
  size_t p = 0;
  for (; p + 8 <= run.pixels; p += 8) {
    const EightPixels eight = LoadEight(run, p);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(eight.canvas), blend.Blend(eight));
  }
  return p;
}

// Eight pixels at a time; fa = 0 needs no test, the step it gives is 0.
template <class Operation>
struct ColourOnlyEight {
  kvo::KVLookupTables& tables;

  KV_TARGET_AVX2 __m256i Blend(const EightPixels& eight) const {
    const __m256i byteMask = _mm256_set1_epi32(255);
    __m256i result = _mm256_andnot_si256(_mm256_set1_epi32(0x00FFFFFF), eight.under);
    for (int shift = 0; shift < 24; shift += 8) {
      const __m256i canvasByte = _mm256_and_si256(_mm256_srli_epi32(eight.under, shift), byteMask);
      const __m256i layerByte = _mm256_and_si256(_mm256_srli_epi32(eight.over, shift), byteMask);
      const __m256i blended = VectorBlend<Operation>::Apply(tables, layerByte, canvasByte);
      const __m256i step =
          _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(blended, canvasByte), eight.weightedAlpha), 8);
      const __m256i channel = _mm256_and_si256(_mm256_add_epi32(canvasByte, step), byteMask);
      result = _mm256_or_si256(result, _mm256_slli_epi32(channel, shift));
    }
    return result;
  }
};

template <class Operation>
KV_TARGET_AVX2 size_t ColourOnly_AVX2(const LayerRun& run) {
  return ForEachEight(run, ColourOnlyEight<Operation>{run.tables});
}

// The layer compositor's alpha path (an over-composite). The blend operand
// is the background colour weighted by its alpha, while the
// un-premultiplication weights the raw background colour; the arithmetic is
// single precision, one rounding at a time, as written.
//   kFillWhereClear: where the combined alpha is 0, copy the layer pixel
//                    (otherwise leave the background pixel alone);
//   kKeepWhereLayerClear: leave pixels whose weighted layer alpha is 0 exactly
//                    as they are, instead of taking them through the
//                    un-premultiplication, which moves some colours of a
//                    translucent background down one step.
template <bool kFillWhereClear, bool kKeepWhereLayerClear, class Operation>
size_t AlphaComposite_Plain(const LayerRun& run) {
  kvo::KVLookupTables& tables = run.tables;
  const unsigned char* layer = run.top;
  unsigned char* canvas = run.bottom;
  for (size_t p = 0; p < run.pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
    const unsigned char backgroundAlpha = canvas[kAlphaByte];
    const int fa = run.weightedAlpha[layer[kAlphaByte]];
    if (kKeepWhereLayerClear && fa == 0) continue;
    const unsigned char combinedAlpha = tables.AlphaChannelBlend(backgroundAlpha, static_cast<unsigned char>(fa));
    if (combinedAlpha == 0) {
      if (kFillWhereClear) std::memcpy(canvas, layer, kBytesPerPixel);
      continue;
    }
    const float inverse = tables.Invert(combinedAlpha);
    const float backgroundWeight = tables.DivideBy255(backgroundAlpha) * static_cast<float>(255 - fa);
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      const int operand = tables.AlphaBlend(canvas[c], backgroundAlpha);
      const int blended = Operation::Apply(tables, layer[c], operand);
      const float value =
          (static_cast<float>(blended * fa) + static_cast<float>(canvas[c]) * backgroundWeight) * inverse;
      canvas[c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value)));
    }
    canvas[kAlphaByte] = combinedAlpha;
  }
  return run.pixels;
}

// The same arithmetic eight pixels at a time, in the same single-precision
// order: the alpha tables' integer forms, 1 / combined by a correctly
// rounded division (the invert table's own definition), and a truncating
// conversion whose NaN and overflow result (the most negative integer)
// clamps to 0 like the plain kernel's. Returns the pixels done.
template <bool kFillWhereClear, bool kKeepWhereLayerClear, class Operation>
struct AlphaCompositeEight {
  kvo::KVLookupTables& tables;

  KV_TARGET_AVX2 __m256i Blend(const EightPixels& eight) const {
    const float* divideBy255 = tables.DivideBy255Table();
    const unsigned char* canvas = eight.canvas;
    const __m256i under = eight.under, over = eight.over, fa = eight.weightedAlpha;
    const __m256i byteMask = _mm256_set1_epi32(255);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i backgroundAlpha = _mm256_srli_epi32(under, 24);
    const __m256i combined =
        _mm256_sub_epi32(_mm256_add_epi32(backgroundAlpha, fa), blendvec::Multiply(backgroundAlpha, fa));
    const __m256i clear = _mm256_cmpeq_epi32(combined, zero);
    const __m256 inverse =
        _mm256_div_ps(_mm256_set1_ps(1.0f), _mm256_cvtepi32_ps(_mm256_max_epi32(combined, _mm256_set1_epi32(1))));
    const __m256 backgroundWeight = _mm256_mul_ps(
        _mm256_setr_ps(divideBy255[canvas[3]], divideBy255[canvas[7]], divideBy255[canvas[11]], divideBy255[canvas[15]],
                       divideBy255[canvas[19]], divideBy255[canvas[23]], divideBy255[canvas[27]],
                       divideBy255[canvas[31]]),
        _mm256_cvtepi32_ps(_mm256_sub_epi32(byteMask, fa)));
    __m256i result = _mm256_slli_epi32(combined, 24);
    for (int shift = 0; shift < 24; shift += 8) {
      const __m256i canvasByte = _mm256_and_si256(_mm256_srli_epi32(under, shift), byteMask);
      const __m256i layerByte = _mm256_and_si256(_mm256_srli_epi32(over, shift), byteMask);
      const __m256i operand = blendvec::Multiply(canvasByte, backgroundAlpha);
      const __m256i blended = VectorBlend<Operation>::Apply(tables, layerByte, operand);
      const __m256 value = _mm256_mul_ps(_mm256_add_ps(_mm256_cvtepi32_ps(_mm256_mullo_epi32(blended, fa)),
                                                       _mm256_mul_ps(_mm256_cvtepi32_ps(canvasByte), backgroundWeight)),
                                         inverse);
      const __m256i channel = _mm256_min_epi32(_mm256_max_epi32(_mm256_cvttps_epi32(value), zero), byteMask);
      result = _mm256_or_si256(result, _mm256_slli_epi32(channel, shift));
    }
    result = _mm256_blendv_epi8(result, kFillWhereClear ? over : under, clear);
    if (kKeepWhereLayerClear) result = _mm256_blendv_epi8(result, under, _mm256_cmpeq_epi32(fa, zero));
    return result;
  }
};

template <bool kFillWhereClear, bool kKeepWhereLayerClear, class Operation>
KV_TARGET_AVX2 size_t AlphaComposite_AVX2(const LayerRun& run) {
  return ForEachEight(run, AlphaCompositeEight<kFillWhereClear, kKeepWhereLayerClear, Operation>{run.tables});
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Byte `byte` of each 32-bit lane of v, in the low byte of the lane.
KV_TARGET_AVX512VBMI inline __m512i ByteOfEachLane(__m512i v, char byte) {
  const char none = -128;
  const __m128i select = _mm_setr_epi8(byte, none, none, none, static_cast<char>(4 + byte), none, none, none,
                                       static_cast<char>(8 + byte), none, none, none, static_cast<char>(12 + byte),
                                       none, none, none);
  return _mm512_shuffle_epi8(v, _mm512_broadcast_i32x4(select));
}

// Pixels from their blue, green, red and alpha values in the lanes of four
// registers, each value limited to 0 .. 255 on the way (the values are never
// negative nor beyond the 16-bit range, so the two saturating packs give the
// plain kernel's clamp). The packs leave each group of four pixels in its own
// 128-bit block, channel by channel; one shuffle interleaves them.
KV_TARGET_AVX512VBMI inline __m512i PackPixels(__m512i blue, __m512i green, __m512i red, __m512i alpha) {
  const __m512i bytes = _mm512_packus_epi16(_mm512_packus_epi32(blue, green), _mm512_packus_epi32(red, alpha));
  const __m512i interleave = _mm512_broadcast_i32x4(_mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
  return _mm512_shuffle_epi8(bytes, interleave);
}

// floor(n / 255) for 0 <= n < 65536 in each 32-bit lane (the multiply-shift
// of RoundedQuotient255 without its rounding term).
KV_TARGET_AVX512VBMI inline __m512i Quotient255(__m512i n) {
  return _mm512_srli_epi32(_mm512_mulhi_epu16(n, _mm512_set1_epi32(0x8081)), 7);
}

// The alpha path sixteen pixels at a time: the AVX2 kernel's arithmetic on
// sixteen lanes, the weighted alphas by a table lookup in registers, and
// 1 / 255 by the same division the table entries come from. Blocks whose
// bytes need less than that take a shorter way to the same bytes:
//   - every pixel kept as it is: fa = 0 over a background alpha of 0 (clear,
//     unless kFillWhereClear) or of 255 (see the next case with fa = 0), or
//     fa = 0 anywhere when kKeepWhereLayerClear;
//   - an opaque background (alpha 255 throughout): the operand is the
//     background colour c itself, the combined alpha is 255, the background
//     weight 255 - fa exactly and the inverse 1 / 255.0f, so each colour is
//     trunc(n * (1 / 255.0f)) of the exact integer n = r * fa + c * (255 - fa)
//     (r the blend result), which is n / 255 for every n up to 65535;
//   - fa = 255 throughout: the combined alpha is 255, the background weight
//     is 0, and the colour trunc((r * 255) * (1 / 255.0f)) = r.
template <bool kFillWhereClear, bool kKeepWhereLayerClear, class Operation>
KV_TARGET_AVX512VBMI size_t AlphaComposite_AVX512VBMI(const LayerRun& run) {
  kvo::KVLookupTables& tables = run.tables;
  ByteTableRegisters weightedAlpha;
  LoadByteTable_AVX512VBMI(run.weightedAlpha, weightedAlpha);
  const __m512i zero = _mm512_setzero_si512();
  const __m512i k255 = _mm512_set1_epi32(255);
  const __mmask16 all = 0xFFFF;
  // The run's fields in locals: the stores through the canvas could alias
  // them, which would reload them every block.
  const unsigned char* const layer = run.top;
  unsigned char* const background = run.bottom;
  const size_t pixels = run.pixels;
  size_t p = 0;
  for (; p + 16 <= pixels; p += 16) {
    unsigned char* canvas = background + p * kBytesPerPixel;
    const __m512i under = _mm512_loadu_si512(canvas);
    const __m512i over = _mm512_loadu_si512(layer + p * kBytesPerPixel);
    const __m512i fa = _mm512_srli_epi32(LookUpBytes_AVX512VBMI(over, weightedAlpha), 24);
    const __m512i backgroundAlpha = _mm512_srli_epi32(under, 24);
    const __mmask16 layerClear = _mm512_cmpeq_epi32_mask(fa, zero);
    const __mmask16 opaqueBackground = _mm512_cmpeq_epi32_mask(backgroundAlpha, k255);
    const __mmask16 clear = layerClear & _mm512_cmpeq_epi32_mask(backgroundAlpha, zero);
    const __mmask16 kept = kKeepWhereLayerClear
                               ? layerClear
                               : static_cast<__mmask16>((layerClear & opaqueBackground) | (kFillWhereClear ? 0 : clear));
    if (static_cast<__mmask16>(kept | clear) == all) {
      if (kFillWhereClear) _mm512_mask_storeu_epi32(canvas, static_cast<__mmask16>(clear & ~kept), over);
      continue;
    }
    __m512i result;
    if (opaqueBackground == all) {
      const __m512i weights = _mm512_or_si512(fa, _mm512_slli_epi32(_mm512_sub_epi32(k255, fa), 16));
      __m512i channel[3];
      for (int c = 0; c < 3; ++c) {
        const __m512i canvasByte = ByteOfEachLane(under, static_cast<char>(c));
        const __m512i blended = VectorBlend512<Operation>::Apply(tables, ByteOfEachLane(over, static_cast<char>(c)), canvasByte);
        channel[c] = Quotient255(_mm512_madd_epi16(_mm512_or_si512(blended, _mm512_slli_epi32(canvasByte, 16)), weights));
      }
      result = PackPixels(channel[0], channel[1], channel[2], k255);
    } else {
      const __m512i combined =
          _mm512_sub_epi32(_mm512_add_epi32(backgroundAlpha, fa), blendvec::Multiply(backgroundAlpha, fa));
      __m512i canvasByte[3], blended[3];
      for (int c = 0; c < 3; ++c) {
        canvasByte[c] = ByteOfEachLane(under, static_cast<char>(c));
        const __m512i operand = blendvec::Multiply(canvasByte[c], backgroundAlpha);
        blended[c] = VectorBlend512<Operation>::Apply(tables, ByteOfEachLane(over, static_cast<char>(c)), operand);
      }
      if (_mm512_cmpeq_epi32_mask(fa, k255) == all) {
        result = PackPixels(blended[0], blended[1], blended[2], k255);
      } else {
        const __m512 inverse = _mm512_div_ps(_mm512_set1_ps(1.0f),
                                             _mm512_cvtepi32_ps(_mm512_max_epi32(combined, _mm512_set1_epi32(1))));
        const __m512 divideBy255 = _mm512_div_ps(_mm512_cvtepi32_ps(backgroundAlpha), _mm512_set1_ps(255.0f));
        const __m512 backgroundWeight = _mm512_mul_ps(divideBy255, _mm512_cvtepi32_ps(_mm512_sub_epi32(k255, fa)));
        __m512i channel[3];
        for (int c = 0; c < 3; ++c) {
          const __m512 value =
              _mm512_mul_ps(_mm512_add_ps(_mm512_cvtepi32_ps(blendvec::SmallProduct(blended[c], fa)),
                                          _mm512_mul_ps(_mm512_cvtepi32_ps(canvasByte[c]), backgroundWeight)),
                            inverse);
          channel[c] = _mm512_cvttps_epi32(value);
        }
        result = PackPixels(channel[0], channel[1], channel[2], combined);
      }
    }
    if (kFillWhereClear) result = _mm512_mask_mov_epi32(result, clear, over);
    result = _mm512_mask_mov_epi32(result, kept, under);
    _mm512_storeu_si512(canvas, result);
  }
  _mm256_zeroupper();
  return p;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// The kernels of one blend mode, for DispatchBlendMode.
struct ColourOnlyRungs {
  template <class Operation>
  KernelRungs<LayerKernel> Run() {
    return KernelRungs<LayerKernel>{ColourOnly_Plain<Operation>, nullptr, nullptr, ColourOnly_AVX2<Operation>};
  }
};

template <bool kFillWhereClear, bool kKeepWhereLayerClear>
struct AlphaCompositeRungs {
  template <class Operation>
  KernelRungs<LayerKernel> Run() {
    return KernelRungs<LayerKernel>{AlphaComposite_Plain<kFillWhereClear, kKeepWhereLayerClear, Operation>, nullptr,
                                    nullptr, AlphaComposite_AVX2<kFillWhereClear, kKeepWhereLayerClear, Operation>,
                                    AlphaComposite_AVX512VBMI<kFillWhereClear, kKeepWhereLayerClear, Operation>};
  }
};

}  // namespace image
}  // namespace kvo

#endif
