// The tone and colour-balance stages through the image processor on the
// 1920x1080 frame, thread count as the argument; read against
// BM_MemcpyFrame and BM_TableLookupFrame of the same run. The processor picks
// the vector path wherever a stage has one (every share of this frame at 1
// and 2 threads is a multiple of 16 pixels); the *Plain benchmarks drive the
// table paths directly as one stage per thread for comparison.
#include <functional>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

using kvo::image::KVImageProcessor;

void RunProcessor(benchmark::State& state, const std::function<int(KVImageProcessor&)>& set) {
  kvbench::ScopedThreads threads(static_cast<int>(state.range(0)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  KVImageProcessor processor(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  if (set(processor) != 0) state.SkipWithError("setter refused its arguments");
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void BM_ProcessorBrightness(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetBrightness(0.2, kvo::image::kChannelsColor); });
}
void BM_ProcessorContrast(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetContrast(1.3, kvo::image::kChannelsColor); });
}
void BM_ProcessorSuperContrast(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetSuperContrast(0.1, 0.9, kvo::image::kChannelsColor); });
}
// Every byte: the vector path serves colour only, so this is the table path.
void BM_ProcessorSuperContrastAll(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetSuperContrast(0.1, 0.9, kvo::image::kChannelsAll); });
}
void BM_ProcessorColorBalance(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetColorBalance(1.2, 0.9, 0.7); });
}
// Table path only.
void BM_ProcessorColorTemperature(benchmark::State& state) {
  RunProcessor(state, [](KVImageProcessor& p) { return p.SetColorTemperature(4500.0); });
}
BENCHMARK(BM_ProcessorBrightness)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProcessorContrast)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProcessorSuperContrast)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProcessorSuperContrastAll)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProcessorColorBalance)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ProcessorColorTemperature)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// The table paths, forced with an extension record without SSE2, one stage
// per thread (Setup once, then Render on each thread's share).
void RunPlainStage(benchmark::State& state, kvo::image::AbstractRenderer& stage) {
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight),
      target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  const int threads = static_cast<int>(state.range(0));
  stage.Setup(source.image());
  for (auto _ : state) {
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
      workers.emplace_back([&, t] {
        stage.Render(source.image(), target.image(), static_cast<unsigned char>(t), static_cast<unsigned char>(threads));
      });
    }
    for (auto& worker : workers) worker.join();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

const kvtl::CPUExtensions kPlainPath = {true, true, false, false};

void BM_BrightnessPlain(benchmark::State& state) {
  kvo::image::BrightnessRenderer stage(0.2, kvo::image::kChannelsColor, kPlainPath);
  RunPlainStage(state, stage);
}
void BM_ContrastPlainAll(benchmark::State& state) {
  kvo::image::ContrastRenderer stage(1.3, kvo::image::kChannelsAll, kPlainPath);
  RunPlainStage(state, stage);
}
void BM_ColorBalancePlain(benchmark::State& state) {
  kvo::image::ColorBalanceRenderer stage(1.2, 0.9, 0.7, kPlainPath);
  RunPlainStage(state, stage);
}
BENCHMARK(BM_BrightnessPlain)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ContrastPlainAll)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ColorBalancePlain)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
