#ifndef KVIMAGE_SRC_SUPPORT_PIXELLAYOUT_H
#define KVIMAGE_SRC_SUPPORT_PIXELLAYOUT_H

#include <kvimage/image.h>

namespace kvo {
namespace image {

// Byte positions within a pixel of channel order 1 (blue, green, red, alpha),
// the order every stage processes.
enum : unsigned int {
  kBlueByte = 0,
  kGreenByte = 1,
  kRedByte = 2,
  kAlphaByte = 3,
  kBytesPerPixel = 4
};

// Stages treat every image as a KVImage8 to reach its bytes.
inline unsigned char* PixelBytes(KVAbstractImage* image) { return static_cast<KVImage8*>(image)->Buffer(); }

// What the Render of a stage that serves 8-bit images only gives for an image
// of another depth: that depth as the result, or 0 with nothing rendered.
enum class OtherDepth { kReturnsItsDepth, kRendersNothing };

// The Render of a stage that serves 8-bit images only: an 8-bit image goes to
// stage.Render8, one of another depth is answered as otherDepth says.
template <class Stage>
int RenderEightBitOnly(Stage& stage, KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                       unsigned char threadCount, OtherDepth otherDepth = OtherDepth::kReturnsItsDepth) {
  const unsigned int depth = source->BitsPerChannel();
  if (depth != 0) return otherDepth == OtherDepth::kReturnsItsDepth ? static_cast<int>(depth) : 0;
  return stage.Render8(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

// In channel order 2 (alpha, red, green, blue) alpha is byte 0.
enum : unsigned int { kAlphaByteARGB = 0 };

}  // namespace image
}  // namespace kvo

#endif
