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

// Whether a stage may take its wider path now. Call once per Render (or per
// Setup) and pass the answer down, so one render never mixes paths.
inline bool UseAVX2() { return kvtl::GetWiderExtension() >= kvtl::kWiderAVX2; }
inline bool UseSSE41() { return kvtl::GetWiderExtension() >= kvtl::kWiderSSE41; }
inline bool UseSSSE3() { return kvtl::GetWiderExtension() >= kvtl::kWiderSSSE3; }

}  // namespace image
}  // namespace kvo

// Functions holding a wider path are compiled for that set only; the library
// as a whole stays at the x86-64 baseline and calls them after the checks
// above.
#define KV_TARGET_AVX2 __attribute__((target("avx2")))
#define KV_TARGET_SSE41 __attribute__((target("sse4.1")))
#define KV_TARGET_SSSE3 __attribute__((target("ssse3")))

#endif
