// The frei0r plugins loaded as a host loads them (dlopen of the built files)
// and driven through their f0r_* calls: every plugin the catalogue gives
// describes itself, survives hostile values and sizes, and maps its values
// to the engine's arguments as documented (against the engine called
// directly with hand-computed arguments).
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kvimage/kvimage.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "Frei0rAdapter.h"
#include "TestSupport.h"

using namespace kvo::image;

namespace {

struct Loaded {
  void* handle = nullptr;
  int (*init)() = nullptr;
  void (*info)(f0r_plugin_info_t*) = nullptr;
  void (*paramInfo)(f0r_param_info_t*, int) = nullptr;
  f0r_instance_t (*construct)(unsigned int, unsigned int) = nullptr;
  void (*destruct)(f0r_instance_t) = nullptr;
  void (*set)(f0r_instance_t, f0r_param_t, int) = nullptr;
  void (*get)(f0r_instance_t, f0r_param_t, int) = nullptr;
  void (*update)(f0r_instance_t, double, const uint32_t*, uint32_t*) = nullptr;
  void (*update2)(f0r_instance_t, double, const uint32_t*, const uint32_t*, const uint32_t*, uint32_t*) = nullptr;
};

template <class F>
void Bind(void* handle, const char* name, F& to) {
  to = reinterpret_cast<F>(dlsym(handle, name));
}

Loaded Load(const std::string& name) {
  Loaded p;
  p.handle = dlopen((std::string(KVIMAGE_FREI0R_DIR) + "/" + name + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
  if (p.handle == nullptr) return p;
  Bind(p.handle, "f0r_init", p.init);
  Bind(p.handle, "f0r_get_plugin_info", p.info);
  Bind(p.handle, "f0r_get_param_info", p.paramInfo);
  Bind(p.handle, "f0r_construct", p.construct);
  Bind(p.handle, "f0r_destruct", p.destruct);
  Bind(p.handle, "f0r_set_param_value", p.set);
  Bind(p.handle, "f0r_get_param_value", p.get);
  Bind(p.handle, "f0r_update", p.update);
  Bind(p.handle, "f0r_update2", p.update2);
  return p;
}

std::vector<std::string> PluginNames() {
  std::vector<std::string> names;
  for (unsigned int i = 0; i < kvfrei0r::PluginCount(); ++i) names.push_back(kvfrei0r::PluginName(i));
  return names;
}

bool IsMixer(const std::string& name) { return name.compare(0, 14, "kvimage_blend_") == 0; }

// One frame through the plugin (the second input for a mixer).
std::vector<uint32_t> Through(const Loaded& p, f0r_instance_t instance, const std::vector<uint32_t>& first,
                          const std::vector<uint32_t>& second, bool mixer) {
  std::vector<uint32_t> out(first.size(), 0xdeadbeefu);
  if (mixer) {
    p.update2(instance, 0.0, first.data(), second.data(), nullptr, out.data());
  } else {
    p.update(instance, 0.0, first.data(), out.data());
  }
  return out;
}

std::vector<uint32_t> Frame(unsigned int width, unsigned int height, uint32_t seed) {
  const std::vector<unsigned char> bytes = kvtest::PatternBytes(static_cast<size_t>(width) * height * 4, seed);
  std::vector<uint32_t> frame(static_cast<size_t>(width) * height);
  if (!frame.empty()) std::memcpy(frame.data(), bytes.data(), bytes.size());
  return frame;
}

TEST(Frei0rPlugins, EveryPluginLoadsAndDescribesItself) {
  const std::vector<std::string> names = PluginNames();
  ASSERT_GT(names.size(), 30u);
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    const Loaded p = Load(name);
    ASSERT_NE(p.handle, nullptr) << dlerror();
    ASSERT_TRUE(p.init && p.info && p.paramInfo && p.construct && p.destruct && p.set && p.get && p.update && p.update2);
    EXPECT_EQ(p.init(), 1);
    f0r_plugin_info_t info;
    p.info(&info);
    EXPECT_EQ(info.name, name);
    EXPECT_EQ(info.color_model, F0R_COLOR_MODEL_BGRA8888);
    EXPECT_EQ(info.frei0r_version, FREI0R_MAJOR_VERSION);
    EXPECT_EQ(info.plugin_type, IsMixer(name) ? F0R_PLUGIN_TYPE_MIXER2 : F0R_PLUGIN_TYPE_FILTER);
    std::set<std::string> parameterNames;
    for (int i = 0; i < info.num_params; ++i) {
      f0r_param_info_t param = {nullptr, -1, nullptr};
      p.paramInfo(&param, i);
      ASSERT_NE(param.name, nullptr);
      EXPECT_TRUE(parameterNames.insert(param.name).second) << "repeated " << param.name;
      EXPECT_EQ(std::strspn(param.name, "abcdefghijklmnopqrstuvwxyz_"), std::strlen(param.name)) << param.name;
      EXPECT_GE(param.type, F0R_PARAM_BOOL);
      EXPECT_LE(param.type, F0R_PARAM_STRING);
    }
  }
}

// NaN, huge and negative values, unknown and missing strings at 0x0, 1x1 and
// odd sizes: every value read back lies in 0..1 (NaN reads back the default,
// an unknown string the value before) and every frame is written. Three
// threads (more than the pixels of 1x1) keep the many renders quick under
// the sanitizers.
TEST(Frei0rPlugins, HostileValuesAndSizesAreClampedNeverFatal) {
  const kvtest::ScopedCoreCount threads(3);
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double hostile[] = {nan, 1e308, -1e308};
  const struct { unsigned int width, height; } sizes[] = {{0, 0}, {1, 1}, {7, 3}};
  for (const std::string& name : PluginNames()) {
    const Loaded p = Load(name);
    ASSERT_NE(p.handle, nullptr) << dlerror();
    f0r_plugin_info_t info;
    p.info(&info);
    for (const auto& size : sizes) {
      for (double value : hostile) {
        SCOPED_TRACE(name + " " + std::to_string(size.width) + "x" + std::to_string(size.height) + " value " +
                     std::to_string(value));
        f0r_instance_t instance = p.construct(size.width, size.height);
        ASSERT_NE(instance, nullptr);
        for (int i = 0; i < info.num_params; ++i) {
          f0r_param_info_t param;
          p.paramInfo(&param, i);
          double before[3] = {0, 0, 0};
          const char* text = nullptr;
          p.get(instance, param.type == F0R_PARAM_STRING ? static_cast<void*>(&text) : before, i);
          if (param.type == F0R_PARAM_STRING) {
            const char* unknown = "no-such-choice";
            const char* missing = nullptr;
            p.set(instance, &unknown, i);
            p.set(instance, &missing, i);
            const char* after = nullptr;
            p.get(instance, &after, i);
            EXPECT_STREQ(after, text);
            continue;
          }
          if (param.type == F0R_PARAM_COLOR) {
            f0r_param_color_t colour = {static_cast<float>(value), 0.5f, static_cast<float>(-value)};
            p.set(instance, &colour, i);
            p.get(instance, &colour, i);
            EXPECT_TRUE(colour.r >= 0 && colour.r <= 1 && colour.b >= 0 && colour.b <= 1);
            continue;
          }
          double numbers[2] = {value, value};  // a position takes both
          p.set(instance, numbers, i);
          p.get(instance, numbers, i);
          EXPECT_TRUE(numbers[0] >= 0 && numbers[0] <= 1) << param.name << " reads " << numbers[0];
          if (std::isnan(value)) {
            EXPECT_EQ(numbers[0], before[0]) << param.name;
          }
        }
        const std::vector<uint32_t> in = Frame(size.width, size.height, 7), layer = Frame(size.width, size.height, 8);
        const std::vector<uint32_t> out = Through(p, instance, in, layer, IsMixer(name));
        for (uint32_t pixel : out) EXPECT_NE(pixel, 0xdeadbeefu);
        p.destruct(instance);
      }
    }
  }
}

// What the engine gives for the same frame, queued directly.
std::vector<uint32_t> EngineFrame(const std::vector<uint32_t>& in, const std::vector<uint32_t>& layerIn,
                                  unsigned int width, unsigned int height,
                                  const std::function<int(KVImageProcessor&, KVImageCompositor&, KVImage8*)>& queue) {
  std::vector<uint32_t> source = in, destination = in, layerPixels = layerIn;
  KVImage8 sourceImage(reinterpret_cast<unsigned char*>(source.data()), width, height, kPixelOrderBGRA);
  KVImage8 destinationImage(reinterpret_cast<unsigned char*>(destination.data()), width, height, kPixelOrderBGRA);
  KVImage8 layer(reinterpret_cast<unsigned char*>(layerPixels.data()), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&sourceImage, &destinationImage, kvtest::SharedTables(), kDownsampleNone);
  KVImageCompositor compositor(&sourceImage, 1.0, kvtest::SharedTables(), kDownsampleNone);
  EXPECT_EQ(queue(processor, compositor, &layer), 0);
  if (compositor.RenderQueueCount() != 0) {
    EXPECT_EQ(compositor.Render(), 0);
    return source;
  }
  EXPECT_EQ(processor.Render(), 0);
  return destination;
}

// The documented mappings on a 61x35 frame, against hand-computed engine
// arguments. Each plugin renders twice with a value changed between the
// frames: the second frame must show the new value alone (the queue is
// rebuilt, not appended to).
TEST(Frei0rPlugins, ValuesMapToTheEngineArguments) {
  const unsigned int width = 61, height = 35;
  typedef std::function<int(KVImageProcessor&, KVImageCompositor&, KVImage8*)> Queue;
  struct Setting {
    int index;
    std::vector<double> numbers;  // a double, a position, or a colour
    const char* text;             // a choice
  };
  const struct Case {
    const char* plugin;
    std::vector<Setting> first, second;
    Queue expectFirst, expectSecond;
  } cases[] = {
      // brightness: 0..1 spans -1..1; channels by name.
      {"kvimage_brightness", {{0, {0.75}, nullptr}, {1, {}, "all"}}, {{0, {0.25}, nullptr}},
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) { return p.SetBrightness(0.5, kChannelsAll); },
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) { return p.SetBrightness(-0.5, kChannelsAll); }},
      // radius: a fraction of the width, rounded to whole pixels (3.05 and 2.44).
      {"kvimage_stack_blur", {{0, {0.05}, nullptr}, {2, {0}, nullptr}}, {{0, {0.04}, nullptr}},
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) { return p.SetStackBlur(3, true, false, kChannelsAll); },
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) { return p.SetStackBlur(2, true, false, kChannelsAll); }},
      // colour to bytes; the rectangle's corners as fractions: left round(15.25), top round(17.5),
      // right round(45.75), bottom 35.
      {"kvimage_vignette",
       {{0, {1.0, 0.5, 0.0}, nullptr}, {1, {0.75}, nullptr}, {6, {0.25, 0.5}, nullptr}, {7, {0.75, 1.0}, nullptr}},
       {{7, {0.75, 0.75}, nullptr}},
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) {
         return p.SetVignette(KVPixel8_RGB{255, 128, 0}, 0.75, 0.5, 0.5, 0.5, 0,
                              kvo::maths::KVRect(kvo::maths::KVPoint2(15, 18), 31, 17));
       },
       [](KVImageProcessor& p, KVImageCompositor&, KVImage8*) {
         return p.SetVignette(KVPixel8_RGB{255, 128, 0}, 0.75, 0.5, 0.5, 0.5, 0,
                              kvo::maths::KVRect(kvo::maths::KVPoint2(15, 18), 31, 8));
       }},
      // a mixer: the second input laid over the first in the plugin's mode.
      {"kvimage_blend_multiply", {{0, {0.5}, nullptr}}, {{1, {}, "colour-only"}},
       [](KVImageProcessor&, KVImageCompositor& c, KVImage8* layer) {
         return c.AddLayer(layer, 0.5, kBlendMultiply, kCompositeAlpha);
       },
       [](KVImageProcessor&, KVImageCompositor& c, KVImage8* layer) {
         return c.AddLayer(layer, 0.5, kBlendMultiply, kCompositeColorOnly);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.plugin);
    const Loaded p = Load(c.plugin);
    ASSERT_NE(p.handle, nullptr) << dlerror();
    const bool mixer = IsMixer(c.plugin);
    f0r_instance_t instance = p.construct(width, height);
    const auto apply = [&](const std::vector<Setting>& settings) {
      for (const Setting& s : settings) {
        f0r_param_color_t colour = {0, 0, 0};
        if (s.text) {
          p.set(instance, const_cast<char**>(&s.text), s.index);
        } else if (s.numbers.size() == 3) {
          colour = {static_cast<float>(s.numbers[0]), static_cast<float>(s.numbers[1]),
                    static_cast<float>(s.numbers[2])};
          p.set(instance, &colour, s.index);
        } else {
          p.set(instance, const_cast<double*>(s.numbers.data()), s.index);
        }
      }
    };
    const std::vector<uint32_t> in = Frame(width, height, 3), layer = Frame(width, height, 4);
    apply(c.first);
    EXPECT_TRUE(Through(p, instance, in, layer, mixer) == EngineFrame(in, layer, width, height, c.expectFirst));
    apply(c.second);
    EXPECT_TRUE(Through(p, instance, in, layer, mixer) == EngineFrame(in, layer, width, height, c.expectSecond));
    p.destruct(instance);
  }
}

}  // namespace
