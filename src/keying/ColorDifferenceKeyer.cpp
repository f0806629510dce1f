#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include <kvimage/keying.h>

#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"
#include "support/Threads.h"

namespace kvo {
namespace image {

namespace {

const int kMaxThreads = 255;

std::tr1::shared_ptr<unsigned char> NewMatte(size_t pixels) {
  return std::tr1::shared_ptr<unsigned char>(new unsigned char[pixels](), std::default_delete<unsigned char[]>());
}

std::tr1::shared_ptr<MatteInfo> NewMatteInfo(size_t threads) {
  MatteInfo* elements = new MatteInfo[threads];
  for (size_t i = 0; i < threads; ++i) elements[i] = MatteInfo{0, 0, 255, 0};
  return std::tr1::shared_ptr<MatteInfo>(elements, std::default_delete<MatteInfo[]>());
}

// count and sum wrap modulo 2^32 so that no thread split can overflow them;
// the fold recovers the true sum (see TrueKeySum).
int32_t WrappingAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The sum of `count` differences lies in [count * minimum, count * maximum];
// its value modulo 2^32 pins it down exactly whenever that interval is shorter
// than 2^32, which holds for every frame of fewer than 16 million key pixels.
int64_t TrueKeySum(uint32_t wrappedSum, int64_t count, int32_t minimum) {
  const int64_t lowest = count * minimum;
  return lowest + static_cast<int64_t>(static_cast<uint32_t>(wrappedSum - static_cast<uint32_t>(lowest)));
}

// 255 - f, where f is the transparency factor of matte value m: 0 at or below
// the lower threshold, 255 at or above the upper, linear in between.
unsigned char AlphaWeight(int m, double lowThreshold, double highThreshold) {
  int factor;
  if (lowThreshold >= m) {
    factor = 0;
  } else if (m >= highThreshold) {
    factor = 255;
  } else {
    factor = ClampToByte(TruncateToInt((m - lowThreshold) / (highThreshold - lowThreshold) * 255.0));
  }
  return static_cast<unsigned char>(255 - factor);
}

}  // namespace

ColorDifferenceKeyer::ColorDifferenceKeyer(KVKeyColor keyColor, double balance, double saturationLimit,
                                           double saturationSoftness, kvo::KVLookupTables& tables)
    : m_keyColor(keyColor),
      m_balance(balance),
      m_saturationLimit(saturationLimit),
      m_saturationSoftness(saturationSoftness),
      m_effectiveKeyColor(keyColor),
      m_tables(tables),
      m_lowThreshold(255.0),
      m_highThreshold(255.0),
      m_mattePixels(0) {
  for (int m = 0; m < 256; ++m) m_alphaWeight[m] = AlphaWeight(m, m_lowThreshold, m_highThreshold);
}

ColorDifferenceKeyer::~ColorDifferenceKeyer() {}

unsigned int ColorDifferenceKeyer::Type() const { return 1; }

void ColorDifferenceKeyer::Setup(KVAbstractImage* source) {
  // Render refuses any depth but 8 bits; there is nothing to measure.
  if (source->BitsPerChannel() != 0) return;
  KVImage8* image = static_cast<KVImage8*>(source);
  const unsigned char cores = PassThreadCount();

  KVKeyColor keyColor = m_keyColor;
  if (keyColor == kKeyColorAuto) AutoDetectKeyColor(image, cores, &keyColor);

  // Built aside and committed only when every thread has finished, so a
  // failed Setup leaves the previous matte and thresholds together.
  const size_t pixels = image->BufferByteSize() / kBytesPerPixel;
  std::tr1::shared_ptr<unsigned char> matte = NewMatte(pixels);
  std::tr1::shared_ptr<MatteInfo> matteInfo = NewMatteInfo(cores);
  std::vector<AutoColorDifferenceData> records(cores);
  for (unsigned int i = 0; i < cores; ++i) {
    AutoColorDifferenceData& record = records[i];
    record.threadIndex = static_cast<unsigned char>(i);
    record.image = image;
    record.matte = matte;
    record.matteInfo = matteInfo;
    record.keyColor = keyColor;
    record.saturationLimit = m_saturationLimit;
    record.saturationSoftness = m_saturationSoftness;
    record.threadCount = cores;
  }
  RunThreads(AutoColorDifferenceMatteProc, records);
  records.clear();

  MatteInfo folded = {0, 0, 255, 0};
  for (unsigned int i = 0; i < cores; ++i) {
    const MatteInfo& element = matteInfo.get()[i];
    folded.count = WrappingAdd(folded.count, element.count);
    folded.sum = WrappingAdd(folded.sum, element.sum);
    folded.minimum = std::min(folded.minimum, element.minimum);
    folded.maximum = std::max(folded.maximum, element.maximum);
  }
  const int64_t count = static_cast<uint32_t>(folded.count);
  const double mean = count == 0 ? std::numeric_limits<double>::quiet_NaN()
                                 : static_cast<double>(TrueKeySum(static_cast<uint32_t>(folded.sum), count,
                                                                  folded.minimum)) /
                                       static_cast<double>(count);
  const double mid = (folded.minimum + folded.maximum) * 0.5;

  m_effectiveKeyColor = keyColor;
  m_matte = matte;
  m_mattePixels = pixels;
  m_matteInfo = matteInfo;
  m_highThreshold = mid + (mean - mid) * m_balance;
  m_lowThreshold = folded.minimum;
  for (int m = 0; m < 256; ++m) m_alphaWeight[m] = AlphaWeight(m, m_lowThreshold, m_highThreshold);
}

int ColorDifferenceKeyer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                 unsigned char threadCount) {
  const unsigned int depth = source->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  return Render8(static_cast<KVImage8*>(source), static_cast<KVImage8*>(destination), threadIndex, threadCount);
}

int ColorDifferenceKeyer::Render8(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                  unsigned char threadCount) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;

  // The thread's matte run starts at index * ceil(W * H / count), which is
  // where its pixel share starts.
  const uint32_t totalPixels = source->Width() * source->Height();
  const uint32_t pixelsPerThread =
      SaturateToUInt32(std::ceil(static_cast<double>(totalPixels) / static_cast<double>(threadCount)));
  const size_t matteStart = static_cast<size_t>(threadIndex) * pixelsPerThread;

  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  const size_t pixels = share.count / kBytesPerPixel;
  // Pixels beyond the matte (Render without a Setup on this image) keep their
  // alpha, as a matte value of 0 would.
  const size_t matted = matteStart < m_mattePixels ? std::min(pixels, m_mattePixels - matteStart) : 0;
  const unsigned char* matte = m_matte.get() + (matted != 0 ? matteStart : 0);

  // Whole pixels are moved as 32-bit words (the colour bytes unchanged) and
  // the alpha byte written over; locals keep the stores from forcing reloads.
  kvo::KVLookupTables& tables = m_tables;
  unsigned char weights[256];
  std::memcpy(weights, m_alphaWeight, sizeof weights);
  for (size_t i = 0; i < pixels; ++i) {
    const unsigned char* p = in + i * kBytesPerPixel;
    unsigned char* q = out + i * kBytesPerPixel;
    const unsigned char alpha = tables.AlphaBlend(p[kAlphaByte], weights[i < matted ? matte[i] : 0]);
    uint32_t word;
    std::memcpy(&word, p, sizeof word);
    std::memcpy(q, &word, sizeof word);
    q[kAlphaByte] = alpha;
  }
  return 0;
}

void* AutoDetectKeyColorProc(void* data) {
  if (data == nullptr) return nullptr;
  AutoDetectKeyColorData* record = static_cast<AutoDetectKeyColorData*>(data);
  KVImage8* image = record->image;
  if (image == nullptr) return nullptr;
  const ShareRun share =
      ByteShare(image->Width(), image->Height(), record->threadIndex, record->threadCount, image->BufferByteSize());
  const unsigned char* bytes = image->Buffer() + share.start;
  uint32_t otherCount = 0, greenCount = 0, blueCount = 0;
  for (size_t o = 0; o + kBytesPerPixel <= share.count; o += kBytesPerPixel) {
    const unsigned char b0 = bytes[o + kBlueByte], b1 = bytes[o + kGreenByte], b2 = bytes[o + kRedByte];
    if (b1 >= std::max(b0, b2)) {
      ++greenCount;
    } else if (b0 > std::max(b1, b2)) {
      ++blueCount;
    } else {
      ++otherCount;
    }
  }
  record->otherCount = otherCount;
  record->greenCount = greenCount;
  record->blueCount = blueCount;
  return nullptr;
}

void AutoDetectKeyColor(KVImage8* image, int threadCount, KVKeyColor* result) {
  if (result == nullptr) return;
  const int threads = image == nullptr ? 0 : std::min(std::max(threadCount, 0), kMaxThreads);
  std::vector<AutoDetectKeyColorData> records(static_cast<size_t>(threads));
  for (int i = 0; i < threads; ++i) {
    AutoDetectKeyColorData& record = records[static_cast<size_t>(i)];
    record.threadIndex = static_cast<unsigned char>(i);
    record.threadCount = static_cast<unsigned char>(threads);
    record.image = image;
    record.bufferSize = image->Width() * image->Height() * kBytesPerPixel;
    record.otherCount = 0;
    record.greenCount = 0;
    record.blueCount = 0;
  }
  RunThreads(AutoDetectKeyColorProc, records);
  uint64_t green = 0, blue = 0;
  for (const AutoDetectKeyColorData& record : records) {
    green += record.greenCount;
    blue += record.blueCount;
  }
  *result = blue > green ? kKeyColorBlue : kKeyColorGreen;
}

namespace {

// One thread's run of matte bytes for one key byte. Only key pixels (key byte
// strictly the largest) can store a non-zero byte: any other difference is at
// most 0, and softening never makes it positive. For a key pixel the key byte
// is the maximum, so its chroma is the key byte less the smaller other byte.
template <unsigned int KeyByte, unsigned int OtherByte1, unsigned int OtherByte2>
void MatteRun(const unsigned char* in, unsigned char* matte, size_t count, int limit, double softLimit,
              const double* rampCut, MatteInfo& info) {
  for (size_t i = 0; i < count; ++i) {
    const unsigned char* p = in + i * kBytesPerPixel;
    const int key = p[KeyByte];
    int difference = key - std::max(p[OtherByte1], p[OtherByte2]);
    if (difference <= 0) {
      matte[i] = 0;
      continue;
    }
    info.count = WrappingAdd(info.count, 1);
    info.sum = WrappingAdd(info.sum, difference);
    info.minimum = std::min(info.minimum, difference);
    info.maximum = std::max(info.maximum, difference);

    const int chroma = key - std::min(p[OtherByte1], p[OtherByte2]);
    if (limit > chroma) {
      if (softLimit > chroma) {
        difference = 0;
      } else if (softLimit <= chroma) {
        difference = TruncateToInt(difference - rampCut[chroma] * difference);
      }
    }
    matte[i] = static_cast<unsigned char>(ClampToByte(difference));
  }
}

}  // namespace

void* AutoColorDifferenceMatteProc(void* data) {
  if (data == nullptr) return nullptr;
  AutoColorDifferenceData* record = static_cast<AutoColorDifferenceData*>(data);
  KVImage8* image = record->image;
  if (image == nullptr || !record->matte || !record->matteInfo) return nullptr;

  // The byte share and the pixel share describe the same pixels; both are cut
  // at the end of the image, whose pixels the matte holds one byte each.
  const size_t pixelLimit = image->BufferByteSize() / kBytesPerPixel;
  const ShareRun bytes = ByteShare(image->Width(), image->Height(), record->threadIndex, record->threadCount,
                                   pixelLimit * kBytesPerPixel);
  const ShareRun pixels =
      PixelShare(image->Width(), image->Height(), record->threadIndex, record->threadCount, pixelLimit);
  const size_t count = std::min(bytes.count / kBytesPerPixel, pixels.count);
  const unsigned char* in = image->Buffer() + bytes.start;
  unsigned char* matte = record->matte.get() + pixels.start;

  // Chroma softening: below the limit T a difference is scaled down linearly
  // from full at chroma T to nothing at chroma S, and below S it is dropped.
  const int limit = TruncateToInt(255.0 * record->saturationLimit);
  const double softLimit = limit * record->saturationSoftness;
  const double rampWidth = (1.0 - record->saturationSoftness) * limit;
  double rampCut[256];
  for (int chroma = 0; chroma < 256; ++chroma) rampCut[chroma] = std::fabs((chroma - softLimit) / rampWidth - 1.0);

  MatteInfo info = record->matteInfo.get()[record->threadIndex];
  if (record->keyColor == kKeyColorGreen) {
    MatteRun<kGreenByte, kBlueByte, kRedByte>(in, matte, count, limit, softLimit, rampCut, info);
  } else if (record->keyColor == kKeyColorBlue) {
    MatteRun<kBlueByte, kGreenByte, kRedByte>(in, matte, count, limit, softLimit, rampCut, info);
  } else {
    std::fill(matte, matte + count, static_cast<unsigned char>(0));  // no pixel is a key pixel
  }
  record->matteInfo.get()[record->threadIndex] = info;
  return nullptr;
}

}  // namespace image
}  // namespace kvo
