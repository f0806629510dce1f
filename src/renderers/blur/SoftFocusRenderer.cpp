#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include <immintrin.h>

#include <cstdint>

#include "compositing/BlendOperations.h"
#include "compositing/BlendVectors.h"
#include "renderers/blur/FocusBlur.h"
#include "support/ByteLookup.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

struct SoftFocusArguments {
  KVBlendMode mode;
  kvo::KVLookupTables& tables;
  const int* opacityOfAlpha;
  const unsigned char* opacityBytes;
};

namespace {

const FocusAssertionSites kSoftFocusSites = {kAssertSoftFocusFormat, kAssertSoftFocusSetter, kAssertSoftFocusRender};

typedef size_t (*SoftFocusKernel)(const FocusRun&, const SoftFocusArguments&);

// Replace writes the blurred byte whole, whatever the opacity; every other
// mode moves the sharp byte towards its result by the opacity.
struct ReplaceWhole {
  static int Blend(kvo::KVLookupTables&, int, int top, int) { return top; }
};

template <class Operation>
struct BlendByOpacity {
  static int Blend(kvo::KVLookupTables& tables, int bottom, int top, int opacity) {
    return BlendTowards(bottom, Operation::Apply(tables, top, bottom), opacity);
  }
};

template <class Action>
struct BlendByOpacityAction {
  Action& action;
  template <class Operation>
  size_t Run() {
    return action.template Run<BlendByOpacity<Operation> >();
  }
};

// Calls action.Run<Blend>() with the blend of mode, as the per-pixel blend of
// two bytes chooses it (every mode outside the list blends as normal does).
template <class Action>
size_t DispatchSoftFocusBlend(KVBlendMode mode, Action& action) {
  if (mode == kBlendReplace) return action.template Run<ReplaceWhole>();
  BlendByOpacityAction<Action> byOpacity = {action};
  return DispatchBlendMode(mode, byOpacity);
}

// The blended colour laid over the destination with the source alpha as
// coverage; the destination's alpha shows through where the source is clear.
// The un-premultiplication is single precision, one rounding at a time.
template <class Blend>
size_t SoftFocusPixels_Plain(const FocusRun& run, const SoftFocusArguments& arguments) {
  kvo::KVLookupTables& tables = arguments.tables;
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const unsigned char* in = run.in + i;
    const unsigned char* blurred = run.blurred + i;
    unsigned char* out = run.out + i;
    const unsigned char sourceAlpha = in[kAlphaByte];
    const unsigned char destinationAlpha = out[kAlphaByte];
    const unsigned char combinedAlpha = tables.AlphaChannelBlend(destinationAlpha, sourceAlpha);
    if (combinedAlpha == 0) continue;
    const int opacity = arguments.opacityOfAlpha[blurred[kAlphaByte]];
    const float inverse = tables.Invert(combinedAlpha);
    const float destinationWeight = static_cast<float>(255 - sourceAlpha) * tables.DivideBy255(destinationAlpha);
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      const int blended = Blend::Blend(tables, in[c], blurred[c], opacity);
      // Widened: a NaN amount makes the blend's result huge.
      const float covered = static_cast<float>(static_cast<int64_t>(sourceAlpha) * blended);
      const float value = (covered + static_cast<float>(out[c]) * destinationWeight) * inverse;
      out[c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value)));
    }
    out[kAlphaByte] = combinedAlpha;
  }
  return run.pixels;
}

struct PlainPixels {
  const FocusRun& run;
  const SoftFocusArguments& arguments;
  template <class Blend>
  size_t Run() {
    return SoftFocusPixels_Plain<Blend>(run, arguments);
  }
};

// The blend mode chosen once for the whole run.
size_t SoftFocus_Plain(const FocusRun& run, const SoftFocusArguments& arguments) {
  PlainPixels pixels = {run, arguments};
  return DispatchSoftFocusBlend(arguments.mode, pixels);
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

// The blends on sixteen 32-bit lanes of bytes, opacities 0 .. 255: the step
// times the opacity fits 32 bits and shifts as the plain blend shifts it.
template <class Blend>
struct VectorSoftFocusBlend;

template <>
struct VectorSoftFocusBlend<ReplaceWhole> {
  static KV_TARGET_AVX512VBMI __m512i Apply(kvo::KVLookupTables&, __m512i, __m512i top, __m512i) { return top; }
};

template <class Operation>
struct VectorSoftFocusBlend<BlendByOpacity<Operation> > {
  static KV_TARGET_AVX512VBMI __m512i Apply(kvo::KVLookupTables& tables, __m512i bottom, __m512i top,
                                            __m512i opacity) {
    const __m512i result = VectorBlend512<Operation>::Apply(tables, top, bottom);
    const __m512i step = _mm512_mullo_epi32(_mm512_sub_epi32(result, bottom), opacity);
    return _mm512_add_epi32(bottom, _mm512_srai_epi32(step, 8));
  }
};

// Sixteen pixels at a time, one pixel in each 32-bit lane: the combined alpha
// in integers, the reciprocals as the tables' own single-precision divisions,
// then the plain pass's float operations in its order. Only with every
// opacity a byte (amount within 0 .. 1). Returns the pixels done.
template <class Blend>
KV_TARGET_AVX512VBMI size_t SoftFocusPixels_AVX512VBMI(const FocusRun& run, const SoftFocusArguments& arguments) {
  ByteTableRegisters opacities;
  LoadByteTable_AVX512VBMI(arguments.opacityBytes, opacities);
  const __m512i byteMask = _mm512_set1_epi32(255);
  const __m512i zero = _mm512_setzero_si512();
  const __m512 one = _mm512_set1_ps(1.0f), f255 = _mm512_set1_ps(255.0f);
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i sharp = _mm512_loadu_si512(run.in + 64 * b);
    const __m512i blurred = _mm512_loadu_si512(run.blurred + 64 * b);
    const __m512i under = _mm512_loadu_si512(run.out + 64 * b);
    const __m512i sourceAlpha = _mm512_srli_epi32(sharp, 24);
    const __m512i destinationAlpha = _mm512_srli_epi32(under, 24);
    const __m512i combinedAlpha = _mm512_sub_epi32(_mm512_add_epi32(destinationAlpha, sourceAlpha),
                                                   blendvec::Multiply(destinationAlpha, sourceAlpha));
    const __mmask16 covered = _mm512_cmpneq_epi32_mask(combinedAlpha, zero);
    if (covered == 0) continue;
    const __m512i opacity = _mm512_srli_epi32(LookUpBytes_AVX512VBMI(blurred, opacities), 24);
    const __m512 inverse = _mm512_div_ps(one, _mm512_cvtepi32_ps(combinedAlpha));
    const __m512 destinationWeight =
        _mm512_mul_ps(_mm512_cvtepi32_ps(_mm512_sub_epi32(byteMask, sourceAlpha)),
                      _mm512_div_ps(_mm512_cvtepi32_ps(destinationAlpha), f255));
    __m512i result = _mm512_slli_epi32(combinedAlpha, 24);
    for (int shift = 0; shift < 24; shift += 8) {
      const __m512i bottom = _mm512_and_si512(_mm512_srli_epi32(sharp, static_cast<unsigned int>(shift)), byteMask);
      const __m512i top = _mm512_and_si512(_mm512_srli_epi32(blurred, static_cast<unsigned int>(shift)), byteMask);
      const __m512i old = _mm512_and_si512(_mm512_srli_epi32(under, static_cast<unsigned int>(shift)), byteMask);
      const __m512i blended = VectorSoftFocusBlend<Blend>::Apply(arguments.tables, bottom, top, opacity);
      const __m512 coverage = _mm512_cvtepi32_ps(_mm512_mullo_epi32(sourceAlpha, blended));
      const __m512 value =
          _mm512_mul_ps(_mm512_add_ps(coverage, _mm512_mul_ps(_mm512_cvtepi32_ps(old), destinationWeight)), inverse);
      const __m512i byte = _mm512_min_epi32(_mm512_max_epi32(_mm512_cvttps_epi32(value), zero), byteMask);
      result = _mm512_or_si512(result, _mm512_slli_epi32(byte, static_cast<unsigned int>(shift)));
    }
    _mm512_mask_storeu_epi32(run.out + 64 * b, covered, result);
  }
  _mm256_zeroupper();
  return blocks * 16;
}

struct WidestPixels {
  const FocusRun& run;
  const SoftFocusArguments& arguments;
  template <class Blend>
  KV_TARGET_AVX512VBMI size_t Run() {
    return SoftFocusPixels_AVX512VBMI<Blend>(run, arguments);
  }
};

KV_TARGET_AVX512VBMI size_t SoftFocus_AVX512VBMI(const FocusRun& run, const SoftFocusArguments& arguments) {
  WidestPixels pixels = {run, arguments};
  return DispatchSoftFocusBlend(arguments.mode, pixels);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace

SoftFocusRenderer::SoftFocusRenderer(KVBlendMode mode_, unsigned int radius_, double amount_,
                                     const kvo::maths::KVRect& rect_, double blurParameter_, KVDownsampleFactor factor_,
                                     kvo::KVLookupTables& tables_)
    : mode(mode_),
      amount(amount_),
      rect(rect_),
      tables(tables_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {
  FillBlendOpacities(opacityOfAlpha, opacityBytes, amount);
  kernel = SoftFocus_Plain;
}

// The caller's rectangle is in the image's own pixels: the factor scales only
// the radius.
void SoftFocusRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->RunIntoCopy(blurredImage, image, rect, kSoftFocusSites);
  kernel = OpacitiesAreBytes(opacityOfAlpha)
               ? ChooseKernel(KernelRungs<SoftFocusKernel>{SoftFocus_Plain, nullptr, nullptr, nullptr,
                                               SoftFocus_AVX512VBMI})
               : SoftFocus_Plain;
}

int SoftFocusRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kSoftFocusSites);
}

int SoftFocusRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                   unsigned char threadCount) {
  return ForEachFocusRun(source, blurredImage.get(), destination, threadIndex, threadCount,
                         [this](const FocusRun& run) {
                           const SoftFocusArguments arguments = {mode, tables, opacityOfAlpha, opacityBytes};
                           const size_t done = kernel(run, arguments);
                           if (done < run.pixels) SoftFocus_Plain(run.From(done), arguments);
                         });
}

}  // namespace image
}  // namespace kvo
