#include "pipeline/FrontEndState.h"

#include "pipeline/Catalogue.h"
#include "pipeline/ResultCodes.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

unsigned int ScaledRadius(unsigned int radius, KVDownsampleFactor factor) {
  return static_cast<unsigned int>(TruncateToInt(static_cast<double>(radius) * DownsampleValue(factor)));
}

int FrontEndState::Refused(const char* setter, std::initializer_list<double> arguments,
                           const KVAbstractImage* layer) const {
  return RefusedArguments(CatalogueRow(frontEnd, setter), arguments, layer, destination);
}

int FrontEndState::Clear() {
  return GuardedCall([&] {
    queue.Clear();
    return kResultSuccess;
  });
}

FrontEndState::~FrontEndState() {
  try {
    queue.Clear();
  } catch (std::exception&) {
  }
}

}  // namespace image
}  // namespace kvo
