#ifndef KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURCORE_H
#define KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURCORE_H

// The stack-blur arithmetic shared by every stage that blurs with it.
#include <emmintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <kvimage/blur.h>

#include "renderers/blur/StackBlurPasses.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Up to this radius 255 * (radius+1)^2, the largest weighted sum of a window,
// stays below 2^31: the passes keep 32-bit sums and divide them with
// StackBlurDivider. Larger radii take 128-bit sums (StackBlurWideLine).
const uint32_t kLargestStackBlurRadius = 2895;

// The lines [first, first + count) of a share of `perShare` lines out of
// `total`, cut at the end (empty for a share that starts beyond it).
struct LineShare {
  uint32_t first;
  uint32_t end;
};

inline LineShare LineShareOf(uint32_t threadIndex, uint32_t perShare, uint32_t total) {
  const uint64_t first = static_cast<uint64_t>(threadIndex) * perShare;
  LineShare share = {0, 0};
  if (first >= total) return share;
  share.first = static_cast<uint32_t>(first);
  share.end = static_cast<uint32_t>(std::min<uint64_t>(first + perShare, total));
  return share;
}


// Divides a window sum by (radius + 1)^2 exactly as divideTable[sum] does
// (rounding down), with a multiply and a shift instead of a lookup in a table
// that outgrows the caches at large radii. Exact for every sum below 2^31,
// which covers 255 * (radius + 1)^2 up to the largest radius.
class StackBlurDivider {
 public:
  explicit StackBlurDivider(uint32_t radius = 0) {
    // Radii beyond the largest never reach a pass; clamped to keep the shift in range.
    const uint64_t side = static_cast<uint64_t>(std::min(radius, kLargestStackBlurRadius)) + 1;
    Build(side * side);
  }
  // The same exact division of sums below 2^31 by any divisor from 1.
  static StackBlurDivider OfDivisor(uint32_t divisor) {
    StackBlurDivider divider;
    divider.Build(divisor == 0 ? 1 : divisor);
    return divider;
  }
  int32_t operator()(uint32_t sum) const { return static_cast<int32_t>((sum * m_multiplier) >> m_shift); }
  // m = 2^shift / divisor + 1 with shift = 31 + ceil(log2 divisor) stays below 2^32.
  uint32_t Multiplier() const { return static_cast<uint32_t>(m_multiplier); }
  unsigned Shift() const { return m_shift; }

 private:
  void Build(uint64_t divisor) {
    unsigned bits = 0;
    while ((uint64_t(1) << bits) < divisor) ++bits;  // ceil(log2 divisor)
    m_shift = 31 + bits;
    m_multiplier = (uint64_t(1) << m_shift) / divisor + 1;
  }

  uint64_t m_multiplier;
  unsigned m_shift;
};

// StackBlurDivider on four lanes: sums below 2^31 times a multiplier below
// 2^32 stay below 2^63, so the 64-bit products of _mm_mul_epu32 are exact.
class LaneDivider {
 public:
  explicit LaneDivider(const StackBlurDivider& divider)
      : m_multiplier(_mm_set1_epi32(static_cast<int>(divider.Multiplier()))),
        m_shift(_mm_cvtsi32_si128(static_cast<int>(divider.Shift()))) {}
  __m128i operator()(__m128i sums) const {
    const __m128i even = _mm_srl_epi64(_mm_mul_epu32(sums, m_multiplier), m_shift);
    const __m128i odd = _mm_srl_epi64(_mm_mul_epu32(_mm_srli_epi64(sums, 32), m_multiplier), m_shift);
    return _mm_or_si128(even, _mm_slli_epi64(odd, 32));
  }

 private:
  __m128i m_multiplier;
  __m128i m_shift;
};

// The most lines a pass blurs side by side: adjacent columns walked together
// read whole cache lines of a plane per row instead of one value from each.
const unsigned kStackBlurLinesPerBlock = 256;

// `lines` (at most MaxLines) lines of the stack blur, side by side, over the
// positions 0 .. n-1 with C channels. Line l's position p lies at offset
// p * unit in that line.
//   fetch(offset, l, values): reads line l's C values at an offset;
//   enter(i): the offset that enters the window after output i (the
//             edgeIndex entry: min(i + radius + 1, n - 1) * unit);
//   emit(i, l, sums): takes line l's output i from its C window sums;
//   flush(i): called once every line has emitted output i.
// stack holds (2 * radius + 1) * lines * C values.
template <unsigned C, unsigned MaxLines, class Fetch, class Enter, class Emit, class Flush>
inline void StackBlurLines(uint32_t n, size_t unit, uint32_t radius, unsigned lines, uint32_t* stack, Fetch fetch,
                           Enter enter, Emit emit, Flush flush) {
  const int64_t r = radius;
  const uint32_t div = 2 * radius + 1;
  const uint32_t r1 = radius + 1;
  const size_t slot = static_cast<size_t>(lines) * C;  // one window entry of every line
  uint32_t sum[MaxLines][C], inSum[MaxLines][C], outSum[MaxLines][C];
  for (unsigned l = 0; l < lines; ++l) {
    for (unsigned c = 0; c < C; ++c) sum[l][c] = inSum[l][c] = outSum[l][c] = 0;
  }

  const int64_t last = static_cast<int64_t>(n) - 1;
  for (int64_t i = -r; i <= r; ++i) {
    const size_t offset = static_cast<size_t>(std::min(std::max<int64_t>(i, 0), last)) * unit;
    const uint32_t weight = r1 - static_cast<uint32_t>(i < 0 ? -i : i);
    for (unsigned l = 0; l < lines; ++l) {
      uint32_t* entry = stack + static_cast<size_t>(i + r) * slot + l * C;
      fetch(offset, l, entry);
      for (unsigned c = 0; c < C; ++c) {
        sum[l][c] += entry[c] * weight;
        if (i <= 0) {
          outSum[l][c] += entry[c];
        } else {
          inSum[l][c] += entry[c];
        }
      }
    }
  }

  uint32_t sp = radius;
  uint32_t oldest = 0;  // (sp - radius + div) mod div
  for (uint32_t i = 0; i < n; ++i) {
    const size_t entering = static_cast<size_t>(enter(i));
    const uint32_t nextSp = sp + 1 == div ? 0 : sp + 1;
    for (unsigned l = 0; l < lines; ++l) {
      emit(i, l, sum[l]);
      uint32_t* entry = stack + static_cast<size_t>(oldest) * slot + l * C;
      for (unsigned c = 0; c < C; ++c) {
        sum[l][c] -= outSum[l][c];
        outSum[l][c] -= entry[c];
      }
      fetch(entering, l, entry);
      for (unsigned c = 0; c < C; ++c) {
        inSum[l][c] += entry[c];
        sum[l][c] += inSum[l][c];
      }
      const uint32_t* next = stack + static_cast<size_t>(nextSp) * slot + l * C;
      for (unsigned c = 0; c < C; ++c) {
        outSum[l][c] += next[c];
        inSum[l][c] -= next[c];
      }
    }
    flush(i);
    sp = nextSp;
    oldest = oldest + 1 == div ? 0 : oldest + 1;
  }
}

// One line: fetch(offset, values), emit(i, sums).
template <unsigned C, class Fetch, class Enter, class Emit>
inline void StackBlurLine(uint32_t n, size_t unit, uint32_t radius, uint32_t* stack, Fetch fetch, Enter enter,
                          Emit emit) {
  StackBlurLines<C, 1>(
      n, unit, radius, 1, stack, [&](size_t offset, unsigned, uint32_t* values) { fetch(offset, values); }, enter,
      [&](uint32_t i, unsigned, const uint32_t* sums) { emit(i, sums); }, [](uint32_t) {});
}

// The window stack of `lines` lines, (2 * radius + 1) * lines * channels values.
inline std::vector<uint32_t> StackBlurWindow(uint32_t radius, unsigned channels, unsigned lines = 1) {
  return std::vector<uint32_t>((2 * static_cast<size_t>(radius) + 1) * channels * lines);
}

// The row pass over rows of `data`'s share: C channels fetched by `fetch(rowStart + x, values)`,
// emitted divided by `emit(rowStart + x, quotients)`.
template <unsigned C, class Fetch, class Emit>
inline void RowPass(const StackBlurData& data, Fetch fetch, Emit emit) {
  if (data.width == 0 || data.height == 0) return;
  const LineShare rows = LineShareOf(data.threadIndex, data.rowsPerThread, data.height);
  if (rows.first == rows.end) return;
  if (data.radius > kLargestStackBlurRadius) {
    for (uint32_t y = rows.first; y < rows.end; ++y) {
      const size_t rowStart = static_cast<size_t>(y) * data.width;
      StackBlurWideLine<C>(
          data.width, data.radius, [&](uint64_t x, uint32_t* values) { fetch(rowStart + x, values); },
          [&](uint64_t x, const uint32_t* quotients) { emit(rowStart + x, quotients); });
    }
    return;
  }
  std::vector<uint32_t> stack = StackBlurWindow(data.radius, C);
  const int32_t* edgeIndex = data.edgeIndex;
  const StackBlurDivider divide(data.radius);
  for (uint32_t y = rows.first; y < rows.end; ++y) {
    const size_t rowStart = static_cast<size_t>(y) * data.width;
    StackBlurLine<C>(
        data.width, 1, data.radius, stack.data(),
        [&](size_t offset, uint32_t* values) { fetch(rowStart + offset, values); },
        [&](uint32_t x) { return edgeIndex[x]; },
        [&](uint32_t x, const uint32_t* sums) {
          uint32_t quotients[C];
          for (unsigned c = 0; c < C; ++c) quotients[c] = static_cast<uint32_t>(divide(sums[c]));
          emit(rowStart + x, quotients);
        });
  }
}

// The column pass over the columns of `data`'s share, in blocks of columns
// walked side by side: fetch(pixel, values) reads a pixel's C values; store(pixel, values,
// count) writes the divided results of `count` adjacent pixels of a row.
// (The results of a row are gathered locally and stored together: a byte
// store to the image may alias anything and would make every step reload the
// pass's state.)
template <unsigned C, class Fetch, class Store>
inline void ColumnPass(const StackBlurData& data, Fetch fetch, Store store) {
  if (data.width == 0 || data.height == 0) return;
  const LineShare columns = LineShareOf(data.threadIndex, data.columnsPerThread, data.width);
  if (columns.first == columns.end) return;
  const size_t width = data.width;
  if (data.radius > kLargestStackBlurRadius) {
    for (uint32_t x = columns.first; x < columns.end; ++x) {
      StackBlurWideLine<C>(
          data.height, data.radius, [&](uint64_t y, uint32_t* values) { fetch(y * width + x, values); },
          [&](uint64_t y, const uint32_t* quotients) {
            uint32_t results[1][C];
            for (unsigned c = 0; c < C; ++c) results[0][c] = quotients[c];
            store(y * width + x, results, 1);
          });
    }
    return;
  }
  std::vector<uint32_t> stack =
      StackBlurWindow(data.radius, C, std::min<uint32_t>(kStackBlurLinesPerBlock, columns.end - columns.first));
  const int32_t* edgeIndex = data.edgeIndex;
  const StackBlurDivider divide(data.radius);
  uint32_t results[kStackBlurLinesPerBlock][C];
  for (uint32_t x = columns.first; x < columns.end; x += kStackBlurLinesPerBlock) {
    const unsigned lines = std::min<uint32_t>(kStackBlurLinesPerBlock, columns.end - x);
    StackBlurLines<C, kStackBlurLinesPerBlock>(
        data.height, width, data.radius, lines, stack.data(),
        [&](size_t offset, unsigned l, uint32_t* values) { fetch(offset + x + l, values); },
        [&](uint32_t y) { return edgeIndex[y]; },
        [&](uint32_t, unsigned l, const uint32_t* sums) {
          for (unsigned c = 0; c < C; ++c) results[l][c] = static_cast<uint32_t>(divide(sums[c]));
        },
        [&](uint32_t y) { store(static_cast<size_t>(y) * width + x, results, lines); });
  }
}

}  // namespace image
}  // namespace kvo

#endif
