#include <algorithm>
#include <cmath>

#include <kvimage/colour.h>

#include "renderers/colour/Rec601Luma.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

namespace {

// (a * (256 - w) + b * w) / 256, rounded to nearest.
inline int Mix256(int a, int b, int weight) { return (a * (256 - weight) + b * weight + 128) >> 8; }

}  // namespace

// Strengths outside 0 .. 1 (a stage built directly) are clamped, NaN as 0.
VignetteRenderer::VignetteRenderer(const KVPixel8_RGB& colour, double amount, double midpoint, double roundness,
                                   double feather, double highlights, const kvo::maths::KVRect& bounds)
    : m_colour(colour),
      m_amount(UnitStrength(amount)),
      m_midpoint(UnitStrength(midpoint)),
      m_roundness(UnitStrength(roundness)),
      m_feather(UnitStrength(feather)),
      m_highlights(UnitStrength(highlights)),
      m_bounds(bounds) {
  for (int luma = 0; luma < 256; ++luma) {
    m_protection[luma] = TruncateToInt((1.0 - m_highlights * luma / 255.0) * 256.0);
  }
}

VignetteRenderer::~VignetteRenderer() {}

unsigned int VignetteRenderer::Type() const { return 0; }

// The frame's half-axes: the rectangle's half-width and half-height at
// roundness 0, both the smaller of the two at roundness 1. Each column and row
// keeps its squared offset from the centre in half-axes, measured at the pixel
// centre, so mirrored pixels get exactly the same distance.
void VignetteRenderer::Setup(KVAbstractImage* source) {
  const unsigned int width = source->Width(), height = source->Height();
  double left = 0.0, top = 0.0, frameWidth = width, frameHeight = height;
  if (m_bounds.Width() > 0 && m_bounds.Height() > 0) {
    left = m_bounds.TopLeft().X();
    top = m_bounds.TopLeft().Y();
    frameWidth = m_bounds.Width();
    frameHeight = m_bounds.Height();
  }
  const double halfWidth = frameWidth / 2.0, halfHeight = frameHeight / 2.0;
  const double circle = std::min(halfWidth, halfHeight);
  const double axisX = halfWidth + (circle - halfWidth) * m_roundness;
  const double axisY = halfHeight + (circle - halfHeight) * m_roundness;
  const double centreX = left + halfWidth, centreY = top + halfHeight;
  m_columnTerm.assign(width, 0.0);
  m_rowTerm.assign(height, 0.0);
  if (axisX <= 0.0 || axisY <= 0.0) return;  // an empty image
  for (unsigned int x = 0; x < width; ++x) {
    const double offset = (x + 0.5 - centreX) / axisX;
    m_columnTerm[x] = offset * offset;
  }
  for (unsigned int y = 0; y < height; ++y) {
    const double offset = (y + 0.5 - centreY) / axisY;
    m_rowTerm[y] = offset * offset;
  }
}

// 0 up to the midpoint, then amount * smoothstep((d - midpoint) / feather),
// and amount from d = midpoint + feather on (decided on s, which spares most
// pixels the square root).
int VignetteRenderer::WeightAt(double s) const {
  const double full = m_midpoint + m_feather;
  if (s >= full * full) return TruncateToInt(m_amount * 256.0);
  const double d = std::sqrt(s);
  if (!(d > m_midpoint)) return 0;
  double u = 1.0;
  if (m_feather > 0.0) u = std::min(1.0, (d - m_midpoint) / m_feather);
  return TruncateToInt(m_amount * (u * u * (3.0 - 2.0 * u)) * 256.0);
}

int VignetteRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                             unsigned char threadCount) {
  if (source->BitsPerChannel() != 0) return static_cast<int>(source->BitsPerChannel());
  return Render8(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

int VignetteRenderer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                              unsigned char threadCount) {
  const unsigned int width = source->Width();
  // Only the image Setup measured.
  if (width != m_columnTerm.size() || source->Height() != m_rowTerm.size()) return 0;
  const ShareRun share = PixelShare(width, source->Height(), threadIndex, threadCount,
                                    CommonByteSize(source, destination) / kBytesPerPixel);
  if (share.count == 0) return 0;
  const ChannelBytes at = ChannelBytesOf(source);
  const unsigned char* in = PixelBytes(source) + share.start * kBytesPerPixel;
  unsigned char* out = PixelBytes(destination) + share.start * kBytesPerPixel;
  // Pixels at or inside the midpoint are copied without a square root.
  const double untouched = m_amount > 0.0 ? m_midpoint * m_midpoint : HUGE_VAL;
  unsigned int x = static_cast<unsigned int>(share.start % width);
  unsigned int y = static_cast<unsigned int>(share.start / width);
  for (size_t i = 0; i < share.count * kBytesPerPixel; i += kBytesPerPixel) {
    const double s = m_columnTerm[x] + m_rowTerm[y];
    const int red = in[i + at.red], green = in[i + at.green], blue = in[i + at.blue];
    const unsigned char alpha = in[i + at.alpha];
    const int weight = s <= untouched ? 0 : WeightAt(s);
    if (weight == 0) {
      out[i + at.red] = static_cast<unsigned char>(red);
      out[i + at.green] = static_cast<unsigned char>(green);
      out[i + at.blue] = static_cast<unsigned char>(blue);
    } else {
      const int opacity = (weight * m_protection[Rec601Luma(red, green, blue)]) >> 8;
      out[i + at.red] = static_cast<unsigned char>(Mix256(red, m_colour.red, opacity));
      out[i + at.green] = static_cast<unsigned char>(Mix256(green, m_colour.green, opacity));
      out[i + at.blue] = static_cast<unsigned char>(Mix256(blue, m_colour.blue, opacity));
    }
    out[i + at.alpha] = alpha;
    if (++x == width) {
      x = 0;
      ++y;
    }
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
