#ifndef KVIMAGE_COLOUR_H
#define KVIMAGE_COLOUR_H

#include <cstddef>
#include <vector>

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// Internal: a thread's pixels and what each stage's pixel kernels read, both
// defined with the kernels. A stage keeps the kernel it chose for the
// processor in a pointer (see the stage sources).
struct PixelRun;
struct OpacityArguments;
struct BrightnessArguments;
struct ContrastArguments;
struct SuperContrastArguments;
struct ColorBalanceArguments;
struct SaturationArguments;
struct ThreeStripArguments;
struct VignetteArguments;
struct HueStageArguments;
struct ByteTables;
struct TintArguments;
struct BleachBypassArguments;
// Internal: what a stage tells the render queue; a stage that can join a
// pass through several stages at once gives the queue its block entry there.
struct StageNeeds;

// Scales alpha by an opacity. The plain path multiplies (alpha * opacity,
// truncated); the SSE2 path subtracts (1 - opacity) * 255 with saturation and
// is used only when the thread's pixel count is a multiple of 16. Where the
// processor has AVX-512 VBMI that subtraction is looked up in tables made from
// it (the same bytes, 64 at a time).
class KVIMAGE_EXPORT OpacityRenderer : public AbstractRenderer {
 public:
  OpacityRenderer(double opacity, const kvtl::CPUExtensions& extensions);
  ~OpacityRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage*) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const OpacityRenderer& stage);
  OpacityArguments Arguments() const;
  kvtl::CPUExtensions m_extensions;
  double m_opacity;
  unsigned char m_vectorTables[4][256];    // the vector formula per byte of a pixel, for the widest path
  const unsigned char* m_formulaBytes[4];  // into m_vectorTables, null where the formula keeps the byte
  size_t (*m_kernel)(const PixelRun&, const OpacityArguments&);
};

// Carries two flags and renders nothing: the destination keeps what it held.
class KVIMAGE_EXPORT MirrorRenderer : public AbstractRenderer {
 public:
  MirrorRenderer(bool first, bool second);
  ~MirrorRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage*) override {}
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
  ~SilhouetteRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage*) override {}
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
  ~MatteViewRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage*) override {}
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
// by the plain path. Where the processor has AVX-512 VBMI, both paths look
// their bytes up in tables, 64 at a time.
class KVIMAGE_EXPORT BrightnessRenderer : public AbstractRenderer {
 public:
  BrightnessRenderer(double brightness, KVChannelsToProcess channels, const kvtl::CPUExtensions& extensions);
  ~BrightnessRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const BrightnessRenderer& stage);
  kvtl::CPUExtensions m_extensions;
  double m_brightness;
  KVChannelsToProcess m_channels;
  BrightnessArguments Arguments() const;
  unsigned char m_table[256];
  unsigned char m_vectorTables[4][256];    // the vector formula per byte of a pixel, for the widest path
  const unsigned char* m_formulaBytes[4];  // into m_vectorTables, null where the formula keeps the byte
  size_t (*m_kernel)(const PixelRun&, const BrightnessArguments&);
  size_t (*m_tablesKernel)(const PixelRun&, const ByteTables&);  // the table walk's, chosen in Setup
};

// Scales the chosen channels about 127 with c = trunc(256 * contrast). The
// table divides c * (i - 127) by 256 truncating toward zero; the SSE2 path
// shifts right by 8 (floor), so below 127 it is one lower wherever the
// product is not a multiple of 256 and the table's result is above 0. Where
// the processor has AVX-512 VBMI, both the table and the SSE2 formula
// (tabulated in Setup) are looked up 64 bytes at a time.
class KVIMAGE_EXPORT ContrastRenderer : public AbstractRenderer {
 public:
  ContrastRenderer(double contrast, KVChannelsToProcess channels, const kvtl::CPUExtensions& extensions);
  ~ContrastRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const ContrastRenderer& stage);
  double m_contrast;
  KVChannelsToProcess m_channels;
  kvtl::CPUExtensions m_extensions;
  ContrastArguments Arguments() const;
  unsigned char m_table[256];
  unsigned char m_vectorTables[4][256];    // the vector formula per byte of a pixel, for the widest path
  const unsigned char* m_formulaBytes[4];  // into m_vectorTables, null where the formula keeps the byte
  size_t (*m_kernel)(const PixelRun&, const ContrastArguments&);
  size_t (*m_tablesKernel)(const PixelRun&, const ByteTables&);  // the table walk's, chosen in Setup
};

// Stretches the input range [low, high] (fractions of 255) to 0..255,
// clipping outside it. The table truncates a double product; the SSE2 path,
// which serves colour only, rounds a single-precision product to nearest.
// Where the processor has AVX-512 VBMI, both are looked up in tables (the
// SSE2 formula's made in Setup), 64 bytes at a time.
class KVIMAGE_EXPORT SuperContrastRenderer : public AbstractRenderer {
 public:
  SuperContrastRenderer(double low, double high, KVChannelsToProcess channels,
                        const kvtl::CPUExtensions& extensions);
  ~SuperContrastRenderer() override {}
  unsigned int Type() const override { return 0; }
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
  SuperContrastArguments Arguments() const;
  unsigned char m_table[256];
  unsigned char m_vectorTables[4][256];    // the vector formula per byte of a pixel, for the widest path
  const unsigned char* m_formulaBytes[4];  // into m_vectorTables, null where the formula keeps the byte
  size_t (*m_kernel)(const PixelRun&, const SuperContrastArguments&);
  size_t (*m_tablesKernel)(const PixelRun&, const ByteTables&);  // the table walk's, chosen in Setup
};

// Scales red, green and blue by three gains (0..2); alpha is copied. The
// SSE2 path quantises each gain to 1/256 and so may differ from the tables.
// Where the processor has AVX-512 VBMI, both the tables and the SSE2 formula
// (tabulated in Setup) are looked up 64 bytes at a time.
class KVIMAGE_EXPORT ColorBalanceRenderer : public AbstractRenderer {
 public:
  ColorBalanceRenderer(double red, double green, double blue, const kvtl::CPUExtensions& extensions);
  ~ColorBalanceRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                  unsigned char threadCount);
  int Render8_SSE2(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                   unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const ColorBalanceRenderer& stage);
  ColorBalanceArguments Arguments() const;
  kvtl::CPUExtensions m_extensions;
  double m_red;
  double m_green;
  double m_blue;
  unsigned char m_redTable[256];
  unsigned char m_greenTable[256];
  unsigned char m_blueTable[256];
  unsigned char m_vectorTables[4][256];    // the vector formula per byte of a pixel, for the widest path
  const unsigned char* m_formulaBytes[4];  // into m_vectorTables, null where the formula keeps the byte
  size_t (*m_kernel)(const PixelRun&, const ColorBalanceArguments&);
  size_t (*m_tablesKernel)(const PixelRun&, const ByteTables&);  // the table walk's, chosen in Setup
};

// Casts the image towards the colour of a black body at a temperature in
// kelvin (1500..13500): three gains from the black body's chromaticity.
class KVIMAGE_EXPORT ColorTemperatureRenderer : public AbstractRenderer {
 public:
  explicit ColorTemperatureRenderer(double kelvin);
  ~ColorTemperatureRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const ColorTemperatureRenderer& stage);
  double m_kelvin;
  unsigned char m_redTable[256];
  unsigned char m_greenTable[256];
  unsigned char m_blueTable[256];
  size_t (*m_tablesKernel)(const PixelRun&, const ByteTables&);  // chosen in Setup
};

// Spectral radiance of a black body at a temperature in kelvin and a
// wavelength in nanometres.
KVIMAGE_EXPORT double BlackBodySpectrum(double temperature, double wavelength);
// Chromaticity (x, y, z, summing to 1) of a black body at a temperature,
// integrated against the CIE 1931 2-degree observer from 380 to 780 nm.
KVIMAGE_EXPORT void SpectrumToXYZ(double temperature, double* x, double* y, double* z);

// Scales saturation in a hue-saturation-value model computed in double
// precision. Bytes 0, 1, 2 are taken as blue, green, red whatever the channel
// order; byte 3 is copied. The float table is kept but not read.
class KVIMAGE_EXPORT SaturationRenderer : public AbstractRenderer {
 public:
  SaturationRenderer(double saturation, float* table);
  ~SaturationRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const SaturationRenderer& stage);
  double m_saturation;
  [[maybe_unused]] float* m_table;
  double m_reciprocalOfDifference[511];  // [k + 255] = 1 / k, k = -255..255
  double m_reciprocalOfValue[256];       // [v] = 1 / v
  size_t (*m_kernel)(const PixelRun&, const SaturationArguments&);
};

// Rotates hue in the integer HLS model and mixes the result with the source
// colour by an amount.
class KVIMAGE_EXPORT HueShiftRenderer : public AbstractRenderer {
 public:
  HueShiftRenderer(double shift, double amount);
  ~HueShiftRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  double m_hueOffset;  // 360 - shift
  double m_keep;       // 1 - amount
  size_t (*m_kernel)(const PixelRun&, const HueStageArguments&);
  unsigned char m_mixTables[4][256];  // the mix as byte arithmetic, built at the first Setup
  signed char m_mixByTables;          // -1 before that Setup, then whether the tables hold
};

// Replaces hue in the integer HLS model (greys stay grey) and mixes the result
// with the source colour by an amount.
class KVIMAGE_EXPORT HueColorizeRenderer : public AbstractRenderer {
 public:
  HueColorizeRenderer(double hue, double amount);
  ~HueColorizeRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  double m_hue;
  double m_keep;  // 1 - amount
  size_t (*m_kernel)(const PixelRun&, const HueStageArguments&);
  unsigned char m_mixTables[4][256];  // the mix as byte arithmetic, built at the first Setup
  signed char m_mixByTables;          // -1 before that Setup, then whether the tables hold
};

// Moves every pixel toward the tone colour its luminance picks, by an amount.
class KVIMAGE_EXPORT TintRenderer : public AbstractRenderer {
 public:
  TintRenderer(KVTintType type, double amount);
  ~TintRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const TintRenderer& stage);
  KVTintType m_type;
  double m_keep;  // 1 - amount
  unsigned char m_warmBlue[256];
  unsigned char m_warmGreen[256];
  unsigned char m_warmRed[256];
  unsigned char m_luminance[768];  // indexed by the sum of the three colour bytes
  // Derived by Setup for the render loop: each colour sum's target per
  // channel, pre-multiplied by 256, and every (target, byte) mix.
  unsigned short m_blueTargetRow[768];
  unsigned short m_greenTargetRow[768];
  unsigned short m_redTargetRow[768];
  unsigned char m_mix[256 * 256];
  // Each luminance's target, blue, green and red, for the vector path, which
  // computes the mix instead of reading it.
  unsigned char m_targetByLuminance[3][256];
  size_t (*m_kernel)(const PixelRun&, const TintArguments&);  // chosen in Setup
};

// Re-weights each colour byte by the mean of two curves, looked up by how far
// the other two channels stand above their neighbours.
class KVIMAGE_EXPORT ThreeStripColorRenderer : public AbstractRenderer {
 public:
  ThreeStripColorRenderer(double a, double b, double c);
  ~ThreeStripColorRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);
  int Render8_AVX2(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  friend StageNeeds NeedsOf(const ThreeStripColorRenderer& stage);
  // Render's share through a kernel; the plain kernel finishes its tail.
  int RenderWith(size_t (*kernel)(const PixelRun&, const ThreeStripArguments&), KVAbstractImage* source,
                 KVAbstractImage* destination, unsigned char threadIndex, unsigned char threadCount);

  double m_levelA;
  double m_levelB;
  double m_levelC;
  int m_curveA[256];
  int m_curveB[256];
  int m_curveC[256];
  // Derived by Setup for the render loop: each curve looked up by a channel's
  // excess over its neighbours' mean, negative excesses clamped to 0.
  unsigned char m_blueWeight[256];
  unsigned char m_greenWeight[256];
  unsigned char m_redWeight[256];
  size_t (*m_kernel)(const PixelRun&, const ThreeStripArguments&);
};

// The look of skipping the bleach in film processing. Each colour byte is
// overlaid with the pixel's Rec. 601 luminance L = (77 R + 150 G + 29 B) >> 8
// (BlendPixel(byte, L, kBlendOverlay, clamp(trunc(amount * 256), 0, 256))),
// pulled toward the result's own luminance by desaturation and given an
// S-curve of strength contrast about 128. Alpha copied. The tables are not
// owned.
class KVIMAGE_EXPORT BleachBypassRenderer : public AbstractRenderer {
 public:
  BleachBypassRenderer(double amount, double desaturation, double contrast, kvo::KVLookupTables& tables);
  ~BleachBypassRenderer() override {}
  BleachBypassRenderer(const BleachBypassRenderer&) = delete;
  BleachBypassRenderer& operator=(const BleachBypassRenderer&) = delete;
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* input) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  double m_amount;
  double m_desaturation;
  double m_contrast;
  kvo::KVLookupTables& m_tables;
  // Derived by Setup: the overlay of every (luminance, byte) pair at the
  // stage's opacity, the desaturation weight (0..256) and the S-curve.
  unsigned char m_overlay[256 * 256];
  int m_desaturationWeight;
  unsigned char m_curve[256];
  size_t (*m_kernel)(const PixelRun&, const BleachBypassArguments&);  // chosen in Setup
};

// Lays a colour over the image toward the edges of a rectangle. The distance
// d of a pixel centre from the rectangle's centre is measured on an ellipse
// through the midpoints of the rectangle's sides at roundness 0 and on a
// circle through the nearer pair at roundness 1 (the axes interpolate
// between); the weight rises from 0 at d = midpoint to amount over a
// smoothstep of width feather (a step at feather 0) and keeps growing
// outside the rectangle, and bright pixels are protected by
// (1 - highlights * L / 255). An empty rectangle means the whole image.
// Alpha copied.
class KVIMAGE_EXPORT VignetteRenderer : public AbstractRenderer {
 public:
  VignetteRenderer(const KVPixel8_RGB& colour, double amount, double midpoint, double roundness, double feather,
                   double highlights, const kvo::maths::KVRect& bounds);
  ~VignetteRenderer() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);
  int Render8_AVX2(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  // The weight (0..256) at squared normalised distance s.
  int WeightAt(double s) const;
  // Render's share through a kernel; the plain kernel finishes its tail.
  int RenderWith(size_t (*kernel)(const PixelRun&, const VignetteArguments&), KVAbstractImage* source,
                 KVAbstractImage* destination, unsigned char threadIndex, unsigned char threadCount);

  KVPixel8_RGB m_colour;
  double m_amount;
  double m_midpoint;
  double m_roundness;
  double m_feather;
  double m_highlights;
  kvo::maths::KVRect m_bounds;
  // Derived by Setup for the image it was given: the squared normalised
  // offset of every column and every row from the centre, and the
  // highlight protection (0..256) of every luminance.
  std::vector<double> m_columnTerm;
  std::vector<double> m_rowTerm;
  int m_protection[256];
  size_t (*m_kernel)(const PixelRun&, const VignetteArguments&);
};

// Integer RGB to HLS (hue -1 and saturation 0 for a grey).
KVIMAGE_EXPORT void ConvertRGBtoHLS(const KVPixel8_RGB& in, KVPixel8_HLS& out);
// Integer HLS to RGB. A saturation of 0 with a hue other than -1 writes
// nothing: out keeps what it held, so callers preset it.
KVIMAGE_EXPORT void ConvertHLStoRGB(const KVPixel8_HLS& in, KVPixel8_RGB& out);
// One component of an HLS colour, from the low and high levels and a hue.
KVIMAGE_EXPORT int ConvertHueToRGB(int low, int high, int hue);

// Tone tables of the tint stage: 256 rows indexed by luminance, each row
// red, green, blue.
KVIMAGE_EXPORT extern const unsigned char BronzeToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char CyanotypeToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char EmeraldToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char GoldToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char PalladiumToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char PlatinumToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char PlatinumPalladiumToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char SeleniumToneLT[256][3];
KVIMAGE_EXPORT extern const unsigned char SilverToneLT[256][3];

}  // namespace image
}  // namespace kvo

#endif
