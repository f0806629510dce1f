#include <kvimage/blur.h>
#include <kvimage/colour.h>
#include <kvimage/keying.h>
#include <kvimage/pipeline.h>

#include "pipeline/FrontEndState.h"
#include "pipeline/ResultCodes.h"
#include "support/PathChoice.h"
#include "support/Conversions.h"

namespace kvo {
namespace image {

KVImageKeyer::KVImageKeyer(KVAbstractImage* source, KVAbstractImage* destination, kvo::KVLookupTables& tables,
                           KVDownsampleFactor factor)
    : m_private(new KVImageKeyer_Private(kFrontEndKeyer, source, destination, tables, factor)) {}

KVImageKeyer::KVImageKeyer(std::tr1::shared_ptr<KVAbstractImage> source,
                           std::tr1::shared_ptr<KVAbstractImage> destination, kvo::KVLookupTables& tables,
                           KVDownsampleFactor factor)
    : m_private(new KVImageKeyer_Private(kFrontEndKeyer, source.get(), destination.get(), tables, factor)) {}

KVImageKeyer::~KVImageKeyer() { delete m_private; }

KVAbstractImage* KVImageKeyer::SourceImage() const { return m_private->source; }
unsigned short KVImageKeyer::RenderQueueCount() const { return m_private->Count(); }
int KVImageKeyer::ClearRenderQueue() { return m_private->Clear(); }
int KVImageKeyer::Render() { return m_private->Render(); }

int KVImageKeyer::SetAutoColorDifferenceKey(KVKeyColor keyColor, double balance, double saturationLimit,
                                            double saturationSoftness) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetAutoColorDifferenceKey", {static_cast<double>(keyColor), balance, saturationLimit, saturationSoftness})) return refusal;
    return m_private->Append(
        new ColorDifferenceKeyer(keyColor, balance, saturationLimit, saturationSoftness, m_private->tables));
  });
}

// Stretches the matte: a super contrast on alpha only.
int KVImageKeyer::SetAlphaSuperContrast(double low, double high) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetAlphaSuperContrast", {low, high})) return refusal;
    return m_private->Append(new SuperContrastRenderer(low, high, kChannelsAlpha, DetectedCPUExtensions()));
  });
}

int KVImageKeyer::SetSpillSuppression(KVChannel channel, KVSpillType spillType, double amount, double redFactor,
                                      double greenFactor, double blueFactor, double referenceFactor) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetSpillSuppression", {0, 0, amount})) return refusal;
    return m_private->Append(
        new SpillSuppressor(channel, spillType, amount, redFactor, greenFactor, blueFactor, referenceFactor));
  });
}

int KVImageKeyer::SetAlphaCrop(double left, double top, double right, double bottom) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetAlphaCrop", {left, top, right, bottom})) return refusal;
    return m_private->Append(new AlphaCrop(left, top, right, bottom));
  });
}

int KVImageKeyer::SetWhiteErode(KVWhiteErodeDirection direction, int size) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetWhiteErode", {0, static_cast<double>(size)})) return refusal;
    const int scaled = TruncateToInt(size * DownsampleValue(m_private->factor));
    return m_private->Append(new WhiteErodeRenderer(direction, scaled));
  });
}

int KVImageKeyer::SetYUVBlur(unsigned int radius, KVYUVBlurType type) {
  return GuardedCall([&] { return m_private->Append(new YUVBlurRenderer(m_private->ScaledRadius(radius), type)); });
}

int KVImageKeyer::SetAlphaStackBlur(unsigned int radius, bool horizontal, bool vertical) {
  return GuardedCall([&] {
    if (const int refusal = m_private->Refused("SetAlphaStackBlur", {0, horizontal ? 1.0 : 0.0, vertical ? 1.0 : 0.0})) return refusal;
    return m_private->Append(
        new StackBlurRenderer(m_private->ScaledRadius(radius), horizontal, vertical, kChannelsAlpha));
  });
}

}  // namespace image
}  // namespace kvo
