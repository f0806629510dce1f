#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_CHANNELTABLES_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_CHANNELTABLES_H

// What the table-driven tone and colour stages share: their thread shares and
// the documented choice between their paths, the per-pixel table walks of
// their plain paths, and the block loop and 16-bit multiply of their SSE2
// paths.
#include <emmintrin.h>
#include <immintrin.h>
#include <mmintrin.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <kvimage/image.h>
#include <kvimage/types.h>

#include "renderers/colour/PixelRun.h"
#include "support/ByteLookup.h"
#include "support/AssertionSites.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"
#include "support/PathChoice.h"

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

// One block of a pass through several stages, on the path RenderTableShare
// gives the block's thread. Source and destination have one size there, so
// the plain and vector shares coincide and the whole share takes one formula.
template <class Arguments>
void RenderTableBlock(const PixelBlock& block, PixelKernel<Arguments> kernel, PixelKernel<Arguments> plain,
                      const Arguments& arguments) {
  const bool vectorFormula =
      kernel != plain && TakesVectorFormula(VectorPathShare(block.image, block.threadIndex, block.threadCount));
  (vectorFormula ? kernel : plain)(RunOf(block), arguments);
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

// Runs blockOp over the run's 16-byte blocks (four pixels each). When both
// pointers are 16-byte aligned the blocks are read aligned and, unless the
// run stores through the cache, written with non-temporal stores, so the
// output does not evict the cache, then fenced; otherwise unaligned loads and
// stores. A last partial block (a run cut at the
// end of an image) goes through blockOp in a copy, so every pixel gets the
// same formula. The MMX state is cleared either way. Returns the pixels done:
// all of them.
template <class BlockOp>
inline size_t TransformBlocks(const PixelRun& run, BlockOp blockOp) {
  const __m128i* in = reinterpret_cast<const __m128i*>(run.in);
  __m128i* out = reinterpret_cast<__m128i*>(run.out);
  const size_t blocks = run.pixels / 4;
  const bool aligned = ((reinterpret_cast<uintptr_t>(in) | reinterpret_cast<uintptr_t>(out)) & 15u) == 0;
  if (aligned && !run.storeCached) {
    for (size_t b = 0; b < blocks; ++b) _mm_stream_si128(out + b, blockOp(_mm_load_si128(in + b)));
    _mm_sfence();
  } else if (aligned) {
    for (size_t b = 0; b < blocks; ++b) _mm_store_si128(out + b, blockOp(_mm_load_si128(in + b)));
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

// One 256-entry table per byte of a pixel, blue first (null: the byte is
// copied).
struct ByteTables {
  const unsigned char* byte[4];
};

// The byte-table kernels behind the per-channel table stages: a plain walk,
// and an AVX-512 VBMI one that looks up 64 bytes at a time in registers.
// Entry i is i: what a copied byte is looked up in.
struct IdentityByteTable {
  unsigned char entries[256];
  constexpr IdentityByteTable() : entries() {
    for (int i = 0; i < 256; ++i) entries[i] = static_cast<unsigned char>(i);
  }
};
inline constexpr IdentityByteTable kIdentityByteTable{};

inline size_t ByteTables_Plain(const PixelRun& run, const ByteTables& tables) {
  const unsigned char* table[4];
  for (unsigned int k = 0; k < kBytesPerPixel; ++k) {
    table[k] = tables.byte[k] != nullptr ? tables.byte[k] : kIdentityByteTable.entries;
  }
  for (size_t i = 0; i < run.pixels; ++i) {
    const uint32_t p = LoadPixel(run.in + i * kBytesPerPixel);
    StorePixel(run.out + i * kBytesPerPixel,
               static_cast<uint32_t>(table[0][ByteOf(p, 0)]) | static_cast<uint32_t>(table[1][ByteOf(p, 1)]) << 8 |
                   static_cast<uint32_t>(table[2][ByteOf(p, 2)]) << 16 |
                   static_cast<uint32_t>(table[3][ByteOf(p, 3)]) << 24);
  }
  return run.pixels;
}

// Blocks of 16 pixels; returns the pixels it did. Bytes that share a table
// (the same pointer) share its lookup.
KV_TARGET_AVX512VBMI inline size_t ByteTables_AVX512VBMI(const PixelRun& run, const ByteTables& tables) {
  // Byte k of every pixel of a block: bits k, k + 4, ... of a mask.
  const __mmask64 byteZero = 0x1111111111111111ULL;
  ByteTableRegisters registers[4];
  __mmask64 bytesOf[4];
  unsigned int distinct = 0;
  for (unsigned int k = 0; k < kBytesPerPixel; ++k) {
    if (tables.byte[k] == nullptr) continue;
    unsigned int t = 0;
    while (t < k && tables.byte[t] != tables.byte[k]) ++t;
    if (t < k) {
      for (unsigned int d = 0; d < distinct; ++d) {
        if (bytesOf[d] & (byteZero << t)) bytesOf[d] |= byteZero << k;
      }
      continue;
    }
    LoadByteTable_AVX512VBMI(tables.byte[k], registers[distinct]);
    bytesOf[distinct++] = byteZero << k;
  }
  const size_t blocks = run.pixels / 16;
  for (size_t b = 0; b < blocks; ++b) {
    const __m512i pixels = _mm512_loadu_si512(run.in + 64 * b);
    __m512i result = pixels;
    for (unsigned int d = 0; d < distinct; ++d) {
      result = _mm512_mask_mov_epi8(result, bytesOf[d], LookUpBytes_AVX512VBMI(pixels, registers[d]));
    }
    _mm512_storeu_si512(run.out + 64 * b, result);
  }
  _mm256_zeroupper();
  return blocks * 16;
}

// The widest byte-table kernel allowed now (a stage keeps it from its Setup).
inline PixelKernel<ByteTables> ChooseByteTablesKernel() {
  return ChooseKernel(KernelRungs<PixelKernel<ByteTables> >{ByteTables_Plain, nullptr, nullptr, nullptr,
                                                              ByteTables_AVX512VBMI});
}

// A vector formula that maps every byte of a pixel on its own, as one
// 256-entry table per byte, blue first: the formula's kernel run once over a
// ramp whose pixel i holds i in all four bytes. A byte the formula keeps gets
// no table (null: copied); bytes mapped alike get the same table. Looking the tables up gives, byte for byte, what
// the kernel computes, so the widest path of such a stage is a table walk in
// registers.
template <class Arguments>
void TabulateKernel(PixelKernel<Arguments> kernel, const Arguments& arguments, unsigned char (&entries)[4][256],
                    const unsigned char* (&tables)[4]) {
  alignas(16) unsigned char ramp[256 * kBytesPerPixel], mapped[256 * kBytesPerPixel];
  for (unsigned int i = 0; i < 256; ++i) std::memset(ramp + i * kBytesPerPixel, static_cast<int>(i), kBytesPerPixel);
  kernel(PixelRun{ramp, mapped, 256, true}, arguments);
  for (unsigned int k = 0; k < kBytesPerPixel; ++k) {
    bool kept = true;
    for (unsigned int i = 0; i < 256; ++i) {
      entries[k][i] = mapped[i * kBytesPerPixel + k];
      kept = kept && entries[k][i] == i;
    }
    tables[k] = kept ? nullptr : entries[k];
    // Bytes mapped alike share one table, and so one lookup.
    for (unsigned int j = 0; j < k && tables[k] != nullptr; ++j) {
      if (tables[j] != nullptr && std::memcmp(entries[j], entries[k], 256) == 0) tables[k] = tables[j];
    }
  }
}

// A stage's four table pointers as the byte-table kernels take them.
inline ByteTables TablesOf(const unsigned char* const (&tables)[4]) {
  return ByteTables{{tables[0], tables[1], tables[2], tables[3]}};
}

// The widest path of a stage whose vector formula is tabulated
// (arguments.formulaTables): 16 pixels at a time through the tables, the rest
// through the kernel they came from.
template <class Arguments, PixelKernel<Arguments> Formula>
KV_TARGET_AVX512VBMI size_t TabulatedFormula_AVX512VBMI(const PixelRun& run, const Arguments& arguments) {
  const size_t done = ByteTables_AVX512VBMI(run, arguments.formulaTables);
  return done + Formula(run.From(done), arguments);
}

// Whether a single-table tone stage writes its output: for colour (4), alpha
// (3) or every byte (5); its plain path writes nothing for any other
// selection.
inline bool SelectsChannels(KVChannelsToProcess channels) {
  return channels == kChannelsColor || channels == kChannelsAlpha || channels == kChannelsAll;
}

// The tables of a single-table tone stage: colour (4), alpha (3) or every
// byte (5) through the table. False for any other selection, which writes
// nothing.
inline bool ChannelByteTables(const unsigned char* table, KVChannelsToProcess channels, ByteTables& tables) {
  switch (static_cast<unsigned int>(channels)) {
    case kChannelsColor:
      tables = ByteTables{{table, table, table, nullptr}};
      return true;
    case kChannelsAlpha:
      tables = ByteTables{{nullptr, nullptr, nullptr, table}};
      return true;
    case kChannelsAll:
      tables = ByteTables{{table, table, table, table}};
      return true;
    default:
      return false;
  }
}

// Bytes 0..2 through three tables (blue, green, red), byte 3 copied.
inline void ApplyColourTables(const PixelRun& run, const unsigned char* blue, const unsigned char* green,
                              const unsigned char* red) {
  ByteTables_Plain(run, ByteTables{{blue, green, red, nullptr}});
}

// The plain path of the single-table tone stages: colour (4), alpha (3) or
// every byte (5) through the table, walked by the given byte-table kernel;
// any other selection writes nothing.
inline void ApplyChannelTable(const PixelRun& run, const unsigned char* table, KVChannelsToProcess channels,
                              PixelKernel<ByteTables> tablesKernel = ByteTables_Plain) {
  ByteTables tables;
  if (ChannelByteTables(table, channels, tables)) RunKernel(tablesKernel, ByteTables_Plain, run, tables);
}

}  // namespace image
}  // namespace kvo

#endif
