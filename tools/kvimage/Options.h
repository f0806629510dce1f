// The command line's stage options: one table entry per processor or keyer
// setter, and the chain that runs the parsed stages over an image.
#ifndef KVIMAGE_TOOLS_OPTIONS_H
#define KVIMAGE_TOOLS_OPTIONS_H

#include <kvimage/kvimage.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ImageFiles.h"

namespace kvimage_cli {

// A command line the tool cannot act on (exit status 2).
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

// A non-zero result code from the engine (exit status 2 when a setter refused
// an argument, 1 when a render failed).
class EngineError : public std::runtime_error {
 public:
  EngineError(const std::string& message, int code, bool refusedArgument)
      : std::runtime_error(message), code(code), refusedArgument(refusedArgument) {}
  int code;
  bool refusedArgument;
};

// "code 7 (argument out of range)"
std::string DescribeResultCode(int code);

// The key parameters the keyer options share, whatever their order.
struct KeySettings {
  double balance = 0.5;
  double saturationLimit = 0.2;
  double saturationSoftness = 0.5;
  int spillChannel = -1;                  // -1: the key colour (detected for an automatic key)
  bool spillFactorsGiven = false;         // else -1 on the key channel, 0 elsewhere, reference 1
  double spillFactors[4] = {0, 0, 0, 1};  // red, green, blue, reference
};

// What a stage option queues its stage on, while the chain runs.
struct StageTarget {
  kvo::image::KVImageProcessor* processor = nullptr;
  kvo::image::KVImageKeyer* keyer = nullptr;
  const KeySettings* settings = nullptr;
  kvo::image::KVKeyColor keyColour = kvo::image::kKeyColorAuto;           // of the last --key queued
  kvo::image::KVKeyColor detectedKeyColour = kvo::image::kKeyColorGreen;  // of the chain's input
};

// Queues one stage; returns the setter's result code.
typedef std::function<int(StageTarget&)> StageFunction;

// An option's value split into fields at ':' and ','.
class Fields {
 public:
  Fields(const std::string& option, const std::string& value);
  size_t Count() const { return m_fields.size(); }
  bool Has(size_t index) const { return index < m_fields.size() && !m_fields[index].empty(); }
  // Throws UsageError unless there are between min and max fields.
  void ExpectCount(size_t min, size_t max) const;
  double Number(size_t index) const;
  double NumberOr(size_t index, double otherwise) const { return Has(index) ? Number(index) : otherwise; }
  long Integer(size_t index, long min, long max) const;
  // The index of the field's word in choices (compared without case).
  int Choice(size_t index, const std::vector<const char*>& choices) const;
  int ChoiceOr(size_t index, const std::vector<const char*>& choices, int otherwise) const {
    return Has(index) ? Choice(index, choices) : otherwise;
  }
  // A whole number within the parameter's range.
  long Whole(size_t index, const kvo::image::KVParameterInfo& parameter) const;
  // The value of the parameter's choice named by the field ("color" spelled
  // either way), or otherwise when the field is empty.
  int CatalogueChoice(size_t index, const kvo::image::KVParameterInfo& parameter) const;
  int CatalogueChoiceOr(size_t index, const kvo::image::KVParameterInfo& parameter, int otherwise) const {
    return Has(index) ? CatalogueChoice(index, parameter) : otherwise;
  }
  // h, v or hv: the horizontal and vertical flags of a blur.
  void Directions(size_t index, bool& horizontal, bool& vertical) const;
  [[noreturn]] void Fail(const std::string& problem) const;

 private:
  std::string m_option;
  std::string m_value;
  std::vector<std::string> m_fields;
};

enum class FrontEnd {
  kProcessor,  // a processor setter
  kKeyer,      // a keyer setter
  kEither,     // a setter both have: joins the current run of stages
  kKeySetting  // a key parameter: queues nothing
};

// One option: the form of its value on the command line, and the catalogue
// setter it queues, whose row gives the explanation, ranges and defaults of
// its help. parse checks the value's form and returns the function that
// queues the stage (an empty function for settings); value ranges the engine
// checks are left to the engine, so that its code is what the user sees.
struct OptionEntry {
  const char* name;    // "--brightness"
  const char* value;   // "AMOUNT[:CHANNELS]", or "" for an option without a value
  const char* setter;  // "SetBrightness"
  // The setter's parameters the fields give, for the help; a key setting
  // gives one and is explained by it.
  std::vector<const char*> parameters;
  FrontEnd frontEnd;
  StageFunction (*parse)(const Fields& fields, KeySettings& settings);
};

// The catalogue row of an option's setter, and one of its parameters.
const kvo::image::KVSetterInfo& SetterOf(const OptionEntry& option);
const kvo::image::KVParameterInfo& ParameterOf(kvo::image::KVFrontEnd frontEnd, const char* setter,
                                               const char* parameter);
// What the help says of an option: its setter's explanation, then each
// parameter's range and default from the catalogue.
std::string OptionHelp(const OptionEntry& option);
// The names of a choice parameter's values, in catalogue order.
std::vector<const char*> ChoiceNames(const kvo::image::KVParameterInfo& parameter);
// The blend modes' names, in catalogue order.
std::vector<const char*> BlendModeNames();
const kvo::image::KVParameterInfo& BlendModeParameter();
const std::vector<OptionEntry>& EffectOptions();
const std::vector<OptionEntry>& KeyOptions();

// Looks the name up in the effect and/or key tables ("color" spelled either way).
const OptionEntry* FindStageOption(const std::string& name, bool effects, bool keys);

struct ParsedStage {
  const OptionEntry* entry;
  std::string text;  // "--brightness 0.2", for messages
  StageFunction queue;
};

// The parsed stage options of a command, in order. Consecutive processor
// options share one processor and consecutive keyer options one keyer; the
// image passes through each in turn.
class StageChain {
 public:
  // Parses one option; value is ignored for options without one.
  void Add(const OptionEntry& entry, const std::string& value);
  bool Empty() const { return m_stages.empty(); }
  bool HasKeyColourStage() const;
  // Queues --key auto in front of the others.
  void PrependAutomaticKey();
  void SetDownsample(kvo::image::KVDownsampleFactor factor) { m_factor = factor; }

  // Queues every stage on a 1x1 image without rendering: an argument the
  // engine refuses throws EngineError before any file is touched.
  void Validate(kvo::KVLookupTables& tables) const;
  // Runs the chain: the output starts as a copy of the input (so an empty
  // chain copies). Throws EngineError.
  Image Run(const Image& input, kvo::KVLookupTables& tables) const;

 private:
  std::vector<ParsedStage> m_stages;
  KeySettings m_settings;
  kvo::image::KVDownsampleFactor m_factor = kvo::image::kDownsampleNone;
};

// Composites layer over background in place (over-composite, normal mode):
// throws EngineError with the engine's code when the sizes differ.
void CompositeOver(Image& background, const Image& layer, kvo::KVLookupTables& tables, const std::string& what);

}  // namespace kvimage_cli

#endif
