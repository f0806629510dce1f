#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

struct BrightnessArguments {
  const unsigned char* table;
  KVChannelsToProcess channels;
  double brightness;
  PixelKernel<ByteTables> tablesKernel;  // walks `table`
  ByteTables formulaTables;              // the vector formula, tabulated in Setup
};

namespace {

typedef PixelKernel<BrightnessArguments> BrightnessKernel;

// One pixel's byte pattern: value in the selected channels, 0 elsewhere (an
// unknown selection selects nothing).
uint32_t ChannelPattern(KVChannelsToProcess channels, uint32_t value) {
  switch (static_cast<unsigned int>(channels)) {
    case kChannelsColor:
      return value * 0x00010101u;
    case kChannelsAlpha:
      return value << 24;
    case kChannelsAll:
      return value * 0x01010101u;
    default:
      return 0;
  }
}

size_t Brightness_Plain(const PixelRun& run, const BrightnessArguments& arguments) {
  ApplyChannelTable(run, arguments.table, arguments.channels, arguments.tablesKernel);
  return run.pixels;
}

// Saturating byte addition of |offset| (or subtraction for offset < 1): the
// table's clamp(i + offset) exactly.
size_t Brightness_SSE2(const PixelRun& run, const BrightnessArguments& arguments) {
  const int offset = TruncateToInt(255.0 * arguments.brightness);
  // The magnitude as the processor's negation gives it, low byte kept (a NaN
  // brightness thus adds nothing).
  const uint32_t magnitude = (offset < 0 ? 0u - static_cast<uint32_t>(offset) : static_cast<uint32_t>(offset)) & 0xFFu;
  const __m128i mask = _mm_set1_epi32(static_cast<int>(ChannelPattern(arguments.channels, magnitude)));
  if (offset < 1) return TransformBlocks(run, [mask](__m128i block) { return _mm_subs_epu8(block, mask); });
  return TransformBlocks(run, [mask](__m128i block) { return _mm_adds_epu8(block, mask); });
}

const KernelRungs<BrightnessKernel> kBrightnessRungs = {
    Brightness_Plain, Brightness_SSE2, nullptr, nullptr,
    TabulatedFormula_AVX512VBMI<BrightnessArguments, Brightness_SSE2>};

}  // namespace

// Each selected channel through the table (or the saturating add); a share
// keeps one path. A selection that writes nothing does not join.
StageNeeds NeedsOf(const BrightnessRenderer& stage) {
  return StageNeeds{nullptr, SelectsChannels(stage.m_channels), [](AbstractRenderer& base, const PixelBlock& block) {
                      const BrightnessRenderer& self = static_cast<BrightnessRenderer&>(base);
                      RenderTableBlock(block, self.m_kernel, Brightness_Plain, self.Arguments());
                    }};
}

BrightnessRenderer::BrightnessRenderer(double brightness, KVChannelsToProcess channels,
                                       const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions),
      m_brightness(brightness),
      m_channels(channels),
      m_table(),
      m_vectorTables(),
      m_formulaBytes(),
      m_kernel(ChooseKernel(kBrightnessRungs, m_extensions.sse2)),
      m_tablesKernel(ByteTables_Plain) {}

void BrightnessRenderer::Setup(KVAbstractImage*) {
  const int offset = TruncateToInt(255.0 * m_brightness);
  // A NaN brightness gives the most negative offset; i + offset cannot
  // overflow for i >= 0.
  for (int i = 0; i < 256; ++i) m_table[i] = static_cast<unsigned char>(ClampToByte(i + offset));
  TabulateKernel<BrightnessArguments>(Brightness_SSE2, Arguments(), m_vectorTables, m_formulaBytes);
  m_kernel = ChooseKernel(kBrightnessRungs, m_extensions.sse2);
  m_tablesKernel = ChooseByteTablesKernel();
}

BrightnessArguments BrightnessRenderer::Arguments() const {
  return BrightnessArguments{m_table, m_channels, m_brightness, m_tablesKernel, TablesOf(m_formulaBytes)};
}

int BrightnessRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  AssertBGRA8(source, kAssertBrightnessFormat);
  return RenderTableShare(source, destination, threadIndex, threadCount, m_kernel, Brightness_Plain, Arguments());
}

int BrightnessRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                    unsigned char threadCount) {
  BrightnessArguments plain = Arguments();
  plain.tablesKernel = ByteTables_Plain;
  return RenderTableShare<BrightnessArguments>(source, destination, threadIndex, threadCount, Brightness_Plain,
                                               Brightness_Plain, plain);
}

int BrightnessRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination,
                                     unsigned char threadIndex, unsigned char threadCount) {
  return RenderTableShare<BrightnessArguments>(source, destination, threadIndex, threadCount, Brightness_SSE2,
                                               Brightness_Plain, Arguments());
}

}  // namespace image
}  // namespace kvo
