#ifndef KVIMAGE_SRC_PIPELINE_STAGENEEDS_H
#define KVIMAGE_SRC_PIPELINE_STAGENEEDS_H

#include <kvimage/pipeline.h>

#include "support/AssertionSites.h"

namespace kvo {
namespace image {

class AlphaCrop;
class BleachBypassRenderer;
class ColorDifferenceKeyer;
class ColorTemperatureRenderer;
class MatteViewRenderer;
class SilhouetteRenderer;
class SpillSuppressor;
class WhiteErodeRenderer;

// What a stage tells the queue that runs it beyond its interface: facts the
// queue may use to save work without changing a byte of the render.
struct StageNeeds {
  // Null, or whether the stage, given this input, writes every byte of an
  // output of the input's size and order at every thread count from 1 up,
  // whatever the pixels: then the zero fill of an intermediate it writes can
  // never be seen.
  bool (*writesWholeOutputFor)(const KVAbstractImage& input);
  // Each output pixel comes from the same input pixel alone, by the same
  // computation wherever the pixel falls in a thread's share, and Setup makes
  // no pass over the image: a run of such stages could be done as one pass
  // over cache-sized blocks.
  bool pixelByPixel;

  bool WritesWholeOutput(const KVAbstractImage& input) const {
    return writesWholeOutputFor != nullptr && writesWholeOutputFor(input);
  }
};

// Input conditions for StageNeeds::writesWholeOutputFor.
inline bool IsEightBit(const KVAbstractImage& input) { return input.BitsPerChannel() == 0; }

// What each stage tells the queue, chosen by overload resolution on the
// stage's class when it is queued. Any stage no overload names tells nothing.
inline StageNeeds NeedsOf(const AbstractRenderer&) { return StageNeeds{nullptr, false}; }
inline StageNeeds NeedsOf(const AbstractCompositor&) { return StageNeeds{nullptr, false}; }

// The stages that tell something, each defined in the stage's own file.
StageNeeds NeedsOf(const ColorDifferenceKeyer& stage);
StageNeeds NeedsOf(const SpillSuppressor& stage);
StageNeeds NeedsOf(const AlphaCrop& stage);
StageNeeds NeedsOf(const WhiteErodeRenderer& stage);
StageNeeds NeedsOf(const SilhouetteRenderer& stage);
StageNeeds NeedsOf(const MatteViewRenderer& stage);
StageNeeds NeedsOf(const ColorTemperatureRenderer& stage);
StageNeeds NeedsOf(const BleachBypassRenderer& stage);

}  // namespace image
}  // namespace kvo

#endif
