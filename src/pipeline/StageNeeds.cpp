#include "pipeline/StageNeeds.h"

#include <kvimage/colour.h>
#include <kvimage/keying.h>

namespace kvo {
namespace image {

bool IsEightBit(const KVAbstractImage& input) { return input.BitsPerChannel() == 0; }

StageNeeds NeedsOf(const AbstractRenderer&) { return StageNeeds{nullptr, false}; }
StageNeeds NeedsOf(const AbstractCompositor&) { return StageNeeds{nullptr, false}; }

// Splits an 8-bit output into byte shares that cover it and writes every
// whole pixel of its share; other depths are refused and written not at all.
StageNeeds NeedsOf(const SpillSuppressor&) { return StageNeeds{IsEightBit, false}; }

// The stages below compute each pixel alone, on one path, from tables Setup
// builds from the arguments only. Stages left out either do not qualify (a
// vector path whose bytes depend on where a pixel falls in its share, a
// whole-image Setup, neighbouring or positional pixels) or have not been
// checked against every path they take.
StageNeeds NeedsOf(const SilhouetteRenderer&) { return StageNeeds{nullptr, true}; }
StageNeeds NeedsOf(const MatteViewRenderer&) { return StageNeeds{nullptr, true}; }
StageNeeds NeedsOf(const ColorTemperatureRenderer&) { return StageNeeds{nullptr, true}; }
StageNeeds NeedsOf(const BleachBypassRenderer&) { return StageNeeds{nullptr, true}; }

}  // namespace image
}  // namespace kvo
