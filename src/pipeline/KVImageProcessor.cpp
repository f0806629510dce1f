#include <kvimage/blur.h>
#include <kvimage/colour.h>
#include <kvimage/pipeline.h>

#include "pipeline/RendererQueue.h"
#include "pipeline/ResultCodes.h"
#include "renderers/blur/StackBlurCore.h"
#include "support/CPUExtensions.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

struct KVImageProcessor_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};

KVImageProcessor::KVImageProcessor(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                                   KVDownsampleFactor factor)
    : m_private(new KVImageProcessor_Private(source, destination, tables, factor)) {}

KVImageProcessor::KVImageProcessor(std::tr1::shared_ptr<KVAbstractImage> source,
                                   std::tr1::shared_ptr<KVAbstractImage> destination, kvo::KVLookupTables& tables,
                                   KVDownsampleFactor factor)
    : m_private(new KVImageProcessor_Private(source.get(), destination.get(), tables, factor)) {}

KVImageProcessor::~KVImageProcessor() {
  try {
    m_private->queue.clear();
  } catch (std::exception&) {
  }
  delete m_private;
}

KVAbstractImage* KVImageProcessor::SourceImage() const { return m_private->source; }
unsigned short KVImageProcessor::RenderQueueCount() const { return m_private->Count(); }
int KVImageProcessor::ClearRenderQueue() { return m_private->Clear(); }
int KVImageProcessor::Render() { return m_private->Render(ProcessorRenderWorkerThread); }

void* ProcessorRenderWorkerThread(void* data) { return RunRenderThreadData(static_cast<RenderThreadData*>(data)); }

int KVImageProcessor::SetOpacity(double opacity) {
  return GuardedCall([&] {
    if (opacity < 0.0 || opacity > 1.0) return static_cast<int>(kResultOutOfRange);
    return m_private->Append(new OpacityRenderer(opacity, DetectedCPUExtensions()));
  });
}

int KVImageProcessor::SetMirror(bool first, bool second) {
  return GuardedCall([&] { return m_private->Append(new MirrorRenderer(first, second)); });
}

int KVImageProcessor::SetSilhouette(KVPixel8_RGB colour) {
  return GuardedCall([&] { return m_private->Append(new SilhouetteRenderer(colour)); });
}

int KVImageProcessor::SetMatteView() {
  return GuardedCall([&] { return m_private->Append(new MatteViewRenderer()); });
}

// A radius in the processor's resolution: radius * DownsampleValue, truncated.
static unsigned int ScaledBlurRadius(unsigned int radius, KVDownsampleFactor factor) {
  return static_cast<unsigned int>(TruncateToInt(static_cast<double>(radius) * DownsampleValue(factor)));
}

int KVImageProcessor::SetStackBlur(unsigned int radius, bool horizontal, bool vertical,
                                   KVChannelsToProcess channels) {
  return GuardedCall([&] {
    if (!horizontal && !vertical) return static_cast<int>(kResultInvalidCombination);
    return m_private->Append(
        new StackBlurRenderer(ScaledBlurRadius(radius, m_private->factor), horizontal, vertical,
                              static_cast<KVChannelsToProcess>(EnumArgumentValue(channels))));
  });
}

int KVImageProcessor::SetYUVBlur(unsigned int radius, KVYUVBlurType type) {
  return GuardedCall(
      [&] { return m_private->Append(new YUVBlurRenderer(ScaledBlurRadius(radius, m_private->factor),
                                                  static_cast<KVYUVBlurType>(EnumArgumentValue(type)))); });
}

int KVImageProcessor::SetBoundedStackBlur(unsigned int radius, bool horizontal, bool vertical,
                                          KVChannelsToProcess channels, const kvo::maths::KVRect& rect,
                                          double feather) {
  return GuardedCall([&] {
    if (!horizontal && !vertical) return static_cast<int>(kResultInvalidCombination);
    return m_private->Append(new BoundedStackBlurRenderer(ScaledBlurRadius(radius, m_private->factor), horizontal,
                                                          vertical, static_cast<KVChannelsToProcess>(EnumArgumentValue(channels)),
                                                          rect, feather));
  });
}

}  // namespace image
}  // namespace kvo
