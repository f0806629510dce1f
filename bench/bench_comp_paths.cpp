// Path-level figures for the layer compositor and the small per-pixel stages
// on a 1920x1080 frame. Read every line against BM_MemcpyFrame of the same
// run.
//   BM_CompLayer: every blend mode on the colour-only and the alpha path
//     (arguments: mode, composite type, threads, wider set). The background
//     is composited in place and refreshed outside the timing every
//     iteration, so each iteration lays the layer over the same photo.
//   BM_CompStage: one processor stage (arguments: stage, threads).
//   The wider-set argument is kvtl::WiderExtension: 0 runs the plain form,
//   3 the AVX2 form where a stage has one.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

const char* const kModeNames[] = {"add",     "colour burn", "colour dodge", "darken",   "difference",
                                  "exclusion", "hard light", "lighten",     "multiply", "normal",
                                  "overlay", "screen",      "soft light",   "replace"};

using kvbench::ScopedWider;

// A photo-like background with its bytes kept, and a photo-like layer that
// differs from it, its alpha turned round so that every mix of clear, partial
// and opaque pixels occurs.
struct LayerFrames {
  kvbench::AlignedFrame background{kvbench::kFrameWidth, kvbench::kFrameHeight};
  kvbench::AlignedFrame layer{kvbench::kFrameWidth, kvbench::kFrameHeight};
  std::vector<unsigned char> photo;
  LayerFrames() {
    background.FillPhotoLike();
    layer.FillPhotoLike();
    for (size_t i = 0; i < layer.bytes(); i += 4) {
      unsigned char* p = layer.pixels() + i;
      p[0] = static_cast<unsigned char>(255 - p[0]);
      p[1] = static_cast<unsigned char>(p[1] ^ 0x5A);
      p[3] = static_cast<unsigned char>(255 - p[3]);
    }
    photo.assign(background.pixels(), background.pixels() + background.bytes());
  }
};

void BM_CompLayer(benchmark::State& state) {
  const kvo::image::KVBlendMode mode = static_cast<kvo::image::KVBlendMode>(state.range(0));
  const kvo::image::KVCompositeType type = static_cast<kvo::image::KVCompositeType>(state.range(1));
  kvbench::ScopedThreads threads(static_cast<int>(state.range(2)));
  ScopedWider wider(static_cast<int>(state.range(3)));
  LayerFrames frames;
  kvbench::AlignedFrame &background = frames.background, &layer = frames.layer;
  const std::vector<unsigned char>& photo = frames.photo;
  kvo::KVLookupTables tables;
  kvo::image::KVImageCompositor compositor(background.image(), 1.0, tables, kvo::image::kDownsampleNone);
  compositor.AddLayer(layer.image(), 0.8, mode, type);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(background.pixels(), photo.data(), photo.size());
    state.ResumeTiming();
    benchmark::DoNotOptimize(compositor.Render());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
  state.SetLabel(std::string(kModeNames[state.range(0)]) +
                 (type == kvo::image::kCompositeColorOnly ? " colour-only" : " alpha") +
                 (state.range(3) == 0 ? " plain" : ""));
}

void LayerArguments(benchmark::internal::Benchmark* bench) {
  for (int type : {kvo::image::kCompositeColorOnly, kvo::image::kCompositeAlpha}) {
    for (int mode = kvo::image::kBlendAdd; mode <= kvo::image::kBlendReplace; ++mode) bench->Args({mode, type, 2, 3});
    for (int mode : {kvo::image::kBlendNormal, kvo::image::kBlendMultiply}) {
      bench->Args({mode, type, 1, 3});
      bench->Args({mode, type, 2, 0});
    }
  }
  bench->Unit(benchmark::kMillisecond)->UseRealTime();
}
BENCHMARK(BM_CompLayer)->Apply(LayerArguments);

enum Stage { kTint, kThreeStrip, kMatteView, kSilhouette, kMirror, kBleach, kVignette, kTemperature };
const char* const kStageNames[] = {"tint",   "three-strip", "matte view", "silhouette",
                                   "mirror", "bleach",      "vignette",   "colour temperature"};

void BM_CompStage(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  const kvo::image::KVPixel8_RGB colour = {20, 40, 60};
  switch (state.range(0)) {
    case kTint: processor.SetTint(kvo::image::kTintSelenium, 0.7); break;
    case kThreeStrip: processor.SetThreeStripColor(0.2, 0.3, 0.4); break;
    case kMatteView: processor.SetMatteView(); break;
    case kSilhouette: processor.SetSilhouette(colour); break;
    case kMirror: processor.SetMirror(true, false); break;
    case kBleach: processor.SetBleachBypass(0.8, 0.5, 0.4); break;
    case kVignette: processor.SetVignette(colour, 0.8, 0.3, 0.5, 0.6, 0.5, kvo::maths::KVRect()); break;
    default: processor.SetColorTemperature(4500.0); break;
  }
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.SetLabel(kStageNames[state.range(0)]);
}
BENCHMARK(BM_CompStage)
    ->ArgsProduct({{kTint, kThreeStrip, kMatteView, kSilhouette, kMirror, kBleach, kVignette, kTemperature}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

namespace {

// The layer compositor stage driven directly on the benchmark's own thread
// (one share of one), timed in that thread's processor time: steadier than
// wall time on a busy machine. Read against the CPU column of BM_MemcpyFrame.
// Arguments: mode, composite type, wider set.
void BM_CompLayerDirect(benchmark::State& state) {
  const kvo::image::KVBlendMode mode = static_cast<kvo::image::KVBlendMode>(state.range(0));
  const kvo::image::KVCompositeType type = static_cast<kvo::image::KVCompositeType>(state.range(1));
  ScopedWider wider(static_cast<int>(state.range(2)));
  LayerFrames frames;
  kvbench::AlignedFrame &background = frames.background, &layer = frames.layer;
  const std::vector<unsigned char>& photo = frames.photo;
  kvo::KVLookupTables tables;
  kvo::image::LayerCompositor stage(layer.image(), 0.8, type, mode, tables);
  for (auto _ : state) {
    state.PauseTiming();
    std::memcpy(background.pixels(), photo.data(), photo.size());
    state.ResumeTiming();
    benchmark::DoNotOptimize(stage.Render(background.image(), 0, 1));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
  state.SetLabel(std::string(kModeNames[state.range(0)]) +
                 (type == kvo::image::kCompositeColorOnly ? " colour-only" : " alpha") +
                 (state.range(2) == 0 ? " plain" : ""));
}

void DirectArguments(benchmark::internal::Benchmark* bench) {
  for (int type : {kvo::image::kCompositeColorOnly, kvo::image::kCompositeAlpha}) {
    for (int mode = kvo::image::kBlendAdd; mode <= kvo::image::kBlendReplace; ++mode) bench->Args({mode, type, 3});
    for (int mode : {kvo::image::kBlendNormal, kvo::image::kBlendMultiply}) bench->Args({mode, type, 0});
  }
  bench->Unit(benchmark::kMillisecond);
}
BENCHMARK(BM_CompLayerDirect)->Apply(DirectArguments);

}  // namespace

namespace {

// One processor stage driven directly on the benchmark's own thread, timed in
// that thread's processor time (read against BM_MemcpyFrame's CPU column).
// Arguments: stage, wider set.
void BM_CompStageDirect(benchmark::State& state) {
  ScopedWider wider(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  const kvo::image::KVPixel8_RGB colour = {20, 40, 60};
  std::unique_ptr<kvo::image::AbstractRenderer> stage;
  switch (state.range(0)) {
    case kTint: stage.reset(new kvo::image::TintRenderer(kvo::image::kTintSelenium, 0.7)); break;
    case kThreeStrip: stage.reset(new kvo::image::ThreeStripColorRenderer(0.2, 0.3, 0.4)); break;
    case kMatteView: stage.reset(new kvo::image::MatteViewRenderer()); break;
    case kSilhouette: stage.reset(new kvo::image::SilhouetteRenderer(colour)); break;
    case kMirror: stage.reset(new kvo::image::MirrorRenderer(true, false)); break;
    case kBleach: stage.reset(new kvo::image::BleachBypassRenderer(0.8, 0.5, 0.4, tables)); break;
    case kVignette:
      stage.reset(new kvo::image::VignetteRenderer(colour, 0.8, 0.3, 0.5, 0.6, 0.5, kvo::maths::KVRect()));
      break;
    default: stage.reset(new kvo::image::ColorTemperatureRenderer(4500.0)); break;
  }
  stage->Setup(source.image());
  for (auto _ : state) benchmark::DoNotOptimize(stage->Render(source.image(), target.image(), 0, 1));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.SetLabel(std::string(kStageNames[state.range(0)]) + (state.range(1) == 0 ? " plain" : ""));
}
BENCHMARK(BM_CompStageDirect)
    ->ArgsProduct({{kTint, kThreeStrip, kMatteView, kSilhouette, kMirror, kBleach, kVignette, kTemperature}, {3}})
    ->Unit(benchmark::kMillisecond);

}  // namespace

namespace {

// The light spill at radius 0 (the glow is the layer itself, so the time is
// the shared alpha loop's) through the compositor. Arguments: threads, wider set.
void BM_CompLightSpill(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  ScopedWider wider(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame background(kvbench::kFrameWidth, kvbench::kFrameHeight),
      layer(kvbench::kFrameWidth, kvbench::kFrameHeight);
  background.FillPhotoLike();
  layer.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageCompositor compositor(background.image(), 1.0, tables, kvo::image::kDownsampleNone);
  compositor.AddLightSpillLayer(layer.image(), 0, 0.8, kvo::image::kBlendScreen, kvo::image::kDownsampleNone);
  for (auto _ : state) benchmark::DoNotOptimize(compositor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
  state.SetLabel(state.range(1) == 0 ? "plain" : "wide");
}
BENCHMARK(BM_CompLightSpill)->ArgsProduct({{1, 2}, {0, 3}})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
