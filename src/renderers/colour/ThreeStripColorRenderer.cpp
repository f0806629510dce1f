#include <immintrin.h>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/PixelRun.h"
#include "support/AssertionSites.h"
#include "support/ByteLookup.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// Each curve's weight by a channel's excess over its neighbours' mean, 256
// bytes each: a negative excess weighs as excess 0 (see Setup).
struct ThreeStripArguments {
  const unsigned char* blueWeight;
  const unsigned char* greenWeight;
  const unsigned char* redWeight;
};

namespace {

typedef PixelKernel<ThreeStripArguments> ThreeStripKernel;

// Zero below the level l = trunc(level * 255) (as a byte), then a ramp of
// slope 256 / (256 - l) clamped to 255. The divisor is taken as a byte too, so
// a level of 0 divides by 0: the scale is infinite and the whole curve
// saturates at 255 (entry 0 included), a flat curve rather than the identity.
void BuildCurve(double level, int* curve) {
  const unsigned char start = static_cast<unsigned char>(TruncateToInt(level * 255.0));
  const unsigned char divisor = static_cast<unsigned char>(256 - start);
  if (divisor == 0) {
    for (int i = 0; i < 256; ++i) curve[i] = 255;
    return;
  }
  const double scale = 256.0 / divisor;
  for (int i = 0; i < 256; ++i) curve[i] = i < start ? 0 : ClampToByte(TruncateToInt((i - start) * scale));
}

// How far a channel stands above the floor of its neighbours' mean, as the
// weight tables index it: negative excesses weigh as 0.
inline int Excess(int channel, int neighbourSum) {
  const int excess = channel - (neighbourSum >> 1);
  return excess < 0 ? 0 : excess;
}

// Each colour byte is scaled by the sum of the other two channels' curve
// values, looked up by how far each channel stands above the mean of its two
// neighbours, and shifted right by 9, so a byte never exceeds 254
// (255 * 510 >> 9). The 9 is kept on purpose: it is that ceiling.
size_t ThreeStrip_Plain(const PixelRun& run, const ThreeStripArguments& arguments) {
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const int blue = run.in[i + kBlueByte], green = run.in[i + kGreenByte], red = run.in[i + kRedByte];
    const unsigned char alpha = run.in[i + kAlphaByte];
    const int blueCurve = arguments.blueWeight[Excess(blue, green + red)];
    const int greenCurve = arguments.greenWeight[Excess(green, blue + red)];
    const int redCurve = arguments.redWeight[Excess(red, blue + green)];
    run.out[i + kBlueByte] = static_cast<unsigned char>((blue * (greenCurve + redCurve)) >> 9);
    run.out[i + kGreenByte] = static_cast<unsigned char>((green * (redCurve + blueCurve)) >> 9);
    run.out[i + kRedByte] = static_cast<unsigned char>((red * (blueCurve + greenCurve)) >> 9);
    run.out[i + kAlphaByte] = alpha;
  }
  return run.pixels;
}

KV_TARGET_AVX2 inline __m256i ByteLanes(__m256i pixels, int shift) {
  return _mm256_and_si256(_mm256_srli_epi32(pixels, shift), _mm256_set1_epi32(255));
}

// Reads the weights of eight excesses with scalar loads, which beat gathers
// on processors that microcode them.
KV_TARGET_AVX2 inline __m256i WeightLanes(const unsigned char* weight, __m256i excess) {
  alignas(32) int at[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(at), _mm256_max_epi32(excess, _mm256_setzero_si256()));
  return _mm256_setr_epi32(weight[at[0]], weight[at[1]], weight[at[2]], weight[at[3]], weight[at[4]], weight[at[5]],
                           weight[at[6]], weight[at[7]]);
}

// The per-pixel arithmetic of the plain kernel eight pixels at a time (colour
// order blue, green, red, alpha). Returns the pixels done.
KV_TARGET_AVX2 size_t ThreeStrip_AVX2(const PixelRun& run, const ThreeStripArguments& arguments) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const unsigned char* blueWeight = arguments.blueWeight;
  const unsigned char* greenWeight = arguments.greenWeight;
  const unsigned char* redWeight = arguments.redWeight;
  size_t k = 0;
  for (; k + 8 <= run.pixels; k += 8) {
    const __m256i pixels = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + k * kBytesPerPixel));
    const __m256i blue = ByteLanes(pixels, 8 * kBlueByte), green = ByteLanes(pixels, 8 * kGreenByte),
                  red = ByteLanes(pixels, 8 * kRedByte);
    const __m256i blueCurve =
        WeightLanes(blueWeight, _mm256_sub_epi32(blue, _mm256_srli_epi32(_mm256_add_epi32(green, red), 1)));
    const __m256i greenCurve =
        WeightLanes(greenWeight, _mm256_sub_epi32(green, _mm256_srli_epi32(_mm256_add_epi32(blue, red), 1)));
    const __m256i redCurve =
        WeightLanes(redWeight, _mm256_sub_epi32(red, _mm256_srli_epi32(_mm256_add_epi32(blue, green), 1)));
    const __m256i byteMask = _mm256_set1_epi32(255);
    const __m256i newBlue =
        _mm256_and_si256(_mm256_srai_epi32(_mm256_mullo_epi32(blue, _mm256_add_epi32(greenCurve, redCurve)), 9),
                         byteMask);
    const __m256i newGreen =
        _mm256_and_si256(_mm256_srai_epi32(_mm256_mullo_epi32(green, _mm256_add_epi32(redCurve, blueCurve)), 9),
                         byteMask);
    const __m256i newRed =
        _mm256_and_si256(_mm256_srai_epi32(_mm256_mullo_epi32(red, _mm256_add_epi32(blueCurve, greenCurve)), 9),
                         byteMask);
    __m256i result = _mm256_and_si256(pixels, _mm256_set1_epi32(static_cast<int>(255u << (8 * kAlphaByte))));
    result = _mm256_or_si256(result, _mm256_slli_epi32(newBlue, 8 * kBlueByte));
    result = _mm256_or_si256(result, _mm256_slli_epi32(newGreen, 8 * kGreenByte));
    result = _mm256_or_si256(result, _mm256_slli_epi32(newRed, 8 * kRedByte));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + k * kBytesPerPixel), result);
  }
  return k;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The three weight tables in registers.
struct ThreeStripRegisters {
  ByteTableRegisters weight[3];  // blue, green, red
};

// Sixteen pixels of the plain kernel's arithmetic, kept in place (colour
// order blue, green, red, alpha). Each colour byte's neighbours are
// shuffled under it; the floor of their mean is the rounded-up mean less
// the odd bit, and the excess saturates at 0, which weighs as any negative
// excess. Each byte then looks up its own channel's table. The products go
// through 16-bit lanes, (blue, green) and (red, alpha) of each pixel, with
// the weight sums taken 128 times: a colour byte c <= 255 and a sum
// s <= 510 give mulhi(c, 128 s) = (c s) >> 9 exactly, and 128 s < 65536.
// Each sum is the pixel's three weights less the byte's own; the total
// (up to 765 x 128) wraps in 16 bits, but the difference it leaves fits, so
// the wrap cancels.
KV_TARGET_AVX512VBMI inline __m512i ThreeStripBlock_AVX512VBMI(__m512i pixels, const ThreeStripRegisters& tables) {
  // The byte shuffles index within 16-byte lanes: pixel j of a lane starts at
  // byte 4 j.
  const __m512i pixelStart = _mm512_set4_epi32(0x0C0C0C0C, 0x08080808, 0x04040404, 0);
  const __m512i firstNeighbour = _mm512_add_epi8(
      pixelStart, _mm512_set1_epi32(static_cast<int>((kGreenByte << (8 * kBlueByte)) | (kRedByte << (8 * kGreenByte)) |
                                                     (kBlueByte << (8 * kRedByte)) |
                                                     (static_cast<unsigned int>(kAlphaByte) << (8 * kAlphaByte)))));
  const __m512i secondNeighbour = _mm512_add_epi8(
      pixelStart, _mm512_set1_epi32(static_cast<int>((kRedByte << (8 * kBlueByte)) | (kBlueByte << (8 * kGreenByte)) |
                                                     (kGreenByte << (8 * kRedByte)) |
                                                     (static_cast<unsigned int>(kAlphaByte) << (8 * kAlphaByte)))));
  const __m512i first = _mm512_shuffle_epi8(pixels, firstNeighbour);
  const __m512i second = _mm512_shuffle_epi8(pixels, secondNeighbour);
  const __m512i oddBit = _mm512_and_si512(_mm512_xor_si512(first, second), _mm512_set1_epi8(1));
  const __m512i mean = _mm512_sub_epi8(_mm512_avg_epu8(first, second), oddBit);
  const __m512i excess = _mm512_subs_epu8(pixels, mean);
  const __mmask64 greenBytes = 0x1111111111111111ull << kGreenByte, redBytes = 0x1111111111111111ull << kRedByte;
  __m512i weight = LookUpBytes_AVX512VBMI(excess, tables.weight[0]);
  weight = _mm512_mask_blend_epi8(greenBytes, weight, LookUpBytes_AVX512VBMI(excess, tables.weight[1]));
  weight = _mm512_mask_blend_epi8(redBytes, weight, LookUpBytes_AVX512VBMI(excess, tables.weight[2]));
  // 128 times each weight: blue and red in their lanes, green in its pixel's
  // first lane (the alpha byte's weight dropped).
  const __m512i lane = _mm512_set1_epi16(255 << 7);
  const __m512i blueRed = _mm512_and_si512(_mm512_slli_epi16(weight, 7), lane);
  const __m512i green = _mm512_and_si512(_mm512_srli_epi32(weight, 1), _mm512_set1_epi32(255 << 7));
  const __m512i partial = _mm512_add_epi16(blueRed, green);
  const __m512i total = _mm512_add_epi16(partial, _mm512_rol_epi32(partial, 16));
  const __m512i newBlueRed = _mm512_mulhi_epu16(_mm512_and_si512(pixels, _mm512_set1_epi16(255)),
                                                _mm512_sub_epi16(total, blueRed));
  const __m512i newGreen = _mm512_mulhi_epu16(_mm512_srli_epi16(pixels, 8), _mm512_sub_epi16(total, green));
  const __m512i result = _mm512_or_si512(newBlueRed, _mm512_slli_epi16(newGreen, 8));
  return _mm512_mask_blend_epi8(0x1111111111111111ull << kAlphaByte, result, pixels);
}

// The plain kernel sixteen pixels at a time, two blocks a step.
KV_TARGET_AVX512VBMI size_t ThreeStrip_AVX512VBMI(const PixelRun& run, const ThreeStripArguments& arguments) {
  ThreeStripRegisters tables;
  LoadByteTable_AVX512VBMI(arguments.blueWeight, tables.weight[0]);
  LoadByteTable_AVX512VBMI(arguments.greenWeight, tables.weight[1]);
  LoadByteTable_AVX512VBMI(arguments.redWeight, tables.weight[2]);
  const unsigned char* const in = run.in;
  unsigned char* const out = run.out;
  const size_t pixels = run.pixels;
  size_t k = 0;
  for (; k + 32 <= pixels; k += 32) {
    const unsigned char* from = in + k * kBytesPerPixel;
    unsigned char* to = out + k * kBytesPerPixel;
    const __m512i first = ThreeStripBlock_AVX512VBMI(_mm512_loadu_si512(from), tables);
    const __m512i second = ThreeStripBlock_AVX512VBMI(_mm512_loadu_si512(from + 64), tables);
    _mm512_storeu_si512(to, first);
    _mm512_storeu_si512(to + 64, second);
  }
  for (; k + 16 <= pixels; k += 16) {
    _mm512_storeu_si512(out + k * kBytesPerPixel,
                        ThreeStripBlock_AVX512VBMI(_mm512_loadu_si512(in + k * kBytesPerPixel), tables));
  }
  return k;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

const KernelRungs<ThreeStripKernel> kThreeStripRungs = {ThreeStrip_Plain, nullptr, nullptr, ThreeStrip_AVX2,
                                                        ThreeStrip_AVX512VBMI};

}  // namespace

// Each pixel alone, every kernel giving the plain one's bytes.
StageNeeds NeedsOf(const ThreeStripColorRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const ThreeStripColorRenderer& self = static_cast<ThreeStripColorRenderer&>(base);
                      RunKernel(self.m_kernel, ThreeStrip_Plain, RunOf(block),
                                ThreeStripArguments{self.m_blueWeight, self.m_greenWeight, self.m_redWeight});
                    }};
}

ThreeStripColorRenderer::ThreeStripColorRenderer(double a, double b, double c)
    : m_levelA(a), m_levelB(b), m_levelC(c), m_kernel(ThreeStrip_Plain) {}

void ThreeStripColorRenderer::Setup(KVAbstractImage*) {
  BuildCurve(m_levelA, m_curveA);
  BuildCurve(m_levelB, m_curveB);
  BuildCurve(m_levelC, m_curveC);
  // Blue's excess indexes curve C, green's curve B, red's curve A, each at
  // 255 less the excess clamped to a byte: every negative excess weighs as
  // excess 0, so the kernels clamp it there and look up 256 entries. A curve
  // holds bytes (0..255), so the weights are bytes too.
  for (int excess = 0; excess <= 255; ++excess) {
    m_blueWeight[excess] = static_cast<unsigned char>(m_curveC[255 - excess]);
    m_greenWeight[excess] = static_cast<unsigned char>(m_curveB[255 - excess]);
    m_redWeight[excess] = static_cast<unsigned char>(m_curveA[255 - excess]);
  }
  m_kernel = ChooseKernel(kThreeStripRungs);
}

int ThreeStripColorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  AssertBGRA8(source, kAssertThreeStripFormat);
  return RenderWith(m_kernel, source, destination, threadIndex, threadCount);
}

int ThreeStripColorRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  return RenderWith(ThreeStrip_Plain, source, destination, threadIndex, threadCount);
}

// Whole groups of eight pixels through the wide kernel, the rest through the
// plain one.
int ThreeStripColorRenderer::Render8_AVX2(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                          unsigned char threadCount) {
  return RenderWith(ThreeStrip_AVX2, source, destination, threadIndex, threadCount);
}

int ThreeStripColorRenderer::RenderWith(ThreeStripKernel kernel, KVAbstractImage* source,
                                        KVAbstractImage* destination, unsigned char threadIndex,
                                        unsigned char threadCount) {
  PixelRun run;
  if (!PlainPathShare(source, destination, threadIndex, threadCount, run)) return 0;
  RunKernel(kernel, ThreeStrip_Plain, run, ThreeStripArguments{m_blueWeight, m_greenWeight, m_redWeight});
  return 0;
}

}  // namespace image
}  // namespace kvo
