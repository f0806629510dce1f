#include "pipeline/RendererQueue.h"

#include "pipeline/ResultCodes.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

int RendererQueue::Append(AbstractRenderer* stage) {
  std::tr1::shared_ptr<AbstractRenderer> held(stage);
  queue.push_back(held);
  return kResultSuccess;
}

unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor) {
  return static_cast<unsigned int>(TruncateToInt(static_cast<double>(radius) * DownsampleValue(factor)));
}

unsigned int RendererQueue::ScaledRadius(unsigned int radius) const { return image::ScaledRadius(radius, factor); }

unsigned short RendererQueue::Count() const { return static_cast<unsigned short>(queue.size()); }

int RendererQueue::Clear() {
  return GuardedCall([&] {
    queue.clear();
    return kResultSuccess;
  });
}

int RendererQueue::Render(ThreadEntry workerEntry) {
  return GuardedCall([&] {
    const size_t stageCount = queue.size();
    std::vector<std::tr1::shared_ptr<KVAbstractImage> > intermediates(stageCount);
    const unsigned char threadCount = PassThreadCount();
    int result = kResultSuccess;
    for (size_t i = 0; i < stageCount; ++i) {
      const std::tr1::shared_ptr<AbstractRenderer> stage = queue[i];
      KVAbstractImage* input = i == 0 ? source : intermediates[i - 1].get();
      KVAbstractImage* output = destination;
      if (i + 1 < stageCount) {
        intermediates[i].reset(new KVImage8(input->Width(), input->Height(), input->PixelChannelOrder(), true));
        output = intermediates[i].get();
      }
      stage->Setup(input);
      std::vector<RenderThreadData> records(threadCount);
      for (unsigned char t = 0; t < threadCount; ++t) {
        RenderThreadData& record = records[t];
        record.threadIndex = t;
        record.threadCount = threadCount;
        record.source = input;
        record.destination = output;
        record.renderer = stage;
      }
      const int code = RunThreads(workerEntry, records);
      if (code != 0) result = code;
      if (i > 0) intermediates[i - 1].reset();
    }
    return result;
  });
}

void* RunRenderThreadData(RenderThreadData* data) {
  if (data == nullptr) return ThreadExitValue(0);
  try {
    data->renderer->Render(data->source, data->destination, data->threadIndex, data->threadCount);
  } catch (std::exception& e) {
    return ThreadExitValue(kvo::ConvertExceptionToKVerr(e, kWorkerThreadDefaultCode));
  }
  return ThreadExitValue(0);
}

}  // namespace image
}  // namespace kvo
