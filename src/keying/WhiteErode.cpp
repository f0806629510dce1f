#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <kvimage/keying.h>

#include "support/Assert.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

// The erode is defined by a ring of `window` values that starts full of 255
// and whose minimum is taken after every put. The output at a step is
// therefore the minimum of the last `window` values put (the initial 255s
// never lower it). This file computes exactly that sliding minimum over the
// sequence of puts with a block prefix/suffix scheme: three comparisons per
// value whatever the window, instead of a scan of the ring per pixel.

namespace {

enum LineShape {
  kCentred,   // prefill half - 1 values, then put value x + half at step x
  kTrailing,  // put value x at step x
  kLeading    // steps run from the end, put value x, and 255 at x = 0
};

LineShape ShapeOf(KVWhiteErodeDirection direction) {
  if (direction == kWhiteErodeAll) return kCentred;
  if (direction == kWhiteErodeRightward) return kTrailing;
  return kLeading;
}

// Scratch of one line of n values: the gathered line (reused for the result),
// then the puts, their block prefix minima and block suffix minima, each of up
// to 2n values.
struct LineScratch {
  LineScratch(unsigned char* bytes, size_t n)
      : line(bytes), puts(bytes + n), prefix(bytes + 3 * n), suffix(bytes + 5 * n) {}
  unsigned char* line;
  unsigned char* puts;
  unsigned char* prefix;
  unsigned char* suffix;
};

// out(j) = min(puts[max(0, j - window + 1) .. j]) for j from first to count - 1,
// written to result[j - first] (or mirrored for a leading line).
void SlidingMinimum(const LineScratch& s, size_t count, size_t window, size_t first, bool mirrored,
                    unsigned char* result) {
  for (size_t begin = 0; begin < count; begin += window) {
    const size_t end = std::min(count, begin + window);
    s.prefix[begin] = s.puts[begin];
    for (size_t j = begin + 1; j < end; ++j) s.prefix[j] = std::min(s.prefix[j - 1], s.puts[j]);
    s.suffix[end - 1] = s.puts[end - 1];
    for (size_t j = end - 1; j > begin; --j) s.suffix[j - 1] = std::min(s.suffix[j], s.puts[j - 1]);
  }
  const size_t outputs = count - first;
  for (size_t j = first; j < count; ++j) {
    const unsigned char value = j + 1 >= window ? std::min(s.suffix[j + 1 - window], s.prefix[j]) : s.prefix[j];
    result[mirrored ? outputs - 1 - (j - first) : j - first] = value;
  }
}

// Erodes the n values in s.line; the n results replace them.
void ErodeLine(const LineScratch& s, size_t n, int64_t window, LineShape shape) {
  if (n == 0) return;
  const unsigned char* line = s.line;
  size_t count = n, first = 0;
  if (shape == kCentred) {
    const uint64_t half = static_cast<uint64_t>(window / 2);
    const uint64_t prefill = half >= 1 ? half - 1 : 0;
    if (prefill >= n) {
      // The ring never wraps within the line and every put after the prefill
      // lies beyond it: each output is the minimum of the whole line.
      const unsigned char lowest = *std::min_element(line, line + n);
      std::memset(s.line, lowest, n);
      return;
    }
    std::memcpy(s.puts, line, prefill);
    for (size_t x = 0; x < n; ++x) s.puts[prefill + x] = x + half < n ? line[x + half] : 255;
    count = prefill + n;
    first = prefill;
  } else if (shape == kTrailing) {
    std::memcpy(s.puts, line, n);
  } else {
    for (size_t k = 0; k + 1 < n; ++k) s.puts[k] = line[n - 1 - k];
    s.puts[n - 1] = 255;
  }
  const size_t effectiveWindow = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(window), count));
  SlidingMinimum(s, count, effectiveWindow, first, shape == kLeading, s.line);
}

struct Span {
  uint64_t begin;
  uint64_t end;
};

Span ThreadSpan(unsigned int index, unsigned int perThread, unsigned int total) {
  const uint64_t begin = static_cast<uint64_t>(index) * perThread;
  return Span{begin, std::min<uint64_t>(begin + perThread, total)};
}

unsigned int PerThread(unsigned int total, unsigned int threads) {
  return SaturateToUInt32(std::ceil(static_cast<double>(total) / static_cast<double>(threads)));
}

// The record's scratch, or one of the pass's own; null when none can be had.
unsigned char* ScratchFor(ErodeWhiteData& data, size_t lineLength, std::unique_ptr<unsigned char[]>& owned) {
  if (data.scratch != nullptr) return data.scratch;
  owned.reset(new (std::nothrow) unsigned char[WhiteErodeScratchBytes(lineLength)]);
  return owned.get();
}

const int kOutOfMemoryCode = 8;

}  // namespace

size_t WhiteErodeScratchBytes(size_t lineLength) { return 7 * std::max<size_t>(lineLength, 1); }

void* HorizErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  ErodeWhiteData& data = *static_cast<ErodeWhiteData*>(argument);
  const Span rows = ThreadSpan(data.threadIndex, data.rowsPerThread, data.height);
  if (rows.begin >= rows.end || data.width == 0) return ThreadExitValue(0);
  std::unique_ptr<unsigned char[]> owned;
  unsigned char* scratch = ScratchFor(data, data.width, owned);
  if (scratch == nullptr) return ThreadExitValue(kOutOfMemoryCode);
  const LineScratch lineScratch(scratch, data.width);
  const LineShape shape = ShapeOf(data.direction);
  const size_t rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;
  for (uint64_t y = rows.begin; y < rows.end; ++y) {
    const unsigned char* in = data.bufferA + y * rowBytes + kAlphaByte;
    unsigned char* out = data.bufferB + y * rowBytes + kAlphaByte;
    for (size_t x = 0; x < data.width; ++x) lineScratch.line[x] = in[x * kBytesPerPixel];
    ErodeLine(lineScratch, data.width, data.window, shape);
    for (size_t x = 0; x < data.width; ++x) out[x * kBytesPerPixel] = lineScratch.line[x];
  }
  return ThreadExitValue(0);
}

void* VertErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  ErodeWhiteData& data = *static_cast<ErodeWhiteData*>(argument);
  const Span columns = ThreadSpan(data.threadIndex, data.columnsPerThread, data.width);
  if (columns.begin >= columns.end || data.height == 0) return ThreadExitValue(0);
  const size_t rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;

  if (ShapeOf(data.direction) != kCentred) {
    const size_t stripBytes = static_cast<size_t>(columns.end - columns.begin) * kBytesPerPixel;
    for (size_t y = 0; y < data.height; ++y) {
      const size_t offset = y * rowBytes + columns.begin * kBytesPerPixel;
      if (offset >= data.bufferALimit) break;
      std::memcpy(data.bufferA + offset, data.bufferB + offset, std::min(stripBytes, data.bufferALimit - offset));
    }
    return ThreadExitValue(0);
  }

  std::unique_ptr<unsigned char[]> owned;
  unsigned char* scratch = ScratchFor(data, data.height, owned);
  if (scratch == nullptr) return ThreadExitValue(kOutOfMemoryCode);
  const LineScratch lineScratch(scratch, data.height);
  for (uint64_t x = columns.begin; x < columns.end; ++x) {
    const size_t columnOffset = x * kBytesPerPixel;
    for (size_t y = 0; y < data.height; ++y) {
      lineScratch.line[y] = data.bufferB[y * rowBytes + columnOffset + kAlphaByte];
    }
    ErodeLine(lineScratch, data.height, data.window, kCentred);
    for (size_t y = 0; y < data.height; ++y) {
      const size_t offset = y * rowBytes + columnOffset;
      if (offset + kBytesPerPixel > data.bufferALimit) break;
      data.bufferA[offset + kBlueByte] = data.bufferB[offset + kBlueByte];
      data.bufferA[offset + kGreenByte] = data.bufferB[offset + kGreenByte];
      data.bufferA[offset + kRedByte] = data.bufferB[offset + kRedByte];
      data.bufferA[offset + kAlphaByte] = lineScratch.line[y];
    }
  }
  return ThreadExitValue(0);
}

WhiteErodeRenderer::WhiteErodeRenderer(KVWhiteErodeDirection direction, int size)
    : m_direction(direction), m_window(2 * static_cast<int64_t>(std::max(size, 0)) + 1) {}

WhiteErodeRenderer::~WhiteErodeRenderer() {}

unsigned int WhiteErodeRenderer::Type() const { return 0; }

void WhiteErodeRenderer::Setup(KVAbstractImage* source) {
  const unsigned int width = source->Width(), height = source->Height();
  std::tr1::shared_ptr<KVImage8> intermediate(new KVImage8(width, height, source->PixelChannelOrder(), false));
  if (intermediate->BufferByteSize() != 0) {
    std::memcpy(intermediate->Buffer(), PixelBytes(source), intermediate->BufferByteSize());
  }

  const unsigned char threads = PassThreadCount();
  if (threads != 0 && width != 0) {
    const unsigned int rowsPerThread = PerThread(height, threads);
    std::vector<ErodeWhiteData> records(threads);
    size_t busyThreads = 0;
    for (unsigned int t = 0; t < threads; ++t) {
      const Span rows = ThreadSpan(t, rowsPerThread, height);
      if (rows.begin < rows.end) busyThreads = t + 1;
    }
    // Every thread's scratch is taken here, so a failed allocation reaches the
    // caller as std::bad_alloc rather than ending a worker.
    const size_t scratchBytes = WhiteErodeScratchBytes(width);
    std::unique_ptr<unsigned char[]> scratch(new unsigned char[busyThreads * scratchBytes]);
    for (unsigned int t = 0; t < threads; ++t) {
      ErodeWhiteData& record = records[t];
      record.threadIndex = t;
      record.rowsPerThread = rowsPerThread;
      record.columnsPerThread = 0;
      record.width = width;
      record.height = height;
      record.bufferA = PixelBytes(source);
      record.bufferB = intermediate->Buffer();
      record.window = m_window;
      record.direction = m_direction;
      record.bufferALimit = 0;
      record.scratch = t < busyThreads ? scratch.get() + t * scratchBytes : nullptr;
    }
    if (RunThreads(HorizErodeWhiteProc, records) == kOutOfMemoryCode) throw std::bad_alloc();
  }
  m_intermediate = intermediate;
}

int WhiteErodeRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA, "WhiteErode", 416,
            "false && \"Not implemented\"");
  return Render8(source, destination, threadIndex, threadCount);
}

// The vertical pass over this thread's columns of the intermediate.
int WhiteErodeRenderer::Render8(KVAbstractImage*, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  const std::tr1::shared_ptr<KVImage8> intermediate = m_intermediate;
  if (!intermediate || threadCount == 0) return 0;
  ErodeWhiteData record;
  record.threadIndex = threadIndex;
  record.rowsPerThread = 0;
  record.columnsPerThread = PerThread(intermediate->Width(), threadCount);
  record.width = intermediate->Width();
  record.height = intermediate->Height();
  record.bufferA = PixelBytes(destination);
  record.bufferB = intermediate->Buffer();
  record.window = m_window;
  record.direction = m_direction;
  record.bufferALimit = destination->BufferByteSize();
  record.scratch = nullptr;
  std::vector<unsigned char> scratch;
  const Span columns = ThreadSpan(threadIndex, record.columnsPerThread, record.width);
  if (ShapeOf(m_direction) == kCentred && columns.begin < columns.end) {
    scratch.resize(WhiteErodeScratchBytes(record.height));  // std::bad_alloc ends this thread with code 8
    record.scratch = scratch.data();
  }
  VertErodeWhiteProc(&record);
  return 0;
}

}  // namespace image
}  // namespace kvo
