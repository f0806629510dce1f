#ifndef KVIMAGE_SRC_KEYING_WHITEERODEKERNELS_H
#define KVIMAGE_SRC_KEYING_WHITEERODEKERNELS_H

// The white erode's kernels: three families, each under one signature,
// plain first. Each returns the units it did, all of them: an SSE2 kernel
// hands its tail to its plain twin. The erode has no documented plain path,
// so its passes always take the SSE2 kernels; the plain ones are their
// straightforward form.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <immintrin.h>

#include "support/PathChoice.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace erode_detail {

inline __m128i Load(const unsigned char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
inline void Store(unsigned char* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

}  // namespace erode_detail

// The alpha bytes of `count` pixels.
typedef size_t (*ExtractAlphasKernel)(const unsigned char* pixels, size_t count, unsigned char* alphas);

inline size_t ExtractAlphas_Plain(const unsigned char* pixels, size_t count, unsigned char* alphas) {
  for (size_t i = 0; i < count; ++i) alphas[i] = pixels[i * kBytesPerPixel + kAlphaByte];
  return count;
}

inline size_t ExtractAlphas_SSE2(const unsigned char* pixels, size_t count, unsigned char* alphas) {
  using erode_detail::Load;
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const unsigned char* p = pixels + i * kBytesPerPixel;
    const __m128i a0 = _mm_srli_epi32(Load(p), 24), a1 = _mm_srli_epi32(Load(p + 16), 24);
    const __m128i a2 = _mm_srli_epi32(Load(p + 32), 24), a3 = _mm_srli_epi32(Load(p + 48), 24);
    erode_detail::Store(alphas + i, _mm_packus_epi16(_mm_packs_epi32(a0, a1), _mm_packs_epi32(a2, a3)));
  }
  return i + ExtractAlphas_Plain(pixels + i * kBytesPerPixel, count - i, alphas + i);
}

// out = the colour bytes of `colours` with the alpha bytes `alphas` (out may
// be colours).
typedef size_t (*MergeAlphasKernel)(const unsigned char* colours, const unsigned char* alphas, size_t count,
                                    unsigned char* out);

inline size_t MergeAlphas_Plain(const unsigned char* colours, const unsigned char* alphas, size_t count,
                                unsigned char* out) {
  for (size_t i = 0; i < count; ++i) {
    uint32_t pixel;
    std::memcpy(&pixel, colours + i * kBytesPerPixel, sizeof pixel);
    pixel = (pixel & 0x00FFFFFFu) | (static_cast<uint32_t>(alphas[i]) << 24);
    std::memcpy(out + i * kBytesPerPixel, &pixel, sizeof pixel);
  }
  return count;
}

inline size_t MergeAlphas_SSE2(const unsigned char* colours, const unsigned char* alphas, size_t count,
                               unsigned char* out) {
  using erode_detail::Load;
  const __m128i zero = _mm_setzero_si128();
  const __m128i colourMask = _mm_set1_epi32(0x00FFFFFF);
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const __m128i a = Load(alphas + i);
    const __m128i low = _mm_unpacklo_epi8(zero, a), high = _mm_unpackhi_epi8(zero, a);
    const __m128i shifted[4] = {_mm_unpacklo_epi16(zero, low), _mm_unpackhi_epi16(zero, low),
                                _mm_unpacklo_epi16(zero, high), _mm_unpackhi_epi16(zero, high)};
    for (int k = 0; k < 4; ++k) {
      const unsigned char* c = colours + (i + 4 * k) * kBytesPerPixel;
      erode_detail::Store(out + (i + 4 * k) * kBytesPerPixel,
                          _mm_or_si128(_mm_and_si128(Load(c), colourMask), shifted[k]));
    }
  }
  return i + MergeAlphas_Plain(colours + i * kBytesPerPixel, alphas + i, count - i, out + i * kBytesPerPixel);
}

// values[i] = min(values[i], later[i]) for i < count, in rising i: `later`
// may be values itself or lie ahead of it, each minimum then reading a value
// not yet replaced.
typedef size_t (*MinimaKernel)(unsigned char* values, const unsigned char* later, size_t count);

inline size_t Minima_Plain(unsigned char* values, const unsigned char* later, size_t count) {
  for (size_t i = 0; i < count; ++i) values[i] = values[i] < later[i] ? values[i] : later[i];
  return count;
}

inline size_t Minima_SSE2(unsigned char* values, const unsigned char* later, size_t count) {
  using erode_detail::Load;
  size_t i = 0;
  for (; i + 16 <= count; i += 16) erode_detail::Store(values + i, _mm_min_epu8(Load(values + i), Load(later + i)));
  return i + Minima_Plain(values + i, later + i, count - i);
}

// out = the colour bytes of `colours` with, as alpha, the least alpha byte
// of the same pixel over `rowCount` rows (255 when there are none). Only
// the alpha lanes of the byte-wise minima are kept, so the colour bytes of
// the rows never matter.
// The vector kernels hand their tail on with rows moved along; they hold at
// most this many rows.
const size_t kMostLeastAlphaRows = 64;
typedef size_t (*LeastAlphasKernel)(const unsigned char* const* rows, size_t rowCount, const unsigned char* colours,
                                    size_t count, unsigned char* out);

inline size_t LeastAlphas_Plain(const unsigned char* const* rows, size_t rowCount, const unsigned char* colours,
                                size_t count, unsigned char* out) {
  for (size_t i = 0; i < count; ++i) {
    unsigned char lowest = 255;
    for (size_t r = 0; r < rowCount; ++r) {
      const unsigned char alpha = rows[r][i * kBytesPerPixel + kAlphaByte];
      lowest = alpha < lowest ? alpha : lowest;
    }
    uint32_t pixel;
    std::memcpy(&pixel, colours + i * kBytesPerPixel, sizeof pixel);
    pixel = (pixel & 0x00FFFFFFu) | (static_cast<uint32_t>(lowest) << 24);
    std::memcpy(out + i * kBytesPerPixel, &pixel, sizeof pixel);
  }
  return count;
}

inline size_t LeastAlphas_SSE2(const unsigned char* const* rows, size_t rowCount, const unsigned char* colours,
                               size_t count, unsigned char* out) {
  using erode_detail::Load;
  const __m128i colourMask = _mm_set1_epi32(0x00FFFFFF);
  size_t i = 0;
  for (; i + 4 <= count; i += 4) {
    const size_t offset = i * kBytesPerPixel;
    __m128i lowest = _mm_set1_epi8(static_cast<char>(0xFF));
    for (size_t r = 0; r < rowCount; ++r) lowest = _mm_min_epu8(lowest, Load(rows[r] + offset));
    const __m128i colour = _mm_and_si128(Load(colours + offset), colourMask);
    erode_detail::Store(out + offset, _mm_or_si128(colour, _mm_andnot_si128(colourMask, lowest)));
  }
  if (i == count) return count;
  const unsigned char* tailRows[kMostLeastAlphaRows];
  for (size_t r = 0; r < rowCount; ++r) tailRows[r] = rows[r] + i * kBytesPerPixel;
  return i + LeastAlphas_Plain(tailRows, rowCount, colours + i * kBytesPerPixel, count - i,
                                  out + i * kBytesPerPixel);
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// 16 pixels at a time over `RowCount` rows held in registers (0: any count,
// read from the list); returns the pixels done.
template <size_t RowCount>
KV_TARGET_AVX512VBMI inline size_t LeastAlphasBlocks_AVX512VBMI(const unsigned char* const* rows, size_t rowCount,
                                                               const unsigned char* colours, size_t count,
                                                               unsigned char* out) {
  const __mmask64 alphaLanes = 0x8888888888888888ull;
  const unsigned char* held[RowCount == 0 ? 1 : RowCount];
  for (size_t r = 0; r < RowCount; ++r) held[r] = rows[r];
  size_t i = 0;
  for (; i + 16 <= count; i += 16) {
    const size_t offset = i * kBytesPerPixel;
    __m512i lowest = _mm512_set1_epi8(static_cast<char>(0xFF));
    if (RowCount != 0) {
      for (size_t r = 0; r < RowCount; ++r) lowest = _mm512_min_epu8(lowest, _mm512_loadu_si512(held[r] + offset));
    } else {
      for (size_t r = 0; r < rowCount; ++r) lowest = _mm512_min_epu8(lowest, _mm512_loadu_si512(rows[r] + offset));
    }
    _mm512_storeu_si512(out + offset, _mm512_mask_blend_epi8(alphaLanes, _mm512_loadu_si512(colours + offset), lowest));
  }
  return i;
}

KV_TARGET_AVX512VBMI inline size_t LeastAlphas_AVX512VBMI(const unsigned char* const* rows, size_t rowCount,
                                                          const unsigned char* colours, size_t count,
                                                          unsigned char* out) {
  // The erode's usual windows (sizes 1 and 2) with their rows in registers.
  size_t i;
  if (rowCount == 3) {
    i = LeastAlphasBlocks_AVX512VBMI<3>(rows, rowCount, colours, count, out);
  } else if (rowCount == 5) {
    i = LeastAlphasBlocks_AVX512VBMI<5>(rows, rowCount, colours, count, out);
  } else {
    i = LeastAlphasBlocks_AVX512VBMI<0>(rows, rowCount, colours, count, out);
  }
  if (i == count) return count;
  const unsigned char* tailRows[kMostLeastAlphaRows];
  for (size_t r = 0; r < rowCount; ++r) tailRows[r] = rows[r] + i * kBytesPerPixel;
  return i + LeastAlphas_SSE2(tailRows, rowCount, colours + i * kBytesPerPixel, count - i, out + i * kBytesPerPixel);
}

KV_TARGET_AVX512VBMI inline size_t Minima_AVX512VBMI(unsigned char* values, const unsigned char* later, size_t count) {
  size_t i = 0;
  for (; i + 64 <= count; i += 64) {
    _mm512_storeu_si512(values + i, _mm512_min_epu8(_mm512_loadu_si512(values + i), _mm512_loadu_si512(later + i)));
  }
  return i + Minima_SSE2(values + i, later + i, count - i);
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// One kernel of each family, of one rung.
struct ErodeKernels {
  ExtractAlphasKernel extractAlphas;
  MergeAlphasKernel mergeAlphas;
  MinimaKernel minima;
  LeastAlphasKernel leastAlphas;
};

inline ErodeKernels ChooseErodeKernels() {
  return ErodeKernels{
      ChooseKernel(KernelRungs<ExtractAlphasKernel>{ExtractAlphas_Plain, ExtractAlphas_SSE2, nullptr, nullptr}),
      ChooseKernel(KernelRungs<MergeAlphasKernel>{MergeAlphas_Plain, MergeAlphas_SSE2, nullptr, nullptr}),
      ChooseKernel(KernelRungs<MinimaKernel>{Minima_Plain, Minima_SSE2, nullptr, nullptr, Minima_AVX512VBMI}),
      ChooseKernel(
          KernelRungs<LeastAlphasKernel>{LeastAlphas_Plain, LeastAlphas_SSE2, nullptr, nullptr, LeastAlphas_AVX512VBMI})};
}

}  // namespace image
}  // namespace kvo

#endif
