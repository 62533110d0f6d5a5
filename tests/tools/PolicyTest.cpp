// Policy names as the command line gives them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Policy.h"

namespace {

using testing::HasSubstr;
using vsim::Policy;

TEST(PolicyTest, NamesParseAndRoundTrip) {
  struct Case {
    const char* text;
    Policy::Kind kind;
    bool acts;
    const char* dir;
  };
  const Case cases[] = {
      {"vorak", Policy::Kind::Vorak, true, "vorak"},
      {"none", Policy::Kind::None, false, "none"},
      {"oracle", Policy::Kind::Oracle, false, "oracle"},
      {"vorak:safeload=0.25", Policy::Kind::Vorak, true, "vorak-safeload-0.25"},
  };
  for (const Case& c : cases) {
    const Policy p = vsim::parsePolicy(c.text);
    EXPECT_EQ(p.kind, c.kind) << c.text;
    EXPECT_EQ(p.pluginActs(), c.acts) << c.text;
    EXPECT_EQ(p.name(), c.text);
    EXPECT_EQ(p.dirName(), c.dir);
  }
  EXPECT_FLOAT_EQ(*vsim::parsePolicy("vorak:safeload=0.25").safeload, 0.25f);
}

TEST(PolicyTest, MistakesAreNamed) {
  const std::pair<const char*, const char*> cases[] = {
      {"vorak:safeload=0", "between 0 and 1"},    {"vorak:safeload=1", "between 0 and 1"},
      {"vorak:safeload=0.2x", "between 0 and 1"}, {"lru", "unknown policy 'lru'"},
      {"vorak,none,vorak", "named twice"},        {"", "no policy"},
      {"none,,oracle", "unknown policy ''"},      {"bad\x01name", "'bad\\x01name'"},
  };
  for (const auto& [text, message] : cases) {
    try {
      vsim::parsePolicies(text);
      ADD_FAILURE() << "accepted " << text;
    } catch (const vsim::PolicyError& e) {
      EXPECT_THAT(e.what(), HasSubstr(message)) << text;
    }
  }
}

}  // namespace
