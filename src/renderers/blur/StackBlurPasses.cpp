#include "renderers/blur/StackBlurPasses.h"

#include <emmintrin.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "renderers/blur/StackBlurCore.h"
#include "support/PixelLayout.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

namespace {

// ----- 32-bit sums, four to a register ------------------------------------------

// The four bytes of a pixel as four 32-bit lanes.
inline __m128i PixelLanes(const unsigned char* pixel) {
  int32_t word;
  std::memcpy(&word, pixel, sizeof(word));
  const __m128i zero = _mm_setzero_si128();
  return _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(word), zero), zero);
}

// Sums of the first window of a line whose positions 0 .. last hold `value(p)`
// (`C` lanes each): positions -r .. 0 repeat position 0, positions beyond last
// repeat last. Products are formed in 64 bits; Scalar holds every sum of the
// radii it serves exactly.
template <class Scalar, class Value>
void FirstWindow(unsigned C, uint32_t radius, uint32_t last, Value value, Scalar* sum, Scalar* inSum,
                 Scalar* outSum) {
  const uint64_t r1 = static_cast<uint64_t>(radius) + 1;
  const unsigned char* first = value(0);
  for (unsigned c = 0; c < C; ++c) {
    outSum[c] = static_cast<Scalar>(r1 * first[c]);
    sum[c] = static_cast<Scalar>(first[c] * (r1 * (r1 + 1) / 2));
    inSum[c] = 0;
  }
  const uint32_t inside = std::min(radius, last);
  for (uint32_t i = 1; i <= inside; ++i) {
    const unsigned char* v = value(i);
    const uint64_t weight = r1 - i;
    for (unsigned c = 0; c < C; ++c) {
      sum[c] += static_cast<Scalar>(v[c] * weight);
      inSum[c] += v[c];
    }
  }
  if (radius > last) {
    const uint64_t beyond = radius - last;
    const unsigned char* v = value(last);
    for (unsigned c = 0; c < C; ++c) {
      inSum[c] += static_cast<Scalar>(beyond * v[c]);
      sum[c] += static_cast<Scalar>(v[c] * (beyond * (beyond + 1) / 2));
    }
  }
}

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

template <StackBlurPlaneKind Kind>
inline void StorePlanePixel(unsigned char* out, __m128i quotients) {
  const __m128i packed = _mm_packus_epi16(_mm_packs_epi32(quotients, quotients), _mm_setzero_si128());
  const uint32_t word = static_cast<uint32_t>(_mm_cvtsi128_si32(packed));
  if (Kind == kPlaneFourBytes) {
    std::memcpy(out, &word, 4);
  } else if (Kind == kPlaneFirstTwoBytes) {
    const uint16_t low = static_cast<uint16_t>(word);
    std::memcpy(out, &low, 2);
  } else {
    out[0] = static_cast<unsigned char>(word >> 24);
  }
}

template <StackBlurPlaneKind Kind, class Lanes>
void RowsToPlaneInLanes(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                   uint32_t width, uint32_t firstRow, uint32_t endRow, uint32_t radius) {
  typedef typename Lanes::State State;
  typedef typename Lanes::Scalar Scalar;
  const Lanes lanes(radius);
  const size_t last = width - 1, r1 = static_cast<size_t>(radius) + 1;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    const unsigned char* line = source + y * sourceStride;
    unsigned char* out = plane + y * planeStride;
    alignas(16) Scalar first[3][4];
    FirstWindow<Scalar>(
        4, radius, static_cast<uint32_t>(last), [&](uint32_t p) { return line + static_cast<size_t>(p) * kBytesPerPixel; },
        first[0], first[1], first[2]);
    State sum = Lanes::Load(first[0]), inSum = Lanes::Load(first[1]), outSum = Lanes::Load(first[2]);
    const auto step = [&](__m128i leavingLanes, __m128i enteringLanes, __m128i centreLanes) {
      const State leaving = Lanes::FromLanes(leavingLanes), entering = Lanes::FromLanes(enteringLanes),
                  centre = Lanes::FromLanes(centreLanes);
      const __m128i quotients = lanes.Quotients(sum);
      sum = Lanes::Sub(sum, outSum);
      outSum = Lanes::Sub(outSum, leaving);
      inSum = Lanes::Add(inSum, entering);
      sum = Lanes::Add(sum, inSum);
      outSum = Lanes::Add(outSum, centre);
      inSum = Lanes::Sub(inSum, centre);
      return quotients;
    };
    const auto clampedStep = [&](size_t x) {
      const size_t leaving = x > radius ? x - radius : 0;
      const size_t entering = std::min(x + r1, last);
      const size_t centre = std::min(x + 1, last);
      StorePlanePixel<Kind>(out + x * Kind,
                            step(PixelLanes(line + leaving * kBytesPerPixel), PixelLanes(line + entering * kBytesPerPixel),
                                 PixelLanes(line + centre * kBytesPerPixel)));
    };
    // Inside the row (radius <= x, x + radius + 1 <= last) the three pixels a
    // step reads lie four by four in memory: read as one register each.
    const size_t interiorEnd = last + 1 > r1 ? last + 1 - r1 : 0;  // x < interiorEnd: x + r1 <= last
    size_t x = 0;
    for (; x <= last && x < radius; ++x) clampedStep(x);
    for (; x + 4 <= interiorEnd; x += 4) {
      __m128i leaving[4], entering[4], centre[4], quotients[4];
      ChunkLanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(line + (x - radius) * kBytesPerPixel)), leaving);
      ChunkLanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(line + (x + r1) * kBytesPerPixel)), entering);
      ChunkLanes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(line + (x + 1) * kBytesPerPixel)), centre);
      for (unsigned g = 0; g < 4; ++g) quotients[g] = step(leaving[g], entering[g], centre[g]);
      if (Kind == kPlaneFourBytes) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x * Kind), PackChunk(quotients));
      } else {
        for (unsigned g = 0; g < 4; ++g) StorePlanePixel<Kind>(out + (x + g) * Kind, quotients[g]);
      }
    }
    for (; x <= last; ++x) clampedStep(x);
  }
}

unsigned PlaneBytesOf(StackBlurColumnStore store) {
  return store == kStoreBytes ? 4u : (store == kStoreAlphaOverColour ? 1u : 2u);
}

// 16 plane bytes at `at` of a row, zero-padded past `count`.
inline __m128i LoadChunk(const unsigned char* row, size_t count) {
  if (count == 16) return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row));
  alignas(16) unsigned char padded[16] = {};
  std::memcpy(padded, row, count);
  return _mm_load_si128(reinterpret_cast<const __m128i*>(padded));
}

// Stores the quotients of the 16 plane bytes at `at` (`count` of them valid)
// into a target row.
template <StackBlurColumnStore Store>
inline void StoreChunk(unsigned char* targetRow, const unsigned char* colourRow, size_t at, size_t count,
                       const __m128i (&quotients)[4]) {
  if (Store == kStoreBytes) {
    const __m128i packed = PackChunk(quotients);
    if (count == 16) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(targetRow + at), packed);
    } else {
      alignas(16) unsigned char bytes[16];
      _mm_store_si128(reinterpret_cast<__m128i*>(bytes), packed);
      std::memcpy(targetRow + at, bytes, count);
    }
    return;
  }
  // The merging stores work on 64 or 32 target bytes; a partial chunk goes
  // through a local copy.
  const size_t targetBytes = Store == kStoreAlphaOverColour ? count * 4 : count * 2;
  const size_t fullBytes = Store == kStoreAlphaOverColour ? 64 : 32;
  unsigned char* target = targetRow + (Store == kStoreAlphaOverColour ? at * 4 : at * 2);
  alignas(16) unsigned char localTarget[64], localColour[64];
  const bool partial = targetBytes != fullBytes;
  if (Store == kStoreAlphaOverColour) {
    const unsigned char* colour = colourRow + at * 4;
    if (partial) {
      std::memcpy(localColour, colour, targetBytes);
      colour = localColour;
    }
    unsigned char* out = partial ? localTarget : target;
    const __m128i colourMask = _mm_set1_epi32(0x00FFFFFF);
    for (unsigned g = 0; g < 4; ++g) {
      const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(colour + 16 * g));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * g),
                       _mm_or_si128(_mm_and_si128(pixels, colourMask), _mm_slli_epi32(quotients[g], 24)));
    }
  } else {
    unsigned char* out = target;
    if (partial) {
      std::memcpy(localTarget, target, targetBytes);
      out = localTarget;
    }
    const __m128i packed = PackChunk(quotients), zero = _mm_setzero_si128();
    const __m128i keep = _mm_set1_epi32(static_cast<int>(0xFFFF0000u));
    const __m128i halves[2] = {_mm_unpacklo_epi16(packed, zero), _mm_unpackhi_epi16(packed, zero)};
    for (unsigned h = 0; h < 2; ++h) {
      const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(out + 16 * h));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16 * h), _mm_or_si128(_mm_and_si128(pixels, keep), halves[h]));
    }
  }
  if (partial) std::memcpy(target, localTarget, targetBytes);
}

// Plane bytes walked side by side down the columns. Rows lie a page or more
// apart, where the hardware prefetchers do not follow, so a block is wide
// (up to 8 KB of every row): many independent cache lines in flight per row.
// Its sums (12 bytes a plane byte) stay in the second-level cache.
const size_t kColumnBlockBytes = 8192;

template <StackBlurColumnStore Store, class Lanes>
void PlaneColumnsInLanes(const unsigned char* plane, size_t planeStride, uint32_t height, size_t firstByte,
                    size_t endByte, uint32_t radius, unsigned char* target, size_t targetStride,
                    const unsigned char* colour, size_t colourStride) {
  typedef typename Lanes::State State;
  typedef typename Lanes::Scalar Scalar;
  const Lanes lanes(radius);
  const size_t last = height - 1, r1 = static_cast<size_t>(radius) + 1;
  // The same bytes of sums a block whatever their width.
  const size_t widest = kColumnBlockBytes * sizeof(uint32_t) / sizeof(Scalar);
  const size_t blockBytes = std::min(widest, (endByte - firstByte + 15) / 16 * 16);
  struct alignas(16) FourSums {
    Scalar lanes[4];
  };
  std::vector<FourSums> state(3 * blockBytes / 4);
  Scalar* sums = state.data()->lanes;
  Scalar* inSums = sums + blockBytes;
  Scalar* outSums = inSums + blockBytes;
  for (size_t block = firstByte; block < endByte; block += blockBytes) {
    const size_t bytes = std::min(blockBytes, endByte - block);
    std::fill(sums, sums + 3 * blockBytes, Scalar(0));
    FirstWindow<Scalar>(
        static_cast<unsigned>(bytes), radius, static_cast<uint32_t>(last),
        [&](uint32_t p) { return plane + static_cast<size_t>(p) * planeStride + block; }, sums, inSums, outSums);
    for (size_t y = 0; y <= last; ++y) {
      const unsigned char* leaving = plane + (y > radius ? y - radius : 0) * planeStride + block;
      const unsigned char* entering = plane + std::min(y + r1, last) * planeStride + block;
      const unsigned char* centre = plane + std::min(y + 1, last) * planeStride + block;
      unsigned char* targetRow = target + y * targetStride;
      const unsigned char* colourRow = colour != nullptr ? colour + y * colourStride : nullptr;
      for (size_t chunk = 0; chunk < bytes; chunk += 16) {
        const size_t count = std::min<size_t>(16, bytes - chunk);
        __m128i leavingLanes[4], enteringLanes[4], centreLanes[4], quotients[4];
        ChunkLanes(LoadChunk(leaving + chunk, count), leavingLanes);
        ChunkLanes(LoadChunk(entering + chunk, count), enteringLanes);
        ChunkLanes(LoadChunk(centre + chunk, count), centreLanes);
        for (unsigned g = 0; g < 4; ++g) {
          Scalar* sumAt = sums + chunk + 4 * g;
          Scalar* inAt = inSums + chunk + 4 * g;
          Scalar* outAt = outSums + chunk + 4 * g;
          State sum = Lanes::Load(sumAt), inSum = Lanes::Load(inAt), outSum = Lanes::Load(outAt);
          const State centre = Lanes::FromLanes(centreLanes[g]);
          quotients[g] = lanes.Quotients(sum);
          sum = Lanes::Sub(sum, outSum);
          outSum = Lanes::Sub(outSum, Lanes::FromLanes(leavingLanes[g]));
          inSum = Lanes::Add(inSum, Lanes::FromLanes(enteringLanes[g]));
          sum = Lanes::Add(sum, inSum);
          outSum = Lanes::Add(outSum, centre);
          inSum = Lanes::Sub(inSum, centre);
          Lanes::Store(sumAt, sum);
          Lanes::Store(inAt, inSum);
          Lanes::Store(outAt, outSum);
        }
        StoreChunk<Store>(targetRow, colourRow, block + chunk, count, quotients);
      }
    }
  }
}

// ----- 128-bit sums, any radius -------------------------------------------------

template <unsigned C, unsigned FirstByte>
void RowsToPlaneWide(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                     uint32_t width, uint32_t firstRow, uint32_t endRow, uint32_t radius) {
  for (uint32_t y = firstRow; y < endRow; ++y) {
    const unsigned char* line = source + y * sourceStride;
    unsigned char* out = plane + y * planeStride;
    StackBlurWideLine<C>(
        width, radius,
        [&](uint64_t p, uint32_t* values) {
          for (unsigned c = 0; c < C; ++c) values[c] = line[p * kBytesPerPixel + FirstByte + c];
        },
        [&](uint64_t x, const uint32_t* quotients) {
          for (unsigned c = 0; c < C; ++c) out[x * C + c] = static_cast<unsigned char>(quotients[c]);
        });
  }
}

// 512 plane bytes side by side: as in the 32-bit column pass, many cache
// lines of every row in flight.
void PlaneColumnsWide(const unsigned char* plane, size_t planeStride, uint32_t height, size_t firstByte,
                      size_t endByte, uint32_t radius, StackBlurColumnStore store, unsigned char* target,
                      size_t targetStride, const unsigned char* colour, size_t colourStride) {
  const unsigned kSide = 512;
  for (size_t group = firstByte; group < endByte; group += kSide) {
    const size_t count = std::min<size_t>(kSide, endByte - group);
    StackBlurWideLine<kSide>(
        height, radius,
        [&](uint64_t y, uint32_t* values) {
          const unsigned char* row = plane + y * planeStride + group;
          for (unsigned c = 0; c < kSide; ++c) values[c] = c < count ? row[c] : 0;
        },
        [&](uint64_t y, const uint32_t* quotients) {
          unsigned char* row = target + y * targetStride;
          for (unsigned c = 0; c < count; ++c) {
            const size_t at = group + c;
            const unsigned char q = static_cast<unsigned char>(quotients[c]);
            if (store == kStoreBytes) {
              row[at] = q;
            } else if (store == kStoreAlphaOverColour) {
              std::memcpy(row + at * kBytesPerPixel, colour + y * colourStride + at * kBytesPerPixel, kAlphaByte);
              row[at * kBytesPerPixel + kAlphaByte] = q;
            } else {
              row[(at / 2) * kBytesPerPixel + at % 2] = q;
            }
          }
        });
  }
}

}  // namespace

namespace {

template <class Lanes>
void RowsToPlaneWith(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                     uint32_t width, uint32_t firstRow, uint32_t endRow, uint32_t radius, StackBlurPlaneKind kind) {
  switch (kind) {
    case kPlaneFourBytes:
      return RowsToPlaneInLanes<kPlaneFourBytes, Lanes>(source, sourceStride, plane, planeStride, width, firstRow,
                                                        endRow, radius);
    case kPlaneFirstTwoBytes:
      return RowsToPlaneInLanes<kPlaneFirstTwoBytes, Lanes>(source, sourceStride, plane, planeStride, width,
                                                            firstRow, endRow, radius);
    default:
      return RowsToPlaneInLanes<kPlaneAlphaByte, Lanes>(source, sourceStride, plane, planeStride, width, firstRow,
                                                        endRow, radius);
  }
}

template <class Lanes>
void PlaneColumnsWith(const unsigned char* plane, size_t planeStride, uint32_t height, size_t firstByte,
                      size_t endByte, uint32_t radius, StackBlurColumnStore store, unsigned char* target,
                      size_t targetStride, const unsigned char* colour, size_t colourStride) {
  switch (store) {
    case kStoreBytes:
      return PlaneColumnsInLanes<kStoreBytes, Lanes>(plane, planeStride, height, firstByte, endByte, radius, target,
                                                     targetStride, colour, colourStride);
    case kStoreAlphaOverColour:
      return PlaneColumnsInLanes<kStoreAlphaOverColour, Lanes>(plane, planeStride, height, firstByte, endByte, radius,
                                                               target, targetStride, colour, colourStride);
    default:
      return PlaneColumnsInLanes<kStoreFirstTwoBytes, Lanes>(plane, planeStride, height, firstByte, endByte, radius,
                                                             target, targetStride, colour, colourStride);
  }
}

}  // namespace

void StackBlurRowsToPlane(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                          uint32_t width, uint32_t firstRow, uint32_t endRow, uint32_t radius,
                          StackBlurPlaneKind kind) {
  if (width == 0 || firstRow >= endRow) return;
  if (radius <= kLargestStackBlurRadius) {
    return RowsToPlaneWith<Int32Lanes>(source, sourceStride, plane, planeStride, width, firstRow, endRow, radius,
                                       kind);
  }
  if (radius <= kLargestStackBlurRadiusInDoubles) {
    return RowsToPlaneWith<DoubleLanes>(source, sourceStride, plane, planeStride, width, firstRow, endRow, radius,
                                        kind);
  }
  switch (kind) {
    case kPlaneFourBytes:
      return RowsToPlaneWide<4, 0>(source, sourceStride, plane, planeStride, width, firstRow, endRow, radius);
    case kPlaneFirstTwoBytes:
      return RowsToPlaneWide<2, 0>(source, sourceStride, plane, planeStride, width, firstRow, endRow, radius);
    default:
      return RowsToPlaneWide<1, kAlphaByte>(source, sourceStride, plane, planeStride, width, firstRow, endRow,
                                            radius);
  }
}

void StackBlurPlaneColumns(const unsigned char* plane, size_t planeStride, uint32_t height, uint32_t firstColumn,
                           uint32_t endColumn, uint32_t radius, StackBlurColumnStore store, unsigned char* target,
                           size_t targetStride, const unsigned char* colour, size_t colourStride) {
  if (height == 0 || firstColumn >= endColumn) return;
  const size_t planeBytes = PlaneBytesOf(store);
  const size_t firstByte = firstColumn * planeBytes, endByte = endColumn * planeBytes;
  if (radius <= kLargestStackBlurRadius) {
    return PlaneColumnsWith<Int32Lanes>(plane, planeStride, height, firstByte, endByte, radius, store, target,
                                        targetStride, colour, colourStride);
  }
  if (radius <= kLargestStackBlurRadiusInDoubles) {
    return PlaneColumnsWith<DoubleLanes>(plane, planeStride, height, firstByte, endByte, radius, store, target,
                                         targetStride, colour, colourStride);
  }
  PlaneColumnsWide(plane, planeStride, height, firstByte, endByte, radius, store, target, targetStride, colour,
                   colourStride);
}

namespace {

struct PassShare {
  uint32_t first;
  uint32_t end;
  const unsigned char* source;
  size_t sourceStride;
  unsigned char* target;
  size_t targetStride;
  const unsigned char* colour;
  size_t colourStride;
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  int mode;  // the plane kind of a row pass, the store of a column pass
};

void* RowPassShareProc(void* record) {
  const PassShare& s = *static_cast<PassShare*>(record);
  StackBlurRowsToPlane(s.source, s.sourceStride, s.target, s.targetStride, s.width, s.first, s.end, s.radius,
                       static_cast<StackBlurPlaneKind>(s.mode));
  return nullptr;
}

void* ColumnPassShareProc(void* record) {
  const PassShare& s = *static_cast<PassShare*>(record);
  StackBlurPlaneColumns(s.source, s.sourceStride, s.height, s.first, s.end, s.radius,
                        static_cast<StackBlurColumnStore>(s.mode), s.target, s.targetStride, s.colour,
                        s.colourStride);
  return nullptr;
}

void RunShares(ThreadEntry entry, PassShare pass, uint32_t lines) {
  const uint32_t threads = PassThreadCount();
  if (threads == 0 || lines == 0) return;
  const uint32_t perThread = LinesPerThread(lines, threads);
  std::vector<PassShare> shares;
  for (uint32_t t = 0; t < threads; ++t) {
    const LineShare share = LineShareOf(t, perThread, lines);
    if (share.first == share.end) break;
    pass.first = share.first;
    pass.end = share.end;
    shares.push_back(pass);
  }
  RunThreads(entry, shares);
}

}  // namespace

void RunStackBlurRowPass(const unsigned char* source, size_t sourceStride, unsigned char* plane, size_t planeStride,
                         uint32_t width, uint32_t height, uint32_t radius, StackBlurPlaneKind kind) {
  PassShare pass = PassShare();
  pass.source = source;
  pass.sourceStride = sourceStride;
  pass.target = plane;
  pass.targetStride = planeStride;
  pass.width = width;
  pass.height = height;
  pass.radius = radius;
  pass.mode = kind;
  RunShares(RowPassShareProc, pass, height);
}

void RunStackBlurColumnPass(const unsigned char* plane, size_t planeStride, uint32_t width, uint32_t height,
                            uint32_t radius, StackBlurColumnStore store, unsigned char* target, size_t targetStride,
                            const unsigned char* colour, size_t colourStride) {
  PassShare pass = PassShare();
  pass.source = plane;
  pass.sourceStride = planeStride;
  pass.target = target;
  pass.targetStride = targetStride;
  pass.colour = colour;
  pass.colourStride = colourStride;
  pass.width = width;
  pass.height = height;
  pass.radius = radius;
  pass.mode = store;
  RunShares(ColumnPassShareProc, pass, width);
}

}  // namespace image
}  // namespace kvo
