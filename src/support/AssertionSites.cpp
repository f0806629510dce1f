#include "support/AssertionSites.h"

#include <cstdio>
#include <cstdlib>

namespace kvo {
namespace image {

namespace {

const char kNotImplemented[] = "false && \"Not implemented\"";
const char kSetterFailed[] = "false && \"SetStackBlur call failed.\"";
const char kRenderFailed[] = "false && \"KVImageProcessor Render call failed.\"";
const char kWidths[] =
    "m_foregroundLayer->Width() == backgroundLayer->Width() && \"Width of foreground and background layers does not "
    "match\"";
const char kHeights[] =
    "m_foregroundLayer->Height() == backgroundLayer->Height() && \"Height of foreground and background layers does "
    "not match\"";
const char kDepths[] =
    "m_foregroundLayer->BitsPerChannel() == backgroundLayer->BitsPerChannel() && \"BPC of foreground and background "
    "layers does not match\"";
const char kOrders[] =
    "m_foregroundLayer->PixelChannelOrder() == backgroundLayer->PixelChannelOrder() && \"Pixel channel order of "
    "foreground and background layers does not match\"";

// In AssertionSite order.
const AssertionSiteInfo kSites[kAssertionSiteCount] = {
    {"KVImage8", 96, "(lineIndex >= 0 && lineIndex < Height()) && \"Invalid scan line index\""},
    {"OpacityRenderer", 211, kNotImplemented},
    {"BrightnessRenderer", 305, kNotImplemented},
    {"ContrastRenderer", 464, kNotImplemented},
    {"SuperContrastRenderer", 513, kNotImplemented},
    {"ColorBalanceRenderer", 373, kNotImplemented},
    {"SilhouetteRenderer", 77, kNotImplemented},
    {"ThreeStripColorRenderer", 151, kNotImplemented},
    {"TintRenderer", 175, kNotImplemented},
    {"AlphaCrop", 112, kNotImplemented},
    {"WhiteErode", 416, kNotImplemented},
    {"DefocusRenderer", 135, kNotImplemented},
    {"DiffuseRenderer", 141, kNotImplemented},
    {"SharpenRenderer", 140, kNotImplemented},
    {"SoftFocusRenderer", 134, kNotImplemented},
    {"DefocusRenderer", 66, kSetterFailed},
    {"DefocusRenderer", 72, kRenderFailed},
    {"DiffuseRenderer", 72, kSetterFailed},
    {"DiffuseRenderer", 78, kRenderFailed},
    {"SharpenRenderer", 71, kSetterFailed},
    {"SharpenRenderer", 77, kRenderFailed},
    {"SoftFocusRenderer", 65, kSetterFailed},
    {"SoftFocusRenderer", 71, kRenderFailed},
    {"LayerCompositor", 64, kWidths},
    {"LayerCompositor", 66, kHeights},
    {"LayerCompositor", 68, kDepths},
    {"LayerCompositor", 70, kOrders},
    {"LightSpillLayerCompositor", 88, kWidths},
    {"LightSpillLayerCompositor", 90, kHeights},
    {"LightSpillLayerCompositor", 92, kDepths},
    {"LightSpillLayerCompositor", 94, kOrders},
};

}  // namespace

const AssertionSiteInfo& AssertionSiteOf(AssertionSite site) { return kSites[site]; }

void FailAssertion(AssertionSite site) {
  const AssertionSiteInfo& info = kSites[site < kAssertionSiteCount ? site : kAssertScanLine];
  std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", info.source, info.line, info.condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace image
}  // namespace kvo
