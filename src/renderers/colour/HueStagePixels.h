#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_HUESTAGEPIXELS_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_HUESTAGEPIXELS_H

#include <immintrin.h>

#include <cstdint>

#include <kvimage/colour.h>

#include "renderers/colour/ChannelTables.h"
#include "renderers/colour/HLSModel.h"
#include "renderers/colour/PixelRun.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Where the hue stages read and write the colour of a pixel. Channel order 2
// is read and written one byte apart on purpose: the colour comes from bytes
// 0, 1, 2 (so its alpha byte is taken as red), the results go to bytes 1, 2, 3
// and byte 0 receives source byte 3. Hosts depend on this mapping.
struct HueStageBytes {
  unsigned int readRed, readGreen, readBlue;
  unsigned int writeRed, writeGreen, writeBlue;
  unsigned int readOther, writeOther;
};

inline HueStageBytes HueStageBytesFor(KVPixelChannelOrder order) {
  if (order == kPixelOrderARGB) {
    const HueStageBytes shifted = {0, 1, 2, 1, 2, 3, 3, 0};
    return shifted;
  }
  const HueStageBytes usual = {kRedByte, kGreenByte, kBlueByte, kRedByte, kGreenByte, kBlueByte, kAlphaByte, kAlphaByte};
  return usual;
}

// clamp(trunc((source - changed) * keep + changed))
inline unsigned char MixWithSource(unsigned char source, unsigned char changed, double keep) {
  return static_cast<unsigned char>(ClampToByte(TruncateToInt((source - changed) * keep + changed)));
}

// MixWithSource as byte arithmetic: with low = min(source, changed) and k =
// |source - changed|, the mix is low + move[k], plus one where low >= step[k]
// (the sum in double precision rounds up to the next integer from some
// magnitude on). Tables 0 and 1 are move and step where the source is above
// the converted colour, 2 and 3 where it is below; a step of 255 never
// applies (low stays below 255 when the two differ, and equal bytes mix to
// themselves).
enum : unsigned int { kMixMoveUp = 0, kMixStepUp = 1, kMixMoveDown = 2, kMixStepDown = 3 };

// Fills the tables from MixWithSource on every pair of bytes and returns
// whether they give its result on every pair (not for every keep: an amount
// outside 0..1 clamps, for one).
inline bool BuildHueMixTables(double keep, unsigned char (*tables)[256]) {
  for (int source = 0; source < 256; ++source) {
    if (MixWithSource(static_cast<unsigned char>(source), static_cast<unsigned char>(source), keep) != source) {
      return false;
    }
  }
  for (int k = 1; k < 256; ++k) {
    for (int up = 0; up < 2; ++up) {
      unsigned char& move = tables[up != 0 ? kMixMoveUp : kMixMoveDown][k];
      unsigned char& step = tables[up != 0 ? kMixStepUp : kMixStepDown][k];
      move = 0;
      step = 255;
      for (int low = 0; low + k < 256; ++low) {
        const int source = up != 0 ? low + k : low, changed = up != 0 ? low : low + k;
        const int moved = MixWithSource(static_cast<unsigned char>(source), static_cast<unsigned char>(changed), keep) - low;
        if (low == 0) {
          if (moved < 0 || moved > k) return false;
          move = static_cast<unsigned char>(moved);
        } else if (step == 255 && moved == move + 1) {
          step = static_cast<unsigned char>(low);
        }
        if (moved != move + (low >= step ? 1 : 0)) return false;
      }
    }
  }
  tables[kMixMoveUp][0] = tables[kMixMoveDown][0] = 0;
  tables[kMixStepUp][0] = tables[kMixStepDown][0] = 255;
  return true;
}

// Exact quotients of the non-negative numerators the model produces, as a
// 16-bit multiply keeping the high half and a shift (the 8-lane path has no
// integer division). The ranges are where the shifted numerator fits 16 bits
// and the multiplier's error stays below one step; tests check every
// numerator of each range.
namespace hls {

const uint32_t kBy360Multiplier = 23302;  // (n / 8) / 45, n < 2^19
const uint32_t kBy60Multiplier = 34953;   // (n / 4) / 15, n < 2^18
const uint32_t kBy17Multiplier = 61681;   // n / 17, n < 2^16
const uint32_t kBy72Multiplier = 58255;   // n / 72, n < 2^16
const uint32_t kBy3Multiplier = 43691;    // n / 3 (shifted by 17), n < 2^15

inline uint32_t DivideBy360(uint32_t n) { return (((n >> 3) * kBy360Multiplier) >> 16) >> 4; }
inline uint32_t DivideBy60(uint32_t n) { return (((n >> 2) * kBy60Multiplier) >> 16) >> 3; }
// (c * 255 + 180) / 360 is (c * 51 + 36) / 72 (both sides times 5).
inline uint32_t ComponentOfLevel(uint32_t level) { return (((level * 51 + 36) * kBy72Multiplier) >> 16) >> 6; }
// (sum * 360 + 255) / 510 is (sum * 24 + 17) / 34 (both sides times 15).
inline uint32_t LightnessOfSum(uint32_t sum) { return ((((sum * 24 + 17) >> 1) * kBy17Multiplier) >> 16) >> 4; }
// The grey of a lightness, l * 255 / 360, is (l * 17 / 8) / 3 (255 / 360 is
// 17 / 24).
inline uint32_t GreyOfLightness(uint32_t lightness) { return ((((lightness * 17) >> 3) * kBy3Multiplier) >> 16) >> 1; }

}  // namespace hls

// The hue a stage gives each hue of the forward conversion: offset, plus the
// hue itself if addsHue, then one subtraction of 360 above 359 and one
// addition below 0 (hue shift adds its offset, colorize replaces the hue). The
// eight-pixel path computes it in lanes, exactly wherever every result lies
// in -1..360; other settings (a NaN hue) go the plain way.
struct HueMapping {
  int offset;
  bool addsHue;

  int operator()(int hue) const {
    int mapped = addsHue ? WrapAdd(offset, hue) : offset;
    if (mapped > 359) mapped -= 360;
    if (mapped < 0) mapped = WrapAdd(mapped, 360);
    return mapped;
  }
};

inline bool MappingInLaneRange(const HueMapping& mapping) {
  for (int hue = -1; hue <= 360; ++hue) {
    const int mapped = mapping(hue);
    if (mapped < -1 || mapped > 360) return false;
  }
  return true;
}

// What the hue stages' kernels read.
struct HueStageArguments {
  HueStageBytes bytes;
  bool orderTwo;  // channel order 2: the shifted byte places
  double keep;
  HueMapping mapping;
  const unsigned char (*mixTables)[256];  // BuildHueMixTables' tables, or null where they do not hold
};

namespace hue8 {

// In 32-bit lanes holding values below 2^16, a 16-bit high multiply by a
// constant whose upper half is 0 is the lane's (n * m) >> 16, and a 16-bit
// multiply-add is its full product n * m.
KV_TARGET_AVX2 inline __m256i HighProduct(__m256i n, uint32_t multiplier) {
  return _mm256_mulhi_epu16(n, _mm256_set1_epi32(static_cast<int>(multiplier)));
}

KV_TARGET_AVX2 inline __m256i Product(__m256i a, __m256i b) { return _mm256_madd_epi16(a, b); }

KV_TARGET_AVX2 inline __m256i Product(__m256i a, int b) { return _mm256_madd_epi16(a, _mm256_set1_epi32(b)); }

KV_TARGET_AVX2 inline __m256i DivideBy360(__m256i n) {
  return _mm256_srli_epi32(HighProduct(_mm256_srli_epi32(n, 3), hls::kBy360Multiplier), 4);
}

// Numerators below 2^24, divisors up to 510 and quotients up to 360: the
// exact quotient, when not an integer, is at least 1/510 away from the next
// one, far more than the single-precision rounding error (below 2^-15 at
// 360), so truncating the correctly rounded quotient gives the integer one.
KV_TARGET_AVX2 inline __m256i DivideExactly(__m256i numerator, __m256i divisor) {
  return _mm256_cvttps_epi32(_mm256_div_ps(_mm256_cvtepi32_ps(numerator), _mm256_cvtepi32_ps(divisor)));
}

KV_TARGET_AVX2 inline __m256i Select(__m256i mask, __m256i whenSet, __m256i otherwise) {
  return _mm256_blendv_epi8(otherwise, whenSet, mask);
}

// Channels of the conversion back, sixteen 16-bit lanes at a time (every
// value lies in -121..480 or its products below 2^15): low + ((high - low) *
// t + 30) / 60 with t the hue's place on the ramp (0 on the low plateau, 60
// on the high one), then (c * 255 + 180) / 360 as (c * 51 + 36) / 72, kept
// to its low byte.
KV_TARGET_AVX2 inline __m256i ChannelsFromHues(__m256i hue, __m256i low, __m256i span) {
  const __m256i full = _mm256_set1_epi16(360), zero = _mm256_setzero_si256();
  hue = _mm256_add_epi16(hue, _mm256_and_si256(_mm256_cmpgt_epi16(zero, hue), full));
  hue = _mm256_sub_epi16(hue, _mm256_and_si256(_mm256_cmpgt_epi16(hue, full), full));
  __m256i ramp = _mm256_min_epi16(hue, _mm256_set1_epi16(60));
  ramp = _mm256_min_epi16(ramp, _mm256_sub_epi16(_mm256_set1_epi16(240), hue));
  ramp = _mm256_max_epi16(ramp, zero);
  const __m256i rampNumerator = _mm256_add_epi16(_mm256_mullo_epi16(span, ramp), _mm256_set1_epi16(30));
  const __m256i component = _mm256_add_epi16(
      low, _mm256_srli_epi16(_mm256_mulhi_epu16(_mm256_srli_epi16(rampNumerator, 2),
                                                _mm256_set1_epi16(static_cast<short>(hls::kBy60Multiplier))),
                             3));
  const __m256i scaled = _mm256_add_epi16(_mm256_mullo_epi16(component, _mm256_set1_epi16(51)), _mm256_set1_epi16(36));
  const __m256i quotient =
      _mm256_srli_epi16(_mm256_mulhi_epu16(scaled, _mm256_set1_epi16(static_cast<short>(hls::kBy72Multiplier))), 6);
  return _mm256_and_si256(quotient, _mm256_set1_epi16(0xFF));
}

// clamp(trunc((source - changed) * keep + changed)) in double precision, four
// lanes at a time.
KV_TARGET_AVX2 inline __m128i MixHalf(__m128i source, __m128i changed, __m256d keep) {
  const __m256d difference = _mm256_cvtepi32_pd(_mm_sub_epi32(source, changed));
  const __m256d mixed = _mm256_add_pd(_mm256_mul_pd(difference, keep), _mm256_cvtepi32_pd(changed));
  return _mm256_cvttpd_epi32(mixed);
}

KV_TARGET_AVX2 inline __m256i Mix(__m256i source, __m256i changed, __m256d keep) {
  const __m128i low = MixHalf(_mm256_castsi256_si128(source), _mm256_castsi256_si128(changed), keep);
  const __m128i high = MixHalf(_mm256_extracti128_si256(source, 1), _mm256_extracti128_si256(changed, 1), keep);
  const __m256i mixed = _mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1);
  return _mm256_max_epi32(_mm256_min_epi32(mixed, _mm256_set1_epi32(255)), _mm256_setzero_si256());
}

// The hue stages' pixel, eight at a time, with the same integer results as
// hls::RGBtoHLS and hls::HLStoRGB for the colours bytes can hold. The byte
// places are fixed at compile time (shifts by a constant are the cheap
// kind): Layout is HueStageBytes' usual or channel-order-2 mapping. With
// keep 0 (amount 1) the mix is the converted colour itself, exactly:
// (source - changed) * 0 + changed = changed. Returns the number of bytes
// done (whole blocks of eight pixels).
template <bool kOrderTwo>
struct HueStageLayout {
  static constexpr int kReadRed = kOrderTwo ? 0 : 16, kReadGreen = 8, kReadBlue = kOrderTwo ? 16 : 0;
  static constexpr int kReadOther = 24;
  static constexpr int kWriteRed = kOrderTwo ? 8 : 16, kWriteGreen = kOrderTwo ? 16 : 8;
  static constexpr int kWriteBlue = kOrderTwo ? 24 : 0, kWriteOther = kOrderTwo ? 0 : 24;
};

template <class Layout, bool kKeepNothing>
KV_TARGET_AVX2 inline size_t RenderHueStageBlocks(const unsigned char* in, unsigned char* out, size_t count,
                                                  const HueMapping& mapping, double keepFactor) {
  const __m256i byteMask = _mm256_set1_epi32(0xFF);
  const __m256i half = _mm256_set1_epi32(180);
  const __m256i full = _mm256_set1_epi32(360);
  const __m256i third = _mm256_set1_epi32(120);
  const __m256i sixth = _mm256_set1_epi32(60);
  const __m256i zero = _mm256_setzero_si256();
  const __m256i minusOne = _mm256_set1_epi32(-1);
  const __m256d keep = _mm256_set1_pd(keepFactor);
  const __m256i hueOffset = _mm256_set1_epi32(mapping.offset);
  const __m256i addsHue = _mm256_set1_epi32(mapping.addsHue ? -1 : 0);
  const __m256i top = _mm256_set1_epi32(359);
  const size_t blockBytes = 8 * kBytesPerPixel;
  const size_t end = count / blockBytes * blockBytes;
  for (size_t i = 0; i < end; i += blockBytes) {
    const __m256i pixels = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
    const __m256i red = _mm256_and_si256(_mm256_srli_epi32(pixels, Layout::kReadRed), byteMask);
    const __m256i green = _mm256_and_si256(_mm256_srli_epi32(pixels, Layout::kReadGreen), byteMask);
    const __m256i blue = _mm256_and_si256(_mm256_srli_epi32(pixels, Layout::kReadBlue), byteMask);
    const __m256i other = _mm256_srli_epi32(pixels, Layout::kReadOther);

    // Forward: lightness, saturation, hue.
    const __m256i max = _mm256_max_epi32(red, _mm256_max_epi32(green, blue));
    const __m256i min = _mm256_min_epi32(red, _mm256_min_epi32(green, blue));
    const __m256i sum = _mm256_add_epi32(max, min);
    const __m256i delta = _mm256_sub_epi32(max, min);
    const __m256i lightness = _mm256_srli_epi32(
        HighProduct(_mm256_srli_epi32(_mm256_add_epi32(Product(sum, 24), _mm256_set1_epi32(17)), 1),
                    hls::kBy17Multiplier),
        4);
    const __m256i grey = _mm256_cmpeq_epi32(delta, zero);
    const __m256i light = _mm256_cmpgt_epi32(lightness, half);
    const __m256i spread = Select(light, _mm256_sub_epi32(_mm256_set1_epi32(510), sum), sum);
    const __m256i saturationRaw = DivideExactly(
        _mm256_add_epi32(Product(delta, full), _mm256_srli_epi32(spread, 1)), spread);
    const __m256i saturation = _mm256_andnot_si256(grey, saturationRaw);

    const __m256i mid = _mm256_sub_epi32(_mm256_add_epi32(red, _mm256_add_epi32(green, blue)), sum);
    const __m256i midDistance = DivideExactly(
        _mm256_add_epi32(Product(_mm256_sub_epi32(max, mid), sixth), _mm256_srli_epi32(delta, 1)), delta);
    const __m256i redIsMax = _mm256_cmpeq_epi32(red, max), greenIsMax = _mm256_cmpeq_epi32(green, max);
    const __m256i blueIsMax = _mm256_cmpeq_epi32(blue, max);
    // Below the maximum: 0 for the maximum, 60 for the minimum, the quotient
    // for the middle component.
    const __m256i redDistance = _mm256_andnot_si256(redIsMax, Select(_mm256_cmpeq_epi32(red, min), sixth, midDistance));
    const __m256i greenDistance =
        _mm256_andnot_si256(greenIsMax, Select(_mm256_cmpeq_epi32(green, min), sixth, midDistance));
    const __m256i blueDistance =
        _mm256_andnot_si256(blueIsMax, Select(_mm256_cmpeq_epi32(blue, min), sixth, midDistance));
    __m256i hue = _mm256_add_epi32(_mm256_set1_epi32(240), _mm256_sub_epi32(greenDistance, redDistance));
    hue = Select(greenIsMax, _mm256_add_epi32(third, _mm256_sub_epi32(redDistance, blueDistance)), hue);
    hue = Select(redIsMax, _mm256_sub_epi32(blueDistance, greenDistance), hue);
    hue = _mm256_add_epi32(hue, _mm256_and_si256(_mm256_cmpgt_epi32(zero, hue), full));
    hue = _mm256_sub_epi32(hue, _mm256_and_si256(_mm256_cmpgt_epi32(hue, full), full));
    hue = _mm256_or_si256(hue, grey);  // -1 for a grey

    __m256i newHue = _mm256_add_epi32(hueOffset, _mm256_and_si256(addsHue, hue));
    newHue = _mm256_sub_epi32(newHue, _mm256_and_si256(_mm256_cmpgt_epi32(newHue, top), full));
    newHue = _mm256_add_epi32(newHue, _mm256_and_si256(_mm256_cmpgt_epi32(zero, newHue), full));

    // Back: the plateau levels, then each channel on the ramp.
    const __m256i lightTimesSaturation = Product(lightness, saturation);
    const __m256i darkHigh =
        DivideBy360(_mm256_add_epi32(_mm256_add_epi32(lightTimesSaturation, Product(lightness, full)), half));
    const __m256i lightHigh = _mm256_sub_epi32(_mm256_add_epi32(lightness, saturation),
                                               DivideBy360(_mm256_add_epi32(lightTimesSaturation, half)));
    const __m256i high = Select(light, lightHigh, darkHigh);
    const __m256i low = _mm256_sub_epi32(_mm256_add_epi32(lightness, lightness), high);
    const __m256i span = _mm256_sub_epi32(high, low);
    // Red and green share 16-bit lanes, in the interleaved order of a pack;
    // blue fills both halves of its own.
    const __m256i low16 = _mm256_packs_epi32(low, low), span16 = _mm256_packs_epi32(span, span);
    const __m256i redGreen =
        ChannelsFromHues(_mm256_packs_epi32(_mm256_add_epi32(newHue, third), newHue), low16, span16);
    const __m256i blueTwice = ChannelsFromHues(_mm256_packs_epi32(_mm256_sub_epi32(newHue, third), zero), low16, span16);
    __m256i changedRed = _mm256_unpacklo_epi16(redGreen, zero);
    __m256i changedGreen = _mm256_unpackhi_epi16(redGreen, zero);
    __m256i changedBlue = _mm256_unpacklo_epi16(blueTwice, zero);

    // Saturation 0: a hue of -1 makes the grey of the lightness, any other
    // hue leaves the colour as read.
    const __m256i unsaturated = _mm256_cmpeq_epi32(saturation, zero);
    const __m256i greyLevel =
        _mm256_and_si256(DivideBy360(Product(lightness, 255)), byteMask);
    const __m256i undefinedHue = _mm256_cmpeq_epi32(newHue, minusOne);
    changedRed = Select(unsaturated, Select(undefinedHue, greyLevel, red), changedRed);
    changedGreen = Select(unsaturated, Select(undefinedHue, greyLevel, green), changedGreen);
    changedBlue = Select(unsaturated, Select(undefinedHue, greyLevel, blue), changedBlue);

    if (!kKeepNothing) {
      changedRed = Mix(red, changedRed, keep);
      changedGreen = Mix(green, changedGreen, keep);
      changedBlue = Mix(blue, changedBlue, keep);
    }
    const __m256i result =
        _mm256_or_si256(_mm256_or_si256(_mm256_slli_epi32(changedRed, Layout::kWriteRed),
                                        _mm256_slli_epi32(changedGreen, Layout::kWriteGreen)),
                        _mm256_or_si256(_mm256_slli_epi32(changedBlue, Layout::kWriteBlue),
                                        _mm256_slli_epi32(other, Layout::kWriteOther)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), result);
  }
  return end;
}

}  // namespace hue8

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace hue16 {

// The eight-pixel path's steps over sixteen pixels: the same integer
// operations in lanes twice as many, masks in mask registers.
KV_TARGET_AVX512VBMI inline __m512i HighProduct(__m512i n, uint32_t multiplier) {
  return _mm512_mulhi_epu16(n, _mm512_set1_epi32(static_cast<int>(multiplier)));
}

KV_TARGET_AVX512VBMI inline __m512i Product(__m512i a, __m512i b) { return _mm512_madd_epi16(a, b); }

KV_TARGET_AVX512VBMI inline __m512i Product(__m512i a, int b) { return _mm512_madd_epi16(a, _mm512_set1_epi32(b)); }

KV_TARGET_AVX512VBMI inline __m512i DivideBy360(__m512i n) {
  return _mm512_srli_epi32(HighProduct(_mm512_srli_epi32(n, 3), hls::kBy360Multiplier), 4);
}

// As hue8::DivideExactly, in single precision.
KV_TARGET_AVX512VBMI inline __m512i DivideExactly(__m512i numerator, __m512i divisor) {
  return _mm512_cvttps_epi32(_mm512_div_ps(_mm512_cvtepi32_ps(numerator), _mm512_cvtepi32_ps(divisor)));
}

// A constant of every 16-bit lane the compiler cannot see through: products
// by a known constant it turns into chains of shifts and adds, several
// instructions where one multiply does.
KV_TARGET_AVX512VBMI inline __m512i OpaqueWords(short value) {
  __m512i words = _mm512_set1_epi16(value);
  __asm__("" : "+v"(words));
  return words;
}

// As hue8::ChannelsFromHues, thirty-two 16-bit lanes at a time; by51 holds
// 51 in every lane.
KV_TARGET_AVX512VBMI inline __m512i ChannelsFromHues(__m512i hue, __m512i low, __m512i span, __m512i by51) {
  const __m512i full = _mm512_set1_epi16(360), zero = _mm512_setzero_si512();
  hue = _mm512_mask_add_epi16(hue, _mm512_cmpgt_epi16_mask(zero, hue), hue, full);
  hue = _mm512_mask_sub_epi16(hue, _mm512_cmpgt_epi16_mask(hue, full), hue, full);
  __m512i ramp = _mm512_min_epi16(hue, _mm512_set1_epi16(60));
  ramp = _mm512_min_epi16(ramp, _mm512_sub_epi16(_mm512_set1_epi16(240), hue));
  ramp = _mm512_max_epi16(ramp, zero);
  const __m512i rampNumerator = _mm512_add_epi16(_mm512_mullo_epi16(span, ramp), _mm512_set1_epi16(30));
  const __m512i component = _mm512_add_epi16(
      low, _mm512_srli_epi16(_mm512_mulhi_epu16(_mm512_srli_epi16(rampNumerator, 2),
                                                _mm512_set1_epi16(static_cast<short>(hls::kBy60Multiplier))),
                             3));
  const __m512i scaled = _mm512_add_epi16(_mm512_mullo_epi16(component, by51), _mm512_set1_epi16(36));
  const __m512i quotient =
      _mm512_srli_epi16(_mm512_mulhi_epu16(scaled, _mm512_set1_epi16(static_cast<short>(hls::kBy72Multiplier))), 6);
  return _mm512_and_si512(quotient, _mm512_set1_epi16(0xFF));
}

// clamp(trunc((source - changed) * keep + changed)) in double precision,
// eight lanes at a time; the clamp is left to the caller.
KV_TARGET_AVX512VBMI inline __m256i MixHalf(__m256i source, __m256i changed, __m512d keep) {
  const __m512d difference = _mm512_cvtepi32_pd(_mm256_sub_epi32(source, changed));
  return _mm512_cvttpd_epi32(_mm512_add_pd(_mm512_mul_pd(difference, keep), _mm512_cvtepi32_pd(changed)));
}

KV_TARGET_AVX512VBMI inline __m512i Mix(__m512i source, __m512i changed, __m512d keep) {
  const __m256i low = MixHalf(_mm512_castsi512_si256(source), _mm512_castsi512_si256(changed), keep);
  const __m256i high = MixHalf(_mm512_extracti64x4_epi64(source, 1), _mm512_extracti64x4_epi64(changed, 1), keep);
  const __m512i mixed = _mm512_inserti64x4(_mm512_castsi256_si512(low), high, 1);
  return _mm512_max_epi32(_mm512_min_epi32(mixed, _mm512_set1_epi32(255)), _mm512_setzero_si512());
}

// The mix of a source byte and a converted one by the mix tables, on every
// byte of the registers.
struct MixTableRegisters {
  ByteTableRegisters table[4];
};

KV_TARGET_AVX512VBMI inline __m512i MixBytes(__m512i source, __m512i changed, const MixTableRegisters& tables) {
  const __m512i low = _mm512_min_epu8(source, changed);
  const __m512i distance = _mm512_sub_epi8(_mm512_max_epu8(source, changed), low);
  const __mmask64 up = _mm512_cmpgt_epu8_mask(source, changed);
  const __m512i move = _mm512_mask_blend_epi8(up, LookUpBytes_AVX512VBMI(distance, tables.table[kMixMoveDown]),
                                              LookUpBytes_AVX512VBMI(distance, tables.table[kMixMoveUp]));
  const __m512i step = _mm512_mask_blend_epi8(up, LookUpBytes_AVX512VBMI(distance, tables.table[kMixStepDown]),
                                              LookUpBytes_AVX512VBMI(distance, tables.table[kMixStepUp]));
  const __mmask64 stepped = _mm512_mask_cmpge_epu8_mask(_mm512_cmpneq_epu8_mask(source, changed), low, step);
  const __m512i mixed = _mm512_add_epi8(low, move);
  return _mm512_mask_sub_epi8(mixed, stepped, mixed, _mm512_set1_epi8(-1));
}

// hue8::RenderHueStageBlocks over blocks of sixteen pixels, mixing in double
// precision: the path for an amount whose mix tables do not hold.
template <class Layout>
KV_TARGET_AVX512VBMI inline size_t RenderHueStageBlocks(const unsigned char* in, unsigned char* out, size_t count,
                                                        const HueMapping& mapping, double keepFactor) {
  const __m512i byteMask = _mm512_set1_epi32(0xFF);
  const __m512i half = _mm512_set1_epi32(180);
  const __m512i full = _mm512_set1_epi32(360);
  const __m512i third = _mm512_set1_epi32(120);
  const __m512i sixth = _mm512_set1_epi32(60);
  const __m512i zero = _mm512_setzero_si512();
  const __m512i minusOne = _mm512_set1_epi32(-1);
  const __m512d keep = _mm512_set1_pd(keepFactor);
  const __m512i hueOffset = _mm512_set1_epi32(mapping.offset);
  const __mmask16 addsHue = mapping.addsHue ? 0xFFFF : 0;
  const __m512i top = _mm512_set1_epi32(359);
  const __m512i by51 = _mm512_set1_epi16(51);
  const size_t blockBytes = 16 * kBytesPerPixel;
  const size_t end = count / blockBytes * blockBytes;
  for (size_t i = 0; i < end; i += blockBytes) {
    const __m512i pixels = _mm512_loadu_si512(in + i);
    const __m512i red = _mm512_and_si512(_mm512_srli_epi32(pixels, Layout::kReadRed), byteMask);
    const __m512i green = _mm512_and_si512(_mm512_srli_epi32(pixels, Layout::kReadGreen), byteMask);
    const __m512i blue = _mm512_and_si512(_mm512_srli_epi32(pixels, Layout::kReadBlue), byteMask);
    const __m512i other = _mm512_srli_epi32(pixels, Layout::kReadOther);

    // Forward: lightness, saturation, hue.
    const __m512i max = _mm512_max_epi32(red, _mm512_max_epi32(green, blue));
    const __m512i min = _mm512_min_epi32(red, _mm512_min_epi32(green, blue));
    const __m512i sum = _mm512_add_epi32(max, min);
    const __m512i delta = _mm512_sub_epi32(max, min);
    const __m512i lightness = _mm512_srli_epi32(
        HighProduct(_mm512_srli_epi32(_mm512_add_epi32(Product(sum, 24), _mm512_set1_epi32(17)), 1),
                    hls::kBy17Multiplier),
        4);
    const __mmask16 coloured = _mm512_cmpneq_epi32_mask(delta, zero);
    const __mmask16 light = _mm512_cmpgt_epi32_mask(lightness, half);
    const __m512i spread = _mm512_mask_sub_epi32(sum, light, _mm512_set1_epi32(510), sum);
    const __m512i saturation = _mm512_maskz_mov_epi32(
        coloured, DivideExactly(_mm512_add_epi32(Product(delta, full), _mm512_srli_epi32(spread, 1)), spread));

    const __m512i mid = _mm512_sub_epi32(_mm512_add_epi32(red, _mm512_add_epi32(green, blue)), sum);
    const __m512i midDistance = DivideExactly(
        _mm512_add_epi32(Product(_mm512_sub_epi32(max, mid), sixth), _mm512_srli_epi32(delta, 1)), delta);
    const __mmask16 redIsMax = _mm512_cmpeq_epi32_mask(red, max), greenIsMax = _mm512_cmpeq_epi32_mask(green, max);
    const __mmask16 blueIsMax = _mm512_cmpeq_epi32_mask(blue, max);
    // Below the maximum: 0 for the maximum, 60 for the minimum, the quotient
    // for the middle component.
    const __m512i redDistance = _mm512_maskz_mov_epi32(
        static_cast<__mmask16>(~redIsMax),
        _mm512_mask_mov_epi32(midDistance, _mm512_cmpeq_epi32_mask(red, min), sixth));
    const __m512i greenDistance = _mm512_maskz_mov_epi32(
        static_cast<__mmask16>(~greenIsMax),
        _mm512_mask_mov_epi32(midDistance, _mm512_cmpeq_epi32_mask(green, min), sixth));
    const __m512i blueDistance = _mm512_maskz_mov_epi32(
        static_cast<__mmask16>(~blueIsMax),
        _mm512_mask_mov_epi32(midDistance, _mm512_cmpeq_epi32_mask(blue, min), sixth));
    __m512i hue = _mm512_add_epi32(_mm512_set1_epi32(240), _mm512_sub_epi32(greenDistance, redDistance));
    hue = _mm512_mask_mov_epi32(hue, greenIsMax, _mm512_add_epi32(third, _mm512_sub_epi32(redDistance, blueDistance)));
    hue = _mm512_mask_mov_epi32(hue, redIsMax, _mm512_sub_epi32(blueDistance, greenDistance));
    hue = _mm512_mask_add_epi32(hue, _mm512_cmpgt_epi32_mask(zero, hue), hue, full);
    hue = _mm512_mask_sub_epi32(hue, _mm512_cmpgt_epi32_mask(hue, full), hue, full);
    hue = _mm512_mask_mov_epi32(minusOne, coloured, hue);  // -1 for a grey

    __m512i newHue = _mm512_mask_add_epi32(hueOffset, addsHue, hueOffset, hue);
    newHue = _mm512_mask_sub_epi32(newHue, _mm512_cmpgt_epi32_mask(newHue, top), newHue, full);
    newHue = _mm512_mask_add_epi32(newHue, _mm512_cmpgt_epi32_mask(zero, newHue), newHue, full);

    // Back: the plateau levels, then each channel on the ramp.
    const __m512i lightTimesSaturation = Product(lightness, saturation);
    const __m512i darkHigh =
        DivideBy360(_mm512_add_epi32(_mm512_add_epi32(lightTimesSaturation, Product(lightness, full)), half));
    const __m512i lightHigh = _mm512_sub_epi32(_mm512_add_epi32(lightness, saturation),
                                               DivideBy360(_mm512_add_epi32(lightTimesSaturation, half)));
    const __m512i high = _mm512_mask_mov_epi32(darkHigh, light, lightHigh);
    const __m512i low = _mm512_sub_epi32(_mm512_add_epi32(lightness, lightness), high);
    const __m512i span = _mm512_sub_epi32(high, low);
    // Red and green share 16-bit lanes, in the interleaved order of a pack;
    // blue fills both halves of its own.
    const __m512i low16 = _mm512_packs_epi32(low, low), span16 = _mm512_packs_epi32(span, span);
    const __m512i redGreen =
        ChannelsFromHues(_mm512_packs_epi32(_mm512_add_epi32(newHue, third), newHue), low16, span16, by51);
    const __m512i blueTwice =
        ChannelsFromHues(_mm512_packs_epi32(_mm512_sub_epi32(newHue, third), zero), low16, span16, by51);
    __m512i changedRed = _mm512_unpacklo_epi16(redGreen, zero);
    __m512i changedGreen = _mm512_unpackhi_epi16(redGreen, zero);
    __m512i changedBlue = _mm512_unpacklo_epi16(blueTwice, zero);

    // Saturation 0 (a grey, for byte colours): a hue of -1 makes the grey of
    // the lightness, any other hue leaves the colour as read.
    const __mmask16 unsaturated = _mm512_cmpeq_epi32_mask(saturation, zero);
    const __mmask16 toGreyLevel = _mm512_mask_cmpeq_epi32_mask(unsaturated, newHue, minusOne);
    const __mmask16 asRead = static_cast<__mmask16>(unsaturated & ~toGreyLevel);
    const __m512i greyLevel = _mm512_and_si512(DivideBy360(Product(lightness, 255)), byteMask);
    changedRed = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(changedRed, toGreyLevel, greyLevel), asRead, red);
    changedGreen = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(changedGreen, toGreyLevel, greyLevel), asRead, green);
    changedBlue = _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(changedBlue, toGreyLevel, greyLevel), asRead, blue);

    changedRed = Mix(red, changedRed, keep);
    changedGreen = Mix(green, changedGreen, keep);
    changedBlue = Mix(blue, changedBlue, keep);
    const __m512i result =
        _mm512_or_si512(_mm512_or_si512(_mm512_slli_epi32(changedRed, Layout::kWriteRed),
                                        _mm512_slli_epi32(changedGreen, Layout::kWriteGreen)),
                        _mm512_or_si512(_mm512_slli_epi32(changedBlue, Layout::kWriteBlue),
                                        _mm512_slli_epi32(other, Layout::kWriteOther)));
    _mm512_storeu_si512(out + i, result);
  }
  _mm256_zeroupper();
  return end;
}

}  // namespace hue16

// Thirty-two pixels a step in 16-bit lanes (every value of the model but the
// products fits them): the same integer results as the eight-pixel path,
// each quotient computed the same way (products and quotients by 360, and
// the two exact divisions, in 32-bit lanes unpacked from the 16-bit ones and
// packed back in place), the mix in bytes by the mix tables.
namespace hue32 {

// Words 0..3 and 4..7 of each 128-bit lane as 32-bit lanes; PackWords puts
// them back in place.
KV_TARGET_AVX512VBMI inline __m512i LowWords(__m512i words) {
  return _mm512_unpacklo_epi16(words, _mm512_setzero_si512());
}
KV_TARGET_AVX512VBMI inline __m512i HighWords(__m512i words) {
  return _mm512_unpackhi_epi16(words, _mm512_setzero_si512());
}
KV_TARGET_AVX512VBMI inline __m512i PackWords(__m512i low, __m512i high) { return _mm512_packus_epi32(low, high); }

// numerator / divisor (both words) by hue16::DivideExactly; a NaN quotient
// (0 / 0) packs to 0.
KV_TARGET_AVX512VBMI inline __m512i DivideWords(__m512i numeratorLow, __m512i numeratorHigh, __m512i divisor) {
  return PackWords(hue16::DivideExactly(numeratorLow, LowWords(divisor)),
                   hue16::DivideExactly(numeratorHigh, HighWords(divisor)));
}

// Byte k of each pixel of two blocks of sixteen (the 128 bytes of first and
// second) as the low byte of a word.
KV_TARGET_AVX512VBMI inline __m512i ChannelWords(__m512i first, __m512i second, int k) {
  alignas(64) unsigned char index[64];
  for (int j = 0; j < 32; ++j) {
    index[2 * j] = static_cast<unsigned char>(4 * j + k);
    index[2 * j + 1] = 0;
  }
  return _mm512_maskz_permutex2var_epi8(0x5555555555555555ULL, first, _mm512_load_si512(index), second);
}

// The low bytes of red, green and blue words as the bytes of sixteen pixels
// (half 0 or 1 of the thirty-two) at their read places; the fourth byte of
// each pixel is left undefined.
template <class Layout>
KV_TARGET_AVX512VBMI inline __m512i PixelsOfWords(__m512i redGreen, __m512i blue, int halfIndex) {
  alignas(64) unsigned char index[64];
  for (int j = 0; j < 16; ++j) {
    const int word = 16 * halfIndex + j;
    index[4 * j + Layout::kReadRed / 8] = static_cast<unsigned char>(2 * word);
    index[4 * j + Layout::kReadGreen / 8] = static_cast<unsigned char>(2 * word + 1);
    index[4 * j + Layout::kReadBlue / 8] = static_cast<unsigned char>(64 + 2 * word);
    index[4 * j + Layout::kReadOther / 8] = 0;
  }
  return _mm512_permutex2var_epi8(redGreen, _mm512_load_si512(index), blue);
}

// A block's converted colour mixed with its source (or not, with keep 0),
// stored in the places written.
template <class Layout, bool kKeepNothing>
KV_TARGET_AVX512VBMI inline void StoreMixed(__m512i pixels, __m512i changed, const hue16::MixTableRegisters& tables,
                                            unsigned char* out) {
  const __m512i mixed = kKeepNothing ? changed : hue16::MixBytes(pixels, changed, tables);
  const __m512i result = Layout::kReadOther == Layout::kWriteOther
                             ? _mm512_mask_mov_epi8(pixels, 0x7777777777777777ULL, mixed)
                             : _mm512_or_si512(_mm512_slli_epi32(mixed, Layout::kWriteRed - Layout::kReadRed),
                                               _mm512_srli_epi32(pixels, Layout::kReadOther));
  _mm512_storeu_si512(out, result);
}

// As hue16::RenderHueStageBlocks with the mix by tables (or none), over
// blocks of thirty-two pixels. Returns the bytes done.
template <class Layout, bool kKeepNothing>
KV_TARGET_AVX512VBMI inline size_t RenderHueStageBlocks(const unsigned char* in, unsigned char* out, size_t count,
                                                        const HueMapping& mapping, const unsigned char (*tables)[256]) {
  hue16::MixTableRegisters mixTables;
  if (!kKeepNothing) {
    for (int t = 0; t < 4; ++t) LoadByteTable_AVX512VBMI(tables[t], mixTables.table[t]);
  }
  const __m512i zero = _mm512_setzero_si512();
  const __m512i half = _mm512_set1_epi16(180), full = _mm512_set1_epi16(360);
  const __m512i third = _mm512_set1_epi16(120), sixth = _mm512_set1_epi16(60);
  const __m512i hueOffset = _mm512_set1_epi16(static_cast<short>(mapping.offset));
  const __mmask32 addsHue = mapping.addsHue ? 0xFFFFFFFFu : 0;
  const __m512i by17 = hue16::OpaqueWords(17), by24 = hue16::OpaqueWords(24), by51 = hue16::OpaqueWords(51);
  const __m512i by60 = hue16::OpaqueWords(60);
  const size_t blockBytes = 32 * kBytesPerPixel;
  const size_t end = count / blockBytes * blockBytes;
  for (size_t i = 0; i < end; i += blockBytes) {
    const __m512i first = _mm512_loadu_si512(in + i), second = _mm512_loadu_si512(in + i + 64);
    const __m512i red = ChannelWords(first, second, Layout::kReadRed / 8);
    const __m512i green = ChannelWords(first, second, Layout::kReadGreen / 8);
    const __m512i blue = ChannelWords(first, second, Layout::kReadBlue / 8);

    // Forward: lightness, saturation, hue.
    const __m512i max = _mm512_max_epu16(red, _mm512_max_epu16(green, blue));
    const __m512i min = _mm512_min_epu16(red, _mm512_min_epu16(green, blue));
    const __m512i sum = _mm512_add_epi16(max, min);
    const __m512i delta = _mm512_sub_epi16(max, min);
    // hls::LightnessOfSum
    const __m512i lightness = _mm512_srli_epi16(
        _mm512_mulhi_epu16(
            _mm512_srli_epi16(_mm512_add_epi16(_mm512_mullo_epi16(sum, by24), _mm512_set1_epi16(17)),
                              1),
            _mm512_set1_epi16(static_cast<short>(hls::kBy17Multiplier))),
        4);
    const __mmask32 coloured = _mm512_cmpneq_epi16_mask(delta, zero);
    const __mmask32 light = _mm512_cmpgt_epi16_mask(lightness, half);
    const __m512i spread = _mm512_mask_sub_epi16(sum, light, _mm512_set1_epi16(510), sum);
    const __m512i spreadHalf = _mm512_srli_epi16(spread, 1);
    const __m512i saturation = _mm512_maskz_mov_epi16(
        coloured,
        DivideWords(_mm512_add_epi32(hue16::Product(LowWords(delta), 360), LowWords(spreadHalf)),
                    _mm512_add_epi32(hue16::Product(HighWords(delta), 360), HighWords(spreadHalf)), spread));

    const __m512i mid = _mm512_sub_epi16(_mm512_add_epi16(red, _mm512_add_epi16(green, blue)), sum);
    const __m512i midNumerator = _mm512_add_epi16(_mm512_mullo_epi16(_mm512_sub_epi16(max, mid), by60),
                                                  _mm512_srli_epi16(delta, 1));
    const __m512i midDistance = DivideWords(LowWords(midNumerator), HighWords(midNumerator), delta);
    const __mmask32 redIsMax = _mm512_cmpeq_epi16_mask(red, max), greenIsMax = _mm512_cmpeq_epi16_mask(green, max);
    const __mmask32 blueIsMax = _mm512_cmpeq_epi16_mask(blue, max);
    // Below the maximum: 0 for the maximum, 60 for the minimum, the quotient
    // for the middle component.
    const __m512i redDistance = _mm512_maskz_mov_epi16(
        ~redIsMax, _mm512_mask_mov_epi16(midDistance, _mm512_cmpeq_epi16_mask(red, min), sixth));
    const __m512i greenDistance = _mm512_maskz_mov_epi16(
        ~greenIsMax, _mm512_mask_mov_epi16(midDistance, _mm512_cmpeq_epi16_mask(green, min), sixth));
    const __m512i blueDistance = _mm512_maskz_mov_epi16(
        ~blueIsMax, _mm512_mask_mov_epi16(midDistance, _mm512_cmpeq_epi16_mask(blue, min), sixth));
    __m512i hue = _mm512_add_epi16(_mm512_set1_epi16(240), _mm512_sub_epi16(greenDistance, redDistance));
    hue = _mm512_mask_mov_epi16(hue, greenIsMax, _mm512_add_epi16(third, _mm512_sub_epi16(redDistance, blueDistance)));
    hue = _mm512_mask_mov_epi16(hue, redIsMax, _mm512_sub_epi16(blueDistance, greenDistance));
    hue = _mm512_mask_add_epi16(hue, _mm512_cmpgt_epi16_mask(zero, hue), hue, full);
    hue = _mm512_mask_sub_epi16(hue, _mm512_cmpgt_epi16_mask(hue, full), hue, full);
    hue = _mm512_mask_mov_epi16(_mm512_set1_epi16(-1), coloured, hue);  // -1 for a grey

    __m512i newHue = _mm512_mask_add_epi16(hueOffset, addsHue, hueOffset, hue);
    newHue = _mm512_mask_sub_epi16(newHue, _mm512_cmpgt_epi16_mask(newHue, _mm512_set1_epi16(359)), newHue, full);
    newHue = _mm512_mask_add_epi16(newHue, _mm512_cmpgt_epi16_mask(zero, newHue), newHue, full);

    // Back: with q = (lightness * saturation + 180) / 360 the upper plateau
    // is lightness + q when dark ((l * (360 + s) + 180) / 360, the 360 * l
    // coming out whole) and lightness + saturation - q when light.
    const __m512i quotient =
        PackWords(hue16::DivideBy360(_mm512_add_epi32(hue16::Product(LowWords(lightness), LowWords(saturation)),
                                                      LowWords(half))),
                  hue16::DivideBy360(_mm512_add_epi32(hue16::Product(HighWords(lightness), HighWords(saturation)),
                                                      HighWords(half))));
    const __m512i high = _mm512_mask_sub_epi16(_mm512_add_epi16(lightness, quotient), light,
                                               _mm512_add_epi16(lightness, saturation), quotient);
    const __m512i low = _mm512_sub_epi16(_mm512_add_epi16(lightness, lightness), high);
    const __m512i span = _mm512_sub_epi16(high, low);
    __m512i changedRed = hue16::ChannelsFromHues(_mm512_add_epi16(newHue, third), low, span, by51);
    __m512i changedGreen = hue16::ChannelsFromHues(newHue, low, span, by51);
    __m512i changedBlue = hue16::ChannelsFromHues(_mm512_sub_epi16(newHue, third), low, span, by51);

    // Saturation 0 (a grey, for byte colours): a hue of -1 makes the grey of
    // the lightness, lightness * 255 / 360 as (lightness * 17 / 8) / 3, any
    // other hue leaves the colour as read.
    const __mmask32 unsaturated = _mm512_cmpeq_epi16_mask(saturation, zero);
    const __mmask32 toGreyLevel = _mm512_mask_cmpeq_epi16_mask(unsaturated, newHue, _mm512_set1_epi16(-1));
    const __mmask32 asRead = unsaturated & ~toGreyLevel;
    const __m512i greyLevel = _mm512_srli_epi16(
        _mm512_mulhi_epu16(_mm512_srli_epi16(_mm512_mullo_epi16(lightness, by17), 3),
                           _mm512_set1_epi16(static_cast<short>(hls::kBy3Multiplier))),
        1);
    changedRed = _mm512_mask_mov_epi16(_mm512_mask_mov_epi16(changedRed, toGreyLevel, greyLevel), asRead, red);
    changedGreen = _mm512_mask_mov_epi16(_mm512_mask_mov_epi16(changedGreen, toGreyLevel, greyLevel), asRead, green);
    changedBlue = _mm512_mask_mov_epi16(_mm512_mask_mov_epi16(changedBlue, toGreyLevel, greyLevel), asRead, blue);

    const __m512i redGreen = _mm512_or_si512(changedRed, _mm512_slli_epi16(changedGreen, 8));
    StoreMixed<Layout, kKeepNothing>(first, PixelsOfWords<Layout>(redGreen, changedBlue, 0), mixTables, out + i);
    StoreMixed<Layout, kKeepNothing>(second, PixelsOfWords<Layout>(redGreen, changedBlue, 1), mixTables, out + i + 64);
  }
  _mm256_zeroupper();
  return end;
}

}  // namespace hue32

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// The hue stages' pixels one at a time: the colour goes through HLS, the
// mapping replaces its hue, and the converted colour is mixed with the source
// by keep. The output starts as the source colour, so a grey whose hue became
// defined keeps its colour through the conversion back.
inline size_t HueStage_Plain(const PixelRun& run, const HueStageArguments& arguments) {
  const HueStageBytes& bytes = arguments.bytes;
  for (size_t i = 0; i < run.pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const unsigned char* in = run.in + i;
    unsigned char* out = run.out + i;
    const KVPixel8_RGB original = {in[bytes.readRed], in[bytes.readGreen], in[bytes.readBlue]};
    KVPixel8_RGB changed = original;
    KVPixel8_HLS model;
    hls::RGBtoHLS(original, model);
    model.hue = arguments.mapping(model.hue);
    hls::HLStoRGB(model, changed);
    const unsigned char other = in[bytes.readOther];
    out[bytes.writeRed] = MixWithSource(original.red, changed.red, arguments.keep);
    out[bytes.writeGreen] = MixWithSource(original.green, changed.green, arguments.keep);
    out[bytes.writeBlue] = MixWithSource(original.blue, changed.blue, arguments.keep);
    out[bytes.writeOther] = other;
  }
  return run.pixels;
}

// Eight pixels at a time, the byte places and the mix fixed per call.
KV_TARGET_AVX2 inline size_t HueStage_AVX2(const PixelRun& run, const HueStageArguments& arguments) {
  using hue8::HueStageLayout;
  using hue8::RenderHueStageBlocks;
  const size_t count = run.pixels * kBytesPerPixel;
  size_t done = 0;
  if (arguments.keep == 0.0) {
    done = arguments.orderTwo
               ? RenderHueStageBlocks<HueStageLayout<true>, true>(run.in, run.out, count, arguments.mapping, 0.0)
               : RenderHueStageBlocks<HueStageLayout<false>, true>(run.in, run.out, count, arguments.mapping, 0.0);
  } else {
    done = arguments.orderTwo ? RenderHueStageBlocks<HueStageLayout<true>, false>(run.in, run.out, count,
                                                                                  arguments.mapping, arguments.keep)
                              : RenderHueStageBlocks<HueStageLayout<false>, false>(run.in, run.out, count,
                                                                                   arguments.mapping, arguments.keep);
  }
  return done / kBytesPerPixel;
}

// Thirty-two pixels at a time wherever the mix needs no double precision
// (keep 0, or mix tables that hold), sixteen otherwise. Returns the bytes
// done.
template <class Layout>
KV_TARGET_AVX512VBMI inline size_t RenderHueStageWide(const PixelRun& run, const HueStageArguments& arguments) {
  const size_t count = run.pixels * kBytesPerPixel;
  if (arguments.keep == 0.0) {
    return hue32::RenderHueStageBlocks<Layout, true>(run.in, run.out, count, arguments.mapping, nullptr);
  }
  if (arguments.mixTables != nullptr) {
    return hue32::RenderHueStageBlocks<Layout, false>(run.in, run.out, count, arguments.mapping, arguments.mixTables);
  }
  return hue16::RenderHueStageBlocks<Layout>(run.in, run.out, count, arguments.mapping, arguments.keep);
}

KV_TARGET_AVX512VBMI inline size_t HueStage_AVX512VBMI(const PixelRun& run, const HueStageArguments& arguments) {
  const size_t done = arguments.orderTwo ? RenderHueStageWide<hue8::HueStageLayout<true> >(run, arguments)
                                         : RenderHueStageWide<hue8::HueStageLayout<false> >(run, arguments);
  return done / kBytesPerPixel;
}

typedef PixelKernel<HueStageArguments> HueStageKernel;

// The widest kernel the processor, the host's cap and the mapping allow.
inline HueStageKernel ChooseHueStageKernel(const HueMapping& mapping) {
  const bool inLanes = MappingInLaneRange(mapping);
  return ChooseKernel(KernelRungs<HueStageKernel>{HueStage_Plain, nullptr, nullptr, inLanes ? HueStage_AVX2 : nullptr,
                                                  inLanes ? HueStage_AVX512VBMI : nullptr});
}

// This thread's share through a kernel; the plain kernel finishes its tail.
inline int RenderHueStageShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                               unsigned char threadCount, HueStageKernel kernel, double keep,
                               const HueMapping& mapping, const unsigned char (*mixTables)[256]) {
  PixelRun run;
  if (!PlainPathShare(source, destination, threadIndex, threadCount, run)) return 0;
  const KVPixelChannelOrder order = source->PixelChannelOrder();
  RunKernel(kernel, HueStage_Plain, run,
            HueStageArguments{HueStageBytesFor(order), order == kPixelOrderARGB, keep, mapping, mixTables});
  return 0;
}

}  // namespace image
}  // namespace kvo

#endif
