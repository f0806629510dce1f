#include <kvimage/colour.h>

#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

namespace {

// The stretched range in 8-bit levels. Differences wrap in 32 bits as the
// processor's integer arithmetic does (only NaN bounds, INT_MIN, reach that).
struct StretchRange {
  int lo;
  int hi;
  int width;  // hi - lo + 1; 0 when high sits just below low
};

StretchRange RangeOf(double low, double high) {
  StretchRange range;
  range.lo = TruncateToInt(low * 255.0);
  range.hi = TruncateToInt(255.0 * high);
  range.width = static_cast<int>(static_cast<uint32_t>(range.hi) - static_cast<uint32_t>(range.lo) + 1u);
  return range;
}

int WrappingDifference(int a, int b) { return static_cast<int>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }

}  // namespace

SuperContrastRenderer::SuperContrastRenderer(double low, double high, KVChannelsToProcess channels,
                                             const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions), m_low(low), m_high(high), m_channels(channels), m_table() {}

SuperContrastRenderer::~SuperContrastRenderer() {}

unsigned int SuperContrastRenderer::Type() const { return 0; }

// Above hi 255, from lo to hi trunc((i - lo) * 256 / (hi - lo + 1)), below lo
// 0. With a zero width every level is above hi or below lo, so the scale is
// never needed.
void SuperContrastRenderer::Setup(KVAbstractImage*) {
  const StretchRange range = RangeOf(m_low, m_high);
  const double scale = range.width != 0 ? 256.0 / static_cast<double>(range.width) : 0.0;
  for (int i = 0; i < 256; ++i) {
    int value = 0;
    if (i > range.hi) {
      value = 255;
    } else if (i >= range.lo) {
      value = ClampToByte(TruncateToInt(static_cast<double>(WrappingDifference(i, range.lo)) * scale));
    }
    m_table[i] = static_cast<unsigned char>(value);
  }
}

int SuperContrastRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  RequireBlueGreenRedAlpha(source, "SuperContrastRenderer", 513);
  return m_extensions.sse2 ? Render8_SSE2(source, destination, threadIndex, threadCount)
                           : Render8_CPP(source, destination, threadIndex, threadCount);
}

int SuperContrastRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination,
                                       unsigned char threadIndex, unsigned char threadCount) {
  PixelRun run;
  if (PlainPathShare(source, destination, threadIndex, threadCount, run)) ApplyChannelTable(run, m_table, m_channels);
  return 0;
}

// Colour only (other selections take the plain path whole). The first
// pixels go through the table one by one until a multiple of 16 remains; the
// rest is stretched four pixels at a time in single precision and rounded to
// nearest, so it may be one above the truncating table. The alpha lane has
// bounds 0 and 255 and factor 1, and keeps its byte.
int SuperContrastRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination,
                                        unsigned char threadIndex, unsigned char threadCount) {
  if (m_channels != kChannelsColor) return Render8_CPP(source, destination, threadIndex, threadCount);
  PixelRun run;
  if (!VectorPathShare(source, destination, threadIndex, threadCount, run)) return 0;

  PixelRun leadIn = run;
  leadIn.pixels = run.pixels % 16;
  ApplyColourTables(leadIn, m_table, m_table, m_table);
  run.in += leadIn.pixels * kBytesPerPixel;
  run.out += leadIn.pixels * kBytesPerPixel;
  run.pixels -= leadIn.pixels;

  const StretchRange range = RangeOf(m_low, m_high);
  const float scale = range.width != 0 ? 256.0f / static_cast<float>(range.width) : 0.0f;
  const __m128i lower = _mm_setr_epi32(range.lo, range.lo, range.lo, 0);
  const __m128i upper = _mm_setr_epi32(range.hi, range.hi, range.hi, 255);
  const __m128 factor = _mm_setr_ps(scale, scale, scale, 1.0f);
  const __m128i full = _mm_set1_epi32(255);
  const __m128i zero = _mm_setzero_si128();
  // One pixel in four 32-bit lanes.
  const auto stretch = [=](__m128i x) {
    const __m128i scaled = _mm_cvtps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(_mm_sub_epi32(x, lower)), factor));
    const __m128i above = _mm_cmpgt_epi32(x, upper);
    const __m128i inRange = _mm_andnot_si128(_mm_cmplt_epi32(x, lower), scaled);
    return _mm_or_si128(_mm_andnot_si128(above, inRange), _mm_and_si128(above, full));
  };
  TransformBlocks(run, [=](__m128i block) {
    const __m128i first = _mm_unpacklo_epi8(block, zero), second = _mm_unpackhi_epi8(block, zero);
    const __m128i pixels01 = _mm_packs_epi32(stretch(_mm_unpacklo_epi16(first, zero)),
                                             stretch(_mm_unpackhi_epi16(first, zero)));
    const __m128i pixels23 = _mm_packs_epi32(stretch(_mm_unpacklo_epi16(second, zero)),
                                             stretch(_mm_unpackhi_epi16(second, zero)));
    return _mm_packus_epi16(pixels01, pixels23);
  });
  return 0;
}

}  // namespace image
}  // namespace kvo
