#ifndef KVIMAGE_TESTS_KEYINGFRAMES_H
#define KVIMAGE_TESTS_KEYINGFRAMES_H

// Deterministic frames that look like studio footage shot against a green or
// blue backing: the backing is lit unevenly (a gradient across and down the
// frame) and carries sensor noise; in front of it stands a head-and-shoulders
// subject whose outline is soft (a few pixels of partial coverage), with fine
// semi-transparent hair strands, and whose colours pick up backing light
// (spill) within a few pixels of the outline. Each frame keeps its ground
// truth: the subject's coverage of every pixel and the distance of every
// pixel from the outline.
#include <kvimage/kvimage.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kvtest {

struct KeyingFrame {
  unsigned int width;
  unsigned int height;
  kvo::image::KVKeyColor keyColor;
  std::vector<unsigned char> pixels;  // BGRA, alpha 255
  // The subject's coverage of each pixel: 0 backing, 255 subject.
  std::vector<unsigned char> coverage;
  // Signed distance in pixels from the subject's outline (hair excluded):
  // negative inside the subject, positive on the backing.
  std::vector<float> outlineDistance;
  // The spill added to the key channel of each pixel (0 away from the outline).
  std::vector<unsigned char> spill;

  size_t Index(unsigned int x, unsigned int y) const { return static_cast<size_t>(y) * width + x; }
};

namespace keyingframes {

inline double Clamp01(double v) { return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v); }
inline unsigned char ToByte(double v) {
  return static_cast<unsigned char>(v < 0.0 ? 0.0 : (v > 255.0 ? 255.0 : v + 0.5));
}

// Approximate signed distance in pixels from an axis-aligned ellipse.
inline double EllipseDistance(double x, double y, double cx, double cy, double rx, double ry) {
  const double nx = (x - cx) / rx, ny = (y - cy) / ry;
  const double r = std::sqrt(nx * nx + ny * ny);
  // Scale the normalised radius by the local radius along this direction.
  const double local = r > 0.0 ? std::sqrt((nx * rx) * (nx * rx) + (ny * ry) * (ny * ry)) / r : std::min(rx, ry);
  return (r - 1.0) * local;
}

class Noise {
 public:
  explicit Noise(uint32_t seed) : m_state(seed * 2654435761u + 977u) {}
  // Uniform in [-amplitude, amplitude].
  double Next(double amplitude) {
    m_state = m_state * 1664525u + 1013904223u;
    return ((m_state >> 8) / 16777215.0 * 2.0 - 1.0) * amplitude;
  }

 private:
  uint32_t m_state;
};

}  // namespace keyingframes

// keyColor green or blue picks the backing. Frames of any size from about
// 32 x 24 upward keep the same composition.
inline KeyingFrame MakeKeyingFrame(kvo::image::KVKeyColor keyColor, unsigned int width, unsigned int height,
                                   uint32_t seed = 1) {
  using namespace keyingframes;
  KeyingFrame frame;
  frame.width = width;
  frame.height = height;
  frame.keyColor = keyColor;
  const size_t count = static_cast<size_t>(width) * height;
  frame.pixels.assign(count * 4, 0);
  frame.coverage.assign(count, 0);
  frame.outlineDistance.assign(count, 0.0f);
  frame.spill.assign(count, 0);

  const bool blue = keyColor == kvo::image::kKeyColorBlue;
  // Backing B, G, R at full light.
  const double backing[3] = {blue ? 190.0 : 45.0, blue ? 72.0 : 176.0, blue ? 38.0 : 62.0};
  const unsigned int keyByte = blue ? 0 : 1;
  const double w = width, h = height;
  const double edgeWidth = std::max(1.5, w / 160.0);   // soft outline, in pixels
  const double spillWidth = std::max(3.0, w / 40.0);  // reach of spill inside the outline
  const double spillStrength = 38.0;

  // Head and shoulders.
  const double headX = 0.5 * w, headY = 0.42 * h, headRX = 0.13 * w, headRY = 0.20 * h;
  const double bodyX = 0.5 * w, bodyY = 1.02 * h, bodyRX = 0.34 * w, bodyRY = 0.44 * h;

  // Hair strands: arcs leaving the top of the head, one pixel wide or less.
  const int strandCount = 9;
  Noise noise(seed);
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      const size_t i = frame.Index(x, y);
      const double px = x + 0.5, py = y + 0.5;
      const double distance = std::min(EllipseDistance(px, py, headX, headY, headRX, headRY),
                                       EllipseDistance(px, py, bodyX, bodyY, bodyRX, bodyRY));
      double cover = Clamp01(0.5 - distance / edgeWidth);

      // Strand coverage: thin arcs above the head, fading with length.
      double strand = 0.0;
      for (int s = 0; s < strandCount; ++s) {
        const double angle = -2.4 + 1.8 * s / (strandCount - 1);  // spread over the crown
        const double baseX = headX + headRX * std::cos(angle), baseY = headY + headRY * std::sin(angle);
        const double lengthPx = 0.13 * h;
        const double dy = baseY - py;  // strands rise from their root
        if (dy < 0.0 || dy > lengthPx) continue;
        const double t = dy / lengthPx;
        const double curveX = baseX + std::cos(angle) * t * 0.06 * w + 0.02 * w * t * t;
        const double offset = std::fabs(px - curveX);
        const double thickness = 0.9;
        const double c = Clamp01(1.0 - offset / thickness) * 0.8 * (1.0 - 0.7 * t);
        strand = std::max(strand, c);
      }
      cover = std::max(cover, strand);

      // Backing: brighter to the right, darker towards the floor, plus noise.
      const double light = 0.88 + 0.12 * (px / w) - 0.08 * (py / h);
      double back[3];
      for (int c = 0; c < 3; ++c) back[c] = backing[c] * light + noise.Next(5.0);

      // Subject: skin in the head, a dark red jumper below, textured.
      const bool inHead = py < 0.60 * h;
      double subject[3];
      if (inHead) {
        subject[0] = 118.0 + 10.0 * std::sin(px * 0.3) + noise.Next(4.0);
        subject[1] = 146.0 + 8.0 * std::cos(py * 0.2) + noise.Next(4.0);
        subject[2] = 204.0 + noise.Next(4.0);
      } else {
        subject[0] = 58.0 + 12.0 * std::sin(py * 0.5) + noise.Next(4.0);
        subject[1] = 46.0 + 6.0 * std::cos(px * 0.4) + noise.Next(4.0);
        subject[2] = 126.0 + 14.0 * std::sin(px * 0.1 + py * 0.1) + noise.Next(4.0);
      }
      if (strand > 0.0 && distance > 0.0) {  // hair over the backing
        subject[0] = 38.0, subject[1] = 52.0, subject[2] = 78.0;
      }
      // Spill: backing light bouncing onto the subject near its outline.
      double spill = 0.0;
      if (cover > 0.0 && distance < 0.0 && -distance < spillWidth) {
        spill = spillStrength * (1.0 + distance / spillWidth);
      }
      subject[keyByte] += spill;

      unsigned char* p = &frame.pixels[i * 4];
      for (int c = 0; c < 3; ++c) p[c] = ToByte(cover * subject[c] + (1.0 - cover) * back[c]);
      p[3] = 255;
      frame.coverage[i] = ToByte(cover * 255.0);
      frame.outlineDistance[i] = static_cast<float>(distance);
      frame.spill[i] = ToByte(spill);
    }
  }
  return frame;
}

}  // namespace kvtest

#endif
