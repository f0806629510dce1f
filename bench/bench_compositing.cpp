// The layer compositor through KVImageCompositor on a 1920x1080 frame:
// normal, multiply and screen on the colour-only and the alpha path, 1 and 2
// threads. Read against BM_MemcpyFrame of the same run. The background is
// composited in place and not refreshed, so every iteration is one more
// composite of the same layer.
#include <string>

#include "BenchSupport.h"

namespace {

// Arguments: blend mode, composite type, thread count.
void BM_LayerCompositor(benchmark::State& state) {
  const kvo::image::KVBlendMode mode = static_cast<kvo::image::KVBlendMode>(state.range(0));
  const kvo::image::KVCompositeType type = static_cast<kvo::image::KVCompositeType>(state.range(1));
  kvbench::ScopedThreads threads(static_cast<int>(state.range(2)));
  kvbench::AlignedFrame background(kvbench::kFrameWidth, kvbench::kFrameHeight),
      layer(kvbench::kFrameWidth, kvbench::kFrameHeight);
  background.FillPhotoLike();
  layer.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageCompositor compositor(background.image(), 1.0, tables, kvo::image::kDownsampleNone);
  compositor.AddLayer(layer.image(), 0.8, mode, type);
  for (auto _ : state) benchmark::DoNotOptimize(compositor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
  const char* modeName = mode == kvo::image::kBlendNormal     ? "normal"
                         : mode == kvo::image::kBlendMultiply ? "multiply"
                                                              : "screen";
  state.SetLabel(std::string(modeName) + (type == kvo::image::kCompositeColorOnly ? " colour-only" : " alpha"));
}
BENCHMARK(BM_LayerCompositor)
    ->ArgsProduct({{kvo::image::kBlendNormal, kvo::image::kBlendMultiply, kvo::image::kBlendScreen},
                   {kvo::image::kCompositeColorOnly, kvo::image::kCompositeAlpha},
                   {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
