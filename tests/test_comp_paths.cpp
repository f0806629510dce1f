// The wide (AVX2) forms of the compositing loops against their plain forms:
// every blend operation on every operand pair, and whole composites on odd
// sizes, one-byte-offset buffers and several thread counts.
#include <gtest/gtest.h>

#include <vector>

#include "TestSupport.h"
#include "compositing/BlendOperations.h"

using namespace kvo::image;
using kvo::KVLookupTables;
using kvtest::GuardedImage;
using kvtest::PatternBytes;
using kvtest::ScopedCoreCount;
using kvtest::ScopedWiderExtension;

namespace {

typedef std::vector<unsigned char> Bytes;

// Every (top, bottom) pair through VectorBlend<Operation>, eight at a time,
// against Operation::Apply; returns the number of pairs that differ.
template <class Operation>
KV_TARGET_AVX2 int CountVectorMismatches(KVLookupTables& tables) {
  int mismatches = 0;
  alignas(32) int top[8], bottom[8], result[8];
  for (int t = 0; t < 256; ++t) {
    for (int b = 0; b < 256; b += 8) {
      for (int lane = 0; lane < 8; ++lane) {
        top[lane] = t;
        bottom[lane] = b + lane;
      }
      const __m256i vectorResult =
          VectorBlend<Operation>::Apply(tables, _mm256_load_si256(reinterpret_cast<const __m256i*>(top)),
                                        _mm256_load_si256(reinterpret_cast<const __m256i*>(bottom)));
      _mm256_store_si256(reinterpret_cast<__m256i*>(result), vectorResult);
      for (int lane = 0; lane < 8; ++lane) {
        if (result[lane] != Operation::Apply(tables, t, b + lane)) ++mismatches;
      }
    }
  }
  return mismatches;
}

struct CountMismatches {
  KVLookupTables& tables;
  template <class Operation>
  int Run() {
    return CountVectorMismatches<Operation>(tables);
  }
};

TEST(CompositingVectors, EveryOperationMatchesItsTableOnEveryPair) {
  if (kvtl::GetWiderExtension() < kvtl::kWiderAVX2) GTEST_SKIP() << "no AVX2 on this processor";
  CountMismatches count = {kvtest::SharedTables()};
  for (int mode = kBlendAdd; mode <= kBlendReplace; ++mode) {
    EXPECT_EQ(0, DispatchBlendMode(KVBlendMode(mode), count)) << "mode " << mode;
  }
}

// Background and layer patterns with runs of clear and opaque alpha, so that
// every branch of the alpha path (combined alpha 0, layer weight 0, opaque)
// occurs inside a block of eight and in the tail.
Bytes CompositePattern(size_t pixels, uint32_t seed) {
  Bytes bytes = PatternBytes(pixels * 4, seed);
  for (size_t p = 0; p < pixels; ++p) {
    const size_t run = (p / 3 + seed) % 5;
    if (run == 0) bytes[p * 4 + 3] = 0;
    if (run == 1) bytes[p * 4 + 3] = 255;
  }
  return bytes;
}

struct Size {
  unsigned int width, height;
};
const Size kOddSizes[] = {{1, 1}, {7, 3}, {17, 5}, {33, 9}, {97, 31}};
const unsigned int kThreadCounts[] = {1, 2, 3, 7, 16};

// One composite through the front end; checks the guards and that the layer
// is left as it was.
Bytes Composite(const Size& size, size_t offset, unsigned int threads, bool plain, const Bytes& under,
                const Bytes& over, int mode, int type, double opacity, int spillRadius = -1) {
  ScopedCoreCount cores(threads);
  ScopedWiderExtension wider(plain ? kvtl::kWiderNone : kvtl::kWiderAVX2);
  GuardedImage background(size.width, size.height, offset), layer(size.width, size.height, offset);
  background.fill(under);
  layer.fill(over);
  KVImageCompositor compositor(background.image(), 1.0, kvtest::SharedTables(), kDownsampleNone);
  if (spillRadius < 0) {
    EXPECT_EQ(0, compositor.AddLayer(layer.image(), opacity, KVBlendMode(mode), KVCompositeType(type)));
  } else {
    EXPECT_EQ(0, compositor.AddLightSpillLayer(layer.image(), spillRadius, opacity, KVBlendMode(mode),
                                               kDownsampleNone));
  }
  EXPECT_EQ(0, compositor.Render());
  EXPECT_TRUE(background.guardsIntact());
  EXPECT_TRUE(layer.guardsIntact());
  EXPECT_EQ(over, layer.contents());
  return background.contents();
}

TEST(CompositingPaths, LayerCompositorWideEqualsPlainOnEveryModeAndType) {
  const int modes[] = {kBlendAdd,     kBlendColorBurn, kBlendColorDodge, kBlendDarken,    kBlendDifference,
                       kBlendExclusion, kBlendHardLight, kBlendLighten,   kBlendMultiply,  kBlendNormal,
                       kBlendOverlay, kBlendScreen,    kBlendSoftLight,  kBlendReplace,   99};
  for (int type : {kCompositeColorOnly, kCompositeAlphaFill, kCompositeAlpha}) {
    for (int mode : modes) {
      for (size_t s = 0; s < sizeof kOddSizes / sizeof kOddSizes[0]; ++s) {
        const Size size = kOddSizes[s];
        const size_t pixels = static_cast<size_t>(size.width) * size.height;
        const Bytes under = CompositePattern(pixels, 3 + static_cast<uint32_t>(s));
        const Bytes over = CompositePattern(pixels, 11 + static_cast<uint32_t>(mode));
        const double opacity = mode % 2 == 0 ? 0.8 : 0.35;
        const Bytes expected = Composite(size, 0, 1, true, under, over, mode, type, opacity);
        for (size_t offset : {0, 1}) {
          const unsigned int threads = kThreadCounts[(s + offset + static_cast<size_t>(mode)) % 5];
          ASSERT_EQ(expected, Composite(size, offset, threads, false, under, over, mode, type, opacity))
              << "mode " << mode << " type " << type << " " << size.width << "x" << size.height << " offset "
              << offset << " threads " << threads;
        }
      }
    }
  }
}

TEST(CompositingPaths, EveryThreadCountOnTheLargestOddSize) {
  const Size size = kOddSizes[4];
  const size_t pixels = static_cast<size_t>(size.width) * size.height;
  const Bytes under = CompositePattern(pixels, 5), over = CompositePattern(pixels, 6);
  for (int type : {kCompositeColorOnly, kCompositeAlpha}) {
    const Bytes expected = Composite(size, 1, 1, true, under, over, kBlendHardLight, type, 0.6);
    for (unsigned int threads : kThreadCounts) {
      ASSERT_EQ(expected, Composite(size, 1, threads, false, under, over, kBlendHardLight, type, 0.6))
          << "type " << type << " threads " << threads;
    }
  }
}

// The light spill lays its glow with the shared alpha loop, keeping pixels
// the glow does not reach.
TEST(CompositingPaths, LightSpillWideEqualsPlain) {
  for (size_t s = 0; s < sizeof kOddSizes / sizeof kOddSizes[0]; ++s) {
    const Size size = kOddSizes[s];
    const size_t pixels = static_cast<size_t>(size.width) * size.height;
    const Bytes under = CompositePattern(pixels, 31 + static_cast<uint32_t>(s));
    const Bytes over = CompositePattern(pixels, 41 + static_cast<uint32_t>(s));
    for (int mode : {kBlendScreen, kBlendNormal, kBlendSoftLight}) {
      for (int radius : {0, 2}) {
        const Bytes expected = Composite(size, 0, 1, true, under, over, mode, 0, 0.7, radius);
        for (size_t offset : {0, 1}) {
          const unsigned int threads = kThreadCounts[(s + offset + static_cast<size_t>(radius)) % 5];
          ASSERT_EQ(expected, Composite(size, offset, threads, false, under, over, mode, 0, 0.7, radius))
              << "mode " << mode << " radius " << radius << " " << size.width << "x" << size.height;
        }
      }
    }
  }
}

// The vignette through the processor, plain or wide; checks the guards and
// that the source is left as it was.
struct VignetteCase {
  double amount, midpoint, roundness, feather, highlights;
  kvo::maths::KVRect bounds;
};

Bytes Vignette(const Size& size, size_t offset, unsigned int threads, bool plain, KVPixelChannelOrder order,
               const Bytes& input, const VignetteCase& shape) {
  ScopedWiderExtension wider(plain ? kvtl::kWiderNone : kvtl::kWiderAVX2);
  const KVPixel8_RGB colour = {200, 30, 90};
  return kvtest::RenderStage(
      [&](KVImageProcessor& p) {
        return p.SetVignette(colour, shape.amount, shape.midpoint, shape.roundness, shape.feather, shape.highlights,
                             shape.bounds);
      },
      input, size.width, size.height, threads, offset, order);
}

TEST(CompositingPaths, VignetteWideEqualsPlain) {
  using kvo::maths::KVPoint2;
  using kvo::maths::KVRect;
  const VignetteCase shapes[] = {{0.8, 0.3, 0.5, 0.6, 0.5, KVRect()},
                                 {1.0, 0.0, 0.0, 0.0, 0.0, KVRect()},
                                 {0.45, 0.7, 1.0, 0.2, 1.0, KVRect(KVPoint2(-3, 2), 20, 7)},
                                 {0.0, 0.3, 0.5, 0.6, 0.5, KVRect()}};
  for (size_t s = 0; s < sizeof kOddSizes / sizeof kOddSizes[0]; ++s) {
    const Size size = kOddSizes[s];
    const Bytes input = PatternBytes(static_cast<size_t>(size.width) * size.height * 4, 71 + static_cast<uint32_t>(s));
    for (size_t c = 0; c < sizeof shapes / sizeof shapes[0]; ++c) {
      for (KVPixelChannelOrder order : {kPixelOrderBGRA, kPixelOrderARGB}) {
        const Bytes expected = Vignette(size, 0, 1, true, order, input, shapes[c]);
        for (size_t offset : {0, 1}) {
          const unsigned int threads = kThreadCounts[(s + c + offset) % 5];
          ASSERT_EQ(expected, Vignette(size, offset, threads, false, order, input, shapes[c]))
              << "case " << c << " order " << order << " " << size.width << "x" << size.height << " threads "
              << threads;
        }
      }
    }
  }
}

Bytes ThreeStrip(const Size& size, size_t offset, unsigned int threads, bool plain, const Bytes& input,
                 const double (&levels)[3]) {
  ScopedWiderExtension wider(plain ? kvtl::kWiderNone : kvtl::kWiderAVX2);
  return kvtest::RenderStage(
      [&](KVImageProcessor& p) { return p.SetThreeStripColor(levels[0], levels[1], levels[2]); }, input,
      size.width, size.height, threads, offset);
}

TEST(CompositingPaths, ThreeStripWideEqualsPlain) {
  const double levelSets[][3] = {{0.2, 0.3, 0.4}, {0.0, 1.0, 0.5}, {0.9, 0.05, 0.0}};
  for (size_t s = 0; s < sizeof kOddSizes / sizeof kOddSizes[0]; ++s) {
    const Size size = kOddSizes[s];
    const Bytes input = PatternBytes(static_cast<size_t>(size.width) * size.height * 4, 91 + static_cast<uint32_t>(s));
    for (size_t l = 0; l < sizeof levelSets / sizeof levelSets[0]; ++l) {
      const Bytes expected = ThreeStrip(size, 0, 1, true, input, levelSets[l]);
      for (size_t offset : {0, 1}) {
        const unsigned int threads = kThreadCounts[(s + l + offset) % 5];
        ASSERT_EQ(expected, ThreeStrip(size, offset, threads, false, input, levelSets[l]))
            << "levels " << l << " " << size.width << "x" << size.height << " threads " << threads;
      }
    }
  }
}

}  // namespace
