#include <tr1/memory>
#include <vector>

#include <kvimage/colour.h>
#include <kvimage/compositing.h>
#include <kvimage/pipeline.h>

#include "pipeline/Catalogue.h"
#include "pipeline/RendererQueue.h"
#include "pipeline/ResultCodes.h"
#include "support/CPUExtensions.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

struct KVImageCompositor_Private {
  KVImageCompositor_Private(KVAbstractImage* backgroundImage, double backgroundOpacity,
                            kvo::KVLookupTables& lookupTables, KVDownsampleFactor downsampleFactor)
      : background(backgroundImage), opacity(backgroundOpacity), tables(lookupTables), factor(downsampleFactor) {}

  KVAbstractImage* background;
  double opacity;
  kvo::KVLookupTables& tables;
  KVDownsampleFactor factor;
  std::vector<std::tr1::shared_ptr<AbstractCompositor> > queue;

  int Append(AbstractCompositor* stage) {
    std::tr1::shared_ptr<AbstractCompositor> held(stage);
    queue.push_back(held);
    return kResultSuccess;
  }
};

namespace {
// The code the setter's catalogue row refuses these arguments with, or 0.
int Refused(const char* setter, std::initializer_list<double> arguments, const KVAbstractImage* layer,
            const KVAbstractImage* background) {
  return RefusedArguments(CatalogueRow(kFrontEndCompositor, setter), arguments, layer, background);
}

KVImageCompositor_Private* NewCompositorState(KVAbstractImage* background, double opacity,
                                              kvo::KVLookupTables& tables, KVDownsampleFactor factor) {
  KVImageCompositor_Private* state = new KVImageCompositor_Private(background, opacity, tables, factor);
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

KVImageCompositor::~KVImageCompositor() {
  try {
    m_private->queue.clear();
  } catch (std::exception&) {
  }
  delete m_private;
}

KVAbstractImage* KVImageCompositor::BackgroundLayer() const { return m_private->background; }

unsigned short KVImageCompositor::RenderQueueCount() const {
  return static_cast<unsigned short>(m_private->queue.size());
}

int KVImageCompositor::ClearRenderQueue() {
  return GuardedCall([&] {
    m_private->queue.clear();
    return kResultSuccess;
  });
}

int KVImageCompositor::Render() {
  return GuardedCall([&] {
    const unsigned char threadCount = PassThreadCount();
    int result = kResultSuccess;
    for (size_t i = 0; i < m_private->queue.size(); ++i) {
      const std::tr1::shared_ptr<AbstractCompositor> stage = m_private->queue[i];
      stage->Setup(m_private->background);
      std::vector<CompositeThreadData> records(threadCount);
      for (unsigned char t = 0; t < threadCount; ++t) {
        records[t].threadIndex = t;
        records[t].threadCount = threadCount;
        records[t].background = m_private->background;
        records[t].compositor = stage;
      }
      const int code = RunThreads(CompositeRenderWorkerThread, records);
      if (code != 0) result = code;
    }
    return result;
  });
}

int KVImageCompositor::AddLayer(KVAbstractImage* layer, double opacity, KVBlendMode blendMode,
                                KVCompositeType compositeType) {
  return GuardedCall([&] {
    // NaN passes: the stage clamps the weighted alpha it makes of it to 0.
    if (const int refusal = Refused("AddLayer", {0, opacity}, layer, m_private->background)) return refusal;
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
    if (const int refusal = Refused("AddLightSpillLayer", {0, static_cast<double>(radius)}, layer,
                                    m_private->background)) {
      return refusal;
    }
    const kvtl::CPUExtensions extensions = DetectedCPUExtensions();
    // Scaled by this compositor's factor; the stage keeps the one passed here.
    const unsigned int scaledRadius = ScaledRadius(static_cast<unsigned int>(radius), m_private->factor);
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
                                                      ScaledRadius(radius, m_private->factor), amount, colour, mode,
                                                      flag, factor, m_private->tables, extensions));
  });
}

int KVImageCompositor::AddShadowCastLayer(std::tr1::shared_ptr<KVAbstractImage> layer,
                                          const kvo::maths::KVRect& bounds, const kvo::maths::KVQuad& corners,
                                          unsigned int radius, double amount, KVPixel8_RGB colour, KVBlendMode mode,
                                          bool flag, KVDownsampleFactor factor) {
  return AddShadowCastLayer(layer.get(), bounds, corners, radius, amount, colour, mode, flag, factor);
}

void* CompositeRenderWorkerThread(void* data) {
  CompositeThreadData* record = static_cast<CompositeThreadData*>(data);
  if (record == nullptr) return ThreadExitValue(0);
  try {
    record->compositor->Render(record->background, record->threadIndex, record->threadCount);
  } catch (std::exception& e) {
    return ThreadExitValue(kvo::ConvertExceptionToKVerr(e, kWorkerThreadDefaultCode));
  }
  return ThreadExitValue(0);
}

}  // namespace image
}  // namespace kvo
