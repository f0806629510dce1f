#include "pipeline/RendererQueue.h"

#include "support/Conversions.h"

namespace kvo {
namespace image {

unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor) {
  return static_cast<unsigned int>(TruncateToInt(static_cast<double>(radius) * DownsampleValue(factor)));
}

}  // namespace image
}  // namespace kvo
