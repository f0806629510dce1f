// The bleach-bypass, vignette and depth-of-field stages through the image
// processor on 1 and 2 threads (argument: threads). The depth of field is
// measured whole (its blur levels are rebuilt in Setup on every render) at
// radius 16 with a radial and a linear focus region.
#include "BenchSupport.h"

namespace {

void RunProcessor(benchmark::State& state, int which) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  const kvo::maths::KVRect whole;
  const kvo::maths::KVPoint2F centre(960, 540);
  const kvo::image::KVPixel8_RGB black = {0, 0, 0};
  switch (which) {
    case 0:
      processor.SetBleachBypass(0.8, 0.5, 0.4);
      break;
    case 1:
      processor.SetVignette(black, 0.8, 0.3, 0.5, 0.6, 0.5, whole);
      break;
    case 2:
      processor.SetDepthOfField(kvo::image::kDepthOfFieldRadial, centre, 0.0, 16, 0.1, 0.3, 1.0, 0.0, whole);
      break;
    default:
      processor.SetDepthOfField(kvo::image::kDepthOfFieldLinear, centre, 10.0, 16, 0.05, 0.2, 1.0, 0.0, whole);
      break;
  }
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_BleachBypass(benchmark::State& state) { RunProcessor(state, 0); }
BENCHMARK(BM_BleachBypass)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Vignette(benchmark::State& state) { RunProcessor(state, 1); }
BENCHMARK(BM_Vignette)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DepthOfFieldRadial(benchmark::State& state) { RunProcessor(state, 2); }
BENCHMARK(BM_DepthOfFieldRadial)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DepthOfFieldLinear(benchmark::State& state) { RunProcessor(state, 3); }
BENCHMARK(BM_DepthOfFieldLinear)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
