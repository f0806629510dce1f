#include <kvimage/support.h>

#include <cpuid.h>

#include <atomic>

namespace kvtl {

void GetCPUExtensions(CPUExtensions& extensions) {
  extensions.mmx = true;
  extensions.sse = true;
  extensions.sse2 = true;
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) extensions.sse3 = (ecx & bit_SSE3) != 0;
}

namespace {

WiderExtension DetectWiderExtension() {
  // __builtin_cpu_supports also checks that the operating system saves the
  // wide registers (XSAVE/OSXSAVE) before it reports AVX2.
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vbmi")) {
    return kWiderAVX512VBMI;
  }
  if (__builtin_cpu_supports("avx2")) return kWiderAVX2;
  if (__builtin_cpu_supports("sse4.1")) return kWiderSSE41;
  if (__builtin_cpu_supports("ssse3")) return kWiderSSSE3;
  return kWiderNone;
}

std::atomic<int> g_widerLimit{kWiderAVX512VBMI};

}  // namespace

WiderExtension GetSupportedWiderExtension() {
  static const WiderExtension supported = DetectWiderExtension();
  return supported;
}

WiderExtension GetWiderExtension() {
  const int limit = g_widerLimit.load(std::memory_order_relaxed);
  const WiderExtension supported = GetSupportedWiderExtension();
  return limit < supported ? static_cast<WiderExtension>(limit) : supported;
}

void LimitWiderExtension(WiderExtension limit) {
  // Any integer a host casts in is accepted: below none means none, above
  // the widest means no cap.
  const int value = static_cast<int>(limit);
  g_widerLimit.store(value < kWiderNone ? kWiderNone : (value > kWiderAVX512VBMI ? kWiderAVX512VBMI : value),
                     std::memory_order_relaxed);
}

}  // namespace kvtl
