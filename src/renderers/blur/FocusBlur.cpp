#include "renderers/blur/FocusBlur.h"

#include <kvimage/blur.h>
#include <kvimage/image.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

kvo::maths::KVRect WholeImageBlurRect(const KVAbstractImage* image, KVDownsampleFactor factor) {
  kvo::maths::KVRect rect(kvo::maths::KVPoint2(0, 0), static_cast<int>(image->Width()),
                          static_cast<int>(image->Height()));
  // Only the quarter factor scales the rectangle; half and third leave it as
  // it is. Either way it covers the image, whose bounds clip it.
  rect.Scale(factor == kDownsampleQuarter ? 4.0 : 1.0);
  return rect;
}

NestedColourBlur::NestedColourBlur(kvo::KVLookupTables& tables, KVDownsampleFactor factor, unsigned int radius,
                                   double blurParameter)
    : m_processor(kFrontEndProcessor, nullptr, nullptr, tables, factor),
      m_radius(radius),
      m_blurParameter(blurParameter),
      m_queued(false) {}

void NestedColourBlur::Run(KVAbstractImage* image, KVAbstractImage* destination, const kvo::maths::KVRect& rect,
                           const FocusAssertionSites& sites) {
  if (!m_queued || !SameRect(rect, m_queuedRect)) {
    m_processor.queue.Clear();
    m_queued = false;
    const int queued = m_processor.Refused("SetBoundedStackBlur", {0, 1.0, 1.0});
    AssertAt(queued == 0, sites.setter);
    m_processor.Append(new BoundedStackBlurRenderer(m_processor.ScaledRadius(m_radius), true, true, kChannelsColor,
                                                    rect, m_blurParameter));
    m_queued = true;
    m_queuedRect = rect;
  }
  m_processor.source = image;
  m_processor.destination = destination;
  const int rendered = m_processor.Render();
  // Every radius is served, so the nested render fails only when memory runs
  // out (code 8): that is the stage's own allocation failure and leaves it as
  // one, for the pipeline to report. Any other failure is a broken invariant.
  if (rendered == kResultOutOfMemory) throw std::bad_alloc();
  AssertAt(rendered == 0, sites.render);
}

void NestedColourBlur::RunIntoCopy(std::tr1::shared_ptr<KVAbstractImage>& copy, KVAbstractImage* image,
                                   const kvo::maths::KVRect& rect, const FocusAssertionSites& sites) {
  if (!copy || copy->Width() != image->Width() || copy->Height() != image->Height() ||
      copy->PixelChannelOrder() != image->PixelChannelOrder()) {
    copy.reset(new KVImage8(image->Width(), image->Height(), image->PixelChannelOrder(), false));
  }
  // The copy is always the stage's own KVImage8. The blur writes every byte
  // of it when it can read the whole image; otherwise it writes none, and the
  // stage's pass reads zeros.
  const size_t imageBytes = static_cast<size_t>(image->Width()) * image->Height() * kBytesPerPixel;
  if (image->BitsPerChannel() != 0 || image->BufferByteSize() < imageBytes) {
    KVImage8* ours = static_cast<KVImage8*>(copy.get());
    if (ours->BufferByteSize() != 0) std::memset(ours->Buffer(), 0, ours->BufferByteSize());
  }
  Run(image, copy.get(), rect, sites);
}

size_t FocusByteLimit(const KVAbstractImage* source, const KVAbstractImage* destination,
                      const KVAbstractImage* blurred) {
  if (blurred == nullptr) return 0;
  return std::min(CommonByteSize(source, destination), static_cast<size_t>(blurred->BufferByteSize()));
}

void FillBlendOpacities(int (&opacityOfAlpha)[256], unsigned char (&opacityBytes)[256], double amount) {
  for (int alpha = 0; alpha < 256; ++alpha) {
    opacityOfAlpha[alpha] = TruncateToInt(alpha * amount);
    opacityBytes[alpha] = static_cast<unsigned char>(opacityOfAlpha[alpha]);
  }
}

bool OpacitiesAreBytes(const int (&opacityOfAlpha)[256]) {
  return std::all_of(opacityOfAlpha, opacityOfAlpha + 256,
                     [](int opacity) { return opacity >= 0 && opacity <= 255; });
}

}  // namespace image
}  // namespace kvo
