#include <cstdint>

#include <kvimage/compositing.h>

#include "compositing/BlendOperations.h"

namespace kvo {
namespace image {

namespace {

struct BlendResult {
  kvo::KVLookupTables& tables;
  int top;
  int bottom;
  template <class Operation>
  int Run() {
    return Operation::Apply(tables, top, bottom);
  }
};

}  // namespace

int BlendPixel(int bottom, int top, KVBlendMode mode, int opacity, kvo::KVLookupTables& tables) {
  if (static_cast<uint32_t>(mode) > static_cast<uint32_t>(kBlendReplace)) return BlendTowards(bottom, top, opacity);
  // Replace writes the top value whole, however weak the opacity.
  if (mode == kBlendReplace) return top;
  BlendResult result = {tables, top, bottom};
  return BlendTowards(bottom, DispatchBlendMode(mode, result), opacity);
}

}  // namespace image
}  // namespace kvo
