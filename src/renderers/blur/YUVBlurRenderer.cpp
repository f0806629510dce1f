#include <algorithm>
#include <cstring>
#include <vector>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurKernels.h"
#include "renderers/blur/StackBlurPasses.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// Bytes of a converted pixel.
enum : unsigned int { kChromaVByte = 0, kChromaUByte = 1, kLumaByte = 2 };

size_t ArrayBytes(const SharedByteArray& array) { return array ? array->size() : 0; }

// One box-blur walk over `length` positions start + j * stride (byte offsets
// of a pixel's first byte), in place on bytes 0 and 1: every position gets the
// mean of the unblurred values within `radius` positions of it, the window
// clipped to the walk and divided by the number of positions in it. A trailing
// position writes while a leading cursor, radius + 1 positions ahead, adds the
// values that enter; two rings keep the unblurred values of the last
// radius + 1 positions written, for the values that leave.
// byCount[count] divides a sum of `count` values exactly (a division
// instruction per byte would cost more than the rest of the walk); an empty
// byCount means dividing with the instruction.
void BoxBlurWalk(unsigned char* bytes, int64_t start, int64_t stride, int64_t length, uint32_t radius,
                 std::vector<unsigned char>& ring0, std::vector<unsigned char>& ring1,
                 const std::vector<StackBlurDivider>& byCount) {
  if (length <= 0) return;
  const int64_t r = radius;
  uint32_t sum0 = 0, sum1 = 0, count = 0;
  uint32_t ringPosition = 0;
  int64_t cursor = 0;
  for (int64_t t = -(r + 1); t < length; ++t) {
    if (t >= 0) {
      unsigned char* p = bytes + start + t * stride;
      ring0[ringPosition] = p[kChromaVByte];
      ring1[ringPosition] = p[kChromaUByte];
      if (byCount.empty()) {
        p[kChromaVByte] = static_cast<unsigned char>(sum0 / count);
        p[kChromaUByte] = static_cast<unsigned char>(sum1 / count);
      } else {
        const StackBlurDivider& divide = byCount[count];
        p[kChromaVByte] = static_cast<unsigned char>(divide(sum0));
        p[kChromaUByte] = static_cast<unsigned char>(divide(sum1));
      }
      ringPosition = ringPosition == radius ? 0 : ringPosition + 1;
    }
    if (cursor < length) {
      const unsigned char* p = bytes + start + cursor * stride;
      sum0 += p[kChromaVByte];
      sum1 += p[kChromaUByte];
      ++count;
      ++cursor;
    }
    if (t - r >= 0) {
      sum0 -= ring0[ringPosition];
      sum1 -= ring1[ringPosition];
      --count;
    }
  }
}

// BoxBlurWalk on `columns` adjacent walks at once, position by position, for
// walks that all have `length` positions (stride apart, the first starting at
// byte `start`, the others a pixel apart): each step touches a run of bytes
// of one row instead of one pixel of every row, four pixels to an SSE2
// register, and the rings hold the unblurred pixels of a row of the block
// per position. All walks have the same count, so one divider serves a row.
void BoxBlurWalks(unsigned char* bytes, int64_t start, int64_t stride, int64_t length, uint32_t radius,
                  size_t columns, const std::vector<StackBlurDivider>& byCount) {
  static_assert(kChromaVByte == 0 && kChromaUByte == 1, "the chroma bytes are the low half of a pixel word");
  if (length <= 0 || columns == 0) return;
  const bool dividers = !byCount.empty();
  const size_t groups = dividers ? columns / 4 : 0, rowBytes = columns * kBytesPerPixel;
  std::vector<uint32_t> sumsV(columns, 0), sumsU(columns, 0);
  std::vector<unsigned char> rings((static_cast<size_t>(radius) + 1) * rowBytes);
  const __m128i lowByte = _mm_set1_epi32(0xFF), lumaAndAlpha = _mm_set1_epi32(static_cast<int>(0xFFFF0000u));
  const auto loadSums = [](const std::vector<uint32_t>& sums, size_t g) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(sums.data() + 4 * g));
  };
  const auto storeSums = [](std::vector<uint32_t>& sums, size_t g, __m128i value) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(sums.data() + 4 * g), value);
  };
  const int64_t r = radius;
  uint32_t count = 0, ringPosition = 0;
  int64_t cursor = 0;
  for (int64_t t = -(r + 1); t < length; ++t) {
    if (t >= 0) {
      unsigned char* row = bytes + start + t * stride;
      unsigned char* saved = rings.data() + ringPosition * rowBytes;
      const StackBlurDivider divide = dividers ? byCount[count] : StackBlurDivider();
      const LaneDivider divideLanes(divide);
      for (size_t g = 0; g < groups; ++g) {
        __m128i* at = reinterpret_cast<__m128i*>(row + 16 * g);
        const __m128i pixels = _mm_loadu_si128(at);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(saved + 16 * g), pixels);
        const __m128i chroma = _mm_or_si128(divideLanes(loadSums(sumsV, g)),
                                            _mm_slli_epi32(divideLanes(loadSums(sumsU, g)), 8));
        _mm_storeu_si128(at, _mm_or_si128(_mm_and_si128(pixels, lumaAndAlpha), chroma));
      }
      for (size_t c = 4 * groups; c < columns; ++c) {
        unsigned char* p = row + c * kBytesPerPixel;
        std::memcpy(saved + c * kBytesPerPixel, p, kBytesPerPixel);
        p[kChromaVByte] = static_cast<unsigned char>(dividers ? divide(sumsV[c]) : sumsV[c] / count);
        p[kChromaUByte] = static_cast<unsigned char>(dividers ? divide(sumsU[c]) : sumsU[c] / count);
      }
      ringPosition = ringPosition == radius ? 0 : ringPosition + 1;
    }
    const auto addRow = [&](const unsigned char* row, bool add) {
      for (size_t g = 0; g < groups; ++g) {
        const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + 16 * g));
        const __m128i v = _mm_and_si128(pixels, lowByte), u = _mm_and_si128(_mm_srli_epi32(pixels, 8), lowByte);
        storeSums(sumsV, g, add ? _mm_add_epi32(loadSums(sumsV, g), v) : _mm_sub_epi32(loadSums(sumsV, g), v));
        storeSums(sumsU, g, add ? _mm_add_epi32(loadSums(sumsU, g), u) : _mm_sub_epi32(loadSums(sumsU, g), u));
      }
      for (size_t c = 4 * groups; c < columns; ++c) {
        const unsigned char* p = row + c * kBytesPerPixel;
        sumsV[c] = add ? sumsV[c] + p[kChromaVByte] : sumsV[c] - p[kChromaVByte];
        sumsU[c] = add ? sumsU[c] + p[kChromaUByte] : sumsU[c] - p[kChromaUByte];
      }
    };
    if (cursor < length) {
      addRow(bytes + start + cursor * stride, true);
      ++count;
      ++cursor;
    }
    if (t - r >= 0) {
      addRow(rings.data() + ringPosition * rowBytes, false);
      --count;
    }
  }
}

// BoxBlurWalk along one row, in place: every pixel gets the mean of the
// unblurred values within the radius, clipped to the row (what the walk's
// rings give), here from prefix sums of the row taken before any write.
// Where the window lies inside the row its count is 2r + 1 and four pixels
// share an SSE2 register. Sums of a window stay below 2^31 (byCount is not
// empty), so 32-bit prefix sums give them exactly even when they wrap.
void BoxBlurRow(unsigned char* row, uint32_t width, uint32_t radius, std::vector<uint32_t>& prefixV,
                std::vector<uint32_t>& prefixU, const std::vector<StackBlurDivider>& byCount) {
  static_assert(kChromaVByte == 0 && kChromaUByte == 1, "the chroma bytes are the low half of a pixel word");
  prefixV[0] = prefixU[0] = 0;
  for (size_t x = 0; x < width; ++x) {
    prefixV[x + 1] = prefixV[x] + row[x * kBytesPerPixel + kChromaVByte];
    prefixU[x + 1] = prefixU[x] + row[x * kBytesPerPixel + kChromaUByte];
  }
  const size_t r = radius, n = width;
  const auto clipped = [&](size_t x) {
    const size_t low = x > r ? x - r : 0, high = std::min(x + r + 1, n);
    const StackBlurDivider& divide = byCount[high - low];
    row[x * kBytesPerPixel + kChromaVByte] = static_cast<unsigned char>(divide(prefixV[high] - prefixV[low]));
    row[x * kBytesPerPixel + kChromaUByte] = static_cast<unsigned char>(divide(prefixU[high] - prefixU[low]));
  };
  size_t x = 0;
  for (; x < n && x < r; ++x) clipped(x);
  const LaneDivider divide(byCount[2 * r + 1]);
  const __m128i lumaAndAlpha = _mm_set1_epi32(static_cast<int>(0xFFFF0000u));
  const auto load = [](const std::vector<uint32_t>& prefix, size_t at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(prefix.data() + at));
  };
  for (; x + r + 4 <= n; x += 4) {
    __m128i* at = reinterpret_cast<__m128i*>(row + x * kBytesPerPixel);
    const __m128i v = divide(_mm_sub_epi32(load(prefixV, x + r + 1), load(prefixV, x - r)));
    const __m128i u = divide(_mm_sub_epi32(load(prefixU, x + r + 1), load(prefixU, x - r)));
    _mm_storeu_si128(at, _mm_or_si128(_mm_and_si128(_mm_loadu_si128(at), lumaAndAlpha),
                                      _mm_or_si128(v, _mm_slli_epi32(u, 8))));
  }
  for (; x < n; ++x) clipped(x);
}

// The most columns BoxBlurWalks takes at once: its rings stay within a few
// hundred kilobytes at the largest radius of a tall image.
const int64_t kBoxColumnsAtOnce = 256;

// A window wider than the walk covers the whole walk at every position, so a
// radius beyond the longest walk gives the same bytes as that length.
uint32_t UsefulBoxRadius(uint32_t radius, uint32_t longestWalk) { return std::min(radius, longestWalk); }

// The dividers of every count a walk of that radius divides by: 1 .. 2r + 1;
// none (the walks divide with an instruction) when a window's sum can reach
// 2^31, past the dividers' exact range: walks of over 4 million positions.
std::vector<StackBlurDivider> BoxDividers(uint32_t radius) {
  if (255 * (2 * static_cast<uint64_t>(radius) + 1) >= (uint64_t(1) << 31)) return std::vector<StackBlurDivider>();
  std::vector<StackBlurDivider> byCount(2 * static_cast<size_t>(radius) + 2);
  for (size_t count = 1; count < byCount.size(); ++count) {
    byCount[count] = StackBlurDivider::OfDivisor(static_cast<uint32_t>(count));
  }
  return byCount;
}

template <class Body>
void* RunRecord(void* data, Body body) {
  if (data == nullptr) return nullptr;
  try {
    body(data);
  } catch (std::exception&) {
  }
  return nullptr;
}

}  // namespace

// ----- conversions ------------------------------------------------------------

void* YUVBlurConvertToProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVBlurData& d = *static_cast<YUVBlurData*>(record);
    if (d.image == nullptr || d.threadCount == 0 || !d.yuvPixels) return;
    int t299[256], t587[256], t114[256];
    for (int v = 0; v < 256; ++v) {
      t299[v] = TruncateToInt(v * 0.299);
      t587[v] = TruncateToInt(v * 0.587);
      t114[v] = TruncateToInt(v * 0.114);
    }
    // Red - luma and blue - luma lie in -255 .. 255: the chroma byte of every
    // difference, from the same expressions, once per call.
    unsigned char chromaV[511], chromaU[511];
    for (int difference = -255; difference <= 255; ++difference) {
      chromaV[difference + 255] = static_cast<unsigned char>(TruncateToInt(difference * 0.713) - 128);
      chromaU[difference + 255] = static_cast<unsigned char>(TruncateToInt(difference * 0.565) - 128);
    }
    const size_t limit = std::min<size_t>(std::min<size_t>(d.image->BufferByteSize(), ArrayBytes(d.yuvPixels)),
                                          static_cast<size_t>(d.image->Width()) * d.image->Height() * kBytesPerPixel);
    const ShareRun share = ByteShare(d.image->Width(), d.image->Height(), d.threadIndex, d.threadCount, limit);
    const unsigned char* in = PixelBytes(d.image) + share.start;
    unsigned char* out = d.yuvPixels->data() + share.start;
    for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
      uint32_t pixel;
      std::memcpy(&pixel, in + i, sizeof(pixel));
      const int red = (pixel >> (8 * kRedByte)) & 0xFF, green = (pixel >> (8 * kGreenByte)) & 0xFF,
                blue = (pixel >> (8 * kBlueByte)) & 0xFF;
      const int luma = t299[red] + t587[green] + t114[blue];
      const uint32_t converted = static_cast<uint32_t>(chromaV[red - luma + 255]) << (8 * kChromaVByte) |
                                 static_cast<uint32_t>(chromaU[blue - luma + 255]) << (8 * kChromaUByte) |
                                 static_cast<uint32_t>(luma) << (8 * kLumaByte) |
                                 (pixel & (0xFFu << (8 * kAlphaByte)));
      std::memcpy(out + i, &converted, sizeof(converted));
    }
  });
}

void* YUVBlurConvertFromProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVBlurData& d = *static_cast<YUVBlurData*>(record);
    if (d.image == nullptr || d.threadCount == 0 || !d.yuvPixels) return;
    // Indexed by chroma byte c, i.e. the signed value c - 128.
    int a[256], b[256], c[256], e[256];
    for (int v = -128; v < 128; ++v) {
      a[v + 128] = TruncateToInt(v * 1.403);
      b[v + 128] = TruncateToInt(v * 1.77);
      c[v + 128] = TruncateToInt(v * 0.344);
      e[v + 128] = TruncateToInt(v * 0.714);
    }
    const size_t limit = std::min<size_t>(std::min<size_t>(d.image->BufferByteSize(), ArrayBytes(d.yuvPixels)),
                                          static_cast<size_t>(d.image->Width()) * d.image->Height() * kBytesPerPixel);
    // Every colour value clamped through one table: luma plus or minus the
    // chroma terms lies in -256 .. 511.
    unsigned char clamped[768];
    for (int value = -256; value < 512; ++value) clamped[value + 256] = static_cast<unsigned char>(ClampToByte(value));
    const unsigned char* clamp = clamped + 256;
    const ShareRun share = ByteShare(d.image->Width(), d.image->Height(), d.threadIndex, d.threadCount, limit);
    const unsigned char* in = d.yuvPixels->data() + share.start;
    unsigned char* out = PixelBytes(d.image) + share.start;
    for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
      uint32_t converted;
      std::memcpy(&converted, in + i, sizeof(converted));
      const int luma = (converted >> (8 * kLumaByte)) & 0xFF, u = (converted >> (8 * kChromaUByte)) & 0xFF,
                v = (converted >> (8 * kChromaVByte)) & 0xFF;
      const uint32_t pixel = static_cast<uint32_t>(clamp[luma + b[u]]) << (8 * kBlueByte) |
                             static_cast<uint32_t>(clamp[luma - c[u] - e[v]]) << (8 * kGreenByte) |
                             static_cast<uint32_t>(clamp[luma + a[v]]) << (8 * kRedByte) |
                             (converted & (0xFFu << (8 * kAlphaByte)));
      std::memcpy(out + i, &pixel, sizeof(pixel));
    }
  });
}

// ----- box blurs --------------------------------------------------------------

void* HorizontalYUVBlurProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVBoxBlurData& d = *static_cast<YUVBoxBlurData*>(record);
    const size_t bytes = static_cast<size_t>(d.width) * d.height * kBytesPerPixel;
    if (bytes == 0 || ArrayBytes(d.yuvPixels) < bytes) return;
    const ShareRun rows = ShareOfLines(d.height, d.threadIndex, d.threadCount);
    const uint32_t radius = UsefulBoxRadius(d.radius, d.width);
    std::vector<unsigned char> ring0(radius + 1), ring1(radius + 1);
    const std::vector<StackBlurDivider> byCount = BoxDividers(radius);
    const int64_t rowBytes = static_cast<int64_t>(d.width) * kBytesPerPixel;
    // Each share's leading cursor starts at its own first row (a walk from the
    // buffer's start would only read and discard the rows before it).
    std::vector<uint32_t> prefixV(byCount.empty() ? 0 : d.width + 1), prefixU(prefixV.size());
    for (uint32_t y = static_cast<uint32_t>(rows.start); y < rows.End(); ++y) {
      if (byCount.empty()) {
        BoxBlurWalk(d.yuvPixels->data(), y * rowBytes, kBytesPerPixel, d.width, radius, ring0, ring1, byCount);
      } else {
        BoxBlurRow(d.yuvPixels->data() + y * rowBytes, d.width, radius, prefixV, prefixU, byCount);
      }
    }
  });
}

// Each share walks its own columns and then the first column past its end:
// the next share's first column, or, for the share that reaches the right
// edge, the columns past it, which continue in columns 0, 1, ... one row down.
// The walk of the share's column k stops at the byte offset
// width * 4 * height - 4 * columnsPerThread + 4 * k, so a share that reaches
// the right edge leaves the bottom row of its columns alone. Phase 0 walks the
// columns a share owns, phase 1 (started after every share's phase 0) the
// columns past its end, on the values their owners wrote.
void* VerticalYUVBlurProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVBoxBlurData& d = *static_cast<YUVBoxBlurData*>(record);
    const int64_t width = d.width, height = d.height;
    const int64_t bytes = width * height * kBytesPerPixel;
    if (bytes == 0 || static_cast<int64_t>(ArrayBytes(d.yuvPixels)) < bytes) return;
    const int64_t columnsPerThread = LinesPerThread(d.width, d.threadCount);
    const ShareRun share = ShareOfLinesSized(d.width, static_cast<uint32_t>(columnsPerThread), d.threadIndex);
    if (share.count == 0) return;
    const int64_t first = static_cast<int64_t>(share.start), owned = static_cast<int64_t>(share.count);
    const int64_t kBegin = d.phase == 0 ? 0 : owned;
    const int64_t kEnd = d.phase == 0 ? owned : columnsPerThread + 1;

    const uint32_t radius = UsefulBoxRadius(d.radius, d.height);
    std::vector<unsigned char> ring0(radius + 1), ring1(radius + 1);
    const std::vector<StackBlurDivider> byCount = BoxDividers(radius);
    const int64_t stride = width * kBytesPerPixel;
    if (d.phase == 0) {
      // Every walk of the share has the same length: bound - start does not
      // depend on k.
      const int64_t start = first * kBytesPerPixel;
      const int64_t bound = bytes - kBytesPerPixel * columnsPerThread;
      const int64_t length = start < bound ? (bound - start + stride - 1) / stride : 0;
      for (int64_t k = 0; k < owned; k += kBoxColumnsAtOnce) {
        BoxBlurWalks(d.yuvPixels->data(), start + k * kBytesPerPixel, stride, length, radius,
                     static_cast<size_t>(std::min(kBoxColumnsAtOnce, owned - k)), byCount);
      }
      return;
    }
    for (int64_t k = kBegin; k < kEnd; ++k) {
      const int64_t start = (first + k) * kBytesPerPixel;
      const int64_t bound = bytes - kBytesPerPixel * columnsPerThread + kBytesPerPixel * k;
      const int64_t length = start < bound ? (bound - start + stride - 1) / stride : 0;
      BoxBlurWalk(d.yuvPixels->data(), start, stride, length, radius, ring0, ring1, byCount);
    }
  });
}

// ----- chroma stack blur ------------------------------------------------------

namespace {

bool StackRecordUsable(const YUVStackBlurData& d) {
  const size_t pixels = static_cast<size_t>(d.width) * d.height;
  return pixels != 0 && ArrayBytes(d.yuvPixels) >= pixels * kBytesPerPixel && d.chromaPlane0 && d.chromaPlane1 &&
         d.chromaPlane0->size() >= pixels && d.chromaPlane1->size() >= pixels && d.edgeIndex &&
         d.edgeIndex->size() >= std::max(d.width, d.height) && d.divideTable != nullptr;
}

}  // namespace

void* StackBlurVertYUVProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVStackBlurData& d = *static_cast<YUVStackBlurData*>(record);
    if (!StackRecordUsable(d)) return;
    static_assert(kChromaVByte == 0 && kChromaUByte == 1, "the chroma planes take bytes 0 and 1");
    int32_t* const planes[4] = {d.chromaPlane0->data(), d.chromaPlane1->data(), nullptr, nullptr};
    RunStackBlurRowShare(ChooseStackBlurKernels().rows,
                         PixelRowsIntoValues(d.yuvPixels->data(), d.width, d.height, d.radius, planes), d.rowsPerThread,
                         d.threadIndex);
  });
}

// Each chroma plane in turn into its byte of the converted pixels.
void* StackBlurHorizYUVProc(void* data) {
  return RunRecord(data, [](void* record) {
    const YUVStackBlurData& d = *static_cast<YUVStackBlurData*>(record);
    if (!StackRecordUsable(d)) return;
    unsigned char* pixels = d.yuvPixels->data();
    const SharedIntArray planes[2] = {d.chromaPlane0, d.chromaPlane1};
    const unsigned bytes[2] = {kChromaVByte, kChromaUByte};
    for (unsigned k = 0; k < 2; ++k) {
      RunStackBlurColumnShare(
          ChooseStackBlurKernels().columns,
          ValueColumnsIntoByte(planes[k]->data(), d.width, d.height, d.radius, pixels, bytes[k], pixels),
          d.columnsPerThread, d.threadIndex);
    }
  });
}

// ----- the stage --------------------------------------------------------------

YUVBlurRenderer::YUVBlurRenderer(unsigned int radius_, KVYUVBlurType type) : radius(radius_), blurType(static_cast<int>(type)) {}

void YUVBlurRenderer::Setup(KVAbstractImage* image) {
  const uint32_t w = image->Width(), h = image->Height();
  // The previous array is reused when it has the size and nothing else holds
  // it: every byte is converted anew, and a fresh array would cost page
  // faults and zero-filling on every render.
  SharedByteArray previous;
  previous.swap(yuvPixels);
  const size_t bytes = static_cast<size_t>(w) * h * kBytesPerPixel;
  if (bytes == 0 || image->BitsPerChannel() != 0 || image->BufferByteSize() < bytes) return;

  if (previous && previous.unique() && previous->size() == bytes) {
    yuvPixels.swap(previous);
  } else {
    previous.reset();
    yuvPixels.reset(new std::vector<unsigned char>(bytes));
  }
  RunParallel([&](unsigned char threadIndex, unsigned char threadCount) {
    YUVBlurData data;
    data.threadCount = threadCount;
    data.threadIndex = threadIndex;
    data.image = image;
    data.byteSize = static_cast<uint32_t>(bytes);
    data.yuvPixels = yuvPixels;
    YUVBlurConvertToProc(&data);
    return 0;
  });

  switch (blurType) {
    case kYUVBlurHorizontal:
      RunBoxPass(HorizontalYUVBlurProc, w, h, 0);
      break;
    case kYUVBlurVertical:
      RunBoxPass(VerticalYUVBlurProc, w, h, 0);
      RunBoxPass(VerticalYUVBlurProc, w, h, 1);
      break;
    case kYUVBlurHorizontalVertical:
      RunBoxPass(HorizontalYUVBlurProc, w, h, 0);
      RunBoxPass(VerticalYUVBlurProc, w, h, 0);
      RunBoxPass(VerticalYUVBlurProc, w, h, 1);
      break;
    case kYUVBlurStack:
      RunStackBlur(w, h);
      break;
    default:
      break;  // conversion only
  }
}

void YUVBlurRenderer::RunBoxPass(void* (*pass)(void*), uint32_t width, uint32_t height, uint32_t phase) {
  RunParallel([&](unsigned char threadIndex, unsigned char threadCount) {
    YUVBoxBlurData data;
    data.threadCount = threadCount;
    data.threadIndex = threadIndex;
    data.yuvPixels = yuvPixels;
    data.height = height;
    data.width = width;
    data.radius = radius;
    data.phase = phase;
    pass(&data);
    return 0;
  });
}

// The row pass leaves the two blurred chroma bytes of every pixel in a plane
// of two bytes a pixel; the column pass writes its results back into bytes 0
// and 1 of the converted image, keeping luma and alpha.
void YUVBlurRenderer::RunStackBlur(uint32_t width, uint32_t height) {
  chromaRows.resize(static_cast<size_t>(width) * height * kPlaneFirstTwoBytes);
  const StackBlurKernels kernels = ChooseStackBlurKernels();
  RunStackBlurRows(kernels.rows, PixelRowsIntoPlane(yuvPixels->data(), static_cast<size_t>(width) * kBytesPerPixel,
                                                    width, height, radius, chromaRows.data(), kPlaneFirstTwoBytes));
  RunStackBlurColumns(kernels.columns,
                      PlaneColumnsIntoPixels(chromaRows.data(), static_cast<size_t>(width) * kPlaneFirstTwoBytes, width,
                                             height, radius, kStoreFirstTwoBytes, yuvPixels->data()));
}

int YUVBlurRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

int YUVBlurRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  if (!yuvPixels || threadCount == 0) return 0;
  YUVBlurData data;
  data.threadCount = threadCount;
  data.threadIndex = threadIndex;
  data.image = destination;
  data.byteSize = static_cast<uint32_t>(static_cast<size_t>(source->Width()) * source->Height() * kBytesPerPixel);
  data.yuvPixels = yuvPixels;
  YUVBlurConvertFromProc(&data);
  return 0;
}

}  // namespace image
}  // namespace kvo
