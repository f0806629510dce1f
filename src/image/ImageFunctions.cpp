#include <cstring>

#include <kvimage/image.h>
#include <kvimage/types.h>

namespace kvo {
namespace image {

double DownsampleValue(KVDownsampleFactor factor) {
  switch (static_cast<int>(factor)) {
    case 0:
      return 1.0;
    case 1:
      return 0.5;
    case 2:
      return 0.33;
    default:
      return 0.25;
  }
}

unsigned int NumberOfChannels(KVPixelChannelOrder) { return 4; }

bool DoKVAbstractImagesMatch(const KVAbstractImage* a, const KVAbstractImage* b) {
  return a->Width() == b->Width() && a->Height() == b->Height() && a->PixelChannelOrder() == b->PixelChannelOrder() &&
         a->BitsPerChannel() == b->BitsPerChannel();
}

bool DoKVAbstractImagesMatch(const std::tr1::shared_ptr<KVAbstractImage>& a,
                             const std::tr1::shared_ptr<KVAbstractImage>& b) {
  return DoKVAbstractImagesMatch(a.get(), b.get());
}

// Shared by CopyPixels and CopyImagePixels, which differ only in the count.
static int CopyMatchingPixels(KVAbstractImage* source, KVAbstractImage* destination, size_t byteCount) {
  if (!DoKVAbstractImagesMatch(source, destination)) return kResultImagesDoNotMatch;
  if (source->BitsPerChannel() != 0) return kResultUnsupportedFormat;
  if (byteCount != 0) {
    std::memmove(static_cast<KVImage8*>(destination)->Buffer(), static_cast<KVImage8*>(source)->Buffer(), byteCount);
  }
  return 0;
}

int CopyPixels(std::tr1::shared_ptr<KVAbstractImage> source, std::tr1::shared_ptr<KVAbstractImage> destination) {
  return CopyMatchingPixels(source.get(), destination.get(),
                            static_cast<size_t>(source->Width() * source->Height() * 4u));
}

}  // namespace image
}  // namespace kvo

namespace kvtl {
namespace image {

int CopyImagePixels(kvo::image::KVAbstractImage* source, kvo::image::KVAbstractImage* destination) {
  return kvo::image::CopyMatchingPixels(source, destination, source->BufferSize());
}

}  // namespace image
}  // namespace kvtl
