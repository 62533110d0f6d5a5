// The omniscient reference policy: it knows what each launch truly needs and
// what each process would free, and at a launch kills the fewest background
// processes that cover the true shortfall, nothing when there is none.
#pragma once

#include <cstdint>
#include <vector>

namespace vsim {

struct Candidate {
  int pid = 0;
  uint64_t kb = 0;  // what killing it frees
};

// Chooses as the plug-in chooses from its background list: the smallest
// candidate that alone covers what is left, else the largest, until the
// shortfall is covered or the candidates run out. Taking the largest until
// one suffices is what makes the count the smallest possible, and the last
// pick the smallest that suffices. Returns the victims in the order chosen.
std::vector<Candidate> oracleVictims(std::vector<Candidate> candidates, int64_t shortfallKB);

}  // namespace vsim
