// The focus stages through the image processor at radius 8 on 1 and 2
// threads (argument: threads). Each stage's time includes its nested bounded
// stack blur. The defocus stage blurs its input in place, so queued first it
// blurs the source frame again on every iteration; the cost is the same.
#include "BenchSupport.h"

namespace {

const unsigned int kFocusRadius = 8;

void RunFocus(benchmark::State& state, int which) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  const kvo::maths::KVRect frame(kvo::maths::KVPoint2(0, 0), kvbench::kFrameWidth, kvbench::kFrameHeight);
  switch (which) {
    case 0:
      processor.SetDefocus(kFocusRadius, 0.4, 0.0);
      break;
    case 1:
      processor.SetDiffuse(kFocusRadius, 0.6, 0.0);
      break;
    case 2:
      processor.SetSharpen(kFocusRadius, 0.7, 0.05, 0.0);
      break;
    default:
      processor.SetSoftFocus(kvo::image::kBlendScreen, kFocusRadius, 0.6, frame, 0.0);
      break;
  }
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void FocusArguments(benchmark::internal::Benchmark* bench) {
  bench->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_Defocus(benchmark::State& state) { RunFocus(state, 0); }
BENCHMARK(BM_Defocus)->Apply(FocusArguments);

void BM_Diffuse(benchmark::State& state) { RunFocus(state, 1); }
BENCHMARK(BM_Diffuse)->Apply(FocusArguments);

void BM_Sharpen(benchmark::State& state) { RunFocus(state, 2); }
BENCHMARK(BM_Sharpen)->Apply(FocusArguments);

void BM_SoftFocus(benchmark::State& state) { RunFocus(state, 3); }
BENCHMARK(BM_SoftFocus)->Apply(FocusArguments);

}  // namespace
