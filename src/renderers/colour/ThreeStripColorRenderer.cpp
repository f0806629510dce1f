#include <immintrin.h>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/PixelRun.h"
#include "support/AssertionSites.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// Each curve's weight by a channel's excess over its neighbours' mean, the
// pointers offset to excess 0.
struct ThreeStripArguments {
  const int* blueWeight;
  const int* greenWeight;
  const int* redWeight;
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

// Each colour byte is scaled by the sum of the other two channels' curve
// values, looked up by how far each channel stands above the mean of its two
// neighbours, and shifted right by 9, so a byte never exceeds 254
// (255 * 510 >> 9). The 9 is kept on purpose: it is that ceiling.
size_t ThreeStrip_Plain(const PixelRun& run, const ThreeStripArguments& arguments) {
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const int blue = run.in[i + kBlueByte], green = run.in[i + kGreenByte], red = run.in[i + kRedByte];
    const unsigned char alpha = run.in[i + kAlphaByte];
    const int blueCurve = arguments.blueWeight[blue - ((green + red) >> 1)];
    const int greenCurve = arguments.greenWeight[green - ((blue + red) >> 1)];
    const int redCurve = arguments.redWeight[red - ((blue + green) >> 1)];
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

// Reads the weights of eight excesses (table pointers offset to excess 0)
// with scalar loads, which beat gathers on processors that microcode them.
KV_TARGET_AVX2 inline __m256i WeightLanes(const int* weight, __m256i excess) {
  alignas(32) int at[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(at), excess);
  return _mm256_setr_epi32(weight[at[0]], weight[at[1]], weight[at[2]], weight[at[3]], weight[at[4]], weight[at[5]],
                           weight[at[6]], weight[at[7]]);
}

// The per-pixel arithmetic of the plain kernel eight pixels at a time (colour
// order blue, green, red, alpha). Returns the pixels done.
KV_TARGET_AVX2 size_t ThreeStrip_AVX2(const PixelRun& run, const ThreeStripArguments& arguments) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const int* blueWeight = arguments.blueWeight;
  const int* greenWeight = arguments.greenWeight;
  const int* redWeight = arguments.redWeight;
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

const KernelRungs<ThreeStripKernel> kThreeStripRungs = {ThreeStrip_Plain, nullptr, nullptr, ThreeStrip_AVX2};

}  // namespace

// Each pixel alone, every kernel giving the plain one's bytes.
StageNeeds NeedsOf(const ThreeStripColorRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const ThreeStripColorRenderer& self = static_cast<ThreeStripColorRenderer&>(base);
                      RunKernel(self.m_kernel, ThreeStrip_Plain, RunOf(block),
                                ThreeStripArguments{self.m_blueWeight + 255, self.m_greenWeight + 255,
                                                    self.m_redWeight + 255});
                    }};
}

ThreeStripColorRenderer::ThreeStripColorRenderer(double a, double b, double c)
    : m_levelA(a), m_levelB(b), m_levelC(c), m_kernel(ThreeStrip_Plain) {}

void ThreeStripColorRenderer::Setup(KVAbstractImage*) {
  BuildCurve(m_levelA, m_curveA);
  BuildCurve(m_levelB, m_curveB);
  BuildCurve(m_levelC, m_curveC);
  // Blue's excess indexes curve C, green's curve B, red's curve A; the
  // render loop looks each one up by the unclamped excess.
  for (int excess = -255; excess <= 255; ++excess) {
    const int inverted = 255 - ClampToByte(excess);
    m_blueWeight[excess + 255] = m_curveC[inverted];
    m_greenWeight[excess + 255] = m_curveB[inverted];
    m_redWeight[excess + 255] = m_curveA[inverted];
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
  RunKernel(kernel, ThreeStrip_Plain, run, ThreeStripArguments{m_blueWeight + 255, m_greenWeight + 255, m_redWeight + 255});
  return 0;
}

}  // namespace image
}  // namespace kvo
