// The stage catalogue against the setters it describes, and the properties
// every stage shares, driven by its rows: each row's checks are the setter's
// and what they let through renders, QueueSetter refuses what does not fit, a
// call by name is the direct call, the README's stage table names exactly the
// catalogue's setters; and every stage gives the same bytes at any thread
// count (where its row says so), on unaligned buffers and on its wide and
// narrow vector paths, stays inside tiny and odd images, leaves its inputs
// alone, skips other depths and asserts on channel orders it does not serve.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <set>
#include <sstream>

#include "TestSupport.h"

namespace {

using namespace kvo::image;
using kvo::maths::KVPoint2;
using kvo::maths::KVPoint2F;
using kvo::maths::KVQuad;
using kvo::maths::KVRect;
using kvtest::Front;
typedef std::vector<double> Numbers;

// Defocus blurs its input in place; every other stage leaves it alone.
bool KeepsItsSource(const KVSetterInfo& row) { return std::string(row.stage) != "DefocusRenderer"; }

// A row's defaults; lively, every checked real inside its range but away
// from the identity its defaults often are, a colour, and a shadow
// quadrilateral that covers most of a 17 x 9 image.
Numbers RowNumbers(const KVSetterInfo& row, bool lively) {
  Numbers values;
  for (const KVParameterInfo* p = row.parameters; p != row.parameters + row.parameterCount; ++p) {
    if (lively && p->type == kParameterReal && p->check == kCheckRange) {
      values.push_back(p->minimum + 0.37 * (p->maximum - p->minimum));
    } else if (lively && p->type == kParameterColour) {
      values.insert(values.end(), {40, 90, 200});
    } else if (lively && p->type == kParameterQuad) {
      values.insert(values.end(), {2, 1, 15, 0, 0, 8, 17, 9});
    } else {
      values.insert(values.end(), p->defaults, p->defaults + NumberCount(p->type));
    }
  }
  return values;
}
Numbers Defaults(const KVSetterInfo& row) { return RowNumbers(row, false); }
Numbers Lively(const KVSetterInfo& row) { return RowNumbers(row, true); }

// Queues on a fresh front end; a refusal queues nothing.
int Queued(const KVSetterInfo& row, const Numbers& values) {
  Front front(row.frontEnd);
  const int code = front.Queue(row.name, values);
  EXPECT_EQ(front.Queued(), code == 0 ? 1 : 0) << "code " << code;
  return code;
}

// The numbers a parameter is tried with, each with the code it must bring:
// a range's ends pass and just beyond is refused; NaN passes every range and
// an infinity is refused by a range only; radii and sizes far beyond the
// image pass; a channel selection of 2 is refused; a direction flag and the
// next both false (0 below) are refused.
std::vector<std::pair<double, int> > Cases(const KVParameterInfo& p) {
  const bool ranged = p.check == kCheckRange, real = p.type == kParameterReal;
  std::vector<std::pair<double, int> > cases;
  if (ranged) {
    cases = {{p.minimum, 0}, {p.maximum, 0}, {real ? std::nextafter(p.minimum, -HUGE_VAL) : p.minimum - 1, 7},
             {real ? std::nextafter(p.maximum, HUGE_VAL) : p.maximum + 1, 7}};
  }
  if (real || p.type == kParameterPoint || p.type == kParameterQuad) {
    cases.insert(cases.end(), {{kvtest::kNaN, 0}, {HUGE_VAL, ranged ? 7 : 0}, {-HUGE_VAL, ranged ? 7 : 0}});
  }
  if (p.type == kParameterRadius) cases.insert(cases.end(), {{2896, 0}, {100000, 0}, {4294967295.0, 0}});
  if (p.type == kParameterInteger) cases.push_back({10000000, 0});
  if (p.check == kCheckChannelSelection) cases.push_back({2, 10});
  if (p.check == kCheckDirectionPair) cases.push_back({0, 4});
  return cases;
}

// Every number of every parameter of every row over the row's defaults:
// the codes above, and what is queued renders to 0 with bounded work, the
// same bytes twice; the defaults again over new content.
TEST(Catalogue, EveryRowsChecksAreTheSettersAndWhatTheyLetThroughRenders) {
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    const Numbers defaults = Defaults(row);
    {
      // Stages keep scratch between renders (blurred copies, planes, nested
      // queues): a queue rendered again over new source content gives what a
      // fresh front end gives for that content.
      SCOPED_TRACE(row.name);
      Front reused(row.frontEnd), fresh(row.frontEnd);
      ASSERT_EQ(reused.Queue(row.name, defaults), 0);
      EXPECT_EQ(reused.Queued(), 1);
      reused.Render(KeepsItsSource(row));
      reused.NewSourceContent(31);
      fresh.NewSourceContent(31);
      ASSERT_EQ(fresh.Queue(row.name, defaults), 0);
      EXPECT_EQ(reused.Render(KeepsItsSource(row)), fresh.Render(KeepsItsSource(row)));
    }
    unsigned int at = 0;  // the parameter's first number
    const KVParameterInfo* end = row.parameters + row.parameterCount;
    for (const KVParameterInfo* p = row.parameters; p != end; at += NumberCount(p++->type)) {
      for (unsigned int k = 0; k < NumberCount(p->type); ++k) {
        for (const auto& c : Cases(*p)) {
          SCOPED_TRACE(testing::Message() << row.name << " " << p->name << "[" << k << "] = " << c.first);
          Numbers values = defaults;
          values[at + k] = c.first;
          if (p->check == kCheckDirectionPair) values[at + 1] = 0;
          Front front(row.frontEnd);
          ASSERT_EQ(front.Queue(row.name, values), c.second);
          EXPECT_EQ(front.Queued(), c.second == 0 ? 1 : 0);
          if (c.second == 0) {
            EXPECT_EQ(front.Render(KeepsItsSource(row)), front.Render(KeepsItsSource(row)));
          }
        }
      }
    }
  }
}

TEST(Catalogue, QueueSetterRefusesUnknownNamesWrongCountsAndMisfittingNumbers) {
  Front keyer(kFrontEndKeyer), compositor(kFrontEndCompositor);
  EXPECT_EQ(keyer.Queue("SetOpacity", {1.0}), 4);
  EXPECT_EQ(keyer.Queue(nullptr, {}), 4);
  EXPECT_EQ(compositor.Queue("AddLayer", {1.0, kBlendNormal, kCompositeAlpha}, 2), 4);
  EXPECT_EQ(keyer.Queued() + compositor.Queued(), 0);
  // radius, horizontal, vertical, channels, rect (left, top, width, height), feather
  const KVSetterInfo& blur = *FindSetter(kFrontEndProcessor, "SetBoundedStackBlur");
  const Numbers numbers = Defaults(blur);
  EXPECT_EQ(Queued(blur, Numbers(numbers.begin(), numbers.end() - 1)), 4);
  EXPECT_EQ(Queued(blur, Numbers(numbers.size() + 1, 1.0)), 4);
  const std::pair<unsigned int, double> misfits[] = {{0, 0.5}, {0, -1},   {0, 4294967296.0}, {1, 2},
                                                     {3, 3.5}, {3, kvtest::kNaN}, {6, 1.5}, {7, 2147483648.0}};
  for (const auto& misfit : misfits) {
    Numbers values = numbers;
    values[misfit.first] = misfit.second;
    EXPECT_EQ(Queued(blur, values), 7) << "number " << misfit.first << " = " << misfit.second;
  }
  EXPECT_EQ(Queued(*FindSetter(kFrontEndProcessor, "SetSilhouette"), {0, 0, 256}), 7);
}

// A call by name gives the bytes of the direct call (defaults, and numbers
// that tell a colour's, a rectangle's and a quadrilateral's apart).
TEST(Catalogue, QueueingByNameIsTheDirectCall) {
  const KVQuad floor(KVPoint2F(1, 1), KVPoint2F(6, 0.5), KVPoint2F(0, 4), KVPoint2F(7, 4.5));
  const struct {
    KVFrontEnd frontEnd;
    const char* name;
    Numbers values;  // none: the row's defaults
    std::function<int(Front&)> direct;
  } cases[] = {
      {kFrontEndProcessor, "SetStackBlur", {},
       [](Front& f) { return f.processor->SetStackBlur(4, true, true, kChannelsAll); }},
      {kFrontEndProcessor, "SetBoundedStackBlur", {2, 1, 0, 5, 1, 2, 4, 3, 0.5}, [](Front& f) {
         return f.processor->SetBoundedStackBlur(2, true, false, kChannelsAll, KVRect(KVPoint2(1, 2), 4, 3), 0.5);
       }},
      {kFrontEndKeyer, "SetSpillSuppression", {},
       [](Front& f) { return f.keyer->SetSpillSuppression(kChannelGreen, kSpillStandard, 1, 0, -1, 0, 1); }},
      {kFrontEndCompositor, "AddLightSpillLayer", {},
       [](Front& f) { return f.compositor->AddLightSpillLayer(f.layers[0], 8, 0.5, kBlendScreen, kDownsampleNone); }},
      {kFrontEndCompositor, "AddShadowCastLayer",
       {0, 0, 7, 5, 1, 1, 6, 0.5, 0, 4, 7, 4.5, 2, 0.7, 10, 20, 30, kBlendMultiply, 1, 0}, [floor](Front& f) {
         return f.compositor->AddShadowCastLayer(f.layers[0], KVRect(KVPoint2(0, 0), 7, 5), floor, 2, 0.7,
                                                 KVPixel8_RGB{10, 20, 30}, kBlendMultiply, true, kDownsampleNone);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Front byName(c.frontEnd), direct(c.frontEnd);
    ASSERT_EQ(byName.Queue(c.name, c.values.empty() ? Defaults(*FindSetter(c.frontEnd, c.name)) : c.values), 0);
    ASSERT_EQ(c.direct(direct), 0);
    EXPECT_EQ(byName.Render(), direct.Render());
  }
}

// The README's stage table: rows "| processor, keyer | `SetYUVBlur(...` ...".
TEST(Catalogue, TheReadmeStageTableListsExactlyTheCataloguesSetters) {
  const char* const frontEnds[] = {"processor", "keyer", "compositor"};
  std::set<std::string> catalogue, readme;
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    catalogue.insert(std::string(frontEnds[SetterAt(r)->frontEnd]) + " " + SetterAt(r)->name);
  }
  std::ifstream file(KVIMAGE_README);
  ASSERT_TRUE(file.good()) << KVIMAGE_README;
  for (std::string line; std::getline(file, line);) {
    const size_t tick = line.find("| `"), open = line.find('(', tick);
    if (line.compare(0, 2, "| ") != 0 || tick == std::string::npos || open == std::string::npos) continue;
    std::istringstream cell(line.substr(2, tick - 2));
    for (std::string frontEnd; std::getline(cell >> std::ws, frontEnd, ',');) {
      frontEnd.erase(frontEnd.find_last_not_of(' ') + 1);
      for (const char* known : frontEnds) {
        if (frontEnd == known) readme.insert(frontEnd + " " + line.substr(tick + 3, open - tick - 3));
      }
    }
  }
  EXPECT_EQ(readme, catalogue);
}

struct Shape {
  unsigned int width, height;
  size_t offset;
};

std::vector<unsigned char> RenderRow(const KVSetterInfo& row, unsigned int threads, Shape shape = {17, 9, 0}) {
  kvtest::ScopedCoreCount cores(threads);
  Front front(row.frontEnd, shape.width, shape.height, shape.offset);
  EXPECT_EQ(front.Queue(row.name, Lively(row)), 0);
  return front.Render(KeepsItsSource(row));
}

TEST(EveryStage, ThreadCountsSizesOffsetsAndWidePathsGiveTheirBytes) {
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    SCOPED_TRACE(row.name);
    const std::vector<unsigned char> one = RenderRow(row, 1);
    EXPECT_EQ(RenderRow(row, 1, {17, 9, 1}), one) << "one byte past alignment";
    {
      kvtest::ScopedWiderExtension narrow(kvtl::kWiderNone);
      EXPECT_EQ(RenderRow(row, 1), one) << "without the wider instruction sets";
      EXPECT_EQ(RenderRow(row, 3), RenderRow(row, 3, {17, 9, 1})) << "narrow, three threads";
    }
    for (unsigned int threads : {2u, 3u, 7u, 64u}) {
      const std::vector<unsigned char> many = RenderRow(row, threads);
      EXPECT_TRUE(!row.sameBytesAtAnyThreadCount || many == one) << threads << " threads";
    }
    // Tiny and odd images, more threads than pixels, rows or columns.
    for (Shape shape : {Shape{1, 1, 1}, Shape{3, 1, 0}, Shape{1, 6, 1}, Shape{0, 0, 0}, Shape{33, 2, 1}}) {
      const std::vector<unsigned char> single = RenderRow(row, 1, shape);
      const std::vector<unsigned char> many = RenderRow(row, shape.width == 3 ? 64 : 7, shape);
      EXPECT_TRUE(!row.sameBytesAtAnyThreadCount || many == single) << shape.width << "x" << shape.height;
    }
  }
}

// An image of another depth has no bytes: a stage that reaches for them
// instead of checking the depth first crashes here.
TEST(EveryStage, OtherDepthsAreNeverTouched) {
  kvtest::ScopedCoreCount cores(3);
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    if (row.requiresBGRA) continue;
    kvtest::DeepImage deep(9, 4);
    Front front(row.frontEnd, 9, 4, 0, kPixelOrderBGRA, &deep);
    ASSERT_EQ(front.Queue(row.name, Lively(row)), 0) << row.name;
    front.RenderCode();
  }
}

// Stages that serve only blue-green-red-alpha assert on any other order;
// the rest render it.
TEST(EveryStageDeathTest, OnlyRowsThatRequireBlueGreenRedAlphaAssertOnOtherOrders) {
  for (unsigned int r = 0; r < SetterCount(); ++r) {
    const KVSetterInfo& row = *SetterAt(r);
    Front front(row.frontEnd, 5, 2, 0, kPixelOrderARGB);
    ASSERT_EQ(front.Queue(row.name, Lively(row)), 0) << row.name;
    if (row.requiresBGRA) {
      EXPECT_DEATH(front.RenderCode(), ":[0-9]+: failed assertion `") << row.name;
    } else {
      front.RenderCode();
    }
  }
}

}  // namespace
