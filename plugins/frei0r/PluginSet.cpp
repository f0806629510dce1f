// Writes the plugin files: one copy of the plugin object per catalogue
// plugin, named after it.
//   kvimage_frei0r_set OBJECT DIR          copies OBJECT to DIR/<name>.so
//   kvimage_frei0r_set --move OBJECT DIR   the same, then removes OBJECT
//   kvimage_frei0r_set --list              prints the names
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
    for (unsigned int i = 0; i < kvfrei0r::PluginCount(); ++i) std::printf("%s\n", kvfrei0r::PluginName(i));
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
