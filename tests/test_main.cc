#include <gtest/gtest.h>

#include <cstdlib>

#include "TestSupport.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // Death tests re-run the binary instead of forking a multi-threaded process,
  // which keeps them sound under ThreadSanitizer.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // KVIMAGE_TEST_THREADS=n runs every test that does not fix its own count
  // with n threads per pass (the scripts run the suite with 1, 2, 7 and 64).
  if (const char* threads = std::getenv("KVIMAGE_TEST_THREADS")) {
    kvtest::SuiteCoreCount() = static_cast<unsigned int>(std::strtoul(threads, nullptr, 10));
    kvo::KVSystem::SetCPUCoreCount(kvtest::SuiteCoreCount());
  }
  return RUN_ALL_TESTS();
}
