#ifndef KVIMAGE_SRC_SUPPORT_ASSERTIONSITES_H
#define KVIMAGE_SRC_SUPPORT_ASSERTIONSITES_H

#include <kvimage/image.h>

namespace kvo {
namespace image {

// Every documented assertion of the engine. A failed one prints
// "<source>:<line>: failed assertion `<condition>'" and aborts; the source
// name and line are fixed per site (hosts match on them), so they live in
// one table (AssertionSites.cpp) rather than at the call.
enum AssertionSite : unsigned int {
  kAssertScanLine,
  // A stage given an image other than 8-bit blue, green, red, alpha.
  kAssertOpacityFormat,
  kAssertBrightnessFormat,
  kAssertContrastFormat,
  kAssertSuperContrastFormat,
  kAssertColorBalanceFormat,
  kAssertSilhouetteFormat,
  kAssertThreeStripFormat,
  kAssertTintFormat,
  kAssertAlphaCropFormat,
  kAssertWhiteErodeFormat,
  kAssertDefocusFormat,
  kAssertDiffuseFormat,
  kAssertSharpenFormat,
  kAssertSoftFocusFormat,
  // A focus stage's nested blur failing to queue or to render.
  kAssertDefocusSetter,
  kAssertDefocusRender,
  kAssertDiffuseSetter,
  kAssertDiffuseRender,
  kAssertSharpenSetter,
  kAssertSharpenRender,
  kAssertSoftFocusSetter,
  kAssertSoftFocusRender,
  // A layer that does not match the background it is laid over.
  kAssertLayerWidth,
  kAssertLayerHeight,
  kAssertLayerDepth,
  kAssertLayerOrder,
  kAssertLightSpillWidth,
  kAssertLightSpillHeight,
  kAssertLightSpillDepth,
  kAssertLightSpillOrder,
  kAssertionSiteCount
};

struct AssertionSiteInfo {
  const char* source;
  unsigned int line;
  const char* condition;
};

const AssertionSiteInfo& AssertionSiteOf(AssertionSite site);

// Reports the site's failed assertion and aborts.
[[noreturn]] void FailAssertion(AssertionSite site);

inline void AssertAt(bool condition, AssertionSite site) {
  if (!condition) FailAssertion(site);
}

// The one format check: what every stage with a single pixel layout
// handles, 8-bit blue, green, red, alpha.
inline bool IsBGRA8(const KVAbstractImage& image) {
  return image.BitsPerChannel() == 0 && image.PixelChannelOrder() == kPixelOrderBGRA;
}

inline void AssertBGRA8(const KVAbstractImage* image, AssertionSite site) { AssertAt(IsBGRA8(*image), site); }

}  // namespace image
}  // namespace kvo

#endif
