#ifndef KVIMAGE_SRC_SUPPORT_CPUEXTENSIONS_H
#define KVIMAGE_SRC_SUPPORT_CPUEXTENSIONS_H

#include <kvimage/support.h>

namespace kvo {
namespace image {

// The record a setter hands its stage: all four flags cleared, then filled by
// kvtl::GetCPUExtensions.
inline kvtl::CPUExtensions DetectedCPUExtensions() {
  kvtl::CPUExtensions extensions = {false, false, false, false};
  kvtl::GetCPUExtensions(extensions);
  return extensions;
}

}  // namespace image
}  // namespace kvo

#endif
