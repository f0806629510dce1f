#include <unistd.h>

#include <cmath>
#include <cstring>
#include <new>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurPasses.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// ----- shared arithmetic ------------------------------------------------------

namespace {

// Throws std::bad_alloc for a radius whose divide table cannot be built (the
// passes themselves need no table).
void CheckStackBlurRadius(uint32_t radius) {
  if (radius > kLargestStackBlurRadius) throw std::bad_alloc();
  const uint64_t divsum = static_cast<uint64_t>(radius + 1) * (radius + 1);
  const uint64_t tableBytes = 256 * divsum * sizeof(int32_t);
  const long pages = sysconf(_SC_PHYS_PAGES), pageSize = sysconf(_SC_PAGESIZE);
  if (pages > 0 && pageSize > 0 && tableBytes > static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize)) {
    throw std::bad_alloc();
  }
}

}  // namespace

std::vector<int32_t> StackBlurDivideTable(uint32_t radius) {
  CheckStackBlurRadius(radius);
  // divsum = ((2r + 2) >> 1)^2 = (r + 1)^2
  const uint32_t divsum = ((2 * radius + 2) >> 1) * ((2 * radius + 2) >> 1);
  std::vector<int32_t> table(static_cast<size_t>(256) * divsum);
  // Entry i is i / divsum: runs of divsum equal values.
  for (size_t value = 0, i = 0; value < 256; ++value) {
    for (uint32_t k = 0; k < divsum; ++k) table[i++] = static_cast<int32_t>(value);
  }
  return table;
}

void FillStackBlurRowEdgeIndex(int32_t* edgeIndex, uint32_t width, uint32_t radius) {
  for (uint32_t x = 0; x < width; ++x) {
    edgeIndex[x] = static_cast<int32_t>(std::min<uint64_t>(static_cast<uint64_t>(x) + radius + 1, width - 1));
  }
}

void FillStackBlurColumnEdgeIndex(int32_t* edgeIndex, uint32_t width, uint32_t height, uint32_t radius) {
  for (uint32_t y = 0; y < height; ++y) {
    edgeIndex[y] = static_cast<int32_t>(
        std::min<uint64_t>(static_cast<uint64_t>(y) + radius + 1, height - 1) * width);
  }
}

namespace {

// Runs a pass procedure's body on its record; a failure to allocate ends the
// pass quietly (the procedures report nothing).
template <class Record, class Body>
void* RunPass(void* data, Body body) {
  if (data == nullptr) return nullptr;
  try {
    body(*static_cast<const Record*>(data));
  } catch (std::exception&) {
  }
  return nullptr;
}

// The row pass of a record from its pixels into 32-bit planes (byte c of a
// pixel into planes[c], where there is one).
void RowShareIntoPlanes(const StackBlurData& d, int32_t* const (&planes)[4]) {
  RunStackBlurRowShare(ChooseStackBlurKernels().rows,
                       PixelRowsIntoValues(d.pixels, d.width, d.height, d.radius, planes), d.rowsPerThread,
                       d.threadIndex);
}

// The column pass of a record from a 32-bit plane into byte `byteIndex` of
// its pixels, the other bytes from `colour`.
void ColumnShareIntoByte(const StackBlurData& d, const int32_t* plane, unsigned byteIndex,
                         const unsigned char* colour) {
  RunStackBlurColumnShare(ChooseStackBlurKernels().columns,
                          ValueColumnsIntoByte(plane, d.width, d.height, d.radius, d.pixels, byteIndex, colour),
                          d.columnsPerThread, d.threadIndex);
}

}  // namespace

// ----- pass procedures --------------------------------------------------------

void* StackBlurVertRGBAProc(void* data) {
  return RunPass<StackBlurData>(data, [](const StackBlurData& d) {
    int32_t* const planes[4] = {d.plane0, d.plane1, d.plane2, d.plane3};
    RowShareIntoPlanes(d, planes);
  });
}

void* StackBlurVertAlphaProc(void* data) {
  return RunPass<StackBlurData>(data, [](const StackBlurData& d) {
    int32_t* const planes[4] = {nullptr, nullptr, nullptr, d.plane3};
    RowShareIntoPlanes(d, planes);
  });
}

// Each plane in turn into its byte, the pixel's other bytes kept: once all
// four have passed every byte is written.
void* StackBlurHorizRGBAProc(void* data) {
  return RunPass<StackBlurData>(data, [](const StackBlurData& d) {
    const int32_t* planes[4] = {d.plane0, d.plane1, d.plane2, d.plane3};
    for (unsigned c = 0; c < 4; ++c) ColumnShareIntoByte(d, planes[c], c, d.pixels);
  });
}

void* StackBlurHorizAlphaProc(void* data) {
  return RunPass<StackBlurData>(
      data, [](const StackBlurData& d) { ColumnShareIntoByte(d, d.plane3, kAlphaByte, d.sourcePixels); });
}

void* StackBlurVertSingleChannelProc(void* data) {
  return RunPass<StackBlurSingleChannelData>(data, [](const StackBlurSingleChannelData& d) {
    RunStackBlurRowShare(ChooseStackBlurKernels().rows, ValueRows(d.input, d.width, d.height, d.radius, d.output),
                         d.rowsPerThread, d.threadIndex);
  });
}

void* StackBlurHorizSingleChannelProc(void* data) {
  return RunPass<StackBlurSingleChannelData>(data, [](const StackBlurSingleChannelData& d) {
    RunStackBlurColumnShare(ChooseStackBlurKernels().columns,
                            ValueColumns(d.input, d.width, d.height, d.radius, d.output), d.columnsPerThread,
                            d.threadIndex);
  });
}

// ----- the stage --------------------------------------------------------------

StackBlurRenderer::StackBlurRenderer(unsigned int radius_, bool horizontal_, bool vertical_,
                                     KVChannelsToProcess channels_)
    : radius(radius_),
      horizontal(horizontal_),
      vertical(vertical_),
      channels(static_cast<int>(channels_)) {}

// The row pass leaves its results as bytes (every value is 0 .. 255 once
// divided): four a pixel, or the alpha byte alone.
void StackBlurRenderer::Setup(KVAbstractImage* image) {
  const uint32_t w = image->Width(), h = image->Height();
  setupWidth = setupHeight = 0;
  const size_t pixelCount = static_cast<size_t>(w) * h;
  if (pixelCount == 0 || image->BitsPerChannel() != 0 || image->BufferByteSize() < pixelCount * kBytesPerPixel) {
    return;  // nothing to read: Render renders nothing
  }
  const StackBlurPlaneKind kind = AlphaOnly() ? kPlaneAlphaByte : kPlaneFourBytes;
  if (rowPassPlane.size() != pixelCount * kind) {
    std::vector<unsigned char>().swap(rowPassPlane);
    rowPassPlane.resize(pixelCount * kind);
  }
  const StackBlurKernels kernels = ChooseStackBlurKernels();
  columnKernel = kernels.columns;
  RunStackBlurRows(kernels.rows,
                   PixelRowsIntoPlane(PixelBytes(image), static_cast<size_t>(w) * kBytesPerPixel, w, h, radius,
                                      rowPassPlane.data(), kind));
  setupWidth = w;
  setupHeight = h;
}

int StackBlurRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

int StackBlurRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  if (threadCount == 0 || setupWidth == 0) return 0;
  // The plane holds the Setup image: images of another size get nothing.
  const size_t bytes = static_cast<size_t>(setupWidth) * setupHeight * kBytesPerPixel;
  if (destination->Width() != setupWidth || destination->Height() != setupHeight ||
      destination->BufferByteSize() < bytes) {
    return 0;
  }
  if (AlphaOnly() && (source->Width() != setupWidth || source->Height() != setupHeight ||
                      source->BufferByteSize() < bytes)) {
    return 0;
  }
  StackBlurColumns columns = PlaneColumnsIntoPixels(
      rowPassPlane.data(), static_cast<size_t>(setupWidth) * (AlphaOnly() ? kPlaneAlphaByte : kPlaneFourBytes),
      setupWidth, setupHeight, radius, AlphaOnly() ? kStoreOneByte : kStoreBytes, destination->Buffer());
  columns.colour = source->Buffer();
  // The share's size follows the source's width, its end the plane's.
  RunStackBlurColumnShare(columnKernel, columns, LinesPerThread(source->Width(), threadCount), threadIndex);
  return 0;
}

}  // namespace image
}  // namespace kvo
