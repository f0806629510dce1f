#include "support/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace kvo {
namespace image {

void ReportFailedAssertion(const char* source, unsigned int line, const char* condition) {
  std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", source, line, condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace image
}  // namespace kvo
