#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

struct ContrastArguments {
  const unsigned char* table;
  KVChannelsToProcess channels;
  double contrast;
  PixelKernel<ByteTables> tablesKernel;  // walks `table`
  ByteTables formulaTables;              // the vector formula, tabulated in Setup
};

namespace {

typedef PixelKernel<ContrastArguments> ContrastKernel;

const int kPivot = 127;  // input 127 always maps to 127
const int kUnitMultiplier = 256;

// The 16-bit multipliers of one pixel's four bytes: c for the selected
// channels, 256 (unchanged) elsewhere. An unknown selection selects nothing,
// so the vector path copies it.
void PixelMultipliers(KVChannelsToProcess channels, int c, short lanes[4]) {
  const short scaled = MultiplierLane(c), unit = MultiplierLane(kUnitMultiplier);
  const bool colour = channels == kChannelsColor || channels == kChannelsAll;
  const bool alpha = channels == kChannelsAlpha || channels == kChannelsAll;
  lanes[kBlueByte] = lanes[kGreenByte] = lanes[kRedByte] = colour ? scaled : unit;
  lanes[kAlphaByte] = alpha ? scaled : unit;
}

size_t Contrast_Plain(const PixelRun& run, const ContrastArguments& arguments) {
  ApplyChannelTable(run, arguments.table, arguments.channels, arguments.tablesKernel);
  return run.pixels;
}

// 127 + ((x - 127) * multiplier >> 8) per byte in 16-bit lanes. The shift
// rounds toward minus infinity where the table truncates toward zero, so the
// two paths differ by one below 127; that difference is kept.
size_t Contrast_SSE2(const PixelRun& run, const ContrastArguments& arguments) {
  short lanes[4];
  PixelMultipliers(arguments.channels, TruncateToInt(256.0 * arguments.contrast), lanes);
  const __m128i multipliers =
      _mm_setr_epi16(lanes[0], lanes[1], lanes[2], lanes[3], lanes[0], lanes[1], lanes[2], lanes[3]);
  const __m128i pivot = _mm_set1_epi16(kPivot);
  const __m128i zero = _mm_setzero_si128();
  return TransformBlocks(run, [=](__m128i block) {
    const __m128i first = _mm_sub_epi16(_mm_unpacklo_epi8(block, zero), pivot);
    const __m128i second = _mm_sub_epi16(_mm_unpackhi_epi8(block, zero), pivot);
    return _mm_packus_epi16(_mm_adds_epi16(MultiplyShift8(first, multipliers), pivot),
                            _mm_adds_epi16(MultiplyShift8(second, multipliers), pivot));
  });
}

const KernelRungs<ContrastKernel> kContrastRungs = {Contrast_Plain, Contrast_SSE2, nullptr, nullptr,
                                                    TabulatedFormula_AVX512VBMI<ContrastArguments, Contrast_SSE2>};

}  // namespace

// Each selected channel through the table, or the vector formula where the
// thread's share takes it. A selection that writes nothing does not join.
StageNeeds NeedsOf(const ContrastRenderer& stage) {
  return StageNeeds{nullptr, SelectsChannels(stage.m_channels), [](AbstractRenderer& base, const PixelBlock& block) {
                      const ContrastRenderer& self = static_cast<ContrastRenderer&>(base);
                      RenderTableBlock(block, self.m_kernel, Contrast_Plain, self.Arguments());
                    }};
}

ContrastRenderer::ContrastRenderer(double contrast, KVChannelsToProcess channels,
                                   const kvtl::CPUExtensions& extensions)
    : m_contrast(contrast),
      m_channels(channels),
      m_extensions(extensions),
      m_table(),
      m_vectorTables(),
      m_formulaBytes(),
      m_kernel(ChooseKernel(kContrastRungs, m_extensions.sse2)),
      m_tablesKernel(ByteTables_Plain) {}

// table[i] = clamp(127 + (i - 127) * c / 256), the division truncating toward
// zero. The product wraps in 32 bits as the processor's multiply does (only a
// NaN contrast, c = INT_MIN, reaches that).
void ContrastRenderer::Setup(KVAbstractImage*) {
  const int c = TruncateToInt(256.0 * m_contrast);
  for (int i = 0; i < 256; ++i) {
    const int j = i - kPivot;
    const int product = static_cast<int>(static_cast<uint32_t>(j) * static_cast<uint32_t>(c));
    m_table[i] = static_cast<unsigned char>(ClampToByte(product / 256 + kPivot));
  }
  TabulateKernel<ContrastArguments>(Contrast_SSE2, Arguments(), m_vectorTables, m_formulaBytes);
  m_kernel = ChooseKernel(kContrastRungs, m_extensions.sse2);
  m_tablesKernel = ChooseByteTablesKernel();
}

ContrastArguments ContrastRenderer::Arguments() const {
  return ContrastArguments{m_table, m_channels, m_contrast, m_tablesKernel, TablesOf(m_formulaBytes)};
}

int ContrastRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  AssertBGRA8(source, kAssertContrastFormat);
  return RenderTableShare(source, destination, threadIndex, threadCount, m_kernel, Contrast_Plain, Arguments());
}

int ContrastRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  ContrastArguments plain = Arguments();
  plain.tablesKernel = ByteTables_Plain;
  return RenderTableShare<ContrastArguments>(source, destination, threadIndex, threadCount, Contrast_Plain,
                                             Contrast_Plain, plain);
}

int ContrastRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                   unsigned char threadCount) {
  return RenderTableShare<ContrastArguments>(source, destination, threadIndex, threadCount, Contrast_SSE2,
                                             Contrast_Plain, Arguments());
}

}  // namespace image
}  // namespace kvo
