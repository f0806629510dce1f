// Spill suppression, alpha crop and white erode through the keyer on a
// 1920x1080 frame, one stage per queue, at 1 and 2 threads; read them against
// BM_MemcpyFrame and BM_TableLookupFrame of the same run.
#include "BenchSupport.h"

namespace {

template <class Queue>
void RunKeyer(benchmark::State& state, Queue queue) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  kvo::image::KVImageKeyer keyer(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  queue(keyer);
  for (auto _ : state) benchmark::DoNotOptimize(keyer.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_KeyerSpillStandard(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillStandard, 0.8, 0, 0, 0, 0);
  });
}
BENCHMARK(BM_KeyerSpillStandard)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerSpillExtended(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillExtended, 0.8, 0, 0, 0, 0);
  });
}
BENCHMARK(BM_KeyerSpillExtended)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerSpillAdvanced(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillAdvanced, 0, 0.3, -1.0, 0.2, 0.9);
  });
}
BENCHMARK(BM_KeyerSpillAdvanced)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerAlphaCrop(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) { keyer.SetAlphaCrop(0.1, 0.05, 0.1, 0.05); });
}
BENCHMARK(BM_KeyerAlphaCrop)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerWhiteErode8(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) { keyer.SetWhiteErode(kvo::image::kWhiteErodeAll, 8); });
}
BENCHMARK(BM_KeyerWhiteErode8)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_KeyerWhiteErode8Rightward(benchmark::State& state) {
  RunKeyer(state, [](kvo::image::KVImageKeyer& keyer) { keyer.SetWhiteErode(kvo::image::kWhiteErodeRightward, 8); });
}
BENCHMARK(BM_KeyerWhiteErode8Rightward)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
