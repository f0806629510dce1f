// The stack blur and the YUV blur through the image processor at radii 2, 8,
// 32 and 128 on 1 and 2 threads (arguments: radius, threads). The stack
// blur's cost per pixel does not depend on the radius; its divide table
// (256 * (radius+1)^2 entries) is built once per stage and reused.
#include "BenchSupport.h"

namespace {

void RunProcessor(benchmark::State& state, int which) {
  const unsigned int radius = static_cast<unsigned int>(state.range(0));
  kvbench::ScopedThreads threads(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  switch (which) {
    case 0:
      processor.SetStackBlur(radius, true, true, kvo::image::kChannelsAll);
      break;
    case 1:
      processor.SetStackBlur(radius, true, true, kvo::image::kChannelsAlpha);
      break;
    case 2:
      processor.SetYUVBlur(radius, kvo::image::kYUVBlurHorizontalVertical);
      break;
    default:
      processor.SetYUVBlur(radius, kvo::image::kYUVBlurStack);
      break;
  }
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BlurArguments(benchmark::internal::Benchmark* bench) {
  for (int threads : {1, 2}) {
    for (int radius : {2, 8, 32, 128}) bench->Args({radius, threads});
  }
  bench->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_StackBlur(benchmark::State& state) { RunProcessor(state, 0); }
BENCHMARK(BM_StackBlur)->Apply(BlurArguments);

void BM_AlphaStackBlur(benchmark::State& state) { RunProcessor(state, 1); }
BENCHMARK(BM_AlphaStackBlur)->Apply(BlurArguments);

void BM_YUVBoxBlur(benchmark::State& state) { RunProcessor(state, 2); }
BENCHMARK(BM_YUVBoxBlur)->Apply(BlurArguments);

void BM_YUVStackBlur(benchmark::State& state) { RunProcessor(state, 3); }
BENCHMARK(BM_YUVStackBlur)->Apply(BlurArguments);

}  // namespace
