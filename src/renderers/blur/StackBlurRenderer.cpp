#include <unistd.h>

#include <cmath>
#include <cstring>
#include <new>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurCore.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/Threads.h"

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

// Runs a pass body; a failure to allocate the window stack ends the pass
// quietly (the procedures report nothing).
template <class Body>
void* RunPass(void* data, Body body) {
  if (data == nullptr) return nullptr;
  try {
    body(*static_cast<StackBlurData*>(data));
  } catch (std::exception&) {
  }
  return nullptr;
}

}  // namespace

// ----- pass procedures --------------------------------------------------------

void* StackBlurVertRGBAProc(void* data) {
  return RunPass(data, [](const StackBlurData& d) {
    const unsigned char* pixels = d.pixels;
    int32_t* planes[4] = {d.plane0, d.plane1, d.plane2, d.plane3};
    RowPass<4>(
        d,
        [&](size_t pixel, uint32_t* values) {
          const unsigned char* p = pixels + pixel * kBytesPerPixel;
          values[0] = p[0];
          values[1] = p[1];
          values[2] = p[2];
          values[3] = p[3];
        },
        [&](size_t pixel, const uint32_t* quotients) {
          for (unsigned c = 0; c < 4; ++c) planes[c][pixel] = static_cast<int32_t>(quotients[c]);
        });
  });
}

void* StackBlurVertAlphaProc(void* data) {
  return RunPass(data, [](const StackBlurData& d) {
    const unsigned char* pixels = d.pixels;
    int32_t* plane3 = d.plane3;
    RowPass<1>(
        d, [&](size_t pixel, uint32_t* values) { values[0] = pixels[pixel * kBytesPerPixel + kAlphaByte]; },
        [&](size_t pixel, const uint32_t* quotients) { plane3[pixel] = static_cast<int32_t>(quotients[0]); });
  });
}

void* StackBlurHorizRGBAProc(void* data) {
  return RunPass(data, [](const StackBlurData& d) {
    unsigned char* pixels = d.pixels;
    const int32_t* planes[4] = {d.plane0, d.plane1, d.plane2, d.plane3};
    ColumnPass<4>(
        d,
        [&](size_t pixel, uint32_t* values) {
          for (unsigned c = 0; c < 4; ++c) values[c] = static_cast<uint32_t>(planes[c][pixel]);
        },
        [&](size_t pixel, const uint32_t (*results)[4], unsigned count) {
          unsigned char bytes[kStackBlurLinesPerBlock * kBytesPerPixel];
          for (unsigned l = 0; l < count; ++l) {
            for (unsigned c = 0; c < 4; ++c) bytes[l * kBytesPerPixel + c] = static_cast<unsigned char>(results[l][c]);
          }
          std::memcpy(pixels + pixel * kBytesPerPixel, bytes, count * kBytesPerPixel);
        });
  });
}

void* StackBlurHorizAlphaProc(void* data) {
  return RunPass(data, [](const StackBlurData& d) {
    unsigned char* pixels = d.pixels;
    const unsigned char* source = d.sourcePixels;
    const int32_t* plane3 = d.plane3;
    ColumnPass<1>(
        d, [&](size_t pixel, uint32_t* values) { values[0] = static_cast<uint32_t>(plane3[pixel]); },
        [&](size_t pixel, const uint32_t (*results)[1], unsigned count) {
          unsigned char bytes[kStackBlurLinesPerBlock * kBytesPerPixel];
          std::memcpy(bytes, source + pixel * kBytesPerPixel, count * kBytesPerPixel);
          for (unsigned l = 0; l < count; ++l) {
            bytes[l * kBytesPerPixel + kAlphaByte] = static_cast<unsigned char>(results[l][0]);
          }
          std::memcpy(pixels + pixel * kBytesPerPixel, bytes, count * kBytesPerPixel);
        });
  });
}

namespace {

StackBlurData SingleChannelAsPassData(const StackBlurSingleChannelData& single) {
  StackBlurData data = {};
  data.threadIndex = single.threadIndex;
  data.rowsPerThread = single.rowsPerThread;
  data.columnsPerThread = single.columnsPerThread;
  data.width = single.width;
  data.height = single.height;
  data.radius = single.radius;
  data.edgeIndex = single.edgeIndex;
  data.divideTable = single.divideTable;
  return data;
}

}  // namespace

void* StackBlurVertSingleChannelProc(void* data) {
  if (data == nullptr) return nullptr;
  const StackBlurSingleChannelData& single = *static_cast<StackBlurSingleChannelData*>(data);
  StackBlurData pass = SingleChannelAsPassData(single);
  return RunPass(&pass, [&](const StackBlurData& d) {
    const int32_t* input = single.input;
    int32_t* output = single.output;
    RowPass<1>(
        d, [&](size_t pixel, uint32_t* values) { values[0] = static_cast<uint32_t>(input[pixel]); },
        [&](size_t pixel, const uint32_t* quotients) { output[pixel] = static_cast<int32_t>(quotients[0]); });
  });
}

void* StackBlurHorizSingleChannelProc(void* data) {
  if (data == nullptr) return nullptr;
  const StackBlurSingleChannelData& single = *static_cast<StackBlurSingleChannelData*>(data);
  StackBlurData pass = SingleChannelAsPassData(single);
  return RunPass(&pass, [&](const StackBlurData& d) {
    const int32_t* input = single.input;
    int32_t* output = single.output;
    ColumnPass<1>(
        d, [&](size_t pixel, uint32_t* values) { values[0] = static_cast<uint32_t>(input[pixel]); },
        [&](size_t pixel, const uint32_t (*results)[1], unsigned count) {
          for (unsigned l = 0; l < count; ++l) output[pixel + l] = static_cast<int32_t>(results[l][0]);
        });
  });
}

// ----- the stage --------------------------------------------------------------

StackBlurRenderer::StackBlurRenderer(unsigned int radius_, bool horizontal_, bool vertical_,
                                     KVChannelsToProcess channels_)
    : radius(radius_),
      horizontal(horizontal_),
      vertical(vertical_),
      channels(static_cast<int>(channels_)),
      setupWidth(0),
      setupHeight(0) {}

StackBlurRenderer::~StackBlurRenderer() {}

unsigned int StackBlurRenderer::Type() const { return 1; }

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
  RunStackBlurRowPass(PixelBytes(image), static_cast<size_t>(w) * kBytesPerPixel, rowPassPlane.data(),
                      static_cast<size_t>(w) * kind, w, h, radius, kind);
  setupWidth = w;
  setupHeight = h;
}

int StackBlurRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return static_cast<int>(source->BitsPerChannel());
  return Render8(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
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
  const LineShare columns = LineShareOf(threadIndex, LinesPerThread(source->Width(), threadCount), setupWidth);
  const size_t rowBytes = static_cast<size_t>(setupWidth) * kBytesPerPixel;
  if (AlphaOnly()) {
    StackBlurPlaneColumns(rowPassPlane.data(), setupWidth, setupHeight, columns.first, columns.end, radius,
                          kStoreAlphaOverColour, destination->Buffer(), rowBytes, source->Buffer(), rowBytes);
  } else {
    StackBlurPlaneColumns(rowPassPlane.data(), rowBytes, setupHeight, columns.first, columns.end, radius, kStoreBytes,
                          destination->Buffer(), rowBytes, nullptr, 0);
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
