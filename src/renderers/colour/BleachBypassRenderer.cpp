#include <kvimage/colour.h>
#include <kvimage/compositing.h>

#include <immintrin.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "renderers/colour/PixelRun.h"
#include "renderers/colour/Rec601Luma.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path, from tables built from the arguments only.
StageNeeds NeedsOf(const BleachBypassRenderer&) { return StageNeeds{nullptr, true}; }

namespace {

// The weight of 256 (0 .. 256) of a strength in 0 .. 1: trunc(strength * 256),
// NaN and anything below 0 as 0.
int WeightOf256(double strength) { return TruncateToInt(UnitStrength(strength) * 256.0); }

// (a * (256 - w) + b * w) / 256, rounded to nearest.
inline int Mix256(int a, int b, int weight) { return (a * (256 - weight) + b * weight + 128) >> 8; }

}  // namespace

struct BleachBypassArguments {
  const unsigned char* overlay;  // 256 x 256: [luminance * 256 + byte]
  const unsigned char* curve;
  int overlayWeight;  // the overlay's opacity, 0 .. 256
  int desaturationWeight;
  ChannelBytes at;
};

namespace {

size_t BleachBypass_Plain(const PixelRun& run, const BleachBypassArguments& arguments) {
  const ChannelBytes at = arguments.at;
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const unsigned char* curve = arguments.curve;
  const int desaturation = arguments.desaturationWeight;
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const int luma = Rec601Luma(in[i + at.red], in[i + at.green], in[i + at.blue]);
    const unsigned char* overlay = arguments.overlay + luma * 256;
    const int red = overlay[in[i + at.red]], green = overlay[in[i + at.green]], blue = overlay[in[i + at.blue]];
    const int washed = Rec601Luma(red, green, blue);
    const unsigned char alpha = in[i + at.alpha];
    out[i + at.red] = curve[Mix256(red, washed, desaturation)];
    out[i + at.green] = curve[Mix256(green, washed, desaturation)];
    out[i + at.blue] = curve[Mix256(blue, washed, desaturation)];
    out[i + at.alpha] = alpha;
  }
  return run.pixels;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// (n + 127) / 255 and the overlay curve in their exact integer forms (as in
// BlendVectors.h), on sixteen lanes.
KV_TARGET_AVX512VBMI inline __m512i RoundedQuotient255_512(__m512i n) {
  const __m512i rounded = _mm512_add_epi32(n, _mm512_set1_epi32(127));
  return _mm512_srli_epi32(_mm512_mulhi_epu16(rounded, _mm512_set1_epi32(0x8081)), 7);
}

KV_TARGET_AVX512VBMI inline __m512i Overlay_512(__m512i value, __m512i luma, __m512i opacity) {
  const __m512i k255 = _mm512_set1_epi32(255);
  const __m512i twice = _mm512_add_epi32(value, value);
  const __m512i low = RoundedQuotient255_512(_mm512_madd_epi16(twice, luma));
  const __m512i top = _mm512_sub_epi32(twice, k255);
  const __m512i screened = _mm512_sub_epi32(_mm512_madd_epi16(_mm512_add_epi32(top, luma), k255),
                                            _mm512_madd_epi16(top, luma));
  const __m512i hardLight =
      _mm512_mask_blend_epi32(_mm512_cmpgt_epi32_mask(twice, k255), low, RoundedQuotient255_512(screened));
  const __m512i step = _mm512_sub_epi32(hardLight, value);
  return _mm512_add_epi32(value, _mm512_srai_epi32(_mm512_mullo_epi32(step, opacity), 8));
}

KV_TARGET_AVX512VBMI inline __m512i Luma_512(__m512i red, __m512i green, __m512i blue) {
  const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(_mm512_mullo_epi32(red, _mm512_set1_epi32(77)),
                                                        _mm512_mullo_epi32(green, _mm512_set1_epi32(150))),
                                       _mm512_mullo_epi32(blue, _mm512_set1_epi32(29)));
  return _mm512_srli_epi32(sum, 8);
}

KV_TARGET_AVX512VBMI inline __m512i Mix_512(__m512i a, __m512i b, __m512i weight, __m512i keep) {
  return _mm512_srli_epi32(_mm512_add_epi32(_mm512_add_epi32(_mm512_mullo_epi32(a, keep), _mm512_mullo_epi32(b, weight)),
                                            _mm512_set1_epi32(128)),
                           8);
}

// Sixteen pixels at a time, each channel in a 32-bit lane: the overlay
// computed rather than read from its table (gathers cost more than the
// arithmetic), the same integers as the plain kernel, and the curve looked up
// in registers.
KV_TARGET_AVX512VBMI size_t BleachBypass_AVX512VBMI(const PixelRun& run, const BleachBypassArguments& arguments) {
  const ChannelBytes at = arguments.at;
  const __m128i redShift = _mm_cvtsi32_si128(static_cast<int>(at.red * 8));
  const __m128i greenShift = _mm_cvtsi32_si128(static_cast<int>(at.green * 8));
  const __m128i blueShift = _mm_cvtsi32_si128(static_cast<int>(at.blue * 8));
  const __m512i byteMask = _mm512_set1_epi32(0xFF);
  const __mmask64 alphaBytes = 0x1111111111111111ULL << at.alpha;
  const __m512i opacity = _mm512_set1_epi32(arguments.overlayWeight);
  const __m512i weight = _mm512_set1_epi32(arguments.desaturationWeight);
  const __m512i keep = _mm512_set1_epi32(256 - arguments.desaturationWeight);
  ByteTableRegisters curve;
  LoadByteTable_AVX512VBMI(arguments.curve, curve);
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i pixels = _mm512_loadu_si512(run.in + b * 64);
    const __m512i red = _mm512_and_si512(_mm512_srl_epi32(pixels, redShift), byteMask);
    const __m512i green = _mm512_and_si512(_mm512_srl_epi32(pixels, greenShift), byteMask);
    const __m512i blue = _mm512_and_si512(_mm512_srl_epi32(pixels, blueShift), byteMask);
    const __m512i luma = Luma_512(red, green, blue);
    const __m512i overRed = Overlay_512(red, luma, opacity);
    const __m512i overGreen = Overlay_512(green, luma, opacity);
    const __m512i overBlue = Overlay_512(blue, luma, opacity);
    const __m512i washed = Luma_512(overRed, overGreen, overBlue);
    const __m512i mixed = _mm512_or_si512(
        _mm512_or_si512(_mm512_sll_epi32(Mix_512(overRed, washed, weight, keep), redShift),
                        _mm512_sll_epi32(Mix_512(overGreen, washed, weight, keep), greenShift)),
        _mm512_sll_epi32(Mix_512(overBlue, washed, weight, keep), blueShift));
    const __m512i result = _mm512_mask_blend_epi8(alphaBytes, LookUpBytes_AVX512VBMI(mixed, curve), pixels);
    _mm512_storeu_si512(run.out + b * 64, result);
  }
  return blocks * 16;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

const KernelRungs<size_t (*)(const PixelRun&, const BleachBypassArguments&)> kBleachBypassRungs = {
    BleachBypass_Plain, nullptr, nullptr, nullptr, BleachBypass_AVX512VBMI};

}  // namespace

BleachBypassRenderer::BleachBypassRenderer(double amount, double desaturation, double contrast,
                                           kvo::KVLookupTables& tables)
    : m_amount(amount), m_desaturation(desaturation), m_contrast(contrast), m_tables(tables),
      m_desaturationWeight(0), m_kernel(BleachBypass_Plain) {
  // The overlay depends only on (luminance, byte) and the opacity: tabulated
  // once, through BlendPixel itself.
  const int opacity = WeightOf256(m_amount);
  for (int luma = 0; luma < 256; ++luma) {
    for (int value = 0; value < 256; ++value) {
      m_overlay[luma * 256 + value] =
          static_cast<unsigned char>(ClampToByte(BlendPixel(value, luma, kBlendOverlay, opacity, m_tables)));
    }
  }
  m_desaturationWeight = WeightOf256(m_desaturation);
  // S-curve about the middle grey: v + contrast * (255 * smoothstep(v / 255) - v).
  const double strength = UnitStrength(m_contrast);
  for (int value = 0; value < 256; ++value) {
    const double x = value / 255.0;
    const double s = 255.0 * (x * x * (3.0 - 2.0 * x));
    m_curve[value] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value + strength * (s - value) + 0.5)));
  }
}

int BleachBypassRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

void BleachBypassRenderer::Setup(KVAbstractImage*) { m_kernel = ChooseKernel(kBleachBypassRungs); }

int BleachBypassRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share = PixelShare(source->Width(), source->Height(), threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  RunKernel(m_kernel, BleachBypass_Plain, RunAt(source, destination, share.start, share.count),
            BleachBypassArguments{m_overlay, m_curve, WeightOf256(m_amount), m_desaturationWeight, ChannelBytesOf(source)});
  return 0;
}

}  // namespace image
}  // namespace kvo
