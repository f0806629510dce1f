#include <kvimage/compositing.h>

#include "compositing/BlendOperations.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

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
    const unsigned char* layer = top;
    unsigned char* canvas = bottom;
    for (size_t p = 0; p < pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
      const int fa = weightedAlpha[layer[kAlphaByte]];
      if (fa == 0) continue;
      for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
        const int blended = Operation::Apply(tables, layer[c], canvas[c]);
        canvas[c] = static_cast<unsigned char>(BlendTowards(canvas[c], blended, fa));
      }
    }
    return 0;
  }
};

// Replace copies the layer's colour bytes whatever their alpha.
void ReplaceColour(const unsigned char* layer, unsigned char* canvas, size_t pixels) {
  for (size_t p = 0; p < pixels; ++p, layer += kBytesPerPixel, canvas += kBytesPerPixel) {
    canvas[kBlueByte] = layer[kBlueByte];
    canvas[kGreenByte] = layer[kGreenByte];
    canvas[kRedByte] = layer[kRedByte];
  }
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
