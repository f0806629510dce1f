// Every stage of the engine, driven through its front end from the stage
// catalogue: every row queued by name with its default numbers, and the
// settings of ListedSettings() beyond them (radii, types, paths, the keying
// chain). Each runs on every frame size of BenchSizes() at 1 and 2 cores and
// is registered as
//   <front end>/<name>/<width>x<height>/cores:<n>
// for example processor/stack-blur-32/1920x1080/cores:2 or
// keyer/white-erode-8/3840x2160/cores:1. A row at its defaults takes the name
// ListedSettings() gives it, or else its setter's words without "Set" or
// "Add" ("SetBoundedStackBlur": bounded-stack-blur). The time is the
// wall-clock time of one Render() of a queue holding that stage alone (the
// keying chain holds four), after one untimed render; a few processor
// settings are also registered as <name>-fresh-front-end, each iteration
// building, queueing and rendering a new processor. Counters: Mpix
// (megapixels per second), bytes_per_second (one frame per iteration) and
// faults_per_render (page faults of the process per render, from
// getrusage). The label names the speed
// target the setting is judged by (bench/report.py reads it); read every row
// against BM_MemcpyFrame/<size> of the same run.
//
// Inputs: the effect stages and the compositor read the photo-like frame;
// the key, the spill suppression and the keying chain a green-screen frame;
// the other keyer stages (the matte stages) that frame after an automatic
// key, so that they see a real matte. Geometry is given for 1920x1080 and
// scales with the frame: points, rectangles, quadrilaterals and real numbers
// in pixels.
#include <cctype>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using namespace kvo::image;

// Speed target classes (BENCHMARKS.md lists the ratios to memcpy).
const char* const kTargetSSE2 = "sse2";             // documented SSE2 path: <= 1.5x
const char* const kTargetTable = "table";           // per-channel tables: <= 1.2x with AVX-512 VBMI, else 3x
const char* const kTargetHue = "hue";               // saturation and the hue stages: <= 4x
const char* const kTargetPerPixel = "per-pixel";    // other per-pixel stages: <= 3x
const char* const kTargetAlphaComposite = "alpha";  // layer compositor alpha path: <= 4x
const char* const kTargetStackBlur = "stack-blur";  // < 12x at every radius
const char* const kTargetYUVBlur = "yuv-blur";      // < 15x
const char* const kTargetWhiteErode8 = "erode-8";   // < 15x
const char* const kTargetChain = "chain";           // the keying chain: <= 8x
const char* const kTargetDepthOfField = "depth-of-field";  // <= 25x
const char* const kTargetNone = "none";             // measured, no target

// One setter call: its numbers for 1920x1080, or none for the row's defaults.
struct Step {
  const char* setter;
  std::vector<double> values;
};

struct Setting {
  KVFrontEnd frontEnd;
  std::string name;
  const char* target;
  std::vector<Step> steps;
};

const KVFrontEnd P = kFrontEndProcessor, K = kFrontEndKeyer, C = kFrontEndCompositor;

// Rows at their defaults that carry a target or keep an established name, and
// the settings beyond the defaults (numbers for 1920x1080).
std::vector<Setting> ListedSettings() {
  return {
      {P, "opacity", kTargetSSE2, {{"SetOpacity", {0.5}}}},
      {P, "silhouette", kTargetPerPixel, {{"SetSilhouette", {20, 30, 40}}}},
      {P, "matte-view", kTargetPerPixel, {{"SetMatteView", {}}}},
      {P, "brightness", kTargetSSE2, {{"SetBrightness", {0.2, kChannelsColor}}}},
      {P, "contrast", kTargetSSE2, {{"SetContrast", {1.3, kChannelsColor}}}},
      {P, "super-contrast", kTargetSSE2, {{"SetSuperContrast", {0.1, 0.9, kChannelsColor}}}},
      // Every byte: the vector path serves colour only, so this is the table path.
      {P, "super-contrast-all", kTargetTable, {{"SetSuperContrast", {0.1, 0.9, kChannelsAll}}}},
      {P, "colour-balance", kTargetSSE2, {{"SetColorBalance", {1.2, 0.9, 0.7}}}},
      {P, "colour-temperature", kTargetTable, {{"SetColorTemperature", {4500}}}},
      {P, "saturation", kTargetHue, {{"SetSaturation", {1.4}}}},
      {P, "hue-shift", kTargetHue, {{"SetHueShift", {45, 0.8}}}},
      {P, "hue-colorize", kTargetHue, {{"SetHueColorize", {200, 0.8}}}},
      {P, "tint", kTargetTable, {{"SetTint", {kTintSelenium, 0.7}}}},
      {P, "three-strip", kTargetTable, {{"SetThreeStripColor", {0.3, 0.5, 0.7}}}},
      // Per-pixel stages in a row, which the queue runs as one pass.
      {P, "brightness-contrast", kTargetNone,
       {{"SetBrightness", {0.2, kChannelsColor}}, {"SetContrast", {1.3, kChannelsColor}}}},
      {P, "grade-4", kTargetNone,
       {{"SetContrast", {1.3, kChannelsColor}}, {"SetSaturation", {1.4}}, {"SetColorTemperature", {4500}},
        {"SetTint", {kTintSelenium, 0.7}}}},
      {P, "stack-blur-2", kTargetStackBlur, {{"SetStackBlur", {2, 1, 1, kChannelsAll}}}},
      {P, "stack-blur-8", kTargetStackBlur, {{"SetStackBlur", {8, 1, 1, kChannelsAll}}}},
      {P, "stack-blur-32", kTargetStackBlur, {{"SetStackBlur", {32, 1, 1, kChannelsAll}}}},
      {P, "stack-blur-128", kTargetStackBlur, {{"SetStackBlur", {128, 1, 1, kChannelsAll}}}},
      {P, "stack-blur-alpha-32", kTargetStackBlur, {{"SetStackBlur", {32, 1, 1, kChannelsAlpha}}}},
      {P, "yuv-blur-horizontal-8", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurHorizontal}}}},
      {P, "yuv-blur-horizontal-32", kTargetYUVBlur, {{"SetYUVBlur", {32, kYUVBlurHorizontal}}}},
      {P, "yuv-blur-vertical-8", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurVertical}}}},
      {P, "yuv-blur-vertical-32", kTargetYUVBlur, {{"SetYUVBlur", {32, kYUVBlurVertical}}}},
      {P, "yuv-blur-box-8", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurHorizontalVertical}}}},
      {P, "yuv-blur-box-32", kTargetYUVBlur, {{"SetYUVBlur", {32, kYUVBlurHorizontalVertical}}}},
      {P, "yuv-blur-stack-8", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurStack}}}},
      {P, "yuv-blur-stack-32", kTargetYUVBlur, {{"SetYUVBlur", {32, kYUVBlurStack}}}},
      // The conversion to YUV and back alone.
      {P, "yuv-blur-none", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurNone}}}},
      {P, "bounded-stack-blur-16", kTargetStackBlur,
       {{"SetBoundedStackBlur", {16, 1, 1, kChannelsAll, 480, 270, 960, 540, 32}}}},
      {P, "defocus-8", kTargetNone, {{"SetDefocus", {8, 0.4, 0}}}},
      {P, "diffuse-8", kTargetNone, {{"SetDiffuse", {8, 0.6, 0}}}},
      {P, "sharpen-8", kTargetNone, {{"SetSharpen", {8, 0.7, 0.05, 0}}}},
      {P, "soft-focus-8", kTargetNone, {{"SetSoftFocus", {kBlendScreen, 8, 0.6, 0, 0, 1920, 1080, 0}}}},
      {P, "bleach-bypass", kTargetPerPixel, {{"SetBleachBypass", {0.8, 0.5, 0.4}}}},
      {P, "vignette", kTargetPerPixel, {{"SetVignette", {0, 0, 0, 0.8, 0.3, 0.5, 0.6, 0.5, 0, 0, 0, 0}}}},
      {P, "depth-of-field-radial-16", kTargetDepthOfField,
       {{"SetDepthOfField", {kDepthOfFieldRadial, 960, 540, 0, 16, 0.1, 0.3, 1, 0, 0, 0, 0, 0}}}},
      {P, "depth-of-field-linear-16", kTargetDepthOfField,
       {{"SetDepthOfField", {kDepthOfFieldLinear, 960, 540, 10, 16, 0.05, 0.2, 1, 0, 0, 0, 0, 0}}}},

      {K, "colour-difference-key-auto", kTargetPerPixel, {{"SetAutoColorDifferenceKey", {}}}},
      {K, "colour-difference-key-green", kTargetPerPixel,
       {{"SetAutoColorDifferenceKey", {kKeyColorGreen, 0.5, 0.2, 0.5}}}},
      // The chain a host runs per frame: automatic key, spill suppression,
      // white erode of 2 pixels and a garbage-matte crop, in one render.
      {K, "keying-chain", kTargetChain,
       {{"SetAutoColorDifferenceKey", {}}, {"SetSpillSuppression", {}}, {"SetWhiteErode", {}},
        {"SetAlphaCrop", {0.05, 0.0, 0.05, 0.1}}}},
      {K, "alpha-super-contrast", kTargetPerPixel, {{"SetAlphaSuperContrast", {0.2, 0.8}}}},
      {K, "spill-standard", kTargetPerPixel, {{"SetSpillSuppression", {kChannelGreen, kSpillStandard, 0.8, 0, 0, 0, 0}}}},
      {K, "spill-extended", kTargetPerPixel,
       {{"SetSpillSuppression", {kChannelGreen, kSpillExtended, 0.8, 0, 0, 0, 0}}}},
      {K, "spill-advanced", kTargetPerPixel,
       {{"SetSpillSuppression", {kChannelGreen, kSpillAdvanced, 0, 0.3, -1, 0.2, 0.9}}}},
      {K, "alpha-crop", kTargetPerPixel, {{"SetAlphaCrop", {0.1, 0.05, 0.1, 0.05}}}},
      {K, "white-erode-2", kTargetNone, {{"SetWhiteErode", {}}}},
      {K, "white-erode-8", kTargetWhiteErode8, {{"SetWhiteErode", {kWhiteErodeAll, 8}}}},
      {K, "white-erode-rightward-8", kTargetWhiteErode8, {{"SetWhiteErode", {kWhiteErodeRightward, 8}}}},
      {K, "white-erode-leftward-8", kTargetWhiteErode8, {{"SetWhiteErode", {kWhiteErodeLeftward, 8}}}},
      {K, "yuv-blur-stack-8", kTargetYUVBlur, {{"SetYUVBlur", {8, kYUVBlurStack}}}},
      {K, "alpha-stack-blur-8", kTargetStackBlur, {{"SetAlphaStackBlur", {8, 1, 1}}}},
      {K, "alpha-stack-blur-32", kTargetStackBlur, {{"SetAlphaStackBlur", {32, 1, 1}}}},

      {C, "layer-normal-colour-only", kTargetPerPixel, {{"AddLayer", {0.8, kBlendNormal, kCompositeColorOnly}}}},
      {C, "layer-normal-alpha", kTargetAlphaComposite, {{"AddLayer", {0.8, kBlendNormal, kCompositeAlpha}}}},
      {C, "layer-multiply-colour-only", kTargetPerPixel, {{"AddLayer", {0.8, kBlendMultiply, kCompositeColorOnly}}}},
      {C, "layer-multiply-alpha", kTargetAlphaComposite, {{"AddLayer", {0.8, kBlendMultiply, kCompositeAlpha}}}},
      {C, "layer-screen-colour-only", kTargetPerPixel, {{"AddLayer", {0.8, kBlendScreen, kCompositeColorOnly}}}},
      {C, "layer-screen-alpha", kTargetAlphaComposite, {{"AddLayer", {0.8, kBlendScreen, kCompositeAlpha}}}},
      {C, "layer-normal-alpha-fill", kTargetAlphaComposite, {{"AddLayer", {0.8, kBlendNormal, kCompositeAlphaFill}}}},
      {C, "layer-overlay-alpha", kTargetAlphaComposite, {{"AddLayer", {0.8, kBlendOverlay, kCompositeAlpha}}}},
      {C, "light-spill-8", kTargetNone, {{"AddLightSpillLayer", {8, 0.8, kBlendScreen, kDownsampleNone}}}},
      {C, "light-spill-32", kTargetNone, {{"AddLightSpillLayer", {32, 0.8, kBlendScreen, kDownsampleNone}}}},
      // The layer's alpha within a centre rectangle thrown onto a floor
      // trapezoid covering the lower half of the frame, multiplied in, faded
      // to the top.
      {C, "shadow-cast-8", kTargetNone,
       {{"AddShadowCastLayer",
         {480, 270, 960, 540, 900, 560, 1900, 560, 480, 945, 1440, 945, 8, 0.7, 0, 0, 0, kBlendMultiply, 1, 0}}}},
      {C, "shadow-cast-32", kTargetNone,
       {{"AddShadowCastLayer",
         {480, 270, 960, 540, 900, 560, 1900, 560, 480, 945, 1440, 945, 32, 0.7, 0, 0, 0, kBlendMultiply, 1, 0}}}},
  };
}

// "SetBoundedStackBlur": bounded-stack-blur; "SetYUVBlur": yuv-blur.
std::string RowName(const char* setter) {
  const std::string text =
      setter + (std::strncmp(setter, "Set", 3) == 0 || std::strncmp(setter, "Add", 3) == 0 ? 3 : 0);
  std::string name;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool upper = std::isupper(static_cast<unsigned char>(text[i])) != 0;
    const bool wordStart = i > 0 && upper &&
                           (std::islower(static_cast<unsigned char>(text[i - 1])) ||
                            (i + 1 < text.size() && std::islower(static_cast<unsigned char>(text[i + 1]))));
    if (wordStart) name += '-';
    name += static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
  }
  return name;
}

// The listed settings, then every row whose defaults are not among them
// ("<name>-defaults" where a listed setting of other numbers has the name).
std::vector<Setting> Settings() {
  std::vector<Setting> settings = ListedSettings();
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    bool listed = false;
    for (const Setting& setting : settings) {
      listed = listed || (setting.frontEnd == row.frontEnd && setting.steps.size() == 1 &&
                          setting.steps[0].values.empty() && std::strcmp(setting.steps[0].setter, row.name) == 0);
    }
    if (listed) continue;
    // A listed setting may already hold the name (with other numbers).
    std::string name = RowName(row.name);
    for (const Setting& setting : settings) {
      if (setting.frontEnd == row.frontEnd && setting.name == name) name += "-defaults";
    }
    settings.push_back({row.frontEnd, name, kTargetNone, {{row.name, {}}}});
  }
  return settings;
}

// The step's numbers for this frame: the row's defaults, or the listed
// numbers with the geometry scaled from 1920x1080.
std::vector<double> Numbers(const KVSetterInfo& row, const Step& step, unsigned int width, unsigned int height) {
  unsigned int count = 0;
  for (unsigned int p = 0; p < row.parameterCount; ++p) count += NumberCount(row.parameters[p].type);
  if (!step.values.empty() && step.values.size() != count) return step.values;  // QueueSetter refuses it
  std::vector<double> numbers;
  const double sx = width / 1920.0, sy = height / 1080.0;
  for (unsigned int p = 0, at = 0; p < row.parameterCount; at += NumberCount(row.parameters[p++].type)) {
    const KVParameterInfo& parameter = row.parameters[p];
    for (unsigned int k = 0; k < NumberCount(parameter.type); ++k) {
      const double value = step.values.empty() ? parameter.defaults[k] : step.values[at + k];
      const bool pixels = parameter.type == kParameterPoint || parameter.type == kParameterQuad ||
                          parameter.type == kParameterRect ||
                          (parameter.type == kParameterReal && std::strcmp(parameter.unit, "pixels") == 0);
      const double scaled = pixels ? value * (k % 2 == 0 ? sx : sy) : value;
      numbers.push_back(parameter.type == kParameterRect ? std::trunc(scaled) : scaled);
    }
  }
  return numbers;
}

int Queue(KVImageProcessor& processor, const char* setter, const std::vector<double>& numbers, KVAbstractImage*) {
  return QueueSetter(processor, setter, numbers.data(), static_cast<unsigned int>(numbers.size()));
}
int Queue(KVImageKeyer& keyer, const char* setter, const std::vector<double>& numbers, KVAbstractImage*) {
  return QueueSetter(keyer, setter, numbers.data(), static_cast<unsigned int>(numbers.size()));
}
int Queue(KVImageCompositor& compositor, const char* setter, const std::vector<double>& numbers,
          KVAbstractImage* layer) {
  return QueueSetter(compositor, setter, numbers.data(), static_cast<unsigned int>(numbers.size()), &layer, 1);
}

kvo::KVLookupTables& SharedTables() {
  static kvo::KVLookupTables tables;
  return tables;
}

// Queues the setting's steps; false (and the benchmark skipped) when a
// setter refuses.
template <class Front>
bool QueueSteps(benchmark::State& state, Front& front, const Setting& setting, unsigned int width,
                unsigned int height, KVAbstractImage* layer) {
  for (const Step& step : setting.steps) {
    const KVSetterInfo* row = FindSetter(setting.frontEnd, step.setter);
    const int code = row ? Queue(front, step.setter, Numbers(*row, step, width, height), layer) : -1;
    if (code != 0) {
      state.SkipWithError((std::string(step.setter) + " returned " + std::to_string(code)).c_str());
      return false;
    }
  }
  return true;
}

template <class Front>
bool Rendered(benchmark::State& state, Front& front) {
  const int code = front.Render();
  if (code != 0) state.SkipWithError(("Render returned " + std::to_string(code)).c_str());
  return code == 0;
}

void Report(benchmark::State& state, const Setting& setting, unsigned int width, unsigned int height,
            double faults) {
  const double pixels = static_cast<double>(width) * height;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(pixels) * 4);
  state.counters["Mpix"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * pixels / 1e6, benchmark::Counter::kIsRate);
  state.counters["faults_per_render"] = benchmark::Counter(faults, benchmark::Counter::kAvgIterations);
  state.SetLabel(setting.target);
}

// Renders of one queue in the steady state a host reaches: one render before
// the timed ones, so that scratch kept between renders exists.
template <class Front>
void MeasureRenders(benchmark::State& state, Front& front, const Setting& setting, unsigned int width,
                    unsigned int height, KVAbstractImage* layer) {
  if (!QueueSteps(state, front, setting, width, height, layer) || !Rendered(state, front)) return;
  const double faultsBefore = kvbench::PageFaults();
  for (auto _ : state) {
    if (!Rendered(state, front)) break;
  }
  Report(state, setting, width, height, kvbench::PageFaults() - faultsBefore);
}

// The frame a setting reads (see the top of the file).
kvbench::FrameKind Input(const Setting& setting) {
  if (setting.frontEnd != K) return kvbench::kPhotoFrame;
  const char* first = setting.steps.front().setter;
  const bool pullsTheKey =
      std::strcmp(first, "SetAutoColorDifferenceKey") == 0 || std::strcmp(first, "SetSpillSuppression") == 0;
  return pullsTheKey ? kvbench::kGreenScreenFrame : kvbench::kKeyedFrame;
}

void RunSetting(benchmark::State& state, const Setting& setting, unsigned int width, unsigned int height, int cores) {
  kvbench::ScopedThreads threads(cores);
  kvbench::AlignedFrame source(width, height), target(width, height), layer(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(Input(setting), width, height), source);
  const KVDownsampleFactor full = kDownsampleNone;
  if (setting.frontEnd == P) {
    KVImageProcessor processor(source.image(), target.image(), SharedTables(), full);
    MeasureRenders(state, processor, setting, width, height, nullptr);
  } else if (setting.frontEnd == K) {
    KVImageKeyer keyer(source.image(), target.image(), SharedTables(), full);
    MeasureRenders(state, keyer, setting, width, height, nullptr);
  } else {
    // Layers over the photo-like background, composited in place: every
    // iteration lays the same layer once more.
    kvbench::CopyFrame(kvbench::ReferenceFrame(kvbench::kPhotoFrame, width, height), layer);
    KVImageCompositor compositor(source.image(), 1.0, SharedTables(), full);
    MeasureRenders(state, compositor, setting, width, height, layer.image());
  }
}

// A host that builds its front end and queue anew for every frame: each
// iteration constructs, queues and renders once.
void RunFreshFrontEnds(benchmark::State& state, const Setting& setting, unsigned int width, unsigned int height,
                       int cores) {
  kvbench::ScopedThreads threads(cores);
  kvbench::AlignedFrame source(width, height), target(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(Input(setting), width, height), source);
  const double faultsBefore = kvbench::PageFaults();
  for (auto _ : state) {
    KVImageProcessor processor(source.image(), target.image(), SharedTables(), kDownsampleNone);
    if (!QueueSteps(state, processor, setting, width, height, nullptr) || !Rendered(state, processor)) break;
  }
  Report(state, setting, width, height, kvbench::PageFaults() - faultsBefore);
}

// The processor settings also measured with a fresh front end per frame.
bool FreshPerFrame(const Setting& setting) {
  return setting.frontEnd == P && (setting.name == "sharpen-8" || setting.name == "defocus-8" ||
                                   setting.name == "stack-blur-8" || setting.name == "saturation");
}

int RegisterSettings() {
  const char* const frontEndNames[] = {"processor", "keyer", "compositor"};
  const std::vector<Setting> settings = Settings();
  for (const kvbench::FrameSize& size : kvbench::BenchSizes()) {
    for (const Setting& setting : settings) {
      for (int cores : {1, 2}) {
        const std::string name = std::string(frontEndNames[setting.frontEnd]) + "/" + setting.name + "/" + size.Name() +
                                 "/cores:" + std::to_string(cores);
        const unsigned int width = size.width, height = size.height;
        kvbench::Configure(
            benchmark::RegisterBenchmark(name.c_str(), [setting, width, height, cores](benchmark::State& state) {
              RunSetting(state, setting, width, height, cores);
            }));
        if (!FreshPerFrame(setting)) continue;
        const std::string freshName = std::string(frontEndNames[setting.frontEnd]) + "/" + setting.name +
                                      "-fresh-front-end/" + size.Name() + "/cores:" + std::to_string(cores);
        kvbench::Configure(
            benchmark::RegisterBenchmark(freshName.c_str(), [setting, width, height, cores](benchmark::State& state) {
              RunFreshFrontEnds(state, setting, width, height, cores);
            }));
      }
    }
  }
  return static_cast<int>(settings.size());
}

[[maybe_unused]] const int kRegisteredSettings = RegisterSettings();

}  // namespace
