#ifndef KVIMAGE_SRC_PIPELINE_RESULTCODES_H
#define KVIMAGE_SRC_PIPELINE_RESULTCODES_H

#include <exception>

#include <kvimage/pipeline.h>

namespace kvo {
namespace image {

// Result codes returned directly (the others come from exceptions).
enum ResultCode {
  kResultSuccess = 0,
  kResultInvalidCombination = 4,
  kResultOutOfRange = 7,
  kResultOutOfMemory = 8,
  kResultUnsupportedFormat = 10,
  kResultImagesDoNotMatch = 1000
};

// The default code of a public call for a std::exception with no code of its
// own, and of a worker thread.
enum : int { kPublicCallDefaultCode = 2, kWorkerThreadDefaultCode = 1001 };

// Runs the body of a public call: a std::exception becomes its result code.
template <class Body>
int GuardedCall(Body body) {
  try {
    return body();
  } catch (std::exception& e) {
    return kvo::ConvertExceptionToKVerr(e, kPublicCallDefaultCode);
  }
}

}  // namespace image
}  // namespace kvo

#endif
