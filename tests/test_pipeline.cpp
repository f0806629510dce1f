// The three front ends: the render loop with one and several stages, the
// zero-filled intermediate images, result codes from setters, Setup and worker
// threads, the thread cap and the compositor's background fade.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <new>
#include <stdexcept>
#include <vector>

#include "TestSupport.h"
#include "pipeline/FrontEndState.h"

using namespace kvo::image;
using kvtest::Bytes;
using kvtest::GuardedImage;
using kvtest::PatternBytes;
using kvtest::ScopedCoreCount;
using kvtest::SharedTables;

namespace {

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

void Queue(KVImageProcessor& processor, std::tr1::shared_ptr<AbstractRenderer> stage) {
  (processor.*Get(ProcessorRecord()))->queue.Append(QueuedStage(stage));
}

struct CustomError : std::runtime_error {
  CustomError() : std::runtime_error("custom") {}
};

// A stage that records its input and the thread count each thread was
// given, and writes source + delta over its byte share (nothing when delta
// is negative). It can throw from Setup or from Render (given the thread
// index).
class RecordingRenderer : public AbstractRenderer {
 public:
  explicit RecordingRenderer(int delta) : m_delta(delta) {}

  unsigned int Type() const override { return 0; }

  void Setup(KVAbstractImage* input) override {
    ++setups;
    setupInput = input;
    inputShape = {input->Width(), input->Height(), static_cast<unsigned int>(input->PixelChannelOrder()),
                  input->BitsPerChannel()};
    const unsigned char* pixels = static_cast<KVImage8*>(input)->Buffer();
    inputBytes.assign(pixels, pixels + input->BufferByteSize());
    if (throwInSetup) throwInSetup();
  }

  int Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
             unsigned char threadCount) override {
    threadCounts[threadIndex] = threadCount;
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

  unsigned int threadsCalled() const {
    return static_cast<unsigned int>(256 - std::count(threadCounts.begin(), threadCounts.end(), 0u));
  }

  int setups = 0;
  // The input as Setup saw it (an intermediate is gone once Render returns).
  KVAbstractImage* setupInput = nullptr;
  std::vector<unsigned int> inputShape;  // width, height, channel order, bits per channel
  Bytes inputBytes;
  std::function<void()> throwInSetup;
  std::function<void(int thread)> throwInRender;
  int renderResult = 0;
  std::array<unsigned int, 256> threadCounts{};  // the count each thread index was given, 0 if not called

 private:
  int m_delta;
};

typedef std::tr1::shared_ptr<RecordingRenderer> RecordingPtr;

RecordingPtr Recording(int delta) { return RecordingPtr(new RecordingRenderer(delta)); }

// The exceptions a stage may throw, the code each becomes inside a worker
// thread and from Setup: anything that is not exactly one of five standard
// types (a derived type included) gets the default, 1001 or 2.
const struct {
  const char* name;
  std::function<void()> raise;
  int workerCode, publicCode;
} kThrown[] = {
    {"bad_alloc", [] { throw std::bad_alloc(); }, 8, 8},
    {"runtime_error", [] { throw std::runtime_error("x"); }, 2, 2},
    {"logic_error", [] { throw std::logic_error("x"); }, 3, 3},
    {"invalid_argument", [] { throw std::invalid_argument("x"); }, 4, 4},
    {"out_of_range", [] { throw std::out_of_range("x"); }, 7, 7},
    {"length_error", [] { throw std::length_error("x"); }, 1001, 2},
    {"derived runtime_error", [] { throw CustomError(); }, 1001, 2},
    {"range_error", [] { throw std::range_error("x"); }, 1001, 2},
    {"bad_array_new_length", [] { throw std::bad_array_new_length(); }, 1001, 2},
    {"exception", [] { throw std::exception(); }, 1001, 2},
};

}  // namespace

// Three stages chain through two intermediates, each a fresh image of the
// source's size and channel order (order 2 here) filled with zeros: the
// middle stage writes nothing, so the last one sees the zeros. Every render
// starts again from the untouched source.
TEST(Pipelines, StagesChainThroughFreshZeroFilledIntermediates) {
  ScopedCoreCount cores(3);
  GuardedImage source(5, 3, 0, kPixelOrderARGB), destination(5, 3, 0, kPixelOrderARGB);
  const Bytes pattern = PatternBytes(source.bytes(), 12);
  Bytes plusOne = pattern;
  for (unsigned char& byte : plusOne) ++byte;
  source.fill(pattern);
  KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
  RecordingPtr first = Recording(1), second = Recording(-1), third = Recording(3);
  for (const RecordingPtr& stage : {first, second, third}) Queue(processor, stage);
  for (int render = 1; render <= 2; ++render) {
    EXPECT_EQ(0, processor.Render());
    EXPECT_EQ(render, third->setups);
    EXPECT_EQ(source.image(), first->setupInput);
    for (KVAbstractImage* intermediate : {second->setupInput, third->setupInput}) {
      EXPECT_TRUE(intermediate != source.image() && intermediate != destination.image());
    }
    EXPECT_EQ(plusOne, second->inputBytes);
    EXPECT_EQ((std::vector<unsigned int>{5, 3, kPixelOrderARGB, 0}), third->inputShape);
    EXPECT_EQ(Bytes(60, 0), third->inputBytes);
    EXPECT_EQ(Bytes(60, 3), destination.contents());
    EXPECT_EQ(pattern, source.contents());
    EXPECT_TRUE(destination.guardsIntact());
  }
}

// From a worker thread an exception becomes a code and the later stages
// still run; from Setup it becomes the public code before any thread starts.
TEST(Pipelines, StageExceptionsBecomeCodes) {
  ScopedCoreCount cores(2);
  for (const auto& kind : kThrown) {
    SCOPED_TRACE(kind.name);
    GuardedImage source(6, 2), destination(6, 2);
    const Bytes target = PatternBytes(destination.bytes(), 16);
    destination.fill(target);
    {
      KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
      RecordingPtr failing = Recording(1);
      failing->throwInSetup = kind.raise;
      Queue(processor, failing);
      EXPECT_EQ(kind.publicCode, processor.Render());
      EXPECT_EQ(0u, failing->threadsCalled());
      EXPECT_EQ(target, destination.contents());
    }
    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
    RecordingPtr failing = Recording(-1), after = Recording(5);
    failing->throwInRender = [&kind](int) { kind.raise(); };
    Queue(processor, failing);
    Queue(processor, after);
    EXPECT_EQ(kind.workerCode, processor.Render());
    EXPECT_EQ(1, after->setups);
    EXPECT_EQ(Bytes(48, 5), destination.contents());
  }
}

TEST(Pipelines, LastNonZeroThreadCodeWins) {
  ScopedCoreCount cores(2);
  GuardedImage source(4, 1), destination(4, 1);
  {
    // Within a stage the threads are joined in index order.
    KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
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
  // A later stage that succeeds does not clear an earlier code, and a
  // stage's own non-zero result (5) is not a code; clearing the queue
  // removes the failing stage.
  KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
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

TEST(Pipelines, ThreadCountIsCappedAt255) {
  ScopedCoreCount cores(300);
  GuardedImage source(1, 1), destination(1, 1);
  source.at(0, 0, 0) = 40;
  KVImageProcessor processor(source.image(), destination.image(), SharedTables(), kDownsampleNone);
  RecordingPtr stage = Recording(2);
  Queue(processor, stage);
  EXPECT_EQ(0, processor.Render());
  EXPECT_EQ(255u, stage->threadsCalled());
  EXPECT_EQ(255u, stage->threadCounts[254]);
  EXPECT_EQ(42, destination.at(0, 0, 0));
}

// A queue whose consecutive per-pixel stages go as one pass per run (the blur
// splits them in two) gives the bytes of its stages rendered one by one. At 7
// threads 13x17 has shares of 32 pixels, which take the vector formulas, and
// a last one of 29, which takes the plain; 64x34 takes them at 1 and 2
// threads and spans two blocks of a pass.
TEST(Pipelines, PixelPassesGiveTheBytesOfTheirStagesOneByOne) {
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
      Bytes oneByOne = PatternBytes(size[0] * size[1] * 4u, size[0] + threads);
      const Bytes queued = kvtest::RenderStage(queueAll, oneByOne, size[0], size[1], threads);
      for (const kvtest::StageSetter& set : stages) {
        oneByOne = kvtest::RenderStage(set, oneByOne, size[0], size[1], threads);
      }
      EXPECT_EQ(oneByOne, queued) << size[0] << "x" << size[1] << " at " << threads << " threads";
    }
  }
}

// The compositor fades its background's alpha once, at construction, in the
// calling thread whatever the core count. A share of a multiple of 16
// pixels takes the vector path, which subtracts trunc((1 - opacity) * 255):
// 127 at 0.5, and below zero the low byte of 510, 254. Other shares scale.
TEST(Pipelines, CompositorFadesTheBackgroundOnceAtConstruction) {
  ScopedCoreCount cores(4);
  const struct {
    unsigned int width, height;
    size_t offset;
    double opacity;
    unsigned char even, odd, fadedEven, fadedOdd;  // alphas of even and odd pixels
  } cases[] = {{4, 4, 0, 0.5, 200, 128, 73, 1},
               {3, 3, 1, 0.5, 200, 128, 100, 64},
               {9, 1, 0, 0.0, 200, 128, 0, 0},
               {8, 2, 0, -1.0, 255, 128, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << ", opacity " << c.opacity);
    Bytes bytes = PatternBytes(c.width * c.height * 4, 18), faded = bytes;
    for (size_t p = 0; p < bytes.size() / 4; ++p) {
      bytes[p * 4 + 3] = p % 2 == 0 ? c.even : c.odd;
      faded[p * 4 + 3] = p % 2 == 0 ? c.fadedEven : c.fadedOdd;
    }
    GuardedImage background(c.width, c.height, c.offset);
    background.fill(bytes);
    KVImageCompositor compositor(background.image(), c.opacity, SharedTables(), kDownsampleNone);
    EXPECT_EQ(faded, background.contents());
    EXPECT_EQ(0, compositor.Render());
    EXPECT_EQ(faded, background.contents());  // not faded again
    EXPECT_TRUE(background.guardsIntact());
  }
}
