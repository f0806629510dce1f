#include <emmintrin.h>

#include <cstdint>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "support/AssertionSites.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

struct OpacityArguments {
  double opacity;
  ByteTables formulaTables;  // the vector formula, tabulated in Setup
};

namespace {

typedef PixelKernel<OpacityArguments> OpacityKernel;

// alpha = clamp(trunc(alpha * opacity)); colour copied.
size_t Opacity_Plain(const PixelRun& run, const OpacityArguments& arguments) {
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    run.out[i + kBlueByte] = run.in[i + kBlueByte];
    run.out[i + kGreenByte] = run.in[i + kGreenByte];
    run.out[i + kRedByte] = run.in[i + kRedByte];
    run.out[i + kAlphaByte] =
        static_cast<unsigned char>(ClampToByte(TruncateToInt(run.in[i + kAlphaByte] * arguments.opacity)));
  }
  return run.pixels;
}

// alpha = max(0, alpha - k) with k = trunc((1 - opacity) * 255) & 255: a
// subtraction, not the plain path's product, so the two paths agree only at
// opacity 0 and 1.
size_t Opacity_SSE2(const PixelRun& run, const OpacityArguments& arguments) {
  const uint32_t decrement = static_cast<uint32_t>(TruncateToInt((1.0 - arguments.opacity) * 255.0)) & 0xFFu;
  const __m128i alphaMask = _mm_set1_epi32(static_cast<int>(decrement << (8 * kAlphaByte)));
  return TransformBlocks(run, [alphaMask](__m128i block) { return _mm_subs_epu8(block, alphaMask); });
}

const KernelRungs<OpacityKernel> kOpacityRungs = {Opacity_Plain, Opacity_SSE2, nullptr, nullptr,
                                                  TabulatedFormula_AVX512VBMI<OpacityArguments, Opacity_SSE2>};

}  // namespace

// Alpha alone, by the product or the subtraction the thread's share takes.
StageNeeds NeedsOf(const OpacityRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const OpacityRenderer& self = static_cast<OpacityRenderer&>(base);
                      RenderTableBlock(block, self.m_kernel, Opacity_Plain, self.Arguments());
                    }};
}

OpacityRenderer::OpacityRenderer(double opacity, const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions),
      m_opacity(opacity),
      m_vectorTables(),
      m_formulaBytes(),
      m_kernel(ChooseKernel(kOpacityRungs, m_extensions.sse2)) {
  Setup(nullptr);
}

void OpacityRenderer::Setup(KVAbstractImage*) {
  TabulateKernel<OpacityArguments>(Opacity_SSE2, Arguments(), m_vectorTables, m_formulaBytes);
  m_kernel = ChooseKernel(kOpacityRungs, m_extensions.sse2);
}

OpacityArguments OpacityRenderer::Arguments() const {
  return OpacityArguments{m_opacity, TablesOf(m_formulaBytes)};
}

int OpacityRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  AssertBGRA8(source, kAssertOpacityFormat);
  return RenderTableShare(source, destination, threadIndex, threadCount, m_kernel, Opacity_Plain, Arguments());
}

int OpacityRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderTableShare<OpacityArguments>(source, destination, threadIndex, threadCount, Opacity_Plain,
                                            Opacity_Plain, Arguments());
}

int OpacityRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  return RenderTableShare<OpacityArguments>(source, destination, threadIndex, threadCount, Opacity_SSE2,
                                            Opacity_Plain, Arguments());
}

void SetOpacity(KVImage8* image, double opacity) {
  OpacityRenderer renderer(opacity, DetectedCPUExtensions());
  renderer.Render(image, image, 0, 1);
}

void ChangeLayerOpacity(KVAbstractImage* image, double opacity) {
  if (image->BitsPerChannel() == 0) SetOpacity(static_cast<KVImage8*>(image), opacity);
}

}  // namespace image
}  // namespace kvo
