#ifndef KVIMAGE_TESTS_FUZZ_PIPELINESCENARIO_H
#define KVIMAGE_TESTS_FUZZ_PIPELINESCENARIO_H

// A pipeline scenario decoded from a string of bytes: a front end, image
// sizes (empty, 1x1, long and thin, small), a channel order, a thread count
// and a queue of setters picked from the stage catalogue and queued by name
// with hostile numbers drawn from each parameter's type and range (NaN,
// infinities, huge and negative values, the range's ends and just beyond,
// every choice and values outside them, now and then a number that does not
// fit its type at all).
//
// The only combinations built around are the ones that are programming
// errors by contract and abort with an assertion:
// - an order-2 image reaching a stage whose row requires BGRA;
// - a compositor over an order-2 background faded at construction (the fade
//   runs the opacity stage, which requires BGRA).
// Everything else must come back as a result code from the documented set.
#include <kvimage/kvimage.h>

#include <algorithm>
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

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInfinity = std::numeric_limits<double>::infinity();

template <class T, size_t N>
T Pick(const T (&values)[N], unsigned int choice) { return values[choice % N]; }

// Reads the scenario's choices; past the end of the input every read is 0.
class ByteReader {
 public:
  ByteReader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  uint8_t Byte() { return m_position < m_size ? m_data[m_position++] : 0; }
  uint16_t U16() { return static_cast<uint16_t>(Byte() | (Byte() << 8)); }
  unsigned int Below(size_t bound) { return bound == 0 ? 0 : static_cast<unsigned int>(Byte() % bound); }

  // Mostly a value in or just around minimum..maximum (an unbounded side
  // narrowed to 64 from zero), often the ends themselves and just beyond
  // them, a quarter of the time one of the values a broken host expression
  // produces.
  double Real(double minimum, double maximum) {
    static const double kSpecial[] = {kNaN, -kNaN, kInfinity, -kInfinity, 0.0, -0.0, 1.0, -1.0, 0.5, 2.0, 1e300,
                                      -1e300, std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
                                      std::numeric_limits<double>::denorm_min(), 1.0000000000000002, -1e-300,
                                      4294967296.0, 2147483648.0, -2147483649.0};
    const uint8_t choice = Byte();
    if (choice < 64) return Pick(kSpecial, choice);
    if (choice < 96) {
      const double ends[] = {minimum, maximum, std::nextafter(minimum, -kInfinity),
                             std::nextafter(maximum, kInfinity), minimum - 1.0, maximum + 1.0};
      return Pick(ends, choice);
    }
    if (choice < 104) {
      double raw;
      const uint64_t bits = static_cast<uint64_t>(U16()) | static_cast<uint64_t>(U16()) << 16 |
                            static_cast<uint64_t>(U16()) << 32 | static_cast<uint64_t>(U16()) << 48;
      std::memcpy(&raw, &bits, sizeof raw);
      return raw;
    }
    const double low = minimum < -4096.0 ? -64.0 : minimum;
    const double high = maximum > 4096.0 ? std::fmax(low, 0.0) + 64.0 : maximum;
    return low + (high - low) * (-0.125 + 1.25 * (U16() / 65535.0));
  }

  // A whole number of int's range: mostly small ones from the minimum (a
  // size or radius that fits a small image), sometimes int's limits.
  double Whole(double minimum) {
    static const int kSpecial[] = {INT_MIN, INT_MIN + 1, -100000, -1, 0, 1, 10000000, INT_MAX - 1, INT_MAX};
    const uint8_t choice = Byte();
    if (choice < 32) return Pick(kSpecial, choice);
    return std::fmax(minimum, -16.0) - 2.0 + choice % 64;
  }

  // Small radii mostly; sometimes the limits and beyond.
  double Radius() {
    static const double kSpecial[] = {0,     1,      2,        254,          255,          256,         2895, 2896,
                                      65535, 100000, 10000000, 2147483647.0, 2147483648.0, 4294967295.0};
    const uint8_t choice = Byte();
    return choice >= 16 ? choice % 24 : Pick(kSpecial, choice);
  }

  // Every choice, and the usual values outside them.
  double Choice(const KVParameterInfo& parameter) {
    const uint8_t choice = Byte();
    if (choice < 224) return parameter.choices[choice % parameter.choiceCount].value;
    return Outside(choice, parameter.minimum, parameter.maximum);
  }
  // The same over first..last.
  int Enumeration(int first, int last) {
    const uint8_t choice = Byte();
    return choice < 224 ? first + choice % (last - first + 1) : static_cast<int>(Outside(choice, first, last));
  }

  // A coordinate in or near a small image, or any number.
  double Coordinate() { return Byte() < 160 ? Below(48) - 8.0 : Real(-4096.0, 4096.0); }

  // The numbers of one parameter (none for a layer).
  void Numbers(const KVParameterInfo& parameter, std::vector<double>& values) {
    switch (parameter.type) {
      case kParameterReal: values.push_back(Real(parameter.minimum, parameter.maximum)); break;
      case kParameterInteger: values.push_back(Whole(parameter.minimum)); break;
      case kParameterRadius: values.push_back(Radius()); break;
      case kParameterBool: values.push_back(Byte() & 1); break;
      case kParameterChoice: values.push_back(Choice(parameter)); break;
      case kParameterColour:
        for (int c = 0; c < 3; ++c) values.push_back(Byte());
        break;
      case kParameterRect: {
        // A rectangle in or near a small image, or any four ints.
        const bool small = Byte() < 128;
        for (int c = 0; c < 4; ++c) {
          values.push_back(small ? Below(c < 2 ? 40 : 48) - (c < 2 ? 8.0 : 4.0) : Whole(INT_MIN));
        }
        break;
      }
      case kParameterPoint: case kParameterQuad:
        for (unsigned int c = 0; c < NumberCount(parameter.type); ++c) values.push_back(Coordinate());
        break;
      case kParameterLayer: break;
    }
  }

  // Now and then a number that fits no whole-number type, or none at all.
  void MaybeMisfit(std::vector<double>& values) {
    static const double kMisfits[] = {0.5, -1.0, 2.0, 256.0, kNaN, 4294967296.0, -2147483649.0};
    if (Byte() == 255 && !values.empty()) values[Below(values.size())] = Pick(kMisfits, Byte());
  }

 private:
  static double Outside(uint8_t choice, double first, double last) {
    static const int kOutside[] = {-1, INT_MIN, INT_MAX, 255, 256, 1000};
    if (choice < 232) return first - 1;
    if (choice < 240) return last + 1;
    return Pick(kOutside, choice);
  }

  const uint8_t* m_data;
  size_t m_size;
  size_t m_position = 0;
};

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
      if (pixel % 3 == 0) std::memcpy(&m_pixels[i], "\x1E\xC8\x28", 3);  // blue 30, green 200, red 40
    }
    m_image.reset(new KVImage8(m_pixels.get(), width, height, order));
  }

  KVImage8* image() { return m_image.get(); }
  std::vector<unsigned char> contents() const { return {m_pixels.get(), m_pixels.get() + m_bytes}; }
  void restore(const std::vector<unsigned char>& bytes) { std::copy(bytes.begin(), bytes.end(), m_pixels.get()); }

 private:
  size_t m_bytes;
  std::unique_ptr<unsigned char[]> m_pixels;
  std::unique_ptr<KVImage8> m_image;
};

struct Size {
  unsigned int width, height;
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

// One decoded scenario, built and ready to render.
class Scenario {
 public:
  Scenario(ByteReader& in, kvo::KVLookupTables& tables) {
    m_frontEnd = static_cast<KVFrontEnd>(in.Below(3));
    // Mostly a few threads (fast executions), now and then up to 64.
    const uint8_t threadChoice = in.Byte();
    m_threads = threadChoice < 192 ? 1u + threadChoice % 4 : 1u + threadChoice % 64;
    m_order = in.Below(4) == 0 ? kPixelOrderARGB : kPixelOrderBGRA;
    m_size = DecodeSize(in);
    const KVDownsampleFactor factor = static_cast<KVDownsampleFactor>(in.Enumeration(0, 3));
    m_source.reset(new Frame(m_size.width, m_size.height, m_order, in.U16()));
    if (m_frontEnd == kFrontEndCompositor) {
      double opacity = in.Byte() < 128 ? 1.0 : in.Real(0.0, 1.0);
      // Fading an order-2 background runs the opacity stage.
      if (m_order == kPixelOrderARGB && opacity < 1.0) opacity = 1.0;
      m_compositor.reset(new KVImageCompositor(m_source->image(), opacity, tables, factor));
    } else {
      // Render does not compare the destination with the source: now and
      // then the destination has another size.
      const Size other = in.Below(8) == 0 ? DecodeSize(in) : m_size;
      m_destination.reset(new Frame(other.width, other.height, m_order, in.U16()));
      if (m_frontEnd == kFrontEndProcessor) {
        m_processor.reset(new KVImageProcessor(m_source->image(), m_destination->image(), tables, factor));
      } else {
        m_keyer.reset(new KVImageKeyer(m_source->image(), m_destination->image(), tables, factor));
      }
    }
    // The rows of this front end the images may reach.
    std::vector<const KVSetterInfo*> rows;
    for (unsigned int i = 0; i < SetterCount(); ++i) {
      const KVSetterInfo* row = SetterAt(i);
      if (row->frontEnd == m_frontEnd && (!row->requiresBGRA || m_order == kPixelOrderBGRA)) rows.push_back(row);
    }
    const unsigned int stages = in.Below(7);
    for (unsigned int i = 0; i < stages && !rows.empty(); ++i) Queue(in, *rows[in.Below(rows.size())]);
  }

  unsigned int threads() const { return m_threads; }
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
  Outcome Render(unsigned int threads) {
    Frame& canvas = m_compositor ? *m_source : *m_destination;
    const std::vector<unsigned char> start = canvas.contents();
    const std::vector<unsigned char> source = m_source->contents();
    kvo::KVSystem::SetCPUCoreCount(threads);
    Outcome outcome;
    outcome.code = m_processor ? m_processor->Render() : (m_keyer ? m_keyer->Render() : m_compositor->Render());
    kvo::KVSystem::SetCPUCoreCount(0);
    outcome.bytes = canvas.contents();
    canvas.restore(start);
    if (std::strcmp(kvo::ResultCodeMeaning(outcome.code), kvo::ResultCodeMeaning(-1)) == 0)
      m_failure = "Render returned undocumented code " + std::to_string(outcome.code);
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
  // Queues the row by name with numbers drawn for each parameter; a setter
  // that refuses queues nothing.
  void Queue(ByteReader& in, const KVSetterInfo& row) {
    std::vector<double> values;
    std::vector<KVAbstractImage*> layers;
    for (unsigned int p = 0; p < row.parameterCount; ++p) {
      if (row.parameters[p].type == kParameterLayer) layers.push_back(NewLayer(in));
      in.Numbers(row.parameters[p], values);
    }
    in.MaybeMisfit(values);
    const unsigned short before = queued();
    const unsigned int count = static_cast<unsigned int>(values.size());
    const int code = m_processor ? QueueSetter(*m_processor, row.name, values.data(), count)
                     : m_keyer   ? QueueSetter(*m_keyer, row.name, values.data(), count)
                                 : QueueSetter(*m_compositor, row.name, values.data(), count, layers.data(),
                                               static_cast<unsigned int>(layers.size()));
    const std::string what = std::string(row.name) + " returned " + std::to_string(code);
    // Queueing by name returns 0, the row's own codes, or 7 for a number
    // that does not fit its parameter.
    if (code != kResultSuccess && code != kResultOutOfRange &&
        std::find(row.codes, row.codes + row.codeCount, code) == row.codes + row.codeCount) {
      m_failure = what + ", not one of its codes";
    }
    if (queued() != before + (code == kResultSuccess ? 1 : 0)) {
      m_failure = what + " and queued " + std::to_string(queued() - before);
    }
    // The defocus blurs its input in place: queued first, the source.
    if (code == kResultSuccess && before == 0 && std::strcmp(row.name, "SetDefocus") == 0) m_blursSourceInPlace = true;
  }

  // Mostly a layer of the background's size and order (others are refused,
  // except by the shadow stage, which takes any).
  KVAbstractImage* NewLayer(ByteReader& in) {
    const Size size = in.Below(6) == 0 ? DecodeSize(in) : m_size;
    const KVPixelChannelOrder other = m_order == kPixelOrderBGRA ? kPixelOrderARGB : kPixelOrderBGRA;
    const KVPixelChannelOrder order = in.Below(8) == 0 ? other : m_order;
    m_layers.emplace_back(new Frame(size.width, size.height, order, in.U16()));
    m_layerBytes.push_back(m_layers.back()->contents());
    return m_layers.back()->image();
  }

  KVFrontEnd m_frontEnd;
  unsigned int m_threads;
  KVPixelChannelOrder m_order;
  Size m_size;
  bool m_blursSourceInPlace = false;
  std::string m_failure;
  std::unique_ptr<Frame> m_source;
  std::unique_ptr<Frame> m_destination;
  std::vector<std::unique_ptr<Frame>> m_layers;
  std::vector<std::vector<unsigned char>> m_layerBytes;
  std::unique_ptr<KVImageProcessor> m_processor;
  std::unique_ptr<KVImageKeyer> m_keyer;
  std::unique_ptr<KVImageCompositor> m_compositor;
};

}  // namespace kvfuzz

#endif
