// The oracle's choice on small cases whose smallest set of victims is known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Oracle.h"

namespace {

using vsim::Candidate;

MATCHER(HasPid, "") { return std::get<0>(arg).pid == std::get<1>(arg); }

TEST(OracleTest, KillsTheFewestCandidatesThatCoverTheShortfall) {
  const std::vector<Candidate> three = {{1, 10000}, {2, 40000}, {3, 90000}};
  const struct {
    const char* what;
    std::vector<Candidate> candidates;
    int64_t shortfallKB;
    std::vector<int> victims;
  } cases[] = {
      {"no shortfall, no kill", three, 0, {}},
      {"a negative shortfall, no kill", three, -5000, {}},
      {"the smallest that alone covers it", three, 30000, {2}},
      {"an exact fit", three, 40000, {2}},
      {"none alone suffices: the largest, then the smallest that covers the rest", three, 95000, {3, 1}},
      {"two are needed and one more than the largest", {{1, 30000}, {2, 30000}, {3, 50000}}, 60000, {3, 1}},
      {"not enough: everyone, largest first", three, 500000, {3, 2, 1}},
      {"equal memory: the one listed first", {{7, 20000}, {5, 20000}}, 15000, {7}},
      {"no candidates", {}, 10000, {}},
  };
  for (const auto& c : cases)
    EXPECT_THAT(vsim::oracleVictims(c.candidates, c.shortfallKB), testing::Pointwise(HasPid(), c.victims)) << c.what;
}

}  // namespace
