// One kvimage frei0r plugin. Every plugin file is a copy of this object: a
// copy knows which plugin it is from its own file name
// ("kvimage_brightness.so"), so the plugins come from the catalogue without
// a build step per plugin, and everything else lives once per process in
// the adapter library.
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "Frei0rAdapter.h"

namespace {

// Its address lies in this copy, whichever copies a host loads.
void Anchor() {}

const kvfrei0r::Plugin* Self() {
  static const kvfrei0r::Plugin* const self = [] {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&Anchor), &info) == 0 || info.dli_fname == nullptr) {
      return static_cast<const kvfrei0r::Plugin*>(nullptr);
    }
    std::string name = info.dli_fname;
    name.erase(0, name.find_last_of('/') + 1);
    name.erase(std::min(name.find('.'), name.size()));
    return kvfrei0r::FindPlugin(name.c_str());
  }();
  return self;
}

}  // namespace

extern "C" {

int f0r_init() { return kvfrei0r::Init(Self()); }
void f0r_deinit() {}
void f0r_get_plugin_info(f0r_plugin_info_t* info) { kvfrei0r::GetPluginInfo(Self(), info); }
void f0r_get_param_info(f0r_param_info_t* info, int index) { kvfrei0r::GetParamInfo(Self(), info, index); }
f0r_instance_t f0r_construct(unsigned int width, unsigned int height) {
  return kvfrei0r::Construct(Self(), width, height);
}
void f0r_destruct(f0r_instance_t instance) { kvfrei0r::Destruct(instance); }
void f0r_set_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  kvfrei0r::SetParamValue(instance, param, index);
}
void f0r_get_param_value(f0r_instance_t instance, f0r_param_t param, int index) {
  kvfrei0r::GetParamValue(instance, param, index);
}
void f0r_update(f0r_instance_t instance, double, const uint32_t* in, uint32_t* out) {
  kvfrei0r::Update(instance, in, nullptr, out);
}
void f0r_update2(f0r_instance_t instance, double, const uint32_t* first, const uint32_t* second, const uint32_t*,
                 uint32_t* out) {
  kvfrei0r::Update(instance, first, second, out);
}

}  // extern "C"
