// The three front ends: the render loop with one, two and three stages, the
// zero-filled intermediate images, result codes from setters, Setup and worker
// threads, the 16-bit queue count and the compositor's background fade.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <vector>

#include "TestSupport.h"
#include "pipeline/FrontEndState.h"

using namespace kvo::image;
using kvtest::GuardedImage;
using kvtest::ScopedCoreCount;

namespace {

typedef std::tr1::shared_ptr<KVAbstractImage> ImagePtr;
typedef std::tr1::shared_ptr<AbstractRenderer> RendererPtr;

// The setters only queue the library's own stages. To run recording and
// throwing stages through the real render loop, the tests reach the queue
// through the private record (an explicit instantiation may name a private
// member).
template <class Tag, typename Tag::type Member>
struct PrivateAccess {
  friend typename Tag::type Get(Tag) { return Member; }
};
struct ProcessorRecord {
  typedef KVImageProcessor_Private* KVImageProcessor::*type;
  friend type Get(ProcessorRecord);
};
template struct PrivateAccess<ProcessorRecord, &KVImageProcessor::m_private>;

void Queue(KVImageProcessor& processor, RendererPtr stage) {
  FrontEndState* queue = processor.*Get(ProcessorRecord());
  queue->queue.Append(QueuedStage(stage));
}

struct CustomError : std::runtime_error {
  CustomError() : std::runtime_error("custom") {}
};

// What one render thread handed to a stage.
struct Sighting {
  bool called;
  KVAbstractImage* source;
  KVAbstractImage* destination;
  unsigned int threadCount;
};

// A stage that records what it is given and writes source + delta over its
// byte share (nothing when delta is negative). It can throw from Setup or
// from Render (given the thread index).
class RecordingRenderer : public AbstractRenderer {
 public:
  explicit RecordingRenderer(int delta) : m_delta(delta) { m_sightings.fill(Sighting()); }

  unsigned int Type() const override { return 0; }

  void Setup(KVAbstractImage* input) override {
    ++setups;
    setupInput = input;
    inputWidth = input->Width();
    inputHeight = input->Height();
    inputOrder = input->PixelChannelOrder();
    inputBits = input->BitsPerChannel();
    const KVImage8* pixels = static_cast<KVImage8*>(input);
    inputBytes.assign(pixels->Buffer(), pixels->Buffer() + input->BufferByteSize());
    if (throwInSetup) throwInSetup();
  }

  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override {
    Sighting& sighting = m_sightings[threadIndex];
    sighting.called = true;
    sighting.source = source;
    sighting.destination = destination;
    sighting.threadCount = threadCount;
    if (throwInRender) throwInRender(threadIndex);
    if (m_delta >= 0) {
      unsigned long start = 0, count = 0;
      GetBufferSizePerThread(source->Width(), source->Height(), threadIndex, threadCount, start, count);
      const unsigned long limit = std::min(source->BufferByteSize(), destination->BufferByteSize());
      const unsigned char* in = static_cast<KVImage8*>(source)->Buffer();
      unsigned char* out = static_cast<KVImage8*>(destination)->Buffer();
      for (unsigned long i = start; i < limit && i - start < count; ++i) {
        out[i] = static_cast<unsigned char>(in[i] + m_delta);
      }
    }
    return renderResult;
  }

  const Sighting& sighting(unsigned int thread) const { return m_sightings[thread]; }
  unsigned int threadsCalled() const {
    unsigned int called = 0;
    for (const Sighting& s : m_sightings) called += s.called ? 1 : 0;
    return called;
  }

  int setups = 0;
  // The input as Setup saw it (an intermediate is gone once Render returns).
  KVAbstractImage* setupInput = nullptr;
  unsigned int inputWidth = 0;
  unsigned int inputHeight = 0;
  KVPixelChannelOrder inputOrder = kPixelOrderBGRA;
  unsigned int inputBits = 99;
  std::vector<unsigned char> inputBytes;
  std::function<void()> throwInSetup;
  std::function<void(int thread)> throwInRender;
  int renderResult = 0;

 private:
  int m_delta;
  std::array<Sighting, 256> m_sightings;
};

typedef std::tr1::shared_ptr<RecordingRenderer> RecordingPtr;

RecordingPtr Recording(int delta) { return RecordingPtr(new RecordingRenderer(delta)); }

std::vector<unsigned char> Plus(std::vector<unsigned char> bytes, int delta) {
  for (unsigned char& b : bytes) b = static_cast<unsigned char>(b + delta);
  return bytes;
}

// The exceptions a stage may throw and the code each becomes inside a
// worker thread (1001 for anything that is not an exact standard type).
struct Thrown {
  const char* name;
  std::function<void()> raise;
  int workerCode;
  int publicCode;
};

std::vector<Thrown> ExceptionKinds() {
  return {
      {"bad_alloc", [] { throw std::bad_alloc(); }, 8, 8},
      {"runtime_error", [] { throw std::runtime_error("x"); }, 2, 2},
      {"logic_error", [] { throw std::logic_error("x"); }, 3, 3},
      {"invalid_argument", [] { throw std::invalid_argument("x"); }, 4, 4},
      {"out_of_range", [] { throw std::out_of_range("x"); }, 7, 7},
      {"length_error", [] { throw std::length_error("x"); }, 1001, 2},
      {"derived runtime_error", [] { throw CustomError(); }, 1001, 2},
  };
}

class Pipelines : public ::testing::Test {
 protected:
  // Fills an image with the pattern of the seed and returns the pattern.
  static std::vector<unsigned char> Filled(GuardedImage& image, uint32_t seed) {
    const std::vector<unsigned char> pattern = kvtest::PatternBytes(image.bytes(), seed);
    image.fill(pattern);
    return pattern;
  }
  kvo::KVLookupTables& tables() {
    static kvo::KVLookupTables shared;
    return shared;
  }
};

}  // namespace

TEST(ConvertExceptionToKVerr, ExactTypesOnly) {
  std::bad_alloc badAlloc;
  std::runtime_error runtime("r");
  std::logic_error logic("l");
  std::invalid_argument invalid("i");
  std::out_of_range range("o");
  std::length_error length("len");
  std::range_error rangeError("re");
  std::bad_array_new_length badLength;  // derived from bad_alloc
  CustomError custom;
  std::exception plain;
  const struct {
    std::exception* error;
    int defaultCode, expected;
  } cases[] = {{&badAlloc, 55, 8},    {&runtime, 55, 2},    {&logic, 55, 3},       {&invalid, 55, 4},
               {&range, 55, 7},       {&length, 55, 55},    {&length, 2, 2},       {&length, 1001, 1001},
               {&rangeError, 55, 55}, {&badLength, 55, 55}, {&custom, 1001, 1001}, {&custom, 2, 2},
               {&plain, 55, 55}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, kvo::ConvertExceptionToKVerr(*c.error, c.defaultCode)) << c.error->what();
  }
  // Caught through a base-class reference, the dynamic type still decides.
  try {
    throw CustomError();
  } catch (std::runtime_error& e) {
    EXPECT_EQ(1001, kvo::ConvertExceptionToKVerr(e, 1001));
  }
}

TEST_F(Pipelines, TwoStagesPassAFreshZeroFilledIntermediate) {
  ScopedCoreCount cores(2);
  // Channel order 2: the intermediate must carry it over.
  GuardedImage source(5, 3, 0, kPixelOrderARGB), destination(5, 3, 0, kPixelOrderARGB);
  const std::vector<unsigned char> pattern = Filled(source, 12);
  KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
  RecordingPtr first = Recording(-1);  // writes nothing
  RecordingPtr second = Recording(9);
  Queue(processor, first);
  Queue(processor, second);
  EXPECT_EQ(0, processor.Render());

  KVAbstractImage* intermediate = first->sighting(0).destination;
  ASSERT_NE(nullptr, intermediate);
  EXPECT_NE(source.image(), intermediate);
  EXPECT_NE(destination.image(), intermediate);
  EXPECT_EQ(intermediate, first->sighting(1).destination);
  EXPECT_EQ(source.image(), first->setupInput);
  EXPECT_EQ(intermediate, second->setupInput);
  EXPECT_EQ(intermediate, second->sighting(1).source);
  EXPECT_EQ(destination.image(), second->sighting(0).destination);
  // The second stage saw the fresh image: the source's size and order, all zero.
  EXPECT_EQ(5u, second->inputWidth);
  EXPECT_EQ(3u, second->inputHeight);
  EXPECT_EQ(kPixelOrderARGB, second->inputOrder);
  EXPECT_EQ(0u, second->inputBits);
  EXPECT_EQ(std::vector<unsigned char>(60, 0), second->inputBytes);
  EXPECT_EQ(std::vector<unsigned char>(60, 9), destination.contents());
  EXPECT_EQ(pattern, source.contents());
  EXPECT_TRUE(destination.guardsIntact());
}

TEST_F(Pipelines, ThreeStagesChainThroughTwoIntermediates) {
  ScopedCoreCount cores(4);
  GuardedImage source(9, 2), destination(9, 2);
  const std::vector<unsigned char> pattern = Filled(source, 13);
  KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
  RecordingPtr a = Recording(1), b = Recording(2), c = Recording(3);
  Queue(processor, a);
  Queue(processor, b);
  Queue(processor, c);
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(source.image(), a->sighting(0).source);
  EXPECT_EQ(a->sighting(0).destination, b->sighting(0).source);
  EXPECT_EQ(b->sighting(0).destination, c->sighting(0).source);
  EXPECT_NE(a->sighting(0).destination, b->sighting(0).destination);
  EXPECT_EQ(destination.image(), c->sighting(3).destination);
  EXPECT_EQ(Plus(pattern, 1), b->inputBytes);
  EXPECT_EQ(Plus(pattern, 3), c->inputBytes);
  EXPECT_EQ(Plus(pattern, 6), destination.contents());

  // Every render starts again from the untouched source.
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(2, a->setups);
  EXPECT_EQ(2, c->setups);
  EXPECT_EQ(Plus(pattern, 6), destination.contents());
  EXPECT_EQ(pattern, source.contents());
  EXPECT_TRUE(destination.guardsIntact());
}

TEST_F(Pipelines, WorkerExceptionsBecomeCodesAndLaterStagesStillRun) {
  ScopedCoreCount cores(2);
  for (const Thrown& kind : ExceptionKinds()) {
    GuardedImage source(6, 2), destination(6, 2);
    KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
    RecordingPtr failing = Recording(-1);
    const std::function<void()> raise = kind.raise;
    failing->throwInRender = [raise](int) { raise(); };
    RecordingPtr after = Recording(5);
    Queue(processor, failing);
    Queue(processor, after);
    EXPECT_EQ(kind.workerCode, processor.Render()) << kind.name;
    EXPECT_EQ(1, after->setups) << kind.name;
    EXPECT_EQ(std::vector<unsigned char>(48, 5), destination.contents()) << kind.name;
  }
}

TEST_F(Pipelines, LastNonZeroThreadCodeWins) {
  ScopedCoreCount cores(2);
  GuardedImage source(4, 1), destination(4, 1);
  {
    // Within a stage the threads are joined in index order.
    KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
    RecordingPtr first = Recording(0), second = Recording(0);
    first->throwInRender = [](int thread) {
      if (thread == 0) throw std::out_of_range("x");
      throw std::bad_alloc();
    };
    second->throwInRender = [](int thread) {
      if (thread == 0) throw std::logic_error("x");
    };
    Queue(processor, first);
    EXPECT_EQ(8, processor.Render());
    Queue(processor, second);
    EXPECT_EQ(3, processor.Render());
  }
  {
    // A later stage that succeeds does not clear an earlier code, and a
    // stage's own non-zero result is not a code.
    KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
    RecordingPtr failing = Recording(0), quiet = Recording(0);
    failing->throwInRender = [](int) { throw std::runtime_error("x"); };
    quiet->renderResult = 5;
    Queue(processor, failing);
    Queue(processor, quiet);
    EXPECT_EQ(2, processor.Render());
    ASSERT_EQ(0, processor.ClearRenderQueue());
    Queue(processor, quiet);
    EXPECT_EQ(0, processor.Render());
  }
}

TEST_F(Pipelines, SetupExceptionsBecomePublicCodes) {
  for (const Thrown& kind : ExceptionKinds()) {
    const std::vector<unsigned char> target = kvtest::PatternBytes(3 * 3 * 4, 16);
    GuardedImage source(3, 3), destination(3, 3);
    destination.fill(target);
    KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
    RecordingPtr failing = Recording(1);
    failing->throwInSetup = kind.raise;
    Queue(processor, failing);
    EXPECT_EQ(kind.publicCode, processor.Render()) << kind.name;
    EXPECT_EQ(0u, failing->threadsCalled()) << kind.name;
    EXPECT_EQ(target, destination.contents()) << kind.name;
  }
}

TEST_F(Pipelines, ThreadCountIsCappedAt255) {
  ScopedCoreCount cores(300);
  GuardedImage source(1, 1), destination(1, 1);
  source.at(0, 0, 0) = 40;
  KVImageProcessor processor(source.image(), destination.image(), tables(), kDownsampleNone);
  RecordingPtr stage = Recording(2);
  Queue(processor, stage);
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(255u, stage->threadsCalled());
  EXPECT_TRUE(stage->sighting(254).called);
  EXPECT_FALSE(stage->sighting(255).called);
  EXPECT_EQ(255u, stage->sighting(0).threadCount);
  EXPECT_EQ(42, destination.at(0, 0, 0));
  EXPECT_TRUE(destination.guardsIntact());
}

// A queue whose consecutive per-pixel stages go as one pass per run (the blur
// splits them in two) gives the bytes of its stages rendered one by one. At 7
// threads 13x17 has shares of 32 pixels, which take the vector formulas, and
// a last one of 29, which takes the plain; 64x34 takes them at 1 and 2
// threads and spans two blocks of a pass.
TEST_F(Pipelines, PixelPassesGiveTheBytesOfTheirStagesOneByOne) {
  const std::vector<kvtest::StageSetter> stages = {
      [](KVImageProcessor& p) { return p.SetBrightness(0.1, kChannelsColor); },
      [](KVImageProcessor& p) { return p.SetContrast(1.3, kChannelsAll); },
      [](KVImageProcessor& p) { return p.SetSaturation(1.4); },
      [](KVImageProcessor& p) { return p.SetStackBlur(2, true, true, kChannelsAll); },
      [](KVImageProcessor& p) { return p.SetColorTemperature(4500); },
      [](KVImageProcessor& p) { return p.SetTint(kTintSelenium, 0.7); },
      [](KVImageProcessor& p) { return p.SetOpacity(0.6); },
      [](KVImageProcessor& p) { return p.SetColorBalance(1.2, 0.9, 0.3); },
      [](KVImageProcessor& p) { return p.SetThreeStripColor(0.3, 0.5, 0.7); },
      [](KVImageProcessor& p) { return p.SetContrast(0.7, kChannelsColor); }};
  const kvtest::StageSetter queueAll = [&](KVImageProcessor& processor) {
    int code = 0;
    for (const kvtest::StageSetter& set : stages) code |= set(processor);
    return code;
  };
  for (const std::array<unsigned int, 2>& size : {std::array<unsigned int, 2>{13, 17}, {64, 34}, {129, 67}}) {
    for (unsigned int threads : {1u, 2u, 7u}) {
      kvtest::Bytes oneByOne = kvtest::PatternBytes(size[0] * size[1] * 4u, size[0] + threads);
      const kvtest::Bytes queued = kvtest::RenderStage(queueAll, oneByOne, size[0], size[1], threads);
      for (const kvtest::StageSetter& set : stages) {
        oneByOne = kvtest::RenderStage(set, oneByOne, size[0], size[1], threads);
      }
      EXPECT_EQ(oneByOne, queued) << size[0] << "x" << size[1] << " at " << threads << " threads";
    }
  }
}

namespace {
// Colour bytes from a pattern, alpha 200 and 128 alternately.
std::vector<unsigned char> BackgroundBytes(size_t pixels) {
  std::vector<unsigned char> bytes = kvtest::PatternBytes(pixels * 4, 18);
  for (size_t p = 0; p < pixels; ++p) bytes[p * 4 + 3] = p % 2 == 0 ? 200 : 128;
  return bytes;
}

std::vector<unsigned char> WithAlphas(std::vector<unsigned char> bytes, unsigned char even, unsigned char odd) {
  for (size_t p = 0; p < bytes.size() / 4; ++p) bytes[p * 4 + 3] = p % 2 == 0 ? even : odd;
  return bytes;
}
}  // namespace

TEST_F(Pipelines, CompositorFadesTheBackgroundOnceAtConstruction) {
  ScopedCoreCount cores(4);  // the fade runs in the calling thread whatever the count
  {
    // 16 pixels: one share that is a multiple of 16, so the vector path
    // subtracts (1 - 0.5) * 255 = 127.
    const std::vector<unsigned char> bytes = BackgroundBytes(16);
    GuardedImage background(4, 4);
    background.fill(bytes);
    KVImageCompositor compositor(background.image(), 0.5, tables(), kDownsampleNone);
    const std::vector<unsigned char> faded = WithAlphas(bytes, 73, 1);
    EXPECT_EQ(faded, background.contents());
    EXPECT_EQ(0, compositor.RenderQueueCount());
    EXPECT_EQ(0, compositor.Render());
    EXPECT_EQ(0, compositor.Render());
    EXPECT_EQ(faded, background.contents());  // not faded again
    EXPECT_EQ(0, compositor.ClearRenderQueue());
    EXPECT_TRUE(background.guardsIntact());
  }
  {
    // 9 pixels: the plain path halves alpha.
    const std::vector<unsigned char> bytes = BackgroundBytes(9);
    GuardedImage background(3, 3, 1);
    background.fill(bytes);
    KVImageCompositor compositor(background.image(), 0.5, tables(), kDownsampleNone);
    EXPECT_EQ(WithAlphas(bytes, 100, 64), background.contents());
    EXPECT_TRUE(background.guardsIntact());
  }
  {
    const std::vector<unsigned char> bytes = BackgroundBytes(9);
    GuardedImage background(9, 1);
    background.fill(bytes);
    KVImageCompositor compositor(background.image(), 0.0, tables(), kDownsampleNone);
    EXPECT_EQ(WithAlphas(bytes, 0, 0), background.contents());
  }
  {
    // Below zero still fades: on the vector path the decrement is
    // trunc(2 * 255) = 510, of which the low byte 254 is subtracted.
    const std::vector<unsigned char> bytes = WithAlphas(BackgroundBytes(16), 255, 128);
    GuardedImage background(8, 2);
    background.fill(bytes);
    KVImageCompositor compositor(background.image(), -1.0, tables(), kDownsampleNone);
    EXPECT_EQ(WithAlphas(bytes, 1, 0), background.contents());
  }
}
