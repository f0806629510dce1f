#ifndef KVIMAGE_SRC_SUPPORT_THREADSHARE_H
#define KVIMAGE_SRC_SUPPORT_THREADSHARE_H

#include <cstddef>

#include <kvimage/image.h>

namespace kvo {
namespace image {

// A thread's contiguous run of pixels or bytes, cut so that it never reaches
// past the end of the images it is used on.
struct ShareRun {
  size_t start;
  size_t count;
};

// The documented shares of GetPixelsPerThread / GetBufferSizePerThread, cut
// at limit (in pixels or bytes respectively). A share that starts at or past
// the limit is empty.
ShareRun PixelShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                    size_t limitPixels);
ShareRun ByteShare(unsigned int width, unsigned int height, unsigned char threadIndex, unsigned char threadCount,
                   size_t limitBytes);

// The number of bytes held by both images: the bound for a stage that walks
// the same positions in a source and a destination.
size_t CommonByteSize(const KVAbstractImage* a, const KVAbstractImage* b);

}  // namespace image
}  // namespace kvo

#endif
