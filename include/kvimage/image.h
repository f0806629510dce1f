#ifndef KVIMAGE_IMAGE_H
#define KVIMAGE_IMAGE_H

#include <tr1/memory>

#include <kvimage/export.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

// A packed, row-major image of four channels per pixel with no row padding.
class KVIMAGE_EXPORT KVAbstractImage {
 public:
  virtual ~KVAbstractImage();
  virtual KVPixelChannelOrder PixelChannelOrder() const = 0;
  // 0 means 8 bits per channel, the only depth this library produces.
  virtual unsigned int BitsPerChannel() const = 0;
  virtual unsigned int Width() const = 0;
  virtual unsigned int Height() const = 0;
  // Channel elements in the buffer.
  virtual unsigned int BufferSize() const = 0;
  virtual unsigned int BufferByteSize() const = 0;
};

struct KVImage8_Private;

// The 8-bit image: width x height pixels of four bytes. Sizes are 32-bit and
// computed once at construction.
class KVIMAGE_EXPORT KVImage8 : public KVAbstractImage {
 public:
  // Wraps the caller's buffer, which must hold width * height * 4 bytes and
  // outlive the image. Nothing is copied or cleared.
  KVImage8(unsigned char* buffer, unsigned int width, unsigned int height, KVPixelChannelOrder order);
  // Allocates width * height * 4 bytes, zero-filled when clear is true. Throws
  // std::bad_alloc when the memory cannot be had or the byte count does not
  // fit in 32 bits.
  KVImage8(unsigned int width, unsigned int height, KVPixelChannelOrder order, bool clear);
  ~KVImage8() override;
  KVImage8(const KVImage8&) = delete;
  KVImage8& operator=(const KVImage8&) = delete;

  KVPixelChannelOrder PixelChannelOrder() const override;
  unsigned int BitsPerChannel() const override;
  unsigned int Width() const override;
  unsigned int Height() const override;
  unsigned int BufferSize() const override;
  unsigned int BufferByteSize() const override;

  unsigned char* Buffer();
  const unsigned char* Buffer() const;
  // The first byte of a row; a row index not below Height() is a fatal
  // programming error.
  unsigned char* ScanLine(unsigned int row);
  const unsigned char* ScanLine(unsigned int row) const;

 private:
  KVImage8_Private* m_private;
};

typedef std::tr1::shared_ptr<KVAbstractImage> KVAbstractImagePtr;

// A shared pointer owning a new KVImage8 that wraps (does not own) buffer.
KVIMAGE_EXPORT std::tr1::shared_ptr<KVAbstractImage> CreateImage(unsigned char* buffer, unsigned int width,
                                                                 unsigned int height, KVPixelChannelOrder order);

// True when width, height, channel order and depth are all equal.
KVIMAGE_EXPORT bool DoKVAbstractImagesMatch(const KVAbstractImage* a, const KVAbstractImage* b);
KVIMAGE_EXPORT bool DoKVAbstractImagesMatch(const std::tr1::shared_ptr<KVAbstractImage>& a,
                                            const std::tr1::shared_ptr<KVAbstractImage>& b);

// Copies every pixel: 1000 when the images do not match, 10 when the source is
// not 8-bit, else 0.
KVIMAGE_EXPORT int CopyPixels(std::tr1::shared_ptr<KVAbstractImage> source,
                              std::tr1::shared_ptr<KVAbstractImage> destination);

// One thread's share of width * height pixels as a contiguous run: every thread
// but the last gets ceil(total / threadCount), the last what remains. The
// arithmetic is 32-bit and unguarded: with more threads than pixels the last
// count wraps. The stages cut every share at the end of the image.
KVIMAGE_EXPORT void GetPixelsPerThread(unsigned int width, unsigned int height, unsigned char threadIndex,
                                       unsigned char threadCount, unsigned long& start, unsigned long& count);
// The same share in bytes (four per pixel).
KVIMAGE_EXPORT void GetBufferSizePerThread(unsigned int width, unsigned int height, unsigned char threadIndex,
                                           unsigned char threadCount, unsigned long& start, unsigned long& count);

}  // namespace image
}  // namespace kvo

namespace kvtl {
namespace image {

// As CopyPixels, copying the source's BufferSize() bytes.
KVIMAGE_EXPORT int CopyImagePixels(kvo::image::KVAbstractImage* source, kvo::image::KVAbstractImage* destination);

}  // namespace image
}  // namespace kvtl

#endif
