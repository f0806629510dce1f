#ifndef KVIMAGE_TESTS_FUZZ_PIPELINESCENARIO_H
#define KVIMAGE_TESTS_FUZZ_PIPELINESCENARIO_H

// A pipeline scenario decoded from a string of bytes: a front end, image
// sizes (empty, 1x1, long and thin, small), a channel order, a thread count
// and a queue of setters called with hostile arguments (NaN, infinities,
// huge and negative values, every enumeration value and some outside the
// enumerations). The fuzzer decodes its input this way; the stress test
// decodes bytes from a seeded generator.
//
// The only combinations built around are the ones that are programming
// errors by contract and abort with an assertion:
// - a source of channel order 2 reaching a stage that handles order 1 only;
// - a compositor over an order-2 background faded at construction (the fade
//   runs the opacity stage, which handles order 1 only).
// Everything else must come back as a result code from the documented set.
#include <kvimage/kvimage.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace kvfuzz {

using namespace kvo::image;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;

// Reads the scenario's choices; past the end of the input every read is 0.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  uint8_t Byte() { return m_position < m_size ? m_data[m_position++] : 0; }
  bool Bool() { return (Byte() & 1) != 0; }
  uint16_t U16() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
  uint32_t U32() { return static_cast<uint32_t>(U16()) | (static_cast<uint32_t>(U16()) << 16); }
  unsigned int Below(unsigned int bound) { return bound == 0 ? 0 : Byte() % bound; }

  // Mostly values around the setters' ranges, a quarter of the time one of
  // the values a broken host expression produces.
  double Double() {
    static const double kSpecial[] = {std::numeric_limits<double>::quiet_NaN(),
                                      -std::numeric_limits<double>::quiet_NaN(),
                                      std::numeric_limits<double>::infinity(),
                                      -std::numeric_limits<double>::infinity(),
                                      0.0, -0.0, 1.0, -1.0, 0.5, 2.0, 0.8, 360.0, 1500.0, 13500.0,
                                      1e300, -1e300, std::numeric_limits<double>::max(),
                                      std::numeric_limits<double>::lowest(),
                                      std::numeric_limits<double>::denorm_min(), 1.0000000000000002,
                                      -1e-300, 4294967296.0, 2147483648.0, -2147483649.0};
    const uint8_t choice = Byte();
    if (choice < 64) return kSpecial[choice % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
    if (choice < 80) {
      double raw;
      const uint32_t low = U32(), high = U32();
      const uint64_t bits = (static_cast<uint64_t>(high) << 32) | low;
      std::memcpy(&raw, &bits, sizeof raw);
      return raw;
    }
    return -0.25 + 2.5 * (U16() / 65535.0);
  }

  // Small radii mostly; sometimes the limits and beyond.
  unsigned int Radius() {
    static const unsigned int kSpecial[] = {0u, 1u, 2u, 254u, 255u, 256u, 2895u, 2896u, 65535u, 100000u,
                                            10000000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    const uint8_t choice = Byte();
    if (choice >= 16) return choice % 24;
    return kSpecial[choice % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
  }

  int Int() {
    static const int kSpecial[] = {INT_MIN, INT_MIN + 1, -100000, -1, 0, 1, 10000000, INT_MAX - 1, INT_MAX};
    const uint8_t choice = Byte();
    if (choice < 32) return kSpecial[choice % (sizeof(kSpecial) / sizeof(kSpecial[0]))];
    return static_cast<int>(choice % 64) - 16;
  }

  // Every value of [first, last] and the usual out-of-range ones.
  template <class Enum>
  Enum Enumeration(int first, int last) {
    static const int kOutside[] = {-1, INT_MIN, INT_MAX, 255, 256, 1000};
    const uint8_t choice = Byte();
    if (choice < 224) return static_cast<Enum>(first + choice % (last - first + 1));
    if (choice < 232) return static_cast<Enum>(first - 1);
    if (choice < 240) return static_cast<Enum>(last + 1);
    return static_cast<Enum>(kOutside[choice % (sizeof(kOutside) / sizeof(kOutside[0]))]);
  }

  KVRect Rect() {
    if (Byte() < 128) {  // a rectangle in or near a small image
      const int left = static_cast<int>(Below(40)) - 8, top = static_cast<int>(Below(40)) - 8;
      return KVRect(KVPoint2(left, top), static_cast<int>(Below(48)) - 4, static_cast<int>(Below(48)) - 4);
    }
    const int left = Int(), top = Int(), width = Int(), height = Int();
    return KVRect(KVPoint2(left, top), width, height);
  }
  KVPoint2F PointF() {
    if (Byte() < 160) return KVPoint2F(Below(48) - 8.0, Below(48) - 8.0);
    const double x = Double(), y = Double();
    return KVPoint2F(x, y);
  }
  KVPixel8_RGB Colour() {
    KVPixel8_RGB colour;
    colour.red = Byte();
    colour.green = Byte();
    colour.blue = Byte();
    return colour;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_position = 0;
};

// Codes that a public call may return.
inline bool IsDocumentedCode(int code) {
  switch (code) {
    case 0: case 2: case 3: case 4: case 7: case 8: case 10: case 1000: case 1001:
      return true;
    default:
      return false;
  }
}

// An image in its own exactly sized heap block, so that a sanitizer sees
// any access past its end.
class Frame {
 public:
  Frame(unsigned int width, unsigned int height, KVPixelChannelOrder order, uint32_t seed)
      : m_bytes(static_cast<size_t>(width) * height * 4), m_pixels(new unsigned char[m_bytes]) {
    uint32_t state = seed * 2654435761u + 1u;
    for (size_t i = 0; i < m_bytes; ++i) {
      state = state * 1664525u + 1013904223u;
      m_pixels[i] = static_cast<unsigned char>(state >> 24);
    }
    // Some fully opaque and fully transparent pixels, and a green screen
    // patch, so that keying and compositing take every branch.
    for (size_t i = 0; i + 3 < m_bytes; i += 4) {
      const size_t pixel = i / 4;
      if (pixel % 5 == 0) m_pixels[i + 3] = 255;
      if (pixel % 7 == 0) m_pixels[i + 3] = 0;
      if (pixel % 3 == 0) {
        m_pixels[i + 0] = 30;
        m_pixels[i + 1] = 200;
        m_pixels[i + 2] = 40;
      }
    }
    m_image.reset(new KVImage8(m_pixels.get(), width, height, order));
  }

  KVImage8* image() { return m_image.get(); }
  std::vector<unsigned char> contents() const {
    return std::vector<unsigned char>(m_pixels.get(), m_pixels.get() + m_bytes);
  }
  void restore(const std::vector<unsigned char>& bytes) {
    if (m_bytes != 0) std::memcpy(m_pixels.get(), bytes.data(), m_bytes);
  }

 private:
  size_t m_bytes;
  std::unique_ptr<unsigned char[]> m_pixels;
  std::unique_ptr<KVImage8> m_image;
};

struct Size {
  unsigned int width;
  unsigned int height;
};

// Empty, single-pixel, long and thin, and small images.
inline Size DecodeSize(ByteReader& in) {
  switch (in.Below(8)) {
    case 0: return {0, 1 + in.Below(40)};
    case 1: return {1 + in.Below(40), 0};
    case 2: return {1, 1};
    case 3: return {1, 1u + in.Byte()};
    case 4: return {1u + in.Byte(), 1};
    case 5: return {2 + in.Below(3), 40 + in.Below(100)};
    default: return {1 + in.Below(24), 1 + in.Below(24)};
  }
}

enum FrontEndKind { kProcessorFrontEnd = 0, kKeyerFrontEnd = 1, kCompositorFrontEnd = 2 };

// One decoded scenario, built and ready to render.
class Scenario {
 public:
  Scenario(ByteReader& in, kvo::KVLookupTables& tables) {
    m_kind = static_cast<FrontEndKind>(in.Below(3));
    // Mostly a few threads (fast executions), now and then up to 64.
    const uint8_t threadChoice = in.Byte();
    m_threads = threadChoice < 192 ? 1u + threadChoice % 4 : 1u + threadChoice % 64;
    m_order = in.Below(4) == 0 ? kPixelOrderARGB : kPixelOrderBGRA;
    const Size size = DecodeSize(in);
    const KVDownsampleFactor factor = in.Enumeration<KVDownsampleFactor>(0, 3);
    m_source.reset(new Frame(size.width, size.height, m_order, in.U16()));
    if (m_kind == kCompositorFrontEnd) {
      double opacity = in.Byte() < 128 ? 1.0 : in.Double();
      // Fading an order-2 background runs the order-1-only opacity stage.
      if (m_order == kPixelOrderARGB && opacity < 1.0) opacity = 1.0;
      m_compositor.reset(new KVImageCompositor(m_source->image(), opacity, tables, factor));
    } else {
      // Render does not compare the destination with the source: now and
      // then the destination has another size.
      const Size other = in.Below(8) == 0 ? DecodeSize(in) : size;
      m_destination.reset(new Frame(other.width, other.height, m_order, in.U16()));
      if (m_kind == kProcessorFrontEnd) {
        m_processor.reset(new KVImageProcessor(m_source->image(), m_destination->image(), tables, factor));
      } else {
        m_keyer.reset(new KVImageKeyer(m_source->image(), m_destination->image(), tables, factor));
      }
    }
    const unsigned int stages = in.Below(7);
    for (unsigned int i = 0; i < stages; ++i) {
      const int code = m_kind == kProcessorFrontEnd ? QueueEffect(in)
                       : m_kind == kKeyerFrontEnd   ? QueueKeying(in, size)
                                                    : QueueLayer(in, size, tables);
      if (!IsDocumentedCode(code)) m_failure = "setter returned undocumented code " + std::to_string(code);
    }
  }

  FrontEndKind kind() const { return m_kind; }
  unsigned int threads() const { return m_threads; }
  // True when every queued stage gives the same bytes whatever the thread
  // count (the stress test compares counts only then).
  bool threadCountIndependent() const { return m_threadCountIndependent; }
  const std::string& failure() const { return m_failure; }
  unsigned short queued() const {
    return m_processor ? m_processor->RenderQueueCount()
                       : (m_keyer ? m_keyer->RenderQueueCount() : m_compositor->RenderQueueCount());
  }

  // The bytes and code of one render from the scenario's starting images,
  // which are restored afterwards. A changed source or layer is a failure,
  // except for the source of a queue that opens with a defocus stage, which
  // blurs its input in place by design.
  struct Outcome {
    int code;
    std::vector<unsigned char> bytes;
  };
  Outcome Render(unsigned int threads, unsigned int restoredCoreCount = 0) {
    Frame& canvas = m_compositor ? *m_source : *m_destination;
    const std::vector<unsigned char> start = canvas.contents();
    const std::vector<unsigned char> source = m_source->contents();
    kvo::KVSystem::SetCPUCoreCount(threads);
    Outcome outcome;
    outcome.code = m_processor ? m_processor->Render() : (m_keyer ? m_keyer->Render() : m_compositor->Render());
    kvo::KVSystem::SetCPUCoreCount(restoredCoreCount);
    outcome.bytes = canvas.contents();
    canvas.restore(start);
    if (!IsDocumentedCode(outcome.code)) m_failure = "Render returned undocumented code " + std::to_string(outcome.code);
    if (m_blursSourceInPlace) {
      m_source->restore(source);
    } else if (!m_compositor && m_source->contents() != source) {
      m_failure = "Render changed its source";
    }
    for (size_t i = 0; i < m_layers.size(); ++i) {
      if (m_layers[i]->contents() != m_layerBytes[i]) m_failure = "Render changed a layer";
    }
    return outcome;
  }

 private:
  int QueueEffect(ByteReader& in) {
    // Stages that abort on an order-2 source are replaced by the matte view.
    enum { kOpacity, kMirror, kSilhouette, kMatteView, kBrightness, kContrast, kSuperContrast, kColorBalance,
           kColorTemperature, kSaturation, kHueShift, kHueColorize, kTint, kThreeStrip, kStackBlur, kYUVBlur,
           kBoundedBlur, kDefocus, kDiffuse, kSharpen, kSoftFocus, kBleachBypass, kVignette, kDepthOfField,
           kEffectCount };
    int which = static_cast<int>(in.Below(kEffectCount));
    const bool orderOneOnly = which == kOpacity || which == kSilhouette || which == kBrightness ||
                              which == kContrast || which == kSuperContrast || which == kColorBalance ||
                              which == kTint || which == kThreeStrip || which == kDefocus || which == kDiffuse ||
                              which == kSharpen || which == kSoftFocus;
    if (orderOneOnly && m_order != kPixelOrderBGRA) which = kMatteView;
    KVImageProcessor& p = *m_processor;
    switch (which) {
      case kOpacity:
        m_threadCountIndependent = false;  // the vector path's shares
        return p.SetOpacity(in.Double());
      case kMirror: {
        const bool first = in.Bool();
        return p.SetMirror(first, in.Bool());
      }
      case kSilhouette: return p.SetSilhouette(in.Colour());
      case kMatteView: return p.SetMatteView();
      case kBrightness: {
        m_threadCountIndependent = false;
        const double amount = in.Double();
        return p.SetBrightness(amount, in.Enumeration<KVChannelsToProcess>(3, 5));
      }
      case kContrast: {
        m_threadCountIndependent = false;
        const double amount = in.Double();
        return p.SetContrast(amount, in.Enumeration<KVChannelsToProcess>(3, 5));
      }
      case kSuperContrast: {
        m_threadCountIndependent = false;
        const double low = in.Double(), high = in.Double();
        return p.SetSuperContrast(low, high, in.Enumeration<KVChannelsToProcess>(3, 5));
      }
      case kColorBalance: {
        m_threadCountIndependent = false;
        const double r = in.Double(), g = in.Double(), b = in.Double();
        return p.SetColorBalance(r, g, b);
      }
      case kColorTemperature:
        return p.SetColorTemperature(in.Byte() < 128 ? 1500.0 + in.U16() % 12001 : in.Double());
      case kSaturation: return p.SetSaturation(in.Double());
      case kHueShift: {
        const double shift = in.Byte() < 128 ? in.U16() % 361 : in.Double();
        return p.SetHueShift(shift, in.Double());
      }
      case kHueColorize: {
        const double hue = in.Byte() < 128 ? in.U16() % 361 : in.Double();
        return p.SetHueColorize(hue, in.Double());
      }
      case kTint: {
        const KVTintType type = in.Enumeration<KVTintType>(0, 10);
        return p.SetTint(type, in.Double());
      }
      case kThreeStrip: {
        const double a = in.Double(), b = in.Double(), c = in.Double();
        return p.SetThreeStripColor(a, b, c);
      }
      case kStackBlur: {
        const unsigned int radius = in.Radius();
        const bool h = in.Bool(), v = in.Bool();
        return p.SetStackBlur(radius, h, v, in.Enumeration<KVChannelsToProcess>(3, 5));
      }
      case kYUVBlur: {
        const unsigned int radius = in.Radius();
        return p.SetYUVBlur(radius, in.Enumeration<KVYUVBlurType>(0, 4));
      }
      case kBoundedBlur: {
        const unsigned int radius = in.Radius();
        const bool h = in.Bool(), v = in.Bool();
        const KVChannelsToProcess channels = in.Enumeration<KVChannelsToProcess>(3, 5);
        const KVRect rect = in.Rect();
        return p.SetBoundedStackBlur(radius, h, v, channels, rect, in.Double());
      }
      case kDefocus: {
        m_threadCountIndependent = false;
        const unsigned int radius = in.Radius();
        const double amount = in.Double();
        // The defocus blurs its input in place: queued first, the source.
        const bool first = p.RenderQueueCount() == 0;
        const int code = p.SetDefocus(radius, amount, in.Double());
        if (code == 0 && first) m_blursSourceInPlace = true;
        return code;
      }
      case kDiffuse: {
        m_threadCountIndependent = false;
        const unsigned int radius = in.Radius();
        const double amount = in.Double();
        return p.SetDiffuse(radius, amount, in.Double());
      }
      case kSharpen: {
        m_threadCountIndependent = false;
        const unsigned int radius = in.Radius();
        const double amount = in.Double(), threshold = in.Double();
        return p.SetSharpen(radius, amount, threshold, in.Double());
      }
      case kSoftFocus: {
        m_threadCountIndependent = false;
        const KVBlendMode mode = in.Enumeration<KVBlendMode>(0, 13);
        const unsigned int radius = in.Radius();
        const double amount = in.Double();
        const KVRect rect = in.Rect();
        return p.SetSoftFocus(mode, radius, amount, rect, in.Double());
      }
      case kBleachBypass: {
        m_threadCountIndependent = false;
        const double amount = in.Double(), desaturation = in.Double();
        return p.SetBleachBypass(amount, desaturation, in.Double());
      }
      case kVignette: {
        m_threadCountIndependent = false;
        const KVPixel8_RGB colour = in.Colour();
        const double amount = in.Double(), midpoint = in.Double(), roundness = in.Double(), feather = in.Double();
        const double highlights = in.Double();
        return p.SetVignette(colour, amount, midpoint, roundness, feather, highlights, in.Rect());
      }
      default: {
        m_threadCountIndependent = false;
        const KVDepthOfFieldType type = in.Enumeration<KVDepthOfFieldType>(0, 1);
        const KVPoint2F focus = in.PointF();
        const double angle = in.Double();
        const unsigned int radius = in.Radius();
        const double focusSize = in.Double(), transition = in.Double(), amount = in.Double();
        const double blurParameter = in.Double();
        return p.SetDepthOfField(type, focus, angle, radius, focusSize, transition, amount, blurParameter,
                                 in.Rect());
      }
    }
  }

  int QueueKeying(ByteReader& in, Size) {
    enum { kKey, kAlphaSuperContrast, kSpill, kAlphaCrop, kWhiteErode, kYUVBlur, kAlphaBlur, kKeyingCount };
    int which = static_cast<int>(in.Below(kKeyingCount));
    const bool orderOneOnly = which == kAlphaSuperContrast || which == kAlphaCrop || which == kWhiteErode;
    if (orderOneOnly && m_order != kPixelOrderBGRA) which = kAlphaBlur;
    KVImageKeyer& k = *m_keyer;
    switch (which) {
      case kKey: {
        m_threadCountIndependent = false;  // per-thread statistics
        const KVKeyColor colour = in.Enumeration<KVKeyColor>(0, 2);
        const double balance = in.Double(), limit = in.Double();
        return k.SetAutoColorDifferenceKey(colour, balance, limit, in.Double());
      }
      case kAlphaSuperContrast: {
        m_threadCountIndependent = false;
        const double low = in.Double();
        return k.SetAlphaSuperContrast(low, in.Double());
      }
      case kSpill: {
        m_threadCountIndependent = false;
        const KVChannel channel = in.Enumeration<KVChannel>(0, 1);
        const KVSpillType type = in.Enumeration<KVSpillType>(0, 2);
        const double amount = in.Double(), red = in.Double(), green = in.Double(), blue = in.Double();
        return k.SetSpillSuppression(channel, type, amount, red, green, blue, in.Double());
      }
      case kAlphaCrop: {
        const double left = in.Double(), top = in.Double(), right = in.Double();
        return k.SetAlphaCrop(left, top, right, in.Double());
      }
      case kWhiteErode: {
        const KVWhiteErodeDirection direction = in.Enumeration<KVWhiteErodeDirection>(0, 2);
        return k.SetWhiteErode(direction, in.Int());
      }
      case kYUVBlur: {
        const unsigned int radius = in.Radius();
        return k.SetYUVBlur(radius, in.Enumeration<KVYUVBlurType>(0, 4));
      }
      default: {
        const unsigned int radius = in.Radius();
        const bool h = in.Bool();
        return k.SetAlphaStackBlur(radius, h, in.Bool());
      }
    }
  }

  int QueueLayer(ByteReader& in, Size size, kvo::KVLookupTables&) {
    m_threadCountIndependent = false;
    // Mostly a layer of the background's size (others are refused, except
    // by the shadow stage, which takes any size).
    const Size layerSize = in.Below(6) == 0 ? DecodeSize(in) : size;
    const KVPixelChannelOrder order = in.Below(8) == 0 ? (m_order == kPixelOrderBGRA ? kPixelOrderARGB : kPixelOrderBGRA)
                                                       : m_order;
    m_layers.emplace_back(new Frame(layerSize.width, layerSize.height, order, in.U16()));
    m_layerBytes.push_back(m_layers.back()->contents());
    KVImage8* layer = m_layers.back()->image();
    const bool shared = in.Bool();
    std::tr1::shared_ptr<KVAbstractImage> sharedLayer = CreateImage(layer->Buffer(), layer->Width(), layer->Height(), order);
    m_sharedLayers.push_back(sharedLayer);
    KVImageCompositor& c = *m_compositor;
    switch (in.Below(3)) {
      case 0: {
        const double opacity = in.Double();
        const KVBlendMode mode = in.Enumeration<KVBlendMode>(0, 13);
        const KVCompositeType type = in.Enumeration<KVCompositeType>(0, 2);
        return shared ? c.AddLayer(sharedLayer, opacity, mode, type) : c.AddLayer(layer, opacity, mode, type);
      }
      case 1: {
        const int radius = in.Byte() < 200 ? static_cast<int>(in.Radius() & 0x7FFFFFFFu) : in.Int();
        const double amount = in.Double();
        const KVBlendMode mode = in.Enumeration<KVBlendMode>(0, 13);
        const KVDownsampleFactor factor = in.Enumeration<KVDownsampleFactor>(0, 3);
        return shared ? c.AddLightSpillLayer(sharedLayer, radius, amount, mode, factor)
                      : c.AddLightSpillLayer(layer, radius, amount, mode, factor);
      }
      default: {
        const KVRect bounds = in.Rect();
        const KVPoint2F a = in.PointF(), b = in.PointF(), d = in.PointF(), e = in.PointF();
        const KVQuad corners(a, b, d, e);
        const unsigned int radius = in.Radius();
        const double amount = in.Double();
        const KVPixel8_RGB colour = in.Colour();
        const KVBlendMode mode = in.Enumeration<KVBlendMode>(0, 13);
        const bool flag = in.Bool();
        const KVDownsampleFactor factor = in.Enumeration<KVDownsampleFactor>(0, 3);
        return shared ? c.AddShadowCastLayer(sharedLayer, bounds, corners, radius, amount, colour, mode, flag, factor)
                      : c.AddShadowCastLayer(layer, bounds, corners, radius, amount, colour, mode, flag, factor);
      }
    }
  }

  FrontEndKind m_kind;
  unsigned int m_threads;
  KVPixelChannelOrder m_order;
  bool m_threadCountIndependent = true;
  bool m_blursSourceInPlace = false;
  std::string m_failure;
  std::unique_ptr<Frame> m_source;
  std::unique_ptr<Frame> m_destination;
  std::vector<std::unique_ptr<Frame>> m_layers;
  std::vector<std::vector<unsigned char>> m_layerBytes;
  std::vector<std::tr1::shared_ptr<KVAbstractImage>> m_sharedLayers;
  std::unique_ptr<KVImageProcessor> m_processor;
  std::unique_ptr<KVImageKeyer> m_keyer;
  std::unique_ptr<KVImageCompositor> m_compositor;
};

}  // namespace kvfuzz

#endif
