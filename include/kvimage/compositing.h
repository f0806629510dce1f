#ifndef KVIMAGE_COMPOSITING_H
#define KVIMAGE_COMPOSITING_H

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// Blends one 8-bit channel: r = mode(top, bottom), then
// bottom + (((r - bottom) * opacity) >> 8) with a signed 32-bit product and an
// arithmetic shift, so opacity 256 gives r and 255 stops one short of it.
// kBlendReplace returns top whatever the opacity; every mode above
// kBlendReplace (compared unsigned) behaves as kBlendNormal.
KVIMAGE_EXPORT int BlendPixel(int bottom, int top, KVBlendMode mode, int opacity, kvo::KVLookupTables& tables);

// Lays one layer over the background in place, weighted by the layer's alpha
// times the opacity and combined with a blend mode. The colour-only type
// blends the colour bytes and keeps the background alpha; the alpha types
// perform an over-composite with single-precision un-premultiplication. The
// layer and the tables are not owned.
class KVIMAGE_EXPORT LayerCompositor : public AbstractCompositor {
 public:
  LayerCompositor(KVAbstractImage* foregroundLayer, double opacity, KVCompositeType compositeType,
                  KVBlendMode blendMode, kvo::KVLookupTables& tables);
  ~LayerCompositor() override;
  LayerCompositor(const LayerCompositor&) = delete;
  LayerCompositor& operator=(const LayerCompositor&) = delete;

  unsigned int Type() const override;
  void Setup(KVAbstractImage* backgroundLayer) override;
  // A layer that differs from the background in width, height, depth or
  // channel order is a fatal programming error. A background of another depth
  // than 8 bits returns its depth code untouched.
  int Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) override;
  int Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount);

 private:
  KVAbstractImage* m_foregroundLayer;
  double m_opacity;
  KVCompositeType m_compositeType;
  KVBlendMode m_blendMode;
  kvo::KVLookupTables& m_tables;
  // fa for each layer alpha: clamp(trunc(alpha * opacity), 0, 255).
  unsigned char m_weightedAlpha[256];
};

}  // namespace image
}  // namespace kvo

#endif
