#ifndef KVIMAGE_BLUR_H
#define KVIMAGE_BLUR_H

#include <cstdint>
#include <tr1/memory>
#include <vector>

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// ---------------------------------------------------------------------------
// Stack blur: every pixel becomes the triangle-weighted mean of the pixels
// within `radius` of it (edge pixels repeat), computed with running sums so
// that the cost per pixel does not depend on the radius.
//
// The row pass ("Vert" procedures, they walk along rows) runs in Setup on the
// stage's own threads and leaves the blurred rows as bytes, four a pixel (the
// alpha byte alone in the alpha-only mode); the column pass ("Horiz"
// procedures, they walk down columns) reads them in Render, one share of
// columns per render thread. The exported procedures below run the same
// passes with the row results in 32-bit planes, one per channel, each value
// 0 .. 255.
//
// Every radius is served, with memory bounded by the image: the sums of a
// window are exact (32-bit integers up to radius 2895, doubles up to 4194303,
// 64- and 128-bit integers beyond), the quotients are exact divisions by
// (radius+1)^2 without a table, and a window larger than the image costs no
// more than the image.
// ---------------------------------------------------------------------------

// Internal: the column pass's work, defined with its kernels, and the focus
// stages' nested blur.
struct StackBlurColumns;
class NestedColourBlur;
struct FocusRun;
struct DiffuseArguments;
struct PixelRun;
struct ByteTables;
struct SoftFocusArguments;

// One pass procedure's work. Only the fields a pass reads are filled.
struct StackBlurData {
  uint32_t threadIndex;
  uint32_t rowsPerThread;      // row pass
  uint32_t columnsPerThread;   // column pass
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  // The row pass's results, one 32-bit value (0 .. 255) a pixel, row y at
  // plane + y * width: written by the row pass, read by the column pass.
  int32_t* plane3;             // alpha (byte 3)
  int32_t* plane2;             // byte 2, RGBA passes only
  int32_t* plane1;             // byte 1, RGBA passes only
  int32_t* plane0;             // byte 0, RGBA passes only
  unsigned char* pixels;       // row pass: read; column pass: written
  const unsigned char* sourcePixels;  // column pass, alpha-only mode: colour bytes kept
  // The entering position of every step (see below). Not read: the passes
  // find it from the radius.
  const int32_t* edgeIndex;
  // divideTable[i] = i / (radius+1)^2. Not read: the passes divide their
  // sums exactly without a table, which would outgrow the caches and, beyond
  // radius 2895, the 32-bit index; any radius works.
  const int32_t* divideTable;
};

// The pass procedures: each takes a StackBlurData* and returns null (at once
// when given none). A thread blurs rowsPerThread rows (columnsPerThread
// columns) from threadIndex times that, cut at the end of the image. The
// edgeIndex tables (for a row pass entry x holds min(x + radius + 1,
// width - 1), for a column pass entry y holds min(y + radius + 1, height - 1)
// * width) describe where each step's entering value lies.
KVIMAGE_EXPORT void* StackBlurVertRGBAProc(void* data);
KVIMAGE_EXPORT void* StackBlurVertAlphaProc(void* data);
KVIMAGE_EXPORT void* StackBlurHorizRGBAProc(void* data);
KVIMAGE_EXPORT void* StackBlurHorizAlphaProc(void* data);

// The single-channel passes: the row or the column pass on one plane of
// 32-bit values (one per pixel, 0..255), written as divideTable[sum] into a
// second plane (not the input plane).
struct StackBlurSingleChannelData {
  uint32_t threadIndex;
  uint32_t rowsPerThread;     // StackBlurVertSingleChannelProc
  uint32_t columnsPerThread;  // StackBlurHorizSingleChannelProc
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  const int32_t* input;
  int32_t* output;
  const int32_t* edgeIndex;   // as for the four-channel passes of the same direction
  const int32_t* divideTable;
};

KVIMAGE_EXPORT void* StackBlurVertSingleChannelProc(void* data);
KVIMAGE_EXPORT void* StackBlurHorizSingleChannelProc(void* data);

// Fills the tables of a pass. StackBlurDivideTable (the quotients the passes
// give, for hosts and single-channel users that want the table) throws
// std::bad_alloc for a radius above 2895, where its 32-bit index ends, and for
// a table larger than the machine's memory.
KVIMAGE_EXPORT std::vector<int32_t> StackBlurDivideTable(uint32_t radius);
KVIMAGE_EXPORT void FillStackBlurRowEdgeIndex(int32_t* edgeIndex, uint32_t width, uint32_t radius);
KVIMAGE_EXPORT void FillStackBlurColumnEdgeIndex(int32_t* edgeIndex, uint32_t width, uint32_t height,
                                                 uint32_t radius);

// Channels 3 blurs alpha alone and keeps the render source's colour bytes;
// every other value blurs all four bytes. The two flags are stored and not
// read: the blur always runs in both directions.
class KVIMAGE_EXPORT StackBlurRenderer : public AbstractRenderer {
 public:
  StackBlurRenderer(unsigned int radius, bool horizontal, bool vertical, KVChannelsToProcess channels);
  ~StackBlurRenderer() override {}
  StackBlurRenderer(const StackBlurRenderer&) = delete;
  StackBlurRenderer& operator=(const StackBlurRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  bool AlphaOnly() const { return channels == kChannelsAlpha; }

  uint32_t radius;
  [[maybe_unused]] bool horizontal;
  [[maybe_unused]] bool vertical;
  int channels;  // the KVChannelsToProcess value, kept as given
  // The row pass's results as bytes, four a pixel (alpha alone in the
  // alpha-only mode), and the size of the image they came from (0 x 0 before
  // any Setup); Render renders nothing for images of another size.
  std::vector<unsigned char> rowPassPlane;
  uint32_t setupWidth = 0;
  uint32_t setupHeight = 0;
  // The column pass's kernel, chosen in Setup.
  uint32_t (*columnKernel)(const StackBlurColumns& pass, uint32_t firstColumn, uint32_t endColumn) = nullptr;
};

// ---------------------------------------------------------------------------
// YUV blur: blurs the two chroma bytes of a luma/chroma form of the image
// (bytes: 0 chroma V, 1 chroma U, 2 luma Y, 3 alpha) and converts back.
// ---------------------------------------------------------------------------

typedef std::tr1::shared_ptr<std::vector<unsigned char> > SharedByteArray;
typedef std::tr1::shared_ptr<std::vector<int32_t> > SharedIntArray;

// A conversion share: the byte range GetBufferSizePerThread gives.
struct YUVBlurData {
  unsigned char threadCount;
  unsigned char threadIndex;
  KVAbstractImage* image;  // read by the forward conversion, written by the backward one
  uint32_t byteSize;
  SharedByteArray yuvPixels;
};

// A box pass share.
struct YUVBoxBlurData {
  uint32_t threadCount;
  uint32_t threadIndex;
  SharedByteArray yuvPixels;
  uint32_t height;
  uint32_t width;
  uint32_t radius;
  // The vertical pass runs in two phases: 0 walks the columns a share owns,
  // 1 the extra walk past the share's end (see VerticalYUVBlurProc).
  uint32_t phase;
};

// A chroma stack-blur share.
struct YUVStackBlurData {
  uint32_t threadIndex;
  uint32_t rowsPerThread;
  uint32_t columnsPerThread;
  uint32_t width;
  uint32_t height;
  uint32_t radius;
  SharedIntArray chromaPlane0;
  SharedIntArray chromaPlane1;
  SharedByteArray yuvPixels;
  SharedIntArray edgeIndex;
  const int32_t* divideTable;
};

KVIMAGE_EXPORT void* YUVBlurConvertToProc(void* data);
KVIMAGE_EXPORT void* YUVBlurConvertFromProc(void* data);
KVIMAGE_EXPORT void* HorizontalYUVBlurProc(void* data);
KVIMAGE_EXPORT void* VerticalYUVBlurProc(void* data);
KVIMAGE_EXPORT void* StackBlurVertYUVProc(void* data);
KVIMAGE_EXPORT void* StackBlurHorizYUVProc(void* data);

class KVIMAGE_EXPORT YUVBlurRenderer : public AbstractRenderer {
 public:
  YUVBlurRenderer(unsigned int radius, KVYUVBlurType type);
  ~YUVBlurRenderer() override {}
  YUVBlurRenderer(const YUVBlurRenderer&) = delete;
  YUVBlurRenderer& operator=(const YUVBlurRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  void RunBoxPass(void* (*pass)(void*), uint32_t width, uint32_t height, uint32_t phase);
  void RunStackBlur(uint32_t width, uint32_t height);

  uint32_t radius;
  int blurType;  // the KVYUVBlurType value, kept as given
  SharedByteArray yuvPixels;
  std::vector<unsigned char> chromaRows;  // stack type: the row pass's chroma, two bytes a pixel
};

// ---------------------------------------------------------------------------
// Bounded stack blur: the stack blur inside a rectangle (in image pixels,
// clipped to the image), whose edges act as the image's edges; pixels outside
// it are the source's. horizontal / vertical choose the passes; channels 3
// blurs alpha alone, 4 the colour bytes alone (alpha copied), any other value
// all four bytes. Within `feather` pixels inside a rectangle edge that lies
// inside the image, the output ramps linearly from the source to the blurred
// value (a negative or NaN feather acts as 0: a hard edge).
// ---------------------------------------------------------------------------
class KVIMAGE_EXPORT BoundedStackBlurRenderer : public AbstractRenderer {
 public:
  BoundedStackBlurRenderer(unsigned int radius, bool horizontal, bool vertical, KVChannelsToProcess channels,
                           const kvo::maths::KVRect& rect, double feather);
  ~BoundedStackBlurRenderer() override {}
  BoundedStackBlurRenderer(const BoundedStackBlurRenderer&) = delete;
  BoundedStackBlurRenderer& operator=(const BoundedStackBlurRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  // The weight of the blurred value at a pixel inside the rectangle, 0..1.
  double BlurWeight(uint32_t x, uint32_t y) const;

  uint32_t radius;
  bool horizontal;
  bool vertical;
  int channels;  // the KVChannelsToProcess value, kept as given
  kvo::maths::KVRect rect;
  double feather;

  // From the last Setup: the image size, the clipped rectangle (right and
  // bottom exclusive), the feathered edges and the blurred rectangle, four
  // bytes per pixel.
  uint32_t setupWidth = 0;
  uint32_t setupHeight = 0;
  uint32_t left = 0;
  uint32_t top = 0;
  uint32_t right = 0;
  uint32_t bottom = 0;
  bool featherLeft = false;
  bool featherTop = false;
  bool featherRight = false;
  bool featherBottom = false;
  std::vector<unsigned char> blurred;
  std::vector<unsigned char> rowPassPlane;  // both directions: the row pass's results
};

// ---------------------------------------------------------------------------
// Focus stages. Each runs, in Setup, a nested KVImageProcessor with one
// SetBoundedStackBlur(radius, true, true, kChannelsColor, rect, blurParameter)
// (the nested setter scales the radius by the downsample factor; alpha is
// copied), then combines sharp and blurred pixels per render thread. The
// nested blur serves every radius; a nested render that runs out of memory
// (code 8) throws std::bad_alloc, so the host's render returns 8. Any other
// failed nested setter or render is a broken invariant: the stage prints its
// assertion and aborts. Render
// handles 8-bit images of channel order 1 only and aborts on any other with
// the assertion `false && "Not implemented"'. Each render thread writes the
// byte share GetBufferSizePerThread gives, cut at the end of the images (and
// of the blurred copy).
// ---------------------------------------------------------------------------

// Blurs its input image in place (whole image; the rectangle is 4 x the image
// for kDownsampleQuarter, unscaled otherwise) and then brightens the colour
// bytes through gainCurve[i] = clamp(trunc(i / 255 / (1 - a) * 255)), with a
// = amount limited to 0 .. 0.8 (NaN: 0.8). Alpha is copied. Render applies
// the curve to whatever source it is given: in a pipeline that is the image
// Setup blurred, so a defocus queued first blurs the host's source image.
// Where the processor has AVX-512 VBMI the curve is looked up 64 bytes at a
// time.
class KVIMAGE_EXPORT DefocusRenderer : public AbstractRenderer {
 public:
  DefocusRenderer(unsigned int radius, double amount, double blurParameter, KVDownsampleFactor factor,
                  kvo::KVLookupTables& tables);
  ~DefocusRenderer() override {}
  DefocusRenderer(const DefocusRenderer&) = delete;
  DefocusRenderer& operator=(const DefocusRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  double amount;
  KVDownsampleFactor factor;
  std::tr1::shared_ptr<NestedColourBlur> nestedBlur;  // kept between Setups with its scratch
  unsigned char gainCurve[256];
  size_t (*tablesKernel)(const PixelRun&, const ByteTables&);  // walks the curve, chosen in Setup
};

// Blurs a copy of its input (as the defocus stage blurs) and mixes it into the
// sharp image: colour = BlendPixel(sharp, blurred, kBlendNormal,
// trunc(blurred alpha x amount)); alpha copied from the source. Where the
// processor has AVX-512 VBMI and the amount is within 0 .. 1, sixteen pixels
// at a time (the same bytes).
class KVIMAGE_EXPORT DiffuseRenderer : public AbstractRenderer {
 public:
  DiffuseRenderer(unsigned int radius, double amount, double blurParameter, KVDownsampleFactor factor,
                  kvo::KVLookupTables& tables);
  ~DiffuseRenderer() override {}
  DiffuseRenderer(const DiffuseRenderer&) = delete;
  DiffuseRenderer& operator=(const DiffuseRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  double amount;
  KVDownsampleFactor factor;
  std::tr1::shared_ptr<NestedColourBlur> nestedBlur;  // kept between Setups with its scratch
  std::tr1::shared_ptr<KVAbstractImage> blurredImage;
  int opacityOfAlpha[256];             // trunc(alpha x amount)
  unsigned char opacityBytes[256];     // the same as bytes, for the widest path (amount within 0 .. 1)
  size_t (*kernel)(const FocusRun&, const DiffuseArguments&);  // chosen in Setup
};

// Unsharp mask: blurs a copy of its input (as the diffuse stage does) and maps
// each colour byte s with blurred value b through sharpenTable[s * 256 + b] =
// clamp(trunc(d x amount + s)), where d = s - b, or 0 when |2 (s - b)| is
// below t = trunc(threshold x 255) & 255. Alpha copied from the source.
class KVIMAGE_EXPORT SharpenRenderer : public AbstractRenderer {
 public:
  SharpenRenderer(unsigned int radius, double amount, double threshold, double blurParameter,
                  KVDownsampleFactor factor, kvo::KVLookupTables& tables);
  ~SharpenRenderer() override {}
  SharpenRenderer(const SharpenRenderer&) = delete;
  SharpenRenderer& operator=(const SharpenRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  double amount;
  double threshold;
  KVDownsampleFactor factor;
  std::tr1::shared_ptr<NestedColourBlur> nestedBlur;  // kept between Setups with its scratch
  std::tr1::shared_ptr<KVAbstractImage> blurredImage;
  std::vector<unsigned char> sharpenTable;  // 256 x 256 bytes (64 KiB, so that it stays in the cache)
};

// Blurs a copy of its input inside rect (image pixels, not scaled by the
// factor), mixes it into the sharp image with `mode` weighted by
// trunc(blurred alpha x amount), and lays the result over what the
// destination already holds, the source alpha as coverage: where the combined
// alpha AlphaChannelBlend(destination alpha, source alpha) is 0 the
// destination pixel is left as it is. Where the processor has AVX-512 VBMI and
// the amount is within 0 .. 1, sixteen pixels at a time (the same bytes).
class KVIMAGE_EXPORT SoftFocusRenderer : public AbstractRenderer {
 public:
  SoftFocusRenderer(KVBlendMode mode, unsigned int radius, double amount, const kvo::maths::KVRect& rect,
                    double blurParameter, KVDownsampleFactor factor, kvo::KVLookupTables& tables);
  ~SoftFocusRenderer() override {}
  SoftFocusRenderer(const SoftFocusRenderer&) = delete;
  SoftFocusRenderer& operator=(const SoftFocusRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8_CPP(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

 private:
  KVBlendMode mode;
  double amount;
  kvo::maths::KVRect rect;
  kvo::KVLookupTables& tables;
  std::tr1::shared_ptr<NestedColourBlur> nestedBlur;  // kept between Setups with its scratch
  std::tr1::shared_ptr<KVAbstractImage> blurredImage;
  int opacityOfAlpha[256];          // trunc(alpha x amount)
  unsigned char opacityBytes[256];  // the same as bytes, for the widest path (amount within 0 .. 1)
  size_t (*kernel)(const FocusRun&, const SoftFocusArguments&);  // chosen in Setup
};

// ---------------------------------------------------------------------------
// Depth of field: a lens blur that grows with the distance from a sharp
// region, a disc around `focus` (radial) or a band through it at `angle`
// degrees (linear; 0 a horizontal band, counter-clockwise on screen).
// focusSize is the region's half-size and transition the distance over which
// the blur reaches `radius`, both as fractions of the image diagonal; the
// blur radius follows a smoothstep over the transition. Setup builds bounded
// stack blurs of the rectangle at radius/4, radius/2 and radius (feathered
// by blurParameter pixels at rectangle edges inside the image); Render mixes,
// per pixel, the two levels around the pixel's blur radius (the source is
// level 0) and then mixes the result with the source by amount. All four
// bytes are blurred. Outside bounds (empty: the whole image) the source is
// copied; amount 0 or radius 0 copies the source.
// ---------------------------------------------------------------------------
class KVIMAGE_EXPORT DepthOfFieldRenderer : public AbstractRenderer {
 public:
  DepthOfFieldRenderer(KVDepthOfFieldType type, const kvo::maths::KVPoint2F& focus, double angle,
                       unsigned int radius, double focusSize, double transition, double amount,
                       double blurParameter, const kvo::maths::KVRect& bounds);
  ~DepthOfFieldRenderer() override {}
  DepthOfFieldRenderer(const DepthOfFieldRenderer&) = delete;
  DepthOfFieldRenderer& operator=(const DepthOfFieldRenderer&) = delete;
  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

  // The blur radius, in pixels, at the centre of pixel (x, y) of the image
  // the last Setup was given (0 inside the sharp region).
  double BlurRadiusAt(uint32_t x, uint32_t y) const;

 private:
  int type;  // the KVDepthOfFieldType value, kept as given
  kvo::maths::KVPoint2F focus;
  double angle;
  uint32_t radius;
  double focusSize;
  double transition;
  double amount;
  double blurParameter;
  kvo::maths::KVRect bounds;

  // From the last Setup: the image size, the rectangle clipped to it (right
  // and bottom exclusive), the geometry in pixels, the amount weight
  // (0..256), and the blurred levels in increasing radius, each a whole
  // image.
  uint32_t setupWidth = 0;
  uint32_t setupHeight = 0;
  uint32_t left = 0;
  uint32_t top = 0;
  uint32_t right = 0;
  uint32_t bottom = 0;
  double focusPixels = 0.0;
  double transitionPixels = 0.0;
  double bandSin = 0.0;
  double bandCos = 1.0;
  int amountWeight = 0;
  std::vector<uint32_t> levelRadius;
  std::vector<std::vector<unsigned char> > levels;
  // The bounded blurs behind the levels, kept with their scratch while the
  // radii and the clipped rectangle stay.
  std::vector<std::tr1::shared_ptr<BoundedStackBlurRenderer> > levelBlurs;
  kvo::maths::KVRect levelBlurRect;
};

}  // namespace image
}  // namespace kvo

#endif
