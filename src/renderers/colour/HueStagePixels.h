#ifndef KVIMAGE_SRC_RENDERERS_COLOUR_HUESTAGEPIXELS_H
#define KVIMAGE_SRC_RENDERERS_COLOUR_HUESTAGEPIXELS_H

#include <kvimage/colour.h>

#include "renderers/colour/HLSModel.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"
#include "support/ThreadShare.h"

namespace kvo {
namespace image {

// Where the hue stages read and write the colour of a pixel. Channel order 2
// is read and written one byte apart on purpose: the colour comes from bytes
// 0, 1, 2 (so its alpha byte is taken as red), the results go to bytes 1, 2, 3
// and byte 0 receives source byte 3. Hosts depend on this mapping.
struct HueStageBytes {
  unsigned int readRed, readGreen, readBlue;
  unsigned int writeRed, writeGreen, writeBlue;
  unsigned int readOther, writeOther;
};

inline HueStageBytes HueStageBytesFor(KVPixelChannelOrder order) {
  if (order == kPixelOrderARGB) {
    const HueStageBytes shifted = {0, 1, 2, 1, 2, 3, 3, 0};
    return shifted;
  }
  const HueStageBytes usual = {kRedByte, kGreenByte, kBlueByte, kRedByte, kGreenByte, kBlueByte, kAlphaByte, kAlphaByte};
  return usual;
}

// clamp(trunc((source - changed) * keep + changed))
inline unsigned char MixWithSource(unsigned char source, unsigned char changed, double keep) {
  return static_cast<unsigned char>(ClampToByte(TruncateToInt((source - changed) * keep + changed)));
}

// The pixel walk of the hue stages over this thread's share: each colour goes
// through HLS, newHue(hue) replaces its hue, and the converted colour is mixed
// with the source by keep. The output starts as the source colour, so a grey
// whose hue became defined keeps its colour through the conversion back.
template <class NewHue>
int RenderHueStageShare(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                        unsigned char threadCount, double keep, NewHue newHue) {
  const ShareRun share =
      ByteShare(source->Width(), destination->Height(), threadIndex, threadCount, CommonByteSize(source, destination));
  if (share.count == 0) return 0;
  const HueStageBytes bytes = HueStageBytesFor(source->PixelChannelOrder());
  const unsigned char* in = PixelBytes(source) + share.start;
  unsigned char* out = PixelBytes(destination) + share.start;
  for (size_t i = 0; i + kBytesPerPixel <= share.count; i += kBytesPerPixel) {
    const KVPixel8_RGB original = {in[i + bytes.readRed], in[i + bytes.readGreen], in[i + bytes.readBlue]};
    KVPixel8_RGB changed = original;
    KVPixel8_HLS model;
    hls::RGBtoHLS(original, model);
    model.hue = newHue(model.hue);
    hls::HLStoRGB(model, changed);
    const unsigned char other = in[i + bytes.readOther];
    out[i + bytes.writeRed] = MixWithSource(original.red, changed.red, keep);
    out[i + bytes.writeGreen] = MixWithSource(original.green, changed.green, keep);
    out[i + bytes.writeBlue] = MixWithSource(original.blue, changed.blue, keep);
    out[i + bytes.writeOther] = other;
  }
  return 0;
}

}  // namespace image
}  // namespace kvo

#endif
