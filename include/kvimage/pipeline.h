#ifndef KVIMAGE_PIPELINE_H
#define KVIMAGE_PIPELINE_H

#include <exception>
#include <tr1/memory>

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {

// Maps an exception to a result code by its exact dynamic type: bad_alloc 8,
// runtime_error 2, logic_error 3, invalid_argument 4, out_of_range 7, anything
// else (derived classes included) defaultCode.
KVIMAGE_EXPORT int ConvertExceptionToKVerr(std::exception& e, int defaultCode);

// What a result code means, in a few words: "argument out of range" for 7.
KVIMAGE_EXPORT const char* ResultCodeMeaning(int code);

namespace image {

// An effect or keying stage. Setup runs once per render in the calling thread;
// Render runs concurrently on threadCount threads, each writing only its own
// share of the destination.
class KVIMAGE_EXPORT AbstractRenderer {
 public:
  virtual ~AbstractRenderer();
  virtual unsigned int Type() const = 0;
  virtual void Setup(KVAbstractImage* source) = 0;
  virtual int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                     unsigned char threadCount) = 0;
};

// A compositing stage: works in place on the background.
class KVIMAGE_EXPORT AbstractCompositor {
 public:
  virtual ~AbstractCompositor();
  virtual unsigned int Type() const = 0;
  virtual void Setup(KVAbstractImage* background) = 0;
  virtual int Render(KVAbstractImage* background, unsigned char threadIndex, unsigned char threadCount) = 0;
};

// One render thread's work for one stage of a processor or keyer.
struct RenderThreadData {
  unsigned char threadIndex;
  unsigned char threadCount;
  KVAbstractImage* source;
  KVAbstractImage* destination;
  std::tr1::shared_ptr<AbstractRenderer> renderer;
};

// One render thread's work for one stage of a compositor.
struct CompositeThreadData {
  unsigned char threadIndex;
  unsigned char threadCount;
  KVAbstractImage* background;
  std::tr1::shared_ptr<AbstractCompositor> compositor;
};

// Thread entries. Each returns 0, or the code of the std::exception the stage
// threw (ConvertExceptionToKVerr with default 1001), as the thread's result.
KVIMAGE_EXPORT void* ProcessorRenderWorkerThread(void* data);
KVIMAGE_EXPORT void* KeyRenderWorkerThread(void* data);
KVIMAGE_EXPORT void* CompositeRenderWorkerThread(void* data);

class KVIMAGE_EXPORT KVAbstractImageProcessor {
 public:
  virtual ~KVAbstractImageProcessor() {}
  virtual KVAbstractImage* SourceImage() const = 0;
  virtual unsigned short RenderQueueCount() const = 0;
  virtual int ClearRenderQueue() = 0;
  virtual int Render() = 0;
};

struct KVImageProcessor_Private;

// The effects pipeline. Neither constructor takes ownership: the caller keeps
// both images and the tables alive for the processor's lifetime. Each setter
// validates, appends one stage and returns 0, or a result code and queues
// nothing.
class KVIMAGE_EXPORT KVImageProcessor : public KVAbstractImageProcessor {
 public:
  KVImageProcessor(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                   KVDownsampleFactor factor);
  KVImageProcessor(std::tr1::shared_ptr<KVAbstractImage> source, std::tr1::shared_ptr<KVAbstractImage> destination,
                   kvo::KVLookupTables& tables, KVDownsampleFactor factor);
  ~KVImageProcessor() override;
  KVImageProcessor(const KVImageProcessor&) = delete;
  KVImageProcessor& operator=(const KVImageProcessor&) = delete;

  KVAbstractImage* SourceImage() const override;
  unsigned short RenderQueueCount() const override;
  int ClearRenderQueue() override;
  int Render() override;

  int SetOpacity(double opacity);
  int SetMirror(bool first, bool second);
  int SetSilhouette(KVPixel8_RGB colour);
  int SetMatteView();
  int SetBrightness(double brightness, KVChannelsToProcess channels);
  int SetContrast(double contrast, KVChannelsToProcess channels);
  int SetSuperContrast(double low, double high, KVChannelsToProcess channels);
  int SetColorBalance(double red, double green, double blue);
  int SetColorTemperature(double kelvin);
  int SetSaturation(double saturation);
  int SetHueShift(double shift, double amount);
  int SetHueColorize(double hue, double amount);
  int SetTint(KVTintType type, double amount);
  int SetThreeStripColor(double a, double b, double c);
  int SetStackBlur(unsigned int radius, bool horizontal, bool vertical, KVChannelsToProcess channels);
  int SetYUVBlur(unsigned int radius, KVYUVBlurType type);
  int SetBoundedStackBlur(unsigned int radius, bool horizontal, bool vertical, KVChannelsToProcess channels,
                          const kvo::maths::KVRect& rect, double feather);
  // Focus stages. Each checks its amount (and sharpen its threshold) and
  // returns 7, queueing nothing, outside the range: defocus 0..0.8, diffuse,
  // sharpen and soft focus 0..1, threshold 0..1 (NaN passes). The radius is
  // scaled when the stage blurs, and blurParameter is the bounded blur's
  // feather width.
  int SetDefocus(unsigned int radius, double amount, double blurParameter);
  int SetDiffuse(unsigned int radius, double amount, double blurParameter);
  int SetSharpen(unsigned int radius, double amount, double threshold, double blurParameter);
  int SetSoftFocus(KVBlendMode mode, unsigned int radius, double amount, const kvo::maths::KVRect& rect,
                   double blurParameter);

  // Bleach bypass: amount, desaturation and contrast, each 0 .. 1.
  int SetBleachBypass(double amount, double desaturation, double contrast);
  // Vignette toward the edges of bounds (empty: the whole image): amount,
  // midpoint, roundness, feather and highlights, each 0 .. 1.
  int SetVignette(const KVPixel8_RGB& colour, double amount, double midpoint, double roundness, double feather,
                  double highlights, const kvo::maths::KVRect& bounds);
  // Depth of field: focusSize, transition and amount each 0 .. 1; the radius
  // is scaled by the downsample factor; the type and the angle are not checked.
  int SetDepthOfField(KVDepthOfFieldType type, const kvo::maths::KVPoint2F& focus, double angle, unsigned int radius,
                      double focusSize, double transition, double amount, double blurParameter,
                      const kvo::maths::KVRect& bounds);

 private:
  KVImageProcessor_Private* m_private;
};

class KVIMAGE_EXPORT KVAbstractImageKeyer {
 public:
  virtual ~KVAbstractImageKeyer() {}
  virtual KVAbstractImage* SourceImage() const = 0;
  virtual unsigned short RenderQueueCount() const = 0;
  virtual int ClearRenderQueue() = 0;
  virtual int Render() = 0;
};

struct KVImageKeyer_Private;

// The keying pipeline: the processor's queue with the keying and matte stages.
class KVIMAGE_EXPORT KVImageKeyer : public KVAbstractImageKeyer {
 public:
  KVImageKeyer(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
               KVDownsampleFactor factor);
  KVImageKeyer(std::tr1::shared_ptr<KVAbstractImage> source, std::tr1::shared_ptr<KVAbstractImage> destination,
               kvo::KVLookupTables& tables, KVDownsampleFactor factor);
  ~KVImageKeyer() override;
  KVImageKeyer(const KVImageKeyer&) = delete;
  KVImageKeyer& operator=(const KVImageKeyer&) = delete;

  KVAbstractImage* SourceImage() const override;
  unsigned short RenderQueueCount() const override;
  int ClearRenderQueue() override;
  int Render() override;

  // Queues a ColorDifferenceKeyer. balance, saturationLimit and
  // saturationSoftness are checked in that order; the first below 0 or above
  // 1 returns 7 and queues nothing.
  int SetAutoColorDifferenceKey(KVKeyColor keyColor, double balance, double saturationLimit,
                                double saturationSoftness);

  int SetAlphaSuperContrast(double low, double high);

  // Spill suppression and matte clean-up. SetSpillSuppression checks only
  // amount (0..1); SetAlphaCrop checks left, right, top, bottom (each 0..1);
  // SetWhiteErode refuses a negative size and scales it by the downsample
  // factor. Out of range: 7, nothing queued.
  int SetSpillSuppression(KVChannel channel, KVSpillType spillType, double amount, double redFactor,
                          double greenFactor, double blueFactor, double referenceFactor);
  int SetAlphaCrop(double left, double top, double right, double bottom);
  int SetWhiteErode(KVWhiteErodeDirection direction, int size);

  int SetYUVBlur(unsigned int radius, KVYUVBlurType type);
  int SetAlphaStackBlur(unsigned int radius, bool horizontal, bool vertical);


 private:
  KVImageKeyer_Private* m_private;
};

class KVIMAGE_EXPORT KVAbstractImageCompositor {
 public:
  virtual ~KVAbstractImageCompositor() {}
  virtual KVAbstractImage* BackgroundLayer() const = 0;
  virtual unsigned short RenderQueueCount() const = 0;
  virtual int ClearRenderQueue() = 0;
  virtual int Render() = 0;
};

struct KVImageCompositor_Private;

// The layering pipeline: every stage works in place on the background. An
// opacity below 1.0 fades the background once, at construction.
class KVIMAGE_EXPORT KVImageCompositor : public KVAbstractImageCompositor {
 public:
  KVImageCompositor(KVAbstractImage* background, double opacity, kvo::KVLookupTables& tables,
                    KVDownsampleFactor factor);
  KVImageCompositor(std::tr1::shared_ptr<KVAbstractImage> background, double opacity, kvo::KVLookupTables& tables,
                    KVDownsampleFactor factor);
  ~KVImageCompositor() override;
  KVImageCompositor(const KVImageCompositor&) = delete;
  KVImageCompositor& operator=(const KVImageCompositor&) = delete;

  KVAbstractImage* BackgroundLayer() const override;
  unsigned short RenderQueueCount() const override;
  int ClearRenderQueue() override;
  int Render() override;

  // Queues a LayerCompositor laying layer over the background: 1000 when the
  // layer does not match the background (checked first), 7 when opacity is
  // outside 0 .. 1 (NaN passes and composites as 0), else 0. The mode and the
  // type are not checked. The layer is not owned: keep it alive until the
  // last render.
  int AddLayer(KVAbstractImage* layer, double opacity, KVBlendMode blendMode, KVCompositeType compositeType);
  int AddLayer(std::tr1::shared_ptr<KVAbstractImage> layer, double opacity, KVBlendMode blendMode,
               KVCompositeType compositeType);

  // Queues a LightSpillLayerCompositor, a glow of the layer: 1000 when the
  // layer does not match the background (checked first), 7 for a negative
  // radius, else 0. The radius is scaled by this compositor's downsample
  // factor; the stage receives the factor passed here. amount is clamped to
  // 0 .. 1 by the stage (NaN as 0); the mode is not checked.
  int AddLightSpillLayer(KVAbstractImage* layer, int radius, double amount, KVBlendMode mode,
                         KVDownsampleFactor factor);
  int AddLightSpillLayer(std::tr1::shared_ptr<KVAbstractImage> layer, int radius, double amount, KVBlendMode mode,
                         KVDownsampleFactor factor);
  // Queues a ShadowCastCompositor: the layer's alpha within bounds, cast onto
  // the quadrilateral corners, blurred by radius (scaled by this compositor's
  // downsample factor) and laid as colour with the mode and amount; flag fades
  // it towards the top of bounds. No argument is checked (the layer may differ
  // from the background in size): returns 0.
  int AddShadowCastLayer(KVAbstractImage* layer, const kvo::maths::KVRect& bounds, const kvo::maths::KVQuad& corners,
                         unsigned int radius, double amount, KVPixel8_RGB colour, KVBlendMode mode, bool flag,
                         KVDownsampleFactor factor);
  int AddShadowCastLayer(std::tr1::shared_ptr<KVAbstractImage> layer, const kvo::maths::KVRect& bounds,
                         const kvo::maths::KVQuad& corners, unsigned int radius, double amount, KVPixel8_RGB colour,
                         KVBlendMode mode, bool flag, KVDownsampleFactor factor);

 private:
  KVImageCompositor_Private* m_private;
};

}  // namespace image
}  // namespace kvo

#endif
