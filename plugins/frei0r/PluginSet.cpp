// Writes the plugin files: one copy of the plugin object per catalogue
// plugin, named after it.
//   kvimage_frei0r_set OBJECT DIR          copies OBJECT to DIR/<name>.so
//   kvimage_frei0r_set --move OBJECT DIR   the same, then removes OBJECT
//   kvimage_frei0r_set --list              prints each plugin: its name, type
//                                          (filter or mixer2) and parameter names
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Frei0rAdapter.h"

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
    for (unsigned int i = 0; i < kvfrei0r::PluginCount(); ++i) {
      const kvfrei0r::Plugin* plugin = kvfrei0r::FindPlugin(kvfrei0r::PluginName(i));
      f0r_plugin_info_t info;
      kvfrei0r::GetPluginInfo(plugin, &info);
      std::printf("%s %s", info.name, info.plugin_type == F0R_PLUGIN_TYPE_MIXER2 ? "mixer2" : "filter");
      for (int k = 0; k < info.num_params; ++k) {
        f0r_param_info_t param;
        kvfrei0r::GetParamInfo(plugin, &param, k);
        std::printf(" %s", param.name);
      }
      std::printf("\n");
    }
    return 0;
  }
  const bool move = argc == 4 && std::strcmp(argv[1], "--move") == 0;
  if (argc != 3 && !move) {
    std::fprintf(stderr, "usage: %s [--move] OBJECT DIR | --list\n", argv[0]);
    return 2;
  }
  const std::string object = argv[argc - 2], directory = argv[argc - 1];
  std::ifstream in(object, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (bytes.empty()) {
    std::fprintf(stderr, "cannot read %s\n", object.c_str());
    return 1;
  }
  mkdir(directory.c_str(), 0755);
  for (unsigned int i = 0; i < kvfrei0r::PluginCount(); ++i) {
    const std::string path = directory + "/" + kvfrei0r::PluginName(i) + ".so";
    std::remove(path.c_str());  // a host may have the old file mapped
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out || chmod(path.c_str(), 0755) != 0) {
      std::fprintf(stderr, "cannot write %s\n", path.c_str());
      return 1;
    }
  }
  if (move && std::remove(object.c_str()) != 0) return 1;
  return 0;
}
