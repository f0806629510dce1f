// kvimage: the engine from a terminal. Commands: demo, process, key,
// composite, stream. Exit status 0 on success, 1 when a file or a render
// fails, 2 for a command line the tool cannot act on (an unknown option, a
// malformed value, a value the engine refuses).
#include <kvimage/kvimage.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Demo.h"
#include "ImageFiles.h"
#include "Options.h"

#ifndef KVIMAGE_VERSION
#define KVIMAGE_VERSION "unknown"
#endif

using namespace kvimage_cli;
using namespace kvo::image;

namespace {

const int kExitFailure = 1;
const int kExitUsage = 2;

// ---------------------------------------------------------------------------
// Help
// ---------------------------------------------------------------------------

struct CommandHelp {
  const char* name;
  const char* synopsis;
  const char* summary;
  bool effects;       // lists the effect options
  bool keys;          // lists the key options
  const char* extra;  // the command's own options
};

const char* const kCommonOptions =
    "  --threads N              worker threads per pass, 1..255 (the processor count)\n"
    "  --downsample N           radius scale 1|2|3|4 (1, 1/2, 1/3, 1/4: for proxies of a larger frame)\n";
const char* const kOutputOptions =
    "  --matte-colour R,G,B     what a JPEG output shows under transparent pixels, 0..255 each (0,0,0)\n"
    "  --quality Q              JPEG quality 1..100 (92)\n";

const CommandHelp kCommands[] = {
    {"demo", "kvimage demo [--out DIR] [--size WxH]",
     "Synthesises a green-screen frame and a background, keys and composites them, and writes\n"
     "matte.png, keyed.png, composite.png and effects.png (one tile per effect).",
     false, false,
     "  --out DIR                where to write (created if missing; default kvimage-demo)\n"
     "  --size WxH               frame size, 64x36..3840x2160 (960x540)\n"
     "  --threads N              worker threads per pass, 1..255 (the processor count)\n"},
    {"process", "kvimage process IN OUT [EFFECT OPTIONS ...]",
     "Applies the effects in the order given (an option given twice applies twice). With no\n"
     "effect the output is a copy: a format conversion.",
     true, false, nullptr},
    {"key", "kvimage key IN OUT [--background BG] [KEY OPTIONS ...]",
     "Pulls a key (--key auto unless another --key is given) and applies the keying options in\n"
     "order. OUT keeps the matte as alpha; with --background it is the composite over BG.",
     false, true, "  --background FILE        composite the keyed frame over FILE (same size)\n"},
    {"composite", "kvimage composite BACKGROUND OUT --layer FILE[:MODE[:OPACITY[:TYPE]]] ...",
     "Lays the layers over the background in order.", false, false,
     "  --layer FILE[:MODE[:OPACITY[:TYPE]]]\n"
     "                           MODE add|colour-burn|colour-dodge|darken|difference|exclusion|hard-light|\n"
     "                           lighten|multiply|normal|overlay|screen|soft-light|replace (normal);\n"
     "                           OPACITY 0..1 (1); TYPE alpha|alpha-fill|colour-only (alpha)\n"
     "  --glow FILE:RADIUS[:AMOUNT[:MODE]]\n"
     "                           a light spill of FILE: blurred by RADIUS >= 0 pixels, laid with MODE (screen)\n"
     "                           at AMOUNT 0..1 (1)\n"
     "  --shadow FILE:DX:DY[:RADIUS[:AMOUNT]]\n"
     "                           a black drop shadow of FILE's alpha moved by DX, DY pixels, blurred by\n"
     "                           RADIUS >= 0 pixels (0), multiplied in at AMOUNT 0..1 (0.6)\n"
     "  --background-opacity A   fade the background first, 0..1 (1)\n"},
    {"stream", "kvimage stream --size WxH [EFFECT or KEY OPTIONS ...]",
     "Reads raw BGRA frames from standard input until it ends and writes each processed frame to\n"
     "standard output. For example:\n"
     "  ffmpeg -i in.mp4 -f rawvideo -pix_fmt bgra - | kvimage stream --size 1920x1080 --key auto \\\n"
     "    --spill standard --background plate.png | ffmpeg -f rawvideo -pix_fmt bgra -s 1920x1080 -i - out.mp4",
     true, true,
     "  --size WxH               frame size (required)\n"
     "  --background FILE        composite every processed frame over FILE (same size)\n"
     "  --progress               frames and frames per second on standard error (default: when a terminal)\n"},
};

const CommandHelp* FindCommand(const std::string& name) {
  for (const CommandHelp& command : kCommands) {
    if (name == command.name) return &command;
  }
  return nullptr;
}

void PrintOptionTable(std::FILE* out, const std::vector<OptionEntry>& options) {
  for (const OptionEntry& entry : options) {
    const std::string head = std::string(entry.name) + (*entry.value ? " " + std::string(entry.value) : "");
    if (head.size() <= 24) {
      std::fprintf(out, "  %-24s %s\n", head.c_str(), OptionHelp(entry).c_str());
    } else {
      std::fprintf(out, "  %s\n  %-24s %s\n", head.c_str(), "", OptionHelp(entry).c_str());
    }
  }
}

void PrintCommandHelp(std::FILE* out, const CommandHelp& command) {
  std::fprintf(out, "usage: %s\n%s\n", command.synopsis, command.summary);
  if (command.extra) std::fprintf(out, "\n%s options:\n%s", command.name, command.extra);
  if (command.effects) {
    std::fprintf(out, "\neffect options (applied in order; fields separated by ':' or ','):\n");
    PrintOptionTable(out, EffectOptions());
  }
  if (command.keys) {
    std::fprintf(out, "\nkey options (applied in order; --balance and the other key settings apply to every --key):\n");
    PrintOptionTable(out, KeyOptions());
    if (!command.effects) std::fprintf(out, "  %-24s %s\n", "--yuv-blur RADIUS[:TYPE]", "as an effect option");
  }
  if (std::strcmp(command.name, "demo") != 0) {
    std::fprintf(out, "\ncommon options:\n%s", kCommonOptions);
    if (std::strcmp(command.name, "stream") != 0) std::fprintf(out, "%s", kOutputOptions);
  }
  std::fprintf(out,
               "\nAn argument the engine refuses is reported with its result code. Exit status: 0 done,\n"
               "1 a file or a render failed, 2 a command line error.\n");
}

void PrintMainHelp(std::FILE* out) {
  std::fprintf(out,
               "kvimage %s: effects, chroma keying and compositing on 8-bit BGRA images\n\n"
               "usage: kvimage COMMAND [ARGUMENTS] [OPTIONS]\n"
               "       kvimage COMMAND --help\n"
               "       kvimage --version\n\ncommands:\n",
               KVIMAGE_VERSION);
  for (const CommandHelp& command : kCommands) std::fprintf(out, "  %s\n", command.synopsis);
  std::fprintf(out, "\nImages are PNG (alpha kept) or JPEG (flattened over --matte-colour).\n");
  std::fprintf(out, "\neffect options (process, stream):\n");
  PrintOptionTable(out, EffectOptions());
  std::fprintf(out, "\nkey options (key, stream):\n");
  PrintOptionTable(out, KeyOptions());
  std::fprintf(out, "\ncommon options:\n%s%s", kCommonOptions, kOutputOptions);
  std::fprintf(out, "\nexit status: 0 done, 1 a file or a render failed, 2 a command line error\n");
}

// ---------------------------------------------------------------------------
// Command lines
// ---------------------------------------------------------------------------

struct CommandLine {
  std::string command;
  std::vector<std::string> positional;
  StageChain chain;
  WriteOptions writeOptions;
  std::string background;
  std::string outDirectory = "kvimage-demo";
  unsigned int width = 0, height = 0;
  bool sizeGiven = false;
  bool progress = false;
  double backgroundOpacity = 1.0;
  // A layer laid with AddLayer, a glow (AddLightSpillLayer) or a drop shadow
  // (AddShadowCastLayer onto the layer's rectangle moved by dx, dy).
  enum class LayerKind { kLayer, kGlow, kShadow };
  struct Layer {
    std::string file;
    KVBlendMode mode;
    double opacity;
    KVCompositeType type;
    LayerKind kind = LayerKind::kLayer;
    int radius = 0;
    double dx = 0.0, dy = 0.0;
  };
  std::vector<Layer> layers;
};

void ParseSize(const std::string& option, const std::string& value, unsigned int& width, unsigned int& height) {
  unsigned int w = 0, h = 0;
  char tail = 0;
  if (std::sscanf(value.c_str(), "%ux%u%c", &w, &h, &tail) != 2 || w == 0 || h == 0 ||
      static_cast<unsigned long long>(w) * h * 4 > 0xFFFFFFFFull) {
    throw UsageError(option + " " + value + ": expected WIDTHxHEIGHT, at most 4 GiB a frame");
  }
  width = w;
  height = h;
}

CommandLine::Layer ParseLayer(const std::string& value) {
  CommandLine::Layer layer{value, kBlendNormal, 1.0, kCompositeAlpha};
  struct stat info;
  const size_t colon = value.find(':');
  if (colon == std::string::npos || stat(value.c_str(), &info) == 0) return layer;
  layer.file = value.substr(0, colon);
  std::string rest = value.substr(colon + 1);
  for (size_t at = rest.find("color"); at != std::string::npos; at = rest.find("color", at + 6)) {
    rest.replace(at, 5, "colour");
  }
  const Fields fields("--layer", rest);
  fields.ExpectCount(1, 3);
  layer.mode = static_cast<KVBlendMode>(fields.CatalogueChoiceOr(0, BlendModeParameter(), kBlendNormal));
  layer.opacity = fields.NumberOr(1, 1.0);
  const int type = fields.CatalogueChoiceOr(2, ParameterOf(kFrontEndCompositor, "AddLayer", "compositeType"), kCompositeAlpha);
  layer.type = static_cast<KVCompositeType>(type);
  return layer;
}

// --glow FILE:RADIUS[:AMOUNT[:MODE]] and --shadow FILE:DX:DY[:RADIUS[:AMOUNT]].
CommandLine::Layer ParseGlowOrShadow(const std::string& option, const std::string& value) {
  CommandLine::Layer layer{value, kBlendScreen, 1.0, kCompositeAlpha};
  const size_t colon = value.find(':');
  if (colon == std::string::npos) throw UsageError(option + " " + value + ": expected FILE and its values");
  layer.file = value.substr(0, colon);
  const Fields fields(option, value.substr(colon + 1));
  if (option == "--glow") {
    fields.ExpectCount(1, 3);
    layer.kind = CommandLine::LayerKind::kGlow;
    layer.radius = static_cast<int>(fields.Whole(0, ParameterOf(kFrontEndCompositor, "AddLightSpillLayer", "radius")));
    layer.opacity = fields.NumberOr(1, 1.0);
    layer.mode = static_cast<KVBlendMode>(fields.CatalogueChoiceOr(2, BlendModeParameter(), kBlendScreen));
  } else {
    fields.ExpectCount(2, 4);
    layer.kind = CommandLine::LayerKind::kShadow;
    layer.mode = kBlendMultiply;
    layer.dx = fields.Number(0);
    layer.dy = fields.Number(1);
    layer.radius = static_cast<int>(fields.Whole(2, ParameterOf(kFrontEndCompositor, "AddShadowCastLayer", "radius")));
    layer.opacity = fields.NumberOr(3, 0.6);
  }
  return layer;
}

CommandLine Parse(const std::string& command, int argc, char** argv) {
  CommandLine line;
  line.command = command;
  const bool effects = command == "process" || command == "stream";
  const bool keys = command == "key" || command == "stream";
  for (int i = 0; i < argc; ++i) {
    std::string argument = argv[i];
    if (argument.size() < 2 || argument.compare(0, 2, "--") != 0) {
      line.positional.push_back(argument);
      continue;
    }
    std::string value;
    bool valueInline = false;
    const size_t equals = argument.find('=');
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
      argument = argument.substr(0, equals);
      valueInline = true;
    }
    auto takeValue = [&]() -> std::string {
      if (valueInline) return value;
      if (i + 1 >= argc) throw UsageError(argument + " needs a value");
      return argv[++i];
    };
    const OptionEntry* entry = FindStageOption(argument, effects, keys);
    if (entry) {
      line.chain.Add(*entry, *entry->value ? takeValue() : "");
      continue;
    }
    std::string name = argument;
    for (size_t at = name.find("color"); at != std::string::npos; at = name.find("color", at + 6)) {
      name.replace(at, 5, "colour");
    }
    if (name == "--threads") {
      const Fields f(name, takeValue());
      f.ExpectCount(1, 1);
      kvo::KVSystem::SetCPUCoreCount(static_cast<unsigned int>(f.Integer(0, 1, 255)));
    } else if ((effects || keys) && name == "--downsample") {
      const Fields f(name, takeValue());
      f.ExpectCount(1, 1);
      line.chain.SetDownsample(static_cast<KVDownsampleFactor>(f.Integer(0, 1, 4) - 1));
    } else if (command != "demo" && command != "stream" && name == "--matte-colour") {
      const Fields f(name, takeValue());
      f.ExpectCount(3, 3);
      for (int c = 0; c < 3; ++c) line.writeOptions.matte[c] = static_cast<unsigned char>(f.Integer(c, 0, 255));
    } else if (command != "demo" && command != "stream" && name == "--quality") {
      const Fields f(name, takeValue());
      f.ExpectCount(1, 1);
      line.writeOptions.jpegQuality = static_cast<int>(f.Integer(0, 1, 100));
    } else if ((command == "key" || command == "stream") && name == "--background") {
      line.background = takeValue();
    } else if (command == "composite" && name == "--layer") {
      line.layers.push_back(ParseLayer(takeValue()));
    } else if (command == "composite" && (name == "--glow" || name == "--shadow")) {
      line.layers.push_back(ParseGlowOrShadow(name, takeValue()));
    } else if (command == "composite" && name == "--background-opacity") {
      const Fields f(name, takeValue());
      f.ExpectCount(1, 1);
      line.backgroundOpacity = f.Number(0);
      if (line.backgroundOpacity < 0.0 || line.backgroundOpacity > 1.0) f.Fail("out of range (0..1)");
    } else if ((command == "stream" || command == "demo") && name == "--size") {
      ParseSize(name, takeValue(), line.width, line.height);
      line.sizeGiven = true;
    } else if (command == "stream" && name == "--progress") {
      line.progress = true;
    } else if (command == "demo" && name == "--out") {
      line.outDirectory = takeValue();
    } else {
      throw UsageError("unknown option '" + argument + "' (see kvimage " + command + " --help)");
    }
  }
  return line;
}

void ExpectPositional(const CommandLine& line, size_t count, const char* names) {
  if (line.positional.size() != count) {
    throw UsageError(std::string("expected ") + names + ", got " + std::to_string(line.positional.size()) +
                     " argument" + (line.positional.size() == 1 ? "" : "s") + " (see kvimage " + line.command +
                     " --help)");
  }
}

// Output names are checked before any work, so that a bad name costs nothing.
void CheckOutputName(const std::string& path) {
  if (!IsWritableImageName(path)) {
    throw UsageError("cannot write '" + path + "': unsupported format (use .png, .jpg or .jpeg)");
  }
}

void CheckSameSize(const Image& a, const std::string& aName, const Image& b, const std::string& bName) {
  if (a.width != b.width || a.height != b.height) {
    throw FileError("'" + bName + "' is " + std::to_string(b.width) + "x" + std::to_string(b.height) + " but '" +
                    aName + "' is " + std::to_string(a.width) + "x" + std::to_string(a.height) +
                    ": sizes do not match");
  }
}

// ---------------------------------------------------------------------------
// Commands
// ---------------------------------------------------------------------------

int RunProcessOrKey(CommandLine& line) {
  ExpectPositional(line, 2, "IN and OUT");
  CheckOutputName(line.positional[1]);
  if (line.command == "key" && !line.chain.HasKeyColourStage()) line.chain.PrependAutomaticKey();
  kvo::KVLookupTables tables;
  line.chain.Validate(tables);
  const Image input = ReadImage(line.positional[0]);
  Image background;
  if (!line.background.empty()) {
    background = ReadImage(line.background);
    CheckSameSize(input, line.positional[0], background, line.background);
  }
  Image output = line.chain.Run(input, tables);
  if (!line.background.empty()) {
    CompositeOver(background, output, tables, "the keyed frame");
    output.bgra.swap(background.bgra);
  }
  WriteImage(line.positional[1], output, line.writeOptions);
  return 0;
}

int RunComposite(CommandLine& line) {
  ExpectPositional(line, 2, "BACKGROUND and OUT");
  CheckOutputName(line.positional[1]);
  if (line.layers.empty()) throw UsageError("composite needs at least one --layer FILE[:MODE[:OPACITY[:TYPE]]]");
  kvo::KVLookupTables tables;
  Image background = ReadImage(line.positional[0]);
  std::vector<Image> layers;
  for (const CommandLine::Layer& layer : line.layers) layers.push_back(ReadImage(layer.file));
  KVImage8 back(background.bgra.data(), background.width, background.height, kPixelOrderBGRA);
  std::vector<std::unique_ptr<KVImage8>> wrapped;
  KVImageCompositor compositor(&back, line.backgroundOpacity, tables, kDownsampleNone);
  for (size_t i = 0; i < layers.size(); ++i) {
    wrapped.emplace_back(new KVImage8(layers[i].bgra.data(), layers[i].width, layers[i].height, kPixelOrderBGRA));
    const CommandLine::Layer& layer = line.layers[i];
    int code = 0;
    if (layer.kind == CommandLine::LayerKind::kGlow) {
      code = compositor.AddLightSpillLayer(wrapped.back().get(), layer.radius, layer.opacity, layer.mode,
                                           kDownsampleNone);
    } else if (layer.kind == CommandLine::LayerKind::kShadow) {
      const double w = layers[i].width, h = layers[i].height;
      const kvo::maths::KVRect bounds(kvo::maths::KVPoint2(0, 0), static_cast<int>(layers[i].width),
                                      static_cast<int>(layers[i].height));
      const kvo::maths::KVQuad moved(
          kvo::maths::KVPoint2F(layer.dx, layer.dy), kvo::maths::KVPoint2F(w + layer.dx, layer.dy),
          kvo::maths::KVPoint2F(layer.dx, h + layer.dy), kvo::maths::KVPoint2F(w + layer.dx, h + layer.dy));
      code = compositor.AddShadowCastLayer(wrapped.back().get(), bounds, moved, static_cast<unsigned int>(layer.radius),
                                           layer.opacity, KVPixel8_RGB{0, 0, 0}, layer.mode, false, kDownsampleNone);
    } else {
      code = compositor.AddLayer(wrapped.back().get(), layer.opacity, layer.mode, layer.type);
    }
    if (code == 1000) {
      throw EngineError("layer '" + layer.file + "' is " + std::to_string(layers[i].width) + "x" +
                            std::to_string(layers[i].height) + " but the background is " +
                            std::to_string(background.width) + "x" + std::to_string(background.height) + ": " +
                            DescribeResultCode(code),
                        code, false);
    }
    if (code != 0) {
      throw EngineError("--layer " + layer.file + ": the engine refused it: " + DescribeResultCode(code), code, true);
    }
  }
  const int code = compositor.Render();
  if (code != 0) throw EngineError("render failed: " + DescribeResultCode(code), code, false);
  WriteImage(line.positional[1], background, line.writeOptions);
  return 0;
}

// Reads up to size bytes; returns how many it got (less only at the end).
size_t ReadFully(std::FILE* in, unsigned char* data, size_t size) {
  size_t got = 0;
  while (got < size) {
    const size_t n = std::fread(data + got, 1, size - got, in);
    if (n == 0) break;
    got += n;
  }
  return got;
}

int RunStream(CommandLine& line) {
  ExpectPositional(line, 0, "no file arguments");
  if (!line.sizeGiven) throw UsageError("stream needs --size WxH");
  kvo::KVLookupTables tables;
  line.chain.Validate(tables);
  Image background;
  if (!line.background.empty()) {
    background = ReadImage(line.background);
    if (background.width != line.width || background.height != line.height) {
      throw FileError("'" + line.background + "' is " + std::to_string(background.width) + "x" +
                      std::to_string(background.height) + " but the frames are " + std::to_string(line.width) + "x" +
                      std::to_string(line.height) + ": sizes do not match");
    }
  }
  std::signal(SIGPIPE, SIG_IGN);
  const bool progress = line.progress || isatty(STDERR_FILENO);
  Image frame(line.width, line.height);
  const size_t frameBytes = frame.bgra.size();
  const auto started = std::chrono::steady_clock::now();
  auto lastReport = started;
  unsigned long frames = 0;
  auto report = [&](bool final) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::fprintf(stderr, "\rkvimage stream: %lu frames, %.1f fps%s", frames, seconds > 0 ? frames / seconds : 0.0,
                 final ? "\n" : "");
    std::fflush(stderr);
  };
  for (;;) {
    const size_t got = ReadFully(stdin, frame.bgra.data(), frameBytes);
    if (got == 0 && !std::ferror(stdin)) break;
    if (std::ferror(stdin)) throw FileError(std::string("cannot read standard input: ") + std::strerror(errno));
    if (got < frameBytes) {
      if (progress) report(true);
      throw FileError("input ended inside frame " + std::to_string(frames + 1) + " (" + std::to_string(got) + " of " +
                      std::to_string(frameBytes) + " bytes)");
    }
    Image output = line.chain.Run(frame, tables);
    if (!line.background.empty()) {
      Image composite = background;
      CompositeOver(composite, output, tables, "the frame");
      output.bgra.swap(composite.bgra);
    }
    if (std::fwrite(output.bgra.data(), 1, frameBytes, stdout) != frameBytes || std::fflush(stdout) != 0) {
      throw FileError(std::string("cannot write standard output: ") + std::strerror(errno));
    }
    ++frames;
    if (progress && std::chrono::steady_clock::now() - lastReport > std::chrono::milliseconds(500)) {
      report(false);
      lastReport = std::chrono::steady_clock::now();
    }
  }
  if (progress) report(true);
  return 0;
}

int RunDemoCommand(CommandLine& line) {
  ExpectPositional(line, 0, "no file arguments");
  unsigned int width = 960, height = 540;
  if (line.sizeGiven) {
    if (line.width < 64 || line.height < 36 || line.width > 3840 || line.height > 2160) {
      throw UsageError("--size " + std::to_string(line.width) + "x" + std::to_string(line.height) +
                       ": out of range (64x36..3840x2160)");
    }
    width = line.width;
    height = line.height;
  }
  RunDemo(line.outDirectory, width, height, stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: kvimage COMMAND [ARGUMENTS] [OPTIONS] (kvimage --help lists them)\n");
    return kExitUsage;
  }
  const std::string first = argv[1];
  if (first == "--help" || first == "-h" || first == "help") {
    PrintMainHelp(stdout);
    return 0;
  }
  if (first == "--version") {
    std::printf("kvimage %s\n", KVIMAGE_VERSION);
    return 0;
  }
  const CommandHelp* command = FindCommand(first);
  if (!command) {
    std::fprintf(stderr, "kvimage: unknown command '%s' (kvimage --help lists them)\n", first.c_str());
    return kExitUsage;
  }
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      PrintCommandHelp(stdout, *command);
      return 0;
    }
  }
  try {
    CommandLine line = Parse(first, argc - 2, argv + 2);
    if (first == "demo") return RunDemoCommand(line);
    if (first == "process" || first == "key") return RunProcessOrKey(line);
    if (first == "composite") return RunComposite(line);
    return RunStream(line);
  } catch (const UsageError& e) {
    std::fprintf(stderr, "kvimage %s: %s\n", first.c_str(), e.what());
    return kExitUsage;
  } catch (const EngineError& e) {
    std::fprintf(stderr, "kvimage %s: %s\n", first.c_str(), e.what());
    return e.refusedArgument ? kExitUsage : kExitFailure;
  } catch (const FileError& e) {
    std::fprintf(stderr, "kvimage %s: %s\n", first.c_str(), e.what());
    return kExitFailure;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "kvimage %s: out of memory\n", first.c_str());
    return kExitFailure;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kvimage %s: %s\n", first.c_str(), e.what());
    return kExitFailure;
  }
}
