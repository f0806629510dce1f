#include <cstdint>
#include <cstring>
#include <new>

#include <kvimage/image.h>

#include "support/AssertionSites.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

struct KVImage8_Private {
  bool ownsBuffer;
  unsigned char* buffer;
  unsigned int width;
  unsigned int height;
  unsigned int bitsPerChannel;
  KVPixelChannelOrder channelOrder;
  unsigned int rowBytes;
  unsigned int bufferSize;
  unsigned int bufferByteSize;

  KVImage8_Private(bool owns, unsigned char* pixels, unsigned int w, unsigned int h, KVPixelChannelOrder order)
      : ownsBuffer(owns),
        buffer(pixels),
        width(w),
        height(h),
        bitsPerChannel(0),
        channelOrder(order),
        rowBytes(w * kBytesPerPixel),
        bufferSize(w * h * kBytesPerPixel),
        bufferByteSize(w * h * kBytesPerPixel) {}
};

KVAbstractImage::~KVAbstractImage() {}

KVImage8::KVImage8(unsigned char* buffer, unsigned int width, unsigned int height, KVPixelChannelOrder order)
    : m_private(new KVImage8_Private(false, buffer, width, height, order)) {}

namespace {
// An image whose byte count does not fit the 32-bit sizes would be addressed
// through wrapped sizes; refuse it as an allocation that cannot succeed.
unsigned char* AllocatePixels(unsigned int width, unsigned int height, bool clear) {
  const uint64_t bytes = static_cast<uint64_t>(width) * height * kBytesPerPixel;
  if (bytes > UINT32_MAX) throw std::bad_alloc();
  unsigned char* pixels = new unsigned char[bytes];
  if (clear) std::memset(pixels, 0, bytes);
  return pixels;
}
}  // namespace

KVImage8::KVImage8(unsigned int width, unsigned int height, KVPixelChannelOrder order, bool clear) : m_private(nullptr) {
  unsigned char* pixels = AllocatePixels(width, height, clear);
  try {
    m_private = new KVImage8_Private(true, pixels, width, height, order);
  } catch (...) {
    delete[] pixels;
    throw;
  }
}

KVImage8::~KVImage8() {
  if (m_private->ownsBuffer && m_private->buffer != nullptr) delete[] m_private->buffer;
  delete m_private;
}

KVPixelChannelOrder KVImage8::PixelChannelOrder() const { return m_private->channelOrder; }
unsigned int KVImage8::BitsPerChannel() const { return m_private->bitsPerChannel; }
unsigned int KVImage8::Width() const { return m_private->width; }
unsigned int KVImage8::Height() const { return m_private->height; }
unsigned int KVImage8::BufferSize() const { return m_private->bufferSize; }
unsigned int KVImage8::BufferByteSize() const { return m_private->bufferByteSize; }
unsigned char* KVImage8::Buffer() { return m_private->buffer; }
const unsigned char* KVImage8::Buffer() const { return m_private->buffer; }

unsigned char* KVImage8::ScanLine(unsigned int row) {
  return const_cast<unsigned char*>(static_cast<const KVImage8*>(this)->ScanLine(row));
}

const unsigned char* KVImage8::ScanLine(unsigned int row) const {
  AssertAt(row < Height(), kAssertScanLine);
  return m_private->buffer + static_cast<size_t>(row) * m_private->rowBytes;
}

std::tr1::shared_ptr<KVAbstractImage> CreateImage(unsigned char* buffer, unsigned int width, unsigned int height,
                                                  KVPixelChannelOrder order) {
  return std::tr1::shared_ptr<KVAbstractImage>(new KVImage8(buffer, width, height, order));
}

}  // namespace image
}  // namespace kvo
