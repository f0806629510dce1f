#include <emmintrin.h>
#include <mmintrin.h>

#include <cstdint>

#include <kvimage/colour.h>

#include "support/Assert.h"
#include "support/CPUExtensions.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

OpacityRenderer::OpacityRenderer(double opacity, const kvtl::CPUExtensions& extensions)
    : m_extensions(extensions), m_opacity(opacity) {}

OpacityRenderer::~OpacityRenderer() {}

unsigned int OpacityRenderer::Type() const { return 0; }

void OpacityRenderer::Setup(KVAbstractImage*) {}

int OpacityRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  KV_ASSERT(source->BitsPerChannel() == 0 && source->PixelChannelOrder() == kPixelOrderBGRA, "OpacityRenderer", 211,
            "false && \"Not implemented\"");
  if (m_extensions.sse2) return Render8_SSE2(source, destination, threadIndex, threadCount);
  return Render8_CPP(source, destination, threadIndex, threadCount);
}

// alpha = clamp(trunc(alpha * opacity)); colour copied.
int OpacityRenderer::Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    out[i + kBlueByte] = in[i + kBlueByte];
    out[i + kGreenByte] = in[i + kGreenByte];
    out[i + kRedByte] = in[i + kRedByte];
    out[i + kAlphaByte] = static_cast<unsigned char>(ClampToByte(TruncateToInt(in[i + kAlphaByte] * m_opacity)));
  }
  return 0;
}

// alpha = max(0, alpha - k) with k = trunc((1 - opacity) * 255) & 255: a
// subtraction, not the plain path's product, so the two paths agree only at
// opacity 0 and 1. Shares whose pixel count is not a multiple of 16 take the
// plain path whole.
int OpacityRenderer::Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share = PixelShare(source->Width(), source->Height(), threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  if (share.count % 16 != 0) return Render8_CPP(source, destination, threadIndex, threadCount);

  const uint32_t decrement = static_cast<uint32_t>(TruncateToInt((1.0 - m_opacity) * 255.0)) & 0xFFu;
  const __m128i alphaMask = _mm_set1_epi32(static_cast<int>(decrement << (8 * kAlphaByte)));
  const __m128i* in = reinterpret_cast<const __m128i*>(PixelBytes(source) + share.start * kBytesPerPixel);
  __m128i* out = reinterpret_cast<__m128i*>(PixelBytes(destination) + share.start * kBytesPerPixel);
  const size_t blocks = share.count / 4;
  const bool aligned = ((reinterpret_cast<uintptr_t>(in) | reinterpret_cast<uintptr_t>(out)) & 15u) == 0;
  if (aligned) {
    for (size_t b = 0; b < blocks; ++b) _mm_stream_si128(out + b, _mm_subs_epu8(_mm_load_si128(in + b), alphaMask));
    _mm_sfence();
  } else {
    for (size_t b = 0; b < blocks; ++b) {
      _mm_storeu_si128(out + b, _mm_subs_epu8(_mm_loadu_si128(in + b), alphaMask));
    }
  }
  _mm_empty();
  return 0;
}

void SetOpacity(KVImage8* image, double opacity) {
  OpacityRenderer renderer(opacity, DetectedCPUExtensions());
  renderer.Render(image, image, 0, 1);
}

void ChangeLayerOpacity(KVAbstractImage* image, double opacity) {
  if (image->BitsPerChannel() == 0) SetOpacity(static_cast<KVImage8*>(image), opacity);
}

}  // namespace image
}  // namespace kvo
