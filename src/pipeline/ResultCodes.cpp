#include "pipeline/ResultCodes.h"

#include <cstring>
#include <typeinfo>

namespace kvo {

int ConvertExceptionToKVerr(std::exception& e, int defaultCode) {
  // Exact dynamic types only: a class derived from std::runtime_error is not
  // a runtime_error here and gets the default.
  static const struct {
    const char* mangledName;
    int code;
  } kCodes[] = {
      {"St9bad_alloc", image::kResultOutOfMemory}, {"St13runtime_error", 2}, {"St11logic_error", 3},
      {"St16invalid_argument", 4},                 {"St12out_of_range", 7},
  };
  const char* name = typeid(e).name();
  for (const auto& entry : kCodes) {
    if (std::strcmp(name, entry.mangledName) == 0) return entry.code;
  }
  return defaultCode;
}

}  // namespace kvo
