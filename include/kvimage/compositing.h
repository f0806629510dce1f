#ifndef KVIMAGE_COMPOSITING_H
#define KVIMAGE_COMPOSITING_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <kvimage/blur.h>
#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// Internal: a layer's pixels over the background's, as the compositing
// kernels take them (defined with the kernels).
struct LayerRun;

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
  ~LayerCompositor() override {}
  LayerCompositor(const LayerCompositor&) = delete;
  LayerCompositor& operator=(const LayerCompositor&) = delete;

  unsigned int Type() const override { return 0; }
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
  // The plain kernel of the type and mode, and the one Setup chose for the
  // processor (the plain kernel finishes its tail).
  size_t (*m_plainKernel)(const LayerRun&);
  size_t (*m_kernel)(const LayerRun&);
};

// A glow of a layer onto the background. Setup blurs a copy of the layer (all
// four bytes, the stack blur at `radius`, on the stage's own threads); Render
// lays the blurred copy over the background with the blend mode through the
// layer compositor's alpha path (combined alpha 0: the background is kept),
// its alpha weighted by `amount` clamped to 0 .. 1 (NaN as 0). Pixels the glow
// does not reach (weighted alpha 0) are left exactly as they are, so amount 0
// changes nothing. The radius is used as given (the front end has scaled it);
// the factor and the extension record are kept as given. The layer must match
// the background as for LayerCompositor (fatal assertions under the source
// name "LightSpillLayerCompositor"). A radius above the stack blur's largest
// makes Setup throw std::bad_alloc (result code 8).
class KVIMAGE_EXPORT LightSpillLayerCompositor : public AbstractCompositor {
 public:
  LightSpillLayerCompositor(KVAbstractImage* layer, unsigned int radius, double amount, KVBlendMode blendMode,
                            KVDownsampleFactor factor, kvo::KVLookupTables& tables, kvtl::CPUExtensions extensions);
  ~LightSpillLayerCompositor() override {}
  LightSpillLayerCompositor(const LightSpillLayerCompositor&) = delete;
  LightSpillLayerCompositor& operator=(const LightSpillLayerCompositor&) = delete;

  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* backgroundLayer) override;
  int Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) override;
  int Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount);

 private:
  // The image Render lays over the background: the layer itself at radius 0,
  // else the blurred copy (null until a Setup has made it).
  KVAbstractImage* GlowLayer() const;

  KVAbstractImage* m_layer;
  unsigned int m_radius;
  double m_amount;
  KVBlendMode m_blendMode;
  [[maybe_unused]] KVDownsampleFactor m_factor;
  kvo::KVLookupTables& m_tables;
  [[maybe_unused]] kvtl::CPUExtensions m_extensions;
  // fa for each alpha of the blurred layer: trunc(alpha * clamped amount).
  unsigned char m_weightedAlpha[256];
  StackBlurRenderer m_blur;
  std::unique_ptr<KVImage8> m_blurred;
  bool m_blurredReady;
  // As for LayerCompositor, for the glow's mode.
  size_t (*m_plainKernel)(const LayerRun&);
  size_t (*m_kernel)(const LayerRun&);
};

// A cast shadow. The layer stands in `bounds` (background pixels; layer pixel
// (x, y) covers background pixel (x, y), whatever the two sizes), and the
// perspective transform that takes the corners of `bounds` onto `corners`
// (top left, top right, bottom left, bottom right) lays its alpha down as a
// shadow. Setup fills a shadow-alpha plane of the background's size on one
// thread per core: each background pixel centre is mapped back through the
// inverse transform and the layer's alpha sampled there bilinearly (0 outside
// the layer and outside `bounds`); with `fade` true the sample is multiplied
// by the mapped point's normalised vertical position in `bounds` (1 at the
// bottom edge, the contact edge, 0 at the top). A `radius` other than 0 then
// blurs the plane with the single-channel stack-blur passes. Render lays
// `colour` over each pixel the shadow reaches: opacity = trunc(shadow alpha *
// amount) with amount clamped to 0 .. 1 (NaN as 0), each colour byte becomes
// BlendPixel(byte, colour, mode, opacity) and the alpha
// AlphaChannelBlend(alpha, opacity); pixels of opacity 0 are left as they are.
// A degenerate quadrilateral (not strictly convex, or with a coordinate that
// is not finite) or an empty `bounds` casts no shadow. A radius above the
// stack blur's largest makes Setup throw std::bad_alloc (result code 8).
class KVIMAGE_EXPORT ShadowCastCompositor : public AbstractCompositor {
 public:
  ShadowCastCompositor(KVAbstractImage* layer, const kvo::maths::KVRect& bounds, const kvo::maths::KVQuad& corners,
                       unsigned int radius, double amount, KVPixel8_RGB colour, KVBlendMode blendMode, bool fade,
                       KVDownsampleFactor factor, kvo::KVLookupTables& tables, kvtl::CPUExtensions extensions);
  ~ShadowCastCompositor() override {}
  ShadowCastCompositor(const ShadowCastCompositor&) = delete;
  ShadowCastCompositor& operator=(const ShadowCastCompositor&) = delete;

  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* backgroundLayer) override;
  // A background of another depth than 8 bits returns its depth code.
  int Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) override;
  int Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount);

 private:
  KVAbstractImage* m_layer;
  kvo::maths::KVRect m_bounds;
  kvo::maths::KVQuad m_corners;
  unsigned int m_radius;
  double m_amount;
  KVPixel8_RGB m_colour;
  KVBlendMode m_blendMode;
  bool m_fade;
  [[maybe_unused]] KVDownsampleFactor m_factor;
  kvo::KVLookupTables& m_tables;
  [[maybe_unused]] kvtl::CPUExtensions m_extensions;
  // The opacity for each shadow alpha, and for each colour byte (blue, green,
  // red) and background value the blend result at full weight.
  unsigned char m_opacity[256];
  unsigned char m_blended[3][256];
  // From the last Setup: the size of the background it was made for (0 x 0:
  // no shadow) and the shadow alpha (0 .. 255) of the rectangle of it that the
  // shadow can reach, from (m_planeLeft, m_planeTop); 0 everywhere else.
  std::vector<int32_t> m_shadowAlpha;
  std::vector<int32_t> m_blurScratch;
  std::vector<int32_t> m_edgeIndex;
  uint32_t m_setupWidth;
  uint32_t m_setupHeight;
  uint32_t m_planeLeft;
  uint32_t m_planeTop;
  uint32_t m_planeWidth;
  uint32_t m_planeHeight;
};

}  // namespace image
}  // namespace kvo

#endif
