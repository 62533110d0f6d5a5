// The event-log import on the hand-written sample and on small logs built
// to hit one boundary each: every tag, bad lines, apps without figures,
// midnight, the turn of the year and the refusals.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "LogImport.h"
#include "support/ErrorOf.h"
#include "support/ToolRun.h"

namespace {

using testing::HasSubstr;

std::string launchLine(const std::string& when, const std::string& app, int ms) {
  return when + "  1000  1543  1620 I wm_activity_launch_time: [0,77,"+ app + "/.Main," + std::to_string(ms) + "]\n";
}

vsim::ImportResult import(const std::string& log, std::optional<int> year = 2025,
                          const std::map<std::string, vsim::AppFigures>& figures = {}) {
  std::istringstream in(log);
  return vsim::importLog(in, figures, {4, year, ""});
}

std::vector<std::string> launchTimes(const vsim::Scenario& sc) {
  std::vector<std::string> out;
  for (const auto& e : sc.events)
    if (e.type == vsim::EventType::Launch) out.push_back(vsim::dayTime(e.at) + " " + e.target);
  return out;
}

TEST(LogImport, ReadsEveryTagOfTheSampleAndKeepsItsWeekdaysAndHours) {
  const std::string data = VORAK_TEST_DATA;
  const auto r = import(kxtest::slurp(data + "/sample-events.log"), 2025,
                        vsim::parseFigures(kxtest::slurp(data + "/sample-figures.csv")));

  // The counts and warnings as the simulator prints them are checked with its import.
  EXPECT_EQ(r.deviceKills, 1u);  // "remove task" kills are removals; the "empty" one was the device's
  EXPECT_EQ(r.defaulted, std::vector<std::string>{"org.sample.news"});

  // 2025-11-28 was a Friday; the launch began its 420 ms before the line.
  const auto times = launchTimes(r.scenario);
  EXPECT_EQ(times.front(), "Fri 07:11:59 com.example.chat");
  EXPECT_EQ(times.back(), "Sat 09:55:02 com.example.maps");
  EXPECT_EQ(r.scenario.app("com.example.game")->rssSwapKB, 780000u);
  EXPECT_EQ(r.scenario.app("org.sample.news")->rssSwapKB, 256000u);  // the 4 GB class's default
  // What the simulator plays: the file it writes reads back to the same events.
  EXPECT_EQ(launchTimes(vsim::parseScenario(r.scenario.toJson().dump())), times);
}

TEST(LogImport, DaysRunOnAcrossMidnightAndTheTurnOfTheYear) {
  const struct {
    const char* what;
    std::string log;
    std::vector<std::string> launches;
  } cases[] = {
      {"midnight", launchLine("11-30 23:59:30.000", "a.b", 1000) + launchLine("12-01 00:00:10.500", "c.d", 500),
       {"Sun 23:59:29 a.b", "Mon 00:00:10 c.d"}},
      {"new year without years", launchLine("12-31 23:00:00.000", "a.b", 0) + launchLine("01-01 01:00:00.000", "a.b", 0),
       {"Wed 23:00:00 a.b", "Thu 01:00:00 a.b"}},
      {"years in the dates", launchLine("2024-02-29 12:00:00.000", "a.b", 0), {"Thu 12:00:00 a.b"}},
      {"uid column", "11-24 08:00:00.000  system  1543  1620 I wm_activity_launch_time: [0,7,a.b/.M,0]\n",
       {"Mon 08:00:00 a.b"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const auto r = import(c.log);
    EXPECT_EQ(launchTimes(r.scenario), c.launches);
    EXPECT_TRUE(r.badLines.empty());
  }
}

TEST(LogImport, RefusesLogsThatCannotBeReplayed) {
  const struct {
    const char* what;
    std::string log;
    std::optional<int> year;
    const char* message;
  } cases[] = {
      {"no year", launchLine("11-24 08:00:00.000", "a.b", 0), std::nullopt, "--year"},
      {"no launch", "11-24 08:00:00.000  1000  1543  1620 I am_proc_died: [0,12,a.b,900,19]\n", 2025, "no activity launch"},
      {"over 100 days", launchLine("2025-01-06 08:00:00.000", "a.b", 0) + launchLine("2025-06-06 08:00:00.000", "a.b", 0),
       std::nullopt, "100 days"},
  };
  for (const auto& c : cases)
    EXPECT_THAT(kxtest::errorOf<vsim::ScenarioError>([&] { import(c.log, c.year); }), HasSubstr(c.message)) << c.what;
  // A name the plug-in would refuse, a negative duration or a date that does not exist is a bad line.
  const auto r = import(launchLine("11-24 08:00:00.000", "a.b", 0) + launchLine("11-24 09:00:00.000", "", 0) +
                        launchLine("11-24 10:00:00.000", "a.b", -5) + launchLine("13-01 10:00:00.000", "a.b", 0) +
                        launchLine("02-30 10:00:00.000", "a.b", 0) + launchLine("11-24 24:00:00.000", "a.b", 0));
  EXPECT_EQ(r.badLines, (std::vector<size_t>{2, 3, 4, 5, 6}));
}

TEST(LogImport, FiguresNameTheLineOfTheirFirstFault) {
  EXPECT_EQ(vsim::parseFigures("app,rss,gpu,file\n# note\n\na.b, 10, 2, 3\r\n").at("a.b").ionKgslKB, 2u);
  const struct {
    std::string csv;
    const char* message;
  } cases[] = {
      {"a.b,1,2\n", "line 1: expected 4 columns"},
      {"a.b,1,2,3\nc.d,x,2,3\n", "line 2: the three figures"},
      {"a.b,1,2,3\na.b,1,2,3\n", "line 2: 'a.b' is listed twice"},
      {"a/b,1,2,3\n", "line 1: 'a/b' is not a valid name"},
      {"a.b,0,2,3\n", "line 1: rss_swap must be above 0"},
  };
  for (const auto& c : cases)
    EXPECT_THAT(kxtest::errorOf<vsim::ScenarioError>([&] { vsim::parseFigures(c.csv); }), HasSubstr(c.message))
        << c.csv;
}

}  // namespace
