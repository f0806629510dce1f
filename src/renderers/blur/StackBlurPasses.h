#ifndef KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURPASSES_H
#define KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURPASSES_H

// The one stack blur of the engine: a row pass (along the rows) and a column
// pass (down the columns), each a kernel chosen once (ChooseStackBlurKernels)
// and run over a share of lines. The stages, the exported pass procedures, the
// YUV blur and the cast shadow all blur through these two records.
#include <cstddef>
#include <cstdint>

namespace kvo {
namespace image {

// Up to this radius 255 * (radius+1)^2, the largest weighted sum of a window,
// stays below 2^31.
const uint32_t kLargestStackBlurRadius = 2895;

// Which bytes of four-byte pixels a row pass blurs into a byte plane:
// all four (four bytes a pixel), bytes 0 and 1 (two bytes a pixel), or byte 3
// alone (one byte a pixel).
enum StackBlurPlaneKind { kPlaneFourBytes = 4, kPlaneFirstTwoBytes = 2, kPlaneAlphaByte = 1 };

// How the column pass stores what it blurred:
//   kStoreBytes: a four-byte plane's bytes as they are (pixels);
//   kStoreOneByte: one value a pixel into byte `byteIndex` of the target
//     pixel, whose other bytes come from `colour` (the target itself keeps
//     them);
//   kStoreFirstTwoBytes: a two-byte plane into bytes 0 and 1 of the target
//     pixel, whose bytes 2 and 3 are kept;
//   kStoreValues: one 32-bit value a pixel into valueTarget.
enum StackBlurColumnStore { kStoreBytes, kStoreOneByte, kStoreFirstTwoBytes, kStoreValues };

// A row pass over rows of `width` positions.
struct StackBlurRows {
  // Read: four-byte pixels, row y at pixels + y * pixelStride; or, when
  // `values` is set, one 32-bit value a position, row y at values + y * width.
  const unsigned char* pixels;
  size_t pixelStride;
  const int32_t* values;
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  // Written: when valuePlanes holds any plane, the result of byte c of a pixel
  // (of the value, for c = 0) goes to valuePlanes[c], row y at + y * width;
  // otherwise a byte plane of `kind`, row y at plane + y * planeStride.
  unsigned char* plane;
  size_t planeStride;
  StackBlurPlaneKind kind;
  int32_t* valuePlanes[4];
};

// A column pass down columns of `height` rows.
struct StackBlurColumns {
  // Read: a byte plane with as many bytes a pixel as `store` takes (4, 1, 2),
  // row y at plane + y * planeStride; or, when `values` is set, one 32-bit
  // value a pixel, row y at values + y * width.
  const unsigned char* plane;
  size_t planeStride;
  const int32_t* values;
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  // Written as `store` says: target pixels (four bytes, row y at
  // target + y * targetStride, colour alike), or 32-bit values (row y at
  // valueTarget + y * width).
  StackBlurColumnStore store;
  unsigned char* target;
  size_t targetStride;
  const unsigned char* colour;
  size_t colourStride;
  unsigned byteIndex;
  int32_t* valueTarget;
};

// The passes as their callers set them up; every other field is cleared.
// Pixels, target pixels and colour pixels lie `width` pixels a row (but for
// the given strides); 32-bit planes `width` values a row.
// Four-byte pixels into a byte plane of `kind`.
StackBlurRows PixelRowsIntoPlane(const unsigned char* pixels, size_t pixelStride, uint32_t width, uint32_t height,
                                 uint32_t radius, unsigned char* plane, StackBlurPlaneKind kind);
// Byte c of four-byte pixels into planes[c], where there is one.
StackBlurRows PixelRowsIntoValues(const unsigned char* pixels, uint32_t width, uint32_t height, uint32_t radius,
                                  int32_t* const (&planes)[4]);
StackBlurRows ValueRows(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius, int32_t* output);
// A byte plane into target pixels as `store` says (kStoreOneByte: the alpha
// byte over the colour the caller gives).
StackBlurColumns PlaneColumnsIntoPixels(const unsigned char* plane, size_t planeStride, uint32_t width, uint32_t height,
                                        uint32_t radius, StackBlurColumnStore store, unsigned char* target);
StackBlurColumns ValueColumnsIntoByte(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius,
                                      unsigned char* target, unsigned byteIndex, const unsigned char* colour);
StackBlurColumns ValueColumns(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius, int32_t* output);

// A kernel blurs the lines [first, end) of its pass and returns how many it
// did. Both rungs give the same bytes; see StackBlurKernels.h.
typedef uint32_t (*StackBlurRowKernel)(const StackBlurRows& pass, uint32_t firstRow, uint32_t endRow);
typedef uint32_t (*StackBlurColumnKernel)(const StackBlurColumns& pass, uint32_t firstColumn, uint32_t endColumn);

struct StackBlurKernels {
  StackBlurRowKernel rows;
  StackBlurColumnKernel columns;
};

// The stack blur has no documented extensions record: SSE2 is always allowed.
StackBlurKernels ChooseStackBlurKernels();

// A whole pass on the pass's own threads, ShareOfLines of the rows (columns)
// to a thread, joined before it returns.
void RunStackBlurRows(StackBlurRowKernel kernel, const StackBlurRows& pass);
void RunStackBlurColumns(StackBlurColumnKernel kernel, const StackBlurColumns& pass);

// One share of a pass driven by its caller's own records (the exported pass
// procedures, a stage's render thread): perThread lines to a thread, cut at
// the end. The exported procedures have no Setup to choose in: they pass
// the kernel ChooseStackBlurKernels gives at the call.
void RunStackBlurRowShare(StackBlurRowKernel kernel, const StackBlurRows& pass, uint32_t perThread,
                          uint32_t threadIndex);
void RunStackBlurColumnShare(StackBlurColumnKernel kernel, const StackBlurColumns& pass, uint32_t perThread,
                             uint32_t threadIndex);

}  // namespace image
}  // namespace kvo

#endif
