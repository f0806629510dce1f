// Baselines every stage is read against, measured in the same run at every
// frame size of BenchSizes():
//   BM_MemcpyFrame/<size>                 a memcpy of the frame, one thread;
//   BM_TableLookupFrame/<size>/cores:<n>  a scalar 256-entry table lookup over
//                                         every byte, n threads each taking a
//                                         contiguous share (started and joined
//                                         every iteration, like a render pass).
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"

namespace {

void MemcpyFrame(benchmark::State& state, unsigned int width, unsigned int height) {
  kvbench::AlignedFrame source(width, height), target(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(kvbench::kPhotoFrame, width, height), source);
  for (auto _ : state) {
    std::memcpy(target.pixels(), source.pixels(), source.bytes());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(source.bytes()));
  state.counters["Mpix"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * width * height / 1e6, benchmark::Counter::kIsRate);
}

void TableLookup(const unsigned char* table, const unsigned char* in, unsigned char* out, size_t count) {
  for (size_t i = 0; i < count; ++i) out[i] = table[in[i]];
}

void TableLookupFrame(benchmark::State& state, unsigned int width, unsigned int height, int cores) {
  kvbench::AlignedFrame source(width, height), target(width, height);
  kvbench::CopyFrame(kvbench::ReferenceFrame(kvbench::kPhotoFrame, width, height), source);
  unsigned char table[256];
  for (int i = 0; i < 256; ++i) table[i] = static_cast<unsigned char>(255 - i);
  const size_t threads = static_cast<size_t>(cores);
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
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(source.bytes()));
  state.counters["Mpix"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * width * height / 1e6, benchmark::Counter::kIsRate);
}

int RegisterBaselines() {
  for (const kvbench::FrameSize& size : kvbench::BenchSizes()) {
    const unsigned int width = size.width, height = size.height;
    kvbench::Configure(
        benchmark::RegisterBenchmark(("BM_MemcpyFrame/" + size.Name()).c_str(),
                                     [width, height](benchmark::State& state) { MemcpyFrame(state, width, height); }));
    for (int cores : {1, 2}) {
      kvbench::Configure(benchmark::RegisterBenchmark(
          ("BM_TableLookupFrame/" + size.Name() + "/cores:" + std::to_string(cores)).c_str(),
          [width, height, cores](benchmark::State& state) { TableLookupFrame(state, width, height, cores); }));
    }
  }
  return 0;
}

[[maybe_unused]] const int kRegisteredBaselines = RegisterBaselines();

}  // namespace
