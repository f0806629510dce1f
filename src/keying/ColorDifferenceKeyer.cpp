#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include <immintrin.h>

#include <kvimage/keying.h>

#include "pipeline/StageNeeds.h"
#include "support/ByteLookup.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// One share of Render8: pixels copied from in to out with their alpha scaled
// by weights[matte value]; pixels from `matted` on have no matte byte and
// take weights[0].
struct KeyAlphaRun {
  const unsigned char* in;
  unsigned char* out;
  const unsigned char* matte;
  size_t matted;
  size_t pixels;
  const unsigned char* weights;
  kvo::KVLookupTables* tables;

  KeyAlphaRun From(size_t first) const {
    return KeyAlphaRun{in + first * kBytesPerPixel, out + first * kBytesPerPixel, matte + first, matted - first,
                       pixels - first, weights, tables};
  }
};

namespace {

const int kMaxThreads = 255;

// Each kernel family below has one signature and returns the pixels it did:
// all of them, a vector kernel handing its tail to its plain twin. The
// wider kernels are SSSE3 rungs, so a host that caps the wider sets at none
// sends the keyer down its plain kernels.

// The set bits of a 16-bit mask, counted in place: the baseline has no bit
// count instruction, and the compiler's stand-in is a library call.
inline uint32_t BitCount16(uint32_t mask) {
  mask = mask - ((mask >> 1) & 0x5555u);
  mask = (mask & 0x3333u) + ((mask >> 2) & 0x3333u);
  mask = (mask + (mask >> 4)) & 0x0F0Fu;
  return (mask + (mask >> 8)) & 0x1Fu;
}

// ---------------------------------------------------------------------------
// Render8's alphas.

typedef size_t (*KeyAlphasKernel)(const KeyAlphaRun& run);

// Whole pixels are moved as 32-bit words (the colour bytes unchanged) and the
// alpha byte written over; locals keep the stores from forcing reloads.
size_t KeyAlphas_Plain(const KeyAlphaRun& run) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const unsigned char* matte = run.matte;
  const unsigned char* weights = run.weights;
  kvo::KVLookupTables& tables = *run.tables;
  const size_t matted = run.matted, pixels = run.pixels;
  for (size_t i = 0; i < pixels; ++i) {
    const unsigned char* p = in + i * kBytesPerPixel;
    unsigned char* q = out + i * kBytesPerPixel;
    const unsigned char alpha = tables.AlphaBlend(p[kAlphaByte], weights[i < matted ? matte[i] : 0]);
    uint32_t word;
    std::memcpy(&word, p, sizeof word);
    std::memcpy(q, &word, sizeof word);
    q[kAlphaByte] = alpha;
  }
  return pixels;
}

// The matted pixels 16 at a time, for tables whose AlphaBlend is the rounded
// product: (v * a + 127) / 255 is at most 65152, and n / 255 =
// (n * 0x8081) >> 23 for every n below 65536.
KV_TARGET_SSSE3 size_t KeyAlphas_SSSE3(const KeyAlphaRun& run) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const unsigned char* matte = run.matte;
  const unsigned char* weights = run.weights;
  const __m128i zero = _mm_setzero_si128();
  const __m128i colourMask = _mm_set1_epi32(0x00FFFFFF);
  const __m128i rounding = _mm_set1_epi16(127), reciprocal = _mm_set1_epi16(static_cast<short>(0x8081));
  size_t i = 0;
  for (; i + 16 <= run.matted; i += 16) {
    unsigned char blockWeights[16];
    for (int k = 0; k < 16; ++k) blockWeights[k] = weights[matte[i + k]];
    const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(blockWeights));
    __m128i p[4];
    for (int k = 0; k < 4; ++k) p[k] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + (i + 4 * k) * 4));
    const __m128i alphas[2] = {_mm_packs_epi32(_mm_srli_epi32(p[0], 24), _mm_srli_epi32(p[1], 24)),
                               _mm_packs_epi32(_mm_srli_epi32(p[2], 24), _mm_srli_epi32(p[3], 24))};
    const __m128i weightLanes[2] = {_mm_unpacklo_epi8(w, zero), _mm_unpackhi_epi8(w, zero)};
    for (int half = 0; half < 2; ++half) {
      const __m128i product = _mm_add_epi16(_mm_mullo_epi16(alphas[half], weightLanes[half]), rounding);
      const __m128i blended = _mm_srli_epi16(_mm_mulhi_epu16(product, reciprocal), 7);
      const __m128i shifted[2] = {_mm_slli_epi32(_mm_unpacklo_epi16(blended, zero), 24),
                                  _mm_slli_epi32(_mm_unpackhi_epi16(blended, zero), 24)};
      for (int k = 0; k < 2; ++k) {
        const __m128i pixel = _mm_or_si128(_mm_and_si128(p[2 * half + k], colourMask), shifted[k]);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + (i + 8 * half + 4 * k) * 4), pixel);
      }
    }
  }
  return i + KeyAlphas_Plain(run.From(i));
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The same 64 pixels at a time: the 64 weights are looked up in registers,
// and each 16-bit product sits in the low half of its pixel's lane.
KV_TARGET_AVX512VBMI size_t KeyAlphas_AVX512VBMI(const KeyAlphaRun& run) {
  const unsigned char* in = run.in;
  unsigned char* out = run.out;
  const unsigned char* matte = run.matte;
  ByteTableRegisters table;
  LoadByteTable_AVX512VBMI(run.weights, table);
  const __mmask64 alphaLanes = 0x8888888888888888ull;
  const __m512i rounding = _mm512_set1_epi32(127), reciprocal = _mm512_set1_epi32(0x8081);
  // Weight 16 * k + j to the low byte of lane j, the other bytes zeroed.
  const __mmask64 lowBytes = 0x1111111111111111ull;
  __m512i spread[4];
  for (int k = 0; k < 4; ++k) {
    spread[k] = _mm512_add_epi32(_mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15),
                                 _mm512_set1_epi32(16 * k));
  }
  size_t i = 0;
  for (; i + 64 <= run.matted; i += 64) {
    const __m512i values = _mm512_loadu_si512(matte + i);
    const __m512i w = LookUpBytes_AVX512VBMI(values, table);
    for (int k = 0; k < 4; ++k) {
      const __m512i p = _mm512_loadu_si512(in + (i + 16 * k) * kBytesPerPixel);
      const __m512i weight = _mm512_maskz_permutexvar_epi8(lowBytes, spread[k], w);
      const __m512i product = _mm512_add_epi32(_mm512_mullo_epi16(_mm512_srli_epi32(p, 24), weight), rounding);
      const __m512i blended = _mm512_srli_epi32(_mm512_mulhi_epu16(product, reciprocal), 7);
      _mm512_storeu_si512(out + (i + 16 * k) * kBytesPerPixel,
                          _mm512_mask_blend_epi8(alphaLanes, p, _mm512_slli_epi32(blended, 24)));
    }
  }
  return i + KeyAlphas_SSSE3(run.From(i));
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// ---------------------------------------------------------------------------
// Key-colour detection.

struct KeyPixelCounts {
  uint32_t green;
  uint32_t blue;
  uint32_t other;
};

typedef size_t (*CountKeyPixelsKernel)(const unsigned char* pixels, size_t count, KeyPixelCounts& counts);

// Green: byte 1 at least bytes 0 and 2. Blue: byte 0 strictly the largest.
size_t CountKeyPixels_Plain(const unsigned char* pixels, size_t count, KeyPixelCounts& counts) {
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = pixels + i * kBytesPerPixel;
    const unsigned char b0 = p[kBlueByte], b1 = p[kGreenByte], b2 = p[kRedByte];
    if (b1 >= std::max(b0, b2)) {
      ++counts.green;
    } else if (b0 > std::max(b1, b2)) {
      ++counts.blue;
    } else {
      ++counts.other;
    }
  }
  return count;
}

// Bytes 0, 1 and 2 of the 16 pixels at p, one register each (the alpha
// bytes are dropped).
KV_TARGET_SSSE3 inline void LoadColourPlanes(const unsigned char* p, __m128i (&channels)[3]) {
  // Gathers byte c of 4 pixels into dword c of the register.
  const __m128i byChannel = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const __m128i v0 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)), byChannel);
  const __m128i v1 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16)), byChannel);
  const __m128i v2 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 32)), byChannel);
  const __m128i v3 = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 48)), byChannel);
  const __m128i t0 = _mm_unpacklo_epi32(v0, v1), t1 = _mm_unpackhi_epi32(v0, v1);
  const __m128i t2 = _mm_unpacklo_epi32(v2, v3), t3 = _mm_unpackhi_epi32(v2, v3);
  channels[0] = _mm_unpacklo_epi64(t0, t2);
  channels[1] = _mm_unpackhi_epi64(t0, t2);
  channels[2] = _mm_unpacklo_epi64(t1, t3);
}

// 16 pixels at a time: a blue pixel has byte 0 above byte 1, so it is never
// green, and the rest are the other pixels.
KV_TARGET_SSSE3 size_t CountKeyPixels_SSSE3(const unsigned char* pixels, size_t count, KeyPixelCounts& counts) {
  const __m128i zero = _mm_setzero_si128();
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    __m128i channels[3];
    LoadColourPlanes(pixels + i * kBytesPerPixel, channels);
    const __m128i b0 = channels[0], b1 = channels[1], b2 = channels[2];
    const int green = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_subs_epu8(_mm_max_epu8(b0, b2), b1), zero));
    const int notBlue = _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_subs_epu8(b0, _mm_max_epu8(b1, b2)), zero));
    const uint32_t greens = BitCount16(static_cast<uint32_t>(green));
    const uint32_t blues = 16 - BitCount16(static_cast<uint32_t>(notBlue));
    counts.green += greens;
    counts.blue += blues;
    counts.other += 16 - greens - blues;
  }
  return i + CountKeyPixels_Plain(pixels + i * kBytesPerPixel, count - i, counts);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// 16 pixels at a time in 32-bit lanes, each lane counting its green and
// blue pixels (a lane sees at most a quarter of a 32-bit count).
KV_TARGET_AVX512VBMI size_t CountKeyPixels_AVX512VBMI(const unsigned char* pixels, size_t count,
                                                      KeyPixelCounts& counts) {
  const __m512i byteMask = _mm512_set1_epi32(0xFF), minusOne = _mm512_set1_epi32(-1);
  __m512i greens = _mm512_setzero_si512(), blues = _mm512_setzero_si512();
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m512i p = _mm512_loadu_si512(pixels + i * kBytesPerPixel);
    const __m512i b0 = _mm512_and_si512(_mm512_srli_epi32(p, 8 * kBlueByte), byteMask);
    const __m512i b1 = _mm512_and_si512(_mm512_srli_epi32(p, 8 * kGreenByte), byteMask);
    const __m512i b2 = _mm512_and_si512(_mm512_srli_epi32(p, 8 * kRedByte), byteMask);
    const __mmask16 green = _mm512_cmpge_epu32_mask(b1, _mm512_max_epu32(b0, b2));
    const __mmask16 blue = _mm512_cmpgt_epu32_mask(b0, _mm512_max_epu32(b1, b2));
    greens = _mm512_mask_sub_epi32(greens, green, greens, minusOne);
    blues = _mm512_mask_sub_epi32(blues, blue, blues, minusOne);
  }
  uint32_t greenLanes[16], blueLanes[16];
  _mm512_storeu_si512(greenLanes, greens);
  _mm512_storeu_si512(blueLanes, blues);
  uint32_t greenCount = 0, blueCount = 0;
  for (int k = 0; k < 16; ++k) {
    greenCount += greenLanes[k];
    blueCount += blueLanes[k];
  }
  counts.green += greenCount;
  counts.blue += blueCount;
  counts.other += static_cast<uint32_t>(i) - greenCount - blueCount;
  return i + CountKeyPixels_Plain(pixels + i * kBytesPerPixel, count - i, counts);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

CountKeyPixelsKernel ChooseCountKernel() {
  return ChooseKernel(KernelRungs<CountKeyPixelsKernel>{CountKeyPixels_Plain, nullptr, CountKeyPixels_SSSE3, nullptr,
                                                        CountKeyPixels_AVX512VBMI});
}

// One detection thread's counts over its byte share.
KeyPixelCounts CountKeyPixelShare(KVImage8* image, unsigned char threadIndex, unsigned char threadCount,
                                  CountKeyPixelsKernel kernel) {
  const ShareRun share = ByteShare(image->Width(), image->Height(), threadIndex, threadCount, image->BufferByteSize());
  KeyPixelCounts counts = {0, 0, 0};
  kernel(image->Buffer() + share.start, share.count / kBytesPerPixel, counts);
  return counts;
}

// ---------------------------------------------------------------------------
// The matte.

// count and sum wrap modulo 2^32 so that no thread split can overflow them;
// the fold recovers the true sum (see TrueKeySum).
int32_t WrappingAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Chroma softening: below the limit T a difference is scaled down linearly
// from full at chroma T to nothing at chroma S, and below S it is dropped.
struct Softening {
  int limit;
  double softLimit;
  double rampCut[256];

  Softening(double saturationLimit, double saturationSoftness)
      : limit(TruncateToInt(255.0 * saturationLimit)), softLimit(limit * saturationSoftness) {
    const double rampWidth = (1.0 - saturationSoftness) * limit;
    for (int chroma = 0; chroma < 256; ++chroma) rampCut[chroma] = std::fabs((chroma - softLimit) / rampWidth - 1.0);
  }
};

typedef size_t (*MatteKernel)(const unsigned char* in, unsigned char* matte, size_t count,
                              const Softening& softening, MatteInfo& info);

// One run of matte bytes for one key byte. Only key pixels (key byte strictly
// the largest) can store a non-zero byte: any other difference is at most 0,
// and softening never makes it positive. For a key pixel the key byte is the
// maximum, so its chroma is the key byte less the smaller other byte.
template <unsigned int KeyByte, unsigned int OtherByte1, unsigned int OtherByte2>
size_t MatteRun_Plain(const unsigned char* in, unsigned char* matte, size_t count, const Softening& softening,
                      MatteInfo& info) {
  const int limit = softening.limit;
  const double softLimit = softening.softLimit;
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = in + i * kBytesPerPixel;
    const int key = p[KeyByte];
    int difference = key - std::max(p[OtherByte1], p[OtherByte2]);
    if (difference <= 0) {
      matte[i] = 0;
      continue;
    }
    info.count = WrappingAdd(info.count, 1);
    info.sum = WrappingAdd(info.sum, difference);
    info.minimum = std::min(info.minimum, difference);
    info.maximum = std::max(info.maximum, difference);

    const int chroma = key - std::min(p[OtherByte1], p[OtherByte2]);
    if (limit > chroma) {
      if (softLimit > chroma) {
        difference = 0;
      } else if (softLimit <= chroma) {
        difference = TruncateToInt(difference - softening.rampCut[chroma] * difference);
      }
    }
    matte[i] = static_cast<unsigned char>(ClampToByte(difference));
  }
  return count;
}

// The same run 16 pixels at a time. Blocks whose key pixels all keep their
// difference (chroma at or above the limit) take the vector path: the
// difference, the statistics and the matte bytes for 16 pixels at once.
// Blocks with a pixel to soften go through the plain run, as does the tail.
template <unsigned int KeyByte, unsigned int OtherByte1, unsigned int OtherByte2>
KV_TARGET_SSSE3 size_t MatteRun_SSSE3(const unsigned char* in, unsigned char* matte, size_t count,
                                      const Softening& softening, MatteInfo& info) {
  const int limit = softening.limit;
  const __m128i zero = _mm_setzero_si128();
  // Key pixels with chroma below `limit` are softened; no limit above 255
  // fits a byte, so such a limit sends every key pixel to the plain run.
  const bool softensAll = limit > 255;
  const __m128i limitBytes = _mm_set1_epi8(static_cast<char>(limit > 0 && limit <= 255 ? limit : 0));
  __m128i lowest = _mm_set1_epi8(static_cast<char>(0xFF)), highest = zero, sums = zero;
  uint32_t keyPixels = 0;
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const unsigned char* p = in + i * kBytesPerPixel;
    __m128i channels[3];
    LoadColourPlanes(p, channels);
    const __m128i key = channels[KeyByte], other1 = channels[OtherByte1], other2 = channels[OtherByte2];
    // Key pixels are those with a non-zero saturated difference.
    const __m128i difference = _mm_subs_epu8(key, _mm_max_epu8(other1, other2));
    const __m128i notKey = _mm_cmpeq_epi8(difference, zero);
    const __m128i chroma = _mm_subs_epu8(key, _mm_min_epu8(other1, other2));
    // chroma < limit, unsigned: the saturated limit - chroma is non-zero.
    const __m128i soft = _mm_andnot_si128(notKey, _mm_xor_si128(_mm_cmpeq_epi8(_mm_subs_epu8(limitBytes, chroma), zero),
                                                               _mm_set1_epi8(static_cast<char>(0xFF))));
    const int keyMask = ~_mm_movemask_epi8(notKey) & 0xFFFF;
    if (_mm_movemask_epi8(soft) != 0 || (softensAll && keyMask != 0)) {
      MatteRun_Plain<KeyByte, OtherByte1, OtherByte2>(p, matte + i, 16, softening, info);
      continue;
    }
    keyPixels += BitCount16(static_cast<uint32_t>(keyMask));
    sums = _mm_add_epi64(sums, _mm_sad_epu8(difference, zero));
    lowest = _mm_min_epu8(lowest, _mm_or_si128(difference, notKey));
    highest = _mm_max_epu8(highest, difference);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(matte + i), difference);
  }
  // Fold the vector statistics into the plain run's; count and sum wrap.
  unsigned char lowestBytes[16], highestBytes[16];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(lowestBytes), lowest);
  _mm_storeu_si128(reinterpret_cast<__m128i*>(highestBytes), highest);
  uint64_t sumLanes[2];
  _mm_storeu_si128(reinterpret_cast<__m128i*>(sumLanes), sums);
  if (keyPixels != 0) {
    info.count = WrappingAdd(info.count, static_cast<int32_t>(keyPixels));
    info.sum = WrappingAdd(info.sum, static_cast<int32_t>(static_cast<uint32_t>(sumLanes[0] + sumLanes[1])));
    for (int k = 0; k < 16; ++k) {
      info.minimum = std::min<int32_t>(info.minimum, lowestBytes[k]);
      info.maximum = std::max<int32_t>(info.maximum, highestBytes[k]);
    }
  }
  return i + MatteRun_Plain<KeyByte, OtherByte1, OtherByte2>(in + i * kBytesPerPixel, matte + i, count - i,
                                                             softening, info);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The same 16 pixels at a time in 32-bit lanes, each lane keeping its own
// statistics (its sum wrapping as the plain run's does).
template <unsigned int KeyByte, unsigned int OtherByte1, unsigned int OtherByte2>
KV_TARGET_AVX512VBMI size_t MatteRun_AVX512VBMI(const unsigned char* in, unsigned char* matte, size_t count,
                                                const Softening& softening, MatteInfo& info) {
  const int limit = softening.limit;
  const bool softensAll = limit > 255;
  const __m512i limits = _mm512_set1_epi32(limit > 0 && limit <= 255 ? limit : 0);
  const __m512i byteMask = _mm512_set1_epi32(0xFF), zero = _mm512_setzero_si512();
  const __m512i minusOne = _mm512_set1_epi32(-1);
  __m512i lowest = _mm512_set1_epi32(255), highest = zero, sums = zero, counts = zero;
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const unsigned char* p = in + i * kBytesPerPixel;
    const __m512i pixel = _mm512_loadu_si512(p);
    const __m512i key = _mm512_and_si512(_mm512_srli_epi32(pixel, 8 * KeyByte), byteMask);
    const __m512i other1 = _mm512_and_si512(_mm512_srli_epi32(pixel, 8 * OtherByte1), byteMask);
    const __m512i other2 = _mm512_and_si512(_mm512_srli_epi32(pixel, 8 * OtherByte2), byteMask);
    const __m512i difference = _mm512_sub_epi32(key, _mm512_max_epi32(other1, other2));
    const __mmask16 keyPixels = _mm512_cmpgt_epi32_mask(difference, zero);
    const __m512i chroma = _mm512_sub_epi32(key, _mm512_min_epi32(other1, other2));
    const __mmask16 soft = _mm512_mask_cmplt_epi32_mask(keyPixels, chroma, limits);
    if (soft != 0 || (softensAll && keyPixels != 0)) {
      MatteRun_Plain<KeyByte, OtherByte1, OtherByte2>(p, matte + i, 16, softening, info);
      continue;
    }
    counts = _mm512_mask_sub_epi32(counts, keyPixels, counts, minusOne);
    sums = _mm512_mask_add_epi32(sums, keyPixels, sums, difference);
    lowest = _mm512_mask_min_epi32(lowest, keyPixels, lowest, difference);
    highest = _mm512_mask_max_epi32(highest, keyPixels, highest, difference);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(matte + i), _mm512_cvtepi32_epi8(_mm512_maskz_mov_epi32(keyPixels, difference)));
  }
  int32_t countLanes[16], sumLanes[16], lowestLanes[16], highestLanes[16];
  _mm512_storeu_si512(countLanes, counts);
  _mm512_storeu_si512(sumLanes, sums);
  _mm512_storeu_si512(lowestLanes, lowest);
  _mm512_storeu_si512(highestLanes, highest);
  for (int k = 0; k < 16; ++k) {
    if (countLanes[k] == 0) continue;
    info.count = WrappingAdd(info.count, countLanes[k]);
    info.sum = WrappingAdd(info.sum, sumLanes[k]);
    info.minimum = std::min(info.minimum, lowestLanes[k]);
    info.maximum = std::max(info.maximum, highestLanes[k]);
  }
  return i + MatteRun_Plain<KeyByte, OtherByte1, OtherByte2>(in + i * kBytesPerPixel, matte + i, count - i,
                                                             softening, info);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// A key colour other than green or blue: no pixel is a key pixel.
size_t NoKeyPixels(const unsigned char*, unsigned char* matte, size_t count, const Softening&, MatteInfo&) {
  std::fill(matte, matte + count, static_cast<unsigned char>(0));
  return count;
}

MatteKernel ChooseMatteKernel(KVKeyColor keyColor) {
  if (keyColor == kKeyColorGreen) {
    return ChooseKernel(KernelRungs<MatteKernel>{MatteRun_Plain<kGreenByte, kBlueByte, kRedByte>, nullptr,
                                                 MatteRun_SSSE3<kGreenByte, kBlueByte, kRedByte>, nullptr,
                                                 MatteRun_AVX512VBMI<kGreenByte, kBlueByte, kRedByte>});
  }
  if (keyColor == kKeyColorBlue) {
    return ChooseKernel(KernelRungs<MatteKernel>{MatteRun_Plain<kBlueByte, kGreenByte, kRedByte>, nullptr,
                                                 MatteRun_SSSE3<kBlueByte, kGreenByte, kRedByte>, nullptr,
                                                 MatteRun_AVX512VBMI<kBlueByte, kGreenByte, kRedByte>});
  }
  return NoKeyPixels;
}

// One thread's share of the matte pass. The byte share and the pixel share
// describe the same pixels; both are cut at the end of the image, whose
// pixels the matte holds one byte each.
struct MatteShare {
  size_t byteStart;
  size_t pixelStart;
  size_t count;
};

MatteShare MatteShareOf(KVImage8* image, unsigned char threadIndex, unsigned char threadCount) {
  const size_t pixelLimit = image->BufferByteSize() / kBytesPerPixel;
  const ShareRun bytes =
      ByteShare(image->Width(), image->Height(), threadIndex, threadCount, pixelLimit * kBytesPerPixel);
  const ShareRun pixels = PixelShare(image->Width(), image->Height(), threadIndex, threadCount, pixelLimit);
  return MatteShare{static_cast<size_t>(bytes.start), static_cast<size_t>(pixels.start),
                    static_cast<size_t>(std::min<uint64_t>(bytes.count / kBytesPerPixel, pixels.count))};
}

void PullMatteShare(KVImage8* image, unsigned char threadIndex, unsigned char threadCount, MatteKernel kernel,
                    const Softening& softening, unsigned char* matte, MatteInfo& info) {
  const MatteShare share = MatteShareOf(image, threadIndex, threadCount);
  // Counted in a local: the threads' records share cache lines.
  MatteInfo local = info;
  kernel(image->Buffer() + share.byteStart, matte + share.pixelStart, share.count, softening, local);
  info = local;
}

// Zeroes the matte bytes that no thread's share of the matte pass writes:
// the pass writes every byte of its shares, so with these the whole matte is
// as fresh as a cleared one.
void ClearUnsharedMatte(KVImage8* image, unsigned char threadCount, std::vector<unsigned char>& matte) {
  size_t cleared = 0;  // every byte below is written or cleared
  for (unsigned int t = 0; t < threadCount; ++t) {
    const MatteShare share = MatteShareOf(image, static_cast<unsigned char>(t), threadCount);
    if (share.count == 0) continue;
    const size_t start = std::min(share.pixelStart, matte.size());
    if (start > cleared) std::fill(matte.begin() + static_cast<std::ptrdiff_t>(cleared),
                                   matte.begin() + static_cast<std::ptrdiff_t>(start), static_cast<unsigned char>(0));
    cleared = std::max(cleared, std::min(share.pixelStart + share.count, matte.size()));
  }
  std::fill(matte.begin() + static_cast<std::ptrdiff_t>(std::min(cleared, matte.size())), matte.end(),
            static_cast<unsigned char>(0));
}

// The sum of `count` differences lies in [count * minimum, count * maximum];
// its value modulo 2^32 pins it down exactly whenever that interval is shorter
// than 2^32, which holds for every frame of fewer than 16 million key pixels.
int64_t TrueKeySum(uint32_t wrappedSum, int64_t count, int32_t minimum) {
  const int64_t lowest = count * minimum;
  return lowest + static_cast<int64_t>(static_cast<uint32_t>(wrappedSum - static_cast<uint32_t>(lowest)));
}

// 255 - f, where f is the transparency factor of matte value m: 0 at or below
// the lower threshold, 255 at or above the upper, linear in between.
unsigned char AlphaWeight(int m, double lowThreshold, double highThreshold) {
  int factor;
  if (lowThreshold >= m) {
    factor = 0;
  } else if (m >= highThreshold) {
    factor = 255;
  } else {
    factor = ClampToByte(TruncateToInt((m - lowThreshold) / (highThreshold - lowThreshold) * 255.0));
  }
  return static_cast<unsigned char>(255 - factor);
}

// Whether the tables' AlphaBlend(v, a) is round(v * a / 255), computed as
// (v * a + 127) / 255, for every pair: then Render8 may compute it instead of
// looking it up.
bool AlphaBlendIsProduct(kvo::KVLookupTables& tables) {
  for (int v = 0; v < 256; ++v) {
    for (int a = 0; a < 256; ++a) {
      if (tables.AlphaBlend(static_cast<unsigned char>(v), static_cast<unsigned char>(a)) != (v * a + 127) / 255) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

ColorDifferenceKeyer::ColorDifferenceKeyer(KVKeyColor keyColor, double balance, double saturationLimit,
                                           double saturationSoftness, kvo::KVLookupTables& tables)
    : m_keyColor(keyColor),
      m_balance(balance),
      m_saturationLimit(saturationLimit),
      m_saturationSoftness(saturationSoftness),
      m_effectiveKeyColor(keyColor),
      m_tables(tables),
      m_lowThreshold(255.0),
      m_highThreshold(255.0),
      m_keyAlphas(KeyAlphas_Plain) {
  for (int m = 0; m < 256; ++m) m_alphaWeight[m] = AlphaWeight(m, m_lowThreshold, m_highThreshold);
}

void ColorDifferenceKeyer::Setup(KVAbstractImage* source) {
  // Render refuses any depth but 8 bits; there is nothing to measure.
  if (source->BitsPerChannel() != 0) return;
  KVImage8* image = static_cast<KVImage8*>(source);
  const unsigned char cores = PassThreadCount();

  KVKeyColor keyColor = m_keyColor;
  if (keyColor == kKeyColorAuto) AutoDetectKeyColor(image, cores, &keyColor);

  // Built aside and committed only when every thread has finished, so a
  // failed Setup leaves the previous matte and thresholds together.
  // The memory is the matte before last, not taken fresh from the system;
  // only what the thread shares leave unwritten is cleared.
  std::vector<unsigned char> matte;
  matte.swap(m_spareMatte);
  matte.resize(image->BufferByteSize() / kBytesPerPixel);
  ClearUnsharedMatte(image, cores, matte);
  std::vector<MatteInfo> matteInfo(cores, MatteInfo{0, 0, 255, 0});
  const MatteKernel kernel = ChooseMatteKernel(keyColor);
  const Softening softening(m_saturationLimit, m_saturationSoftness);
  RunParallel(cores, [&](unsigned char threadIndex, unsigned char threadCount) {
    PullMatteShare(image, threadIndex, threadCount, kernel, softening, matte.data(), matteInfo[threadIndex]);
    return 0;
  });

  MatteInfo folded = {0, 0, 255, 0};
  for (const MatteInfo& element : matteInfo) {
    folded.count = WrappingAdd(folded.count, element.count);
    folded.sum = WrappingAdd(folded.sum, element.sum);
    folded.minimum = std::min(folded.minimum, element.minimum);
    folded.maximum = std::max(folded.maximum, element.maximum);
  }
  const int64_t count = static_cast<uint32_t>(folded.count);
  const double mean = count == 0 ? std::numeric_limits<double>::quiet_NaN()
                                 : static_cast<double>(TrueKeySum(static_cast<uint32_t>(folded.sum), count,
                                                                  folded.minimum)) /
                                       static_cast<double>(count);
  const double mid = (folded.minimum + folded.maximum) * 0.5;

  m_effectiveKeyColor = keyColor;
  m_matte.swap(matte);
  m_spareMatte.swap(matte);
  m_highThreshold = mid + (mean - mid) * m_balance;
  m_lowThreshold = folded.minimum;
  for (int m = 0; m < 256; ++m) m_alphaWeight[m] = AlphaWeight(m, m_lowThreshold, m_highThreshold);
  m_keyAlphas = AlphaBlendIsProduct(m_tables)
                    ? ChooseKernel(KernelRungs<KeyAlphasKernel>{KeyAlphas_Plain, nullptr, KeyAlphas_SSSE3, nullptr,
                                                                KeyAlphas_AVX512VBMI})
                    : KeyAlphas_Plain;
}

// Render8 splits an 8-bit output into byte shares that cover it and writes
// every byte of its share; other depths are refused and written not at all.
// Setup measures the whole image.
StageNeeds NeedsOf(const ColorDifferenceKeyer&) { return StageNeeds{IsEightBit, false}; }

int ColorDifferenceKeyer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount);
}

int ColorDifferenceKeyer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;

  // The thread's matte run starts at index * ceil(W * H / count), which is
  // where its pixel share starts.
  const uint32_t totalPixels = source->Width() * source->Height();
  const size_t matteStart = static_cast<size_t>(threadIndex) * SaturatedShareSize(totalPixels, threadCount);

  const size_t pixels = share.count / kBytesPerPixel;
  // Pixels beyond the matte (Render without a Setup on this image) keep their
  // alpha, as a matte value of 0 would.
  const size_t mattePixels = m_matte.size();
  const size_t matted = matteStart < mattePixels ? std::min(pixels, mattePixels - matteStart) : 0;
  unsigned char weights[256];
  std::memcpy(weights, m_alphaWeight, sizeof weights);
  m_keyAlphas(KeyAlphaRun{source->Buffer() + share.start, destination->Buffer() + share.start,
                          m_matte.data() + (matted != 0 ? matteStart : 0), matted, pixels, weights, &m_tables});
  return 0;
}

void* AutoDetectKeyColorProc(void* data) {
  if (data == nullptr) return nullptr;
  AutoDetectKeyColorData* record = static_cast<AutoDetectKeyColorData*>(data);
  if (record->image == nullptr) return nullptr;
  const KeyPixelCounts counts =
      CountKeyPixelShare(record->image, record->threadIndex, record->threadCount, ChooseCountKernel());
  record->otherCount = counts.other;
  record->greenCount = counts.green;
  record->blueCount = counts.blue;
  return nullptr;
}

void AutoDetectKeyColor(KVImage8* image, int threadCount, KVKeyColor* result) {
  if (result == nullptr) return;
  const int threads = image == nullptr ? 0 : std::min(std::max(threadCount, 0), kMaxThreads);
  // Whole counts: the sums are the same in any order the threads add them.
  std::atomic<uint64_t> green(0), blue(0);
  const CountKeyPixelsKernel kernel = ChooseCountKernel();
  RunParallel(static_cast<unsigned char>(threads), [&](unsigned char threadIndex, unsigned char threadCount) {
    const KeyPixelCounts counts = CountKeyPixelShare(image, threadIndex, threadCount, kernel);
    green += counts.green;
    blue += counts.blue;
    return 0;
  });
  *result = blue.load() > green.load() ? kKeyColorBlue : kKeyColorGreen;
}

void* AutoColorDifferenceMatteProc(void* data) {
  if (data == nullptr) return nullptr;
  AutoColorDifferenceData* record = static_cast<AutoColorDifferenceData*>(data);
  if (record->image == nullptr || !record->matte || !record->matteInfo) return nullptr;
  PullMatteShare(record->image, record->threadIndex, record->threadCount, ChooseMatteKernel(record->keyColor),
                 Softening(record->saturationLimit, record->saturationSoftness), record->matte.get(),
                 record->matteInfo.get()[record->threadIndex]);
  return nullptr;
}

}  // namespace image
}  // namespace kvo
