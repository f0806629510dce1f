#ifndef KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H
#define KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H

#include <cstdint>

#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// The result r(top, bottom) of each blend mode before opacity, one type per
// mode so that a loop over many pixels can be compiled for one mode.

// A plain integer sum, limited to 255. Summed unsigned so that host values
// outside 0..255 wrap instead of overflowing.
struct BlendAddOperation {
  static int Apply(kvo::KVLookupTables&, int top, int bottom) {
    const int sum = static_cast<int>(static_cast<uint32_t>(top) + static_cast<uint32_t>(bottom));
    return sum >= 256 ? 255 : sum;
  }
};

// Normal, and every mode without a curve of its own.
struct BlendTopOperation {
  static int Apply(kvo::KVLookupTables&, int top, int) { return top; }
};

typedef unsigned char (kvo::KVLookupTables::*BlendCurve)(unsigned char top, unsigned char bottom);

// A table curve on the low bytes of both operands.
template <BlendCurve Curve>
struct BlendCurveOperation {
  static int Apply(kvo::KVLookupTables& tables, int top, int bottom) {
    return (tables.*Curve)(static_cast<unsigned char>(top & 255), static_cast<unsigned char>(bottom & 255));
  }
};

// Calls action.Run<Operation>() with the operation of mode: add, the eleven
// curves, and the top value for normal, replace and every unknown mode.
// Callers that treat replace differently test for it first.
template <class Action>
int DispatchBlendMode(KVBlendMode mode, Action& action) {
  typedef kvo::KVLookupTables T;
  switch (static_cast<uint32_t>(mode)) {
    case kBlendAdd: return action.template Run<BlendAddOperation>();
    case kBlendColorBurn: return action.template Run<BlendCurveOperation<&T::ColorBurnBlend> >();
    case kBlendColorDodge: return action.template Run<BlendCurveOperation<&T::ColorDodgeBlend> >();
    case kBlendDarken: return action.template Run<BlendCurveOperation<&T::DarkenBlend> >();
    case kBlendDifference: return action.template Run<BlendCurveOperation<&T::DifferenceBlend> >();
    case kBlendExclusion: return action.template Run<BlendCurveOperation<&T::ExclusionBlend> >();
    case kBlendHardLight: return action.template Run<BlendCurveOperation<&T::HardLightBlend> >();
    case kBlendLighten: return action.template Run<BlendCurveOperation<&T::LightenBlend> >();
    case kBlendMultiply: return action.template Run<BlendCurveOperation<&T::MultiplyBlend> >();
    case kBlendOverlay: return action.template Run<BlendCurveOperation<&T::OverlayBlend> >();
    case kBlendScreen: return action.template Run<BlendCurveOperation<&T::ScreenBlend> >();
    case kBlendSoftLight: return action.template Run<BlendCurveOperation<&T::SoftLightBlend> >();
    default: return action.template Run<BlendTopOperation>();
  }
}

// bottom + (((result - bottom) * opacity) >> 8): a signed 32-bit product with
// an arithmetic shift, so a negative step rounds toward minus infinity and an
// opacity of 255 stops one short of result. Computed in wrapping 32-bit
// arithmetic so that out-of-range host values cannot overflow.
inline int BlendTowards(int bottom, int result, int opacity) {
  const uint32_t step = static_cast<uint32_t>(result) - static_cast<uint32_t>(bottom);
  const int32_t product = static_cast<int32_t>(step * static_cast<uint32_t>(opacity));
  return static_cast<int32_t>(static_cast<uint32_t>(bottom) + static_cast<uint32_t>(product >> 8));
}

}  // namespace image
}  // namespace kvo

#endif
