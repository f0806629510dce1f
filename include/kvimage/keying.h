#ifndef KVIMAGE_KEYING_H
#define KVIMAGE_KEYING_H

#include <cstddef>
#include <cstdint>
#include <tr1/memory>

#include <kvimage/export.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/support.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

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
  ~ColorDifferenceKeyer() override;
  ColorDifferenceKeyer(const ColorDifferenceKeyer&) = delete;
  ColorDifferenceKeyer& operator=(const ColorDifferenceKeyer&) = delete;

  unsigned int Type() const override;
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
  std::tr1::shared_ptr<unsigned char> m_matte;
  std::tr1::shared_ptr<MatteInfo> m_matteInfo;
  double m_lowThreshold;
  double m_highThreshold;
  size_t m_mattePixels;              // bytes in m_matte
  unsigned char m_alphaWeight[256];  // 255 - transparency factor, by matte value
};

// Decides between green (1) and blue (2) on threadCount threads (at most 255;
// none for 0 or less): blue when strictly more pixels are blue-dominated than
// green-dominated, else green (so an empty image gives green).
KVIMAGE_EXPORT void AutoDetectKeyColor(KVImage8* image, int threadCount, KVKeyColor* result);
// The detection thread: takes an AutoDetectKeyColorData*, returns null.
KVIMAGE_EXPORT void* AutoDetectKeyColorProc(void* data);
// The matte thread: takes an AutoColorDifferenceData*, returns null.
KVIMAGE_EXPORT void* AutoColorDifferenceMatteProc(void* data);

}  // namespace image
}  // namespace kvo

#endif
