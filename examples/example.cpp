// Wraps a generated frame, runs a small effects queue through the image
// processor and prints what it did.
#include <kvimage/kvimage.h>

#include <chrono>
#include <cstdio>
#include <vector>

using namespace kvo::image;

int main() {
  const unsigned int width = 1920, height = 1080;
  std::vector<unsigned char> frame(width * height * 4), output(width * height * 4);
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      unsigned char* pixel = &frame[(y * width + x) * 4];
      pixel[0] = static_cast<unsigned char>(x * 255 / width);         // blue
      pixel[1] = static_cast<unsigned char>(y * 255 / height);        // green
      pixel[2] = static_cast<unsigned char>((x + y) * 255 / (width + height));  // red
      pixel[3] = static_cast<unsigned char>(255 - (x ^ y) % 256);      // alpha
    }
  }

  kvo::KVLookupTables tables;
  KVImage8 source(frame.data(), width, height, kPixelOrderBGRA);
  KVImage8 destination(output.data(), width, height, kPixelOrderBGRA);
  KVImageProcessor processor(&source, &destination, tables, kDownsampleNone);

  KVPixel8_RGB ink = {200, 40, 40};
  int code = processor.SetOpacity(0.5);
  if (code == 0) code = processor.SetSilhouette(ink);
  if (code != 0) {
    std::fprintf(stderr, "setting up the queue failed with code %d\n", code);
    return 1;
  }

  const auto started = std::chrono::steady_clock::now();
  code = processor.Render();
  const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  if (code != 0) {
    std::fprintf(stderr, "render failed with code %d\n", code);
    return 1;
  }

  std::printf("kvimage example: %ux%u BGRA frame, %u stages, %u threads, %.2f ms\n", width, height,
              processor.RenderQueueCount(), kvo::KVSystem::GetCPUCoreCount(), ms);
  const unsigned char* in = &frame[(540 * width + 960) * 4];
  const unsigned char* out = &output[(540 * width + 960) * 4];
  std::printf("  centre pixel in  (B,G,R,A) = (%u, %u, %u, %u)\n", in[0], in[1], in[2], in[3]);
  std::printf("  centre pixel out (B,G,R,A) = (%u, %u, %u, %u)  [opacity 0.5, then silhouette in red]\n", out[0],
              out[1], out[2], out[3]);
  return 0;
}
