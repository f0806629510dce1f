#ifndef KVIMAGE_SUPPORT_H
#define KVIMAGE_SUPPORT_H

#include <kvimage/export.h>

namespace kvtl {

// Processor features, in this order: MMX, SSE, SSE2, SSE3. An aggregate, so
// `CPUExtensions ext = {true, true, false, false};` sends every stage down its
// plain path.
struct CPUExtensions {
  bool mmx;
  bool sse;
  bool sse2;
  bool sse3;
};

// Sets MMX, SSE and SSE2; sets SSE3 from the processor's feature report. Where
// no report can be had, SSE3 keeps the caller's value.
KVIMAGE_EXPORT void GetCPUExtensions(CPUExtensions& extensions);

// Instruction sets wider than SSE2 that some stages use for their vector
// paths, in increasing order. Every wider path gives exactly the bytes of the
// path it speeds up; the limit exists so that a host can pin the engine to a
// narrower set (and so that tests can compare the paths on one machine).
// kWiderAVX512VBMI stands for AVX-512 F, BW and VBMI together.
enum WiderExtension : int { kWiderNone = 0, kWiderSSSE3 = 1, kWiderSSE41 = 2, kWiderAVX2 = 3, kWiderAVX512VBMI = 4 };

// The widest set the processor and operating system support.
KVIMAGE_EXPORT WiderExtension GetSupportedWiderExtension();
// The widest set stages use now: the supported one, lowered by the limit.
KVIMAGE_EXPORT WiderExtension GetWiderExtension();
// Caps the sets stages use (kWiderAVX512VBMI, the default, lifts the cap). Takes
// effect at the next Render; thread-safe.
KVIMAGE_EXPORT void LimitWiderExtension(WiderExtension limit);

}  // namespace kvtl

namespace kvo {

class KVIMAGE_EXPORT KVSystem {
 public:
  // The online logical processor count, or the count fixed by SetCPUCoreCount.
  static unsigned int GetCPUCoreCount();
  // Fixes the count every later GetCPUCoreCount() returns; 0 returns to the
  // detected count. Thread-safe.
  static void SetCPUCoreCount(unsigned int count);
};

// 8-bit lookup tables for alpha arithmetic and the separable blend modes.
// Every table is complete when the constructor returns; every operation is a
// read-only lookup, safe from any number of threads at once. Two-operand
// operations take (top, bottom): the layer value first, the background second.
class KVIMAGE_EXPORT KVLookupTables {
 public:
  KVLookupTables();
  ~KVLookupTables();
  KVLookupTables(const KVLookupTables&) = delete;
  KVLookupTables& operator=(const KVLookupTables&) = delete;

  // round(v * a / 255)
  unsigned char AlphaBlend(unsigned char v, unsigned char a) { return Lookup(kAlphaBlend, v, a); }
  // a + b - round(a * b / 255): the alpha of one layer over another
  unsigned char AlphaChannelBlend(unsigned char a, unsigned char b) { return Lookup(kAlphaChannelBlend, a, b); }
  float DivideBy255(unsigned char x) { return m_divideBy255[x]; }
  float* DivideBy255Table() { return m_divideBy255; }
  // 1 / x, and 0 for x == 0
  float Invert(unsigned char x) { return m_invert[x]; }

  unsigned char DarkenBlend(unsigned char top, unsigned char bottom) { return Lookup(kDarken, top, bottom); }
  unsigned char LightenBlend(unsigned char top, unsigned char bottom) { return Lookup(kLighten, top, bottom); }
  unsigned char MultiplyBlend(unsigned char top, unsigned char bottom) { return Lookup(kMultiply, top, bottom); }
  unsigned char ScreenBlend(unsigned char top, unsigned char bottom) { return Lookup(kScreen, top, bottom); }
  unsigned char OverlayBlend(unsigned char top, unsigned char bottom) { return Lookup(kOverlay, top, bottom); }
  unsigned char ColorBurnBlend(unsigned char top, unsigned char bottom) { return Lookup(kColorBurn, top, bottom); }
  unsigned char ColorDodgeBlend(unsigned char top, unsigned char bottom) { return Lookup(kColorDodge, top, bottom); }
  unsigned char HardLightBlend(unsigned char top, unsigned char bottom) { return Lookup(kHardLight, top, bottom); }
  unsigned char SoftLightBlend(unsigned char top, unsigned char bottom) { return Lookup(kSoftLight, top, bottom); }
  unsigned char ExclusionBlend(unsigned char top, unsigned char bottom) { return Lookup(kExclusion, top, bottom); }
  unsigned char DifferenceBlend(unsigned char top, unsigned char bottom) { return Lookup(kDifference, top, bottom); }

 private:
  enum Table {
    kAlphaBlend,
    kAlphaChannelBlend,
    kDarken,
    kLighten,
    kMultiply,
    kScreen,
    kOverlay,
    kColorBurn,
    kColorDodge,
    kHardLight,
    kSoftLight,
    kExclusion,
    kDifference,
    kTableCount
  };
  unsigned char Lookup(Table table, unsigned char first, unsigned char second) const {
    return m_tables[(static_cast<unsigned int>(table) << 16) | (static_cast<unsigned int>(first) << 8) | second];
  }

  unsigned char* m_tables;  // kTableCount tables of 256 x 256, indexed [first][second]
  float m_divideBy255[256];
  float m_invert[256];
};

namespace maths {

class KVIMAGE_EXPORT KVPoint2 {
 public:
  KVPoint2() : m_x(0), m_y(0) {}
  KVPoint2(int x, int y) : m_x(x), m_y(y) {}
  int X() const { return m_x; }
  int Y() const { return m_y; }

 private:
  int m_x;
  int m_y;
};

class KVIMAGE_EXPORT KVPoint2F {
 public:
  KVPoint2F() : m_x(0.0), m_y(0.0) {}
  KVPoint2F(double x, double y) : m_x(x), m_y(y) {}
  double X() const { return m_x; }
  double Y() const { return m_y; }

 private:
  double m_x;
  double m_y;
};

// Integer rectangle: columns left .. left + width - 1, rows top .. top +
// height - 1. The right and bottom corners lie one past the last pixel.
class KVIMAGE_EXPORT KVRect {
 public:
  KVRect() : m_left(0), m_top(0), m_width(0), m_height(0) {}
  KVRect(const KVPoint2& topLeft, int width, int height)
      : m_left(topLeft.X()), m_top(topLeft.Y()), m_width(width), m_height(height) {}
  int Width() const { return m_width; }
  int Height() const { return m_height; }
  KVPoint2 Center() const;
  KVPoint2 TopLeft() const { return KVPoint2(m_left, m_top); }
  KVPoint2 TopRight() const;
  KVPoint2 BottomLeft() const;
  KVPoint2 BottomRight() const;
  // Multiplies the corner and the size by factor, truncating toward zero.
  void Scale(double factor);
  // Clips the rectangle to 0 .. width x 0 .. height; an empty intersection
  // leaves a rectangle of width or height 0.
  void FixBounds(int width, int height);

 private:
  int m_left;
  int m_top;
  int m_width;
  int m_height;
};

class KVIMAGE_EXPORT KVQuad {
 public:
  KVQuad() {}
  KVQuad(const KVPoint2F& topLeft, const KVPoint2F& topRight, const KVPoint2F& bottomLeft,
         const KVPoint2F& bottomRight)
      : m_topLeft(topLeft), m_topRight(topRight), m_bottomLeft(bottomLeft), m_bottomRight(bottomRight) {}
  KVPoint2F TopLeft() const { return m_topLeft; }
  KVPoint2F TopRight() const { return m_topRight; }
  KVPoint2F BottomLeft() const { return m_bottomLeft; }
  KVPoint2F BottomRight() const { return m_bottomRight; }

 private:
  KVPoint2F m_topLeft;
  KVPoint2F m_topRight;
  KVPoint2F m_bottomLeft;
  KVPoint2F m_bottomRight;
};

}  // namespace maths
}  // namespace kvo

#endif
