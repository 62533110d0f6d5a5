// The side-by-side table and its plain statement of each policy against none.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Comparison.h"

namespace {

using testing::HasSubstr;

// A run of `policy` whose two launches took `ms` each, the first cold after a kill.
vsim::Report run(const std::string& policy, double ms, bool aliveAtEnd) {
  vsim::Report r;
  r.policy = policy;
  r.runDir = "/runs/" + policy;
  r.appsAliveAtEnd = aliveAtEnd;
  for (int i = 1; i <= 2; ++i) {
    vsim::LaunchRecord l;
    l.index = i;
    l.launchMs = ms;
    l.cold = i == 1;
    l.coldCause = i == 1 ? vsim::ColdCause::KilledByPolicy : vsim::ColdCause::Warm;
    r.addLaunch(l);
  }
  return r;
}

TEST(ComparisonTest, OneColumnPerPolicyAndEachAgainstNoneSaidPlainly) {
  vsim::Comparison c;
  c.add(run("vorak", 1500, false));
  c.add(run("none", 1000, true));
  c.add(run("oracle", 800, true));
  const std::string text = c.toText();
  EXPECT_THAT(text, testing::ContainsRegex("launch time, mean +1.50 s +1.00 s +800 ms\n"));
  EXPECT_THAT(text, testing::ContainsRegex("  caused by kills +1 +1 +1\n"));
  EXPECT_THAT(text, HasSubstr("vorak: mean launch time +500 ms (+50.0 %), p95 +500 ms, cold launches +0, apps alive "
                              "at the end -1: slower than none"));
  EXPECT_THAT(text, testing::ContainsRegex("oracle: mean launch time -200 ms \\(-20.0 %\\).*faster than none"));
  EXPECT_THAT(text, HasSubstr("oracle: /runs/oracle"));

  EXPECT_EQ(c.toJson()["policies"][1]["summary"]["coldCausedByPolicyKills"], 1);
  vsim::Comparison withoutNone;
  withoutNone.add(run("vorak", 1, false));
  EXPECT_EQ(withoutNone.toText().find("Against none"), std::string::npos);
}

}  // namespace
