#ifndef KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURCORE_H
#define KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURCORE_H

// The stack-blur arithmetic shared by every stage that blurs with it.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include <kvimage/blur.h>

namespace kvo {
namespace image {

// The integer a host stored in an enumeration argument. Hosts may pass any
// value cast to the enumeration; it is read as its bytes so that values
// outside the enumerators are kept as given and never loaded as the enum.
template <class Enum>
inline int EnumArgumentValue(const Enum& argument) {
  static_assert(sizeof(Enum) == sizeof(int), "enumerations are int-sized");
  int value;
  std::memcpy(&value, &argument, sizeof value);
  return value;
}

// Above this radius 255 * (radius+1)^2, the largest weighted sum of a window,
// leaves the 32-bit range of the running sums and of the divide table's index.
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

// ceil(total / threads) in double precision, truncated; 0 threads give 0.
uint32_t LinesPerThread(uint32_t total, uint32_t threads);

// One line of the stack blur over the positions 0 .. n-1 with C channels.
//   fetch(offset, values): reads the C values at offset position * unit,
//             position in 0 .. n-1;
//   enter(i): the offset that enters the window after output i (the
//             edgeIndex entry: min(i + radius + 1, n - 1) * unit);
//   emit(i, sums): writes output i from the C window sums (divideTable[sum]).
// stack holds (2 * radius + 1) * C values.
template <unsigned C, class Fetch, class Enter, class Emit>
inline void StackBlurLine(uint32_t n, size_t unit, uint32_t radius, uint32_t* stack, Fetch fetch, Enter enter,
                          Emit emit) {
  const int64_t r = radius;
  const uint32_t div = 2 * radius + 1;
  const uint32_t r1 = radius + 1;
  uint32_t sum[C], inSum[C], outSum[C];
  for (unsigned c = 0; c < C; ++c) sum[c] = inSum[c] = outSum[c] = 0;

  const int64_t last = static_cast<int64_t>(n) - 1;
  for (int64_t i = -r; i <= r; ++i) {
    uint32_t* entry = stack + static_cast<size_t>(i + r) * C;
    fetch(static_cast<size_t>(std::min(std::max<int64_t>(i, 0), last)) * unit, entry);
    const uint32_t weight = r1 - static_cast<uint32_t>(i < 0 ? -i : i);
    for (unsigned c = 0; c < C; ++c) {
      sum[c] += entry[c] * weight;
      if (i <= 0) {
        outSum[c] += entry[c];
      } else {
        inSum[c] += entry[c];
      }
    }
  }

  uint32_t sp = radius;
  uint32_t oldest = 0;  // (sp - radius + div) mod div
  for (uint32_t i = 0; i < n; ++i) {
    emit(i, sum);
    uint32_t* entry = stack + static_cast<size_t>(oldest) * C;
    for (unsigned c = 0; c < C; ++c) {
      sum[c] -= outSum[c];
      outSum[c] -= entry[c];
    }
    fetch(static_cast<size_t>(enter(i)), entry);
    for (unsigned c = 0; c < C; ++c) {
      inSum[c] += entry[c];
      sum[c] += inSum[c];
    }
    sp = sp + 1 == div ? 0 : sp + 1;
    oldest = oldest + 1 == div ? 0 : oldest + 1;
    const uint32_t* next = stack + static_cast<size_t>(sp) * C;
    for (unsigned c = 0; c < C; ++c) {
      outSum[c] += next[c];
      inSum[c] -= next[c];
    }
  }
}

// The window stack of one line, (2 * radius + 1) * channels values.
inline std::vector<uint32_t> StackBlurWindow(uint32_t radius, unsigned channels) {
  return std::vector<uint32_t>((2 * static_cast<size_t>(radius) + 1) * channels);
}

// The row pass over rows of `data`'s share: C channels fetched by `fetch(rowStart + x, values)`,
// emitted by `emit(rowStart + x, sums)`.
template <unsigned C, class Fetch, class Emit>
inline void RowPass(const StackBlurData& data, Fetch fetch, Emit emit) {
  if (data.width == 0 || data.height == 0) return;
  const LineShare rows = LineShareOf(data.threadIndex, data.rowsPerThread, data.height);
  if (rows.first == rows.end) return;
  std::vector<uint32_t> stack = StackBlurWindow(data.radius, C);
  const int32_t* edgeIndex = data.edgeIndex;
  for (uint32_t y = rows.first; y < rows.end; ++y) {
    const size_t rowStart = static_cast<size_t>(y) * data.width;
    StackBlurLine<C>(
        data.width, 1, data.radius, stack.data(),
        [&](size_t offset, uint32_t* values) { fetch(rowStart + offset, values); },
        [&](uint32_t x) { return edgeIndex[x]; }, [&](uint32_t x, const uint32_t* sums) { emit(rowStart + x, sums); });
  }
}

// The column pass over the columns of `data`'s share.
template <unsigned C, class Fetch, class Emit>
inline void ColumnPass(const StackBlurData& data, Fetch fetch, Emit emit) {
  if (data.width == 0 || data.height == 0) return;
  const LineShare columns = LineShareOf(data.threadIndex, data.columnsPerThread, data.width);
  if (columns.first == columns.end) return;
  std::vector<uint32_t> stack = StackBlurWindow(data.radius, C);
  const int32_t* edgeIndex = data.edgeIndex;
  const size_t width = data.width;
  for (uint32_t x = columns.first; x < columns.end; ++x) {
    StackBlurLine<C>(
        data.height, width, data.radius, stack.data(),
        [&](size_t offset, uint32_t* values) { fetch(offset + x, values); },
        [&](uint32_t y) { return edgeIndex[y]; },
        [&](uint32_t y, const uint32_t* sums) { emit(static_cast<size_t>(y) * width + x, sums); });
  }
}

// Throws std::bad_alloc for a radius whose divide table cannot be built.
void CheckStackBlurRadius(uint32_t radius);

}  // namespace image
}  // namespace kvo

#endif
