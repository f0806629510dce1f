// The opacity stage through the image processor, plain and SSE2 paths, and
// driven directly as one stage (no pipeline) for comparison.
#include "BenchSupport.h"

namespace {

void BM_ProcessorOpacity(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  processor.SetOpacity(0.5);
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}
BENCHMARK(BM_ProcessorOpacity)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Argument 0: plain path, 1: SSE2 path; one thread, the stage called directly.
void BM_OpacityStagePath(benchmark::State& state) {
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  const kvtl::CPUExtensions extensions = {true, true, state.range(0) != 0, false};
  kvo::image::OpacityRenderer stage(0.5, extensions);
  for (auto _ : state) {
    benchmark::DoNotOptimize(stage.Render(source.image(), target.image(), 0, 1));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.SetLabel(state.range(0) ? "sse2" : "plain");
}
BENCHMARK(BM_OpacityStagePath)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
