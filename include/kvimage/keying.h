#ifndef KVIMAGE_KEYING_H
#define KVIMAGE_KEYING_H

#include <cstddef>
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

struct KeyAlphaRun;

// Statistics of one matte thread over its key pixels (pixels whose key byte is
// strictly the largest): their number, the sum, smallest and largest of their
// raw colour differences. count and sum wrap modulo 2^32 instead of
// overflowing.
struct MatteInfo {
  int32_t count;
  int32_t sum;
  int32_t minimum;
  int32_t maximum;
};

// One matte thread's work. matte holds one byte per pixel of image and
// matteInfo threadCount elements; the thread writes its own run of matte bytes
// and matteInfo[threadIndex] only.
struct AutoColorDifferenceData {
  unsigned char threadIndex;
  KVImage8* image;
  std::tr1::shared_ptr<unsigned char> matte;
  std::tr1::shared_ptr<MatteInfo> matteInfo;
  KVKeyColor keyColor;
  double saturationLimit;
  double saturationSoftness;
  unsigned char threadCount;
};

// One detection thread's work and its counts: greenCount pixels whose byte 1
// is at least bytes 0 and 2, blueCount pixels whose byte 0 is strictly the
// largest, otherCount the rest. bufferSize is Width * Height * 4.
struct AutoDetectKeyColorData {
  unsigned char threadIndex;
  unsigned char threadCount;
  KVImage8* image;
  uint32_t bufferSize;
  uint32_t otherCount;
  uint32_t greenCount;
  uint32_t blueCount;
};

// Pulls a colour-difference key. Setup detects the key colour when none was
// given, computes one matte byte per pixel (how far the key byte exceeds the
// other two, weakened for pixels of low chroma) on its own threads, and
// derives two thresholds from the key pixels: the smallest difference, and a
// point between the middle of the difference range and its mean chosen by
// balance. Render scales each pixel's alpha by how far its matte lies between
// the thresholds (none at or below the lower, fully transparent at or above
// the upper) and copies the colour bytes.
class KVIMAGE_EXPORT ColorDifferenceKeyer : public AbstractRenderer {
 public:
  ColorDifferenceKeyer(KVKeyColor keyColor, double balance, double saturationLimit, double saturationSoftness,
                       kvo::KVLookupTables& tables);
  ~ColorDifferenceKeyer() override {}
  ColorDifferenceKeyer(const ColorDifferenceKeyer&) = delete;
  ColorDifferenceKeyer& operator=(const ColorDifferenceKeyer&) = delete;

  unsigned int Type() const override { return 1; }
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount);

  // What the last Setup settled on (before any Setup: the colour asked for,
  // and thresholds that leave every alpha as it is).
  KVKeyColor EffectiveKeyColor() const { return m_effectiveKeyColor; }
  double LowThreshold() const { return m_lowThreshold; }
  double HighThreshold() const { return m_highThreshold; }

 private:
  KVKeyColor m_keyColor;
  double m_balance;
  double m_saturationLimit;
  double m_saturationSoftness;
  KVKeyColor m_effectiveKeyColor;
  kvo::KVLookupTables& m_tables;
  std::vector<unsigned char> m_matte;  // one byte per pixel of the last Setup's image
  std::vector<unsigned char> m_spareMatte;  // the one before, its memory reused by the next Setup
  double m_lowThreshold;
  double m_highThreshold;
  unsigned char m_alphaWeight[256];  // 255 - transparency factor, by matte value
  size_t (*m_keyAlphas)(const KeyAlphaRun&);  // Render8's kernel, chosen in Setup
};

// Decides between green (1) and blue (2) on threadCount threads (at most 255;
// none for 0 or less): blue when strictly more pixels are blue-dominated than
// green-dominated, else green (so an empty image gives green).
KVIMAGE_EXPORT void AutoDetectKeyColor(KVImage8* image, int threadCount, KVKeyColor* result);
// The detection thread: takes an AutoDetectKeyColorData*, returns null.
KVIMAGE_EXPORT void* AutoDetectKeyColorProc(void* data);
// The matte thread: takes an AutoColorDifferenceData*, returns null.
KVIMAGE_EXPORT void* AutoColorDifferenceMatteProc(void* data);

// ---------------------------------------------------------------------------
// Spill suppression and matte clean-up (alpha crop, white erode)
// ---------------------------------------------------------------------------

// Internal: what the spill suppressor's kernels read (defined with them).
struct SpillArguments;

// Pulls the key colour's cast off the foreground. Standard and extended move
// the key byte towards the other channels by s = trunc(255 * amount) / 256,
// with an arithmetic shift, so a downward move at full strength reaches its
// target and an upward one stops one short. Advanced adds a weighted spill
// value to each colour byte. Alpha is copied; the channel order is not
// consulted.
class KVIMAGE_EXPORT SpillSuppressor : public AbstractRenderer {
 public:
  SpillSuppressor(KVChannel channel, KVSpillType spillType, double amount, double redFactor, double greenFactor,
                  double blueFactor, double referenceFactor);
  ~SpillSuppressor() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage* source) override;
  // Returns the source's depth code when it is not 8-bit.
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int RenderSpillStandard(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                          unsigned char threadCount);
  int RenderSpillExtended(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                          unsigned char threadCount);
  int RenderSpillAdvanced(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                          unsigned char threadCount);

 private:
  SpillArguments KernelArguments() const;
  int RenderMethod(KVSpillType method, KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                   unsigned char threadCount);

  KVChannel m_channel;
  KVSpillType m_spillType;
  double m_amount;
  double m_redFactor;
  double m_greenFactor;
  double m_blueFactor;
  double m_referenceFactor;
  // The advanced method tabulated at construction: the spill for each (key,
  // reference) pair, then blue, green and red for each (spill, byte) pair.
  std::vector<unsigned char> m_advancedTables;
  // The plain kernel of the stage's method and key channel, and the one
  // Setup chose for the processor (the plain kernel finishes its tail).
  size_t (*m_plainKernel)(const unsigned char*, unsigned char*, size_t, const SpillArguments&);
  size_t (*m_kernel)(const unsigned char*, unsigned char*, size_t, const SpillArguments&);
};

// A garbage matte: alpha is kept only strictly inside the rectangle
// left < x < W - right, top < y < H - bottom, edges in pixels truncated from
// the fractions; elsewhere alpha is 0. Colour is copied.
class KVIMAGE_EXPORT AlphaCrop : public AbstractRenderer {
 public:
  AlphaCrop(double left, double top, double right, double bottom);
  ~AlphaCrop() override {}
  unsigned int Type() const override { return 0; }
  void Setup(KVAbstractImage*) override {}
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  double m_left;
  double m_top;
  double m_right;
  double m_bottom;
};

// The work of one thread of a white-erode pass. The horizontal pass reads
// bufferA and writes the alpha of bufferB; the vertical pass reads bufferB and
// writes bufferA. Both buffers hold width x height pixels; the pass writes
// bufferA only below bufferALimit bytes. scratch, when not null, holds
// WhiteErodeScratchBytes(line length, lines of the thread) bytes for the
// pass's own use; otherwise the pass allocates it. If that fails, the
// horizontal pass exits with code 8 and the vertical one scans each window
// in place instead (slowly, but it still writes all its columns).
struct KVIMAGE_EXPORT ErodeWhiteData {
  unsigned int threadIndex;
  unsigned int rowsPerThread;
  unsigned int columnsPerThread;
  unsigned int width;
  unsigned int height;
  unsigned char* bufferA;
  unsigned char* bufferB;
  int64_t window;  // 2 * size + 1
  KVWhiteErodeDirection direction;
  size_t bufferALimit;
  unsigned char* scratch;
};

// The scratch bytes one thread needs to erode lineCount lines of lineLength
// pixels (rows in the horizontal pass, columns in the vertical one); enough
// for either pass whatever the line count.
KVIMAGE_EXPORT size_t WhiteErodeScratchBytes(size_t lineLength, size_t lineCount);

// The horizontal pass over rows threadIndex * rowsPerThread onwards, and the
// vertical pass over columns threadIndex * columnsPerThread onwards. Each takes
// an ErodeWhiteData*, returns at once for null, and exits with 0, or (the
// horizontal pass) 8 when it could not allocate its scratch.
KVIMAGE_EXPORT void* HorizErodeWhiteProc(void* data);
KVIMAGE_EXPORT void* VertErodeWhiteProc(void* data);

// Shrinks the opaque part of the matte: each alpha becomes the minimum over a
// window of 2 * size + 1 values kept in a ring that starts full of 255.
// Direction 0 centres the window, erodes the rows in Setup (on threads of its
// own) and the columns in Render; there the pixel size - 1 of each line never
// enters the ring. Direction 1 takes the pixel and those to its left,
// direction 2 (and any other value) the pixel and those to its right, with 255
// in place of pixel 0; both erode rows only and Render copies. Pixels beyond
// the line count as 255. A negative size acts as 0.
class KVIMAGE_EXPORT WhiteErodeRenderer : public AbstractRenderer {
 public:
  WhiteErodeRenderer(KVWhiteErodeDirection direction, int size);
  ~WhiteErodeRenderer() override {}
  unsigned int Type() const override { return 0; }
  // Makes the horizontally eroded copy of the source that Render reads.
  void Setup(KVAbstractImage* source) override;
  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override;
  // Renders nothing until Setup has run.
  int Render8(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
              unsigned char threadCount);

 private:
  KVWhiteErodeDirection m_direction;
  int64_t m_window;
  std::tr1::shared_ptr<KVImage8> m_intermediate;
  // The passes' kernels, chosen in Setup.
  size_t (*m_extractAlphas)(const unsigned char* pixels, size_t count, unsigned char* alphas);
  size_t (*m_mergeAlphas)(const unsigned char* colours, const unsigned char* alphas, size_t count, unsigned char* out);
  size_t (*m_minima)(unsigned char* values, const unsigned char* later, size_t count);
  size_t (*m_leastAlphas)(const unsigned char* const* rows, size_t rowCount, const unsigned char* colours,
                          size_t count, unsigned char* out);
};

// ---------------------------------------------------------------------------

}  // namespace image
}  // namespace kvo

#endif
