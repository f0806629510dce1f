#include <kvimage/keying.h>
#include <kvimage/colour.h>
#include <kvimage/pipeline.h>

#include "pipeline/RendererQueue.h"
#include "pipeline/ResultCodes.h"
#include "support/CPUExtensions.h"

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

int KVImageKeyer::SetAutoColorDifferenceKey(KVKeyColor keyColor, double balance, double saturationLimit,
                                            double saturationSoftness) {
  return GuardedCall([&] {
    if (balance < 0.0 || balance > 1.0) return static_cast<int>(kResultOutOfRange);
    if (saturationLimit < 0.0 || saturationLimit > 1.0) return static_cast<int>(kResultOutOfRange);
    if (saturationSoftness < 0.0 || saturationSoftness > 1.0) return static_cast<int>(kResultOutOfRange);
    return m_private->Append(
        new ColorDifferenceKeyer(keyColor, balance, saturationLimit, saturationSoftness, m_private->tables));
  });
}

// Stretches the matte: a super contrast on alpha only.
int KVImageKeyer::SetAlphaSuperContrast(double low, double high) {
  return GuardedCall([&] {
    if (low < 0.0 || low > 1.0 || high < 0.0 || high > 1.0) return static_cast<int>(kResultOutOfRange);
    return m_private->Append(new SuperContrastRenderer(low, high, kChannelsAlpha, DetectedCPUExtensions()));
  });
}

}  // namespace image
}  // namespace kvo
