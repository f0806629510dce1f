#ifndef KVIMAGE_SRC_PIPELINE_FRONTENDSTATE_H
#define KVIMAGE_SRC_PIPELINE_FRONTENDSTATE_H

#include <initializer_list>

#include <kvimage/catalogue.h>
#include <kvimage/pipeline.h>

#include "pipeline/RenderLoop.h"

namespace kvo {
namespace image {

// A radius in a front end's resolution: radius * DownsampleValue(factor),
// truncated toward zero.
unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor);

// The state of every front end: its images, tables and resolution, and its
// queue. The processor and the keyer run from the source through
// intermediates to the destination; the compositor's source and destination
// are both the background, which every stage works on in place.
struct FrontEndState {
  FrontEndState(KVFrontEnd kind, KVAbstractImage* sourceImage, KVAbstractImage* destinationImage,
                kvo::KVLookupTables& lookupTables, KVDownsampleFactor downsampleFactor)
      : frontEnd(kind),
        source(sourceImage),
        destination(destinationImage),
        tables(lookupTables),
        factor(downsampleFactor),
        queue(kind == kFrontEndCompositor ? kInPlaceOnDestination : kChainThroughIntermediates) {}

  KVFrontEnd frontEnd;
  KVAbstractImage* source;
  KVAbstractImage* destination;
  kvo::KVLookupTables& tables;
  KVDownsampleFactor factor;
  StageQueue queue;

  // The code the setter's catalogue row refuses these arguments with, or 0
  // (layer: the argument of a layer check, matched against the destination).
  int Refused(const char* setter, std::initializer_list<double> arguments,
              const KVAbstractImage* layer = nullptr) const;
  // Takes ownership of stage and appends it; returns 0.
  template <class Stage>
  int Append(Stage* stage) {
    return queue.Append(stage);
  }
  unsigned short Count() const { return queue.Count(); }
  // A radius in the front end's resolution.
  unsigned int ScaledRadius(unsigned int radius) const { return image::ScaledRadius(radius, factor); }
  int Clear();
  int Render() { return queue.Render(source, destination); }
  // The front end's destructor: the queue goes first, whatever it throws.
  ~FrontEndState();
};

// The private records of the three front ends: the same state.
struct KVImageProcessor_Private : FrontEndState {
  using FrontEndState::FrontEndState;
};
struct KVImageKeyer_Private : FrontEndState {
  using FrontEndState::FrontEndState;
};
struct KVImageCompositor_Private : FrontEndState {
  using FrontEndState::FrontEndState;
};

}  // namespace image
}  // namespace kvo

#endif
