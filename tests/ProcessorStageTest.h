#ifndef KVIMAGE_TESTS_PROCESSORSTAGETEST_H
#define KVIMAGE_TESTS_PROCESSORSTAGETEST_H

// Runs one image-processor setter's stage over given pixels, checking on the
// way that the setter accepts, the render succeeds, the guard bytes behind
// both images survive and the source is left untouched.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <vector>

#include "TestSupport.h"

namespace kvtest {

typedef std::function<int(kvo::image::KVImageProcessor&)> StageSetter;
typedef std::vector<unsigned char> Bytes;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

inline Bytes RenderStage(const StageSetter& set, const Bytes& pixels, unsigned int width, unsigned int height,
                         unsigned int threads = 2, size_t offset = 0,
                         kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA) {
  ScopedCoreCount cores(threads);
  static kvo::KVLookupTables tables;
  GuardedImage src(width, height, offset, order), dst(width, height, offset, order);
  src.fill(pixels);
  kvo::image::KVImageProcessor processor(src.image(), dst.image(), tables, kvo::image::kDownsampleNone);
  EXPECT_EQ(0, set(processor));
  EXPECT_EQ(0, processor.Render());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_TRUE(src.guardsIntact());
  EXPECT_EQ(pixels, src.contents());
  return dst.contents();
}

// One pixel, one thread.
inline Bytes RenderPixel(const StageSetter& set, const Bytes& pixel,
                         kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA) {
  return RenderStage(set, pixel, 1, 1, 1, 0, order);
}

}  // namespace kvtest

#endif
