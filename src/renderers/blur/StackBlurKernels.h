#ifndef KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURKERNELS_H
#define KVIMAGE_SRC_RENDERERS_BLUR_STACKBLURKERNELS_H

// The stack blur's arithmetic and the two kernels of each pass.
//
// Each output is floor(S / (radius + 1)^2), where S is the triangle-weighted
// window sum with the edge values repeating. The sum is an exact integer
// however it is formed, so no kernel keeps a window stack: the values that
// leave, enter and cross the centre of a window are read where they lie, and
// the sums of the first window take a closed form for the repeated edge
// values (FirstWindowSums). Memory is bounded by the image whatever the radius.
//
// The plain kernels walk each line with 64-bit sums (128-bit past
// kLargestStackBlurRadius64, as 255 * (2^32)^2 needs 72 bits), each quotient
// found from a floating-point estimate corrected exactly: the straightforward
// form, and the oracle of the SSE2 kernels. Those keep four channels in one
// register of 32-bit sums up to kLargestStackBlurRadius, divided by a
// multiply and a shift, and exact doubles (two to a register, a correctly
// rounded division truncated) up to kLargestStackBlurRadiusInDoubles; beyond,
// they walk as the plain kernels do. 32-bit values take the 32-bit sums or the
// plain walk only, whose results for any value (even outside 0 .. 255) are
// what the exported single-channel passes have always given.
#include <emmintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <vector>

#include "renderers/blur/StackBlurPasses.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// The largest radius whose sums the SSE2 kernels hold as doubles:
// (radius + 1)^2 <= 2^44, so every sum stays an exact integer and a correctly
// rounded division truncates to the floor.
const uint32_t kLargestStackBlurRadiusInDoubles = 4194303;

// The largest radius whose sums fit 64 bits: 255 * (radius + 1)^2 < 2^64.
const uint32_t kLargestStackBlurRadius64 = 268961283;

// 128-bit sums, for radii whose sums leave 64 bits.
__extension__ typedef unsigned __int128 StackBlurWideSum;

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

// StackBlurDivider on four lanes: sums below 2^32 times a multiplier below
// 2^32 stay below 2^64, so the 64-bit products of _mm_mul_epu32 are exact.
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

// The sums of the first window of `count` lines side by side whose positions
// 0 .. last hold valueAt(p)[c]: positions -r .. 0 repeat position 0 (weights
// 1 .. r + 1), positions beyond last repeat last. Products are formed in 64
// bits (in Sum when it is wider) and then taken as Sum, which wraps 32-bit
// sums exactly as adding the weighted values one by one would.
template <class Sum, class ValueAt>
inline void FirstWindowSums(unsigned count, uint32_t radius, uint32_t last, ValueAt valueAt, Sum* sum, Sum* inSum,
                            Sum* outSum) {
  typedef typename std::conditional<(sizeof(Sum) > sizeof(uint64_t)), Sum, uint64_t>::type Wide;
  const Wide r1 = static_cast<Wide>(radius) + 1;
  const auto first = valueAt(0);
  for (unsigned c = 0; c < count; ++c) {
    const Wide value = static_cast<uint32_t>(first[c]);
    outSum[c] = static_cast<Sum>(r1 * value);
    sum[c] = static_cast<Sum>(value * (r1 * (r1 + 1) / 2));
    inSum[c] = 0;
  }
  const uint32_t inside = std::min(radius, last);
  for (uint32_t i = 1; i <= inside; ++i) {
    const auto values = valueAt(i);
    const Wide weight = r1 - i;
    for (unsigned c = 0; c < count; ++c) {
      const Wide value = static_cast<uint32_t>(values[c]);
      sum[c] += static_cast<Sum>(value * weight);
      inSum[c] += static_cast<Sum>(value);
    }
  }
  if (radius > last) {
    const Wide beyond = radius - last;
    const auto values = valueAt(last);
    for (unsigned c = 0; c < count; ++c) {
      const Wide value = static_cast<uint32_t>(values[c]);
      inSum[c] += static_cast<Sum>(beyond * value);
      sum[c] += static_cast<Sum>(value * (beyond * (beyond + 1) / 2));
    }
  }
}

// One line of `n` positions with C channels (0 .. 255 each) at any radius:
// fetch(p, values) reads the C values at position p, emit(i, quotients)
// takes output i. O(n + min(radius, n)) work; no window is stored.
template <unsigned C, class Sum, class Fetch, class Emit>
void StackBlurWideLineOf(uint32_t n, uint32_t radius, Fetch fetch, Emit emit) {
  if (n == 0) return;
  const uint64_t r = radius, last = n - 1;
  const Sum r1 = static_cast<Sum>(r) + 1;
  const Sum divisor = r1 * r1;
  const double reciprocal = 1.0 / static_cast<double>(divisor);
  Sum sum[C], inSum[C], outSum[C];
  uint32_t values[C], quotients[C];
  FirstWindowSums<Sum>(
      C, radius, n - 1,
      [&](uint64_t p) -> const uint32_t* {
        fetch(p, values);
        return values;
      },
      sum, inSum, outSum);
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

namespace stackblur {

// ----- lanes: four sums in SSE2 registers ----------------------------------------

// Four lanes of 32-bit integer sums, up to kLargestStackBlurRadius.
class Int32Lanes {
 public:
  typedef __m128i State;
  typedef uint32_t Scalar;
  explicit Int32Lanes(uint32_t radius) : m_divide(StackBlurDivider(radius)) {}
  static State FromLanes(__m128i lanes) { return lanes; }
  static State Load(const Scalar* at) { return _mm_load_si128(reinterpret_cast<const __m128i*>(at)); }
  static void Store(Scalar* at, State state) { _mm_store_si128(reinterpret_cast<__m128i*>(at), state); }
  static State Add(State a, State b) { return _mm_add_epi32(a, b); }
  static State Sub(State a, State b) { return _mm_sub_epi32(a, b); }
  __m128i Quotients(State sums) const { return m_divide(sums); }

 private:
  LaneDivider m_divide;
};

// Four lanes of sums held as doubles, two to a register, up to
// kLargestStackBlurRadiusInDoubles: every sum is an integer below 2^52, so
// the sums stay exact, and a quotient k - e (e >= 1 / (r + 1)^2 >= 2^-44 when
// the division is not exact) is at least 2^-44 below k, while the correctly
// rounded division moves it by at most 256 * 2^-53: truncation gives the floor.
class DoubleLanes {
 public:
  struct State {
    __m128d low;
    __m128d high;
  };
  typedef double Scalar;
  explicit DoubleLanes(uint32_t radius) {
    const double side = static_cast<double>(radius) + 1.0;
    m_divisor = _mm_set1_pd(side * side);
  }
  static State FromLanes(__m128i lanes) {
    State state;
    state.low = _mm_cvtepi32_pd(lanes);
    state.high = _mm_cvtepi32_pd(_mm_shuffle_epi32(lanes, _MM_SHUFFLE(1, 0, 3, 2)));
    return state;
  }
  static State Load(const Scalar* at) {
    State state;
    state.low = _mm_load_pd(at);
    state.high = _mm_load_pd(at + 2);
    return state;
  }
  static void Store(Scalar* at, State state) {
    _mm_store_pd(at, state.low);
    _mm_store_pd(at + 2, state.high);
  }
  static State Add(State a, State b) {
    State state;
    state.low = _mm_add_pd(a.low, b.low);
    state.high = _mm_add_pd(a.high, b.high);
    return state;
  }
  static State Sub(State a, State b) {
    State state;
    state.low = _mm_sub_pd(a.low, b.low);
    state.high = _mm_sub_pd(a.high, b.high);
    return state;
  }
  __m128i Quotients(State sums) const {
    return _mm_unpacklo_epi64(_mm_cvttpd_epi32(_mm_div_pd(sums.low, m_divisor)),
                              _mm_cvttpd_epi32(_mm_div_pd(sums.high, m_divisor)));
  }

 private:
  __m128d m_divisor;
};

// One step of a window in lanes: returns the quotients of the window's sums
// and moves the window on by one position.
template <class Lanes>
inline __m128i StepWindow(const Lanes& lanes, typename Lanes::State& sum, typename Lanes::State& inSum,
                          typename Lanes::State& outSum, __m128i leaving, __m128i entering, __m128i centre) {
  const typename Lanes::State centreSums = Lanes::FromLanes(centre);
  const __m128i quotients = lanes.Quotients(sum);
  sum = Lanes::Sub(sum, outSum);
  outSum = Lanes::Sub(outSum, Lanes::FromLanes(leaving));
  inSum = Lanes::Add(inSum, Lanes::FromLanes(entering));
  sum = Lanes::Add(sum, inSum);
  outSum = Lanes::Add(outSum, centreSums);
  inSum = Lanes::Sub(inSum, centreSums);
  return quotients;
}

// The four bytes of a pixel as four 32-bit lanes.
inline __m128i PixelLanes(const unsigned char* pixel) {
  int32_t word;
  std::memcpy(&word, pixel, sizeof(word));
  const __m128i zero = _mm_setzero_si128();
  return _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(word), zero), zero);
}

// 16 bytes as four registers of four 32-bit lanes.
inline void ChunkLanes(__m128i bytes, __m128i (&lanes)[4]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i low = _mm_unpacklo_epi8(bytes, zero), high = _mm_unpackhi_epi8(bytes, zero);
  lanes[0] = _mm_unpacklo_epi16(low, zero);
  lanes[1] = _mm_unpackhi_epi16(low, zero);
  lanes[2] = _mm_unpacklo_epi16(high, zero);
  lanes[3] = _mm_unpackhi_epi16(high, zero);
}

inline __m128i PackChunk(const __m128i (&quotients)[4]) {
  return _mm_packus_epi16(_mm_packs_epi32(quotients[0], quotients[1]), _mm_packs_epi32(quotients[2], quotients[3]));
}

inline __m128i LoadBytes(const unsigned char* at) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at)); }
inline void StoreBytes(unsigned char* at, __m128i value) { _mm_storeu_si128(reinterpret_cast<__m128i*>(at), value); }

// ----- what a row pass reads --------------------------------------------------------

// Four-byte pixels: four lanes a position.
struct PixelRow {
  static constexpr unsigned kChannels = 4;
  const unsigned char* line;
  const unsigned char* At(size_t p) const { return line + p * kBytesPerPixel; }
  __m128i Lanes(size_t p) const { return PixelLanes(At(p)); }
  void Chunk(size_t p, __m128i (&lanes)[4]) const { ChunkLanes(LoadBytes(At(p)), lanes); }
};

// One 32-bit value a position, in lane 0.
struct ValueRow {
  static constexpr unsigned kChannels = 1;
  const int32_t* line;
  const int32_t* At(size_t p) const { return line + p; }
  __m128i Lanes(size_t p) const { return _mm_cvtsi32_si128(line[p]); }
  void Chunk(size_t p, __m128i (&lanes)[4]) const {
    for (unsigned g = 0; g < 4; ++g) lanes[g] = Lanes(p + g);
  }
};

// ----- what a row pass writes ---------------------------------------------------------

// A byte plane of Kind bytes a pixel. Put takes the four channels' quotients.
template <StackBlurPlaneKind Kind>
struct PlaneRow {
  unsigned char* out;
  void Store(size_t x, __m128i quotients) const {
    const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(quotients, quotients), _mm_setzero_si128());
    const uint32_t word = static_cast<uint32_t>(_mm_cvtsi128_si32(packed));
    if (Kind == kPlaneFourBytes) {
      std::memcpy(out + x * Kind, &word, 4);
    } else if (Kind == kPlaneFirstTwoBytes) {
      const uint16_t low = static_cast<uint16_t>(word);
      std::memcpy(out + x * Kind, &low, 2);
    } else {
      out[x] = static_cast<unsigned char>(word >> (8 * kAlphaByte));
    }
  }
  void Store4(size_t x, const __m128i (&quotients)[4]) const {
    if (Kind == kPlaneFourBytes) return StoreBytes(out + x * Kind, PackChunk(quotients));
    for (unsigned g = 0; g < 4; ++g) Store(x + g, quotients[g]);
  }
  void Put(size_t x, const uint32_t (&quotients)[4]) const {
    if (Kind == kPlaneAlphaByte) {
      out[x] = static_cast<unsigned char>(quotients[kAlphaByte]);
      return;
    }
    for (unsigned c = 0; c < Kind; ++c) out[x * Kind + c] = static_cast<unsigned char>(quotients[c]);
  }
};

// 32-bit planes, lane c into planes[c] where there is one.
struct ValuePlanesRow {
  int32_t* planes[4];
  void Store(size_t x, __m128i quotients) const {
    alignas(16) uint32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), quotients);
    Put(x, lanes);
  }
  void Store4(size_t x, const __m128i (&quotients)[4]) const {
    for (unsigned g = 0; g < 4; ++g) Store(x + g, quotients[g]);
  }
  void Put(size_t x, const uint32_t (&quotients)[4]) const {
    for (unsigned c = 0; c < 4; ++c) {
      if (planes[c] != nullptr) planes[c][x] = static_cast<int32_t>(quotients[c]);
    }
  }
};

// Calls visit(source, target) with the reader and writer of row y.
template <class Visit>
inline void VisitRow(const StackBlurRows& pass, uint32_t y, Visit visit) {
  const size_t valueRow = static_cast<size_t>(y) * pass.width;
  const auto withSource = [&](auto source) {
    int32_t* const* planes = pass.valuePlanes;
    if (planes[0] != nullptr || planes[1] != nullptr || planes[2] != nullptr || planes[3] != nullptr) {
      ValuePlanesRow target;
      for (unsigned c = 0; c < 4; ++c) target.planes[c] = planes[c] != nullptr ? planes[c] + valueRow : nullptr;
      return visit(source, target);
    }
    unsigned char* out = pass.plane + y * pass.planeStride;
    switch (pass.kind) {
      case kPlaneFourBytes:
        return visit(source, PlaneRow<kPlaneFourBytes>{out});
      case kPlaneFirstTwoBytes:
        return visit(source, PlaneRow<kPlaneFirstTwoBytes>{out});
      default:
        return visit(source, PlaneRow<kPlaneAlphaByte>{out});
    }
  };
  if (pass.values != nullptr) return withSource(ValueRow{pass.values + valueRow});
  withSource(PixelRow{pass.pixels + y * pass.pixelStride});
}

template <class Source, class Target>
void RowWide(Source source, Target target, uint32_t width, uint32_t radius) {
  const unsigned C = Source::kChannels;
  StackBlurWideLine<C>(
      width, radius,
      [&](uint64_t p, uint32_t* values) {
        for (unsigned c = 0; c < C; ++c) values[c] = static_cast<uint32_t>(source.At(p)[c]);
      },
      [&](uint64_t x, const uint32_t* quotients) {
        uint32_t four[4] = {0, 0, 0, 0};
        for (unsigned c = 0; c < C; ++c) four[c] = quotients[c];
        target.Put(x, four);
      });
}

template <class Lanes, class Source, class Target>
void RowInLanes(const Lanes& lanes, Source source, Target target, uint32_t width, uint32_t radius) {
  typedef typename Lanes::State State;
  typedef typename Lanes::Scalar Scalar;
  const size_t last = width - 1, r1 = static_cast<size_t>(radius) + 1;
  alignas(16) Scalar first[3][4] = {};
  FirstWindowSums<Scalar>(
      Source::kChannels, radius, static_cast<uint32_t>(last), [&](uint32_t p) { return source.At(p); }, first[0],
      first[1], first[2]);
  State sum = Lanes::Load(first[0]), inSum = Lanes::Load(first[1]), outSum = Lanes::Load(first[2]);
  const auto clampedStep = [&](size_t x) {
    const size_t leaving = x > radius ? x - radius : 0;
    target.Store(x, StepWindow(lanes, sum, inSum, outSum, source.Lanes(leaving), source.Lanes(std::min(x + r1, last)),
                               source.Lanes(std::min(x + 1, last))));
  };
  // Inside the row (radius <= x, x + radius + 1 <= last) the three positions
  // a step reads lie four by four in memory: read as one chunk each.
  const size_t interiorEnd = last + 1 > r1 ? last + 1 - r1 : 0;  // x < interiorEnd: x + r1 <= last
  size_t x = 0;
  for (; x <= last && x < radius; ++x) clampedStep(x);
  for (; x + 4 <= interiorEnd; x += 4) {
    __m128i leaving[4], entering[4], centre[4], quotients[4];
    source.Chunk(x - radius, leaving);
    source.Chunk(x + r1, entering);
    source.Chunk(x + 1, centre);
    for (unsigned g = 0; g < 4; ++g)
      quotients[g] = StepWindow(lanes, sum, inSum, outSum, leaving[g], entering[g], centre[g]);
    target.Store4(x, quotients);
  }
  for (; x <= last; ++x) clampedStep(x);
}

// ----- what a column pass reads -------------------------------------------------------

// 16 bytes at `row`, zero-padded past `count`.
inline __m128i LoadChunk(const unsigned char* row, size_t count) {
  if (count == 16) return LoadBytes(row);
  alignas(16) unsigned char padded[16] = {};
  std::memcpy(padded, row, count);
  return _mm_load_si128(reinterpret_cast<const __m128i*>(padded));
}

// The bytes of a byte plane, one lane each.
struct ByteColumns {
  const unsigned char* plane;
  size_t stride;
  const unsigned char* Row(size_t y) const { return plane + y * stride; }
  static void Chunk(const unsigned char* at, size_t count, __m128i (&lanes)[4]) {
    ChunkLanes(LoadChunk(at, count), lanes);
  }
};

// 32-bit values, one lane each.
struct ValueColumns {
  const int32_t* values;
  size_t width;
  const int32_t* Row(size_t y) const { return values + y * width; }
  static void Chunk(const int32_t* at, size_t count, __m128i (&lanes)[4]) {
    alignas(16) int32_t padded[16] = {};
    if (count != 16) {
      std::memcpy(padded, at, count * sizeof(int32_t));
      at = padded;
    }
    for (unsigned g = 0; g < 4; ++g) lanes[g] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 4 * g));
  }
};

// ----- what a column pass writes ------------------------------------------------------
// Store takes the quotients of the 16 elements from `at` of row y (`count` of
// them valid); Put one element's quotient. The merging stores work on whole
// registers of target bytes: a partial chunk goes through a local copy.

struct BytesColumnTarget {
  unsigned char* target;
  size_t stride;
  void Store(size_t y, size_t at, size_t count, const __m128i (&quotients)[4]) const {
    unsigned char* row = target + y * stride + at;
    const __m128i packed = PackChunk(quotients);
    if (count == 16) return StoreBytes(row, packed);
    alignas(16) unsigned char bytes[16];
    _mm_store_si128(reinterpret_cast<__m128i*>(bytes), packed);
    std::memcpy(row, bytes, count);
  }
  void Put(size_t y, size_t at, uint32_t quotient) const {
    target[y * stride + at] = static_cast<unsigned char>(quotient);
  }
};

// Byte `byteIndex` of every target pixel, the other bytes from colour.
struct OneByteColumnTarget {
  unsigned char* target;
  size_t stride;
  const unsigned char* colour;
  size_t colourStride;
  unsigned byteIndex;
  void Store(size_t y, size_t at, size_t count, const __m128i (&quotients)[4]) const {
    unsigned char* out = target + y * stride + at * kBytesPerPixel;
    const unsigned char* in = colour + y * colourStride + at * kBytesPerPixel;
    const size_t bytes = count * kBytesPerPixel;
    alignas(16) unsigned char localOut[64], localIn[64];
    if (count != 16) {
      std::memcpy(localIn, in, bytes);
      in = localIn;
    }
    unsigned char* write = count != 16 ? localOut : out;
    const __m128i lowByte = _mm_set1_epi32(0xFF), shift = _mm_cvtsi32_si128(static_cast<int>(8 * byteIndex));
    const __m128i keep = _mm_xor_si128(_mm_sll_epi32(lowByte, shift), _mm_set1_epi32(-1));
    for (unsigned g = 0; g < 4; ++g) {
      const __m128i pixels = LoadBytes(in + 16 * g);
      StoreBytes(write + 16 * g,
                 _mm_or_si128(_mm_and_si128(pixels, keep), _mm_sll_epi32(_mm_and_si128(quotients[g], lowByte), shift)));
    }
    if (count != 16) std::memcpy(out, localOut, bytes);
  }
  void Put(size_t y, size_t at, uint32_t quotient) const {
    unsigned char* out = target + y * stride + at * kBytesPerPixel;
    const unsigned char* in = colour + y * colourStride + at * kBytesPerPixel;
    for (unsigned b = 0; b < kBytesPerPixel; ++b)
      out[b] = b == byteIndex ? static_cast<unsigned char>(quotient) : in[b];
  }
};

// Bytes 0 and 1 of every target pixel from a two-byte plane; bytes 2 and 3 kept.
struct FirstTwoBytesColumnTarget {
  unsigned char* target;
  size_t stride;
  void Store(size_t y, size_t at, size_t count, const __m128i (&quotients)[4]) const {
    unsigned char* out = target + y * stride + at * 2;
    const size_t bytes = count * 2;
    alignas(16) unsigned char local[32];
    unsigned char* write = out;
    if (count != 16) {
      std::memcpy(local, out, bytes);
      write = local;
    }
    const __m128i packed = PackChunk(quotients), zero = _mm_setzero_si128();
    const __m128i keep = _mm_set1_epi32(static_cast<int>(0xFFFF0000u));
    const __m128i halves[2] = {_mm_unpacklo_epi16(packed, zero), _mm_unpackhi_epi16(packed, zero)};
    for (unsigned h = 0; h < 2; ++h) {
      StoreBytes(write + 16 * h, _mm_or_si128(_mm_and_si128(LoadBytes(write + 16 * h), keep), halves[h]));
    }
    if (count != 16) std::memcpy(out, local, bytes);
  }
  void Put(size_t y, size_t at, uint32_t quotient) const {
    target[y * stride + (at / 2) * kBytesPerPixel + at % 2] = static_cast<unsigned char>(quotient);
  }
};

// 32-bit values, row y at values + y * width.
struct ValuesColumnTarget {
  int32_t* values;
  size_t width;
  void Store(size_t y, size_t at, size_t count, const __m128i (&quotients)[4]) const {
    alignas(16) int32_t local[16];
    int32_t* out = values + y * width + at;
    int32_t* write = count != 16 ? local : out;
    for (unsigned g = 0; g < 4; ++g) _mm_storeu_si128(reinterpret_cast<__m128i*>(write + 4 * g), quotients[g]);
    if (count != 16) std::memcpy(out, local, count * sizeof(int32_t));
  }
  void Put(size_t y, size_t at, uint32_t quotient) const { values[y * width + at] = static_cast<int32_t>(quotient); }
};

// Calls visit(source, target) with the pass's reader and writer.
template <class Visit>
inline void VisitColumns(const StackBlurColumns& pass, Visit visit) {
  const auto withSource = [&](auto source) {
    switch (pass.store) {
      case kStoreBytes:
        return visit(source, BytesColumnTarget{pass.target, pass.targetStride});
      case kStoreOneByte:
        return visit(source, OneByteColumnTarget{pass.target, pass.targetStride, pass.colour, pass.colourStride,
                                                 pass.byteIndex % kBytesPerPixel});
      case kStoreFirstTwoBytes:
        return visit(source, FirstTwoBytesColumnTarget{pass.target, pass.targetStride});
      default:
        return visit(source, ValuesColumnTarget{pass.valueTarget, pass.width});
    }
  };
  if (pass.values != nullptr) return withSource(ValueColumns{pass.values, pass.width});
  withSource(ByteColumns{pass.plane, pass.planeStride});
}

// The elements (lanes) of a pixel column: the bytes a pixel of a byte plane
// has, one 32-bit value.
inline size_t ElementsPerPixel(const StackBlurColumns& pass) {
  if (pass.values != nullptr) return 1;
  return pass.store == kStoreBytes ? 4 : (pass.store == kStoreFirstTwoBytes ? 2 : 1);
}

// 512 elements side by side: many cache lines of every row in flight.
template <class Source, class Target>
void ColumnsWide(Source source, Target target, uint32_t height, size_t firstElement, size_t endElement,
                 uint32_t radius) {
  const unsigned kSide = 512;
  for (size_t group = firstElement; group < endElement; group += kSide) {
    const size_t count = std::min<size_t>(kSide, endElement - group);
    StackBlurWideLine<kSide>(
        height, radius,
        [&](uint64_t y, uint32_t* values) {
          const auto row = source.Row(y) + group;
          for (unsigned c = 0; c < kSide; ++c) values[c] = c < count ? static_cast<uint32_t>(row[c]) : 0;
        },
        [&](uint64_t y, const uint32_t* quotients) {
          for (unsigned c = 0; c < count; ++c) target.Put(y, group + c, quotients[c]);
        });
  }
}

// Elements walked side by side down the columns. Rows lie a page or more
// apart, where the hardware prefetchers do not follow, so a block is wide
// (up to 8 KB of 32-bit sums per row): many independent cache lines in
// flight per row. Its sums (three a lane) stay in the second-level cache.
const size_t kColumnBlockSums = 8192;

template <class Lanes, class Source, class Target>
void ColumnsInLanes(const Lanes& lanes, Source source, Target target, uint32_t height, size_t firstElement,
                    size_t endElement, uint32_t radius) {
  typedef typename Lanes::State State;
  typedef typename Lanes::Scalar Scalar;
  const size_t last = height - 1, r1 = static_cast<size_t>(radius) + 1;
  // The same bytes of sums a block whatever their width.
  const size_t widest = kColumnBlockSums * sizeof(uint32_t) / sizeof(Scalar);
  const size_t blockElements = std::min(widest, (endElement - firstElement + 15) / 16 * 16);
  struct alignas(16) FourSums {
    Scalar lanes[4];
  };
  std::vector<FourSums> state(3 * blockElements / 4);
  Scalar* sums = state.data()->lanes;
  Scalar* inSums = sums + blockElements;
  Scalar* outSums = inSums + blockElements;
  for (size_t block = firstElement; block < endElement; block += blockElements) {
    const size_t elements = std::min(blockElements, endElement - block);
    std::fill(sums, sums + 3 * blockElements, Scalar(0));
    FirstWindowSums<Scalar>(
        static_cast<unsigned>(elements), radius, static_cast<uint32_t>(last),
        [&](uint32_t p) { return source.Row(p) + block; }, sums, inSums, outSums);
    for (size_t y = 0; y <= last; ++y) {
      const auto leaving = source.Row(y > radius ? y - radius : 0) + block;
      const auto entering = source.Row(std::min(y + r1, last)) + block;
      const auto centre = source.Row(std::min(y + 1, last)) + block;
      for (size_t chunk = 0; chunk < elements; chunk += 16) {
        const size_t count = std::min<size_t>(16, elements - chunk);
        __m128i leavingLanes[4], enteringLanes[4], centreLanes[4], quotients[4];
        Source::Chunk(leaving + chunk, count, leavingLanes);
        Source::Chunk(entering + chunk, count, enteringLanes);
        Source::Chunk(centre + chunk, count, centreLanes);
        for (unsigned g = 0; g < 4; ++g) {
          Scalar* sumAt = sums + chunk + 4 * g;
          Scalar* inAt = inSums + chunk + 4 * g;
          Scalar* outAt = outSums + chunk + 4 * g;
          State sum = Lanes::Load(sumAt), inSum = Lanes::Load(inAt), outSum = Lanes::Load(outAt);
          quotients[g] = StepWindow(lanes, sum, inSum, outSum, leavingLanes[g], enteringLanes[g], centreLanes[g]);
          Lanes::Store(sumAt, sum);
          Lanes::Store(inAt, inSum);
          Lanes::Store(outAt, outSum);
        }
        target.Store(y, block + chunk, count, quotients);
      }
    }
  }
}

// Calls inLanes(lanes) with the lanes that hold the sums of a pass at this
// radius and returns true, or returns false where only the plain walk serves
// (past the doubles, and 32-bit values past the 32-bit sums).
template <class InLanes>
bool WithLanes(uint32_t radius, bool values, InLanes inLanes) {
  if (radius <= kLargestStackBlurRadius) {
    inLanes(Int32Lanes(radius));
    return true;
  }
  if (radius > kLargestStackBlurRadiusInDoubles || values) return false;
  inLanes(DoubleLanes(radius));
  return true;
}

}  // namespace stackblur

// ----- the kernels ----------------------------------------------------------------------

inline uint32_t StackBlurRows_Plain(const StackBlurRows& pass, uint32_t firstRow, uint32_t endRow) {
  endRow = std::min(endRow, pass.height);
  if (pass.width == 0 || firstRow >= endRow) return 0;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    stackblur::VisitRow(pass, y,
                        [&](auto source, auto target) { stackblur::RowWide(source, target, pass.width, pass.radius); });
  }
  return endRow - firstRow;
}

inline uint32_t StackBlurRows_SSE2(const StackBlurRows& pass, uint32_t firstRow, uint32_t endRow) {
  endRow = std::min(endRow, pass.height);
  if (pass.width == 0 || firstRow >= endRow) return 0;
  const bool inLanes = stackblur::WithLanes(pass.radius, pass.values != nullptr, [&](const auto& lanes) {
    for (uint32_t y = firstRow; y < endRow; ++y) {
      stackblur::VisitRow(pass, y, [&](auto source, auto target) {
        stackblur::RowInLanes(lanes, source, target, pass.width, pass.radius);
      });
    }
  });
  return inLanes ? endRow - firstRow : StackBlurRows_Plain(pass, firstRow, endRow);
}

inline uint32_t StackBlurColumns_Plain(const StackBlurColumns& pass, uint32_t firstColumn, uint32_t endColumn) {
  endColumn = std::min(endColumn, pass.width);
  if (pass.height == 0 || firstColumn >= endColumn) return 0;
  const size_t elements = stackblur::ElementsPerPixel(pass);
  stackblur::VisitColumns(pass, [&](auto source, auto target) {
    stackblur::ColumnsWide(source, target, pass.height, firstColumn * elements, endColumn * elements, pass.radius);
  });
  return endColumn - firstColumn;
}

inline uint32_t StackBlurColumns_SSE2(const StackBlurColumns& pass, uint32_t firstColumn, uint32_t endColumn) {
  endColumn = std::min(endColumn, pass.width);
  if (pass.height == 0 || firstColumn >= endColumn) return 0;
  const size_t elements = stackblur::ElementsPerPixel(pass);
  const bool inLanes = stackblur::WithLanes(pass.radius, pass.values != nullptr, [&](const auto& lanes) {
    stackblur::VisitColumns(pass, [&](auto source, auto target) {
      stackblur::ColumnsInLanes(lanes, source, target, pass.height, firstColumn * elements, endColumn * elements,
                                pass.radius);
    });
  });
  return inLanes ? endColumn - firstColumn : StackBlurColumns_Plain(pass, firstColumn, endColumn);
}

}  // namespace image
}  // namespace kvo

#endif
