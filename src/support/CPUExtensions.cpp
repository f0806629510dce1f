#include <cpuid.h>

#include <kvimage/support.h>

namespace kvtl {

void GetCPUExtensions(CPUExtensions& extensions) {
  extensions.mmx = true;
  extensions.sse = true;
  extensions.sse2 = true;
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) extensions.sse3 = (ecx & bit_SSE3) != 0;
}

}  // namespace kvtl
