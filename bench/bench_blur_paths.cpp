// The blur stages' paths on a 1920x1080 frame: the straightforward exported
// passes (32-bit planes, a window stack) against the stages, at radii from 2
// to far past the frame, on 1 and 2 threads (arguments: radius, threads).
// Read as ratios to BM_MemcpyFrame of the same run.
#include <cstdint>
#include <vector>

#include "BenchSupport.h"

namespace {

using namespace kvo::image;

// The exported row and column passes over the whole frame on one thread.
void BM_BlurPathsStackPlain(benchmark::State& state) {
  const uint32_t radius = static_cast<uint32_t>(state.range(0));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  const uint32_t w = kvbench::kFrameWidth, h = kvbench::kFrameHeight;
  const size_t count = static_cast<size_t>(w) * h;
  std::vector<int32_t> planes[4] = {std::vector<int32_t>(count), std::vector<int32_t>(count),
                                    std::vector<int32_t>(count), std::vector<int32_t>(count)};
  std::vector<int32_t> edge(w > h ? w : h);
  for (auto _ : state) {
    StackBlurData data = {};
    data.width = w;
    data.height = h;
    data.radius = radius;
    data.plane0 = planes[0].data();
    data.plane1 = planes[1].data();
    data.plane2 = planes[2].data();
    data.plane3 = planes[3].data();
    data.edgeIndex = edge.data();
    data.rowsPerThread = h;
    data.columnsPerThread = w;
    data.pixels = source.pixels();
    FillStackBlurRowEdgeIndex(edge.data(), w, radius);
    StackBlurVertRGBAProc(&data);
    FillStackBlurColumnEdgeIndex(edge.data(), w, h, radius);
    data.pixels = target.pixels();
    StackBlurHorizRGBAProc(&data);
    benchmark::DoNotOptimize(target.pixels());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}
BENCHMARK(BM_BlurPathsStackPlain)->Arg(2)->Arg(128)->Unit(benchmark::kMillisecond)->UseRealTime();

void RunStage(benchmark::State& state, int which) {
  const unsigned int radius = static_cast<unsigned int>(state.range(0));
  kvbench::ScopedThreads threads(static_cast<int>(state.range(1)));
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  kvo::KVLookupTables tables;
  KVImageProcessor processor(source.image(), target.image(), tables, kDownsampleNone);
  switch (which) {
    case 0:
      processor.SetStackBlur(radius, true, true, kChannelsAll);
      break;
    case 1:
      processor.SetStackBlur(radius, true, true, kChannelsAlpha);
      break;
    case 2:
      processor.SetYUVBlur(radius, kYUVBlurHorizontalVertical);
      break;
    case 3:
      processor.SetYUVBlur(radius, kYUVBlurStack);
      break;
    default:
      processor.SetDefocus(radius, 0.3, 0.0);
      break;
  }
  for (auto _ : state) benchmark::DoNotOptimize(processor.Render());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}

void StageArguments(benchmark::internal::Benchmark* bench) {
  for (int threads : {1, 2}) {
    for (int radius : {2, 128, 2896, 100000}) bench->Args({radius, threads});
  }
  bench->Unit(benchmark::kMillisecond)->UseRealTime();
}

void BM_BlurPathsStack(benchmark::State& state) { RunStage(state, 0); }
BENCHMARK(BM_BlurPathsStack)->Apply(StageArguments);

void BM_BlurPathsAlphaStack(benchmark::State& state) { RunStage(state, 1); }
BENCHMARK(BM_BlurPathsAlphaStack)->Args({8, 1})->Args({8, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BlurPathsYUVBox(benchmark::State& state) { RunStage(state, 2); }
BENCHMARK(BM_BlurPathsYUVBox)->Args({8, 1})->Args({8, 2})->Args({128, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BlurPathsYUVStack(benchmark::State& state) { RunStage(state, 3); }
BENCHMARK(BM_BlurPathsYUVStack)->Args({8, 1})->Args({8, 2})->Args({128, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BlurPathsDefocus(benchmark::State& state) { RunStage(state, 4); }
BENCHMARK(BM_BlurPathsDefocus)->Args({8, 1})->Args({8, 2})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
