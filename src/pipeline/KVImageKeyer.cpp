#include <kvimage/blur.h>
#include <kvimage/pipeline.h>

#include "pipeline/RendererQueue.h"
#include "pipeline/ResultCodes.h"
#include "renderers/blur/StackBlurCore.h"
#include "support/CPUExtensions.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

struct KVImageKeyer_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};

KVImageKeyer::KVImageKeyer(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                           KVDownsampleFactor factor)
    : m_private(new KVImageKeyer_Private(source, destination, tables, factor)) {}

KVImageKeyer::KVImageKeyer(std::tr1::shared_ptr<KVAbstractImage> source,
                           std::tr1::shared_ptr<KVAbstractImage> destination, kvo::KVLookupTables& tables,
                           KVDownsampleFactor factor)
    : m_private(new KVImageKeyer_Private(source.get(), destination.get(), tables, factor)) {}

KVImageKeyer::~KVImageKeyer() {
  try {
    m_private->queue.clear();
  } catch (std::exception&) {
  }
  delete m_private;
}

KVAbstractImage* KVImageKeyer::SourceImage() const { return m_private->source; }
unsigned short KVImageKeyer::RenderQueueCount() const { return m_private->Count(); }
int KVImageKeyer::ClearRenderQueue() { return m_private->Clear(); }
int KVImageKeyer::Render() { return m_private->Render(KeyRenderWorkerThread); }

void* KeyRenderWorkerThread(void* data) { return RunRenderThreadData(static_cast<RenderThreadData*>(data)); }

// A radius in the keyer's resolution: radius * DownsampleValue, truncated.
static unsigned int ScaledKeyerBlurRadius(unsigned int radius, KVDownsampleFactor factor) {
  return static_cast<unsigned int>(TruncateToInt(static_cast<double>(radius) * DownsampleValue(factor)));
}

int KVImageKeyer::SetYUVBlur(unsigned int radius, KVYUVBlurType type) {
  return GuardedCall(
      [&] { return m_private->Append(new YUVBlurRenderer(ScaledKeyerBlurRadius(radius, m_private->factor),
                                                  static_cast<KVYUVBlurType>(EnumArgumentValue(type)))); });
}

int KVImageKeyer::SetAlphaStackBlur(unsigned int radius, bool horizontal, bool vertical) {
  return GuardedCall([&] {
    if (!horizontal && !vertical) return static_cast<int>(kResultInvalidCombination);
    return m_private->Append(new StackBlurRenderer(ScaledKeyerBlurRadius(radius, m_private->factor), horizontal,
                                                   vertical, kChannelsAlpha));
  });
}

}  // namespace image
}  // namespace kvo
