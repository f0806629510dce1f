// Path-level figures for the super contrast stage on a 1920x1080 frame, read
// against BM_MemcpyFrame of the same run.
//   BM_SuperContrastPaths: through the processor (arguments: threads,
//     wider set: 0 the SSE2 loop, 3 the AVX2 loop).
//   BM_SuperContrastPathsDirect: the stage on the benchmark's own thread
//     (one share of one), in that thread's processor time (argument: wider
//     set); steadier on a busy machine.
#include "BenchSupport.h"

namespace {

using kvbench::ScopedWider;

void BM_SuperContrastPaths(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  ScopedWider wider(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  processor.SetSuperContrast(0.2, 0.8, kvo::image::kChannelsColor);
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.SetLabel(state.range(1) == 0 ? "sse2" : "avx2");
}
BENCHMARK(BM_SuperContrastPaths)->ArgsProduct({{1, 2}, {0, 3}})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SuperContrastPathsDirect(benchmark::State& state) {
  ScopedWider wider(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvtl::CPUExtensions extensions = {false, false, false, false};
  kvtl::GetCPUExtensions(extensions);
  kvo::image::SuperContrastRenderer stage(0.2, 0.8, kvo::image::kChannelsColor, extensions);
  stage.Setup(source.image());
  for (auto _ : state) benchmark::DoNotOptimize(stage.Render(source.image(), target.image(), 0, 1));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.SetLabel(state.range(0) == 0 ? "sse2" : "avx2");
}
BENCHMARK(BM_SuperContrastPathsDirect)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);

}  // namespace
