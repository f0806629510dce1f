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
      {"St9bad_alloc", image::kResultOutOfMemory},
      {"St13runtime_error", image::kResultRuntimeError},
      {"St11logic_error", image::kResultLogicError},
      {"St16invalid_argument", image::kResultInvalidCombination},
      {"St12out_of_range", image::kResultOutOfRange},
  };
  const char* name = typeid(e).name();
  for (const auto& entry : kCodes) {
    if (std::strcmp(name, entry.mangledName) == 0) return entry.code;
  }
  return defaultCode;
}

const char* ResultCodeMeaning(int code) {
  switch (code) {
    case image::kResultSuccess:
      return "success";
    case image::kResultRuntimeError:
      return "runtime error";
    case image::kResultLogicError:
      return "logic error";
    case image::kResultInvalidCombination:
      return "invalid combination of arguments";
    case image::kResultOutOfRange:
      return "argument out of range";
    case image::kResultOutOfMemory:
      return "out of memory";
    case image::kResultUnsupportedFormat:
      return "unsupported format or channel selection";
    case image::kResultImagesDoNotMatch:
      return "images do not match";
    case image::kResultWorkerFailure:
      return "a stage failed inside a worker thread";
    default:
      return "unknown result code";
  }
}

}  // namespace kvo
