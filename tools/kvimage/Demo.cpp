#include "Demo.h"

#include <kvimage/kvimage.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "BitmapFont.h"
#include "Options.h"

namespace kvimage_cli {

using namespace kvo::image;

namespace {

const double kPi = 3.14159265358979323846;

double Clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }
double SmoothStep(double edge0, double edge1, double x) {
  const double t = Clamp01((x - edge0) / (edge1 - edge0));
  return t * t * (3.0 - 2.0 * t);
}
double Mix(double a, double b, double t) { return a + (b - a) * t; }
unsigned char ToByte(double v) { return static_cast<unsigned char>(std::lround(std::min(255.0, std::max(0.0, v)))); }

// A repeatable hash of a position: the noise is the same on every run and
// does not depend on the order pixels are visited.
uint32_t Hash(uint32_t x, uint32_t y, uint32_t salt) {
  uint32_t h = x * 0x8DA6B343u ^ y * 0xD8163841u ^ salt * 0xCB1AB31Fu;
  h ^= h >> 16;
  h *= 0x7FEB352Du;
  h ^= h >> 15;
  h *= 0x846CA68Bu;
  h ^= h >> 16;
  return h;
}
// Roughly normal noise with standard deviation 1 (sum of four uniforms).
double Noise(uint32_t x, uint32_t y, uint32_t salt) {
  const uint32_t h = Hash(x, y, salt);
  const double sum = (h & 0xFF) + ((h >> 8) & 0xFF) + ((h >> 16) & 0xFF) + (h >> 24);
  return (sum / 255.0 - 2.0) / 0.577;
}

struct Colour {
  double r, g, b;
};

void Store(Image& image, unsigned int x, unsigned int y, const Colour& c) {
  unsigned char* p = image.Pixel(x, y);
  p[0] = ToByte(c.b);
  p[1] = ToByte(c.g);
  p[2] = ToByte(c.r);
  p[3] = 255;
}

// The subject's shapes in pixels, from the frame height.
struct Subject {
  double cx, headY, headRx, headRy;  // face ellipse
  double hairY, hairRx, hairRy;      // hair volume behind and above the face
  double neckHalf, neckTop;
  double shoulderTop, shoulderHalf, waistHalf;

  explicit Subject(double w, double h)
      : cx(w * 0.5),
        headY(h * 0.34),
        headRx(h * 0.085),
        headRy(h * 0.112),
        hairY(h * 0.31),
        hairRx(h * 0.105),
        hairRy(h * 0.13),
        neckHalf(h * 0.035),
        neckTop(h * 0.42),
        shoulderTop(h * 0.485),
        shoulderHalf(h * 0.25),
        waistHalf(h * 0.2) {}

  static double EllipseDistance(double x, double y, double cx, double cy, double rx, double ry) {
    const double nx = (x - cx) / rx, ny = (y - cy) / ry;
    return (std::sqrt(nx * nx + ny * ny) - 1.0) * std::min(rx, ry);
  }
  double Face(double x, double y) const { return EllipseDistance(x, y, cx, headY, headRx, headRy); }
  double Hair(double x, double y) const { return EllipseDistance(x, y, cx, hairY, hairRx, hairRy); }
  double Neck(double x, double y) const { return std::max(std::fabs(x - cx) - neckHalf, neckTop - y); }
  double Body(double x, double y, double h) const {
    // Rounded shoulders: the half width grows from the neck's like a quarter
    // ellipse, then the jacket narrows slightly towards the waist.
    const double t = Clamp01((y - shoulderTop) / (h * 0.16));
    const double half = Mix(neckHalf * 1.6, shoulderHalf, 1.0 - (1.0 - t) * (1.0 - t) * (1.0 - t)) -
                        std::max(0.0, y - shoulderTop - h * 0.2) * 0.06;
    return std::max(std::fabs(x - cx) - half, shoulderTop - y);
  }
  // Signed distance to the whole subject (negative inside).
  double Distance(double x, double y, double h) const {
    return std::min(std::min(Face(x, y), Hair(x, y)), std::min(Neck(x, y), Body(x, y, h)));
  }
};

// Coverage of fine hair strands: quadratic curves from the hair outline,
// drawn with anti-aliased edges.
std::vector<float> HairStrands(unsigned int width, unsigned int height, const Subject& s) {
  std::vector<float> coverage(static_cast<size_t>(width) * height, 0.0f);
  const int strands = 46;
  const double h = height;
  for (int i = 0; i < strands; ++i) {
    const double u = (Hash(i, 1, 7) & 0xFFFF) / 65535.0;
    const double angle = Mix(-kPi * 0.95, -kPi * 0.05, u);  // upper half of the hair outline
    const double bx = s.cx + std::cos(angle) * s.hairRx * 0.97, by = s.hairY + std::sin(angle) * s.hairRy * 0.97;
    const double length = h * Mix(0.04, 0.12, (Hash(i, 2, 7) & 0xFFFF) / 65535.0);
    const double bend = Mix(-0.8, 0.8, (Hash(i, 3, 7) & 0xFFFF) / 65535.0);
    const double strength = Mix(0.6, 1.0, (Hash(i, 4, 7) & 0xFFFF) / 65535.0);
    const double halfWidth = Mix(0.9, 1.6, (Hash(i, 5, 7) & 0xFFFF) / 65535.0) * h / 540.0;
    const double ex = bx + std::cos(angle) * length, ey = by + std::sin(angle) * length;
    const double mx = (bx + ex) * 0.5 - std::sin(angle) * length * bend * 0.5;
    const double my = (by + ey) * 0.5 + std::cos(angle) * length * bend * 0.5;
    const int segments = 24;
    double px = bx, py = by;
    for (int k = 1; k <= segments; ++k) {
      const double t = static_cast<double>(k) / segments;
      const double qx = (1 - t) * (1 - t) * bx + 2 * (1 - t) * t * mx + t * t * ex;
      const double qy = (1 - t) * (1 - t) * by + 2 * (1 - t) * t * my + t * t * ey;
      const double fade = strength * (1.0 - t * 0.7);  // strands thin out towards their tips
      const int x0 = std::max(0, static_cast<int>(std::min(px, qx) - 3)),
                x1 = std::min(static_cast<int>(width) - 1, static_cast<int>(std::max(px, qx) + 3));
      const int y0 = std::max(0, static_cast<int>(std::min(py, qy) - 3)),
                y1 = std::min(static_cast<int>(height) - 1, static_cast<int>(std::max(py, qy) + 3));
      const double dx = qx - px, dy = qy - py, lengthSquared = std::max(1e-9, dx * dx + dy * dy);
      for (int y = y0; y <= y1; ++y) {
        for (int x = x0; x <= x1; ++x) {
          const double t2 = Clamp01(((x + 0.5 - px) * dx + (y + 0.5 - py) * dy) / lengthSquared);
          const double ddx = x + 0.5 - (px + t2 * dx), ddy = y + 0.5 - (py + t2 * dy);
          const double c = Clamp01(halfWidth + 0.5 - std::sqrt(ddx * ddx + ddy * ddy)) * fade;
          float& cell = coverage[static_cast<size_t>(y) * width + x];
          cell = std::max(cell, static_cast<float>(c));
        }
      }
      px = qx;
      py = qy;
    }
  }
  return coverage;
}

Colour SubjectColour(double x, double y, const Subject& s, double h) {
  const Colour skin = {222, 170, 138}, hair = {150, 92, 52}, jacket = {118, 74, 52}, shirt = {232, 230, 222};
  Colour c;
  double shade;
  if (s.Face(x, y) < 0.0 && !(y < s.headY - s.headRy * 0.45 + std::fabs(x - s.cx) * 0.35)) {
    const double nx = (x - s.cx) / s.headRx, ny = (y - s.headY) / s.headRy;
    const double nz = std::sqrt(std::max(0.0, 1.0 - nx * nx - ny * ny));
    shade = 0.45 + 0.7 * std::max(0.0, -0.5 * nx - 0.35 * ny + 0.79 * nz);
    c = skin;
    // Eyes and mouth.
    const double ex = std::fabs(x - s.cx) - s.headRx * 0.38, ey = y - (s.headY - s.headRy * 0.08);
    if ((ex * ex) / (s.headRx * s.headRx * 0.012) + (ey * ey) / (s.headRy * s.headRy * 0.006) < 1.0) {
      c = {40, 30, 28};
    }
    const double mx = (x - s.cx) / (s.headRx * 0.35), my = (y - (s.headY + s.headRy * 0.5)) / (s.headRy * 0.06);
    if (mx * mx + my * my < 1.0) c = {170, 80, 80};
  } else if (s.Hair(x, y) < 0.0 && y < s.neckTop) {
    c = hair;
    shade = 0.7 + 0.3 * std::sin((x - s.cx) * 0.9 / (h / 540.0)) * 0.3 + 0.3 * Clamp01((s.hairY - y) / s.hairRy);
  } else if (y < s.shoulderTop - h * 0.01 ||
             (std::fabs(x - s.cx) < (y - s.shoulderTop) * 0.45 + s.neckHalf * 1.2 && y < s.shoulderTop + h * 0.2)) {
    // Neck and the open collar of a light shirt.
    if (y < s.shoulderTop - h * 0.01) {
      c = skin;
      shade = 0.55 + 0.25 * (1.0 - std::fabs(x - s.cx) / s.neckHalf);
    } else {
      c = shirt;
      shade = 0.8 + 0.15 * (1.0 - std::fabs(x - s.cx) / (s.neckHalf * 3));
    }
  } else {
    c = jacket;
    const double across = (x - s.cx) / s.shoulderHalf;
    shade = 0.5 + 0.55 * std::cos(Clamp01(std::fabs(across + 0.15)) * kPi * 0.5);
  }
  return {c.r * shade, c.g * shade, c.b * shade};
}

}  // namespace

Image SynthesiseGreenScreenFrame(unsigned int width, unsigned int height) {
  Image frame(width, height);
  const double w = width, h = height, px = h / 540.0;  // one pixel of the 540-line original
  const Subject subject(w, h);
  const std::vector<float> strands = HairStrands(width, height, subject);
  const Colour backing = {48, 178, 72};
  const double edge = 1.6 * px;  // soft edge width (slight motion and lens softness)
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      const double fx = x + 0.5, fy = y + 0.5, u = fx / w, v = fy / h;
      // Uneven backing: a hot spot, fall-off to the corners, cloth folds and the
      // subject's soft shadow down and to the right.
      double light = 0.72 + 0.3 * std::exp(-((u - 0.42) * (u - 0.42) / 0.16 + (v - 0.38) * (v - 0.38) / 0.3));
      light += 0.035 * std::sin(u * 31.0 + 2.5 * std::sin(v * 9.0)) + 0.02 * std::sin(v * 47.0 + u * 5.0);
      const double shadowDistance = subject.Distance(fx - 0.07 * h, fy - 0.03 * h, h);
      light *= 1.0 - 0.22 * (1.0 - SmoothStep(-0.04 * h, 0.06 * h, shadowDistance));
      Colour back = {backing.r * light, backing.g * light, backing.b * light};
      // The backing does not fill the frame: studio wall left, a stand and wall right.
      if (u < 0.035 || u > 0.975) {
        const double wall = 70 + 8 * std::sin(v * 20.0);
        back = {wall, wall * 0.98, wall * 0.95};
      } else if (std::fabs(fx - 0.97 * w) < 3.0 * px && v > 0.12) {
        back = {38, 38, 40};
      }
      // The subject, its spill and the strands.
      const double distance = subject.Distance(fx, fy, h);
      const double body = Clamp01(0.5 - distance / edge);
      const double strand = strands[static_cast<size_t>(y) * width + x];
      double alpha = std::max(body, strand);
      Colour front = SubjectColour(fx, fy, subject, h);
      if (body <= 0.0 && strand > 0.0) front = {150 * 0.9, 92 * 0.9, 52 * 0.9};  // loose hair
      const double spill = 0.1 + 0.4 * std::exp(-std::max(0.0, -distance) / (8.0 * px));
      front.g += spill * (backing.g * light - front.g) * 0.55;
      front.r *= 1.0 - spill * 0.15;
      front.b *= 1.0 - spill * 0.1;
      if (u < 0.035 || u > 0.975) alpha = 0.0;
      Colour c = {Mix(back.r, front.r, alpha), Mix(back.g, front.g, alpha), Mix(back.b, front.b, alpha)};
      // Sensor noise.
      c.r += 3.2 * Noise(x, y, 1);
      c.g += 3.2 * Noise(x, y, 2);
      c.b += 3.2 * Noise(x, y, 3);
      Store(frame, x, y, c);
    }
  }
  return frame;
}

Image SynthesiseBackgroundScene(unsigned int width, unsigned int height) {
  Image scene(width, height);
  const double w = width, h = height;
  const double horizon = 0.64, sunX = 0.73, sunY = 0.5;
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      const double u = (x + 0.5) / w, v = (y + 0.5) / h;
      const double aspect = w / h;
      // Evening sky: deep blue above, warm near the horizon, a glow round the sun.
      const double t = Clamp01(v / horizon);
      Colour c = {Mix(28, 248, std::pow(t, 2.2)), Mix(52, 160, std::pow(t, 1.8)), Mix(112, 96, std::pow(t, 1.2))};
      const double sdx = (u - sunX) * aspect, sdy = v - sunY;
      const double sunDistance = std::sqrt(sdx * sdx + sdy * sdy);
      const double glow = std::exp(-sunDistance * 7.0);
      c = {c.r + 90 * glow, c.g + 70 * glow, c.b + 30 * glow};
      if (sunDistance < 0.045) c = {255, 236, 190};
      // Far ridge, near hills and the ground in front.
      const double far =
          horizon - 0.1 - 0.05 * std::sin(u * 7.0 + 1.0) - 0.03 * std::sin(u * 17.0 + 0.4) - 0.012 * std::sin(u * 41.0);
      const double nearRidge = horizon - 0.02 - 0.06 * std::sin(u * 4.0 + 2.2) - 0.015 * std::sin(u * 23.0 + 1.3);
      if (v > far) {
        const double haze = Clamp01((v - far) / 0.3);
        c = {Mix(112, 80, haze), Mix(92, 78, haze), Mix(132, 110, haze)};
      }
      if (v > nearRidge) {
        const double depth = Clamp01((v - nearRidge) / 0.35);
        c = {Mix(52, 34, depth), Mix(66, 50, depth), Mix(58, 38, depth)};
        // Rows of trees.
        c.g += 8 * std::sin(u * 160.0 + v * 40.0) * (1.0 - depth);
      }
      if (v > 0.86) {
        const double ground = Clamp01((v - 0.86) / 0.14);
        c = {Mix(74, 58, ground), Mix(62, 46, ground), Mix(44, 32, ground)};
      }
      c.r += 1.5 * Noise(x, y, 11);
      c.g += 1.5 * Noise(x, y, 12);
      c.b += 1.5 * Noise(x, y, 13);
      Store(scene, x, y, c);
    }
  }
  return scene;
}

namespace {

typedef std::chrono::steady_clock Clock;

double MillisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Check(int code, const std::string& what) {
  if (code != 0) throw EngineError(what + ": " + DescribeResultCode(code), code, false);
}

// Box-filter reduction to width x height (each output pixel averages the
// source pixels it covers).
Image Reduce(const Image& source, unsigned int width, unsigned int height) {
  Image out(width, height);
  for (unsigned int y = 0; y < height; ++y) {
    const unsigned int y0 = y * source.height / height, y1 = std::max(y0 + 1, (y + 1) * source.height / height);
    for (unsigned int x = 0; x < width; ++x) {
      const unsigned int x0 = x * source.width / width, x1 = std::max(x0 + 1, (x + 1) * source.width / width);
      unsigned int sum[4] = {0, 0, 0, 0};
      for (unsigned int sy = y0; sy < y1; ++sy) {
        for (unsigned int sx = x0; sx < x1; ++sx) {
          for (int c = 0; c < 4; ++c) sum[c] += source.Pixel(sx, sy)[c];
        }
      }
      const unsigned int count = (x1 - x0) * (y1 - y0);
      for (int c = 0; c < 4; ++c) out.Pixel(x, y)[c] = static_cast<unsigned char>((sum[c] + count / 2) / count);
    }
  }
  return out;
}

// Lays a tile (flattened over a checkerboard where it is transparent) into
// the sheet.
void Place(Image& sheet, const Image& tile, unsigned int left, unsigned int top) {
  for (unsigned int y = 0; y < tile.height; ++y) {
    for (unsigned int x = 0; x < tile.width; ++x) {
      const unsigned char* p = tile.Pixel(x, y);
      const unsigned int check = ((x / 8) + (y / 8)) % 2 ? 200 : 150;
      unsigned char* q = sheet.Pixel(left + x, top + y);
      for (int c = 0; c < 3; ++c) q[c] = static_cast<unsigned char>((p[c] * p[3] + check * (255 - p[3]) + 127) / 255);
      q[3] = 255;
    }
  }
}

struct EffectTile {
  const char* label;
  bool keyedSource;  // the keyed layer (alpha effects) rather than the composite
  std::function<int(KVImageProcessor&, unsigned int width, unsigned int height)> queue;
};

const std::vector<EffectTile>& EffectTiles() {
  static const std::vector<EffectTile> tiles = {
      {"original", false, nullptr},
      {"opacity 0.5", true, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetOpacity(0.5); }},
      {"mirror (writes nothing)", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetMirror(true, false); }},
      {"silhouette", true,
       [](KVImageProcessor& p, unsigned, unsigned) {
         return p.SetSilhouette(KVPixel8_RGB{24, 28, 40});
       }},
      {"matte view", true, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetMatteView(); }},
      {"brightness 0.25", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetBrightness(0.25, kChannelsColor); }},
      {"contrast 1.6", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetContrast(1.6, kChannelsColor); }},
      {"super contrast .2-.8", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetSuperContrast(0.2, 0.8, kChannelsColor); }},
      {"colour balance", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetColorBalance(0.8, 1.0, 1.3); }},
      {"temperature 3000k", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetColorTemperature(3000); }},
      {"temperature 10000k", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetColorTemperature(10000); }},
      {"saturation 0", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetSaturation(0.0); }},
      {"saturation 1.8", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetSaturation(1.8); }},
      {"hue shift 120", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetHueShift(120, 1.0); }},
      {"hue colourize 200", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetHueColorize(200, 0.8); }},
      {"tint grey", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetTint(kTintGrey, 1.0); }},
      {"tint warm", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetTint(kTintWarm, 1.0); }},
      {"tint bronze", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetTint(kTintBronze, 1.0); }},
      {"tint cyanotype", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetTint(kTintCyanotype, 1.0); }},
      {"tint selenium", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetTint(kTintSelenium, 1.0); }},
      {"three-strip .3", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetThreeStripColor(0.3, 0.3, 0.3); }},
      {"stack blur 6", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetStackBlur(6, true, true, kChannelsAll); }},
      {"yuv blur 10 stack", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetYUVBlur(10, kYUVBlurStack); }},
      {"bounded blur", false,
       [](KVImageProcessor& p, unsigned w, unsigned h) {
         const kvo::maths::KVRect rect(kvo::maths::KVPoint2(0, 0), static_cast<int>(w), static_cast<int>(h * 6 / 10));
         return p.SetBoundedStackBlur(8, true, true, kChannelsAll, rect, 10.0);
       }},
      {"defocus 6", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetDefocus(6, 0.3, 0.0); }},
      {"diffuse 8", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetDiffuse(8, 0.6, 0.0); }},
      {"sharpen 3", false, [](KVImageProcessor& p, unsigned, unsigned) { return p.SetSharpen(3, 1.0, 0.02, 0.0); }},
      {"soft focus screen", false,
       [](KVImageProcessor& p, unsigned w, unsigned h) {
         const kvo::maths::KVRect all(kvo::maths::KVPoint2(0, 0), static_cast<int>(w), static_cast<int>(h));
         return p.SetSoftFocus(kBlendScreen, 8, 0.6, all, 0.0);
       }},
      {"bleach bypass", false,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetBleachBypass(0.8, 0.5, 0.5); }},
      {"vignette", false,
       [](KVImageProcessor& p, unsigned, unsigned) {
         return p.SetVignette(KVPixel8_RGB{0, 0, 0}, 0.8, 0.3, 0.5, 0.6, 0.2, kvo::maths::KVRect());
       }},
      {"depth of field", false,
       [](KVImageProcessor& p, unsigned w, unsigned h) {
         return p.SetDepthOfField(kDepthOfFieldLinear, kvo::maths::KVPoint2F(w / 2.0, h * 0.7), 0.0, 8, 0.05, 0.25,
                                  1.0, 0.0, kvo::maths::KVRect());
       }},
      {"alpha blur 4", true,
       [](KVImageProcessor& p, unsigned, unsigned) { return p.SetStackBlur(4, true, true, kChannelsAlpha); }},
  };
  return tiles;
}

Image ContactSheet(const Image& composite, const Image& keyed, kvo::KVLookupTables& tables) {
  const unsigned int columns = 5, gap = 6, label = 16;
  const unsigned int tileWidth = std::max(16u, (composite.width / 4) & ~1u);
  const unsigned int tileHeight = std::max(9u, tileWidth * composite.height / composite.width);
  const std::vector<EffectTile>& tiles = EffectTiles();
  const unsigned int rows = static_cast<unsigned int>((tiles.size() + columns - 1) / columns);
  Image sheet(columns * tileWidth + (columns + 1) * gap, rows * (tileHeight + label + gap) + gap);
  for (size_t i = 0; i < sheet.bgra.size(); i += 4) {
    sheet.bgra[i] = 34;
    sheet.bgra[i + 1] = 30;
    sheet.bgra[i + 2] = 28;
    sheet.bgra[i + 3] = 255;
  }
  const Image smallComposite = Reduce(composite, tileWidth, tileHeight);
  const Image smallKeyed = Reduce(keyed, tileWidth, tileHeight);
  const unsigned char ink[3] = {235, 235, 235};
  for (size_t i = 0; i < tiles.size(); ++i) {
    const Image& source = tiles[i].keyedSource ? smallKeyed : smallComposite;
    Image tile = source;  // the destination starts as the source: a stage that writes nothing shows it
    if (tiles[i].queue) {
      // A copy per tile: some stages (defocus) blur their input in place.
      Image input = source;
      KVImage8 in(input.bgra.data(), tileWidth, tileHeight, kPixelOrderBGRA);
      KVImage8 out(tile.bgra.data(), tileWidth, tileHeight, kPixelOrderBGRA);
      KVImageProcessor processor(&in, &out, tables, kDownsampleNone);
      Check(tiles[i].queue(processor, tileWidth, tileHeight), tiles[i].label);
      Check(processor.Render(), tiles[i].label);
    }
    const unsigned int left = gap + static_cast<unsigned int>(i % columns) * (tileWidth + gap);
    const unsigned int top = gap + static_cast<unsigned int>(i / columns) * (tileHeight + label + gap);
    Place(sheet, tile, left, top + label);
    DrawText(sheet, static_cast<int>(left), static_cast<int>(top + 4), tiles[i].label, 1, ink);
  }
  return sheet;
}

void MakeDirectory(const std::string& directory) {
  if (directory.empty()) return;
  std::string partial;
  size_t start = 0;
  while (start <= directory.size()) {
    const size_t slash = directory.find('/', start);
    partial = directory.substr(0, slash == std::string::npos ? directory.size() : slash);
    if (!partial.empty() && mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST) {
      throw FileError("cannot create directory '" + partial + "': " + std::strerror(errno));
    }
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  struct stat info;
  if (stat(directory.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    throw FileError("cannot use '" + directory + "' as the output directory: not a directory");
  }
}

}  // namespace

void RunDemo(const std::string& directory, unsigned int width, unsigned int height, std::FILE* out) {
  MakeDirectory(directory);
  const std::string prefix = directory.empty() ? "" : (directory.back() == '/' ? directory : directory + "/");
  const Clock::time_point started = Clock::now();
  std::fprintf(out, "kvimage demo: %ux%u frame, %u threads\n", width, height, kvo::KVSystem::GetCPUCoreCount());

  Clock::time_point step = Clock::now();
  const Image frame = SynthesiseGreenScreenFrame(width, height);
  Image composite = SynthesiseBackgroundScene(width, height);
  std::fprintf(out, "  %-58s %8.1f ms\n", "synthesised the green-screen frame and the background scene",
               MillisecondsSince(step));

  kvo::KVLookupTables tables;
  step = Clock::now();
  Image keyed(width, height);
  KVImage8 frameImage(const_cast<unsigned char*>(frame.bgra.data()), width, height, kPixelOrderBGRA);
  KVImage8 keyedImage(keyed.bgra.data(), width, height, kPixelOrderBGRA);
  KVKeyColor detected = kKeyColorGreen;
  AutoDetectKeyColor(&frameImage, static_cast<int>(kvo::KVSystem::GetCPUCoreCount()), &detected);
  {
    KVImageKeyer keyer(&frameImage, &keyedImage, tables, kDownsampleNone);
    const KVChannel spillChannel = detected == kKeyColorBlue ? kChannelBlue : kChannelGreen;
    Check(keyer.SetAutoColorDifferenceKey(kKeyColorAuto, 0.8, 0.2, 0.5), "auto key");
    Check(keyer.SetSpillSuppression(spillChannel, kSpillStandard, 1.0, 0, 0, 0, 0), "spill suppression");
    Check(keyer.SetWhiteErode(kWhiteErodeAll, 1), "white erode");
    Check(keyer.SetAlphaCrop(0.04, 0.0, 0.045, 0.0), "alpha crop");
    Check(keyer.Render(), "keying");
  }
  std::fprintf(out, "  %-58s %8.1f ms\n",
               (std::string("keyed: auto key (") + (detected == kKeyColorBlue ? "blue" : "green") +
                "), spill, white erode 1, alpha crop")
                   .c_str(),
               MillisecondsSince(step));

  step = Clock::now();
  {
    // The subject throws a soft shadow across the floor and a faint glow of
    // its own colours onto the scene before it is laid over it.
    KVImage8 sceneImage(composite.bgra.data(), width, height, kPixelOrderBGRA);
    KVImageCompositor compositor(&sceneImage, 1.0, tables, kDownsampleNone);
    const double w = width, h = height;
    const kvo::maths::KVRect standing(kvo::maths::KVPoint2(0, 0), static_cast<int>(width), static_cast<int>(height));
    const kvo::maths::KVQuad floor(kvo::maths::KVPoint2F(0.45 * w, 0.62 * h), kvo::maths::KVPoint2F(1.2 * w, 0.62 * h),
                                   kvo::maths::KVPoint2F(0.0, h), kvo::maths::KVPoint2F(w, h));
    Check(compositor.AddShadowCastLayer(&keyedImage, standing, floor, 6, 0.45, KVPixel8_RGB{10, 10, 20}, kBlendMultiply,
                                        true, kDownsampleNone),
          "cast shadow");
    Check(compositor.AddLightSpillLayer(&keyedImage, 12, 0.3, kBlendScreen, kDownsampleNone), "light spill");
    Check(compositor.Render(), "shadow and light spill");
  }
  CompositeOver(composite, keyed, tables, "the keyed frame");
  std::fprintf(out, "  %-58s %8.1f ms\n", "cast shadow, light spill, keyed frame laid over the scene",
               MillisecondsSince(step));

  step = Clock::now();
  Image matte(width, height);
  {
    KVImage8 matteImage(matte.bgra.data(), width, height, kPixelOrderBGRA);
    KVImageProcessor processor(&keyedImage, &matteImage, tables, kDownsampleNone);
    Check(processor.SetMatteView(), "matte view");
    Check(processor.Render(), "matte view");
  }
  std::fprintf(out, "  %-58s %8.1f ms\n", "matte view of the key", MillisecondsSince(step));

  step = Clock::now();
  const Image sheet = ContactSheet(composite, keyed, tables);
  std::fprintf(out, "  %-58s %8.1f ms\n",
               ("rendered " + std::to_string(EffectTiles().size() - 1) + " effect tiles").c_str(),
               MillisecondsSince(step));

  const struct {
    const char* name;
    const Image* image;
  } outputs[] = {{"frame.png", &frame},
                 {"matte.png", &matte},
                 {"keyed.png", &keyed},
                 {"composite.png", &composite},
                 {"effects.png", &sheet}};
  for (const auto& output : outputs) {
    step = Clock::now();
    const std::string path = prefix + output.name;
    WriteOptions options;
    options.pngCompression = 3;  // most of the size for a fraction of the time
    WriteImage(path, *output.image, options);
    const std::string line =
        "wrote " + path + " (" + std::to_string(output.image->width) + "x" + std::to_string(output.image->height) + ")";
    std::fprintf(out, "  %-58s %8.1f ms\n", line.c_str(), MillisecondsSince(step));
  }
  std::fprintf(out, "  %-58s %8.1f ms\n", "total", MillisecondsSince(started));
}

}  // namespace kvimage_cli
