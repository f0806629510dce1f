#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_PIXELRUN_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_PIXELRUN_H

// A thread's pixels in the colour stages, the shares they come from, and the
// one signature of a stage's pixel kernels.
#include <cstddef>

#include <kvimage/image.h>

#include "pipeline/StageNeeds.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// A thread's pixels: the same positions in the source and the destination.
struct PixelRun {
  const unsigned char* in;
  unsigned char* out;
  size_t pixels;
  // Store the output through the cache, never streamed: a block of a pass
  // through several stages, which the next stage reads at once and which is
  // too small to pay for the fence that ends a stream.
  bool storeCached = false;

  // The pixels from `first` on.
  PixelRun From(size_t first) const {
    return PixelRun{in + first * kBytesPerPixel, out + first * kBytesPerPixel, pixels - first, storeCached};
  }
};

// A block of a pass through several stages as a run.
inline PixelRun RunOf(const PixelBlock& block) { return PixelRun{block.in, block.out, block.pixels, true}; }

// The plain paths' share: GetBufferSizePerThread with the source's width and
// the destination's height, in pixels, cut where either image ends.
inline ShareRun PlainPixelShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  const ShareRun bytes =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  return ShareRun{bytes.start / kBytesPerPixel, bytes.count / kBytesPerPixel};
}

// The pixels from `start` on, `pixels` of them, in both images.
inline PixelRun RunAt(KVAbstractImage* source, KVAbstractImage* destination, size_t start, size_t pixels) {
  return PixelRun{PixelBytes(source) + start * kBytesPerPixel, PixelBytes(destination) + start * kBytesPerPixel,
                  pixels};
}

// The plain share as a run. False for an empty share.
inline bool PlainPathShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                           unsigned char threadCount, PixelRun& run) {
  const ShareRun share = PlainPixelShare(source, destination, threadIndex, threadCount);
  run = RunAt(source, destination, share.start, share.count);
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
  return RunAt(source, destination, start, end - start);
}

// Whether a thread of a stage that chooses per share takes the vector formula:
// its vector share is a non-zero multiple of 16 pixels. Any other non-empty
// share falls back to the plain path.
inline bool TakesVectorFormula(const ShareRun& vectorShare) {
  return vectorShare.count != 0 && vectorShare.count % 16 == 0;
}

// What a thread that fell back to the plain path writes: its plain share
// minus the pixels of every thread of the pass that takes the vector formula,
// as walk(run) over the runs left, in order. The two splits count different
// totals (source width x destination height against source width x source
// height), so when the images differ in height a plain share can cover
// another thread's vector pixels; leaving those to the vector writer keeps
// every pixel to one thread and one formula. Within either split the shares
// cannot overlap: thread t's starts at t times the split's share size and
// holds at most that many, so the vector shares also come in thread order,
// which the walk below relies on.
template <class Walk>
void ForEachPlainFallbackRun(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount, Walk walk) {
  const ShareRun share = PlainPixelShare(source, destination, threadIndex, threadCount);
  size_t next = share.start;
  const size_t end = share.End();
  // Thread 0's share is the split's share size (none when the source is
  // empty); the first vector share that can reach `next` is its multiple.
  const size_t vectorShareSize = VectorPathShare(source, 0, threadCount).count;
  for (size_t t = vectorShareSize == 0 ? threadCount : next / vectorShareSize; t < threadCount && next < end; ++t) {
    const ShareRun vector = VectorPathShare(source, static_cast<unsigned char>(t), threadCount);
    if (vector.start >= end) break;
    if (!TakesVectorFormula(vector) || vector.End() <= next) continue;
    if (vector.start > next) walk(RunAt(source, destination, next, vector.start - next));
    next = vector.End();
  }
  if (next < end) walk(RunAt(source, destination, next, end - next));
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
