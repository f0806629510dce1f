#ifndef KVIMAGE_BENCH_BENCHSUPPORT_H
#define KVIMAGE_BENCH_BENCHSUPPORT_H

// 64-byte aligned BGRA frames and their fills, the frame sizes of the suite,
// and the conventions every benchmark follows: the engine's thread count is
// fixed per benchmark (KVSystem::SetCPUCoreCount, "cores:<n>" in the name),
// times are wall-clock times, and bytes processed are one frame per
// iteration, so every figure reads against the memcpy baseline of the same
// size in the same run.
#include <benchmark/benchmark.h>
#include <kvimage/kvimage.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace kvbench {

// The page faults of this process so far: a render that takes fresh
// frame-sized memory faults on its pages (about a thousand per 1920x1080
// frame), one that reuses its scratch hardly at all.
inline double PageFaults() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_minflt + usage.ru_majflt);
}

// Every block of 256 KiB or more comes fresh from the system and goes back
// when freed, as with many hosts' allocators (glibc's own threshold rises
// after the first frame is freed, and then recycles frames): a render that
// allocates frame-sized memory shows it as page faults.
[[maybe_unused]] inline const int kFreshLargeBlocks = mallopt(M_MMAP_THRESHOLD, 256 * 1024);

const unsigned int kFrameWidth = 1920;
const unsigned int kFrameHeight = 1080;

class AlignedFrame {
 public:
  AlignedFrame(unsigned int width, unsigned int height)
      : m_width(width), m_height(height), m_bytes(static_cast<size_t>(width) * height * 4) {
    m_pixels = static_cast<unsigned char*>(std::aligned_alloc(64, (m_bytes + 63) / 64 * 64));
    std::memset(m_pixels, 0, m_bytes);
    m_image = new kvo::image::KVImage8(m_pixels, width, height, kvo::image::kPixelOrderBGRA);
  }
  ~AlignedFrame() {
    delete m_image;
    std::free(m_pixels);
  }
  AlignedFrame(const AlignedFrame&) = delete;
  AlignedFrame& operator=(const AlignedFrame&) = delete;

  // Smooth gradients with texture and a soft-edged alpha, like a keyed photo.
  void FillPhotoLike() {
    uint32_t noise = 12345;
    for (unsigned int y = 0; y < m_height; ++y) {
      for (unsigned int x = 0; x < m_width; ++x) {
        noise = noise * 1664525u + 1013904223u;
        const int grain = static_cast<int>(noise >> 28) - 8;
        unsigned char* p = m_pixels + (static_cast<size_t>(y) * m_width + x) * 4;
        const double u = static_cast<double>(x) / m_width, v = static_cast<double>(y) / m_height;
        p[0] = Clamp(60 + 120 * v + 40 * std::sin(9 * u) + grain);
        p[1] = Clamp(90 + 100 * u * v + 50 * std::cos(7 * v) + grain);
        p[2] = Clamp(140 + 90 * u - 60 * v + grain);
        const double r = std::hypot(u - 0.5, v - 0.5);
        p[3] = Clamp(static_cast<int>(255 * (1.2 - 2.4 * r)));
      }
    }
  }

  kvo::image::KVImage8* image() const { return m_image; }
  unsigned char* pixels() const { return m_pixels; }
  size_t bytes() const { return m_bytes; }

 private:
  static unsigned char Clamp(double value) {
    return static_cast<unsigned char>(value < 0 ? 0 : (value > 255 ? 255 : value));
  }
  unsigned int m_width;
  unsigned int m_height;
  size_t m_bytes;
  unsigned char* m_pixels;
  kvo::image::KVImage8* m_image;
};

// Fixes the engine's thread count for one benchmark.
class ScopedThreads {
 public:
  explicit ScopedThreads(int count) { kvo::KVSystem::SetCPUCoreCount(static_cast<unsigned int>(count)); }
  ~ScopedThreads() { kvo::KVSystem::SetCPUCoreCount(0); }
};

// Caps the wider instruction sets for one benchmark (0: none, 3: AVX2).
class ScopedWider {
 public:
  explicit ScopedWider(int limit) { kvtl::LimitWiderExtension(static_cast<kvtl::WiderExtension>(limit)); }
  ~ScopedWider() { kvtl::LimitWiderExtension(kvtl::kWiderAVX512VBMI); }
};

// A green-screen frame: an unevenly lit green backing with sensor noise, and
// a head-and-shoulders subject (skin above, a dark red jumper below) with a
// soft outline whose colours pick up green spill near the backing.
inline void FillGreenScreen(AlignedFrame& frame) {
  const unsigned int width = frame.image()->Width(), height = frame.image()->Height();
  const double w = width, h = height;
  const double edge = w / 160.0, spillReach = w / 40.0;
  uint32_t noise = 4242;
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      const double px = x + 0.5, py = y + 0.5;
      const double head = (std::hypot((px - 0.5 * w) / (0.13 * w), (py - 0.42 * h) / (0.20 * h)) - 1.0) * 0.16 * w;
      const double body = (std::hypot((px - 0.5 * w) / (0.34 * w), (py - 1.02 * h) / (0.44 * h)) - 1.0) * 0.38 * w;
      const double distance = std::min(head, body);
      double cover = 0.5 - distance / edge;
      cover = cover < 0.0 ? 0.0 : (cover > 1.0 ? 1.0 : cover);
      noise = noise * 1664525u + 1013904223u;
      const int grain = static_cast<int>(noise >> 28) - 8;
      const double light = 0.88 + 0.12 * (px / w) - 0.08 * (py / h);
      const double back[3] = {45.0 * light + grain, 176.0 * light + grain, 62.0 * light + grain};
      const bool skin = py < 0.60 * h;
      double subject[3] = {skin ? 118.0 : 58.0, skin ? 146.0 : 46.0, skin ? 204.0 : 126.0};
      if (distance < 0.0 && -distance < spillReach) subject[1] += 38.0 * (1.0 + distance / spillReach);
      unsigned char* p = frame.pixels() + (static_cast<size_t>(y) * width + x) * 4;
      for (int c = 0; c < 3; ++c) {
        const double v = cover * subject[c] + (1.0 - cover) * back[c];
        p[c] = static_cast<unsigned char>(v < 0.0 ? 0.0 : (v > 255.0 ? 255.0 : v));
      }
      p[3] = 255;
    }
  }
}

// The frame sizes the suite runs: 1920x1080 and 3840x2160, or the list in the
// environment variable KVBENCH_SIZES (for example "1920x1080"; bench/run.sh
// --quick sets it).
struct FrameSize {
  unsigned int width;
  unsigned int height;
  std::string Name() const { return std::to_string(width) + "x" + std::to_string(height); }
};

inline std::vector<FrameSize> BenchSizes() {
  const char* list = std::getenv("KVBENCH_SIZES");
  std::vector<FrameSize> sizes;
  if (list != nullptr) {
    std::istringstream items(list);
    std::string item;
    while (std::getline(items, item, ',')) {
      unsigned int width = 0, height = 0;
      char separator = 0;
      std::istringstream size(item);
      if (size >> width >> separator >> height && separator == 'x' && width > 0 && height > 0) {
        sizes.push_back(FrameSize{width, height});
      }
    }
  }
  if (sizes.empty()) sizes = {FrameSize{kFrameWidth, kFrameHeight}, FrameSize{2 * kFrameWidth, 2 * kFrameHeight}};
  return sizes;
}

// The settings every benchmark of the suite shares: milliseconds, wall-clock
// time (the work runs on the engine's threads), and besides the usual
// aggregates over repetitions their minimum. On a machine shared with other
// jobs those jobs only ever add time, so the fastest repetition is the best
// estimate of what the machine can do.
inline double Fastest(const std::vector<double>& values) {
  return values.empty() ? 0.0 : *std::min_element(values.begin(), values.end());
}

inline benchmark::internal::Benchmark* Configure(benchmark::internal::Benchmark* bench) {
  return bench->Unit(benchmark::kMillisecond)->UseRealTime()->ComputeStatistics("min", Fastest);
}

// The inputs of the benchmarks. The fills are slow at 3840x2160, so each kind
// and size is made once per run and copied into a benchmark's own buffers.
enum FrameKind {
  kPhotoFrame,        // FillPhotoLike
  kGreenScreenFrame,  // FillGreenScreen
  kKeyedFrame         // the green-screen frame after an automatic colour-difference key: a real matte
};

inline const AlignedFrame& ReferenceFrame(FrameKind kind, unsigned int width, unsigned int height) {
  static std::map<std::tuple<int, unsigned int, unsigned int>, std::unique_ptr<AlignedFrame> > frames;
  std::unique_ptr<AlignedFrame>& frame = frames[std::make_tuple(static_cast<int>(kind), width, height)];
  if (frame) return *frame;
  frame.reset(new AlignedFrame(width, height));
  if (kind == kPhotoFrame) {
    frame->FillPhotoLike();
  } else if (kind == kGreenScreenFrame) {
    FillGreenScreen(*frame);
  } else {
    const AlignedFrame& greenScreen = ReferenceFrame(kGreenScreenFrame, width, height);
    kvo::KVLookupTables tables;
    kvo::image::KVImageKeyer keyer(greenScreen.image(), frame->image(), tables, kvo::image::kDownsampleNone);
    keyer.SetAutoColorDifferenceKey(kvo::image::kKeyColorAuto, 0.5, 0.2, 0.5);
    keyer.Render();
  }
  return *frame;
}

// A fresh copy of a reference frame.
inline void CopyFrame(const AlignedFrame& from, AlignedFrame& to) {
  std::memcpy(to.pixels(), from.pixels(), from.bytes());
}

}  // namespace kvbench

#endif
