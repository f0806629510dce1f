#ifndef KVIMAGE_SRC_SUPPORT_ASSERT_H
#define KVIMAGE_SRC_SUPPORT_ASSERT_H

namespace kvo {
namespace image {

// Prints "<source>:<line>: failed assertion `<condition>'" to standard error
// and aborts. Sources and lines are fixed per assertion (a host matches on
// them), so they are passed in rather than taken from __FILE__ and __LINE__.
[[noreturn]] void ReportFailedAssertion(const char* source, unsigned int line, const char* condition);

}  // namespace image
}  // namespace kvo

// Fails with the given text unless cond holds.
#define KV_ASSERT(cond, source, line, text)                       \
  do {                                                            \
    if (!(cond)) ::kvo::image::ReportFailedAssertion(source, line, text); \
  } while (0)

#endif
