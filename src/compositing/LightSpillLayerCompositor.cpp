#include <kvimage/compositing.h>

#include <vector>

#include "compositing/BlendOperations.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {

// The glow keeps the background wherever its weighted alpha is 0.
KernelRungs<LayerKernel> GlowRungs(KVBlendMode mode) {
  AlphaCompositeRungs<false, true> rungs;
  return DispatchBlendMode(mode, rungs);
}

}  // namespace

LightSpillLayerCompositor::LightSpillLayerCompositor(KVAbstractImage* layer, unsigned int radius, double amount,
                                                     KVBlendMode blendMode, KVDownsampleFactor factor,
                                                     kvo::KVLookupTables& tables, kvtl::CPUExtensions extensions)
    : m_layer(layer),
      m_radius(radius),
      m_amount(amount),
      m_blendMode(blendMode),
      m_factor(factor),
      m_tables(tables),
      m_extensions(extensions),
      m_blur(radius, true, true, kChannelsAll),
      m_blurredReady(false),
      m_plainKernel(GlowRungs(blendMode).plain),
      m_kernel(m_plainKernel) {
  FillWeightedAlpha(ClampedUnit(m_amount), m_weightedAlpha);
}

KVAbstractImage* LightSpillLayerCompositor::GlowLayer() const {
  if (m_radius == 0) return m_layer;
  return m_blurredReady ? m_blurred.get() : nullptr;
}

void LightSpillLayerCompositor::Setup(KVAbstractImage*) {
  m_kernel = ChooseKernel(GlowRungs(m_blendMode));
  m_blurredReady = false;
  if (m_radius == 0 || m_layer == nullptr) return;
  const uint32_t width = m_layer->Width(), height = m_layer->Height();
  const size_t bytes = static_cast<size_t>(width) * height * kBytesPerPixel;
  // Nothing to lay at zero weight; nothing to read in an empty or deep layer.
  if (m_weightedAlpha[255] == 0 || bytes == 0 || m_layer->BitsPerChannel() != 0 || m_layer->BufferByteSize() < bytes) {
    return;
  }
  m_blur.Setup(m_layer);
  if (!m_blurred || m_blurred->Width() != width || m_blurred->Height() != height ||
      m_blurred->PixelChannelOrder() != m_layer->PixelChannelOrder()) {
    m_blurred.reset(new KVImage8(width, height, m_layer->PixelChannelOrder(), false));
  }
  // The blur's column pass, which writes the blurred copy, on the pass's threads.
  RunParallel([&](unsigned char threadIndex, unsigned char threadCount) {
    return m_blur.Render8(static_cast<KVImage8*>(m_layer), m_blurred.get(), threadIndex, threadCount);
  });
  m_blurredReady = true;
}

int LightSpillLayerCompositor::Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex,
                                      unsigned char threadCount) {
  AssertLayerMatchesBackground(m_layer, backgroundLayer, kAssertLightSpillWidth);
  const unsigned int depth = backgroundLayer->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return Render8(static_cast<KVImage8*>(backgroundLayer), threadIndex, threadCount);
}

int LightSpillLayerCompositor::Render8(KVImage8* backgroundLayer, unsigned char threadIndex,
                                       unsigned char threadCount) {
  KVAbstractImage* glow = GlowLayer();
  if (glow == nullptr || m_weightedAlpha[255] == 0 || glow->Width() != backgroundLayer->Width() ||
      glow->Height() != backgroundLayer->Height()) {
    return 0;
  }
  RunLayerKernelOnShare(m_kernel, m_plainKernel, glow, backgroundLayer, m_weightedAlpha, m_tables, threadIndex,
                        threadCount);
  return 0;
}

}  // namespace image
}  // namespace kvo
