#ifndef KVIMAGE_SRC_PIPELINE_RENDERLOOP_H
#define KVIMAGE_SRC_PIPELINE_RENDERLOOP_H

#include <kvimage/pipeline.h>

#include <memory>
#include <tr1/memory>
#include <vector>

#include "pipeline/ResultCodes.h"
#include "pipeline/StageNeeds.h"

namespace kvo {
namespace image {

// One queued stage and what it told the queue: an effect or keying stage,
// which reads an input and writes an output, or a compositing stage, which
// works in place on the image it is given as output.
class QueuedStage {
 public:
  explicit QueuedStage(const std::tr1::shared_ptr<AbstractRenderer>& stage, StageNeeds needs = StageNeeds())
      : m_renderer(stage), m_needs(needs) {}
  explicit QueuedStage(const std::tr1::shared_ptr<AbstractCompositor>& stage, StageNeeds needs = StageNeeds())
      : m_compositor(stage), m_needs(needs) {}

  void Setup(KVAbstractImage* input) const;
  void Render(KVAbstractImage* input, KVAbstractImage* output, unsigned char threadIndex,
              unsigned char threadCount) const;
  const StageNeeds& Needs() const { return m_needs; }
  // The stage's work on one block of a pixel pass (Needs().JoinsPixelPass()).
  void RenderBlock(const PixelBlock& block) const { m_needs.renderBlock(*m_renderer, block); }
  bool JoinsPixelPass() const { return m_renderer && m_needs.JoinsPixelPass(); }

 private:
  std::tr1::shared_ptr<AbstractRenderer> m_renderer;
  std::tr1::shared_ptr<AbstractCompositor> m_compositor;
  StageNeeds m_needs;
};

// The body of every render worker: thread threadIndex's share of one stage.
// Returns 0, or the code of the std::exception the stage threw
// (ConvertExceptionToKVerr with the worker default); the stage's own return
// value is not a thread result.
int RenderStageShare(const QueuedStage& stage, KVAbstractImage* input, KVAbstractImage* output,
                     unsigned char threadIndex, unsigned char threadCount);

// How the stages of a queue find their images.
enum StageChaining {
  // Stage 0 reads the source, each stage but the last writes an intermediate
  // of its input's size and order that the next one reads, and the last
  // writes the destination.
  kChainThroughIntermediates,
  // Every stage is set up on and renders in place on the destination.
  kInPlaceOnDestination
};

// The one render loop of the front ends: their queued stages, run one after
// the other, each Setup in the calling thread and then its Render on the
// pass's threads.
class StageQueue {
 public:
  explicit StageQueue(StageChaining chaining) : m_chaining(chaining) {}

  // Takes ownership of stage and appends it with what it tells the queue;
  // returns 0.
  template <class Stage>
  int Append(Stage* stage) {
    Append(QueuedStage(Owned(stage), NeedsOf(*stage)));
    return kResultSuccess;
  }
  // Appends a stage that may be held elsewhere too.
  void Append(const QueuedStage& stage) { m_stages.push_back(stage); }
  unsigned short Count() const { return static_cast<unsigned short>(m_stages.size()); }
  // Drops every stage and every spare intermediate.
  void Clear();
  // Runs every stage in order. Returns the last non-zero thread code; thread
  // failures and exceptions from Setup become result codes (GuardedCall).
  int Render(KVAbstractImage* source, KVAbstractImage* destination);

 private:
  static std::tr1::shared_ptr<AbstractRenderer> Owned(AbstractRenderer* stage) {
    return std::tr1::shared_ptr<AbstractRenderer>(stage);
  }
  static std::tr1::shared_ptr<AbstractCompositor> Owned(AbstractCompositor* stage) {
    return std::tr1::shared_ptr<AbstractCompositor>(stage);
  }
  // The last stage of the step that starts at stage `first` and reads input:
  // the end of the longest run of two or more stages from `first` that can go
  // as one pixel pass, or `first` itself.
  size_t LastOfStep(size_t first, KVAbstractImage* input, KVAbstractImage* destination) const;

  StageChaining m_chaining;
  // In order; StageNeeds beside each stage lets the loop see runs of
  // consecutive stages that work pixel by pixel.
  std::vector<QueuedStage> m_stages;
  // Intermediate images a render has finished with, kept (at most two) for
  // the next intermediate of the same shape, in this render or a later one:
  // their pages are already mapped and often still cached.
  std::vector<std::unique_ptr<KVImage8> > m_spareImages;
};

}  // namespace image
}  // namespace kvo

#endif
