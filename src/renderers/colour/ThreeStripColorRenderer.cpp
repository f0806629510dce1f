#include <immintrin.h>

#include <kvimage/colour.h>

#include "support/Assert.h"
#include "support/CPUExtensions.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {

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

// The per-pixel arithmetic of the plain form eight pixels at a time (colour
// order blue, green, red, alpha). Returns the pixels done.
KV_TARGET_AVX2 size_t ThreeStripPixels_AVX2(const unsigned char* in, unsigned char* out, size_t count,
                                            const int* blueWeight, const int* greenWeight, const int* redWeight) {
  size_t k = 0;
  for (; k + 8 <= count; k += 8) {
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

}  // namespace

ThreeStripColorRenderer::ThreeStripColorRenderer(double a, double b, double c) : m_levelA(a), m_levelB(b), m_levelC(c) {}

ThreeStripColorRenderer::~ThreeStripColorRenderer() {}

unsigned int ThreeStripColorRenderer::Type() const { return 0; }

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
}

int ThreeStripColorRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA,
            "ThreeStripColorRenderer", 151, "false && \"Not implemented\"");
  if (UseAVX2()) {
    return Render8_AVX2(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex,
                        threadCount);
  }
  return Render8_CPP(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// Each colour byte is scaled by the sum of the other two channels' curve
// values, looked up by how far each channel stands above the mean of its two
// neighbours, and shifted right by 9, so a byte never exceeds 254
// (255 * 510 >> 9). The 9 is kept on purpose: it is that ceiling.
int ThreeStripColorRenderer::Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const int* blueWeight = m_blueWeight + 255;
  const int* greenWeight = m_greenWeight + 255;
  const int* redWeight = m_redWeight + 255;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const unsigned char alpha = in[i + kAlphaByte];
    const int blueCurve = blueWeight[blue - ((green + red) >> 1)];
    const int greenCurve = greenWeight[green - ((blue + red) >> 1)];
    const int redCurve = redWeight[red - ((blue + green) >> 1)];
    out[i + kBlueByte] = static_cast<unsigned char>((blue * (greenCurve + redCurve)) >> 9);
    out[i + kGreenByte] = static_cast<unsigned char>((green * (redCurve + blueCurve)) >> 9);
    out[i + kRedByte] = static_cast<unsigned char>((red * (blueCurve + greenCurve)) >> 9);
    out[i + kAlphaByte] = alpha;
  }
  return 0;
}

// Whole groups of eight pixels through the wide form; the plain form's loop
// on the rest of the share.
int ThreeStripColorRenderer::Render8_AVX2(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                          unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const int* blueWeight = m_blueWeight + 255;
  const int* greenWeight = m_greenWeight + 255;
  const int* redWeight = m_redWeight + 255;
  const size_t done =
      ThreeStripPixels_AVX2(in, out, share.count / kBytesPerPixel, blueWeight, greenWeight, redWeight);
  for (size_t i = done * kBytesPerPixel; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const int blue = in[i + kBlueByte], green = in[i + kGreenByte], red = in[i + kRedByte];
    const unsigned char alpha = in[i + kAlphaByte];
    const int blueCurve = blueWeight[blue - ((green + red) >> 1)];
    const int greenCurve = greenWeight[green - ((blue + red) >> 1)];
    const int redCurve = redWeight[red - ((blue + green) >> 1)];
    out[i + kBlueByte] = static_cast<unsigned char>((blue * (greenCurve + redCurve)) >> 9);
    out[i + kGreenByte] = static_cast<unsigned char>((green * (redCurve + blueCurve)) >> 9);
    out[i + kRedByte] = static_cast<unsigned char>((red * (blueCurve + greenCurve)) >> 9);
    out[i + kAlphaByte] = alpha;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
