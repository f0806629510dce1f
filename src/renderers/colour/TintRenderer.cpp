#include <immintrin.h>

#include <algorithm>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "renderers/colour/PixelRun.h"
#include "support/AssertionSites.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// What the tint kernels read: the plain path's two table levels, the vector
// path's targets by luminance and the keep factor it mixes with.
struct TintArguments {
  const unsigned short* blueTarget;
  const unsigned short* greenTarget;
  const unsigned short* redTarget;
  const unsigned char* mix;
  const unsigned char (*targetByLuminance)[256];
  double keep;
};

namespace {

// The tone table of a type, or null for grey and for the warm tone (every
// value not listed here).
const unsigned char (*ToneTableFor(KVTintType type))[3] {
  switch (static_cast<int>(type)) {
    case kTintBronze: return BronzeToneLT;
    case kTintCyanotype: return CyanotypeToneLT;
    case kTintEmerald: return EmeraldToneLT;
    case kTintGold: return GoldToneLT;
    case kTintPalladium: return PalladiumToneLT;
    case kTintPlatinum: return PlatinumToneLT;
    case kTintPlatinumPalladium: return PlatinumPalladiumToneLT;
    case kTintSelenium: return SeleniumToneLT;
    case kTintSilver: return SilverToneLT;
    default: return nullptr;
  }
}

// Rows of a tone table are red, green, blue.
enum : unsigned int { kToneRed = 0, kToneGreen = 1, kToneBlue = 2 };

// clamp(trunc((source - target) * keep + target))
inline unsigned char TowardTarget(int source, int target, double keep) {
  return static_cast<unsigned char>(ClampToByte(TruncateToInt((source - target) * keep + target)));
}

// Each pixel's colour sum picks its targets, each byte and its target the mix.
size_t Tint_Plain(const PixelRun& run, const TintArguments& arguments) {
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const unsigned int blue = run.in[i + kBlueByte], green = run.in[i + kGreenByte], red = run.in[i + kRedByte];
    const unsigned char alpha = run.in[i + kAlphaByte];
    const unsigned int sum = blue + green + red;
    const unsigned char newBlue = arguments.mix[arguments.blueTarget[sum] | blue];
    const unsigned char newGreen = arguments.mix[arguments.greenTarget[sum] | green];
    const unsigned char newRed = arguments.mix[arguments.redTarget[sum] | red];
    run.out[i + kBlueByte] = newBlue;
    run.out[i + kGreenByte] = newGreen;
    run.out[i + kRedByte] = newRed;
    run.out[i + kAlphaByte] = alpha;
  }
  return run.pixels;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// Eight bytes moved toward their targets in double precision, as
// TowardTarget computes one: clamp(trunc((byte - target) * keep + target)),
// where a NaN or a value beyond the int range truncates to INT_MIN (then 0).
KV_TARGET_AVX512VBMI inline __m256i TowardTarget_AVX512VBMI(__m256i bytes, __m256i targets, __m512d keep) {
  const __m512d moved = _mm512_add_pd(_mm512_mul_pd(_mm512_cvtepi32_pd(_mm256_sub_epi32(bytes, targets)), keep),
                                      _mm512_cvtepi32_pd(targets));
  const __m256i truncated = _mm512_cvttpd_epi32(moved);
  return _mm256_min_epi32(_mm256_max_epi32(truncated, _mm256_setzero_si256()), _mm256_set1_epi32(255));
}

// Sixteen lanes of one channel: the low eight and the high eight.
KV_TARGET_AVX512VBMI inline __m512i TowardTargets_AVX512VBMI(__m512i bytes, __m512i targets, __m512d keep) {
  const __m256i low = TowardTarget_AVX512VBMI(_mm512_castsi512_si256(bytes), _mm512_castsi512_si256(targets), keep);
  const __m256i high =
      TowardTarget_AVX512VBMI(_mm512_extracti64x4_epi64(bytes, 1), _mm512_extracti64x4_epi64(targets, 1), keep);
  return _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
}

// Sixteen pixels a step: the luminance floor(sum / 3) as (sum * 43691) >> 17
// (exact for every sum up to 765), the targets looked up by it in registers,
// the mix computed. Returns the pixels done.
KV_TARGET_AVX512VBMI size_t Tint_AVX512VBMI(const PixelRun& run, const TintArguments& arguments) {
  ByteTableRegisters targets[3];
  for (int c = 0; c < 3; ++c) LoadByteTable_AVX512VBMI(arguments.targetByLuminance[c], targets[c]);
  const __m512d keep = _mm512_set1_pd(arguments.keep);
  const __m512i byteMask = _mm512_set1_epi32(255);
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i pixels = _mm512_loadu_si512(run.in + 64 * b);
    const __m512i blue = _mm512_and_si512(pixels, byteMask);
    const __m512i green = _mm512_and_si512(_mm512_srli_epi32(pixels, 8), byteMask);
    const __m512i red = _mm512_and_si512(_mm512_srli_epi32(pixels, 16), byteMask);
    const __m512i sum = _mm512_add_epi32(_mm512_add_epi32(blue, green), red);
    const __m512i luminance = _mm512_srli_epi32(_mm512_mullo_epi32(sum, _mm512_set1_epi32(43691)), 17);
    const __m512i newBlue =
        TowardTargets_AVX512VBMI(blue, _mm512_and_si512(LookUpBytes_AVX512VBMI(luminance, targets[0]), byteMask), keep);
    const __m512i newGreen = TowardTargets_AVX512VBMI(
        green, _mm512_and_si512(LookUpBytes_AVX512VBMI(luminance, targets[1]), byteMask), keep);
    const __m512i newRed =
        TowardTargets_AVX512VBMI(red, _mm512_and_si512(LookUpBytes_AVX512VBMI(luminance, targets[2]), byteMask), keep);
    const __m512i alpha = _mm512_andnot_si512(_mm512_set1_epi32(0x00FFFFFF), pixels);
    const __m512i result = _mm512_or_si512(_mm512_or_si512(newBlue, _mm512_slli_epi32(newGreen, 8)),
                                           _mm512_or_si512(_mm512_slli_epi32(newRed, 16), alpha));
    _mm512_storeu_si512(run.out + 64 * b, result);
  }
  _mm256_zeroupper();
  return blocks * 16;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// One thread's byte share, whole pixels, through the kernel.
int RenderTintShare(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount,
                    PixelKernel<TintArguments> kernel, const TintArguments& arguments) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const PixelRun run{source->Buffer() + share.start, destination->Buffer() + share.start, share.count / kBytesPerPixel};
  RunKernel(kernel, Tint_Plain, run, arguments);
  return 0;
}

}  // namespace

// Each pixel alone, every kernel giving the plain one's bytes.
StageNeeds NeedsOf(const TintRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const TintRenderer& self = static_cast<TintRenderer&>(base);
                      RunKernel(self.m_kernel, Tint_Plain, RunOf(block),
                                TintArguments{self.m_blueTargetRow, self.m_greenTargetRow, self.m_redTargetRow,
                                              self.m_mix, self.m_targetByLuminance, self.m_keep});
                    }};
}

TintRenderer::TintRenderer(KVTintType type, double amount) : m_type(type), m_keep(1.0 - amount), m_kernel(Tint_Plain) {}

void TintRenderer::Setup(KVAbstractImage*) {
  for (int sum = 0; sum < 768; ++sum) m_luminance[sum] = static_cast<unsigned char>(TruncateToInt(sum / 3.0));
  for (int i = 0; i < 256; ++i) {
    m_warmBlue[i] = static_cast<unsigned char>(std::max(30, i - 33));
    m_warmGreen[i] = static_cast<unsigned char>(i > 235 ? 255 : std::max(30, i + 20));
    m_warmRed[i] = static_cast<unsigned char>(i < 203 ? i + 53 : 255);
  }

  // The render loop reads two tables per colour byte instead of converting:
  // the target of the pixel's colour sum, then the mix of that target with
  // the byte, computed here with exactly the per-pixel arithmetic.
  const unsigned char(*tone)[3] = ToneTableFor(m_type);
  for (int sum = 0; sum < 768; ++sum) {
    const unsigned char luminance = m_luminance[sum];
    int targetBlue, targetGreen, targetRed;
    if (m_type == kTintGrey) {
      targetBlue = targetGreen = targetRed = luminance;
    } else if (tone != nullptr) {
      targetBlue = tone[luminance][kToneBlue];
      targetGreen = tone[luminance][kToneGreen];
      targetRed = tone[luminance][kToneRed];
    } else {
      targetBlue = m_warmBlue[luminance];
      targetGreen = m_warmGreen[luminance];
      targetRed = m_warmRed[luminance];
    }
    m_blueTargetRow[sum] = static_cast<unsigned short>(targetBlue << 8);
    m_greenTargetRow[sum] = static_cast<unsigned short>(targetGreen << 8);
    m_redTargetRow[sum] = static_cast<unsigned short>(targetRed << 8);
    // Every luminance is some sum's (3 x luminance's).
    if (sum % 3 == 0) {
      m_targetByLuminance[0][luminance] = static_cast<unsigned char>(targetBlue);
      m_targetByLuminance[1][luminance] = static_cast<unsigned char>(targetGreen);
      m_targetByLuminance[2][luminance] = static_cast<unsigned char>(targetRed);
    }
  }
  for (int target = 0; target < 256; ++target) {
    for (int byte = 0; byte < 256; ++byte) m_mix[(target << 8) | byte] = TowardTarget(byte, target, m_keep);
  }
  m_kernel = ChooseKernel(KernelRungs<PixelKernel<TintArguments> >{Tint_Plain, nullptr, nullptr, nullptr,
                                                                   Tint_AVX512VBMI});
}

int TintRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                         unsigned char threadCount) {
  AssertBGRA8(source, kAssertTintFormat);
  return RenderTintShare(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex,
                         threadCount, m_kernel,
                         TintArguments{m_blueTargetRow, m_greenTargetRow, m_redTargetRow, m_mix, m_targetByLuminance,
                                       m_keep});
}

// Each pixel's luminance (the mean of its colour bytes, truncated) picks a
// target colour; every colour byte moves toward its target by the amount:
// clamp(trunc((byte - target) * keep + target)), read from the tables Setup
// built.
int TintRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderTintShare(source, destination, threadIndex, threadCount, Tint_Plain,
                         TintArguments{m_blueTargetRow, m_greenTargetRow, m_redTargetRow, m_mix, m_targetByLuminance,
                                       m_keep});
}

}  // namespace image
}  // namespace kvo
