#include <kvimage/blur.h>
#include <kvimage/colour.h>
#include <kvimage/pipeline.h>

#include "pipeline/FrontEndState.h"
#include "pipeline/ResultCodes.h"
#include "support/PathChoice.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

KVImageProcessor::KVImageProcessor(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                                   KVDownsampleFactor factor)
    : m_private(new KVImageProcessor_Private(kFrontEndProcessor, source, destination, tables, factor)) {}

KVImageProcessor::KVImageProcessor(std::tr1::shared_ptr<KVAbstractImage> source,
                                   std::tr1::shared_ptr<KVAbstractImage> destination, kvo::KVLookupTables& tables,
                                   KVDownsampleFactor factor)
    : m_private(new KVImageProcessor_Private(kFrontEndProcessor, source.get(), destination.get(), tables, factor)) {}

KVImageProcessor::~KVImageProcessor() { delete m_private; }

KVAbstractImage* KVImageProcessor::SourceImage() const { return m_private->source; }
unsigned short KVImageProcessor::RenderQueueCount() const { return m_private->Count(); }
int KVImageProcessor::ClearRenderQueue() { return m_private->Clear(); }
int KVImageProcessor::Render() { return m_private->Render(); }

int KVImageProcessor::SetOpacity(double opacity) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetOpacity", {opacity})) return refusal;
    return m_private->Append(new OpacityRenderer(opacity, DetectedCPUExtensions()));
  });
}

int KVImageProcessor::SetMirror(bool first, bool second) {
  return GuardedCall([&] { return m_private->Append(new MirrorRenderer(first, second)); });
}

int KVImageProcessor::SetSilhouette(KVPixel8_RGB colour) {
  return GuardedCall([&] { return m_private->Append(new SilhouetteRenderer(colour)); });
}

int KVImageProcessor::SetMatteView() {
  return GuardedCall([&] { return m_private->Append(new MatteViewRenderer()); });
}

int KVImageProcessor::SetBrightness(double brightness, KVChannelsToProcess channels) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetBrightness", {brightness, static_cast<double>(channels)})) return refusal;
    return m_private->Append(new BrightnessRenderer(brightness, channels, DetectedCPUExtensions()));
  });
}

int KVImageProcessor::SetContrast(double contrast, KVChannelsToProcess channels) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetContrast", {contrast, static_cast<double>(channels)})) return refusal;
    return m_private->Append(new ContrastRenderer(contrast, channels, DetectedCPUExtensions()));
  });
}

// Neither the channel selection nor low <= high is checked.
int KVImageProcessor::SetSuperContrast(double low, double high, KVChannelsToProcess channels) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetSuperContrast", {low, high})) return refusal;
    return m_private->Append(new SuperContrastRenderer(low, high, channels, DetectedCPUExtensions()));
  });
}

int KVImageProcessor::SetColorBalance(double red, double green, double blue) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetColorBalance", {red, green, blue})) return refusal;
    return m_private->Append(new ColorBalanceRenderer(red, green, blue, DetectedCPUExtensions()));
  });
}

int KVImageProcessor::SetColorTemperature(double kelvin) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetColorTemperature", {kelvin})) return refusal;
    return m_private->Append(new ColorTemperatureRenderer(kelvin));
  });
}

// The saturation stage keeps the processor's division table.
int KVImageProcessor::SetSaturation(double saturation) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetSaturation", {saturation})) return refusal;
    return m_private->Append(new SaturationRenderer(saturation, m_private->tables.DivideBy255Table()));
  });
}

int KVImageProcessor::SetHueShift(double shift, double amount) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetHueShift", {shift, amount})) return refusal;
    return m_private->Append(new HueShiftRenderer(shift, amount));
  });
}

int KVImageProcessor::SetHueColorize(double hue, double amount) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetHueColorize", {hue, amount})) return refusal;
    return m_private->Append(new HueColorizeRenderer(hue, amount));
  });
}

// The type is not checked: every value outside the named tones is warm.
int KVImageProcessor::SetTint(KVTintType type, double amount) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetTint", {static_cast<double>(type), amount})) return refusal;
    return m_private->Append(new TintRenderer(type, amount));
  });
}

int KVImageProcessor::SetThreeStripColor(double a, double b, double c) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetThreeStripColor", {a, b, c})) return refusal;
    return m_private->Append(new ThreeStripColorRenderer(a, b, c));
  });
}

int KVImageProcessor::SetStackBlur(unsigned int radius, bool horizontal, bool vertical, KVChannelsToProcess channels) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetStackBlur", {0, horizontal ? 1.0 : 0.0, vertical ? 1.0 : 0.0})) return refusal;
    return m_private->Append(new StackBlurRenderer(m_private->ScaledRadius(radius), horizontal, vertical, channels));
  });
}

int KVImageProcessor::SetYUVBlur(unsigned int radius, KVYUVBlurType type) {
  return GuardedCall([&] { return m_private->Append(new YUVBlurRenderer(m_private->ScaledRadius(radius), type)); });
}

int KVImageProcessor::SetBoundedStackBlur(unsigned int radius, bool horizontal, bool vertical,
                                          KVChannelsToProcess channels, const kvo::maths::KVRect& rect,
                                          double feather) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetBoundedStackBlur", {0, horizontal ? 1.0 : 0.0, vertical ? 1.0 : 0.0})) return refusal;
    return m_private->Append(
        new BoundedStackBlurRenderer(m_private->ScaledRadius(radius), horizontal, vertical, channels, rect, feather));
  });
}

// The focus stages keep the processor's factor and tables: their nested
// processor scales the radius.
int KVImageProcessor::SetDefocus(unsigned int radius, double amount, double blurParameter) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetDefocus", {0, amount})) return refusal;
    return m_private->Append(
        new DefocusRenderer(radius, amount, blurParameter, m_private->factor, m_private->tables));
  });
}

int KVImageProcessor::SetDiffuse(unsigned int radius, double amount, double blurParameter) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetDiffuse", {0, amount})) return refusal;
    return m_private->Append(
        new DiffuseRenderer(radius, amount, blurParameter, m_private->factor, m_private->tables));
  });
}

int KVImageProcessor::SetSharpen(unsigned int radius, double amount, double threshold, double blurParameter) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetSharpen", {0, amount, threshold})) return refusal;
    return m_private->Append(
        new SharpenRenderer(radius, amount, threshold, blurParameter, m_private->factor, m_private->tables));
  });
}

int KVImageProcessor::SetSoftFocus(KVBlendMode mode, unsigned int radius, double amount,
                                   const kvo::maths::KVRect& rect, double blurParameter) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetSoftFocus", {0, 0, amount})) return refusal;
    return m_private->Append(
        new SoftFocusRenderer(mode, radius, amount, rect, blurParameter, m_private->factor, m_private->tables));
  });
}

int KVImageProcessor::SetBleachBypass(double amount, double desaturation, double contrast) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetBleachBypass", {amount, desaturation, contrast})) return refusal;
    return m_private->Append(new BleachBypassRenderer(amount, desaturation, contrast, m_private->tables));
  });
}

int KVImageProcessor::SetVignette(const KVPixel8_RGB& colour, double amount, double midpoint, double roundness,
                                  double feather, double highlights, const kvo::maths::KVRect& bounds) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetVignette", {0, amount, midpoint, roundness, feather, highlights})) return refusal;
    return m_private->Append(new VignetteRenderer(colour, amount, midpoint, roundness, feather, highlights, bounds));
  });
}

// The type (any other value is radial), the angle and blurParameter are not
// checked.
int KVImageProcessor::SetDepthOfField(KVDepthOfFieldType type, const kvo::maths::KVPoint2F& focus, double angle,
                                      unsigned int radius, double focusSize, double transition, double amount,
                                      double blurParameter, const kvo::maths::KVRect& bounds) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetDepthOfField", {0, 0, 0, 0, focusSize, transition, amount})) return refusal;
    return m_private->Append(new DepthOfFieldRenderer(type, focus, angle, m_private->ScaledRadius(radius), focusSize,
                                                      transition, amount, blurParameter, bounds));
  });
}

}  // namespace image
}  // namespace kvo
