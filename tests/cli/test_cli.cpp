// The kvimage tool, run as a separate process in a scratch directory on small
// generated images. Its outputs are compared byte for byte with the engine's
// own results through the public API, and every error path with its message
// and exit status.
#include <dirent.h>
#include <gtest/gtest.h>
#include <kvimage/kvimage.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "../TestSupport.h"
#include "Demo.h"
#include "ImageFiles.h"
#include "Options.h"

using namespace kvimage_cli;
using namespace kvo::image;

namespace {

struct Result {
  int status;
  std::string out, err;
};

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

Image Pattern(unsigned int width, unsigned int height, uint32_t seed, bool opaque = false) {
  Image image(width, height);
  image.bgra = kvtest::PatternBytes(image.bgra.size(), seed);
  for (size_t i = 3; opaque && i < image.bgra.size(); i += 4) image.bgra[i] = 255;
  return image;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

bool Same(const Image& a, const Image& b) { return a.width == b.width && a.height == b.height && a.bgra == b.bgra; }

// Each test works in a scratch directory of its own, naming files relative
// to it (so do the tool's messages).
class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kvimage-cli-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    ASSERT_EQ(0, chdir((dir = pattern).c_str()));
  }
  void TearDown() override {
    EXPECT_EQ(0, chdir("/"));
    EXPECT_EQ(0, std::system(("rm -rf '" + dir + "'").c_str()));
  }

  // Runs the tool with arguments (shell words) and standard input.
  static Result Run(const std::string& arguments, const std::string& input = "/dev/null") {
    const int raw = std::system((KVIMAGE_TOOL_PATH " " + arguments + " <" + input + " >out.txt 2>err.txt").c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadText("out.txt"), ReadText("err.txt")};
  }

  std::string dir;
};

// The names in the scratch directory.
std::vector<std::string> Files() {
  std::vector<std::string> names;
  DIR* d = opendir(".");
  while (dirent* entry = readdir(d)) names.push_back(entry->d_name);
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

// The engine over copies of the images, queueing each (setter, numbers) by
// name on one front end: a processor or keyer whose destination starts as the
// source (as the tool's does), or a compositor over the source faded to an
// opacity, the layer setters taking the layers in turn.
typedef std::vector<std::pair<const char*, std::vector<double>>> Stages;

Image Engine(const Image& source, KVFrontEnd frontEnd, const Stages& stages, std::vector<Image> layers = {},
             double opacity = 1) {
  Image in = source, out = source;
  KVImage8 a(in.bgra.data(), in.width, in.height, kPixelOrderBGRA);
  KVImage8 b(out.bgra.data(), out.width, out.height, kPixelOrderBGRA);
  KVImageProcessor processor(&a, &b, kvtest::SharedTables(), kDownsampleNone);
  KVImageKeyer keyer(&a, &b, kvtest::SharedTables(), kDownsampleNone);
  KVImageCompositor compositor(&a, opacity, kvtest::SharedTables(), kDownsampleNone);
  std::list<KVImage8> views;
  for (size_t i = 0; i < stages.size(); ++i) {
    const auto& [name, numbers] = stages[i];
    const unsigned int count = static_cast<unsigned int>(numbers.size());
    Image* l = i < layers.size() ? &layers[i] : nullptr;
    KVAbstractImage* layer = l ? &views.emplace_back(l->bgra.data(), l->width, l->height, kPixelOrderBGRA) : nullptr;
    EXPECT_EQ(0, frontEnd == kFrontEndProcessor ? QueueSetter(processor, name, numbers.data(), count)
                 : frontEnd == kFrontEndKeyer   ? QueueSetter(keyer, name, numbers.data(), count)
                                                : QueueSetter(compositor, name, numbers.data(), count, &layer, 1))
        << name;
  }
  EXPECT_EQ(0, frontEnd == kFrontEndProcessor ? processor.Render()
               : frontEnd == kFrontEndKeyer   ? keyer.Render()
                                              : compositor.Render());
  return frontEnd == kFrontEndCompositor ? in : out;
}

// Every option row of the tool's tables, given on the command line, gives
// the bytes of its setter called by name; a key command always starts with
// a key (automatic unless --key names one) that the key settings adjust.
TEST_F(ToolTest, EveryOptionRowGivesTheEnginesBytes) {
  const Stages::value_type autoKey = {"SetAutoColorDifferenceKey", {kKeyColorAuto, 0.5, 0.2, 0.5}};
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
      {"", kFrontEndKeyer, {autoKey}},
      {"--saturation-softness 0.4 --key green --balance 0.7 --saturation-limit 0.3", kFrontEndKeyer,
       {{"SetAutoColorDifferenceKey", {kKeyColorGreen, 0.7, 0.3, 0.4}}}},
      {"--spill extended:0.8", kFrontEndKeyer,
       {autoKey, {"SetSpillSuppression", {kChannelGreen, kSpillExtended, 0.8, 0, -1, 0, 1}}}},
      {"--spill advanced --spill-channel blue --spill-factors 0.1:0.2:-1:0.9", kFrontEndKeyer,
       {autoKey, {"SetSpillSuppression", {kChannelBlue, kSpillAdvanced, 1, 0.1, 0.2, -1, 0.9}}}},
      {"--erode 1:rightward --crop 0.05,0,0.05,0", kFrontEndKeyer,
       {autoKey, {"SetWhiteErode", {kWhiteErodeRightward, 1}}, {"SetAlphaCrop", {0.05, 0, 0.05, 0}}}},
      {"--alpha-blur 1:h --alpha-contrast 0.1:0.9 --yuv-blur 2", kFrontEndKeyer,
       {autoKey, {"SetAlphaStackBlur", {1, 1, 0}}, {"SetAlphaSuperContrast", {0.1, 0.9}},
        {"SetYUVBlur", {2, kYUVBlurStack}}}},
  };
  const Image pattern = Pattern(23, 13, 5), frame = SynthesiseGreenScreenFrame(48, 27);
  WriteImage("in.png", pattern);
  WriteImage("frame.png", frame);
  const kvtest::ScopedCoreCount threads(3);  // the key's statistics depend on the thread count
  std::string everyOption;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.options);
    everyOption += row.options + " ";
    const bool key = row.frontEnd == kFrontEndKeyer;
    const Result r = Run(std::string(key ? "key frame.png" : "process in.png") + " out.png --threads 3 " + row.options);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_TRUE(Same(Engine(key ? frame : pattern, row.frontEnd, row.stages), ReadImage("out.png")));
  }
  // Each option has a row, and its help line with its ranges in the overall
  // help and its command's (stream takes both tables).
  const std::string help = Run("--help").out, streamHelp = Run("stream --help").out;
  for (const auto& [table, command] : {std::pair(&EffectOptions(), "process"), std::pair(&KeyOptions(), "key")}) {
    const std::string own = Run(std::string(command) + " --help").out;
    for (const OptionEntry& entry : *table) {
      const std::string name = entry.name + std::string(" "), line = OptionHelp(entry);
      EXPECT_TRUE(Has(everyOption, name)) << entry.name << " has no row";
      EXPECT_TRUE(Has(help, name) && Has(help, line) && Has(own, line) && Has(streamHelp, line)) << entry.name;
    }
  }
}

// A JPEG has no alpha: transparent pixels come out over the matte colour.
TEST_F(ToolTest, JpegOutputFlattensOverTheMatteColour) {
  Image input(16, 16);
  for (size_t i = 0; i < input.bgra.size(); i += 4) input.bgra[i + 2] = 255;  // red, fully transparent
  WriteImage("in.png", input);
  ASSERT_EQ(0, Run("process in.png black.jpg").status);
  ASSERT_EQ(0, Run("process in.png blue.JPEG --matte-colour 0,0,255 --quality 100").status);
  const Image black = ReadImage("black.jpg"), blue = ReadImage("blue.JPEG");
  ASSERT_TRUE(black.width == 16 && blue.height == 16);
  for (size_t i = 0; i < black.bgra.size(); i += 4) {
    EXPECT_LE(black.bgra[i] + black.bgra[i + 1] + black.bgra[i + 2], 6) << i;
    EXPECT_TRUE(blue.bgra[i] >= 250 && blue.bgra[i + 2] <= 5 && blue.bgra[i + 3] == 255) << i;
  }
}

// A keyed frame over a background, and a composite of shadow, glow and
// layers over a faded background, against the engine's compositor.
TEST_F(ToolTest, KeyBackgroundsAndCompositesAreTheEnginesCompositor) {
  const Image frame = SynthesiseGreenScreenFrame(31, 19), background = Pattern(31, 19, 3, true);
  const Image layer = Pattern(31, 19, 12);
  WriteImage("frame.png", frame);
  WriteImage("bg.png", background);
  WriteImage("l.png", layer);
  const kvtest::ScopedCoreCount threads(2);
  ASSERT_EQ(0, Run("key frame.png comp.png --threads 2 --background bg.png").status);
  const Image keyed = Engine(frame, kFrontEndKeyer, {{"SetAutoColorDifferenceKey", {kKeyColorAuto, 0.5, 0.2, 0.5}}});
  EXPECT_TRUE(Same(Engine(background, kFrontEndCompositor, {{"AddLayer", {1, kBlendNormal, kCompositeAlpha}}}, {keyed}),
                   ReadImage("comp.png")));
  ASSERT_EQ(0, Run("composite bg.png out.png --shadow l.png:3:2:1:0.5 --glow l.png:2:0.7 --layer l.png:multiply:0.5 "
                   "--layer l.png:screen:1:color-only --background-opacity 0.6")
                   .status);
  const Stages stages = {
      {"AddShadowCastLayer", {0, 0, 31, 19, 3, 2, 34, 2, 3, 21, 34, 21, 1, 0.5, 0, 0, 0, kBlendMultiply, 0, 1}},
      {"AddLightSpillLayer", {2, 0.7, kBlendScreen, kDownsampleNone}},
      {"AddLayer", {0.5, kBlendMultiply, kCompositeAlpha}},
      {"AddLayer", {1, kBlendScreen, kCompositeColorOnly}}};
  EXPECT_TRUE(Same(Engine(background, kFrontEndCompositor, stages, {layer, layer, layer, layer}, 0.6),
                   ReadImage("out.png")));
}

// Raw frames through stream are the engine's frames; a short final frame is
// refused after the whole ones are written, and empty input is no frames.
TEST_F(ToolTest, StreamGivesTheEnginesBytesFrameByFrame) {
  const Image frame = SynthesiseGreenScreenFrame(48, 27);
  const kvtest::ScopedCoreCount threads(3);  // the contrast's vector shares depend on the count
  const Image once = Engine(frame, kFrontEndProcessor,
                            {{"SetContrast", {1.4, kChannelsColor}}, {"SetTint", {kTintSelenium, 0.7}},
                             {"SetStackBlur", {2, 1, 1, kChannelsAll}}});
  const std::string raw(frame.bgra.begin(), frame.bgra.end()), expected(once.bgra.begin(), once.bgra.end());
  WriteText("in.raw", raw + raw + raw.substr(0, 100));
  const Result r = Run("stream --size 48x27 --threads 3 --contrast 1.4 --tint selenium:0.7 --stack-blur 2", "in.raw");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("kvimage stream: input ended inside frame 3 (100 of 5184 bytes)\n", r.err);
  EXPECT_TRUE(expected + expected == r.out);
  const Result none = Run("stream --size 48x27");
  EXPECT_TRUE(none.status == 0 && none.out.empty());
}

// Errors: one line naming the problem after "kvimage COMMAND: ", a non-zero
// status, no file written or left behind.
TEST_F(ToolTest, EveryErrorPathHasItsMessageAndStatus) {
  WriteImage("in.png", Pattern(20, 10, 4));
  WriteImage("wide.png", Pattern(21, 10, 4));
  std::string png = ReadText("in.png");
  WriteText("short.png", png.substr(0, png.size() / 2));
  png[png.size() - 20] ^= 0x55;  // inside the image data: its checksum fails
  WriteText("corrupt.png", png);
  WriteText("anim.gif", "GIF89a\x01\x00\x01\x00");
  mkdir("folder.png", 0777);
  WriteText("keep.png", "previous contents");
  Run("--version");
  const std::vector<std::string> made = Files();
  const struct {
    std::string arguments;
    int status;
    std::string message;
  } cases[] = {
      {"process missing.png out.png", 1, "cannot read 'missing.png': No such file or directory"},
      {"process folder.png out.png", 1, "cannot read 'folder.png': it is a directory"},
      {"process short.png out.png", 1, "'short.png' is not a readable PNG file: the file is truncated"},
      {"process corrupt.png out.png", 1, "'corrupt.png' is not a readable PNG file: "},
      {"process anim.gif out.png", 1, "cannot read 'anim.gif': unsupported format (not a PNG or JPEG file)"},
      {"process in.png out.bmp", 2, "cannot write 'out.bmp': unsupported format (use .png, .jpg or .jpeg)"},
      {"process in.png no/such/dir.png", 1, "cannot write 'no/such/dir.png': No such file or directory"},
      {"process in.png out.png --brightness 0.1:0", 2, "--brightness 0.1:0: '0' is not one of alpha|colour|all"},
      {"process in.png out.png --stack-blur 4294967296", 2,
       "--stack-blur 4294967296: '4294967296' is out of range (0..4294967295)"},
      {"process in.png out.png --contrast x1", 2, "--contrast x1: 'x1' is not a number"},
      {"process in.png out.png --colour-balance 1:1", 2, "--colour-balance 1:1: expected 3 values, got 2"},
      {"process in.png out.png --saturation", 2, "--saturation needs a value"},
      {"process in.png out.png --bogus 3", 2, "unknown option '--bogus' (see kvimage process --help)"},
      {"process in.png", 2, "expected IN and OUT, got 1 argument (see kvimage process --help)"},
      {"process in.png out.png --threads 0", 2, "--threads 0: '0' is out of range (1..255)"},
      {"process in.png keep.png --opacity 2", 2, "--opacity 2: the engine refused it: code 7 (argument out of range)"},
      {"key in.png out.png --saturation-limit 1.5", 2,
       "--key auto --balance 0.5 --saturation-limit 1.5 --saturation-softness 0.5: the engine refused it: code 7 "
       "(argument out of range)"},
      {"key in.png out.png --background wide.png", 1, "'wide.png' is 21x10 but 'in.png' is 20x10: sizes do not match"},
      {"composite in.png out.png --layer wide.png", 1,
       "layer 'wide.png' is 21x10 but the background is 20x10: code 1000 (images do not match)"},
      {"composite in.png out.png --layer in.png:blur", 2,
       "--layer blur: 'blur' is not one of add|colour-burn|colour-dodge|darken|difference|exclusion|hard-light|"
       "lighten|multiply|normal|overlay|screen|soft-light|replace"},
      {"composite in.png out.png", 2, "composite needs at least one --layer FILE[:MODE[:OPACITY[:TYPE]]]"},
      {"stream --brightness 0.1", 2, "stream needs --size WxH"},
      {"stream --size 10by10", 2, "--size 10by10: expected WIDTHxHEIGHT, at most 4 GiB a frame"},
      {"demo --size 10x10", 2, "--size 10x10: out of range (64x36..3840x2160)"},
      {"frob", 2, "unknown command 'frob' (kvimage --help lists them)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Result r = Run(c.arguments);
    const std::string command = c.arguments.substr(0, c.arguments.find(' '));
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(0u, r.err.find((command == "frob" ? "kvimage: " : "kvimage " + command + ": ") + c.message)) << r.err;
    EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << "one line: " << r.err;
    EXPECT_EQ("", r.out);
    EXPECT_EQ(made, Files()) << "nothing written";
    EXPECT_EQ("previous contents", ReadText("keep.png"));
  }
}

// stream's help shows how to feed it; the version; no command is a usage error.
TEST_F(ToolTest, UsageAndVersion) {
  EXPECT_TRUE(Has(Run("stream --help").out, "ffmpeg -i in.mp4 -f rawvideo -pix_fmt bgra -"));
  EXPECT_EQ(std::string("kvimage ") + KVIMAGE_VERSION + "\n", Run("--version").out);
  EXPECT_EQ(2, Run("").status);
}

TEST_F(ToolTest, DemoWritesItsPicturesAndReportsEachStep) {
  const Result r = Run("demo --size 128x72 --threads 3 --out out/demo");
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(0u, r.out.find("kvimage demo: 128x72 frame, 3 threads")) << r.out;
  EXPECT_TRUE(Has(r.out, "keyed: auto key (green)")) << r.out;
  for (const std::string name : {"frame", "matte", "keyed", "composite", "effects"}) {
    EXPECT_TRUE(Has(r.out, "wrote out/demo/" + name + ".png")) << r.out;
    const Image image = ReadImage("out/demo/" + name + ".png");
    EXPECT_TRUE(name == "effects" || (image.width == 128 && image.height == 72)) << name;
    // The key left the backing transparent and the subject opaque.
    EXPECT_TRUE(name != "keyed" || (image.Pixel(20, 10)[3] == 0 && image.Pixel(64, 65)[3] == 255));
  }
}

}  // namespace
