#ifndef KVIMAGE_SRC_SUPPORT_BYTELOOKUP_H
#define KVIMAGE_SRC_SUPPORT_BYTELOOKUP_H

// A 256-entry byte table held in registers and looked up 64 bytes at a time
// (AVX-512 VBMI): the widest kernels of the table stages, the compositor's
// weighted alphas and the focus stages' opacities all look up this way.
#include <immintrin.h>

#include "support/PathChoice.h"

namespace kvo {
namespace image {

// A 256-entry table in four registers of 64 entries.
struct ByteTableRegisters {
  __m512i quarter[4];
};

KV_TARGET_AVX512VBMI inline void LoadByteTable_AVX512VBMI(const unsigned char* table, ByteTableRegisters& registers) {
  for (int q = 0; q < 4; ++q) registers.quarter[q] = _mm512_loadu_si512(table + 64 * q);
}

// Each byte of index looked up: two two-register permutes cover entries
// 0..127 and 128..255 (bit 6 of the index picks the register, bit 7 is
// ignored), and the index's top bit picks between them.
KV_TARGET_AVX512VBMI inline __m512i LookUpBytes_AVX512VBMI(__m512i index, const ByteTableRegisters& table) {
  const __m512i low = _mm512_permutex2var_epi8(table.quarter[0], index, table.quarter[1]);
  const __m512i high = _mm512_permutex2var_epi8(table.quarter[2], index, table.quarter[3]);
  return _mm512_mask_blend_epi8(_mm512_movepi8_mask(index), low, high);
}

}  // namespace image
}  // namespace kvo

#endif
