// The kvimage tool, run as a separate process on small generated images. Its
// outputs are compared byte for byte with the engine's own results through
// the public API, and every error path with its message and exit status.
#include <dirent.h>
#include <gtest/gtest.h>
#include <kvimage/kvimage.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Demo.h"
#include "ImageFiles.h"
#include "Options.h"

using namespace kvimage_cli;
using namespace kvo::image;

namespace {

struct Result {
  int status;
  std::string out;
  std::string err;
};

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteText(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

// A pattern with every kind of pixel: colours across the range, alpha from
// transparent to opaque.
Image Pattern(unsigned int width, unsigned int height, unsigned int salt) {
  Image image(width, height);
  for (unsigned int y = 0; y < height; ++y) {
    for (unsigned int x = 0; x < width; ++x) {
      unsigned char* p = image.Pixel(x, y);
      p[0] = static_cast<unsigned char>(x * 7 + y * 3 + salt);
      p[1] = static_cast<unsigned char>(x * 13 + y * 29 + salt * 3);
      p[2] = static_cast<unsigned char>((x * y + salt) * 5);
      p[3] = static_cast<unsigned char>(255 - ((x + y * 2 + salt) * 11) % 256);
    }
  }
  return image;
}

Image Opaque(Image image) {
  for (size_t i = 3; i < image.bgra.size(); i += 4) image.bgra[i] = 255;
  return image;
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kvimage-cli-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override {
    kvo::KVSystem::SetCPUCoreCount(0);
    std::system(("rm -rf '" + dir + "'").c_str());
  }

  std::string Path(const std::string& name) const { return dir + "/" + name; }

  // Runs the tool with arguments (shell words) and optional standard input.
  Result Run(const std::string& arguments, const std::string& input = "/dev/null") const {
    const std::string command = std::string(KVIMAGE_TOOL_PATH) + " " + arguments + " <'" + input + "' >'" +
                                Path("stdout.txt") + "' 2>'" + Path("stderr.txt") + "'";
    const int raw = std::system(command.c_str());
    Result result;
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = ReadText(Path("stdout.txt"));
    result.err = ReadText(Path("stderr.txt"));
    return result;
  }

  // Files in the directory other than the ones a test made or the tool's
  // captured output: a failed write must leave no temporary file behind.
  std::vector<std::string> StrayFiles(const std::vector<std::string>& expected) const {
    std::vector<std::string> stray;
    DIR* d = opendir(dir.c_str());
    while (dirent* entry = readdir(d)) {
      const std::string name = entry->d_name;
      if (name == "." || name == ".." || name == "stdout.txt" || name == "stderr.txt") continue;
      bool known = false;
      for (const std::string& e : expected) known = known || e == name;
      if (!known) stray.push_back(name);
    }
    closedir(d);
    return stray;
  }

  std::string dir;
};

void ExpectSameImage(const Image& expected, const Image& actual) {
  EXPECT_EQ(expected.width, actual.width);
  EXPECT_EQ(expected.height, actual.height);
  EXPECT_TRUE(expected.bgra == actual.bgra) << "the pixels differ";
}

// The engine over a copy of the source, queueing each (setter, numbers) by
// name on one processor or keyer, the destination starting as the source
// (as the tool does).
typedef std::vector<std::pair<const char*, std::vector<double>>> Stages;

Image Engine(const Image& source, KVFrontEnd frontEnd, const Stages& stages) {
  Image in = source, out = source;
  KVImage8 a(in.bgra.data(), in.width, in.height, kPixelOrderBGRA);
  KVImage8 b(out.bgra.data(), out.width, out.height, kPixelOrderBGRA);
  kvo::KVLookupTables tables;
  KVImageProcessor processor(&a, &b, tables, kDownsampleNone);
  KVImageKeyer keyer(&a, &b, tables, kDownsampleNone);
  for (const auto& stage : stages) {
    const unsigned int count = static_cast<unsigned int>(stage.second.size());
    EXPECT_EQ(0, frontEnd == kFrontEndKeyer ? QueueSetter(keyer, stage.first, stage.second.data(), count)
                                            : QueueSetter(processor, stage.first, stage.second.data(), count))
        << stage.first;
  }
  EXPECT_EQ(0, frontEnd == kFrontEndKeyer ? keyer.Render() : processor.Render());
  return out;
}

// Every option row of the tool's tables, given on the command line, gives
// the bytes of its setter called by name; a key command always starts with
// a key (automatic unless --key names one) that the key settings adjust.
TEST_F(ToolTest, EveryOptionRowGivesTheEnginesBytes) {
  const std::vector<double> autoKey = {kKeyColorAuto, 0.5, 0.2, 0.5};
  const struct {
    std::string options;
    KVFrontEnd frontEnd;
    Stages stages;
  } rows[] = {
      {"", kFrontEndProcessor, {}},
      {"--opacity 0.6", kFrontEndProcessor, {{"SetOpacity", {0.6}}}},
      {"--mirror --matte-view", kFrontEndProcessor, {{"SetMirror", {1, 0}}, {"SetMatteView", {}}}},
      {"--silhouette 10,20,30", kFrontEndProcessor, {{"SetSilhouette", {10, 20, 30}}}},
      {"--brightness 0.2 --contrast 1.3:all", kFrontEndProcessor,
       {{"SetBrightness", {0.2, kChannelsColor}}, {"SetContrast", {1.3, kChannelsAll}}}},
      {"--super-contrast 0.1:0.9:alpha", kFrontEndProcessor, {{"SetSuperContrast", {0.1, 0.9, kChannelsAlpha}}}},
      {"--colour-balance 1.2:0.5:1 --colour-temperature 4000", kFrontEndProcessor,
       {{"SetColorBalance", {1.2, 0.5, 1}}, {"SetColorTemperature", {4000}}}},
      {"--saturation 1.5 --hue-shift 90:0.5 --hue-colourize 200", kFrontEndProcessor,
       {{"SetSaturation", {1.5}}, {"SetHueShift", {90, 0.5}}, {"SetHueColorize", {200, 1}}}},
      {"--tint bronze:0.8 --three-strip 0.2:0.4:0.6", kFrontEndProcessor,
       {{"SetTint", {kTintBronze, 0.8}}, {"SetThreeStripColor", {0.2, 0.4, 0.6}}}},
      {"--stack-blur 2:h --yuv-blur 3:both", kFrontEndProcessor,
       {{"SetStackBlur", {2, 1, 0, kChannelsAll}}, {"SetYUVBlur", {3, kYUVBlurHorizontalVertical}}}},
      {"--stack-blur 8 --downsample 2", kFrontEndProcessor, {{"SetStackBlur", {4, 1, 1, kChannelsAll}}}},
      {"--bounded-blur 2:3:1:12:8:1.5:v:colour", kFrontEndProcessor,
       {{"SetBoundedStackBlur", {2, 0, 1, kChannelsColor, 3, 1, 12, 8, 1.5}}}},
      {"--defocus 3:0.3 --diffuse 2:0.5:1", kFrontEndProcessor,
       {{"SetDefocus", {3, 0.3, 0}}, {"SetDiffuse", {2, 0.5, 1}}}},
      {"--sharpen 2:0.6:0.05 --soft-focus overlay:3:0.7", kFrontEndProcessor,
       {{"SetSharpen", {2, 0.6, 0.05, 0}}, {"SetSoftFocus", {kBlendOverlay, 3, 0.7, 0, 0, 16777216, 16777216, 0}}}},
      {"--bleach-bypass 0.5:0.3:0.7 --vignette 0.6:0.4:0.5:0.3:0.2:40:90:200", kFrontEndProcessor,
       {{"SetBleachBypass", {0.5, 0.3, 0.7}}, {"SetVignette", {40, 90, 200, 0.6, 0.4, 0.5, 0.3, 0.2, 0, 0, 0, 0}}}},
      {"--depth-of-field linear:10:6:3:0.1:0.3:0.9:30", kFrontEndProcessor,
       {{"SetDepthOfField", {kDepthOfFieldLinear, 10, 6, 30, 3, 0.1, 0.3, 0.9, 0, 0, 0, 0, 0}}}},
      {"", kFrontEndKeyer, {{"SetAutoColorDifferenceKey", autoKey}}},
      {"--saturation-softness 0.4 --key green --balance 0.7 --saturation-limit 0.3", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", {kKeyColorGreen, 0.7, 0.3, 0.4}}}},
      {"--spill extended:0.8", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", autoKey}, {"SetSpillSuppression", {kChannelGreen, kSpillExtended, 0.8, 0, -1, 0, 1}}}},
      {"--spill advanced --spill-channel blue --spill-factors 0.1:0.2:-1:0.9", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", autoKey},
        {"SetSpillSuppression", {kChannelBlue, kSpillAdvanced, 1, 0.1, 0.2, -1, 0.9}}}},
      {"--erode 1:rightward --crop 0.05,0,0.05,0", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", autoKey}, {"SetWhiteErode", {kWhiteErodeRightward, 1}},
        {"SetAlphaCrop", {0.05, 0, 0.05, 0}}}},
      {"--alpha-blur 1:h --alpha-contrast 0.1:0.9 --yuv-blur 2", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", autoKey}, {"SetAlphaStackBlur", {1, 1, 0}},
        {"SetAlphaSuperContrast", {0.1, 0.9}}, {"SetYUVBlur", {2, kYUVBlurStack}}}},
  };
  const Image pattern = Pattern(23, 13, 5), frame = SynthesiseGreenScreenFrame(48, 27);
  WriteImage(Path("pattern.png"), pattern);
  WriteImage(Path("frame.png"), frame);
  kvo::KVSystem::SetCPUCoreCount(3);  // the key's statistics depend on the thread count
  std::string everyOption;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.options);
    everyOption += row.options + " ";
    const bool key = row.frontEnd == kFrontEndKeyer;
    const Result r = Run(std::string(key ? "key " + Path("frame.png") : "process " + Path("pattern.png")) + " " +
                         Path("out.png") + " --threads 3 " + row.options);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    ExpectSameImage(Engine(key ? frame : pattern, row.frontEnd, row.stages), ReadImage(Path("out.png")));
  }
  for (const std::vector<OptionEntry>* table : {&EffectOptions(), &KeyOptions()}) {
    for (const OptionEntry& entry : *table) {
      EXPECT_NE(std::string::npos, everyOption.find(std::string(entry.name) + " ")) << entry.name << " has no row";
    }
  }
  // An opaque image is stored as RGB and reads back opaque.
  WriteImage(Path("opaque.png"), Opaque(pattern));
  ASSERT_EQ(0, Run("process " + Path("opaque.png") + " " + Path("copy.png")).status);
  ExpectSameImage(Opaque(pattern), ReadImage(Path("copy.png")));
}

TEST_F(ToolTest, JpegOutputFlattensOverTheMatteColour) {
  Image input(16, 16);
  for (size_t i = 0; i < input.bgra.size(); i += 4) input.bgra[i + 2] = 255;  // red, fully transparent
  WriteImage(Path("in.png"), input);
  ASSERT_EQ(0, Run("process " + Path("in.png") + " " + Path("black.jpg")).status);
  ASSERT_EQ(0, Run("process " + Path("in.png") + " " + Path("blue.JPEG") + " --matte-colour 0,0,255 --quality 100").status);
  const Image black = ReadImage(Path("black.jpg")), blue = ReadImage(Path("blue.JPEG"));
  ASSERT_EQ(16u, black.width);
  ASSERT_EQ(16u, blue.height);
  for (size_t i = 0; i < black.bgra.size(); i += 4) {
    EXPECT_LE(black.bgra[i] + black.bgra[i + 1] + black.bgra[i + 2], 6);
    EXPECT_GE(blue.bgra[i], 250);
    EXPECT_LE(blue.bgra[i + 2], 5);
    EXPECT_EQ(255, blue.bgra[i + 3]);
  }
}

// A keyed frame over a background, and a composite of shadow, glow and
// layers over a faded background, against the engine's compositor.
TEST_F(ToolTest, KeyBackgroundsAndCompositesAreTheEnginesCompositor) {
  const Image frame = SynthesiseGreenScreenFrame(31, 19), background = Opaque(Pattern(31, 19, 3));
  const Image layerImage = Pattern(31, 19, 12), second = Pattern(31, 19, 77);
  WriteImage(Path("frame.png"), frame);
  WriteImage(Path("bg.png"), background);
  WriteImage(Path("l.png"), layerImage);
  WriteImage(Path("b.png"), second);
  Result r = Run("key " + Path("frame.png") + " " + Path("comp.png") + " --threads 2 --background " + Path("bg.png"));
  ASSERT_EQ(0, r.status) << r.err;
  kvo::KVSystem::SetCPUCoreCount(2);
  Image keyed = Engine(frame, kFrontEndKeyer, {{"SetAutoColorDifferenceKey", {kKeyColorAuto, 0.5, 0.2, 0.5}}});
  Image expected = background, layer = layerImage, other = second;
  KVImage8 bg(expected.bgra.data(), 31, 19, kPixelOrderBGRA), top(layer.bgra.data(), 31, 19, kPixelOrderBGRA),
      key(keyed.bgra.data(), 31, 19, kPixelOrderBGRA), lb(other.bgra.data(), 31, 19, kPixelOrderBGRA);
  kvo::KVLookupTables tables;
  {
    KVImageCompositor compositor(&bg, 1.0, tables, kDownsampleNone);
    ASSERT_EQ(0, compositor.AddLayer(&key, 1.0, kBlendNormal, kCompositeAlpha));
    ASSERT_EQ(0, compositor.Render());
    ExpectSameImage(expected, ReadImage(Path("comp.png")));
  }
  r = Run("composite " + Path("bg.png") + " " + Path("out.png") + " --shadow " + Path("l.png") + ":3:2:1:0.5 --glow " +
          Path("l.png") + ":2:0.7 --layer " + Path("l.png") + ":multiply:0.5 --layer " + Path("b.png") +
          ":screen:1:color-only --background-opacity 0.6");
  ASSERT_EQ(0, r.status) << r.err;
  expected = background;
  KVImageCompositor compositor(&bg, 0.6, tables, kDownsampleNone);
  const kvo::maths::KVRect bounds(kvo::maths::KVPoint2(0, 0), 31, 19);
  const kvo::maths::KVQuad moved(kvo::maths::KVPoint2F(3, 2), kvo::maths::KVPoint2F(34, 2),
                                 kvo::maths::KVPoint2F(3, 21), kvo::maths::KVPoint2F(34, 21));
  ASSERT_EQ(0, compositor.AddShadowCastLayer(&top, bounds, moved, 1, 0.5, KVPixel8_RGB{0, 0, 0}, kBlendMultiply,
                                             false, kDownsampleNone));
  ASSERT_EQ(0, compositor.AddLightSpillLayer(&top, 2, 0.7, kBlendScreen, kDownsampleNone));
  ASSERT_EQ(0, compositor.AddLayer(&top, 0.5, kBlendMultiply, kCompositeAlpha));
  ASSERT_EQ(0, compositor.AddLayer(&lb, 1.0, kBlendScreen, kCompositeColorOnly));
  ASSERT_EQ(0, compositor.Render());
  ExpectSameImage(expected, ReadImage(Path("out.png")));
}

// ---------------------------------------------------------------------------
// stream
// ---------------------------------------------------------------------------

TEST_F(ToolTest, StreamGivesWhatProcessAndKeyGiveFrameByFrame) {
  const unsigned int w = 48, h = 27;
  std::vector<Image> frames = {Pattern(w, h, 3), Pattern(w, h, 90), SynthesiseGreenScreenFrame(w, h)};
  std::string raw;
  for (size_t i = 0; i < frames.size(); ++i) {
    raw.append(frames[i].bgra.begin(), frames[i].bgra.end());
    WriteImage(Path("f" + std::to_string(i) + ".png"), frames[i]);
  }
  WriteText(Path("in.raw"), raw);
  const std::string effects = " --contrast 1.4 --tint selenium:0.7 --stack-blur 2";
  Result r = Run("stream --size 48x27" + effects, Path("in.raw"));
  ASSERT_EQ(0, r.status) << r.err;
  ASSERT_EQ(raw.size(), r.out.size());
  for (size_t i = 0; i < frames.size(); ++i) {
    const std::string name = Path("p" + std::to_string(i) + ".png");
    ASSERT_EQ(0, Run("process " + Path("f" + std::to_string(i) + ".png") + " " + name + effects).status);
    const Image expected = ReadImage(name);
    const std::string got = r.out.substr(i * w * h * 4, w * h * 4);
    for (size_t b = 0; b < got.size(); ++b) {
      ASSERT_EQ(expected.bgra[b], static_cast<unsigned char>(got[b])) << "frame " << i << " byte " << b;
    }
  }
}

TEST_F(ToolTest, StreamRefusesAShortFinalFrameAfterWritingTheWholeOnes) {
  const Image frame = Pattern(8, 4, 1);
  std::string raw(frame.bgra.begin(), frame.bgra.end());
  raw += raw.substr(0, 100);
  WriteText(Path("in.raw"), raw);
  const Result r = Run("stream --size 8x4 --brightness 0.1", Path("in.raw"));
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("kvimage stream: input ended inside frame 2 (100 of 128 bytes)\n", r.err);
  EXPECT_EQ(128u, r.out.size());
  // Empty input is zero frames, not an error.
  WriteText(Path("empty.raw"), "");
  const Result empty = Run("stream --size 8x4", Path("empty.raw"));
  EXPECT_EQ(0, empty.status);
  EXPECT_EQ("", empty.out);
}

// ---------------------------------------------------------------------------
// Errors: one line naming the problem, a non-zero status, no file written.
// ---------------------------------------------------------------------------

TEST_F(ToolTest, EveryErrorPathHasItsMessageAndStatus) {
  const Image input = Pattern(20, 10, 4);
  WriteImage(Path("in.png"), input);
  WriteImage(Path("other.png"), Pattern(21, 10, 4));
  WriteImage(Path("in.jpg"), Opaque(input));
  const std::string png = ReadText(Path("in.png")), jpg = ReadText(Path("in.jpg"));
  WriteText(Path("short.png"), png.substr(0, png.size() / 2));
  std::string corrupt = png;
  corrupt[corrupt.size() - 20] ^= 0x55;  // inside the image data: its checksum fails
  WriteText(Path("corrupt.png"), corrupt);
  WriteText(Path("short.jpg"), jpg.substr(0, jpg.size() / 2));
  WriteText(Path("anim.gif"), "GIF89a\x01\x00\x01\x00");
  WriteText(Path("empty.png"), "");
  mkdir(Path("folder.png").c_str(), 0777);
  WriteText(Path("keep.png"), "previous contents");
  const std::string in = Path("in.png"), out = Path("out.png");
  const std::vector<std::string> made = {"in.png",    "other.png", "in.jpg",    "short.png",  "corrupt.png",
                                         "short.jpg", "anim.gif",  "empty.png", "folder.png", "keep.png"};

  struct Case {
    std::string arguments;
    int status;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"process " + Path("missing.png") + " " + out, 1,
       "kvimage process: cannot read '" + Path("missing.png") + "': No such file or directory"},
      {"process " + Path("folder.png") + " " + out, 1,
       "kvimage process: cannot read '" + Path("folder.png") + "': it is a directory"},
      {"process " + Path("short.png") + " " + out, 1,
       "kvimage process: '" + Path("short.png") + "' is not a readable PNG file: the file is truncated"},
      {"process " + Path("corrupt.png") + " " + out, 1,
       "kvimage process: '" + Path("corrupt.png") + "' is not a readable PNG file: "},
      {"process " + Path("anim.gif") + " " + out, 1,
       "kvimage process: cannot read '" + Path("anim.gif") + "': unsupported format (not a PNG or JPEG file)"},
      {"process " + in + " " + Path("out.bmp"), 2,
       "kvimage process: cannot write '" + Path("out.bmp") + "': unsupported format (use .png, .jpg or .jpeg)"},
      {"process " + in + " " + Path("no/such/dir.png"), 1,
       "kvimage process: cannot write '" + Path("no/such/dir.png") + "': No such file or directory"},
      {"process " + in + " " + out + " --brightness 1.5", 2,
       "kvimage process: --brightness 1.5: the engine refused it: code 7 (argument out of range)"},
      {"process " + in + " " + out + " --brightness 0.1:0", 2,
       "kvimage process: --brightness 0.1:0: '0' is not one of alpha|colour|all"},
      {"process " + in + " " + out + " --stack-blur 4294967296", 2,
       "kvimage process: --stack-blur 4294967296: '4294967296' is out of range (0..4294967295)"},
      {"process " + in + " " + out + " --contrast x1", 2, "kvimage process: --contrast x1: 'x1' is not a number"},
      {"process " + in + " " + out + " --tint sepia", 2,
       "kvimage process: --tint sepia: 'sepia' is not one of grey|warm|bronze|cyanotype|emerald|gold|palladium|"
       "platinum|platinum-palladium|selenium|silver"},
      {"process " + in + " " + out + " --colour-balance 1:1", 2,
       "kvimage process: --colour-balance 1:1: expected 3 values, got 2"},
      {"process " + in + " " + out + " --saturation", 2, "kvimage process: --saturation needs a value"},
      {"process " + in + " " + out + " --bogus 3", 2,
       "kvimage process: unknown option '--bogus' (see kvimage process --help)"},
      {"process " + in, 2, "kvimage process: expected IN and OUT, got 1 argument (see kvimage process --help)"},
      {"process " + in + " " + out + " --threads 0", 2, "kvimage process: --threads 0: '0' is out of range (1..255)"},
      {"process " + in + " " + Path("keep.png") + " --opacity 2", 2,
       "kvimage process: --opacity 2: the engine refused it: code 7 (argument out of range)"},
      {"key " + in + " " + out + " --saturation-limit 1.5", 2,
       "kvimage key: --key auto --balance 0.5 --saturation-limit 1.5 --saturation-softness 0.5: the engine refused "
       "it: code 7 (argument out of range)"},
      {"key " + in + " " + out + " --spill fancy", 2,
       "kvimage key: --spill fancy: 'fancy' is not one of standard|extended|advanced"},
      {"key " + in + " " + out + " --background " + Path("other.png"), 1,
       "kvimage key: '" + Path("other.png") + "' is 21x10 but '" + in + "' is 20x10: sizes do not match"},
      {"composite " + in + " " + out + " --layer " + Path("other.png"), 1,
       "kvimage composite: layer '" + Path("other.png") +
           "' is 21x10 but the background is 20x10: code 1000 (images do not match)"},
      {"composite " + in + " " + out + " --layer " + in + ":blur", 2,
       "kvimage composite: --layer blur: 'blur' is not one of add|colour-burn|colour-dodge|darken|difference|"
       "exclusion|hard-light|lighten|multiply|normal|overlay|screen|soft-light|replace"},
      {"composite " + in + " " + out, 2,
       "kvimage composite: composite needs at least one --layer FILE[:MODE[:OPACITY[:TYPE]]]"},
      {"stream --brightness 0.1", 2, "kvimage stream: stream needs --size WxH"},
      {"stream --size 10by10", 2, "kvimage stream: --size 10by10: expected WIDTHxHEIGHT, at most 4 GiB a frame"},
      {"demo --size 10x10", 2, "kvimage demo: --size 10x10: out of range (64x36..3840x2160)"},
      {"frobnicate", 2, "kvimage: unknown command 'frobnicate' (kvimage --help lists them)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Result r = Run(c.arguments);
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(0u, r.err.find(c.message)) << r.err;
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << "one line: " << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ(std::vector<std::string>(), StrayFiles(made)) << "nothing written";
    EXPECT_EQ("previous contents", ReadText(Path("keep.png")));
  }
}

// ---------------------------------------------------------------------------
// help, version, demo
// ---------------------------------------------------------------------------

TEST_F(ToolTest, HelpListsEveryOptionWithItsRange) {
  const Result all = Run("--help");
  ASSERT_EQ(0, all.status);
  const Result process = Run("process --help"), key = Run("key --help"), stream = Run("stream --help");
  ASSERT_EQ(0, process.status);
  ASSERT_EQ(0, key.status);
  ASSERT_EQ(0, stream.status);
  for (const OptionEntry& entry : EffectOptions()) {
    EXPECT_NE(std::string::npos, all.out.find(std::string(entry.name) + " ")) << entry.name;
    EXPECT_NE(std::string::npos, all.out.find(OptionHelp(entry))) << entry.name;
    EXPECT_NE(std::string::npos, process.out.find(OptionHelp(entry))) << entry.name;
    EXPECT_NE(std::string::npos, stream.out.find(OptionHelp(entry))) << entry.name;
  }
  for (const OptionEntry& entry : KeyOptions()) {
    EXPECT_NE(std::string::npos, all.out.find(OptionHelp(entry))) << entry.name;
    EXPECT_NE(std::string::npos, key.out.find(OptionHelp(entry))) << entry.name;
    EXPECT_NE(std::string::npos, stream.out.find(OptionHelp(entry))) << entry.name;
  }
  for (const char* command : {"demo", "composite"}) {
    const Result r = Run(std::string(command) + " --help");
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find(std::string("usage: kvimage ") + command)) << r.out;
  }
  EXPECT_NE(std::string::npos, stream.out.find("ffmpeg -i in.mp4 -f rawvideo -pix_fmt bgra -"));
  const Result version = Run("--version");
  EXPECT_EQ(0, version.status);
  EXPECT_EQ(std::string("kvimage ") + KVIMAGE_VERSION + "\n", version.out);
  EXPECT_EQ(2, Run("").status);
}

TEST_F(ToolTest, DemoWritesItsPicturesAndReportsEachStep) {
  const Result r = Run("demo --size 128x72 --threads 3 --out " + Path("out/demo"));
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0u, r.out.find("kvimage demo: 128x72 frame, 3 threads")) << r.out;
  for (const char* name : {"frame.png", "matte.png", "keyed.png", "composite.png", "effects.png"}) {
    const std::string path = Path("out/demo/") + name;
    EXPECT_NE(std::string::npos, r.out.find("wrote " + path)) << r.out;
    const Image image = ReadImage(path);
    if (std::string(name) != "effects.png") {
      EXPECT_EQ(128u, image.width);
      EXPECT_EQ(72u, image.height);
    }
  }
  EXPECT_NE(std::string::npos, r.out.find("keyed: auto key (green)")) << r.out;
  // The key left the backing transparent and the subject opaque.
  const Image keyed = ReadImage(Path("out/demo/keyed.png"));
  EXPECT_EQ(0, keyed.Pixel(20, 10)[3]);
  EXPECT_EQ(255, keyed.Pixel(64, 65)[3]);
}

}  // namespace
