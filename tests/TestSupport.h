#ifndef KVIMAGE_TESTS_TESTSUPPORT_H
#define KVIMAGE_TESTS_TESTSUPPORT_H

// Helpers shared by the test files: fixed thread counts, images with guard
// bytes behind them at a chosen alignment, repeatable pixel patterns, and
// drivers that run one stage alone or through a processor.
#include <gtest/gtest.h>
#include <kvimage/kvimage.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace kvtest {

using kvo::KVLookupTables;
using kvo::image::KVImage8;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;

// Whether the suite runs under the thread or address sanitizer: the slowest
// tests cut their counts there.
#if defined(__has_feature)
#define KVTEST_HAS_FEATURE(name) __has_feature(name)
#else
#define KVTEST_HAS_FEATURE(name) 0
#endif
#if defined(__SANITIZE_THREAD__) || KVTEST_HAS_FEATURE(thread_sanitizer)
const bool kUnderThreadSanitizer = true;
#else
const bool kUnderThreadSanitizer = false;
#endif

// The core count the whole suite runs with outside ScopedCoreCount: 0 (the
// detected count) unless KVIMAGE_TEST_THREADS names one (see test_main.cc).
inline unsigned int& SuiteCoreCount() {
  static unsigned int count = 0;
  return count;
}

// Fixes KVSystem's core count for one scope, then returns to the suite's.
class ScopedCoreCount {
 public:
  explicit ScopedCoreCount(unsigned int count) { kvo::KVSystem::SetCPUCoreCount(count); }
  ~ScopedCoreCount() { kvo::KVSystem::SetCPUCoreCount(SuiteCoreCount()); }
};

// Caps the wider instruction sets for one scope (kvtl::kWiderNone runs every
// stage's SSE2 or plain path), then lifts the cap.
class ScopedWiderExtension {
 public:
  explicit ScopedWiderExtension(kvtl::WiderExtension limit) { kvtl::LimitWiderExtension(limit); }
  ~ScopedWiderExtension() { kvtl::LimitWiderExtension(kvtl::kWiderAVX512VBMI); }
};

// Extension records that force a stage's plain or vector path.
const kvtl::CPUExtensions kPlainPath = {true, true, false, false};
const kvtl::CPUExtensions kVectorPath = {true, true, true, false};

// A BGRA image whose pixels start `offset` bytes past a 64-byte boundary
// (offset 1 reaches the unaligned branches of vector code), followed by guard
// bytes that must survive every render.
class GuardedImage {
 public:
  static constexpr size_t kGuardBytes = 64;
  static constexpr unsigned char kGuardValue = 0xA5;

  GuardedImage(unsigned int width, unsigned int height, size_t offset = 0,
               kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA)
      : m_bytes(static_cast<size_t>(width) * height * 4),
        m_storage(m_bytes + offset + kGuardBytes + 64, kGuardValue) {
    uintptr_t base = reinterpret_cast<uintptr_t>(m_storage.data());
    size_t lead = (64 - base % 64) % 64;
    m_pixels = m_storage.data() + lead + offset;
    std::memset(m_pixels, 0, m_bytes);
    m_image.reset(new KVImage8(m_pixels, width, height, order));
  }

  KVImage8* image() { return m_image.get(); }
  unsigned char* pixels() { return m_pixels; }
  size_t bytes() const { return m_bytes; }
  unsigned char& at(unsigned int x, unsigned int y, unsigned int channel) {
    return m_pixels[(static_cast<size_t>(y) * m_image->Width() + x) * 4 + channel];
  }
  std::vector<unsigned char> contents() const { return std::vector<unsigned char>(m_pixels, m_pixels + m_bytes); }
  void fill(const std::vector<unsigned char>& bytes) { std::copy(bytes.begin(), bytes.begin() + m_bytes, m_pixels); }
  bool guardsIntact() const {
    return std::count(m_pixels + m_bytes, m_pixels + m_bytes + kGuardBytes, kGuardValue) == kGuardBytes;
  }

 private:
  size_t m_bytes;
  std::vector<unsigned char> m_storage;
  unsigned char* m_pixels;
  std::unique_ptr<KVImage8> m_image;
};

// One set of lookup tables for a whole test binary: building them costs more
// than the small renders that read them.
inline kvo::KVLookupTables& SharedTables() {
  static kvo::KVLookupTables tables;
  return tables;
}

// A repeatable pseudo-random byte pattern.
inline std::vector<unsigned char> PatternBytes(size_t count, uint32_t seed) {
  std::vector<unsigned char> bytes(count);
  uint32_t state = seed * 2654435761u + 12345u;
  for (size_t i = 0; i < count; ++i) {
    state = state * 1664525u + 1013904223u;
    bytes[i] = static_cast<unsigned char>(state >> 24);
  }
  return bytes;
}

// An image of another channel depth. It has no pixels: a stage that reaches
// for its bytes instead of checking the depth first crashes.
class DeepImage : public kvo::image::KVAbstractImage {
 public:
  DeepImage(unsigned int width, unsigned int height, unsigned int bitsPerChannel = 16,
            kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA)
      : m_width(width), m_height(height), m_bits(bitsPerChannel), m_order(order) {}
  kvo::image::KVPixelChannelOrder PixelChannelOrder() const override { return m_order; }
  unsigned int BitsPerChannel() const override { return m_bits; }
  unsigned int Width() const override { return m_width; }
  unsigned int Height() const override { return m_height; }
  unsigned int BufferSize() const override { return m_width * m_height * 4; }
  unsigned int BufferByteSize() const override { return m_width * m_height * 8; }

 private:
  unsigned int m_width, m_height, m_bits;
  kvo::image::KVPixelChannelOrder m_order;
};

// A regular expression that matches `text` literally (for EXPECT_DEATH).
inline std::string LiteralRegex(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::strchr(".[]{}()\\*+?^$|", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// Driving one stage directly, as a given number of threads.
// Setup, then Render as each thread of threadCount in turn (the shares are
// disjoint, so the order does not matter).
inline void RenderStage(kvo::image::AbstractRenderer& stage, KVImage8* source, KVImage8* destination,
                        unsigned int threadCount = 1) {
  stage.Setup(source);
  for (unsigned int t = 0; t < threadCount; ++t) {
    stage.Render(source, destination, static_cast<unsigned char>(t), static_cast<unsigned char>(threadCount));
  }
}

// How a vector path treats a thread share whose pixel count is not a
// multiple of 16.
enum class Remainder {
  kWholeSharePlain,  // the whole share takes the plain path
  kLeadInPlain       // the first count % 16 pixels take the table, the rest the vector
};

// For each pixel of a width x height image rendered by threadCount threads:
// true where the stage's vector path computes it.
inline std::vector<bool> VectorPixels(unsigned int width, unsigned int height, unsigned int threadCount,
                                      Remainder remainder) {
  const size_t total = static_cast<size_t>(width) * height;
  std::vector<bool> vector(total, false);
  for (unsigned int t = 0; t < threadCount; ++t) {
    unsigned long start = 0, count = 0;
    kvo::image::GetPixelsPerThread(width, height, static_cast<unsigned char>(t),
                                   static_cast<unsigned char>(threadCount), start, count);
    if (start >= total) continue;
    if (count > total - start) count = total - start;
    const size_t plain = remainder == Remainder::kLeadInPlain ? count % 16 : (count % 16 == 0 ? 0 : count);
    for (size_t p = start + plain; p < start + count; ++p) vector[p] = true;
  }
  return vector;
}

// The expected image: byte b of every pixel through map(value, channel,
// vector) where processed(channel) holds, copied otherwise.
inline std::vector<unsigned char> ExpectedBytes(const std::vector<unsigned char>& source,
                                                const std::vector<bool>& vectorPixels,
                                                const std::function<bool(unsigned int)>& processed,
                                                const std::function<int(int, unsigned int, bool)>& map) {
  std::vector<unsigned char> expected(source);
  for (size_t i = 0; i < source.size(); ++i) {
    const unsigned int channel = static_cast<unsigned int>(i % 4);
    if (processed(channel)) expected[i] = static_cast<unsigned char>(map(source[i], channel, vectorPixels[i / 4]));
  }
  return expected;
}

inline int Clamp8(int value) { return value < 0 ? 0 : (value > 255 ? 255 : value); }

// Driving one processor setter's stage over given pixels, checking on the
// way that the setter accepts, the render succeeds, the guard bytes behind
// both images survive and the source is left untouched.
typedef std::function<int(kvo::image::KVImageProcessor&)> StageSetter;
typedef std::vector<unsigned char> Bytes;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

inline Bytes RenderStageAt(const StageSetter& set, const Bytes& pixels, unsigned int width, unsigned int height,
                           unsigned int threads, size_t sourceOffset, size_t targetOffset,
                           kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA,
                           kvo::image::KVDownsampleFactor factor = kvo::image::kDownsampleNone) {
  ScopedCoreCount cores(threads);
  GuardedImage src(width, height, sourceOffset, order), dst(width, height, targetOffset, order);
  src.fill(pixels);
  kvo::image::KVImageProcessor processor(src.image(), dst.image(), SharedTables(), factor);
  EXPECT_EQ(0, set(processor));
  EXPECT_EQ(0, processor.Render());
  EXPECT_TRUE(dst.guardsIntact());
  EXPECT_TRUE(src.guardsIntact());
  EXPECT_EQ(pixels, src.contents());
  return dst.contents();
}

// Renders through a processor with every thread count from 1 to 16 and
// compares with the expectation for that count.
inline void ExpectEveryThreadCount(const StageSetter& set, const std::function<Bytes(unsigned int)>& expected,
                                   unsigned int width, unsigned int height, const Bytes& source) {
  for (unsigned int threads = 1; threads <= 16; ++threads) {
    EXPECT_EQ(expected(threads), RenderStageAt(set, source, width, height, threads, 0, 0)) << threads << " threads";
  }
}

inline Bytes RenderStage(const StageSetter& set, const Bytes& pixels, unsigned int width, unsigned int height,
                         unsigned int threads = 2, size_t offset = 0,
                         kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA) {
  return RenderStageAt(set, pixels, width, height, threads, offset, offset, order);
}

// A layer pattern with some clear and some opaque pixels.
inline Bytes LayerBytes(unsigned int width, unsigned int height, uint32_t seed) {
  Bytes bytes = PatternBytes(static_cast<size_t>(width) * height * 4, seed);
  for (size_t i = 3; i < bytes.size(); i += 12) bytes[i] = 0;
  for (size_t i = 7; i < bytes.size(); i += 20) bytes[i] = 255;
  return bytes;
}

// One pixel, one thread.
inline Bytes RenderPixel(const StageSetter& set, const Bytes& pixel,
                         kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA) {
  return RenderStage(set, pixel, 1, 1, 1, 0, order);
}

// One front end of a catalogue row's kind over guarded images (a
// compositor's layer parameters get a layer of the background's size),
// queueing setters by name. Render starts from the same images every time:
// a compositor works on its background in place.
class Front {
  GuardedImage m_source, m_destination, m_layer;  // outlive the front end

 public:
  explicit Front(kvo::image::KVFrontEnd frontEnd, unsigned int width = 7, unsigned int height = 5, size_t offset = 0,
                 kvo::image::KVPixelChannelOrder order = kvo::image::kPixelOrderBGRA,
                 kvo::image::KVAbstractImage* deep = nullptr)
      : m_source(width, height, offset, order), m_destination(width, height, offset, order),
        m_layer(width, height, offset, order) {
    using namespace kvo::image;
    m_source.fill(PatternBytes(m_source.bytes(), 8));
    m_layer.fill(PatternBytes(m_layer.bytes(), 4));
    KVAbstractImage *source = deep ? deep : m_source.image(), *destination = deep ? deep : m_destination.image();
    layers[0] = layers[1] = deep ? deep : m_layer.image();
    if (frontEnd == kFrontEndProcessor) processor.reset(new KVImageProcessor(source, destination, SharedTables(), kDownsampleNone));
    if (frontEnd == kFrontEndKeyer) keyer.reset(new KVImageKeyer(source, destination, SharedTables(), kDownsampleNone));
    if (frontEnd == kFrontEndCompositor) compositor.reset(new KVImageCompositor(source, 1.0, SharedTables(), kDownsampleNone));
  }
  int Queue(const char* name, const std::vector<double>& values, unsigned int layerCount = 1) {
    const unsigned int count = static_cast<unsigned int>(values.size());
    return processor ? QueueSetter(*processor, name, values.data(), count)
           : keyer   ? QueueSetter(*keyer, name, values.data(), count)
                     : QueueSetter(*compositor, name, values.data(), count, layers, layerCount);
  }
  unsigned short Queued() const {
    return processor ? processor->RenderQueueCount() : keyer ? keyer->RenderQueueCount() : compositor->RenderQueueCount();
  }
  int RenderCode() { return processor ? processor->Render() : keyer ? keyer->Render() : compositor->Render(); }
  // The destination's bytes, or the composited background's; checks that the
  // render succeeds, the guards survive and the inputs are left untouched.
  std::vector<unsigned char> Render(bool sourceKept = true) {
    const std::vector<unsigned char> source = m_source.contents(), destination = m_destination.contents(),
                                     layer = m_layer.contents();
    EXPECT_EQ(RenderCode(), 0);
    const std::vector<unsigned char> bytes = (compositor ? m_source : m_destination).contents();
    EXPECT_TRUE(m_source.guardsIntact() && m_destination.guardsIntact() && m_layer.guardsIntact());
    EXPECT_TRUE(compositor || !sourceKept || m_source.contents() == source) << "the source changed";
    EXPECT_TRUE(m_layer.contents() == layer) << "the layer changed";
    m_source.fill(source);
    m_destination.fill(destination);
    return bytes;
  }

  void NewSourceContent(uint32_t seed) { m_source.fill(PatternBytes(m_source.bytes(), seed)); }

  kvo::image::KVAbstractImage* layers[2];
  std::unique_ptr<kvo::image::KVImageProcessor> processor;
  std::unique_ptr<kvo::image::KVImageKeyer> keyer;
  std::unique_ptr<kvo::image::KVImageCompositor> compositor;
};

}  // namespace kvtest

#endif
