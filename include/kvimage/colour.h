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

}  // namespace image
}  // namespace kvo

#endif
