#include <gtest/gtest.h>

#include "TestSupport.h"

TEST(Smoke, EmptyProcessorLeavesDestination) {
  kvo::KVLookupTables tables;
  kvtest::GuardedImage src(3, 2), dst(3, 2);
  kvo::image::KVImageProcessor processor(src.image(), dst.image(), tables, kvo::image::kDownsampleNone);
  EXPECT_EQ(0, processor.Render());
  EXPECT_TRUE(dst.guardsIntact());
}
