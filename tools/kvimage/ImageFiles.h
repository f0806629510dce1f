// PNG and JPEG files in and out of the engine's BGRA layout.
#ifndef KVIMAGE_TOOLS_IMAGEFILES_H
#define KVIMAGE_TOOLS_IMAGEFILES_H

#include <stdexcept>
#include <string>
#include <vector>

namespace kvimage_cli {

// A packed BGRA image, four bytes a pixel, no row padding: what every stage
// of the engine reads and writes.
struct Image {
  unsigned int width = 0;
  unsigned int height = 0;
  std::vector<unsigned char> bgra;

  Image() = default;
  Image(unsigned int w, unsigned int h) : width(w), height(h), bgra(static_cast<size_t>(w) * h * 4, 0) {}
  unsigned char* Pixel(unsigned int x, unsigned int y) { return &bgra[(static_cast<size_t>(y) * width + x) * 4]; }
  const unsigned char* Pixel(unsigned int x, unsigned int y) const {
    return &bgra[(static_cast<size_t>(y) * width + x) * 4];
  }
};

// A problem with a file: the message names the file and the problem.
class FileError : public std::runtime_error {
 public:
  explicit FileError(const std::string& message) : std::runtime_error(message) {}
};

struct WriteOptions {
  unsigned char matte[3] = {0, 0, 0};  // red, green, blue under a JPEG's transparent pixels
  int jpegQuality = 92;                // 1..100
  int pngCompression = 6;              // zlib level 0..9
};

// Reads a PNG or JPEG file (told apart by their first bytes, not the name).
// PNG alpha is kept; a JPEG reads as opaque. Throws FileError.
Image ReadImage(const std::string& path);

// Writes by the name's extension (.png, .jpg, .jpeg): to a temporary file in
// the same directory, renamed over the target only once complete. A PNG whose
// pixels are all opaque is stored as RGB, otherwise RGBA; a JPEG is the
// image flattened over the matte colour. Throws FileError.
void WriteImage(const std::string& path, const Image& image, const WriteOptions& options = WriteOptions());

// True for the names WriteImage can write.
bool IsWritableImageName(const std::string& path);

// Writes data to path through a temporary file and a rename.
void WriteFileAtomically(const std::string& path, const std::vector<unsigned char>& data);

}  // namespace kvimage_cli

#endif
