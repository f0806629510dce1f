#include <kvimage/compositing.h>

#include "compositing/BlendOperations.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// Replace copies the layer's colour bytes whatever their alpha.
size_t ReplaceColour_Plain(const LayerRun& run) {
  const unsigned char* layer = run.top;
  unsigned char* canvas = run.bottom;
  for (size_t p = 0; p < run.pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
    canvas[kBlueByte] = layer[kBlueByte];
    canvas[kGreenByte] = layer[kGreenByte];
    canvas[kRedByte] = layer[kRedByte];
  }
  return run.pixels;
}

KV_TARGET_AVX2 size_t ReplaceColour_AVX2(const LayerRun& run) {
  const __m256i colour = _mm256_set1_epi32(0x00FFFFFF);
  size_t p = 0;
  for (; p + 8 <= run.pixels; p += 8) {
    const __m256i under = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(run.bottom + p * kBytesPerPixel));
    const __m256i over = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(run.top + p * kBytesPerPixel));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(run.bottom + p * kBytesPerPixel),
                        _mm256_or_si256(_mm256_and_si256(colour, over), _mm256_andnot_si256(colour, under)));
  }
  return p;
}

// The kernels of a composite type and blend mode.
KernelRungs<LayerKernel> LayerRungs(KVCompositeType type, KVBlendMode mode) {
  if (type == kCompositeColorOnly) {
    if (mode == kBlendReplace) return KernelRungs<LayerKernel>{ReplaceColour_Plain, nullptr, nullptr, ReplaceColour_AVX2};
    ColourOnlyRungs rungs;
    return DispatchBlendMode(mode, rungs);
  }
  if (type == kCompositeAlphaFill) {
    AlphaCompositeRungs<true, false> rungs;
    return DispatchBlendMode(mode, rungs);
  }
  AlphaCompositeRungs<false, false> rungs;
  return DispatchBlendMode(mode, rungs);
}

}  // namespace

LayerCompositor::LayerCompositor(KVAbstractImage* foregroundLayer, double opacity, KVCompositeType compositeType,
                                 KVBlendMode blendMode, kvo::KVLookupTables& tables)
    : m_foregroundLayer(foregroundLayer),
      m_opacity(opacity),
      m_compositeType(compositeType),
      m_blendMode(blendMode),
      m_tables(tables),
      m_plainKernel(LayerRungs(compositeType, blendMode).plain),
      m_kernel(m_plainKernel) {
  FillWeightedAlpha(m_opacity, m_weightedAlpha);
}

void LayerCompositor::Setup(KVAbstractImage*) { m_kernel = ChooseKernel(LayerRungs(m_compositeType, m_blendMode)); }

int LayerCompositor::Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) {
  AssertLayerMatchesBackground(m_foregroundLayer, backgroundLayer, kAssertLayerWidth);
  const unsigned int depth = backgroundLayer->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return Render8(static_cast<KVImage8*>(backgroundLayer), threadIndex, threadCount);
}

int LayerCompositor::Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) {
  RunLayerKernelOnShare(m_kernel, m_plainKernel, m_foregroundLayer, backgroundLayer, m_weightedAlpha, m_tables,
                        threadIndex, threadCount);
  return 0;
}

}  // namespace image
}  // namespace kvo
