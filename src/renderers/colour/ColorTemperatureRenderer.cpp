#include <cmath>

#include <kvimage/colour.h>

#include "pipeline/StageNeeds.h"
#include "renderers/colour/ChannelTables.h"
#include "support/Conversions.h"
#include "support/PixelLayout.h"

namespace kvo {
namespace image {

// Each pixel alone, on one path, from tables Setup builds from the
// temperature only. A pass through several stages serves channel order 1.
StageNeeds NeedsOf(const ColorTemperatureRenderer&) {
  return StageNeeds{nullptr, true, [](AbstractRenderer& base, const PixelBlock& block) {
                      const ColorTemperatureRenderer& self = static_cast<ColorTemperatureRenderer&>(base);
                      RunKernel(self.m_tablesKernel, ByteTables_Plain, RunOf(block),
                                ByteTables{{self.m_blueTable, self.m_greenTable, self.m_redTable, nullptr}});
                    }};
}

namespace {

// The CIE 1931 2-degree standard observer (x-bar, y-bar, z-bar) at 5 nm steps
// from 380 to 780 nm, to four decimals (rounded half to even).
const double cie_colour_match[81][3] = {
    {0.0014, 0.0000, 0.0065},  // 380 nm
    {0.0022, 0.0001, 0.0105},  // 385 nm
    {0.0042, 0.0001, 0.0201},  // 390 nm
    {0.0076, 0.0002, 0.0362},  // 395 nm
    {0.0143, 0.0004, 0.0679},  // 400 nm
    {0.0232, 0.0006, 0.1102},  // 405 nm
    {0.0435, 0.0012, 0.2074},  // 410 nm
    {0.0776, 0.0022, 0.3713},  // 415 nm
    {0.1344, 0.0040, 0.6456},  // 420 nm
    {0.2148, 0.0073, 1.0391},  // 425 nm
    {0.2839, 0.0116, 1.3856},  // 430 nm
    {0.3285, 0.0168, 1.6230},  // 435 nm
    {0.3483, 0.0230, 1.7471},  // 440 nm
    {0.3481, 0.0298, 1.7826},  // 445 nm
    {0.3362, 0.0380, 1.7721},  // 450 nm
    {0.3187, 0.0480, 1.7441},  // 455 nm
    {0.2908, 0.0600, 1.6692},  // 460 nm
    {0.2511, 0.0739, 1.5281},  // 465 nm
    {0.1954, 0.0910, 1.2876},  // 470 nm
    {0.1421, 0.1126, 1.0419},  // 475 nm
    {0.0956, 0.1390, 0.8130},  // 480 nm
    {0.0580, 0.1693, 0.6162},  // 485 nm
    {0.0320, 0.2080, 0.4652},  // 490 nm
    {0.0147, 0.2586, 0.3533},  // 495 nm
    {0.0049, 0.3230, 0.2720},  // 500 nm
    {0.0024, 0.4073, 0.2123},  // 505 nm
    {0.0093, 0.5030, 0.1582},  // 510 nm
    {0.0291, 0.6082, 0.1117},  // 515 nm
    {0.0633, 0.7100, 0.0782},  // 520 nm
    {0.1096, 0.7932, 0.0573},  // 525 nm
    {0.1655, 0.8620, 0.0422},  // 530 nm
    {0.2257, 0.9149, 0.0298},  // 535 nm
    {0.2904, 0.9540, 0.0203},  // 540 nm
    {0.3597, 0.9803, 0.0134},  // 545 nm
    {0.4334, 0.9950, 0.0087},  // 550 nm
    {0.5121, 1.0000, 0.0057},  // 555 nm
    {0.5945, 0.9950, 0.0039},  // 560 nm
    {0.6784, 0.9786, 0.0027},  // 565 nm
    {0.7621, 0.9520, 0.0021},  // 570 nm
    {0.8425, 0.9154, 0.0018},  // 575 nm
    {0.9163, 0.8700, 0.0017},  // 580 nm
    {0.9786, 0.8163, 0.0014},  // 585 nm
    {1.0263, 0.7570, 0.0011},  // 590 nm
    {1.0567, 0.6949, 0.0010},  // 595 nm
    {1.0622, 0.6310, 0.0008},  // 600 nm
    {1.0456, 0.5668, 0.0006},  // 605 nm
    {1.0026, 0.5030, 0.0003},  // 610 nm
    {0.9384, 0.4412, 0.0002},  // 615 nm
    {0.8544, 0.3810, 0.0002},  // 620 nm
    {0.7514, 0.3210, 0.0001},  // 625 nm
    {0.6424, 0.2650, 0.0000},  // 630 nm
    {0.5419, 0.2170, 0.0000},  // 635 nm
    {0.4479, 0.1750, 0.0000},  // 640 nm
    {0.3608, 0.1382, 0.0000},  // 645 nm
    {0.2835, 0.1070, 0.0000},  // 650 nm
    {0.2187, 0.0816, 0.0000},  // 655 nm
    {0.1649, 0.0610, 0.0000},  // 660 nm
    {0.1212, 0.0446, 0.0000},  // 665 nm
    {0.0874, 0.0320, 0.0000},  // 670 nm
    {0.0636, 0.0232, 0.0000},  // 675 nm
    {0.0468, 0.0170, 0.0000},  // 680 nm
    {0.0329, 0.0119, 0.0000},  // 685 nm
    {0.0227, 0.0082, 0.0000},  // 690 nm
    {0.0158, 0.0057, 0.0000},  // 695 nm
    {0.0114, 0.0041, 0.0000},  // 700 nm
    {0.0081, 0.0029, 0.0000},  // 705 nm
    {0.0058, 0.0021, 0.0000},  // 710 nm
    {0.0041, 0.0015, 0.0000},  // 715 nm
    {0.0029, 0.0010, 0.0000},  // 720 nm
    {0.0020, 0.0007, 0.0000},  // 725 nm
    {0.0014, 0.0005, 0.0000},  // 730 nm
    {0.0010, 0.0004, 0.0000},  // 735 nm
    {0.0007, 0.0002, 0.0000},  // 740 nm
    {0.0005, 0.0002, 0.0000},  // 745 nm
    {0.0003, 0.0001, 0.0000},  // 750 nm
    {0.0002, 0.0001, 0.0000},  // 755 nm
    {0.0002, 0.0001, 0.0000},  // 760 nm
    {0.0001, 0.0000, 0.0000},  // 765 nm
    {0.0001, 0.0000, 0.0000},  // 770 nm
    {0.0001, 0.0000, 0.0000},  // 775 nm
    {0.0000, 0.0000, 0.0000},  // 780 nm
};

const double kFirstWavelength = 380.0;
const double kWavelengthStep = 5.0;

// Linear RGB from CIE XYZ.
const double kXYZToRGB[3][3] = {
    {1.78276, -0.496985, -0.26901},
    {-0.959362, 1.9478, -0.0275807},
    {0.0859318, -0.174467, 1.32283},
};

void BuildFactorTable(double factor, unsigned char table[256]) {
  for (int i = 0; i < 256; ++i) table[i] = static_cast<unsigned char>(ClampToByte(TruncateToInt(factor * i)));
}

}  // namespace

// Planck's law with the first radiation constant 3.74183e-16 W m^2 and the
// second 0.014388 m K.
double BlackBodySpectrum(double temperature, double wavelength) {
  const double metres = wavelength * 1e-9;
  return 3.74183e-16 * std::pow(metres, -5.0) / (std::exp(0.014388 / (metres * temperature)) - 1.0);
}

void SpectrumToXYZ(double temperature, double* x, double* y, double* z) {
  double sumX = 0.0, sumY = 0.0, sumZ = 0.0;
  double wavelength = kFirstWavelength;
  for (const double* match : cie_colour_match) {
    const double radiance = BlackBodySpectrum(temperature, wavelength);
    sumX += radiance * match[0];
    sumY += radiance * match[1];
    sumZ += radiance * match[2];
    wavelength += kWavelengthStep;
  }
  const double sum = sumX + sumY + sumZ;
  *x = sumX / sum;
  *y = sumY / sum;
  *z = sumZ / sum;
}

ColorTemperatureRenderer::ColorTemperatureRenderer(double kelvin)
    : m_kelvin(kelvin), m_redTable(), m_greenTable(), m_blueTable(), m_tablesKernel(ByteTables_Plain) {}

// The black body's chromaticity, scaled to Y = 1, in linear RGB gives one
// factor per channel; each table is clamp(trunc(factor * i)).
void ColorTemperatureRenderer::Setup(KVAbstractImage*) {
  double x = 0.0, y = 0.0, z = 0.0;
  SpectrumToXYZ(m_kelvin, &x, &y, &z);
  double xyz[3] = {0.0, 0.0, 0.0};
  if (y != 0.0) {
    xyz[0] = x / y;
    xyz[1] = 1.0;
    xyz[2] = (1.0 - x - y) / y;
  }
  double factors[3];
  for (int row = 0; row < 3; ++row) {
    factors[row] = kXYZToRGB[row][0] * xyz[0] + kXYZToRGB[row][1] * xyz[1] + kXYZToRGB[row][2] * xyz[2];
  }
  BuildFactorTable(factors[0], m_redTable);
  BuildFactorTable(factors[1], m_greenTable);
  BuildFactorTable(factors[2], m_blueTable);
  m_tablesKernel = ChooseByteTablesKernel();
}

int ColorTemperatureRenderer::Render(KVAbstractImage* source, KVAbstractImage* destination, unsigned char threadIndex,
                                     unsigned char threadCount) {
  return RenderEightBitOnly(*this, source, destination, threadIndex, threadCount, OtherDepth::kRendersNothing);
}

// Channel order 2 holds alpha, red, green, blue; every other order is treated
// as blue, green, red, alpha. Alpha is copied.
int ColorTemperatureRenderer::Render8(KVAbstractImage* source, KVAbstractImage* destination,
                                      unsigned char threadIndex, unsigned char threadCount) {
  PixelRun run;
  if (!PlainPathShare(source, destination, threadIndex, threadCount, run)) return 0;
  const ByteTables tables = source->PixelChannelOrder() == kPixelOrderARGB
                                ? ByteTables{{nullptr, m_redTable, m_greenTable, m_blueTable}}
                                : ByteTables{{m_blueTable, m_greenTable, m_redTable, nullptr}};
  RunKernel(m_tablesKernel, ByteTables_Plain, run, tables);
  return 0;
}

}  // namespace image
}  // namespace kvo
