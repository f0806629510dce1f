#ifndef KVIMAGE_SRC_SUPPORT_PATHCHOICE_H
#define KVIMAGE_SRC_SUPPORT_PATHCHOICE_H

// The one way a stage chooses between its plain kernel and its vector ones.
//
// A stage with several paths writes one kernel per instruction set under one
// signature, side by side and plain first: Name_Plain, Name_SSE2, Name_SSSE3,
// Name_AVX2, Name_AVX512VBMI (only the rungs that exist). Each returns how many pixels (or
// units) it did; the plain kernel finishes the tail. The stage picks its
// kernel once, in Setup or at construction, into a function pointer with
// ChooseKernel, and Render only calls through it.

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

// The kernels of one stage, widest last; a rung the stage does not have is
// null.
template <class Kernel>
struct KernelRungs {
  Kernel plain;
  Kernel sse2;
  Kernel ssse3;
  Kernel avx2;
  Kernel avx512vbmi = nullptr;
};

// The widest kernel allowed now. SSE2 (the x86-64 baseline) is allowed
// unless the stage's documented record says otherwise (sse2Allowed false
// sends the stage down its plain path whatever the wider rungs); the wider
// rungs follow the processor and the host's cap (kvtl::GetWiderExtension).
template <class Kernel>
Kernel ChooseKernel(const KernelRungs<Kernel>& rungs, bool sse2Allowed = true) {
  if (!sse2Allowed) return rungs.plain;
  const kvtl::WiderExtension wider = kvtl::GetWiderExtension();
  if (rungs.avx512vbmi != nullptr && wider >= kvtl::kWiderAVX512VBMI) return rungs.avx512vbmi;
  if (rungs.avx2 != nullptr && wider >= kvtl::kWiderAVX2) return rungs.avx2;
  if (rungs.ssse3 != nullptr && wider >= kvtl::kWiderSSSE3) return rungs.ssse3;
  if (rungs.sse2 != nullptr) return rungs.sse2;
  return rungs.plain;
}

}  // namespace image
}  // namespace kvo

// Kernels of a wider set are compiled for that set only; the library as a
// whole stays at the x86-64 baseline and calls them after ChooseKernel.
#define KV_TARGET_AVX2 __attribute__((target("avx2")))
#define KV_TARGET_SSSE3 __attribute__((target("ssse3")))
#define KV_TARGET_AVX512VBMI __attribute__((target("avx512f,avx512bw,avx512vbmi")))

#endif
