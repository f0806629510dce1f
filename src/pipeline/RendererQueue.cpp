#include "pipeline/RendererQueue.h"

#include <algorithm>
#include <cstring>

#include <kvimage/keying.h>

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
    spareImages.clear();
    return kResultSuccess;
  });
}

namespace {

// Whether every thread count from 1 up makes `stage` write every byte of an
// output of its input's size and order, whatever the pixels: then the zero
// fill of an intermediate it writes can never be seen. Each of these stages
// splits the output into shares that cover it, writes every byte of its
// share, and cannot fail once it has passed the format check (the white
// erode takes its threads' scratch in Setup).
bool WritesWholeOutput(AbstractRenderer* stage, KVAbstractImage* input) {
  if (input->BitsPerChannel() != 0) return false;  // these stages refuse it and write nothing
  if (dynamic_cast<ColorDifferenceKeyer*>(stage) != nullptr) return true;
  if (dynamic_cast<SpillSuppressor*>(stage) != nullptr) return true;
  // The matte clean-up stages abort on other orders.
  if (input->PixelChannelOrder() != kPixelOrderBGRA) return false;
  return dynamic_cast<AlphaCrop*>(stage) != nullptr || dynamic_cast<WhiteErodeRenderer*>(stage) != nullptr;
}

const size_t kThreadedZeroFillBytes = 1 << 20;

struct ZeroFillShare {
  unsigned char* bytes;
  size_t count;
};

void* ZeroFillProc(void* argument) {
  const ZeroFillShare& share = *static_cast<ZeroFillShare*>(argument);
  if (share.count != 0) std::memset(share.bytes, 0, share.count);
  return ThreadExitValue(0);
}

const size_t kMostSpareImages = 2;

// An image of the input's size and order for stage to write, taken from the
// spares when one fits: all zero, filled on the pass's threads, unless the
// stage is known to overwrite it (then its earlier bytes cannot show).
std::tr1::shared_ptr<KVAbstractImage> NewIntermediate(AbstractRenderer* stage, KVAbstractImage* input,
                                                      unsigned char threadCount,
                                                      std::vector<std::tr1::shared_ptr<KVAbstractImage> >& spares) {
  std::tr1::shared_ptr<KVAbstractImage> held;
  for (size_t k = 0; k < spares.size(); ++k) {
    KVAbstractImage* spare = spares[k].get();
    if (spare->Width() == input->Width() && spare->Height() == input->Height() &&
        spare->PixelChannelOrder() == input->PixelChannelOrder()) {
      held = spares[k];
      spares.erase(spares.begin() + static_cast<std::ptrdiff_t>(k));
      break;
    }
  }
  if (!held) held.reset(new KVImage8(input->Width(), input->Height(), input->PixelChannelOrder(), false));
  KVImage8* image = static_cast<KVImage8*>(held.get());
  if (threadCount != 0 && WritesWholeOutput(stage, input)) return held;
  // A small image is cleared at once; a large one by the pass's threads,
  // each a contiguous share.
  const size_t bytes = image->BufferByteSize();
  if (threadCount <= 1 || bytes < kThreadedZeroFillBytes) {
    if (bytes != 0) std::memset(image->Buffer(), 0, bytes);
    return held;
  }
  const size_t share = (bytes + threadCount - 1) / threadCount;
  std::vector<ZeroFillShare> shares(threadCount);
  for (size_t t = 0; t < threadCount; ++t) {
    const size_t start = std::min(bytes, t * share);
    shares[t] = ZeroFillShare{image->Buffer() + start, std::min(share, bytes - start)};
  }
  RunThreads(ZeroFillProc, shares);
  return held;
}

// Releases an intermediate, keeping its image as a spare when nothing else
// holds it.
void KeepSpare(std::tr1::shared_ptr<KVAbstractImage>& image,
               std::vector<std::tr1::shared_ptr<KVAbstractImage> >& spares) {
  if (image && image.use_count() == 1) {
    if (spares.size() == kMostSpareImages) spares.erase(spares.begin());
    spares.push_back(image);
  }
  image.reset();
}

}  // namespace

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
        intermediates[i] = NewIntermediate(stage.get(), input, threadCount, spareImages);
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
      if (i > 0) KeepSpare(intermediates[i - 1], spareImages);
    }
    if (stageCount >= 2) KeepSpare(intermediates[stageCount - 2], spareImages);
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
