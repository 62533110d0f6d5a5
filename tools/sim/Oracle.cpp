#include "Oracle.h"

#include <algorithm>

namespace vsim {

std::vector<Candidate> oracleVictims(std::vector<Candidate> candidates, int64_t shortfallKB) {
  // Ascending memory; equal memory in the order given, as the plug-in's multimap keeps them.
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const Candidate& a, const Candidate& b) { return a.kb < b.kb; });
  std::vector<Candidate> victims;
  int64_t remaining = shortfallKB;
  while (remaining > 0 && !candidates.empty()) {
    auto pick = std::lower_bound(candidates.begin(), candidates.end(), static_cast<uint64_t>(remaining),
                                 [](const Candidate& c, uint64_t kb) { return c.kb < kb; });
    if (pick == candidates.end()) pick = std::prev(candidates.end());
    remaining -= static_cast<int64_t>(pick->kb);
    victims.push_back(*pick);
    candidates.erase(pick);
  }
  return victims;
}

}  // namespace vsim
