#include <cstdint>
#include <cstring>

#include <immintrin.h>

#include <kvimage/keying.h>

#include "pipeline/StageNeeds.h"
#include "support/Conversions.h"
#include "support/PathChoice.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

// Splits an 8-bit output into byte shares that cover it and writes every
// whole pixel of its share; other depths are refused and written not at all.
StageNeeds NeedsOf(const SpillSuppressor&) { return StageNeeds{IsEightBit, false}; }

// The weights of the advanced method, for the computed kernels.
struct AdvancedFactors {
  double red, green, blue, reference;
};

// What the kernels read: the strength of the standard and extended moves,
// and the advanced method's tables (null for a stage built for another
// method) and factors.
struct SpillArguments {
  int strength;
  const unsigned char* tables;
  AdvancedFactors factors;
};

namespace {

// The one signature of the spill kernels: `pixels` pixels from in to out;
// each returns the pixels it did and the plain kernel finishes the rest.
typedef size_t (*SpillKernel)(const unsigned char* in, unsigned char* out, size_t pixels,
                              const SpillArguments& arguments);

// v moved towards target by strength / 256. The step is a signed 32-bit
// product shifted arithmetically, so a negative step rounds toward minus
// infinity: at strength 255 a downward move lands on its target, an upward one
// stops one short. The product wraps like the processor's multiply, which only
// matters for strengths outside 0..255 (a NaN or oversized amount given to
// the stage directly).
inline unsigned char Move(int value, int target, int strength) {
  const int32_t product = static_cast<int32_t>(static_cast<uint32_t>(target - value) * static_cast<uint32_t>(strength));
  return static_cast<unsigned char>(value + (product >> 8));
}

inline int Strength(double amount) { return TruncateToInt(255.0 * amount); }

inline uint32_t LoadPixel(const unsigned char* p) {
  uint32_t pixel;
  std::memcpy(&pixel, p, sizeof pixel);
  return pixel;
}

inline void StorePixel(unsigned char* p, uint32_t pixel) { std::memcpy(p, &pixel, sizeof pixel); }

inline int ByteOf(uint32_t pixel, unsigned int byte) { return static_cast<int>((pixel >> (8 * byte)) & 0xFFu); }

inline uint32_t WithByte(uint32_t pixel, unsigned int byte, int value) {
  return (pixel & ~(0xFFu << (8 * byte))) | (static_cast<uint32_t>(value & 0xFF) << (8 * byte));
}

// The byte positions of a key channel: the key byte and the byte it is
// compared with (standard, advanced); for extended, the mean is of `side` and
// red, and red rises when `side` is above it.
template <unsigned int Key, unsigned int Reference, unsigned int Side>
struct KeyBytes {
  static const unsigned int key = Key;
  static const unsigned int reference = Reference;
  static const unsigned int side = Side;
};
typedef KeyBytes<kGreenByte, kRedByte, kBlueByte> GreenKey;
typedef KeyBytes<kBlueByte, kGreenByte, kGreenByte> BlueKey;

// The thread's share in whole pixels, cut at the end of both images.
ShareRun SpillShare(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount) {
  ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  share.count -= share.count % kBytesPerPixel;
  return share;
}

// Green: if G > R, G moves towards R. Blue: if B > G, B moves towards G.
template <class Bytes>
size_t SpillStandard_Plain(const unsigned char* in, unsigned char* out, size_t pixels,
                           const SpillArguments& arguments) {
  // A local copy: the stores through out may alias the arguments, which
  // would reload the strength at every pixel.
  const int strength = arguments.strength;
  for (size_t i = 0; i < pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const uint32_t pixel = LoadPixel(in + i);
    const int key = ByteOf(pixel, Bytes::key), reference = ByteOf(pixel, Bytes::reference);
    StorePixel(out + i, key > reference ? WithByte(pixel, Bytes::key, Move(key, reference, strength)) : pixel);
  }
  return pixels;
}

// GCC 12 warns inside its own AVX-512 headers, whose intrinsics start from
// deliberately undefined registers.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

// The standard method 16 pixels at a time in 32-bit lanes: the step is the
// same wrapping 32-bit product shifted arithmetically, so every strength
// gives the plain kernel's bytes.
template <class Bytes>
KV_TARGET_AVX512VBMI size_t SpillStandard_AVX512VBMI(const unsigned char* in, unsigned char* out, size_t pixels,
                                                     const SpillArguments& arguments) {
  const __m512i strength = _mm512_set1_epi32(arguments.strength);
  const __m512i byteMask = _mm512_set1_epi32(0xFF);
  const __m512i keyMask = _mm512_set1_epi32(static_cast<int>(0xFFu << (8 * Bytes::key)));
  size_t i = 0;
  for (; i + 16 <= pixels; i += 16) {
    const __m512i pixel = _mm512_loadu_si512(in + i * kBytesPerPixel);
    const __m512i key = _mm512_and_si512(_mm512_srli_epi32(pixel, 8 * Bytes::key), byteMask);
    const __m512i reference = _mm512_and_si512(_mm512_srli_epi32(pixel, 8 * Bytes::reference), byteMask);
    const __m512i step = _mm512_srai_epi32(_mm512_mullo_epi32(_mm512_sub_epi32(reference, key), strength), 8);
    const __m512i moved = _mm512_slli_epi32(_mm512_add_epi32(key, step), 8 * Bytes::key);
    // Where key > reference the key byte is replaced by the moved one.
    const __m512i replaced = _mm512_ternarylogic_epi32(pixel, moved, keyMask, 0xD8);  // keyMask ? moved : pixel
    const __mmask16 spill = _mm512_cmpgt_epi32_mask(key, reference);
    _mm512_storeu_si512(out + i * kBytesPerPixel, _mm512_mask_blend_epi32(spill, pixel, replaced));
  }
  return i;
}

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

// The key byte moves towards the rounded-down mean of the other two when it
// lies above it, and the red byte rises towards the mean when the third
// channel is above red.
template <class Bytes>
size_t SpillExtended_Plain(const unsigned char* in, unsigned char* out, size_t pixels,
                           const SpillArguments& arguments) {
  const int strength = arguments.strength;
  for (size_t i = 0; i < pixels * kBytesPerPixel; i += kBytesPerPixel) {
    // Both moves are computed and selected without branches: on real footage
    // the tests flip from pixel to pixel.
    const uint32_t pixel = LoadPixel(in + i);
    const int key = ByteOf(pixel, Bytes::key), side = ByteOf(pixel, Bytes::side), red = ByteOf(pixel, kRedByte);
    const int mean = (side + red) >> 1;
    const bool spill = key > mean;
    const bool raise = spill && side > red;
    const uint32_t lowered = WithByte(pixel, Bytes::key, Move(key, mean, strength));
    const uint32_t raised = WithByte(lowered, kRedByte, Move(red, mean, strength));
    StorePixel(out + i, raise ? raised : (spill ? lowered : pixel));
  }
  return pixels;
}

// The extended method 8 pixels at a time, in 16-bit lanes. A move's step
// ((target - v) * strength) >> 8 is at most 255 * 255 in size, so its 32-bit
// product is taken as the two 16-bit halves and shifted back together; this
// holds for strengths 0..255, and any other strength takes the plain form.
inline __m128i ByteLanes(__m128i first, __m128i second, unsigned int byte) {
  const __m128i mask = _mm_set1_epi32(0xFF);
  return _mm_packs_epi32(_mm_and_si128(_mm_srli_epi32(first, static_cast<int>(8 * byte)), mask),
                         _mm_and_si128(_mm_srli_epi32(second, static_cast<int>(8 * byte)), mask));
}

inline __m128i MoveLanes(__m128i value, __m128i target, __m128i strength) {
  const __m128i difference = _mm_sub_epi16(target, value);
  const __m128i low = _mm_mullo_epi16(difference, strength), high = _mm_mulhi_epi16(difference, strength);
  const __m128i step = _mm_or_si128(_mm_srli_epi16(low, 8), _mm_slli_epi16(high, 8));
  return _mm_and_si128(_mm_add_epi16(value, step), _mm_set1_epi16(0xFF));
}

// Puts the low bytes of 8 16-bit lanes into byte `byte` of 8 pixels.
inline void PutByteLanes(__m128i& first, __m128i& second, __m128i lanes, unsigned int byte) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i keep = _mm_set1_epi32(static_cast<int>(~(0xFFu << (8 * byte))));
  first = _mm_or_si128(_mm_and_si128(first, keep),
                       _mm_slli_epi32(_mm_unpacklo_epi16(lanes, zero), static_cast<int>(8 * byte)));
  second = _mm_or_si128(_mm_and_si128(second, keep),
                        _mm_slli_epi32(_mm_unpackhi_epi16(lanes, zero), static_cast<int>(8 * byte)));
}

template <class Bytes>
KV_TARGET_SSSE3 size_t SpillExtended_SSSE3(const unsigned char* in, unsigned char* out, size_t pixels,
                                           const SpillArguments& arguments) {
  const int strength = arguments.strength;
  size_t i = 0;
  if (strength >= 0 && strength <= 255) {
    const __m128i strengthLanes = _mm_set1_epi16(static_cast<short>(strength));
    for (; i + 8 * kBytesPerPixel <= pixels * kBytesPerPixel; i += 8 * kBytesPerPixel) {
      __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
      __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 16));
      const __m128i key = ByteLanes(first, second, Bytes::key);
      const __m128i side = ByteLanes(first, second, Bytes::side);
      const __m128i red = ByteLanes(first, second, kRedByte);
      const __m128i mean = _mm_srli_epi16(_mm_add_epi16(side, red), 1);
      const __m128i spill = _mm_cmpgt_epi16(key, mean);
      const __m128i raise = _mm_and_si128(spill, _mm_cmpgt_epi16(side, red));
      const __m128i lowered = MoveLanes(key, mean, strengthLanes), raised = MoveLanes(red, mean, strengthLanes);
      const __m128i newKey = _mm_or_si128(_mm_and_si128(spill, lowered), _mm_andnot_si128(spill, key));
      const __m128i newRed = _mm_or_si128(_mm_and_si128(raise, raised), _mm_andnot_si128(raise, red));
      PutByteLanes(first, second, newKey, Bytes::key);
      PutByteLanes(first, second, newRed, kRedByte);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), first);
      _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i + 16), second);
    }
  }
  return i / kBytesPerPixel;
}

// spill = clamp(key - trunc(reference * referenceFactor)), the difference in
// wrapping 32-bit arithmetic like the processor's.
template <class Bytes>
inline int Spill(const unsigned char* p, const int* scaledReference) {
  const uint32_t difference =
      static_cast<uint32_t>(p[Bytes::key]) - static_cast<uint32_t>(scaledReference[p[Bytes::reference]]);
  return ClampToByte(static_cast<int32_t>(difference));
}

inline unsigned char Corrected(int spill, double factor, unsigned char value) {
  return static_cast<unsigned char>(ClampToByte(TruncateToInt(spill * factor + value)));
}

// spill = clamp(key - trunc(reference * referenceFactor)), the difference
// taken in wrapping 32-bit arithmetic like the processor's; each colour byte
// then becomes clamp(trunc(spill * its factor + byte)). Looked up in the
// stage's tables, which hold exactly that.
template <class Bytes>
size_t SpillTables_Plain(const unsigned char* in, unsigned char* out, size_t pixels, const SpillArguments& arguments) {
  const unsigned char* tables = arguments.tables;
  const unsigned char* spillOf = tables;       // [key][reference]
  const unsigned char* blue = tables + 65536;  // [spill][byte] for each colour byte
  const unsigned char* green = tables + 2 * 65536;
  const unsigned char* red = tables + 3 * 65536;
  for (size_t i = 0; i < pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const unsigned char* p = in + i;
    unsigned char* q = out + i;
    const unsigned int spill = spillOf[(p[Bytes::key] << 8) | p[Bytes::reference]];
    const unsigned char alpha = p[kAlphaByte];
    q[kBlueByte] = blue[(spill << 8) | p[kBlueByte]];
    q[kGreenByte] = green[(spill << 8) | p[kGreenByte]];
    q[kRedByte] = red[(spill << 8) | p[kRedByte]];
    q[kAlphaByte] = alpha;
  }
  return pixels;
}

// The advanced method computed pixel by pixel (a stage built for another
// method has no tables).
template <class Bytes>
size_t SpillComputed_Plain(const unsigned char* in, unsigned char* out, size_t pixels,
                           const SpillArguments& arguments) {
  const AdvancedFactors& factors = arguments.factors;
  int scaledReference[256];
  for (int v = 0; v < 256; ++v) scaledReference[v] = TruncateToInt(v * factors.reference);
  for (size_t i = 0; i < pixels * kBytesPerPixel; i += kBytesPerPixel) {
    const unsigned char* p = in + i;
    unsigned char* q = out + i;
    const int spill = Spill<Bytes>(p, scaledReference);
    const unsigned char alpha = p[kAlphaByte];
    q[kBlueByte] = Corrected(spill, factors.blue, p[kBlueByte]);
    q[kGreenByte] = Corrected(spill, factors.green, p[kGreenByte]);
    q[kRedByte] = Corrected(spill, factors.red, p[kRedByte]);
    q[kAlphaByte] = alpha;
  }
  return pixels;
}

// The advanced method computed 8 pixels at a time in double lanes, each
// step the very operation of the plain form (products and sums rounded one
// at a time, truncation giving the most negative integer where the plain
// conversion does).
KV_TARGET_AVX2 inline __m256i ByteLanes8(__m256i pixels, int shift) {
  return _mm256_and_si256(_mm256_srli_epi32(pixels, shift), _mm256_set1_epi32(0xFF));
}
KV_TARGET_AVX2 inline __m256d LowDoubles(__m256i lanes) { return _mm256_cvtepi32_pd(_mm256_castsi256_si128(lanes)); }
KV_TARGET_AVX2 inline __m256d HighDoubles(__m256i lanes) {
  return _mm256_cvtepi32_pd(_mm256_extracti128_si256(lanes, 1));
}
KV_TARGET_AVX2 inline __m256i Truncated(__m256d low, __m256d high) {
  return _mm256_set_m128i(_mm256_cvttpd_epi32(high), _mm256_cvttpd_epi32(low));
}
KV_TARGET_AVX2 inline __m256i ClampedToByte(__m256i lanes) {
  return _mm256_min_epi32(_mm256_max_epi32(lanes, _mm256_setzero_si256()), _mm256_set1_epi32(255));
}

template <class Bytes>
KV_TARGET_AVX2 size_t SpillComputed_AVX2(const unsigned char* in, unsigned char* out, size_t pixels,
                                         const SpillArguments& arguments) {
  const AdvancedFactors& factors = arguments.factors;
  size_t i = 0;
  const __m256d referenceFactor = _mm256_set1_pd(factors.reference);
  const __m256d byteFactors[3] = {_mm256_set1_pd(factors.blue), _mm256_set1_pd(factors.green),
                                  _mm256_set1_pd(factors.red)};
  for (; i + 8 * kBytesPerPixel <= pixels * kBytesPerPixel; i += 8 * kBytesPerPixel) {
    const __m256i block = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
    const __m256i key = ByteLanes8(block, 8 * Bytes::key);
    const __m256i reference = ByteLanes8(block, 8 * Bytes::reference);
    const __m256i scaled = Truncated(_mm256_mul_pd(LowDoubles(reference), referenceFactor),
                                     _mm256_mul_pd(HighDoubles(reference), referenceFactor));
    const __m256i spill = ClampedToByte(_mm256_sub_epi32(key, scaled));
    const __m256d spillLow = LowDoubles(spill), spillHigh = HighDoubles(spill);
    __m256i result = _mm256_and_si256(block, _mm256_set1_epi32(static_cast<int>(0xFF000000u)));
    for (int byte = 0; byte < 3; ++byte) {
      const __m256i value = ByteLanes8(block, 8 * byte);
      const __m256i corrected =
          ClampedToByte(Truncated(_mm256_add_pd(_mm256_mul_pd(spillLow, byteFactors[byte]), LowDoubles(value)),
                                  _mm256_add_pd(_mm256_mul_pd(spillHigh, byteFactors[byte]), HighDoubles(value))));
      result = _mm256_or_si256(result, _mm256_slli_epi32(corrected, 8 * byte));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i), result);
  }
  return i / kBytesPerPixel;
}

template <class Bytes>
KernelRungs<SpillKernel> RungsForKey(KVSpillType method, bool tabulated) {
  if (method == kSpillAdvanced) {
    return KernelRungs<SpillKernel>{tabulated ? SpillTables_Plain<Bytes> : SpillComputed_Plain<Bytes>, nullptr,
                                    nullptr, SpillComputed_AVX2<Bytes>};
  }
  if (method == kSpillExtended) {
    return KernelRungs<SpillKernel>{SpillExtended_Plain<Bytes>, nullptr, SpillExtended_SSSE3<Bytes>, nullptr};
  }
  return KernelRungs<SpillKernel>{SpillStandard_Plain<Bytes>, nullptr, nullptr, nullptr,
                                  SpillStandard_AVX512VBMI<Bytes>};
}

// The kernels of a method (advanced, extended, anything else standard) for
// the key channel; `tabulated` when the stage holds the advanced tables.
KernelRungs<SpillKernel> SpillRungs(KVChannel channel, KVSpillType method, bool tabulated) {
  return channel == kChannelBlue ? RungsForKey<BlueKey>(method, tabulated) : RungsForKey<GreenKey>(method, tabulated);
}

// A kernel over the thread's share; the plain kernel finishes its tail.
int RunOnShare(SpillKernel kernel, SpillKernel plain, KVImage8* source, KVImage8* destination,
               unsigned char threadIndex, unsigned char threadCount, const SpillArguments& arguments) {
  const ShareRun share = SpillShare(source, destination, threadIndex, threadCount);
  if (share.count == 0) return 0;
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const size_t pixels = share.count / kBytesPerPixel;
  const size_t done = kernel(in, out, pixels, arguments);
  if (done < pixels) plain(in + done * kBytesPerPixel, out + done * kBytesPerPixel, pixels - done, arguments);
  return 0;
}

}  // namespace

SpillSuppressor::SpillSuppressor(KVChannel channel, KVSpillType spillType, double amount, double redFactor,
                                 double greenFactor, double blueFactor, double referenceFactor)
    : m_channel(channel),
      m_spillType(spillType),
      m_amount(amount),
      m_redFactor(redFactor),
      m_greenFactor(greenFactor),
      m_blueFactor(blueFactor),
      m_referenceFactor(referenceFactor),
      m_plainKernel(SpillRungs(channel, spillType, spillType == kSpillAdvanced).plain),
      m_kernel(m_plainKernel) {
  if (spillType != kSpillAdvanced) return;
  // Every result of the advanced method depends on two bytes at a time: the
  // spill on (key, reference) and each corrected byte on (spill, byte), so it
  // is tabulated once, with the very arithmetic of the definition.
  int scaledReference[256];
  for (int v = 0; v < 256; ++v) scaledReference[v] = TruncateToInt(v * referenceFactor);
  const bool blueKey = channel == kChannelBlue;
  m_advancedTables.resize(4 * 65536);
  unsigned char* tables = m_advancedTables.data();
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      unsigned char pixel[4] = {0, 0, 0, 0};
      pixel[blueKey ? BlueKey::key : GreenKey::key] = static_cast<unsigned char>(first);
      pixel[blueKey ? BlueKey::reference : GreenKey::reference] = static_cast<unsigned char>(second);
      const int index = (first << 8) | second;
      tables[index] = static_cast<unsigned char>(blueKey ? Spill<BlueKey>(pixel, scaledReference)
                                                         : Spill<GreenKey>(pixel, scaledReference));
      const unsigned char value = static_cast<unsigned char>(second);
      tables[65536 + index] = Corrected(first, blueFactor, value);
      tables[2 * 65536 + index] = Corrected(first, greenFactor, value);
      tables[3 * 65536 + index] = Corrected(first, redFactor, value);
    }
  }
}

void SpillSuppressor::Setup(KVAbstractImage*) {
  m_kernel = ChooseKernel(SpillRungs(m_channel, m_spillType, !m_advancedTables.empty()));
}

SpillArguments SpillSuppressor::KernelArguments() const {
  const SpillArguments arguments = {Strength(m_amount), m_advancedTables.empty() ? nullptr : m_advancedTables.data(),
                                    AdvancedFactors{m_redFactor, m_greenFactor, m_blueFactor, m_referenceFactor}};
  return arguments;
}

int SpillSuppressor::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  const unsigned int depth = source->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return RunOnShare(m_kernel, m_plainKernel, static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination),
                    threadIndex, threadCount, KernelArguments());
}

// A method called by name: the kernel Setup chose when it is the stage's own
// method, else the method's plain kernel (the same bytes).
int SpillSuppressor::RenderMethod(KVSpillType method, KVImage8* source, KVImage8* destination,
                                  unsigned char threadIndex, unsigned char threadCount) {
  const SpillKernel plain = SpillRungs(m_channel, method, !m_advancedTables.empty()).plain;
  return RunOnShare(plain == m_plainKernel ? m_kernel : plain, plain, source, destination, threadIndex, threadCount,
                    KernelArguments());
}

int SpillSuppressor::RenderSpillStandard(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  return RenderMethod(kSpillStandard, source, destination, threadIndex, threadCount);
}

int SpillSuppressor::RenderSpillExtended(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  return RenderMethod(kSpillExtended, source, destination, threadIndex, threadCount);
}

int SpillSuppressor::RenderSpillAdvanced(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  return RenderMethod(kSpillAdvanced, source, destination, threadIndex, threadCount);
}

}  // namespace image
}  // namespace kvo
