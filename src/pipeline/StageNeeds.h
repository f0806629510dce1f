#ifndef KVIMAGE_SRC_PIPELINE_STAGENEEDS_H
#define KVIMAGE_SRC_PIPELINE_STAGENEEDS_H

#include <cstddef>

#include <kvimage/pipeline.h>

#include "support/AssertionSites.h"

namespace kvo {
namespace image {

class AlphaCrop;
class BleachBypassRenderer;
class BrightnessRenderer;
class ColorBalanceRenderer;
class ColorDifferenceKeyer;
class ColorTemperatureRenderer;
class ContrastRenderer;
class MatteViewRenderer;
class OpacityRenderer;
class SaturationRenderer;
class SilhouetteRenderer;
class SpillSuppressor;
class ThreeStripColorRenderer;
class TintRenderer;
class WhiteErodeRenderer;

// A block of one thread's share in a pass that carries it through a run of
// pixel-by-pixel stages: `pixels` pixels read from `in` and written to `out`
// (the same place or separate, never partly overlapping). Every stage of the
// pass has `image`'s size and order in and out, so its thread shares are
// those of `image` at (threadIndex, threadCount), and the block lies inside
// thread threadIndex's share.
struct PixelBlock {
  const unsigned char* in;
  unsigned char* out;
  size_t pixels;
  KVAbstractImage* image;
  unsigned char threadIndex;
  unsigned char threadCount;
};

// What a stage tells the queue that runs it beyond its interface: facts the
// queue may use to save work without changing a byte of the render.
struct StageNeeds {
  // Null, or whether the stage, given this input, writes every byte of an
  // output of the input's size and order at every thread count from 1 up,
  // whatever the pixels: then the zero fill of an intermediate it writes can
  // never be seen.
  bool (*writesWholeOutputFor)(const KVAbstractImage& input);
  // Each output pixel comes from the same input pixel alone, by the same
  // computation wherever the pixel falls within a thread's share (a stage
  // whose vector path serves only some shares picks per share), and Setup
  // makes no pass over the image: a run of such stages can be done as one
  // pass over cache-sized blocks.
  bool pixelByPixel;
  // Null, or the stage's work on one block of a pass over a run of
  // pixel-by-pixel stages: exactly the kernel and formula its Render gives
  // those pixels at that thread index and count, after its Setup, writing
  // every byte of the block. Only a stage with this entry joins such a pass,
  // and only for 8-bit BGRA images, where its Render passes every check it
  // makes.
  void (*renderBlock)(AbstractRenderer& stage, const PixelBlock& block) = nullptr;

  bool JoinsPixelPass() const { return pixelByPixel && renderBlock != nullptr; }
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
StageNeeds NeedsOf(const BrightnessRenderer& stage);
StageNeeds NeedsOf(const ContrastRenderer& stage);
StageNeeds NeedsOf(const SaturationRenderer& stage);
StageNeeds NeedsOf(const TintRenderer& stage);
StageNeeds NeedsOf(const OpacityRenderer& stage);
StageNeeds NeedsOf(const ColorBalanceRenderer& stage);
StageNeeds NeedsOf(const ThreeStripColorRenderer& stage);

}  // namespace image
}  // namespace kvo

#endif
