#ifndef KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURPASSES_H
#define KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURPASSES_H

// The stack blur as the stages run it: a row pass from four-byte pixels into a
// byte plane, and a column pass from that plane into the destination.
//
// Each output is floor(S / (radius + 1)^2), where S is the triangle-weighted
// window sum with the edge values repeating. The sum is an exact integer
// however it is formed, so these passes keep no window stack: the values that
// leave, enter and cross the centre of a window are read where they lie, and
// the sums of the first window take a closed form for the repeated edge
// values. Memory is bounded by the image whatever the radius.
//
// Up to kLargestStackBlurRadius every sum stays below 2^31: four channels
// share one SSE2 register of 32-bit sums, divided by a multiply and a shift.
// Up to kLargestStackBlurRadiusInDoubles they are exact doubles, two to a
// register, divided by a correctly rounded division and truncated.
// Beyond it the sums are 64 or 128 bits wide (255 * (2^32)^2 needs 72) and each
// quotient (0 .. 255) is found from a floating-point estimate corrected
// exactly (64-bit sums up to radius 268961283). Every radius a host can pass
// is served.
#include <cstddef>
#include <cstdint>

#include "support/Conversions.h"

namespace kvo {
namespace image {

// Which bytes of four-byte pixels a row pass blurs into its plane:
// all four (four bytes a pixel), bytes 0 and 1 (two bytes a pixel), or byte 3
// alone (one byte a pixel).
enum StackBlurPlaneKind { kPlaneFourBytes = 4, kPlaneFirstTwoBytes = 2, kPlaneAlphaByte = 1 };

// How the column pass stores what it blurred from the plane:
//   kStoreBytes: the plane's bytes, as they are (a four-byte plane gives pixels);
//   kStoreAlphaOverColour: one-byte plane; each result becomes byte 3 of the
//     pixel whose other bytes come from a colour image;
//   kStoreFirstTwoBytes: two-byte plane; results become bytes 0 and 1 of each
//     target pixel, whose bytes 2 and 3 are kept.
enum StackBlurColumnStore { kStoreBytes, kStoreAlphaOverColour, kStoreFirstTwoBytes };

// Rows [firstRow, endRow) of `width` four-byte pixels (row y at
// source + y * sourceStride) blurred along the row into a plane of `kind`
// bytes a pixel (row y at plane + y * planeStride).
void StackBlurRowsToPlane(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                          uint32_t width, uint32_t firstRow, uint32_t endRow, uint32_t radius,
                          StackBlurPlaneKind kind);

// The pixel columns [firstColumn, endColumn) of a plane of `height` rows (as
// many bytes a pixel as `store` reads) blurred down the columns and stored in `target` (four bytes a pixel, row y at
// target + y * targetStride) as `store` says. `colour` (same layout as target)
// is read by kStoreAlphaOverColour only.
void StackBlurPlaneColumns(const unsigned char* plane, size_t planeStride, uint32_t height,
                           uint32_t firstColumn, uint32_t endColumn, uint32_t radius, StackBlurColumnStore store,
                           unsigned char* target, size_t targetStride, const unsigned char* colour,
                           size_t colourStride);

// Both passes over a whole plane on the stage's own threads (PassThreadCount()
// of them, shares of ceil(lines / threads) lines), each joined before it
// returns.
void RunStackBlurRowPass(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                         uint32_t width, uint32_t height, uint32_t radius, StackBlurPlaneKind kind);
void RunStackBlurColumnPass(const unsigned char* plane, size_t planeStride, uint32_t width, uint32_t height,
                            uint32_t radius, StackBlurColumnStore store, unsigned char* target, size_t targetStride,
                            const unsigned char* colour, size_t colourStride);

// 128-bit sums, for radii whose sums leave 64 bits.
__extension__ typedef unsigned __int128 StackBlurWideSum;

// The largest radius whose sums the passes hold as doubles, two to an SSE2
// register: (radius + 1)^2 <= 2^44, so every sum stays an exact integer and
// a correctly rounded division truncates to the floor.
const uint32_t kLargestStackBlurRadiusInDoubles = 4194303;

// The largest radius whose sums fit 64 bits: 255 * (radius + 1)^2 < 2^64.
const uint32_t kLargestStackBlurRadius64 = 268961283;

// floor(sum / divisor) for a quotient known to lie in 0 .. 255: a
// floating-point estimate (sum times the divisor's reciprocal, off by at most
// one), corrected with exact integer comparisons.
template <class Sum>
inline uint32_t StackBlurQuotient(Sum sum, Sum divisor, double reciprocal) {
  int estimate = TruncateToInt(static_cast<double>(sum) * reciprocal);
  estimate = estimate < 0 ? 0 : (estimate > 255 ? 255 : estimate);
  Sum quotient = static_cast<uint32_t>(estimate);
  while (quotient > 0 && quotient * divisor > sum) --quotient;
  while (quotient < 255 && (quotient + 1) * divisor <= sum) ++quotient;
  return static_cast<uint32_t>(quotient);
}

// One line of `n` positions with C channels (0 .. 255 each) at any radius:
// fetch(p, values) reads the C values at position p, emit(i, quotients)
// takes output i. The sums are 64 bits wide, or 128 past
// kLargestStackBlurRadius64; the first window starts from closed forms for
// its repeated edge values, so the work is O(n + min(radius, n)) and no
// window is stored.
template <unsigned C, class Sum, class Fetch, class Emit>
void StackBlurWideLineOf(uint32_t n, uint32_t radius, Fetch fetch, Emit emit) {
  if (n == 0) return;
  typedef Sum Wide;
  const uint64_t r = radius, last = n - 1;
  const Wide r1 = static_cast<Wide>(r) + 1;
  const Wide divisor = r1 * r1;
  const double reciprocal = 1.0 / static_cast<double>(divisor);
  Wide sum[C], inSum[C], outSum[C];
  uint32_t values[C], quotients[C];

  // Positions -r .. 0 all hold the value at 0, weights 1 .. r + 1.
  fetch(0, values);
  for (unsigned c = 0; c < C; ++c) {
    outSum[c] = r1 * values[c];
    sum[c] = values[c] * (r1 * (r1 + 1) / 2);
    inSum[c] = 0;
  }
  const uint64_t inside = r < last ? r : last;
  for (uint64_t i = 1; i <= inside; ++i) {
    fetch(i, values);
    for (unsigned c = 0; c < C; ++c) {
      sum[c] += values[c] * (r1 - i);
      inSum[c] += values[c];
    }
  }
  if (r > last) {
    // Positions n .. r repeat the last value, weights r + 1 - n down to 1.
    const Wide beyond = r - last;
    fetch(last, values);
    for (unsigned c = 0; c < C; ++c) {
      inSum[c] += beyond * values[c];
      sum[c] += values[c] * (beyond * (beyond + 1) / 2);
    }
  }

  for (uint64_t x = 0; x < n; ++x) {
    for (unsigned c = 0; c < C; ++c) quotients[c] = StackBlurQuotient(sum[c], divisor, reciprocal);
    emit(x, quotients);
    const uint64_t leaving = x > r ? x - r : 0;
    const uint64_t entering = x + r + 1 < last ? x + r + 1 : last;
    const uint64_t centre = x + 1 < last ? x + 1 : last;
    for (unsigned c = 0; c < C; ++c) sum[c] -= outSum[c];
    fetch(leaving, values);
    for (unsigned c = 0; c < C; ++c) outSum[c] -= values[c];
    fetch(entering, values);
    for (unsigned c = 0; c < C; ++c) {
      inSum[c] += values[c];
      sum[c] += inSum[c];
    }
    fetch(centre, values);
    for (unsigned c = 0; c < C; ++c) {
      outSum[c] += values[c];
      inSum[c] -= values[c];
    }
  }
}

template <unsigned C, class Fetch, class Emit>
void StackBlurWideLine(uint32_t n, uint32_t radius, Fetch fetch, Emit emit) {
  if (radius <= kLargestStackBlurRadius64) {
    StackBlurWideLineOf<C, uint64_t>(n, radius, fetch, emit);
  } else {
    StackBlurWideLineOf<C, StackBlurWideSum>(n, radius, fetch, emit);
  }
}

}  // namespace image
}  // namespace kvo

#endif
