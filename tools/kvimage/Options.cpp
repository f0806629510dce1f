#include "Options.h"

#include <strings.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace kvimage_cli {

using namespace kvo::image;

std::string DescribeResultCode(int code) {
  return "code " + std::to_string(code) + " (" + kvo::ResultCodeMeaning(code) + ")";
}

namespace {
std::string BritishSpelling(const std::string& name) {
  std::string out = name;
  for (size_t at = out.find("color"); at != std::string::npos; at = out.find("color", at + 6)) {
    out.replace(at, 5, "colour");
  }
  return out;
}

}  // namespace

// ---------------------------------------------------------------------------
// Fields
// ---------------------------------------------------------------------------

Fields::Fields(const std::string& option, const std::string& value) : m_option(option), m_value(value) {
  if (value.empty()) return;
  std::string field;
  for (char c : value) {
    if (c == ':' || c == ',') {
      m_fields.push_back(field);
      field.clear();
    } else {
      field += c;
    }
  }
  m_fields.push_back(field);
}

void Fields::Fail(const std::string& problem) const {
  throw UsageError(m_option + (m_value.empty() ? "" : " " + m_value) + ": " + problem);
}

void Fields::ExpectCount(size_t min, size_t max) const {
  if (m_fields.size() < min || m_fields.size() > max) {
    std::string expected = min == max ? std::to_string(min) : std::to_string(min) + " to " + std::to_string(max);
    Fail("expected " + expected + " value" + (max == 1 ? "" : "s") + ", got " + std::to_string(m_fields.size()));
  }
}

double Fields::Number(size_t index) const {
  if (!Has(index)) Fail("value " + std::to_string(index + 1) + " is missing");
  const std::string& text = m_fields[index];
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || *end != '\0' || !std::isfinite(value)) Fail("'" + text + "' is not a number");
  return value;
}

long Fields::Integer(size_t index, long min, long max) const {
  if (!Has(index)) Fail("value " + std::to_string(index + 1) + " is missing");
  const std::string& text = m_fields[index];
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(text.c_str(), &end, 10);
  if (end == text.c_str() || *end != '\0') Fail("'" + text + "' is not a whole number");
  if (errno == ERANGE || value < min || value > max) {
    Fail("'" + text + "' is out of range (" + std::to_string(min) + ".." + std::to_string(max) + ")");
  }
  return value;
}

int Fields::Choice(size_t index, const std::vector<const char*>& choices) const {
  if (!Has(index)) Fail("value " + std::to_string(index + 1) + " is missing");
  for (size_t i = 0; i < choices.size(); ++i) {
    if (strcasecmp(m_fields[index].c_str(), choices[i]) == 0) return static_cast<int>(i);
  }
  std::string list;
  for (const char* choice : choices) list += (list.empty() ? "" : "|") + std::string(choice);
  Fail("'" + m_fields[index] + "' is not one of " + list);
}

long Fields::Whole(size_t index, const KVParameterInfo& parameter) const {
  return Integer(index, static_cast<long>(parameter.minimum), static_cast<long>(parameter.maximum));
}

int Fields::CatalogueChoice(size_t index, const KVParameterInfo& parameter) const {
  if (!Has(index)) Fail("value " + std::to_string(index + 1) + " is missing");
  const std::vector<const char*> names = ChoiceNames(parameter);
  Fields british(m_option, m_value);
  british.m_fields[index] = BritishSpelling(m_fields[index]);
  return parameter.choices[british.Choice(index, names)].value;
}

void Fields::Directions(size_t index, bool& horizontal, bool& vertical) const {
  const int choice = ChoiceOr(index, {"hv", "h", "v"}, 0);
  horizontal = choice != 2;
  vertical = choice != 1;
}

// ---------------------------------------------------------------------------
// The option tables. Each entry is one setter: adding a stage to the tool is
// adding an entry here.
// ---------------------------------------------------------------------------

namespace {


const KVParameterInfo& ProcessorParameter(const char* setter, const char* parameter) {
  return ParameterOf(kFrontEndProcessor, setter, parameter);
}
const KVParameterInfo& KeyerParameter(const char* setter, const char* parameter) {
  return ParameterOf(kFrontEndKeyer, setter, parameter);
}
// Every blur radius and every channel selection has the same range.
const KVParameterInfo& RadiusParameter() { return ProcessorParameter("SetStackBlur", "radius"); }
const KVParameterInfo& ChannelsParameter() { return ProcessorParameter("SetBrightness", "channels"); }

// A rectangle beyond any image: the stages clip it to the whole frame.
const kvo::maths::KVRect kWholeImage(kvo::maths::KVPoint2(0, 0), 1 << 24, 1 << 24);

KVPixel8_RGB ParseColour(const Fields& f) {
  f.ExpectCount(3, 3);
  KVPixel8_RGB colour;
  colour.red = static_cast<unsigned char>(f.Integer(0, 0, 255));
  colour.green = static_cast<unsigned char>(f.Integer(1, 0, 255));
  colour.blue = static_cast<unsigned char>(f.Integer(2, 0, 255));
  return colour;
}

KVKeyColor EffectiveKey(const StageTarget& t) {
  return t.keyColour == kKeyColorAuto ? t.detectedKeyColour : t.keyColour;
}

const std::vector<OptionEntry> kEffectOptions = {
    {"--opacity", "OPACITY", "SetOpacity", {"opacity"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 1);
       const double opacity = f.Number(0);
       return [=](StageTarget& t) { return t.processor->SetOpacity(opacity); };
     }},
    {"--mirror", "", "SetMirror", {},
     FrontEnd::kProcessor,
     [](const Fields&, KeySettings&) -> StageFunction {
       return [](StageTarget& t) { return t.processor->SetMirror(true, false); };
     }},
    {"--silhouette", "R,G,B", "SetSilhouette", {"colour"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       const KVPixel8_RGB colour = ParseColour(f);
       return [=](StageTarget& t) { return t.processor->SetSilhouette(colour); };
     }},
    {"--matte-view", "", "SetMatteView", {},
     FrontEnd::kProcessor,
     [](const Fields&, KeySettings&) -> StageFunction {
       return [](StageTarget& t) { return t.processor->SetMatteView(); };
     }},
    {"--brightness", "AMOUNT[:CHANNELS]", "SetBrightness", {"brightness", "channels"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const double amount = f.Number(0);
       const KVChannelsToProcess channels = static_cast<KVChannelsToProcess>(f.CatalogueChoiceOr(1, ChannelsParameter(), kChannelsColor));
       return [=](StageTarget& t) { return t.processor->SetBrightness(amount, channels); };
     }},
    {"--contrast", "AMOUNT[:CHANNELS]", "SetContrast", {"contrast", "channels"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const double amount = f.Number(0);
       const KVChannelsToProcess channels = static_cast<KVChannelsToProcess>(f.CatalogueChoiceOr(1, ChannelsParameter(), kChannelsColor));
       return [=](StageTarget& t) { return t.processor->SetContrast(amount, channels); };
     }},
    {"--super-contrast", "LOW:HIGH[:CHANNELS]", "SetSuperContrast", {"low", "high", "channels"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(2, 3);
       const double low = f.Number(0), high = f.Number(1);
       const KVChannelsToProcess channels = static_cast<KVChannelsToProcess>(f.CatalogueChoiceOr(2, ChannelsParameter(), kChannelsColor));
       return [=](StageTarget& t) { return t.processor->SetSuperContrast(low, high, channels); };
     }},
    {"--colour-balance", "R:G:B", "SetColorBalance", {"red", "green", "blue"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(3, 3);
       const double r = f.Number(0), g = f.Number(1), b = f.Number(2);
       return [=](StageTarget& t) { return t.processor->SetColorBalance(r, g, b); };
     }},
    {"--colour-temperature", "KELVIN", "SetColorTemperature", {"kelvin"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 1);
       const double kelvin = f.Number(0);
       return [=](StageTarget& t) { return t.processor->SetColorTemperature(kelvin); };
     }},
    {"--saturation", "AMOUNT", "SetSaturation", {"saturation"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 1);
       const double amount = f.Number(0);
       return [=](StageTarget& t) { return t.processor->SetSaturation(amount); };
     }},
    {"--hue-shift", "DEGREES[:AMOUNT]", "SetHueShift", {"shift", "amount"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const double degrees = f.Number(0), amount = f.NumberOr(1, 1.0);
       return [=](StageTarget& t) { return t.processor->SetHueShift(degrees, amount); };
     }},
    {"--hue-colourize", "HUE[:AMOUNT]", "SetHueColorize", {"hue", "amount"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const double hue = f.Number(0), amount = f.NumberOr(1, 1.0);
       return [=](StageTarget& t) { return t.processor->SetHueColorize(hue, amount); };
     }},
    {"--tint", "TONE[:AMOUNT]", "SetTint", {"type", "amount"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const KVTintType tone = static_cast<KVTintType>(f.CatalogueChoice(0, ProcessorParameter("SetTint", "type")));
       const double amount = f.NumberOr(1, 1.0);
       return [=](StageTarget& t) { return t.processor->SetTint(tone, amount); };
     }},
    {"--three-strip", "A:B:C", "SetThreeStripColor", {"a", "b", "c"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(3, 3);
       const double a = f.Number(0), b = f.Number(1), c = f.Number(2);
       return [=](StageTarget& t) { return t.processor->SetThreeStripColor(a, b, c); };
     }},
    {"--stack-blur", "RADIUS[:DIRECTIONS[:CHANNELS]]", "SetStackBlur", {"radius", "channels"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 3);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       bool horizontal, vertical;
       f.Directions(1, horizontal, vertical);
       const KVChannelsToProcess channels = static_cast<KVChannelsToProcess>(f.CatalogueChoiceOr(2, ChannelsParameter(), kChannelsAll));
       return [=](StageTarget& t) { return t.processor->SetStackBlur(radius, horizontal, vertical, channels); };
     }},
    {"--yuv-blur", "RADIUS[:TYPE]", "SetYUVBlur", {"radius", "type"},
     FrontEnd::kEither,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       const KVYUVBlurType type = static_cast<KVYUVBlurType>(f.CatalogueChoiceOr(1, ProcessorParameter("SetYUVBlur", "type"), kYUVBlurStack));
       return [=](StageTarget& t) {
         return t.processor ? t.processor->SetYUVBlur(radius, type) : t.keyer->SetYUVBlur(radius, type);
       };
     }},
    {"--bounded-blur", "RADIUS:X:Y:W:H[:FEATHER[:DIRECTIONS[:CHANNELS]]]", "SetBoundedStackBlur", {"radius", "rect", "feather", "channels"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(5, 8);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       const int x = static_cast<int>(f.Integer(1, -1000000, 1000000));
       const int y = static_cast<int>(f.Integer(2, -1000000, 1000000));
       const int w = static_cast<int>(f.Integer(3, 0, 1000000));
       const int h = static_cast<int>(f.Integer(4, 0, 1000000));
       const double feather = f.NumberOr(5, 0.0);
       bool horizontal, vertical;
       f.Directions(6, horizontal, vertical);
       const KVChannelsToProcess channels = static_cast<KVChannelsToProcess>(f.CatalogueChoiceOr(7, ChannelsParameter(), kChannelsAll));
       return [=](StageTarget& t) {
         const kvo::maths::KVRect rect(kvo::maths::KVPoint2(x, y), w, h);
         return t.processor->SetBoundedStackBlur(radius, horizontal, vertical, channels, rect, feather);
       };
     }},
    {"--defocus", "RADIUS:AMOUNT[:FEATHER]", "SetDefocus", {"radius", "amount", "blurParameter"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(2, 3);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       const double amount = f.Number(1), feather = f.NumberOr(2, 0.0);
       return [=](StageTarget& t) { return t.processor->SetDefocus(radius, amount, feather); };
     }},
    {"--diffuse", "RADIUS:AMOUNT[:FEATHER]", "SetDiffuse", {"radius", "amount", "blurParameter"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(2, 3);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       const double amount = f.Number(1), feather = f.NumberOr(2, 0.0);
       return [=](StageTarget& t) { return t.processor->SetDiffuse(radius, amount, feather); };
     }},
    {"--sharpen", "RADIUS:AMOUNT:THRESHOLD[:FEATHER]", "SetSharpen", {"radius", "amount", "threshold", "blurParameter"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(3, 4);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       const double amount = f.Number(1), threshold = f.Number(2), feather = f.NumberOr(3, 0.0);
       return [=](StageTarget& t) { return t.processor->SetSharpen(radius, amount, threshold, feather); };
     }},
    {"--soft-focus", "MODE:RADIUS:AMOUNT[:FEATHER]", "SetSoftFocus", {"mode", "radius", "amount", "blurParameter"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(3, 4);
       const KVBlendMode mode = static_cast<KVBlendMode>(f.CatalogueChoice(0, BlendModeParameter()));
       const unsigned int radius = static_cast<unsigned int>(f.Whole(1, RadiusParameter()));
       const double amount = f.Number(2), feather = f.NumberOr(3, 0.0);
       return [=](StageTarget& t) { return t.processor->SetSoftFocus(mode, radius, amount, kWholeImage, feather); };
     }},
    {"--bleach-bypass", "AMOUNT:DESATURATION:CONTRAST", "SetBleachBypass", {"amount", "desaturation", "contrast"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(3, 3);
       const double amount = f.Number(0), desaturation = f.Number(1), contrast = f.Number(2);
       return [=](StageTarget& t) { return t.processor->SetBleachBypass(amount, desaturation, contrast); };
     }},
    {"--vignette", "AMOUNT:MIDPOINT:ROUNDNESS:FEATHER:HIGHLIGHTS[:R:G:B]", "SetVignette", {"amount", "midpoint", "roundness", "feather", "highlights", "colour"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(5, 8);
       if (f.Has(5)) f.ExpectCount(8, 8);
       const double amount = f.Number(0), midpoint = f.Number(1), roundness = f.Number(2), feather = f.Number(3),
                    highlights = f.Number(4);
       KVPixel8_RGB colour = {0, 0, 0};
       if (f.Has(5)) {
         colour.red = static_cast<unsigned char>(f.Integer(5, 0, 255));
         colour.green = static_cast<unsigned char>(f.Integer(6, 0, 255));
         colour.blue = static_cast<unsigned char>(f.Integer(7, 0, 255));
       }
       return [=](StageTarget& t) {
         return t.processor->SetVignette(colour, amount, midpoint, roundness, feather, highlights,
                                         kvo::maths::KVRect());
       };
     }},
    {"--depth-of-field", "radial|linear:X:Y:RADIUS:FOCUS:TRANSITION[:AMOUNT[:ANGLE]]", "SetDepthOfField", {"type", "focus", "radius", "focusSize", "transition", "amount", "angle"},
     FrontEnd::kProcessor,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(6, 8);
       const KVDepthOfFieldType type = static_cast<KVDepthOfFieldType>(f.CatalogueChoice(0, ProcessorParameter("SetDepthOfField", "type")));
       const double x = f.Number(1), y = f.Number(2);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(3, RadiusParameter()));
       const double focus = f.Number(4), transition = f.Number(5), amount = f.NumberOr(6, 1.0),
                    angle = f.NumberOr(7, 0.0);
       return [=](StageTarget& t) {
         return t.processor->SetDepthOfField(type, kvo::maths::KVPoint2F(x, y), angle, radius, focus, transition,
                                             amount, 0.0, kvo::maths::KVRect());
       };
     }},
};

const std::vector<OptionEntry> kKeyOptions = {
    {"--key", "auto|green|blue", "SetAutoColorDifferenceKey", {"keyColor"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 1);
       const KVKeyColor colour = static_cast<KVKeyColor>(f.CatalogueChoice(0, KeyerParameter("SetAutoColorDifferenceKey", "keyColor")));
       return [=](StageTarget& t) {
         t.keyColour = colour;
         const KeySettings& s = *t.settings;
         return t.keyer->SetAutoColorDifferenceKey(colour, s.balance, s.saturationLimit, s.saturationSoftness);
       };
     }},
    {"--balance", "AMOUNT", "SetAutoColorDifferenceKey", {"balance"},
     FrontEnd::kKeySetting,
     [](const Fields& f, KeySettings& s) -> StageFunction {
       f.ExpectCount(1, 1);
       s.balance = f.Number(0);
       return StageFunction();
     }},
    {"--saturation-limit", "AMOUNT", "SetAutoColorDifferenceKey", {"saturationLimit"},
     FrontEnd::kKeySetting,
     [](const Fields& f, KeySettings& s) -> StageFunction {
       f.ExpectCount(1, 1);
       s.saturationLimit = f.Number(0);
       return StageFunction();
     }},
    {"--saturation-softness", "AMOUNT", "SetAutoColorDifferenceKey", {"saturationSoftness"},
     FrontEnd::kKeySetting,
     [](const Fields& f, KeySettings& s) -> StageFunction {
       f.ExpectCount(1, 1);
       s.saturationSoftness = f.Number(0);
       return StageFunction();
     }},
    {"--spill", "METHOD[:AMOUNT]", "SetSpillSuppression", {"spillType", "amount"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const KVSpillType method = static_cast<KVSpillType>(f.CatalogueChoice(0, KeyerParameter("SetSpillSuppression", "spillType")));
       const double amount = f.NumberOr(1, 1.0);
       return [=](StageTarget& t) {
         const KeySettings& s = *t.settings;
         const KVChannel channel = s.spillChannel >= 0
                                       ? static_cast<KVChannel>(s.spillChannel)
                                       : (EffectiveKey(t) == kKeyColorBlue ? kChannelBlue : kChannelGreen);
         double factors[4] = {s.spillFactors[0], s.spillFactors[1], s.spillFactors[2], s.spillFactors[3]};
         if (!s.spillFactorsGiven) {
           factors[0] = 0.0;
           factors[1] = channel == kChannelBlue ? 0.0 : -1.0;
           factors[2] = channel == kChannelBlue ? -1.0 : 0.0;
           factors[3] = 1.0;
         }
         return t.keyer->SetSpillSuppression(channel, method, amount, factors[0], factors[1], factors[2], factors[3]);
       };
     }},
    {"--spill-channel", "green|blue", "SetSpillSuppression", {"channel"},
     FrontEnd::kKeySetting,
     [](const Fields& f, KeySettings& s) -> StageFunction {
       f.ExpectCount(1, 1);
       s.spillChannel = f.CatalogueChoice(0, KeyerParameter("SetSpillSuppression", "channel"));
       return StageFunction();
     }},
    {"--spill-factors", "R:G:B:REFERENCE", "SetSpillSuppression", {"redFactor", "greenFactor", "blueFactor", "referenceFactor"},
     FrontEnd::kKeySetting,
     [](const Fields& f, KeySettings& s) -> StageFunction {
       f.ExpectCount(4, 4);
       for (size_t i = 0; i < 4; ++i) s.spillFactors[i] = f.Number(i);
       s.spillFactorsGiven = true;
       return StageFunction();
     }},
    {"--erode", "SIZE[:SHAPE]", "SetWhiteErode", {"size", "direction"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const int size = static_cast<int>(f.Integer(0, -2147483647L, 2147483647L));
       const KVWhiteErodeDirection shape =
           static_cast<KVWhiteErodeDirection>(f.CatalogueChoiceOr(1, KeyerParameter("SetWhiteErode", "direction"), kWhiteErodeAll));
       return [=](StageTarget& t) { return t.keyer->SetWhiteErode(shape, size); };
     }},
    {"--crop", "L,T,R,B", "SetAlphaCrop", {"left", "top", "right", "bottom"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(4, 4);
       const double l = f.Number(0), t = f.Number(1), r = f.Number(2), b = f.Number(3);
       return [=](StageTarget& target) { return target.keyer->SetAlphaCrop(l, t, r, b); };
     }},
    {"--alpha-blur", "RADIUS[:DIRECTIONS]", "SetAlphaStackBlur", {"radius"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(1, 2);
       const unsigned int radius = static_cast<unsigned int>(f.Whole(0, RadiusParameter()));
       bool horizontal, vertical;
       f.Directions(1, horizontal, vertical);
       return [=](StageTarget& t) { return t.keyer->SetAlphaStackBlur(radius, horizontal, vertical); };
     }},
    {"--alpha-contrast", "LOW:HIGH", "SetAlphaSuperContrast", {"low", "high"},
     FrontEnd::kKeyer,
     [](const Fields& f, KeySettings&) -> StageFunction {
       f.ExpectCount(2, 2);
       const double low = f.Number(0), high = f.Number(1);
       return [=](StageTarget& t) { return t.keyer->SetAlphaSuperContrast(low, high); };
     }},
};

}  // namespace

const KVSetterInfo& SetterOf(const OptionEntry& option) {
  const KVFrontEnd frontEnd = option.frontEnd == FrontEnd::kProcessor ? kFrontEndProcessor : kFrontEndKeyer;
  const KVSetterInfo* row = FindSetter(frontEnd, option.setter);
  if (row == nullptr) row = FindSetter(kFrontEndProcessor, option.setter);
  if (row == nullptr) row = FindSetter(kFrontEndKeyer, option.setter);
  if (row == nullptr) throw std::logic_error(std::string("no setter ") + option.setter);
  return *row;
}

const KVParameterInfo& ParameterOf(KVFrontEnd frontEnd, const char* setter, const char* parameter) {
  const KVSetterInfo* row = FindSetter(frontEnd, setter);
  for (unsigned int i = 0; row != nullptr && i < row->parameterCount; ++i) {
    if (std::strcmp(row->parameters[i].name, parameter) == 0) return row->parameters[i];
  }
  throw std::logic_error(std::string("no parameter ") + setter + "." + parameter);
}

std::vector<const char*> ChoiceNames(const KVParameterInfo& parameter) {
  std::vector<const char*> names;
  for (unsigned int i = 0; i < parameter.choiceCount; ++i) names.push_back(parameter.choices[i].name);
  return names;
}

const KVParameterInfo& BlendModeParameter() { return ProcessorParameter("SetSoftFocus", "mode"); }
std::vector<const char*> BlendModeNames() { return ChoiceNames(BlendModeParameter()); }

namespace {

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.10g", value);
  return text;
}

// "-1..1", "alpha|colour|all", "any value", with the unit and the default.
std::string RangeOf(const KVParameterInfo& p) {
  std::string range;
  const unsigned int numbers = NumberCount(p.type);
  if (p.type == kParameterChoice) {
    for (unsigned int i = 0; i < p.choiceCount; ++i) range += (i ? "|" : "") + std::string(p.choices[i].name);
    for (unsigned int i = 0; i < p.choiceCount; ++i) {
      if (p.choices[i].value == p.defaults[0]) range += " (" + std::string(p.choices[i].name) + ")";
    }
    return range;
  }
  if (p.type == kParameterRect || p.type == kParameterPoint || p.type == kParameterQuad) return p.unit;
  if (p.maximum >= 1e300) {
    range = p.minimum <= -1e300 ? "any value" : ">= " + Number(p.minimum);
  } else {
    range = Number(p.minimum) + ".." + Number(p.maximum);
  }
  if (p.type == kParameterColour) range = "each " + range;
  if (*p.unit) range += " " + std::string(p.unit);
  std::string byDefault;
  for (unsigned int i = 0; i < numbers; ++i) byDefault += (i ? "," : "") + Number(p.defaults[i]);
  if (p.type != kParameterRect && p.type != kParameterPoint && numbers != 0) range += " (" + byDefault + ")";
  return range;
}

}  // namespace

std::string OptionHelp(const OptionEntry& option) {
  const KVSetterInfo& row = SetterOf(option);
  if (option.frontEnd == FrontEnd::kKeySetting && option.parameters.size() == 1) {
    const KVParameterInfo& p = ParameterOf(row.frontEnd, row.name, option.parameters.front());
    return std::string("key: ") + p.explanation + "; " + RangeOf(p);
  }
  std::string help = row.explanation;
  for (const char* name : option.parameters) {
    const KVParameterInfo& p = ParameterOf(row.frontEnd, row.name, name);
    help += std::string("; ") + name + " " + RangeOf(p);
  }
  return help;
}
const std::vector<OptionEntry>& EffectOptions() { return kEffectOptions; }
const std::vector<OptionEntry>& KeyOptions() { return kKeyOptions; }

const OptionEntry* FindStageOption(const std::string& name, bool effects, bool keys) {
  const std::string wanted = BritishSpelling(name);
  if (effects) {
    for (const OptionEntry& entry : kEffectOptions) {
      if (wanted == entry.name) return &entry;
    }
  }
  if (keys) {
    for (const OptionEntry& entry : kKeyOptions) {
      if (wanted == entry.name) return &entry;
    }
    // The YUV blur is in both front ends; the key tables list it too.
    if (!effects && wanted == "--yuv-blur") return FindStageOption(name, true, false);
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// The chain
// ---------------------------------------------------------------------------

void StageChain::Add(const OptionEntry& entry, const std::string& value) {
  Fields fields(entry.name, value);
  StageFunction queue = entry.parse(fields, m_settings);
  if (entry.frontEnd == FrontEnd::kKeySetting) return;
  m_stages.push_back(ParsedStage{&entry, std::string(entry.name) + (*entry.value ? " " + value : ""), queue});
}

bool StageChain::HasKeyColourStage() const {
  for (const ParsedStage& stage : m_stages) {
    if (std::strcmp(stage.entry->name, "--key") == 0) return true;
  }
  return false;
}

void StageChain::PrependAutomaticKey() {
  const OptionEntry* key = FindStageOption("--key", false, true);
  Fields fields(key->name, "auto");
  m_stages.insert(m_stages.begin(), ParsedStage{key, "--key auto", key->parse(fields, m_settings)});
}

namespace {

// How a refused stage is named in a message: a key stage with the settings it
// was given, since any of them may be the value refused.
std::string Describe(const ParsedStage& stage, const KeySettings& settings) {
  if (std::strcmp(stage.entry->name, "--key") != 0) return stage.text;
  char text[160];
  std::snprintf(text, sizeof text, " --balance %g --saturation-limit %g --saturation-softness %g", settings.balance,
                settings.saturationLimit, settings.saturationSoftness);
  return stage.text + text;
}

// The front end a stage goes to, given the one of the run it would join: a
// stage both front ends have stays in the current run.
bool GoesToKeyer(FrontEnd frontEnd, bool currentIsKeyer) {
  return frontEnd == FrontEnd::kKeyer || (frontEnd == FrontEnd::kEither && currentIsKeyer);
}

}  // namespace

Image StageChain::Run(const Image& input, kvo::KVLookupTables& tables) const {
  Image current = input;
  StageTarget target;
  target.settings = &m_settings;
  size_t next = 0;
  while (next < m_stages.size()) {
    const bool keyer = GoesToKeyer(m_stages[next].entry->frontEnd, false);  // a lone kEither runs on a processor
    Image output = current;
    KVImage8 source(current.bgra.data(), current.width, current.height, kPixelOrderBGRA);
    KVImage8 destination(output.bgra.data(), output.width, output.height, kPixelOrderBGRA);
    std::unique_ptr<KVImageProcessor> processor;
    std::unique_ptr<KVImageKeyer> keyerFrontEnd;
    if (keyer) {
      // What an automatic key will find in this keyer's input: the spill
      // stage pulls down that colour.
      KVKeyColor detected = kKeyColorGreen;
      AutoDetectKeyColor(&source, static_cast<int>(kvo::KVSystem::GetCPUCoreCount()), &detected);
      target.detectedKeyColour = detected;
      keyerFrontEnd.reset(new KVImageKeyer(&source, &destination, tables, m_factor));
    } else {
      processor.reset(new KVImageProcessor(&source, &destination, tables, m_factor));
    }
    target.processor = processor.get();
    target.keyer = keyerFrontEnd.get();
    for (; next < m_stages.size() && GoesToKeyer(m_stages[next].entry->frontEnd, keyer) == keyer; ++next) {
      const int code = m_stages[next].queue(target);
      if (code != 0) {
        throw EngineError(Describe(m_stages[next], m_settings) + ": the engine refused it: " + DescribeResultCode(code),
                          code, true);
      }
    }
    const int code = keyer ? keyerFrontEnd->Render() : processor->Render();
    if (code != 0) throw EngineError("render failed: " + DescribeResultCode(code), code, false);
    current.bgra.swap(output.bgra);
  }
  return current;
}

void StageChain::Validate(kvo::KVLookupTables& tables) const {
  unsigned char pixels[2][4] = {{0, 0, 0, 255}, {0, 0, 0, 255}};
  KVImage8 source(pixels[0], 1, 1, kPixelOrderBGRA);
  KVImage8 destination(pixels[1], 1, 1, kPixelOrderBGRA);
  KVImageProcessor processor(&source, &destination, tables, m_factor);
  KVImageKeyer keyer(&source, &destination, tables, m_factor);
  StageTarget target;
  target.settings = &m_settings;
  bool inKeyer = false;
  for (const ParsedStage& stage : m_stages) {
    inKeyer = GoesToKeyer(stage.entry->frontEnd, inKeyer);
    target.processor = inKeyer ? nullptr : &processor;
    target.keyer = inKeyer ? &keyer : nullptr;
    const int code = stage.queue(target);
    if (code != 0) {
      throw EngineError(Describe(stage, m_settings) + ": the engine refused it: " + DescribeResultCode(code), code,
                        true);
    }
  }
}

void CompositeOver(Image& background, const Image& layer, kvo::KVLookupTables& tables, const std::string& what) {
  KVImage8 back(background.bgra.data(), background.width, background.height, kPixelOrderBGRA);
  KVImage8 front(const_cast<unsigned char*>(layer.bgra.data()), layer.width, layer.height, kPixelOrderBGRA);
  KVImageCompositor compositor(&back, 1.0, tables, kDownsampleNone);
  int code = compositor.AddLayer(&front, 1.0, kBlendNormal, kCompositeAlpha);
  if (code == 1000) {
    throw EngineError(what + " is " + std::to_string(layer.width) + "x" + std::to_string(layer.height) +
                          " but the background is " + std::to_string(background.width) + "x" +
                          std::to_string(background.height) + ": " + DescribeResultCode(code),
                      code, true);
  }
  if (code == 0) code = compositor.Render();
  if (code != 0) throw EngineError("composite failed: " + DescribeResultCode(code), code, false);
}

}  // namespace kvimage_cli
