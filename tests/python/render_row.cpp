// The C++ side the Python tests compare with: queues one catalogue setter by
// name through the C++ API and writes the rendered bytes.
//
//   render_row FRONT-END SETTER WIDTH HEIGHT THREADS [NUMBER...] < image [layer] > result
//
// FRONT-END is the catalogue's front-end value; standard input holds the
// source (the background for the compositor), then one layer of the same size
// when the setter takes one. The processor and the keyer write a zero-filled
// destination. Exits 1 with the result code on standard error when a call fails.

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <kvimage/catalogue.h>
#include <kvimage/kvimage.h>

using namespace kvo::image;

int main(int argc, char** argv) {
  if (argc < 6) return 2;
  const int frontEnd = std::atoi(argv[1]);
  const char* name = argv[2];
  const unsigned int width = std::strtoul(argv[3], nullptr, 10), height = std::strtoul(argv[4], nullptr, 10);
  kvo::KVSystem::SetCPUCoreCount(static_cast<unsigned int>(std::atoi(argv[5])));
  std::vector<double> values;
  for (int i = 6; i < argc; ++i) values.push_back(std::strtod(argv[i], nullptr));

  const size_t bytes = static_cast<size_t>(width) * height * 4;
  std::vector<unsigned char> source(bytes), layer(bytes), destination(bytes, 0);
  if (std::fread(source.data(), 1, bytes, stdin) != bytes) return 2;
  const bool hasLayer = std::fread(layer.data(), 1, bytes, stdin) == bytes;
  kvo::KVLookupTables tables;
  KVImage8 in(source.data(), width, height, kPixelOrderBGRA), out(destination.data(), width, height, kPixelOrderBGRA);
  KVImage8 layerImage(layer.data(), width, height, kPixelOrderBGRA);
  KVAbstractImage* layers[] = {&layerImage};
  const auto render = [&](auto&& front, auto... layerArgs) {
    const int code = QueueSetter(front, name, values.data(), static_cast<unsigned int>(values.size()), layerArgs...);
    return code != 0 ? code : front.Render();
  };
  const int code = frontEnd == kFrontEndProcessor ? render(KVImageProcessor(&in, &out, tables, kDownsampleNone))
                   : frontEnd == kFrontEndKeyer   ? render(KVImageKeyer(&in, &out, tables, kDownsampleNone))
                                                  : render(KVImageCompositor(&in, 1.0, tables, kDownsampleNone), layers,
                                                           hasLayer ? 1u : 0u);
  if (code != 0) std::fprintf(stderr, "%s: code %d\n", name, code);
  if (code == 0) std::fwrite((frontEnd == kFrontEndCompositor ? source : destination).data(), 1, bytes, stdout);
  return code == 0 ? 0 : 1;
}
