// The frei0r plugins loaded as a host loads them (dlopen of the built files)
// and driven through their f0r_* calls: every plugin the catalogue gives
// describes itself and survives hostile values and sizes, and values map to
// the engine's arguments as documented (against the engine queued by name
// with hand-computed arguments).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kvimage/kvimage.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "Frei0rAdapter.h"
#include "TestSupport.h"

using namespace kvo::image;

namespace {

// The f0r_* calls of a plugin file loaded as a host loads it (all null when
// it does not load).
struct Loaded {
  void* handle;
#define KVTEST_F0R_CALL(call) \
  decltype(&f0r_##call) call = reinterpret_cast<decltype(&f0r_##call)>(handle ? dlsym(handle, "f0r_" #call) : nullptr)
  KVTEST_F0R_CALL(init);
  KVTEST_F0R_CALL(get_plugin_info);
  KVTEST_F0R_CALL(get_param_info);
  KVTEST_F0R_CALL(construct);
  KVTEST_F0R_CALL(destruct);
  KVTEST_F0R_CALL(set_param_value);
  KVTEST_F0R_CALL(get_param_value);
  KVTEST_F0R_CALL(update);
  KVTEST_F0R_CALL(update2);
#undef KVTEST_F0R_CALL
};

Loaded Load(const std::string& name) {
  return {dlopen((std::string(KVIMAGE_FREI0R_DIR) + "/" + name + ".so").c_str(), RTLD_NOW | RTLD_LOCAL)};
}

bool IsMixer(const std::string& name) { return name.compare(0, 14, "kvimage_blend_") == 0; }

// One frame through the plugin: the pattern kvtest::Front starts from, and
// its layer as a mixer's second input.
std::vector<uint32_t> Through(const Loaded& p, f0r_instance_t instance, unsigned int width, unsigned int height,
                              bool mixer) {
  const size_t pixels = static_cast<size_t>(width) * height;
  const auto in = kvtest::PatternBytes(pixels * 4, 8), layer = kvtest::PatternBytes(pixels * 4, 4);
  const auto* first = reinterpret_cast<const uint32_t*>(in.data());
  std::vector<uint32_t> out(pixels, 0xdeadbeefu);
  if (mixer) {
    p.update2(instance, 0.0, first, reinterpret_cast<const uint32_t*>(layer.data()), nullptr, out.data());
  } else {
    p.update(instance, 0.0, first, out.data());
  }
  return out;
}

// NaN, huge and negative values, unknown and missing strings at 0x0, 1x1 and
// odd sizes: every value read back lies in 0..1 (NaN reads back the default,
// an unknown string the value before) and every frame is written. Three
// threads (more than the pixels of 1x1) keep the many renders quick under
// the sanitizers.
TEST(Frei0rPlugins, EveryPluginDescribesItselfAndClampsHostileValues) {
  const kvtest::ScopedCoreCount threads(3);
  const double hostile[] = {std::numeric_limits<double>::quiet_NaN(), 1e308, -1e308};
  const struct { unsigned int width, height; } sizes[] = {{0, 0}, {1, 1}, {7, 3}};
  ASSERT_GT(kvfrei0r::PluginCount(), 30u);
  for (unsigned int n = 0; n < kvfrei0r::PluginCount(); ++n) {
    const std::string name = kvfrei0r::PluginName(n);
    SCOPED_TRACE(name);
    const Loaded p = Load(name);
    ASSERT_TRUE(p.handle && p.init && p.get_plugin_info && p.get_param_info && p.construct && p.destruct &&
                p.set_param_value && p.get_param_value && p.update && p.update2)
        << dlerror();
    EXPECT_EQ(p.init(), 1);
    f0r_plugin_info_t info;
    p.get_plugin_info(&info);
    EXPECT_EQ(info.name, name);
    EXPECT_EQ(info.color_model, F0R_COLOR_MODEL_BGRA8888);
    EXPECT_EQ(info.frei0r_version, FREI0R_MAJOR_VERSION);
    EXPECT_EQ(info.plugin_type, IsMixer(name) ? F0R_PLUGIN_TYPE_MIXER2 : F0R_PLUGIN_TYPE_FILTER);
    std::vector<f0r_param_info_t> params(info.num_params);
    std::set<std::string> parameterNames;
    for (int i = 0; i < info.num_params; ++i) {
      p.get_param_info(&params[i], i);
      const char* parameter = params[i].name;
      ASSERT_NE(parameter, nullptr);
      EXPECT_TRUE(parameterNames.insert(parameter).second) << "repeated " << parameter;
      EXPECT_EQ(std::strspn(parameter, "abcdefghijklmnopqrstuvwxyz_"), std::strlen(parameter)) << parameter;
      EXPECT_TRUE(params[i].type >= F0R_PARAM_BOOL && params[i].type <= F0R_PARAM_STRING) << parameter;
    }
    for (const auto& size : sizes) {
      for (double value : hostile) {
        SCOPED_TRACE(::testing::Message() << size.width << "x" << size.height << " value " << value);
        f0r_instance_t instance = p.construct(size.width, size.height);
        ASSERT_NE(instance, nullptr);
        for (int i = 0; i < info.num_params; ++i) {
          if (params[i].type == F0R_PARAM_STRING) {
            const char *before = nullptr, *unknown = "no-such-choice", *missing = nullptr, *after = nullptr;
            p.get_param_value(instance, &before, i);
            p.set_param_value(instance, &unknown, i);
            p.set_param_value(instance, &missing, i);
            p.get_param_value(instance, &after, i);
            EXPECT_STREQ(after, before);
          } else if (params[i].type == F0R_PARAM_COLOR) {
            f0r_param_color_t colour = {static_cast<float>(value), 0.5f, static_cast<float>(-value)};
            p.set_param_value(instance, &colour, i);
            p.get_param_value(instance, &colour, i);
            EXPECT_TRUE(colour.r >= 0 && colour.r <= 1 && colour.b >= 0 && colour.b <= 1);
          } else {
            double before[2] = {0, 0}, numbers[2] = {value, value};  // a position takes both
            p.get_param_value(instance, before, i);
            p.set_param_value(instance, numbers, i);
            p.get_param_value(instance, numbers, i);
            EXPECT_TRUE(numbers[0] >= 0 && numbers[0] <= 1 && (!std::isnan(value) || numbers[0] == before[0]))
                << params[i].name << " reads " << numbers[0];
          }
        }
        const std::vector<uint32_t> out = Through(p, instance, size.width, size.height, IsMixer(name));
        EXPECT_EQ(0, std::count(out.begin(), out.end(), 0xdeadbeefu));
        p.destruct(instance);
      }
    }
  }
}

// The documented mappings on a 61x35 frame, against the engine's setter
// queued by name with hand-computed arguments. Each plugin renders twice with
// a value changed between the frames: the second frame must show the new
// value alone (the queue is rebuilt, not appended to).
TEST(Frei0rPlugins, ValuesMapToTheEngineArguments) {
  const unsigned int width = 61, height = 35;
  struct Setting {
    int index;
    std::vector<double> numbers;  // a double, a position, or a colour
    const char* text = nullptr;   // a choice
  };
  const struct {
    const char* plugin;
    std::vector<Setting> first, second;
    const char* setter;
    std::vector<double> expectFirst, expectSecond;
  } cases[] = {
      // brightness: 0..1 spans -1..1; channels by name.
      {"kvimage_brightness", {{0, {0.75}}, {1, {}, "all"}}, {{0, {0.25}}}, "SetBrightness", {0.5, kChannelsAll},
       {-0.5, kChannelsAll}},
      // radius: a fraction of the width, rounded to whole pixels (3.05 and 2.44).
      {"kvimage_stack_blur", {{0, {0.05}}, {2, {0}}}, {{0, {0.04}}}, "SetStackBlur", {3, 1, 0, kChannelsAll},
       {2, 1, 0, kChannelsAll}},
      // colour to bytes; the rectangle's corners as fractions: left round(15.25),
      // top round(17.5), right round(45.75), bottom 35, then round(26.25).
      {"kvimage_vignette", {{0, {1.0, 0.5, 0.0}}, {1, {0.75}}, {6, {0.25, 0.5}}, {7, {0.75, 1.0}}}, {{7, {0.75, 0.75}}},
       "SetVignette", {255, 128, 0, 0.75, 0.5, 0.5, 0.5, 0, 15, 18, 31, 17},
       {255, 128, 0, 0.75, 0.5, 0.5, 0.5, 0, 15, 18, 31, 8}},
      // a mixer: the second input laid over the first in the plugin's mode.
      {"kvimage_blend_multiply", {{0, {0.5}}}, {{1, {}, "colour-only"}}, "AddLayer",
       {0.5, kBlendMultiply, kCompositeAlpha}, {0.5, kBlendMultiply, kCompositeColorOnly}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plugin);
    const Loaded p = Load(c.plugin);
    ASSERT_NE(p.handle, nullptr) << dlerror();
    const bool mixer = IsMixer(c.plugin);
    f0r_instance_t instance = p.construct(width, height);
    for (const auto& [settings, expected] : {std::make_pair(&c.first, &c.expectFirst),
                                             std::make_pair(&c.second, &c.expectSecond)}) {
      for (const Setting& s : *settings) {
        std::vector<float> colour(s.numbers.begin(), s.numbers.end());  // f0r_param_color_t: three floats
        p.set_param_value(instance,
                          s.text                    ? static_cast<void*>(const_cast<char**>(&s.text))
                          : s.numbers.size() == 3 ? static_cast<void*>(colour.data())
                                                  : const_cast<double*>(s.numbers.data()),
                          s.index);
      }
      kvtest::Front engine(mixer ? kFrontEndCompositor : kFrontEndProcessor, width, height);
      ASSERT_EQ(0, engine.Queue(c.setter, *expected));
      const std::vector<unsigned char> bytes = engine.Render();
      EXPECT_EQ(0, std::memcmp(Through(p, instance, width, height, mixer).data(), bytes.data(), bytes.size()));
    }
    p.destruct(instance);
  }
}

}  // namespace
