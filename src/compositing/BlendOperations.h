#ifndef KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H
#define KVIMAGE_SRC_COMPOSITING_BLENDOPERATIONS_H

#include <cstdint>
#include <cstring>

#include <kvimage/image.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

#include "support/Assert.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"

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

// An opacity or amount limited to 0 .. 1; NaN counts as 0.
inline double ClampedUnit(double value) { return value > 0.0 ? (value < 1.0 ? value : 1.0) : 0.0; }

// fa for each layer alpha: clamp(trunc(alpha * opacity), 0, 255). A NaN or
// out-of-range product comes out of the conversion clamped, so it composites
// as 0 (or full) instead of reaching the arithmetic.
inline void FillWeightedAlpha(double opacity, unsigned char (&weightedAlpha)[256]) {
  for (int alpha = 0; alpha < 256; ++alpha) {
    weightedAlpha[alpha] = static_cast<unsigned char>(ClampToByte(TruncateToInt(alpha * opacity)));
  }
}

// The fixed source lines of the four layer/background match assertions of a
// stage that lays a layer of the background's size over it.
struct LayerMatchAssertionLines {
  unsigned int width;
  unsigned int height;
  unsigned int depth;
  unsigned int order;
};

// A layer that differs from the background in width, height, depth or channel
// order is a fatal programming error, reported under the stage's source name.
inline void AssertLayerMatchesBackground(const KVAbstractImage* m_foregroundLayer,
                                         const KVAbstractImage* backgroundLayer, const char* source,
                                         const LayerMatchAssertionLines& lines) {
  KV_ASSERT(m_foregroundLayer->Width() == backgroundLayer->Width(), source, lines.width,
            "m_foregroundLayer->Width() == backgroundLayer->Width() && \"Width of foreground and background layers "
            "does not match\"");
  KV_ASSERT(m_foregroundLayer->Height() == backgroundLayer->Height(), source, lines.height,
            "m_foregroundLayer->Height() == backgroundLayer->Height() && \"Height of foreground and background "
            "layers does not match\"");
  KV_ASSERT(m_foregroundLayer->BitsPerChannel() == backgroundLayer->BitsPerChannel(), source, lines.depth,
            "m_foregroundLayer->BitsPerChannel() == backgroundLayer->BitsPerChannel() && \"BPC of foreground and "
            "background layers does not match\"");
  KV_ASSERT(m_foregroundLayer->PixelChannelOrder() == backgroundLayer->PixelChannelOrder(), source, lines.order,
            "m_foregroundLayer->PixelChannelOrder() == backgroundLayer->PixelChannelOrder() && \"Pixel channel "
            "order of foreground and background layers does not match\"");
}

// The layer compositor's alpha path (an over-composite), run with
// DispatchBlendMode over `pixels` pixels of a layer and the background. The
// blend operand is the background colour weighted by its alpha, while the
// un-premultiplication weights the raw background colour; the arithmetic is
// single precision, one rounding at a time, as written.
//   kFillWhereClear: where the combined alpha is 0, copy the layer pixel
//                    (otherwise leave the background pixel alone);
//   kKeepWhereLayerClear: leave pixels whose weighted layer alpha is 0 exactly
//                    as they are, instead of taking them through the
//                    un-premultiplication, which moves some colours of a
//                    translucent background down one step.
template <bool kFillWhereClear, bool kKeepWhereLayerClear>
struct AlphaComposite {
  const unsigned char* top;
  unsigned char* bottom;
  size_t pixels;
  const unsigned char* weightedAlpha;
  kvo::KVLookupTables& tables;

  template <class Operation>
  int Run() {
    const unsigned char* layer = top;
    unsigned char* canvas = bottom;
    for (size_t p = 0; p < pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
      const unsigned char backgroundAlpha = canvas[kAlphaByte];
      const int fa = weightedAlpha[layer[kAlphaByte]];
      if (kKeepWhereLayerClear && fa == 0) continue;
      const unsigned char combinedAlpha = tables.AlphaChannelBlend(backgroundAlpha, static_cast<unsigned char>(fa));
      if (combinedAlpha == 0) {
        if (kFillWhereClear) std::memcpy(canvas, layer, kBytesPerPixel);
        continue;
      }
      const float inverse = tables.Invert(combinedAlpha);
      const float backgroundWeight = tables.DivideBy255(backgroundAlpha) * static_cast<float>(255 - fa);
      for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
        const int operand = tables.AlphaBlend(canvas[c], backgroundAlpha);
        const int blended = Operation::Apply(tables, layer[c], operand);
        const float value =
            (static_cast<float>(blended * fa) + static_cast<float>(canvas[c]) * backgroundWeight) * inverse;
        canvas[c] = static_cast<unsigned char>(ClampToByte(TruncateToInt(value)));
      }
      canvas[kAlphaByte] = combinedAlpha;
    }
    return 0;
  }
};

}  // namespace image
}  // namespace kvo

#endif
