#ifndef KVIMAGE_SRC_PIPELINE_RENDERERQUEUE_H
#define KVIMAGE_SRC_PIPELINE_RENDERERQUEUE_H

#include <kvimage/pipeline.h>

#include <tr1/memory>
#include <vector>

#include "support/Threads.h"

namespace kvo {
namespace image {

// A radius in a front end's resolution: radius * DownsampleValue(factor),
// truncated toward zero.
unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor);

// The state and queue algorithm shared by the image processor and the keyer.
struct RendererQueue {
  RendererQueue(KVAbstractImage* sourceImage, KVAbstractImage* destinationImage, kvo::KVLookupTables& lookupTables,
                KVDownsampleFactor downsampleFactor)
      : source(sourceImage), destination(destinationImage), tables(lookupTables), factor(downsampleFactor) {}

  KVAbstractImage* source;
  KVAbstractImage* destination;
  kvo::KVLookupTables& tables;
  KVDownsampleFactor factor;
  std::vector<std::tr1::shared_ptr<AbstractRenderer> > queue;
  // Intermediate images a render has finished with, kept (at most two) for
  // the next intermediate of the same shape, in this render or a later one:
  // their pages are already mapped and often still cached.
  std::vector<std::tr1::shared_ptr<KVAbstractImage> > spareImages;

  // Takes ownership of stage and appends it; returns 0.
  int Append(AbstractRenderer* stage);
  unsigned short Count() const;
  // A radius in the front end's resolution: radius * DownsampleValue(factor),
  // truncated toward zero.
  unsigned int ScaledRadius(unsigned int radius) const;
  int Clear();
  // Runs every stage in order: stage 0 reads the source, each stage but the
  // last writes a fresh zero-filled image that the next one reads and that is
  // released one stage later, and the last writes the destination. Returns
  // the last non-zero thread code; thread failures and exceptions from Setup
  // become result codes.
  int Render(ThreadEntry workerEntry);
};

// The private records of the processor and the keyer: the same queue.
struct KVImageProcessor_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};
struct KVImageKeyer_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};

// The body of both renderer worker entries.
void* RunRenderThreadData(RenderThreadData* data);

}  // namespace image
}  // namespace kvo

#endif
