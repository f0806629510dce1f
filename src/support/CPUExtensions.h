#ifndef KVIMAGE_SRC_SUPPORT_CPUEXTENSIONS_H
#define KVIMAGE_SRC_SUPPORT_CPUEXTENSIONS_H

// Transitional: the per-share questions below give way to ChooseKernel
// (support/PathChoice.h); this header goes when no stage asks them.

#include "support/PathChoice.h"

namespace kvo {
namespace image {

inline bool UseAVX2() { return kvtl::GetWiderExtension() >= kvtl::kWiderAVX2; }
inline bool UseSSSE3() { return kvtl::GetWiderExtension() >= kvtl::kWiderSSSE3; }

}  // namespace image
}  // namespace kvo

#endif
