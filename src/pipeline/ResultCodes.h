#ifndef KVIMAGE_SRC_PIPELINE_RESULTCODES_H
#define KVIMAGE_SRC_PIPELINE_RESULTCODES_H

#include <exception>

#include <kvimage/pipeline.h>

namespace kvo {
namespace image {

// The default code of a public call for a std::exception with no code of its
// own, and of a worker thread.
enum : int { kPublicCallDefaultCode = kResultRuntimeError, kWorkerThreadDefaultCode = kResultWorkerFailure };

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
