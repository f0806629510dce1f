// kvimage beside general-purpose imaging libraries: for each job, the engine
// (through its front end, as bench_stages.cpp drives it) and the peer calls
// that do a similar job, on the same 1920x1080 BGRA frame, in the same run,
// all at 2 threads (KVSystem::SetCPUCoreCount, cv::setNumThreads,
// vips_concurrency_set). Registered as
//   <job>/kvimage                 e.g. stack-blur-8/kvimage
//   <job>/<library>:<call>        e.g. stack-blur-8/opencv:GaussianBlur
// with the settings of each side in the label, which bench/peers/report.py
// prints beside the times. The jobs are similar, not the same arithmetic:
// the settings are the closest the two sides offer. Every time is the
// wall-clock time of one frame from source to a BGRA result (a peer's
// conversions to and from its own layout included); read it against
// BM_MemcpyFrame/1920x1080 of the same run (bench_baseline.cpp).
//
//   kvimage_peers [--write-frames=DIR] [Google Benchmark options]
// --write-frames writes the input frames as raw BGRA (photo.bgra,
// green-screen.bgra, keyed.bgra) for bench/peers/ffmpeg.py, and exits.
#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <vips/vips.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <type_traits>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using namespace kvo::image;

const int kThreads = 2;
const unsigned int kWidth = kvbench::kFrameWidth, kHeight = kvbench::kFrameHeight;

// The frames of one benchmark: the source (or the compositor's background),
// the target, and the layer laid over the background.
struct Frames {
  Frames(kvbench::FrameKind input, kvbench::FrameKind layerInput)
      : source(kWidth, kHeight), target(kWidth, kHeight), layer(kWidth, kHeight) {
    kvbench::CopyFrame(kvbench::ReferenceFrame(input, kWidth, kHeight), source);
    kvbench::CopyFrame(kvbench::ReferenceFrame(layerInput, kWidth, kHeight), layer);
  }
  static cv::Mat Wrap(const kvbench::AlignedFrame& frame) {
    return cv::Mat(static_cast<int>(kHeight), static_cast<int>(kWidth), CV_8UC4, frame.pixels());
  }
  kvbench::AlignedFrame source, target, layer;
};

// One peer: its name ("<library>:<call>"), its settings in words, and what
// it does before the timed loop, returning the work of one frame.
struct Peer {
  std::string name;
  std::string settings;
  std::function<std::function<void()>(Frames&)> prepare;
};

struct Step {
  const char* setter;
  std::vector<double> values;
};

struct Job {
  std::string name;
  KVFrontEnd frontEnd;
  kvbench::FrameKind input;
  std::vector<Step> steps;
  std::string settings;
  std::vector<Peer> peers;
};

const KVFrontEnd P = kFrontEndProcessor, K = kFrontEndKeyer, C = kFrontEndCompositor;

// Compositor jobs lay the keyed green-screen frame (a real matte) over the
// photo-like frame.
const kvbench::FrameKind kLayerInput = kvbench::kKeyedFrame;

// ---- OpenCV ----

// A per-channel 256-entry table (bytes 0..3: blue, green, red, alpha) applied
// with cv::LUT.
std::function<void()> PrepareLUT(Frames& frames, double blueGain, double greenGain, double redGain) {
  cv::Mat table(1, 256, CV_8UC4);
  for (int i = 0; i < 256; ++i) {
    table.at<cv::Vec4b>(0, i) = cv::Vec4b(cv::saturate_cast<uchar>(i * blueGain), cv::saturate_cast<uchar>(i * greenGain),
                                          cv::saturate_cast<uchar>(i * redGain), static_cast<uchar>(i));
  }
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  return [source, target, table]() mutable { cv::LUT(source, table, target); };
}

std::function<void()> PrepareScaleAbs(Frames& frames, double alpha, double beta) {
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  return [source, target, alpha, beta]() mutable { cv::convertScaleAbs(source, target, alpha, beta); };
}

// BGRA to BGR to HSV, one table per HSV channel, back to BGR, alpha put back.
std::function<void()> PrepareHSVRoundTrip(Frames& frames, int hueOffset, double saturationGain) {
  cv::Mat table(1, 256, CV_8UC3);
  for (int i = 0; i < 256; ++i) {
    const int hue = i < 180 ? (i + hueOffset) % 180 : i;  // OpenCV's 8-bit hue runs 0..179
    table.at<cv::Vec3b>(0, i) =
        cv::Vec3b(static_cast<uchar>(hue), cv::saturate_cast<uchar>(i * saturationGain), static_cast<uchar>(i));
  }
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  cv::Mat bgr, hsv;
  return [source, target, table, bgr, hsv]() mutable {
    cv::cvtColor(source, bgr, cv::COLOR_BGRA2BGR);
    cv::cvtColor(bgr, hsv, cv::COLOR_BGR2HSV);
    cv::LUT(hsv, table, hsv);
    cv::cvtColor(hsv, bgr, cv::COLOR_HSV2BGR);
    const int fromTo[] = {0, 0, 1, 1, 2, 2, 3, 3};
    const cv::Mat inputs[] = {bgr, source};
    cv::mixChannels(inputs, 2, &target, 1, fromTo, 4);
  };
}

std::function<void()> PrepareBoxBlur(Frames& frames, int window) {
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  return [source, target, window]() mutable { cv::blur(source, target, cv::Size(window, window)); };
}

std::function<void()> PrepareGaussianBlur(Frames& frames, double sigma) {
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  return [source, target, sigma]() mutable { cv::GaussianBlur(source, target, cv::Size(), sigma); };
}

// An unsharp mask: source + amount * (source - gaussian(source)).
std::function<void()> PrepareUnsharpMask(Frames& frames, double sigma, double amount) {
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  cv::Mat blurred;
  return [source, target, sigma, amount, blurred]() mutable {
    cv::GaussianBlur(source, blurred, cv::Size(), sigma);
    cv::addWeighted(source, 1.0 + amount, blurred, -amount, 0.0, target);
  };
}

// The colour bytes copied, the alpha eroded with a square window.
std::function<void()> PrepareAlphaErode(Frames& frames, int window) {
  cv::Mat source = Frames::Wrap(frames.source), target = Frames::Wrap(frames.target);
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(window, window));
  cv::Mat alpha;
  return [source, target, kernel, alpha]() mutable {
    source.copyTo(target);
    cv::extractChannel(source, alpha, 3);
    cv::erode(alpha, alpha, kernel);
    cv::insertChannel(alpha, target, 3);
  };
}

// Layer and background mixed with constant weights (every byte, alpha too).
std::function<void()> PrepareBlendLinear(Frames& frames, double layerWeight) {
  cv::Mat background = Frames::Wrap(frames.source), layer = Frames::Wrap(frames.layer);
  cv::Mat target = Frames::Wrap(frames.target);
  const cv::Mat layerWeights(background.size(), CV_32FC1, cv::Scalar(layerWeight));
  const cv::Mat backgroundWeights(background.size(), CV_32FC1, cv::Scalar(1.0 - layerWeight));
  return [background, layer, target, layerWeights, backgroundWeights]() mutable {
    cv::blendLinear(layer, background, layerWeights, backgroundWeights, target);
  };
}

// ---- libvips ----

// The frame as a four-band 8-bit sRGB image over the frame's own memory.
VipsImage* VipsFrame(const kvbench::AlignedFrame& frame) {
  VipsImage* image =
      vips_image_new_from_memory(frame.pixels(), frame.bytes(), static_cast<int>(kWidth), static_cast<int>(kHeight),
                                 4, VIPS_FORMAT_UCHAR);
  if (image != nullptr) image->Type = VIPS_INTERPRETATION_sRGB;
  return image;
}

// Evaluates a result image into the target frame as 8-bit bytes; false on a
// libvips error.
bool VipsWriteInto(VipsImage* result, kvbench::AlignedFrame& target) {
  VipsImage* bytes = nullptr;
  if (vips_cast_uchar(result, &bytes, nullptr) != 0) return false;
  VipsImage* destination = VipsFrame(target);
  const bool written = destination != nullptr && vips_image_write(bytes, destination) == 0;
  if (destination != nullptr) g_object_unref(destination);
  g_object_unref(bytes);
  return written;
}

void VipsFailed() {
  std::fprintf(stderr, "kvimage_peers: libvips: %s\n", vips_error_buffer());
  vips_error_clear();
  std::abort();
}

std::function<void()> PrepareVipsGaussBlur(Frames& frames, double sigma) {
  return [&frames, sigma]() {
    VipsImage* source = VipsFrame(frames.source);
    VipsImage* blurred = nullptr;
    if (source == nullptr || vips_gaussblur(source, &blurred, sigma, nullptr) != 0 ||
        !VipsWriteInto(blurred, frames.target)) {
      VipsFailed();
    }
    g_object_unref(blurred);
    g_object_unref(source);
  };
}

std::function<void()> PrepareVipsCompositeOver(Frames& frames) {
  return [&frames]() {
    VipsImage* background = VipsFrame(frames.source);
    VipsImage* layer = VipsFrame(frames.layer);
    VipsImage* composite = nullptr;
    if (background == nullptr || layer == nullptr ||
        vips_composite2(background, layer, &composite, VIPS_BLEND_MODE_OVER, nullptr) != 0 ||
        !VipsWriteInto(composite, frames.target)) {
      VipsFailed();
    }
    g_object_unref(composite);
    g_object_unref(layer);
    g_object_unref(background);
  };
}

// The gaussian nearest a stack blur of radius r: its tent-shaped kernel has
// the variance r (r + 2) / 6.
double StackBlurSigma(double radius) { return std::sqrt(radius * (radius + 2.0) / 6.0); }

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

std::vector<Job> Jobs() {
  const double sigma8 = StackBlurSigma(8), sigma32 = StackBlurSigma(32);
  const double contrast = 1.3, brightness = 0.1;
  const double contrastBeta = 127.0 * (1.0 - contrast);  // kvimage's contrast pivots on 127
  const double brightnessBeta = std::trunc(255.0 * brightness);
  return {
      {"colour-balance", P, kvbench::kPhotoFrame, {{"SetColorBalance", {1.2, 0.9, 0.7}}},
       "SetColorBalance(red 1.2, green 0.9, blue 0.7)",
       {{"opencv:LUT", "cv::LUT, 4-channel 256-entry table of gains (b 0.7, g 0.9, r 1.2, alpha kept)",
         [](Frames& f) { return PrepareLUT(f, 0.7, 0.9, 1.2); }}}},
      {"colour-temperature", P, kvbench::kPhotoFrame, {{"SetColorTemperature", {4500}}},
       "SetColorTemperature(4500 K)",
       {{"opencv:LUT", "cv::LUT, 4-channel 256-entry table of warming gains (b 0.8, g 0.95, r 1.0)",
         [](Frames& f) { return PrepareLUT(f, 0.8, 0.95, 1.0); }}}},
      {"contrast", P, kvbench::kPhotoFrame, {{"SetContrast", {contrast, kChannelsColor}}},
       "SetContrast(1.3, colour channels)",
       {{"opencv:convertScaleAbs", "cv::convertScaleAbs(alpha 1.3, beta " + Number(contrastBeta) + "), all 4 bytes",
         [=](Frames& f) { return PrepareScaleAbs(f, contrast, contrastBeta); }}}},
      {"brightness-contrast", P, kvbench::kPhotoFrame,
       {{"SetContrast", {contrast, kChannelsColor}}, {"SetBrightness", {brightness, kChannelsColor}}},
       "SetContrast(1.3) then SetBrightness(0.1), colour channels, one render",
       {{"opencv:convertScaleAbs",
         "cv::convertScaleAbs(alpha 1.3, beta " + Number(contrastBeta + brightnessBeta) + "), all 4 bytes",
         [=](Frames& f) { return PrepareScaleAbs(f, contrast, contrastBeta + brightnessBeta); }}}},
      {"saturation", P, kvbench::kPhotoFrame, {{"SetSaturation", {1.4}}}, "SetSaturation(1.4)",
       {{"opencv:HSV", "cvtColor BGRA>BGR>HSV, LUT S x1.4, cvtColor HSV>BGR, mixChannels alpha back",
         [](Frames& f) { return PrepareHSVRoundTrip(f, 0, 1.4); }}}},
      {"hue-shift", P, kvbench::kPhotoFrame, {{"SetHueShift", {45, 1.0}}}, "SetHueShift(45 degrees, amount 1)",
       {{"opencv:HSV", "cvtColor BGRA>BGR>HSV, LUT H +22 (44 degrees: 8-bit hue counts 2 degrees), cvtColor HSV>BGR, mixChannels alpha back",
         [](Frames& f) { return PrepareHSVRoundTrip(f, 45 / 2, 1.0); }}}},
      {"box-blur-8", P, kvbench::kPhotoFrame, {{"SetYUVBlur", {8, kYUVBlurHorizontalVertical}}},
       "SetYUVBlur(8, horizontal+vertical box, in YUV)",
       {{"opencv:blur", "cv::blur 17x17 box, all 4 channels in BGRA",
         [](Frames& f) { return PrepareBoxBlur(f, 17); }}}},
      {"stack-blur-8", P, kvbench::kPhotoFrame, {{"SetStackBlur", {8, 1, 1, kChannelsAll}}},
       "SetStackBlur(radius 8, both directions, all channels)",
       {{"opencv:GaussianBlur", "cv::GaussianBlur sigma " + Number(sigma8) + " (same variance), kernel from sigma",
         [=](Frames& f) { return PrepareGaussianBlur(f, sigma8); }},
        {"vips:gaussblur", "vips_gaussblur sigma " + Number(sigma8) + ", default min_ampl 0.2, 4 bands",
         [=](Frames& f) { return PrepareVipsGaussBlur(f, sigma8); }}}},
      {"stack-blur-32", P, kvbench::kPhotoFrame, {{"SetStackBlur", {32, 1, 1, kChannelsAll}}},
       "SetStackBlur(radius 32, both directions, all channels)",
       {{"opencv:GaussianBlur", "cv::GaussianBlur sigma " + Number(sigma32) + " (same variance), kernel from sigma",
         [=](Frames& f) { return PrepareGaussianBlur(f, sigma32); }},
        {"vips:gaussblur", "vips_gaussblur sigma " + Number(sigma32) + ", default min_ampl 0.2, 4 bands",
         [=](Frames& f) { return PrepareVipsGaussBlur(f, sigma32); }}}},
      {"sharpen-8", P, kvbench::kPhotoFrame, {{"SetSharpen", {8, 0.7, 0.05, 0}}},
       "SetSharpen(radius 8, amount 0.7, threshold 0.05): stack-blurred mask, colour only",
       {{"opencv:unsharp", "GaussianBlur sigma " + Number(sigma8) + " + addWeighted(1.7, -0.7), all 4 bytes",
         [=](Frames& f) { return PrepareUnsharpMask(f, sigma8, 0.7); }}}},
      {"erode-8", K, kvbench::kKeyedFrame, {{"SetWhiteErode", {kWhiteErodeAll, 8}}},
       "SetWhiteErode(all directions, 8): 17x17 minimum on alpha, colour copied",
       {{"opencv:erode", "copyTo, extractChannel alpha, cv::erode 17x17 rectangle, insertChannel",
         [](Frames& f) { return PrepareAlphaErode(f, 17); }}}},
      {"blend-opacity", C, kvbench::kPhotoFrame, {{"AddLayer", {0.8, kBlendNormal, kCompositeColorOnly}}},
       "AddLayer(opacity 0.8, normal, colour only): weight = layer alpha x 0.8, in place",
       {{"opencv:blendLinear", "cv::blendLinear, constant float weights 0.8 / 0.2, all 4 bytes, to a new frame",
         [](Frames& f) { return PrepareBlendLinear(f, 0.8); }}}},
      {"composite-over", C, kvbench::kPhotoFrame, {{"AddLayer", {1.0, kBlendNormal, kCompositeAlpha}}},
       "AddLayer(opacity 1, normal, alpha over-composite), in place",
       {{"vips:composite2", "vips_composite2 over (float, premultiplied), cast to 8 bits",
         [](Frames& f) { return PrepareVipsCompositeOver(f); }}}},
      // Peers only from ffmpeg.py.
      {"key", K, kvbench::kGreenScreenFrame, {{"SetAutoColorDifferenceKey", {kKeyColorGreen, 0.5, 0.2, 0.5}}},
       "SetAutoColorDifferenceKey(green, 0.5, 0.2, 0.5)", {}},
      {"key-and-spill", K, kvbench::kGreenScreenFrame,
       {{"SetAutoColorDifferenceKey", {kKeyColorGreen, 0.5, 0.2, 0.5}},
        {"SetSpillSuppression", {kChannelGreen, kSpillStandard, 0.8, 0, 0, 0, 0}}},
       "SetAutoColorDifferenceKey(green) then SetSpillSuppression(green, standard, 0.8), one render", {}},
  };
}

kvo::KVLookupTables& SharedTables() {
  static kvo::KVLookupTables tables;
  return tables;
}

template <class Front>
bool Queued(benchmark::State& state, Front& front, const Job& job, KVAbstractImage* layer) {
  for (const Step& step : job.steps) {
    int code;
    if constexpr (std::is_same<Front, KVImageCompositor>::value) {
      code = QueueSetter(front, step.setter, step.values.data(), static_cast<unsigned int>(step.values.size()),
                         &layer, 1);
    } else {
      (void)layer;
      code = QueueSetter(front, step.setter, step.values.data(), static_cast<unsigned int>(step.values.size()));
    }
    if (code != 0) {
      state.SkipWithError((std::string(step.setter) + " returned " + std::to_string(code)).c_str());
      return false;
    }
  }
  return true;
}

void Report(benchmark::State& state, const std::string& settings, double faults) {
  const double pixels = static_cast<double>(kWidth) * kHeight;
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(pixels) * 4);
  state.counters["Mpix"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * pixels / 1e6, benchmark::Counter::kIsRate);
  state.counters["faults_per_frame"] = benchmark::Counter(faults, benchmark::Counter::kAvgIterations);
  state.SetLabel(settings);
}

// One untimed render, so that scratch kept between renders exists, then the
// timed renders.
template <class Front>
void MeasureRenders(benchmark::State& state, Front& front, const Job& job, KVAbstractImage* layer) {
  if (!Queued(state, front, job, layer)) return;
  int code = front.Render();
  const double faultsBefore = kvbench::PageFaults();
  for (auto _ : state) {
    if (code != 0) break;
    code = front.Render();
  }
  if (code != 0) state.SkipWithError(("Render returned " + std::to_string(code)).c_str());
  Report(state, job.settings, kvbench::PageFaults() - faultsBefore);
}

void RunKvimage(benchmark::State& state, const Job& job) {
  kvbench::ScopedThreads threads(kThreads);
  Frames frames(job.input, kLayerInput);
  if (job.frontEnd == P) {
    KVImageProcessor processor(frames.source.image(), frames.target.image(), SharedTables(), kDownsampleNone);
    MeasureRenders(state, processor, job, nullptr);
  } else if (job.frontEnd == K) {
    KVImageKeyer keyer(frames.source.image(), frames.target.image(), SharedTables(), kDownsampleNone);
    MeasureRenders(state, keyer, job, nullptr);
  } else {
    KVImageCompositor compositor(frames.source.image(), 1.0, SharedTables(), kDownsampleNone);
    MeasureRenders(state, compositor, job, frames.layer.image());
  }
}

void RunPeer(benchmark::State& state, const Job& job, const Peer& peer) {
  cv::setNumThreads(kThreads);
  vips_concurrency_set(kThreads);
  Frames frames(job.input, kLayerInput);
  std::function<void()> frame = peer.prepare(frames);
  frame();
  const double faultsBefore = kvbench::PageFaults();
  for (auto _ : state) {
    frame();
    benchmark::ClobberMemory();
  }
  Report(state, peer.settings, kvbench::PageFaults() - faultsBefore);
}

void RegisterJobs() {
  for (const Job& job : Jobs()) {
    kvbench::Configure(benchmark::RegisterBenchmark((job.name + "/kvimage").c_str(),
                                                    [job](benchmark::State& state) { RunKvimage(state, job); }));
    for (const Peer& peer : job.peers) {
      kvbench::Configure(benchmark::RegisterBenchmark(
          (job.name + "/" + peer.name).c_str(), [job, peer](benchmark::State& state) { RunPeer(state, job, peer); }));
    }
  }
}

bool WriteFrames(const std::string& directory) {
  const struct {
    const char* file;
    kvbench::FrameKind kind;
  } frames[] = {{"photo.bgra", kvbench::kPhotoFrame},
                {"green-screen.bgra", kvbench::kGreenScreenFrame},
                {"keyed.bgra", kvbench::kKeyedFrame}};
  for (const auto& frame : frames) {
    const kvbench::AlignedFrame& pixels = kvbench::ReferenceFrame(frame.kind, kWidth, kHeight);
    const std::string path = directory + "/" + frame.file;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    const bool written = file != nullptr && std::fwrite(pixels.pixels(), 1, pixels.bytes(), file) == pixels.bytes();
    if (file != nullptr && std::fclose(file) != 0) return false;
    if (!written) {
      std::fprintf(stderr, "kvimage_peers: cannot write %s\n", path.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string writeFrames = "--write-frames=";
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], writeFrames.c_str(), writeFrames.size()) == 0) {
      return WriteFrames(argv[i] + writeFrames.size()) ? 0 : 1;
    }
  }
  if (VIPS_INIT(argv[0]) != 0) {
    std::fprintf(stderr, "kvimage_peers: libvips did not start: %s\n", vips_error_buffer());
    return 1;
  }
  // Every benchmark evaluates its operations afresh, as a host with a new
  // frame would: no cached results.
  vips_cache_set_max(0);
  benchmark::AddCustomContext("opencv", KVPEERS_OPENCV_VERSION);
  benchmark::AddCustomContext("vips", KVPEERS_VIPS_VERSION);
  benchmark::AddCustomContext("threads", std::to_string(kThreads));
  RegisterJobs();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  vips_shutdown();
  return 0;
}
