// Where the keying chain's time goes: each of its stages alone through the
// keyer, the key-colour detection and the keyer's Setup on their own, the
// fixed cost of one more stage in a queue, and the wider paths against the
// plain ones (second argument 0: wider sets capped, 1: the widest the machine
// has). First argument: thread count. Read against BM_MemcpyFrame of the
// same run.
#include "BenchSupport.h"

#include <functional>

namespace {

using kvo::image::KVImageKeyer;

class ScopedWider {
 public:
  explicit ScopedWider(int64_t wide) { kvtl::LimitWiderExtension(wide != 0 ? kvtl::kWiderAVX2 : kvtl::kWiderNone); }
  ~ScopedWider() { kvtl::LimitWiderExtension(kvtl::kWiderAVX512VBMI); }
};

void RunQueue(benchmark::State& state, const std::function<void(KVImageKeyer&)>& queue, unsigned int width,
              unsigned int height) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  ScopedWider wider(state.range(1));
  kvbench::AlignedFrame source(width, height), target(width, height);
  kvbench::FillGreenScreen(source);
  kvo::KVLookupTables tables;
  KVImageKeyer keyer(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  queue(keyer);
  for (auto _ : state) benchmark::DoNotOptimize(keyer.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kvbench::kFrameWidth * kvbench::kFrameHeight *
                          4);
}

void RunFrame(benchmark::State& state, const std::function<void(KVImageKeyer&)>& queue) {
  RunQueue(state, queue, kvbench::kFrameWidth, kvbench::kFrameHeight);
}

void PathArgs(benchmark::internal::Benchmark* b) {
  b->Args({1, 0})->Args({1, 1})->Args({2, 0})->Args({2, 1})->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_KeyingPathsChain(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetAutoColorDifferenceKey(kvo::image::kKeyColorAuto, 0.5, 0.2, 0.5);
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillStandard, 1.0, 0, 0, 0, 0);
    keyer.SetWhiteErode(kvo::image::kWhiteErodeAll, 2);
    keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.1);
  });
}
BENCHMARK(BM_KeyingPathsChain)->Apply(PathArgs);

void BM_KeyingPathsAutoKey(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetAutoColorDifferenceKey(kvo::image::kKeyColorAuto, 0.5, 0.2, 0.5);
  });
}
BENCHMARK(BM_KeyingPathsAutoKey)->Apply(PathArgs);

// Times `loop` (the benchmark's own timing loop) over a green-screen frame
// with the arguments' threads and wider set.
void RunOnGreenScreen(benchmark::State& state, const std::function<void(const kvbench::AlignedFrame&)>& loop) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  ScopedWider wider(state.range(1));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight);
  kvbench::FillGreenScreen(source);
  loop(source);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_KeyingPathsDetect(benchmark::State& state) {
  RunOnGreenScreen(state, [&state](const kvbench::AlignedFrame& source) {
    kvo::image::KVKeyColor colour = kvo::image::kKeyColorAuto;
    for (auto _ : state) {
      kvo::image::AutoDetectKeyColor(source.image(), static_cast<int>(state.range(0)), &colour);
      benchmark::DoNotOptimize(colour);
    }
  });
}
BENCHMARK(BM_KeyingPathsDetect)->Apply(PathArgs);

// The matte pass and the statistics of a given key colour.
void BM_KeyingPathsMatteSetup(benchmark::State& state) {
  RunOnGreenScreen(state, [&state](const kvbench::AlignedFrame& source) {
    kvo::KVLookupTables tables;
    kvo::image::ColorDifferenceKeyer keyer(kvo::image::kKeyColorGreen, 0.5, 0.2, 0.5, tables);
    for (auto _ : state) keyer.Setup(source.image());
  });
}
BENCHMARK(BM_KeyingPathsMatteSetup)->Apply(PathArgs);

void BM_KeyingPathsSpillStandard(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillStandard, 1.0, 0, 0, 0, 0);
  });
}
BENCHMARK(BM_KeyingPathsSpillStandard)->Apply(PathArgs);

void BM_KeyingPathsSpillExtended(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillExtended, 0.8, 0, 0, 0, 0);
  });
}
BENCHMARK(BM_KeyingPathsSpillExtended)->Apply(PathArgs);

void BM_KeyingPathsSpillAdvanced(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetSpillSuppression(kvo::image::kChannelGreen, kvo::image::kSpillAdvanced, 0, 0.3, -1.0, 0.2, 0.9);
  });
}
BENCHMARK(BM_KeyingPathsSpillAdvanced)->Apply(PathArgs);

void BM_KeyingPathsCrop(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) { keyer.SetAlphaCrop(0.05, 0.0, 0.05, 0.1); });
}
BENCHMARK(BM_KeyingPathsCrop)->Apply(PathArgs);

void BM_KeyingPathsErode2(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) { keyer.SetWhiteErode(kvo::image::kWhiteErodeAll, 2); });
}
BENCHMARK(BM_KeyingPathsErode2)->Apply(PathArgs);

void BM_KeyingPathsErode8(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) { keyer.SetWhiteErode(kvo::image::kWhiteErodeAll, 8); });
}
BENCHMARK(BM_KeyingPathsErode8)->Apply(PathArgs);

// The fixed cost of a stage in a queue: two crops less twice one crop is
// what the intermediate between them costs; the crop of a 1x1 frame is the
// thread start and join of a stage.
void BM_KeyingPathsOneCrop(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) { keyer.SetAlphaCrop(0, 0, 0, 0); });
}
BENCHMARK(BM_KeyingPathsOneCrop)->Apply(PathArgs);

void BM_KeyingPathsTwoCrops(benchmark::State& state) {
  RunFrame(state, [](KVImageKeyer& keyer) {
    keyer.SetAlphaCrop(0, 0, 0, 0);
    keyer.SetAlphaCrop(0, 0, 0, 0);
  });
}
BENCHMARK(BM_KeyingPathsTwoCrops)->Apply(PathArgs);

void BM_KeyingPathsThreadStart(benchmark::State& state) {
  RunQueue(state, [](KVImageKeyer& keyer) { keyer.SetAlphaCrop(0, 0, 0, 0); }, 1, 1);
}
BENCHMARK(BM_KeyingPathsThreadStart)->Apply(PathArgs);

}  // namespace
