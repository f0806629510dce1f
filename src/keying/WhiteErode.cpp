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
// value whatever the window, instead of a scan of the ring per pixel. Lines
// are eroded kLanes at a time, interleaved value by value, so the inner loops
// run across lanes and vectorise, and a column pass reads whole row segments.

namespace {

const size_t kLanes = 128;
const int kOutOfMemoryCode = 8;

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

// One thread's working memory for lines of n values: the interleaved lines
// (n x lanes, replaced by the results) and the block prefix and suffix minima
// of the puts (up to 2n x lanes each).
struct LaneScratch {
  LaneScratch(unsigned char* bytes, size_t n, size_t laneStride)
      : stride(laneStride), lines(bytes), prefix(bytes + n * stride), suffix(bytes + 3 * n * stride) {}
  size_t stride;  // lanes per value: kLanes, or fewer when a thread has fewer lines
  unsigned char* lines;
  unsigned char* prefix;
  unsigned char* suffix;
};

// The sequence of puts of one line: which value each put takes (or 255).
class PutSequence {
 public:
  PutSequence(size_t n, int64_t window, LineShape shape) : m_n(n), m_shape(shape), m_half(0), m_prefill(0) {
    if (shape == kCentred) {
      m_half = static_cast<uint64_t>(window / 2);
      m_prefill = m_half >= 1 ? m_half - 1 : 0;
    }
  }
  // Every value of a centred line is put during the prefill and every later
  // put lies beyond the line, and the ring never wraps within the line.
  bool WholeLineMinimum() const { return m_shape == kCentred && m_prefill >= m_n; }
  size_t Count() const { return m_shape == kCentred ? m_prefill + m_n : m_n; }
  size_t FirstOutput() const { return m_shape == kCentred ? m_prefill : 0; }
  // The value index of put j, or n for a 255.
  size_t Source(size_t j) const {
    if (m_shape == kTrailing) return j;
    if (m_shape == kLeading) return j + 1 < m_n ? m_n - 1 - j : m_n;
    if (j < m_prefill) return j;
    const uint64_t index = (j - m_prefill) + m_half;
    return index < m_n ? index : m_n;
  }
  // The value index written by output j.
  size_t Target(size_t j) const { return m_shape == kLeading ? m_n - 1 - j : j - FirstOutput(); }

 private:
  size_t m_n;
  LineShape m_shape;
  uint64_t m_half;
  uint64_t m_prefill;
};

// Erodes `lanes` interleaved lines of n values held in s.lines (value i of
// lane k at i * s.stride + k); the results replace them.
void ErodeLanes(const LaneScratch& s, size_t n, size_t lanes, int64_t window, LineShape shape) {
  if (n == 0) return;
  static const std::vector<unsigned char> kOpaqueRow(kLanes, 255);
  const unsigned char* kOpaque = kOpaqueRow.data();
  const PutSequence sequence(n, window, shape);
  if (sequence.WholeLineMinimum()) {
    unsigned char lowest[kLanes];
    std::memset(lowest, 255, kLanes);
    for (size_t i = 0; i < n; ++i)
      for (size_t k = 0; k < lanes; ++k) lowest[k] = std::min(lowest[k], s.lines[i * s.stride + k]);
    for (size_t i = 0; i < n; ++i) std::memcpy(s.lines + i * s.stride, lowest, lanes);
    return;
  }
  auto put = [&](size_t j) {
    const size_t source = sequence.Source(j);
    return source < n ? s.lines + source * s.stride : kOpaque;
  };
  const size_t count = sequence.Count();
  const size_t w = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(window), count));
  for (size_t begin = 0; begin < count; begin += w) {
    const size_t end = std::min(count, begin + w);
    std::memcpy(s.prefix + begin * s.stride, put(begin), lanes);
    for (size_t j = begin + 1; j < end; ++j) {
      const unsigned char* value = put(j);
      const unsigned char* previous = s.prefix + (j - 1) * s.stride;
      unsigned char* current = s.prefix + j * s.stride;
      for (size_t k = 0; k < lanes; ++k) current[k] = std::min(previous[k], value[k]);
    }
    std::memcpy(s.suffix + (end - 1) * s.stride, put(end - 1), lanes);
    for (size_t j = end - 1; j > begin; --j) {
      const unsigned char* value = put(j - 1);
      const unsigned char* next = s.suffix + j * s.stride;
      unsigned char* current = s.suffix + (j - 1) * s.stride;
      for (size_t k = 0; k < lanes; ++k) current[k] = std::min(next[k], value[k]);
    }
  }
  // The puts are all in the minima now, so the results may overwrite the lines.
  for (size_t j = sequence.FirstOutput(); j < count; ++j) {
    unsigned char* result = s.lines + sequence.Target(j) * s.stride;
    const unsigned char* upTo = s.prefix + j * s.stride;
    if (j + 1 >= w) {
      const unsigned char* from = s.suffix + (j + 1 - w) * s.stride;
      for (size_t k = 0; k < lanes; ++k) result[k] = std::min(from[k], upTo[k]);
    } else {
      std::memcpy(result, upTo, lanes);
    }
  }
}

// Lines are taken kLanes at a time; a thread with fewer keeps a narrower
// scratch.
size_t LaneStride(uint64_t lineCount) {
  return static_cast<size_t>(std::max<uint64_t>(1, std::min<uint64_t>(kLanes, lineCount)));
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
unsigned char* ScratchFor(ErodeWhiteData& data, size_t lineLength, size_t lineCount,
                          std::unique_ptr<unsigned char[]>& owned) {
  if (data.scratch != nullptr) return data.scratch;
  owned.reset(new (std::nothrow) unsigned char[WhiteErodeScratchBytes(lineLength, lineCount)]);
  return owned.get();
}

}  // namespace

size_t WhiteErodeScratchBytes(size_t lineLength, size_t lineCount) {
  return 5 * LaneStride(lineCount) * std::max<size_t>(lineLength, 1);
}

void* HorizErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  ErodeWhiteData& data = *static_cast<ErodeWhiteData*>(argument);
  const Span rows = ThreadSpan(data.threadIndex, data.rowsPerThread, data.height);
  if (rows.begin >= rows.end || data.width == 0) return ThreadExitValue(0);
  std::unique_ptr<unsigned char[]> owned;
  unsigned char* scratch = ScratchFor(data, data.width, rows.end - rows.begin, owned);
  if (scratch == nullptr) return ThreadExitValue(kOutOfMemoryCode);
  const LaneScratch lanes(scratch, data.width, LaneStride(rows.end - rows.begin));
  const LineShape shape = ShapeOf(data.direction);
  const size_t width = data.width, rowBytes = width * kBytesPerPixel;
  for (uint64_t first = rows.begin; first < rows.end; first += kLanes) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(kLanes, rows.end - first));
    for (size_t k = 0; k < count; ++k) {
      const unsigned char* in = data.bufferA + (first + k) * rowBytes + kAlphaByte;
      for (size_t x = 0; x < width; ++x) lanes.lines[x * lanes.stride + k] = in[x * kBytesPerPixel];
    }
    ErodeLanes(lanes, width, count, data.window, shape);
    for (size_t k = 0; k < count; ++k) {
      unsigned char* out = data.bufferB + (first + k) * rowBytes + kAlphaByte;
      for (size_t x = 0; x < width; ++x) out[x * kBytesPerPixel] = lanes.lines[x * lanes.stride + k];
    }
  }
  return ThreadExitValue(0);
}

void* VertErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  ErodeWhiteData& data = *static_cast<ErodeWhiteData*>(argument);
  const Span columns = ThreadSpan(data.threadIndex, data.columnsPerThread, data.width);
  if (columns.begin >= columns.end || data.height == 0) return ThreadExitValue(0);
  const size_t height = data.height, rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;

  if (ShapeOf(data.direction) != kCentred) {
    const size_t stripBytes = static_cast<size_t>(columns.end - columns.begin) * kBytesPerPixel;
    for (size_t y = 0; y < height; ++y) {
      const size_t offset = y * rowBytes + columns.begin * kBytesPerPixel;
      if (offset >= data.bufferALimit) break;
      std::memcpy(data.bufferA + offset, data.bufferB + offset, std::min(stripBytes, data.bufferALimit - offset));
    }
    return ThreadExitValue(0);
  }

  std::unique_ptr<unsigned char[]> owned;
  unsigned char* scratch = ScratchFor(data, height, columns.end - columns.begin, owned);
  if (scratch == nullptr) return ThreadExitValue(kOutOfMemoryCode);
  const LaneScratch lanes(scratch, height, LaneStride(columns.end - columns.begin));
  for (uint64_t first = columns.begin; first < columns.end; first += kLanes) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(kLanes, columns.end - first));
    const size_t stripOffset = first * kBytesPerPixel, stripBytes = count * kBytesPerPixel;
    for (size_t y = 0; y < height; ++y) {
      const unsigned char* in = data.bufferB + y * rowBytes + stripOffset + kAlphaByte;
      for (size_t k = 0; k < count; ++k) lanes.lines[y * lanes.stride + k] = in[k * kBytesPerPixel];
    }
    ErodeLanes(lanes, height, count, data.window, kCentred);
    for (size_t y = 0; y < height; ++y) {
      const size_t offset = y * rowBytes + stripOffset;
      if (offset >= data.bufferALimit) break;
      const size_t pixels = std::min(stripBytes, data.bufferALimit - offset) / kBytesPerPixel;
      const unsigned char* in = data.bufferB + offset;
      unsigned char* out = data.bufferA + offset;
      const unsigned char* alphas = lanes.lines + y * lanes.stride;
      for (size_t k = 0; k < pixels; ++k) {
        uint32_t pixel;
        std::memcpy(&pixel, in + k * kBytesPerPixel, sizeof pixel);
        pixel = (pixel & ~(0xFFu << (8 * kAlphaByte))) | (static_cast<uint32_t>(alphas[k]) << (8 * kAlphaByte));
        std::memcpy(out + k * kBytesPerPixel, &pixel, sizeof pixel);
      }
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
  // The previous render's image is reused when nothing else holds it and it
  // has the same shape: every byte is rewritten below.
  std::tr1::shared_ptr<KVImage8> intermediate = m_intermediate;
  m_intermediate.reset();
  if (!intermediate || intermediate.use_count() != 1 || intermediate->Width() != width ||
      intermediate->Height() != height || intermediate->PixelChannelOrder() != source->PixelChannelOrder()) {
    intermediate.reset(new KVImage8(width, height, source->PixelChannelOrder(), false));
  }
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
    const size_t scratchBytes = WhiteErodeScratchBytes(width, rowsPerThread);
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
    // std::bad_alloc here ends this thread with code 8.
    scratch.resize(WhiteErodeScratchBytes(record.height, columns.end - columns.begin));
    record.scratch = scratch.data();
  }
  VertErodeWhiteProc(&record);
  return 0;
}

}  // namespace image
}  // namespace kvo
