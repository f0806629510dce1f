// The light spill and the cast shadow through KVImageCompositor on a
// 1920x1080 frame, 1 and 2 threads (arguments: radius, threads). Read against
// BM_MemcpyFrame of the same run. The background is composited in place and
// not refreshed, so every iteration lays the same layer once more.
//   light spill: screen at amount 0.8 over the whole frame;
//   cast shadow: the photo's alpha within a centre rectangle thrown onto a
//   floor trapezoid covering the lower half of the frame, multiply, faded.
#include "BenchSupport.h"

namespace {

void BM_LightSpillLayer(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame background(kvbench::kFrameWidth, kvbench::kFrameHeight),
      layer(kvbench::kFrameWidth, kvbench::kFrameHeight);
  background.FillPhotoLike();
  layer.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageCompositor compositor(background.image(), 1.0, tables, kvo::image::kDownsampleNone);
  compositor.AddLightSpillLayer(layer.image(), static_cast<int>(state.range(0)), 0.8, kvo::image::kBlendScreen,
                                kvo::image::kDownsampleNone);
  for (auto _ : state) benchmark::DoNotOptimize(compositor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
}

void BM_ShadowCastLayer(benchmark::State& state) {
  using kvo::maths::KVPoint2F;
  kvbench::ScopedThreads threads(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame background(kvbench::kFrameWidth, kvbench::kFrameHeight),
      layer(kvbench::kFrameWidth, kvbench::kFrameHeight);
  background.FillPhotoLike();
  layer.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageCompositor compositor(background.image(), 1.0, tables, kvo::image::kDownsampleNone);
  const kvo::maths::KVRect bounds(kvo::maths::KVPoint2(480, 135), 960, 810);
  const kvo::maths::KVQuad floor(KVPoint2F(900, 560), KVPoint2F(1900, 560), KVPoint2F(480, 945), KVPoint2F(1440, 945));
  const kvo::image::KVPixel8_RGB black = {0, 0, 0};
  compositor.AddShadowCastLayer(layer.image(), bounds, floor, static_cast<unsigned int>(state.range(0)), 0.7, black,
                                kvo::image::kBlendMultiply, true, kvo::image::kDownsampleNone);
  for (auto _ : state) benchmark::DoNotOptimize(compositor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * background.bytes());
}

void Arguments(benchmark::internal::Benchmark* bench) {
  for (int threads : {1, 2}) {
    for (int radius : {0, 8, 32}) bench->Args({radius, threads});
  }
  bench->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_LightSpillLayer)->Apply(Arguments);
BENCHMARK(BM_ShadowCastLayer)->Apply(Arguments);

}  // namespace
