// The frei0r adapter: the video plugins the stage catalogue gives, and the
// frei0r calls for them. Every plugin file is a copy of one small object
// (Plugin.cpp) that finds its entry here by its own file name and forwards
// each f0r_* call; this library holds everything else once per process.
#ifndef KVIMAGE_PLUGINS_FREI0R_ADAPTER_H
#define KVIMAGE_PLUGINS_FREI0R_ADAPTER_H

#include <stdint.h>

extern "C" {
#include <frei0r.h>
}

#define KVIMAGE_FREI0R_API __attribute__((visibility("default")))

namespace kvfrei0r {

struct Plugin;

// The plugins, in catalogue order: the processor effects, the keyer chain,
// then one mixer per blend mode. A plugin's file is its name plus ".so".
KVIMAGE_FREI0R_API unsigned int PluginCount();
KVIMAGE_FREI0R_API const char* PluginName(unsigned int index);
// The plugin of that name ("kvimage_brightness"), or null.
KVIMAGE_FREI0R_API const Plugin* FindPlugin(const char* name);

// The f0r_* calls. A null plugin (a file whose name is no plugin's) fails
// f0r_init, describes itself with no parameters and builds no instance.
KVIMAGE_FREI0R_API int Init(const Plugin* plugin);
KVIMAGE_FREI0R_API void GetPluginInfo(const Plugin* plugin, f0r_plugin_info_t* info);
KVIMAGE_FREI0R_API void GetParamInfo(const Plugin* plugin, f0r_param_info_t* info, int index);
KVIMAGE_FREI0R_API f0r_instance_t Construct(const Plugin* plugin, unsigned int width, unsigned int height);
KVIMAGE_FREI0R_API void Destruct(f0r_instance_t instance);
KVIMAGE_FREI0R_API void SetParamValue(f0r_instance_t instance, f0r_param_t param, int index);
KVIMAGE_FREI0R_API void GetParamValue(f0r_instance_t instance, f0r_param_t param, int index);
KVIMAGE_FREI0R_API void Update(f0r_instance_t instance, const uint32_t* first, const uint32_t* second,
                               uint32_t* out);

}  // namespace kvfrei0r

#endif
