#include "pipeline/Catalogue.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <kvimage/kvimage.h>

#include "pipeline/ResultCodes.h"

namespace kvo {
namespace image {

namespace {

// ---------------------------------------------------------------------------
// Choices
// ---------------------------------------------------------------------------

const std::vector<KVChoiceInfo> kChannels = {{kChannelsAlpha, "alpha"}, {kChannelsColor, "colour"}, {kChannelsAll, "all"}};
const std::vector<KVChoiceInfo> kBlendModes = {
    {kBlendAdd, "add"},          {kBlendColorBurn, "colour-burn"}, {kBlendColorDodge, "colour-dodge"},
    {kBlendDarken, "darken"},    {kBlendDifference, "difference"}, {kBlendExclusion, "exclusion"},
    {kBlendHardLight, "hard-light"}, {kBlendLighten, "lighten"},   {kBlendMultiply, "multiply"},
    {kBlendNormal, "normal"},    {kBlendOverlay, "overlay"},       {kBlendScreen, "screen"},
    {kBlendSoftLight, "soft-light"}, {kBlendReplace, "replace"}};
const std::vector<KVChoiceInfo> kCompositeTypes = {
    {kCompositeColorOnly, "colour-only"}, {kCompositeAlphaFill, "alpha-fill"}, {kCompositeAlpha, "alpha"}};
const std::vector<KVChoiceInfo> kTints = {
    {kTintGrey, "grey"},         {kTintWarm, "warm"},           {kTintBronze, "bronze"},
    {kTintCyanotype, "cyanotype"}, {kTintEmerald, "emerald"},   {kTintGold, "gold"},
    {kTintPalladium, "palladium"}, {kTintPlatinum, "platinum"}, {kTintPlatinumPalladium, "platinum-palladium"},
    {kTintSelenium, "selenium"}, {kTintSilver, "silver"}};
const std::vector<KVChoiceInfo> kYUVBlurTypes = {{kYUVBlurHorizontal, "horizontal"},
                                                 {kYUVBlurVertical, "vertical"},
                                                 {kYUVBlurHorizontalVertical, "both"},
                                                 {kYUVBlurStack, "stack"},
                                                 {kYUVBlurNone, "none"}};
const std::vector<KVChoiceInfo> kDepthOfFieldTypes = {{kDepthOfFieldRadial, "radial"}, {kDepthOfFieldLinear, "linear"}};
const std::vector<KVChoiceInfo> kKeyColours = {{kKeyColorAuto, "auto"}, {kKeyColorGreen, "green"}, {kKeyColorBlue, "blue"}};
const std::vector<KVChoiceInfo> kSpillChannels = {{kChannelGreen, "green"}, {kChannelBlue, "blue"}};
const std::vector<KVChoiceInfo> kSpillTypes = {
    {kSpillStandard, "standard"}, {kSpillExtended, "extended"}, {kSpillAdvanced, "advanced"}};
const std::vector<KVChoiceInfo> kErodeDirections = {
    {kWhiteErodeAll, "all"}, {kWhiteErodeRightward, "rightward"}, {kWhiteErodeLeftward, "leftward"}};
const std::vector<KVChoiceInfo> kDownsampleFactors = {
    {kDownsampleNone, "none"}, {kDownsampleHalf, "half"}, {kDownsampleThird, "third"}, {kDownsampleQuarter, "quarter"}};

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

const double kHuge = std::numeric_limits<double>::max();
const double kLargestRadius = 4294967295.0;
const double kLargestInt = 2147483647.0;

struct ParameterDefinition {
  const char* name;
  KVParameterType type;
  KVParameterCheck check;
  double minimum;
  double maximum;
  std::vector<double> defaults;
  const char* unit;
  const std::vector<KVChoiceInfo>* choices;
  const char* explanation;
};

// A number the setter refuses outside minimum..maximum.
ParameterDefinition Checked(const char* name, double minimum, double maximum, double byDefault, const char* explanation,
                      const char* unit = "") {
  return {name, kParameterReal, kCheckRange, minimum, maximum, {byDefault}, unit, nullptr, explanation};
}
// A number the setter lets through whatever it is; minimum..maximum is a guide.
ParameterDefinition Free(const char* name, double minimum, double maximum, double byDefault, const char* explanation,
                   const char* unit = "") {
  return {name, kParameterReal, kCheckNone, minimum, maximum, {byDefault}, unit, nullptr, explanation};
}
ParameterDefinition Radius(const char* name, double byDefault, const char* explanation) {
  return {name, kParameterRadius, kCheckNone, 0, kLargestRadius, {byDefault}, "pixels", nullptr, explanation};
}
ParameterDefinition Flag(const char* name, bool byDefault, const char* explanation, KVParameterCheck check = kCheckNone) {
  return {name, kParameterBool, check, 0, 1, {byDefault ? 1.0 : 0.0}, "", nullptr, explanation};
}
ParameterDefinition Choice(const char* name, const std::vector<KVChoiceInfo>& choices, int byDefault,
                     const char* explanation, KVParameterCheck check = kCheckNone) {
  return {name,  kParameterChoice, check, static_cast<double>(choices.front().value),
          static_cast<double>(choices.back().value), {static_cast<double>(byDefault)}, "", &choices, explanation};
}
ParameterDefinition Colour(const char* name, double red, double green, double blue, const char* explanation) {
  return {name, kParameterColour, kCheckNone, 0, 255, {red, green, blue}, "", nullptr, explanation};
}
ParameterDefinition Point(const char* name, const char* explanation) {
  return {name, kParameterPoint, kCheckNone, -kHuge, kHuge, {0, 0}, "pixels", nullptr, explanation};
}
ParameterDefinition Rect(const char* name, double width, double height, const char* explanation) {
  return {name, kParameterRect, kCheckNone, -kLargestInt, kLargestInt, {0, 0, width, height}, "pixels", nullptr,
          explanation};
}
ParameterDefinition Quad(const char* name, const char* explanation) {
  return {name, kParameterQuad, kCheckNone, -kHuge, kHuge, {0, 0, 0, 0, 0, 0, 0, 0}, "pixels", nullptr, explanation};
}
ParameterDefinition Layer(const char* name, KVParameterCheck check, const char* explanation) {
  return {name, kParameterLayer, check, 0, 0, {}, "", nullptr, explanation};
}

// A rectangle beyond any image: the stages clip it to the whole frame.
const double kWholeImage = 16777216.0;

// ---------------------------------------------------------------------------
// Arguments of a call by name
// ---------------------------------------------------------------------------

// A setter's arguments taken from a value list that QueueSetter has checked
// against the parameters' types.
class Arguments {
 public:
  Arguments(const std::vector<ParameterDefinition>& parameters, const double* values, KVAbstractImage* const* layers)
      : m_values(values), m_layers(layers) {
    unsigned int offset = 0, layer = 0;
    for (const ParameterDefinition& parameter : parameters) {
      m_offsets.push_back(parameter.type == kParameterLayer ? layer++ : offset);
      offset += NumberCount(parameter.type);
    }
  }
  double Real(unsigned int i) const { return At(i)[0]; }
  int Integer(unsigned int i) const { return static_cast<int>(At(i)[0]); }
  unsigned int Radius(unsigned int i) const { return static_cast<unsigned int>(At(i)[0]); }
  bool Flag(unsigned int i) const { return At(i)[0] != 0.0; }
  template <class Enumeration>
  Enumeration Choice(unsigned int i) const {
    return static_cast<Enumeration>(Integer(i));
  }
  KVPixel8_RGB Colour(unsigned int i) const {
    const double* v = At(i);
    KVPixel8_RGB colour = {static_cast<unsigned char>(v[0]), static_cast<unsigned char>(v[1]),
                           static_cast<unsigned char>(v[2])};
    return colour;
  }
  kvo::maths::KVPoint2F Point(unsigned int i) const { return kvo::maths::KVPoint2F(At(i)[0], At(i)[1]); }
  kvo::maths::KVRect Rect(unsigned int i) const {
    const double* v = At(i);
    return kvo::maths::KVRect(kvo::maths::KVPoint2(static_cast<int>(v[0]), static_cast<int>(v[1])),
                              static_cast<int>(v[2]), static_cast<int>(v[3]));
  }
  kvo::maths::KVQuad Quad(unsigned int i) const {
    const double* v = At(i);
    return kvo::maths::KVQuad(kvo::maths::KVPoint2F(v[0], v[1]), kvo::maths::KVPoint2F(v[2], v[3]),
                              kvo::maths::KVPoint2F(v[4], v[5]), kvo::maths::KVPoint2F(v[6], v[7]));
  }
  KVAbstractImage* Layer(unsigned int i) const { return m_layers[m_offsets[i]]; }

 private:
  const double* At(unsigned int i) const { return m_values + m_offsets[i]; }
  const double* m_values;
  KVAbstractImage* const* m_layers;
  std::vector<unsigned int> m_offsets;
};

typedef int (*Invoker)(void* frontEnd, const Arguments& a);

struct SetterDefinition {
  KVFrontEnd frontEnd;
  const char* name;
  const char* stage;
  bool requiresBGRA;
  bool sameBytesAtAnyThreadCount;
  const char* explanation;
  std::vector<ParameterDefinition> parameters;
  Invoker invoke;
};

KVImageProcessor& P(void* frontEnd) { return *static_cast<KVImageProcessor*>(frontEnd); }
KVImageKeyer& K(void* frontEnd) { return *static_cast<KVImageKeyer*>(frontEnd); }
KVImageCompositor& C(void* frontEnd) { return *static_cast<KVImageCompositor*>(frontEnd); }

const char* const kRadiusText = "blur radius (scaled by the front end's downsample factor)";
const char* const kFeatherText = "width of the feathered edge of the blurred region";

// ---------------------------------------------------------------------------
// The catalogue
// ---------------------------------------------------------------------------

const std::vector<SetterDefinition>& Definitions() {
  static const std::vector<SetterDefinition> definitions = {
      // The processor.
      {kFrontEndProcessor, "SetOpacity", "OpacityRenderer", true, false, "scale alpha (plain and SSE2 paths)",
       {Checked("opacity", 0, 1, 1, "alpha multiplier")},
       [](void* f, const Arguments& a) { return P(f).SetOpacity(a.Real(0)); }},
      {kFrontEndProcessor, "SetMirror", "MirrorRenderer", false, true, "carries its flags and writes nothing",
       {Flag("first", true, "first flag"), Flag("second", false, "second flag")},
       [](void* f, const Arguments& a) { return P(f).SetMirror(a.Flag(0), a.Flag(1)); }},
      {kFrontEndProcessor, "SetSilhouette", "SilhouetteRenderer", true, true, "one colour, source alpha",
       {Colour("colour", 0, 0, 0, "the silhouette's colour")},
       [](void* f, const Arguments& a) { return P(f).SetSilhouette(a.Colour(0)); }},
      {kFrontEndProcessor, "SetMatteView", "MatteViewRenderer", false, true, "alpha as opaque grey", {},
       [](void* f, const Arguments&) { return P(f).SetMatteView(); }},
      {kFrontEndProcessor, "SetBrightness", "BrightnessRenderer", true, false, "add to the channels (plain and SSE2 paths)",
       {Checked("brightness", -1, 1, 0, "offset, a fraction of 255"),
        Choice("channels", kChannels, kChannelsColor, "the bytes processed", kCheckChannelSelection)},
       [](void* f, const Arguments& a) {
         return P(f).SetBrightness(a.Real(0), a.Choice<KVChannelsToProcess>(1));
       }},
      {kFrontEndProcessor, "SetContrast", "ContrastRenderer", true, false,
       "scale the channels about the middle (plain and SSE2 paths)",
       {Checked("contrast", 0, 2, 1, "gain about 128 (1 unchanged)"),
        Choice("channels", kChannels, kChannelsColor, "the bytes processed", kCheckChannelSelection)},
       [](void* f, const Arguments& a) { return P(f).SetContrast(a.Real(0), a.Choice<KVChannelsToProcess>(1)); }},
      {kFrontEndProcessor, "SetSuperContrast", "SuperContrastRenderer", true, false,
       "stretch low..high to the full range (plain and SSE2 paths)",
       {Checked("low", 0, 1, 0, "becomes 0"), Checked("high", 0, 1, 1, "becomes 255"),
        Choice("channels", kChannels, kChannelsColor, "the bytes processed")},
       [](void* f, const Arguments& a) {
         return P(f).SetSuperContrast(a.Real(0), a.Real(1), a.Choice<KVChannelsToProcess>(2));
       }},
      {kFrontEndProcessor, "SetColorBalance", "ColorBalanceRenderer", true, false, "channel gains (plain and SSE2 paths)",
       {Checked("red", 0, 2, 1, "red gain (1 unchanged)"), Checked("green", 0, 2, 1, "green gain"),
        Checked("blue", 0, 2, 1, "blue gain")},
       [](void* f, const Arguments& a) { return P(f).SetColorBalance(a.Real(0), a.Real(1), a.Real(2)); }},
      {kFrontEndProcessor, "SetColorTemperature", "ColorTemperatureRenderer", false, true, "black-body cast",
       {Checked("kelvin", 1500, 13500, 6500, "colour temperature", "kelvin")},
       [](void* f, const Arguments& a) { return P(f).SetColorTemperature(a.Real(0)); }},
      {kFrontEndProcessor, "SetSaturation", "SaturationRenderer", false, true, "HSV saturation in double precision",
       {Checked("saturation", 0, 2, 1, "saturation gain (1 unchanged, 0 grey)")},
       [](void* f, const Arguments& a) { return P(f).SetSaturation(a.Real(0)); }},
      {kFrontEndProcessor, "SetHueShift", "HueShiftRenderer", false, true, "rotate the hue (integer HLS)",
       {Checked("shift", 0, 360, 0, "hue rotation", "degrees"), Checked("amount", 0, 1, 1, "mix with the input")},
       [](void* f, const Arguments& a) { return P(f).SetHueShift(a.Real(0), a.Real(1)); }},
      {kFrontEndProcessor, "SetHueColorize", "HueColorizeRenderer", false, true, "one hue, lightness kept",
       {Checked("hue", 0, 360, 0, "the hue", "degrees"), Checked("amount", 0, 1, 1, "mix with the input")},
       [](void* f, const Arguments& a) { return P(f).SetHueColorize(a.Real(0), a.Real(1)); }},
      {kFrontEndProcessor, "SetTint", "TintRenderer", true, true, "grey, warm or nine tone tables",
       {Choice("type", kTints, kTintGrey, "the tone (any other value is warm)"),
        Checked("amount", 0, 1, 1, "mix with the input")},
       [](void* f, const Arguments& a) { return P(f).SetTint(a.Choice<KVTintType>(0), a.Real(1)); }},
      {kFrontEndProcessor, "SetThreeStripColor", "ThreeStripColorRenderer", true, true, "three-strip colour film look",
       {Checked("a", 0, 1, 0, "first level"), Checked("b", 0, 1, 0, "second level"),
        Checked("c", 0, 1, 0, "third level")},
       [](void* f, const Arguments& a) { return P(f).SetThreeStripColor(a.Real(0), a.Real(1), a.Real(2)); }},
      {kFrontEndProcessor, "SetStackBlur", "StackBlurRenderer", false, true,
       "stack blur (alpha: alpha only; any other selection: all four bytes)",
       {Radius("radius", 4, kRadiusText), Flag("horizontal", true, "blur along rows", kCheckDirectionPair),
        Flag("vertical", true, "blur down columns"),
        Choice("channels", kChannels, kChannelsAll, "the bytes blurred")},
       [](void* f, const Arguments& a) {
         return P(f).SetStackBlur(a.Radius(0), a.Flag(1), a.Flag(2), a.Choice<KVChannelsToProcess>(3));
       }},
      {kFrontEndProcessor, "SetYUVBlur", "YUVBlurRenderer", false, false, "chroma box or stack blur",
       {Radius("radius", 4, kRadiusText), Choice("type", kYUVBlurTypes, kYUVBlurStack, "the blur (above 3: none)")},
       [](void* f, const Arguments& a) { return P(f).SetYUVBlur(a.Radius(0), a.Choice<KVYUVBlurType>(1)); }},
      {kFrontEndProcessor, "SetBoundedStackBlur", "BoundedStackBlurRenderer", false, true,
       "stack blur inside a rectangle, feathered into the image",
       {Radius("radius", 4, kRadiusText), Flag("horizontal", true, "blur along rows", kCheckDirectionPair),
        Flag("vertical", true, "blur down columns"),
        Choice("channels", kChannels, kChannelsAll, "the bytes blurred"),
        Rect("rect", kWholeImage, kWholeImage, "the blurred rectangle"), Free("feather", 0, kHuge, 0, kFeatherText, "pixels")},
       [](void* f, const Arguments& a) {
         return P(f).SetBoundedStackBlur(a.Radius(0), a.Flag(1), a.Flag(2), a.Choice<KVChannelsToProcess>(3),
                                         a.Rect(4), a.Real(5));
       }},
      {kFrontEndProcessor, "SetDefocus", "DefocusRenderer", true, false,
       "blur, then brighten by 1/(1 - amount); blurs its input in place",
       {Radius("radius", 8, kRadiusText), Checked("amount", 0, 0.8, 0.4, "brightening"),
        Free("blurParameter", 0, kHuge, 0, kFeatherText, "pixels")},
       [](void* f, const Arguments& a) { return P(f).SetDefocus(a.Radius(0), a.Real(1), a.Real(2)); }},
      {kFrontEndProcessor, "SetDiffuse", "DiffuseRenderer", true, false,
       "blurred copy laid over the image by blurred alpha x amount",
       {Radius("radius", 8, kRadiusText), Checked("amount", 0, 1, 0.5, "strength of the glow"),
        Free("blurParameter", 0, kHuge, 0, kFeatherText, "pixels")},
       [](void* f, const Arguments& a) { return P(f).SetDiffuse(a.Radius(0), a.Real(1), a.Real(2)); }},
      {kFrontEndProcessor, "SetSharpen", "SharpenRenderer", true, false,
       "unsharp mask; differences below the threshold left alone",
       {Radius("radius", 4, kRadiusText), Checked("amount", 0, 1, 0.6, "strength"),
        Checked("threshold", 0, 1, 0.02, "smallest difference sharpened"),
        Free("blurParameter", 0, kHuge, 0, kFeatherText, "pixels")},
       [](void* f, const Arguments& a) {
         return P(f).SetSharpen(a.Radius(0), a.Real(1), a.Real(2), a.Real(3));
       }},
      {kFrontEndProcessor, "SetSoftFocus", "SoftFocusRenderer", true, false,
       "blurred copy blended and composited over the destination",
       {Choice("mode", kBlendModes, kBlendScreen, "how the blurred copy is blended"),
        Radius("radius", 8, kRadiusText), Checked("amount", 0, 1, 0.5, "opacity of the blurred copy"),
        Rect("rect", kWholeImage, kWholeImage, "the region softened"),
        Free("blurParameter", 0, kHuge, 0, kFeatherText, "pixels")},
       [](void* f, const Arguments& a) {
         return P(f).SetSoftFocus(a.Choice<KVBlendMode>(0), a.Radius(1), a.Real(2), a.Rect(3), a.Real(4));
       }},
      {kFrontEndProcessor, "SetBleachBypass", "BleachBypassRenderer", false, false,
       "luminance overlaid on colour, pulled to grey, S-curve about 128; (0, 0, 0) is the identity",
       {Checked("amount", 0, 1, 0.5, "overlay of the luminance"), Checked("desaturation", 0, 1, 0.5, "pull to grey"),
        Checked("contrast", 0, 1, 0.5, "S-curve strength")},
       [](void* f, const Arguments& a) { return P(f).SetBleachBypass(a.Real(0), a.Real(1), a.Real(2)); }},
      {kFrontEndProcessor, "SetVignette", "VignetteRenderer", false, false,
       "colour toward the edges of bounds (empty: whole image), ellipse at roundness 0, circle at 1; highlights "
       "protect bright pixels",
       {Colour("colour", 0, 0, 0, "the colour at the edges"), Checked("amount", 0, 1, 0.5, "strength"),
        Checked("midpoint", 0, 1, 0.5, "where the darkening starts"),
        Checked("roundness", 0, 1, 0.5, "ellipse (0) to circle (1)"), Checked("feather", 0, 1, 0.5, "softness"),
        Checked("highlights", 0, 1, 0, "protection of bright pixels"),
        Rect("bounds", 0, 0, "the framed rectangle (empty: the whole image)")},
       [](void* f, const Arguments& a) {
         return P(f).SetVignette(a.Colour(0), a.Real(1), a.Real(2), a.Real(3), a.Real(4), a.Real(5), a.Rect(6));
       }},
      {kFrontEndProcessor, "SetDepthOfField", "DepthOfFieldRenderer", false, false,
       "blur growing away from a disc (radial) or a band at angle degrees (linear) through focus; sizes as "
       "fractions of the diagonal; outside bounds copied",
       {Choice("type", kDepthOfFieldTypes, kDepthOfFieldRadial, "disc or band (any other value is radial)"),
        Point("focus", "the focus point"), Free("angle", -360, 360, 0, "the band's angle", "degrees"),
        Radius("radius", 8, kRadiusText),
        Checked("focusSize", 0, 1, 0.2, "the sharp region, a fraction of the diagonal"),
        Checked("transition", 0, 1, 0.2, "the region where the blur grows, a fraction of the diagonal"),
        Checked("amount", 0, 1, 1, "strength"), Free("blurParameter", 0, kHuge, 0, kFeatherText, "pixels"),
        Rect("bounds", 0, 0, "the region affected (empty: the whole image)")},
       [](void* f, const Arguments& a) {
         return P(f).SetDepthOfField(a.Choice<KVDepthOfFieldType>(0), a.Point(1), a.Real(2), a.Radius(3), a.Real(4),
                                     a.Real(5), a.Real(6), a.Real(7), a.Rect(8));
       }},

      // The keyer.
      {kFrontEndKeyer, "SetAutoColorDifferenceKey", "ColorDifferenceKeyer", false, false,
       "pull a colour-difference key (auto detects green or blue per image)",
       {Choice("keyColor", kKeyColours, kKeyColorAuto, "the backing colour"),
        Checked("balance", 0, 1, 0.5, "upper threshold, from the matte's middle (0) to its mean (1)"),
        Checked("saturationLimit", 0, 1, 0.2, "chroma below which the matte weakens, a fraction of 255"),
        Checked("saturationSoftness", 0, 1, 0.5, "fraction of the limit below which the matte is 0")},
       [](void* f, const Arguments& a) {
         return K(f).SetAutoColorDifferenceKey(a.Choice<KVKeyColor>(0), a.Real(1), a.Real(2), a.Real(3));
       }},
      {kFrontEndKeyer, "SetAlphaSuperContrast", "SuperContrastRenderer", true, false,
       "stretch the matte low..high to the full range",
       {Checked("low", 0, 1, 0, "becomes 0"), Checked("high", 0, 1, 1, "becomes 255")},
       [](void* f, const Arguments& a) { return K(f).SetAlphaSuperContrast(a.Real(0), a.Real(1)); }},
      {kFrontEndKeyer, "SetSpillSuppression", "SpillSuppressor", false, false, "remove the backing's cast",
       {Choice("channel", kSpillChannels, kChannelGreen, "the channel pulled down"),
        Choice("spillType", kSpillTypes, kSpillStandard, "the method"),
        Checked("amount", 0, 1, 1, "strength"),
        Free("redFactor", -kHuge, kHuge, 0, "advanced: spill added to red times this"),
        Free("greenFactor", -kHuge, kHuge, -1, "advanced: spill added to green times this"),
        Free("blueFactor", -kHuge, kHuge, 0, "advanced: spill added to blue times this"),
        Free("referenceFactor", -kHuge, kHuge, 1, "advanced: spill = key - other x this")},
       [](void* f, const Arguments& a) {
         return K(f).SetSpillSuppression(a.Choice<KVChannel>(0), a.Choice<KVSpillType>(1), a.Real(2), a.Real(3),
                                         a.Real(4), a.Real(5), a.Real(6));
       }},
      {kFrontEndKeyer, "SetAlphaCrop", "AlphaCrop", true, true, "garbage matte: clear alpha outside the margins",
       {Checked("left", 0, 1, 0, "margin", "fraction of the size"), Checked("top", 0, 1, 0, "margin", "fraction of the size"),
        Checked("right", 0, 1, 0, "margin", "fraction of the size"),
        Checked("bottom", 0, 1, 0, "margin", "fraction of the size")},
       [](void* f, const Arguments& a) { return K(f).SetAlphaCrop(a.Real(0), a.Real(1), a.Real(2), a.Real(3)); }},
      {kFrontEndKeyer, "SetWhiteErode", "WhiteErodeRenderer", true, true, "shrink the opaque matte",
       {Choice("direction", kErodeDirections, kWhiteErodeAll, "the shape"),
        {"size", kParameterInteger, kCheckRange, 0, kLargestInt, {2}, "pixels", nullptr,
         "erosion (scaled by the downsample factor)"}},
       [](void* f, const Arguments& a) {
         return K(f).SetWhiteErode(a.Choice<KVWhiteErodeDirection>(0), a.Integer(1));
       }},
      {kFrontEndKeyer, "SetYUVBlur", "YUVBlurRenderer", false, false, "chroma box or stack blur",
       {Radius("radius", 4, kRadiusText), Choice("type", kYUVBlurTypes, kYUVBlurStack, "the blur (above 3: none)")},
       [](void* f, const Arguments& a) { return K(f).SetYUVBlur(a.Radius(0), a.Choice<KVYUVBlurType>(1)); }},
      {kFrontEndKeyer, "SetAlphaStackBlur", "StackBlurRenderer", false, true, "stack blur of the matte",
       {Radius("radius", 2, kRadiusText), Flag("horizontal", true, "blur along rows", kCheckDirectionPair),
        Flag("vertical", true, "blur down columns")},
       [](void* f, const Arguments& a) { return K(f).SetAlphaStackBlur(a.Radius(0), a.Flag(1), a.Flag(2)); }},

      // The compositor.
      {kFrontEndCompositor, "AddLayer", "LayerCompositor", false, false, "lay a layer over the background",
       {Layer("layer", kCheckLayerMatches, "the layer: the background's size, order and depth"),
        Checked("opacity", 0, 1, 1, "the layer's opacity (NaN composites as 0)"),
        Choice("blendMode", kBlendModes, kBlendNormal, "how colours combine"),
        Choice("compositeType", kCompositeTypes, kCompositeAlpha, "how alpha combines")},
       [](void* f, const Arguments& a) {
         return C(f).AddLayer(a.Layer(0), a.Real(1), a.Choice<KVBlendMode>(2), a.Choice<KVCompositeType>(3));
       }},
      {kFrontEndCompositor, "AddLightSpillLayer", "LightSpillLayerCompositor", false, false,
       "the layer stack-blurred and laid over the background through the alpha composite",
       {Layer("layer", kCheckLayerMatches, "the layer: the background's size, order and depth"),
        {"radius", kParameterInteger, kCheckRange, 0, kLargestInt, {8}, "pixels", nullptr, kRadiusText},
        Free("amount", 0, 1, 0.5, "strength (clamped to 0..1, NaN as 0)"),
        Choice("mode", kBlendModes, kBlendScreen, "how the glow is blended"),
        Choice("factor", kDownsampleFactors, kDownsampleNone, "the stage's own downsample factor")},
       [](void* f, const Arguments& a) {
         return C(f).AddLightSpillLayer(a.Layer(0), a.Integer(1), a.Real(2), a.Choice<KVBlendMode>(3),
                                        a.Choice<KVDownsampleFactor>(4));
       }},
      {kFrontEndCompositor, "AddShadowCastLayer", "ShadowCastCompositor", false, false,
       "the layer's alpha inside bounds thrown through the perspective transform onto the quadrilateral corners "
       "(convex; otherwise no shadow), blurred, laid as colour; the flag fades it from the contact edge",
       {Layer("layer", kCheckNone, "the shadow's caster (any size)"),
        Rect("bounds", kWholeImage, kWholeImage, "the part of the layer that casts"),
        Quad("corners", "where the bounds' corners land"), Radius("radius", 8, kRadiusText),
        Free("amount", 0, 1, 0.5, "strength"), Colour("colour", 0, 0, 0, "the shadow's colour"),
        Choice("mode", kBlendModes, kBlendMultiply, "how the shadow is blended"),
        Flag("flag", false, "fade from the contact edge"),
        Choice("factor", kDownsampleFactors, kDownsampleNone, "the stage's own downsample factor")},
       [](void* f, const Arguments& a) {
         return C(f).AddShadowCastLayer(a.Layer(0), a.Rect(1), a.Quad(2), a.Radius(3), a.Real(4), a.Colour(5),
                                        a.Choice<KVBlendMode>(6), a.Flag(7), a.Choice<KVDownsampleFactor>(8));
       }},
  };
  return definitions;
}

int RefusalCode(KVParameterCheck check) {
  switch (check) {
    case kCheckRange:
      return kResultOutOfRange;
    case kCheckChannelSelection:
      return kResultUnsupportedFormat;
    case kCheckDirectionPair:
      return kResultInvalidCombination;
    case kCheckLayerMatches:
      return kResultImagesDoNotMatch;
    case kCheckNone:
      break;
  }
  return kResultSuccess;
}

// The public view of the definitions, built once.
struct Catalogue {
  std::vector<KVSetterInfo> setters;
  std::vector<std::vector<KVParameterInfo> > parameters;
  std::vector<std::vector<int> > codes;

  Catalogue() {
    const std::vector<SetterDefinition>& definitions = Definitions();
    parameters.resize(definitions.size());
    codes.resize(definitions.size());
    for (size_t i = 0; i < definitions.size(); ++i) {
      const SetterDefinition& definition = definitions[i];
      for (const ParameterDefinition& p : definition.parameters) {
        const unsigned int choiceCount = p.choices ? static_cast<unsigned int>(p.choices->size()) : 0u;
        parameters[i].push_back(KVParameterInfo{p.name, p.type, p.check, p.minimum, p.maximum, p.defaults.data(),
                                                p.unit, p.choices ? p.choices->data() : nullptr, choiceCount,
                                                p.explanation});
        const int code = RefusalCode(p.check);
        bool known = code == kResultSuccess;
        for (int earlier : codes[i]) known = known || earlier == code;
        if (!known) codes[i].push_back(code);
      }
      codes[i].push_back(kResultOutOfMemory);
      setters.push_back(KVSetterInfo{definition.frontEnd, definition.name, definition.stage, definition.explanation, parameters[i].data(),
                                     static_cast<unsigned int>(parameters[i].size()), codes[i].data(),
                                     static_cast<unsigned int>(codes[i].size()), definition.requiresBGRA,
                                     definition.sameBytesAtAnyThreadCount});
    }
  }
};

const Catalogue& TheCatalogue() {
  static const Catalogue catalogue;
  return catalogue;
}

int FindIndex(KVFrontEnd frontEnd, const char* name) {
  if (name == nullptr) return -1;
  const std::vector<KVSetterInfo>& setters = TheCatalogue().setters;
  for (size_t i = 0; i < setters.size(); ++i) {
    if (setters[i].frontEnd == frontEnd && std::strcmp(setters[i].name, name) == 0) return static_cast<int>(i);
  }
  return -1;
}

bool IsWhole(double value, double minimum, double maximum) {
  return value == std::trunc(value) && value >= minimum && value <= maximum;
}

// Whether the numbers of one parameter fit its type.
bool Fits(KVParameterType type, const double* v) {
  switch (type) {
    case kParameterInteger:
    case kParameterChoice:
      return IsWhole(v[0], -2147483648.0, kLargestInt);
    case kParameterRadius:
      return IsWhole(v[0], 0, kLargestRadius);
    case kParameterBool:
      return v[0] == 0.0 || v[0] == 1.0;
    case kParameterColour:
      return IsWhole(v[0], 0, 255) && IsWhole(v[1], 0, 255) && IsWhole(v[2], 0, 255);
    case kParameterRect:
      for (int k = 0; k < 4; ++k) {
        if (!IsWhole(v[k], -2147483648.0, kLargestInt)) return false;
      }
      return true;
    case kParameterReal:
    case kParameterPoint:
    case kParameterQuad:
    case kParameterLayer:
      return true;
  }
  return false;
}

int Queue(KVFrontEnd frontEnd, void* target, const char* name, const double* values, unsigned int valueCount,
          KVAbstractImage* const* layers, unsigned int layerCount) {
  return GuardedCall([&] {
    const int index = FindIndex(frontEnd, name);
    if (index < 0) return static_cast<int>(kResultInvalidCombination);
    const SetterDefinition& definition = Definitions()[static_cast<size_t>(index)];
    unsigned int numbers = 0, layerParameters = 0;
    for (const ParameterDefinition& p : definition.parameters) {
      numbers += NumberCount(p.type);
      if (p.type == kParameterLayer) ++layerParameters;
    }
    if (numbers != valueCount || layerParameters != layerCount) return static_cast<int>(kResultInvalidCombination);
    if (numbers != 0 && values == nullptr) return static_cast<int>(kResultInvalidCombination);
    unsigned int offset = 0;
    for (const ParameterDefinition& p : definition.parameters) {
      if (!Fits(p.type, values + offset)) return static_cast<int>(kResultOutOfRange);
      offset += NumberCount(p.type);
    }
    return definition.invoke(target, Arguments(definition.parameters, values, layers));
  });
}

}  // namespace

unsigned int NumberCount(KVParameterType type) {
  switch (type) {
    case kParameterColour:
      return 3;
    case kParameterPoint:
      return 2;
    case kParameterRect:
      return 4;
    case kParameterQuad:
      return 8;
    case kParameterLayer:
      return 0;
    case kParameterReal:
    case kParameterInteger:
    case kParameterRadius:
    case kParameterBool:
    case kParameterChoice:
      return 1;
  }
  return 0;
}

unsigned int SetterCount() { return static_cast<unsigned int>(TheCatalogue().setters.size()); }

const KVSetterInfo* SetterAt(unsigned int index) {
  const std::vector<KVSetterInfo>& setters = TheCatalogue().setters;
  return index < setters.size() ? &setters[index] : nullptr;
}

const KVSetterInfo* FindSetter(KVFrontEnd frontEnd, const char* name) {
  const int index = FindIndex(frontEnd, name);
  return index < 0 ? nullptr : &TheCatalogue().setters[static_cast<size_t>(index)];
}

const KVSetterInfo& CatalogueRow(KVFrontEnd frontEnd, const char* name) {
  const KVSetterInfo* row = FindSetter(frontEnd, name);
  // Only a setter missing from the catalogue gets here: a fault of the engine.
  if (row == nullptr) throw std::logic_error(std::string("no catalogue row for ") + name);
  return *row;
}

int RefusedArguments(const KVSetterInfo& row, std::initializer_list<double> arguments, const KVAbstractImage* layer,
                     const KVAbstractImage* background) {
  const double* values = arguments.begin();
  const unsigned int count = static_cast<unsigned int>(arguments.size());
  for (unsigned int i = 0; i < row.parameterCount && i < count; ++i) {
    const KVParameterInfo& parameter = row.parameters[i];
    const double value = values[i];
    switch (parameter.check) {
      case kCheckRange:
        if (value < parameter.minimum || value > parameter.maximum) return kResultOutOfRange;
        break;
      case kCheckChannelSelection:
        if (static_cast<unsigned int>(static_cast<int>(value)) <= 2u) return kResultUnsupportedFormat;
        break;
      case kCheckDirectionPair:
        if (value == 0.0 && i + 1 < count && values[i + 1] == 0.0) return kResultInvalidCombination;
        break;
      case kCheckLayerMatches:
        if (layer == nullptr || background == nullptr || !DoKVAbstractImagesMatch(layer, background)) {
          return kResultImagesDoNotMatch;
        }
        break;
      case kCheckNone:
        break;
    }
  }
  return kResultSuccess;
}

int QueueSetter(KVImageProcessor& processor, const char* name, const double* values, unsigned int valueCount) {
  return Queue(kFrontEndProcessor, &processor, name, values, valueCount, nullptr, 0);
}

int QueueSetter(KVImageKeyer& keyer, const char* name, const double* values, unsigned int valueCount) {
  return Queue(kFrontEndKeyer, &keyer, name, values, valueCount, nullptr, 0);
}

int QueueSetter(KVImageCompositor& compositor, const char* name, const double* values, unsigned int valueCount,
                KVAbstractImage* const* layers, unsigned int layerCount) {
  return Queue(kFrontEndCompositor, &compositor, name, values, valueCount, layers, layerCount);
}

}  // namespace image
}  // namespace kvo
