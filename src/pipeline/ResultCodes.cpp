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
  static const struct {
    int code;
    const char* meaning;
  } kMeanings[] = {
      {image::kResultSuccess, "success"},
      {image::kResultRuntimeError, "runtime error"},
      {image::kResultLogicError, "logic error"},
      {image::kResultInvalidCombination, "invalid combination of arguments"},
      {image::kResultOutOfRange, "argument out of range"},
      {image::kResultOutOfMemory, "out of memory"},
      {image::kResultUnsupportedFormat, "unsupported format or channel selection"},
      {image::kResultImagesDoNotMatch, "images do not match"},
      {image::kResultWorkerFailure, "a stage failed inside a worker thread"},
  };
  for (const auto& entry : kMeanings) {
    if (entry.code == code) return entry.meaning;
  }
  return "unknown result code";
}

}  // namespace kvo
