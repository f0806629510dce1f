// The colour-difference keyer through KVImageKeyer on a 1920x1080 green-screen
// frame: with key-colour detection (every Setup scans the frame once more) and
// with the key colour given, and the whole keying chain (key, spill, white
// erode, crop) in one render. Argument: thread count.
#include "BenchSupport.h"

namespace {

void RunKeyer(benchmark::State& state, kvo::image::KVKeyColor keyColor) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  kvbench::FillGreenScreen(source);
  kvo::KVLookupTables tables;
  kvo::image::KVImageKeyer keyer(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  keyer.SetAutoColorDifferenceKey(keyColor, 0.5, 0.2, 0.5);
  for (auto _ : state) benchmark::DoNotOptimize(keyer.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_KeyerColorDifferenceAuto(benchmark::State& state) { RunKeyer(state, kvo::image::kKeyColorAuto); }
BENCHMARK(BM_KeyerColorDifferenceAuto)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerColorDifferenceGreen(benchmark::State& state) { RunKeyer(state, kvo::image::kKeyColorGreen); }
BENCHMARK(BM_KeyerColorDifferenceGreen)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The chain a host runs per frame: automatic key, spill suppression, white
// erode of 2 pixels and a garbage-matte crop.
void BM_KeyingChain(benchmark::State& state) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  kvbench::FillGreenScreen(source);
  kvo::KVLookupTables tables;
  kvo::image::KVImageKeyer keyer(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  keyer.SetAutoColorDifferenceKey(kvo::image::kKeyColorAuto, 0.5, 0.2, 0.5);
  keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillStandard, 1.0, 0, 0, 0, 0);
  keyer.SetWhiteErode(kvo::image::kWhiteErodeAll, 2);
  keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.1);
  for (auto _ : state) benchmark::DoNotOptimize(keyer.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
  state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_KeyingChain)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
