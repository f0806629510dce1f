// Baselines every stage is read against, measured in the same run: a memcpy
// of the frame, and a 256-entry table lookup over every byte of the frame.
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

void BM_MemcpyFrame(benchmark::State& state) {
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  for (auto _ : state) {
    std::memcpy(target.pixels(), source.pixels(), source.bytes());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}
BENCHMARK(BM_MemcpyFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void TableLookup(const unsigned char* table, const unsigned char* in, unsigned char* out, size_t count) {
  for (size_t i = 0; i < count; ++i) out[i] = table[in[i]];
}

// Argument: thread count, each thread taking a contiguous share.
void BM_TableLookupFrame(benchmark::State& state) {
  kvbench::AlignedFrame source(kvbench::kFrameWidth, kvbench::kFrameHeight), target(kvbench::kFrameWidth, kvbench::kFrameHeight);
  source.FillPhotoLike();
  unsigned char table[256];
  for (int i = 0; i < 256; ++i) table[i] = static_cast<unsigned char>(255 - i);
  const size_t threads = static_cast<size_t>(state.range(0));
  const size_t share = (source.bytes() + threads - 1) / threads;
  for (auto _ : state) {
    std::vector<std::thread> workers;
    for (size_t t = 0; t < threads; ++t) {
      const size_t start = t * share, count = std::min(share, source.bytes() - start);
      workers.emplace_back(TableLookup, table, source.pixels() + start, target.pixels() + start, count);
    }
    for (auto& worker : workers) worker.join();
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * source.bytes());
}
BENCHMARK(BM_TableLookupFrame)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
