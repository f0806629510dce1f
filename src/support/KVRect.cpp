#include <algorithm>

#include <kvimage/support.h>

#include "support/Conversions.h"

namespace kvo {
namespace maths {

namespace {
// Corner arithmetic wraps like the processor's instead of overflowing.
int Add(int a, int b) { return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b)); }
}  // namespace

KVPoint2 KVRect::Center() const { return KVPoint2(Add(m_left, m_width / 2), Add(m_top, m_height / 2)); }
KVPoint2 KVRect::TopRight() const { return KVPoint2(Add(m_left, m_width), m_top); }
KVPoint2 KVRect::BottomLeft() const { return KVPoint2(m_left, Add(m_top, m_height)); }
KVPoint2 KVRect::BottomRight() const { return KVPoint2(Add(m_left, m_width), Add(m_top, m_height)); }

void KVRect::Scale(double factor) {
  m_left = kvo::image::TruncateToInt(m_left * factor);
  m_top = kvo::image::TruncateToInt(m_top * factor);
  m_width = kvo::image::TruncateToInt(m_width * factor);
  m_height = kvo::image::TruncateToInt(m_height * factor);
}

void KVRect::FixBounds(int width, int height) {
  // Computed in 64 bits: corners of extreme rectangles do not fit in an int.
  const long long left = std::max<long long>(m_left, 0);
  const long long top = std::max<long long>(m_top, 0);
  const long long right = std::min<long long>(static_cast<long long>(m_left) + m_width, width);
  const long long bottom = std::min<long long>(static_cast<long long>(m_top) + m_height, height);
  m_left = static_cast<int>(std::min<long long>(left, std::max(width, 0)));
  m_top = static_cast<int>(std::min<long long>(top, std::max(height, 0)));
  m_width = static_cast<int>(std::max<long long>(right - m_left, 0));
  m_height = static_cast<int>(std::max<long long>(bottom - m_top, 0));
}

}  // namespace maths
}  // namespace kvo
