#include <kvimage/blur.h>
#include <kvimage/compositing.h>

#include <immintrin.h>

#include "compositing/BlendOperations.h"
#include "renderers/blur/FocusBlur.h"
#include "support/ByteLookup.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

struct DiffuseArguments {
  const int* opacityOfAlpha;
  const unsigned char* opacityBytes;
};

namespace {

const FocusAssertionSites kDiffuseSites = {kAssertDiffuseFormat, kAssertDiffuseSetter, kAssertDiffuseRender};

typedef size_t (*DiffuseKernel)(const FocusRun&, const DiffuseArguments&);

// Each colour byte blended towards the blurred one, normal mode, by the
// blurred alpha's opacity; alpha copied from the source.
size_t Diffuse_Plain(const FocusRun& run, const DiffuseArguments& arguments) {
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const int opacity = arguments.opacityOfAlpha[run.blurred[i + kAlphaByte]];
    for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
      run.out[i + c] = static_cast<unsigned char>(BlendTowards(run.in[i + c], run.blurred[i + c], opacity));
    }
    run.out[i + kAlphaByte] = run.in[i + kAlphaByte];
  }
  return run.pixels;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#endif

// (step x opacity) >> 8 of signed 16-bit steps and opacities 0..255: bits 8..23
// of the 32-bit product, which holds the exact quotient (|step| <= 255).
KV_TARGET_AVX512VBMI inline __m512i StepTowards_AVX512VBMI(__m512i bottom, __m512i top, __m512i opacity) {
  const __m512i step = _mm512_sub_epi16(top, bottom);
  const __m512i low = _mm512_mullo_epi16(step, opacity), high = _mm512_mulhi_epi16(step, opacity);
  return _mm512_add_epi16(bottom, _mm512_or_si512(_mm512_slli_epi16(high, 8), _mm512_srli_epi16(low, 8)));
}

// Sixteen pixels at a time, the opacities looked up in registers; only with
// every opacity a byte (amount within 0 .. 1). Returns the pixels done.
KV_TARGET_AVX512VBMI size_t Diffuse_AVX512VBMI(const FocusRun& run, const DiffuseArguments& arguments) {
  ByteTableRegisters opacities;
  LoadByteTable_AVX512VBMI(arguments.opacityBytes, opacities);
  // The alpha byte of each pixel in all four of its bytes.
  const __m512i alphaOfPixel = _mm512_broadcast_i32x4(_mm_setr_epi8(3, 3, 3, 3, 7, 7, 7, 7, 11, 11, 11, 11, 15, 15, 15, 15));
  const __mmask64 alphaBytes = 0x8888888888888888ULL;
  const __m512i zero = _mm512_setzero_si512();
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i sharp = _mm512_loadu_si512(run.in + 64 * b);
    const __m512i blurred = _mm512_loadu_si512(run.blurred + 64 * b);
    const __m512i opacity = _mm512_shuffle_epi8(LookUpBytes_AVX512VBMI(blurred, opacities), alphaOfPixel);
    const __m512i first = StepTowards_AVX512VBMI(_mm512_unpacklo_epi8(sharp, zero), _mm512_unpacklo_epi8(blurred, zero),
                                                 _mm512_unpacklo_epi8(opacity, zero));
    const __m512i second = StepTowards_AVX512VBMI(_mm512_unpackhi_epi8(sharp, zero),
                                                  _mm512_unpackhi_epi8(blurred, zero), _mm512_unpackhi_epi8(opacity, zero));
    _mm512_storeu_si512(run.out + 64 * b, _mm512_mask_mov_epi8(_mm512_packus_epi16(first, second), alphaBytes, sharp));
  }
  _mm256_zeroupper();
  return blocks * 16;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

}  // namespace

DiffuseRenderer::DiffuseRenderer(unsigned int radius_, double amount_, double blurParameter_,
                                 KVDownsampleFactor factor_, kvo::KVLookupTables& tables_)
    : amount(amount_),
      factor(factor_),
      nestedBlur(new NestedColourBlur(tables_, factor_, radius_, blurParameter_)) {
  FillBlendOpacities(opacityOfAlpha, opacityBytes, amount);
  kernel = Diffuse_Plain;
}

void DiffuseRenderer::Setup(KVAbstractImage* image) {
  nestedBlur->RunIntoCopy(blurredImage, image, WholeImageBlurRect(image, factor), kDiffuseSites);
  kernel = OpacitiesAreBytes(opacityOfAlpha)
               ? ChooseKernel(KernelRungs<DiffuseKernel>{Diffuse_Plain, nullptr, nullptr, nullptr,
                                             Diffuse_AVX512VBMI})
               : Diffuse_Plain;
}

int DiffuseRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  return RenderFocusStage(*this, source, destination, threadIndex, threadCount, kDiffuseSites);
}

// The blurred copy lies over the sharp image with normal blending, weighted by
// its own alpha times the amount: a glow.
int DiffuseRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return ForEachFocusRun(source, blurredImage.get(), destination, threadIndex, threadCount,
                         [this](const FocusRun& run) {
                           const DiffuseArguments arguments = {opacityOfAlpha, opacityBytes};
                           const size_t done = kernel(run, arguments);
                           if (done < run.pixels) Diffuse_Plain(run.From(done), arguments);
                         });
}

}  // namespace image
}  // namespace kvo
