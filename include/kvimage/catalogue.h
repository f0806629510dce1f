#ifndef KVIMAGE_CATALOGUE_H
#define KVIMAGE_CATALOGUE_H

// The stage catalogue: one description of every setter of the three front
// ends (its parameters with their types, ranges, defaults and units, the
// codes it can return) and one call that queues a setter by name. The
// setters' own checks read it, and so can a host that builds its effect
// panels from it.

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>

namespace kvo {
namespace image {

enum KVFrontEnd : int { kFrontEndProcessor = 0, kFrontEndKeyer = 1, kFrontEndCompositor = 2 };

// How a parameter is passed, and how many numbers it takes in a value list.
enum KVParameterType : int {
  kParameterReal = 0,     // double: 1 number
  kParameterInteger = 1,  // int: 1 whole number
  kParameterRadius = 2,   // unsigned int, in pixels: 1 whole number
  kParameterBool = 3,     // 1 number, 0 or 1
  kParameterChoice = 4,   // an enumeration: 1 whole number, its value
  kParameterColour = 5,   // KVPixel8_RGB: 3 whole numbers red, green, blue, 0..255
  kParameterPoint = 6,    // KVPoint2F: 2 numbers x, y
  kParameterRect = 7,     // KVRect: 4 whole numbers left, top, width, height
  kParameterQuad = 8,     // KVQuad: 8 numbers, the corners top-left, top-right, bottom-left, bottom-right (x, y)
  kParameterLayer = 9     // an image (a compositor's layer): 0 numbers, passed beside the values
};

// What a setter refuses of a parameter, and with which code.
enum KVParameterCheck : int {
  kCheckNone = 0,
  kCheckRange = 1,             // 7 when below minimum or above maximum; NaN passes
  kCheckChannelSelection = 2,  // 10 for the selections 0..2 (compared unsigned, so negatives pass)
  kCheckDirectionPair = 3,     // 4 when this flag and the next are both false
  kCheckLayerMatches = 4       // 1000 unless the layer matches the background in size, order and depth
};

struct KVChoiceInfo {
  int value;
  const char* name;  // lower case, words joined by '-': "colour-burn"
};

struct KVParameterInfo {
  const char* name;  // the setter's parameter name: "saturationLimit"
  KVParameterType type;
  KVParameterCheck check;
  // The range a user is meant to give. With kCheckRange it is the range the
  // setter refuses outside of; otherwise a guide (the stage clamps or ignores
  // what lies beyond).
  double minimum;
  double maximum;
  const double* defaults;  // NumberCount(type) numbers: what an editor starts with
  const char* unit;        // "", "pixels", "degrees", "kelvin", "fraction of the size"
  const KVChoiceInfo* choices;
  unsigned int choiceCount;
  const char* explanation;
};

struct KVSetterInfo {
  KVFrontEnd frontEnd;
  const char* name;   // "SetBrightness", "AddLayer"
  const char* stage;  // the stage class it queues: "BrightnessRenderer"
  const char* explanation;
  const KVParameterInfo* parameters;
  unsigned int parameterCount;
  // The codes a call can return besides 0: the refusals of its checks, in
  // the order they are checked, then 8 (out of memory).
  const int* codes;
  unsigned int codeCount;
  // The stage renders 8-bit BGRA images only: any other order reaches one
  // of its assertions (a host checks the order before it queues).
  bool requiresBGRA;
  // The stage gives the same bytes whatever the thread count, for a
  // destination of the source's size. The others depend on the count by
  // design (per-thread statistics, vector paths taken per share, walks over
  // thread shares): a host that needs the same bytes on every machine fixes
  // the count with KVSystem::SetCPUCoreCount.
  bool sameBytesAtAnyThreadCount;
};

// How many numbers a parameter of this type takes in a value list.
KVIMAGE_EXPORT unsigned int NumberCount(KVParameterType type);

// The catalogue, in front-end order, each front end's setters in the order
// of its class.
KVIMAGE_EXPORT unsigned int SetterCount();
KVIMAGE_EXPORT const KVSetterInfo* SetterAt(unsigned int index);
// The setter of that front end and name, or null.
KVIMAGE_EXPORT const KVSetterInfo* FindSetter(KVFrontEnd frontEnd, const char* name);

// Queues a setter by name. values holds the parameters' numbers one after
// the other (NumberCount of each parameter's type); layers holds the layer
// parameters in order. Returns what the setter returns, or, queueing
// nothing: 4 when no setter of this front end has the name or the counts do
// not match its parameters; 7 when a number does not fit its parameter
// (a whole-number type given a fraction, NaN or a value beyond the type; a
// colour byte beyond 0..255; a flag other than 0 or 1).
KVIMAGE_EXPORT int QueueSetter(KVImageProcessor& processor, const char* name, const double* values,
                               unsigned int valueCount);
KVIMAGE_EXPORT int QueueSetter(KVImageKeyer& keyer, const char* name, const double* values, unsigned int valueCount);
KVIMAGE_EXPORT int QueueSetter(KVImageCompositor& compositor, const char* name, const double* values,
                               unsigned int valueCount, KVAbstractImage* const* layers, unsigned int layerCount);

}  // namespace image
}  // namespace kvo

#endif
