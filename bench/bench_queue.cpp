// The fixed cost of a stage in a processor or keyer queue: what a render pays
// per stage apart from the stage's own pixel work, namely its Setup call,
// starting and joining one thread per core, and the zero-filled intermediate
// frame the next stage reads (allocated, cleared, released).
//
//   fixed/stage-in-queue/<size>/cores:<n>
//       The mirror stage reads and writes no pixel, so a queue of mirrors
//       costs nothing but its fixed costs. Every iteration renders a queue of
//       one mirror and a queue of nine, and reports (t9 - t1) / 8 as its
//       time: the cost of one more stage and its intermediate.
//   fixed/thread-pass/cores:<n>
//       Part of it: starting and joining n POSIX threads that do nothing,
//       with default attributes, as every pass of a render does.
//   fixed/zeroed-frame/<size>
//       The other part: a zero-filled frame allocated and released, as every
//       intermediate between two stages is.
#include <pthread.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

const int kShortQueue = 1;
const int kLongQueue = 9;

void StageInQueue(benchmark::State& state, unsigned int width, unsigned int height, int cores) {
  kvbench::ScopedThreads threads(cores);
  kvbench::AlignedFrame source(width, height), target(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(kvbench::kPhotoFrame, width, height), source);
  kvo::KVLookupTables tables;
  kvo::image::KVImageProcessor shortQueue(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  kvo::image::KVImageProcessor longQueue(source.image(), target.image(), tables, kvo::image::kDownsampleNone);
  for (int i = 0; i < kShortQueue; ++i) shortQueue.SetMirror(true, true);
  for (int i = 0; i < kLongQueue; ++i) longQueue.SetMirror(true, true);
  typedef std::chrono::steady_clock Clock;
  double shortSeconds = 0.0, longSeconds = 0.0;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    benchmark::DoNotOptimize(shortQueue.Render());
    const Clock::time_point middle = Clock::now();
    benchmark::DoNotOptimize(longQueue.Render());
    const Clock::time_point end = Clock::now();
    const double shortTime = std::chrono::duration<double>(middle - start).count();
    const double longTime = std::chrono::duration<double>(end - middle).count();
    shortSeconds += shortTime;
    longSeconds += longTime;
    const double perStage = (longTime - shortTime) / (kLongQueue - kShortQueue);
    state.SetIterationTime(perStage > 0.0 ? perStage : 0.0);
  }
  const double iterations = static_cast<double>(state.iterations());
  state.counters["queue1_ms"] = benchmark::Counter(1e3 * shortSeconds / iterations);
  state.counters["queue9_ms"] = benchmark::Counter(1e3 * longSeconds / iterations);
  state.SetLabel("fixed");
}

void* DoNothing(void*) { return nullptr; }

void ThreadPass(benchmark::State& state, int cores) {
  std::vector<pthread_t> threads(static_cast<size_t>(cores));
  for (auto _ : state) {
    for (pthread_t& thread : threads) {
      if (pthread_create(&thread, nullptr, DoNothing, nullptr) != 0) state.SkipWithError("pthread_create failed");
    }
    for (pthread_t& thread : threads) pthread_join(thread, nullptr);
  }
}

void ZeroedFrame(benchmark::State& state, unsigned int width, unsigned int height) {
  for (auto _ : state) {
    std::unique_ptr<kvo::image::KVImage8> frame(
        new kvo::image::KVImage8(width, height, kvo::image::kPixelOrderBGRA, true));
    benchmark::DoNotOptimize(frame->Buffer());
  }
}

int RegisterQueueCosts() {
  for (const kvbench::FrameSize& size : kvbench::BenchSizes()) {
    const unsigned int width = size.width, height = size.height;
    for (int cores : {1, 2}) {
      benchmark::RegisterBenchmark(
          ("fixed/stage-in-queue/" + size.Name() + "/cores:" + std::to_string(cores)).c_str(),
          [width, height, cores](benchmark::State& state) { StageInQueue(state, width, height, cores); })
          ->Unit(benchmark::kMillisecond)
          ->UseManualTime()
          ->ComputeStatistics("min", kvbench::Fastest);
    }
    kvbench::Configure(
        benchmark::RegisterBenchmark(("fixed/zeroed-frame/" + size.Name()).c_str(),
                                     [width, height](benchmark::State& state) { ZeroedFrame(state, width, height); }));
  }
  for (int cores : {1, 2}) {
    kvbench::Configure(benchmark::RegisterBenchmark(("fixed/thread-pass/cores:" + std::to_string(cores)).c_str(),
                                                    [cores](benchmark::State& state) { ThreadPass(state, cores); }));
  }
  return 0;
}

[[maybe_unused]] const int kRegisteredQueueCosts = RegisterQueueCosts();

}  // namespace
