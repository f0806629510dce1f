#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Death tests re-run the binary instead of forking a multi-threaded process,
  // which keeps them sound under ThreadSanitizer.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  return RUN_ALL_TESTS();
}
