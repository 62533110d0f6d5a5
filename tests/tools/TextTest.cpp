// Whatever bytes a name holds, the report, its JSON and the pictures stay
// readable and well-formed.

#include <gtest/gtest.h>

#include <cstdlib>

#include "Comparison.h"
#include "Picture.h"
#include "Report.h"
#include "Text.h"
#include "support/TempDir.h"

namespace {

using vsim::printable;

TEST(TextTest, ControlAndInvalidBytesAreShownAsEscapes) {
  const std::pair<std::string, std::string> cases[] = {
      {"com.example.app", "com.example.app"},
      {"bell\x07tab\tnl\n", "bell\\x07tab\\x09nl\\x0A"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xb1", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x93\xb1"},  // valid UTF-8 stays
      {"lone\xc3", "lone\\xC3"},
      {"overlong\xc0\xaf", "overlong\\xC0\\xAF"},
      {"surrogate\xed\xa0\x80", "surrogate\\xED\\xA0\\x80"},
  };
  for (const auto& [in, out] : cases) EXPECT_EQ(printable(in), out) << out;
  EXPECT_EQ(vsim::xmlText("a<b>&\"c'\x01"), "a&lt;b&gt;&amp;&quot;c&apos;\\x01");
}

// Well-formed XML, as a validating reader sees it.
bool wellFormed(const kxtest::TempDir& dir, const std::string& name, const std::string& svg) {
  const std::string path = dir.write(name, svg);
  return std::system(("xmllint --noout '" + path + "' 2>/dev/null").c_str()) == 0;
}

TEST(TextTest, HostileNamesLeaveEveryOutputWellFormed) {
  const std::string hostile = "evil\x01\x1b[31m</text><script>&\xff\"'";
  vsim::Report rep;
  rep.scenarioName = hostile;
  rep.deviceClass = "4GB";
  rep.policy = hostile;
  rep.problems.push_back(hostile + " died");
  vsim::LaunchRecord r;
  r.index = 1;
  r.app = hostile;
  r.slot = "week_day_1";
  r.victims.push_back({hostile, 42, 51200, vsim::KillBy::Background, false});
  rep.addLaunch(r);
  rep.addApp({hostile, 1, 1, std::nullopt, std::nullopt, 1, 1, hostile});
  rep.addPoint({0, 1000, 2000});
  rep.favourites["week_day_1"] = {hostile};
  vsim::Comparison cmp;
  cmp.scenarioName = hostile;
  cmp.add(rep);

  for (const std::string& text : {rep.toText(), cmp.toText()})
    for (char c : text) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << static_cast<int>(c);
  const auto json = nlohmann::json::parse(vsim::dumpJson(rep.toJson()));
  EXPECT_EQ(json["launches"][0]["app"].get<std::string>().substr(0, 5), "evil\x01");

  kxtest::TempDir dir;
  EXPECT_TRUE(wellFormed(dir, "timeline.svg", vsim::renderSvg(rep)));
  EXPECT_TRUE(wellFormed(dir, "compare.svg", vsim::renderComparisonSvg(cmp)));
  EXPECT_FALSE(wellFormed(dir, "broken.svg", "<svg><text>\x01</text></svg>")) << "the check itself";
}

}  // namespace
