#include <cstdint>

#include <kvimage/keying.h>

#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

namespace {

// v moved towards target by strength / 256. The step is a signed 32-bit
// product shifted arithmetically, so a negative step rounds toward minus
// infinity: at strength 255 a downward move lands on its target, an upward one
// stops one short. The product wraps like the processor's multiply, which only
// matters for strengths outside 0..255 (a NaN or oversized amount given to
// the stage directly).
inline unsigned char Move(int value, int target, int strength) {
  const int32_t product =
      static_cast<int32_t>(static_cast<uint32_t>(target - value) * static_cast<uint32_t>(strength));
  return static_cast<unsigned char>(value + (product >> 8));
}

inline int Strength(double amount) { return TruncateToInt(255.0 * amount); }

// The byte positions one method works on for a key channel: the key byte and
// the byte it is compared with (standard), or the two it is averaged with
// (extended), of which `other` is the one that may be raised.
struct KeyBytes {
  unsigned int key;
  unsigned int reference;  // standard and advanced: the comparison byte
  unsigned int raisedSide;  // extended: compared with `other` to decide a raise
  unsigned int other;       // extended: the byte raised towards the mean
};

inline KeyBytes BytesFor(KVChannel channel) {
  if (channel == kChannelBlue) return KeyBytes{kBlueByte, kGreenByte, kGreenByte, kRedByte};
  return KeyBytes{kGreenByte, kRedByte, kBlueByte, kRedByte};
}

// The thread's share in whole pixels, cut at the end of both images.
ShareRun SpillShare(KVImage8* source, KVImage8* destination, unsigned char threadIndex, unsigned char threadCount) {
  ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  share.count -= share.count % kBytesPerPixel;
  return share;
}

}  // namespace

SpillSuppressor::SpillSuppressor(KVChannel channel, KVSpillType spillType, double amount, double redFactor,
                                 double greenFactor, double blueFactor, double referenceFactor)
    : m_channel(channel),
      m_spillType(spillType),
      m_amount(amount),
      m_redFactor(redFactor),
      m_greenFactor(greenFactor),
      m_blueFactor(blueFactor),
      m_referenceFactor(referenceFactor) {}

SpillSuppressor::~SpillSuppressor() {}

unsigned int SpillSuppressor::Type() const { return 0; }

void SpillSuppressor::Setup(KVAbstractImage*) {}

int SpillSuppressor::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                            unsigned char threadCount) {
  const unsigned int depth = source->BitsPerChannel();
  if (depth != 0) return static_cast<int>(depth);
  KVImage8* in = static_cast<KVImage8*>(source);
  KVImage8* out = static_cast<KVImage8*>(destination);
  if (m_spillType == kSpillAdvanced) return RenderSpillAdvanced(in, out, threadIndex, threadCount);
  if (m_spillType == kSpillExtended) return RenderSpillExtended(in, out, threadIndex, threadCount);
  return RenderSpillStandard(in, out, threadIndex, threadCount);
}

// Green: if G > R, G moves towards R. Blue: if B > G, B moves towards G.
int SpillSuppressor::RenderSpillStandard(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share = SpillShare(source, destination, threadIndex, threadCount);
  if (share.count == 0) return 0;
  const int strength = Strength(m_amount);
  const KeyBytes bytes = BytesFor(m_channel);
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i < share.count; i += kBytesPerPixel) {
    const unsigned char* p = in + i;
    unsigned char* q = out + i;
    q[0] = p[0];
    q[1] = p[1];
    q[2] = p[2];
    q[3] = p[3];
    const int key = p[bytes.key], reference = p[bytes.reference];
    if (key > reference) q[bytes.key] = Move(key, reference, strength);
  }
  return 0;
}

// The key byte moves towards the rounded-down mean of the other two when it
// lies above it, and the red byte rises towards the mean when the third
// channel is above red.
int SpillSuppressor::RenderSpillExtended(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share = SpillShare(source, destination, threadIndex, threadCount);
  if (share.count == 0) return 0;
  const int strength = Strength(m_amount);
  const KeyBytes bytes = BytesFor(m_channel);
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i < share.count; i += kBytesPerPixel) {
    const unsigned char* p = in + i;
    unsigned char* q = out + i;
    q[0] = p[0];
    q[1] = p[1];
    q[2] = p[2];
    q[3] = p[3];
    const int key = p[bytes.key], side = p[bytes.raisedSide], other = p[bytes.other];
    const int mean = (side + other) >> 1;
    if (key <= mean) continue;
    q[bytes.key] = Move(key, mean, strength);
    if (side > other) q[bytes.other] = Move(other, mean, strength);
  }
  return 0;
}

// spill = clamp(key - trunc(reference * referenceFactor)), the difference
// taken in wrapping 32-bit arithmetic like the processor's; each colour byte
// then becomes clamp(trunc(spill * its factor + byte)).
int SpillSuppressor::RenderSpillAdvanced(KVImage8* source, KVImage8* destination, unsigned char threadIndex,
                                         unsigned char threadCount) {
  const ShareRun share = SpillShare(source, destination, threadIndex, threadCount);
  if (share.count == 0) return 0;
  const KeyBytes bytes = BytesFor(m_channel);
  // The scaled reference depends only on the reference byte.
  int scaledReference[256];
  for (int v = 0; v < 256; ++v) scaledReference[v] = TruncateToInt(v * m_referenceFactor);
  const unsigned char* in = source->Buffer() + share.start;
  unsigned char* out = destination->Buffer() + share.start;
  for (size_t i = 0; i < share.count; i += kBytesPerPixel) {
    const unsigned char* p = in + i;
    unsigned char* q = out + i;
    const uint32_t difference =
        static_cast<uint32_t>(p[bytes.key]) - static_cast<uint32_t>(scaledReference[p[bytes.reference]]);
    const double spill = ClampToByte(static_cast<int32_t>(difference));
    q[kBlueByte] = static_cast<unsigned char>(ClampToByte(TruncateToInt(spill * m_blueFactor + p[kBlueByte])));
    q[kGreenByte] = static_cast<unsigned char>(ClampToByte(TruncateToInt(spill * m_greenFactor + p[kGreenByte])));
    q[kRedByte] = static_cast<unsigned char>(ClampToByte(TruncateToInt(spill * m_redFactor + p[kRedByte])));
    q[kAlphaByte] = p[kAlphaByte];
  }
  return 0;
}

}  // namespace image
}  // namespace kvo
