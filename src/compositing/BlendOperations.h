#ifndef KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H
#define KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H

#include <cstdint>
#include <cstring>

#include <kvimage/image.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

#include "compositing/BlendVectors.h"
#include "support/AssertionSites.h"
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
                                    nullptr, AlphaComposite_AVX2<kFillWhereClear, kKeepWhereLayerClear, Operation>};
  }
};

}  // namespace image
}  // namespace kvo

#endif
