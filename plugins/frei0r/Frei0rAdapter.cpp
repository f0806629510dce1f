#include "Frei0rAdapter.h"

#include <kvimage/kvimage.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kvfrei0r {

using namespace kvo::image;

namespace {

// How a frei0r value becomes the catalogue's numbers. Hosts hand doubles in
// 0..1, colours as three floats and positions as two doubles; the adapter
// clamps what lies outside (NaN takes the default) before mapping.
enum class Mapping {
  kRange,       // 0..1 spans the catalogue's minimum..maximum
  kAsGiven,     // a number without a finite range: the value itself
  kWidth,       // a size in pixels, as a fraction of the frame's width
  kFlag,        // true from 0.5
  kChoice,      // a string: one of the choice names
  kColour,      // red, green, blue 0..1 to bytes
  kPoint,       // x, y as fractions of the frame's width and height
  kRectCorner,  // a rectangle's top-left corner, as a point
  kRectEnd      // its bottom-right corner: the width and height follow
};

// Sizes in pixels are fractions of the frame's width, so that a preview at a
// lower resolution looks like the full frame. Their defaults are the
// catalogue's pixels on a frame this wide.
const double kReferenceWidth = 1920.0;
const double kReferenceHeight = 1080.0;

struct Parameter {
  std::string name;
  std::string explanation;
  int type;                  // F0R_PARAM_*
  Mapping mapping;
  unsigned int stage;        // the plugin's stage it feeds
  unsigned int offset;       // the first of its numbers in that stage's value list
  const KVParameterInfo* info;
  double defaults[3];        // frei0r values; a choice's default is its index
};

struct Stage {
  const KVSetterInfo* row;
  std::vector<double> values;  // the setter's numbers: catalogue defaults and fixed values
};

bool IsWhole(KVParameterType type) { return type != kParameterReal && type != kParameterPoint; }

double Clamp01(double value, double otherwise) {
  if (std::isnan(value)) return otherwise;
  return std::min(1.0, std::max(0.0, value));
}

double Round(double value) { return std::floor(value + 0.5); }

// "SetColorBalance" -> "colour_balance", "SetYUVBlur" -> "yuv_blur",
// "saturationLimit" -> "saturation_limit", "colour-burn" -> "colour_burn".
std::string SnakeName(const std::string& name) {
  const std::string text = name.compare(0, 3, "Set") == 0 ? name.substr(3) : name;
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool upper = std::isupper(static_cast<unsigned char>(c)) != 0;
    const bool afterLower = i > 0 && std::islower(static_cast<unsigned char>(text[i - 1]));
    const bool endsAcronym = i > 0 && std::isupper(static_cast<unsigned char>(text[i - 1])) && i + 1 < text.size() &&
                             std::islower(static_cast<unsigned char>(text[i + 1]));
    if (upper && (afterLower || endsAcronym)) out += '_';
    out += c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  for (size_t at = out.find("color"); at != std::string::npos; at = out.find("color", at + 6)) out.replace(at, 5, "colour");
  return out;
}

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

}  // namespace

struct Plugin {
  std::string name;
  std::string explanation;
  int type;  // F0R_PLUGIN_TYPE_FILTER or _MIXER2
  KVFrontEnd frontEnd;
  std::vector<Stage> stages;
  std::vector<Parameter> parameters;
};

namespace {

unsigned int OffsetOf(const KVSetterInfo& row, const char* parameter) {
  unsigned int offset = 0;
  for (unsigned int i = 0; i < row.parameterCount; ++i) {
    if (std::strcmp(row.parameters[i].name, parameter) == 0) return offset;
    offset += NumberCount(row.parameters[i].type);
  }
  return offset;
}

bool Mappable(KVParameterType type) { return type != kParameterQuad && type != kParameterLayer; }

void AddParameter(Plugin& plugin, const KVParameterInfo& p, unsigned int offset, const std::string& prefix) {
  std::string name = SnakeName(p.name);
  if (!prefix.empty() && name.compare(0, prefix.size(), prefix) != 0) name = prefix + "_" + name;
  Parameter out{name, p.explanation, F0R_PARAM_DOUBLE, Mapping::kRange,
                static_cast<unsigned int>(plugin.stages.size() - 1), offset, &p, {0, 0, 0}};
  const bool pixels = std::strcmp(p.unit, "pixels") == 0;
  switch (p.type) {
    case kParameterBool:
      out.type = F0R_PARAM_BOOL;
      out.mapping = Mapping::kFlag;
      out.defaults[0] = p.defaults[0];
      break;
    case kParameterChoice:
      out.type = F0R_PARAM_STRING;
      out.mapping = Mapping::kChoice;
      out.explanation += ":";
      for (unsigned int i = 0; i < p.choiceCount; ++i) {
        out.explanation += std::string(i ? "|" : " ") + p.choices[i].name;
        if (p.choices[i].value == p.defaults[0]) out.defaults[0] = i;
      }
      break;
    case kParameterColour:
      out.type = F0R_PARAM_COLOR;
      out.mapping = Mapping::kColour;
      for (int k = 0; k < 3; ++k) out.defaults[k] = p.defaults[k] / 255.0;
      break;
    case kParameterPoint:
      out.type = F0R_PARAM_POSITION;
      out.mapping = Mapping::kPoint;
      out.explanation += " (fractions of the frame's width and height)";
      out.defaults[0] = Clamp01(p.defaults[0] / kReferenceWidth, 0);
      out.defaults[1] = Clamp01(p.defaults[1] / kReferenceHeight, 0);
      break;
    case kParameterRect: {
      // Two positions: the top-left and the bottom-right corner.
      Parameter end = out;
      out.type = end.type = F0R_PARAM_POSITION;
      out.mapping = Mapping::kRectCorner;
      end.mapping = Mapping::kRectEnd;
      out.name += "_top_left";
      end.name += "_bottom_right";
      out.explanation += ", top-left corner (fractions of the frame's width and height)";
      end.explanation += ", bottom-right corner (equal corners: an empty rectangle)";
      out.defaults[0] = Clamp01(p.defaults[0] / kReferenceWidth, 0);
      out.defaults[1] = Clamp01(p.defaults[1] / kReferenceHeight, 0);
      end.defaults[0] = Clamp01((p.defaults[0] + p.defaults[2]) / kReferenceWidth, 0);
      end.defaults[1] = Clamp01((p.defaults[1] + p.defaults[3]) / kReferenceHeight, 0);
      plugin.parameters.push_back(out);
      plugin.parameters.push_back(end);
      return;
    }
    default:
      if (pixels) {
        out.mapping = Mapping::kWidth;
        out.explanation += " (a fraction of the frame's width)";
        out.defaults[0] = Clamp01(p.defaults[0] / kReferenceWidth, 0);
      } else if (!std::isfinite(p.maximum - p.minimum)) {
        out.mapping = Mapping::kAsGiven;
        out.defaults[0] = Clamp01(p.defaults[0], 0);
      } else {
        if (p.minimum != 0 || p.maximum != 1 || *p.unit) {
          out.explanation += " (0..1 spans " + Number(p.minimum) + ".." + Number(p.maximum) +
                             (*p.unit ? std::string(" ") + p.unit : std::string()) + ")";
        }
        out.defaults[0] = Clamp01((p.defaults[0] - p.minimum) / (p.maximum - p.minimum), 0);
      }
      break;
  }
  plugin.parameters.push_back(out);
}

// Adds the setter as the plugin's next stage. exposed names the parameters
// the plugin shows (null: every one that maps); the others keep their
// catalogue defaults. prefix tells the stage's parameters apart in a chain.
void AddStage(Plugin& plugin, const KVSetterInfo& row, const std::vector<const char*>* exposed,
              const std::string& prefix) {
  Stage stage{&row, {}};
  for (unsigned int i = 0; i < row.parameterCount; ++i) {
    const KVParameterInfo& p = row.parameters[i];
    stage.values.insert(stage.values.end(), p.defaults, p.defaults + NumberCount(p.type));
  }
  plugin.stages.push_back(stage);
  for (unsigned int i = 0; i < row.parameterCount; ++i) {
    const KVParameterInfo& p = row.parameters[i];
    bool shown = Mappable(p.type);
    if (exposed) shown = std::find_if(exposed->begin(), exposed->end(), [&](const char* name) {
                           return std::strcmp(name, p.name) == 0;
                         }) != exposed->end();
    if (shown) AddParameter(plugin, p, OffsetOf(row, p.name), prefix);
  }
}

const KVSetterInfo& Row(KVFrontEnd frontEnd, const char* name) { return *FindSetter(frontEnd, name); }

std::vector<Plugin> BuildPlugins() {
  std::vector<Plugin> plugins;
  // Every processor effect whose parameters map to frei0r types. The mirror
  // stage is left out: it carries its flags and writes no pixel.
  for (unsigned int i = 0; i < SetterCount(); ++i) {
    const KVSetterInfo& row = *SetterAt(i);
    if (row.frontEnd != kFrontEndProcessor || std::strcmp(row.name, "SetMirror") == 0) continue;
    bool mappable = true;
    for (unsigned int k = 0; k < row.parameterCount; ++k) mappable = mappable && Mappable(row.parameters[k].type);
    if (!mappable) continue;
    Plugin plugin{"kvimage_" + SnakeName(row.name), row.explanation, F0R_PLUGIN_TYPE_FILTER, kFrontEndProcessor, {}, {}};
    AddStage(plugin, row, nullptr, "");
    plugins.push_back(plugin);
  }

  // The keyer: one plugin running the whole chain, as `kvimage key` does:
  // the key, spill suppression on the key's channel, erosion, the crop.
  Plugin key{"kvimage_key",
             "colour-difference key of a green or blue backing, spill suppression, matte erosion and crop; the "
             "matte is the output's alpha",
             F0R_PLUGIN_TYPE_FILTER, kFrontEndKeyer, {}, {}};
  const std::vector<const char*> spill = {"spillType", "amount"}, erode = {"direction", "size"};
  AddStage(key, Row(kFrontEndKeyer, "SetAutoColorDifferenceKey"), nullptr, "");
  AddStage(key, Row(kFrontEndKeyer, "SetSpillSuppression"), &spill, "spill");
  AddStage(key, Row(kFrontEndKeyer, "SetWhiteErode"), &erode, "erode");
  AddStage(key, Row(kFrontEndKeyer, "SetAlphaCrop"), nullptr, "crop");
  plugins.push_back(key);

  // One mixer per blend mode: the second input laid over the first.
  const KVSetterInfo& layer = Row(kFrontEndCompositor, "AddLayer");
  const std::vector<const char*> shown = {"opacity", "compositeType"};
  for (unsigned int i = 0; i < layer.parameterCount; ++i) {
    const KVParameterInfo& mode = layer.parameters[i];
    if (std::strcmp(mode.name, "blendMode") != 0) continue;
    for (unsigned int c = 0; c < mode.choiceCount; ++c) {
      Plugin mixer{"kvimage_blend_" + SnakeName(mode.choices[c].name),
                   std::string("lays the second input over the first, blend mode ") + mode.choices[c].name,
                   F0R_PLUGIN_TYPE_MIXER2, kFrontEndCompositor, {}, {}};
      AddStage(mixer, layer, &shown, "");
      mixer.stages.back().values[OffsetOf(layer, "blendMode")] = mode.choices[c].value;
      plugins.push_back(mixer);
    }
  }
  return plugins;
}

const std::vector<Plugin>& Plugins() {
  static const std::vector<Plugin> plugins = BuildPlugins();
  return plugins;
}

// One set of tables for every instance of every plugin in the process,
// built at the first frame (construction stays cheap).
kvo::KVLookupTables& Tables() {
  static kvo::KVLookupTables tables;
  return tables;
}

struct Value {
  double numbers[3];
};

class Instance {
 public:
  Instance(const Plugin& plugin, unsigned int width, unsigned int height)
      : m_plugin(plugin), m_width(width), m_height(height) {
    for (const Parameter& p : plugin.parameters) m_values.push_back(Value{{p.defaults[0], p.defaults[1], p.defaults[2]}});
  }

  void Set(const void* param, int index) {
    if (param == nullptr || index < 0 || static_cast<size_t>(index) >= m_values.size()) return;
    const Parameter& p = m_plugin.parameters[static_cast<size_t>(index)];
    Value value = m_values[static_cast<size_t>(index)];
    switch (p.type) {
      case F0R_PARAM_BOOL:
      case F0R_PARAM_DOUBLE:
        value.numbers[0] = Clamp01(*static_cast<const double*>(param), p.defaults[0]);
        break;
      case F0R_PARAM_COLOR: {
        const f0r_param_color_t* colour = static_cast<const f0r_param_color_t*>(param);
        const float channels[3] = {colour->r, colour->g, colour->b};
        for (int k = 0; k < 3; ++k) value.numbers[k] = Clamp01(channels[k], p.defaults[k]);
        break;
      }
      case F0R_PARAM_POSITION: {
        const f0r_param_position_t* position = static_cast<const f0r_param_position_t*>(param);
        value.numbers[0] = Clamp01(position->x, p.defaults[0]);
        value.numbers[1] = Clamp01(position->y, p.defaults[1]);
        break;
      }
      case F0R_PARAM_STRING: {
        // An unknown name is refused: the value stays as it was.
        const char* text = *static_cast<const char* const*>(param);
        for (unsigned int i = 0; text != nullptr && i < p.info->choiceCount; ++i) {
          if (strcasecmp(text, p.info->choices[i].name) == 0) value.numbers[0] = i;
        }
        break;
      }
    }
    Value& current = m_values[static_cast<size_t>(index)];
    if (std::memcmp(&current, &value, sizeof value) != 0) {
      current = value;
      m_changed = true;
    }
  }

  void Get(void* param, int index) const {
    if (param == nullptr || index < 0 || static_cast<size_t>(index) >= m_values.size()) return;
    const Parameter& p = m_plugin.parameters[static_cast<size_t>(index)];
    const double* v = m_values[static_cast<size_t>(index)].numbers;
    switch (p.type) {
      case F0R_PARAM_BOOL:
      case F0R_PARAM_DOUBLE:
        *static_cast<double*>(param) = v[0];
        break;
      case F0R_PARAM_COLOR:
        *static_cast<f0r_param_color_t*>(param) = {static_cast<float>(v[0]), static_cast<float>(v[1]),
                                                   static_cast<float>(v[2])};
        break;
      case F0R_PARAM_POSITION:
        *static_cast<f0r_param_position_t*>(param) = {v[0], v[1]};
        break;
      case F0R_PARAM_STRING:
        // The catalogue's own text: it lives as long as the process.
        *static_cast<const char**>(param) = p.info->choices[static_cast<unsigned int>(v[0])].name;
        break;
    }
  }

  void Update(const uint32_t* first, const uint32_t* second, uint32_t* out) {
    if (out == nullptr || m_width == 0 || m_height == 0) return;
    const size_t bytes = static_cast<size_t>(m_width) * m_height * 4;
    if (first == nullptr) {
      std::memset(out, 0, bytes);
      return;
    }
    try {
      if (m_plugin.frontEnd == kFrontEndCompositor && second == nullptr) throw std::invalid_argument("one input");
      Build();
      std::memcpy(m_source->Buffer(), first, bytes);
      std::memcpy(m_destination->Buffer(), m_layer ? static_cast<const void*>(second) : first, bytes);
      FollowKeyColour();
      if (m_changed) Queue();
      if (!m_queued || Render() != 0) throw std::runtime_error("not rendered");
      std::memcpy(out, (m_layer ? m_source : m_destination)->Buffer(), bytes);
    } catch (...) {
      // Never an exception into the host: the frame goes through unchanged.
      if (out != first) std::memmove(out, first, bytes);
    }
  }

 private:
  // The images and the front end, once, at the first frame.
  void Build() {
    if (m_source) return;
    m_source.reset(new KVImage8(m_width, m_height, kPixelOrderBGRA, false));
    m_destination.reset(new KVImage8(m_width, m_height, kPixelOrderBGRA, false));
    kvo::KVLookupTables& tables = Tables();
    switch (m_plugin.frontEnd) {
      case kFrontEndProcessor:
        m_processor.reset(new KVImageProcessor(m_source.get(), m_destination.get(), tables, kDownsampleNone));
        break;
      case kFrontEndKeyer:
        m_keyer.reset(new KVImageKeyer(m_source.get(), m_destination.get(), tables, kDownsampleNone));
        break;
      case kFrontEndCompositor:
        // The destination image holds the layer; the background is composited in place.
        m_layer = m_destination.get();
        m_compositor.reset(new KVImageCompositor(m_source.get(), 1.0, tables, kDownsampleNone));
        break;
    }
  }

  // The keyer's spill stage pulls down the key's channel: for an automatic
  // key, the colour detected in this frame (as the keyer itself does).
  void FollowKeyColour() {
    if (m_plugin.frontEnd != kFrontEndKeyer) return;
    KVKeyColor key = static_cast<KVKeyColor>(static_cast<int>(EngineValues(0)[0]));
    if (key == kKeyColorAuto) {
      key = kKeyColorGreen;
      AutoDetectKeyColor(m_source.get(), static_cast<int>(kvo::KVSystem::GetCPUCoreCount()), &key);
    }
    if (key != m_spillKey) m_changed = true;
    m_spillKey = key;
  }

  // The setter's numbers for stage s from the frei0r values.
  std::vector<double> EngineValues(unsigned int s) const {
    std::vector<double> values = m_plugin.stages[s].values;
    const double width = m_width, height = m_height;
    for (size_t i = 0; i < m_plugin.parameters.size(); ++i) {
      const Parameter& p = m_plugin.parameters[i];
      if (p.stage != s) continue;
      const double* v = m_values[i].numbers;
      double* to = &values[p.offset];
      const bool whole = IsWhole(p.info->type);
      switch (p.mapping) {
        case Mapping::kRange:
          to[0] = p.info->minimum + v[0] * (p.info->maximum - p.info->minimum);
          if (whole) to[0] = Round(to[0]);
          break;
        case Mapping::kAsGiven:
          to[0] = whole ? Round(v[0]) : v[0];
          break;
        case Mapping::kWidth:
          to[0] = whole ? Round(v[0] * width) : v[0] * width;
          break;
        case Mapping::kFlag:
          to[0] = v[0] >= 0.5 ? 1 : 0;
          break;
        case Mapping::kChoice:
          to[0] = p.info->choices[static_cast<unsigned int>(v[0])].value;
          break;
        case Mapping::kColour:
          for (int k = 0; k < 3; ++k) to[k] = Round(v[k] * 255.0);
          break;
        case Mapping::kPoint:
          to[0] = v[0] * width;
          to[1] = v[1] * height;
          break;
        case Mapping::kRectCorner:
          to[0] = Round(v[0] * width);
          to[1] = Round(v[1] * height);
          break;
        case Mapping::kRectEnd:  // after its corner: the size from the corner
          to[2] = std::max(0.0, Round(v[0] * width) - to[0]);
          to[3] = std::max(0.0, Round(v[1] * height) - to[1]);
          break;
      }
    }
    if (m_plugin.frontEnd == kFrontEndKeyer && std::strcmp(m_plugin.stages[s].row->name, "SetSpillSuppression") == 0) {
      // channel, then the factors red, green, blue, reference: -1 on the key's channel.
      const bool blue = m_spillKey == kKeyColorBlue;
      values[OffsetOf(*m_plugin.stages[s].row, "channel")] = blue ? kChannelBlue : kChannelGreen;
      const unsigned int factors = OffsetOf(*m_plugin.stages[s].row, "redFactor");
      values[factors] = 0;
      values[factors + 1] = blue ? 0 : -1;
      values[factors + 2] = blue ? -1 : 0;
      values[factors + 3] = 1;
    }
    return values;
  }

  // Setters queue a stage at every call: the queue is cleared and built anew.
  void Queue() {
    m_changed = false;
    m_queued = false;
    int code = 0;
    if (m_processor) code = m_processor->ClearRenderQueue();
    if (m_keyer) code = m_keyer->ClearRenderQueue();
    if (m_compositor) code = m_compositor->ClearRenderQueue();
    for (unsigned int s = 0; code == 0 && s < m_plugin.stages.size(); ++s) {
      const std::vector<double> values = EngineValues(s);
      const char* name = m_plugin.stages[s].row->name;
      const unsigned int count = static_cast<unsigned int>(values.size());
      KVAbstractImage* layers[1] = {m_layer};
      if (m_processor) code = QueueSetter(*m_processor, name, values.data(), count);
      if (m_keyer) code = QueueSetter(*m_keyer, name, values.data(), count);
      if (m_compositor) code = QueueSetter(*m_compositor, name, values.data(), count, layers, 1);
    }
    m_queued = code == 0;
  }

  int Render() {
    if (m_processor) return m_processor->Render();
    if (m_keyer) return m_keyer->Render();
    return m_compositor->Render();
  }

  const Plugin& m_plugin;
  const unsigned int m_width;
  const unsigned int m_height;
  std::vector<Value> m_values;
  bool m_changed = true;
  bool m_queued = false;
  KVKeyColor m_spillKey = kKeyColorGreen;
  std::unique_ptr<KVImage8> m_source;
  std::unique_ptr<KVImage8> m_destination;
  KVImage8* m_layer = nullptr;
  std::unique_ptr<KVImageProcessor> m_processor;
  std::unique_ptr<KVImageKeyer> m_keyer;
  std::unique_ptr<KVImageCompositor> m_compositor;
};

}  // namespace

unsigned int PluginCount() { return static_cast<unsigned int>(Plugins().size()); }

const char* PluginName(unsigned int index) { return index < PluginCount() ? Plugins()[index].name.c_str() : nullptr; }

const Plugin* FindPlugin(const char* name) {
  for (const Plugin& plugin : Plugins()) {
    if (name != nullptr && plugin.name == name) return &plugin;
  }
  return nullptr;
}

int Init(const Plugin* plugin) {
  // The engine's thread count is one setting for the whole process; a host
  // fixes it for reproducible output with KVIMAGE_THREADS (1..255). Without
  // it nothing is changed.
  static std::once_flag once;
  std::call_once(once, [] {
    const char* text = std::getenv("KVIMAGE_THREADS");
    char* end = nullptr;
    const long threads = text ? std::strtol(text, &end, 10) : 0;
    if (text && *text && *end == '\0' && threads >= 1 && threads <= 255) {
      kvo::KVSystem::SetCPUCoreCount(static_cast<unsigned int>(threads));
    }
  });
  return plugin ? 1 : 0;
}

void GetPluginInfo(const Plugin* plugin, f0r_plugin_info_t* info) {
  if (info == nullptr) return;
  info->name = plugin ? plugin->name.c_str() : "kvimage_unknown";
  info->author = "kvimage";
  info->plugin_type = plugin ? plugin->type : F0R_PLUGIN_TYPE_FILTER;
  info->color_model = F0R_COLOR_MODEL_BGRA8888;
  info->frei0r_version = FREI0R_MAJOR_VERSION;
  info->major_version = 0;
  info->minor_version = 1;
  info->num_params = plugin ? static_cast<int>(plugin->parameters.size()) : 0;
  info->explanation = plugin ? plugin->explanation.c_str() : "no kvimage plugin has this file's name";
}

void GetParamInfo(const Plugin* plugin, f0r_param_info_t* info, int index) {
  if (plugin == nullptr || info == nullptr || index < 0 || static_cast<size_t>(index) >= plugin->parameters.size()) {
    return;
  }
  const Parameter& p = plugin->parameters[static_cast<size_t>(index)];
  info->name = p.name.c_str();
  info->type = p.type;
  info->explanation = p.explanation.c_str();
}

f0r_instance_t Construct(const Plugin* plugin, unsigned int width, unsigned int height) {
  if (plugin == nullptr) return nullptr;
  try {
    return new Instance(*plugin, width, height);
  } catch (...) {
    return nullptr;
  }
}

void Destruct(f0r_instance_t instance) { delete static_cast<Instance*>(instance); }

void SetParamValue(f0r_instance_t instance, f0r_param_t param, int index) {
  if (instance) static_cast<Instance*>(instance)->Set(param, index);
}

void GetParamValue(f0r_instance_t instance, f0r_param_t param, int index) {
  if (instance) static_cast<Instance*>(instance)->Get(param, index);
}

void Update(f0r_instance_t instance, const uint32_t* first, const uint32_t* second, uint32_t* out) {
  if (instance) static_cast<Instance*>(instance)->Update(first, second, out);
}

}  // namespace kvfrei0r
