#ifndef KVIMAGE_TESTS_COLOURSTAGESUPPORT_H
#define KVIMAGE_TESTS_COLOURSTAGESUPPORT_H

// Helpers for the per-pixel colour and tone stages: driving one stage as a
// given number of threads, knowing which pixels a vector path computes, and
// building the expected image byte by byte.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "TestSupport.h"

namespace kvtest {

// Setup, then Render as each thread of threadCount in turn (the shares are
// disjoint, so the order does not matter).
inline void RenderStage(kvo::image::AbstractRenderer& stage, KVImage8* source, KVImage8* destination,
                        unsigned int threadCount = 1) {
  stage.Setup(source);
  for (unsigned int t = 0; t < threadCount; ++t) {
    stage.Render(source, destination, static_cast<unsigned char>(t), static_cast<unsigned char>(threadCount));
  }
}

// How a vector path treats a thread share whose pixel count is not a
// multiple of 16.
enum class Remainder {
  kWholeSharePlain,  // the whole share takes the plain path
  kLeadInPlain       // the first count % 16 pixels take the table, the rest the vector
};

// For each pixel of a width x height image rendered by threadCount threads:
// true where the stage's vector path computes it.
inline std::vector<bool> VectorPixels(unsigned int width, unsigned int height, unsigned int threadCount,
                                      Remainder remainder) {
  const size_t total = static_cast<size_t>(width) * height;
  std::vector<bool> vector(total, false);
  for (unsigned int t = 0; t < threadCount; ++t) {
    unsigned long start = 0, count = 0;
    kvo::image::GetPixelsPerThread(width, height, static_cast<unsigned char>(t),
                                   static_cast<unsigned char>(threadCount), start, count);
    if (start >= total) continue;
    if (count > total - start) count = total - start;
    const size_t plain = remainder == Remainder::kLeadInPlain ? count % 16 : (count % 16 == 0 ? 0 : count);
    for (size_t p = start + plain; p < start + count; ++p) vector[p] = true;
  }
  return vector;
}

// The expected image: byte b of every pixel through map(value, channel,
// vector) where processed(channel) holds, copied otherwise.
inline std::vector<unsigned char> ExpectedBytes(const std::vector<unsigned char>& source,
                                                const std::vector<bool>& vectorPixels,
                                                const std::function<bool(unsigned int)>& processed,
                                                const std::function<int(int, unsigned int, bool)>& map) {
  std::vector<unsigned char> expected(source);
  for (size_t i = 0; i < source.size(); ++i) {
    const unsigned int channel = static_cast<unsigned int>(i % 4);
    if (processed(channel)) expected[i] = static_cast<unsigned char>(map(source[i], channel, vectorPixels[i / 4]));
  }
  return expected;
}

// Renders through a processor with every thread count from 1 to 16 and
// compares with the expectation for that count.
inline void ExpectEveryThreadCount(const std::function<int(kvo::image::KVImageProcessor&)>& set,
                            const std::function<std::vector<unsigned char>(unsigned int)>& expected,
                            unsigned int width, unsigned int height, const std::vector<unsigned char>& source) {
  kvo::KVLookupTables tables;
  for (unsigned int threads = 1; threads <= 16; ++threads) {
    ScopedCoreCount cores(threads);
    GuardedImage src(width, height), dst(width, height);
    src.fill(source);
    kvo::image::KVImageProcessor processor(src.image(), dst.image(), tables, kvo::image::kDownsampleNone);
    ASSERT_EQ(0, set(processor));
    ASSERT_EQ(0, processor.Render());
    EXPECT_EQ(expected(threads), dst.contents()) << threads << " threads";
    EXPECT_TRUE(dst.guardsIntact());
  }
}

inline int Clamp8(int value) { return value < 0 ? 0 : (value > 255 ? 255 : value); }

}  // namespace kvtest

#endif
