#include "renderers/blur/StackBlurPasses.h"

#include <algorithm>

#include "renderers/blur/StackBlurKernels.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

template <class Pass>
Pass PassOf(uint32_t width, uint32_t height, uint32_t radius) {
  Pass pass = Pass();
  pass.width = width;
  pass.height = height;
  pass.radius = radius;
  return pass;
}

}  // namespace

StackBlurRows PixelRowsIntoPlane(const unsigned char* pixels, size_t pixelStride, uint32_t width, uint32_t height,
                                 uint32_t radius, unsigned char* plane, StackBlurPlaneKind kind) {
  StackBlurRows pass = PassOf<StackBlurRows>(width, height, radius);
  pass.pixels = pixels;
  pass.pixelStride = pixelStride;
  pass.plane = plane;
  pass.planeStride = static_cast<size_t>(width) * kind;
  pass.kind = kind;
  return pass;
}

StackBlurRows PixelRowsIntoValues(const unsigned char* pixels, uint32_t width, uint32_t height, uint32_t radius,
                                  int32_t* const (&planes)[4]) {
  StackBlurRows pass = PassOf<StackBlurRows>(width, height, radius);
  pass.pixels = pixels;
  pass.pixelStride = static_cast<size_t>(width) * kBytesPerPixel;
  std::copy(planes, planes + 4, pass.valuePlanes);
  return pass;
}

StackBlurRows ValueRows(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius, int32_t* output) {
  StackBlurRows pass = PassOf<StackBlurRows>(width, height, radius);
  pass.values = values;
  pass.valuePlanes[0] = output;
  return pass;
}

StackBlurColumns PlaneColumnsIntoPixels(const unsigned char* plane, size_t planeStride, uint32_t width, uint32_t height,
                                        uint32_t radius, StackBlurColumnStore store, unsigned char* target) {
  StackBlurColumns pass = PassOf<StackBlurColumns>(width, height, radius);
  pass.plane = plane;
  pass.planeStride = planeStride;
  pass.store = store;
  pass.target = target;
  pass.targetStride = static_cast<size_t>(width) * kBytesPerPixel;
  pass.colourStride = pass.targetStride;
  pass.byteIndex = kAlphaByte;
  return pass;
}

StackBlurColumns ValueColumnsIntoByte(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius,
                                      unsigned char* target, unsigned byteIndex, const unsigned char* colour) {
  StackBlurColumns pass = PlaneColumnsIntoPixels(nullptr, 0, width, height, radius, kStoreOneByte, target);
  pass.values = values;
  pass.byteIndex = byteIndex;
  pass.colour = colour;
  return pass;
}

StackBlurColumns ValueColumns(const int32_t* values, uint32_t width, uint32_t height, uint32_t radius,
                              int32_t* output) {
  StackBlurColumns pass = PassOf<StackBlurColumns>(width, height, radius);
  pass.values = values;
  pass.store = kStoreValues;
  pass.valueTarget = output;
  return pass;
}

StackBlurKernels ChooseStackBlurKernels() {
  StackBlurKernels kernels;
  kernels.rows =
      ChooseKernel(KernelRungs<StackBlurRowKernel>{StackBlurRows_Plain, StackBlurRows_SSE2, nullptr, nullptr});
  kernels.columns =
      ChooseKernel(KernelRungs<StackBlurColumnKernel>{StackBlurColumns_Plain, StackBlurColumns_SSE2, nullptr, nullptr});
  return kernels;
}

void RunStackBlurRows(StackBlurRowKernel kernel, const StackBlurRows& pass) {
  RunParallel([&](unsigned int threadIndex, unsigned int threadCount) {
    const ShareRun rows = ShareOfLines(pass.height, threadIndex, threadCount);
    kernel(pass, static_cast<uint32_t>(rows.start), static_cast<uint32_t>(rows.End()));
    return 0;
  });
}

void RunStackBlurColumns(StackBlurColumnKernel kernel, const StackBlurColumns& pass) {
  RunParallel([&](unsigned int threadIndex, unsigned int threadCount) {
    const ShareRun columns = ShareOfLines(pass.width, threadIndex, threadCount);
    kernel(pass, static_cast<uint32_t>(columns.start), static_cast<uint32_t>(columns.End()));
    return 0;
  });
}

void RunStackBlurRowShare(StackBlurRowKernel kernel, const StackBlurRows& pass, uint32_t perThread,
                          uint32_t threadIndex) {
  const ShareRun rows = ShareOfLinesSized(pass.height, perThread, threadIndex);
  kernel(pass, static_cast<uint32_t>(rows.start), static_cast<uint32_t>(rows.End()));
}

void RunStackBlurColumnShare(StackBlurColumnKernel kernel, const StackBlurColumns& pass, uint32_t perThread,
                             uint32_t threadIndex) {
  const ShareRun columns = ShareOfLinesSized(pass.width, perThread, threadIndex);
  kernel(pass, static_cast<uint32_t>(columns.start), static_cast<uint32_t>(columns.End()));
}

}  // namespace image
}  // namespace kvo
