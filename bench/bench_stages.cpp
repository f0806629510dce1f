// Every stage of the engine, driven through its front end: one row of the
// table in Stages() per benchmark family. Each row runs on every frame size of
// BenchSizes() at 1 and 2 cores and is registered as
//   <front end>/<stage>/<width>x<height>/cores:<n>
// for example processor/stack-blur-32/1920x1080/cores:2 or
// keyer/white-erode-8/3840x2160/cores:1. The time is the wall-clock time of
// one Render() of a queue holding that stage alone (the keying chain holds
// four). Counters: Mpix (megapixels per second) and bytes_per_second (one
// frame per iteration). The label names the speed target the row is judged
// by (bench/report.py reads it); read every row against
// BM_MemcpyFrame/<size> of the same run.
//
// Inputs: the effect stages and the compositor read the photo-like frame;
// the key, the spill suppression and the keying chain a green-screen frame;
// the matte stages (crop, white erode, alpha blur and contrast) that frame
// after an automatic key, so that they see a real matte.
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using kvo::image::KVImageCompositor;
using kvo::image::KVImageKeyer;
using kvo::image::KVImageProcessor;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;

// What a setter needs to know about the run: the frame size (geometric
// arguments scale with it), the row's parameter (a radius or a blend mode)
// and, for the compositor, the layer.
struct Shot {
  unsigned int width;
  unsigned int height;
  int parameter;
  kvo::image::KVImage8* layer;

  double Scale() const { return width / 1920.0; }
  int Scaled(double pixels) const { return static_cast<int>(pixels * Scale()); }
  // The centred rectangle covering fraction of each side.
  KVRect Centre(double fraction) const {
    const int w = static_cast<int>(width * fraction), h = static_cast<int>(height * fraction);
    return KVRect(KVPoint2((static_cast<int>(width) - w) / 2, (static_cast<int>(height) - h) / 2), w, h);
  }
};

typedef int (*ProcessorSetter)(KVImageProcessor&, const Shot&);
typedef int (*KeyerSetter)(KVImageKeyer&, const Shot&);
typedef int (*CompositorSetter)(KVImageCompositor&, const Shot&);

// Speed target classes (BENCHMARKS.md lists the ratios to memcpy).
const char* const kTargetSSE2 = "sse2";             // documented SSE2 path: <= 1.5x
const char* const kTargetPerPixel = "per-pixel";    // other per-pixel stages: <= 3x
const char* const kTargetAlphaComposite = "alpha";  // layer compositor alpha path: <= 4x
const char* const kTargetStackBlur = "stack-blur";  // < 12x at every radius
const char* const kTargetYUVBlur = "yuv-blur";      // < 15x
const char* const kTargetWhiteErode8 = "erode-8";   // < 15x
const char* const kTargetChain = "chain";           // the keying chain: < 12x
const char* const kTargetNone = "none";             // measured, no target

struct StageCase {
  const char* front;
  std::string name;
  const char* target;
  kvbench::FrameKind input;
  int parameter;
  ProcessorSetter processor;
  KeyerSetter keyer;
  CompositorSetter compositor;
};

StageCase Processor(std::string name, const char* target, ProcessorSetter set, int parameter = 0) {
  return StageCase{"processor", name, target, kvbench::kPhotoFrame, parameter, set, nullptr, nullptr};
}

StageCase Keyer(std::string name, const char* target, kvbench::FrameKind input, KeyerSetter set, int parameter = 0) {
  return StageCase{"keyer", name, target, input, parameter, nullptr, set, nullptr};
}

StageCase Compositor(std::string name, const char* target, CompositorSetter set, int parameter = 0) {
  return StageCase{"compositor", name, target, kvbench::kPhotoFrame, parameter, nullptr, nullptr, set};
}

std::vector<StageCase> Stages() {
  using namespace kvo::image;
  std::vector<StageCase> stages = {
      // Per-pixel colour stages.
      Processor("opacity", kTargetSSE2, [](KVImageProcessor& p, const Shot&) { return p.SetOpacity(0.5); }),
      // Reads and writes nothing: a stage's fixed cost in a queue of one.
      Processor("mirror", kTargetNone, [](KVImageProcessor& p, const Shot&) { return p.SetMirror(true, true); }),
      Processor("silhouette", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) {
                  return p.SetSilhouette(KVPixel8_RGB{20, 30, 40});
                }),
      Processor("matte-view", kTargetPerPixel, [](KVImageProcessor& p, const Shot&) { return p.SetMatteView(); }),
      Processor("brightness", kTargetSSE2,
                [](KVImageProcessor& p, const Shot&) { return p.SetBrightness(0.2, kChannelsColor); }),
      Processor("contrast", kTargetSSE2,
                [](KVImageProcessor& p, const Shot&) { return p.SetContrast(1.3, kChannelsColor); }),
      Processor("super-contrast", kTargetSSE2,
                [](KVImageProcessor& p, const Shot&) { return p.SetSuperContrast(0.1, 0.9, kChannelsColor); }),
      // Every byte: the vector path serves colour only, so this is the table path.
      Processor("super-contrast-all", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetSuperContrast(0.1, 0.9, kChannelsAll); }),
      Processor("colour-balance", kTargetSSE2,
                [](KVImageProcessor& p, const Shot&) { return p.SetColorBalance(1.2, 0.9, 0.7); }),
      Processor("colour-temperature", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetColorTemperature(4500.0); }),
      Processor("saturation", kTargetPerPixel, [](KVImageProcessor& p, const Shot&) { return p.SetSaturation(1.4); }),
      Processor("hue-shift", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetHueShift(45.0, 0.8); }),
      Processor("hue-colorize", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetHueColorize(200.0, 0.8); }),
      Processor("tint", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetTint(kTintSelenium, 0.7); }),
      Processor("three-strip", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetThreeStripColor(0.3, 0.5, 0.7); }),
      Processor("bleach-bypass", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) { return p.SetBleachBypass(0.8, 0.5, 0.4); }),
      Processor("vignette", kTargetPerPixel,
                [](KVImageProcessor& p, const Shot&) {
                  return p.SetVignette(KVPixel8_RGB{0, 0, 0}, 0.8, 0.3, 0.5, 0.6, 0.5, KVRect());
                }),
  };

  // Blurs: the parameter is the radius.
  const ProcessorSetter stackBlur = [](KVImageProcessor& p, const Shot& s) {
    return p.SetStackBlur(static_cast<unsigned int>(s.parameter), true, true, kChannelsAll);
  };
  for (int radius : {2, 8, 32, 128}) {
    stages.push_back(Processor("stack-blur-" + std::to_string(radius), kTargetStackBlur, stackBlur, radius));
  }
  const ProcessorSetter alphaStackBlur = [](KVImageProcessor& p, const Shot& s) {
    return p.SetStackBlur(static_cast<unsigned int>(s.parameter), true, true, kChannelsAlpha);
  };
  stages.push_back(Processor("stack-blur-alpha-32", kTargetStackBlur, alphaStackBlur, 32));
  stages.push_back(Processor(
      "bounded-stack-blur-16", kTargetStackBlur,
      [](KVImageProcessor& p, const Shot& s) {
        return p.SetBoundedStackBlur(static_cast<unsigned int>(s.parameter), true, true, kChannelsAll, s.Centre(0.5),
                                     s.Scaled(32));
      },
      16));
  const struct {
    const char* name;
    ProcessorSetter set;
  } yuvBlurs[] = {
      {"horizontal",
       [](KVImageProcessor& p, const Shot& s) {
         return p.SetYUVBlur(static_cast<unsigned int>(s.parameter), kYUVBlurHorizontal);
       }},
      {"vertical",
       [](KVImageProcessor& p, const Shot& s) {
         return p.SetYUVBlur(static_cast<unsigned int>(s.parameter), kYUVBlurVertical);
       }},
      {"box",
       [](KVImageProcessor& p, const Shot& s) {
         return p.SetYUVBlur(static_cast<unsigned int>(s.parameter), kYUVBlurHorizontalVertical);
       }},
      {"stack", [](KVImageProcessor& p,
                   const Shot& s) { return p.SetYUVBlur(static_cast<unsigned int>(s.parameter), kYUVBlurStack); }},
  };
  for (const auto& yuvBlur : yuvBlurs) {
    for (int radius : {8, 32}) {
      stages.push_back(Processor(std::string("yuv-blur-") + yuvBlur.name + "-" + std::to_string(radius), kTargetYUVBlur,
                                 yuvBlur.set, radius));
    }
  }
  // The conversion to YUV and back alone.
  stages.push_back(Processor("yuv-blur-none", kTargetYUVBlur,
                             [](KVImageProcessor& p, const Shot&) { return p.SetYUVBlur(8, kYUVBlurNone); }));

  // Focus stages (each blurs with a nested bounded stack blur) and depth of field.
  const int focusRadius = 8;
  stages.push_back(Processor(
      "defocus-8", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) { return p.SetDefocus(static_cast<unsigned int>(s.parameter), 0.4, 0.0); },
      focusRadius));
  stages.push_back(Processor(
      "diffuse-8", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) { return p.SetDiffuse(static_cast<unsigned int>(s.parameter), 0.6, 0.0); },
      focusRadius));
  stages.push_back(Processor(
      "sharpen-8", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) {
        return p.SetSharpen(static_cast<unsigned int>(s.parameter), 0.7, 0.05, 0.0);
      },
      focusRadius));
  stages.push_back(Processor(
      "soft-focus-8", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) {
        return p.SetSoftFocus(kBlendScreen, static_cast<unsigned int>(s.parameter), 0.6,
                              KVRect(KVPoint2(0, 0), static_cast<int>(s.width), static_cast<int>(s.height)), 0.0);
      },
      focusRadius));
  stages.push_back(Processor(
      "depth-of-field-radial-16", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) {
        return p.SetDepthOfField(kDepthOfFieldRadial, KVPoint2F(s.width / 2.0, s.height / 2.0), 0.0,
                                 static_cast<unsigned int>(s.parameter), 0.1, 0.3, 1.0, 0.0, KVRect());
      },
      16));
  stages.push_back(Processor(
      "depth-of-field-linear-16", kTargetNone,
      [](KVImageProcessor& p, const Shot& s) {
        return p.SetDepthOfField(kDepthOfFieldLinear, KVPoint2F(s.width / 2.0, s.height / 2.0), 10.0,
                                 static_cast<unsigned int>(s.parameter), 0.05, 0.2, 1.0, 0.0, KVRect());
      },
      16));

  // Keying on the green-screen frame.
  stages.push_back(
      Keyer("colour-difference-key-auto", kTargetPerPixel, kvbench::kGreenScreenFrame,
            [](KVImageKeyer& k, const Shot&) { return k.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5); }));
  stages.push_back(
      Keyer("colour-difference-key-green", kTargetPerPixel, kvbench::kGreenScreenFrame,
            [](KVImageKeyer& k, const Shot&) { return k.SetAutoColorDifferenceKey(kKeyColorGreen, 0.5, 0.2, 0.5); }));
  stages.push_back(
      Keyer("spill-standard", kTargetPerPixel, kvbench::kGreenScreenFrame, [](KVImageKeyer& k, const Shot&) {
        return k.SetSpillSuppression(kChannelGreen, kSpillStandard, 0.8, 0, 0, 0, 0);
      }));
  stages.push_back(
      Keyer("spill-extended", kTargetPerPixel, kvbench::kGreenScreenFrame, [](KVImageKeyer& k, const Shot&) {
        return k.SetSpillSuppression(kChannelGreen, kSpillExtended, 0.8, 0, 0, 0, 0);
      }));
  stages.push_back(
      Keyer("spill-advanced", kTargetPerPixel, kvbench::kGreenScreenFrame, [](KVImageKeyer& k, const Shot&) {
        return k.SetSpillSuppression(kChannelGreen, kSpillAdvanced, 0, 0.3, -1.0, 0.2, 0.9);
      }));
  // The chain a host runs per frame: automatic key, spill suppression, white
  // erode of 2 pixels and a garbage-matte crop, in one render.
  stages.push_back(Keyer("keying-chain", kTargetChain, kvbench::kGreenScreenFrame, [](KVImageKeyer& k, const Shot&) {
    int code = k.SetAutoColorDifferenceKey(kKeyColorAuto, 0.5, 0.2, 0.5);
    code |= k.SetSpillSuppression(kChannelGreen, kSpillStandard, 1.0, 0, 0, 0, 0);
    code |= k.SetWhiteErode(kWhiteErodeAll, 2);
    code |= k.SetAlphaCrop(0.05, 0.0, 0.05, 0.1);
    return code;
  }));

  // Matte stages on the keyed frame.
  stages.push_back(Keyer("alpha-crop", kTargetPerPixel, kvbench::kKeyedFrame,
                         [](KVImageKeyer& k, const Shot&) { return k.SetAlphaCrop(0.1, 0.05, 0.1, 0.05); }));
  stages.push_back(Keyer("alpha-super-contrast", kTargetPerPixel, kvbench::kKeyedFrame,
                         [](KVImageKeyer& k, const Shot&) { return k.SetAlphaSuperContrast(0.2, 0.8); }));
  stages.push_back(Keyer(
      "white-erode-2", kTargetNone, kvbench::kKeyedFrame,
      [](KVImageKeyer& k, const Shot& s) { return k.SetWhiteErode(kWhiteErodeAll, s.parameter); }, 2));
  stages.push_back(Keyer(
      "white-erode-8", kTargetWhiteErode8, kvbench::kKeyedFrame,
      [](KVImageKeyer& k, const Shot& s) { return k.SetWhiteErode(kWhiteErodeAll, s.parameter); }, 8));
  stages.push_back(Keyer(
      "white-erode-rightward-8", kTargetWhiteErode8, kvbench::kKeyedFrame,
      [](KVImageKeyer& k, const Shot& s) { return k.SetWhiteErode(kWhiteErodeRightward, s.parameter); }, 8));
  stages.push_back(Keyer(
      "white-erode-leftward-8", kTargetWhiteErode8, kvbench::kKeyedFrame,
      [](KVImageKeyer& k, const Shot& s) { return k.SetWhiteErode(kWhiteErodeLeftward, s.parameter); }, 8));
  for (int radius : {8, 32}) {
    stages.push_back(Keyer(
        "alpha-stack-blur-" + std::to_string(radius), kTargetStackBlur, kvbench::kKeyedFrame,
        [](KVImageKeyer& k, const Shot& s) {
          return k.SetAlphaStackBlur(static_cast<unsigned int>(s.parameter), true, true);
        },
        radius));
  }
  stages.push_back(Keyer(
      "yuv-blur-stack-8", kTargetYUVBlur, kvbench::kKeyedFrame,
      [](KVImageKeyer& k, const Shot& s) {
        return k.SetYUVBlur(static_cast<unsigned int>(s.parameter), kYUVBlurStack);
      },
      8));

  // Layers over the photo-like background, composited in place: every
  // iteration lays the same layer once more. The parameter is the blend mode.
  const struct {
    const char* name;
    KVBlendMode mode;
  } modes[] = {{"normal", kBlendNormal}, {"multiply", kBlendMultiply}, {"screen", kBlendScreen}};
  for (const auto& mode : modes) {
    stages.push_back(Compositor(
        std::string("layer-") + mode.name + "-colour-only", kTargetPerPixel,
        [](KVImageCompositor& c, const Shot& s) {
          return c.AddLayer(s.layer, 0.8, static_cast<KVBlendMode>(s.parameter), kCompositeColorOnly);
        },
        mode.mode));
    stages.push_back(Compositor(
        std::string("layer-") + mode.name + "-alpha", kTargetAlphaComposite,
        [](KVImageCompositor& c, const Shot& s) {
          return c.AddLayer(s.layer, 0.8, static_cast<KVBlendMode>(s.parameter), kCompositeAlpha);
        },
        mode.mode));
  }
  stages.push_back(Compositor(
      "layer-normal-alpha-fill", kTargetAlphaComposite,
      [](KVImageCompositor& c, const Shot& s) { return c.AddLayer(s.layer, 0.8, kBlendNormal, kCompositeAlphaFill); }));
  stages.push_back(Compositor("layer-overlay-alpha", kTargetAlphaComposite, [](KVImageCompositor& c, const Shot& s) {
    return c.AddLayer(s.layer, 0.8, kBlendOverlay, kCompositeAlpha);
  }));
  for (int radius : {8, 32}) {
    stages.push_back(Compositor(
        "light-spill-" + std::to_string(radius), kTargetNone,
        [](KVImageCompositor& c, const Shot& s) {
          return c.AddLightSpillLayer(s.layer, s.parameter, 0.8, kBlendScreen, kDownsampleNone);
        },
        radius));
  }
  // The layer's alpha within a centre rectangle thrown onto a floor trapezoid
  // covering the lower half of the frame, multiplied in, faded to the top.
  for (int radius : {8, 32}) {
    stages.push_back(Compositor(
        "shadow-cast-" + std::to_string(radius), kTargetNone,
        [](KVImageCompositor& c, const Shot& s) {
          const double k = s.Scale();
          const KVQuad floor(KVPoint2F(900 * k, 560 * k), KVPoint2F(1900 * k, 560 * k), KVPoint2F(480 * k, 945 * k),
                             KVPoint2F(1440 * k, 945 * k));
          return c.AddShadowCastLayer(s.layer, s.Centre(0.5), floor, static_cast<unsigned int>(s.parameter), 0.7,
                                      KVPixel8_RGB{0, 0, 0}, kBlendMultiply, true, kDownsampleNone);
        },
        radius));
  }
  return stages;
}

kvo::KVLookupTables& SharedTables() {
  static kvo::KVLookupTables tables;
  return tables;
}

template <class Front>
void MeasureRenders(benchmark::State& state, Front& front, int setterCode, const Shot& shot, const StageCase& stage) {
  if (setterCode != 0) {
    state.SkipWithError(("setter returned " + std::to_string(setterCode)).c_str());
    return;
  }
  for (auto _ : state) {
    const int code = front.Render();
    if (code != 0) {
      state.SkipWithError(("Render returned " + std::to_string(code)).c_str());
      break;
    }
  }
  const double pixels = static_cast<double>(shot.width) * shot.height;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(pixels) * 4);
  state.counters["Mpix"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * pixels / 1e6, benchmark::Counter::kIsRate);
  state.SetLabel(stage.target);
}

void RunStage(benchmark::State& state, const StageCase& stage, unsigned int width, unsigned int height, int cores) {
  kvbench::ScopedThreads threads(cores);
  kvbench::AlignedFrame source(width, height), target(width, height), layer(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(stage.input, width, height), source);
  const Shot shot = {width, height, stage.parameter, layer.image()};
  kvo::image::KVDownsampleFactor full = kvo::image::kDownsampleNone;
  if (stage.processor != nullptr) {
    KVImageProcessor processor(source.image(), target.image(), SharedTables(), full);
    MeasureRenders(state, processor, stage.processor(processor, shot), shot, stage);
  } else if (stage.keyer != nullptr) {
    KVImageKeyer keyer(source.image(), target.image(), SharedTables(), full);
    MeasureRenders(state, keyer, stage.keyer(keyer, shot), shot, stage);
  } else {
    kvbench::CopyFrame(kvbench::ReferenceFrame(kvbench::kPhotoFrame, width, height), layer);
    KVImageCompositor compositor(source.image(), 1.0, SharedTables(), full);
    MeasureRenders(state, compositor, stage.compositor(compositor, shot), shot, stage);
  }
}

int RegisterStages() {
  const std::vector<StageCase> stages = Stages();
  for (const kvbench::FrameSize& size : kvbench::BenchSizes()) {
    for (const StageCase& stage : stages) {
      for (int cores : {1, 2}) {
        const std::string name =
            std::string(stage.front) + "/" + stage.name + "/" + size.Name() + "/cores:" + std::to_string(cores);
        const unsigned int width = size.width, height = size.height;
        kvbench::Configure(benchmark::RegisterBenchmark(
            name.c_str(),
            [stage, width, height, cores](benchmark::State& state) { RunStage(state, stage, width, height, cores); }));
      }
    }
  }
  return static_cast<int>(stages.size());
}

[[maybe_unused]] const int kRegisteredStages = RegisterStages();

}  // namespace
