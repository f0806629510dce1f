#ifndef KVIMAGE_COLOUR_H
#define KVIMAGE_COLOUR_H

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// Scales alpha by an opacity. The plain path multiplies (alpha * opacity,
// truncated); the SSE2 path subtracts (1 - opacity) * 255 with saturation and
// is used only when the thread's pixel count is a multiple of 16.
class KVIMAGE_EXPORT OpacityRenderer : public AbstractRenderer {
 public:
  OpacityRenderer(double opacity, const kvtl::CPUExtensions& extensions);
  ~OpacityRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  kvtl::CPUExtensions m_extensions;
  double m_opacity;
};

// Carries two flags and renders nothing: the destination keeps what it held.
class KVIMAGE_EXPORT MirrorRenderer : public AbstractRenderer {
 public:
  MirrorRenderer(bool first, bool second);
  ~MirrorRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  [[maybe_unused]] bool m_first;  // nothing reads the flags
  [[maybe_unused]] bool m_second;
};

// Replaces every pixel's colour by one colour and keeps the source alpha.
class KVIMAGE_EXPORT SilhouetteRenderer : public AbstractRenderer {
 public:
  explicit SilhouetteRenderer(KVPixel8_RGB colour);
  ~SilhouetteRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);

 private:
  unsigned char m_red;
  unsigned char m_green;
  unsigned char m_blue;
};

// Shows alpha as an opaque grey image (either channel order).
class KVIMAGE_EXPORT MatteViewRenderer : public AbstractRenderer {
 public:
  MatteViewRenderer();
  ~MatteViewRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);
};

// Applies the opacity stage to one image in place, in the calling thread.
KVIMAGE_EXPORT void SetOpacity(KVImage8* image, double opacity);
// SetOpacity on an 8-bit image; any other depth is left as it is.
KVIMAGE_EXPORT void ChangeLayerOpacity(KVAbstractImage* image, double opacity);

// Adds a constant to the chosen channels through a table built in Setup:
// table[i] = clamp(i + trunc(255 * brightness)). The SSE2 path (shares of a
// multiple of 16 pixels) adds or subtracts with byte saturation and gives the
// same bytes; an unknown channel selection is copied there and left unwritten
// by the plain path.
class KVIMAGE_EXPORT BrightnessRenderer : public AbstractRenderer {
 public:
  BrightnessRenderer(double brightness, KVChannelsToProcess channels, const kvtl::CPUExtensions& extensions);
  ~BrightnessRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  kvtl::CPUExtensions m_extensions;
  double m_brightness;
  KVChannelsToProcess m_channels;
  unsigned char m_table[256];
};

// Scales the chosen channels about 127 with c = trunc(256 * contrast). The
// table divides c * (i - 127) by 256 truncating toward zero; the SSE2 path
// shifts right by 8 (floor), so below 127 it is one lower wherever the
// product is not a multiple of 256 and the table's result is above 0.
class KVIMAGE_EXPORT ContrastRenderer : public AbstractRenderer {
 public:
  ContrastRenderer(double contrast, KVChannelsToProcess channels, const kvtl::CPUExtensions& extensions);
  ~ContrastRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  double m_contrast;
  KVChannelsToProcess m_channels;
  kvtl::CPUExtensions m_extensions;
  unsigned char m_table[256];
};

// Stretches the input range [low, high] (fractions of 255) to 0..255,
// clipping outside it. The table truncates a double product; the SSE2 path,
// which serves colour only, rounds a single-precision product to nearest.
class KVIMAGE_EXPORT SuperContrastRenderer : public AbstractRenderer {
 public:
  SuperContrastRenderer(double low, double high, KVChannelsToProcess channels,
                        const kvtl::CPUExtensions& extensions);
  ~SuperContrastRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  kvtl::CPUExtensions m_extensions;
  double m_low;
  double m_high;
  KVChannelsToProcess m_channels;
  unsigned char m_table[256];
};

// Scales red, green and blue by three gains (0..2); alpha is copied. The
// SSE2 path quantises each gain to 1/256 and so may differ from the tables.
class KVIMAGE_EXPORT ColorBalanceRenderer : public AbstractRenderer {
 public:
  ColorBalanceRenderer(double red, double green, double blue, const kvtl::CPUExtensions& extensions);
  ~ColorBalanceRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  kvtl::CPUExtensions m_extensions;
  double m_red;
  double m_green;
  double m_blue;
  unsigned char m_redTable[256];
  unsigned char m_greenTable[256];
  unsigned char m_blueTable[256];
};

// Casts the image towards the colour of a black body at a temperature in
// kelvin (1500..13500): three gains from the black body's chromaticity.
class KVIMAGE_EXPORT ColorTemperatureRenderer : public AbstractRenderer {
 public:
  explicit ColorTemperatureRenderer(double kelvin);
  ~ColorTemperatureRenderer() override;
  unsigned int Type() const override;
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  double m_kelvin;
  unsigned char m_redTable[256];
  unsigned char m_greenTable[256];
  unsigned char m_blueTable[256];
};

// Spectral radiance of a black body at a temperature in kelvin and a
// wavelength in nanometres.
KVIMAGE_EXPORT double BlackBodySpectrum(double temperature, double wavelength);
// Chromaticity (x, y, z, summing to 1) of a black body at a temperature,
// integrated against the CIE 1931 2-degree observer from 380 to 780 nm.
KVIMAGE_EXPORT void SpectrumToXYZ(double temperature, double* x, double* y, double* z);

}  // namespace image
}  // namespace kvo

#endif
