#include <tr1/memory>

#include <kvimage/colour.h>
#include <kvimage/compositing.h>
#include <kvimage/pipeline.h>

#include "pipeline/RenderLoop.h"
#include "pipeline/FrontEndState.h"
#include "pipeline/ResultCodes.h"
#include "support/PathChoice.h"

namespace kvo {
namespace image {

namespace {
KVImageCompositor_Private* NewCompositorState(KVAbstractImage* background, double opacity,
                                              kvo::KVLookupTables& tables, KVDownsampleFactor factor) {
  KVImageCompositor_Private* state = 
      new KVImageCompositor_Private(kFrontEndCompositor, background, background, tables, factor);
  // The background is faded once, here, not at each render.
  if (opacity < 1.0) ChangeLayerOpacity(background, opacity);
  return state;
}
}  // namespace

KVImageCompositor::KVImageCompositor(KVAbstractImage* background, double opacity, kvo::KVLookupTables& tables,
                                     KVDownsampleFactor factor)
    : m_private(NewCompositorState(background, opacity, tables, factor)) {}

KVImageCompositor::KVImageCompositor(std::tr1::shared_ptr<KVAbstractImage> background, double opacity,
                                     kvo::KVLookupTables& tables, KVDownsampleFactor factor)
    : m_private(NewCompositorState(background.get(), opacity, tables, factor)) {}

KVImageCompositor::~KVImageCompositor() { delete m_private; }

KVAbstractImage* KVImageCompositor::BackgroundLayer() const { return m_private->destination; }

unsigned short KVImageCompositor::RenderQueueCount() const { return m_private->Count(); }

int KVImageCompositor::ClearRenderQueue() { return m_private->Clear(); }

int KVImageCompositor::Render() { return m_private->Render(); }

int KVImageCompositor::AddLayer(KVAbstractImage* layer, double opacity, KVBlendMode blendMode,
                                KVCompositeType compositeType) {
  return GuardedCall([&] {
    // NaN passes: the stage clamps the weighted alpha it makes of it to 0.
    if (const int refusal = m_private->Refused("AddLayer", {0, opacity}, layer)) return refusal;
    return m_private->Append(new LayerCompositor(layer, opacity, compositeType, blendMode, m_private->tables));
  });
}

int KVImageCompositor::AddLayer(std::tr1::shared_ptr<KVAbstractImage> layer, double opacity, KVBlendMode blendMode,
                                KVCompositeType compositeType) {
  return AddLayer(layer.get(), opacity, blendMode, compositeType);
}

int KVImageCompositor::AddLightSpillLayer(KVAbstractImage* layer, int radius, double amount, KVBlendMode mode,
                                          KVDownsampleFactor factor) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("AddLightSpillLayer", {0, static_cast<double>(radius)}, layer)) {
      return refusal;
    }
    const kvtl::CPUExtensions extensions = DetectedCPUExtensions();
    // Scaled by this compositor's factor; the stage keeps the one passed here.
    const unsigned int scaledRadius = m_private->ScaledRadius(static_cast<unsigned int>(radius));
    return m_private->Append(new LightSpillLayerCompositor(layer, scaledRadius, amount, mode, factor,
                                                           m_private->tables, extensions));
  });
}

int KVImageCompositor::AddLightSpillLayer(std::tr1::shared_ptr<KVAbstractImage> layer, int radius, double amount,
                                          KVBlendMode mode, KVDownsampleFactor factor) {
  return AddLightSpillLayer(layer.get(), radius, amount, mode, factor);
}

int KVImageCompositor::AddShadowCastLayer(KVAbstractImage* layer, const kvo::maths::KVRect& bounds,
                                          const kvo::maths::KVQuad& corners, unsigned int radius, double amount,
                                          KVPixel8_RGB colour, KVBlendMode mode, bool flag,
                                          KVDownsampleFactor factor) {
  return GuardedCall([&] {
    const kvtl::CPUExtensions extensions = DetectedCPUExtensions();
    const kvo::maths::KVRect rectangle = bounds;
    const kvo::maths::KVQuad quad = corners;
    return m_private->Append(new ShadowCastCompositor(layer, rectangle, quad,
                                                      m_private->ScaledRadius(radius), amount, colour, mode,
                                                      flag, factor, m_private->tables, extensions));
  });
}

int KVImageCompositor::AddShadowCastLayer(std::tr1::shared_ptr<KVAbstractImage> layer,
                                          const kvo::maths::KVRect& bounds, const kvo::maths::KVQuad& corners,
                                          unsigned int radius, double amount, KVPixel8_RGB colour, KVBlendMode mode,
                                          bool flag, KVDownsampleFactor factor) {
  return AddShadowCastLayer(layer.get(), bounds, corners, radius, amount, colour, mode, flag, factor);
}

}  // namespace image
}  // namespace kvo
