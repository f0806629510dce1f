#include "pipeline/RenderLoop.h"

#include <cstring>
#include <memory>

#include "support/ParallelPass.h"

namespace kvo {
namespace image {

void QueuedStage::Setup(KVAbstractImage* input) const {
  if (m_renderer) {
    m_renderer->Setup(input);
  } else {
    m_compositor->Setup(input);
  }
}

void QueuedStage::Render(KVAbstractImage* input, KVAbstractImage* output, unsigned char threadIndex,
                         unsigned char threadCount) const {
  if (m_renderer) {
    m_renderer->Render(input, output, threadIndex, threadCount);
  } else {
    m_compositor->Render(output, threadIndex, threadCount);
  }
}

int RenderStageShare(const QueuedStage& stage, KVAbstractImage* input, KVAbstractImage* output,
                     unsigned char threadIndex, unsigned char threadCount) {
  try {
    stage.Render(input, output, threadIndex, threadCount);
  } catch (std::exception& e) {
    return kvo::ConvertExceptionToKVerr(e, kWorkerThreadDefaultCode);
  }
  return kResultSuccess;
}

namespace {

void* RenderRecordShare(RenderThreadData* record) {
  if (record == nullptr) return ThreadExitValue(0);
  return ThreadExitValue(RenderStageShare(QueuedStage(record->renderer), record->source, record->destination,
                                          record->threadIndex, record->threadCount));
}

}  // namespace

void* ProcessorRenderWorkerThread(void* data) { return RenderRecordShare(static_cast<RenderThreadData*>(data)); }

void* KeyRenderWorkerThread(void* data) { return RenderRecordShare(static_cast<RenderThreadData*>(data)); }

void* CompositeRenderWorkerThread(void* data) {
  CompositeThreadData* record = static_cast<CompositeThreadData*>(data);
  if (record == nullptr) return ThreadExitValue(0);
  return ThreadExitValue(RenderStageShare(QueuedStage(record->compositor), record->background, record->background,
                                          record->threadIndex, record->threadCount));
}

namespace {

const size_t kThreadedZeroFillBytes = 1 << 20;
const size_t kMostSpareImages = 2;

// An image of the input's size and order for a stage to write, taken from the
// spares when one fits: all zero, filled on the pass's threads, unless the
// stage tells it overwrites it (then its earlier bytes cannot show).
std::unique_ptr<KVImage8> NewIntermediate(const StageNeeds& needs, KVAbstractImage* input, unsigned char threadCount,
                                          std::vector<std::unique_ptr<KVImage8> >& spares) {
  std::unique_ptr<KVImage8> held;
  for (size_t k = 0; k < spares.size(); ++k) {
    KVImage8* spare = spares[k].get();
    if (spare->Width() == input->Width() && spare->Height() == input->Height() &&
        spare->PixelChannelOrder() == input->PixelChannelOrder()) {
      held = std::move(spares[k]);
      spares.erase(spares.begin() + static_cast<std::ptrdiff_t>(k));
      break;
    }
  }
  if (!held) held.reset(new KVImage8(input->Width(), input->Height(), input->PixelChannelOrder(), false));
  KVImage8* image = held.get();
  if (threadCount != 0 && needs.WritesWholeOutput(*input)) return held;
  // A small image is cleared at once; a large one by the pass's threads,
  // each a contiguous share.
  const size_t bytes = image->BufferByteSize();
  if (threadCount <= 1 || bytes < kThreadedZeroFillBytes) {
    if (bytes != 0) std::memset(image->Buffer(), 0, bytes);
    return held;
  }
  RunParallel(threadCount, [&](unsigned char threadIndex, unsigned char count) {
    const ShareRun share = EvenShare(bytes, threadIndex, count);
    if (share.count != 0) std::memset(image->Buffer() + share.start, 0, share.count);
    return 0;
  });
  return held;
}

// Releases an intermediate, keeping its image as a spare.
void KeepSpare(std::unique_ptr<KVImage8>& image, std::vector<std::unique_ptr<KVImage8> >& spares) {
  if (!image) return;
  if (spares.size() == kMostSpareImages) spares.erase(spares.begin());
  spares.push_back(std::move(image));
}

}  // namespace

void StageQueue::Clear() {
  m_stages.clear();
  m_spareImages.clear();
}

int StageQueue::Render(KVAbstractImage* source, KVAbstractImage* destination) {
  return GuardedCall([&] {
    const size_t stageCount = m_stages.size();
    const bool chained = m_chaining == kChainThroughIntermediates;
    // intermediates[i] is what stage i writes for stage i + 1, released one
    // stage later.
    std::vector<std::unique_ptr<KVImage8> > intermediates(chained ? stageCount : 0);
    const unsigned char threadCount = PassThreadCount();
    int result = kResultSuccess;
    for (size_t i = 0; i < stageCount; ++i) {
      const QueuedStage& stage = m_stages[i];
      KVAbstractImage* input = destination;
      KVAbstractImage* output = destination;
      if (chained) {
        input = i == 0 ? source : intermediates[i - 1].get();
        if (i + 1 < stageCount) {
          intermediates[i] = NewIntermediate(stage.Needs(), input, threadCount, m_spareImages);
          output = intermediates[i].get();
        }
      }
      stage.Setup(input);
      const int code = RunParallel(threadCount, [&](unsigned char threadIndex, unsigned char count) {
        return RenderStageShare(stage, input, output, threadIndex, count);
      });
      if (code != 0) result = code;
      if (chained && i > 0) KeepSpare(intermediates[i - 1], m_spareImages);
    }
    if (chained && stageCount >= 2) KeepSpare(intermediates[stageCount - 2], m_spareImages);
    return result;
  });
}

}  // namespace image
}  // namespace kvo
