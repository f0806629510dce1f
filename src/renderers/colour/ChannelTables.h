#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_CHANNELTABLES_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_CHANNELTABLES_H

// What the table-driven tone and colour stages share: their thread shares and
// the documented choice between their paths, the per-pixel table walks of
// their plain paths, and the block loop and 16-bit multiply of their SSE2
// paths.
#include <emmintrin.h>
#include <mmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <kvimage/image.h>
#include <kvimage/types.h>

#include "renderers/colour/PixelRun.h"
#include "support/AssertionSites.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// One thread of a stage whose plain path walks a table and whose vector path
// computes its own formula. The plain kernel walks the plain share. Any other
// kernel is a vector path: it takes the vector share, and when that share's
// pixel count is not a multiple of 16 the whole call goes the plain way
// instead (with the plain share, less the pixels of the pass's vector-formula
// threads); otherwise the kernel does the written part of the share. The
// vector kernels do every pixel of their run, a partial last block included,
// since a plain tail would change the formula.
template <class Arguments>
int RenderTableShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                     unsigned char threadCount, PixelKernel<Arguments> kernel, PixelKernel<Arguments> plain,
                     const Arguments& arguments) {
  if (kernel != plain) {
    const ShareRun share = VectorPathShare(source, threadIndex, threadCount);
    if (share.count == 0) return 0;
    if (TakesVectorFormula(share)) {
      kernel(WrittenRun(source, destination, share), arguments);
    } else {
      ForEachPlainFallbackRun(source, destination, threadIndex, threadCount,
                              [plain, &arguments](const PixelRun& run) { plain(run, arguments); });
    }
    return 0;
  }
  PixelRun run;
  if (PlainPathShare(source, destination, threadIndex, threadCount, run)) plain(run, arguments);
  return 0;
}

// Pixels are moved as one 32-bit word (blue in the low byte) so that each
// pixel costs one load and one store around its lookups.
inline uint32_t LoadPixel(const unsigned char* p) {
  uint32_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

inline void StorePixel(unsigned char* p, uint32_t word) { std::memcpy(p, &word, sizeof word); }

inline uint32_t ByteOf(uint32_t word, unsigned int byte) { return (word >> (8 * byte)) & 0xFFu; }

// Bytes 0..2 through three tables (blue, green, red), byte 3 copied.
inline void ApplyColourTables(const PixelRun& run, const unsigned char* blue, const unsigned char* green,
                              const unsigned char* red) {
  for (size_t i = 0; i < run.pixels; ++i) {
    const uint32_t p = LoadPixel(run.in + i * kBytesPerPixel);
    StorePixel(run.out + i * kBytesPerPixel,
               static_cast<uint32_t>(blue[ByteOf(p, kBlueByte)]) |
                   static_cast<uint32_t>(green[ByteOf(p, kGreenByte)]) << 8 |
                   static_cast<uint32_t>(red[ByteOf(p, kRedByte)]) << 16 | (p & 0xFF000000u));
  }
}

// The plain path of the single-table tone stages: colour (4), alpha (3) or
// every byte (5) through the table; any other selection writes nothing.
inline void ApplyChannelTable(const PixelRun& run, const unsigned char* table, KVChannelsToProcess channels) {
  switch (static_cast<unsigned int>(channels)) {
    case kChannelsColor:
      ApplyColourTables(run, table, table, table);
      break;
    case kChannelsAlpha:
      for (size_t i = 0; i < run.pixels; ++i) {
        const uint32_t p = LoadPixel(run.in + i * kBytesPerPixel);
        StorePixel(run.out + i * kBytesPerPixel,
                   (p & 0x00FFFFFFu) | static_cast<uint32_t>(table[ByteOf(p, kAlphaByte)]) << 24);
      }
      break;
    case kChannelsAll:
      for (size_t i = 0; i < run.pixels; ++i) {
        const uint32_t p = LoadPixel(run.in + i * kBytesPerPixel);
        StorePixel(run.out + i * kBytesPerPixel,
                   static_cast<uint32_t>(table[ByteOf(p, 0)]) | static_cast<uint32_t>(table[ByteOf(p, 1)]) << 8 |
                       static_cast<uint32_t>(table[ByteOf(p, 2)]) << 16 |
                       static_cast<uint32_t>(table[ByteOf(p, 3)]) << 24);
      }
      break;
    default:
      break;
  }
}

// Runs blockOp over the run's 16-byte blocks (four pixels each). When both
// pointers are 16-byte aligned the blocks are read aligned and written with
// non-temporal stores, so the output does not evict the cache, then fenced;
// otherwise unaligned loads and stores. A last partial block (a run cut at the
// end of an image) goes through blockOp in a copy, so every pixel gets the
// same formula. The MMX state is cleared either way. Returns the pixels done:
// all of them.
template <class BlockOp>
inline size_t TransformBlocks(const PixelRun& run, BlockOp blockOp) {
  const __m128i* in = reinterpret_cast<const __m128i*>(run.in);
  __m128i* out = reinterpret_cast<__m128i*>(run.out);
  const size_t blocks = run.pixels / 4;
  const bool aligned = ((reinterpret_cast<uintptr_t>(in) | reinterpret_cast<uintptr_t>(out)) & 15u) == 0;
  if (aligned) {
    for (size_t b = 0; b < blocks; ++b) _mm_stream_si128(out + b, blockOp(_mm_load_si128(in + b)));
    _mm_sfence();
  } else {
    for (size_t b = 0; b < blocks; ++b) _mm_storeu_si128(out + b, blockOp(_mm_loadu_si128(in + b)));
  }
  const size_t tailBytes = (run.pixels % 4) * kBytesPerPixel;
  if (tailBytes != 0) {
    alignas(16) unsigned char block[16] = {};
    std::memcpy(block, run.in + blocks * 16, tailBytes);
    _mm_store_si128(reinterpret_cast<__m128i*>(block), blockOp(_mm_load_si128(reinterpret_cast<__m128i*>(block))));
    std::memcpy(run.out + blocks * 16, block, tailBytes);
  }
  _mm_empty();
  return run.pixels;
}

// Eight signed 16-bit lanes: (value * multiplier) as a 32-bit product,
// shifted right by 8 with sign (floor), saturated back to signed 16 bits.
inline __m128i MultiplyShift8(__m128i values, __m128i multipliers) {
  const __m128i low = _mm_mullo_epi16(values, multipliers);
  const __m128i high = _mm_mulhi_epi16(values, multipliers);
  const __m128i first = _mm_srai_epi32(_mm_unpacklo_epi16(low, high), 8);
  const __m128i second = _mm_srai_epi32(_mm_unpackhi_epi16(low, high), 8);
  return _mm_packs_epi32(first, second);
}

// The 16-bit lane value of a multiplier: its low 16 bits, as the processor's
// lane load keeps them.
inline short MultiplierLane(int multiplier) { return static_cast<short>(static_cast<uint16_t>(multiplier)); }

}  // namespace image
}  // namespace kvo

#endif
