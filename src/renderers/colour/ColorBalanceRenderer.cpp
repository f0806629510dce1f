#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

struct ColorBalanceArguments {
  const unsigned char* blueTable;
  const unsigned char* greenTable;
  const unsigned char* redTable;
  double blue;
  double green;
  double red;
  PixelKernel<ByteTables> tablesKernel;  // walks the gain tables
  ByteTables formulaTables;              // the vector formula, tabulated in Setup
};

namespace {

typedef PixelKernel<ColorBalanceArguments> ColorBalanceKernel;

void BuildGainTable(double gain, unsigned char table[256]) {
  for (int i = 0; i < 256; ++i) table[i] = static_cast<unsigned char>(ClampToByte(TruncateToInt(i * gain)));
}

// The gain in 1/256 steps as the vector path's 16-bit multiplier.
short GainMultiplier(double gain) { return MultiplierLane(TruncateToInt(256.0 * gain)); }

size_t ColorBalance_Plain(const PixelRun& run, const ColorBalanceArguments& arguments) {
  RunKernel(arguments.tablesKernel, ByteTables_Plain, run,
            ByteTables{{arguments.blueTable, arguments.greenTable, arguments.redTable, nullptr}});
  return run.pixels;
}

// (x * trunc(256 * gain)) >> 8 per byte in 16-bit lanes, alpha multiplied by
// 256 (kept). Quantising the gain to 1/256 may put a byte below the table's
// (gain 0.3: 200 gives 59 here, 60 from the table); that is kept.
size_t ColorBalance_SSE2(const PixelRun& run, const ColorBalanceArguments& arguments) {
  const short blue = GainMultiplier(arguments.blue), green = GainMultiplier(arguments.green),
              red = GainMultiplier(arguments.red);
  const __m128i multipliers = _mm_setr_epi16(blue, green, red, 256, blue, green, red, 256);
  const __m128i zero = _mm_setzero_si128();
  return TransformBlocks(run, [=](__m128i block) {
    return _mm_packus_epi16(MultiplyShift8(_mm_unpacklo_epi8(block, zero), multipliers),
                            MultiplyShift8(_mm_unpackhi_epi8(block, zero), multipliers));
  });
}

const KernelRungs<ColorBalanceKernel> kColorBalanceRungs = {
    ColorBalance_Plain, ColorBalance_SSE2, nullptr, nullptr,
    TabulatedFormula_AVX512VBMI<ColorBalanceArguments, ColorBalance_SSE2>};

}  // namespace

// Colour through the gain tables, or the vector formula where the thread's
// share takes it; alpha copied.
StageNeeds NeedsOf(const ColorBalanceRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const ColorBalanceRenderer& self = static_cast<ColorBalanceRenderer&>(base);
                      RenderTableBlock(block, self.m_kernel, ColorBalance_Plain, self.Arguments());
                    }};
}

ColorBalanceRenderer::ColorBalanceRenderer(double red, double green, double blue,
                                           const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions),
      m_red(red),
      m_green(green),
      m_blue(blue),
      m_redTable(),
      m_greenTable(),
      m_blueTable(),
      m_vectorTables(),
      m_formulaBytes(),
      m_kernel(ChooseKernel(kColorBalanceRungs, m_extensions.sse2)),
      m_tablesKernel(ByteTables_Plain) {}

void ColorBalanceRenderer::Setup(KVAbstractImage*) {
  BuildGainTable(m_red, m_redTable);
  BuildGainTable(m_green, m_greenTable);
  BuildGainTable(m_blue, m_blueTable);
  TabulateKernel<ColorBalanceArguments>(ColorBalance_SSE2, Arguments(), m_vectorTables, m_formulaBytes);
  m_kernel = ChooseKernel(kColorBalanceRungs, m_extensions.sse2);
  m_tablesKernel = ChooseByteTablesKernel();
}

ColorBalanceArguments ColorBalanceRenderer::Arguments() const {
  return ColorBalanceArguments{m_blueTable, m_greenTable, m_redTable, m_blue, m_green, m_red, m_tablesKernel,
                               TablesOf(m_formulaBytes)};
}

int ColorBalanceRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  AssertBGRA8(source, kAssertColorBalanceFormat);
  return RenderTableShare(source, destination, threadIndex, threadCount, m_kernel, ColorBalance_Plain, Arguments());
}

int ColorBalanceRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination,
                                      unsigned char threadIndex, unsigned char threadCount) {
  ColorBalanceArguments plain = Arguments();
  plain.tablesKernel = ByteTables_Plain;
  return RenderTableShare<ColorBalanceArguments>(source, destination, threadIndex, threadCount, ColorBalance_Plain,
                                                 ColorBalance_Plain, plain);
}

int ColorBalanceRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination,
                                       unsigned char threadIndex, unsigned char threadCount) {
  return RenderTableShare<ColorBalanceArguments>(source, destination, threadIndex, threadCount, ColorBalance_SSE2,
                                                 ColorBalance_Plain, Arguments());
}

}  // namespace image
}  // namespace kvo
