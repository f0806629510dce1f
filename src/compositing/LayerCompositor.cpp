#include <kvimage/compositing.h>

#include "compositing/BlendOperations.h"
#include "support/PixelLayout.h"
#include "support/ParallelPass.h"

namespace kvo {
namespace image {

namespace {

// The mismatch assertions' fixed source lines.
enum : unsigned int {
  kWidthAssertionLine = 64,
  kHeightAssertionLine = 66,
  kDepthAssertionLine = 68,
  kOrderAssertionLine = 70
};

// Colour-only: each colour byte moves towards r(layer, background) by fa/256;
// the background alpha is kept. fa = 0 leaves a pixel as it is in every mode
// this runs for (replace has its own loop).
struct ColourOnlyComposite {
  const unsigned char* top;
  unsigned char* bottom;
  size_t pixels;
  const unsigned char* weightedAlpha;
  kvo::KVLookupTables& tables;

  template <class Operation>
  int Run() {
    size_t done = 0;
    if (UseAVX2()) done = RunBlocks_AVX2<Operation>();
    RunPlain<Operation>(done);
    return 0;
  }

  template <class Operation>
  void RunPlain(size_t first) {
    const unsigned char* layer = top + first * kBytesPerPixel;
    unsigned char* canvas = bottom + first * kBytesPerPixel;
    for (size_t p = first; p < pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
      const int fa = weightedAlpha[layer[kAlphaByte]];
      if (fa == 0) continue;
      for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
        const int blended = Operation::Apply(tables, layer[c], canvas[c]);
        canvas[c] = static_cast<unsigned char>(BlendTowards(canvas[c], blended, fa));
      }
    }
  }

  // Eight pixels at a time; fa = 0 needs no test, the step it gives is 0.
  template <class Operation>
  KV_TARGET_AVX2 size_t RunBlocks_AVX2() {
    const __m256i byteMask = _mm256_set1_epi32(255);
    size_t p = 0;
    for (; p + 8 <= pixels; p += 8) {
      const unsigned char* layer = top + p * kBytesPerPixel;
      unsigned char* canvas = bottom + p * kBytesPerPixel;
      const __m256i under = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(canvas));
      const __m256i over = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(layer));
      const __m256i fa = _mm256_setr_epi32(weightedAlpha[layer[3]], weightedAlpha[layer[7]], weightedAlpha[layer[11]],
                                           weightedAlpha[layer[15]], weightedAlpha[layer[19]], weightedAlpha[layer[23]],
                                           weightedAlpha[layer[27]], weightedAlpha[layer[31]]);
      __m256i result = _mm256_andnot_si256(_mm256_set1_epi32(0x00FFFFFF), under);
      for (int shift = 0; shift < 24; shift += 8) {
        const __m256i canvasByte = _mm256_and_si256(_mm256_srli_epi32(under, shift), byteMask);
        const __m256i layerByte = _mm256_and_si256(_mm256_srli_epi32(over, shift), byteMask);
        const __m256i blended = VectorBlend<Operation>::Apply(tables, layerByte, canvasByte);
        const __m256i step = _mm256_srai_epi32(_mm256_mullo_epi32(_mm256_sub_epi32(blended, canvasByte), fa), 8);
        const __m256i channel = _mm256_and_si256(_mm256_add_epi32(canvasByte, step), byteMask);
        result = _mm256_or_si256(result, _mm256_slli_epi32(channel, shift));
      }
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(canvas), result);
    }
    return p;
  }
};

// Replace copies the layer's colour bytes whatever their alpha.
void ReplaceColourPlain(const unsigned char* layer, unsigned char* canvas, size_t pixels) {
  for (size_t p = 0; p < pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
    canvas[kBlueByte] = layer[kBlueByte];
    canvas[kGreenByte] = layer[kGreenByte];
    canvas[kRedByte] = layer[kRedByte];
  }
}

KV_TARGET_AVX2 size_t ReplaceColourBlocks_AVX2(const unsigned char* layer, unsigned char* canvas, size_t pixels) {
  const __m256i colour = _mm256_set1_epi32(0x00FFFFFF);
  size_t p = 0;
  for (; p + 8 <= pixels; p += 8) {
    const __m256i under = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(canvas + p * kBytesPerPixel));
    const __m256i over = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(layer + p * kBytesPerPixel));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(canvas + p * kBytesPerPixel),
                     _mm256_or_si256(_mm256_and_si256(colour, over), _mm256_andnot_si256(colour, under)));
  }
  return p;
}

void ReplaceColour(const unsigned char* layer, unsigned char* canvas, size_t pixels) {
  const size_t done = UseAVX2() ? ReplaceColourBlocks_AVX2(layer, canvas, pixels) : 0;
  ReplaceColourPlain(layer + done * kBytesPerPixel, canvas + done * kBytesPerPixel, pixels - done);
}

}  // namespace

LayerCompositor::LayerCompositor(KVAbstractImage* foregroundLayer, double opacity, KVCompositeType compositeType,
                                 KVBlendMode blendMode, kvo::KVLookupTables& tables)
    : m_foregroundLayer(foregroundLayer),
      m_opacity(opacity),
      m_compositeType(compositeType),
      m_blendMode(blendMode),
      m_tables(tables) {
  FillWeightedAlpha(m_opacity, m_weightedAlpha);
}

LayerCompositor::~LayerCompositor() {}

unsigned int LayerCompositor::Type() const { return 0; }

void LayerCompositor::Setup(KVAbstractImage*) {}

int LayerCompositor::Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) {
  const LayerMatchAssertionLines lines = {kWidthAssertionLine, kHeightAssertionLine, kDepthAssertionLine,
                                          kOrderAssertionLine};
  AssertLayerMatchesBackground(m_foregroundLayer, backgroundLayer, "LayerCompositor", lines);
  const unsigned int depth = backgroundLayer->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return Render8(static_cast<KVImage8*>(backgroundLayer), threadIndex, threadCount);
}

int LayerCompositor::Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) {
  const ShareRun share = ByteShare(backgroundLayer->Width(), backgroundLayer->Height(), threadIndex, threadCount,
                                   CommonByteSize(m_foregroundLayer, backgroundLayer));
  if (share.count == 0) return 0;
  const unsigned char* layer = PixelBytes(m_foregroundLayer) + share.start;
  unsigned char* canvas = backgroundLayer->Buffer() + share.start;
  const size_t pixels = share.count / kBytesPerPixel;

  if (m_compositeType == kCompositeColorOnly) {
    if (m_blendMode == kBlendReplace) {
      ReplaceColour(layer, canvas, pixels);
      return 0;
    }
    ColourOnlyComposite composite = {layer, canvas, pixels, m_weightedAlpha, m_tables};
    return DispatchBlendMode(m_blendMode, composite);
  }
  if (m_compositeType == kCompositeAlphaFill) {
    AlphaComposite<true, false> composite = {layer, canvas, pixels, m_weightedAlpha, m_tables};
    return DispatchBlendMode(m_blendMode, composite);
  }
  AlphaComposite<false, false> composite = {layer, canvas, pixels, m_weightedAlpha, m_tables};
  return DispatchBlendMode(m_blendMode, composite);
}

}  // namespace image
}  // namespace kvo
