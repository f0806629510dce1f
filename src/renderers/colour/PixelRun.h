#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_PIXELRUN_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_PIXELRUN_H

// A thread's pixels in the colour stages, the shares they come from, and the
// one signature of a stage's pixel kernels.
#include <cstddef>

#include <kvimage/image.h>

#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// A thread's pixels: the same positions in the source and the destination.
struct PixelRun {
  const unsigned char* in;
  unsigned char* out;
  size_t pixels;

  // The pixels from `first` on.
  PixelRun From(size_t first) const {
    return PixelRun{in + first * kBytesPerPixel, out + first * kBytesPerPixel, pixels - first};
  }
};

// The plain paths' share: GetBufferSizePerThread with the source's width and
// the destination's height. False for an empty share.
inline bool PlainPathShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                           unsigned char threadCount, PixelRun& run) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  run.in = PixelBytes(source) + share.start;
  run.out = PixelBytes(destination) + share.start;
  run.pixels = share.count / kBytesPerPixel;
  return run.pixels != 0;
}

// The vector paths' share: GetPixelsPerThread with the source's width and
// height, cut only at the end of the source's pixels (more threads than
// pixels). A vector path decides on this count; the destination's end cuts
// only what is written (WrittenRun).
inline ShareRun VectorPathShare(KVAbstractImage* source, unsigned char threadIndex, unsigned char threadCount) {
  return PixelShare(source->Width(), source->Height(), threadIndex, threadCount,
                    static_cast<size_t>(source->Width()) * source->Height());
}

// The part of a vector share that both images hold: where it reads and
// writes.
inline PixelRun WrittenRun(KVAbstractImage* source, KVAbstractImage* destination, const ShareRun& share) {
  const size_t limit = CommonByteSize(source, destination) / kBytesPerPixel;
  const size_t start = share.start < limit ? share.start : limit;
  const size_t end = share.End() < limit ? share.End() : limit;
  return PixelRun{PixelBytes(source) + start * kBytesPerPixel, PixelBytes(destination) + start * kBytesPerPixel,
                  end - start};
}

// A colour stage's kernel: one signature for all its forms (plain, SSE2,
// AVX2), returning the pixels it did.
template <class Arguments>
using PixelKernel = size_t (*)(const PixelRun& run, const Arguments& arguments);

// The chosen kernel on a run; the plain kernel finishes what it left.
template <class Arguments>
inline void RunKernel(PixelKernel<Arguments> kernel, PixelKernel<Arguments> plain, const PixelRun& run,
                      const Arguments& arguments) {
  const size_t done = kernel(run, arguments);
  if (done < run.pixels) plain(run.From(done), arguments);
}

}  // namespace image
}  // namespace kvo

#endif
