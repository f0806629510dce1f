#include "pipeline/RenderLoop.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "support/AssertionSites.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

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

// The pixels a thread carries through every stage of a pixel pass at a time:
// 8 KiB, so that the block, the pixels it is read from and the stages' tables
// stay in a core's first-level cache from one stage to the next.
const size_t kPixelPassBlockPixels = 2048;

// Whether input (and output, which has input's size and order or is input)
// suit a pixel pass: 8-bit BGRA, what every stage that joins one serves and
// checks for, and holding exactly width x height pixels, so that each stage's
// byte and pixel shares are the same runs.
bool SuitsPixelPass(KVAbstractImage* input, KVAbstractImage* output) {
  const unsigned long long bytes =
      static_cast<unsigned long long>(input->Width()) * input->Height() * kBytesPerPixel;
  if (!IsBGRA8(*input) || input->BufferByteSize() != bytes) return false;
  if (output == input) return true;
  if (!IsBGRA8(*output) || output->Width() != input->Width() || output->Height() != input->Height() ||
      output->BufferByteSize() != bytes) {
    return false;
  }
  // A thread writes its share of the output while others still read theirs of
  // the input: the two must be one buffer or apart.
  const std::less<const unsigned char*> before;
  const unsigned char* in = PixelBytes(input);
  const unsigned char* out = PixelBytes(output);
  return in == out || !before(in, out + bytes) || !before(out, in + bytes);
}

// What a pixel pass tells of its output: it writes every byte (each joining
// stage writes all of every block, and the shares cover the image).
const StageNeeds kPixelPassNeeds = {IsBGRA8, true};

// Stages first..last, set up in order, then one pass in which each thread
// carries its share block by block through all of them: the first stage reads
// the input into a block buffer, the middle ones work on it in place, the last
// writes the output. The share is the byte share every joining stage takes
// (input and output have one size, see SuitsPixelPass). Returns what the
// separate passes would: the last non-zero code of a thread, a thread's code
// being that of the first exception a stage threw.
int RunPixelPass(const std::vector<QueuedStage>& stages, size_t first, size_t last, KVAbstractImage* input,
                 KVAbstractImage* output, unsigned char threadCount) {
  // Each stage would be set up on the intermediate it reads, which has the
  // input's size and order; these stages read nothing else of it.
  for (size_t s = first; s <= last; ++s) stages[s].Setup(input);
  return RunParallel(threadCount, [&](unsigned char threadIndex, unsigned char count) {
    const ShareRun share = ByteShare(input->Width(), input->Height(), threadIndex, count, input->BufferByteSize());
    const size_t start = share.start / kBytesPerPixel, pixels = share.count / kBytesPerPixel;
    alignas(64) unsigned char block[kPixelPassBlockPixels * kBytesPerPixel];
    try {
      for (size_t done = 0; done < pixels; done += kPixelPassBlockPixels) {
        const size_t at = (start + done) * kBytesPerPixel;
        PixelBlock step{PixelBytes(input) + at, block, std::min(kPixelPassBlockPixels, pixels - done), input,
                        threadIndex, count};
        for (size_t s = first; s <= last; ++s) {
          if (s == last) step.out = PixelBytes(output) + at;
          stages[s].RenderBlock(step);
          step.in = block;
        }
      }
    } catch (std::exception& e) {
      return kvo::ConvertExceptionToKVerr(e, kWorkerThreadDefaultCode);
    }
    return static_cast<int>(kResultSuccess);
  });
}

}  // namespace

size_t StageQueue::LastOfStep(size_t first, KVAbstractImage* input, KVAbstractImage* destination) const {
  if (m_chaining != kChainThroughIntermediates || !SuitsPixelPass(input, input)) return first;
  size_t last = first;
  while (last + 1 < m_stages.size() && m_stages[last].JoinsPixelPass() && m_stages[last + 1].JoinsPixelPass()) {
    ++last;
  }
  // The last stage of the queue writes the destination, which may not suit.
  if (last + 1 == m_stages.size() && last > first && !SuitsPixelPass(input, destination)) --last;
  return last;
}

void StageQueue::Clear() {
  m_stages.clear();
  m_spareImages.clear();
}

int StageQueue::Render(KVAbstractImage* source, KVAbstractImage* destination) {
  return GuardedCall([&] {
    const size_t stageCount = m_stages.size();
    const bool chained = m_chaining == kChainThroughIntermediates;
    // intermediates[i] is what stage i writes for stage i + 1, released once
    // the stage that reads it is done.
    std::vector<std::unique_ptr<KVImage8> > intermediates(chained ? stageCount : 0);
    const unsigned char threadCount = PassThreadCount();
    int result = kResultSuccess;
    // Each step is one stage, or a run of pixel-by-pixel stages done as one
    // pass without the intermediates between them.
    for (size_t i = 0, last = 0; i < stageCount; i = last + 1) {
      KVAbstractImage* input = destination;
      KVAbstractImage* output = destination;
      if (chained) input = i == 0 ? source : intermediates[i - 1].get();
      last = LastOfStep(i, input, destination);
      if (chained && last + 1 < stageCount) {
        intermediates[last] =
            NewIntermediate(last > i ? kPixelPassNeeds : m_stages[last].Needs(), input, threadCount, m_spareImages);
        output = intermediates[last].get();
      }
      int code = kResultSuccess;
      if (last > i) {
        code = RunPixelPass(m_stages, i, last, input, output, threadCount);
      } else {
        const QueuedStage& stage = m_stages[i];
        stage.Setup(input);
        code = RunParallel(threadCount, [&](unsigned char threadIndex, unsigned char count) {
          return RenderStageShare(stage, input, output, threadIndex, count);
        });
      }
      if (code != 0) result = code;
      if (chained && i > 0) KeepSpare(intermediates[i - 1], m_spareImages);
    }
    if (chained && stageCount >= 2) KeepSpare(intermediates[stageCount - 2], m_spareImages);
    return result;
  });
}

}  // namespace image
}  // namespace kvo
