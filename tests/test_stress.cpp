// Random queues on random small images, rendered again and again with
// alternating thread counts: every render of the same queue on the same input
// must give the same bytes and code. The scenarios come from the fuzzer's
// decoder (fuzz/PipelineScenario.h) fed with bytes from a seeded generator,
// so a failure names a seed that reproduces it.
#include <gtest/gtest.h>

#include <random>

#include "TestSupport.h"
#include "fuzz/PipelineScenario.h"

using kvtest::kSanitized;

namespace {

// 250 scenarios of four renders each; a quarter of that under the sanitizers.
const unsigned int kScenarios = kSanitized ? 64 : 250;

std::vector<uint8_t> SeededBytes(uint32_t seed) {
  std::mt19937 generator(seed);
  std::vector<uint8_t> bytes(256);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(generator() >> 24);
  return bytes;
}

TEST(Stress, RepeatedRendersOfRandomQueuesGiveTheSameBytes) {
  const unsigned int counts[] = {1, 2, 3, 4, 7, 8, 13, 16};
  unsigned int comparedAcrossCounts = 0, rendersWithStages = 0;
  for (uint32_t seed = 1; seed <= kScenarios; ++seed) {
    const std::vector<uint8_t> bytes = SeededBytes(seed);
    kvfuzz::ByteReader in(bytes.data(), bytes.size());
    kvfuzz::Scenario scenario(in, kvtest::SharedTables());
    ASSERT_EQ(scenario.failure(), "") << "seed " << seed;
    const unsigned int a = counts[seed % 8], b = counts[(seed / 8 + seed + 1) % 8];
    const unsigned int suite = kvtest::SuiteCoreCount();
    const kvfuzz::Scenario::Outcome firstA = scenario.Render(a, suite);
    const kvfuzz::Scenario::Outcome firstB = scenario.Render(b, suite);
    const kvfuzz::Scenario::Outcome againA = scenario.Render(a, suite);
    const kvfuzz::Scenario::Outcome againB = scenario.Render(b, suite);
    ASSERT_EQ(scenario.failure(), "") << "seed " << seed;
    EXPECT_EQ(firstA.code, againA.code) << "seed " << seed << ", " << a << " threads";
    EXPECT_EQ(firstB.code, againB.code) << "seed " << seed << ", " << b << " threads";
    EXPECT_TRUE(firstA.bytes == againA.bytes) << "seed " << seed << ", " << a << " threads";
    EXPECT_TRUE(firstB.bytes == againB.bytes) << "seed " << seed << ", " << b << " threads";
    if (scenario.queued() != 0) rendersWithStages += 4;
    if (scenario.threadCountIndependent()) {
      ++comparedAcrossCounts;
      EXPECT_EQ(firstA.code, firstB.code) << "seed " << seed << ", " << a << " and " << b << " threads";
      EXPECT_TRUE(firstA.bytes == firstB.bytes) << "seed " << seed << ", " << a << " and " << b << " threads";
    }
  }
  // The generator must keep reaching both kinds of comparison (about one
  // queue in six has only stages whose bytes do not depend on the count).
  EXPECT_GT(comparedAcrossCounts, kScenarios / 16);
  EXPECT_GT(rendersWithStages, kScenarios * 2);
}

}  // namespace
