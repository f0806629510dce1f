#include <kvimage/colour.h>

#include <immintrin.h>

#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

struct SuperContrastArguments {
  const unsigned char* table;
  KVChannelsToProcess channels;
  double low;
  double high;
  ByteTables formulaTables;  // the vector formula, tabulated in Setup
};

namespace {

typedef PixelKernel<SuperContrastArguments> SuperContrastKernel;

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

// The vector path's per-lane bounds and factors for one pixel (blue, green,
// red, alpha): alpha has bounds 0 and 255 and factor 1, so it keeps its byte.
struct StretchLanes {
  __m128i lower;
  __m128i upper;
  __m128 factor;
};

StretchLanes LanesOf(const StretchRange& range) {
  const float scale = range.width != 0 ? 256.0f / static_cast<float>(range.width) : 0.0f;
  StretchLanes lanes;
  lanes.lower = _mm_setr_epi32(range.lo, range.lo, range.lo, 0);
  lanes.upper = _mm_setr_epi32(range.hi, range.hi, range.hi, 255);
  lanes.factor = _mm_setr_ps(scale, scale, scale, 1.0f);
  return lanes;
}

size_t SuperContrast_Plain(const PixelRun& run, const SuperContrastArguments& arguments) {
  ApplyChannelTable(run, arguments.table, arguments.channels);
  return run.pixels;
}

// The colour bytes stretched in single precision and rounded to nearest, so
// a byte may be one above the truncating table; four pixels at a time. The
// alpha lane has bounds 0 and 255 and factor 1, and keeps its byte.
size_t SuperContrast_SSE2(const PixelRun& run, const SuperContrastArguments& arguments) {
  const StretchLanes lanes = LanesOf(RangeOf(arguments.low, arguments.high));
  const __m128i lower = lanes.lower, upper = lanes.upper;
  const __m128 factor = lanes.factor;
  const __m128i full = _mm_set1_epi32(255);
  const __m128i zero = _mm_setzero_si128();
  // One pixel in four 32-bit lanes.
  const auto stretch = [=](__m128i x) {
    const __m128i scaled = _mm_cvtps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(_mm_sub_epi32(x, lower)), factor));
    const __m128i above = _mm_cmpgt_epi32(x, upper);
    const __m128i inRange = _mm_andnot_si128(_mm_cmplt_epi32(x, lower), scaled);
    return _mm_or_si128(_mm_andnot_si128(above, inRange), _mm_and_si128(above, full));
  };
  return TransformBlocks(run, [=](__m128i block) {
    const __m128i first = _mm_unpacklo_epi8(block, zero), second = _mm_unpackhi_epi8(block, zero);
    const __m128i pixels01 = _mm_packs_epi32(stretch(_mm_unpacklo_epi16(first, zero)),
                                             stretch(_mm_unpackhi_epi16(first, zero)));
    const __m128i pixels23 = _mm_packs_epi32(stretch(_mm_unpacklo_epi16(second, zero)),
                                             stretch(_mm_unpackhi_epi16(second, zero)));
    return _mm_packus_epi16(pixels01, pixels23);
  });
}

// The same lanes, eight pixels at a time. Every unpack and pack works within
// a 128-bit half, so each half is exactly one SSE2 block.
KV_TARGET_AVX2 inline __m256i StretchLanes_AVX2(__m256i x, __m256i lower, __m256i upper, __m256 factor) {
  const __m256i scaled = _mm256_cvtps_epi32(_mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_sub_epi32(x, lower)), factor));
  const __m256i above = _mm256_cmpgt_epi32(x, upper);
  const __m256i inRange = _mm256_andnot_si256(_mm256_cmpgt_epi32(lower, x), scaled);
  return _mm256_or_si256(_mm256_andnot_si256(above, inRange), _mm256_and_si256(above, _mm256_set1_epi32(255)));
}

KV_TARGET_AVX2 inline __m256i StretchBlock_AVX2(__m256i block, __m256i lower, __m256i upper, __m256 factor) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i first = _mm256_unpacklo_epi8(block, zero), second = _mm256_unpackhi_epi8(block, zero);
  const __m256i lanes0 = StretchLanes_AVX2(_mm256_unpacklo_epi16(first, zero), lower, upper, factor);
  const __m256i lanes1 = StretchLanes_AVX2(_mm256_unpackhi_epi16(first, zero), lower, upper, factor);
  const __m256i lanes2 = StretchLanes_AVX2(_mm256_unpacklo_epi16(second, zero), lower, upper, factor);
  const __m256i lanes3 = StretchLanes_AVX2(_mm256_unpackhi_epi16(second, zero), lower, upper, factor);
  const __m256i pixels01 = _mm256_packs_epi32(lanes0, lanes1);
  const __m256i pixels23 = _mm256_packs_epi32(lanes2, lanes3);
  return _mm256_packus_epi16(pixels01, pixels23);
}

// Streams the output like the SSE2 kernel when both pointers are 32-byte
// aligned; otherwise unaligned loads and stores. Pixels short of a block of
// eight go through the SSE2 kernel (the same formula).
KV_TARGET_AVX2 size_t SuperContrast_AVX2(const PixelRun& run, const SuperContrastArguments& arguments) {
  const StretchLanes lanes = LanesOf(RangeOf(arguments.low, arguments.high));
  const __m256i lower = _mm256_broadcastsi128_si256(lanes.lower);
  const __m256i upper = _mm256_broadcastsi128_si256(lanes.upper);
  const __m256 factor = _mm256_castsi256_ps(_mm256_broadcastsi128_si256(_mm_castps_si128(lanes.factor)));
  const __m256i* in = reinterpret_cast<const __m256i*>(run.in);
  __m256i* out = reinterpret_cast<__m256i*>(run.out);
  const size_t blocks = run.pixels / 8;
  const bool aligned = ((reinterpret_cast<uintptr_t>(in) | reinterpret_cast<uintptr_t>(out)) & 31u) == 0;
  if (aligned) {
    for (size_t b = 0; b < blocks; ++b)
      _mm256_stream_si256(out + b, StretchBlock_AVX2(_mm256_load_si256(in + b), lower, upper, factor));
    _mm_sfence();
  } else {
    for (size_t b = 0; b < blocks; ++b)
      _mm256_storeu_si256(out + b, StretchBlock_AVX2(_mm256_loadu_si256(in + b), lower, upper, factor));
  }
  _mm256_zeroupper();
  return blocks * 8 + SuperContrast_SSE2(run.From(blocks * 8), arguments);
}

const KernelRungs<SuperContrastKernel> kSuperContrastRungs = {
    SuperContrast_Plain, SuperContrast_SSE2, nullptr, SuperContrast_AVX2,
    TabulatedFormula_AVX512VBMI<SuperContrastArguments, SuperContrast_SSE2>};

// One thread through a kernel. The plain kernel (and any selection but
// colour, which the vector path does not serve) walks the plain share whole.
// A vector kernel takes the vector share: its first count % 16 pixels go
// through the table, the rest through the kernel, both where the images hold
// them.
int RenderSuperContrastShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount, SuperContrastKernel kernel,
                             PixelKernel<ByteTables> tablesKernel, const SuperContrastArguments& arguments) {
  if (kernel == SuperContrast_Plain || arguments.channels != kChannelsColor) {
    PixelRun run;
    ByteTables tables;
    if (PlainPathShare(source, destination, threadIndex, threadCount, run) &&
        ChannelByteTables(arguments.table, arguments.channels, tables)) {
      RunKernel(tablesKernel, ByteTables_Plain, run, tables);
    }
    return 0;
  }
  const ShareRun share = VectorPathShare(source, threadIndex, threadCount);
  if (share.count == 0) return 0;
  const size_t leadIn = share.count % 16;
  SuperContrast_Plain(WrittenRun(source, destination, ShareRun{share.start, leadIn}), arguments);
  kernel(WrittenRun(source, destination, ShareRun{share.start + leadIn, share.count - leadIn}), arguments);
  return 0;
}

}  // namespace

SuperContrastRenderer::SuperContrastRenderer(double low, double high, KVChannelsToProcess channels,
                                             const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions),
      m_low(low),
      m_high(high),
      m_channels(channels),
      m_table(),
      m_vectorTables(),
      m_formulaBytes(),
      m_kernel(ChooseKernel(kSuperContrastRungs, extensions.sse2)),
      m_tablesKernel(ByteTables_Plain) {}

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
  TabulateKernel<SuperContrastArguments>(SuperContrast_SSE2, Arguments(), m_vectorTables, m_formulaBytes);
  m_kernel = ChooseKernel(kSuperContrastRungs, m_extensions.sse2);
  m_tablesKernel = ChooseByteTablesKernel();
}

SuperContrastArguments SuperContrastRenderer::Arguments() const {
  return SuperContrastArguments{m_table, m_channels, m_low, m_high, TablesOf(m_formulaBytes)};
}

int SuperContrastRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  AssertBGRA8(source, kAssertSuperContrastFormat);
  return RenderSuperContrastShare(source, destination, threadIndex, threadCount, m_kernel, m_tablesKernel,
                                  Arguments());
}

int SuperContrastRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination,
                                       unsigned char threadIndex, unsigned char threadCount) {
  return RenderSuperContrastShare(source, destination, threadIndex, threadCount, SuperContrast_Plain,
                                  ByteTables_Plain, Arguments());
}

// The vector path even where the record chose the plain one.
int SuperContrastRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination,
                                        unsigned char threadIndex, unsigned char threadCount) {
  return RenderSuperContrastShare(source, destination, threadIndex, threadCount,
                                  m_kernel != SuperContrast_Plain ? m_kernel : SuperContrast_SSE2, m_tablesKernel,
                                  Arguments());
}

}  // namespace image
}  // namespace kvo
