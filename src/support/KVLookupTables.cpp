#include <cmath>

#include <kvimage/support.h>

namespace kvo {

namespace {

// The separable blend modes of the W3C compositing recommendation on 8-bit
// values: t is the top (source) value, b the bottom (backdrop) value. The
// integer forms are exact; results round to nearest.
int RoundedQuotient255(int numerator) { return (numerator + 127) / 255; }

int FromUnit(double x) {
  const double scaled = std::floor(x * 255.0 + 0.5);
  return scaled < 0.0 ? 0 : (scaled > 255.0 ? 255 : static_cast<int>(scaled));
}

int Multiply(int t, int b) { return RoundedQuotient255(t * b); }
int Screen(int t, int b) { return RoundedQuotient255((t + b) * 255 - t * b); }

// HardLight(b, t): multiply by 2t below the middle, screen with 2t - 1 above.
int HardLight(int t, int b) {
  if (2 * t <= 255) return RoundedQuotient255(2 * t * b);
  const int lifted = 2 * t - 255;
  return RoundedQuotient255((lifted + b) * 255 - lifted * b);
}

int ColorDodge(int t, int b) {
  if (b == 0) return 0;
  if (t == 255) return 255;
  const int dodged = (b * 255 + (255 - t) / 2) / (255 - t);
  return dodged > 255 ? 255 : dodged;
}

int ColorBurn(int t, int b) {
  if (b == 255) return 255;
  if (t == 0) return 0;
  const int burned = ((255 - b) * 255 + t / 2) / t;
  return burned > 255 ? 0 : 255 - burned;
}

int SoftLight(int t, int b) {
  const double s = t / 255.0;
  const double d = b / 255.0;
  if (s <= 0.5) return FromUnit(d - (1.0 - 2.0 * s) * d * (1.0 - d));
  const double lifted = d <= 0.25 ? ((16.0 * d - 12.0) * d + 4.0) * d : std::sqrt(d);
  return FromUnit(d + (2.0 * s - 1.0) * (lifted - d));
}

int Exclusion(int t, int b) { return RoundedQuotient255((t + b) * 255 - 2 * t * b); }

}  // namespace

KVLookupTables::KVLookupTables() : m_tables(new unsigned char[kTableCount << 16]) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const unsigned int cell = (static_cast<unsigned int>(first) << 8) | static_cast<unsigned int>(second);
      const int t = first, b = second;
      unsigned char* at = m_tables + cell;
      at[kAlphaBlend << 16] = static_cast<unsigned char>(Multiply(first, second));
      at[kAlphaChannelBlend << 16] = static_cast<unsigned char>(first + second - Multiply(first, second));
      at[kDarken << 16] = static_cast<unsigned char>(t < b ? t : b);
      at[kLighten << 16] = static_cast<unsigned char>(t > b ? t : b);
      at[kMultiply << 16] = static_cast<unsigned char>(Multiply(t, b));
      at[kScreen << 16] = static_cast<unsigned char>(Screen(t, b));
      at[kOverlay << 16] = static_cast<unsigned char>(HardLight(b, t));
      at[kColorBurn << 16] = static_cast<unsigned char>(ColorBurn(t, b));
      at[kColorDodge << 16] = static_cast<unsigned char>(ColorDodge(t, b));
      at[kHardLight << 16] = static_cast<unsigned char>(HardLight(t, b));
      at[kSoftLight << 16] = static_cast<unsigned char>(SoftLight(t, b));
      at[kExclusion << 16] = static_cast<unsigned char>(Exclusion(t, b));
      at[kDifference << 16] = static_cast<unsigned char>(t > b ? t - b : b - t);
    }
  }
  for (int x = 0; x < 256; ++x) {
    m_divideBy255[x] = static_cast<float>(x) / 255.0f;
    m_invert[x] = x == 0 ? 0.0f : 1.0f / static_cast<float>(x);
  }
}

KVLookupTables::~KVLookupTables() { delete[] m_tables; }

}  // namespace kvo
