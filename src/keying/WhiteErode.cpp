#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include <kvimage/keying.h>

#include "keying/WhiteErodeKernels.h"
#include "pipeline/ResultCodes.h"
#include "pipeline/StageNeeds.h"
#include "support/AssertionSites.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// The erode is defined by a ring of `window` values that starts full of 255
// and whose minimum is taken after every put, so the output at a step is the
// minimum of the last `window` values put. Written out per line shape that is
// a plain sliding minimum over the line with one value read as 255:
// - trailing: out(x) = min line[x - window + 1 .. x];
// - leading: out(x) = min line[x .. x + window - 1], line[0] read as 255;
// - centred (half = size): out(x) = min line[x - half .. x + half] with
//   line[half - 1] read as 255 (it is never put), and for half < x < 2 * half
//   also line[x - half - 1] (the prefill keeps it in the ring one step longer);
// values beyond the line are 255. WhiteErodeLineByRing (WhiteErodeRing.h) is
// the ring itself, the form these are checked against.
//
// The sliding minimum runs on a copy of the line padded with 255 by doubling:
// after passes of span 1, 2, 4 .. S (S the largest power of two not above the
// window) each entry holds the minimum of S consecutive values, and two
// overlapping entries give any window: a handful of byte-wise minima per 16
// values whatever the size. Rows run along the padded copy; columns run a
// strip of kStripLanes columns at a time, one row of the strip per entry.

namespace {

const size_t kStripLanes = 64;

enum LineShape { kCentred, kTrailing, kLeading };

LineShape ShapeOf(KVWhiteErodeDirection direction) {
  if (direction == kWhiteErodeAll) return kCentred;
  if (direction == kWhiteErodeRightward) return kTrailing;
  return kLeading;
}

// The window of one line of n values (n >= 1): out(x) = min of the padded
// copy s[x .. x + width - 1], where s[i] = line[i - lead] (255 outside the
// line) and line[excluded] reads as 255; for x in [extraBegin, extraEnd) the
// value line[x - extraOffset] joins the minimum. A window wider than the line
// is cut to one that covers it all from every position, which changes nothing.
struct LineWindow {
  size_t width;
  size_t lead;
  size_t excluded;  // n when no value is excluded
  size_t extraBegin;
  size_t extraEnd;
  size_t extraOffset;
  size_t span;  // the last doubling span: the largest power of two <= width
  size_t padded;  // entries of the padded copy, a multiple of 16 with room for every read
};

LineWindow WindowOf(size_t n, int64_t window, LineShape shape) {
  LineWindow w = {1, 0, n, 0, 0, 0, 1, 0};
  const uint64_t limit = static_cast<uint64_t>(n);
  const uint64_t requested = window < 1 ? 1 : static_cast<uint64_t>(window);
  if (shape == kCentred) {
    const uint64_t half = requested / 2;
    const uint64_t cut = std::min(half, limit);
    w.width = static_cast<size_t>(2 * cut + 1);
    w.lead = static_cast<size_t>(cut);
    if (half >= 1 && half - 1 < limit) w.excluded = static_cast<size_t>(half - 1);
    if (half + 1 < limit) {
      w.extraBegin = static_cast<size_t>(half + 1);
      w.extraEnd = static_cast<size_t>(std::min(2 * half, limit));
      w.extraOffset = static_cast<size_t>(half + 1);
    }
  } else {
    w.width = static_cast<size_t>(std::min(requested, limit));
    w.lead = shape == kTrailing ? w.width - 1 : 0;
    if (shape == kLeading) w.excluded = 0;
  }
  while (2 * w.span <= w.width) w.span *= 2;
  // Entries up to n + width are computed in every pass; a pass reads up to
  // span + 15 entries further.
  w.padded = (n + 2 * w.width + 32 + 15) / 16 * 16;
  return w;
}

// Scratch entries for one line (rows) or one strip row (columns).
size_t PaddedEntries(size_t n) { return (n + 2 * (2 * n + 1) + 32 + 15) / 16 * 16; }

// The sliding minimum of one row held in s (w.padded entries, the line at
// s[lead ..], 255 elsewhere); the n results replace s[0 .. n).
void SlideRow(unsigned char* s, size_t n, const LineWindow& w, const ErodeKernels& kernels) {
  const size_t computed = (n + w.width + 15) / 16 * 16;
  for (size_t span = 1; span < w.span; span *= 2) kernels.minima(s, s + span, computed);
  kernels.minima(s, s + (w.width - w.span), (n + 15) / 16 * 16);
}

// The same for a strip: entry i is a row of kStripLanes bytes.
void SlideStrip(unsigned char* s, size_t n, const LineWindow& w, const ErodeKernels& kernels) {
  const size_t computed = n + w.width;
  for (size_t span = 1; span < w.span; span *= 2) {
    kernels.minima(s, s + span * kStripLanes, computed * kStripLanes);
  }
  kernels.minima(s, s + (w.width - w.span) * kStripLanes, n * kStripLanes);
}

// The record of one thread of either pass; the caller sets the share size
// and scratch of its pass.
ErodeWhiteData PassRecord(unsigned int threadIndex, unsigned int width, unsigned int height, unsigned char* bufferA,
                          unsigned char* bufferB, int64_t window, KVWhiteErodeDirection direction) {
  ErodeWhiteData record = {threadIndex, 0, 0, width, height, bufferA, bufferB, window, direction, 0, nullptr};
  return record;
}

// The record's scratch, or one of the pass's own; null when none can be had.
unsigned char* ScratchFor(ErodeWhiteData& data, size_t lineLength, std::unique_ptr<unsigned char[]>& owned) {
  if (data.scratch != nullptr) return data.scratch;
  owned.reset(new (std::nothrow) unsigned char[WhiteErodeScratchBytes(lineLength, 1)]);
  return owned.get();
}

// Windows up to this many values are taken as the least of their values
// read in place (cost linear in the window, no scratch); wider ones by the
// doubling passes over a padded copy (cost logarithmic in the window). The
// window's values are read again for every output, which outweighs the
// doubling passes beyond about this width (measured at 17: no faster).
const size_t kWidestWindowInPlace = 9;
static_assert(kWidestWindowInPlace + 1 <= kMostLeastAlphaRows, "the window's lines and the extra line fit");

// The least alpha of the window of output x over a line of n pixels whose
// value i lies at line[i * stride].
unsigned char LeastInWindow(const unsigned char* line, size_t stride, size_t n, size_t x, const LineWindow& w) {
  const size_t first = x >= w.lead ? x - w.lead : 0;
  const size_t last = std::min(n - 1, x + (w.width - 1 - w.lead));
  unsigned char lowest = 255;
  for (size_t r = first; r <= last; ++r) {
    if (r != w.excluded) lowest = std::min(lowest, line[r * stride + kAlphaByte]);
  }
  if (x >= w.extraBegin && x < w.extraEnd) lowest = std::min(lowest, line[(x - w.extraOffset) * stride + kAlphaByte]);
  return lowest;
}

// A row of a narrow window from `in` to `out`, colour bytes and all: the
// outputs whose window lies inside the row and clear of the excluded and
// extra values take the least of the window's pixels read in place as
// shifted rows; the few others scan their window.
void ErodeRowInPlace(const unsigned char* in, unsigned char* out, size_t n, const LineWindow& w,
                     const ErodeKernels& kernels) {
  size_t begin = std::max(w.lead, w.extraEnd);
  if (w.excluded < n) begin = std::max(begin, w.excluded + w.lead + 1);
  size_t end = n + w.lead + 1 >= w.width ? n + w.lead + 1 - w.width : 0;
  if (begin >= end) begin = end = n;
  for (size_t x = 0; x < n; ++x) {
    if (x == begin) {
      const unsigned char* shifted[kMostLeastAlphaRows];
      for (size_t k = 0; k < w.width; ++k) shifted[k] = in + (begin + k - w.lead) * kBytesPerPixel;
      const size_t offset = begin * kBytesPerPixel;
      kernels.leastAlphas(shifted, w.width, in + offset, end - begin, out + offset);
      x = end - 1;
      continue;
    }
    const size_t offset = x * kBytesPerPixel;
    std::memcpy(out + offset, in + offset, kAlphaByte);
    out[offset + kAlphaByte] = LeastInWindow(in, kBytesPerPixel, n, x, w);
  }
}

// The horizontal pass over the record's rows. With copyColour the colour
// bytes of bufferB are written from bufferA as well (Setup's copy of the
// source fused into the pass); otherwise only its alpha bytes are written.
int ErodeRows(ErodeWhiteData& data, bool copyColour, const ErodeKernels& kernels) {
  const ShareRun rows = ShareOfLinesSized(data.height, data.rowsPerThread, data.threadIndex);
  if (rows.count == 0 || data.width == 0) return 0;
  if (copyColour && WindowOf(data.width, data.window, ShapeOf(data.direction)).width <= kWidestWindowInPlace) {
    const size_t n = data.width, rowBytes = n * kBytesPerPixel;
    const LineWindow w = WindowOf(n, data.window, ShapeOf(data.direction));
    for (uint64_t y = rows.start; y < rows.End(); ++y) {
      ErodeRowInPlace(data.bufferA + y * rowBytes, data.bufferB + y * rowBytes, n, w, kernels);
    }
    return 0;
  }
  std::unique_ptr<unsigned char[]> owned;
  unsigned char* s = ScratchFor(data, data.width, owned);
  if (s == nullptr) return kResultOutOfMemory;
  const size_t n = data.width, rowBytes = n * kBytesPerPixel;
  const LineWindow w = WindowOf(n, data.window, ShapeOf(data.direction));
  for (uint64_t y = rows.start; y < rows.End(); ++y) {
    const unsigned char* in = data.bufferA + y * rowBytes;
    unsigned char* out = data.bufferB + y * rowBytes;
    std::memset(s, 255, w.padded);
    kernels.extractAlphas(in, n, s + w.lead);
    if (w.excluded < n) s[w.lead + w.excluded] = 255;
    SlideRow(s, n, w, kernels);
    for (size_t x = w.extraBegin; x < w.extraEnd; ++x) {
      s[x] = std::min(s[x], in[(x - w.extraOffset) * kBytesPerPixel + kAlphaByte]);
    }
    kernels.mergeAlphas(copyColour ? in : out, s, n, out);
  }
  return 0;
}

// The vertical pass without scratch, for when none can be had: every
// output scans its window in the intermediate. Slow for wide windows, but it
// cannot fail, so the pass always writes all of its columns.
void ErodeColumnsByScan(const ErodeWhiteData& data, ShareRun columns, const LineWindow& w) {
  const size_t height = data.height, rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;
  for (uint64_t x = columns.start; x < columns.End(); ++x) {
    const unsigned char* column = data.bufferB + x * kBytesPerPixel;
    for (size_t y = 0; y < height; ++y) {
      const size_t offset = y * rowBytes + x * kBytesPerPixel;
      if (offset + kBytesPerPixel > data.bufferALimit) break;
      // Rows y - lead .. y - lead + width - 1 of the padded column.
      const size_t first = y >= w.lead ? y - w.lead : 0;
      const size_t last = std::min(height - 1, y + (w.width - 1 - w.lead));
      unsigned char lowest = 255;
      for (size_t r = first; r <= last; ++r) {
        if (r != w.excluded) lowest = std::min(lowest, column[r * rowBytes + kAlphaByte]);
      }
      if (y >= w.extraBegin && y < w.extraEnd) {
        lowest = std::min(lowest, column[(y - w.extraOffset) * rowBytes + kAlphaByte]);
      }
      std::memcpy(data.bufferA + offset, data.bufferB + offset, kAlphaByte);
      data.bufferA[offset + kAlphaByte] = lowest;
    }
  }
}

// The vertical pass over the record's columns: the centred direction erodes
// them, the others copy them.
void ErodeColumns(ErodeWhiteData& data, const ErodeKernels& kernels) {
  const ShareRun columns = ShareOfLinesSized(data.width, data.columnsPerThread, data.threadIndex);
  if (columns.count == 0 || data.height == 0) return;
  const size_t height = data.height, rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;

  if (ShapeOf(data.direction) != kCentred) {
    const size_t stripBytes = columns.count * kBytesPerPixel;
    for (size_t y = 0; y < height; ++y) {
      const size_t offset = y * rowBytes + columns.start * kBytesPerPixel;
      if (offset >= data.bufferALimit) break;
      std::memcpy(data.bufferA + offset, data.bufferB + offset, std::min(stripBytes, data.bufferALimit - offset));
    }
    return;
  }

  const LineWindow w = WindowOf(height, data.window, kCentred);
  std::unique_ptr<unsigned char[]> owned;
  unsigned char* s = ScratchFor(data, height, owned);
  if (s == nullptr) {
    ErodeColumnsByScan(data, columns, w);
    return;
  }
  for (uint64_t first = columns.start; first < columns.End(); first += kStripLanes) {
    const size_t count = static_cast<size_t>(std::min<uint64_t>(kStripLanes, columns.End() - first));
    const size_t stripOffset = first * kBytesPerPixel;
    std::memset(s, 255, w.padded * kStripLanes);
    for (size_t y = 0; y < height; ++y) {
      if (y == w.excluded) continue;
      kernels.extractAlphas(data.bufferB + y * rowBytes + stripOffset, count, s + (y + w.lead) * kStripLanes);
    }
    SlideStrip(s, height, w, kernels);
    for (size_t y = w.extraBegin; y < w.extraEnd; ++y) {
      const unsigned char* above = data.bufferB + (y - w.extraOffset) * rowBytes + stripOffset + kAlphaByte;
      unsigned char* row = s + y * kStripLanes;
      for (size_t k = 0; k < count; ++k) row[k] = std::min(row[k], above[k * kBytesPerPixel]);
    }
    for (size_t y = 0; y < height; ++y) {
      const size_t offset = y * rowBytes + stripOffset;
      if (offset >= data.bufferALimit) break;
      const size_t pixels = std::min(count * kBytesPerPixel, data.bufferALimit - offset) / kBytesPerPixel;
      kernels.mergeAlphas(data.bufferB + offset, s + y * kStripLanes, pixels, data.bufferA + offset);
    }
  }
}

// The vertical pass of a narrow centred window over the record's rows: each
// output row takes its alphas as the least over the window's rows of the
// intermediate, read along the rows, and needs no scratch.
void ErodeColumnsAlongRows(const ErodeWhiteData& data, const ErodeKernels& kernels) {
  const ShareRun rows = ShareOfLinesSized(data.height, data.rowsPerThread, data.threadIndex);
  if (rows.count == 0 || data.width == 0) return;
  const size_t height = data.height, rowBytes = static_cast<size_t>(data.width) * kBytesPerPixel;
  const LineWindow w = WindowOf(height, data.window, kCentred);
  const unsigned char* windowRows[kMostLeastAlphaRows];
  for (uint64_t y = rows.start; y < rows.End(); ++y) {
    const size_t offset = y * rowBytes;
    if (offset >= data.bufferALimit) break;
    const size_t pixels = std::min(rowBytes, data.bufferALimit - offset) / kBytesPerPixel;
    // Rows y - lead .. y - lead + width - 1 of the padded column.
    const size_t first = y >= w.lead ? y - w.lead : 0;
    const size_t last = std::min(height - 1, y + (w.width - 1 - w.lead));
    size_t count = 0;
    for (size_t r = first; r <= last; ++r) {
      if (r != w.excluded) windowRows[count++] = data.bufferB + r * rowBytes;
    }
    if (y >= w.extraBegin && y < w.extraEnd) windowRows[count++] = data.bufferB + (y - w.extraOffset) * rowBytes;
    kernels.leastAlphas(windowRows, count, data.bufferB + offset, pixels, data.bufferA + offset);
  }
}

// Narrow windows erode the columns along the rows, every read a whole row.
bool ErodesAlongRows(size_t height, int64_t window) {
  return WindowOf(height, window, kCentred).width <= kWidestWindowInPlace;
}

}  // namespace

// Enough for either pass: a row needs one padded line, a strip of columns
// kStripLanes of them however few columns it holds.
size_t WhiteErodeScratchBytes(size_t lineLength, size_t) {
  return kStripLanes * PaddedEntries(std::max<size_t>(lineLength, 1));
}

void* HorizErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  return ThreadExitValue(ErodeRows(*static_cast<ErodeWhiteData*>(argument), false, ChooseErodeKernels()));
}

void* VertErodeWhiteProc(void* argument) {
  if (argument == nullptr) return ThreadExitValue(0);
  ErodeColumns(*static_cast<ErodeWhiteData*>(argument), ChooseErodeKernels());
  return ThreadExitValue(0);
}

WhiteErodeRenderer::WhiteErodeRenderer(KVWhiteErodeDirection direction, int size)
    : m_direction(direction),
      m_window(2 * static_cast<int64_t>(std::max(size, 0)) + 1),
      m_extractAlphas(ExtractAlphas_Plain),
      m_mergeAlphas(MergeAlphas_Plain),
      m_minima(Minima_Plain),
      m_leastAlphas(LeastAlphas_Plain) {}

void WhiteErodeRenderer::Setup(KVAbstractImage* source) {
  const unsigned int width = source->Width(), height = source->Height();
  const ErodeKernels kernels = ChooseErodeKernels();
  m_extractAlphas = kernels.extractAlphas;
  m_mergeAlphas = kernels.mergeAlphas;
  m_minima = kernels.minima;
  m_leastAlphas = kernels.leastAlphas;
  // The previous render's image is reused when nothing else holds it and it
  // has the same shape: every byte is rewritten below.
  std::tr1::shared_ptr<KVImage8> intermediate = m_intermediate;
  m_intermediate.reset();
  if (!intermediate || intermediate.use_count() != 1 || intermediate->Width() != width ||
      intermediate->Height() != height || intermediate->PixelChannelOrder() != source->PixelChannelOrder()) {
    intermediate.reset(new KVImage8(width, height, source->PixelChannelOrder(), false));
  }
  // The threads below copy the source into it row by row as they erode
  // (their rows cover the image); without threads it is a plain copy.
  const unsigned char threads = PassThreadCount();
  if (threads == 0 && intermediate->BufferByteSize() != 0) {
    std::memcpy(intermediate->Buffer(), PixelBytes(source), intermediate->BufferByteSize());
  }
  if (threads != 0 && width != 0) {
    const unsigned int rowsPerThread = SaturatedShareSize(height, threads);
    size_t busyThreads = 0;
    for (unsigned int t = 0; t < threads; ++t) {
      if (ShareOfLinesSized(height, rowsPerThread, t).count != 0) busyThreads = t + 1;
    }
    // Every thread's scratch is taken here, so a failed allocation reaches the
    // caller as std::bad_alloc rather than ending a worker.
    const size_t scratchBytes = PaddedEntries(width);
    std::unique_ptr<unsigned char[]> scratch(new unsigned char[busyThreads * scratchBytes]);
    // The rows of the source eroded into the intermediate, colour bytes and
    // all.
    const int code = RunParallel(threads, [&](unsigned char threadIndex, unsigned char) {
      ErodeWhiteData record =
          PassRecord(threadIndex, width, height, PixelBytes(source), intermediate->Buffer(), m_window, m_direction);
      record.rowsPerThread = rowsPerThread;
      record.scratch = threadIndex < busyThreads ? scratch.get() + threadIndex * scratchBytes : nullptr;
      return ErodeRows(record, true, kernels);
    });
    if (code == kResultOutOfMemory) throw std::bad_alloc();
  }
  m_intermediate = intermediate;
}

// Once Setup has made the intermediate, the shares (of rows for a narrow
// centred window, of columns otherwise) cover the output and each writes
// every byte of its lines (eroding by scan when no scratch can be had);
// inputs other than 8-bit BGRA abort.
StageNeeds NeedsOf(const WhiteErodeRenderer&) { return StageNeeds{IsBGRA8, false}; }

int WhiteErodeRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount) {
  AssertBGRA8(source, kAssertWhiteErodeFormat);
  return Render8(source, destination, threadIndex, threadCount);
}

// The vertical pass over this thread's columns of the intermediate.
int WhiteErodeRenderer::Render8(KVAbstractImage*, KVAbstractImage* destination, unsigned char threadIndex,
                                unsigned char threadCount) {
  const std::tr1::shared_ptr<KVImage8> intermediate = m_intermediate;
  if (!intermediate || threadCount == 0) return 0;
  ErodeWhiteData record = PassRecord(threadIndex, intermediate->Width(), intermediate->Height(),
                                     PixelBytes(destination), intermediate->Buffer(), m_window, m_direction);
  record.columnsPerThread = SaturatedShareSize(intermediate->Width(), threadCount);
  record.bufferALimit = destination->BufferByteSize();
  const ErodeKernels kernels{m_extractAlphas, m_mergeAlphas, m_minima, m_leastAlphas};
  if (ShapeOf(m_direction) == kCentred && ErodesAlongRows(record.height, m_window)) {
    record.rowsPerThread = SaturatedShareSize(record.height, threadCount);
    ErodeColumnsAlongRows(record, kernels);
    return 0;
  }
  // Without scratch the pass scans instead: it writes all its columns
  // whatever memory is left.
  std::unique_ptr<unsigned char[]> scratch;
  if (ShapeOf(m_direction) == kCentred &&
      ShareOfLinesSized(record.width, record.columnsPerThread, threadIndex).count != 0) {
    scratch.reset(new (std::nothrow) unsigned char[WhiteErodeScratchBytes(record.height, 1)]);
    record.scratch = scratch.get();
  }
  ErodeColumns(record, kernels);
  return 0;
}

}  // namespace image
}  // namespace kvo
