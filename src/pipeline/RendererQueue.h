#ifndef KVIMAGE_SRC_PIPELINE_RENDERERQUEUE_H
#define KVIMAGE_SRC_PIPELINE_RENDERERQUEUE_H

#include <kvimage/pipeline.h>

#include "pipeline/RenderLoop.h"

namespace kvo {
namespace image {

// A radius in a front end's resolution: radius * DownsampleValue(factor),
// truncated toward zero.
unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor);

// The state shared by the image processor and the keyer: their images, tables
// and resolution, and the queue a render runs from the source through
// intermediates to the destination.
struct RendererQueue {
  RendererQueue(KVAbstractImage* sourceImage, KVAbstractImage* destinationImage, kvo::KVLookupTables& lookupTables,
                KVDownsampleFactor downsampleFactor)
      : source(sourceImage),
        destination(destinationImage),
        tables(lookupTables),
        factor(downsampleFactor),
        queue(kChainThroughIntermediates) {}

  KVAbstractImage* source;
  KVAbstractImage* destination;
  kvo::KVLookupTables& tables;
  KVDownsampleFactor factor;
  StageQueue queue;

  // Takes ownership of stage and appends it; returns 0.
  template <class Stage>
  int Append(Stage* stage) {
    return queue.Append(stage);
  }
  unsigned short Count() const { return queue.Count(); }
  // A radius in the front end's resolution: radius * DownsampleValue(factor),
  // truncated toward zero.
  unsigned int ScaledRadius(unsigned int radius) const { return image::ScaledRadius(radius, factor); }
  int Clear() {
    return GuardedCall([&] {
      queue.Clear();
      return kResultSuccess;
    });
  }
  int Render() { return queue.Render(source, destination); }
};

// The private records of the processor and the keyer: the same state.
struct KVImageProcessor_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};
struct KVImageKeyer_Private : RendererQueue {
  using RendererQueue::RendererQueue;
};

}  // namespace image
}  // namespace kvo

#endif
