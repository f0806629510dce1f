// The saturation, hue shift and hue colorize stages through the image
// processor on the photo-like frame, on their plain path (wider sets capped)
// and their wider path. Arguments: thread count, then 0 for plain, 1 for the
// wider path. Read against BM_MemcpyFrame of the same run.
#include "BenchSupport.h"

namespace {

using kvo::image::KVImageProcessor;

template <class Set>
void RunHLSStage(benchmark::State& state, Set set) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvtl::LimitWiderExtension(state.range(1) != 0 ? kvtl::kWiderAVX2 : kvtl::kWiderNone);
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  set(processor);
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  kvtl::LimitWiderExtension(kvtl::kWiderAVX512VBMI);
}

void PathArguments(benchmark::internal::Benchmark* b) {
  b->ArgNames({"threads", "wider"});
  for (int wider = 0; wider <= 1; ++wider) {
    for (int threads = 1; threads <= 2; ++threads) b->Args({threads, wider});
  }
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_HLSPathSaturation(benchmark::State& state) {
  RunHLSStage(state, [](KVImageProcessor& p) { p.SetSaturation(1.4); });
}
BENCHMARK(BM_HLSPathSaturation)->Apply(PathArguments);

void BM_HLSPathHueShift(benchmark::State& state) {
  RunHLSStage(state, [](KVImageProcessor& p) { p.SetHueShift(45.0, 0.8); });
}
BENCHMARK(BM_HLSPathHueShift)->Apply(PathArguments);

void BM_HLSPathHueColorize(benchmark::State& state) {
  RunHLSStage(state, [](KVImageProcessor& p) { p.SetHueColorize(200.0, 0.8); });
}
BENCHMARK(BM_HLSPathHueColorize)->Apply(PathArguments);

}  // namespace
