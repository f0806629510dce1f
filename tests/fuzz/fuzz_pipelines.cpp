// libFuzzer entry: decodes the input into a pipeline scenario (see
// PipelineScenario.h), renders it twice with the decoded thread count and
// stops on an undocumented result code, a changed source or layer, or two
// renders that differ. The sanitizers it is built with report everything
// else (out-of-bounds access, leaks, undefined behaviour).
#include <cstdio>
#include <cstdlib>

#include "PipelineScenario.h"

namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "kvimage fuzz finding: %s\n", what.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kvo::KVLookupTables tables;
  kvfuzz::ByteReader in(data, size);
  kvfuzz::Scenario scenario(in, tables);
  if (!scenario.failure().empty()) Fail(scenario.failure());
  const kvfuzz::Scenario::Outcome first = scenario.Render(scenario.threads());
  const kvfuzz::Scenario::Outcome second = scenario.Render(scenario.threads());
  if (!scenario.failure().empty()) Fail(scenario.failure());
  if (first.code != second.code) Fail("two renders returned different codes");
  if (first.bytes != second.bytes) Fail("two renders wrote different bytes");
  return 0;
}
