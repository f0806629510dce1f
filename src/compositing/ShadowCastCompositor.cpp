#include <kvimage/compositing.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "compositing/BlendOperations.h"
#include "renderers/blur/StackBlurPasses.h"
#include "support/Conversions.h"
#include "support/ParallelPass.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

namespace {

// The perspective transform of the shadow, solved once per Setup. The forward
// map takes the unit square onto the quadrilateral:
//   x = (a u + b v + c) / (g u + h v + 1),  y = (d u + e v + f) / (g u + h v + 1)
// with (0,0), (1,0), (1,1), (0,1) going to the top-left, top-right,
// bottom-right and bottom-left corners; `inverse` is its adjugate, which maps
// a background point back to (u, v) up to a common factor. (u, v) is then the
// normalised position within the bounds: x = left + u * width.
struct ShadowTransform {
  double forward[3][3];
  double inverse[3][3];
};

double Cross(double ax, double ay, double bx, double by) { return ax * by - ay * bx; }

bool AllFinite(const double (&m)[3][3]) {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) {
      if (!std::isfinite(m[r][c])) return false;
    }
  }
  return true;
}

// Solves the transform of a strictly convex quadrilateral (either winding, so
// a mirrored shadow is fine). Anything else is degenerate: the map would fold
// the bounds through infinity or squash them onto a line.
bool SolveShadowTransform(const kvo::maths::KVQuad& quad, ShadowTransform& transform) {
  const kvo::maths::KVPoint2F corners[4] = {quad.TopLeft(), quad.TopRight(), quad.BottomRight(), quad.BottomLeft()};
  double x[4], y[4];
  for (int i = 0; i < 4; ++i) {
    x[i] = corners[i].X();
    y[i] = corners[i].Y();
    if (!std::isfinite(x[i]) || !std::isfinite(y[i])) return false;
  }
  bool positive = true, negative = true;
  for (int i = 0; i < 4; ++i) {
    const int j = (i + 1) % 4, k = (i + 2) % 4;
    const double turn = Cross(x[j] - x[i], y[j] - y[i], x[k] - x[j], y[k] - y[j]);
    positive = positive && turn > 0.0;
    negative = negative && turn < 0.0;
  }
  if (!positive && !negative) return false;

  // The square-to-quadrilateral map in closed form.
  const double sx = x[0] - x[1] + x[2] - x[3], sy = y[0] - y[1] + y[2] - y[3];
  const double dx1 = x[1] - x[2], dx2 = x[3] - x[2], dy1 = y[1] - y[2], dy2 = y[3] - y[2];
  const double denominator = Cross(dx1, dy1, dx2, dy2);
  if (!(denominator != 0.0)) return false;
  const double g = Cross(sx, sy, dx2, dy2) / denominator;
  const double h = Cross(dx1, dy1, sx, sy) / denominator;
  double(&m)[3][3] = transform.forward;
  m[0][0] = x[1] - x[0] + g * x[1];
  m[0][1] = x[3] - x[0] + h * x[3];
  m[0][2] = x[0];
  m[1][0] = y[1] - y[0] + g * y[1];
  m[1][1] = y[3] - y[0] + h * y[3];
  m[1][2] = y[0];
  m[2][0] = g;
  m[2][1] = h;
  m[2][2] = 1.0;

  double(&i)[3][3] = transform.inverse;
  i[0][0] = m[1][1] * m[2][2] - m[1][2] * m[2][1];
  i[0][1] = m[0][2] * m[2][1] - m[0][1] * m[2][2];
  i[0][2] = m[0][1] * m[1][2] - m[0][2] * m[1][1];
  i[1][0] = m[1][2] * m[2][0] - m[1][0] * m[2][2];
  i[1][1] = m[0][0] * m[2][2] - m[0][2] * m[2][0];
  i[1][2] = m[0][2] * m[1][0] - m[0][0] * m[1][2];
  i[2][0] = m[1][0] * m[2][1] - m[1][1] * m[2][0];
  i[2][1] = m[0][1] * m[2][0] - m[0][0] * m[2][1];
  i[2][2] = m[0][0] * m[1][1] - m[0][1] * m[1][0];
  return AllFinite(m) && AllFinite(i) && i[2][2] != 0.0;
}

// Everything the fill pass reads.
struct ShadowFill {
  ShadowTransform transform;
  // The bounds (left, top, size) and the part of them the layer covers,
  // [sampleLeft, sampleRight) x [sampleTop, sampleBottom).
  double boundsLeft;
  double boundsTop;
  double boundsWidth;
  double boundsHeight;
  int64_t sampleLeft;
  int64_t sampleTop;
  int64_t sampleRight;
  int64_t sampleBottom;
  const unsigned char* layerPixels;
  int64_t layerWidth;
  bool fade;
  // The background pixels that can receive any shadow, [left, right) x [top, bottom).
  uint32_t reachLeft;
  uint32_t reachTop;
  uint32_t reachRight;
  uint32_t reachBottom;
  // The plane: the background pixels from (planeLeft, planeTop), planeWidth a row.
  uint32_t planeLeft;
  uint32_t planeTop;
  uint32_t planeWidth;
  int32_t* plane;
};

// The layer's alpha at (column, row), 0 outside the sampled area.
inline double SampledAlpha(const ShadowFill& fill, int64_t column, int64_t row) {
  if (column < fill.sampleLeft || column >= fill.sampleRight || row < fill.sampleTop || row >= fill.sampleBottom) {
    return 0.0;
  }
  return fill.layerPixels[(row * fill.layerWidth + column) * kBytesPerPixel + kAlphaByte];
}

// floor(value) for a value above -1 (0 .. -1 round down to -1) without a
// library call.
inline int64_t FloorAboveMinusOne(double value) { return TruncateToInt64(value) - (value < 0.0 ? 1 : 0); }

// The shadow alpha of the background pixel whose centre is (px, py), given
// the terms of the inverse map that depend on the row alone.
inline int32_t ShadowAlphaAt(const ShadowFill& fill, double px, const double (&rowTerms)[3]) {
  const double(&inv)[3][3] = fill.transform.inverse;
  const double reciprocal = 1.0 / (inv[2][0] * px + rowTerms[2]);
  const double u = (inv[0][0] * px + rowTerms[0]) * reciprocal;
  const double v = (inv[1][0] * px + rowTerms[1]) * reciprocal;
  // Pixel centres lie at .5: the sample grid is offset by half a pixel.
  const double sx = fill.boundsLeft + u * fill.boundsWidth - 0.5;
  const double sy = fill.boundsTop + v * fill.boundsHeight - 0.5;
  // Written so that NaN (a point mapped through infinity) fails too.
  if (!(sx > static_cast<double>(fill.sampleLeft - 1) && sx < static_cast<double>(fill.sampleRight) &&
        sy > static_cast<double>(fill.sampleTop - 1) && sy < static_cast<double>(fill.sampleBottom))) {
    return 0;
  }
  // Above -1 once past the test: the sampled area starts at 0 or later.
  const int64_t column = FloorAboveMinusOne(sx), row = FloorAboveMinusOne(sy);
  const double tx = sx - static_cast<double>(column), ty = sy - static_cast<double>(row);
  double a00, a10, a01, a11;
  if (column >= fill.sampleLeft && column + 1 < fill.sampleRight && row >= fill.sampleTop &&
      row + 1 < fill.sampleBottom) {
    const unsigned char* p = fill.layerPixels + (row * fill.layerWidth + column) * kBytesPerPixel + kAlphaByte;
    const size_t down = static_cast<size_t>(fill.layerWidth) * kBytesPerPixel;
    a00 = p[0];
    a10 = p[kBytesPerPixel];
    a01 = p[down];
    a11 = p[down + kBytesPerPixel];
  } else {
    a00 = SampledAlpha(fill, column, row);
    a10 = SampledAlpha(fill, column + 1, row);
    a01 = SampledAlpha(fill, column, row + 1);
    a11 = SampledAlpha(fill, column + 1, row + 1);
  }
  const double upper = a00 * (1.0 - tx) + a10 * tx;
  const double lower = a01 * (1.0 - tx) + a11 * tx;
  double alpha = upper * (1.0 - ty) + lower * ty;
  if (fill.fade) alpha *= std::min(std::max(v, 0.0), 1.0);
  return ClampToByte(TruncateToInt(alpha + 0.5));
}

// The plane rows [firstRow, endRow): the shadow alpha of every reached
// pixel, 0 elsewhere.
void FillShadowRows(const ShadowFill& fill, size_t firstRow, size_t endRow) {
  const double(&inv)[3][3] = fill.transform.inverse;
  for (size_t row = firstRow; row < endRow; ++row) {
    int32_t* line = fill.plane + row * fill.planeWidth;
    std::fill(line, line + fill.planeWidth, 0);
    const uint32_t y = fill.planeTop + static_cast<uint32_t>(row);
    if (y < fill.reachTop || y >= fill.reachBottom) continue;
    const double py = y + 0.5;
    const double rowTerms[3] = {inv[0][1] * py + inv[0][2], inv[1][1] * py + inv[1][2], inv[2][1] * py + inv[2][2]};
    for (uint32_t x = fill.reachLeft; x < fill.reachRight; ++x) {
      line[x - fill.planeLeft] = ShadowAlphaAt(fill, x + 0.5, rowTerms);
    }
  }
}

// [low, high) of the pixels whose centres lie within [from, to], cut to 0 .. limit.
void PixelSpan(double from, double to, uint32_t limit, uint32_t& low, uint32_t& high) {
  const double first = std::min(std::max(std::floor(from - 0.5), 0.0), static_cast<double>(limit));
  const double end = std::min(std::max(std::ceil(to + 0.5), 0.0), static_cast<double>(limit));
  low = static_cast<uint32_t>(TruncateToInt64(first));
  high = std::max(low, static_cast<uint32_t>(TruncateToInt64(end)));
}

// The background pixels the shadow can reach: the image of the sampled area
// (grown by the half pixel bilinear sampling reaches) plus a pixel of margin,
// or the whole background where that area crosses the transform's horizon.
void FindReach(ShadowFill& fill, uint32_t width, uint32_t height) {
  fill.reachLeft = fill.reachTop = 0;
  fill.reachRight = width;
  fill.reachBottom = height;
  const double(&m)[3][3] = fill.transform.forward;
  const double left = (static_cast<double>(fill.sampleLeft) - 0.5 - fill.boundsLeft) / fill.boundsWidth;
  const double right = (static_cast<double>(fill.sampleRight) + 0.5 - fill.boundsLeft) / fill.boundsWidth;
  const double top = (static_cast<double>(fill.sampleTop) - 0.5 - fill.boundsTop) / fill.boundsHeight;
  const double bottom = (static_cast<double>(fill.sampleBottom) + 0.5 - fill.boundsTop) / fill.boundsHeight;
  const double us[4] = {left, right, right, left}, vs[4] = {top, top, bottom, bottom};
  double minX = INFINITY, maxX = -INFINITY, minY = INFINITY, maxY = -INFINITY;
  for (int k = 0; k < 4; ++k) {
    const double w = m[2][0] * us[k] + m[2][1] * vs[k] + m[2][2];
    if (!(w > 0.0)) return;
    const double x = (m[0][0] * us[k] + m[0][1] * vs[k] + m[0][2]) / w;
    const double y = (m[1][0] * us[k] + m[1][1] * vs[k] + m[1][2]) / w;
    if (!std::isfinite(x) || !std::isfinite(y)) return;
    minX = std::min(minX, x);
    maxX = std::max(maxX, x);
    minY = std::min(minY, y);
    maxY = std::max(maxY, y);
  }
  PixelSpan(minX - 1.0, maxX + 1.0, width, fill.reachLeft, fill.reachRight);
  PixelSpan(minY - 1.0, maxY + 1.0, height, fill.reachTop, fill.reachBottom);
}

// Gives a plane exactly `count` entries; the values are overwritten by the passes.
void SizePlane(std::vector<int32_t>& plane, size_t count) {
  if (plane.size() != count) {
    std::vector<int32_t>().swap(plane);
    plane.resize(count);
  }
}

}  // namespace

ShadowCastCompositor::ShadowCastCompositor(KVAbstractImage* layer, const kvo::maths::KVRect& bounds,
                                           const kvo::maths::KVQuad& corners, unsigned int radius, double amount,
                                           KVPixel8_RGB colour, KVBlendMode blendMode, bool fade,
                                           KVDownsampleFactor factor, kvo::KVLookupTables& tables,
                                           kvtl::CPUExtensions extensions)
    : m_layer(layer),
      m_bounds(bounds),
      m_corners(corners),
      m_radius(radius),
      m_amount(amount),
      m_colour(colour),
      m_blendMode(blendMode),
      m_fade(fade),
      m_factor(factor),
      m_tables(tables),
      m_extensions(extensions),
      m_setupWidth(0),
      m_setupHeight(0),
      m_planeLeft(0),
      m_planeTop(0),
      m_planeWidth(0),
      m_planeHeight(0) {
  FillWeightedAlpha(ClampedUnit(m_amount), m_opacity);
  // At full weight BlendPixel gives the mode's result r(colour, bottom) itself;
  // Render weights it by each pixel's opacity exactly as BlendPixel would.
  const int top[3] = {m_colour.blue, m_colour.green, m_colour.red};
  for (int c = 0; c < 3; ++c) {
    for (int bottom = 0; bottom < 256; ++bottom) {
      m_blended[c][bottom] = static_cast<unsigned char>(BlendPixel(bottom, top[c], m_blendMode, 256, m_tables));
    }
  }
}

void ShadowCastCompositor::Setup(KVAbstractImage* background) {
  m_setupWidth = m_setupHeight = 0;
  const uint32_t width = background->Width(), height = background->Height();
  const size_t pixels = static_cast<size_t>(width) * height;
  if (pixels == 0 || background->BitsPerChannel() != 0 || background->BufferByteSize() < pixels * kBytesPerPixel) {
    return;
  }
  if (m_opacity[255] == 0 || m_layer == nullptr || m_layer->BitsPerChannel() != 0) return;
  const uint32_t layerWidth = m_layer->Width(), layerHeight = m_layer->Height();
  if (m_layer->BufferByteSize() < static_cast<size_t>(layerWidth) * layerHeight * kBytesPerPixel) return;
  if (m_bounds.Width() <= 0 || m_bounds.Height() <= 0) return;

  ShadowFill fill;
  if (!SolveShadowTransform(m_corners, fill.transform)) return;
  const int64_t left = m_bounds.TopLeft().X(), top = m_bounds.TopLeft().Y();
  fill.boundsLeft = static_cast<double>(left);
  fill.boundsTop = static_cast<double>(top);
  fill.boundsWidth = m_bounds.Width();
  fill.boundsHeight = m_bounds.Height();
  fill.sampleLeft = std::max<int64_t>(left, 0);
  fill.sampleTop = std::max<int64_t>(top, 0);
  fill.sampleRight = std::min<int64_t>(left + m_bounds.Width(), layerWidth);
  fill.sampleBottom = std::min<int64_t>(top + m_bounds.Height(), layerHeight);
  if (fill.sampleLeft >= fill.sampleRight || fill.sampleTop >= fill.sampleBottom) return;  // no alpha to cast
  fill.layerPixels = PixelBytes(m_layer);
  fill.layerWidth = layerWidth;
  fill.fade = m_fade;
  FindReach(fill, width, height);
  if (fill.reachLeft == fill.reachRight || fill.reachTop == fill.reachBottom) return;
  // The plane covers what the blur can spread the reach to: beyond the radius
  // everything is 0, and the blur repeats the plane's edge values, zeros or
  // the image's own edges, exactly as over the whole image.
  m_planeLeft = fill.reachLeft - std::min(fill.reachLeft, m_radius);
  m_planeTop = fill.reachTop - std::min(fill.reachTop, m_radius);
  m_planeWidth =
      static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(fill.reachRight) + m_radius, width)) - m_planeLeft;
  m_planeHeight =
      static_cast<uint32_t>(std::min<uint64_t>(static_cast<uint64_t>(fill.reachBottom) + m_radius, height)) -
      m_planeTop;
  fill.planeLeft = m_planeLeft;
  fill.planeTop = m_planeTop;
  fill.planeWidth = m_planeWidth;

  const size_t planePixels = static_cast<size_t>(m_planeWidth) * m_planeHeight;
  SizePlane(m_shadowAlpha, planePixels);
  fill.plane = m_shadowAlpha.data();
  RunParallel([&](unsigned char threadIndex, unsigned char threadCount) {
    const ShareRun rows = ShareOfLines(m_planeHeight, threadIndex, threadCount);
    FillShadowRows(fill, rows.start, rows.End());
    return 0;
  });

  if (m_radius != 0) {
    // Rows into the scratch plane, then columns back into the shadow plane.
    SizePlane(m_blurScratch, planePixels);
    const StackBlurKernels kernels = ChooseStackBlurKernels();
    RunStackBlurRows(kernels.rows,
                     ValueRows(m_shadowAlpha.data(), m_planeWidth, m_planeHeight, m_radius, m_blurScratch.data()));
    RunStackBlurColumns(kernels.columns, ValueColumns(m_blurScratch.data(), m_planeWidth, m_planeHeight, m_radius,
                                                      m_shadowAlpha.data()));
  }
  m_setupWidth = width;
  m_setupHeight = height;
}

int ShadowCastCompositor::Render(KVAbstractImage* backgroundLayer, unsigned char threadIndex,
                                 unsigned char threadCount) {
  const unsigned int depth = backgroundLayer->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return Render8(static_cast<KVImage8*>(backgroundLayer), threadIndex, threadCount);
}

int ShadowCastCompositor::Render8(KVImage8* backgroundLayer, unsigned char threadIndex, unsigned char threadCount) {
  // The plane holds the Setup background: a background of another size gets nothing.
  if (m_setupWidth == 0 || backgroundLayer->Width() != m_setupWidth || backgroundLayer->Height() != m_setupHeight) {
    return 0;
  }
  const size_t imageBytes = static_cast<size_t>(m_setupWidth) * m_setupHeight * kBytesPerPixel;
  const ShareRun share = ByteShare(m_setupWidth, m_setupHeight, threadIndex, threadCount,
                                   std::min<size_t>(imageBytes, backgroundLayer->BufferByteSize()));
  if (share.count == 0) return 0;
  const bool replace = m_blendMode == kBlendReplace;
  const unsigned char colour[3] = {m_colour.blue, m_colour.green, m_colour.red};
  const size_t firstPixel = share.start / kBytesPerPixel, endPixel = firstPixel + share.count / kBytesPerPixel;
  const uint32_t planeRight = m_planeLeft + m_planeWidth;
  // The share's run of pixels, row by row, where it crosses the plane.
  for (size_t rowStart = firstPixel - firstPixel % m_setupWidth; rowStart < endPixel; rowStart += m_setupWidth) {
    const uint32_t y = static_cast<uint32_t>(rowStart / m_setupWidth);
    if (y < m_planeTop) continue;
    if (y >= m_planeTop + m_planeHeight) break;
    const uint32_t first =
        static_cast<uint32_t>(std::max<size_t>(std::max(firstPixel, rowStart) - rowStart, m_planeLeft));
    const uint32_t end =
        static_cast<uint32_t>(std::min<size_t>(std::min(endPixel, rowStart + m_setupWidth) - rowStart, planeRight));
    const int32_t* shadow = m_shadowAlpha.data() + static_cast<size_t>(y - m_planeTop) * m_planeWidth - m_planeLeft;
    unsigned char* canvas = backgroundLayer->Buffer() + rowStart * kBytesPerPixel;
    for (uint32_t x = first; x < end; ++x) {
      const int opacity = m_opacity[static_cast<unsigned char>(shadow[x])];
      if (opacity == 0) continue;
      unsigned char* pixel = canvas + static_cast<size_t>(x) * kBytesPerPixel;
      for (unsigned int c = kBlueByte; c <= kRedByte; ++c) {
        // BlendPixel(pixel[c], colour[c], mode, opacity): replace writes the
        // colour whole, every other mode moves towards r by opacity / 256.
        pixel[c] =
            replace ? colour[c] : static_cast<unsigned char>(BlendTowards(pixel[c], m_blended[c][pixel[c]], opacity));
      }
      pixel[kAlphaByte] = m_tables.AlphaChannelBlend(pixel[kAlphaByte], static_cast<unsigned char>(opacity));
    }
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
