// The saturation, hue, tint and three-strip stages through the image
// processor on the photo-like frame; thread count as the argument. Read them
// against BM_MemcpyFrame and BM_TableLookupFrame of the same run.
#include "BenchSupport.h"

namespace {

using kvo::image::KVImageProcessor;

template <class Set>
void RunProcessorStage(benchmark::State& state, Set set) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  set(processor);
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_ProcessorSaturation(benchmark::State& state) {
  RunProcessorStage(state, [](KVImageProcessor& p) { p.SetSaturation(1.4); });
}
BENCHMARK(BM_ProcessorSaturation)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ProcessorHueShift(benchmark::State& state) {
  RunProcessorStage(state, [](KVImageProcessor& p) { p.SetHueShift(45.0, 0.8); });
}
BENCHMARK(BM_ProcessorHueShift)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ProcessorHueColorize(benchmark::State& state) {
  RunProcessorStage(state, [](KVImageProcessor& p) { p.SetHueColorize(200.0, 0.8); });
}
BENCHMARK(BM_ProcessorHueColorize)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ProcessorTint(benchmark::State& state) {
  RunProcessorStage(state, [](KVImageProcessor& p) { p.SetTint(kvo::image::kTintSelenium, 0.7); });
}
BENCHMARK(BM_ProcessorTint)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ProcessorThreeStripColor(benchmark::State& state) {
  RunProcessorStage(state, [](KVImageProcessor& p) { p.SetThreeStripColor(0.3, 0.5, 0.7); });
}
BENCHMARK(BM_ProcessorThreeStripColor)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
