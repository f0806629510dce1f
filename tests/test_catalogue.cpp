// The stage catalogue against the setters it describes: each row's checks
// are the setter's, QueueSetter refuses what does not fit, a call by name is
// the direct call, and the README's stage table names exactly its setters.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "TestSupport.h"

namespace {

using namespace kvo::image;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;
using kvtest::CatalogueFrontEnd;

std::vector<double> Defaults(const KVSetterInfo& row) {
  std::vector<double> values;
  for (unsigned int p = 0; p < row.parameterCount; ++p) {
    const KVParameterInfo& parameter = row.parameters[p];
    values.insert(values.end(), parameter.defaults, parameter.defaults + NumberCount(parameter.type));
  }
  return values;
}

// Queues values on a fresh front end: the code, and whether exactly what the
// code says was queued (one stage for 0, none otherwise).
int Queued(const KVSetterInfo& row, const std::vector<double>& values) {
  CatalogueFrontEnd front(row.frontEnd);
  const int code = front.Queue(row.name, values);
  EXPECT_EQ(front.Queued(), code == 0 ? 1 : 0) << "code " << code;
  return code;
}

// For every checked parameter over the row's defaults: the range's ends and
// NaN pass and just beyond is refused with 7; a channel selection of 2 is
// refused with 10; a direction pair of two false flags with 4.
TEST(Catalogue, EveryRowsChecksAreTheSettersChecks) {
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    const std::vector<double> defaults = Defaults(row);
    EXPECT_EQ(Queued(row, defaults), 0) << row.name;
    unsigned int at = 0;  // the parameter's first number
    for (unsigned int p = 0; p < row.parameterCount; at += NumberCount(row.parameters[p++].type)) {
      const KVParameterInfo& parameter = row.parameters[p];
      SCOPED_TRACE(testing::Message() << row.name << " " << parameter.name);
      std::vector<double> values = defaults;
      const bool real = parameter.type == kParameterReal;
      const double cases[][2] = {{parameter.minimum, 0},
                                 {parameter.maximum, 0},
                                 {real ? std::nextafter(parameter.minimum, -HUGE_VAL) : parameter.minimum - 1, 7},
                                 {real ? std::nextafter(parameter.maximum, HUGE_VAL) : parameter.maximum + 1, 7},
                                 {real ? kvtest::kNaN : parameter.minimum, 0}};
      switch (parameter.check) {
        case kCheckRange:
          for (const auto& c : cases) {
            values[at] = c[0];
            EXPECT_EQ(Queued(row, values), c[1]) << "value " << c[0];
          }
          break;
        case kCheckChannelSelection:
          values[at] = 2;
          EXPECT_EQ(Queued(row, values), 10);
          break;
        case kCheckDirectionPair:
          values[at] = values[at + 1] = 0;
          EXPECT_EQ(Queued(row, values), 4);
          break;
        default:
          break;
      }
    }
  }
}

TEST(Catalogue, QueueSetterRefusesUnknownNamesWrongCountsAndMisfittingNumbers) {
  const std::vector<double> blur = Defaults(*FindSetter(kFrontEndProcessor, "SetBoundedStackBlur"));
  const KVSetterInfo& boundedBlur = *FindSetter(kFrontEndProcessor, "SetBoundedStackBlur");
  EXPECT_EQ(FindSetter(kFrontEndKeyer, "SetOpacity"), nullptr);
  EXPECT_EQ(Queued(boundedBlur, std::vector<double>(blur.begin(), blur.end() - 1)), 4);
  std::vector<double> longer = blur;
  longer.push_back(0);
  EXPECT_EQ(Queued(boundedBlur, longer), 4);
  // radius, horizontal, vertical, channels, rect (4), feather
  const struct {
    unsigned int at;
    double value;
  } misfits[] = {{0, 0.5}, {0, -1},           {0, 4294967296.0}, {1, 2},
                 {3, 3.5}, {3, kvtest::kNaN}, {6, 1.5},          {7, 2147483648.0}};
  for (const auto& misfit : misfits) {
    std::vector<double> values = blur;
    values[misfit.at] = misfit.value;
    EXPECT_EQ(Queued(boundedBlur, values), 7) << "number " << misfit.at << " = " << misfit.value;
  }
  std::vector<double> colour = Defaults(*FindSetter(kFrontEndProcessor, "SetSilhouette"));
  colour[2] = 256;
  EXPECT_EQ(Queued(*FindSetter(kFrontEndProcessor, "SetSilhouette"), colour), 7);

  CatalogueFrontEnd keyer(kFrontEndKeyer), compositor(kFrontEndCompositor);
  EXPECT_EQ(keyer.Queue("SetOpacity", {1.0}), 4);
  EXPECT_EQ(keyer.Queue(nullptr, {}), 4);
  KVAbstractImage* layers[] = {compositor.layer(), compositor.layer()};
  const double layerValues[] = {1.0, kBlendNormal, kCompositeAlpha};
  EXPECT_EQ(QueueSetter(*compositor.compositor, "AddLayer", layerValues, 3, layers, 2), 4);
  EXPECT_EQ(keyer.Queued() + compositor.Queued(), 0);
}

// A call by name gives the bytes of the direct call (defaults, and values
// that tell a colour's, a rectangle's and a quadrilateral's numbers apart).
TEST(Catalogue, QueueingByNameIsTheDirectCall) {
  const KVQuad floor(KVPoint2F(1, 1), KVPoint2F(6, 0.5), KVPoint2F(0, 4), KVPoint2F(7, 4.5));
  const struct {
    KVFrontEnd frontEnd;
    const char* name;
    std::vector<double> values;  // empty: the row's defaults
    std::function<int(CatalogueFrontEnd&)> direct;
  } cases[] = {
      {kFrontEndProcessor,
       "SetStackBlur",
       {},
       [](CatalogueFrontEnd& f) { return f.processor->SetStackBlur(4, true, true, kChannelsAll); }},
      {kFrontEndProcessor,
       "SetSilhouette",
       {10, 20, 30},
       [](CatalogueFrontEnd& f) {
         return f.processor->SetSilhouette(KVPixel8_RGB{10, 20, 30});
       }},
      {kFrontEndProcessor,
       "SetBoundedStackBlur",
       {2, 1, 0, 5, 1, 2, 4, 3, 0.5},
       [](CatalogueFrontEnd& f) {
         return f.processor->SetBoundedStackBlur(2, true, false, kChannelsAll, KVRect(KVPoint2(1, 2), 4, 3), 0.5);
       }},
      {kFrontEndKeyer,
       "SetSpillSuppression",
       {},
       [](CatalogueFrontEnd& f) {
         return f.keyer->SetSpillSuppression(kChannelGreen, kSpillStandard, 1, 0, -1, 0, 1);
       }},
      {kFrontEndKeyer,
       "SetWhiteErode",
       {},
       [](CatalogueFrontEnd& f) { return f.keyer->SetWhiteErode(kWhiteErodeAll, 2); }},
      {kFrontEndCompositor,
       "AddLightSpillLayer",
       {},
       [](CatalogueFrontEnd& f) {
         return f.compositor->AddLightSpillLayer(f.layer(), 8, 0.5, kBlendScreen, kDownsampleNone);
       }},
      {kFrontEndCompositor,
       "AddShadowCastLayer",
       {0, 0, 7, 5, 1, 1, 6, 0.5, 0, 4, 7, 4.5, 2, 0.7, 10, 20, 30, kBlendMultiply, 1, 0},
       [floor](CatalogueFrontEnd& f) {
         return f.compositor->AddShadowCastLayer(f.layer(), KVRect(KVPoint2(0, 0), 7, 5), floor, 2, 0.7,
                                                 KVPixel8_RGB{10, 20, 30}, kBlendMultiply, true, kDownsampleNone);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CatalogueFrontEnd byName(c.frontEnd), direct(c.frontEnd);
    ASSERT_EQ(byName.Queue(c.name, c.values.empty() ? Defaults(*FindSetter(c.frontEnd, c.name)) : c.values), 0);
    ASSERT_EQ(c.direct(direct), 0);
    std::vector<unsigned char> expected, actual;
    ASSERT_EQ(direct.Render(expected), 0);
    ASSERT_EQ(byName.Render(actual), 0);
    EXPECT_EQ(actual, expected);
  }
}

// The README's stage table: rows "| processor, keyer | `SetYUVBlur(...` ...".
TEST(Catalogue, TheReadmeStageTableListsExactlyTheCataloguesSetters) {
  const char* const frontEndNames[] = {"processor", "keyer", "compositor"};
  std::set<std::string> catalogue, readme;
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    catalogue.insert(std::string(frontEndNames[SetterAt(r)->frontEnd]) + " " + SetterAt(r)->name);
  }
  std::ifstream file(KVIMAGE_README);
  ASSERT_TRUE(file.good()) << KVIMAGE_README;
  for (std::string line; std::getline(file, line);) {
    const size_t tick = line.find("| `"), open = line.find('(', tick);
    if (line.compare(0, 2, "| ") != 0 || tick == std::string::npos || open == std::string::npos) continue;
    const std::string name = line.substr(tick + 3, open - tick - 3);
    std::istringstream frontEnds(line.substr(2, tick - 2));
    for (std::string frontEnd; std::getline(frontEnds >> std::ws, frontEnd, ',');) {
      frontEnd.erase(frontEnd.find_last_not_of(' ') + 1);
      for (const char* known : frontEndNames) {
        if (frontEnd == known) readme.insert(frontEnd + " " + name);
      }
    }
  }
  EXPECT_EQ(readme, catalogue);
}

}  // namespace
