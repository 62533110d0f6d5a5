// Policy names as the command line gives them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "Policy.h"
#include "support/ErrorOf.h"

namespace {

using testing::HasSubstr;
using vsim::Policy;

TEST(PolicyTest, NamesParseAndRoundTrip) {
  const std::tuple<const char*, Policy::Kind, bool, const char*> cases[] = {
      {"vorak", Policy::Kind::Vorak, true, "vorak"},
      {"none", Policy::Kind::None, false, "none"},
      {"oracle", Policy::Kind::Oracle, false, "oracle"},
      {"vorak:safeload=0.25", Policy::Kind::Vorak, true, "vorak-safeload-0.25"},
  };
  for (const auto& [text, kind, acts, dir] : cases) {
    const Policy p = vsim::parsePolicy(text);
    EXPECT_EQ(std::make_tuple(p.kind, p.pluginActs(), p.name(), p.dirName()),
              std::make_tuple(kind, acts, std::string(text), std::string(dir)));
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
  for (const auto& [text, message] : cases)
    EXPECT_THAT(kxtest::errorOf<vsim::PolicyError>([&] { vsim::parsePolicies(text); }), HasSubstr(message)) << text;
}

}  // namespace
