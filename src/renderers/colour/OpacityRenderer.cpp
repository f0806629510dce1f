#include <emmintrin.h>

#include <cstdint>

#include <kvimage/colour.h>

#include "renderers/colour/ChannelTables.h"
#include "support/Assert.h"
#include "support/CPUExtensions.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

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
  const PixelRun run = {PixelBytes(source) + share.start * kBytesPerPixel,
                        PixelBytes(destination) + share.start * kBytesPerPixel, share.count};
  TransformBlocks(run, [alphaMask](__m128i block) { return _mm_subs_epu8(block, alphaMask); });
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
