// The safeload grid and the choice of its best point.

#include <gtest/gtest.h>

#include <tuple>

#include "ModelFile.h"
#include "Tuner.h"

namespace {

using vmodel::TunePoint;

TEST(Tuner, GridsAreSortedShareValues) {
  const struct {
    const char* text;
    std::vector<float> grid;
  } good[] = {
      {"0.1:0.4:0.1", {0.1f, 0.2f, 0.3f, 0.4f}},  // ends on 0.4, not just short of it
      {"0.3,0.1,0.1", {0.1f, 0.3f}},
      {"0.25", {0.25f}},
  };
  for (const auto& c : good) EXPECT_EQ(vmodel::parseGrid(c.text), c.grid) << c.text;
  for (const char* bad : {"0", "1", "1.2", "-0.1", "nan", "inf", "0.1,", "abc", "0.1:0.3", "0.3:0.1:0.1",
                          "0.1:0.3:0", "0.001:0.201:0.001"}) {  // the last: 201 values, one too many
    try {
      vmodel::parseGrid(bad);
      ADD_FAILURE() << bad;
    } catch (const vmodel::ModelError& e) {
      EXPECT_EQ(e.code(), vmodel::kExitBadInput) << bad;
      EXPECT_NE(std::string(e.what()).find(bad), std::string::npos) << e.what();
    }
  }
}

TunePoint point(float safeload, double totalMs, size_t coldByKills) {
  TunePoint p;
  p.safeload = safeload;
  p.total.launchMsTotal = totalMs;
  p.total.coldByKills = coldByKills;
  return p;
}

TEST(Tuner, ChoosesLeastLaunchTimeThenFewestColdLaunchesThenLessKilling) {
  const struct {
    const char* what;
    std::vector<TunePoint> points;
    size_t chosen;
  } cases[] = {
      {"launch time first", {point(0.1f, 900, 0), point(0.2f, 800, 9), point(0.3f, 850, 0)}, 1},
      {"cold launches break a tie", {point(0.1f, 800, 5), point(0.2f, 800, 3), point(0.3f, 800, 4)}, 1},
      {"then the smaller safeload", {point(0.3f, 800, 3), point(0.2f, 800, 3)}, 1},
  };
  for (const auto& c : cases) EXPECT_EQ(vmodel::choosePoint(c.points), c.chosen) << c.what;
}

TEST(Tuner, SumsEachPointsScenariosInGridMajorOrder) {
  std::vector<vmodel::RunResult> runs(4);
  for (size_t i = 0; i < runs.size(); ++i) {
    runs[i].figures.launches = 10;
    runs[i].figures.launchMsTotal = 1000.0 * static_cast<double>(i + 1);
    runs[i].figures.launchMsP95 = static_cast<double>(i);
  }
  const auto points = vmodel::sumByPoint({0.1f, 0.2f}, runs);
  ASSERT_EQ(points.size(), 2u);
  // Runs 3 and 4; the p95 is the worst scenario's.
  const auto& t = points[1].total;
  EXPECT_EQ(std::make_tuple(t.launchMsTotal, t.launches, t.launchMsMean, t.launchMsP95),
            std::make_tuple(7000.0, size_t{20}, 350.0, 3.0));
}

}  // namespace
